// Evaluation of variables, terms, expressions and nonlinear trees at a point, and the walk
// over containers (arrays, dictionaries, sequences) of them.
#include "nonlinear/evaluation.h"

#include <cmath>

namespace tarvo {

namespace {

constexpr double DEFAULT_MIPTOL = 5e-06;

bool fail(PyObject* type, const char* msg) {
    PyErr_SetString(type, msg);
    return false;
}

double mip_tolerance() {
    if (!state.controls) return DEFAULT_MIPTOL;
    PyRef v(PyObject_GetAttrString(state.controls, "miptol"));
    if (!v || !is_numeric_value(v.get())) {
        PyErr_Clear();
        return DEFAULT_MIPTOL;
    }
    double t = PyFloat_AsDouble(v.get());
    if (t == -1.0 && PyErr_Occurred()) {
        PyErr_Clear();
        return DEFAULT_MIPTOL;
    }
    return t;
}

bool var_value(PyObject* v, const EvalContext& ctx, double* out) {
    if (ctx.mode == 1) {
        Py_ssize_t col = ctx.column_of ? ctx.column_of(ctx.problem, v) : -1;
        if (col < 0 || col >= ctx.count) {
            if (!PyErr_Occurred())
                fail(ModelError, "Object does not belong to problem or cannot be identified within expression");
            return false;
        }
        *out = ctx.values[col];
        return true;
    }
    PyObject* val = ctx.dictionary ? PyDict_GetItemWithError(ctx.dictionary, v) : nullptr;
    if (!val) {
        if (!PyErr_Occurred())
            fail(ModelError, "Object does not belong to problem or cannot be identified within expression");
        return false;
    }
    *out = PyFloat_AsDouble(val);
    return !(*out == -1.0 && PyErr_Occurred());
}

bool pwl_value(PyObject* args, const EvalContext& ctx, int depth, double* out) {
    if (!is_seq_args(args) || PySequence_Fast_GET_SIZE(args) < 3 || PySequence_Fast_GET_SIZE(args) % 2 == 0)
        return fail(ModelError, "Invalid piecewise linear function");
    PyObject** items = PySequence_Fast_ITEMS(args);
    Py_ssize_t npts = (PySequence_Fast_GET_SIZE(args) - 1) / 2;
    PyObject* var = items[0];
    double v;
    if (!eval_value(var, ctx, depth - 1, &v)) return false;
    std::vector<double> xs(npts), ys(npts);
    for (Py_ssize_t i = 0; i < npts; ++i) {
        xs[i] = PyFloat_AsDouble(items[1 + 2 * i]);
        ys[i] = PyFloat_AsDouble(items[2 + 2 * i]);
        if (PyErr_Occurred()) return false;
    }
    Py_ssize_t i = 0;
    while (i < npts && xs[i] <= v) ++i;
    PyRef vo(PyFloat_FromDouble(v));
    if (!vo) return false;
    // "... at breakpoint <var> = <x> and can't be evaluated at <v>"
    auto discontinuity = [&](const char* fmt, double x) {
        PyRef xo(PyFloat_FromDouble(x));
        if (xo) PyErr_Format(InterfaceError, fmt, var, xo.get(), vo.get());
        return false;
    };
    if (i > 0 && i < npts) {
        *out = ys[i - 1] + (ys[i] - ys[i - 1]) / (xs[i] - xs[i - 1]) * (v - xs[i - 1]);
        return true;
    }
    if (npts == 1) {
        if (v == xs[0]) {
            *out = ys[0];
            return true;
        }
        PyErr_Format(InterfaceError,
                     "Not enough points to extrapolate value of piecewise linear containing fraction for %S = %S", var,
                     vo.get());
        return false;
    }
    if (i == 0) {  // left of the first breakpoint: extend the first segment
        if (xs[1] == xs[0])
            return discontinuity(
                "Piecewise linear function has discontinuity at first breakpoint %S = %S and can't be evaluated at %S",
                xs[0]);
        *out = ys[0] + (ys[1] - ys[0]) / (xs[1] - xs[0]) * (v - xs[0]);
        return true;
    }
    // At or right of the last breakpoint: its value there, the last segment extended beyond.
    Py_ssize_t l = npts - 1;
    if (v == xs[l]) {
        *out = ys[l];
        return true;
    }
    if (xs[l] == xs[l - 1])
        return discontinuity(
            "Piecewise linear function has discontinuity at last breakpoint %S = %S and can't be evaluated at %S", xs[l]);
    *out = ys[l] + (ys[l] - ys[l - 1]) / (xs[l] - xs[l - 1]) * (v - xs[l]);
    return true;
}

bool node_value(NonlinearObject* n, const EvalContext& ctx, int depth, double* out) {
    PyObject* args = n->args;
    int d = depth - 1;
    auto arg_values = [&](std::vector<double>& vals, Py_ssize_t first) {
        if (!is_seq_args(args)) return fail(ModelError, "Invalid n-ary nonlinear expression");
        Py_ssize_t len = PySequence_Fast_GET_SIZE(args);
        for (Py_ssize_t i = first; i < len; ++i) {
            double v;
            if (!eval_value(PySequence_Fast_GET_ITEM(args, i), ctx, d, &v)) return false;
            vals.push_back(v);
        }
        return true;
    };
    auto two = [&](double* a, double* b) {
        if (!PyTuple_Check(args) || PyTuple_GET_SIZE(args) != 2) return fail(ModelError, "Invalid binary nonlinear expression");
        return eval_value(PyTuple_GET_ITEM(args, 0), ctx, d, a) && eval_value(PyTuple_GET_ITEM(args, 1), ctx, d, b);
    };
    double a, b;
    std::vector<double> vals;
    switch (n->op) {
        case NL_SUM:
            if (!arg_values(vals, 0)) return false;
            *out = 0.0;
            for (double v : vals) *out += v;
            return true;
        case NL_PROD:
            if (!arg_values(vals, 0)) return false;
            *out = 1.0;
            for (double v : vals) *out *= v;
            return true;
        case NL_MINUS:
            if (!two(&a, &b)) return false;
            *out = a - b;
            return true;
        case NL_DIV:
            if (!two(&a, &b)) return false;
            if (b == 0.0)
                return fail(PyExc_ZeroDivisionError, "Division by zero in evaluation of expression containing fraction");
            *out = a / b;
            return true;
        case NL_POW:
            if (!two(&a, &b)) return false;
            *out = std::pow(a, b);
            return true;
        case NL_MAX:
        case NL_MIN:
            if (!arg_values(vals, 0)) return false;
            if (vals.empty()) return fail(ModelError, "Invalid n-ary nonlinear expression");
            *out = vals[0];
            for (double v : vals)
                if (n->op == NL_MAX ? v > *out : v < *out) *out = v;
            return true;
        case NL_AND:
        case NL_OR: {
            if (!arg_values(vals, 0)) return false;
            double tol = mip_tolerance();
            if (n->op == NL_AND) {
                *out = 1.0;
                for (double v : vals)
                    if (v <= tol) { *out = 0.0; break; }
            } else {
                *out = 0.0;
                for (double v : vals)
                    if (v > 1 - tol) { *out = 1.0; break; }
            }
            return true;
        }
        case NL_PWL: return pwl_value(args, ctx, depth, out);
        case NL_USER:
        case NL_USER_DERIV: {
            if (!is_seq_args(args) || PySequence_Fast_GET_SIZE(args) < 1)
                return fail(ModelError, "Invalid user function, must specify at least one argument (the user function itself)");
            if (!arg_values(vals, 1)) return false;
            PyRef t(PyTuple_New(static_cast<Py_ssize_t>(vals.size())));
            if (!t) return false;
            for (size_t i = 0; i < vals.size(); ++i) {
                PyObject* f = PyFloat_FromDouble(vals[i]);
                if (!f) return false;
                PyTuple_SET_ITEM(t.get(), static_cast<Py_ssize_t>(i), f);
            }
            PyRef r(PyObject_Call(PySequence_Fast_GET_ITEM(args, 0), t.get(), nullptr));
            if (!r) return false;
            PyObject* v = r.get();
            if (PyTuple_Check(v)) {
                if (PyTuple_GET_SIZE(v) < 1) return fail(ModelError, "User function returned an empty tuple");
                v = PyTuple_GET_ITEM(v, 0);
            }
            *out = PyFloat_AsDouble(v);
            return !(*out == -1.0 && PyErr_Occurred());
        }
        default: break;
    }
    if (n->op < 0 || n->op >= NL_OP_COUNT || nl_ops[n->op].arity != 1) return fail(ModelError, "Unknown nonlinear type");
    if (is_seq_args(args) || !eval_value(args, ctx, d, &a)) {
        if (!PyErr_Occurred()) fail(ModelError, "Invalid unary nonlinear expression");
        return false;
    }
    switch (n->op) {
        case NL_UMINUS: *out = -a; break;
        case NL_EXP: *out = std::exp(a); break;
        case NL_LOG: *out = std::log(a); break;
        case NL_LOG10: *out = std::log(a) / std::log(10.0); break;
        case NL_SIN: *out = std::sin(a); break;
        case NL_COS: *out = std::cos(a); break;
        case NL_TAN: *out = std::tan(a); break;
        case NL_ASIN: *out = std::asin(a); break;
        case NL_ACOS: *out = std::acos(a); break;
        case NL_ATAN: *out = std::atan(a); break;
        case NL_ABS: *out = std::fabs(a); break;
        case NL_SIGN: *out = a > 0 ? 1.0 : (a < 0 ? -1.0 : 0.0); break;
        case NL_ERF: *out = std::erf(a); break;
        case NL_ERFC: *out = std::erfc(a); break;
        case NL_SQRT: *out = std::sqrt(a); break;
        default: return fail(ModelError, "Unknown nonlinear type");
    }
    return true;
}

}  // namespace

bool eval_value(PyObject* o, const EvalContext& ctx, int depth, double* out) {
    if (depth < 1) return fail(PyExc_RuntimeError, "Evaluation of expression exceeded recursion depth limit");
    if (!o) return fail(ModelError, "Evaluation of object of incorrect type");
    if (is_var(o)) return var_value(o, ctx, out);
    if (is_linterm(o)) {
        auto* t = reinterpret_cast<LinTermObject*>(o);
        double v;
        if (!var_value(t->var, ctx, &v)) return false;
        *out = t->coef * v;
        return true;
    }
    if (is_quadterm(o)) {
        auto* t = reinterpret_cast<QuadTermObject*>(o);
        double v1, v2;
        if (!var_value(t->var1, ctx, &v1) || !var_value(t->var2, ctx, &v2)) return false;
        *out = t->coef * v1 * v2;
        return true;
    }
    if (is_expression(o)) {
        ExpressionObject* e = as_expr(o);
        double s = e->constant;
        if (e->linear)
            for (auto& kv : *e->linear) {
                double v;
                if (!var_value(kv.first, ctx, &v)) return false;
                s += kv.second * v;
            }
        if (e->quadratic)
            for (auto& row : *e->quadratic) {
                double v1;
                if (!var_value(row.first, ctx, &v1)) return false;
                for (auto& kv : row.second) {
                    double v2;
                    if (!var_value(kv.first, ctx, &v2)) return false;
                    s += kv.second * v1 * v2;
                }
            }
        *out = s;
        return true;
    }
    if (is_nonlinear(o)) return node_value(as_nl(o), ctx, depth, out);
    if (is_number(o)) {
        *out = number_value(o);
        return true;
    }
    return fail(ModelError, "Evaluation of object of incorrect type");
}

PyObject* eval_walk_guarded(PyObject* o, const EvalContext& ctx, int depth);

// In getSolution() an integer (Python or NumPy) or a string names a column.
bool is_query_key(PyObject* o, const EvalContext& ctx) {
    return ctx.query_mode && ctx.column_by_key &&
           (PyLong_Check(o) || PyArray_IsScalar(o, Integer) || PyUnicode_Check(o));
}

// The solution value of the column named by an index or a name.
bool keyed_value(PyObject* key, const EvalContext& ctx, double* out) {
    Py_ssize_t col = ctx.column_by_key(ctx.problem, key);
    if (col < 0 && PyErr_Occurred()) return false;
    if (col < 0 || col >= ctx.count)
        return fail(InterfaceError, "Call to tarvo.problem.getSolution() contains an out-of-range index");
    *out = ctx.values[col];
    return true;
}

// Nested containers recurse under the interpreter's recursion limit.
PyObject* eval_walk(PyObject* o, const EvalContext& ctx, int depth) {
    if (Py_EnterRecursiveCall(" while evaluating a container")) return nullptr;
    PyObject* r = eval_walk_guarded(o, ctx, depth);
    Py_LeaveRecursiveCall();
    return r;
}

PyObject* eval_walk_guarded(PyObject* o, const EvalContext& ctx, int depth) {
    if (is_ndarray(o)) {
        PyArrayObject* a = reinterpret_cast<PyArrayObject*>(o);
        // In a query an integer array holds column indices, like a list of ints.
        bool keys = ctx.query_mode && ctx.column_by_key && PyTypeNum_ISINTEGER(PyArray_TYPE(a));
        if (!keys && (!array_holds_objects(a) || PyArray_TYPE(a) == npconstraint_typenum)) {
            PyErr_SetString(InterfaceError,
                            "tarvo.evaluate() requires one or more Python objects;\n"
                            "NumPy arrays must be of dtype tarvo.npvar, tarvo.npexpr, or tarvo.npconstraint.");
            return nullptr;
        }
        PyRef res(PyArray_SimpleNew(PyArray_NDIM(a), PyArray_DIMS(a), NPY_DOUBLE));
        if (!res) {
            if (!PyErr_Occurred())
                PyErr_SetString(ModelError, "Could not initialize result of the evaluation of a NumPy array");
            return nullptr;
        }
        double* out = static_cast<double*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(res.get())));
        PyRef it(PyArray_IterNew(o));
        if (!it) return nullptr;
        PyArrayIterObject* iter = reinterpret_cast<PyArrayIterObject*>(it.get());
        for (npy_intp i = 0; iter->index < iter->size; ++i) {
            PyRef el(PyArray_GETITEM(a, static_cast<char*>(iter->dataptr)));
            if (!el) return nullptr;
            if (keys ? !keyed_value(el.get(), ctx, &out[i]) : !eval_value(el.get(), ctx, depth - 1, &out[i]))
                return nullptr;
            PyArray_ITER_NEXT(iter);
        }
        return res.release();
    }
    if (PyDict_Check(o)) {
        PyRef res(PyDict_New());
        if (!res) return nullptr;
        Py_ssize_t pos = 0;
        PyObject *k, *v;
        while (PyDict_Next(o, &pos, &k, &v)) {
            PyRef ev(eval_walk(v, ctx, depth));
            if (!ev || PyDict_SetItem(res.get(), k, ev.get()) < 0) return nullptr;
        }
        return res.release();
    }
    if (is_query_key(o, ctx)) {
        double v;
        if (!keyed_value(o, ctx, &v)) return nullptr;
        return PyFloat_FromDouble(v);
    }
    bool tuple = PyTuple_Check(o);
    if (tuple || PyList_Check(o) ||
        (operand_kind_quiet(o) < 0 && PySequence_Check(o) && !PyUnicode_Check(o) && !PyBytes_Check(o))) {
        PyRef seq(PySequence_Fast(o, "Cannot evaluate type of sequence"));
        if (!seq) return nullptr;
        Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.get());
        PyRef res(tuple ? PyTuple_New(n) : PyList_New(n));
        if (!res) return nullptr;
        for (Py_ssize_t i = 0; i < n; ++i) {
            PyObject* ev = eval_walk(PySequence_Fast_GET_ITEM(seq.get(), i), ctx, depth);
            if (!ev) return nullptr;
            if (tuple) PyTuple_SET_ITEM(res.get(), i, ev);
            else PyList_SET_ITEM(res.get(), i, ev);
        }
        return res.release();
    }
    double v;
    if (!eval_value(o, ctx, depth, &v)) return nullptr;
    return PyFloat_FromDouble(v);
}

static PyObject* fn_evaluate_body(PyObject*, PyObject* args, PyObject* kwargs) {
    PyObject* problem = Py_None;
    PyObject* solution = Py_None;
    static const char* kwlist[] = {"problem", "solution", nullptr};
    PyRef empty(PyTuple_New(0));
    if (!empty || !PyArg_ParseTupleAndKeywords(empty.get(), kwargs, "|$OO:evaluate", const_cast<char**>(kwlist),
                                               &problem, &solution))
        return nullptr;
    if (problem == Py_None && solution == Py_None) {
        PyErr_SetString(InterfaceError,
                        "tarvo.evaluate() requires at least of the two arguments \"solution\" and \"problem\".\n"
                        "See the documentation of tarvo.evaluate for details.");
        return nullptr;
    }
    if (problem != Py_None && !PyObject_TypeCheck(problem, &ProblemType)) {
        PyErr_SetString(InterfaceError, "Argument \"problem\" must be an tarvo.problem object");
        return nullptr;
    }
    EvalContext ctx;
    std::vector<double> values;
    if (PyDict_Check(solution)) {
        ctx.dictionary = solution;
    } else {
        bool vector = PyList_Check(solution) ||
                      (is_ndarray(solution) && PyArray_NDIM(reinterpret_cast<PyArrayObject*>(solution)) == 1);
        if (solution != Py_None && !vector) {
            PyErr_SetString(InterfaceError,
                            "Argument \"solution\" must be a dictionary, a list, or a one-dimensional NumPy array.\n"
                            "See the documentation for tarvo.evaluate");
            return nullptr;
        }
        if (problem == Py_None) {
            PyErr_SetString(InterfaceError,
                            "Argument \"problem\" is necessary when passing a list or NumPy array of variable values");
            return nullptr;
        }
        if (eval_problem_context(problem, solution, ctx, values) < 0) return nullptr;
    }
    Py_ssize_t n = PyTuple_GET_SIZE(args);
    if (n == 1) return check_result(eval_walk(PyTuple_GET_ITEM(args, 0), ctx, NL_MAX_DEPTH));
    PyRef res(PyTuple_New(n));
    if (!res) return nullptr;
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* ev = check_result(eval_walk(PyTuple_GET_ITEM(args, i), ctx, NL_MAX_DEPTH));
        if (!ev) return nullptr;
        PyTuple_SET_ITEM(res.get(), i, ev);
    }
    return res.release();
}

PyObject* fn_evaluate(PyObject* a0, PyObject* args, PyObject* kwargs) {
    return alloc_guard(nullptr, [&] { return fn_evaluate_body(a0, args, kwargs); });
}

}  // namespace tarvo

namespace tarvo {

// Default while the problem layer does not provide evaluation at a problem's columns.
__attribute__((weak)) int eval_problem_context(PyObject*, PyObject*, EvalContext&, std::vector<double>&) {
    PyErr_SetString(InterfaceError, "Evaluation at the columns of a problem is not available in this build");
    return -1;
}

}  // namespace tarvo
