// Adding variables, constraints, SOS and indicators to a problem in batches, and deleting
// them again, keeping the problem's lists, maps and the library in agreement.
#include "problem/body.h"
#include "model/model.h"
#include "nonlinear/node.h"
#include "nonlinear/formula.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <new>
#include <vector>

namespace tarvo {

namespace {

const char* const BAD_NESTING =
    "Incorrect (nested) array/list/sequence passed. Perhaps this is a NumPy array containing a tuple?";

// Undoes the appends of a failed add: truncates the list to its old length and forgets
// the serials mapped by this call.
void rollback(PyObject* list, IndexMap* map, Py_ssize_t old_len) {
    PyObject *type, *value, *tb;
    PyErr_Fetch(&type, &value, &tb);
    Py_ssize_t n = PyList_GET_SIZE(list);
    for (Py_ssize_t i = old_len; i < n; ++i) {
        PyObject* o = PyList_GET_ITEM(list, i);
        auto it = map->find(object_key(o));
        if (it != map->end() && it->second >= old_len) map->erase(it);
    }
    PyList_SetSlice(list, old_len, n, nullptr);
    PyErr_Restore(type, value, tb);
}

char column_type_char(int code) {
    static const char chars[] = {'C', 'B', 'I', 'S', 'R', 'P'};
    return code >= 0 && code <= 5 ? chars[code] : 0;
}

// Appends name (at most limit bytes) and its NUL to buf.
int append_name(std::string& buf, PyObject* name, size_t limit, const char* message) {
    PyObject* tmp = nullptr;
    const char* s = name ? conv_str(name, nullptr, &tmp) : nullptr;
    if (!s) {
        Py_XDECREF(tmp);
        PyErr_Clear();
        PyErr_SetString(ModelError, message);
        return -1;
    }
    size_t n = std::strlen(s);
    buf.append(s, std::min(n, limit));
    buf.push_back('\0');
    Py_XDECREF(tmp);
    return 0;
}

// About how many objects an add call receives: array sizes, and for nested sequences the
// length times the estimate of the first item (a list of equal rows is counted exactly). Only
// sizes storage ahead, so it is capped; the walk decides what is really added.
size_t leaf_count_hint(PyObject* o, int depth = 4) {
    if (is_ndarray(o)) return static_cast<size_t>(PyArray_SIZE(reinterpret_cast<PyArrayObject*>(o)));
    if (!PyList_Check(o) && !PyTuple_Check(o)) return 1;
    const Py_ssize_t n = PySequence_Fast_GET_SIZE(o);
    if (n == 0) return 0;
    size_t each = depth > 0 ? leaf_count_hint(PySequence_Fast_GET_ITEM(o, 0), depth - 1) : 1;
    if (PyTuple_Check(o) && n < 16) {  // the arguments of a call: add them up
        each = 0;
        for (Py_ssize_t i = 0; i < n; ++i)
            each += depth > 0 ? leaf_count_hint(PySequence_Fast_GET_ITEM(o, i), depth - 1) : 1;
        return std::min<size_t>(each, size_t(1) << 26);
    }
    return std::min<size_t>(static_cast<size_t>(n) * std::max<size_t>(each, 1), size_t(1) << 26);
}

// ------------------------------------------------------------------ variables

PyObject* add_variables(ProblemObject* p, PyObject* args) {
    int c0 = 0;
    if (prob_cols(p, &c0) < 0) return nullptr;
    const Py_ssize_t old_len = PyList_GET_SIZE(p->vars);
    std::vector<char> types;
    std::vector<double> lbs, ubs, limits;
    std::vector<int> limit_cols;
    std::string names;
    int count = 0;
    try {
        const size_t hint = leaf_count_hint(args);
        types.reserve(hint);
        lbs.reserve(hint);
        ubs.reserve(hint);
        names.reserve(8 * hint);
        p->colmap->reserve(p->colmap->size() + hint);
    } catch (const std::bad_alloc&) {
        // Only a head start: the vectors grow as they go.
    }
    int rc = walk_leaves(args, WALK_DEPTH, [&](PyObject* v) -> int {
        if (!is_var(v)) {
            PyErr_SetString(ModelError, "Incorrect objects added as variables to problem");
            return -1;
        }
        uint64_t serial = var_serial(v);
        if (p->colmap->count(serial)) {
            PyErr_SetString(ModelError, "Variable already added to problem");
            return -1;
        }
        if (PyList_Append(p->vars, v) < 0) return -1;
        char t = column_type_char(var_type_code(v));
        if (!t) {
            PyErr_SetString(ModelError, "Incorrect variable type passed to addVariable()");
            return -1;
        }
        uint64_t word = reinterpret_cast<VarObject*>(v)->word;
        double lb = var_get_lb(word), ub = var_get_ub(word);
        if (t == 'S' || t == 'R' || t == 'P') {
            double th = var_get_threshold(word);
            if (!(th >= lb && th <= ub)) {
                PyErr_SetString(ModelError,
                                "Incorrect semi-continuous, semi-integer, or partially integer variable; check that its threshold is between its lower and upper bounds");
                return -1;
            }
            limit_cols.push_back(c0 + count);
            limits.push_back(th);
        }
        try {
            p->colmap->insert_absent(serial, c0 + count);
            types.push_back(t);
            lbs.push_back(lb);
            ubs.push_back(ub);
        } catch (const std::bad_alloc&) {
            PyErr_SetString(ModelError, "Could not amend variable map");
            return -1;
        }
        ++count;
        char text[24];
        if (var_default_name_text(word, text)) {
            names.append(text);
            names.push_back('\0');
            return 0;
        }
        PyRef name(var_get_name(word));
        return append_name(names, name.get(), 150, "Invalid variable name (must be a string)");
    });
    if (rc < 0) {
        rollback(p->vars, p->colmap, old_len);
        return nullptr;
    }
    if (count > 0) {
        std::vector<double> zeros(count, 0.0);
        std::vector<int64_t> starts(count + 1, 0);
        bool ok = TRVOaddcols64(p->prob, count, 0, zeros.data(), starts.data(), nullptr, nullptr, lbs.data(), ubs.data()) == 0;
        int c1 = c0 + count;
        if (ok) {
            ok = TRVOgetintattrib(p->prob, 1214, &c1) == 0;
            bool all_continuous = std::all_of(types.begin(), types.end(), [](char c) { return c == 'C'; });
            if (ok && !all_continuous) {
                std::vector<int> idx(count);
                for (int i = 0; i < count; ++i) idx[i] = c0 + i;
                ok = TRVOchgcoltype(p->prob, count, idx.data(), types.data()) == 0;
            }
        }
        if (ok) ok = TRVOaddnames(p->prob, 2, names.data(), c0, c1 - 1) == 0;
        if (ok && !limit_cols.empty())
            ok = TRVOchgglblimit(p->prob, static_cast<int>(limit_cols.size()), limit_cols.data(), limits.data()) == 0;
        if (!ok) {
            problem_error(p);
            rollback(p->vars, p->colmap, old_len);
            int now = 0;
            if (TRVOgetintattrib(p->prob, 1214, &now) == 0 && now > c0) {
                std::vector<int> idx(now - c0);
                for (int i = 0; i < now - c0; ++i) idx[i] = c0 + i;
                TRVOdelcols(p->prob, now - c0, idx.data());
            }
            return nullptr;
        }
    }
    Py_RETURN_NONE;
}

// ------------------------------------------------------------------ constraints

struct RowBatch {
    std::vector<char> types;
    std::vector<double> rhs, range;
    std::vector<int64_t> starts{0};
    std::vector<int> cols;
    std::vector<double> vals;
    std::vector<int64_t> qstarts{0};
    std::vector<int> q1, q2;
    std::vector<double> qv;
    std::string names;
    NlItems nl;     // nonlinear coefficients of the rows
    int nl_rows = 0;  // rows with nonlinear coefficients
    PolyParts parts;  // scratch for one row's terms, reused from row to row
    int rows() const { return static_cast<int>(types.size()); }
    // Room for about n rows of a few terms each.
    void reserve(size_t n) {
        types.reserve(n);
        rhs.reserve(n);
        range.reserve(n);
        starts.reserve(n + 1);
        qstarts.reserve(n + 1);
        cols.reserve(2 * n);
        vals.reserve(2 * n);
        names.reserve(8 * n);
    }
};

// Appends the terms of a linear expression straight to the batch's matrix. False (the batch
// unchanged) when the body is of another kind or names a variable not in the problem: the
// general path then takes it, and reports the error.
bool append_linear_body(ProblemObject* p, PyObject* body, RowBatch& b, double* constant) {
    if (!is_expression(body) || is_nonlinear(body)) return false;
    ExpressionObject* e = as_expr(body);
    if (e->quadratic) return false;
    const size_t mark = b.cols.size();
    if (e->linear) {
        for (const auto& kv : *e->linear) {
            auto it = p->colmap->find(var_serial(kv.first));
            if (it == p->colmap->end()) {
                b.cols.resize(mark);
                b.vals.resize(mark);
                return false;
            }
            b.cols.push_back(it->second);
            b.vals.push_back(kv.second);
        }
    }
    *constant = e->constant;
    return true;
}

int gather_row(ProblemObject* p, PyObject* c, int row_index, RowBatch& b) {
    ConstraintObject* con = reinterpret_cast<ConstraintObject*>(c);
    PyObject* body = nullptr;
    if (con_body(c, &body) < 0) return -1;
    if (!body) {
        PyErr_SetString(ModelError, "Stale expression link, cannot add constraint");
        return -1;
    }
    double constant = 0;
    if (!append_linear_body(p, body, b, &constant)) {
        PolyParts& parts = b.parts;
        if (is_nonlinear(body)) {
            int before = b.nl.count();
            if (formula_split(p, body, false, row_index, parts, b.nl) < 0) return -1;
            if (b.nl.count() > before) ++b.nl_rows;
        } else if (polynomial_parts(p, body, false, parts) < 0) {
            return -1;
        }
        constant = parts.constant;
        for (const auto& e : parts.lin) {
            b.cols.push_back(e.first);
            b.vals.push_back(e.second);
        }
        for (const auto& q : parts.quad) {
            b.q1.push_back(std::get<0>(q));
            b.q2.push_back(std::get<1>(q));
            b.qv.push_back(std::get<2>(q));
        }
    }
    double lb = con_get_lb(con->word), ub = con_get_ub(con->word);
    double rhs = -constant, range = 0;
    char type;
    if (lb <= -INF && ub >= INF) type = 'N';
    else if (lb <= -INF) { type = 'L'; rhs += ub; }
    else if (ub >= INF) { type = 'G'; rhs += lb; }
    else if (lb == ub) { type = 'E'; rhs += lb; }
    else { type = 'R'; rhs += ub; range = ub - lb; }
    b.types.push_back(type);
    b.rhs.push_back(rhs);
    b.range.push_back(range);
    b.starts.push_back(static_cast<int64_t>(b.cols.size()));
    b.qstarts.push_back(static_cast<int64_t>(b.q1.size()));
    char text[24];
    if (con_default_name_text(con->word, text)) {
        b.names.append(text);
        b.names.push_back('\0');
    } else {
        PyRef name(con_get_name(con->word));
        if (append_name(b.names, name.get(), std::string::npos, "Invalid constraint name (must be a string)") < 0) return -1;
    }
    p->rowmap->insert_absent(con_serial(c), row_index);
    return 0;
}

int load_rows(ProblemObject* p, int r0, const RowBatch& b) {
    int n = b.rows();
    if (n == 0) return 0;
    bool ok = TRVOaddrows64(p->prob, n, static_cast<int64_t>(b.cols.size()), b.types.data(), b.rhs.data(), b.range.data(),
                            b.starts.data(), b.cols.data(), b.vals.data()) == 0;
    if (ok) ok = TRVOaddnames(p->prob, 1, b.names.data(), r0, r0 + n - 1) == 0;
    for (int i = 0; ok && i < n; ++i) {
        int64_t s = b.qstarts[i], e = b.qstarts[i + 1];
        if (e > s) ok = TRVOaddqmatrix64(p->prob, r0 + i, e - s, b.q1.data() + s, b.q2.data() + s, b.qv.data() + s) == 0;
    }
    if (!ok) problem_error(p);
    else if (formula_load(p, b.nl) < 0) ok = false;
    else p->nl_rows += b.nl_rows;
    if (!ok) {
        int now = 0;
        if (TRVOgetintattrib(p->prob, 1124, &now) == 0 && now > r0) {
            std::vector<int> idx(now - r0);
            for (int i = 0; i < now - r0; ++i) idx[i] = r0 + i;
            TRVOdelrows(p->prob, now - r0, idx.data());
        }
        return -1;
    }
    return 0;
}

PyObject* add_constraints(ProblemObject* p, PyObject* args) {
    int r0 = 0;
    if (prob_rows(p, &r0) < 0) return nullptr;
    const Py_ssize_t old_len = PyList_GET_SIZE(p->cons);
    RowBatch batch;
    try {
        const size_t hint = leaf_count_hint(args);
        batch.reserve(hint);
        p->rowmap->reserve(p->rowmap->size() + hint);
    } catch (const std::bad_alloc&) {
        // Only a head start: the batch grows as it goes.
    }
    int rc = walk_leaves(args, WALK_DEPTH, [&](PyObject* c) -> int {
        if (!is_constraint(c)) {
            PyErr_SetString(ModelError, "Invalid constraint");
            return -1;
        }
        if (!reinterpret_cast<ConstraintObject*>(c)->body) {
            PyErr_SetString(ModelError, "Stale expression link, cannot add constraint");
            return -1;
        }
        if (p->rowmap->count(con_serial(c))) {
            PyErr_SetString(ModelError, "Constraint already added to problem");
            return -1;
        }
        if (PyList_Append(p->cons, c) < 0) return -1;
        try {
            return gather_row(p, c, r0 + batch.rows(), batch);
        } catch (const std::bad_alloc&) {
            // The batch or the row map could not grow.
            PyErr_SetString(ModelError, "Cannot add constraint to problem");
            return -1;
        }
    });
    if (rc < 0 || load_rows(p, r0, batch) < 0) {
        rollback(p->cons, p->rowmap, old_len);
        return nullptr;
    }
    if (batch.nl_rows == 0) detach_bodies(p, old_len);
    Py_RETURN_NONE;
}

// ------------------------------------------------------------------ sets

int add_one_sos(ProblemObject* p, PyObject* s) {
    if (!is_sos(s)) {
        PyErr_SetString(ModelError, "Object added is not a SOS");
        return -1;
    }
    SosObject* so = reinterpret_cast<SosObject*>(s);
    if (p->setmap->count(so->serial)) {
        PyErr_SetString(ModelError, "SOS already added to problem");
        return -1;
    }
    if (!so->indices || !PyList_Check(so->indices) || !so->weights || !PyList_Check(so->weights)) {
        PyErr_SetString(ModelError, "SOS indices must be passed as a list");
        return -1;
    }
    Py_ssize_t n = PyList_GET_SIZE(so->indices);
    if (PyList_GET_SIZE(so->weights) < n) {
        PyErr_SetString(ModelError, "SOS weights must be passed as a list");
        return -1;
    }
    std::vector<int> cols(n);
    std::vector<double> w(n);
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* e = PyList_GET_ITEM(so->indices, i);
        if (is_var(e)) {
            auto it = p->colmap->find(var_serial(e));
            if (it == p->colmap->end()) {
                PyErr_SetString(ModelError, "SOS contains variable that was not added to the problem");
                return -1;
            }
            cols[i] = it->second;
        } else if (is_index_integer(e)) {
            cols[i] = static_cast<int>(index_integer_value(e));
        } else {
            PyErr_SetString(ModelError, "SOS indices must be passed as a list");
            return -1;
        }
        w[i] = PyFloat_AsDouble(PyList_GET_ITEM(so->weights, i));
        if (w[i] == -1.0 && PyErr_Occurred()) return -1;
    }
    char type = so->type == 2 ? '2' : '1';
    int64_t starts[2] = {0, static_cast<int64_t>(n)};
    if (TRVOaddsets64(p->prob, 1, n, &type, starts, cols.data(), w.data()) != 0) {
        problem_error(p);
        return -1;
    }
    int nsets = 0;
    if (prob_sets(p, &nsets) < 0) return -1;
    if (so->name && (PyUnicode_Check(so->name) || PyBytes_Check(so->name))) {
        std::string name;
        if (append_name(name, so->name, std::string::npos, "Invalid SOS name (must be a string)") < 0) return -1;
        if (TRVOaddnames(p->prob, 3, name.data(), nsets - 1, nsets - 1) != 0) {
            problem_error(p);
            return -1;
        }
    }
    if (PyList_Append(p->sets, s) < 0) return -1;
    (*p->setmap)[so->serial] = nsets - 1;
    return 0;
}

// ------------------------------------------------------------------ indicators

const char* const INDICATOR_USAGE =
    "Invalid declaration of indicator constraints.\nThe problem.addIndicator function accepts either two constraints or one or more TUPLES of constraints,\nas in the following examples:\n\np.addIndicator(z==1, 2*x + 4*y <= 4)\n\np.addIndicator((y1==1, 2*x1 + 4*x2 <= 4),\n               (y2==1, 3*x1 -   x2 >= 2),\n               (y3==1, 2*x1 + 4*x2 <= 4))\n";

int add_one_indicator(ProblemObject* p, PyObject* cond, PyObject* con) {
    PyObject* body = nullptr;
    if (con_body(con, &body) < 0) return -1;
    if (!body || operand_kind_quiet(body) < 0) {
        PyErr_SetString(ModelError, "Invalid constraint assigned to indicator");
        return -1;
    }
    if (is_nonlinear(body)) {
        PyErr_SetString(ModelError, "Nonlinear indicator constraints are not allowed");
        return -1;
    }
    PyObject* cbody = nullptr;
    if (con_body(cond, &cbody) < 0) return -1;
    PyObject* var = nullptr;
    double coef = 1.0;
    if (cbody && is_var(cbody)) {
        var = cbody;
    } else if (cbody && is_linterm(cbody)) {
        var = reinterpret_cast<LinTermObject*>(cbody)->var;
        coef = reinterpret_cast<LinTermObject*>(cbody)->coef;
    } else if (cbody && is_expression(cbody)) {
        ExpressionObject* e = as_expr(cbody);
        if (e->constant != 0) {
            PyErr_SetString(ModelError, "Invalid condition for indicator constraints: must be a variable");
            return -1;
        }
        if (!e->linear || e->linear->size() != 1) {
            PyErr_SetString(ModelError, "Invalid condition for indicator constraints: there must be exactly one variable");
            return -1;
        }
        if (e->quadratic && !e->quadratic->empty()) {
            PyErr_SetString(ModelError, "Invalid condition for indicator constraints: it cannot contain a quadratic expression");
            return -1;
        }
        var = e->linear->begin()->first;
        coef = e->linear->begin()->second;
    } else {
        PyErr_SetString(ModelError, "Invalid indicator expression. Must be var==0 or var==1, where var is a binary variable");
        return -1;
    }
    auto it = p->colmap->find(var_serial(var));
    if (it == p->colmap->end()) {
        PyErr_SetString(ModelError, "Indicator variable has not been added to problem yet");
        return -1;
    }
    if (coef != 1.0) {
        PyErr_SetString(ModelError, "Indicator variable must have coefficient 1");
        return -1;
    }
    uint64_t w = reinterpret_cast<ConstraintObject*>(cond)->word;
    double lb = con_get_lb(w), ub = con_get_ub(w);
    int comp;
    if (lb == 1 && ub == 1) comp = 1;
    else if (lb == 0 && ub == 0) comp = -1;
    else {
        PyErr_SetString(ModelError,
                        "Invalid condition for indicator constraints: must be <variable_name> == 0 or <variable_name> == 1");
        return -1;
    }
    int col = it->second;
    PyRef one(PyTuple_Pack(1, con));
    if (!one) return -1;
    PyRef r(add_constraints(p, one.get()));
    if (!r) return -1;
    int nrows = 0;
    if (prob_rows(p, &nrows) < 0) return -1;
    int row = nrows - 1;
    if (TRVOsetindicators(p->prob, 1, &row, &col, &comp) != 0) {
        problem_error(p);
        return -1;
    }
    return 0;
}

// ------------------------------------------------------------------ deletion

struct DelKind {
    PyObject* ProblemObject::*list;
    IndexMap* ProblemObject::*map;
    int conv;
    bool (*is_kind)(PyObject*);
    int (*del)(TRVOprob, int, const int*);
    int (*del_nonlinear)(TSLPprob, int, const int*);   // keeps the nonlinear data in step; may be null
};

bool is_var_obj(PyObject* o) { return is_var(o); }
bool is_con_obj(PyObject* o) { return is_constraint(o); }
bool is_sos_obj(PyObject* o) { return is_sos(o); }

int del_cols(TRVOprob prob, int n, const int* idx) { return TRVOdelcols(prob, n, idx); }
int del_rows(TRVOprob prob, int n, const int* idx) { return TRVOdelrows(prob, n, idx); }
int del_sets(TRVOprob prob, int n, const int* idx) { return TRVOdelsets(prob, n, idx); }

const DelKind DEL_VARS = {&ProblemObject::vars, &ProblemObject::colmap, CONV_COL, is_var_obj, del_cols, TSLPdelcols};
const DelKind DEL_CONS = {&ProblemObject::cons, &ProblemObject::rowmap, CONV_ROW, is_con_obj, del_rows, TSLPdelrows};
const DelKind DEL_SETS = {&ProblemObject::sets, &ProblemObject::setmap, CONV_SET, is_sos_obj, del_sets, nullptr};

PyObject* delete_objects(PyObject* self, PyObject* args, PyObject* kw, const DelKind& kind) {
    static const char* kwlist[] = {"index", "first", "last", nullptr};
    PyObject* index = nullptr;
    int first = -1, last = -1;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "|Oii", const_cast<char**>(kwlist), &index, &first, &last)) return nullptr;
    ProblemObject* p = as_prob(self);
    if (index == Py_None) index = nullptr;
    if (index && (first >= 0 || last >= 0)) {
        PyErr_SetString(ModelError, "Parameters 'first' and 'last' cannot be specified if 'index' is also specified");
        return nullptr;
    }
    if ((first >= 0) != (last >= 0)) {
        PyErr_SetString(ModelError, "Parameters 'first' and 'last' must be both nonnegative when specified");
        return nullptr;
    }
    if (!index && first < 0) {
        PyErr_SetString(ModelError, "At least one parameter must be specified");
        return nullptr;
    }
    PyObject* list = p->*kind.list;
    IndexMap* map = p->*kind.map;
    const Py_ssize_t len = PyList_GET_SIZE(list);
    std::vector<int> idx;
    if (index) {
        if (is_index_integer(index) && index_integer_value(index) >= 0) {
            idx.push_back(static_cast<int>(index_integer_value(index)));
        } else if (kind.is_kind(index)) {
            int i;
            if (conv_index(index, p, &i, kind.conv) < 0) return nullptr;
            idx.push_back(i);
        } else {
            int64_t n = -1;
            void* arr = nullptr;
            if (conv_obj2arr(p, &n, index, &arr, kind.conv) < 0) return report_error(self, nullptr);
            idx.assign(static_cast<int*>(arr), static_cast<int*>(arr) + n);
            conv_free(arr, n, kind.conv);
        }
    } else {
        if (first >= len || last >= len) {
            PyErr_SetString(ModelError, "Parameters 'first' or 'last' are out of range");
            return nullptr;
        }
        if (first > last) {
            PyErr_SetString(ModelError, "Parameter 'first' must be less than, or equal to, 'last'");
            return nullptr;
        }
        for (int i = first; i <= last; ++i) idx.push_back(i);
    }
    std::sort(idx.begin(), idx.end());
    idx.erase(std::unique(idx.begin(), idx.end()), idx.end());
    if (!idx.empty() && (idx.front() < 0 || idx.back() >= len)) {
        PyErr_SetString(ModelError, "Index out of bounds");
        return nullptr;
    }
    if (idx.empty()) Py_RETURN_NONE;
    if (kind.del(p->prob, static_cast<int>(idx.size()), idx.data()) != 0) return problem_error(p);
    if (remove_positions(list, map, idx) < 0) {
        if (!PyErr_Occurred()) PyErr_SetString(ModelError, "Cannot delete item from problem");
        return nullptr;
    }
    if (kind.del_nonlinear && p->slp && nonlinear_running() &&
        kind.del_nonlinear(p->slp, static_cast<int>(idx.size()), idx.data()) != 0) {
        slp_error(p);
        return nullptr;
    }
    Py_RETURN_NONE;
}

}  // namespace

int remove_positions(PyObject* list, IndexMap* map, const std::vector<int>& sorted) {
    const Py_ssize_t len = PyList_GET_SIZE(list);
    for (int i : sorted) map->erase(object_key(PyList_GET_ITEM(list, i)));
    // Deleting from the end (often the objects just added) moves and renumbers nothing.
    if (!sorted.empty() && sorted.front() == static_cast<int>(len - static_cast<Py_ssize_t>(sorted.size())))
        return PyList_SetSlice(list, sorted.front(), len, nullptr);
    // Survivors move down over the gaps in one pass; the tail is cut.
    Py_ssize_t out = 0;
    size_t k = 0;
    for (Py_ssize_t i = 0; i < len; ++i) {
        if (k < sorted.size() && sorted[k] == i) {
            ++k;
            continue;
        }
        if (out != i) {
            PyObject* o = PyList_GET_ITEM(list, i);
            Py_INCREF(o);
            PyList_SetItem(list, out, o);
        }
        ++out;
    }
    if (PyList_SetSlice(list, out, len, nullptr) < 0) return -1;
    for (auto& kv : *map) {
        int below = static_cast<int>(std::lower_bound(sorted.begin(), sorted.end(), kv.second) - sorted.begin());
        kv.second -= below;
    }
    return 0;
}

int append_new_objects(PyObject* list, IndexMap* map, PyObject* made, int first_index, const char* message) {
    const Py_ssize_t n = PyList_GET_SIZE(made);
    const size_t before = map->size();
    try {
        map->reserve(before + static_cast<size_t>(n));
        for (Py_ssize_t i = 0; i < n; ++i)
            map->insert_absent(object_key(PyList_GET_ITEM(made, i)), first_index + static_cast<int>(i));
    } catch (const std::bad_alloc&) {
        for (Py_ssize_t i = 0; i < n && map->size() > before; ++i) map->erase(object_key(PyList_GET_ITEM(made, i)));
        PyErr_SetString(ModelError, message);
        return -1;
    }
    const Py_ssize_t len = PyList_GET_SIZE(list);
    if (PyList_SetSlice(list, len, len, made) < 0) {
        for (Py_ssize_t i = 0; i < n; ++i) map->erase(object_key(PyList_GET_ITEM(made, i)));
        return -1;
    }
    return 0;
}

PyObject* problem_addVariable(PyObject* self, PyObject* args) {
    if (!args) {
        PyErr_SetString(ModelError, BAD_NESTING);
        return nullptr;
    }
    ProblemObject* p = as_prob(self);
    return report_error(self, with_formulas_detached(p, false, [&] { return add_variables(p, args); }));
}

PyObject* problem_addConstraint(PyObject* self, PyObject* args) {
    if (!args) {
        PyErr_SetString(ModelError, BAD_NESTING);
        return nullptr;
    }
    ProblemObject* p = as_prob(self);
    return report_error(self, with_formulas_detached(p, false, [&] { return add_constraints(p, args); }));
}

PyObject* problem_addSOS(PyObject* self, PyObject* args) {
    if (!args) {
        PyErr_SetString(ModelError, BAD_NESTING);
        return nullptr;
    }
    ProblemObject* p = as_prob(self);
    int rc = walk_leaves(args, WALK_DEPTH, [p](PyObject* s) { return add_one_sos(p, s); });
    if (rc < 0) return report_error(self, nullptr);
    Py_RETURN_NONE;
}

static PyObject* add_indicators(PyObject* self, PyObject* args);

PyObject* problem_addIndicator(PyObject* self, PyObject* args) {
    return with_formulas_detached(as_prob(self), false, [&] { return add_indicators(self, args); });
}

static PyObject* add_indicators(PyObject* self, PyObject* args) {
    ProblemObject* p = as_prob(self);
    Py_ssize_t n = PyTuple_GET_SIZE(args);
    if (n == 0) Py_RETURN_NONE;
    if (n == 2 && is_constraint(PyTuple_GET_ITEM(args, 0)) && is_constraint(PyTuple_GET_ITEM(args, 1))) {
        if (add_one_indicator(p, PyTuple_GET_ITEM(args, 0), PyTuple_GET_ITEM(args, 1)) < 0) return report_error(self, nullptr);
        Py_RETURN_NONE;
    }
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* t = PyTuple_GET_ITEM(args, i);
        if (!PyTuple_Check(t) || PyTuple_GET_SIZE(t) != 2) {
            PyErr_SetString(ModelError, INDICATOR_USAGE);
            return nullptr;
        }
        if (!is_constraint(PyTuple_GET_ITEM(t, 0)) || !is_constraint(PyTuple_GET_ITEM(t, 1))) {
            PyErr_SetString(ModelError, "Invalid declaration of indicator constraints.");
            return nullptr;
        }
    }
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* t = PyTuple_GET_ITEM(args, i);
        if (add_one_indicator(p, PyTuple_GET_ITEM(t, 0), PyTuple_GET_ITEM(t, 1)) < 0) return report_error(self, nullptr);
    }
    Py_RETURN_NONE;
}

PyObject* problem_delVariable(PyObject* self, PyObject* args, PyObject* kw) {
    return with_formulas_detached(as_prob(self), true, [&] { return delete_objects(self, args, kw, DEL_VARS); });
}
PyObject* problem_delConstraint(PyObject* self, PyObject* args, PyObject* kw) {
    return with_formulas_detached(as_prob(self), true, [&] { return delete_objects(self, args, kw, DEL_CONS); });
}
PyObject* problem_delSOS(PyObject* self, PyObject* args, PyObject* kw) { return delete_objects(self, args, kw, DEL_SETS); }

}  // namespace tarvo
