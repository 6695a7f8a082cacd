// Internal interface between the callback registry (registry.cpp) and the library-side
// trampolines (trampolines.cpp).
#pragma once
#include "problem/problem.h"

namespace tarvo {

// Kinds 0 to 18 belong to the optimisation library (several per kind, by priority); kinds 19
// to 39 to the nonlinear library (one per kind: setting one replaces the previous one).
constexpr int FIRST_NONLINEAR_KIND = 19;

// Python name of a kind ("intsol", ...); kinds 36 to 39 repeat names of optimiser kinds.
const char* callback_name(int kind);

// Registers the trampoline of the kind with the library, the record as its context: 0 on
// success, non-zero (library error recorded) on failure; -1 with InterfaceError set for a
// kind outside 0 to 39.
int library_register(ProblemObject* p, int kind, PyObject* record, int priority);
// Removes the registration of the record (kinds 0 to 18), or the nonlinear kind's callback.
int library_unregister(ProblemObject* p, int kind, PyObject* record);
// A record leaves the registry: trampolines handed it afterwards skip the call.
void callback_record_retired(PyObject* record);

}  // namespace tarvo
