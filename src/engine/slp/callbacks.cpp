// Callbacks of the nonlinear solver that call into the optimisation problem it is bound to.
#include "engine/slp/callbacks.h"
#include "engine/optimizer/callbacks.h"

namespace slp {

bool checktime(TSLPprob prob) {
    if (!prob->trvo || !trvo::has_callbacks(prob->trvo, trvo::CB_CHECKTIME)) return false;
    bool stop = trvo::fire_checktime(prob->trvo);
    // A callback that failed interrupted the optimisation problem: that stops this run too.
    return prob->trvo->stop_request.exchange(0) != 0 || stop;
}

}  // namespace slp
