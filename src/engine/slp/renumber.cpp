// Keeps the nonlinear data keyed by row or column in step with deletions in the bound optimiser
// problem: everything of a deleted row or column goes, and later ones move down with it.
#include "engine/slp/host.h"

#include <algorithm>
#include <string>

namespace slp {
namespace {

// New position of every old position (-1: deleted), for `count` positions after deleting the
// `n` distinct positions in `index`.
std::vector<int> new_positions(int count, int n, const int* index, const std::string& what) {
    if (n < 0) throw Error("Negative number of " + what + "s");
    if (n > 0 && !index) throw Error("Missing " + what + " indices");
    std::vector<int> pos(static_cast<size_t>(count), 0);
    for (int k = 0; k < n; ++k) {
        if (index[k] < 0 || index[k] >= count)
            throw Error("Deleted " + what + " index " + std::to_string(index[k]) + " out of range");
        if (pos[static_cast<size_t>(index[k])] < 0)
            throw Error("Deleted " + what + " index " + std::to_string(index[k]) + " given twice");
        pos[static_cast<size_t>(index[k])] = -1;
    }
    int out = 0;
    for (int& p : pos) p = p < 0 ? -1 : out++;
    return pos;
}

template <class V>
std::map<int, V> move_keys(const std::map<int, V>& m, const std::vector<int>& pos) {
    std::map<int, V> r;
    for (const auto& kv : m)
        if (kv.first >= 0 && kv.first < (int)pos.size() && pos[kv.first] >= 0) r.emplace(pos[kv.first], kv.second);
    return r;
}

void delete_rows(TSLPprob prob, const std::vector<int>& pos) {
    std::map<std::pair<int, int>, Coef> coefs;
    for (auto& kv : prob->coefs) {
        int r = kv.first.first;
        if (r >= 0 && r < (int)pos.size() && pos[r] >= 0) coefs.emplace(std::make_pair(pos[r], kv.first.second), std::move(kv.second));
    }
    prob->coefs.swap(coefs);
    for (auto& kv : prob->vars) {
        int& d = kv.second.detrow;
        if (d >= 0) d = d < (int)pos.size() ? pos[d] : -1;
    }
    prob->rowwt = move_keys(prob->rowwt, pos);
    prob->rowstatus = move_keys(prob->rowstatus, pos);
    std::map<std::pair<int, int>, double> dfs;
    for (const auto& kv : prob->dfs) {
        int r = kv.first.second;
        if (r >= 0 && r < (int)pos.size() && pos[r] >= 0) dfs.emplace(std::make_pair(kv.first.first, pos[r]), kv.second);
    }
    prob->dfs.swap(dfs);
}

void delete_cols(TSLPprob prob, const std::vector<int>& pos) {
    auto moved = [&](int c) { return c >= 0 && c < (int)pos.size() ? pos[c] : -1; };
    std::map<std::pair<int, int>, Coef> coefs;
    for (auto& kv : prob->coefs) {
        int c = kv.first.second;   // -1 is the equals column, which never moves
        if (c >= 0 && moved(c) < 0) continue;
        Coef coef = std::move(kv.second);
        for (size_t t = 0; t < coef.formula.type.size(); ++t) {
            if (coef.formula.type[t] != TSLP_TOK_COL) continue;
            int j = moved(static_cast<int>(coef.formula.value[t]));
            if (j < 0) {
                coef.formula.type[t] = TSLP_TOK_CON;
                coef.formula.value[t] = 0.0;
            } else {
                coef.formula.value[t] = j;
            }
        }
        coefs.emplace(std::make_pair(kv.first.first, c < 0 ? c : moved(c)), std::move(coef));
    }
    prob->coefs.swap(coefs);
    prob->vars = move_keys(prob->vars, pos);
    std::map<std::pair<int, int>, double> dfs;
    for (const auto& kv : prob->dfs)
        if (moved(kv.first.first) >= 0) dfs.emplace(std::make_pair(moved(kv.first.first), kv.first.second), kv.second);
    prob->dfs.swap(dfs);
    for (MsJob& job : prob->msjobs) {
        size_t o = 0;
        for (size_t i = 0; i < job.ivcols.size(); ++i) {
            int j = moved(job.ivcols[i]);
            if (j < 0) continue;
            job.ivcols[o] = j;
            if (i < job.ivvalues.size()) job.ivvalues[o] = job.ivvalues[i];
            ++o;
        }
        job.ivcols.resize(o);
        job.ivvalues.resize(std::min(o, job.ivvalues.size()));
    }
}

}  // namespace
}  // namespace slp

extern "C" {

// The optimiser problem has already lost the rows or columns: the count before the deletion is
// what it has now plus the deleted ones.
int TSLPdelrows(TSLPprob prob, int nrows, const int rowindex[]) {
    return slp::guard(prob, [&] {
        slp::check_prob(prob);
        std::vector<int> pos = slp::new_positions(slp::host_rows(prob) + std::max(nrows, 0), nrows, rowindex, "row");
        slp::delete_rows(prob, pos);
        prob->state &= ~TSLP_STATE_CONSTRUCTED;
    });
}

int TSLPdelcols(TSLPprob prob, int ncols, const int colindex[]) {
    return slp::guard(prob, [&] {
        slp::check_prob(prob);
        std::vector<int> pos = slp::new_positions(slp::host_cols(prob) + std::max(ncols, 0), ncols, colindex, "column");
        slp::delete_cols(prob, pos);
        prob->state &= ~TSLP_STATE_CONSTRUCTED;
    });
}

}  // extern "C"
