// Mixed-integer nonlinear problems: NLP-based branch-and-bound on the engine's tree search.
//
// Every node's relaxation (integers relaxed, the node's bounds on the columns) is solved by the
// SLP, started from the solution of the node's parent. The search branches on integer columns
// whose relaxed value is fractional, bounded or not, and keeps the best integral solution.
// On a problem the curvature analysis proves convex, each node's local optimum is its global
// one, so the node bounds are valid and the search ends with the global optimum. On any other
// problem the node bounds are those of local optima only: the search is a heuristic that
// returns the best local solution it found, and says so. The solution returned is polished by a
// last SLP run with the integers fixed, which also gives its multipliers.
#include "engine/slp/minlp.h"
#include "engine/slp/callbacks.h"
#include "engine/search/node_solver.h"
#include "engine/search/search.h"

#include <cxxabi.h>
#include <algorithm>
#include <cmath>
#include <memory>

namespace slp {
namespace {

using trvo::search::NodeSolver;

bool integer_type(char t) { return t == 'I' || t == 'B'; }

bool usable(const RunResult& r) {
    return r.status == TSLP_NLP_LOCALLY_OPTIMAL || r.status == TSLP_NLP_GLOBALLY_OPTIMAL;
}

double to_model_bound(double v) {
    if (v == -INFINITY) return -TRVO_INFINITY;
    if (v == INFINITY) return TRVO_INFINITY;
    return v;
}

// A result at the point x without a run: objective, violation and slacks, no multipliers.
RunResult result_at(TSLPprob prob, const Model& m, const std::vector<double>& x) {
    RunResult res;
    Evaluator E(prob, m);
    res.sol.x = x;
    res.sol.slack.assign(m.nrows, 0.0);
    res.sol.dual.assign(m.nrows, 0.0);
    res.sol.dj.assign(m.ncols, 0.0);
    res.sol.rows.assign(m.nrows, RowInfo());
    res.sol.cols.assign(m.ncols, ColInfo());
    for (int r = 0; r < m.nrows; ++r) {
        double a = 0;
        E.row_value(r, x.data(), &a);
        res.sol.slack[r] = m.rhs[r] - a;
    }
    res.objval = E.objective(x.data(), nullptr);
    res.maxviolation = max_violation(E, m, x.data());
    return res;
}

// Makes s the problem's current solution while the search runs, so that callbacks can read it
// (the problem's own columns and rows only); the status stays unfinished until the search ends.
void publish_solution(TSLPprob prob, Solution s) {
    const int nc = host_cols(prob), nr = host_rows(prob);
    if ((int)s.x.size() > nc) s.x.resize(nc), s.dj.resize(nc), s.cols.resize(nc);
    if ((int)s.slack.size() > nr) s.slack.resize(nr), s.dual.resize(nr), s.rows.resize(nr);
    prob->sol = std::move(s);
    prob->nlpstatus = TSLP_NLP_UNFINISHED;
}

// Node relaxations by SLP on the model with its integer columns made continuous.
class SlpNodes : public NodeSolver {
public:
    SlpNodes(TSLPprob p, const Model& m, const std::vector<double>& x0, double sense)
        : prob_(p), relaxed_(m), E_(p, m), sense_(sense), warm_(x0) {
        for (char& t : relaxed_.coltype)
            if (integer_type(t)) t = 'C';
    }

    Result solve(const std::vector<double>& lo, const std::vector<double>& up, double cutoff,
                 std::vector<double>& x, double& objective) override {
        const int n = relaxed_.ncols;
        std::vector<double> blo = lo, bup = up;
        if (oa_) {
            switch (oa_->check(blo, bup, cutoff)) {
            case OuterApproximation::Infeasible: return Infeasible;
            case OuterApproximation::Cutoff: return Cutoff;
            case OuterApproximation::Open: break;
            }
        }
        for (int j = 0; j < n; ++j) {
            relaxed_.lb[j] = to_model_bound(blo[j]);
            relaxed_.ub[j] = to_model_bound(bup[j]);
        }
        std::vector<double> x0 = warm_;
        x0.resize(n, 0.0);
        for (int j = 0; j < n; ++j) x0[j] = std::min(std::max(x0[j], blo[j]), bup[j]);
        RunResult r;
        try {
            r = run_slp(prob_, relaxed_, x0);
        } catch (abi::__forced_unwind&) {
            throw;
        } catch (const std::exception& e) {
            // Formulas that cannot be evaluated in the node's box: nothing is known of it.
            logf(prob_, 2, "A node relaxation could not be solved: %s", e.what());
            ++inexact_;
            return Infeasible;
        }
        iterations_ += r.iter;
        switch (r.status) {
        case TSLP_NLP_LOCALLY_OPTIMAL:
        case TSLP_NLP_GLOBALLY_OPTIMAL:
            break;
        case TSLP_NLP_LOCALLY_INFEASIBLE:
        case TSLP_NLP_INFEASIBLE:
            return Infeasible;
        case TSLP_NLP_UNBOUNDED:
            return Unbounded;
        default:
            if (prob_->interrupt.load() || r.stopstatus == TRVO_STOP_TIMELIMIT) return Limit;
            // The run did not converge: its point, when feasible, is a solution of the node
            // but its objective no bound.
            ++inexact_;
            if (r.maxviolation > dbl_control(prob_, TSLP_FEASTOL)) return Infeasible;
            break;
        }
        x = r.sol.x;
        x.resize(n);
        last_ = std::move(r.sol);
        objective = sense_ * r.objval;
        warm_ = x;
        if (oa_) oa_->add_point(x.data());
        return Optimal;
    }

    std::vector<double> warm_start() const override { return warm_; }
    void set_warm_start(const std::vector<double>& x) override {
        if (!x.empty()) warm_ = x;
    }
    double objective(const double* x) override { return sense_ * E_.objective(x, nullptr); }
    double max_violation(const double* x) override { return slp::max_violation(E_, relaxed_, x); }
    int64_t iterations() const override { return iterations_; }
    const char* name() const override { return "SLP"; }

    // The curvature of the problem (m: with its integer columns) decides which rows give cuts.
    void attach(const Model& m, Convexity cvx) {
        cvx_ = std::move(cvx);
        oa_ = std::make_unique<OuterApproximation>(prob_, m, E_, cvx_, sense_);
        if (!oa_->active()) oa_.reset();
    }
    const Convexity& convexity() const { return cvx_; }
    void log_summary() const {
        if (oa_) oa_->log_summary();
    }

    int inexact() const { return inexact_; }
    // Makes the last node solution the problem's current solution, so that the node callbacks
    // can read it (the problem's own columns and rows only); the run's status is unfinished
    // until the search ends.
    void publish() {
        if (!last_.x.empty()) publish_solution(prob_, last_);
    }
    const Evaluator& evaluator() const { return E_; }

private:
    TSLPprob prob_;
    Model relaxed_;
    Evaluator E_;
    double sense_;
    std::vector<double> warm_;
    int64_t iterations_ = 0;
    int inexact_ = 0;
    Solution last_;
    Convexity cvx_;
    std::unique_ptr<OuterApproximation> oa_;
};

trvo::search::Model search_model(const Model& m, const Evaluator& E, double sense) {
    trvo::search::Model sm;
    trvo::HighsModel& lp = sm.lp;
    lp.ncol = m.ncols;
    lp.nrow = m.nrows;
    lp.sign = sense;
    lp.offset = sense * m.objconst;
    lp.discrete = true;
    for (int j = 0; j < m.ncols; ++j) {
        lp.cost.push_back(sense * m.obj[j]);
        lp.col_lower.push_back(m.lb[j] <= -TRVO_INFINITY ? -INFINITY : m.lb[j]);
        lp.col_upper.push_back(m.ub[j] >= TRVO_INFINITY ? INFINITY : m.ub[j]);
        lp.integrality.push_back(integer_type(m.coltype[j]) ? kHighsVarTypeInteger : kHighsVarTypeContinuous);
    }
    // The linear rows are checked by the search itself; the nonlinear ones are left free
    // there and checked by the node solver.
    for (int r = 0; r < m.nrows; ++r) {
        double lo = -INFINITY, up = INFINITY;
        if (E.nlpos[r] < 0) row_bounds(m, r, &lo, &up);
        lp.row_lower.push_back(lo);
        lp.row_upper.push_back(up);
        lp.a_start.push_back(static_cast<HighsInt>(lp.a_index.size()));
        for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e) {
            lp.a_index.push_back(m.rcol[e]);
            lp.a_value.push_back(m.rval[e]);
        }
    }
    return sm;
}

const char* stop_name(int reason) {
    switch (reason) {
    case TRVO_STOP_TIMELIMIT: return "the time limit";
    case TRVO_STOP_NODELIMIT: return "the node limit";
    case TRVO_STOP_SOLLIMIT: return "the solution limit";
    case TRVO_STOP_USER: return "the user";
    case TRVO_STOP_CTRLC: return "Ctrl-C";
    }
    return "a limit";
}

}  // namespace

bool needs_tree_search(TSLPprob prob, const Model& m) {
    if (prob->cb.slpnode.f || prob->cb.optnode.f || prob->cb.prenode.f) return true;
    for (char t : m.coltype)
        if (integer_type(t)) return true;
    return false;
}

RunResult solve_from(TSLPprob prob, const Model& m, const std::vector<double>& x0,
                     std::chrono::steady_clock::time_point start) {
    if (needs_tree_search(prob, m)) return solve_minlp(prob, m, x0, start);
    return run_slp(prob, m, x0);
}

RunResult solve_minlp(TSLPprob prob, const Model& m, const std::vector<double>& x0,
                      std::chrono::steady_clock::time_point start) {
    const double sense = dbl_control(prob, TSLP_OBJSENSE) < 0 ? -1.0 : 1.0;
    const double feastol = dbl_control(prob, TSLP_FEASTOL);
    auto nodes = std::make_shared<SlpNodes>(prob, m, x0, sense);
    nodes->attach(m, analyse_convexity(prob, m, nodes->evaluator()));
    const Convexity& cvx = nodes->convexity();
    if (cvx.convex) logf(prob, 1, "Mixed-integer nonlinear search: the problem is convex");
    else
        logf(prob, 1, "Mixed-integer nonlinear search: the problem is not proven convex (%d row%s%s); "
                      "node bounds are those of local optima",
             cvx.nonconvex_rows, cvx.nonconvex_rows == 1 ? "" : "s",
             cvx.objective_convex ? "" : " and the objective");

    trvo::search::Model sm = search_model(m, nodes->evaluator(), sense);
    sm.node_solver = nodes;

    trvo::search::Settings s;
    // Rounding the integers of a node's solution moves its rows by up to the integrality
    // tolerance; the last run with the integers fixed brings the solution back within feastol.
    s.feastol = 10 * feastol;
    s.optimalitytol = dbl_control(prob, TSLP_OPTIMALITYTOL);
    s.miptol = dbl_control(prob, TSLP_MIPTOL);
    double v = 0;
    int64_t maxnode = 0;
    if (prob->trvo) {
        if (TRVOgetdblcontrol(prob->trvo, TRVO_MIPRELSTOP, &v) == 0) s.miprelstop = v;
        if (TRVOgetdblcontrol(prob->trvo, TRVO_MIPABSSTOP, &v) == 0) s.mipabsstop = v;
        if (TRVOgetintcontrol64(prob->trvo, TRVO_MAXNODE, &maxnode) == 0 && maxnode > 0) s.maxnode = maxnode;
    }
    const double maxtime = dbl_control(prob, TSLP_MAXTIME);
    if (maxtime > 0) {
        s.maxtime = maxtime - std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (s.maxtime <= 0) s.maxtime = 1e-9;
    }
    s.stop = &prob->interrupt;
    s.log = [prob](const std::string& line) { logf(prob, 1, "%s", line.c_str()); };

    trvo::search::Hooks hooks;
    if (prob->cb.prenode.f)
        hooks.prenode = [prob](const trvo::search::NodeView&) {
            int feas = 0;
            prob->cb.prenode.f(prob, prob->cb.prenode.context, &feas);
            return feas != 0;
        };
    if (prob->cb.slpnode.f || prob->cb.optnode.f)
        hooks.optnode = [prob, nodes](const trvo::search::NodeView&) {
            // slpnode after the node's SLP has ended, then optnode; either may declare the
            // node infeasible. Both see the node's solution as the problem's solution.
            nodes->publish();
            if (prob->cb.slpnode.f && prob->cb.slpnode.f(prob, prob->cb.slpnode.context) != 0) return true;
            int feas = 0;
            if (prob->cb.optnode.f) prob->cb.optnode.f(prob, prob->cb.optnode.context, &feas);
            return feas != 0;
        };
    if (prob->cb.intsol.f)
        hooks.intsol = [prob, &m](const trvo::search::NodeView&, const double* x, double) {
            publish_solution(prob, result_at(prob, m, std::vector<double>(x, x + m.ncols)).sol);
            prob->cb.intsol.f(prob, prob->cb.intsol.context);
        };

    trvo::search::Outcome o = trvo::search::run(sm, s, hooks);
    nodes->log_summary();
    const bool proven = cvx.convex && o.exact && nodes->inexact() == 0;

    RunResult res;
    if (o.have_solution) {
        // Polish: the continuous problem with the integers fixed at the incumbent's values.
        Model fixed = m;
        for (int j = 0; j < m.ncols; ++j)
            if (integer_type(m.coltype[j])) {
                fixed.lb[j] = fixed.ub[j] = std::round(o.x[j]);
                fixed.coltype[j] = 'C';
            }
        // An interrupted search (user, Ctrl-C, a failing callback) returns at once.
        if (!prob->interrupt.load()) {
            try {
                res = run_slp(prob, fixed, o.x);
            } catch (abi::__forced_unwind&) {
                throw;
            } catch (const std::exception& e) {
                logf(prob, 1, "The final run with the integers fixed failed: %s", e.what());
                res = RunResult();
            }
        }
        const double tol = 1e-6 * (1.0 + std::fabs(o.objective));
        if (!usable(res) || res.maxviolation > feastol || sense * res.objval > o.objective + tol) {
            // Keep the search's own solution, with the rows' activities at it.
            const int iter = res.iter;
            res = result_at(prob, fixed, o.x);
            res.iter = iter;
        }
    }
    res.mipiter = static_cast<int>(std::min<int64_t>(nodes->iterations(), 1 << 30));
    res.iter += res.mipiter;
    res.stopstatus = 0;
    switch (o.status) {
    case trvo::search::Status::Optimal:
        res.status = proven ? TSLP_NLP_GLOBALLY_OPTIMAL : TSLP_NLP_LOCALLY_OPTIMAL;
        if (proven)
            logf(prob, 1, "Global optimum %.10g of the convex problem after %lld nodes", res.objval,
                 static_cast<long long>(o.nodes));
        else
            logf(prob, 1, "Best local solution found: %.10g after %lld nodes; not proven globally optimal (%s)",
                 res.objval, static_cast<long long>(o.nodes),
                 cvx.convex ? "some node relaxations did not converge" : "the problem is not proven convex");
        break;
    case trvo::search::Status::Infeasible:
        res.status = proven ? TSLP_NLP_INFEASIBLE : TSLP_NLP_LOCALLY_INFEASIBLE;
        logf(prob, 1, proven ? "The convex problem has no integer feasible solution"
                             : "No integer feasible solution found (not proven infeasible)");
        break;
    case trvo::search::Status::Unbounded:
        res.status = TSLP_NLP_UNBOUNDED;
        break;
    case trvo::search::Status::Stopped:
        res.stopstatus = o.stop_reason;
        if (o.stop_reason == 0) {
            // Ended without a proof: nodes that could not be resolved.
            res.status = o.have_solution ? TSLP_NLP_SOLUTION : TSLP_NLP_UNFINISHED;
            logf(prob, 1, "The search ended without a proof of optimality");
        } else {
            res.status = o.have_solution ? TSLP_NLP_SOLUTION : TSLP_NLP_UNFINISHED;
            if (o.have_solution)
                logf(prob, 1, "Search stopped by %s after %lld nodes: best solution %.10g, bound %.10g%s",
                     stop_name(o.stop_reason), static_cast<long long>(o.nodes), res.objval, sense * o.bound,
                     cvx.convex ? "" : " (bound of local optima only)");
            else
                logf(prob, 1, "Search stopped by %s after %lld nodes without a solution", stop_name(o.stop_reason),
                     static_cast<long long>(o.nodes));
        }
        break;
    case trvo::search::Status::Failed:
        throw Error("The mixed-integer nonlinear search failed: " + o.message);
    }
    if (!o.have_solution) {
        // No solution: report the start, as a continuous run that found nothing does.
        std::vector<double> x = x0;
        x.resize(m.ncols, 0.0);
        RunResult at = result_at(prob, m, x);
        res.sol = std::move(at.sol);
        res.objval = at.objval;
        res.maxviolation = at.maxviolation;
    }
    return res;
}

}  // namespace slp
