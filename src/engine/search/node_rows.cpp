// Branching rows in the node relaxation: a row that a branch adds belongs to its child and the
// child's subtree. Before a node is solved the instance is brought to hold exactly the node's
// rows: the rows of nodes left behind are deleted and the node's new rows appended, so that a
// dive only appends and a jump deletes what the new node does not share with the old one.
#include "engine/search/relaxation.h"

#include "engine/optimizer/highs_instances.h"

#include <algorithm>
#include <unordered_set>

namespace trvo {
namespace search {

void Relaxation::set_node_rows(const std::vector<std::shared_ptr<const BranchRow>>& rows) {
    if (rows.empty() && node_rows_.empty()) return;
    std::unordered_set<const BranchRow*> wanted;
    for (const auto& r : rows) wanted.insert(r.get());
    // Delete the rows held that the node does not have, keeping the others' order.
    std::vector<HighsInt> drop;
    std::unordered_set<const BranchRow*> kept;
    {
        size_t k = 0;  // position in node_rows_
        std::vector<int> extra;
        std::vector<std::shared_ptr<const BranchRow>> held;
        for (size_t e = 0; e < extra_rows_.size(); ++e) {
            if (extra_rows_[e] >= 0) {
                extra.push_back(extra_rows_[e]);
                continue;
            }
            const auto& r = node_rows_[k++];
            if (wanted.count(r.get())) {
                kept.insert(r.get());
                held.push_back(r);
                extra.push_back(-1);
            } else {
                drop.push_back(static_cast<HighsInt>(nrow_ + static_cast<int>(e)));
            }
        }
        if (!drop.empty() &&
            Highs_deleteRowsBySet(h_, static_cast<HighsInt>(drop.size()), drop.data()) == kHighsStatusError)
            fail("HiGHS failed to remove the branching rows of a node in the tree search");
        extra_rows_ = std::move(extra);
        node_rows_ = std::move(held);
    }
    for (const auto& r : rows) {
        if (kept.count(r.get())) continue;
        std::vector<HighsInt> idx(r->idx.begin(), r->idx.end());
        if (Highs_addRow(h_, r->lo, r->up, static_cast<HighsInt>(idx.size()), idx.empty() ? nullptr : idx.data(),
                         r->val.empty() ? nullptr : r->val.data()) == kHighsStatusError)
            fail("HiGHS failed to add a branching row of a node in the tree search");
        extra_rows_.push_back(-1);
        node_rows_.push_back(r);
        kept.insert(r.get());
    }
}

}  // namespace search
}  // namespace trvo
