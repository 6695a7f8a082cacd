// Second-order step problems for small models: the exact Hessian of the Lagrangian
// s f - sum_r y_r g_r on the curved columns, by forward differences of the exact (AD)
// gradients of the objective and the nonlinear rows, cut to its positive semidefinite part so
// that the step problem is a convex QP. Its multipliers y are those of the last step problem.
#include "engine/slp/run.h"

#include "interfaces/highs_c_api.h"

#include <algorithm>
#include <cmath>

namespace slp {

namespace {

// Whether A + shift I (symmetric, K x K, row-major) has a Cholesky factorisation.
bool positive_definite(const std::vector<double>& A, size_t K, double shift) {
    std::vector<double> L(A);
    for (size_t j = 0; j < K; ++j) {
        double d = L[j * K + j] + shift;
        for (size_t k = 0; k < j; ++k) d -= L[j * K + k] * L[j * K + k];
        if (!(d > 0.0)) return false;
        d = std::sqrt(d);
        L[j * K + j] = d;
        for (size_t i = j + 1; i < K; ++i) {
            double v = L[i * K + j];
            for (size_t k = 0; k < j; ++k) v -= L[i * K + k] * L[j * K + k];
            L[i * K + j] = v / d;
        }
    }
    return true;
}

}  // namespace

// The sparsity of the Lagrangian's Hessian on the curvature columns (positions into qcols):
// the union of the objective's quadratic part and every nonlinear row's Hessian, coloured so
// that one gradient difference per colour reads every entry. Built once per run; without a
// usable pattern (a formula too large to trace) every column is a colour of its own.
void Run::prepare_lagrangian_pattern() {
    lagpat_ready = true;
    const int K = (int)qcols.size();
    std::vector<int> qpos(n, -1);
    for (int a = 0; a < K; ++a) qpos[qcols[a]] = a;
    std::vector<std::pair<int, int>> pairs, local;
    bool ok = true;
    auto add = [&](int i, int j) {
        if (i >= 0 && i < n && j >= 0 && j < n && qpos[i] >= 0 && qpos[j] >= 0) pairs.emplace_back(qpos[i], qpos[j]);
    };
    for (size_t e = 0; e < E.qobj.v.size(); ++e) add(E.qobj.i[e], E.qobj.j[e]);
    for (size_t k = 0; k < E.nlrows.size() && ok; ++k) {
        if (E.roots[k] >= 0) {
            local.clear();
            ok = hessian_pattern(E.tapes[k], E.roots[k], (size_t)K * K * 4 + 1024, local);
            for (auto& e : local) add(e.first, e.second);
        }
        auto q = m.qrows.find(E.nlrows[k]);
        if (q != m.qrows.end())
            for (size_t e = 0; e < q->second.v.size(); ++e) add(q->second.i[e], q->second.j[e]);
    }
    std::vector<int> colour(K);
    int nc = K;
    if (ok) {
        lagpat = make_pattern(K, pairs);
        nc = colour_columns(lagpat, colour);
    }
    if (!ok || nc >= K) {
        // One column per colour: every entry of its column is read from its own difference.
        std::vector<std::pair<int, int>> all;
        for (int a = 0; a < K; ++a)
            for (int b = a; b < K; ++b) all.emplace_back(a, b);
        lagpat = make_pattern(K, all);
        for (int a = 0; a < K; ++a) colour[a] = a;
        nc = K;
    }
    lagcstart.assign(nc + 1, 0);
    for (int a = 0; a < K; ++a) ++lagcstart[colour[a] + 1];
    for (int c = 0; c < nc; ++c) lagcstart[c + 1] += lagcstart[c];
    lagorder.assign(K, 0);
    std::vector<int> fill(lagcstart.begin(), lagcstart.end() - 1);
    for (int a = 0; a < K; ++a) lagorder[fill[colour[a]]++] = a;
}

// Fills B with the convexified Hessian of the Lagrangian at x (gf and nlgrad hold the exact
// gradients there). Returns false, leaving B alone, when a gradient cannot be evaluated near
// x or the Hessian has no positive curvature at all (the step problem then stays linear).
// The Hessian is read one colour of its sparsity pattern at a time: the columns of a colour are
// moved together, and row a of the gradient's change holds H(a, b) for the one column b of the
// colour it neighbours (a chained sum of squares in 40 columns takes 3 gradients, not 40).
bool Run::lagrangian_hessian(const std::vector<double>& lam) {
    const size_t K = qcols.size();
    if (K == 0) return false;
    if (!lagpat_ready) prepare_lagrangian_pattern();
    std::vector<double> g0, g1(n, 0.0), gfs(n, 0.0), H(K * K, 0.0), steps(K, 0.0);
    lagrangian_grad(lam, g0);
    std::vector<char> active(E.nlrows.size(), 0);
    for (size_t k = 0; k < E.nlrows.size(); ++k) {
        int r = E.nlrows[k];
        active[k] = r < (int)lam.size() && lam[r] != 0.0;
    }
    std::vector<double> xs = x;
    const int ncolours = (int)lagcstart.size() - 1;
    for (int c = 0; c < ncolours; ++c) {
        for (int q = lagcstart[c]; q < lagcstart[c + 1]; ++q) {
            int b = lagorder[q], j = qcols[b];
            double step = 1e-7 * std::max(1.0, std::fabs(x[j]));
            // Stay inside the column's bounds (the formulas may not be defined beyond them).
            if (x[j] + step > m.ub[j] && x[j] - step >= m.lb[j]) step = -step;
            xs[j] = x[j] + step;
            steps[b] = xs[j] - x[j];
        }
        bool ok = std::isfinite(E.objective(xs.data(), gfs.data()));
        if (ok) {
            std::fill(g1.begin(), g1.end(), 0.0);
            for (int col : qcols) g1[col] = sense * gfs[col];
            for (size_t k = 0; k < E.nlrows.size() && ok; ++k) {
                if (!active[k]) continue;
                double v;
                ok = E.nlrow_grad((int)k, xs.data(), &v, gscratch.data());
                double l = lam[E.nlrows[k]];
                if (ok)
                    for (int col : E.pattern[k]) g1[col] -= l * gscratch[col];
            }
        }
        for (int q = lagcstart[c]; q < lagcstart[c + 1]; ++q) xs[qcols[lagorder[q]]] = x[qcols[lagorder[q]]];
        if (!ok) return false;
        for (int q = lagcstart[c]; q < lagcstart[c + 1]; ++q) {
            int b = lagorder[q];
            for (int e = lagpat.start[b]; e < lagpat.start[b + 1]; ++e) {
                int a = lagpat.idx[e];
                H[a * K + b] = (g1[qcols[a]] - g0[a]) / steps[b];
            }
        }
    }
    double big = 0.0;
    for (size_t a = 0; a < K; ++a)
        for (size_t b = a; b < K; ++b) {
            double v = 0.5 * (H[a * K + b] + H[b * K + a]);
            if (!std::isfinite(v)) return false;
            H[a * K + b] = H[b * K + a] = v;
            big = std::max(big, std::fabs(v));
        }
    // Entries at the level of the differencing error are noise, not curvature.
    for (double& v : H)
        if (std::fabs(v) <= 1e-9 * big) v = 0.0;
    // Most Hessians met near a solution are already positive semidefinite: a Cholesky
    // factorisation of H + tiny I (O(K^3 / 6)) tells, and spares the eigenvalue decomposition.
    if (!positive_definite(H, K, 1e-12 * std::max(1.0, big))) psd_part(H, (int)K);
    double trace = 0.0;
    for (size_t a = 0; a < K; ++a) trace += H[a * K + a];
    if (!(trace > 1e-12 * std::max(1.0, big))) return false;
    B.swap(H);
    return true;
}

// Without a start, HiGHS's active-set QP solver finds a feasible point by solving an LP (with
// presolve, in a new HiGHS instance) at every solve: most of the time of a small curved step
// problem. The step problem always has a feasible point at hand: no step (d = 0, inside the
// step bounds since x lies within its bounds) with the error columns taking up each row's
// violation. Its active set is consistent with it: columns at a bound of theirs are active
// there (error columns at zero), the others inactive; a row whose error column is in use is
// active at its violated side with that error column in the basis, the other rows basic. The
// start depends on the current step problem only, never on an earlier one. Returns false,
// setting nothing, when d = 0 lies outside some column's bounds.
bool Run::qp_start() {
    if (!qp_small()) return false;
    std::vector<double> clo(ncolLP), cup(ncolLP), rlo(nrowLP), rup(nrowLP), value(ncolLP, 0.0);
    HighsInt got = 0, nz = 0;
    if (Highs_getColsByRange(h, 0, ncolLP - 1, &got, nullptr, clo.data(), cup.data(), &nz, nullptr, nullptr,
                             nullptr) != kHighsStatusOk || got != ncolLP)
        return false;
    if (nrowLP > 0 && (Highs_getRowsByRange(h, 0, nrowLP - 1, &got, rlo.data(), rup.data(), &nz, nullptr, nullptr,
                                            nullptr) != kHighsStatusOk || got != nrowLP))
        return false;
    std::vector<HighsInt> cs(ncolLP), rs(nrowLP, kHighsBasisStatusBasic);
    for (int c = 0; c < ncolLP; ++c) {
        if (!(clo[c] <= 0.0 && 0.0 <= cup[c])) return false;
        cs[c] = clo[c] == 0.0 ? kHighsBasisStatusLower
              : cup[c] == 0.0 ? kHighsBasisStatusUpper
                              : kHighsBasisStatusNonbasic;   // inactive, free to move
    }
    for (int r = 0; r < nrowLP; ++r) {
        if (rlo[r] <= 0.0 && 0.0 <= rup[r]) continue;
        int e = r < m.nrows ? errcol[r] : -1;
        if (e < 0) return false;
        if (rlo[r] > 0.0) {
            value[e] = rlo[r];
            cs[e] = kHighsBasisStatusBasic;
            rs[r] = kHighsBasisStatusLower;
        } else {
            value[e + 1] = -rup[r];
            cs[e + 1] = kHighsBasisStatusBasic;
            rs[r] = kHighsBasisStatusUpper;
        }
    }
    // The point first: setting a solution drops the basis, setting a basis keeps the solution.
    return Highs_setSolution(h, value.data(), nullptr, nullptr, nullptr) != kHighsStatusError &&
           Highs_setBasis(h, cs.data(), rs.data()) != kHighsStatusError;
}

// HiGHS's QP solver takes no step shorter than about 3e-6 (it treats a shorter search direction
// as zero), so its answer is the QP's solution only to about that distance, and which point it
// stops at depends on where it started. Near a solution of the nonlinear problem the steps
// themselves are that short. The answer's active set (the columns and rows HiGHS reports at a
// bound) is kept and the equality-constrained QP on it is solved exactly:
//     H_FF d_F - A_RF' y_R = -c_F - H_FX d_X,   A_RF d_F = b_R - A_RX d_X
// (F the free columns, X those at a bound, R the active rows at their bounds b_R). When the
// result is primal feasible and its multipliers have the right signs it satisfies the QP's
// optimality conditions, and since the step problem is strictly convex it is the QP's unique
// solution whatever the start: cv, cd, rv, rd are replaced by it. Returns false, leaving them
// alone, when the active set is not optimal or the system is too large or singular.
int Run::qp_polish(std::vector<double>& cv, std::vector<double>& cd, std::vector<double>& rv,
                   std::vector<double>& rd) {
    if (!qp_small()) return kQpInexact;
    std::vector<HighsInt> hcs(ncolLP), hrs(nrowLP);
    if (Highs_getBasis(h, hcs.data(), hrs.data()) != kHighsStatusOk) return kQpInexact;
    return qp_exact_on(std::vector<int>(hcs.begin(), hcs.end()), std::vector<int>(hrs.begin(), hrs.end()), cv, cd, rv,
                       rd);
}

// Near a solution the active set of the step problems settles: the last exact answer's active
// set, tried first on the new step problem, gives its solution with one dense solve and no QP
// solve at all, when it is still optimal (the same test as above decides, so such an answer is
// the QP's unique solution too).
int Run::qp_guess(std::vector<double>& cv, std::vector<double>& cd, std::vector<double>& rv,
                  std::vector<double>& rd) {
    if (!qp_small() || guess_cs.size() != (size_t)ncolLP || guess_rs.size() != (size_t)nrowLP) return kQpInexact;
    std::vector<int> cs(guess_cs), rs(guess_rs);   // (an exact answer replaces guess_cs, guess_rs)
    return qp_exact_on(cs, rs, cv, cd, rv, rd);
}

// The equality-constrained QP on the active set cs, rs (HiGHS's basis statuses: columns and
// rows at a bound are active there, the others free), solved exactly and checked as above.
int Run::qp_exact_on(const std::vector<int>& cs, const std::vector<int>& rs, std::vector<double>& cv,
                     std::vector<double>& cd, std::vector<double>& rv, std::vector<double>& rd) {
    const int nc = ncolLP, nr = nrowLP;
    HighsInt gc = 0, gr = 0, nz = Highs_getNumNz(h), sense_out = 0;
    double offset = 0.0;
    std::vector<double> cost(nc), clo(nc), cup(nc), rlo(nr), rup(nr);
    std::vector<HighsInt> start(nc + 1), index(std::max<HighsInt>(nz, 1));
    std::vector<double> value(std::max<HighsInt>(nz, 1));
    if (Highs_getLp(h, kHighsMatrixFormatColwise, &gc, &gr, &nz, &sense_out, &offset, cost.data(), clo.data(),
                    cup.data(), rlo.data(), rup.data(), start.data(), index.data(), value.data(),
                    nullptr) != kHighsStatusOk ||
        gc != nc || gr != nr)
        return kQpInexact;
    start[nc] = nz;

    // Unknowns: the free columns' steps, then the active rows' multipliers.
    std::vector<int> pos(nc, -1), rpos(nr, -1);
    std::vector<double> d(nc, 0.0), target(nr, 0.0);
    int N = 0;
    for (int j = 0; j < nc; ++j) {
        if (cs[j] == kHighsBasisStatusLower) d[j] = clo[j];
        else if (cs[j] == kHighsBasisStatusUpper) d[j] = cup[j];
        else pos[j] = N++;
        if (pos[j] < 0 && !std::isfinite(d[j])) return kQpInexact;
    }
    const int nf = N;
    for (int r = 0; r < nr; ++r) {
        if (rs[r] == kHighsBasisStatusLower) target[r] = rlo[r];
        else if (rs[r] == kHighsBasisStatusUpper) target[r] = rup[r];
        else continue;
        if (!std::isfinite(target[r])) return kQpInexact;
        rpos[r] = N++;
    }
    if (N == 0 || N - nf > nf) return kQpInexact;

    // The step problem's Hessian, as update_lp passed it: B plus the regularisation on the
    // curvature columns, the regularisation alone on the others.
    const size_t K = qcols.size();
    std::vector<int> qpos(nc, -1);
    for (size_t a = 0; a < K; ++a) qpos[qcols[a]] = (int)a;
    auto hess = [&](int j, int k) -> double {
        int a = qpos[j], b = qpos[k];
        if (a >= 0 && b >= 0) return a == b ? B[a * K + a] + kQpRegularisation : B[a * K + b];
        return j == k ? kQpRegularisation : 0.0;
    };
    std::vector<double> M((size_t)N * N, 0.0), rhs(N, 0.0);
    for (int j = 0; j < nc; ++j) {
        if (pos[j] < 0) continue;
        double* row = &M[(size_t)pos[j] * N];
        rhs[pos[j]] = -cost[j];
        if (qpos[j] >= 0) {
            for (int k : qcols) {
                double v = hess(j, k);
                if (pos[k] >= 0) row[pos[k]] += v;
                else rhs[pos[j]] -= v * d[k];
            }
        } else {
            row[pos[j]] += kQpRegularisation;
        }
        for (HighsInt e = start[j]; e < start[j + 1]; ++e) {
            int r = index[e];
            if (rpos[r] < 0) continue;
            row[rpos[r]] -= value[e];
            M[(size_t)rpos[r] * N + pos[j]] += value[e];
        }
    }
    for (int j = 0; j < nc; ++j) {
        if (pos[j] >= 0 || d[j] == 0.0) continue;   // (its curvature terms are in rhs already)
        for (HighsInt e = start[j]; e < start[j + 1]; ++e) {
            int r = index[e];
            if (rpos[r] >= 0) target[r] -= value[e] * d[j];
        }
    }
    for (int r = 0; r < nr; ++r)
        if (rpos[r] >= 0) rhs[rpos[r]] = target[r];

    // Gaussian elimination with partial pivoting; false when a pivot is below tol * (largest
    // entry), the matrix then counting as singular.
    auto eliminate = [](std::vector<double>& A, int N, std::vector<double>* b, double tol) {
        double big = 0.0;
        for (double v : A) big = std::max(big, std::fabs(v));
        if (!(big > 0.0) || !std::isfinite(big)) return false;
        for (int k = 0; k < N; ++k) {
            int p = k;
            for (int i = k + 1; i < N; ++i)
                if (std::fabs(A[(size_t)i * N + k]) > std::fabs(A[(size_t)p * N + k])) p = i;
            double piv = A[(size_t)p * N + k];
            if (!(std::fabs(piv) > tol * big)) return false;
            if (p != k) {
                for (int c = k; c < N; ++c) std::swap(A[(size_t)k * N + c], A[(size_t)p * N + c]);
                if (b) std::swap((*b)[k], (*b)[p]);
            }
            for (int i = k + 1; i < N; ++i) {
                double f = A[(size_t)i * N + k] / piv;
                if (f == 0.0) continue;
                for (int c = k + 1; c < N; ++c) A[(size_t)i * N + c] -= f * A[(size_t)k * N + c];
                if (b) (*b)[i] -= f * (*b)[k];
            }
        }
        if (b)
            for (int k = N - 1; k >= 0; --k) {
                double v = (*b)[k];
                for (int c = k + 1; c < N; ++c) v -= A[(size_t)k * N + c] * (*b)[c];
                (*b)[k] = v / A[(size_t)k * N + k];
                if (!std::isfinite((*b)[k])) return false;
            }
        return true;
    };
    if (!eliminate(M, N, &rhs, 1e-14)) return kQpInexact;
    std::vector<double> y(nr, 0.0);
    for (int j = 0; j < nc; ++j)
        if (pos[j] >= 0) d[j] = rhs[pos[j]];
    for (int r = 0; r < nr; ++r)
        if (rpos[r] >= 0) y[r] = rhs[rpos[r]];

    // Optimality: the point within the bounds, the multipliers of the active bounds and rows of
    // the right sign (z = c + H d - A'y >= 0 at a lower bound, <= 0 at an upper one).
    double ptol = 1e-9;
    Highs_getDoubleOptionValue(h, "primal_feasibility_tolerance", &ptol);
    double cmax = 1.0;
    for (double c : cost) cmax = std::max(cmax, std::fabs(c));
    const double dtol = 1e-12 * cmax;
    std::vector<double> act(nr, 0.0), z(nc);
    for (int j = 0; j < nc; ++j) {
        if (d[j] < clo[j] - ptol || d[j] > cup[j] + ptol) return kQpInexact;
        double v = cost[j] + kQpRegularisation * d[j];
        for (HighsInt e = start[j]; e < start[j + 1]; ++e) {
            act[index[e]] += value[e] * d[j];
            v -= value[e] * y[index[e]];
        }
        z[j] = v;
    }
    for (size_t a = 0; a < K; ++a) {
        int j = qcols[a];
        double v = -kQpRegularisation * d[j];
        for (size_t b = 0; b < K; ++b) v += hess(j, qcols[b]) * d[qcols[b]];
        z[j] += v;
    }
    for (int j = 0; j < nc; ++j) {
        if (pos[j] >= 0 || clo[j] == cup[j]) continue;
        if (cs[j] == kHighsBasisStatusLower ? z[j] < -dtol : z[j] > dtol) return kQpInexact;
    }
    for (int r = 0; r < nr; ++r) {
        if (act[r] < rlo[r] - ptol || act[r] > rup[r] + ptol) return kQpInexact;
        if (rpos[r] < 0 || rlo[r] == rup[r]) continue;
        if (rs[r] == kHighsBasisStatusLower ? y[r] < -dtol : y[r] > dtol) return kQpInexact;
    }
    for (int j = 0; j < nc; ++j)
        if (pos[j] >= 0) z[j] = 0.0;   // stationary by construction

    // Without the regularisation, is the solution still determined? If not, the QP has
    // directions in which only the regularisation curves it (a column, or a combination of
    // columns, free of the binding bounds and rows, with no curvature of its own): along them
    // the step is decided by 1e-8 against whatever gradient is left, and the point a QP solver
    // stops at depends on its start. Such a QP is reported as tied. Bounds and rows active with
    // a zero multiplier do not bind here, so that the verdict is the solution's, not that of
    // whichever of several degenerate active sets found it.
    const double wtol = 1e-9 * cmax;
    std::vector<int> tpos(nc, -1), trpos(nr, -1);
    int T = 0;
    for (int j = 0; j < nc; ++j)
        if (pos[j] >= 0 || (clo[j] != cup[j] && std::fabs(z[j]) <= wtol)) tpos[j] = T++;
    for (int r = 0; r < nr; ++r)
        if (rpos[r] >= 0 && (rlo[r] == rup[r] || std::fabs(y[r]) > wtol)) trpos[r] = T++;
    std::vector<double> M0((size_t)T * T, 0.0);
    for (int j = 0; j < nc; ++j) {
        if (tpos[j] < 0) continue;
        double* row = &M0[(size_t)tpos[j] * T];
        if (qpos[j] >= 0)
            for (int k : qcols)
                if (tpos[k] >= 0) row[tpos[k]] += hess(j, k) - (j == k ? kQpRegularisation : 0.0);
        for (HighsInt e = start[j]; e < start[j + 1]; ++e) {
            int r = index[e];
            if (trpos[r] < 0) continue;
            row[trpos[r]] -= value[e];
            M0[(size_t)trpos[r] * T + tpos[j]] += value[e];
        }
    }
    if (T > 0 && !eliminate(M0, T, nullptr, 1e-10)) return kQpTied;
    guess_cs = cs;
    guess_rs = rs;
    cv.swap(d);
    cd.swap(z);
    rv.swap(act);
    rd.swap(y);
    return kQpExact;
}

}  // namespace slp
