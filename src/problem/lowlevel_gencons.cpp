// Low-level methods for the library's general constraints (max, min, and, or, abs of columns
// and constants) and piecewise-linear constraints. They have no Python objects: columns are
// given and returned as `var` objects (or indices and names), constraints by their index.
#include "problem/lowlevel.h"
#include "model/model.h"

#include <algorithm>

namespace tarvo {
namespace ll {
namespace {

int count_of(ProblemObject* p, int attribute, int* n) { return prob_int_attrib(p, attribute, n); }

// first..last over a list of `count` constraints: 1 non-empty and inside, 0 empty (message
// raised), -1 error.
int list_range(Args& a, int fi, int li, int attribute, const char* empty_msg, const char* what, int* first,
               int* last) {
    int count = 0;
    if (int_arg(a[fi], "first", first) < 0 || int_arg(a[li], "last", last) < 0 ||
        count_of(a.p, attribute, &count) < 0)
        return -1;
    if (*last < *first) {
        PyErr_SetString(InterfaceError, empty_msg);
        return -1;
    }
    if (*first < 0 || *last >= count) {
        PyErr_Format(InterfaceError, "Range %d..%d lies outside the %d %s of the problem", *first, *last, count, what);
        return -1;
    }
    return 0;
}

int size_arg(PyObject* o, const char* name, int64_t* size) {
    if (!is_integer_value(o)) {
        PyErr_Format(ModelError, "Argument %s must be an integer", name);
        return -1;
    }
    long long v = PyLong_AsLongLong(o);
    if (v == -1 && PyErr_Occurred()) return -1;
    *size = v < 0 ? 0 : v;
    return 0;
}

PyObject* m_addgencons(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "addgencons", {"?type", "?resultant", "?colstart", "?col", "?valstart", "?val"});
    if (!a.ok || a.missing({0, 1, 2, 3}, "Must provide arguments type, resultant, colstart, col")) return nullptr;
    if (a.given(4) != a.given(5)) {
        PyErr_SetString(InterfaceError, "Must provide arguments valstart and val together");
        return nullptr;
    }
    Arrays con(a.p), cols(a.p), vals(a.p);
    int* type = con.ints(a[0]);
    int* resultant = con.ints(a[1], CONV_COL);
    int* col = cols.ints(a[3], CONV_COL);
    double* val = vals.dbls(a[5]);
    if (!con.ok || !cols.ok || !vals.ok) return nullptr;
    const int n = con.count();
    std::vector<int64_t> colstart, valstart;
    if (starts_arg(a.p, a[2], n, cols.count(), colstart) < 0) return nullptr;
    if (a.given(4) && starts_arg(a.p, a[4], n, vals.count(), valstart) < 0) return nullptr;
    return done(a.p, TRVOaddgencons64(a.p->prob, n, cols.count(), vals.count(), type, resultant, colstart.data(), col,
                                      a.given(4) ? valstart.data() : nullptr, val));
}

PyObject* m_getgencons(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getgencons",
           {"?type", "?resultant", "?colstart", "?col", "colsize", "?valstart", "?val", "valsize", "first", "last"});
    int first = 0, last = -1;
    int64_t colsize = 0, valsize = 0;
    if (!a.ok ||
        list_range(a, 8, 9, TRVO_GENCONS, "Empty range of general constraints requested", "general constraints",
                   &first, &last) < 0 ||
        size_arg(a[4], "colsize", &colsize) < 0 || size_arg(a[7], "valsize", &valsize) < 0)
        return nullptr;
    TRVOprob pr = a.p->prob;
    int64_t nc = 0, nv = 0;
    if (TRVOgetgencons64(pr, nullptr, nullptr, nullptr, nullptr, 0, &nc, nullptr, nullptr, 0, &nv, first, last) != 0)
        return problem_error(a.p);
    const size_t n = static_cast<size_t>(last - first + 1);
    colsize = std::min(colsize, nc);
    valsize = std::min(valsize, nv);
    std::vector<int> type(n), resultant(n), col(static_cast<size_t>(std::max<int64_t>(colsize, 1)));
    std::vector<int64_t> colstart(n + 1), valstart(n + 1);
    std::vector<double> val(static_cast<size_t>(std::max<int64_t>(valsize, 1)));
    if (TRVOgetgencons64(pr, type.data(), resultant.data(), colstart.data(), col.data(), colsize, &nc, valstart.data(),
                         val.data(), valsize, &nv, first, last) != 0)
        return problem_error(a.p);
    const int64_t rn = static_cast<int64_t>(n);
    if (fill(a.p, a[0], rn, type.data(), CONV_INT) < 0 || fill(a.p, a[1], rn, resultant.data(), CONV_COL) < 0 ||
        fill(a.p, a[2], rn + 1, colstart.data(), CONV_INT64) < 0 || fill(a.p, a[3], colsize, col.data(), CONV_COL) < 0 ||
        fill(a.p, a[5], rn + 1, valstart.data(), CONV_INT64) < 0 || fill(a.p, a[6], valsize, val.data(), CONV_DOUBLE) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

// delgencons / delpwlcons: the constraints listed in mindex.
PyObject* delete_listed(PyObject* self, PyObject* args, PyObject* kw, const char* method,
                        int (*library)(TRVOprob, int, const int*)) {
    Args a(self, args, kw, method, {"?mindex"});
    if (!a.ok || a.missing({0}, "Must provide argument mindex")) return nullptr;
    Arrays idx(a.p);
    int* mindex = idx.ints(a[0]);
    if (!idx.ok) return nullptr;
    return done(a.p, library(a.p->prob, idx.count(), mindex));
}

PyObject* m_delgencons(PyObject* self, PyObject* args, PyObject* kw) {
    return delete_listed(self, args, kw, "delgencons", TRVOdelgencons);
}

PyObject* m_delpwlcons(PyObject* self, PyObject* args, PyObject* kw) {
    return delete_listed(self, args, kw, "delpwlcons", TRVOdelpwlcons);
}

PyObject* m_addpwlcons(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "addpwlcons", {"?col", "?resultant", "?start", "?xval", "?yval"});
    if (!a.ok || a.missing({0, 1, 2, 3, 4}, "Must provide arguments col, resultant, start, xval, yval")) return nullptr;
    Arrays con(a.p), pts(a.p);
    int* col = con.ints(a[0], CONV_COL);
    int* resultant = con.ints(a[1], CONV_COL);
    double* xval = pts.dbls(a[3]);
    double* yval = pts.dbls(a[4]);
    if (!con.ok || !pts.ok) return nullptr;
    const int n = con.count();
    std::vector<int64_t> start;
    if (starts_arg(a.p, a[2], n, pts.count(), start) < 0) return nullptr;
    return done(a.p, TRVOaddpwlcons64(a.p->prob, n, pts.count(), col, resultant, start.data(), xval, yval));
}

PyObject* m_getpwlcons(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getpwlcons", {"?col", "?resultant", "?start", "?xval", "?yval", "size", "first", "last"});
    int first = 0, last = -1;
    int64_t size = 0;
    if (!a.ok ||
        list_range(a, 6, 7, TRVO_PWLCONS, "Empty range of piecewise linear constraints requested",
                   "piecewise linear constraints", &first, &last) < 0 ||
        size_arg(a[5], "size", &size) < 0)
        return nullptr;
    TRVOprob pr = a.p->prob;
    int64_t np = 0;
    if (TRVOgetpwlcons64(pr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, &np, first, last) != 0)
        return problem_error(a.p);
    const size_t n = static_cast<size_t>(last - first + 1);
    size = std::min(size, np);
    std::vector<int> col(n), resultant(n);
    std::vector<int64_t> start(n + 1);
    std::vector<double> xval(static_cast<size_t>(std::max<int64_t>(size, 1))), yval(xval.size());
    if (TRVOgetpwlcons64(pr, col.data(), resultant.data(), start.data(), xval.data(), yval.data(), size, &np, first,
                         last) != 0)
        return problem_error(a.p);
    const int64_t rn = static_cast<int64_t>(n);
    if (fill(a.p, a[0], rn, col.data(), CONV_COL) < 0 || fill(a.p, a[1], rn, resultant.data(), CONV_COL) < 0 ||
        fill(a.p, a[2], rn + 1, start.data(), CONV_INT64) < 0 || fill(a.p, a[3], size, xval.data(), CONV_DOUBLE) < 0 ||
        fill(a.p, a[4], size, yval.data(), CONV_DOUBLE) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

const PyMethodDef* table() {
    static const PyMethodDef t[] = {
    LL_METHOD(addgencons, DOC("addgencons($self, /, type, resultant, colstart, col, valstart=None, val=None)",
                              "Add general constraints resultant = f(columns, values), f by type (gencons_max, "
                              "gencons_min, gencons_and, gencons_or, gencons_abs); constraint i takes the columns "
                              "col[colstart[i]:colstart[i+1]] and the values val[valstart[i]:valstart[i+1]] (max "
                              "and min only). Returns None.")),
    LL_METHOD(getgencons, DOC("getgencons($self, /, type, resultant, colstart, col, colsize, valstart, val, valsize, "
                              "first, last)",
                              "Fill the lists with general constraints first..last (at most colsize columns and "
                              "valsize values). Returns None.")),
    LL_METHOD(delgencons, DOC("delgencons($self, /, mindex)", "Delete the general constraints listed. Returns None.")),
    LL_METHOD(addpwlcons, DOC("addpwlcons($self, /, col, resultant, start, xval, yval)",
                              "Add piecewise linear constraints resultant[i] = f_i(col[i]), f_i through the "
                              "breakpoints (xval[k], yval[k]) for k in start[i]:start[i+1] (x non-decreasing; "
                              "equal x values make a jump; the end segments extend). Returns None.")),
    LL_METHOD(getpwlcons, DOC("getpwlcons($self, /, col, resultant, start, xval, yval, size, first, last)",
                              "Fill the lists with piecewise linear constraints first..last (at most size "
                              "breakpoints). Returns None.")),
    LL_METHOD(delpwlcons, DOC("delpwlcons($self, /, mindex)",
                              "Delete the piecewise linear constraints listed. Returns None.")),
    {nullptr, nullptr, 0, nullptr},
    };
    return t;
}

}  // namespace

const PyMethodDef* gencons_methods() { return table(); }

}  // namespace ll
}  // namespace tarvo
