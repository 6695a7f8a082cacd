// Callbacks of the nonlinear solver that depend on what the current run can serve, and the
// optimiser's callbacks a nonlinear run also calls.
#pragma once

#include "engine/slp/problem.h"

namespace slp {

// The checktime callbacks of the bound optimisation problem, called once per iteration of the
// nonlinear run; true when one asked to stop.
bool checktime(TSLPprob prob);

}  // namespace slp
