"""Solving LP, MIP and convex QP models with known optima; objective handling and statuses."""
import itertools
import os

import numpy as np
import pytest

import tarvo as tv

TOL = 1e-6


pytestmark = pytest.mark.usefixtures("quiet")


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


def test_lp_duals_slacks_reduced_costs_for_maximisation_and_ranges():
    # max 3x + 2y, x <= 3: c1 and the bound on x are active; y is basic.
    x, y = tv.var(name="x", ub=3), tv.var(name="y")
    c1 = tv.constraint(body=x + y, ub=4, name="c1")
    c2 = tv.constraint(body=x + 3 * y, ub=7, name="c2")
    c3 = tv.constraint(body=x - y, lb=1, name="c3")
    p = tv.problem(x, y, c1, c2, c3, 3 * x + 2 * y, sense=tv.maximize)
    p.solve()
    assert p.getObjVal() == pytest.approx(11, abs=TOL)
    assert p.getSolution() == pytest.approx([3, 1], abs=TOL)
    # y basic: 2 = dual(c1); one more unit of c1's rhs is worth 2.
    assert p.getDual() == pytest.approx([2, 0, 0], abs=TOL)
    # rhs - activity: c3's activity 2 exceeds its rhs 1.
    assert p.getSlack() == pytest.approx([0, 1, -1], abs=TOL)
    # x at its upper bound: 3 - dual(c1) = 1.
    assert p.getRCost() == pytest.approx([1, 0], abs=TOL)

    # min u + v with a ranged row active at its lower end and an equality row.
    u, v = tv.var(name="u"), tv.var(name="v", lb=-1, ub=5)
    r = tv.constraint(body=u + 2 * v, lb=3, ub=10, name="r")
    e = tv.constraint(body=u - v, lb=-1, ub=-1, name="e")
    q = tv.problem(u, v, r, e, u + v)
    q.solve()
    # u = v - 1 and u + 2v = 3: v = 4/3, u = 1/3.
    assert q.getSolution() == pytest.approx([1 / 3, 4 / 3], abs=TOL)
    assert q.getObjVal() == pytest.approx(5 / 3, abs=TOL)
    # (1, 1) = d_r (1, 2) + d_e (1, -1): d_r = 2/3, d_e = 1/3.
    assert q.getDual() == pytest.approx([2 / 3, 1 / 3], abs=TOL)
    # A ranged row's rhs is its upper end.
    assert q.getSlack() == pytest.approx([10 - 3, 0], abs=TOL)
    assert q.getRCost() == pytest.approx([0, 0], abs=TOL)


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


def best_vertex(c, rows, rhs):
    """max c.x over {x : rows x <= rhs} for a bounded polytope, by enumerating its vertices;
    None when it is empty."""
    a, b = np.array(rows, dtype=float), np.array(rhs, dtype=float)
    best = None
    for active in itertools.combinations(range(len(b)), len(c)):
        sub = a[list(active)]
        if abs(np.linalg.det(sub)) < 1e-12:
            continue
        x = np.linalg.solve(sub, b[list(active)])
        if (a @ x <= b + 1e-9).all():
            value = float(np.dot(c, x))
            best = value if best is None else max(best, value)
    return best


def test_production_planning_with_semicontinuous_runs():
    # Each product is either not made or made in a run of at least 3 units (at most 6).
    profit = [5, 4, 3]
    hours = [2, 3, 1]
    runs = [tv.var(vartype=tv.semicontinuous, lb=0, ub=6, threshold=3) for _ in profit]
    machine = sum(h * r for h, r in zip(hours, runs)) <= 14
    labour = sum(runs) <= 8
    p = tv.problem(runs, machine, labour, sum(c * r for c, r in zip(profit, runs)), sense=tv.maximize)
    p.solve()

    # Reference, independent of the solver: every on/off pattern is an LP over a box ([3, 6] or
    # fixed at 0) solved by visiting the vertices of its polytope.
    best = -1
    for pattern in itertools.product((0, 1), repeat=3):
        rows = [hours, [1, 1, 1]]
        rhs = [14, 8]
        for j, on in enumerate(pattern):
            unit = [0, 0, 0]
            unit[j] = 1
            rows += [unit, [-u for u in unit]]
            rhs += [6 * on, -3 * on]
        value = best_vertex(profit, rows, rhs)
        if value is not None:
            best = max(best, value)
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


def test_quickstart_example_solves_its_three_models(run_python):
    path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "examples", "quickstart.py")
    out = run_python("import runpy; runpy.run_path(%r, run_name='__main__')" % path)
    # Diet: protein 4b + 8m >= 30 and calcium b + 30m >= 60 both bind: b = 3.75, m = 1.875.
    assert "LP diet -> lp_optimal cost 2.0625" in out
    # Knapsack of the enumeration test above: value 25 (items 1, 3, 4 or items 0, 2, 3).
    assert "MIP knapsack -> mip_optimal value 25.0 items" in out
    assert "QP portfolio -> lp_optimal" in out
