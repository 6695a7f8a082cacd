// Low-level methods that look at the problem through presolve (the map of the surviving rows
// and columns, the presolved solution and basis, a basis or a row given in presolved terms,
// rows and columns presolve must keep), the interior-point solution and crossover, and the
// operations that fix integer columns at a MIP solution.
#include "problem/lowlevel.h"

namespace tarvo {
namespace ll {
namespace {

// Presolved row and column counts of the current problem.
int presolved_counts(ProblemObject* p, int* nr, int* nc) {
    if (TRVOgetpresolvemap(p->prob, nullptr, nr, nullptr, nc) != 0) {
        problem_error(p);
        return -1;
    }
    return 0;
}

// Four optional output lists of columns (x, dj) and rows (slack, dual), sized nc and nr.
PyObject* four_vectors(Args& a, int nr, int nc, int (*call)(TRVOprob, double*, double*, double*, double*)) {
    std::vector<double> v[4];
    double* ptr[4] = {nullptr, nullptr, nullptr, nullptr};
    const bool by_col[4] = {true, false, false, true};
    for (int k = 0; k < 4; ++k)
        if (a.given(k)) {
            v[k].resize(static_cast<size_t>(by_col[k] ? nc : nr) + 1);
            ptr[k] = v[k].data();
        }
    if (call(a.p->prob, ptr[0], ptr[1], ptr[2], ptr[3]) != 0) return problem_error(a.p);
    for (int k = 0; k < 4; ++k)
        if (fill(a.p, a[k], by_col[k] ? nc : nr, ptr[k], CONV_DOUBLE) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_getpresolvesol(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getpresolvesol", {"?x", "?slack", "?dual", "?dj"});
    int nr = 0, nc = 0;
    if (!a.ok || presolved_counts(a.p, &nr, &nc) < 0) return nullptr;
    return four_vectors(a, nr, nc, TRVOgetpresolvesol);
}

PyObject* m_getlastbarsol(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getlastbarsol", {"?x", "?slack", "?dual", "?dj"});
    int nr = 0, nc = 0;
    if (!a.ok || rows(a.p, &nr) < 0 || cols(a.p, &nc) < 0) return nullptr;
    return four_vectors(a, nr, nc, TRVOgetlastbarsol);
}

PyObject* m_getpresolvemap(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getpresolvemap", {"?rowmap", "?colmap"});
    if (!a.ok || a.missing({0, 1}, "Must provide argument rowmap and colmap")) return nullptr;
    int nr = 0, nc = 0;
    if (presolved_counts(a.p, &nr, &nc) < 0) return nullptr;
    std::vector<int> r(static_cast<size_t>(nr) + 1), c(static_cast<size_t>(nc) + 1);
    if (TRVOgetpresolvemap(a.p->prob, r.data(), &nr, c.data(), &nc) != 0) return problem_error(a.p);
    if (fill(a.p, a[0], nr, r.data(), CONV_INT) < 0 || fill(a.p, a[1], nc, c.data(), CONV_INT) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_getpresolvebasis(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getpresolvebasis", {"?rstatus", "?cstatus"});
    int nr = 0, nc = 0;
    if (!a.ok || presolved_counts(a.p, &nr, &nc) < 0) return nullptr;
    std::vector<int> r(static_cast<size_t>(nr) + 1), c(static_cast<size_t>(nc) + 1);
    if (TRVOgetpresolvebasis(a.p->prob, a.given(0) ? r.data() : nullptr, a.given(1) ? c.data() : nullptr) != 0)
        return problem_error(a.p);
    if (fill(a.p, a[0], nr, r.data(), CONV_INT) < 0 || fill(a.p, a[1], nc, c.data(), CONV_INT) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_loadpresolvebasis(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "loadpresolvebasis", {"?rstatus", "?cstatus"});
    if (!a.ok || a.missing({0, 1}, "Must provide argument rstatus, cstatus")) return nullptr;
    int nr = 0, nc = 0;
    if (presolved_counts(a.p, &nr, &nc) < 0) return nullptr;
    Arrays r(a.p, nr), c(a.p, nc);
    int* rs = r.ints(a[0]);
    int* cs = c.ints(a[1]);
    if (!r.ok || !c.ok) return nullptr;
    return done(a.p, TRVOloadpresolvebasis(a.p->prob, rs, cs));
}

PyObject* m_presolverow(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "presolverow", {"qrtype", "?mcolso", "?dvalo", "drhso", "maxcoeffs", "?mcolsp", "?dvalp"});
    if (!a.ok || a.missing({1, 2, 5, 6}, "Must provide arguments mcolso, dvalo, mcolsp, dvalp")) return nullptr;
    char type;
    int maxcoeffs = 0;
    if (char_arg(a[0], "qrtype", &type) < 0 || int_arg(a[4], "maxcoeffs", &maxcoeffs) < 0) return nullptr;
    double rhs = PyFloat_AsDouble(a[3]);
    if (rhs == -1.0 && PyErr_Occurred()) {
        PyErr_Clear();
        PyErr_SetString(ModelError, "Argument drhso must be a number");
        return nullptr;
    }
    Arrays in(a.p);
    int* cols_ = in.ints(a[1], CONV_COL);
    double* vals = in.dbls(a[2]);
    if (!in.ok) return nullptr;
    int nc = 0;
    if (cols(a.p, &nc) < 0) return nullptr;
    size_t room = static_cast<size_t>(std::max(0, std::min(maxcoeffs, nc))) + 1;
    std::vector<int> pc(room);
    std::vector<double> pv(room);
    double prhs = 0;
    int nzp = 0, status = 0;
    if (TRVOpresolverow(a.p->prob, type, in.count(), cols_, vals, rhs, maxcoeffs, &prhs, &nzp, pc.data(), pv.data(),
                        &status) != 0)
        return problem_error(a.p);
    // The presolved columns have no objects of the problem: they are presolved indices.
    if (fill(a.p, a[5], nzp, pc.data(), CONV_INT) < 0 || fill(a.p, a[6], nzp, pv.data(), CONV_DOUBLE) < 0) return nullptr;
    return Py_BuildValue("(di)", prhs, status);
}

PyObject* m_loadsecurevecs(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "loadsecurevecs", {"?mrow", "?mcol"});
    if (!a.ok) return nullptr;
    // The two lists have lengths of their own.
    Arrays r(a.p), c(a.p);
    int* mr = r.ints(a[0], CONV_ROW);
    if (!r.ok) return nullptr;
    int* mc = c.ints(a[1], CONV_COL);
    if (!c.ok) return nullptr;
    return done(a.p, TRVOloadsecurevecs(a.p->prob, r.count(), c.count(), mr, mc));
}

PyObject* m_crossoverlpsol(PyObject* self, PyObject*) {
    int status = 0;
    if (TRVOcrossoverlpsol(as_prob(self)->prob, &status) != 0) return problem_error(as_prob(self));
    Py_RETURN_NONE;
}

PyObject* m_fixglobals(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "fixglobals", {"options"});
    int options = 0;
    if (!a.ok || int_arg(a[0], "options", &options) < 0) return nullptr;
    return done(a.p, TRVOfixglobals(a.p->prob, options));
}

PyObject* m_refinemipsol(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "refinemipsol", {"options", "flags", "?solution", "?refined_solution"});
    if (!a.ok || a.missing({2, 3}, "Must provide arguments solution and refined_solution")) return nullptr;
    int options = 0, nc = 0;
    PyRef hold;
    if (int_arg(a[0], "options", &options) < 0) return nullptr;
    const char* flags = flags_arg(a[1], hold);
    if (!flags || cols(a.p, &nc) < 0) return nullptr;
    Arrays x(a.p, nc);
    double* sol = x.dbls(a[2]);
    if (!x.ok) return nullptr;
    std::vector<double> refined(static_cast<size_t>(nc) + 1);
    int status = 0;
    if (TRVOrefinemipsol(a.p->prob, options, flags, sol, refined.data(), &status) != 0) return problem_error(a.p);
    if (fill(a.p, a[3], nc, refined.data(), CONV_DOUBLE) < 0) return nullptr;
    return PyLong_FromLong(status);
}

}  // namespace

const PyMethodDef* presolve_methods() {
    static const PyMethodDef t[] = {
        LL_METHOD(getpresolvemap, DOC("getpresolvemap($self, /, rowmap, colmap)", "Fill rowmap and colmap with the problem's index of each row and column that presolve keeps (-1: the engine's own). Returns None.")),
        LL_METHOD(getpresolvesol, DOC("getpresolvesol($self, /, x=None, slack=None, dual=None, dj=None)", "Fill the given lists with the optimal solution of the presolved LP. Returns None.")),
        LL_METHOD(getpresolvebasis, DOC("getpresolvebasis($self, /, rstatus=None, cstatus=None)", "Fill rstatus and cstatus with the optimal basis of the presolved LP. Returns None.")),
        LL_METHOD(loadpresolvebasis, DOC("loadpresolvebasis($self, /, rstatus, cstatus)", "Load a basis of the presolved LP as the start of the next LP solve. Returns None.")),
        LL_METHOD(presolverow, DOC("presolverow($self, /, qrtype, mcolso, dvalo, drhso, maxcoeffs, mcolsp, dvalp)", "Carry a row over the problem's columns into the presolved columns; fills mcolsp and dvalp and returns (rhs, status), status -1 when it cannot be done.")),
        LL_METHOD(loadsecurevecs, DOC("loadsecurevecs($self, /, mrow=None, mcol=None)", "Name the rows and columns presolve must keep (while any are named, solves run without presolve). Returns None.")),
        LL_METHOD(getlastbarsol, DOC("getlastbarsol($self, /, x=None, slack=None, dual=None, dj=None)", "Fill the given lists with the last interior-point solution before crossover. Returns None.")),
        {"crossoverlpsol", reinterpret_cast<PyCFunction>(m_crossoverlpsol), METH_NOARGS, DOC("crossoverlpsol($self, /)", "Turn the current LP solution into a basic one by crossover. Returns None.")},
        LL_METHOD(fixglobals, DOC("fixglobals($self, /, options)", "Fix the integer columns (options 1: also semi-continuous and partial-integer ones) at the best integer solution. Returns None.")),
        LL_METHOD(refinemipsol, DOC("refinemipsol($self, /, options, flags, solution, refined_solution)", "Re-optimise the continuous columns with the integer ones fixed at solution; fills refined_solution and returns 0 refined, 1 no feasible completion.")),
        {nullptr, nullptr, 0, nullptr},
    };
    return t;
}

}  // namespace ll
}  // namespace tarvo
