// Evaluation of modelling objects at a point: the context passed down the walk, the value of
// one object and the walk over containers. problem.getSolution() uses the same walk.
#pragma once
#include "nonlinear/internal.h"

#include <vector>

namespace tarvo {

struct EvalContext {
    PyObject* problem = nullptr;     // borrowed; null in dictionary mode
    const double* values = nullptr;  // one value per problem column (vector mode)
    Py_ssize_t count = 0;            // entries in values
    PyObject* dictionary = nullptr;  // borrowed: variable -> value (dictionary mode)
    int mode = 0;                    // 1 vector, 0 dictionary
    bool query_mode = false;         // getSolution(): integers and strings name columns
    // Column of a variable in the problem, or -1 (an exception may be set).
    Py_ssize_t (*column_of)(PyObject* problem, PyObject* var) = nullptr;
    // Column of an integer index or a column name (query mode), or -1.
    Py_ssize_t (*column_by_key)(PyObject* problem, PyObject* key) = nullptr;
};

// Value of an object at remaining depth `depth`; false with an exception set on failure.
bool eval_value(PyObject* o, const EvalContext& ctx, int depth, double* out);
// Evaluates o, or each element of a container (array, dict, list, tuple, sequence) of them.
PyObject* eval_walk(PyObject* o, const EvalContext& ctx, int depth);

// Fills ctx (vector mode) for evaluate(problem=..., solution=None/list/array): values holds
// the problem's current solution or the converted solution vector. Implemented by the
// problem layer; the default here refuses. Returns 0, or -1 with an exception set.
int eval_problem_context(PyObject* problem, PyObject* solution, EvalContext& ctx, std::vector<double>& values);

}  // namespace tarvo
