// Better integer assignments for mixed-integer nonlinear problems by outer approximation.
//
// Mixed-integer SLP settles on the integer assignment its linearisations lead to, which on
// many problems is not the best one. After it, a master MIP over the model's linear rows and the
// tangent cuts of the nonlinear rows and the quadratic objective at every point solved so far
// proposes a new assignment; the continuous problem with those integers fixed is solved by SLP,
// its solution adds cuts, and the best solution found is kept. For convex problems the master's
// value is a lower bound, so the loop ends with a proven optimum; for others it is a heuristic
// that never returns anything worse than the assignment it started from.
#include "engine/slp/solver.h"
#include "engine/optimizer/highs_instances.h"

#include "interfaces/highs_c_api.h"

#include <cxxabi.h>
#include <chrono>
#include <cmath>
#include <set>

namespace slp {
namespace {

constexpr int kMaxMasters = 25;

bool usable(const RunResult& r) {
    return r.status == TSLP_NLP_LOCALLY_OPTIMAL || r.status == TSLP_NLP_GLOBALLY_OPTIMAL;
}

// A point with the row multipliers of the run that produced it (empty when it has none).
struct Point {
    std::vector<double> x, dual;
};

struct Master {
    int ncols = 0;
    std::vector<double> lo, up, cost;
    std::vector<HighsInt> integ;
    std::vector<HighsInt> start, index;
    std::vector<double> value, rlo, rup;

    void add_row(const std::vector<std::pair<int, double>>& r, double l, double u) {
        start.push_back(static_cast<HighsInt>(index.size()));
        for (const auto& e : r)
            if (e.second != 0.0) {
                index.push_back(e.first);
                value.push_back(e.second);
            }
        rlo.push_back(l);
        rup.push_back(u);
    }
};

double finite_or_inf(double v) { return v >= TRVO_INFINITY ? INFINITY : v <= -TRVO_INFINITY ? -INFINITY : v; }

class OuterApproximation {
public:
    OuterApproximation(TSLPprob p, const Model& model) : prob(p), m(model), E(p, model) {
        sense = dbl_control(prob, TSLP_OBJSENSE) < 0 ? -1.0 : 1.0;
        for (int j = 0; j < m.ncols; ++j)
            if (m.coltype[j] == 'I' || m.coltype[j] == 'B') ints.push_back(j);
        binary = true;
        for (int j : ints) binary = binary && m.lb[j] >= 0 && m.ub[j] <= 1;
    }

    RunResult improve(RunResult best, std::chrono::steady_clock::time_point deadline) {
        if (ints.empty()) return best;
        add_point(best);
        if (usable(best)) tried.insert(assignment(best.sol.x));
        int extra_iter = 0;
        for (int round = 0; round < kMaxMasters; ++round) {
            if (prob->interrupt.load() || std::chrono::steady_clock::now() >= deadline) break;
            std::vector<double> xm;
            double bound = 0.0;
            if (!solve_master(deadline, &xm, &bound)) break;
            if (usable(best) && bound >= min_form(best.objval) - 1e-6 * (1.0 + std::fabs(best.objval))) break;
            std::vector<double> z = assignment(xm);
            if (!tried.insert(z).second) break;
            Model fixed = m;
            for (size_t k = 0; k < ints.size(); ++k) {
                int j = ints[k];
                fixed.lb[j] = fixed.ub[j] = z[k];
                fixed.coltype[j] = 'C';
            }
            for (int j = 0; j < m.ncols; ++j) xm[j] = std::min(std::max(xm[j], fixed.lb[j]), fixed.ub[j]);
            RunResult r;
            try {
                r = run_slp(prob, fixed, xm);
            } catch (abi::__forced_unwind&) {
                throw;
            } catch (const std::exception& e) {
                // A failure here (a user function that cannot be evaluated, say) ends the
                // search; the solution already found stands.
                logf(prob, 1, "The search for better integer assignments stopped: %s", e.what());
                break;
            }
            extra_iter += r.iter;
            add_point(r);
            if (usable(r) && (!usable(best) || min_form(r.objval) < min_form(best.objval) - 1e-9 * (1.0 + std::fabs(best.objval)))) {
                logf(prob, 1, "Integer assignment %d improves the objective to %.10g", round + 1, r.objval);
                r.iter += best.iter;
                best = std::move(r);
            }
        }
        best.iter += extra_iter;
        return best;
    }

private:
    TSLPprob prob;
    const Model& m;
    Evaluator E;
    double sense = 1.0;
    std::vector<int> ints;
    bool binary = true;
    std::vector<Point> points;
    std::set<std::vector<double>> tried;

    double min_form(double objval) const { return sense * objval; }

    std::vector<double> assignment(const std::vector<double>& x) const {
        std::vector<double> z;
        for (int j : ints) z.push_back(std::round(x[j]));
        return z;
    }

    void add_point(const RunResult& r) {
        if ((int)r.sol.x.size() != m.ncols) return;
        Point p;
        p.x = r.sol.x;
        if ((int)r.sol.dual.size() == m.nrows) p.dual = r.sol.dual;
        points.push_back(std::move(p));
    }

    // Builds and solves the master; false when it has no solution.
    bool solve_master(std::chrono::steady_clock::time_point deadline, std::vector<double>* x, double* bound) {
        const int n = m.ncols;
        const bool curved_objective = !m.qobj.empty();
        Master M;
        M.ncols = n + (curved_objective ? 1 : 0);
        for (int j = 0; j < n; ++j) {
            M.lo.push_back(finite_or_inf(m.lb[j]));
            M.up.push_back(finite_or_inf(m.ub[j]));
            M.cost.push_back(sense * m.obj[j]);
            M.integ.push_back(m.coltype[j] == 'I' || m.coltype[j] == 'B' ? kHighsVarTypeInteger : kHighsVarTypeContinuous);
        }
        if (curved_objective) {
            M.lo.push_back(-INFINITY);
            M.up.push_back(INFINITY);
            M.cost.push_back(1.0);
            M.integ.push_back(kHighsVarTypeContinuous);
        }
        std::vector<std::pair<int, double>> row;
        for (int r = 0; r < m.nrows; ++r) {
            if (E.nlpos[r] >= 0) continue;
            double lo, up;
            row_bounds(m, r, &lo, &up);
            if (std::isinf(lo) && std::isinf(up)) continue;
            row.clear();
            for (int64_t e = m.rstart[r]; e < m.rstart[r + 1]; ++e) row.emplace_back(m.rcol[e], m.rval[e]);
            M.add_row(row, lo, up);
        }
        std::vector<double> g(n, 0.0);
        for (const Point& p : points) {
            for (size_t k = 0; k < E.nlrows.size(); ++k) {
                int r = E.nlrows[k];
                double lo, up, v = 0.0;
                row_bounds(m, r, &lo, &up);
                if (!E.nlrow_grad(static_cast<int>(k), p.x.data(), &v, g.data())) continue;
                if (lo == up) {
                    // An equation is relaxed to the side its multiplier says it binds on.
                    double d = p.dual.empty() ? 0.0 : sense * p.dual[r];
                    if (d > 0) up = INFINITY;
                    else if (d < 0) lo = -INFINITY;
                    else continue;
                }
                if (std::isinf(lo) && std::isinf(up)) continue;
                row.clear();
                double shift = v;
                for (int c : E.pattern[k]) {
                    row.emplace_back(c, g[c]);
                    shift -= g[c] * p.x[c];
                }
                M.add_row(row, lo - shift, up - shift);
            }
            if (curved_objective) {
                std::fill(g.begin(), g.end(), 0.0);
                quad_grad(m.qobj, p.x.data(), g.data());
                double q = quad_value(m.qobj, p.x.data()), shift = sense * q;
                row.clear();
                for (int j = 0; j < n; ++j)
                    if (g[j] != 0.0) {
                        row.emplace_back(j, sense * g[j]);
                        shift -= sense * g[j] * p.x[j];
                    }
                row.emplace_back(n, -1.0);   // sense * q(x) <= eta
                M.add_row(row, -INFINITY, -shift);
            }
        }
        if (binary) {
            // Each assignment tried is cut off.
            for (const auto& z : tried) {
                row.clear();
                double ones = 0.0;
                for (size_t k = 0; k < ints.size(); ++k) {
                    row.emplace_back(ints[k], z[k] > 0.5 ? -1.0 : 1.0);
                    ones += z[k] > 0.5 ? 1.0 : 0.0;
                }
                M.add_row(row, 1.0 - ones, INFINITY);
            }
        }
        return run_master(M, deadline, x, bound);
    }

    bool run_master(const Master& M, std::chrono::steady_clock::time_point deadline, std::vector<double>* x,
                    double* bound) {
        void* h = trvo::highs_new_quiet();
        if (!h) return false;
        int threads = 1;
        TRVOgetintcontrol(prob->trvo, TRVO_THREADS, &threads);
        int th = trvo::highs_solve_begin(threads, &prob->interrupt);
        struct Done {
            TSLPprob prob;
            void* h;
            ~Done() {
                trvo::highs_release(h);
                trvo::highs_solve_end(&prob->interrupt);
            }
        } done{prob, h};
        Highs_setIntOptionValue(h, "threads", th);
        Highs_setBoolOptionValue(h, "output_flag", 0);
        double left = std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
        Highs_setDoubleOptionValue(h, "time_limit", std::max(left, 0.01));
        const HighsInt nrow = static_cast<HighsInt>(M.rlo.size());
        std::vector<HighsInt> start = M.start;
        if (Highs_passModel(h, M.ncols, nrow, static_cast<HighsInt>(M.index.size()), 0, kHighsMatrixFormatRowwise, 0,
                            kHighsObjSenseMinimize, 0.0, M.cost.data(), M.lo.data(), M.up.data(), M.rlo.data(),
                            M.rup.data(), nrow ? start.data() : nullptr, M.index.empty() ? nullptr : M.index.data(),
                            M.value.empty() ? nullptr : M.value.data(), nullptr, nullptr, nullptr,
                            M.integ.data()) == kHighsStatusError)
            return false;
        Highs_zeroAllClocks(h);
        Highs_run(h);
        HighsInt primal = 0;
        Highs_getIntInfoValue(h, "primal_solution_status", &primal);
        if (primal != kHighsSolutionStatusFeasible) return false;
        std::vector<double> cv(M.ncols), cd(M.ncols), rv(nrow), rd(nrow);
        Highs_getSolution(h, cv.data(), cd.data(), rv.data(), rd.data());
        double dual_bound = 0.0;
        if (Highs_getModelStatus(h) == kHighsModelStatusOptimal) Highs_getDoubleInfoValue(h, "objective_function_value", &dual_bound);
        else Highs_getDoubleInfoValue(h, "mip_dual_bound", &dual_bound);
        cv.resize(m.ncols);
        *x = std::move(cv);
        *bound = dual_bound + sense * m.objconst;
        return true;
    }
};

}  // namespace

RunResult improve_integer_assignment(TSLPprob prob, const Model& m, RunResult best,
                                     std::chrono::steady_clock::time_point start) {
    bool integers = false;
    for (char t : m.coltype) integers = integers || t == 'I' || t == 'B';
    if (!integers) return best;
    double maxtime = dbl_control(prob, TSLP_MAXTIME);
    auto deadline = start +
                    std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                        std::chrono::duration<double>(maxtime > 0 ? maxtime : 1e9));
    OuterApproximation oa(prob, m);
    return oa.improve(std::move(best), deadline);
}

}  // namespace slp
