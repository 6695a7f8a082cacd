"""Pool cuts carried by the branches of a branching object: active rows of their child and its
subtree from the child's first relaxation on, and the errors of cuts the object cannot carry."""
import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


def knapsack():
    """max 5 x1 + 2 x2 + 2 x3 with 2 x1 + 2 x2 + 2 x3 <= 3, binaries (optimum 5 at x1 = 1).

    The root relaxation is x1 = 1, x2 + x3 = 0.5. In the child x1 <= 0 it is x2 + x3 = 1.5,
    which the valid cut x2 + x3 <= 1 removes; the root's own optimum does not violate it, so
    the search's separation of pool cuts does not bring it in at the root."""
    x = [tv.var(vartype=tv.binary, name=f"x{j + 1}") for j in range(3)]
    p = tv.problem(x, 2 * x[0] + 2 * x[1] + 2 * x[2] <= 3, 5 * x[0] + 2 * x[1] + 2 * x[2], sense=tv.maximize)
    p.controls.miprelstop = 0
    handles = []
    p.storecuts(0, [7], ["L"], [1.0], [0, 2], handles, [x[1], x[2]], [1.0, 1.0])
    return p, x, handles[0]


def watch(p):
    """Cut lists seen by prenode (before the node's relaxation is solved) and, with the node's
    solution, by optnode."""
    before, after = [], []

    def prenode(prob, data):
        cuts = []
        prob.getcutlist(-1, -1, 10, cuts)
        before.append(cuts)
        return 0

    def optnode(prob, data):
        cuts, xs = [], []
        prob.getcutlist(-1, -1, 10, cuts)
        prob.getlpsol(xs, None, None, None)
        after.append((xs, cuts))
        return 0

    p.addcbprenode(prenode)
    p.addcboptnode(optnode)
    return before, after


def test_cut_of_a_branch_is_active_in_its_child_and_subtree_only():
    p, x, cut = knapsack()
    before, after = watch(p)
    created, calls = [], []
    p.addcbnewnode(lambda prob, data, parent, node, branch: created.append((parent, node, branch)))

    def chg(prob, data, bo):
        calls.append(1)
        if len(calls) > 1:
            return bo
        mine = tv.branchobj(prob, [x[0] <= 0, x[0] >= 1])
        mine.addcuts(0, [cut])
        mine.setpreferredbranch(0)
        return mine

    p.addcbchgbranchobject(chg)
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(5)
    assert p.getSolution(x) == pytest.approx([1, 0, 0])
    assert created[:2] == [(1, 2, 0), (1, 3, 1)]
    # The root has no cut; the preferred child 0, processed next, has it before its first solve.
    assert before[0] == [] and before[1] == [cut]
    root_x, root_cuts = after[0]
    assert root_cuts == [] and root_x[1] + root_x[2] == pytest.approx(0.5)
    in_child0 = [(xs, cuts) for xs, cuts in after[1:] if xs[0] < 0.5]
    in_child1 = [(xs, cuts) for xs, cuts in after[1:] if xs[0] > 0.5]
    assert in_child0 and in_child1
    # The cut removed the child's fractional optimum x2 + x3 = 1.5; the other subtree never
    # violates it, so it stays out there.
    for xs, cuts in in_child0:
        assert cuts == [cut] and xs[1] + xs[2] <= 1 + 1e-6
    for xs, cuts in in_child1:
        assert cut not in cuts


def test_cut_of_a_stored_object_joins_the_first_branching():
    p, x, cut = knapsack()
    before, _ = watch(p)
    bo = tv.branchobj(p, [x[0] <= 0, x[0] >= 1])
    bo.addcuts(0, [cut, cut])  # given twice, carried once
    bo.setpreferredbranch(0)
    bo.store()
    p.solve()
    assert p.getObjVal() == pytest.approx(5)
    assert before[:2] == [[], [cut]]


def test_chgbranchobject_sees_and_keeps_the_cuts_of_a_stored_object():
    # The stored object becomes the search's decision; the object chgbranchobject receives
    # carries its cut on and returning it keeps the cut with the branch.
    p, x, cut = knapsack()
    before, _ = watch(p)
    bo = tv.branchobj(p, [x[0] <= 0, x[0] >= 1])
    bo.addcuts(0, [cut])
    bo.setpreferredbranch(0)
    bo.store()
    p.addcbchgbranchobject(lambda prob, data, obj: obj)
    p.solve()
    assert p.getObjVal() == pytest.approx(5)
    assert before[:2] == [[], [cut]]


def test_bad_cuts_for_a_branch():
    p, x, cut = knapsack()
    other, _, foreign = knapsack()
    bo = tv.branchobj(p, [x[0] <= 0, x[0] >= 1])
    with pytest.raises(tv.SolverError, match="Branch 2 does not exist"):
        bo.addcuts(2, [cut])
    with pytest.raises(tv.SolverError, match="Unknown cut"):
        bo.addcuts(0, [foreign])
    gone = []
    p.storecuts(0, [1], ["L"], [1.0], [0, 2], gone, [x[0], x[1]], [1.0, 1.0])
    p.delcpcuts(-1, -1, gone)
    with pytest.raises(tv.SolverError, match="Unknown cut"):
        bo.addcuts(1, [cut, gone[0]])
    # A failed call adds nothing: the object is still usable and carries no cut.
    assert bo.getlasterror()[0] != 0
    with pytest.raises(tv.ModelError):
        bo.addcuts(0, ["not a cut"])
    assert bo.validate() == 0
    # A branch made of cuts alone is a branch.
    only = tv.branchobj(p)
    only.addbranches(1)
    assert only.validate() != 0
    only.addcuts(0, [cut])
    assert only.validate() == 0


def test_cut_deleted_before_the_branching_stops_the_solve():
    p, x, cut = knapsack()

    def chg(prob, data, bo):
        mine = tv.branchobj(prob, [x[0] <= 0, x[0] >= 1])
        mine.addcuts(0, [cut])
        prob.delcpcuts(-1, -1, [cut])  # stale by the time the search reads the object
        return mine

    p.addcbchgbranchobject(chg)
    with pytest.raises(tv.SolverError, match="Unknown cut"):
        p.solve()


def test_branch_whose_cut_is_already_active_does_not_change_the_node():
    p, x, cut = knapsack()
    calls = []

    def optnode(prob, data):
        if not calls:
            prob.loadcuts(-1, -1, [cut])  # active at the root and its whole subtree
        calls.append(1)
        return 0

    def chg(prob, data, bo):
        mine = tv.branchobj(prob)
        mine.addbranches(2)
        mine.addcuts(0, [cut])
        mine.addbounds(1, ["L"], [x[0]], [1.0])
        return mine

    p.addcboptnode(optnode)
    p.addcbchgbranchobject(chg)
    with pytest.raises(tv.SolverError, match="does not change the node"):
        p.solve()
