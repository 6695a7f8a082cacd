// Low-level methods that analyse the last LP solve (rays, solves with the basis, ranging) and
// infeasible problems (irreducible infeasible subsystems, repair by relaxation).
#include "problem/lowlevel.h"

namespace tarvo {
namespace ll {
namespace {

// ---------------------------------------------------------------- rays

PyObject* ray(PyObject* self, PyObject* args, PyObject* kw, const char* method, const char* out, bool primal) {
    std::string name = std::string("?") + out;
    Args a(self, args, kw, method, {name.c_str()});
    if (!a.ok || a.missing({0}, "Must provide argument to retrieve (primal or dual) ray")) return nullptr;
    int n = 0, has = 0;
    if ((primal ? cols(a.p, &n) : rows(a.p, &n)) < 0) return nullptr;
    std::vector<double> v(static_cast<size_t>(n) + 1);
    int rc = primal ? TRVOgetprimalray(a.p->prob, v.data(), &has) : TRVOgetdualray(a.p->prob, v.data(), &has);
    if (rc != 0) return problem_error(a.p);
    if (!has) {
        PyErr_SetString(SolverError, primal ? "No primal ray is available: the last LP solve did not find the problem unbounded"
                                            : "No dual ray is available: the last LP solve did not find the problem infeasible");
        return nullptr;
    }
    if (fill(a.p, a[0], n, v.data(), CONV_DOUBLE) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_getprimalray(PyObject* self, PyObject* args, PyObject* kw) { return ray(self, args, kw, "getprimalray", "ray", true); }
PyObject* m_getdualray(PyObject* self, PyObject* args, PyObject* kw) { return ray(self, args, kw, "getdualray", "dray", false); }

PyObject* m_hasprimalray(PyObject* self, PyObject*) {
    int has = 0;
    if (TRVOgetprimalray(as_prob(self)->prob, nullptr, &has) != 0) return problem_error(as_prob(self));
    return PyBool_FromLong(has);
}

PyObject* m_hasdualray(PyObject* self, PyObject*) {
    int has = 0;
    if (TRVOgetdualray(as_prob(self)->prob, nullptr, &has) != 0) return problem_error(as_prob(self));
    return PyBool_FromLong(has);
}

// ---------------------------------------------------------------- solves with the basis

PyObject* basis_solve(PyObject* self, PyObject* args, PyObject* kw, const char* method, bool transpose) {
    Args a(self, args, kw, method, {"?vec"});
    if (!a.ok || a.missing({0}, "Must provide argument vec")) return nullptr;
    int n = 0;
    if (rows(a.p, &n) < 0) return nullptr;
    if (!PyList_Check(a[0])) {
        PyErr_SetString(ModelError, "Unexpected argument to conv_arr2obj");
        return nullptr;
    }
    Arrays v(a.p, n);
    double* d = v.dbls(a[0]);
    if (!v.ok) return nullptr;
    int rc = transpose ? TRVObtran(a.p->prob, d) : TRVOftran(a.p->prob, d);
    if (rc != 0) return problem_error(a.p);
    if (fill(a.p, a[0], n, d, CONV_DOUBLE) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_btran(PyObject* self, PyObject* args, PyObject* kw) { return basis_solve(self, args, kw, "btran", true); }
PyObject* m_ftran(PyObject* self, PyObject* args, PyObject* kw) { return basis_solve(self, args, kw, "ftran", false); }

// ---------------------------------------------------------------- ranging

PyObject* ranging(PyObject* self, PyObject* args, PyObject* kw, const char* method, bool obj) {
    Args a(self, args, kw, method, {"?mindex", "?lower", "?upper"});
    if (!a.ok || a.missing({0, 1, 2}, "Must provide arguments mindex, lower, and upper")) return nullptr;
    Arrays idx(a.p);
    int* m = idx.ints(a[0], obj ? CONV_COL : CONV_ROW);
    if (!idx.ok) return nullptr;
    std::vector<double> lo(static_cast<size_t>(idx.count()) + 1), up(lo.size());
    int rc = obj ? TRVOobjsa(a.p->prob, idx.count(), m, lo.data(), up.data())
                 : TRVOrhssa(a.p->prob, idx.count(), m, lo.data(), up.data());
    if (rc != 0) return problem_error(a.p);
    if (fill(a.p, a[1], idx.count(), lo.data(), CONV_DOUBLE) < 0 || fill(a.p, a[2], idx.count(), up.data(), CONV_DOUBLE) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_objsa(PyObject* self, PyObject* args, PyObject* kw) { return ranging(self, args, kw, "objsa", true); }
PyObject* m_rhssa(PyObject* self, PyObject* args, PyObject* kw) { return ranging(self, args, kw, "rhssa", false); }

// ---------------------------------------------------------------- infeasible subsystems

PyObject* m_iisfirst(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "iisfirst", {"iismode"});
    int mode = 0, status = 0;
    if (!a.ok || int_arg(a[0], "iismode", &mode) < 0) return nullptr;
    if (TRVOiisfirst(a.p->prob, mode, &status) != 0) return problem_error(a.p);
    return PyLong_FromLong(status);
}

PyObject* m_iisnext(PyObject* self, PyObject*) {
    int status = 0;
    if (TRVOiisnext(as_prob(self)->prob, &status) != 0) return problem_error(as_prob(self));
    return PyLong_FromLong(status);
}

PyObject* m_iisall(PyObject* self, PyObject*) { return done(as_prob(self), TRVOiisall(as_prob(self)->prob)); }
PyObject* m_iisclear(PyObject* self, PyObject*) { return done(as_prob(self), TRVOiisclear(as_prob(self)->prob)); }

PyObject* m_iisstatus(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "iisstatus", {"?rowsizes", "?colsizes", "?suminfeas", "?numinfeas"});
    if (!a.ok) return nullptr;
    int n = 0;
    if (TRVOiisstatus(a.p->prob, &n, nullptr, nullptr, nullptr, nullptr) != 0) return problem_error(a.p);
    std::vector<int> rs(static_cast<size_t>(n) + 1), cs(rs.size()), ni(rs.size());
    std::vector<double> si(rs.size());
    if (TRVOiisstatus(a.p->prob, &n, rs.data(), cs.data(), si.data(), ni.data()) != 0) return problem_error(a.p);
    if (fill(a.p, a[0], n, rs.data(), CONV_INT) < 0 || fill(a.p, a[1], n, cs.data(), CONV_INT) < 0 ||
        fill(a.p, a[2], n, si.data(), CONV_DOUBLE) < 0 || fill(a.p, a[3], n, ni.data(), CONV_INT) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_getiisdata(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getiisdata",
           {"num", "?miisrow", "?miiscol", "?constrainttype", "?colbndtype", "?duals", "?rdcs", "?isolationrows",
            "?isolationcols"});
    int num = 0, nr = 0, nc = 0;
    if (!a.ok || int_arg(a[0], "num", &num) < 0) return nullptr;
    TRVOprob pr = a.p->prob;
    if (TRVOgetiisdata(pr, num, &nr, &nc, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) != 0)
        return problem_error(a.p);
    size_t r = static_cast<size_t>(nr) + 1, c = static_cast<size_t>(nc) + 1;
    std::vector<int> rows_(r), cols_(c), irows(r), icols(c);
    std::vector<char> rtype(r), cbnd(c), isor(r), isoc(c);
    std::vector<double> duals(r), rdcs(c);
    if (TRVOgetiisdata(pr, num, &nr, &nc, rows_.data(), cols_.data(), rtype.data(), cbnd.data(), duals.data(), rdcs.data(),
                       isor.data(), isoc.data()) != 0)
        return problem_error(a.p);
    for (size_t k = 0; k < r; ++k) irows[k] = isor[k];
    for (size_t k = 0; k < c; ++k) icols[k] = isoc[k];
    if (fill(a.p, a[1], nr, rows_.data(), CONV_ROW) < 0 || fill(a.p, a[2], nc, cols_.data(), CONV_COL) < 0 ||
        fill(a.p, a[3], nr, rtype.data(), CONV_CHAR) < 0 || fill(a.p, a[4], nc, cbnd.data(), CONV_CHAR) < 0 ||
        fill(a.p, a[5], nr, duals.data(), CONV_DOUBLE) < 0 || fill(a.p, a[6], nc, rdcs.data(), CONV_DOUBLE) < 0 ||
        fill(a.p, a[7], nr, irows.data(), CONV_INT) < 0 || fill(a.p, a[8], nc, icols.data(), CONV_INT) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_iisisolations(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "iisisolations", {"num"});
    int num = 0;
    if (!a.ok || int_arg(a[0], "num", &num) < 0) return nullptr;
    return done(a.p, TRVOiisisolations(a.p->prob, num));
}

PyObject* m_iiswrite(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "iiswrite", {"num", "fn", "type", "?typeflags"});
    int num = 0, type = 0;
    PyRef h1, h2;
    if (!a.ok || int_arg(a[0], "num", &num) < 0 || int_arg(a[2], "type", &type) < 0) return nullptr;
    const char* fn = str_arg(a[1], "fn", h1);
    const char* flags = fn ? flags_arg(a[3], h2) : nullptr;
    if (!flags) return nullptr;
    return done(a.p, TRVOiiswrite(a.p->prob, num, fn, type, flags));
}

// ---------------------------------------------------------------- repair

double number(PyObject* o, const char* name, bool* ok) {
    double v = PyFloat_AsDouble(o);
    if (v == -1.0 && PyErr_Occurred()) {
        PyErr_Clear();
        PyErr_Format(ModelError, "Argument %s must be a number", name);
        *ok = false;
    }
    return v;
}

PyObject* m_repairinfeas(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "repairinfeas", {"pflags", "oflags", "gflags", "lrp", "grp", "lbp", "ubp", "delta"});
    char pf, of, gf;
    if (!a.ok || char_arg(a[0], "pflags", &pf) < 0 || char_arg(a[1], "oflags", &of) < 0 || char_arg(a[2], "gflags", &gf) < 0)
        return nullptr;
    bool ok = true;
    double lrp = number(a[3], "lrp", &ok), grp = number(a[4], "grp", &ok), lbp = number(a[5], "lbp", &ok),
           ubp = number(a[6], "ubp", &ok), delta = number(a[7], "delta", &ok);
    if (!ok) return nullptr;
    int scode = 0;
    if (TRVOrepairinfeas(a.p->prob, &scode, pf, of, gf, lrp, grp, lbp, ubp, delta) != 0) return problem_error(a.p);
    return PyLong_FromLong(scode);
}

PyObject* m_repairweightedinfeas(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "repairweightedinfeas",
           {"?lrp_array", "?grp_array", "?lbp_array", "?ubp_array", "phase2", "delta", "?optflags"});
    if (!a.ok) return nullptr;
    int nr = 0, nc = 0;
    if (rows(a.p, &nr) < 0 || cols(a.p, &nc) < 0) return nullptr;
    Arrays lr(a.p, nr), gr(a.p, nr), lb(a.p, nc), ub(a.p, nc);
    double* lrp = lr.dbls(a[0]);
    double* grp = gr.dbls(a[1]);
    double* lbp = lb.dbls(a[2]);
    double* ubp = ub.dbls(a[3]);
    if (!lr.ok || !gr.ok || !lb.ok || !ub.ok) return nullptr;
    char phase2;
    bool ok = true;
    if (char_arg(a[4], "phase2", &phase2) < 0) return nullptr;
    double delta = number(a[5], "delta", &ok);
    PyRef hold;
    const char* flags = ok ? flags_arg(a[6], hold) : nullptr;
    if (!flags) return nullptr;
    int scode = 0;
    if (TRVOrepairweightedinfeas(a.p->prob, &scode, lrp, grp, lbp, ubp, phase2, delta, flags) != 0)
        return problem_error(a.p);
    return PyLong_FromLong(scode);
}

#define NOARGS(name, doc) {#name, reinterpret_cast<PyCFunction>(m_##name), METH_NOARGS, doc}

}  // namespace

const PyMethodDef* analysis_methods() {
    static const PyMethodDef t[] = {
        LL_METHOD(getprimalray, DOC("getprimalray($self, /, ray)", "Fill ray with a primal unbounded direction of the last LP solve. Returns None.")),
        LL_METHOD(getdualray, DOC("getdualray($self, /, dray)", "Fill dray with a Farkas certificate of infeasibility of the last LP solve. Returns None.")),
        NOARGS(hasprimalray, DOC("hasprimalray($self, /)", "Return True when the last LP solve found a primal ray.")),
        NOARGS(hasdualray, DOC("hasdualray($self, /)", "Return True when the last LP solve found a dual ray.")),
        LL_METHOD(btran, DOC("btran($self, /, vec)", "Replace the list vec by the solution of B'x = vec with the last basis B. Returns None.")),
        LL_METHOD(ftran, DOC("ftran($self, /, vec)", "Replace the list vec by the solution of Bx = vec with the last basis B. Returns None.")),
        LL_METHOD(objsa, DOC("objsa($self, /, mindex, lower, upper)", "Fill lower and upper with the ranges of the objective coefficients of columns mindex. Returns None.")),
        LL_METHOD(rhssa, DOC("rhssa($self, /, mindex, lower, upper)", "Fill lower and upper with the ranges of the right-hand sides of rows mindex. Returns None.")),
        LL_METHOD(iisfirst, DOC("iisfirst($self, /, iismode)", "Find an irreducible infeasible subsystem; returns 0 found, 1 the problem is feasible, 2 none further.")),
        NOARGS(iisnext, DOC("iisnext($self, /)", "Find the next irreducible infeasible subsystem; returns the status as iisfirst.")),
        NOARGS(iisall, DOC("iisall($self, /)", "Find the irreducible infeasible subsystems. Returns None.")),
        NOARGS(iisclear, DOC("iisclear($self, /)", "Forget the subsystems found. Returns None.")),
        LL_METHOD(iisstatus, DOC("iisstatus($self, /, rowsizes, colsizes, suminfeas, numinfeas)", "Fill the sizes and infeasibilities of the subsystems found. Returns None.")),
        LL_METHOD(getiisdata, DOC("getiisdata($self, /, num, miisrow=None, miiscol=None, constrainttype=None, colbndtype=None, duals=None, rdcs=None, isolationrows=None, isolationcols=None)", "Fill the rows and columns of subsystem num. Returns None.")),
        LL_METHOD(iisisolations, DOC("iisisolations($self, /, num)", "Check subsystem num for isolations. Returns None.")),
        LL_METHOD(iiswrite, DOC("iiswrite($self, /, num, fn, type, typeflags=None)", "Write subsystem num as an LP file (type 0) or a CSV listing (type 1). Returns None.")),
        LL_METHOD(repairinfeas, DOC("repairinfeas($self, /, pflags, oflags, gflags, lrp, grp, lbp, ubp, delta)", "Solve the penalised relaxation of an infeasible problem; returns 0 relaxed optimum, 1 infeasible, 3 stopped.")),
        LL_METHOD(repairweightedinfeas, DOC("repairweightedinfeas($self, /, lrp_array, grp_array, lbp_array, ubp_array, phase2, delta, optflags=None)", "Solve the relaxation with one penalty per row side and bound; returns the status as repairinfeas.")),
        {nullptr, nullptr, 0, nullptr},
    };
    return t;
}

}  // namespace ll
}  // namespace tarvo
