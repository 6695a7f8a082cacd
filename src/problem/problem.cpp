// The problem object: creation from positional model elements, name, copy, reset, read,
// write and deallocation, plus the small attribute helpers the other problem files share.
#include "problem/problem.h"
#include "model/model.h"
#include "nonlinear/node.h"
#include "problem/nonlinear_bridge.h"
#include "nonlinear/formula.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace tarvo {

// ------------------------------------------------------------------ shared helpers

int prob_int_attrib(ProblemObject* p, int id, int* value) {
    *value = 0;
    if (TRVOgetintattrib(p->prob, id, value) != 0) {
        problem_error(p);
        return -1;
    }
    return 0;
}

int prob_dbl_attrib(ProblemObject* p, int id, double* value) {
    *value = 0;
    if (TRVOgetdblattrib(p->prob, id, value) != 0) {
        problem_error(p);
        return -1;
    }
    return 0;
}

int prob_cols(ProblemObject* p, int* n) { return prob_int_attrib(p, 1214, n); }
int prob_rows(ProblemObject* p, int* n) { return prob_int_attrib(p, 1124, n); }
int prob_sets(ProblemObject* p, int* n) { return prob_int_attrib(p, 1194, n); }

int prob_is_mip(ProblemObject* p) {
    for (int id : {1032, 1004, 1327, 1325, 1009}) {
        int v = 0;
        if (prob_int_attrib(p, id, &v) < 0) return -1;
        if (v != 0) return 1;
    }
    return 0;
}

uint64_t object_key(PyObject* o) {
    if (is_var(o)) return var_serial(o);
    if (is_constraint(o)) return con_serial(o);
    return reinterpret_cast<SosObject*>(o)->serial;
}

namespace {

PyObject* as_obj(ProblemObject* p) { return reinterpret_cast<PyObject*>(p); }

// Allocation: every field in a releasable state, the module referenced.
PyObject* problem_alloc(PyTypeObject* type) {
    PyObject* self = type->tp_alloc(type, 0);
    if (!self) return nullptr;
    ProblemObject* p = as_prob(self);
    p->prob = nullptr;
    p->slp = nullptr;
    p->vars = p->cons = p->sets = nullptr;
    p->controls = p->attributes = nullptr;
    p->colmap = p->rowmap = p->setmap = nullptr;
    for (auto& c : p->callbacks) c = nullptr;
    p->const_col = -1;
    p->nl_rows = 0;
    p->nl_objective = 0;
    p->userfuncs = nullptr;
    p->obj_row = -1;
    p->obj_col = -1;
    p->detached = 0;
    p->detached_from = 0;
    if (state.module) Py_INCREF(state.module);
    return self;
}

int make_lists_and_maps(ProblemObject* p) {
    p->vars = PyList_New(0);
    p->cons = PyList_New(0);
    p->sets = PyList_New(0);
    try {
        p->colmap = new IndexMap();
        p->rowmap = new IndexMap();
        p->setmap = new IndexMap();
    } catch (...) {
    }
    if (!p->vars || !p->cons || !p->sets || !p->colmap || !p->rowmap || !p->setmap) {
        PyErr_Clear();
        PyErr_SetString(ModelError, "Could not create problem maps");
        return -1;
    }
    return 0;
}

// Creates the library problem and, when the nonlinear library runs, the nonlinear problem
// bound to it.
int create_library_problems(ProblemObject* p) {
    if (TRVOcreateprob(&p->prob) != 0) {
        p->prob = nullptr;
        report_error(nullptr, nullptr);
        return -1;
    }
    if (nonlinear_running()) {
        if (TSLPcreateprob(&p->slp, &p->prob) != 0) {
            p->slp = nullptr;
            report_error(nullptr, nullptr);
            return -1;
        }
        if (TSLPsetintcontrol(p->slp, 12415, 0) != 0) {
            problem_error(p);
            return -1;
        }
    }
    return 0;
}

// Loads an empty problem with the given name; control 8035 is cleared during the load.
int load_empty(ProblemObject* p, const char* name) {
    int keep = 0;
    if (TRVOgetintcontrol(p->prob, 8035, &keep) != 0 || TRVOsetintcontrol(p->prob, 8035, 0) != 0 ||
        TRVOloadlp(p->prob, name, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                   nullptr, nullptr, nullptr) != 0 ||
        TRVOsetintcontrol(p->prob, 8035, keep) != 0) {
        problem_error(p);
        return -1;
    }
    return 0;
}

void destroy_library_problems(ProblemObject* p) {
    remove_problem_printers(p);
    if (p->slp) TSLPdestroyprob(p->slp);
    p->slp = nullptr;
    if (p->prob) TRVOdestroyprob(p->prob);
    p->prob = nullptr;
}

void release_userfuncs(ProblemObject* p) {
    if (!p->userfuncs) return;
    Py_ssize_t n = PyDict_Size(p->userfuncs);
    for (Py_ssize_t i = 1; i <= n && p->slp; ++i) {
        void* obj = nullptr;
        if (TSLPgetuserfuncobject(p->slp, static_cast<int>(i), &obj) == 0 && obj)
            Py_DECREF(static_cast<PyObject*>(obj));
    }
    Py_CLEAR(p->userfuncs);
}

void clear_lists_and_maps(ProblemObject* p) {
    // The constraints leave the problem with their bodies.
    if (restore_bodies(p) < 0) PyErr_WriteUnraisable(reinterpret_cast<PyObject*>(p));
    for (PyObject* l : {p->vars, p->cons, p->sets})
        if (l) PyList_SetSlice(l, 0, PyList_GET_SIZE(l), nullptr);
    for (IndexMap* m : {p->colmap, p->rowmap, p->setmap})
        if (m) m->clear();
}

// Classes of a positional argument of the constructor.
enum ArgClass { ARG_INVALID = -1, ARG_VAR = 0, ARG_CON = 1, ARG_SOS = 2, ARG_OBJECTIVE = 3, ARG_STRING = 4 };

int classify_leaf(PyObject* leaf) {
    if (is_var(leaf)) return ARG_VAR;
    if (is_constraint(leaf)) return ARG_CON;
    if (is_sos(leaf)) return ARG_SOS;
    if (is_expression(leaf) || is_linterm(leaf) || is_quadterm(leaf) || is_nonlinear(leaf)) return ARG_OBJECTIVE;
    if (PyUnicode_Check(leaf) || PyBytes_Check(leaf)) return ARG_STRING;
    return ARG_INVALID;
}

int add_elements(ProblemObject* p, PyObject* args, int sense) {
    PyObject* objective = nullptr;  // borrowed from args (or held below)
    PyRef objective_hold;
    bool named = false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(args); ++i) {
        PyObject* arg = PyTuple_GET_ITEM(args, i);
        if (PyUnicode_Check(arg) || PyBytes_Check(arg)) {
            if (named) {
                PyErr_SetString(ModelError, "More than one string passed in problem declaration");
                return -1;
            }
            named = true;
            PyObject* tmp = nullptr;
            const char* name = conv_str(arg, nullptr, &tmp);
            if (!name) return -1;
            int rc = TRVOsetprobname(p->prob, name);
            Py_XDECREF(tmp);
            if (rc != 0) { problem_error(p); return -1; }
            continue;
        }
        // An iterator loses the item the classification reads: pass it again in front.
        PyRef pending;
        PyRef rebuilt;
        PyObject* whole = arg;
        PyObject* probe = arg;
        if (PyIter_Check(arg)) {
            pending.reset(PyIter_Next(arg));
            if (!pending) {
                if (PyErr_Occurred()) return -1;
                continue;
            }
            rebuilt.reset(Py_BuildValue("(OO)", pending.get(), arg));
            if (!rebuilt) return -1;
            whole = rebuilt.get();
            probe = pending.get();
        }
        PyObject* leaf_raw = nullptr;
        int found = first_leaf(probe, WALK_DEPTH, &leaf_raw);
        PyRef leaf(leaf_raw);
        int cls;
        if (found < 0) {
            PyErr_Clear();
            cls = ARG_INVALID;
        } else if (found == 0) {
            continue;
        } else {
            cls = classify_leaf(leaf.get());
        }
        if (cls == ARG_VAR && is_var(arg) && p->colmap->count(var_serial(arg))) cls = ARG_OBJECTIVE;
        PyRef call_args;
        switch (cls) {
            case ARG_VAR:
            case ARG_CON:
            case ARG_SOS: {
                call_args.reset(PyTuple_Pack(1, whole));
                if (!call_args) return -1;
                PyObject* self = as_obj(p);
                PyRef r(cls == ARG_VAR ? problem_addVariable(self, call_args.get())
                        : cls == ARG_CON ? problem_addConstraint(self, call_args.get())
                                         : problem_addSOS(self, call_args.get()));
                if (!r) return -1;
                break;
            }
            case ARG_OBJECTIVE: {
                PyObject* obj = whole;
                PyRef elem;
                if (is_ndarray(obj)) {
                    if (PyArray_SIZE(reinterpret_cast<PyArrayObject*>(obj)) != 1) {
                        PyErr_SetString(ModelError,
                                        "Only one objective can be set, but a sequence or NumPy array of expressions was passed");
                        return -1;
                    }
                    elem.reset(PyArray_GETITEM(reinterpret_cast<PyArrayObject*>(obj),
                                               static_cast<char*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(obj)))));
                    if (!elem) return -1;
                    obj = elem.get();
                }
                if (!(is_var(obj) || is_linterm(obj) || is_quadterm(obj) || is_expression(obj) || is_nonlinear(obj))) {
                    PyErr_SetString(ModelError,
                                    "Incorrect way of defining an objective function (it should not be in an aggregate structure)");
                    return -1;
                }
                if (objective) {
                    PyErr_SetString(ModelError, "At most one expression can be used as an objective function");
                    return -1;
                }
                Py_INCREF(obj);
                objective_hold.reset(obj);
                objective = obj;
                break;
            }
            default:
                PyErr_SetString(ModelError,
                                "Erroneous problem declaration; argument contained object that was not a variable, constraint, or expression");
                return -1;
        }
    }
    // The objective is set after every element is in, so that it may precede its variables.
    if (objective && set_objective(p, objective, sense) < 0) return -1;
    return 0;
}

// ------------------------------------------------------------------ Python interface

PyObject* problem_new(PyTypeObject* type, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"name", "sense", nullptr};
    PyObject* name_obj = nullptr;
    int sense = 1;
    PyRef empty(PyTuple_New(0));
    if (!empty) return nullptr;
    if (!PyArg_ParseTupleAndKeywords(empty.get(), kw, "|$Oi:problem", const_cast<char**>(kwlist), &name_obj, &sense))
        return nullptr;
    if (sense != 1 && sense != -1) {
        PyErr_SetString(ModelError, "Invalid optimization sense");
        return nullptr;
    }
    PyRef self(problem_alloc(type));
    if (!self) return nullptr;
    ProblemObject* p = as_prob(self.get());
    if (make_lists_and_maps(p) < 0) return nullptr;
    if (env_start(false) < 0) return nullptr;
    if (create_library_problems(p) < 0) return nullptr;
    std::string name = "noname";
    if (name_obj && name_obj != Py_None) {
        PyObject* tmp = nullptr;
        const char* s = conv_str(name_obj, nullptr, &tmp);
        if (!s) return nullptr;
        name = s;
        Py_XDECREF(tmp);
    }
    if (load_empty(p, name.c_str()) < 0) return nullptr;
    if (install_problem_printers(p) < 0) return nullptr;
    if (problem_apply_default_controls(p) < 0) return nullptr;
    if (add_elements(p, args, sense) < 0) return nullptr;
    return self.release();
}

void problem_dealloc(PyObject* self) {
    ProblemObject* p = as_prob(self);
    if (state.locks) { std::lock_guard<std::mutex> g(state.locks->environment); }
    if (p->detached > 0 && p->prob) {
        // The constraints outlive the problem: they get their bodies back from the rows first.
        PyObject *t, *v, *tb;
        PyErr_Fetch(&t, &v, &tb);
        if (restore_bodies(p) < 0) PyErr_WriteUnraisable(self);
        PyErr_Restore(t, v, tb);
    }
    release_userfuncs(p);
    if (p->prob) callback_exception_discard(p->prob);
    destroy_library_problems(p);
    nlp_release_job_objects(p);
    note_solver_run(p, false);
    callbacks_release(p);
    p->controls = p->attributes = nullptr;  // none is alive: each would hold the problem
    Py_CLEAR(p->vars);
    Py_CLEAR(p->cons);
    Py_CLEAR(p->sets);
    delete p->colmap;
    delete p->rowmap;
    delete p->setmap;
    p->colmap = p->rowmap = p->setmap = nullptr;
    PyObject* module = state.module;
    Py_TYPE(self)->tp_free(self);
    Py_XDECREF(module);
}

PyObject* problem_name(PyObject* self, PyObject*) {
    ProblemObject* p = as_prob(self);
    int len = 0;
    if (prob_int_attrib(p, 1158, &len) < 0) return nullptr;
    std::vector<char> buf(static_cast<size_t>(len) + 2, '\0');
    if (TRVOgetprobname(p->prob, buf.data()) != 0) return problem_error(p);
    buf.back() = '\0';
    return PyUnicode_FromString(buf.data());
}

PyObject* problem_str(PyObject* self) { return problem_name(self, nullptr); }

PyObject* problem_copy(PyObject* self, PyObject*) {
    ProblemObject* src = as_prob(self);
    PyRef copy(problem_alloc(Py_TYPE(self)));
    if (!copy) return nullptr;
    ProblemObject* p = as_prob(copy.get());
    if (create_library_problems(p) < 0 || problem_apply_default_controls(p) < 0) return report_error(self, nullptr);
    if (TRVOcopyprob(p->prob, src->prob, "") != 0) return problem_error(src);
    if (src->slp && p->slp && TSLPcopyprob(p->slp, src->slp, "") != 0) return problem_error(src);
    if (src->slp && p->slp && formula_copy_userfuncs(p, src) < 0) return nullptr;
    if (callbacks_copy(p, src) < 0) return nullptr;
    if (TRVOcopycontrols(p->prob, src->prob) != 0) return problem_error(src);
    if (src->slp && p->slp && TSLPcopycontrols(p->slp, src->slp) != 0) return problem_error(src);
    if (make_lists_and_maps(p) < 0) return nullptr;
    *p->colmap = *src->colmap;
    *p->rowmap = *src->rowmap;
    *p->setmap = *src->setmap;
    for (auto pair : {std::make_pair(p->vars, src->vars), std::make_pair(p->cons, src->cons), std::make_pair(p->sets, src->sets)})
        if (PyList_SetSlice(pair.first, 0, 0, pair.second) < 0) return nullptr;
    p->nl_rows = src->nl_rows;
    p->nl_objective = src->nl_objective;
    p->obj_row = src->obj_row;
    p->obj_col = src->obj_col;
    p->const_col = src->const_col;
    if (install_problem_printers(p) < 0) return nullptr;
    return copy.release();
}

PyObject* problem_reset(PyObject* self, PyObject*) {
    ProblemObject* p = as_prob(self);
    clear_lists_and_maps(p);
    if (p->prob) {
        release_userfuncs(p);
        callback_exception_discard(p->prob);
        destroy_library_problems(p);
        nlp_release_job_objects(p);
        note_solver_run(p, false);
        p->const_col = -1;
        p->nl_rows = 0;
        p->nl_objective = 0;
        p->obj_row = p->obj_col = -1;
        if (create_library_problems(p) < 0 || problem_apply_default_controls(p) < 0) return nullptr;
        if (TRVOsetprobname(p->prob, "") != 0) return problem_error(p);
        if (load_empty(p, "") < 0) return nullptr;
        if (install_problem_printers(p) < 0) return nullptr;
        if (callbacks_reregister(p) < 0) return nullptr;  // the callbacks stay registered
    }
    Py_RETURN_NONE;
}

// Rebuilds the lists and maps from the library problem after the library filled it.
int load_from_library(ProblemObject* p) {
    int ncols = 0, nrows = 0, nsets = 0, namelen = 0;
    if (prob_int_attrib(p, 1214, &ncols) < 0 || prob_int_attrib(p, 1124, &nrows) < 0 ||
        prob_int_attrib(p, 1194, &nsets) < 0 || prob_int_attrib(p, 1028, &namelen) < 0)
        return -1;
    // A nonlinear objective read from a file comes as its transfer row and column: the last row,
    // marked as carrying the objective, and the last column, determined by that row. They stand
    // for the objective, not for a constraint and a variable, as when the objective was set.
    bool transfer = false;
    if (p->slp && nonlinear_running() && ncols > 0 && nrows > 0) {
        int status = 0, detrow = -1;
        if (TSLPgetrowstatus(p->slp, nrows - 1, &status) != 0 ||
            TSLPgetvar(p->slp, ncols - 1, &detrow, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                       nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) != 0) {
            slp_error(p);
            return -1;
        }
        transfer = (status & TSLP_ROWSTATUS_TRANSFER) && detrow == nrows - 1;
    }
    p->nl_objective = transfer ? 1 : 0;
    p->obj_row = transfer ? nrows - 1 : -1;
    p->obj_col = transfer ? ncols - 1 : -1;
    if (transfer) --ncols, --nrows;
    const size_t width = 8 * static_cast<size_t>(namelen) + 1;
    // Names of kind `type` for [first, last], fetched in blocks of 256.
    auto fetch_names = [&](int type, int count, std::vector<std::string>& out) -> int {
        out.clear();
        std::vector<char> buf;
        for (int first = 0; first < count; first += 256) {
            int last = std::min(count, first + 256) - 1;
            buf.assign(width * (last - first + 1) + 1, '\0');
            if (TRVOgetnames(p->prob, type, buf.data(), first, last) != 0) {
                problem_error(p);
                return -1;
            }
            const char* s = buf.data();
            for (int i = first; i <= last; ++i) {
                out.emplace_back(s);
                s += std::strlen(s) + 1;
            }
        }
        return 0;
    };
    std::vector<std::string> names;
    if (ncols > 0) {
        std::vector<double> lb(ncols), ub(ncols);
        std::vector<char> ct(ncols);
        if (TRVOgetlb(p->prob, lb.data(), 0, ncols - 1) != 0 || TRVOgetub(p->prob, ub.data(), 0, ncols - 1) != 0 ||
            TRVOgetcoltype(p->prob, ct.data(), 0, ncols - 1) != 0) {
            problem_error(p);
            return -1;
        }
        if (fetch_names(2, ncols, names) < 0) return -1;
        // Objects made in one pass, named in another, mapped in a third.
        PyRef made(alloc_guard(nullptr, [&] { return new_var_list(ncols, lb.data(), ub.data(), ct.data()); }));
        if (!made) return -1;
        for (int i = 0; i < ncols; ++i) {
            PyRef name(PyUnicode_FromString(names[i].c_str()));
            if (!name) return -1;
            uint64_t* word = &reinterpret_cast<VarObject*>(PyList_GET_ITEM(made.get(), i))->word;
            if (alloc_guard_status("Could not read problem", [&] { var_set_name(word, name.get()); return 0; }) < 0)
                return -1;
        }
        // Semi-continuous, semi-integer and partial-integer columns carry their limit as the
        // variable's threshold.
        if (std::any_of(ct.begin(), ct.end(), [](char t) { return t == 'S' || t == 'R' || t == 'P'; })) {
            int ng = 0, ns = 0;
            if (TRVOgetglobal64(p->prob, &ng, &ns, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) != 0) {
                problem_error(p);
                return -1;
            }
            std::vector<char> gt(static_cast<size_t>(ng) + 1);
            std::vector<int> gc(static_cast<size_t>(ng) + 1);
            std::vector<double> lim(static_cast<size_t>(ng) + 1);
            if (TRVOgetglobal64(p->prob, &ng, &ns, gt.data(), gc.data(), lim.data(), nullptr, nullptr, nullptr,
                                nullptr) != 0) {
                problem_error(p);
                return -1;
            }
            for (int k = 0; k < ng; ++k) {
                const int j = gc[static_cast<size_t>(k)];
                if (j < 0 || j >= ncols || !std::strchr("SRP", ct[static_cast<size_t>(j)])) continue;
                var_set_threshold(&reinterpret_cast<VarObject*>(PyList_GET_ITEM(made.get(), j))->word,
                                  lim[static_cast<size_t>(k)]);
            }
        }
        if (append_new_objects(p->vars, p->colmap, made.get(), 0, "Could not read problem") < 0) return -1;
    }
    if (nrows > 0) {
        std::vector<double> rhs(nrows), rng(nrows);
        std::vector<char> rt(nrows);
        if (TRVOgetrhs(p->prob, rhs.data(), 0, nrows - 1) != 0 || TRVOgetrhsrange(p->prob, rng.data(), 0, nrows - 1) != 0 ||
            TRVOgetrowtype(p->prob, rt.data(), 0, nrows - 1) != 0) {
            problem_error(p);
            return -1;
        }
        if (fetch_names(1, nrows, names) < 0) return -1;
        PyRef made(alloc_guard(nullptr, [&] { return new_con_list(nrows, rt.data(), rhs.data(), rng.data()); }));
        if (!made) return -1;
        for (int i = 0; i < nrows; ++i) {
            PyRef name(PyUnicode_FromString(names[i].c_str()));
            if (!name) return -1;
            uint64_t* word = &reinterpret_cast<ConstraintObject*>(PyList_GET_ITEM(made.get(), i))->word;
            if (alloc_guard_status("Cannot read constraint from problem", [&] { con_set_name(word, name.get()); return 0; }) < 0)
                return -1;
        }
        if (append_new_objects(p->cons, p->rowmap, made.get(), 0, "Cannot read constraint from problem") < 0) return -1;
    }
    if (nsets > 0) {
        if (fetch_names(3, nsets, names) < 0) return -1;
        for (int i = 0; i < nsets; ++i) {
            PyRef s(SosType.tp_alloc(&SosType, 0));
            PyRef name(PyUnicode_FromString(names[i].c_str()));
            PyRef idx(PyList_New(0)), wts(PyList_New(0));
            if (!s || !name || !idx || !wts) {
                if (!PyErr_Occurred()) PyErr_SetString(ModelError, "Cannot read SOS from problem");
                return -1;
            }
            SosObject* so = reinterpret_cast<SosObject*>(s.get());
            so->serial = next_sos_serial();
            so->type = 1;
            so->name = name.release();
            so->indices = idx.release();
            so->weights = wts.release();
            if (PyList_Append(p->sets, s.get()) < 0) return -1;
            (*p->setmap)[so->serial] = i;
        }
    }
    if (p->slp && nonlinear_running()) {
        int a = 0, b = 0;
        if (TSLPgetintattrib(p->slp, 12026, &a) != 0 || TSLPgetintattrib(p->slp, 12016, &b) != 0) {
            problem_error(p);
            return -1;
        }
        p->nl_rows = a + b;
    }
    return 0;
}

// After the optimiser read a file (which has no nonlinear part), the nonlinear data of the
// problem's previous content (formulas, SLP data, multistart jobs) would refer to rows and
// columns that now mean something else, and its objective sense may differ from the file's.
int forget_nonlinear_data(ProblemObject* p) {
    if (!p->slp || !nonlinear_running()) return 0;
    TSLPprob s = p->slp;
    if (TSLPloadcoefs(s, 0, nullptr, nullptr, nullptr, nullptr, 1, nullptr, nullptr) != 0 ||
        TSLPloadvars(s, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) != 0 ||
        TSLPloadtolsets(s, 0, nullptr) != 0 || TSLPloaddfs(s, 0, nullptr, nullptr, nullptr) != 0 ||
        TSLPmsclear(s) != 0 || TSLPreinitialize(s) != 0)
        return slp_error(p), -1;
    // The nonlinear optimiser keeps its own objective sense: the file's.
    double sense = 1;
    if (prob_dbl_attrib(p, 2007, &sense) < 0) return -1;
    if (TSLPsetdblcontrol(s, 12146, sense < 0 ? -1.0 : 1.0) != 0) return slp_error(p), -1;
    int nrows = 0;
    if (prob_int_attrib(p, 1001, &nrows) < 0) return -1;
    const int zero = 0;
    for (int i = 0; i < nrows; ++i) {
        int status = 0;
        double weight = 1;
        if (TSLPgetrowstatus(s, i, &status) != 0 || TSLPgetrowwt(s, i, &weight) != 0) return slp_error(p), -1;
        if ((status != 0 && TSLPchgrowstatus(s, i, &zero) != 0) || (weight != 1 && TSLPchgrowwt(s, i, nullptr) != 0))
            return slp_error(p), -1;
    }
    return 0;
}

PyObject* problem_read(PyObject* self, PyObject* args, PyObject* kw) {
    ProblemObject* p = as_prob(self);
    static const char* kwlist[] = {"filename", "options", nullptr};
    const char* filename = nullptr;
    const char* options = "";
    if (!PyArg_ParseTupleAndKeywords(args, kw, "s|s:read", const_cast<char**>(kwlist), &filename, &options))
        return nullptr;
    // Both libraries leave their problems untouched when a read fails, and so does this
    // method: the lists, maps and objective markers change only once the file is in.
    if (TRVOreadprob(p->prob, filename, options) != 0) {
        // The nonlinear library reads what the optimiser refuses (nonlinear problem files); when
        // it fails too, its message is the one that explains the file.
        if (!(p->slp && nonlinear_running())) return problem_error(p);
        if (TSLPreadprob(p->slp, filename, options) != 0) return slp_error(p);
    } else if (forget_nonlinear_data(p) < 0) {
        return nullptr;
    }
    clear_lists_and_maps(p);
    p->nl_rows = 0;
    p->nl_objective = 0;
    p->obj_row = p->obj_col = -1;
    if (load_from_library(p) < 0) {
        clear_lists_and_maps(p);
        return nullptr;
    }
    Py_RETURN_NONE;
}

PyObject* problem_write(PyObject* self, PyObject* args, PyObject* kw) {
    ProblemObject* p = as_prob(self);
    static const char* kwlist[] = {"filename", "flags", nullptr};
    const char* filename = nullptr;
    const char* flags = "";
    if (!PyArg_ParseTupleAndKeywords(args, kw, "s|s:write", const_cast<char**>(kwlist), &filename, &flags))
        return nullptr;
    bool nonlinear = p->slp && (problem_is_nonlinear(p) || std::strchr(flags, 'g'));
    int rc;
    Py_BEGIN_ALLOW_THREADS
    if (nonlinear)
        rc = TSLPwriteprob(p->slp, filename, flags);
    else
        rc = TRVOwriteprob(p->prob, filename, flags);
    Py_END_ALLOW_THREADS
    if (rc != 0) return nonlinear ? slp_error(p) : problem_error(p);
    Py_RETURN_NONE;
}

PyObject* get_controls(PyObject* self, void*) { return problem_controls(self); }

PyObject* get_attributes(PyObject* self, void*) { return problem_attributes(self); }

#define KW_METHOD(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(f))

PyMethodDef own_methods[] = {
    {"name", problem_name, METH_NOARGS,
     "name($self, /)\n--\n\nReturn the problem's name as a str."},
    {"copy", problem_copy, METH_NOARGS,
     "copy($self, /)\n--\n\nReturn a new problem with the same variables, constraints, sets, objective, controls and "
     "callbacks; raises SolverError when the library cannot copy it."},
    {"reset", problem_reset, METH_NOARGS,
     "reset($self, /)\n--\n\nMake the problem empty again: no variables, constraints, sets, objective or name, and "
     "default controls. Returns None."},
    {"read", KW_METHOD(problem_read), METH_VARARGS | METH_KEYWORDS,
     "read($self, /, filename, options='')\n--\n\nReplace the problem's content with the model in an MPS or LP file "
     "(with a nonlinear part when the file has one). Returns None; raises SolverError when the file cannot be read."},
    {"write", KW_METHOD(problem_write), METH_VARARGS | METH_KEYWORDS,
     "write($self, /, filename, flags='')\n--\n\nWrite the problem to a file: MPS by default, LP format with flag 'l'; "
     "nonlinear problems (or flag 'g') get the formula sections. Returns None; raises SolverError on failure."},
    {"addVariable", problem_addVariable, METH_VARARGS,
     "addVariable($self, /, *variables)\n--\n\nAdd variables to the problem: var objects, or lists, tuples, "
     "dictionaries and NumPy arrays of them, nested. Returns None; raises ModelError for a non-variable or a variable "
     "already added."},
    {"addConstraint", problem_addConstraint, METH_VARARGS,
     "addConstraint($self, /, *constraints)\n--\n\nAdd constraints (or nested containers, arrays and generators of "
     "them) as rows; their variables must be in the problem. Returns None; raises ModelError for an invalid or "
     "already added constraint."},
    {"addSOS", problem_addSOS, METH_VARARGS,
     "addSOS($self, /, *sets)\n--\n\nAdd special ordered sets (or nested containers of them) whose variables are in the "
     "problem. Returns None; raises ModelError otherwise."},
    {"addIndicator", problem_addIndicator, METH_VARARGS,
     "addIndicator($self, /, *indicators)\n--\n\nAdd indicator constraints, given either as two arguments "
     "(condition, constraint) or as any number of (condition, constraint) tuples, where the condition is "
     "`b == 0` or `b == 1` for a binary variable b of the problem. Returns None; raises ModelError otherwise."},
    {"delVariable", KW_METHOD(problem_delVariable), METH_VARARGS | METH_KEYWORDS,
     "delVariable($self, /, index=None, first=-1, last=-1)\n--\n\nDelete variables: those given by index (a variable, "
     "an index, a name or a list of them), or the index range first..last. Returns None; raises ModelError for a bad "
     "combination or an index out of range."},
    {"delConstraint", KW_METHOD(problem_delConstraint), METH_VARARGS | METH_KEYWORDS,
     "delConstraint($self, /, index=None, first=-1, last=-1)\n--\n\nDelete constraints: those given by index (a "
     "constraint, an index, a name or a list of them), or the row range first..last. Returns None; raises ModelError "
     "for a bad combination or an index out of range."},
    {"delSOS", KW_METHOD(problem_delSOS), METH_VARARGS | METH_KEYWORDS,
     "delSOS($self, /, index=None, first=-1, last=-1)\n--\n\nDelete special ordered sets: those given by index (a set, "
     "an index or a list of them), or the range first..last. Returns None; raises ModelError for a bad combination or "
     "an index out of range."},
    {"setObjective", KW_METHOD(problem_setObjective), METH_VARARGS | METH_KEYWORDS,
     "setObjective($self, /, objective, sense=1)\n--\n\nReplace the objective by a number, variable, expression or "
     "nonlinear expression; sense is tarvo.minimize (1) or tarvo.maximize (-1). Returns None; raises ModelError for an "
     "invalid objective or sense."},
    {"solve", KW_METHOD(problem_solve), METH_VARARGS | METH_KEYWORDS,
     "solve($self, /, flags=None)\n--\n\nSolve with the optimiser that fits the problem (HiGHS for linear, "
     "mixed-integer and convex quadratic models, the nonlinear solver otherwise), releasing the interpreter lock. "
     "Returns None; read the outcome with getProbStatus(); raises SolverError when the solve fails and re-raises an "
     "exception of a callback or Ctrl-C."},
    {"getProbStatus", problem_getProbStatus, METH_NOARGS,
     "getProbStatus($self, /)\n--\n\nReturn the status of the last solve as an int (one of the lp_..., mip_... or "
     "nlp_... constants, by the kind of problem)."},
    {"getProbStatusString", problem_getProbStatusString, METH_NOARGS,
     "getProbStatusString($self, /)\n--\n\nReturn the status of the last solve as the constant's name, e.g. "
     "'lp_optimal', 'mip_optimal' or 'nlp_solution'."},
    {"getObjVal", problem_getObjVal, METH_NOARGS,
     "getObjVal($self, /)\n--\n\nReturn the objective value of the current solution as a float."},
    {"getSolution", KW_METHOD(problem_getSolution), METH_VARARGS | METH_KEYWORDS,
     "getSolution($self, /, *args, flatten=False)\n--\n\nReturn solution values: all columns as a list with no "
     "argument, else the value of each argument in its own shape (a variable or expression gives a float, a list a "
     "list, an array an array, an index or name its column); flatten=True gives one flat list. Raises ModelError for an "
     "object not in the problem."},
    {"getDual", problem_getDual, METH_VARARGS,
     "getDual($self, /, *constraints)\n--\n\nReturn dual values: all rows as a list with no argument, one float for one "
     "constraint, index or name, else a flat list for the constraints given. Raises ModelError for a row not in the "
     "problem."},
    {"getSlack", problem_getSlack, METH_VARARGS,
     "getSlack($self, /, *constraints)\n--\n\nReturn slacks (right-hand side minus activity): all rows as a list with "
     "no argument, one float for one constraint, index or name, else a flat list. Raises ModelError for a row not in "
     "the problem."},
    {"getRCost", problem_getRCost, METH_VARARGS,
     "getRCost($self, /, *variables)\n--\n\nReturn reduced costs: all columns as a list with no argument, one float for "
     "one variable, index or name, else a flat list. Raises ModelError for a column not in the problem."},
    {"getIndex", problem_getIndex, METH_O,
     "getIndex($self, obj, /)\n--\n\nReturn the index of a variable (its column), a constraint (its row) or a special "
     "ordered set in the problem as an int; raises ModelError for any other object or one not in the problem."},
    {"getVariable", KW_METHOD(problem_getVariable), METH_VARARGS | METH_KEYWORDS,
     "getVariable($self, /, index=None, first=-1, last=-1)\n--\n\nReturn the variable at an integer index, a "
     "list for a (nested) list of indices or for the range first..last, or all variables as a list with no argument. "
     "Raises IndexError or ModelError for an index out of range."},
    {"getConstraint", KW_METHOD(problem_getConstraint), METH_VARARGS | METH_KEYWORDS,
     "getConstraint($self, /, index=None, first=-1, last=-1)\n--\n\nReturn the constraint at an integer index, a "
     "list for a (nested) list of indices or for the range first..last, or all constraints as a list with no argument. "
     "Raises IndexError or ModelError for an index out of range."},
    {"getSOS", KW_METHOD(problem_getSOS), METH_VARARGS | METH_KEYWORDS,
     "getSOS($self, /, index=None, first=-1, last=-1)\n--\n\nReturn the special ordered set at an "
     "integer index, a list for a (nested) list of indices or for the range first..last, or all sets as a list with "
     "no argument. Raises IndexError or ModelError for an index out of range."},
    {"setControl", problem_setControl, METH_VARARGS,
     "setControl($self, /, *args)\n--\n\nSet controls: setControl({'name': value, ...}) or setControl('name', value). "
     "Returns None; raises InterfaceError for an unknown control and ModelError for a value of the wrong type."},
    {"getControl", problem_getControl, METH_VARARGS,
     "getControl($self, /, *names)\n--\n\nReturn control values: a dict of all controls with no argument, the value of "
     "one name, or a dict for a list of names or several names. Raises InterfaceError for an unknown name."},
    {"getAttrib", problem_getAttrib, METH_VARARGS,
     "getAttrib($self, /, *names)\n--\n\nReturn attribute values: a dict of all attributes with no argument, the value "
     "of one name, or a dict for a list of names or several names. Raises InterfaceError for an unknown name."},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef getset[] = {
    {"controls", get_controls, nullptr, "Problem's controls", nullptr},
    {"attributes", get_attributes, nullptr, "Problem's attributes", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

// The problem's method table: its own methods followed by those of the subsystems that add
// problem methods (low-level library methods, callbacks, nonlinear methods).
std::vector<PyMethodDef> method_table;

}  // namespace

PyTypeObject ProblemType = {PyVarObject_HEAD_INIT(nullptr, 0)};

// loadproblem is about to replace the library problem's content: the nonlinear data of the
// present content (formulas, SLP data, row data, multistart jobs) goes first.
int problem_forget_nonlinear(ProblemObject* p) {
    p->nl_rows = 0;
    p->nl_objective = 0;
    p->obj_row = p->obj_col = -1;
    return forget_nonlinear_data(p);
}

void problem_clear_lists(ProblemObject* p) { clear_lists_and_maps(p); }

// loadproblem replaced the content: the lists and maps are rebuilt from the library.
int problem_reload_from_library(ProblemObject* p) {
    clear_lists_and_maps(p);
    if (load_from_library(p) < 0) {
        clear_lists_and_maps(p);
        return -1;
    }
    return 0;
}

void problem_type_init() {
    method_table.clear();
    for (PyMethodDef* t : {own_methods, problem_lowlevel_methods(), problem_callback_methods, problem_nonlinear_methods})
        for (PyMethodDef* d = t; d->ml_name; ++d) method_table.push_back(*d);
    method_table.push_back(PyMethodDef{nullptr, nullptr, 0, nullptr});
    PyTypeObject& t = ProblemType;
    t.tp_name = "tarvo.problem";
    t.tp_basicsize = sizeof(ProblemObject);
    t.tp_flags = Py_TPFLAGS_DEFAULT;
    t.tp_doc =
        "problem(*args, name=None, sense=1)\n--\n\nAn optimisation problem: variables, constraints, sets and an "
        "objective. The positional arguments may give variables, constraints, sets and nested containers of them, at "
        "most one objective expression and one name string; sense is tarvo.minimize (1) or tarvo.maximize (-1). "
        "Raises ModelError for invalid arguments and SolverError when the library cannot create the problem.";
    t.tp_new = problem_new;
    t.tp_dealloc = problem_dealloc;
    t.tp_getattro = problem_getattro;
    t.tp_str = problem_str;
    t.tp_methods = method_table.data();
    t.tp_getset = getset;
}

}  // namespace tarvo
