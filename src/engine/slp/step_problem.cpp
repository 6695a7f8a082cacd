// The step problem and its HiGHS instance: built once per run, then only its coefficients,
// bounds, row bounds, costs (and the curvature's segments or Hessian) change between
// iterations, so that each solve starts from the previous basis.
#include "engine/slp/run.h"
#include "engine/slp/sparse_step.h"

#include "engine/optimizer/highs_instances.h"
#include "interfaces/highs_c_api.h"

#include <algorithm>
#include <cmath>

namespace slp {

namespace {

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

}  // namespace

Run::~Run() {
    PhaseScope timed(prob->profile, PH_TEARDOWN);
    if (h) {
        trvo::highs_recycle(h);   // kept for the next run, or released (deferred while this solve counts as running)
        trvo::highs_solve_end(&prob->interrupt);
    }
}

void Run::build() {
    PhaseScope timed(prob->profile, PH_HIGHS_SETUP);
    h = trvo::highs_reuse_quiet();
    if (!h) throw Error("Could not create a HiGHS instance");
    int threads = 1;
    TRVOgetintcontrol(prob->trvo, TRVO_THREADS, &threads);
    int th = trvo::highs_solve_begin(threads, &prob->interrupt);
    // Told 0, HiGHS asks the system for its thread count at every run, which costs a small step
    // problem a good part of its solve: it is given the count it would find instead (a
    // scheduler started with another count is caught in solve_lp).
    auto_threads = th == 0;
    Highs_setIntOptionValue(h, "threads", auto_threads ? trvo::highs_automatic_threads() : th);
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
    qp_warm = int_control(prob, TSLP_QPWARMSTART) != 0;
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
    HighsInt rc = Highs_passModel(h, ncolLP, nrowLP, (HighsInt)index.size(), 0, kHighsMatrixFormatRowwise, 0,
                                  1, 0.0, cost.data(), cl.data(), cu.data(), lo.data(), up.data(),
                                  start.data(), index.empty() ? nullptr : index.data(),
                                  value.empty() ? nullptr : value.data(), nullptr, nullptr, nullptr,
                                  nullptr);
    if (rc == kHighsStatusError) throw Error("HiGHS rejected the step problem");
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
    PhaseScope timed(prob->profile, PH_UPDATE);
    std::vector<double> cost(ncolLP, 0.0);
    for (int j = 0; j < n; ++j) cost[j] = sense * gf[j];
    for (int r = 0; r < m.nrows; ++r)
        if (errcol[r] >= 0) cost[errcol[r]] = cost[errcol[r] + 1] = mu * w[r];
    pwl_on = use_h && !skip_b;
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
    bool curvature = use_b && have_b && !skip_b;
    if (curvature) {
        // 1/2 d' (B + reg I) d, B on the curvature columns. Every column gets a diagonal entry:
        // HiGHS's QP path expects a diagonal entry first in each column (columns without one
        // have made it read and write out of bounds), and a strictly convex step problem has a
        // unique solution (B, cut to its positive semidefinite part, may be singular; with a
        // singular Hessian HiGHS's QP solver reports non-convexity when it starts from a point
        // with free columns).
        const double reg = kQpRegularisation;
        size_t K = qcols.size();
        std::vector<HighsInt> start(ncolLP + 1, 0), index;
        std::vector<double> value;
        size_t c = 0;
        for (int j = 0; j < ncolLP; ++j) {
            if (c < K && qcols[c] == j) {
                for (size_t c2 = c; c2 < K; ++c2) {
                    double v = B[c2 * K + c];
                    if (c2 == c) v += reg;
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
        if (nonlin[j]) {
            l = std::max(l, x[j] - delta[j]);
            u = std::min(u, x[j] + delta[j]);
        }
        lo[j] = l - x[j];
        up[j] = u - x[j];
    }
    if (n > 0) Highs_changeColsBoundsByRange(h, 0, n - 1, lo.data(), up.data());
}

// 0 solved, 1 infeasible, 2 unbounded, 3 stopped, 4 failed.
int Run::solve_lp(std::vector<double>& xlp, std::vector<double>& rowdual, std::vector<double>& coldual,
                  double* errsum) {
    PhaseScope timed(prob->profile, PH_HIGHS_SOLVE);
    ++prob->profile.solves;
    Highs_zeroAllClocks(h);
    double maxtime = dbl_control(prob, TSLP_MAXTIME);
    if (maxtime > 0) {
        double left = maxtime - std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        Highs_setDoubleOptionValue(h, "time_limit", std::max(left, 1e-3));
    }
    std::vector<double> cv, cd, rv, rd;
    diag_qp = false;
    int sparse = sparse_step(cv, cd, rv, rd);
    if (sparse == 1) return finish_lp(cv, cd, rv, rd, xlp, rowdual, coldual, errsum);
    if (sparse == 2) return 3;
    // A QP step problem is solved from one start and, unless its answer can be made exact on
    // its active set (second_order.cpp), from the other: from no step first (TSLP_QPWARMSTART,
    // the default) or from HiGHS's own phase-one LP first. An exact answer is the QP's unique
    // solution whichever start found it. Without one, or when the QP is tied (its solution
    // hangs on the regularisation, so that any exact answer is as arbitrary as another), the
    // answer from HiGHS's own start is taken as HiGHS gives it. So the order changes the time
    // only, never the step. With TSLP_QPWARMSTART, the last exact answer's active set is tried
    // before any QP solve (second_order.cpp).
    struct Answer {
        HighsInt rc = kHighsStatusError, ms = kHighsModelStatusNotset;
        bool ran = false, read = false;
        int quality = kQpInexact;
        std::vector<double> cv, cd, rv, rd;
    };
    Answer warm_answer, cold_answer;
    auto run_qp = [&](bool hot, Answer& a) {
        if (hessian_passed) Highs_setBoolOptionValue(h, "qp_allow_hot_start", hot);
        a.ran = true;
        a.rc = Highs_run(h);
        if (a.rc == kHighsStatusError && auto_threads) {
            // HiGHS's scheduler was started with another thread count than its automatic one:
            // leave the count to HiGHS from now on.
            auto_threads = false;
            Highs_setIntOptionValue(h, "threads", 0);
            a.rc = Highs_run(h);
        }
        a.ms = Highs_getModelStatus(h);
        HighsInt it = 0;
        Highs_getIntInfoValue(h, "simplex_iteration_count", &it);
        simplex_total += it;
        if (!hessian_passed) return;
        it = 0;   // a QP step problem's active-set iterations count as its pivots
        Highs_getIntInfoValue(h, "qp_iteration_count", &it);
        simplex_total += it;
        if (a.ms != kHighsModelStatusOptimal || a.rc == kHighsStatusError) return;
        a.cv.resize(ncolLP);
        a.cd.resize(ncolLP);
        a.rv.resize(nrowLP);
        a.rd.resize(nrowLP);
        Highs_getSolution(h, a.cv.data(), a.cd.data(), a.rv.data(), a.rd.data());
        a.read = true;
        a.quality = qp_polish(a.cv, a.cd, a.rv, a.rd);
    };
    Answer* chosen = &cold_answer;
    Answer guess;
    if (!hessian_passed) {
        run_qp(false, cold_answer);
    } else if (qp_warm && qp_guess(guess.cv, guess.cd, guess.rv, guess.rd) == kQpExact) {
        // The last exact answer's active set is still optimal: no QP solve.
        guess.rc = kHighsStatusOk;
        guess.ms = kHighsModelStatusOptimal;
        guess.ran = guess.read = true;
        guess.quality = kQpExact;
        chosen = &guess;
        ++qp_guessed;
    } else {
        for (int attempt = 0; attempt < 2; ++attempt) {
            bool hot = qp_warm == (attempt == 0);
            if (hot && !qp_start()) continue;   // no consistent start at no step: HiGHS's own only
            Answer& a = hot ? warm_answer : cold_answer;
            run_qp(hot, a);
            if (a.quality == kQpExact) {
                chosen = &a;
                ++(hot ? qp_warm_exact : qp_cold_exact);
                break;
            }
            if (a.quality == kQpTied) break;
        }
        if (chosen->quality != kQpExact) {
            if (!cold_answer.ran) run_qp(false, cold_answer);
            ++qp_inexact;
        }
    }
    HighsInt rc = chosen->rc;
    if (chosen->read) {
        cv.swap(chosen->cv);
        cd.swap(chosen->cd);
        rv.swap(chosen->rv);
        rd.swap(chosen->rd);
    }
    HighsInt ms = chosen->ms;
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
    if (!hessian_passed || cv.size() != (size_t)ncolLP) {   // (a QP's answer was read above)
        cv.resize(ncolLP);
        cd.resize(ncolLP);
        rv.resize(nrowLP);
        rd.resize(nrowLP);
        Highs_getSolution(h, cv.data(), cd.data(), rv.data(), rd.data());
    }
    return finish_lp(cv, cd, rv, rd, xlp, rowdual, coldual, errsum);
}

// Takes the step problem's solution (column values and duals, row activities and duals).
int Run::finish_lp(const std::vector<double>& cv, const std::vector<double>& cd, const std::vector<double>&,
                   const std::vector<double>& rd, std::vector<double>& xlp, std::vector<double>& rowdual,
                   std::vector<double>& coldual, double* errsum) {
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

}  // namespace slp

namespace slp {

// Solves the step problem with the sparse interior-point solver when the step solver control
// asks for it (automatically: the continuous step problems of large curved models) and the
// problem suits it. Returns 1 solved, 2 stopped (interrupt or time limit), 0 when HiGHS is to
// solve it instead.
int Run::sparse_step(std::vector<double>& cv, std::vector<double>& cd, std::vector<double>& rv,
                      std::vector<double>& rd) {
    int choice = int_control(prob, TSLP_STEPSOLVER);
    if (!sparse_ok || hessian_passed || choice == 1 || (choice == 0 && !use_h)) return 0;
    SparseLp lp;
    HighsInt nc = 0, nr = 0, nz = Highs_getNumNz(h), sense_out = 0;
    double offset = 0.0;
    lp.ncol = ncolLP;
    lp.nrow = nrowLP;
    lp.cost.resize(ncolLP);
    lp.collo.resize(ncolLP);
    lp.colup.resize(ncolLP);
    lp.rowlo.resize(nrowLP);
    lp.rowup.resize(nrowLP);
    std::vector<HighsInt> start(ncolLP + 1), index(std::max<HighsInt>(nz, 1));
    lp.value.resize(std::max<HighsInt>(nz, 1));
    if (Highs_getLp(h, kHighsMatrixFormatColwise, &nc, &nr, &nz, &sense_out, &offset, lp.cost.data(),
                    lp.collo.data(), lp.colup.data(), lp.rowlo.data(), lp.rowup.data(), start.data(), index.data(),
                    lp.value.data(), nullptr) != kHighsStatusOk ||
        nc != ncolLP || nr != nrowLP) {
        sparse_ok = false;
        return 0;
    }
    start[ncolLP] = nz;
    // With curvature on segments, the interior-point solver takes the curvature as a diagonal
    // quadratic term instead: the segment columns and their linking rows are left out, which
    // cuts the step problem to the model's columns and rows.
    const bool diag = pwl_on && seg0 < ncolLP;
    const int ncq = diag ? seg0 : ncolLP, nrq = diag ? m.nrows : nrowLP;
    lp.ncol = ncq;
    lp.nrow = nrq;
    lp.start.assign(ncq + 1, 0);
    lp.index.clear();
    lp.index.reserve(nz);
    int w = 0;
    for (int j = 0; j < ncq; ++j) {
        for (HighsInt e = start[j]; e < start[j + 1]; ++e)
            if (index[e] < nrq) {
                lp.index.push_back(index[e]);
                lp.value[w++] = lp.value[e];
            }
        lp.start[j + 1] = w;
    }
    lp.value.resize(w);
    std::vector<HighsInt>().swap(index);
    std::vector<HighsInt>().swap(start);
    lp.cost.resize(ncq);
    lp.collo.resize(ncq);
    lp.colup.resize(ncq);
    lp.rowlo.resize(nrq);
    lp.rowup.resize(nrq);
    if (diag) {
        lp.qdiag.assign(ncq, 0.0);
        for (int j = 0; j < n; ++j)
            if (segw[j] > 0.0) {
                lp.cost[j] = sense * gf[j];
                lp.qdiag[j] = hd[j];
            }
    }
    for (auto* v : {&lp.collo, &lp.colup, &lp.rowlo, &lp.rowup})
        for (double& b : *v) b = bound_inf(b);
    SparseLpSolution sol;
    double tol = std::min(1e-10, dbl_control(prob, TSLP_FEASTOL) * 1e-2);
    int threads = 0;
    TRVOgetintcontrol(prob->trvo, TRVO_THREADS, &threads);
    SparseStatus st = sparse_lp_solve(lp, tol, [&]() { return prob->interrupt.load() != 0 || out_of_time(); }, sol,
                                      false, sparse_threads(threads));
    if (st == SparseStatus::Declined) {
        logf(prob, 2, "    step problems go to the simplex method: their structure does not suit the interior-point solver");
        sparse_ok = false;
        return 0;
    }
    if (st == SparseStatus::Stopped) return 2;
    if (st == SparseStatus::Failed) {
        logf(prob, 2, "    interior-point step solve did not converge; simplex method instead");
        if (++sparse_failures >= 3) sparse_ok = false;
        return 0;
    }
    ipm_total += sol.iterations;
    logf(prob, 2, "    interior-point step problem: %d iterations", sol.iterations);
    cv.swap(sol.colval);
    cd.swap(sol.coldual);
    rv.swap(sol.rowval);
    rd.swap(sol.rowdual);
    if (diag) {
        // The solution as the step problem with segments sees it: the step of a curved column
        // fills its segments in order, and its linking row's dual is minus the marginal cost
        // s g + h d of the step.
        cv.resize(ncolLP, 0.0);
        cd.resize(ncolLP, 0.0);
        rv.resize(nrowLP, 0.0);
        rd.resize(nrowLP, 0.0);
        for (int j = 0; j < n; ++j) {
            if (segcol[j] < 0 || !(segw[j] > 0.0)) continue;
            double d = cv[j], wj = segw[j], yl = -(sense * gf[j] + hd[j] * d);
            rd[linkrow[j]] = yl;
            for (int t = 0; t < nseg; ++t) {
                double curv = hd[j] * (t + 0.5) * wj;
                cv[segcol[j] + t] = std::min(wj, std::max(0.0, d - t * wj));
                cv[segcol[j] + nseg + t] = std::min(wj, std::max(0.0, -d - t * wj));
                cd[segcol[j] + t] = sense * gf[j] + curv + yl;
                cd[segcol[j] + nseg + t] = -sense * gf[j] + curv - yl;
            }
        }
        diag_qp = true;
    }
    return 1;
}

}  // namespace slp
