// Builds the HiGHS model of a problem, reformulating the entities HiGHS does not support.
#include "engine/optimizer/formulate.h"
#include "engine/optimizer/gencons.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>

namespace trvo {
namespace {

using Row = std::vector<std::pair<int, double>>;

// The model being built: the user's rows are read from the problem's own matrix (not
// copied); reformulation adds rows after them and may replace some (indicator rows).
struct Builder {
    explicit Builder(TRVOprob p) : matrix(p->matrix) {}
    const RowMatrix& matrix;
    std::vector<double> cost, lo, up;
    std::vector<HighsInt> integ;
    std::map<int, Row> replaced;  // user rows rewritten by the reformulation
    std::vector<Row> extra;       // rows added after the user's rows
    std::vector<double> rlo, rup;

    int add_col(double l, double u, HighsInt type) {
        cost.push_back(0);
        lo.push_back(l);
        up.push_back(u);
        integ.push_back(type);
        return static_cast<int>(lo.size()) - 1;
    }
    int add_binary() { return add_col(0, 1, kHighsVarTypeInteger); }
    void add_row(Row r, double l, double u) {
        extra.push_back(std::move(r));
        rlo.push_back(l);
        rup.push_back(u);
    }
    size_t nrows() const { return matrix.size() + extra.size(); }
    // Calls f(column, value) for each entry of row i of the model.
    template <class F>
    void for_row(size_t i, F f) const {
        const Row* r = nullptr;
        if (i >= matrix.size()) r = &extra[i - matrix.size()];
        else if (!replaced.empty()) {
            auto it = replaced.find(static_cast<int>(i));
            if (it != replaced.end()) r = &it->second;
        }
        if (r) {
            for (const auto& e : *r) f(e.first, e.second);
            return;
        }
        const RowMatrix::Row own = matrix[i];
        const int* c = own.cols();
        const double* v = own.values();
        for (size_t k = 0; k < own.size(); ++k) f(c[k], v[k]);
    }
    size_t row_size(size_t i) const {
        size_t n = 0;
        for_row(i, [&](int, double) { ++n; });
        return n;
    }
};

void add_to_row(Row& r, int col, double v) {
    for (auto& e : r)
        if (e.first == col) {
            e.second += v;
            return;
        }
    r.emplace_back(col, v);
}

std::string colname(TRVOprob p, int j) { return p->colnames.get(j, 'C'); }
std::string rowname(TRVOprob p, int i) { return p->rownames.get(i, 'R'); }

// Semi-continuous and semi-integer columns: x = 0 or limit <= x <= ub.
void semicontinuous(TRVOprob p, int j, Builder& b) {
    size_t s = static_cast<size_t>(j);
    double L = p->limit[s], U = p->ub[s];
    HighsInt base = p->coltype[s] == 'R' ? kHighsVarTypeInteger : kHighsVarTypeContinuous;
    if (U < 0) fail("Semi-continuous column %s has a negative upper bound", colname(p, j).c_str());
    if (L <= 0) {
        // {0} together with [limit, ub] is one interval.
        b.lo[s] = L;
        b.integ[s] = base;
        return;
    }
    if (is_inf(U)) {
        // HiGHS takes these natively with the threshold as lower bound.
        b.lo[s] = L;
        b.integ[s] = base == kHighsVarTypeInteger ? kHighsVarTypeSemiInteger
                                                  : kHighsVarTypeSemiContinuous;
        return;
    }
    // x <= U z, x >= L z, z binary.
    b.lo[s] = 0;
    b.integ[s] = base;
    int z = b.add_binary();
    b.add_row({{j, 1.0}, {z, -U}}, -kInf, 0);
    b.add_row({{j, 1.0}, {z, -L}}, 0, kInf);
}

// Partial-integer columns: integer below the limit, continuous from the limit up. Split as
// x = y + w with y integer in [lb, limit], w in [0, ub - limit], and w > 0 only when y = limit.
void partial_integer(TRVOprob p, int j, Builder& b) {
    size_t s = static_cast<size_t>(j);
    double L = p->limit[s], lb = p->lb[s], ub = p->ub[s];
    if (lb >= L) return;  // always in the continuous part
    if (ub <= L) {
        b.integ[s] = kHighsVarTypeInteger;
        return;
    }
    if (is_inf(lb) || is_inf(ub))
        fail("Partial integer column %s needs finite bounds", colname(p, j).c_str());
    int y = b.add_col(lb, L, kHighsVarTypeInteger);
    int w = b.add_col(0, ub - L, kHighsVarTypeContinuous);
    int z = b.add_binary();
    b.add_row({{j, 1.0}, {y, -1.0}, {w, -1.0}}, 0, 0);
    b.add_row({{w, 1.0}, {z, -(ub - L)}}, -kInf, 0);       // w <= (ub - L) z
    b.add_row({{y, 1.0}, {z, -(L - lb)}}, lb, kInf);       // y >= lb + (L - lb) z
}

// Column j may be non-zero only when the binaries in `on` sum to 1: lb*sum <= x <= ub*sum.
void link_to_binaries(TRVOprob p, int j, const std::vector<int>& on, Builder& b, int set) {
    size_t s = static_cast<size_t>(j);
    double l = b.lo[s], u = b.up[s];
    if (u > 0) {
        if (is_inf(u))
            fail("Column %s in set %d needs a finite upper bound", colname(p, j).c_str(), set + 1);
        Row r{{j, 1.0}};
        for (int z : on) add_to_row(r, z, -u);
        b.add_row(std::move(r), -kInf, 0);
    }
    if (l < 0) {
        if (is_inf(l))
            fail("Column %s in set %d needs a finite lower bound", colname(p, j).c_str(), set + 1);
        Row r{{j, 1.0}};
        for (int z : on) add_to_row(r, z, -l);
        b.add_row(std::move(r), 0, kInf);
    }
    if (l > 0 && u > 0) {
        // The column can never be zero; its binaries must be on.
        Row r;
        for (int z : on) add_to_row(r, z, 1.0);
        b.add_row(std::move(r), 1, kInf);
    }
}

void sos(TRVOprob p, int k, Builder& b) {
    const Sos& set = p->sets[static_cast<size_t>(k)];
    size_t n = set.cols.size();
    std::vector<size_t> order(n);
    std::iota(order.begin(), order.end(), size_t(0));
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t c) { return set.weights[a] < set.weights[c]; });
    if (set.type == '1') {
        if (n < 2) return;
        Row all;
        for (size_t e : order) {
            int z = b.add_binary();
            link_to_binaries(p, set.cols[e], {z}, b, k);
            all.emplace_back(z, 1.0);
        }
        b.add_row(std::move(all), -kInf, 1);
        return;
    }
    if (n < 3) return;
    // SOS2: one binary per segment between neighbours; member i lies on segments i-1 and i.
    std::vector<int> seg(n - 1);
    Row all;
    for (size_t t = 0; t + 1 < n; ++t) {
        seg[t] = b.add_binary();
        all.emplace_back(seg[t], 1.0);
    }
    b.add_row(std::move(all), -kInf, 1);
    for (size_t t = 0; t < n; ++t) {
        std::vector<int> on;
        if (t > 0) on.push_back(seg[t - 1]);
        if (t + 1 < n) on.push_back(seg[t]);
        link_to_binaries(p, set.cols[order[t]], on, b, k);
    }
}

// Smallest and largest activity of a row over the column bounds (0 always included, since
// semi-continuous columns may also be 0), leaving out column skip.
void activity_range(const Builder& b, const Row& r, int skip, double& lo, double& hi) {
    lo = hi = 0;
    for (const auto& e : r) {
        if (e.first == skip) continue;
        size_t s = static_cast<size_t>(e.first);
        double l = std::min(b.lo[s], 0.0), u = std::max(b.up[s], 0.0);
        l = l <= -kInf ? -INFINITY : l;
        u = u >= kInf ? INFINITY : u;
        double a = e.second;
        lo += a > 0 ? a * l : a * u;
        hi += a > 0 ? a * u : a * l;
    }
}

// Indicator row i: big-M relaxation on the indicator column z, so that the row binds only
// when z has the given value. With r the row without z's own term (fixed once active):
//   upper side  r'x <= U' + M (inactive),  lower side  r'x >= L' - M (inactive),
// where inactive is 1 - z (comp 1) or z (comp -1) and M comes from the bounds of r'x.
// A two-sided row keeps its upper side and gets a new row for its lower side.
void indicator(TRVOprob p, int i, const Indicator& ind, Builder& b) {
    size_t s = static_cast<size_t>(ind.col), si = static_cast<size_t>(i);
    bool binary = p->coltype[s] == 'B' ||
                  (p->coltype[s] == 'I' && p->lb[s] >= 0 && p->ub[s] <= 1);
    if (!binary)
        fail("Indicator column %s of row %s must be binary", colname(p, ind.col).c_str(),
             rowname(p, i).c_str());
    Row r;
    double coef = 0;
    b.for_row(si, [&](int c, double v) {
        if (c == ind.col) coef = v;
        else r.emplace_back(c, v);
    });
    const double fixed = coef * (ind.comp > 0 ? 1.0 : 0.0);
    double lo_act, hi_act;
    activity_range(b, r, ind.col, lo_act, hi_act);
    const double ulim = b.rup[si], llim = b.rlo[si];
    auto need = [&](double M) {
        if (M >= kInf)
            fail("Indicator row %s needs finite bounds on its columns", rowname(p, i).c_str());
    };
    Row upper = r, lower = r;
    double ub_up = INFINITY, lb_low = -INFINITY;
    if (!is_inf(ulim)) {
        double U = ulim - fixed, M = std::max(0.0, hi_act - U);
        need(M);
        if (ind.comp > 0) {
            upper.emplace_back(ind.col, M);
            ub_up = U + M;
        } else {
            upper.emplace_back(ind.col, -M);
            ub_up = U;
        }
    }
    if (!is_inf(llim)) {
        double L = llim - fixed, M = std::max(0.0, L - lo_act);
        need(M);
        if (ind.comp > 0) {
            lower.emplace_back(ind.col, -M);
            lb_low = L - M;
        } else {
            lower.emplace_back(ind.col, M);
            lb_low = L;
        }
    }
    if (!is_inf(ulim)) {
        b.replaced[i] = std::move(upper);
        b.rlo[si] = -INFINITY;
        b.rup[si] = ub_up;
        if (!is_inf(llim)) b.add_row(std::move(lower), lb_low, INFINITY);
    } else if (!is_inf(llim)) {
        b.replaced[i] = std::move(lower);
        b.rlo[si] = lb_low;
        b.rup[si] = INFINITY;
    }
}

}  // namespace

bool has_entities(TRVOprob p) {
    if (!p->sets.empty() || !p->indicators.empty() || has_gencons(p)) return true;
    for (char t : p->coltype)
        if (t != 'C') return true;
    return false;
}

std::string nonconvexity(TRVOprob p, bool mip) {
    if (!p->qrows.empty()) return "The problem has quadratic constraints";
    if (p->qobj.empty()) return "";
    if (mip && has_entities(p)) return "The problem has a quadratic objective and integer entities";
    if (!positive_semidefinite(p->qobj, p->objsense))
        return p->objsense > 0 ? "The quadratic objective is not convex"
                               : "The quadratic objective is not concave";
    return "";
}

void row_bounds(TRVOprob p, int i, double& lo, double& up) {
    size_t s = static_cast<size_t>(i);
    double r = p->rhs[s];
    switch (p->rowtype[s]) {
        case 'L': lo = -kInf; up = r; break;
        case 'G': lo = r; up = kInf; break;
        case 'E': lo = r; up = r; break;
        case 'R': lo = r - p->range[s]; up = r; break;
        default: lo = -kInf; up = kInf; break;
    }
}

void formulate(TRVOprob p, bool mip, HighsModel& out, bool borrow) {
    const int n = p->ncols(), m = p->nrows();
    // A hand-over for a solve: the copies below and HiGHS's run then reuse the pages the
    // build's temporaries left behind, or get fresh ones, instead of adding to them.
    if (borrow) release_free_heap(static_cast<int64_t>(n) + m + p->matrix.nnz());
    Builder b(p);
    b.lo = p->lb;
    b.up = p->ub;
    b.cost.assign(static_cast<size_t>(n), 0.0);
    b.integ.assign(static_cast<size_t>(n), kHighsVarTypeContinuous);
    b.rlo.resize(static_cast<size_t>(m));
    b.rup.resize(static_cast<size_t>(m));
    for (int i = 0; i < m; ++i) row_bounds(p, i, b.rlo[static_cast<size_t>(i)], b.rup[static_cast<size_t>(i)]);
    if (mip) {
        for (int j = 0; j < n; ++j) {
            switch (p->coltype[static_cast<size_t>(j)]) {
                case 'I': case 'B': b.integ[static_cast<size_t>(j)] = kHighsVarTypeInteger; break;
                case 'S': case 'R': semicontinuous(p, j, b); break;
                case 'P': partial_integer(p, j, b); break;
            }
        }
        if (has_gencons(p)) formulate_gencons(p, ModelParts{b.cost, b.lo, b.up, b.integ, b.extra, b.rlo, b.rup});
        for (int k = 0; k < static_cast<int>(p->sets.size()); ++k) sos(p, k, b);
        for (const auto& kv : p->indicators) indicator(p, kv.first, kv.second, b);
    } else {
        // The continuous relaxation: semi-continuous domains become their hull, indicator
        // rows are dropped.
        for (int j = 0; j < n; ++j) {
            char t = p->coltype[static_cast<size_t>(j)];
            if (t == 'S' || t == 'R') {
                size_t s = static_cast<size_t>(j);
                b.lo[s] = std::min(0.0, std::min(p->limit[s], b.lo[s] > 0 ? 0.0 : b.lo[s]));
                b.up[s] = std::max(0.0, b.up[s]);
            }
        }
        for (const auto& kv : p->indicators) {
            size_t s = static_cast<size_t>(kv.first);
            b.rlo[s] = -kInf;
            b.rup[s] = kInf;
        }
    }

    out = HighsModel();
    out.sign = p->objsense > 0 ? 1.0 : -1.0;
    out.ncol = static_cast<int>(b.lo.size());
    out.nrow = static_cast<int>(b.nrows());
    out.offset = out.sign * p->objconst;
    out.cost = std::move(b.cost);
    for (int j = 0; j < n; ++j) out.cost[static_cast<size_t>(j)] = out.sign * p->obj[static_cast<size_t>(j)];
    out.col_lower = std::move(b.lo);
    out.col_upper = std::move(b.up);
    for (auto& v : out.col_lower) if (v <= -kInf) v = -INFINITY;
    for (auto& v : out.col_upper) if (v >= kInf) v = INFINITY;
    out.row_lower = std::move(b.rlo);
    out.row_upper = std::move(b.rup);
    for (auto& v : out.row_lower) if (v <= -kInf) v = -INFINITY;
    for (auto& v : out.row_upper) if (v >= kInf) v = INFINITY;
    out.discrete = false;
    for (HighsInt t : b.integ) out.discrete = out.discrete || t != kHighsVarTypeContinuous;
    if (out.discrete) out.integrality = std::move(b.integ);
    static_assert(sizeof(HighsInt) == sizeof(int), "the store's column indices are HiGHS's");
    if (borrow && b.extra.empty() && b.replaced.empty()) {
        // The user's rows as they stand: HiGHS reads them from the store.
        if (p->matrix.nnz() > 2147483647) fail("The matrix has more entries than HiGHS can take");
        p->matrix.pack();
        out.a_start = p->matrix.row_starts();
        out.a_index_view = p->matrix.cols();
        out.a_value_view = p->matrix.values();
        out.nnz_view = static_cast<HighsInt>(p->matrix.nnz());
    } else {
        size_t nnz = 0;
        for (size_t i = 0; i < b.nrows(); ++i) nnz += b.row_size(i);
        out.a_start.reserve(b.nrows() + 1);
        out.a_index.reserve(nnz);
        out.a_value.reserve(nnz);
        for (size_t i = 0; i < b.nrows(); ++i) {
            out.a_start.push_back(static_cast<HighsInt>(out.a_index.size()));
            b.for_row(i, [&](int c, double v) {
                if (v == 0.0) return;
                out.a_index.push_back(c);
                out.a_value.push_back(v);
            });
        }
    }
    if (!p->qobj.empty()) {
        // Lower triangle column-wise: entry (i, j), i <= j, goes to column i, row j.
        out.q_start.assign(static_cast<size_t>(out.ncol), 0);
        int col = 0;
        for (const auto& kv : p->qobj) {
            while (col <= kv.first.first) out.q_start[static_cast<size_t>(col++)] =
                static_cast<HighsInt>(out.q_index.size());
            out.q_index.push_back(kv.first.second);
            out.q_value.push_back(out.sign * kv.second);
        }
        while (col < out.ncol) out.q_start[static_cast<size_t>(col++)] =
            static_cast<HighsInt>(out.q_index.size());
    }
}

}  // namespace trvo
