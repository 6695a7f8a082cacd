// The nested walk over method arguments: every leaf of arbitrarily nested tuples, lists,
// dictionaries, NumPy arrays, sequences and iterators, with a nesting budget.
#include "problem/problem.h"

namespace tarvo {

namespace {

const char* const BAD_NESTING =
    "Incorrect (nested) array/list/sequence passed. Perhaps this is a NumPy array containing a tuple?";

int walk_array(PyArrayObject* arr, int depth, const LeafHandler& handler) {
    PyArray_Descr* descr = PyArray_DESCR(arr);
    int typenum = descr->type_num;
    bool object_elems = typenum == NPY_OBJECT;
    bool user_elems = PyTypeNum_ISUSERDEF(typenum);
    bool float_elems = typenum == NPY_BOOL || typenum == NPY_DOUBLE;
    // Integer arrays of any width give integer leaves: in queries they are indices.
    bool int_elems = PyTypeNum_ISINTEGER(typenum);
    if (!object_elems && !user_elems && !float_elems && !int_elems) {
        PyErr_SetString(ModelError, "Incorrect objects used in Sum, Dot, Prod, or aggregate functions");
        return -1;
    }
    if (PyArray_SIZE(arr) == 0) return 0;
    PyRef iter(PyArray_IterNew(reinterpret_cast<PyObject*>(arr)));
    if (!iter) return -1;
    PyArrayIterObject* it = reinterpret_cast<PyArrayIterObject*>(iter.get());
    while (it->index < it->size) {
        PyRef item(PyArray_GETITEM(arr, static_cast<char*>(it->dataptr)));
        if (!item) {
            if (!PyErr_Occurred()) PyErr_SetString(ModelError, BAD_NESTING);
            return -1;
        }
        int rc;
        if (object_elems) {
            rc = walk_leaves(item.get(), depth - 1, handler);
        } else if (user_elems || int_elems) {
            rc = handler(item.get());
        } else {
            PyRef f(PyNumber_Float(item.get()));
            if (!f) return -1;
            rc = handler(f.get());
        }
        if (rc != 0) return rc;
        PyArray_ITER_NEXT(it);
    }
    return 0;
}

}  // namespace

int walk_leaves(PyObject* arg, int depth, const LeafHandler& handler) {
    if (depth < 0) {
        PyErr_SetString(ModelError, "Maximum recursion (inclusion) level reached");
        return -1;
    }
    if (!arg) {
        PyErr_SetString(ModelError, BAD_NESTING);
        return -1;
    }
    if (is_ndarray(arg)) {
        PyArrayObject* arr = reinterpret_cast<PyArrayObject*>(arg);
        if (PyArray_SIZE(arr) == 1) {
            PyRef iter(PyArray_IterNew(arg));
            if (!iter) return -1;
            PyRef item(PyArray_GETITEM(arr, static_cast<char*>(reinterpret_cast<PyArrayIterObject*>(iter.get())->dataptr)));
            if (!item) {
                if (!PyErr_Occurred()) PyErr_SetString(ModelError, BAD_NESTING);
                return -1;
            }
            return walk_leaves(item.get(), depth - 1, handler);
        }
        return walk_array(arr, depth, handler);
    }
    if (PyTuple_Check(arg) || PyList_Check(arg)) {
        // Index each time: the list may be the problem's own and must not be read stale.
        for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(arg); ++i) {
            PyRef item = PyRef::borrow(PySequence_Fast_GET_ITEM(arg, i));
            int rc = walk_leaves(item.get(), depth - 1, handler);
            if (rc != 0) return rc;
        }
        return 0;
    }
    if (PyDict_Check(arg)) {
        PyRef values(PyDict_Values(arg));
        if (!values) return -1;
        return walk_leaves(values.get(), depth, handler);
    }
    if (PyUnicode_Check(arg) || PyBytes_Check(arg)) return handler(arg);
    if (PyIter_Check(arg)) {
        for (;;) {
            PyRef item(PyIter_Next(arg));
            if (!item) return PyErr_Occurred() ? -1 : 0;
            int rc = walk_leaves(item.get(), depth - 1, handler);
            if (rc != 0) return rc;
        }
    }
    if (PySequence_Check(arg)) {
        PyRef fast(PySequence_Fast(arg, "Cannot iterate over sequence"));
        if (!fast) {
            PyErr_Clear();
            PyErr_SetString(ModelError, "Cannot iterate over sequence");
            return -1;
        }
        return walk_leaves(fast.get(), depth, handler);
    }
    return handler(arg);
}

int first_leaf(PyObject* arg, int depth, PyObject** leaf) {
    *leaf = nullptr;
    int rc = walk_leaves(arg, depth, [leaf](PyObject* l) {
        Py_INCREF(l);
        *leaf = l;
        return 1;
    });
    if (rc < 0) return -1;
    return *leaf ? 1 : 0;
}

}  // namespace tarvo
