"""Node-level callbacks from Python, served by the engine's tree search: preintsol rejection and
cutoffs, optnode and infnode against the node count, prenode declaring nodes infeasible, newnode
and nodecutoff numbering, mipthread/destroymt, chgbranchobject keeping the search's decision, and
node callbacks on a model that needs the search anyway (a convex MIQP)."""
import numpy as np
import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


def knapsack(seed=4, n=16, fix0=False):
    rng = np.random.default_rng(seed)
    w = rng.integers(10, 60, n)
    v = w + rng.integers(0, 25, n)
    v[0] = 3 * w[0]  # item 0 is the most attractive: the optimum takes it
    x = [tv.var(vartype=tv.binary, ub=0 if (fix0 and j == 0) else 1) for j in range(n)]
    p = tv.problem(x, tv.Sum(int(w[j]) * x[j] for j in range(n)) <= int(w.sum() * 0.35),
                   tv.Sum(int(v[j]) * x[j] for j in range(n)), sense=tv.maximize)
    p.controls.miprelstop = 0
    p.controls.mipabsstop = 1e-9
    return p, x


@pytest.mark.parametrize("seed", [1, 2, 3])
def test_preintsol_rejecting_x0_gives_the_best_solution_without_it(seed):
    free, _ = knapsack(seed)
    free.solve()
    fixed, _ = knapsack(seed, fix0=True)
    fixed.solve()
    assert free.getObjVal() > fixed.getObjVal()  # the rejection matters
    p, x = knapsack(seed)
    offered = []

    def preintsol(prob, data, soltype, cutoff):
        sol = prob.getSolution(x)
        offered.append((soltype, sol[0]))
        return (1 if sol[0] > 0.5 else None, None)

    p.addcbpreintsol(preintsol)
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(fixed.getObjVal())
    assert p.getSolution(x)[0] == 0
    assert any(v > 0.5 for _, v in offered) and any(v < 0.5 for _, v in offered)
    assert {t for t, _ in offered} <= {0, 1}


def test_preintsol_cutoff_prunes_the_search():
    p, x = knapsack(2)
    p.controls.treesearch = 1
    p.solve()
    opt, nodes = p.getObjVal(), p.attributes.nodes
    # The optimum as cutoff from the first candidate on: nodes that cannot reach it are dropped
    # (maximising: nodes whose bound is below it), the optimum itself is still found.
    q, _ = knapsack(2)
    q.addcbpreintsol(lambda prob, data, soltype, cutoff: (None, opt))
    q.solve()
    assert q.getProbStatusString() == "mip_optimal"
    assert q.getObjVal() == pytest.approx(opt)
    assert q.attributes.nodes <= nodes
    # A cutoff above the optimum leaves no solution but the ones already accepted.
    r, _ = knapsack(2)
    r.addcbpreintsol(lambda prob, data, soltype, cutoff: (1, opt + 1))
    r.solve()
    assert r.getProbStatusString() == "mip_infeas"


def test_optnode_and_infnode_account_for_every_node():
    p, x = knapsack(5, n=20)
    counts = {"pre": 0, "opt": 0, "inf": 0}

    def count(kind, result=0):
        def f(prob, data):
            counts[kind] += 1
            return result
        return f

    p.addcbprenode(count("pre"))
    p.addcboptnode(count("opt"))
    p.addcbinfnode(count("inf"))
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    nodes = p.attributes.nodes
    assert nodes > 1
    assert counts["pre"] == nodes
    assert counts["opt"] + counts["inf"] == nodes
    # Same optimum as HiGHS's own search.
    q, _ = knapsack(5, n=20)
    q.solve()
    assert p.getObjVal() == pytest.approx(q.getObjVal())


def test_prenode_declaring_every_node_but_the_root_infeasible():
    for seed in (1, 2, 3, 4):
        p, x = knapsack(seed)
        calls = []
        sols = []
        p.addcbprenode(lambda prob, data: (calls.append(1), 0 if len(calls) == 1 else 1)[1])
        p.addcbintsol(lambda prob, data: sols.append(len(calls)))
        p.solve()
        # Only solutions found at the root (by its relaxation or heuristics) can exist.
        assert p.getProbStatusString() in ("mip_infeas", "mip_optimal")
        assert all(c == 1 for c in sols)
        if p.getProbStatusString() == "mip_optimal":
            assert sols
        assert p.attributes.nodes <= 3


def test_optnode_returning_infeasible_at_the_root():
    p, x = knapsack(3)
    p.addcboptnode(lambda prob, data: 1)
    p.solve()
    assert p.attributes.nodes == 1
    assert p.getProbStatusString() in ("mip_infeas", "mip_optimal")


def test_newnode_nodecutoff_and_thread_events():
    p, x = knapsack(6, n=20)
    created, processed, cut, thread = {}, [], [], []
    p.addcbnewnode(lambda prob, data, parent, node, branch: created.__setitem__(node, (parent, branch)))
    p.addcbprenode(lambda prob, data: (processed.append(len(processed)), 0)[1])
    p.addcbnodecutoff(lambda prob, data, node: cut.append(node))
    p.addcbmipthread(lambda prob, data, tprob: thread.append("start"))
    p.addcbdestroymt(lambda prob, data: thread.append("end"))
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    assert thread == ["start", "end"]
    # Children are numbered after their parents, each created once, branches 0 and 1.
    assert all(parent < node and branch in (0, 1) for node, (parent, branch) in created.items())
    assert 1 not in created
    assert len(processed) == p.attributes.nodes <= len(created) + 1
    assert all(node == 1 or node in created for node in cut)


def test_chgbranchobject_keeping_and_refusing():
    p, x = knapsack(2)
    seen = []

    def keep(prob, data, bo):
        seen.append(bo)
        return bo

    p.addcbchgbranchobject(keep)
    p.solve()
    assert p.getProbStatusString() == "mip_optimal" and seen
    q, _ = knapsack(2)
    ref, _ = knapsack(2)
    ref.solve()
    assert p.getObjVal() == pytest.approx(ref.getObjVal())
    # None is not a branching object: the solve stops with the callback's message.
    q.addcbchgbranchobject(lambda prob, data, bo: None)
    try:
        q.solve()
    except tv.SolverError:
        pass
    assert q.getProbStatusString() != "mip_optimal"


def test_node_callbacks_on_a_convex_miqp():
    # Integer least squares: the search runs anyway; optnode sees its nodes.
    rng = np.random.default_rng(1)
    A = rng.normal(size=(6, 3))
    b = rng.normal(size=6) * 3
    z = [tv.var(vartype=tv.integer, lb=-5, ub=5) for _ in range(3)]
    res = [tv.Sum(float(A[i, j]) * z[j] for j in range(3)) - float(b[i]) for i in range(6)]
    p = tv.problem(z, tv.Sum(r * r for r in res))
    p.controls.miprelstop = 0
    seen = []
    p.addcboptnode(lambda prob, data: (seen.append(1), 0)[1])
    p.addcbinfnode(lambda prob, data: seen.append(0))
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    assert len(seen) == p.attributes.nodes


def test_a_raising_node_callback_stops_the_search(capfd):
    p, x = knapsack(5, n=20)

    class Stop(Exception):
        pass

    calls, later = [], []

    def bad(prob, data):
        calls.append(1)
        raise Stop("from optnode")

    p.addcboptnode(bad)
    p.addcbnewnode(lambda prob, data, parent, node, branch: later.append(1))
    p.addcbprenode(lambda prob, data: (later.append(1) if calls else None, 0)[1])
    with pytest.raises(Stop, match="from optnode"):
        p.solve()
    assert calls == [1] and later == []  # no callback entered after the raise
    assert p.attributes.stopstatus == 9
    p.removecboptnode()
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
