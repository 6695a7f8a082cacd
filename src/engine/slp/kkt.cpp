// The KKT residual of a point and least-violation row multipliers (see kkt.h).
#include "engine/slp/kkt.h"

#include "engine/optimizer/highs_instances.h"
#include "engine/slp/solver.h"
#include "interfaces/highs_c_api.h"

#include <algorithm>
#include <cmath>

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
    void* h = trvo::highs_reuse_quiet();
    if (!h) return false;
    int th = trvo::highs_solve_begin(1, &prob->interrupt);
    Highs_setIntOptionValue(h, "threads", th);
    Highs_setBoolOptionValue(h, "output_flag", 0);
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

}  // namespace slp
