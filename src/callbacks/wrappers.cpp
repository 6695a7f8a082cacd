// Opaque wrappers handed to callbacks: a library object (trvoobject), a cut of the cut pool
// (poolcut) and any other pointer (generic). Each holds one pointer and compares by it.
#include "module/common.h"
#include "module/types.h"
#include "problem/problem.h"

namespace tarvo {

namespace {

struct HandleObject {
    PyObject_HEAD
    void* handle;
};

PyObject* handle_repr(PyObject* self) {
    return PyUnicode_FromFormat("<%s object wrapping %p>", Py_TYPE(self)->tp_name,
                                reinterpret_cast<HandleObject*>(self)->handle);
}

Py_hash_t handle_hash(PyObject* self) {
    uintptr_t v = reinterpret_cast<uintptr_t>(reinterpret_cast<HandleObject*>(self)->handle);
    Py_hash_t h = static_cast<Py_hash_t>((v >> 4) | (v << (8 * sizeof(v) - 4)));
    return h == -1 ? -2 : h;
}

PyObject* handle_richcompare(PyObject* a, PyObject* b, int op) {
    if (Py_TYPE(a) != Py_TYPE(b) || (op != Py_EQ && op != Py_NE)) Py_RETURN_NOTIMPLEMENTED;
    bool eq = reinterpret_cast<HandleObject*>(a)->handle == reinterpret_cast<HandleObject*>(b)->handle;
    return PyBool_FromLong(op == Py_EQ ? eq : !eq);
}

PyTypeObject make_type(const char* name, const char* doc) {
    PyTypeObject t = {PyVarObject_HEAD_INIT(nullptr, 0)};
    t.tp_name = name;
    t.tp_basicsize = sizeof(HandleObject);
    t.tp_flags = Py_TPFLAGS_DEFAULT;
    t.tp_doc = doc;
    t.tp_repr = handle_repr;
    t.tp_hash = handle_hash;
    t.tp_richcompare = handle_richcompare;
    return t;
}

PyObject* wrap(PyTypeObject* type, void* handle) {
    PyObject* o = type->tp_alloc(type, 0);
    if (!o) return nullptr;
    reinterpret_cast<HandleObject*>(o)->handle = handle;
    return o;
}

int unwrap(PyTypeObject* type, PyObject* o, void** handle, const char* what) {
    if (!PyObject_TypeCheck(o, type)) {
        PyErr_Format(ModelError, "Invalid object %S: a %s is expected", o, what);
        return -1;
    }
    *handle = reinterpret_cast<HandleObject*>(o)->handle;
    return 0;
}

}  // namespace

PyTypeObject TrvoObjectType = make_type("tarvo.trvoobject", "An object of the optimisation library (opaque).");
PyTypeObject GenericType = make_type("tarvo.generic", "An opaque pointer handed over by the optimisation library.");
// poolcut objects are made by the cut methods (storecuts, getcutlist, ...); one made by its
// constructor wraps no cut and is refused by every method.
PyTypeObject PoolCutType = [] {
    PyTypeObject t = make_type("tarvo.poolcut", "poolcut()\n--\n\nPool-cut objects used by callback functions: a cut of the "
                                                "problem's cut pool or of the current node, compared and hashed by its handle.");
    t.tp_new = PyType_GenericNew;
    return t;
}();

PyObject* trvoobject_wrap(void* handle) { return wrap(&TrvoObjectType, handle); }
PyObject* generic_wrap(void* handle) { return wrap(&GenericType, handle); }
PyObject* poolcut_wrap(void* handle) { return wrap(&PoolCutType, handle); }
int trvoobject_handle(PyObject* o, void** handle) { return unwrap(&TrvoObjectType, o, handle, "trvoobject"); }
int poolcut_handle(PyObject* o, void** handle) { return unwrap(&PoolCutType, o, handle, "poolcut"); }
int generic_handle(PyObject* o, void** handle) { return unwrap(&GenericType, o, handle, "generic object"); }

}  // namespace tarvo
