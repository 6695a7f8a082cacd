// The engine's own branch-and-bound search, for what HiGHS's MIP solver cannot take: convex
// quadratic objectives with integers, convex quadratic rows (with or without integers), and
// models whose user wants to see or steer the search node by node.
//
// The model is always a minimisation in the columns and rows of a HiGHS model (see formulate.h);
// the caller maps results back. Node relaxations run on one persistent HiGHS instance: an LP, or
// a QP when the objective has a Hessian. Quadratic rows are relaxed by outer approximation:
// linearisations at relaxation solutions, valid everywhere because each row is convex on its
// finite side, are kept as cut rows in that instance until every quadratic row is satisfied to
// the feasibility tolerance. The same loop solves a continuous model with quadratic rows at the
// root.
#pragma once

#include "engine/optimizer/formulate.h"

#include <atomic>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace trvo {
namespace search {

// A quadratic row lo <= a'x + x'Qx <= up of the model, with exactly one finite side, on which
// the row is convex (Q positive semidefinite for up, negative semidefinite for lo). Q is given by
// its upper triangle: entry (i, j, v) with i < j stands for v x_i x_j twice.
struct QuadRow {
    int row = -1;  // the model row holding it (its linear part; the row itself is left free)
    std::vector<std::pair<int, double>> lin;
    std::vector<std::pair<std::pair<int, int>, double>> quad;
    double lo = -INFINITY, up = INFINITY;
};

class NodeSolver;  // node_solver.h

struct Model {
    HighsModel lp;  // integrality marks the integer columns; q_* the convex objective Hessian
    std::vector<QuadRow> qrows;
    // Per row (empty: none): 1 a delayed row, 2 a model cut; both stay out of the relaxation
    // until a solution violates them (cuts.h).
    std::vector<char> lazy;
    // Solves the node relaxations instead of HiGHS when set (mixed-integer nonlinear problems).
    std::shared_ptr<NodeSolver> node_solver;
    // The user's scaling factors of the first columns and rows (empty: none; columns and rows
    // beyond them are unscaled). The HiGHS relaxation holds the model scaled by them (column j
    // stands for x_j / col_scale[j], row i is multiplied by row_scale[i]); everything the search
    // sees stays in the model's own units (relaxation.cpp).
    std::vector<double> col_scale, row_scale;
};

class NodeCuts;

// What a hook sees of the node being processed.
struct NodeView {
    int64_t node = 0, parent = 0;
    int depth = 0;
    const double* lower = nullptr;  // the node's column bounds, once set
    const double* upper = nullptr;
    const double* x = nullptr;  // the node's relaxation solution (model columns), when solved
    double objective = 0;       // its relaxation objective
    double cutoff = INFINITY;   // the current cutoff
};

// A row lo <= a'x <= up that a branch adds to its child node and the child's subtree.
struct BranchRow {
    std::vector<int> idx;
    std::vector<double> val;
    double lo = -INFINITY, up = INFINITY;
};

// A branching decision: the children, each a list of column bound changes.
struct Branch {
    struct Bound {
        int col;
        double lo, up;
    };
    std::vector<std::vector<Bound>> children;
    int col = -1;        // the column branched on (-1 when the object was replaced)
    double value = 0;    // its relaxation value
    std::vector<std::vector<BranchRow>> rows;  // rows of each child (empty: none)
    // Cut rows (keys of the search's NodeCuts) each child and its subtree start with (empty: none).
    std::vector<std::vector<int>> cuts;
    int preferred = -1;  // the child explored first (-1: the search's choice)
};

// Branching directives in model columns (empty vectors: none; branching.cpp).
struct Directives {
    std::vector<int> priority;        // lower is branched first
    std::vector<signed char> dir;     // +1 up child first, -1 down child first, 0 no preference
    std::vector<double> up_pc, down_pc;  // objective gain per unit; < 0: the search's estimate
    bool empty() const { return priority.empty(); }
};
// Among the columns cols, the best (lowest) priority.
int first_priority(const Directives& d, const std::vector<int>& cols);
int priority_of(const Directives& d, int col);
// The pseudocost to use for col in direction d (0 down, 1 up): the override, else estimate.
double directed_pseudocost(const Directives& d, int col, int dir, double estimate);
bool pseudocosts_given(const Directives& d, int col);
// The child to explore first: the directive's direction when it has one, else dir.
int preferred_direction(const Directives& d, int col, int dir);

// Optional hooks, called at the moments the node-level callbacks of the optimiser describe.
// Unset hooks cost nothing. A hook that wants to stop the search asks through the stop flag.
struct Hooks {
    // Before the node's relaxation is solved: return true to declare the node infeasible.
    std::function<bool(const NodeView&)> prenode;
    // After the node's relaxation is solved to optimality: return true to declare it infeasible.
    std::function<bool(const NodeView&)> optnode;
    // A node found infeasible (by its relaxation or by prenode/optnode).
    std::function<void(const NodeView&)> infnode;
    // A node dropped because its bound is no better than the cutoff.
    std::function<void(const NodeView&, int64_t node)> nodecutoff;
    // A child node created: parent, child, and the child's number among the branch's children.
    std::function<void(const NodeView&, int64_t parent, int64_t child, int64_t branch)> newnode;
    // A candidate solution x (model columns) with objective obj: set *reject to refuse it; may
    // lower *cutoff (in the model's minimisation sense). soltype 0: relaxation solution at a
    // node, 1: found by a heuristic.
    std::function<void(const NodeView&, int soltype, const double* x, double obj, bool* reject,
                       double* cutoff)> preintsol;
    // A solution accepted as the new incumbent.
    std::function<void(const NodeView&, const double* x, double obj)> intsol;
    // The branching decision about to be made: may be replaced.
    std::function<void(const NodeView&, Branch&)> chgbranchobject;
    // Branching objects the user has stored replace the decision first (not a node hook: it
    // only acts when objects are stored).
    std::function<void(const NodeView&, Branch&)> userbranch;
    // A node about to be processed (after the limits are checked; not a node hook either).
    std::function<void(const NodeView&)> nodestart;
    // The single worker starting and ending.
    std::function<void()> mipthread, destroymt;
    // The cut rows of the search, shared with the owner's cut functions (null: the search
    // keeps its own).
    NodeCuts* cuts = nullptr;

    // Whether a hook that only this search can serve is set (intsol is not one: HiGHS's MIP
    // reports its solutions too).
    bool any_node_hook() const {
        return prenode || optnode || infnode || nodecutoff || newnode || preintsol ||
               chgbranchobject || mipthread || destroymt;
    }
};

struct Settings {
    double feastol = 1e-6, optimalitytol = 1e-6, miptol = 5e-6;
    double miprelstop = 1e-4, mipabsstop = 1e-6;
    double cutoff = INFINITY;  // model sense (minimisation)
    int64_t maxnode = INT64_MAX, maxmipsol = 0;  // maxmipsol 0: no limit
    double maxtime = 0;                          // seconds, <= 0: none
    int threads = 1;                             // HiGHS's threads option (shared value)
    bool scaling = true;                         // HiGHS's own scaling of the relaxations
    int64_t lpiterlimit = INT64_MAX;             // simplex/QP iterations of the whole search
    std::atomic<int>* stop = nullptr;            // non-zero: stop with that reason
    std::function<void(const std::string&)> log;  // progress lines (null: silent)
    std::vector<std::pair<int, double>> start;   // a starting solution to try (model columns)
    Directives directives;                       // branching priorities, directions, pseudocosts
    // A search that continues an earlier one on the same problem (the re-run after a QP stall,
    // tree_search.cpp): its nodes are numbered on after the earlier search's, the node, solution
    // and iteration limits count what that search used, and its best solution (model columns,
    // empty: none) is the incumbent from the start without being offered to the hooks again.
    struct Earlier {
        int64_t last_node = 0, nodes = 0, solutions = 0, lp_iterations = 0;
        std::vector<double> incumbent;
    } earlier;
};

enum class Status { Optimal, Infeasible, Unbounded, Stopped, Failed };

struct Outcome {
    Status status = Status::Failed;
    int stop_reason = 0;         // TRVO_STOP_* when stopped, or TRVO_STOP_MIPGAP after a gap stop
    bool have_solution = false;
    std::vector<double> x;       // best solution (model columns)
    double objective = INFINITY; // its objective (model sense)
    double bound = -INFINITY;    // proven lower bound
    int64_t nodes = 0, solutions = 0, lp_iterations = 0;
    int64_t last_node = 0;       // the highest node number given
    bool exact = true;           // false: some node could not be resolved to the tolerances
    // The search stopped because HiGHS's QP solver cycled on a relaxation (relaxation.h).
    bool qp_stalled = false;
    // For a model without integers: the final relaxation's duals mapped to the model's rows
    // (a quadratic row receives the duals of its cuts) and reduced costs.
    bool have_duals = false;
    std::vector<double> row_dual, col_dual;
    std::string message;         // why the search failed
};

// Runs the search. Never throws for a model it can take; fails (throws Error) on HiGHS errors.
Outcome run(const Model& model, const Settings& settings, const Hooks& hooks);

}  // namespace search
}  // namespace trvo
