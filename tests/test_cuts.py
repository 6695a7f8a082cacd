"""Cuts from callbacks and the cut pool on the engine's tree search: a cover cut added at the
nodes of a knapsack (visible in getcutlist, fewer nodes, the optimum proved), pool cuts applied
where violated, cut queries at a node, branching extras, and the methods' messages."""
import numpy as np
import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


def knapsack(seed, n=18):
    rng = np.random.default_rng(seed)
    w = rng.integers(20, 60, n)
    v = w + rng.integers(0, 10, n)  # values close to weights: a weak relaxation
    cap = int(w.sum() // 2) + 1
    x = [tv.var(vartype=tv.binary) for _ in range(n)]
    p = tv.problem(x, tv.Sum(int(w[j]) * x[j] for j in range(n)) <= cap,
                   tv.Sum(int(v[j]) * x[j] for j in range(n)), sense=tv.maximize)
    p.controls.treesearch = 1
    p.controls.miprelstop = 0
    p.controls.mipabsstop = 1e-9
    return p, x, w, v, cap


def brute_force(w, v, cap):
    # Dynamic programming over the capacity.
    table = [0] * (cap + 1)
    for j in range(len(w)):
        for c in range(cap, int(w[j]) - 1, -1):
            table[c] = max(table[c], table[c - int(w[j])] + int(v[j]))
    return table[cap]


def lp_x(prob):
    """The node's relaxation solution, read inside a node callback."""
    xs = []
    prob.getlpsol(xs)
    return xs


def violated_cover(xs, w, cap):
    """A cover whose inequality sum(x_C) <= |C| - 1 the point xs violates, or None."""
    order = sorted(range(len(w)), key=lambda j: (1 - xs[j]) / w[j])
    cover, weight = [], 0
    for j in order:
        cover.append(j)
        weight += w[j]
        if weight > cap:
            break
    else:
        return None
    if sum(xs[j] for j in cover) > len(cover) - 1 + 1e-6:
        return cover
    return None


def solve_with_covers(seed):
    p, x, w, v, cap = knapsack(seed)
    seen = {"added": 0, "listed": []}

    def optnode(prob, data):
        xs = lp_x(prob)
        cover = violated_cover(xs, w, cap)
        if cover is None:
            return 0
        prob.addcuts([1], ["L"], [len(cover) - 1], [0, len(cover)], [x[j] for j in cover], [1.0] * len(cover))
        listed = []
        prob.getcutlist(-1, -1, 100, listed)
        seen["listed"].append(len(listed))
        seen["added"] += 1
        return 0

    p.addcboptnode(optnode)
    p.solve()
    return p, x, w, v, cap, seen


@pytest.mark.parametrize("seed", [3, 7])
def test_cover_cuts_from_optnode_prove_the_optimum_with_fewer_nodes(seed):
    p, x, w, v, cap, seen = solve_with_covers(seed)
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(brute_force(w, v, cap))
    assert seen["added"] > 0
    # Each cut added shows in the node's list at once.
    assert all(n >= 1 for n in seen["listed"])

    plain, *_ = knapsack(seed)
    plain.addcboptnode(lambda prob, data: 0)
    plain.solve()
    assert plain.getObjVal() == pytest.approx(p.getObjVal())
    assert p.attributes.nodes < plain.attributes.nodes


def test_cut_at_a_node_is_listed_mapped_and_measured_there():
    p, x, w, v, cap = knapsack(3, n=10)
    checks = []

    def optnode(prob, data):
        before = []
        prob.getcutlist(-1, -1, 10, before)
        if before:
            cut = before[0]
            mapped = []
            prob.getcutmap([cut], mapped)
            slack = prob.getcutslack(cut)
            checks.append((len(before), mapped[0], slack))
            return 0
        # A cut the relaxation violates: all items sum to at most 1.
        prob.addcuts([5], ["L"], [1.0], [0, len(x)], x, [1.0] * len(x))
        after = []
        prob.getcutlist(5, 1, 10, after)
        other_type = []
        prob.getcutlist(4, 1, 10, other_type)
        checks.append(("added", len(after), len(other_type), hash(after[0]) == hash(after[0])))
        return 0

    p.addcboptnode(optnode)
    p.solve()
    assert checks[0] == ("added", 1, 0, True)
    # The node is solved again with its cut, which then holds (slack >= 0) and sits after the rows.
    n, row, slack = checks[1]
    assert n == 1 and row == p.attributes.rows and slack >= -1e-6
    assert sum(p.getSolution(x)) <= 1 + 1e-6


def test_deleted_node_cut_leaves_the_subtree():
    p, x, w, v, cap = knapsack(3, n=10)
    log = []

    def optnode(prob, data):
        cuts = []
        prob.getcutlist(-1, -1, 10, cuts)
        log.append(len(cuts))
        if len(log) == 1:
            prob.addcuts([1], ["L"], [1.0], [0, len(x)], x, [1.0] * len(x))
        elif cuts:
            prob.delcuts(0, -1, -1, -1.0, cuts)
        return 0

    p.addcboptnode(optnode)
    p.solve()
    # Added at the root, seen again when the root is solved again, deleted there: the rest of the
    # search runs without it, so the optimum is the knapsack's own.
    assert log[:2] == [0, 1] and all(k == 0 for k in log[2:])
    assert p.getObjVal() == pytest.approx(brute_force(w, v, cap))


def test_pool_cuts_are_applied_where_violated():
    p, x, w, v, cap = knapsack(3, n=10)
    p.solve()
    best = p.getSolution(x)
    chosen = [j for j in range(len(x)) if best[j] > 0.5][:2]
    assert len(chosen) == 2
    handles = []
    # A cut the optimum violates: the search must respect it once it is in the pool.
    p.storecuts(0, [2], ["L"], [1.0], [0, 2], handles, [x[j] for j in chosen], [1.0, 1.0])
    assert len(handles) == 1 and isinstance(handles[0], tv.poolcut)
    p.solve()
    sol = p.getSolution(x)
    assert sol[chosen[0]] + sol[chosen[1]] <= 1 + 1e-6
    assert p.getObjVal() < brute_force(w, v, cap)
    # The cut's slack against the last solution, and its violation list.
    assert p.getcutslack(handles[0]) >= -1e-6
    listed, viol = [], []
    p.getcpcutlist(-1, -1, -1.0, 10, listed, viol)
    assert listed == handles and viol[0] == pytest.approx(0.0, abs=1e-6)
    p.delcpcuts(-1, -1, handles)
    p.solve()
    assert p.getObjVal() == pytest.approx(brute_force(w, v, cap))
    with pytest.raises(tv.SolverError, match="Unknown cut"):
        p.getcutslack(handles[0])


def test_pool_handles_compare_by_cut_and_read_back():
    x = [tv.var(vartype=tv.binary, name=f"x{j}") for j in range(3)]
    p = tv.problem(x, tv.Sum(x) <= 2, tv.Sum(x), sense=tv.maximize)
    first, again, other = [], [None] * 5, []
    p.storecuts(0, [1, 2], ["L", "G"], [1.0, 0.0], [0, 2, 3], first, [x[0], x[1], x[2]], [1.0, 2.0, 1.0])
    # nodupl 1: the same row of the same type is not stored again; the list is cut to length.
    p.storecuts(1, [1], ["L"], [1.0], [0, 2], again, [x[0], x[1]], [1.0, 2.0])
    p.storecuts(1, [3], ["L"], [1.0], [0, 2], other, [x[0], x[1]], [1.0, 2.0])
    assert again == [first[0]] and hash(again[0]) == hash(first[0])
    assert other[0] != first[0] and first[0] != first[1]
    assert len({first[0], again[0], other[0]}) == 2
    mtype, rtype, start, cols, vals, rhs = [], [], [], [], [], []
    p.getcpcuts(first, 10, mtype, rtype, start, cols, vals, rhs)
    assert (mtype, rtype, start, rhs) == ([1, 2], ["L", "G"], [0, 2, 3], [1.0, 0.0])
    assert [c.name for c in cols] == ["x0", "x1", "x2"] and vals == [1.0, 2.0, 1.0]
    p.delcpcuts(3, 1)  # every cut of type 3
    listed, viol = [], []
    p.solve()
    p.getcpcutlist(-1, -1, -1.0, 10, listed, viol)
    assert set(listed) == set(first)


def test_branch_bounds_and_cuts_reach_the_children():
    p, x, w, v, cap = knapsack(3, n=10)
    p.controls.maxnode = 50
    created = []

    def newnode(prob, data, parent, node, branch):
        created.append(node)

    def optnode(prob, data):
        if len(created) == 0:
            stored = prob.storebounds([x[0]], ["U"], [0.0])
            prob.setbranchbounds(stored)
            handles = []
            prob.storecuts(0, [1], ["L"], [1.0], [0, 2], handles, [x[1], x[2]], [1.0, 1.0])
            prob.setbranchcuts(handles)
        return 0

    p.addcbnewnode(newnode)
    p.addcboptnode(optnode)
    p.solve()
    sol = p.getSolution(x)
    if created:  # the root branched: every node below it has x0 = 0 and x1 + x2 <= 1
        assert sol[0] == 0 and sol[1] + sol[2] <= 1 + 1e-6


def test_node_methods_outside_a_node_callback():
    p, x, *_ = knapsack(3, n=5)
    for call in (lambda: p.addcuts([1], ["L"], [1.0], [0, 1], [x[0]], [1.0]),
                 lambda: p.getcutlist(-1, -1, 5, []),
                 lambda: p.loadcuts(-1, -1),
                 lambda: p.delcuts(0, -1, -1, 0.0),
                 lambda: p.getcutmap([], []),
                 lambda: p.setbranchcuts([]),
                 lambda: p.setbranchbounds(p.storebounds([x[0]], ["U"], [0.0]))):
        with pytest.raises(tv.SolverError, match="only be called from a node callback"):
            call()


def test_cut_methods_messages():
    p, x, *_ = knapsack(3, n=5)
    q, y, *_ = knapsack(4, n=5)
    mine = []
    p.storecuts(0, [1], ["L"], [1.0], [0, 1], mine, [x[0]], [1.0])
    with pytest.raises(tv.InterfaceError, match="^getcutslack must be provided a single cut as the only argument$"):
        p.getcutslack(mine[0], mine[0])
    with pytest.raises(tv.InterfaceError, match="single cut"):
        p.getcutslack(3)
    with pytest.raises(tv.ModelError, match="Unexpected argument to conv_arr2obj"):
        p.storecuts(0, [1], ["L"], [1.0], [0, 1], (), [x[0]], [1.0])
    with pytest.raises(tv.ModelError, match="Mismatched lengths in arguments: expected 1, found 2"):
        p.storecuts(0, [1], ["L", "G"], [1.0], [0, 1], None, [x[0]], [1.0])
    with pytest.raises(tv.ModelError, match="Mismatched lengths in arguments: expected 2, found 3"):
        p.storecuts(0, [1], ["L"], [1.0], [0, 1, 1], None, [x[0]], [1.0])
    with pytest.raises(tv.SolverError, match="Invalid row type 'N'"):
        p.storecuts(0, [1], ["N"], [1.0], [0, 1], None, [x[0]], [1.0])
    with pytest.raises(tv.ModelError, match="not in problem"):
        p.storecuts(0, [1], ["L"], [1.0], [0, 1], None, [y[0]], [1.0])
    with pytest.raises(tv.SolverError, match="Unknown cut"):
        q.getcpcuts(mine, 5, [], [], [], [], [], [])  # a cut of another problem
    with pytest.raises(tv.SolverError, match="Unknown cut"):
        p.delcpcuts(-1, -1, [tv.poolcut()])  # wraps no cut
    with pytest.raises(tv.SolverError, match="interpretation"):
        p.delcpcuts(1, 7)
    with pytest.raises(tv.ModelError, match="poolcut"):
        p.delcpcuts(-1, -1, [1, 2])
    with pytest.raises(tv.SolverError, match="Invalid bound type"):
        p.storebounds([x[0]], ["X"], [1.0])
    with pytest.raises(tv.InterfaceError, match="Must provide arguments mcols, type, bds"):
        p.storebounds([x[0]], ["U"])
    with pytest.raises(tv.SolverError, match="No solution"):
        p.getcutslack(mine[0])
    with pytest.raises(tv.InterfaceError, match="Must provide argument cutind"):
        p.getcutlist(-1, -1, 5)


def test_misuse_of_cut_objects_never_crashes(run_python):
    out = run_python("""
        import tarvo as tv
        tv.setOutputEnabled(False)
        x = tv.var(vartype=tv.binary)
        p = tv.problem(x, x <= 1, x, sense=tv.maximize)
        kept = []
        p.storecuts(0, [1], ["L"], [0.5], [0, 1], kept, [x], [1.0])
        stored = p.storebounds([x], ["U"], [0.0])
        del p
        import gc; gc.collect()
        cut = kept[0]
        print(hash(cut) == hash(kept[0]), cut == kept[0], repr(cut).startswith("<tarvo.poolcut"))
        y = tv.var(vartype=tv.binary)
        q = tv.problem(y, y <= 1, y)
        for call in (lambda: q.getcutslack(cut), lambda: q.loadcuts(-1, -1, [cut]),
                     lambda: q.getcpcuts([cut], 3, [], [], [], [], [], []),
                     lambda: q.setbranchbounds(stored), lambda: q.addcuts([1], ["L"], [1.0], [0, 1], [y], [1.0]),
                     lambda: q.getcutmap([cut], []), lambda: q.delcpcuts(-1, -1, [tv.poolcut()])):
            try:
                call()
            except (tv.SolverError, tv.ModelError, tv.InterfaceError):
                pass
        # A cut handle kept past the search that made it is refused afterwards.
        late = []
        def optnode(prob, data):
            prob.addcuts([1], ["L"], [1.0], [0, 1], [y], [1.0])
            prob.getcutlist(-1, -1, 5, late)
            return 0
        q.addcboptnode(optnode)
        q.solve()
        try:
            q.getcutslack(late[0])
        except tv.SolverError as e:
            print("refused", "Unknown cut" in str(e))
    """)
    assert out.split() == ["True", "True", "True", "refused", "True"]
