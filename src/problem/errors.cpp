// Error reporting shared by every method: a failed library call becomes a Python exception
// carrying the library's own last-error text, unless a Python exception is already pending.
#include "module/types.h"
#include "problem/problem.h"

#include <cstring>

namespace tarvo {

namespace {

PyObject* raise_global_error() {
    char buf[512];
    buf[0] = '\0';
    int code = 0;
    TRVO_ge_getlasterror(&code, buf, sizeof buf, nullptr);
    buf[sizeof buf - 1] = '\0';
    if (code == 0 && buf[0] == '\0')
        PyErr_SetString(InterfaceError, "Unidentified error associated with the global environment");
    else
        PyErr_SetString(InterfaceError, buf);
    return nullptr;
}

PyObject* raise_problem_error(ProblemObject* p) {
    char buf[512];
    buf[0] = '\0';
    int code = 0;
    if (p->prob) TRVOgetlasterror(p->prob, buf);
    buf[sizeof buf - 1] = '\0';
    if (buf[0] == '\0' && p->slp && nonlinear_running()) {
        TSLPgetlasterror(p->slp, &code, buf);
        buf[sizeof buf - 1] = '\0';
    }
    if (code == 0 && buf[0] == '\0')
        PyErr_SetString(SolverError, "Unidentified error associated with optimization problem");
    else
        PyErr_SetString(SolverError, buf);
    return nullptr;
}

}  // namespace

PyObject* report_error(PyObject* owner, PyObject* result) {
    if (result) return result;
    if (PyErr_Occurred()) return nullptr;
    if (!owner) return raise_global_error();
    if (is_problem(owner)) return raise_problem_error(as_prob(owner));
    if (PyObject_TypeCheck(owner, &BranchObjType)) return branchobj_error(owner);
    PyErr_SetString(SolverError, "Unidentified error associated with a branching object");
    return nullptr;
}

PyObject* problem_error(ProblemObject* p) { return report_error(reinterpret_cast<PyObject*>(p), nullptr); }

}  // namespace tarvo
