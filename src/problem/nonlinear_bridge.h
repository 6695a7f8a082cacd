// Operations of the nonlinear library that the problem layer calls only for problems with
// nonlinear parts. They are referenced weakly: a build whose nonlinear library lacks one of
// them still loads, and the caller reports the operation as unavailable (null address).
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

extern "C" {
int TSLPreadprob(TSLPprob prob, const char* filename, const char* flags) __attribute__((weak));
int TSLPwriteprob(TSLPprob prob, const char* filename, const char* flags) __attribute__((weak));
int TSLPgetuserfuncobject(TSLPprob prob, int index, void** object) __attribute__((weak));
int TSLPnlpoptimize(TSLPprob prob, const char* flags) __attribute__((weak));
int TSLPgetslpsol(TSLPprob prob, double* x, double* slack, double* dual, double* dj) __attribute__((weak));
}
