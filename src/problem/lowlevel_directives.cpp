// Low-level methods for branching directives: load (all at once, or branching columns and
// directions only), read back, and the directives file (format in the engine's directives.cpp).
#include "problem/lowlevel.h"

namespace tarvo {
namespace ll {
namespace {

// loaddirs and loadpresolvedirs share this body; they differ in the library operation only.
PyObject* load_dirs(PyObject* self, PyObject* args, PyObject* kw, const char* method,
                    int (*call)(TRVOprob, int, const int*, const int*, const char*, const double*, const double*)) {
    Args a(self, args, kw, method, {"?mcols", "?mpri", "?qbr", "?dupc", "?ddpc"});
    if (!a.ok || a.missing({0}, "Must provide argument mcols")) return nullptr;
    Arrays arr(a.p);
    int* cols = arr.ints(a[0], CONV_COL);
    int* pri = arr.ints(a[1]);
    char* qbr = arr.chars(a[2]);
    double* up = arr.dbls(a[3]);
    double* down = arr.dbls(a[4]);
    if (!arr.ok) return nullptr;
    return done(a.p, call(a.p->prob, arr.count(), cols, pri, qbr, up, down));
}

PyObject* m_loaddirs(PyObject* self, PyObject* args, PyObject* kw) {
    return load_dirs(self, args, kw, "loaddirs", TRVOloaddirs);
}

PyObject* m_loadpresolvedirs(PyObject* self, PyObject* args, PyObject* kw) {
    return load_dirs(self, args, kw, "loadpresolvedirs", TRVOloadpresolvedirs);
}

PyObject* m_loadbranchdirs(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "loadbranchdirs", {"?mcols", "?mbranch"});
    if (!a.ok || a.missing({0}, "Must provide argument mcols")) return nullptr;
    Arrays arr(a.p);
    int* cols = arr.ints(a[0], CONV_COL);
    int* branch = arr.ints(a[1]);
    if (!arr.ok) return nullptr;
    return done(a.p, TRVOloadbranchdirs(a.p->prob, arr.count(), cols, branch));
}

PyObject* m_getdirs(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getdirs", {"?mcols", "?mpri", "?qbr", "?dupc", "?ddpc"});
    if (!a.ok) return nullptr;
    bool any = false, lists = true;
    for (int i = 0; i < 5; ++i)
        if (a.given(i)) {
            any = true;
            if (!PyList_Check(a[i])) lists = false;
        }
    if (!any || !lists) {
        PyErr_SetString(InterfaceError, "Must provide arguments (as lists) to getdirs");
        return nullptr;
    }
    int n = 0;
    if (TRVOgetdirs(a.p->prob, &n, nullptr, nullptr, nullptr, nullptr, nullptr) != 0) return problem_error(a.p);
    const size_t room = static_cast<size_t>(n) + 1;
    std::vector<int> cols(room), pri(room);
    std::vector<char> qbr(room);
    std::vector<double> up(room), down(room);
    if (TRVOgetdirs(a.p->prob, &n, cols.data(), pri.data(), qbr.data(), up.data(), down.data()) != 0)
        return problem_error(a.p);
    if (fill(a.p, a[0], n, cols.data(), CONV_COL) < 0 || fill(a.p, a[1], n, pri.data(), CONV_INT) < 0 ||
        fill(a.p, a[2], n, qbr.data(), CONV_CHAR) < 0 || fill(a.p, a[3], n, up.data(), CONV_DOUBLE) < 0 ||
        fill(a.p, a[4], n, down.data(), CONV_DOUBLE) < 0)
        return nullptr;
    Py_RETURN_NONE;
}

PyObject* dirs_file(PyObject* self, PyObject* args, PyObject* kw, const char* method, int (*call)(TRVOprob, const char*)) {
    Args a(self, args, kw, method, {"filename"});
    PyRef hold;
    const char* fn = a.ok ? str_arg(a[0], "filename", hold) : nullptr;
    if (!fn) return nullptr;
    return done(a.p, call(a.p->prob, fn));
}

PyObject* m_readdirs(PyObject* self, PyObject* args, PyObject* kw) {
    return dirs_file(self, args, kw, "readdirs", TRVOreaddirs);
}

PyObject* m_writedirs(PyObject* self, PyObject* args, PyObject* kw) {
    return dirs_file(self, args, kw, "writedirs", TRVOwritedirs);
}

}  // namespace

const PyMethodDef* directives_methods() {
    static const PyMethodDef t[] = {
        LL_METHOD(loaddirs, DOC("loaddirs($self, /, mcols, mpri=None, qbr=None, dupc=None, ddpc=None)",
                                "Replace the branching directives: for each integer column in mcols a priority (lower "
                                "is branched first, default 500), a preferred direction ('U' up first, 'D' down "
                                "first, 'N' none) and up/down pseudocosts (negative: the search's own). A MIP with "
                                "directives is solved by the engine's tree search. Returns None.")),
        LL_METHOD(loadpresolvedirs, DOC("loadpresolvedirs($self, /, mcols, mpri=None, qbr=None, dupc=None, ddpc=None)",
                                        "As loaddirs: the tree search works on the original columns. Returns None.")),
        LL_METHOD(loadbranchdirs, DOC("loadbranchdirs($self, /, mcols, mbranch=None)",
                                      "Make the columns mcols branched on first (priority 0) and, with mbranch, set "
                                      "their directions (positive up first, negative down first, 0 none). Other "
                                      "directives are kept. Returns None.")),
        LL_METHOD(getdirs, DOC("getdirs($self, /, mcols, mpri, qbr, dupc, ddpc)",
                               "Fill the given lists with the directives in column order: columns, priorities, "
                               "directions, up and down pseudocosts (-1: none). Returns None.")),
        LL_METHOD(readdirs, DOC("readdirs($self, /, filename)",
                                "Replace the directives with those of a directives file (one line per column: name, "
                                "priority, direction, up and down pseudocost or '-'). Returns None.")),
        LL_METHOD(writedirs, DOC("writedirs($self, /, filename)",
                                 "Write the directives as a directives file that readdirs reads back. Returns None.")),
        {nullptr, nullptr, 0, nullptr},
    };
    return t;
}

}  // namespace ll
}  // namespace tarvo
