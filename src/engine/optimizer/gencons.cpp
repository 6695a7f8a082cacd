// General constraints (max, min, and, or, abs) and piecewise-linear constraints: the store's
// entry points, their reformulation for HiGHS, column deletion and problem-file text.
//
// Reformulation (mixed-integer solves only; the continuous relaxation leaves them out, as it
// leaves out indicator rows and integrality):
//   max  r = max(x_1..x_k, c): r >= x_i, r >= c, and one binary z per alternative with
//        sum z = 1 and r <= x_i + (U - lb_i)(1 - z_i), U the least upper bound of r that
//        follows from its own bound and the alternatives' upper bounds. min is the mirror image.
//   and  r <= x_i, r >= sum x_i - (k - 1);  or  r >= x_i, r <= sum x_i  (all columns binary).
//   abs  r = |x|: r >= x, r >= -x and a binary z for the sign of x on the bounds L <= x <= U
//        (those of x, tightened by |x| <= ub r): x <= U z, x >= L(1 - z),
//        r <= x - 2L(1 - z), r <= -x + 2U z.
//   pwl  y = f(x) by the convex-combination form: weights lambda_k >= 0 on the breakpoints with
//        sum 1, x = sum lambda_k x_k, y = sum lambda_k y_k, one binary per piece (a segment of
//        positive width, or a point no such segment holds) with sum 1, and lambda_k at most the
//        sum of the binaries of the pieces that hold point k. The first and last segments are
//        extended to the bounds of x by extra breakpoints.
// The added columns and rows come after the user's, so results map back by truncation.
#include "engine/optimizer/gencons.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace trvo {

const char* const kGenconsLpTag = "gencons:";

namespace {

using Row = std::vector<std::pair<int, double>>;

const char* const kTypeNames[] = {"max", "min", "and", "or", "abs"};
const char* const kTypeWords[] = {"MAX", "MIN", "AND", "OR", "ABS"};

std::string cname(TRVOprob p, int j) { return p->colnames.get(j, 'C'); }

struct Parts {
    TRVOprob p;
    ModelParts& m;
    int add_col(double l, double u, HighsInt type) {
        m.cost.push_back(0);
        m.lo.push_back(l);
        m.up.push_back(u);
        m.integ.push_back(type);
        return static_cast<int>(m.lo.size()) - 1;
    }
    int add_binary() { return add_col(0, 1, kHighsVarTypeInteger); }
    void add_row(Row r, double l, double u) {
        m.rows.push_back(std::move(r));
        m.rlo.push_back(l);
        m.rup.push_back(u);
    }
    double& lo(int j) { return m.lo[static_cast<size_t>(j)]; }
    double& up(int j) { return m.up[static_cast<size_t>(j)]; }
};

// Narrows column j's bounds to [l, u]. Bounds that would cross stay as they are and the
// narrowing becomes a row instead, so that HiGHS reports the model infeasible.
void tighten(Parts& b, int j, double l, double u) {
    double nl = std::max(b.lo(j), l), nu = std::min(b.up(j), u);
    if (nl <= nu) {
        b.lo(j) = nl;
        b.up(j) = nu;
    } else {
        b.add_row({{j, 1.0}}, l, u);
    }
}

// Bounds of column j seen through sign s: s = 1 the column, s = -1 its negation.
double upper_of(Parts& b, int j, double s) { return s > 0 ? b.up(j) : -b.lo(j); }
double lower_of(Parts& b, int j, double s) { return s > 0 ? b.lo(j) : -b.up(j); }

// max (s = 1) or min (s = -1), written for s*r = max(s*x_i, s*c).
void max_min(Parts& b, int k, const GenCons& g, double s) {
    TRVOprob p = b.p;
    const int r = g.resultant;
    const char* what = kTypeNames[g.type];
    const bool has_c = !g.vals.empty();
    double c = 0;
    if (has_c) {
        c = s * g.vals[0];
        for (double v : g.vals) c = std::max(c, s * v);
    }
    // Least upper bound U of s*r: the smaller of its own bound and the largest alternative's.
    double Ualt = has_c ? c : -kInf;
    int unbounded = -1;  // an alternative without an upper bound
    for (int j : g.cols) {
        double u = upper_of(b, j, s);
        if (is_inf(u) && unbounded < 0) unbounded = j;
        Ualt = std::max(Ualt, u);
    }
    double U = unbounded >= 0 ? upper_of(b, r, s) : std::min(upper_of(b, r, s), Ualt);
    if (is_inf(U))
        fail("General constraint %d (%s) needs a finite %s bound on column %s or on its resultant %s", k, what,
             s > 0 ? "upper" : "lower", cname(p, unbounded).c_str(), cname(p, r).c_str());
    // s*r >= each alternative: rows, and a bound for the constant and the alternatives' lower bounds.
    double L = has_c ? c : -kInf;
    for (int j : g.cols) {
        b.add_row({{r, s}, {j, -s}}, 0, kInf);
        L = std::max(L, lower_of(b, j, s));
    }
    if (s > 0) tighten(b, r, L, U);
    else tighten(b, r, -U, -L);
    const size_t alternatives = g.cols.size() + (has_c ? 1 : 0);
    if (alternatives == 1) {
        // s*r equals its only alternative.
        if (has_c) return;  // the bounds above fix it
        b.add_row({{r, s}, {g.cols[0], -s}}, -kInf, 0);
        return;
    }
    // s*r <= alternative i when z_i = 1.
    Row choose;
    for (int j : g.cols) {
        double l = lower_of(b, j, s);
        if (is_inf(l))
            fail("General constraint %d (%s) needs a finite %s bound on column %s", k, what,
                 s > 0 ? "lower" : "upper", cname(p, j).c_str());
        double M = std::max(0.0, U - l);
        int z = b.add_binary();
        choose.emplace_back(z, 1.0);
        b.add_row({{r, s}, {j, -s}, {z, M}}, -kInf, M);
    }
    if (has_c) {
        double M = std::max(0.0, U - c);
        int z = b.add_binary();
        choose.emplace_back(z, 1.0);
        b.add_row({{r, s}, {z, M}}, -kInf, U);
    }
    b.add_row(std::move(choose), 1, 1);
}

void make_binary(Parts& b, int j) {
    tighten(b, j, 0.0, 1.0);
    b.m.integ[static_cast<size_t>(j)] = kHighsVarTypeInteger;
}

void and_or(Parts& b, const GenCons& g) {
    const int r = g.resultant;
    const bool is_and = g.type == TRVO_GENCONS_AND;
    make_binary(b, r);
    Row sum{{r, 1.0}};
    for (int j : g.cols) {
        make_binary(b, j);
        if (is_and) b.add_row({{r, 1.0}, {j, -1.0}}, -kInf, 0);
        else b.add_row({{r, 1.0}, {j, -1.0}}, 0, kInf);
        sum.emplace_back(j, -1.0);
    }
    const double k = static_cast<double>(g.cols.size());
    if (is_and) b.add_row(std::move(sum), 1 - k, kInf);
    else b.add_row(std::move(sum), -kInf, 0);
}

void absolute(Parts& b, int k, const GenCons& g) {
    TRVOprob p = b.p;
    const int r = g.resultant, x = g.cols[0];
    double L = b.lo(x), U = b.up(x);
    if (!is_inf(b.up(r))) {
        L = std::max(L, -b.up(r));
        U = std::min(U, b.up(r));
    }
    b.add_row({{r, 1.0}, {x, -1.0}}, 0, kInf);
    b.add_row({{r, 1.0}, {x, 1.0}}, 0, kInf);
    if (L >= 0) {
        b.add_row({{r, 1.0}, {x, -1.0}}, -kInf, 0);
        return;
    }
    if (U <= 0) {
        b.add_row({{r, 1.0}, {x, 1.0}}, -kInf, 0);
        return;
    }
    if (is_inf(L) || is_inf(U))
        fail("General constraint %d (abs) needs finite bounds on column %s or an upper bound on its resultant %s", k,
             cname(p, x).c_str(), cname(p, r).c_str());
    tighten(b, r, 0.0, std::max(-L, U));
    int z = b.add_binary();
    b.add_row({{x, 1.0}, {z, -U}}, -kInf, 0);                 // x <= U z
    b.add_row({{x, 1.0}, {z, L}}, L, kInf);                   // x >= L (1 - z)
    b.add_row({{r, 1.0}, {x, -1.0}, {z, -2 * L}}, -kInf, -2 * L);  // r <= x - 2L (1 - z)
    b.add_row({{r, 1.0}, {x, 1.0}, {z, -2 * U}}, -kInf, 0);   // r <= -x + 2U z
}

void piecewise(Parts& b, int k, const PwlCons& c) {
    TRVOprob p = b.p;
    const int x = c.col, y = c.resultant;
    std::vector<double> px = c.x, py = c.y;
    const size_t n = px.size();
    const double lbx = b.lo(x), ubx = b.up(x);
    if (lbx < px[0]) {
        if (is_inf(lbx))
            fail("Piecewise linear constraint %d needs a finite lower bound on column %s: its first segment "
                 "extends below the first breakpoint %g",
                 k, cname(p, x).c_str(), px[0]);
        if (px[1] == px[0])
            fail("Piecewise linear constraint %d starts with a jump at %g and cannot be extended below it: give "
                 "column %s a lower bound of at least %g",
                 k, px[0], cname(p, x).c_str(), px[0]);
        double slope = (py[1] - py[0]) / (px[1] - px[0]);
        px.insert(px.begin(), lbx);
        py.insert(py.begin(), py[0] + slope * (lbx - c.x[0]));
    }
    if (ubx > px.back()) {
        if (is_inf(ubx))
            fail("Piecewise linear constraint %d needs a finite upper bound on column %s: its last segment "
                 "extends above the last breakpoint %g",
                 k, cname(p, x).c_str(), px.back());
        if (c.x[n - 1] == c.x[n - 2])
            fail("Piecewise linear constraint %d ends with a jump at %g and cannot be extended above it: give "
                 "column %s an upper bound of at most %g",
                 k, c.x[n - 1], cname(p, x).c_str(), c.x[n - 1]);
        double slope = (c.y[n - 1] - c.y[n - 2]) / (c.x[n - 1] - c.x[n - 2]);
        px.push_back(ubx);
        py.push_back(c.y[n - 1] + slope * (ubx - c.x[n - 1]));
    }
    const size_t N = px.size();
    std::vector<int> lambda(N);
    Row sum, xrow{{x, -1.0}}, yrow{{y, -1.0}};
    for (size_t t = 0; t < N; ++t) {
        lambda[t] = b.add_col(0, 1, kHighsVarTypeContinuous);
        sum.emplace_back(lambda[t], 1.0);
        xrow.emplace_back(lambda[t], px[t]);
        yrow.emplace_back(lambda[t], py[t]);
    }
    b.add_row(std::move(sum), 1, 1);
    b.add_row(std::move(xrow), 0, 0);
    b.add_row(std::move(yrow), 0, 0);
    // Pieces: segments of positive width, and the points that none of them holds.
    std::vector<Row> holds(N);
    Row choose;
    std::vector<char> held(N, 0);
    for (size_t t = 0; t + 1 < N; ++t)
        if (px[t + 1] > px[t]) held[t] = held[t + 1] = 1;
    for (size_t t = 0; t < N; ++t) {
        if (t + 1 < N && px[t + 1] > px[t]) {
            int z = b.add_binary();
            choose.emplace_back(z, 1.0);
            holds[t].emplace_back(z, -1.0);
            holds[t + 1].emplace_back(z, -1.0);
        }
        if (!held[t]) {
            int z = b.add_binary();
            choose.emplace_back(z, 1.0);
            holds[t].emplace_back(z, -1.0);
        }
    }
    b.add_row(std::move(choose), 1, 1);
    for (size_t t = 0; t < N; ++t) {
        Row r = std::move(holds[t]);
        r.emplace_back(lambda[t], 1.0);
        b.add_row(std::move(r), -kInf, 0);
    }
}

bool finite_value(double v) { return std::isfinite(v) && !is_inf(v); }

// End of entry i of a start array of `count` entries over `total` elements.
int64_t end_of(const int64_t* start, int i, int count, int64_t total) {
    return i + 1 < count ? start[i + 1] : total;
}

void check_starts(const int64_t* start, int count, int64_t total, const char* what) {
    for (int i = 0; i < count; ++i) {
        int64_t e = end_of(start, i, count, total);
        if (start[i] < 0 || start[i] > e || e > total) fail("Invalid start of %s %d", what, i);
    }
    if (count > 0 && start[0] != 0) fail("The starts of the %s must begin at 0", what);
}

void check_list_range(int first, int last, size_t count, const char* what) {
    if (first < 0 || last < first || static_cast<size_t>(last) >= count)
        fail("Invalid range %d..%d of %s: the problem has %zu", first, last, what, count);
}

}  // namespace

bool has_gencons(TRVOprob p) { return !p->gencons.empty() || !p->pwlcons.empty(); }

void formulate_gencons(TRVOprob p, ModelParts m) {
    Parts b{p, m};
    for (size_t k = 0; k < p->gencons.size(); ++k) {
        const GenCons& g = p->gencons[k];
        const int id = static_cast<int>(k);
        switch (g.type) {
            case TRVO_GENCONS_MAX: max_min(b, id, g, 1.0); break;
            case TRVO_GENCONS_MIN: max_min(b, id, g, -1.0); break;
            case TRVO_GENCONS_AND: case TRVO_GENCONS_OR: and_or(b, g); break;
            case TRVO_GENCONS_ABS: absolute(b, id, g); break;
            default: fail("General constraint %d has an unknown type %d", id, g.type);
        }
    }
    for (size_t k = 0; k < p->pwlcons.size(); ++k) piecewise(b, static_cast<int>(k), p->pwlcons[k]);
}

void gencons_delete_cols(TRVOprob p, const std::vector<int>& newidx) {
    auto to = [&](int j) { return newidx[static_cast<size_t>(j)]; };
    std::vector<GenCons> kept;
    for (auto& g : p->gencons) {
        if (to(g.resultant) < 0) continue;
        g.resultant = to(g.resultant);
        size_t o = 0;
        for (int j : g.cols)
            if (to(j) >= 0) g.cols[o++] = to(j);
        bool lost = o < g.cols.size();
        g.cols.resize(o);
        // An argument deleted from max, min, and, or leaves the function of the others; abs
        // loses its only argument, and a function left without arguments goes.
        if ((g.type == TRVO_GENCONS_ABS && lost) || (g.cols.empty() && g.vals.empty())) continue;
        kept.push_back(std::move(g));
    }
    p->gencons.swap(kept);
    std::vector<PwlCons> pk;
    for (auto& c : p->pwlcons) {
        if (to(c.col) < 0 || to(c.resultant) < 0) continue;
        c.col = to(c.col);
        c.resultant = to(c.resultant);
        pk.push_back(std::move(c));
    }
    p->pwlcons.swap(pk);
}

std::vector<std::string> gencons_file_lines(TRVOprob p, const std::vector<std::string>& cn) {
    std::vector<std::string> out;
    char buf[64];
    auto col = [&](int j) { return cn[static_cast<size_t>(j)]; };
    if (!p->gencons.empty()) {
        out.push_back("GENCONS");
        for (const auto& g : p->gencons) {
            out.push_back(std::string(" ") + kTypeWords[g.type] + " " + col(g.resultant));
            for (int j : g.cols) out.push_back("    COL " + col(j));
            for (double v : g.vals) {
                std::snprintf(buf, sizeof buf, "    VAL %.17g", v);
                out.push_back(buf);
            }
        }
    }
    if (!p->pwlcons.empty()) {
        out.push_back("PWLCONS");
        for (const auto& c : p->pwlcons) {
            out.push_back(" PWL " + col(c.col) + " " + col(c.resultant));
            for (size_t k = 0; k < c.x.size(); ++k) {
                std::snprintf(buf, sizeof buf, "    POINT %.17g %.17g", c.x[k], c.y[k]);
                out.push_back(buf);
            }
        }
    }
    return out;
}

bool is_gencons_section(const std::string& header) { return header == "GENCONS" || header == "PWLCONS"; }

void gencons_from_file_lines(const std::vector<std::vector<std::string>>& lines, trvo_problem_s& target) {
    auto column = [&](const std::string& name) {
        int j = target.colnames.find(name);
        if (j < 0) fail("Column %s of a general or piecewise linear constraint is not a column", name.c_str());
        return j;
    };
    auto value = [&](const std::string& text) {
        char* end = nullptr;
        double v = std::strtod(text.c_str(), &end);
        if (!end || *end || !std::isfinite(v)) fail("Unreadable number %s in a general or piecewise linear constraint", text.c_str());
        return v;
    };
    std::vector<GenCons> gencons;
    std::vector<PwlCons> pwlcons;
    bool in_gen = false;  // the last constraint opened is a general one (else piecewise linear)
    for (const auto& t : lines) {
        if (t.empty() || is_gencons_section(t[0])) continue;
        const std::string& w = t[0];
        int type = -1;
        for (int k = 0; k < 5; ++k)
            if (w == kTypeWords[k]) type = k;
        if (type >= 0 && t.size() == 2) {
            GenCons g;
            g.type = type;
            g.resultant = column(t[1]);
            gencons.push_back(std::move(g));
            in_gen = true;
        } else if (w == "COL" && t.size() == 2 && in_gen && !gencons.empty()) {
            gencons.back().cols.push_back(column(t[1]));
        } else if (w == "VAL" && t.size() == 2 && in_gen && !gencons.empty()) {
            gencons.back().vals.push_back(value(t[1]));
        } else if (w == "PWL" && t.size() == 3) {
            PwlCons c;
            c.col = column(t[1]);
            c.resultant = column(t[2]);
            pwlcons.push_back(std::move(c));
            in_gen = false;
        } else if (w == "POINT" && t.size() == 3 && !in_gen && !pwlcons.empty()) {
            pwlcons.back().x.push_back(value(t[1]));
            pwlcons.back().y.push_back(value(t[2]));
        } else {
            std::string line;
            for (const auto& s : t) line += (line.empty() ? "" : " ") + s;
            fail("Unreadable line in the general or piecewise linear constraints: %.80s", line.c_str());
        }
    }
    // Checked as the library's own entry points check them.
    target.gencons.clear();
    target.pwlcons.clear();
    for (const auto& g : gencons) {
        std::vector<int64_t> cs{0}, vs{0};
        if (TRVOaddgencons64(&target, 1, static_cast<int64_t>(g.cols.size()), static_cast<int64_t>(g.vals.size()),
                             &g.type, &g.resultant, cs.data(), g.cols.data(), vs.data(), g.vals.data()) != 0)
            fail("%s", target.last_error.c_str());
    }
    for (const auto& c : pwlcons) {
        std::vector<int64_t> s{0};
        if (TRVOaddpwlcons64(&target, 1, static_cast<int64_t>(c.x.size()), &c.col, &c.resultant, s.data(), c.x.data(),
                             c.y.data()) != 0)
            fail("%s", target.last_error.c_str());
    }
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOaddgencons64(TRVOprob prob, int ncons, int64_t ncols, int64_t nvals, const int contype[],
                     const int resultant[], const int64_t colstart[], const int col[],
                     const int64_t valstart[], const double val[]) {
    return guard(prob, [&] {
        if (ncons < 0 || ncols < 0 || nvals < 0) fail("Negative number of general constraints, columns or values");
        if (ncons == 0) return;
        if (!contype || !resultant || !colstart) fail("Missing types, resultants or column starts of general constraints");
        if (ncols > 0 && !col) fail("Missing columns of general constraints");
        if (nvals > 0 && (!val || !valstart)) fail("Missing values or value starts of general constraints");
        check_starts(colstart, ncons, ncols, "general constraint columns");
        if (valstart) check_starts(valstart, ncons, nvals, "general constraint values");
        const int base = static_cast<int>(prob->gencons.size());
        for (int i = 0; i < ncons; ++i) {
            const int id = base + i;
            if (contype[i] < TRVO_GENCONS_MAX || contype[i] > TRVO_GENCONS_ABS)
                fail("Invalid type %d of general constraint %d: must be 0 (max), 1 (min), 2 (and), 3 (or) or 4 (abs)",
                     contype[i], id);
            check_col(prob, resultant[i]);
            int64_t nc = end_of(colstart, i, ncons, ncols) - colstart[i];
            int64_t nv = valstart ? end_of(valstart, i, ncons, nvals) - valstart[i] : 0;
            for (int64_t k = colstart[i]; k < colstart[i] + nc; ++k) check_col(prob, col[k]);
            for (int64_t k = valstart ? valstart[i] : 0; k < (valstart ? valstart[i] : 0) + nv; ++k)
                if (!finite_value(val[k])) fail("Value of general constraint %d is not finite", id);
            const char* what = kTypeNames[contype[i]];
            switch (contype[i]) {
                case TRVO_GENCONS_MAX: case TRVO_GENCONS_MIN:
                    if (nc + nv == 0) fail("General constraint %d (%s) needs at least one column or value", id, what);
                    break;
                case TRVO_GENCONS_AND: case TRVO_GENCONS_OR:
                    if (nc == 0 || nv != 0)
                        fail("General constraint %d (%s) takes one or more columns and no values", id, what);
                    break;
                default:
                    if (nc != 1 || nv != 0) fail("General constraint %d (abs) takes exactly one column and no values", id);
            }
        }
        for (int i = 0; i < ncons; ++i) {
            GenCons g;
            g.type = contype[i];
            g.resultant = resultant[i];
            g.cols.assign(col ? col + colstart[i] : nullptr, col ? col + end_of(colstart, i, ncons, ncols) : nullptr);
            if (valstart) g.vals.assign(val ? val + valstart[i] : nullptr, val ? val + end_of(valstart, i, ncons, nvals) : nullptr);
            prob->gencons.push_back(std::move(g));
        }
        results_invalidate(prob);
    });
}

int TRVOgetgencons64(TRVOprob prob, int contype[], int resultant[], int64_t colstart[], int col[],
                     int64_t colsize, int64_t* ncols, int64_t valstart[], double val[],
                     int64_t valsize, int64_t* nvals, int first, int last) {
    return guard(prob, [&] {
        check_list_range(first, last, prob->gencons.size(), "general constraints");
        int64_t nc = 0, nv = 0;
        for (int i = first; i <= last; ++i) {
            const GenCons& g = prob->gencons[static_cast<size_t>(i)];
            const size_t o = static_cast<size_t>(i - first);
            if (contype) contype[o] = g.type;
            if (resultant) resultant[o] = g.resultant;
            if (colstart) colstart[o] = nc;
            if (valstart) valstart[o] = nv;
            for (int j : g.cols) {
                if (col && nc < colsize) col[nc] = j;
                ++nc;
            }
            for (double v : g.vals) {
                if (val && nv < valsize) val[nv] = v;
                ++nv;
            }
        }
        const size_t end = static_cast<size_t>(last - first + 1);
        if (colstart) colstart[end] = nc;
        if (valstart) valstart[end] = nv;
        if (ncols) *ncols = nc;
        if (nvals) *nvals = nv;
    });
}

int TRVOdelgencons(TRVOprob prob, int ncons, const int mindex[]) {
    return guard(prob, [&] {
        std::vector<char> drop = marks(static_cast<int>(prob->gencons.size()), ncons, mindex, "general constraint");
        size_t o = 0;
        for (size_t k = 0; k < prob->gencons.size(); ++k) {
            if (drop[k]) continue;
            if (o != k) prob->gencons[o] = std::move(prob->gencons[k]);
            ++o;
        }
        prob->gencons.resize(o);
        results_invalidate(prob);
    });
}

int TRVOaddpwlcons64(TRVOprob prob, int npwls, int64_t npoints, const int col[],
                     const int resultant[], const int64_t start[], const double xval[],
                     const double yval[]) {
    return guard(prob, [&] {
        if (npwls < 0 || npoints < 0) fail("Negative number of piecewise linear constraints or points");
        if (npwls == 0) return;
        if (!col || !resultant || !start) fail("Missing columns, resultants or starts of piecewise linear constraints");
        if (npoints > 0 && (!xval || !yval)) fail("Missing breakpoints of piecewise linear constraints");
        check_starts(start, npwls, npoints, "piecewise linear constraint");
        const int base = static_cast<int>(prob->pwlcons.size());
        for (int i = 0; i < npwls; ++i) {
            const int id = base + i;
            check_col(prob, col[i]);
            check_col(prob, resultant[i]);
            int64_t b = start[i], e = end_of(start, i, npwls, npoints);
            if (e - b < 2) fail("Piecewise linear constraint %d needs at least two breakpoints", id);
            for (int64_t k = b; k < e; ++k) {
                if (!finite_value(xval[k]) || !finite_value(yval[k])) fail("Breakpoint of piecewise linear constraint %d is not finite", id);
                if (k > b && xval[k] < xval[k - 1])
                    fail("The x values of piecewise linear constraint %d must not decrease (%g after %g)", id, xval[k],
                         xval[k - 1]);
            }
        }
        for (int i = 0; i < npwls; ++i) {
            PwlCons c;
            c.col = col[i];
            c.resultant = resultant[i];
            int64_t b = start[i], e = end_of(start, i, npwls, npoints);
            c.x.assign(xval + b, xval + e);
            c.y.assign(yval + b, yval + e);
            prob->pwlcons.push_back(std::move(c));
        }
        results_invalidate(prob);
    });
}

int TRVOgetpwlcons64(TRVOprob prob, int col[], int resultant[], int64_t start[], double xval[],
                     double yval[], int64_t size, int64_t* npoints, int first, int last) {
    return guard(prob, [&] {
        check_list_range(first, last, prob->pwlcons.size(), "piecewise linear constraints");
        int64_t n = 0;
        for (int i = first; i <= last; ++i) {
            const PwlCons& c = prob->pwlcons[static_cast<size_t>(i)];
            const size_t o = static_cast<size_t>(i - first);
            if (col) col[o] = c.col;
            if (resultant) resultant[o] = c.resultant;
            if (start) start[o] = n;
            for (size_t k = 0; k < c.x.size(); ++k, ++n)
                if (n < size) {
                    if (xval) xval[n] = c.x[k];
                    if (yval) yval[n] = c.y[k];
                }
        }
        if (start) start[last - first + 1] = n;
        if (npoints) *npoints = n;
    });
}

int TRVOdelpwlcons(TRVOprob prob, int npwls, const int mindex[]) {
    return guard(prob, [&] {
        std::vector<char> drop =
            marks(static_cast<int>(prob->pwlcons.size()), npwls, mindex, "piecewise linear constraint");
        size_t o = 0;
        for (size_t k = 0; k < prob->pwlcons.size(); ++k) {
            if (drop[k]) continue;
            if (o != k) prob->pwlcons[o] = std::move(prob->pwlcons[k]);
            ++o;
        }
        prob->pwlcons.resize(o);
        results_invalidate(prob);
    });
}

}  // extern "C"
