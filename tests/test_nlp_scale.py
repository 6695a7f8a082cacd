"""Large nonlinear rows: many coefficients of one row and column loaded in one call, and the
separable curvature of rows curved in many columns (their sparse Hessians are read one colour of
columns at a time). Answers are checked against independent computations."""
import math

import numpy as np
import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


def test_many_terms_of_one_coefficient_add_up():
    # Every cos term of the objective and of the row lands on the same (row, column) pair of
    # the nonlinear library: they must add up with their factors.
    n = 3000
    vals = np.linspace(-1.0, 2.0, n)
    x = [tv.var(lb=v, ub=v) for v in vals]
    y = tv.var(lb=-tv.infinity)
    p = tv.problem()
    p.addVariable(x, y)
    w = np.arange(1, n + 1) / n
    p.addConstraint(y == tv.Sum(float(w[i]) * tv.sin(x[i]) for i in range(n)))
    p.setObjective(tv.Sum(float(w[i]) * tv.cos(x[i]) for i in range(n)) + y)
    p.solve()
    assert p.getProbStatusString() == "nlp_solution"
    expect_y = float(np.sum(w * np.sin(vals)))
    assert p.getSolution(y) == pytest.approx(expect_y, rel=1e-9, abs=1e-9)
    assert p.getObjVal() == pytest.approx(float(np.sum(w * np.cos(vals))) + expect_y, rel=1e-9)


def test_repeated_coefficients_of_one_column_in_a_row():
    # cos(z) * y and sin(z) * y are both coefficients of column y in the row.
    y, z = tv.var(lb=-10, ub=10), tv.var(lb=0.3, ub=0.3)
    p = tv.problem()
    p.addVariable(y, z)
    p.addConstraint(tv.cos(z) * y + 2 * tv.sin(z) * y == 1.5)
    p.setObjective(y)
    p.solve()
    assert p.getSolution(y) == pytest.approx(1.5 / (math.cos(0.3) + 2 * math.sin(0.3)), rel=1e-7)


@pytest.mark.parametrize("n", [60, 2500])
def test_separable_objective_with_many_curved_columns(n):
    # min sum a_i exp(x_i) - 2 x_i: x_i = ln(2 / a_i). Above 2000 columns one row used to get
    # no curvature at all; the diagonal Hessian now takes one gradient difference.
    a = 1.0 + np.arange(n) % 7 / 7.0
    x = [tv.var(lb=-5, ub=5) for _ in range(n)]
    p = tv.problem()
    p.addVariable(x)
    p.setObjective(tv.Sum(float(a[i]) * tv.exp(x[i]) - 2 * x[i] for i in range(n)))
    p.solve()
    assert p.getProbStatusString() == "nlp_solution"
    xs = np.array(p.getSolution(x))
    opt = np.log(2.0 / a)
    assert np.max(np.abs(xs - opt)) < 1e-3
    assert p.getObjVal() == pytest.approx(float(np.sum(2.0 - 2.0 * opt)), rel=1e-8)
    assert p.getAttrib("tslp_iter") <= 40


def test_coupled_curvature_matches_scipy():
    # Off-diagonal Hessian entries (x_i x_{i+1} inside exp) in a row curved in 80 columns: the
    # colouring must keep neighbours apart. Reference: scipy's L-BFGS-B on the same function.
    scipy_optimize = pytest.importorskip("scipy.optimize")
    n = 80
    c = np.linspace(0.5, 1.5, n)

    def f(v):
        return float(np.sum(0.1 * np.exp(0.5 * v[:-1] * v[1:])) + np.sum((v - c) ** 2 * c))

    ref = scipy_optimize.minimize(f, np.zeros(n), method="L-BFGS-B", bounds=[(-3, 3)] * n,
                                  options=dict(ftol=1e-15, gtol=1e-11, maxiter=10000))
    x = [tv.var(lb=-3, ub=3) for _ in range(n)]
    p = tv.problem()
    p.addVariable(x)
    p.setObjective(tv.Sum(0.1 * tv.exp(0.5 * x[i] * x[i + 1]) for i in range(n - 1)) +
                   tv.Sum(float(c[i]) * (x[i] - float(c[i])) ** 2 for i in range(n)))
    p.solve()
    assert p.getProbStatusString() == "nlp_solution"
    assert p.getObjVal() == pytest.approx(ref.fun, rel=1e-7, abs=1e-9)
