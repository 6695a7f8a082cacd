// Nonlinear expression tree nodes and the constructors the polynomial algebra hands over to.
#pragma once
#include "module/common.h"
#include "module/types.h"

namespace tarvo {

enum NlOp {
    NL_SUM = 0, NL_MINUS = 1, NL_UMINUS = 2, NL_PROD = 3, NL_DIV = 4, NL_POW = 5,
    NL_EXP = 6, NL_LOG = 7, NL_LOG10 = 8, NL_SIN = 9, NL_COS = 10, NL_TAN = 11,
    NL_ASIN = 12, NL_ACOS = 13, NL_ATAN = 14, NL_MAX = 15, NL_MIN = 16, NL_ABS = 17,
    NL_SIGN = 18, NL_ERF = 19, NL_ERFC = 20, NL_SQRT = 21, NL_AND = 22, NL_OR = 23,
    NL_PWL = 24, NL_USER = 25, NL_USER_DERIV = 26,
};

struct NonlinearObject {
    PyObject_HEAD
    PyObject* args;  // single operand, 2-tuple, or list/tuple
    int op;          // -1 while under construction
};
inline bool is_nonlinear(PyObject* o) { return layout_type_check(o, &NonlinearType); }
inline NonlinearObject* as_nl(PyObject* o) { return reinterpret_cast<NonlinearObject*>(o); }

// Constructors: new reference, or null with ModelError set.
PyObject* nl_make(bool nary, int op, PyObject* args);
PyObject* nl_unary(int op, PyObject* operand);
PyObject* nl_binary(int op, PyObject* a, PyObject* b);

// Arithmetic with at least one operand that is not polynomial (any operand order).
PyObject* nl_add(PyObject* a, PyObject* b);
PyObject* nl_subtract(PyObject* a, PyObject* b);
PyObject* nl_multiply(PyObject* a, PyObject* b);
PyObject* nl_divide(PyObject* a, PyObject* b);
PyObject* nl_power(PyObject* a, PyObject* b);
// Adds c times b into target (in place for an expression or sum node target); steals target.
PyObject* nl_accumulate(PyObject* target, PyObject* b, double c);
// New object equal to c times obj sharing nothing mutable with it.
PyObject* nl_scaled_copy(PyObject* obj, double c);
PyObject* nl_negate(PyObject* obj);
// abs(), & and | of any modelling operand.
PyObject* nl_abs(PyObject* a);
PyObject* nl_and(PyObject* a, PyObject* b);
PyObject* nl_or(PyObject* a, PyObject* b);

}  // namespace tarvo
