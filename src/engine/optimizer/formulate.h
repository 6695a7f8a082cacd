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
    std::vector<HighsInt> q_start, q_index;  // lower triangle, column-wise
    std::vector<double> q_value;
    bool discrete = false;

    // Frees the arrays once HiGHS holds its own copy, so the solve does not run with the
    // model stored a third time; the dimensions and the sign stay.
    void release_arrays() {
        HighsModel kept;
        kept.ncol = ncol;
        kept.nrow = nrow;
        kept.sign = sign;
        kept.offset = offset;
        kept.discrete = discrete;
        *this = std::move(kept);
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
// Builds the model: mip false gives the continuous relaxation (entities dropped).
void formulate(TRVOprob p, bool mip, HighsModel& out);

}  // namespace trvo
