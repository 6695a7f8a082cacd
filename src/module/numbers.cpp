// Classification of Python and NumPy numbers shared by every subsystem.
#include "module/common.h"

namespace tarvo {

bool is_number(PyObject* o) {
    if (PyFloat_Check(o) || PyLong_Check(o)) return true;
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
