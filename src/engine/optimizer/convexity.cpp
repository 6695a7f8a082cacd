// Whether a quadratic form is convex, i.e. whether its symmetric matrix is positive semidefinite.
// HiGHS's QP solver assumes a convex objective and may call the solution of a non-convex one
// optimal, so a QP is only handed over once this check accepts its Hessian.
//
// The matrix graph is split into connected components, each checked on its own, so block-diagonal
// and separable objectives become many small checks. A component that is diagonally dominant with
// a non-negative diagonal is accepted at once. Any other is eliminated as LDL': sparse components
// in minimum-degree order, switching to a dense factorisation once the remaining matrix fills in,
// and dense components densely with diagonal pivoting, blocked so that the bulk of the work is a
// cache-friendly rank-k update.
//
// The test is made well-posed by a small shift: the matrix is accepted when Q + sigma*I is
// positive definite, sigma relative to the component's largest entry, i.e. when no eigenvalue is
// below -sigma. Every pivot of a positive definite matrix is at least its smallest eigenvalue, so
// for an accepted matrix all pivots stay above sigma, far above the rounding errors of the
// elimination, whatever the elimination order; singular semidefinite matrices (rank-deficient
// covariances, x'(aa')x) pass like any other, and an indefinite matrix meets a pivot <= 0.
#include "engine/optimizer/formulate.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <queue>
#include <utility>
#include <vector>

namespace trvo {
namespace {

constexpr double kRelShift = 1e-9;  // times the largest entry and sqrt(order)
constexpr size_t kPanel = 48;       // pivots per panel of the dense factorisation
constexpr size_t kChunk = 512;      // columns per block of the dense rank-k update

// The dense update's inner loop carries almost all the arithmetic: vectorise it, and on x86-64
// with GCC also build an AVX2/FMA variant chosen at load time.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && defined(__linux__)
#define TRVO_VECTOR_KERNEL __attribute__((noinline, optimize("O3"), target_clones("arch=haswell", "default")))
#else
#define TRVO_VECTOR_KERNEL
#endif

// out[y] -= sum_t f[t] * q[t][y] for y in [y0, y1): the inner loop of the dense update, four
// rows of q at a time so that each pass over out does four multiply-adds per element.
TRVO_VECTOR_KERNEL void rank_update_row(double* __restrict out, const double* __restrict f,
                     const double* __restrict q, size_t ld, size_t k, size_t y0, size_t y1) {
    size_t t = 0;
    for (; t + 4 <= k; t += 4) {
        const double f0 = f[t], f1 = f[t + 1], f2 = f[t + 2], f3 = f[t + 3];
        const double* __restrict q0 = q + t * ld;
        const double* __restrict q1 = q0 + ld;
        const double* __restrict q2 = q1 + ld;
        const double* __restrict q3 = q2 + ld;
        for (size_t y = y0; y < y1; ++y) out[y] -= f0 * q0[y] + f1 * q1[y] + f2 * q2[y] + f3 * q3[y];
    }
    for (; t < k; ++t) {
        const double f0 = f[t];
        const double* __restrict q0 = q + t * ld;
        for (size_t y = y0; y < y1; ++y) out[y] -= f0 * q0[y];
    }
}

// Whether the symmetric n x n matrix a (row-major, both triangles filled) is positive definite,
// by a dense LDL' with diagonal pivoting; a is overwritten. Each panel chooses up to kPanel pivots
// (largest remaining diagonal) from the diagonal updated pivot by pivot, then applies the panel to
// the remaining matrix at once and packs that matrix to the front of a, lower triangle only.
bool dense_definite(std::vector<double>& a, size_t n) {
    std::vector<double> d(n), piv(kPanel), panel(kPanel * n), qt, fd;
    std::vector<size_t> live;
    std::vector<char> alive;
    size_t m = n;
    bool full = true;  // a holds both triangles (only before the first update)
    while (m > 0) {
        double* A = a.data();
        // Row p of the current matrix, from the lower triangle once only that one is kept.
        auto row = [&](size_t p, double* out) {
            if (full) {
                std::copy(A + p * m, A + p * m + m, out);
                return;
            }
            std::copy(A + p * m, A + p * m + p + 1, out);
            for (size_t i = p + 1; i < m; ++i) out[i] = A[i * m + p];
        };
        for (size_t i = 0; i < m; ++i) d[i] = A[i * m + i];
        alive.assign(m, 1);
        const size_t k = std::min(kPanel, m);
        for (size_t j = 0; j < k; ++j) {
            size_t p = m;
            double best = 0;
            for (size_t i = 0; i < m; ++i) {
                if (!alive[i]) continue;
                if (d[i] <= 0) return false;
                if (d[i] > best) {
                    best = d[i];
                    p = i;
                }
            }
            double* col = panel.data() + j * m;
            row(p, col);
            for (size_t t = 0; t < j; ++t) {
                const double* pt = panel.data() + t * m;
                const double f = pt[p] * piv[t];
                if (f == 0) continue;
                for (size_t i = 0; i < m; ++i) col[i] -= f * pt[i];
            }
            piv[j] = best;
            alive[p] = 0;
            for (size_t i = 0; i < m; ++i) {
                if (!alive[i]) {
                    col[i] = 0;
                    continue;
                }
                col[i] /= best;
                d[i] -= col[i] * col[i] * best;
            }
        }
        // Reduce the remaining matrix by the k pivots just taken and pack it, lower triangle,
        // with leading dimension m2. Rows only move towards the front, so packing in place is safe.
        live.clear();
        for (size_t i = 0; i < m; ++i)
            if (alive[i]) live.push_back(i);
        const size_t m2 = live.size();
        qt.assign(k * m2, 0.0);
        fd.assign(m2 * k, 0.0);
        for (size_t t = 0; t < k; ++t)
            for (size_t y = 0; y < m2; ++y) {
                qt[t * m2 + y] = panel[t * m + live[y]];
                fd[y * k + t] = qt[t * m2 + y] * piv[t];
            }
        for (size_t x = 0; x < m2; ++x) {
            const double* src = A + live[x] * m;
            double* out = A + x * m2;
            for (size_t y = 0; y <= x; ++y) out[y] = src[live[y]];
        }
        full = false;
        m = m2;
        for (size_t y0 = 0; y0 < m; y0 += kChunk)
            for (size_t x = y0; x < m; ++x)
                rank_update_row(A + x * m, fd.data() + x * k, qt.data(), m, k, y0,
                                std::min(y0 + kChunk, x + 1));
    }
    return true;
}

// Sparse LDL' of one component in minimum-degree order. Rows hold the off-diagonal entries of the
// remaining matrix sorted by column; eliminating a pivot merges its scaled row into each of its
// neighbours' rows. Once the remaining matrix is dense enough, it is handed to the dense routine.
class SparseElimination {
public:
    using Row = std::vector<std::pair<int, double>>;

    SparseElimination(std::vector<Row> rows, std::vector<double> diag)
        : rows_(std::move(rows)), d_(std::move(diag)), alive_(d_.size(), 1) {}

    // Whether the matrix is positive definite.
    bool definite() {
        const size_t n = d_.size();
        using Item = std::pair<size_t, int>;  // (degree, node), smallest first
        std::priority_queue<Item, std::vector<Item>, std::greater<Item>> heap;
        for (size_t i = 0; i < n; ++i) heap.emplace(rows_[i].size(), static_cast<int>(i));
        size_t remaining = n;
        while (remaining > 0) {
            const Item top = heap.top();
            heap.pop();
            const size_t p = static_cast<size_t>(top.second);
            if (!alive_[p] || top.first != rows_[p].size())
                continue;  // eliminated already, or a stale degree
            // Elimination costs about deg^2 per pivot here against remaining^2 per pivot densely
            // (with far cheaper operations): switch once the rows have filled in.
            if (remaining > 32 && top.first * 8 >= remaining) return dense_rest(remaining);
            if (d_[p] <= 0) return false;
            eliminate(p);
            --remaining;
            for (const auto& e : rows_[p]) heap.emplace(rows_[static_cast<size_t>(e.first)].size(), e.first);
            Row().swap(rows_[p]);
        }
        return true;
    }

private:
    // Eliminates node p, whose pivot is positive; its row is left as it was (its neighbours).
    void eliminate(size_t p) {
        const double dp = d_[p];
        const Row& prow = rows_[p];
        const int pi = static_cast<int>(p);
        alive_[p] = 0;
        Row merged;
        for (const auto& e : prow) {
            const size_t i = static_cast<size_t>(e.first);
            const double f = e.second / dp;
            d_[i] -= f * e.second;
            // row_i := row_i - f * row_p, without p itself and without i (the diagonal above).
            const Row& ri = rows_[i];
            merged.clear();
            merged.reserve(ri.size() + prow.size());
            size_t a = 0, b = 0;
            while (a < ri.size() || b < prow.size()) {
                if (b == prow.size() || (a < ri.size() && ri[a].first < prow[b].first)) {
                    if (ri[a].first != pi) merged.push_back(ri[a]);
                    ++a;
                } else if (a == ri.size() || prow[b].first < ri[a].first) {
                    if (prow[b].first != e.first) merged.emplace_back(prow[b].first, -f * prow[b].second);
                    ++b;
                } else {
                    merged.emplace_back(ri[a].first, ri[a].second - f * prow[b].second);
                    ++a;
                    ++b;
                }
            }
            rows_[i].swap(merged);
        }
    }

    bool dense_rest(size_t remaining) {
        std::vector<size_t> pos(d_.size(), 0);
        size_t m = 0;
        for (size_t i = 0; i < d_.size(); ++i)
            if (alive_[i]) pos[i] = m++;
        std::vector<double> a(remaining * remaining, 0.0);
        for (size_t i = 0; i < d_.size(); ++i) {
            if (!alive_[i]) continue;
            const size_t r = pos[i];
            a[r * remaining + r] = d_[i];
            for (const auto& e : rows_[i]) a[r * remaining + pos[static_cast<size_t>(e.first)]] = e.second;
        }
        rows_.clear();
        return dense_definite(a, remaining);
    }

    std::vector<Row> rows_;
    std::vector<double> d_;
    std::vector<char> alive_;
};

// Union-find root with path halving.
int root(std::vector<int>& parent, int i) {
    while (parent[static_cast<size_t>(i)] != i) {
        parent[static_cast<size_t>(i)] = parent[static_cast<size_t>(parent[static_cast<size_t>(i)])];
        i = parent[static_cast<size_t>(i)];
    }
    return i;
}

}  // namespace

bool positive_semidefinite(const QMap& q, double sign) {
    if (q.empty()) return true;
    // Number the columns the matrix touches.
    std::vector<int> index;
    size_t n = 0;
    for (const auto& kv : q)
        for (int c : {kv.first.first, kv.first.second}) {
            const size_t cs = static_cast<size_t>(c);
            if (cs >= index.size()) index.resize(std::max(cs + 1, 2 * index.size()), -1);
            if (index[cs] < 0) index[cs] = static_cast<int>(n++);
        }
    auto at = [&](int c) { return static_cast<size_t>(index[static_cast<size_t>(c)]); };

    // Components of the off-diagonal graph, diagonal dominance per column, scale per component.
    std::vector<int> parent(n);
    std::iota(parent.begin(), parent.end(), 0);
    std::vector<double> diag(n, 0.0), off(n, 0.0), colscale(n, 0.0);
    std::vector<size_t> colentries(n, 0);
    for (const auto& kv : q) {
        const double v = sign * kv.second;
        const size_t a = at(kv.first.first), c = at(kv.first.second);
        colscale[a] = std::max(colscale[a], std::fabs(v));
        if (a == c) {
            diag[a] += v;
            continue;
        }
        off[a] += std::fabs(v);
        off[c] += std::fabs(v);
        ++colentries[a];
        const int ra = root(parent, static_cast<int>(a)), rc = root(parent, static_cast<int>(c));
        if (ra != rc) parent[static_cast<size_t>(std::max(ra, rc))] = std::min(ra, rc);
    }
    std::vector<int> comp(n), local(n);
    std::vector<size_t> size;
    {
        std::vector<int> id(n, -1);
        for (size_t i = 0; i < n; ++i) {
            const size_t r = static_cast<size_t>(root(parent, static_cast<int>(i)));
            if (id[r] < 0) {
                id[r] = static_cast<int>(size.size());
                size.push_back(0);
            }
            comp[i] = id[r];
            local[i] = static_cast<int>(size[static_cast<size_t>(id[r])]++);
        }
    }
    const size_t ncomp = size.size();
    std::vector<char> dominant(ncomp, 1);
    std::vector<double> scale(ncomp, 0.0);
    std::vector<size_t> entries(ncomp, 0);
    for (size_t i = 0; i < n; ++i) {
        const size_t c = static_cast<size_t>(comp[i]);
        if (diag[i] < off[i]) dominant[c] = 0;
        scale[c] = std::max(scale[c], colscale[i]);
        entries[c] += colentries[i];
    }
    std::vector<double> shift(ncomp);
    for (size_t c = 0; c < ncomp; ++c)
        shift[c] = kRelShift * scale[c] * std::sqrt(static_cast<double>(size[c]));
    // A semidefinite matrix has a non-negative diagonal: refuse before factorising anything.
    for (size_t i = 0; i < n; ++i)
        if (diag[i] + shift[static_cast<size_t>(comp[i])] <= 0) return false;

    // The components left need a factorisation: dense ones are filled in place, sparse ones as rows.
    std::vector<std::vector<double>> dense(ncomp);
    std::vector<std::vector<SparseElimination::Row>> sparse(ncomp);
    bool any = false;
    for (size_t c = 0; c < ncomp; ++c) {
        if (dominant[c]) continue;
        any = true;
        const size_t s = size[c];
        if (s <= 64 || entries[c] * 8 >= s * s) dense[c].assign(s * s, 0.0);
        else sparse[c].resize(s);
    }
    if (!any) return true;
    std::vector<std::vector<double>> sdiag(ncomp);
    for (size_t c = 0; c < ncomp; ++c)
        if (!sparse[c].empty()) sdiag[c].resize(size[c]);
    for (const auto& kv : q) {
        const size_t a = at(kv.first.first), b = at(kv.first.second);
        const size_t c = static_cast<size_t>(comp[a]);
        const size_t la = static_cast<size_t>(local[a]), lb = static_cast<size_t>(local[b]);
        const double v = sign * kv.second;
        if (!dense[c].empty()) {
            const size_t s = size[c];
            dense[c][la * s + lb] = dense[c][lb * s + la] = v;
        } else if (!sparse[c].empty()) {
            if (a == b) {
                sdiag[c][la] = v;
            } else {
                sparse[c][la].emplace_back(static_cast<int>(lb), v);
                sparse[c][lb].emplace_back(static_cast<int>(la), v);
            }
        }
    }
    for (size_t c = 0; c < ncomp; ++c) {
        if (!dense[c].empty()) {
            std::vector<double> a;
            a.swap(dense[c]);
            for (size_t i = 0; i < size[c]; ++i) a[i * size[c] + i] += shift[c];
            if (!dense_definite(a, size[c])) return false;
        } else if (!sparse[c].empty()) {
            for (auto& r : sparse[c]) std::sort(r.begin(), r.end());
            for (double& v : sdiag[c]) v += shift[c];
            SparseElimination e(std::move(sparse[c]), std::move(sdiag[c]));
            if (!e.definite()) return false;
        }
    }
    return true;
}

}  // namespace trvo
