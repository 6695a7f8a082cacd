// Module functions that build function-call nodes: the one-argument mathematical functions
// (numbers give floats, arrays apply elementwise), max/min/And/Or over collections, piecewise
// linear functions and user functions; and the module function table of the nonlinear layer.
#include "nonlinear/internal.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace tarvo {

namespace {

double sign_of(double t) { return t > 0 ? 1.0 : (t < 0 ? -1.0 : 0.0); }
double log10_of(double t) { return std::log(t) * 0.4342944819032518; }

using MathFn = double (*)(double);

PyObject* apply_unary(int op, MathFn fn, PyObject* t);

// The function applied to every element of an array: numeric arrays give float64 arrays
// of values; arrays of objects give a copy (npvar becomes npexpr) holding the results.
PyObject* apply_to_array(int op, MathFn fn, PyObject* t) {
    PyArrayObject* arr = reinterpret_cast<PyArrayObject*>(t);
    if (!array_holds_objects(arr)) {
        PyRef dbl(PyArray_FROMANY(t, NPY_DOUBLE, 0, 0, NPY_ARRAY_ENSURECOPY | NPY_ARRAY_C_CONTIGUOUS));
        if (!dbl) {
            if (!PyErr_Occurred()) model_error("Cannot iterate on sequence of arguments");
            return nullptr;
        }
        double* data = static_cast<double*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(dbl.get())));
        npy_intp n = PyArray_SIZE(reinterpret_cast<PyArrayObject*>(dbl.get()));
        for (npy_intp i = 0; i < n; ++i) data[i] = fn(data[i]);
        return dbl.release();
    }
    int type = PyArray_TYPE(arr) == npvar_typenum ? npexpr_typenum : PyArray_TYPE(arr);
    PyRef copy(PyArray_FromAny(t, PyArray_DescrFromType(type), 0, 0, NPY_ARRAY_ENSURECOPY | NPY_ARRAY_C_CONTIGUOUS, nullptr));
    PyRef it(copy ? PyArray_IterNew(copy.get()) : nullptr);
    if (!it) {
        if (!PyErr_Occurred()) model_error("Cannot iterate on sequence of arguments");
        return nullptr;
    }
    PyArrayObject* c = reinterpret_cast<PyArrayObject*>(copy.get());
    PyArrayIterObject* iter = reinterpret_cast<PyArrayIterObject*>(it.get());
    while (iter->index < iter->size) {
        PyRef elem(PyArray_GETITEM(c, static_cast<char*>(iter->dataptr)));
        if (!elem) return nullptr;
        PyRef value(apply_unary(op, fn, elem.get()));
        if (!value) return nullptr;
        if (PyArray_SETITEM(c, static_cast<char*>(iter->dataptr), value.get()) < 0) return nullptr;
        PyArray_ITER_NEXT(iter);
    }
    return copy.release();
}

PyObject* apply_unary(int op, MathFn fn, PyObject* t) {
    if (is_ndarray(t)) return apply_to_array(op, fn, t);
    if (is_number(t)) return PyFloat_FromDouble(fn(number_value(t)));
    return nl_make(false, op, t);
}

double fabs_of(double t) { return std::fabs(t); }

#define TARVO_UNARY(pyname, op, fn)                                           \
    PyObject* fn_##pyname(PyObject*, PyObject* t) { return apply_unary(op, fn, t); }

double c_sin(double t) { return std::sin(t); }
double c_cos(double t) { return std::cos(t); }
double c_tan(double t) { return std::tan(t); }
double c_asin(double t) { return std::asin(t); }
double c_acos(double t) { return std::acos(t); }
double c_atan(double t) { return std::atan(t); }
double c_exp(double t) { return std::exp(t); }
double c_log(double t) { return std::log(t); }
double c_sqrt(double t) { return std::sqrt(t); }
double c_erf(double t) { return std::erf(t); }
double c_erfc(double t) { return std::erfc(t); }

TARVO_UNARY(sin, NL_SIN, c_sin)
TARVO_UNARY(cos, NL_COS, c_cos)
TARVO_UNARY(tan, NL_TAN, c_tan)
TARVO_UNARY(asin, NL_ASIN, c_asin)
TARVO_UNARY(acos, NL_ACOS, c_acos)
TARVO_UNARY(atan, NL_ATAN, c_atan)
TARVO_UNARY(exp, NL_EXP, c_exp)
TARVO_UNARY(log, NL_LOG, c_log)
TARVO_UNARY(log10, NL_LOG10, log10_of)
TARVO_UNARY(abs, NL_ABS, fabs_of)
TARVO_UNARY(sqrt, NL_SQRT, c_sqrt)
TARVO_UNARY(sign, NL_SIGN, sign_of)
TARVO_UNARY(erf, NL_ERF, c_erf)
TARVO_UNARY(erfc, NL_ERFC, c_erfc)
#undef TARVO_UNARY

// ---------------------------------------------------------------- max, min, And, Or

struct Collection {
    Py_ssize_t count = 0;
    PyRef single;  // the only argument when count == 1
    PyRef items;   // tuple of the arguments when count >= 2
};

// Examines the positional tuple; false on a failure of the examination.
bool examine(PyObject* args, Collection& c) {
    Py_ssize_t n = PyTuple_GET_SIZE(args);
    if (n != 1) {
        c.count = n;
        c.items = PyRef::borrow(args);
        return true;
    }
    PyObject* x = PyTuple_GET_ITEM(args, 0);
    if (is_ndarray(x)) {
        PyArrayObject* a = reinterpret_cast<PyArrayObject*>(x);
        if (PyArray_NDIM(a) > 64) return false;
        c.count = PyArray_SIZE(a);
        PyRef flat(PyArray_Ravel(a, NPY_CORDER));
        if (!flat) return false;
        c.items.reset(PySequence_Tuple(flat.get()));
        if (!c.items) return false;
        if (c.count == 1) {
            PyObject* el = PyTuple_GET_ITEM(c.items.get(), 0);
            if (PyArray_IsScalar(el, Integer)) c.single.reset(PyNumber_Long(el));
            else if (PyArray_IsScalar(el, Floating)) c.single.reset(PyNumber_Float(el));
            else if (!PyArray_IsAnyScalar(el) || operand_kind_quiet(el) >= 0) c.single = PyRef::borrow(el);
            if (!c.single) { PyErr_Clear(); return false; }
        }
    } else if (PyList_Check(x) || PyTuple_Check(x) || (PySequence_Check(x) && !PyUnicode_Check(x) && !PyBytes_Check(x))) {
        c.items.reset(PySequence_Tuple(x));
        if (!c.items) return false;
        c.count = PyTuple_GET_SIZE(c.items.get());
        if (c.count == 1) c.single = PyRef::borrow(PyTuple_GET_ITEM(c.items.get(), 0));
    } else {
        c.count = 1;
        c.single = PyRef::borrow(x);
    }
    if (c.count == 1 && operand_kind_quiet(c.single.get()) < 0) return false;
    return true;
}

PyObject* collection_function(PyObject* args, int op, const char* none_msg, double empty_value,
                              const char* bad_msg) {
    Collection c;
    if (!examine(args, c)) {
        PyErr_Clear();
        return model_error(bad_msg);
    }
    if (c.count == 0) return none_msg ? model_error(none_msg) : PyFloat_FromDouble(empty_value);
    if (c.count == 1) return c.single.release();
    PyObject* items = c.items.get();
    if (!PyTuple_Check(items)) {
        c.items.reset(PySequence_Tuple(items));
        if (!c.items) return nullptr;
    }
    return nl_make(true, op, c.items.get());
}

PyObject* fn_max(PyObject*, PyObject* args) {
    return collection_function(args, NL_MAX, "The function tarvo.max must have at least one argument", 0,
                               "Incorrect argument for tarvo.max function");
}
PyObject* fn_min(PyObject*, PyObject* args) {
    return collection_function(args, NL_MIN, "The function tarvo.min must have at least one argument", 0,
                               "Incorrect argument for tarvo.min function");
}
PyObject* fn_and(PyObject*, PyObject* args) {
    return collection_function(args, NL_AND, nullptr, 1.0, "Incorrect argument for tarvo.And function");
}
PyObject* fn_or(PyObject*, PyObject* args) {
    return collection_function(args, NL_OR, nullptr, 0.0, "Incorrect argument for tarvo.Or function");
}

// ---------------------------------------------------------------- user

PyObject* fn_user(PyObject*, PyObject* args, PyObject* kwargs) {
    static const char* kwlist[] = {"derivatives", nullptr};
    int derivatives = 0;
    PyRef empty(PyTuple_New(0));
    if (!empty) return nullptr;
    if (!PyArg_ParseTupleAndKeywords(empty.get(), kwargs, "|$p:user", const_cast<char**>(kwlist), &derivatives))
        return nullptr;
    return nl_make(true, derivatives ? NL_USER_DERIV : NL_USER, args);
}

// ---------------------------------------------------------------- pwl

struct Segment {
    double a, b, fa, fb;
};

static PyObject* fn_pwl_body(PyObject*, PyObject* arg) {
    if (!PyDict_Check(arg))
        return model_error(
            "Function tarvo.pwl only accepts a dictionary; a call must be for example "
            "tarvo.pwl({(1,4): 2*x+1, (4,6): 4*x+5, ...})");
    std::vector<Segment> segs;
    segs.reserve(2 * static_cast<size_t>(PyDict_Size(arg)));
    PyObject* variable = nullptr;   // borrowed: the function's variable
    PyObject* value_var = nullptr;  // borrowed: the first variable found in a value
    Py_ssize_t pos = 0;
    PyObject *key, *value;
    while (PyDict_Next(arg, &pos, &key, &value)) {
        if (key == Py_None) {
            if (!is_var(value)) {
                PyErr_Format(ModelError, "Tuple (None, Obj) must have an tarvo.var() object as Obj, found <%S>", value);
                return nullptr;
            }
            variable = value;
            continue;
        }
        if (!PyTuple_Check(key) || PyTuple_GET_SIZE(key) != 2) {
            PyErr_Format(ModelError, "All keys in the dictionary argument of tarvo.pwl must be two-tuples; <%S> is not", key);
            return nullptr;
        }
        PyObject* ka = PyTuple_GET_ITEM(key, 0);
        PyObject* kb = PyTuple_GET_ITEM(key, 1);
        if (!is_number(ka) || !is_number(kb) || number_value(ka) > number_value(kb)) {
            PyErr_Format(ModelError,
                         "All keys in the dictionary argument of tarvo.pwl must be two-tuples with two constant "
                         "numbers: [a,b] such that a<b; <%S> is not",
                         key);
            return nullptr;
        }
        double a = number_value(ka), b = number_value(kb);
        double m = 0, q = 0;
        PyObject* v = nullptr;
        if (is_number(value)) {
            q = number_value(value);
        } else if (is_var(value)) {
            m = 1;
            v = value;
        } else if (is_linterm(value)) {
            m = reinterpret_cast<LinTermObject*>(value)->coef;
            v = reinterpret_cast<LinTermObject*>(value)->var;
        } else if (is_expression(value)) {
            ExpressionObject* e = as_expr(value);
            if (e->linear && e->linear->size() > 1) {
                PyErr_Format(ModelError,
                             "Expression %S not suitable for a piecewise linear function; it must contain one variable only",
                             value);
                return nullptr;
            }
            if (e->linear && !e->linear->empty()) {
                v = e->linear->begin()->first;
                m = e->linear->begin()->second;
            }
            q = e->constant;
        } else {
            PyErr_Format(ModelError,
                         "Expression %S not suitable for a piecewise linear function; it must be a constant or a linear function",
                         value);
            return nullptr;
        }
        if (v) {
            if (value_var && var_serial(value_var) != var_serial(v)) {
                PyRef fa(PyFloat_FromDouble(a)), fb(PyFloat_FromDouble(b));
                if (!fa || !fb) return nullptr;
                PyErr_Format(ModelError,
                             "Expression in [%S,%S] interval contains variable %S while another variable has been used in the same function",
                             fa.get(), fb.get(), v);
                return nullptr;
            }
            if (!value_var) {
                value_var = v;
                variable = v;
            }
        }
        segs.push_back({a, b, m * a + q, m * b + q});
    }
    if (!variable) {
        PyErr_Format(ModelError,
                     "No variable specified for this piecewise linear function: %S; Are all values constant? If so, "
                     "add a key-value pair (None: x) to the dictionary with the variable associated to the piecewise linear",
                     arg);
        return nullptr;
    }
    std::stable_sort(segs.begin(), segs.end(), [](const Segment& s, const Segment& t) { return s.a < t.a; });
    auto is_break = [&](size_t i) {  // a gap or a jump between segment i and the next
        return segs[i].b < segs[i + 1].a - 1e-06 || std::fabs(segs[i].fb - segs[i + 1].fa) > 1e-06;
    };
    for (size_t i = 0; i + 1 < segs.size(); ++i) {
        if (segs[i + 1].a < segs[i].b) {
            PyRef a1(PyFloat_FromDouble(segs[i].a)), b1(PyFloat_FromDouble(segs[i].b));
            PyRef a2(PyFloat_FromDouble(segs[i + 1].a)), b2(PyFloat_FromDouble(segs[i + 1].b));
            if (!a1 || !b1 || !a2 || !b2) return nullptr;
            PyErr_Format(ModelError, "Interval [%S,%S] overlaps with [%S,%S] in piecewise linear function", a1.get(),
                         b1.get(), a2.get(), b2.get());
            return nullptr;
        }
    }
    PyRef list(PyList_New(0));
    if (!list || PyList_Append(list.get(), variable) < 0) return nullptr;
    auto push = [&](double x, double y) {
        PyRef fx(PyFloat_FromDouble(x)), fy(PyFloat_FromDouble(y));
        return fx && fy && PyList_Append(list.get(), fx.get()) == 0 && PyList_Append(list.get(), fy.get()) == 0;
    };
    for (size_t i = 0; i < segs.size(); ++i) {
        if (!push(segs[i].a, segs[i].fa)) return nullptr;
        bool last = i + 1 == segs.size();
        if ((last || is_break(i)) && !push(segs[i].b, segs[i].fb)) return nullptr;
    }
    return nl_make(true, NL_PWL, list.get());
}

PyObject* fn_pwl(PyObject* a0, PyObject* arg) {
    return alloc_guard(nullptr, [&] { return fn_pwl_body(a0, arg); });
}

#define UNARY_DOC(name, what)                                                                           \
    name "(t, /)\n--\n\nReturns the " what " of a given expression.\n\nA number gives a float; a NumPy array gives "   \
         "the function applied to each element; a variable or expression gives a nonlinear expression. Raises "   \
         "ModelError for any other argument."

}  // namespace

PyMethodDef nonlinear_functions[] = {
    {"sin", fn_sin, METH_O, UNARY_DOC("sin", "sine")},
    {"cos", fn_cos, METH_O, UNARY_DOC("cos", "cosine")},
    {"tan", fn_tan, METH_O, UNARY_DOC("tan", "tangent")},
    {"asin", fn_asin, METH_O, UNARY_DOC("asin", "arcsine")},
    {"acos", fn_acos, METH_O, UNARY_DOC("acos", "arccosine")},
    {"atan", fn_atan, METH_O, UNARY_DOC("atan", "arctangent")},
    {"exp", fn_exp, METH_O, UNARY_DOC("exp", "exponential")},
    {"log", fn_log, METH_O, UNARY_DOC("log", "natural logarithm")},
    {"log10", fn_log10, METH_O, UNARY_DOC("log10", "base-10 logarithm")},
    {"abs", fn_abs, METH_O, UNARY_DOC("abs", "absolute value")},
    {"sqrt", fn_sqrt, METH_O, UNARY_DOC("sqrt", "square root")},
    {"sign", fn_sign, METH_O, UNARY_DOC("sign", "sign")},
    {"erf", fn_erf, METH_O, UNARY_DOC("erf", "error function")},
    {"erfc", fn_erfc, METH_O, UNARY_DOC("erfc", "complementary error function")},
    {"max", fn_max, METH_VARARGS, "max(*args)\n--\n\nReturns the maximum of one or more expressions.\n\nArguments may be given one by one or as one list, "
     "tuple or array; the result is a nonlinear expression. Raises ModelError for no or invalid arguments."},
    {"min", fn_min, METH_VARARGS, "min(*args)\n--\n\nReturns the minimum of one or more expressions.\n\nArguments may be given one by one or as one list, "
     "tuple or array; the result is a nonlinear expression. Raises ModelError for no or invalid arguments."},
    {"And", fn_and, METH_VARARGS, "And(*args)\n--\n\nReturns a logical AND of two or more binary variables or expressions.\n\nArguments may be given "
     "one by one or as one list; the result is a nonlinear expression worth 1 when all are nonzero. Raises ModelError "
     "for invalid arguments."},
    {"Or", fn_or, METH_VARARGS, "Or(*args)\n--\n\nReturns a logical OR of two or more binary variables or expressions.\n\nArguments may be given "
     "one by one or as one list; the result is a nonlinear expression worth 1 when any is nonzero. Raises ModelError "
     "for invalid arguments."},
    {"pwl", fn_pwl, METH_O,
     "pwl(dict, /)\n--\n\nReturns a piecewise linear function over a variable.\n\nThe argument is a dictionary whose keys "
     "are intervals (a, b) and whose values are constants or linear functions of one variable; the result is a "
     "nonlinear expression. Raises ModelError for an invalid dictionary."},
    {"user", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(fn_user)), METH_VARARGS | METH_KEYWORDS,
     "user(f, /, *args, derivatives=False)\n--\n\nCreates an expression that is computed by means of a user-specified\n"
     "function: f(t1, ..., tn) of the expressions args, called with floats. With derivatives=True, f returns the tuple "
     "(value, df/dt1, ..., df/dtn); otherwise it returns the value and derivatives are taken by finite differences. "
     "Returns a nonlinear expression; errors of f surface when the expression is evaluated or solved."},
    {"Sum", fn_sum, METH_VARARGS,
     "Sum(*args)\n--\n\nAlternative sum operator for an arbitrary number of objects created by\nthe modelling algebra; "
     "sums in one pass. Takes the terms one by one or as one list, tuple, dict, generator or array; returns an "
     "expression (or a nonlinear expression or array). Raises ModelError for an object that is not a term or number."},
    {"Prod", fn_prod, METH_VARARGS, "Prod(*args)\n--\n\nReturns the product of a sequence of one or more expressions.\n\nThe factors are given one by one "
     "or as one collection; an empty collection gives 0.0. Raises ModelError for an object that is not a term or number."},
    {"Dot", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(fn_dot)), METH_VARARGS | METH_KEYWORDS,
     "Dot(*args, out=None)\n--\n\nAlternative dot-product operator for an arbitrary number of NumPy\narrays of numbers and "
     "modelling objects, folded left to right like numpy.dot; two vectors give one expression, otherwise an array "
     "(written into out when given). Raises ModelError for non-arrays or mismatched dimensions."},
    {"vars", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(fn_vars)), METH_VARARGS | METH_KEYWORDS,
     "vars(*indices, name=None, lb=0.0, ub=1e+20, threshold=-1e+20, vartype=0)\n--\n\nCreates an indexed set or map "
     "of variables.\n\nIntegers only give a NumPy array of that shape (dtype npvar) with names like x(0,1); any "
     "list of keys among the index sets gives a dict keyed by the key or tuple of keys; no index gives one var. Raises "
     "ModelError for an empty bound interval."},
    {"evaluate", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(fn_evaluate)), METH_VARARGS | METH_KEYWORDS,
     "evaluate(*expressions, problem=None, solution=None)\n--\n\nReturns the evaluation of one or more expressions for a "
     "given\nsolution (dictionary) or problem.\n\nsolution is a dict var -> value, or a list or array of column values "
     "of problem; without it the problem's current solution is used. Each argument gives a value of its own shape "
     "(float, list, dict or array); several give a tuple. Raises InterfaceError when neither is given."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace tarvo
