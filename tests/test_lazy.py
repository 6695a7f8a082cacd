"""Lazy constraints on the engine's tree search: a travelling-salesman instance whose
subtour-elimination rows come only from callbacks (preintsol, optnode) or as delayed rows or
model cuts reaches the optimum of the full formulation; strong branching on the relaxation;
and the messages of the methods."""
import itertools

import numpy as np
import pytest

import tarvo as tv

N = 9


pytestmark = pytest.mark.usefixtures("quiet")


def tsp(n=N, seed=8):  # the degree rows alone give three subtours
    rng = np.random.default_rng(seed)
    pts = rng.random((n, 2))
    edges = list(itertools.combinations(range(n), 2))
    x = {e: tv.var(vartype=tv.binary, name=f"x_{e[0]}_{e[1]}") for e in edges}
    dist = {e: float(np.hypot(*(pts[e[0]] - pts[e[1]]))) for e in edges}
    degree = [tv.Sum(x[e] for e in edges if i in e) == 2 for i in range(n)]
    p = tv.problem(list(x.values()), degree, tv.Sum(dist[e] * x[e] for e in edges))
    p.controls.miprelstop = 0
    p.controls.mipabsstop = 1e-9
    return p, x, edges


def subtour_rows(x, edges, n=N):
    """Every subtour-elimination row: sets of 3 .. n-3 cities without city 0 (their
    complements, with city 0, are covered by the degree rows)."""
    rows = []
    for size in range(3, n - 2):
        for s in itertools.combinations(range(1, n), size):
            inside = set(s)
            rows.append(tv.Sum(x[e] for e in edges if e[0] in inside and e[1] in inside) <= size - 1)
    return rows


def components(values, edges, n=N):
    """The connected components of the edges set to 1."""
    parent = list(range(n))

    def find(i):
        while parent[i] != i:
            parent[i] = parent[parent[i]]
            i = parent[i]
        return i

    for k, e in enumerate(edges):
        if values[k] > 0.5:
            parent[find(e[0])] = find(e[1])
    groups = {}
    for i in range(n):
        groups.setdefault(find(i), []).append(i)
    return list(groups.values())


def integral(values):
    return all(min(v, 1 - v) < 1e-6 for v in values)


def add_subtour_cuts(prob, x, edges, values):
    """Adds the subtour-elimination cut of every component of an integral point that is not a
    tour; returns how many."""
    comps = components(values, edges)
    if len(comps) == 1:
        return 0
    mtype, rtype, rhs, start, cols = [], [], [], [0], []
    for c in comps:
        inside = set(c)
        cols += [x[e] for e in edges if e[0] in inside and e[1] in inside]
        mtype.append(1)
        rtype.append("L")
        rhs.append(len(c) - 1)
        start.append(len(cols))
    prob.addcuts(mtype, rtype, rhs, start, cols, [1.0] * len(cols))
    return len(comps)


def lp_values(prob):
    xs = []
    prob.getlpsol(xs)
    return xs


@pytest.fixture(scope="module")
def reference():
    p, x, edges = tsp()
    p.addConstraint(subtour_rows(x, edges))
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    tour = p.getSolution([x[e] for e in edges])
    assert len(components(tour, edges)) == 1
    return p.getObjVal()


def check_tour(p, x, edges, reference):
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(reference, rel=1e-7)
    assert len(components(p.getSolution([x[e] for e in edges]), edges)) == 1


def test_subtours_cut_from_preintsol(reference):
    p, x, edges = tsp()
    counts = {"rejected": 0}

    def preintsol(prob, data, soltype, cutoff):
        values = lp_values(prob)
        if add_subtour_cuts(prob, x, edges, values):
            counts["rejected"] += 1
            return (1, None)
        return (None, None)

    p.addcbpreintsol(preintsol)
    p.solve()
    check_tour(p, x, edges, reference)
    assert counts["rejected"] > 0


def test_subtours_cut_from_optnode(reference):
    p, x, edges = tsp()
    counts = {"cuts": 0}

    def optnode(prob, data):
        values = lp_values(prob)
        if integral(values):
            counts["cuts"] += add_subtour_cuts(prob, x, edges, values)
        return 0

    def preintsol(prob, data, soltype, cutoff):
        # Heuristic candidates never pass optnode: refuse those with subtours.
        return (1 if len(components(lp_values(prob), edges)) > 1 else None, None)

    p.addcboptnode(optnode)
    p.addcbpreintsol(preintsol)
    p.solve()
    check_tour(p, x, edges, reference)
    assert counts["cuts"] > 0


@pytest.mark.parametrize("method", ["loaddelayedrows", "loadmodelcuts"])
def test_subtour_rows_kept_out_until_violated(reference, method):
    p, x, edges = tsp()
    rows = subtour_rows(x, edges)
    p.addConstraint(rows)
    getattr(p, method)(rows)
    violated_at_nodes = []

    def optnode(prob, data):
        values = dict(zip(edges, lp_values(prob)))
        violated_at_nodes.append(any(
            sum(values[e] for e in edges if e[0] in s and e[1] in s) > len(s) - 1 + 1e-4
            for s in (set(c) for c in components(list(values.values()), edges)) if len(s) < N))
        return 0

    p.addcboptnode(optnode)
    p.solve()
    check_tour(p, x, edges, reference)
    # Delayed rows wait for candidates: some node relaxation ran without rows it violated. Model
    # cuts violated by a node's relaxation join it before optnode sees its solution.
    assert any(violated_at_nodes) == (method == "loaddelayedrows")


def test_delayed_rows_are_ordinary_rows_for_highs(reference):
    p, x, edges = tsp()
    rows = subtour_rows(x, edges)
    p.addConstraint(rows)
    p.loaddelayedrows(rows)
    p.controls.treesearch = 2
    p.solve()
    check_tour(p, x, edges, reference)


def test_delayed_row_marks_follow_row_deletion():
    x = tv.var(vartype=tv.integer, ub=10)
    y = tv.var(vartype=tv.integer, ub=10)
    first = x <= 3
    lazy = x + y <= 13
    p = tv.problem([x, y], [first, lazy], x + 2 * y, sense=tv.maximize)
    p.controls.treesearch = 1
    p.loaddelayedrows([lazy])
    p.delConstraint(first)
    p.solve()
    # The delayed row (now row 0) still holds; the deleted one no longer binds.
    assert p.getObjVal() == pytest.approx(23)
    assert (p.getSolution(x), p.getSolution(y)) == (pytest.approx(3), pytest.approx(10))
    p.delConstraint(lazy)
    p.solve()
    assert p.getObjVal() == pytest.approx(30)


def test_lazy_methods_messages():
    p, x, edges = tsp(n=5)
    with pytest.raises(tv.InterfaceError, match="^Must provide argument mrows$"):
        p.loaddelayedrows()
    with pytest.raises(tv.InterfaceError, match="^Must provide argument mrows$"):
        p.loadmodelcuts(None)
    with pytest.raises(tv.SolverError):
        p.loaddelayedrows([99])
    with pytest.raises(tv.ModelError, match="not in problem"):
        q, *_ = tsp(n=4)
        p.loadmodelcuts(q.getConstraint())


def strong_problem():
    x = [tv.var(vartype=tv.integer, ub=10, name=f"s{j}") for j in range(3)]
    p = tv.problem(x, [2 * x[0] + 3 * x[1] + 4 * x[2] <= 11.5, x[0] + x[2] <= 2.5],
                   5 * x[0] + 7 * x[1] + 9 * x[2], sense=tv.maximize)
    return p, x


def lp_with_bound(col, kind, value):
    p, x = strong_problem()
    p.chgbounds([col], [kind], [value])
    p.lpoptimize()
    return p.attributes.lpobjval if p.attributes.lpstatus == 1 else None


def test_strongbranch_matches_solving_each_branch():
    p, x = strong_problem()
    p.lpoptimize()
    root = p.attributes.lpobjval
    sol = lp_values(p)
    frac = next(j for j in range(3) if abs(sol[j] - round(sol[j])) > 1e-6)
    branches = ([frac, frac, 0], ["U", "L", "B"], [np.floor(sol[frac]), np.ceil(sol[frac]), 4.0])
    obj, status = [], []
    p.strongbranch(*branches, 1000, obj, status)
    for k in range(3):
        want = lp_with_bound(branches[0][k], branches[1][k], branches[2][k])
        if want is None:
            assert status[k] == 2
        else:
            assert status[k] == 1 and obj[k] == pytest.approx(want)
    # Bounds and the problem's own solution are as before.
    lb, ub = [], []
    p.getlb(lb)
    p.getub(ub)
    assert lb == [0.0] * 3 and ub == [10.0] * 3
    assert p.attributes.lpobjval == pytest.approx(root)


def test_strongbranchcb_shows_each_branch_solution():
    p, x = strong_problem()
    seen = []

    def solved(prob, ctx, ibnd):
        seen.append((ctx, ibnd, lp_values(prob)[0]))
        return 0

    obj, status = [], []
    p.strongbranchcb([0, 0], ["U", "L"], [0.0, 2.0], 1000, obj, status, solved, "ctx")
    assert [s[:2] for s in seen] == [("ctx", 0), ("ctx", 1)]
    assert seen[0][2] <= 1e-9 and seen[1][2] >= 2 - 1e-9
    # A non-zero result ends the strong branching.
    seen.clear()
    p.strongbranchcb([0, 0], ["U", "L"], [0.0, 2.0], 1000, obj, status, lambda *a: seen.append(a) or 1, None)
    assert len(seen) == 1


def test_strongbranch_messages(capfd):
    p, x = strong_problem()
    with pytest.raises(tv.InterfaceError, match="Must provide arguments mbndind, cbndtype, dbndval"):
        p.strongbranch([x[0]], ["U"], None, 10, [], [])
    with pytest.raises(tv.ModelError, match="Mismatched lengths"):
        p.strongbranch([x[0]], ["U", "L"], [1.0], 10, [], [])
    with pytest.raises(tv.SolverError, match="Invalid bound type"):
        p.strongbranch([x[0]], ["Q"], [1.0], 10, [], [])
    with pytest.raises(tv.InterfaceError, match="sbsolvecb must be callable"):
        p.strongbranchcb([x[0]], ["U"], [1.0], 10, [], [], None, None)

    def boom(prob, ctx, ibnd):
        raise ValueError("from the solve callback")

    with pytest.raises(ValueError, match="from the solve callback"):
        p.strongbranchcb([x[0], x[1]], ["U", "U"], [1.0, 1.0], 10, [], [], boom, None)
    assert "Problem in solvecb() callback, stopping optimization" in capfd.readouterr().err
    p.solve()  # the problem is still usable
    assert p.getProbStatusString() == "mip_optimal"
