// Infeasibility analysis of the continuous relaxation: irreducible infeasible subsystems
// (HiGHS's IIS search) and repair by penalised relaxation (HiGHS's feasibility relaxation).
#include "engine/optimizer/views.h"
#include "engine/optimizer/highs_instances.h"

#include <cmath>
#include <cstdio>
#include <memory>

namespace trvo {
namespace {

// A quiet HiGHS instance holding the continuous relaxation, for one analysis.
struct Relaxation {
    void* h;
    HighsModel m;
    explicit Relaxation(TRVOprob p) : h(nullptr) {
        if (!p->qrows.empty()) fail("Infeasibility analysis does not handle quadratic rows");
        formulate(p, false, m);
        h = highs_new_quiet();
        if (!h) fail("Could not create a HiGHS instance");
        if (Highs_passModel(h, m.ncol, m.nrow, static_cast<HighsInt>(m.a_index.size()),
                            static_cast<HighsInt>(m.q_index.size()), kHighsMatrixFormatRowwise,
                            kHighsHessianFormatTriangular, kHighsObjSenseMinimize, m.offset,
                            m.cost.data(), m.col_lower.data(), m.col_upper.data(),
                            m.row_lower.data(), m.row_upper.data(),
                            m.nrow ? m.a_start.data() : nullptr,
                            m.a_index.empty() ? nullptr : m.a_index.data(),
                            m.a_value.empty() ? nullptr : m.a_value.data(),
                            m.q_index.empty() ? nullptr : m.q_start.data(),
                            m.q_index.empty() ? nullptr : m.q_index.data(),
                            m.q_index.empty() ? nullptr : m.q_value.data(), nullptr) ==
            kHighsStatusError) {
            highs_release(h);
            fail("HiGHS refused the model");
        }
        Highs_setDoubleOptionValue(h, "primal_feasibility_tolerance", ctl_dbl(p, TRVO_FEASTOL));
    }
    ~Relaxation() { highs_release(h); }
};

struct Solving {
    Solving() { highs_solve_begin(0); }
    ~Solving() { highs_solve_end(); }
};

char side(HighsInt bound, bool row) {
    switch (bound) {
        case 2: return row ? 'G' : 'L';   // lower bound / lower side
        case 3: return row ? 'L' : 'U';   // upper bound / upper side
        case 4: return row ? 'E' : 'B';
    }
    return row ? 'N' : 'F';
}

// Farkas multipliers of a subsystem: y for its rows and d for its column bounds with
// A'y + d = 0 and sum over rows of (y_i > 0 ? y_i lo_i : y_i up_i) plus sum over columns of
// (d_j > 0 ? d_j l_j : d_j u_j) = 1, only the subsystem's sides and bounds counting: adding up
// the subsystem with these weights gives 0 >= 1. Taken from HiGHS's dual ray of the subsystem
// alone, checked, and scaled; left at 0 when HiGHS gives no valid certificate.
void farkas(const HighsModel& m, Iis& iis) {
    size_t n = static_cast<size_t>(m.ncol);
    std::vector<double> clo(n, -kHighsInf), cup(n, kHighsInf), cost(n, 0.0);
    for (size_t k = 0; k < iis.cols.size(); ++k) {
        size_t j = static_cast<size_t>(iis.cols[k]);
        char b = iis.colbound[k];
        if (b == 'L' || b == 'B') clo[j] = m.col_lower[j];
        if (b == 'U' || b == 'B') cup[j] = m.col_upper[j];
    }
    std::vector<double> rlo, rup, aval;
    std::vector<HighsInt> astart{0}, aidx;
    for (size_t k = 0; k < iis.rows.size(); ++k) {
        size_t i = static_cast<size_t>(iis.rows[k]);
        char sd = iis.rowside[k];
        rlo.push_back(sd == 'G' || sd == 'E' ? m.row_lower[i] : -kHighsInf);
        rup.push_back(sd == 'L' || sd == 'E' ? m.row_upper[i] : kHighsInf);
        for (HighsInt e = m.a_start[i]; e < row_end(m, i); ++e) {
            aidx.push_back(m.a_index[static_cast<size_t>(e)]);
            aval.push_back(m.a_value[static_cast<size_t>(e)]);
        }
        astart.push_back(static_cast<HighsInt>(aidx.size()));
    }
    HighsInt nr = static_cast<HighsInt>(rlo.size());
    void* h = highs_new_quiet();
    if (!h) return;
    struct Release { void* h; ~Release() { highs_release(h); } } release{h};
    if (Highs_passLp(h, m.ncol, nr, static_cast<HighsInt>(aidx.size()), kHighsMatrixFormatRowwise,
                     kHighsObjSenseMinimize, 0.0, cost.data(), clo.data(), cup.data(),
                     nr ? rlo.data() : nullptr, nr ? rup.data() : nullptr, nr ? astart.data() : nullptr,
                     aidx.empty() ? nullptr : aidx.data(), aval.empty() ? nullptr : aval.data()) == kHighsStatusError)
        return;
    Highs_setStringOptionValue(h, "presolve", "off");
    Highs_setStringOptionValue(h, "solver", "simplex");
    // 0: whatever count HiGHS's process-wide scheduler already runs with (any other
    // count than that one makes HiGHS refuse the run).
    Highs_setIntOptionValue(h, "threads", 0);
    Highs_run(h);
    HighsInt has = 0;
    std::vector<double> ray(static_cast<size_t>(nr) + 1);
    if (nr == 0 || Highs_getDualRay(h, &has, ray.data()) == kHighsStatusError || !has) return;
    // d = -A'y over the subsystem's rows, then the value of the combination for y and for -y.
    for (int flip = 0; flip < 2; ++flip) {
        std::vector<double> y(ray.begin(), ray.begin() + nr), d(n, 0.0);
        if (flip) for (double& v : y) v = -v;
        for (HighsInt k = 0; k < nr; ++k)
            for (HighsInt e = astart[static_cast<size_t>(k)]; e < astart[static_cast<size_t>(k) + 1]; ++e)
                d[static_cast<size_t>(aidx[static_cast<size_t>(e)])] -= y[static_cast<size_t>(k)] * aval[static_cast<size_t>(e)];
        double big = 0;
        for (double v : y) big = std::max(big, std::fabs(v));
        const double ztol = 1e-9 * std::max(1.0, big);
        double value = 0;
        bool valid = true;
        auto side = [&](double mult, double lo, double up) {
            if (std::fabs(mult) <= ztol) return;
            double b = mult > 0 ? lo : up;
            if (b <= -kHighsInf || b >= kHighsInf) valid = false;
            else value += mult * b;
        };
        for (HighsInt k = 0; k < nr; ++k) side(y[static_cast<size_t>(k)], rlo[static_cast<size_t>(k)], rup[static_cast<size_t>(k)]);
        for (size_t j = 0; j < n; ++j) side(d[j], clo[j], cup[j]);
        if (!valid || value <= ztol) continue;
        for (size_t k = 0; k < iis.rows.size(); ++k) iis.duals[k] = y[k] / value;
        for (size_t k = 0; k < iis.cols.size(); ++k) iis.rdcs[k] = d[static_cast<size_t>(iis.cols[k])] / value;
        return;
    }
}

// Finds the IIS of the relaxation; false when the relaxation is feasible.
bool find_iis(TRVOprob p) {
    p->iis.clear();
    Relaxation rel(p);
    Solving solving;
    HighsInt run = Highs_run(rel.h);
    HighsInt ms = Highs_getModelStatus(rel.h);
    if (run != kHighsStatusError && ms != kHighsModelStatusInfeasible &&
        ms != kHighsModelStatusUnboundedOrInfeasible)
        return false;
    // From the LP, then made irreducible.
    Highs_setIntOptionValue(rel.h, "iis_strategy", 6);
    size_t n = static_cast<size_t>(rel.m.ncol), m = static_cast<size_t>(rel.m.nrow);
    HighsInt nc = 0, nr = 0;
    std::vector<HighsInt> ci(n + 1), ri(m + 1), cb(n + 1), rb(m + 1), cs(n + 1), rs(m + 1);
    if (Highs_getIis(rel.h, &nc, &nr, ci.data(), ri.data(), cb.data(), rb.data(), cs.data(),
                     rs.data()) == kHighsStatusError)
        fail("The infeasible subsystem search failed");
    if (nc + nr == 0) return false;
    Iis iis;
    for (HighsInt k = 0; k < nr; ++k) {
        iis.rows.push_back(ri[static_cast<size_t>(k)]);
        iis.rowside.push_back(side(rb[static_cast<size_t>(k)], true));
    }
    for (HighsInt k = 0; k < nc; ++k) {
        iis.cols.push_back(ci[static_cast<size_t>(k)]);
        iis.colbound.push_back(side(cb[static_cast<size_t>(k)], false));
    }
    iis.duals.assign(iis.rows.size(), 0.0);
    iis.rdcs.assign(iis.cols.size(), 0.0);
    farkas(rel.m, iis);
    // The subsystem's total violation: the optimum of its L1 feasibility relaxation.
    iis.numinfeas = 0;
    iis.suminfeas = 0;
    std::vector<double> lp(n, -1.0), up(n, -1.0), rp(m, -1.0);
    for (int c : iis.cols) lp[static_cast<size_t>(c)] = up[static_cast<size_t>(c)] = 1.0;
    for (int r : iis.rows) rp[static_cast<size_t>(r)] = 1.0;
    std::vector<double> obj0(n, 0.0);
    Highs_changeColsCostByRange(rel.h, 0, static_cast<HighsInt>(n) - 1, obj0.data());
    if (n > 0 && Highs_feasibilityRelaxation(rel.h, -1, -1, -1, lp.data(), up.data(), rp.data()) !=
        kHighsStatusError) {
        std::vector<double> cv(n), cd(n), rv(m), rd(m);
        Highs_getSolution(rel.h, cv.data(), cd.data(), rv.data(), rd.data());
        for (int c : iis.cols) {
            size_t s = static_cast<size_t>(c);
            double v = std::max(rel.m.col_lower[s] - cv[s], cv[s] - rel.m.col_upper[s]);
            if (v > 1e-9) { iis.suminfeas += v; ++iis.numinfeas; }
        }
        for (int r : iis.rows) {
            size_t s = static_cast<size_t>(r);
            double v = std::max(rel.m.row_lower[s] - rv[s], rv[s] - rel.m.row_upper[s]);
            if (v > 1e-9) { iis.suminfeas += v; ++iis.numinfeas; }
        }
    }
    p->iis.push_back(std::move(iis));
    return true;
}

const Iis& iis_at(TRVOprob p, int num) {
    if (num < 1 || num > static_cast<int>(p->iis.size()))
        fail("There is no infeasible subsystem number %d", num);
    return p->iis[static_cast<size_t>(num - 1)];
}

void write_iis(TRVOprob p, int num, const char* fn, int type) {
    const Iis& iis = iis_at(p, num);
    if (!fn || !*fn) fail("No file name given");
    if (type == 1) {
        FILE* f = std::fopen(fn, "w");
        if (!f) fail("Could not open %s", fn);
        std::fprintf(f, "kind,index,name,side\n");
        for (size_t k = 0; k < iis.rows.size(); ++k)
            std::fprintf(f, "row,%d,%s,%c\n", iis.rows[k], p->rownames.get(iis.rows[k], 'R').c_str(),
                         iis.rowside[k]);
        for (size_t k = 0; k < iis.cols.size(); ++k)
            std::fprintf(f, "column,%d,%s,%c\n", iis.cols[k],
                         p->colnames.get(iis.cols[k], 'C').c_str(), iis.colbound[k]);
        std::fclose(f);
        return;
    }
    if (type != 0) fail("IIS file type must be 0 (LP file) or 1 (CSV)");
    // The subsystem as a problem of its own: its rows, the columns they use, and the bounds
    // that belong to it (other bounds free).
    trvo_problem_s sub;
    sub.magic = kProblemMagic;
    TRVOcopyprob(&sub, p, p->name.c_str());
    std::vector<char> keep_row(static_cast<size_t>(p->nrows()), 0), keep_col(static_cast<size_t>(p->ncols()), 0);
    for (int r : iis.rows) {
        keep_row[static_cast<size_t>(r)] = 1;
        for (const auto& e : p->matrix[static_cast<size_t>(r)]) keep_col[static_cast<size_t>(e.first)] = 1;
    }
    std::vector<char> bound_kept(static_cast<size_t>(p->ncols()), 0);
    for (size_t k = 0; k < iis.cols.size(); ++k) {
        keep_col[static_cast<size_t>(iis.cols[k])] = 1;
        bound_kept[static_cast<size_t>(iis.cols[k])] = iis.colbound[k];
    }
    for (int j = 0; j < p->ncols(); ++j) {
        size_t s = static_cast<size_t>(j);
        char b = bound_kept[s];
        if (b != 'L' && b != 'B') sub.lb[s] = -kInf;
        if (b != 'U' && b != 'B') sub.ub[s] = kInf;
        sub.coltype[s] = 'C';
    }
    sub.indicators.clear();
    sub.sets.clear();
    // General and piecewise-linear constraints are not part of the linear subsystem (and would
    // be written over the columns left after the deletion below).
    sub.gencons.clear();
    sub.pwlcons.clear();
    sub.qobj.clear();
    std::fill(sub.obj.begin(), sub.obj.end(), 0.0);
    std::vector<char> drop_row(keep_row.size()), drop_col(keep_col.size());
    for (size_t i = 0; i < keep_row.size(); ++i) drop_row[i] = !keep_row[i];
    for (size_t j = 0; j < keep_col.size(); ++j) drop_col[j] = !keep_col[j];
    delete_rows(&sub, drop_row);
    delete_cols(&sub, drop_col);
    if (TRVOwriteprob(&sub, fn, "l") != 0) fail("%s", sub.last_error.c_str());
}

void repair(TRVOprob p, int* scode, const double* lrp, const double* grp, const double* lbp,
            const double* ubp) {
    Relaxation rel(p);
    Solving solving;
    size_t n = static_cast<size_t>(p->ncols()), m = static_cast<size_t>(p->nrows());
    std::vector<double> lp(n, -1.0), up(n, -1.0), rp(m, -1.0);
    for (size_t j = 0; j < n; ++j) {
        if (lbp && lbp[j] > 0) lp[j] = lbp[j];
        if (ubp && ubp[j] > 0) up[j] = ubp[j];
    }
    for (size_t i = 0; i < m; ++i) {
        double pl = lrp && lrp[i] > 0 ? lrp[i] : -1, pg = grp && grp[i] > 0 ? grp[i] : -1;
        switch (p->rowtype[i]) {
            case 'G': rp[i] = pl; break;
            case 'L': rp[i] = pg; break;
            case 'E': case 'R':
                // One penalty for both sides: the larger one, so neither side gets cheaper.
                rp[i] = std::max(pl, pg);
                break;
        }
    }
    // The relaxation minimises the weighted violation; the original objective is not kept.
    std::vector<double> zero(rel.m.cost.size(), 0.0);
    if (!zero.empty())
        Highs_changeColsCostByRange(rel.h, 0, static_cast<HighsInt>(zero.size()) - 1, zero.data());
    HighsInt st = Highs_feasibilityRelaxation(rel.h, -1, -1, -1, lp.data(), up.data(), rp.data());
    // The relaxed solution replaces the instance's solution (its status is measured against
    // the unrelaxed problem, so only its presence counts).
    HighsInt primal = kHighsSolutionStatusNone;
    Highs_getIntInfoValue(rel.h, "primal_solution_status", &primal);
    if (st == kHighsStatusError || primal == kHighsSolutionStatusNone) {
        if (scode) *scode = st == kHighsStatusError ? 1 : 3;
        return;
    }
    std::vector<double> cv(static_cast<size_t>(rel.m.ncol)), cd(cv.size()), rv(static_cast<size_t>(rel.m.nrow)), rd(rv.size());
    Highs_getSolution(rel.h, cv.data(), cd.data(), rv.data(), rd.data());
    // Violations of what may not be relaxed mean the relaxed problem has no solution.
    const double tol = ctl_dbl(p, TRVO_FEASTOL) * 10;
    for (size_t j = 0; j < n; ++j) {
        if ((lp[j] < 0 && cv[j] < rel.m.col_lower[j] - tol) ||
            (up[j] < 0 && cv[j] > rel.m.col_upper[j] + tol)) {
            if (scode) *scode = 1;
            return;
        }
    }
    for (size_t i = 0; i < m; ++i) {
        if (rp[i] < 0 && (rv[i] < rel.m.row_lower[i] - tol || rv[i] > rel.m.row_upper[i] + tol)) {
            if (scode) *scode = 1;
            return;
        }
    }
    results_resize(p);
    Results& r = p->results;
    r.x.assign(cv.begin(), cv.begin() + static_cast<long>(n));
    slacks_at(p, r.x.data(), r.slack.data());
    std::fill(r.dual.begin(), r.dual.end(), 0.0);
    std::fill(r.dj.begin(), r.dj.end(), 0.0);
    r.have_lp = true;
    r.have_duals = false;
    r.lpobjval = r.objval = objective_at(p, r.x.data());
    if (scode) *scode = 0;
}

// The weighted repair with a limit on each violation (HiGHS's feasibility relaxation takes no
// limits, so the relaxation is built here): every relaxable row side gets a violation column
// (cost its penalty, upper bound its limit) and every relaxable column bound a row
// x_j + u_j >= lb_j or x_j - v_j <= ub_j with the bound itself dropped. A limit that is null,
// negative or infinite leaves that violation unlimited.
void repair_bounded(TRVOprob p, int* scode, const double* lrp, const double* grp, const double* lbp,
                    const double* ubp, const double* lrb, const double* grb, const double* lbb, const double* ubb) {
    Relaxation rel(p);
    Solving solving;
    const HighsInt n = p->ncols(), m = p->nrows();
    std::vector<double> zero(rel.m.cost.size(), 0.0);
    if (!zero.empty()) Highs_changeColsCostByRange(rel.h, 0, static_cast<HighsInt>(zero.size()) - 1, zero.data());
    auto cap = [](const double* a, HighsInt k) { return a && a[k] >= 0 && a[k] < kInf ? a[k] : kHighsInf; };
    auto add_violation = [&](HighsInt row, double coef, double cost, double limit) {
        Highs_addCol(rel.h, cost, 0.0, limit, 1, &row, &coef);
    };
    for (HighsInt i = 0; i < m; ++i) {
        size_t s = static_cast<size_t>(i);
        if (lrp && lrp[i] > 0 && !is_inf(rel.m.row_lower[s])) add_violation(i, 1.0, lrp[i], cap(lrb, i));
        if (grp && grp[i] > 0 && !is_inf(rel.m.row_upper[s])) add_violation(i, -1.0, grp[i], cap(grb, i));
    }
    const double one = 1.0;
    for (HighsInt j = 0; j < n; ++j) {
        size_t s = static_cast<size_t>(j);
        double lo = rel.m.col_lower[s], up = rel.m.col_upper[s];
        bool rl = lbp && lbp[j] > 0 && !is_inf(lo), ru = ubp && ubp[j] > 0 && !is_inf(up);
        if (!rl && !ru) continue;
        Highs_changeColBounds(rel.h, j, rl ? -kHighsInf : lo, ru ? kHighsInf : up);
        if (rl) {
            Highs_addRow(rel.h, lo, kHighsInf, 1, &j, &one);
            add_violation(Highs_getNumRow(rel.h) - 1, 1.0, lbp[j], cap(lbb, j));
        }
        if (ru) {
            Highs_addRow(rel.h, -kHighsInf, up, 1, &j, &one);
            add_violation(Highs_getNumRow(rel.h) - 1, -1.0, ubp[j], cap(ubb, j));
        }
    }
    Highs_setStringOptionValue(rel.h, "presolve", "off");
    Highs_zeroAllClocks(rel.h);
    Highs_run(rel.h);
    HighsInt ms = Highs_getModelStatus(rel.h);
    if (ms != kHighsModelStatusOptimal) {
        if (scode) *scode = ms == kHighsModelStatusInfeasible ? 1 : 3;
        return;
    }
    HighsInt nc = Highs_getNumCol(rel.h), nr = Highs_getNumRow(rel.h);
    std::vector<double> cv(static_cast<size_t>(nc)), cd(cv.size()), rv(static_cast<size_t>(nr)), rd(rv.size());
    Highs_getSolution(rel.h, cv.data(), cd.data(), rv.data(), rd.data());
    results_resize(p);
    Results& r = p->results;
    r.x.assign(cv.begin(), cv.begin() + n);
    slacks_at(p, r.x.data(), r.slack.data());
    std::fill(r.dual.begin(), r.dual.end(), 0.0);
    std::fill(r.dj.begin(), r.dj.end(), 0.0);
    r.have_lp = true;
    r.have_duals = false;
    r.lpobjval = r.objval = objective_at(p, r.x.data());
    if (scode) *scode = 0;
}

}  // namespace
}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOiisfirst(TRVOprob prob, int mode, int* status) {
    return guard(prob, [&] {
        if (mode < 0) fail("Invalid IIS mode %d", mode);
        bool found = find_iis(prob);
        if (status) *status = found ? 0 : 1;
    });
}

int TRVOiisnext(TRVOprob prob, int* status) {
    return guard(prob, [&] {
        if (prob->iis.empty()) fail("Call iisfirst before iisnext");
        // HiGHS isolates one subsystem; there is no further one to report.
        if (status) *status = 2;
    });
}

int TRVOiisall(TRVOprob prob) {
    return guard(prob, [&] { find_iis(prob); });
}

int TRVOiisclear(TRVOprob prob) {
    return guard(prob, [&] { prob->iis.clear(); });
}

int TRVOiisstatus(TRVOprob prob, int* iiscount, int rowsizes[], int colsizes[],
                  double suminfeas[], int numinfeas[]) {
    return guard(prob, [&] {
        if (iiscount) *iiscount = static_cast<int>(prob->iis.size());
        for (size_t k = 0; k < prob->iis.size(); ++k) {
            const Iis& iis = prob->iis[k];
            if (rowsizes) rowsizes[k] = static_cast<int>(iis.rows.size());
            if (colsizes) colsizes[k] = static_cast<int>(iis.cols.size());
            if (suminfeas) suminfeas[k] = iis.suminfeas;
            if (numinfeas) numinfeas[k] = iis.numinfeas;
        }
    });
}

int TRVOgetiisdata(TRVOprob prob, int num, int* rownumber, int* colnumber, int miisrow[],
                   int miiscol[], char constrainttype[], char colbndtype[], double duals[],
                   double rdcs[], char isolationrows[], char isolationcols[]) {
    return guard(prob, [&] {
        const Iis& iis = iis_at(prob, num);
        if (rownumber) *rownumber = static_cast<int>(iis.rows.size());
        if (colnumber) *colnumber = static_cast<int>(iis.cols.size());
        for (size_t k = 0; k < iis.rows.size(); ++k) {
            if (miisrow) miisrow[k] = iis.rows[k];
            if (constrainttype) constrainttype[k] = iis.rowside[k];
            if (duals) duals[k] = iis.duals[k];
            if (isolationrows) isolationrows[k] = 0;
        }
        for (size_t k = 0; k < iis.cols.size(); ++k) {
            if (miiscol) miiscol[k] = iis.cols[k];
            if (colbndtype) colbndtype[k] = iis.colbound[k];
            if (rdcs) rdcs[k] = iis.rdcs[k];
            if (isolationcols) isolationcols[k] = 0;
        }
    });
}

int TRVOiisisolations(TRVOprob prob, int num) {
    return guard(prob, [&] { iis_at(prob, num); });
}

int TRVOiiswrite(TRVOprob prob, int num, const char* fn, int type, const char*) {
    return guard(prob, [&] { write_iis(prob, num, fn, type); });
}

int TRVOrepairweightedinfeas(TRVOprob prob, int* scode, const double lrp_array[],
                             const double grp_array[], const double lbp_array[],
                             const double ubp_array[], char, double, const char*) {
    return guard(prob, [&] { repair(prob, scode, lrp_array, grp_array, lbp_array, ubp_array); });
}

int TRVOrepairweightedinfeasbounds(TRVOprob prob, int* scode, const double lrp_array[],
                                   const double grp_array[], const double lbp_array[],
                                   const double ubp_array[], const double lrb_array[],
                                   const double grb_array[], const double lbb_array[],
                                   const double ubb_array[], char, double, const char*) {
    return guard(prob, [&] {
        repair_bounded(prob, scode, lrp_array, grp_array, lbp_array, ubp_array, lrb_array, grb_array,
                       lbb_array, ubb_array);
    });
}

int TRVOrepairinfeas(TRVOprob prob, int* scode, char pflags, char, char, double lrp, double grp,
                     double lbp, double ubp, double) {
    return guard(prob, [&] {
        bool rows = pflags != 'b', bounds = pflags != 'c';
        size_t n = static_cast<size_t>(prob->ncols()), m = static_cast<size_t>(prob->nrows());
        std::vector<double> l(m, rows ? lrp : -1), g(m, rows ? grp : -1), lb(n, bounds ? lbp : -1),
            ub(n, bounds ? ubp : -1);
        repair(prob, scode, l.data(), g.data(), lb.data(), ub.data());
    });
}

}  // extern "C"
