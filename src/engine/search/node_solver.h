// The node solver of the tree search: what solves the relaxation of a node. By default the
// search solves its nodes on one persistent HiGHS instance (LP or convex QP, with outer-
// approximation cuts for quadratic rows; relaxation.cpp). A model may bring its own solver
// instead, such as the nonlinear library's SLP for mixed-integer nonlinear problems: the search
// then asks it for node solutions, objective values and row violations, and keeps the linear
// rows of its HighsModel only for checking candidate solutions.
#pragma once

#include <cstdint>
#include <vector>

namespace trvo {
namespace search {

class NodeSolver {
public:
    enum Result { Optimal, Infeasible, Cutoff, Unbounded, Limit, Error };

    virtual ~NodeSolver() = default;
    // Solves the relaxation within the column bounds lo, up (the model's columns, integers
    // relaxed), starting from the warm start. An objective at or above cutoff may give Cutoff.
    // On Optimal, x and objective (minimisation sense) hold the node's solution.
    virtual Result solve(const std::vector<double>& lo, const std::vector<double>& up, double cutoff,
                         std::vector<double>& x, double& objective) = 0;
    // The point the next solve starts from: the last solution, unless set.
    virtual std::vector<double> warm_start() const = 0;
    virtual void set_warm_start(const std::vector<double>& x) = 0;
    // Objective (minimisation sense) and largest violation of the rows the solver owns (those
    // the HighsModel of the search leaves free) at x.
    virtual double objective(const double* x) = 0;
    virtual double max_violation(const double* x) = 0;
    // Iterations of all solves so far, and a short name for the log.
    virtual int64_t iterations() const = 0;
    virtual const char* name() const = 0;
};

}  // namespace search
}  // namespace trvo
