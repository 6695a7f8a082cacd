// The problem methods that expose the nonlinear library's own operations: nonlinear
// coefficients, SLP variables, tolerance sets, rows and distribution factors, solving,
// multistart jobs, validation and the queries of nonlinear solutions and coefficients.
// Each is a thin wrapper: parse (a failure becomes the method's InterfaceError), convert
// rows and columns through the problem's maps, call the library, report its failure.
#include "nonlinear/formula.h"
#include "model/model.h"
#include "library_interface/tslp.h"
#include "problem/nonlinear_bridge.h"

#include <cstdarg>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace tarvo {

namespace {

// ---------------------------------------------------------------- shared conventions

bool parse(PyObject* args, PyObject* kw, const char* fmt, const char* const* kwlist, const char* msg, ...) {
    va_list va;
    va_start(va, msg);
    int ok = PyArg_VaParseTupleAndKeywords(args, kw, fmt, const_cast<char**>(kwlist), va);
    va_end(va);
    if (!ok) {
        PyErr_Clear();
        PyErr_SetString(InterfaceError, msg);
        return false;
    }
    return true;
}

// The nonlinear problem, or null with an exception when there is none.
TSLPprob slp_of(ProblemObject* p) {
    if (!p->slp || !nonlinear_running()) {
        PyErr_SetString(SolverError, "The nonlinear library is not available for this problem");
        return nullptr;
    }
    return p->slp;
}

// Finishes a method: None on success, the library error otherwise.
PyObject* done(ProblemObject* p, int rc) {
    if (PyErr_Occurred()) return nullptr;
    if (rc != 0) return slp_error(p);
    Py_RETURN_NONE;
}

// An array converted from a Python sequence by the problem layer's converter.
struct Arr {
    void* data = nullptr;
    int64_t n = -1;
    int type;
    explicit Arr(int t) : type(t) {}
    ~Arr() { conv_free(data, n < 0 ? 0 : n, type); }
    // Converts src (None gives an absent array); expected: required length or -1.
    bool get(ProblemObject* p, PyObject* src, int64_t expected = -1) {
        n = expected;
        if (conv_obj2arr(p, &n, src, &data, type) < 0) {
            report_error(reinterpret_cast<PyObject*>(p), nullptr);
            return false;
        }
        if (!data) n = expected < 0 ? 0 : expected;
        return true;
    }
    int* ints() const { return static_cast<int*>(data); }
    double* dbls() const { return static_cast<double*>(data); }
    int count() const { return static_cast<int>(n < 0 ? 0 : n); }
};

int row_arg(ProblemObject* p, PyObject* o, int* row) { return conv_index(o, p, row, CONV_ROW); }
int col_arg(ProblemObject* p, PyObject* o, int* col) { return conv_index(o, p, col, CONV_COL); }

// A number (integer or float) or None: *has is false for None.
bool number_or_none(PyObject* o, double* v, bool* has) {
    if (o == Py_None) {
        *has = false;
        return true;
    }
    if (!is_integer_value(o) && !is_numeric_value(o)) return false;
    *v = PyFloat_AsDouble(o);
    if (*v == -1.0 && PyErr_Occurred()) return false;
    *has = true;
    return true;
}

PyObject* list_of_ints(const int* a, int n) {
    PyObject* l = PyList_New(n);
    for (int i = 0; l && i < n; ++i) {
        PyObject* v = PyLong_FromLong(a[i]);
        if (!v) { Py_CLEAR(l); break; }
        PyList_SET_ITEM(l, i, v);
    }
    return l;
}

PyObject* list_of_doubles(const double* a, int n) {
    PyObject* l = PyList_New(n);
    for (int i = 0; l && i < n; ++i) {
        PyObject* v = PyFloat_FromDouble(a[i]);
        if (!v) { Py_CLEAR(l); break; }
        PyList_SET_ITEM(l, i, v);
    }
    return l;
}

// Fills a caller's list in place with doubles.
int fill_list(ProblemObject* p, PyObject* target, const std::vector<double>& v) {
    return conv_arr2obj(p, static_cast<int64_t>(v.size()), v.data(), target, CONV_DOUBLE);
}

// Fills a caller's list in place with the objects at the given indices of `objects` (the
// problem's constraints or variables); indices without an object (the objective transfer
// row and column, the constant column -1) are given as integers.
int fill_objects(PyObject* target, PyObject* objects, const int* idx, int n) {
    if (!target || target == Py_None) return 0;
    if (!PyList_Check(target)) {
        // An output argument that is not a list, as for every method that fills outputs.
        PyErr_SetString(ModelError, "Unexpected argument to conv_arr2obj");
        return -1;
    }
    PyRef items(PyList_New(n));
    if (!items) return -1;
    for (int i = 0; i < n; ++i) {
        PyObject* o;
        if (objects && PyList_Check(objects) && idx[i] >= 0 && idx[i] < PyList_GET_SIZE(objects)) {
            o = PyList_GET_ITEM(objects, idx[i]);
            Py_INCREF(o);
        } else {
            o = PyLong_FromLong(idx[i]);
            if (!o) return -1;
        }
        PyList_SET_ITEM(items.get(), i, o);
    }
    return PyList_SetSlice(target, 0, PyList_GET_SIZE(target), items.get());
}

#define P as_prob(self)
#define KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(f))

// ---------------------------------------------------------------- whole-problem operations

#define SIMPLE_OP(name)                                                            \
    PyObject* m_##name(PyObject* self, PyObject*) {                                \
        TSLPprob s = slp_of(P);                                                    \
        if (!s) return nullptr;                                                    \
        return done(P, TSLP##name(s));                                             \
    }
SIMPLE_OP(validate)
SIMPLE_OP(updatelinearization)
SIMPLE_OP(unconstruct)
SIMPLE_OP(setcurrentiv)
SIMPLE_OP(scaling)
SIMPLE_OP(reinitialize)
SIMPLE_OP(printevalinfo)
SIMPLE_OP(printmemory)
SIMPLE_OP(presolve)
SIMPLE_OP(msclear)
SIMPLE_OP(construct)
SIMPLE_OP(cascadeorder)
SIMPLE_OP(cascade)
#undef SIMPLE_OP

PyObject* m_fixpenalties(PyObject* self, PyObject*) {
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    int status = 0;
    if (TSLPfixpenalties(s, &status) != 0) return slp_error(P);
    return PyLong_FromLong(status);
}

PyObject* m_nlpoptimize(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"flags", nullptr};
    const char* flags = "";
    if (!parse(args, kw, "|s", kwl, "Wrong arguments in nlpoptimize", &flags)) return nullptr;
    if (!slp_of(P)) return nullptr;
    int rc = run_nonlinear_optimizer(P, flags);
    if (rc == -2) return nullptr;
    return done(P, rc);
}

PyObject* m_globalsol(PyObject* self, PyObject*) {
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    int rc;
    note_solver_run(P, true);
    Py_BEGIN_ALLOW_THREADS
    rc = TSLPglobal(s);
    Py_END_ALLOW_THREADS
    return done(P, rc);
}

// ---------------------------------------------------------------- validation

PyObject* m_validatevector(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"vector", nullptr};
    PyObject* vec = nullptr;
    if (!parse(args, kw, "O", kwl, "Wrong arguments in validatevector", &vec)) return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    int ncols = 0;
    if (prob_int_attrib(P, 1018, &ncols) < 0) return nullptr;
    Arr v(CONV_DOUBLE);
    if (!v.get(P, vec)) return nullptr;
    if (v.count() != ncols || !v.data) {
        PyErr_SetString(InterfaceError, "Wrong vector size in validatevector");
        return nullptr;
    }
    double a = 0, b = 0, c = 0;
    if (TSLPvalidatevector(s, v.dbls(), &a, &b, &c) != 0) return slp_error(P);
    return Py_BuildValue("(ddd)", a, b, c);
}

PyObject* m_validaterow(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"row", nullptr};
    PyObject* r = nullptr;
    if (!parse(args, kw, "O", kwl, "Wrong arguments in validaterow", &r)) return nullptr;
    TSLPprob s = slp_of(P);
    int row;
    if (!s || row_arg(P, r, &row) < 0) return nullptr;
    return done(P, TSLPvalidaterow(s, row));
}

PyObject* m_validatekkt(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"calculationmode", "respectbasisstatus", "updatemultipliers", "kktviolationtarget", nullptr};
    int mode, respect, update;
    double target;
    if (!parse(args, kw, "iiid", kwl, "Wrong arguments in validatekkt", &mode, &respect, &update, &target)) return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    return done(P, TSLPvalidatekkt(s, mode, respect, update, target));
}

// ---------------------------------------------------------------- multistart

// Job objects handed to the library stay alive as long as the problem (or until msclear).
std::map<const ProblemObject*, std::vector<PyObject*>>& job_objects() {
    static std::map<const ProblemObject*, std::vector<PyObject*>> m;
    return m;
}

void* keep_job_object(ProblemObject* p, PyObject* o) {
    if (!o || o == Py_None) return nullptr;
    Py_INCREF(o);
    job_objects()[p].push_back(o);
    return o;
}

// Control names and values of a job from a dictionary.
bool job_controls(PyObject* control, std::vector<int>& ids, std::vector<double>& values) {
    if (!control || control == Py_None) return true;
    if (!PyDict_Check(control)) {
        PyErr_SetString(InterfaceError, "Incorrect argument 'control' in msaddcustompreset/msaddjob: must be a dictionary");
        return false;
    }
    Py_ssize_t pos = 0;
    PyObject *key, *value;
    while (PyDict_Next(control, &pos, &key, &value)) {
        PyRef lower(PyUnicode_Check(key) ? PyObject_CallMethod(key, "lower", nullptr) : nullptr);
        PyErr_Clear();
        long id = 0, type = 0;
        bool known = false;
        if (lower && state.control_catalogue) {
            std::lock_guard<std::mutex> g(state.locks->catalogue);
            PyObject* entry = PyDict_GetItem(state.control_catalogue, lower.get());
            if (entry && PyTuple_Check(entry) && PyTuple_GET_SIZE(entry) >= 2) {
                id = PyLong_AsLong(PyTuple_GET_ITEM(entry, 0));
                type = PyLong_AsLong(PyTuple_GET_ITEM(entry, 1));
                known = true;
            }
        }
        if (!known) {
            PyErr_Format(InterfaceError, "Unknown control %S in msaddcustompreset/msaddjob", key);
            return false;
        }
        if (type != 1 && type != 2) {
            PyErr_SetString(InterfaceError, "Only integer and double controls allowed in msaddcustompreset/msaddjob");
            return false;
        }
        double v = PyFloat_AsDouble(value);
        if (v == -1.0 && PyErr_Occurred()) return false;
        ids.push_back(static_cast<int>(id));
        values.push_back(v);
    }
    return true;
}

PyObject* add_job(ProblemObject* p, const char* desc, int preset, int count, PyObject* ivcols, PyObject* ivvalues,
                  PyObject* control, PyObject* job, bool custom) {
    TSLPprob s = slp_of(p);
    if (!s) return nullptr;
    std::vector<int> ids;
    std::vector<double> vals;
    if (!job_controls(control, ids, vals)) return nullptr;
    Arr cols(CONV_COL), iv(CONV_DOUBLE);
    if (!cols.get(p, ivcols) || !iv.get(p, ivvalues, cols.data ? cols.n : -1)) return nullptr;
    int rc;
    if (custom) {
        rc = TSLPmsaddcustompreset(s, desc, preset, count, cols.count(), cols.ints(), iv.dbls(), static_cast<int>(ids.size()),
                                   ids.data(), vals.data(), keep_job_object(p, job));
    } else {
        rc = TSLPmsaddjob(s, desc, cols.count(), cols.ints(), iv.dbls(), static_cast<int>(ids.size()), ids.data(),
                          vals.data(), keep_job_object(p, job));
    }
    return done(p, rc);
}

PyObject* m_msaddjob(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"description", "ivcols", "ivvalues", "control", "job_object", nullptr};
    const char* desc;
    PyObject *cols, *vals, *control, *job;
    if (!parse(args, kw, "sOOOO", kwl, "Incorrect arguments in msaddjob", &desc, &cols, &vals, &control, &job))
        return nullptr;
    return add_job(P, desc, 0, 0, cols, vals, control, job, false);
}

PyObject* m_msaddcustompreset(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"description", "preset", "count", "ivcols", "ivvalues", "control", "job_object", nullptr};
    const char* desc;
    int preset, count;
    PyObject *cols, *vals, *control, *job;
    if (!parse(args, kw, "siiOOOO", kwl, "Incorrect arguments in msaddcustompreset", &desc, &preset, &count, &cols, &vals,
               &control, &job))
        return nullptr;
    return add_job(P, desc, preset, count, cols, vals, control, job, true);
}

PyObject* m_msaddpreset(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"description", "preset", "count", "job_object", nullptr};
    const char* desc;
    int preset, count;
    PyObject* job;
    if (!parse(args, kw, "siiO", kwl, "Incorrect arguments in msaddpreset", &desc, &preset, &count, &job)) return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    return done(P, TSLPmsaddpreset(s, desc, preset, count, keep_job_object(P, job)));
}

// ---------------------------------------------------------------- SLP variables

PyObject* vars_common(PyObject* self, PyObject* args, PyObject* kw, bool load) {
    static const char* kwl[] = {"colindex", "vartype", "detrow", "seqnum", "tolindex", "initvalue", "stepbound", nullptr};
    PyObject *c, *vt, *dr, *sq, *ti, *iv, *sb;
    if (!parse(args, kw, "OOOOOOO", kwl, load ? "Wrong arguments in loadvars" : "Wrong arguments in addvars", &c, &vt, &dr,
               &sq, &ti, &iv, &sb))
        return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    Arr cols(CONV_COL), vtype(CONV_INT), det(CONV_ROW), seq(CONV_INT), tol(CONV_INT), init(CONV_DOUBLE), step(CONV_DOUBLE);
    if (!cols.get(P, c)) return nullptr;
    int64_t n = cols.n;
    if (!vtype.get(P, vt, n) || !det.get(P, dr, n) || !seq.get(P, sq, n) || !tol.get(P, ti, n) || !init.get(P, iv, n) ||
        !step.get(P, sb, n))
        return nullptr;
    auto f = load ? TSLPloadvars : TSLPaddvars;
    return done(P, f(s, cols.count(), cols.ints(), vtype.ints(), det.ints(), seq.ints(), tol.ints(), init.dbls(), step.dbls()));
}
PyObject* m_addvars(PyObject* self, PyObject* args, PyObject* kw) { return vars_common(self, args, kw, false); }
PyObject* m_loadvars(PyObject* self, PyObject* args, PyObject* kw) { return vars_common(self, args, kw, true); }

PyObject* m_chgvar(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"colindex", "detrow", "initstepbound", "stepbound", "penalty", "damp", "initvalue",
                                "value", "tolset", "history", "converged", "vartype", nullptr};
    PyObject* o[12] = {nullptr};
    if (!parse(args, kw, "|OOOOOOOOOOOO", kwl, "Incorrect arguments to chgvar", &o[0], &o[1], &o[2], &o[3], &o[4], &o[5],
               &o[6], &o[7], &o[8], &o[9], &o[10], &o[11]))
        return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    if (!o[0]) {
        PyErr_SetString(InterfaceError, "Incorrect arguments to chgvar");
        return nullptr;
    }
    int col;
    if (col_arg(P, o[0], &col) < 0) return nullptr;
    int detrow = 0;
    bool has_det = o[1] && o[1] != Py_None;
    if (has_det && row_arg(P, o[1], &detrow) < 0) return nullptr;
    double d[6];
    bool hd[6] = {false};
    for (int k = 0; k < 6; ++k) {
        PyObject* x = o[2 + k];
        if (x && x != Py_None) {
            d[k] = PyFloat_AsDouble(x);
            if (d[k] == -1.0 && PyErr_Occurred()) return nullptr;
            hd[k] = true;
        }
    }
    int iv[4];
    bool hi[4] = {false};
    for (int k = 0; k < 4; ++k) {
        PyObject* x = o[8 + k];
        if (x && x != Py_None) {
            if (!is_integer_value(x)) {
                PyErr_SetString(InterfaceError, "Incorrect arguments to chgvar");
                return nullptr;
            }
            iv[k] = static_cast<int>(PyLong_AsLong(x));
            hi[k] = true;
        }
    }
    return done(P, TSLPchgvar(s, col, has_det ? &detrow : nullptr, hd[0] ? &d[0] : nullptr, hd[1] ? &d[1] : nullptr,
                              hd[2] ? &d[2] : nullptr, hd[3] ? &d[3] : nullptr, hd[4] ? &d[4] : nullptr,
                              hd[5] ? &d[5] : nullptr, hi[0] ? &iv[0] : nullptr, hi[1] ? &iv[1] : nullptr,
                              hi[2] ? &iv[2] : nullptr, hi[3] ? &iv[3] : nullptr));
}

PyObject* m_getvar(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"colindex", nullptr};
    PyObject* c;
    if (!parse(args, kw, "O", kwl, "Incorrect arguments in getvar", &c)) return nullptr;
    TSLPprob s = slp_of(P);
    int col;
    if (!s || col_arg(P, c, &col) < 0) return nullptr;
    int detrow, tolset, history, converged, vartype, delta, penaltydelta, updaterow;
    double isb, sb, pen, damp, iv, val, orig;
    if (TSLPgetvar(s, col, &detrow, &isb, &sb, &pen, &damp, &iv, &val, &tolset, &history, &converged, &vartype, &delta,
                   &penaltydelta, &updaterow, &orig) != 0)
        return slp_error(P);
    return Py_BuildValue("(iddddddiiiiiiid)", detrow, isb, sb, pen, damp, iv, val, tolset, history, converged, vartype,
                         delta, penaltydelta, updaterow, orig);
}

PyObject* m_delvars(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"index", nullptr};
    PyObject* c;
    if (!parse(args, kw, "O", kwl, "Incorrect arguments to delvars", &c)) return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    Arr cols(CONV_COL);
    if (!cols.get(P, c)) return nullptr;
    return done(P, TSLPdelvars(s, cols.count(), cols.ints()));
}

PyObject* m_chgdeltatype(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"vars", "deltatypes", "values", nullptr};
    PyObject *c, *t, *v;
    if (!parse(args, kw, "OOO", kwl, "Wrong arguments in chgdeltatypes", &c, &t, &v)) return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    Arr cols(CONV_COL), types(CONV_INT), vals(CONV_DOUBLE);
    if (!cols.get(P, c) || !types.get(P, t, cols.n) || !vals.get(P, v, cols.n)) return nullptr;
    return done(P, TSLPchgdeltatype(s, cols.count(), cols.ints(), types.ints(), vals.dbls()));
}

PyObject* m_chgcascadenlimit(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"icol", "cascadenlimit", nullptr};
    PyObject* c;
    int limit;
    if (!parse(args, kw, "Oi", kwl, "Wrong arguments in chgcascadenlimit", &c, &limit)) return nullptr;
    TSLPprob s = slp_of(P);
    int col;
    if (!s || col_arg(P, c, &col) < 0) return nullptr;
    return done(P, TSLPchgcascadenlimit(s, col, limit));
}

// ---------------------------------------------------------------- tolerance sets

PyObject* tolsets_common(PyObject* self, PyObject* args, PyObject* kw, bool load) {
    static const char* kwl[] = {"tol", nullptr};
    PyObject* t;
    if (!parse(args, kw, "O", kwl, load ? "Wrong arguments in loadtolsets" : "Wrong arguments in addtolsets", &t))
        return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    Arr tol(CONV_DOUBLE);
    if (!tol.get(P, t)) return nullptr;
    if (tol.count() % 9 != 0) {
        PyErr_SetString(InterfaceError, "The \"tol\" argument should have a multiple of 9 elements");
        return nullptr;
    }
    auto f = load ? TSLPloadtolsets : TSLPaddtolsets;
    return done(P, f(s, tol.count() / 9, tol.dbls()));
}
PyObject* m_addtolsets(PyObject* self, PyObject* args, PyObject* kw) { return tolsets_common(self, args, kw, false); }
PyObject* m_loadtolsets(PyObject* self, PyObject* args, PyObject* kw) { return tolsets_common(self, args, kw, true); }

PyObject* m_chgtolset(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"ntol", "status", "tols", nullptr};
    int ntol;
    PyObject *st, *t;
    if (!parse(args, kw, "iOO", kwl, "Wrong arguments in addtolsets", &ntol, &st, &t)) return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    Arr tol(CONV_DOUBLE);
    if (!tol.get(P, t)) return nullptr;
    if (tol.count() != 9) {
        PyErr_SetString(InterfaceError, "Wrong number of elements in tols (should be 9)");
        return nullptr;
    }
    int status = 0;
    if (st != Py_None) {
        if (!is_integer_value(st)) {
            PyErr_SetString(InterfaceError, "Wrong arguments in addtolsets");
            return nullptr;
        }
        status = static_cast<int>(PyLong_AsLong(st));
    }
    return done(P, TSLPchgtolset(s, ntol, st != Py_None ? &status : nullptr, tol.dbls()));
}

PyObject* m_gettolset(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"nslptol", "tols", nullptr};
    int ntol;
    PyObject* t;
    if (!parse(args, kw, "iO", kwl, "Incorrect arguments in gettolset", &ntol, &t)) return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    int status = 0;
    std::vector<double> tols(9);
    if (TSLPgettolset(s, ntol, &status, tols.data()) != 0) return slp_error(P);
    if (t != Py_None && fill_list(P, t, tols) < 0) return nullptr;
    return PyLong_FromLong(status);
}

PyObject* m_deltolsets(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"index", nullptr};
    PyObject* i;
    if (!parse(args, kw, "O", kwl, "Incorrect arguments to deltolsets", &i)) return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    Arr idx(CONV_INT);
    if (!idx.get(P, i)) return nullptr;
    return done(P, TSLPdeltolsets(s, idx.count(), idx.ints()));
}

// ---------------------------------------------------------------- rows and distribution factors

PyObject* m_chgrowwt(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"rowindex", "value", nullptr};
    PyObject *r, *v;
    if (!parse(args, kw, "OO", kwl, "Incorrect call to chgrowwt", &r, &v)) return nullptr;
    TSLPprob s = slp_of(P);
    int row;
    if (!s || row_arg(P, r, &row) < 0) return nullptr;
    double w = 0;
    bool has = false;
    if (!number_or_none(v, &w, &has)) {
        PyErr_Clear();
        PyErr_SetString(InterfaceError, "Incorrect call to chgrowwt");
        return nullptr;
    }
    return done(P, TSLPchgrowwt(s, row, has ? &w : nullptr));
}

PyObject* m_chgrowstatus(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"rowindex", "status", nullptr};
    PyObject *r, *v;
    if (!parse(args, kw, "OO", kwl, "Incorrect call to chgrowstatus", &r, &v)) return nullptr;
    TSLPprob s = slp_of(P);
    int row;
    if (!s || row_arg(P, r, &row) < 0) return nullptr;
    int st = 0;
    if (v != Py_None) {
        if (!is_integer_value(v)) {
            PyErr_SetString(InterfaceError, "Incorrect call to chgrowstatus");
            return nullptr;
        }
        st = static_cast<int>(PyLong_AsLong(v));
    }
    return done(P, TSLPchgrowstatus(s, row, v != Py_None ? &st : nullptr));
}

PyObject* m_getrowwt(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"rowindex", nullptr};
    PyObject* r;
    if (!parse(args, kw, "O", kwl, "Incorrect argument in getmessagetype", &r)) return nullptr;
    TSLPprob s = slp_of(P);
    int row;
    if (!s || row_arg(P, r, &row) < 0) return nullptr;
    double w = 0;
    if (TSLPgetrowwt(s, row, &w) != 0) return slp_error(P);
    return PyFloat_FromDouble(w);
}

PyObject* m_getrowstatus(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"rowindex", nullptr};
    PyObject* r;
    if (!parse(args, kw, "O", kwl, "Incorrect argument in getmessagetype", &r)) return nullptr;
    TSLPprob s = slp_of(P);
    int row;
    if (!s || row_arg(P, r, &row) < 0) return nullptr;
    int st = 0;
    if (TSLPgetrowstatus(s, row, &st) != 0) return slp_error(P);
    return PyLong_FromLong(st);
}

PyObject* dfs_common(PyObject* self, PyObject* args, PyObject* kw, bool load) {
    static const char* kwl[] = {"colindex", "rowindex", "value", nullptr};
    PyObject *c, *r, *v;
    if (!parse(args, kw, "OOO", kwl, load ? "Wrong arguments in loaddfs" : "Wrong arguments in adddfs", &c, &r, &v))
        return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    Arr cols(CONV_COL), rows(CONV_ROW), vals(CONV_DOUBLE);
    if (!cols.get(P, c) || !rows.get(P, r, cols.n) || !vals.get(P, v, cols.n)) return nullptr;
    auto f = load ? TSLPloaddfs : TSLPadddfs;
    return done(P, f(s, cols.count(), cols.ints(), rows.ints(), vals.dbls()));
}
PyObject* m_adddfs(PyObject* self, PyObject* args, PyObject* kw) { return dfs_common(self, args, kw, false); }
PyObject* m_loaddfs(PyObject* self, PyObject* args, PyObject* kw) { return dfs_common(self, args, kw, true); }

PyObject* m_chgdf(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"colindex", "rowindex", "value", nullptr};
    PyObject *c, *r, *v;
    if (!parse(args, kw, "OOO", kwl, "Wrong arguments in chgdf", &c, &r, &v)) return nullptr;
    TSLPprob s = slp_of(P);
    int col, row;
    if (!s || col_arg(P, c, &col) < 0 || row_arg(P, r, &row) < 0) return nullptr;
    double d = 0;
    bool has = false;
    if (!number_or_none(v, &d, &has)) {
        PyErr_Clear();
        PyErr_SetString(InterfaceError, "Wrong arguments in chgdf");
        return nullptr;
    }
    return done(P, TSLPchgdf(s, col, row, has ? &d : nullptr));
}

PyObject* m_getdf(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"colindex", "rowindex", nullptr};
    PyObject *c, *r;
    if (!parse(args, kw, "OO", kwl, "Incorrect arguments in getdf", &c, &r)) return nullptr;
    TSLPprob s = slp_of(P);
    int col, row;
    if (!s || col_arg(P, c, &col) < 0 || row_arg(P, r, &row) < 0) return nullptr;
    double d = 0;
    if (TSLPgetdf(s, col, row, &d) != 0) return slp_error(P);
    return PyFloat_FromDouble(d);
}

// ---------------------------------------------------------------- nonlinear coefficients

// Token arrays of one or more formulas; checks both have the same length.
// The library reads a formula up to its end token, so the arrays must end with one.
bool token_arrays(ProblemObject* p, PyObject* t, PyObject* v, Arr& types, Arr& values) {
    if (!types.get(p, t) || !values.get(p, v, types.n)) return false;
    if (!types.data || !values.data || types.count() == 0 || types.ints()[types.count() - 1] != 0) {
        PyErr_SetString(InterfaceError, "The token arrays must end with the end-of-formula token (type 0)");
        return false;
    }
    return true;
}

PyObject* coefs_common(PyObject* self, PyObject* args, PyObject* kw, bool load) {
    static const char* kwl[] = {"rowindex", "colindex", "factor", "fstart", "parsed", "type", "value", nullptr};
    PyObject *r, *c, *f, *fs, *t, *v;
    int parsed;
    if (!parse(args, kw, "OOOOiOO", kwl, load ? "Wrong arguments in loadcoefs" : "Wrong arguments in addcoefs", &r, &c, &f,
               &fs, &parsed, &t, &v))
        return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    Arr rows(CONV_ROW), cols(CONV_COL), factors(CONV_DOUBLE), starts(CONV_INT), types(CONV_INT), values(CONV_DOUBLE);
    if (!rows.get(P, r) || !cols.get(P, c, rows.n) || !factors.get(P, f, rows.n) || !starts.get(P, fs) ||
        !token_arrays(P, t, v, types, values))
        return nullptr;
    int n = rows.count();
    if (starts.count() < n || !types.data) {
        PyErr_SetString(InterfaceError, load ? "Wrong arguments in loadcoefs" : "Wrong arguments in addcoefs");
        return nullptr;
    }
    // The start array may omit the end of the last formula: the token count closes it.
    std::vector<int> st(starts.ints(), starts.ints() + starts.count());
    if (static_cast<int>(st.size()) == n) st.push_back(types.count());
    for (size_t i = 0; i < st.size(); ++i) {
        if (st[i] < 0 || st[i] > types.count() || (i > 0 && st[i] < st[i - 1])) {
            PyErr_SetString(InterfaceError, "The formula starts (fstart) must be increasing positions in the token arrays");
            return nullptr;
        }
    }
    auto fn = load ? TSLPloadcoefs : TSLPaddcoefs;
    int rc = fn(s, n, rows.ints(), cols.ints(), factors.dbls(), st.data(), parsed, types.ints(), values.dbls());
    if (rc == 0) {
        int a = 0;
        if (TSLPgetintattrib(s, TSLP_NONLINEARROWS, &a) == 0 && a > P->nl_rows) P->nl_rows = a;
    }
    return done(P, rc);
}
PyObject* m_addcoefs(PyObject* self, PyObject* args, PyObject* kw) { return coefs_common(self, args, kw, false); }
PyObject* m_loadcoefs(PyObject* self, PyObject* args, PyObject* kw) { return coefs_common(self, args, kw, true); }

// Rows with nonlinear coefficients, as the library counts them.
void refresh_nl_rows(ProblemObject* p) {
    int a = 0;
    if (p->slp && TSLPgetintattrib(p->slp, TSLP_NONLINEARROWS, &a) == 0) {
        if (p->nl_objective && a > 0) --a;  // the transfer row is counted as the objective
        p->nl_rows = a;
    }
}

PyObject* m_chgnlcoef(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"rowindex", "colindex", "factor", "parsed", "type", "value", nullptr};
    PyObject *r, *c, *f, *t, *v;
    int parsed;
    if (!parse(args, kw, "OOOiOO", kwl, "Wrong arguments in addcoefs", &r, &c, &f, &parsed, &t, &v)) return nullptr;
    TSLPprob s = slp_of(P);
    int row, col;
    if (!s || row_arg(P, r, &row) < 0 || col_arg(P, c, &col) < 0) return nullptr;
    double factor = 0;
    bool has = false;
    if (!number_or_none(f, &factor, &has)) {
        PyErr_Clear();
        PyErr_SetString(InterfaceError, "Wrong arguments in addcoefs");
        return nullptr;
    }
    Arr types(CONV_INT), values(CONV_DOUBLE);
    if (!token_arrays(P, t, v, types, values)) return nullptr;
    int rc = TSLPchgcoef(s, row, col, has ? &factor : nullptr, parsed, types.ints(), values.dbls());
    if (rc == 0) refresh_nl_rows(P);
    return done(P, rc);
}

PyObject* m_chgccoef(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"rowindex", "colindex", "factor", "formula", nullptr};
    const char* const msg = "Wrong arguments in chgccoef";
    PyObject *r, *c, *f, *formula;
    if (!parse(args, kw, "OOOO", kwl, msg, &r, &c, &f, &formula)) return nullptr;
    double factor = 0;
    bool has = false;
    if (!number_or_none(f, &factor, &has) || !(PyUnicode_Check(formula) || PyBytes_Check(formula))) {
        PyErr_Clear();
        PyErr_SetString(InterfaceError, msg);
        return nullptr;
    }
    PyObject* tmp = nullptr;
    const char* text = conv_str(formula, nullptr, &tmp);
    PyRef hold(tmp);
    if (!text) return nullptr;
    TSLPprob s = slp_of(P);
    int row, col;
    if (!s || row_arg(P, r, &row) < 0 || col_arg(P, c, &col) < 0) return nullptr;
    int rc = TSLPchgccoef(s, row, col, has ? &factor : nullptr, text);
    if (rc == 0) refresh_nl_rows(P);
    return done(P, rc);
}

PyObject* m_delcoefs(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"rowindex", "colindex", nullptr};
    PyObject *r, *c;
    if (!parse(args, kw, "OO", kwl, "Incorrect arguments to delcoefs", &r, &c)) return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    Arr rows(CONV_ROW), cols(CONV_COL);
    if (!rows.get(P, r) || !cols.get(P, c, rows.n)) return nullptr;
    int rc = TSLPdelcoefs(s, rows.count(), rows.ints(), cols.ints());
    if (rc == 0) refresh_nl_rows(P);
    return done(P, rc);
}

PyObject* m_getcoefs(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"rowindex", "colindex", nullptr};
    const char* const msg = "Incorrect argument to getcoefformula or excessive buffersize";
    PyObject *r = nullptr, *c = nullptr;
    if (!parse(args, kw, "|OO", kwl, msg, &r, &c)) return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    int n = 0;
    if (TSLPgetcoefs(s, &n, nullptr, nullptr) != 0) return slp_error(P);
    std::vector<int> rows(n > 0 ? n : 1), cols(n > 0 ? n : 1);
    if (n > 0 && TSLPgetcoefs(s, &n, rows.data(), cols.data()) != 0) return slp_error(P);
    if (fill_objects(r, P->cons, rows.data(), n) < 0 || fill_objects(c, P->vars, cols.data(), n) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_getcoefformula(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"rowindex", "colindex", "parsed", "bufsize", nullptr};
    const char* const msg = "Incorrect argument to getcoefformula or excessive buffersize";
    PyObject *r, *c;
    int parsed, bufsize;
    if (!parse(args, kw, "OOii", kwl, msg, &r, &c, &parsed, &bufsize)) return nullptr;
    if (bufsize < 0 || bufsize > (1 << 26)) {
        PyErr_SetString(InterfaceError, msg);
        return nullptr;
    }
    TSLPprob s = slp_of(P);
    int row, col;
    if (!s || row_arg(P, r, &row) < 0 || col_arg(P, c, &col) < 0) return nullptr;
    std::vector<int> types(bufsize > 0 ? bufsize : 1);
    std::vector<double> values(types.size());
    double factor = 0;
    int ntok = 0;
    if (TSLPgetcoefformula(s, row, col, &factor, parsed, bufsize, &ntok, types.data(), values.data()) != 0)
        return slp_error(P);
    if (ntok > bufsize) ntok = bufsize;
    PyRef tl(list_of_ints(types.data(), ntok)), vl(list_of_doubles(values.data(), ntok));
    if (!tl || !vl) return nullptr;
    return Py_BuildValue("(diOO)", factor, ntok, tl.get(), vl.get());
}

PyObject* m_getccoef(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"rowindex", "colindex", "flen", nullptr};
    const char* const msg = "Incorrect argument to getccoef or excessive formula length requested";
    PyObject *r, *c;
    int flen;
    if (!parse(args, kw, "OOi", kwl, msg, &r, &c, &flen)) return nullptr;
    if (flen <= 0 || flen > (1 << 26)) {
        PyErr_SetString(InterfaceError, msg);
        return nullptr;
    }
    TSLPprob s = slp_of(P);
    int row, col;
    if (!s || row_arg(P, r, &row) < 0 || col_arg(P, c, &col) < 0) return nullptr;
    std::string buf(static_cast<size_t>(flen) + 1, '\0');
    double factor = 0;
    if (TSLPgetccoef(s, row, col, &factor, &buf[0], flen) != 0) return slp_error(P);
    return Py_BuildValue("(ds)", factor, buf.c_str());
}

PyObject* m_evaluateformula(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"parsed", "type", "value", nullptr};
    int parsed;
    PyObject *t, *v;
    if (!parse(args, kw, "iOO", kwl, "Incorrect arguments to delvars", &parsed, &t, &v)) return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    Arr types(CONV_INT), values(CONV_DOUBLE);
    if (!token_arrays(P, t, v, types, values)) return nullptr;
    double result = 0;
    if (TSLPevaluateformula(s, parsed, types.ints(), values.dbls(), &result) != 0) return slp_error(P);
    return PyFloat_FromDouble(result);
}

PyObject* m_evaluatecoef(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"rowindex", "colindex", nullptr};
    PyObject *r, *c;
    if (!parse(args, kw, "OO", kwl, "Incorrect arguments to delcoefs", &r, &c)) return nullptr;
    TSLPprob s = slp_of(P);
    int row, col;
    if (!s || row_arg(P, r, &row) < 0 || col_arg(P, c, &col) < 0) return nullptr;
    double result = 0;
    if (TSLPevaluatecoef(s, row, col, &result) != 0) return slp_error(P);
    return PyFloat_FromDouble(result);
}

// ---------------------------------------------------------------- solution queries

PyObject* m_getslpsol(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwl[] = {"x", "slack", "dual", "dj", nullptr};
    PyObject *x = nullptr, *slack = nullptr, *dual = nullptr, *dj = nullptr;
    if (!parse(args, kw, "|OOOO", kwl, "Wrong arguments in getslpsol", &x, &slack, &dual, &dj)) return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    int rows = 0, cols = 0;
    if (prob_int_attrib(P, 1001, &rows) < 0 || prob_int_attrib(P, 1018, &cols) < 0) return nullptr;
    auto want = [](PyObject* o) { return o && o != Py_None; };
    std::vector<double> vx(want(x) ? cols : 0), vs(want(slack) ? rows : 0), vd(want(dual) ? rows : 0),
        vj(want(dj) ? cols : 0);
    if (TSLPgetslpsol(s, want(x) ? vx.data() : nullptr, want(slack) ? vs.data() : nullptr,
                      want(dual) ? vd.data() : nullptr, want(dj) ? vj.data() : nullptr) != 0)
        return slp_error(P);
    if ((want(x) && fill_list(P, x, vx) < 0) || (want(slack) && fill_list(P, slack, vs) < 0) ||
        (want(dual) && fill_list(P, dual, vd) < 0) || (want(dj) && fill_list(P, dj, vj) < 0))
        return nullptr;
    Py_RETURN_NONE;
}

PyObject* info_common(PyObject* self, PyObject* args, PyObject* kw, bool rows) {
    static const char* kwr[] = {"infotype", "rowindex", nullptr};
    static const char* kwc[] = {"infotype", "colindex", nullptr};
    int infotype;
    PyObject* o;
    if (!parse(args, kw, "iO", rows ? kwr : kwc, rows ? "Incorrect argument to getrowinfo" : "Incorrect argument to getcolinfo",
               &infotype, &o))
        return nullptr;
    TSLPprob s = slp_of(P);
    if (!s) return nullptr;
    int index;
    if ((rows ? row_arg(P, o, &index) : col_arg(P, o, &index)) < 0) return nullptr;
    int tag = 0, iv = 0;
    double dv = 0;
    int rc = (rows ? TSLPgetrowinfo : TSLPgetcolinfo)(s, infotype, index, &tag, &iv, &dv);
    if (rc == 0 && tag == 1) return PyLong_FromLong(iv);
    if (rc == 0 && tag == 2) return PyFloat_FromDouble(dv);
    return slp_error(P);
}
PyObject* m_getrowinfo(PyObject* self, PyObject* args, PyObject* kw) { return info_common(self, args, kw, true); }
PyObject* m_getcolinfo(PyObject* self, PyObject* args, PyObject* kw) { return info_common(self, args, kw, false); }

#define NOARGS(name, doc) {#name, m_##name, METH_NOARGS, doc}
#define KWARGS(name, doc) {#name, KW(m_##name), METH_VARARGS | METH_KEYWORDS, doc}

}  // namespace

void nlp_copy_job_objects(ProblemObject* dst, const ProblemObject* src) {
    auto& m = job_objects();
    auto it = m.find(src);
    if (it == m.end()) return;
    std::vector<PyObject*> objs = it->second;
    for (PyObject* o : objs) Py_INCREF(o);
    auto& mine = m[dst];
    mine.insert(mine.end(), objs.begin(), objs.end());
}

void nlp_release_job_objects(ProblemObject* p) {
    auto& m = job_objects();
    auto it = m.find(p);
    if (it == m.end()) return;
    std::vector<PyObject*> objs;
    objs.swap(it->second);
    m.erase(it);
    for (PyObject* o : objs) Py_DECREF(o);
}

// Every method raises InterfaceError for arguments it cannot parse and SolverError when the
// nonlinear solver reports a failure; rows and columns are indices, names or model objects.
#define ERRS " Raises InterfaceError for bad arguments and SolverError when the solver fails."

PyMethodDef problem_nonlinear_methods[] = {
    NOARGS(validate, "validate($self, /)\n--\n\nCheck the formulas' derivatives at the current point; the validation "
                     "indices are left in the attributes. Returns None." ERRS),
    NOARGS(updatelinearization, "updatelinearization($self, /)\n--\n\nEvaluate every row and gradient at the current "
                                "point. Returns None." ERRS),
    NOARGS(unconstruct, "unconstruct($self, /)\n--\n\nDrop the constructed linearisation so that the problem can be "
                        "changed. Returns None." ERRS),
    NOARGS(setcurrentiv, "setcurrentiv($self, /)\n--\n\nTake the current solution values as the initial values of the "
                         "next solve. Returns None." ERRS),
    NOARGS(scaling, "scaling($self, /)\n--\n\nSet the row weights from the sizes of the rows' gradients. Returns None." ERRS),
    NOARGS(reinitialize, "reinitialize($self, /)\n--\n\nForget the solution and the nonlinear solver's state, so the "
                         "next solve starts afresh. Returns None." ERRS),
    NOARGS(printevalinfo, "printevalinfo($self, /)\n--\n\nPrint the formula evaluation statistics of the last solve to "
                          "the problem's log. Returns None." ERRS),
    NOARGS(printmemory, "printmemory($self, /)\n--\n\nPrint the memory used by the nonlinear problem to its log. "
                        "Returns None." ERRS),
    NOARGS(presolve, "presolve($self, /)\n--\n\nPresolve the nonlinear problem. Returns None." ERRS),
    NOARGS(msclear, "msclear($self, /)\n--\n\nRemove every multistart job. Returns None." ERRS),
    NOARGS(construct, "construct($self, /)\n--\n\nCompile every formula of the nonlinear problem (a solve does this "
                      "itself). Returns None." ERRS),
    NOARGS(cascadeorder, "cascadeorder($self, /)\n--\n\nNumber the determined columns in the order they are cascaded. "
                         "Returns None." ERRS),
    NOARGS(cascade, "cascade($self, /)\n--\n\nRecompute the determined columns from their determining rows at the "
                    "current point. Returns None." ERRS),
    NOARGS(fixpenalties, "fixpenalties($self, /)\n--\n\nFix the penalty error columns and return the solver's status as "
                         "an int." ERRS),
    KWARGS(nlpoptimize, "nlpoptimize($self, /, flags='')\n--\n\nSolve the problem with the nonlinear solver (flag 'g' "
                        "asks for a mixed-integer search), releasing the interpreter lock. Returns None; the outcome "
                        "is in getProbStatus()." ERRS),
    NOARGS(globalsol, "globalsol($self, /)\n--\n\nSolve from several starting points (the multistart jobs) and keep the "
                      "best solution, releasing the interpreter lock. Returns None." ERRS),
    KWARGS(validatevector, "validatevector($self, /, vector)\n--\n\nEvaluate a point (one value per column) and return "
                           "the tuple (sum of infeasibilities, sum of scaled infeasibilities, objective value) as "
                           "floats." ERRS),
    KWARGS(validaterow, "validaterow($self, /, row)\n--\n\nCheck the linearisation of one row at the current point and "
                        "report the result in the log. Returns None." ERRS),
    KWARGS(validatekkt, "validatekkt($self, /, calculationmode, respectbasisstatus, updatemultipliers, "
                        "kktviolationtarget)\n--\n\nCompute the first-order optimality (KKT) residual of the current "
                        "solution into the attributes, optionally recomputing the multipliers. Returns None." ERRS),
    KWARGS(msaddpreset, "msaddpreset($self, /, description, preset, count, job_object)\n--\n\nAdd count multistart jobs "
                        "of a preset kind (an msset_... constant); job_object is handed back to the multistart "
                        "callbacks. Returns None." ERRS),
    KWARGS(msaddjob, "msaddjob($self, /, description, ivcols, ivvalues, control, job_object)\n--\n\nAdd one multistart "
                     "job: initial values for the columns ivcols and a dict of integer or double controls. Returns "
                     "None." ERRS),
    KWARGS(msaddcustompreset, "msaddcustompreset($self, /, description, preset, count, ivcols, ivvalues, control, "
                              "job_object)\n--\n\nAdd count multistart jobs of a preset kind with the given initial "
                              "values and controls. Returns None." ERRS),
    KWARGS(addvars, "addvars($self, /, colindex, vartype, detrow, seqnum, tolindex, initvalue, stepbound)\n--\n\nGive "
                    "columns their nonlinear-solver data (arrays, one entry per column): type bits, determining row, "
                    "cascade order, tolerance set, initial value and step bound. Returns None." ERRS),
    KWARGS(loadvars, "loadvars($self, /, colindex, vartype, detrow, seqnum, tolindex, initvalue, stepbound)\n--\n\n"
                     "Replace the nonlinear-solver data of all columns by the arrays given (as addvars). Returns None."
                     ERRS),
    KWARGS(addtolsets, "addtolsets($self, /, tol)\n--\n\nAdd tolerance sets: tol holds nine tolerances per set. "
                       "Returns None." ERRS),
    KWARGS(loadtolsets, "loadtolsets($self, /, tol)\n--\n\nReplace the tolerance sets by those in tol (nine values "
                        "each). Returns None." ERRS),
    KWARGS(adddfs, "adddfs($self, /, colindex, rowindex, value)\n--\n\nAdd distribution factors (each scales the "
                   "linear coefficient of a column in a row; default 1). Returns None." ERRS),
    KWARGS(loaddfs, "loaddfs($self, /, colindex, rowindex, value)\n--\n\nReplace all distribution factors by those "
                    "given. Returns None." ERRS),
    KWARGS(addcoefs, "addcoefs($self, /, rowindex, colindex, factor, fstart, parsed, type, value)\n--\n\nAdd nonlinear "
                     "coefficients given as token formulas (fstart: start of each formula in type/value; parsed: 1 "
                     "for reverse Polish order). Returns None." ERRS),
    KWARGS(loadcoefs, "loadcoefs($self, /, rowindex, colindex, factor, fstart, parsed, type, value)\n--\n\nReplace all "
                      "nonlinear coefficients by the token formulas given (as addcoefs). Returns None." ERRS),
    KWARGS(chgnlcoef, "chgnlcoef($self, /, rowindex, colindex, factor, parsed, type, value)\n--\n\nSet the nonlinear "
                      "coefficient of a row and column to one token formula. Returns None." ERRS),
    KWARGS(chgccoef, "chgccoef($self, /, rowindex, colindex, factor, formula)\n--\n\nSet the nonlinear coefficient of a "
                     "row and column from a text formula (factor may be None). Returns None." ERRS),
    KWARGS(chgvar, "chgvar($self, /, colindex, detrow=None, initstepbound=None, stepbound=None, penalty=None, "
                   "damp=None, initvalue=None, value=None, tolset=None, history=None, converged=None, vartype=None)"
                   "\n--\n\nChange the nonlinear-solver data of one column; only the arguments given (not None) "
                   "change. initvalue is the start value of the next nonlinear solve. Returns None." ERRS),
    KWARGS(chgtolset, "chgtolset($self, /, ntol, status, tols)\n--\n\nChange tolerance set ntol: its nine tolerances "
                      "and, unless None, its status bits. Returns None." ERRS),
    KWARGS(chgrowwt, "chgrowwt($self, /, rowindex, value)\n--\n\nSet a row's penalty weight. Returns None." ERRS),
    KWARGS(chgrowstatus, "chgrowstatus($self, /, rowindex, status)\n--\n\nSet a row's status bits. Returns None."
                         ERRS),
    KWARGS(chgdf, "chgdf($self, /, colindex, rowindex, value)\n--\n\nSet one distribution factor. Returns None." ERRS),
    KWARGS(chgdeltatype, "chgdeltatype($self, /, vars, deltatypes, values)\n--\n\nSet how each column steps: delta type "
                         "0 continuous, 1 no steps below the value, 2 whole multiples of the value. Returns None." ERRS),
    KWARGS(chgcascadenlimit, "chgcascadenlimit($self, /, icol, cascadenlimit)\n--\n\nSet the number of Newton steps "
                             "used to cascade a determined column. Returns None." ERRS),
    KWARGS(delvars, "delvars($self, /, index)\n--\n\nRemove the nonlinear-solver data of the columns given. Returns "
                    "None." ERRS),
    KWARGS(deltolsets, "deltolsets($self, /, index)\n--\n\nDelete the tolerance sets given. Returns None." ERRS),
    KWARGS(delcoefs, "delcoefs($self, /, rowindex, colindex)\n--\n\nDelete the nonlinear coefficients at the given rows "
                     "and columns (arrays). Returns None." ERRS),
    KWARGS(getvar, "getvar($self, /, colindex)\n--\n\nReturn the nonlinear-solver data of one column as a 15-item tuple "
                   "(detrow, initstepbound, stepbound, penalty, damp, initvalue, value, tolset, history, converged, "
                   "vartype, delta type, penalty delta, update row, value at the start of the last solve)." ERRS),
    KWARGS(gettolset, "gettolset($self, /, nslptol, tols)\n--\n\nReturn the status of tolerance set nslptol as an int; "
                      "the list tols, unless None, receives its nine tolerances." ERRS),
    KWARGS(getslpsol, "getslpsol($self, /, x=None, slack=None, dual=None, dj=None)\n--\n\nFill the lists given with the "
                      "nonlinear solution: values and reduced costs per column, slacks and duals per row. Returns "
                      "None." ERRS),
    KWARGS(getrowwt, "getrowwt($self, /, rowindex)\n--\n\nReturn a row's penalty weight as a float." ERRS),
    KWARGS(getrowstatus, "getrowstatus($self, /, rowindex)\n--\n\nReturn a row's status bits as an int." ERRS),
    KWARGS(getdf, "getdf($self, /, colindex, rowindex)\n--\n\nReturn a distribution factor as a float." ERRS),
    KWARGS(getrowinfo, "getrowinfo($self, /, infotype, rowindex)\n--\n\nReturn one item of a row's solution "
                       "information (a rowinfo_... constant) as an int or float." ERRS),
    KWARGS(getcolinfo, "getcolinfo($self, /, infotype, colindex)\n--\n\nReturn one item of a column's solution "
                       "information (a colinfo_... constant) as an int or float." ERRS),
    KWARGS(getcoefs, "getcoefs($self, /, rowindex=None, colindex=None)\n--\n\nFill the lists given with the "
                     "constraints and variables of every nonlinear coefficient, in the same order. Returns None." ERRS),
    KWARGS(getcoefformula, "getcoefformula($self, /, rowindex, colindex, parsed, bufsize)\n--\n\nReturn the formula of "
                           "a nonlinear coefficient as a tuple (factor, number of tokens, token types, token values)."
                           ERRS),
    KWARGS(getccoef, "getccoef($self, /, rowindex, colindex, flen)\n--\n\nReturn the formula of a nonlinear "
                     "coefficient as a tuple (factor, formula text of at most flen characters)." ERRS),
    KWARGS(evaluateformula, "evaluateformula($self, /, parsed, type, value)\n--\n\nEvaluate a token formula at the "
                            "current point and return its value as a float." ERRS),
    KWARGS(evaluatecoef, "evaluatecoef($self, /, rowindex, colindex)\n--\n\nEvaluate a nonlinear coefficient at the "
                         "current point and return its value as a float." ERRS),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace tarvo
