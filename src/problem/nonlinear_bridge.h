// Helpers of the problem layer for problems with nonlinear parts.
#pragma once
#include "library_interface/tslp.h"

namespace tarvo {
struct ProblemObject;
// True when the nonlinear library holds the problem's results: the problem is nonlinear, or
// its last solve ran the nonlinear optimiser (nlpoptimize) and that reported a solution
// status (1 to 6). Solutions, status and objective value are then read from it.
bool nonlinear_results(ProblemObject* p);
// Records which optimiser ran last on the problem (false also forgets the problem).
void note_solver_run(ProblemObject* p, bool nonlinear);
}

