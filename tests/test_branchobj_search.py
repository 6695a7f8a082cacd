"""Branching objects driving the engine's tree search: objects returned from chgbranchobject
(bounds and rows), objects stored from a callback or before the solve, preferred branches,
rows that belong to one subtree only, and the errors of objects the search cannot use."""
import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


def pair_problem():
    """max x1 + x2 with 2 x1 + 2 x2 <= 3, binaries: the root relaxation has x1 + x2 = 1.5."""
    x1 = tv.var(vartype=tv.binary, name="x1")
    x2 = tv.var(vartype=tv.binary, name="x2")
    p = tv.problem(x1, x2, 2 * x1 + 2 * x2 <= 3, x1 + x2, sense=tv.maximize)
    p.controls.miprelstop = 0
    return p, x1, x2


def record_nodes(p):
    created, seen = [], []
    p.addcbnewnode(lambda prob, data, parent, node, branch: created.append((parent, node, branch)))

    def optnode(prob, data):
        xs = []
        prob.getlpsol(xs, None, None, None)  # the node's relaxation solution
        seen.append(xs)
        return 0

    p.addcboptnode(optnode)
    return created, seen


def test_chgbranchobject_row_branch_drives_the_search():
    p, x1, x2 = pair_problem()
    created, seen = record_nodes(p)
    calls = []

    def chg(prob, data, bo):
        calls.append(bo.getbranches())
        if len(calls) > 1:
            return bo
        return tv.branchobj(prob, [x1 + x2 <= 1, x1 + x2 >= 2])

    p.addcbchgbranchobject(chg)
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(1)
    # The root split into the two row branches; the row x1 + x2 <= 1 makes child 2 integral.
    assert created[:2] == [(1, 2, 0), (1, 3, 1)]
    assert len(calls) == 1 and calls[0] == 2
    assert p.attributes.nodes == 3 and len(created) == 2
    child_sums = sorted(round(sum(s), 6) for s in seen[1:])
    assert child_sums == [1.0]  # the >= 2 child is infeasible and never reaches optnode


def test_rows_of_a_branch_leave_with_its_subtree():
    # max 2x + y, x + y <= 3.5 over integers: the optimum x = 3, y = 0 lies in the branch x - y >= 1.
    # The preferred child x - y <= 0 is explored (and branched on) first; its row must be gone
    # when the search jumps to the sibling, else the optimum is lost.
    x = tv.var(vartype=tv.integer, ub=10, name="x")
    y = tv.var(vartype=tv.integer, ub=10, name="y")
    p = tv.problem(x, y, 2 * x + 2 * y <= 7, 2 * x + y, sense=tv.maximize)
    p.controls.miprelstop = 0
    created, seen = record_nodes(p)
    first = []

    def chg(prob, data, bo):
        if first:
            return bo
        mine = tv.branchobj(prob, [x - y <= 0, x - y >= 1])
        mine.setpreferredbranch(0)
        first.append(mine.getid())
        return mine

    p.addcbchgbranchobject(chg)
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(6)
    assert p.getSolution([x, y]) == pytest.approx([3, 0])
    # The first node after the root is the preferred child, where x <= y holds.
    assert seen[1][0] <= seen[1][1] + 1e-7
    assert created[0] == (1, 2, 0) and created[1] == (1, 3, 1)
    # Child 2 was branched on before the search came back to child 3.
    assert any(parent == 2 for parent, _, _ in created)


def test_preferred_branch_is_explored_first():
    for preferred, expect in ((0, 1.0), (1, 0.0)):
        p, x1, x2 = pair_problem()
        created, seen = record_nodes(p)

        def chg(prob, data, bo, preferred=preferred):
            if len(created) > 0:
                return bo
            mine = tv.branchobj(prob, [x1 == 1, x1 == 0])
            mine.setpreferredbranch(preferred)
            return mine

        p.addcbchgbranchobject(chg)
        p.solve()
        assert p.getObjVal() == pytest.approx(1)
        assert seen[1][0] == pytest.approx(expect)


def test_object_stored_from_optnode_drives_the_next_branching():
    x = tv.var(vartype=tv.integer, ub=10, name="x")
    p = tv.problem(x, 2 * x <= 7, x, sense=tv.maximize)
    p.controls.miprelstop = 0
    created = []
    p.addcbnewnode(lambda prob, data, parent, node, branch: created.append((parent, node, branch)))
    ids = []

    def optnode(prob, data):
        if not ids:
            bo = tv.branchobj(prob, [x <= 1, x == 2, x >= 3])
            ids.append(bo.store())
            assert bo.getid() is None
        return 0

    p.addcboptnode(optnode)
    p.solve()
    assert p.getProbStatusString() == "mip_optimal" and p.getObjVal() == pytest.approx(3)
    assert created[:3] == [(1, 2, 0), (1, 3, 1), (1, 4, 2)]
    assert ids and ids[0] > 0


def test_object_stored_before_the_solve_runs_our_search():
    # A plain MIP would go to HiGHS; a stored object makes the search run and use it at the root.
    x = tv.var(vartype=tv.integer, ub=10, name="x")
    y = tv.var(vartype=tv.integer, ub=10, name="y")
    p = tv.problem(x, y, 2 * x + 2 * y <= 7, 2 * x + y, sense=tv.maximize)
    p.controls.miprelstop = 0
    low = tv.branchobj(p, [x + y <= 2, x + y >= 3])
    low.setpriority(5)
    high = tv.branchobj(p, [[x <= 1, y <= 1], [x >= 2], [x <= 1, y >= 2]])
    high.setpriority(1)
    low.store()
    high.store()
    created = []
    p.addcbnewnode(lambda prob, data, parent, node, branch: created.append((parent, node, branch)))
    p.solve()
    assert p.getObjVal() == pytest.approx(6)
    # The object of better (lower) priority splits the root into its three branches; the
    # other is used at the next node branched on.
    assert created[:3] == [(1, 2, 0), (1, 3, 1), (1, 4, 2)]
    assert sum(1 for parent, _, _ in created if parent == 1) == 3
    # Stored objects do not outlive the solve: a second solve branches on its own.
    created.clear()
    p.solve()
    assert p.getObjVal() == pytest.approx(6)
    assert sum(1 for parent, _, _ in created if parent == 1) <= 2


def test_stored_objects_with_treesearch_never_is_an_error():
    p, x1, x2 = pair_problem()
    p.controls.treesearch = 2
    tv.branchobj(p, [x1 <= 0, x1 >= 1]).store()
    with pytest.raises(tv.SolverError, match="only the tree search can honour"):
        p.solve()


def test_an_object_the_search_cannot_use_stops_with_its_reason():
    p, x1, x2 = pair_problem()
    other, y1, _ = pair_problem()

    def chg(prob, data, bo):
        return tv.branchobj(other, [y1 <= 0, y1 >= 1])

    p.addcbchgbranchobject(chg)
    with pytest.raises(tv.SolverError, match="belongs to another problem"):
        p.solve()
    q, z1, _ = pair_problem()
    q.addcbchgbranchobject(lambda prob, data, bo: tv.branchobj(prob))  # no branches
    with pytest.raises(tv.SolverError, match="no branches"):
        q.solve()


def test_chgbranchobject_sees_the_proposed_column_and_may_edit_it():
    p, x1, x2 = pair_problem()
    created, seen = record_nodes(p)
    proposals = []

    def chg(prob, data, bo):
        if proposals:
            return bo
        t, c, v = [], [], []
        n = [bo.getbounds(i, 4, t, c, v) for i in range(bo.getbranches())]
        proposals.append((n, list(t), [str(var) for var in c], list(v)))
        # Give the down branch a row as well: it is carried out with the bounds.
        bo.addrows(0, ["L"], [0.0], [0], [x1, x2], [1.0, -1.0])
        return bo

    p.addcbchgbranchobject(chg)
    p.solve()
    assert p.getObjVal() == pytest.approx(1)
    (counts, types, cols, vals), = proposals
    assert counts == [1, 1] and cols[0] in ("x1", "x2")
    assert set(types) <= {"U", "L"}


def test_an_object_that_leaves_the_node_unchanged_is_refused():
    # At a node where x1 is already 0, the branch x1 <= 0 would repeat the node without end.
    p, x1, x2 = pair_problem()
    p.addcbchgbranchobject(lambda prob, data, bo: tv.branchobj(prob, [x1 <= 0, x1 >= 1]))
    with pytest.raises(tv.SolverError, match="does not change the node"):
        p.solve()


def test_proposals_on_reformulation_columns_can_be_kept():
    # SOS1 sets reach the search as extra binary columns the user never sees; a proposal that
    # branches on one must still go back to the search intact.
    xs = [tv.var(ub=4, name="s%d" % i) for i in range(4)]
    k = tv.var(vartype=tv.integer, ub=5, name="k")
    p = tv.problem(xs, k, tv.sos(xs, [1, 2, 3, 4], type=1), tv.Sum(xs) + k <= 6.5, 2 * k <= 7,
                   tv.Sum((i + 1) * x for i, x in enumerate(xs)) + k, sense=tv.maximize)
    p.controls.miprelstop = 0
    ref = tv.problem(xs, k, tv.sos(xs, [1, 2, 3, 4], type=1), tv.Sum(xs) + k <= 6.5, 2 * k <= 7,
                     tv.Sum((i + 1) * x for i, x in enumerate(xs)) + k, sense=tv.maximize)
    ref.controls.miprelstop = 0
    ref.solve()
    seen = []

    def keep(prob, data, bo):
        seen.append(bo.getbranches())
        return bo

    p.addcbchgbranchobject(keep)
    p.solve()
    assert seen and p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(ref.getObjVal())


def test_an_object_stored_at_a_node_that_is_not_branched_is_not_used_elsewhere():
    # Stored at every node whose relaxation is integral (so never branched on): the search must
    # carry on with its own decisions and still reach the optimum.
    x = tv.var(vartype=tv.integer, ub=10, name="x")
    y = tv.var(vartype=tv.integer, ub=10, name="y")
    p = tv.problem(x, y, 2 * x + 2 * y <= 7, 2 * x + y, sense=tv.maximize)
    p.controls.miprelstop = 0
    created = []
    p.addcbnewnode(lambda prob, data, parent, node, branch: created.append((parent, node, branch)))

    def optnode(prob, data):
        xs = []
        prob.getlpsol(xs, None, None, None)
        if all(abs(v - round(v)) < 1e-9 for v in xs):
            tv.branchobj(prob, [[x <= 0, y <= 0], [x >= 10], [x == 5]]).store()
        return 0

    p.addcboptnode(optnode)
    p.solve()
    assert p.getObjVal() == pytest.approx(6)
    assert created and all(branch in (0, 1) for _, _, branch in created)  # never the 3-way object


def test_chgbranchobject_returning_none_stops_with_its_message(capfd):
    p, x1, x2 = pair_problem()
    created = []
    p.addcbnewnode(lambda prob, data, parent, node, branch: created.append((parent, node, branch)))
    p.addcbchgbranchobject(lambda prob, data, bo: None)
    p.solve()
    err = capfd.readouterr().err
    assert "returned object from chgbranchobject() should be a branching object\n" in err
    assert p.getProbStatusString() != "mip_optimal"
    assert p.attributes.stopstatus == 9  # stopped by the user side
    assert p.attributes.nodes == 1 and created == []  # no child was made after the refusal
