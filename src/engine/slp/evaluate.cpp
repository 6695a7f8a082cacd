// Row and objective evaluation for the nonlinear solver and the validation calls.
#include "engine/slp/evaluate.h"

#include <algorithm>
#include <cmath>

namespace slp {

void apply_dfs(TSLPprob prob, Model& m) {
    if (prob->dfs.empty()) return;
    for (int r = 0; r < m.nrows; ++r)
        for (int64_t k = m.rstart[r]; k < m.rstart[r + 1]; ++k) {
            auto it = prob->dfs.find({m.rcol[k], r});
            if (it != prob->dfs.end()) m.rval[k] *= it->second;
        }
}

int compile_coef(Tape& tape, int col, const Coef& c) {
    int r = tape.compile(c.formula);
    if (col >= 0) r = tape.binary(N_MUL, r, tape.column(col));
    if (c.factor != 1.0) r = tape.binary(N_MUL, tape.constant(c.factor), r);
    return r;
}

double quad_value(const Quad& q, const double* x) {
    double s = 0.0;
    for (size_t k = 0; k < q.v.size(); ++k) s += q.v[k] * x[q.i[k]] * x[q.j[k]];
    return s;
}

void quad_grad(const Quad& q, const double* x, double* g) {
    for (size_t k = 0; k < q.v.size(); ++k) {
        g[q.i[k]] += q.v[k] * x[q.j[k]];
        g[q.j[k]] += q.v[k] * x[q.i[k]];
    }
}

Evaluator::Evaluator(TSLPprob p, const Model& model) : prob(p), m(model) {
    PhaseScope timed(p->profile, PH_COMPILE);
    uc.prob = p;
    uc.numerical = int_control(p, TSLP_DERIVATIVES) != 0;
    uc.delta_x = dbl_control(p, TSLP_DELTA_X);
    nlpos.assign(m.nrows, -1);
    std::vector<int> rows;
    for (auto& kv : p->coefs) {
        int r = kv.first.first;
        if (r < 0 || r >= m.nrows)
            throw Error("Nonlinear coefficient in row " + std::to_string(r) + ", which does not exist");
        int c = kv.first.second;
        if (c < -1 || c >= m.ncols)
            throw Error("Nonlinear coefficient in column " + std::to_string(c) + ", which does not exist");
        if (!m.nlskip.empty() && m.nlskip[r]) continue;   // made linear by presolve
        rows.push_back(r);
    }
    for (auto& kv : m.qrows) rows.push_back(kv.first);
    std::sort(rows.begin(), rows.end());
    rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
    nlrows = rows;
    tapes.resize(rows.size());
    roots.assign(rows.size(), -1);
    pattern.resize(rows.size());
    ev.resize(rows.size());
    for (size_t k = 0; k < rows.size(); ++k) nlpos[rows[k]] = (int)k;
    for (auto& kv : p->coefs) {
        if (!m.nlskip.empty() && m.nlskip[kv.first.first]) continue;
        int k = nlpos[kv.first.first];
        Tape& t = tapes[k];
        int r;
        try {
            r = compile_coef(t, kv.first.second, kv.second);
        } catch (const Error& e) {
            throw Error("Coefficient (" + std::to_string(kv.first.first) + ", " +
                        std::to_string(kv.first.second) + "): " + e.what());
        }
        roots[k] = roots[k] < 0 ? r : t.binary(N_ADD, roots[k], r);
    }
    for (size_t k = 0; k < rows.size(); ++k) {
        Tape& t = tapes[k];
        t.finish();
        for (int c : t.cols)
            if (c >= m.ncols) throw Error("Formula refers to column " + std::to_string(c) + ", which does not exist");
        std::vector<int>& pat = pattern[k];
        pat = t.cols;
        int r = rows[k];
        for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e) pat.push_back(m.rcol[e]);
        auto q = m.qrows.find(r);
        if (q != m.qrows.end()) {
            pat.insert(pat.end(), q->second.i.begin(), q->second.i.end());
            pat.insert(pat.end(), q->second.j.begin(), q->second.j.end());
        }
        std::sort(pat.begin(), pat.end());
        pat.erase(std::unique(pat.begin(), pat.end()), pat.end());
    }
    qobj = m.qobj;
    for (int j = 0; j < m.ncols; ++j)
        if (m.obj[j] != 0.0) objpattern.push_back(j);
    objpattern.insert(objpattern.end(), qobj.i.begin(), qobj.i.end());
    objpattern.insert(objpattern.end(), qobj.j.begin(), qobj.j.end());
    std::sort(objpattern.begin(), objpattern.end());
    objpattern.erase(std::unique(objpattern.begin(), objpattern.end()), objpattern.end());
}

bool Evaluator::row_value(int row, const double* x, double* value) {
    PhaseScope timed(prob->profile, PH_EVAL);
    double s = 0.0;
    for (int64_t e = m.rstart[row]; e < m.rstart[row + 1]; ++e) s += m.rval[e] * x[m.rcol[e]];
    int k = nlpos[row];
    if (k >= 0) {
        auto q = m.qrows.find(row);
        if (q != m.qrows.end()) s += quad_value(q->second, x);
        if (roots[k] >= 0) {
            if (!forward(tapes[k], x, ev[k], uc, false)) return false;
            s += ev[k].val[roots[k]];
        }
    }
    *value = s;
    return std::isfinite(s);
}

bool Evaluator::nlrow_grad(int k, const double* x, double* value, double* g) {
    PhaseScope timed(prob->profile, PH_EVAL);
    int row = nlrows[k];
    for (int c : pattern[k]) g[c] = 0.0;
    double s = 0.0;
    for (int64_t e = m.rstart[row]; e < m.rstart[row + 1]; ++e) {
        s += m.rval[e] * x[m.rcol[e]];
        g[m.rcol[e]] += m.rval[e];
    }
    auto q = m.qrows.find(row);
    if (q != m.qrows.end()) {
        s += quad_value(q->second, x);
        quad_grad(q->second, x, g);
    }
    if (roots[k] >= 0) {
        if (!forward(tapes[k], x, ev[k], uc, true)) return false;
        s += ev[k].val[roots[k]];
        reverse(tapes[k], roots[k], ev[k], 1.0, g);
    }
    *value = s;
    if (!std::isfinite(s)) return false;
    for (int c : pattern[k])
        if (!std::isfinite(g[c])) return false;
    return true;
}

double Evaluator::objective(const double* x, double* g) const {
    PhaseScope timed(prob->profile, PH_EVAL);
    double f = m.objconst;
    for (int j : objpattern) f += m.obj[j] * x[j];
    f += quad_value(qobj, x);
    if (g) {
        for (int j : objpattern) g[j] = m.obj[j];
        quad_grad(qobj, x, g);
    }
    return f;
}

namespace {
double project_zero(double lb, double ub) {
    if (lb > 0) return lb;
    if (ub < 0) return ub;
    return 0.0;
}
}  // namespace

std::vector<double> initial_point(TSLPprob prob, const Model& m) {
    std::vector<double> x(m.ncols);
    for (int j = 0; j < m.ncols; ++j) {
        auto it = prob->vars.find(j);
        if (it != prob->vars.end() && it->second.has_initvalue) x[j] = it->second.initvalue;
        else x[j] = project_zero(m.lb[j], m.ub[j]);
    }
    return x;
}

std::vector<double> current_point(TSLPprob prob, const Model& m) {
    // A solve or an operation such as cascading leaves its point in the solution values.
    if ((int)prob->sol.x.size() == m.ncols) return prob->sol.x;
    return initial_point(prob, m);
}

}  // namespace slp
