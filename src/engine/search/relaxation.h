// The node relaxation of the tree search: one persistent HiGHS instance holding the model's
// continuous relaxation (LP, or QP with the objective's Hessian) plus the outer-approximation cut
// pool of the quadratic rows. Column bounds are changed incrementally between nodes, the basis of
// a node's parent is restored before a jump, and cuts stay in the instance once added (they are
// valid everywhere).
#pragma once

#include "engine/search/node_solver.h"
#include "engine/search/search.h"

#include <chrono>
#include <memory>
#include <unordered_map>
#include <unordered_set>

namespace trvo {
namespace search {

// Column statuses then row statuses; with a model's own node solver, the packed bytes of its
// warm start instead (what a node keeps of its parent either way).
using Basis = std::vector<HighsInt>;

class Relaxation {
public:
    enum Result { Optimal, Infeasible, Cutoff, Unbounded, Limit, Error };

    Relaxation(const Model& model, const Settings& settings,
               std::chrono::steady_clock::time_point deadline);
    ~Relaxation();
    Relaxation(const Relaxation&) = delete;
    Relaxation& operator=(const Relaxation&) = delete;

    // Sets the columns' bounds (model columns, the root bounds tightened by the node).
    void set_bounds(const std::vector<double>& lo, const std::vector<double>& up);
    void set_col_bounds(int j, double lo, double up);
    // Makes the instance hold exactly these branching rows (those of the node to solve) switched
    // on: rows of nodes left are switched off, new ones added (node_rows.cpp).
    void set_node_rows(const std::vector<std::shared_ptr<const BranchRow>>& rows);
    const std::vector<double>& lower() const { return lo_; }
    const std::vector<double>& upper() const { return up_; }
    // Solves the relaxation, adding cuts until the quadratic rows hold or max_rounds cut rounds
    // have passed (converged() tells which). A relaxation objective at or above cutoff gives
    // Cutoff. On Optimal, x() and objective() hold the solution. A polished solve (for a
    // solution to be reported) goes on until the rows hold to kPolish * feastol, or stall.
    Result solve(double cutoff, int max_rounds, bool polish = false);
    static constexpr double kPolish = 1e-4;
    static constexpr int kPolishRounds = 50;
    // One iteration-limited solve from the current basis for strong branching; returns the
    // objective estimate (INFINITY when infeasible or cut off) and leaves x() unchanged.
    double probe(double cutoff, int64_t iteration_limit);

    const std::vector<double>& x() const { return x_; }
    double objective() const { return obj_; }
    bool converged() const { return converged_; }
    bool quadratic_objective() const { return hessian_; }
    // Whether a QP solve hit its iteration cap twice (HiGHS's QP solver cycling) and gave Limit.
    bool qp_stalled() const { return qp_stalled_; }
    double max_violation(const double* x) const;

    // Rows beyond the model's (cut rows, cuts.h): added once and then switched on and off
    // through their bounds. add_row returns the row's position in the instance.
    int add_row(double lo, double up, int n, const HighsInt* idx, const double* val);
    void set_row_bounds(int row, double lo, double up);
    // Whether the row is basic in the instance's current basis (true when there is none).
    bool row_basic(int row) const;

    std::shared_ptr<Basis> basis() const;
    void set_basis(const Basis& b);

    // Duals of the last solve mapped to the model's rows (cuts credited to their quadratic
    // row) and the reduced costs of the model's columns.
    bool duals(std::vector<double>& row_dual, std::vector<double>& col_dual) const;

    int64_t iterations() const { return ns_ ? ns_->iterations() : iterations_; }
    // Iteration-limited probes (strong branching) need the HiGHS relaxation.
    bool can_probe() const { return ns_ == nullptr; }
    // What solves the nodes, for the log.
    const char* kind() const { return ns_ ? ns_->name() : hessian_ ? "QP" : "LP"; }
    int ncuts() const { return static_cast<int>(cut_row_.size()); }
    // The cut pool: every cut added so far, as rows lo <= a'x <= up.
    struct Cut {
        std::vector<HighsInt> index;
        std::vector<double> value;
        double lo, up;
    };
    const std::vector<Cut>& cuts() const { return cuts_; }

private:
    Result run_once(double cutoff);
    // The user's scaling factor of column j and of row i (1 when none; cut rows are unscaled).
    double col_factor(int j) const {
        return static_cast<size_t>(j) < model_.col_scale.size() ? model_.col_scale[static_cast<size_t>(j)] : 1.0;
    }
    double row_factor(int i) const {
        return i < nrow_ && static_cast<size_t>(i) < model_.row_scale.size() ? model_.row_scale[static_cast<size_t>(i)]
                                                                             : 1.0;
    }
    HighsInt run_counted();
    HighsInt qp_limit() const;
    int add_cuts(const double* x, double tol);
    void apply_bounds();

    const Model& model_;
    const Settings& settings_;
    std::chrono::steady_clock::time_point deadline_;
    void* h_ = nullptr;
    NodeSolver* ns_ = nullptr;  // the model's own node solver, or null for HiGHS
    bool hessian_ = false;
    int ncol_ = 0, nrow_ = 0;  // model dimensions (cuts follow the rows)
    std::vector<double> lo_, up_;            // bounds wanted
    std::vector<double> set_lo_, set_up_;    // bounds in the instance
    double box_ = 0;  // artificial bound on infinite column bounds while > 0
    std::vector<int> cut_row_;               // quadratic row index of each cut
    std::vector<int> cut_pos_;               // instance row of each cut
    std::vector<double> rlo_, rup_;          // bounds of every instance row (unscaled)
    bool scaled_ = false;                    // the instance holds the model scaled (col_factor)
    // Branching rows (node_rows.cpp): each added once, at the position recorded here, and switched
    // off (made free) while the node being solved does not hold it, so that rows never move and
    // the positions of cut rows stay valid.
    std::unordered_map<const BranchRow*, int> branch_row_pos_;
    std::vector<std::shared_ptr<const BranchRow>> branch_rows_;  // keeps the keys above alive
    std::unordered_set<const BranchRow*> branch_rows_on_;
    std::vector<double> cut_scale_;          // 1 / the factor each cut was divided by
    std::vector<Cut> cuts_;
    std::vector<double> x_;
    double obj_ = INFINITY;
    bool converged_ = true;
    bool qp_stalled_ = false;
    int64_t iterations_ = 0;

public:
    // Unbounded relaxations with quadratic rows: the search bounds infinite column bounds by a
    // box while the cuts have not yet closed the directions of recession.
    void set_box(double box) {
        box_ = box;
        apply_bounds();
    }
    double box() const { return box_; }
    // Whether x touches the artificial box on some column whose own bound is infinite.
    bool at_box(const double* x) const;
};

}  // namespace search
}  // namespace trvo
