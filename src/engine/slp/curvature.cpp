// Curvature models of the step problem: a damped BFGS matrix on small problems, and on large
// ones the diagonal of the Lagrangian's Hessian (the objective's constant share and the rows'
// shares by differences of their exact gradients), each cut to its positive semidefinite part.
#include "engine/slp/run.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace slp {

// Replaces the symmetric p x p matrix A (row-major) by its positive semidefinite part: the
// cyclic Jacobi method diagonalises it and the negative eigenvalues are dropped.
void psd_part(std::vector<double>& A, int p) {
    if (p == 1) {
        A[0] = std::max(A[0], 0.0);
        return;
    }
    std::vector<double> V(p * p, 0.0);
    for (int i = 0; i < p; ++i) V[i * p + i] = 1.0;
    for (int sweep = 0; sweep < 50; ++sweep) {
        double off = 0.0, diag = 0.0;
        for (int i = 0; i < p; ++i) {
            diag += A[i * p + i] * A[i * p + i];
            for (int j = i + 1; j < p; ++j) off += A[i * p + j] * A[i * p + j];
        }
        if (off <= 1e-30 * (diag + 1e-300)) break;
        for (int i = 0; i < p; ++i)
            for (int j = i + 1; j < p; ++j) {
                double aij = A[i * p + j];
                if (std::fabs(aij) < 1e-300) continue;
                double theta = (A[j * p + j] - A[i * p + i]) / (2.0 * aij);
                double t = (theta >= 0 ? 1.0 : -1.0) / (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
                double c = 1.0 / std::sqrt(t * t + 1.0), sn = t * c;
                for (int k = 0; k < p; ++k) {   // A <- A J on columns i, j
                    double aki = A[k * p + i], akj = A[k * p + j];
                    A[k * p + i] = c * aki - sn * akj;
                    A[k * p + j] = sn * aki + c * akj;
                }
                for (int k = 0; k < p; ++k) {   // A <- J' A on rows i, j
                    double aik = A[i * p + k], ajk = A[j * p + k];
                    A[i * p + k] = c * aik - sn * ajk;
                    A[j * p + k] = sn * aik + c * ajk;
                }
                for (int k = 0; k < p; ++k) {
                    double vki = V[k * p + i], vkj = V[k * p + j];
                    V[k * p + i] = c * vki - sn * vkj;
                    V[k * p + j] = sn * vki + c * vkj;
                }
            }
    }
    std::vector<double> e(p);
    for (int i = 0; i < p; ++i) e[i] = std::max(A[i * p + i], 0.0);
    for (int a = 0; a < p; ++a)
        for (int b = 0; b < p; ++b) {
            double v = 0.0;
            for (int k = 0; k < p; ++k) v += V[a * p + k] * e[k] * V[b * p + k];
            A[a * p + b] = v;
        }
}

// Largest block that psd_part works on; bigger blocks are made diagonally dominant instead
// (every diagonal entry raised to the sum of the magnitudes off the diagonal in its row),
// which needs no dense matrix.
constexpr int kDenseBlock = 40;
// Rows whose Hessian needs more colours than this add no curvature: differencing their
// gradients costs a gradient per colour.
constexpr int kMaxCurvedRow = 2000;


// Gradient of the Lagrangian s f - sum lambda_r g_r on the curvature columns, at the current
// linearisation (gf, nlgrad).
void Run::lagrangian_grad(const std::vector<double>& lam, std::vector<double>& out) {
    std::vector<double> g(n, 0.0);
    for (int j : qcols) g[j] = sense * gf[j];
    for (size_t k = 0; k < E.nlrows.size(); ++k) {
        double l = lam[E.nlrows[k]];
        if (l == 0.0) continue;
        const auto& pat = E.pattern[k];
        for (size_t q = 0; q < pat.size(); ++q) g[pat[q]] -= l * nlgrad[k][q];
    }
    out.resize(qcols.size());
    for (size_t c = 0; c < qcols.size(); ++c) out[c] = g[qcols[c]];
}

// Damped BFGS update (Powell) of B with the last step and the change of the Lagrangian's
// gradient; the first update scales the identity.
void Run::bfgs_update(const std::vector<double>& gl_new) {
    size_t K = qcols.size();
    std::vector<double> y(K), Bs(K, 0.0);
    double sy = 0.0, ss = 0.0, yy = 0.0;
    for (size_t c = 0; c < K; ++c) {
        y[c] = gl_new[c] - gl_old[c];
        sy += s_old[c] * y[c];
        ss += s_old[c] * s_old[c];
        yy += y[c] * y[c];
    }
    if (ss <= 1e-300) return;
    if (!have_b) {
        // No curvature seen along the step yet: stay with linear steps, whose step bounds
        // grow freely (a tiny model curvature would fix the step length instead).
        if (!(sy > 0)) return;
        double g = yy / sy;
        if (!std::isfinite(g) || g <= 1e-8) return;
        B.assign(K * K, 0.0);
        for (size_t c = 0; c < K; ++c) B[c * K + c] = g;
        have_b = true;
    }
    double sBs = 0.0;
    for (size_t a = 0; a < K; ++a) {
        double v = 0.0;
        for (size_t b = 0; b < K; ++b) v += B[a * K + b] * s_old[b];
        Bs[a] = v;
        sBs += s_old[a] * v;
    }
    if (sBs <= 1e-300) return;
    if (sy < 0.2 * sBs) {
        double theta = 0.8 * sBs / (sBs - sy);
        for (size_t c = 0; c < K; ++c) y[c] = theta * y[c] + (1 - theta) * Bs[c];
        sy = 0.2 * sBs;
    }
    for (size_t a = 0; a < K; ++a)
        for (size_t b = 0; b < K; ++b) B[a * K + b] += y[a] * y[b] / sy - Bs[a] * Bs[b] / sBs;
}


// The objective's Hessian s Q is constant: the diagonal of its positive semidefinite part is
// taken once, per connected block of columns (exactly for small blocks, by diagonal dominance
// for big ones).
void Run::objective_curvature() {
    objdiag.assign(n, 0.0);
    size_t P = E.qobj.v.size();
    std::vector<int> parent(n);
    for (int j = 0; j < n; ++j) parent[j] = j;
    auto find = [&](int j) {
        while (parent[j] != j) j = parent[j] = parent[parent[j]];
        return j;
    };
    auto usable = [&](int j) { return j >= 0 && j < n && nonlin[j]; };
    for (size_t q = 0; q < P; ++q) {
        int i = E.qobj.i[q], j = E.qobj.j[q];
        if (usable(i) && usable(j)) parent[find(i)] = find(j);
    }
    std::map<int, std::vector<size_t>> blocks;   // root -> entries
    for (size_t q = 0; q < P; ++q) {
        int i = E.qobj.i[q], j = E.qobj.j[q];
        if (usable(i) && usable(j)) blocks[find(i)].push_back(q);
    }
    for (auto& kv : blocks) {
        std::vector<int> cols;
        for (size_t q : kv.second) {
            cols.push_back(E.qobj.i[q]);
            cols.push_back(E.qobj.j[q]);
        }
        std::sort(cols.begin(), cols.end());
        cols.erase(std::unique(cols.begin(), cols.end()), cols.end());
        int p = (int)cols.size();
        auto pos = [&](int j) { return (int)(std::lower_bound(cols.begin(), cols.end(), j) - cols.begin()); };
        if (p <= kDenseBlock) {
            std::vector<double> A(p * p, 0.0);
            for (size_t q : kv.second) {
                int a = pos(E.qobj.i[q]), b = pos(E.qobj.j[q]);
                double v = sense * E.qobj.v[q];
                if (a == b) A[a * p + a] += 2.0 * v;
                else {
                    A[a * p + b] += v;
                    A[b * p + a] += v;
                }
            }
            psd_part(A, p);
            for (int a = 0; a < p; ++a) objdiag[cols[a]] = A[a * p + a];
        } else {
            std::vector<double> diag(p, 0.0), off(p, 0.0);
            for (size_t q : kv.second) {
                int a = pos(E.qobj.i[q]), b = pos(E.qobj.j[q]);
                double v = sense * E.qobj.v[q];
                if (a == b) diag[a] += 2.0 * v;
                else {
                    off[a] += std::fabs(v);
                    off[b] += std::fabs(v);
                }
            }
            for (int a = 0; a < p; ++a) objdiag[cols[a]] = std::max(diag[a], off[a]);
        }
    }
}


namespace {

// Pattern and colouring of the Hessian of nonlinear row k on the sorted columns C (pairs with
// a column outside C drop out). False when the pattern is too large or needs too many colours.
bool row_hessian(const Evaluator& E, const Model& m, size_t k, const std::vector<int>& C, SparsePattern& pat,
                 std::vector<int>& order, std::vector<int>& cstart) {
    std::vector<std::pair<int, int>> pairs;
    if (!hessian_pattern(E.tapes[k], E.roots[k], 4000000, pairs)) return false;
    auto q = m.qrows.find(E.nlrows[k]);
    if (q != m.qrows.end())
        for (size_t e = 0; e < q->second.v.size(); ++e) pairs.emplace_back(q->second.i[e], q->second.j[e]);
    auto pos = [&](int j) {
        auto it = std::lower_bound(C.begin(), C.end(), j);
        return it != C.end() && *it == j ? (int)(it - C.begin()) : -1;
    };
    size_t w = 0;
    for (auto& e : pairs) {
        int a = pos(e.first), b = pos(e.second);
        if (a >= 0 && b >= 0) pairs[w++] = {a, b};
    }
    pairs.resize(w);
    int p = (int)C.size();
    pat = make_pattern(p, pairs);
    std::vector<int> colour;
    int nc = colour_columns(pat, colour);
    if (nc > kMaxCurvedRow) return false;
    cstart.assign(nc + 1, 0);
    for (int a = 0; a < p; ++a) ++cstart[colour[a] + 1];
    for (int c = 0; c < nc; ++c) cstart[c + 1] += cstart[c];
    order.assign(p, 0);
    std::vector<int> fill(cstart.begin(), cstart.end() - 1);
    for (int a = 0; a < p; ++a) order[fill[colour[a]]++] = a;
    return true;
}

}  // namespace

// Sparsity and colouring of the Hessians of the rows curved in more than kDenseBlock
// columns, once per run. A row whose pattern has too many entries, or needs more colours than
// kMaxCurvedRow, adds no curvature.
void Run::prepare_row_hessians() {
    rowhess_ready = true;
    size_t K = E.nlrows.size();
    rowhess.assign(K, RowHessian());
    for (size_t k = 0; k < K; ++k) {
        if ((int)hcols[k].size() <= kDenseBlock) continue;
        RowHessian& R = rowhess[k];
        R.usable = row_hessian(E, m, k, hcols[k], R.pat, R.order, R.cstart);
        if (!R.usable) R = RowHessian();
    }
}

// The curvature of every curved column at x: the objective's share and, for every nonlinear
// row with a non-zero multiplier, the diagonal of the positive semidefinite part of
// -lambda_r times the row's Hessian (forward differences of its exact gradient over the
// columns it is curved in). Small rows difference one column at a time and take the exact
// positive semidefinite part; larger ones difference one colour of their sparse Hessian at a
// time (a gradient per colour) and raise each diagonal entry to the sum of the magnitudes off
// the diagonal in its column.
void Run::diag_curvature() {
    if (!rowhess_ready) prepare_row_hessians();
    hd = objdiag;
    std::vector<double> xs = x, g0, A, diag, off, steps;
    for (size_t k = 0; k < E.nlrows.size(); ++k) {
        int r = E.nlrows[k];
        double l = lam_h.empty() ? 0.0 : lam_h[r];
        const auto& C = hcols[k];
        int p = (int)C.size();
        bool dense = p <= kDenseBlock;
        if (p == 0 || (!dense && !rowhess[k].usable) || !(std::fabs(l) > 1e-14)) continue;
        const auto& pat = E.pattern[k];
        g0.resize(p);
        for (int a = 0; a < p; ++a)
            g0[a] = nlgrad[k][std::lower_bound(pat.begin(), pat.end(), C[a]) - pat.begin()];
        A.assign(dense ? (size_t)p * p : 0, 0.0);
        diag.assign(p, 0.0);
        off.assign(p, 0.0);
        auto step_of = [&](int j) {
            double step = 1e-6 * std::max(1.0, std::fabs(x[j]));
            if (x[j] + step > m.ub[j] && x[j] - step >= m.lb[j]) step = -step;
            xs[j] = x[j] + step;
            return xs[j] - x[j];
        };
        bool ok = true;
        if (dense) {
            for (int b = 0; b < p && ok; ++b) {
                // Column b of -lambda times the row's Hessian.
                int j = C[b];
                double step = step_of(j);
                double v;
                ok = E.nlrow_grad((int)k, xs.data(), &v, gscratch.data());
                xs[j] = x[j];
                if (!ok) break;
                for (int a = 0; a < p; ++a) A[(size_t)a * p + b] = -l * (gscratch[C[a]] - g0[a]) / step;
            }
        } else {
            const RowHessian& R = rowhess[k];
            steps.resize(p);
            int nc = (int)R.cstart.size() - 1;
            for (int c = 0; c < nc && ok; ++c) {
                // One colour at a time: row a of H e_S holds H(a, b) for its one neighbour b in S.
                for (int q = R.cstart[c]; q < R.cstart[c + 1]; ++q) steps[R.order[q]] = step_of(C[R.order[q]]);
                double v;
                ok = E.nlrow_grad((int)k, xs.data(), &v, gscratch.data());
                for (int q = R.cstart[c]; q < R.cstart[c + 1]; ++q) xs[C[R.order[q]]] = x[C[R.order[q]]];
                if (!ok) break;
                for (int q = R.cstart[c]; q < R.cstart[c + 1]; ++q) {
                    int b = R.order[q];
                    for (int e = R.pat.start[b]; e < R.pat.start[b + 1]; ++e) {
                        int a = R.pat.idx[e];
                        double hab = -l * (gscratch[C[a]] - g0[a]) / steps[b];
                        if (a == b) diag[b] = hab;
                        else off[b] += std::fabs(hab);
                    }
                }
            }
        }
        if (!ok) continue;   // a row that cannot be evaluated nearby adds no curvature
        if (dense) {
            for (int a = 0; a < p; ++a)
                for (int b = a; b < p; ++b)
                    A[(size_t)a * p + b] = A[(size_t)b * p + a] = 0.5 * (A[(size_t)a * p + b] + A[(size_t)b * p + a]);
            psd_part(A, p);
            for (int a = 0; a < p; ++a) diag[a] = A[(size_t)a * p + a];
        } else {
            for (int a = 0; a < p; ++a) diag[a] = std::max(diag[a], off[a]);
        }
        for (int a = 0; a < p; ++a)
            if (std::isfinite(diag[a]) && diag[a] > 0.0) hd[C[a]] += diag[a];
    }
}

double Run::quad_model(const std::vector<double>& xt) const {
    if (pwl_on) {
        // The step problem's own curvature cost of the step: piecewise linear on segments, or
        // the quadratic itself when the step problem carried it as a diagonal.
        double v = 0.0;
        for (int j = 0; j < n; ++j) {
            double wj = segw[j];
            if (!(wj > 0.0)) continue;
            double d = std::fabs(xt[j] - x[j]);
            if (diag_qp) {
                v += 0.5 * hd[j] * d * d;
                continue;
            }
            double t = std::min(std::floor(d / wj), (double)nseg);
            v += hd[j] * (0.5 * wj * wj * t * t + (t + 0.5) * wj * std::max(0.0, d - t * wj));
        }
        return v;
    }
    if (!(use_b && have_b && hessian_passed)) return 0.0;
    size_t K = qcols.size();
    double v = 0.0;
    for (size_t a = 0; a < K; ++a) {
        double da = xt[qcols[a]] - x[qcols[a]];
        if (da == 0.0) continue;
        for (size_t b = 0; b < K; ++b) v += da * B[a * K + b] * (xt[qcols[b]] - x[qcols[b]]);
    }
    return 0.5 * v;
}

}  // namespace slp
