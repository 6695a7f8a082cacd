// The row-wise matrix store (row_matrix.h).
#include "engine/optimizer/row_matrix.h"

#include <algorithm>
#include <cstring>

namespace trvo {

double RowMatrix::Row::coef(int j) const {
    const int* p = std::lower_bound(c_, c_ + n_, j);
    return p != c_ + n_ && *p == j ? v_[p - c_] : 0.0;
}

void RowMatrix::clear() { *this = RowMatrix(); }

void RowMatrix::swap(RowMatrix& o) {
    start_.swap(o.start_);
    len_.swap(o.len_);
    cap_.swap(o.cap_);
    idx_.swap(o.idx_);
    val_.swap(o.val_);
    std::swap(nnz_, o.nnz_);
    std::swap(used_, o.used_);
    std::swap(in_order_, o.in_order_);
    std::swap(last_slotted_, o.last_slotted_);
}

size_t RowMatrix::bytes() const {
    return start_.capacity() * sizeof(int64_t) + (len_.capacity() + cap_.capacity()) * sizeof(int) +
           idx_.capacity() * sizeof(int) + val_.capacity() * sizeof(double);
}

int64_t RowMatrix::grow_arrays(int64_t n) {
    const size_t s = idx_.size(), need = s + static_cast<size_t>(n);
    if (need > idx_.capacity()) {
        // Geometric growth keeps appending one row at a time O(1) amortised; one large append
        // to an empty matrix takes exactly what it needs.
        size_t c = std::max(need, idx_.capacity() + idx_.capacity() / 2);
        idx_.reserve(c);
        val_.reserve(c);
    }
    idx_.resize(need);
    val_.resize(need);
    return static_cast<int64_t>(s);
}

void RowMatrix::reserve_more(size_t rows, int64_t entries) {
    const size_t need = size() + rows;
    if (need > start_.capacity()) {
        const size_t c = std::max(need, start_.capacity() + start_.capacity() / 2);
        start_.reserve(c);
        len_.reserve(c);
        cap_.reserve(c);
    }
    const size_t e = idx_.size() + static_cast<size_t>(entries);
    if (e > idx_.capacity()) {
        const size_t c = std::max(e, idx_.capacity() + idx_.capacity() / 2);
        idx_.reserve(c);
        val_.reserve(c);
    }
}

void RowMatrix::add_rows(size_t count) {
    const int64_t s = static_cast<int64_t>(idx_.size());
    reserve_more(count, 0);
    start_.insert(start_.end(), count, s);
    len_.insert(len_.end(), count, 0);
    cap_.insert(cap_.end(), count, 0);
}

int RowMatrix::canonical(int* c, double* v, int n) {
    bool plain = true;
    for (int k = 0; plain && k < n; ++k) plain = v[k] != 0.0 && (k == 0 || c[k - 1] < c[k]);
    if (plain) return n;
    std::vector<Entry> t(static_cast<size_t>(n));
    for (int k = 0; k < n; ++k) t[static_cast<size_t>(k)] = Entry(c[k], v[k]);
    std::sort(t.begin(), t.end(), [](const Entry& a, const Entry& b) { return a.first < b.first; });
    int out = 0;
    for (size_t k = 0; k < t.size();) {
        int col = t[k].first;
        double sum = 0;
        for (; k < t.size() && t[k].first == col; ++k) sum += t[k].second;
        if (sum != 0.0) {
            c[out] = col;
            v[out] = sum;
            ++out;
        }
    }
    return out;
}

void RowMatrix::append_row(const int* cols, const double* vals, size_t n) {
    const int64_t s = static_cast<int64_t>(idx_.size());
    if (n) {
        reserve_more(0, static_cast<int64_t>(n));
        idx_.insert(idx_.end(), cols, cols + n);
        val_.insert(val_.end(), vals, vals + n);
    }
    int len = canonical(idx_.data() + s, val_.data() + s, static_cast<int>(n));
    if (static_cast<size_t>(len) < n) {
        idx_.resize(static_cast<size_t>(s + len));
        val_.resize(static_cast<size_t>(s + len));
    }
    start_.push_back(s);
    len_.push_back(len);
    cap_.push_back(len);
    used_ += len;
    nnz_ += len;
    if (len > 0) last_slotted_ = static_cast<int64_t>(size()) - 1;
}

bool RowMatrix::adopt(size_t nrows, const int* starts, std::vector<int>&& cols, std::vector<double>&& vals) {
    const int64_t total = static_cast<int64_t>(cols.size());
    if (vals.size() != cols.size()) return false;
    for (size_t i = 0; i < nrows; ++i) {
        const int64_t b = starts[i], e = i + 1 < nrows ? starts[i + 1] : total;
        if (b < 0 || e < b || e > total || (i == 0 && b != 0)) return false;
    }
    if (nrows == 0 && total != 0) return false;
    RowMatrix m;
    m.idx_.swap(cols);
    m.val_.swap(vals);
    m.start_.resize(nrows);
    m.len_.resize(nrows);
    m.cap_.resize(nrows);
    for (size_t i = 0; i < nrows; ++i) {
        const int64_t b = starts[i], e = i + 1 < nrows ? starts[i + 1] : total;
        m.start_[i] = b;
        m.cap_[i] = static_cast<int>(e - b);
        m.len_[i] = canonical(m.idx_.data() + b, m.val_.data() + b, m.cap_[i]);
        m.nnz_ += m.len_[i];
    }
    m.used_ = total;
    m.find_last_slotted();
    m.pack();
    swap(m);
    return true;
}

void RowMatrix::reserve_row(size_t i, int64_t need) {
    if (need <= cap_[i]) return;
    const int64_t ri = static_cast<int64_t>(i);
    if (cap_[i] > 0 && start_[i] + cap_[i] == static_cast<int64_t>(idx_.size())) {
        // The row ends the arrays: it grows in place.
        grow_arrays(need - cap_[i]);
        used_ += need - cap_[i];
        cap_[i] = static_cast<int>(need);
        return;
    }
    if (static_cast<int64_t>(idx_.size()) - used_ + cap_[i] > std::max<int64_t>(nnz_, 4096)) {
        pack();
        if (cap_[i] > 0 && start_[i] + cap_[i] == static_cast<int64_t>(idx_.size())) {
            reserve_row(i, need);
            return;
        }
    }
    if (ri < last_slotted_) in_order_ = false;
    if (cap_[i] == 0) {
        // A row without slots takes exactly what it needs at the end; rows filled in order
        // this way stay packed.
        const int64_t s = grow_arrays(need);
        used_ += need;
        start_[i] = s;
        cap_[i] = static_cast<int>(need);
        last_slotted_ = std::max(last_slotted_, ri);
        return;
    }
    // Move the row to the end with room to grow, so that a row growing one entry at a time
    // moves O(log) times.
    const int64_t cap = std::max<int64_t>(need + need / 2, 4);
    const int64_t s = grow_arrays(cap);
    const int64_t old = start_[i];
    std::memcpy(idx_.data() + s, idx_.data() + old, static_cast<size_t>(len_[i]) * sizeof(int));
    std::memcpy(val_.data() + s, val_.data() + old, static_cast<size_t>(len_[i]) * sizeof(double));
    used_ += cap - cap_[i];
    start_[i] = s;
    cap_[i] = static_cast<int>(cap);
    last_slotted_ = std::max(last_slotted_, ri);
}

void RowMatrix::append_columns(int first, int ncols, const int64_t* start, const int* count,
                               int64_t total, const int* rows, const double* vals) {
    auto end_of = [&](int j) {
        if (count) return start[j] + count[j];
        return j + 1 < ncols ? start[j + 1] : total;
    };
    const size_t m = size();
    if (total > 1024 && total * 4 > nnz_) {
        // Many new entries: lay the rows out again in order, each with room for its new
        // entries, instead of moving rows one by one.
        std::vector<int> add(m, 0);
        for (int j = 0; j < ncols; ++j)
            for (int64_t k = start[j], e = end_of(j); k < e; ++k)
                if (vals[k] != 0.0) ++add[static_cast<size_t>(rows[k])];
        relayout(&add);
    }
    for (int j = 0; j < ncols; ++j) {
        const int col = first + j;
        const int64_t b = start[j], e = end_of(j);
        for (int64_t k = b; k < e; ++k) {
            if (vals[k] == 0.0) continue;
            const size_t r = static_cast<size_t>(rows[k]);
            const int n = len_[r];
            if (n > 0 && idx_[static_cast<size_t>(start_[r] + n - 1)] == col) {
                val_[static_cast<size_t>(start_[r] + n - 1)] += vals[k];
                continue;
            }
            reserve_row(r, n + 1);
            idx_[static_cast<size_t>(start_[r] + n)] = col;
            val_[static_cast<size_t>(start_[r] + n)] = vals[k];
            ++len_[r];
            ++nnz_;
        }
        // Repeated entries that summed to zero leave the row (while they are its last).
        for (int64_t k = b; k < e; ++k) {
            const size_t r = static_cast<size_t>(rows[k]);
            const int n = len_[r];
            if (n > 0 && idx_[static_cast<size_t>(start_[r] + n - 1)] == col &&
                val_[static_cast<size_t>(start_[r] + n - 1)] == 0.0) {
                --len_[r];
                --nnz_;
            }
        }
    }
    if (used_ != nnz_ && in_order_) pack();  // holes left by the layout above: one pass in place
}

void RowMatrix::set(size_t i, int j, double v) {
    int64_t s = start_[i];
    const int n = len_[i];
    const int* c = idx_.data() + s;
    const int pos = static_cast<int>(std::lower_bound(c, c + n, j) - c);
    const bool found = pos < n && c[pos] == j;
    if (v == 0.0) {
        if (!found) return;
        std::memmove(idx_.data() + s + pos, idx_.data() + s + pos + 1, static_cast<size_t>(n - pos - 1) * sizeof(int));
        std::memmove(val_.data() + s + pos, val_.data() + s + pos + 1, static_cast<size_t>(n - pos - 1) * sizeof(double));
        --len_[i];
        --nnz_;
        return;
    }
    if (found) {
        val_[static_cast<size_t>(s + pos)] = v;
        return;
    }
    reserve_row(i, n + 1);
    s = start_[i];
    std::memmove(idx_.data() + s + pos + 1, idx_.data() + s + pos, static_cast<size_t>(n - pos) * sizeof(int));
    std::memmove(val_.data() + s + pos + 1, val_.data() + s + pos, static_cast<size_t>(n - pos) * sizeof(double));
    idx_[static_cast<size_t>(s + pos)] = j;
    val_[static_cast<size_t>(s + pos)] = v;
    ++len_[i];
    ++nnz_;
}

void RowMatrix::pack() {
    if (packed()) return;
    const size_t m = size();
    if (in_order_) {
        // Rows lie in order: slide each one down over the gaps before it.
        int64_t w = 0;
        for (size_t i = 0; i < m; ++i) {
            const int64_t s = start_[i];
            const size_t n = static_cast<size_t>(len_[i]);
            if (s != w && n) {
                std::memmove(idx_.data() + w, idx_.data() + s, n * sizeof(int));
                std::memmove(val_.data() + w, val_.data() + s, n * sizeof(double));
            }
            start_[i] = w;
            cap_[i] = len_[i];
            w += len_[i];
        }
        idx_.resize(static_cast<size_t>(w));
        val_.resize(static_cast<size_t>(w));
        used_ = nnz_;
        in_order_ = true;
        find_last_slotted();
    } else {
        relayout(nullptr);
    }
}

void RowMatrix::relayout(const std::vector<int>* extra) {
    const size_t m = size();
    int64_t room = nnz_;
    if (extra)
        for (int a : *extra) room += a;
    std::vector<int> idx(static_cast<size_t>(room));
    std::vector<double> val(static_cast<size_t>(room));
    int64_t w = 0;
    for (size_t i = 0; i < m; ++i) {
        const size_t n = static_cast<size_t>(len_[i]);
        if (n) {
            std::memcpy(idx.data() + w, idx_.data() + start_[i], n * sizeof(int));
            std::memcpy(val.data() + w, val_.data() + start_[i], n * sizeof(double));
        }
        start_[i] = w;
        cap_[i] = len_[i] + (extra ? (*extra)[i] : 0);
        w += cap_[i];
    }
    idx_.swap(idx);
    val_.swap(val);
    used_ = w;
    in_order_ = true;
    find_last_slotted();
}

void RowMatrix::find_last_slotted() {
    last_slotted_ = static_cast<int64_t>(size()) - 1;
    while (last_slotted_ >= 0 && cap_[static_cast<size_t>(last_slotted_)] == 0) --last_slotted_;
}

std::vector<int> RowMatrix::row_starts() const {
    std::vector<int> s(size());
    int64_t w = 0;
    for (size_t i = 0; i < size(); ++i) {
        s[i] = static_cast<int>(w);
        w += len_[i];
    }
    return s;
}

void RowMatrix::remove_rows(const std::vector<char>& drop) {
    pack();
    const size_t m = size();
    size_t out = 0;
    int64_t w = 0;
    for (size_t i = 0; i < m; ++i) {
        if (drop[i]) continue;
        const int64_t s = start_[i];
        const size_t n = static_cast<size_t>(len_[i]);
        if (s != w && n) {
            std::memmove(idx_.data() + w, idx_.data() + s, n * sizeof(int));
            std::memmove(val_.data() + w, val_.data() + s, n * sizeof(double));
        }
        start_[out] = w;
        len_[out] = cap_[out] = len_[i];
        w += len_[i];
        ++out;
    }
    start_.resize(out);
    len_.resize(out);
    cap_.resize(out);
    idx_.resize(static_cast<size_t>(w));
    val_.resize(static_cast<size_t>(w));
    nnz_ = used_ = w;
    find_last_slotted();
}

void RowMatrix::truncate(size_t n) {
    if (n >= size()) return;
    for (size_t i = n; i < size(); ++i) {
        nnz_ -= len_[i];
        used_ -= cap_[i];
    }
    start_.resize(n);
    len_.resize(n);
    cap_.resize(n);
    find_last_slotted();
    if (in_order_) {
        // The rows left end where the last one owning slots ends.
        const size_t e = last_slotted_ >= 0 ? static_cast<size_t>(start_[static_cast<size_t>(last_slotted_)] +
                                                                  cap_[static_cast<size_t>(last_slotted_)])
                                            : 0;
        idx_.resize(e);
        val_.resize(e);
    } else {
        compact_if_wasteful();
    }
}

void RowMatrix::remap_columns(const std::vector<int>& newidx) {
    pack();
    int64_t w = 0;
    for (size_t i = 0; i < size(); ++i) {
        const int64_t s = start_[i], e = s + len_[i];
        start_[i] = w;
        for (int64_t k = s; k < e; ++k) {
            const int nj = newidx[static_cast<size_t>(idx_[static_cast<size_t>(k)])];
            if (nj < 0) continue;
            idx_[static_cast<size_t>(w)] = nj;
            val_[static_cast<size_t>(w)] = val_[static_cast<size_t>(k)];
            ++w;
        }
        len_[i] = cap_[i] = static_cast<int>(w - start_[i]);
    }
    idx_.resize(static_cast<size_t>(w));
    val_.resize(static_cast<size_t>(w));
    nnz_ = used_ = w;
    find_last_slotted();
}

void RowMatrix::compact_if_wasteful() {
    if (static_cast<int64_t>(idx_.size()) - used_ > std::max<int64_t>(nnz_, 4096)) pack();
}

}  // namespace trvo
