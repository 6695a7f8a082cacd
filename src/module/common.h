// Shared definitions for every translation unit of the extension: the Python headers,
// the NumPy API import convention, an owned-reference holder and the module-wide state.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#define NPY_NO_DEPRECATED_API NPY_2_0_API_VERSION
#define NPY_TARGET_VERSION NPY_2_0_API_VERSION
#define PY_ARRAY_UNIQUE_SYMBOL tarvo_ARRAY_API
#define PY_UFUNC_UNIQUE_SYMBOL tarvo_UFUNC_API
#ifndef TARVO_IMPORTS_NUMPY
#define NO_IMPORT_ARRAY
#define NO_IMPORT_UFUNC
#endif
#include <numpy/arrayobject.h>
#include <numpy/ufuncobject.h>
#include <numpy/arrayscalars.h>

#include <cstdint>
#include <mutex>

namespace tarvo {

// True once the interpreter has begun shutting down. Code that the libraries call from their
// own threads checks it before taking the interpreter lock: during shutdown, taking the lock
// ends the calling thread on the spot.
inline bool interpreter_finalizing() {
#if PY_VERSION_HEX >= 0x030D0000
    return Py_IsFinalizing();
#else
    return _Py_IsFinalizing();
#endif
}

// Owned reference: releases what it holds when it goes out of scope.
class PyRef {
public:
    PyRef() : p_(nullptr) {}
    explicit PyRef(PyObject* owned) : p_(owned) {}
    static PyRef borrow(PyObject* b) { Py_XINCREF(b); return PyRef(b); }
    PyRef(const PyRef&) = delete;
    PyRef& operator=(const PyRef&) = delete;
    PyRef(PyRef&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
    PyRef& operator=(PyRef&& o) noexcept { if (this != &o) { Py_XDECREF(p_); p_ = o.p_; o.p_ = nullptr; } return *this; }
    ~PyRef() { Py_XDECREF(p_); }
    PyObject* get() const { return p_; }
    PyObject* release() { PyObject* r = p_; p_ = nullptr; return r; }
    void reset(PyObject* owned = nullptr) { Py_XDECREF(p_); p_ = owned; }
    explicit operator bool() const { return p_ != nullptr; }
private:
    PyObject* p_;
};

// Owned reference for code that the libraries call from their own threads. During shutdown the
// interpreter ends such a thread when it waits for the interpreter lock (inside a Python call)
// by unwinding its stack; this destructor then runs without the lock and leaves the object.
class CallbackRef {
public:
    explicit CallbackRef(PyObject* owned) : p_(owned) {}
    static CallbackRef borrow(PyObject* b) { Py_XINCREF(b); return CallbackRef(b); }
    CallbackRef(const CallbackRef&) = delete;
    CallbackRef& operator=(const CallbackRef&) = delete;
    CallbackRef(CallbackRef&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
    ~CallbackRef() {
        if (p_ && PyGILState_Check()) Py_DECREF(p_);
    }
    PyObject* get() const { return p_; }
    explicit operator bool() const { return p_ != nullptr; }
private:
    PyObject* p_;
};

// The eight process-wide locks, created first at import and deleted last at teardown.
struct Locks {
    std::mutex var_serial;
    std::mutex con_serial;
    std::mutex sos_serial;
    std::mutex catalogue;
    std::mutex defaults;
    std::mutex handler_list;
    std::mutex environment;
    std::mutex output;
};

// Module-wide state, created at import and released at teardown.
struct ModuleState {
    Locks* locks = nullptr;
    PyObject* module = nullptr;               // the module object, set last at import
    PyObject* controls = nullptr;             // module-level tarvo.controls object
    PyObject* module_defaults = nullptr;      // control name -> value set at module level
    PyObject* control_catalogue = nullptr;    // lower-case name -> (id, type, library)
    PyObject* attribute_catalogue = nullptr;  // lower-case name -> (id, type, library)
    PyObject* msghandler_list = nullptr;      // list of [handler, data]
    int env_use_count = 0;                    // guarded by locks->environment
    int nonlinear_available = -1;             // guarded by locks->environment
    int output_enabled = 1;                   // guarded by locks->output
};

extern ModuleState state;

extern PyObject* ModelError;
extern PyObject* InterfaceError;
extern PyObject* SolverError;

// Numbers: Python float (and subclasses), int (bool included), and the NumPy scalar types
// float32, float64, intc, int_ and longlong.
bool is_number(PyObject* o);
// Value of an object accepted by is_number.
double number_value(PyObject* o);
// Integer-value test: Python int or bool, or a NumPy signed integer scalar of 32 or 64 bits.
bool is_integer_value(PyObject* o);
// Numeric test: the integer-value test plus Python float and subclasses.
bool is_numeric_value(PyObject* o);
// PyObject_TypeCheck for a type that adds fields to object (every type of this module): the
// exact type is tested first, and an object whose type derives from object directly cannot be
// an instance of another such type (its layout would have to extend the type's), so the walk
// over the type's ancestry is needed only for true subclasses.
inline bool layout_type_check(PyObject* o, PyTypeObject* t) {
    PyTypeObject* ot = Py_TYPE(o);
    if (ot == t) return true;
    if (ot->tp_base == &PyBaseObject_Type) return false;
    return PyType_IsSubtype(ot, t);
}
// True for numpy.ndarray and subclasses.
inline bool is_ndarray(PyObject* o) { return PyArray_Check(o); }

}  // namespace tarvo
