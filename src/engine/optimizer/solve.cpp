// LP, MIP and convex QP optimisation on HiGHS: controls become HiGHS options, HiGHS's log goes
// through the problem's message callbacks, the stop flag is polled from HiGHS's interrupt
// callbacks, and the results are mapped back to the user's rows and columns.
#include "engine/optimizer/formulate.h"
#include "engine/optimizer/gencons.h"
#include "engine/optimizer/highs_instances.h"
#include "engine/optimizer/solve_callbacks.h"
#include "engine/optimizer/tree_search.h"
#include "engine/optimizer/views.h"

#include <cxxabi.h>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>

namespace trvo {
namespace {

struct SolveContext {
    TRVOprob prob;
    std::string pending;  // log text not yet ended by a newline
    int64_t improving = 0;  // improving MIP solutions found
    // MAXMIPSOL: the k-th improving solution is kept and the run stopped at HiGHS's next
    // interrupt check (HiGHS may find more before it looks).
    int64_t maxsol = 0;
    bool sol_limit = false;
    std::vector<double> limit_x;
    // Held by the callback while it uses prob. A run that ignored a stop request for too long
    // is abandoned: it goes on without the problem (orphaned) and its callback stops at once.
    std::mutex mutex;
    bool orphaned = false;
    std::unique_ptr<SolveCallbacks> callbacks;  // the solve callbacks HiGHS's events serve
};

void flush_line(SolveContext& ctx, int type) {
    if (ctx.pending.empty()) return;
    emit_message(ctx.prob, ctx.pending.c_str(), type, TRVO_MSG_SOLVER_LOG);
    ctx.pending.clear();
}

void highs_callback(int type, const char* message, const HighsCallbackDataOut* out,
                    HighsCallbackDataIn* in, void* user) {
    auto* ctx = static_cast<SolveContext*>(user);
    std::lock_guard<std::mutex> hold(ctx->mutex);
    if (ctx->orphaned) {
        if (in) in->user_interrupt = 1;
        return;
    }
    if (type == kHighsCallbackLogging) {
        if (!message) return;
        // HiGHS log types: 1 info, 2 detailed, 3 verbose, 4 warning, 5 error.
        int lt = out ? out->log_type : 1;
        int msgtype = lt == 4 ? 3 : lt == 5 ? 4 : 1;
        for (const char* c = message; *c; ++c) {
            if (*c == '\n') flush_line(*ctx, msgtype);
            else ctx->pending.push_back(*c);
        }
        return;
    }
    if (type == kHighsCallbackMipImprovingSolution) {
        ++ctx->improving;
        if (ctx->sol_limit) return;  // found after the solution limit: not reported
        if (ctx->maxsol > 0 && ctx->improving >= ctx->maxsol && out && out->mip_solution) {
            ctx->sol_limit = true;
            ctx->limit_x.assign(out->mip_solution, out->mip_solution + out->mip_solution_size);
        }
    }
    if ((type == kHighsCallbackSimplexInterrupt || type == kHighsCallbackIpmInterrupt ||
         type == kHighsCallbackMipInterrupt) && in) {
        if (ctx->prob->stop_request.load() != 0) in->user_interrupt = 1;
        if (type == kHighsCallbackMipInterrupt && ctx->sol_limit) in->user_interrupt = 1;
    }
    if (ctx->callbacks) ctx->callbacks->on_event(type, out, in);
}

void check(HighsInt status, const char* what) {
    if (status == kHighsStatusError) fail("HiGHS failed to %s", what);
}

void set_options(TRVOprob p, void* h, const char* flags, bool mip, int threads, bool need_output = false) {
    // The log-line callbacks need HiGHS's output on; emit_message still honours OUTPUTLOG.
    bool log = ctl_int(p, TRVO_OUTPUTLOG) != 0 || need_output;
    check(Highs_setBoolOptionValue(h, "output_flag", log), "set its options");
    check(Highs_setBoolOptionValue(h, "log_to_console", 0), "set its options");
    Highs_setIntOptionValue(h, "threads", threads);
    Highs_setStringOptionValue(h, "presolve", ctl_int(p, TRVO_PRESOLVE) && presolve_allowed(p) ? "choose" : "off");
    double maxtime = ctl_dbl(p, TRVO_MAXTIME);
    Highs_setDoubleOptionValue(h, "time_limit", maxtime > 0 ? maxtime : INFINITY);
    Highs_setDoubleOptionValue(h, "primal_feasibility_tolerance", ctl_dbl(p, TRVO_FEASTOL));
    Highs_setDoubleOptionValue(h, "dual_feasibility_tolerance", ctl_dbl(p, TRVO_OPTIMALITYTOL));
    Highs_setDoubleOptionValue(h, "mip_feasibility_tolerance", ctl_dbl(p, TRVO_MIPTOL));
    Highs_setDoubleOptionValue(h, "mip_rel_gap", ctl_dbl(p, TRVO_MIPRELSTOP));
    Highs_setDoubleOptionValue(h, "mip_abs_gap", ctl_dbl(p, TRVO_MIPABSSTOP));
    Highs_setIntOptionValue(h, "mip_max_nodes", static_cast<HighsInt>(ctl_int(p, TRVO_MAXNODE)));
    // MAXMIPSOL is counted by the solve's callback (HiGHS's own limit skips solutions).
    Highs_setIntOptionValue(h, "mip_max_improving_sols", 2147483647);
    Highs_setIntOptionValue(h, "simplex_iteration_limit",
                            static_cast<HighsInt>(ctl_int(p, TRVO_LPITERLIMIT)));
    Highs_setIntOptionValue(h, "ipm_iteration_limit",
                            static_cast<HighsInt>(ctl_int(p, TRVO_BARITERLIMIT)));
    Highs_setIntOptionValue(h, "random_seed", static_cast<HighsInt>(ctl_int(p, TRVO_RANDOMSEED)));
    Highs_setIntOptionValue(h, "simplex_scale_strategy", ctl_int(p, TRVO_SCALING) ? 1 : 0);
    Highs_setStringOptionValue(h, "run_crossover", ctl_int(p, TRVO_CROSSOVER) ? "on" : "off");
    check(Highs_setDoubleOptionValue(h, "mip_heuristic_effort", ctl_dbl(p, TRVO_HEUREFFORT)), "set its options");
    check(Highs_setBoolOptionValue(h, "mip_detect_symmetry", ctl_int(p, TRVO_SYMMETRY) != 0), "set its options");
    check(Highs_setBoolOptionValue(h, "mip_allow_restart", ctl_int(p, TRVO_MIPRESTART) != 0), "set its options");
    double cutoff = ctl_dbl(p, TRVO_MIPABSCUTOFF);
    bool has_cutoff = mip && std::fabs(cutoff) < 1e39;
    // The model is always a minimisation: a maximisation cutoff is negated with it.
    Highs_setDoubleOptionValue(h, "objective_bound",
                               has_cutoff ? (p->objsense > 0 ? cutoff : -cutoff) : INFINITY);
    // Algorithm: DEFAULTALG, overridden by the flags (d dual, p primal, b barrier, n network).
    int alg = static_cast<int>(ctl_int(p, TRVO_DEFAULTALG));
    for (const char* f = flags ? flags : ""; *f; ++f) {
        if (*f == 'd' || *f == 'n') alg = 2;
        else if (*f == 'p') alg = 3;
        else if (*f == 'b') alg = 4;
    }
    switch (alg) {
        case 2:
            Highs_setStringOptionValue(h, "solver", "simplex");
            Highs_setIntOptionValue(h, "simplex_strategy", 1);
            break;
        case 3:
            Highs_setStringOptionValue(h, "solver", "simplex");
            Highs_setIntOptionValue(h, "simplex_strategy", 4);
            break;
        case 4:
            Highs_setStringOptionValue(h, "solver", "ipm");
            // An LP's interior solution is kept before crossover, which the engine then runs
            // itself when CROSSOVER asks for it (finish_barrier).
            if (!mip) Highs_setStringOptionValue(h, "run_crossover", "off");
            break;
        default:
            Highs_setStringOptionValue(h, "solver", "choose");
            Highs_setIntOptionValue(h, "simplex_strategy", 1);
            break;
    }
}

void pass_model(void* h, const HighsModel& m) {
    check(Highs_passModel(h, m.ncol, m.nrow, m.num_nz(),
                          static_cast<HighsInt>(m.q_index.size()), kHighsMatrixFormatRowwise,
                          kHighsHessianFormatTriangular, kHighsObjSenseMinimize, m.offset,
                          m.cost.data(), m.col_lower.data(), m.col_upper.data(),
                          m.row_lower.data(), m.row_upper.data(),
                          m.nrow ? m.a_start.data() : nullptr, m.index_data(), m.value_data(),
                          m.q_index.empty() ? nullptr : m.q_start.data(),
                          m.q_index.empty() ? nullptr : m.q_index.data(),
                          m.q_index.empty() ? nullptr : m.q_value.data(),
                          m.integrality.empty() ? nullptr : m.integrality.data()),
          "accept the model");
}

int stop_reason(TRVOprob p, HighsInt model_status, bool mip, void* h) {
    switch (model_status) {
        case kHighsModelStatusTimeLimit: return TRVO_STOP_TIMELIMIT;
        case kHighsModelStatusIterationLimit: return TRVO_STOP_ITERLIMIT;
        case kHighsModelStatusInterrupt: {
            int r = p->stop_request.load();
            return r ? r : TRVO_STOP_USER;
        }
        case kHighsModelStatusSolutionLimit: {
            int64_t nodes = 0;
            Highs_getInt64InfoValue(h, "mip_node_count", &nodes);
            return mip && nodes >= ctl_int(p, TRVO_MAXNODE) ? TRVO_STOP_NODELIMIT
                                                           : TRVO_STOP_SOLLIMIT;
        }
    }
    return TRVO_STOP_NONE;
}

// Runs HiGHS on the model; resolves "unbounded or infeasible" with a second run without
// presolve. Returns the model status.
HighsInt run(void* h) {
    check(Highs_zeroAllClocks(h), "reset its clocks");
    HighsInt st = Highs_run(h);
    if (st == kHighsStatusError) {
        HighsInt ms = Highs_getModelStatus(h);
        if (ms == kHighsModelStatusNotset || ms == kHighsModelStatusLoadError ||
            ms == kHighsModelStatusModelError)
            fail("HiGHS could not solve the model");
        return ms;
    }
    HighsInt ms = Highs_getModelStatus(h);
    if (ms == kHighsModelStatusUnboundedOrInfeasible) {
        char presolve[16] = {0};
        Highs_getStringOptionValue(h, "presolve", presolve);
        if (std::strcmp(presolve, "off") != 0) {
            Highs_setStringOptionValue(h, "presolve", "off");
            Highs_zeroAllClocks(h);
            Highs_run(h);
            Highs_setStringOptionValue(h, "presolve", presolve);
            ms = Highs_getModelStatus(h);
        }
    }
    return ms;
}

// After a solve of the scaled LP: the instance is given the unscaled LP with the basis found
// (basis statuses do not change with scaling), so that the analyses of the last basis see the
// problem's own matrix.
void unscaled_basis_instance(TRVOprob p, void* h) {
    HighsInt valid = 0;
    Highs_getIntInfoValue(h, "basis_validity", &valid);
    std::vector<HighsInt> cb(static_cast<size_t>(p->ncols()) + 1), rb(static_cast<size_t>(p->nrows()) + 1);
    bool basis = valid == kHighsBasisValidityValid && Highs_getBasis(h, cb.data(), rb.data()) != kHighsStatusError;
    HighsModel plain;
    formulate(p, false, plain);
    pass_model(h, plain);
    if (!basis) return;
    Highs_setBasis(h, cb.data(), rb.data());
    Highs_setIntOptionValue(h, "simplex_scale_strategy", ctl_int(p, TRVO_SCALING) ? 1 : 0);
    HighsInt st = run(h);
    (void)st;
}

// How long a run may ignore a stop request (HiGHS's presolve and QP solver do not look at the
// interrupt callbacks) before it is abandoned.
constexpr auto kStopGrace = std::chrono::milliseconds(1000);

// Runs HiGHS (as run) on a thread of its own while this thread watches the problem's stop
// flag. When a stop request goes unanswered for kStopGrace, the run is abandoned: the instance,
// the context and a share of the running-solve count go with the thread, which releases them
// when HiGHS returns; the problem no longer owns the instance. Returns false then.
bool run_watched(TRVOprob p, void* h, const std::shared_ptr<SolveContext>& ctx, int threads, HighsInt* ms) {
    struct Outcome {
        std::mutex m;
        std::condition_variable cv;
        bool done = false;
        HighsInt ms = kHighsModelStatusNotset;
        std::exception_ptr error;
        bool orphaned = false;
    };
    auto out = std::make_shared<Outcome>();
    std::thread runner([out, ctx, h] {
        HighsInt s = kHighsModelStatusNotset;
        std::exception_ptr e;
        try {
            s = run(h);
        } catch (abi::__forced_unwind&) {
            throw;
        } catch (...) {
            e = std::current_exception();
        }
        bool orphaned;
        {
            std::lock_guard<std::mutex> g(out->m);
            out->ms = s;
            out->error = e;
            out->done = true;
            orphaned = out->orphaned;
            out->cv.notify_all();
        }
        if (orphaned) {
            // Released while still counted as running, so that the instance is destroyed
            // under the pool's lock when the count drops.
            Highs_setCallback(h, nullptr, nullptr);
            highs_release(h);
            highs_solve_end();
        }
    });
    std::unique_lock<std::mutex> lk(out->m);
    std::chrono::steady_clock::time_point stop_seen{};
    bool stopping = false;
    while (!out->done) {
        out->cv.wait_for(lk, std::chrono::milliseconds(20), [&] { return out->done; });
        if (out->done || p->stop_request.load() == 0) continue;
        auto now = std::chrono::steady_clock::now();
        if (!stopping) {
            stopping = true;
            stop_seen = now;
        } else if (now - stop_seen >= kStopGrace) {
            {
                std::lock_guard<std::mutex> hold(ctx->mutex);
                ctx->orphaned = true;
            }
            out->orphaned = true;
            highs_solve_begin(threads);  // the abandoned run still counts as running
            lk.unlock();
            runner.detach();
            p->highs = nullptr;
            p->highs_cols = p->highs_rows = -1;
            p->highs_has_lp = false;
            return false;
        }
    }
    lk.unlock();
    runner.join();
    if (out->error) std::rethrow_exception(out->error);
    *ms = out->ms;
    return true;
}

void record_nonconvex(TRVOprob p, bool mip, const std::string& why) {
    auto& r = p->results;
    r.lpstatus = TRVO_LP_NONCONVEX;
    if (mip) r.mipstatus = TRVO_LP_NONCONVEX;
    r.solvestatus = TRVO_SOLVESTATUS_FAILED;
    r.have_lp = r.have_mip = r.have_duals = false;
    emit_message(p, (why + ": the problem is nonconvex and cannot be solved by the LP/MIP "
                             "optimiser").c_str(), 4, TRVO_MSG_NONCONVEX);
    fail("%s: the problem is nonconvex and cannot be solved by the LP/MIP optimiser",
         why.c_str());
}

// Semi-continuous and semi-integer columns with a threshold but no upper bound go to HiGHS as
// they are (there is no bound for a reformulation), and HiGHS limits them to 1e5, or refuses
// them when ten times the threshold exceeds that. When such a solve ends without a solution,
// the limit may be the cause: the largest value each such column takes in the continuous
// relaxation tells. Infeasible relaxation: the problem is infeasible. All of them within the
// limit: HiGHS's answer stands. All of them bounded: those largest values are valid upper
// bounds, and the problem is solved again with the columns reformulated on them (model and the
// instance h then hold that solve). A column unbounded in the relaxation: the answer cannot be
// trusted and the solve fails with the column named.
HighsInt check_uncapped_semicontinuous(TRVOprob p, HighsInt ms, const char* flags, int threads, void* h,
                                       HighsModel& model) {
    constexpr double kHighsSemiLimit = 1e5;
    if (ms != kHighsModelStatusInfeasible && ms != kHighsModelStatusSolveError &&
        ms != kHighsModelStatusUnbounded && ms != kHighsModelStatusUnboundedOrInfeasible)
        return ms;
    std::vector<int> cols;
    for (int j = 0; j < p->ncols(); ++j) {
        size_t s = static_cast<size_t>(j);
        if ((p->coltype[s] == 'S' || p->coltype[s] == 'R') && p->limit[s] > 0 && p->ub[s] >= kInf)
            cols.push_back(j);
    }
    if (cols.empty()) return ms;
    auto refuse = [&](int j, const char* why) {
        auto& r = p->results;
        r.mipstatus = TRVO_MIP_NO_SOL_FOUND;
        r.lpstatus = TRVO_LP_UNFINISHED;
        r.solvestatus = TRVO_SOLVESTATUS_FAILED;
        r.have_mip = r.have_lp = r.have_duals = false;
        fail("Semi-continuous column %s has no upper bound, and %s. Give the column a finite upper bound",
             p->colnames.get(j, 'C').c_str(), why);
    };
    HighsModel relax;
    formulate(p, false, relax);
    std::fill(relax.cost.begin(), relax.cost.end(), 0.0);
    relax.q_start.clear(); relax.q_index.clear(); relax.q_value.clear();
    relax.offset = 0;
    void* rh = highs_new_quiet();
    if (!rh) fail("Could not create a HiGHS instance");
    struct Release { void* h; ~Release() { highs_release(h); } } release{rh};
    set_options(p, rh, flags, false, threads);
    Highs_setBoolOptionValue(rh, "output_flag", 0);
    pass_model(rh, relax);
    bool within = true;
    std::vector<double> most(cols.size());
    for (size_t k = 0; k < cols.size(); ++k) {
        int j = cols[k];
        Highs_changeColCost(rh, j, -1.0);  // maximise the column
        Highs_zeroAllClocks(rh);
        Highs_run(rh);
        HighsInt rs = Highs_getModelStatus(rh);
        if (rs == kHighsModelStatusInfeasible) return kHighsModelStatusInfeasible;
        if (rs != kHighsModelStatusOptimal)
            refuse(j, "no finite bound for it follows from the constraints, so that HiGHS's limit of 1e5 may have "
                      "cut off the solution");
        double v = 0;
        Highs_getDoubleInfoValue(rh, "objective_function_value", &v);
        most[k] = std::max(-v, p->limit[static_cast<size_t>(cols[k])]);
        if (most[k] > kHighsSemiLimit || 10 * p->limit[static_cast<size_t>(j)] > kHighsSemiLimit) within = false;
        Highs_changeColCost(rh, j, 0.0);
    }
    if (within) return ms;
    // Solve again with the bounds found: the columns are then reformulated with binaries.
    struct Restore {
        TRVOprob p;
        const std::vector<int>& cols;
        std::vector<double> ub;
        ~Restore() { for (size_t k = 0; k < cols.size(); ++k) p->ub[static_cast<size_t>(cols[k])] = ub[k]; }
    } restore{p, cols, {}};
    for (size_t k = 0; k < cols.size(); ++k) {
        restore.ub.push_back(p->ub[static_cast<size_t>(cols[k])]);
        p->ub[static_cast<size_t>(cols[k])] = most[k];
    }
    formulate(p, true, model);
    pass_model(h, model);
    HighsInt rs = run(h);
    // Large bounds make weak reformulations: a column strictly between 0 and its threshold
    // means the binary was accepted as integral while it was not.
    HighsInt primal = 0;
    Highs_getIntInfoValue(h, "primal_solution_status", &primal);
    if (primal == kHighsSolutionStatusFeasible) {
        std::vector<double> cv(static_cast<size_t>(model.ncol)), cd(cv.size());
        std::vector<double> rv(static_cast<size_t>(model.nrow)), rd(rv.size());
        Highs_getSolution(h, cv.data(), cd.data(), rv.data(), rd.data());
        double tol = ctl_dbl(p, TRVO_FEASTOL);
        for (size_t k = 0; k < cols.size(); ++k) {
            double v = cv[static_cast<size_t>(cols[k])], L = p->limit[static_cast<size_t>(cols[k])];
            if (v > tol * std::max(1.0, L) && v < L * (1 - tol))
                refuse(cols[k], "the bound that follows for it from the constraints is too large for a reliable "
                                "reformulation");
        }
    }
    return rs;
}

void optimize(TRVOprob p, const char* flags, bool mip) {
    auto t0 = std::chrono::steady_clock::now();
    p->stop_request.store(0);
    // Result vectors of the wrong size are freed now and sized once HiGHS's run is over, so
    // they do not add to the run's peak.
    results_drop_unfit(p);
    Results& r = p->results;
    r.stopstatus = TRVO_STOP_NONE;
    r.simplexiter = r.bariter = r.nodes = r.mipsols = 0;
    // A MIP solve of a problem without entities is an LP solve reported as both.
    const bool mip_call = mip;
    if (mip) mip = has_entities(p);
    if (!mip_call && has_gencons(p))
        emit_message(p, "The LP relaxation leaves out the general and piecewise linear constraints; "
                        "solve the problem as a MIP to enforce them", 3);
    bool needs_search = false;
    std::string why = quadratic_obstacle(p, mip, &needs_search);
    if (!why.empty()) record_nonconvex(p, mip, why);
    const search::Hooks hooks = node_hooks(p);
    if (use_tree_search(p, mip, needs_search, hooks)) {
        require_served(p, SolvePath::TreeSearch);
        results_resize(p);
        optimize_by_search(p, mip_call, mip, hooks, t0);
        return;
    }
    require_served(p, SolvePath::Highs);

    HighsModel model;
    formulate(p, mip, model, true);  // borrowed entries: passed to HiGHS below, then released
    const bool scaled = scale_model(p, model);
    const int ncols_before = p->ncols(), nrows_before = p->nrows();

    SolveScope scope(static_cast<int>(ctl_int(p, TRVO_THREADS)), &p->stop_request);
    if (!p->highs) {
        p->highs = highs_new_quiet();
        if (!p->highs) fail("Could not create a HiGHS instance");
    }
    void* h = p->highs;
    // Keep the last basis for a warm start when the model keeps its shape.
    std::vector<HighsInt> cbasis, rbasis;
    bool keep = !model.discrete && ctl_int(p, TRVO_KEEPBASIS) != 0 &&
                p->highs_cols == model.ncol && p->highs_rows == model.nrow &&
                Highs_getNumCol(h) == model.ncol && Highs_getNumRow(h) == model.nrow;
    if (keep) {
        HighsInt valid = 0;
        Highs_getIntInfoValue(h, "basis_validity", &valid);
        keep = valid == kHighsBasisValidityValid;
        if (keep) {
            cbasis.resize(static_cast<size_t>(model.ncol));
            rbasis.resize(static_cast<size_t>(model.nrow));
            keep = Highs_getBasis(h, cbasis.data(), rbasis.data()) != kHighsStatusError;
        }
    }
    auto ctx_owner = std::make_shared<SolveContext>();
    SolveContext& ctx = *ctx_owner;
    ctx.prob = p;
    if (mip) ctx.maxsol = ctl_int(p, TRVO_MAXMIPSOL);
    ctx.callbacks.reset(new SolveCallbacks(p, mip, model));
    set_options(p, h, flags, mip, scope.used, ctx.callbacks->needs_output());
    if (scaled) Highs_setIntOptionValue(h, "simplex_scale_strategy", 0);  // the user's factors instead
    check(Highs_setCallback(h, highs_callback, &ctx), "install its callback");
    Highs_startCallback(h, kHighsCallbackLogging);
    Highs_startCallback(h, kHighsCallbackSimplexInterrupt);
    Highs_startCallback(h, kHighsCallbackIpmInterrupt);
    Highs_startCallback(h, kHighsCallbackMipInterrupt);
    if (mip) Highs_startCallback(h, kHighsCallbackMipImprovingSolution);
    ctx.callbacks->start(h);
    struct CallbackOff {
        void* h;
        ~CallbackOff() { stop(); }
        void stop() {
            if (!h) return;  // the run was abandoned with its instance
            Highs_stopCallback(h, kHighsCallbackLogging);
            Highs_stopCallback(h, kHighsCallbackSimplexInterrupt);
            Highs_stopCallback(h, kHighsCallbackIpmInterrupt);
            Highs_stopCallback(h, kHighsCallbackMipInterrupt);
            Highs_stopCallback(h, kHighsCallbackMipImprovingSolution);
            Highs_stopCallback(h, kHighsCallbackMipLogging);
            Highs_stopCallback(h, kHighsCallbackCallbackMipUserSolution);
            Highs_setCallback(h, nullptr, nullptr);
        }
    } off{h};
    // Borrowed entries must still be the store's: a message callback run while the solve was
    // set up may have changed the problem.
    if (model.a_index_view && (model.a_index_view != p->matrix.cols() || model.a_value_view != p->matrix.values() ||
                               model.nnz_view != p->matrix.nnz() || !p->matrix.packed()))
        fail("The problem was changed while its solve was being set up");
    pass_model(h, model);
    model.release_arrays();
    p->highs_cols = model.ncol;
    p->highs_rows = model.nrow;
    p->highs_has_lp = !mip && model.ncol == p->ncols() && model.nrow == p->nrows();
    if (!mip && !p->start_cbasis.empty() && p->highs_has_lp &&
        p->start_cbasis.size() == static_cast<size_t>(model.ncol) &&
        p->start_rbasis.size() == static_cast<size_t>(model.nrow)) {
        // A basis loaded by the user takes the place of the kept one.
        cbasis.assign(p->start_cbasis.begin(), p->start_cbasis.end());
        rbasis.assign(p->start_rbasis.begin(), p->start_rbasis.end());
        keep = true;
    }
    p->start_cbasis.clear();
    p->start_rbasis.clear();
    if (keep) Highs_setBasis(h, cbasis.data(), rbasis.data());
    if (mip && !p->mip_start.empty()) {
        std::vector<HighsInt> idx;
        std::vector<double> val;
        for (const auto& e : p->mip_start)
            if (e.first < p->ncols()) {
                idx.push_back(e.first);
                val.push_back(e.second);
            }
        Highs_setSparseSolution(h, static_cast<HighsInt>(idx.size()), idx.data(), val.data());
        p->mip_start.clear();
    }

    HighsInt ms = kHighsModelStatusNotset;
    if (!run_watched(p, h, ctx_owner, scope.used, &ms)) {
        off.h = nullptr;
        r.stopstatus = p->stop_request.load() ? p->stop_request.load() : TRVO_STOP_USER;
        r.solvestatus = TRVO_SOLVESTATUS_STOPPED;
        r.have_lp = r.have_mip = r.have_duals = false;
        if (mip) r.mipstatus = TRVO_MIP_NO_SOL_FOUND;
        r.lpstatus = TRVO_LP_UNFINISHED;
        r.time = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        emit_message(p, "The optimiser did not stop when asked: its run was abandoned", 3, TRVO_MSG_ABANDONED);
        p->stop_request.store(0);
        return;
    }
    flush_line(ctx, 1);
    ctx.callbacks->finish();
    if (p->ncols() != ncols_before ||
        p->nrows() != nrows_before)
        fail("The problem was changed during its solve (columns or rows added or deleted by a callback); "
             "its results are not available");
    // The run is over: the results take their room now (HiGHS's working memory is freed).
    results_fit(p);
    {
        // Read before a crossover run of the engine's own resets HiGHS's counts.
        HighsInt bar = 0;
        Highs_getIntInfoValue(h, "ipm_iteration_count", &bar);
        r.bariter = bar > 0 ? bar : 0;
    }
    if (mip) {
        ms = check_uncapped_semicontinuous(p, ms, flags, scope.used, h, model);
        p->highs_cols = model.ncol;
        p->highs_rows = model.nrow;
    } else {
        char solver[16] = {0};
        Highs_getStringOptionValue(h, "solver", solver);
        if (std::strcmp(solver, "ipm") == 0) {
            // The interior run that needed the solve's callbacks is over: crossover runs on
            // this thread without them.
            off.stop();
            ms = finish_barrier(p, h, model, ms);
        }
    }

    HighsInt it = 0;
    Highs_getIntInfoValue(h, "simplex_iteration_count", &it);
    r.simplexiter = it > 0 ? it : 0;
    r.stopstatus = stop_reason(p, ms, mip, h);
    if (ms == kHighsModelStatusSolveError || ms == kHighsModelStatusPresolveError ||
        ms == kHighsModelStatusPostsolveError || ms == kHighsModelStatusUnknown) {
        r.solvestatus = TRVO_SOLVESTATUS_FAILED;
    } else {
        r.solvestatus = r.stopstatus ? TRVO_SOLVESTATUS_STOPPED : TRVO_SOLVESTATUS_COMPLETED;
    }

    const size_t n = static_cast<size_t>(p->ncols());
    const size_t m = static_cast<size_t>(p->nrows());
    std::vector<double> cv(static_cast<size_t>(model.ncol)), cd(static_cast<size_t>(model.ncol));
    std::vector<double> rv(static_cast<size_t>(model.nrow)), rd(static_cast<size_t>(model.nrow));
    HighsInt primal = 0, dual = 0;
    Highs_getIntInfoValue(h, "primal_solution_status", &primal);
    Highs_getIntInfoValue(h, "dual_solution_status", &dual);
    bool have_x = primal != kHighsSolutionStatusNone;
    if (have_x || dual != kHighsSolutionStatusNone)
        Highs_getSolution(h, cv.data(), cd.data(), rv.data(), rd.data());
    const bool proven = ms == kHighsModelStatusOptimal && ctx.improving == ctx.maxsol;
    if (mip && ctx.sol_limit && !proven && ctx.limit_x.size() == cv.size()) {
        // Stopped on the solution limit: the answer is the k-th solution, whatever HiGHS found
        // after it before it looked at the interrupt.
        cv = ctx.limit_x;
        have_x = true;
        primal = kHighsSolutionStatusFeasible;
        ms = kHighsModelStatusSolutionLimit;
        r.stopstatus = TRVO_STOP_SOLLIMIT;
        r.solvestatus = TRVO_SOLVESTATUS_STOPPED;
    }
    if (scaled) unscale_solution(p, model, cv.data(), cd.data(), rv.data(), rd.data());

    if (!mip) {
        switch (ms) {
            case kHighsModelStatusOptimal: case kHighsModelStatusModelEmpty:
                r.lpstatus = TRVO_LP_OPTIMAL; break;
            case kHighsModelStatusInfeasible: r.lpstatus = TRVO_LP_INFEAS; break;
            case kHighsModelStatusUnbounded: case kHighsModelStatusUnboundedOrInfeasible:
                r.lpstatus = TRVO_LP_UNBOUNDED; break;
            case kHighsModelStatusObjectiveBound: case kHighsModelStatusObjectiveTarget:
                r.lpstatus = TRVO_LP_CUTOFF; break;
            case kHighsModelStatusTimeLimit: case kHighsModelStatusIterationLimit:
            case kHighsModelStatusInterrupt: case kHighsModelStatusSolutionLimit:
                r.lpstatus = TRVO_LP_UNFINISHED; break;
            default: r.lpstatus = TRVO_LP_UNSOLVED; break;
        }
        r.have_lp = have_x;
        r.have_duals = have_x && dual != kHighsSolutionStatusNone;
        if (have_x) {
            r.x.assign(cv.begin(), cv.begin() + static_cast<long>(n));
            slacks_at(p, r.x.data(), r.slack.data());
            r.lpobjval = objective_at(p, r.x.data());
            r.objval = r.lpobjval;
        }
        if (r.have_duals) {
            for (size_t j = 0; j < n; ++j) r.dj[j] = model.sign * cd[j];
            for (size_t i = 0; i < m; ++i) r.dual[i] = model.sign * rd[i];
        }
        if (r.lpstatus == TRVO_LP_OPTIMAL) r.bestbound = r.lpobjval;
        if (mip_call) {
            switch (r.lpstatus) {
                case TRVO_LP_OPTIMAL: r.mipstatus = TRVO_MIP_OPTIMAL; break;
                case TRVO_LP_INFEAS: case TRVO_LP_CUTOFF: r.mipstatus = TRVO_MIP_INFEAS; break;
                case TRVO_LP_UNBOUNDED: r.mipstatus = TRVO_MIP_UNBOUNDED; break;
                default: r.mipstatus = have_x ? TRVO_MIP_SOLUTION : TRVO_MIP_NO_SOL_FOUND; break;
            }
            r.have_mip = have_x && (r.mipstatus == TRVO_MIP_OPTIMAL || r.mipstatus == TRVO_MIP_SOLUTION);
            if (r.have_mip) {
                r.mipx = r.x;
                r.mipslack = r.slack;
                r.mipobjval = r.mipbestobjval = r.lpobjval;
                r.mipsols = 1;
            }
        }
    } else {
        int64_t nodes = 0;
        Highs_getInt64InfoValue(h, "mip_node_count", &nodes);
        r.nodes = nodes > 0 ? nodes : 0;
        double bound = 0;
        Highs_getDoubleInfoValue(h, "mip_dual_bound", &bound);
        r.bestbound = model.sign * bound;
        bool feasible = have_x && primal == kHighsSolutionStatusFeasible;
        switch (ms) {
            case kHighsModelStatusOptimal: case kHighsModelStatusModelEmpty:
                r.mipstatus = feasible ? TRVO_MIP_OPTIMAL : TRVO_MIP_INFEAS; break;
            case kHighsModelStatusInfeasible: case kHighsModelStatusObjectiveBound:
                r.mipstatus = TRVO_MIP_INFEAS; break;
            case kHighsModelStatusUnbounded: case kHighsModelStatusUnboundedOrInfeasible:
                r.mipstatus = TRVO_MIP_UNBOUNDED; break;
            default:
                r.mipstatus = feasible ? TRVO_MIP_SOLUTION : TRVO_MIP_NO_SOL_FOUND; break;
        }
        // A solution no better than the cutoff does not count (presolve may have solved the
        // problem without HiGHS applying its objective bound).
        double cutoff = ctl_dbl(p, TRVO_MIPABSCUTOFF);
        if (feasible && std::fabs(cutoff) < 1e39) {
            double obj = objective_at(p, cv.data());
            double tol = 1e-9 * std::max(1.0, std::fabs(cutoff));
            if (p->objsense > 0 ? obj > cutoff + tol : obj < cutoff - tol) {
                feasible = false;
                if (r.mipstatus == TRVO_MIP_OPTIMAL) r.mipstatus = TRVO_MIP_INFEAS;
                else if (r.mipstatus == TRVO_MIP_SOLUTION) r.mipstatus = TRVO_MIP_NO_SOL_FOUND;
            }
        }
        r.have_mip = feasible;
        if (feasible) {
            r.mipsols = ctx.sol_limit ? ctx.maxsol : std::max<int64_t>(ctx.improving, 1);
            r.mipx.assign(cv.begin(), cv.begin() + static_cast<long>(n));
            // Integer columns are reported at their integer values.
            for (size_t j = 0; j < n; ++j) {
                char t = p->coltype[j];
                if (t == 'I' || t == 'B' || t == 'R') {
                    double rv2 = std::round(r.mipx[j]);
                    if (std::fabs(rv2 - r.mipx[j]) <= ctl_dbl(p, TRVO_MIPTOL)) r.mipx[j] = rv2;
                }
            }
            slacks_at(p, r.mipx.data(), r.mipslack.data());
            r.mipobjval = objective_at(p, r.mipx.data());
            r.mipbestobjval = r.mipobjval;
            r.objval = r.mipobjval;
        }
        if (r.mipstatus == TRVO_MIP_OPTIMAL) {
            // HiGHS's dual bound stays the bound: after a stop on the gap tolerances it is below
            // the objective (minimising), and the gap is the stop reason. A gap within the
            // relaxations' accuracy is none.
            const double eps = std::max(1e-9, ctl_dbl(p, TRVO_OPTIMALITYTOL)) * std::max(1.0, std::fabs(r.mipobjval));
            const double gap = p->objsense > 0 ? r.mipobjval - r.bestbound : r.bestbound - r.mipobjval;
            if (!std::isfinite(r.bestbound) || gap <= eps) r.bestbound = r.mipobjval;
            else if (r.stopstatus == TRVO_STOP_NONE) r.stopstatus = TRVO_STOP_MIPGAP;
        }
        r.lpstatus = r.mipstatus == TRVO_MIP_INFEAS       ? TRVO_LP_INFEAS
                     : r.mipstatus == TRVO_MIP_UNBOUNDED ? TRVO_LP_UNBOUNDED
                                                         : TRVO_LP_OPTIMAL;
    }
    if (scaled && p->highs_has_lp) unscaled_basis_instance(p, h);
    r.time = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    p->stop_request.store(0);
}

}  // namespace
}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOlpoptimize(TRVOprob prob, const char* flags) {
    return guard(prob, [&] { optimize(prob, flags, false); });
}

int TRVOmipoptimize(TRVOprob prob, const char* flags) {
    return guard(prob, [&] { optimize(prob, flags, true); });
}

}  // extern "C"
