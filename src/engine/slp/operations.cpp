// Whole-problem operations outside a solve: the problem's states, evaluation and validation
// at the current point, cascading on demand, and reports through the message callback.
#include "engine/slp/kkt.h"
#include "engine/slp/presolve.h"
#include "engine/slp/solver.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <functional>
#include <set>

namespace slp {
namespace {

// Reports of the operations the user asked for go out whatever the log level.
constexpr int kAlways = INT_MIN;

Model model_of(TSLPprob prob) {
    Model m = read_model(prob);
    apply_dfs(prob, m);
    return m;
}

// Keeps a point as the problem's current solution values (the slacks follow the point).
void store_point(TSLPprob prob, Evaluator& E, const Model& m, const std::vector<double>& x) {
    Solution& s = prob->sol;
    if ((int)s.x.size() != m.ncols || (int)s.slack.size() != m.nrows) {
        s.dual.assign(m.nrows, 0.0);
        s.dj.assign(m.ncols, 0.0);
        s.rows.assign(m.nrows, RowInfo());
        s.cols.assign(m.ncols, ColInfo());
    }
    s.x = x;
    s.slack.assign(m.nrows, 0.0);
    for (int r = 0; r < m.nrows; ++r) {
        double v = 0.0;
        if (E.row_value(r, x.data(), &v)) s.slack[r] = m.rhs[r] - v;
    }
    for (auto& kv : prob->vars)
        if (kv.first < m.ncols) kv.second.value = x[kv.first];
}

// Relative violation of a row: the violation over the size of its bound.
double row_violation(const Model& m, int r, double v, double* relative) {
    double lo, up;
    row_bounds(m, r, &lo, &up);
    double viol = v < lo ? lo - v : v > up ? v - up : 0.0;
    double ref = std::isfinite(up) ? up : std::isfinite(lo) ? lo : 0.0;
    if (relative) *relative = viol / (1.0 + std::fabs(ref));
    return viol;
}

// Sequence numbers that cascade each determined column after the determined columns its
// row reads (depth-first over the dependencies; cycles are broken where they close).
void order_cascade(TSLPprob prob, const Model& m) {
    Evaluator E(prob, m);
    std::map<int, std::vector<int>> reads;   // determined column -> determined columns its row uses
    for (auto& kv : prob->vars) {
        int j = kv.first, r = kv.second.detrow;
        if (r < 0 || r >= m.nrows || j >= m.ncols) continue;
        std::set<int> cols;
        int k = E.nlpos[r];
        if (k >= 0) cols.insert(E.pattern[k].begin(), E.pattern[k].end());
        for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e) cols.insert(m.rcol[e]);
        std::vector<int>& dep = reads[j];
        for (int c : cols) {
            if (c == j) continue;
            auto it = prob->vars.find(c);
            if (it != prob->vars.end() && it->second.detrow >= 0 && it->second.detrow < m.nrows) dep.push_back(c);
        }
    }
    std::map<int, int> mark;   // 1 visiting, 2 done
    int next = 1;
    std::function<void(int)> visit = [&](int j) {
        if (mark[j]) return;
        mark[j] = 1;
        for (int c : reads[j]) visit(c);
        mark[j] = 2;
        prob->vars[j].seqnum = next++;
    };
    for (auto& kv : reads) visit(kv.first);
}

}  // namespace
}  // namespace slp

using slp::Error;
using slp::guard;

extern "C" {

int TSLPconstruct(TSLPprob prob) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::Model m = slp::model_of(prob);
        slp::Evaluator E(prob, m);   // compiles every formula: malformed data is reported here
        prob->state |= TSLP_STATE_CONSTRUCTED;
        if (prob->cb.construct.f) prob->cb.construct.f(prob, prob->cb.construct.context);
    });
}

int TSLPunconstruct(TSLPprob prob) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        prob->state &= ~TSLP_STATE_CONSTRUCTED;
    });
}

int TSLPpresolve(TSLPprob prob) {
    // Runs the presolve a solve applies (with TSLP_PRESOLVE 1) and reports what it finds; the
    // problem's own data are left as they are.
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::Model m = slp::model_of(prob);
        slp::Evaluator E(prob, m);
        slp::log_presolve(prob, slp::kAlways, slp::presolve_model(prob, m));
        prob->state |= TSLP_STATE_PRESOLVED | TSLP_STATE_CONSTRUCTED;
    });
}

int TSLPpostsolve(TSLPprob prob) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        prob->state &= ~TSLP_STATE_PRESOLVED;
    });
}

int TSLPreinitialize(TSLPprob prob) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        prob->sol = slp::Solution();
        prob->nlpstatus = TSLP_NLP_UNSTARTED;
        prob->stopstatus = 0;
        prob->iter = prob->simplexiter = prob->mipiter = prob->mswinner = prob->penaltyerrors = 0;
        prob->objval = prob->errorcosts = prob->maxviolation = prob->currentpenalty = 0.0;
        prob->kktresidual = prob->time = 0.0;
        for (auto& kv : prob->vars) {
            kv.second.stepbound = 0.0;
            kv.second.history = kv.second.converged = 0;
            kv.second.value = 0.0;
        }
        prob->state &= ~(TSLP_STATE_CONSTRUCTED | TSLP_STATE_PRESOLVED);
    });
}

int TSLPupdatelinearization(TSLPprob prob) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::Model m = slp::model_of(prob);
        slp::Evaluator E(prob, m);
        std::vector<double> x = slp::current_point(prob, m), g(m.ncols, 0.0);
        for (size_t k = 0; k < E.nlrows.size(); ++k) {
            double v;
            if (!E.nlrow_grad((int)k, x.data(), &v, g.data()))
                throw Error("Row " + std::to_string(E.nlrows[k]) + " cannot be evaluated at the current point");
        }
        slp::store_point(prob, E, m, x);
        prob->state |= TSLP_STATE_CONSTRUCTED;
    });
}

int TSLPsetcurrentiv(TSLPprob prob) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::Model m = slp::model_of(prob);
        slp::Evaluator E(prob, m);
        std::vector<double> x = slp::current_point(prob, m);
        std::set<int> cols;
        for (auto& kv : prob->vars) cols.insert(kv.first);
        for (auto& t : E.tapes) cols.insert(t.cols.begin(), t.cols.end());
        for (int j : cols) {
            if (j < 0 || j >= m.ncols) continue;
            slp::SlpVar& v = prob->vars[j];
            v.initvalue = x[j];
            v.has_initvalue = true;
        }
    });
}

int TSLPscaling(TSLPprob prob) {
    // Row weights that bring every nonlinear row's gradient at the current point to unit
    // size, so that the penalty treats the rows' errors alike. Weights the user set stay.
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::Model m = slp::model_of(prob);
        slp::Evaluator E(prob, m);
        std::vector<double> x = slp::current_point(prob, m), g(m.ncols, 0.0);
        for (size_t k = 0; k < E.nlrows.size(); ++k) {
            int r = E.nlrows[k];
            if (prob->rowwt.count(r)) continue;
            double v, big = 0.0;
            if (!E.nlrow_grad((int)k, x.data(), &v, g.data())) continue;
            for (int j : E.pattern[k]) big = std::max(big, std::fabs(g[j]));
            if (big > 0.0 && std::isfinite(big)) prob->rowwt[r] = std::min(1e6, std::max(1e-6, 1.0 / big));
        }
    });
}

int TSLPcascadeorder(TSLPprob prob) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::order_cascade(prob, slp::model_of(prob));
    });
}

int TSLPcascade(TSLPprob prob) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::Model m = slp::model_of(prob);
        slp::Evaluator E(prob, m);
        std::vector<double> x = slp::current_point(prob, m);
        int failed = slp::cascade(prob, E, m, x);
        slp::store_point(prob, E, m, x);
        if (failed) slp::logf(prob, slp::kAlways, "Cascading: %d determined columns could not be recomputed", failed);
    });
}

int TSLPfixpenalties(TSLPprob prob, int* status) {
    // Fixes the penalty factor of every row at its current value as the row weight, so a
    // later solve starts from the penalties this one ended with. *status: the number of rows
    // whose error is still positive at the current point.
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::Model m = slp::model_of(prob);
        slp::Evaluator E(prob, m);
        std::vector<double> x = slp::current_point(prob, m);
        double feastol = slp::dbl_control(prob, TSLP_FEASTOL);
        int errors = 0;
        for (int r = 0; r < m.nrows; ++r) {
            double v;
            if (!E.row_value(r, x.data(), &v) || slp::row_violation(m, r, v, nullptr) > feastol) ++errors;
            if (r < (int)prob->sol.rows.size() && prob->sol.rows[r].penaltyfactor > 0 && prob->currentpenalty > 0)
                prob->rowwt[r] = prob->sol.rows[r].penaltyfactor / prob->currentpenalty;
        }
        if (status) *status = errors;
    });
}

int TSLPvalidate(TSLPprob prob) {
    // Validation indices at the current point: the largest absolute and relative violation
    // of any row (nonlinear parts evaluated exactly).
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::Model m = slp::model_of(prob);
        slp::Evaluator E(prob, m);
        std::vector<double> x = slp::current_point(prob, m);
        double worst_a = 0.0, worst_r = 0.0;
        int worst_row = -1;
        for (int r = 0; r < m.nrows; ++r) {
            double v, rel;
            if (!E.row_value(r, x.data(), &v)) throw Error("Row " + std::to_string(r) + " cannot be evaluated at the current point");
            double a = slp::row_violation(m, r, v, &rel);
            if (a > worst_a) worst_a = a, worst_row = r;
            worst_r = std::max(worst_r, rel);
        }
        prob->validation_a = worst_a;
        prob->validation_r = worst_r;
        if (worst_row >= 0)
            slp::logf(prob, slp::kAlways, "Validation: largest violation %g (relative %g) in row %d", worst_a, worst_r, worst_row);
        else
            slp::logf(prob, slp::kAlways, "Validation: every row holds at the current point");
    });
}

int TSLPvalidatevector(TSLPprob prob, const double vector[], double* suminf, double* sumscaledinf, double* objval) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        if (!vector) throw Error("No vector given to validate");
        slp::Model m = slp::model_of(prob);
        slp::Evaluator E(prob, m);
        double s = 0.0, ss = 0.0;
        double worst = slp::max_violation(E, m, vector, &s, &ss);
        if (!std::isfinite(worst)) throw Error("The formulas cannot be evaluated at the given vector");
        if (suminf) *suminf = s;
        if (sumscaledinf) *sumscaledinf = ss;
        if (objval) *objval = E.objective(vector, nullptr);
    });
}

int TSLPvalidaterow(TSLPprob prob, int row) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::Model m = slp::model_of(prob);
        if (row < 0 || row >= m.nrows) throw Error("Row index " + std::to_string(row) + " out of range");
        slp::Evaluator E(prob, m);
        std::vector<double> x = slp::current_point(prob, m);
        double v, rel;
        if (!E.row_value(row, x.data(), &v)) throw Error("Row " + std::to_string(row) + " cannot be evaluated at the current point");
        double lo, up;
        slp::row_bounds(m, row, &lo, &up);
        double a = slp::row_violation(m, row, v, &rel);
        slp::logf(prob, slp::kAlways, "Row %d: activity %.12g, bounds [%g, %g], violation %g (relative %g)", row, v, lo, up, a, rel);
    });
}

int TSLPvalidatekkt(TSLPprob prob, int calculationmode, int respectbasisstatus, int updatemultipliers,
                    double kktviolationtarget) {
    // KKT residual of the last solution from the exact gradients at its point and the row
    // multipliers alone: the largest reduced cost grad f - sum_i dual_i grad g_i that the
    // column's bounds do not absorb, the largest multiplier of the wrong sign for its row and,
    // unless respectbasisstatus is 1, the largest multiplier times its row's distance to the
    // bound it holds. calculationmode 0 divides by max(1, largest objective gradient entry),
    // as the solver's own test does; 1 gives the absolute value. updatemultipliers 1 first
    // replaces the multipliers by those of the rows active at the point that make the residual
    // smallest (and the reduced costs follow).
    return guard(prob, [&] {
        slp::check_prob(prob);
        if (calculationmode < 0 || calculationmode > 1) throw Error("Invalid calculation mode in validatekkt");
        if (respectbasisstatus < 0 || respectbasisstatus > 1 || updatemultipliers < 0 || updatemultipliers > 1)
            throw Error("Invalid flags in validatekkt");
        slp::Model m = slp::model_of(prob);
        slp::Solution& s = prob->sol;
        if (prob->nlpstatus == TSLP_NLP_UNSTARTED || (int)s.dual.size() != m.nrows || (int)s.x.size() != m.ncols)
            throw Error("No nonlinear solution is available");
        slp::Evaluator E(prob, m);
        double sense = slp::dbl_control(prob, TSLP_OBJSENSE) < 0 ? -1.0 : 1.0;
        double feastol = slp::dbl_control(prob, TSLP_FEASTOL);
        std::vector<char> isint(m.ncols, 0);
        for (int j = 0; j < m.ncols; ++j) isint[j] = m.coltype[j] == 'I' || m.coltype[j] == 'B';
        const double* x = s.x.data();
        if (updatemultipliers) {
            std::vector<double> y;
            if (!slp::estimate_multipliers(prob, E, m, sense, x, feastol, y, isint.data()))
                throw Error("The multipliers could not be estimated at the current solution");
            s.dual = y;
        }
        slp::KktCheck c;
        std::vector<double> dj(m.ncols, 0.0);
        if (!slp::kkt_residual(E, m, sense, x, s.dual.data(), feastol, &c, dj.data(), isint.data()))
            throw Error("The formulas cannot be evaluated at the current solution");
        if (updatemultipliers) {
            s.dj = dj;
            for (int j = 0; j < (int)s.cols.size() && j < m.ncols; ++j) s.cols[j].rdj = dj[j];
        }
        double res = std::max(c.stationarity, respectbasisstatus ? c.sign : std::max(c.sign, c.complementarity));
        if (calculationmode == 0) res /= c.scale;
        prob->kktresidual = res;
        slp::logf(prob, slp::kAlways, "KKT residual %g%s", res,
                  kktviolationtarget > 0 ? (res <= kktviolationtarget ? " (within the target)" : " (above the target)") : "");
    });
}

int TSLPprintevalinfo(TSLPprob prob) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::Model m = slp::model_of(prob);
        slp::Evaluator E(prob, m);
        size_t tokens = 0;
        for (auto& kv : prob->coefs) tokens += kv.second.formula.type.size();
        size_t nodes = 0;
        for (auto& t : E.tapes) nodes += t.nodes.size();
        slp::logf(prob, slp::kAlways, "Nonlinear coefficients %zu (%zu tokens) in %zu rows; %zu tape nodes; %zu user functions",
                  prob->coefs.size(), tokens, E.nlrows.size(), nodes, prob->userfuncs.size());
        for (size_t i = 0; i < prob->userfuncs.size(); ++i) {
            const slp::UserFunc& u = prob->userfuncs[i];
            slp::logf(prob, slp::kAlways, "  user function %zu %s: %s, %s", i + 1, u.name.c_str(),
                      u.address ? "callable" : "no address", u.derivatives ? "returns derivatives" : "numerical derivatives");
        }
    });
}

int TSLPprintmemory(TSLPprob prob) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        size_t coef = 0;
        for (auto& kv : prob->coefs)
            coef += sizeof(kv) + kv.second.formula.type.size() * (sizeof(int) + sizeof(double));
        size_t vars = prob->vars.size() * (sizeof(int) + sizeof(slp::SlpVar));
        size_t sol = (prob->sol.x.size() + prob->sol.dj.size()) * sizeof(double) +
                     (prob->sol.slack.size() + prob->sol.dual.size()) * sizeof(double) +
                     prob->sol.rows.size() * sizeof(slp::RowInfo) + prob->sol.cols.size() * sizeof(slp::ColInfo);
        slp::logf(prob, slp::kAlways, "Memory: coefficients %zu bytes, variables %zu bytes, tolerance sets %zu bytes, solution %zu bytes",
                  coef, vars, prob->tolsets.size() * sizeof(slp::TolSet), sol);
    });
}

}  // extern "C"
