"""Solving LP, MIP and convex QP models with known optima; objective handling and statuses."""
import itertools

import numpy as np
import pytest

import tarvo as tv

TOL = 1e-6


@pytest.fixture(autouse=True)
def quiet():
    tv.setOutputEnabled(False)
    yield
    tv.setOutputEnabled(True)


def diet():
    """min 2x + 3y + 5z  s.t. protein x + y + z >= 4, fibre x + 3y + z >= 6, budget x + y <= 10."""
    x, y, z = tv.var(name="x"), tv.var(name="y"), tv.var(name="z")
    protein = tv.constraint(body=x + y + z, lb=4, name="protein")
    fibre = tv.constraint(body=x + 3 * y + z, lb=6, name="fibre")
    budget = tv.constraint(body=x + y, ub=10, name="budget")
    p = tv.problem(x, y, z, protein, fibre, budget, 2 * x + 3 * y + 5 * z, "diet")
    return p, (x, y, z), (protein, fibre, budget)


def test_diet_lp_solution_duals_slacks_reduced_costs():
    p, (x, y, z), (protein, fibre, budget) = diet()
    p.solve()
    assert p.getProbStatus() == tv.lp_optimal and p.getProbStatusString() == "lp_optimal"
    # Vertex of protein and fibre: y = 1, x = 3.
    assert p.getObjVal() == pytest.approx(9, abs=TOL)
    assert p.getSolution([x, y, z]) == pytest.approx([3, 1, 0], abs=TOL)
    # Duals from l1 + l2 = 2, l1 + 3 l2 = 3; the budget row is slack.
    assert p.getDual([protein, fibre, budget]) == pytest.approx([1.5, 0.5, 0], abs=TOL)
    # Slack = rhs - activity.
    assert p.getSlack() == pytest.approx([0, 0, 6], abs=TOL)
    # z: 5 - (1.5 + 0.5) = 3; basic columns 0.
    assert p.getRCost() == pytest.approx([0, 0, 3], abs=TOL)
    assert p.getRCost("z") == pytest.approx([3], abs=TOL)


def test_knapsack_mip_matches_enumeration():
    values = [10, 13, 7, 8, 4, 9]
    weights = [5, 6, 3, 4, 2, 5]
    cap = 12
    best = max(sum(v for v, c in zip(values, choice) if c)
               for choice in itertools.product((0, 1), repeat=len(values))
               if sum(w for w, c in zip(weights, choice) if c) <= cap)
    x = [tv.var(vartype=tv.binary) for _ in values]
    p = tv.problem(x, sum(w * v for w, v in zip(weights, x)) <= cap,
                   sum(c * v for c, v in zip(values, x)), sense=tv.maximize)
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(best, abs=TOL)
    sol = p.getSolution(x)
    assert all(abs(s - round(s)) < TOL for s in sol)
    assert sum(w * round(s) for w, s in zip(weights, sol)) <= cap
    assert p.getSlack()[0] == pytest.approx(cap - sum(w * round(s) for w, s in zip(weights, sol)), abs=TOL)
    with pytest.raises(tv.SolverError, match="Cannot retrieve dual variables in a MIP"):
        p.getDual()
    with pytest.raises(tv.SolverError, match="Cannot retrieve reduced cost in a MIP"):
        p.getRCost()


def test_production_planning_with_semicontinuous_runs():
    # Each product is either not made or made in a run of at least 3 units (at most 6).
    profit = [5, 4, 3]
    hours = [2, 3, 1]
    runs = [tv.var(vartype=tv.semicontinuous, lb=0, ub=6, threshold=3) for _ in profit]
    machine = sum(h * r for h, r in zip(hours, runs)) <= 14
    labour = sum(runs) <= 8
    p = tv.problem(runs, machine, labour, sum(c * r for c, r in zip(profit, runs)), sense=tv.maximize)
    p.solve()

    # Reference: every on/off pattern as a plain LP with bounds [3, 6] or fixed at 0.
    best = -1
    for pattern in itertools.product((0, 1), repeat=3):
        ys = [tv.var(lb=3 * on, ub=6 * on) for on in pattern]
        q = tv.problem(ys, sum(h * y for h, y in zip(hours, ys)) <= 14, sum(ys) <= 8,
                       sum(c * y for c, y in zip(profit, ys)), sense=tv.maximize)
        q.solve()
        if q.getProbStatusString() == "lp_optimal":
            best = max(best, q.getObjVal())
    assert best == pytest.approx(34, abs=TOL)  # a = 6, c = 2 is not allowed; a = 5, c = 3 gives 34
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(best, abs=TOL)
    for v in p.getSolution(runs):
        assert v < TOL or 3 - TOL <= v <= 6 + TOL


def test_sos2_piecewise_linear():
    xs, fs = [0, 1, 2, 3], [0, 3, 4, 8]
    lam = [tv.var(ub=1) for _ in xs]
    x, y = tv.var(), tv.var()
    p = tv.problem(lam, x, y,
                   tv.constraint(body=sum(lam), lb=1, ub=1),
                   x == sum(a * l for a, l in zip(xs, lam)),
                   y == sum(f * l for f, l in zip(fs, lam)),
                   x == 1.5, y)
    p.addSOS(tv.sos(lam, [1, 2, 3, 4], 2))
    p.solve()
    # Adjacent breakpoints (1, 3) and (2, 4) give 3.5; without the set 3.0 would be reachable.
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(3.5, abs=TOL)
    nonzero = [i for i, v in enumerate(p.getSolution(lam)) if v > TOL]
    assert nonzero == [1, 2]


def test_indicator_constraints():
    z = tv.var(vartype=tv.binary, name="z")
    x, y = tv.var(ub=10), tv.var(ub=4)
    p = tv.problem(z, x, y, x + y <= 12, 2 * x + y - 5 * z, sense=tv.maximize)
    p.addIndicator((z == 0, x <= 0), (z == 1, y <= 1))
    p.solve()
    # z = 1: x = 10, y = 1 -> 16; z = 0: x = 0, y = 4 -> 4.
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(16, abs=TOL)
    assert p.getSolution([z, x, y]) == pytest.approx([1, 10, 1], abs=TOL)


def test_convex_portfolio_qp():
    cov = np.array([[0.10, 0.02, 0.01], [0.02, 0.08, 0.03], [0.01, 0.03, 0.12]])
    mu = np.array([0.10, 0.07, 0.12])
    r = 0.10
    # Reference: both constraints active, x > 0: solve the KKT system.
    kkt = np.zeros((5, 5))
    kkt[:3, :3] = 2 * cov
    kkt[:3, 3] = kkt[3, :3] = 1
    kkt[:3, 4] = kkt[4, :3] = mu
    sol = np.linalg.solve(kkt, np.array([0, 0, 0, 1, r]))
    xref = sol[:3]
    assert (xref > 0).all()

    w = [tv.var(name="w%d" % i) for i in range(3)]
    risk = sum(cov[i, j] * w[i] * w[j] for i in range(3) for j in range(3))
    p = tv.problem(w, tv.constraint(body=sum(w), lb=1, ub=1),
                   sum(m * v for m, v in zip(mu, w)) >= r, risk)
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    assert p.getSolution(w) == pytest.approx(list(xref), abs=1e-5)
    assert p.getObjVal() == pytest.approx(xref @ cov @ xref, abs=TOL)
    assert p.getSolution(risk) == pytest.approx(p.getObjVal(), abs=TOL)


def test_objective_replacement_and_sense():
    x, y = tv.var(ub=2), tv.var(ub=3)
    p = tv.problem(x, y, x + y <= 4)
    with pytest.raises(tv.ModelError, match="Invalid optimization sense"):
        p.setObjective(x, sense=0)
    with pytest.raises(tv.ModelError, match="Invalid object set as objective"):
        p.setObjective("x")
    with pytest.raises(tv.ModelError, match="Only one objective can be set"):
        p.setObjective(np.array([x, y], dtype=object))
    p.setObjective(3 + x * x + x * y)
    p.setObjective(x + y, sense=tv.maximize)  # replaces constant and quadratic parts
    p.solve()
    assert p.getObjVal() == pytest.approx(4, abs=TOL)
    p.setObjective(-x + 2 * y, tv.minimize)
    p.solve()
    assert p.getObjVal() == pytest.approx(-2, abs=TOL)
    p.setObjective(np.array([x + 10], dtype=object))
    p.solve()
    assert p.getObjVal() == pytest.approx(10, abs=TOL)
    p.setObjective(7)
    p.solve()
    assert p.getObjVal() == pytest.approx(7, abs=TOL)


def test_statuses_of_infeasible_and_unbounded_lps_and_flags():
    x = tv.var()
    p = tv.problem(x, x >= 3, x <= 1, x)
    p.solve()
    assert p.getProbStatusString() == "lp_infeas"
    q = tv.problem(x, -x)
    q.solve()
    assert q.getProbStatusString() in ("lp_unbounded", "lp_infeas")
    with pytest.raises(tv.InterfaceError, match="The optional 'flags' parameter should be a string"):
        q.solve(5)
    p.solve("")


def test_solve_after_deletions_uses_the_remaining_model():
    xs = [tv.var(ub=10, name="x%d" % i) for i in range(6)]
    cons = [tv.constraint(body=xs[i] + xs[i + 1], ub=4 + i) for i in range(5)]
    p = tv.problem(xs, cons, sum((i + 1) * v for i, v in enumerate(xs)), sense=tv.maximize)
    p.delVariable(index=[xs[1], xs[4]])
    p.delConstraint(index=[0, 3])
    assert [str(v) for v in p.getVariable()] == ["x0", "x2", "x3", "x5"]
    p.solve()
    # Left: x2 <= 5, x2 + x3 <= 6, x5 <= 8; objective x0 + 3 x2 + 4 x3 + 6 x5.
    assert p.getSolution() == pytest.approx([10, 0, 6, 8], abs=TOL)
    assert p.getObjVal() == pytest.approx(10 + 24 + 48, abs=TOL)
    assert p.getSlack(cons[1], cons[2], cons[4]) == pytest.approx([5, 0, 0], abs=TOL)


def test_output_reaches_stdout_only_when_enabled(run_python):
    out = run_python(
        """
        import tarvo as tv
        x = tv.var(ub=3)
        p = tv.problem(x, -x)
        tv.setOutputEnabled(False)
        p.solve()
        print("MARK")
        tv.setOutputEnabled(True)
        p.solve()
        """)
    before, after = out.split("MARK", 1)
    assert before.strip() == "" and after.strip() != ""
