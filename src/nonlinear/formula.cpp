// Formula conversion: a constraint body or an objective with nonlinear nodes is split into a
// constant, linear and quadratic parts (loaded into the optimisation library) and nonlinear
// coefficients whose formulas are written as postfix token arrays for the nonlinear library.
// User functions met in a formula are registered with the library once per problem; the
// library calls them back through user_function_entry.
#include "nonlinear/formula.h"
#include "model/model.h"
#include "nonlinear/internal.h"
#include "library_interface/tslp.h"
#include "problem/problem.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>

namespace tarvo {

PyObject* slp_error(ProblemObject* p) {
    if (PyErr_Occurred()) return nullptr;
    char buf[512];
    buf[0] = '\0';
    int code = 0;
    if (p->slp && TSLPgetlasterror(p->slp, &code, buf) == 0 && buf[0] != '\0') {
        buf[sizeof buf - 1] = '\0';
        PyErr_SetString(SolverError, buf);
        return nullptr;
    }
    return problem_error(p);
}

namespace {

constexpr int TOK_EOF = 0, TOK_CON = 1, TOK_COL = 10, TOK_UFUN = 11, TOK_IFUN = 12, TOK_LB = 22, TOK_OP = 31;
constexpr int OP_UMINUS = 1, OP_POWER = 2, OP_MULTIPLY = 3, OP_DIVIDE = 4, OP_PLUS = 5, OP_MINUS = 6;

// Library number of the function token of each function node (0: not a function token).
int function_number(int op) {
    switch (op) {
        case NL_EXP: return 16;
        case NL_LOG: return 15;
        case NL_LOG10: return 14;
        case NL_SIN: return 27;
        case NL_COS: return 28;
        case NL_TAN: return 29;
        case NL_ASIN: return 30;
        case NL_ACOS: return 31;
        case NL_ATAN: return 32;
        case NL_MAX: return 34;
        case NL_MIN: return 33;
        case NL_ABS: return 17;
        case NL_SIGN: return 46;
        case NL_ERF: return 49;
        case NL_ERFC: return 50;
        case NL_SQRT: return 18;
        case NL_AND: return 33;  // the minimum of 0/1 values
        case NL_OR: return 34;   // the maximum of 0/1 values
        case NL_PWL: return 35;
        default: return 0;
    }
}

int fail(const char* msg) {
    PyErr_SetString(ModelError, msg);
    return -1;
}

const char* const DEPTH_MSG =
    "The expression tree depth reached the maximum limit, please reformulate or simplify the expression";
const char* const NL_VAR_MSG = "Variable in nonlinear expression has not been added to problem yet";

int column_of(ProblemObject* p, PyObject* v, const char* msg, int* col) {
    auto it = p->colmap->find(var_serial(v));
    if (it == p->colmap->end()) return fail(msg);
    *col = it->second;
    return 0;
}

// ---------------------------------------------------------------- user functions

double user_function_call(const double* input, const double* delta, double* results, TSLPfuncobject fobj, bool deriv);
double user_function_entry(const double* input, const double* delta, double* results, TSLPfuncobject fobj) {
    return user_function_call(input, delta, results, fobj, false);
}
double user_function_deriv_entry(const double* input, const double* delta, double* results, TSLPfuncobject fobj) {
    return user_function_call(input, delta, results, fobj, true);
}

// Registered index of the callable of a user node, registering it on first use.
int register_user_function(ProblemObject* p, PyObject* args, bool deriv, int* index) {
    const char* const bad = "Invalid user function, must specify at least one argument (the user function itself)";
    if (!is_seq_args(args) || PySequence_Fast_GET_SIZE(args) < 1 || !PyCallable_Check(PySequence_Fast_GET_ITEM(args, 0)))
        return fail(bad);
    PyObject* fn = PySequence_Fast_GET_ITEM(args, 0);
    if (!p->userfuncs) {
        p->userfuncs = PyDict_New();
        if (!p->userfuncs) return -1;
    }
    PyObject* known = PyDict_GetItemWithError(p->userfuncs, fn);
    if (known) {
        *index = static_cast<int>(PyLong_AsLong(known));
        return 0;
    }
    if (PyErr_Occurred()) return -1;
    if (!p->slp) {
        PyErr_SetString(SolverError, "The nonlinear library is not available for this problem");
        return -1;
    }
    std::string name = "user_function";
    PyRef pyname(PyObject_GetAttrString(fn, "__name__"));
    if (pyname && PyUnicode_Check(pyname.get())) {
        const char* s = PyUnicode_AsUTF8(pyname.get());
        if (!s) return -1;
        name = s;
    }
    PyErr_Clear();
    int idx = static_cast<int>(PyDict_Size(p->userfuncs)) + 1;
    int sname = 0, sconv = 0;
    if (TSLPsetstring(p->slp, &sname, name.c_str()) != 0 || TSLPsetstring(p->slp, &sconv, "DirectC") != 0) {
        slp_error(p);
        return -1;
    }
    const int types[5] = {TSLP_TOK_STRING, TSLP_TOK_UFEXETYPE, TSLP_TOK_UFARGTYPE, TSLP_TOK_STRING, TSLP_TOK_EOF};
    const double values[5] = {double(sname), 1.0, deriv ? 110611.0 : 19.0, double(sconv), 0.0};
    PyRef key(PyLong_FromLong(idx));
    PyRef pair(key ? PyTuple_Pack(2, fn, key.get()) : nullptr);
    if (!pair) return -1;
    TSLPuserfunc entry = deriv ? user_function_deriv_entry : user_function_entry;
    if (TSLPadduserfuncs(p->slp, 1, types, values) != 0 ||
        TSLPaddnames(p->slp, 5, name.c_str(), idx, idx) != 0 ||
        TSLPchguserfuncaddress(p->slp, idx, reinterpret_cast<void*>(entry)) != 0 ||
        TSLPsetuserfuncobject(p->slp, idx, pair.get()) != 0) {
        slp_error(p);
        return -1;
    }
    if (PyDict_SetItem(p->userfuncs, fn, key.get()) < 0) {
        TSLPsetuserfuncobject(p->slp, idx, nullptr);
        return -1;
    }
    pair.release();  // the library holds it now; released with the problem
    *index = idx;
    return 0;
}

double user_function_call(const double* input, const double* delta, double* results, TSLPfuncobject fobj, bool) {
    if (interpreter_finalizing()) return -1.0;  // the function cannot run any more: a failed evaluation
    bool own_thread = PyGILState_Check() != 0;
    PyGILState_STATE gil = PyGILState_Ensure();
    double ret = -1.0;
    void* slp = nullptr;
    void* stored = nullptr;
    void* underlying = nullptr;  // the optimisation problem under the nonlinear one: the key of kept exceptions
    int ninput = 0, flags = 0, index = 0;
    bool have_slp = TSLPgetfuncobject(fobj, TSLP_GLOBALFUNCOBJECT, &slp) == 0 && slp;
    if (have_slp) TSLPgetptrattrib(static_cast<TSLPprob>(slp), 12601, &underlying);
    // After a user function raised in this solve, no more Python runs: the solve is stopping.
    if (!own_thread && underlying && callback_exception_pending(underlying)) {
        PyGILState_Release(gil);
        return -1.0;
    }
    if (have_slp && TSLPgetfuncinfo(fobj, &ninput, &flags, &index) == 0 &&
        TSLPgetuserfuncobject(static_cast<TSLPprob>(slp), index, &stored) == 0 && stored &&
        PyTuple_Check(static_cast<PyObject*>(stored))) {
        PyObject* fn = PyTuple_GET_ITEM(static_cast<PyObject*>(stored), 0);
        CallbackRef inputs(PyTuple_New(ninput));
        bool ok = static_cast<bool>(inputs);
        for (int i = 0; ok && i < ninput; ++i) {
            PyObject* f = PyFloat_FromDouble(input[i]);
            if (!f) ok = false;
            else PyTuple_SET_ITEM(inputs.get(), i, f);
        }
        PyRef result(ok ? PyObject_Call(fn, inputs.get(), nullptr) : nullptr);
        if (result) {
            bool is_tuple = PyTuple_Check(result.get());
            Py_ssize_t n = is_tuple ? PyTuple_GET_SIZE(result.get()) : 1;
            double value = n > 0 ? PyFloat_AsDouble(is_tuple ? PyTuple_GET_ITEM(result.get(), 0) : result.get()) : -1.0;
            ok = n > 0 && !(value == -1.0 && PyErr_Occurred());
            std::vector<double> derivs;
            if (ok && is_tuple && (flags & 0x2)) {
                derivs.assign(ninput, NAN);
                for (int i = 0; ok && i < ninput && i + 1 < n; ++i) {
                    if (!delta || delta[i] == 0) continue;
                    derivs[i] = PyFloat_AsDouble(PyTuple_GET_ITEM(result.get(), i + 1));
                    if (derivs[i] == -1.0 && PyErr_Occurred()) ok = false;
                }
            }
            if (ok) {
                if (flags & 0x1) results[0] = value;
                for (size_t i = 0; i < derivs.size(); ++i)
                    if (delta && delta[i] != 0) results[i + 1] = derivs[i];
                ret = is_tuple ? 0.0 : value;
            }
        }
    }
    if (PyErr_Occurred()) {
        // As for callbacks: on the solve's worker thread the first exception is kept and raised,
        // unchanged, by the solve, which is stopped; called from a thread already holding the
        // interpreter lock (outside a solve) nothing would raise it, so it is reported as
        // unraisable. The library sees the failure through the return value either way.
        if (!own_thread && underlying) {
            callback_exception_keep(underlying);
            TSLPinterrupt(static_cast<TSLPprob>(slp), 9);
        } else {
            PyObject* where = static_cast<PyObject*>(stored);
            PyErr_WriteUnraisable(where && PyTuple_Check(where) ? PyTuple_GET_ITEM(where, 0) : Py_None);
        }
    }
    PyGILState_Release(gil);
    return ret;
}

// ---------------------------------------------------------------- emission

struct Coef {
    int col = -1;
    double factor = 1.0;
};

struct Emitter {
    ProblemObject* p;
    std::vector<int>& types;
    std::vector<double>& values;

    void tok(int t, double v) {
        types.push_back(t);
        values.push_back(v);
    }

    // Operators joining the k-th of n arguments (balanced pairwise reduction): after argument
    // k (1-based), as many as k has trailing zero bits while k < n; after the last, the rest.
    void join(int k, int n, int op, int* written) {
        int w = 0;
        if (k < n) {
            for (int kk = k; (kk & 1) == 0; kk >>= 1) ++w;
        } else {
            w = (n - 1) - *written;
        }
        for (int i = 0; i < w; ++i) tok(TOK_OP, op);
        *written += w;
    }

    // c times x (times y): c first unless +-1, then the variables, then the combining tokens.
    int term(double c, PyObject* x, PyObject* y) {
        int cx, cy = 0;
        if (column_of(p, x, NL_VAR_MSG, &cx) < 0 || (y && column_of(p, y, NL_VAR_MSG, &cy) < 0)) return -1;
        bool plain = c == 1.0 || c == -1.0;
        if (!plain) tok(TOK_CON, c);
        tok(TOK_COL, cx);
        if (y) {
            tok(TOK_COL, cy);
            tok(TOK_OP, OP_MULTIPLY);
        }
        if (c == -1.0) tok(TOK_OP, OP_UMINUS);
        else if (!plain) tok(TOK_OP, OP_MULTIPLY);
        return 0;
    }

    int expression(ExpressionObject* e) {
        int n = (e->constant != 0 ? 1 : 0) + static_cast<int>(e->linear ? e->linear->size() : 0) +
                static_cast<int>(e->quadratic ? quad_count(*e->quadratic) : 0);
        if (n == 0) {
            tok(TOK_CON, 0.0);
            return 0;
        }
        int k = 0, written = 0;
        if (e->constant != 0) {
            tok(TOK_CON, e->constant);
            join(++k, n, OP_PLUS, &written);
        }
        if (e->linear)
            for (const auto& kv : *e->linear) {
                if (term(kv.second, kv.first, nullptr) < 0) return -1;
                join(++k, n, OP_PLUS, &written);
            }
        if (e->quadratic)
            for (const auto& row : *e->quadratic)
                for (const auto& kv : row.second) {
                    if (term(kv.second, row.first, kv.first) < 0) return -1;
                    join(++k, n, OP_PLUS, &written);
                }
        return 0;
    }

    int emit(PyObject* o, int depth) {
        if (depth < 1) return fail(DEPTH_MSG);
        if (is_number(o)) {
            tok(TOK_CON, number_value(o));
            return 0;
        }
        if (is_var(o)) {
            int c;
            if (column_of(p, o, "Variable in nonlinear term not added to problem yet", &c) < 0) return -1;
            tok(TOK_COL, c);
            return 0;
        }
        if (is_linterm(o)) {
            LinTermObject* t = reinterpret_cast<LinTermObject*>(o);
            return term(t->coef, t->var, nullptr);
        }
        if (is_quadterm(o)) {
            QuadTermObject* t = reinterpret_cast<QuadTermObject*>(o);
            return term(t->coef, t->var1, t->var2);
        }
        if (is_expression(o)) return expression(as_expr(o));
        if (is_nonlinear(o)) return node(o, depth, nullptr);
        return fail("Incorrect argument of nonlinear function");
    }

    // A node; with coef (coefficient mode at the top of a coefficient) a product gives up
    // its numeric factors and its first variable to the coefficient.
    int node(PyObject* o, int depth, Coef* coef) {
        if (depth < 1) return fail(DEPTH_MSG);
        NonlinearObject* nd = as_nl(o);
        int op = nd->op;
        if (op < 0 || op >= NL_OP_COUNT) return fail("Unrecognized member of a nonlinear expression");
        PyObject* a = nd->args;
        if (!a) return fail("Unrecognized member of a nonlinear expression");
        std::vector<PyObject*> args;
        int arity = nl_ops[op].arity;
        if (arity < 0) {
            if (!is_seq_args(a)) return fail("N-ary operator should have list or tuple of arguments");
            Py_ssize_t n = PySequence_Fast_GET_SIZE(a);
            for (Py_ssize_t i = 0; i < n; ++i) args.push_back(PySequence_Fast_GET_ITEM(a, i));
        } else if (arity == 2) {
            if (!PyTuple_Check(a) || PyTuple_GET_SIZE(a) != 2) return fail("Binary operator should have tuple for arguments");
            args = {PyTuple_GET_ITEM(a, 0), PyTuple_GET_ITEM(a, 1)};
        } else {
            args = {a};
        }
        if (coef && op == NL_PROD) {
            std::vector<PyObject*> rest;
            for (PyObject* e : args) {
                if (is_number(e)) {
                    coef->factor *= number_value(e);
                } else if (coef->col < 0 && is_var(e) && p->colmap->count(var_serial(e))) {
                    coef->col = p->colmap->at(var_serial(e));
                } else if (coef->col < 0 && is_linterm(e) &&
                           p->colmap->count(var_serial(reinterpret_cast<LinTermObject*>(e)->var))) {
                    // c*x inside a product is the number c times the variable x.
                    LinTermObject* t = reinterpret_cast<LinTermObject*>(e);
                    coef->factor *= t->coef;
                    coef->col = p->colmap->at(var_serial(t->var));
                } else {
                    rest.push_back(e);
                }
            }
            args.swap(rest);
        }
        bool function = !(op == NL_SUM || op == NL_PROD || op == NL_MINUS || op == NL_DIV || op == NL_POW || op == NL_UMINUS);
        if (function) tok(TOK_LB, 0);
        if (op == NL_USER || op == NL_USER_DERIV) {
            int idx = 0;
            if (args.empty())
                return fail("Invalid user function, must specify at least one argument (the user function itself)");
            if (!PyCallable_Check(args[0])) return fail("First argument of a user() operator must be the function itself");
            if (register_user_function(p, a, op == NL_USER_DERIV, &idx) < 0) return -1;
            for (size_t i = args.size(); i-- > 1;)
                if (emit(args[i], depth - 1) < 0) return -1;
            tok(TOK_UFUN, idx);
            return 0;
        }
        if (op == NL_PWL) {
            for (size_t i = args.size(); i-- > 0;)
                if (emit(args[i], depth - 1) < 0) return -1;
            tok(TOK_IFUN, function_number(op));
            return 0;
        }
        if (op == NL_SUM || op == NL_PROD) {
            int n = static_cast<int>(args.size()), written = 0;
            if (n == 0) {
                tok(TOK_CON, op == NL_SUM ? 0.0 : 1.0);
                return 0;
            }
            for (int k = 1; k <= n; ++k) {
                if (emit(args[k - 1], depth - 1) < 0) return -1;
                join(k, n, op == NL_SUM ? OP_PLUS : OP_MULTIPLY, &written);
            }
            return 0;
        }
        for (PyObject* e : args)
            if (emit(e, depth - 1) < 0) return -1;
        switch (op) {
            case NL_MINUS: tok(TOK_OP, OP_MINUS); break;
            case NL_UMINUS: tok(TOK_OP, OP_UMINUS); break;
            case NL_DIV: tok(TOK_OP, OP_DIVIDE); break;
            case NL_POW: tok(TOK_OP, OP_POWER); break;
            default: tok(TOK_IFUN, function_number(op)); break;
        }
        return 0;
    }
};

// The library's column for coefficients that multiply no variable (cached per problem).
int constant_column(ProblemObject* p, int* col) {
    if (p->const_col == -1 && p->slp) {
        int c = -1;
        if (TSLPgetintattrib(p->slp, TSLP_EQUALSCOLUMN, &c) != 0) {
            slp_error(p);
            return -1;
        }
        p->const_col = c;
    }
    *col = p->const_col;
    return 0;
}

// One nonlinear coefficient from a node, with its factor multiplied by sign.
int add_coefficient(ProblemObject* p, PyObject* node, double sign, int row, NlItems& items) {
    Coef coef;
    Emitter em{p, items.types, items.values};
    if (em.node(node, NL_MAX_DEPTH, &coef) < 0) return -1;
    if (coef.col < 0 && constant_column(p, &coef.col) < 0) return -1;
    em.tok(TOK_EOF, 0);
    items.rows.push_back(row);
    items.cols.push_back(coef.col);
    items.factors.push_back(sign * coef.factor);
    items.starts.push_back(static_cast<int>(items.types.size()));
    return 0;
}

// Checks that every variable of a polynomial object is in the problem.
int check_poly_vars(ProblemObject* p, PyObject* o) {
    const char* lin_msg = "Variable in linear part of constraint has not been added to problem yet";
    const char* quad_msg = "Variable in quadratic part of constraint has not been added to problem yet";
    auto has = [p](PyObject* v) { return p->colmap->count(var_serial(v)) > 0; };
    if (is_var(o)) return has(o) ? 0 : fail(lin_msg);
    if (is_linterm(o)) return has(reinterpret_cast<LinTermObject*>(o)->var) ? 0 : fail(lin_msg);
    if (is_quadterm(o)) {
        QuadTermObject* t = reinterpret_cast<QuadTermObject*>(o);
        return has(t->var1) && has(t->var2) ? 0 : fail(quad_msg);
    }
    if (is_expression(o)) {
        ExpressionObject* e = as_expr(o);
        if (e->linear)
            for (const auto& kv : *e->linear)
                if (!has(kv.first)) return fail(lin_msg);
        if (e->quadratic)
            for (const auto& row : *e->quadratic)
                for (const auto& kv : row.second)
                    if (!has(row.first) || !has(kv.first)) return fail(quad_msg);
    }
    return 0;
}

// Adds f times a polynomial object (number, var, term, expression) to the parts.
int add_poly(ProblemObject* p, PyObject* o, double f, bool objective_mode, PolyParts& out) {
    if (f == 0) return 0;
    if (check_poly_vars(p, o) < 0) return -1;
    PolyParts tmp;
    if (polynomial_parts(p, o, objective_mode, tmp) < 0) return -1;
    out.constant += f * tmp.constant;
    for (const auto& e : tmp.lin) out.lin.emplace_back(e.first, f * e.second);
    for (const auto& q : tmp.quad) out.quad.emplace_back(std::get<0>(q), std::get<1>(q), f * std::get<2>(q));
    return 0;
}

// One element of a sum (or the first of a difference): a node becomes a coefficient, any
// other operand goes to the polynomial parts.
int split_element(ProblemObject* p, PyObject* e, double sign, bool objective_mode, int row, PolyParts& parts,
                  NlItems& items, const char* invalid) {
    if (is_nonlinear(e)) return add_coefficient(p, e, sign, row, items);
    int kind = operand_kind_quiet(e);
    if (kind < 0) return fail(invalid);
    return add_poly(p, e, sign, objective_mode, parts);
}

// Merges repeated columns (and column pairs) of the parts, dropping zero coefficients.
void merge_parts(PolyParts& parts) {
    std::map<int, double> lin;
    for (const auto& e : parts.lin) lin[e.first] += e.second;
    parts.lin.clear();
    for (const auto& kv : lin)
        if (kv.second != 0) parts.lin.emplace_back(kv.first, kv.second);
    std::map<std::pair<int, int>, double> quad;
    for (const auto& q : parts.quad) quad[{std::get<0>(q), std::get<1>(q)}] += std::get<2>(q);
    parts.quad.clear();
    for (const auto& kv : quad)
        if (kv.second != 0) parts.quad.emplace_back(kv.first.first, kv.first.second, kv.second);
}

}  // namespace

int formula_split(ProblemObject* p, PyObject* obj, bool objective_mode, int row, PolyParts& parts, NlItems& items) {
    parts.constant = 0;
    parts.lin.clear();
    parts.quad.clear();
    if (!obj) return fail("Cannot convert expression");
    if (!is_nonlinear(obj)) {
        if (operand_kind_quiet(obj) < 0) return fail("Invalid expression");
        return add_poly(p, obj, 1.0, objective_mode, parts);
    }
    NonlinearObject* nd = as_nl(obj);
    int rc;
    if (nd->op == NL_SUM) {
        if (!is_seq_args(nd->args)) return fail("N-ary operator should have list or tuple of arguments");
        PyRef hold(nd->args);
        Py_INCREF(nd->args);
        Py_ssize_t n = PySequence_Fast_GET_SIZE(nd->args);
        rc = 0;
        for (Py_ssize_t i = 0; rc == 0 && i < n; ++i)
            rc = split_element(p, PySequence_Fast_GET_ITEM(nd->args, i), 1.0, objective_mode, row, parts, items,
                               "Invalid expression in nonlinear sum");
    } else if (nd->op == NL_MINUS) {
        if (!PyTuple_Check(nd->args) || PyTuple_GET_SIZE(nd->args) != 2)
            return fail("Binary operator should have tuple for arguments");
        PyObject* a = PyTuple_GET_ITEM(nd->args, 0);
        PyObject* b = PyTuple_GET_ITEM(nd->args, 1);
        if (operand_kind_quiet(a) < 0 || operand_kind_quiet(b) < 0) return fail("Invalid expression");
        rc = split_element(p, a, 1.0, objective_mode, row, parts, items, "Invalid expression");
        if (rc == 0) rc = split_element(p, b, -1.0, objective_mode, row, parts, items, "Invalid expression");
    } else {
        rc = add_coefficient(p, obj, 1.0, row, items);
    }
    if (rc < 0) return -1;
    merge_parts(parts);
    return 0;
}

int formula_load(ProblemObject* p, const NlItems& items) {
    if (items.count() == 0) return 0;
    if (!p->slp) {
        PyErr_SetString(SolverError, "The nonlinear library is not available for this problem");
        return -1;
    }
    if (TSLPaddcoefs(p->slp, items.count(), items.rows.data(), items.cols.data(), items.factors.data(),
                     items.starts.data(), 1, items.types.data(), items.values.data()) != 0) {
        slp_error(p);
        return -1;
    }
    return 0;
}

// ---------------------------------------------------------------- nonlinear objective

int nl_objective_prepare(ProblemObject* p) {
    if (!p->slp || !nonlinear_running() || !problem_is_nonlinear(p)) return 0;
    int st = 0;
    if (TSLPgetintattrib(p->slp, TSLP_STATUS, &st) != 0) return slp_error(p), -1;
    if ((st & TSLP_STATE_CONSTRUCTED) && TSLPunconstruct(p->slp) != 0) return slp_error(p), -1;
    if ((st & TSLP_STATE_PRESOLVED) && TSLPpostsolve(p->slp) != 0) return slp_error(p), -1;
    return 0;
}

int nl_objective_remove(ProblemObject* p) {
    if (!p->nl_objective) return 0;
    int row = p->obj_row, col = p->obj_col;
    if (p->slp && nonlinear_running()) {
        int n = 0;
        if (TSLPgetcoefs(p->slp, &n, nullptr, nullptr) != 0) return slp_error(p), -1;
        if (n > 0) {
            std::vector<int> r(n), c(n);
            if (TSLPgetcoefs(p->slp, &n, r.data(), c.data()) != 0) return slp_error(p), -1;
            for (int k = 0; k < n; ++k)
                if (r[k] == row && TSLPdelcoefs(p->slp, 1, &r[k], &c[k]) != 0) return slp_error(p), -1;
        }
        int st = 0;
        if (TSLPgetrowstatus(p->slp, row, &st) != 0) return slp_error(p), -1;
        st &= ~TSLP_ROWSTATUS_TRANSFER;
        if (TSLPchgrowstatus(p->slp, row, &st) != 0) return slp_error(p), -1;
    }
    if (TRVOdelcols(p->prob, 1, &col) != 0 || TRVOdelrows(p->prob, 1, &row) != 0) return problem_error(p), -1;
    if (p->slp && nonlinear_running() && (TSLPdelcols(p->slp, 1, &col) != 0 || TSLPdelrows(p->slp, 1, &row) != 0))
        return slp_error(p), -1;
    p->obj_row = p->obj_col = -1;
    p->nl_objective = 0;
    return 0;
}

int nl_objective_install(ProblemObject* p, NlItems& items) {
    if (items.count() == 0) return 0;
    if (!p->slp || !nonlinear_running()) {
        PyErr_SetString(SolverError, "The nonlinear library is not available for this problem");
        return -1;
    }
    int row = 0, col = 0;
    if (prob_rows(p, &row) < 0 || prob_cols(p, &col) < 0) return -1;
    const char type = 'E';
    const double zero = 0, one = 1, minus_one = -1, lo = -1e20, hi = 1e20;
    const int64_t rstart[2] = {0, 0};
    if (TRVOaddrows64(p->prob, 1, 0, &type, &zero, nullptr, rstart, nullptr, nullptr) != 0) return problem_error(p), -1;
    p->nl_objective = 1;
    p->obj_row = row;
    const int64_t cstart[2] = {0, 1};
    if (TRVOaddcols64(p->prob, 1, 1, &one, cstart, &row, &minus_one, &lo, &hi) != 0) {
        TRVOdelrows(p->prob, 1, &row);
        p->nl_objective = 0;
        p->obj_row = -1;
        return problem_error(p), -1;
    }
    p->obj_col = col;
    if (TRVOaddnames(p->prob, 1, "objtransferrow", row, row) != 0 ||
        TRVOaddnames(p->prob, 2, "objtransfercol", col, col) != 0)
        return problem_error(p), -1;
    int st = 0;
    if (TSLPchgvar(p->slp, col, &row, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                   nullptr) != 0 ||
        TSLPgetrowstatus(p->slp, row, &st) != 0)
        return slp_error(p), -1;
    st |= TSLP_ROWSTATUS_TRANSFER;
    if (TSLPchgrowstatus(p->slp, row, &st) != 0) return slp_error(p), -1;
    std::fill(items.rows.begin(), items.rows.end(), row);
    return formula_load(p, items);
}

namespace {

// Reads the nonlinear coefficients (all, or only those of the objective's transfer row) with
// the variables and constraints their columns and rows stand for.
int read_coefficients(ProblemObject* p, bool objective_only, DetachedFormulas& saved) {
    int n = 0;
    if (TSLPgetcoefs(p->slp, &n, nullptr, nullptr) != 0) return slp_error(p), -1;
    std::vector<int> r(n > 0 ? n : 1), c(n > 0 ? n : 1);
    if (n > 0 && TSLPgetcoefs(p->slp, &n, r.data(), c.data()) != 0) return slp_error(p), -1;
    NlItems& it = saved.items;
    Py_ssize_t ncols = PyList_GET_SIZE(p->vars), nrows = PyList_GET_SIZE(p->cons);
    auto var_key = [&](int col) -> uint64_t {
        return col >= 0 && col < ncols ? var_serial(PyList_GET_ITEM(p->vars, col)) : 0;
    };
    for (int k = 0; k < n; ++k) {
        bool objective = p->nl_objective && r[k] == p->obj_row;
        if (objective_only && !objective) continue;
        double factor = 0;
        int ntok = 0;
        if (TSLPgetcoefformula(p->slp, r[k], c[k], &factor, 1, 0, &ntok, nullptr, nullptr) != 0)
            return slp_error(p), -1;
        size_t at = it.types.size();
        it.types.resize(at + ntok);
        it.values.resize(at + ntok);
        if (TSLPgetcoefformula(p->slp, r[k], c[k], &factor, 1, ntok, &ntok, &it.types[at], &it.values[at]) != 0)
            return slp_error(p), -1;
        it.rows.push_back(r[k]);
        it.cols.push_back(c[k]);
        it.factors.push_back(factor);
        it.starts.push_back(static_cast<int>(it.types.size()));
        saved.objective.push_back(objective);
        saved.row_keys.push_back(!objective && r[k] >= 0 && r[k] < nrows ? con_serial(PyList_GET_ITEM(p->cons, r[k])) : 0);
        saved.col_keys.push_back(var_key(c[k]));
    }
    for (size_t t = 0; t < it.types.size(); ++t)
        saved.token_keys.push_back(it.types[t] == TOK_COL ? var_key(static_cast<int>(it.values[t])) : 0);
    return 0;
}

}  // namespace

int formulas_detach(ProblemObject* p, bool all, DetachedFormulas& saved) {
    saved = DetachedFormulas();
    if (!p->slp || !nonlinear_running() || (!p->nl_objective && (!all || !problem_is_nonlinear(p)))) return 0;
    if (nl_objective_prepare(p) < 0 || read_coefficients(p, !all, saved) < 0) return -1;
    saved.all = all;
    if (nl_objective_remove(p) < 0) return -1;
    // What is left are the rows' own coefficients (when all were read).
    std::vector<int> r, c;
    for (int k = 0; k < saved.items.count(); ++k)
        if (!saved.objective[k]) {
            r.push_back(saved.items.rows[k]);
            c.push_back(saved.items.cols[k]);
        }
    if (!r.empty()) {
        if (TSLPdelcoefs(p->slp, static_cast<int>(r.size()), r.data(), c.data()) != 0) return slp_error(p), -1;
    }
    saved.active = true;
    return 0;
}

int formulas_reattach(ProblemObject* p, DetachedFormulas& saved) {
    if (!saved.active) return 0;
    saved.active = false;
    const NlItems& it = saved.items;
    auto column = [&](uint64_t key, int old, bool* gone) -> int {
        if (old < 0) return old;
        auto found = p->colmap->find(key);
        if (found == p->colmap->end()) {
            *gone = true;
            return old;
        }
        return found->second;
    };
    // A coefficient goes with its row, and with the variable that multiplies it. A deleted
    // variable inside a formula becomes the constant 0: deleting a column acts on formulas as
    // it does on linear and quadratic coefficients, as if the variable were fixed at zero.
    NlItems rows, objective;
    for (int k = 0; k < it.count(); ++k) {
        bool gone = false;
        int row = it.rows[k];  // a row without a constraint object keeps its index
        if (saved.row_keys[k] != 0) {
            auto found = p->rowmap->find(saved.row_keys[k]);
            if (found == p->rowmap->end()) continue;
            row = found->second;
        }
        int col = column(saved.col_keys[k], it.cols[k], &gone);
        NlItems& dst = saved.objective[k] ? objective : rows;
        size_t at = dst.types.size();
        for (int t = it.starts[k]; t < it.starts[k + 1]; ++t) {
            int type = it.types[t];
            double v = it.values[t];
            if (type == TOK_COL) {
                bool deleted = false;
                v = column(saved.token_keys[t], static_cast<int>(v), &deleted);
                if (deleted) type = TOK_CON, v = 0;
            }
            dst.types.push_back(type);
            dst.values.push_back(v);
        }
        if (gone) {
            dst.types.resize(at);
            dst.values.resize(at);
            continue;
        }
        dst.rows.push_back(row);
        dst.cols.push_back(col);
        dst.factors.push_back(it.factors[k]);
        dst.starts.push_back(static_cast<int>(dst.types.size()));
    }
    if (formula_load(p, rows) < 0) return -1;
    if (saved.all) {
        std::vector<int> distinct(rows.rows);
        std::sort(distinct.begin(), distinct.end());
        p->nl_rows = static_cast<int>(std::unique(distinct.begin(), distinct.end()) - distinct.begin());
    }
    return nl_objective_install(p, objective);
}

int formula_copy_userfuncs(ProblemObject* dst, ProblemObject* src) {
    nlp_copy_job_objects(dst, src);
    if (!src->userfuncs || !dst->slp) return 0;
    dst->userfuncs = PyDict_Copy(src->userfuncs);
    if (!dst->userfuncs) return -1;
    // The copied library problem points at the source's stored pairs: take a reference of
    // the copy's own so that each problem releases what it holds.
    Py_ssize_t n = PyDict_Size(dst->userfuncs);
    for (Py_ssize_t i = 1; i <= n; ++i) {
        void* obj = nullptr;
        if (TSLPgetuserfuncobject(dst->slp, static_cast<int>(i), &obj) == 0 && obj) Py_INCREF(static_cast<PyObject*>(obj));
    }
    return 0;
}

}  // namespace tarvo
