// Column tolerances (see tolerances.h).
#include "engine/slp/tolerances.h"

namespace slp {

ColumnTolerances column_tolerances(TSLPprob prob, int col) {
    static const int controls[9] = {TSLP_CTOL,   TSLP_ATOL_A, TSLP_ATOL_R, TSLP_MTOL_A, TSLP_MTOL_R,
                                    TSLP_ITOL_A, TSLP_ITOL_R, TSLP_STOL_A, TSLP_STOL_R};
    ColumnTolerances c;
    for (int i = 0; i < 9; ++i) c.t[i] = dbl_control(prob, controls[i]);
    auto it = prob->vars.find(col);
    if (it != prob->vars.end() && it->second.tolset > 0 && it->second.tolset <= (int)prob->tolsets.size()) {
        const TolSet& s = prob->tolsets[it->second.tolset - 1];
        for (int i = 0; i < 9; ++i)
            if (s.status & (1 << i)) c.t[i] = s.tol[i];
    }
    return c;
}

}  // namespace slp
