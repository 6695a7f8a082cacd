// The starting point of a run, moved where the formulas and the step problems can work.
#pragma once

#include "engine/slp/evaluate.h"

namespace slp {

// Moves the continuous columns in cont that sit on a finite bound into the interior, by
// min(0.01 max(1, |bound|), 0.01 (ub - lb)) as interior-point solvers do (a start on a
// bound may be a stationary point of it, from which linearisations see no way in), and then,
// when the objective or a row cannot be evaluated there, moves the columns of those formulas
// step by step (0.01 max(1, |x|), growing tenfold; into the bounds' interior, a free column
// alternately up and down) until they can. Every move is logged. Returns false when no point
// was found where everything evaluates (x is then left at the pushed start).
bool interior_start(TSLPprob prob, Evaluator& E, const Model& m, const std::vector<char>& cont,
                    std::vector<double>& x);

}  // namespace slp
