// The penalty successive-linear-programming algorithm with trust-region step bounds.
#pragma once

#include "engine/slp/evaluate.h"

#include <chrono>

namespace slp {

// Outcome of one SLP run from a given start.
struct RunResult {
    int status = TSLP_NLP_UNFINISHED;
    int stopstatus = 0;
    double objval = 0.0;       // in the user's sense
    double maxviolation = 0.0;
    double errorcosts = 0.0;
    double penalty = 0.0;
    double kkt = 0.0;
    int iter = 0, simplexiter = 0, mipiter = 0, penaltyerrors = 0;
    Solution sol;
};

// Runs the SLP from x0 on the problem's data with its current controls. Callbacks of the
// problem fire during the run; failures of user functions at the start throw.
RunResult run_slp(TSLPprob prob, const Model& m, const std::vector<double>& x0);

// Largest violation of any row at x (nonlinear parts included); rows that cannot be
// evaluated count as infinitely violated.
double max_violation(Evaluator& E, const Model& m, const double* x, double* sum = nullptr,
                     double* scaled_sum = nullptr);

// Recomputes determined columns from their rows at x (in sequence order). Returns the number
// of columns that could not be determined.
int cascade(TSLPprob prob, Evaluator& E, const Model& m, std::vector<double>& x);

// Row bounds [lo, up] of row r (infinite as +-inf).
void row_bounds(const Model& m, int r, double* lo, double* up);

}  // namespace slp
