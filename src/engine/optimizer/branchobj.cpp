// Branching objects: branches made of column bound changes and rows, with a priority and a
// preferred branch; their validation, storing for the next branching of the tree search, and
// their translation to and from the search's own branching decisions.
#include "engine/optimizer/branching.h"

#include "engine/optimizer/cuts.h"

#include <cxxabi.h>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>

namespace trvo {
namespace {

bool valid_problem(TRVOprob p) { return p && p->magic == kProblemMagic; }

// Runs body for a valid branching object and records its failure as the object's last error.
int bo_guard(TRVObranchobject bo, const std::function<void()>& body) {
    if (!bo || bo->magic != kBranchObjectMagic) {
        set_global_error(1, "Invalid branching object");
        return 1;
    }
    try {
        body();
        return 0;
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (const std::bad_alloc&) {
        bo->error = "Out of memory";
    } catch (const std::exception& e) {
        bo->error = e.what();
    } catch (...) {
        bo->error = "Unknown failure";
    }
    bo->errcode = 1;
    return 1;
}

trvo_bo_s::Branch& branch_at(TRVObranchobject bo, int ibranch) {
    if (ibranch < 0 || ibranch >= static_cast<int>(bo->branches.size()))
        fail("Branch %d does not exist: the branching object has %d branches", ibranch,
             static_cast<int>(bo->branches.size()));
    return bo->branches[static_cast<size_t>(ibranch)];
}

TRVOprob live_problem(TRVObranchobject bo) {
    if (!valid_problem(bo->prob)) fail("The problem of this branching object no longer exists");
    return bo->prob;
}

void check_column(TRVObranchobject bo, TRVOprob p, int col) {
    const int n = p->ncols() + bo->extra_cols;
    if (col < 0 || col >= n) fail("Column %d in branching object out of range (0 to %d)", col, n - 1);
}

// The validation status (see TRVO_bo_validate) and its reason.
int check(TRVObranchobject bo, std::string* why) {
    auto say = [&](int code, const std::string& text) {
        if (why) *why = text;
        return code;
    };
    if (!valid_problem(bo->prob)) return say(7, "the problem of the branching object no longer exists");
    const int n = bo->prob->ncols() + bo->extra_cols;
    if (bo->branches.empty()) return say(1, "it has no branches");
    for (size_t b = 0; b < bo->branches.size(); ++b) {
        const auto& br = bo->branches[b];
        const std::string at = "branch " + std::to_string(b);
        if (br.bounds.empty() && br.rows.empty() && br.cuts.empty())
            return say(6, at + " has neither bounds, rows nor cuts");
        for (const auto& x : br.bounds) {
            if (x.col < 0 || x.col >= n) return say(2, at + " has a bound on a column outside the problem");
            if ((x.type != 'L' && x.type != 'U' && x.type != 'B') || !std::isfinite(x.val))
                return say(3, at + " has an invalid bound type or a bound that is not finite");
        }
        for (const auto& r : br.rows) {
            if ((r.type != 'L' && r.type != 'G' && r.type != 'E') || !std::isfinite(r.rhs))
                return say(4, at + " has an invalid row type or a right-hand side that is not finite");
            for (size_t k = 0; k < r.cols.size(); ++k) {
                if (r.cols[k] < 0 || r.cols[k] >= n) return say(2, at + " has a row on a column outside the problem");
                if (!std::isfinite(r.vals[k])) return say(4, at + " has a row coefficient that is not finite");
            }
        }
    }
    if (bo->preferred >= static_cast<int>(bo->branches.size()))
        return say(5, "its preferred branch does not exist");
    return 0;
}

struct BoDeleter {
    void operator()(trvo_bo_s* bo) const { TRVO_bo_destroy(bo); }
};
using BoPtr = std::unique_ptr<trvo_bo_s, BoDeleter>;

}  // namespace

BranchingStore::~BranchingStore() {
    for (TRVObranchobject bo : stored) TRVO_bo_destroy(bo);
}

BranchingStore& branching_store(TRVOprob p) {
    if (!p->branching) p->branching = std::make_shared<BranchingStore>();
    return *p->branching;
}

bool has_stored_branchobjects(TRVOprob p) { return p->branching && !p->branching->stored.empty(); }

bool branching_needs_search(TRVOprob p) { return has_directives(p) || has_stored_branchobjects(p); }

void drop_stored_branchobjects(TRVOprob p) {
    if (!p->branching) return;
    for (TRVObranchobject bo : p->branching->stored) TRVO_bo_destroy(bo);
    p->branching->stored.clear();
    p->branching->node = 0;
}

TRVObranchobject branchobject_from_branch(TRVOprob p, const search::Branch& b, const search::NodeView& v) {
    BoPtr bo(new trvo_bo_s{kBranchObjectMagic, p, 1, branching_store(p).next_id++});
    const int n = p->ncols();
    for (size_t c = 0; c < b.children.size(); ++c) {
        trvo_bo_s::Branch out;
        for (const auto& x : b.children[c]) {
            // A column of the reformulation (beyond the user's) stays addressable in this object.
            if (x.col >= n) bo->extra_cols = std::max(bo->extra_cols, x.col + 1 - n);
            const size_t s = static_cast<size_t>(x.col);
            if (!v.lower || x.lo > v.lower[s]) out.bounds.push_back({'L', x.col, x.lo});
            if (!v.upper || x.up < v.upper[s]) out.bounds.push_back({'U', x.col, x.up});
        }
        if (c < b.rows.size())
            for (const auto& r : b.rows[c]) {
                std::vector<int> cols(r.idx.begin(), r.idx.end());
                if (r.lo == r.up) {
                    out.rows.push_back({'E', r.lo, cols, r.val});
                    continue;
                }
                if (std::isfinite(r.lo)) out.rows.push_back({'G', r.lo, cols, r.val});
                if (std::isfinite(r.up)) out.rows.push_back({'L', r.up, cols, r.val});
            }
        if (c < b.cuts.size())
            for (int key : b.cuts[c]) out.cuts.push_back(cut_handle_of_key(p, key));
        bo->branches.push_back(std::move(out));
    }
    bo->preferred = b.preferred;
    return bo.release();
}

void branch_from_branchobject(TRVOprob p, TRVObranchobject bo, const search::NodeView& v, int ncol,
                              search::Branch& out) {
    if (!bo || bo->magic != kBranchObjectMagic) fail("Invalid branching object given to the tree search");
    if (bo->prob != p) fail("The branching object given to the tree search belongs to another problem");
    std::string why;
    if (check(bo, &why) != 0) fail("Invalid branching object %d for the tree search: %s", bo->id, why.c_str());
    search::Branch b;
    for (size_t c = 0; c < bo->branches.size(); ++c) {
        const auto& br = bo->branches[c];
        // The child's bounds: the node's, tightened by the branch.
        std::map<int, std::pair<double, double>> bounds;
        bool empty = false;
        for (const auto& x : br.bounds) {
            const size_t s = static_cast<size_t>(x.col);
            auto it = bounds.find(x.col);
            if (it == bounds.end())
                it = bounds.emplace(x.col, std::make_pair(v.lower ? v.lower[s] : -INFINITY,
                                                          v.upper ? v.upper[s] : INFINITY)).first;
            if (x.type == 'L' || x.type == 'B') it->second.first = std::max(it->second.first, x.val);
            if (x.type == 'U' || x.type == 'B') it->second.second = std::min(it->second.second, x.val);
            if (it->second.first > it->second.second) empty = true;
        }
        // A branch whose bounds leave nothing of the node has no child.
        if (empty) continue;
        // The branch's cuts, checked again: they may have been deleted since they were added.
        bool new_cuts = false;
        std::vector<int> cut_keys = branch_cut_keys(p, static_cast<int>(br.cuts.size()), br.cuts.data(),
                                                     "Cuts of a branching object", &new_cuts);
        std::vector<search::Branch::Bound> changes;
        bool tighter = !br.rows.empty() || new_cuts;
        for (const auto& kv : bounds) {
            if (kv.first >= ncol) continue;
            const size_t s = static_cast<size_t>(kv.first);
            if ((v.lower && kv.second.first > v.lower[s]) || (v.upper && kv.second.second < v.upper[s])) tighter = true;
            changes.push_back({kv.first, kv.second.first, kv.second.second});
        }
        // A child equal to its node would be branched on in the same way without end.
        if (!tighter)
            fail("Branch %d of branching object %d does not change the node it branches: its bounds are the "
                 "node's already and it brings no rows or new cuts",
                 static_cast<int>(c), bo->id);
        std::vector<search::BranchRow> rows;
        for (const auto& r : br.rows) {
            search::BranchRow row;
            row.idx = r.cols;
            row.val = r.vals;
            row.lo = r.type == 'L' ? -INFINITY : r.rhs;
            row.up = r.type == 'G' ? INFINITY : r.rhs;
            rows.push_back(std::move(row));
        }
        if (bo->preferred == static_cast<int>(c)) b.preferred = static_cast<int>(b.children.size());
        b.children.push_back(std::move(changes));
        b.rows.push_back(std::move(rows));
        b.cuts.push_back(std::move(cut_keys));
    }
    b.col = -1;
    out = std::move(b);
}

void branching_node(TRVOprob p, int64_t node) {
    branching_store(p).node = node;
}

void take_stored_branch(TRVOprob p, const search::NodeView& v, int ncol, search::Branch& b) {
    if (!has_stored_branchobjects(p)) return;
    auto& stored = p->branching->stored;
    // An object stored at a node that ended without branching does not apply elsewhere.
    size_t best = stored.size();
    for (size_t k = 0; k < stored.size(); ++k) {
        if (stored[k]->node != 0 && stored[k]->node != v.node) continue;
        if (best == stored.size() || stored[k]->priority < stored[best]->priority) best = k;
    }
    if (best == stored.size()) return;
    BoPtr bo(stored[best]);
    stored.erase(stored.begin() + static_cast<long>(best));
    branch_from_branchobject(p, bo.get(), v, ncol, b);
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVO_bo_create(TRVObranchobject* bo, TRVOprob prob, int isoriginal) {
    if (!bo) {
        set_global_error(1, "TRVO_bo_create needs somewhere to put the branching object");
        return 1;
    }
    *bo = nullptr;
    return guard(prob, [&] {
        *bo = new trvo_bo_s{kBranchObjectMagic, prob, isoriginal ? 1 : 0, branching_store(prob).next_id++};
    });
}

int TRVO_bo_destroy(TRVObranchobject bo) {
    if (!bo) return 0;
    if (bo->magic != kBranchObjectMagic) {
        set_global_error(1, "Invalid branching object");
        return 1;
    }
    bo->magic = 0;
    delete bo;
    return 0;
}

int TRVO_bo_addbranches(TRVObranchobject bo, int nbranches) {
    return bo_guard(bo, [&] {
        if (nbranches < 0) fail("The number of branches to add must not be negative (%d given)", nbranches);
        bo->branches.resize(bo->branches.size() + static_cast<size_t>(nbranches));
    });
}

int TRVO_bo_getbranches(TRVObranchobject bo, int* nbranches) {
    return bo_guard(bo, [&] {
        if (nbranches) *nbranches = static_cast<int>(bo->branches.size());
    });
}

int TRVO_bo_setpriority(TRVObranchobject bo, int priority) {
    return bo_guard(bo, [&] { bo->priority = priority; });
}

int TRVO_bo_setpreferredbranch(TRVObranchobject bo, int ibranch) {
    return bo_guard(bo, [&] {
        branch_at(bo, ibranch);
        bo->preferred = ibranch;
    });
}

int TRVO_bo_addbounds(TRVObranchobject bo, int ibranch, int nbounds, const char* bndtype, const int* bndcol,
                      const double* bndval) {
    return bo_guard(bo, [&] {
        auto& br = branch_at(bo, ibranch);
        if (nbounds < 0) fail("The number of bounds must not be negative (%d given)", nbounds);
        if (nbounds == 0) return;
        if (!bndtype || !bndcol || !bndval) fail("Bound types, columns and values are all needed to add bounds");
        TRVOprob p = live_problem(bo);
        for (int k = 0; k < nbounds; ++k) {
            const char t = bndtype[k];
            if (t != 'L' && t != 'U' && t != 'B')
                fail("Invalid bound type '%c' in branching object: use 'L', 'U' or 'B'", t);
            check_column(bo, p, bndcol[k]);
            if (!std::isfinite(bndval[k]) || std::fabs(bndval[k]) >= kInf)
                fail("Bound %d of the branch is not finite", k);
        }
        for (int k = 0; k < nbounds; ++k) br.bounds.push_back({bndtype[k], bndcol[k], bndval[k]});
    });
}

int TRVO_bo_getbounds(TRVObranchobject bo, int ibranch, int* nbounds, int nbounds_size, char* bndtype,
                      int* bndcol, double* bndval) {
    return bo_guard(bo, [&] {
        const auto& br = branch_at(bo, ibranch);
        const int n = static_cast<int>(br.bounds.size());
        if (nbounds) *nbounds = n;
        const int m = std::min(n, std::max(nbounds_size, 0));
        for (int k = 0; k < m; ++k) {
            const auto& x = br.bounds[static_cast<size_t>(k)];
            if (bndtype) bndtype[k] = x.type;
            if (bndcol) bndcol[k] = x.col;
            if (bndval) bndval[k] = x.val;
        }
    });
}

int TRVO_bo_addrows(TRVObranchobject bo, int ibranch, int nrows, int nelems, const char* rtype, const double* rhs,
                    const int* rbeg, const int* mcol, const double* dval) {
    return bo_guard(bo, [&] {
        auto& br = branch_at(bo, ibranch);
        if (nrows < 0 || nelems < 0) fail("The numbers of rows and elements must not be negative");
        if (nrows == 0) return;
        if (!rtype || !rhs || !rbeg) fail("Row types, right-hand sides and starts are all needed to add rows");
        if (nelems > 0 && (!mcol || !dval)) fail("Row columns and coefficients are needed to add rows with elements");
        TRVOprob p = live_problem(bo);
        for (int i = 0; i < nrows; ++i) {
            const char t = rtype[i];
            if (t != 'L' && t != 'G' && t != 'E')
                fail("Invalid row type '%c' in branching object: use 'L', 'G' or 'E'", t);
            if (!std::isfinite(rhs[i]) || std::fabs(rhs[i]) >= kInf) fail("Row %d of the branch has no finite right-hand side", i);
            const int end = i + 1 < nrows ? rbeg[i + 1] : nelems;
            if (rbeg[i] < 0 || rbeg[i] > end || end > nelems)
                fail("Row starts of the branch must be increasing and within the %d elements", nelems);
        }
        for (int k = 0; k < nelems; ++k) {
            check_column(bo, p, mcol[k]);
            if (!std::isfinite(dval[k])) fail("Coefficient %d of the branch's rows is not finite", k);
        }
        for (int i = 0; i < nrows; ++i) {
            const int end = i + 1 < nrows ? rbeg[i + 1] : nelems;
            trvo_bo_s::Row r{rtype[i], rhs[i], {}, {}};
            // Coefficients of a repeated column are summed; zeros are dropped.
            std::map<int, double> coef;
            for (int k = rbeg[i]; k < end; ++k) coef[mcol[k]] += dval[k];
            for (const auto& kv : coef)
                if (kv.second != 0.0) {
                    r.cols.push_back(kv.first);
                    r.vals.push_back(kv.second);
                }
            br.rows.push_back(std::move(r));
        }
    });
}

int TRVO_bo_getrows(TRVObranchobject bo, int ibranch, int* nrows, int nrows_size, int* nelems, int nelems_size,
                    char* rtype, double* rrhs, int* rbeg, int* mcol, double* dval) {
    return bo_guard(bo, [&] {
        const auto& br = branch_at(bo, ibranch);
        const int n = static_cast<int>(br.rows.size());
        int total = 0;
        for (const auto& r : br.rows) total += static_cast<int>(r.cols.size());
        if (nrows) *nrows = n;
        if (nelems) *nelems = total;
        const int m = std::min(n, std::max(nrows_size, 0));
        const int room = std::max(nelems_size, 0);
        int at = 0;
        for (int i = 0; i < n; ++i) {
            const auto& r = br.rows[static_cast<size_t>(i)];
            if (i < m) {
                if (rtype) rtype[i] = r.type;
                if (rrhs) rrhs[i] = r.rhs;
                if (rbeg) rbeg[i] = at;
            }
            for (size_t k = 0; k < r.cols.size(); ++k, ++at)
                if (at < room) {
                    if (mcol) mcol[at] = r.cols[k];
                    if (dval) dval[at] = r.vals[k];
                }
        }
    });
}

int TRVO_bo_addcuts(TRVObranchobject bo, int ibranch, int ncuts, void* const* cutind) {
    return bo_guard(bo, [&] {
        auto& br = branch_at(bo, ibranch);
        if (ncuts < 0) fail("The number of cuts must not be negative (%d given)", ncuts);
        if (ncuts == 0) return;
        check_cut_handles(live_problem(bo), ncuts, cutind);
        for (int k = 0; k < ncuts; ++k)
            if (std::find(br.cuts.begin(), br.cuts.end(), cutind[k]) == br.cuts.end()) br.cuts.push_back(cutind[k]);
    });
}

int TRVO_bo_getid(TRVObranchobject bo, int* id) {
    return bo_guard(bo, [&] {
        if (id) *id = bo->id;
    });
}

int TRVO_bo_validate(TRVObranchobject bo, int* status) {
    return bo_guard(bo, [&] {
        if (status) *status = check(bo, nullptr);
    });
}

int TRVO_bo_store(TRVObranchobject bo, int* id) {
    return bo_guard(bo, [&] {
        std::string why;
        if (check(bo, &why) != 0) fail("Cannot store an invalid branching object: %s", why.c_str());
        BranchingStore& s = branching_store(bo->prob);
        s.stored.reserve(s.stored.size() + 1);
        bo->node = s.node;
        s.stored.push_back(bo);
        if (id) *id = bo->id;
    });
}

int TRVO_bo_getlasterror(TRVObranchobject bo, int* code, char* msg, int maxbytes, int* nbytes) {
    if (!bo || bo->magic != kBranchObjectMagic) {
        set_global_error(1, "Invalid branching object");
        return 1;
    }
    if (code) *code = bo->errcode;
    const int n = static_cast<int>(bo->error.size());
    if (nbytes) *nbytes = n + 1;
    if (msg && maxbytes > 0) {
        const int m = std::min(n, maxbytes - 1);
        std::memcpy(msg, bo->error.data(), static_cast<size_t>(m));
        msg[m] = '\0';
    }
    return 0;
}

}  // extern "C"
