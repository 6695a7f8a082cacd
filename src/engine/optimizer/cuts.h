// The optimiser's cuts: the pool of stored cuts, the cuts of a running tree search, stored
// bound sets for branching, and the lazy rows (delayed rows and model cuts) of the problem.
#pragma once

#include "engine/optimizer/problem.h"

#include <map>
#include <vector>

namespace trvo {

namespace search {
class NodeCuts;
struct Model;
}

struct Cut {
    int type = 0;
    char rtype = 'L';
    double rhs = 0;
    std::vector<int> cols;
    std::vector<double> vals;
    bool in_pool = false;  // stored (false: a cut added at a node, known only to that search)
};

struct StoredBounds {
    std::vector<int> cols;
    std::vector<char> types;
    std::vector<double> values;
};

struct CutPool {
    std::map<int64_t, Cut> cuts;  // by handle id
    std::map<int64_t, StoredBounds> bounds;
    std::vector<char> lazy;       // per row: 1 delayed row, 2 model cut (shorter: 0 beyond)
    search::NodeCuts* node = nullptr;  // the running search's cut rows
};

CutPool& cut_pool(TRVOprob p);
// Gives dest a copy of src's pool: cuts, stored bounds and lazy marks (problem copies).
void cuts_copy(TRVOprob dest, TRVOprob src);
// Keeps the lazy marks on the rows left by a deletion.
void cuts_rows_deleted(TRVOprob p, const std::vector<char>& drop);
// Moves pool cuts and stored bounds to the columns left by a deletion (newidx: new position of
// each old column, -1 deleted); cuts over a deleted column leave the pool.
void cuts_cols_deleted(TRVOprob p, const std::vector<int>& newidx);
// Whether a MIP solve should use the tree search for the pool's sake.
bool cuts_need_search(TRVOprob p);
// Fails unless each of the n handles names a cut of p's pool or of its running search.
void check_cut_handles(TRVOprob p, int n, const void* const* handles);
// The running search's keys of the cuts that a branch gives to its children (rows the search
// does not know yet are added to it). Only at a node of the search; what names the caller.
// *adds_new (when given) tells whether some of them are not active at the current node.
std::vector<int> branch_cut_keys(TRVOprob p, int n, const void* const* handles, const char* what,
                                 bool* adds_new = nullptr);
// The handle of the running search's cut row with this key.
void* cut_handle_of_key(TRVOprob p, int key);
// Connects a tree search about to run to the problem's cuts (lazy rows into the model, pool
// cuts separated at nodes), and disconnects it when the object goes; cuts added at nodes are
// forgotten then.
class SearchCuts {
public:
    SearchCuts(TRVOprob p, search::Model& model, search::NodeCuts& nc);
    ~SearchCuts();
    SearchCuts(const SearchCuts&) = delete;
    SearchCuts& operator=(const SearchCuts&) = delete;

private:
    TRVOprob p_;
    search::NodeCuts& nc_;
};

}  // namespace trvo
