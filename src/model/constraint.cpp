// Constraints lb <= body <= ub: a packed word with the serial and coded bounds, the body, and
// the comparison builder behind <=, >= and == of every modelling type.
#include "model/algebra.h"

#include <structmember.h>

#include <cstdio>
#include <cstring>

namespace tarvo {

namespace {

constexpr int LB_SHIFT = 57;
constexpr uint64_t LB_STORED = uint64_t(1) << 59;
constexpr int UB_SHIFT = 60;
constexpr uint64_t UB_STORED = uint64_t(1) << 62;
constexpr uint64_t NAME_STORED = uint64_t(1) << 63;
constexpr uint64_t CODE_MASK = 3;
constexpr double LB_NOT_GIVEN = -2e20;
constexpr double UB_NOT_GIVEN = 2e20;

inline ConstraintObject* as_con(PyObject* o) { return reinterpret_cast<ConstraintObject*>(o); }
inline uint64_t serial_of(uint64_t word) { return word & CON_SERIAL_MASK; }

// Releases the body and the side-table entries of a constraint.
void con_release(ConstraintObject* c) {
    if (con_body_linked(reinterpret_cast<PyObject*>(c))) {
        // Not expected (a problem restores its bodies before it lets go of a constraint), but a
        // link is never released as a reference.
        PyObject* b = nullptr;
        if (con_body(reinterpret_cast<PyObject*>(c), &b) < 0) PyErr_Clear();
    }
    Py_CLEAR(c->body);
    uint64_t word = c->word;
    c->word = 0;
    if (!side_tables) return;
    uint64_t serial = serial_of(word);
    if (word & LB_STORED) side_tables->con_lb.erase(serial);
    if (word & UB_STORED) side_tables->con_ub.erase(serial);
    if (word & NAME_STORED) name_erase(side_tables->con_name, serial);
}

}  // namespace

// ---------------------------------------------------------------- word accessors

double con_get_lb(uint64_t word) {
    switch ((word >> LB_SHIFT) & CODE_MASK) {
        case 0: return -INF;
        case 1: return 0.0;
        case 2: return 1.0;
        default: return table_lookup(side_tables->con_lb, serial_of(word));
    }
}

double con_get_ub(uint64_t word) {
    switch ((word >> UB_SHIFT) & CODE_MASK) {
        case 0: return INF;
        case 1: return 0.0;
        case 2: return 1.0;
        default: return table_lookup(side_tables->con_ub, serial_of(word));
    }
}

void con_set_lb(uint64_t* word, double v) {
    uint64_t code = v <= -INF ? 0 : v == 0.0 ? 1 : v == 1.0 ? 2 : 3;
    store_bound(word, serial_of(*word), LB_SHIFT, LB_STORED, side_tables->con_lb, code, v);
}

void con_set_ub(uint64_t* word, double v) {
    uint64_t code = v >= INF ? 0 : v == 0.0 ? 1 : v == 1.0 ? 2 : 3;
    store_bound(word, serial_of(*word), UB_SHIFT, UB_STORED, side_tables->con_ub, code, v);
}

// The empty name (str or bytes) is no name: the constraint takes the default name "R<serial>",
// which it then reports and which its problems hand to the library. It costs no name-table
// entry, so models built with name="" stay cheap.
void con_set_name(uint64_t* word, PyObject* name) {
    if (is_empty_name(name)) {
        if (*word & NAME_STORED) {
            *word &= ~NAME_STORED;
            name_erase(side_tables->con_name, serial_of(*word));
        }
        return;
    }
    name_store(side_tables->con_name, serial_of(*word), name);
    *word |= NAME_STORED;
}

bool con_default_name_text(uint64_t word, char* buf) {
    if (word & NAME_STORED) return false;
    numbered_name('R', static_cast<int>(serial_of(word)), buf);
    return true;
}

PyObject* con_get_name(uint64_t word) {
    if (!(word & NAME_STORED)) return PyUnicode_FromFormat("R%d", static_cast<int>(serial_of(word)));
    auto it = side_tables->con_name.find(serial_of(word));
    if (it == side_tables->con_name.end()) {
        PyErr_SetString(InterfaceError, "Internal error in constraint name");
        return nullptr;
    }
    return new_ref(it->second);
}

PyObject* con_new() {
    PyObject* c = ConstraintType.tp_alloc(&ConstraintType, 0);
    if (!c) return nullptr;
    as_con(c)->word = next_con_serial() & CON_SERIAL_MASK;  // codes 0: bounds -1e20 and 1e20
    return c;
}

PyObject* new_con_list(Py_ssize_t n, const char* qrtype, const double* rhs, const double* rng) {
    PyRef list(PyList_New(n));
    if (!list || n == 0) return list.release();
    uint64_t serial = next_con_serials(static_cast<uint64_t>(n));
    const size_t size = static_cast<size_t>(ConstraintType.tp_basicsize);
    for (Py_ssize_t i = 0; i < n; ++i, ++serial) {
        // The generic allocation without its zero fill and type tests: both fields are set here.
        PyObject* c = static_cast<PyObject*>(PyObject_Malloc(size));
        if (!c) return PyErr_NoMemory();  // the list's remaining null items are skipped when it goes
        PyObject_Init(c, &ConstraintType);
        ConstraintObject* con = as_con(c);
        con->word = serial & CON_SERIAL_MASK;  // codes 0: bounds -1e20 and 1e20
        con->body = nullptr;
        PyList_SET_ITEM(list.get(), i, c);
        if (!qrtype || !rhs) continue;
        double r = rhs[i];
        switch (qrtype[i]) {
            case 'E': con_set_lb(&con->word, r); con_set_ub(&con->word, r); break;
            case 'G': con_set_lb(&con->word, r); break;
            case 'L': con_set_ub(&con->word, r); break;
            case 'R': con_set_lb(&con->word, r - (rng ? rng[i] : 0.0)); con_set_ub(&con->word, r); break;
            default: break;
        }
    }
    return list.release();
}

// ---------------------------------------------------------------- comparison builder

namespace {

int reflected(int op) {
    switch (op) {
        case Py_LE: return Py_GE;
        case Py_GE: return Py_LE;
        case Py_LT: return Py_GT;
        case Py_GT: return Py_LT;
        default: return op;
    }
}

// Elementwise comparison of the array b with a (op already reflected): NumPy's ufunc for the
// comparison, which hands the call to the modelling types' __array_ufunc__, so that `x >= A`
// and `A <= x` take the same path and give the same constraint array.
PyObject* array_compare(PyObject* b, PyObject* a, int op) {
    static const char* names[] = {"less", "less_equal", "equal", "not_equal", "greater", "greater_equal"};
    if (op < Py_LT || op > Py_GE) return model_error("Invalid constraint: unrecognized comparison operator");
    PyRef numpy(PyImport_ImportModule("numpy"));
    if (!numpy) return nullptr;
    PyRef ufunc(PyObject_GetAttrString(numpy.get(), names[op]));
    if (!ufunc) return nullptr;
    return PyObject_CallFunctionObjArgs(ufunc.get(), b, a, nullptr);
}

// a - b with the subtraction of the first modelling type found among the operands.
PyObject* difference(PyObject* a, PyObject* b) {
    if (is_expression(a) || is_expression(b)) return expression_sum(a, b, -1.0);
    if (is_var(a) || is_var(b)) return var_subtract(a, b);
    if (is_linterm(a) || is_linterm(b)) return linterm_sum(a, b, -1.0);
    if (is_quadterm(a) || is_quadterm(b)) return quadterm_sum(a, b, -1.0);
    if (is_nonlinear(a) || is_nonlinear(b)) return nl_subtract(a, b);
    if (operand_kind(a) >= 0) operand_kind(b);
    return nullptr;
}

// Moves a numeric part of the body to the right-hand side r. May replace body; may mirror op.
// Returns false with ModelError set for a body that cannot be a constraint body.
bool normalise_body(PyRef& body, double* r, int* op) {
    PyObject* d = body.get();
    *r = 0.0;
    if (is_expression(d)) {
        if (Py_REFCNT(d) > 1) {  // never change an object someone else holds
            body.reset(expr_copy_scaled(d, 1.0));
            if (!body) return false;
            d = body.get();
        }
        *r = -as_expr(d)->constant;
        as_expr(d)->constant = 0.0;
        return true;
    }
    if (is_nonlinear(d)) {
        NonlinearObject* n = as_nl(d);
        PyObject* args = n->args;
        if (n->op == NL_SUM && Py_REFCNT(d) == 1 && args && PyList_Check(args) && PyList_GET_SIZE(args) > 1) {
            Py_ssize_t last = PyList_GET_SIZE(args) - 1;
            PyObject* k = PyList_GET_ITEM(args, last);
            if (is_number(k)) {
                *r = -number_value(k);
                if (PyList_SetSlice(args, last, last + 1, nullptr) < 0) return false;
            }
        } else if (n->op == NL_MINUS && args && PyTuple_Check(args) && PyTuple_GET_SIZE(args) == 2) {
            PyObject* first = PyTuple_GET_ITEM(args, 0);
            PyObject* second = PyTuple_GET_ITEM(args, 1);
            if (is_number(first)) {
                *r = number_value(first);
                *op = reflected(*op);
                body.reset(new_ref(second));
            } else if (is_number(second)) {
                *r = number_value(second);
                body.reset(new_ref(first));
            }
        }
        return true;
    }
    if (is_number(d) || is_var(d) || is_linterm(d) || is_quadterm(d)) return true;
    PyErr_SetString(ModelError, "Invalid constraint body");
    return false;
}

}  // namespace

static PyObject* constraint_compare_body(PyObject* a, PyObject* b, int op) {
    PyRef constant;
    if (is_number(a) && is_number(b)) {
        constant.reset(expr_new());
        if (!constant) return nullptr;
        as_expr(constant.get())->constant = number_value(a);
        a = constant.get();
    }
    if (is_ndarray(b)) {
        if (is_ndarray(a)) {
            PyErr_SetString(InterfaceError, "Ill-defined constraint array");
            return nullptr;
        }
        return array_compare(b, a, reflected(op));
    }
    if (Py_TYPE(a) == &ExpressionType && is_number(b)) return expression_compare_number(a, number_value(b), op);
    PyRef body(difference(a, b));
    if (!body) return nullptr;
    PyRef c(con_new());
    if (!c) return nullptr;
    double r;
    if (!normalise_body(body, &r, &op)) return nullptr;
    return con_bound_body(c.release(), body.release(), r, op);
}

PyObject* con_bound_body(PyObject* c, PyObject* body, double r, int op) {
    PyRef owned(c);
    ConstraintObject* con = as_con(c);
    Py_XSETREF(con->body, body);
    switch (op) {
        case Py_LE: con_set_ub(&con->word, r); break;
        case Py_GE: con_set_lb(&con->word, r); break;
        case Py_EQ:
            con_set_lb(&con->word, r);
            con_set_ub(&con->word, r);
            break;
        case Py_LT:
        case Py_NE:
        case Py_GT:
            PyErr_SetString(ModelError, "Invalid constraint: cannot enforce f(x) != 0, f(x) > 0, or f(x) < 0");
            return nullptr;
        default:
            PyErr_SetString(ModelError, "Invalid constraint: unrecognized comparison operator");
            return nullptr;
    }
    return owned.release();
}

PyObject* constraint_compare(PyObject* a, PyObject* b, int op) {
    return alloc_guard(nullptr, [&] { return constraint_compare_body(a, b, op); });
}

// ---------------------------------------------------------------- Python type

namespace {

const char* const member_error = "Incorrect member name of type tarvo.constraint";

static int constraint_init_body(PyObject* self, PyObject* args, PyObject* kwds) {
    static const char* kwlist[] = {"constraint", "body", "lb", "ub", "sense", "rhs", "name", nullptr};
    ConstraintObject* c = as_con(self);
    con_release(c);  // a repeated __init__ starts from a clean record
    c->word = next_con_serial() & CON_SERIAL_MASK;
    PyObject *source = nullptr, *body = nullptr, *name = nullptr;
    double lb = LB_NOT_GIVEN, ub = UB_NOT_GIVEN, rhs = LB_NOT_GIVEN;
    long sense = 0;
    if (!PyArg_ParseTupleAndKeywords(args, kwds, "|OOddldO", const_cast<char**>(kwlist), &source, &body, &lb, &ub,
                                     &sense, &rhs, &name))
        return -1;
    if (name) con_set_name(&c->word, name);
    if (lb > ub + 1e-6) {
        PyErr_SetString(ModelError, "Constraint defined infeasible: lower bound > upper bound");
        return -1;
    }
    bool lb_given = lb != LB_NOT_GIVEN, ub_given = ub != UB_NOT_GIVEN, rhs_given = rhs != LB_NOT_GIVEN;
    if (lb_given) con_set_lb(&c->word, lb);
    if (ub_given) con_set_ub(&c->word, ub);
    PyRef body_ref;
    if (body) {
        if (is_ndarray(body)) {
            PyArrayObject* arr = reinterpret_cast<PyArrayObject*>(body);
            if (PyArray_SIZE(arr) < 1) {
                PyErr_SetString(ModelError, "Invalid expression passed as body of constraint");
                return -1;
            }
            body_ref.reset(PyArray_GETITEM(arr, PyArray_BYTES(arr)));
            if (!body_ref) return -1;
        } else {
            body_ref = PyRef::borrow(body);
        }
        if (operand_kind_quiet(body_ref.get()) < 0) {
            PyErr_SetString(ModelError, "Invalid expression passed as body of constraint");
            return -1;
        }
    }
    if (source) {
        if (Py_TYPE(source) != &ConstraintType) {
            PyErr_SetString(ModelError,
                            "Attempt to generate an empty constraint failed. Consider using "
                            "tarvo.constraint(body=..., sense=..., rhs=...) instead.");
            return -1;
        }
        ConstraintObject* s = as_con(source);
        PyObject* shared = nullptr;
        if (con_body(source, &shared) < 0) return -1;
        Py_XINCREF(shared);
        Py_XSETREF(c->body, shared);
        con_set_lb(&c->word, con_get_lb(s->word));
        con_set_ub(&c->word, con_get_ub(s->word));
        return 0;
    }
    if (!body_ref || (sense == 0 && !lb_given && !ub_given)) {
        PyErr_SetString(ModelError,
                        "Arguments required for tarvo.constraint(): constraint OR {body, lb and/or ub} OR "
                        "{body,sense,rhs}.");
        return -1;
    }
    if (rhs_given && (lb_given || ub_given)) {
        PyErr_SetString(ModelError, "Cannot create constraint by specifying both rhs AND lb/ub.");
        return -1;
    }
    Py_XSETREF(c->body, body_ref.release());
    if (rhs_given) {
        if (sense == 1 || sense == 3) con_set_ub(&c->word, rhs);
        if (sense == 2 || sense == 3) con_set_lb(&c->word, rhs);
    }
    return 0;
}

int constraint_init(PyObject* self, PyObject* args, PyObject* kwds) {
    return alloc_guard_status(nullptr, [&] { return constraint_init_body(self, args, kwds); });
}

void constraint_dealloc(PyObject* self) {
    con_release(as_con(self));
    Py_TYPE(self)->tp_free(self);
}

PyObject* constraint_str(PyObject* self) {
    PyRef name(con_get_name(as_con(self)->word));
    if (!name) return nullptr;
    if (PyUnicode_Check(name.get())) return name.release();
    if (PyBytes_Check(name.get()))
        return PyUnicode_DecodeUTF8(PyBytes_AS_STRING(name.get()), PyBytes_GET_SIZE(name.get()), "replace");
    return PyObject_Str(name.get());
}

// A copy of a body that shares nothing mutable with it.
static PyObject* copy_body(PyObject* body) {
    if (!body) return nullptr;
    if (is_var(body) || is_number(body)) return new_ref(body);
    if (is_linterm(body)) return lin_scaled(body, 1.0);
    if (is_quadterm(body)) {
        auto* q = reinterpret_cast<QuadTermObject*>(body);
        return quad(q->coef, q->var1, q->var2);
    }
    if (is_expression(body)) return expr_copy_scaled(body, 1.0);
    return nl_scaled_copy(body, 1.0);
}

static PyObject* constraint_copy_body(PyObject* self, PyObject*) {
    ConstraintObject* src = as_con(self);
    PyRef c(con_new());
    if (!c) return nullptr;
    ConstraintObject* dst = as_con(c.get());
    con_set_lb(&dst->word, con_get_lb(src->word));
    con_set_ub(&dst->word, con_get_ub(src->word));
    PyObject* body = nullptr;
    if (con_body(self, &body) < 0) return nullptr;
    if (body) {
        dst->body = copy_body(body);
        if (!dst->body) return nullptr;
    }
    PyRef src_name(con_get_name(src->word));
    if (!src_name) return nullptr;
    PyRef name(PyUnicode_FromFormat("R%d_copy_%S", static_cast<int>(serial_of(src->word)), src_name.get()));
    if (!name) return nullptr;
    con_set_name(&dst->word, name.get());
    return c.release();
}

PyObject* constraint_copy(PyObject* self, PyObject* a1) {
    return alloc_guard(nullptr, [&] { return constraint_copy_body(self, a1); });
}

bool is_dunder(const char* s) {
    size_t n = std::strlen(s);
    return n > 4 && s[0] == '_' && s[1] == '_' && s[n - 1] == '_' && s[n - 2] == '_';
}

PyObject* constraint_getattro(PyObject* self, PyObject* attr) {
    const char* s = PyUnicode_AsUTF8(attr);
    if (!s) return nullptr;
    ConstraintObject* c = as_con(self);
    if (std::strcmp(s, "lb") == 0) return PyFloat_FromDouble(con_get_lb(c->word));
    if (std::strcmp(s, "ub") == 0) return PyFloat_FromDouble(con_get_ub(c->word));
    if (std::strcmp(s, "name") == 0) return con_get_name(c->word);
    if (std::strcmp(s, "body") == 0) {
        PyObject* body = nullptr;
        if (con_body(self, &body) < 0) return nullptr;
        if (!body) {
            PyErr_SetString(InterfaceError, member_error);
            return nullptr;
        }
        return new_ref(body);
    }
    if (std::strcmp(s, "__class__") == 0) return new_ref(reinterpret_cast<PyObject*>(Py_TYPE(self)));
    if (std::strcmp(s, "__dict__") == 0) {
        PyRef d(PyDict_New());
        if (!d) return nullptr;
        for (const char* key : {"lb", "ub", "name", "body", "copy"})
            if (PyDict_SetItemString(d.get(), key, Py_None) < 0) return nullptr;
        return d.release();
    }
    PyObject* r = PyObject_GenericGetAttr(self, attr);
    // Protocol probes (NumPy's __array_*__, copy's __deepcopy__, ...) keep Python's AttributeError.
    if (!r && !is_dunder(s) && PyErr_ExceptionMatches(PyExc_AttributeError)) {
        PyErr_Clear();
        PyErr_SetString(InterfaceError, member_error);
    }
    return r;
}

static int constraint_setattro_body(PyObject* self, PyObject* attr, PyObject* value) {
    const char* s = PyUnicode_AsUTF8(attr);
    if (!s) return -1;
    bool is_lb = std::strcmp(s, "lb") == 0, is_ub = std::strcmp(s, "ub") == 0, is_name = std::strcmp(s, "name") == 0;
    if (!is_lb && !is_ub && !is_name) {
        PyErr_SetString(InterfaceError, member_error);
        return -1;
    }
    if (!value) {
        PyErr_Format(PyExc_AttributeError, "cannot delete attribute '%s' of tarvo.constraint", s);
        return -1;
    }
    uint64_t* word = &as_con(self)->word;
    if (is_name) {
        con_set_name(word, value);
        return 0;
    }
    double x = PyFloat_AsDouble(value);
    if (x == -1.0 && PyErr_Occurred()) return -1;
    if (is_lb) con_set_lb(word, x);
    else con_set_ub(word, x);
    return 0;
}

int constraint_setattro(PyObject* self, PyObject* attr, PyObject* value) {
    return alloc_guard_status(nullptr, [&] { return constraint_setattro_body(self, attr, value); });
}

PyMethodDef constraint_methods[] = {
    {"copy", constraint_copy, METH_NOARGS, "copy($self, /)\n--\n\nReturn a copy of the constraint as a new object (same body, bounds and name), not yet "
     "in any problem."},
    {nullptr, nullptr, 0, nullptr}};

// The body declared for introspection; reads and writes go through the attribute functions
// (a descriptor reading the field itself would miss a body released to its row).
PyObject* body_get(PyObject* self, void*) {
    PyRef name(PyUnicode_FromString("body"));
    return name ? constraint_getattro(self, name.get()) : nullptr;
}

int body_set(PyObject* self, PyObject* value, void*) {
    PyRef name(PyUnicode_FromString("body"));
    return name ? constraint_setattro(self, name.get(), value) : -1;
}

PyGetSetDef constraint_getset[] = {
    {const_cast<char*>("body"), body_get, body_set, const_cast<char*>("Constraint body"), nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr}};

}  // namespace

PyTypeObject ConstraintType = [] {
    PyTypeObject t = {PyVarObject_HEAD_INIT(nullptr, 0)};
    t.tp_name = "tarvo.constraint";
    t.tp_basicsize = sizeof(ConstraintObject);
    t.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE;
    t.tp_doc =
        "constraint(constraint=..., body=..., lb=-2e+20, ub=2e+20, sense=0, rhs=-2e+20, name=...)\n--\n\nA "
        "constraint lb <= body <= ub, from a comparison (constraint=x + y <= 4), from body with lb and/or ub, or from "
        "body with sense (tarvo.leq, geq, eq) and rhs; the default bounds mean not given and a constraint without a "
        "name is called R<n>. Raises ModelError for an incomplete or invalid constraint.";
    t.tp_init = constraint_init;
    t.tp_dealloc = constraint_dealloc;
    t.tp_str = constraint_str;
    t.tp_repr = constraint_str;
    t.tp_getattro = constraint_getattro;
    t.tp_setattro = constraint_setattro;
    t.tp_methods = constraint_methods;
    t.tp_getset = constraint_getset;
    return t;
}();

}  // namespace tarvo
