// Starting points inside the bounds and the domains of the formulas (see start.h).
#include "engine/slp/start.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace slp {

namespace {

double finite_or(double v, double inf) {
    return (v <= -TRVO_INFINITY || v >= TRVO_INFINITY) ? inf : v;
}

// The columns of the formulas that cannot be evaluated at x; empty when all can.
std::set<int> failing_columns(Evaluator& E, const Model& m, const double* x) {
    std::set<int> cols;
    if (!std::isfinite(E.objective(x, nullptr))) cols.insert(E.objpattern.begin(), E.objpattern.end());
    for (size_t k = 0; k < E.nlrows.size(); ++k) {
        double v;
        if (!E.row_value(E.nlrows[k], x, &v)) cols.insert(E.pattern[k].begin(), E.pattern[k].end());
    }
    return cols;
}

}  // namespace

bool interior_start(TSLPprob prob, Evaluator& E, const Model& m, const std::vector<char>& cont,
                    std::vector<double>& x) {
    PhaseScope timed(prob->profile, PH_START);
    const int n = m.ncols;
    std::vector<double> lo(n), up(n), push(n, 0.0);
    int pushed = 0;
    for (int j = 0; j < n; ++j) {
        lo[j] = finite_or(m.lb[j], -INFINITY);
        up[j] = finite_or(m.ub[j], INFINITY);
        if (!cont[j] || !(lo[j] < up[j])) continue;
        double pl = std::isfinite(lo[j]) ? 1e-2 * std::max(1.0, std::fabs(lo[j])) : 0.0;
        double pu = std::isfinite(up[j]) ? 1e-2 * std::max(1.0, std::fabs(up[j])) : 0.0;
        if (std::isfinite(lo[j]) && std::isfinite(up[j])) {
            pl = std::min(pl, 1e-2 * (up[j] - lo[j]));
            pu = std::min(pu, 1e-2 * (up[j] - lo[j]));
        }
        double before = x[j];
        if (std::isfinite(lo[j]) && x[j] < lo[j] + pl) x[j] = lo[j] + pl;
        else if (std::isfinite(up[j]) && x[j] > up[j] - pu) x[j] = up[j] - pu;
        if (x[j] != before) {
            ++pushed;
            logf(prob, 2, "Initial value of column %d moved from %.10g on its bound to %.10g", j, before, x[j]);
        }
        push[j] = std::max(pl, pu);
    }
    if (pushed) logf(prob, 1, "Initial point moved into the interior of the bounds of %d column%s", pushed, pushed == 1 ? "" : "s");

    std::set<int> bad = failing_columns(E, m, x.data());
    if (bad.empty()) return true;
    std::vector<double> base = x;
    for (int t = 0; t < 24; ++t) {
        double scale = 1e-2 * std::pow(10.0, t / 2);
        bool up_first = t % 2 == 0;
        for (int j : bad) {
            if (j < 0 || j >= n || !cont[j] || !(lo[j] < up[j])) continue;
            double s = scale * std::max(1.0, std::fabs(base[j]));
            double dir;
            if (std::isfinite(lo[j]) && std::isfinite(up[j])) dir = base[j] <= 0.5 * (lo[j] + up[j]) ? 1.0 : -1.0;
            else if (std::isfinite(lo[j])) dir = 1.0;
            else if (std::isfinite(up[j])) dir = -1.0;
            else dir = up_first ? 1.0 : -1.0;
            double v = base[j] + dir * s;
            // Stay strictly inside the bounds.
            if (std::isfinite(lo[j])) v = std::max(v, lo[j] + push[j]);
            if (std::isfinite(up[j])) v = std::min(v, up[j] - push[j]);
            x[j] = v;
        }
        if (failing_columns(E, m, x.data()).empty()) {
            for (int j : bad)
                if (x[j] != base[j])
                    logf(prob, 1, "Initial value of column %d moved from %.10g to %.10g, where the formulas can be evaluated",
                         j, base[j], x[j]);
            return true;
        }
    }
    x = base;
    return false;
}

}  // namespace slp
