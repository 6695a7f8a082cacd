// Low-level methods that add columns and rows or load a whole problem. Each new column gets a
// `var` and each new row a `constraint` in the problem's lists and maps, so that modelling
// methods and low-level methods can be mixed on one problem.
#include "problem/lowlevel.h"
#include "model/model.h"

#include <cmath>
#include <cstring>

namespace tarvo {

// (problem/problem.cpp) Forgets the nonlinear data of the problem's present content; empties
// the lists and maps; empties and rebuilds them from the library.
int problem_forget_nonlinear(ProblemObject* p);
void problem_clear_lists(ProblemObject* p);
int problem_reload_from_library(ProblemObject* p);

namespace ll {

int starts_arg(ProblemObject* p, PyObject* src, int n, int64_t total, std::vector<int64_t>& out) {
    out.clear();
    if (src == Py_None) {
        out.assign(static_cast<size_t>(n) + 1, 0);
        if (total == 0) return 0;
        PyErr_SetString(ModelError, "Start indices are needed for the matrix entries");
        return -1;
    }
    Arrays a(p);
    int64_t* s = a.int64s(src);
    if (!a.ok) return -1;
    if (a.n != n && a.n != n + 1) {
        PyErr_Format(ModelError, "Mismatched lengths in arguments: expected %d, found %d", n, static_cast<int>(a.n));
        return -1;
    }
    out.assign(s, s + a.n);
    if (a.n == n) out.push_back(total);
    for (int i = 0; i < n; ++i)
        if (out[static_cast<size_t>(i)] < 0 || out[static_cast<size_t>(i)] > out[static_cast<size_t>(i) + 1]) {
            PyErr_Format(ModelError, "Start indices must be non-decreasing from 0 (entry %d)", i);
            return -1;
        }
    if (out.back() != total) {
        PyErr_Format(ModelError, "Mismatched lengths in arguments: expected %d, found %d", static_cast<int>(out.back()),
                     static_cast<int>(total));
        return -1;
    }
    return 0;
}

namespace {

PyObject* m_addcols(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "addcols", {"?objx", "?mstart", "?mrwind", "?dmatval", "?bdl", "?bdu", "?names", "?types"});
    if (!a.ok || a.missing({0, 1, 2, 3, 4, 5}, "Must provide arguments objx, mstart, mrwind, dmatval, bdl, bdu"))
        return nullptr;
    Arrays col(a.p), nz(a.p);
    double* objx = col.dbls(a[0]);
    double* bdl = col.dbls(a[4]);
    double* bdu = col.dbls(a[5]);
    int* mrwind = nz.ints(a[2], CONV_ROW);
    double* dmatval = nz.dbls(a[3]);
    if (!col.ok || !nz.ok) return nullptr;
    int n = col.count();
    std::vector<int64_t> starts;
    std::vector<char> types;
    if (starts_arg(a.p, a[1], n, nz.count(), starts) < 0 || check_new_columns(n, a[6], a[7], types) < 0) return nullptr;
    int c0 = 0;
    if (cols(a.p, &c0) < 0) return nullptr;
    if (TRVOaddcols64(a.p->prob, n, nz.count(), objx, starts.data(), mrwind, dmatval, bdl, bdu) != 0)
        return problem_error(a.p);
    if (adopt_columns(a.p, c0, n, a[6], types, bdl, bdu) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyObject* m_addrows(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "addrows", {"?qrtype", "?rhs", "?mstart", "?mclind", "?dmatval", "?range", "?names"});
    if (!a.ok || a.missing({0, 1, 2, 3, 4}, "Must provide arguments qrtype, rhs, mstart, mclind, dmatval")) return nullptr;
    Arrays row(a.p), nz(a.p);
    char* qrtype = row.chars(a[0]);
    double* rhs = row.dbls(a[1]);
    double* rng = row.dbls(a[5]);
    int* mclind = nz.ints(a[3], CONV_COL);
    double* dmatval = nz.dbls(a[4]);
    if (!row.ok || !nz.ok) return nullptr;
    int n = row.count();
    std::vector<int64_t> starts;
    std::vector<char> unused;
    if (starts_arg(a.p, a[2], n, nz.count(), starts) < 0 || check_new_rows(n, a[6]) < 0) return nullptr;
    int r0 = 0;
    if (rows(a.p, &r0) < 0) return nullptr;
    if (TRVOaddrows64(a.p->prob, n, nz.count(), qrtype, rhs, rng, starts.data(), mclind, dmatval) != 0)
        return problem_error(a.p);
    if (adopt_rows(a.p, r0, n, a[6], qrtype, rhs, rng) < 0) return nullptr;
    Py_RETURN_NONE;
}

// Names given to loadproblem for the objects made from the library's content.
int name_objects(ProblemObject* p, PyObject* colnames, PyObject* rownames, int ncol, int nrow) {
    for (int kind : {2, 1}) {
        PyObject* names = kind == 2 ? colnames : rownames;
        int n = kind == 2 ? ncol : nrow;
        if (names == Py_None || n == 0) continue;
        for (int i = 0; i < n; ++i) {
            PyRef tmp;
            const char* s = str_arg(PySequence_Fast_GET_ITEM(names, i), "names", tmp);
            if (!s) return -1;
            PyObject* o = PyList_GET_ITEM(kind == 2 ? p->vars : p->cons, i);
            PyRef name(PyUnicode_FromString(s));
            if (!name) return -1;
            if (kind == 2) var_set_name(&reinterpret_cast<VarObject*>(o)->word, name.get());
            else con_set_name(&reinterpret_cast<ConstraintObject*>(o)->word, name.get());
        }
        // An empty name leaves the object its default name, which the library gets too.
        PyRef made(PyList_GetSlice(kind == 2 ? p->vars : p->cons, 0, n));
        if (!made || name_in_library(p, kind, 0, made.get(), names) < 0) return -1;
    }
    return 0;
}

// A column-wise matrix turned row-wise (entries of a row in column order).
struct RowWise {
    std::vector<int64_t> start;
    std::vector<int> col;
    std::vector<double> val;
};

int transpose(const std::vector<int64_t>& cstart, const int* mnel, const int* mrwind, const double* dmatval, int ncol,
              int nrow, RowWise& rw) {
    const int64_t* cs = cstart.data();
    auto end_of = [&](int j) { return mnel ? cs[j] + mnel[j] : cs[j + 1]; };
    rw.start.assign(static_cast<size_t>(nrow) + 1, 0);
    int64_t* count = rw.start.data() + 1;
    int64_t total = 0;
    for (int j = 0; j < ncol; ++j) {
        const int64_t first = cs[j], last = end_of(j);
        for (int64_t k = first; k < last; ++k) {
            int r = mrwind[k];
            if (static_cast<unsigned>(r) >= static_cast<unsigned>(nrow)) {
                PyErr_Format(SolverError, "Row index %d out of range (0 to %d)", r, nrow - 1);
                return -1;
            }
            ++count[r];
        }
        bool finite = true;
        for (int64_t k = first; k < last; ++k) finite &= std::isfinite(dmatval[k]);
        if (!finite)
            for (int64_t k = first; k < last; ++k)
                if (!std::isfinite(dmatval[k])) {
                    PyErr_Format(SolverError, "Matrix coefficient %lld is not finite", static_cast<long long>(k));
                    return -1;
                }
        total += last - first;
    }
    for (int i = 0; i < nrow; ++i) count[i] += count[i - 1];
    rw.col.resize(static_cast<size_t>(total));
    rw.val.resize(static_cast<size_t>(total));
    std::vector<int64_t> next(rw.start.begin(), rw.start.end() - 1);
    int64_t* at = next.data();
    int* col = rw.col.data();
    double* val = rw.val.data();
    for (int j = 0; j < ncol; ++j) {
        const int64_t last = end_of(j);
        for (int64_t k = cs[j]; k < last; ++k) {
            int64_t to = at[mrwind[k]]++;
            col[to] = j;
            val[to] = dmatval[k];
        }
    }
    return 0;
}

// A group of optional arguments of loadproblem: all given or none.
bool group(const Args& a, std::initializer_list<int> which, const char* msg, bool* present) {
    int given = 0, total = 0;
    for (int i : which) {
        ++total;
        given += a.given(i);
    }
    *present = given > 0;
    if (given > 0 && given < total) {
        PyErr_SetString(InterfaceError, msg);
        return false;
    }
    return true;
}

PyObject* m_loadproblem(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "loadproblem",
           {"probname", "?qrtypes", "?rhs", "?range", "?obj", "?mstart", "?mnel", "?mrwind", "?dmatval", "?dlb", "?dub",
            "?mqcol1", "?mqcol2", "?dqe", "?qcrows", "?qcnquads", "?qcmqcol1", "?qcmqcol2", "?qcdqval", "?qgtype",
            "?mgcols", "?dlim", "?qstype", "?msstart", "?mscols", "?dref", "?colnames", "?rownames"});
    if (!a.ok) return nullptr;
    ProblemObject* p = a.p;
    PyRef hold;
    const char* probname = str_arg(a[0], "probname", hold);
    if (!probname) return nullptr;
    bool hasq, hasqc, hasg, hass;
    if (!group(a, {11, 12, 13}, "Incomplete list of parameters specified for the quadratic objective component", &hasq) ||
        !group(a, {14, 15, 16, 17, 18}, "Incomplete list of parameters specified for the quadratic rows component", &hasqc) ||
        !group(a, {19, 20}, "Incomplete list of parameters specified for the global entities", &hasg) ||
        !group(a, {22, 23, 24, 25}, "Incomplete list of parameters specified for the SOS", &hass))
        return nullptr;
    if (a.given(2) != a.given(1) || (a.given(3) && !a.given(1))) {
        PyErr_SetString(InterfaceError, "Must provide arguments qrtypes, rhs");
        return nullptr;
    }
    // Rows, columns and matrix entries have no objects yet: indices are plain integers.
    Arrays row(p), col(p), nz(p), q(p), qcr(p), qce(p), ge(p), st(p), se(p);
    char* qrtype = row.chars(a[1]);
    double* rhs = row.dbls(a[2]);
    double* rng = row.dbls(a[3]);
    double* obj = col.dbls(a[4]);
    int* mnel = col.ints(a[6]);
    double* dlb = col.dbls(a[9]);
    double* dub = col.dbls(a[10]);
    int* mrwind = nz.ints(a[7]);
    double* dmatval = nz.dbls(a[8]);
    int* mqcol1 = q.ints(a[11]);
    int* mqcol2 = q.ints(a[12]);
    double* dqe = q.dbls(a[13]);
    int* qcrows = qcr.ints(a[14]);
    int64_t* qcnquads = qcr.int64s(a[15]);
    int* qcmqcol1 = qce.ints(a[16]);
    int* qcmqcol2 = qce.ints(a[17]);
    double* qcdqval = qce.dbls(a[18]);
    char* qgtype = ge.chars(a[19]);
    int* mgcols = ge.ints(a[20]);
    double* dlim = ge.dbls(a[21]);
    char* qstype = st.chars(a[22]);
    int* mscols = se.ints(a[24]);
    double* dref = se.dbls(a[25]);
    for (Arrays* g : {&row, &col, &nz, &q, &qcr, &qce, &ge, &st, &se})
        if (!g->ok) return nullptr;
    int ncol = col.count(), nrow = row.count();
    std::vector<int64_t> starts, sstarts;
    if (a.given(5)) {
        if (ncol == 0 && !a.given(4) && !a.given(9) && !a.given(10)) {
            // Only the starts give the number of columns: n + 1 of them.
            Arrays s(p);
            s.int64s(a[5]);
            if (!s.ok) return nullptr;
            ncol = s.count() > 0 ? s.count() - 1 : 0;
        }
        if (mnel) {
            Arrays s(p, ncol);
            int64_t* m = s.int64s(a[5]);
            if (!s.ok) return nullptr;
            starts.assign(m, m + ncol);
            for (int j = 0; j < ncol; ++j)
                if (m[j] < 0 || mnel[j] < 0 || m[j] + mnel[j] > nz.count()) {
                    PyErr_Format(ModelError, "Entries of column %d lie outside the matrix arrays", j);
                    return nullptr;
                }
        } else if (starts_arg(p, a[5], ncol, nz.count(), starts) < 0) {
            return nullptr;
        }
    } else if (nz.count() > 0) {
        PyErr_SetString(InterfaceError, "Must provide argument mstart");
        return nullptr;
    }
    if (hasqc && qcnquads) {
        int64_t total = 0;
        for (int k = 0; k < qcr.count(); ++k) total += qcnquads[k];
        if (total != qce.count()) {
            PyErr_Format(ModelError, "Mismatched lengths in arguments: expected %d, found %d", static_cast<int>(total),
                         qce.count());
            return nullptr;
        }
    }
    if (hass && starts_arg(p, a[23], st.count(), se.count(), sstarts) < 0) return nullptr;
    std::vector<char> unused;
    if (check_new_columns(ncol, a[26], Py_None, unused) < 0 || check_new_rows(nrow, a[27]) < 0) return nullptr;
    const int64_t* msstart = sstarts.empty() ? nullptr : sstarts.data();
    int64_t nqtr = q.count();
    // Without quadratic rows (which name rows) the columns are loaded first and the rows then
    // appended row-wise: the library stores the matrix by rows, and handing it over row-wise
    // costs one counting sort here instead of scattered appends to every row.
    RowWise rw;
    bool by_rows = !hasqc && nrow > 0 && !starts.empty();
    if (by_rows) {
        // What the library would refuse about the rows is refused before anything is loaded.
        for (int i = 0; i < nrow; ++i) {
            char t = qrtype ? qrtype[i] : 0;
            if (!t || !std::strchr("LGERN", t) || (rhs && std::isnan(rhs[i])) || (t == 'R' && rng && !(rng[i] >= 0))) {
                PyErr_Format(SolverError, "Invalid type, right-hand side or range of row %d", i);
                return nullptr;
            }
        }
        if (transpose(starts, mnel, mrwind, dmatval, ncol, nrow, rw) < 0) return nullptr;
    }
    const int64_t* mstart = starts.empty() || by_rows ? nullptr : starts.data();
    int nrow_load = by_rows ? 0 : nrow;
    if (by_rows) mnel = nullptr;
    // Everything is checked: the nonlinear data of the present content goes (it would refer to
    // rows and columns that are about to mean something else).
    if (problem_forget_nonlinear(p) < 0) return nullptr;
    int rc;
    if (hasqc && (hasg || hass))
        rc = TRVOloadqcqpglobal64(p->prob, probname, ncol, nrow_load, qrtype, rhs, rng, obj, mstart, mnel, mrwind, dmatval,
                                  dlb, dub, nqtr, mqcol1, mqcol2, dqe, qcr.count(), qcrows, qcnquads, qcmqcol1,
                                  qcmqcol2, qcdqval, ge.count(), st.count(), qgtype, mgcols, dlim, qstype, msstart,
                                  mscols, dref);
    else if (hasqc)
        rc = TRVOloadqcqp64(p->prob, probname, ncol, nrow_load, qrtype, rhs, rng, obj, mstart, mnel, mrwind, dmatval, dlb,
                            dub, nqtr, mqcol1, mqcol2, dqe, qcr.count(), qcrows, qcnquads, qcmqcol1, qcmqcol2, qcdqval);
    else if (hasq && (hasg || hass))
        rc = TRVOloadqglobal64(p->prob, probname, ncol, nrow_load, qrtype, rhs, rng, obj, mstart, mnel, mrwind, dmatval, dlb,
                               dub, nqtr, mqcol1, mqcol2, dqe, ge.count(), st.count(), qgtype, mgcols, dlim, qstype,
                               msstart, mscols, dref);
    else if (hasq)
        rc = TRVOloadqp64(p->prob, probname, ncol, nrow_load, qrtype, rhs, rng, obj, mstart, mnel, mrwind, dmatval, dlb, dub,
                          nqtr, mqcol1, mqcol2, dqe);
    else if (hasg || hass)
        rc = TRVOloadglobal64(p->prob, probname, ncol, nrow_load, qrtype, rhs, rng, obj, mstart, mnel, mrwind, dmatval, dlb,
                              dub, ge.count(), st.count(), qgtype, mgcols, dlim, qstype, msstart, mscols, dref);
    else
        rc = TRVOloadlp64(p->prob, probname, ncol, nrow_load, qrtype, rhs, rng, obj, mstart, mnel, mrwind, dmatval, dlb, dub);
    if (rc != 0) {
        // A load that failed part-way may have emptied the library problem: the lists follow it.
        int c = 0, r = 0;
        PyObject *t, *v, *tb;
        PyErr_Fetch(&t, &v, &tb);
        if (cols(p, &c) == 0 && rows(p, &r) == 0 && (c != PyList_GET_SIZE(p->vars) || r != PyList_GET_SIZE(p->cons)))
            problem_reload_from_library(p);
        PyErr_Clear();
        PyErr_Restore(t, v, tb);
        return problem_error(p);
    }
    if (by_rows && TRVOaddrows64(p->prob, nrow, static_cast<int64_t>(rw.col.size()), qrtype, rhs, rng, rw.start.data(),
                                 rw.col.data(), rw.val.data()) != 0) {
        // The entries were checked: this is not expected, but the problem must not stay half loaded.
        PyObject *t, *v, *tb;
        PyErr_Fetch(&t, &v, &tb);
        TRVOloadlp64(p->prob, "", 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                     nullptr);
        problem_clear_lists(p);
        PyErr_Restore(t, v, tb);
        return problem_error(p);
    }
    if (hass) {
        // Sets get their objects from the library, as when a problem is read.
        if (problem_reload_from_library(p) < 0) return nullptr;
        if (name_objects(p, a[26], a[27], ncol, nrow) < 0) return nullptr;
    } else {
        std::vector<char> none;
        problem_clear_lists(p);
        if (adopt_columns(p, 0, ncol, a[26], none, dlb, dub) < 0 ||
            adopt_rows(p, 0, nrow, a[27], qrtype, rhs, rng) < 0)
            return nullptr;
    }
    // The nonlinear optimiser keeps its own objective sense: the loaded problem's.
    double sense = 1;
    if (prob_dbl_attrib(p, TRVO_OBJSENSE, &sense) < 0) return nullptr;
    if (p->slp && nonlinear_running() && TSLPsetdblcontrol(p->slp, 12146, sense < 0 ? -1.0 : 1.0) != 0)
        return problem_error(p);
    // Global entities: the variables' types and thresholds.
    for (int k = 0; k < ge.count(); ++k) {
        if (mgcols[k] < 0 || mgcols[k] >= ncol) continue;
        PyObject* v = PyList_GET_ITEM(p->vars, mgcols[k]);
        set_var_type(v, qgtype[k]);
        char t = qgtype[k];
        if (dlim && (t == 'S' || t == 'R' || t == 'P') && dlim[k] >= -INF)
            var_set_threshold(&reinterpret_cast<VarObject*>(v)->word, dlim[k]);
    }
    Py_RETURN_NONE;
}

const char* const DOC_ADDCOLS =
    "addcols($self, /, objx, mstart, mrwind, dmatval, bdl, bdu, names=None, types=None)\n--\n\n"
    "Add columns with objective coefficients objx, matrix entries (starts mstart, rows mrwind, values\n"
    "dmatval) and bounds bdl, bdu; names and types (one of 'C', 'B', 'I', 'S', 'R', 'P' per column)\n"
    "are optional. A new var object is made for every column. Returns None.";
const char* const DOC_ADDROWS =
    "addrows($self, /, qrtype, rhs, mstart, mclind, dmatval, range=None, names=None)\n--\n\n"
    "Add rows of types qrtype ('L', 'G', 'E', 'R', 'N') with right-hand sides rhs, matrix entries\n"
    "(starts mstart, columns mclind, values dmatval), optional ranges and names. A new constraint\n"
    "object is made for every row. Returns None.";
const char* const DOC_LOADPROBLEM =
    "loadproblem($self, /, probname, qrtypes, rhs, range, obj, mstart, mnel, mrwind, dmatval, dlb, dub,\n"
    "mqcol1=None, mqcol2=None, dqe=None, qcrows=None, qcnquads=None, qcmqcol1=None, qcmqcol2=None,\n"
    "qcdqval=None, qgtype=None, mgcols=None, dlim=None, qstype=None, msstart=None, mscols=None,\n"
    "dref=None, colnames=None, rownames=None)\n--\n\n"
    "Replace the problem by the one given column-wise, with optional quadratic objective, quadratic\n"
    "rows, global entities and sets. The problem's variables, constraints and sets are made anew.\n"
    "Returns None.";

}  // namespace

const PyMethodDef* load_methods() {
    static const PyMethodDef table[] = {
        LL_METHOD(addcols, DOC_ADDCOLS),
        LL_METHOD(addrows, DOC_ADDROWS),
        LL_METHOD(loadproblem, DOC_LOADPROBLEM),
        {nullptr, nullptr, 0, nullptr},
    };
    return table;
}

}  // namespace ll
}  // namespace tarvo
