// Solving: TSLPnlpoptimize and the solution queries.
#include "engine/slp/minlp.h"
#include "engine/slp/multistart.h"
#include "engine/slp/callbacks.h"
#include "engine/slp/presolve.h"

#include <chrono>
#include <cmath>

namespace slp {

void store_result(TSLPprob prob, RunResult&& r) {
    prob->nlpstatus = r.status;
    prob->stopstatus = r.stopstatus;
    prob->objval = r.objval;
    prob->maxviolation = r.maxviolation;
    prob->errorcosts = r.errorcosts;
    prob->currentpenalty = r.penalty;
    prob->kktresidual = r.kkt;
    prob->iter = r.iter;
    prob->simplexiter = r.simplexiter;
    prob->mipiter = r.mipiter;
    prob->penaltyerrors = r.penaltyerrors;
    prob->sol = std::move(r.sol);
    for (size_t j = 0; j < prob->sol.x.size(); ++j) {
        auto it = prob->vars.find((int)j);
        if (it != prob->vars.end()) {
            it->second.value = prob->sol.x[j];
            it->second.stepbound = prob->sol.cols[j].stepbound;
        }
    }
}

const char* status_name(int s) {
    switch (s) {
    case TSLP_NLP_LOCALLY_OPTIMAL: return "locally optimal";
    case TSLP_NLP_GLOBALLY_OPTIMAL: return "globally optimal";
    case TSLP_NLP_LOCALLY_INFEASIBLE: return "locally infeasible";
    case TSLP_NLP_INFEASIBLE: return "infeasible";
    case TSLP_NLP_UNBOUNDED: return "unbounded";
    case TSLP_NLP_UNFINISHED: return "unfinished";
    }
    return "unstarted";
}

// The time profile of the solve that just ended, in milliseconds by phase.
void log_profile(TSLPprob prob) {
    Profile& p = prob->profile;
    if (!p.on) return;
    p.end();
    const double* t = p.secs;
    logf(prob, 2,
         "Time profile (CPU ms): read %.4f, compile %.4f, start %.4f, highs setup %.4f, evaluation %.4f, "
         "step update %.4f, step solve %.4f, kkt %.4f, results %.4f, teardown %.4f, log %.4f, "
         "iteration logic %.4f; step problems %ld",
         1e3 * t[PH_READ], 1e3 * t[PH_COMPILE], 1e3 * t[PH_START], 1e3 * t[PH_HIGHS_SETUP], 1e3 * t[PH_EVAL],
         1e3 * t[PH_UPDATE], 1e3 * t[PH_HIGHS_SOLVE], 1e3 * t[PH_KKT], 1e3 * t[PH_RESULT],
         1e3 * t[PH_TEARDOWN], 1e3 * t[PH_LOG], 1e3 * t[PH_ENGINE], p.solves);
}

void optimize(TSLPprob prob, bool global) {
    auto t0 = std::chrono::steady_clock::now();
    prob->interrupt.store(0);
    prob->mswinner = 0;
    bool jobs = !prob->msjobs.empty() && int_control(prob, TSLP_MULTISTART);
    // Multistart jobs may run on several threads: only a single run keeps a time profile.
    struct ProfileEnd {
        Profile& p;
        ~ProfileEnd() { p.end(); }
    } profile_end{prob->profile};
    if (int_control(prob, TSLP_LOG) >= 2 && !global && !jobs) prob->profile.begin();
    Model m;
    int ncols, nrows;
    {
        PhaseScope timed(prob->profile, PH_READ);
        m = read_model(prob);
        ncols = m.ncols;
        nrows = m.nrows;
        reformulate_entities(prob, m);
        apply_dfs(prob, m);
        if (int_control(prob, TSLP_PRESOLVE)) {
            PresolveSummary ps = presolve_model(prob, m);
            if (ps.fixed || ps.dropped || ps.linearised || ps.tightened) log_presolve(prob, 2, ps);
        }
    }
    prob->state |= TSLP_STATE_CONSTRUCTED;
    if (prob->cb.slpstart.f) prob->cb.slpstart.f(prob, prob->cb.slpstart.context);
    struct End {
        TSLPprob p;
        ~End() {
            if (p->cb.slpend.f) p->cb.slpend.f(p, p->cb.slpend.context);
        }
    } end{prob};
    RunResult r;
    if (global || jobs) r = run_multistart(prob, m, global);
    else r = solve_from(prob, m, initial_point(prob, m), t0);
    {
        PhaseScope timed(prob->profile, PH_RESULT);
        // Columns and rows the reformulation of entities added are not the problem's own.
        Solution& s = r.sol;
        if ((int)s.x.size() > ncols) s.x.resize(ncols), s.dj.resize(ncols), s.cols.resize(ncols);
        if ((int)s.slack.size() > nrows) s.slack.resize(nrows), s.dual.resize(nrows), s.rows.resize(nrows);
        store_result(prob, std::move(r));
    }
    prob->time = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (!int_control(prob, TSLP_POSTSOLVE)) prob->state |= TSLP_STATE_PRESOLVED;
    logf(prob, 1, "Nonlinear solve: %s, objective %.10g, %d iterations, %.3fs", status_name(prob->nlpstatus),
         prob->objval, prob->iter, prob->time);
    log_profile(prob);
}

}  // namespace slp

using slp::guard;
using slp::Error;

extern "C" {

int TSLPnlpoptimize(TSLPprob prob, const char* flags) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::optimize(prob, false);
    });
}

int TSLPglobal(TSLPprob prob) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::optimize(prob, true);
    });
}

int TSLPgetslpsol(TSLPprob prob, double x[], double slack[], double dual[], double dj[]) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        int nr = slp::host_rows(prob), nc = slp::host_cols(prob);
        const slp::Solution& s = prob->sol;
        bool have = prob->nlpstatus != TSLP_NLP_UNSTARTED && (int)s.x.size() == nc && (int)s.slack.size() == nr;
        if (!have && (x || slack || dual || dj)) throw Error("No nonlinear solution is available");
        for (int j = 0; j < nc; ++j) {
            if (x) x[j] = s.x[j];
            if (dj) dj[j] = s.dj[j];
        }
        for (int i = 0; i < nr; ++i) {
            if (slack) slack[i] = s.slack[i];
            if (dual) dual[i] = s.dual[i];
        }
    });
}

int TSLPgetrowinfo(TSLPprob prob, int infotype, int row, int* tag, int* ivalue, double* dvalue) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        const slp::Solution& s = prob->sol;
        if (row < 0 || row >= (int)s.rows.size()) throw Error("No solution information for row " + std::to_string(row));
        const slp::RowInfo& r = s.rows[row];
        int t = 2, iv = 0;
        double dv = 0.0;
        switch (infotype) {
        case TSLP_ROWINFO_SLACK: dv = s.slack[row]; break;
        case TSLP_ROWINFO_DUAL: dv = s.dual[row]; break;
        case TSLP_ROWINFO_NUMPENALTYERRORS: t = 1; iv = r.numerrors; break;
        case TSLP_ROWINFO_MAXPENALTYERROR: dv = r.maxerror; break;
        case TSLP_ROWINFO_TOTALPENALTYERROR: dv = r.totalerror; break;
        case TSLP_ROWINFO_CURRENTPENALTYERROR: dv = r.currenterror; break;
        case TSLP_ROWINFO_CURRENTPENALTYFACTOR: dv = r.penaltyfactor; break;
        case TSLP_ROWINFO_PENALTYCOLUMNPLUS: t = 1; iv = r.pluscol; break;
        case TSLP_ROWINFO_PENALTYCOLUMNPLUSVALUE: dv = r.plusvalue; break;
        case TSLP_ROWINFO_PENALTYCOLUMNPLUSDJ: dv = r.plusdj; break;
        case TSLP_ROWINFO_PENALTYCOLUMNMINUS: t = 1; iv = r.minuscol; break;
        case TSLP_ROWINFO_PENALTYCOLUMNMINUSVALUE: dv = r.minusvalue; break;
        case TSLP_ROWINFO_PENALTYCOLUMNMINUSDJ: dv = r.minusdj; break;
        default: throw Error("Unknown row information kind " + std::to_string(infotype));
        }
        if (tag) *tag = t;
        if (ivalue) *ivalue = iv;
        if (dvalue) *dvalue = t == 2 ? dv : (double)iv;
    });
}

int TSLPgetcolinfo(TSLPprob prob, int infotype, int col, int* tag, int* ivalue, double* dvalue) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        const slp::Solution& s = prob->sol;
        if (col < 0 || col >= (int)s.cols.size()) throw Error("No solution information for column " + std::to_string(col));
        const slp::ColInfo& c = s.cols[col];
        int t = 2, iv = 0;
        double dv = 0.0;
        switch (infotype) {
        case TSLP_COLINFO_VALUE: dv = s.x[col]; break;
        case TSLP_COLINFO_RDJ: dv = c.rdj; break;
        // The step problem works on the columns themselves: a column's delta is its own column.
        case TSLP_COLINFO_DELTAINDEX: t = 1; iv = c.slpvar ? col : -1; break;
        case TSLP_COLINFO_DELTA: dv = c.delta; break;
        case TSLP_COLINFO_DELTADJ: dv = c.slpvar ? c.rdj : 0.0; break;
        case TSLP_COLINFO_UPDATEROW: t = 1; iv = -1; break;
        case TSLP_COLINFO_SB: dv = c.stepbound; break;
        case TSLP_COLINFO_SBDUAL: dv = c.sbdual; break;
        default: throw Error("Unknown column information kind " + std::to_string(infotype));
        }
        if (tag) *tag = t;
        if (ivalue) *ivalue = iv;
        if (dvalue) *dvalue = t == 2 ? dv : (double)iv;
    });
}

}  // extern "C"
