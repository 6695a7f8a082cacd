// Reading the problem back: bounds, types, objective, right-hand sides, the matrix by rows or
// columns, and the solution vectors of the last solve.
#include "engine/optimizer/problem.h"

#include <algorithm>
#include <cstring>

namespace trvo {
namespace {

template <class T>
void copy_range(const std::vector<T>& v, T* out, int first, int last, const char* what) {
    if (first > last) return;
    check_range(first, last, static_cast<int>(v.size()), what);
    if (!out) fail("No output array given");
    std::copy(v.begin() + first, v.begin() + last + 1, out);
}

}  // namespace
}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOgetlb(TRVOprob prob, double lb[], int first, int last) {
    return guard(prob, [&] { copy_range(prob->lb, lb, first, last, "columns"); });
}

int TRVOgetub(TRVOprob prob, double ub[], int first, int last) {
    return guard(prob, [&] { copy_range(prob->ub, ub, first, last, "columns"); });
}

int TRVOgetcoltype(TRVOprob prob, char coltype[], int first, int last) {
    return guard(prob, [&] { copy_range(prob->coltype, coltype, first, last, "columns"); });
}

int TRVOgetobj(TRVOprob prob, double obj[], int first, int last) {
    return guard(prob, [&] {
        // Column -1 is the objective constant, reported negated as it was set.
        if (first == -1 && last >= -1) {
            if (!obj) fail("No output array given");
            obj[0] = -prob->objconst;
            if (last >= 0) copy_range(prob->obj, obj + 1, 0, last, "columns");
            return;
        }
        copy_range(prob->obj, obj, first, last, "columns");
    });
}

int TRVOgetrhs(TRVOprob prob, double rhs[], int first, int last) {
    return guard(prob, [&] { copy_range(prob->rhs, rhs, first, last, "rows"); });
}

int TRVOgetrhsrange(TRVOprob prob, double range[], int first, int last) {
    return guard(prob, [&] {
        copy_range(prob->range, range, first, last, "rows");
        // Rows other than ranged rows have an infinite range, except equalities (0).
        for (int i = first; i <= last; ++i) {
            char t = prob->rowtype[static_cast<size_t>(i)];
            if (t == 'L' || t == 'G' || t == 'N') range[i - first] = kInf;
            else if (t == 'E') range[i - first] = 0;
        }
    });
}

int TRVOgetrowtype(TRVOprob prob, char qrtype[], int first, int last) {
    return guard(prob, [&] { copy_range(prob->rowtype, qrtype, first, last, "rows"); });
}

int TRVOgetcoef(TRVOprob prob, int irow, int icol, double* dval) {
    return guard(prob, [&] {
        check_row(prob, irow);
        check_col(prob, icol);
        if (!dval) fail("No output argument given");
        *dval = prob->matrix.row(irow).coef(icol);
    });
}

int TRVOgetrows64(TRVOprob prob, int64_t mstart[], int mclind[], double dmatval[], int64_t size,
                  int64_t* nels, int first, int last) {
    return guard(prob, [&] {
        if (first > last) {
            if (nels) *nels = 0;
            if (mstart) mstart[0] = 0;
            return;
        }
        check_range(first, last, prob->nrows(), "rows");
        int64_t k = 0;
        for (int i = first; i <= last; ++i) {
            if (mstart) mstart[i - first] = std::min(k, size);
            for (const auto& e : prob->matrix[static_cast<size_t>(i)]) {
                if (k < size) {
                    if (mclind) mclind[k] = e.first;
                    if (dmatval) dmatval[k] = e.second;
                }
                ++k;
            }
        }
        if (mstart) mstart[last - first + 1] = std::min(k, size);
        if (nels) *nels = k;
    });
}

int TRVOgetcols64(TRVOprob prob, int64_t mstart[], int mrwind[], double dmatval[], int64_t size,
                  int64_t* nels, int first, int last) {
    return guard(prob, [&] {
        if (first > last) {
            if (nels) *nels = 0;
            if (mstart) mstart[0] = 0;
            return;
        }
        check_range(first, last, prob->ncols(), "columns");
        int ncol = last - first + 1;
        // Count, then place: one pass over the rows each.
        std::vector<int64_t> cnt(static_cast<size_t>(ncol) + 1, 0);
        for (size_t i = 0; i < prob->matrix.size(); ++i)
            for (const auto& e : prob->matrix[i])
                if (e.first >= first && e.first <= last) ++cnt[static_cast<size_t>(e.first - first) + 1];
        for (int c = 0; c < ncol; ++c) cnt[static_cast<size_t>(c) + 1] += cnt[static_cast<size_t>(c)];
        int64_t total = cnt[static_cast<size_t>(ncol)];
        if (nels) *nels = total;
        if (mstart)
            for (int c = 0; c <= ncol; ++c) mstart[c] = std::min(cnt[static_cast<size_t>(c)], size);
        if ((!mrwind && !dmatval) || size <= 0) return;
        std::vector<int64_t> pos(cnt.begin(), cnt.end() - 1);
        for (int i = 0; i < prob->nrows(); ++i)
            for (const auto& e : prob->matrix[static_cast<size_t>(i)]) {
                if (e.first < first || e.first > last) continue;
                int64_t k = pos[static_cast<size_t>(e.first - first)]++;
                if (k >= size) continue;
                if (mrwind) mrwind[k] = i;
                if (dmatval) dmatval[k] = e.second;
            }
    });
}

int TRVOgetlpsol(TRVOprob prob, double x[], double slack[], double dual[], double dj[]) {
    return guard(prob, [&] {
        const auto& r = prob->results;
        if (!r.have_lp) fail("No LP solution available");
        if ((dual || dj) && !r.have_duals) fail("No dual solution available");
        if (x) std::copy(r.x.begin(), r.x.end(), x);
        if (slack) std::copy(r.slack.begin(), r.slack.end(), slack);
        if (dual) std::copy(r.dual.begin(), r.dual.end(), dual);
        if (dj) std::copy(r.dj.begin(), r.dj.end(), dj);
    });
}

int TRVOgetmipsol(TRVOprob prob, double x[], double slack[]) {
    return guard(prob, [&] {
        const auto& r = prob->results;
        if (!r.have_mip) fail("No integer solution available");
        if (x) std::copy(r.mipx.begin(), r.mipx.end(), x);
        if (slack) std::copy(r.mipslack.begin(), r.mipslack.end(), slack);
    });
}

int TRVOgetlpsolval(TRVOprob prob, int col, int row, double* x, double* slack, double* dual,
                    double* dj) {
    return guard(prob, [&] {
        const auto& r = prob->results;
        if (!r.have_lp) fail("No LP solution available");
        if (col >= 0) {
            check_col(prob, col);
            if (x) *x = r.x[static_cast<size_t>(col)];
            if (dj) *dj = r.have_duals ? r.dj[static_cast<size_t>(col)] : 0.0;
        }
        if (row >= 0) {
            check_row(prob, row);
            if (slack) *slack = r.slack[static_cast<size_t>(row)];
            if (dual) *dual = r.have_duals ? r.dual[static_cast<size_t>(row)] : 0.0;
        }
    });
}

int TRVOgetmipsolval(TRVOprob prob, int col, int row, double* x, double* slack) {
    return guard(prob, [&] {
        const auto& r = prob->results;
        if (!r.have_mip) fail("No integer solution available");
        if (col >= 0) {
            check_col(prob, col);
            if (x) *x = r.mipx[static_cast<size_t>(col)];
        }
        if (row >= 0) {
            check_row(prob, row);
            if (slack) *slack = r.mipslack[static_cast<size_t>(row)];
        }
    });
}

}  // extern "C"
