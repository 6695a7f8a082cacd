// Branching objects: descriptions of how a node of the tree search is split into branches.
// The object holds the library's branching-object handle, the problem it belongs to and
// whether its branches are in the columns of the original problem. Its methods forward to the
// library's TRVO_bo_* functions; failures become exceptions through report_error.
#include "model/model.h"
#include "module/common.h"
#include "module/types.h"
#include "nonlinear/node.h"
#include "problem/body.h"
#include "problem/lowlevel.h"
#include "problem/problem.h"

#include <cmath>
#include <map>
#include <string>
#include <vector>

namespace tarvo {

namespace {

struct BranchObject {
    PyObject_HEAD
    TRVObranchobject handle;  // library branching object, or null once handed over to the library
    PyObject* problem;        // owning problem (counted), or null
    int32_t isoriginal;       // 1 when branches are given in the original problem's columns
};

BranchObject* as_bo(PyObject* o) { return reinterpret_cast<BranchObject*>(o); }

const char* const kCreationError =
    "Incorrect creation of branching object: must provide a problem and, optionally, a list of branches and a "
    "True/False flag. The flag must be True if the list of branches is provided";

// The problem a method works with: null with an exception when the object has no handle (it was
// stored) or its problem is gone (a callback's problem after the callback returned).
ProblemObject* live(PyObject* self) {
    BranchObject* b = as_bo(self);
    if (!b->handle) {
        report_error(self, nullptr);
        return nullptr;
    }
    if (!b->problem || !is_problem(b->problem) || !as_prob(b->problem)->prob) {
        PyErr_SetString(SolverError,
                        "The problem of this branching object no longer exists: a branching object given to or made "
                        "in a callback can only be used during that callback");
        return nullptr;
    }
    return as_prob(b->problem);
}

// The library's result: None (or the given value) on success, else the object's last error.
PyObject* finish(PyObject* self, int rc, PyObject* value = nullptr) {
    if (rc != 0 || PyErr_Occurred()) {
        Py_XDECREF(value);
        return report_error(self, nullptr);
    }
    if (value) return value;
    Py_RETURN_NONE;
}

// ---------------------------------------------------------------- construction

constexpr double kHalfInf = 5e19;
constexpr double kInfBound = 1e20;

int branch_error(int i, const char* reason) {
    PyErr_Format(ModelError, "Branch %i is invalid: %s", i, reason);
    return -1;
}

// The single variable and coefficient of a one-term body (var, linterm, or an expression with
// one linear term and nothing quadratic); false for any other body.
bool one_term(PyObject* body, PyObject** var, double* coef, double* constant) {
    *constant = 0;
    if (is_var(body)) {
        *var = body;
        *coef = 1.0;
        return true;
    }
    if (is_linterm(body)) {
        LinTermObject* t = reinterpret_cast<LinTermObject*>(body);
        *var = t->var;
        *coef = t->coef;
        return true;
    }
    if (is_expression(body)) {
        ExpressionObject* e = as_expr(body);
        if (e->quadratic && !e->quadratic->empty()) return false;
        if (!e->linear || e->linear->size() != 1) return false;
        *var = e->linear->begin()->first;
        *coef = e->linear->begin()->second;
        *constant = e->constant;
        return true;
    }
    return false;
}

bool has_quadratic(PyObject* body) {
    if (is_quadterm(body)) return true;
    return is_expression(body) && as_expr(body)->quadratic && !as_expr(body)->quadratic->empty();
}

// Adds one constraint of branch i to the library object.
int add_constraint(ProblemObject* p, TRVObranchobject h, int i, PyObject* con) {
    PyObject* body = nullptr;
    if (con_body(con, &body) < 0) return -1;
    if (!body || !(is_number(body) || is_var(body) || is_linterm(body) || is_quadterm(body) || is_expression(body)) ||
        has_quadratic(body)) {
        if (body && (is_nonlinear(body) || has_quadratic(body))) {
            PyErr_Format(ModelError, "Branch %i contains a quadratic or nonlinear constraint, invalid", i);
            return -1;
        }
        return branch_error(i, "element of branch not of the valid type (constraint)");
    }
    const uint64_t word = reinterpret_cast<ConstraintObject*>(con)->word;
    const double lb = con_get_lb(word), ub = con_get_ub(word);
    PyObject* var = nullptr;
    double a = 0, c = 0;
    if (one_term(body, &var, &a, &c)) {
        if (a == 0.0) {
            PyErr_SetString(ModelError, "Coefficient zero in branch");
            return -1;
        }
        if (!is_var(var)) {
            PyErr_SetString(ModelError, "Invalid constraint in addbounds");
            return -1;
        }
        auto it = p->colmap->find(var_serial(var));
        if (it == p->colmap->end()) {
            PyErr_SetString(ModelError, "Variable in branching object has not been added to problem yet");
            return -1;
        }
        // The body's constant moves to the bounds.
        const double l = lb > -kHalfInf ? lb - c : lb, u = ub < kHalfInf ? ub - c : ub;
        double newlb = -kInfBound * 2, newub = kInfBound * 2;
        if (a > 0) {
            if (l > -kHalfInf) newlb = l / a;
            if (u < kHalfInf) newub = u / a;
        } else {
            if (u < kHalfInf) newlb = u / a;
            if (l > -kHalfInf) newub = l / a;
        }
        char types[2];
        int cols[2];
        double vals[2];
        int n = 0;
        if (newlb > -kInfBound) types[n] = 'L', cols[n] = it->second, vals[n++] = newlb;
        if (newub < kInfBound) types[n] = 'U', cols[n] = it->second, vals[n++] = newub;
        return TRVO_bo_addbounds(h, i, n, types, cols, vals) == 0 ? 0 : -1;
    }
    PolyParts parts;
    if (polynomial_parts(p, body, false, parts) < 0) return -1;
    if (!parts.quad.empty()) {
        PyErr_Format(ModelError, "Branch %i contains a quadratic or nonlinear constraint, invalid", i);
        return -1;
    }
    std::vector<int> cols;
    std::vector<double> vals;
    for (const auto& t : parts.lin) {
        cols.push_back(t.first);
        vals.push_back(t.second);
    }
    const double cst = parts.constant;
    const int nel = static_cast<int>(cols.size());
    const int start = 0;
    auto add_row = [&](char type, double rhs) {
        return TRVO_bo_addrows(h, i, 1, nel, &type, &rhs, &start, cols.data(), vals.data()) == 0 ? 0 : -1;
    };
    if (lb <= -kInfBound && ub >= kInfBound) {
        PyErr_SetString(ModelError, "Branch cannot have a free row");
        return -1;
    }
    if (lb <= -kInfBound) return add_row('L', ub - cst);
    if (ub >= kInfBound) return add_row('G', lb - cst);
    if (lb == ub) return add_row('E', lb - cst);
    if (add_row('G', lb - cst) < 0) return -1;
    return add_row('L', ub - cst);
}

int add_branches(ProblemObject* p, TRVObranchobject h, PyObject* branches) {
    if (!PyList_Check(branches) && !PyTuple_Check(branches)) {
        PyErr_SetString(ModelError,
                        "The branches parameter must be a list or a tuple of elements. Each element of the list/tuple "
                        "must be a constraint, a variable bound, or a list/tuple thereof.");
        return -1;
    }
    const Py_ssize_t n = PySequence_Fast_GET_SIZE(branches);
    if (TRVO_bo_addbranches(h, static_cast<int>(n)) != 0) return -1;
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* el = PySequence_GetItem(branches, i);
        if (!el) {
            PyErr_Clear();
            return branch_error(static_cast<int>(i), "could not get element of branch");
        }
        PyRef hold(el);
        if (is_constraint(el)) {
            if (add_constraint(p, h, static_cast<int>(i), el) < 0) return -1;
            continue;
        }
        if (!PyList_Check(el) && !PyTuple_Check(el))
            return branch_error(static_cast<int>(i), "element of branch not of the valid type (constraint)");
        const Py_ssize_t m = PySequence_Size(el);
        for (Py_ssize_t k = 0; k < m; ++k) {
            PyObject* con = PySequence_GetItem(el, k);
            if (!con) {
                PyErr_Clear();
                return branch_error(static_cast<int>(i), "could not get element of branch");
            }
            PyRef hold_con(con);
            if (!is_constraint(con))
                return branch_error(static_cast<int>(i), "element of branch not of the valid type (constraint)");
            if (add_constraint(p, h, static_cast<int>(i), con) < 0) return -1;
        }
    }
    return 0;
}

int branchobj_init(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"prob", "branches", "isoriginal", nullptr};
    BranchObject* b = as_bo(self);
    PyObject* prob = nullptr;
    PyObject* branches = nullptr;
    PyObject* flag = nullptr;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "|OOO:branchobj", const_cast<char**>(kwlist), &prob, &branches,
                                     &flag) ||
        !prob || !is_problem(prob)) {
        PyErr_Clear();
        PyErr_SetString(ModelError, kCreationError);
        return -1;
    }
    int isoriginal = 0;
    if (!flag || flag == Py_True) isoriginal = 1;
    else if (is_index_integer(flag) && !PyBool_Check(flag)) {
        isoriginal = index_integer_value(flag) == 1 ? 1 : 0;
        if (PyErr_Occurred()) PyErr_Clear();
    }
    const bool have_branches = branches && branches != Py_None;
    if (!isoriginal && have_branches) {
        PyErr_SetString(ModelError, "Cannot define the branches of a branching object if the isoriginal flag is false");
        return -1;
    }
    // A second initialisation starts afresh.
    if (b->handle) {
        TRVO_bo_destroy(b->handle);
        b->handle = nullptr;
    }
    Py_INCREF(prob);
    Py_XSETREF(b->problem, prob);
    b->isoriginal = isoriginal;
    ProblemObject* p = as_prob(prob);
    if (!p->prob) {
        PyErr_SetString(SolverError, "The problem of this branching object no longer exists: a callback's problem "
                                     "can only be used during that callback");
        return -1;
    }
    if (TRVO_bo_create(&b->handle, p->prob, isoriginal) != 0) {
        report_error(prob, nullptr);
        return -1;
    }
    if (!have_branches) return 0;
    if (add_branches(p, b->handle, branches) < 0) {
        report_error(self, nullptr);
        return -1;
    }
    return 0;
}

// The problem reference can close a cycle (a branching object kept in a callback's data, say).
int branchobj_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(as_bo(self)->problem);
    return 0;
}

int branchobj_clear(PyObject* self) {
    Py_CLEAR(as_bo(self)->problem);
    return 0;
}

void branchobj_dealloc(PyObject* self) {
    PyObject_GC_UnTrack(self);
    BranchObject* b = as_bo(self);
    if (b->handle) TRVO_bo_destroy(b->handle);
    b->handle = nullptr;
    Py_CLEAR(b->problem);
    Py_TYPE(self)->tp_free(self);
}

// ---------------------------------------------------------------- methods

PyObject* m_addbranches(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"nbranches", nullptr};
    int n = 0;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "i:addbranches", const_cast<char**>(kwlist), &n)) return nullptr;
    if (!live(self)) return nullptr;
    return finish(self, TRVO_bo_addbranches(as_bo(self)->handle, n));
}

PyObject* m_addbounds(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"ibranch", "bndtype", "bndcol", "bndval", nullptr};
    int ib = 0;
    PyObject *t = Py_None, *c = Py_None, *v = Py_None;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "iOOO:addbounds", const_cast<char**>(kwlist), &ib, &t, &c, &v))
        return nullptr;
    ProblemObject* p = live(self);
    if (!p) return nullptr;
    ll::Arrays arr(p);
    char* types = arr.chars(t);
    int* cols = arr.ints(c, CONV_COL);
    double* vals = arr.dbls(v);
    if (!arr.ok) return report_error(self, nullptr);
    return finish(self, TRVO_bo_addbounds(as_bo(self)->handle, ib, arr.count(), types, cols, vals));
}

PyObject* m_addrows(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"ibranch", "rtype", "rhs", "beg", "mcol", "val", nullptr};
    int ib = 0;
    PyObject *t = Py_None, *r = Py_None, *b = Py_None, *c = Py_None, *v = Py_None;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "iOOOOO:addrows", const_cast<char**>(kwlist), &ib, &t, &r, &b, &c, &v))
        return nullptr;
    ProblemObject* p = live(self);
    if (!p) return nullptr;
    // Row arrays share one length, element arrays another.
    ll::Arrays rows(p), elems(p);
    char* types = rows.chars(t);
    double* rhs = rows.dbls(r);
    int* beg = rows.ints(b);
    int* cols = rows.ok ? elems.ints(c, CONV_COL) : nullptr;
    double* vals = elems.dbls(v);
    if (!rows.ok || !elems.ok) return report_error(self, nullptr);
    return finish(self, TRVO_bo_addrows(as_bo(self)->handle, ib, rows.count(), elems.count(), types, rhs, beg, cols,
                                        vals));
}

PyObject* m_addcuts(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"ibranch", "cutind", nullptr};
    int ib = 0;
    PyObject* cuts = Py_None;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "iO:addcuts", const_cast<char**>(kwlist), &ib, &cuts)) return nullptr;
    ProblemObject* p = live(self);
    if (!p) return nullptr;
    ll::Arrays arr(p);
    void* const* handles = static_cast<void* const*>(arr.get(cuts, CONV_POOLCUT));
    if (!arr.ok) return report_error(self, nullptr);
    return finish(self, TRVO_bo_addcuts(as_bo(self)->handle, ib, arr.count(), handles));
}

PyObject* m_getbounds(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"ibranch", "nbounds_size", "bndtype", "bndcol", "bndval", nullptr};
    int ib = 0, size = 0;
    PyObject *t = Py_None, *c = Py_None, *v = Py_None;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "ii|OOO:getbounds", const_cast<char**>(kwlist), &ib, &size, &t, &c, &v))
        return nullptr;
    ProblemObject* p = live(self);
    if (!p) return nullptr;
    const size_t room = static_cast<size_t>(std::max(size, 0));
    std::vector<char> types(room + 1);
    std::vector<int> cols(room + 1);
    std::vector<double> vals(room + 1);
    int count = 0;
    if (TRVO_bo_getbounds(as_bo(self)->handle, ib, &count, size, types.data(), cols.data(), vals.data()) != 0)
        return report_error(self, nullptr);
    const int64_t m = std::min<int64_t>(count, static_cast<int64_t>(room));
    if (conv_arr2obj(p, m, types.data(), t, CONV_CHAR) < 0 || conv_arr2obj(p, m, cols.data(), c, CONV_COL) < 0 ||
        conv_arr2obj(p, m, vals.data(), v, CONV_DOUBLE) < 0)
        return report_error(self, nullptr);
    return PyLong_FromLong(count);
}

PyObject* m_getrows(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"ibranch", "nrows_size", "nelems_size", "rtype", "rrhs", "rbeg", "mcol", "dval",
                                   nullptr};
    int ib = 0, rsize = 0, esize = 0;
    PyObject *t = Py_None, *r = Py_None, *b = Py_None, *c = Py_None, *v = Py_None;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "iii|OOOOO:getrows", const_cast<char**>(kwlist), &ib, &rsize, &esize,
                                     &t, &r, &b, &c, &v))
        return nullptr;
    ProblemObject* p = live(self);
    if (!p) return nullptr;
    const size_t rroom = static_cast<size_t>(std::max(rsize, 0)), eroom = static_cast<size_t>(std::max(esize, 0));
    std::vector<char> types(rroom + 1);
    std::vector<double> rhs(rroom + 1), vals(eroom + 1);
    std::vector<int> beg(rroom + 1), cols(eroom + 1);
    int nrows = 0, nelems = 0;
    if (TRVO_bo_getrows(as_bo(self)->handle, ib, &nrows, rsize, &nelems, esize, types.data(), rhs.data(), beg.data(),
                        cols.data(), vals.data()) != 0)
        return report_error(self, nullptr);
    const int64_t m = std::min<int64_t>(nrows, static_cast<int64_t>(rroom));
    const int64_t e = std::min<int64_t>(nelems, static_cast<int64_t>(eroom));
    if (conv_arr2obj(p, m, types.data(), t, CONV_CHAR) < 0 || conv_arr2obj(p, m, rhs.data(), r, CONV_DOUBLE) < 0 ||
        conv_arr2obj(p, m, beg.data(), b, CONV_INT) < 0 || conv_arr2obj(p, e, cols.data(), c, CONV_COL) < 0 ||
        conv_arr2obj(p, e, vals.data(), v, CONV_DOUBLE) < 0)
        return report_error(self, nullptr);
    return PyLong_FromLong(nrows);
}

PyObject* m_getbranches(PyObject* self, PyObject*) {
    if (!as_bo(self)->handle) return report_error(self, nullptr);
    int n = 0;
    if (TRVO_bo_getbranches(as_bo(self)->handle, &n) != 0) return report_error(self, nullptr);
    return PyLong_FromLong(n);
}

PyObject* m_setpriority(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"priority", nullptr};
    int v = 0;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "i:setpriority", const_cast<char**>(kwlist), &v)) return nullptr;
    if (!as_bo(self)->handle) return report_error(self, nullptr);
    return finish(self, TRVO_bo_setpriority(as_bo(self)->handle, v));
}

PyObject* m_setpreferredbranch(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"ibranch", nullptr};
    int v = 0;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "i:setpreferredbranch", const_cast<char**>(kwlist), &v)) return nullptr;
    if (!as_bo(self)->handle) return report_error(self, nullptr);
    return finish(self, TRVO_bo_setpreferredbranch(as_bo(self)->handle, v));
}

PyObject* m_getid(PyObject* self, PyObject*) {
    if (!as_bo(self)->handle) Py_RETURN_NONE;
    int id = 0;
    if (TRVO_bo_getid(as_bo(self)->handle, &id) != 0) return report_error(self, nullptr);
    return PyLong_FromLong(id);
}

PyObject* m_store(PyObject* self, PyObject*) {
    if (!live(self)) return nullptr;
    int id = 0;
    if (TRVO_bo_store(as_bo(self)->handle, &id) != 0) return report_error(self, nullptr);
    // The library owns the object now.
    as_bo(self)->handle = nullptr;
    return PyLong_FromLong(id);
}

PyObject* m_validate(PyObject* self, PyObject*) {
    if (!live(self)) return nullptr;
    int status = 0;
    if (TRVO_bo_validate(as_bo(self)->handle, &status) != 0) return report_error(self, nullptr);
    return PyLong_FromLong(status);
}

PyObject* m_getlasterror(PyObject* self, PyObject*) {
    if (!as_bo(self)->handle) return report_error(self, nullptr);
    char buf[2048];
    buf[0] = '\0';
    int code = 0;
    if (TRVO_bo_getlasterror(as_bo(self)->handle, &code, buf, 2047, nullptr) != 0) return report_error(self, nullptr);
    buf[sizeof buf - 1] = '\0';
    return Py_BuildValue("(is)", code, buf);
}

#define KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(f))

PyMethodDef branchobj_methods[] = {
    {"addbranches", KW(m_addbranches), METH_VARARGS | METH_KEYWORDS,
     DOC("addbranches($self, /, nbranches)", "Add nbranches empty branches. Returns None.")},
    {"addbounds", KW(m_addbounds), METH_VARARGS | METH_KEYWORDS,
     DOC("addbounds($self, /, ibranch, bndtype, bndcol, bndval)",
         "Add bound changes to branch ibranch: types 'L' (lower), 'U' (upper) or 'B' (both), columns and values. "
         "Returns None.")},
    {"addrows", KW(m_addrows), METH_VARARGS | METH_KEYWORDS,
     DOC("addrows($self, /, ibranch, rtype, rhs, beg, mcol, val)",
         "Add rows to branch ibranch: types 'L', 'G' or 'E', right-hand sides, the start of each row in mcol/val, "
         "and the rows' columns and coefficients. Returns None.")},
    {"addcuts", KW(m_addcuts), METH_VARARGS | METH_KEYWORDS,
     DOC("addcuts($self, /, ibranch, cutind)",
         "Add cuts (poolcut objects of this problem) to branch ibranch: when the object drives a branching of "
         "the tree search, they become active rows of that child and its subtree. Returns None; raises "
         "SolverError for an unknown or deleted cut or a branch that does not exist.")},
    {"getbounds", KW(m_getbounds), METH_VARARGS | METH_KEYWORDS,
     DOC("getbounds($self, /, ibranch, nbounds_size, bndtype=None, bndcol=None, bndval=None)",
         "Fill the given lists with up to nbounds_size bound changes of branch ibranch. Returns the number of "
         "bounds of the branch.")},
    {"getrows", KW(m_getrows), METH_VARARGS | METH_KEYWORDS,
     DOC("getrows($self, /, ibranch, nrows_size, nelems_size, rtype=None, rrhs=None, rbeg=None, mcol=None, "
         "dval=None)",
         "Fill the given lists with up to nrows_size rows (types, right-hand sides, starts) and nelems_size "
         "elements of branch ibranch. Returns the number of rows of the branch.")},
    {"getbranches", reinterpret_cast<PyCFunction>(m_getbranches), METH_NOARGS,
     DOC("getbranches($self, /)", "Returns the number of branches.")},
    {"setpriority", KW(m_setpriority), METH_VARARGS | METH_KEYWORDS,
     DOC("setpriority($self, /, priority)",
         "Set the object's priority: among stored objects, the lowest priority is used first. Returns None.")},
    {"setpreferredbranch", KW(m_setpreferredbranch), METH_VARARGS | METH_KEYWORDS,
     DOC("setpreferredbranch($self, /, ibranch)", "Make branch ibranch the child explored first. Returns None.")},
    {"getid", reinterpret_cast<PyCFunction>(m_getid), METH_NOARGS,
     DOC("getid($self, /)", "Returns the object's identifier, or None once it has been stored.")},
    {"store", reinterpret_cast<PyCFunction>(m_store), METH_NOARGS,
     DOC("store($self, /)",
         "Validate the object and hand it to the optimiser. Stored from a node callback, it splits that node "
         "when the tree search branches on it; stored before a solve, the first node branched on. The object "
         "is then empty here. Returns its identifier.")},
    {"validate", reinterpret_cast<PyCFunction>(m_validate), METH_NOARGS,
     DOC("validate($self, /)",
         "Check the object against its problem. Returns 0 when valid; 1 no branches, 2 a column outside the "
         "problem, 3 a bad bound, 4 a bad row, 5 a preferred branch that does not exist, 6 an empty branch.")},
    {"getlasterror", reinterpret_cast<PyCFunction>(m_getlasterror), METH_NOARGS,
     DOC("getlasterror($self, /)", "Returns the tuple (code, message) of the object's last error.")},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

PyTypeObject BranchObjType = [] {
    PyTypeObject t = {PyVarObject_HEAD_INIT(nullptr, 0)};
    t.tp_name = "tarvo.branchobj";
    t.tp_basicsize = sizeof(BranchObject);
    t.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC;
    t.tp_traverse = branchobj_traverse;
    t.tp_clear = branchobj_clear;
    t.tp_doc = "branchobj(prob, branches=None, isoriginal=True)\n--\n\nA branching object: how a node of the tree "
               "search is split into branches. branches is a list whose items (one per branch) are a constraint "
               "or a list of constraints: one-variable constraints become bound changes, others rows.";
    t.tp_new = PyType_GenericNew;
    t.tp_init = branchobj_init;
    t.tp_dealloc = branchobj_dealloc;
    t.tp_methods = branchobj_methods;
    return t;
}();

PyObject* branchobj_wrap(void* handle, PyObject* problem, int isoriginal) {
    PyObject* o = BranchObjType.tp_alloc(&BranchObjType, 0);
    if (!o) return nullptr;
    BranchObject* b = as_bo(o);
    b->handle = static_cast<TRVObranchobject>(handle);
    Py_XINCREF(problem);
    b->problem = problem;
    b->isoriginal = isoriginal;
    return o;
}

int branchobj_take(PyObject* o, void** handle) {
    if (!PyObject_TypeCheck(o, &BranchObjType)) return 0;
    BranchObject* b = as_bo(o);
    *handle = b->handle;
    b->handle = nullptr;
    Py_CLEAR(b->problem);
    return 1;
}

PyObject* branchobj_error(PyObject* o) {
    char buf[512];
    buf[0] = '\0';
    int code = 0;
    BranchObject* b = as_bo(o);
    if (b->handle) TRVO_bo_getlasterror(b->handle, &code, buf, sizeof buf, nullptr);
    buf[sizeof buf - 1] = '\0';
    if (code == 0 && buf[0] == '\0')
        PyErr_SetString(SolverError, "Unidentified error associated with a branching object");
    else
        PyErr_SetString(SolverError, buf);
    return nullptr;
}

}  // namespace tarvo
