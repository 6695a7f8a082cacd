// The global library environment: lazy, counted starts; release; version, banner, last error,
// checked mode and arch consistency; routing of library messages to sys.stdout; the user's
// global message handlers.
#include "module/common.h"
#include "module/hooks.h"
#include "problem/problem.h"

#include <cstring>

namespace tarvo {

namespace {

int env_count_add(int delta) {
    std::lock_guard<std::mutex> g(state.locks->environment);
    state.env_use_count += delta;
    return state.env_use_count;
}

int nonlinear_flag() {
    std::lock_guard<std::mutex> g(state.locks->environment);
    return state.nonlinear_available;
}

void set_nonlinear_flag(int v) {
    std::lock_guard<std::mutex> g(state.locks->environment);
    state.nonlinear_available = v;
}

bool output_on() {
    std::lock_guard<std::mutex> g(state.locks->output);
    return state.output_enabled != 0;
}

// The library's global handler: everything but problem messages (those come through the
// problem's own printer) goes to sys.stdout while output is enabled.
int global_message_printer(void* object, void*, void*, const char* msg, int type, int) {
    if (type < 0) return 0;  // the greeting every handler gets first carries no text
    const char* tname = nullptr;
    if (object && TRVOgetobjecttypename(object, &tname) == 0 && tname && std::strcmp(tname, "TRVOprob") == 0)
        return 0;
    write_library_message(msg);
    return 0;
}

// The library-side function registered for every user handler; the entry [handler, data]
// is the registration's context. An exception the handler raises stays pending and suppresses
// every later handler call until it surfaces: from the calling Python code when the library
// called on its thread, else (a library thread) from the solve of the sending problem, which
// collects it when it returns.
int msghandler_trampoline(void* object, void* context, void* thread, const char* msg, int type, int number) {
    if (interpreter_finalizing()) return 0;
    bool own_thread = PyGILState_Check() != 0;
    PyGILState_STATE gil = PyGILState_Ensure();
    int rc = 0;
    if (!PyErr_Occurred() && !callback_exception_pending(object)) {
        PyObject* entry = static_cast<PyObject*>(context);
        PyObject* handler = entry && PyList_Check(entry) && PyList_GET_SIZE(entry) == 2 ? PyList_GET_ITEM(entry, 0) : nullptr;
        PyObject* data = handler ? PyList_GET_ITEM(entry, 1) : nullptr;
        if (!handler || !data) {
            PyErr_SetString(InterfaceError, "Incorrect general environment message handler detected");
            rc = -1;
        } else {
            CallbackRef hold_entry = CallbackRef::borrow(entry), hold_handler = CallbackRef::borrow(handler),
                        hold_data = CallbackRef::borrow(data);
            CallbackRef obj(trvoobject_wrap(object));
            CallbackRef thr(generic_wrap(thread));
            if (obj && thr) {
                CallbackRef args(Py_BuildValue("(OOOsii)", obj.get(), data, thr.get(), msg ? msg : "", type, number));
                if (args) CallbackRef(PyObject_Call(handler, args.get(), nullptr));
            }
        }
        if (!own_thread && PyErr_Occurred()) {
            if (object) callback_exception_keep(object);
            else PyErr_WriteUnraisable(nullptr);  // no solve to surface from
        }
    }
    PyGILState_Release(gil);
    return rc;
}

PyObject* env_init(PyObject*, PyObject*) {
    if (env_start(true) < 0) return nullptr;
    Py_RETURN_NONE;
}

// Releases both libraries (after the count was already decremented by the caller).
int release_libraries() {
    if (nonlinear_flag() != 0 && TSLPfree() != 0) return -1;
    TRVO_ge_removecbmsghandler(global_message_printer, nullptr);
    if (TRVOfree() != 0) return -1;
    return 0;
}

PyObject* env_free(PyObject*, PyObject*) {
    env_count_add(-1);
    if (release_libraries() != 0) return report_error(nullptr, nullptr);
    Py_RETURN_NONE;
}

PyObject* env_getversion(PyObject*, PyObject*) {
    if (env_start(false) < 0) return nullptr;
    char buf[256] = {0};
    if (TRVOgetversion(buf) != 0) return report_error(nullptr, nullptr);
    return PyUnicode_FromString(buf);
}

PyObject* env_getbanner(PyObject*, PyObject*, PyObject*) {
    if (env_start(false) < 0) return nullptr;
    char buf[2048] = {0};
    if (TRVOgetbanner(buf) != 0) return report_error(nullptr, nullptr);
    return PyUnicode_FromString(buf);
}

PyObject* env_getlasterror(PyObject*, PyObject*) {
    if (env_start(false) < 0) return nullptr;
    char buf[1024];
    buf[0] = '\0';
    int code = 0;
    TRVO_ge_getlasterror(&code, buf, sizeof buf, nullptr);
    buf[sizeof buf - 1] = '\0';
    return Py_BuildValue("(is)", code, buf);
}

PyObject* env_setcheckedmode(PyObject*, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"checked_mode", nullptr};
    PyObject* mode = nullptr;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "O", const_cast<char**>(kwlist), &mode)) return nullptr;
    if (env_start(false) < 0) return nullptr;
    if (TRVOsetcheckedmode(mode == Py_True ? 1 : 0) != 0) return report_error(nullptr, nullptr);
    Py_RETURN_NONE;
}

PyObject* env_getcheckedmode(PyObject*, PyObject*) {
    if (env_start(false) < 0) return nullptr;
    int mode = 0;
    if (TRVOgetcheckedmode(&mode) != 0) return report_error(nullptr, nullptr);
    return PyBool_FromLong(mode != 0);
}

PyObject* env_setarchconsistency(PyObject*, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"ifArchConsistent", nullptr};
    PyObject* flag = nullptr;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "O", const_cast<char**>(kwlist), &flag)) return nullptr;
    if (TRVO_ge_setarchconsistency(flag == Py_None || flag == Py_False ? 0 : 1) != 0)
        return report_error(nullptr, nullptr);
    Py_RETURN_NONE;
}

PyObject* env_setOutputEnabled(PyObject*, PyObject* flag) {
    if (!is_integer_value(flag)) {
        PyErr_SetString(ModelError, "Incorrect argument in setOutputEnabled: should be True or False");
        return nullptr;
    }
    int on = PyObject_IsTrue(flag);
    if (on < 0) return nullptr;
    std::lock_guard<std::mutex> g(state.locks->output);
    state.output_enabled = on;
    Py_RETURN_NONE;
}

PyObject* env_getOutputEnabled(PyObject*, PyObject*) { return PyBool_FromLong(output_on()); }

PyObject* env_addcbmsghandler(PyObject*, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"msghandler", "data", "priority", nullptr};
    PyObject *handler = nullptr, *data = nullptr;
    int priority = 0;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "OOi", const_cast<char**>(kwlist), &handler, &data, &priority)) {
        PyErr_Clear();
        PyErr_SetString(InterfaceError,
                        "Incorrect arguments in addcbmsghandler. Must provide correct list of three arguments");
        return nullptr;
    }
    PyRef entry(PyList_New(2));
    if (!entry) return nullptr;
    Py_INCREF(handler);
    Py_INCREF(data);
    PyList_SET_ITEM(entry.get(), 0, handler);
    PyList_SET_ITEM(entry.get(), 1, data);
    int rc;
    {
        std::lock_guard<std::mutex> g(state.locks->handler_list);
        rc = PyList_Append(state.msghandler_list, entry.get());
    }
    if (rc < 0) return nullptr;
    if (env_start(false) < 0) return nullptr;
    if (TRVO_ge_addcbmsghandler(msghandler_trampoline, entry.get(), priority) != 0)
        return report_error(nullptr, nullptr);
    Py_RETURN_NONE;
}

PyObject* env_removecbmsghandler(PyObject*, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"msghandler", "data", nullptr};
    PyObject *handler = nullptr, *data = nullptr;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "OO", const_cast<char**>(kwlist), &handler, &data)) {
        PyErr_Clear();
        PyErr_SetString(InterfaceError,
                        "Incorrect arguments in removecbmsghandler. Must provide correct list of two arguments");
        return nullptr;
    }
    bool removed = false;
    PyObject* list = state.msghandler_list;
    for (Py_ssize_t i = PyList_GET_SIZE(list) - 1; i >= 0; --i) {
        if (i >= PyList_GET_SIZE(list)) continue;
        PyObject* entry = PyList_GET_ITEM(list, i);
        if (!PyList_Check(entry) || PyList_GET_SIZE(entry) != 2) {
            PyErr_SetString(InterfaceError, "Incorrect data stored in callback");
            return nullptr;
        }
        PyObject* h = PyList_GET_ITEM(entry, 0);
        PyObject* d = PyList_GET_ITEM(entry, 1);
        if ((handler != Py_None && handler != h) || (data != Py_None && data != d)) continue;
        PyRef hold = PyRef::borrow(entry);
        if (env_start(false) < 0) return nullptr;
        if (TRVO_ge_removecbmsghandler(msghandler_trampoline, entry) != 0) return report_error(nullptr, nullptr);
        Py_INCREF(Py_None);
        PyList_SetItem(entry, 0, Py_None);
        if (PyList_SetSlice(list, i, i + 1, nullptr) < 0) return nullptr;
        removed = true;
    }
    if (!removed) {
        PyErr_SetString(InterfaceError, "Callback not found");
        return nullptr;
    }
    Py_RETURN_NONE;
}

void problem_message_printer(TRVOprob, void*, const char* msg, int, int) { write_library_message(msg); }
void slp_message_printer(TSLPprob, void*, const char* msg, int, int) { write_library_message(msg); }

}  // namespace

int install_problem_printers(ProblemObject* p) {
    if (p->prob && TRVOaddcbmessage(p->prob, problem_message_printer, nullptr, 1) != 0) {
        problem_error(p);
        return -1;
    }
    // A nonlinear message callback the user set (kind 36, copied onto a new copy of a problem)
    // takes the printer's place and keeps it.
    if (p->slp && !p->callbacks[36] && TSLPsetcbmessage(p->slp, slp_message_printer, nullptr) != 0) {
        problem_error(p);
        return -1;
    }
    return 0;
}

void remove_problem_printers(ProblemObject* p) {
    if (p->prob) TRVOremovecbmessage(p->prob, problem_message_printer, nullptr);
}

bool nonlinear_running() { return nonlinear_flag() == 1; }

void write_library_message(const char* msg) {
    if (!msg || !output_on() || interpreter_finalizing()) return;
    PyGILState_STATE gil = PyGILState_Ensure();
    PySys_FormatStdout("%s\n", msg);
    PyGILState_Release(gil);
}

int env_start(bool force) {
    int count = env_count_add(1);
    if (!force && count > 1) return 0;
    if (TRVOinit(nullptr) != 0) {
        env_count_add(-1);
        char buf[2048];
        buf[0] = '\0';
        int code = 0;
        TRVO_ge_getlasterror(&code, buf, sizeof buf, nullptr);
        buf[sizeof buf - 1] = '\0';
        PyErr_SetString(InterfaceError, buf[0] ? buf : "Could not start the optimization library");
        return -1;
    }
    TRVO_ge_addcbmsghandler(global_message_printer, nullptr, 1);
    if (nonlinear_flag() != 0) {
        if (TSLPinit() != 0) {
            PyErr_SetString(InterfaceError, "Error initializing TSLP environment");
            return -1;
        }
        set_nonlinear_flag(1);
    }
    bool empty;
    {
        std::lock_guard<std::mutex> g(state.locks->catalogue);
        empty = PyDict_Size(state.attribute_catalogue) < 1;
    }
    if (empty && catalogue_build(false) < 0) return -1;
    return 0;
}

int env_release_at_teardown() {
    if (!state.locks) return 0;
    if (env_count_add(-1) != 0) return 0;
    return release_libraries() == 0 ? 0 : -1;
}

PyMethodDef environment_functions[] = {
    {"getlasterror", env_getlasterror, METH_NOARGS, "getlasterror()\n--\n\nReturn the last error of the global optimisation environment as a tuple (code, message)."},
    {"getversion", env_getversion, METH_NOARGS, "getversion()\n--\n\nReturn the optimisation library's version as a str; raises InterfaceError when the library "
     "cannot start."},
    {"getcheckedmode", env_getcheckedmode, METH_NOARGS, "getcheckedmode()\n--\n\nReturn whether the optimisation library checks the arguments of its calls (a bool)."},
    {"setcheckedmode", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(env_setcheckedmode)), METH_VARARGS | METH_KEYWORDS,
     "setcheckedmode(checked_mode)\n--\n\nSwitch the optimisation library's argument checking on (true) or off. Returns "
     "None."},
    {"addcbmsghandler", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(env_addcbmsghandler)), METH_VARARGS | METH_KEYWORDS,
     "addcbmsghandler(msghandler, data, priority)\n--\n\nAdd a global message handler, called as msghandler(object, data, "
     "thread, message, msgtype, number) for every global message; higher priorities are called first. Returns None; raises "
     "InterfaceError for bad arguments."},
    {"removecbmsghandler", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(env_removecbmsghandler)), METH_VARARGS | METH_KEYWORDS,
     "removecbmsghandler(msghandler, data)\n--\n\nRemove the global message handlers registered with this handler and "
     "data (None matches any). Returns None; raises InterfaceError \"Callback not found\" when none matches."},
    {"getbanner", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(env_getbanner)), METH_VARARGS | METH_KEYWORDS,
     "getbanner(*args, **kwargs)\n--\n\nReturn the optimisation library's banner (name, version, HiGHS version) as a "
     "str; any arguments are ignored."},
    {"init", env_init, METH_NOARGS, "init()\n--\n\nStart the optimisation environment now (it otherwise starts with the first problem). Returns None; "
     "raises InterfaceError when the library cannot start."},
    {"free", env_free, METH_NOARGS, "free()\n--\n\nRelease the optimisation environment started by init(). Returns None."},
    {"setarchconsistency", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(env_setarchconsistency)), METH_VARARGS | METH_KEYWORDS,
     "setarchconsistency(ifArchConsistent)\n--\n\nRequest results that are the same on every architecture (true) or "
     "allow faster architecture-specific paths. Returns None."},
    {"getOutputEnabled", env_getOutputEnabled, METH_NOARGS, "getOutputEnabled()\n--\n\nReturn whether the solvers' messages are printed (a bool)."},
    {"setOutputEnabled", env_setOutputEnabled, METH_O, "setOutputEnabled(flag, /)\n--\n\nSwitch printing of the solvers' messages on (true) or off for all problems. "
     "Returns None."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace tarvo
