// Presolve of the model a nonlinear run works on (a copy: the problem itself is unchanged).
#pragma once

#include "engine/slp/host.h"

namespace slp {

struct PresolveSummary {
    int fixed = 0;       // columns fixed by an equality row that determines them
    int dropped = 0;     // rows dropped: every column fixed and the row satisfied
    int linearised = 0;  // nonlinear rows that are linear once the fixed columns are substituted
    int tightened = 0;   // column bounds tightened from the linear rows
};

// Repeats until nothing changes: columns with equal bounds count as fixed; an equality row in
// which a single unfixed column remains, appearing linearly, fixes that column (when the value
// lies within its bounds and is integral for an integer column) and is dropped; a row whose
// columns are all fixed and which holds within the feasibility tolerance is dropped; a
// nonlinear row whose formulas and quadratic part read fixed columns only (apart from the
// column a coefficient multiplies) becomes a linear row (its nonlinear coefficients are then
// skipped, m.nlskip). Then one pass over the linear rows tightens column bounds from the
// rows' activity ranges. Dropped rows become free rows ('N'), so indices keep their meaning.
PresolveSummary presolve_model(TSLPprob prob, Model& m);
void log_presolve(TSLPprob prob, int level, const PresolveSummary& s);

}  // namespace slp
