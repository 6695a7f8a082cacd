// The problem store: columns, rows and the row-wise sparse matrix. Appending rows or columns
// costs O(new entries); deleting rows or columns is one compaction pass.
#include "engine/optimizer/problem.h"
#include "engine/optimizer/gencons.h"
#include "engine/optimizer/cuts.h"
#include "engine/optimizer/views.h"

#include <algorithm>
#include <cmath>

namespace trvo {
namespace {

bool valid_rowtype(char t) {
    return t == 'L' || t == 'G' || t == 'E' || t == 'R' || t == 'N';
}

// End of entry list k of n lists given by starts (and optional counts), the last one
// ending at total.
int64_t list_end(const int64_t* start, const int* count, int k, int n, int64_t total) {
    if (count) return start[k] + count[k];
    return k + 1 < n ? start[k + 1] : total;
}

void check_starts(const int64_t* start, const int* count, int n, int64_t total, const char* what) {
    if (total < 0) fail("Negative number of %s entries", what);
    if (total > 0 && !start) fail("No start array for the %s entries", what);
    if (!start) return;
    for (int k = 0; k < n; ++k) {
        int64_t b = start[k], e = list_end(start, count, k, n, total);
        if (b < 0 || e < b || e > total)
            fail("Invalid start or count of %s %d", what, k);
    }
}

// Makes room for n more elements: exactly what one large addition needs, geometric growth for
// repeated small ones (so that a column or row at a time stays O(1) amortised).
template <class V>
void make_room(V& v, size_t n) {
    const size_t need = v.size() + n;
    if (need > v.capacity()) v.reserve(std::max(need, v.capacity() + v.capacity() / 2));
}

}  // namespace

void store_add_cols(TRVOprob p, int ncols, const double* obj, const double* lb,
                    const double* ub) {
    if (ncols < 0) fail("Negative number of columns");
    for (int j = 0; j < ncols; ++j) {
        double l = lb ? lb[j] : 0.0, u = ub ? ub[j] : kInf;
        if (std::isnan(l) || std::isnan(u)) fail("Bound of new column %d is NaN", j);
        if (obj && std::isnan(obj[j])) fail("Objective coefficient of new column %d is NaN", j);
    }
    const size_t n = static_cast<size_t>(ncols);
    make_room(p->lb, n); make_room(p->ub, n); make_room(p->obj, n); make_room(p->limit, n);
    make_room(p->coltype, n);
    for (int j = 0; j < ncols; ++j) {
        p->lb.push_back(lb ? lb[j] : 0.0);
        p->ub.push_back(ub ? ub[j] : kInf);
        p->obj.push_back(obj ? obj[j] : 0.0);
        p->limit.push_back(0.0);
        p->coltype.push_back('C');
    }
    p->colnames.resize(p->lb.size());
    results_invalidate(p);
}

static void check_new_rows(int nrows, const char* type, const double* rhs, const double* range) {
    if (nrows < 0) fail("Negative number of rows");
    if (nrows > 0 && !type) fail("No row types given");
    for (int i = 0; i < nrows; ++i) {
        if (!valid_rowtype(type[i])) fail("Invalid type '%c' of new row %d", type[i], i);
        if (rhs && std::isnan(rhs[i])) fail("Right-hand side of new row %d is NaN", i);
        if (type[i] == 'R' && range && !(range[i] >= 0)) fail("Negative range of new row %d", i);
    }
}

// Appends the rows' types, sides and names (their matrix rows are added by the caller).
static void push_rows(TRVOprob p, int nrows, const char* type, const double* rhs, const double* range) {
    const size_t n = static_cast<size_t>(nrows);
    make_room(p->rowtype, n); make_room(p->rhs, n); make_room(p->range, n);
    for (int i = 0; i < nrows; ++i) {
        p->rowtype.push_back(type[i]);
        p->rhs.push_back(rhs ? rhs[i] : 0.0);
        p->range.push_back(type[i] == 'R' && range ? range[i] : 0.0);
    }
    p->rownames.resize(p->rowtype.size());
    results_invalidate(p);
}

void store_add_rows(TRVOprob p, int nrows, const char* type, const double* rhs,
                    const double* range) {
    check_new_rows(nrows, type, rhs, range);
    push_rows(p, nrows, type, rhs, range);
    p->matrix.add_rows(static_cast<size_t>(nrows));
}

// Appends new rows' matrix entries given row-wise (checked by the caller); the rows' other data
// follow with store_add_rows.
static void append_row_entries(TRVOprob p, int nrows, int64_t ncoefs, const int64_t* mstart,
                               const int* mclind, const double* dmatval) {
    p->matrix.reserve_more(static_cast<size_t>(nrows), mstart ? ncoefs : 0);
    for (int i = 0; i < nrows; ++i) {
        int64_t b = mstart ? mstart[i] : 0, e = mstart ? list_end(mstart, nullptr, i, nrows, ncoefs) : 0;
        p->matrix.append_row(mclind + b, dmatval + b, static_cast<size_t>(e - b));
    }
}

static void check_row_entries(TRVOprob p, int nrows, int64_t ncoefs, const int64_t* mstart,
                              const int* mclind, const double* dmatval) {
    check_starts(mstart, nullptr, nrows, ncoefs, "row");
    if (ncoefs > 0 && (!mclind || !dmatval)) fail("No column indices or coefficients given");
    for (int64_t k = 0; k < ncoefs; ++k) {
        if (mclind[k] < 0 || mclind[k] >= p->ncols())
            fail("Column index %d out of range (0 to %d)", mclind[k], p->ncols() - 1);
        if (!std::isfinite(dmatval[k])) fail("Matrix coefficient %lld is not finite", (long long)k);
    }
}

// Appends matrix entries of new columns c0.. given column-wise (checked by the caller).
static void append_col_entries(TRVOprob p, int c0, int ncols, int64_t ncoefs,
                               const int64_t* mstart, const int* mnel, const int* mrwind,
                               const double* dmatval) {
    if (!mstart) return;
    p->matrix.append_columns(c0, ncols, mstart, mnel, ncoefs, mrwind, dmatval);
}

static void check_col_entries(TRVOprob p, int ncols, int64_t ncoefs, const int64_t* mstart,
                              const int* mnel, const int* mrwind, const double* dmatval) {
    check_starts(mstart, mnel, ncols, ncoefs, "column");
    if (ncoefs > 0 && (!mrwind || !dmatval)) fail("No row indices or coefficients given");
    if (!mstart) return;
    for (int j = 0; j < ncols; ++j) {
        int64_t b = mstart[j], e = list_end(mstart, mnel, j, ncols, ncoefs);
        for (int64_t k = b; k < e; ++k) {
            if (mrwind[k] < 0 || mrwind[k] >= p->nrows())
                fail("Row index %d out of range (0 to %d)", mrwind[k], p->nrows() - 1);
            if (!std::isfinite(dmatval[k]))
                fail("Matrix coefficient %lld is not finite", (long long)k);
        }
    }
}

void load_problem(TRVOprob p, const char* probname, int ncol, int nrow, const char* qrtype,
                  const double* rhs, const double* range, const double* obj,
                  const int64_t* mstart, const int* mnel, const int* mrwind,
                  const double* dmatval, const double* dlb, const double* dub) {
    if (ncol < 0 || nrow < 0) fail("Negative number of rows or columns");
    int64_t ncoefs = 0;
    if (mstart && ncol > 0) {
        if (mnel) {
            for (int j = 0; j < ncol; ++j) ncoefs = std::max<int64_t>(ncoefs, mstart[j] + mnel[j]);
        } else {
            ncoefs = mstart[ncol];
        }
    }
    // Check everything against a scratch problem first, so a failed load changes nothing.
    trvo_problem_s scratch;
    scratch.magic = kProblemMagic;
    store_add_rows(&scratch, nrow, qrtype, rhs, range);
    store_add_cols(&scratch, ncol, obj, dlb, dub);
    if (mstart && !mnel) {
        // Starts with ncol + 1 entries: the last one ends the last column.
        check_col_entries(&scratch, ncol, ncoefs, mstart, nullptr, mrwind, dmatval);
        append_col_entries(&scratch, 0, ncol, ncoefs, mstart, nullptr, mrwind, dmatval);
    } else {
        check_col_entries(&scratch, ncol, ncoefs, mstart, mnel, mrwind, dmatval);
        append_col_entries(&scratch, 0, ncol, ncoefs, mstart, mnel, mrwind, dmatval);
    }
    store_clear(p);
    p->name = probname ? probname : "";
    p->lb.swap(scratch.lb); p->ub.swap(scratch.ub); p->obj.swap(scratch.obj);
    p->limit.swap(scratch.limit); p->coltype.swap(scratch.coltype);
    p->rowtype.swap(scratch.rowtype); p->rhs.swap(scratch.rhs); p->range.swap(scratch.range);
    p->matrix.swap(scratch.matrix);
    p->rownames.resize(static_cast<size_t>(nrow));
    p->colnames.resize(static_cast<size_t>(ncol));
    p->objconst = 0;
    p->mipents = -1;
    results_invalidate(p);
}

// Deletes the marked rows in one pass.
void delete_rows(TRVOprob p, const std::vector<char>& drop) {
    const int m = p->nrows();
    std::vector<int> newidx(static_cast<size_t>(m), -1);
    int out = 0;
    for (int i = 0; i < m; ++i) {
        if (drop[static_cast<size_t>(i)]) continue;
        newidx[static_cast<size_t>(i)] = out;
        if (out != i) {
            p->rowtype[static_cast<size_t>(out)] = p->rowtype[static_cast<size_t>(i)];
            p->rhs[static_cast<size_t>(out)] = p->rhs[static_cast<size_t>(i)];
            p->range[static_cast<size_t>(out)] = p->range[static_cast<size_t>(i)];
        }
        ++out;
    }
    p->rowtype.resize(static_cast<size_t>(out));
    p->rhs.resize(static_cast<size_t>(out));
    p->range.resize(static_cast<size_t>(out));
    p->matrix.remove_rows(drop);
    p->rownames.erase(drop);
    cuts_rows_deleted(p, drop);
    views_rows_deleted(p, drop);
    std::map<int, QMap> qr;
    for (auto& kv : p->qrows)
        if (newidx[static_cast<size_t>(kv.first)] >= 0)
            qr[newidx[static_cast<size_t>(kv.first)]] = std::move(kv.second);
    p->qrows.swap(qr);
    std::map<int, Indicator> ind;
    for (auto& kv : p->indicators)
        if (newidx[static_cast<size_t>(kv.first)] >= 0)
            ind[newidx[static_cast<size_t>(kv.first)]] = kv.second;
    p->indicators.swap(ind);
    results_invalidate(p);
}

// Deletes the marked columns in one pass over every structure that refers to columns.
void delete_cols(TRVOprob p, const std::vector<char>& drop) {
    const int n = p->ncols();
    std::vector<int> newidx(static_cast<size_t>(n), -1);
    int out = 0;
    for (int j = 0; j < n; ++j) {
        if (drop[static_cast<size_t>(j)]) continue;
        newidx[static_cast<size_t>(j)] = out;
        size_t o = static_cast<size_t>(out), s = static_cast<size_t>(j);
        p->lb[o] = p->lb[s]; p->ub[o] = p->ub[s]; p->obj[o] = p->obj[s];
        p->limit[o] = p->limit[s]; p->coltype[o] = p->coltype[s];
        ++out;
    }
    size_t no = static_cast<size_t>(out);
    p->lb.resize(no); p->ub.resize(no); p->obj.resize(no); p->limit.resize(no);
    p->coltype.resize(no);
    p->mipents = -1;
    p->colnames.erase(drop);
    branching_delete_cols(p, newidx);
    cuts_cols_deleted(p, newidx);
    views_cols_deleted(p, newidx);
    p->matrix.remap_columns(newidx);
    auto remap = [&](const QMap& q) {
        QMap r;
        for (const auto& kv : q) {
            int a = newidx[static_cast<size_t>(kv.first.first)];
            int b = newidx[static_cast<size_t>(kv.first.second)];
            if (a >= 0 && b >= 0) r[qkey(a, b)] = kv.second;
        }
        return r;
    };
    p->qobj = remap(p->qobj);
    for (auto it = p->qrows.begin(); it != p->qrows.end();) {
        it->second = remap(it->second);
        if (it->second.empty()) it = p->qrows.erase(it);
        else ++it;
    }
    for (auto& s : p->sets) {
        size_t o = 0;
        for (size_t k = 0; k < s.cols.size(); ++k) {
            int nj = newidx[static_cast<size_t>(s.cols[k])];
            if (nj >= 0) {
                s.cols[o] = nj;
                s.weights[o] = s.weights[k];
                ++o;
            }
        }
        s.cols.resize(o);
        s.weights.resize(o);
    }
    for (auto it = p->indicators.begin(); it != p->indicators.end();) {
        int nj = newidx[static_cast<size_t>(it->second.col)];
        if (nj < 0) {
            it = p->indicators.erase(it);
        } else {
            it->second.col = nj;
            ++it;
        }
    }
    gencons_delete_cols(p, newidx);
    results_invalidate(p);
}

// Deletes the rows when they are the last ones of the problem, in O(their entries) rather
// than a pass over the whole problem; false (nothing done) when they are not.
bool delete_last_rows(TRVOprob p, int count, const int* index) {
    const int m = p->nrows();
    if (count <= 0 || !index || count > m) return false;
    const int first = m - count;
    std::vector<char> seen(static_cast<size_t>(count), 0);
    for (int k = 0; k < count; ++k) {
        int i = index[k];
        if (i < first || i >= m || seen[static_cast<size_t>(i - first)]) return false;
        seen[static_cast<size_t>(i - first)] = 1;
    }
    const size_t f = static_cast<size_t>(first);
    p->rowtype.resize(f);
    p->rhs.resize(f);
    p->range.resize(f);
    p->matrix.truncate(f);
    p->rownames.truncate(f);
    p->qrows.erase(p->qrows.lower_bound(first), p->qrows.end());
    p->indicators.erase(p->indicators.lower_bound(first), p->indicators.end());
    results_invalidate(p);
    return true;
}

std::vector<char> marks(int n, int count, const int* index, const char* what) {
    if (count < 0) fail("Negative number of %s", what);
    if (count > 0 && !index) fail("No %s indices given", what);
    std::vector<char> drop(static_cast<size_t>(n), 0);
    for (int k = 0; k < count; ++k) {
        if (index[k] < 0 || index[k] >= n)
            fail("Index %d of %s out of range (0 to %d)", index[k], what, n - 1);
        drop[static_cast<size_t>(index[k])] = 1;
    }
    return drop;
}

void set_coef(TRVOprob p, int i, int j, double v) {
    check_row(p, i);
    check_col(p, j);
    if (!std::isfinite(v)) fail("Coefficient is not finite");
    p->matrix.set(static_cast<size_t>(i), j, v);
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOloadlp(TRVOprob prob, const char* probname, int ncol, int nrow, const char qrtype[],
               const double rhs[], const double range[], const double obj[], const int mstart[],
               const int mnel[], const int mrwind[], const double dmatval[], const double dlb[],
               const double dub[]) {
    return guard(prob, [&] {
        std::vector<int64_t> starts;
        if (mstart && ncol > 0) starts.assign(mstart, mstart + ncol + (mnel ? 0 : 1));
        load_problem(prob, probname, ncol, nrow, qrtype, rhs, range, obj,
                     starts.empty() ? nullptr : starts.data(), mnel, mrwind, dmatval, dlb, dub);
    });
}

int TRVOloadlp64(TRVOprob prob, const char* probname, int ncol, int nrow, const char qrtype[],
                 const double rhs[], const double range[], const double obj[],
                 const int64_t mstart[], const int mnel[], const int mrwind[],
                 const double dmatval[], const double dlb[], const double dub[]) {
    return guard(prob, [&] {
        load_problem(prob, probname, ncol, nrow, qrtype, rhs, range, obj, mstart, mnel, mrwind,
                     dmatval, dlb, dub);
    });
}

int TRVOaddcols64(TRVOprob prob, int ncols, int64_t ncoefs, const double objx[],
                  const int64_t mstart[], const int mrwind[], const double dmatval[],
                  const double bdl[], const double bdu[]) {
    return guard(prob, [&] {
        if (ncols < 0) fail("Negative number of columns");
        if (ncoefs > 0 && !mstart) fail("No column starts given");
        check_col_entries(prob, ncols, ncoefs, ncoefs > 0 ? mstart : nullptr, nullptr, mrwind,
                          dmatval);
        int c0 = prob->ncols();
        store_add_cols(prob, ncols, objx, bdl, bdu);
        if (ncoefs > 0)
            append_col_entries(prob, c0, ncols, ncoefs, mstart, nullptr, mrwind, dmatval);
    });
}

int TRVOaddrows64(TRVOprob prob, int nrows, int64_t ncoefs, const char qrtype[],
                  const double rhs[], const double range[], const int64_t mstart[],
                  const int mclind[], const double dmatval[]) {
    return guard(prob, [&] {
        if (nrows < 0) fail("Negative number of rows");
        check_row_entries(prob, nrows, ncoefs, ncoefs > 0 ? mstart : nullptr, mclind, dmatval);
        check_new_rows(nrows, qrtype, rhs, range);
        append_row_entries(prob, nrows, ncoefs, ncoefs > 0 ? mstart : nullptr, mclind, dmatval);
        push_rows(prob, nrows, qrtype, rhs, range);
    });
}

int TRVOdelrows(TRVOprob prob, int nrows, const int mindex[]) {
    return guard(prob, [&] {
        if (!delete_last_rows(prob, nrows, mindex))
            delete_rows(prob, marks(prob->nrows(), nrows, mindex, "rows"));
    });
}

int TRVOdelcols(TRVOprob prob, int ncols, const int mindex[]) {
    return guard(prob, [&] { delete_cols(prob, marks(prob->ncols(), ncols, mindex, "columns")); });
}

int TRVOchgcoef(TRVOprob prob, int irow, int icol, double dval) {
    return guard(prob, [&] { set_coef(prob, irow, icol, dval); });
}

int TRVOchgmcoef(TRVOprob prob, int ncoefs, const int mrow[], const int mcol[],
                 const double dval[]) {
    return guard(prob, [&] {
        if (ncoefs < 0) fail("Negative number of coefficients");
        if (ncoefs > 0 && (!mrow || !mcol || !dval)) fail("Missing arrays of coefficients");
        for (int k = 0; k < ncoefs; ++k) {
            check_row(prob, mrow[k]);
            check_col(prob, mcol[k]);
            if (!std::isfinite(dval[k])) fail("Coefficient %d is not finite", k);
        }
        for (int k = 0; k < ncoefs; ++k) set_coef(prob, mrow[k], mcol[k], dval[k]);
    });
}

int TRVOchgrhs(TRVOprob prob, int nrows, const int mindex[], const double rhs[]) {
    return guard(prob, [&] {
        if (nrows > 0 && (!mindex || !rhs)) fail("Missing arrays");
        for (int k = 0; k < nrows; ++k) {
            check_row(prob, mindex[k]);
            if (std::isnan(rhs[k])) fail("Right-hand side %d is NaN", k);
        }
        for (int k = 0; k < nrows; ++k) prob->rhs[static_cast<size_t>(mindex[k])] = rhs[k];
    });
}

int TRVOchgrhsrange(TRVOprob prob, int nrows, const int mindex[], const double rng[]) {
    return guard(prob, [&] {
        if (nrows > 0 && (!mindex || !rng)) fail("Missing arrays");
        for (int k = 0; k < nrows; ++k) {
            check_row(prob, mindex[k]);
            if (!(rng[k] >= 0)) fail("Range %d is negative", k);
        }
        // A range makes the row a ranged row rhs - range <= row <= rhs.
        for (int k = 0; k < nrows; ++k) {
            size_t i = static_cast<size_t>(mindex[k]);
            char t = prob->rowtype[i];
            if (t == 'N') continue;
            if (t == 'G') prob->rhs[i] += rng[k];
            prob->rowtype[i] = 'R';
            prob->range[i] = rng[k];
        }
    });
}

int TRVOchgrowtype(TRVOprob prob, int nrows, const int mindex[], const char qrtype[]) {
    return guard(prob, [&] {
        if (nrows > 0 && (!mindex || !qrtype)) fail("Missing arrays");
        for (int k = 0; k < nrows; ++k) {
            check_row(prob, mindex[k]);
            if (!valid_rowtype(qrtype[k])) fail("Invalid row type '%c'", qrtype[k]);
        }
        for (int k = 0; k < nrows; ++k) {
            size_t i = static_cast<size_t>(mindex[k]);
            prob->rowtype[i] = qrtype[k];
            if (qrtype[k] != 'R') prob->range[i] = 0;
        }
    });
}

int TRVOchgobj(TRVOprob prob, int ncols, const int mindex[], const double obj[]) {
    return guard(prob, [&] {
        if (ncols > 0 && (!mindex || !obj)) fail("Missing arrays");
        for (int k = 0; k < ncols; ++k) {
            if (mindex[k] != -1) check_col(prob, mindex[k]);
            if (!std::isfinite(obj[k])) fail("Objective coefficient %d is not finite", k);
        }
        for (int k = 0; k < ncols; ++k) {
            if (mindex[k] == -1) prob->objconst = -obj[k];
            else prob->obj[static_cast<size_t>(mindex[k])] = obj[k];
        }
    });
}

int TRVOchgobjsense(TRVOprob prob, int objsense) {
    return guard(prob, [&] {
        if (objsense != 1 && objsense != -1) fail("Objective sense must be 1 or -1");
        prob->objsense = objsense;
    });
}

int TRVOchgbounds(TRVOprob prob, int nbounds, const int mindex[], const char qbtype[],
                  const double bnd[]) {
    return guard(prob, [&] {
        if (nbounds > 0 && (!mindex || !qbtype || !bnd)) fail("Missing arrays");
        for (int k = 0; k < nbounds; ++k) {
            check_col(prob, mindex[k]);
            char t = qbtype[k];
            if (t != 'L' && t != 'U' && t != 'B') fail("Invalid bound type '%c'", t);
            if (std::isnan(bnd[k])) fail("Bound %d is NaN", k);
        }
        for (int k = 0; k < nbounds; ++k) {
            size_t j = static_cast<size_t>(mindex[k]);
            if (qbtype[k] != 'U') prob->lb[j] = bnd[k];
            if (qbtype[k] != 'L') prob->ub[j] = bnd[k];
        }
    });
}

}  // extern "C"
