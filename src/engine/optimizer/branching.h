// Branching objects and directives of the optimiser, and their hand-over to the tree search.
#pragma once

#include "engine/optimizer/problem.h"
#include "engine/search/search.h"

#include <map>
#include <string>
#include <vector>

struct trvo_bo_s {
    uint32_t magic;
    TRVOprob prob;
    int isoriginal;
    int id;
    int priority = 0;    // among stored objects, lower is used first
    int preferred = -1;  // the branch explored first, -1 none
    int64_t node = 0;    // the search's node at which it was stored (0: before the solve)
    int extra_cols = 0;  // columns beyond the problem's that a proposal of the search may name
                         // (columns of the reformulation sent to the search, hidden from the user)
    struct Bound {
        char type;  // 'L', 'U', 'B'
        int col;
        double val;
    };
    struct Row {
        char type;  // 'L', 'G', 'E'
        double rhs;
        std::vector<int> cols;
        std::vector<double> vals;
    };
    struct Branch {
        std::vector<Bound> bounds;
        std::vector<Row> rows;
        std::vector<void*> cuts;  // cut handles (cuts.h), made active in the child and its subtree
    };
    std::vector<Branch> branches;
    int errcode = 0;
    std::string error;
};

namespace trvo {

constexpr uint32_t kBranchObjectMagic = 0x74626f62u;

struct Directive {
    int priority = TRVO_DIR_DEFAULT_PRIORITY;
    char dir = 'N';  // 'U', 'D', 'N'
    double uppc = -1, downpc = -1;
};

struct BranchingStore {
    std::map<int, Directive> dirs;          // by column
    std::vector<TRVObranchobject> stored;   // owned, in the order stored
    int next_id = 1;
    int64_t node = 0;  // the node the search is processing (0 outside a search)
    BranchingStore() = default;
    BranchingStore(const BranchingStore&) = delete;
    BranchingStore& operator=(const BranchingStore&) = delete;
    ~BranchingStore();
};

BranchingStore& branching_store(TRVOprob p);
bool has_directives(TRVOprob p);
bool has_stored_branchobjects(TRVOprob p);
// Whether a MIP solve must run on the engine's search for directives or stored objects.
bool branching_needs_search(TRVOprob p);
// The directives in the search's form, for a model of ncol columns.
void search_directives(TRVOprob p, int ncol, search::Directives& out);

// The search's decision as a new branching object (the caller owns it); v gives the node bounds.
TRVObranchobject branchobject_from_branch(TRVOprob p, const search::Branch& b, const search::NodeView& v);
// A branching object as the search's decision at node v; fails (Error) when the object cannot
// be carried out at this node of this problem.
void branch_from_branchobject(TRVOprob p, TRVObranchobject bo, const search::NodeView& v, int ncol,
                              search::Branch& out);
// Marks the node being processed: objects stored now belong to it.
void branching_node(TRVOprob p, int64_t node);
// Replaces b with the stored object of best priority among those stored at this node (or before
// the solve), if any; it is then consumed.
void take_stored_branch(TRVOprob p, const search::NodeView& v, int ncol, search::Branch& b);
// Drops stored objects left at the end of a search.
void drop_stored_branchobjects(TRVOprob p);

}  // namespace trvo
