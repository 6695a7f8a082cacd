// Node relaxations on one persistent HiGHS instance, with outer-approximation cuts for the
// quadratic rows.
#include "engine/search/relaxation.h"

#include "engine/optimizer/highs_instances.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace trvo {
namespace search {
namespace {

struct InterruptData {
    const Settings* settings;
};

// Stops HiGHS when the search is asked to stop.
void interrupt_callback(int type, const char*, const HighsCallbackDataOut*, HighsCallbackDataIn* in,
                        void* user) {
    if (!in) return;
    if (type != kHighsCallbackSimplexInterrupt && type != kHighsCallbackIpmInterrupt &&
        type != kHighsCallbackMipInterrupt)
        return;
    const Settings* s = static_cast<const Settings*>(user);
    if (s->stop && s->stop->load() != 0) in->user_interrupt = 1;
}

void check(HighsInt status, const char* what) {
    if (status == kHighsStatusError) fail("HiGHS failed to %s in the tree search", what);
}

// Row activity a'x + x'Qx of a quadratic row.
double quad_activity(const QuadRow& r, const double* x) {
    double v = 0;
    for (const auto& e : r.lin) v += e.second * x[e.first];
    for (const auto& e : r.quad) {
        const int i = e.first.first, j = e.first.second;
        v += (i == j ? 1.0 : 2.0) * e.second * x[i] * x[j];
    }
    return v;
}

double violation(const QuadRow& r, const double* x) {
    const double a = quad_activity(r, x);
    return std::max(r.lo - a, a - r.up);
}

}  // namespace

Relaxation::Relaxation(const Model& model, const Settings& settings,
                       std::chrono::steady_clock::time_point deadline)
    : model_(model), settings_(settings), deadline_(deadline) {
    const HighsModel& m = model.lp;
    ncol_ = m.ncol;
    nrow_ = m.nrow;
    x_.assign(static_cast<size_t>(ncol_), 0.0);
    if (model.node_solver) {
        ns_ = model.node_solver.get();
        lo_ = set_lo_ = m.col_lower;
        up_ = set_up_ = m.col_upper;
        return;
    }
    hessian_ = !m.q_index.empty();
    h_ = highs_new_quiet();
    if (!h_) fail("Could not create a HiGHS instance");
    Highs_setBoolOptionValue(h_, "output_flag", 0);
    Highs_setIntOptionValue(h_, "threads", settings.threads);
    Highs_setStringOptionValue(h_, "presolve", "off");
    Highs_setStringOptionValue(h_, "solver", "simplex");
    Highs_setIntOptionValue(h_, "simplex_strategy", 1);
    // Cuts are only added while a quadratic row is violated by more than feastol: the LP must
    // meet its rows more tightly than that for the loop to make progress.
    Highs_setDoubleOptionValue(h_, "primal_feasibility_tolerance",
                               std::min(1e-7, 0.1 * settings.feastol));
    Highs_setDoubleOptionValue(h_, "dual_feasibility_tolerance", std::min(1e-7, settings.optimalitytol));
    std::vector<double> rlo = m.row_lower, rup = m.row_upper;
    for (const auto& q : model.qrows) {
        rlo[static_cast<size_t>(q.row)] = -INFINITY;
        rup[static_cast<size_t>(q.row)] = INFINITY;
    }
    // Lazy rows wait, free, until a solution violates them.
    for (size_t i = 0; i < model.lazy.size() && i < rlo.size(); ++i)
        if (model.lazy[i]) {
            rlo[i] = -INFINITY;
            rup[i] = INFINITY;
        }
    rlo_ = rlo;
    rup_ = rup;
    // The user's scaling factors, as the LP solve applies them: costs and matrix columns times
    // the column's factor, column bounds divided by it, rows (bounds and entries) times the
    // row's factor, Hessian entries times both columns' factors. HiGHS's own scaling is off
    // then, as for the LP solve; otherwise it follows the settings.
    scaled_ = !model.col_scale.empty() || !model.row_scale.empty();
    Highs_setIntOptionValue(h_, "simplex_scale_strategy", settings.scaling && !scaled_ ? 1 : 0);
    std::vector<double> cost = m.cost, clo = m.col_lower, cup = m.col_upper, aval, qval;
    if (scaled_) {
        for (int j = 0; j < ncol_; ++j) {
            const size_t s = static_cast<size_t>(j);
            const double c = col_factor(j);
            cost[s] *= c;
            clo[s] /= c;
            cup[s] /= c;
        }
        aval = m.a_value;
        for (int i = 0; i < nrow_; ++i) {
            const size_t s = static_cast<size_t>(i);
            const double r = row_factor(i);
            rlo[s] *= r;
            rup[s] *= r;
            const HighsInt end = i + 1 < nrow_ ? m.a_start[s + 1] : static_cast<HighsInt>(m.a_index.size());
            for (HighsInt k = m.a_start[s]; k < end; ++k)
                aval[static_cast<size_t>(k)] *= r * col_factor(m.a_index[static_cast<size_t>(k)]);
        }
        qval = m.q_value;
        for (int j = 0; hessian_ && j < ncol_; ++j) {
            const HighsInt end = j + 1 < ncol_ ? m.q_start[static_cast<size_t>(j) + 1] : static_cast<HighsInt>(m.q_index.size());
            for (HighsInt k = m.q_start[static_cast<size_t>(j)]; k < end; ++k)
                qval[static_cast<size_t>(k)] *= col_factor(j) * col_factor(m.q_index[static_cast<size_t>(k)]);
        }
    }
    const std::vector<double>& a_value = scaled_ ? aval : m.a_value;
    const std::vector<double>& q_value = scaled_ ? qval : m.q_value;
    check(Highs_passModel(h_, m.ncol, m.nrow, static_cast<HighsInt>(m.a_index.size()),
                          static_cast<HighsInt>(m.q_index.size()), kHighsMatrixFormatRowwise,
                          kHighsHessianFormatTriangular, kHighsObjSenseMinimize, m.offset,
                          cost.data(), clo.data(), cup.data(), rlo.data(),
                          rup.data(), m.nrow ? m.a_start.data() : nullptr,
                          m.a_index.empty() ? nullptr : m.a_index.data(),
                          a_value.empty() ? nullptr : a_value.data(),
                          hessian_ ? m.q_start.data() : nullptr,
                          hessian_ ? m.q_index.data() : nullptr,
                          hessian_ ? q_value.data() : nullptr, nullptr),
          "accept the relaxation");
    lo_ = set_lo_ = m.col_lower;
    up_ = set_up_ = m.col_upper;
    check(Highs_setCallback(h_, interrupt_callback, const_cast<Settings*>(&settings_)),
          "install its callback");
    Highs_startCallback(h_, kHighsCallbackSimplexInterrupt);
    Highs_startCallback(h_, kHighsCallbackIpmInterrupt);
    x_.assign(static_cast<size_t>(ncol_), 0.0);
}

Relaxation::~Relaxation() {
    if (!h_) return;
    Highs_stopCallback(h_, kHighsCallbackSimplexInterrupt);
    Highs_stopCallback(h_, kHighsCallbackIpmInterrupt);
    Highs_setCallback(h_, nullptr, nullptr);
    highs_release(h_);
}

void Relaxation::set_bounds(const std::vector<double>& lo, const std::vector<double>& up) {
    lo_ = lo;
    up_ = up;
    apply_bounds();
}

void Relaxation::set_col_bounds(int j, double lo, double up) {
    lo_[static_cast<size_t>(j)] = lo;
    up_[static_cast<size_t>(j)] = up;
    apply_bounds();
}

void Relaxation::apply_bounds() {
    if (ns_) return;  // the node solver reads lo_ and up_ at each solve
    std::vector<HighsInt> idx;
    std::vector<double> l, u;
    for (int j = 0; j < ncol_; ++j) {
        const size_t s = static_cast<size_t>(j);
        double a = lo_[s], b = up_[s];
        if (box_ > 0) {
            if (std::isinf(a)) a = std::min(-box_, b);
            if (std::isinf(b)) b = std::max(box_, a);
        }
        if (a == set_lo_[s] && b == set_up_[s]) continue;
        set_lo_[s] = a;
        set_up_[s] = b;
        idx.push_back(j);
        l.push_back(a / col_factor(j));
        u.push_back(b / col_factor(j));
    }
    if (!idx.empty())
        check(Highs_changeColsBoundsBySet(h_, static_cast<HighsInt>(idx.size()), idx.data(), l.data(),
                                          u.data()),
              "change column bounds");
}

bool Relaxation::at_box(const double* x) const {
    if (box_ <= 0) return false;
    const double tol = 1e-6 * box_;
    for (int j = 0; j < ncol_; ++j) {
        const size_t s = static_cast<size_t>(j);
        if ((std::isinf(lo_[s]) && x[j] <= -box_ + tol) || (std::isinf(up_[s]) && x[j] >= box_ - tol))
            return true;
    }
    return false;
}

double Relaxation::max_violation(const double* x) const {
    if (ns_) return ns_->max_violation(x);
    double worst = 0;
    for (const auto& q : model_.qrows) worst = std::max(worst, violation(q, x));
    return worst;
}

HighsInt Relaxation::run_counted() {
    if (hessian_) Highs_setIntOptionValue(h_, "qp_iteration_limit", qp_limit());
    check(Highs_zeroAllClocks(h_), "reset its clocks");
    const HighsInt st = Highs_run(h_);
    HighsInt it = 0;
    Highs_getIntInfoValue(h_, "simplex_iteration_count", &it);
    iterations_ += std::max<HighsInt>(it, 0);
    if (hessian_) {
        it = 0;
        Highs_getIntInfoValue(h_, "qp_iteration_count", &it);
        iterations_ += std::max<HighsInt>(it, 0);
    }
    return st;
}

HighsInt Relaxation::qp_limit() const {
    // An active-set step changes one constraint's status: a solve that needs many times more
    // steps than the instance has columns and rows is cycling.
    const int64_t n = static_cast<int64_t>(ncol_) + Highs_getNumRow(h_);
    return static_cast<HighsInt>(std::min<int64_t>(1000 + 50 * n, 2147483647));
}

Relaxation::Result Relaxation::run_once(double cutoff) {
    double left = INFINITY;
    if (settings_.maxtime > 0) {
        left = std::chrono::duration<double>(deadline_ - std::chrono::steady_clock::now()).count();
        if (left <= 0) return Limit;
    }
    if (settings_.stop && settings_.stop->load() != 0) return Limit;
    Highs_setDoubleOptionValue(h_, "time_limit", left);
    // The dual simplex stops once its objective passes the cutoff (LPs only).
    Highs_setDoubleOptionValue(h_, "objective_bound", hessian_ || std::isinf(cutoff) ? INFINITY : cutoff);
    HighsInt st = run_counted();
    HighsInt ms = Highs_getModelStatus(h_);
    if (hessian_ && ms == kHighsModelStatusIterationLimit) {
        // HiGHS's active-set QP solver can cycle (seen on QPs with nearly parallel rows): its
        // iterations are capped (qp_limit()), a capped solve is repeated once from scratch, and
        // a second cap ends the search at the iteration limit rather than never (a model with
        // quadratic rows is then solved again on LP relaxations, tree_search.cpp).
        Highs_clearSolver(h_);
        st = run_counted();
        ms = Highs_getModelStatus(h_);
        if (ms == kHighsModelStatusIterationLimit) {
            qp_stalled_ = true;
            return Limit;
        }
    }
    if (hessian_ && ms == kHighsModelStatusUnbounded && !cuts_.empty()) {
        // HiGHS's QP solver has been seen to call a QP unbounded among outer-approximation cuts
        // although every column was bounded. Cuts only shrink the region of a relaxation that
        // was bounded before they came, so this is the QP solver failing: treated as its
        // cycling is (the model is solved again on LP relaxations, which settle it).
        qp_stalled_ = true;
        return Limit;
    }
    if (ms == kHighsModelStatusUnboundedOrInfeasible) {
        // Decide with the primal simplex from scratch.
        Highs_setIntOptionValue(h_, "simplex_strategy", 4);
        Highs_clearSolver(h_);
        Highs_zeroAllClocks(h_);
        st = Highs_run(h_);
        Highs_setIntOptionValue(h_, "simplex_strategy", 1);
        ms = Highs_getModelStatus(h_);
    }
    switch (ms) {
        case kHighsModelStatusOptimal:
        case kHighsModelStatusModelEmpty: break;
        case kHighsModelStatusInfeasible: return Infeasible;
        case kHighsModelStatusObjectiveBound: return Cutoff;
        case kHighsModelStatusUnbounded:
        case kHighsModelStatusUnboundedOrInfeasible: return Unbounded;
        case kHighsModelStatusTimeLimit:
        case kHighsModelStatusInterrupt:
        case kHighsModelStatusIterationLimit: return Limit;
        default: break;
    }
    if (ms != kHighsModelStatusOptimal && ms != kHighsModelStatusModelEmpty) st = kHighsStatusError;
    if (st == kHighsStatusError) {
        // A QP with cuts that HiGHS's QP solver cannot solve is treated as its cycling is: the
        // model is solved again on LP relaxations (tree_search.cpp).
        if (hessian_ && !model_.qrows.empty()) {
            qp_stalled_ = true;
            return Limit;
        }
        return Error;
    }
    const HighsInt nr = Highs_getNumRow(h_);
    std::vector<double> cd(static_cast<size_t>(ncol_)), rv(static_cast<size_t>(nr)), rd(static_cast<size_t>(nr));
    Highs_getSolution(h_, x_.data(), cd.data(), rv.data(), rd.data());
    if (scaled_)
        for (int j = 0; j < ncol_; ++j) x_[static_cast<size_t>(j)] *= col_factor(j);
    obj_ = Highs_getObjectiveValue(h_);
    return Optimal;
}

Relaxation::Result Relaxation::solve(double cutoff, int max_rounds, bool polish) {
    converged_ = true;
    if (ns_) {
        if (settings_.stop && settings_.stop->load() != 0) return Limit;
        if (settings_.maxtime > 0 && std::chrono::steady_clock::now() >= deadline_) return Limit;
        switch (ns_->solve(lo_, up_, cutoff, x_, obj_)) {
            case NodeSolver::Optimal: return obj_ >= cutoff ? Cutoff : Optimal;
            case NodeSolver::Infeasible: return Infeasible;
            case NodeSolver::Cutoff: return Cutoff;
            case NodeSolver::Unbounded: return Unbounded;
            case NodeSolver::Limit: return Limit;
            case NodeSolver::Error: return Error;
        }
    }
    // A point within feastol of a curved row can still be far from stationary (its distance to
    // the row's boundary goes as the square of the angle between cut and tangent): a polished
    // solve goes on cutting, for a bounded number of rounds, until the rows hold to a small
    // fraction of feastol.
    const double target = polish ? kPolish * settings_.feastol : settings_.feastol;
    // Once the rows hold to feastol (or the cuts stall), the LP must meet its rows (the cuts)
    // more tightly than the target; the instance's tolerance is restored when the solve ends.
    struct Tolerance {
        void* h = nullptr;
        double keep = 0;
        void tighten(void* to, double tol) {
            if (h || !to) return;
            h = to;
            Highs_getDoubleOptionValue(h, "primal_feasibility_tolerance", &keep);
            Highs_setDoubleOptionValue(h, "primal_feasibility_tolerance", std::max(1e-10, std::min(keep, tol)));
        }
        ~Tolerance() {
            if (h) Highs_setDoubleOptionValue(h, "primal_feasibility_tolerance", keep);
        }
    } tight;
    double last = INFINITY;
    int stalls = 0, polish_rounds = 0;
    bool polishing = false;  // the rows held to feastol at the last solution
    for (int round = 0;; ++round) {
        Result r = run_once(cutoff);
        if (r != Optimal && polishing && (r == Error || (r == Limit && qp_stalled_))) {
            // HiGHS's QP solver can fail on the nearly parallel cuts of polishing: the last
            // solution (still in x_) met the rows to feastol and stands.
            qp_stalled_ = false;
            return Optimal;
        }
        if (r != Optimal) return r;
        if (obj_ >= cutoff) return Cutoff;  // cuts only raise the objective
        if (model_.qrows.empty()) return Optimal;
        const double viol = max_violation(x_.data());
        if (viol <= target) return Optimal;
        // Within feastol: polishing ends without giving up convergence.
        const bool met = viol <= settings_.feastol;
        polishing = met;
        // (HiGHS's QP solver fails with so tight a tolerance: QP relaxations keep theirs.)
        if (met) tight.tighten(hessian_ ? nullptr : h_, 0.1 * target);
        if (met && ++polish_rounds > kPolishRounds) return Optimal;
        // Progress is measured on the largest violation; cuts at a point that no longer moves
        // the solution mean the LP's tolerances have been reached.
        if (viol > 0.999 * last) {
            // The LP meets a cut only to its tolerance, relative to the cut's largest gradient
            // entry (cuts are scaled by it): before giving up, the tolerance is tightened once.
            if (++stalls >= 2 && !tight.h && !hessian_) {
                tight.tighten(h_, 0.1 * target);
                stalls = 0;
            } else if (stalls >= 5) {
                converged_ = met;
                return Optimal;
            }
        } else {
            stalls = 0;
        }
        last = std::min(last, viol);
        if (round >= max_rounds || add_cuts(x_.data(), target) == 0) {
            converged_ = met;
            return Optimal;
        }
    }
}

int Relaxation::add_cuts(const double* x, double tol) {
    // Linearisation of g(x) = a'x + x'Qx at x0: g(x0) + (a + 2 Q x0)'(x - x0), i.e.
    // (a + 2 Q x0)'x on the row's side of x0'Q x0 + bound.
    int added = 0;
    std::vector<double> grad(static_cast<size_t>(ncol_), 0.0);
    std::vector<int> touched;
    for (size_t k = 0; k < model_.qrows.size(); ++k) {
        const QuadRow& q = model_.qrows[k];
        if (violation(q, x) <= tol) continue;
        touched.clear();
        auto add = [&](int j, double v) {
            if (grad[static_cast<size_t>(j)] == 0.0) touched.push_back(j);
            grad[static_cast<size_t>(j)] += v;
            if (grad[static_cast<size_t>(j)] == 0.0) grad[static_cast<size_t>(j)] = 1e-300;
        };
        double xqx = 0;
        for (const auto& e : q.lin) add(e.first, e.second);
        for (const auto& e : q.quad) {
            const int i = e.first.first, j = e.first.second;
            if (i == j) {
                add(i, 2 * e.second * x[i]);
                xqx += e.second * x[i] * x[i];
            } else {
                add(i, 2 * e.second * x[j]);
                add(j, 2 * e.second * x[i]);
                xqx += 2 * e.second * x[i] * x[j];
            }
        }
        std::vector<HighsInt> idx;
        std::vector<double> val;
        double scale = 0;
        for (int j : touched) {
            double v = grad[static_cast<size_t>(j)];
            grad[static_cast<size_t>(j)] = 0.0;
            if (std::fabs(v) <= 1e-300) continue;
            idx.push_back(j);
            val.push_back(v);
            scale = std::max(scale, std::fabs(v));
        }
        if (idx.empty()) continue;  // a violated row without gradient: nothing to cut with
        // Scaled so that the largest coefficient is 1 (cuts at far points have huge gradients).
        for (double& v : val) v /= scale;
        double lo = -INFINITY, up = INFINITY;
        if (std::isfinite(q.up)) up = (q.up + xqx) / scale;
        else lo = (q.lo + xqx) / scale;
        cut_pos_.push_back(add_row(lo, up, static_cast<int>(idx.size()), idx.data(), val.data()));
        cut_row_.push_back(static_cast<int>(k));
        cut_scale_.push_back(1.0 / scale);
        cuts_.push_back({std::move(idx), std::move(val), lo, up});
        ++added;
    }
    return added;
}

double Relaxation::probe(double cutoff, int64_t iteration_limit) {
    if (ns_) return NAN;  // no estimate: see can_probe()
    Highs_setIntOptionValue(h_, "simplex_iteration_limit",
                            static_cast<HighsInt>(std::min<int64_t>(iteration_limit, 2147483647)));
    double left = INFINITY;
    if (settings_.maxtime > 0)
        left = std::max(0.0, std::chrono::duration<double>(deadline_ - std::chrono::steady_clock::now()).count());
    Highs_setDoubleOptionValue(h_, "time_limit", left);
    Highs_setDoubleOptionValue(h_, "objective_bound", std::isinf(cutoff) ? INFINITY : cutoff);
    Highs_zeroAllClocks(h_);
    Highs_run(h_);
    Highs_setIntOptionValue(h_, "simplex_iteration_limit", 2147483647);
    HighsInt it = 0;
    Highs_getIntInfoValue(h_, "simplex_iteration_count", &it);
    iterations_ += std::max<HighsInt>(it, 0);
    switch (Highs_getModelStatus(h_)) {
        case kHighsModelStatusInfeasible:
        case kHighsModelStatusObjectiveBound: return INFINITY;
        case kHighsModelStatusOptimal: return Highs_getObjectiveValue(h_);
        default: {
            // Stopped by the iteration limit: the dual simplex's objective is still a useful
            // estimate of the child's bound.
            double v = Highs_getObjectiveValue(h_);
            return std::isfinite(v) ? v : -INFINITY;
        }
    }
}

std::shared_ptr<Basis> Relaxation::basis() const {
    if (ns_) {
        const std::vector<double> w = ns_->warm_start();
        auto b = std::make_shared<Basis>((w.size() * sizeof(double) + sizeof(HighsInt) - 1) / sizeof(HighsInt));
        if (!w.empty()) std::memcpy(b->data(), w.data(), w.size() * sizeof(double));
        return b;
    }
    HighsInt valid = 0;
    Highs_getIntInfoValue(h_, "basis_validity", &valid);
    if (valid != kHighsBasisValidityValid) return nullptr;
    const HighsInt nr = Highs_getNumRow(h_);
    auto b = std::make_shared<Basis>(static_cast<size_t>(ncol_ + nr));
    if (Highs_getBasis(h_, b->data(), b->data() + ncol_) == kHighsStatusError) return nullptr;
    return b;
}

void Relaxation::set_basis(const Basis& b) {
    if (ns_) {
        std::vector<double> w(b.size() * sizeof(HighsInt) / sizeof(double));
        if (!w.empty()) std::memcpy(w.data(), b.data(), w.size() * sizeof(double));
        ns_->set_warm_start(w);
        return;
    }
    const HighsInt nr = Highs_getNumRow(h_);
    Basis full(b);
    // Cuts added since the basis was taken enter as basic rows.
    full.resize(static_cast<size_t>(ncol_ + nr), kHighsBasisStatusBasic);
    // A row switched off (free) since the basis was taken cannot stay at a bound.
    for (HighsInt r = 0; r < nr; ++r) {
        HighsInt& st = full[static_cast<size_t>(ncol_ + r)];
        if ((st == kHighsBasisStatusLower || st == kHighsBasisStatusUpper) && std::isinf(rlo_[static_cast<size_t>(r)]) &&
            std::isinf(rup_[static_cast<size_t>(r)]))
            st = kHighsBasisStatusZero;
    }
    Highs_setBasis(h_, full.data(), full.data() + ncol_);
}

int Relaxation::add_row(double lo, double up, int n, const HighsInt* idx, const double* val) {
    const int r = static_cast<int>(Highs_getNumRow(h_));
    if (scaled_) {
        // A row of model columns, in the instance's scaled columns (the row itself unscaled).
        std::vector<double> v(val, val + n);
        for (int k = 0; k < n; ++k) v[static_cast<size_t>(k)] *= col_factor(idx[k]);
        check(Highs_addRow(h_, lo, up, n, idx, v.data()), "add a cut row");
    } else {
        check(Highs_addRow(h_, lo, up, n, idx, val), "add a cut row");
    }
    rlo_.push_back(lo);
    rup_.push_back(up);
    return r;
}

void Relaxation::set_row_bounds(int row, double lo, double up) {
    const size_t s = static_cast<size_t>(row);
    if (rlo_[s] == lo && rup_[s] == up) return;
    rlo_[s] = lo;
    rup_[s] = up;
    const HighsInt r = row;
    const double f = row_factor(row);
    const double slo = lo * f, sup = up * f;
    check(Highs_changeRowsBoundsBySet(h_, 1, &r, &slo, &sup), "change row bounds");
}

bool Relaxation::row_basic(int row) const {
    HighsInt valid = 0;
    Highs_getIntInfoValue(h_, "basis_validity", &valid);
    if (valid != kHighsBasisValidityValid) return true;
    const HighsInt nr = Highs_getNumRow(h_);
    std::vector<HighsInt> cs(static_cast<size_t>(ncol_)), rs(static_cast<size_t>(nr));
    if (Highs_getBasis(h_, cs.data(), rs.data()) == kHighsStatusError) return true;
    return rs[static_cast<size_t>(row)] == kHighsBasisStatusBasic;
}

bool Relaxation::duals(std::vector<double>& row_dual, std::vector<double>& col_dual) const {
    if (ns_) return false;
    HighsInt ds = 0;
    Highs_getIntInfoValue(h_, "dual_solution_status", &ds);
    if (ds == kHighsSolutionStatusNone) return false;
    const HighsInt nr = Highs_getNumRow(h_);
    std::vector<double> cv(static_cast<size_t>(ncol_)), rv(static_cast<size_t>(nr)), rd(static_cast<size_t>(nr));
    col_dual.assign(static_cast<size_t>(ncol_), 0.0);
    Highs_getSolution(h_, cv.data(), col_dual.data(), rv.data(), rd.data());
    row_dual.assign(rd.begin(), rd.begin() + nrow_);
    if (scaled_) {
        for (int j = 0; j < ncol_; ++j) col_dual[static_cast<size_t>(j)] /= col_factor(j);
        for (int i = 0; i < nrow_; ++i) row_dual[static_cast<size_t>(i)] *= row_factor(i);
    }
    // A cut is the row's linearisation divided by its largest gradient entry s: its dual stands
    // for dual / s of the row's linearisation, hence of the row itself near the solution.
    for (size_t c = 0; c < cut_row_.size(); ++c) {
        const double d = rd[static_cast<size_t>(cut_pos_[c])];
        if (d == 0.0) continue;
        const QuadRow& q = model_.qrows[static_cast<size_t>(cut_row_[c])];
        row_dual[static_cast<size_t>(q.row)] += d * cut_scale_[c];
    }
    return true;
}

}  // namespace search
}  // namespace trvo
