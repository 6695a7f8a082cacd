// Presolve of a run's model (see presolve.h).
#include "engine/slp/presolve.h"

#include "engine/slp/evaluate.h"
#include "engine/slp/solver.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace slp {

namespace {

bool infinite(double v) { return v <= -TRVO_INFINITY || v >= TRVO_INFINITY; }

bool is_fixed(const Model& m, int j) { return m.lb[j] == m.ub[j] && !infinite(m.lb[j]); }

// Replaces the linear part of row r by the given entries.
void set_row(Model& m, int r, const std::vector<int>& cols, const std::vector<double>& vals) {
    std::vector<int64_t> start(m.nrows + 1, 0);
    std::vector<int> rc;
    std::vector<double> rv;
    for (int i = 0; i < m.nrows; ++i) {
        if (i == r) {
            rc.insert(rc.end(), cols.begin(), cols.end());
            rv.insert(rv.end(), vals.begin(), vals.end());
        } else {
            rc.insert(rc.end(), m.rcol.begin() + m.rstart[i], m.rcol.begin() + m.rstart[i + 1]);
            rv.insert(rv.end(), m.rval.begin() + m.rstart[i], m.rval.begin() + m.rstart[i + 1]);
        }
        start[i + 1] = (int64_t)rc.size();
    }
    m.rstart.swap(start);
    m.rcol.swap(rc);
    m.rval.swap(rv);
}

// Columns the nonlinear part of row r reads other than as a coefficient's own column: the
// formulas' columns and both columns of every quadratic term with no fixed factor.
std::set<int> curved_columns(TSLPprob prob, const Model& m, int r) {
    std::set<int> cols;
    for (auto it = prob->coefs.lower_bound({r, -1 - 1}); it != prob->coefs.end() && it->first.first == r; ++it) {
        Tape t;
        compile_coef(t, -1, it->second);
        t.finish();
        cols.insert(t.cols.begin(), t.cols.end());
    }
    auto q = m.qrows.find(r);
    if (q != m.qrows.end())
        for (size_t k = 0; k < q->second.v.size(); ++k) {
            int i = q->second.i[k], j = q->second.j[k];
            if (!is_fixed(m, i) && !is_fixed(m, j)) cols.insert(i), cols.insert(j);
        }
    return cols;
}

bool has_nonlinear_part(TSLPprob prob, const Model& m, int r) {
    if (!m.nlskip.empty() && m.nlskip[r]) return false;
    auto it = prob->coefs.lower_bound({r, -1 - 1});
    return (it != prob->coefs.end() && it->first.first == r) || m.qrows.count(r);
}

}  // namespace

PresolveSummary presolve_model(TSLPprob prob, Model& m) {
    PresolveSummary s;
    if (m.nlskip.empty()) m.nlskip.assign(m.nrows, 0);
    const double feastol = dbl_control(prob, TSLP_FEASTOL);
    std::vector<double> z(m.ncols, 0.0);
    bool changed = true;
    while (changed) {
        changed = false;
        for (int j = 0; j < m.ncols; ++j) z[j] = is_fixed(m, j) ? m.lb[j] : 0.0;
        // Nonlinear rows that are linear in their unfixed columns.
        for (int r = 0; r < m.nrows; ++r) {
            if (!has_nonlinear_part(prob, m, r)) continue;
            std::set<int> curved = curved_columns(prob, m, r);
            bool linear = true;
            for (int j : curved) linear = linear && j >= 0 && j < m.ncols && is_fixed(m, j);
            if (!linear) continue;
            Evaluator E(prob, m);
            int k = E.nlpos[r];
            std::vector<double> g(m.ncols, 0.0);
            double v0;
            if (k < 0 || !E.nlrow_grad(k, z.data(), &v0, g.data())) continue;
            // value(x) = v0 + sum over unfixed columns of g_j x_j (z is 0 there).
            std::vector<int> cols;
            std::vector<double> vals;
            for (int j : E.pattern[k])
                if (!is_fixed(m, j) && g[j] != 0.0) cols.push_back(j), vals.push_back(g[j]);
            set_row(m, r, cols, vals);
            m.rhs[r] -= v0;
            m.nlskip[r] = 1;
            m.qrows.erase(r);
            ++s.linearised;
            changed = true;
        }
        // Linear rows: determined columns and rows with every column fixed.
        for (int r = 0; r < m.nrows; ++r) {
            if (m.rowtype[r] == 'N' || has_nonlinear_part(prob, m, r)) continue;
            double fixedpart = 0.0, a = 0.0;
            int free_col = -1, nfree = 0;
            for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e) {
                int j = m.rcol[e];
                if (is_fixed(m, j)) fixedpart += m.rval[e] * m.lb[j];
                else if (m.rval[e] != 0.0) {
                    if (j != free_col) ++nfree;
                    free_col = j;
                    a += m.rval[e];
                }
            }
            double lo, up;
            row_bounds(m, r, &lo, &up);
            if (nfree == 0) {
                double viol = fixedpart < lo ? lo - fixedpart : fixedpart > up ? fixedpart - up : 0.0;
                if (viol <= feastol) {
                    m.rowtype[r] = 'N';
                    ++s.dropped;
                    changed = true;
                }
                continue;
            }
            if (nfree != 1 || m.rowtype[r] != 'E' || a == 0.0) continue;
            double v = (m.rhs[r] - fixedpart) / a;
            int j = free_col;
            bool integer = m.coltype[j] == 'I' || m.coltype[j] == 'B';
            if (integer) {
                if (std::fabs(v - std::round(v)) > 1e-9) continue;
                v = std::round(v);
            }
            if (v < m.lb[j] - feastol || v > m.ub[j] + feastol) continue;   // the solver reports it
            m.lb[j] = m.ub[j] = std::min(std::max(v, m.lb[j]), m.ub[j]);
            m.rowtype[r] = 'N';
            ++s.fixed;
            ++s.dropped;
            changed = true;
        }
    }
    // Bounds implied by the linear rows' activity ranges.
    for (int r = 0; r < m.nrows; ++r) {
        if (m.rowtype[r] == 'N' || has_nonlinear_part(prob, m, r)) continue;
        double lo, up;
        row_bounds(m, r, &lo, &up);
        double minact = 0.0, maxact = 0.0;
        int mininf = 0, maxinf = 0;
        for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e) {
            int j = m.rcol[e];
            double a = m.rval[e], l = m.lb[j], u = m.ub[j];
            double lo_c = a > 0 ? l : u, up_c = a > 0 ? u : l;   // column values giving min / max
            if (infinite(lo_c)) ++mininf;
            else minact += a * lo_c;
            if (infinite(up_c)) ++maxinf;
            else maxact += a * up_c;
        }
        for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e) {
            int j = m.rcol[e];
            double a = m.rval[e];
            if (a == 0.0 || is_fixed(m, j)) continue;
            double l = m.lb[j], u = m.ub[j];
            double lo_c = a > 0 ? l : u, up_c = a > 0 ? u : l;
            // Activity of the other columns.
            bool rest_min_ok = mininf == 0 || (mininf == 1 && infinite(lo_c));
            bool rest_max_ok = maxinf == 0 || (maxinf == 1 && infinite(up_c));
            double rest_min = minact - (infinite(lo_c) ? 0.0 : a * lo_c);
            double rest_max = maxact - (infinite(up_c) ? 0.0 : a * up_c);
            double nl = -INFINITY, nu = INFINITY;   // implied bounds of a * x_j
            if (std::isfinite(up) && rest_min_ok) nu = up - rest_min;
            if (std::isfinite(lo) && rest_max_ok) nl = lo - rest_max;
            double bl = a > 0 ? nl / a : nu / a, bu = a > 0 ? nu / a : nl / a;
            bool integer = m.coltype[j] == 'I' || m.coltype[j] == 'B';
            if (std::isfinite(bl)) {
                bl -= 1e-9 * (1.0 + std::fabs(bl));   // outward, against rounding
                if (integer) bl = std::ceil(bl - 1e-6);
                if (bl > l + 1e-6 * (1.0 + std::fabs(bl)) && bl <= u) {
                    m.lb[j] = bl;
                    ++s.tightened;
                }
            }
            if (std::isfinite(bu)) {
                bu += 1e-9 * (1.0 + std::fabs(bu));
                if (integer) bu = std::floor(bu + 1e-6);
                if (bu < u - 1e-6 * (1.0 + std::fabs(bu)) && bu >= m.lb[j]) {
                    m.ub[j] = bu;
                    ++s.tightened;
                }
            }
        }
    }
    return s;
}

void log_presolve(TSLPprob prob, int level, const PresolveSummary& s) {
    logf(prob, level, "Presolve: %d columns fixed, %d rows dropped, %d rows made linear, %d bounds tightened", s.fixed,
         s.dropped, s.linearised, s.tightened);
}

}  // namespace slp
