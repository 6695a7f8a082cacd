// Term maps: variable -> coefficient, ordered by serial, owning one reference to every key
// and never holding an exact zero. A reference is taken only once its entry exists, so that a
// failed allocation (std::bad_alloc, turned into a Python exception by the callers) leaks none. Insertion past the largest key uses an end hint, so that
// building an expression from fresh variables costs constant time per term.
#include "model/algebra.h"

namespace tarvo {

void lin_add(LinearMap& m, PyObject* v, double c) {
    if (c == 0.0) return;
    if (m.empty() || var_serial(m.rbegin()->first) < var_serial(v)) {
        m.emplace_hint(m.end(), v, c);
        Py_INCREF(v);
        return;
    }
    auto it = m.lower_bound(v);
    if (it != m.end() && var_serial(it->first) == var_serial(v)) {
        it->second += c;
        if (it->second == 0.0) {
            PyObject* key = it->first;
            m.erase(it);
            Py_DECREF(key);
        }
        return;
    }
    m.emplace_hint(it, v, c);
    Py_INCREF(v);
}

void lin_set(LinearMap& m, PyObject* v, double c) {
    auto it = m.lower_bound(v);
    if (it != m.end() && var_serial(it->first) == var_serial(v)) {
        if (c == 0.0) {
            PyObject* key = it->first;
            m.erase(it);
            Py_DECREF(key);
        } else {
            it->second = c;
        }
        return;
    }
    if (c == 0.0) return;
    m.emplace_hint(it, v, c);
    Py_INCREF(v);
}

void lin_erase(LinearMap& m, PyObject* v) {
    auto it = m.find(v);
    if (it == m.end()) return;
    PyObject* key = it->first;
    m.erase(it);
    Py_DECREF(key);
}

void lin_clear(LinearMap& m) {
    // Detach first: releasing a key may free a variable, which must not see a half-cleared map.
    LinearMap old;
    old.swap(m);
    for (auto& entry : old) Py_DECREF(entry.first);
}

LinearMap* lin_copy(const LinearMap& m) {
    auto* copy = new LinearMap(m);
    for (auto& entry : *copy) Py_INCREF(entry.first);
    return copy;
}

void quad_clear(QuadraticMap& m) {
    QuadraticMap old;
    old.swap(m);
    for (auto& entry : old) {
        lin_clear(entry.second);
        Py_DECREF(entry.first);
    }
}

QuadraticMap* quad_copy(const QuadraticMap& m) {
    auto* copy = new QuadraticMap(m);
    for (auto& entry : *copy) {
        Py_INCREF(entry.first);
        for (auto& inner : entry.second) Py_INCREF(inner.first);
    }
    return copy;
}

size_t quad_count(const QuadraticMap& m) {
    size_t n = 0;
    for (auto& entry : m) n += entry.second.size();
    return n;
}

PyObject* linear_map_to_lists(const LinearMap* m) {
    Py_ssize_t n = m ? static_cast<Py_ssize_t>(m->size()) : 0;
    PyRef vars(PyList_New(n)), coefs(PyList_New(n));
    if (!vars || !coefs) return nullptr;
    if (m) {
        Py_ssize_t i = 0;
        for (auto& entry : *m) {
            PyObject* c = PyFloat_FromDouble(entry.second);
            if (!c) return nullptr;
            PyList_SET_ITEM(vars.get(), i, new_ref(entry.first));
            PyList_SET_ITEM(coefs.get(), i, c);
            ++i;
        }
    }
    return PyTuple_Pack(2, vars.get(), coefs.get());
}

PyObject* quadratic_map_to_lists(const QuadraticMap* m) {
    Py_ssize_t n = m ? static_cast<Py_ssize_t>(quad_count(*m)) : 0;
    PyRef vars1(PyList_New(n)), vars2(PyList_New(n)), coefs(PyList_New(n));
    if (!vars1 || !vars2 || !coefs) return nullptr;
    if (m) {
        Py_ssize_t i = 0;
        for (auto& outer : *m)
            for (auto& inner : outer.second) {
                PyObject* c = PyFloat_FromDouble(inner.second);
                if (!c) return nullptr;
                PyList_SET_ITEM(vars1.get(), i, new_ref(outer.first));
                PyList_SET_ITEM(vars2.get(), i, new_ref(inner.first));
                PyList_SET_ITEM(coefs.get(), i, c);
                ++i;
            }
    }
    return PyTuple_Pack(3, vars1.get(), vars2.get(), coefs.get());
}

}  // namespace tarvo
