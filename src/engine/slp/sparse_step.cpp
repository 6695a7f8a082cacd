// Mehrotra predictor-corrector interior-point method on the normal equations, with an
// envelope Cholesky factorisation in reverse Cuthill-McKee order (see sparse_step.h). A
// separable quadratic term only adds its diagonal to the scaling of each column, so the normal
// matrix keeps the pattern of the LP's.
//
// Formulation: every column that is not fixed is a variable x (shifted by its lower bound
// when it has one, so that x >= 0 there; an upper bound U is x + su = U, su >= 0); every row
// with a finite bound and distinct bounds gets a slack variable s (a'x - s = 0, s within the
// row's bounds); equality rows are a'x = b; fixed columns move to the right-hand side and
// rows free on both sides are left out (dual 0).
//
// Two-way split: on large problems the ordered rows are cut into two halves that no column
// couples, and the few rows that couple them (a separator, with the rows coupled to very many
// others) go last. Each half's block of the factor, its triangular solves and every loop over
// its columns and rows are then independent of the other half's: two threads take one half
// each, and the separator's share runs after both. The split, and the order of every sum, do
// not depend on the number of threads, so one thread gives the same results bit for bit.
#include "engine/slp/sparse_step.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <type_traits>

namespace slp {

namespace {

// Columns in more rows than kMaxColumnRows would fill the normal matrix: up to kMaxDense of
// them are kept out of it and brought back by a low-rank correction of each solve (more
// decline the problem). Envelopes wider than kMaxEnvelopePerRow entries per row, on average,
// decline it too: the simplex method is then the better tool.
constexpr int kMaxColumnRows = 48;
constexpr int kMaxDense = 8;
constexpr double kMaxEnvelopePerRow = 200.0;
constexpr double kProximal = 1e-8;
// With keep_best, a run whose best iterate is this many iterations old has stalled.
constexpr int kStallIterations = 12;
// Problems with fewer (sparse) rows than this are not split; nor are those whose separator
// would exceed kMaxSeparatorShare of their rows.
constexpr int kMinSplitRows = 1000;
constexpr double kMaxSeparatorShare = 0.05;
// Nor those with more separator rows (dense rows included) than this: each part keeps its own
// copy of the separator's block of the normal matrix.
constexpr int kMaxSeparatorRows = 400;

inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

// Runs the two parts of a split computation: on the calling thread and a helper thread when
// there are two, else one after the other on the calling thread. A part that the helper has
// not claimed yet is taken by the calling thread once its own part is done, so a helper that
// the system has not scheduled holds nothing up. A part does the same arithmetic whichever
// thread runs it.
class Team {
public:
    explicit Team(bool two) {
        if (two) helper_ = std::thread([this] { loop(); });
    }
    ~Team() {
        if (!helper_.joinable()) return;
        {
            std::lock_guard<std::mutex> g(mu_);
            quit_.store(true);
        }
        cv_.notify_one();
        helper_.join();
    }
    Team(const Team&) = delete;
    Team& operator=(const Team&) = delete;

    template <class F>
    void run(F&& f) {
        if (!helper_.joinable()) {
            f(0);
            f(1);
            return;
        }
        using Fn = std::remove_reference_t<F>;
        fn_ = [](void* c, int part) { (*static_cast<Fn*>(c))(part); };
        ctx_ = &f;
        const uint64_t g = posted_.load(std::memory_order_relaxed) + 1;
        posted_.store(g);
        if (sleeping_.load()) {
            std::lock_guard<std::mutex> lk(mu_);
            cv_.notify_one();
        }
        f(0);
        uint64_t expect = g - 1;
        if (taken_.compare_exchange_strong(expect, g)) {
            f(1);
            return;
        }
        // The helper runs part 1: wait for it, spinning briefly (the parts are of about the
        // same size), then asleep (on a loaded machine the helper may have lost its core).
        auto t0 = std::chrono::steady_clock::now();
        for (int spins = 0; done_.load() != g; ++spins) {
            cpu_relax();
            if ((spins & 63) == 63 && std::chrono::steady_clock::now() - t0 > std::chrono::microseconds(kSpinMicros)) {
                std::unique_lock<std::mutex> lk(mu_);
                waiting_.store(true);
                done_cv_.wait(lk, [&] { return done_.load() == g; });
                waiting_.store(false);
            }
        }
    }

private:
    void loop() {
        uint64_t seen = 0;
        for (;;) {
            // Spin a little while for the next part (they follow each other closely within an
            // iteration), then sleep until one is posted.
            auto t0 = std::chrono::steady_clock::now();
            for (int spins = 0; posted_.load() == seen && !quit_.load(); ++spins) {
                cpu_relax();
                if ((spins & 63) == 63 && std::chrono::steady_clock::now() - t0 > std::chrono::microseconds(4 * kSpinMicros)) {
                    std::unique_lock<std::mutex> lk(mu_);
                    sleeping_.store(true);
                    cv_.wait(lk, [&] { return posted_.load() != seen || quit_.load(); });
                    sleeping_.store(false);
                }
            }
            if (quit_.load()) return;
            seen = posted_.load();
            uint64_t expect = seen - 1;
            if (taken_.compare_exchange_strong(expect, seen)) {
                fn_(ctx_, 1);
                done_.store(seen);
                if (waiting_.load()) {
                    std::lock_guard<std::mutex> lk(mu_);
                    done_cv_.notify_one();
                }
            }
        }
    }

    std::thread helper_;
    std::mutex mu_;
    std::condition_variable cv_, done_cv_;
    std::atomic<uint64_t> posted_{0}, taken_{0}, done_{0};
    std::atomic<bool> sleeping_{false}, waiting_{false}, quit_{false};
    // How long a thread spins for the other before it sleeps (the helper waits for the next
    // part four times as long: the parts of an iteration follow each other closely).
    static constexpr int kSpinMicros = 25;
    void (*fn_)(void*, int) = nullptr;
    void* ctx_ = nullptr;
};

struct Variable {
    double cost = 0.0, shift = 0.0, U = INFINITY;   // x + shift is the column's value
    double q = 0.0;                                  // quadratic cost 1/2 q (x + shift)^2
    bool has_l = false, has_u = false;
    int col = -1;   // LP column, or -1 for a row slack
    int row = -1;   // the slack's row (compact index)
};

// Lower-triangular envelope matrix in the split order: rows [0, h) form the first half, [h, sb)
// the second, [sb, m) the separator. Row i holds columns lo2[i] .. i and, for a separator row,
// also lo1[i] .. hi1[i]-1 in the first half (stored first; the two ranges are disjoint). The
// rows of one half never reach into the other.
struct Envelope {
    int m = 0, h = 0, sb = 0;
    std::vector<int> lo1, hi1, lo2;
    std::vector<int64_t> pos;
    std::vector<double> L;
    double* seg1(int i) { return &L[pos[i]]; }                              // [lo1, hi1)
    double* seg2(int i) { return &L[pos[i] + (hi1[i] - lo1[i])]; }          // [lo2, i]
    const double* seg1(int i) const { return &L[pos[i]]; }
    const double* seg2(int i) const { return &L[pos[i] + (hi1[i] - lo1[i])]; }
    double& at(int i, int j) { return j >= lo2[i] ? seg2(i)[j - lo2[i]] : seg1(i)[j - lo1[i]]; }
};

// Reverse Cuthill-McKee order of the graph adj (symmetric, without self loops).
std::vector<int> rcm_order(const std::vector<std::vector<int>>& adj) {
    int n = (int)adj.size();
    std::vector<int> order, by_degree(n);
    order.reserve(n);
    std::vector<char> seen(n, 0);
    for (int i = 0; i < n; ++i) by_degree[i] = i;
    std::stable_sort(by_degree.begin(), by_degree.end(),
                     [&](int a, int b) { return adj[a].size() < adj[b].size(); });
    std::vector<int> level(n, -1), queue;
    // Breadth-first search from s over unseen nodes; returns a node of least degree in the
    // last level (a pseudo-peripheral candidate) and leaves the visit order in queue.
    auto bfs = [&](int s, bool mark) {
        queue.clear();
        queue.push_back(s);
        level[s] = 0;
        std::vector<int> touched{s};
        for (size_t q = 0; q < queue.size(); ++q) {
            int v = queue[q];
            std::vector<int> next;
            for (int w : adj[v])
                if (!seen[w] && level[w] < 0) {
                    level[w] = level[v] + 1;
                    next.push_back(w);
                    touched.push_back(w);
                }
            std::sort(next.begin(), next.end(), [&](int a, int b) { return adj[a].size() < adj[b].size(); });
            queue.insert(queue.end(), next.begin(), next.end());
        }
        int last = queue.back(), best = last;
        for (auto it = queue.rbegin(); it != queue.rend() && level[*it] == level[last]; ++it)
            if (adj[*it].size() < adj[best].size()) best = *it;
        for (int v : touched) level[v] = -1;
        if (mark)
            for (int v : queue) seen[v] = 1;
        return best;
    };
    for (int s : by_degree) {
        if (seen[s]) continue;
        int p = bfs(s, false);
        p = bfs(p, false);
        bfs(p, true);
        order.insert(order.end(), queue.begin(), queue.end());
    }
    std::reverse(order.begin(), order.end());
    return order;
}

// Cholesky factorisation in place, in three pieces: factor_part(p) takes the rows of half p
// and the separator rows' entries in that half (both halves can run at once), factor_tail the
// separator rows' own block. Pivots that vanish (dependent rows) become huge, which zeroes
// their component of the solution; tiny is the threshold.
void factor_part(Envelope& E, int part, double tiny) {
    const int r0 = part == 0 ? 0 : E.h, r1 = part == 0 ? E.h : E.sb;
    for (int i = r0; i < r1; ++i) {
        const int fi = E.lo2[i];
        double* Li = E.seg2(i) - fi;   // Li[k] = L(i, k)
        for (int j = fi; j <= i; ++j) {
            const int fj = E.lo2[j];
            const double* Lj = E.seg2(j) - fj;
            double s = Li[j];
            for (int k = std::max(fi, fj); k < j; ++k) s -= Li[k] * Lj[k];
            if (j < i) Li[j] = s / Lj[j];
            else Li[i] = s > tiny ? std::sqrt(s) : 1e64;
        }
    }
    for (int i = E.sb; i < E.m; ++i) {
        // Entries of separator row i in this half: the rows there are already factored.
        const int a = part == 0 ? E.lo1[i] : E.lo2[i];
        const int b = part == 0 ? E.hi1[i] : std::max(E.lo2[i], E.sb);
        double* Li = (part == 0 ? E.seg1(i) : E.seg2(i)) - a;
        for (int j = a; j < b; ++j) {
            const int fj = E.lo2[j];
            const double* Lj = E.seg2(j) - fj;
            double s = Li[j];
            for (int k = std::max(a, fj); k < j; ++k) s -= Li[k] * Lj[k];
            Li[j] = s / Lj[j];
        }
    }
}

void factor_tail(Envelope& E, double tiny) {
    for (int i = E.sb; i < E.m; ++i) {
        const int a1 = E.lo1[i], b1 = E.hi1[i], a2 = E.lo2[i];
        const double* Li1 = E.seg1(i) - a1;
        double* Li = E.seg2(i) - a2;
        for (int j = std::max(a2, E.sb); j <= i; ++j) {
            const int fj = E.lo2[j];
            const double* Lj1 = E.seg1(j) - E.lo1[j];
            const double* Lj = E.seg2(j) - fj;
            double s = Li[j];
            for (int k = std::max(a1, E.lo1[j]), e = std::min(b1, E.hi1[j]); k < e; ++k) s -= Li1[k] * Lj1[k];
            for (int k = std::max(a2, fj); k < j; ++k) s -= Li[k] * Lj[k];
            if (j < i) Li[j] = s / Lj[j];
            else Li[i] = s > tiny ? std::sqrt(s) : 1e64;
        }
    }
}

// Solves L L' z = r in place. Forward: each half, with the separator rows' sums over it in
// psum[part] (solve_forward_part), then the separator rows; backward: the separator rows
// first, then each half (solve_backward_part).
void solve_forward_part(const Envelope& E, int part, std::vector<double>& r, std::vector<double>& psum) {
    const int r0 = part == 0 ? 0 : E.h, r1 = part == 0 ? E.h : E.sb;
    for (int i = r0; i < r1; ++i) {
        const int fi = E.lo2[i];
        const double* Li = E.seg2(i) - fi;
        double s = r[i];
        for (int k = fi; k < i; ++k) s -= Li[k] * r[k];
        r[i] = s / Li[i];
    }
    for (int i = E.sb; i < E.m; ++i) {
        const int a = part == 0 ? E.lo1[i] : E.lo2[i];
        const int b = part == 0 ? E.hi1[i] : std::max(E.lo2[i], E.sb);
        const double* Li = (part == 0 ? E.seg1(i) : E.seg2(i)) - a;
        double s = 0.0;
        for (int k = a; k < b; ++k) s += Li[k] * r[k];
        psum[i - E.sb] = s;
    }
}

void solve_forward_tail(const Envelope& E, std::vector<double>& r, const std::vector<double>& p0,
                        const std::vector<double>& p1) {
    for (int i = E.sb; i < E.m; ++i) {
        const int fi = E.lo2[i];
        const double* Li = E.seg2(i) - fi;
        double s = r[i] - p0[i - E.sb] - p1[i - E.sb];
        for (int k = std::max(fi, E.sb); k < i; ++k) s -= Li[k] * r[k];
        r[i] = s / Li[i];
    }
}

void solve_backward_head(const Envelope& E, std::vector<double>& r) {
    for (int i = E.m - 1; i >= E.sb; --i) {
        const int fi = E.lo2[i];
        const double* Li = E.seg2(i) - fi;
        r[i] /= Li[i];
        const double v = r[i];
        for (int k = std::max(fi, E.sb); k < i; ++k) r[k] -= Li[k] * v;
    }
}

void solve_backward_part(const Envelope& E, int part, std::vector<double>& r) {
    for (int i = E.m - 1; i >= E.sb; --i) {
        const int a = part == 0 ? E.lo1[i] : E.lo2[i];
        const int b = part == 0 ? E.hi1[i] : std::max(E.lo2[i], E.sb);
        const double* Li = (part == 0 ? E.seg1(i) : E.seg2(i)) - a;
        const double v = r[i];
        for (int k = a; k < b; ++k) r[k] -= Li[k] * v;
    }
    const int r0 = part == 0 ? 0 : E.h, r1 = part == 0 ? E.h : E.sb;
    for (int i = r1 - 1; i >= r0; --i) {
        const int fi = E.lo2[i];
        const double* Li = E.seg2(i) - fi;
        r[i] /= Li[i];
        const double v = r[i];
        for (int k = fi; k < i; ++k) r[k] -= Li[k] * v;
    }
}

}  // namespace

SparseStatus sparse_lp_solve(const SparseLp& lp, double tol, const std::function<bool()>& stop,
                             SparseLpSolution& sol, bool keep_best, int threads) {
    const int nc = lp.ncol, nr = lp.nrow;
    // Rows kept (compact index, -1 left out) and their right-hand sides.
    std::vector<int> rowmap(nr, -1);
    int m = 0;
    for (int r = 0; r < nr; ++r) {
        if (lp.rowlo[r] > lp.rowup[r]) return SparseStatus::Declined;
        if (std::isfinite(lp.rowlo[r]) || std::isfinite(lp.rowup[r])) rowmap[r] = m++;
    }
    std::vector<double> b(m, 0.0);
    std::vector<Variable> var;
    var.reserve(nc + m);
    std::vector<double> fixedval(nc, 0.0);
    std::vector<char> isfixed(nc, 0);
    const bool quadratic = !lp.qdiag.empty();
    if (quadratic && (int)lp.qdiag.size() != nc) return SparseStatus::Declined;
    double objconst = 0.0;   // the objective's share of the shifts and the fixed columns
    for (int j = 0; j < nc; ++j) {
        double l = lp.collo[j], u = lp.colup[j];
        double q = quadratic ? lp.qdiag[j] : 0.0;
        if (l > u || !(q >= 0.0) || !std::isfinite(q)) return SparseStatus::Declined;
        if (l == u) {
            isfixed[j] = 1;
            fixedval[j] = l;
            objconst += (lp.cost[j] + 0.5 * q * l) * l;
            for (int e = lp.start[j]; e < lp.start[j + 1]; ++e)
                if (rowmap[lp.index[e]] >= 0) b[rowmap[lp.index[e]]] -= lp.value[e] * l;
            continue;
        }
        Variable v;
        v.col = j;
        v.has_l = std::isfinite(l);
        v.has_u = std::isfinite(u);
        v.shift = v.has_l ? l : 0.0;
        v.U = v.has_u ? u - v.shift : INFINITY;
        v.q = q;
        // c (x + shift) + q/2 (x + shift)^2 = (c + q shift) x + q/2 x^2 + constant
        v.cost = lp.cost[j] + q * v.shift;
        objconst += lp.cost[j] * v.shift + 0.5 * q * v.shift * v.shift;
        if (v.shift != 0.0)
            for (int e = lp.start[j]; e < lp.start[j + 1]; ++e)
                if (rowmap[lp.index[e]] >= 0) b[rowmap[lp.index[e]]] -= lp.value[e] * v.shift;
        var.push_back(v);
    }
    for (int r = 0; r < nr; ++r) {
        int i = rowmap[r];
        if (i < 0) continue;
        double l = lp.rowlo[r], u = lp.rowup[r];
        if (l == u) {
            b[i] += l;
            continue;
        }
        Variable v;
        v.row = i;
        v.has_l = std::isfinite(l);
        v.has_u = std::isfinite(u);
        v.shift = v.has_l ? l : 0.0;
        v.U = v.has_u ? u - v.shift : INFINITY;
        b[i] += v.shift;   // a'x - (s' + shift) = 0
        var.push_back(v);
    }
    const int nv = (int)var.size();
    // Dense columns: their share of the normal matrix is a low-rank term (see nsolve).
    std::vector<int> densev;
    std::vector<char> isdense(nv, 0);
    for (int v = 0; v < nv; ++v) {
        int j = var[v].col;
        if (j >= 0 && lp.start[j + 1] - lp.start[j] > kMaxColumnRows) {
            if ((int)densev.size() == kMaxDense) return SparseStatus::Declined;
            densev.push_back(v);
            isdense[v] = 1;
        }
    }
    const int nd = (int)densev.size();

    // Matrix of the variables, column-wise, on the compact rows; a slack's column is -e_row.
    std::vector<int> vstart(nv + 1, 0), vrow;
    std::vector<double> vval;
    for (int v = 0; v < nv; ++v) {
        if (var[v].col >= 0) {
            int j = var[v].col;
            for (int e = lp.start[j]; e < lp.start[j + 1]; ++e) {
                int i = rowmap[lp.index[e]];
                if (i < 0 || lp.value[e] == 0.0) continue;
                vrow.push_back(i);
                vval.push_back(lp.value[e]);
            }
        } else {
            vrow.push_back(var[v].row);
            vval.push_back(-1.0);
        }
        vstart[v + 1] = (int)vrow.size();
    }

    // Rows whose columns are all fixed: met already (to a tolerance) or the step problem is
    // infeasible, which the simplex method is left to report. Met ones stay in the system
    // with a unit diagonal and a zero right-hand side, so that their duals stay zero.
    std::vector<char> empty(m, 1), sparse_covered(m, 0);
    for (int i : vrow) empty[i] = 0;
    for (int v = 0; v < nv; ++v)
        if (!isdense[v])
            for (int p = vstart[v]; p < vstart[v + 1]; ++p) sparse_covered[vrow[p]] = 1;
    for (int i = 0; i < m; ++i)   // the sparse part must stay nonsingular on its own
        if (!empty[i] && !sparse_covered[i]) return SparseStatus::Declined;
    sparse_covered.clear();
    {
        double bmax = 0.0;
        for (int i = 0; i < m; ++i) bmax = std::max(bmax, std::fabs(b[i]));
        for (int i = 0; i < m; ++i)
            if (empty[i]) {
                if (std::fabs(b[i]) > 1e-9 * (1.0 + bmax)) return SparseStatus::Declined;
                b[i] = 0.0;
            }
    }

    // Ordering and envelope of A D A'.
    std::vector<std::vector<int>> adj(m);
    for (int v = 0; v < nv; ++v) {
        if (isdense[v]) continue;
        for (int p = vstart[v]; p < vstart[v + 1]; ++p)
            for (int q = vstart[v]; q < vstart[v + 1]; ++q)
                if (vrow[p] != vrow[q]) adj[vrow[p]].push_back(vrow[q]);
    }
    for (auto& a : adj) {
        std::sort(a.begin(), a.end());
        a.erase(std::unique(a.begin(), a.end()), a.end());
    }
    // Rows coupled to very many others (the transfer row of an objective) go last, outside
    // the ordering: they add one long row each to the envelope and no width to the others.
    std::vector<int> dense, sub(m, -1), subrows;
    {
        size_t total = 0;
        for (auto& a : adj) total += a.size();
        size_t limit = std::max<size_t>(64, 10 * (total / std::max(m, 1) + 1));
        for (int i = 0; i < m; ++i) {
            if (adj[i].size() > limit) dense.push_back(i);
            else {
                sub[i] = (int)subrows.size();
                subrows.push_back(i);
            }
        }
    }
    std::vector<int> order, inv(m);
    {
        std::vector<std::vector<int>> sadj(subrows.size());
        for (size_t k = 0; k < subrows.size(); ++k)
            for (int w : adj[subrows[k]])
                if (sub[w] >= 0) sadj[k].push_back(sub[w]);
        for (int k : rcm_order(sadj)) order.push_back(subrows[k]);
        order.insert(order.end(), dense.begin(), dense.end());
    }
    for (int k = 0; k < m; ++k) inv[order[k]] = k;
    // Split: the first half of the ordered rows stays as it is; of the second half, the rows
    // coupled to the first (the separator) move to the end, before the dense rows, and the
    // others are reversed, so that those next to the separator come last. Neither half then
    // fills in the other, and a separator row fills in only near the end of each half.
    const int ms = (int)subrows.size();
    int h = m, nsecond = 0;
    if (ms >= kMinSplitRows) {
        const int half = ms / 2;
        std::vector<int> sep, second;
        for (int k = half; k < ms; ++k) {
            int r = order[k];
            bool coupled = false;
            for (int w : adj[r])
                if (inv[w] < half) {
                    coupled = true;
                    break;
                }
            (coupled ? sep : second).push_back(r);
        }
        if (!second.empty() && (double)sep.size() <= kMaxSeparatorShare * ms &&
            (int)sep.size() + (m - ms) <= kMaxSeparatorRows) {
            std::vector<int> split(order.begin(), order.begin() + half);
            split.insert(split.end(), second.rbegin(), second.rend());
            split.insert(split.end(), sep.begin(), sep.end());
            split.insert(split.end(), order.begin() + ms, order.end());
            order.swap(split);
            h = half;
            nsecond = (int)second.size();
            for (int k = 0; k < m; ++k) inv[order[k]] = k;
        }
    }
    const int sb = h + nsecond;
    Envelope E;
    E.m = m;
    E.h = h;
    E.sb = sb;
    E.lo1.resize(m);
    E.hi1.resize(m);
    E.lo2.resize(m);
    E.pos.resize(m + 1);
    int64_t profile = 0;
    for (int k = 0; k < m; ++k) {
        int f1 = h, f2 = k;
        for (int w : adj[order[k]]) {
            int q = inv[w];
            if (q >= k) continue;
            if (k >= sb && q < h) f1 = std::min(f1, q);
            else f2 = std::min(f2, q);
        }
        E.lo1[k] = k >= sb ? f1 : f2;
        E.hi1[k] = k >= sb ? h : f2;
        E.lo2[k] = f2;
        E.pos[k] = profile;
        profile += (E.hi1[k] - E.lo1[k]) + (k - f2 + 1);
    }
    E.pos[m] = profile;
    if ((double)profile > kMaxEnvelopePerRow * std::max(m, 1) + 1e5) return SparseStatus::Declined;
    adj.clear();
    adj.shrink_to_fit();
    for (int& i : vrow) i = inv[i];
    std::vector<double> bb(m);
    for (int i = 0; i < m; ++i) bb[inv[i]] = b[i];
    b.swap(bb);
    std::vector<char> emptyk(m);
    for (int i = 0; i < m; ++i) emptyk[inv[i]] = empty[i];
    empty.swap(emptyk);
    E.L.assign(profile, 0.0);

    // Variables in three classes: in rows of the first half (and the separator), in rows of
    // the second half (and the separator), and the rest (dense columns in both halves); the
    // classes in this order. The loops that add a variable's column into rows run the first
    // two classes at once, each adding into the separator rows on the side, then the third.
    int n0 = 0, n01 = 0;
    {
        std::vector<int> cls(nv, 0), perm;
        for (int v = 0; v < nv; ++v) {
            bool first = false, second = false;
            for (int p = vstart[v]; p < vstart[v + 1]; ++p) {
                int i = vrow[p];
                if (i < h) first = true;
                else if (i < sb) second = true;
            }
            cls[v] = first && second ? 2 : second ? 1 : 0;
        }
        for (int c = 0; c < 3; ++c) {
            for (int v = 0; v < nv; ++v)
                if (cls[v] == c) perm.push_back(v);
            if (c == 0) n0 = (int)perm.size();
            if (c == 1) n01 = (int)perm.size();
        }
        std::vector<Variable> pvar(nv);
        std::vector<int> pstart(nv + 1, 0), prow;
        std::vector<double> pval;
        std::vector<char> pdense(nv, 0);
        prow.reserve(vrow.size());
        pval.reserve(vval.size());
        densev.clear();
        for (int k = 0; k < nv; ++k) {
            int v = perm[k];
            pvar[k] = var[v];
            pdense[k] = isdense[v];
            if (isdense[v]) densev.push_back(k);
            for (int p = vstart[v]; p < vstart[v + 1]; ++p) {
                prow.push_back(vrow[p]);
                pval.push_back(vval[p]);
            }
            pstart[k + 1] = (int)prow.size();
        }
        var.swap(pvar);
        vstart.swap(pstart);
        vrow.swap(prow);
        vval.swap(pval);
        isdense.swap(pdense);
    }
    Team team(threads >= 2 && nsecond > 0);
    // Index ranges of a part: variables element by element, variables whose columns go into
    // rows (the third class after both parts), rows.
    auto vrange = [&](int part, int* a, int* e) { *a = part == 0 ? 0 : n0; *e = part == 0 ? n0 : nv; };
    auto crange = [&](int part, int* a, int* e) { *a = part == 0 ? 0 : n0; *e = part == 0 ? n0 : n01; };
    auto rrange = [&](int part, int* a, int* e) { *a = part == 0 ? 0 : h; *e = part == 0 ? h : m; };

    // Starting point: boxed variables at the middle of their range, one-sided ones a unit
    // inside their bound, bound duals at the scale of the costs.
    std::vector<double> x(nv), su(nv, 0.0), zl(nv, 0.0), zu(nv, 0.0), y(m, 0.0);
    int nb = 0;
    double cnorm = 0.0, bnorm = 0.0;
    for (int v = 0; v < nv; ++v) {
        const Variable& V = var[v];
        cnorm = std::max(cnorm, std::fabs(V.cost));
        if (V.has_u) cnorm = std::max(cnorm, V.q * V.U);
        if (V.has_l && V.has_u) x[v] = 0.5 * V.U;
        else if (V.has_l) x[v] = 1.0;
        else if (V.has_u) x[v] = V.U - 1.0;
        else x[v] = 0.0;
        if (V.has_u) su[v] = V.U - x[v];
        nb += V.has_l + V.has_u;
    }
    for (int i = 0; i < m; ++i) bnorm = std::max(bnorm, std::fabs(b[i]));
    for (int v = 0; v < nv; ++v) {
        if (var[v].has_l) zl[v] = std::max(1.0, cnorm);
        if (var[v].has_u) zu[v] = std::max(1.0, cnorm);
    }
    for (int v = 0; v < nv; ++v)
        if (var[v].has_u) bnorm = std::max(bnorm, std::fabs(var[v].U));

    std::vector<double> rp(m), rd(nv), rb(nv), theta(nv), g(nv), rhs(m), dy(m), dx(nv), dzl(nv), dzu(nv),
        dsu(nv), dxa(nv), dzla(nv), dzua(nv), dsua(nv);
    auto Atv = [&](const std::vector<double>& yy, int v) {
        double s = 0.0;
        for (int p = vstart[v]; p < vstart[v + 1]; ++p) s += vval[p] * yy[vrow[p]];
        return s;
    };
    // out = base - sum over the variables of their column times coef(v): sub_columns(part)
    // takes the rows of the part's half and its variables, adding into the separator rows in
    // sacc[part]; sub_rest then takes the separator rows and the third class.
    const int ns = m - sb;
    std::vector<double> sacc[2] = {std::vector<double>(ns), std::vector<double>(ns)};
    auto sub_columns = [&](int part, std::vector<double>& out, const std::vector<double>& base, auto&& coef) {
        const int r0 = part == 0 ? 0 : h, r1 = part == 0 ? h : sb;
        std::copy(base.begin() + r0, base.begin() + r1, out.begin() + r0);
        std::vector<double>& acc = sacc[part];
        std::fill(acc.begin(), acc.end(), 0.0);
        int a, e;
        crange(part, &a, &e);
        for (int v = a; v < e; ++v) {
            double t = coef(v);
            for (int p = vstart[v]; p < vstart[v + 1]; ++p) {
                int i = vrow[p];
                if (i < sb) out[i] -= vval[p] * t;
                else acc[i - sb] -= vval[p] * t;
            }
        }
    };
    auto sub_rest = [&](std::vector<double>& out, const std::vector<double>& base, auto&& coef) {
        for (int i = sb; i < m; ++i) out[i] = base[i] + sacc[0][i - sb] + sacc[1][i - sb];
        for (int v = n01; v < nv; ++v) {
            double t = coef(v);
            for (int p = vstart[v]; p < vstart[v + 1]; ++p) out[vrow[p]] -= vval[p] * t;
        }
    };
    // Solves with the factor: both halves at once, the separator between.
    std::vector<double> psum0(m - sb), psum1(m - sb);
    auto esolve = [&](std::vector<double>& r) {
        team.run([&](int part) { solve_forward_part(E, part, r, part == 0 ? psum0 : psum1); });
        solve_forward_tail(E, r, psum0, psum1);
        solve_backward_head(E, r);
        team.run([&](int part) { solve_backward_part(E, part, r); });
    };
    // Solves with S + U T U', S the factored normal matrix of the sparse columns, U the dense
    // columns and T their scalings: x = S^-1 r - W M^-1 U'S^-1 r with W = S^-1 U and
    // M = T^-1 + U'W (Woodbury), M factored densely once per iteration.
    std::vector<double> W((size_t)nd * m), M((size_t)nd * nd), ud(nd);
    auto prepare_dense = [&]() {
        for (int a = 0; a < nd; ++a) {
            double* w = &W[(size_t)a * m];
            std::fill(w, w + m, 0.0);
            int v = densev[a];
            for (int p = vstart[v]; p < vstart[v + 1]; ++p) w[vrow[p]] += vval[p];
            std::vector<double> col(w, w + m);
            esolve(col);
            std::copy(col.begin(), col.end(), w);
        }
        for (int a = 0; a < nd; ++a)
            for (int c = 0; c < nd; ++c) {
                int v = densev[a];
                double s = a == c ? 1.0 / theta[v] : 0.0;
                const double* w = &W[(size_t)c * m];
                for (int p = vstart[v]; p < vstart[v + 1]; ++p) s += vval[p] * w[vrow[p]];
                M[(size_t)a * nd + c] = s;
            }
        // Cholesky of the small symmetric positive definite M, in place (lower triangle).
        for (int a = 0; a < nd; ++a)
            for (int c = 0; c <= a; ++c) {
                double s = M[(size_t)a * nd + c];
                for (int k = 0; k < c; ++k) s -= M[(size_t)a * nd + k] * M[(size_t)c * nd + k];
                M[(size_t)a * nd + c] = c < a ? s / M[(size_t)c * nd + c] : std::sqrt(std::max(s, 1e-300));
            }
    };
    auto nsolve = [&](std::vector<double>& r) {
        esolve(r);
        if (nd == 0) return;
        for (int a = 0; a < nd; ++a) {
            int v = densev[a];
            double s = 0.0;
            for (int p = vstart[v]; p < vstart[v + 1]; ++p) s += vval[p] * r[vrow[p]];
            ud[a] = s;
        }
        for (int a = 0; a < nd; ++a) {
            for (int k = 0; k < a; ++k) ud[a] -= M[(size_t)a * nd + k] * ud[k];
            ud[a] /= M[(size_t)a * nd + a];
        }
        for (int a = nd - 1; a >= 0; --a) {
            for (int k = a + 1; k < nd; ++k) ud[a] -= M[(size_t)k * nd + a] * ud[k];
            ud[a] /= M[(size_t)a * nd + a];
        }
        for (int a = 0; a < nd; ++a) {
            const double* w = &W[(size_t)a * m];
            for (int i = 0; i < m; ++i) r[i] -= w[i] * ud[a];
        }
    };
    // Largest |r_i|.
    auto rowmax = [&](const std::vector<double>& r) {
        double mx[2] = {0.0, 0.0};
        team.run([&](int part) {
            int a, e;
            rrange(part, &a, &e);
            double t = 0.0;
            for (int i = a; i < e; ++i) t = std::max(t, std::fabs(r[i]));
            mx[part] = t;
        });
        return std::max(mx[0], mx[1]);
    };
    // Direction for complementarity targets rl (lower) and ru (upper); the factor is current.
    double refine_target = 0.0;
    auto direction = [&](const std::vector<double>& rl, const std::vector<double>& ru) {
        auto tg = [&](int v) { return theta[v] * g[v]; };
        team.run([&](int part) {
            int a, e;
            vrange(part, &a, &e);
            for (int v = a; v < e; ++v) {
                double gv = -rd[v];
                if (var[v].has_l) gv += rl[v] / x[v];
                if (var[v].has_u) gv -= (ru[v] - zu[v] * rb[v]) / su[v];
                g[v] = gv;
            }
            sub_columns(part, rhs, rp, tg);
        });
        sub_rest(rhs, rp, tg);
        nsolve(rhs);
        dy = rhs;
        // Iterative refinement: the normal matrix is badly conditioned near the end (columns
        // at their bounds against interior ones), and the step must meet A dx = rp closely
        // for the primal residual to keep falling.
        auto cdx = [&](int v) { return dx[v]; };
        double last = INFINITY;
        for (int pass = 0;; ++pass) {
            team.run([&](int part) {
                int a, e;
                vrange(part, &a, &e);
                for (int v = a; v < e; ++v) dx[v] = theta[v] * (Atv(dy, v) + g[v]);
                if (pass < 3) sub_columns(part, rhs, rp, cdx);
            });
            if (pass == 3) break;
            sub_rest(rhs, rp, cdx);
            double r = rowmax(rhs);
            if (r <= refine_target || !(r < 0.5 * last)) break;
            last = r;
            nsolve(rhs);
            for (int i = 0; i < m; ++i) dy[i] += rhs[i];
        }
        team.run([&](int part) {
            int a, e;
            vrange(part, &a, &e);
            for (int v = a; v < e; ++v) {
                double d = dx[v];
                dzl[v] = var[v].has_l ? (rl[v] - zl[v] * d) / x[v] : 0.0;
                dsu[v] = var[v].has_u ? rb[v] - d : 0.0;
                dzu[v] = var[v].has_u ? (ru[v] - zu[v] * rb[v] + zu[v] * d) / su[v] : 0.0;
            }
        });
    };
    auto step_lengths = [&](double* ap, double* ad) {
        double pa[2], pd[2];
        team.run([&](int part) {
            int lo, e;
            vrange(part, &lo, &e);
            double a = 1.0, d = 1.0;
            for (int v = lo; v < e; ++v) {
                if (var[v].has_l) {
                    if (dx[v] < 0) a = std::min(a, -x[v] / dx[v]);
                    if (dzl[v] < 0) d = std::min(d, -zl[v] / dzl[v]);
                }
                if (var[v].has_u) {
                    if (dsu[v] < 0) a = std::min(a, -su[v] / dsu[v]);
                    if (dzu[v] < 0) d = std::min(d, -zu[v] / dzu[v]);
                }
            }
            pa[part] = a;
            pd[part] = d;
        });
        double a = std::min(pa[0], pa[1]), d = std::min(pd[0], pd[1]);
        // With a quadratic term the dual residual depends on x: both move by one step length.
        if (quadratic) a = d = std::min(a, d);
        *ap = a;
        *ad = d;
    };

    std::vector<double> rl(nv), ru(nv), best_x, best_y;
    double best_merit = INFINITY;
    int best_it = 0;
    const int maxiter = 200;
    int it = 0;
    bool converged = false;
    double mu0 = 1.0, pres0 = 1.0;
    // The separator's block of the normal matrix (lower triangle by rows), one per part.
    std::vector<double> nacc[2] = {std::vector<double>((size_t)ns * (ns + 1) / 2),
                                   std::vector<double>((size_t)ns * (ns + 1) / 2)};
    auto tri = [&](int i, int k) { return (size_t)(i - sb) * (i - sb + 1) / 2 + (k - sb); };
    for (; it < maxiter; ++it) {
        if (stop && stop()) return SparseStatus::Stopped;
        // Residuals.
        auto cx = [&](int v) { return x[v]; };
        double red[2][5];
        team.run([&](int part) { sub_columns(part, rp, b, cx); });
        sub_rest(rp, b, cx);
        team.run([&](int part) {
            int a, e;
            rrange(part, &a, &e);
            double pres = 0.0, dres = 0.0, comp = 0.0, obj = 0.0, bres = 0.0;
            for (int i = a; i < e; ++i) pres = std::max(pres, std::fabs(rp[i]));
            vrange(part, &a, &e);
            for (int v = a; v < e; ++v) {
                rd[v] = var[v].cost + var[v].q * x[v] - Atv(y, v) - zl[v] + zu[v];
                dres = std::max(dres, std::fabs(rd[v]));
                rb[v] = var[v].has_u ? var[v].U - x[v] - su[v] : 0.0;
                bres = std::max(bres, std::fabs(rb[v]));
                if (var[v].has_l) comp += x[v] * zl[v];
                if (var[v].has_u) comp += su[v] * zu[v];
                obj += (var[v].cost + 0.5 * var[v].q * x[v]) * x[v];
            }
            red[part][0] = std::max(pres, bres);
            red[part][1] = dres;
            red[part][2] = comp;
            red[part][3] = obj;
        });
        double pres = std::max(red[0][0], red[1][0]), dres = std::max(red[0][1], red[1][1]);
        double comp = red[0][2] + red[1][2], obj = red[0][3] + red[1][3];
        obj += objconst;
        if (!std::isfinite(pres) || !std::isfinite(dres) || !std::isfinite(comp)) return SparseStatus::Failed;
        if (keep_best) {
            double merit = std::max({pres / (1.0 + bnorm), dres / (1.0 + cnorm), comp / (1.0 + std::fabs(obj))});
            if (merit < best_merit) {
                best_merit = merit;
                best_it = it;
                best_x = x;
                best_y = y;
            } else if (it - best_it >= kStallIterations) {
                break;
            }
        }
        if (pres <= tol * (1.0 + bnorm) && dres <= tol * (1.0 + cnorm) && comp <= tol * (1.0 + std::fabs(obj))) {
            converged = true;
            break;
        }
        double mu = nb > 0 ? comp / nb : 0.0;
        refine_target = 1e-3 * std::max(pres, tol * (1.0 + bnorm));
        // Normal matrix: scalings, each part's columns, then the third class.
        // Dense columns (the third class among them) stay out of it.
        auto add_column = [&](int v, double* sep) {
            if (isdense[v]) return;
            for (int p = vstart[v]; p < vstart[v + 1]; ++p) {
                int i = vrow[p];
                double a = vval[p] * theta[v];
                for (int q = vstart[v]; q < vstart[v + 1]; ++q) {
                    int k = vrow[q];
                    if (k > i) continue;
                    if (k >= sb) sep[tri(i, k)] += a * vval[q];
                    else E.at(i, k) += a * vval[q];
                }
            }
        };
        team.run([&](int part) {
            // Clear the part's storage: its half's rows and the separator rows' entries there.
            const int r0 = part == 0 ? 0 : h, r1 = part == 0 ? h : sb;
            std::fill(E.L.begin() + E.pos[r0], E.L.begin() + E.pos[r1], 0.0);
            for (int i = sb; i < m; ++i) {
                double* seg = part == 0 ? E.seg1(i) : E.seg2(i);
                int len = part == 0 ? E.hi1[i] - E.lo1[i] : i - E.lo2[i] + 1;
                std::fill(seg, seg + len, 0.0);
            }
            std::fill(nacc[part].begin(), nacc[part].end(), 0.0);
            int a, e;
            vrange(part, &a, &e);
            for (int v = a; v < e; ++v) {
                double ti = 0.0;
                if (var[v].has_l) ti += zl[v] / x[v];
                if (var[v].has_u) ti += zu[v] / su[v];
                // A free column (the transfer column of an objective, say) gets a small proximal
                // term in the Newton system only; the residuals stay exact.
                theta[v] = 1.0 / (ti + var[v].q + kProximal);
            }
            crange(part, &a, &e);
            for (int v = a; v < e; ++v) add_column(v, nacc[part].data());
        });
        for (int i = sb; i < m; ++i)
            for (int k = sb; k <= i; ++k) E.at(i, k) = nacc[0][tri(i, k)] + nacc[1][tri(i, k)];
        double dmax[2];
        team.run([&](int part) {
            int a, e;
            rrange(part, &a, &e);
            double t = 0.0;
            for (int i = a; i < e; ++i) t = std::max(t, E.at(i, i));
            dmax[part] = t;
        });
        double maxdiag = std::max(dmax[0], dmax[1]);
        team.run([&](int part) {
            int a, e;
            rrange(part, &a, &e);
            double t = 0.0;
            for (int i = a; i < e; ++i) {
                E.at(i, i) += empty[i] ? 1.0 : 1e-20 * maxdiag;
                t = std::max(t, E.at(i, i));
            }
            dmax[part] = t;
        });
        const double tiny = 1e-30 * std::max(1.0, std::max(dmax[0], dmax[1]));
        team.run([&](int part) { factor_part(E, part, tiny); });
        factor_tail(E, tiny);
        prepare_dense();
        // Predictor.
        team.run([&](int part) {
            int a, e;
            vrange(part, &a, &e);
            for (int v = a; v < e; ++v) {
                rl[v] = var[v].has_l ? -x[v] * zl[v] : 0.0;
                ru[v] = var[v].has_u ? -su[v] * zu[v] : 0.0;
            }
        });
        direction(rl, ru);
        double ap, ad;
        step_lengths(&ap, &ad);
        double maff[2];
        team.run([&](int part) {
            int a, e;
            vrange(part, &a, &e);
            double t = 0.0;
            for (int v = a; v < e; ++v) {
                if (var[v].has_l) t += (x[v] + ap * dx[v]) * (zl[v] + ad * dzl[v]);
                if (var[v].has_u) t += (su[v] + ap * dsu[v]) * (zu[v] + ad * dzu[v]);
            }
            maff[part] = t;
        });
        double mu_aff = nb > 0 ? (maff[0] + maff[1]) / nb : 0.0;
        double sigma = mu > 0 ? std::pow(std::min(1.0, mu_aff / mu), 3) : 0.0;
        // Complementarity must not fall much faster than the primal residual: columns that
        // reach their bounds too early cannot move again to remove the residual.
        if (it == 0) {
            mu0 = std::max(mu, 1e-300);
            pres0 = std::max(pres, 1e-300);
        }
        if (mu > 0 && pres > tol * (1.0 + bnorm)) sigma = std::min(1.0, std::max(sigma, 0.1 * mu0 * (pres / pres0) / mu));
        // Corrector.
        team.run([&](int part) {
            int a, e;
            vrange(part, &a, &e);
            for (int v = a; v < e; ++v) {
                dxa[v] = dx[v];
                dzla[v] = dzl[v];
                dzua[v] = dzu[v];
                dsua[v] = dsu[v];
                rl[v] = var[v].has_l ? sigma * mu - x[v] * zl[v] - dxa[v] * dzla[v] : 0.0;
                ru[v] = var[v].has_u ? sigma * mu - su[v] * zu[v] - dsua[v] * dzua[v] : 0.0;
            }
        });
        direction(rl, ru);
        step_lengths(&ap, &ad);
        ap = std::min(1.0, 0.995 * ap);
        ad = std::min(1.0, 0.995 * ad);
        team.run([&](int part) {
            int a, e;
            vrange(part, &a, &e);
            for (int v = a; v < e; ++v) {
                x[v] += ap * dx[v];
                if (var[v].has_u) su[v] += ap * dsu[v];
                zl[v] += ad * dzl[v];
                zu[v] += ad * dzu[v];
            }
            rrange(part, &a, &e);
            for (int i = a; i < e; ++i) y[i] += ad * dy[i];
        });
    }
    sol.iterations = it;
    if (!converged && keep_best && !best_x.empty()) {
        x.swap(best_x);
        y.swap(best_y);
    }
    // Column values of x (the final or, failing convergence, the best iterate).
    auto column_values = [&]() {
        sol.colval.assign(nc, 0.0);
        for (int j = 0; j < nc; ++j)
            if (isfixed[j]) sol.colval[j] = fixedval[j];
        for (int v = 0; v < nv; ++v)
            if (var[v].col >= 0) sol.colval[var[v].col] = x[v] + var[v].shift;
    };
    auto row_duals = [&]() {
        sol.rowdual.assign(nr, 0.0);
        for (int r = 0; r < nr; ++r)
            if (rowmap[r] >= 0) sol.rowdual[r] = y[inv[rowmap[r]]];
    };
    if (!converged) {
        if (keep_best && best_merit < INFINITY) {
            column_values();
            row_duals();
        }
        return SparseStatus::Failed;
    }

    // Solution in the LP's terms.
    column_values();
    row_duals();
    sol.rowval.assign(nr, 0.0);
    sol.coldual.assign(nc, 0.0);
    for (int j = 0; j < nc; ++j) {
        double d = lp.cost[j] + (quadratic ? lp.qdiag[j] * sol.colval[j] : 0.0);
        for (int e = lp.start[j]; e < lp.start[j + 1]; ++e) {
            sol.rowval[lp.index[e]] += lp.value[e] * sol.colval[j];
            d -= lp.value[e] * sol.rowdual[lp.index[e]];
        }
        sol.coldual[j] = d;
    }
    return SparseStatus::Optimal;
}

int sparse_threads(int control) {
    if (control > 0) return std::min(control, 2);
    return std::thread::hardware_concurrency() >= 2 ? 2 : 1;
}

}  // namespace slp
