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
// object lists; the nonlinear library keeps its coefficients by row and column index. So:
// adding rows or columns takes the transfer pair out first and puts it back at the end;
// deleting rows or columns takes every nonlinear coefficient out and puts back the ones whose
// row and column survived, renumbered; a deleted variable inside a formula becomes 0, as if
// fixed at zero like its linear coefficients. detach saves the coefficients (with the constraints and
// variables their rows, columns and column tokens stand for) and removes them; reattach puts
// them back. Both are no-ops when there is nothing nonlinear to move.
struct DetachedFormulas {
    bool active = false;
    bool all = false;                   // every coefficient, not just the objective's
    NlItems items;
    std::vector<char> objective;        // per coefficient: on the transfer row
    std::vector<uint64_t> row_keys;     // per coefficient: its constraint (0: none)
    std::vector<uint64_t> col_keys;     // per coefficient: its column's variable
    std::vector<uint64_t> token_keys;   // per token: the variable of a column token
};
int formulas_detach(ProblemObject* p, bool all, DetachedFormulas& saved);
int formulas_reattach(ProblemObject* p, DetachedFormulas& saved);

// Runs an operation that adds (all = false) or deletes (all = true) rows or columns,
// returning a new reference or null, with the nonlinear coefficients detached around it.
template <class F>
PyObject* with_formulas_detached(ProblemObject* p, bool all, F&& op) {
    DetachedFormulas saved;
    if (formulas_detach(p, all, saved) < 0) return nullptr;
    PyObject* result = op();
    PyObject *type, *value, *tb;
    PyErr_Fetch(&type, &value, &tb);
    int rc = formulas_reattach(p, saved);
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
