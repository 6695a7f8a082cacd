// An interior-point solver for the step problems of large models whose rows couple only a
// few neighbours (discretised dynamics, chains, grids of small width). The simplex method
// needs about one pivot per curved column on such step problems, and each pivot solves with
// a basis whose inverse is dense along the chain, so a step costs O(n^2). Here each
// interior-point iteration factors the normal matrix A D A' in a bandwidth-reducing (reverse
// Cuthill-McKee) order with an envelope Cholesky factorisation: time and memory are linear
// in the size of the model for a bounded envelope width, and some 20-40 iterations solve a
// step problem to high accuracy. A few dense columns (one in every row, say) stay out of the
// normal matrix and come back through a low-rank correction of each solve. Problems whose
// normal matrix would still fill in (many dense columns, wide envelopes) are declined; the
// caller then uses HiGHS. Large problems are split into two halves of rows that no column
// couples and a small separator: the halves are factored, solved and updated on two threads.
#pragma once

#include <functional>
#include <vector>

namespace slp {

// A minimisation problem: cost, column bounds, row bounds (infinite bounds as +-INFINITY), the
// matrix column-wise and, when qdiag is not empty, a separable convex quadratic term
// 1/2 sum qdiag[j] x_j^2 (qdiag >= 0, one entry per column).
struct SparseLp {
    int ncol = 0, nrow = 0;
    std::vector<double> cost, collo, colup, rowlo, rowup, qdiag;
    std::vector<int> start, index;
    std::vector<double> value;
};

// A solution in HiGHS's conventions: column values, reduced costs c + Qx - A'y, row activities
// and row duals y (positive on a row at its lower bound).
struct SparseLpSolution {
    std::vector<double> colval, coldual, rowval, rowdual;
    int iterations = 0;
};

enum class SparseStatus { Optimal, Declined, Failed, Stopped };

// Solves lp to relative primal and dual residuals and a relative gap of `tol`. `stop` is
// polled once per iteration. With `keep_best`, a run that makes no progress for a while stops
// (Failed) and leaves the column values and row duals of its best iterate (least of the three
// relative measures) in sol.colval and sol.rowdual, for callers that can judge such a point
// themselves. With `threads`
// 2 or more, large problems are solved on two threads; the results are the same as on one.
SparseStatus sparse_lp_solve(const SparseLp& lp, double tol, const std::function<bool()>& stop,
                             SparseLpSolution& sol, bool keep_best = false, int threads = 1);

// The threads the solver uses for the value of the threads control (0 automatic: two when
// the machine has two or more hardware threads).
int sparse_threads(int control);

}  // namespace slp
