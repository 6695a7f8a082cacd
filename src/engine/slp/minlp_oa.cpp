// Outer approximation of the convex rows of a mixed-integer nonlinear problem, used by the
// branch-and-bound to close nodes and tighten bounds before their SLP runs.
#include "engine/slp/minlp.h"
#include "engine/optimizer/highs_instances.h"

#include "interfaces/highs_c_api.h"

#include <cmath>

namespace slp {
namespace {

constexpr int kMaxCuts = 5000;

double inf_of(double v) { return v >= TRVO_INFINITY ? INFINITY : v <= -TRVO_INFINITY ? -INFINITY : v; }

}  // namespace

OuterApproximation::OuterApproximation(TSLPprob prob, const Model& m, Evaluator& E, const Convexity& cvx,
                                       double sense)
    : prob_(prob), m_(m), E_(E), cvx_(cvx), sense_(sense) {
    bool any = false;
    for (signed char s : cvx.row_side) any = any || s != 0;
    if (!any) return;
    // With a linear objective, the LP over a relaxation of the node's feasible set bounds the
    // node; a quadratic objective part would need its own cuts, so the LP then only decides
    // feasibility.
    bound_ = m.qobj.empty();
    const int n = m.ncols;
    std::vector<double> cost(n, 0.0), lo(n), up(n), rlo, rup, val;
    std::vector<HighsInt> start, index;
    for (int j = 0; j < n; ++j) {
        if (bound_) cost[j] = sense * m.obj[j];
        lo[j] = inf_of(m.lb[j]);
        up[j] = inf_of(m.ub[j]);
    }
    for (int r = 0; r < m.nrows; ++r) {
        double l = -INFINITY, u = INFINITY;
        if (E.nlpos[r] < 0) row_bounds(m, r, &l, &u);
        start.push_back(static_cast<HighsInt>(index.size()));
        if (E.nlpos[r] < 0)
            for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e) {
                index.push_back(m.rcol[e]);
                val.push_back(m.rval[e]);
            }
        rlo.push_back(l);
        rup.push_back(u);
    }
    h_ = trvo::highs_new_quiet();
    if (!h_) return;
    Highs_setBoolOptionValue(h_, "output_flag", 0);
    // 0: whatever count HiGHS's process-wide scheduler already runs with (any other
    // count than that one makes HiGHS refuse the run).
    Highs_setIntOptionValue(h_, "threads", 0);
    Highs_setStringOptionValue(h_, "presolve", "off");
    Highs_setStringOptionValue(h_, "solver", "simplex");
    if (Highs_passLp(h_, n, m.nrows, static_cast<HighsInt>(index.size()), kHighsMatrixFormatRowwise,
                     kHighsObjSenseMinimize, sense * m.objconst, cost.data(), lo.data(), up.data(), rlo.data(),
                     rup.data(), m.nrows ? start.data() : nullptr, index.empty() ? nullptr : index.data(),
                     val.empty() ? nullptr : val.data()) == kHighsStatusError) {
        trvo::highs_release(h_);
        h_ = nullptr;
    }
}

OuterApproximation::~OuterApproximation() {
    if (h_) trvo::highs_release(h_);
}

void OuterApproximation::add_point(const double* x) {
    if (!h_ || ncuts_ >= kMaxCuts) return;
    std::vector<double> g(m_.ncols, 0.0);
    std::vector<HighsInt> idx;
    std::vector<double> val;
    for (size_t k = 0; k < E_.nlrows.size(); ++k) {
        const int r = E_.nlrows[k];
        const int side = cvx_.row_side[r];
        if (side == 0) continue;
        double lo, up, v = 0.0;
        row_bounds(m_, r, &lo, &up);
        if (!E_.nlrow_grad(static_cast<int>(k), x, &v, g.data())) continue;
        // Only rows near their bound at x give cuts that matter.
        const double b = side > 0 ? up : lo;
        if (side * (v - b) < -1e-3 * (1.0 + std::fabs(b))) continue;
        idx.clear();
        val.clear();
        double shift = v, scale = 0.0;
        for (int c : E_.pattern[k]) {
            if (g[c] == 0.0) continue;
            idx.push_back(c);
            val.push_back(g[c]);
            shift -= g[c] * x[c];
            scale = std::max(scale, std::fabs(g[c]));
        }
        if (idx.empty() || !(scale > 0) || !std::isfinite(shift)) continue;
        for (double& a : val) a /= scale;
        const double rhs = (b - shift) / scale;
        if (Highs_addRow(h_, side > 0 ? -INFINITY : rhs, side > 0 ? rhs : INFINITY, static_cast<HighsInt>(idx.size()),
                         idx.data(), val.data()) != kHighsStatusError)
            ++ncuts_;
    }
}

OuterApproximation::Check OuterApproximation::check(std::vector<double>& lo, std::vector<double>& up, double cutoff) {
    if (!h_ || ncuts_ == 0) return Open;
    const int n = m_.ncols;
    if (Highs_changeColsBoundsByRange(h_, 0, n - 1, lo.data(), up.data()) == kHighsStatusError) return Open;
    Highs_setDoubleOptionValue(h_, "time_limit", 10.0);
    if (Highs_run(h_) == kHighsStatusError) return Open;
    const HighsInt ms = Highs_getModelStatus(h_);
    if (ms == kHighsModelStatusInfeasible) {
        ++closed_;
        return Infeasible;
    }
    if (ms != kHighsModelStatusOptimal || !bound_) return Open;
    const double z = Highs_getObjectiveValue(h_);
    if (std::isfinite(cutoff) && z >= cutoff - 1e-9 * (1.0 + std::fabs(cutoff))) {
        ++closed_;
        return Cutoff;
    }
    if (!std::isfinite(cutoff)) return Open;
    // Reduced-cost tightening of the integer columns: moving column j off its bound by t
    // raises the LP bound by at least |d_j| t, so the node holds nothing better than the
    // cutoff beyond (cutoff - z) / |d_j|.
    std::vector<double> cv(n), cd(n), rv(Highs_getNumRow(h_)), rd(rv.size());
    Highs_getSolution(h_, cv.data(), cd.data(), rv.data(), rd.data());
    const double gap = cutoff - z;
    for (int j = 0; j < n; ++j) {
        if (m_.coltype[j] != 'I' && m_.coltype[j] != 'B') continue;
        const double d = cd[j];
        if (d > 1e-9 && std::isfinite(lo[j]) && cv[j] <= lo[j] + 1e-9) {
            const double u = std::floor(lo[j] + gap / d + 1e-6);
            if (u < up[j]) up[j] = u, ++tightened_;
        } else if (d < -1e-9 && std::isfinite(up[j]) && cv[j] >= up[j] - 1e-9) {
            const double l = std::ceil(up[j] + gap / d - 1e-6);
            if (l > lo[j]) lo[j] = l, ++tightened_;
        }
    }
    return Open;
}

void OuterApproximation::log_summary() const {
    if (!h_) return;
    logf(prob_, 1, "Outer approximation: %d cuts of convex rows; %d nodes closed before their SLP, %d integer bounds tightened",
         ncuts_, closed_, tightened_);
}

}  // namespace slp
