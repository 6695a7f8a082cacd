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

// Newton steps on the KKT conditions of the rows that hold x at a bound (nonzero dual) and
// the columns at a bound whose reduced costs the bound absorbs: the Lagrangian's exact
// Hessian by differences of the exact gradients, the active rows met to first order, the
// multipliers updated with the step. Converges quadratically from a point close to a
// regular local optimum, where the SLP steps, bounded by a nonsmooth merit function, creep.
// Small problems only (at most max_cols free columns). x and dual (user's sense) are replaced
// by the best point found when it is feasible within feastol, no worse in the objective (by
// more than a relative 1e-9) and has a KKT residual below the one given; returns whether
// they were replaced, and *resid receives its residual.
bool polish_kkt(TSLPprob prob, Evaluator& E, const Model& m, double sense, double feastol, int max_cols,
                std::vector<double>& x, std::vector<double>& dual, double* resid);

}  // namespace slp
