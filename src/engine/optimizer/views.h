// State and helpers shared by the presolve views (presolve_views.cpp), the basis analyses
// (basis_analysis.cpp) and the infeasibility analysis: per-problem data that only these
// operations use, quiet HiGHS instances holding a problem's model, and the hooks the LP/MIP
// solve calls for secure vectors, user scaling and interior-point runs.
#pragma once

#include "engine/optimizer/formulate.h"

#include <limits>
#include <vector>

namespace trvo {

// HiGHS's infinite bound.
constexpr double kHighsInf = std::numeric_limits<double>::infinity();

struct Views {
    // Rows and columns that presolve must keep (loadsecurevecs).
    std::vector<int> secure_rows, secure_cols;
    // Scaling exponents (powers of two) given by TRVOscale; empty: none.
    std::vector<int> row_scale, col_scale;
    // The last interior-point solution before crossover, in the user's rows and columns.
    bool have_bar = false;
    std::vector<double> bar_x, bar_slack, bar_dual, bar_dj;
};

// End of row i's entries in a model's row-wise matrix (a_start has one entry per row).
inline HighsInt row_end(const HighsModel& m, size_t i) {
    return i + 1 < m.a_start.size() ? m.a_start[i + 1] : static_cast<HighsInt>(m.a_index.size());
}
// End of column j's entries in a model's Hessian (q_start has one entry per column).
inline HighsInt hessian_end(const HighsModel& m, size_t j) {
    return j + 1 < m.q_start.size() ? m.q_start[j + 1] : static_cast<HighsInt>(m.q_index.size());
}

// The problem's views, created on first use.
Views& views(TRVOprob p);
// The problem's views if it has any, else null.
Views* views_if(TRVOprob p);

// Gives dest copies of src's secure vectors and scaling factors (problem copies).
void views_copy(TRVOprob dest, TRVOprob src);
// Keep secure vectors and scaling factors on the rows and columns left by a deletion
// (drop: one mark per old row; newidx: new position of each old column, -1 deleted). The last
// interior-point solution no longer fits the model and is forgotten.
void views_rows_deleted(TRVOprob p, const std::vector<char>& drop);
void views_cols_deleted(TRVOprob p, const std::vector<int>& newidx);

// A quiet HiGHS instance holding the problem's model (mip false: the continuous relaxation),
// released with the object. The HiGHS objective is sign * the user's objective.
struct QuietModel {
    void* h = nullptr;
    HighsModel m;
    QuietModel(TRVOprob p, bool mip);
    ~QuietModel();
    QuietModel(const QuietModel&) = delete;
    QuietModel& operator=(const QuietModel&) = delete;
    // Solves the model (options as given before); returns HiGHS's model status.
    HighsInt run();
};

// The HiGHS instance holding the user's LP as last solved (fails when there is none).
void* lp_instance(TRVOprob p);

// Hooks of the LP/MIP solve.
// Whether HiGHS's presolve may run: false (with a log line saying why) when secure vectors are
// loaded, since HiGHS cannot be told to keep given rows and columns.
bool presolve_allowed(TRVOprob p);
// Scales the model handed to HiGHS by the factors of TRVOscale (continuous user columns and
// user rows only); false when there are none.
bool scale_model(TRVOprob p, HighsModel& m);
// Undoes the scaling on a HiGHS solution of the scaled model (arrays of the model's size).
void unscale_solution(TRVOprob p, const HighsModel& m, double* cv, double* cd, double* rv, double* rd);
// After an interior-point run of an LP with crossover off: records the interior solution and,
// when the CROSSOVER control asks for it, runs HiGHS's crossover from it. Returns the model
// status after these steps.
HighsInt finish_barrier(TRVOprob p, void* h, const HighsModel& m, HighsInt ms);

}  // namespace trvo
