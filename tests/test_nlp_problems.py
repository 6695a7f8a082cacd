"""Classic small nonlinear problems solved end to end through the problem layer (formula
conversion, nonlinear rows and objective, the nonlinear solve, solutions, slacks, duals), each
against its published or analytically derived optimum."""
import math

import pytest

import tarvo as tv

TOL = 1e-5


pytestmark = pytest.mark.usefixtures("quiet")


def start(p, values):
    for v, x0 in values.items():
        p.chgvar(v, initvalue=x0)


def test_rosenbrock_unconstrained():
    # Rosenbrock (1960): f = (1 - x)^2 + 100 (y - x^2)^2, minimum 0 at (1, 1); classic start
    # (-1.2, 1).
    x, y = tv.var(lb=-10, ub=10, name="x"), tv.var(lb=-10, ub=10, name="y")
    p = tv.problem(x, y, (1 - x) ** 2 + 100 * (y - x ** 2) ** 2, name="rosenbrock")
    start(p, {x: -1.2, y: 1})
    p.solve()
    assert p.getProbStatus() == tv.nlp_locally_optimal
    assert p.getProbStatusString() == "nlp_solution"
    assert p.getObjVal() == pytest.approx(0, abs=TOL)
    assert p.getSolution([x, y]) == pytest.approx([1, 1], abs=1e-3)


def test_hs071_equality_constrained():
    # Hock & Schittkowski (1981) problem 71: min x1 x4 (x1 + x2 + x3) + x3 subject to
    # x1 x2 x3 x4 >= 25, sum x_i^2 = 40, 1 <= x <= 5; start (1, 5, 5, 1);
    # optimum 17.0140173 at (1, 4.7429994, 3.8211503, 1.3794082).
    x = [tv.var(lb=1, ub=5, name=f"x{i}") for i in range(1, 5)]
    x1, x2, x3, x4 = x
    prod = tv.constraint(body=x1 * x2 * x3 * x4, lb=25, name="prod")
    sphere = tv.constraint(body=x1 ** 2 + x2 ** 2 + x3 ** 2 + x4 ** 2, lb=40, ub=40, name="sphere")
    p = tv.problem(x, prod, sphere, x1 * x4 * (x1 + x2 + x3) + x3, name="hs071")
    start(p, dict(zip(x, [1, 5, 5, 1])))
    p.solve()
    assert p.getProbStatusString() == "nlp_solution"
    assert p.getObjVal() == pytest.approx(17.0140173, abs=TOL)
    sol = p.getSolution(x)
    assert sol == pytest.approx([1, 4.7429994, 3.8211503, 1.3794082], abs=1e-4)
    # Both rows are active; slack is rhs minus activity.
    assert p.getSlack([prod, sphere]) == pytest.approx([0, 0], abs=1e-5)
    assert math.prod(sol) == pytest.approx(25, abs=1e-5)
    # KKT at the optimum: grad f = l1 grad(prod) + l2 grad(sphere) on the free columns x2..x4
    # (x1 is at its lower bound).
    l1, l2 = p.getDual([prod, sphere])
    a, b, c, d = sol
    grad_f = [d * (a + b + c) + a * d, a * d, a * d + 1, a * (a + b + c)]
    grad_g = [b * c * d, a * c * d, a * b * d, a * b * c]
    for j in (1, 2, 3):
        assert grad_f[j] == pytest.approx(l1 * grad_g[j] + l2 * 2 * sol[j], abs=1e-3)


def test_convex_qcqp_through_nlpoptimize():
    # min x + y subject to x^2 + y^2 <= 1: optimum -sqrt(2) at (-1/sqrt(2), -1/sqrt(2)).
    # The optimiser solves the convex disc by outer approximation; the nonlinear solver takes
    # the row as a formula and must agree.
    x, y = tv.var(lb=-2, ub=2, name="x"), tv.var(lb=-2, ub=2, name="y")
    disc = tv.constraint(body=x ** 2 + y ** 2, ub=1, name="disc")
    p = tv.problem(x, y, disc, x + y)
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    assert p.getObjVal() == pytest.approx(-math.sqrt(2), rel=1e-6)
    p.nlpoptimize()
    assert p.getProbStatusString() == "nlp_solution"
    assert p.getObjVal() == pytest.approx(-math.sqrt(2), abs=TOL)
    assert p.getSolution([x, y]) == pytest.approx([-1 / math.sqrt(2)] * 2, abs=1e-4)
    # The multiplier of the disc: 1 = 2 l x at the optimum, so |l| = 1/sqrt(2).
    assert abs(p.getDual(disc)) == pytest.approx(1 / math.sqrt(2), abs=1e-4)


def test_nonconvex_qp_refused_by_the_optimiser_solved_locally():
    # min -(x^2 + y^2) subject to x + y <= 1, x, y >= 0: a concave objective is least at a
    # vertex; from (0.6, 0.3) the descent reaches (1, 0) with value -1.
    x, y = tv.var(name="x"), tv.var(name="y")
    p = tv.problem(x, y, x + y <= 1, -x ** 2 - y ** 2)
    start(p, {x: 0.6, y: 0.3})
    with pytest.raises(tv.SolverError, match="nonconvex"):
        p.solve()
    assert p.getProbStatusString() == "lp_nonconvex"
    p.nlpoptimize()
    assert p.getProbStatusString() == "nlp_solution"
    assert p.getObjVal() == pytest.approx(-1, abs=TOL)
    assert p.getSolution([x, y]) == pytest.approx([1, 0], abs=1e-4)


@pytest.mark.parametrize("derivatives", [False, True])
def test_user_function_objective_with_and_without_derivatives(derivatives):
    # f(a, b) = (a - 1)^2 + (b - 2)^2 + a b: stationary where 2(a - 1) + b = 0 and
    # 2(b - 2) + a = 0, i.e. (0, 2), f = 1 (the Hessian [[2, 1], [1, 2]] is positive definite).
    calls = []

    def f(a, b):
        calls.append((a, b))
        value = (a - 1) ** 2 + (b - 2) ** 2 + a * b
        if derivatives:
            return value, 2 * (a - 1) + b, 2 * (b - 2) + a
        return value

    x, y = tv.var(lb=-5, ub=5, name="x"), tv.var(lb=-5, ub=5, name="y")
    p = tv.problem(x, y, tv.user(f, x, y, derivatives=derivatives))
    p.solve()
    assert p.getProbStatusString() == "nlp_solution"
    assert p.getObjVal() == pytest.approx(1, abs=TOL)
    assert p.getSolution([x, y]) == pytest.approx([0, 2], abs=1e-3)
    assert calls and all(isinstance(a, float) and isinstance(b, float) for a, b in calls)


def test_user_function_errors_end_the_solve_without_crashing():
    def broken(a):
        raise ValueError("no value here")

    x = tv.var(lb=-1, ub=1)
    p = tv.problem(x, tv.user(broken, x) + x ** 2)
    with pytest.raises(ValueError, match="no value here"):
        p.solve()


def test_minlp_with_binaries_in_nonlinear_rows_matches_enumeration():
    # min (x - 3)^2 + (y - 2)^2 + 3 b1 + 2 b2 subject to x^3 - 30 b1 <= 1, exp(y) - 10 b2 <= 1,
    # 0 <= x, y <= 4: b1 = 0 caps x at 1 (cost 4), b1 = 1 lets x = 3 (cost 3); b2 = 0 caps y at
    # 0 (cost 4), b2 = 1 lets y = 2 (cost 2). Optimum 5 at (3, 2, 1, 1).
    def build(fixed=None):
        x, y = tv.var(ub=4, name="x"), tv.var(ub=4, name="y")
        if fixed is None:
            b1, b2 = tv.var(vartype=tv.binary, name="b1"), tv.var(vartype=tv.binary, name="b2")
        else:
            b1, b2 = (tv.var(lb=v, ub=v) for v in fixed)
        p = tv.problem(x, y, b1, b2, x ** 3 - 30 * b1 <= 1, tv.exp(y) - 10 * b2 <= 1,
                       (x - 3) ** 2 + (y - 2) ** 2 + 3 * b1 + 2 * b2)
        start(p, {x: 0.5, y: 0.5})
        return p, (x, y, b1, b2)

    p, (x, y, b1, b2) = build()
    # Mixed-integer nonlinear solves add 'g' to the flags; a full flag string leaves no room.
    with pytest.raises(tv.SolverError, match="flag string is full; cannot add 'g'"):
        p.solve("d" * 511)
    p.solve("d")
    assert p.getProbStatusString() == "nlp_globally_optimal"
    assert p.getObjVal() == pytest.approx(5, abs=TOL)
    assert p.getSolution([x, y, b1, b2]) == pytest.approx([3, 2, 1, 1], abs=1e-4)
    # Every fixed choice of the binaries (solved as continuous problems) is no better.
    values = []
    for fixed in ((0, 0), (0, 1), (1, 0), (1, 1)):
        q, _ = build(fixed)
        q.solve()
        values.append(q.getObjVal())
    assert min(values) == pytest.approx(p.getObjVal(), abs=TOL)
    assert values == pytest.approx([8, 6, 7, 5], abs=1e-4)


def test_exp_log_sin_objective():
    # exp(x) - 2x is least at x = ln 2; y - log(y) at y = 1; sin(z) on [0, 2 pi] from z = 4 at
    # 3 pi / 2. Optimum 2 - 2 ln 2 + 1 - 1.
    x = tv.var(lb=-3, ub=3, name="x")
    y = tv.var(lb=0.1, ub=5, name="y")
    z = tv.var(lb=0, ub=2 * math.pi, name="z")
    budget = tv.constraint(body=x + y + z, ub=10, name="budget")
    p = tv.problem(x, y, z, budget, tv.exp(x) - 2 * x + y - tv.log(y) + tv.sin(z))
    start(p, {y: 2, z: 4})
    p.solve()
    assert p.getProbStatusString() == "nlp_solution"
    assert p.getObjVal() == pytest.approx(2 - 2 * math.log(2), abs=TOL)
    assert p.getSolution([x, y, z]) == pytest.approx([math.log(2), 1, 1.5 * math.pi], abs=1e-3)
    # The budget row is inactive: its slack is 10 minus the activity and its dual is zero.
    assert p.getSlack(budget) == pytest.approx(10 - (math.log(2) + 1 + 1.5 * math.pi), abs=1e-3)
    assert p.getDual(budget) == pytest.approx(0, abs=1e-6)


def test_constraints_added_after_a_nonlinear_objective_keep_their_rows():
    # min exp(-x) + exp(-y) is decreasing in x and y and symmetric: on x + y <= 3 the optimum
    # is (1.5, 1.5) unless x is capped; the cap x + z <= 2.2 with z = 1 gives (1.2, 1.8).
    # The rows and the column z are added after the objective.
    x, y = tv.var(ub=5, name="x"), tv.var(ub=5, name="y")
    p = tv.problem(x, y, x + y <= 3)
    p.setObjective(tv.exp(-x) + tv.exp(-y))
    late = tv.constraint(body=x - y, ub=0.5, name="late")
    p.addConstraint(late)
    z = tv.var(lb=1, ub=1, name="z")
    p.addVariable(z)
    cap = tv.constraint(body=x + z, ub=2.2, name="cap")
    p.addConstraint(cap)
    # The transfer pair stays behind the model's rows and columns.
    assert [p.getIndex(o) for o in (late, cap, z)] == [1, 2, 2]
    assert (p.getAttrib("rows"), p.getAttrib("cols")) == (4, 4)
    p.solve()
    assert p.getObjVal() == pytest.approx(math.exp(-1.2) + math.exp(-1.8), abs=TOL)
    assert p.getSolution([x, y]) == pytest.approx([1.2, 1.8], abs=1e-4)
    assert p.getSlack([late, cap]) == pytest.approx([0.5 + 0.6, 0], abs=1e-4)
    # Deleting rows and columns keeps the objective working.
    p.delConstraint(cap)
    p.delVariable(z)
    assert (p.getAttrib("rows"), p.getAttrib("cols")) == (3, 3)
    p.solve()
    assert p.getObjVal() == pytest.approx(2 * math.exp(-1.5), abs=TOL)
    # Deleting one of its variables acts as fixing it at 0: 1 + exp(-y), least at y = 3.
    p.delVariable(x)
    assert (p.getAttrib("rows"), p.getAttrib("cols")) == (3, 2)
    p.solve()
    assert p.getObjVal() == pytest.approx(1 + math.exp(-3), abs=TOL)
    assert p.getSolution(y) == pytest.approx(3, abs=1e-5)


def test_discrete_entities_in_nonlinear_problems_are_enforced():
    # Without the set s1 = s2 = 5 (objective -10); the set allows only one of them non-zero.
    s1, s2 = tv.var(ub=5, name="s1"), tv.var(ub=5, name="s2")
    p = tv.problem(s1, s2, tv.exp(s1 / 5) + tv.exp(s2 / 5) <= 10, tv.sos([s1, s2], [1, 2], 1), -s1 - 1.1 * s2)
    p.solve()
    assert p.getProbStatusString() == "nlp_globally_optimal"
    assert p.getSolution() == pytest.approx([0, 5], abs=1e-6)
    # Only the problem's own columns and rows come back.
    assert len(p.getSlack()) == 1 and len(p.getDual()) == 1
    # SOS2 over an interpolation of the concave sqrt on [0, 2]: min interpolant(u) + (u - 1.3)^2.
    # Without the set, weights on non-neighbouring points would undercut the interpolant.
    pts = [0.0, 0.5, 1.0, 1.5, 2.0]
    lam = [tv.var(ub=1, name="l%d" % i) for i in range(len(pts))]
    u = tv.var(ub=2, name="u")
    q = tv.problem(lam, u, tv.Sum(lam) == 1, u == tv.Sum(w * l for w, l in zip(pts, lam)),
                   tv.sos(lam, pts, 2), tv.Sum(math.sqrt(w) * l for w, l in zip(pts, lam)) + (u - 1.3) ** 2)
    q.nlpoptimize()  # a mixed-integer QP: the optimiser refuses it as nonconvex
    # The best point of each segment [a, b] in closed form; the set allows one segment at a time.
    def best_on(a, b):
        fa, fb = math.sqrt(a), math.sqrt(b)
        slope = (fb - fa) / (b - a)
        t = min(max(1.3 - slope / 2, a), b)
        return fa + slope * (t - a) + (t - 1.3) ** 2
    expected = min(best_on(a, b) for a, b in zip(pts, pts[1:]))
    assert q.getObjVal() == pytest.approx(expected, abs=1e-5)
    assert sum(v > 1e-9 for v in q.getSolution(lam)) <= 2
    # Indicator: b = 1 forces s1 + s2 <= 1, and b is rewarded just enough to prefer it.
    b = tv.var(vartype=tv.binary, name="b")
    r = tv.problem(s1, s2, b, tv.exp(s1 / 5) <= 10, -s1 - s2 - 9.5 * b)
    r.addIndicator(b == 1, s1 + s2 <= 1)
    r.solve()
    assert r.getObjVal() == pytest.approx(-10.5, abs=1e-6)
    assert r.getSolution(b) == pytest.approx(1)
    # Semi-continuous: 0 or in [2, 4]; the objective wants sc near 1, so 0 (value 2.17) and
    # the threshold 2 (value 1.15) compete.
    sc = tv.var(vartype=tv.semicontinuous, threshold=2, ub=4, name="sc")
    t = tv.problem(sc, (sc - 1.2) ** 4 + tv.exp(sc) / 10)
    t.solve()
    assert t.getSolution(sc) == pytest.approx(2, abs=1e-6)
    assert t.getObjVal() == pytest.approx(0.8 ** 4 + math.exp(2) / 10, abs=1e-6)


def test_semicontinuous_without_upper_bound_is_refused_by_the_nonlinear_optimiser():
    sc = tv.var(vartype=tv.semicontinuous, threshold=1, name="sc")
    with pytest.raises(tv.SolverError, match="Semi-continuous column sc has no upper bound"):
        tv.problem(sc, tv.exp(sc / 4) <= 10, -sc).solve()


@pytest.mark.parametrize("seed", [4, 7, 9, 11])
def test_convex_plant_choice_reaches_the_best_assignment(seed):
    # Four plants with convex running costs exp(a o) - 1 and fixed costs when open meet one
    # demand. The first assignment mixed-integer SLP settles on is not the best for these
    # instances; the result must match enumerating the sixteen assignments.
    import itertools
    import random
    rng = random.Random(seed)
    k, demand = 4, rng.uniform(5, 15)
    fixed = [rng.uniform(1, 8) for _ in range(k)]
    a = [rng.uniform(0.05, 0.5) for _ in range(k)]

    def build(z=None):
        o = [tv.var(ub=20) for _ in range(k)]
        b = [tv.var(vartype=tv.binary) for _ in range(k)]
        on = b if z is None else list(z)
        return tv.problem(o, b, tv.Sum(o) >= demand, [o[i] <= 20 * on[i] for i in range(k)],
                          tv.Sum(tv.exp(a[i] * o[i]) - 1 + fixed[i] * on[i] for i in range(k)))

    p = build()
    p.solve()
    best = math.inf
    for z in itertools.product([0, 1], repeat=k):
        if any(z):
            q = build(z)
            q.solve()
            best = min(best, q.getObjVal())
    assert p.getProbStatusString() == "nlp_globally_optimal"
    assert p.getObjVal() == pytest.approx(best, rel=1e-6)
