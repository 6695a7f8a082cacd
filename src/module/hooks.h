// Entry points through which the import sequence and teardown reach the subsystems.
#pragma once
#include "module/common.h"

namespace tarvo {

// Module functions contributed by each subsystem (sentinel-terminated tables).
extern PyMethodDef environment_functions[];   // module/environment.cpp
extern PyMethodDef controls_functions[];      // problem/controls.cpp
extern PyMethodDef nonlinear_functions[];     // nonlinear/functions.cpp

// Side tables and serial counters of variables and constraints (model/).
void model_tables_create();
void model_tables_destroy();
void reset_serial_counters();

// Module-level controls object: a control object bound to no problem (problem/controls.cpp).
PyObject* controls_new_module_level(PyObject* dict);
// Reads the control and attribute catalogue from the libraries (problem/controls.cpp).
// At import the libraries are started for the reading only; a library that cannot start
// leaves the catalogue empty without error. Returns 0, or -1 with an exception set.
int catalogue_build(bool at_import);

// NumPy dtypes npvar, npexpr, npconstraint (nonlinear/numpy_dtypes.cpp).
int numpy_dtypes_create();
int numpy_dtypes_register(PyObject* module);

// Releases the library environment at teardown if no start request is outstanding
// (module/environment.cpp).
int env_release_at_teardown();

}  // namespace tarvo
