// tarvo.vars: many variables at once over index sets, as a NumPy array of npvar when every
// index set is an integer, as a dictionary keyed by index tuples otherwise.
#include "nonlinear/internal.h"

#include <string>
#include <vector>

namespace tarvo {

namespace {

constexpr size_t MAX_NAME = 2500;

// Text of one index for a variable name; false (with an exception) when it has none.
bool index_text(PyObject* idx, bool from_integer_set, std::string& out) {
    if (from_integer_set || (PyLong_Check(idx) && !PyBool_Check(idx)) || PyArray_IsScalar(idx, Integer)) {
        long v = PyLong_AsLong(idx);
        if (v == -1 && PyErr_Occurred()) return false;
        out += std::to_string(v);
        return true;
    }
    if (is_number(idx)) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%g", number_value(idx));
        out += buf;
        return true;
    }
    if (PyUnicode_Check(idx)) {
        const char* t = PyUnicode_AsUTF8(idx);
        if (!t) return false;
        out += t;
        return true;
    }
    if (PyBytes_Check(idx)) {
        out.append(PyBytes_AS_STRING(idx), PyBytes_GET_SIZE(idx));
        return true;
    }
    PyRef s(PyObject_Str(idx));
    const char* t = s ? PyUnicode_AsUTF8(s.get()) : nullptr;
    if (!t) {
        PyErr_Clear();
        model_error("Element of index tuple in vars() cannot be represented");
        return false;
    }
    for (const char* c = t; *c; ++c)
        if (*c != ' ') out += *c;
    return true;
}

struct Options {
    double lb = 0.0, ub = INF, threshold = -INF;
    long vartype = 0;
    PyObject* name = nullptr;  // borrowed; null: default prefix "x"
};

// One new variable with the options' bounds, threshold and type.
PyObject* make_var(const Options& o, const std::string* name) {
    PyObject* v = new_var();
    if (!v) return nullptr;
    uint64_t* w = &reinterpret_cast<VarObject*>(v)->word;
    if (o.lb != 0.0) var_set_lb(w, o.lb);
    if (o.ub != INF) var_set_ub(w, o.ub);
    if (o.threshold != -INF) var_set_threshold(w, o.threshold);
    if (o.vartype != 0) *w = (*w & ~(uint64_t(7) << 60)) | (static_cast<uint64_t>(o.vartype) << 60);
    if (name) {
        PyRef n(PyUnicode_FromStringAndSize(name->data(), static_cast<Py_ssize_t>(name->size())));
        if (!n) {
            Py_DECREF(v);
            return nullptr;
        }
        var_set_name(w, n.get());
    }
    return v;
}

}  // namespace

static PyObject* fn_vars_body(PyObject*, PyObject* args, PyObject* kwargs) {
    Options o;
    static const char* kwlist[] = {"name", "lb", "ub", "threshold", "vartype", nullptr};
    PyRef empty(PyTuple_New(0));
    if (!empty || !PyArg_ParseTupleAndKeywords(empty.get(), kwargs, "|$Odddl:vars", const_cast<char**>(kwlist), &o.name,
                                               &o.lb, &o.ub, &o.threshold, &o.vartype))
        return nullptr;
    if (o.ub + 1e-06 < o.lb) return model_error("Variables have empty feasible set: lower bound > upper bound");
    if (o.name == Py_None) o.name = nullptr;
    if (o.name && !PyUnicode_Check(o.name)) {
        PyErr_SetString(PyExc_TypeError, "vars() argument 'name' must be a string");
        return nullptr;
    }
    Py_ssize_t nidx = PyTuple_GET_SIZE(args);
    if (nidx == 0) {
        PyRef kw(Py_BuildValue("{s:d,s:d,s:d,s:l}", "lb", o.lb, "ub", o.ub, "threshold", o.threshold, "vartype", o.vartype));
        if (!kw) return nullptr;
        if (o.name && PyDict_SetItemString(kw.get(), "name", o.name) < 0) return nullptr;
        return PyObject_Call(reinterpret_cast<PyObject*>(&VarType), empty.get(), kw.get());
    }
    if (o.vartype == 1) {
        if (o.lb < 0) o.lb = 0.0;
        if (o.ub > 1) o.ub = 1.0;
    }
    bool named = true;
    std::string prefix = "x";
    if (o.name) {
        Py_ssize_t n;
        const char* t = PyUnicode_AsUTF8AndSize(o.name, &n);
        if (!t) return nullptr;
        prefix.assign(t, n);
        named = n > 0;
    }

    // Index sets as tuples of their elements.
    std::vector<PyRef> sets;
    std::vector<bool> integer_set;
    bool all_integers = true;
    size_t total = 1;
    for (Py_ssize_t i = 0; i < nidx; ++i) {
        PyObject* s = PyTuple_GET_ITEM(args, i);
        PyRef elems;
        bool is_int = false;
        if (PyLong_Check(s) || PyArray_IsScalar(s, Integer)) {
            long k = PyLong_AsLong(s);
            if (k == -1 && PyErr_Occurred()) return nullptr;
            if (k < 1)
                return model_error("Invalid index: integer argument to tarvo.vars() must be positive (it is equivalent to range(k))");
            PyRef r(PyObject_CallFunction(reinterpret_cast<PyObject*>(&PyRange_Type), "l", k));
            if (!r) return nullptr;
            elems.reset(PySequence_Tuple(r.get()));
            is_int = true;
        } else if (PyList_Check(s) || PyTuple_Check(s) || PyAnySet_Check(s) ||
                   (PySequence_Check(s) && !PyUnicode_Check(s) && !PyBytes_Check(s))) {
            Py_ssize_t expected = PyAnySet_Check(s) ? PySet_GET_SIZE(s) : -1;
            elems.reset(PySequence_Tuple(s));
            if (elems && expected >= 0 && PyTuple_GET_SIZE(elems.get()) < expected)
                return model_error("No object available from set");
        } else {
            return model_error(
                "Invalid index: a call to tarvo.vars() must have a tuple of lists, sets, iterable objects, or integer "
                "numbers as its arguments");
        }
        if (!elems) return nullptr;
        Py_ssize_t len = PyTuple_GET_SIZE(elems.get());
        if (len == 0) return model_error("Invalid index: empty dimension in creation of variables");
        if (total > static_cast<size_t>(PY_SSIZE_T_MAX) / static_cast<size_t>(len))
            return model_error("No memory to create variables. Consider restricting one or more index sets/lists/ranges in the index argument to tarvo.vars()");
        total *= static_cast<size_t>(len);
        all_integers = all_integers && is_int;
        integer_set.push_back(is_int);
        sets.push_back(std::move(elems));
    }

    PyRef result;
    PyObject** array_data = nullptr;
    if (all_integers) {
        std::vector<npy_intp> dims;
        for (auto& s : sets) dims.push_back(PyTuple_GET_SIZE(s.get()));
        PyArray_Descr* d = PyArray_DescrFromType(npvar_typenum);
        if (!d) return nullptr;
        result.reset(PyArray_NewFromDescr(&PyArray_Type, d, static_cast<int>(dims.size()), dims.data(), nullptr, nullptr, 0, nullptr));
        if (!result) {
            if (PyErr_ExceptionMatches(PyExc_MemoryError)) {
                PyErr_Clear();
                return model_error("Not enough memory to create variables with tarvo.vars()");
            }
            return nullptr;
        }
        array_data = static_cast<PyObject**>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(result.get())));
    } else {
        result.reset(PyDict_New());
        if (!result) return model_error("Could not initialize result of tarvo.vars()");
    }

    // Walk the Cartesian product in row-major order (last index fastest).
    std::vector<Py_ssize_t> pos(sets.size(), 0);
    std::string name;
    for (size_t n = 0; n < total; ++n) {
        const std::string* vname = nullptr;
        if (named) {
            name = prefix;
            name += "(";
            for (size_t i = 0; i < sets.size(); ++i) {
                if (i) name += ",";
                if (!index_text(PyTuple_GET_ITEM(sets[i].get(), pos[i]), integer_set[i], name)) return nullptr;
            }
            name += ")";
            if (name.size() > MAX_NAME) name.resize(MAX_NAME);
            vname = &name;
        }
        PyObject* v = make_var(o, vname);
        if (!v) {
            if (!PyErr_Occurred())
                model_error("Could not create variables. Consider restricting one or more index sets/lists/ranges in the index argument to tarvo.vars()");
            return nullptr;
        }
        if (array_data) {
            Py_XSETREF(array_data[n], v);
        } else {
            PyRef hold(v);
            PyRef key;
            if (sets.size() == 1) {
                key = PyRef::borrow(PyTuple_GET_ITEM(sets[0].get(), pos[0]));
            } else {
                key.reset(PyTuple_New(static_cast<Py_ssize_t>(sets.size())));
                if (!key) return nullptr;
                for (size_t i = 0; i < sets.size(); ++i) {
                    PyObject* el = PyTuple_GET_ITEM(sets[i].get(), pos[i]);
                    Py_INCREF(el);
                    PyTuple_SET_ITEM(key.get(), static_cast<Py_ssize_t>(i), el);
                }
            }
            int present = PyDict_Contains(result.get(), key.get());
            if (present < 0) {
                PyErr_Clear();
                return model_error("Bad index tuple in vars()");
            }
            if (present) {
                PyErr_Format(ModelError,
                             "Duplicate entry in vars: <%S>. Check arguments for duplicate entries in one or more of the lists",
                             key.get());
                return nullptr;
            }
            if (PyDict_SetItem(result.get(), key.get(), v) < 0) return nullptr;
        }
        for (size_t i = sets.size(); i-- > 0;) {
            if (++pos[i] < PyTuple_GET_SIZE(sets[i].get())) break;
            pos[i] = 0;
        }
    }
    return result.release();
}

PyObject* fn_vars(PyObject* a0, PyObject* args, PyObject* kwargs) {
    return alloc_guard(nullptr, [&] { return fn_vars_body(a0, args, kwargs); });
}

}  // namespace tarvo
