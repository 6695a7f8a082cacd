// Cut rows and lazy rows of the tree search (see cuts.h).
#include "engine/search/cuts.h"

#include "engine/search/relaxation.h"

#include <algorithm>
#include <cmath>

namespace trvo {
namespace search {

double CutRow::activity(const double* x) const {
    double a = 0;
    for (size_t k = 0; k < index.size(); ++k) a += value[k] * x[index[k]];
    return a;
}

double CutRow::violation(const double* x) const {
    const double a = activity(x);
    return std::max(lo - a, a - up);
}

void NodeCuts::attach(Relaxation* rel, const Model* model, const Settings* settings) {
    rel_ = rel;
    model_ = model;
    set_ = settings;
    rows_.clear();
    by_tag_.clear();
    inst_.clear();
    on_.clear();
    local_.clear();
    active_.clear();
    lazy_on_.assign(static_cast<size_t>(model->lp.nrow), 0);
    lazy_left_ = 0;
    for (char c : model->lazy) lazy_left_ += c != 0;
    at_node_ = changed_ = false;
    point_ = nullptr;
}

void NodeCuts::detach() {
    rel_ = nullptr;
    model_ = nullptr;
    at_node_ = false;
    point_ = nullptr;
    child_cuts = nullptr;
    child_bounds = nullptr;
}

int NodeCuts::model_rows() const { return model_ ? model_->lp.nrow : 0; }

void NodeCuts::switch_row(int key, bool on) {
    const size_t k = static_cast<size_t>(key);
    const CutRow& r = rows_[k];
    if (inst_[k] < 0) {
        if (!on) return;
        inst_[k] = rel_->add_row(r.lo, r.up, static_cast<int>(r.index.size()), r.index.data(), r.value.data());
        return;
    }
    if (on) rel_->set_row_bounds(inst_[k], r.lo, r.up);
    else rel_->set_row_bounds(inst_[k], -INFINITY, INFINITY);
}

void NodeCuts::enter(const std::vector<int>& keys) {
    branch_cuts.clear();
    branch_bounds.clear();
    point_ = nullptr;
    changed_ = false;
    at_node_ = true;
    std::vector<char> want(rows_.size(), 0);
    for (int k : keys) want[static_cast<size_t>(k)] = 1;
    for (size_t k = 0; k < rows_.size(); ++k)
        if (want[k] != on_[k]) {
            switch_row(static_cast<int>(k), want[k] != 0);
            on_[k] = want[k];
        }
    active_ = keys;
}

int NodeCuts::known(int64_t tag) const {
    auto it = by_tag_.find(tag);
    return it == by_tag_.end() ? -1 : it->second;
}

int NodeCuts::add(CutRow row) {
    by_tag_[row.tag] = static_cast<int>(rows_.size());
    rows_.push_back(std::move(row));
    inst_.push_back(-1);
    on_.push_back(0);
    local_.push_back(0);
    return static_cast<int>(rows_.size()) - 1;
}

void NodeCuts::activate(int key) {
    const size_t k = static_cast<size_t>(key);
    if (on_[k]) return;
    switch_row(key, true);
    on_[k] = 1;
    active_.push_back(key);
    changed_ = true;
}

void NodeCuts::deactivate(int key) {
    const size_t k = static_cast<size_t>(key);
    if (!on_[k]) return;
    switch_row(key, false);
    on_[k] = 0;
    active_.erase(std::find(active_.begin(), active_.end(), key));
    changed_ = true;
}

int NodeCuts::position(int key) const {
    if (key < 0 || static_cast<size_t>(key) >= on_.size() || !on_[static_cast<size_t>(key)]) return -1;
    return static_cast<int>(std::find(active_.begin(), active_.end(), key) - active_.begin());
}

bool NodeCuts::basic(int key) const {
    const int r = inst_[static_cast<size_t>(key)];
    return r < 0 || rel_->row_basic(r);
}

std::vector<int> NodeCuts::child_keys(const std::vector<int>& extra) {
    std::vector<int> keys = active_;
    auto put = [&](int k) {
        local_[static_cast<size_t>(k)] = 1;
        if (std::find(keys.begin(), keys.end(), k) == keys.end()) keys.push_back(k);
    };
    for (int k : branch_cuts) put(k);
    for (int k : extra) put(k);
    return keys;
}

// Lazy model rows: lazy[i] 1 a delayed row (checked on candidate solutions), 2 a model cut
// (checked on node solutions as well). Rows of the given kinds violated at x are switched on.
int NodeCuts::switch_lazy(const double* x, bool delayed_too) {
    if (lazy_left_ == 0) return 0;
    const HighsModel& m = model_->lp;
    const double tol = set_->feastol;
    int n = 0;
    for (int i = 0; i < m.nrow; ++i) {
        const size_t s = static_cast<size_t>(i);
        const char kind = model_->lazy[s];
        if (!kind || lazy_on_[s] || (kind == 1 && !delayed_too)) continue;
        const HighsInt end = i + 1 < m.nrow ? m.a_start[s + 1] : static_cast<HighsInt>(m.a_index.size());
        double a = 0;
        for (HighsInt k = m.a_start[s]; k < end; ++k)
            a += m.a_value[static_cast<size_t>(k)] * x[m.a_index[static_cast<size_t>(k)]];
        const double lo = m.row_lower[s], up = m.row_upper[s];
        if (a < lo - tol * std::max(1.0, std::fabs(lo)) || a > up + tol * std::max(1.0, std::fabs(up))) {
            rel_->set_row_bounds(i, lo, up);
            lazy_on_[s] = 1;
            --lazy_left_;
            ++n;
        }
    }
    if (n) changed_ = true;
    return n;
}

int NodeCuts::lazy_violated(const double* x) { return switch_lazy(x, true); }

int NodeCuts::separate(const double* x) {
    int n = switch_lazy(x, false);
    if (pool) n += pool(x);
    if (n) changed_ = true;
    return n;
}

}  // namespace search
}  // namespace trvo
