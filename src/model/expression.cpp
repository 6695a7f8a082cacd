// The linear-plus-quadratic expression: a constant and two serial-ordered term maps.
#include "model/algebra.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

namespace tarvo {

namespace {

LinearMap& linear_part(PyObject* e) {
    ExpressionObject* x = as_expr(e);
    if (!x->linear) x->linear = &x->linear_store;
    return *x->linear;
}

// Adds c * x * y to the quadratic part, creating it (and the serial set) on first use.
void quad_add(PyObject* e, PyObject* x, PyObject* y, double c) {
    if (c == 0.0) return;
    ExpressionObject* ex = as_expr(e);
    if (var_serial(y) < var_serial(x)) std::swap(x, y);
    if (!ex->quadratic) ex->quadratic = new QuadraticMap();
    if (!ex->quadratic_vars) ex->quadratic_vars = new SerialSet();
    ex->quadratic->add(x, y, c);
    // Every variable that enters the quadratic part is remembered (a set: repeats are free).
    ex->quadratic_vars->insert(var_serial(x));
    if (y != x) ex->quadratic_vars->insert(var_serial(y));
}

size_t term_count(PyObject* e) {
    ExpressionObject* x = as_expr(e);
    return (x->linear ? x->linear->size() : 0) + (x->quadratic ? quad_count(*x->quadratic) : 0);
}

// Copy of a map with every coefficient multiplied by f into the empty map dst; products equal
// to 0 are dropped.
void scale_linear_into(const LinearMap& src, double f, LinearMap& dst, size_t extra = 0) {
    dst.reserve(dst.size() + src.size() + extra);
    for (auto& entry : src) {
        double c = entry.second * f;
        if (c == 0.0) continue;
        dst.append_sorted(entry.first, c);
        Py_INCREF(entry.first);
    }
}

// Adds s*b into the expression e for b of kind number, var, linterm, quadterm or expression.
// Returns false when b is none of these (nothing is changed then).
bool add_polynomial(PyObject* e, PyObject* b, double s) {
    ExpressionObject* x = as_expr(e);
    PyObject* v;
    double c;
    if (is_number(b)) {
        x->constant += s * number_value(b);
    } else if (linear_view(b, &v, &c)) {
        lin_add(linear_part(e), v, s * c);
    } else if (is_quadterm(b)) {
        auto* q = reinterpret_cast<QuadTermObject*>(b);
        quad_add(e, q->var1, q->var2, s * q->coef);
    } else if (is_expression(b)) {
        PyRef snapshot;
        if (b == e) {  // e += e: read the terms from a copy taken before any change
            snapshot.reset(expr_copy_scaled(b, 1.0));
            if (!snapshot) return false;
            b = snapshot.get();
        }
        ExpressionObject* y = as_expr(b);
        x->constant += s * y->constant;
        if (y->linear)
            for (auto& entry : *y->linear) lin_add(linear_part(e), entry.first, s * entry.second);
        if (y->quadratic)
            for (const QuadEntry* q = y->quadratic->entries_begin(); q != y->quadratic->entries_end(); ++q)
                quad_add(e, q->row, q->term.first, s * q->term.second);
    } else {
        return false;
    }
    return true;
}

}  // namespace

// ---------------------------------------------------------------- internal operations

namespace {

// Most expressions built by operators hold a handful of terms: up to this many live inside the
// expression object itself.
constexpr size_t INLINE_TERMS_MAX = 8;
// Room for the terms of x - y, x + 2*y and the like in a fresh expression.
constexpr size_t INLINE_TERMS_DEFAULT = 2;

// Expression objects live in blocks of the system allocator rather than the interpreter's
// small-object arenas. Array arithmetic makes and drops whole arrays of temporary expressions
// of many sizes: the arenas of a dropped array go back to the system as soon as they empty, and
// the next array's objects land on fresh pages that the system has to map and zero-fill again
// (that took about half the time of a chain of array operations). The system allocator keeps
// freed blocks and reuses them for the next array whatever their sizes.
void* expr_block_alloc(size_t n) { return std::malloc(sizeof(ExpressionObject) + n * sizeof(LinEntry)); }

// tp_alloc and tp_free of the expression type itself (subclasses have their own).
PyObject* expression_alloc(PyTypeObject* type, Py_ssize_t) {
    void* block = expr_block_alloc(0);
    if (!block) return PyErr_NoMemory();
    std::memset(block, 0, sizeof(ExpressionObject));
    return PyObject_Init(static_cast<PyObject*>(block), type);
}

void expression_free(void* p) { std::free(p); }

}  // namespace

PyObject* expr_new_sized(size_t n) {
    n = std::min(n, INLINE_TERMS_MAX);
    // One block: the object, then room for n terms that the linear part starts on. The type
    // is not collected by the cyclic garbage collector (expressions hold only variables), so a
    // plain object allocation is all that tp_alloc does as well.
    void* block = expr_block_alloc(n);
    if (!block) return PyErr_NoMemory();
    std::memset(block, 0, sizeof(ExpressionObject));
    PyObject* e = PyObject_Init(static_cast<PyObject*>(block), &ExpressionType);
    ExpressionObject* x = as_expr(e);
    new (&x->linear_store) LinearMap(reinterpret_cast<LinEntry*>(x + 1), n);
    return e;
}

PyObject* expr_new() { return expr_new_sized(INLINE_TERMS_DEFAULT); }

namespace {

// extra: room to leave in the linear part for terms the caller adds next.
PyObject* copy_scaled(PyObject* obj, double f, size_t extra = 0) {
    size_t terms = extra + (is_expression(obj) ? (as_expr(obj)->linear ? as_expr(obj)->linear->size() : 0) : 1);
    PyRef e(f == 0.0 ? expr_new() : expr_new_sized(terms));
    if (!e || f == 0.0) return e.release();
    ExpressionObject* x = as_expr(e.get());
    if (is_expression(obj)) {
        ExpressionObject* src = as_expr(obj);
        x->constant = src->constant * f;
        if (std::fabs(f - 1.0) > 1e-15) {
            if (src->linear) scale_linear_into(*src->linear, f, linear_part(e.get()), extra);
            if (src->quadratic) {
                x->quadratic = new QuadraticMap();
                x->quadratic->assign_scaled(*src->quadratic, f);
            }
        } else {
            if (src->linear) {
                LinearMap& dst = linear_part(e.get());
                dst.assign_copy(*src->linear, extra);  // references are taken below
                for (auto& entry : dst) Py_INCREF(entry.first);
            }
            if (src->quadratic) {
                x->quadratic = new QuadraticMap();
                x->quadratic->assign_scaled(*src->quadratic, 1.0);
            }
        }
        if (src->quadratic_vars) x->quadratic_vars = new SerialSet(*src->quadratic_vars);
        else if (x->quadratic) x->quadratic_vars = new SerialSet();
        return e.release();
    }
    if (!add_polynomial(e.get(), obj, f)) {
        PyErr_SetString(ModelError, "Cannot copy expression");
        return nullptr;
    }
    return e.release();
}

}  // namespace

namespace {

PyObject* copy_expression(PyObject* obj, double f, size_t extra) {
    if (is_nonlinear(obj) && f != 0.0) return nl_scaled_copy(obj, f);
    const char* message = is_quadterm(obj)                  ? "Cannot copy quadratic term into expression"
                          : (is_var(obj) || is_linterm(obj)) ? "Cannot copy linear term into expression"
                                                             : "Cannot copy expression";
    return alloc_guard(message, [&] { return copy_scaled(obj, f, extra); });
}

}  // namespace

PyObject* expr_copy_scaled(PyObject* obj, double f) { return copy_expression(obj, f, 0); }

int expr_add_linear(PyObject* e, PyObject* v, double c) {
    return alloc_guard_status("Error amending linear expression", [&] {
        lin_add(linear_part(e), v, c);
        return 0;
    });
}

int expr_add_quadratic(PyObject* e, PyObject* x, PyObject* y, double c) {
    return alloc_guard_status("Error setting quadratic expression", [&] {
        quad_add(e, x, y, c);
        return 0;
    });
}

PyObject* expr_scale_in_place(PyObject* e, double f) {
    if (f == 0.0) {
        Py_DECREF(e);
        return float_result(0.0);
    }
    if (f == 1.0) return e;
    ExpressionObject* x = as_expr(e);
    x->constant *= f;
    auto scale = [f](LinearMap& m) {
        for (auto it = m.begin(); it != m.end();) {
            it->second *= f;
            if (it->second == 0.0) {
                PyObject* key = it->first;
                it = m.erase(it);
                Py_DECREF(key);
            } else {
                ++it;
            }
        }
    };
    if (x->linear) scale(*x->linear);
    if (x->quadratic) x->quadratic->scale(f);
    return e;
}

PyObject* expr_add_in_place(PyObject* e, PyObject* b, double s) {
    if (!e) return expr_copy_scaled(b, s);
    if (is_ndarray(b)) return array_sum(e, b, s);
    if (is_nonlinear(b)) return nl_sum(e, b, s);
    const char* message = is_quadterm(b) || (is_expression(b) && as_expr(b)->quadratic) ? "Could not add quadratic part"
                                                                                       : "Could not add linear part";
    return alloc_guard(message, [&]() -> PyObject* {
        if (!add_polynomial(e, b, s)) {
            if (operand_kind(b) >= 0) PyErr_SetString(ModelError, "Invalid object in operation");
            return nullptr;
        }
        return new_ref(e);
    });
}

// ---------------------------------------------------------------- binary operations

namespace {

// A purely linear operand of a sum, read in place: an expression (of the exact type, without a
// quadratic part), a variable, or a linear term with a variable and a coefficient other than 0.
struct LinearOperand {
    const LinEntry* terms = nullptr;
    size_t count = 0;
    double constant = 0;
    bool expression = false;
    bool has_linear = false;  // an expression with a linear part (possibly emptied)
    LinEntry single{nullptr, 0.0};
};

bool read_linear_operand(PyObject* o, LinearOperand& out) {
    PyTypeObject* t = Py_TYPE(o);
    if (t == &ExpressionType) {
        ExpressionObject* e = as_expr(o);
        if (e->quadratic || e->quadratic_vars) return false;
        out.expression = true;
        out.constant = e->constant;
        if (e->linear) {
            out.has_linear = true;
            out.terms = e->linear->begin();
            out.count = e->linear->size();
        }
        return true;
    }
    if (t == &VarType) {
        out.single = LinEntry{o, 1.0};
    } else if (t == &LinTermType && reinterpret_cast<LinTermObject*>(o)->var &&
               reinterpret_cast<LinTermObject*>(o)->coef != 0.0) {
        LinTermObject* lt = reinterpret_cast<LinTermObject*>(o);
        out.single = LinEntry{lt->var, lt->coef};
    } else {
        return false;
    }
    out.terms = &out.single;
    out.count = 1;
    return true;
}

// a + s*b for linear operands, at least one of them an expression, in one merge of the two
// sorted term lists. The result equals, to the bit, copying the expression operand (b scaled
// by s when a is not an expression) and adding the other's terms one by one: each shared
// variable's coefficient is the same single sum, exact zeros are dropped, the constant is the
// same sum, and the linear part exists exactly when that sequence would have created it.
PyObject* merge_linear_sum(const LinearOperand& a, const LinearOperand& b, double s) {
    const size_t total = a.count + b.count;
    PyRef r(expr_new_sized(total));
    if (!r) return nullptr;
    ExpressionObject* x = as_expr(r.get());
    x->constant = a.expression ? (b.expression ? a.constant + s * b.constant : a.constant) : b.constant * s;
    if (a.expression && !a.has_linear && b.count == 0) return r.release();
    LinearMap& m = linear_part(r.get());
    m.reserve(total);
    const LinEntry *p = a.terms, *pe = a.terms + a.count, *q = b.terms, *qe = b.terms + b.count;
    while (p != pe || q != qe) {
        PyObject* v;
        double c;
        if (q == qe || (p != pe && var_serial(p->first) < var_serial(q->first))) {
            v = p->first;
            c = p->second;
            ++p;
        } else if (p == pe || var_serial(q->first) < var_serial(p->first)) {
            v = q->first;
            c = q->second * s;
            ++q;
        } else {
            v = p->first;
            c = p->second + q->second * s;
            ++p;
            ++q;
            if (c == 0.0) continue;
        }
        Py_INCREF(v);
        m.append_sorted(v, c);
    }
    return r.release();
}

}  // namespace

PyObject* expression_sum(PyObject* a, PyObject* b, double s) {
    if (is_ndarray(b)) return array_sum(a, b, s);
    if ((s == 1.0 || s == -1.0) && (Py_TYPE(a) == &ExpressionType || Py_TYPE(b) == &ExpressionType)) {
        LinearOperand la, lb;
        if (read_linear_operand(a, la) && read_linear_operand(b, lb))
            return alloc_guard("Error adding expressions", [&] { return merge_linear_sum(la, lb, s); });
    }
    if (is_nonlinear(a) || is_nonlinear(b)) return nl_sum(a, b, s);
    int ka = operand_kind_quiet(a), kb = operand_kind_quiet(b);
    if (ka < 0 || kb < 0) return model_error("Invalid object in operation");
    // Copy the expression operand (scaled by s when it is b) and add the other one into it.
    bool copy_a = is_expression(a) || !is_expression(b);
    PyObject* other = copy_a ? b : a;
    size_t extra = is_expression(other) ? (as_expr(other)->linear ? as_expr(other)->linear->size() : 0)
                                        : (is_var(other) || is_linterm(other) ? 1 : 0);
    PyRef r(copy_a ? copy_expression(a, 1.0, extra) : copy_expression(b, s, extra));
    if (!r) return nullptr;
    return alloc_guard("Error adding expressions", [&]() -> PyObject* {
        if (!add_polynomial(r.get(), copy_a ? b : a, copy_a ? s : 1.0)) return model_error("Error adding expressions");
        return r.release();
    });
}

namespace {

// The other operand of a product with a constant c: the scaled forms of every modelling type.
PyObject* scale_operand(PyObject* o, double c) {
    PyObject* v;
    double k;
    if (is_var(o)) {
        if (c == 1.0) return new_ref(o);
        return lin(c, o);  // 0 gives the float 0.0
    }
    if (linear_view(o, &v, &k)) return lin(c * k, v);
    if (is_quadterm(o)) {
        auto* q = reinterpret_cast<QuadTermObject*>(o);
        return quad(c * q->coef, q->var1, q->var2);
    }
    if (is_expression(o)) return expr_copy_scaled(o, c);
    if (is_nonlinear(o)) return nl_scaled_copy(o, c);
    return model_error("Error multiplying expressions");
}

// The product of an expression without quadratic part and a linear term c*v.
PyObject* linear_times_term(PyObject* e, PyObject* v, double c) {
    PyRef r(expr_new());
    if (!r) return nullptr;
    ExpressionObject* x = as_expr(e);
    lin_add(linear_part(r.get()), v, x->constant * c);
    if (x->linear)
        for (auto& entry : *x->linear) quad_add(r.get(), entry.first, v, entry.second * c);
    return r.release();
}

// The product of two expressions without quadratic terms.
PyObject* linear_times_linear(PyObject* a, PyObject* b) {
    PyRef r(expr_new());
    if (!r) return nullptr;
    ExpressionObject *x = as_expr(a), *y = as_expr(b);
    as_expr(r.get())->constant = x->constant * y->constant;
    if (y->linear)
        for (auto& entry : *y->linear) lin_add(linear_part(r.get()), entry.first, x->constant * entry.second);
    if (x->linear)
        for (auto& entry : *x->linear) lin_add(linear_part(r.get()), entry.first, y->constant * entry.second);
    if (x->linear && y->linear)
        for (auto& p : *x->linear)
            for (auto& q : *y->linear) quad_add(r.get(), p.first, q.first, p.second * q.second);
    return r.release();
}

PyObject* times_term(PyObject* e, PyObject* v, double c) {
    return alloc_guard("Cannot create linear term for expression", [&] { return linear_times_term(e, v, c); });
}

}  // namespace

PyObject* expression_product(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_MUL, a, b);
    if (is_number(a)) return expr_copy_scaled(b, number_value(a));
    if (is_number(b)) return expr_copy_scaled(a, number_value(b));
    if (is_constant_expression(a)) return scale_operand(b, as_expr(a)->constant);
    if (is_constant_expression(b)) return scale_operand(a, as_expr(b)->constant);
    if (is_nonlinear(a) || is_nonlinear(b)) return nl_multiply(a, b);
    PyObject* v;
    double c;
    if (is_expression(a) && linear_view(b, &v, &c))
        return as_expr(a)->quadratic ? nl_multiply(a, b) : times_term(a, v, c);
    if (is_expression(b) && linear_view(a, &v, &c))
        return as_expr(b)->quadratic ? nl_multiply(a, b) : times_term(b, v, c);
    if (is_expression(a) && is_expression(b)) {
        size_t qa = as_expr(a)->quadratic ? quad_count(*as_expr(a)->quadratic) : 0;
        size_t qb = as_expr(b)->quadratic ? quad_count(*as_expr(b)->quadratic) : 0;
        size_t na = term_count(a), nb = term_count(b);
        if ((qa > 0 && nb > 0) || (qb > 0 && na > 0)) return nl_multiply(a, b);
        if (qa > 0) return expr_copy_scaled(a, as_expr(b)->constant);
        if (qb > 0) return expr_copy_scaled(b, as_expr(a)->constant);
        return alloc_guard("Cannot create quadratic term in expression", [&] { return linear_times_linear(a, b); });
    }
    if ((is_expression(a) && is_quadterm(b)) || (is_quadterm(a) && is_expression(b))) return nl_multiply(a, b);
    return model_error("Invalid object in operation");
}

PyObject* expression_compare_number(PyObject* e, double b, int op) {
    // The comparison builder computes d = e - b (a copy of e with b taken off its constant),
    // moves d's constant to the bound and leaves d as the body: the same arithmetic here,
    // without the float object and the operand dispatch.
    return alloc_guard(nullptr, [&]() -> PyObject* {
        PyRef body(copy_expression(e, 1.0, 0));
        if (!body) return nullptr;
        ExpressionObject* x = as_expr(body.get());
        x->constant += -1.0 * b;
        double r = -x->constant;
        x->constant = 0.0;
        PyObject* c = con_new();
        if (!c) return nullptr;
        return con_bound_body(c, body.release(), r, op);
    });
}

PyObject* expression_divide(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_DIV, a, b);
    double c;
    if (is_expression(a) && constant_value(b, &c)) {
        if (c == 0.0) return model_error("Division by zero");
        return expr_copy_scaled(a, 1.0 / c);
    }
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    return nl_divide(a, b);
}

PyObject* expression_power(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_POW, a, b);
    if (is_expression(a) && is_number(b)) {
        double k = number_value(b);
        if (k == 0.0) return float_result(1.0);
        if (k == 1.0) return expr_copy_scaled(a, 1.0);
        if (k == 2.0) return expression_product(a, a);
        return nl_power(a, b);
    }
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    if (is_number(a) && number_value(a) == 1.0) return float_result(1.0);
    return nl_power(a, b);
}

// ---------------------------------------------------------------- Python type

namespace {

void expression_dealloc(PyObject* self) {
    ExpressionObject* x = as_expr(self);
    if (x->linear) {
        lin_clear(*x->linear);
        x->linear = nullptr;
    }
    if (x->quadratic) {
        quad_clear(*x->quadratic);
        delete x->quadratic;
        x->quadratic = nullptr;
    }
    delete x->quadratic_vars;
    x->quadratic_vars = nullptr;
    x->linear_store.~LinearMap();
    Py_TYPE(self)->tp_free(self);
}

void append_term(std::string& out, bool& started, double c, const std::string& text) {
    if (c == 0.0) return;
    if (c == 1.0) {
        out += started ? " + " : "  ";
    } else if (c == -1.0) {
        out += " - ";
    } else {
        out += format_g(started ? " %+g " : " %g ", c);
    }
    out += text;
    started = true;
}

PyObject* expression_text(PyObject* self) {
    ExpressionObject* x = as_expr(self);
    std::string out, name1, name2;
    bool started = false;
    if (x->constant != 0.0 || term_count(self) == 0) {
        out = format_g("%g", x->constant);
        started = true;
    }
    if (x->linear)
        for (auto& entry : *x->linear) {
            if (!var_name_text(entry.first, &name1)) return nullptr;
            append_term(out, started, entry.second, name1);
        }
    if (x->quadratic)
        for (auto& outer : *x->quadratic) {
            if (!var_name_text(outer.first, &name1)) return nullptr;
            for (auto& inner : outer.second) {
                if (var_serial(inner.first) == var_serial(outer.first)) {
                    append_term(out, started, inner.second, name1 + "**2");
                } else {
                    if (!var_name_text(inner.first, &name2)) return nullptr;
                    append_term(out, started, inner.second, name1 + "*" + name2);
                }
            }
        }
    return PyUnicode_DecodeUTF8(out.data(), static_cast<Py_ssize_t>(out.size()), "replace");
}

PyObject* expression_str(PyObject* self) {
    return alloc_guard(nullptr, [&] { return expression_text(self); });
}

PyObject* expression_extract_linear(PyObject* self, PyObject*) {
    return check_result(linear_map_to_lists(as_expr(self)->linear));
}

PyObject* expression_extract_quadratic(PyObject* self, PyObject*) {
    return check_result(quadratic_map_to_lists(as_expr(self)->quadratic));
}

PyMethodDef expression_methods[] = {
    {"extractLinear", expression_extract_linear, METH_NOARGS,
     "extractLinear($self, /)\n--\n\nReturns the variables and coefficients of the linear part of the expression, "
     "as a tuple of two lists in variable creation order."},
    {"extractQuadratic", expression_extract_quadratic, METH_NOARGS,
     "extractQuadratic($self, /)\n--\n\nReturns the first variables, second variables and coefficients of the "
     "quadratic part of the expression, as a tuple of three lists."},
    MODEL_ARRAY_UFUNC_METHOD,
    {nullptr, nullptr, 0, nullptr}};

int expression_no_init(PyObject* self, PyObject*, PyObject*) {
    PyErr_SetString(PyExc_TypeError, "cannot create 'tarvo.expression' instances");
    return -1;
}

PyObject* add_slot(PyObject* a, PyObject* b) { return expression_sum(a, b, 1.0); }
PyObject* sub_slot(PyObject* a, PyObject* b) { return expression_sum(a, b, -1.0); }
PyObject* pow_slot(PyObject* a, PyObject* b, PyObject*) { return expression_power(a, b); }
PyObject* neg_slot(PyObject* a) { return expr_copy_scaled(a, -1.0); }
PyObject* iadd_slot(PyObject* a, PyObject* b) { return expr_add_in_place(a, b, 1.0); }
PyObject* isub_slot(PyObject* a, PyObject* b) { return expr_add_in_place(a, b, -1.0); }

PyObject* imul_slot(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_MUL, a, b);
    double c;
    if (constant_value(b, &c)) {
        if (c == 0.0) return float_result(0.0);  // leaves a unchanged
        return expr_scale_in_place(new_ref(a), c);
    }
    return expression_product(a, b);
}

PyObject* idiv_slot(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_DIV, a, b);
    double c;
    if (constant_value(b, &c)) {
        if (c == 0.0) return model_error("Division by zero");
        return expr_scale_in_place(new_ref(a), 1.0 / c);
    }
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    return nl_divide(a, b);
}

PyObject* ipow_slot(PyObject* a, PyObject* b, PyObject*) {
    if (is_ndarray(b)) return array_right(ARRAY_POW, a, b);
    if (is_number(b)) {
        double k = number_value(b);
        if (k == 1.0) return new_ref(a);
        if (k == 0.0) return float_result(1.0);
    }
    return expression_power(a, b);
}

PyNumberMethods expression_numbers = [] {
    PyNumberMethods n = {};
    n.nb_add = add_slot;
    n.nb_subtract = sub_slot;
    n.nb_multiply = expression_product;
    n.nb_true_divide = expression_divide;
    n.nb_power = pow_slot;
    n.nb_negative = neg_slot;
    n.nb_absolute = model_abs;
    n.nb_and = model_and;
    n.nb_or = model_or;
    n.nb_inplace_add = iadd_slot;
    n.nb_inplace_subtract = isub_slot;
    n.nb_inplace_multiply = imul_slot;
    n.nb_inplace_true_divide = idiv_slot;
    n.nb_inplace_power = ipow_slot;
    n.nb_inplace_and = model_and;
    n.nb_inplace_or = model_or;
    return n;
}();

}  // namespace

PyTypeObject ExpressionType = [] {
    PyTypeObject t = {PyVarObject_HEAD_INIT(nullptr, 0)};
    t.tp_name = "tarvo.expression";
    t.tp_basicsize = sizeof(ExpressionObject);
    t.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE;
    t.tp_doc = "Linear or quadratic expression: a constant, linear terms and quadratic terms.";
    t.tp_init = expression_no_init;
    t.tp_dealloc = expression_dealloc;
    t.tp_alloc = expression_alloc;
    t.tp_free = expression_free;
    t.tp_str = expression_str;
    t.tp_repr = expression_str;
    t.tp_hash = PyObject_HashNotImplemented;
    t.tp_richcompare = constraint_compare;
    t.tp_methods = expression_methods;
    t.tp_as_number = &expression_numbers;
    return t;
}();

}  // namespace tarvo
