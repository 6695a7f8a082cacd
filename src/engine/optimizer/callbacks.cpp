// Solve callbacks: registration (TRVOaddcb<kind> / TRVOremovecb<kind>), the solve paths that
// serve each kind, and the fire functions the solvers call.
#include "engine/optimizer/callbacks.h"

#include <algorithm>

namespace trvo {
namespace {

const char* const kNames[kSolveCallbackKinds] = {
    "bariteration", "barlog", "chgbranchobject", "cutlog", "destroymt", "gapnotify",
    "globallog", "infnode", "intsol", "lplog", "message", "mipthread", "newnode", "nodecutoff",
    "optnode", "preintsol", "prenode", "usersolnotify", "checktime",
};

bool node_level(int kind) {
    switch (kind) {
        case CB_PRENODE: case CB_OPTNODE: case CB_INFNODE: case CB_NODECUTOFF: case CB_NEWNODE:
        case CB_CHGBRANCHOBJECT: case CB_PREINTSOL: case CB_MIPTHREAD: case CB_DESTROYMT:
            return true;
    }
    return false;
}

// The registered callbacks of a kind, copied so that they may change while they are called.
std::vector<SolveCallback> snapshot(TRVOprob p, int kind) {
    std::lock_guard<std::mutex> g(p->cb_mutex);
    return p->solvecbs[kind];
}

template <class F, class... A>
bool fire_stopping(TRVOprob p, int kind, A... args) {
    bool stop = false;
    for (const auto& cb : snapshot(p, kind))
        if (reinterpret_cast<F>(cb.f)(p, cb.context, args...) != 0) stop = true;
    return stop;
}

template <class F, class... A>
void fire_all(TRVOprob p, int kind, A... args) {
    for (const auto& cb : snapshot(p, kind)) reinterpret_cast<F>(cb.f)(p, cb.context, args...);
}

bool fire_flag(TRVOprob p, int kind) {
    bool set = false;
    for (const auto& cb : snapshot(p, kind)) {
        int flag = 0;
        reinterpret_cast<TRVOcbnodeinfeas>(cb.f)(p, cb.context, &flag);
        if (flag) set = true;
    }
    return set;
}

int add(TRVOprob prob, int kind, void* f, void* context, int priority) {
    return guard(prob, [&] {
        if (!f) fail("No %s callback given", kNames[kind]);
        std::lock_guard<std::mutex> g(prob->cb_mutex);
        auto& v = prob->solvecbs[kind];
        auto pos = std::find_if(v.begin(), v.end(),
                                [&](const SolveCallback& c) { return c.priority < priority; });
        v.insert(pos, SolveCallback{f, context, priority});
    });
}

int remove(TRVOprob prob, int kind, void* f, void* context) {
    return guard(prob, [&] {
        std::lock_guard<std::mutex> g(prob->cb_mutex);
        auto& v = prob->solvecbs[kind];
        v.erase(std::remove_if(v.begin(), v.end(),
                               [&](const SolveCallback& c) {
                                   return (!f || c.f == f) && (!context || c.context == context);
                               }),
                v.end());
    });
}

}  // namespace

const char* callback_kind_name(int kind) {
    return kind >= 0 && kind < kSolveCallbackKinds ? kNames[kind] : "unknown";
}

bool has_callbacks(TRVOprob p, int kind) {
    if (kind == CB_MESSAGE) return !p->msgcbs.empty();
    std::lock_guard<std::mutex> g(p->cb_mutex);
    return !p->solvecbs[kind].empty();
}

bool served_by(SolvePath path, int kind) {
    // The tree search calls the node-level kinds and intsol (see tree_search.cpp); the kinds
    // that follow HiGHS's iterations and log lines are HiGHS's.
    if (path == SolvePath::TreeSearch) return node_level(kind) || kind == CB_INTSOL || kind == CB_MESSAGE;
    return !node_level(kind);
}

int unserved_callback(TRVOprob p, SolvePath path) {
    for (int k = 0; k < kSolveCallbackKinds; ++k)
        if (!served_by(path, k) && has_callbacks(p, k)) return k;
    return -1;
}

void require_served(TRVOprob p, SolvePath path) {
    int k = unserved_callback(p, path);
    if (k >= 0 && path == SolvePath::TreeSearch)
        fail("A %s callback is registered, but this problem is solved by the engine's own tree search, "
             "which does not call %s callbacks; remove the callback to solve",
             kNames[k], kNames[k]);
    if (k >= 0)
        fail("A %s callback is registered, but %s callbacks are called at the nodes of the engine's "
             "own tree search, which this solve does not run (TREESEARCH is 2); remove the callback to solve",
             kNames[k], kNames[k]);
}

bool fire_lplog(TRVOprob p) { return fire_stopping<TRVOcbsimple>(p, CB_LPLOG); }
bool fire_barlog(TRVOprob p) { return fire_stopping<TRVOcbsimple>(p, CB_BARLOG); }
bool fire_checktime(TRVOprob p) { return fire_stopping<TRVOcbsimple>(p, CB_CHECKTIME); }
bool fire_globallog(TRVOprob p) { return fire_stopping<TRVOcbsimple>(p, CB_GLOBALLOG); }
bool fire_cutlog(TRVOprob p) { return fire_stopping<TRVOcbsimple>(p, CB_CUTLOG); }
bool fire_bariteration(TRVOprob p) {
    bool stop = false;
    for (const auto& cb : snapshot(p, CB_BARITERATION)) {
        int action = 0;
        reinterpret_cast<TRVOcbbariteration>(cb.f)(p, cb.context, &action);
        if (action != 0) stop = true;
    }
    return stop;
}
void fire_intsol(TRVOprob p) { fire_all<TRVOcbnotify>(p, CB_INTSOL); }
void fire_gapnotify(TRVOprob p, double t[4]) {
    fire_all<TRVOcbgapnotify>(p, CB_GAPNOTIFY, &t[0], &t[1], &t[2], &t[3]);
}
void fire_usersolnotify(TRVOprob p, const char* name, int status) {
    fire_all<TRVOcbusersolnotify>(p, CB_USERSOLNOTIFY, name, status);
}

bool fire_prenode(TRVOprob p) { return fire_flag(p, CB_PRENODE); }
bool fire_optnode(TRVOprob p) { return fire_flag(p, CB_OPTNODE); }
void fire_infnode(TRVOprob p) { fire_all<TRVOcbnotify>(p, CB_INFNODE); }
void fire_nodecutoff(TRVOprob p, int node) { fire_all<TRVOcbnodecutoff>(p, CB_NODECUTOFF, node); }
void fire_newnode(TRVOprob p, int parent, int node, int branch) {
    fire_all<TRVOcbnewnode>(p, CB_NEWNODE, parent, node, branch);
}
void fire_mipthread(TRVOprob p, TRVOprob worker) { fire_all<TRVOcbmipthread>(p, CB_MIPTHREAD, worker); }
void fire_destroymt(TRVOprob p) { fire_all<TRVOcbnotify>(p, CB_DESTROYMT); }
bool fire_preintsol(TRVOprob p, int soltype, double* cutoff) {
    bool reject = false;
    for (const auto& cb : snapshot(p, CB_PREINTSOL)) {
        int r = 0;
        reinterpret_cast<TRVOcbpreintsol>(cb.f)(p, cb.context, soltype, &r, cutoff);
        if (r) reject = true;
    }
    return reject;
}
void* fire_chgbranchobject(TRVOprob p, void* bo) {
    // Each callback takes the object over and hands back the one to use (which the caller then
    // owns), or nothing when it failed.
    for (const auto& cb : snapshot(p, CB_CHGBRANCHOBJECT)) {
        void* chosen = nullptr;
        reinterpret_cast<TRVOcbchgbranchobject>(cb.f)(p, cb.context, bo, &chosen);
        bo = chosen;
        if (!bo) break;
    }
    return bo;
}

}  // namespace trvo

using namespace trvo;

extern "C" {

#define TRVO_CALLBACK_KIND(name, type, kind)                                              \
    int TRVOaddcb##name(TRVOprob prob, type f, void* context, int priority) {             \
        return add(prob, kind, reinterpret_cast<void*>(f), context, priority);            \
    }                                                                                     \
    int TRVOremovecb##name(TRVOprob prob, type f, void* context) {                        \
        return remove(prob, kind, reinterpret_cast<void*>(f), context);                   \
    }

TRVO_CALLBACK_KIND(bariteration, TRVOcbbariteration, CB_BARITERATION)
TRVO_CALLBACK_KIND(barlog, TRVOcbsimple, CB_BARLOG)
TRVO_CALLBACK_KIND(chgbranchobject, TRVOcbchgbranchobject, CB_CHGBRANCHOBJECT)
TRVO_CALLBACK_KIND(cutlog, TRVOcbsimple, CB_CUTLOG)
TRVO_CALLBACK_KIND(destroymt, TRVOcbnotify, CB_DESTROYMT)
TRVO_CALLBACK_KIND(gapnotify, TRVOcbgapnotify, CB_GAPNOTIFY)
TRVO_CALLBACK_KIND(globallog, TRVOcbsimple, CB_GLOBALLOG)
TRVO_CALLBACK_KIND(infnode, TRVOcbnotify, CB_INFNODE)
TRVO_CALLBACK_KIND(intsol, TRVOcbnotify, CB_INTSOL)
TRVO_CALLBACK_KIND(lplog, TRVOcbsimple, CB_LPLOG)
TRVO_CALLBACK_KIND(mipthread, TRVOcbmipthread, CB_MIPTHREAD)
TRVO_CALLBACK_KIND(newnode, TRVOcbnewnode, CB_NEWNODE)
TRVO_CALLBACK_KIND(nodecutoff, TRVOcbnodecutoff, CB_NODECUTOFF)
TRVO_CALLBACK_KIND(optnode, TRVOcbnodeinfeas, CB_OPTNODE)
TRVO_CALLBACK_KIND(preintsol, TRVOcbpreintsol, CB_PREINTSOL)
TRVO_CALLBACK_KIND(prenode, TRVOcbnodeinfeas, CB_PRENODE)
TRVO_CALLBACK_KIND(usersolnotify, TRVOcbusersolnotify, CB_USERSOLNOTIFY)
TRVO_CALLBACK_KIND(checktime, TRVOcbsimple, CB_CHECKTIME)

}  // extern "C"
