// The optimiser's cut functions: the cut pool, cuts at the nodes of the tree search, stored
// bounds for branching, lazy rows, and strong branching on the LP relaxation.
#include "engine/optimizer/cuts.h"

#include "engine/optimizer/formulate.h"
#include "engine/optimizer/highs_instances.h"
#include "engine/search/cuts.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>

namespace trvo {
namespace {

// Handles are numbers unique over the process, never reused: a stale one is refused by lookup.
std::atomic<int64_t> next_handle{1};

int64_t id_of(const void* h) { return static_cast<int64_t>(reinterpret_cast<uintptr_t>(h)); }
TRVOcut cut_handle(int64_t id) { return reinterpret_cast<TRVOcut>(static_cast<uintptr_t>(id)); }

Cut& find_cut(CutPool& pool, const void* h) {
    auto it = pool.cuts.find(id_of(h));
    if (it == pool.cuts.end())
        fail("Unknown cut %p: it was deleted, belongs to another problem or to a finished search", h);
    return it->second;
}

bool selected(int type, int itype, int interp) {
    switch (interp) {
        case -1: return true;
        case 1: return type == itype;
        case 2: return (type & itype) != 0;
        case 3: return (type & itype) == itype;
        default: fail("Invalid interpretation %d of the cut type: use -1, 1, 2 or 3", interp);
    }
}

// The node being processed by the tree search, or an error naming the function.
search::NodeCuts& at_node(TRVOprob p, const char* what) {
    CutPool& pool = cut_pool(p);
    if (!pool.node || !pool.node->at_node())
        fail("%s can only be called from a node callback of the tree search (prenode, optnode, preintsol, "
             "newnode, chgbranchobject, infnode, nodecutoff, intsol)",
             what);
    return *pool.node;
}

// The cut's row in model columns (the problem's columns come first in the search's model).
search::CutRow cut_row(int64_t id, const Cut& c) {
    search::CutRow r;
    r.index.assign(c.cols.begin(), c.cols.end());
    r.value = c.vals;
    r.tag = id;
    if (c.rtype == 'L' || c.rtype == 'E') r.up = c.rhs;
    if (c.rtype == 'G' || c.rtype == 'E') r.lo = c.rhs;
    return r;
}

double activity(const Cut& c, const double* x) {
    double a = 0;
    for (size_t k = 0; k < c.cols.size(); ++k) a += c.vals[k] * x[c.cols[k]];
    return a;
}

double violation(const Cut& c, const double* x) {
    const double a = activity(c, x);
    double v = 0;
    if (c.rtype == 'L' || c.rtype == 'E') v = std::max(v, a - c.rhs);
    if (c.rtype == 'G' || c.rtype == 'E') v = std::max(v, c.rhs - a);
    return v;
}

// The point slacks and violations refer to: the node's, else the last LP solution, else the
// last integer solution.
const double* current_point(TRVOprob p) {
    CutPool& pool = cut_pool(p);
    if (pool.node && pool.node->at_node()) {
        if (!pool.node->point()) fail("The relaxation of this node has not been solved yet");
        return pool.node->point();
    }
    if (p->results.have_lp && static_cast<int>(p->results.x.size()) == p->ncols()) return p->results.x.data();
    if (p->results.have_mip && static_cast<int>(p->results.mipx.size()) == p->ncols()) return p->results.mipx.data();
    fail("No solution to measure cuts against: solve the problem first, or call from a node callback");
}

// The key of the cut in the running search, adding its row when the search does not know it.
int search_key(search::NodeCuts& nc, int64_t id, const Cut& c) {
    int key = nc.known(id);
    return key >= 0 ? key : nc.add(cut_row(id, c));
}

// Checks and reads cuts given as rows; ids receives the new cuts' handles.
void read_cuts(TRVOprob p, int ncuts, const int mtype[], const char rtype[], const double rhs[],
               const int64_t mstart[], const int mcols[], const double dmatval[], std::vector<Cut>& out) {
    if (ncuts < 0) fail("Negative number of cuts");
    if (ncuts == 0) return;
    if (!mtype || !rtype || !rhs || !mstart) fail("Cut types, row types, right-hand sides and starts are needed");
    const int64_t nels = mstart[ncuts];
    if (nels > 0 && (!mcols || !dmatval)) fail("Cut columns and coefficients are needed");
    for (int k = 0; k < ncuts; ++k) {
        Cut c;
        c.type = mtype[k];
        c.rtype = rtype[k];
        if (c.rtype != 'L' && c.rtype != 'G' && c.rtype != 'E')
            fail("Invalid row type '%c' of cut %d: cuts are 'L', 'G' or 'E' rows", rtype[k], k);
        c.rhs = rhs[k];
        if (!std::isfinite(c.rhs) || is_inf(c.rhs)) fail("Cut %d has an infinite right-hand side", k);
        if (mstart[k] < 0 || mstart[k + 1] < mstart[k] || mstart[k + 1] > nels) fail("Invalid start of cut %d", k);
        std::map<int, double> row;
        for (int64_t e = mstart[k]; e < mstart[k + 1]; ++e) {
            const int j = mcols[e];
            if (j < 0 || j >= p->ncols()) fail("Column index %d of cut %d is out of range", j, k);
            if (!std::isfinite(dmatval[e])) fail("Coefficient of column %d in cut %d is not finite", j, k);
            row[j] += dmatval[e];
        }
        for (const auto& kv : row)
            if (kv.second != 0.0) {
                c.cols.push_back(kv.first);
                c.vals.push_back(kv.second);
            }
        out.push_back(std::move(c));
    }
}

bool same_row(const Cut& a, const Cut& b) {
    return a.rtype == b.rtype && a.rhs == b.rhs && a.cols == b.cols && a.vals == b.vals;
}

// The cuts a call is about: the given handles (checked), or with ncuts -1 every cut of `all`.
std::vector<int64_t> chosen(CutPool& pool, int ncuts, const TRVOcut mcutind[], const std::vector<int64_t>& all) {
    std::vector<int64_t> ids;
    if (ncuts == -1) return all;
    if (ncuts < 0) fail("Invalid number of cuts %d", ncuts);
    if (ncuts > 0 && !mcutind) fail("The cuts are needed");
    for (int k = 0; k < ncuts; ++k) {
        find_cut(pool, mcutind[k]);
        ids.push_back(id_of(mcutind[k]));
    }
    return ids;
}

std::vector<int64_t> pool_ids(const CutPool& pool) {
    std::vector<int64_t> ids;
    for (const auto& kv : pool.cuts)
        if (kv.second.in_pool) ids.push_back(kv.first);
    return ids;
}

std::vector<int64_t> node_ids(const search::NodeCuts& nc) {
    std::vector<int64_t> ids;
    for (int key : nc.active()) ids.push_back(nc.row(key).tag);
    return ids;
}

}  // namespace

void check_cut_handles(TRVOprob p, int n, const void* const* handles) {
    if (n < 0) fail("Invalid number of cuts %d", n);
    if (n > 0 && !handles) fail("The cuts are needed");
    CutPool& pool = cut_pool(p);
    for (int k = 0; k < n; ++k) find_cut(pool, handles[k]);
}

std::vector<int> branch_cut_keys(TRVOprob p, int n, const void* const* handles, const char* what, bool* adds_new) {
    search::NodeCuts& nc = at_node(p, what);
    check_cut_handles(p, n, handles);
    CutPool& pool = cut_pool(p);
    std::vector<int> keys;
    if (adds_new) *adds_new = false;
    for (int k = 0; k < n; ++k) {
        const int64_t id = id_of(handles[k]);
        const int key = search_key(nc, id, pool.cuts[id]);
        if (std::find(keys.begin(), keys.end(), key) != keys.end()) continue;
        if (adds_new && nc.position(key) < 0) *adds_new = true;
        keys.push_back(key);
    }
    return keys;
}

void* cut_handle_of_key(TRVOprob p, int key) {
    CutPool& pool = cut_pool(p);
    if (!pool.node) fail("No tree search is running");
    return cut_handle(pool.node->row(key).tag);
}

CutPool& cut_pool(TRVOprob p) {
    if (!p->cutpool) p->cutpool = std::make_shared<CutPool>();
    return *p->cutpool;
}

void cuts_copy(TRVOprob dest, TRVOprob src) {
    dest->cutpool.reset();
    if (!src->cutpool) return;
    // The copy has its own pool (cuts, stored bounds, delayed-row and model-cut marks) under
    // the same handles; it is not attached to a search the source may be running.
    CutPool& pool = cut_pool(dest);
    pool = *src->cutpool;
    pool.node = nullptr;
}

void cuts_rows_deleted(TRVOprob p, const std::vector<char>& drop) {
    if (!p->cutpool || p->cutpool->lazy.empty()) return;
    std::vector<char>& lazy = p->cutpool->lazy;
    std::vector<char> kept;
    for (size_t i = 0; i < drop.size(); ++i)
        if (!drop[i]) kept.push_back(i < lazy.size() ? lazy[i] : 0);
    lazy.swap(kept);
}

void cuts_cols_deleted(TRVOprob p, const std::vector<int>& newidx) {
    if (!p->cutpool) return;
    CutPool& pool = *p->cutpool;
    // A cut over a deleted column says nothing about the columns left: it leaves the pool (its
    // handle is refused from then on). Columns of the cuts kept follow their new positions.
    for (auto it = pool.cuts.begin(); it != pool.cuts.end();) {
        Cut& c = it->second;
        bool lost = false;
        for (size_t k = 0; k < c.cols.size(); ++k) {
            const int nj = newidx[static_cast<size_t>(c.cols[k])];
            if (nj < 0 && c.vals[k] != 0.0) lost = true;
            c.cols[k] = nj;
        }
        if (lost) {
            it = pool.cuts.erase(it);
            continue;
        }
        size_t o = 0;
        for (size_t k = 0; k < c.cols.size(); ++k)
            if (c.cols[k] >= 0) {
                c.cols[o] = c.cols[k];
                c.vals[o++] = c.vals[k];
            }
        c.cols.resize(o);
        c.vals.resize(o);
        ++it;
    }
    // Stored bound changes on deleted columns no longer apply to anything.
    for (auto& kv : pool.bounds) {
        StoredBounds& b = kv.second;
        size_t o = 0;
        for (size_t k = 0; k < b.cols.size(); ++k) {
            const int nj = newidx[static_cast<size_t>(b.cols[k])];
            if (nj < 0) continue;
            b.cols[o] = nj;
            b.types[o] = b.types[k];
            b.values[o++] = b.values[k];
        }
        b.cols.resize(o);
        b.types.resize(o);
        b.values.resize(o);
    }
}

bool cuts_need_search(TRVOprob p) {
    if (!p->cutpool) return false;
    for (const auto& kv : p->cutpool->cuts)
        if (kv.second.in_pool) return true;
    return false;
}

SearchCuts::SearchCuts(TRVOprob p, search::Model& model, search::NodeCuts& nc) : p_(p), nc_(nc) {
    CutPool& pool = cut_pool(p);
    const size_t m = static_cast<size_t>(p->nrows());
    if (!pool.lazy.empty()) {
        model.lazy.assign(static_cast<size_t>(model.lp.nrow), 0);
        for (size_t i = 0; i < m && i < pool.lazy.size(); ++i) model.lazy[i] = pool.lazy[i];
        // Quadratic rows are the outer approximation's business.
        for (const auto& kv : p->qrows) model.lazy[static_cast<size_t>(kv.first)] = 0;
    }
    const double tol = ctl_dbl(p, TRVO_FEASTOL);
    // Pool cuts violated at a node's solution join the node (and its subtree).
    nc.pool = [this, tol](const double* x) {
        CutPool& pool = cut_pool(p_);
        int n = 0;
        for (const auto& kv : pool.cuts) {
            if (!kv.second.in_pool) continue;
            const int key = nc_.known(kv.first);
            // Active here already, or given to a branch: kept to that branch's subtree.
            if (key >= 0 && (nc_.position(key) >= 0 || nc_.local(key))) continue;
            if (violation(kv.second, x) <= tol * std::max(1.0, std::fabs(kv.second.rhs))) continue;
            nc_.activate(search_key(nc_, kv.first, kv.second));
            ++n;
        }
        return n;
    };
    pool.node = &nc;
}

SearchCuts::~SearchCuts() {
    CutPool& pool = cut_pool(p_);
    pool.node = nullptr;
    nc_.pool = nullptr;
    for (auto it = pool.cuts.begin(); it != pool.cuts.end();)
        if (!it->second.in_pool) it = pool.cuts.erase(it);
        else ++it;
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOaddcuts64(TRVOprob prob, int ncuts, const int mtype[], const char rtype[], const double rhs[],
                  const int64_t mstart[], const int mcols[], const double dmatval[]) {
    return guard(prob, [&] {
        search::NodeCuts& nc = at_node(prob, "TRVOaddcuts64");
        std::vector<Cut> cuts;
        read_cuts(prob, ncuts, mtype, rtype, rhs, mstart, mcols, dmatval, cuts);
        CutPool& pool = cut_pool(prob);
        for (Cut& c : cuts) {
            const int64_t id = next_handle++;
            const int key = nc.add(cut_row(id, c));
            pool.cuts[id] = std::move(c);
            nc.activate(key);
        }
    });
}

int TRVOstorecuts64(TRVOprob prob, int ncuts, int nodupl, const int mtype[], const char rtype[], const double rhs[],
                    const int64_t mstart[], TRVOcut mindex[], const int mcols[], const double dmatval[]) {
    return guard(prob, [&] {
        if (nodupl < 0 || nodupl > 2) fail("Invalid duplicate check %d: use 0, 1 or 2", nodupl);
        std::vector<Cut> cuts;
        read_cuts(prob, ncuts, mtype, rtype, rhs, mstart, mcols, dmatval, cuts);
        CutPool& pool = cut_pool(prob);
        for (size_t k = 0; k < cuts.size(); ++k) {
            Cut& c = cuts[k];
            int64_t id = 0;
            if (nodupl)
                for (const auto& kv : pool.cuts)
                    if (kv.second.in_pool && (nodupl == 2 || kv.second.type == c.type) && same_row(kv.second, c)) {
                        id = kv.first;
                        break;
                    }
            if (!id) {
                id = next_handle++;
                c.in_pool = true;
                pool.cuts[id] = std::move(c);
            }
            if (mindex) mindex[k] = cut_handle(id);
        }
    });
}

int TRVOloadcuts(TRVOprob prob, int itype, int interp, int ncuts, const TRVOcut mcutind[]) {
    return guard(prob, [&] {
        search::NodeCuts& nc = at_node(prob, "TRVOloadcuts");
        CutPool& pool = cut_pool(prob);
        for (int64_t id : chosen(pool, ncuts, mcutind, pool_ids(pool))) {
            const Cut& c = pool.cuts[id];
            if (!selected(c.type, itype, interp)) continue;
            nc.activate(search_key(nc, id, c));
        }
    });
}

int TRVOdelcuts(TRVOprob prob, int ibasis, int itype, int interp, double delta, int ncuts, const TRVOcut mcutind[]) {
    return guard(prob, [&] {
        search::NodeCuts& nc = at_node(prob, "TRVOdelcuts");
        CutPool& pool = cut_pool(prob);
        const double* x = nc.point();
        for (int64_t id : chosen(pool, ncuts, mcutind, node_ids(nc))) {
            const Cut& c = pool.cuts[id];
            const int key = nc.known(id);
            if (key < 0 || nc.position(key) < 0 || !selected(c.type, itype, interp)) continue;
            if (x && std::fabs(c.rhs - activity(c, x)) <= delta) continue;
            if (ibasis == 1 && !nc.basic(key)) continue;
            nc.deactivate(key);
        }
    });
}

int TRVOdelcpcuts(TRVOprob prob, int itype, int interp, int ncuts, const TRVOcut mcutind[]) {
    return guard(prob, [&] {
        CutPool& pool = cut_pool(prob);
        for (int64_t id : chosen(pool, ncuts, mcutind, pool_ids(pool))) {
            Cut& c = pool.cuts[id];
            if (!c.in_pool) fail("Cut %p is not in the cut pool", static_cast<void*>(cut_handle(id)));
            if (!selected(c.type, itype, interp)) continue;
            // A running search keeps the row at the nodes that use it until it ends.
            if (pool.node && pool.node->known(id) >= 0) c.in_pool = false;
            else pool.cuts.erase(id);
        }
    });
}

int TRVOgetcutlist(TRVOprob prob, int itype, int interp, int* ncuts, int size, TRVOcut mcutind[]) {
    return guard(prob, [&] {
        search::NodeCuts& nc = at_node(prob, "TRVOgetcutlist");
        CutPool& pool = cut_pool(prob);
        int n = 0;
        for (int64_t id : node_ids(nc)) {
            if (!selected(pool.cuts[id].type, itype, interp)) continue;
            if (mcutind && n < size) mcutind[n] = cut_handle(id);
            ++n;
        }
        if (ncuts) *ncuts = n;
    });
}

int TRVOgetcpcutlist(TRVOprob prob, int itype, int interp, double delta, int* ncuts, int size, TRVOcut mcutind[],
                     double dviol[]) {
    return guard(prob, [&] {
        CutPool& pool = cut_pool(prob);
        const double* x = pool.cuts.empty() ? nullptr : current_point(prob);
        int n = 0;
        for (const auto& kv : pool.cuts) {
            if (!kv.second.in_pool || !selected(kv.second.type, itype, interp)) continue;
            const double v = violation(kv.second, x);
            if (!(v > delta)) continue;
            if (n < size) {
                if (mcutind) mcutind[n] = cut_handle(kv.first);
                if (dviol) dviol[n] = v;
            }
            ++n;
        }
        if (ncuts) *ncuts = n;
    });
}

int TRVOgetcpcuts64(TRVOprob prob, const TRVOcut mindex[], int ncuts, int64_t size, int mtype[], char rtype[],
                    int64_t mstart[], int mcols[], double dmatval[], double drhs[], int64_t* nels) {
    return guard(prob, [&] {
        if (ncuts < 0) fail("Negative number of cuts");
        if (ncuts > 0 && !mindex) fail("The cuts are needed");
        CutPool& pool = cut_pool(prob);
        std::vector<const Cut*> cs;
        for (int k = 0; k < ncuts; ++k) cs.push_back(&find_cut(pool, mindex[k]));
        int64_t e = 0;
        for (int k = 0; k < ncuts; ++k) {
            const Cut& c = *cs[static_cast<size_t>(k)];
            if (mtype) mtype[k] = c.type;
            if (rtype) rtype[k] = c.rtype;
            if (drhs) drhs[k] = c.rhs;
            if (mstart) mstart[k] = std::min(e, size);
            for (size_t i = 0; i < c.cols.size(); ++i, ++e)
                if (e < size) {
                    if (mcols) mcols[e] = c.cols[i];
                    if (dmatval) dmatval[e] = c.vals[i];
                }
        }
        if (mstart) mstart[ncuts] = std::min(e, size);
        if (nels) *nels = e;
    });
}

int TRVOgetcutmap(TRVOprob prob, int ncuts, const TRVOcut cuts[], int cutmap[]) {
    return guard(prob, [&] {
        search::NodeCuts& nc = at_node(prob, "TRVOgetcutmap");
        if (ncuts < 0) fail("Negative number of cuts");
        if (ncuts > 0 && (!cuts || !cutmap)) fail("The cuts and the map are needed");
        CutPool& pool = cut_pool(prob);
        for (int k = 0; k < ncuts; ++k) find_cut(pool, cuts[k]);
        for (int k = 0; k < ncuts; ++k) {
            const int key = nc.known(id_of(cuts[k]));
            const int pos = key < 0 ? -1 : nc.position(key);
            cutmap[k] = pos < 0 ? -1 : prob->nrows() + pos;
        }
    });
}

int TRVOgetcutslack(TRVOprob prob, TRVOcut cut, double* slack) {
    return guard(prob, [&] {
        const Cut& c = find_cut(cut_pool(prob), cut);
        const double* x = current_point(prob);
        if (slack) *slack = c.rhs - activity(c, x);
    });
}

int TRVOsetbranchcuts(TRVOprob prob, int nbcuts, const TRVOcut mindex[]) {
    return guard(prob, [&] {
        const std::vector<int> keys = branch_cut_keys(prob, nbcuts < 0 ? 0 : nbcuts,
                                                      reinterpret_cast<const void* const*>(mindex),
                                                      "TRVOsetbranchcuts");
        search::NodeCuts& nc = *cut_pool(prob).node;
        std::vector<int>& to = nc.child_cuts ? *nc.child_cuts : nc.branch_cuts;
        for (int key : keys)
            if (std::find(to.begin(), to.end(), key) == to.end()) to.push_back(key);
    });
}

int TRVOstorebounds(TRVOprob prob, int nbnds, const int mcols[], const char qbtype[], const double dbnd[],
                    void** mindex) {
    return guard(prob, [&] {
        if (nbnds < 0) fail("Negative number of bounds");
        if (!mindex) fail("No place for the handle of the stored bounds");
        if (nbnds > 0 && (!mcols || !qbtype || !dbnd)) fail("Columns, bound types and values are needed");
        StoredBounds b;
        for (int k = 0; k < nbnds; ++k) {
            check_col(prob, mcols[k]);
            if (qbtype[k] != 'L' && qbtype[k] != 'U' && qbtype[k] != 'B')
                fail("Invalid bound type '%c': use 'L', 'U' or 'B'", qbtype[k]);
            if (std::isnan(dbnd[k])) fail("Bound %d is not a number", k);
            b.cols.push_back(mcols[k]);
            b.types.push_back(qbtype[k]);
            b.values.push_back(dbnd[k]);
        }
        const int64_t id = next_handle++;
        cut_pool(prob).bounds[id] = std::move(b);
        *mindex = reinterpret_cast<void*>(static_cast<uintptr_t>(id));
    });
}

int TRVOsetbranchbounds(TRVOprob prob, void* mindex) {
    return guard(prob, [&] {
        search::NodeCuts& nc = at_node(prob, "TRVOsetbranchbounds");
        CutPool& pool = cut_pool(prob);
        auto it = pool.bounds.find(id_of(mindex));
        if (it == pool.bounds.end()) fail("Unknown stored bounds %p: they belong to another problem", mindex);
        std::vector<search::Branch::Bound>& to = nc.child_bounds ? *nc.child_bounds : nc.branch_bounds;
        const StoredBounds& b = it->second;
        for (size_t k = 0; k < b.cols.size(); ++k) {
            const double v = is_inf(b.values[k]) ? (b.values[k] > 0 ? INFINITY : -INFINITY) : b.values[k];
            search::Branch::Bound nb{b.cols[k], -INFINITY, INFINITY};
            if (b.types[k] != 'U') nb.lo = v;
            if (b.types[k] != 'L') nb.up = v;
            to.push_back(nb);
        }
    });
}

namespace {

int mark_lazy(TRVOprob prob, int n, const int rows[], char kind) {
    return guard(prob, [&] {
        if (n < 0) fail("Negative number of rows");
        if (n > 0 && !rows) fail("The rows are needed");
        for (int k = 0; k < n; ++k) check_row(prob, rows[k]);
        std::vector<char>& lazy = cut_pool(prob).lazy;
        if (lazy.size() < static_cast<size_t>(prob->nrows())) lazy.resize(static_cast<size_t>(prob->nrows()), 0);
        for (int k = 0; k < n; ++k) lazy[static_cast<size_t>(rows[k])] = kind;
    });
}

}  // namespace

int TRVOloaddelayedrows(TRVOprob prob, int nrows, const int mrows[]) { return mark_lazy(prob, nrows, mrows, 1); }
int TRVOloadmodelcuts(TRVOprob prob, int nmodcuts, const int mrows[]) { return mark_lazy(prob, nmodcuts, mrows, 2); }

}  // extern "C"
