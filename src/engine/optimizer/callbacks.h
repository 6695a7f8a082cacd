// The solve callbacks of a problem (kinds 0 to 18): which solve path can serve which kind, and
// the functions the engine calls to fire them.
//
// Every fire function calls the problem's callbacks of its kind highest priority first (equal
// priorities in registration order). The list is copied under the problem's callback lock
// before the calls, so a callback may add or remove callbacks of the same problem. Functions
// returning bool report whether a callback asked to stop the solve (the caller then stops with
// stop reason TRVO_STOP_USER); callbacks that raised in Python have already interrupted the
// problem (TRVOinterrupt) by then.
//
// Node-level kinds (prenode, optnode, infnode, nodecutoff, newnode, chgbranchobject, preintsol,
// mipthread, destroymt) can only be served by the engine's own tree search. A search serves
// them by calling the fire_* functions below at the matching points of its run:
//   fire_mipthread(p, worker) once per worker before it processes nodes, fire_destroymt(p) when
//   it ends; for each node: fire_prenode before its relaxation is solved (a set infeasible flag
//   prunes the node), fire_optnode after an optimal relaxation (same), fire_infnode when the
//   relaxation is infeasible, fire_nodecutoff(p, node) when the node is cut off by the bound,
//   fire_chgbranchobject before branching, fire_newnode(p, parent, child, branch) for every
//   child created; fire_preintsol before an integer solution is accepted (it may be rejected,
//   and the cutoff may be tightened), then fire_intsol after it became the incumbent (with
//   p->results.mipx/mipslack/mipobjval and have_mip holding it, so that solution queries made
//   inside the callback return it; see SolveCallbacks::new_incumbent).
// It declares itself able to do so in served_by(): that is the one line to change when the
// search is connected. optimize() (solve.cpp) calls require_served(p, SolvePath::Highs); the
// search takes over there: when unserved_callback(p, SolvePath::Highs) >= 0 the solve goes to
// the search instead of HiGHS.
#pragma once

#include "engine/optimizer/problem.h"

namespace trvo {

enum CallbackKind {
    CB_BARITERATION = 0, CB_BARLOG = 1, CB_CHGBRANCHOBJECT = 2, CB_CUTLOG = 3, CB_DESTROYMT = 4,
    CB_GAPNOTIFY = 5, CB_GLOBALLOG = 6, CB_INFNODE = 7, CB_INTSOL = 8, CB_LPLOG = 9,
    CB_MESSAGE = 10, CB_MIPTHREAD = 11, CB_NEWNODE = 12, CB_NODECUTOFF = 13, CB_OPTNODE = 14,
    CB_PREINTSOL = 15, CB_PRENODE = 16, CB_USERSOLNOTIFY = 17, CB_CHECKTIME = 18,
};

const char* callback_kind_name(int kind);
bool has_callbacks(TRVOprob p, int kind);

// The ways the engine solves a problem.
enum class SolvePath {
    Highs,       // the model goes to HiGHS (LP, QP, MIP): no node-level callbacks
    TreeSearch,  // the engine's own tree search
};
// Whether the given solve path can call callbacks of the kind.
bool served_by(SolvePath path, int kind);
// The first registered kind the path cannot serve, or -1.
int unserved_callback(TRVOprob p, SolvePath path);
// Fails (throws Error naming the kind) when a registered callback cannot be served by path.
void require_served(TRVOprob p, SolvePath path);

// Kinds HiGHS's callbacks serve.
bool fire_lplog(TRVOprob p);
bool fire_barlog(TRVOprob p);
bool fire_bariteration(TRVOprob p);      // true: a callback set its action to stop
bool fire_checktime(TRVOprob p);
bool fire_globallog(TRVOprob p);
bool fire_cutlog(TRVOprob p);
void fire_intsol(TRVOprob p);
// targets: relative gap, absolute gap, objective and bound targets, in and out.
void fire_gapnotify(TRVOprob p, double targets[4]);
void fire_usersolnotify(TRVOprob p, const char* name, int status);

// Node-level kinds, for the tree search.
bool fire_prenode(TRVOprob p);           // true: the node is to be treated as infeasible
bool fire_optnode(TRVOprob p);           // true: the node is to be treated as infeasible
void fire_infnode(TRVOprob p);
void fire_nodecutoff(TRVOprob p, int node);
void fire_newnode(TRVOprob p, int parent, int node, int branch);
void fire_mipthread(TRVOprob p, TRVOprob worker);
void fire_destroymt(TRVOprob p);
// soltype: 0 node relaxation, 1 heuristic, 2 user solution. Returns true when rejected;
// *cutoff may be changed.
bool fire_preintsol(TRVOprob p, int soltype, double* cutoff);
// Hands bo (a TRVObranchobject) to the callbacks in turn, each taking it over; returns the
// object the last one handed back, which the caller then owns, or null when one failed.
void* fire_chgbranchobject(TRVOprob p, void* bo);

}  // namespace trvo
