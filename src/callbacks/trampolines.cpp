// Library-side trampolines: each turns a call of the optimisation or nonlinear library into a
// call of the user's Python callback with a fixed argument tuple, and the Python result back
// into the library's outputs.
//
// Every trampoline takes the interpreter lock, skips Python (interrupting the solve) when an
// exception of an earlier callback is still pending, builds a temporary problem that stands for
// the library's problem during the call, calls the callback, and on an exception writes the
// kind's message to the process's standard error and interrupts the solve with reason 9.
#include "callbacks/callbacks.h"

#include <cstdio>
#include <unordered_map>
#include <unordered_set>

namespace tarvo {

namespace {

constexpr int kStopUser = 9;

const char* const kNames[CALLBACK_KINDS] = {
    "bariteration", "barlog", "chgbranchobject", "cutlog", "destroymt", "gapnotify", "globallog",
    "infnode", "intsol", "lplog", "message", "mipthread", "newnode", "nodecutoff", "optnode",
    "preintsol", "prenode", "usersolnotify", "checktime", "cascadeend", "cascadestart",
    "cascadevar", "cascadevarfail", "coefevalerror", "construct", "destroy", "drcol", "iterend",
    "iterstart", "itervar", "msjobend", "msjobstart", "mswinner", "slpend", "slpnode", "slpstart",
    "message", "intsol", "optnode", "prenode",
};

const char* const kSharedFailure = "Problem in callback, stopping optimization";

// Records currently registered with a library. The library may hand a trampoline a record
// that was removed (and freed) after the library copied its list: such a call is skipped.
std::unordered_set<PyObject*>& live_records() {
    static auto* s = new std::unordered_set<PyObject*>();
    return *s;
}

// Exceptions raised on library threads, by library problem (see callback_exception_keep).
std::unordered_map<const void*, PyObject*>& kept_exceptions() {
    static auto* m = new std::unordered_map<const void*, PyObject*>();
    return *m;
}

void write_failure(const char* text) {
    std::fprintf(stderr, "%s\n", text);
    std::fflush(stderr);
}

// The temporary problem of one library call: it stands for the library's problem, shares the
// owning problem's objects and never owns the library handles.
PyObject* temporary_problem(ProblemObject* owner, TRVOprob prob, TSLPprob slp) {
    PyObject* self = ProblemType.tp_alloc(&ProblemType, 0);
    if (!self) return nullptr;
    ProblemObject* t = as_prob(self);
    if (state.module) Py_INCREF(state.module);  // released by the problem's deallocation
    t->prob = prob;
    t->slp = slp;
    t->vars = owner->vars;
    t->cons = owner->cons;
    t->sets = owner->sets;
    Py_XINCREF(t->vars);
    Py_XINCREF(t->cons);
    Py_XINCREF(t->sets);
    t->colmap = owner->colmap;
    t->rowmap = owner->rowmap;
    t->setmap = owner->setmap;
    for (int k = 0; k < CALLBACK_KINDS; ++k) {
        t->callbacks[k] = owner->callbacks[k];
        Py_XINCREF(t->callbacks[k]);
    }
    t->const_col = owner->const_col;
    t->nl_rows = owner->nl_rows;
    t->nl_objective = owner->nl_objective;
    t->userfuncs = owner->userfuncs;
    Py_XINCREF(t->userfuncs);
    t->obj_row = owner->obj_row;
    t->obj_col = owner->obj_col;
    return self;
}

// A temporary problem the callback kept outlives the call as an empty problem without a
// library problem: its methods then fail cleanly.
void make_empty(ProblemObject* t) {
    PyObject *type, *value, *tb;
    PyErr_Fetch(&type, &value, &tb);
    t->vars = PyList_New(0);
    t->cons = PyList_New(0);
    t->sets = PyList_New(0);
    t->colmap = new IndexMap();
    t->rowmap = new IndexMap();
    t->setmap = new IndexMap();
    PyErr_Clear();
    PyErr_Restore(type, value, tb);
}

// Releases a temporary problem. Its handles and shared maps are cleared first, so that its
// deallocation destroys nothing of the owning problem. A temporary problem the callback kept
// stays a valid, empty problem without a library problem.
void release_temporary(PyObject* self) {
    if (!self) return;
    ProblemObject* t = as_prob(self);
    t->prob = nullptr;
    t->slp = nullptr;
    // Controls and attributes objects the callback kept hold the problem; they read nothing
    // once it has no library problem.
    for (auto& c : t->callbacks) Py_CLEAR(c);
    Py_CLEAR(t->userfuncs);
    Py_CLEAR(t->vars);
    Py_CLEAR(t->cons);
    Py_CLEAR(t->sets);
    t->colmap = t->rowmap = t->setmap = nullptr;
    if (Py_REFCNT(self) > 1) make_empty(t);
    Py_DECREF(self);
}

// One library call of a callback: steps 2 to 4 on construction, step 8 on destruction.
class Call {
public:
    Call(void* record, TRVOprob prob, TSLPprob slp, int kind) : kind_(kind), prob_(prob), slp_(slp) {
        if (kind >= FIRST_NONLINEAR_KIND && slp && !prob_) {
            void* underlying = nullptr;
            if (TSLPgetptrattrib(slp, 12601, &underlying) == 0) prob_ = static_cast<TRVOprob>(underlying);
        }
        finalizing_ = interpreter_finalizing();
        if (finalizing_) return;
        own_thread_ = PyGILState_Check() != 0;
        gil_ = PyGILState_Ensure();
        if (PyErr_Occurred() || callback_exception_pending(prob_)) {
            interrupt();
            return;
        }
        PyObject* r = static_cast<PyObject*>(record);
        if (!r || !live_records().count(r) || !PyList_Check(r) || PyList_GET_SIZE(r) != 4) return;
        record_ = r;
        Py_INCREF(record_);
        PyObject* owner = PyList_GET_ITEM(r, 0);
        if (!is_problem(owner)) return;
        callback_ = PyList_GET_ITEM(r, 1);
        data_ = PyList_GET_ITEM(r, 2);
        Py_INCREF(callback_);
        Py_INCREF(data_);
        temp_ = temporary_problem(as_prob(owner), prob_, slp_);
        if (!temp_) {
            // The call cannot be made: the failure is the callback's.
            raised(kSharedFailure);
            return;
        }
        ready_ = true;
    }
    ~Call() {
        if (finalizing_) return;
        release_temporary(temp_);
        Py_XDECREF(callback_);
        Py_XDECREF(data_);
        Py_XDECREF(record_);
        PyGILState_Release(gil_);
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    bool ready() const { return ready_; }
    PyObject* problem() const { return temp_; }
    PyObject* data() const { return data_; }
    ProblemObject* owner() const { return as_prob(PyList_GET_ITEM(record_, 0)); }

    // Calls the callback with the tuple built from fmt (its first two items are always the
    // temporary problem and the data). Returns the result, or null after reporting a failure.
    template <class... A>
    PyObject* call(const char* failure, const char* fmt, A... args) {
        PyObject* tuple = Py_BuildValue(fmt, temp_, data_, args...);
        PyObject* result = tuple ? PyObject_Call(callback_, tuple, nullptr) : nullptr;
        Py_XDECREF(tuple);
        if (!result) raised(failure);
        return result;
    }

    // A failure: the message on standard error, the exception kept pending, the solve stopped.
    // A callback the library called from a thread already holding the interpreter lock was
    // called by a library operation outside a solve (a problem being destroyed, a nonlinear
    // report): no solve returns to raise it from, so it is reported as unraisable instead of
    // being left to surface at an unrelated point.
    void raised(const char* failure) {
        write_failure(failure);
        if (PyErr_Occurred()) {
            if (own_thread_) PyErr_WriteUnraisable(callback_);
            else callback_exception_keep(prob_);
        }
        interrupt();
    }
    // A wrong result: the message, and the solve stopped (no Python exception).
    void refused(const char* message) {
        write_failure(message);
        interrupt();
    }

private:
    void interrupt() {
        if (kind_ >= FIRST_NONLINEAR_KIND) {
            if (slp_) TSLPinterrupt(slp_, kStopUser);
        } else if (prob_) {
            TRVOinterrupt(prob_, kStopUser);
        }
    }

    int kind_;
    TRVOprob prob_;
    TSLPprob slp_;
    PyGILState_STATE gil_{};
    bool finalizing_ = false, own_thread_ = false, ready_ = false;
    PyObject* record_ = nullptr;
    PyObject* callback_ = nullptr;
    PyObject* data_ = nullptr;
    PyObject* temp_ = nullptr;
};

// The integer result rule: int, bool or NumPy signed integer scalar -> its value; None -> 0;
// anything else -> -1.
int int_rule(PyObject* r) {
    if (r == Py_None) return 0;
    if (PyLong_Check(r)) {
        int overflow = 0;
        long long v = PyLong_AsLongLongAndOverflow(r, &overflow);
        if (overflow) return overflow > 0 ? INT32_MAX : INT32_MIN;
        if (v == -1 && PyErr_Occurred()) {
            PyErr_Clear();
            return -1;
        }
        return static_cast<int>(v);
    }
    if (PyArray_IsScalar(r, Int)) return static_cast<int>(PyArrayScalar_VAL(r, Int));
    if (PyArray_IsScalar(r, Long)) return static_cast<int>(PyArrayScalar_VAL(r, Long));
    if (PyArray_IsScalar(r, LongLong)) return static_cast<int>(PyArrayScalar_VAL(r, LongLong));
    return -1;
}

bool number_or_none(PyObject* o, bool allow_float) {
    return o == Py_None || is_integer_value(o) || (allow_float && PyFloat_Check(o));
}

// The shared body of most kinds: (problem, data) in, the int rule out. *out (when given) is
// written only when the call succeeded.
int call_simple(TRVOprob prob, TSLPprob slp, void* record, int kind, int* out) {
    Call c(record, prob, slp, kind);
    if (!c.ready()) return 0;
    PyObject* r = c.call(kSharedFailure, "(OO)");
    if (!r) return 0;
    int v = int_rule(r);
    Py_DECREF(r);
    if (out) *out = v;
    return v;
}

// ---------------------------------------------------------------- optimisation library
int t_simple(TRVOprob p, void* ctx, int kind) { return call_simple(p, nullptr, ctx, kind, nullptr); }
int t_barlog(TRVOprob p, void* ctx) { return t_simple(p, ctx, 1); }
int t_cutlog(TRVOprob p, void* ctx) { return t_simple(p, ctx, 3); }
int t_globallog(TRVOprob p, void* ctx) { return t_simple(p, ctx, 6); }
int t_lplog(TRVOprob p, void* ctx) { return t_simple(p, ctx, 9); }
int t_checktime(TRVOprob p, void* ctx) { return t_simple(p, ctx, 18); }
void t_bariteration(TRVOprob p, void* ctx, int* action) { call_simple(p, nullptr, ctx, 0, action); }
void t_destroymt(TRVOprob p, void* ctx) { call_simple(p, nullptr, ctx, 4, nullptr); }
void t_infnode(TRVOprob p, void* ctx) { call_simple(p, nullptr, ctx, 7, nullptr); }
void t_intsol(TRVOprob p, void* ctx) { call_simple(p, nullptr, ctx, 8, nullptr); }
void t_optnode(TRVOprob p, void* ctx, int* infeasible) { call_simple(p, nullptr, ctx, 14, infeasible); }
void t_prenode(TRVOprob p, void* ctx, int* infeasible) { call_simple(p, nullptr, ctx, 16, infeasible); }

void t_message(TRVOprob p, void* ctx, const char* msg, int, int type) {
    if (!msg) return;  // a flush request carries no message
    Call c(ctx, p, nullptr, 10);
    if (!c.ready()) return;
    Py_XDECREF(c.call("Problem in message() callback, stopping optimization", "(OOsl)", msg, static_cast<long>(type)));
}

void t_usersolnotify(TRVOprob p, void* ctx, const char* name, int status) {
    Call c(ctx, p, nullptr, 17);
    if (!c.ready()) return;
    Py_XDECREF(c.call("Problem in usersolnotify() callback, stopping optimization", "(OOsl)", name ? name : "",
                      static_cast<long>(status)));
}

void t_nodecutoff(TRVOprob p, void* ctx, int node) {
    Call c(ctx, p, nullptr, 13);
    if (!c.ready()) return;
    Py_XDECREF(c.call("Problem in nodecutoff() callback, stopping optimization", "(OOl)", static_cast<long>(node)));
}

void t_newnode(TRVOprob p, void* ctx, int parent, int node, int branch) {
    Call c(ctx, p, nullptr, 12);
    if (!c.ready()) return;
    Py_XDECREF(c.call("Problem in newnode() callback, stopping optimization", "(OOlll)", static_cast<long>(parent),
                      static_cast<long>(node), static_cast<long>(branch)));
}

void t_mipthread(TRVOprob p, void* ctx, TRVOprob thread) {
    Call c(ctx, p, nullptr, 11);
    if (!c.ready()) return;
    // The thread's problem shares everything of the parent's temporary problem (no references
    // taken) but its library problem.
    PyObject* tp = ProblemType.tp_alloc(&ProblemType, 0);
    if (!tp) {
        c.raised("Problem in mipthread() callback, stopping optimization");
        return;
    }
    if (state.module) Py_INCREF(state.module);
    ProblemObject* t = as_prob(tp);
    ProblemObject* parent = as_prob(c.problem());
    t->prob = thread;
    t->slp = nullptr;
    t->vars = parent->vars;
    t->cons = parent->cons;
    t->sets = parent->sets;
    t->colmap = parent->colmap;
    t->rowmap = parent->rowmap;
    t->setmap = parent->setmap;
    for (int k = 0; k < CALLBACK_KINDS; ++k) t->callbacks[k] = parent->callbacks[k];
    t->const_col = parent->const_col;
    t->nl_rows = parent->nl_rows;
    t->nl_objective = parent->nl_objective;
    t->obj_row = parent->obj_row;
    t->obj_col = parent->obj_col;
    Py_XDECREF(c.call("Problem in mipthread() callback, stopping optimization", "(OOO)", tp));
    // Cleared without releasing: none of these were counted for it.
    t->prob = nullptr;
    t->vars = t->cons = t->sets = nullptr;
    t->colmap = t->rowmap = t->setmap = nullptr;
    for (auto& cb : t->callbacks) cb = nullptr;
    if (Py_REFCNT(tp) > 1) make_empty(t);
    Py_DECREF(tp);
}

void t_preintsol(TRVOprob p, void* ctx, int soltype, int* reject, double* cutoff) {
    Call c(ctx, p, nullptr, 15);
    if (!c.ready()) return;
    PyObject* r = c.call("Problem in preintsol() callback, stopping optimization", "(OOld)", static_cast<long>(soltype),
                         cutoff ? *cutoff : 0.0);
    if (!r) return;
    PyRef hold(r);
    if (!PyTuple_Check(r) || PyTuple_GET_SIZE(r) != 2 || !number_or_none(PyTuple_GET_ITEM(r, 0), false) ||
        !number_or_none(PyTuple_GET_ITEM(r, 1), true)) {
        c.refused("Problem in PreIntSol callback: must return tuple of two elements, both being a number or None.");
        return;
    }
    PyObject* rj = PyTuple_GET_ITEM(r, 0);
    PyObject* co = PyTuple_GET_ITEM(r, 1);
    if (rj != Py_None && reject) *reject = int_rule(rj);
    if (co != Py_None && cutoff) {
        double v = PyFloat_AsDouble(co);
        if (v == -1.0 && PyErr_Occurred()) PyErr_Clear();
        else *cutoff = v;
    }
}

void t_gapnotify(TRVOprob p, void* ctx, double* relgap, double* absgap, double* objtarget, double* boundtarget) {
    Call c(ctx, p, nullptr, 5);
    if (!c.ready()) return;
    PyObject* r = c.call("Problem in gapnotify() callback, stopping optimization", "(OO)");
    if (!r) return;
    PyRef hold(r);
    if (r == Py_None) return;
    bool ok = PyTuple_Check(r) && PyTuple_GET_SIZE(r) == 4;
    for (Py_ssize_t i = 0; ok && i < 4; ++i) ok = number_or_none(PyTuple_GET_ITEM(r, i), true);
    if (!ok) {
        c.refused("Problem in GapNotify callback: must return tuple of four elements, each being a number or None.");
        return;
    }
    double* outs[4] = {relgap, absgap, objtarget, boundtarget};
    for (Py_ssize_t i = 0; i < 4; ++i) {
        PyObject* item = PyTuple_GET_ITEM(r, i);
        if (item == Py_None || !outs[i]) continue;
        double v = PyFloat_AsDouble(item);
        if (v == -1.0 && PyErr_Occurred()) PyErr_Clear();
        else *outs[i] = v;
    }
}

void t_chgbranchobject(TRVOprob p, void* ctx, void* bo, void** newbo) {
    // The proposed object is ours from here on: the wrapper owns it and destroys it when it
    // goes, unless the callback hands it back.
    Call c(ctx, p, nullptr, 2);
    if (!c.ready()) {
        TRVO_bo_destroy(static_cast<TRVObranchobject>(bo));
        return;
    }
    PyObject* given = branchobj_wrap(bo, c.problem(), 1);
    if (!given) {
        TRVO_bo_destroy(static_cast<TRVObranchobject>(bo));
        c.raised("Problem in chgbranchobject() callback, stopping optimization");
        return;
    }
    PyRef hold_given(given);
    PyObject* r = c.call("Problem in chgbranchobject() callback, stopping optimization", "(OOO)", given);
    if (!r) return;
    PyRef hold(r);
    void* chosen = nullptr;
    if (!branchobj_take(r, &chosen) || !chosen) {
        // Another object, or a branching object already stored (it no longer has a handle).
        c.refused("returned object from chgbranchobject() should be a branching object");
        return;
    }
    if (newbo) *newbo = chosen;
}

// ---------------------------------------------------------------- nonlinear library
int n_simple(TSLPprob s, void* ctx, int kind) { return call_simple(nullptr, s, ctx, kind, nullptr); }
int n_cascadeend(TSLPprob s, void* ctx) { return n_simple(s, ctx, 19); }
int n_cascadestart(TSLPprob s, void* ctx) { return n_simple(s, ctx, 20); }
int n_construct(TSLPprob s, void* ctx) { return n_simple(s, ctx, 24); }
int n_destroy(TSLPprob s, void* ctx) { return n_simple(s, ctx, 25); }
int n_iterend(TSLPprob s, void* ctx) { return n_simple(s, ctx, 27); }
int n_iterstart(TSLPprob s, void* ctx) { return n_simple(s, ctx, 28); }
int n_slpend(TSLPprob s, void* ctx) { return n_simple(s, ctx, 33); }
int n_slpnode(TSLPprob s, void* ctx) { return n_simple(s, ctx, 34); }
int n_slpstart(TSLPprob s, void* ctx) { return n_simple(s, ctx, 35); }
int n_intsol(TSLPprob s, void* ctx) { return n_simple(s, ctx, 37); }
int n_optnode(TSLPprob s, void* ctx, int* feas) { return call_simple(nullptr, s, ctx, 38, feas); }
int n_prenode(TSLPprob s, void* ctx, int* feas) { return call_simple(nullptr, s, ctx, 39, feas); }

int n_col(TSLPprob s, void* ctx, int col, int kind, const char* failure) {
    Call c(ctx, nullptr, s, kind);
    if (!c.ready()) return 0;
    PyObject* r = c.call(failure, "(OOi)", col);
    if (!r) return -1;
    Py_DECREF(r);
    return 0;
}
int n_itervar(TSLPprob s, void* ctx, int col) {
    return n_col(s, ctx, col, 29, "Problem in itervar() callback, stopping optimization");
}
int n_cascadevar(TSLPprob s, void* ctx, int col) {
    return n_col(s, ctx, col, 21, "Problem in cascadevar() callback, stopping optimization");
}
int n_cascadevarfail(TSLPprob s, void* ctx, int col) {
    return n_col(s, ctx, col, 22, "Problem in cascadevarfail() callback, stopping optimization");
}

int n_coefevalerror(TSLPprob s, void* ctx, int row, int col) {
    Call c(ctx, nullptr, s, 23);
    if (!c.ready()) return 0;
    PyObject* r = c.call("Problem in coefevalerror() callback, stopping optimization", "(OOii)", row, col);
    if (!r) return 0;
    int v = int_rule(r);
    Py_DECREF(r);
    return v;
}

int n_drcol(TSLPprob s, void* ctx, int col, double value, double* newvalue, double lb, double ub) {
    Call c(ctx, nullptr, s, 26);
    if (!c.ready()) return 0;
    PyObject* r = c.call("Problem in drcol() callback, stopping optimization", "(OOiddd)", col, value, lb, ub);
    if (!r) return -1;
    PyRef hold(r);
    double v = PyFloat_AsDouble(r);
    if (v == -1.0 && PyErr_Occurred()) {
        c.raised("Problem in drcol() callback, stopping optimization");
        return -1;
    }
    if (newvalue) *newvalue = v;
    return 0;
}

int n_msjob(TSLPprob s, void* ctx, void* job, const char* desc, int* status, int kind, const char* failure) {
    Call c(ctx, nullptr, s, kind);
    if (!c.ready()) return 0;
    PyObject* jobobj = job ? static_cast<PyObject*>(job) : Py_None;
    PyObject* r = c.call(failure, "(OOOs)", jobobj, desc ? desc : "");
    if (!r) return -1;
    if (status) *status = int_rule(r);
    Py_DECREF(r);
    return 0;
}
int n_msjobstart(TSLPprob s, void* ctx, void* job, const char* desc, int* status) {
    return n_msjob(s, ctx, job, desc, status, 31, "Problem in msjobstart() callback, stopping optimization");
}
int n_msjobend(TSLPprob s, void* ctx, void* job, const char* desc, int* status) {
    return n_msjob(s, ctx, job, desc, status, 30, "Problem in msjobend() callback, stopping optimization");
}
int n_mswinner(TSLPprob s, void* ctx, void* job, const char* desc) {
    return n_msjob(s, ctx, job, desc, nullptr, 32, "Problem in mswinner() callback, stopping optimization");
}

void n_message(TSLPprob s, void* ctx, const char* msg, int, int type) {
    if (!msg) return;
    Call c(ctx, nullptr, s, 36);
    if (!c.ready()) return;
    Py_XDECREF(c.call("Problem in message callback, stopping optimization", "(OOsi)", msg, type));
}

}  // namespace

const char* callback_name(int kind) { return kind >= 0 && kind < CALLBACK_KINDS ? kNames[kind] : "unknown"; }

int library_register(ProblemObject* p, int kind, PyObject* record, int priority) {
    TRVOprob prob = p->prob;
    TSLPprob slp = p->slp;
    void* r = record;
    int rc;
    switch (kind) {
        case 0: rc = TRVOaddcbbariteration(prob, t_bariteration, r, priority); break;
        case 1: rc = TRVOaddcbbarlog(prob, t_barlog, r, priority); break;
        case 2: rc = TRVOaddcbchgbranchobject(prob, t_chgbranchobject, r, priority); break;
        case 3: rc = TRVOaddcbcutlog(prob, t_cutlog, r, priority); break;
        case 4: rc = TRVOaddcbdestroymt(prob, t_destroymt, r, priority); break;
        case 5: rc = TRVOaddcbgapnotify(prob, t_gapnotify, r, priority); break;
        case 6: rc = TRVOaddcbgloballog(prob, t_globallog, r, priority); break;
        case 7: rc = TRVOaddcbinfnode(prob, t_infnode, r, priority); break;
        case 8: rc = TRVOaddcbintsol(prob, t_intsol, r, priority); break;
        case 9: rc = TRVOaddcblplog(prob, t_lplog, r, priority); break;
        case 10: rc = TRVOaddcbmessage(prob, t_message, r, priority); break;
        case 11: rc = TRVOaddcbmipthread(prob, t_mipthread, r, priority); break;
        case 12: rc = TRVOaddcbnewnode(prob, t_newnode, r, priority); break;
        case 13: rc = TRVOaddcbnodecutoff(prob, t_nodecutoff, r, priority); break;
        case 14: rc = TRVOaddcboptnode(prob, t_optnode, r, priority); break;
        case 15: rc = TRVOaddcbpreintsol(prob, t_preintsol, r, priority); break;
        case 16: rc = TRVOaddcbprenode(prob, t_prenode, r, priority); break;
        case 17: rc = TRVOaddcbusersolnotify(prob, t_usersolnotify, r, priority); break;
        case 18: rc = TRVOaddcbchecktime(prob, t_checktime, r, priority); break;
        case 19: rc = TSLPsetcbcascadeend(slp, n_cascadeend, r); break;
        case 20: rc = TSLPsetcbcascadestart(slp, n_cascadestart, r); break;
        case 21: rc = TSLPsetcbcascadevar(slp, n_cascadevar, r); break;
        case 22: rc = TSLPsetcbcascadevarfail(slp, n_cascadevarfail, r); break;
        case 23: rc = TSLPsetcbcoefevalerror(slp, n_coefevalerror, r); break;
        case 24: rc = TSLPsetcbconstruct(slp, n_construct, r); break;
        case 25: rc = TSLPsetcbdestroy(slp, n_destroy, r); break;
        case 26: rc = TSLPsetcbdrcol(slp, n_drcol, r); break;
        case 27: rc = TSLPsetcbiterend(slp, n_iterend, r); break;
        case 28: rc = TSLPsetcbiterstart(slp, n_iterstart, r); break;
        case 29: rc = TSLPsetcbitervar(slp, n_itervar, r); break;
        case 30: rc = TSLPsetcbmsjobend(slp, n_msjobend, r); break;
        case 31: rc = TSLPsetcbmsjobstart(slp, n_msjobstart, r); break;
        case 32: rc = TSLPsetcbmswinner(slp, n_mswinner, r); break;
        case 33: rc = TSLPsetcbslpend(slp, n_slpend, r); break;
        case 34: rc = TSLPsetcbslpnode(slp, n_slpnode, r); break;
        case 35: rc = TSLPsetcbslpstart(slp, n_slpstart, r); break;
        case 36: rc = TSLPsetcbmessage(slp, n_message, r); break;
        case 37: rc = TSLPsetcbintsol(slp, n_intsol, r); break;
        case 38: rc = TSLPsetcboptnode(slp, n_optnode, r); break;
        case 39: rc = TSLPsetcbprenode(slp, n_prenode, r); break;
        default:
            PyErr_SetString(InterfaceError, "Incorrect callback function");
            return -1;
    }
    if (rc == 0) live_records().insert(record);
    return rc;
}

int library_unregister(ProblemObject* p, int kind, PyObject* record) {
    TRVOprob prob = p->prob;
    void* r = record;
    int rc = 0;
    switch (kind) {
        case 0: rc = TRVOremovecbbariteration(prob, t_bariteration, r); break;
        case 1: rc = TRVOremovecbbarlog(prob, t_barlog, r); break;
        case 2: rc = TRVOremovecbchgbranchobject(prob, t_chgbranchobject, r); break;
        case 3: rc = TRVOremovecbcutlog(prob, t_cutlog, r); break;
        case 4: rc = TRVOremovecbdestroymt(prob, t_destroymt, r); break;
        case 5: rc = TRVOremovecbgapnotify(prob, t_gapnotify, r); break;
        case 6: rc = TRVOremovecbgloballog(prob, t_globallog, r); break;
        case 7: rc = TRVOremovecbinfnode(prob, t_infnode, r); break;
        case 8: rc = TRVOremovecbintsol(prob, t_intsol, r); break;
        case 9: rc = TRVOremovecblplog(prob, t_lplog, r); break;
        case 10: rc = TRVOremovecbmessage(prob, t_message, r); break;
        case 11: rc = TRVOremovecbmipthread(prob, t_mipthread, r); break;
        case 12: rc = TRVOremovecbnewnode(prob, t_newnode, r); break;
        case 13: rc = TRVOremovecbnodecutoff(prob, t_nodecutoff, r); break;
        case 14: rc = TRVOremovecboptnode(prob, t_optnode, r); break;
        case 15: rc = TRVOremovecbpreintsol(prob, t_preintsol, r); break;
        case 16: rc = TRVOremovecbprenode(prob, t_prenode, r); break;
        case 17: rc = TRVOremovecbusersolnotify(prob, t_usersolnotify, r); break;
        case 18: rc = TRVOremovecbchecktime(prob, t_checktime, r); break;
        default: break;  // nonlinear kinds are replaced by the next setting, never removed
    }
    if (rc == 0) live_records().erase(record);
    return rc;
}

void callback_record_retired(PyObject* record) { live_records().erase(record); }

// ---------------------------------------------------------------- exceptions of library threads

void callback_exception_keep(const void* key) {
    PyObject *type, *value, *tb;
    PyErr_Fetch(&type, &value, &tb);
    if (!type) return;
    PyErr_NormalizeException(&type, &value, &tb);
    if (tb && value) PyException_SetTraceback(value, tb);
    Py_XDECREF(type);
    Py_XDECREF(tb);
    auto& m = kept_exceptions();
    if (m.count(key)) {
        Py_XDECREF(value);  // the first exception of a solve is the one that surfaces
        return;
    }
    m[key] = value;
}

bool callback_exception_pending(const void* key) {
    auto& m = kept_exceptions();
    return !m.empty() && m.count(key);
}

bool callback_exception_restore(const void* key) {
    auto& m = kept_exceptions();
    auto it = m.find(key);
    if (it == m.end()) return false;
    PyObject* value = it->second;
    m.erase(it);
    if (!value) return false;
    PyObject* type = reinterpret_cast<PyObject*>(Py_TYPE(value));
    Py_INCREF(type);
    PyObject* tb = PyException_GetTraceback(value);
    PyErr_Restore(type, value, tb);
    return true;
}

void callback_exception_discard(const void* key) {
    auto& m = kept_exceptions();
    auto it = m.find(key);
    if (it == m.end()) return;
    Py_XDECREF(it->second);
    m.erase(it);
}

}  // namespace tarvo
