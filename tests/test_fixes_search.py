"""The engine's tree search: the re-run after a QP relaxation failure is one search to its
callbacks and limits; cuts given to a branch stay in that branch's subtree; the problem's
scaling factors scale the relaxations without changing what the search reports."""
import itertools

import numpy as np
import pytest

import tarvo as tv

scipy_optimize = pytest.importorskip("scipy.optimize")


pytestmark = pytest.mark.usefixtures("quiet")


# ---- mixed-integer convex QCQPs on which HiGHS's QP solver fails ------------------------------
# The rows of Hock-Schittkowski 43 with its convex objective under other linear costs; x in
# [-10, 10], some columns integer. On these the QP relaxation with outer-approximation cuts
# fails (it cycles, or HiGHS calls the bounded QP unbounded), so the search runs again on LP
# relaxations with the objective in a row.
Q_OBJ = np.diag([1.0, 1.0, 2.0, 1.0])
ROWS = [(np.diag([1.0, 1, 1, 1]), np.array([1.0, -1, 1, -1]), -8.0),
        (np.diag([1.0, 2, 1, 2]), np.array([-1.0, 0, 0, -1]), -10.0),
        (np.diag([2.0, 1, 1, 0]), np.array([2.0, -1, 0, -1]), -5.0)]
# (linear cost, integer columns): the first fails after the root has branched, the others at
# the root (the second and third were reported mip_unbounded before).
CASES = [([-4.176, -5.528, -21.927, 9.46], [1, 3]),
         ([-6.407, -7.531, -22.247, 7.083], [1, 3]),
         ([-3.193, -4.812, -22.487, 5.157], [3])]


def quad(Q, a, c, xs):
    return c + sum(a[i] * xs[i] for i in range(4)) + sum(Q[i, i] * xs[i] * xs[i] for i in range(4))


def build(cost, ints, messages=None):
    xs = [tv.var(lb=-10, ub=10, vartype=tv.integer if j in ints else tv.continuous) for j in range(4)]
    p = tv.problem(xs, [quad(Q, a, c, xs) <= 0 for Q, a, c in ROWS], quad(Q_OBJ, cost, 0.0, xs))
    p.controls.maxtime = 60
    p.controls.miprelstop = 0
    p.controls.mipabsstop = 1e-9
    if messages is not None:
        p.controls.outputlog = 1
        p.addcbmessage(lambda prob, data, msg, mtype: messages.append(msg or ""))
    return p, xs


def enumerated_optimum(cost, ints):
    """Integers enumerated over the range the rows allow (|x| <= 3), the rest by SLSQP."""
    cost = np.asarray(cost)
    cont = [j for j in range(4) if j not in ints]
    f = lambda x: float(x @ Q_OBJ @ x + cost @ x)
    best = None
    for combo in itertools.product(range(-4, 5), repeat=len(ints)):
        def full(z, combo=combo):
            x = np.zeros(4)
            x[ints] = combo
            x[cont] = z
            return x
        cons = [{"type": "ineq", "fun": (lambda z, Q=Q, a=a, c=c: -(full(z) @ Q @ full(z) + a @ full(z) + c))}
                for Q, a, c in ROWS]
        for start in (np.zeros(len(cont)), np.full(len(cont), 0.5)):
            r = scipy_optimize.minimize(lambda z: f(full(z)), start, constraints=cons, method="SLSQP",
                                        bounds=[(-10, 10)] * len(cont), options={"ftol": 1e-12, "maxiter": 300})
            x = full(r.x)
            if r.success and all(x @ Q @ x + a @ x + c <= 1e-7 for Q, a, c in ROWS):
                best = r.fun if best is None else min(best, r.fun)
    return best


@pytest.mark.parametrize("cost,ints", CASES, ids=["after-branching", "unbounded-claim", "root"])
def test_bounded_models_whose_qp_relaxations_fail_are_solved_to_optimality(cost, ints):
    messages = []
    p, xs = build(cost, ints, messages)
    p.solve()
    assert any("solving again from the root" in m for m in messages)
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(enumerated_optimum(cost, ints), rel=1e-6, abs=1e-6)
    x = np.array(p.getSolution(xs))
    assert np.allclose(x[ints], np.round(x[ints]))
    for Q, a, c in ROWS:
        assert x @ Q @ x + a @ x + c <= 1e-6


class TestRerunIsOneSearch:
    def watch(self, p):
        seen = {"pre": 0, "opt": 0, "new": [], "thread": []}

        def count(kind):
            def cb(prob, data):
                seen[kind] += 1
                return 0
            return cb

        p.addcbprenode(count("pre"))
        p.addcboptnode(count("opt"))
        p.addcbnewnode(lambda prob, data, parent, node, branch: seen["new"].append((parent, node)))
        p.addcbmipthread(lambda prob, data, tprob: seen["thread"].append("start"))
        p.addcbdestroymt(lambda prob, data: seen["thread"].append("end"))
        return seen

    def test_node_numbers_go_on_and_the_worker_starts_and_ends_once(self):
        messages = []
        p, xs = build(*CASES[0], messages)
        seen = self.watch(p)
        p.solve()
        assert p.getProbStatusString() == "mip_optimal"
        rerun = [m for m in messages if "solving again from the root" in m]
        assert len(rerun) == 1
        second_root = int(rerun[0].split("(node ")[1].split(")")[0])
        assert second_root > 1  # the first run's root was node 1
        assert seen["thread"] == ["start", "end"]
        # Every node number is given once, the second run's after all of the first run's: its
        # root branches as second_root, never as node 1 again.
        children = [b for _, b in seen["new"]]
        assert len(children) == len(set(children))
        assert 1 not in children and second_root not in children
        second = [(a, b) for a, b in seen["new"] if b > second_root]
        assert second and second[0][0] == second_root
        assert all(a >= second_root for a, _ in second)
        # The node counts of both runs add up; a node whose relaxation failed was entered
        # (prenode) but not solved, and is not counted.
        assert p.attributes.nodes == seen["opt"]
        assert seen["pre"] - seen["opt"] in (0, 1)

    def test_node_limit_counts_both_runs(self):
        p, xs = build(*CASES[0])
        seen = self.watch(p)
        p.controls.maxnode = 2
        p.solve()
        # One node solved by the first run, at most one more by the second.
        assert p.attributes.nodes <= 2
        assert seen["opt"] <= 2
        assert p.attributes.stopstatus == tv.stop_nodelimit or p.getProbStatusString() == "mip_optimal"

    def test_iteration_limit_counts_both_runs(self):
        # The first run spends more than 5 iterations on the root before its QP solver fails:
        # the second run finds the budget spent and stops before its first node.
        messages = []
        q, _ = build(*CASES[1], messages)
        q.controls.lpiterlimit = 5
        q.solve()
        assert any("solving again from the root" in m for m in messages)
        assert q.attributes.stopstatus == tv.stop_iterlimit
        assert q.attributes.nodes == 0
        assert q.attributes.simplexiter > 5  # both runs' iterations are reported


# ---- cuts given to a branch -----------------------------------------------------------------

def knapsack():
    """max 5 x1 + 2 x2 + 2 x3 with 2 x1 + 2 x2 + 2 x3 <= 3, binaries (optimum 5 at x1 = 1).
    In the subtree x1 <= 0 the relaxation has x2 + x3 = 1.5, which x2 + x3 <= 1 cuts off."""
    x = [tv.var(vartype=tv.binary) for _ in range(3)]
    p = tv.problem(x, 2 * x[0] + 2 * x[1] + 2 * x[2] <= 3, 5 * x[0] + 2 * x[1] + 2 * x[2], sense=tv.maximize)
    p.controls.miprelstop = 0
    return p, x


def store(p, x, kind):
    handles = []
    p.storecuts(0, [kind], ["L"], [1.0], [0, 2], handles, [x[1], x[2]], [1.0, 1.0])
    return handles[0]


def node_cut_lists(p):
    after = []

    def optnode(prob, data):
        cuts, xs = [], []
        prob.getcutlist(-1, -1, 10, cuts)
        prob.getlpsol(xs, None, None, None)
        after.append((xs, cuts))
        return 0

    p.addcboptnode(optnode)
    return after


@pytest.mark.parametrize("how", ["branchobj", "setbranchcuts"])
def test_cut_given_to_one_branch_stays_out_of_the_other_subtree(how):
    p, x = knapsack()
    local = store(p, x, 1)
    after = node_cut_lists(p)
    calls = []

    if how == "branchobj":
        def chg(prob, data, bo):
            calls.append(1)
            if len(calls) > 1:
                return bo
            mine = tv.branchobj(prob, [x[0] <= 0, x[0] >= 1])
            mine.addcuts(1, [local])  # to the branch x1 >= 1 only
            mine.setpreferredbranch(0)
            return mine
        p.addcbchgbranchobject(chg)
    else:
        def newnode(prob, data, parent, node, branch):
            calls.append(node)
            if parent == 1 and branch == 1:
                prob.setbranchcuts([local])

        def down_first(prob, data, bo):
            if calls:
                return bo
            mine = tv.branchobj(prob, [x[0] <= 0, x[0] >= 1])  # the root branches on x1
            mine.setpreferredbranch(0)
            return mine
        p.addcbnewnode(newnode)
        p.addcbchgbranchobject(down_first)

    p.solve()
    assert p.getObjVal() == pytest.approx(5)
    down = [(xs, cuts) for xs, cuts in after[1:] if xs[0] < 0.5]
    assert down
    # The cut is violated in the other subtree (x2 + x3 = 1.5 there) but does not join it.
    assert any(xs[1] + xs[2] > 1 + 1e-6 for xs, _ in down)
    for xs, cuts in down:
        assert local not in cuts


def test_global_pool_cuts_still_join_where_violated_beside_a_local_one():
    p, x = knapsack()
    local = store(p, x, 1)
    shared = store(p, x, 2)  # the same row, a different cut: stays global
    assert local != shared
    after = node_cut_lists(p)
    calls = []

    def chg(prob, data, bo):
        calls.append(1)
        if len(calls) > 1:
            return bo
        mine = tv.branchobj(prob, [x[0] <= 0, x[0] >= 1])
        mine.addcuts(1, [local])
        mine.setpreferredbranch(0)
        return mine

    p.addcbchgbranchobject(chg)
    p.solve()
    assert p.getObjVal() == pytest.approx(5)
    down = [(xs, cuts) for xs, cuts in after[1:] if xs[0] < 0.5]
    assert down
    # The global cut came in where the relaxation violated it; the local one did not.
    assert any(shared in cuts for _, cuts in down)
    for xs, cuts in down:
        assert local not in cuts
        if shared in cuts:
            assert xs[1] + xs[2] <= 1 + 1e-6


# ---- scaling factors in the tree search -----------------------------------------------------

def miqp(scaled, messages=None):
    """A small mixed-integer QP with rows of mixed magnitudes (the tree search takes it)."""
    x = [tv.var(lb=-20, ub=20, vartype=tv.integer)] + [tv.var(lb=-1e3, ub=1e3) for _ in range(3)]
    rows = [1000 * x[1] + 2 * x[2] - x[3] <= 1500,
            x[0] + 0.001 * x[1] + x[2] >= 2.5,
            x[1] - 3 * x[3] == 1.0]
    obj = (x[0] - 1.3) ** 2 + 2 * x[1] * x[1] + x[2] * x[2] + 0.5 * x[3] * x[3] - 10 * x[1] + x[2] * x[3]
    p = tv.problem(x, rows, obj)
    if scaled:
        p.scale([-10, 0, 3], [0, 8, -5, 2])
    if messages is not None:
        p.controls.outputlog = 1
        p.addcbmessage(lambda prob, data, msg, mtype: messages.append(msg or ""))
    return p, x, rows


def qcqp(scaled):
    x = [tv.var(lb=-50, ub=50) for _ in range(3)]
    rows = [x[0] * x[0] + 4 * x[1] * x[1] + 100 * x[2] * x[2] <= 9, 1000 * x[0] + x[1] >= -500]
    p = tv.problem(x, rows, -x[0] - 2 * x[1] - 3 * x[2])
    if scaled:
        p.scale([4, -9], [-3, 2, 6])
    return p, x, rows


def test_scaled_mixed_integer_qp_gives_the_unscaled_answer():
    messages = []
    p, x, rows = miqp(True, messages)
    p.solve()
    q, y, _ = miqp(False)
    q.solve()
    assert p.getProbStatusString() == q.getProbStatusString() == "mip_optimal"
    assert any("scaled by the problem's scaling factors" in m for m in messages)
    assert p.getObjVal() == pytest.approx(q.getObjVal(), rel=1e-7, abs=1e-7)
    assert p.getSolution(x) == pytest.approx(q.getSolution(y), rel=1e-5, abs=1e-6)
    slack = p.getSlack(rows)
    assert slack[2] == pytest.approx(0, abs=1e-6)


def test_scaled_relaxations_reach_callbacks_in_model_units():
    seen = {}
    for scaled in (False, True):
        p, x, rows = miqp(scaled)
        sols = []

        def optnode(prob, data):
            xs = []
            prob.getlpsol(xs, None, None, None)
            lo, up = [], []
            prob.getlb(lo, 0, 3)
            prob.getub(up, 0, 3)
            sols.append((xs, lo, up))
            return 0

        p.addcboptnode(optnode)
        p.solve()
        seen[scaled] = sols
    # The root's relaxation solution and bounds, as the callbacks see them, do not depend on
    # the scaling.
    # (Scaled factors of 2^-5 to 2^8 would show; the QP's own tolerances do not.)
    assert seen[True][0][0] == pytest.approx(seen[False][0][0], rel=1e-3, abs=1e-6)
    assert seen[True][0][1:] == seen[False][0][1:]


def test_scaled_qcqp_gives_the_unscaled_point_and_duals():
    p, x, rows = qcqp(True)
    p.solve()
    q, y, qrows = qcqp(False)
    q.solve()
    assert p.getProbStatusString() == q.getProbStatusString() == "lp_optimal"
    assert p.getObjVal() == pytest.approx(q.getObjVal(), rel=1e-7)
    assert p.getSolution(x) == pytest.approx(q.getSolution(y), rel=1e-5, abs=1e-6)
    assert p.getDual(rows) == pytest.approx(q.getDual(qrows), rel=1e-4, abs=1e-6)
    assert p.getRCost(x) == pytest.approx(q.getRCost(y), rel=1e-4, abs=1e-6)
