// Optimisation on HiGHS.
#include "engine/optimizer/problem.h"

#include "interfaces/highs_c_api.h"

namespace trvo {

void highs_release(void* highs) {
    if (highs) Highs_destroy(highs);
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOlpoptimize(TRVOprob prob, const char*) {
    return guard(prob, [&] { fail("The LP optimiser is not available yet"); });
}

int TRVOmipoptimize(TRVOprob prob, const char*) {
    return guard(prob, [&] { fail("The MIP optimiser is not available yet"); });
}

int TRVOreadprob(TRVOprob prob, const char*, const char*) {
    return guard(prob, [&] { fail("Reading problem files is not available yet"); });
}

int TRVOwriteprob(TRVOprob prob, const char*, const char*) {
    return guard(prob, [&] { fail("Writing problem files is not available yet"); });
}

}  // extern "C"
