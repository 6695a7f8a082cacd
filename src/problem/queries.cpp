// Solution queries (values, slacks, duals, reduced costs) in the shape they were asked for,
// and lookups between objects and indices.
#include "problem/problem.h"
#include "model/model.h"
#include "nonlinear/node.h"
#include "problem/nonlinear_bridge.h"

#include <set>
#include <vector>

namespace tarvo {

namespace {
// Problems whose last solve ran the nonlinear optimiser although they have no nonlinear part
// (nlpoptimize or globalsol on a quadratic problem, say).
std::set<const ProblemObject*>& nonlinear_runs() {
    static std::set<const ProblemObject*> s;
    return s;
}
}  // namespace

void note_solver_run(ProblemObject* p, bool nonlinear) {
    if (nonlinear) nonlinear_runs().insert(p);
    else nonlinear_runs().erase(p);
}

bool nonlinear_results(ProblemObject* p) {
    if (!p->slp || !nonlinear_running()) return false;
    if (problem_is_nonlinear(p)) return true;
    if (!nonlinear_runs().count(p)) return false;
    int st = 0;
    return TSLPgetintattrib(p->slp, 12044, &st) == 0 && st >= 1 && st <= 6;
}

namespace {

enum Vec { VEC_X, VEC_SLACK, VEC_DUAL, VEC_DJ };

// Which solution the queries read: 2 nonlinear, 1 mixed-integer, 0 linear; -1 on error.
int solution_kind(ProblemObject* p) {
    if (nonlinear_results(p)) return 2;
    return prob_is_mip(p);
}

// Fetches one whole vector of the current solution.
int fetch_vector(ProblemObject* p, Vec which, std::vector<double>& out) {
    int kind = solution_kind(p);
    if (kind < 0) return -1;
    bool by_col = which == VEC_X || which == VEC_DJ;
    int n = 0;
    if (kind == 2) {
        if (TSLPgetintattrib(p->slp, by_col ? 12000 : 11999, &n) != 0) return problem_error(p), -1;
    } else if (prob_int_attrib(p, by_col ? 1214 : 1124, &n) < 0) {
        return -1;
    }
    out.assign(static_cast<size_t>(n), 0.0);
    double* d = out.data();
    if (n == 0) d = nullptr;
    double* x = which == VEC_X ? d : nullptr;
    double* slack = which == VEC_SLACK ? d : nullptr;
    double* dual = which == VEC_DUAL ? d : nullptr;
    double* dj = which == VEC_DJ ? d : nullptr;
    if (n == 0) return 0;
    int rc;
    if (kind == 2) {
        rc = TSLPgetslpsol(p->slp, x, slack, dual, dj);
    } else if (kind == 1) {
        if (which == VEC_DUAL) {
            PyErr_SetString(SolverError, "Cannot retrieve dual variables in a MIP");
            return -1;
        }
        if (which == VEC_DJ) {
            PyErr_SetString(SolverError, "Cannot retrieve reduced cost in a MIP");
            return -1;
        }
        rc = TRVOgetmipsol(p->prob, x, slack);
    } else {
        rc = TRVOgetlpsol(p->prob, x, slack, dual, dj);
    }
    if (rc != 0) {
        if (kind == 0 && which == VEC_DUAL) PyErr_SetString(SolverError, "Could not get dual solution");
        else if (kind != 2 && which == VEC_SLACK) PyErr_SetString(SolverError, "Could not get constraints' slack");
        else if (kind == 0 && which == VEC_DJ) PyErr_SetString(SolverError, "Could not retrieve reduced costs");
        else problem_error(p);
        return -1;
    }
    return 0;
}

const char* const OUT_OF_RANGE = "Index out of range";

// A nonlinear objective is carried by a transfer row and column of the library problem, which
// stand for no constraint and no variable. The user's vectors leave them out: these map
// between library positions and the user's positions (-1 for the transfer row or column).
int transfer_index(const ProblemObject* p, bool by_col) {
    return p->nl_objective ? (by_col ? p->obj_col : p->obj_row) : -1;
}

int64_t user_position(const ProblemObject* p, bool by_col, int64_t library_index) {
    int t = transfer_index(p, by_col);
    if (t < 0 || library_index < t) return library_index;
    return library_index == t ? -1 : library_index - 1;
}

// Drops the transfer entry from a whole library vector.
void drop_transfer(const ProblemObject* p, bool by_col, std::vector<double>& v) {
    int t = transfer_index(p, by_col);
    if (t >= 0 && static_cast<size_t>(t) < v.size()) v.erase(v.begin() + t);
}

// Position of one leaf in a vector of length n (by column or by row).
int resolve_entry(ProblemObject* p, PyObject* leaf, bool by_col, int64_t n, int64_t* pos) {
    int64_t idx = -1;
    if (by_col && is_var(leaf)) {
        auto it = p->colmap->find(var_serial(leaf));
        if (it != p->colmap->end()) idx = user_position(p, true, it->second);
    } else if (!by_col && is_constraint(leaf)) {
        auto it = p->rowmap->find(con_serial(leaf));
        if (it != p->rowmap->end()) idx = user_position(p, false, it->second);
    } else if (!by_col && is_sos(leaf)) {
        auto it = p->setmap->find(reinterpret_cast<SosObject*>(leaf)->serial);
        if (it != p->setmap->end()) idx = it->second;
    } else if (PyUnicode_Check(leaf) || PyBytes_Check(leaf)) {
        PyObject* tmp = nullptr;
        const char* name = conv_str(leaf, nullptr, &tmp);
        if (!name) return -1;
        int i = -1;
        if (TRVOgetindex(p->prob, by_col ? 2 : 1, name, &i) == 0) idx = user_position(p, by_col, i);
        Py_XDECREF(tmp);
    } else if (is_index_integer(leaf)) {
        idx = index_integer_value(leaf);
        if (idx == -1 && PyErr_Occurred()) return -1;
    } else {
        PyErr_SetString(ModelError, "Incorrect object(s) passed: need index, variable, constraint, or SOS");
        return -1;
    }
    if (idx < 0 || idx >= n) {
        PyErr_SetString(ModelError, OUT_OF_RANGE);
        return -1;
    }
    *pos = idx;
    return 0;
}

PyObject* list_of(const std::vector<double>& v) {
    PyObject* l = PyList_New(static_cast<Py_ssize_t>(v.size()));
    if (!l) return nullptr;
    for (size_t i = 0; i < v.size(); ++i) {
        PyObject* f = PyFloat_FromDouble(v[i]);
        if (!f) {
            Py_DECREF(l);
            return nullptr;
        }
        PyList_SET_ITEM(l, static_cast<Py_ssize_t>(i), f);
    }
    return l;
}

// One value for a single variable (x, reduced cost) or constraint (slack, dual) that the
// problem holds, read with the library's single-entry call so that it costs O(1) whatever
// the problem's size. Returns 1 with *out set; 0 when the general path must answer (another
// kind of argument, a nonlinear solution, or a failure whose message that path gives).
int single_value(ProblemObject* p, PyObject* a, Vec which, double* out) {
    const bool by_col = which == VEC_X || which == VEC_DJ;
    IndexMap::const_iterator it;
    if (by_col && is_var(a)) {
        it = p->colmap->find(var_serial(a));
        if (it == p->colmap->end()) return 0;
    } else if (!by_col && is_constraint(a)) {
        it = p->rowmap->find(con_serial(a));
        if (it == p->rowmap->end()) return 0;
    } else {
        return 0;
    }
    // A nonlinear solution is read whole by the general path; otherwise the library picks
    // the integer or the LP solution exactly as solution_kind does.
    if (nonlinear_results(p)) return 0;
    return TRVOgetsolentry(p->prob, -1, static_cast<int>(which), it->second, out) == 0 ? 1 : 0;
}

// The shape rules shared by getDual, getSlack, getRCost and flat getSolution.
PyObject* shaped_query(PyObject* self, PyObject* args, Vec which) {
    ProblemObject* p = as_prob(self);
    if (PyTuple_GET_SIZE(args) == 1) {
        double value;
        if (single_value(p, PyTuple_GET_ITEM(args, 0), which, &value)) return PyFloat_FromDouble(value);
    }
    std::vector<double> v;
    if (fetch_vector(p, which, v) < 0) return nullptr;
    bool by_col = which == VEC_X || which == VEC_DJ;
    drop_transfer(p, by_col, v);
    int64_t n = static_cast<int64_t>(v.size());
    Py_ssize_t nargs = PyTuple_GET_SIZE(args);
    if (nargs == 0) return list_of(v);
    if (nargs == 1) {
        PyObject* a = PyTuple_GET_ITEM(args, 0);
        if (!PyList_Check(a) && !PyTuple_Check(a) && !PySequence_Check(a) && !PyIter_Check(a) && !PyDict_Check(a) &&
            !is_ndarray(a)) {
            int64_t pos;
            if (resolve_entry(p, a, by_col, n, &pos) < 0) return nullptr;
            return PyFloat_FromDouble(v[pos]);
        }
    }
    PyRef out(PyList_New(0));
    if (!out) return nullptr;
    int rc = walk_leaves(args, WALK_DEPTH, [&](PyObject* leaf) -> int {
        int64_t pos;
        if (resolve_entry(p, leaf, by_col, n, &pos) < 0) return -1;
        PyRef f(PyFloat_FromDouble(v[pos]));
        return f ? PyList_Append(out.get(), f.get()) : -1;
    });
    if (rc < 0) return nullptr;
    return out.release();
}

// Objects of a problem list by index, index list or range.
PyObject* get_objects(PyObject* list, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"index", "first", "last", nullptr};
    PyObject* index = nullptr;
    int first = -1, last = -1;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "|Oii", const_cast<char**>(kwlist), &index, &first, &last)) return nullptr;
    if (index == Py_None) index = nullptr;
    if (index && (first >= 0 || last >= 0)) {
        PyErr_SetString(ModelError, "Parameters 'first' and 'last' cannot be specified if 'index' is also specified");
        return nullptr;
    }
    Py_ssize_t len = PyList_GET_SIZE(list);
    if (index) {
        if (is_index_integer(index)) {
            long long i = index_integer_value(index);
            if (i == -1 && PyErr_Occurred()) return nullptr;
            return PySequence_GetItem(list, static_cast<Py_ssize_t>(i));
        }
        PyRef out(PyList_New(0));
        if (!out) return nullptr;
        int rc = walk_leaves(index, WALK_DEPTH, [&](PyObject* leaf) -> int {
            if (!is_index_integer(leaf)) {
                PyErr_SetString(ModelError, "Error in index list(s): must contain only integers");
                return -1;
            }
            PyRef o(PySequence_GetItem(list, static_cast<Py_ssize_t>(index_integer_value(leaf))));
            return o ? PyList_Append(out.get(), o.get()) : -1;
        });
        if (rc < 0) return nullptr;
        return out.release();
    }
    if (first < 0 && last < 0) return PyList_GetSlice(list, 0, len);
    if (first < 0 || last < 0) {
        PyErr_SetString(ModelError, "Parameters 'first' and 'last' must be both nonnegative when specified");
        return nullptr;
    }
    if (first >= len || last >= len) {
        PyErr_SetString(ModelError, "Parameters 'first' and 'last' are out of range");
        return nullptr;
    }
    if (first > last) return PyList_New(0);
    return PyList_GetSlice(list, first, last + 1);
}

}  // namespace

int current_solution(ProblemObject* p, std::vector<double>& x) { return fetch_vector(p, VEC_X, x); }

PyObject* problem_getSolution(PyObject* self, PyObject* args, PyObject* kw) {
    PyObject* flatten = Py_False;
    if (kw) {
        PyObject* f = PyDict_GetItemString(kw, "flatten");
        if (f) flatten = f;
        if (PyDict_Size(kw) > (f ? 1 : 0)) {
            PyErr_SetString(PyExc_TypeError, "getSolution() accepts only the keyword argument 'flatten'");
            return nullptr;
        }
    }
    int flat = PyObject_IsTrue(flatten);
    if (flat < 0) return nullptr;
    if (PyTuple_GET_SIZE(args) == 0 || flat) return report_error(self, shaped_query(self, args, VEC_X));
    ProblemObject* p = as_prob(self);
    double value;
    if (PyTuple_GET_SIZE(args) == 1 && single_value(p, PyTuple_GET_ITEM(args, 0), VEC_X, &value))
        return PyFloat_FromDouble(value);
    std::vector<double> x;
    if (fetch_vector(p, VEC_X, x) < 0) return nullptr;
    PyObject* what = PyTuple_GET_SIZE(args) == 1 ? PyTuple_GET_ITEM(args, 0) : args;
    return report_error(self, evaluate_at_solution(p, what, x));
}

PyObject* problem_getDual(PyObject* self, PyObject* args) { return report_error(self, shaped_query(self, args, VEC_DUAL)); }
PyObject* problem_getSlack(PyObject* self, PyObject* args) { return report_error(self, shaped_query(self, args, VEC_SLACK)); }
PyObject* problem_getRCost(PyObject* self, PyObject* args) { return report_error(self, shaped_query(self, args, VEC_DJ)); }

PyObject* problem_getIndex(PyObject* self, PyObject* obj) {
    ProblemObject* p = as_prob(self);
    IndexMap* map = is_var(obj) ? p->colmap : is_constraint(obj) ? p->rowmap : is_sos(obj) ? p->setmap : nullptr;
    if (map) {
        auto it = map->find(object_key(obj));
        if (it != map->end()) return PyLong_FromLong(it->second);
    }
    PyErr_SetString(ModelError, "Incorrect object(s) passed: need variable, constraint, or SOS");
    return nullptr;
}

PyObject* problem_getVariable(PyObject* self, PyObject* args, PyObject* kw) { return get_objects(as_prob(self)->vars, args, kw); }
PyObject* problem_getConstraint(PyObject* self, PyObject* args, PyObject* kw) { return get_objects(as_prob(self)->cons, args, kw); }
PyObject* problem_getSOS(PyObject* self, PyObject* args, PyObject* kw) { return get_objects(as_prob(self)->sets, args, kw); }

}  // namespace tarvo
