"""What a problem copy and a saved file carry. A copy takes the model and what was loaded for
its next solve (a basis, MIP solutions to offer), not the results of the source's solves: it
starts unsolved, without an LP, MIP or interior-point solution. A saved file carries the last
solve's results, the interior-point solution before crossover among them."""
import numpy as np
import pytest

import tarvo as tv


@pytest.fixture(autouse=True)
def quiet(tmp_path, monkeypatch):
    tv.setOutputEnabled(False)
    monkeypatch.chdir(tmp_path)
    yield
    tv.setOutputEnabled(True)


def transport(seed=3, m=4, n=5):
    """A transportation LP with a dense interior (an interior-point run ends off the vertices)."""
    rng = np.random.default_rng(seed)
    supply = rng.uniform(10, 20, m)
    demand = rng.uniform(5, 10, n)
    demand *= 0.9 * supply.sum() / demand.sum()
    cost = rng.uniform(1, 5, (m, n))
    x = [[tv.var() for _ in range(n)] for _ in range(m)]
    rows = [tv.Sum(x[i]) <= supply[i] for i in range(m)] + [tv.Sum(x[i][j] for i in range(m)) >= demand[j]
                                                              for j in range(n)]
    p = tv.problem([v for r in x for v in r], rows, tv.Sum(cost[i, j] * x[i][j] for i in range(m) for j in range(n)))
    return p


def barrier_solution(p):
    x, slack, dual, dj = [], [], [], []
    p.getlastbarsol(x, slack, dual, dj)
    return x, slack, dual, dj


def test_copy_of_a_solved_problem_starts_unsolved_and_solves_to_the_same_points():
    p = transport()
    p.controls.crossover = 0
    p.lpoptimize("b")
    assert p.getProbStatusString() == "lp_optimal"
    mine = barrier_solution(p)
    q = p.copy()
    assert q.getProbStatusString() == "lp_unstarted"
    with pytest.raises(tv.SolverError, match="No interior-point solution"):
        q.getlastbarsol([])
    with pytest.raises(tv.SolverError, match="No LP solution"):
        q.getSolution()
    # The source keeps its own.
    assert barrier_solution(p) == mine
    # Its own barrier run (the copy has the source's controls) gives the same interior point.
    q.lpoptimize("b")
    theirs = barrier_solution(q)
    for a, b in zip(mine, theirs):
        assert a == pytest.approx(b, rel=1e-6, abs=1e-6)


def test_copy_carries_a_loaded_basis_and_offered_solutions():
    p = transport()
    p.lpoptimize()
    rs, cs = [], []
    p.getbasis(rs, cs)
    q = transport()
    q.loadbasis(rs, cs)
    r = q.copy()
    r.lpoptimize()
    assert r.attributes.simplexiter == 0  # started from the loaded optimal basis
    assert r.getObjVal() == pytest.approx(p.getObjVal(), rel=1e-9)

    x = [tv.var(vartype=tv.binary) for _ in range(6)]
    w = [3, 4, 5, 6, 7, 8]
    k = tv.problem(x, tv.Sum(w[j] * x[j] for j in range(6)) <= 15, tv.Sum((w[j] + 1) * x[j] for j in range(6)),
                   sense=tv.maximize)
    k.addmipsol([1, 1, 0, 0, 0, 1], x, "offered")
    got = []
    c = k.copy()
    c.addcbusersolnotify(lambda prob, data, name, status: got.append(name))
    c.solve()
    assert got == ["offered"]


def test_restore_brings_back_the_interior_point_solution():
    p = transport()
    p.controls.crossover = 0
    p.lpoptimize("b")
    mine = barrier_solution(p)
    p.save("bar.svf")
    q = tv.problem()
    q.restore("bar.svf")
    assert barrier_solution(q) == mine
    # A problem saved without one restores without one.
    transport().save("none.svf")
    r = tv.problem()
    r.restore("none.svf")
    with pytest.raises(tv.SolverError, match="No interior-point solution"):
        r.getlastbarsol([])
