// Low-level methods for whole-problem files (save, restore), binary solution files, the tuner
// and its method files, message statuses and the listing of changed controls.
#include "problem/lowlevel.h"
#include "problem/nonlinear_bridge.h"
#include "nonlinear/formula.h"

#include <string>

namespace tarvo {

// Rebuilds the lists and maps after the library replaced the problem's content
// (problem/problem.cpp).
int problem_reload_from_library(ProblemObject* p);

namespace ll {
namespace {

bool nonlinear_library(ProblemObject* p) { return p->slp && nonlinear_running(); }

PyObject* m_save(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "save", {"?filename"});
    if (!a.ok) return nullptr;
    PyRef hold;
    const char* fn = a.given(0) ? str_arg(a[0], "filename", hold) : nullptr;
    if (a.given(0) && !fn) return nullptr;
    ProblemObject* p = a.p;
    // A nonlinear problem is saved by the nonlinear library, which writes the optimiser's part
    // too; the file then holds both.
    bool nonlinear = nonlinear_library(p) && (problem_is_nonlinear(p) || nonlinear_results(p));
    int rc;
    Py_BEGIN_ALLOW_THREADS
    if (nonlinear) rc = fn ? TSLPsaveas(p->slp, fn) : TSLPsave(p->slp);
    else rc = fn ? TRVOsaveas(p->prob, fn) : TRVOsave(p->prob);
    Py_END_ALLOW_THREADS
    if (rc != 0) return nonlinear ? slp_error(p) : problem_error(p);
    Py_RETURN_NONE;
}

PyObject* m_restore(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "restore", {"probname", "?flags"});
    if (!a.ok) return nullptr;
    PyRef h1, h2;
    const char* name = str_arg(a[0], "probname", h1);
    const char* flags = name ? flags_arg(a[1], h2) : nullptr;
    if (!flags) return nullptr;
    ProblemObject* p = a.p;
    // The nonlinear library restores files of either kind (a file without a nonlinear part
    // leaves the nonlinear problem without nonlinear data); both leave the problem as it was
    // when the file cannot be restored.
    bool nonlinear = nonlinear_library(p);
    int rc;
    Py_BEGIN_ALLOW_THREADS
    rc = nonlinear ? TSLPrestore(p->slp, name, flags) : TRVOrestore(p->prob, name, flags);
    Py_END_ALLOW_THREADS
    if (rc != 0) return nonlinear ? slp_error(p) : problem_error(p);
    // The lists and maps are rebuilt as read() does; the objective markers and nonlinear row
    // count follow the restored content.
    note_solver_run(p, false);
    p->const_col = -1;
    if (problem_reload_from_library(p) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyObject* binsol(PyObject* self, PyObject* args, PyObject* kw, const char* method,
                 int (*call)(TRVOprob, const char*, const char*)) {
    Args a(self, args, kw, method, {"filename", "?flags"});
    if (!a.ok) return nullptr;
    PyRef h1, h2;
    const char* fn = str_arg(a[0], "filename", h1);
    const char* flags = fn ? flags_arg(a[1], h2) : nullptr;
    if (!flags) return nullptr;
    if (problem_is_nonlinear(a.p)) {
        PyErr_Format(SolverError, "%s handles the solutions of the LP/MIP optimiser; this problem is nonlinear", method);
        return nullptr;
    }
    int rc;
    Py_BEGIN_ALLOW_THREADS
    rc = call(a.p->prob, fn, flags);
    Py_END_ALLOW_THREADS
    return done(a.p, rc);
}

PyObject* m_writebinsol(PyObject* self, PyObject* args, PyObject* kw) {
    return binsol(self, args, kw, "writebinsol", TRVOwritebinsol);
}
PyObject* m_readbinsol(PyObject* self, PyObject* args, PyObject* kw) {
    return binsol(self, args, kw, "readbinsol", TRVOreadbinsol);
}

PyObject* m_tune(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "tune", {"?flags"});
    PyRef hold;
    const char* flags = a.ok ? flags_arg(a[0], hold) : nullptr;
    if (!flags) return nullptr;
    if (problem_is_nonlinear(a.p)) {
        PyErr_SetString(SolverError, "The tuner tunes the LP/MIP optimiser; this problem is nonlinear");
        return nullptr;
    }
    // The tuner runs on a worker thread, so that Ctrl-C stops it (within the current candidate
    // run); the first exception a callback raises during its runs stops it and surfaces here.
    TRVOprob prob = a.p->prob;
    std::string fl = flags;
    int rc = run_on_worker(
        a.p, [prob, fl] { return TRVOtune(prob, fl.c_str()); }, [prob] { TRVOinterrupt(prob, 2); });
    if (rc == -2) return nullptr;
    return done(a.p, rc);
}

PyObject* method_file(PyObject* self, PyObject* args, PyObject* kw, const char* method,
                      int (*call)(TRVOprob, const char*)) {
    Args a(self, args, kw, method, {"methodfile"});
    if (!a.ok) return nullptr;
    PyRef hold;
    const char* fn = str_arg(a[0], "methodfile", hold);
    if (!fn) return nullptr;
    return done(a.p, call(a.p->prob, fn));
}

PyObject* m_tunerwritemethod(PyObject* self, PyObject* args, PyObject* kw) {
    return method_file(self, args, kw, "tunerwritemethod", TRVOtunerwritemethod);
}
PyObject* m_tunerreadmethod(PyObject* self, PyObject* args, PyObject* kw) {
    return method_file(self, args, kw, "tunerreadmethod", TRVOtunerreadmethod);
}

PyObject* m_getmessagestatus(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "getmessagestatus", {"errcode"});
    int code = 0, status = 0;
    if (!a.ok || int_arg(a[0], "errcode", &code) < 0) return nullptr;
    if (TRVOgetmessagestatus(a.p->prob, code, &status) != 0) return problem_error(a.p);
    return PyLong_FromLong(status);
}

PyObject* m_setmessagestatus(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "setmessagestatus", {"errcode", "status"});
    int code = 0, status = 0;
    if (!a.ok || int_arg(a[0], "errcode", &code) < 0 || int_arg(a[1], "status", &status) < 0) return nullptr;
    return done(a.p, TRVOsetmessagestatus(a.p->prob, code, status));
}

PyObject* m_dumpcontrols(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "dumpcontrols", {});
    if (!a.ok) return nullptr;
    return done(a.p, TRVOdumpcontrols(a.p->prob));
}

}  // namespace

const PyMethodDef* save_methods() {
    static const PyMethodDef t[] = {
        LL_METHOD(save, DOC("save($self, /, filename=None)",
                            "Save the whole problem (model, names, controls, solution, basis and nonlinear data) to one "
                            "binary file: filename, or '<problem name>.svf' without one. Returns None; raises "
                            "SolverError when the file cannot be written or the problem holds what cannot be saved.")),
        LL_METHOD(restore, DOC("restore($self, /, probname, flags=None)",
                               "Replace the problem by one saved with save(): the file probname, or probname + '.svf'. "
                               "Variables and constraints are rebuilt as read() does; the saved basis starts the next "
                               "LP solve. Returns None; raises SolverError for a missing, damaged or incompatible file, "
                               "leaving the problem unchanged.")),
        LL_METHOD(writebinsol, DOC("writebinsol($self, /, filename, flags=None)",
                                   "Write the current LP and MIP solutions to a binary solution file. Returns None; "
                                   "raises SolverError when there is no solution.")),
        LL_METHOD(readbinsol, DOC("readbinsol($self, /, filename, flags=None)",
                                  "Make the solutions of a file written by writebinsol the current ones (the file must "
                                  "fit the problem's rows and columns). Returns None; raises SolverError otherwise.")),
        LL_METHOD(tune, DOC("tune($self, /, flags=None)",
                            "Try the tuner's candidate settings within maxtime, report the fastest in the log and keep it "
                            "as the problem's controls (flags 'l' tune the LP solve, 'g' the MIP solve). Releases the "
                            "interpreter lock; interrupt() or Ctrl-C (KeyboardInterrupt) stops it within the current "
                            "run. Returns None; raises SolverError when the problem cannot be solved.")),
        LL_METHOD(tunerwritemethod, DOC("tunerwritemethod($self, /, methodfile)",
                                        "Write the tuner's candidate settings as a text file. Returns None.")),
        LL_METHOD(tunerreadmethod, DOC("tunerreadmethod($self, /, methodfile)",
                                       "Read the tuner's candidate settings from a text file written by "
                                       "tunerwritemethod (or edited). Returns None; raises SolverError for a bad file, "
                                       "keeping the previous settings.")),
        LL_METHOD(getmessagestatus, DOC("getmessagestatus($self, /, errcode)",
                                        "Return 1 when messages of this number reach the log, 0 when they are "
                                        "suppressed.")),
        LL_METHOD(setmessagestatus, DOC("setmessagestatus($self, /, errcode, status)",
                                        "Suppress (status 0) or show (status 1) the messages of this number. The "
                                        "library's own numbers: 1 lines of the LP/MIP log, 2 lines of the tree "
                                        "search's log, 101 nonconvex problem, 102 abandoned run, 103 quadratic rows "
                                        "not met to tolerance, 201 a tuner run, 202 the tuner's result, 203 "
                                        "dumpcontrols lines, 301 lines of the nonlinear solver's log. Returns None.")),
        LL_METHOD(dumpcontrols, DOC("dumpcontrols($self, /)",
                                    "Write the controls that differ from their defaults to the log. Returns None.")),
        {nullptr, nullptr, 0, nullptr},
    };
    return t;
}

}  // namespace ll
}  // namespace tarvo
