// Solution queries (values, slacks, duals, reduced costs) in the shape they were asked for,
// and lookups between objects and indices.
#include "problem/problem.h"
#include "model/model.h"
#include "nonlinear/node.h"
#include "problem/nonlinear_bridge.h"

#include <vector>

#define TARVO_WEAK __attribute__((weak))

namespace tarvo {

namespace {

enum Vec { VEC_X, VEC_SLACK, VEC_DUAL, VEC_DJ };

// Which solution the queries read: 2 nonlinear, 1 mixed-integer, 0 linear; -1 on error.
int solution_kind(ProblemObject* p) {
    if (p->slp && nonlinear_running()) {
        if (problem_is_nonlinear(p)) return 2;
        int st = 0;
        if (TSLPgetintattrib(p->slp, 12044, &st) == 0 && st >= 1 && st <= 6) return 2;
    }
    return prob_is_mip(p);
}

// Fetches one whole vector of the current solution.
int fetch_vector(ProblemObject* p, Vec which, std::vector<double>& out) {
    int kind = solution_kind(p);
    if (kind < 0) return -1;
    bool by_col = which == VEC_X || which == VEC_DJ;
    int n = 0;
    if (kind == 2) {
        if (TSLPgetintattrib(p->slp, by_col ? 12000 : 11999, &n) != 0) return problem_error(p), -1;
    } else if (prob_int_attrib(p, by_col ? 1214 : 1124, &n) < 0) {
        return -1;
    }
    out.assign(static_cast<size_t>(n), 0.0);
    double* d = out.data();
    if (n == 0) d = nullptr;
    double* x = which == VEC_X ? d : nullptr;
    double* slack = which == VEC_SLACK ? d : nullptr;
    double* dual = which == VEC_DUAL ? d : nullptr;
    double* dj = which == VEC_DJ ? d : nullptr;
    if (n == 0) return 0;
    int rc;
    if (kind == 2) {
        if (!TSLPgetslpsol) {
            PyErr_SetString(SolverError, "Nonlinear solutions are not available in this build");
            return -1;
        }
        rc = TSLPgetslpsol(p->slp, x, slack, dual, dj);
    } else if (kind == 1) {
        if (which == VEC_DUAL) {
            PyErr_SetString(SolverError, "Cannot retrieve dual variables in a MIP");
            return -1;
        }
        if (which == VEC_DJ) {
            PyErr_SetString(SolverError, "Cannot retrieve reduced cost in a MIP");
            return -1;
        }
        rc = TRVOgetmipsol(p->prob, x, slack);
    } else {
        rc = TRVOgetlpsol(p->prob, x, slack, dual, dj);
    }
    if (rc != 0) {
        if (kind == 0 && which == VEC_DUAL) PyErr_SetString(SolverError, "Could not get dual solution");
        else if (kind != 2 && which == VEC_SLACK) PyErr_SetString(SolverError, "Could not get constraints' slack");
        else if (kind == 0 && which == VEC_DJ) PyErr_SetString(SolverError, "Could not retrieve reduced costs");
        else problem_error(p);
        return -1;
    }
    return 0;
}

const char* const OUT_OF_RANGE = "Index out of range";

// Position of one leaf in a vector of length n (by column or by row).
int resolve_entry(ProblemObject* p, PyObject* leaf, bool by_col, int64_t n, int64_t* pos) {
    int64_t idx = -1;
    if (by_col && is_var(leaf)) {
        auto it = p->colmap->find(var_serial(leaf));
        if (it != p->colmap->end()) idx = it->second;
    } else if (!by_col && is_constraint(leaf)) {
        auto it = p->rowmap->find(con_serial(leaf));
        if (it != p->rowmap->end()) idx = it->second;
    } else if (!by_col && is_sos(leaf)) {
        auto it = p->setmap->find(reinterpret_cast<SosObject*>(leaf)->serial);
        if (it != p->setmap->end()) idx = it->second;
    } else if (PyUnicode_Check(leaf) || PyBytes_Check(leaf)) {
        PyObject* tmp = nullptr;
        const char* name = conv_str(leaf, nullptr, &tmp);
        if (!name) return -1;
        int i = -1;
        if (TRVOgetindex(p->prob, by_col ? 2 : 1, name, &i) == 0) idx = i;
        Py_XDECREF(tmp);
    } else if (is_index_integer(leaf)) {
        idx = index_integer_value(leaf);
        if (idx == -1 && PyErr_Occurred()) return -1;
    } else {
        PyErr_SetString(ModelError, "Incorrect object(s) passed: need index, variable, constraint, or SOS");
        return -1;
    }
    if (idx < 0 || idx >= n) {
        PyErr_SetString(ModelError, OUT_OF_RANGE);
        return -1;
    }
    *pos = idx;
    return 0;
}

PyObject* list_of(const std::vector<double>& v) {
    PyObject* l = PyList_New(static_cast<Py_ssize_t>(v.size()));
    if (!l) return nullptr;
    for (size_t i = 0; i < v.size(); ++i) {
        PyObject* f = PyFloat_FromDouble(v[i]);
        if (!f) {
            Py_DECREF(l);
            return nullptr;
        }
        PyList_SET_ITEM(l, static_cast<Py_ssize_t>(i), f);
    }
    return l;
}

// The shape rules shared by getDual, getSlack, getRCost and flat getSolution.
PyObject* shaped_query(PyObject* self, PyObject* args, Vec which) {
    ProblemObject* p = as_prob(self);
    std::vector<double> v;
    if (fetch_vector(p, which, v) < 0) return nullptr;
    bool by_col = which == VEC_X || which == VEC_DJ;
    int64_t n = static_cast<int64_t>(v.size());
    Py_ssize_t nargs = PyTuple_GET_SIZE(args);
    if (nargs == 0) return list_of(v);
    if (nargs == 1) {
        PyObject* a = PyTuple_GET_ITEM(args, 0);
        if (!PyList_Check(a) && !PyTuple_Check(a) && !PySequence_Check(a) && !PyIter_Check(a) && !PyDict_Check(a) &&
            !is_ndarray(a)) {
            int64_t pos;
            if (resolve_entry(p, a, by_col, n, &pos) < 0) return nullptr;
            return PyFloat_FromDouble(v[pos]);
        }
    }
    PyRef out(PyList_New(0));
    if (!out) return nullptr;
    int rc = walk_leaves(args, WALK_DEPTH, [&](PyObject* leaf) -> int {
        int64_t pos;
        if (resolve_entry(p, leaf, by_col, n, &pos) < 0) return -1;
        PyRef f(PyFloat_FromDouble(v[pos]));
        return f ? PyList_Append(out.get(), f.get()) : -1;
    });
    if (rc < 0) return nullptr;
    return out.release();
}

// Objects of a problem list by index, index list or range.
PyObject* get_objects(PyObject* list, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"index", "first", "last", nullptr};
    PyObject* index = nullptr;
    int first = -1, last = -1;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "|Oii", const_cast<char**>(kwlist), &index, &first, &last)) return nullptr;
    if (index == Py_None) index = nullptr;
    if (index && (first >= 0 || last >= 0)) {
        PyErr_SetString(ModelError, "Parameters 'first' and 'last' cannot be specified if 'index' is also specified");
        return nullptr;
    }
    Py_ssize_t len = PyList_GET_SIZE(list);
    if (index) {
        if (is_index_integer(index)) {
            long long i = index_integer_value(index);
            if (i == -1 && PyErr_Occurred()) return nullptr;
            return PySequence_GetItem(list, static_cast<Py_ssize_t>(i));
        }
        PyRef out(PyList_New(0));
        if (!out) return nullptr;
        int rc = walk_leaves(index, WALK_DEPTH, [&](PyObject* leaf) -> int {
            if (!is_index_integer(leaf)) {
                PyErr_SetString(ModelError, "Error in index list(s): must contain only integers");
                return -1;
            }
            PyRef o(PySequence_GetItem(list, static_cast<Py_ssize_t>(index_integer_value(leaf))));
            return o ? PyList_Append(out.get(), o.get()) : -1;
        });
        if (rc < 0) return nullptr;
        return out.release();
    }
    if (first < 0 && last < 0) return PyList_GetSlice(list, 0, len);
    if (first < 0 || last < 0) {
        PyErr_SetString(ModelError, "Parameters 'first' and 'last' must be both nonnegative when specified");
        return nullptr;
    }
    if (first >= len || last >= len) {
        PyErr_SetString(ModelError, "Parameters 'first' and 'last' are out of range");
        return nullptr;
    }
    if (first > last) return PyList_New(0);
    return PyList_GetSlice(list, first, last + 1);
}

double var_value(PyObject* v, ProblemObject* p, const double* x, int64_t n, bool* ok) {
    auto it = p->colmap->find(var_serial(v));
    if (it == p->colmap->end() || it->second < 0 || it->second >= n) {
        PyErr_SetString(ModelError, "Object does not belong to problem or cannot be identified within expression");
        *ok = false;
        return 0;
    }
    return x[it->second];
}

PyObject* evaluate_walk(PyObject* obj, ProblemObject* p, const double* x, int64_t n, int depth) {
    if (depth < 1) {
        PyErr_SetString(PyExc_RuntimeError, "Evaluation of expression exceeded recursion depth limit");
        return nullptr;
    }
    if (is_ndarray(obj)) {
        PyArrayObject* arr = reinterpret_cast<PyArrayObject*>(obj);
        int t = PyArray_DESCR(arr)->type_num;
        if (t != NPY_OBJECT && !PyTypeNum_ISUSERDEF(t)) {
            PyErr_SetString(InterfaceError,
                            "tarvo.evaluate() requires one or more Python objects;\nNumPy arrays must be of dtype tarvo.npvar, tarvo.npexpr, or tarvo.npconstraint.");
            return nullptr;
        }
        PyRef result(PyArray_SimpleNew(PyArray_NDIM(arr), PyArray_DIMS(arr), NPY_DOUBLE));
        if (!result) return nullptr;
        PyRef iter(PyArray_IterNew(obj));
        if (!iter) return nullptr;
        PyArrayIterObject* it = reinterpret_cast<PyArrayIterObject*>(iter.get());
        double* out = static_cast<double*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(result.get())));
        for (npy_intp k = 0; it->index < it->size; ++k) {
            PyRef item(PyArray_GETITEM(arr, static_cast<char*>(it->dataptr)));
            if (!item) return nullptr;
            PyRef val(evaluate_walk(item.get(), p, x, n, depth - 1));
            if (!val) return nullptr;
            out[k] = PyFloat_AsDouble(val.get());
            if (out[k] == -1.0 && PyErr_Occurred()) return nullptr;
            PyArray_ITER_NEXT(it);
        }
        return result.release();
    }
    if (PyDict_Check(obj)) {
        PyRef d(PyDict_New());
        if (!d) return nullptr;
        PyObject *k, *v;
        Py_ssize_t pos = 0;
        while (PyDict_Next(obj, &pos, &k, &v)) {
            PyRef val(evaluate_walk(v, p, x, n, depth - 1));
            if (!val || PyDict_SetItem(d.get(), k, val.get()) < 0) return nullptr;
        }
        return d.release();
    }
    if (PyList_Check(obj) || PyTuple_Check(obj)) {
        Py_ssize_t len = PySequence_Fast_GET_SIZE(obj);
        PyRef out(PyTuple_Check(obj) ? PyTuple_New(len) : PyList_New(len));
        if (!out) return nullptr;
        for (Py_ssize_t i = 0; i < len; ++i) {
            PyObject* val = evaluate_walk(PySequence_Fast_GET_ITEM(obj, i), p, x, n, depth - 1);
            if (!val) return nullptr;
            if (PyTuple_Check(obj)) PyTuple_SET_ITEM(out.get(), i, val);
            else PyList_SET_ITEM(out.get(), i, val);
        }
        return out.release();
    }
    if (is_index_integer(obj) || PyUnicode_Check(obj) || PyBytes_Check(obj)) {
        int idx = -1;
        if (is_index_integer(obj)) {
            long long v = index_integer_value(obj);
            idx = v < 0 || v >= n ? -1 : static_cast<int>(v);
        } else {
            PyObject* tmp = nullptr;
            const char* name = conv_str(obj, nullptr, &tmp);
            if (!name) return nullptr;
            if (TRVOgetindex(p->prob, 2, name, &idx) != 0) idx = -1;
            Py_XDECREF(tmp);
        }
        if (idx < 0 || idx >= n) {
            PyErr_SetString(InterfaceError, "Call to tarvo.problem.getSolution() contains an out-of-range index");
            return nullptr;
        }
        return PyFloat_FromDouble(x[idx]);
    }
    bool ok = true;
    double value = 0;
    if (is_var(obj)) {
        value = var_value(obj, p, x, n, &ok);
    } else if (is_linterm(obj)) {
        LinTermObject* t = reinterpret_cast<LinTermObject*>(obj);
        value = t->coef * var_value(t->var, p, x, n, &ok);
    } else if (is_quadterm(obj)) {
        QuadTermObject* t = reinterpret_cast<QuadTermObject*>(obj);
        value = t->coef * var_value(t->var1, p, x, n, &ok) * var_value(t->var2, p, x, n, &ok);
    } else if (is_expression(obj)) {
        ExpressionObject* e = as_expr(obj);
        value = e->constant;
        if (e->linear)
            for (const auto& kv : *e->linear) value += kv.second * var_value(kv.first, p, x, n, &ok);
        if (e->quadratic)
            for (const auto& row : *e->quadratic) {
                double a = var_value(row.first, p, x, n, &ok);
                for (const auto& kv : row.second) value += kv.second * a * var_value(kv.first, p, x, n, &ok);
            }
    } else if (is_number(obj)) {
        value = number_value(obj);
    } else if (PySequence_Check(obj)) {
        PyRef fast(PySequence_Fast(obj, "Cannot evaluate type of sequence"));
        if (!fast) return nullptr;
        return evaluate_walk(fast.get(), p, x, n, depth);
    } else if (is_nonlinear(obj)) {
        PyErr_SetString(ModelError, "Evaluation of nonlinear expressions is not available in this build");
        return nullptr;
    } else {
        PyErr_SetString(ModelError, "Evaluation of object of incorrect type");
        return nullptr;
    }
    if (!ok) return nullptr;
    return PyFloat_FromDouble(value);
}

}  // namespace

// Evaluation of modelling objects and containers of them at a vector of column values. The
// nonlinear trees' evaluator replaces this with its full version.
TARVO_WEAK PyObject* evaluate_at(PyObject* obj, ProblemObject* p, const double* x, int64_t n) {
    return evaluate_walk(obj, p, x, n, 64);
}

PyObject* problem_getSolution(PyObject* self, PyObject* args, PyObject* kw) {
    PyObject* flatten = Py_False;
    if (kw) {
        PyObject* f = PyDict_GetItemString(kw, "flatten");
        if (f) flatten = f;
        if (PyDict_Size(kw) > (f ? 1 : 0)) {
            PyErr_SetString(PyExc_TypeError, "getSolution() accepts only the keyword argument 'flatten'");
            return nullptr;
        }
    }
    int flat = PyObject_IsTrue(flatten);
    if (flat < 0) return nullptr;
    if (PyTuple_GET_SIZE(args) == 0 || flat) return report_error(self, shaped_query(self, args, VEC_X));
    ProblemObject* p = as_prob(self);
    std::vector<double> x;
    if (fetch_vector(p, VEC_X, x) < 0) return nullptr;
    int64_t n = static_cast<int64_t>(x.size());
    if (PyTuple_GET_SIZE(args) == 1) return report_error(self, evaluate_at(PyTuple_GET_ITEM(args, 0), p, x.data(), n));
    return report_error(self, evaluate_at(args, p, x.data(), n));
}

PyObject* problem_getDual(PyObject* self, PyObject* args) { return report_error(self, shaped_query(self, args, VEC_DUAL)); }
PyObject* problem_getSlack(PyObject* self, PyObject* args) { return report_error(self, shaped_query(self, args, VEC_SLACK)); }
PyObject* problem_getRCost(PyObject* self, PyObject* args) { return report_error(self, shaped_query(self, args, VEC_DJ)); }

PyObject* problem_getIndex(PyObject* self, PyObject* obj) {
    ProblemObject* p = as_prob(self);
    IndexMap* map = is_var(obj) ? p->colmap : is_constraint(obj) ? p->rowmap : is_sos(obj) ? p->setmap : nullptr;
    if (map) {
        auto it = map->find(object_key(obj));
        if (it != map->end()) return PyLong_FromLong(it->second);
    }
    PyErr_SetString(ModelError, "Incorrect object(s) passed: need variable, constraint, or SOS");
    return nullptr;
}

PyObject* problem_getVariable(PyObject* self, PyObject* args, PyObject* kw) { return get_objects(as_prob(self)->vars, args, kw); }
PyObject* problem_getConstraint(PyObject* self, PyObject* args, PyObject* kw) { return get_objects(as_prob(self)->cons, args, kw); }
PyObject* problem_getSOS(PyObject* self, PyObject* args, PyObject* kw) { return get_objects(as_prob(self)->sets, args, kw); }

}  // namespace tarvo
