// Evaluation at a problem's columns: the vector-mode context that evaluate(problem=...) and
// problem.getSolution(...) hand to the expression evaluator.
#include "problem/problem.h"
#include "model/model.h"
#include "nonlinear/evaluation.h"

#include <cstdlib>

namespace tarvo {

namespace {

Py_ssize_t column_of_var(PyObject* problem, PyObject* var) {
    ProblemObject* p = as_prob(problem);
    auto it = p->colmap->find(var_serial(var));
    return it == p->colmap->end() ? -1 : it->second;
}

Py_ssize_t column_of_key(PyObject* problem, PyObject* key) {
    ProblemObject* p = as_prob(problem);
    if (PyUnicode_Check(key)) {
        const char* name = PyUnicode_AsUTF8(key);
        if (!name) return -1;
        int idx = -1;
        return TRVOgetindex(p->prob, 2, name, &idx) == 0 ? idx : -1;
    }
    long long v = index_integer_value(key);
    if (v == -1 && PyErr_Occurred()) return -1;
    return v < 0 ? -1 : static_cast<Py_ssize_t>(v);
}

void fill_context(ProblemObject* p, EvalContext& ctx, const std::vector<double>& values) {
    ctx.problem = reinterpret_cast<PyObject*>(p);
    ctx.values = values.data();
    ctx.count = static_cast<Py_ssize_t>(values.size());
    ctx.mode = 1;
    ctx.column_of = column_of_var;
    ctx.column_by_key = column_of_key;
}

}  // namespace

int eval_problem_context(PyObject* problem, PyObject* solution, EvalContext& ctx, std::vector<double>& values) {
    ProblemObject* p = as_prob(problem);
    if (!solution || solution == Py_None) {
        if (current_solution(p, values) < 0) return -1;
    } else {
        int n = 0;
        if (prob_cols(p, &n) < 0) return -1;
        // A given solution holds the user's columns, as getSolution() returns them: the
        // transfer column of a nonlinear objective is not among them.
        const bool transfer = p->nl_objective && p->obj_col >= 0 && p->obj_col < n;
        int64_t count = transfer ? n - 1 : n;
        void* arr = nullptr;
        if (conv_obj2arr(p, &count, solution, &arr, CONV_DOUBLE) < 0) {
            report_error(problem, nullptr);
            return -1;
        }
        values.assign(static_cast<double*>(arr), static_cast<double*>(arr) + count);
        conv_free(arr, count, CONV_DOUBLE);
        if (transfer) values.insert(values.begin() + p->obj_col, 0.0);
    }
    fill_context(p, ctx, values);
    return 0;
}

PyObject* evaluate_at_solution(ProblemObject* p, PyObject* obj, const std::vector<double>& values) {
    EvalContext ctx;
    fill_context(p, ctx, values);
    ctx.query_mode = true;
    return eval_walk(obj, ctx, NL_MAX_DEPTH);
}

}  // namespace tarvo
