// Conversion of modelling objects with nonlinear parts into what the nonlinear library loads:
// polynomial parts for the optimisation library plus nonlinear coefficients (row, column,
// factor, postfix token formula), and the registration of user functions.
#pragma once
#include "problem/body.h"

#include <vector>

namespace tarvo {

// Nonlinear coefficients in the library's parsed (postfix) token form, ready for TSLPaddcoefs.
// starts holds one entry per coefficient plus the end of the last formula.
struct NlItems {
    std::vector<int> rows, cols;
    std::vector<double> factors;
    std::vector<int> starts{0};
    std::vector<int> types;
    std::vector<double> values;
    int count() const { return static_cast<int>(cols.size()); }
    void clear() {
        rows.clear();
        cols.clear();
        factors.clear();
        starts.assign(1, 0);
        types.clear();
        values.clear();
    }
};

// Splits obj (number, polynomial object or nonlinear node) into its constant, linear and
// quadratic parts (coefficient conventions of polynomial_parts) and nonlinear coefficients,
// which are appended to items with row index `row`. Returns 0, or -1 with ModelError set.
int formula_split(ProblemObject* p, PyObject* obj, bool objective_mode, int row, PolyParts& parts, NlItems& items);

// Hands the items to the nonlinear library (TSLPaddcoefs, parsed form). 0 or -1.
int formula_load(ProblemObject* p, const NlItems& items);

// Nonlinear objective through the transfer row and column:
// makes the nonlinear problem modifiable (unconstructs, leaves the presolved state);
int nl_objective_prepare(ProblemObject* p);
// removes the transfer row and column of a previous nonlinear objective;
int nl_objective_remove(ProblemObject* p);
// adds the transfer row and column carrying the items (their rows are rewritten).
int nl_objective_install(ProblemObject* p, NlItems& items);

// The transfer row and column are kept as the last row and column of the problem, so that
// the rows and columns of the problem's constraints and variables keep the positions of its
// object lists. Adding or deleting rows and columns therefore takes the pair out first and
// puts it back at the end afterwards: detach saves the objective's formulas (with the
// columns of the variables they use) and removes the pair; reattach installs it again,
// renumbering the formulas' columns. A formula whose variable was deleted drops the
// objective with a ModelError. Both are no-ops without a nonlinear objective.
struct DetachedObjective {
    bool active = false;
    NlItems items;
    std::vector<uint64_t> col_serials;  // variable of each column token, in token order
};
int nl_objective_detach(ProblemObject* p, DetachedObjective& saved);
int nl_objective_reattach(ProblemObject* p, DetachedObjective& saved);

// Runs an operation that adds or deletes rows or columns (returning a new reference or
// null) with the nonlinear objective detached around it.
template <class F>
PyObject* with_objective_detached(ProblemObject* p, F&& op) {
    DetachedObjective saved;
    if (nl_objective_detach(p, saved) < 0) return nullptr;
    PyObject* result = op();
    PyObject *type, *value, *tb;
    PyErr_Fetch(&type, &value, &tb);
    int rc = nl_objective_reattach(p, saved);
    if (rc < 0) {
        Py_CLEAR(result);
        Py_XDECREF(type);
        Py_XDECREF(value);
        Py_XDECREF(tb);
    } else {
        PyErr_Restore(type, value, tb);
    }
    return result;
}

// Keeps the user functions (and multistart job objects) a problem copy shares with its
// source alive for the copy.
int formula_copy_userfuncs(ProblemObject* dst, ProblemObject* src);

// The copy of a problem shares its source's multistart jobs: it keeps their objects too.
void nlp_copy_job_objects(ProblemObject* dst, const ProblemObject* src);
// Releases the multistart job objects a problem handed to the library (nlp_methods.cpp).
void nlp_release_job_objects(ProblemObject* p);

// Runs the nonlinear optimiser on a worker thread while watching for Ctrl-C
// (problem/objective_solve.cpp): the library's return code, or -2 with an exception set.
int run_nonlinear_optimizer(ProblemObject* p, const char* flags);

// Raises the nonlinear library's last error of the problem (falling back on the generic
// problem error) and returns null.
PyObject* slp_error(ProblemObject* p);

}  // namespace tarvo
