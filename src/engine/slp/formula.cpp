// Formula tapes: compilation from postfix tokens, forward evaluation and reverse-mode
// differentiation (all partial derivatives of a formula in one backward sweep).
#include "engine/slp/formula.h"

#include <algorithm>
#include <cmath>

namespace slp {

namespace {
const double kPi = 3.14159265358979323846;

bool unary_fun(int fun) { return fun != TSLP_FUN_MIN && fun != TSLP_FUN_MAX && fun != TSLP_FUN_PWL; }
}  // namespace

double fun_value(int fun, double x) {
    switch (fun) {
    case TSLP_FUN_LOG10: return std::log10(x);
    case TSLP_FUN_LN: return std::log(x);
    case TSLP_FUN_EXP: return std::exp(x);
    case TSLP_FUN_ABS: return std::fabs(x);
    case TSLP_FUN_SQRT: return std::sqrt(x);
    case TSLP_FUN_SIN: return std::sin(x);
    case TSLP_FUN_COS: return std::cos(x);
    case TSLP_FUN_TAN: return std::tan(x);
    case TSLP_FUN_ARCSIN: return std::asin(x);
    case TSLP_FUN_ARCCOS: return std::acos(x);
    case TSLP_FUN_ARCTAN: return std::atan(x);
    case TSLP_FUN_SIGN: return x > 0 ? 1.0 : x < 0 ? -1.0 : 0.0;
    case TSLP_FUN_ERF: return std::erf(x);
    case TSLP_FUN_ERFC: return std::erfc(x);
    }
    throw Error("Unknown internal function " + std::to_string(fun));
}

double fun_derivative(int fun, double x) {
    switch (fun) {
    case TSLP_FUN_LOG10: return 1.0 / (x * std::log(10.0));
    case TSLP_FUN_LN: return 1.0 / x;
    case TSLP_FUN_EXP: return std::exp(x);
    case TSLP_FUN_ABS: return x > 0 ? 1.0 : x < 0 ? -1.0 : 0.0;
    case TSLP_FUN_SQRT: return x > 0 ? 0.5 / std::sqrt(x) : HUGE_VAL;
    case TSLP_FUN_SIN: return std::cos(x);
    case TSLP_FUN_COS: return -std::sin(x);
    case TSLP_FUN_TAN: { double c = std::cos(x); return 1.0 / (c * c); }
    case TSLP_FUN_ARCSIN: return 1.0 / std::sqrt(1.0 - x * x);
    case TSLP_FUN_ARCCOS: return -1.0 / std::sqrt(1.0 - x * x);
    case TSLP_FUN_ARCTAN: return 1.0 / (1.0 + x * x);
    case TSLP_FUN_SIGN: return 0.0;
    case TSLP_FUN_ERF: return 2.0 / std::sqrt(kPi) * std::exp(-x * x);
    case TSLP_FUN_ERFC: return -2.0 / std::sqrt(kPi) * std::exp(-x * x);
    }
    throw Error("Unknown internal function " + std::to_string(fun));
}

namespace {
struct FunName { int fun; const char* name; };
const FunName fun_names[] = {
    {TSLP_FUN_LOG10, "LOG10"}, {TSLP_FUN_LN, "LN"}, {TSLP_FUN_EXP, "EXP"}, {TSLP_FUN_ABS, "ABS"},
    {TSLP_FUN_SQRT, "SQRT"}, {TSLP_FUN_SIN, "SIN"}, {TSLP_FUN_COS, "COS"}, {TSLP_FUN_TAN, "TAN"},
    {TSLP_FUN_ARCSIN, "ARCSIN"}, {TSLP_FUN_ARCCOS, "ARCCOS"}, {TSLP_FUN_ARCTAN, "ARCTAN"},
    {TSLP_FUN_MIN, "MIN"}, {TSLP_FUN_MAX, "MAX"}, {TSLP_FUN_PWL, "PWL"}, {TSLP_FUN_SIGN, "SIGN"},
    {TSLP_FUN_ERF, "ERF"}, {TSLP_FUN_ERFC, "ERFC"},
};
}  // namespace

const char* fun_name(int fun) {
    for (auto& f : fun_names)
        if (f.fun == fun) return f.name;
    return nullptr;
}

int fun_by_name(const std::string& u) {
    for (auto& f : fun_names)
        if (u == f.name) return f.fun;
    if (u == "LOG") return TSLP_FUN_LN;
    if (u == "ASIN") return TSLP_FUN_ARCSIN;
    if (u == "ACOS") return TSLP_FUN_ARCCOS;
    if (u == "ATAN") return TSLP_FUN_ARCTAN;
    return 0;
}

// ---- building

int Tape::constant(double v) {
    Node n;
    n.op = N_CON;
    n.c = v;
    nodes.push_back(n);
    return (int)nodes.size() - 1;
}

int Tape::column(int j) {
    if (j < 0) throw Error("Formula refers to column " + std::to_string(j));
    Node n;
    n.op = N_COL;
    n.c = j;
    nodes.push_back(n);
    return (int)nodes.size() - 1;
}

int Tape::unary(int op, int fun, int a) {
    Node n;
    n.op = op;
    n.fun = fun;
    n.a = a;
    nodes.push_back(n);
    return (int)nodes.size() - 1;
}

int Tape::binary(int op, int a, int b) {
    Node n;
    n.op = op;
    n.a = a;
    n.b = b;
    nodes.push_back(n);
    return (int)nodes.size() - 1;
}

int Tape::nary(int op, int fun, const std::vector<int>& operands) {
    Node n;
    n.op = op;
    n.fun = fun;
    n.first = (int)args.size();
    n.n = (int)operands.size();
    args.insert(args.end(), operands.begin(), operands.end());
    nodes.push_back(n);
    return (int)nodes.size() - 1;
}

int Tape::compile(const Tokens& t) {
    std::vector<int> st;
    std::vector<size_t> marks;
    auto pop = [&]() {
        if (st.empty()) throw Error("Formula has an operator without enough operands");
        int v = st.back();
        st.pop_back();
        return v;
    };
    auto take_marked = [&]() {
        if (marks.empty() || marks.back() > st.size())
            throw Error("Function without its argument list in formula");
        std::vector<int> ops(st.begin() + marks.back(), st.end());
        st.resize(marks.back());
        marks.pop_back();
        return ops;
    };
    size_t i = 0;
    for (; i < t.type.size(); ++i) {
        int type = t.type[i];
        double v = t.value[i];
        if (type == TSLP_TOK_EOF) break;
        switch (type) {
        case TSLP_TOK_CON: st.push_back(constant(v)); break;
        case TSLP_TOK_COL: st.push_back(column((int)v)); break;
        case TSLP_TOK_LB: marks.push_back(st.size()); break;
        case TSLP_TOK_OP: {
            int op = (int)v;
            if (op == TSLP_OP_UMINUS) {
                st.push_back(unary(N_NEG, 0, pop()));
                break;
            }
            int b = pop(), a = pop();
            int nop = op == TSLP_OP_PLUS ? N_ADD : op == TSLP_OP_MINUS ? N_SUB
                    : op == TSLP_OP_MULTIPLY ? N_MUL : op == TSLP_OP_DIVIDE ? N_DIV
                    : op == TSLP_OP_POWER ? N_POW : -1;
            if (nop < 0) throw Error("Unknown operator " + std::to_string(op) + " in formula");
            st.push_back(binary(nop, a, b));
            break;
        }
        case TSLP_TOK_IFUN: {
            int fun = (int)v;
            if (fun == TSLP_FUN_MIN || fun == TSLP_FUN_MAX) {
                std::vector<int> ops = take_marked();
                if (ops.empty()) throw Error(std::string(fun_name(fun)) + " needs at least one argument");
                st.push_back(nary(fun == TSLP_FUN_MIN ? N_MIN : N_MAX, fun, ops));
            } else if (fun == TSLP_FUN_PWL) {
                std::vector<int> ops = take_marked();
                if (ops.size() < 3 || ops.size() % 2 == 0)
                    throw Error("PWL needs a variable and at least one breakpoint (x, y)");
                st.push_back(nary(N_PWL, fun, ops));
            } else {
                if (!fun_name(fun) || !unary_fun(fun))
                    throw Error("Unknown internal function " + std::to_string(fun) + " in formula");
                if (!marks.empty() && marks.back() + 1 == st.size()) marks.pop_back();
                else if (!marks.empty() && marks.back() == st.size())
                    throw Error(std::string(fun_name(fun)) + " needs one argument");
                st.push_back(unary(N_FUN, fun, pop()));
            }
            break;
        }
        case TSLP_TOK_UFUN: {
            std::vector<int> ops = take_marked();
            st.push_back(nary(N_UFUN, (int)v, ops));
            break;
        }
        default:
            throw Error("Token type " + std::to_string(type) + " not allowed in a parsed formula");
        }
    }
    if (st.size() != 1 || !marks.empty()) throw Error("Formula is not well formed");
    return st.back();
}

void Tape::finish() {
    cols.clear();
    for (auto& n : nodes)
        if (n.op == N_COL) cols.push_back((int)n.c);
    std::sort(cols.begin(), cols.end());
    cols.erase(std::unique(cols.begin(), cols.end()), cols.end());
}

// ---- user functions

namespace {

// Calls user function `index` at the inputs; value and, when grads is non-null, the partial
// derivatives (by the function itself or by central differences).
bool call_user(const UserCaller& uc, int index, const std::vector<double>& in, double* value,
               double* grads) {
    TSLPprob prob = uc.prob;
    if (!prob || index < 1 || index > (int)prob->userfuncs.size())
        throw Error("Unknown user function " + std::to_string(index));
    const UserFunc& f = prob->userfuncs[index - 1];
    if (!f.address) throw Error("User function " + f.name + " has no address");
    int n = (int)in.size();
    std::unique_lock<std::mutex> lock(prob->userfunc_mutex, std::defer_lock);
    if (!int_control(prob, TSLP_THREADSAFEUSERFUNC)) lock.lock();
    tslp_funcobject_s fo;
    fo.prob = prob;
    fo.index = index;
    fo.ninput = n;
    std::vector<double> delta(n, 0.0), res(n + 1, 0.0);
    auto plain = [&](const std::vector<double>& at, double* out) {
        fo.flags = 0x1;
        std::fill(delta.begin(), delta.end(), 0.0);
        std::fill(res.begin(), res.end(), 0.0);
        res[0] = NAN;
        double r = f.address(at.empty() ? nullptr : at.data(), delta.data(), res.data(), &fo);
        if (r == -1.0 && std::isnan(res[0])) return false;
        *out = std::isnan(res[0]) ? r : res[0];
        return std::isfinite(*out);
    };
    if (grads && f.derivatives && !uc.numerical) {
        fo.flags = 0x3;
        std::fill(delta.begin(), delta.end(), 1.0);
        std::fill(res.begin(), res.end(), NAN);
        double r = f.address(in.empty() ? nullptr : in.data(), delta.data(), res.data(), &fo);
        if (r == -1.0 && std::isnan(res[0])) return false;
        *value = std::isnan(res[0]) ? r : res[0];
        bool complete = true;
        for (int k = 0; k < n; ++k) {
            if (std::isnan(res[k + 1])) complete = false;
            grads[k] = res[k + 1];
        }
        if (complete) return std::isfinite(*value);
        // The function gave no derivatives after all: difference it numerically.
    }
    if (!plain(in, value)) return false;
    if (!grads) return true;
    std::vector<double> at = in;
    for (int k = 0; k < n; ++k) {
        double h = uc.delta_x * std::max(1.0, std::fabs(in[k]));
        double up, down;
        at[k] = in[k] + h;
        if (!plain(at, &up)) return false;
        at[k] = in[k] - h;
        if (!plain(at, &down)) return false;
        at[k] = in[k];
        grads[k] = (up - down) / (2 * h);
    }
    return true;
}

double pwl_value(const double* ops, int n, double v, double* slope) {
    // ops in postfix order: y_m, x_m, ..., y_1, x_1, var
    int npts = (n - 1) / 2;
    auto X = [&](int k) { return ops[n - 2 - 2 * k]; };
    auto Y = [&](int k) { return ops[n - 3 - 2 * k]; };
    int k = 0;
    while (k < npts && !(X(k) > v)) ++k;
    if (k > 0 && k < npts) {
        double s = (Y(k) - Y(k - 1)) / (X(k) - X(k - 1));
        *slope = s;
        return Y(k - 1) + s * (v - X(k - 1));
    }
    if (npts == 1) {
        *slope = 0.0;
        return Y(0);
    }
    if (k == 0) {   // left of the first point: extend the first segment
        if (X(1) == X(0)) throw Error("Piecewise linear function has a discontinuity at its first breakpoint");
        double s = (Y(1) - Y(0)) / (X(1) - X(0));
        *slope = s;
        return Y(0) + s * (v - X(0));
    }
    // right of the last point: extend the last segment
    if (X(npts - 1) == X(npts - 2)) {
        *slope = 0.0;
        return Y(npts - 1);
    }
    double s = (Y(npts - 1) - Y(npts - 2)) / (X(npts - 1) - X(npts - 2));
    *slope = s;
    return Y(npts - 1) + s * (v - X(npts - 1));
}

}  // namespace

bool forward(const Tape& tape, const double* x, Eval& ev, const UserCaller& uc, bool grad) {
    size_t nn = tape.nodes.size();
    ev.val.resize(nn);
    if (grad) ev.partial.assign(tape.args.size(), 0.0);
    std::vector<double> in;
    for (size_t i = 0; i < nn; ++i) {
        const Node& n = tape.nodes[i];
        double v = 0.0;
        switch (n.op) {
        case N_CON: v = n.c; break;
        case N_COL: v = x[(int)n.c]; break;
        case N_ADD: v = ev.val[n.a] + ev.val[n.b]; break;
        case N_SUB: v = ev.val[n.a] - ev.val[n.b]; break;
        case N_MUL: v = ev.val[n.a] * ev.val[n.b]; break;
        case N_DIV: v = ev.val[n.a] / ev.val[n.b]; break;
        case N_POW: {
            double a = ev.val[n.a], b = ev.val[n.b];
            v = (b == 2.0) ? a * a : std::pow(a, b);
            break;
        }
        case N_NEG: v = -ev.val[n.a]; break;
        case N_FUN: v = fun_value(n.fun, ev.val[n.a]); break;
        case N_MIN:
        case N_MAX: {
            int best = 0;
            for (int k = 1; k < n.n; ++k) {
                double c = ev.val[tape.args[n.first + k]], b = ev.val[tape.args[n.first + best]];
                if (n.op == N_MIN ? c < b : c > b) best = k;
            }
            v = ev.val[tape.args[n.first + best]];
            if (grad) ev.partial[n.first + best] = 1.0;
            break;
        }
        case N_PWL: {
            in.resize(n.n);
            for (int k = 0; k < n.n; ++k) in[k] = ev.val[tape.args[n.first + k]];
            double slope = 0.0;
            v = pwl_value(in.data(), n.n, in[n.n - 1], &slope);
            if (grad) ev.partial[n.first + n.n - 1] = slope;
            break;
        }
        case N_UFUN: {
            // operands are in reverse order of the function's inputs
            in.resize(n.n);
            for (int k = 0; k < n.n; ++k) in[k] = ev.val[tape.args[n.first + n.n - 1 - k]];
            std::vector<double> g(grad ? n.n : 0);
            if (!call_user(uc, n.fun, in, &v, grad ? g.data() : nullptr)) return false;
            if (grad)
                for (int k = 0; k < n.n; ++k) ev.partial[n.first + n.n - 1 - k] = g[k];
            break;
        }
        }
        if (!std::isfinite(v)) return false;
        ev.val[i] = v;
    }
    return true;
}

void reverse(const Tape& tape, int root, Eval& ev, double seed, double* g) {
    ev.adj.assign(root + 1, 0.0);
    ev.adj[root] = seed;
    for (int i = root; i >= 0; --i) {
        double w = ev.adj[i];
        if (w == 0.0) continue;
        const Node& n = tape.nodes[i];
        switch (n.op) {
        case N_CON: break;
        case N_COL: g[(int)n.c] += w; break;
        case N_ADD: ev.adj[n.a] += w; ev.adj[n.b] += w; break;
        case N_SUB: ev.adj[n.a] += w; ev.adj[n.b] -= w; break;
        case N_MUL:
            ev.adj[n.a] += w * ev.val[n.b];
            ev.adj[n.b] += w * ev.val[n.a];
            break;
        case N_DIV: {
            double b = ev.val[n.b];
            ev.adj[n.a] += w / b;
            ev.adj[n.b] -= w * ev.val[n.a] / (b * b);
            break;
        }
        case N_POW: {
            double a = ev.val[n.a], b = ev.val[n.b];
            if (b == 2.0) ev.adj[n.a] += w * 2.0 * a;
            else if (b != 0.0) ev.adj[n.a] += w * b * std::pow(a, b - 1.0);
            if (tape.nodes[n.b].op != N_CON && a > 0) ev.adj[n.b] += w * ev.val[i] * std::log(a);
            break;
        }
        case N_NEG: ev.adj[n.a] -= w; break;
        case N_FUN: ev.adj[n.a] += w * fun_derivative(n.fun, ev.val[n.a]); break;
        case N_MIN:
        case N_MAX:
        case N_PWL:
        case N_UFUN:
            for (int k = 0; k < n.n; ++k) {
                double p = ev.partial.empty() ? 0.0 : ev.partial[n.first + k];
                if (p != 0.0) ev.adj[tape.args[n.first + k]] += w * p;
            }
            break;
        }
    }
}

Tokens combine_all(const std::vector<const Coef*>& parts) {
    size_t len = 1;
    for (const Coef* c : parts) len += c->formula.type.size() + 3;
    Tokens r;
    r.type.reserve(len);
    r.value.reserve(len);
    for (size_t k = 0; k < parts.size(); ++k) {
        const Tokens& t = parts[k]->formula;
        for (size_t i = 0; i < t.type.size() && t.type[i] != TSLP_TOK_EOF; ++i) {
            r.type.push_back(t.type[i]);
            r.value.push_back(t.value[i]);
        }
        if (parts[k]->factor != 1.0) {
            r.type.push_back(TSLP_TOK_CON);
            r.value.push_back(parts[k]->factor);
            r.type.push_back(TSLP_TOK_OP);
            r.value.push_back(TSLP_OP_MULTIPLY);
        }
        if (k > 0) {
            r.type.push_back(TSLP_TOK_OP);
            r.value.push_back(TSLP_OP_PLUS);
        }
    }
    r.type.push_back(TSLP_TOK_EOF);
    r.value.push_back(0);
    return r;
}

}  // namespace slp
