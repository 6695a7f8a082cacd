// First-order optimality of a point: the Karush-Kuhn-Tucker residual from the exact gradients
// of the objective and the rows and the row multipliers alone (the step problem's own bounds
// play no part), and the row multipliers that make it smallest.
#pragma once

#include "engine/slp/evaluate.h"

#include <cmath>

namespace slp {

struct KktCheck {
    double residual = INFINITY;   // largest of the three parts over the scale
    double stationarity = 0.0;    // largest reduced cost a column's bounds do not absorb
    double sign = 0.0;            // largest multiplier of the wrong sign for its row
    double complementarity = 0.0; // largest |multiplier x distance of the row to its bound|
    double scale = 1.0;           // max(1, largest objective gradient entry)
    int worst_col = -1;
};

// Multipliers and reduced costs are in the user's sense: dj = grad f - sum_i dual_i grad g_i.
// A column counts as at a bound within feastol (relative to the bound's size); columns with
// skip[j] set (integer columns held fixed) are left out. dj, when given, receives the reduced
// costs. Returns false when a row or the objective cannot be evaluated at x.
bool kkt_residual(Evaluator& E, const Model& m, double sense, const double* x, const double* dual,
                  double feastol, KktCheck* out, double* dj = nullptr, const char* skip = nullptr);

// The multipliers of the rows active at x (within feastol) that minimise the largest
// stationarity violation, by a small LP; the others are zero. Large LPs (and all under step
// solver choice 2) go to the sparse interior-point solver in least-total-violation form,
// whose best point is returned even when it stalls short of the optimum. Returns false when the LP
// cannot be solved (dual is then left alone).
bool estimate_multipliers(TSLPprob prob, Evaluator& E, const Model& m, double sense, const double* x,
                          double feastol, std::vector<double>& dual, const char* skip = nullptr);

}  // namespace slp
