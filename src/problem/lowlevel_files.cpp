// Low-level methods that write and read solution, basis and start files and set the log file.
// The formats are the library's (documented where the library writes them).
#include "problem/lowlevel.h"
#include "problem/nonlinear_bridge.h"
#include "nonlinear/formula.h"

namespace tarvo {
namespace ll {
namespace {

// filename (required unless optional_name) and optional flags, handed to `call`.
PyObject* file_call(PyObject* self, PyObject* args, PyObject* kw, const char* method, bool optional_name,
                    int (*call)(TRVOprob, const char*, const char*)) {
    Args a(self, args, kw, method, {optional_name ? "?filename" : "filename", "?flags"});
    if (!a.ok) return nullptr;
    PyRef h1, h2;
    const char* fn = a.given(0) ? str_arg(a[0], "filename", h1) : "";
    const char* flags = fn ? flags_arg(a[1], h2) : nullptr;
    if (!flags) return nullptr;
    int rc;
    Py_BEGIN_ALLOW_THREADS
    rc = call(a.p->prob, fn, flags);
    Py_END_ALLOW_THREADS
    return done(a.p, rc);
}

#define FILE_METHOD(name, optional)                                                              \
    PyObject* m_##name(PyObject* self, PyObject* args, PyObject* kw) {                           \
        return file_call(self, args, kw, #name, optional, TRVO##name);                           \
    }
FILE_METHOD(writesol, false)
FILE_METHOD(writeprtsol, false)
FILE_METHOD(writebasis, true)
FILE_METHOD(readbasis, false)

// Solution files of a nonlinear problem (or of one whose last solve was nonlinear) carry the
// nonlinear solution: the nonlinear library writes and reads them.
PyObject* slx(PyObject* self, PyObject* args, PyObject* kw, const char* method, bool write) {
    ProblemObject* p = as_prob(self);
    if (!(p->slp && nonlinear_running() && (problem_is_nonlinear(p) || nonlinear_results(p))))
        return file_call(self, args, kw, method, false, write ? TRVOwriteslxsol : TRVOreadslxsol);
    Args a(self, args, kw, method, {"filename", "?flags"});
    PyRef h1, h2;
    const char* fn = a.ok ? str_arg(a[0], "filename", h1) : nullptr;
    const char* flags = fn ? flags_arg(a[1], h2) : nullptr;
    if (!flags) return nullptr;
    int rc = write ? TSLPwriteslxsol(p->slp, fn, flags) : TSLPreadslxsol(p->slp, fn, flags);
    if (rc != 0) return slp_error(p);
    Py_RETURN_NONE;
}

PyObject* m_writeslxsol(PyObject* self, PyObject* args, PyObject* kw) { return slx(self, args, kw, "writeslxsol", true); }
PyObject* m_readslxsol(PyObject* self, PyObject* args, PyObject* kw) { return slx(self, args, kw, "readslxsol", false); }

PyObject* m_setlogfile(PyObject* self, PyObject* args, PyObject* kw) {
    Args a(self, args, kw, "setlogfile", {"filename"});
    PyRef hold;
    const char* fn = a.ok ? str_arg(a[0], "filename", hold) : nullptr;
    if (!fn) return nullptr;
    return done(a.p, TRVOsetlogfile(a.p->prob, fn));
}

}  // namespace

const PyMethodDef* files_methods() {
    static const PyMethodDef t[] = {
        LL_METHOD(writesol, DOC("writesol($self, /, filename, flags=None)", "Write the solution as text (flag 'm': the integer solution). Returns None.")),
        LL_METHOD(writeprtsol, DOC("writeprtsol($self, /, filename, flags=None)", "Write a printable solution report. Returns None.")),
        LL_METHOD(writebasis, DOC("writebasis($self, /, filename=None, flags=None)", "Write the last basis (default name: the problem's). Returns None.")),
        LL_METHOD(readbasis, DOC("readbasis($self, /, filename, flags=None)", "Read a basis written by writebasis as the start of the next LP solve. Returns None.")),
        LL_METHOD(writeslxsol, DOC("writeslxsol($self, /, filename, flags=None)", "Write the solution as column names and values (the nonlinear solution for a nonlinear problem). Returns None.")),
        LL_METHOD(readslxsol, DOC("readslxsol($self, /, filename, flags=None)", "Read column values written by writeslxsol: the start of the next MIP solve, or the initial values of a nonlinear problem. Returns None.")),
        LL_METHOD(setlogfile, DOC("setlogfile($self, /, filename)", "Also write the problem's messages to this file (empty name: stop). Returns None.")),
        {nullptr, nullptr, 0, nullptr},
    };
    return t;
}

}  // namespace ll
}  // namespace tarvo
