// The SLP iteration. At x_k every nonlinear row and the objective are linearised; the step
// problem keeps the linear rows, replaces each nonlinear row by its linearisation, relaxes
// every row with penalised error columns (so it is always feasible) and bounds the columns
// that appear nonlinearly by their step bounds. One HiGHS instance serves the whole run: only
// coefficients, bounds, row bounds and costs change between iterations, so each LP starts
// from the previous basis. Steps are accepted on the merit function
// phi(x) = s f(x) + mu sum_i w_i viol_i(x); step bounds grow and shrink with the ratio of the
// actual to the predicted reduction of phi. The run is continuous: mixed-integer problems
// reach it through the NLP branch-and-bound (minlp.cpp), whose node problems have their
// integer columns relaxed or fixed.
#include "engine/slp/callbacks.h"
#include "engine/slp/run.h"

#include "engine/optimizer/highs_instances.h"
#include "engine/slp/kkt.h"
#include "engine/slp/start.h"
#include "engine/slp/tolerances.h"
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

void Run::tolerances(int j, double* a, double* r) const {
    ColumnTolerances c = column_tolerances(prob, j);
    *a = c.t[TOL_DELTA_A];
    *r = c.t[TOL_DELTA_R];
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

// Solves the step problem. When the QP solver gives up (numerical trouble, usually a solution
// it finds slightly infeasible at the tight tolerance) it tries again with a looser
// feasibility tolerance: the merit function judges the step anyway.
int Run::solve_step(std::vector<double>& xlp, std::vector<double>& rowdual, std::vector<double>& coldual,
                    double* errsum) {
    int lps = solve_lp(xlp, rowdual, coldual, errsum);
    if (lps == 4 && hessian_passed && last_highs != "QP iteration limit") {
        double tol = 1e-9;
        Highs_getDoubleOptionValue(h, "primal_feasibility_tolerance", &tol);
        Highs_setDoubleOptionValue(h, "primal_feasibility_tolerance", 1e-5);
        lps = solve_lp(xlp, rowdual, coldual, errsum);
        Highs_setDoubleOptionValue(h, "primal_feasibility_tolerance", tol);
    }
    return lps;
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
    int lps = solve_step(xs, rd, cd, &es);
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
    nonlin.assign(n, 0);
    std::vector<int> clamped;   // columns whose start lay outside their bounds
    for (int j = 0; j < n; ++j) {
        char t = m.coltype[j];
        if (t == 'I' || t == 'B')
            throw Error("Column " + std::to_string(j) + " is integer: the continuous nonlinear solve takes "
                        "only continuous columns (integer problems are solved by branch-and-bound)");
        if (t != 'C')
            throw Error("Column " + std::to_string(j) + " is semi-continuous or partial integer, which the nonlinear solver does not handle");
        if (m.lb[j] > m.ub[j]) {
            res.status = TSLP_NLP_INFEASIBLE;
            logf(prob, 1, "Column %d has a lower bound above its upper bound", j);
            return res;
        }
        if (x[j] < m.lb[j] || x[j] > m.ub[j]) clamped.push_back(j);
        x[j] = std::min(std::max(x[j], m.lb[j]), m.ub[j]);
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
        if (nonlin[j]) qcols.push_back(j);
    // Small problems (up to kDenseCurved curved columns) step by a convex QP with a dense
    // model of the Lagrangian's Hessian: the exact one, differenced from the AD gradients at
    // every iteration (second_order.cpp), or with TSLP_QUASINEWTON = 2 a damped BFGS matrix.
    // Large ones take the separable part of the Hessian as piecewise-linear costs in an LP
    // (solved by the simplex method or the sparse interior-point solver): a dense QP there
    // costs a gradient per curved column and a dense Hessian in HiGHS per iteration.
    const size_t kDenseCurved = 200;
    int qn = int_control(prob, TSLP_QUASINEWTON);
    bool curved = qn != 0 && !qcols.empty();
    // Asking for the interior-point step solver (TSLP_STEPSOLVER = 2) takes the separable LP
    // steps it solves on small problems too.
    use_b = curved && qcols.size() <= kDenseCurved && int_control(prob, TSLP_STEPSOLVER) != 2;
    use_h = curved && !use_b;
    exact_h = use_b && qn != 2;
    hcurved.assign(n, 0);
    segw.assign(n, 0.0);
    if (use_h) {
        hcols.resize(E.nlrows.size());
        for (size_t k = 0; k < E.nlrows.size(); ++k) {
            std::vector<int>& C = hcols[k];
            for (int j : E.tapes[k].cols)
                if (j >= 0 && j < n) C.push_back(j);
            auto q = m.qrows.find(E.nlrows[k]);
            if (q != m.qrows.end()) {
                for (int j : q->second.i) C.push_back(j);
                for (int j : q->second.j) C.push_back(j);
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
    // Convergence tests per column (see the step tests in the loop): its tolerances, its
    // initial step bound (the closure test's unit) and the nonlinear rows it appears in.
    const std::vector<double> delta0 = delta;
    std::vector<ColumnTolerances> coltol(n);
    for (int j = 0; j < n; ++j) coltol[j] = column_tolerances(prob, j);
    std::vector<std::vector<std::pair<int, int>>> colrows(n);   // (nonlinear row, position in its pattern)
    for (size_t k = 0; k < E.nlrows.size(); ++k)
        for (size_t q = 0; q < E.pattern[k].size(); ++q) colrows[E.pattern[k][q]].push_back({(int)k, (int)q});
    std::vector<char> colconv(n, 0);
    std::vector<int> colhist(n, 0);

    {
        std::vector<char> cont = nonlin;
        // A start the user placed beyond a bound moves onto it, and stays there.
        for (int j : clamped) cont[j] = 0;
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
    const double mu_floor = 1e-3 * mu;
    build();

    int iterlimit = int_control(prob, TSLP_ITERLIMIT);
    double feastol = dbl_control(prob, TSLP_FEASTOL), opttol = dbl_control(prob, TSLP_OPTIMALITYTOL);
    double infinity = dbl_control(prob, TSLP_INFINITY);
    int penaltycount = std::max(1, int_control(prob, TSLP_PENALTYCOUNT));
    double penaltyinc = std::max(1.5, dbl_control(prob, TSLP_PENALTYINCREASE));
    int err_iters = 0, flat_rejects = 0;
    bool numerical_failure = false;   // ended because a step problem could not be solved
    std::vector<double> xlp, rowdual, coldual, trial(n), lastdelta(n, 0.0);
    std::vector<double> rowerr_count(m.nrows, 0.0);
    std::vector<double> lam_last(m.nrows, 0.0);   // row multipliers of the last step problem
    std::vector<RowInfo> rinfo(m.nrows);
    double errsum = 0.0, pred = 0.0, last_kkt = INFINITY;
    bool certified = false;
    bool have_lp = false;
    int status = TSLP_NLP_UNFINISHED;
    int stop = 0;
    int iter = 0;

    // First-order certificate of the current point: feasible within the feasibility tolerance
    // and a KKT point within the optimality tolerance, with the exact gradients and row
    // multipliers only (those of the step problem, or else the best ones for the rows active
    // at x). cert_dual keeps the multipliers (in the user's sense) the residual was measured with.
    const double kkttol = dbl_control(prob, TSLP_KKTTOL);
    std::vector<double> cert_dual;
    int kkt_misses = 0;
    double polish_below = 1e3 * kkttol;   // residual below which Newton steps on the KKT conditions are tried
    auto certify = [&](const std::vector<double>& lpdual, double* resid) {
        std::vector<double> d(m.nrows, 0.0);
        for (int r = 0; r < m.nrows && r < (int)lpdual.size(); ++r) d[r] = sense * lpdual[r];
        KktCheck c;
        bool ok = kkt_residual(E, m, sense, x.data(), d.data(), feastol, &c);
        if (ok && c.residual > kkttol) {
            std::vector<double> e;
            KktCheck c2;
            if (estimate_multipliers(prob, E, m, sense, x.data(), feastol, e) &&
                kkt_residual(E, m, sense, x.data(), e.data(), feastol, &c2) &&
                c2.residual < c.residual) {
                c = c2;
                d = e;
            }
        }
        cert_dual = d;
        *resid = ok ? c.residual : INFINITY;
        return ok && c.residual <= kkttol && max_violation(E, m, x.data()) <= feastol;
    };
    // After a false alarm of the step tests the quasi-Newton model and the stall history start
    // afresh: the model that predicted no more progress was wrong.
    std::vector<double> merit_hist;   // merit at the accepted points
    auto restart_model = [&]() {
        merit_hist.clear();
        if (use_b) have_b = false;
        // The first miss after progress also reopens step bounds that have shrunk to nothing
        // (further misses at the same point keep them, so that they can shrink again).
        if (kkt_misses == 1)
            for (int j = 0; j < n; ++j)
                if (nonlin[j]) delta[j] = std::max(delta[j], 1e-3 * std::max(1.0, std::fabs(x[j])));
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
        if ((prob->cb.iterstart.f && prob->cb.iterstart.f(prob, prob->cb.iterstart.context)) ||
            checktime(prob)) {
            stop = TRVO_STOP_USER;
            break;
        }
        ++iter;
        // Linearisation at x.
        if (!evaluate(x, &f, &nlval, &nlgrad)) throw Error("The formulas cannot be evaluated at an accepted point");
        E.objective(x.data(), gf.data());
        if (exact_h) {
            have_b = lagrangian_hessian(lam_last);
        } else if (pending && use_b) {
            std::vector<double> gl_new;
            lagrangian_grad(lambda, gl_new);
            bfgs_update(gl_new);
            pending = false;
        }
        bool ok;
        double viol_k = 0.0;
        double phi_k = merit(x, &ok, &viol_k);
        update_lp();
        int lps = solve_step(xlp, rowdual, coldual, &errsum);
        if (lps == 4 && hessian_passed) {
            // The QP solver gave up even with the looser tolerance: take a linear step this
            // time, keeping the curvature model.
            skip_b = true;
            update_lp();
            lps = solve_lp(xlp, rowdual, coldual, &errsum);
            skip_b = false;
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
        std::copy(rowdual.begin(), rowdual.begin() + m.nrows, lam_last.begin());
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
                if (r < 0 || r >= m.nrows || j >= n || m.rowtype[r] != 'E') continue;
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
                    if (nonlin[j] && damp > 0 && damp < 1) d *= damp;
                    if (v.deltatype == 1 && std::fabs(d) < v.deltavalue) d = 0.0;
                    if (v.deltatype == 2 && v.deltavalue > 0) d = std::round(d / v.deltavalue) * v.deltavalue;
                }
                out[j] = x[j] + d;
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
        double kkt = 0.0;
        std::vector<int> open_cols;   // columns whose step meets neither the closure nor the delta test
        step_to(xlp, trial);
        for (int j = 0; j < n; ++j) {
            double d = trial[j] - x[j];
            colconv[j] = 1;
            if (!nonlin[j]) continue;
            const double* t = coltol[j].t;
            double step = std::fabs(d);
            if (!(step <= t[TOL_CLOSURE] * delta0[j] || step <= t[TOL_DELTA_A] + t[TOL_DELTA_R] * std::fabs(x[j]))) {
                colconv[j] = 0;
                open_cols.push_back(j);
            }
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
        // A column whose step is not small may still have converged in its effect: every
        // coefficient of it (row gradients and the objective's) changes along the step by at
        // most the coefficient tolerance, or changes the linearisation by at most the impact
        // tolerance (coefficient change times the step), and every row it appears in is
        // linearised within the slack tolerance at the trial point.
        bool extended = false;
        for (int j : open_cols)
            extended = extended || coltol[j].t[TOL_COEF_A] + coltol[j].t[TOL_COEF_R] + coltol[j].t[TOL_IMPACT_A] +
                                           coltol[j].t[TOL_IMPACT_R] > 0;
        if (extended && feasible_k && !errors) {
            size_t K = E.nlrows.size();
            std::vector<std::vector<double>> gt(K);
            std::vector<double> linerr(K, 0.0), vt(K, 0.0), gft(n, 0.0);
            bool evaluated = true;
            for (size_t k = 0; k < K && evaluated; ++k) {
                const auto& pat = E.pattern[k];
                evaluated = E.nlrow_grad((int)k, trial.data(), &vt[k], gscratch.data());
                double lin = nlval[k];
                gt[k].resize(pat.size());
                for (size_t q = 0; q < pat.size(); ++q) {
                    gt[k][q] = gscratch[pat[q]];
                    lin += nlgrad[k][q] * (trial[pat[q]] - x[pat[q]]);
                }
                linerr[k] = std::fabs(vt[k] - lin);
            }
            evaluated = evaluated && std::isfinite(E.objective(trial.data(), gft.data()));
            for (int j : open_cols) {
                if (!evaluated) break;
                const double* t = coltol[j].t;
                // Zero coefficient and impact tolerances switch these tests off for the column,
                // zero slack tolerances the slack test.
                if (!(t[TOL_COEF_A] + t[TOL_COEF_R] + t[TOL_IMPACT_A] + t[TOL_IMPACT_R] > 0)) continue;
                bool slack_on = t[TOL_SLACK_A] + t[TOL_SLACK_R] > 0;
                double d = trial[j] - x[j];
                auto settled = [&](double a_old, double a_new) {
                    double da = std::fabs(a_new - a_old);
                    return da <= t[TOL_COEF_A] + t[TOL_COEF_R] * std::fabs(a_new) ||
                           da * std::fabs(d) <= t[TOL_IMPACT_A] + t[TOL_IMPACT_R] * std::fabs(a_new * x[j]);
                };
                bool ok = settled(gf[j], gft[j]);
                for (auto& kq : colrows[j]) {
                    int k = kq.first, q = kq.second;
                    ok = ok && settled(nlgrad[k][q], gt[k][q]) &&
                         (!slack_on || linerr[k] <= t[TOL_SLACK_A] + t[TOL_SLACK_R] * std::fabs(vt[k]));
                }
                colconv[j] = ok;
            }
        }
        bool steps_converged = true;
        for (int j : open_cols) steps_converged = steps_converged && colconv[j];
        bool converged = feasible_k && !errors &&
                         ((steps_converged && kkt <= 1e-4 * gscale) ||
                          (kkt <= opttol * gscale && pred <= opttol * 1e-5 * (1.0 + std::fabs(phi_k))));
        // With curvature in the step problem its predicted reduction measures the distance to
        // the optimum of the local model, not just the step bounds; it counts once the step
        // shows that the model is right.
        bool model_converged = (pwl_on || hessian_passed) && feasible_k && !errors && kkt <= 1e-4 * gscale &&
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
        if (rho < 0.75 && !stationary && !E.nlrows.empty() && !converged &&
            second_order_correction(lintrial, xlp, rowdual, coldual, errsum, follow_rows, step_to, trial,
                                    phi_t, viol_t)) {
            ared = phi_k - phi_t;
            rho = ared / pred;
            accept = ared >= 0.1 * pred;
        }
        logf(prob, 2, "It %4d  obj %.10g  viol %.3g  pred %.3g  kkt %.3g  rho %.3g  mu %.3g%s%s", iter, sense * f,
             viol_k, pred, kkt, rho, mu, hessian_passed ? "  QP" : "", accept ? "" : "  rejected");
        if (model_converged && accept && rho > 0.5) converged = true;
        // The step problem sees no reduction at all and its step does not reduce the merit
        // function either: a feasible point is as stationary as the model can tell, and only the
        // certificate below decides (rejected steps add nothing to the stall history, so such a
        // run would otherwise go on to its iteration limit). A few such steps in a row are
        // allowed: the step bounds shrink with each, and a shorter step may still descend.
        flat_rejects = stationary && !accept && feasible_k && !errors ? flat_rejects + 1 : 0;
        if (flat_rejects >= 10) {
            flat_rejects = 0;
            converged = true;
        }
        if (int_control(prob, TSLP_LOG) >= 4)
            for (int j = 0; j < n; ++j)
                logf(prob, 4, "    col %d  x %.12g  lp %.12g  trial %.12g  sb %.3g  g %.6g", j, x[j], xlp[j], trial[j],
                     delta[j], gf[j]);

        // Step bounds. After a QP step with the exact Hessian they form one trust region:
        // every bound scales together with the ratio of the actual to the predicted (by the
        // QP model) reduction of the merit function.
        if (hessian_passed && exact_h) {
            double reach = 0.0;   // largest step as a share of its bound
            for (int j = 0; j < n; ++j)
                if (nonlin[j] && delta[j] > 0) reach = std::max(reach, std::fabs(trial[j] - x[j]) / delta[j]);
            double factor = 1.0;
            if (!accept) factor = 0.5 * std::min(1.0, reach);
            // While the step problem cannot meet the linearised rows, the merit is dominated by
            // the penalty on their linear model, whose error on curved (e.g. bilinear) rows keeps
            // the ratio near 0.5 at every radius the steps reach: a step that reaches its bound
            // and gains half the prediction widens the region, or the feasibility phase creeps
            // at a constant radius for hundreds of iterations.
            else if (rho > (errors ? 0.5 : 0.75) && reach >= 0.9) factor = 2.0;
            else if (rho < 0.25 && !stationary) factor = 0.5;
            double minsb = dbl_control(prob, TSLP_MINSTEPBOUND);
            if (factor != 1.0)
                for (int j = 0; j < n; ++j)
                    if (nonlin[j]) delta[j] = std::max(delta[j] * factor, minsb);
        }
        for (int j = 0; j < n && !(hessian_passed && exact_h); ++j) {
            if (!nonlin[j]) continue;
            double d = std::fabs(trial[j] - x[j]);
            bool curved_j = segw[j] > 0.0;
            if (!accept) {
                if (d > 1e-12) delta[j] = std::max(std::min(delta[j], d) * 0.5, dbl_control(prob, TSLP_MINSTEPBOUND));
            } else if (d >= 0.9 * delta[j] && lastdelta[j] * (trial[j] - x[j]) < 0) {
                // A column that swings from one step bound to the other: the linearisations
                // oscillate around a curved optimum, so the step bound closes in on it.
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
        if (exact_h) {
            // the Hessian is evaluated afresh at the next point
        } else if (accept && use_b) {
            lambda = rowdual;
            lagrangian_grad(lambda, gl_old);
            s_old.resize(qcols.size());
            for (size_t c = 0; c < qcols.size(); ++c) s_old[c] = trial[qcols[c]] - x[qcols[c]];
            pending = true;
        } else if (use_b) {
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
        if (accept)
            for (int j = 0; j < n; ++j) colhist[j] = colconv[j] && nonlin[j] ? colhist[j] + 1 : 0;
        if (accept) {
            for (int j = 0; j < n; ++j) lastdelta[j] = trial[j] - x[j];
            x = trial;
        }
        // Penalty updates (with the multipliers of the step taken: a second-order correction
        // replaces those of the first step problem).
        lmax = 0.0;
        for (int r = 0; r < m.nrows; ++r)
            if (errcol[r] >= 0 && w[r] > 0) lmax = std::max(lmax, std::fabs(rowdual[r]) / w[r]);
        if (errors) {
            if (++err_iters >= penaltycount && mu < maxmu) {
                mu = std::min(mu * penaltyinc, maxmu);
                err_iters = 0;
            }
        } else {
            err_iters = 0;
            if (2.0 * lmax > mu) mu = std::min(2.0 * lmax, maxmu);
            else if (exact_h && accept && mu > 4.0 * lmax && mu > mu_floor)
                // The QP steps' own multipliers say how much a violation costs: a penalty far
                // above them only makes the merit function punish the second-order violation
                // of curved rows and keeps the steps short.
                mu = std::max(std::max(2.0 * lmax, 0.5 * mu), mu_floor);
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
            // Close to a local optimum the SLP steps, judged by a nonsmooth merit function, may
            // creep: Newton steps on the KKT conditions of the active rows finish the job on
            // small models.
            // After a failed attempt the next waits until the residual is ten times smaller:
            // a run that stalls calls it a few times, not at every iteration.
            if (last_kkt <= polish_below && !cert_dual.empty()) {
                std::vector<double> xp = x, dp = cert_dual;
                double r;
                polish_below = 0.1 * last_kkt;
                if (polish_kkt(prob, E, m, sense, feastol, (int)kDenseCurved, xp, dp, &r)) {
                    x = xp;
                    std::vector<double> lpd(m.nrows);
                    for (int i = 0; i < m.nrows; ++i) lpd[i] = sense * dp[i];
                    if (certify(lpd, &last_kkt)) {
                        logf(prob, 2, "    Newton steps on the KKT conditions reached residual %.3g", last_kkt);
                        status = TSLP_NLP_LOCALLY_OPTIMAL;
                        certified = true;
                        break;
                    }
                }
            }
            logf(prob, 2, "    not yet a KKT point (residual %.3g); continuing", last_kkt);
            if (++kkt_misses >= 5) {
                // The steps keep finding nothing better at a point that is not stationary:
                // the run ends there, unfinished.
                logf(prob, 1, "No further progress at a point that is not a KKT point (residual %.3g)", last_kkt);
                numerical_failure = true;
                break;
            }
            if (last_kkt > 100 * kkttol || pred <= 1e-12 * (1.0 + std::fabs(phi_k)) || kkt_misses >= 2) restart_model();
        }
        if (!feasible && (stationary || steps_converged)) {
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
    if (qp_guessed + qp_warm_exact + qp_cold_exact + qp_inexact > 0)
        logf(prob, 2, "QP step problems: %ld exact on the last active set, %ld exact from no step, %ld exact from "
             "HiGHS's own start, %ld as HiGHS solved them", qp_guessed, qp_warm_exact, qp_cold_exact, qp_inexact);
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
        if (!cert_dual.empty() && kkt_residual(E, m, sense, x.data(), cert_dual.data(), feastol, &c, true_dj.data())) {
            last_kkt = c.residual;
            double ymax = 0.0;
            for (double y : cert_dual) ymax = std::max(ymax, std::fabs(y));
            // Multipliers far above the objective's gradient make the point stationary only by
            // nearly cancelling row gradients: the constraint qualification fails or nearly
            // fails there (the point may be the optimum all the same, as when a row's
            // gradient vanishes at it).
            if (certified && ymax > 1e6 * c.scale)
                logf(prob, 1, "Row multipliers up to %.3g certify this point: the active rows are nearly "
                              "degenerate here (their constraint qualification fails or nearly fails)", ymax);
        }
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
    // Each SLP variable keeps whether its last step met its tolerances and for how many
    // accepted steps in a row it has.
    for (int j = 0; j < n; ++j) {
        auto it = prob->vars.find(j);
        if (it == prob->vars.end()) continue;
        it->second.converged = nonlin[j] && colconv[j];
        it->second.history = colhist[j];
    }
    res.errorcosts = errcost;
    res.penaltyerrors = nerr;
    if (status == TSLP_NLP_UNFINISHED && stop == 0 && !numerical_failure) stop = TRVO_STOP_ITERLIMIT;
    return res;
}


RunResult run_slp(TSLPprob prob, const Model& m, const std::vector<double>& x0) {
    Run run(prob, m);
    return run.solve(x0);
}

}  // namespace slp
