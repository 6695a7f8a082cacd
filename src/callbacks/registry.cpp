// The per-problem callback registry: one list of callback records per kind, the problem
// methods that add, remove, set and copy callbacks, and the release of the registry.
//
// A record is the list [problem (borrowed), callback, data, priority]. The record itself is
// the context handed to the library, so its identity identifies the registration. Before a
// record is dropped its problem item becomes None, so dropping it never releases the problem.
#include "callbacks/callbacks.h"

namespace tarvo {

namespace {

// Drops a record that leaves the registry: its borrowed problem item is replaced by None
// without being released.
void retire_record(PyObject* record) {
    callback_record_retired(record);
    if (PyList_Check(record) && PyList_GET_SIZE(record) == 4) {
        Py_INCREF(Py_None);
        PyList_SET_ITEM(record, 0, Py_None);  // the old item was borrowed: not released
    }
}

int register_callback(ProblemObject* p, int kind, PyObject* callback, PyObject* data, int priority) {
    PyRef prio(PyLong_FromLong(priority));
    PyRef record(PyList_New(4));
    if (!prio || !record) return -1;
    PyList_SET_ITEM(record.get(), 0, reinterpret_cast<PyObject*>(p));  // borrowed
    Py_INCREF(callback);
    PyList_SET_ITEM(record.get(), 1, callback);
    Py_INCREF(data);
    PyList_SET_ITEM(record.get(), 2, data);
    PyList_SET_ITEM(record.get(), 3, prio.release());
    int rc = library_register(p, kind, record.get(), priority);
    if (rc == 0) {
        if (!p->callbacks[kind]) {
            p->callbacks[kind] = PyList_New(0);
            if (!p->callbacks[kind]) rc = -1;
        }
        if (rc == 0 && kind >= FIRST_NONLINEAR_KIND) {
            // The nonlinear library keeps one callback per kind: the new one replaced the
            // earlier, whose record goes.
            PyObject* list = p->callbacks[kind];
            for (Py_ssize_t i = PyList_GET_SIZE(list) - 1; i >= 0; --i) retire_record(PyList_GET_ITEM(list, i));
            if (PyList_SetSlice(list, 0, PyList_GET_SIZE(list), nullptr) < 0) rc = -1;
        }
        if (rc == 0 && PyList_Append(p->callbacks[kind], record.get()) < 0) rc = -1;
        if (rc != 0) library_unregister(p, kind, record.get());
    }
    if (rc != 0) retire_record(record.get());
    return rc;
}

// Removes the records matching callback and data (null or None: any); 0, or -1 with an
// exception set (a library failure is left for report_error).
int unregister_callbacks(ProblemObject* p, int kind, PyObject* callback, PyObject* data) {
    bool any_callback = !callback || callback == Py_None;
    bool any_data = !data || data == Py_None;
    PyObject* list = p->callbacks[kind];
    if (!list) {
        if (any_callback) return 0;
        PyErr_SetString(InterfaceError, "Cannot remove callback from an empty set");
        return -1;
    }
    PyRef hold = PyRef::borrow(list);
    bool found = false;
    for (Py_ssize_t i = PyList_GET_SIZE(list) - 1; i >= 0; --i) {
        if (i >= PyList_GET_SIZE(list)) continue;
        PyObject* record = PyList_GET_ITEM(list, i);
        if (!PyList_Check(record) || PyList_GET_SIZE(record) != 4) {
            PyErr_SetString(InterfaceError, "Incorrect data stored in callback");
            return -1;
        }
        PyObject* f = PyList_GET_ITEM(record, 1);
        PyObject* d = PyList_GET_ITEM(record, 2);
        if ((!any_callback && f != callback) || (!any_data && d != data)) continue;
        PyRef keep = PyRef::borrow(record);
        if (library_unregister(p, kind, record) != 0) return -1;
        retire_record(record);
        if (PyList_SetSlice(list, i, i + 1, nullptr) < 0) return -1;
        found = true;
    }
    bool drop_slot = (!callback && !data) || PyList_GET_SIZE(list) == 0;
    if (drop_slot && p->callbacks[kind] == list) Py_CLEAR(p->callbacks[kind]);
    if (!found) {
        // Removing every callback of an empty slot is not an error.
        if (any_callback && any_data) return 0;
        PyErr_SetString(InterfaceError, "Callback not found");
        return -1;
    }
    return 0;
}

PyObject* add_callback(PyObject* self, PyObject* args, PyObject* kw, int kind) {
    static const char* kwlist[] = {"callback", "data", "priority", nullptr};
    PyObject* callback = nullptr;
    PyObject* data = Py_None;
    int priority = 0;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "O|Oi", const_cast<char**>(kwlist), &callback, &data, &priority) ||
        !PyCallable_Check(callback)) {
        PyErr_Clear();
        PyErr_SetString(InterfaceError, "Cannot add callback");
        return nullptr;
    }
    ProblemObject* p = as_prob(self);
    if (register_callback(p, kind, callback, data, priority) != 0) return report_error(self, nullptr);
    Py_RETURN_NONE;
}

PyObject* remove_callback(PyObject* self, PyObject* args, PyObject* kw, int kind) {
    static const char* kwlist[] = {"callback", "data", nullptr};
    PyObject* callback = nullptr;
    PyObject* data = nullptr;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "|OO", const_cast<char**>(kwlist), &callback, &data) ||
        (callback && callback != Py_None && !PyCallable_Check(callback))) {
        PyErr_Clear();
        PyErr_SetString(InterfaceError, "Cannot remove callback");
        return nullptr;
    }
    if (unregister_callbacks(as_prob(self), kind, callback, data) != 0) return report_error(self, nullptr);
    Py_RETURN_NONE;
}

int copy_callbacks(ProblemObject* dst, ProblemObject* src) {
    // A problem holds its own callbacks already (copying them onto itself would also read
    // the list it appends to without end).
    if (dst == src) return 0;
    for (int k = 0; k < CALLBACK_KINDS; ++k) {
        PyObject* list = src->callbacks[k];
        if (!list) continue;
        PyRef hold = PyRef::borrow(list);
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(list); ++i) {
            PyObject* record = PyList_GET_ITEM(list, i);
            if (!PyList_Check(record) || PyList_GET_SIZE(record) != 4) {
                PyErr_SetString(InterfaceError, "Invalid callback to be copied");
                return 1;
            }
            int priority = static_cast<int>(PyLong_AsLong(PyList_GET_ITEM(record, 3)));
            if (priority == -1 && PyErr_Occurred()) return 1;
            PyRef f = PyRef::borrow(PyList_GET_ITEM(record, 1));
            PyRef d = PyRef::borrow(PyList_GET_ITEM(record, 2));
            if (register_callback(dst, k, f.get(), d.get(), priority) != 0) return 1;
        }
    }
    return 0;
}

PyObject* problem_copycallbacks(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"src", nullptr};
    PyObject* src = nullptr;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "O", const_cast<char**>(kwlist), &src) || !is_problem(src) ||
        !as_prob(self)->prob || !as_prob(src)->prob) {
        PyErr_Clear();
        PyErr_SetString(InterfaceError, "copycallbacks() must be called with the source problem as argument");
        return nullptr;
    }
    if (copy_callbacks(as_prob(self), as_prob(src)) != 0) return report_error(self, nullptr);
    Py_RETURN_NONE;
}

#define CB_METHODS(name, kind)                                                                          \
    PyObject* addcb_##name(PyObject* self, PyObject* args, PyObject* kw) { return add_callback(self, args, kw, kind); } \
    PyObject* removecb_##name(PyObject* self, PyObject* args, PyObject* kw) {                          \
        return remove_callback(self, args, kw, kind);                                                  \
    }
#define SETCB_METHOD(name, kind) \
    PyObject* setcb_##name(PyObject* self, PyObject* args, PyObject* kw) { return add_callback(self, args, kw, kind); }

CB_METHODS(bariteration, 0)
CB_METHODS(barlog, 1)
CB_METHODS(chgbranchobject, 2)
CB_METHODS(cutlog, 3)
CB_METHODS(destroymt, 4)
CB_METHODS(gapnotify, 5)
CB_METHODS(globallog, 6)
CB_METHODS(infnode, 7)
CB_METHODS(intsol, 8)
CB_METHODS(lplog, 9)
CB_METHODS(message, 10)
CB_METHODS(mipthread, 11)
CB_METHODS(newnode, 12)
CB_METHODS(nodecutoff, 13)
CB_METHODS(optnode, 14)
CB_METHODS(preintsol, 15)
CB_METHODS(prenode, 16)
CB_METHODS(usersolnotify, 17)
CB_METHODS(checktime, 18)
SETCB_METHOD(cascadeend, 19)
SETCB_METHOD(cascadestart, 20)
SETCB_METHOD(cascadevar, 21)
SETCB_METHOD(cascadevarfail, 22)
SETCB_METHOD(coefevalerror, 23)
SETCB_METHOD(construct, 24)
SETCB_METHOD(destroy, 25)
SETCB_METHOD(drcol, 26)
SETCB_METHOD(iterend, 27)
SETCB_METHOD(iterstart, 28)
SETCB_METHOD(itervar, 29)
SETCB_METHOD(msjobend, 30)
SETCB_METHOD(msjobstart, 31)
SETCB_METHOD(mswinner, 32)
SETCB_METHOD(slpend, 33)
SETCB_METHOD(slpnode, 34)
SETCB_METHOD(slpstart, 35)
SETCB_METHOD(message, 36)
SETCB_METHOD(intsol, 37)
SETCB_METHOD(optnode, 38)
SETCB_METHOD(prenode, 39)

#define KW_METHOD(pyname, fn, doc) \
    {pyname, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(fn)), METH_VARARGS | METH_KEYWORDS, doc}

#define ADDCB_DOC(name, args, when)                                                                        \
    "addcb" #name "($self, /, callback, data=None, priority=0)\n--\n\n"                                   \
    "Add a " #name " callback, called as callback" args " " when ". Callbacks of higher priority are "  \
    "called first. Returns None; raises InterfaceError when callback is not callable."
#define REMOVECB_DOC(name)                                                                                  \
    "removecb" #name "($self, /, callback=None, data=None)\n--\n\n"                                        \
    "Remove the " #name " callbacks registered with this callback and data (None matches any; objects "    \
    "are compared by identity). Returns None; raises InterfaceError when none matches."
#define SETCB_DOC(name, args, when)                                                                        \
    "setcb" #name "($self, /, callback, data=None, priority=0)\n--\n\n"                                   \
    "Set the nonlinear solver's " #name " callback, called as callback" args " " when                     \
    "; it replaces the previous one. Returns None; raises InterfaceError when callback is not callable."

#define ADDREMOVE(name, args, when) \
    KW_METHOD("addcb" #name, addcb_##name, ADDCB_DOC(name, args, when)), \
    KW_METHOD("removecb" #name, removecb_##name, REMOVECB_DOC(name))
#define SET(name, args, when) KW_METHOD("setcb" #name, setcb_##name, SETCB_DOC(name, args, when))

}  // namespace

PyMethodDef problem_callback_methods[] = {
    ADDREMOVE(bariteration, "(problem, data)", "after each barrier iteration; a non-zero result stops the barrier"),
    ADDREMOVE(barlog, "(problem, data)", "after each barrier iteration; a non-zero result stops the solve"),
    ADDREMOVE(chgbranchobject, "(problem, data, branchobj)", "before a node of the tree search is branched on; it returns the branching object to use"),
    ADDREMOVE(cutlog, "(problem, data)", "at each log line of the root node's cutting rounds; a non-zero result stops the solve"),
    ADDREMOVE(destroymt, "(problem, data)", "when a worker of the tree search ends"),
    ADDREMOVE(gapnotify, "(problem, data)", "when the MIP bounds change; it returns None or a tuple (relative gap, absolute gap, objective, bound) of new targets (None keeps one), and the search stops when a target is met"),
    ADDREMOVE(globallog, "(problem, data)", "at each log line of the MIP search; a non-zero result stops the solve"),
    ADDREMOVE(infnode, "(problem, data)", "when a node of the tree search is infeasible"),
    ADDREMOVE(intsol, "(problem, data)", "at each new incumbent of a MIP solve, which getSolution then returns"),
    ADDREMOVE(lplog, "(problem, data)", "at the first simplex iteration and then every 100; a non-zero result stops the solve"),
    ADDREMOVE(message, "(problem, data, message, type)", "for every log line (type 1 information, 3 warning, 4 error)"),
    ADDREMOVE(mipthread, "(problem, data, thread_problem)", "when a worker of the tree search starts"),
    ADDREMOVE(newnode, "(problem, data, parent, node, branch)", "when the tree search creates a node"),
    ADDREMOVE(nodecutoff, "(problem, data, node)", "when a node of the tree search is cut off"),
    ADDREMOVE(optnode, "(problem, data)", "after a node's relaxation is solved to optimality; a non-zero result marks the node infeasible"),
    ADDREMOVE(preintsol, "(problem, data, soltype, cutoff)", "before an integer solution is accepted; it returns (reject, new cutoff), None keeping either"),
    ADDREMOVE(prenode, "(problem, data)", "before a node's relaxation is solved; a non-zero result marks the node infeasible"),
    ADDREMOVE(usersolnotify, "(problem, data, solname, status)", "for each solution added with addmipsol when the next MIP solve has judged it (status 0 feasible, 1 infeasible, 2 not usable)"),
    ADDREMOVE(checktime, "(problem, data)", "while the optimiser runs: at its first interrupt check and then at most every 5 ms (also once per nonlinear iteration); a non-zero result stops the solve"),
    SET(cascadeend, "(problem, data)", "after each cascading pass"),
    SET(cascadestart, "(problem, data)", "before each cascading pass"),
    SET(cascadevar, "(problem, data, col)", "after a determined column is cascaded"),
    SET(cascadevarfail, "(problem, data, col)", "when cascading a determined column fails"),
    SET(coefevalerror, "(problem, data, row, col)", "when a nonlinear coefficient cannot be evaluated"),
    SET(construct, "(problem, data)", "when the linearisation is constructed"),
    SET(destroy, "(problem, data)", "when the nonlinear problem is destroyed"),
    SET(drcol, "(problem, data, col, value, lb, ub)", "for each determined column; it returns the column's new value"),
    SET(iterend, "(problem, data)", "at the end of each SLP iteration; a non-zero result stops the solve"),
    SET(iterstart, "(problem, data)", "at the start of each SLP iteration; a non-zero result stops the solve"),
    SET(itervar, "(problem, data, col)", "for each nonlinear column after each SLP iteration"),
    SET(msjobend, "(problem, data, jobobject, description)", "after each multistart job; a non-zero result discards its result"),
    SET(msjobstart, "(problem, data, jobobject, description)", "before each multistart job; a non-zero result skips it"),
    SET(mswinner, "(problem, data, jobobject, description)", "for the winning multistart job"),
    SET(slpend, "(problem, data)", "at the end of the SLP run"),
    SET(slpnode, "(problem, data)", "at each node of the nonlinear tree search"),
    SET(slpstart, "(problem, data)", "at the start of the SLP run"),
    SET(message, "(problem, data, message, type)", "for every message of the nonlinear solver (it replaces the default printing)"),
    SET(intsol, "(problem, data)", "when the SLP run finds an integer solution"),
    SET(optnode, "(problem, data)", "after a node of the nonlinear tree search is solved; a non-zero result marks it infeasible"),
    SET(prenode, "(problem, data)", "before a node of the nonlinear tree search is solved; a non-zero result marks it infeasible"),
    KW_METHOD("copycallbacks", problem_copycallbacks,
              "copycallbacks($self, /, src)\n--\n\nRegister on this problem every callback of the problem src, with "
              "the same data and priority. Returns None; raises InterfaceError when src is not a problem."),
    {nullptr, nullptr, 0, nullptr},
};

// A copied problem starts with the same callbacks as its source, registered anew (each
// registration gets its own record, owned by the copy).
int callbacks_copy(ProblemObject* dst, ProblemObject* src) {
    if (copy_callbacks(dst, src) == 0) return 0;
    if (!PyErr_Occurred()) report_error(reinterpret_cast<PyObject*>(src), nullptr);
    return -1;
}

int callbacks_reregister(ProblemObject* p) {
    for (int k = 0; k < CALLBACK_KINDS; ++k) {
        PyObject* list = p->callbacks[k];
        if (!list) continue;
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(list); ++i) {
            PyObject* record = PyList_GET_ITEM(list, i);
            long priority = PyLong_AsLong(PyList_GET_ITEM(record, 3));
            if (priority == -1 && PyErr_Occurred()) return -1;
            if (library_register(p, k, record, static_cast<int>(priority)) != 0) {
                report_error(reinterpret_cast<PyObject*>(p), nullptr);
                return -1;
            }
        }
    }
    return 0;
}

void callbacks_release(ProblemObject* p) {
    for (auto& slot : p->callbacks) {
        if (!slot) continue;
        PyObject* list = slot;
        for (Py_ssize_t i = PyList_GET_SIZE(list) - 1; i >= 0; --i) {
            retire_record(PyList_GET_ITEM(list, i));
            PyList_SetSlice(list, i, i + 1, nullptr);
        }
        Py_CLEAR(slot);
    }
}

}  // namespace tarvo
