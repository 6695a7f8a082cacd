// Operand classification and the helpers every modelling type's operators share: constant
// values, NumPy right operands, the hand-over to nonlinear nodes and the in-place forms of the
// immutable types.
#include "model/algebra.h"

#include <cstdio>

namespace tarvo {

int operand_kind_quiet(PyObject* o) {
    if (!o) return K_INVALID;
    if (is_expression(o)) return K_EXPRESSION;
    if (is_linterm(o)) return K_LINTERM;
    if (is_var(o)) return K_VAR;
    if (is_nonlinear(o)) return K_NONLINEAR;
    if (is_quadterm(o)) return K_QUADTERM;
    if (is_number(o)) return K_NUMBER;
    return K_INVALID;
}

int operand_kind(PyObject* o) {
    int kind = operand_kind_quiet(o);
    if (kind == K_INVALID) {
        if (o) PyErr_Format(ModelError, "Invalid object in operation: <%S>", o);
        else PyErr_SetString(ModelError, "Invalid object in operation: <NULL>");
    }
    return kind;
}

bool constant_value(PyObject* o, double* value) {
    if (is_number(o)) {
        *value = number_value(o);
        return true;
    }
    if (is_constant_expression(o)) {
        *value = as_expr(o)->constant;
        return true;
    }
    return false;
}

bool linear_view(PyObject* o, PyObject** var, double* coef) {
    if (is_var(o)) {
        *var = o;
        *coef = 1.0;
        return true;
    }
    if (is_linterm(o)) {
        auto* t = reinterpret_cast<LinTermObject*>(o);
        if (!t->var) return false;  // an instance made by __new__ alone has no variable
        *var = t->var;
        *coef = t->coef;
        return true;
    }
    return false;
}

PyObject* model_error(const char* message) {
    PyErr_SetString(ModelError, message);
    return nullptr;
}

std::string format_g(const char* fmt, double v) {
    char buf[64];
    int n = std::snprintf(buf, sizeof buf, fmt, v);
    return std::string(buf, n < 0 ? 0 : (n < int(sizeof buf) ? n : int(sizeof buf) - 1));
}

PyObject* array_right(ArrayOp op, PyObject* a, PyObject* b) {
    switch (op) {
        case ARRAY_ADD: return PyNumber_Add(b, a);
        case ARRAY_SUB: {
            PyRef neg(PyNumber_Negative(b));
            return neg ? PyNumber_Add(neg.get(), a) : nullptr;
        }
        case ARRAY_MUL: return PyNumber_Multiply(b, a);
        case ARRAY_DIV: {
            PyRef one(PyFloat_FromDouble(1.0));
            if (!one) return nullptr;
            PyRef inv(PyNumber_TrueDivide(one.get(), b));
            return inv ? PyNumber_Multiply(inv.get(), a) : nullptr;
        }
        case ARRAY_POW: break;
    }
    return model_error("Cannot obtain a power with a vector as an exponent");
}

PyObject* array_sum(PyObject* a, PyObject* b, double s) {
    if (s == 1.0) return array_right(ARRAY_ADD, a, b);
    if (s == -1.0) return array_right(ARRAY_SUB, a, b);
    PyRef factor(PyFloat_FromDouble(s));
    if (!factor) return nullptr;
    PyRef scaled(PyNumber_Multiply(b, factor.get()));
    return scaled ? PyNumber_Add(scaled.get(), a) : nullptr;
}

PyObject* nl_sum(PyObject* a, PyObject* b, double s) {
    if (s == 1.0) return nl_add(a, b);
    if (s == -1.0) return nl_subtract(a, b);
    PyObject* target = nl_scaled_copy(a, 1.0);
    if (!target) return nullptr;
    return nl_accumulate(target, b, s);
}

// ---------------------------------------------------------------- unary and logical

PyObject* model_abs(PyObject* a) { return nl_abs(a); }

PyObject* model_and(PyObject* a, PyObject* b) {
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    return nl_and(a, b);
}

PyObject* model_or(PyObject* a, PyObject* b) {
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    return nl_or(a, b);
}

// ---------------------------------------------------------------- in-place forms of terms

namespace {
// The binary slot of a's own type (var, linterm or quadterm).
PyObject* binary(PyObject* a, PyObject* b, binaryfunc PyNumberMethods::*slot) {
    return (Py_TYPE(a)->tp_as_number->*slot)(a, b);
}
bool number_equal(PyObject* b, double v) { return is_number(b) && number_value(b) == v; }
}  // namespace

PyObject* term_inplace_add(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_ADD, a, b);
    if (number_equal(b, 0.0)) return new_ref(a);
    return binary(a, b, &PyNumberMethods::nb_add);
}

PyObject* term_inplace_subtract(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_SUB, a, b);
    if (number_equal(b, 0.0)) return new_ref(a);
    return binary(a, b, &PyNumberMethods::nb_subtract);
}

PyObject* term_inplace_multiply(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_MUL, a, b);
    if (number_equal(b, 1.0)) return new_ref(a);
    return binary(a, b, &PyNumberMethods::nb_multiply);
}

PyObject* term_inplace_divide(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_DIV, a, b);
    double c;
    if (constant_value(b, &c)) {
        if (c == 1.0) return new_ref(a);
        if (c == 0.0) return model_error("Division by zero");
    }
    return binary(a, b, &PyNumberMethods::nb_true_divide);
}

PyObject* term_inplace_power(PyObject* a, PyObject* b, PyObject* mod) {
    if (is_ndarray(b)) return array_right(ARRAY_POW, a, b);
    if (number_equal(b, 1.0)) return new_ref(a);
    if (number_equal(b, 0.0)) return float_result(1.0);
    return Py_TYPE(a)->tp_as_number->nb_power(a, b, mod);
}

// ---------------------------------------------------------------- results of methods

PyObject* extract_result(PyObject* first, PyObject* second, PyObject* third) {
    if (third) return PyTuple_Pack(3, first, second, third);
    return PyTuple_Pack(2, first, second);
}

PyObject* check_result(PyObject* result) {
    if (!result && !PyErr_Occurred())
        PyErr_SetString(InterfaceError, "Unidentified error associated with the global environment");
    return result;
}

}  // namespace tarvo
