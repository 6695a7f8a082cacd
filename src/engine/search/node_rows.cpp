// Branching rows in the node relaxation: a row that a branch adds belongs to its child and the
// child's subtree. Before a node is solved the instance is brought to hold exactly the node's
// rows switched on. A row is added to the instance the first time a node needs it and is
// switched off (made free) while the node being solved does not hold it: rows are never deleted,
// so the instance positions of cut rows, which the cut code records, stay valid.
#include "engine/search/relaxation.h"

#include <cmath>

namespace trvo {
namespace search {

void Relaxation::set_node_rows(const std::vector<std::shared_ptr<const BranchRow>>& rows) {
    if (rows.empty() && branch_rows_on_.empty()) return;
    std::unordered_set<const BranchRow*> wanted;
    for (const auto& r : rows) wanted.insert(r.get());
    for (auto it = branch_rows_on_.begin(); it != branch_rows_on_.end();) {
        if (wanted.count(*it)) {
            ++it;
            continue;
        }
        set_row_bounds(branch_row_pos_.at(*it), -INFINITY, INFINITY);
        it = branch_rows_on_.erase(it);
    }
    for (const auto& r : rows) {
        if (branch_rows_on_.count(r.get())) continue;
        auto found = branch_row_pos_.find(r.get());
        if (found == branch_row_pos_.end()) {
            std::vector<HighsInt> idx(r->idx.begin(), r->idx.end());
            const int pos = add_row(r->lo, r->up, static_cast<int>(idx.size()), idx.empty() ? nullptr : idx.data(),
                                    r->val.empty() ? nullptr : r->val.data());
            branch_row_pos_.emplace(r.get(), pos);
            branch_rows_.push_back(r);
        } else {
            set_row_bounds(found->second, r->lo, r->up);
        }
        branch_rows_on_.insert(r.get());
    }
}

}  // namespace search
}  // namespace trvo
