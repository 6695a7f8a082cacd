// NumPy dtypes npvar, npexpr and npconstraint: object-element dtypes (one object field at
// offset 0) whose scalar types are var, expression and constraint, registered through
// NumPy's legacy user-dtype interface, with reference-copying casts among themselves and the
// object dtype, and ufunc loops that apply the modelling operators element by element.
#include "nonlinear/aggregates.h"

#include <cstring>

namespace tarvo {

int npvar_typenum = -1, npexpr_typenum = -1, npconstraint_typenum = -1;

bool array_holds_objects(PyArrayObject* a) {
    int t = PyArray_TYPE(a);
    return t == NPY_OBJECT || (t >= 0 && (t == npvar_typenum || t == npexpr_typenum || t == npconstraint_typenum));
}

namespace {

// ---------------------------------------------------------------- element functions

inline PyObject* load(const void* p) {
    PyObject* o;
    std::memcpy(&o, p, sizeof o);
    return o;
}
inline void store(void* p, PyObject* o) { std::memcpy(p, &o, sizeof o); }

// Replaces the reference at p with a new reference to o (which may be null).
inline void assign(void* p, PyObject* o) {
    PyObject* old = load(p);
    Py_XINCREF(o);
    store(p, o);
    Py_XDECREF(old);
}

PyObject* elem_getitem(void* data, void*) {
    PyObject* o = load(data);
    if (!o) o = Py_None;
    Py_INCREF(o);
    return o;
}

int elem_setitem(PyObject* item, void* data, void*) {
    assign(data, item);
    return 0;
}

void elem_copyswap(void* dst, void* src, int, void*) {
    if (!src) return;
    assign(dst, load(src));
}

void elem_copyswapn(void* dst, npy_intp dstride, void* src, npy_intp sstride, npy_intp n, int, void*) {
    if (!src) return;
    char* d = static_cast<char*>(dst);
    char* s = static_cast<char*>(src);
    for (npy_intp i = 0; i < n; ++i, d += dstride, s += sstride) assign(d, load(s));
}

npy_bool elem_nonzero(void* data, void*) {
    PyObject* o = load(data);
    return o != nullptr && o != Py_None;
}

void cast_references(void* from, void* to, npy_intp n, void*, void*) {
    char* s = static_cast<char*>(from);
    char* d = static_cast<char*>(to);
    for (npy_intp i = 0; i < n; ++i, s += sizeof(PyObject*), d += sizeof(PyObject*)) assign(d, load(s));
}

struct DtypeDef {
    const char* module_name;
    PyTypeObject* scalar;
    char kind;
    const char* field;
    int* typenum;
};

PyArray_ArrFuncs arrfuncs[3];
PyArray_DescrProto protos[3];

int register_one(int i, const DtypeDef& def) {
    PyArray_ArrFuncs* f = &arrfuncs[i];
    PyArray_InitArrFuncs(f);
    f->getitem = elem_getitem;
    f->setitem = elem_setitem;
    f->copyswap = elem_copyswap;
    f->copyswapn = elem_copyswapn;
    f->nonzero = elem_nonzero;

    PyRef object_descr(reinterpret_cast<PyObject*>(PyArray_DescrFromType(NPY_OBJECT)));
    if (!object_descr) return -1;
    PyRef fields(PyDict_New());
    PyRef field(Py_BuildValue("(Oi)", object_descr.get(), 0));
    if (!fields || !field || PyDict_SetItemString(fields.get(), def.field, field.get()) < 0) return -1;
    PyRef names(Py_BuildValue("(s)", def.field));
    if (!names) return -1;

    PyArray_DescrProto* p = &protos[i];
    std::memset(p, 0, sizeof *p);
    Py_SET_REFCNT(p, 1);
    Py_SET_TYPE(p, &PyArrayDescr_Type);
    p->typeobj = def.scalar;
    p->kind = def.kind;
    p->type = def.kind;
    p->byteorder = '|';
    p->flags = NPY_OBJECT_DTYPE_FLAGS | NPY_NEEDS_PYAPI | NPY_USE_GETITEM | NPY_USE_SETITEM;
    p->type_num = 0;
    p->elsize = sizeof(PyObject*);
    p->alignment = alignof(PyObject*);
    p->fields = fields.release();  // kept for the life of the process, as the dtype is
    p->names = names.release();
    p->f = f;
    p->hash = -1;
    int typenum = PyArray_RegisterDataType(p);
    if (typenum < 0) return -1;
    *def.typenum = typenum;
    return 0;
}

// ---------------------------------------------------------------- ufunc loops

enum LoopOp {
    OP_ADD, OP_SUB, OP_MUL, OP_DIV, OP_POW, OP_AND, OP_OR, OP_LE, OP_EQ, OP_GE, OP_NEG, OP_SQUARE, OP_ABS,
    OP_MATMUL,
};

PyObject* apply_op(int op, PyObject* a, PyObject* b) {
    switch (op) {
        case OP_ADD: return PyNumber_Add(a, b);
        case OP_SUB: return PyNumber_Subtract(a, b);
        case OP_MUL: return PyNumber_Multiply(a, b);
        case OP_DIV: return PyNumber_TrueDivide(a, b);
        case OP_POW: return PyNumber_Power(a, b, Py_None);
        case OP_AND: return PyNumber_And(a, b);
        case OP_OR: return PyNumber_Or(a, b);
        case OP_LE: return PyObject_RichCompare(a, b, Py_LE);
        case OP_EQ: return PyObject_RichCompare(a, b, Py_EQ);
        case OP_GE: return PyObject_RichCompare(a, b, Py_GE);
        case OP_NEG: return PyNumber_Negative(a);
        case OP_SQUARE: return PyNumber_Multiply(a, a);
        case OP_ABS: return PyNumber_Absolute(a);
        case OP_MATMUL: break;
    }
    return nullptr;
}

// Operand loaded from an array element: an object reference or a double.
PyObject* operand_at(const char* p, bool is_double) {
    if (is_double) {
        double v;
        std::memcpy(&v, p, sizeof v);
        return PyFloat_FromDouble(v);
    }
    PyObject* o = load(p);
    if (!o) {
        PyErr_SetString(ModelError, "Invalid object in operation: <NULL>");
        return nullptr;
    }
    Py_INCREF(o);
    return o;
}

// The double operand of a loop, handed to the operators as a Python float: made once for a
// scalar broadcast over the loop (stride 0), and otherwise refilled in place while the
// operator kept no reference to it, so that a loop does not allocate a float per element.
class DoubleOperand {
public:
    explicit DoubleOperand(npy_intp step) : broadcast_(step == 0) {}
    PyObject* get(const char* p) {
        double v;
        std::memcpy(&v, p, sizeof v);
        if (value_ && (broadcast_ || Py_REFCNT(value_.get()) == 1)) {
            if (!broadcast_) reinterpret_cast<PyFloatObject*>(value_.get())->ob_fval = v;
            return value_.get();
        }
        value_.reset(PyFloat_FromDouble(v));
        return value_.get();
    }

private:
    PyRef value_;
    bool broadcast_;
};

// data points at a LoopData describing the operation and which operands are doubles.
struct LoopData {
    int op;
    bool first_double, second_double;
};

// The rich-comparison code of a comparison loop (-1 for other loops), as the expression on
// the left sees it: a number on the left compares the other way round (float's own comparison
// declines, and Python asks the expression for the reflected one).
int comparison_code(int op, bool number_left) {
    switch (op) {
        case OP_LE: return number_left ? Py_GE : Py_LE;
        case OP_EQ: return Py_EQ;
        case OP_GE: return number_left ? Py_LE : Py_GE;
        default: return -1;
    }
}

// A sum or difference of an expression and a variable, a linear term or another expression
// (exact types): the operators of all three hand it to expression_sum, which is called here
// without the operator dispatch.
inline bool linear_pair(int op, PyObject* a, PyObject* b) {
    if (op != OP_ADD && op != OP_SUB) return false;
    PyTypeObject *ta = Py_TYPE(a), *tb = Py_TYPE(b);
    auto linear = [](PyTypeObject* t) { return t == &ExpressionType || t == &VarType || t == &LinTermType; };
    return (ta == &ExpressionType || tb == &ExpressionType) && linear(ta) && linear(tb);
}

// Stores r (a new reference) into the output element at out, releasing what was there.
inline void put(char* out, PyObject* r) {
    PyObject* old = load(out);
    store(out, r);
    Py_XDECREF(old);
}

void binary_loop(char** args, npy_intp const* dims, npy_intp const* steps, void* data) {
    const LoopData* d = static_cast<const LoopData*>(data);
    char *a = args[0], *b = args[1], *out = args[2];
    DoubleOperand first(steps[0]), second(steps[1]);
    // An expression compared with a number: the constraint is built directly.
    int compare = d->first_double != d->second_double ? comparison_code(d->op, d->first_double) : -1;
    for (npy_intp i = 0; i < dims[0]; ++i, a += steps[0], b += steps[1], out += steps[2]) {
        if (compare >= 0) {
            PyObject* e = load(d->first_double ? b : a);
            if (e && Py_TYPE(e) == &ExpressionType) {
                double v;
                std::memcpy(&v, d->first_double ? a : b, sizeof v);
                PyObject* r = expression_compare_number(e, v, compare);
                if (!r) return;
                put(out, r);
                continue;
            }
        }
        if (d->first_double != d->second_double && (d->op == OP_MUL || d->op == OP_DIV)) {
            // An expression scaled by a number: what its operators compute, without the
            // float object and the dispatch (a division by 0 takes the general path and its error).
            PyObject* e = load(d->first_double ? b : a);
            double v;
            std::memcpy(&v, d->first_double ? a : b, sizeof v);
            if (e && Py_TYPE(e) == &ExpressionType && (d->op == OP_MUL || (d->second_double && v != 0.0))) {
                PyObject* r = expr_copy_scaled(e, d->op == OP_MUL ? v : 1.0 / v);
                if (!r) return;
                put(out, r);
                continue;
            }
        }
        PyRef x;
        PyObject* xo;
        if (d->first_double) {
            xo = first.get(a);
        } else {
            x.reset(operand_at(a, false));
            xo = x.get();
        }
        if (!xo) return;
        PyRef y;
        PyObject* yo;
        if (d->second_double) {
            yo = second.get(b);
        } else {
            y.reset(operand_at(b, false));
            yo = y.get();
        }
        if (!yo) return;
        PyRef r(linear_pair(d->op, xo, yo) ? expression_sum(xo, yo, d->op == OP_ADD ? 1.0 : -1.0)
                                           : apply_op(d->op, xo, yo));
        if (!r) return;
        put(out, r.release());
    }
}

void unary_loop(char** args, npy_intp const* dims, npy_intp const* steps, void* data) {
    const LoopData* d = static_cast<const LoopData*>(data);
    char *a = args[0], *out = args[1];
    for (npy_intp i = 0; i < dims[0]; ++i, a += steps[0], out += steps[1]) {
        PyRef x(operand_at(a, false));
        if (!x) return;
        PyRef r(apply_op(d->op, x.get(), nullptr));
        if (!r) return;
        PyObject* old = load(out);
        store(out, r.release());
        Py_XDECREF(old);
    }
}

// matmul's inner loop: core dimensions (n, k, m), each output element the one-pass sum of its
// k products.
void matmul_loop(char** args, npy_intp const* dims, npy_intp const* steps, void* data) {
    const LoopData* d = static_cast<const LoopData*>(data);
    npy_intp outer = dims[0], n = dims[1], k = dims[2], m = dims[3];
    npy_intp a_n = steps[3], a_k = steps[4], b_k = steps[5], b_m = steps[6], c_n = steps[7], c_m = steps[8];
    for (npy_intp o = 0; o < outer; ++o) {
        char* a0 = args[0] + o * steps[0];
        char* b0 = args[1] + o * steps[1];
        char* c0 = args[2] + o * steps[2];
        for (npy_intp i = 0; i < n; ++i)
            for (npy_intp j = 0; j < m; ++j) {
                PyRef acc;
                for (npy_intp h = 0; h < k; ++h) {
                    PyRef x(operand_at(a0 + i * a_n + h * a_k, d->first_double));
                    if (!x) return;
                    PyRef y(operand_at(b0 + h * b_k + j * b_m, d->second_double));
                    if (!y) return;
                    PyRef t(term_product(x.get(), y.get()));
                    if (!t) return;
                    if (!acc) acc = std::move(t);
                    else if (sum_combine(acc, t.get()) < 0) return;
                }
                if (!acc) acc.reset(PyFloat_FromDouble(0.0));
                if (!acc) return;
                char* out = c0 + i * c_n + j * c_m;
                PyObject* old = load(out);
                store(out, acc.release());
                Py_XDECREF(old);
            }
    }
}

struct UfuncRow {
    const char* name;
    int op;
    bool comparison;
    bool unary;
    bool with_double;
};

const UfuncRow ufunc_rows[] = {
    {"less_equal", OP_LE, true, false, true},  {"equal", OP_EQ, true, false, true},
    {"greater_equal", OP_GE, true, false, true}, {"add", OP_ADD, false, false, true},
    {"subtract", OP_SUB, false, false, true},  {"negative", OP_NEG, false, true, false},
    {"multiply", OP_MUL, false, false, true},  {"divide", OP_DIV, false, false, true},
    {"true_divide", OP_DIV, false, false, true}, {"power", OP_POW, false, false, true},
    {"square", OP_SQUARE, false, true, false}, {"bitwise_and", OP_AND, false, false, true},
    {"bitwise_or", OP_OR, false, false, true},  {"absolute", OP_ABS, false, true, false},
    {"matmul", OP_MATMUL, false, false, true},
};

// LoopData records live as long as the process (the loops keep pointers to them).
LoopData* loop_data(int op, bool first_double, bool second_double) {
    return new LoopData{op, first_double, second_double};
}

int register_loop(PyObject* ufunc, int usertype, PyUFuncGenericFunction fn, const int* types, LoopData* data) {
    return PyUFunc_RegisterLoopForType(reinterpret_cast<PyUFuncObject*>(ufunc), usertype, fn, types, data);
}

int register_loops() {
    PyRef umath(PyImport_ImportModule("numpy"));
    if (!umath) {
        PyErr_Print();
        PyErr_SetString(PyExc_ImportError, "numpy.core.umath failed to import");
        return -1;
    }
    const int objs[2] = {npvar_typenum, npexpr_typenum};
    PyObject* seen = PyList_New(0);  // ufunc objects already done (divide may alias true_divide)
    if (!seen) return -1;
    PyRef seen_ref(seen);
    for (const UfuncRow& row : ufunc_rows) {
        PyRef uf(PyObject_GetAttrString(umath.get(), row.name));
        if (!uf) {
            PyErr_Clear();
            continue;
        }
        int contains = PySequence_Contains(seen, uf.get());
        if (contains < 0) return -1;
        if (contains) continue;
        if (PyList_Append(seen, uf.get()) < 0) return -1;
        int out = row.comparison ? npconstraint_typenum : npexpr_typenum;
        PyUFuncGenericFunction binary = row.op == OP_MATMUL ? matmul_loop : binary_loop;
        for (int t : objs) {
            if (row.unary) {
                int types[2] = {t, npexpr_typenum};
                if (register_loop(uf.get(), t, unary_loop, types, loop_data(row.op, false, false)) < 0) return -1;
                continue;
            }
            for (int u : objs) {
                int types[3] = {t, u, out};
                if (register_loop(uf.get(), t, binary, types, loop_data(row.op, false, false)) < 0) return -1;
            }
            int od[3] = {t, NPY_DOUBLE, out};
            if (register_loop(uf.get(), t, binary, od, loop_data(row.op, false, true)) < 0) return -1;
            int dobj[3] = {NPY_DOUBLE, t, out};
            if (register_loop(uf.get(), t, binary, dobj, loop_data(row.op, true, false)) < 0) return -1;
        }
    }
    return 0;
}

int register_casts() {
    const int types[3] = {npvar_typenum, npexpr_typenum, NPY_OBJECT};
    for (int from : types) {
        for (int to : types) {
            if (from == to) continue;
            PyArray_Descr* d = PyArray_DescrFromType(from);
            if (!d) return -1;
            int rc = PyArray_RegisterCastFunc(d, to, cast_references);
            if (rc == 0) rc = PyArray_RegisterCanCast(d, to, NPY_NOSCALAR);
            Py_DECREF(d);
            if (rc < 0) return -1;
        }
    }
    // Constraint arrays convert to and from object arrays as well.
    for (auto pair : {std::pair<int, int>{npconstraint_typenum, NPY_OBJECT}, {NPY_OBJECT, npconstraint_typenum}}) {
        PyArray_Descr* d = PyArray_DescrFromType(pair.first);
        if (!d) return -1;
        int rc = PyArray_RegisterCastFunc(d, pair.second, cast_references);
        Py_DECREF(d);
        if (rc < 0) return -1;
    }
    return 0;
}

// ---------------------------------------------------------------- __array_ufunc__

// Whether the ufunc has loops of its own for npvar and npexpr.
bool has_model_loops(PyObject* ufunc) {
    PyRef name(PyObject_GetAttrString(ufunc, "__name__"));
    const char* s = name && PyUnicode_Check(name.get()) ? PyUnicode_AsUTF8(name.get()) : nullptr;
    if (!s) {
        PyErr_Clear();
        return false;
    }
    for (const UfuncRow& row : ufunc_rows)
        if (std::strcmp(row.name, s) == 0) return true;
    return false;
}

// A zero-dimensional array of the given dtype holding o.
PyObject* zero_dim(int typenum, PyObject* o) {
    PyArray_Descr* d = PyArray_DescrFromType(typenum);
    if (!d) return nullptr;
    PyRef a(PyArray_NewFromDescr(&PyArray_Type, d, 0, nullptr, nullptr, nullptr, 0, nullptr));
    if (!a) return nullptr;
    PyArrayObject* arr = reinterpret_cast<PyArrayObject*>(a.get());
    if (PyArray_SETITEM(arr, static_cast<char*>(PyArray_DATA(arr)), o) < 0) return nullptr;
    return a.release();
}

// One operand of a ufunc call, made ready for the elementwise path: a modelling object
// becomes a zero-dimensional npvar (a variable) or npexpr array, an object array an npexpr
// array (its elements may be numbers or modelling objects alike), so that the loops of the
// modelling operators apply. Without loops of its own for the ufunc (sin, less, ...), a
// modelling object becomes a zero-dimensional object array and NumPy's object loop runs,
// exactly as for an object array holding it.
PyObject* ufunc_operand(PyObject* o, bool model_loops) {
    int kind = operand_kind_quiet(o);
    if (kind >= K_VAR) {
        if (!model_loops) return zero_dim(NPY_OBJECT, o);
        return zero_dim(kind == K_VAR ? npvar_typenum : npexpr_typenum, o);
    }
    if (model_loops && is_ndarray(o) && PyArray_TYPE(reinterpret_cast<PyArrayObject*>(o)) == NPY_OBJECT) {
        PyArray_Descr* d = PyArray_DescrFromType(npexpr_typenum);
        if (!d) return nullptr;
        return PyArray_CastToType(reinterpret_cast<PyArrayObject*>(o), d, 0);
    }
    return new_ref(o);
}

}  // namespace

// __array_ufunc__ of the modelling types. NumPy calls it for every ufunc that has a modelling
// object among its operands, in either position: `A <= x` with A a float array reaches here
// through ndarray.__le__, and is computed by the same loops as `x >= A`. Without it NumPy would
// wrap x in an object array and its comparison loop would turn each constraint into True.
PyObject* model_array_ufunc(PyObject*, PyObject* args, PyObject* kw) {
    Py_ssize_t n = PyTuple_GET_SIZE(args);
    if (n < 2) {
        PyErr_SetString(PyExc_TypeError, "__array_ufunc__(ufunc, method, *inputs, **kwargs) needs a ufunc and a method");
        return nullptr;
    }
    PyObject* ufunc = PyTuple_GET_ITEM(args, 0);
    PyObject* method = PyTuple_GET_ITEM(args, 1);
    if (!PyUnicode_Check(method) || PyUnicode_CompareWithASCIIString(method, "__call__") != 0)
        Py_RETURN_NOTIMPLEMENTED;  // reduce, accumulate, at, ...: NumPy raises its TypeError
    bool model_loops = has_model_loops(ufunc);
    PyRef inputs(PyTuple_New(n - 2));
    if (!inputs) return nullptr;
    for (Py_ssize_t i = 2; i < n; ++i) {
        PyObject* op = ufunc_operand(PyTuple_GET_ITEM(args, i), model_loops);
        if (!op) return nullptr;
        PyTuple_SET_ITEM(inputs.get(), i - 2, op);
    }
    return PyObject_Call(ufunc, inputs.get(), kw);
}

int numpy_dtypes_create() {
    static const DtypeDef defs[3] = {
        {"npvar", &VarType, 'v', "variable", &npvar_typenum},
        {"npexpr", &ExpressionType, 'e', "expression", &npexpr_typenum},
        {"npconstraint", &ConstraintType, 'c', "constraint", &npconstraint_typenum},
    };
    for (int i = 0; i < 3; ++i)
        if (register_one(i, defs[i]) < 0) return -1;
    if (register_casts() < 0) return -1;
    return register_loops();
}

int numpy_dtypes_register(PyObject* module) {
    const std::pair<const char*, int> entries[3] = {
        {"npvar", npvar_typenum}, {"npexpr", npexpr_typenum}, {"npconstraint", npconstraint_typenum}};
    for (const auto& e : entries) {
        PyObject* d = reinterpret_cast<PyObject*>(PyArray_DescrFromType(e.second));
        if (!d) return -1;
        if (PyModule_AddObject(module, e.first, d) < 0) {
            Py_DECREF(d);
            return -1;
        }
    }
    return 0;
}

}  // namespace tarvo
