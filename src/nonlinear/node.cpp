// The nonlinear expression node: operator table, constructors, copy and negation, the
// accumulating sum that grows sum nodes in place, products, quotients and powers, and the
// tarvo.nonlinear type with its number slots.
#include "nonlinear/internal.h"

namespace tarvo {

const NlOpInfo nl_ops[NL_OP_COUNT] = {
    {"+", -1, 0},      {"-", 2, 0},       {"-", 1, -1},     {"*", -1, 0},    {"/", 2, 0},
    {"**", 2, 0},      {"exp", 1, -1},    {"log", 1, -1},   {"log10", 1, -1}, {"sin", 1, -1},
    {"cos", 1, -1},    {"tan", 1, -1},    {"asin", 1, -1},  {"acos", 1, -1}, {"atan", 1, -1},
    {"max", -1, -1},   {"min", -1, -1},   {"abs", 1, -1},   {"sign", 1, -1}, {"erf", 1, -1},
    {"erfc", 1, -1},   {"sqrt", 1, -1},   {"and", -1, -1},  {"or", -1, -1},  {"pwl", -1, -1},
    {"user", -1, -1},  {"user", -1, -1},
};

namespace {

bool number_is(PyObject* o, double v) { return is_number(o) && number_value(o) == v; }


// The argument list of a node, turned into a list when it is a tuple (for in-place growth).
PyObject* mutable_args(PyObject* node) {
    NonlinearObject* n = as_nl(node);
    if (PyList_Check(n->args)) return n->args;
    if (!PyTuple_Check(n->args)) return nullptr;
    PyObject* list = PySequence_List(n->args);
    if (!list) return nullptr;
    Py_SETREF(n->args, list);
    return list;
}

// Index of the polynomial part of a sum node's argument sequence: the first element that
// is not a node among the last three, looked at from the end; -1 when there is none.
Py_ssize_t poly_index(PyObject* seq) {
    Py_ssize_t n = PySequence_Fast_GET_SIZE(seq);
    PyObject** items = PySequence_Fast_ITEMS(seq);
    for (Py_ssize_t i = n - 1; i >= 0 && i >= n - 3; --i)
        if (!is_nonlinear(items[i])) return i;
    return -1;
}

// Removes and returns (new reference) the polynomial part of a sum node, or null.
PyObject* take_poly(PyObject* list) {
    Py_ssize_t i = poly_index(list);
    if (i < 0) return nullptr;
    PyObject* p = new_ref(PyList_GET_ITEM(list, i));
    if (PySequence_DelItem(list, i) < 0) { Py_DECREF(p); return nullptr; }
    return p;
}

// Appends c times each element of seq other than index skip to list.
int append_scaled(PyObject* list, PyObject* seq, Py_ssize_t skip, double c) {
    Py_ssize_t n = PySequence_Fast_GET_SIZE(seq);
    for (Py_ssize_t i = 0; i < n; ++i) {
        if (i == skip) continue;
        PyObject* el = PySequence_Fast_GET_ITEM(seq, i);
        PyRef item(c == 1.0 ? new_ref(el) : nl_times(c, el));
        if (!item || PyList_Append(list, item.get()) < 0) return -1;
    }
    return 0;
}

// Appends a polynomial part unless it is the number 0.
int append_poly(PyObject* list, PyObject* p) {
    if (number_is(p, 0.0)) return 0;
    return PyList_Append(list, p);
}

// target + c*b for two polynomial operands (a new object, or target grown in place when
// it is an expression nobody else holds). Steals target.
PyObject* poly_accumulate(PyObject* target, PyObject* b, double c) {
    PyRef t(target);
    if (is_expression(t.get()) && Py_REFCNT(t.get()) == 1) {
        PyObject* r = expr_add_in_place(t.get(), b, c);
        return r;
    }
    if (is_expression(t.get()) || is_expression(b)) return expression_sum(t.get(), b, c);
    if (is_quadterm(t.get()) || is_quadterm(b)) return quadterm_sum(t.get(), b, c);
    if (is_var(t.get()) || is_var(b) || is_linterm(t.get()) || is_linterm(b)) {
        PyRef lt(is_var(t.get()) ? lin(1.0, t.get()) : new_ref(t.get()));
        if (!lt) return nullptr;
        if (is_var(b)) {
            PyRef lb(lin(c, b));
            return lb ? linterm_sum(lt.get(), lb.get(), 1.0) : nullptr;
        }
        return linterm_sum(lt.get(), b, c);
    }
    return PyFloat_FromDouble(number_value(t.get()) + c * number_value(b));
}


// True when tree is target or holds it somewhere below. An in-place operator that is about to
// put tree inside target copies it first, so that a node never ends up inside itself.
int references(PyObject* tree, PyObject* target) {
    if (tree == target) return 1;
    if (!is_nonlinear(tree)) return 0;
    if (Py_EnterRecursiveCall(" while inspecting a nonlinear expression")) return -1;
    PyObject* args = as_nl(tree)->args;
    int found = 0;
    if (is_seq_args(args)) {
        for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(args) && !found; ++i)
            found = references(PySequence_Fast_GET_ITEM(args, i), target);
    } else if (args) {
        found = references(args, target);
    }
    Py_LeaveRecursiveCall();
    return found;
}

// b itself, or a copy of it when it refers to target (new reference; null on failure).
PyObject* detached(PyObject* b, PyObject* target) {
    int r = references(b, target);
    if (r < 0) return nullptr;
    if (r == 0) return new_ref(b);
    return nl_scaled_copy(b, 1.0);
}

}  // namespace

// ---------------------------------------------------------------- constructors

PyObject* nl_new_node(int op, PyObject* args) {
    if (!args) return nullptr;
    NonlinearObject* n = PyObject_GC_New(NonlinearObject, &NonlinearType);
    if (!n) { Py_DECREF(args); return nullptr; }
    n->args = args;
    n->op = -1;
    n->op = op;
    PyObject_GC_Track(n);
    return reinterpret_cast<PyObject*>(n);
}

PyObject* nl_make(bool nary, int op, PyObject* args) {
    bool user = op == NL_USER || op == NL_USER_DERIV;
    if (!nary) {
        if (is_seq_args(args))
            return model_error("Could not create a unary nonlinear expression: the argument must be a single expression");
        if (operand_kind_quiet(args) < 0 && !(user && PyCallable_Check(args)))
            return model_error("Invalid object in unary operation");
    } else {
        if (!is_seq_args(args))
            return model_error("Could not create an n-ary nonlinear expression: the arguments must be in a list or tuple");
        Py_ssize_t n = PySequence_Fast_GET_SIZE(args);
        for (Py_ssize_t i = 0; i < n; ++i) {
            PyObject* el = PySequence_Fast_GET_ITEM(args, i);
            if (i == 0 && user && PyCallable_Check(el)) continue;
            if (operand_kind_quiet(el) < 0) return model_error("Invalid object in n-ary operation");
        }
    }
    return nl_new_node(op, new_ref(args));
}

PyObject* nl_unary(int op, PyObject* operand) {
    if (operand_kind(operand) < 0) return nullptr;
    return nl_make(false, op, operand);
}

PyObject* nl_binary(int op, PyObject* a, PyObject* b) {
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    if (op == NL_SUM || op == NL_PROD) {
        bool node_first = is_nonlinear(a);
        return nl_new_node(op, Py_BuildValue("[OO]", node_first ? a : b, node_first ? b : a));
    }
    return nl_new_node(op, PyTuple_Pack(2, a, b));
}

// ---------------------------------------------------------------- copy and negation

namespace {

PyObject* node_copy_guarded(PyObject* node, double c);

// Copies recurse over the whole tree: the interpreter's recursion limit turns a tree too
// deep to copy into a RecursionError instead of a stack overflow.
PyObject* node_copy(PyObject* node, double c) {
    if (Py_EnterRecursiveCall(" while copying a nonlinear expression")) return nullptr;
    PyObject* r = node_copy_guarded(node, c);
    Py_LeaveRecursiveCall();
    return r;
}

PyObject* node_copy_guarded(PyObject* node, double c) {
    NonlinearObject* n = as_nl(node);
    if (!n->args) return model_error("Invalid object being copied from single argument in a nonlinear expression");
    if (c != 1.0 && n->op == NL_UMINUS) return nl_scaled_copy(n->args, -c);
    PyRef args;
    if (is_seq_args(n->args)) {
        Py_ssize_t len = PySequence_Fast_GET_SIZE(n->args);
        bool list = PyList_Check(n->args);
        args.reset(list ? PyList_New(len) : PyTuple_New(len));
        if (!args) return nullptr;
        bool user = n->op == NL_USER || n->op == NL_USER_DERIV;
        for (Py_ssize_t i = 0; i < len; ++i) {
            PyObject* el = PySequence_Fast_GET_ITEM(n->args, i);
            PyObject* copy = (i == 0 && user) ? new_ref(el) : nl_scaled_copy(el, 1.0);
            if (!copy) {
                if (!PyErr_Occurred())
                    model_error("Invalid object being copied from argument list/tuple in a nonlinear expression");
                return nullptr;
            }
            if (list) PyList_SET_ITEM(args.get(), i, copy);
            else PyTuple_SET_ITEM(args.get(), i, copy);
        }
    } else {
        args.reset(PyCallable_Check(n->args) && !is_nonlinear(n->args) && operand_kind_quiet(n->args) < 0
                       ? new_ref(n->args)
                       : nl_scaled_copy(n->args, 1.0));
        if (!args) {
            if (!PyErr_Occurred())
                model_error("Invalid object being copied from single argument in a nonlinear expression");
            return nullptr;
        }
    }
    PyRef copy(nl_new_node(n->op, args.release()));
    if (!copy || c == 1.0) return copy.release();
    if (n->op == NL_PROD) {
        PyObject* list = mutable_args(copy.get());
        if (!list) return nullptr;
        Py_ssize_t len = PyList_GET_SIZE(list);
        if (len == 1) {
            PyObject* x = PyList_GET_ITEM(list, 0);
            if (is_number(x)) return PyFloat_FromDouble(number_value(x) * c);
            return nl_new_node(NL_PROD, Py_BuildValue("[Od]", x, c));
        }
        for (Py_ssize_t i = 0; i < 2 && len >= 2; ++i) {
            PyObject* x = PyList_GET_ITEM(list, i);
            if (is_number(x)) {
                PyObject* k = PyFloat_FromDouble(number_value(x) * c);
                if (!k || PyList_SetItem(list, i, k) < 0) return nullptr;
                return copy.release();
            }
        }
    }
    return nl_new_node(NL_PROD, Py_BuildValue("[Od]", copy.get(), c));
}

}  // namespace

PyObject* nl_scaled_copy(PyObject* obj, double c) {
    if (!obj) return model_error("Invalid object being copied");
    if (is_ndarray(obj)) {
        if (c == 1.0) return PyArray_NewCopy(reinterpret_cast<PyArrayObject*>(obj), NPY_KEEPORDER);
        PyRef f(PyFloat_FromDouble(c));
        return f ? PyNumber_Multiply(obj, f.get()) : nullptr;
    }
    if (is_nonlinear(obj)) return node_copy(obj, c);
    if (is_number(obj)) return c == 1.0 ? new_ref(obj) : PyFloat_FromDouble(c * number_value(obj));
    if (is_var(obj)) {
        if (c == 1.0) return new_ref(obj);
        return lin(c, obj);
    }
    if (is_linterm(obj)) {
        auto* t = reinterpret_cast<LinTermObject*>(obj);
        return lin(c * t->coef, t->var);
    }
    if (is_quadterm(obj)) {
        auto* t = reinterpret_cast<QuadTermObject*>(obj);
        double k = c * t->coef;
        if (k == 0.0) return PyFloat_FromDouble(0.0);
        return quad(k, t->var1, t->var2);
    }
    if (is_expression(obj)) return expr_copy_scaled(obj, c);
    return model_error("Invalid object being copied");
}

PyObject* nl_negate(PyObject* obj) {
    if (is_ndarray(obj)) return PyNumber_Negative(obj);
    switch (operand_kind(obj)) {
        case K_NUMBER: return PyFloat_FromDouble(-number_value(obj));
        case K_VAR: return lin(-1.0, obj);
        case K_LINTERM:
        case K_QUADTERM:
        case K_EXPRESSION: return nl_scaled_copy(obj, -1.0);
        case K_NONLINEAR: return nl_make(false, NL_UMINUS, obj);
        default: return nullptr;
    }
}

PyObject* nl_times(double c, PyObject* o) {
    if (c == 1.0) return new_ref(o);
    if (is_nonlinear(o)) {
        PyRef f(PyFloat_FromDouble(c));
        return f ? nl_multiply(f.get(), o) : nullptr;
    }
    if (is_number(o)) return PyFloat_FromDouble(c * number_value(o));
    return nl_scaled_copy(o, c);
}

// ---------------------------------------------------------------- accumulate

PyObject* nl_accumulate(PyObject* target, PyObject* b, double c) {
    if (target == Py_None) {
        Py_DECREF(target);
        target = nullptr;
    }
    PyRef t(target);
    PyObject* tp = t.get();
    if (tp && is_expression(tp) && (is_var(b) || is_linterm(b))) {
        double coef = is_var(b) ? 1.0 : reinterpret_cast<LinTermObject*>(b)->coef;
        PyObject* v = is_var(b) ? b : reinterpret_cast<LinTermObject*>(b)->var;
        if (Py_REFCNT(tp) == 1) {
            if (c != 0.0 && expr_add_linear(tp, v, c * coef) < 0) return nullptr;
            return t.release();
        }
        if (c != 0.0) return expression_sum(tp, b, c);
    }
    if (c == 0.0) return tp ? t.release() : PyFloat_FromDouble(0.0);
    if (!tp) return nl_scaled_copy(b, c);
    int kt = operand_kind(tp);
    if (kt < 0) return nullptr;
    int kb = operand_kind(b);
    if (kb < 0) return nullptr;
    if (kt == K_NUMBER && number_value(tp) == 0.0) return c == 1.0 ? new_ref(b) : nl_scaled_copy(b, c);
    if (kb == K_NUMBER && number_value(b) == 0.0) return t.release();
    if (kt != K_NONLINEAR && kb != K_NONLINEAR) return poly_accumulate(t.release(), b, c);

    bool tsum = is_sum_node(tp), bsum = is_sum_node(b);
    PyRef bcopy;
    if (tsum) {  // the target grows in place: never put it inside itself
        bcopy.reset(detached(b, tp));
        if (!bcopy) return nullptr;
        b = bcopy.get();
    }
    if (tsum && bsum) {
        PyObject* list = mutable_args(tp);
        if (!list) return nullptr;
        PyRef pt(take_poly(list));
        if (PyErr_Occurred()) return nullptr;
        PyObject* bargs = as_nl(b)->args;
        Py_ssize_t ib = poly_index(bargs);
        if (append_scaled(list, bargs, ib, c) < 0) return nullptr;
        PyObject* pb = ib >= 0 ? PySequence_Fast_GET_ITEM(bargs, ib) : nullptr;
        if (pt && pb) {
            PyRef s(nl_accumulate(pt.release(), pb, c));
            if (!s || append_poly(list, s.get()) < 0) return nullptr;
        } else if (pt) {
            if (append_poly(list, pt.get()) < 0) return nullptr;
        } else if (pb) {
            PyRef s(nl_scaled_copy(pb, c));
            if (!s || append_poly(list, s.get()) < 0) return nullptr;
        }
        return t.release();
    }
    if (tsum) {
        PyObject* list = mutable_args(tp);
        if (!list) return nullptr;
        PyRef p(take_poly(list));
        if (PyErr_Occurred()) return nullptr;
        if (is_nonlinear(b) || !p) {
            PyRef item(nl_times(c, b));
            if (!item || PyList_Append(list, item.get()) < 0) return nullptr;
        } else {
            p.reset(nl_accumulate(p.release(), b, c));
            if (!p) return nullptr;
        }
        if (p && append_poly(list, p.get()) < 0) return nullptr;
        return t.release();
    }
    if (bsum) {
        PyObject* bargs = as_nl(b)->args;
        Py_ssize_t ib = poly_index(bargs);
        PyObject* pb = ib >= 0 ? PySequence_Fast_GET_ITEM(bargs, ib) : nullptr;
        PyRef list(PyList_New(0));
        if (!list) return nullptr;
        if (is_nonlinear(tp)) {
            if (PyList_Append(list.get(), tp) < 0 || append_scaled(list.get(), bargs, ib, c) < 0) return nullptr;
            if (pb) {
                PyRef s(nl_scaled_copy(pb, c));
                if (!s || append_poly(list.get(), s.get()) < 0) return nullptr;
            }
        } else {
            if (append_scaled(list.get(), bargs, ib, c) < 0) return nullptr;
            PyRef p(pb ? nl_accumulate(t.release(), pb, c) : t.release());
            if (!p || append_poly(list.get(), p.get()) < 0) return nullptr;
        }
        return nl_new_node(NL_SUM, list.release());
    }
    PyRef other(c == -1.0 ? nl_negate(b) : nl_times(c, b));
    if (!other) return nullptr;
    return nl_binary(NL_SUM, tp, other.get());
}

// ---------------------------------------------------------------- binary arithmetic

PyObject* nl_add(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return PyNumber_Add(b, a);
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    PyObject* t = nl_scaled_copy(a, 1.0);
    if (!t) return nullptr;
    return nl_accumulate(t, b, 1.0);
}

PyObject* nl_subtract(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) {
        PyRef neg(PyNumber_Negative(b));
        return neg ? PyNumber_Add(neg.get(), a) : nullptr;
    }
    int ka = operand_kind(a);
    if (ka < 0) return nullptr;
    int kb = operand_kind(b);
    if (kb < 0) return nullptr;
    if (ka == K_NUMBER && number_value(a) == 0.0) return nl_negate(b);
    if (kb == K_NUMBER && number_value(b) == 0.0) return nl_scaled_copy(a, 1.0);
    if (is_sum_node(a)) {
        PyObject* t = nl_scaled_copy(a, 1.0);
        return t ? nl_accumulate(t, b, -1.0) : nullptr;
    }
    return nl_binary(NL_MINUS, a, b);
}

PyObject* nl_multiply(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return PyNumber_Multiply(b, a);
    int ka = operand_kind(a);
    if (ka < 0) return nullptr;
    int kb = operand_kind(b);
    if (kb < 0) return nullptr;
    if ((ka == K_NUMBER && number_value(a) == 0.0) || (kb == K_NUMBER && number_value(b) == 0.0))
        return PyFloat_FromDouble(0.0);
    if (ka == K_NUMBER && number_value(a) == 1.0) return nl_scaled_copy(b, 1.0);
    if (kb == K_NUMBER && number_value(b) == 1.0) return nl_scaled_copy(a, 1.0);
    if (ka == K_NUMBER && number_value(a) == -1.0) return nl_make(false, NL_UMINUS, b);
    if (kb == K_NUMBER && number_value(b) == -1.0) return nl_make(false, NL_UMINUS, a);
    return nl_binary(NL_PROD, a, b);
}

PyObject* nl_divide(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) {
        PyRef one(PyFloat_FromDouble(1.0));
        PyRef inv(one ? PyNumber_TrueDivide(one.get(), b) : nullptr);
        return inv ? PyNumber_Multiply(inv.get(), a) : nullptr;
    }
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    double v;
    if (constant_value(a, &v) && v == 0.0) return PyFloat_FromDouble(0.0);
    if (constant_value(b, &v)) {
        if (v == 0.0) return model_error("Division by zero");
        if (v == 1.0) return nl_scaled_copy(a, 1.0);
    }
    return nl_binary(NL_DIV, a, b);
}

PyObject* nl_power(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return model_error("Cannot obtain a power with a vector as an exponent");
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    if (number_is(a, 1.0) || number_is(b, 0.0)) return PyFloat_FromDouble(1.0);
    if (number_is(b, 1.0)) return nl_scaled_copy(a, 1.0);
    return nl_binary(NL_POW, a, b);
}

PyObject* nl_abs(PyObject* a) { return nl_unary(NL_ABS, a); }
PyObject* nl_and(PyObject* a, PyObject* b) {
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    return nl_new_node(NL_AND, PyTuple_Pack(2, a, b));
}
PyObject* nl_or(PyObject* a, PyObject* b) {
    if (operand_kind(a) < 0 || operand_kind(b) < 0) return nullptr;
    return nl_new_node(NL_OR, PyTuple_Pack(2, a, b));
}

// ---------------------------------------------------------------- in-place forms

PyObject* nl_inplace_multiply(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return PyNumber_Multiply(b, a);
    if (a == Py_None || number_is(a, 1.0)) return nl_scaled_copy(b, 1.0);
    if (!is_prod_node(a)) return nl_multiply(a, b);
    if (operand_kind(b) < 0) return nullptr;
    PyRef bref(detached(b, a));
    if (!bref) return nullptr;
    b = bref.get();
    PyObject* list = mutable_args(a);
    if (!list) return nullptr;
    Py_ssize_t n = PyList_GET_SIZE(list);
    PyObject* last = n > 0 ? PyList_GET_ITEM(list, n - 1) : nullptr;
    bool last_num = last && is_number(last);
    if (!is_prod_node(b)) {
        if (last_num && is_number(b)) {
            double k = number_value(last) * number_value(b);
            if (k == 0.0) return PyFloat_FromDouble(0.0);
            if (k == 1.0) {
                if (PySequence_DelItem(list, n - 1) < 0) return nullptr;
            } else {
                PyObject* kf = PyFloat_FromDouble(k);
                if (!kf || PyList_SetItem(list, n - 1, kf) < 0) return nullptr;
            }
        } else if (last_num) {
            PyRef l(new_ref(last));
            if (PyList_SetItem(list, n - 1, new_ref(b)) < 0 || PyList_Append(list, l.get()) < 0) return nullptr;
        } else if (PyList_Append(list, b) < 0) {
            return nullptr;
        }
        return new_ref(a);
    }
    PyRef bl(PySequence_List(as_nl(b)->args));
    if (!bl) return nullptr;
    double k = 1.0;
    if (last_num) {
        k *= number_value(last);
        if (PySequence_DelItem(list, n - 1) < 0) return nullptr;
    }
    Py_ssize_t nb = PyList_GET_SIZE(bl.get());
    bool b_num = nb > 0 && is_number(PyList_GET_ITEM(bl.get(), nb - 1));
    if (b_num) {
        k *= number_value(PyList_GET_ITEM(bl.get(), nb - 1));
        if (PySequence_DelItem(bl.get(), nb - 1) < 0) return nullptr;
    }
    if (k == 0.0) return PyFloat_FromDouble(0.0);
    Py_ssize_t end = PyList_GET_SIZE(list);
    if (PyList_SetSlice(list, end, end, bl.get()) < 0) return nullptr;
    if (k != 1.0) {
        PyRef kf(PyFloat_FromDouble(k));
        if (!kf || PyList_Append(list, kf.get()) < 0) return nullptr;
    }
    return new_ref(a);
}

namespace {

PyObject* nl_inplace_divide(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return nl_divide(a, b);
    double v;
    if (constant_value(b, &v)) {
        if (v == 0.0) return model_error("Division by zero");
        if (v == 1.0) return new_ref(a);
        PyRef inv(PyFloat_FromDouble(1.0 / v));
        return inv ? nl_inplace_multiply(a, inv.get()) : nullptr;
    }
    if (operand_kind(b) < 0) return nullptr;
    if (is_node_op(a, NL_DIV) && PyTuple_Check(as_nl(a)->args) && PyTuple_GET_SIZE(as_nl(a)->args) == 2) {
        PyObject* d = PyTuple_GET_ITEM(as_nl(a)->args, 1);
        PyRef bref(detached(b, a));
        if (bref && is_prod_node(d)) bref.reset(detached(bref.get(), d));
        if (!bref) return nullptr;
        b = bref.get();
        if (is_prod_node(d)) {
            PyObject* dl = mutable_args(d);
            if (!dl) return nullptr;
            Py_ssize_t at = PyList_GET_SIZE(dl) > 0 ? PyList_GET_SIZE(dl) - 1 : 0;
            if (PyList_Insert(dl, at, b) < 0) return nullptr;
        } else {
            PyRef nd(nl_multiply(d, b));
            if (!nd) return nullptr;
            PyRef args(PyTuple_Pack(2, PyTuple_GET_ITEM(as_nl(a)->args, 0), nd.get()));
            if (!args) return nullptr;
            Py_SETREF(as_nl(a)->args, args.release());
        }
        return new_ref(a);
    }
    return nl_divide(a, b);
}

PyObject* nl_inplace_power(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return model_error("Cannot obtain a power with a vector as an exponent");
    if (operand_kind(b) < 0) return nullptr;
    if (number_is(b, 0.0)) return PyFloat_FromDouble(1.0);
    if (number_is(b, 1.0)) return new_ref(a);
    if (is_node_op(a, NL_POW) && PyTuple_Check(as_nl(a)->args) && PyTuple_GET_SIZE(as_nl(a)->args) == 2) {
        PyObject* e = PyTuple_GET_ITEM(as_nl(a)->args, 1);
        PyRef bref(detached(b, a));
        if (bref && is_prod_node(e)) bref.reset(detached(bref.get(), e));
        if (!bref) return nullptr;
        b = bref.get();
        if (is_prod_node(e)) {
            PyObject* el = mutable_args(e);
            if (!el) return nullptr;
            Py_ssize_t at = PyList_GET_SIZE(el) > 0 ? PyList_GET_SIZE(el) - 1 : 0;
            if (PyList_Insert(el, at, b) < 0) return nullptr;
        } else {
            PyRef ne(PyNumber_Multiply(e, b));
            if (!ne) return nullptr;
            PyRef args(PyTuple_Pack(2, PyTuple_GET_ITEM(as_nl(a)->args, 0), ne.get()));
            if (!args) return nullptr;
            Py_SETREF(as_nl(a)->args, args.release());
        }
        return new_ref(a);
    }
    return nl_power(a, b);
}

// ---------------------------------------------------------------- slots

// A failure of + or - that left no exception becomes the interface's general error.
PyObject* slot_add(PyObject* a, PyObject* b) { return check_result(nl_add(a, b)); }
PyObject* slot_subtract(PyObject* a, PyObject* b) { return check_result(nl_subtract(a, b)); }
PyObject* slot_multiply(PyObject* a, PyObject* b) { return nl_multiply(a, b); }
PyObject* slot_divide(PyObject* a, PyObject* b) { return nl_divide(a, b); }
PyObject* slot_power(PyObject* a, PyObject* b, PyObject*) { return nl_power(a, b); }
PyObject* slot_negative(PyObject* a) { return nl_negate(a); }
PyObject* slot_abs(PyObject* a) { return nl_abs(a); }
PyObject* slot_and(PyObject* a, PyObject* b) { return nl_and(a, b); }
PyObject* slot_or(PyObject* a, PyObject* b) { return nl_or(a, b); }

PyObject* slot_iadd(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return PyNumber_Add(b, a);
    return nl_accumulate(new_ref(a), b, 1.0);
}
PyObject* slot_isub(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return nl_subtract(a, b);
    return nl_accumulate(new_ref(a), b, -1.0);
}
PyObject* slot_imul(PyObject* a, PyObject* b) { return nl_inplace_multiply(a, b); }
PyObject* slot_idiv(PyObject* a, PyObject* b) { return nl_inplace_divide(a, b); }
PyObject* slot_ipow(PyObject* a, PyObject* b, PyObject*) { return nl_inplace_power(a, b); }

// Nodes are garbage-collected (a user function may refer back to its own tree) and their
// deallocation goes through the trashcan so that very deep trees do not exhaust the C stack.
void node_dealloc(PyObject* self) {
    PyObject_GC_UnTrack(self);
    Py_TRASHCAN_BEGIN(self, node_dealloc)
    Py_CLEAR(as_nl(self)->args);
    Py_TYPE(self)->tp_free(self);
    Py_TRASHCAN_END
}

int node_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(as_nl(self)->args);
    return 0;
}

int node_clear(PyObject* self) {
    Py_CLEAR(as_nl(self)->args);
    return 0;
}

// Nodes come only from operators and functions: calling the type is refused.
int node_init(PyObject*, PyObject*, PyObject*) {
    PyErr_SetString(PyExc_TypeError, "cannot create 'tarvo.nonlinear' instances");
    return -1;
}

PyObject* node_str(PyObject* self) { return nl_print(self, NL_MAX_DEPTH); }

PyObject* node_richcompare(PyObject* a, PyObject* b, int op) { return constraint_compare(a, b, op); }

// Collects the linear (quad false) or quadratic part of o times f into the expression acc.
int collect(PyObject* o, double f, int depth, PyObject* acc, bool quad) {
    if (!o) return 0;
    if (is_var(o)) return quad ? 0 : expr_add_linear(acc, o, f);
    if (is_linterm(o)) {
        if (quad) return 0;
        auto* t = reinterpret_cast<LinTermObject*>(o);
        return expr_add_linear(acc, t->var, f * t->coef);
    }
    if (is_quadterm(o)) {
        if (!quad) return 0;
        auto* t = reinterpret_cast<QuadTermObject*>(o);
        return expr_add_quadratic(acc, t->var1, t->var2, f * t->coef);
    }
    if (is_expression(o)) {
        ExpressionObject* e = as_expr(o);
        if (!quad && e->linear)
            for (auto& kv : *e->linear)
                if (expr_add_linear(acc, kv.first, f * kv.second) < 0) return -1;
        if (quad && e->quadratic)
            for (auto& row : *e->quadratic)
                for (auto& kv : row.second)
                    if (expr_add_quadratic(acc, row.first, kv.first, f * kv.second) < 0) return -1;
        return 0;
    }
    if (!is_nonlinear(o) || depth - 1 < 1) return 0;
    NonlinearObject* n = as_nl(o);
    PyObject* args = n->args;
    switch (n->op) {
        case NL_SUM:
            if (!is_seq_args(args)) return 0;
            for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(args); ++i)
                if (collect(PySequence_Fast_GET_ITEM(args, i), f, depth - 1, acc, quad) < 0) return -1;
            return 0;
        case NL_MINUS:
            if (!PyTuple_Check(args) || PyTuple_GET_SIZE(args) != 2) return 0;
            if (collect(PyTuple_GET_ITEM(args, 0), f, depth - 1, acc, quad) < 0) return -1;
            return collect(PyTuple_GET_ITEM(args, 1), -f, depth - 1, acc, quad);
        case NL_UMINUS: return collect(args, -f, depth - 1, acc, quad);
        case NL_PROD: {
            if (!is_seq_args(args)) return 0;
            PyObject* other = nullptr;
            double k = 1.0;
            for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(args); ++i) {
                PyObject* el = PySequence_Fast_GET_ITEM(args, i);
                if (is_number(el)) { k *= number_value(el); continue; }
                if (other) return 0;
                other = el;
            }
            return other ? collect(other, f * k, depth - 1, acc, quad) : 0;
        }
        case NL_DIV: {
            if (!PyTuple_Check(args) || PyTuple_GET_SIZE(args) != 2) return 0;
            PyObject* d = PyTuple_GET_ITEM(args, 1);
            if (!is_number(d) || number_value(d) == 0.0) return 0;
            return collect(PyTuple_GET_ITEM(args, 0), f / number_value(d), depth - 1, acc, quad);
        }
        case NL_POW: {
            if (!PyTuple_Check(args) || PyTuple_GET_SIZE(args) != 2) return 0;
            if (!number_is(PyTuple_GET_ITEM(args, 1), 1.0)) return 0;
            return collect(PyTuple_GET_ITEM(args, 0), f, depth - 1, acc, quad);
        }
        default: return 0;
    }
}

PyObject* extract(PyObject* self, bool quad) {
    PyRef acc(expr_new());
    if (!acc) return nullptr;
    if (collect(self, 1.0, NL_MAX_DEPTH, acc.get(), quad) < 0) return check_result(nullptr);
    ExpressionObject* e = as_expr(acc.get());
    return check_result(quad ? quadratic_map_to_lists(e->quadratic) : linear_map_to_lists(e->linear));
}

PyObject* meth_extract_linear(PyObject* self, PyObject*) { return extract(self, false); }
PyObject* meth_extract_quadratic(PyObject* self, PyObject*) { return extract(self, true); }

PyMethodDef node_methods[] = {
    {"extractLinear", meth_extract_linear, METH_NOARGS,
     "extractLinear($self, /)\n--\n\nReturns the variables and coefficients of the linear part of any expression.\n\n"
     "The result is a tuple (variables, coefficients) of two lists."},
    {"extractQuadratic", meth_extract_quadratic, METH_NOARGS,
     "extractQuadratic($self, /)\n--\n\nReturns the variables and coefficients of the quadratic part of any "
     "expression.\n\n"
     "The result is a tuple (first variables, second variables, coefficients) of three lists."},
    MODEL_ARRAY_UFUNC_METHOD,
    {nullptr, nullptr, 0, nullptr},
};

PyNumberMethods node_number = [] {
    PyNumberMethods m{};
    m.nb_add = slot_add;
    m.nb_subtract = slot_subtract;
    m.nb_multiply = slot_multiply;
    m.nb_power = slot_power;
    m.nb_negative = slot_negative;
    m.nb_absolute = slot_abs;
    m.nb_and = slot_and;
    m.nb_or = slot_or;
    m.nb_inplace_add = slot_iadd;
    m.nb_inplace_subtract = slot_isub;
    m.nb_inplace_multiply = slot_imul;
    m.nb_inplace_power = slot_ipow;
    m.nb_inplace_and = slot_and;
    m.nb_inplace_or = slot_or;
    m.nb_true_divide = slot_divide;
    m.nb_inplace_true_divide = slot_idiv;
    return m;
}();

}  // namespace

PyTypeObject NonlinearType = [] {
    PyTypeObject t = {PyVarObject_HEAD_INIT(nullptr, 0)};
    t.tp_name = "tarvo.nonlinear";
    t.tp_basicsize = sizeof(NonlinearObject);
    t.tp_dealloc = node_dealloc;
    t.tp_repr = node_str;
    t.tp_str = node_str;
    t.tp_as_number = &node_number;
    t.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC;
    t.tp_traverse = node_traverse;
    t.tp_clear = node_clear;
    t.tp_doc =
        "Class for linear and quadratic nonlin. These can be used and combined with variables, "
        "expressions and numbers to build nonlinear expression trees.";
    t.tp_richcompare = node_richcompare;
    t.tp_methods = node_methods;
    t.tp_init = node_init;
    return t;
}();

}  // namespace tarvo
