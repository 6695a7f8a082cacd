// Strong branching on the problem's LP relaxation: each candidate bound change is tried from the
// relaxation's optimal basis with a limited number of dual simplex iterations, then undone.
#include "engine/optimizer/formulate.h"
#include "engine/optimizer/highs_instances.h"

#include <cmath>

namespace trvo {
namespace {

int lp_status(void* h) {
    switch (Highs_getModelStatus(h)) {
        case kHighsModelStatusOptimal:
        case kHighsModelStatusModelEmpty: return TRVO_LP_OPTIMAL;
        case kHighsModelStatusInfeasible: return TRVO_LP_INFEAS;
        case kHighsModelStatusObjectiveBound:
        case kHighsModelStatusObjectiveTarget: return TRVO_LP_CUTOFF;
        case kHighsModelStatusUnbounded:
        case kHighsModelStatusUnboundedOrInfeasible: return TRVO_LP_UNBOUNDED;
        default: return TRVO_LP_UNFINISHED;
    }
}

void strong_branch(TRVOprob p, int nbnds, const int mbndind[], const char cbndtype[], const double dbndval[],
                   int itrlimit, double dsbobjval[], int msbstatus[], TRVOcbstrongbranchsolve cb, void* ctx) {
    if (nbnds < 0) fail("Negative number of bound changes");
    if (itrlimit < 0) fail("Negative iteration limit");
    if (nbnds > 0 && (!mbndind || !cbndtype || !dbndval)) fail("Columns, bound types and values are needed");
    for (int k = 0; k < nbnds; ++k) {
        check_col(p, mbndind[k]);
        if (cbndtype[k] != 'L' && cbndtype[k] != 'U' && cbndtype[k] != 'B')
            fail("Invalid bound type '%c': use 'L', 'U' or 'B'", cbndtype[k]);
        if (std::isnan(dbndval[k])) fail("Bound %d is not a number", k);
    }
    HighsModel m;
    formulate(p, false, m);
    SolveScope scope(static_cast<int>(ctl_int(p, TRVO_THREADS)), &p->stop_request);
    void* h = highs_new_quiet();
    if (!h) fail("Could not create a HiGHS instance");
    struct Release {
        void* h;
        ~Release() { highs_release(h); }
    } release{h};
    Highs_setBoolOptionValue(h, "output_flag", 0);
    Highs_setIntOptionValue(h, "threads", scope.used);
    Highs_setStringOptionValue(h, "presolve", "off");
    Highs_setStringOptionValue(h, "solver", "simplex");
    Highs_setIntOptionValue(h, "simplex_strategy", 1);
    if (Highs_passLp(h, m.ncol, m.nrow, static_cast<HighsInt>(m.a_index.size()), kHighsMatrixFormatRowwise,
                     kHighsObjSenseMinimize, m.offset, m.cost.data(), m.col_lower.data(), m.col_upper.data(),
                     m.row_lower.data(), m.row_upper.data(), m.nrow ? m.a_start.data() : nullptr,
                     m.a_index.empty() ? nullptr : m.a_index.data(),
                     m.a_value.empty() ? nullptr : m.a_value.data()) == kHighsStatusError)
        fail("HiGHS did not accept the LP relaxation for strong branching");
    Highs_zeroAllClocks(h);
    Highs_run(h);
    if (Highs_getModelStatus(h) != kHighsModelStatusOptimal)
        fail("Strong branching needs an optimal LP relaxation, which this problem does not have");
    const size_t nr = static_cast<size_t>(Highs_getNumRow(h));
    std::vector<HighsInt> cb_basis(static_cast<size_t>(m.ncol)), rb_basis(nr);
    Highs_getBasis(h, cb_basis.data(), rb_basis.data());
    const int n = p->ncols();
    std::vector<double> x(static_cast<size_t>(m.ncol)), dj(x.size()), rv(nr), rd(nr);
    Results keep;
    if (cb) keep = p->results;
    for (int k = 0; k < nbnds; ++k) {
        const int j = mbndind[k];
        const double lo = m.col_lower[static_cast<size_t>(j)], up = m.col_upper[static_cast<size_t>(j)];
        double v = dbndval[k];
        if (v >= kInf) v = INFINITY;
        if (v <= -kInf) v = -INFINITY;
        const double nlo = cbndtype[k] == 'U' ? lo : v, nup = cbndtype[k] == 'L' ? up : v;
        Highs_changeColBounds(h, j, nlo, nup);
        Highs_setIntOptionValue(h, "simplex_iteration_limit", itrlimit);
        Highs_zeroAllClocks(h);
        Highs_run(h);
        Highs_setIntOptionValue(h, "simplex_iteration_limit", 2147483647);
        const int st = nlo > nup ? TRVO_LP_INFEAS : lp_status(h);
        const double obj = st == TRVO_LP_INFEAS ? m.sign * INFINITY : m.sign * Highs_getObjectiveValue(h);
        if (dsbobjval) dsbobjval[k] = std::isinf(obj) ? (obj > 0 ? kInf : -kInf) : obj;
        if (msbstatus) msbstatus[k] = st;
        bool stop = false;
        if (cb) {
            // The branch's solution is the problem's LP solution while the callback looks at it.
            Results& r = p->results;
            Highs_getSolution(h, x.data(), dj.data(), rv.data(), rd.data());
            r.x.assign(x.begin(), x.begin() + n);
            r.slack.assign(static_cast<size_t>(p->nrows()), 0.0);
            slacks_at(p, r.x.data(), r.slack.data());
            r.lpobjval = objective_at(p, r.x.data());
            r.lpstatus = st;
            r.have_lp = true;
            r.have_duals = false;
            stop = cb(p, ctx, k) != 0 || p->stop_request.load() != 0;
            p->results = keep;
        }
        Highs_changeColBounds(h, j, lo, up);
        Highs_setBasis(h, cb_basis.data(), rb_basis.data());
        if (stop) break;
    }
    // A callback's stop request ends this strong branching only.
    p->stop_request.store(0);
}

}  // namespace
}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOstrongbranch(TRVOprob prob, int nbnds, const int mbndind[], const char cbndtype[], const double dbndval[],
                     int itrlimit, double dsbobjval[], int msbstatus[]) {
    return guard(prob, [&] {
        strong_branch(prob, nbnds, mbndind, cbndtype, dbndval, itrlimit, dsbobjval, msbstatus, nullptr, nullptr);
    });
}

int TRVOstrongbranchcb(TRVOprob prob, int nbnds, const int mbndind[], const char cbndtype[], const double dbndval[],
                       int itrlimit, double dsbobjval[], int msbstatus[], TRVOcbstrongbranchsolve sbsolvecb,
                       void* vContext) {
    return guard(prob, [&] {
        strong_branch(prob, nbnds, mbndind, cbndtype, dbndval, itrlimit, dsbobjval, msbstatus, sbsolvecb, vContext);
    });
}

}  // extern "C"
