// Classification of Python and NumPy numbers shared by every subsystem.
#include "module/common.h"

namespace tarvo {

bool is_number(PyObject* o) {
    PyTypeObject* t = Py_TYPE(o);
    if (t == &PyFloat_Type || PyLong_Check(o)) return true;
    // Every other accepted type derives from float or from a NumPy abstract scalar type: an
    // object whose type derives from object directly (a modelling object, say) is no number,
    // and the subtype walks below are skipped for it.
    if (t->tp_base == &PyBaseObject_Type) return false;
    if (PyFloat_Check(o)) return true;
    return PyArray_IsScalar(o, Float) || PyArray_IsScalar(o, Double) || PyArray_IsScalar(o, Int) ||
           PyArray_IsScalar(o, Long) || PyArray_IsScalar(o, LongLong);
}

double number_value(PyObject* o) {
    if (PyFloat_Check(o)) return PyFloat_AS_DOUBLE(o);
    if (PyLong_Check(o)) return PyLong_AsDouble(o);
    if (PyArray_IsScalar(o, Float)) return PyArrayScalar_VAL(o, Float);
    if (PyArray_IsScalar(o, Double)) return PyArrayScalar_VAL(o, Double);
    if (PyArray_IsScalar(o, Int)) return PyArrayScalar_VAL(o, Int);
    if (PyArray_IsScalar(o, Long)) return static_cast<double>(PyArrayScalar_VAL(o, Long));
    if (PyArray_IsScalar(o, LongLong)) return static_cast<double>(PyArrayScalar_VAL(o, LongLong));
    return PyFloat_AsDouble(o);
}

bool is_integer_value(PyObject* o) {
    return PyLong_Check(o) || PyArray_IsScalar(o, Int) || PyArray_IsScalar(o, Long) ||
           PyArray_IsScalar(o, LongLong);
}

bool is_numeric_value(PyObject* o) { return is_integer_value(o) || PyFloat_Check(o); }

}  // namespace tarvo
