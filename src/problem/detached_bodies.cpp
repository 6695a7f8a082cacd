// Constraints whose body lives in the library row. Once a linear constraint is in a problem,
// the row holds exactly its body's terms (the library keeps the coefficients as given, the
// body has no constant, no duplicate and no zero term), so a body that nothing else refers to
// is released and the constraint keeps only a link to the problem, which knows the row by the
// constraint's serial. The body is made again from the row, equal to the one released, when it
// is asked for, and for every linked constraint of a problem before anything could change or
// delete its rows or columns (any method not known to leave them alone) and before the problem
// goes. A model built from a list of constraints then costs one small object per row in Python
// instead of an object, an expression and a term map.
#include "problem/problem.h"
#include "model/model.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <cstring>
#include <vector>

namespace tarvo {

namespace {

inline ConstraintObject* as_con(PyObject* o) { return reinterpret_cast<ConstraintObject*>(o); }

inline PyObject* link_of(ProblemObject* p) {
    return reinterpret_cast<PyObject*>(reinterpret_cast<uintptr_t>(p) | 1u);
}

inline ProblemObject* linked_problem(const ConstraintObject* c) {
    return reinterpret_cast<ProblemObject*>(reinterpret_cast<uintptr_t>(c->body) & ~uintptr_t(1));
}

// The expression of one row: the variables of its columns with their coefficients, ordered by
// serial as every term map is. A new reference, or null with an exception set.
PyObject* row_expression(ProblemObject* p, const int* cols, const double* vals, int64_t n) {
    PyRef e(expr_new_sized(static_cast<size_t>(n)));
    if (!e) return nullptr;
    std::vector<LinEntry> terms(static_cast<size_t>(n));
    const Py_ssize_t nvars = PyList_GET_SIZE(p->vars);
    for (int64_t k = 0; k < n; ++k) {
        if (cols[k] < 0 || cols[k] >= nvars) {
            PyErr_SetString(InterfaceError, "Internal error: a constraint's row refers to an unknown column");
            return nullptr;
        }
        terms[static_cast<size_t>(k)] = LinEntry{PyList_GET_ITEM(p->vars, cols[k]), vals[k]};
    }
    std::sort(terms.begin(), terms.end(),
              [](const LinEntry& a, const LinEntry& b) { return var_serial(a.first) < var_serial(b.first); });
    ExpressionObject* x = as_expr(e.get());
    x->linear = &x->linear_store;
    x->linear->reserve(terms.size());
    for (const LinEntry& t : terms) {
        Py_INCREF(t.first);
        x->linear->append_sorted(t.first, t.second);
    }
    return e.release();
}

// Makes the body of the linked constraint c of p again from the row at `row`.
int rebuild(ProblemObject* p, PyObject* c, const int* cols, const double* vals, int64_t n) {
    PyObject* body = alloc_guard(nullptr, [&] { return row_expression(p, cols, vals, n); });
    if (!body) return -1;
    as_con(c)->body = body;
    --p->detached;
    return 0;
}

// Gives up the link of c when its body cannot be made again (out of memory, or lists that no
// longer agree with the library): the constraint stays without body, which every use of it
// reports, rather than keeping a link that could outlive the problem.
void drop_link(ProblemObject* p, PyObject* c) {
    as_con(c)->body = nullptr;
    --p->detached;
}

}  // namespace

bool con_body_linked(PyObject* c) { return reinterpret_cast<uintptr_t>(as_con(c)->body) & 1u; }

int con_body(PyObject* c, PyObject** body) {
    ConstraintObject* con = as_con(c);
    if (!(reinterpret_cast<uintptr_t>(con->body) & 1u)) {
        *body = con->body;
        return 0;
    }
    ProblemObject* p = linked_problem(con);
    auto it = p->rowmap->find(con_serial(c));
    int64_t n = 0;
    if (it == p->rowmap->end() || TRVOgetrows64(p->prob, nullptr, nullptr, nullptr, 0, &n, it->second, it->second) != 0) {
        drop_link(p, c);
        PyErr_Clear();
        PyErr_SetString(InterfaceError, "Internal error: the row of a constraint could not be read");
        return -1;
    }
    std::vector<int64_t> start(2);
    std::vector<int> cols(static_cast<size_t>(n));
    std::vector<double> vals(static_cast<size_t>(n));
    if (TRVOgetrows64(p->prob, start.data(), cols.data(), vals.data(), n, &n, it->second, it->second) != 0 ||
        rebuild(p, c, cols.data(), vals.data(), n) < 0) {
        if (con_body_linked(c)) drop_link(p, c);
        if (!PyErr_Occurred()) PyErr_SetString(InterfaceError, "Internal error: the row of a constraint could not be read");
        return -1;
    }
    *body = con->body;
    return 0;
}

void detach_bodies(ProblemObject* p, Py_ssize_t from) {
    const Py_ssize_t n = PyList_GET_SIZE(p->cons);
    if (from < n && (p->detached == 0 || from < p->detached_from)) p->detached_from = from;
    for (Py_ssize_t i = from; i < n; ++i) {
        PyObject* c = PyList_GET_ITEM(p->cons, i);
        PyObject* body = as_con(c)->body;
        // Only a plain linear expression that the constraint alone holds: anyone else holding
        // it could tell a body made again from the one released.
        if (!body || Py_TYPE(body) != &ExpressionType || Py_REFCNT(body) != 1) continue;
        ExpressionObject* e = as_expr(body);
        if (e->constant != 0.0 || !e->linear || e->linear->empty() || (e->quadratic && !e->quadratic->empty()))
            continue;
        as_con(c)->body = link_of(p);
        ++p->detached;
        Py_DECREF(body);
    }
}

int restore_bodies(ProblemObject* p) {
    if (p->detached <= 0 || !p->cons) return 0;
    PyObject *type, *value, *tb;
    PyErr_Fetch(&type, &value, &tb);  // may run while an error is pending (deallocation)
    // Only the constraints from the first released one on are looked at, and only their rows
    // read: a problem that releases and restores a few rows at a time pays for those rows.
    const Py_ssize_t n = PyList_GET_SIZE(p->cons);
    std::vector<std::pair<Py_ssize_t, int>> linked;  // list position, row
    int lo = INT32_MAX, hi = -1, nrows = 0;
    bool read = TRVOgetintattrib(p->prob, 1124, &nrows) == 0;
    auto scan = [&](Py_ssize_t first) {
        linked.clear();
        lo = INT32_MAX, hi = -1;
        for (Py_ssize_t i = first; i < n; ++i) {
            PyObject* c = PyList_GET_ITEM(p->cons, i);
            if (!con_body_linked(c) || linked_problem(as_con(c)) != p) continue;
            auto it = p->rowmap->find(con_serial(c));
            int row = it == p->rowmap->end() || it->second >= nrows ? -1 : it->second;
            linked.emplace_back(i, row);
            if (row >= 0) lo = std::min(lo, row), hi = std::max(hi, row);
        }
    };
    scan(std::max<Py_ssize_t>(0, std::min(p->detached_from, n)));
    if (static_cast<Py_ssize_t>(linked.size()) < p->detached) scan(0);  // not expected: look everywhere
    int64_t total = 0;
    std::vector<int64_t> start;
    std::vector<int> cols;
    std::vector<double> vals;
    if (read && hi >= 0) {
        read = TRVOgetrows64(p->prob, nullptr, nullptr, nullptr, 0, &total, lo, hi) == 0;
        try {
            start.resize(static_cast<size_t>(hi - lo) + 2);
            cols.resize(static_cast<size_t>(total));
            vals.resize(static_cast<size_t>(total));
        } catch (const std::bad_alloc&) {
            read = false;
        }
        read = read && TRVOgetrows64(p->prob, start.data(), cols.data(), vals.data(), total, &total, lo, hi) == 0;
    }
    int rc = 0;
    for (const auto& [i, row] : linked) {
        PyObject* c = PyList_GET_ITEM(p->cons, i);
        if (!read || row < 0) {
            drop_link(p, c);
            rc = -1;
            continue;
        }
        size_t r = static_cast<size_t>(row - lo);
        if (rebuild(p, c, cols.data() + start[r], vals.data() + start[r], start[r + 1] - start[r]) < 0) {
            PyErr_Clear();
            drop_link(p, c);
            rc = -1;
        }
    }
    p->detached = 0;
    p->detached_from = n;
    PyErr_Restore(type, value, tb);
    if (rc < 0 && !PyErr_Occurred())
        PyErr_SetString(InterfaceError, "Internal error: the rows of some constraints could not be read");
    return rc;
}

namespace {

// Methods that change neither rows nor columns already in the problem: they leave the links.
bool keeps_rows(ProblemObject* p, const char* name) {
    static const char* const safe[] = {
        "addVariable", "addConstraint", "addSOS", "addIndicator", "setObjective", "getSolution", "getDual", "getSlack",
        "getRCost", "getObjVal", "getProbStatus", "getProbStatusString", "getVariable", "getConstraint", "getSOS",
        "getIndex", "getAttrib", "getControl", "setControl", "controls", "attributes", "name", "write", "copy",
        "addcbmessage", "removecbmessage", "setOutputEnabled"};
    if (std::strncmp(name, "__", 2) == 0) return true;
    for (const char* s : safe)
        if (std::strcmp(name, s) == 0) return true;
    // The linear and mixed-integer solves read the rows; the nonlinear solver may work on them.
    if (std::strcmp(name, "solve") == 0) return !problem_is_nonlinear(p);
    // Queries (getrows, getlb, getSolution, ...) read, never write.
    return std::strncmp(name, "get", 3) == 0;
}

}  // namespace

PyObject* problem_getattro(PyObject* self, PyObject* name) {
    ProblemObject* p = as_prob(self);
    if (p->detached > 0) {
        const char* s = PyUnicode_Check(name) ? PyUnicode_AsUTF8(name) : nullptr;
        if (!s) PyErr_Clear();
        if ((!s || !keeps_rows(p, s)) && restore_bodies(p) < 0) return nullptr;
    }
    return PyObject_GenericGetAttr(self, name);
}

}  // namespace tarvo
