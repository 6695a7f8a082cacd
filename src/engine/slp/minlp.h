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
};
Convexity analyse_convexity(TSLPprob prob, const Model& m, const Evaluator& E);

}  // namespace slp
