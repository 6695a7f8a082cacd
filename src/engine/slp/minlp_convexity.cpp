// Curvature of the rows and the objective of a nonlinear problem, proven by composition rules
// over the formula tapes (sums, nonnegative scaling, convex nondecreasing functions of convex
// arguments and the like) with interval bounds of every node over the columns' box. A row
// lo <= g(x) <= up is convex when g is affine, or convex with only an upper side, or concave
// with only a lower side. Whatever the rules cannot decide counts as nonconvex: the analysis
// may miss a convex problem, never call a nonconvex one convex.
#include "engine/slp/minlp.h"
#include "engine/optimizer/formulate.h"

#include <algorithm>
#include <cmath>

namespace slp {
namespace {

enum Curv { CONST, AFFINE, CONVEX, CONCAVE, UNKNOWN };

struct Info {
    Curv c = UNKNOWN;
    double lo = -INFINITY, hi = INFINITY;   // range of the node's value over the box
};

bool is_convex(Curv c) { return c == CONST || c == AFFINE || c == CONVEX; }
bool is_concave(Curv c) { return c == CONST || c == AFFINE || c == CONCAVE; }

Curv negate(Curv c) { return c == CONVEX ? CONCAVE : c == CONCAVE ? CONVEX : c; }
Curv scale(Curv c, double k) { return k == 0 ? CONST : k > 0 ? c : negate(c); }

Curv add(Curv a, Curv b) {
    if (a == CONST) return b;
    if (b == CONST) return a;
    if (a == AFFINE) return b;
    if (b == AFFINE) return a;
    return a == b ? a : UNKNOWN;
}

// Interval products with 0 * inf taken as 0 (a bounded factor that is exactly zero).
double mul0(double a, double b) { return a == 0 || b == 0 ? 0.0 : a * b; }
void mul_range(const Info& a, const Info& b, Info& r) {
    double p[4] = {mul0(a.lo, b.lo), mul0(a.lo, b.hi), mul0(a.hi, b.lo), mul0(a.hi, b.hi)};
    r.lo = *std::min_element(p, p + 4);
    r.hi = *std::max_element(p, p + 4);
}

bool monotone_up(int fun) {
    return fun == TSLP_FUN_EXP || fun == TSLP_FUN_LN || fun == TSLP_FUN_LOG10 || fun == TSLP_FUN_SQRT ||
           fun == TSLP_FUN_ARCTAN || fun == TSLP_FUN_ERF;
}

Info analyse_node(const Tape& t, const Node& n, const std::vector<Info>& v) {
    Info r;
    switch (n.op) {
    case N_CON:
        r.c = CONST;
        r.lo = r.hi = n.c;
        return r;
    case N_COL:
        return r;   // filled by the caller from the bounds
    case N_ADD:
    case N_SUB: {
        const Info& a = v[n.a];
        Info b = v[n.b];
        if (n.op == N_SUB) {
            b.c = negate(b.c);
            std::swap(b.lo, b.hi);
            b.lo = -b.lo, b.hi = -b.hi;
        }
        r.c = add(a.c, b.c);
        r.lo = a.lo + b.lo;
        r.hi = a.hi + b.hi;
        if (std::isnan(r.lo)) r.lo = -INFINITY;
        if (std::isnan(r.hi)) r.hi = INFINITY;
        return r;
    }
    case N_NEG:
        r.c = negate(v[n.a].c);
        r.lo = -v[n.a].hi;
        r.hi = -v[n.a].lo;
        return r;
    case N_MUL: {
        const Info &a = v[n.a], &b = v[n.b];
        mul_range(a, b, r);
        if (a.c == CONST) r.c = scale(b.c, a.lo);
        else if (b.c == CONST) r.c = scale(a.c, b.lo);
        else if (n.a == n.b && a.c == AFFINE) r.c = CONVEX, r.lo = std::max(r.lo, 0.0);
        else r.c = UNKNOWN;
        return r;
    }
    case N_DIV: {
        const Info &a = v[n.a], &b = v[n.b];
        if (b.c == CONST && b.lo != 0) {
            r.c = scale(a.c, 1.0 / b.lo);
            Info inv;
            inv.lo = inv.hi = 1.0 / b.lo;
            mul_range(a, inv, r);
            return r;
        }
        if (b.lo > 0 || b.hi < 0) {
            Info inv;
            inv.lo = 1.0 / b.hi;
            inv.hi = 1.0 / b.lo;
            mul_range(a, inv, r);
        }
        // k / b: k / u is convex decreasing for u > 0, so k / b is convex for concave b > 0
        // when k > 0; for b < 0, k / b = -(k / (-b)).
        if (a.c == CONST) {
            const double k = a.lo;
            if (b.lo > 0 && is_concave(b.c)) r.c = scale(CONVEX, k);
            else if (b.hi < 0 && is_convex(b.c)) r.c = scale(CONCAVE, k);
        }
        return r;
    }
    case N_POW: {
        const Info &a = v[n.a], &b = v[n.b];
        if (a.c == CONST && b.c == CONST) {
            r.c = CONST;
            r.lo = r.hi = std::pow(a.lo, b.lo);
            return r;
        }
        if (b.c == CONST) {
            const double p = b.lo;
            if (p == 0) {
                r.c = CONST;
                r.lo = r.hi = 1;
                return r;
            }
            if (p == 1) return a;
            const bool integer = p == std::round(p);
            const bool even = integer && std::fmod(std::fabs(p), 2.0) == 0;
            // Range: monotone pieces of u^p.
            if (a.lo >= 0) {
                double l = std::pow(a.lo, p), h = std::pow(a.hi, p);
                r.lo = std::min(l, h), r.hi = std::max(l, h);
            } else if (even && p > 0) {
                r.lo = a.hi < 0 ? std::pow(a.hi, p) : 0.0;
                r.hi = std::max(std::pow(a.lo, p), std::pow(a.hi, p));
            } else if (integer && p > 0) {
                r.lo = std::pow(a.lo, p), r.hi = std::pow(a.hi, p);
            }
            if (p > 1) {
                if (even && a.c == AFFINE) r.c = CONVEX;
                else if (a.lo >= 0 && is_convex(a.c)) r.c = CONVEX;              // u^p convex nondecreasing on u >= 0
                else if (even && a.hi <= 0 && is_concave(a.c)) r.c = CONVEX;     // nonincreasing on u <= 0
                else if (integer && !even && a.hi <= 0 && is_concave(a.c)) r.c = CONCAVE;
            } else if (p > 0) {
                if (a.lo >= 0 && is_concave(a.c)) r.c = CONCAVE;                 // u^p concave nondecreasing
            } else {
                if (a.lo > 0 && is_concave(a.c)) r.c = CONVEX;                   // u^p convex nonincreasing
            }
            return r;
        }
        if (a.c == CONST && a.lo > 0) {
            // B^u = exp(u ln B): exp is convex nondecreasing.
            const Curv arg = scale(b.c, std::log(a.lo));
            if (is_convex(arg)) r.c = CONVEX;
            r.lo = 0;
            return r;
        }
        return r;
    }
    case N_FUN: {
        const Info& a = v[n.a];
        if (a.c == CONST) {
            r.c = CONST;
            r.lo = r.hi = fun_value(n.fun, a.lo);
            return r;
        }
        if (monotone_up(n.fun)) {
            if (std::isfinite(a.lo) || n.fun == TSLP_FUN_EXP || n.fun == TSLP_FUN_ARCTAN || n.fun == TSLP_FUN_ERF)
                r.lo = std::isfinite(a.lo) ? fun_value(n.fun, std::max(a.lo, n.fun == TSLP_FUN_SQRT ? 0.0 : a.lo)) : -INFINITY;
            if (std::isfinite(a.hi)) r.hi = fun_value(n.fun, a.hi);
            if (n.fun == TSLP_FUN_EXP) r.lo = std::max(std::isnan(r.lo) ? 0.0 : r.lo, 0.0);
            if (std::isnan(r.lo)) r.lo = -INFINITY;
            if (std::isnan(r.hi)) r.hi = INFINITY;
        }
        switch (n.fun) {
        case TSLP_FUN_EXP:
            if (is_convex(a.c)) r.c = CONVEX;
            break;
        case TSLP_FUN_LN:
        case TSLP_FUN_LOG10:
        case TSLP_FUN_SQRT:
            // Concave nondecreasing where defined (the argument's domain is then convex too).
            if (is_concave(a.c)) r.c = CONCAVE;
            if (n.fun == TSLP_FUN_SQRT) r.lo = std::max(r.lo, 0.0);
            break;
        case TSLP_FUN_ABS:
            r.lo = a.lo >= 0 ? a.lo : a.hi <= 0 ? -a.hi : 0.0;
            r.hi = std::max(std::fabs(a.lo), std::fabs(a.hi));
            if (a.c == AFFINE || (a.lo >= 0 && is_convex(a.c)) || (a.hi <= 0 && is_concave(a.c))) r.c = CONVEX;
            break;
        case TSLP_FUN_SIN:
        case TSLP_FUN_COS:
            r.lo = -1, r.hi = 1;
            break;
        default: break;
        }
        return r;
    }
    case N_MIN:
    case N_MAX: {
        bool all_convex = true, all_concave = true;
        r.lo = INFINITY, r.hi = -INFINITY;
        for (int k = 0; k < n.n; ++k) {
            const Info& a = v[t.args[n.first + k]];
            all_convex = all_convex && is_convex(a.c);
            all_concave = all_concave && is_concave(a.c);
            if (n.op == N_MAX) r.lo = std::max(r.lo, a.lo), r.hi = std::max(r.hi, a.hi);
            else r.lo = std::min(r.lo, a.lo), r.hi = std::min(r.hi, a.hi);
        }
        if (n.op == N_MIN) {
            r.lo = INFINITY;
            for (int k = 0; k < n.n; ++k) r.lo = std::min(r.lo, v[t.args[n.first + k]].lo);
        } else {
            r.hi = -INFINITY;
            for (int k = 0; k < n.n; ++k) r.hi = std::max(r.hi, v[t.args[n.first + k]].hi);
        }
        if (n.op == N_MAX && all_convex) r.c = CONVEX;
        if (n.op == N_MIN && all_concave) r.c = CONCAVE;
        return r;
    }
    default:
        return r;   // piecewise-linear and user functions: unknown
    }
}

Curv tape_curvature(const Tape& t, int root, const Model& m) {
    if (root < 0) return AFFINE;
    std::vector<Info> v(t.nodes.size());
    for (size_t i = 0; i < t.nodes.size(); ++i) {
        const Node& n = t.nodes[i];
        if (n.op == N_COL) {
            const int j = (int)n.c;
            Info& r = v[i];
            r.lo = m.lb[j] <= -TRVO_INFINITY ? -INFINITY : m.lb[j];
            r.hi = m.ub[j] >= TRVO_INFINITY ? INFINITY : m.ub[j];
            r.c = r.lo == r.hi ? CONST : AFFINE;   // a fixed column (the equals column) is a constant
            continue;
        }
        v[i] = analyse_node(t, n, v);
    }
    return v[root].c;
}

Curv quad_curvature(const Quad& q) {
    if (q.empty()) return AFFINE;
    trvo::QMap qm;
    for (size_t k = 0; k < q.v.size(); ++k) {
        const int i = q.i[k], j = q.j[k];
        qm[trvo::qkey(i, j)] += i == j ? q.v[k] : 0.5 * q.v[k];
    }
    if (trvo::positive_semidefinite(qm, 1.0)) return CONVEX;
    if (trvo::positive_semidefinite(qm, -1.0)) return CONCAVE;
    return UNKNOWN;
}

}  // namespace

Convexity analyse_convexity(TSLPprob prob, const Model& m, const Evaluator& E) {
    Convexity c;
    const double sense = dbl_control(prob, TSLP_OBJSENSE) < 0 ? -1.0 : 1.0;
    c.row_convex.assign(m.nrows, 1);
    c.row_side.assign(m.nrows, 0);
    c.objective_convex = is_convex(scale(quad_curvature(m.qobj), sense));
    std::vector<int> colrows(m.ncols, 0);   // linear rows each column is in
    for (int r = 0; r < m.nrows; ++r)
        for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e) ++colrows[m.rcol[e]];
    for (size_t k = 0; k < E.nlrows.size(); ++k) {
        const int r = E.nlrows[k];
        Curv g = tape_curvature(E.tapes[k], E.roots[k], m);
        auto q = m.qrows.find(r);
        if (q != m.qrows.end()) g = add(g, quad_curvature(q->second));
        double lo, up;
        row_bounds(m, r, &lo, &up);
        // A nonlinear objective's transfer row a t + h(x) = b, with t costed c in the objective
        // and in no other row, acts as an inequality: the objective pushes t to the side where
        // sense * c * t is least, so the row's other side is never active.
        auto st = prob->rowstatus.find(r);
        if (st != prob->rowstatus.end() && (st->second & TSLP_ROWSTATUS_TRANSFER) && lo == up) {
            for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e) {
                const int j = m.rcol[e];
                if (m.obj[j] == 0.0 || m.rval[e] == 0.0 || colrows[j] != 1) continue;
                if (sense * m.obj[j] * m.rval[e] > 0) up = INFINITY;
                else lo = -INFINITY;
                break;
            }
        }
        bool ok = g == CONST || g == AFFINE || (g == CONVEX && std::isinf(lo)) || (g == CONCAVE && std::isinf(up));
        if (std::isinf(lo) && std::isinf(up)) ok = true;
        else if (g == CONVEX && std::isinf(lo)) c.row_side[r] = 1;
        else if (g == CONCAVE && std::isinf(up)) c.row_side[r] = -1;
        c.row_convex[r] = ok;
        if (!ok) ++c.nonconvex_rows;
    }
    c.convex = c.objective_convex && c.nonconvex_rows == 0;
    return c;
}

}  // namespace slp
