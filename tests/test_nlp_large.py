"""Nonlinear problems with more curved columns than the dense curvature model takes: the step
problems then carry the separable curvature of the rows and the objective. Each problem must
end locally optimal in few iterations, at the optimum of an independent computation."""
import math

import numpy as np
import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


# ---------------------------------------------------------------------------------------------
# Van der Pol oscillator control by explicit Euler steps: 2 N rows, 3 N + 2 columns.

T = 5.0


def van_der_pol(steps, maximize=False):
    h = T / steps
    x1 = [tv.var(lb=-0.4) for _ in range(steps + 1)]
    x2 = [tv.var(lb=-tv.infinity) for _ in range(steps + 1)]
    u = [tv.var(lb=-0.3, ub=1.0) for _ in range(steps)]
    x1[0].lb = x1[0].ub = 0.0
    x2[0].lb = x2[0].ub = 1.0
    p = tv.problem()
    p.addVariable(x1, x2, u)
    p.addConstraint([x1[k + 1] == x1[k] + h * x2[k] for k in range(steps)])
    p.addConstraint([x2[k + 1] == x2[k] + h * (-x1[k] + (1 - x1[k] ** 2) * x2[k] + u[k])
                     for k in range(steps)])
    cost = 0.5 * h * tv.Sum(x1[k] ** 2 + x2[k] ** 2 + u[k] ** 2 for k in range(steps))
    if maximize:
        p.setObjective(-cost, sense=tv.maximize)
    else:
        p.setObjective(cost, sense=tv.minimize)
    # Start from the uncontrolled trajectory.
    a, b = 0.0, 1.0
    for k in range(steps + 1):
        p.chgvar(x1[k], initvalue=a)
        p.chgvar(x2[k], initvalue=b)
        a, b = a + h * b, b + h * (-a + (1 - a * a) * b)
    return p, x1, x2, u


def reduced_cost_and_gradient(u):
    """Cost of the control sequence u and its gradient (by the adjoint recursion), with the
    states eliminated: a computation that shares nothing with the solver."""
    steps = len(u)
    h = T / steps
    x1 = np.empty(steps + 1)
    x2 = np.empty(steps + 1)
    x1[0], x2[0] = 0.0, 1.0
    for k in range(steps):
        x1[k + 1] = x1[k] + h * x2[k]
        x2[k + 1] = x2[k] + h * (-x1[k] + (1 - x1[k] ** 2) * x2[k] + u[k])
    f = 0.5 * h * float(np.sum(x1[:steps] ** 2 + x2[:steps] ** 2 + u ** 2))
    g = np.empty(steps)
    l1 = l2 = 0.0
    for k in range(steps - 1, -1, -1):
        g[k] = h * u[k] + h * l2
        l1, l2 = (h * x1[k] + l1 + h * (-1 - 2 * x1[k] * x2[k]) * l2,
                  h * x2[k] + h * l1 + (1 + h * (1 - x1[k] ** 2)) * l2)
    return f, g


def reference_control(steps):
    optimize = pytest.importorskip("scipy.optimize")
    r = optimize.minimize(reduced_cost_and_gradient, np.zeros(steps), jac=True, method="L-BFGS-B",
                          bounds=[(-0.3, 1.0)] * steps,
                          options=dict(maxiter=2000, ftol=1e-15, gtol=1e-10))
    return r.fun, r.x


CONTROL_STEPS = 250   # 500 rows, 752 columns


@pytest.fixture(scope="module")
def reference():
    return reference_control(CONTROL_STEPS)


class TestOptimalControl:
    STEPS = CONTROL_STEPS

    def check(self, p, x1, x2, u, reference, sign=1.0):
        fref, uref = reference
        assert p.getProbStatus() == tv.nlp_locally_optimal
        # A linear step problem needs hundreds of iterations here and stops short.
        assert p.getAttrib("tslp_iter") < 100
        assert sign * p.getObjVal() == pytest.approx(fref, rel=1e-7)
        uval = np.array(p.getSolution(u))
        assert np.max(np.abs(uval - uref)) < 1e-3
        # The dynamics hold at the returned point and reproduce the cost from the controls.
        assert p.getAttrib("tslp_maxviolation") < 1e-6
        f, _ = reduced_cost_and_gradient(uval)
        assert f == pytest.approx(sign * p.getObjVal(), rel=1e-6)

    def test_minimise(self, reference):
        p, x1, x2, u = van_der_pol(self.STEPS)
        p.solve()
        self.check(p, x1, x2, u, reference)

    def test_maximise_negated_cost(self, reference):
        # The curvature must follow the objective's sense: maximising -cost is the same problem.
        p, x1, x2, u = van_der_pol(self.STEPS, maximize=True)
        p.solve()
        self.check(p, x1, x2, u, reference, sign=-1.0)

    def test_finer_grid_lowers_the_cost_towards_the_limit(self, reference):
        # Euler's error is first order in the step: doubling the steps lowers the cost, by
        # about half as much as the previous refinement.
        costs = []
        for steps in (self.STEPS // 2, self.STEPS, 2 * self.STEPS):
            p, *_ = van_der_pol(steps)
            p.solve()
            assert p.getProbStatus() == tv.nlp_locally_optimal
            costs.append(p.getObjVal())
        assert costs[1] == pytest.approx(reference[0], rel=1e-7)
        d1, d2 = costs[0] - costs[1], costs[1] - costs[2]
        assert d1 > 0 and d2 > 0
        assert 0.3 < d2 / d1 < 0.7


# ---------------------------------------------------------------------------------------------
# Curvature in the rows only: a linear objective over many independent curved rows.

COPIES = 250   # 500 curved columns


def test_quadratic_rows_with_linear_objective():
    # max x + y on the unit disc, COPIES times: optimum sqrt(2) each, at x = y = 1/sqrt(2).
    x = [tv.var(lb=-2, ub=2) for _ in range(COPIES)]
    y = [tv.var(lb=-2, ub=2) for _ in range(COPIES)]
    p = tv.problem()
    p.addVariable(x, y)
    p.addConstraint([x[i] ** 2 + y[i] ** 2 <= 1 for i in range(COPIES)])
    p.setObjective(tv.Sum(x[i] + y[i] for i in range(COPIES)), sense=tv.maximize)
    for i in range(COPIES):
        p.chgvar(x[i], initvalue=0.1 + 0.5 * (i % 3) / 3)
        p.chgvar(y[i], initvalue=-0.2)
    p.nlpoptimize()   # solve() hands quadratic rows to the optimiser, which refuses them
    assert p.getProbStatus() == tv.nlp_locally_optimal
    assert p.getAttrib("tslp_iter") < 100
    assert p.getObjVal() == pytest.approx(COPIES * math.sqrt(2), rel=1e-7)
    assert p.getSolution(x) == pytest.approx([1 / math.sqrt(2)] * COPIES, abs=1e-3)


def test_formula_rows_with_linear_objective():
    # min x + y subject to exp(-x) + exp(-y) <= 1, COPIES times: optimum 2 ln 2 each, at
    # x = y = ln 2 (the rows are nonlinear formulas, not quadratic rows).
    x = [tv.var(lb=-5, ub=5) for _ in range(COPIES)]
    y = [tv.var(lb=-5, ub=5) for _ in range(COPIES)]
    p = tv.problem()
    p.addVariable(x, y)
    p.addConstraint([tv.exp(-x[i]) + tv.exp(-y[i]) <= 1 for i in range(COPIES)])
    p.setObjective(tv.Sum(x[i] + y[i] for i in range(COPIES)), sense=tv.minimize)
    for i in range(COPIES):
        p.chgvar(x[i], initvalue=2.0 + (i % 5) * 0.3)
        p.chgvar(y[i], initvalue=3.0)
    p.solve()
    assert p.getProbStatus() == tv.nlp_locally_optimal
    assert p.getAttrib("tslp_iter") < 100
    assert p.getObjVal() == pytest.approx(COPIES * 2 * math.log(2), rel=1e-7)
    assert p.getSolution(y) == pytest.approx([math.log(2)] * COPIES, abs=1e-3)


def test_row_curved_in_many_columns():
    # max sum x subject to (sum x)^2 / N + sum x^2 <= 2 N: one row curved in all N columns,
    # with a dense Hessian (too big to split exactly, it is bounded by its diagonal); by
    # symmetry the optimum is x = 1, objective N.
    n = 150
    x = [tv.var(lb=-3, ub=3) for _ in range(n)]
    p = tv.problem()
    p.addVariable(x)
    p.addConstraint(tv.Sum(x) ** 2 / n + tv.Sum(xi ** 2 for xi in x) <= 2 * n)
    p.setObjective(tv.Sum(x), sense=tv.maximize)
    for i, xi in enumerate(x):
        p.chgvar(xi, initvalue=0.1 * (i % 5))
    p.nlpoptimize()
    assert p.getProbStatus() == tv.nlp_locally_optimal
    assert p.getAttrib("tslp_iter") < 100
    assert p.getObjVal() == pytest.approx(n, rel=1e-7)
    # The objective is flat to first order along the row at the optimum: points converge to
    # about the square root of its tolerance.
    assert p.getSolution(x) == pytest.approx([1.0] * n, abs=5e-3)
