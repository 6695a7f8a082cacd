// The problem's cut methods: cuts added at the node of a callback, the cut pool and its
// poolcut handles, stored bounds for branching, and strong branching with a solve callback.
#include "problem/lowlevel.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

namespace tarvo {
namespace ll {
namespace {

using Handle = void*;

// Reads an integer argument (None is refused with the argument's name).
bool ints(Args& a, std::initializer_list<int> which, int* out, std::initializer_list<const char*> names) {
    auto name = names.begin();
    int k = 0;
    for (int i : which) {
        if (int_arg(a[i], *name, &out[k]) < 0) return false;
        ++name;
        ++k;
    }
    return true;
}

bool dbl(PyObject* o, const char* name, double* v) {
    if (o == Py_None) {
        PyErr_Format(ModelError, "Argument %s must be a number", name);
        return false;
    }
    *v = PyFloat_AsDouble(o);
    return !(*v == -1.0 && PyErr_Occurred());
}

// Cuts given as a sequence of poolcut objects (None: every cut, count -1).
struct CutList {
    Arrays arr;
    Handle* h = nullptr;
    int n = -1;
    explicit CutList(ProblemObject* p) : arr(p) {}
    bool read(PyObject* src) {
        if (src == Py_None) return true;
        h = static_cast<Handle*>(arr.get(src, CONV_POOLCUT));
        if (!arr.ok) return false;
        n = arr.count();
        return true;
    }
    TRVOcut* cuts() const { return reinterpret_cast<TRVOcut*>(h); }
};

// Rows of cuts, shared by addcuts and storecuts: n cuts from mtype, rtype, rhs; n+1 starts;
// the entries' columns and coefficients.
struct CutRows {
    Arrays head, starts, entries;
    int* mtype = nullptr;
    char* rtype = nullptr;
    double* rhs = nullptr;
    int64_t* mstart = nullptr;
    int* mcols = nullptr;
    double* dmatval = nullptr;
    int n = 0;
    explicit CutRows(ProblemObject* p) : head(p), starts(p), entries(p) {}
    bool read(PyObject* t, PyObject* r, PyObject* b, PyObject* s, PyObject* c, PyObject* v) {
        mtype = head.ints(t, CONV_INT);
        rtype = head.chars(r);
        rhs = head.dbls(b);
        if (!head.ok) return false;
        n = head.count();
        if (n == 0) return true;
        starts.n = n + 1;
        mstart = starts.int64s(s);
        if (!starts.ok) return false;
        if (!mstart) {
            PyErr_SetString(InterfaceError, "Must provide argument mstart");
            return false;
        }
        const int64_t nels = mstart[n];
        if (nels < 0) {
            PyErr_SetString(ModelError, "Invalid start array: its last entry is negative");
            return false;
        }
        entries.n = nels;
        if (nels > 0) mcols = entries.ints(c, CONV_COL);
        dmatval = entries.dbls(v);
        return entries.ok;
    }
};

PyObject* add_or_store(PyObject* self, PyObject* args, PyObject* kw, bool store) {
    Args a = store ? Args(self, args, kw, "storecuts", {"nodupl", "mtype", "rtype", "rhs", "mstart", "?mindex", "mcols", "dmatval"})
                   : Args(self, args, kw, "addcuts", {"mtype", "rtype", "rhs", "mstart", "mcols", "dmatval"});
    if (!a.ok) return nullptr;
    int nodupl = 0;
    const int o = store ? 1 : 0;
    if (store && int_arg(a[0], "nodupl", &nodupl) < 0) return nullptr;
    CutRows rows(a.p);
    const int cols_at = store ? 6 : 4;
    if (!rows.read(a[o], a[o + 1], a[o + 2], a[o + 3], a[cols_at], a[cols_at + 1])) return nullptr;
    std::vector<Handle> handles(static_cast<size_t>(rows.n) + 1, nullptr);
    int rc = store ? TRVOstorecuts64(a.p->prob, rows.n, nodupl, rows.mtype, rows.rtype, rows.rhs, rows.mstart,
                                     reinterpret_cast<TRVOcut*>(handles.data()), rows.mcols, rows.dmatval)
                   : TRVOaddcuts64(a.p->prob, rows.n, rows.mtype, rows.rtype, rows.rhs, rows.mstart, rows.mcols,
                                   rows.dmatval);
    if (rc != 0) return problem_error(a.p);
    if (store && a.given(5)) {
        PyObject* target = a[5];
        if (!PyList_Check(target)) {
            PyErr_SetString(ModelError, "Unexpected argument to conv_arr2obj");
            return nullptr;
        }
        if (fill(a.p, target, rows.n, handles.data(), CONV_POOLCUT) < 0) return nullptr;
    }
    Py_RETURN_NONE;
}

PyObject* m_addcuts(PyObject* self, PyObject* args, PyObject* kw) { return add_or_store(self, args, kw, false); }
PyObject* m_storecuts(PyObject* self, PyObject* args, PyObject* kw) { return add_or_store(self, args, kw, true); }

PyObject* m_delcuts(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "delcuts", {"ibasis", "itype", "interp", "delta", "?cutind"});
    int v[3];
    double delta = 0;
    if (!a.ok || !ints(a, {0, 1, 2}, v, {"ibasis", "itype", "interp"}) || !dbl(a[3], "delta", &delta)) return nullptr;
    CutList cl(a.p);
    if (!cl.read(a[4])) return nullptr;
    return done(a.p, TRVOdelcuts(a.p->prob, v[0], v[1], v[2], delta, cl.n, cl.cuts()));
}

PyObject* pool_call(PyObject* self, PyObject* args, PyObject* kw, const char* method, bool load) {
    Args a(self, args, kw, method, {"itype", "interp", "?cutind"});
    int v[2];
    if (!a.ok || !ints(a, {0, 1}, v, {"itype", "interp"})) return nullptr;
    CutList cl(a.p);
    if (!cl.read(a[2])) return nullptr;
    return done(a.p, load ? TRVOloadcuts(a.p->prob, v[0], v[1], cl.n, cl.cuts())
                          : TRVOdelcpcuts(a.p->prob, v[0], v[1], cl.n, cl.cuts()));
}

PyObject* m_delcpcuts(PyObject* self, PyObject* args, PyObject* kw) { return pool_call(self, args, kw, "delcpcuts", false); }
PyObject* m_loadcuts(PyObject* self, PyObject* args, PyObject* kw) { return pool_call(self, args, kw, "loadcuts", true); }

int size_arg(PyObject* o, int* size) {
    if (int_arg(o, "size", size) < 0) return -1;
    if (*size < 0) {
        PyErr_SetString(ModelError, "Argument size must not be negative");
        return -1;
    }
    return 0;
}

PyObject* m_getcutlist(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getcutlist", {"itype", "interp", "size", "?cutind"});
    int v[2], size = 0;
    if (!a.ok || !ints(a, {0, 1}, v, {"itype", "interp"}) || size_arg(a[2], &size) < 0) return nullptr;
    if (a.missing({3}, "Must provide argument cutind")) return nullptr;
    std::vector<Handle> h(static_cast<size_t>(size) + 1);
    int n = 0;
    if (TRVOgetcutlist(a.p->prob, v[0], v[1], &n, size, reinterpret_cast<TRVOcut*>(h.data())) != 0)
        return problem_error(a.p);
    if (fill(a.p, a[3], std::min(n, size), h.data(), CONV_POOLCUT) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_getcpcutlist(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getcpcutlist", {"itype", "interp", "delta", "size", "?cutind", "?viol"});
    int v[2], size = 0;
    double delta = 0;
    if (!a.ok || !ints(a, {0, 1}, v, {"itype", "interp"}) || !dbl(a[2], "delta", &delta) || size_arg(a[3], &size) < 0)
        return nullptr;
    if (a.missing({4, 5}, "Must provide arguments cutind, viol")) return nullptr;
    std::vector<Handle> h(static_cast<size_t>(size) + 1);
    std::vector<double> viol(static_cast<size_t>(size) + 1);
    int n = 0;
    if (TRVOgetcpcutlist(a.p->prob, v[0], v[1], delta, &n, size, reinterpret_cast<TRVOcut*>(h.data()), viol.data()) != 0)
        return problem_error(a.p);
    const int got = std::min(n, size);
    if (fill(a.p, a[4], got, h.data(), CONV_POOLCUT) < 0 || fill(a.p, a[5], got, viol.data(), CONV_DOUBLE) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_getcpcuts(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getcpcuts", {"index", "size", "?type", "?rtype", "?mstart", "?mcols", "?dmatval", "?drhs"});
    int size = 0;
    if (!a.ok || size_arg(a[1], &size) < 0) return nullptr;
    if (a.missing({0}, "Must provide argument index")) return nullptr;
    CutList cl(a.p);
    if (!cl.read(a[0])) return nullptr;
    const int n = cl.n;
    const size_t un = static_cast<size_t>(n) + 1;
    std::vector<int> type(un), cols(static_cast<size_t>(size) + 1);
    std::vector<char> rtype(un);
    std::vector<int64_t> start(un);
    std::vector<double> rhs(un), val(static_cast<size_t>(size) + 1);
    int64_t nels = 0;
    if (TRVOgetcpcuts64(a.p->prob, cl.cuts(), n, size, type.data(), rtype.data(), start.data(), cols.data(), val.data(),
                        rhs.data(), &nels) != 0)
        return problem_error(a.p);
    const int64_t got = std::min<int64_t>(nels, size);
    if (fill(a.p, a[2], n, type.data(), CONV_INT) < 0 || fill(a.p, a[3], n, rtype.data(), CONV_CHAR) < 0 ||
        fill(a.p, a[4], n + 1, start.data(), CONV_INT64) < 0 || fill(a.p, a[5], got, cols.data(), CONV_COL) < 0 ||
        fill(a.p, a[6], got, val.data(), CONV_DOUBLE) < 0 || fill(a.p, a[7], n, rhs.data(), CONV_DOUBLE) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_getcutmap(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getcutmap", {"?cuts", "?cutmap"});
    if (!a.ok || a.missing({0, 1}, "Must provide arguments cuts, cutmap")) return nullptr;
    CutList cl(a.p);
    if (!cl.read(a[0])) return nullptr;
    std::vector<int> map(static_cast<size_t>(cl.n) + 1);
    if (TRVOgetcutmap(a.p->prob, cl.n, cl.cuts(), map.data()) != 0) return problem_error(a.p);
    if (fill(a.p, a[1], cl.n, map.data(), CONV_INT) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_getcutslack(PyObject* self, PyObject* args, PyObject* kw) {
    PyObject* cut = nullptr;
    const Py_ssize_t npos = args ? PyTuple_GET_SIZE(args) : 0;
    const Py_ssize_t nkw = kw ? PyDict_GET_SIZE(kw) : 0;
    if (npos == 1 && nkw == 0) cut = PyTuple_GET_ITEM(args, 0);
    else if (npos == 0 && nkw == 1) cut = PyDict_GetItemString(kw, "cut");
    void* h = nullptr;
    if (!cut || !PyObject_TypeCheck(cut, &PoolCutType) || poolcut_handle(cut, &h) < 0) {
        PyErr_Clear();
        PyErr_SetString(InterfaceError, "getcutslack must be provided a single cut as the only argument");
        return nullptr;
    }
    ProblemObject* p = as_prob(self);
    double slack = 0;
    if (TRVOgetcutslack(p->prob, static_cast<TRVOcut>(h), &slack) != 0) return problem_error(p);
    return PyFloat_FromDouble(slack);
}

PyObject* m_setbranchcuts(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "setbranchcuts", {"?mindex"});
    if (!a.ok || a.missing({0}, "Must provide argument mindex")) return nullptr;
    CutList cl(a.p);
    if (!cl.read(a[0])) return nullptr;
    return done(a.p, TRVOsetbranchcuts(a.p->prob, cl.n, cl.cuts()));
}

PyObject* m_storebounds(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "storebounds", {"?mcols", "?type", "?bds"});
    if (!a.ok || a.missing({0, 1, 2}, "Must provide arguments mcols, type, bds")) return nullptr;
    Arrays arr(a.p);
    int* cols = arr.ints(a[0], CONV_COL);
    char* types = arr.chars(a[1]);
    double* bds = arr.dbls(a[2]);
    if (!arr.ok) return nullptr;
    void* h = nullptr;
    if (TRVOstorebounds(a.p->prob, arr.count(), cols, types, bds, &h) != 0) return problem_error(a.p);
    return generic_wrap(h);
}

PyObject* m_setbranchbounds(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "setbranchbounds", {"mindex"});
    if (!a.ok) return nullptr;
    void* h = nullptr;
    if (generic_handle(a[0], &h) < 0) return nullptr;
    return done(a.p, TRVOsetbranchbounds(a.p->prob, h));
}

// ---------------------------------------------------------------- strong branching

// The solve callback's record: the problem (borrowed), the callable and the user's object.
struct SolveRecord {
    PyObject* problem;
    PyObject* callback;
    PyObject* context;
};

int strongbranch_solve(TRVOprob prob, void* ctx, int ibnd) {
    SolveRecord* r = static_cast<SolveRecord*>(ctx);
    // Called on the thread of strongbranchcb, which holds the interpreter lock.
    if (PyErr_Occurred()) {
        TRVOinterrupt(prob, 9);
        return 1;
    }
    PyObject* res = PyObject_CallFunction(r->callback, "(OOl)", r->problem, r->context, static_cast<long>(ibnd));
    if (!res) {
        std::fputs("Problem in solvecb() callback, stopping optimization", stderr);
        std::fflush(stderr);
        TRVOinterrupt(prob, 9);
        return 1;
    }
    long v = 0;
    if (res != Py_None) {
        v = PyLong_AsLong(res);
        if (v == -1 && PyErr_Occurred()) {
            Py_DECREF(res);
            std::fputs("Problem in solvecb() callback, stopping optimization", stderr);
            std::fflush(stderr);
            TRVOinterrupt(prob, 9);
            return 1;
        }
    }
    Py_DECREF(res);
    return static_cast<int>(v);
}

PyObject* strong(PyObject* self, PyObject* args, PyObject* kw, bool with_cb) {
    Args a = with_cb ? Args(self, args, kw, "strongbranchcb",
                            {"?bndind", "?bndtype", "?bndval", "itrlimit", "?objval", "?status", "?sbsolvecb", "?vContext"})
                     : Args(self, args, kw, "strongbranch",
                            {"?mbndind", "?cbndtype", "?dbndval", "itrlimit", "?dsbobjval", "?msbstatus"});
    if (!a.ok) return nullptr;
    if (a.missing({0, 1, 2}, with_cb ? "Must provide arguments bndind, bndtype, bndval"
                                     : "Must provide arguments mbndind, cbndtype, dbndval"))
        return nullptr;
    int itr = 0;
    if (int_arg(a[3], "itrlimit", &itr) < 0) return nullptr;
    if (with_cb && (a[6] == Py_None || !PyCallable_Check(a[6]))) {
        PyErr_SetString(InterfaceError, "Argument sbsolvecb must be callable");
        return nullptr;
    }
    Arrays arr(a.p);
    int* cols = arr.ints(a[0], CONV_COL);
    char* types = arr.chars(a[1]);
    double* vals = arr.dbls(a[2]);
    if (!arr.ok) return nullptr;
    const int n = arr.count();
    std::vector<double> obj(static_cast<size_t>(n) + 1);
    std::vector<int> status(static_cast<size_t>(n) + 1);
    SolveRecord rec{self, with_cb ? a[6] : nullptr, with_cb ? a[7] : nullptr};
    int rc = with_cb ? TRVOstrongbranchcb(a.p->prob, n, cols, types, vals, itr, obj.data(), status.data(),
                                          strongbranch_solve, &rec)
                     : TRVOstrongbranch(a.p->prob, n, cols, types, vals, itr, obj.data(), status.data());
    if (PyErr_Occurred()) return nullptr;
    if (rc != 0) return problem_error(a.p);
    if (fill(a.p, a[4], n, obj.data(), CONV_DOUBLE) < 0 || fill(a.p, a[5], n, status.data(), CONV_INT) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_strongbranchcb(PyObject* self, PyObject* args, PyObject* kw) { return strong(self, args, kw, true); }

const PyMethodDef methods[] = {
    LL_METHOD(addcuts, DOC("addcuts($self, /, mtype, rtype, rhs, mstart, mcols, dmatval)",
                           "Add cuts to the current node of the tree search and its subtree (only from a node "
                           "callback): cut types, row types ('L', 'G', 'E'), right-hand sides, starts, columns and "
                           "coefficients. Returns None.")),
    LL_METHOD(storecuts, DOC("storecuts($self, /, nodupl, mtype, rtype, rhs, mstart, mindex, mcols, dmatval)",
                             "Store cuts in the cut pool (nodupl 0: no check, 1: no duplicate of the same type, 2: "
                             "of any type); the list mindex receives their poolcut objects. The tree search applies "
                             "pool cuts at nodes whose relaxation violates them. Returns None.")),
    LL_METHOD(delcuts, DOC("delcuts($self, /, ibasis, itype, interp, delta, cutind=None)",
                           "Remove cuts from the current node and its subtree: the cuts cutind (None: all) of the "
                           "selected type whose absolute slack exceeds delta; ibasis 1 keeps binding cuts. Returns None.")),
    LL_METHOD(delcpcuts, DOC("delcpcuts($self, /, itype, interp, cutind=None)",
                             "Remove cuts from the cut pool (cutind None: all of the selected type). Returns None.")),
    LL_METHOD(loadcuts, DOC("loadcuts($self, /, itype, interp, cutind=None)",
                            "Apply pool cuts at the current node and its subtree (cutind None: all of the selected "
                            "type). Returns None.")),
    LL_METHOD(getcutlist, DOC("getcutlist($self, /, itype, interp, size, cutind)",
                              "Fill cutind with (at most size) cuts active at the current node. Type selection: "
                              "interp -1 all, 1 equal to itype, 2 any bit of itype, 3 all bits. Returns None.")),
    LL_METHOD(getcpcutlist, DOC("getcpcutlist($self, /, itype, interp, delta, size, cutind, viol)",
                                "Fill cutind and viol with the pool cuts violated by more than delta at the current "
                                "solution, and their violations. Returns None.")),
    LL_METHOD(getcpcuts, DOC("getcpcuts($self, /, index, size, type, rtype, mstart, mcols, dmatval, drhs)",
                             "Fill the lists with the rows of the cuts index (at most size entries). Returns None.")),
    LL_METHOD(getcutmap, DOC("getcutmap($self, /, cuts, cutmap)",
                             "Fill cutmap with each cut's row in the current node's matrix, -1 when not active "
                             "there. Returns None.")),
    LL_METHOD(getcutslack, DOC("getcutslack($self, /, cut)",
                               "Return the cut's slack (right-hand side minus activity) at the current solution as "
                               "a float.")),
    LL_METHOD(setbranchcuts, DOC("setbranchcuts($self, /, mindex)",
                                 "Give pool cuts to the child created in a newnode callback, or from another node "
                                 "callback to every child of the current node. Returns None.")),
    LL_METHOD(storebounds, DOC("storebounds($self, /, mcols, type, bds)",
                               "Store bound changes (type 'L', 'U', 'B') for setbranchbounds; returns the stored "
                               "bounds as a generic object.")),
    LL_METHOD(setbranchbounds, DOC("setbranchbounds($self, /, mindex)",
                                   "Apply stored bounds to the child created in a newnode callback, or from another "
                                   "node callback to every child of the current node. Returns None.")),
    LL_METHOD(strongbranchcb, DOC("strongbranchcb($self, /, bndind, bndtype, bndval, itrlimit, objval, status, sbsolvecb, vContext)",
                                  "Strong branching on the LP relaxation as strongbranch, calling "
                                  "sbsolvecb(problem, vContext, ibnd) after each branch is solved (a non-zero result "
                                  "ends it). Fills objval and status. Returns None.")),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

PyObject* strongbranch_method(PyObject* self, PyObject* args, PyObject* kw) { return strong(self, args, kw, false); }

const PyMethodDef* cut_methods() { return methods; }

}  // namespace ll
}  // namespace tarvo
