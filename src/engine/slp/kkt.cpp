// The KKT residual of a point and least-violation row multipliers (see kkt.h).
#include "engine/slp/kkt.h"

#include "engine/optimizer/highs_instances.h"
#include "engine/slp/solver.h"
#include "engine/slp/sparse_step.h"
#include "interfaces/highs_c_api.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

namespace slp {

namespace {

// Gradient of row r at x as (column, value) pairs; false when the row cannot be evaluated.
bool row_gradient(Evaluator& E, const Model& m, int r, const double* x, std::vector<double>& scratch,
                  std::vector<int>& cols, std::vector<double>& vals, double* value) {
    cols.clear();
    vals.clear();
    int k = E.nlpos[r];
    if (k >= 0) {
        if (!E.nlrow_grad(k, x, value, scratch.data())) return false;
        for (int j : E.pattern[k]) {
            cols.push_back(j);
            vals.push_back(scratch[j]);
        }
        return true;
    }
    double v = 0.0;
    for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e) {
        cols.push_back(m.rcol[e]);
        vals.push_back(m.rval[e]);
        v += m.rval[e] * x[m.rcol[e]];
    }
    *value = v;
    return true;
}

bool near(double v, double b, double tol) {
    return std::isfinite(b) && std::fabs(v - b) <= tol * (1.0 + std::fabs(b));
}

double col_bound(double v) {
    if (v <= -TRVO_INFINITY) return -INFINITY;
    if (v >= TRVO_INFINITY) return INFINITY;
    return v;
}

// Multipliers LPs with at least this many rows go to the sparse interior-point solver first
// under the automatic step-solver choice: on chain models the simplex method needs about one
// pivot per row, each O(rows), while the interior-point solver stays linear.
constexpr int kSparseMultiplierRows = 2000;

// The interior-point solver fits the multipliers in the least-total-violation (l1) sense:
// min sum_j p_j + q_j subject to a_j'y + p_j - q_j = c_j for each stationary column j, p, q >= 0
// (priced 0 on the side the column's bound absorbs). It solves that problem's dual instead:
//     max c'w  subject to  sum_j a_j w_j = 0 for a free multiplier (<= 0 for y >= 0, >= 0 for
//     y <= 0),  -[q priced] <= w_j <= [p priced],
// whose row duals are the multipliers (with the sign of a minimisation of -c'w reversed). The
// dual has only boxed columns: the fit itself has a free column for every equality row, and
// an interior-point method recovers a free column's step as the difference of two large
// nearly equal terms, which near the optimum is noise (the fits stalled that way). The
// l-infinity form the simplex method solves pairs two rows with the same a' per column and
// couples them all through t, which the interior-point method handles no better. At a KKT
// point the optimum is 0 either way; elsewhere the certificate measures the residual again
// from the multipliers, so the form only decides how small it gets, never whether it is
// reported. The fit is solved to kSparseMultiplierTol, or a thousandth of the KKT tolerance
// when that is finer: its residuals then move the certificate by a thousandth of its bound.
constexpr double kSparseMultiplierTol = 1e-8;

// Multipliers by the sparse interior-point solver from the l-infinity LP's arrays (columns:
// the multipliers, then t; rows: two per stationary column, see estimate_multipliers); false
// when it declines the problem, or when on a small LP its (best) point does not certify x
// within the KKT tolerance (the caller then uses HiGHS).
bool sparse_multipliers(TSLPprob prob, int ny, const std::vector<HighsInt>& start, const std::vector<HighsInt>& index,
                        const std::vector<double>& value, const std::vector<double>& clo,
                        const std::vector<double>& cup, const std::vector<double>& rlo,
                        const std::vector<double>& rup, const std::function<bool(const std::vector<double>&)>& good,
                        bool large, std::vector<double>& y) {
    const int nstat = (int)rlo.size() / 2;
    SparseLp lp;
    lp.ncol = nstat;
    lp.nrow = ny;
    lp.cost.resize(nstat);
    lp.collo.resize(nstat);
    lp.colup.resize(nstat);
    for (int k = 0; k < nstat; ++k) {
        // rup[2k] finite: the column's reduced cost may not go below 0 freely (q priced);
        // rlo[2k+1] finite: nor above (p priced).
        double cj = std::isfinite(rup[2 * k]) ? rup[2 * k] : rlo[2 * k + 1];
        lp.cost[k] = -cj;
        lp.collo[k] = std::isfinite(rup[2 * k]) ? -1.0 : 0.0;
        lp.colup[k] = std::isfinite(rlo[2 * k + 1]) ? 1.0 : 0.0;
    }
    lp.rowlo.resize(ny);
    lp.rowup.resize(ny);
    for (int i = 0; i < ny; ++i) {
        const bool nonneg = std::isfinite(clo[i]) && !std::isfinite(cup[i]);
        const bool nonpos = std::isfinite(cup[i]) && !std::isfinite(clo[i]);
        lp.rowlo[i] = nonneg ? -INFINITY : 0.0;   // y >= 0: a'w <= 0
        lp.rowup[i] = nonpos ? INFINITY : 0.0;    // y <= 0: a'w >= 0
    }
    // The fit's matrix transposed: column k of the dual holds the entries of stationary
    // column k (LP row 2k) of every multiplier.
    lp.start.assign(nstat + 1, 0);
    for (int i = 0; i < ny; ++i)
        for (HighsInt e = start[i]; e < start[i + 1]; ++e)
            if (index[e] % 2 == 0) ++lp.start[index[e] / 2 + 1];
    for (int k = 0; k < nstat; ++k) lp.start[k + 1] += lp.start[k];
    lp.index.resize(lp.start[nstat]);
    lp.value.resize(lp.start[nstat]);
    {
        std::vector<int> fill(lp.start.begin(), lp.start.end() - 1);
        for (int i = 0; i < ny; ++i)
            for (HighsInt e = start[i]; e < start[i + 1]; ++e)
                if (index[e] % 2 == 0) {
                    int k = (int)(index[e] / 2);
                    lp.index[fill[k]] = i;
                    lp.value[fill[k]++] = value[e];
                }
    }
    SparseLpSolution sol;
    auto stop = [prob]() { return prob->interrupt.load() != 0; };
    int threads = 0;
    TRVOgetintcontrol(prob->trvo, TRVO_THREADS, &threads);
    const double tol = std::min(kSparseMultiplierTol, 1e-3 * dbl_control(prob, TSLP_KKTTOL));
    auto st = sparse_lp_solve(lp, tol, stop, sol, true, sparse_threads(threads));
    if (st == SparseStatus::Optimal || st == SparseStatus::Failed)
        logf(prob, 2, "    multipliers: interior-point fit %s after %d iterations",
             st == SparseStatus::Optimal ? "converged" : "stopped short of convergence", sol.iterations);
    if (st != SparseStatus::Optimal && (st != SparseStatus::Failed || (int)sol.rowdual.size() < ny)) return false;
    y.resize(ny);
    for (int i = 0; i < ny; ++i) {
        // Within the multiplier's bounds (the solver's duals meet their signs only to its
        // tolerance).
        y[i] = std::min(cup[i], std::max(clo[i], -sol.rowdual[i]));
    }
    // Multipliers that certify x are as good as any (a run that stalled near the optimum, with
    // free multipliers of dependent rows drifting along the optimal face, gives such too).
    if (good(y)) return true;
    // Otherwise the l1 fit may leave a larger worst violation than the l-infinity one: on a
    // small LP the simplex method decides; on a large one the fit is the better buy (the
    // simplex method needs about one pivot per row, each O(rows)), and the caller measures
    // the residual again from whatever multipliers it gets.
    return large;
}

}  // namespace

bool kkt_residual(Evaluator& E, const Model& m, double sense, const double* x, const double* dual,
                  double feastol, KktCheck* out, double* dj, const char* skip) {
    PhaseScope timed(E.prob->profile, PH_KKT);
    KktCheck c;
    const int n = m.ncols;
    std::vector<double> d(n, 0.0), scratch(n, 0.0), vals;
    std::vector<int> cols;
    double f = E.objective(x, d.data());
    if (!std::isfinite(f)) return false;
    for (int j = 0; j < n; ++j) {
        d[j] *= sense;   // minimisation form
        if (!std::isfinite(d[j])) return false;
        c.scale = std::max(c.scale, std::fabs(d[j]));
    }
    for (int r = 0; r < m.nrows; ++r) {
        double y = sense * dual[r];   // multiplier of the minimisation form
        double lo, up;
        row_bounds(m, r, &lo, &up);
        if (y == 0.0) continue;
        double v;
        if (!row_gradient(E, m, r, x, scratch, cols, vals, &v)) return false;
        for (size_t q = 0; q < cols.size(); ++q) d[cols[q]] -= y * vals[q];
        // y > 0 holds the row at its lower bound, y < 0 at its upper one.
        double b = y > 0 ? lo : up;
        if (!std::isfinite(b)) c.sign = std::max(c.sign, std::fabs(y));
        else if (lo != up) c.complementarity = std::max(c.complementarity, std::fabs(y * (v - b)));
    }
    for (int j = 0; j < n; ++j) {
        if (dj) dj[j] = sense * d[j];
        if (skip && skip[j]) continue;
        double lb = col_bound(m.lb[j]), ub = col_bound(m.ub[j]);
        if (lb == ub) continue;
        double viol = std::fabs(d[j]);
        if (d[j] > 0 && near(x[j], lb, feastol)) viol = 0.0;
        if (d[j] < 0 && near(x[j], ub, feastol)) viol = 0.0;
        if (viol > c.stationarity) {
            c.stationarity = viol;
            c.worst_col = j;
        }
    }
    c.residual = std::max(c.stationarity, std::max(c.sign, c.complementarity)) / c.scale;
    if (out) *out = c;
    return true;
}

bool estimate_multipliers(TSLPprob prob, Evaluator& E, const Model& m, double sense, const double* x,
                          double feastol, std::vector<double>& dual, const char* skip) {
    PhaseScope timed(prob->profile, PH_KKT);
    const int n = m.ncols;
    std::vector<double> c(n, 0.0), scratch(n, 0.0), vals;
    std::vector<int> cols;
    double f = E.objective(x, c.data());
    if (!std::isfinite(f)) return false;
    for (int j = 0; j < n; ++j) c[j] *= sense;
    // Which columns must be stationary, and in which direction a bound absorbs the reduced
    // cost: rows "d_j >= -t" (a'y - t <= c_j) unless the column sits at its upper bound only,
    // "d_j <= t" (a'y + t >= c_j) unless at its lower bound only.
    std::vector<int> lprow(n, -1);   // first of the column's two LP rows
    std::vector<double> rlo, rup;
    for (int j = 0; j < n; ++j) {
        if (skip && skip[j]) continue;
        double lb = col_bound(m.lb[j]), ub = col_bound(m.ub[j]);
        if (lb == ub) continue;
        bool atl = near(x[j], lb, feastol), atu = near(x[j], ub, feastol);
        lprow[j] = (int)rlo.size();
        rlo.push_back(-INFINITY);
        rup.push_back(atu && !atl ? INFINITY : c[j]);   // a'y - t <= c_j
        rlo.push_back(atl && !atu ? -INFINITY : c[j]);   // a'y + t >= c_j
        rup.push_back(INFINITY);
    }
    // Columns of the LP: one multiplier per active row, then t.
    std::vector<HighsInt> start(1, 0), index;
    std::vector<double> value, clo, cup;
    std::vector<int> rows;
    for (int r = 0; r < m.nrows; ++r) {
        double lo, up, v;
        row_bounds(m, r, &lo, &up);
        if (!std::isfinite(lo) && !std::isfinite(up)) continue;
        if (!row_gradient(E, m, r, x, scratch, cols, vals, &v)) return false;
        bool atl = near(v, lo, feastol), atu = near(v, up, feastol);
        if (!atl && !atu) continue;
        rows.push_back(r);
        clo.push_back(atl ? 0.0 : -INFINITY);   // minimisation form: y >= 0 at a lower bound
        cup.push_back(atu ? 0.0 : INFINITY);
        if (atl && atu) clo.back() = -INFINITY, cup.back() = INFINITY;
        for (size_t q = 0; q < cols.size(); ++q) {
            int j = cols[q];
            if (lprow[j] < 0 || vals[q] == 0.0) continue;
            index.push_back(lprow[j]);
            value.push_back(vals[q]);
            index.push_back(lprow[j] + 1);
            value.push_back(vals[q]);
        }
        start.push_back((HighsInt)index.size());
    }
    const int nrowLP = (int)rlo.size(), ny = (int)rows.size();
    for (int i = 0; i < nrowLP; ++i) {
        index.push_back(i);
        value.push_back(i % 2 == 0 ? -1.0 : 1.0);
    }
    start.push_back((HighsInt)index.size());
    clo.push_back(0.0);
    cup.push_back(INFINITY);
    std::vector<double> cost(ny + 1, 0.0);
    cost[ny] = 1.0;
    if (nrowLP == 0) {
        dual.assign(m.nrows, 0.0);
        return true;
    }
    // The step-solver control picks the solver here too: 1 the simplex method only, 2 the
    // interior-point solver wherever it takes the LP, 0 the interior-point solver on large LPs.
    const int choice = int_control(prob, TSLP_STEPSOLVER);
    const bool large = nrowLP >= kSparseMultiplierRows;
    if (choice == 2 || (choice == 0 && large)) {
        std::vector<double> cv;
        auto to_dual = [&](const std::vector<double>& yv, std::vector<double>& d) {
            d.assign(m.nrows, 0.0);
            for (int i = 0; i < ny; ++i) d[rows[i]] = sense * yv[i];
        };
        auto good = [&](const std::vector<double>& yv) {
            std::vector<double> d;
            to_dual(yv, d);
            KktCheck chk;
            return kkt_residual(E, m, sense, x, d.data(), feastol, &chk, nullptr, skip) &&
                   chk.residual <= dbl_control(prob, TSLP_KKTTOL);
        };
        if (sparse_multipliers(prob, ny, start, index, value, clo, cup, rlo, rup, good, large, cv)) {
            to_dual(cv, dual);
            return true;
        }
        if (prob->interrupt.load() != 0) return false;
        logf(prob, 2, "    multipliers: the interior-point solver did not take the LP (%d rows), the simplex method does", nrowLP);
    }
    void* h = trvo::highs_reuse_quiet();
    if (!h) return false;
    int th = trvo::highs_solve_begin(1, &prob->interrupt);
    Highs_setIntOptionValue(h, "threads", th);
    Highs_setBoolOptionValue(h, "output_flag", 0);
    // Near a point where the constraint qualification fails, a row's gradient has entries
    // far below the others and its multiplier is correspondingly large: HiGHS would drop
    // entries below its default 1e-9 from the matrix, and with them the only multipliers
    // that make such a point stationary.
    Highs_setDoubleOptionValue(h, "small_matrix_value", 1e-12);
    HighsInt rc = Highs_passLp(h, ny + 1, nrowLP, (HighsInt)index.size(), kHighsMatrixFormatColwise, kHighsObjSenseMinimize,
                               0.0, cost.data(), clo.data(), cup.data(), rlo.data(), rup.data(), start.data(),
                               index.data(), value.data());
    bool ok = rc != kHighsStatusError && Highs_run(h) != kHighsStatusError &&
              Highs_getModelStatus(h) == kHighsModelStatusOptimal;
    if (ok) {
        std::vector<double> cv(ny + 1), cd(ny + 1), rv(nrowLP), rd(nrowLP);
        Highs_getSolution(h, cv.data(), cd.data(), rv.data(), rd.data());
        dual.assign(m.nrows, 0.0);
        for (int i = 0; i < ny; ++i) dual[rows[i]] = sense * cv[i];
    }
    trvo::highs_recycle(h);
    trvo::highs_solve_end(&prob->interrupt);
    return ok;
}

namespace {

// Solves the dense p x p system M z = rhs (row-major M, overwritten) by Gaussian elimination
// with partial pivoting; false when a pivot falls below tiny times the largest entry.
bool dense_solve(std::vector<double>& M, std::vector<double>& rhs, int p) {
    double big = 0.0;
    for (double v : M) big = std::max(big, std::fabs(v));
    if (!(big > 0.0) || !std::isfinite(big)) return false;
    for (int c = 0; c < p; ++c) {
        int piv = c;
        for (int r = c + 1; r < p; ++r)
            if (std::fabs(M[r * p + c]) > std::fabs(M[piv * p + c])) piv = r;
        if (!(std::fabs(M[piv * p + c]) > 1e-13 * big)) return false;
        if (piv != c) {
            for (int k = 0; k < p; ++k) std::swap(M[c * p + k], M[piv * p + k]);
            std::swap(rhs[c], rhs[piv]);
        }
        for (int r = c + 1; r < p; ++r) {
            double f = M[r * p + c] / M[c * p + c];
            if (f == 0.0) continue;
            for (int k = c; k < p; ++k) M[r * p + k] -= f * M[c * p + k];
            rhs[r] -= f * rhs[c];
        }
    }
    for (int c = p - 1; c >= 0; --c) {
        double v = rhs[c];
        for (int k = c + 1; k < p; ++k) v -= M[c * p + k] * rhs[k];
        rhs[c] = v / M[c * p + c];
        if (!std::isfinite(rhs[c])) return false;
    }
    return true;
}

// Gradient of the Lagrangian sense f - sum_r y_r g_r (y in the minimisation form) at x over
// every column; false when a formula cannot be evaluated.
bool lagrangian_gradient(Evaluator& E, const Model& m, double sense, const double* x, const std::vector<int>& rows,
                         const std::vector<double>& y, std::vector<double>& g, std::vector<double>& scratch) {
    const int n = m.ncols;
    g.assign(n, 0.0);
    if (!std::isfinite(E.objective(x, g.data()))) return false;
    for (int j = 0; j < n; ++j) g[j] *= sense;
    std::vector<int> cols;
    std::vector<double> vals;
    for (size_t i = 0; i < rows.size(); ++i) {
        double v;
        if (!row_gradient(E, m, rows[i], x, scratch, cols, vals, &v)) return false;
        for (size_t q = 0; q < cols.size(); ++q) g[cols[q]] -= y[i] * vals[q];
    }
    for (double v : g)
        if (!std::isfinite(v)) return false;
    return true;
}

}  // namespace

bool polish_kkt(TSLPprob prob, Evaluator& E, const Model& m, double sense, double feastol, int max_cols,
                std::vector<double>& x, std::vector<double>& dual, double* resid) {
    PhaseScope timed(prob->profile, PH_KKT);
    const int n = m.ncols;
    if ((int)x.size() != n || (int)dual.size() != m.nrows) return false;
    KktCheck c0;
    if (!kkt_residual(E, m, sense, x.data(), dual.data(), feastol, &c0)) return false;
    const double f0 = sense * E.objective(x.data(), nullptr);
    double best = c0.residual;
    std::vector<double> bx = x, by = dual, px, py, scratch(n, 0.0), gL, gp, vals;
    std::vector<int> cols;
    bool improved = false;
    auto finish = [&]() {
        if (improved) {
            x = px;
            dual = py;
        }
        if (resid) *resid = best;
        return improved;
    };
    for (int it = 0; it < 8; ++it) {
        // Active rows: the equalities and the rows with a multiplier, and the bound each holds.
        std::vector<int> rows;
        std::vector<double> y, target;
        for (int r = 0; r < m.nrows; ++r) {
            double yr = sense * by[r];
            double lo, up;
            row_bounds(m, r, &lo, &up);
            if (yr == 0.0 && lo != up) continue;
            double b = yr > 0 ? lo : up;
            if (!std::isfinite(b)) return finish();
            rows.push_back(r);
            y.push_back(yr);
            target.push_back(b);
        }
        if (!lagrangian_gradient(E, m, sense, bx.data(), rows, y, gL, scratch)) return finish();
        // Free columns: those whose reduced cost no bound absorbs.
        std::vector<int> free;
        for (int j = 0; j < n; ++j) {
            double lb = col_bound(m.lb[j]), ub = col_bound(m.ub[j]);
            if (lb == ub) continue;
            if (gL[j] > 0 && near(bx[j], lb, feastol)) continue;
            if (gL[j] < 0 && near(bx[j], ub, feastol)) continue;
            free.push_back(j);
        }
        const int nf = (int)free.size(), nr = (int)rows.size(), p = nf + nr;
        if (nf == 0 || nf > max_cols || nr > nf) return finish();
        // [H  -A'] [d ]   [-gL]
        // [A   0 ] [dy] = [-c ]   (H the Lagrangian's Hessian on the free columns, A the
        // active rows' gradients there, c their distances to the bounds they hold)
        std::vector<double> M((size_t)p * p, 0.0), rhs(p, 0.0);
        std::vector<double> xs = bx;
        for (int a = 0; a < nf; ++a) {
            int j = free[a];
            double h = 1e-7 * std::max(1.0, std::fabs(bx[j]));
            double lb = col_bound(m.lb[j]), ub = col_bound(m.ub[j]);
            if (bx[j] + h > ub && bx[j] - h >= lb) h = -h;
            xs[j] = bx[j] + h;
            h = xs[j] - bx[j];
            bool ok = lagrangian_gradient(E, m, sense, xs.data(), rows, y, gp, scratch);
            xs[j] = bx[j];
            if (!ok || h == 0.0) return finish();
            for (int b = 0; b < nf; ++b) M[(size_t)b * p + a] = (gp[free[b]] - gL[free[b]]) / h;
        }
        for (int a = 0; a < nf; ++a)
            for (int b = a + 1; b < nf; ++b) {
                double v = 0.5 * (M[(size_t)a * p + b] + M[(size_t)b * p + a]);
                M[(size_t)a * p + b] = M[(size_t)b * p + a] = v;
            }
        std::vector<int> pos(n, -1);
        for (int a = 0; a < nf; ++a) pos[free[a]] = a;
        for (int i = 0; i < nr; ++i) {
            double v;
            if (!row_gradient(E, m, rows[i], bx.data(), scratch, cols, vals, &v)) return finish();
            for (size_t q = 0; q < cols.size(); ++q) {
                int a = pos[cols[q]];
                if (a < 0) continue;
                M[(size_t)(nf + i) * p + a] += vals[q];
                M[(size_t)a * p + nf + i] -= vals[q];
            }
            rhs[nf + i] = target[i] - v;
        }
        for (int a = 0; a < nf; ++a) rhs[a] = -gL[free[a]];
        if (!dense_solve(M, rhs, p)) return finish();
        std::vector<double> nx = bx, ny = by;
        for (int a = 0; a < nf; ++a) {
            int j = free[a];
            nx[j] = std::min(std::max(bx[j] + rhs[a], col_bound(m.lb[j])), col_bound(m.ub[j]));
        }
        for (int i = 0; i < nr; ++i) ny[rows[i]] = sense * (y[i] + rhs[nf + i]);
        // Newton's iterates may leave the rows by a second-order amount before they settle:
        // every iterate goes on, the best acceptable one is kept.
        bx.swap(nx);
        by.swap(ny);
        KktCheck c;
        double f = sense * E.objective(bx.data(), nullptr);
        if (!std::isfinite(f) || !kkt_residual(E, m, sense, bx.data(), by.data(), feastol, &c)) break;
        double viol = max_violation(E, m, bx.data());
        logf(prob, 3, "    KKT polish %d: residual %.3g, violation %.3g", it + 1, c.residual, viol);
        if (f <= f0 + 1e-9 * (1.0 + std::fabs(f0)) && viol <= feastol && c.residual < best) {
            best = c.residual;
            px = bx;
            py = by;
            improved = true;
            if (best <= 1e-2 * dbl_control(prob, TSLP_KKTTOL)) break;
        }
    }
    return finish();
}

}  // namespace slp
