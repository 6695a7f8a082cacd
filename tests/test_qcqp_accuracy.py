"""Convex quadratically constrained models solved by solve() (the tree search's outer
approximation): the reported optimum must be a KKT point, not only a point within feastol of the
rows. Stationarity is checked here from the model's own gradients (exact for quadratics) with
multipliers fitted by non-negative least squares, independently of the duals the solver
reports; the duals are then checked against the same condition."""
import numpy as np
import pytest

import tarvo as tv

scipy_optimize = pytest.importorskip("scipy.optimize")


pytestmark = pytest.mark.usefixtures("quiet")


class Quad:
    """g(x) = x'Qx + a'x + c with Q symmetric (numpy), for building rows and checking them."""

    def __init__(self, Q, a, c=0.0):
        self.Q, self.a, self.c = np.asarray(Q, float), np.asarray(a, float), float(c)

    def value(self, x):
        return float(x @ self.Q @ x + self.a @ x + self.c)

    def grad(self, x):
        return 2 * self.Q @ x + self.a

    def expr(self, xs):
        n = len(xs)
        e = self.c + sum(self.a[i] * xs[i] for i in range(n))
        for i in range(n):
            for j in range(n):
                if self.Q[i, j] != 0:
                    e = e + self.Q[i, j] * xs[i] * xs[j]
        return e


def solve_qcqp(f, rows, lb=None, ub=None, maxtime=30):
    """min f s.t. g_i <= 0 through solve(); returns the problem, columns, constraints."""
    n = len(f.a)
    xs = [tv.var(lb=-tv.infinity if lb is None else lb[j], ub=tv.infinity if ub is None else ub[j])
          for j in range(n)]
    cons = [g.expr(xs) <= 0 for g in rows]
    p = tv.problem(xs, cons, f.expr(xs))
    # A regression to an endless search must fail here, not hang the suite.
    p.controls.maxtime = maxtime
    p.solve()
    return p, xs, cons


def stationarity(f, rows, x, active_tol=1e-6):
    """min over y >= 0 of |grad f + sum y_i grad g_i| on the active rows, relative to
    max(1, |grad f|); no column bound may be active (the models below keep them far)."""
    gf = f.grad(x)
    active = [g for g in rows if g.value(x) >= -active_tol * max(1.0, np.abs(g.grad(x)).max())]
    scale = max(1.0, np.abs(gf).max())
    if not active:
        return np.abs(gf).max() / scale
    A = np.column_stack([g.grad(x) for g in active])
    y, _ = scipy_optimize.nnls(A, -gf)
    return np.abs(gf + A @ y).max() / scale


def check_kkt_point(p, xs, cons, f, rows, optimum):
    assert p.getProbStatusString() == "lp_optimal"
    x = np.array(p.getSolution(xs))
    assert p.getObjVal() == pytest.approx(optimum, rel=1e-6, abs=1e-7)
    assert f.value(x) == pytest.approx(p.getObjVal(), rel=1e-9, abs=1e-9)
    for g in rows:
        assert g.value(x) <= 1e-6
    # The bar the nonlinear benchmark applies to an optimal status (stopping at feastol alone
    # gives 1e-4 to 5e-4 on these models).
    assert stationarity(f, rows, x) <= 1e-4
    # The reported duals make the same point stationary: grad f = sum dual_i grad g_i.
    duals = np.array(p.getDual(cons))
    resid = f.grad(x) - sum(d * g.grad(x) for d, g in zip(duals, rows))
    assert np.abs(resid).max() <= 1e-3 * max(1.0, np.abs(f.grad(x)).max())
    return x


# ---- Hock-Schittkowski problems with only quadratic rows and objective ----------------------
# Rows are written g(x) <= 0 (the collection's g >= 0 negated).

def hs10():
    f = Quad(np.zeros((2, 2)), [1, -1])
    g = Quad([[3, -1], [-1, 1]], [0, 0], -1)
    return f, [g], -1.0, [0, 1]


def hs11():
    f = Quad(np.eye(2), [-10, 0], 25 - 25)
    g = Quad([[1, 0], [0, 0]], [0, -1])
    # On the active row x1 = x0^2, the optimum is the root of 2 (x0 - 5) + 4 x0^3 (the published
    # point is off in its fourth digit; its value is not).
    x0 = scipy_optimize.brentq(lambda t: 2 * (t - 5) + 4 * t ** 3, 0, 2)
    return f, [g], -8.498464223, [x0, x0 * x0]


def hs43():
    f = Quad(np.diag([1, 1, 2, 1]), [-5, -5, -21, 7])
    rows = [Quad(np.diag([1, 1, 1, 1]), [1, -1, 1, -1], -8),
            Quad(np.diag([1, 2, 1, 2]), [-1, 0, 0, -1], -10),
            Quad(np.diag([2, 1, 1, 0]), [2, -1, 0, -1], -5)]
    return f, rows, -44.0, [0, 1, 2, -1]


@pytest.mark.parametrize("case", [hs10, hs11, hs43], ids=["hs10", "hs11", "hs43"])
def test_hock_schittkowski_quadratic_models_end_at_kkt_points(case):
    f, rows, optimum, xstar = case()
    p, xs, cons = solve_qcqp(f, rows)
    x = check_kkt_point(p, xs, cons, f, rows, optimum)
    assert x == pytest.approx(xstar, abs=1e-4)
    # The search ended by itself, well inside its time limit.
    assert p.attributes.time < 10


# ---- random convex QCQPs against scipy -------------------------------------------------------

def random_qcqp(seed, n, m):
    rng = np.random.default_rng(seed)
    B = rng.normal(size=(n, n))
    f = Quad(0.5 * (B.T @ B) + 0.1 * np.eye(n), rng.normal(size=n) * 5)
    rows = []
    for _ in range(m):
        C = rng.normal(size=(n, n))
        # x = 0 is strictly feasible (c < 0), so the optimum has multipliers.
        rows.append(Quad(0.5 * (C.T @ C) + 0.05 * np.eye(n), rng.normal(size=n), -rng.uniform(0.5, 2)))
    return f, rows


def scipy_optimum(f, rows, n):
    cons = [{"type": "ineq", "fun": (lambda x, g=g: -g.value(x)), "jac": (lambda x, g=g: -g.grad(x))}
            for g in rows]
    best = None
    for start in (np.zeros(n), np.full(n, 0.1), -np.full(n, 0.1)):
        r = scipy_optimize.minimize(f.value, start, jac=f.grad, constraints=cons, method="SLSQP",
                                    options={"ftol": 1e-12, "maxiter": 500})
        if r.success and all(g.value(r.x) <= 1e-7 for g in rows) and (best is None or r.fun < best):
            best = r.fun
    return best


@pytest.mark.parametrize("seed,n,m", [(1, 3, 1), (2, 4, 2), (3, 5, 3), (4, 6, 2), (5, 8, 4)])
def test_random_convex_qcqps_match_scipy_at_kkt_points(seed, n, m):
    f, rows = random_qcqp(seed, n, m)
    reference = scipy_optimum(f, rows, n)
    assert reference is not None
    p, xs, cons = solve_qcqp(f, rows, lb=[-50] * n, ub=[50] * n)
    check_kkt_point(p, xs, cons, f, rows, reference)


def test_maximised_concave_objective_over_quadratic_rows():
    # max -(f) is min f: the objective moved into a row keeps the user's sense and value.
    f, rows, optimum, xstar = hs43()
    xs = [tv.var(lb=-tv.infinity) for _ in range(4)]
    cons = [g.expr(xs) <= 0 for g in rows]
    p = tv.problem(xs, cons, -f.expr(xs), sense=tv.maximize)
    p.controls.maxtime = 30
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    assert p.getObjVal() == pytest.approx(-optimum, rel=1e-6)
    assert p.attributes.bestbound == pytest.approx(-optimum, rel=1e-6)
    assert p.getSolution(xs) == pytest.approx(xstar, abs=1e-4)


def test_mixed_integer_qcqp_with_quadratic_objective_matches_enumeration():
    # Integers fixed by enumeration, the continuous rest solved by scipy: the search must find
    # the same optimum, at a point that meets the rows.
    f, rows = random_qcqp(7, 4, 2)
    best = None
    for k in range(-3, 4):
        cons = [{"type": "ineq", "fun": (lambda z, g=g, k=k: -g.value(np.r_[k, z]))} for g in rows]
        for start in (np.zeros(3), np.full(3, 0.1)):
            r = scipy_optimize.minimize(lambda z, k=k: f.value(np.r_[k, z]), start, constraints=cons,
                                        method="SLSQP", options={"ftol": 1e-12, "maxiter": 500})
            if r.success and all(g.value(np.r_[k, r.x]) <= 1e-7 for g in rows):
                best = r.fun if best is None else min(best, r.fun)
    xs = [tv.var(lb=-3, ub=3, vartype=tv.integer)] + [tv.var(lb=-50, ub=50) for _ in range(3)]
    p = tv.problem(xs, [g.expr(xs) <= 0 for g in rows], f.expr(xs))
    p.controls.maxtime = 30
    p.controls.miprelstop = 0
    p.controls.mipabsstop = 1e-9
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    x = np.array(p.getSolution(xs))
    assert p.getObjVal() == pytest.approx(best, rel=1e-6, abs=1e-7)
    assert x[0] == round(x[0])
    for g in rows:
        assert g.value(x) <= 1e-6
