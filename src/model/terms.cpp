// Linear terms (coefficient times a variable) and quadratic terms (coefficient times a product
// of two variables): the light-weight results of the commonest operations on variables.
#include "model/algebra.h"

namespace tarvo {

namespace {

inline LinTermObject* as_lt(PyObject* o) { return reinterpret_cast<LinTermObject*>(o); }
inline QuadTermObject* as_qt(PyObject* o) { return reinterpret_cast<QuadTermObject*>(o); }

// Expression built term by term; insertion failures are reported with the given message.
class ExprBuilder {
public:
    explicit ExprBuilder(double constant) : e_(expr_new()) {
        if (e_) as_expr(e_.get())->constant = constant;
    }
    bool linear(PyObject* v, double c) { return e_ && expr_add_linear(e_.get(), v, c) == 0; }
    bool quadratic(PyObject* x, PyObject* y, double c) { return e_ && expr_add_quadratic(e_.get(), x, y, c) == 0; }
    PyObject* finish(bool ok, const char* message) {
        if (!ok || !e_) {
            PyErr_SetString(ModelError, message);
            return nullptr;
        }
        return e_.release();
    }

private:
    PyRef e_;
};

// The variable of q that is not v (the other factor), or null when v is not a factor of q.
PyObject* other_factor(PyObject* q, PyObject* v) {
    uint64_t s = var_serial(v);
    if (var_serial(as_qt(q)->var1) == s) return as_qt(q)->var2;
    if (var_serial(as_qt(q)->var2) == s) return as_qt(q)->var1;
    return nullptr;
}

bool quad_view(PyObject* o, double* c, PyObject** x, PyObject** y) {
    if (!is_quadterm(o) || !as_qt(o)->var1 || !as_qt(o)->var2) return false;
    *c = as_qt(o)->coef;
    *x = as_qt(o)->var1;
    *y = as_qt(o)->var2;
    return true;
}

}  // namespace

// ---------------------------------------------------------------- constructors

PyObject* lin(double c, PyObject* v) {
    if (!v) return model_error("Invalid object in operation");
    if (c == 0.0) return float_result(0.0);
    PyObject* t = LinTermType.tp_alloc(&LinTermType, 0);
    if (!t) return nullptr;
    as_lt(t)->coef = c;
    as_lt(t)->var = new_ref(v);
    return t;
}

PyObject* lin_scaled(PyObject* t, double f) {
    if (!is_linterm(t)) return model_error("Linterm copy using an invalid object");
    return lin(f * as_lt(t)->coef, as_lt(t)->var);
}

PyObject* quad(double c, PyObject* x, PyObject* y) {
    if (!x || !y) return model_error("Invalid object in operation");
    PyObject* q = QuadTermType.tp_alloc(&QuadTermType, 0);
    if (!q) return nullptr;
    if (var_serial(y) < var_serial(x)) std::swap(x, y);
    as_qt(q)->coef = c;
    as_qt(q)->var1 = new_ref(x);
    as_qt(q)->var2 = new_ref(y);
    return q;
}

// ---------------------------------------------------------------- sums

PyObject* linterm_sum(PyObject* a, PyObject* b, double s) {
    if (is_expression(b)) return expression_sum(a, b, s);
    if (is_quadterm(b)) return quadterm_sum(a, b, s);
    if (is_nonlinear(b)) return nl_sum(a, b, s);
    if (is_expression(a)) return expression_sum(a, b, s);
    if (is_quadterm(a)) return quadterm_sum(a, b, s);
    if (is_nonlinear(a)) return nl_sum(a, b, s);
    if (is_ndarray(b)) return array_sum(a, b, s);

    PyObject *va = nullptr, *vb = nullptr;
    double ca = 0.0, cb = 0.0;
    bool a_num = is_number(a), b_num = is_number(b);
    if ((!a_num && !linear_view(a, &va, &ca)) || (!b_num && !linear_view(b, &vb, &cb)))
        return model_error("Invalid operands in sum");
    if (a_num && b_num) return float_result(number_value(a) + s * number_value(b));
    if (a_num) {
        double c = number_value(a);
        if (c == 0.0) return lin(s * cb, vb);
        ExprBuilder e(c);
        return e.finish(e.linear(vb, s * cb), "Error creating expression");
    }
    if (b_num) {
        double c = s * number_value(b);
        if (c == 0.0) return lin(ca, va);
        ExprBuilder e(c);
        return e.finish(e.linear(va, ca), "Error creating expression");
    }
    if (var_serial(va) == var_serial(vb)) return lin(ca + s * cb, va);
    const char* message = (is_var(a) || is_var(b)) ? "Error creating expression as sum of linear term and variable"
                                                   : "Error creating expression as sum of two linear terms";
    ExprBuilder e(0.0);
    return e.finish(e.linear(va, ca) && e.linear(vb, s * cb), message);
}

PyObject* quadterm_sum(PyObject* a, PyObject* b, double s) {
    if (is_expression(a) || is_expression(b)) return expression_sum(a, b, s);
    if (is_nonlinear(a) || is_nonlinear(b)) return nl_sum(a, b, s);
    if (is_ndarray(b)) return array_sum(a, b, s);
    const char* invalid = "Invalid operands in sum with quadratic term";
    double qa = 0.0, qb = 0.0;
    PyObject *xa = nullptr, *ya = nullptr, *xb = nullptr, *yb = nullptr;
    bool a_quad = quad_view(a, &qa, &xa, &ya), b_quad = quad_view(b, &qb, &xb, &yb);
    if (a_quad && b_quad) {
        if (var_serial(xa) == var_serial(xb) && var_serial(ya) == var_serial(yb)) return quad(qa + s * qb, xa, ya);
        ExprBuilder e(0.0);
        return e.finish(e.quadratic(xa, ya, qa) && e.quadratic(xb, yb, s * qb), "Error creating expression");
    }
    if (!a_quad && !b_quad) return model_error(invalid);
    PyObject* other = a_quad ? b : a;
    double factor = a_quad ? s : 1.0;  // sign of the non-quadratic operand
    PyObject *v;
    double c;
    if (is_number(other)) {
        double k = factor * number_value(other);
        if (a_quad) {
            if (k == 0.0) return quad(qa, xa, ya);
            ExprBuilder e(k);
            return e.finish(e.quadratic(xa, ya, qa), "Error creating expression");
        }
        if (k == 0.0) return quad(s * qb, xb, yb);
        ExprBuilder e(k);
        return e.finish(e.quadratic(xb, yb, s * qb), "Error creating expression");
    }
    if (!linear_view(other, &v, &c)) return model_error(invalid);
    ExprBuilder e(0.0);
    bool ok = e.linear(v, factor * c) && (a_quad ? e.quadratic(xa, ya, qa) : e.quadratic(xb, yb, s * qb));
    return e.finish(ok, "Error creating expression");
}

// ---------------------------------------------------------------- products

PyObject* linterm_product(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_MUL, a, b);
    for (PyObject* o : {b, a}) {
        if (is_quadterm(o)) return quadterm_product(a, b);
        if (is_expression(o)) return expression_product(a, b);
        if (is_nonlinear(o)) return nl_multiply(a, b);
    }
    PyObject *va, *vb;
    double ca, cb;
    if (is_number(a) && linear_view(b, &vb, &cb)) return lin(number_value(a) * cb, vb);
    if (is_number(b) && linear_view(a, &va, &ca)) return lin(number_value(b) * ca, va);
    if (linear_view(a, &va, &ca) && linear_view(b, &vb, &cb)) return quad(ca * cb, va, vb);
    return model_error("Invalid operands in product of linear terms");
}

PyObject* quadterm_product(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_MUL, a, b);
    if (is_expression(a) || is_expression(b)) return expression_product(a, b);
    if (is_nonlinear(a) || is_nonlinear(b)) return nl_multiply(a, b);
    double c;
    PyObject *x, *y;
    if (is_number(a) && quad_view(b, &c, &x, &y)) return quad(number_value(a) * c, x, y);
    if (is_number(b) && quad_view(a, &c, &x, &y)) return quad(number_value(b) * c, x, y);
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    return nl_binary(NL_PROD, a, b);
}

// ---------------------------------------------------------------- quotients

PyObject* linterm_divide(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_DIV, a, b);
    if (is_quadterm(a) || is_quadterm(b)) return quadterm_divide(a, b);
    if (is_expression(a)) return expression_divide(a, b);
    if (is_expression(b) && !is_constant_expression(b)) return nl_divide(a, b);
    if (is_nonlinear(a) || is_nonlinear(b)) return nl_divide(a, b);
    double c;
    PyObject *va, *vb;
    double ca, cb;
    if (constant_value(b, &c) && linear_view(a, &va, &ca)) {
        if (c == 0.0) return model_error("Division by zero");
        return lin(ca / c, va);
    }
    bool a_ok = is_number(a) || linear_view(a, &va, &ca);
    if (!a_ok || !linear_view(b, &vb, &cb)) return model_error("Invalid operands in product of linear terms");
    if (!is_number(a) && var_serial(va) == var_serial(vb)) {
        if (cb == 0.0) return model_error("Division by zero");
        return float_result(ca / cb);
    }
    return nl_binary(NL_DIV, a, b);
}

PyObject* quadterm_divide(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_DIV, a, b);
    if (is_expression(a)) return expression_divide(a, b);
    if (is_expression(b) && !is_constant_expression(b)) return nl_divide(a, b);
    if (is_nonlinear(a) || is_nonlinear(b)) return nl_divide(a, b);
    double qa = 0.0, qb = 0.0, c = 0.0;
    PyObject *xa = nullptr, *ya = nullptr, *xb = nullptr, *yb = nullptr, *v = nullptr;
    bool a_quad = quad_view(a, &qa, &xa, &ya), b_quad = quad_view(b, &qb, &xb, &yb);
    if (a_quad && !b_quad) {
        if (constant_value(b, &c)) {
            if (c == 0.0) return model_error("Division by zero of a bilinear term");
            return quad((1.0 / c) * qa, xa, ya);
        }
        if (linear_view(b, &v, &c)) {
            if (c == 0.0) return model_error("Division by zero of a bilinear term");
            if (PyObject* rest = other_factor(a, v)) return lin(qa / c, rest);
            return nl_binary(NL_DIV, a, b);
        }
    } else if (b_quad && !a_quad && linear_view(a, &v, &c)) {
        if (qb == 0.0)
            return model_error(is_var(a) ? "Division by zero of a variable" : "Division by zero of a linear term");
        if (PyObject* rest = other_factor(b, v)) {
            PyRef ratio(PyFloat_FromDouble(c / qb));
            return ratio ? nl_binary(NL_DIV, ratio.get(), rest) : nullptr;
        }
        return nl_binary(NL_DIV, a, b);
    } else if (a_quad && b_quad) {
        PyObject* rest_a = nullptr;
        PyObject* rest_b = nullptr;
        // Cancel a common factor, if any: the remaining factors of each side.
        if ((rest_b = other_factor(b, xa))) rest_a = ya;
        else if ((rest_b = other_factor(b, ya))) rest_a = xa;
        if (!rest_b) return nl_binary(NL_DIV, a, b);
        if (qb == 0.0) return model_error("Division by zero of a bilinear term");
        if (var_serial(rest_a) == var_serial(rest_b)) return float_result(qa / qb);
        PyRef num(lin(qa / qb, rest_a));
        return num ? nl_binary(NL_DIV, num.get(), rest_b) : nullptr;
    }
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    return nl_binary(NL_DIV, a, b);
}

// ---------------------------------------------------------------- powers

PyObject* linterm_power(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_POW, a, b);
    for (PyObject* o : {a, b}) {
        if (is_quadterm(o)) return quadterm_power(a, b);
        if (is_expression(o)) return expression_power(a, b);
        if (is_nonlinear(o)) return nl_power(a, b);
    }
    if (is_linterm(a)) {
        if (is_number(b)) {
            double k = number_value(b);
            if (k == 0.0) return float_result(1.0);
            if (k == 1.0) return new_ref(a);
            if (k == 2.0) return quad(as_lt(a)->coef * as_lt(a)->coef, as_lt(a)->var, as_lt(a)->var);
        }
        if (operand_kind(b) < 0) return nullptr;
        return nl_binary(NL_POW, a, b);
    }
    if (is_number(a)) {
        if (number_value(a) == 1.0) return float_result(1.0);
        return nl_binary(NL_POW, a, b);
    }
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    return nl_binary(NL_POW, a, b);
}

PyObject* quadterm_power(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_POW, a, b);
    if (is_expression(a) || is_expression(b)) return expression_power(a, b);
    if (is_nonlinear(a) || is_nonlinear(b)) return nl_power(a, b);
    if (is_quadterm(a) && is_number(b)) {
        double k = number_value(b);
        if (k == 0.0) return float_result(1.0);
        if (k == 1.0) return quad(as_qt(a)->coef, as_qt(a)->var1, as_qt(a)->var2);
        return nl_binary(NL_POW, a, b);
    }
    if (is_number(a) && number_value(a) == 1.0) return float_result(1.0);
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    return nl_binary(NL_POW, a, b);
}

// ---------------------------------------------------------------- Python types

namespace {

PyObject* coef_prefix(double c) {
    std::string prefix = c == 1.0 ? std::string() : format_g("%g*", c);
    return PyUnicode_FromStringAndSize(prefix.data(), static_cast<Py_ssize_t>(prefix.size()));
}

PyObject* linterm_str(PyObject* self) {
    if (!as_lt(self)->var) return PyUnicode_FromString("<empty tarvo.linterm>");
    PyRef prefix(coef_prefix(as_lt(self)->coef));
    if (!prefix) return nullptr;
    return PyUnicode_FromFormat("%U%S", prefix.get(), as_lt(self)->var);
}

PyObject* quadterm_str(PyObject* self) {
    QuadTermObject* q = as_qt(self);
    if (!q->var1 || !q->var2) return PyUnicode_FromString("<empty tarvo.quadterm>");
    PyRef prefix(coef_prefix(q->coef));
    if (!prefix) return nullptr;
    if (var_serial(q->var1) == var_serial(q->var2)) return PyUnicode_FromFormat("%U%S**2", prefix.get(), q->var1);
    return PyUnicode_FromFormat("%U%S*%S", prefix.get(), q->var1, q->var2);
}

void linterm_dealloc(PyObject* self) {
    Py_XDECREF(as_lt(self)->var);
    Py_TYPE(self)->tp_free(self);
}

void quadterm_dealloc(PyObject* self) {
    Py_XDECREF(as_qt(self)->var1);
    Py_XDECREF(as_qt(self)->var2);
    Py_TYPE(self)->tp_free(self);
}

int no_init(PyObject* self, PyObject*, PyObject*) {
    PyErr_Format(PyExc_TypeError, "cannot create '%s' instances", Py_TYPE(self)->tp_name);
    return -1;
}

PyObject* linterm_extract_linear(PyObject* self, PyObject*) {
    // A term allocated without going through the algebra (type.__new__) has no variable.
    if (!as_lt(self)->var) return check_result(Py_BuildValue("([],[])"));
    return check_result(Py_BuildValue("([O],[d])", as_lt(self)->var, as_lt(self)->coef));
}
PyObject* linterm_extract_quadratic(PyObject*, PyObject*) { return check_result(Py_BuildValue("([],[],[])")); }
PyObject* quadterm_extract_linear(PyObject*, PyObject*) { return check_result(Py_BuildValue("([],[])")); }
PyObject* quadterm_extract_quadratic(PyObject* self, PyObject*) {
    QuadTermObject* q = as_qt(self);
    if (!q->var1 || !q->var2) return check_result(Py_BuildValue("([],[],[])"));
    return check_result(Py_BuildValue("([O],[O],[d])", q->var1, q->var2, q->coef));
}

PyMethodDef linterm_methods[] = {
    {"extractLinear", linterm_extract_linear, METH_NOARGS, "extractLinear($self, /)\n--\n\nReturns ([var], [coef]) of the linear term."},
    {"extractQuadratic", linterm_extract_quadratic, METH_NOARGS,
     "extractQuadratic($self, /)\n--\n\nReturns three empty lists: a linear term has no quadratic part."},
    MODEL_ARRAY_UFUNC_METHOD,
    {nullptr, nullptr, 0, nullptr}};
PyMethodDef quadterm_methods[] = {
    {"extractLinear", quadterm_extract_linear, METH_NOARGS,
     "extractLinear($self, /)\n--\n\nReturns two empty lists: a quadratic term has no linear part."},
    {"extractQuadratic", quadterm_extract_quadratic, METH_NOARGS, "extractQuadratic($self, /)\n--\n\nReturns ([var1], [var2], [coef]) of the quadratic term."},
    MODEL_ARRAY_UFUNC_METHOD,
    {nullptr, nullptr, 0, nullptr}};

PyObject* linterm_add_slot(PyObject* a, PyObject* b) { return linterm_sum(a, b, 1.0); }
PyObject* linterm_sub_slot(PyObject* a, PyObject* b) { return linterm_sum(a, b, -1.0); }
PyObject* linterm_pow_slot(PyObject* a, PyObject* b, PyObject*) { return linterm_power(a, b); }
PyObject* linterm_neg(PyObject* a) { return lin(-as_lt(a)->coef, as_lt(a)->var); }
PyObject* quadterm_add_slot(PyObject* a, PyObject* b) { return quadterm_sum(a, b, 1.0); }
PyObject* quadterm_sub_slot(PyObject* a, PyObject* b) { return quadterm_sum(a, b, -1.0); }
PyObject* quadterm_pow_slot(PyObject* a, PyObject* b, PyObject*) { return quadterm_power(a, b); }
PyObject* quadterm_neg(PyObject* a) { return quad(-as_qt(a)->coef, as_qt(a)->var1, as_qt(a)->var2); }

PyNumberMethods term_numbers(binaryfunc add, binaryfunc sub, binaryfunc mul, binaryfunc div, ternaryfunc pow,
                             unaryfunc neg) {
    PyNumberMethods n = {};
    n.nb_add = add;
    n.nb_subtract = sub;
    n.nb_multiply = mul;
    n.nb_true_divide = div;
    n.nb_power = pow;
    n.nb_negative = neg;
    n.nb_absolute = model_abs;
    n.nb_and = model_and;
    n.nb_or = model_or;
    n.nb_inplace_add = term_inplace_add;
    n.nb_inplace_subtract = term_inplace_subtract;
    n.nb_inplace_multiply = term_inplace_multiply;
    n.nb_inplace_true_divide = term_inplace_divide;
    n.nb_inplace_power = term_inplace_power;
    n.nb_inplace_and = model_and;
    n.nb_inplace_or = model_or;
    return n;
}

PyNumberMethods linterm_numbers = term_numbers(linterm_add_slot, linterm_sub_slot, linterm_product, linterm_divide,
                                               linterm_pow_slot, linterm_neg);
PyNumberMethods quadterm_numbers = term_numbers(quadterm_add_slot, quadterm_sub_slot, quadterm_product,
                                                quadterm_divide, quadterm_pow_slot, quadterm_neg);

PyTypeObject make_term_type(const char* name, Py_ssize_t size, destructor dealloc, reprfunc str,
                            PyMethodDef* methods, PyNumberMethods* numbers, const char* doc) {
    PyTypeObject t = {PyVarObject_HEAD_INIT(nullptr, 0)};
    t.tp_name = name;
    t.tp_basicsize = size;
    t.tp_flags = Py_TPFLAGS_DEFAULT;
    t.tp_doc = doc;
    t.tp_init = no_init;
    t.tp_dealloc = dealloc;
    t.tp_str = str;
    t.tp_repr = str;
    t.tp_hash = PyObject_HashNotImplemented;
    t.tp_richcompare = constraint_compare;
    t.tp_methods = methods;
    t.tp_as_number = numbers;
    return t;
}

}  // namespace

PyTypeObject LinTermType = make_term_type("tarvo.linterm", sizeof(LinTermObject), linterm_dealloc, linterm_str,
                                          linterm_methods, &linterm_numbers,
                                          "Linear term: a coefficient times a variable.");
PyTypeObject QuadTermType = make_term_type("tarvo.quadterm", sizeof(QuadTermObject), quadterm_dealloc,
                                           quadterm_str, quadterm_methods, &quadterm_numbers,
                                           "Quadratic term: a coefficient times the product of two variables.");

}  // namespace tarvo
