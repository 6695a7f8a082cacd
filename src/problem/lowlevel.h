// The shared template of the low-level problem methods: keyword parsing, arrays converted with
// one shared length per call and freed on every path, ranges of rows or columns, output lists
// filled in place, and the finish that turns a failed library call into SolverError.
#pragma once
#include "problem/problem.h"

#include <functional>
#include <initializer_list>
#include <vector>

namespace tarvo {

// Runs the linear or mixed-integer optimiser as solve() does (interpreter lock released, Ctrl-C
// interrupts): the library's return code, or -2 with a Python exception set
// (problem/objective_solve.cpp).
int run_library_optimizer(ProblemObject* p, bool mip, const char* flags);
// Runs work (a library call on p's problem) on a worker thread while the caller watches for
// Ctrl-C, which calls interrupt() until the work returns: work's result, or -2 with a Python
// exception set (problem/objective_solve.cpp).
int run_on_worker(ProblemObject* p, std::function<int()> work, std::function<void()> interrupt);

namespace ll {

// The keyword arguments of one call. Names are given in order; a leading '?' marks a keyword
// that may be omitted (it then reads as None). Arrays are always '?' so that a missing one
// is reported with the method's own message.
struct Args {
    ProblemObject* p;
    PyObject* v[32];
    int n = 0;
    bool ok = false;
    Args(PyObject* self, PyObject* args, PyObject* kw, const char* method, std::initializer_list<const char*> names);
    PyObject* operator[](int i) const { return v[i]; }
    bool given(int i) const { return v[i] != Py_None; }
    // True (InterfaceError msg raised) when any of the listed arguments is None.
    bool missing(std::initializer_list<int> which, const char* msg) const;
};

// Native arrays converted from Python arguments, sharing one length (n, -1 until the first
// array sets it), freed when the object goes.
struct Arrays {
    ProblemObject* p;
    int64_t n;
    bool ok = true;
    std::vector<std::pair<void*, int>> owned;
    explicit Arrays(ProblemObject* prob, int64_t expected = -1) : p(prob), n(expected) {}
    ~Arrays();
    Arrays(const Arrays&) = delete;
    Arrays& operator=(const Arrays&) = delete;
    // Converts src with element type `type` (None gives null); after a failure every later
    // call returns null and ok stays false.
    void* get(PyObject* src, int type);
    int* ints(PyObject* src, int type = CONV_INT) { return static_cast<int*>(get(src, type)); }
    int64_t* int64s(PyObject* src) { return static_cast<int64_t*>(get(src, CONV_INT64)); }
    double* dbls(PyObject* src) { return static_cast<double*>(get(src, CONV_DOUBLE)); }
    char* chars(PyObject* src) { return static_cast<char*>(get(src, CONV_CHAR)); }
    int count() const { return n < 0 ? 0 : static_cast<int>(n); }
};

// None on success; otherwise (rc non-zero or an exception pending) the error.
PyObject* done(ProblemObject* p, int rc);
// Fills the caller's list `target` (None: nothing) with n elements of type `type`.
int fill(ProblemObject* p, PyObject* target, int64_t n, const void* array, int type);
// One row or column argument (int, name or object of the problem).
int index_arg(ProblemObject* p, PyObject* o, int type, int* index);
// A single integer argument (Python int or NumPy integer scalar), or ModelError naming it.
int int_arg(PyObject* o, const char* name, int* value);
// One character given as a string of length one.
int char_arg(PyObject* o, const char* name, char* value);
// Text of a str or bytes argument (kept alive by holder).
const char* str_arg(PyObject* o, const char* name, PyRef& holder);
// Optional flags string: None or absent gives "".
const char* flags_arg(PyObject* o, PyRef& holder);
// Start array of n columns (rows) over `total` entries: n starts, to which `total` is added as
// the end, or n + 1 starts ending at `total`. Checked to be non-decreasing from 0
// (problem/lowlevel_load.cpp).
int starts_arg(ProblemObject* p, PyObject* src, int n, int64_t total, std::vector<int64_t>& out);
// Row/column counts read from the library at each call.
int rows(ProblemObject* p, int* n);
int cols(ProblemObject* p, int* n);

// New objects for columns c0 .. c0+n-1 (rows r0 .. r0+n-1) just added to the library: names
// and types are checked by check_new_*() before the library is touched and applied here.
// lb, ub, types, qrtype, rhs, rng may be null/empty (no bounds then). On failure the library columns (rows) are deleted again and the
// lists and maps are left as before.
int check_new_columns(int n, PyObject* names, PyObject* types, std::vector<char>& typechars);
int check_new_rows(int n, PyObject* names);
// Gives the library the names of the objects in `made` (new columns, kind 2, or rows, kind 1,
// from `first` on): the name given in `names`, or the object's default name where it has none.
int name_in_library(ProblemObject* p, int kind, int first, PyObject* made, PyObject* names);
// Sets a variable's type bits from a column type character ('C', 'B', 'I', 'S', 'R', 'P').
void set_var_type(PyObject* var, char type);
int adopt_columns(ProblemObject* p, int c0, int n, PyObject* names, const std::vector<char>& types,
                  const double* lb, const double* ub);
int adopt_rows(ProblemObject* p, int r0, int n, PyObject* names, const char* qrtype, const double* rhs,
               const double* rng);

// The method tables of the low-level files, assembled by lowlevel.cpp.
const PyMethodDef* matrix_methods();
const PyMethodDef* load_methods();
const PyMethodDef* solve_methods();
const PyMethodDef* analysis_methods();
const PyMethodDef* files_methods();
const PyMethodDef* save_methods();
const PyMethodDef* directives_methods();
const PyMethodDef* gencons_methods();
const PyMethodDef* cut_methods();           // callbacks/cuts.cpp
const PyMethodDef* lowlevel_cut_methods();  // lowlevel_cuts.cpp
// strongbranch(...), sharing its body with strongbranchcb (callbacks/cuts.cpp).
PyObject* strongbranch_method(PyObject* self, PyObject* args, PyObject* kw);
const PyMethodDef* presolve_methods();
const PyMethodDef* basis_methods();

}  // namespace ll

#define LL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(f))
#define LL_METHOD(name, doc) {#name, LL_KW(m_##name), METH_VARARGS | METH_KEYWORDS, doc}
// A docstring with its text signature, so that inspect.signature reads the method.
#define DOC(sig, text) sig "\n--\n\n" text

}  // namespace tarvo
