// Low-level methods that run the optimisers and handle solutions, bases, starting points,
// computations on given vectors, controls and the problem's last error.
#include "problem/lowlevel.h"
#include "problem/nonlinear_bridge.h"

#include <cstring>
#include <functional>

namespace tarvo {
namespace ll {
namespace {

constexpr double INF_VALUE = 1e20;

// ---------------------------------------------------------------- optimisers

PyObject* optimize(PyObject* self, PyObject* args, PyObject* kw, const char* method, bool mip) {
    Args a(self, args, kw, method, {"?flags"});
    PyRef hold;
    const char* flags = a.ok ? flags_arg(a[0], hold) : nullptr;
    if (!flags) return nullptr;
    int rc = run_library_optimizer(a.p, mip, flags);
    if (rc == -2 || PyErr_Occurred()) return nullptr;
    return done(a.p, rc);
}

PyObject* m_lpoptimize(PyObject* self, PyObject* args, PyObject* kw) { return optimize(self, args, kw, "lpoptimize", false); }
PyObject* m_mipoptimize(PyObject* self, PyObject* args, PyObject* kw) { return optimize(self, args, kw, "mipoptimize", true); }

// ---------------------------------------------------------------- whole vectors

// Output lists by columns (true) or rows (false); each list given is sized and filled, the
// others are passed to the library as null arrays.
PyObject* vectors_get(PyObject* self, PyObject* args, PyObject* kw, const char* method,
                      std::initializer_list<const char*> names, std::initializer_list<bool> by_col,
                      const std::function<int(TRVOprob, double**)>& call) {
    Args a(self, args, kw, method, names);
    int nr = 0, nc = 0;
    if (!a.ok || rows(a.p, &nr) < 0 || cols(a.p, &nc) < 0) return nullptr;
    std::vector<double> v[4];
    double* ptr[4] = {nullptr, nullptr, nullptr, nullptr};
    int k = 0;
    for (bool c : by_col) {
        if (a.given(k)) {
            v[k].resize(static_cast<size_t>(c ? nc : nr) + 1);
            ptr[k] = v[k].data();
        }
        ++k;
    }
    if (call(a.p->prob, ptr) != 0) return problem_error(a.p);
    k = 0;
    for (bool c : by_col) {
        if (fill(a.p, a[k], c ? nc : nr, ptr[k], CONV_DOUBLE) < 0) return nullptr;
        ++k;
    }
    Py_RETURN_NONE;
}

PyObject* m_getlpsol(PyObject* self, PyObject* args, PyObject* kw) {
    return vectors_get(self, args, kw, "getlpsol", {"?x", "?slack", "?dual", "?dj"}, {true, false, false, true},
                       [](TRVOprob pr, double** v) { return TRVOgetlpsol(pr, v[0], v[1], v[2], v[3]); });
}

PyObject* m_getmipsol(PyObject* self, PyObject* args, PyObject* kw) {
    return vectors_get(self, args, kw, "getmipsol", {"?x", "?slack"}, {true, false},
                       [](TRVOprob pr, double** v) { return TRVOgetmipsol(pr, v[0], v[1]); });
}

// column and row of getlpsolval/getmipsolval: -1 when None; outside the problem an error.
int solval_indices(Args& a, int ci, int ri, int* col, int* row) {
    *col = *row = -1;
    if ((a.given(ci) && index_arg(a.p, a[ci], CONV_COL, col) < 0) || (a.given(ri) && index_arg(a.p, a[ri], CONV_ROW, row) < 0))
        return -1;
    int nr = 0, nc = 0;
    if (rows(a.p, &nr) < 0 || cols(a.p, &nc) < 0) return -1;
    if ((a.given(ci) && (*col < 0 || *col >= nc)) || (a.given(ri) && (*row < 0 || *row >= nr))) {
        PyErr_SetString(InterfaceError, "Invalid row or column index");
        return -1;
    }
    return 0;
}

PyObject* m_getlpsolval(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getlpsolval", {"column", "row"});
    int col, row;
    if (!a.ok || solval_indices(a, 0, 1, &col, &row) < 0) return nullptr;
    double x = -INF_VALUE, slack = -INF_VALUE, dual = -INF_VALUE, dj = -INF_VALUE;
    if (TRVOgetlpsolval(a.p->prob, col, row, &x, &slack, &dual, &dj) != 0) return problem_error(a.p);
    return Py_BuildValue("(dddd)", x, slack, dual, dj);
}

PyObject* m_getmipsolval(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getmipsolval", {"column", "row"});
    int col, row;
    if (!a.ok || solval_indices(a, 0, 1, &col, &row) < 0) return nullptr;
    double x = -INF_VALUE, slack = -INF_VALUE;
    if (TRVOgetmipsolval(a.p->prob, col, row, &x, &slack) != 0) return problem_error(a.p);
    return Py_BuildValue("(dd)", x, slack);
}

// ---------------------------------------------------------------- bases

PyObject* m_getbasis(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getbasis", {"?rstatus", "?cstatus"});
    int nr = 0, nc = 0;
    if (!a.ok || rows(a.p, &nr) < 0 || cols(a.p, &nc) < 0) return nullptr;
    std::vector<int> r(static_cast<size_t>(nr) + 1), c(static_cast<size_t>(nc) + 1);
    if (TRVOgetbasis(a.p->prob, a.given(0) ? r.data() : nullptr, a.given(1) ? c.data() : nullptr) != 0)
        return problem_error(a.p);
    if (fill(a.p, a[0], nr, r.data(), CONV_INT) < 0 || fill(a.p, a[1], nc, c.data(), CONV_INT) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_getbasisval(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getbasisval", {"row", "column"});
    int col = -1, row = -1;
    if (!a.ok || solval_indices(a, 1, 0, &col, &row) < 0) return nullptr;
    int rs = -1, cs = -1;
    if (TRVOgetbasisval(a.p->prob, row, col, &rs, &cs) != 0) return problem_error(a.p);
    return Py_BuildValue("(ii)", rs, cs);
}

PyObject* m_loadbasis(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "loadbasis", {"?rstatus", "?cstatus"});
    if (!a.ok || a.missing({0, 1}, "Must provide argument rstatus, cstatus")) return nullptr;
    int nr = 0, nc = 0;
    if (rows(a.p, &nr) < 0 || cols(a.p, &nc) < 0) return nullptr;
    Arrays r(a.p, nr), c(a.p, nc);
    int* rs = r.ints(a[0]);
    int* cs = c.ints(a[1]);
    if (!r.ok || !c.ok) return nullptr;
    return done(a.p, TRVOloadbasis(a.p->prob, rs, cs));
}

// ---------------------------------------------------------------- starting points

PyObject* m_loadmipsol(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "loadmipsol", {"?dsol"});
    int nc = 0;
    if (!a.ok || a.missing({0}, "Must provide argument dsol") || cols(a.p, &nc) < 0) return nullptr;
    Arrays x(a.p, nc);
    double* d = x.dbls(a[0]);
    if (!x.ok) return nullptr;
    int status = 0;
    if (TRVOloadmipsol(a.p->prob, d, &status) != 0) return problem_error(a.p);
    return PyLong_FromLong(status);
}

PyObject* m_addmipsol(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "addmipsol", {"?mipsolval", "?mipsolcol", "?solname"});
    if (!a.ok || a.missing({0}, "Must provide argument mipsolval")) return nullptr;
    Arrays x(a.p);
    double* v = x.dbls(a[0]);
    int* c = x.ints(a[1], CONV_COL);
    if (!x.ok) return nullptr;
    PyRef hold;
    const char* name = a.given(2) ? str_arg(a[2], "solname", hold) : nullptr;
    if (a.given(2) && !name) return nullptr;
    if (!c) {
        int nc = 0;
        if (cols(a.p, &nc) < 0) return nullptr;
        if (x.count() > nc) {
            PyErr_Format(ModelError, "Mismatched lengths in arguments: expected %d, found %d", nc, x.count());
            return nullptr;
        }
    }
    return done(a.p, TRVOaddmipsol(a.p->prob, x.count(), v, c, name));
}

PyObject* m_loadlpsol(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "loadlpsol", {"?x", "?slack", "?dual", "?dj"});
    int nr = 0, nc = 0;
    if (!a.ok || rows(a.p, &nr) < 0 || cols(a.p, &nc) < 0) return nullptr;
    Arrays c(a.p, nc), r(a.p, nr), d(a.p, nr), j(a.p, nc);
    double* x = c.dbls(a[0]);
    double* slack = r.dbls(a[1]);
    double* dual = d.dbls(a[2]);
    double* dj = j.dbls(a[3]);
    if (!c.ok || !r.ok || !d.ok || !j.ok) return nullptr;
    int status = 0;
    if (TRVOloadlpsol(a.p->prob, x, slack, dual, dj, &status) != 0) return problem_error(a.p);
    return PyLong_FromLong(status);
}

PyObject* m_postsolve(PyObject* self, PyObject*) { return done(as_prob(self), TRVOpostsolve(as_prob(self)->prob)); }

// ---------------------------------------------------------------- computations on given vectors

PyObject* m_calcobjective(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "calcobjective", {"?solution"});
    int nc = 0;
    if (!a.ok || a.missing({0}, "Must provide argument solution") || cols(a.p, &nc) < 0) return nullptr;
    Arrays x(a.p, nc);
    double* s = x.dbls(a[0]);
    if (!x.ok) return nullptr;
    double v = 0;
    if (TRVOcalcobjective(a.p->prob, s, &v) != 0) return problem_error(a.p);
    return PyFloat_FromDouble(v);
}

PyObject* m_calcslacks(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "calcslacks", {"?solution", "?calculatedslacks"});
    int nr = 0, nc = 0;
    if (!a.ok || a.missing({0, 1}, "Must provide arguments solution and calculatedslacks") || rows(a.p, &nr) < 0 ||
        cols(a.p, &nc) < 0)
        return nullptr;
    Arrays x(a.p, nc);
    double* s = x.dbls(a[0]);
    if (!x.ok) return nullptr;
    std::vector<double> out(static_cast<size_t>(nr) + 1);
    if (TRVOcalcslacks(a.p->prob, s, out.data()) != 0) return problem_error(a.p);
    if (fill(a.p, a[1], nr, out.data(), CONV_DOUBLE) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_calcreducedcosts(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "calcreducedcosts", {"?duals", "?solution", "?calculateddjs"});
    int nr = 0, nc = 0;
    if (!a.ok || a.missing({0, 2}, "Must provide arguments duals and calculateddjs") || rows(a.p, &nr) < 0 ||
        cols(a.p, &nc) < 0)
        return nullptr;
    Arrays y(a.p, nr), x(a.p, nc);
    double* d = y.dbls(a[0]);
    double* s = x.dbls(a[1]);
    if (!y.ok || !x.ok) return nullptr;
    std::vector<double> out(static_cast<size_t>(nc) + 1);
    if (TRVOcalcreducedcosts(a.p->prob, d, s, out.data()) != 0) return problem_error(a.p);
    if (fill(a.p, a[2], nc, out.data(), CONV_DOUBLE) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_calcsolinfo(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "calcsolinfo", {"?solution", "?dual", "property"});
    int nr = 0, nc = 0, prop = 0;
    if (!a.ok || a.missing({0, 1}, "Must provide arguments solution and dual") || int_arg(a[2], "property", &prop) < 0 ||
        rows(a.p, &nr) < 0 || cols(a.p, &nc) < 0)
        return nullptr;
    Arrays x(a.p, nc), y(a.p, nr);
    double* s = x.dbls(a[0]);
    double* d = y.dbls(a[1]);
    if (!x.ok || !y.ok) return nullptr;
    double v = 0;
    if (TRVOcalcsolinfo(a.p->prob, s, d, prop, &v) != 0) return problem_error(a.p);
    return PyFloat_FromDouble(v);
}

PyObject* m_getinfeas(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getinfeas", {"?mx", "?mslack", "?mdual", "?mdj"});
    int nr = 0, nc = 0;
    if (!a.ok || rows(a.p, &nr) < 0 || cols(a.p, &nc) < 0) return nullptr;
    int n[4] = {0, 0, 0, 0};
    std::vector<int> mx(static_cast<size_t>(nc) + 1), ms(static_cast<size_t>(nr) + 1), md(ms.size()), mj(mx.size());
    if (TRVOgetinfeas(a.p->prob, &n[0], &n[1], &n[2], &n[3], mx.data(), ms.data(), md.data(), mj.data()) != 0)
        return problem_error(a.p);
    if (fill(a.p, a[0], n[0], mx.data(), CONV_COL) < 0 || fill(a.p, a[1], n[1], ms.data(), CONV_ROW) < 0 ||
        fill(a.p, a[2], n[2], md.data(), CONV_ROW) < 0 || fill(a.p, a[3], n[3], mj.data(), CONV_COL) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

// ---------------------------------------------------------------- controls and the last error

PyObject* m_copycontrols(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "copycontrols", {"src"});
    if (!a.ok) return nullptr;
    if (!is_problem(a[0])) {
        PyErr_SetString(ModelError, "A problem must be passed for copying controls");
        return nullptr;
    }
    ProblemObject* src = as_prob(a[0]);
    if (TRVOcopycontrols(a.p->prob, src->prob) != 0) return problem_error(a.p);
    if (a.p->slp && src->slp && nonlinear_running() && TSLPcopycontrols(a.p->slp, src->slp) != 0)
        return problem_error(a.p);
    Py_RETURN_NONE;
}

PyObject* m_setdefaultcontrol(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "setdefaultcontrol", {"ipar"});
    if (!a.ok) return nullptr;
    int id = 0, type = 0;
    bool nonlinear = false;
    if (PyUnicode_Check(a[0]) || PyBytes_Check(a[0])) {
        PyRef hold;
        const char* name = str_arg(a[0], "ipar", hold);
        if (!name) return nullptr;
        int info = 0;
        if (TRVOgetcontrolinfo(a.p->prob, name, &id, &type) != 0) {
            if (!(a.p->slp && nonlinear_running() && TSLPgetcontrolinfo(name, &id, &info) == 0 && (info & 0x10) &&
                  !(info & 0x200))) {
                PyErr_SetString(InterfaceError, "Incorrect control name");
                return nullptr;
            }
            nonlinear = true;
        }
    } else {
        if (int_arg(a[0], "ipar", &id) < 0) return nullptr;
        nonlinear = id >= 12000 && id < 13000;
    }
    if (nonlinear) {
        if (!a.p->slp || !nonlinear_running()) {
            PyErr_SetString(InterfaceError, "The nonlinear library is not available for this problem");
            return nullptr;
        }
        return done(a.p, TSLPsetdefaultcontrol(a.p->slp, id));
    }
    return done(a.p, TRVOsetdefaultcontrol(a.p->prob, id));
}

PyObject* m_setdefaults(PyObject* self, PyObject*) {
    ProblemObject* p = as_prob(self);
    if (TRVOsetdefaults(p->prob) != 0) return problem_error(p);
    if (p->slp && nonlinear_running() && TSLPsetdefaults(p->slp) != 0) return problem_error(p);
    Py_RETURN_NONE;
}

PyObject* info(PyObject* self, PyObject* args, PyObject* kw, const char* method, bool control) {
    Args a(self, args, kw, method, {"name"});
    PyRef hold;
    const char* name = a.ok ? str_arg(a[0], "name", hold) : nullptr;
    if (!name) return nullptr;
    int id = 0, type = 0;
    int rc = control ? TRVOgetcontrolinfo(a.p->prob, name, &id, &type) : TRVOgetattribinfo(a.p->prob, name, &id, &type);
    if (rc != 0) return problem_error(a.p);
    return Py_BuildValue("(ii)", id, type);
}

PyObject* m_getcontrolinfo(PyObject* self, PyObject* args, PyObject* kw) { return info(self, args, kw, "getcontrolinfo", true); }
PyObject* m_getattribinfo(PyObject* self, PyObject* args, PyObject* kw) { return info(self, args, kw, "getattribinfo", false); }

PyObject* m_getlasterror(PyObject* self, PyObject*) {
    char buf[512];
    buf[0] = '\0';
    if (TRVOgetlasterror(as_prob(self)->prob, buf) != 0) return problem_error(as_prob(self));
    buf[sizeof buf - 1] = '\0';
    return PyUnicode_DecodeUTF8(buf, static_cast<Py_ssize_t>(std::strlen(buf)), "replace");
}

PyObject* m_interrupt(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "interrupt", {"reason"});
    int reason = 0;
    if (!a.ok || int_arg(a[0], "reason", &reason) < 0) return nullptr;
    return done(a.p, TRVOinterrupt(a.p->prob, reason));
}

#define NOARGS(name, doc) {#name, reinterpret_cast<PyCFunction>(m_##name), METH_NOARGS, doc}

}  // namespace

const PyMethodDef* solve_methods() {
    static const PyMethodDef t[] = {
        LL_METHOD(lpoptimize, DOC("lpoptimize($self, /, flags=None)", "Solve the linear relaxation (the interpreter lock is released). Returns None.")),
        LL_METHOD(mipoptimize, DOC("mipoptimize($self, /, flags=None)", "Solve the mixed-integer problem (the interpreter lock is released). Returns None.")),
        LL_METHOD(getlpsol, DOC("getlpsol($self, /, x=None, slack=None, dual=None, dj=None)", "Fill the given lists with the LP solution. Returns None.")),
        LL_METHOD(getmipsol, DOC("getmipsol($self, /, x=None, slack=None)", "Fill the given lists with the integer solution. Returns None.")),
        LL_METHOD(getlpsolval, DOC("getlpsolval($self, /, column, row)", "Return (x, slack, dual, dj) of a column and a row; values of an index not given are -1e20.")),
        LL_METHOD(getmipsolval, DOC("getmipsolval($self, /, column, row)", "Return (x, slack) of a column and a row of the integer solution.")),
        LL_METHOD(getbasis, DOC("getbasis($self, /, rstatus=None, cstatus=None)", "Fill the row and column basis statuses (0 at lower, 1 basic, 2 at upper, 3 superbasic). Returns None.")),
        LL_METHOD(getbasisval, DOC("getbasisval($self, /, row, column)", "Return (row status, column status).")),
        LL_METHOD(loadbasis, DOC("loadbasis($self, /, rstatus, cstatus)", "Load a starting basis for the next LP solve. Returns None.")),
        LL_METHOD(loadmipsol, DOC("loadmipsol($self, /, dsol)", "Load a full MIP start; returns 0 when it is feasible, 1 otherwise.")),
        LL_METHOD(addmipsol, DOC("addmipsol($self, /, mipsolval, mipsolcol=None, solname=None)", "Give a (partial) MIP start. Returns None.")),
        LL_METHOD(loadlpsol, DOC("loadlpsol($self, /, x=None, slack=None, dual=None, dj=None)", "Make the given vectors the current LP solution; returns the status (0).")),
        NOARGS(postsolve, DOC("postsolve($self, /)", "Return the problem to its original state (it is never left presolved). Returns None.")),
        LL_METHOD(calcobjective, DOC("calcobjective($self, /, solution)", "Return the objective value at a solution.")),
        LL_METHOD(calcslacks, DOC("calcslacks($self, /, solution, calculatedslacks)", "Fill calculatedslacks with the slacks at a solution. Returns None.")),
        LL_METHOD(calcreducedcosts, DOC("calcreducedcosts($self, /, duals, solution, calculateddjs)", "Fill calculateddjs with the reduced costs for the given duals (and solution for quadratic problems). Returns None.")),
        LL_METHOD(calcsolinfo, DOC("calcsolinfo($self, /, solution, dual, property)", "Return a measure of a solution: 0/1 absolute/relative primal infeasibility, 2/3 dual infeasibility, 4 fractionality.")),
        LL_METHOD(getinfeas, DOC("getinfeas($self, /, mx, mslack, mdual, mdj)", "Fill the lists with the primal infeasible columns and rows and the dual infeasible rows and columns of the LP solution. Returns None.")),
        LL_METHOD(copycontrols, DOC("copycontrols($self, /, src)", "Copy the controls of problem src. Returns None.")),
        LL_METHOD(setdefaultcontrol, DOC("setdefaultcontrol($self, /, ipar)", "Reset one control (name or id) to its default. Returns None.")),
        NOARGS(setdefaults, DOC("setdefaults($self, /)", "Reset all controls to their defaults. Returns None.")),
        LL_METHOD(getcontrolinfo, DOC("getcontrolinfo($self, /, name)", "Return (id, type) of a control; type 1 integer, 2 double, 3 string.")),
        LL_METHOD(getattribinfo, DOC("getattribinfo($self, /, name)", "Return (id, type) of an attribute.")),
        NOARGS(getlasterror, DOC("getlasterror($self, /)", "Return the last error message of the problem.")),
        LL_METHOD(interrupt, DOC("interrupt($self, /, reason)", "Ask a running solve to stop with the given stop reason. Returns None.")),
        {nullptr, nullptr, 0, nullptr},
    };
    return t;
}

}  // namespace ll
}  // namespace tarvo
