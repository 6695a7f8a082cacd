// Mixed-integer nonlinear problems: NLP-based branch-and-bound on the engine's tree search,
// with SLP node relaxations (minlp.cpp) and a curvature analysis that decides whether the
// problem is convex, so that the search's result is a proven global optimum (minlp_convexity.cpp).
#pragma once

#include "engine/slp/solver.h"

#include <chrono>

namespace slp {

// Whether the run goes through the tree search: integer columns (after the reformulation of
// entities), or a node callback that only the search calls.
bool needs_tree_search(TSLPprob prob, const Model& m);

// One solve from x0: the tree search when needs_tree_search, else one SLP run.
RunResult solve_from(TSLPprob prob, const Model& m, const std::vector<double>& x0,
                     std::chrono::steady_clock::time_point start);

// Branch-and-bound from the start x0; the nonlinear time limit counts from start.
RunResult solve_minlp(TSLPprob prob, const Model& m, const std::vector<double>& x0,
                      std::chrono::steady_clock::time_point start);

// Curvature of the problem over the columns' bounds lo, up, integers relaxed.
struct Convexity {
    bool convex = false;        // every row and the objective proven convex
    int nonconvex_rows = 0;     // rows not proven convex on their finite sides
    bool objective_convex = true;
    std::vector<char> row_convex;   // per row: linear, or proven convex on its finite sides
    // Per nonlinear row whose linearisations are valid everywhere: 1 for a convex g <= up, -1
    // for a concave g >= lo (a nonlinear objective's transfer row on its objective side); else 0.
    std::vector<signed char> row_side;
};

// Outer approximation of the rows proven convex: their tangent cuts at node solutions, kept in
// one LP with the linear rows. Before a node's SLP runs, the LP over the node's bounds may show
// the node infeasible, or (with a linear objective that bounds the problem's) no better than
// the cutoff, and its reduced costs tighten the integer columns' bounds for the node's run.
class OuterApproximation {
public:
    OuterApproximation(TSLPprob prob, const Model& m, Evaluator& E, const Convexity& cvx, double sense);
    ~OuterApproximation();
    OuterApproximation(const OuterApproximation&) = delete;
    OuterApproximation& operator=(const OuterApproximation&) = delete;

    bool active() const { return h_ != nullptr; }
    // Adds the tangent cuts at x of the convex rows that x does not satisfy strictly.
    void add_point(const double* x);
    enum Check { Open, Infeasible, Cutoff };
    // lo, up: the node's column bounds (infinite as +-inf), tightened in place when Open.
    Check check(std::vector<double>& lo, std::vector<double>& up, double cutoff);
    void log_summary() const;

private:
    TSLPprob prob_;
    const Model& m_;
    Evaluator& E_;
    const Convexity& cvx_;
    double sense_;
    bool bound_ = false;   // the LP's objective is a lower bound on the problem's
    void* h_ = nullptr;
    int ncuts_ = 0, closed_ = 0, tightened_ = 0;
};
Convexity analyse_convexity(TSLPprob prob, const Model& m, const Evaluator& E);

}  // namespace slp
