// Views of the problem through HiGHS's presolve (the surviving rows and columns, the presolved
// LP's solution and basis, a basis loaded in presolved terms, a row carried into the presolved
// space), secure vectors, the interior-point solution before crossover and crossover on demand,
// and the two operations that fix the integer columns of a MIP solution.
//
// A presolve view is computed from the current problem when it is asked for: the model goes to
// a quiet HiGHS instance whose rows and columns are named by their positions ("r<i>", "c<j>"),
// HiGHS presolves it, and the names of the presolved LP give the map back to the problem. The
// view follows the rules of a solve: with the PRESOLVE control off, or secure vectors loaded,
// nothing is removed and the map is the identity.
#include "engine/optimizer/views.h"
#include "engine/optimizer/highs_instances.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace trvo {

Views& views(TRVOprob p) {
    if (!p->views) p->views = std::make_shared<Views>();
    return *static_cast<Views*>(p->views.get());
}

Views* views_if(TRVOprob p) { return static_cast<Views*>(p->views.get()); }

QuietModel::QuietModel(TRVOprob p, bool mip) {
    formulate(p, mip, m);
    h = highs_new_quiet();
    if (!h) fail("Could not create a HiGHS instance");
    if (Highs_passModel(h, m.ncol, m.nrow, static_cast<HighsInt>(m.a_index.size()),
                        static_cast<HighsInt>(m.q_index.size()), kHighsMatrixFormatRowwise,
                        kHighsHessianFormatTriangular, kHighsObjSenseMinimize, m.offset, m.cost.data(),
                        m.col_lower.data(), m.col_upper.data(), m.row_lower.data(), m.row_upper.data(),
                        m.nrow ? m.a_start.data() : nullptr, m.a_index.empty() ? nullptr : m.a_index.data(),
                        m.a_value.empty() ? nullptr : m.a_value.data(),
                        m.q_index.empty() ? nullptr : m.q_start.data(),
                        m.q_index.empty() ? nullptr : m.q_index.data(),
                        m.q_index.empty() ? nullptr : m.q_value.data(),
                        mip && !m.integrality.empty() ? m.integrality.data() : nullptr) == kHighsStatusError) {
        highs_release(h);
        h = nullptr;
        fail("HiGHS refused the model");
    }
    Highs_setDoubleOptionValue(h, "primal_feasibility_tolerance", ctl_dbl(p, TRVO_FEASTOL));
    Highs_setDoubleOptionValue(h, "dual_feasibility_tolerance", ctl_dbl(p, TRVO_OPTIMALITYTOL));
    Highs_setIntOptionValue(h, "threads", 1);
}

QuietModel::~QuietModel() { highs_release(h); }

HighsInt QuietModel::run() {
    SolveScope scope(1, nullptr);
    Highs_setIntOptionValue(h, "threads", scope.used);
    Highs_zeroAllClocks(h);
    if (Highs_run(h) == kHighsStatusError) {
        HighsInt ms = Highs_getModelStatus(h);
        if (ms == kHighsModelStatusNotset || ms == kHighsModelStatusModelError) fail("HiGHS could not solve the model");
        return ms;
    }
    return Highs_getModelStatus(h);
}

namespace {
void remap_indices(std::vector<int>& list, const std::vector<int>& newidx) {
    size_t o = 0;
    for (int k : list) {
        const int nk = k >= 0 && static_cast<size_t>(k) < newidx.size() ? newidx[static_cast<size_t>(k)] : -1;
        if (nk >= 0) list[o++] = nk;
    }
    list.resize(o);
}
void keep_entries(std::vector<int>& values, const std::vector<int>& newidx) {
    if (values.empty()) return;
    std::vector<int> kept;
    for (size_t k = 0; k < newidx.size() && k < values.size(); ++k)
        if (newidx[k] >= 0) kept.push_back(values[k]);
    values.swap(kept);
}
}  // namespace

void views_copy(TRVOprob dest, TRVOprob src) {
    dest->views.reset();
    const Views* v = views_if(src);
    if (!v) return;
    // Secure vectors and scaling are part of the model; the interior-point solution belongs
    // to the source's last solve, and a copy starts without a solution.
    Views& d = views(dest);
    d.secure_rows = v->secure_rows;
    d.secure_cols = v->secure_cols;
    d.row_scale = v->row_scale;
    d.col_scale = v->col_scale;
}

void views_rows_deleted(TRVOprob p, const std::vector<char>& drop) {
    Views* v = views_if(p);
    if (!v) return;
    std::vector<int> newidx(drop.size(), -1);
    int out = 0;
    for (size_t i = 0; i < drop.size(); ++i)
        if (!drop[i]) newidx[i] = out++;
    remap_indices(v->secure_rows, newidx);
    keep_entries(v->row_scale, newidx);
    v->have_bar = false;
}

void views_cols_deleted(TRVOprob p, const std::vector<int>& newidx) {
    Views* v = views_if(p);
    if (!v) return;
    remap_indices(v->secure_cols, newidx);
    keep_entries(v->col_scale, newidx);
    v->have_bar = false;
}

bool presolve_allowed(TRVOprob p) {
    Views* v = views_if(p);
    if (!v || (v->secure_rows.empty() && v->secure_cols.empty())) return true;
    emit_message(p, "Presolve is switched off for this run: HiGHS's presolve cannot be told to keep the "
                    "rows and columns given by loadsecurevecs", 1);
    return false;
}

namespace {

int status_code(HighsInt s) {
    switch (s) {
        case kHighsBasisStatusBasic: return 1;
        case kHighsBasisStatusUpper: return 2;
        case kHighsBasisStatusZero: return 3;
        default: return 0;
    }
}

// The index in a name "<letter><number>" given to the view's instance.
int position(const char* name) {
    char* end = nullptr;
    long v = std::strtol(name + 1, &end, 10);
    if (!*name || end == name + 1 || *end) fail("Unexpected name %s in the presolved problem", name);
    return static_cast<int>(v);
}

// One presolve of the problem's model.
struct PresolveView {
    QuietModel q;
    int n = 0, m = 0;  // the user's columns and rows
    bool reduced = false;          // HiGHS presolved the model (else the view is the identity)
    std::vector<int> rowmap, colmap;  // presolved index -> the problem's index (-1: internal)
    // The presolved LP, row-wise.
    HighsInt pcol = 0, prow = 0;
    double offset = 0;
    std::vector<double> cost, clo, cup, rlo, rup, aval;
    std::vector<HighsInt> astart, aindex;

    explicit PresolveView(TRVOprob p) : q(p, has_entities(p)), n(p->ncols()), m(p->nrows()) {
        bool allowed = ctl_int(p, TRVO_PRESOLVE) != 0 && presolve_allowed(p);
        if (!allowed) {
            identity();
            return;
        }
        char name[32];
        for (int j = 0; j < q.m.ncol; ++j) {
            std::snprintf(name, sizeof name, "c%d", j);
            Highs_passColName(q.h, j, name);
        }
        for (int i = 0; i < q.m.nrow; ++i) {
            std::snprintf(name, sizeof name, "r%d", i);
            Highs_passRowName(q.h, i, name);
        }
        Highs_setStringOptionValue(q.h, "presolve", "on");
        HighsInt st;
        {
            SolveScope scope(1, nullptr);
            Highs_setIntOptionValue(q.h, "threads", scope.used);
            st = Highs_presolve(q.h);
        }
        HighsInt ms = Highs_getModelStatus(q.h);
        if (ms == kHighsModelStatusInfeasible || ms == kHighsModelStatusUnboundedOrInfeasible)
            fail("Presolve found the problem infeasible or unbounded: there is no presolved problem");
        if (st == kHighsStatusError) fail("HiGHS's presolve failed");
        reduced = true;
        pcol = Highs_getPresolvedNumCol(q.h);
        prow = Highs_getPresolvedNumRow(q.h);
        HighsInt nz = Highs_getPresolvedNumNz(q.h);
        cost.resize(static_cast<size_t>(pcol));
        clo.resize(cost.size());
        cup.resize(cost.size());
        rlo.resize(static_cast<size_t>(prow));
        rup.resize(rlo.size());
        astart.resize(static_cast<size_t>(prow) + 1);
        aindex.resize(static_cast<size_t>(nz) + 1);
        aval.resize(static_cast<size_t>(nz) + 1);
        std::vector<HighsInt> integ(static_cast<size_t>(pcol) + 1);
        HighsInt nc = 0, nr = 0, nnz = 0, sense = 0;
        if (Highs_getPresolvedLp(q.h, kHighsMatrixFormatRowwise, &nc, &nr, &nnz, &sense, &offset, cost.data(),
                                 clo.data(), cup.data(), rlo.data(), rup.data(), astart.data(), aindex.data(),
                                 aval.data(), integ.data()) == kHighsStatusError)
            fail("HiGHS did not give the presolved problem");
        char buf[kHighsMaximumStringLength + 1];
        for (HighsInt k = 0; k < pcol; ++k) {
            buf[0] = 0;
            Highs_getPresolvedColName(q.h, k, buf);
            int j = position(buf);
            colmap.push_back(j < n ? j : -1);
        }
        for (HighsInt k = 0; k < prow; ++k) {
            buf[0] = 0;
            Highs_getPresolvedRowName(q.h, k, buf);
            int i = position(buf);
            rowmap.push_back(i < m ? i : -1);
        }
    }

    void identity() {
        pcol = q.m.ncol;
        prow = q.m.nrow;
        for (int j = 0; j < pcol; ++j) colmap.push_back(j < n ? j : -1);
        for (int i = 0; i < prow; ++i) rowmap.push_back(i < m ? i : -1);
    }

    void require_lp(TRVOprob p) const {
        if (has_entities(p)) fail("The presolved solution and basis are available for LPs only");
        if (!p->qobj.empty() || !p->qrows.empty())
            fail("The presolved solution and basis are available for LPs only");
    }

    // A quiet instance holding the presolved LP (the original model when nothing was removed).
    void* presolved_instance(void*& made) {
        made = nullptr;
        if (!reduced) return q.h;
        void* h = highs_new_quiet();
        if (!h) fail("Could not create a HiGHS instance");
        made = h;
        if (Highs_passLp(h, pcol, prow, static_cast<HighsInt>(aindex.size()) - 1, kHighsMatrixFormatRowwise,
                         kHighsObjSenseMinimize, offset, cost.data(), clo.data(), cup.data(), rlo.data(), rup.data(),
                         astart.data(), aindex.data(), aval.data()) == kHighsStatusError)
            fail("HiGHS refused the presolved problem");
        Highs_setStringOptionValue(h, "presolve", "off");
        Highs_setIntOptionValue(h, "threads", 1);
        return h;
    }
};

struct Released {
    void* h = nullptr;
    ~Released() { highs_release(h); }
};

// Solves the presolved LP (from the given basis when there is one) on instance h.
void solve_presolved(TRVOprob p, void* h, const std::vector<HighsInt>* cbasis, const std::vector<HighsInt>* rbasis) {
    Highs_setDoubleOptionValue(h, "primal_feasibility_tolerance", ctl_dbl(p, TRVO_FEASTOL));
    Highs_setDoubleOptionValue(h, "dual_feasibility_tolerance", ctl_dbl(p, TRVO_OPTIMALITYTOL));
    Highs_setStringOptionValue(h, "presolve", "off");
    Highs_setStringOptionValue(h, "solver", "simplex");
    if (cbasis && Highs_setBasis(h, cbasis->data(), rbasis->data()) == kHighsStatusError)
        fail("HiGHS refused the presolved basis");
    SolveScope scope(1, nullptr);
    Highs_setIntOptionValue(h, "threads", scope.used);
    Highs_zeroAllClocks(h);
    Highs_run(h);
    if (Highs_getModelStatus(h) != kHighsModelStatusOptimal && Highs_getModelStatus(h) != kHighsModelStatusModelEmpty)
        fail("The presolved problem has no optimal solution");
}

void row_vectors(HighsInt nrow, const double* rv, const double* rd, const std::vector<double>& rlo,
                 const std::vector<double>& rup, double sign, double* slack, double* dual) {
    for (HighsInt i = 0; i < nrow; ++i) {
        size_t s = static_cast<size_t>(i);
        // The slack against the side the row has (its upper side unless it has only a lower one).
        double rhs = rup[s] < kHighsInf ? rup[s] : rlo[s] > -kHighsInf ? rlo[s] : 0.0;
        if (slack) slack[i] = rhs - rv[i];
        if (dual) dual[i] = sign * rd[i];
    }
}

std::vector<HighsInt> to_highs(const int* st, int n, const char* what) {
    std::vector<HighsInt> out(static_cast<size_t>(n));
    for (int k = 0; k < n; ++k) {
        if (st[k] < 0 || st[k] > 3) fail("Invalid basis status %d of %s %d", st[k], what, k);
        out[static_cast<size_t>(k)] = st[k];
    }
    return out;
}

// The solution of the instance in the user's terms (sign applied), or fails.
void user_solution(TRVOprob p, void* h, const HighsModel& m, Results& r) {
    size_t n = static_cast<size_t>(p->ncols()), mm = static_cast<size_t>(p->nrows());
    std::vector<double> cv(static_cast<size_t>(m.ncol)), cd(cv.size()), rv(static_cast<size_t>(m.nrow)), rd(rv.size());
    Highs_getSolution(h, cv.data(), cd.data(), rv.data(), rd.data());
    results_resize(p);
    r.x.assign(cv.begin(), cv.begin() + static_cast<long>(n));
    slacks_at(p, r.x.data(), r.slack.data());
    for (size_t j = 0; j < n; ++j) r.dj[j] = m.sign * cd[j];
    for (size_t i = 0; i < mm; ++i) r.dual[i] = m.sign * rd[i];
    r.have_lp = r.have_duals = true;
    r.lpobjval = r.objval = objective_at(p, r.x.data());
}

// Turns the primal point x of the LP held by h into an optimal basic solution: HiGHS's
// crossover from the primal point pushes it to a vertex (its primal-dual variant refuses the
// duals of HiGHS's own interior solutions in this release), and the simplex method cleans the
// vertex up to an optimal basis, usually in few iterations. False when that fails.
bool basic_from_point(void* h, HighsInt n, HighsInt m, const double* x, int threads, std::atomic<int>* stop) {
    std::vector<double> xv(x, x + n);
    std::vector<HighsInt> cb(static_cast<size_t>(n) + 1), rb(static_cast<size_t>(m) + 1);
    SolveScope scope(threads, stop);
    Highs_setIntOptionValue(h, "threads", scope.used);
    {
        // HiGHS's crossover uses the task scheduler of the calling thread without setting it
        // up; a run of a one-column LP on a quiet instance sets it up for this thread.
        void* tiny = highs_new_quiet();
        if (!tiny) return false;
        double zero = 0, one = 1;
        Highs_setIntOptionValue(tiny, "threads", scope.used);
        Highs_passLp(tiny, 1, 0, 0, kHighsMatrixFormatColwise, kHighsObjSenseMinimize, 0.0, &one, &zero, &one,
                     nullptr, nullptr, nullptr, nullptr, nullptr);
        Highs_run(tiny);
        highs_release(tiny);
    }
    Highs_zeroAllClocks(h);
    if (Highs_crossover(h, n, m, xv.data(), nullptr, nullptr) == kHighsStatusError) return false;
    if (Highs_getBasis(h, cb.data(), rb.data()) == kHighsStatusError ||
        Highs_setBasis(h, cb.data(), rb.data()) == kHighsStatusError)
        return false;
    Highs_setStringOptionValue(h, "presolve", "off");
    Highs_setStringOptionValue(h, "solver", "simplex");
    Highs_zeroAllClocks(h);
    if (Highs_run(h) == kHighsStatusError) return false;
    HighsInt valid = 0;
    Highs_getIntInfoValue(h, "basis_validity", &valid);
    return valid == kHighsBasisValidityValid;
}

}  // namespace

HighsInt finish_barrier(TRVOprob p, void* h, const HighsModel& m, HighsInt ms) {
    Views& v = views(p);
    v.have_bar = false;
    HighsInt primal = kHighsSolutionStatusNone;
    Highs_getIntInfoValue(h, "primal_solution_status", &primal);
    if (primal == kHighsSolutionStatusNone) return ms;
    size_t n = static_cast<size_t>(p->ncols()), mm = static_cast<size_t>(p->nrows());
    std::vector<double> cv(static_cast<size_t>(m.ncol)), cd(cv.size()), rv(static_cast<size_t>(m.nrow)), rd(rv.size());
    Highs_getSolution(h, cv.data(), cd.data(), rv.data(), rd.data());
    std::vector<double> ucv = cv, ucd = cd, urv = rv, urd = rd;
    unscale_solution(p, m, ucv.data(), ucd.data(), urv.data(), urd.data());
    v.bar_x.assign(ucv.begin(), ucv.begin() + static_cast<long>(n));
    v.bar_slack.resize(mm);
    slacks_at(p, v.bar_x.data(), v.bar_slack.data());
    v.bar_dj.resize(n);
    v.bar_dual.resize(mm);
    for (size_t j = 0; j < n; ++j) v.bar_dj[j] = m.sign * ucd[j];
    for (size_t i = 0; i < mm; ++i) v.bar_dual[i] = m.sign * urd[i];
    v.have_bar = true;
    if (ctl_int(p, TRVO_CROSSOVER) == 0) return ms;
    if (ms != kHighsModelStatusOptimal) return ms;  // crossover needs the interior optimum
    // Crossover from the interior point to an optimal basic solution (of the model as HiGHS
    // holds it, scaled or not).
    if (!basic_from_point(h, m.ncol, m.nrow, cv.data(), static_cast<int>(ctl_int(p, TRVO_THREADS)), nullptr)) {
        emit_message(p, "Crossover failed: the interior-point solution is kept", 3);
        return ms;
    }
    return Highs_getModelStatus(h);
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOloadsecurevecs(TRVOprob prob, int nrows, int ncols, const int mrow[], const int mcol[]) {
    return guard(prob, [&] {
        if (nrows < 0 || ncols < 0 || (nrows > 0 && !mrow) || (ncols > 0 && !mcol)) fail("Invalid secure vectors");
        for (int k = 0; k < nrows; ++k) check_row(prob, mrow[k]);
        for (int k = 0; k < ncols; ++k) check_col(prob, mcol[k]);
        Views& v = views(prob);
        v.secure_rows.assign(mrow ? mrow : nullptr, mrow ? mrow + nrows : nullptr);
        v.secure_cols.assign(mcol ? mcol : nullptr, mcol ? mcol + ncols : nullptr);
    });
}

int TRVOgetpresolvemap(TRVOprob prob, int rowmap[], int* nrows, int colmap[], int* ncols) {
    return guard(prob, [&] {
        PresolveView view(prob);
        if (nrows) *nrows = view.prow;
        if (ncols) *ncols = view.pcol;
        if (rowmap) std::copy(view.rowmap.begin(), view.rowmap.end(), rowmap);
        if (colmap) std::copy(view.colmap.begin(), view.colmap.end(), colmap);
    });
}

int TRVOgetpresolvesol(TRVOprob prob, double x[], double slack[], double dual[], double dj[]) {
    return guard(prob, [&] {
        PresolveView view(prob);
        view.require_lp(prob);
        Released made;
        void* h = view.presolved_instance(made.h);
        solve_presolved(prob, h, nullptr, nullptr);
        size_t nc = static_cast<size_t>(view.pcol), nr = static_cast<size_t>(view.prow);
        std::vector<double> cv(nc + 1), cd(nc + 1), rv(nr + 1), rd(nr + 1);
        Highs_getSolution(h, cv.data(), cd.data(), rv.data(), rd.data());
        const std::vector<double>& lo = view.reduced ? view.rlo : view.q.m.row_lower;
        const std::vector<double>& up = view.reduced ? view.rup : view.q.m.row_upper;
        if (x) std::copy(cv.begin(), cv.begin() + static_cast<long>(nc), x);
        if (dj) for (size_t j = 0; j < nc; ++j) dj[j] = view.q.m.sign * cd[j];
        row_vectors(view.prow, rv.data(), rd.data(), lo, up, view.q.m.sign, slack, dual);
    });
}

int TRVOgetpresolvebasis(TRVOprob prob, int rstatus[], int cstatus[]) {
    return guard(prob, [&] {
        PresolveView view(prob);
        view.require_lp(prob);
        Released made;
        void* h = view.presolved_instance(made.h);
        solve_presolved(prob, h, nullptr, nullptr);
        std::vector<HighsInt> c(static_cast<size_t>(view.pcol) + 1), r(static_cast<size_t>(view.prow) + 1);
        if (Highs_getBasis(h, c.data(), r.data()) == kHighsStatusError) fail("No basis of the presolved problem");
        if (cstatus) for (HighsInt j = 0; j < view.pcol; ++j) cstatus[j] = status_code(c[static_cast<size_t>(j)]);
        if (rstatus) for (HighsInt i = 0; i < view.prow; ++i) rstatus[i] = status_code(r[static_cast<size_t>(i)]);
    });
}

int TRVOloadpresolvebasis(TRVOprob prob, const int rstatus[], const int cstatus[]) {
    return guard(prob, [&] {
        if (!rstatus || !cstatus) fail("Both row and column statuses are needed");
        PresolveView view(prob);
        view.require_lp(prob);
        std::vector<HighsInt> c = to_highs(cstatus, view.pcol, "column"), r = to_highs(rstatus, view.prow, "row");
        int nb = 0;
        for (HighsInt s : c) nb += s == kHighsBasisStatusBasic;
        for (HighsInt s : r) nb += s == kHighsBasisStatusBasic;
        if (nb != view.prow) fail("A basis of the presolved problem needs %d basic rows and columns, not %d", view.prow, nb);
        Released made;
        void* h = view.presolved_instance(made.h);
        // The presolved LP solved from this basis, then carried back to the problem through
        // HiGHS's postsolve; the basis that results is the start of the next LP solve.
        solve_presolved(prob, h, &c, &r);
        std::vector<HighsInt> oc(static_cast<size_t>(view.q.m.ncol) + 1), orr(static_cast<size_t>(view.q.m.nrow) + 1);
        if (view.reduced) {
            size_t nc = static_cast<size_t>(view.pcol), nr = static_cast<size_t>(view.prow);
            std::vector<double> cv(nc + 1), cd(nc + 1), rv(nr + 1), rd(nr + 1);
            Highs_getSolution(h, cv.data(), cd.data(), rv.data(), rd.data());
            if (Highs_postsolve(view.q.h, cv.data(), cd.data(), rd.data()) == kHighsStatusError)
                fail("HiGHS's postsolve failed");
            HighsInt valid = 0;
            Highs_getIntInfoValue(view.q.h, "basis_validity", &valid);
            if (valid != kHighsBasisValidityValid) {
                // Postsolve gave a solution without a basis: crossover from it gives one.
                size_t n = static_cast<size_t>(view.q.m.ncol), m = static_cast<size_t>(view.q.m.nrow);
                std::vector<double> x(n + 1), xd(n + 1), y(m + 1), yd(m + 1);
                Highs_getSolution(view.q.h, x.data(), xd.data(), y.data(), yd.data());
                if (!basic_from_point(view.q.h, view.q.m.ncol, view.q.m.nrow, x.data(), 1, nullptr))
                    fail("The presolved basis could not be carried back to the problem");
            }
            h = view.q.h;
        }
        if (Highs_getBasis(h, oc.data(), orr.data()) == kHighsStatusError) fail("No basis after postsolve");
        std::vector<int> cs(static_cast<size_t>(prob->ncols())), rs(static_cast<size_t>(prob->nrows()));
        for (size_t j = 0; j < cs.size(); ++j) cs[j] = status_code(oc[j]);
        for (size_t i = 0; i < rs.size(); ++i) rs[i] = status_code(orr[i]);
        if (TRVOloadbasis(prob, rs.data(), cs.data()) != 0) fail("%s", prob->last_error.c_str());
    });
}

int TRVOpresolverow(TRVOprob prob, char qrtype, int nzo, const int mcolso[], const double dvalo[], double drhso,
                    int maxcoeffs, double* drhsp, int* nzp, int mcolsp[], double dvalp[], int* status) {
    return guard(prob, [&] {
        if (qrtype != 'L' && qrtype != 'G' && qrtype != 'E') fail("Row type must be 'L', 'G' or 'E', not '%c'", qrtype);
        if (nzo < 0 || (nzo > 0 && (!mcolso || !dvalo))) fail("Invalid row arguments");
        if (maxcoeffs < 0) fail("Invalid maximum number of coefficients %d", maxcoeffs);
        for (int k = 0; k < nzo; ++k) check_col(prob, mcolso[k]);
        PresolveView view(prob);
        std::vector<int> where(static_cast<size_t>(prob->ncols()), -1);
        for (HighsInt k = 0; k < view.pcol; ++k)
            if (view.colmap[static_cast<size_t>(k)] >= 0) where[static_cast<size_t>(view.colmap[static_cast<size_t>(k)])] = k;
        std::vector<std::pair<int, double>> row;
        double rhs = drhso;
        int st = 0;
        for (int k = 0; k < nzo && st == 0; ++k) {
            size_t j = static_cast<size_t>(mcolso[k]);
            if (dvalo[k] == 0) continue;
            if (where[j] >= 0) {
                row.emplace_back(where[j], dvalo[k]);
            } else if (prob->lb[j] == prob->ub[j]) {
                rhs -= dvalo[k] * prob->lb[j];  // a column fixed in the problem
            } else {
                st = -1;  // the column was removed by a reduction that a new row would not survive
            }
        }
        if (st == 0) {
            std::sort(row.begin(), row.end());
            std::vector<std::pair<int, double>> merged;
            for (const auto& e : row) {
                if (!merged.empty() && merged.back().first == e.first) merged.back().second += e.second;
                else merged.push_back(e);
            }
            row.clear();
            for (const auto& e : merged)
                if (e.second != 0) row.push_back(e);
            if (static_cast<int>(row.size()) > maxcoeffs) st = -1;
        }
        if (st != 0) row.clear();
        if (nzp) *nzp = static_cast<int>(row.size());
        for (size_t k = 0; k < row.size(); ++k) {
            if (mcolsp) mcolsp[k] = row[k].first;
            if (dvalp) dvalp[k] = row[k].second;
        }
        if (drhsp) *drhsp = st == 0 ? rhs : drhso;
        if (status) *status = st;
    });
}

int TRVOgetlastbarsol(TRVOprob prob, double x[], double slack[], double dual[], double dj[]) {
    return guard(prob, [&] {
        Views* v = views_if(prob);
        if (!v || !v->have_bar || v->bar_x.size() != static_cast<size_t>(prob->ncols()) ||
            v->bar_slack.size() != static_cast<size_t>(prob->nrows()))
            fail("No interior-point solution is available: solve the LP with the barrier algorithm first");
        if (x) std::copy(v->bar_x.begin(), v->bar_x.end(), x);
        if (slack) std::copy(v->bar_slack.begin(), v->bar_slack.end(), slack);
        if (dual) std::copy(v->bar_dual.begin(), v->bar_dual.end(), dual);
        if (dj) std::copy(v->bar_dj.begin(), v->bar_dj.end(), dj);
    });
}

int TRVOcrossoverlpsol(TRVOprob prob, int* status) {
    return guard(prob, [&] {
        void* h = lp_instance(prob);
        Results& r = prob->results;
        if (!r.have_lp) fail("Crossover needs an LP solution");
        HighsInt valid = 0;
        Highs_getIntInfoValue(h, "basis_validity", &valid);
        if (valid == kHighsBasisValidityValid) {
            if (status) *status = 0;  // the solution is basic already
            return;
        }
        size_t n = static_cast<size_t>(prob->ncols()), m = static_cast<size_t>(prob->nrows());
        double sign = prob->objsense > 0 ? 1.0 : -1.0;
        std::vector<double> x(r.x.begin(), r.x.begin() + static_cast<long>(n));
        if (!basic_from_point(h, static_cast<HighsInt>(n), static_cast<HighsInt>(m), x.data(),
                              static_cast<int>(ctl_int(prob, TRVO_THREADS)), &prob->stop_request)) {
            if (status) *status = 1;
            fail("Crossover did not find a basic solution");
        }
        HighsModel shape;
        shape.ncol = static_cast<int>(n);
        shape.nrow = static_cast<int>(m);
        shape.sign = sign;
        user_solution(prob, h, shape, r);
        r.lpstatus = Highs_getModelStatus(h) == kHighsModelStatusOptimal ? TRVO_LP_OPTIMAL : r.lpstatus;
        HighsInt it = 0;
        Highs_getIntInfoValue(h, "simplex_iteration_count", &it);
        r.simplexiter = it > 0 ? it : 0;
        if (status) *status = 0;
    });
}

int TRVOfixglobals(TRVOprob prob, int options) {
    return guard(prob, [&] {
        if (options != 0 && options != 1) fail("Invalid fixglobals option %d (0 or 1)", options);
        const Results& r = prob->results;
        if (!r.have_mip || r.mipx.size() != static_cast<size_t>(prob->ncols()))
            fail("No integer solution is available to fix the global columns at");
        for (int j = 0; j < prob->ncols(); ++j) {
            size_t s = static_cast<size_t>(j);
            char t = prob->coltype[s];
            double v = r.mipx[s];
            bool integral = t == 'I' || t == 'B' || t == 'R' || (t == 'P' && v < prob->limit[s]);
            if (integral) {
                v = std::round(v);
            } else if (!(options == 1 && (t == 'S' || t == 'P'))) {
                continue;  // semi-continuous and partial-integer columns above their limit only with option 1
            }
            prob->lb[s] = prob->ub[s] = v;
        }
        results_invalidate(prob);
    });
}

int TRVOrefinemipsol(TRVOprob prob, int options, const char* flags, const double solution[], double refined[],
                     int* status) {
    return guard(prob, [&] {
        if (!solution || !refined) fail("A solution and room for the refined solution are needed");
        if (options != 0) fail("Invalid refinemipsol option %d (0)", options);
        const int n = prob->ncols();
        double itol = ctl_dbl(prob, TRVO_MIPTOL);
        // The continuous columns re-optimised with the integer ones held at their values: an LP
        // on a quiet instance (the problem's own results are not touched).
        QuietModel q(prob, false);
        for (int j = 0; j < n; ++j) {
            size_t s = static_cast<size_t>(j);
            char t = prob->coltype[s];
            double v = solution[j];
            if (t == 'I' || t == 'B' || t == 'R' || (t == 'P' && v < prob->limit[s])) {
                if (std::fabs(v - std::round(v)) > itol) fail("Column %d is not integral in the solution", j);
                v = std::round(v);
                Highs_changeColBounds(q.h, j, v, v);
            } else if ((t == 'S' || t == 'R') && std::fabs(v) <= ctl_dbl(prob, TRVO_FEASTOL)) {
                Highs_changeColBounds(q.h, j, 0, 0);
            }
        }
        for (const char* f = flags ? flags : ""; *f; ++f) {
            if (*f == 'p') Highs_setIntOptionValue(q.h, "simplex_strategy", 4);
            else if (*f == 'd') Highs_setIntOptionValue(q.h, "simplex_strategy", 1);
            else if (*f == 'b') Highs_setStringOptionValue(q.h, "solver", "ipm");
            else if (*f != ' ') fail("Unknown refinemipsol flag '%c'", *f);
        }
        if (!prob->sets.empty() || !prob->indicators.empty())
            fail("refinemipsol does not handle problems with sets or indicator rows");
        HighsInt ms = q.run();
        std::copy(solution, solution + n, refined);
        if (ms != kHighsModelStatusOptimal) {
            if (status) *status = 1;  // the integer assignment has no feasible completion
            return;
        }
        std::vector<double> cv(static_cast<size_t>(q.m.ncol)), cd(cv.size()), rv(static_cast<size_t>(q.m.nrow)), rd(rv.size());
        Highs_getSolution(q.h, cv.data(), cd.data(), rv.data(), rd.data());
        std::copy(cv.begin(), cv.begin() + n, refined);
        if (status) *status = 0;
    });
}

}  // extern "C"
