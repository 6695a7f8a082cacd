// The convergence tolerances of a column: the controls, overridden entry by entry by the
// column's tolerance set.
#pragma once

#include "engine/slp/problem.h"

namespace slp {

// The nine tolerances in the order of a tolerance set: closure, absolute and relative delta,
// absolute and relative coefficient, absolute and relative impact, absolute and relative slack.
enum { TOL_CLOSURE, TOL_DELTA_A, TOL_DELTA_R, TOL_COEF_A, TOL_COEF_R, TOL_IMPACT_A, TOL_IMPACT_R, TOL_SLACK_A,
       TOL_SLACK_R };

struct ColumnTolerances {
    double t[9];
};

// The controls TSLP_CTOL, TSLP_ATOL_A/R, TSLP_MTOL_A/R, TSLP_ITOL_A/R, TSLP_STOL_A/R, with
// every entry whose status bit the column's tolerance set has replaced by the set's value.
ColumnTolerances column_tolerances(TSLPprob prob, int col);

}  // namespace slp
