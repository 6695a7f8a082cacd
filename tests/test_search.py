"""The engine's own tree search behind solve(): convex quadratic rows by outer approximation,
convex mixed-integer quadratic objectives and rows, checked against analytic optima and brute-force
enumeration; plain MIPs through the search against HiGHS; non-convex models still refused; the
TREESEARCH control, limits and attributes."""
import itertools
import math

import numpy as np
import pytest

import tarvo as tv

NONCONVEX = "determined to be nonconvex"


pytestmark = pytest.mark.usefixtures("quiet")


def exact(p):
    """Asks the search for the optimum itself, not one within the default gap."""
    p.controls.miprelstop = 0
    p.controls.mipabsstop = 1e-9
    return p


# ---- continuous models with quadratic rows -------------------------------------------------

@pytest.mark.parametrize("bounded", [True, False])
def test_disc_with_linear_objective_reaches_the_analytic_optimum(bounded):
    # min -x - y on x^2 + y^2 <= 1: -sqrt(2) at (1/sqrt(2), 1/sqrt(2)); with free columns the
    # first relaxation is unbounded and only the cuts close it.
    lb, ub = (-2, 2) if bounded else (-tv.infinity, tv.infinity)
    x, y = tv.var(lb=lb, ub=ub), tv.var(lb=lb, ub=ub)
    disc = x * x + y * y <= 1
    p = tv.problem(x, y, disc, -x - y)
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    assert p.getObjVal() == pytest.approx(-math.sqrt(2), rel=1e-6)
    assert p.getSolution() == pytest.approx([1 / math.sqrt(2)] * 2, abs=1e-3)
    # The row holds to the feasibility tolerance and its dual is the multiplier of -x - y:
    # -1 = 2 l x, so l = -1/sqrt(2).
    assert p.getSlack(disc) >= -1e-6
    assert p.getDual(disc) == pytest.approx(-1 / math.sqrt(2), abs=1e-4)
    assert p.attributes.bestbound == pytest.approx(-math.sqrt(2), rel=1e-6)


def test_greater_row_with_concave_side_and_maximisation():
    # max x + 2y s.t. 4 - x^2 - y^2 >= 3 (the unit disc as a >= row): sqrt(5) at (1, 2)/sqrt(5).
    x, y = tv.var(lb=-3, ub=3), tv.var(lb=-3, ub=3)
    p = tv.problem(x, y, 4 - x * x - y * y >= 3, x + 2 * y, sense=tv.maximize)
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    assert p.getObjVal() == pytest.approx(math.sqrt(5), rel=1e-6)
    assert p.getSolution() == pytest.approx([1 / math.sqrt(5), 2 / math.sqrt(5)], abs=1e-3)


def test_rotated_ellipse_with_quadratic_objective():
    # min (x - 3)^2 + (y - 3)^2 over (x + y)^2 + 2 (x - y)^2 <= 2 (Q = [[3, -1], [-1, 3]]):
    # by symmetry the answer is on x = y, where 4 x^2 <= 2, x = 1/sqrt(2).
    x, y = tv.var(lb=-5, ub=5), tv.var(lb=-5, ub=5)
    p = tv.problem(x, y, 3 * x * x - 2 * x * y + 3 * y * y <= 2, (x - 3) ** 2 + (y - 3) ** 2)
    p.solve()
    xs = 1 / math.sqrt(2)
    assert p.getProbStatusString() == "lp_optimal"
    assert p.getObjVal() == pytest.approx(2 * (xs - 3) ** 2, rel=1e-6)


def test_infeasible_and_unbounded_quadratic_rows():
    x, y = tv.var(lb=-5, ub=5), tv.var(lb=-5, ub=5)
    p = tv.problem(x, y, x * x + y * y <= 1, x + y >= 2, x)
    p.solve()
    assert p.getProbStatusString() == "lp_infeas"
    # y >= x^2 and maximise y: unbounded along the parabola.
    u, v = tv.var(lb=-tv.infinity), tv.var(lb=-tv.infinity)
    q = tv.problem(u, v, u * u - v <= 0, v, sense=tv.maximize)
    q.solve()
    assert q.getProbStatusString() == "lp_unbounded"


# ---- mixed-integer quadratic objectives ----------------------------------------------------

def test_integer_least_squares_matches_enumeration():
    rng = np.random.default_rng(7)
    A = rng.normal(size=(8, 4))
    b = A @ np.array([1.3, -2.6, 0.4, 2.2]) + rng.normal(scale=0.3, size=8)
    z = [tv.var(vartype=tv.integer, lb=-4, ub=4) for _ in range(4)]
    res = [tv.Sum(float(A[i, j]) * z[j] for j in range(4)) - float(b[i]) for i in range(8)]
    p = exact(tv.problem(z, tv.Sum(r * r for r in res)))
    p.solve()
    pts = np.array(list(itertools.product(range(-4, 5), repeat=4)), dtype=float)
    vals = ((pts @ A.T - b) ** 2).sum(axis=1)
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(vals.min(), rel=1e-6)
    assert p.getSolution() == pytest.approx(pts[vals.argmin()].tolist())
    assert p.attributes.bestbound == pytest.approx(vals.min(), rel=1e-6)
    assert p.attributes.nodes >= 1 and p.attributes.mipsols >= 1


def random_miqp(seed):
    """A convex MIQP 0.5 x'Qx + c'x (+ free continuous columns in half the cases) with a
    knapsack row over the integers, and its optimum by enumeration."""
    rng = np.random.default_rng(seed)
    mixed = seed % 2 == 1
    k = int(rng.integers(5, 9)) if mixed else int(rng.integers(5, 16))
    dom = [0, 1] if mixed or k > 9 else ([0, 1, 2] if k > 7 else [-1, 0, 1, 2])
    nc = 3 if mixed else 0
    n = k + nc
    L = rng.normal(size=(n, n - int(seed % 3 == 0)))  # sometimes singular
    Q = L @ L.T + (0 if seed % 3 == 0 else 0.1) * np.eye(n)
    c = rng.normal(scale=3, size=n)
    a = rng.integers(1, 6, size=k)
    cap = int(a.sum() * max(dom) * 0.5)
    x = [tv.var(vartype=tv.integer, lb=dom[0], ub=dom[-1]) for _ in range(k)]
    y = [tv.var(lb=-tv.infinity) for _ in range(nc)]
    cols = x + y
    obj = 0.5 * tv.Dot(np.array(cols, dtype=object), Q, np.array(cols, dtype=object)) + tv.Dot(c, np.array(cols, dtype=object))
    p = exact(tv.problem(cols, tv.Sum(int(a[j]) * x[j] for j in range(k)) <= cap, obj))
    pts = np.array(list(itertools.product(dom, repeat=k)), dtype=float)
    pts = pts[pts @ a <= cap]
    Qxx, Qxy, Qyy = Q[:k, :k], Q[:k, k:], Q[k:, k:]
    vals = 0.5 * np.einsum("pi,ij,pj->p", pts, Qxx, pts) + pts @ c[:k]
    if nc:
        # The continuous part in closed form: y = -Qyy^-1 (Qxy' x + c_y).
        rhs = pts @ Qxy + c[k:]
        ys = -np.linalg.solve(Qyy, rhs.T).T
        vals = vals + np.einsum("pi,ij,pj->p", pts, Qxy, ys) + 0.5 * np.einsum("pi,ij,pj->p", ys, Qyy, ys) + ys @ c[k:]
    return p, vals.min()


def test_fifty_random_convex_miqps_match_enumeration():
    wrong = []
    for seed in range(50):
        p, best = random_miqp(seed)
        p.solve()
        if p.getProbStatusString() != "mip_optimal" or abs(p.getObjVal() - best) > 1e-6 * max(1, abs(best)):
            wrong.append((seed, p.getProbStatusString(), p.getObjVal(), best))
    assert wrong == []


def test_miqp_maximising_a_concave_objective():
    # max -(z - 2.4)^2 - (w - 0.6)^2 with z integer, w binary: (2, 1), value -0.32.
    z, w = tv.var(vartype=tv.integer, ub=5), tv.var(vartype=tv.binary)
    p = tv.problem(z, w, -(z - 2.4) ** 2 - (w - 0.6) ** 2, sense=tv.maximize)
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(-0.32, abs=1e-9)
    assert p.getSolution() == [2, 1]
    # Within the default relative gap, the bound is the real one and the gap is the reason.
    bb = p.attributes.bestbound
    assert -0.32 <= bb <= -0.32 + 1e-4 * 0.32 + 1e-9
    assert p.attributes.stopstatus == (tv.stop_mipgap if bb > -0.32 + 1e-9 else 0)


# ---- mixed-integer quadratic rows ----------------------------------------------------------

def portfolio(mu, cov, vmax, card):
    n = len(mu)
    x = [tv.var(ub=1) for _ in range(n)]
    z = [tv.var(vartype=tv.binary) for _ in range(n)]
    xa = np.array(x, dtype=object)
    p = tv.problem(x, z, tv.Sum(x) == 1, [x[i] <= z[i] for i in range(n)], tv.Sum(z) <= card,
                   tv.Dot(xa, cov, xa) <= vmax, tv.Dot(mu, xa), sense=tv.maximize)
    return exact(p), x, z


def best_portfolio_by_enumeration(mu, cov, vmax, card):
    from scipy.optimize import minimize
    n = len(mu)
    best = -np.inf
    for size in range(1, card + 1):
        for sub in itertools.combinations(range(n), size):
            s = list(sub)
            m, C = mu[s], cov[np.ix_(s, s)]
            cons = [{"type": "eq", "fun": lambda v: v.sum() - 1, "jac": lambda v: np.ones_like(v)},
                    {"type": "ineq", "fun": lambda v, C=C: vmax - v @ C @ v, "jac": lambda v, C=C: -2 * C @ v}]
            starts = [np.full(size, 1 / size)] + [np.eye(size)[i] for i in range(size)]
            for x0 in starts:
                r = minimize(lambda v, m=m: -m @ v, x0, jac=lambda v, m=m: -m, bounds=[(0, 1)] * size,
                             constraints=cons, method="SLSQP", options={"ftol": 1e-13, "maxiter": 500})
                v = r.x
                if r.success and abs(v.sum() - 1) < 1e-7 and v @ C @ v <= vmax + 1e-7 and v.min() >= -1e-9:
                    best = max(best, m @ v)
    return best


@pytest.mark.parametrize("seed", [1, 2, 3])
def test_portfolio_with_variance_row_and_cardinality_matches_enumeration(seed):
    rng = np.random.default_rng(seed)
    n = 6
    F = rng.normal(size=(n, 2)) * 0.15
    cov = F @ F.T + np.diag(rng.uniform(0.01, 0.05, n))
    mu = rng.uniform(0.03, 0.15, n)
    vmax = float(np.median(np.diag(cov)) * 0.6)
    p, x, z = portfolio(mu, cov, vmax, 2)
    # The variance limit is about 0.01: an absolute violation of 1e-6 would move the return in
    # the sixth digit.
    p.controls.feastol = 1e-8
    p.solve()
    best = best_portfolio_by_enumeration(mu, cov, vmax, 2)
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(best, rel=1e-6)
    sol = np.array(p.getSolution(x))
    assert sol @ cov @ sol <= vmax + 1e-6
    assert sum(v > 1e-9 for v in sol) <= 2


def test_integer_points_in_a_disc():
    # max 3a + 4b over integers in the disc a^2 + b^2 <= 30: enumeration gives the answer.
    a, b = tv.var(vartype=tv.integer, lb=-10, ub=10), tv.var(vartype=tv.integer, lb=-10, ub=10)
    p = exact(tv.problem(a, b, a * a + b * b <= 30, 3 * a + 4 * b, sense=tv.maximize))
    p.solve()
    best = max(3 * i + 4 * j for i in range(-10, 11) for j in range(-10, 11) if i * i + j * j <= 30)
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(best)
    # No integer point: mip_infeas.
    q = tv.problem(a, b, (a - 0.5) ** 2 + (b - 0.5) ** 2 <= 0.2, a + b)
    q.solve()
    assert q.getProbStatusString() == "mip_infeas"


# ---- non-convex models stay refused ------------------------------------------------------

@pytest.mark.parametrize("case", ["indefinite_row", "convex_ge_row", "equation", "concave_min", "miqp_concave"])
def test_nonconvex_models_are_refused_with_the_reason(case):
    x, y = tv.var(lb=-2, ub=2, name="x"), tv.var(lb=-2, ub=2, name="y")
    z = tv.var(vartype=tv.integer, ub=3)
    if case == "indefinite_row":
        p = tv.problem(x, y, tv.constraint(x * y <= 1, name="hyp"), x + y)
        reason = "hyp"
    elif case == "convex_ge_row":
        p = tv.problem(x, y, tv.constraint(x * x + y * y >= 1, name="ring"), x + y)
        reason = "ring"
    elif case == "equation":
        p = tv.problem(x, y, tv.constraint(x * x + y * y == 1, name="circle"), x + y)
        reason = "circle"
    elif case == "concave_min":
        p = tv.problem(x, y, x + y <= 1, -x * x - y * y)
        reason = "objective"
    else:
        p = tv.problem(x, z, x + z <= 3, -(x - z) ** 2)
        reason = "objective"
    with pytest.raises(tv.SolverError, match=NONCONVEX):
        p.solve()
    assert p.getProbStatus() == tv.lp_nonconvex
    # The log names the cause.
    msgs = []

    def handler(*args):
        msgs.extend(str(a) for a in args)
        return 0

    tv.addcbmsghandler(handler, None, 0)
    tv.setOutputEnabled(True)
    try:
        with pytest.raises(tv.SolverError):
            p.solve()
    finally:
        tv.setOutputEnabled(False)
        tv.removecbmsghandler(handler, None)
    assert any(reason in m and "nonconvex" in m for m in msgs), msgs


# ---- plain MIPs through the search --------------------------------------------------------

def random_mip(seed, n=25, m=15):
    rng = np.random.default_rng(seed)
    x = [tv.var(vartype=tv.binary) if j % 3 else tv.var(vartype=tv.integer, ub=5) for j in range(n)]
    y = [tv.var(ub=3) for _ in range(3)]
    A = rng.integers(0, 10, (m, n)) * (rng.random((m, n)) < 0.5)
    rows = [tv.Sum(int(A[i, j]) * x[j] for j in range(n)) + (i % 3 + 1) * y[i % 3] <= int(A[i].sum() * 0.4)
            for i in range(m)]
    c = rng.integers(1, 20, n)
    return exact(tv.problem(x, y, rows, tv.Sum(int(c[j]) * x[j] for j in range(n)) + 2.5 * tv.Sum(y),
                            sense=tv.maximize))


def test_random_mips_reach_highs_optimum_through_the_search():
    for seed in range(12):
        ref = random_mip(seed)
        ref.solve()
        p = random_mip(seed)
        p.controls.treesearch = 1
        p.solve()
        assert p.getProbStatusString() == "mip_optimal"
        # HiGHS's own answer may use its feasibility tolerance of 1e-6 on the continuous part.
        assert p.getObjVal() == pytest.approx(ref.getObjVal(), rel=1e-7), seed
        assert p.attributes.bestbound == pytest.approx(p.getObjVal(), rel=1e-9)
        assert p.attributes.nodes >= 1
        # The solution is the user's, integral, and feasible.
        assert all(s >= -1e-6 for s in p.getSlack())


def test_treesearch_control_values():
    x, y = tv.var(lb=-2, ub=2), tv.var(lb=-2, ub=2)
    p = tv.problem(x, y, x * x + y * y <= 1, x + y)
    with pytest.raises(tv.SolverError, match="TREESEARCH"):
        p.controls.treesearch = 3
    p.controls.treesearch = 2
    with pytest.raises(tv.SolverError, match="needs the tree search") as e:
        p.solve()
    assert NONCONVEX not in str(e.value)
    p.controls.treesearch = 0
    p.solve()
    assert p.getObjVal() == pytest.approx(-math.sqrt(2), rel=1e-6)


# ---- limits and attributes -----------------------------------------------------------------

def hard_miqp():
    rng = np.random.default_rng(11)
    n = 14
    A = rng.normal(size=(20, n))
    b = A @ rng.uniform(-3, 3, n) + rng.normal(size=20)
    z = [tv.var(vartype=tv.integer, lb=-6, ub=6) for _ in range(n)]
    res = [tv.Sum(float(A[i, j]) * z[j] for j in range(n)) - float(b[i]) for i in range(20)]
    return tv.problem(z, tv.Sum(r * r for r in res)), z


def test_node_solution_and_gap_limits():
    p, _ = hard_miqp()
    exact(p)
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    opt, nodes = p.getObjVal(), p.attributes.nodes
    assert nodes > 5
    # Node limit: stopped with the reason, a valid bound below any solution.
    q, _ = hard_miqp()
    q.controls.maxnode = 3
    q.solve()
    assert q.attributes.stopstatus == tv.stop_nodelimit
    assert q.attributes.nodes == 3
    assert q.attributes.bestbound <= opt + 1e-6
    assert q.getProbStatusString() in ("mip_solution", "mip_no_sol_found")
    # Solution limit: exactly one solution.
    q, _ = hard_miqp()
    q.controls.maxmipsol = 1
    q.solve()
    assert q.attributes.mipsols == 1 and q.attributes.stopstatus == tv.stop_sollimit
    assert q.getObjVal() >= opt - 1e-6
    # A loose gap: optimal within it, the real bound below the objective, the gap as reason.
    q, _ = hard_miqp()
    q.controls.miprelstop = 0.5
    q.solve()
    assert q.getProbStatusString() == "mip_optimal"
    bb, obj = q.attributes.bestbound, q.getObjVal()
    assert bb <= opt + 1e-6 <= obj + 2e-6
    assert obj - bb <= 0.5 * abs(obj) + 1e-6
    if obj - bb > 1e-6 * abs(obj):
        assert q.attributes.stopstatus == tv.stop_mipgap
    # Iteration limit: counted over the whole search.
    q, _ = hard_miqp()
    q.controls.lpiterlimit = 50
    q.solve()
    assert q.attributes.stopstatus == tv.stop_iterlimit
    assert 50 <= q.attributes.simplexiter < nodes * 1000
    # A cutoff below the optimum: no solution can be accepted.
    q, _ = hard_miqp()
    q.controls.mipabscutoff = opt - 1
    q.solve()
    assert q.getProbStatusString() == "mip_infeas"


def test_time_limit_and_interrupt_stop_the_search(run_python):
    run_python("""
import tarvo as tv, numpy as np, threading, time, _thread
tv.setOutputEnabled(False)
rng = np.random.default_rng(1)
a = rng.integers(0, 100, (4, 40))
def model():
    x = [tv.var(vartype=tv.binary) for _ in range(40)]
    rows = [tv.Sum(int(a[i, j]) * x[j] for j in range(40)) == int(a[i].sum() // 2) for i in range(4)]
    p = tv.problem(x, rows, x[0])
    p.controls.treesearch = 1
    return p
p = model()
p.controls.maxtime = 0.5
t = time.time(); p.solve(); took = time.time() - t
assert p.attributes.stopstatus == tv.stop_timelimit, p.attributes.stopstatus
assert took < 5, took
p = model()
threading.Timer(0.3, _thread.interrupt_main).start()
try:
    p.solve()
    raise AssertionError("the search ended before the interrupt")
except KeyboardInterrupt:
    pass
assert p.attributes.stopstatus == tv.stop_ctrlc, p.attributes.stopstatus
assert p.getProbStatusString() in ("mip_solution", "mip_no_sol_found")
print("ok")
""")


# ---- the same attributes from HiGHS's MIP runs ----------------------------------------------

def knapsack_rows(seed=5, n=60):
    rng = np.random.default_rng(seed)
    w = rng.integers(20, 60, n)
    v = w + rng.integers(-5, 6, n)
    x = [tv.var(vartype=tv.binary) for _ in range(n)]
    A = rng.integers(0, 30, (5, n))
    p = tv.problem(x, [tv.Sum(int(A[i, j]) * x[j] for j in range(n)) <= int(A[i].sum() // 2) for i in range(5)],
                   tv.Sum(int(a) * b for a, b in zip(v, x)), sense=tv.maximize)
    p.controls.presolve = 0
    return p


@pytest.mark.parametrize("treesearch", [0, 1])
def test_maxmipsol_stops_after_exactly_k_solutions(treesearch):
    full = knapsack_rows()
    full.controls.treesearch = treesearch
    exact(full).solve()
    opt = full.getObjVal()
    assert full.attributes.mipsols > 3
    seen = []
    for k in (1, 2, 3):
        p = knapsack_rows()
        p.controls.treesearch = treesearch
        p.controls.maxmipsol = k
        p.solve()
        assert p.attributes.mipsols == k
        assert p.attributes.stopstatus == tv.stop_sollimit
        assert p.getProbStatusString() == "mip_solution"
        # The solution returned is feasible and no better than the optimum; later ones improve.
        assert all(s >= -1e-6 for s in p.getSlack())
        assert p.getObjVal() <= opt + 1e-9
        assert p.attributes.bestbound >= opt - 1e-6
        seen.append(p.getObjVal())
    assert seen == sorted(seen) and len(set(seen)) == 3


@pytest.mark.parametrize("treesearch", [0, 1])
def test_gap_stop_reports_the_real_bound(treesearch):
    full = knapsack_rows()
    exact(full).solve()
    opt = full.getObjVal()
    p = knapsack_rows()
    p.controls.treesearch = treesearch
    p.controls.miprelstop = 0.05
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    obj, bb = p.getObjVal(), p.attributes.bestbound
    assert obj <= opt + 1e-9 <= bb + 2e-9  # maximising: the bound is above the optimum
    assert bb - obj <= 0.05 * abs(bb) + 1e-6
    if bb - obj > 1e-6 * abs(obj):
        assert p.attributes.stopstatus == tv.stop_mipgap
    else:
        assert p.attributes.stopstatus == 0


@pytest.mark.parametrize("treesearch", [0, 1])
def test_unbounded_mip_has_no_optimal_lp_status(treesearch):
    x, y = tv.var(vartype=tv.integer), tv.var()
    p = tv.problem(x, y, x - y <= 3, x + y, sense=tv.maximize)
    p.controls.treesearch = treesearch
    p.solve()
    assert p.getProbStatusString() == "mip_unbounded"
    assert p.attributes.lpstatus == tv.lp_unbounded
