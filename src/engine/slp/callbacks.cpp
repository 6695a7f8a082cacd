// Callbacks of the nonlinear solver that depend on what the current run can serve.
#include "engine/slp/callbacks.h"
#include "engine/optimizer/callbacks.h"

namespace slp {

bool node_callbacks_served() { return false; }

void require_served_callbacks(TSLPprob prob) {
    if (node_callbacks_served()) return;
    const char* kind = prob->cb.slpnode.f ? "slpnode" : prob->cb.optnode.f ? "optnode"
                     : prob->cb.prenode.f ? "prenode" : nullptr;
    if (kind)
        throw Error(std::string("A nonlinear ") + kind + " callback is set, but " + kind +
                    " callbacks are called at the nodes of the engine's own tree search, which "
                    "nonlinear solves do not run yet; remove the callback to solve");
}

bool checktime(TSLPprob prob) {
    if (!prob->trvo || !trvo::has_callbacks(prob->trvo, trvo::CB_CHECKTIME)) return false;
    bool stop = trvo::fire_checktime(prob->trvo);
    // A callback that failed interrupted the optimisation problem: that stops this run too.
    return prob->trvo->stop_request.exchange(0) != 0 || stop;
}

}  // namespace slp
