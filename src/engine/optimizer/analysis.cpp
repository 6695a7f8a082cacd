// Analysis of the last LP solve (bases, rays, ftran/btran, ranging, infeasibilities) and
// computations on given solution vectors.
#include "engine/optimizer/views.h"

#include <algorithm>
#include <cmath>

namespace trvo {

double objective_at(TRVOprob p, const double* x) {
    double v = p->objconst;
    for (int j = 0; j < p->ncols(); ++j) v += p->obj[static_cast<size_t>(j)] * x[j];
    for (const auto& kv : p->qobj) {
        double f = kv.first.first == kv.first.second ? 0.5 : 1.0;
        v += f * kv.second * x[kv.first.first] * x[kv.first.second];
    }
    return v;
}

double activity_at(TRVOprob p, int i, const double* x) {
    double act = 0;
    for (const auto& e : p->matrix[static_cast<size_t>(i)]) act += e.second * x[e.first];
    auto q = p->qrows.find(i);
    if (q != p->qrows.end())
        for (const auto& kv : q->second) {
            double f = kv.first.first == kv.first.second ? 1.0 : 2.0;
            act += f * kv.second * x[kv.first.first] * x[kv.first.second];
        }
    return act;
}

void slacks_at(TRVOprob p, const double* x, double* slack) {
    for (int i = 0; i < p->nrows(); ++i)
        slack[i] = p->rhs[static_cast<size_t>(i)] - activity_at(p, i, x);
}

void* lp_instance(TRVOprob p) {
    if (!p->highs || !p->highs_has_lp || Highs_getNumCol(p->highs) != p->ncols() ||
        Highs_getNumRow(p->highs) != p->nrows())
        fail("No LP solve of the current problem is available");
    return p->highs;
}

namespace {

int from_highs_status(HighsInt s) {
    switch (s) {
        case kHighsBasisStatusBasic: return 1;
        case kHighsBasisStatusUpper: return 2;
        case kHighsBasisStatusZero: return 3;
        default: return 0;
    }
}

// The current basis in the library's status codes: the last LP solve's, or, when no LP solve
// of the current problem is held (a restored problem, say), the basis loaded for the next
// solve, when it fits the problem.
void basis(TRVOprob p, std::vector<int>& c, std::vector<int>& r) {
    const size_t n = static_cast<size_t>(p->ncols()), m = static_cast<size_t>(p->nrows());
    bool solved = p->highs && p->highs_has_lp && Highs_getNumCol(p->highs) == p->ncols() &&
                  Highs_getNumRow(p->highs) == p->nrows();
    if (!solved && p->start_cbasis.size() == n && p->start_rbasis.size() == m && (n > 0 || m > 0)) {
        c.assign(p->start_cbasis.begin(), p->start_cbasis.end());
        r.assign(p->start_rbasis.begin(), p->start_rbasis.end());
        return;
    }
    void* h = lp_instance(p);
    HighsInt valid = 0;
    Highs_getIntInfoValue(h, "basis_validity", &valid);
    if (valid != kHighsBasisValidityValid) fail("No basis available");
    std::vector<HighsInt> hc(n), hr(m);
    if (Highs_getBasis(h, hc.data(), hr.data()) == kHighsStatusError) fail("No basis available");
    c.resize(n);
    r.resize(m);
    for (size_t j = 0; j < n; ++j) c[j] = from_highs_status(hc[j]);
    for (size_t i = 0; i < m; ++i) r[i] = from_highs_status(hr[i]);
}

// Lower and upper limits of the row activity.
void row_limits(TRVOprob p, int i, double& lo, double& up) {
    size_t s = static_cast<size_t>(i);
    double r = p->rhs[s];
    switch (p->rowtype[s]) {
        case 'L': lo = -kInf; up = r; break;
        case 'G': lo = r; up = kInf; break;
        case 'E': lo = up = r; break;
        case 'R': lo = r - p->range[s]; up = r; break;
        default: lo = -kInf; up = kInf; break;
    }
}

// Reduced costs dj = gradient of the objective - sum of duals times row gradients.
void reduced_costs(TRVOprob p, const double* y, const double* x, double* dj) {
    const int n = p->ncols();
    for (int j = 0; j < n; ++j) dj[j] = p->obj[static_cast<size_t>(j)];
    for (const auto& kv : p->qobj) {
        int a = kv.first.first, b = kv.first.second;
        dj[a] += kv.second * x[b];
        if (a != b) dj[b] += kv.second * x[a];
    }
    for (int i = 0; i < p->nrows(); ++i) {
        double yi = y[i];
        if (yi == 0) continue;
        for (const auto& e : p->matrix[static_cast<size_t>(i)]) dj[e.first] -= yi * e.second;
        auto q = p->qrows.find(i);
        if (q != p->qrows.end())
            for (const auto& kv : q->second) {
                int a = kv.first.first, b = kv.first.second;
                dj[a] -= yi * 2 * kv.second * x[b];
                if (a != b) dj[b] -= yi * 2 * kv.second * x[a];
            }
    }
}

// Dual infeasibility of a multiplier m on a quantity at value v within [lo, up] (a column's
// reduced cost, or a row's dual): in a minimisation m may be positive only at the lower limit
// and negative only at the upper limit.
double dual_violation(double m, double v, double lo, double up, double sense, double tol) {
    m *= sense;
    double viol = 0;
    if (m > 0 && v > lo + tol) viol = m;
    if (m < 0 && v < up - tol) viol = -m;
    return viol;
}

}  // namespace
}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOgetbasis(TRVOprob prob, int rstatus[], int cstatus[]) {
    return guard(prob, [&] {
        std::vector<int> c, r;
        basis(prob, c, r);
        if (cstatus) std::copy(c.begin(), c.end(), cstatus);
        if (rstatus) std::copy(r.begin(), r.end(), rstatus);
    });
}

int TRVOgetbasisval(TRVOprob prob, int row, int col, int* rowstat, int* colstat) {
    return guard(prob, [&] {
        if (row >= 0) check_row(prob, row);
        if (col >= 0) check_col(prob, col);
        std::vector<int> c, r;
        basis(prob, c, r);
        if (rowstat && row >= 0) *rowstat = r[static_cast<size_t>(row)];
        if (colstat && col >= 0) *colstat = c[static_cast<size_t>(col)];
    });
}

int TRVOloadbasis(TRVOprob prob, const int rstatus[], const int cstatus[]) {
    return guard(prob, [&] {
        if (!rstatus || !cstatus) fail("Both row and column statuses are needed");
        int nb = 0;
        for (int i = 0; i < prob->nrows(); ++i) {
            if (rstatus[i] < 0 || rstatus[i] > 3) fail("Invalid basis status %d of row %d", rstatus[i], i);
            nb += rstatus[i] == 1;
        }
        for (int j = 0; j < prob->ncols(); ++j) {
            if (cstatus[j] < 0 || cstatus[j] > 3) fail("Invalid basis status %d of column %d", cstatus[j], j);
            nb += cstatus[j] == 1;
        }
        if (nb != prob->nrows())
            fail("A basis needs %d basic rows and columns, not %d", prob->nrows(), nb);
        prob->start_rbasis.assign(rstatus, rstatus + prob->nrows());
        prob->start_cbasis.assign(cstatus, cstatus + prob->ncols());
    });
}

int TRVOgetprimalray(TRVOprob prob, double ray[], int* hasray) {
    return guard(prob, [&] {
        void* h = lp_instance(prob);
        HighsInt has = 0;
        std::vector<double> r(static_cast<size_t>(prob->ncols()));
        if (Highs_getPrimalRay(h, &has, r.data()) == kHighsStatusError) has = 0;
        if (hasray) *hasray = has ? 1 : 0;
        if (has && ray) std::copy(r.begin(), r.end(), ray);
    });
}

int TRVOgetdualray(TRVOprob prob, double ray[], int* hasray) {
    return guard(prob, [&] {
        void* h = lp_instance(prob);
        HighsInt has = 0;
        std::vector<double> r(static_cast<size_t>(prob->nrows()));
        if (Highs_getDualRay(h, &has, r.data()) == kHighsStatusError) has = 0;
        if (hasray) *hasray = has ? 1 : 0;
        if (has && ray) std::copy(r.begin(), r.end(), ray);
    });
}

static int basis_solve(TRVOprob prob, double vec[], bool transpose) {
    return guard(prob, [&] {
        void* h = lp_instance(prob);
        if (!vec) fail("No vector given");
        size_t m = static_cast<size_t>(prob->nrows());
        std::vector<double> rhs(vec, vec + m), sol(m);
        std::vector<HighsInt> idx(m);
        HighsInt nnz = 0;
        HighsInt st = transpose
                          ? Highs_getBasisTransposeSolve(h, rhs.data(), sol.data(), &nnz, idx.data())
                          : Highs_getBasisSolve(h, rhs.data(), sol.data(), &nnz, idx.data());
        if (st == kHighsStatusError) fail("No factored basis available");
        std::copy(sol.begin(), sol.end(), vec);
    });
}

int TRVOftran(TRVOprob prob, double vec[]) { return basis_solve(prob, vec, false); }
int TRVObtran(TRVOprob prob, double vec[]) { return basis_solve(prob, vec, true); }

static int ranging(TRVOprob prob, int n, const int mindex[], double lower[], double upper[],
                   bool obj) {
    return guard(prob, [&] {
        void* h = lp_instance(prob);
        if (n > 0 && (!mindex || !lower || !upper)) fail("Missing arrays");
        for (int k = 0; k < n; ++k) {
            if (obj) check_col(prob, mindex[k]);
            else check_row(prob, mindex[k]);
        }
        size_t nc = static_cast<size_t>(prob->ncols()), nr = static_cast<size_t>(prob->nrows());
        std::vector<double> cd[8], rd[4];
        std::vector<HighsInt> ci[16], ri[8];
        for (auto& v : cd) v.resize(nc);
        for (auto& v : ci) v.resize(nc);
        for (auto& v : rd) v.resize(nr);
        for (auto& v : ri) v.resize(nr);
        if (Highs_getRanging(h, cd[0].data(), cd[1].data(), ci[0].data(), ci[1].data(),
                             cd[2].data(), cd[3].data(), ci[2].data(), ci[3].data(),
                             cd[4].data(), cd[5].data(), ci[4].data(), ci[5].data(),
                             cd[6].data(), cd[7].data(), ci[6].data(), ci[7].data(),
                             rd[0].data(), rd[1].data(), ri[0].data(), ri[1].data(),
                             rd[2].data(), rd[3].data(), ri[2].data(), ri[3].data()) ==
            kHighsStatusError)
            fail("Ranging needs an optimal basis of an LP");
        double sign = prob->objsense > 0 ? 1.0 : -1.0;
        for (int k = 0; k < n; ++k) {
            size_t i = static_cast<size_t>(mindex[k]);
            double lo, up;
            if (obj) {
                // HiGHS ranges the cost of its minimisation; a maximisation's costs are negated.
                lo = cd[2][i];
                up = cd[0][i];
                if (sign < 0) {
                    double t = -lo;
                    lo = -up;
                    up = t;
                }
            } else {
                lo = rd[2][i];
                up = rd[0][i];
            }
            lower[k] = std::isinf(lo) ? -kInf : lo;
            upper[k] = std::isinf(up) ? kInf : up;
            if (lower[k] > upper[k]) std::swap(lower[k], upper[k]);
        }
    });
}

int TRVOobjsa(TRVOprob prob, int n, const int mindex[], double lower[], double upper[]) {
    return ranging(prob, n, mindex, lower, upper, true);
}

int TRVOrhssa(TRVOprob prob, int n, const int mindex[], double lower[], double upper[]) {
    return ranging(prob, n, mindex, lower, upper, false);
}

// Infeasibilities of the current LP solution; scaled: measured on the problem scaled by the
// factors of TRVOscale (column j divided by c_j, row i multiplied by r_i; duals follow).
static int infeasibilities(TRVOprob prob, bool scaled, int* npv, int* nps, int* nds, int* ndj, int mx[],
                           int mslack[], int mdual[], int mdj[]) {
    return guard(prob, [&] {
        const Results& r = prob->results;
        if (!r.have_lp) fail("No LP solution available");
        double ftol = ctl_dbl(prob, TRVO_FEASTOL), otol = ctl_dbl(prob, TRVO_OPTIMALITYTOL);
        double sense = prob->objsense;
        const Views* v = scaled ? views_if(prob) : nullptr;
        auto cf = [&](int j) { return v && !v->col_scale.empty() ? std::ldexp(1.0, v->col_scale[static_cast<size_t>(j)]) : 1.0; };
        auto rf = [&](int i) { return v && !v->row_scale.empty() ? std::ldexp(1.0, v->row_scale[static_cast<size_t>(i)]) : 1.0; };
        auto sc = [](double bound, double f) { return is_inf(bound) ? bound : bound * f; };
        int a = 0, b = 0, c = 0, d = 0;
        for (int j = 0; j < prob->ncols(); ++j) {
            size_t s = static_cast<size_t>(j);
            double f = 1.0 / cf(j);
            double x = r.x[s] * f, lb = sc(prob->lb[s], f), ub = sc(prob->ub[s], f);
            if (x < lb - ftol || x > ub + ftol) {
                if (mx) mx[a] = j;
                ++a;
            }
            if (r.have_duals && dual_violation(r.dj[s] / f, x, lb, ub, sense, ftol) > otol) {
                if (mdj) mdj[d] = j;
                ++d;
            }
        }
        for (int i = 0; i < prob->nrows(); ++i) {
            size_t s = static_cast<size_t>(i);
            double f = rf(i);
            double lo, up, act = (prob->rhs[s] - r.slack[s]) * f;
            row_limits(prob, i, lo, up);
            lo = sc(lo, f);
            up = sc(up, f);
            if (act < lo - ftol || act > up + ftol) {
                if (mslack) mslack[b] = i;
                ++b;
            }
            if (r.have_duals && dual_violation(r.dual[s] / f, act, lo, up, sense, ftol) > otol) {
                if (mdual) mdual[c] = i;
                ++c;
            }
        }
        if (npv) *npv = a;
        if (nps) *nps = b;
        if (nds) *nds = c;
        if (ndj) *ndj = d;
    });
}

int TRVOgetinfeas(TRVOprob prob, int* npv, int* nps, int* nds, int* ndj, int mx[],
                  int mslack[], int mdual[], int mdj[]) {
    return infeasibilities(prob, false, npv, nps, nds, ndj, mx, mslack, mdual, mdj);
}

int TRVOgetscaledinfeas(TRVOprob prob, int* npv, int* nps, int* nds, int* ndj, int mx[],
                        int mslack[], int mdual[], int mdj[]) {
    return infeasibilities(prob, true, npv, nps, nds, ndj, mx, mslack, mdual, mdj);
}

int TRVOcalcobjective(TRVOprob prob, const double solution[], double* objval) {
    return guard(prob, [&] {
        if (!solution || !objval) fail("Missing solution or output argument");
        *objval = objective_at(prob, solution);
    });
}

int TRVOcalcslacks(TRVOprob prob, const double solution[], double slacks[]) {
    return guard(prob, [&] {
        if (!solution || !slacks) fail("Missing solution or output array");
        slacks_at(prob, solution, slacks);
    });
}

int TRVOcalcreducedcosts(TRVOprob prob, const double duals[], const double solution[],
                         double djs[]) {
    return guard(prob, [&] {
        if (!duals || !djs) fail("Missing duals or output array");
        std::vector<double> zero;
        if (!solution) {
            if (!prob->qobj.empty() || !prob->qrows.empty())
                fail("A solution is needed for the reduced costs of a quadratic problem");
            zero.assign(static_cast<size_t>(prob->ncols()), 0.0);
            solution = zero.data();
        }
        reduced_costs(prob, duals, solution, djs);
    });
}

int TRVOcalcsolinfo(TRVOprob prob, const double solution[], const double dual[], int property,
                    double* value) {
    return guard(prob, [&] {
        if (!solution || !value) fail("Missing solution or output argument");
        const int n = prob->ncols(), m = prob->nrows();
        double best = 0;
        switch (property) {
            case 0: case 1:
                for (int j = 0; j < n; ++j) {
                    size_t s = static_cast<size_t>(j);
                    double vlo = prob->lb[s] - solution[j], vup = solution[j] - prob->ub[s];
                    if (vlo > 0) best = std::max(best, property == 0 ? vlo : vlo / (1 + std::fabs(prob->lb[s])));
                    if (vup > 0) best = std::max(best, property == 0 ? vup : vup / (1 + std::fabs(prob->ub[s])));
                }
                for (int i = 0; i < m; ++i) {
                    double lo, up, act = activity_at(prob, i, solution);
                    row_limits(prob, i, lo, up);
                    double v = std::max(lo - act, act - up);
                    if (v > 0) best = std::max(best, property == 0 ? v : v / (1 + std::fabs(prob->rhs[static_cast<size_t>(i)])));
                }
                break;
            case 2: case 3: {
                if (!dual) fail("Duals are needed for the dual infeasibility");
                std::vector<double> dj(static_cast<size_t>(n));
                reduced_costs(prob, dual, solution, dj.data());
                for (int j = 0; j < n; ++j) {
                    size_t s = static_cast<size_t>(j);
                    double v = dual_violation(dj[s], solution[j], prob->lb[s], prob->ub[s], prob->objsense, 1e-9);
                    if (v > 0) best = std::max(best, property == 2 ? v : v / (1 + std::fabs(prob->obj[s])));
                }
                for (int i = 0; i < m; ++i) {
                    double lo, up, act = activity_at(prob, i, solution);
                    row_limits(prob, i, lo, up);
                    double v = dual_violation(dual[i], act, lo, up, prob->objsense, 1e-9);
                    if (v > 0) best = std::max(best, property == 2 ? v : v / (1 + std::fabs(prob->rhs[static_cast<size_t>(i)])));
                }
                break;
            }
            case 4:
                for (int j = 0; j < n; ++j) {
                    char t = prob->coltype[static_cast<size_t>(j)];
                    if (t == 'I' || t == 'B' || t == 'R' ||
                        (t == 'P' && solution[j] < prob->limit[static_cast<size_t>(j)]))
                        best = std::max(best, std::fabs(solution[j] - std::round(solution[j])));
                }
                break;
            default: fail("Unknown solution property %d", property);
        }
        *value = best;
    });
}

int TRVOloadmipsol(TRVOprob prob, const double dsol[], int* status) {
    return guard(prob, [&] {
        if (!dsol) fail("No solution given");
        const int n = prob->ncols();
        double ftol = ctl_dbl(prob, TRVO_FEASTOL), itol = ctl_dbl(prob, TRVO_MIPTOL);
        bool ok = true;
        for (int j = 0; j < n && ok; ++j) {
            size_t s = static_cast<size_t>(j);
            double x = dsol[j];
            char t = prob->coltype[s];
            bool zero_ok = (t == 'S' || t == 'R') && std::fabs(x) <= ftol;
            if (!zero_ok && (x < prob->lb[s] - ftol || x > prob->ub[s] + ftol)) ok = false;
            if ((t == 'I' || t == 'B' || t == 'R') && std::fabs(x - std::round(x)) > itol) ok = false;
        }
        for (int i = 0; i < prob->nrows() && ok; ++i) {
            if (prob->indicators.count(i)) continue;
            double lo, up, act = activity_at(prob, i, dsol);
            row_limits(prob, i, lo, up);
            if (act < lo - ftol || act > up + ftol) ok = false;
        }
        prob->mip_start.clear();
        for (int j = 0; j < n; ++j) prob->mip_start.emplace_back(j, dsol[j]);
        if (status) *status = ok ? 0 : 1;
    });
}

int TRVOaddmipsol(TRVOprob prob, int ilength, const double mipsolval[], const int mipsolcol[],
                  const char* solname) {
    return guard(prob, [&] {
        if (ilength < 0 || (ilength > 0 && !mipsolval)) fail("Invalid solution arguments");
        std::vector<std::pair<int, double>> start;
        for (int k = 0; k < ilength; ++k) {
            int j = mipsolcol ? mipsolcol[k] : k;
            check_col(prob, j);
            start.emplace_back(j, mipsolval[k]);
        }
        // Also queued by name: the next MIP solve offers it and reports its verdict to the
        // usersolnotify callbacks.
        prob->user_solutions.push_back(UserSolution{solname ? solname : "", start});
        prob->mip_start.swap(start);
    });
}

int TRVOloadlpsol(TRVOprob prob, const double x[], const double slack[], const double dual[],
                  const double dj[], int* status) {
    return guard(prob, [&] {
        if (!x) fail("A primal solution is needed");
        results_resize(prob);
        Results& r = prob->results;
        size_t n = static_cast<size_t>(prob->ncols()), m = static_cast<size_t>(prob->nrows());
        r.x.assign(x, x + n);
        if (slack) r.slack.assign(slack, slack + m);
        else slacks_at(prob, x, r.slack.data());
        if (dual) r.dual.assign(dual, dual + m);
        else std::fill(r.dual.begin(), r.dual.end(), 0.0);
        if (dj) r.dj.assign(dj, dj + n);
        else reduced_costs(prob, r.dual.data(), x, r.dj.data());
        r.have_lp = true;
        r.have_duals = dual != nullptr;
        r.lpobjval = r.objval = objective_at(prob, x);
        if (status) *status = 0;
    });
}

int TRVOpostsolve(TRVOprob prob) {
    return guard(prob, [] {});
}

}  // extern "C"
