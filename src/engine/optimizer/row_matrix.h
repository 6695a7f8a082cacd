// The problem's constraint matrix by rows, in compressed sparse row arrays.
//
// Each row is a slice [start, start + len) of two shared arrays (column indices int32, values
// double: 12 bytes an entry, no padding), sorted by column, without zeros; cap >= len slots
// belong to the row. Appending rows or columns costs O(new entries). A row that outgrows its
// slots is moved to the end of the arrays with room to grow; the slots it leaves are garbage,
// compacted away once there is more garbage than live entries. Deletions are one compaction
// pass. When the arrays are packed (rows in order, no gaps), the whole matrix can be handed to
// HiGHS as it stands (starts(), cols(), values()).
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <utility>
#include <vector>

namespace trvo {

class RowMatrix {
public:
    using Entry = std::pair<int, double>;

    // A read-only view of one row; invalidated by any change of the matrix.
    class Row {
    public:
        class iterator {
        public:
            using iterator_category = std::input_iterator_tag;
            using value_type = Entry;
            using difference_type = std::ptrdiff_t;
            using pointer = void;
            using reference = Entry;
            iterator(const int* c, const double* v) : c_(c), v_(v) {}
            Entry operator*() const { return Entry(*c_, *v_); }
            iterator& operator++() { ++c_; ++v_; return *this; }
            iterator operator++(int) { iterator t = *this; ++*this; return t; }
            bool operator==(const iterator& o) const { return c_ == o.c_; }
            bool operator!=(const iterator& o) const { return c_ != o.c_; }
        private:
            const int* c_;
            const double* v_;
        };
        Row(const int* c, const double* v, int n) : c_(c), v_(v), n_(n) {}
        size_t size() const { return static_cast<size_t>(n_); }
        bool empty() const { return n_ == 0; }
        iterator begin() const { return iterator(c_, v_); }
        iterator end() const { return iterator(c_ + n_, v_ + n_); }
        Entry operator[](size_t k) const { return Entry(c_[k], v_[k]); }
        const int* cols() const { return c_; }
        const double* values() const { return v_; }
        std::vector<Entry> entries() const { return std::vector<Entry>(begin(), end()); }
        // The coefficient of column j (0 when the row has none).
        double coef(int j) const;
    private:
        const int* c_;
        const double* v_;
        int n_;
    };

    size_t size() const { return len_.size(); }  // number of rows
    int64_t nnz() const { return nnz_; }
    Row operator[](size_t i) const {
        int64_t s = start_[i];
        return Row(idx_.data() + s, val_.data() + s, len_[i]);
    }
    Row row(int i) const { return (*this)[static_cast<size_t>(i)]; }

    void clear();
    void swap(RowMatrix& o);
    // Appends count empty rows.
    void add_rows(size_t count);
    // Makes room for rows more rows holding entries more entries (exactly, for one large
    // addition; geometrically, for repeated small ones).
    void reserve_more(size_t rows, int64_t entries);
    // Appends one row; its entries may come in any order, repeated columns are summed and
    // zeros dropped.
    void append_row(const int* cols, const double* vals, size_t n);
    // Appends entries of new columns to existing rows, column by column: entry k of column
    // first + j is (rows[k], vals[k]) for k in [start[j], end(j)); repeated rows within a column
    // are summed and zeros dropped. Columns must be greater than every column already stored.
    void append_columns(int first, int ncols, const int64_t* start, const int* count,
                        int64_t total, const int* rows, const double* vals);
    // Replaces the content by nrows rows in CSR arrays taken over without a copy: row i holds
    // entries [starts[i], starts[i + 1]) (the last row ends at cols.size()); rows need not be
    // sorted. Returns false, changing nothing, when the starts are not valid.
    bool adopt(size_t nrows, const int* starts, std::vector<int>&& cols, std::vector<double>&& vals);
    // Sets one coefficient (0 removes it).
    void set(size_t i, int j, double v);
    // Removes the marked rows (drop[i] != 0), keeping the order of the others.
    void remove_rows(const std::vector<char>& drop);
    // Keeps the first n rows.
    void truncate(size_t n);
    // Renumbers columns (newidx[j] < 0: the column is deleted); the new numbering must keep
    // the order of the columns kept.
    void remap_columns(const std::vector<int>& newidx);

    // Whether the rows' entries lie in row order back to back from the arrays' start, so that
    // cols() and values() with the starts of row_starts() are the matrix in CSR form.
    bool packed() const {
        return in_order_ && static_cast<int64_t>(idx_.size()) == used_ && used_ == nnz_;
    }
    // Packs the arrays (a no-op when they are packed).
    void pack();
    // Start of each row's entries when packed (prefix sums of the row lengths).
    std::vector<int> row_starts() const;
    const int* cols() const { return idx_.data(); }
    const double* values() const { return val_.data(); }
    // Heap bytes held (capacities), for memory figures.
    size_t bytes() const;

private:
    std::vector<int64_t> start_;
    std::vector<int> len_, cap_;
    std::vector<int> idx_;
    std::vector<double> val_;
    int64_t nnz_ = 0;
    int64_t used_ = 0;       // sum of cap_: slots owned by rows; the rest of idx_ is garbage
    bool in_order_ = true;   // rows owning slots lie in the arrays in row order (gaps allowed)
    int64_t last_slotted_ = -1;  // the last row owning slots (cap > 0), -1 when none

    // Makes room for need entries in row i, moving it to the end when it must grow.
    void reserve_row(size_t i, int64_t need);
    // Appends n slots to the arrays, growing their capacity geometrically.
    int64_t grow_arrays(int64_t n);
    // Drops zeros and merges repeated columns of the slice [s, s + n), sorting it unless it
    // is ordered already; returns the new length.
    static int canonical(int* c, double* v, int n);
    void compact_if_wasteful();
    void find_last_slotted();
    // Copies the rows in order into fresh arrays, each with room for extra[i] more entries
    // (none when extra is null).
    void relayout(const std::vector<int>* extra);
};

}  // namespace trvo
