// Cut rows of the tree search: rows beyond the model's that are active at some nodes only
// (cuts added at a node hold in its subtree), and the model's lazy rows, kept out of the
// relaxation until a solution violates them.
//
// Every cut row gets a key when it becomes known to the search. A node carries the keys active
// there; entering a node switches the relaxation's rows to exactly that set. A row enters the
// relaxation's HiGHS instance once and is afterwards switched on and off through its bounds (a
// switched-off row is free), so that row positions, and with them the bases kept for the open
// nodes, stay valid however the nodes are visited.
#pragma once

#include "engine/search/search.h"

#include <functional>
#include <unordered_map>
#include <vector>

namespace trvo {
namespace search {

class Relaxation;

// A row lo <= a'x <= up in model columns; tag is the owner's name for it (a pool cut's id).
struct CutRow {
    std::vector<HighsInt> index;
    std::vector<double> value;
    double lo = -INFINITY, up = INFINITY;
    int64_t tag = 0;
    double activity(const double* x) const;
    double violation(const double* x) const;
};

class NodeCuts {
public:
    // ---- for the search
    void attach(Relaxation* rel, const Model* model, const Settings* settings);
    void detach();
    // The node about to be processed and its active keys.
    void enter(const std::vector<int>& keys);
    // No node is being processed (before the first, after the last).
    void leave() { at_node_ = false; }
    // The point that slacks and violations refer to (the node's relaxation solution, or the
    // candidate offered to preintsol); null when there is none.
    void set_point(const double* x) { point_ = x; }
    // True once after rows were switched on at the current node (the node must be solved again).
    bool take_changed() {
        const bool c = changed_;
        changed_ = false;
        return c;
    }
    // Model cuts and pool cuts violated at the node's solution become active; returns how many.
    int separate(const double* x);
    // Delayed rows (and model cuts) violated by a candidate become active everywhere; returns
    // how many.
    int lazy_violated(const double* x);
    bool has_lazy() const { return lazy_left_ > 0; }
    // What a child of the current node starts with: the node's active keys, the keys given to
    // every child, and the keys and bounds given to this child while its newnode hook ran.
    // Those keys become local (below): a row given to a branch holds in that branch's subtree.
    std::vector<int> child_keys(const std::vector<int>& extra);
    // Collected while a child's newnode hook runs (null outside it).
    std::vector<int>* child_cuts = nullptr;
    std::vector<Branch::Bound>* child_bounds = nullptr;
    // Given to every child of the current node.
    std::vector<int> branch_cuts;
    std::vector<Branch::Bound> branch_bounds;

    // ---- for the owner of the search (the optimiser's cut functions)
    bool at_node() const { return at_node_ && rel_ != nullptr; }
    const double* point() const { return point_; }
    int known(int64_t tag) const;            // key of a row with this tag, -1 when none
    int add(CutRow row);                     // a new row, not active anywhere yet: its key
    const CutRow& row(int key) const { return rows_[static_cast<size_t>(key)]; }
    void activate(int key);                  // at the current node and its subtree
    void deactivate(int key);
    const std::vector<int>& active() const { return active_; }
    int position(int key) const;             // in active(), -1 when not active
    // Whether the row was given to a branch: it then belongs to that branch's subtree, and the
    // pool's separation (pool below) leaves it out of other nodes even where it is violated.
    bool local(int key) const { return key >= 0 && static_cast<size_t>(key) < local_.size() && local_[static_cast<size_t>(key)]; }
    // Whether the key's row is basic (not binding) in the relaxation's last basis.
    bool basic(int key) const;
    int model_rows() const;
    // Called by separate(): activates violated pool cuts at x, returns how many.
    std::function<int(const double* x)> pool;

private:
    void switch_row(int key, bool on);
    int switch_lazy(const double* x, bool delayed_too);

    Relaxation* rel_ = nullptr;
    const Model* model_ = nullptr;
    const Settings* set_ = nullptr;
    std::vector<CutRow> rows_;
    std::unordered_map<int64_t, int> by_tag_;  // key of each row by its tag
    std::vector<int> inst_;    // instance row of each key, -1 before it first became active
    std::vector<char> on_;     // active at the current node
    std::vector<char> local_;  // given to a branch (local())
    std::vector<int> active_;
    std::vector<char> lazy_on_;  // lazy model rows switched on for good
    int lazy_left_ = 0;
    const double* point_ = nullptr;
    bool at_node_ = false, changed_ = false;
};

}  // namespace search
}  // namespace trvo
