// Low-level methods that analyse the last LP basis (the order of the basic variables, the
// ratio test of an entering variable, the unbounded direction, stability measures, ranges of
// the row duals), the user's scaling factors and the infeasibilities measured with them, and the
// infeasibility repair with limits on the violations.
#include "problem/lowlevel.h"
#include "model/model.h"

namespace tarvo {
namespace ll {
namespace {

PyObject* m_getpivotorder(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getpivotorder", {"?mpiv"});
    if (!a.ok || a.missing({0}, "Must provide argument mpiv")) return nullptr;
    int nr = 0;
    if (rows(a.p, &nr) < 0) return nullptr;
    std::vector<int> piv(static_cast<size_t>(nr) + 1);
    if (TRVOgetpivotorder(a.p->prob, piv.data()) != 0) return problem_error(a.p);
    if (fill(a.p, a[0], nr, piv.data(), CONV_INT) < 0) return nullptr;
    Py_RETURN_NONE;
}

// A variable of the combined index space: an integer as it stands, a constraint (or a row
// name given as a constraint) as its row, a var or column name as rows + its column.
int combined_arg(ProblemObject* p, PyObject* o, int* index) {
    int nr = 0;
    if (rows(p, &nr) < 0) return -1;
    if (is_index_integer(o)) return int_arg(o, "in", index);
    if (is_constraint(o)) return index_arg(p, o, CONV_ROW, index);
    int j = 0;
    if (index_arg(p, o, CONV_COL, &j) < 0) return -1;
    *index = nr + j;
    return 0;
}

PyObject* m_getpivots(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getpivots", {"in", "?outlist", "?x", "maxpiv"});
    int in = 0, maxpiv = 0, nr = 0, nc = 0;
    if (!a.ok || combined_arg(a.p, a[0], &in) < 0 || int_arg(a[3], "maxpiv", &maxpiv) < 0) return nullptr;
    if (maxpiv < 0) {
        PyErr_SetString(ModelError, "Argument maxpiv must not be negative");
        return nullptr;
    }
    if (rows(a.p, &nr) < 0 || cols(a.p, &nc) < 0) return nullptr;
    std::vector<int> out(static_cast<size_t>(std::min(maxpiv, nr + nc + 1)) + 1);
    std::vector<double> x(static_cast<size_t>(nr + nc) + 1);
    double obj = 0;
    int npiv = 0;
    if (TRVOgetpivots(a.p->prob, in, out.data(), x.data(), &obj, &npiv, static_cast<int>(out.size()) - 1) != 0)
        return problem_error(a.p);
    if (fill(a.p, a[1], std::min(npiv, maxpiv), out.data(), CONV_ROWCOL) < 0 ||
        fill(a.p, a[2], nr + nc, x.data(), CONV_DOUBLE) < 0)
        return nullptr;
    return Py_BuildValue("(di)", obj, npiv);
}

PyObject* m_getunbvec(PyObject* self, PyObject*) {
    ProblemObject* p = as_prob(self);
    int seq = -1;
    if (TRVOgetunbvec(p->prob, &seq) != 0) return problem_error(p);
    if (seq < 0) {
        PyErr_SetString(SolverError,
                        "getunbvec returns a valid object only if the problem is found unbounded within the primal "
                        "simplex. Call solve('p') to use the primal simplex.");
        return nullptr;
    }
    PyRef out(PyList_New(0));
    if (!out || conv_arr2obj(p, 1, &seq, out.get(), CONV_ROWCOL) < 0) return nullptr;
    PyObject* o = PyList_GET_ITEM(out.get(), 0);
    Py_INCREF(o);
    return o;
}

PyObject* m_basisstability(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "basisstability", {"type", "norm", "ifscaled"});
    int type = 0, norm = 0, scaled = 0;
    if (!a.ok || int_arg(a[0], "type", &type) < 0 || int_arg(a[1], "norm", &norm) < 0 ||
        int_arg(a[2], "ifscaled", &scaled) < 0)
        return nullptr;
    double v = 0;
    if (TRVObasisstability(a.p->prob, type, norm, scaled, &v) != 0) return problem_error(a.p);
    return PyFloat_FromDouble(v);
}

PyObject* m_estimaterowdualranges(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "estimaterowdualranges", {"rowIndices", "iterationLimit", "?minDualActivity", "?maxDualActivity"});
    if (!a.ok || a.missing({2, 3}, "Must provide arguments minDualActivity, maxDualActivity")) return nullptr;
    int limit = 0;
    if (int_arg(a[1], "iterationLimit", &limit) < 0) return nullptr;
    Arrays idx(a.p);
    int* r = idx.ints(a[0], CONV_ROW);
    if (!idx.ok) return nullptr;
    std::vector<double> lo(static_cast<size_t>(idx.count()) + 1), up(lo.size());
    if (TRVOestimaterowdualranges(a.p->prob, idx.count(), r, limit, lo.data(), up.data()) != 0) return problem_error(a.p);
    if (fill(a.p, a[2], idx.count(), lo.data(), CONV_DOUBLE) < 0 || fill(a.p, a[3], idx.count(), up.data(), CONV_DOUBLE) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_scale(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "scale", {"?mrscal", "?mcscal"});
    int nr = 0, nc = 0;
    if (!a.ok || rows(a.p, &nr) < 0 || cols(a.p, &nc) < 0) return nullptr;
    Arrays r(a.p, nr), c(a.p, nc);
    int* rs = r.ints(a[0]);
    int* cs = c.ints(a[1]);
    if (!r.ok || !c.ok) return nullptr;
    return done(a.p, TRVOscale(a.p->prob, rs, cs));
}

PyObject* m_getscaledinfeas(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getscaledinfeas", {"?mx", "?mslack", "?mdual", "?mdj"});
    int nr = 0, nc = 0;
    if (!a.ok || rows(a.p, &nr) < 0 || cols(a.p, &nc) < 0) return nullptr;
    int n[4] = {0, 0, 0, 0};
    std::vector<int> mx(static_cast<size_t>(nc) + 1), ms(static_cast<size_t>(nr) + 1), md(ms.size()), mj(mx.size());
    if (TRVOgetscaledinfeas(a.p->prob, &n[0], &n[1], &n[2], &n[3], mx.data(), ms.data(), md.data(), mj.data()) != 0)
        return problem_error(a.p);
    if (fill(a.p, a[0], n[0], mx.data(), CONV_COL) < 0 || fill(a.p, a[1], n[1], ms.data(), CONV_ROW) < 0 ||
        fill(a.p, a[2], n[2], md.data(), CONV_ROW) < 0 || fill(a.p, a[3], n[3], mj.data(), CONV_COL) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_repairweightedinfeasbounds(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "repairweightedinfeasbounds",
           {"?lrp_array", "?grp_array", "?lbp_array", "?ubp_array", "?lrb_array", "?grb_array", "?lbb_array",
            "?ubb_array", "phase2", "delta", "?optflags"});
    if (!a.ok) return nullptr;
    int nr = 0, nc = 0;
    if (rows(a.p, &nr) < 0 || cols(a.p, &nc) < 0) return nullptr;
    Arrays lr(a.p, nr), gr(a.p, nr), lb(a.p, nc), ub(a.p, nc), lrb(a.p, nr), grb(a.p, nr), lbb(a.p, nc), ubb(a.p, nc);
    double* v[8] = {lr.dbls(a[0]), gr.dbls(a[1]), lb.dbls(a[2]), ub.dbls(a[3]),
                    lrb.dbls(a[4]), grb.dbls(a[5]), lbb.dbls(a[6]), ubb.dbls(a[7])};
    if (!lr.ok || !gr.ok || !lb.ok || !ub.ok || !lrb.ok || !grb.ok || !lbb.ok || !ubb.ok) return nullptr;
    char phase2;
    if (char_arg(a[8], "phase2", &phase2) < 0) return nullptr;
    double delta = PyFloat_AsDouble(a[9]);
    if (delta == -1.0 && PyErr_Occurred()) {
        PyErr_Clear();
        PyErr_SetString(ModelError, "Argument delta must be a number");
        return nullptr;
    }
    PyRef hold;
    const char* flags = flags_arg(a[10], hold);
    if (!flags) return nullptr;
    int scode = 0;
    if (TRVOrepairweightedinfeasbounds(a.p->prob, &scode, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], phase2, delta,
                                       flags) != 0)
        return problem_error(a.p);
    return PyLong_FromLong(scode);
}

}  // namespace

const PyMethodDef* basis_methods() {
    static const PyMethodDef t[] = {
        LL_METHOD(getpivotorder, DOC("getpivotorder($self, /, mpiv)", "Fill mpiv with the basic variables in the order of the basis matrix (rows i, columns rows + j). Returns None.")),
        LL_METHOD(getpivots, DOC("getpivots($self, in_, /, outlist, x, maxpiv)", "Ratio test of variable in (keyword in, a Python keyword, so given by position) entering the basis: fills outlist with the blocking variables, x with the values after the step; returns (objective after the step, number of blocking variables).")),
        {"getunbvec", reinterpret_cast<PyCFunction>(m_getunbvec), METH_NOARGS, DOC("getunbvec($self, /)", "Return the row or column whose improving direction is unbounded after an LP solve found the problem unbounded.")},
        LL_METHOD(basisstability, DOC("basisstability($self, /, type, norm, ifscaled)", "Return the condition number (type 0), the norm of the inverse (1) or of the basis (2) in the infinity (norm 0), one (1) or Frobenius (2) norm.")),
        LL_METHOD(estimaterowdualranges, DOC("estimaterowdualranges($self, /, rowIndices, iterationLimit, minDualActivity, maxDualActivity)", "Fill the lists with the range of each row's dual over the optimal dual solutions. Returns None.")),
        LL_METHOD(scale, DOC("scale($self, /, mrscal=None, mcscal=None)", "Scale rows and columns by powers of two (exponents) in the model the solver sees. Returns None.")),
        LL_METHOD(getscaledinfeas, DOC("getscaledinfeas($self, /, mx, mslack, mdual, mdj)", "Fill the lists with the infeasible columns and rows of the current solution, measured on the scaled problem. Returns None.")),
        LL_METHOD(repairweightedinfeasbounds, DOC("repairweightedinfeasbounds($self, /, lrp_array, grp_array, lbp_array, ubp_array, lrb_array, grb_array, lbb_array, ubb_array, phase2, delta, optflags=None)", "Solve the weighted relaxation with a limit on each violation; returns 0 relaxed optimum, 1 infeasible, 3 stopped.")),
        {nullptr, nullptr, 0, nullptr},
    };
    return t;
}

}  // namespace ll
}  // namespace tarvo
