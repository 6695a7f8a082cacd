// Analyses of the last LP basis computed from solves with it (HiGHS's basis solves and rows of
// the inverse): the order of the basic variables, the ratio test of an entering variable, the
// variable of an unbounded direction, condition numbers, ranges of the row duals, and the user
// scaling factors that the solve honours.
//
// Conventions. The combined index space has the rows first (0 .. rows-1) and the columns after
// them (rows + j). HiGHS's basis matrix B is made of columns of [A I]: the variable of row i is
// the negated row activity, with the unit column e_i. Values reported for rows are activities.
#include "engine/optimizer/views.h"
#include "engine/optimizer/highs_instances.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace trvo {
namespace {

// The factorised basis of the last LP solve, with the values and bounds of every variable in
// the combined index space in HiGHS's own terms (the objective a minimisation, row variables
// the negated activities).
struct Basis {
    void* h;
    int m, n;
    std::vector<HighsInt> basic;            // position -> HiGHS basic index (>= 0 column, -i-1 row)
    std::vector<HighsInt> cstat, rstat;
    std::vector<double> value, lower, upper, cost;  // combined index space
    double sign;

    explicit Basis(TRVOprob p) : h(lp_instance(p)), m(p->nrows()), n(p->ncols()) {
        HighsInt valid = 0;
        Highs_getIntInfoValue(h, "basis_validity", &valid);
        if (valid != kHighsBasisValidityValid) fail("No basis available");
        basic.resize(static_cast<size_t>(m) + 1);
        if (m > 0 && Highs_getBasicVariables(h, basic.data()) == kHighsStatusError) fail("No factored basis available");
        basic.resize(static_cast<size_t>(m));
        cstat.resize(static_cast<size_t>(n) + 1);
        rstat.resize(static_cast<size_t>(m) + 1);
        Highs_getBasis(h, cstat.data(), rstat.data());
        sign = p->objsense > 0 ? 1.0 : -1.0;
        size_t t = static_cast<size_t>(m + n);
        value.resize(t);
        lower.resize(t);
        upper.resize(t);
        cost.assign(t, 0.0);
        std::vector<double> cv(static_cast<size_t>(n) + 1), cd(cv.size()), rv(static_cast<size_t>(m) + 1), rd(rv.size());
        Highs_getSolution(h, cv.data(), cd.data(), rv.data(), rd.data());
        for (int i = 0; i < m; ++i) {
            double lo, up;
            row_bounds(p, i, lo, up);
            size_t s = static_cast<size_t>(i);
            value[s] = -rv[s];
            lower[s] = is_inf(up) ? -kInf : -up;
            upper[s] = is_inf(lo) ? kInf : -lo;
        }
        for (int j = 0; j < n; ++j) {
            size_t s = static_cast<size_t>(m + j);
            value[s] = cv[static_cast<size_t>(j)];
            lower[s] = p->lb[static_cast<size_t>(j)];
            upper[s] = p->ub[static_cast<size_t>(j)];
            cost[s] = sign * p->obj[static_cast<size_t>(j)];
        }
    }
    // Combined index of the variable basic at position k.
    int at(size_t k) const { return basic[k] >= 0 ? m + static_cast<int>(basic[k]) : static_cast<int>(-basic[k] - 1); }
    bool is_basic(int q) const {
        return q < m ? rstat[static_cast<size_t>(q)] == kHighsBasisStatusBasic
                     : cstat[static_cast<size_t>(q - m)] == kHighsBasisStatusBasic;
    }
    // d = B^-1 a_q for the column a_q of [A I].
    std::vector<double> column(TRVOprob p, int q) const {
        std::vector<double> a(static_cast<size_t>(m), 0.0), d(static_cast<size_t>(m) + 1);
        if (q < m) a[static_cast<size_t>(q)] = 1.0;
        else
            for (int i = 0; i < m; ++i) a[static_cast<size_t>(i)] = p->matrix.row(i).coef(q - m);
        std::vector<HighsInt> idx(static_cast<size_t>(m) + 1);
        HighsInt nnz = 0;
        if (m > 0 && Highs_getBasisSolve(h, a.data(), d.data(), &nnz, idx.data()) == kHighsStatusError)
            fail("No factored basis available");
        d.resize(static_cast<size_t>(m));
        return d;
    }
    // Reduced cost of variable q: c_q - pi' a_q with B' pi = c_B.
    std::vector<double> prices() const {
        std::vector<double> cb(static_cast<size_t>(m)), pi(static_cast<size_t>(m) + 1);
        for (size_t k = 0; k < static_cast<size_t>(m); ++k) cb[k] = cost[static_cast<size_t>(at(k))];
        std::vector<HighsInt> idx(static_cast<size_t>(m) + 1);
        HighsInt nnz = 0;
        if (m > 0 && Highs_getBasisTransposeSolve(h, cb.data(), pi.data(), &nnz, idx.data()) == kHighsStatusError)
            fail("No factored basis available");
        pi.resize(static_cast<size_t>(m));
        return pi;
    }
    double reduced_cost(TRVOprob p, int q, const std::vector<double>& pi) const {
        if (q < m) return -pi[static_cast<size_t>(q)];
        double dj = cost[static_cast<size_t>(q)];
        for (int i = 0; i < m; ++i) dj -= pi[static_cast<size_t>(i)] * p->matrix.row(i).coef(q - m);
        return dj;
    }
};

void check_lp(TRVOprob p) {
    if (!p->qobj.empty() || !p->qrows.empty()) fail("Basis analysis needs a linear problem");
}

// The direction an entering nonbasic variable moves in (+1 up, -1 down) for reduced cost dj.
int direction(const Basis& b, int q, double dj) {
    size_t s = static_cast<size_t>(q);
    bool at_lower = std::fabs(b.value[s] - b.lower[s]) <= std::fabs(b.value[s] - b.upper[s]);
    if (is_inf(b.lower[s]) && is_inf(b.upper[s])) return dj <= 0 ? 1 : -1;
    return at_lower && !is_inf(b.lower[s]) ? 1 : -1;
}

// Factor 2^e of a scaling exponent list (1 when there is none).
double factor(const std::vector<int>& e, int k) {
    return e.empty() ? 1.0 : std::ldexp(1.0, e[static_cast<size_t>(k)]);
}

}  // namespace

bool scale_model(TRVOprob p, HighsModel& m) {
    Views* v = views_if(p);
    if (!v || (v->row_scale.empty() && v->col_scale.empty())) return false;
    m.own_matrix();  // the scaled values cannot be the store's own
    // Rows and columns added since the factors were given are unscaled (exponent 0); deletions
    // keep the factors on the rows and columns left (views_rows_deleted / views_cols_deleted).
    if (!v->row_scale.empty()) v->row_scale.resize(static_cast<size_t>(p->nrows()), 0);
    if (!v->col_scale.empty()) v->col_scale.resize(static_cast<size_t>(p->ncols()), 0);
    const int n = p->ncols(), mm = p->nrows();
    auto cf = [&](HighsInt j) { return j < n ? factor(v->col_scale, static_cast<int>(j)) : 1.0; };
    for (HighsInt j = 0; j < m.ncol; ++j) {
        double c = cf(j);
        size_t s = static_cast<size_t>(j);
        m.cost[s] *= c;
        if (!is_inf(m.col_lower[s])) m.col_lower[s] /= c;
        if (!is_inf(m.col_upper[s])) m.col_upper[s] /= c;
    }
    for (HighsInt i = 0; i < m.nrow; ++i) {
        double r = i < mm ? factor(v->row_scale, static_cast<int>(i)) : 1.0;
        size_t s = static_cast<size_t>(i);
        if (!is_inf(m.row_lower[s])) m.row_lower[s] *= r;
        if (!is_inf(m.row_upper[s])) m.row_upper[s] *= r;
        for (HighsInt k = m.a_start[s]; k < row_end(m, s); ++k)
            m.a_value[static_cast<size_t>(k)] *= r * cf(m.a_index[static_cast<size_t>(k)]);
    }
    for (HighsInt j = 0; j < static_cast<HighsInt>(m.q_start.size()); ++j)
        for (HighsInt k = m.q_start[static_cast<size_t>(j)]; k < hessian_end(m, static_cast<size_t>(j)); ++k)
            m.q_value[static_cast<size_t>(k)] *= cf(j) * cf(m.q_index[static_cast<size_t>(k)]);
    return true;
}

void unscale_solution(TRVOprob p, const HighsModel& m, double* cv, double* cd, double* rv, double* rd) {
    Views* v = views_if(p);
    if (!v || (v->row_scale.empty() && v->col_scale.empty())) return;
    const int n = p->ncols(), mm = p->nrows();
    for (HighsInt j = 0; j < m.ncol && j < n; ++j) {
        double c = factor(v->col_scale, static_cast<int>(j));
        if (cv) cv[j] *= c;
        if (cd) cd[j] /= c;
    }
    for (HighsInt i = 0; i < m.nrow && i < mm; ++i) {
        double r = factor(v->row_scale, static_cast<int>(i));
        if (rv) rv[i] /= r;
        if (rd) rd[i] *= r;
    }
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOgetpivotorder(TRVOprob prob, int mpiv[]) {
    return guard(prob, [&] {
        Basis b(prob);
        if (mpiv)
            for (size_t k = 0; k < static_cast<size_t>(b.m); ++k) mpiv[k] = b.at(k);
    });
}

int TRVOgetpivots(TRVOprob prob, int in, int outlist[], double x[], double* dobj, int* npiv, int maxpiv) {
    return guard(prob, [&] {
        check_lp(prob);
        Basis b(prob);
        const int m = b.m, total = b.m + b.n;
        if (in < 0 || in >= total) fail("Invalid entering variable %d", in);
        if (b.is_basic(in)) fail("The entering variable %d is basic already", in);
        if (maxpiv < 0) fail("Invalid maximum number of pivots %d", maxpiv);
        std::vector<double> pi = b.prices();
        double dj = b.reduced_cost(prob, in, pi);
        int dir = direction(b, in, dj);
        std::vector<double> d = b.column(prob, in);
        // x_B(t) = x_B - dir * t * d: each basic variable that moves blocks where it meets a bound.
        const double ztol = 1e-9;
        std::vector<std::pair<double, int>> blocking;  // (step, combined index)
        for (size_t k = 0; k < static_cast<size_t>(m); ++k) {
            double rate = -dir * d[k];
            if (std::fabs(rate) <= ztol) continue;
            int v = b.at(k);
            size_t s = static_cast<size_t>(v);
            double bound = rate > 0 ? b.upper[s] : b.lower[s];
            if (is_inf(bound)) continue;
            blocking.emplace_back(std::max(0.0, (bound - b.value[s]) / rate), v);
        }
        // The entering variable's own range blocks too (a bound flip).
        size_t sq = static_cast<size_t>(in);
        double own = dir > 0 ? b.upper[sq] - b.value[sq] : b.value[sq] - b.lower[sq];
        if (!is_inf(dir > 0 ? b.upper[sq] : b.lower[sq])) blocking.emplace_back(std::max(0.0, own), in);
        std::stable_sort(blocking.begin(), blocking.end(),
                         [](const std::pair<double, int>& a, const std::pair<double, int>& c) { return a.first < c.first; });
        double obj = 0;
        Highs_getDoubleInfoValue(b.h, "objective_function_value", &obj);
        double step = blocking.empty() ? std::numeric_limits<double>::infinity() : blocking.front().first;
        // The objective in the user's sense after the step (infinite: the direction is unbounded).
        double after = std::isinf(step) ? (dj * dir < 0 ? -kInf : kInf) : obj + dj * dir * step;
        if (dobj) *dobj = b.sign * after;
        if (npiv) *npiv = static_cast<int>(blocking.size());
        if (outlist)
            for (int k = 0; k < maxpiv && k < static_cast<int>(blocking.size()); ++k) outlist[k] = blocking[static_cast<size_t>(k)].second;
        if (x) {
            std::vector<double> val = b.value;
            if (!std::isinf(step)) {
                val[sq] += dir * step;
                for (size_t k = 0; k < static_cast<size_t>(m); ++k) val[static_cast<size_t>(b.at(k))] -= dir * step * d[k];
            }
            for (int i = 0; i < m; ++i) x[i] = -val[static_cast<size_t>(i)];  // activities
            for (int j = 0; j < b.n; ++j) x[m + j] = val[static_cast<size_t>(m + j)];
        }
    });
}

int TRVOgetunbvec(TRVOprob prob, int* seq) {
    return guard(prob, [&] {
        if (!seq) fail("No output argument");
        *seq = -1;
        if (prob->results.lpstatus != TRVO_LP_UNBOUNDED) return;
        if (!prob->highs || !prob->highs_has_lp) return;
        HighsInt valid = 0;
        Highs_getIntInfoValue(prob->highs, "basis_validity", &valid);
        if (valid != kHighsBasisValidityValid || !prob->qobj.empty() || !prob->qrows.empty()) return;
        Basis b(prob);
        std::vector<double> pi = b.prices();
        const double otol = ctl_dbl(prob, TRVO_OPTIMALITYTOL), ztol = 1e-9;
        double best = 0;
        for (int q = 0; q < b.m + b.n; ++q) {
            if (b.is_basic(q)) continue;
            double dj = b.reduced_cost(prob, q, pi);
            int dir = direction(b, q, dj);
            size_t sq = static_cast<size_t>(q);
            if (dj * dir >= -otol || !is_inf(dir > 0 ? b.upper[sq] : b.lower[sq])) continue;
            std::vector<double> d = b.column(prob, q);
            bool unbounded = true;
            for (size_t k = 0; k < static_cast<size_t>(b.m) && unbounded; ++k) {
                double rate = -dir * d[k];
                if (std::fabs(rate) <= ztol) continue;
                size_t s = static_cast<size_t>(b.at(k));
                if (!is_inf(rate > 0 ? b.upper[s] : b.lower[s])) unbounded = false;
            }
            if (unbounded && dj * dir < best) {
                best = dj * dir;
                *seq = q;
            }
        }
    });
}

int TRVObasisstability(TRVOprob prob, int type, int norm, int ifscaled, double* value) {
    return guard(prob, [&] {
        if (type < 0 || type > 2) fail("Invalid basis stability type %d (0 condition number, 1 norm of the inverse, 2 norm of the basis)", type);
        if (norm < 0 || norm > 2) fail("Invalid norm %d (0 infinity norm, 1 one norm, 2 Frobenius norm)", norm);
        if (ifscaled != 0 && ifscaled != 1) fail("Invalid scaling flag %d (0 or 1)", ifscaled);
        if (!value) fail("No output argument");
        Basis b(prob);
        const int m = b.m;
        Views* v = views_if(prob);
        std::vector<int> none;
        const std::vector<int>& rs = ifscaled && v ? v->row_scale : none;
        const std::vector<int>& cs = ifscaled && v ? v->col_scale : none;
        // Scaled basis R B D: row factors r_i, and per basic position the factor of its
        // variable (c_j for a column, 1/r_i for the unit column of row i).
        std::vector<double> dpos(static_cast<size_t>(m));
        for (size_t k = 0; k < dpos.size(); ++k) {
            int q = b.at(k);
            dpos[k] = q < m ? 1.0 / factor(rs, q) : factor(cs, q - m);
        }
        // The basis itself, row by row (dense; m is the basis size).
        std::vector<double> B(static_cast<size_t>(m) * static_cast<size_t>(m), 0.0);
        for (size_t k = 0; k < static_cast<size_t>(m); ++k) {
            int q = b.at(k);
            if (q < m) B[static_cast<size_t>(q) * m + k] = 1.0;
            else
                for (int i = 0; i < m; ++i) B[static_cast<size_t>(i) * m + k] = prob->matrix.row(i).coef(q - m);
        }
        for (int i = 0; i < m; ++i)
            for (size_t k = 0; k < static_cast<size_t>(m); ++k) B[static_cast<size_t>(i) * m + k] *= factor(rs, i) * dpos[k];
        // The inverse, from its rows: (R B D)^-1 = D^-1 B^-1 R^-1.
        std::vector<double> Binv(B.size(), 0.0), row(static_cast<size_t>(m) + 1);
        std::vector<HighsInt> idx(static_cast<size_t>(m) + 1);
        for (int k = 0; k < m; ++k) {
            HighsInt nnz = 0;
            if (Highs_getBasisInverseRow(b.h, k, row.data(), &nnz, idx.data()) == kHighsStatusError)
                fail("No factored basis available");
            for (int i = 0; i < m; ++i)
                Binv[static_cast<size_t>(k) * m + i] = row[static_cast<size_t>(i)] / (dpos[static_cast<size_t>(k)] * factor(rs, i));
        }
        auto matnorm = [&](const std::vector<double>& M) {
            double best = 0;
            if (norm == 2) {
                for (double e : M) best += e * e;
                return std::sqrt(best);
            }
            for (int a = 0; a < m; ++a) {
                double s = 0;
                for (int c = 0; c < m; ++c)
                    s += std::fabs(norm == 0 ? M[static_cast<size_t>(a) * m + c] : M[static_cast<size_t>(c) * m + a]);
                best = std::max(best, s);
            }
            return best;
        };
        double nb = matnorm(B), ni = matnorm(Binv);
        *value = type == 0 ? nb * ni : type == 1 ? ni : nb;
    });
}

int TRVOestimaterowdualranges(TRVOprob prob, int nrows, const int rowindices[], int iterlim, double mindual[],
                              double maxdual[]) {
    return guard(prob, [&] {
        if (nrows < 0 || (nrows > 0 && (!rowindices || !mindual || !maxdual))) fail("Invalid arguments");
        if (iterlim < 0) fail("Invalid iteration limit %d", iterlim);
        for (int k = 0; k < nrows; ++k) check_row(prob, rowindices[k]);
        check_lp(prob);
        if (has_entities(prob)) fail("Dual ranges need a continuous problem");
        Basis b(prob);
        const Results& r = prob->results;
        if (!r.have_duals || r.lpstatus != TRVO_LP_OPTIMAL) fail("Dual ranges need an optimal LP solution");
        // The row's right-hand side is moved a little up and down and the LP re-solved from the
        // optimal basis (at most iterlim simplex iterations): the duals of the bases optimal on
        // either side are the one-sided rates of change of the optimum, i.e. the ends of the
        // range of the row's dual over the optimal dual solutions.
        QuietModel q(prob, false);
        Highs_setStringOptionValue(q.h, "presolve", "off");
        Highs_setStringOptionValue(q.h, "solver", "simplex");
        Highs_setIntOptionValue(q.h, "simplex_iteration_limit", iterlim);
        for (int k = 0; k < nrows; ++k) {
            int i = rowindices[k];
            size_t s = static_cast<size_t>(i);
            double lo = q.m.row_lower[s], up = q.m.row_upper[s], y = r.dual[s];
            mindual[k] = maxdual[k] = y;
            if (is_inf(lo) && is_inf(up)) continue;
            double ref = !is_inf(up) ? up : lo;
            double eps = 1e-6 * std::max(1.0, std::fabs(ref));
            for (int side = -1; side <= 1; side += 2) {
                double sh = side * eps;
                Highs_changeRowBounds(q.h, i, is_inf(lo) ? lo : lo + sh, is_inf(up) ? up : up + sh);
                Highs_setBasis(q.h, b.cstat.data(), b.rstat.data());
                HighsInt ms = q.run();
                if (ms == kHighsModelStatusOptimal) {
                    std::vector<double> cv(static_cast<size_t>(q.m.ncol) + 1), cd(cv.size()), rv(static_cast<size_t>(q.m.nrow) + 1), rd(rv.size());
                    Highs_getSolution(q.h, cv.data(), cd.data(), rv.data(), rd.data());
                    double yy = q.m.sign * rd[s];
                    mindual[k] = std::min(mindual[k], yy);
                    maxdual[k] = std::max(maxdual[k], yy);
                }
            }
            Highs_changeRowBounds(q.h, i, lo, up);
        }
    });
}

int TRVOscale(TRVOprob prob, const int mrscal[], const int mcscal[]) {
    return guard(prob, [&] {
        const int n = prob->ncols(), m = prob->nrows();
        for (int i = 0; mrscal && i < m; ++i)
            if (mrscal[i] < -64 || mrscal[i] > 64) fail("Scaling exponent %d of row %d is out of range (-64 to 64)", mrscal[i], i);
        for (int j = 0; mcscal && j < n; ++j) {
            if (mcscal[j] < -64 || mcscal[j] > 64) fail("Scaling exponent %d of column %d is out of range (-64 to 64)", mcscal[j], j);
            if (mcscal[j] != 0 && prob->coltype[static_cast<size_t>(j)] != 'C')
                fail("Column %d is not continuous: its scaling exponent must be 0", j);
        }
        Views& v = views(prob);
        v.row_scale.assign(mrscal ? mrscal : nullptr, mrscal ? mrscal + m : nullptr);
        v.col_scale.assign(mcscal ? mcscal : nullptr, mcscal ? mcscal + n : nullptr);
    });
}

}  // extern "C"
