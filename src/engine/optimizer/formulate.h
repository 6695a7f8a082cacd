// Translation of the problem store into the model HiGHS solves: row bounds from row types,
// the objective turned into a minimisation, and the reformulation of what HiGHS cannot take
// (semi-continuous columns with finite bounds, partial-integer columns, SOS, indicators) into
// extra binary columns and linear rows. The user's columns and rows come first, unchanged in
// number and order, so results map back by truncation.
#pragma once

#include "engine/optimizer/problem.h"
#include "interfaces/highs_c_api.h"

#include <string>
#include <vector>

namespace trvo {

struct HighsModel {
    int ncol = 0, nrow = 0;
    double sign = 1;        // +1: HiGHS objective = user objective; -1: negated (maximisation)
    double offset = 0;
    std::vector<double> cost, col_lower, col_upper, row_lower, row_upper;
    std::vector<HighsInt> integrality;   // empty when no column is integer or semi-continuous
    std::vector<HighsInt> a_start, a_index;  // row-wise
    std::vector<double> a_value;
    // Entries borrowed from the problem's store instead of a_index/a_value (formulate with
    // borrow), valid until the store changes: the matrix goes to HiGHS without a copy.
    const HighsInt* a_index_view = nullptr;
    const double* a_value_view = nullptr;
    HighsInt nnz_view = 0;
    std::vector<HighsInt> q_start, q_index;  // lower triangle, column-wise
    std::vector<double> q_value;
    bool discrete = false;

    HighsInt num_nz() const { return a_index_view ? nnz_view : static_cast<HighsInt>(a_index.size()); }
    const HighsInt* index_data() const {
        return a_index_view ? a_index_view : (a_index.empty() ? nullptr : a_index.data());
    }
    const double* value_data() const {
        return a_value_view ? a_value_view : (a_value.empty() ? nullptr : a_value.data());
    }
    // Copies borrowed entries into a_index/a_value (to change them, or to keep them past a
    // change of the store).
    void own_matrix() {
        if (!a_index_view) return;
        a_index.assign(a_index_view, a_index_view + nnz_view);
        a_value.assign(a_value_view, a_value_view + nnz_view);
        a_index_view = nullptr;
        a_value_view = nullptr;
        nnz_view = 0;
    }

    // Frees the arrays once HiGHS holds its own copy, so the solve does not run with the
    // model stored a third time, and returns their pages to the system; the dimensions and
    // the sign stay.
    void release_arrays() {
        const int64_t items = static_cast<int64_t>(ncol) + nrow + num_nz();
        HighsModel kept;
        kept.ncol = ncol;
        kept.nrow = nrow;
        kept.sign = sign;
        kept.offset = offset;
        kept.discrete = discrete;
        *this = std::move(kept);
        release_free_heap(items);
    }
};

// Why a problem cannot be handed to HiGHS as an LP/MIP/convex QP; empty when it can.
std::string nonconvexity(TRVOprob p, bool mip);
// Whether sign * Q is positive semidefinite, Q the symmetric matrix given by its upper triangle
// (one entry per pair i <= j), up to a tolerance relative to the matrix's largest entry.
bool positive_semidefinite(const QMap& q, double sign);
// True when the problem has discrete entities (integer-like columns, sets, indicators).
bool has_entities(TRVOprob p);
// Row i's bounds from its type, right-hand side and range (+-kInf where there is none).
void row_bounds(TRVOprob p, int i, double& lo, double& up);
// Builds the model: mip false gives the continuous relaxation (entities dropped). With borrow,
// when the reformulation leaves the user's rows as they are, the matrix entries are not copied
// but borrowed from the store (packed first): out must then be passed to HiGHS before the
// store changes.
void formulate(TRVOprob p, bool mip, HighsModel& out, bool borrow = false);

}  // namespace trvo
