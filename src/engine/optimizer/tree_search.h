// The optimiser's use of the engine's own tree search (src/engine/search): which problems need
// it, the node hooks it is given, and the mapping of its outcome to the problem's results.
#pragma once

#include "engine/search/search.h"

#include <chrono>
#include <string>

namespace trvo {

// Quadratic parts HiGHS cannot take. Returns why the problem is not convex (empty when it is);
// sets *needs_search when it is convex but needs the tree search (quadratic rows, or a
// quadratic objective with integer entities when mip).
std::string quadratic_obstacle(TRVOprob p, bool mip, bool* needs_search);

// The node-level hooks of the problem's registered callbacks: the one place where the
// optimiser's callbacks are connected to the search. Empty hooks when none are registered.
search::Hooks node_hooks(TRVOprob p);

// Whether this solve runs the tree search, from the model's needs, the hooks and the
// TREESEARCH control; fails when the control forbids what the problem needs.
bool use_tree_search(TRVOprob p, bool mip, bool needs_search, const search::Hooks& hooks);

// Solves the problem with the tree search and writes the results (mip: with its entities;
// mip_call: a MIP solve was requested).
void optimize_by_search(TRVOprob p, bool mip_call, bool mip, const search::Hooks& hooks,
                        std::chrono::steady_clock::time_point t0);

}  // namespace trvo
