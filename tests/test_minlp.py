"""Mixed-integer nonlinear problems: the NLP branch-and-bound against optima found by enumerating
the integer assignments (benchmarks/minlp_problems.py), honest statuses, node callbacks and
limits."""
import math
import pathlib
import re
import sys

import pytest

import tarvo as tv

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "benchmarks"))
import minlp_problems as mp  # noqa: E402

CONVEX = [n for n, f in mp.PROBLEMS.items() if f.convex]
NONCONVEX = [n for n, f in mp.PROBLEMS.items() if not f.convex]


pytestmark = pytest.mark.usefixtures("quiet")


def test_catalogue_size_and_published_optima():
    assert len(mp.PROBLEMS) >= 15 and len(CONVEX) >= 5 and len(NONCONVEX) >= 5
    # The enumeration reproduces the published optima of the two public examples.
    assert mp.reference("ex1221")[0] == pytest.approx(7.6672, abs=1e-4)
    assert mp.reference("ex1222")[0] == pytest.approx(1.0765, abs=1e-4)


@pytest.mark.parametrize("name", CONVEX)
def test_convex_problems_reach_the_proven_global_optimum(name):
    r = mp.solve(name, tv)
    assert r["status"] == "nlp_globally_optimal"
    assert mp.solved(name, r), (r, mp.reference(name))
    assert r["objective"] == pytest.approx(r["checked"], rel=1e-6, abs=1e-6)


def test_nonconvex_problems_report_local_solutions_and_mostly_reach_the_optimum():
    hits = 0
    for name in NONCONVEX:
        r = mp.solve(name, tv)
        # Never claimed global: the problem is not proven convex.
        assert r["status"] == "nlp_solution", name
        assert r["violation"] <= 1e-5, name
        best = mp.reference(name)[0]
        sense = mp.sense(name)
        # No local solution is better than the enumerated optimum.
        assert sense * r["checked"] >= sense * best - 1e-6 * max(1, abs(best)), name
        hits += mp.solved(name, r)
    assert hits >= math.ceil(0.8 * len(NONCONVEX))


def test_the_log_says_whether_the_optimum_is_global():
    lines = []
    for name in ("plant4", "trigint"):
        p, _ = mp.build(name, tv)
        p.setcbmessage(lambda prob, data, msg, msgtype: lines.append(msg))
        p.solve()
    text = "\n".join(m for m in lines if m)
    assert "the problem is convex" in text and "Global optimum" in text
    assert "not proven convex" in text and "not proven globally optimal" in text
    # The tangent cuts of plant4's convex rows close nodes before their SLP runs.
    closed = re.search(r"Outer approximation: (\d+) cuts of convex rows; (\d+) nodes closed", text)
    assert closed and int(closed.group(1)) > 0 and int(closed.group(2)) > 0


def test_unbounded_integer_columns_are_branched_on():
    # Both integer columns are free and start at 0; the optimum (8, -5) is far from it.
    for x0 in (0, 40):
        p, (x, y) = mp.build("unbounded_ints", tv)
        assert (x.lb, x.ub, y.lb, y.ub) == (-tv.infinity, tv.infinity) * 2
        p.chgvar(x, initvalue=x0)
        p.solve()
        assert p.getProbStatusString() == "nlp_globally_optimal"
        assert p.getSolution([x, y]) == pytest.approx(mp.reference("unbounded_ints")[1], abs=1e-6)


def test_integer_start_values_are_not_kept_when_a_better_assignment_exists():
    # min (n - 3.4)^2 + exp(-n) over an unbounded integer n, a continuous t with t >= log(n + 1)
    # pulling nothing: n = 3 against n = 4 decided by the exp term.
    n = tv.var(lb=-tv.infinity, vartype=tv.integer, name="n")
    p = tv.problem(n, (n - 3.4) ** 2 + tv.exp(-n))
    p.chgvar(n, initvalue=-7)
    p.solve()
    best = min(range(-20, 21), key=lambda k: (k - 3.4) ** 2 + math.exp(-k))
    assert p.getSolution(n) == pytest.approx(best)


def node_counts(name, **callbacks):
    p, xs = mp.build(name, tv)
    seen = {k: [] for k in ("prenode", "optnode", "slpnode")}
    for kind in seen:
        ret = callbacks.get(kind, 0)

        def cb(prob, data, kind=kind, ret=ret):
            x = []
            if kind != "prenode":
                prob.getslpsol(x)
            seen[kind].append(x)
            return ret(x) if callable(ret) else ret
        getattr(p, "setcb" + kind)(cb)
    p.solve()
    return p, xs, seen


def test_node_callbacks_fire_at_every_node_of_the_search():
    p, xs, seen = node_counts("knapsacklog")
    assert p.getProbStatusString() == "nlp_globally_optimal"
    assert p.getObjVal() == pytest.approx(mp.reference("knapsacklog")[0], rel=1e-6)
    n = len(seen["prenode"])
    assert n > 3
    # Every node that is not cut off before its relaxation is solved passes slpnode and optnode,
    # which see the node's relaxation solution: the root's is fractional.
    assert len(seen["slpnode"]) == len(seen["optnode"]) and 0 < len(seen["optnode"]) <= n
    root = seen["optnode"][0][:len(xs)]  # (the objective's transfer column follows)
    assert any(abs(v - round(v)) > 1e-4 for v in root)


def test_intsol_fires_for_each_new_incumbent():
    p, xs = mp.build("knapsacklog", tv)
    values = []

    def intsol(prob, data):
        x = []
        prob.getslpsol(x)
        values.append(mp.evaluate(mp.PROBLEMS["knapsacklog"], x[:len(xs)])[0])
        return 0
    p.setcbintsol(intsol)
    p.solve()
    # Each incumbent improves on the one before; the search's last is the optimum.
    assert values and values == sorted(values)
    assert values[-1] == pytest.approx(p.getObjVal(), rel=1e-4)


@pytest.mark.parametrize("kind", ["prenode", "optnode", "slpnode"])
def test_node_callbacks_can_declare_nodes_infeasible(kind):
    # Declaring every node infeasible leaves no solution; the run says so rather than
    # returning the start as a solution.
    p, _, seen = node_counts("plant4", **{kind: 1})
    assert len(seen[kind]) == 1
    assert p.getProbStatusString() in ("nlp_infeasible", "nlp_locally_infeasible")
    if kind == "prenode":
        assert seen["optnode"] == [] and seen["slpnode"] == []


def test_node_callbacks_fire_on_continuous_problems_at_the_one_node():
    x = tv.var(lb=-2, ub=2)
    p = tv.problem(x, tv.exp(x) - 2 * x)
    calls = []
    p.setcbprenode(lambda prob, data: calls.append("pre") or 0)
    p.setcboptnode(lambda prob, data: calls.append("opt") or 0)
    p.solve()
    assert calls == ["pre", "opt"]
    assert p.getSolution(x) == pytest.approx(math.log(2), abs=1e-5)
    assert p.getProbStatusString() == "nlp_globally_optimal"


def test_raising_node_callback_stops_the_search(capfd):
    p, _ = mp.build("knapsacklog", tv)

    def bad(prob, data):
        raise RuntimeError("node callback failed")
    p.setcboptnode(bad)
    with pytest.raises(RuntimeError, match="node callback failed"):
        p.solve()
    assert "Problem in callback, stopping optimization" in capfd.readouterr().err
    assert p.getProbStatusString() != "nlp_globally_optimal"


def test_node_limit_gives_an_honest_status():
    p, xs = mp.build("knapsacklog", tv)
    p.controls.maxnode = 1
    p.solve()
    status = p.getProbStatusString()
    assert status in ("nlp_solution", "nlp_unfinished")
    assert p.getAttrib("tslp_stopstatus") == 3  # node limit
    if status == "nlp_solution":
        # What is returned is a checked integer feasible point, however good.
        f, viol = mp.evaluate(mp.PROBLEMS["knapsacklog"], p.getSolution(xs))
        assert viol <= 1e-6 and f <= mp.reference("knapsacklog")[0] + 1e-9
    # Without the limit the same problem is solved to its proven optimum.
    p.controls.maxnode = 100000
    p.solve()
    assert p.getProbStatusString() == "nlp_globally_optimal"
    assert p.getAttrib("tslp_stopstatus") == 0


def test_time_limit_gives_an_honest_status():
    # Twenty integer columns of a separable convex objective with a coupling row: the limit
    # stops the search long before it could prove anything.
    k = 20
    xs = [tv.var(ub=9, vartype=tv.integer) for _ in range(k)]
    p = tv.problem(xs, tv.Sum(xs) <= 47.5,
                   tv.Sum(tv.exp(0.1 * (i % 5 + 1) * (x - 0.37 * i)) - 0.61 * x for i, x in enumerate(xs)))
    p.controls.tslp_maxtime = 0.05
    p.solve()
    assert p.getProbStatusString() in ("nlp_solution", "nlp_unfinished")
    assert p.getAttrib("tslp_stopstatus") == 1  # time limit


def test_reformulated_entities_still_solve_through_the_search():
    # A semi-integer column: 0 or an integer in [3, 8]; the objective wants 2.2 with an exp
    # penalty, so 0, 3 compete with the continuous optimum out of reach.
    s = tv.var(vartype=tv.semiinteger, threshold=3, ub=8, name="s")
    p = tv.problem(s, (s - 2.2) ** 2 + 0.5 * tv.exp(0.2 * s))
    p.solve()
    cands = [0] + list(range(3, 9))
    best = min(cands, key=lambda v: (v - 2.2) ** 2 + 0.5 * math.exp(0.2 * v))
    assert p.getSolution(s) == pytest.approx(best, abs=1e-6)
    assert p.getProbStatusString() == "nlp_globally_optimal"
    # A partial integer column: integral below 3, continuous in [3, 8].
    v = tv.var(vartype=tv.partiallyinteger, threshold=3, ub=8, name="v")
    q = tv.problem(v, (v - 1.6) ** 2 + tv.exp(0.1 * v) + 0.3 * tv.exp(-(v - 5.2) ** 2))
    q.solve()
    f = lambda t: (t - 1.6) ** 2 + math.exp(0.1 * t) + 0.3 * math.exp(-(t - 5.2) ** 2)
    grid = [0, 1, 2] + [3 + 5 * i / 20000 for i in range(20001)]
    assert q.getObjVal() == pytest.approx(min(map(f, grid)), abs=1e-6)
