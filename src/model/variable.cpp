// The decision variable: one packed 64-bit word per object, with unusual bounds, thresholds
// and names kept in the process-wide side tables keyed by serial.
#include "model/algebra.h"

#include <cstdio>
#include <cstring>

namespace tarvo {

namespace {

constexpr int LB_SHIFT = 52;
constexpr uint64_t LB_STORED = uint64_t(1) << 54;
constexpr int UB_SHIFT = 55;
constexpr uint64_t UB_STORED = uint64_t(1) << 57;
constexpr uint64_t THRESHOLD_STORED = uint64_t(1) << 58;
constexpr uint64_t NAME_STORED = uint64_t(1) << 59;
constexpr int TYPE_SHIFT = 60;
constexpr uint64_t CODE_MASK = 3;

inline VarObject* as_var(PyObject* o) { return reinterpret_cast<VarObject*>(o); }
inline uint64_t serial_of(uint64_t word) { return word & VAR_SERIAL_MASK; }

// Releases the side-table entries of a word (destruction and re-initialisation).
void var_release_entries(uint64_t word) {
    if (!side_tables) return;
    uint64_t serial = serial_of(word);
    if (word & LB_STORED) side_tables->var_lb.erase(serial);
    if (word & UB_STORED) side_tables->var_ub.erase(serial);
    if (word & THRESHOLD_STORED) side_tables->var_threshold.erase(serial);
    if (word & NAME_STORED) name_erase(side_tables->var_name, serial);
}

}  // namespace

// ---------------------------------------------------------------- word accessors

double var_get_lb(uint64_t word) {
    switch ((word >> LB_SHIFT) & CODE_MASK) {
        case 0: return 0.0;
        case 1: return -INF;
        case 2: return 1.0;
        default: return table_lookup(side_tables->var_lb, serial_of(word));
    }
}

double var_get_ub(uint64_t word) {
    switch ((word >> UB_SHIFT) & CODE_MASK) {
        case 0: return INF;
        case 1: return 0.0;
        case 2: return 1.0;
        default: return table_lookup(side_tables->var_ub, serial_of(word));
    }
}

double var_get_threshold(uint64_t word) {
    if (!(word & THRESHOLD_STORED)) return -INF;
    return table_lookup(side_tables->var_threshold, serial_of(word));
}

void var_set_lb(uint64_t* word, double v) {
    uint64_t code = v == 0.0 ? 0 : v <= -INF ? 1 : v == 1.0 ? 2 : 3;
    store_bound(word, serial_of(*word), LB_SHIFT, LB_STORED, side_tables->var_lb, code, v);
}

void var_set_ub(uint64_t* word, double v) {
    uint64_t code = v >= INF ? 0 : v == 0.0 ? 1 : v == 1.0 ? 2 : 3;
    store_bound(word, serial_of(*word), UB_SHIFT, UB_STORED, side_tables->var_ub, code, v);
}

void var_set_threshold(uint64_t* word, double v) {
    uint64_t serial = serial_of(*word);
    if (*word & THRESHOLD_STORED) side_tables->var_threshold.erase(serial);
    if (v == -INF) {
        *word &= ~THRESHOLD_STORED;
        return;
    }
    *word |= THRESHOLD_STORED;
    table_store(side_tables->var_threshold, serial, v);
}

// The empty name (str or bytes) is no name: the variable takes the default name "C<serial>",
// which it then reports and which its problems hand to the library, as vars(name="") does. It
// costs no name-table entry, so models built with name="" stay cheap.
void var_set_name(uint64_t* word, PyObject* name) {
    if ((PyUnicode_CheckExact(name) && PyUnicode_GET_LENGTH(name) == 0) ||
        (PyBytes_CheckExact(name) && PyBytes_GET_SIZE(name) == 0)) {
        if (*word & NAME_STORED) {
            *word &= ~NAME_STORED;
            name_erase(side_tables->var_name, serial_of(*word));
        }
        return;
    }
    name_store(side_tables->var_name, serial_of(*word), name);
    *word |= NAME_STORED;
}

PyObject* var_default_name(uint64_t serial) {
    return PyUnicode_FromFormat("C%d", static_cast<int>(serial));
}

bool var_default_name_text(uint64_t word, char* buf) {
    if (word & NAME_STORED) return false;
    numbered_name('C', static_cast<int>(serial_of(word)), buf);
    return true;
}

PyObject* var_get_name(uint64_t word) {
    PyObject* result = nullptr;
    if (!(word & NAME_STORED)) {
        result = var_default_name(serial_of(word));
    } else {
        auto it = side_tables->var_name.find(serial_of(word));
        if (it != side_tables->var_name.end()) result = new_ref(it->second);
    }
    if (!result && !PyErr_Occurred()) PyErr_SetString(InterfaceError, "Internal error in variable name");
    return result;
}

bool var_name_text(PyObject* v, std::string* out) {
    PyRef name(var_get_name(as_var(v)->word));
    if (!name) return false;
    if (PyBytes_Check(name.get())) {
        out->assign(PyBytes_AS_STRING(name.get()), PyBytes_GET_SIZE(name.get()));
        return true;
    }
    if (!PyUnicode_Check(name.get())) {
        PyErr_SetString(ModelError, "Invalid variable name (must be a string)");
        return false;
    }
    Py_ssize_t n = 0;
    const char* s = PyUnicode_AsUTF8AndSize(name.get(), &n);
    if (!s) return false;
    out->assign(s, n);
    return true;
}

PyObject* new_var() {
    PyObject* v = VarType.tp_alloc(&VarType, 0);
    if (!v) return nullptr;
    as_var(v)->word = next_var_serial() & VAR_SERIAL_MASK;
    return v;
}

PyObject* new_var_list(Py_ssize_t n, const double* lb, const double* ub, const char* types) {
    PyRef list(PyList_New(n));
    if (!list || n == 0) return list.release();
    uint64_t serial = next_var_serials(static_cast<uint64_t>(n));
    const size_t size = static_cast<size_t>(VarType.tp_basicsize);
    for (Py_ssize_t i = 0; i < n; ++i, ++serial) {
        // The generic allocation without its zero fill and type tests: the one field is set here.
        PyObject* v = static_cast<PyObject*>(PyObject_Malloc(size));
        if (!v) {
            // The list's remaining items are still null, which list deallocation skips.
            return PyErr_NoMemory();
        }
        PyObject_Init(v, &VarType);
        as_var(v)->word = serial & VAR_SERIAL_MASK;
        PyList_SET_ITEM(list.get(), i, v);
        uint64_t* word = &as_var(v)->word;
        if (lb && lb[i] != 0.0) var_set_lb(word, lb[i]);
        if (ub && ub[i] < INF) var_set_ub(word, ub[i]);
        if (types) {
            uint64_t code;
            switch (types[i]) {
                case 'B': code = 1; break;
                case 'I': code = 2; break;
                case 'S': code = 3; break;
                case 'R': code = 4; break;
                case 'P': code = 5; break;
                default: code = 0;
            }
            *word |= code << TYPE_SHIFT;
        }
    }
    return list.release();
}

// ---------------------------------------------------------------- arithmetic

namespace {

// A new expression with constant c and linear terms (v1, c1) and, when v2 is given, (v2, c2).
PyObject* linear_expression(double c, PyObject* v1, double c1, PyObject* v2 = nullptr, double c2 = 0.0) {
    PyRef e(expr_new());
    if (!e) return nullptr;
    as_expr(e.get())->constant = c;
    if (expr_add_linear(e.get(), v1, c1) < 0 || (v2 && expr_add_linear(e.get(), v2, c2) < 0)) {
        PyErr_SetString(ModelError, "Could not allocate an object of type Variable");
        return nullptr;
    }
    return e.release();
}

}  // namespace

PyObject* var_add(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_ADD, a, b);
    if (is_linterm(a)) return linterm_sum(a, b, 1.0);
    if (is_quadterm(a)) return quadterm_sum(a, b, 1.0);
    if (is_expression(a)) return expression_sum(a, b, 1.0);
    if (is_nonlinear(a)) return nl_add(a, b);
    if (is_linterm(b)) return linterm_sum(b, a, 1.0);
    if (is_quadterm(b)) return quadterm_sum(b, a, 1.0);
    if (is_expression(b)) return expression_sum(b, a, 1.0);
    if (is_nonlinear(b)) return nl_add(b, a);
    if (is_number(a) && is_var(b)) return linear_expression(number_value(a), b, 1.0);
    if (is_number(b) && is_var(a)) {
        double c = number_value(b);
        if (c == 0.0) return new_ref(a);
        return linear_expression(c, a, 1.0);
    }
    if (is_var(a) && is_var(b)) {
        if (var_serial(a) == var_serial(b)) return lin(2.0, a);
        return linear_expression(0.0, a, 1.0, b, 1.0);
    }
    return model_error("Invalid operands in addition");
}

PyObject* var_subtract(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_SUB, a, b);
    for (PyObject* o : {a, b}) {
        if (is_linterm(o)) return linterm_sum(a, b, -1.0);
        if (is_quadterm(o)) return quadterm_sum(a, b, -1.0);
        if (is_expression(o)) return expression_sum(a, b, -1.0);
        if (is_nonlinear(o)) return nl_subtract(a, b);
    }
    if (is_number(a) && is_var(b)) return linear_expression(number_value(a), b, -1.0);
    if (is_number(b) && is_var(a)) {
        double c = number_value(b);
        if (c == 0.0) return new_ref(a);
        return linear_expression(-c, a, 1.0);
    }
    if (is_var(a) && is_var(b)) {
        if (var_serial(a) == var_serial(b)) return float_result(0.0);
        return linear_expression(0.0, a, 1.0, b, -1.0);
    }
    return model_error("Invalid object in subtraction");
}

PyObject* var_multiply(PyObject* a, PyObject* b) {
    if (is_number(a) || is_number(b)) {
        bool left = is_number(a);
        double c = number_value(left ? a : b);
        PyObject* o = left ? b : a;
        if (c == 0.0) return float_result(0.0);
        if (c == 1.0) return new_ref(o);
        if (is_var(o)) return lin(c, o);
    }
    if (is_ndarray(b)) return array_right(ARRAY_MUL, a, b);
    if (is_linterm(a)) return linterm_product(a, b);
    if (is_quadterm(a)) return quadterm_product(a, b);
    if (is_expression(a)) return expression_product(a, b);
    if (is_nonlinear(a)) return nl_multiply(a, b);
    if (is_linterm(b)) return linterm_product(b, a);
    if (is_quadterm(b)) return quadterm_product(b, a);
    if (is_expression(b)) return expression_product(b, a);
    if (is_nonlinear(b)) return nl_multiply(b, a);
    if (is_var(a) && is_var(b)) return quad(1.0, a, b);
    return model_error("Invalid operands in multiplication");
}

PyObject* var_divide(PyObject* a, PyObject* b) {
    if (is_ndarray(b)) return array_right(ARRAY_DIV, a, b);
    if (is_linterm(a)) return linterm_divide(a, b);
    if (is_quadterm(a)) return quadterm_divide(a, b);
    if (is_expression(a)) return expression_divide(a, b);
    if (is_nonlinear(a)) return nl_divide(a, b);
    if (is_number(a)) {
        if (number_value(a) == 0.0) return float_result(0.0);
        return nl_binary(NL_DIV, a, b);
    }
    if (!is_var(a)) return model_error("Invalid operands in division");
    double c;
    if (constant_value(b, &c)) {
        if (c == 0.0) return model_error("Division of variable by zero");
        if (c == 1.0) return new_ref(a);
        return lin(1.0 / c, a);
    }
    if (is_var(b)) {
        if (var_serial(a) == var_serial(b)) return float_result(1.0);
        return nl_binary(NL_DIV, a, b);
    }
    if (is_compound(b)) return nl_binary(NL_DIV, a, b);
    return model_error("Invalid operands in division");
}

PyObject* var_power(PyObject* a, PyObject* b, PyObject*) {
    if (is_ndarray(b)) return model_error("Cannot obtain a power with a vector as an exponent");
    if (is_var(a) && is_number(b)) {
        double k = number_value(b);
        if (k == 1.0) return new_ref(a);
        if (k == 0.0) return float_result(1.0);
        if (k == 2.0) return quad(1.0, a, a);
        return nl_binary(NL_POW, a, b);
    }
    if (is_linterm(a)) return linterm_power(a, b);
    if (is_quadterm(a)) return quadterm_power(a, b);
    if (is_expression(a)) return expression_power(a, b);
    if (is_nonlinear(a)) return nl_power(a, b);
    if (is_number(a)) {
        if (number_value(a) == 1.0) return float_result(1.0);
        return nl_binary(NL_POW, a, b);
    }
    if (is_var(a) || is_var(b)) return nl_binary(NL_POW, a, b);
    return model_error("Invalid operands in exponentiation");
}

namespace {

PyObject* var_negative(PyObject* v) { return lin(-1.0, v); }

// ---------------------------------------------------------------- Python type

// Steps of construction after the arguments are read (shared by both ways of calling var).
int var_setup(PyObject* self, PyObject* name, double lb, double ub, double threshold, long vartype) {
    VarObject* v = as_var(self);
    // A second __init__ call starts from a clean record with a new serial.
    var_release_entries(v->word);
    v->word = next_var_serial() & VAR_SERIAL_MASK;
    if (lb > ub + 1e-6) {
        PyErr_SetString(ModelError, "Variable has empty feasible set: lower bound > upper bound");
        return -1;
    }
    if (vartype == 1) {
        if (lb < 0.0) lb = 0.0;
        if (ub > 1.0) ub = 1.0;
    }
    if (lb != 0.0) var_set_lb(&v->word, lb);
    if (ub != INF) var_set_ub(&v->word, ub);
    if (threshold != -INF) var_set_threshold(&v->word, threshold);
    if (vartype != 0)
        v->word = (v->word & ~(uint64_t(7) << TYPE_SHIFT)) | ((static_cast<uint64_t>(vartype) & 7) << TYPE_SHIFT);
    if (name) {
        if (!PyUnicode_Check(name) && !PyBytes_Check(name)) {
            PyErr_SetString(ModelError, "Invalid variable name (must be a string)");
            return -1;
        }
        var_set_name(&v->word, name);
    }
    return 0;
}

const char* const var_kwlist[] = {"name", "lb", "ub", "threshold", "vartype", nullptr};

static int var_init_body(PyObject* self, PyObject* args, PyObject* kwds) {
    PyObject* name = nullptr;
    double lb = 0.0, ub = INF, threshold = -INF;
    long vartype = 0;
    if (!PyArg_ParseTupleAndKeywords(args, kwds, "|Odddl", const_cast<char**>(var_kwlist), &name, &lb, &ub,
                                     &threshold, &vartype))
        return -1;
    return var_setup(self, name, lb, ub, threshold, vartype);
}

int var_init(PyObject* self, PyObject* args, PyObject* kwds) {
    return alloc_guard_status(nullptr, [&] { return var_init_body(self, args, kwds); });
}

// The generic construction: allocation, then the initialiser with a tuple and a dict.
PyObject* var_call_generic(PyTypeObject* type, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    PyRef tuple(PyTuple_New(nargs));
    if (!tuple) return nullptr;
    for (Py_ssize_t i = 0; i < nargs; ++i) PyTuple_SET_ITEM(tuple.get(), i, new_ref(args[i]));
    PyRef kwargs;
    if (kwnames && PyTuple_GET_SIZE(kwnames) > 0) {
        kwargs.reset(PyDict_New());
        if (!kwargs) return nullptr;
        for (Py_ssize_t j = 0; j < PyTuple_GET_SIZE(kwnames); ++j)
            if (PyDict_SetItem(kwargs.get(), PyTuple_GET_ITEM(kwnames, j), args[nargs + j]) < 0) return nullptr;
    }
    PyRef obj(type->tp_new(type, tuple.get(), kwargs.get()));
    if (!obj || !PyObject_TypeCheck(obj.get(), type)) return obj.release();
    if (Py_TYPE(obj.get())->tp_init(obj.get(), tuple.get(), kwargs.get()) < 0) return nullptr;
    return obj.release();
}

bool read_double(PyObject* o, double* out) {
    if (PyFloat_CheckExact(o)) {
        *out = PyFloat_AS_DOUBLE(o);
        return true;
    }
    if (!PyLong_CheckExact(o)) return false;
    *out = PyLong_AsDouble(o);
    if (*out == -1.0 && PyErr_Occurred()) {
        PyErr_Clear();  // the generic path reports it
        return false;
    }
    return true;
}

// Calling tarvo.var(...) itself: plain floats, ints and names are read straight from the
// argument vector, without the tuple and keyword dict of the generic call (which cost more than
// the variable). Anything unusual (other argument types, unknown or repeated keywords,
// subclasses) takes the generic path, so that behaviour and messages are the same.
PyObject* var_vectorcall(PyObject* type, PyObject* const* args, size_t nargsf, PyObject* kwnames) {
    Py_ssize_t nargs = PyVectorcall_NARGS(nargsf);
    PyTypeObject* t = reinterpret_cast<PyTypeObject*>(type);
    PyObject* given[5] = {nullptr, nullptr, nullptr, nullptr, nullptr};
    bool fast = t == &VarType && nargs <= 5;
    for (Py_ssize_t i = 0; fast && i < nargs; ++i) given[i] = args[i];
    Py_ssize_t nkw = kwnames ? PyTuple_GET_SIZE(kwnames) : 0;
    for (Py_ssize_t j = 0; fast && j < nkw; ++j) {
        PyObject* key = PyTuple_GET_ITEM(kwnames, j);
        int slot = -1;
        for (int k = 0; k < 5; ++k)
            if (PyUnicode_CompareWithASCIIString(key, var_kwlist[k]) == 0) slot = k;
        if (slot < 0 || given[slot]) fast = false;
        else given[slot] = args[nargs + j];
    }
    double lb = 0.0, ub = INF, threshold = -INF;
    long vartype = 0;
    if (fast && given[1]) fast = read_double(given[1], &lb);
    if (fast && given[2]) fast = read_double(given[2], &ub);
    if (fast && given[3]) fast = read_double(given[3], &threshold);
    if (fast && given[4]) {
        fast = PyLong_CheckExact(given[4]);
        if (fast) {
            vartype = PyLong_AsLong(given[4]);
            if (vartype == -1 && PyErr_Occurred()) {
                PyErr_Clear();
                fast = false;
            }
        }
    }
    if (!fast) return var_call_generic(t, args, nargs, kwnames);
    PyRef obj(t->tp_alloc(t, 0));
    if (!obj) return nullptr;
    if (alloc_guard_status(nullptr, [&] { return var_setup(obj.get(), given[0], lb, ub, threshold, vartype); }) < 0)
        return nullptr;
    return obj.release();
}

void var_dealloc(PyObject* self) {
    var_release_entries(as_var(self)->word);
    Py_TYPE(self)->tp_free(self);
}

PyObject* var_str(PyObject* self) {
    PyRef name(var_get_name(as_var(self)->word));
    if (!name) return nullptr;
    if (PyUnicode_Check(name.get())) return name.release();
    if (PyBytes_Check(name.get()))
        return PyUnicode_DecodeUTF8(PyBytes_AS_STRING(name.get()), PyBytes_GET_SIZE(name.get()), "replace");
    // Names are set only as str or bytes; anything else is refused rather than converted.
    PyErr_SetString(ModelError, "Invalid variable name (must be a string)");
    return nullptr;
}

Py_hash_t var_hash(PyObject* self) { return static_cast<Py_hash_t>(as_var(self)->word & 0xffffffffu); }

bool is_array_protocol_name(const char* s) {
    static const char* names[] = {"__array_interface__", "__array_priority__", "__array__", "__array_ufunc__",
                                  "__array_struct__", "__array_prepare__", "__array_wrap__"};
    for (const char* n : names)
        if (std::strcmp(s, n) == 0) return true;
    return false;
}

PyObject* var_getattro(PyObject* self, PyObject* attr) {
    const char* s = PyUnicode_AsUTF8(attr);
    if (!s) return nullptr;
    uint64_t word = as_var(self)->word;
    if (std::strcmp(s, "__class__") == 0) return new_ref(reinterpret_cast<PyObject*>(Py_TYPE(self)));
    if (is_array_protocol_name(s)) return PyObject_GenericGetAttr(self, attr);
    if (std::strcmp(s, "lb") == 0) return PyFloat_FromDouble(var_get_lb(word));
    if (std::strcmp(s, "ub") == 0) return PyFloat_FromDouble(var_get_ub(word));
    if (std::strcmp(s, "threshold") == 0) return PyFloat_FromDouble(var_get_threshold(word));
    if (std::strcmp(s, "vartype") == 0) return PyLong_FromLong(static_cast<long>((word >> TYPE_SHIFT) & 7));
    if (std::strcmp(s, "name") == 0) return var_get_name(word);
    if (std::strcmp(s, "__dict__") == 0) {
        PyRef d(PyDict_New());
        if (!d) return nullptr;
        for (const char* key : {"lb", "ub", "threshold", "vartype", "name"})
            if (PyDict_SetItemString(d.get(), key, Py_None) < 0) return nullptr;
        return d.release();
    }
    return PyObject_GenericGetAttr(self, attr);
}

static int var_setattro_body(PyObject* self, PyObject* attr, PyObject* value) {
    const char* s = PyUnicode_AsUTF8(attr);
    if (!s) return -1;
    uint64_t* word = &as_var(self)->word;
    bool known = std::strcmp(s, "lb") == 0 || std::strcmp(s, "ub") == 0 || std::strcmp(s, "threshold") == 0 ||
                 std::strcmp(s, "vartype") == 0 || std::strcmp(s, "name") == 0;
    if (!known) {
        PyErr_SetString(InterfaceError, "Incorrect member name of type tarvo.var");
        return -1;
    }
    if (!value) {
        PyErr_Format(PyExc_AttributeError, "cannot delete attribute '%s' of tarvo.var", s);
        return -1;
    }
    if (s[0] == 'n') {
        var_set_name(word, value);  // unchecked, as all attributes; printing refuses a non-string
        return 0;
    }
    if (s[0] == 'v') {
        long t = PyLong_AsLong(value);
        if (t == -1 && PyErr_Occurred()) return -1;
        *word = (*word & ~(uint64_t(7) << TYPE_SHIFT)) | ((static_cast<uint64_t>(t) & 7) << TYPE_SHIFT);
        return 0;
    }
    double x = PyFloat_AsDouble(value);
    if (x == -1.0 && PyErr_Occurred()) return -1;
    if (s[0] == 'l') var_set_lb(word, x);
    else if (s[0] == 'u') var_set_ub(word, x);
    else var_set_threshold(word, x);
    return 0;
}

int var_setattro(PyObject* self, PyObject* attr, PyObject* value) {
    return alloc_guard_status(nullptr, [&] { return var_setattro_body(self, attr, value); });
}

PyObject* var_extract_linear(PyObject* self, PyObject*) {
    PyRef vars(Py_BuildValue("[O]", self));
    PyRef coefs(Py_BuildValue("[d]", 1.0));
    if (!vars || !coefs) return check_result(nullptr);
    return check_result(extract_result(vars.get(), coefs.get(), nullptr));
}

PyObject* var_extract_quadratic(PyObject* self, PyObject*) {
    return check_result(Py_BuildValue("([],[],[])"));
}

PyMethodDef var_methods[] = {
    {"extractLinear", var_extract_linear, METH_NOARGS,
     "extractLinear($self, /)\n--\n\nReturns the variables and coefficients of the linear part of the variable: "
     "([self], [1.0])."},
    {"extractQuadratic", var_extract_quadratic, METH_NOARGS,
     "extractQuadratic($self, /)\n--\n\nReturns the variables and coefficients of the quadratic part of the "
     "variable: three empty lists."},
    MODEL_ARRAY_UFUNC_METHOD,
    {nullptr, nullptr, 0, nullptr}};

PyNumberMethods var_as_number = [] {
    PyNumberMethods n = {};
    n.nb_add = var_add;
    n.nb_subtract = var_subtract;
    n.nb_multiply = var_multiply;
    n.nb_true_divide = var_divide;
    n.nb_power = var_power;
    n.nb_negative = var_negative;
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
}();

}  // namespace

PyTypeObject VarType = [] {
    PyTypeObject t = {PyVarObject_HEAD_INIT(nullptr, 0)};
    t.tp_name = "tarvo.var";
    t.tp_basicsize = sizeof(VarObject);
    t.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE;
    t.tp_doc =
        "var(name=..., lb=0.0, ub=1e+20, threshold=-1e+20, vartype=0)\n--\n\nA decision variable with bounds, a type "
        "(tarvo.continuous, binary, integer, semicontinuous, semiinteger or partiallyinteger) and a threshold for the "
        "semi-continuous types; without a name it is called C<n> (1e+20 is tarvo.infinity). Raises ModelError when lb "
        "exceeds ub (the type is checked when the variable is added to a problem).";
    t.tp_init = var_init;
    t.tp_vectorcall = var_vectorcall;
    t.tp_dealloc = var_dealloc;
    t.tp_str = var_str;
    t.tp_repr = var_str;
    t.tp_hash = var_hash;
    t.tp_getattro = var_getattro;
    t.tp_setattro = var_setattro;
    t.tp_richcompare = constraint_compare;
    t.tp_methods = var_methods;
    t.tp_as_number = &var_as_number;
    return t;
}();

}  // namespace tarvo
