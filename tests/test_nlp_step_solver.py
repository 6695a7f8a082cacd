"""The solver of the step problems (control tslp_stepsolver): the sparse interior-point solver
takes the continuous step problems of large curved models whose rows couple few neighbours,
the simplex method the rest. Both must lead to the same local optimum; the simplex iteration
count shows which one ran."""
import math

import pytest

import tarvo as tv


@pytest.fixture(autouse=True)
def quiet():
    tv.setOutputEnabled(False)
    yield
    tv.setOutputEnabled(True)


def van_der_pol(steps):
    # min 1/2 h sum(x1^2 + x2^2 + u^2) with Euler steps of the Van der Pol dynamics, started
    # on the uncontrolled trajectory.
    h = 5.0 / steps
    x1 = [tv.var(lb=-0.4) for _ in range(steps + 1)]
    x2 = [tv.var(lb=-tv.infinity) for _ in range(steps + 1)]
    u = [tv.var(lb=-0.3, ub=1.0) for _ in range(steps)]
    x1[0].lb = x1[0].ub = 0.0
    x2[0].lb = x2[0].ub = 1.0
    p = tv.problem()
    p.addVariable(x1, x2, u)
    rows = []
    for k in range(steps):
        rows.append(x1[k + 1] == x1[k] + h * x2[k])
        rows.append(x2[k + 1] == x2[k] + h * (-x1[k] + (1 - x1[k] ** 2) * x2[k] + u[k]))
    p.addConstraint(rows)
    p.setObjective(0.5 * h * tv.Sum(x1[k] ** 2 + x2[k] ** 2 + u[k] ** 2 for k in range(steps)))
    a, b = 0.0, 1.0
    for k in range(steps + 1):
        p.chgvar(colindex=x1[k], initvalue=a)
        p.chgvar(colindex=x2[k], initvalue=b)
        a, b = a + h * b, b + h * (-a + (1 - a * a) * b)
    return p, (x1, x2, u)


def beam(n):
    # The beam control model: sin terms in the rows, cos terms and squares in the objective.
    h, alpha = 1.0 / n, 350.0
    t = [tv.var(lb=-1.0, ub=1.0) for _ in range(n + 1)]
    x = [tv.var(lb=-0.05, ub=0.05) for _ in range(n + 1)]
    u = [tv.var(lb=-tv.infinity) for _ in range(n + 1)]
    p = tv.problem()
    p.addVariable(t, x, u)
    p.addConstraint([x[i + 1] - x[i] - 0.5 * h * (tv.sin(t[i + 1]) + tv.sin(t[i])) == 0 for i in range(n)])
    p.addConstraint([t[i + 1] - t[i] - 0.5 * h * u[i + 1] - 0.5 * h * u[i] == 0 for i in range(n)])
    wgt = [0.5 * h if i in (0, n) else h for i in range(n + 1)]
    p.setObjective(tv.Sum(wgt[i] * u[i] ** 2 for i in range(n + 1)) +
                   alpha * tv.Sum(wgt[i] * tv.cos(t[i]) for i in range(n + 1)))
    for i in range(n + 1):
        c = 0.05 * math.cos(i * h)
        p.chgvar(colindex=t[i], initvalue=c)
        p.chgvar(colindex=x[i], initvalue=c)
    return p


def solve(p, choice):
    p.setControl("tslp_stepsolver", choice)
    p.solve()
    assert p.getProbStatusString() == "nlp_solution"
    return p.getObjVal(), p.getAttrib("tslp_simplexiter")


@pytest.mark.parametrize("build", [lambda: van_der_pol(150)[0], lambda: beam(120)], ids=["vanderpol", "beam"])
def test_interior_point_steps_reach_the_simplex_optimum(build):
    assert build().getControl("tslp_stepsolver") == 0
    auto, auto_pivots = solve(build(), 0)
    simplex, simplex_pivots = solve(build(), 1)
    assert auto_pivots == 0          # every step problem went to the interior-point solver
    assert simplex_pivots > 0
    assert auto == pytest.approx(simplex, rel=1e-7)


def test_dynamics_rows_hold_at_the_interior_point_answer():
    p, (x1, x2, u) = van_der_pol(150)
    solve(p, 0)
    h = 5.0 / 150
    a, b, c = (p.getSolution(v) for v in (x1, x2, u))
    worst = max(max(abs(a[k + 1] - a[k] - h * b[k]),
                    abs(b[k + 1] - b[k] - h * (-a[k] + (1 - a[k] ** 2) * b[k] + c[k]))) for k in range(150))
    assert worst < 1e-6
    assert min(c) >= -0.3 - 1e-9 and max(c) <= 1.0 + 1e-9


def test_small_models_keep_the_simplex_method_unless_asked():
    # Few curved columns: automatic choice stays with the simplex method; choice 2 takes the
    # interior-point solver there too, to the same answer.
    def build():
        x = [tv.var(lb=-2, ub=2) for _ in range(6)]
        p = tv.problem()
        p.addVariable(x)
        p.addConstraint(tv.Sum(tv.sin(x[i]) * x[i + 1] for i in range(5)) >= 0.5)
        p.addConstraint(x[0] + 2 * x[3] <= 1.5)
        p.setObjective(tv.Sum((x[i] - 0.3 * i) ** 2 for i in range(6)) + tv.exp(x[2]))
        return p
    auto, auto_pivots = solve(build(), 0)
    forced, _ = solve(build(), 2)
    assert auto_pivots > 0
    assert forced == pytest.approx(auto, rel=1e-7)


def test_dense_column_is_left_to_the_simplex_method():
    # One column in every row fills the normal matrix: the interior-point solver declines
    # and the simplex method solves the step problems.
    n = 120
    x = [tv.var(lb=-1, ub=1) for _ in range(n)]
    s = tv.var(lb=-10, ub=10)
    p = tv.problem()
    p.addVariable(x, s)
    p.addConstraint([tv.sin(x[i]) + 0.5 * x[i + 1] + 0.01 * s == 0.1 for i in range(n - 1)])
    p.setObjective(tv.Sum((x[i] - 0.2) ** 2 for i in range(n)) + s ** 2)
    value, pivots = solve(p, 2)
    assert pivots > 0
    q = tv.problem()
    y = [tv.var(lb=-1, ub=1) for _ in range(n)]
    t = tv.var(lb=-10, ub=10)
    q.addVariable(y, t)
    q.addConstraint([tv.sin(y[i]) + 0.5 * y[i + 1] + 0.01 * t == 0.1 for i in range(n - 1)])
    q.setObjective(tv.Sum((y[i] - 0.2) ** 2 for i in range(n)) + t ** 2)
    assert value == pytest.approx(solve(q, 1)[0], rel=1e-7)
