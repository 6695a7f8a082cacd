// Mehrotra predictor-corrector interior-point method on the normal equations, with an
// envelope Cholesky factorisation in reverse Cuthill-McKee order (see sparse_step.h). A
// separable quadratic term only adds its diagonal to the scaling of each column, so the normal
// matrix keeps the pattern of the LP's.
//
// Formulation: every column that is not fixed is a variable x (shifted by its lower bound
// when it has one, so that x >= 0 there; an upper bound U is x + su = U, su >= 0); every row
// with a finite bound and distinct bounds gets a slack variable s (a'x - s = 0, s within the
// row's bounds); equality rows are a'x = b; fixed columns move to the right-hand side and
// rows free on both sides are left out (dual 0).
#include "engine/slp/sparse_step.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace slp {

namespace {

// Columns in more rows than kMaxColumnRows would fill the normal matrix: up to kMaxDense of
// them are kept out of it and brought back by a low-rank correction of each solve (more
// decline the problem). Envelopes wider than kMaxEnvelopePerRow entries per row, on average,
// decline it too: the simplex method is then the better tool.
constexpr int kMaxColumnRows = 48;
constexpr int kMaxDense = 8;
constexpr double kMaxEnvelopePerRow = 200.0;
constexpr double kProximal = 1e-8;

struct Variable {
    double cost = 0.0, shift = 0.0, U = INFINITY;   // x + shift is the column's value
    double q = 0.0;                                  // quadratic cost 1/2 q (x + shift)^2
    bool has_l = false, has_u = false;
    int col = -1;   // LP column, or -1 for a row slack
    int row = -1;   // the slack's row (compact index)
};

// Lower-triangular envelope matrix: row i holds columns first[i] .. i at pos[i].
struct Envelope {
    std::vector<int> first;
    std::vector<int64_t> pos;
    std::vector<double> L;
    double& at(int i, int j) { return L[pos[i] + (j - first[i])]; }
};

// Reverse Cuthill-McKee order of the graph adj (symmetric, without self loops).
std::vector<int> rcm_order(const std::vector<std::vector<int>>& adj) {
    int n = (int)adj.size();
    std::vector<int> order, by_degree(n);
    order.reserve(n);
    std::vector<char> seen(n, 0);
    for (int i = 0; i < n; ++i) by_degree[i] = i;
    std::stable_sort(by_degree.begin(), by_degree.end(),
                     [&](int a, int b) { return adj[a].size() < adj[b].size(); });
    std::vector<int> level(n, -1), queue;
    // Breadth-first search from s over unseen nodes; returns a node of least degree in the
    // last level (a pseudo-peripheral candidate) and leaves the visit order in queue.
    auto bfs = [&](int s, bool mark) {
        queue.clear();
        queue.push_back(s);
        level[s] = 0;
        std::vector<int> touched{s};
        for (size_t q = 0; q < queue.size(); ++q) {
            int v = queue[q];
            std::vector<int> next;
            for (int w : adj[v])
                if (!seen[w] && level[w] < 0) {
                    level[w] = level[v] + 1;
                    next.push_back(w);
                    touched.push_back(w);
                }
            std::sort(next.begin(), next.end(), [&](int a, int b) { return adj[a].size() < adj[b].size(); });
            queue.insert(queue.end(), next.begin(), next.end());
        }
        int last = queue.back(), best = last;
        for (auto it = queue.rbegin(); it != queue.rend() && level[*it] == level[last]; ++it)
            if (adj[*it].size() < adj[best].size()) best = *it;
        for (int v : touched) level[v] = -1;
        if (mark)
            for (int v : queue) seen[v] = 1;
        return best;
    };
    for (int s : by_degree) {
        if (seen[s]) continue;
        int p = bfs(s, false);
        p = bfs(p, false);
        bfs(p, true);
        order.insert(order.end(), queue.begin(), queue.end());
    }
    std::reverse(order.begin(), order.end());
    return order;
}

// Cholesky factorisation in place. Pivots that vanish (dependent rows) become huge, which
// zeroes their component of the solution.
void factor(Envelope& E, int n) {
    double maxdiag = 0.0;
    for (int i = 0; i < n; ++i) maxdiag = std::max(maxdiag, E.at(i, i));
    const double tiny = 1e-30 * std::max(1.0, maxdiag);
    for (int i = 0; i < n; ++i) {
        int fi = E.first[i];
        double* Li = &E.L[E.pos[i]] - fi;   // Li[k] = L(i, k)
        for (int j = fi; j <= i; ++j) {
            int fj = E.first[j];
            const double* Lj = &E.L[E.pos[j]] - fj;
            double s = Li[j];
            for (int k = std::max(fi, fj); k < j; ++k) s -= Li[k] * Lj[k];
            if (j < i) {
                Li[j] = s / Lj[j];
            } else {
                Li[i] = s > tiny ? std::sqrt(s) : 1e64;
            }
        }
    }
}

void solve(const Envelope& E, int n, std::vector<double>& r) {
    for (int i = 0; i < n; ++i) {
        int fi = E.first[i];
        const double* Li = &E.L[E.pos[i]] - fi;
        double s = r[i];
        for (int k = fi; k < i; ++k) s -= Li[k] * r[k];
        r[i] = s / Li[i];
    }
    for (int i = n - 1; i >= 0; --i) {
        int fi = E.first[i];
        const double* Li = &E.L[E.pos[i]] - fi;
        r[i] /= Li[i];
        double v = r[i];
        for (int k = fi; k < i; ++k) r[k] -= Li[k] * v;
    }
}

}  // namespace

SparseStatus sparse_lp_solve(const SparseLp& lp, double tol, const std::function<bool()>& stop,
                             SparseLpSolution& sol) {
    const int nc = lp.ncol, nr = lp.nrow;
    // Rows kept (compact index, -1 left out) and their right-hand sides.
    std::vector<int> rowmap(nr, -1);
    int m = 0;
    for (int r = 0; r < nr; ++r) {
        if (lp.rowlo[r] > lp.rowup[r]) return SparseStatus::Declined;
        if (std::isfinite(lp.rowlo[r]) || std::isfinite(lp.rowup[r])) rowmap[r] = m++;
    }
    std::vector<double> b(m, 0.0);
    std::vector<Variable> var;
    var.reserve(nc + m);
    std::vector<double> fixedval(nc, 0.0);
    std::vector<char> isfixed(nc, 0);
    const bool quadratic = !lp.qdiag.empty();
    if (quadratic && (int)lp.qdiag.size() != nc) return SparseStatus::Declined;
    double objconst = 0.0;   // the objective's share of the shifts and the fixed columns
    for (int j = 0; j < nc; ++j) {
        double l = lp.collo[j], u = lp.colup[j];
        double q = quadratic ? lp.qdiag[j] : 0.0;
        if (l > u || !(q >= 0.0) || !std::isfinite(q)) return SparseStatus::Declined;
        if (l == u) {
            isfixed[j] = 1;
            fixedval[j] = l;
            objconst += (lp.cost[j] + 0.5 * q * l) * l;
            for (int e = lp.start[j]; e < lp.start[j + 1]; ++e)
                if (rowmap[lp.index[e]] >= 0) b[rowmap[lp.index[e]]] -= lp.value[e] * l;
            continue;
        }
        Variable v;
        v.col = j;
        v.has_l = std::isfinite(l);
        v.has_u = std::isfinite(u);
        v.shift = v.has_l ? l : 0.0;
        v.U = v.has_u ? u - v.shift : INFINITY;
        v.q = q;
        // c (x + shift) + q/2 (x + shift)^2 = (c + q shift) x + q/2 x^2 + constant
        v.cost = lp.cost[j] + q * v.shift;
        objconst += lp.cost[j] * v.shift + 0.5 * q * v.shift * v.shift;
        if (v.shift != 0.0)
            for (int e = lp.start[j]; e < lp.start[j + 1]; ++e)
                if (rowmap[lp.index[e]] >= 0) b[rowmap[lp.index[e]]] -= lp.value[e] * v.shift;
        var.push_back(v);
    }
    for (int r = 0; r < nr; ++r) {
        int i = rowmap[r];
        if (i < 0) continue;
        double l = lp.rowlo[r], u = lp.rowup[r];
        if (l == u) {
            b[i] += l;
            continue;
        }
        Variable v;
        v.row = i;
        v.has_l = std::isfinite(l);
        v.has_u = std::isfinite(u);
        v.shift = v.has_l ? l : 0.0;
        v.U = v.has_u ? u - v.shift : INFINITY;
        b[i] += v.shift;   // a'x - (s' + shift) = 0
        var.push_back(v);
    }
    const int nv = (int)var.size();
    // Dense columns: their share of the normal matrix is a low-rank term (see nsolve).
    std::vector<int> densev;
    std::vector<char> isdense(nv, 0);
    for (int v = 0; v < nv; ++v) {
        int j = var[v].col;
        if (j >= 0 && lp.start[j + 1] - lp.start[j] > kMaxColumnRows) {
            if ((int)densev.size() == kMaxDense) return SparseStatus::Declined;
            densev.push_back(v);
            isdense[v] = 1;
        }
    }
    const int nd = (int)densev.size();

    // Matrix of the variables, column-wise, on the compact rows; a slack's column is -e_row.
    std::vector<int> vstart(nv + 1, 0), vrow;
    std::vector<double> vval;
    for (int v = 0; v < nv; ++v) {
        if (var[v].col >= 0) {
            int j = var[v].col;
            for (int e = lp.start[j]; e < lp.start[j + 1]; ++e) {
                int i = rowmap[lp.index[e]];
                if (i < 0 || lp.value[e] == 0.0) continue;
                vrow.push_back(i);
                vval.push_back(lp.value[e]);
            }
        } else {
            vrow.push_back(var[v].row);
            vval.push_back(-1.0);
        }
        vstart[v + 1] = (int)vrow.size();
    }

    // Rows whose columns are all fixed: met already (to a tolerance) or the step problem is
    // infeasible, which the simplex method is left to report. Met ones stay in the system
    // with a unit diagonal and a zero right-hand side, so that their duals stay zero.
    std::vector<char> empty(m, 1), sparse_covered(m, 0);
    for (int i : vrow) empty[i] = 0;
    for (int v = 0; v < nv; ++v)
        if (!isdense[v])
            for (int p = vstart[v]; p < vstart[v + 1]; ++p) sparse_covered[vrow[p]] = 1;
    for (int i = 0; i < m; ++i)   // the sparse part must stay nonsingular on its own
        if (!empty[i] && !sparse_covered[i]) return SparseStatus::Declined;
    sparse_covered.clear();
    {
        double bmax = 0.0;
        for (int i = 0; i < m; ++i) bmax = std::max(bmax, std::fabs(b[i]));
        for (int i = 0; i < m; ++i)
            if (empty[i]) {
                if (std::fabs(b[i]) > 1e-9 * (1.0 + bmax)) return SparseStatus::Declined;
                b[i] = 0.0;
            }
    }

    // Ordering and envelope of A D A'.
    std::vector<std::vector<int>> adj(m);
    for (int v = 0; v < nv; ++v) {
        if (isdense[v]) continue;
        for (int p = vstart[v]; p < vstart[v + 1]; ++p)
            for (int q = vstart[v]; q < vstart[v + 1]; ++q)
                if (vrow[p] != vrow[q]) adj[vrow[p]].push_back(vrow[q]);
    }
    for (auto& a : adj) {
        std::sort(a.begin(), a.end());
        a.erase(std::unique(a.begin(), a.end()), a.end());
    }
    // Rows coupled to very many others (the transfer row of an objective) go last, outside
    // the ordering: they add one long row each to the envelope and no width to the others.
    std::vector<int> dense, sub(m, -1), subrows;
    {
        size_t total = 0;
        for (auto& a : adj) total += a.size();
        size_t limit = std::max<size_t>(64, 10 * (total / std::max(m, 1) + 1));
        for (int i = 0; i < m; ++i) {
            if (adj[i].size() > limit) dense.push_back(i);
            else {
                sub[i] = (int)subrows.size();
                subrows.push_back(i);
            }
        }
    }
    std::vector<int> order, inv(m);
    {
        std::vector<std::vector<int>> sadj(subrows.size());
        for (size_t k = 0; k < subrows.size(); ++k)
            for (int w : adj[subrows[k]])
                if (sub[w] >= 0) sadj[k].push_back(sub[w]);
        for (int k : rcm_order(sadj)) order.push_back(subrows[k]);
        order.insert(order.end(), dense.begin(), dense.end());
    }
    for (int k = 0; k < m; ++k) inv[order[k]] = k;
    Envelope E;
    E.first.resize(m);
    E.pos.resize(m + 1);
    int64_t profile = 0;
    for (int k = 0; k < m; ++k) {
        int f = k;
        for (int w : adj[order[k]]) f = std::min(f, inv[w]);
        E.first[k] = f;
        E.pos[k] = profile;
        profile += k - f + 1;
    }
    E.pos[m] = profile;
    if ((double)profile > kMaxEnvelopePerRow * std::max(m, 1) + 1e5) return SparseStatus::Declined;
    adj.clear();
    adj.shrink_to_fit();
    for (int& i : vrow) i = inv[i];
    std::vector<double> bb(m);
    for (int i = 0; i < m; ++i) bb[inv[i]] = b[i];
    b.swap(bb);
    E.L.assign(profile, 0.0);

    // Starting point: boxed variables at the middle of their range, one-sided ones a unit
    // inside their bound, bound duals at the scale of the costs.
    std::vector<double> x(nv), su(nv, 0.0), zl(nv, 0.0), zu(nv, 0.0), y(m, 0.0);
    int nb = 0;
    double cnorm = 0.0, bnorm = 0.0;
    for (int v = 0; v < nv; ++v) {
        const Variable& V = var[v];
        cnorm = std::max(cnorm, std::fabs(V.cost));
        if (V.has_u) cnorm = std::max(cnorm, V.q * V.U);
        if (V.has_l && V.has_u) x[v] = 0.5 * V.U;
        else if (V.has_l) x[v] = 1.0;
        else if (V.has_u) x[v] = V.U - 1.0;
        else x[v] = 0.0;
        if (V.has_u) su[v] = V.U - x[v];
        nb += V.has_l + V.has_u;
    }
    for (int i = 0; i < m; ++i) bnorm = std::max(bnorm, std::fabs(b[i]));
    for (int v = 0; v < nv; ++v) {
        if (var[v].has_l) zl[v] = std::max(1.0, cnorm);
        if (var[v].has_u) zu[v] = std::max(1.0, cnorm);
    }
    for (int v = 0; v < nv; ++v)
        if (var[v].has_u) bnorm = std::max(bnorm, std::fabs(var[v].U));

    std::vector<double> rp(m), rd(nv), rb(nv), theta(nv), g(nv), rhs(m), dy(m), dx(nv), dzl(nv), dzu(nv),
        dsu(nv), dxa(nv), dzla(nv), dzua(nv), dsua(nv);
    auto Atv = [&](const std::vector<double>& yy, int v) {
        double s = 0.0;
        for (int p = vstart[v]; p < vstart[v + 1]; ++p) s += vval[p] * yy[vrow[p]];
        return s;
    };
    // Solves with S + U T U', S the factored normal matrix of the sparse columns, U the dense
    // columns and T their scalings: x = S^-1 r - W M^-1 U'S^-1 r with W = S^-1 U and
    // M = T^-1 + U'W (Woodbury), M factored densely once per iteration.
    std::vector<double> W((size_t)nd * m), M((size_t)nd * nd), ud(nd);
    auto prepare_dense = [&]() {
        for (int a = 0; a < nd; ++a) {
            double* w = &W[(size_t)a * m];
            std::fill(w, w + m, 0.0);
            int v = densev[a];
            for (int p = vstart[v]; p < vstart[v + 1]; ++p) w[vrow[p]] += vval[p];
            std::vector<double> col(w, w + m);
            solve(E, m, col);
            std::copy(col.begin(), col.end(), w);
        }
        for (int a = 0; a < nd; ++a)
            for (int c = 0; c < nd; ++c) {
                int v = densev[a];
                double s = a == c ? 1.0 / theta[v] : 0.0;
                const double* w = &W[(size_t)c * m];
                for (int p = vstart[v]; p < vstart[v + 1]; ++p) s += vval[p] * w[vrow[p]];
                M[(size_t)a * nd + c] = s;
            }
        // Cholesky of the small symmetric positive definite M, in place (lower triangle).
        for (int a = 0; a < nd; ++a)
            for (int c = 0; c <= a; ++c) {
                double s = M[(size_t)a * nd + c];
                for (int k = 0; k < c; ++k) s -= M[(size_t)a * nd + k] * M[(size_t)c * nd + k];
                M[(size_t)a * nd + c] = c < a ? s / M[(size_t)c * nd + c] : std::sqrt(std::max(s, 1e-300));
            }
    };
    auto nsolve = [&](std::vector<double>& r) {
        solve(E, m, r);
        if (nd == 0) return;
        for (int a = 0; a < nd; ++a) {
            int v = densev[a];
            double s = 0.0;
            for (int p = vstart[v]; p < vstart[v + 1]; ++p) s += vval[p] * r[vrow[p]];
            ud[a] = s;
        }
        for (int a = 0; a < nd; ++a) {
            for (int k = 0; k < a; ++k) ud[a] -= M[(size_t)a * nd + k] * ud[k];
            ud[a] /= M[(size_t)a * nd + a];
        }
        for (int a = nd - 1; a >= 0; --a) {
            for (int k = a + 1; k < nd; ++k) ud[a] -= M[(size_t)k * nd + a] * ud[k];
            ud[a] /= M[(size_t)a * nd + a];
        }
        for (int a = 0; a < nd; ++a) {
            const double* w = &W[(size_t)a * m];
            for (int i = 0; i < m; ++i) r[i] -= w[i] * ud[a];
        }
    };
    // Direction for complementarity targets rl (lower) and ru (upper); the factor is current.
    double refine_target = 0.0;
    auto direction = [&](const std::vector<double>& rl, const std::vector<double>& ru) {
        for (int v = 0; v < nv; ++v) {
            double gv = -rd[v];
            if (var[v].has_l) gv += rl[v] / x[v];
            if (var[v].has_u) gv -= (ru[v] - zu[v] * rb[v]) / su[v];
            g[v] = gv;
        }
        rhs = rp;
        for (int v = 0; v < nv; ++v) {
            double t = theta[v] * g[v];
            for (int p = vstart[v]; p < vstart[v + 1]; ++p) rhs[vrow[p]] -= vval[p] * t;
        }
        nsolve(rhs);
        dy = rhs;
        // Iterative refinement: the normal matrix is badly conditioned near the end (columns
        // at their bounds against interior ones), and the step must meet A dx = rp closely
        // for the primal residual to keep falling.
        double last = INFINITY;
        for (int pass = 0;; ++pass) {
            for (int v = 0; v < nv; ++v) dx[v] = theta[v] * (Atv(dy, v) + g[v]);
            if (pass == 3) break;
            rhs = rp;
            for (int v = 0; v < nv; ++v)
                for (int p = vstart[v]; p < vstart[v + 1]; ++p) rhs[vrow[p]] -= vval[p] * dx[v];
            double r = 0.0;
            for (int i = 0; i < m; ++i) r = std::max(r, std::fabs(rhs[i]));
            if (r <= refine_target || !(r < 0.5 * last)) break;
            last = r;
            nsolve(rhs);
            for (int i = 0; i < m; ++i) dy[i] += rhs[i];
        }
        for (int v = 0; v < nv; ++v) {
            double d = dx[v];
            dzl[v] = var[v].has_l ? (rl[v] - zl[v] * d) / x[v] : 0.0;
            dsu[v] = var[v].has_u ? rb[v] - d : 0.0;
            dzu[v] = var[v].has_u ? (ru[v] - zu[v] * rb[v] + zu[v] * d) / su[v] : 0.0;
        }
    };
    auto step_lengths = [&](double* ap, double* ad) {
        double a = 1.0, d = 1.0;
        for (int v = 0; v < nv; ++v) {
            if (var[v].has_l) {
                if (dx[v] < 0) a = std::min(a, -x[v] / dx[v]);
                if (dzl[v] < 0) d = std::min(d, -zl[v] / dzl[v]);
            }
            if (var[v].has_u) {
                if (dsu[v] < 0) a = std::min(a, -su[v] / dsu[v]);
                if (dzu[v] < 0) d = std::min(d, -zu[v] / dzu[v]);
            }
        }
        // With a quadratic term the dual residual depends on x: both move by one step length.
        if (quadratic) a = d = std::min(a, d);
        *ap = a;
        *ad = d;
    };

    std::vector<double> rl(nv), ru(nv);
    const int maxiter = 200;
    int it = 0;
    bool converged = false;
    double mu0 = 1.0, pres0 = 1.0;
    for (; it < maxiter; ++it) {
        if (stop && stop()) return SparseStatus::Stopped;
        // Residuals.
        rp = b;
        for (int v = 0; v < nv; ++v)
            for (int p = vstart[v]; p < vstart[v + 1]; ++p) rp[vrow[p]] -= vval[p] * x[v];
        double pres = 0.0, dres = 0.0, comp = 0.0, obj = 0.0;
        for (int i = 0; i < m; ++i) pres = std::max(pres, std::fabs(rp[i]));
        for (int v = 0; v < nv; ++v) {
            rd[v] = var[v].cost + var[v].q * x[v] - Atv(y, v) - zl[v] + zu[v];
            dres = std::max(dres, std::fabs(rd[v]));
            rb[v] = var[v].has_u ? var[v].U - x[v] - su[v] : 0.0;
            pres = std::max(pres, std::fabs(rb[v]));
            if (var[v].has_l) comp += x[v] * zl[v];
            if (var[v].has_u) comp += su[v] * zu[v];
            obj += (var[v].cost + 0.5 * var[v].q * x[v]) * x[v];
        }
        obj += objconst;
        if (!std::isfinite(pres) || !std::isfinite(dres) || !std::isfinite(comp)) return SparseStatus::Failed;
        if (pres <= tol * (1.0 + bnorm) && dres <= tol * (1.0 + cnorm) && comp <= tol * (1.0 + std::fabs(obj))) {
            converged = true;
            break;
        }
        double mu = nb > 0 ? comp / nb : 0.0;
        refine_target = 1e-3 * std::max(pres, tol * (1.0 + bnorm));
        // Normal matrix.
        std::fill(E.L.begin(), E.L.end(), 0.0);
        for (int v = 0; v < nv; ++v) {
            double ti = 0.0;
            if (var[v].has_l) ti += zl[v] / x[v];
            if (var[v].has_u) ti += zu[v] / su[v];
            // A free column (the transfer column of an objective, say) gets a small proximal
            // term in the Newton system only; the residuals stay exact.
            theta[v] = 1.0 / (ti + var[v].q + kProximal);
            if (isdense[v]) continue;
            for (int p = vstart[v]; p < vstart[v + 1]; ++p) {
                int i = vrow[p];
                double a = vval[p] * theta[v];
                for (int q = vstart[v]; q < vstart[v + 1]; ++q) {
                    int k = vrow[q];
                    if (k <= i) E.at(i, k) += a * vval[q];
                }
            }
        }
        double maxdiag = 0.0;
        for (int i = 0; i < m; ++i) maxdiag = std::max(maxdiag, E.at(i, i));
        for (int i = 0; i < m; ++i) E.at(i, i) += empty[order[i]] ? 1.0 : 1e-20 * maxdiag;
        factor(E, m);
        prepare_dense();
        // Predictor.
        for (int v = 0; v < nv; ++v) {
            rl[v] = var[v].has_l ? -x[v] * zl[v] : 0.0;
            ru[v] = var[v].has_u ? -su[v] * zu[v] : 0.0;
        }
        direction(rl, ru);
        double ap, ad;
        step_lengths(&ap, &ad);
        double mu_aff = 0.0;
        for (int v = 0; v < nv; ++v) {
            if (var[v].has_l) mu_aff += (x[v] + ap * dx[v]) * (zl[v] + ad * dzl[v]);
            if (var[v].has_u) mu_aff += (su[v] + ap * dsu[v]) * (zu[v] + ad * dzu[v]);
        }
        mu_aff = nb > 0 ? mu_aff / nb : 0.0;
        double sigma = mu > 0 ? std::pow(std::min(1.0, mu_aff / mu), 3) : 0.0;
        // Complementarity must not fall much faster than the primal residual: columns that
        // reach their bounds too early cannot move again to remove the residual.
        if (it == 0) {
            mu0 = std::max(mu, 1e-300);
            pres0 = std::max(pres, 1e-300);
        }
        if (mu > 0 && pres > tol * (1.0 + bnorm)) sigma = std::min(1.0, std::max(sigma, 0.1 * mu0 * (pres / pres0) / mu));
        dxa = dx;
        dzla = dzl;
        dzua = dzu;
        dsua = dsu;
        // Corrector.
        for (int v = 0; v < nv; ++v) {
            rl[v] = var[v].has_l ? sigma * mu - x[v] * zl[v] - dxa[v] * dzla[v] : 0.0;
            ru[v] = var[v].has_u ? sigma * mu - su[v] * zu[v] - dsua[v] * dzua[v] : 0.0;
        }
        direction(rl, ru);
        step_lengths(&ap, &ad);
        ap = std::min(1.0, 0.995 * ap);
        ad = std::min(1.0, 0.995 * ad);
        for (int v = 0; v < nv; ++v) {
            x[v] += ap * dx[v];
            if (var[v].has_u) su[v] += ap * dsu[v];
            zl[v] += ad * dzl[v];
            zu[v] += ad * dzu[v];
        }
        for (int i = 0; i < m; ++i) y[i] += ad * dy[i];
    }
    sol.iterations = it;
    if (!converged) return SparseStatus::Failed;

    // Solution in the LP's terms.
    sol.iterations = it;
    sol.colval.assign(nc, 0.0);
    for (int j = 0; j < nc; ++j)
        if (isfixed[j]) sol.colval[j] = fixedval[j];
    for (int v = 0; v < nv; ++v)
        if (var[v].col >= 0) sol.colval[var[v].col] = x[v] + var[v].shift;
    sol.rowdual.assign(nr, 0.0);
    for (int r = 0; r < nr; ++r)
        if (rowmap[r] >= 0) sol.rowdual[r] = y[inv[rowmap[r]]];
    sol.rowval.assign(nr, 0.0);
    sol.coldual.assign(nc, 0.0);
    for (int j = 0; j < nc; ++j) {
        double d = lp.cost[j] + (quadratic ? lp.qdiag[j] * sol.colval[j] : 0.0);
        for (int e = lp.start[j]; e < lp.start[j + 1]; ++e) {
            sol.rowval[lp.index[e]] += lp.value[e] * sol.colval[j];
            d -= lp.value[e] * sol.rowdual[lp.index[e]];
        }
        sol.coldual[j] = d;
    }
    return SparseStatus::Optimal;
}

}  // namespace slp
