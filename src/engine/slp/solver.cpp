// The SLP iteration. At x_k every nonlinear row and the objective are linearised; the step
// problem keeps the linear rows, replaces each nonlinear row by its linearisation, relaxes
// every row with penalised error columns (so it is always feasible) and bounds the columns
// that appear nonlinearly by their step bounds. One HiGHS instance serves the whole run: only
// coefficients, bounds, row bounds and costs change between iterations, so each LP starts
// from the previous basis. Steps are accepted on the merit function
// phi(x) = s f(x) + mu sum_i w_i viol_i(x); step bounds grow and shrink with the ratio of the
// actual to the predicted reduction of phi. With integer columns the step problems are MIPs
// until the integer part settles; the run then finishes with the integers fixed.
#include "engine/slp/solver.h"

#include "engine/optimizer/highs_instances.h"
#include "engine/slp/kkt.h"
#include "engine/slp/start.h"
#include "interfaces/highs_c_api.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <map>

namespace slp {

void row_bounds(const Model& m, int r, double* lo, double* up) {
    double rhs = m.rhs[r];
    const double inf = INFINITY;
    switch (m.rowtype[r]) {
    case 'L': *lo = -inf; *up = rhs; break;
    case 'G': *lo = rhs; *up = inf; break;
    case 'E': *lo = rhs; *up = rhs; break;
    case 'R': *lo = rhs - m.range[r]; *up = rhs; break;
    default: *lo = -inf; *up = inf; break;
    }
    if (*lo <= -TRVO_INFINITY) *lo = -inf;
    if (*up >= TRVO_INFINITY) *up = inf;
}

namespace {

double viol_of(double v, double lo, double up) {
    if (v < lo) return lo - v;
    if (v > up) return v - up;
    return 0.0;
}

double bound_inf(double v) {
    if (v <= -TRVO_INFINITY) return -INFINITY;
    if (v >= TRVO_INFINITY) return INFINITY;
    return v;
}

struct HighsLog {
    TSLPprob prob;
};

void highs_callback(int type, const char* msg, const HighsCallbackDataOut*, HighsCallbackDataIn* in,
                    void* user) {
    TSLPprob prob = static_cast<TSLPprob>(user);
    if (type == kHighsCallbackLogging) {
        if (msg && int_control(prob, TSLP_LOG) >= 3) {
            std::string s(msg);
            while (!s.empty() && s.back() == '\n') s.pop_back();
            message(prob, 1, s);
        }
        return;
    }
    if (in && prob->interrupt.load() != 0) in->user_interrupt = 1;
}


// Replaces the symmetric p x p matrix A (row-major) by its positive semidefinite part: the
// cyclic Jacobi method diagonalises it and the negative eigenvalues are dropped.
void psd_part(std::vector<double>& A, int p) {
    if (p == 1) {
        A[0] = std::max(A[0], 0.0);
        return;
    }
    std::vector<double> V(p * p, 0.0);
    for (int i = 0; i < p; ++i) V[i * p + i] = 1.0;
    for (int sweep = 0; sweep < 50; ++sweep) {
        double off = 0.0, diag = 0.0;
        for (int i = 0; i < p; ++i) {
            diag += A[i * p + i] * A[i * p + i];
            for (int j = i + 1; j < p; ++j) off += A[i * p + j] * A[i * p + j];
        }
        if (off <= 1e-30 * (diag + 1e-300)) break;
        for (int i = 0; i < p; ++i)
            for (int j = i + 1; j < p; ++j) {
                double aij = A[i * p + j];
                if (std::fabs(aij) < 1e-300) continue;
                double theta = (A[j * p + j] - A[i * p + i]) / (2.0 * aij);
                double t = (theta >= 0 ? 1.0 : -1.0) / (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
                double c = 1.0 / std::sqrt(t * t + 1.0), sn = t * c;
                for (int k = 0; k < p; ++k) {   // A <- A J on columns i, j
                    double aki = A[k * p + i], akj = A[k * p + j];
                    A[k * p + i] = c * aki - sn * akj;
                    A[k * p + j] = sn * aki + c * akj;
                }
                for (int k = 0; k < p; ++k) {   // A <- J' A on rows i, j
                    double aik = A[i * p + k], ajk = A[j * p + k];
                    A[i * p + k] = c * aik - sn * ajk;
                    A[j * p + k] = sn * aik + c * ajk;
                }
                for (int k = 0; k < p; ++k) {
                    double vki = V[k * p + i], vkj = V[k * p + j];
                    V[k * p + i] = c * vki - sn * vkj;
                    V[k * p + j] = sn * vki + c * vkj;
                }
            }
    }
    std::vector<double> e(p);
    for (int i = 0; i < p; ++i) e[i] = std::max(A[i * p + i], 0.0);
    for (int a = 0; a < p; ++a)
        for (int b = 0; b < p; ++b) {
            double v = 0.0;
            for (int k = 0; k < p; ++k) v += V[a * p + k] * e[k] * V[b * p + k];
            A[a * p + b] = v;
        }
}

// Largest block that psd_part works on; bigger blocks are made diagonally dominant instead
// (every diagonal entry raised to the sum of the magnitudes off the diagonal in its row),
// which needs no dense matrix.
constexpr int kDenseBlock = 40;
// Rows curved in more columns than this add no curvature: differencing their gradients
// costs a gradient per column.
constexpr int kMaxCurvedRow = 2000;


}  // namespace

double max_violation(Evaluator& E, const Model& m, const double* x, double* sum, double* scaled_sum) {
    double worst = 0.0, s = 0.0, ss = 0.0;
    for (int r = 0; r < m.nrows; ++r) {
        double lo, up, v;
        row_bounds(m, r, &lo, &up);
        if (lo == -INFINITY && up == INFINITY) continue;
        if (!E.row_value(r, x, &v)) return INFINITY;
        double vi = viol_of(v, lo, up);
        worst = std::max(worst, vi);
        s += vi;
        ss += vi / (1.0 + std::fabs(std::isfinite(up) ? up : lo));
    }
    for (int j = 0; j < m.ncols; ++j) {
        double vi = viol_of(x[j], bound_inf(m.lb[j]), bound_inf(m.ub[j]));
        worst = std::max(worst, vi);
        s += vi;
        ss += vi / (1.0 + std::fabs(x[j]));
    }
    if (sum) *sum = s;
    if (scaled_sum) *scaled_sum = ss;
    return worst;
}

int cascade(TSLPprob prob, Evaluator& E, const Model& m, std::vector<double>& x) {
    std::vector<std::pair<std::pair<int, int>, int>> order;   // (seqnum, col), detrow
    for (auto& kv : prob->vars)
        if (kv.second.detrow >= 0 && kv.second.detrow < m.nrows && kv.first < m.ncols)
            order.push_back({{kv.second.seqnum, kv.first}, kv.second.detrow});
    if (order.empty()) return 0;
    std::sort(order.begin(), order.end());
    if (prob->cb.cascadestart.f) prob->cb.cascadestart.f(prob, prob->cb.cascadestart.context);
    int failures = 0;
    double feastol = dbl_control(prob, TSLP_FEASTOL);
    std::vector<double> g(m.ncols, 0.0);
    for (auto& o : order) {
        int j = o.first.second, r = o.second;
        if (m.rowtype[r] != 'E') continue;
        const SlpVar& var = prob->vars[j];
        int limit = var.cascadenlimit >= 0 ? var.cascadenlimit : int_control(prob, TSLP_CASCADENLIMIT);
        if (limit < 1) limit = 1;
        double target = m.rhs[r];
        bool ok = false;
        double saved = x[j];
        for (int it = 0; it < limit; ++it) {
            double v, d = 0.0;
            int k = E.nlpos[r];
            if (k >= 0) {
                if (!E.nlrow_grad(k, x.data(), &v, g.data())) break;
                d = g[j];
            } else {
                if (!E.row_value(r, x.data(), &v)) break;
                for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e)
                    if (m.rcol[e] == j) d += m.rval[e];
            }
            if (std::fabs(v - target) <= 1e-14 * (1.0 + std::fabs(target))) {
                ok = true;
                break;
            }
            if (d == 0.0 || !std::isfinite(d)) break;
            double nx = x[j] - (v - target) / d;
            nx = std::min(std::max(nx, m.lb[j]), m.ub[j]);
            x[j] = nx;
            if (it == limit - 1) {
                double v2;
                ok = E.row_value(r, x.data(), &v2) && std::fabs(v2 - target) <= feastol * (1.0 + std::fabs(target));
            }
        }
        if (prob->cb.drcol.f) {
            double nv = x[j];
            prob->cb.drcol.f(prob, prob->cb.drcol.context, j, x[j], &nv, m.lb[j], m.ub[j]);
            if (std::isfinite(nv)) x[j] = nv;
        }
        if (!ok) {
            ++failures;
            if (!std::isfinite(x[j])) x[j] = saved;
            if (prob->cb.cascadevarfail.f) prob->cb.cascadevarfail.f(prob, prob->cb.cascadevarfail.context, j);
        } else if (prob->cb.cascadevar.f) {
            prob->cb.cascadevar.f(prob, prob->cb.cascadevar.context, j);
        }
    }
    if (prob->cb.cascadeend.f) prob->cb.cascadeend.f(prob, prob->cb.cascadeend.context);
    return failures;
}

namespace {

class Run {
public:
    Run(TSLPprob p, const Model& model) : prob(p), m(model), E(p, model) {}
    ~Run() {
        if (h) {
            trvo::highs_release(h);   // deferred while this solve counts as running
            trvo::highs_solve_end(&prob->interrupt);
        }
    }
    RunResult solve(const std::vector<double>& x0);

private:
    TSLPprob prob;
    const Model& m;
    Evaluator E;
    void* h = nullptr;
    int n = 0, ncolLP = 0;
    double sense = 1.0, mu = 1.0;
    std::vector<char> isint, nonlin, fixed_int;
    std::vector<double> delta, w;
    std::vector<int> errcol;         // row -> first error column (e+), -1 without
    std::vector<double> x, gf, gscratch;
    std::vector<double> nlval;       // values of the nonlinear rows at x
    std::vector<std::vector<double>> nlgrad;   // gradients on their patterns
    std::vector<double> rowlo, rowup;
    bool mip_phase = false;
    std::chrono::steady_clock::time_point start;
    long simplex_total = 0;
    // Quasi-Newton curvature on the nonlinear continuous columns.
    std::vector<int> qcols;          // LP columns carrying curvature, ascending
    std::vector<double> B;           // dense |qcols| x |qcols|
    bool use_b = false, have_b = false, hessian_passed = false, skip_b = false;
    // Separable curvature on large problems, where a dense model does not fit. The diagonal of
    // the Lagrangian's Hessian (exact for the quadratic objective, by differences of the rows'
    // exact gradients for the rest, each row's share cut to its positive semidefinite part)
    // enters the step problem as a piecewise-linear cost: the step of a curved column is the
    // sum of nseg segment columns each way, bounded by a linking row, whose costs grow with the
    // curvature. The step problem stays an LP and is exact at the segment breakpoints.
    bool use_h = false, pwl_on = false;
    int nseg = 4, nrowLP = 0, seg0 = 0, nlinked = 0;
    std::vector<int> segcol, linkrow;      // per column: first segment column, linking row; -1 without
    std::vector<double> hd, segw;          // per column: curvature and segment width in the current LP
    std::vector<std::vector<int>> hcols;   // per nonlinear row: the columns it is curved in
    std::vector<double> objdiag;           // diagonal of the objective's convexified Hessian
    std::vector<char> hcurved;             // column is curved in some nonlinear row
    std::vector<double> lam_h;             // multipliers of the last step problem
    void objective_curvature();
    void diag_curvature();
    void reset_segment_basis();
    std::vector<double> gl_old, s_old, lambda;   // pending BFGS update
    bool pending = false;
    std::string last_highs;
    void lagrangian_grad(const std::vector<double>& lam, std::vector<double>& out);
    void bfgs_update(const std::vector<double>& gl_new);
    double quad_model(const std::vector<double>& d) const;
    std::vector<double> errvals;     // error columns of the last LP (e+, e- per bounded row)
    std::vector<double> rowbase;     // row activities at x_k (the step problem's rows are in d = x - x_k)
    std::vector<double> corr;        // per nonlinear row: shift of its linearisation (correction LPs)
    template <class Follow, class Step>
    bool second_order_correction(const std::vector<double>& lintrial, std::vector<double>& xlp,
                                 std::vector<double>& rowdual, std::vector<double>& coldual, double& errsum,
                                 Follow follow_rows, Step step_to, std::vector<double>& trial, double& phi_t,
                                 double& viol_t);

    bool evaluate(const std::vector<double>& at, double* f, std::vector<double>* vals,
                  std::vector<std::vector<double>>* grads);
    double merit(const std::vector<double>& at, bool* ok, double* viol_sum = nullptr);
    void build();
    void update_lp();
    int solve_lp(std::vector<double>& xlp, std::vector<double>& rowdual, std::vector<double>& coldual,
                 double* errsum);
    void tolerances(int j, double* atol_a, double* atol_r) const;
    void set_mip(bool on);
    bool out_of_time() const;
};

void Run::tolerances(int j, double* a, double* r) const {
    *a = dbl_control(prob, TSLP_ATOL_A);
    *r = dbl_control(prob, TSLP_ATOL_R);
    auto it = prob->vars.find(j);
    if (it != prob->vars.end() && it->second.tolset > 0 && it->second.tolset <= (int)prob->tolsets.size()) {
        const TolSet& t = prob->tolsets[it->second.tolset - 1];
        if (t.status & (1 << 1)) *a = t.tol[1];
        if (t.status & (1 << 2)) *r = t.tol[2];
    }
}

bool Run::out_of_time() const {
    double maxtime = dbl_control(prob, TSLP_MAXTIME);
    if (maxtime <= 0) return false;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() > maxtime;
}

bool Run::evaluate(const std::vector<double>& at, double* f, std::vector<double>* vals,
                   std::vector<std::vector<double>>* grads) {
    *f = E.objective(at.data(), nullptr);
    if (!std::isfinite(*f)) return false;
    size_t K = E.nlrows.size();
    if (vals) vals->resize(K);
    for (size_t k = 0; k < K; ++k) {
        double v;
        if (grads) {
            if (!E.nlrow_grad((int)k, at.data(), &v, gscratch.data())) {
                if (prob->cb.coefevalerror.f)
                    prob->cb.coefevalerror.f(prob, prob->cb.coefevalerror.context, E.nlrows[k], -1);
                return false;
            }
            auto& gk = (*grads)[k];
            const auto& pat = E.pattern[k];
            gk.resize(pat.size());
            for (size_t q = 0; q < pat.size(); ++q) gk[q] = gscratch[pat[q]];
        } else if (!E.row_value(E.nlrows[k], at.data(), &v)) {
            return false;
        }
        if (vals) (*vals)[k] = v;
    }
    return true;
}

// phi at a point: s f + mu sum w viol over every row (linear rows read from the matrix).
double Run::merit(const std::vector<double>& at, bool* ok, double* viol_sum) {
    *ok = false;
    double f = E.objective(at.data(), nullptr);
    if (!std::isfinite(f)) return INFINITY;
    double pen = 0.0, vs = 0.0;
    for (int r = 0; r < m.nrows; ++r) {
        if (errcol[r] < 0) continue;
        double v;
        if (!E.row_value(r, at.data(), &v)) return INFINITY;
        double vi = viol_of(v, rowlo[r], rowup[r]);
        pen += w[r] * vi;
        vs += vi;
    }
    *ok = true;
    if (viol_sum) *viol_sum = vs;
    return sense * f + mu * pen;
}

void Run::set_mip(bool on) {
    std::vector<HighsInt> integ(n, kHighsVarTypeContinuous);
    if (on)
        for (int j = 0; j < n; ++j)
            if (isint[j]) integ[j] = kHighsVarTypeInteger;
    Highs_changeColsIntegralityByRange(h, 0, n - 1, integ.data());
    mip_phase = on;
}

void Run::build() {
    h = trvo::highs_new_quiet();
    if (!h) throw Error("Could not create a HiGHS instance");
    int threads = 1;
    TRVOgetintcontrol(prob->trvo, TRVO_THREADS, &threads);
    int th = trvo::highs_solve_begin(threads, &prob->interrupt);
    Highs_setIntOptionValue(h, "threads", th);
    bool log = int_control(prob, TSLP_LOG) >= 3;
    Highs_setBoolOptionValue(h, "output_flag", log);
    Highs_setBoolOptionValue(h, "log_to_console", 0);
    Highs_setCallback(h, highs_callback, prob);
    if (log) Highs_startCallback(h, kHighsCallbackLogging);
    Highs_startCallback(h, kHighsCallbackSimplexInterrupt);
    Highs_startCallback(h, kHighsCallbackIpmInterrupt);
    Highs_startCallback(h, kHighsCallbackMipInterrupt);
    Highs_setStringOptionValue(h, "presolve", "off");
    // The curved step problems of large models take many cheap pivots on bases whose
    // solves are dense (a chain of dynamics rows reaches every later row): plain pricing,
    // without edge weights to update at each pivot, is the fastest there.
    if (use_h) Highs_setIntOptionValue(h, "simplex_dual_edge_weight_strategy", 0);
    Highs_setIntOptionValue(h, "qp_iteration_limit", 200 + 20 * (HighsInt)(m.ncols + m.nrows));
    Highs_setDoubleOptionValue(h, "qp_regularization_value", 0.0);   // the step problem carries its own
    Highs_setDoubleOptionValue(h, "mip_rel_gap", 1e-7);
    Highs_setDoubleOptionValue(h, "mip_feasibility_tolerance", dbl_control(prob, TSLP_MIPTOL));
    Highs_setDoubleOptionValue(h, "primal_feasibility_tolerance",
                               std::min(1e-9, dbl_control(prob, TSLP_FEASTOL) * 0.1));

    // Column layout: the n columns of the problem, then e+ and e- of every bounded row.
    errcol.assign(m.nrows, -1);
    ncolLP = n;
    for (int r = 0; r < m.nrows; ++r) {
        if (rowlo[r] == -INFINITY && rowup[r] == INFINITY) continue;
        errcol[r] = ncolLP;
        ncolLP += 2;
    }
    std::vector<HighsInt> start(m.nrows + 1, 0), index;
    std::vector<double> value, lo(m.nrows), up(m.nrows);
    for (int r = 0; r < m.nrows; ++r) {
        int k = E.nlpos[r];
        if (k >= 0) {
            const auto& pat = E.pattern[k];
            for (size_t q = 0; q < pat.size(); ++q) {
                index.push_back(pat[q]);
                value.push_back(nlgrad[k][q] != 0.0 ? nlgrad[k][q] : 1.0);   // refreshed below
            }
        } else {
            for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e) {
                index.push_back(m.rcol[e]);
                value.push_back(m.rval[e]);
            }
        }
        if (errcol[r] >= 0) {
            index.push_back(errcol[r]);
            value.push_back(1.0);
            index.push_back(errcol[r] + 1);
            value.push_back(-1.0);
        }
        start[r + 1] = (HighsInt)index.size();
        lo[r] = rowlo[r];
        up[r] = rowup[r];
    }
    // Segment columns (all fixed at zero until a step problem uses them) and linking rows
    // d_j - sum s+ + sum s- = 0.
    seg0 = ncolLP;
    nrowLP = m.nrows;
    segcol.assign(n, -1);
    linkrow.assign(n, -1);
    if (use_h)
        for (int j = 0; j < n; ++j) {
            if (!(objdiag[j] > 0.0) && !hcurved[j]) continue;
            segcol[j] = ncolLP;
            linkrow[j] = nrowLP++;
            ncolLP += 2 * nseg;
            index.push_back(j);
            value.push_back(1.0);
            for (int t = 0; t < nseg; ++t) {
                index.push_back(segcol[j] + t);
                value.push_back(-1.0);
                index.push_back(segcol[j] + nseg + t);
                value.push_back(1.0);
            }
            start.push_back((HighsInt)index.size());
            lo.push_back(-INFINITY);
            up.push_back(INFINITY);
        }
    nlinked = nrowLP - m.nrows;
    std::vector<double> cost(ncolLP, 0.0), cl(ncolLP, 0.0), cu(ncolLP, INFINITY);
    for (int j = 0; j < n; ++j) {
        cl[j] = bound_inf(m.lb[j]);
        cu[j] = bound_inf(m.ub[j]);
    }
    for (int c = seg0; c < ncolLP; ++c) cu[c] = 0.0;
    bool anyint = false;
    for (int j = 0; j < n; ++j) anyint = anyint || isint[j];
    std::vector<HighsInt> integ(ncolLP, kHighsVarTypeContinuous);
    HighsInt rc = Highs_passModel(h, ncolLP, nrowLP, (HighsInt)index.size(), 0, kHighsMatrixFormatRowwise, 0,
                                  1, 0.0, cost.data(), cl.data(), cu.data(), lo.data(), up.data(),
                                  start.data(), index.empty() ? nullptr : index.data(),
                                  value.empty() ? nullptr : value.data(), nullptr, nullptr, nullptr,
                                  anyint ? integ.data() : nullptr);
    if (rc == kHighsStatusError) throw Error("HiGHS rejected the step problem");
    if (anyint) set_mip(true);
}

// The segments have been re-cut around the new point, where steps are expected to be shorter
// than the last: the previous basis is moved to that guess before the step problem is solved.
// Segments of one direction are identical columns (and the other direction's their
// negatives), so exchanging the basic segment of a column for its first one in the same
// direction keeps the basis matrix; every other segment starts empty.
void Run::reset_segment_basis() {
    std::vector<HighsInt> cs(ncolLP), rs(nrowLP);
    if (Highs_getBasis(h, cs.data(), rs.data()) != kHighsStatusOk) return;
    bool valid = false;
    for (int c = 0; c < ncolLP && !valid; ++c) valid = cs[c] == kHighsBasisStatusBasic;
    if (!valid) return;
    for (int j = 0; j < n; ++j) {
        if (segcol[j] < 0) continue;
        int c = segcol[j], basic = -1, nbasic = 0;
        for (int t = 0; t < 2 * nseg; ++t)
            if (cs[c + t] == kHighsBasisStatusBasic) {
                basic = t;
                ++nbasic;
            }
        if (nbasic > 1) continue;
        for (int t = 0; t < 2 * nseg; ++t) cs[c + t] = kHighsBasisStatusLower;
        if (nbasic == 1) cs[c + (basic < nseg ? 0 : nseg)] = kHighsBasisStatusBasic;
    }
    Highs_setBasis(h, cs.data(), rs.data());
}

// Writes the linearisation at x into the step problem.
void Run::update_lp() {
    std::vector<double> cost(ncolLP, 0.0);
    for (int j = 0; j < n; ++j) cost[j] = sense * gf[j];
    for (int r = 0; r < m.nrows; ++r)
        if (errcol[r] >= 0) cost[errcol[r]] = cost[errcol[r] + 1] = mu * w[r];
    pwl_on = use_h && !mip_phase && !skip_b;
    if (use_h) {
        // Piecewise-linear curvature: segment t of width w each way costs s g_j + h_j (t + 1/2) w,
        // so that the cost of a step of k whole segments is s g_j d + h_j d^2 / 2.
        if (pwl_on) diag_curvature();
        std::vector<double> slo(ncolLP - seg0, 0.0), sup(ncolLP - seg0, 0.0), llo(nlinked), lup(nlinked);
        for (int j = 0; j < n; ++j) {
            if (segcol[j] < 0) continue;
            int l = linkrow[j] - m.nrows, c0 = segcol[j] - seg0;
            double hj = pwl_on ? hd[j] : 0.0;
            segw[j] = 0.0;
            double wj = delta[j] / nseg;
            // Segments narrower than the LP's tolerances would only make it degenerate: such a
            // column steps linearly within its (tiny) step bound.
            if (!(hj > 0.0) || !(wj > 1e-9 * (1.0 + std::fabs(x[j]))) || !std::isfinite(wj)) {
                llo[l] = -INFINITY;   // the column steps linearly, its segments stay at zero
                lup[l] = INFINITY;
                continue;
            }
            segw[j] = wj;
            llo[l] = lup[l] = 0.0;
            for (int t = 0; t < nseg; ++t) {
                double curv = hj * (t + 0.5) * wj;
                cost[segcol[j] + t] = cost[j] + curv;
                cost[segcol[j] + nseg + t] = -cost[j] + curv;
                sup[c0 + t] = sup[c0 + nseg + t] = wj;
            }
            cost[j] = 0.0;
        }
        if (ncolLP > seg0) Highs_changeColsBoundsByRange(h, seg0, ncolLP - 1, slo.data(), sup.data());
        if (pwl_on) reset_segment_basis();
        if (nlinked > 0) Highs_changeRowsBoundsByRange(h, m.nrows, nrowLP - 1, llo.data(), lup.data());
    }
    bool curvature = use_b && have_b && !mip_phase && !skip_b;
    if (curvature) {
        // 1/2 d' B d on the curvature columns. Every column gets a diagonal entry, at least a
        // tiny positive one: HiGHS's QP path expects a diagonal entry first in each column
        // (columns without one have made it read and write out of bounds), and a strictly
        // convex step problem has a unique solution.
        const double reg = 1e-8;
        size_t K = qcols.size();
        std::vector<HighsInt> start(ncolLP + 1, 0), index;
        std::vector<double> value;
        size_t c = 0;
        for (int j = 0; j < ncolLP; ++j) {
            if (c < K && qcols[c] == j) {
                for (size_t c2 = c; c2 < K; ++c2) {
                    double v = B[c2 * K + c];
                    if (c2 == c) v = std::max(v, reg);
                    if (v != 0.0 || c2 == c) {
                        index.push_back(qcols[c2]);
                        value.push_back(v);
                    }
                }
                ++c;
            } else {
                index.push_back(j);
                value.push_back(reg);
            }
            start[j + 1] = (HighsInt)index.size();
        }
        Highs_passHessian(h, ncolLP, (HighsInt)index.size(), kHighsHessianFormatTriangular, start.data(),
                          index.data(), value.data());
        hessian_passed = true;
    } else if (hessian_passed) {
        std::vector<HighsInt> start(ncolLP + 1, 0), index(1, 0);
        std::vector<double> value(1, 0.0);
        Highs_passHessian(h, ncolLP, 0, kHighsHessianFormatTriangular, start.data(), index.data(), value.data());
        hessian_passed = false;
    }
    Highs_changeColsCostByRange(h, 0, ncolLP - 1, cost.data());
    // Rows in the step: a linear row a'x becomes a'd within its bounds less a'x_k; a
    // nonlinear row its linearisation g(x_k) + grad g(x_k)'d.
    std::vector<double> rlo(m.nrows), rup(m.nrows);
    for (int r = 0; r < m.nrows; ++r) {
        double v = 0.0;
        int k = E.nlpos[r];
        if (k >= 0) {
            v = nlval[k];
            const auto& pat = E.pattern[k];
            for (size_t q = 0; q < pat.size(); ++q) Highs_changeCoeff(h, r, pat[q], nlgrad[k][q]);
        } else {
            for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e) v += m.rval[e] * x[m.rcol[e]];
        }
        rowbase[r] = v;
        rlo[r] = rowlo[r] - v;
        rup[r] = rowup[r] - v;
    }
    if (m.nrows > 0) Highs_changeRowsBoundsByRange(h, 0, m.nrows - 1, rlo.data(), rup.data());
    std::vector<double> lo(n), up(n);
    for (int j = 0; j < n; ++j) {
        double l = bound_inf(m.lb[j]), u = bound_inf(m.ub[j]);
        if (fixed_int[j]) {
            l = u = x[j];
        } else if (nonlin[j]) {
            l = std::max(l, x[j] - delta[j]);
            u = std::min(u, x[j] + delta[j]);
            if (isint[j]) {
                l = std::ceil(l - 1e-9);
                u = std::floor(u + 1e-9);
                if (l > u) l = u = std::round(x[j]);
            }
        }
        lo[j] = l - x[j];
        up[j] = u - x[j];
    }
    if (n > 0) Highs_changeColsBoundsByRange(h, 0, n - 1, lo.data(), up.data());
}

// 0 solved, 1 infeasible, 2 unbounded, 3 stopped, 4 failed.
int Run::solve_lp(std::vector<double>& xlp, std::vector<double>& rowdual, std::vector<double>& coldual,
                  double* errsum) {
    Highs_zeroAllClocks(h);
    double maxtime = dbl_control(prob, TSLP_MAXTIME);
    if (maxtime > 0) {
        double left = maxtime - std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        Highs_setDoubleOptionValue(h, "time_limit", std::max(left, 1e-3));
    }
    HighsInt rc = Highs_run(h);
    HighsInt ms = Highs_getModelStatus(h);
    HighsInt it = 0;
    Highs_getIntInfoValue(h, "simplex_iteration_count", &it);
    simplex_total += it;
    if (ms == kHighsModelStatusIterationLimit && hessian_passed && !prob->interrupt.load() && !out_of_time()) {
        // The active-set QP solver can cycle: its iteration limit sends us back to a linear step.
        last_highs = "QP iteration limit";
        return 4;
    }
    if (ms == kHighsModelStatusInterrupt || ms == kHighsModelStatusTimeLimit ||
        ms == kHighsModelStatusIterationLimit)
        return 3;
    if (ms == kHighsModelStatusInfeasible) return 1;
    if (ms == kHighsModelStatusUnbounded || ms == kHighsModelStatusUnboundedOrInfeasible) return 2;
    if (rc == kHighsStatusError || (ms != kHighsModelStatusOptimal && ms != kHighsModelStatusSolutionLimit)) {
        last_highs = "run status " + std::to_string((int)rc) + ", model status " + std::to_string((int)ms);
        return 4;
    }
    std::vector<double> cv(ncolLP), cd(ncolLP), rv(nrowLP), rd(nrowLP);
    Highs_getSolution(h, cv.data(), cd.data(), rv.data(), rd.data());
    xlp.resize(n);
    for (int j = 0; j < n; ++j) xlp[j] = x[j] + cv[j];
    rowdual = rd;
    coldual.assign(cd.begin(), cd.end());
    if (pwl_on)
        for (int j = 0; j < n; ++j)
            if (segw[j] > 0.0)   // as the curved step problem sees the column: s g + h d - a'y
                coldual[j] = cd[j] + rd[linkrow[j]] + sense * gf[j] + hd[j] * (xlp[j] - x[j]);
    double es = 0.0;
    for (int r = 0; r < m.nrows; ++r)
        if (errcol[r] >= 0) es += w[r] * (cv[errcol[r]] + cv[errcol[r] + 1]);
    *errsum = es;
    errvals.assign(cv.begin() + n, cv.end());
    return 0;
}

// Gradient of the Lagrangian s f - sum lambda_r g_r on the curvature columns, at the current
// linearisation (gf, nlgrad).
void Run::lagrangian_grad(const std::vector<double>& lam, std::vector<double>& out) {
    std::vector<double> g(n, 0.0);
    for (int j : qcols) g[j] = sense * gf[j];
    for (size_t k = 0; k < E.nlrows.size(); ++k) {
        double l = lam[E.nlrows[k]];
        if (l == 0.0) continue;
        const auto& pat = E.pattern[k];
        for (size_t q = 0; q < pat.size(); ++q) g[pat[q]] -= l * nlgrad[k][q];
    }
    out.resize(qcols.size());
    for (size_t c = 0; c < qcols.size(); ++c) out[c] = g[qcols[c]];
}

// Damped BFGS update (Powell) of B with the last step and the change of the Lagrangian's
// gradient; the first update scales the identity.
void Run::bfgs_update(const std::vector<double>& gl_new) {
    size_t K = qcols.size();
    std::vector<double> y(K), Bs(K, 0.0);
    double sy = 0.0, ss = 0.0, yy = 0.0;
    for (size_t c = 0; c < K; ++c) {
        y[c] = gl_new[c] - gl_old[c];
        sy += s_old[c] * y[c];
        ss += s_old[c] * s_old[c];
        yy += y[c] * y[c];
    }
    if (ss <= 1e-300) return;
    if (!have_b) {
        // No curvature seen along the step yet: stay with linear steps, whose step bounds
        // grow freely (a tiny model curvature would fix the step length instead).
        if (!(sy > 0)) return;
        double g = yy / sy;
        if (!std::isfinite(g) || g <= 1e-8) return;
        B.assign(K * K, 0.0);
        for (size_t c = 0; c < K; ++c) B[c * K + c] = g;
        have_b = true;
    }
    double sBs = 0.0;
    for (size_t a = 0; a < K; ++a) {
        double v = 0.0;
        for (size_t b = 0; b < K; ++b) v += B[a * K + b] * s_old[b];
        Bs[a] = v;
        sBs += s_old[a] * v;
    }
    if (sBs <= 1e-300) return;
    if (sy < 0.2 * sBs) {
        double theta = 0.8 * sBs / (sBs - sy);
        for (size_t c = 0; c < K; ++c) y[c] = theta * y[c] + (1 - theta) * Bs[c];
        sy = 0.2 * sBs;
    }
    for (size_t a = 0; a < K; ++a)
        for (size_t b = 0; b < K; ++b) B[a * K + b] += y[a] * y[b] / sy - Bs[a] * Bs[b] / sBs;
}


// The objective's Hessian s Q is constant: the diagonal of its positive semidefinite part is
// taken once, per connected block of columns (exactly for small blocks, by diagonal dominance
// for big ones).
void Run::objective_curvature() {
    objdiag.assign(n, 0.0);
    size_t P = E.qobj.v.size();
    std::vector<int> parent(n);
    for (int j = 0; j < n; ++j) parent[j] = j;
    auto find = [&](int j) {
        while (parent[j] != j) j = parent[j] = parent[parent[j]];
        return j;
    };
    auto usable = [&](int j) { return j >= 0 && j < n && nonlin[j] && !isint[j]; };
    for (size_t q = 0; q < P; ++q) {
        int i = E.qobj.i[q], j = E.qobj.j[q];
        if (usable(i) && usable(j)) parent[find(i)] = find(j);
    }
    std::map<int, std::vector<size_t>> blocks;   // root -> entries
    for (size_t q = 0; q < P; ++q) {
        int i = E.qobj.i[q], j = E.qobj.j[q];
        if (usable(i) && usable(j)) blocks[find(i)].push_back(q);
    }
    for (auto& kv : blocks) {
        std::vector<int> cols;
        for (size_t q : kv.second) {
            cols.push_back(E.qobj.i[q]);
            cols.push_back(E.qobj.j[q]);
        }
        std::sort(cols.begin(), cols.end());
        cols.erase(std::unique(cols.begin(), cols.end()), cols.end());
        int p = (int)cols.size();
        auto pos = [&](int j) { return (int)(std::lower_bound(cols.begin(), cols.end(), j) - cols.begin()); };
        if (p <= kDenseBlock) {
            std::vector<double> A(p * p, 0.0);
            for (size_t q : kv.second) {
                int a = pos(E.qobj.i[q]), b = pos(E.qobj.j[q]);
                double v = sense * E.qobj.v[q];
                if (a == b) A[a * p + a] += 2.0 * v;
                else {
                    A[a * p + b] += v;
                    A[b * p + a] += v;
                }
            }
            psd_part(A, p);
            for (int a = 0; a < p; ++a) objdiag[cols[a]] = A[a * p + a];
        } else {
            std::vector<double> diag(p, 0.0), off(p, 0.0);
            for (size_t q : kv.second) {
                int a = pos(E.qobj.i[q]), b = pos(E.qobj.j[q]);
                double v = sense * E.qobj.v[q];
                if (a == b) diag[a] += 2.0 * v;
                else {
                    off[a] += std::fabs(v);
                    off[b] += std::fabs(v);
                }
            }
            for (int a = 0; a < p; ++a) objdiag[cols[a]] = std::max(diag[a], off[a]);
        }
    }
}


// The curvature of every curved column at x: the objective's share and, for every nonlinear
// row with a non-zero multiplier, the diagonal of the positive semidefinite part of
// -lambda_r times the row's Hessian (forward differences of its exact gradient over the
// columns it is curved in).
void Run::diag_curvature() {
    hd = objdiag;
    std::vector<double> xs = x, g0, A, diag, off;
    for (size_t k = 0; k < E.nlrows.size(); ++k) {
        int r = E.nlrows[k];
        double l = lam_h.empty() ? 0.0 : lam_h[r];
        const auto& C = hcols[k];
        int p = (int)C.size();
        if (p == 0 || p > kMaxCurvedRow || !(std::fabs(l) > 1e-14)) continue;
        const auto& pat = E.pattern[k];
        g0.resize(p);
        for (int a = 0; a < p; ++a)
            g0[a] = nlgrad[k][std::lower_bound(pat.begin(), pat.end(), C[a]) - pat.begin()];
        bool dense = p <= kDenseBlock;
        A.assign(dense ? (size_t)p * p : 0, 0.0);
        diag.assign(p, 0.0);
        off.assign(p, 0.0);
        bool ok = true;
        for (int b = 0; b < p && ok; ++b) {
            // Column b of -lambda times the row's Hessian.
            int j = C[b];
            double step = 1e-6 * std::max(1.0, std::fabs(x[j]));
            if (x[j] + step > m.ub[j] && x[j] - step >= m.lb[j]) step = -step;
            xs[j] = x[j] + step;
            step = xs[j] - x[j];
            double v;
            ok = E.nlrow_grad((int)k, xs.data(), &v, gscratch.data());
            xs[j] = x[j];
            if (!ok) break;
            for (int a = 0; a < p; ++a) {
                double hab = -l * (gscratch[C[a]] - g0[a]) / step;
                if (dense) A[(size_t)a * p + b] = hab;
                else if (a == b) diag[b] = hab;
                else off[b] += std::fabs(hab);
            }
        }
        if (!ok) continue;   // a row that cannot be evaluated nearby adds no curvature
        if (dense) {
            for (int a = 0; a < p; ++a)
                for (int b = a; b < p; ++b)
                    A[(size_t)a * p + b] = A[(size_t)b * p + a] = 0.5 * (A[(size_t)a * p + b] + A[(size_t)b * p + a]);
            psd_part(A, p);
            for (int a = 0; a < p; ++a) diag[a] = A[(size_t)a * p + a];
        } else {
            for (int a = 0; a < p; ++a) diag[a] = std::max(diag[a], off[a]);
        }
        for (int a = 0; a < p; ++a)
            if (std::isfinite(diag[a]) && diag[a] > 0.0) hd[C[a]] += diag[a];
    }
}

double Run::quad_model(const std::vector<double>& xt) const {
    if (pwl_on) {
        // The step problem's own piecewise-linear curvature cost of the step.
        double v = 0.0;
        for (int j = 0; j < n; ++j) {
            double wj = segw[j];
            if (!(wj > 0.0)) continue;
            double d = std::fabs(xt[j] - x[j]);
            double t = std::min(std::floor(d / wj), (double)nseg);
            v += hd[j] * (0.5 * wj * wj * t * t + (t + 0.5) * wj * std::max(0.0, d - t * wj));
        }
        return v;
    }
    if (!(use_b && have_b && !mip_phase && hessian_passed)) return 0.0;
    size_t K = qcols.size();
    double v = 0.0;
    for (size_t a = 0; a < K; ++a) {
        double da = xt[qcols[a]] - x[qcols[a]];
        if (da == 0.0) continue;
        for (size_t b = 0; b < K; ++b) v += da * B[a * K + b] * (xt[qcols[b]] - x[qcols[b]]);
    }
    return 0.5 * v;
}

// A step that reaches the boundary of a curved row's linearisation lands outside the row by
// a second-order amount, which the merit function punishes (the step is then rejected or
// the step bounds stop growing). The correction solves the step problem again with each
// nonlinear row shifted by the error of its linearisation at the trial point; its solution
// replaces the trial point when it has the lower merit.
template <class Follow, class Step>
bool Run::second_order_correction(const std::vector<double>& lintrial, std::vector<double>& xlp,
                                  std::vector<double>& rowdual, std::vector<double>& coldual, double& errsum,
                                  Follow follow_rows, Step step_to, std::vector<double>& trial, double& phi_t,
                                  double& viol_t) {
    size_t K = E.nlrows.size();
    std::vector<double> c(K, 0.0);
    bool any = false;
    for (size_t k = 0; k < K; ++k) {
        int r = E.nlrows[k];
        double v;
        if (!E.row_value(r, lintrial.data(), &v)) return false;
        const auto& pat = E.pattern[k];
        double lin = nlval[k];
        for (size_t q = 0; q < pat.size(); ++q) lin += nlgrad[k][q] * (lintrial[pat[q]] - x[pat[q]]);
        c[k] = v - lin;
        if (!std::isfinite(c[k])) return false;
        if (std::fabs(c[k]) > 1e-13 * (1.0 + std::fabs(v))) any = true;
    }
    if (!any) return false;
    for (size_t k = 0; k < K; ++k) {
        int r = E.nlrows[k];
        Highs_changeRowBounds(h, r, rowlo[r] - rowbase[r] - c[k], rowup[r] - rowbase[r] - c[k]);
    }
    std::vector<double> saved_err = errvals, xs, rd, cd;
    double es = 0.0;
    int lps = solve_lp(xs, rd, cd, &es);
    for (size_t k = 0; k < K; ++k) {
        int r = E.nlrows[k];
        Highs_changeRowBounds(h, r, rowlo[r] - rowbase[r], rowup[r] - rowbase[r]);
    }
    if (lps != 0) {
        errvals = saved_err;
        return false;
    }
    corr = c;
    follow_rows(xs);
    std::fill(corr.begin(), corr.end(), 0.0);
    std::vector<double> t2(n);
    step_to(xs, t2);
    if (int_control(prob, TSLP_CASCADE)) cascade(prob, E, m, t2);
    bool ok;
    double vt2 = 0.0;
    double phi2 = merit(t2, &ok, &vt2);
    if (!ok || !(phi2 < phi_t)) {
        errvals = saved_err;
        return false;
    }
    logf(prob, 3, "    second-order correction: merit %.12g -> %.12g", phi_t, phi2);
    xlp = xs;
    rowdual = rd;
    coldual = cd;
    errsum = es;
    trial = t2;
    phi_t = phi2;
    viol_t = vt2;
    return true;
}

RunResult Run::solve(const std::vector<double>& x0) {
    start = std::chrono::steady_clock::now();
    RunResult res;
    n = m.ncols;
    sense = dbl_control(prob, TSLP_OBJSENSE) < 0 ? -1.0 : 1.0;
    x = x0;
    gf.assign(n, 0.0);
    gscratch.assign(n, 0.0);
    isint.assign(n, 0);
    nonlin.assign(n, 0);
    fixed_int.assign(n, 0);
    for (int j = 0; j < n; ++j) {
        char t = m.coltype[j];
        if (t == 'I' || t == 'B') isint[j] = 1;
        else if (t != 'C')
            throw Error("Column " + std::to_string(j) + " is semi-continuous or partial integer, which the nonlinear solver does not handle");
        if (m.lb[j] > m.ub[j]) {
            res.status = TSLP_NLP_INFEASIBLE;
            logf(prob, 1, "Column %d has a lower bound above its upper bound", j);
            return res;
        }
        x[j] = std::min(std::max(x[j], m.lb[j]), m.ub[j]);
        if (isint[j]) x[j] = std::round(x[j]);
    }
    for (size_t k = 0; k < E.nlrows.size(); ++k)
        for (auto& t : E.tapes[k].cols) nonlin[t] = 1;
    for (auto& kv : m.qrows) {
        for (int j : kv.second.i) nonlin[j] = 1;
        for (int j : kv.second.j) nonlin[j] = 1;
    }
    for (int j : E.qobj.i) nonlin[j] = 1;
    for (int j : E.qobj.j) nonlin[j] = 1;

    for (int j = 0; j < n; ++j)
        if (nonlin[j] && !isint[j]) qcols.push_back(j);
    // Small problems learn their curvature by BFGS on a dense matrix; large ones take the
    // separable part of it from the Hessians of their rows and objective.
    bool curved = int_control(prob, TSLP_QUASINEWTON) != 0 && !qcols.empty();
    use_b = curved && qcols.size() <= 100;
    use_h = curved && !use_b;
    hcurved.assign(n, 0);
    segw.assign(n, 0.0);
    if (use_h) {
        hcols.resize(E.nlrows.size());
        for (size_t k = 0; k < E.nlrows.size(); ++k) {
            std::vector<int>& C = hcols[k];
            for (int j : E.tapes[k].cols)
                if (j >= 0 && j < n && !isint[j]) C.push_back(j);
            auto q = m.qrows.find(E.nlrows[k]);
            if (q != m.qrows.end()) {
                for (int j : q->second.i)
                    if (!isint[j]) C.push_back(j);
                for (int j : q->second.j)
                    if (!isint[j]) C.push_back(j);
            }
            std::sort(C.begin(), C.end());
            C.erase(std::unique(C.begin(), C.end()), C.end());
            for (int j : C) hcurved[j] = 1;
        }
        objective_curvature();
    }

    rowlo.resize(m.nrows);
    rowup.resize(m.nrows);
    w.assign(m.nrows, 1.0);
    for (int r = 0; r < m.nrows; ++r) {
        row_bounds(m, r, &rowlo[r], &rowup[r]);
        auto it = prob->rowwt.find(r);
        if (it != prob->rowwt.end()) w[r] = it->second;
    }

    // Step bounds.
    delta.assign(n, 0.0);
    double defsb = dbl_control(prob, TSLP_DEFAULTSTEPBOUND), minsb = dbl_control(prob, TSLP_MINSTEPBOUND);
    for (int j = 0; j < n; ++j) {
        auto it = prob->vars.find(j);
        double d = it != prob->vars.end() && it->second.initstepbound > 0 ? it->second.initstepbound
                 : defsb > 0 ? defsb : std::max(1.0, std::fabs(x[j]));
        if (std::isfinite(bound_inf(m.lb[j])) && std::isfinite(bound_inf(m.ub[j])) && m.ub[j] > m.lb[j])
            d = std::min(d, m.ub[j] - m.lb[j]);
        delta[j] = std::max(d, minsb);
    }

    {
        std::vector<char> cont(n, 0);
        for (int j = 0; j < n; ++j) cont[j] = nonlin[j] && !isint[j];
        interior_start(prob, E, m, cont, x);
    }
    if (int_control(prob, TSLP_CASCADE)) cascade(prob, E, m, x);
    nlgrad.resize(E.nlrows.size());
    corr.assign(E.nlrows.size(), 0.0);
    rowbase.assign(m.nrows, 0.0);
    double f;
    if (!evaluate(x, &f, &nlval, &nlgrad))
        throw Error("The formulas cannot be evaluated at the initial point (give initial values inside the domain)");
    E.objective(x.data(), gf.data());
    double gmax = 0.0;
    for (int j = 0; j < n; ++j) gmax = std::max(gmax, std::fabs(gf[j]));
    mu = dbl_control(prob, TSLP_PENALTY) * std::max(1.0, gmax);
    double maxmu = dbl_control(prob, TSLP_MAXPENALTY);
    mu = std::min(mu, maxmu);
    build();

    int iterlimit = int_control(prob, TSLP_ITERLIMIT);
    double feastol = dbl_control(prob, TSLP_FEASTOL), opttol = dbl_control(prob, TSLP_OPTIMALITYTOL);
    double infinity = dbl_control(prob, TSLP_INFINITY);
    int samecount = std::max(1, int_control(prob, TSLP_SAMECOUNT));
    int penaltycount = std::max(1, int_control(prob, TSLP_PENALTYCOUNT));
    double penaltyinc = std::max(1.5, dbl_control(prob, TSLP_PENALTYINCREASE));
    int same_int = 0, err_iters = 0;
    bool numerical_failure = false;   // ended because a step problem could not be solved
    std::vector<double> xlp, rowdual, coldual, trial(n), lastdelta(n, 0.0);
    std::vector<double> rowerr_count(m.nrows, 0.0);
    std::vector<RowInfo> rinfo(m.nrows);
    double errsum = 0.0, pred = 0.0, last_kkt = INFINITY;
    bool certified = false;
    bool have_lp = false;
    int status = TSLP_NLP_UNFINISHED;
    int stop = 0;
    int iter = 0;
    bool fixed_phase = false;

    // First-order certificate of the current point: feasible within the feasibility tolerance
    // and a KKT point within the optimality tolerance, with the exact gradients and row
    // multipliers only (those of the step problem, or else the best ones for the rows active
    // at x). cert_dual keeps the multipliers (in the user's sense) the residual was measured with.
    const double kkttol = dbl_control(prob, TSLP_KKTTOL);
    std::vector<double> cert_dual;
    int kkt_misses = 0;
    auto certify = [&](const std::vector<double>& lpdual, double* resid) {
        std::vector<double> d(m.nrows, 0.0);
        for (int r = 0; r < m.nrows && r < (int)lpdual.size(); ++r) d[r] = sense * lpdual[r];
        KktCheck c;
        bool ok = kkt_residual(E, m, sense, x.data(), d.data(), feastol, &c, nullptr, isint.data());
        if (ok && c.residual > kkttol) {
            std::vector<double> e;
            KktCheck c2;
            if (estimate_multipliers(prob, E, m, sense, x.data(), feastol, e, isint.data()) &&
                kkt_residual(E, m, sense, x.data(), e.data(), feastol, &c2, nullptr, isint.data()) &&
                c2.residual < c.residual) {
                c = c2;
                d = e;
            }
        }
        cert_dual = d;
        *resid = ok ? c.residual : INFINITY;
        return ok && c.residual <= kkttol && max_violation(E, m, x.data()) <= feastol;
    };
    // After a false alarm of the step tests the curvature model and the stall history start
    // afresh: the model that predicted no more progress was wrong.
    std::vector<double> merit_hist;   // merit at the accepted points
    auto restart_model = [&]() {
        merit_hist.clear();
        if (use_b) have_b = false;
        for (int j = 0; j < n; ++j)
            if (nonlin[j] && !fixed_int[j]) delta[j] = std::max(delta[j], 1e-3 * std::max(1.0, std::fabs(x[j])));
    };

    auto fix_integers = [&]() {
        for (int j = 0; j < n; ++j)
            if (isint[j]) fixed_int[j] = 1;
        set_mip(false);
        fixed_phase = true;
        same_int = 0;
        if (prob->cb.intsol.f) prob->cb.intsol.f(prob, prob->cb.intsol.context);
        logf(prob, 2, "Integer columns fixed; continuing with the continuous part");
    };

    while (true) {
        if (prob->interrupt.load()) {
            stop = prob->interrupt.load();
            break;
        }
        if (iter >= iterlimit) {
            stop = TRVO_STOP_ITERLIMIT;
            break;
        }
        if (out_of_time()) {
            stop = TRVO_STOP_TIMELIMIT;
            break;
        }
        if (prob->cb.iterstart.f && prob->cb.iterstart.f(prob, prob->cb.iterstart.context)) {
            stop = TRVO_STOP_USER;
            break;
        }
        ++iter;
        if (mip_phase) ++res.mipiter;
        // Linearisation at x.
        if (!evaluate(x, &f, &nlval, &nlgrad)) throw Error("The formulas cannot be evaluated at an accepted point");
        E.objective(x.data(), gf.data());
        if (pending && use_b) {
            std::vector<double> gl_new;
            lagrangian_grad(lambda, gl_new);
            bfgs_update(gl_new);
            pending = false;
        }
        bool ok;
        double viol_k = 0.0;
        double phi_k = merit(x, &ok, &viol_k);
        update_lp();
        int lps = solve_lp(xlp, rowdual, coldual, &errsum);
        if (lps == 4 && hessian_passed) {
            // The QP solver gave up (numerical trouble, usually a solution it finds slightly
            // infeasible): try again with a looser feasibility tolerance (the merit function
            // judges the step anyway), then take a linear step this time, keeping the
            // curvature model.
            double tol = 1e-9;
            Highs_getDoubleOptionValue(h, "primal_feasibility_tolerance", &tol);
            if (last_highs != "QP iteration limit") {
                Highs_setDoubleOptionValue(h, "primal_feasibility_tolerance", 1e-5);
                lps = solve_lp(xlp, rowdual, coldual, &errsum);
                Highs_setDoubleOptionValue(h, "primal_feasibility_tolerance", tol);
            }
            if (lps == 4) {
                skip_b = true;
                update_lp();
                lps = solve_lp(xlp, rowdual, coldual, &errsum);
                skip_b = false;
            }
        }
        if (lps == 4 || (lps == 1 && iter > 1)) {
            // HiGHS lost its way from the previous basis (or calls the always feasible step
            // problem infeasible): solve it again from scratch.
            logf(prob, 2, "    step problem failed from the warm start (%s); solving it afresh", last_highs.c_str());
            Highs_clearSolver(h);
            lps = solve_lp(xlp, rowdual, coldual, &errsum);
        }
        if (lps == 3) {
            stop = prob->interrupt.load() ? prob->interrupt.load() : TRVO_STOP_TIMELIMIT;
            break;
        }
        if (lps == 1) {
            // Only bounds or integrality can make the relaxed step problem infeasible.
            status = TSLP_NLP_INFEASIBLE;
            break;
        }
        if (lps == 2) {
            status = TSLP_NLP_UNBOUNDED;
            break;
        }
        if (lps == 4) {
            // The run ends unfinished at the last accepted point rather than failing outright.
            logf(prob, 1, "The step problem could not be solved (%s); stopping", last_highs.c_str());
            numerical_failure = true;
            break;
        }
        have_lp = true;
        if (use_h) lam_h = rowdual;
        // Determined columns follow their rows' linearisations exactly (the LP meets rows only
        // to its tolerance, which would swamp small predicted reductions).
        std::fill(corr.begin(), corr.end(), 0.0);
        auto lin_value = [&](int r, const std::vector<double>& at, double* coef_of, int j) {
            int k = E.nlpos[r];
            double v = 0.0, a = 0.0;
            if (k >= 0) {
                v = nlval[k] + corr[k];
                const auto& pat = E.pattern[k];
                for (size_t q = 0; q < pat.size(); ++q) {
                    v += nlgrad[k][q] * (at[pat[q]] - x[pat[q]]);
                    if (pat[q] == j) a = nlgrad[k][q];
                }
            } else {
                for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e) {
                    v += m.rval[e] * at[m.rcol[e]];
                    if (m.rcol[e] == j) a += m.rval[e];
                }
            }
            if (coef_of) *coef_of = a;
            return v;
        };
        auto follow_rows = [&](std::vector<double>& at) {
            for (auto& kv : prob->vars) {
                int j = kv.first, r = kv.second.detrow;
                if (r < 0 || r >= m.nrows || j >= n || m.rowtype[r] != 'E' || isint[j]) continue;
                double a = 0.0;
                double v = lin_value(r, at, &a, j);
                if (a != 0.0) at[j] = std::min(std::max(at[j] + (m.rhs[r] - v) / a, m.lb[j]), m.ub[j]);
            }
        };
        // The trial point of an LP solution: damping and delta types on the step.
        auto step_to = [&](const std::vector<double>& lp, std::vector<double>& out) {
            for (int j = 0; j < n; ++j) {
                double d = lp[j] - x[j];
                auto it = prob->vars.find(j);
                if (it != prob->vars.end()) {
                    const SlpVar& v = it->second;
                    double damp = v.damp > 0 ? v.damp : dbl_control(prob, TSLP_DAMP);
                    if (nonlin[j] && !isint[j] && damp > 0 && damp < 1) d *= damp;
                    if (v.deltatype == 1 && std::fabs(d) < v.deltavalue) d = 0.0;
                    if (v.deltatype == 2 && v.deltavalue > 0) d = std::round(d / v.deltavalue) * v.deltavalue;
                }
                out[j] = isint[j] ? std::round(x[j] + d) : x[j] + d;
            }
        };
        // Predicted reduction of phi by the step, from the model itself.
        auto predicted = [&]() {
            follow_rows(xlp);
            double model = 0.0;
            for (int j = 0; j < n; ++j) model += sense * gf[j] * (xlp[j] - x[j]);
            model += quad_model(xlp);
            double model_pen = 0.0;
            for (int r = 0; r < m.nrows; ++r)
                if (errcol[r] >= 0) model_pen += w[r] * viol_of(lin_value(r, xlp, nullptr, -1), rowlo[r], rowup[r]);
            model += mu * model_pen;
            return (phi_k - sense * f) - model;
        };
        pred = predicted();
        if (pred < -1e-9 * (1.0 + std::fabs(phi_k)) && hessian_passed) {
            // The QP solution is worse than standing still: its solve went wrong. Take the
            // linear step this time.
            logf(prob, 3, "    QP step predicts an increase (%g); linear step instead", -pred);
            skip_b = true;
            update_lp();
            int again = solve_lp(xlp, rowdual, coldual, &errsum);
            skip_b = false;
            if (again == 3) {
                stop = prob->interrupt.load() ? prob->interrupt.load() : TRVO_STOP_TIMELIMIT;
                break;
            }
            if (again != 0) throw Error("HiGHS failed on the step problem (" + last_highs + ")");
            pred = predicted();
        }
        // Penalty: stay above the multipliers of the rows.
        double lmax = 0.0;
        for (int r = 0; r < m.nrows; ++r)
            if (errcol[r] >= 0 && w[r] > 0) lmax = std::max(lmax, std::fabs(rowdual[r]) / w[r]);
        bool errors = errsum > feastol;
        for (int r = 0; r < m.nrows; ++r)
            if (errcol[r] >= 0) {
                double e = errvals[errcol[r] - n] + errvals[errcol[r] - n + 1];
                rinfo[r].currenterror = e;
                if (e > feastol) {
                    ++rinfo[r].numerrors;
                    rinfo[r].totalerror += e;
                    rinfo[r].maxerror = std::max(rinfo[r].maxerror, e);
                }
            }
        // Trial point: damping and delta types on the LP step, then cascading.
        double stepmax = 0.0, kkt = 0.0;
        bool int_changed = false;
        step_to(xlp, trial);
        for (int j = 0; j < n; ++j) {
            double d = trial[j] - x[j];
            if (isint[j] && std::fabs(d) > 0.5) int_changed = true;
            if (!nonlin[j] || fixed_int[j] || isint[j]) continue;
            double a, rt;
            tolerances(j, &a, &rt);
            stepmax = std::max(stepmax, std::fabs(d) / (a + rt * std::fabs(x[j]) + 1e-300));
            // A reduced cost at a step bound that lies inside the column's bounds means the
            // linearisation still sees descent in that direction.
            double ad = std::fabs(xlp[j] - x[j]);
            bool at_sb = std::fabs(ad - delta[j]) <= 1e-9 * (1.0 + std::fabs(x[j]));
            bool at_bound = std::fabs(xlp[j] - m.lb[j]) <= 1e-9 * (1.0 + std::fabs(m.lb[j])) ||
                            std::fabs(xlp[j] - m.ub[j]) <= 1e-9 * (1.0 + std::fabs(m.ub[j]));
            if (at_sb && !at_bound) kkt = std::max(kkt, std::fabs(coldual[j]));
        }
        double gscale = 1.0;
        for (int j = 0; j < n; ++j) gscale = std::max(gscale, std::fabs(gf[j]));
        bool feasible_k = viol_k <= feastol * std::max(1.0, (double)m.nrows) &&
                          max_violation(E, m, x.data()) <= feastol * 10;
        bool converged = feasible_k && !errors &&
                         ((stepmax <= 1.0 && kkt <= 1e-4 * gscale) ||
                          (kkt <= opttol * gscale && pred <= opttol * 1e-5 * (1.0 + std::fabs(phi_k))));
        // With curvature in the step problem its predicted reduction measures the distance to
        // the optimum of the local model, not just the step bounds; it counts once the step
        // shows that the model is right.
        bool model_converged = pwl_on && feasible_k && !errors && kkt <= 1e-4 * gscale &&
                               pred <= opttol * (1.0 + std::fabs(phi_k));
        std::vector<double> lintrial = trial;   // the point the linearisation predicted
        if (int_control(prob, TSLP_CASCADE)) cascade(prob, E, m, trial);
        double viol_t = 0.0;
        double phi_t = merit(trial, &ok, &viol_t);
        double ared = phi_k - phi_t;
        double scale = 1.0 + std::fabs(phi_k);
        bool stationary = pred <= 1e-13 * scale;
        bool accept = ok && (stationary ? ared >= -1e-12 * scale : ared >= 0.1 * pred);
        double rho = pred > 0 ? ared / pred : 0.0;
        if (rho < 0.75 && !stationary && !mip_phase && !E.nlrows.empty() && !converged &&
            second_order_correction(lintrial, xlp, rowdual, coldual, errsum, follow_rows, step_to, trial,
                                    phi_t, viol_t)) {
            ared = phi_k - phi_t;
            rho = ared / pred;
            accept = ared >= 0.1 * pred;
        }
        logf(prob, 2, "It %4d  obj %.10g  viol %.3g  pred %.3g  kkt %.3g  rho %.3g  mu %.3g%s%s", iter, sense * f,
             viol_k, pred, kkt, rho, mu, hessian_passed ? "  QP" : "", accept ? "" : "  rejected");
        if (model_converged && accept && rho > 0.5) converged = true;
        if (int_control(prob, TSLP_LOG) >= 4)
            for (int j = 0; j < n; ++j)
                logf(prob, 4, "    col %d  x %.12g  lp %.12g  trial %.12g  sb %.3g  g %.6g", j, x[j], xlp[j], trial[j],
                     delta[j], gf[j]);

        // Step bounds.
        for (int j = 0; j < n; ++j) {
            if (!nonlin[j] || fixed_int[j]) continue;
            double d = std::fabs(trial[j] - x[j]);
            bool curved_j = segw[j] > 0.0;
            if (!accept) {
                if (d > 1e-12) delta[j] = std::max(std::min(delta[j], d) * 0.5, dbl_control(prob, TSLP_MINSTEPBOUND));
            } else if (curved_j && d >= 0.9 * delta[j] && lastdelta[j] * (trial[j] - x[j]) < 0) {
                // A curved column that swings from one step bound to the other.
                delta[j] = std::max(delta[j] * 0.5, dbl_control(prob, TSLP_MINSTEPBOUND));
            } else if (rho > 0.75 && d >= 0.9 * delta[j]) {
                delta[j] *= 2.0;
            } else if (rho < 0.25 && !stationary) {
                delta[j] = std::max(delta[j] * 0.5, dbl_control(prob, TSLP_MINSTEPBOUND));
            } else if (curved_j && d < 0.5 * delta[j]) {
                // The segments resolve the step to a fraction of the step bound: keep the bound
                // near the steps actually taken, so that the resolution follows them down.
                delta[j] = std::max(std::max(2.0 * d, 0.25 * delta[j]), dbl_control(prob, TSLP_MINSTEPBOUND));
            }
        }
        if (accept && use_b && !mip_phase) {
            lambda = rowdual;
            lagrangian_grad(lambda, gl_old);
            s_old.resize(qcols.size());
            for (size_t c = 0; c < qcols.size(); ++c) s_old[c] = trial[qcols[c]] - x[qcols[c]];
            pending = true;
        } else if (use_b && !mip_phase) {
            // A rejected step still tells how the Lagrangian's gradient changes along it: the
            // curvature model learns from it before the shorter step is tried.
            std::vector<double> gf_k = gf, nlval_k = nlval, gl_t;
            std::vector<std::vector<double>> nlgrad_k = nlgrad;
            double ft;
            bool evaluated = evaluate(trial, &ft, &nlval, &nlgrad);
            if (evaluated) {
                E.objective(trial.data(), gf.data());
                lagrangian_grad(rowdual, gl_t);
            }
            gf.swap(gf_k);
            nlval.swap(nlval_k);
            nlgrad.swap(nlgrad_k);
            if (evaluated) {
                lagrangian_grad(rowdual, gl_old);
                s_old.resize(qcols.size());
                for (size_t c = 0; c < qcols.size(); ++c) s_old[c] = trial[qcols[c]] - x[qcols[c]];
                bfgs_update(gl_t);
            }
        }
        if (accept && ared > 1e-14 * scale) kkt_misses = 0;   // progress since the last miss
        if (accept) {
            for (int j = 0; j < n; ++j) lastdelta[j] = trial[j] - x[j];
            x = trial;
            if (!int_changed) ++same_int;
            else same_int = 0;
        }
        // Penalty updates.
        if (errors) {
            if (++err_iters >= penaltycount && mu < maxmu) {
                mu = std::min(mu * penaltyinc, maxmu);
                err_iters = 0;
            }
        } else {
            err_iters = 0;
            if (2.0 * lmax > mu) mu = std::min(2.0 * lmax, maxmu);
        }
        if (prob->cb.itervar.f)
            for (int j = 0; j < n; ++j)
                if (nonlin[j]) prob->cb.itervar.f(prob, prob->cb.itervar.context, j);
        bool user_stop = prob->cb.iterend.f && prob->cb.iterend.f(prob, prob->cb.iterend.context);

        // Convergence (judged at x_k; a better feasible trial point is kept).
        double fnow = E.objective(x.data(), nullptr);
        if (std::fabs(fnow) > infinity) {
            status = TSLP_NLP_UNBOUNDED;
            break;
        }
        if (converged && accept && !(max_violation(E, m, x.data()) <= feastol * 10)) {
            // the accepted trial point lost feasibility: go on from it
            converged = false;
        }
        bool feasible = feasible_k;
        if (mip_phase && !fixed_phase && (converged || same_int >= samecount)) {
            if (int_control(prob, TSLP_MIPFIXSTEPS)) {
                fix_integers();
                if (!converged) continue;
                converged = false;   // one more LP with the integers fixed gives the duals
                continue;
            }
        }
        // A feasible run whose merit has stopped moving has converged as far as it can: the
        // last iterations changed it by less than the objective tolerance allows.
        if (accept) merit_hist.push_back(phi_t);
        const size_t window = 10;
        if (!converged && feasible_k && !errors && merit_hist.size() > window &&
            std::fabs(merit_hist[merit_hist.size() - 1 - window] - merit_hist.back()) <=
                opttol * (1.0 + std::fabs(merit_hist.back())))
            converged = true;
        if (converged) {
            // Every test above reads the step problem; the status needs the point itself to be
            // stationary with the exact gradients and feasible.
            if (certify(rowdual, &last_kkt)) {
                status = TSLP_NLP_LOCALLY_OPTIMAL;
                certified = true;
                break;
            }
            logf(prob, 2, "    not yet a KKT point (residual %.3g); continuing", last_kkt);
            if (++kkt_misses >= 5) {
                // The steps keep finding nothing better at a point that is not stationary:
                // the run ends there, unfinished.
                logf(prob, 1, "No further progress at a point that is not a KKT point (residual %.3g)", last_kkt);
                numerical_failure = true;
                break;
            }
            if (last_kkt > 100 * kkttol) restart_model();
        }
        if (!feasible && (stationary || stepmax <= 1.0)) {
            if (mu >= maxmu) {
                status = TSLP_NLP_LOCALLY_INFEASIBLE;
                break;
            }
            mu = std::min(mu * penaltyinc, maxmu);
        }
        if (user_stop) {
            stop = TRVO_STOP_USER;
            break;
        }
    }

    // Results.
    res.status = status;
    res.stopstatus = stop;
    res.iter = iter;
    res.simplexiter = (int)simplex_total;
    double f_end = E.objective(x.data(), nullptr);
    res.objval = f_end;
    double vs;
    res.maxviolation = max_violation(E, m, x.data(), &vs);
    res.penalty = mu;
    // The residual at the point returned, on every run: the certificate of a converged run,
    // else measured now (with the last step problem's multipliers or the best ones).
    if (!certified) certify(have_lp ? rowdual : std::vector<double>(), &last_kkt);
    std::vector<double> true_dj(n, 0.0);
    {
        KktCheck c;
        if (!cert_dual.empty() && kkt_residual(E, m, sense, x.data(), cert_dual.data(), feastol, &c, true_dj.data(),
                                               isint.data()))
            last_kkt = c.residual;
    }
    res.kkt = last_kkt;
    Solution& sol = res.sol;
    sol.x = x;
    sol.slack.assign(m.nrows, 0.0);
    sol.dual.assign(m.nrows, 0.0);
    sol.dj.assign(n, 0.0);
    sol.rows = rinfo;
    sol.cols.assign(n, ColInfo());
    double errcost = 0.0;
    int nerr = 0;
    for (int r = 0; r < m.nrows; ++r) {
        double v = 0.0;
        E.row_value(r, x.data(), &v);
        sol.slack[r] = m.rhs[r] - v;
        if (!cert_dual.empty()) sol.dual[r] = cert_dual[r];
        RowInfo& ri = sol.rows[r];
        ri.penaltyfactor = mu * w[r];
        if (errcol[r] >= 0) {
            ri.pluscol = errcol[r];
            ri.minuscol = errcol[r] + 1;
            if (have_lp) {
                ri.plusvalue = errvals[errcol[r] - n];
                ri.minusvalue = errvals[errcol[r] - n + 1];
                ri.plusdj = coldual[errcol[r]];
                ri.minusdj = coldual[errcol[r] + 1];
            }
            double vi = viol_of(v, rowlo[r], rowup[r]);
            if (vi > feastol) ++nerr;
            errcost += mu * w[r] * vi;
        }
    }
    for (int j = 0; j < n; ++j) {
        ColInfo& c = sol.cols[j];
        c.slpvar = nonlin[j];
        c.delta = lastdelta[j];
        c.stepbound = nonlin[j] ? delta[j] : 0.0;
        sol.dj[j] = true_dj[j];
        c.rdj = sol.dj[j];
        if (have_lp) {
            // The step bound is active when the column sits at it strictly inside its bounds.
            bool at_sb = nonlin[j] && std::fabs(std::fabs(lastdelta[j]) - delta[j]) <= 1e-9 * (1 + delta[j]);
            c.sbdual = at_sb ? sense * coldual[j] : 0.0;   // the step problem's multiplier of the step bound
        }
    }
    res.errorcosts = errcost;
    res.penaltyerrors = nerr;
    if (status == TSLP_NLP_UNFINISHED && stop == 0 && !numerical_failure) stop = TRVO_STOP_ITERLIMIT;
    return res;
}

}  // namespace

RunResult run_slp(TSLPprob prob, const Model& m, const std::vector<double>& x0) {
    Run run(prob, m);
    return run.solve(x0);
}

}  // namespace slp
