// Callbacks of the nonlinear solver that depend on what the current run can serve, and the
// optimiser's callbacks a nonlinear run also calls.
#pragma once

#include "engine/slp/problem.h"

namespace slp {

// slpnode, optnode and prenode are called at the nodes of the engine's tree search over the
// integer columns of a nonlinear problem. The nonlinear runs do not go through that search yet
// (integer columns are handled by mixed-integer step problems), so a run with one of them set
// fails, naming it. When the search serves them, node_callbacks_served() returns true.
bool node_callbacks_served();
void require_served_callbacks(TSLPprob prob);

// The checktime callbacks of the bound optimisation problem, called once per iteration of the
// nonlinear run; true when one asked to stop.
bool checktime(TSLPprob prob);

}  // namespace slp
