// Special ordered sets: the declaration of a set (variables, weights, type, name); the problem
// checks the entries when the set is added.
#include "model/algebra.h"

#include <structmember.h>

namespace tarvo {

namespace {

inline SosObject* as_sos(PyObject* o) { return reinterpret_cast<SosObject*>(o); }

void sos_clear(SosObject* s) {
    Py_CLEAR(s->name);
    Py_CLEAR(s->indices);
    Py_CLEAR(s->weights);
}

int sos_init(PyObject* self, PyObject* args, PyObject* kwds) {
    static const char* kwlist[] = {"indices", "weights", "type", "name", nullptr};
    SosObject* s = as_sos(self);
    sos_clear(s);  // a repeated __init__ starts from a clean record
    s->serial = next_sos_serial();
    s->type = 1;
    PyObject *indices = nullptr, *weights = nullptr, *type = nullptr, *name = nullptr;
    if (!PyArg_ParseTupleAndKeywords(args, kwds, "OO|OO", const_cast<char**>(kwlist), &indices, &weights, &type,
                                     &name))
        return -1;
    if (name) {
        s->name = new_ref(name);
    } else {
        s->name = PyUnicode_FromFormat("sos%d", static_cast<int>(s->serial));
        if (!s->name) return -1;
    }
    long t = 1;
    if (type) {
        t = PyLong_AsLong(type);
        if (t == -1 && PyErr_Occurred()) return -1;
        if (t != 1 && t != 2) {
            PyErr_SetString(ModelError, "SOS type must be 1 or 2");
            return -1;
        }
    }
    if (!PyList_Check(weights)) {
        PyErr_SetString(ModelError, "SOS weights must be passed as a list");
        return -1;
    }
    if (!PyList_Check(indices)) {
        PyErr_SetString(ModelError, "SOS indices must be passed as a list");
        return -1;
    }
    s->indices = new_ref(indices);
    s->weights = new_ref(weights);
    s->type = static_cast<int>(t);
    return 0;
}

void sos_dealloc(PyObject* self) {
    sos_clear(as_sos(self));
    Py_TYPE(self)->tp_free(self);
}

PyObject* sos_str(PyObject* self) {
    PyObject* name = as_sos(self)->name;
    return new_ref(name ? name : Py_None);
}

// Shallow copy of a list (each list is copied by its own length), or a new empty list.
PyObject* list_copy(PyObject* list) {
    if (!list) return PyList_New(0);
    return PyList_GetSlice(list, 0, PyList_GET_SIZE(list));
}

PyObject* sos_copy(PyObject* self, PyObject*) {
    SosObject* src = as_sos(self);
    PyRef copy(SosType.tp_alloc(&SosType, 0));
    if (!copy) return nullptr;
    SosObject* dst = as_sos(copy.get());
    dst->serial = next_sos_serial();
    dst->type = src->type ? src->type : 1;
    dst->name = PyUnicode_FromFormat("sos%d_copy_%S", static_cast<int>(src->serial), src->name ? src->name : Py_None);
    if (!dst->name) return nullptr;
    dst->indices = list_copy(src->indices);
    dst->weights = list_copy(src->weights);
    if (!dst->indices || !dst->weights) return nullptr;
    return copy.release();
}

PyMethodDef sos_methods[] = {{"copy", sos_copy, METH_NOARGS, "copy($self, /)\n--\n\nReturn a copy of the special ordered set as a new object, not yet in any problem."},
                             {nullptr, nullptr, 0, nullptr}};

PyMemberDef sos_members[] = {
    {const_cast<char*>("name"), T_OBJECT, offsetof(SosObject, name), 0, const_cast<char*>("SOS's name")},
    {nullptr, 0, 0, 0, nullptr}};

}  // namespace

PyTypeObject SosType = [] {
    PyTypeObject t = {PyVarObject_HEAD_INIT(nullptr, 0)};
    t.tp_name = "tarvo.SOS";
    t.tp_basicsize = sizeof(SosObject);
    t.tp_flags = Py_TPFLAGS_DEFAULT;
    t.tp_doc =
        "SOS(indices, weights, type=1, name=...)\n--\n\nA special ordered set of type 1 or 2 over the variables in the "
        "list indices, ordered by the list weights; without a name it is called sos<n>. Raises ModelError for a "
        "type other than 1 or 2 (the lists are checked when the set is added to a problem).";
    t.tp_init = sos_init;
    t.tp_dealloc = sos_dealloc;
    t.tp_str = sos_str;
    t.tp_methods = sos_methods;
    t.tp_members = sos_members;
    return t;
}();

}  // namespace tarvo
