// Hessian sparsity of formula tapes and the colouring that reads a sparse Hessian from a few
// gradient differences.
#include "engine/slp/hessian.h"

#include <algorithm>

namespace slp {

namespace {

void operands(const Tape& tape, const Node& n, std::vector<int>& ops) {
    ops.clear();
    switch (n.op) {
    case N_CON:
    case N_COL: break;
    case N_NEG:
    case N_FUN: ops.push_back(n.a); break;
    case N_MIN:
    case N_MAX:
    case N_PWL:
    case N_UFUN:
        for (int k = 0; k < n.n; ++k) ops.push_back(tape.args[n.first + k]);
        break;
    default:
        ops.push_back(n.a);
        ops.push_back(n.b);
        break;
    }
}

void merge_into(std::vector<int>& dst, const std::vector<int>& src) {
    if (src.empty()) return;
    std::vector<int> r;
    r.reserve(dst.size() + src.size());
    std::set_union(dst.begin(), dst.end(), src.begin(), src.end(), std::back_inserter(r));
    dst.swap(r);
}

}  // namespace

bool hessian_pattern(const Tape& tape, int root, size_t limit, std::vector<std::pair<int, int>>& out) {
    if (root < 0) return true;
    int nn = root + 1;
    std::vector<char> reach(nn, 0), dep(nn, 0), need(nn, 0);
    std::vector<int> ops;
    reach[root] = 1;
    for (int i = root; i >= 0; --i) {
        if (!reach[i]) continue;
        operands(tape, tape.nodes[i], ops);
        for (int o : ops) reach[o] = 1;
    }
    for (int i = 0; i < nn; ++i) {
        const Node& n = tape.nodes[i];
        if (n.op == N_COL) {
            dep[i] = 1;
            continue;
        }
        operands(tape, n, ops);
        for (int o : ops) dep[i] = dep[i] || dep[o];
    }
    // Nodes whose second derivative in their operands can be non-zero, and which operands'
    // column sets that needs.
    auto curved = [&](const Node& n) {
        switch (n.op) {
        case N_MUL: return dep[n.a] && dep[n.b];
        case N_DIV: return (bool)dep[n.b];
        case N_POW: return dep[n.a] || dep[n.b];
        case N_FUN: return dep[n.a] && n.fun != TSLP_FUN_ABS && n.fun != TSLP_FUN_SIGN;
        case N_UFUN: return true;
        default: return false;   // sums, negation; min, max and PWL are piecewise linear
        }
    };
    for (int i = 0; i < nn; ++i)
        if (reach[i] && dep[i] && curved(tape.nodes[i])) {
            operands(tape, tape.nodes[i], ops);
            for (int o : ops)
                if (dep[o]) need[o] = 1;
        }
    for (int i = nn - 1; i >= 0; --i) {
        if (!need[i]) continue;
        operands(tape, tape.nodes[i], ops);
        for (int o : ops)
            if (dep[o]) need[o] = 1;
    }
    // Column sets of the needed nodes, freed after their last needed use.
    std::vector<int> uses(nn, 0);
    for (int i = 0; i < nn; ++i) {
        if (!need[i] && !(reach[i] && dep[i] && curved(tape.nodes[i]))) continue;
        operands(tape, tape.nodes[i], ops);
        for (int o : ops)
            if (need[o]) ++uses[o];
    }
    std::vector<std::vector<int>> D(nn);
    auto release = [&](int o) {
        if (--uses[o] == 0) std::vector<int>().swap(D[o]);
    };
    auto cross = [&](const std::vector<int>& a, const std::vector<int>& b) {
        if (out.size() + a.size() * b.size() > limit) return false;
        for (int i : a)
            for (int j : b) out.emplace_back(std::min(i, j), std::max(i, j));
        return true;
    };
    std::vector<int> u;
    for (int i = 0; i < nn; ++i) {
        const Node& n = tape.nodes[i];
        bool c = reach[i] && dep[i] && curved(n);
        if (!need[i] && !c) continue;
        operands(tape, n, ops);
        if (c) {
            bool ok = true;
            switch (n.op) {
            case N_MUL: ok = cross(D[n.a], D[n.b]); break;
            case N_DIV:
                ok = cross(D[n.b], D[n.b]) && (!dep[n.a] || cross(D[n.a], D[n.b]));
                break;
            default:
                u.clear();
                for (int o : ops)
                    if (dep[o]) merge_into(u, D[o]);
                ok = cross(u, u);
                break;
            }
            if (!ok) return false;
        }
        if (need[i]) {
            if (n.op == N_COL) D[i].push_back((int)n.c);
            else
                for (int o : ops)
                    if (dep[o]) merge_into(D[i], D[o]);
        }
        for (int o : ops)
            if (need[o]) release(o);
    }
    return true;
}

SparsePattern make_pattern(int p, std::vector<std::pair<int, int>>& pairs) {
    for (auto& e : pairs)
        if (e.first > e.second) std::swap(e.first, e.second);
    std::sort(pairs.begin(), pairs.end());
    pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());
    SparsePattern P;
    std::vector<int> count(p + 1, 0);
    for (auto& e : pairs) {
        ++count[e.first + 1];
        if (e.first != e.second) ++count[e.second + 1];
    }
    P.start.assign(p + 1, 0);
    for (int a = 0; a < p; ++a) P.start[a + 1] = P.start[a] + count[a + 1];
    P.idx.assign(P.start[p], 0);
    std::vector<int> fill(P.start.begin(), P.start.end() - 1);
    for (auto& e : pairs) {
        P.idx[fill[e.first]++] = e.second;
        if (e.first != e.second) P.idx[fill[e.second]++] = e.first;
    }
    for (int a = 0; a < p; ++a) std::sort(P.idx.begin() + P.start[a], P.idx.begin() + P.start[a + 1]);
    return P;
}

int colour_columns(const SparsePattern& P, std::vector<int>& colour) {
    int p = (int)P.start.size() - 1;
    colour.assign(p, -1);
    std::vector<int> mark;   // mark[c] == b: colour c is taken near b
    int ncol = 0;
    for (int b = 0; b < p; ++b) {
        // Forbidden: the colours of b's neighbours and of their neighbours (two columns
        // meeting in some row must differ).
        auto forbid = [&](int a) {
            if (colour[a] >= 0) mark[colour[a]] = b;
        };
        for (int q = P.start[b]; q < P.start[b + 1]; ++q) {
            int a = P.idx[q];
            forbid(a);
            for (int r = P.start[a]; r < P.start[a + 1]; ++r) forbid(P.idx[r]);
        }
        int c = 0;
        while (c < ncol && mark[c] == b) ++c;
        if (c == ncol) {
            ++ncol;
            mark.push_back(-1);
        }
        colour[b] = c;
    }
    return ncol;
}

}  // namespace slp
