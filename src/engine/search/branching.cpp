// The branching choice's use of directives: priorities restrict the candidates to the columns
// of the best priority present, pseudocost overrides replace the search's estimates, and a
// preferred direction decides which child is explored first.
#include "engine/search/search.h"

#include <climits>

namespace trvo {
namespace search {

int priority_of(const Directives& d, int col) {
    if (d.priority.empty() || col < 0 || col >= static_cast<int>(d.priority.size())) return INT_MAX;
    return d.priority[static_cast<size_t>(col)];
}

int first_priority(const Directives& d, const std::vector<int>& cols) {
    int best = INT_MAX;
    for (int j : cols) best = std::min(best, priority_of(d, j));
    return best;
}

double directed_pseudocost(const Directives& d, int col, int dir, double estimate) {
    const std::vector<double>& pc = dir ? d.up_pc : d.down_pc;
    if (col < 0 || col >= static_cast<int>(pc.size())) return estimate;
    const double v = pc[static_cast<size_t>(col)];
    return v >= 0 ? v : estimate;
}

bool pseudocosts_given(const Directives& d, int col) {
    if (col < 0 || col >= static_cast<int>(d.up_pc.size()) || col >= static_cast<int>(d.down_pc.size()))
        return false;
    return d.up_pc[static_cast<size_t>(col)] >= 0 && d.down_pc[static_cast<size_t>(col)] >= 0;
}

int preferred_direction(const Directives& d, int col, int dir) {
    if (col < 0 || col >= static_cast<int>(d.dir.size())) return dir;
    const int want = d.dir[static_cast<size_t>(col)];
    return want ? want : dir;
}

}  // namespace search
}  // namespace trvo
