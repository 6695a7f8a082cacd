// Checks of the tree search's node hooks on small knapsacks, against enumeration. Usage:
// driver <case>.
#include "engine/check.h"
#include "engine/search/search.h"

#include <algorithm>
#include <map>
#include <set>
#include <vector>

using trvo::search::Branch;
using trvo::search::Hooks;
using trvo::search::Model;
using trvo::search::NodeView;
using trvo::search::Outcome;
using trvo::search::Settings;
using trvo::search::Status;

namespace {

// max v'x s.t. w'x <= cap, x binary (as the minimisation of -v'x), plus a second row
// x0 + x1 <= 1 so that the relaxations are not all alike.
struct Knapsack {
    std::vector<double> v, w;
    double cap;
    Model model() const {
        Model m;
        auto& lp = m.lp;
        const int n = static_cast<int>(v.size());
        lp.ncol = n;
        lp.nrow = 2;
        for (int j = 0; j < n; ++j) {
            lp.cost.push_back(-v[static_cast<size_t>(j)]);
            lp.col_lower.push_back(0);
            lp.col_upper.push_back(1);
            lp.integrality.push_back(kHighsVarTypeInteger);
        }
        lp.row_lower = {-INFINITY, -INFINITY};
        lp.row_upper = {cap, 1};
        lp.a_start = {0, n};
        for (int j = 0; j < n; ++j) {
            lp.a_index.push_back(j);
            lp.a_value.push_back(w[static_cast<size_t>(j)]);
        }
        lp.a_index.push_back(0);
        lp.a_value.push_back(1);
        lp.a_index.push_back(1);
        lp.a_value.push_back(1);
        lp.discrete = true;
        return m;
    }
    // Best value by enumeration, with x0 fixed to x0 when x0 >= 0.
    double best(int x0 = -1) const {
        const int n = static_cast<int>(v.size());
        double b = -INFINITY;
        for (int mask = 0; mask < (1 << n); ++mask) {
            if (x0 >= 0 && (mask & 1) != x0) continue;
            if ((mask & 1) && (mask & 2)) continue;
            double val = 0, wt = 0;
            for (int j = 0; j < n; ++j)
                if (mask >> j & 1) {
                    val += v[static_cast<size_t>(j)];
                    wt += w[static_cast<size_t>(j)];
                }
            if (wt <= cap) b = std::max(b, val);
        }
        return b;
    }
};

Knapsack knapsack(unsigned seed) {
    // A small deterministic generator (no dependence on the library's distributions).
    unsigned s = seed * 2654435761u + 12345u;
    auto next = [&s] {
        s = s * 1103515245u + 12345u;
        return (s >> 8) % 1000;
    };
    Knapsack k;
    double total = 0;
    for (int j = 0; j < 14; ++j) {
        k.w.push_back(10 + next() % 40);
        k.v.push_back(k.w.back() + next() % 25);
        total += k.w.back();
    }
    // Item 0 is the most attractive: the optimum usually takes it.
    k.v[0] = k.w[0] * 3;
    k.cap = std::floor(total * 0.35);
    return k;
}

Settings exact() {
    Settings s;
    s.miprelstop = 0;
    s.mipabsstop = 1e-9;
    return s;
}

}  // namespace

CASE(preintsol_rejecting_x0_gives_the_best_with_x0_zero) {
    for (unsigned seed = 1; seed <= 5; ++seed) {
        Knapsack k = knapsack(seed);
        Model m = k.model();
        Settings s = exact();
        Hooks h;
        int offered = 0, refused = 0;
        h.preintsol = [&](const NodeView&, int, const double* x, double, bool* reject, double*) {
            ++offered;
            if (x[0] > 0.5) {
                *reject = true;
                ++refused;
            }
        };
        Outcome o = trvo::search::run(m, s, h);
        CHECK(o.status == Status::Optimal);
        CHECK(o.have_solution && o.x[0] < 0.5);
        CHECK_NEAR(-o.objective, k.best(0), 1e-6);
        CHECK(offered > refused);
        // The plain search finds the unrestricted optimum.
        Outcome plain = trvo::search::run(m, s, Hooks());
        CHECK_NEAR(-plain.objective, k.best(), 1e-6);
        if (k.best() > k.best(0) + 1e-9) CHECK(refused > 0);
    }
}

CASE(preintsol_cutoff_and_intsol) {
    Knapsack k = knapsack(3);
    Model m = k.model();
    Settings s = exact();
    Hooks h;
    // A cutoff just above the optimum's objective (minimisation): the search still finds it.
    const double target = -k.best();
    std::vector<double> accepted;
    h.preintsol = [&](const NodeView&, int, const double*, double, bool*, double* cutoff) {
        *cutoff = std::min(*cutoff, target + 0.5);
    };
    h.intsol = [&](const NodeView&, const double*, double obj) { accepted.push_back(obj); };
    Outcome o = trvo::search::run(m, s, h);
    CHECK(o.status == Status::Optimal);
    CHECK_NEAR(o.objective, target, 1e-6);
    CHECK(static_cast<int64_t>(accepted.size()) == o.solutions);
    CHECK(std::is_sorted(accepted.rbegin(), accepted.rend()));  // each better than the last
}

CASE(node_hooks_fire_once_per_node_in_order) {
    Knapsack k = knapsack(2);
    Model m = k.model();
    Settings s = exact();
    Hooks h;
    std::vector<int64_t> pre, opt, inf;
    std::map<int64_t, int64_t> parent_of;
    std::set<int64_t> cut;
    int threads = 0, ends = 0;
    h.mipthread = [&] { ++threads; };
    h.destroymt = [&] { ++ends; };
    h.prenode = [&](const NodeView& v) {
        pre.push_back(v.node);
        CHECK(v.x == nullptr);
        return false;
    };
    h.optnode = [&](const NodeView& v) {
        opt.push_back(v.node);
        CHECK(v.x != nullptr);
        CHECK(!pre.empty() && pre.back() == v.node);
        return false;
    };
    h.infnode = [&](const NodeView& v) { inf.push_back(v.node); };
    h.nodecutoff = [&](const NodeView&, int64_t node) { cut.insert(node); };
    h.newnode = [&](const NodeView& v, int64_t parent, int64_t child, int64_t branch) {
        CHECK(v.node == parent);
        CHECK(branch == 0 || branch == 1);
        CHECK(parent_of.count(child) == 0);
        parent_of[child] = parent;
    };
    Outcome o = trvo::search::run(m, s, h);
    CHECK(o.status == Status::Optimal);
    CHECK_NEAR(-o.objective, k.best(), 1e-6);
    CHECK(threads == 1 && ends == 1);
    CHECK(static_cast<int64_t>(pre.size()) == o.nodes);
    CHECK(o.nodes > 3);
    // Every node processed after the root was announced by newnode; optnode fired on every node
    // whose relaxation was solved, i.e. all but the infeasible and cut-off ones.
    CHECK(pre.front() == 1);
    for (size_t i = 1; i < pre.size(); ++i) CHECK(parent_of.count(pre[i]) == 1);
    CHECK(opt.size() + inf.size() <= pre.size());
    CHECK(opt.size() >= pre.size() - inf.size() - cut.size());
}

CASE(prenode_declaring_all_but_the_root_infeasible) {
    for (unsigned seed = 1; seed <= 4; ++seed) {
        Knapsack k = knapsack(seed);
        Model m = k.model();
        Settings s = exact();
        Hooks h;
        std::vector<int64_t> sol_nodes;
        h.prenode = [](const NodeView& v) { return v.node != 1; };
        h.intsol = [&](const NodeView& v, const double*, double) { sol_nodes.push_back(v.node); };
        Outcome o = trvo::search::run(m, s, h);
        // Only root solutions can exist; the tree ends at once.
        CHECK(o.status == Status::Optimal || o.status == Status::Infeasible);
        CHECK(o.have_solution == (o.status == Status::Optimal));
        for (int64_t n : sol_nodes) CHECK(n == 1);
        CHECK(o.nodes <= 3);
    }
}

CASE(optnode_declaring_fractional_nodes_infeasible) {
    // optnode refusing every node whose solution is fractional leaves only integral
    // relaxation solutions: the root's relaxation of this knapsack is fractional, so the answer
    // comes from the heuristics or not at all, and is never better than the optimum.
    Knapsack k = knapsack(4);
    Model m = k.model();
    Settings s = exact();
    Hooks h;
    int64_t declared = 0;
    h.optnode = [&](const NodeView& v) {
        for (int j = 0; j < m.lp.ncol; ++j)
            if (std::fabs(v.x[j] - std::round(v.x[j])) > 1e-6) {
                ++declared;
                return true;
            }
        return false;
    };
    Outcome o = trvo::search::run(m, s, h);
    CHECK(declared >= 1);
    CHECK(o.nodes == 1);
    if (o.have_solution) CHECK(-o.objective <= k.best() + 1e-6);
}

CASE(chgbranchobject_replacing_the_decision) {
    // Branch on the free column of lowest index instead of the engine's choice (integral in the
    // relaxation or not: the children still split the node's domain); the optimum is the same.
    Knapsack k = knapsack(5);
    Model m = k.model();
    Settings s = exact();
    Hooks h;
    int replaced = 0;
    h.chgbranchobject = [&](const NodeView& v, Branch& b) {
        for (int j = 0; j < m.lp.ncol; ++j)
            if (v.lower[j] < v.upper[j]) {
                if (j != b.col) ++replaced;
                b.col = -1;
                b.children = {{{j, 0, 0}}, {{j, 1, 1}}};
                break;
            }
    };
    Outcome o = trvo::search::run(m, s, h);
    CHECK(o.status == Status::Optimal);
    CHECK_NEAR(-o.objective, k.best(), 1e-6);
    CHECK(replaced > 0);
}

CASE(maxmipsol_counts_every_accepted_solution) {
    for (int k = 1; k <= 3; ++k) {
        Knapsack ks = knapsack(7);
        Model m = ks.model();
        Settings s = exact();
        s.maxmipsol = k;
        Outcome o = trvo::search::run(m, s, Hooks());
        CHECK(o.solutions <= k);
        if (o.status == Status::Stopped) CHECK(o.solutions == k && o.stop_reason == 6);
    }
}
