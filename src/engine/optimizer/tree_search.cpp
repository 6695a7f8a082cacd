// Runs the engine's tree search for the optimiser: convex quadratic rows (with or without
// integers), mixed-integer convex quadratic objectives, and MIPs whose user asked for it.
#include "engine/optimizer/tree_search.h"

#include "engine/optimizer/branching.h"
#include "engine/optimizer/callbacks.h"
#include "engine/optimizer/cuts.h"
#include "engine/search/cuts.h"
#include "engine/optimizer/highs_instances.h"
#include "engine/optimizer/views.h"

#include <chrono>
#include <cmath>
#include <cstdio>

namespace trvo {
namespace {

bool all_zero(const QMap& q) {
    for (const auto& kv : q)
        if (kv.second != 0.0) return false;
    return true;
}

// With quadratic rows, a convex quadratic objective f(x) = c'x + x'Qx/2 moves into a row: the
// objective becomes c'x + t over a new free column t, and the row x'Qx/2 - t <= 0 is outer-
// approximated by cuts like the other quadratic rows. The node relaxations are then LPs, which
// the simplex method solves reliably, where HiGHS's active-set QP solver can cycle without end
// among the nearly parallel cuts of a converging outer approximation (HS43). QP relaxations
// converge in far fewer iterations when they work, so this is the fallback after a QP stall. The
// new column and row come last, so model columns and rows keep their positions.
void epigraph_objective(search::Model& model) {
    HighsModel& lp = model.lp;
    const int t = lp.ncol;
    search::QuadRow q;
    q.row = lp.nrow;
    q.lin.emplace_back(t, -1.0);
    q.up = 0.0;
    const size_t nq = lp.q_index.size();
    for (int c = 0; c < lp.ncol; ++c) {
        const size_t end = c + 1 < lp.ncol ? static_cast<size_t>(lp.q_start[static_cast<size_t>(c) + 1]) : nq;
        for (size_t k = static_cast<size_t>(lp.q_start[static_cast<size_t>(c)]); k < end; ++k)
            if (lp.q_value[k] != 0.0) q.quad.push_back({{c, lp.q_index[k]}, 0.5 * lp.q_value[k]});
    }
    lp.q_start.clear();
    lp.q_index.clear();
    lp.q_value.clear();
    if (q.quad.empty()) return;
    lp.ncol += 1;
    lp.cost.push_back(1.0);
    lp.col_lower.push_back(-INFINITY);
    lp.col_upper.push_back(INFINITY);
    if (!lp.integrality.empty()) lp.integrality.push_back(kHighsVarTypeContinuous);
    lp.nrow += 1;
    lp.a_start.push_back(static_cast<HighsInt>(lp.a_index.size()));
    lp.a_index.push_back(t);
    lp.a_value.push_back(-1.0);
    lp.row_lower.push_back(-INFINITY);
    lp.row_upper.push_back(0.0);
    if (!model.lazy.empty()) model.lazy.push_back(0);
    model.qrows.push_back(std::move(q));
}

}  // namespace

std::string quadratic_obstacle(TRVOprob p, bool mip, bool* needs_search) {
    *needs_search = false;
    for (const auto& kv : p->qrows) {
        if (all_zero(kv.second)) continue;
        double lo, up;
        row_bounds(p, kv.first, lo, up);
        const std::string name = p->rownames.get(kv.first, 'R');
        if (lo <= -kInf && up >= kInf) continue;  // a free row constrains nothing
        if (lo > -kInf && up < kInf)
            return "Quadratic row " + name + " is an equation or a range, which is not convex";
        const bool upper = up < kInf;
        if (!positive_semidefinite(kv.second, upper ? 1.0 : -1.0))
            return "Quadratic row " + name + (upper ? " (<=) has a left side that is not convex"
                                                    : " (>=) has a left side that is not concave");
        *needs_search = true;
    }
    if (!all_zero(p->qobj)) {
        if (!positive_semidefinite(p->qobj, p->objsense))
            return p->objsense > 0 ? "The quadratic objective is not convex"
                                   : "The quadratic objective is not concave";
        if (mip) *needs_search = true;
    }
    return "";
}

search::Hooks node_hooks(TRVOprob p) {
    // The problem's node-level callbacks, fired from the search's hooks. While a callback runs,
    // the node's relaxation solution (or the candidate offered to preintsol) is the problem's
    // LP solution and the incumbent its MIP solution, so that solution queries return them.
    search::Hooks h;
    const double sign = p->objsense > 0 ? 1.0 : -1.0;
    // Once the solve is asked to stop (a callback raised, Ctrl-C, TRVOinterrupt), no further
    // callback is entered; the search ends at its next check.
    auto stopping = [p] { return p->stop_request.load() != 0; };
    auto show_lp = [p](const double* x) {
        Results& r = p->results;
        const size_t n = static_cast<size_t>(p->ncols());
        r.x.assign(x, x + n);
        r.slack.assign(static_cast<size_t>(p->nrows()), 0.0);
        slacks_at(p, r.x.data(), r.slack.data());
        r.lpobjval = objective_at(p, r.x.data());
        r.have_lp = true;
        r.have_duals = false;
    };
    if (has_callbacks(p, CB_PRENODE)) h.prenode = [p, stopping](const search::NodeView&) { return !stopping() && fire_prenode(p); };
    if (has_callbacks(p, CB_OPTNODE))
        h.optnode = [p, show_lp, stopping](const search::NodeView& v) {
            if (stopping()) return false;
            show_lp(v.x);
            return fire_optnode(p);
        };
    if (has_callbacks(p, CB_INFNODE)) h.infnode = [p, stopping](const search::NodeView&) {
            if (!stopping()) fire_infnode(p);
        };
    if (has_callbacks(p, CB_NODECUTOFF))
        h.nodecutoff = [p, stopping](const search::NodeView&, int64_t node) {
            if (!stopping()) fire_nodecutoff(p, static_cast<int>(node));
        };
    if (has_callbacks(p, CB_NEWNODE))
        h.newnode = [p, stopping](const search::NodeView&, int64_t parent, int64_t child, int64_t branch) {
            if (!stopping()) fire_newnode(p, static_cast<int>(parent), static_cast<int>(child), static_cast<int>(branch));
        };
    if (has_callbacks(p, CB_PREINTSOL))
        h.preintsol = [p, sign, show_lp, stopping](const search::NodeView&, int soltype, const double* x,
                                                   double, bool* reject, double* cutoff) {
            if (stopping()) return;
            // The candidate is the MIP solution while the callback looks at it (and the LP
            // solution too); a rejected one gives the place back to the incumbent.
            Results& r = p->results;
            const std::vector<double> keep_x = r.mipx, keep_slack = r.mipslack;
            const double keep_obj = r.mipobjval;
            const bool keep_have = r.have_mip;
            show_lp(x);
            r.mipx = r.x;
            r.mipslack = r.slack;
            r.mipobjval = r.lpobjval;
            r.have_mip = true;
            double c = sign * *cutoff;  // the user's sense
            *reject = fire_preintsol(p, soltype, &c);
            if (c == c) *cutoff = sign * c;
            if (*reject) {
                r.mipx = keep_x;
                r.mipslack = keep_slack;
                r.mipobjval = keep_obj;
                r.have_mip = keep_have;
            }
        };
    if (has_callbacks(p, CB_INTSOL))
        h.intsol = [p, stopping](const search::NodeView&, const double* x, double) {
            Results& r = p->results;
            r.mipx.assign(x, x + p->ncols());
            r.mipslack.assign(static_cast<size_t>(p->nrows()), 0.0);
            slacks_at(p, r.mipx.data(), r.mipslack.data());
            r.mipobjval = r.mipbestobjval = objective_at(p, r.mipx.data());
            r.have_mip = true;
            ++r.mipsols;
            if (!stopping()) fire_intsol(p);
        };
    if (has_callbacks(p, CB_CHGBRANCHOBJECT))
        h.chgbranchobject = [p, stopping](const search::NodeView& v, search::Branch& b) {
            if (stopping()) return;
            // The search's decision goes to the callbacks as a branching object; the object they
            // hand back (the same one, changed or not, or another) becomes the decision. None
            // comes back when a callback failed, and the solve is then stopping.
            TRVObranchobject chosen = static_cast<TRVObranchobject>(
                fire_chgbranchobject(p, branchobject_from_branch(p, b, v)));
            if (!chosen) return;
            struct Drop {
                TRVObranchobject bo;
                ~Drop() { TRVO_bo_destroy(bo); }
            } drop{chosen};
            branch_from_branchobject(p, chosen, v, p->ncols() + chosen->extra_cols, b);
        };
    if (has_callbacks(p, CB_MIPTHREAD)) h.mipthread = [p, stopping] {
        if (!stopping()) fire_mipthread(p, p);
    };
    // destroymt ends what mipthread began, unless a callback has raised.
    if (has_callbacks(p, CB_DESTROYMT)) h.destroymt = [p] {
        if (p->stop_request.load() != TRVO_STOP_USER) fire_destroymt(p);
    };
    return h;
}

bool use_tree_search(TRVOprob p, bool mip, bool needs_search, const search::Hooks& hooks) {
    const int64_t mode = ctl_int(p, TRVO_TREESEARCH);
    if (mode == 2) {
        if (mip && branching_needs_search(p))
            fail("TREESEARCH is 2 (never), but branching directives or stored branching objects are loaded, "
                 "which only the tree search can honour: set TREESEARCH to 0 or 1, or clear them");
        if (hooks.any_node_hook())
            fail("TREESEARCH is 2 (never), but node callbacks are registered (a %s callback), which only "
                 "the tree search can call: set TREESEARCH to 0 or 1, or remove the callbacks",
                 callback_kind_name(unserved_callback(p, SolvePath::Highs)));
        if (needs_search)
            fail("TREESEARCH is 2 (never), but this problem needs the tree search (quadratic rows, "
                 "or a quadratic objective with integer entities): set TREESEARCH to 0 or 1");
        if (mip && cuts_need_search(p))
            emit_message(p, "TREESEARCH is 2 (never): the cuts of the cut pool are not applied by HiGHS's MIP solver", 3);
        return false;
    }
    // Node callbacks need the search even on an LP or QP (whose root is then its only node).
    if (needs_search || hooks.any_node_hook()) return true;
    // Cuts of the pool, directives and stored branching objects are honoured by the search only.
    if (mip && (cuts_need_search(p) || branching_needs_search(p))) return true;
    return mip && mode == 1;
}

void optimize_by_search(TRVOprob p, bool mip_call, bool mip, const search::Hooks& hooks,
                        std::chrono::steady_clock::time_point t0) {
    Results& r = p->results;
    search::Model model;
    formulate(p, mip, model.lp);
    const int n = p->ncols(), m = p->nrows();
    if (!model.lp.integrality.empty())
        for (int j = 0; j < model.lp.ncol; ++j) {
            const HighsInt t = model.lp.integrality[static_cast<size_t>(j)];
            if (t == kHighsVarTypeSemiContinuous || t == kHighsVarTypeSemiInteger)
                fail("Semi-continuous column %s has no upper bound, which the tree search needs: give it a "
                     "finite upper bound",
                     p->colnames.get(j, 'C').c_str());
        }
    for (const auto& kv : p->qrows) {
        if (all_zero(kv.second)) continue;
        search::QuadRow q;
        q.row = kv.first;
        row_bounds(p, kv.first, q.lo, q.up);
        if (q.lo <= -kInf && q.up >= kInf) continue;
        if (q.lo <= -kInf) q.lo = -INFINITY;
        if (q.up >= kInf) q.up = INFINITY;
        q.lin = p->matrix[static_cast<size_t>(kv.first)].entries();
        for (const auto& e : kv.second)
            if (e.second != 0.0) q.quad.emplace_back(e.first, e.second);
        model.qrows.push_back(std::move(q));
    }

    if (const Views* v = views_if(p)) {
        // The user's scaling factors (TRVOscale) scale the relaxations as they scale the LP
        // solve's model; rows and columns added after them are unscaled.
        auto factors = [](const std::vector<int>& e, int count, std::vector<double>& out) {
            if (e.empty()) return;
            out.assign(static_cast<size_t>(count), 1.0);
            for (size_t k = 0; k < e.size() && k < out.size(); ++k) out[k] = std::ldexp(1.0, e[k]);
        };
        factors(v->col_scale, n, model.col_scale);
        factors(v->row_scale, m, model.row_scale);
    }

    SolveScope scope(static_cast<int>(ctl_int(p, TRVO_THREADS)), &p->stop_request);
    search::Settings s;
    s.scaling = ctl_int(p, TRVO_SCALING) != 0;
    s.feastol = ctl_dbl(p, TRVO_FEASTOL);
    s.optimalitytol = ctl_dbl(p, TRVO_OPTIMALITYTOL);
    s.miptol = ctl_dbl(p, TRVO_MIPTOL);
    s.miprelstop = ctl_dbl(p, TRVO_MIPRELSTOP);
    s.mipabsstop = ctl_dbl(p, TRVO_MIPABSSTOP);
    const double cutoff = ctl_dbl(p, TRVO_MIPABSCUTOFF);
    if (mip && std::fabs(cutoff) < 1e39) s.cutoff = model.lp.sign * cutoff;
    s.maxnode = ctl_int(p, TRVO_MAXNODE);
    s.maxmipsol = ctl_int(p, TRVO_MAXMIPSOL);
    s.maxtime = ctl_dbl(p, TRVO_MAXTIME);
    s.lpiterlimit = ctl_int(p, TRVO_LPITERLIMIT);
    s.threads = scope.used;
    s.stop = &p->stop_request;
    if (mip) search_directives(p, model.lp.ncol, s.directives);
    if (ctl_int(p, TRVO_OUTPUTLOG) != 0) s.log = [p](const std::string& line) { emit_message(p, line.c_str(), 1, TRVO_MSG_SEARCH_LOG); };
    if (mip) {
        for (const auto& e : p->mip_start)
            if (e.first < n) s.start.push_back(e);
        p->mip_start.clear();
    }

    // The problem's own HiGHS instance no longer holds the last solve's LP.
    p->highs_has_lp = false;
    search::NodeCuts node_cuts;
    search::Hooks all = hooks;
    all.cuts = &node_cuts;
    if (mip) {
        const int ncol = model.lp.ncol;
        all.userbranch = [p, ncol](const search::NodeView& v, search::Branch& b) { take_stored_branch(p, v, ncol, b); };
        all.nodestart = [p](const search::NodeView& v) { branching_node(p, v.node); };
    }
    struct DropStored {
        TRVOprob p;
        ~DropStored() { drop_stored_branchobjects(p); }
    } drop_stored{p};
    search::Outcome o;
    {
        // mipthread and destroymt bracket the whole solve, which may run the search twice.
        search::Hooks once = all;
        all.mipthread = nullptr;
        all.destroymt = nullptr;
        if (once.mipthread) once.mipthread();
        struct ThreadEnd {
            const search::Hooks& h;
            ~ThreadEnd() {
                if (h.destroymt) h.destroymt();
            }
        } thread_end{once};
        const auto started = std::chrono::steady_clock::now();
        {
            SearchCuts connect(p, model, node_cuts);
            o = search::run(model, s, all);
        }
        // The second search below gets what is left of the time limit, not the whole limit again.
        const double used = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        const bool time_left = s.maxtime <= 0 || used < s.maxtime;
        if (s.maxtime > 0) s.maxtime = std::max(s.maxtime - used, 1e-3);
        if (o.qp_stalled && time_left && !model.qrows.empty() && !model.lp.q_index.empty()) {
            // HiGHS's QP solver failed on a relaxation with cuts: the search starts again from the
            // root with the objective in a row, on LP relaxations. To the callbacks and the limits
            // it is one search: node numbers go on, the node, solution and iteration limits count
            // both runs, and the best solution found so far stays the incumbent.
            char line[400];
            std::snprintf(line, sizeof line,
                          "The QP solver failed on a node relaxation (cycling, or an unbounded answer among cuts) "
                          "after %lld nodes: solving again from the root "
                          "(node %lld) with the quadratic objective outer-approximated; node, solution, iteration "
                          "and time limits count both runs",
                          static_cast<long long>(o.nodes), static_cast<long long>(o.last_node + 1));
            emit_message(p, line, 3);
            epigraph_objective(model);
            s.earlier.last_node = o.last_node;
            s.earlier.nodes = o.nodes;
            s.earlier.solutions = o.solutions;
            s.earlier.lp_iterations = o.lp_iterations;
            if (o.have_solution && model.lp.ncol == static_cast<int>(o.x.size()) + 1) {
                // The objective's column takes the quadratic part's value at the incumbent.
                const search::QuadRow& q = model.qrows.back();
                double t = 0;
                for (const auto& e : q.quad) {
                    const int i = e.first.first, j = e.first.second;
                    t += (i == j ? 1.0 : 2.0) * e.second * o.x[static_cast<size_t>(i)] * o.x[static_cast<size_t>(j)];
                }
                s.earlier.incumbent = o.x;
                s.earlier.incumbent.push_back(t);
            }
            s.start.clear();  // offered to the first run already
            search::NodeCuts again_cuts;
            all.cuts = &again_cuts;
            SearchCuts connect(p, model, again_cuts);
            o = search::run(model, s, all);
        }
    }

    const size_t nn = static_cast<size_t>(n), mm = static_cast<size_t>(m);
    const double sign = model.lp.sign;
    r.simplexiter = o.lp_iterations;
    r.stopstatus = o.stop_reason;
    r.solvestatus = o.status == search::Status::Stopped && o.stop_reason != 0 ? TRVO_SOLVESTATUS_STOPPED
                                                                              : TRVO_SOLVESTATUS_COMPLETED;
    if (!o.exact)
        emit_message(p, "The tree search could not meet the feasibility tolerance on the quadratic rows at "
                        "some nodes: the solution is not proven optimal", 3, TRVO_MSG_QROW_ACCURACY);
    if (!mip) {
        switch (o.status) {
            case search::Status::Optimal: r.lpstatus = TRVO_LP_OPTIMAL; break;
            case search::Status::Infeasible: r.lpstatus = TRVO_LP_INFEAS; break;
            case search::Status::Unbounded: r.lpstatus = TRVO_LP_UNBOUNDED; break;
            default: r.lpstatus = TRVO_LP_UNFINISHED; break;
        }
        r.have_lp = o.have_solution;
        r.have_duals = o.have_solution && o.have_duals;
        if (o.have_solution) {
            r.x.assign(o.x.begin(), o.x.begin() + static_cast<long>(nn));
            slacks_at(p, r.x.data(), r.slack.data());
            r.lpobjval = objective_at(p, r.x.data());
            r.objval = r.lpobjval;
        }
        if (r.have_duals) {
            for (size_t j = 0; j < nn; ++j) r.dj[j] = sign * o.col_dual[j];
            for (size_t i = 0; i < mm; ++i) r.dual[i] = sign * o.row_dual[i];
        }
        r.bestbound = r.lpstatus == TRVO_LP_OPTIMAL ? r.lpobjval : sign * o.bound;
        if (mip_call) {
            switch (r.lpstatus) {
                case TRVO_LP_OPTIMAL: r.mipstatus = TRVO_MIP_OPTIMAL; break;
                case TRVO_LP_INFEAS: r.mipstatus = TRVO_MIP_INFEAS; break;
                case TRVO_LP_UNBOUNDED: r.mipstatus = TRVO_MIP_UNBOUNDED; break;
                default: r.mipstatus = r.have_lp ? TRVO_MIP_SOLUTION : TRVO_MIP_NO_SOL_FOUND; break;
            }
            r.have_mip = r.have_lp;
            if (r.have_mip) {
                r.mipx = r.x;
                r.mipslack = r.slack;
                r.mipobjval = r.mipbestobjval = r.lpobjval;
                r.mipsols = 1;
            }
        }
    } else {
        r.nodes = o.nodes;
        r.mipsols = o.solutions;
        switch (o.status) {
            case search::Status::Optimal: r.mipstatus = TRVO_MIP_OPTIMAL; break;
            case search::Status::Infeasible: r.mipstatus = TRVO_MIP_INFEAS; break;
            case search::Status::Unbounded: r.mipstatus = TRVO_MIP_UNBOUNDED; break;
            default: r.mipstatus = o.have_solution ? TRVO_MIP_SOLUTION : TRVO_MIP_NO_SOL_FOUND; break;
        }
        r.have_mip = o.have_solution;
        if (o.have_solution) {
            r.mipx.assign(o.x.begin(), o.x.begin() + static_cast<long>(nn));
            slacks_at(p, r.mipx.data(), r.mipslack.data());
            r.mipobjval = r.mipbestobjval = r.objval = objective_at(p, r.mipx.data());
        }
        r.bestbound = sign * o.bound;
        r.lpstatus = o.status == search::Status::Infeasible ? TRVO_LP_INFEAS
                     : o.status == search::Status::Unbounded ? TRVO_LP_UNBOUNDED
                                                             : TRVO_LP_OPTIMAL;
        r.have_lp = r.have_duals = false;
    }
    r.time = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    p->stop_request.store(0);
}

}  // namespace trvo
