// Branch-and-bound: best-bound node selection with depth-first dives, pseudocost branching
// initialised by iteration-limited strong branching, a rounding heuristic at every node and a
// fix-and-solve heuristic for models with continuous columns, the optimiser's limits and gap
// tolerances, and the node hooks.
#include "engine/search/relaxation.h"
#include "engine/search/cuts.h"

#include "engine/optimizer/highs_instances.h"
#include "library_interface/trvo.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <queue>

namespace trvo {
namespace search {
namespace {

using Clock = std::chrono::steady_clock;
// Solves of one node after cut rows joined it.
constexpr int kCutRounds = 100;

struct Node {
    int64_t id = 1, parent = 0;
    int depth = 0;
    double bound = -INFINITY;              // a lower bound on the node's relaxation
    std::vector<Branch::Bound> changes;    // column bounds differing from the root's
    std::shared_ptr<Basis> basis;          // the parent's final basis
    int branch_col = -1;                   // for the pseudocost update
    double branch_dist = 0;                // distance of the parent's value to the new bound
    int dir = 0;                           // -1 down, +1 up
    std::vector<int> cuts;                 // keys of the cut rows active here (cuts.h)
    std::vector<std::shared_ptr<const BranchRow>> rows;  // branching rows of the node and its ancestors
};
using NodePtr = std::unique_ptr<Node>;

struct ByBound {
    bool operator()(const NodePtr& a, const NodePtr& b) const {
        if (a->bound != b->bound) return a->bound > b->bound;
        return a->id < b->id;  // deeper (newer) first among equals
    }
};

struct Pseudocost {
    double sum[2] = {0, 0};  // down, up: objective gain per unit change
    int count[2] = {0, 0};
    double get(int d, double fallback) const { return count[d] ? sum[d] / count[d] : fallback; }
};

class Search {
public:
    Search(const Model& m, const Settings& s, const Hooks& h)
        : model_(m), lp_(m.lp), set_(s), hooks_(h), start_(Clock::now()),
          deadline_(s.maxtime > 0 ? start_ + std::chrono::duration_cast<Clock::duration>(
                                                 std::chrono::duration<double>(s.maxtime))
                                  : Clock::time_point::max()),
          rel_(m, s, deadline_), cuts_(h.cuts ? *h.cuts : own_cuts_) {
        cuts_.attach(&rel_, &model_, &set_);
        for (int j = 0; j < lp_.ncol; ++j)
            if (!lp_.integrality.empty() && lp_.integrality[static_cast<size_t>(j)] == kHighsVarTypeInteger)
                ints_.push_back(j);
        pc_.resize(static_cast<size_t>(lp_.ncol));
        cutoff_ = s.cutoff;
        has_continuous_ = static_cast<int>(ints_.size()) < lp_.ncol;
        // A continued search goes on with the earlier one's counts (search.h).
        next_id_ = s.earlier.last_node + 1;
        out_.solutions = s.earlier.solutions;
    }

    Outcome run();

private:
    // Simplex/QP iterations, with those of an earlier search this one continues.
    int64_t iterations() const { return rel_.iterations() + set_.earlier.lp_iterations; }
    // Limits; returns the stop reason or 0.
    int limit_reached() const {
        if (set_.stop && set_.stop->load() != 0) return set_.stop->load();
        if (set_.maxtime > 0 && Clock::now() >= deadline_) return TRVO_STOP_TIMELIMIT;
        if (nodes_ + set_.earlier.nodes >= set_.maxnode) return TRVO_STOP_NODELIMIT;
        if (set_.maxmipsol > 0 && out_.solutions >= set_.maxmipsol) return TRVO_STOP_SOLLIMIT;
        if (iterations() >= set_.lpiterlimit) return TRVO_STOP_ITERLIMIT;
        return 0;
    }
    double gap_tolerance() const {
        if (!out_.have_solution) return 0;
        return std::max(set_.mipabsstop, set_.miprelstop * std::fabs(out_.objective));
    }
    // Nodes whose bound reaches this are not explored.
    double prune_level() const {
        // A node whose bound equals the cutoff may still hold a solution at the cutoff.
        double level = cutoff_ + 1e-9 * std::max(1.0, std::fabs(cutoff_));
        if (out_.have_solution) level = std::min(level, out_.objective - gap_tolerance());
        return level;
    }
    // Records a node dropped on its bound; nodes within the gap tolerance (but below the
    // incumbent) keep the final bound honest.
    void drop_on_bound(const NodeView& v, double bound) {
        if (out_.have_solution && bound < out_.objective) gap_bound_ = std::min(gap_bound_, bound);
        if (hooks_.nodecutoff) hooks_.nodecutoff(v, v.node);
    }

    double objective_at(const double* x) const;
    bool feasible(const double* x) const;
    bool fractional(const double* x) const;
    enum Offer { Accepted, NoBetter, Refused, Infeasible };
    Offer try_solution(const NodeView& v, int soltype, std::vector<double> x);
    void rounding(const NodeView& v);
    void fix_and_solve(const NodeView& v, const std::vector<double>& point);
    void outer_approximation_mip(const NodeView& v);
    void diving(const NodeView& v);
    void node_bounds(const Node& n, std::vector<double>& lo, std::vector<double>& up) const;
    int select_branch(const Node& n, double obj, int* dir);
    void log_progress(bool force);
    double open_bound() const;

    const Model& model_;
    const HighsModel& lp_;
    const Settings& set_;
    const Hooks& hooks_;
    Clock::time_point start_, deadline_;
    Relaxation rel_;
    NodeCuts own_cuts_;
    NodeCuts& cuts_;
    std::vector<int> ints_;
    bool has_continuous_ = false;
    std::vector<Pseudocost> pc_;
    std::priority_queue<NodePtr, std::vector<NodePtr>, ByBound> open_;
    double cutoff_ = INFINITY;
    double gap_bound_ = INFINITY;
    int64_t nodes_ = 0, next_id_ = 1;  // nodes_: this search's own (see Settings::earlier)
    Outcome out_;
    Clock::time_point last_log_ = Clock::now();
    double node_bound_ = INFINITY;  // bound of the node in process (for a stop mid-node)
};

double Search::objective_at(const double* x) const {
    if (model_.node_solver) return model_.node_solver->objective(x);
    double v = lp_.offset;
    for (int j = 0; j < lp_.ncol; ++j) v += lp_.cost[static_cast<size_t>(j)] * x[j];
    if (!lp_.q_index.empty()) {
        for (int c = 0; c < lp_.ncol; ++c) {
            const HighsInt end = c + 1 < lp_.ncol ? lp_.q_start[static_cast<size_t>(c) + 1]
                                                  : static_cast<HighsInt>(lp_.q_index.size());
            for (HighsInt k = lp_.q_start[static_cast<size_t>(c)]; k < end; ++k) {
                const int r = lp_.q_index[static_cast<size_t>(k)];
                const double q = lp_.q_value[static_cast<size_t>(k)];
                v += (r == c ? 0.5 : 1.0) * q * x[c] * x[r];
            }
        }
    }
    return v;
}

bool Search::fractional(const double* x) const {
    for (int j : ints_)
        if (std::fabs(x[j] - std::round(x[j])) > set_.miptol) return true;
    return false;
}

bool Search::feasible(const double* x) const {
    const double tol = set_.feastol;
    for (int j = 0; j < lp_.ncol; ++j) {
        const size_t s = static_cast<size_t>(j);
        if (x[j] < lp_.col_lower[s] - tol || x[j] > lp_.col_upper[s] + tol) return false;
    }
    if (fractional(x)) return false;
    std::vector<char> quadratic(static_cast<size_t>(lp_.nrow), 0);
    for (const auto& q : model_.qrows) quadratic[static_cast<size_t>(q.row)] = 1;
    for (int i = 0; i < lp_.nrow; ++i) {
        if (quadratic[static_cast<size_t>(i)]) continue;
        const HighsInt end = i + 1 < lp_.nrow ? lp_.a_start[static_cast<size_t>(i) + 1]
                                              : static_cast<HighsInt>(lp_.a_index.size());
        double a = 0;
        for (HighsInt k = lp_.a_start[static_cast<size_t>(i)]; k < end; ++k)
            a += lp_.a_value[static_cast<size_t>(k)] * x[lp_.a_index[static_cast<size_t>(k)]];
        const double lo = lp_.row_lower[static_cast<size_t>(i)], up = lp_.row_upper[static_cast<size_t>(i)];
        if (a < lo - tol * std::max(1.0, std::fabs(lo)) || a > up + tol * std::max(1.0, std::fabs(up)))
            return false;
    }
    return rel_.max_violation(x) <= tol;
}

// A candidate solution: integers snapped, checked, offered to preintsol, kept when better.
Search::Offer Search::try_solution(const NodeView& v, int soltype, std::vector<double> x) {
    for (int j : ints_) x[static_cast<size_t>(j)] = std::round(x[static_cast<size_t>(j)]);
    // Delayed rows it violates join the relaxation (the node is then solved again).
    if (cuts_.has_lazy() && cuts_.lazy_violated(x.data())) return Infeasible;
    if (!feasible(x.data())) return Infeasible;
    const double obj = objective_at(x.data());
    if (out_.have_solution && obj >= out_.objective) return NoBetter;
    if (obj > cutoff_) return NoBetter;
    if (hooks_.preintsol) {
        bool reject = false;
        double cutoff = cutoff_;
        cuts_.set_point(x.data());
        hooks_.preintsol(v, soltype, x.data(), obj, &reject, &cutoff);
        cuts_.set_point(v.x);
        if (cutoff < cutoff_) cutoff_ = cutoff;
        if (reject) return Refused;
    }
    out_.have_solution = true;
    out_.x = std::move(x);
    out_.objective = obj;
    ++out_.solutions;
    if (hooks_.intsol) hooks_.intsol(v, out_.x.data(), obj);
    log_progress(true);
    return Accepted;
}

void Search::rounding(const NodeView& v) {
    std::vector<double> x(v.x, v.x + lp_.ncol);
    for (int j : ints_) x[static_cast<size_t>(j)] = std::round(x[static_cast<size_t>(j)]);
    if (feasible(x.data())) try_solution(v, 1, std::move(x));
}

// Fixes the integers at their rounded values and solves for the continuous columns; the node's
// bounds and basis are restored afterwards.
void Search::fix_and_solve(const NodeView& v, const std::vector<double>& point) {
    const std::vector<double> lo = rel_.lower(), up = rel_.upper();
    std::shared_ptr<Basis> b = rel_.basis();
    std::vector<double> flo = lo, fup = up;
    for (int j : ints_) {
        const size_t s = static_cast<size_t>(j);
        const double r = std::min(std::max(std::round(point[s]), lo[s]), up[s]);
        flo[s] = fup[s] = r;
    }
    rel_.set_bounds(flo, fup);
    Relaxation::Result r = rel_.solve(prune_level(), 200, true);
    if (r == Relaxation::Optimal && rel_.converged()) try_solution(v, 1, rel_.x());
    rel_.set_bounds(lo, up);
    if (b) rel_.set_basis(*b);
}

// For models with a quadratic objective or quadratic rows: HiGHS's MIP over the root's outer
// approximation (the linear rows, the cut pool, and the objective linearised at the root's
// solution) proposes an integer assignment, which fix_and_solve then completes and checks.
void Search::outer_approximation_mip(const NodeView& v) {
    double left = 5.0;
    if (set_.maxtime > 0)
        left = std::min(left, 0.2 * std::chrono::duration<double>(deadline_ - Clock::now()).count());
    if (left <= 0.05) return;
    void* h = highs_new_quiet();
    if (!h) return;
    struct Release {
        void* h;
        ~Release() { highs_release(h); }
    } release{h};
    Highs_setBoolOptionValue(h, "output_flag", 0);
    Highs_setIntOptionValue(h, "threads", set_.threads);
    Highs_setDoubleOptionValue(h, "time_limit", left);
    Highs_setDoubleOptionValue(h, "mip_rel_gap", 1e-3);
    Highs_setDoubleOptionValue(h, "mip_feasibility_tolerance", set_.miptol);
    // The objective's gradient at the root solution stands for its quadratic part.
    const std::vector<double>& x0 = rel_.x();
    std::vector<double> cost = lp_.cost;
    if (!lp_.q_index.empty())
        for (int c = 0; c < lp_.ncol; ++c) {
            const HighsInt end = c + 1 < lp_.ncol ? lp_.q_start[static_cast<size_t>(c) + 1]
                                                  : static_cast<HighsInt>(lp_.q_index.size());
            for (HighsInt k = lp_.q_start[static_cast<size_t>(c)]; k < end; ++k) {
                const int r = lp_.q_index[static_cast<size_t>(k)];
                const double q = lp_.q_value[static_cast<size_t>(k)];
                cost[static_cast<size_t>(c)] += q * x0[static_cast<size_t>(r)];
                if (r != c) cost[static_cast<size_t>(r)] += q * x0[static_cast<size_t>(c)];
            }
        }
    std::vector<double> rlo = lp_.row_lower, rup = lp_.row_upper;
    for (const auto& q : model_.qrows) {
        rlo[static_cast<size_t>(q.row)] = -INFINITY;
        rup[static_cast<size_t>(q.row)] = INFINITY;
    }
    if (Highs_passMip(h, lp_.ncol, lp_.nrow, static_cast<HighsInt>(lp_.a_index.size()), kHighsMatrixFormatRowwise,
                      kHighsObjSenseMinimize, 0.0, cost.data(), rel_.lower().data(), rel_.upper().data(),
                      rlo.data(), rup.data(), lp_.nrow ? lp_.a_start.data() : nullptr,
                      lp_.a_index.empty() ? nullptr : lp_.a_index.data(),
                      lp_.a_value.empty() ? nullptr : lp_.a_value.data(), lp_.integrality.data()) == kHighsStatusError)
        return;
    for (const auto& c : rel_.cuts())
        Highs_addRow(h, c.lo, c.up, static_cast<HighsInt>(c.index.size()), c.index.data(), c.value.data());
    Highs_zeroAllClocks(h);
    Highs_run(h);
    HighsInt primal = 0;
    Highs_getIntInfoValue(h, "primal_solution_status", &primal);
    if (primal != kHighsSolutionStatusFeasible) return;
    const HighsInt nr = Highs_getNumRow(h);
    std::vector<double> x(static_cast<size_t>(lp_.ncol)), d(x.size()), rv(static_cast<size_t>(nr)), rd(rv.size());
    Highs_getSolution(h, x.data(), d.data(), rv.data(), rd.data());
    if (has_continuous_) fix_and_solve(v, x);
    else try_solution(v, 1, x);
}

// Fractional diving: fixes the integer column closest to integrality at its rounded value and
// solves again, until the relaxation is integral (a candidate), infeasible or no better than
// the incumbent; the node's bounds and basis are restored afterwards.
void Search::diving(const NodeView& v) {
    const std::vector<double> lo = rel_.lower(), up = rel_.upper();
    std::shared_ptr<Basis> b = rel_.basis();
    std::vector<double> dlo = lo, dup = up;
    const int max_dives = std::min<int>(50, 2 * static_cast<int>(ints_.size()) + 1);
    for (int step = 0; step < max_dives; ++step) {
        const std::vector<double>& x = rel_.x();
        int pick = -1;
        double best = 2;
        for (int j : ints_) {
            const double f = x[static_cast<size_t>(j)] - std::floor(x[static_cast<size_t>(j)]);
            const double d = std::min(f, 1 - f);
            if (d <= set_.miptol) continue;
            if (d < best) {
                best = d;
                pick = j;
            }
        }
        if (pick < 0) {
            if (rel_.converged()) try_solution(v, 1, x);
            break;
        }
        const size_t s = static_cast<size_t>(pick);
        const double r = std::min(std::max(std::round(x[s]), dlo[s]), dup[s]);
        dlo[s] = dup[s] = r;
        rel_.set_col_bounds(pick, r, r);
        if (rel_.solve(prune_level(), 10) != Relaxation::Optimal) break;
        if (limit_reached()) break;
    }
    rel_.set_bounds(lo, up);
    if (b) rel_.set_basis(*b);
}

void Search::node_bounds(const Node& n, std::vector<double>& lo, std::vector<double>& up) const {
    lo = lp_.col_lower;
    up = lp_.col_upper;
    for (const auto& c : n.changes) {
        lo[static_cast<size_t>(c.col)] = c.lo;
        up[static_cast<size_t>(c.col)] = c.up;
    }
}

// Chooses the branching column among the fractional integers by the product of the estimated
// objective gains of its two children; unreliable estimates (no child seen yet) come from
// iteration-limited strong branching when the relaxation is an LP. *dir: the child to dive into.
int Search::select_branch(const Node& n, double obj, int* dir) {
    (void)n;
    const std::vector<double> x = rel_.x();
    struct Cand {
        int col;
        double f;
    };
    std::vector<Cand> cands;
    for (int j : ints_) {
        const double f = x[static_cast<size_t>(j)] - std::floor(x[static_cast<size_t>(j)]);
        if (f > set_.miptol && f < 1 - set_.miptol) cands.push_back({j, f});
    }
    if (!set_.directives.empty() && !cands.empty()) {
        // Only the columns of the best priority present are candidates.
        std::vector<int> cols;
        for (const Cand& c : cands) cols.push_back(c.col);
        const int top = first_priority(set_.directives, cols);
        cands.erase(std::remove_if(cands.begin(), cands.end(),
                                   [&](const Cand& c) { return priority_of(set_.directives, c.col) != top; }),
                    cands.end());
    }
    if (cands.empty()) return -1;
    // Average pseudocosts stand in for columns never branched on.
    double avg[2] = {1, 1};
    for (int d = 0; d < 2; ++d) {
        double s = 0;
        int c = 0;
        for (const auto& p : pc_)
            if (p.count[d]) {
                s += p.sum[d] / p.count[d];
                ++c;
            }
        if (c) avg[d] = s / c;
    }
    std::vector<double> sb_down(cands.size(), NAN), sb_up(cands.size(), NAN);
    if (!rel_.quadratic_objective() && model_.qrows.empty() && rel_.can_probe()) {
        std::vector<size_t> order;
        for (size_t k = 0; k < cands.size(); ++k) {
            const Pseudocost& p = pc_[static_cast<size_t>(cands[k].col)];
            if ((!p.count[0] || !p.count[1]) && !pseudocosts_given(set_.directives, cands[k].col))
                order.push_back(k);
        }
        std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
            return std::fabs(cands[a].f - 0.5) < std::fabs(cands[b].f - 0.5);
        });
        if (order.size() > 8) order.resize(8);
        if (!order.empty()) {
            std::shared_ptr<Basis> b = rel_.basis();
            const int64_t limit = std::max<int64_t>(
                20, std::min<int64_t>(500, 2 * rel_.iterations() / std::max<int64_t>(nodes_, 1)));
            const double level = prune_level();
            for (size_t k : order) {
                const int j = cands[k].col;
                const size_t s = static_cast<size_t>(j);
                const double lo = rel_.lower()[s], up = rel_.upper()[s], v = x[s];
                rel_.set_col_bounds(j, lo, std::floor(v));
                sb_down[k] = rel_.probe(level, limit);
                rel_.set_col_bounds(j, lo, up);
                if (b) rel_.set_basis(*b);
                rel_.set_col_bounds(j, std::ceil(v), up);
                sb_up[k] = rel_.probe(level, limit);
                rel_.set_col_bounds(j, lo, up);
                if (b) rel_.set_basis(*b);
                Pseudocost& p = pc_[s];
                if (std::isfinite(sb_down[k])) {
                    p.sum[0] += std::max(0.0, sb_down[k] - obj) / cands[k].f;
                    ++p.count[0];
                }
                if (std::isfinite(sb_up[k])) {
                    p.sum[1] += std::max(0.0, sb_up[k] - obj) / (1 - cands[k].f);
                    ++p.count[1];
                }
            }
        }
    }
    int best = -1;
    double best_score = -1;
    int best_dir = 1;
    for (size_t k = 0; k < cands.size(); ++k) {
        const Pseudocost& p = pc_[static_cast<size_t>(cands[k].col)];
        const int col = cands[k].col;
        double down = std::isnan(sb_down[k])
                          ? directed_pseudocost(set_.directives, col, 0, p.get(0, avg[0])) * cands[k].f
                          : sb_down[k] - obj;
        double up = std::isnan(sb_up[k])
                        ? directed_pseudocost(set_.directives, col, 1, p.get(1, avg[1])) * (1 - cands[k].f)
                        : sb_up[k] - obj;
        // An infeasible child makes the column the best choice: one side is pruned at once.
        const double big = 1e30;
        down = std::isinf(down) ? big : std::max(down, 0.0);
        up = std::isinf(up) ? big : std::max(up, 0.0);
        const double score = std::max(down, 1e-6) * std::max(up, 1e-6);
        if (score > best_score) {
            best_score = score;
            best = cands[k].col;
            best_dir = up <= down ? 1 : -1;
        }
    }
    *dir = preferred_direction(set_.directives, best, best_dir);
    return best;
}

double Search::open_bound() const {
    double b = std::min(gap_bound_, node_bound_);
    if (!open_.empty()) b = std::min(b, open_.top()->bound);
    return b;
}

void Search::log_progress(bool force) {
    if (!set_.log) return;
    const auto now = Clock::now();
    if (!force && now - last_log_ < std::chrono::seconds(2)) return;
    last_log_ = now;
    char line[200];
    const double bound = std::min(open_bound(), out_.have_solution ? out_.objective : INFINITY);
    if (out_.have_solution)
        std::snprintf(line, sizeof line, "Tree search: %lld nodes, %lld open, best %.10g, bound %.10g",
                      static_cast<long long>(nodes_ + set_.earlier.nodes), static_cast<long long>(open_.size()), out_.objective,
                      bound);
    else
        std::snprintf(line, sizeof line, "Tree search: %lld nodes, %lld open, no solution yet, bound %.10g",
                      static_cast<long long>(nodes_ + set_.earlier.nodes), static_cast<long long>(open_.size()), bound);
    set_.log(line);
}

Outcome Search::run() {
    if (hooks_.mipthread) hooks_.mipthread();
    struct ThreadEnd {
        const Hooks& h;
        ~ThreadEnd() {
            if (h.destroymt) h.destroymt();
        }
    } thread_end{hooks_};
    if (set_.log) {
        char line[200];
        std::snprintf(line, sizeof line,
                      "Tree search: %d columns (%d integer), %d rows (%d quadratic), %s relaxation%s",
                      lp_.ncol, static_cast<int>(ints_.size()), lp_.nrow, static_cast<int>(model_.qrows.size()),
                      rel_.kind(),
                      model_.node_solver || (model_.col_scale.empty() && model_.row_scale.empty())
                          ? ""
                          : " scaled by the problem's scaling factors");
        set_.log(line);
    }
    if (!set_.earlier.incumbent.empty() && set_.earlier.incumbent.size() == static_cast<size_t>(lp_.ncol) &&
        feasible(set_.earlier.incumbent.data())) {
        // The earlier search's best solution, accepted there already (hooks and count).
        out_.have_solution = true;
        out_.x = set_.earlier.incumbent;
        out_.objective = objective_at(out_.x.data());
    }
    if (!set_.start.empty()) {
        std::vector<double> x(static_cast<size_t>(lp_.ncol), 0.0);
        for (const auto& e : set_.start)
            if (e.first >= 0 && e.first < lp_.ncol) x[static_cast<size_t>(e.first)] = e.second;
        NodeView v;
        try_solution(v, 1, std::move(x));
    }

    auto root = std::make_unique<Node>();
    root->id = next_id_++;
    open_.push(std::move(root));
    NodePtr dive;
    std::vector<double> lo, up;
    int stop = 0;
    while (true) {
        NodePtr node;
        if (dive) {
            node = std::move(dive);
        } else {
            if (open_.empty()) break;
            node = std::move(const_cast<NodePtr&>(open_.top()));
            open_.pop();
        }
        NodeView view;
        view.node = node->id;
        view.parent = node->parent;
        view.depth = node->depth;
        view.cutoff = prune_level();
        if (node->bound >= prune_level()) {
            drop_on_bound(view, node->bound);
            continue;
        }
        if ((stop = limit_reached()) != 0) {
            open_.push(std::move(node));
            break;
        }
        ++nodes_;
        if (hooks_.nodestart) hooks_.nodestart(view);
        node_bound_ = node->bound;
        node_bounds(*node, lo, up);
        view.lower = lo.data();
        view.upper = up.data();
        // The node's rows and cuts are in place before prenode, whose callbacks may list them.
        rel_.set_node_rows(node->rows);
        rel_.set_bounds(lo, up);
        cuts_.enter(node->cuts);
        if (hooks_.prenode && hooks_.prenode(view)) {
            if (hooks_.infnode) hooks_.infnode(view);
            node_bound_ = INFINITY;
            continue;
        }
        if (node->basis) rel_.set_basis(*node->basis);
        const bool is_root = node->parent == 0;
        int cut_rounds = 0;  // solves of this node after rows joined it
    resolve:
        cuts_.take_changed();  // rows joined so far are in this solve
        // With an optnode hook every feasible relaxation is solved to its optimum (no early
        // stop at the cutoff), so that the hook sees every node that is not infeasible.
        const double solve_cutoff = hooks_.optnode ? INFINITY : prune_level();
        // A continuous model's root solution is its answer: polished (relaxation.h).
        const bool polish = is_root && ints_.empty();
        Relaxation::Result r = rel_.solve(solve_cutoff, is_root ? 1000 : 10, polish);
        if (is_root && r == Relaxation::Unbounded && !model_.qrows.empty()) {
            // Quadratic rows may bound what the LP without cuts leaves open: solve within a box
            // that grows while the solution touches it, then see whether the cuts alone close
            // the relaxation.
            for (double box = 1e6; box <= 1e15; box *= 1e3) {
                rel_.set_box(box);
                r = rel_.solve(prune_level(), 1000, polish);
                if (r != Relaxation::Optimal || !rel_.at_box(rel_.x().data())) break;
                r = Relaxation::Unbounded;
            }
            if (r == Relaxation::Optimal) {
                const double keep = rel_.box();
                rel_.set_box(0);
                Relaxation::Result free = rel_.solve(prune_level(), 1000, polish);
                if (free == Relaxation::Optimal) r = free;
                else {
                    rel_.set_box(keep);
                    r = rel_.solve(prune_level(), 1000, polish);
                }
            }
        }
        if (r == Relaxation::Optimal && rel_.converged() == false && !fractional(rel_.x().data()))
            r = rel_.solve(solve_cutoff, 200, polish);  // integral: the quadratic rows must be met
        if (r == Relaxation::Limit) {
            --nodes_;
            open_.push(std::move(node));
            stop = limit_reached();
            if (!stop) stop = TRVO_STOP_ITERLIMIT;
            out_.qp_stalled = rel_.qp_stalled();
            break;
        }
        if (r == Relaxation::Error) fail("HiGHS could not solve a node relaxation of the tree search");
        if (r == Relaxation::Unbounded) {
            if (is_root) {
                out_.status = Status::Unbounded;
                out_.nodes = nodes_ + set_.earlier.nodes;
                out_.last_node = next_id_ - 1;
                out_.lp_iterations = iterations();
                return out_;
            }
            fail("A node relaxation of the tree search is unbounded while the root's is not");
        }
        if (r == Relaxation::Infeasible) {
            if (hooks_.infnode) hooks_.infnode(view);
            node_bound_ = INFINITY;
            continue;
        }
        if (r == Relaxation::Cutoff) {
            drop_on_bound(view, std::max(node->bound, prune_level()));
            node_bound_ = INFINITY;
            continue;
        }
        const double obj = rel_.objective();
        node_bound_ = std::max(node->bound, obj);
        view.x = rel_.x().data();
        view.objective = obj;
        cuts_.set_point(view.x);
        // Model cuts and pool cuts the solution violates join the node.
        if (cut_rounds < kCutRounds && cuts_.separate(view.x) > 0) {
            cuts_.take_changed();
            ++cut_rounds;
            goto resolve;
        }
        if (is_root && ints_.empty()) {
            // A continuous model: the root is the answer.
            out_.have_duals = rel_.duals(out_.row_dual, out_.col_dual);
        }
        // The child's gain updates its branching column's pseudocost.
        if (node->branch_col >= 0 && node->branch_dist > 0 && cut_rounds == 0) {
            Pseudocost& p = pc_[static_cast<size_t>(node->branch_col)];
            const int d = node->dir > 0 ? 1 : 0;
            p.sum[d] += std::max(0.0, obj - node->bound) / node->branch_dist;
            ++p.count[d];
        }
        if (hooks_.optnode && hooks_.optnode(view)) {
            if (hooks_.infnode) hooks_.infnode(view);
            node_bound_ = INFINITY;
            continue;
        }
        // Cuts added by the callback: the node is solved again (and the callback called again).
        if (cuts_.take_changed() && cut_rounds < kCutRounds) {
            ++cut_rounds;
            goto resolve;
        }
        if (!rel_.converged() && !fractional(rel_.x().data())) {
            // The cuts could not bring the quadratic rows within the tolerance at an integral
            // point: the node cannot be resolved, so optimality is no longer proven.
            out_.exact = false;
            gap_bound_ = std::min(gap_bound_, node_bound_);
            node_bound_ = INFINITY;
            continue;
        }
        Branch br;
        std::vector<double> xnode = rel_.x();
        int dir = 1;
        if (!fractional(xnode.data())) {
            const Offer offer = try_solution(view, 0, xnode);
            // Rows that joined because of the candidate (delayed rows it violated, cuts added by
            // preintsol): the node is solved again with them.
            if (offer != Accepted && cuts_.take_changed() && cut_rounds < kCutRounds) {
                ++cut_rounds;
                goto resolve;
            }
            if (offer == Accepted || offer == NoBetter || ints_.empty()) {
                // The relaxation's optimum is integral: nothing better lies in the node.
                if (offer == NoBetter) drop_on_bound(view, obj);
                node_bound_ = INFINITY;
                continue;
            }
            // Refused by preintsol (or off the rows once its integers are rounded): split the
            // domain of an integer column that is not fixed yet, so that the candidate can only
            // come back in a smaller domain.
            int col = -1;
            for (int j : ints_)
                if (lo[static_cast<size_t>(j)] < up[static_cast<size_t>(j)]) {
                    col = j;
                    break;
                }
            if (col < 0) {
                node_bound_ = INFINITY;
                continue;
            }
            const size_t s = static_cast<size_t>(col);
            const double v = std::round(xnode[s]);
            br.col = col;
            br.value = v;
            if (v < up[s]) br.children = {{{col, lo[s], v}}, {{col, v + 1, up[s]}}};
            else br.children = {{{col, lo[s], v - 1}}, {{col, v, up[s]}}};
            dir = -1;
        } else {
            if (nodes_ == 1 || nodes_ % 20 == 0) rounding(view);
            // The heuristics below change the instance's solution: the node is solved again.
            bool moved = false;
            if (is_root && (rel_.quadratic_objective() || !model_.qrows.empty())) {
                outer_approximation_mip(view);
                moved = has_continuous_;
            }
            if (nodes_ == 1 || (nodes_ % 50 == 0 && !out_.have_solution) || nodes_ % 500 == 0) {
                diving(view);
                moved = true;
            }
            if (has_continuous_ && (nodes_ == 1 || nodes_ % 100 == 0)) {
                fix_and_solve(view, xnode);
                moved = true;
            }
            if (moved) {
                // The node's own solution is restored for branching.
                rel_.set_bounds(lo, up);
                Relaxation::Result again = rel_.solve(prune_level(), 10);
                if (again == Relaxation::Limit) {
                    node_bound_ = INFINITY;
                    open_.push(std::move(node));
                    stop = limit_reached();
                    if (!stop) stop = TRVO_STOP_ITERLIMIT;
                    out_.qp_stalled = rel_.qp_stalled();
                    break;
                }
                if (again != Relaxation::Optimal) {
                    if (again == Relaxation::Cutoff) drop_on_bound(view, std::max(obj, prune_level()));
                    node_bound_ = INFINITY;
                    continue;
                }
                xnode = rel_.x();
            }
            if (obj >= prune_level()) {
                drop_on_bound(view, obj);
                node_bound_ = INFINITY;
                continue;
            }
            const int col = select_branch(*node, obj, &dir);
            if (col < 0) {
                node_bound_ = INFINITY;
                continue;
            }
            const size_t s = static_cast<size_t>(col);
            br.col = col;
            br.value = xnode[s];
            br.children = {{{col, lo[s], std::floor(xnode[s])}}, {{col, std::ceil(xnode[s]), up[s]}}};
        }
        if (hooks_.userbranch) hooks_.userbranch(view, br);
        if (hooks_.chgbranchobject) hooks_.chgbranchobject(view, br);
        std::shared_ptr<Basis> basis = rel_.basis();
        std::vector<NodePtr> kids;
        for (size_t c = 0; c < br.children.size(); ++c) {
            auto kid = std::make_unique<Node>();
            kid->id = next_id_++;
            kid->parent = node->id;
            kid->depth = node->depth + 1;
            kid->bound = node_bound_;
            kid->changes = node->changes;
            for (const auto& b : br.children[c]) {
                bool found = false;
                for (auto& e : kid->changes)
                    if (e.col == b.col) {
                        e = b;
                        found = true;
                    }
                if (!found) kid->changes.push_back(b);
            }
            kid->basis = basis;
            kid->rows = node->rows;
            if (c < br.rows.size())
                for (const auto& row : br.rows[c]) kid->rows.push_back(std::make_shared<const BranchRow>(row));
            if (br.col >= 0 && br.children.size() == 2 && br.children[c].size() == 1 && br.children[c][0].col == br.col) {
                kid->branch_col = br.col;
                kid->dir = c == 0 ? -1 : 1;
                kid->branch_dist = c == 0 ? br.value - br.children[c][0].up : br.children[c][0].lo - br.value;
            }
            std::vector<int> kid_cuts = c < br.cuts.size() ? br.cuts[c] : std::vector<int>();
            std::vector<Branch::Bound> kid_bounds = cuts_.branch_bounds;
            cuts_.child_cuts = &kid_cuts;
            cuts_.child_bounds = &kid_bounds;
            if (hooks_.newnode) hooks_.newnode(view, node->id, kid->id, static_cast<int64_t>(c));
            cuts_.child_cuts = nullptr;
            cuts_.child_bounds = nullptr;
            kid->cuts = cuts_.child_keys(kid_cuts);
            for (const auto& b : kid_bounds) {
                // Bounds given to the child tighten what branching set.
                bool found = false;
                for (auto& e : kid->changes)
                    if (e.col == b.col) {
                        e.lo = std::max(e.lo, b.lo);
                        e.up = std::min(e.up, b.up);
                        found = true;
                    }
                if (!found) {
                    const size_t s = static_cast<size_t>(b.col);
                    kid->changes.push_back({b.col, std::max(lo[s], b.lo), std::min(up[s], b.up)});
                }
            }
            kids.push_back(std::move(kid));
        }
        node_bound_ = INFINITY;
        // Dive into the preferred child; the others wait in the queue.
        size_t pick = kids.size() == 2 ? (dir > 0 ? 1 : 0) : 0;
        if (br.preferred >= 0 && static_cast<size_t>(br.preferred) < kids.size()) pick = static_cast<size_t>(br.preferred);
        for (size_t c = 0; c < kids.size(); ++c) {
            if (c == pick) {
                kids[c]->basis.reset();  // the instance holds it already
                dive = std::move(kids[c]);
            } else {
                open_.push(std::move(kids[c]));
            }
        }
        // Leave the dive when its child is far worse than the best open node.
        if (dive && !open_.empty() && out_.have_solution) {
            const double best = open_.top()->bound;
            if (dive->bound > best + 0.5 * (out_.objective - best)) {
                dive->basis = basis;
                open_.push(std::move(dive));
            }
        }
        log_progress(false);
    }
    if (dive) open_.push(std::move(dive));
    cuts_.leave();

    out_.nodes = nodes_ + set_.earlier.nodes;
    out_.last_node = next_id_ - 1;
    out_.lp_iterations = iterations();
    if (stop) {
        out_.status = Status::Stopped;
        out_.stop_reason = stop;
        out_.bound = std::min(open_bound(), out_.have_solution ? out_.objective : INFINITY);
    } else if (out_.have_solution) {
        out_.status = out_.exact ? Status::Optimal : Status::Stopped;
        out_.bound = std::min(gap_bound_, out_.objective);
        // A gap within the relaxations' own accuracy is no gap: the search ended on its tree.
        const double eps = std::max(1e-9, set_.optimalitytol) * std::max(1.0, std::fabs(out_.objective));
        if (out_.bound >= out_.objective - eps) out_.bound = out_.objective;
        else if (out_.exact) out_.stop_reason = TRVO_STOP_MIPGAP;
    } else {
        out_.status = out_.exact ? Status::Infeasible : Status::Stopped;
        out_.bound = gap_bound_;
    }
    log_progress(true);
    return out_;
}

}  // namespace

Outcome run(const Model& model, const Settings& settings, const Hooks& hooks) {
    Search s(model, settings, hooks);
    return s.run();
}

}  // namespace search
}  // namespace trvo
