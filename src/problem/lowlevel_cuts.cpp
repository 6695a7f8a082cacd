// Low-level methods for lazy rows and strong branching: delayed rows and model cuts stay out of
// the tree search's relaxations until a solution violates them; strong branching tries bound
// changes on the LP relaxation.
#include "problem/lowlevel.h"

namespace tarvo {
namespace ll {
namespace {

PyObject* lazy_rows(PyObject* self, PyObject* args, PyObject* kw, const char* method, bool delayed) {
    Args a(self, args, kw, method, {"?mrows"});
    if (!a.ok || a.missing({0}, "Must provide argument mrows")) return nullptr;
    Arrays arr(a.p);
    int* rows = arr.ints(a[0], CONV_ROW);
    if (!arr.ok) return nullptr;
    return done(a.p, delayed ? TRVOloaddelayedrows(a.p->prob, arr.count(), rows)
                             : TRVOloadmodelcuts(a.p->prob, arr.count(), rows));
}

PyObject* m_loaddelayedrows(PyObject* self, PyObject* args, PyObject* kw) {
    return lazy_rows(self, args, kw, "loaddelayedrows", true);
}
PyObject* m_loadmodelcuts(PyObject* self, PyObject* args, PyObject* kw) {
    return lazy_rows(self, args, kw, "loadmodelcuts", false);
}
PyObject* m_strongbranch(PyObject* self, PyObject* args, PyObject* kw) { return strongbranch_method(self, args, kw); }

const PyMethodDef methods[] = {
    LL_METHOD(loaddelayedrows, DOC("loaddelayedrows($self, /, mrows)",
                                   "Make rows delayed rows: the tree search keeps them out of its relaxations until a "
                                   "candidate solution violates them (a solve by HiGHS keeps them as rows). Returns None.")),
    LL_METHOD(loadmodelcuts, DOC("loadmodelcuts($self, /, mrows)",
                                 "Make rows model cuts: the tree search keeps them out of its relaxations until a node "
                                 "solution or a candidate violates them. Returns None.")),
    LL_METHOD(strongbranch, DOC("strongbranch($self, /, mbndind, cbndtype, dbndval, itrlimit, dsbobjval, msbstatus)",
                                "Strong branching on the LP relaxation: each bound change (column, 'L'/'U'/'B', value) "
                                "is solved from the relaxation's optimal basis with at most itrlimit dual simplex "
                                "iterations, then undone. Fills dsbobjval with the objectives reached and msbstatus "
                                "with the LP statuses. Returns None.")),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

const PyMethodDef* lowlevel_cut_methods() { return methods; }

}  // namespace ll
}  // namespace tarvo
