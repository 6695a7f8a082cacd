// Multistart: running several SLP jobs (initial values, control variations) and keeping the
// best result.
#pragma once

#include "engine/slp/solver.h"

namespace slp {

// Runs the run from the initial values and every job; with global set and no jobs, a
// default set of random starts. Returns the best result and sets prob->mswinner.
RunResult run_multistart(TSLPprob prob, const Model& m, bool global);

}  // namespace slp
