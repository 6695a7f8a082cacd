// One entry of the current solution, without copying whole vectors: the single-value
// queries of the module (a variable's value, a row's slack or dual, a reduced cost) cost O(1).
#include "engine/optimizer/problem.h"

using namespace trvo;

extern "C" int TRVOgetsolentry(TRVOprob prob, int mip, int what, int index, double* value) {
    return guard(prob, [&] {
        if (!value) fail("No output argument for the value");
        if (what < 0 || what > 3) fail("Solution entry kind must be 0 to 3, not %d", what);
        const Results& r = prob->results;
        const bool by_col = what == 0 || what == 3;
        if (by_col) check_col(prob, index);
        else check_row(prob, index);
        const size_t k = static_cast<size_t>(index);
        if (mip < 0)
            mip = mip_entities(prob) > 0 || !prob->sets.empty() || !prob->indicators.empty() ||
                  !prob->gencons.empty() || !prob->pwlcons.empty();
        if (mip) {
            if (what == 2 || what == 3) fail("No dual solution in an integer solution");
            if (!r.have_mip) fail("No integer solution available");
            *value = what == 0 ? r.mipx[k] : r.mipslack[k];
            return;
        }
        if (!r.have_lp) fail("No LP solution available");
        if ((what == 2 || what == 3) && !r.have_duals) fail("No dual solution available");
        switch (what) {
            case 0: *value = r.x[k]; break;
            case 1: *value = r.slack[k]; break;
            case 2: *value = r.dual[k]; break;
            default: *value = r.dj[k]; break;
        }
    });
}
