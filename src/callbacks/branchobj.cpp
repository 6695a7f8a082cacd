// Branching objects: descriptions of how a node of the tree search is split into branches.
// The object holds the library's branching-object handle, the problem it belongs to and
// whether its branches are in the columns of the original problem.
#include "module/common.h"
#include "module/types.h"
#include "problem/problem.h"

namespace tarvo {

namespace {

struct BranchObject {
    PyObject_HEAD
    void* handle;        // library branching object, or null once handed over to the library
    PyObject* problem;   // owning problem (counted), or null
    int32_t isoriginal;  // 1 when branches are given in the original problem's columns
};

PyObject* branchobj_new(PyTypeObject* type, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"prob", "branches", "isoriginal", nullptr};
    PyObject* prob = nullptr;
    PyObject* branches = Py_None;
    int isoriginal = 1;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "O|Op:branchobj", const_cast<char**>(kwlist), &prob,
                                     &branches, &isoriginal))
        return nullptr;
    if (!is_problem(prob)) {
        PyErr_SetString(PyExc_TypeError, "branchobj: prob must be a tarvo.problem");
        return nullptr;
    }
    // The optimiser's branching objects come with its tree search; until then a branching
    // object that could not drive a search is refused rather than built and ignored.
    PyErr_SetString(SolverError, "Branching objects are not supported by this optimiser yet");
    return nullptr;
}

void branchobj_dealloc(PyObject* self) {
    BranchObject* b = reinterpret_cast<BranchObject*>(self);
    Py_CLEAR(b->problem);
    Py_TYPE(self)->tp_free(self);
}

}  // namespace

PyTypeObject BranchObjType = [] {
    PyTypeObject t = {PyVarObject_HEAD_INIT(nullptr, 0)};
    t.tp_name = "tarvo.branchobj";
    t.tp_basicsize = sizeof(BranchObject);
    t.tp_flags = Py_TPFLAGS_DEFAULT;
    t.tp_doc = "branchobj(prob, branches=None, isoriginal=True)\n--\n\nA branching object: how a node of the tree search is split into branches.";
    t.tp_new = branchobj_new;
    t.tp_dealloc = branchobj_dealloc;
    return t;
}();

PyObject* branchobj_wrap(void* handle, PyObject* problem, int isoriginal) {
    PyObject* o = BranchObjType.tp_alloc(&BranchObjType, 0);
    if (!o) return nullptr;
    BranchObject* b = reinterpret_cast<BranchObject*>(o);
    b->handle = handle;
    Py_XINCREF(problem);
    b->problem = problem;
    b->isoriginal = isoriginal;
    return o;
}

int branchobj_take(PyObject* o, void** handle) {
    if (!PyObject_TypeCheck(o, &BranchObjType)) return 0;
    BranchObject* b = reinterpret_cast<BranchObject*>(o);
    *handle = b->handle;
    b->handle = nullptr;
    Py_CLEAR(b->problem);
    return 1;
}

}  // namespace tarvo
