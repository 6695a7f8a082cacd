// The objective (constant, linear and quadratic parts, sense), solving with the optimiser that
// fits the problem on a worker thread while the caller watches for Ctrl-C, and the status.
#include "problem/body.h"
#include "model/model.h"
#include "nonlinear/node.h"
#include "nonlinear/formula.h"
#include "library_interface/tslp.h"
#include "problem/nonlinear_bridge.h"
#include "problem/lowlevel.h"

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tarvo {

// Runs work on a worker thread. The caller waits in 20 ms slices, checking for signals with
// the interpreter lock held; on KeyboardInterrupt interrupt() is called until the work ends,
// the worker is joined and -2 returned with the exception set.
int run_on_worker(ProblemObject* p, std::function<int()> work, std::function<void()> interrupt) {
    // What the worker shares with the caller lives on the heap: when the interpreter shuts down
    // while a daemon thread waits here, taking the interpreter lock back ends that thread by
    // unwinding its stack, and the worker (then detached) must not be left with dangling state.
    struct Shared {
        std::mutex m;
        std::condition_variable cv;
        bool done = false;
        int rc = 0;
    };
    std::shared_ptr<Shared> sh;
    try {
        sh = std::make_shared<Shared>();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
        return -2;
    }
    TRVOprob prob = p->prob;
    // A callback of a running solve sees the problem (through its temporary problem) but
    // cannot start another solve of it: the optimiser's state belongs to the running one.
    static std::set<TRVOprob> solving;  // guarded by the interpreter lock
    if (solving.count(prob)) {
        PyErr_SetString(SolverError, "The problem is being solved: it cannot be solved again from one of its callbacks");
        return -2;
    }
    solving.insert(prob);
    struct Done {
        TRVOprob prob;
        ~Done() { solving.erase(prob); }
    } done{prob};
    callback_exception_discard(prob);  // one left by an earlier call that did not collect it
    std::thread worker;
    try {
        worker = std::thread([sh, work] {
            int r = work();
            std::lock_guard<std::mutex> g(sh->m);
            sh->rc = r;
            sh->done = true;
            sh->cv.notify_all();
        });
    } catch (...) {
        PyErr_SetString(SolverError, "Could not start the optimiser thread");
        return -2;
    }
    struct DetachOnUnwind {
        std::thread& t;
        ~DetachOnUnwind() {
            if (t.joinable()) t.detach();
        }
    } detach_on_unwind{worker};
    bool interrupted = false;
    for (;;) {
        bool finished;
        Py_BEGIN_ALLOW_THREADS
        {
            std::unique_lock<std::mutex> lk(sh->m);
            sh->cv.wait_for(lk, std::chrono::milliseconds(20), [&] { return sh->done; });
            finished = sh->done;
        }
        Py_END_ALLOW_THREADS
        if (finished) break;
        if (PyErr_CheckSignals() < 0) {
            interrupted = true;
            break;
        }
    }
    Py_BEGIN_ALLOW_THREADS
    if (interrupted) {
        // The request is repeated until the worker is done: one made before the optimiser
        // started its run would be cleared by that start.
        std::unique_lock<std::mutex> lk(sh->m);
        while (!sh->done) {
            lk.unlock();
            interrupt();
            lk.lock();
            sh->cv.wait_for(lk, std::chrono::milliseconds(20), [&] { return sh->done; });
        }
    }
    worker.join();
    Py_END_ALLOW_THREADS
    // The first exception a callback raised on the optimiser's threads surfaces here, unchanged
    // (a KeyboardInterrupt already pending takes precedence).
    if (interrupted) {
        callback_exception_discard(prob);
        return -2;
    }
    if (callback_exception_restore(prob)) return -2;
    return sh->rc;
}

namespace {

int clear_objective(ProblemObject* p) {
    int n = 0;
    if (prob_cols(p, &n) < 0) return -1;
    int minus_one = -1;
    double zero = 0;
    if (TRVOchgobj(p->prob, 1, &minus_one, &zero) != 0) return problem_error(p), -1;
    if (n > 0) {
        std::vector<int> idx(n);
        for (int i = 0; i < n; ++i) idx[i] = i;
        std::vector<double> zeros(n, 0.0);
        if (TRVOchgobj(p->prob, n, idx.data(), zeros.data()) != 0) return problem_error(p), -1;
        int64_t nels = 0;
        if (TRVOgetmqobj64(p->prob, nullptr, nullptr, nullptr, 0, &nels, 0, n - 1) != 0) return problem_error(p), -1;
        if (nels > 0) {
            std::vector<int64_t> start(n + 1);
            std::vector<int> col(nels), c1;
            std::vector<double> val(nels);
            int64_t got = 0;
            if (TRVOgetmqobj64(p->prob, start.data(), col.data(), val.data(), nels, &got, 0, n - 1) != 0)
                return problem_error(p), -1;
            c1.resize(got);
            for (int j = 0; j < n; ++j)
                for (int64_t k = start[j]; k < start[j + 1] && k < got; ++k) c1[k] = j;
            std::fill(val.begin(), val.end(), 0.0);
            if (TRVOchgmqobj64(p->prob, got, c1.data(), col.data(), val.data()) != 0) return problem_error(p), -1;
        }
    }
    return 0;
}

const char* status_name(int kind, int status) {
    static const char* const lp[] = {"lp_unstarted", "lp_optimal", "lp_infeas", "lp_cutoff", "lp_unfinished",
                                     "lp_unbounded", "lp_cutoff_in_dual", "lp_unsolved", "lp_nonconvex"};
    static const char* const mip[] = {"mip_not_loaded", "mip_lp_not_optimal", "mip_lp_optimal", "mip_no_sol_found",
                                      "mip_solution", "mip_infeas", "mip_optimal", "mip_unbounded", "mip_unknown"};
    static const char* const nlp[] = {"nlp_unstarted", "nlp_solution", "nlp_globally_optimal", "nlp_locally_infeasible",
                                      "nlp_infeasible", "nlp_unbounded", "nlp_unfinished", "nlp_unknown", "nlp_unknown"};
    bool in = status >= 0 && status <= 8;
    if (kind == 2) return in ? nlp[status] : "nlp_unknown";
    if (kind == 1) return in ? mip[status] : "mip_unknown";
    return in ? lp[status] : "lp_unknown";
}

bool nonlinear_mode(ProblemObject* p) { return problem_is_nonlinear(p) && p->slp && nonlinear_running(); }

// Status value and the table it belongs to (0 linear, 1 mixed-integer, 2 nonlinear).
int read_status(ProblemObject* p, int* kind, int* status) {
    if (nonlinear_results(p)) {
        *kind = 2;
        if (TSLPgetintattrib(p->slp, 12044, status) != 0) return problem_error(p), -1;
        return 0;
    }
    int mip = prob_is_mip(p);
    if (mip < 0) return -1;
    *kind = mip;
    return prob_int_attrib(p, mip ? 1011 : 1010, status);
}

// Runs the optimiser on a worker thread (see run_on_worker).
int run_optimizer(ProblemObject* p, bool mip, const char* flags, bool nonlinear = false) {
    TRVOprob prob = p->prob;
    TSLPprob slp = p->slp;
    note_solver_run(p, nonlinear);
    std::string fl = flags ? flags : "";
    bool have_flags = flags != nullptr;
    return run_on_worker(
        p,
        [prob, slp, fl, have_flags, mip, nonlinear] {
            return nonlinear ? TSLPnlpoptimize(slp, fl.c_str())
                   : mip     ? TRVOmipoptimize(prob, have_flags ? fl.c_str() : nullptr)
                             : TRVOlpoptimize(prob, have_flags ? fl.c_str() : nullptr);
        },
        [prob, slp, nonlinear] {
            if (nonlinear) TSLPinterrupt(slp, 2);
            else TRVOinterrupt(prob, 2);
        });
}

}  // namespace

int run_nonlinear_optimizer(ProblemObject* p, const char* flags) { return run_optimizer(p, false, flags ? flags : "", true); }

int set_objective(ProblemObject* p, PyObject* objective, int sense) {
    PyRef elem;
    if (is_ndarray(objective)) {
        PyArrayObject* arr = reinterpret_cast<PyArrayObject*>(objective);
        if (PyArray_SIZE(arr) != 1) {
            PyErr_SetString(ModelError, "Only one objective can be set, passed a sequence or NumPy array");
            return -1;
        }
        elem.reset(PyArray_GETITEM(arr, static_cast<char*>(PyArray_DATA(arr))));
        if (!elem) return -1;
        objective = elem.get();
    }
    if (!(is_number(objective) || is_var(objective) || is_linterm(objective) || is_quadterm(objective) ||
          is_expression(objective) || is_nonlinear(objective))) {
        PyErr_SetString(ModelError, "Invalid object set as objective");
        return -1;
    }
    // Split first so that a bad objective leaves the previous one in place.
    PolyParts parts;
    NlItems nl;
    if (is_nonlinear(objective)) {
        if (formula_split(p, objective, true, -1, parts, nl) < 0) return -1;
    } else if (polynomial_parts(p, objective, true, parts) < 0) {
        return -1;
    }
    if (nl_objective_prepare(p) < 0) return -1;
    if (clear_objective(p) < 0) return -1;
    if (nl_objective_remove(p) < 0) return -1;
    if (parts.constant != 0) {
        int minus_one = -1;
        double c = -parts.constant;
        if (TRVOchgobj(p->prob, 1, &minus_one, &c) != 0) return problem_error(p), -1;
    }
    if (!parts.lin.empty()) {
        std::vector<int> idx;
        std::vector<double> val;
        idx.reserve(parts.lin.size());
        val.reserve(parts.lin.size());
        for (const auto& e : parts.lin) {
            idx.push_back(e.first);
            val.push_back(e.second);
        }
        if (TRVOchgobj(p->prob, static_cast<int>(idx.size()), idx.data(), val.data()) != 0) return problem_error(p), -1;
    }
    if (!parts.quad.empty()) {
        std::vector<int> c1, c2;
        std::vector<double> v;
        for (const auto& q : parts.quad) {
            c1.push_back(std::get<0>(q));
            c2.push_back(std::get<1>(q));
            v.push_back(std::get<2>(q));
        }
        if (TRVOchgmqobj64(p->prob, static_cast<int64_t>(v.size()), c1.data(), c2.data(), v.data()) != 0)
            return problem_error(p), -1;
    }
    if (nl_objective_install(p, nl) < 0) return -1;
    if (TRVOchgobjsense(p->prob, sense == 1 ? 1 : -1) != 0) return problem_error(p), -1;
    if (p->slp && nonlinear_running() && TSLPsetdblcontrol(p->slp, 12146, sense == 1 ? 1.0 : -1.0) != 0)
        return problem_error(p), -1;
    return 0;
}

PyObject* problem_setObjective(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"objective", "sense", nullptr};
    PyObject* objective = nullptr;
    int sense = 1;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "O|i:setObjective", const_cast<char**>(kwlist), &objective, &sense))
        return nullptr;
    if (sense != 1 && sense != -1) {
        PyErr_SetString(ModelError, "Invalid optimization sense");
        return nullptr;
    }
    if (set_objective(as_prob(self), objective, sense) < 0) return report_error(self, nullptr);
    Py_RETURN_NONE;
}

PyObject* problem_solve(PyObject* self, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"flags", nullptr};
    PyObject* flags_obj = nullptr;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "|O:solve", const_cast<char**>(kwlist), &flags_obj)) return nullptr;
    ProblemObject* p = as_prob(self);
    int mip = prob_is_mip(p);
    if (mip < 0) return nullptr;
    const char* flags = nullptr;
    PyObject* tmp = nullptr;
    if (flags_obj && flags_obj != Py_None) {
        if (!PyUnicode_Check(flags_obj) && !PyBytes_Check(flags_obj)) {
            PyErr_SetString(InterfaceError, "The optional 'flags' parameter should be a string");
            return nullptr;
        }
        flags = conv_str(flags_obj, nullptr, &tmp);
        if (!flags) return nullptr;
    }
    PyRef hold_tmp(tmp);
    if (nonlinear_mode(p)) {
        std::string fl = flags ? flags : "";
        if (fl.size() > 511) fl.resize(511);
        if (mip && fl.find('g') == std::string::npos) {
            if (fl.size() >= 511) {
                PyErr_SetString(SolverError, "Problem is mixed integer but the flag string is full; cannot add 'g' to the flags");
                return nullptr;
            }
            fl += 'g';
        }
        int rc = run_nonlinear_optimizer(p, fl.c_str());
        if (rc == -2 || PyErr_Occurred()) return nullptr;
        if (rc == 0) Py_RETURN_NONE;
        return slp_error(p);
    }
    if (problem_is_nonlinear(p)) {
        PyErr_SetString(SolverError, "The nonlinear library is not available for this problem");
        return nullptr;
    }
    int rc = run_optimizer(p, mip != 0, flags);
    if (rc == -2 || PyErr_Occurred()) return nullptr;
    if (rc == 0) Py_RETURN_NONE;
    int status = 0;
    if (TRVOgetintattrib(p->prob, mip ? 1011 : 1010, &status) == 0 && status == 8) {
        PyErr_SetString(SolverError,
                        "The problem was determined to be nonconvex, and the optimizer cannot solve it. Call nlpoptimize() to find a solution using SLP");
        return nullptr;
    }
    return problem_error(p);
}

PyObject* problem_getProbStatus(PyObject* self, PyObject*) {
    int kind = 0, status = 0;
    if (read_status(as_prob(self), &kind, &status) < 0) return nullptr;
    return PyLong_FromLong(status);
}

PyObject* problem_getProbStatusString(PyObject* self, PyObject*) {
    int kind = 0, status = 0;
    if (read_status(as_prob(self), &kind, &status) < 0) return nullptr;
    return PyUnicode_FromString(status_name(kind, status));
}

PyObject* problem_getObjVal(PyObject* self, PyObject*) {
    ProblemObject* p = as_prob(self);
    double v = 0;
    if (nonlinear_results(p)) {
        // Never solved: the same "no solution" error as getSolution() (fetching raises it).
        int status = 0;
        if (TSLPgetintattrib(p->slp, 12044, &status) != 0) return problem_error(p);
        std::vector<double> x;
        if (status == 0 && current_solution(p, x) < 0) return report_error(self, nullptr);
        if (TSLPgetdblattrib(p->slp, 12179, &v) != 0) return problem_error(p);
        return PyFloat_FromDouble(v);
    }
    int mip = prob_is_mip(p);
    if (mip < 0) return nullptr;
    // Without a solution (never solved, infeasible, stopped before the first integer
    // solution) the objective attribute holds no value of a point: raise the library's
    // "no solution" error, as getSolution() does, instead of returning a number.
    if ((mip ? TRVOgetmipsol(p->prob, nullptr, nullptr) : TRVOgetlpsol(p->prob, nullptr, nullptr, nullptr, nullptr)) != 0)
        return problem_error(p);
    if (prob_dbl_attrib(p, mip ? 2003 : 2001, &v) < 0) return nullptr;
    return PyFloat_FromDouble(v);
}

}  // namespace tarvo

namespace tarvo {
int run_library_optimizer(ProblemObject* p, bool mip, const char* flags) { return run_optimizer(p, mip, flags); }
}  // namespace tarvo
