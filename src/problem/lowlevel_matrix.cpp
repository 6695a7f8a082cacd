// Low-level methods that change and read the matrix, bounds, types, objective, quadratic parts,
// indicators and names of the problem.
#include "problem/lowlevel.h"
#include "model/model.h"

#include <algorithm>
#include <cstring>
#include <functional>

namespace tarvo {
namespace ll {
namespace {

// ---------------------------------------------------------------- input template

// Arrays of one shared length (types per argument), all required, handed to `call`.
PyObject* arrays_call(PyObject* self, PyObject* args, PyObject* kw, const char* method,
                      std::initializer_list<const char*> names, std::initializer_list<int> types, const char* msg,
                      const std::function<int(TRVOprob, int, void**)>& call) {
    Args a(self, args, kw, method, names);
    if (!a.ok) return nullptr;
    std::vector<int> all;
    for (int i = 0; i < a.n; ++i) all.push_back(i);
    for (int i : all)
        if (!a.given(i)) {
            PyErr_SetString(InterfaceError, msg);
            return nullptr;
        }
    Arrays arr(a.p);
    void* ptr[8];
    int k = 0;
    for (int t : types) {
        ptr[k] = arr.get(a[k], t);
        ++k;
    }
    if (!arr.ok) return nullptr;
    return done(a.p, call(a.p->prob, arr.count(), ptr));
}

#define UNPAREN(...) __VA_ARGS__
#define ARRAYS_METHOD(name, kws, types, msg, call)                                               \
    PyObject* m_##name(PyObject* self, PyObject* args, PyObject* kw) {                           \
        return arrays_call(self, args, kw, #name, {UNPAREN kws}, {UNPAREN types}, msg, [](TRVOprob pr, int n, void** v) { return call; }); \
    }
#define I(k) static_cast<int*>(v[k])
#define D(k) static_cast<double*>(v[k])
#define C(k) static_cast<char*>(v[k])

// The var objects of columns changed here report what the library now holds: bounds, type,
// and (limit given) the threshold. A column without an object (a transfer column) is skipped.
int sync_vars(ProblemObject* p, int n, const int* cols, const double* limits) {
    Py_ssize_t nvars = PyList_GET_SIZE(p->vars);
    for (int k = 0; k < n; ++k) {
        int c = cols[k];
        if (c < 0 || c >= nvars) continue;
        double lb = 0, ub = 0;
        char type = 'C';
        if (TRVOgetlb(p->prob, &lb, c, c) != 0 || TRVOgetub(p->prob, &ub, c, c) != 0 ||
            TRVOgetcoltype(p->prob, &type, c, c) != 0)
            return 1;
        PyObject* v = PyList_GET_ITEM(p->vars, c);
        uint64_t* word = &reinterpret_cast<VarObject*>(v)->word;
        var_set_lb(word, lb);
        var_set_ub(word, ub);
        set_var_type(v, type);
        if (limits) var_set_threshold(word, limits[k]);
    }
    return 0;
}

// A column-changing call, then the sync of its var objects.
#define COLUMN_METHOD(name, kws, types, msg, call, limits)                                                \
    PyObject* m_##name(PyObject* self, PyObject* args, PyObject* kw) {                                   \
        ProblemObject* p = as_prob(self);                                                                \
        return arrays_call(self, args, kw, #name, {UNPAREN kws}, {UNPAREN types}, msg,                   \
                           [p](TRVOprob pr, int n, void** v) {                                           \
                               int rc = call;                                                            \
                               return rc != 0 ? rc : sync_vars(p, n, I(0), limits);                      \
                           });                                                                           \
    }

COLUMN_METHOD(chgbounds, ("?mindex", "?qbtype", "?bnd"), (CONV_COL, CONV_CHAR, CONV_DOUBLE),
              "Must provide arguments mindex, qbtype, bnd", TRVOchgbounds(pr, n, I(0), C(1), D(2)), nullptr)
ARRAYS_METHOD(chgobj, ("?mindex", "?obj"), (CONV_COL, CONV_DOUBLE), "Must provide arguments mindex, obj",
              TRVOchgobj(pr, n, I(0), D(1)))
ARRAYS_METHOD(chgrhs, ("?mindex", "?rhs"), (CONV_ROW, CONV_DOUBLE), "Must provide arguments mindex, rhs",
              TRVOchgrhs(pr, n, I(0), D(1)))
ARRAYS_METHOD(chgrhsrange, ("?mindex", "?rng"), (CONV_ROW, CONV_DOUBLE), "Must provide arguments mindex, rng",
              TRVOchgrhsrange(pr, n, I(0), D(1)))
ARRAYS_METHOD(chgrowtype, ("?mindex", "?qrtype"), (CONV_ROW, CONV_CHAR), "Must provide arguments mindex and qrtype",
              TRVOchgrowtype(pr, n, I(0), C(1)))
COLUMN_METHOD(chgcoltype, ("?mindex", "?qctype"), (CONV_COL, CONV_CHAR), "Must provide arguments mindex, qbtype",
              TRVOchgcoltype(pr, n, I(0), C(1)), nullptr)
COLUMN_METHOD(chgglblimit, ("?mindex", "?dlimit"), (CONV_COL, CONV_DOUBLE), "Must provide arguments mindex, dlimit",
              TRVOchgglblimit(pr, n, I(0), D(1)), D(1))
ARRAYS_METHOD(chgmcoef, ("?mrow", "?mcol", "?dval"), (CONV_ROW, CONV_COL, CONV_DOUBLE),
              "Must provide arguments mrow, mcol, dval", TRVOchgmcoef(pr, n, I(0), I(1), D(2)))
ARRAYS_METHOD(chgmqobj, ("?mqcol1", "?mqcol2", "?dval"), (CONV_COL, CONV_COL, CONV_DOUBLE),
              "Must provide arguments mqcol1, mqcol2, dval", TRVOchgmqobj64(pr, n, I(0), I(1), D(2)))
ARRAYS_METHOD(setindicators, ("?mrows", "?inds", "?comps"), (CONV_ROW, CONV_COL, CONV_INT),
              "Must provide arguments mrows, inds, comps", TRVOsetindicators(pr, n, I(0), I(1), I(2)))

// ---------------------------------------------------------------- single coefficients

// Index arguments (types given) followed, for setters, by a value `dval`.
PyObject* coef_call(PyObject* self, PyObject* args, PyObject* kw, const char* method,
                    std::initializer_list<const char*> names, std::initializer_list<int> types, bool set,
                    const std::function<int(TRVOprob, const int*, double*)>& call) {
    Args a(self, args, kw, method, names);
    if (!a.ok) return nullptr;
    int idx[3];
    int k = 0;
    for (int t : types) {
        if (index_arg(a.p, a[k], t, &idx[k]) < 0) return nullptr;
        ++k;
    }
    double val = 0;
    if (set) {
        if (conv_real(a[k], &val) < 0) return nullptr;
    }
    if (call(a.p->prob, idx, &val) != 0) return problem_error(a.p);
    if (set) Py_RETURN_NONE;
    return PyFloat_FromDouble(val);
}

#define COEF_METHOD(name, kws, types, set, call)                                                   \
    PyObject* m_##name(PyObject* self, PyObject* args, PyObject* kw) {                             \
        return coef_call(self, args, kw, #name, {UNPAREN kws}, {UNPAREN types}, set,                                   \
                         [](TRVOprob pr, const int* i, double* d) { (void)d; return call; });      \
    }
COEF_METHOD(chgcoef, ("irow", "icol", "dval"), (CONV_ROW, CONV_COL), true, TRVOchgcoef(pr, i[0], i[1], *d))
COEF_METHOD(chgqobj, ("icol", "jcol", "dval"), (CONV_COL, CONV_COL), true, TRVOchgqobj(pr, i[0], i[1], *d))
COEF_METHOD(chgqrowcoeff, ("irow", "icol", "jcol", "dval"), (CONV_ROW, CONV_COL, CONV_COL), true,
            TRVOchgqrowcoeff(pr, i[0], i[1], i[2], *d))
COEF_METHOD(getcoef, ("irow", "icol"), (CONV_ROW, CONV_COL), false, TRVOgetcoef(pr, i[0], i[1], d))
COEF_METHOD(getqobj, ("icol", "jcol"), (CONV_COL, CONV_COL), false, TRVOgetqobj(pr, i[0], i[1], d))
COEF_METHOD(getqrowcoeff, ("irow", "icol", "jcol"), (CONV_ROW, CONV_COL, CONV_COL), false,
            TRVOgetqrowcoeff(pr, i[0], i[1], i[2], d))

PyObject* m_delqmatrix(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "delqmatrix", {"row"});
    int row = 0;
    if (!a.ok || index_arg(a.p, a[0], CONV_ROW, &row) < 0) return nullptr;
    return done(a.p, TRVOdelqmatrix(a.p->prob, row));
}

PyObject* m_chgobjsense(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "chgobjsense", {"sense"});
    int sense = 0;
    if (!a.ok || int_arg(a[0], "sense", &sense) < 0) return nullptr;
    if (TRVOchgobjsense(a.p->prob, sense) != 0) return problem_error(a.p);
    // The nonlinear optimiser keeps its own copy of the sense.
    if (a.p->slp && nonlinear_running() && TSLPsetdblcontrol(a.p->slp, 12146, sense < 0 ? -1.0 : 1.0) != 0)
        return problem_error(a.p);
    Py_RETURN_NONE;
}

PyObject* m_addqmatrix(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "addqmatrix", {"irow", "?mqc1", "?mqc2", "?dqe"});
    if (!a.ok || a.missing({1, 2, 3}, "Must provide arguments mqc1, mqc2, dqe")) return nullptr;
    int row = 0;
    if (index_arg(a.p, a[0], CONV_ROW, &row) < 0) return nullptr;
    Arrays arr(a.p);
    int* c1 = arr.ints(a[1], CONV_COL);
    int* c2 = arr.ints(a[2], CONV_COL);
    double* v = arr.dbls(a[3]);
    if (!arr.ok) return nullptr;
    return done(a.p, TRVOaddqmatrix64(a.p->prob, row, arr.n, c1, c2, v));
}

// ---------------------------------------------------------------- range getters

struct Range {
    int first = 0, last = -1;
    int count() const { return last - first + 1; }
};

// first and last as rows or columns; absent (None) ones default to the whole range when
// `optional`, else they are required by the parser.
int range_arg(Args& a, int fi, int li, bool by_row, Range& r, bool check = true) {
    int type = by_row ? CONV_ROW : CONV_COL;
    int n = 0;
    if ((by_row ? rows(a.p, &n) : cols(a.p, &n)) < 0) return -1;
    r.first = 0;
    r.last = n - 1;
    if ((a.given(fi) && index_arg(a.p, a[fi], type, &r.first) < 0) || (a.given(li) && index_arg(a.p, a[li], type, &r.last) < 0))
        return -1;
    // An empty range is the caller's to report; a non-empty one must lie within the problem
    // (its size decides the memory taken).
    if (check && r.first <= r.last && (r.first < 0 || r.last >= n)) {
        PyErr_Format(InterfaceError, "Range %d..%d lies outside the %d %s of the problem", r.first, r.last, n,
                     by_row ? "rows" : "columns");
        return -1;
    }
    return 0;
}

// The output template: one list filled with the range's values.
template <class T>
PyObject* range_get(PyObject* self, PyObject* args, PyObject* kw, const char* method, const char* out_kw, bool by_row,
                    bool optional_range, int conv, const char* empty_msg, const char* missing_msg,
                    int (*call)(TRVOprob, T*, int, int)) {
    std::string out = std::string("?") + out_kw;
    Args a(self, args, kw, method, {out.c_str(), optional_range ? "?first" : "first", optional_range ? "?last" : "last"});
    Range r;
    if (!a.ok || range_arg(a, 1, 2, by_row, r) < 0) return nullptr;
    if (r.count() < 1) {
        if (optional_range) Py_RETURN_NONE;
        PyErr_SetString(InterfaceError, empty_msg);
        return nullptr;
    }
    if (!a.given(0)) {
        PyErr_SetString(InterfaceError, missing_msg);
        return nullptr;
    }
    std::vector<T> v(static_cast<size_t>(r.count()));
    if (call(a.p->prob, v.data(), r.first, r.last) != 0) return problem_error(a.p);
    if (fill(a.p, a[0], r.count(), v.data(), conv) < 0) return nullptr;
    Py_RETURN_NONE;
}

#define RANGE_METHOD(name, T, out, by_row, opt, conv, empty, missing)                                       \
    PyObject* m_##name(PyObject* self, PyObject* args, PyObject* kw) {                                     \
        return range_get<T>(self, args, kw, #name, out, by_row, opt, conv, empty, missing, TRVO##name);   \
    }
const char* const NO_COLS = "Empty range of columns requested";
const char* const NO_ROWS = "Empty range of rows requested";
RANGE_METHOD(getlb, double, "lb", false, true, CONV_DOUBLE, NO_COLS, "Must provide argument lb")
RANGE_METHOD(getub, double, "ub", false, true, CONV_DOUBLE, NO_COLS, "Must provide argument ub")
RANGE_METHOD(getobj, double, "obj", false, false, CONV_DOUBLE, NO_COLS, "Must provide argument obj")
RANGE_METHOD(getrhs, double, "rhs", true, false, CONV_DOUBLE, NO_ROWS, "Must provide argument: rhs or range")
RANGE_METHOD(getrhsrange, double, "range", true, false, CONV_DOUBLE, NO_ROWS, "Must provide argument: rhs or range")
RANGE_METHOD(getrowtype, char, "qrtype", true, false, CONV_CHAR, NO_ROWS, "Must provide argument qrtype")
RANGE_METHOD(getcoltype, char, "coltype", false, false, CONV_CHAR, "Empty or invalid range of columns requested",
             "Must provide argument coltype")

PyObject* m_getindicators(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getindicators", {"?inds", "?comps", "first", "last"});
    Range r;
    if (!a.ok || range_arg(a, 2, 3, true, r) < 0) return nullptr;
    if (r.count() < 1) {
        PyErr_SetString(InterfaceError, NO_ROWS);
        return nullptr;
    }
    if (a.missing({0, 1}, "Must provide arguments inds, comps")) return nullptr;
    std::vector<int> inds(static_cast<size_t>(r.count())), comps(inds.size());
    if (TRVOgetindicators(a.p->prob, inds.data(), comps.data(), r.first, r.last) != 0) return problem_error(a.p);
    if (fill(a.p, a[0], r.count(), inds.data(), CONV_COL) < 0 || fill(a.p, a[1], r.count(), comps.data(), CONV_INT) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

// ---------------------------------------------------------------- sparse getters

// Asks `call` for the number of entries (null arrays), then for the entries themselves with
// room for `size`, and fills the caller's lists: starts (range + 1), indices, values.
using SparseCall = std::function<int(int64_t* start, int* idx, double* val, int64_t size, int64_t* nels, int f, int l)>;

PyObject* sparse_get(Args& a, int out0, int size_i, const Range& r, int idx_conv, const SparseCall& call) {
    int64_t size = 0;
    if (!is_integer_value(a[size_i])) {
        PyErr_SetString(ModelError, "Argument size must be an integer");
        return nullptr;
    }
    size = PyLong_AsLongLong(a[size_i]);
    if (size == -1 && PyErr_Occurred()) return nullptr;
    if (size < 0) size = 0;
    int64_t nels = 0;
    if (call(nullptr, nullptr, nullptr, 0, &nels, r.first, r.last) != 0) return problem_error(a.p);
    std::vector<int64_t> start(static_cast<size_t>(r.count()) + 1);
    int64_t room = std::min(size, nels);
    std::vector<int> idx(static_cast<size_t>(std::max<int64_t>(room, 1)));
    std::vector<double> val(idx.size());
    int64_t got = 0;
    if (call(start.data(), idx.data(), val.data(), room, &got, r.first, r.last) != 0) return problem_error(a.p);
    int64_t n = std::min(room, got);
    if (fill(a.p, a[out0], r.count() + 1, start.data(), CONV_INT64) < 0 ||
        fill(a.p, a[out0 + 1], n, idx.data(), idx_conv) < 0 || fill(a.p, a[out0 + 2], n, val.data(), CONV_DOUBLE) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

using SparseLibraryCall = int (*)(TRVOprob, int64_t*, int*, double*, int64_t, int64_t*, int, int);

PyObject* sparse_method(PyObject* self, PyObject* args, PyObject* kw, const char* method,
                        std::initializer_list<const char*> names, bool by_row, int idx_conv, const char* missing,
                        SparseLibraryCall library) {
    Args a(self, args, kw, method, names);
    Range r;
    if (!a.ok || range_arg(a, 4, 5, by_row, r) < 0) return nullptr;
    if (r.count() < 1) {
        PyErr_SetString(InterfaceError, NO_COLS);
        return nullptr;
    }
    if (missing && !a.given(0) && !a.given(1) && !a.given(2)) {
        PyErr_SetString(InterfaceError, missing);
        return nullptr;
    }
    TRVOprob pr = a.p->prob;
    return sparse_get(a, 0, 3, r, idx_conv, [pr, library](int64_t* s, int* i, double* v, int64_t size, int64_t* n, int f, int l) {
        return library(pr, s, i, v, size, n, f, l);
    });
}

PyObject* m_getrows(PyObject* self, PyObject* args, PyObject* kw) {
    return sparse_method(self, args, kw, "getrows", {"?mstart", "?mclind", "?dmatval", "size", "first", "last"}, true,
                         CONV_COL, nullptr, TRVOgetrows64);
}

PyObject* m_getcols(PyObject* self, PyObject* args, PyObject* kw) {
    return sparse_method(self, args, kw, "getcols", {"?mstart", "?mrwind", "?dmatval", "size", "first", "last"}, false,
                         CONV_ROW, "Must provide at least one of arguments mstart, mrwind, dmatval", TRVOgetcols64);
}

PyObject* m_getmqobj(PyObject* self, PyObject* args, PyObject* kw) {
    return sparse_method(self, args, kw, "getmqobj", {"?mstart", "?mclind", "?dobjval", "size", "first", "last"}, false,
                         CONV_COL, nullptr, TRVOgetmqobj64);
}

PyObject* m_getqrowqmatrix(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getqrowqmatrix", {"irow", "?mstart", "?mclind", "?dqe", "size", "first", "last"});
    int row = 0;
    Range r;
    if (!a.ok || index_arg(a.p, a[0], CONV_ROW, &row) < 0 || range_arg(a, 5, 6, false, r) < 0) return nullptr;
    if (r.count() < 1) {
        PyErr_SetString(InterfaceError, NO_COLS);
        return nullptr;
    }
    TRVOprob pr = a.p->prob;
    return sparse_get(a, 1, 4, r, CONV_COL, [pr, row](int64_t* s, int* i, double* v, int64_t size, int64_t* n, int f, int l) {
        std::vector<int> s32(s ? static_cast<size_t>(l - f + 2) : 0);
        int n32 = 0;
        int rc = TRVOgetqrowqmatrix(pr, row, s ? s32.data() : nullptr, i, v, static_cast<int>(size), &n32, f, l);
        *n = n32;
        for (size_t k = 0; k < s32.size(); ++k) s[k] = s32[k];
        return rc;
    });
}

PyObject* m_getqrowqmatrixtriplets(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getqrowqmatrixtriplets", {"irow", "?mqcol1", "?mqcol2", "?dqe"});
    int row = 0;
    if (!a.ok || index_arg(a.p, a[0], CONV_ROW, &row) < 0) return nullptr;
    int n = 0;
    if (TRVOgetqrowqmatrixtriplets(a.p->prob, row, &n, nullptr, nullptr, nullptr) != 0) return problem_error(a.p);
    std::vector<int> c1(static_cast<size_t>(n) + 1), c2(c1.size());
    std::vector<double> v(c1.size());
    if (TRVOgetqrowqmatrixtriplets(a.p->prob, row, &n, c1.data(), c2.data(), v.data()) != 0) return problem_error(a.p);
    if (fill(a.p, a[1], n, c1.data(), CONV_COL) < 0 || fill(a.p, a[2], n, c2.data(), CONV_COL) < 0 ||
        fill(a.p, a[3], n, v.data(), CONV_DOUBLE) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_getqrows(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getqrows", {"?qcrows"});
    if (!a.ok || a.missing({0}, "Must provide argument qcrows")) return nullptr;
    int n = 0;
    if (TRVOgetqrows(a.p->prob, &n, nullptr) != 0) return problem_error(a.p);
    std::vector<int> rows(static_cast<size_t>(n) + 1);
    if (TRVOgetqrows(a.p->prob, &n, rows.data()) != 0) return problem_error(a.p);
    if (fill(a.p, a[0], n, rows.data(), CONV_ROW) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_getglobal(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getglobal", {"?qgtype", "?mgcols", "?dlim", "?qstype", "?msstart", "?mscols", "?dref"});
    if (!a.ok) return nullptr;
    TRVOprob pr = a.p->prob;
    int ng = 0, ns = 0;
    if (TRVOgetglobal64(pr, &ng, &ns, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) != 0)
        return problem_error(a.p);
    std::vector<int64_t> sstart(static_cast<size_t>(ns) + 1);
    if (TRVOgetglobal64(pr, &ng, &ns, nullptr, nullptr, nullptr, nullptr, sstart.data(), nullptr, nullptr) != 0)
        return problem_error(a.p);
    int64_t nm = sstart[static_cast<size_t>(ns)];
    std::vector<char> gt(static_cast<size_t>(ng) + 1), stype(static_cast<size_t>(ns) + 1);
    std::vector<int> gc(gt.size()), sc(static_cast<size_t>(nm) + 1);
    std::vector<double> lim(gt.size()), ref(sc.size());
    if (TRVOgetglobal64(pr, &ng, &ns, gt.data(), gc.data(), lim.data(), stype.data(), sstart.data(), sc.data(),
                        ref.data()) != 0)
        return problem_error(a.p);
    if (fill(a.p, a[0], ng, gt.data(), CONV_CHAR) < 0 || fill(a.p, a[1], ng, gc.data(), CONV_COL) < 0 ||
        fill(a.p, a[2], ng, lim.data(), CONV_DOUBLE) < 0 || fill(a.p, a[3], ns, stype.data(), CONV_CHAR) < 0 ||
        fill(a.p, a[4], ns + 1, sstart.data(), CONV_INT64) < 0 || fill(a.p, a[5], nm, sc.data(), CONV_COL) < 0 ||
        fill(a.p, a[6], nm, ref.data(), CONV_DOUBLE) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_delindicators(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "delindicators", {"?start", "?end"});
    int n = 0;
    if (!a.ok || rows(a.p, &n) < 0) return nullptr;
    if (n == 0) {
        PyErr_SetString(InterfaceError, "No rows in problem, cannot use delindicators()");
        return nullptr;
    }
    Range r;
    if (range_arg(a, 0, 1, true, r, false) < 0) return nullptr;
    if (r.first < 0 || r.last >= n || r.first > r.last) {
        PyErr_SetString(InterfaceError,
                        "Arguments start and end must be such that start <= end and must be within the range of rows");
        return nullptr;
    }
    return done(a.p, TRVOdelindicators(a.p->prob, r.first, r.last));
}

// ---------------------------------------------------------------- names

PyObject* m_addsetnames(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "addsetnames", {"?names", "?start", "?end"});
    int nsets = 0;
    if (!a.ok || prob_int_attrib(a.p, TRVO_ORIGINALSETS, &nsets) < 0) return nullptr;
    if (nsets == 0) {
        PyErr_SetString(InterfaceError, "No global sets in problem, cannot use addsetnames()");
        return nullptr;
    }
    if (!a.given(0) || !PyList_Check(a[0])) {
        PyErr_SetString(InterfaceError, "Argument names must be a list of strings");
        return nullptr;
    }
    int start = 0, end = nsets - 1;
    if ((a.given(1) && int_arg(a[1], "start", &start) < 0) || (a.given(2) && int_arg(a[2], "end", &end) < 0))
        return nullptr;
    if (start < 0 || start > end || end > nsets - 1) {
        PyErr_SetString(InterfaceError, "Arguments start and end must be such that 0 <= start <= end <= problem.controls.sets - 1");
        return nullptr;
    }
    if (PyList_GET_SIZE(a[0]) != end - start + 1) {
        PyErr_SetString(InterfaceError, "Size of list of strings does not match start and end arguments");
        return nullptr;
    }
    std::string buf;
    for (int i = 0; i <= end - start; ++i) {
        PyObject* s = PyList_GET_ITEM(a[0], i);
        PyRef tmp;
        const char* t = PyUnicode_Check(s) || PyBytes_Check(s) ? str_arg(s, "names", tmp) : nullptr;
        if (!t) {
            PyErr_Clear();
            PyErr_Format(ModelError, "Element %i of list is not a string: %S", i, s);
            return nullptr;
        }
        buf.append(t);
        buf.push_back('\0');
    }
    if (TRVOaddsetnames(a.p->prob, buf.data(), start, end) != 0) return problem_error(a.p);
    // The sets' own names follow the library's.
    for (int i = start; i <= end && i < PyList_GET_SIZE(a.p->sets); ++i) {
        SosObject* so = reinterpret_cast<SosObject*>(PyList_GET_ITEM(a.p->sets, i));
        PyObject* name = PyList_GET_ITEM(a[0], i - start);
        if (!PyUnicode_Check(name)) continue;
        Py_INCREF(name);
        Py_XSETREF(so->name, name);
    }
    Py_RETURN_NONE;
}

PyObject* m_getnamelist(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getnamelist", {"type", "?start", "?end"});
    int type = 0;
    if (!a.ok || int_arg(a[0], "type", &type) < 0) return nullptr;
    if (type < 1 || type > 3) {
        PyErr_SetString(InterfaceError, "Argument type must be 1 (rows), 2 (columns), or 3 (sets)");
        return nullptr;
    }
    int count = 0;
    if (prob_int_attrib(a.p, type == 1 ? TRVO_ORIGINALROWS : type == 2 ? TRVO_ORIGINALCOLS : TRVO_ORIGINALSETS, &count) < 0)
        return nullptr;
    if (count == 0) {
        PyErr_SetString(InterfaceError, "No names for type chosen");
        return nullptr;
    }
    int start = 0, end = count - 1;
    if ((a.given(1) && int_arg(a[1], "start", &start) < 0) || (a.given(2) && int_arg(a[2], "end", &end) < 0))
        return nullptr;
    if (start < 0 || start > end || end >= count) {
        PyErr_SetString(InterfaceError, "Arguments start and end must be such that 0 <= start <= end and both must be "
                                        "within the number of rows, columns, or sets");
        return nullptr;
    }
    int need = 0;
    if (TRVOgetnamelist(a.p->prob, type, nullptr, 0, &need, start, end) != 0) return problem_error(a.p);
    std::vector<char> buf;
    try {
        buf.resize(static_cast<size_t>(need) + 1);
    } catch (...) {
        PyErr_SetString(InterfaceError, "Could not allocate enough memory for reading all names; please try with a smaller range");
        return nullptr;
    }
    if (TRVOgetnamelist(a.p->prob, type, buf.data(), need + 1, &need, start, end) != 0) return problem_error(a.p);
    PyRef list(PyList_New(end - start + 1));
    if (!list) return nullptr;
    const char* s = buf.data();
    for (int i = 0; i <= end - start; ++i) {
        PyObject* name = PyUnicode_DecodeUTF8(s, static_cast<Py_ssize_t>(std::strlen(s)), "replace");
        if (!name) return nullptr;
        PyList_SET_ITEM(list.get(), i, name);
        s += std::strlen(s) + 1;
    }
    return list.release();
}

PyObject* m_getIndexFromName(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getIndexFromName", {"type", "name"});
    int type = 0, idx = -1;
    PyRef hold;
    if (!a.ok || int_arg(a[0], "type", &type) < 0) return nullptr;
    const char* name = str_arg(a[1], "name", hold);
    if (!name) return nullptr;
    if (TRVOgetindex(a.p->prob, type, name, &idx) != 0) return problem_error(a.p);
    return PyLong_FromLong(idx);
}

PyObject* m_setprobname(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "setprobname", {"probname"});
    PyRef hold;
    const char* name = a.ok ? str_arg(a[0], "probname", hold) : nullptr;
    if (!name) return nullptr;
    return done(a.p, TRVOsetprobname(a.p->prob, name));
}

const PyMethodDef* table() {
    static const PyMethodDef t[] = {
    LL_METHOD(chgbounds, DOC("chgbounds($self, /, mindex, qbtype, bnd)", "Change bounds: qbtype 'L' lower, 'U' upper, 'B' both. Returns None.")),
    LL_METHOD(chgobj, DOC("chgobj($self, /, mindex, obj)", "Change objective coefficients (column -1: the objective constant, negated). Returns None.")),
    LL_METHOD(chgrhs, DOC("chgrhs($self, /, mindex, rhs)", "Change right-hand sides. Returns None.")),
    LL_METHOD(chgrhsrange, DOC("chgrhsrange($self, /, mindex, rng)", "Change row ranges. Returns None.")),
    LL_METHOD(chgrowtype, DOC("chgrowtype($self, /, mindex, qrtype)", "Change row types ('L', 'G', 'E', 'R', 'N'). Returns None.")),
    LL_METHOD(chgcoltype, DOC("chgcoltype($self, /, mindex, qctype)", "Change column types ('C', 'B', 'I', 'S', 'R', 'P'). Returns None.")),
    LL_METHOD(chgglblimit, DOC("chgglblimit($self, /, mindex, dlimit)", "Change semi-continuous and partial-integer limits. Returns None.")),
    LL_METHOD(chgmcoef, DOC("chgmcoef($self, /, mrow, mcol, dval)", "Change several matrix coefficients. Returns None.")),
    LL_METHOD(chgmqobj, DOC("chgmqobj($self, /, mqcol1, mqcol2, dval)", "Change quadratic objective coefficients (Q_ij of 0.5 x'Qx). Returns None.")),
    LL_METHOD(setindicators, DOC("setindicators($self, /, mrows, inds, comps)", "Make rows indicator constraints of columns inds (comps 1: active at 1, -1: at 0, 0: ordinary row). Returns None.")),
    LL_METHOD(chgcoef, DOC("chgcoef($self, /, irow, icol, dval)", "Change one matrix coefficient. Returns None.")),
    LL_METHOD(chgqobj, DOC("chgqobj($self, /, icol, jcol, dval)", "Change one quadratic objective coefficient. Returns None.")),
    LL_METHOD(chgqrowcoeff, DOC("chgqrowcoeff($self, /, irow, icol, jcol, dval)", "Change one coefficient of a quadratic row. Returns None.")),
    LL_METHOD(getcoef, DOC("getcoef($self, /, irow, icol)", "Return one matrix coefficient as a float.")),
    LL_METHOD(getqobj, DOC("getqobj($self, /, icol, jcol)", "Return one quadratic objective coefficient as a float.")),
    LL_METHOD(getqrowcoeff, DOC("getqrowcoeff($self, /, irow, icol, jcol)", "Return one coefficient of a quadratic row as a float.")),
    LL_METHOD(delqmatrix, DOC("delqmatrix($self, /, row)", "Remove the quadratic part of a row. Returns None.")),
    LL_METHOD(chgobjsense, DOC("chgobjsense($self, /, sense)", "Set the objective sense (1 minimise, -1 maximise). Returns None.")),
    LL_METHOD(addqmatrix, DOC("addqmatrix($self, /, irow, mqc1, mqc2, dqe)", "Add quadratic terms to a row. Returns None.")),
    LL_METHOD(getlb, DOC("getlb($self, /, lb, first=None, last=None)", "Fill lb with the lower bounds of columns first..last. Returns None.")),
    LL_METHOD(getub, DOC("getub($self, /, ub, first=None, last=None)", "Fill ub with the upper bounds of columns first..last. Returns None.")),
    LL_METHOD(getobj, DOC("getobj($self, /, obj, first, last)", "Fill obj with the objective coefficients of columns first..last. Returns None.")),
    LL_METHOD(getrhs, DOC("getrhs($self, /, rhs, first, last)", "Fill rhs with the right-hand sides of rows first..last. Returns None.")),
    LL_METHOD(getrhsrange, DOC("getrhsrange($self, /, range, first, last)", "Fill range with the ranges of rows first..last. Returns None.")),
    LL_METHOD(getrowtype, DOC("getrowtype($self, /, qrtype, first, last)", "Fill qrtype with the row types of rows first..last. Returns None.")),
    LL_METHOD(getcoltype, DOC("getcoltype($self, /, coltype, first, last)", "Fill coltype with the column types of columns first..last. Returns None.")),
    LL_METHOD(getindicators, DOC("getindicators($self, /, inds, comps, first, last)", "Fill inds and comps with the indicator columns and flags of rows first..last. Returns None.")),
    LL_METHOD(getrows, DOC("getrows($self, /, mstart, mclind, dmatval, size, first, last)", "Fill the row-wise matrix entries of rows first..last (at most size entries). Returns None.")),
    LL_METHOD(getcols, DOC("getcols($self, /, mstart, mrwind, dmatval, size, first, last)", "Fill the column-wise matrix entries of columns first..last (at most size entries). Returns None.")),
    LL_METHOD(getmqobj, DOC("getmqobj($self, /, mstart, mclind, dobjval, size, first, last)", "Fill the quadratic objective of columns first..last, column-wise. Returns None.")),
    LL_METHOD(getqrowqmatrix, DOC("getqrowqmatrix($self, /, irow, mstart, mclind, dqe, size, first, last)", "Fill the quadratic part of row irow, columns first..last. Returns None.")),
    LL_METHOD(getqrowqmatrixtriplets, DOC("getqrowqmatrixtriplets($self, /, irow, mqcol1=None, mqcol2=None, dqe=None)", "Fill the upper-triangle triplets of the quadratic part of row irow. Returns None.")),
    LL_METHOD(getqrows, DOC("getqrows($self, /, qcrows)", "Fill qcrows with the rows that have a quadratic part. Returns None.")),
    LL_METHOD(getglobal, DOC("getglobal($self, /, qgtype, mgcols, dlim, qstype, msstart, mscols, dref)", "Fill the global entities and sets of the problem. Returns None.")),
    LL_METHOD(delindicators, DOC("delindicators($self, /, start=None, end=None)", "Make rows start..end ordinary rows again. Returns None.")),
    LL_METHOD(addsetnames, DOC("addsetnames($self, /, names, start=None, end=None)", "Name sets start..end. Returns None.")),
    LL_METHOD(getnamelist, DOC("getnamelist($self, /, type, start=None, end=None)", "Return the names of rows (type 1), columns (2) or sets (3) start..end as a list.")),
    LL_METHOD(getIndexFromName, DOC("getIndexFromName($self, /, type, name)", "Return the index of the row (type 1), column (2) or set (3) of that name.")),
    LL_METHOD(setprobname, DOC("setprobname($self, /, probname)", "Set the problem's name. Returns None.")),
    {nullptr, nullptr, 0, nullptr},
    };
    return t;
}

}  // namespace

const PyMethodDef* matrix_methods() { return table(); }

}  // namespace ll
}  // namespace tarvo
