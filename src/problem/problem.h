// The problem object and the services the problem layer shares with the rest of the module:
// object maps, argument conversion, the nested argument walk and error reporting.
#pragma once
#include "module/common.h"
#include "module/types.h"
#include "library_interface/trvo.h"
#include "library_interface/tslp.h"
#include "module/serial_map.h"

#include <functional>
#include <map>
#include <unordered_map>
#include <vector>

namespace tarvo {


// Serial of a modelling object -> its column, row or set index in one problem.
using IndexMap = SerialMap<int>;

constexpr int CALLBACK_KINDS = 40;

struct ProblemObject {
    PyObject_HEAD
    TRVOprob prob;        // library problem; null before initialisation or after a failed creation
    TSLPprob slp;         // nonlinear problem bound to prob, or null
    PyObject* vars;       // list of var in column order
    PyObject* cons;       // list of constraint in row order
    PyObject* sets;       // list of SOS in set order
    PyObject* controls;   // the live tarvo.control of this problem, or null (borrowed: it holds the problem)
    PyObject* attributes; // the live tarvo.attribute of this problem, or null (likewise)
    IndexMap* colmap;
    IndexMap* rowmap;
    IndexMap* setmap;
    PyObject* callbacks[CALLBACK_KINDS];  // one list per callback kind, or null
    int const_col;        // nonlinear library's constant-coefficient column, -1 until used
    int nl_rows;          // rows carrying nonlinear formulas
    int nl_objective;     // nonzero when the objective is nonlinear
    PyObject* userfuncs;  // user callables registered with the nonlinear library, or null
    int obj_row;          // objective transfer row, -1 when none
    int obj_col;          // objective transfer column, -1 when none
    Py_ssize_t detached;  // constraints whose body was released to their row (detached_bodies.cpp)
    Py_ssize_t detached_from;  // no constraint before this list position has a released body
};

// Problem methods contributed by the subsystems (sentinel-terminated tables), assembled into
// the problem type's method table by problem_type_init() at import.
PyMethodDef* problem_lowlevel_methods();          // problem/lowlevel.cpp (the whole table)
extern PyMethodDef problem_callback_methods[];   // callbacks/registry.cpp
extern PyMethodDef problem_nonlinear_methods[];  // nonlinear/nlp_methods.cpp
// Fills the problem type object; called once at import before the type is readied.
void problem_type_init();
// Copies the callback registry of src into dst (problem copy); 0, or -1 with an exception set.
int callbacks_copy(ProblemObject* dst, ProblemObject* src);

inline bool is_problem(PyObject* o) { return PyObject_TypeCheck(o, &ProblemType); }
inline ProblemObject* as_prob(PyObject* o) { return reinterpret_cast<ProblemObject*>(o); }
inline bool problem_is_nonlinear(const ProblemObject* p) { return p->nl_rows > 0 || p->nl_objective; }

// ------------------------------------------------------------------ environment (module/environment.cpp)
// Start request: 0 on success, -1 with a Python exception set.
int env_start(bool force);
// Whether the nonlinear library is running (read under the environment lock).
bool nonlinear_running();
// Writes one library message to sys.stdout while output is enabled (null: flush, no output).
void write_library_message(const char* msg);
// Registers / removes the message printers on a problem's library and nonlinear problems.
int install_problem_printers(ProblemObject* p);
void remove_problem_printers(ProblemObject* p);

// ------------------------------------------------------------------ errors (problem/errors.cpp)
// Turns a failed call into a Python exception: does nothing when result is non-null or an
// exception is pending; otherwise raises the owner's last library error (owner null: the
// global environment). Returns result.
PyObject* report_error(PyObject* owner, PyObject* result);
// Convenience: raise the library error of a problem and return null.
PyObject* problem_error(ProblemObject* p);

// ------------------------------------------------------------------ conversion (problem/conversion.cpp)
enum ConvType {
    CONV_ROW = 0, CONV_COL = 1, CONV_SET = 2, CONV_INT = 3, CONV_INT64 = 4, CONV_DOUBLE = 5,
    CONV_CHAR = 6, CONV_CHARCODE = 7, CONV_STRING = 8, CONV_POOLCUT = 9, CONV_OBJECT = 10,
    CONV_ROWCOL = 11,
};
size_t conv_elem_size(int type);
int conv_obj2arr(ProblemObject* p, int64_t* count, PyObject* source, void** array, int type);
int conv_arr2obj(ProblemObject* p, int64_t count, const void* array, PyObject* target, int type);
int conv_index(PyObject* obj, ProblemObject* p, int* index, int type);
int conv_item(ProblemObject* p, PyObject* obj, void* array, int64_t pos, int type);
// UTF-8 text of a str or bytes (borrowed; *tmp may receive an object the caller releases).
// With copy non-null, *copy receives a malloc'ed copy (replacing and freeing the previous one).
const char* conv_str(PyObject* obj, char** copy, PyObject** tmp);
// Frees an array made by conv_obj2arr (string arrays free each string too).
void conv_free(void* array, int64_t count, int type);
// Python integer in the module's sense: int, or NumPy intc/int_/longlong scalar.
bool is_index_integer(PyObject* o);
// A real number from a Python or NumPy number; complex values raise TypeError (their imaginary
// part would otherwise be dropped). 0 converted, -1 error set.
int conv_real(PyObject* o, double* out);
long long index_integer_value(PyObject* o);

// ------------------------------------------------------------------ nested walk (problem/walk.cpp)
// Visits every leaf of arg in order; the handler returns 0 to go on, -1 (exception set) to stop.
// depth is the remaining nesting budget (32 at the top).
using LeafHandler = std::function<int(PyObject* leaf)>;
int walk_leaves(PyObject* arg, int depth, const LeafHandler& handler);
constexpr int WALK_DEPTH = 32;
// Finds the first leaf of arg: 1 found (*leaf new reference), 0 none, -1 error (exception set).
int first_leaf(PyObject* arg, int depth, PyObject** leaf);

// ------------------------------------------------------------------ problem (problem/problem.cpp)
// Library integer attribute of the problem (-1 with a Python exception on failure).
int prob_int_attrib(ProblemObject* p, int id, int* value);
int prob_dbl_attrib(ProblemObject* p, int id, double* value);
int prob_cols(ProblemObject* p, int* n);
int prob_rows(ProblemObject* p, int* n);
int prob_sets(ProblemObject* p, int* n);
// Mixed-integer test (attributes 1032, 1004, 1327, 1325, 1009): 1 yes, 0 no, -1 error.
int prob_is_mip(ProblemObject* p);
// The serial keys used by the maps.
uint64_t object_key(PyObject* o);

// ------------------------------------------------------------------ add/delete (problem/add_delete.cpp)
PyObject* problem_addVariable(PyObject* self, PyObject* args);
PyObject* problem_addConstraint(PyObject* self, PyObject* args);
PyObject* problem_addSOS(PyObject* self, PyObject* args);
PyObject* problem_addIndicator(PyObject* self, PyObject* args);
PyObject* problem_delVariable(PyObject* self, PyObject* args, PyObject* kw);
PyObject* problem_delConstraint(PyObject* self, PyObject* args, PyObject* kw);
PyObject* problem_delSOS(PyObject* self, PyObject* args, PyObject* kw);
// Removes the given (sorted, unique) positions from a list and renumbers its map.
int remove_positions(PyObject* list, IndexMap* map, const std::vector<int>& sorted);
// Appends the objects of made (a list of new objects with fresh serials) to list and maps them
// to first_index, first_index + 1, ... in one pass; 0, or -1 with ModelError message set and
// nothing appended.
int append_new_objects(PyObject* list, IndexMap* map, PyObject* made, int first_index, const char* message);

// ------------------------------------------------------------------ bodies (problem/detached_bodies.cpp)
// Releases the linear bodies, held by nothing else, of the constraints from list position
// `from` on, whose rows the library now holds; the constraints keep a link to p.
void detach_bodies(ProblemObject* p, Py_ssize_t from);
// Makes the released bodies of p's constraints again from the rows: before anything may change
// rows or columns, and before p goes. 0, or -1 with an exception set (the links are gone then).
int restore_bodies(ProblemObject* p);
// The problem's attribute lookup: methods that may change rows or columns restore the bodies.
PyObject* problem_getattro(PyObject* self, PyObject* name);

// ------------------------------------------------------------------ objective/solve (problem/objective_solve.cpp)
PyObject* problem_setObjective(PyObject* self, PyObject* args, PyObject* kw);
int set_objective(ProblemObject* p, PyObject* objective, int sense);
PyObject* problem_solve(PyObject* self, PyObject* args, PyObject* kw);
PyObject* problem_getProbStatus(PyObject* self, PyObject*);
PyObject* problem_getProbStatusString(PyObject* self, PyObject*);
PyObject* problem_getObjVal(PyObject* self, PyObject*);

// ------------------------------------------------------------------ queries (problem/queries.cpp)
PyObject* problem_getSolution(PyObject* self, PyObject* args, PyObject* kw);
PyObject* problem_getDual(PyObject* self, PyObject* args);
PyObject* problem_getSlack(PyObject* self, PyObject* args);
PyObject* problem_getRCost(PyObject* self, PyObject* args);
PyObject* problem_getIndex(PyObject* self, PyObject* arg);
PyObject* problem_getVariable(PyObject* self, PyObject* args, PyObject* kw);
PyObject* problem_getConstraint(PyObject* self, PyObject* args, PyObject* kw);
PyObject* problem_getSOS(PyObject* self, PyObject* args, PyObject* kw);
// The current solution vector (nonlinear, mixed-integer or linear, as the queries choose).
int current_solution(ProblemObject* p, std::vector<double>& x);
// Evaluates obj (any modelling object or container of them) at the solution x, integers and
// names standing for columns (problem/evaluation_context.cpp).
PyObject* evaluate_at_solution(ProblemObject* p, PyObject* obj, const std::vector<double>& x);

// ------------------------------------------------------------------ controls (problem/controls.cpp)
// The problem's controls (attributes) object, a new reference: the one alive, else a new one.
// The object holds the problem, so a problem lives as long as its controls are used.
PyObject* problem_controls(PyObject* problem);
PyObject* problem_attributes(PyObject* problem);
int problem_apply_default_controls(ProblemObject* p);
PyObject* problem_setControl(PyObject* self, PyObject* args);
PyObject* problem_getControl(PyObject* self, PyObject* args);
PyObject* problem_getAttrib(PyObject* self, PyObject* args);

// ------------------------------------------------------------------ wrappers (callbacks/wrappers.cpp)
PyObject* trvoobject_wrap(void* handle);
PyObject* generic_wrap(void* handle);
PyObject* poolcut_wrap(void* handle);
// The wrapped handle, or null with ModelError when o is not of the type.
int trvoobject_handle(PyObject* o, void** handle);
int poolcut_handle(PyObject* o, void** handle);
int generic_handle(PyObject* o, void** handle);

// ------------------------------------------------------------------ callbacks (callbacks/*.cpp)
// Releases the callback registry of a departing problem: every record's problem item becomes
// None before the record is dropped.
void callbacks_release(ProblemObject* p);
// Registers the registry's records again on new library problems (reset); 0, or -1 with an
// exception set.
int callbacks_reregister(ProblemObject* p);
// A Python exception raised by a callback that the library called from one of its own threads
// cannot stay pending there: it is kept, keyed by the library problem of the solve, until the
// solving call restores it in its own thread. All four need the interpreter lock.
void callback_exception_keep(const void* key);      // moves the current exception into the store
bool callback_exception_pending(const void* key);
bool callback_exception_restore(const void* key);   // true when one was restored
void callback_exception_discard(const void* key);
// Branching objects handed to and returned by chgbranchobject callbacks (callbacks/branchobj.cpp):
// a new branchobj wrapping a library branching object of the problem; and, for a branchobj,
// its library object, which it gives up (1), or 0 when o is not a branchobj.
PyObject* branchobj_wrap(void* handle, PyObject* problem, int isoriginal);
int branchobj_take(PyObject* o, void** handle);
// Raises the library's last error of a branching object as SolverError; returns null.
PyObject* branchobj_error(PyObject* o);

}  // namespace tarvo
