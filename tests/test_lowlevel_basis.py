"""Analyses of the last LP basis, user scaling, bounded repair and the Farkas multipliers of
infeasible subsystems, checked against dense NumPy linear algebra on the basis matrix and
against scipy's LP solver."""
import numpy as np
import pytest

import tarvo as tv

scipy_optimize = pytest.importorskip("scipy.optimize")


pytestmark = pytest.mark.usefixtures("quiet")


def build(A, types, b, c, lb, ub):
    m, n = A.shape
    p = tv.problem()
    p.addcols(list(c), [0] * n, [], [], list(lb), list(ub))
    starts, cols, vals = [0], [], []
    for i in range(m):
        nz = np.nonzero(A[i])[0]
        cols += list(nz)
        vals += list(A[i, nz])
        starts.append(len(cols))
    p.addrows(list(types), list(b), starts[:-1], cols, vals)
    return p


def random_lp(seed, m=6, n=8):
    rng = np.random.default_rng(seed)
    A = np.round(rng.uniform(-1, 4, (m, n)), 1)
    A[np.abs(A) < 0.5] = 0.0
    x0 = rng.uniform(0.5, 2, n)
    types = np.array(["L"] * (m - 2) + ["G", "G"])
    act = A @ x0
    b = np.where(types == "L", act + rng.uniform(0.5, 2, m), act - rng.uniform(0.5, 2, m))
    c = -rng.uniform(1, 3, n)
    lb, ub = np.zeros(n), np.full(n, 5.0)
    return build(A, types, b, c, lb, ub), A, b, c, types, lb, ub


def basis_matrix(p, A):
    """B from getpivotorder: column k is the column of [A I] of the k-th basic variable."""
    m, n = A.shape
    order = []
    p.getpivotorder(order)
    full = np.hstack([A, np.eye(m)])
    return np.column_stack([full[:, n + q] if q < m else full[:, q - m] for q in order]), order


def test_pivot_order_gives_the_basis_matrix_of_the_solves():
    for seed in range(3):
        p, A, *_ = random_lp(seed)
        p.lpoptimize()
        m, n = A.shape
        B, order = basis_matrix(p, A)
        assert len(order) == m and len(set(order)) == m
        rs, cs = [], []
        p.getbasis(rs, cs)
        basic = {i for i in range(m) if rs[i] == 1} | {m + j for j in range(n) if cs[j] == 1}
        assert set(order) == basic
        rhs = np.random.default_rng(seed).normal(size=m)
        f, t = list(rhs), list(rhs)
        p.ftran(f)
        p.btran(t)
        assert np.allclose(f, np.linalg.solve(B, rhs))
        assert np.allclose(t, np.linalg.solve(B.T, rhs))
    with pytest.raises(tv.InterfaceError, match="Must provide argument mpiv"):
        p.getpivotorder(None)
    q = tv.problem()
    q.addcols([1.0], [0], [], [], [0.0], [1.0])
    with pytest.raises(tv.SolverError, match="No LP solve"):
        q.getpivotorder([])


def ratio_test(A, B, order, lb, ub, rlo, rup, x, act, cost, q):
    """The ratio test of entering variable q (combined index) by dense linear algebra."""
    m, n = A.shape
    full = np.hstack([A, np.eye(m)])
    val = np.concatenate([-act, x])                # rows are the negated activities
    lo = np.concatenate([-rup, lb])
    up = np.concatenate([-rlo, ub])
    cst = np.concatenate([np.zeros(m), cost])
    col = full[:, n + q] if q < m else full[:, q - m]
    cb = np.array([cst[k] for k in order])
    pi = np.linalg.solve(B.T, cb)
    dj = cst[q] - pi @ col
    at_lower = abs(val[q] - lo[q]) <= abs(val[q] - up[q])
    direction = 1 if at_lower and np.isfinite(lo[q]) else -1
    d = np.linalg.solve(B, col)
    steps = []
    for k, v in enumerate(order):
        rate = -direction * d[k]
        if abs(rate) <= 1e-9:
            continue
        bound = up[v] if rate > 0 else lo[v]
        if np.isfinite(bound):
            steps.append((max(0.0, (bound - val[v]) / rate), v))
    own = up[q] if direction > 0 else lo[q]
    if np.isfinite(own):
        steps.append((abs(own - val[q]), q))
    steps.sort(key=lambda s: s[0])
    step = steps[0][0]
    new = val.copy()
    new[q] += direction * step
    for k, v in enumerate(order):
        new[v] -= direction * step * d[k]
    return steps, np.concatenate([-new[:m], new[m:]]), dj * direction * step


def test_getpivots_is_the_ratio_test_of_the_basis():
    p, A, b, c, types, lb, ub = random_lp(4)
    p.lpoptimize()
    m, n = A.shape
    B, order = basis_matrix(p, A)
    x = []
    p.getlpsol(x)
    x = np.array(x)
    act = A @ x
    rlo = np.where(types == "G", b, -np.inf)
    rup = np.where(types == "L", b, np.inf)
    obj = p.getObjVal()
    checked = 0
    for q in range(m + n):
        if q in order:
            continue
        outlist, vals = [], []
        dobj, npiv = p.getpivots(q, outlist, vals, 3)
        steps, ref_x, change = ratio_test(A, B, order, lb, ub, rlo, rup, x, act, c, q)
        assert npiv == len(steps)
        assert len(outlist) == min(3, npiv)
        got = [p.getIndex(o) + (m if isinstance(o, tv.var) else 0) for o in outlist]
        step_of = {v: s for s, v in steps}
        # the blocking variables in the order of their steps (ties in any order)
        assert [step_of[v] for v in got] == pytest.approx([s for s, _ in steps[:3]], abs=1e-9)
        assert np.allclose(vals, np.concatenate([ref_x[:m], ref_x[m:]]), atol=1e-8)
        assert dobj == pytest.approx(obj + change, abs=1e-8)
        # leaving the optimum never improves a minimisation
        assert dobj >= obj - 1e-9
        checked += 1
    assert checked == n
    with pytest.raises(tv.SolverError, match="basic already"):
        p.getpivots(order[0], [], [], 3)
    with pytest.raises(tv.SolverError, match="Invalid entering variable"):
        p.getpivots(m + n + 4, [], [], 3)
    with pytest.raises(tv.ModelError, match="maxpiv must not be negative"):
        p.getpivots(0, [], [], -1)
    with pytest.raises(tv.ModelError, match="not in problem"):
        p.getpivots(tv.var(), [], [], 3)


def test_getunbvec_names_an_unbounded_improving_direction():
    # min -x0 - 2 x1 with x1 unbounded along x0 - x1 <= 1, x0 + x2 <= 4
    A = np.array([[1.0, -1.0, 0.0], [1.0, 0.0, 1.0]])
    c = np.array([-1.0, -2.0, 0.0])
    p = build(A, ["L", "L"], [1.0, 4.0], c, np.zeros(3), np.full(3, 1e20))
    with pytest.raises(tv.SolverError, match="only if the problem is found unbounded within the primal simplex"):
        p.getunbvec()
    p.controls.presolve = 0
    p.lpoptimize("p")
    assert p.getProbStatusString() == "lp_unbounded"
    obj = p.getunbvec()
    m, n = A.shape
    q = p.getIndex(obj) + (m if isinstance(obj, tv.var) else 0)
    B, order = basis_matrix(p, A)
    assert q not in order
    full = np.hstack([A, np.eye(m)])
    d = np.linalg.solve(B, full[:, q - m] if q >= m else full[:, n + q])
    # the direction: q up by 1, the basic variables down by d; it keeps A x - r = 0, stays
    # feasible for every step (all columns have lower bounds only, rows upper sides only) and
    # lowers the objective
    ray = np.zeros(m + n)
    ray[q] = 1.0
    for k, v in enumerate(order):
        ray[v] -= d[k]
    xr, rr = ray[m:], -ray[:m]
    assert np.allclose(A @ xr, rr)
    assert (xr >= -1e-9).all() and (rr <= 1e-9).all()
    assert c @ xr < -1e-9
    # a bounded problem has no such direction
    p.chgbounds([1], ["U"], [10.0])
    p.lpoptimize("p")
    with pytest.raises(tv.SolverError, match="Call solve\\('p'\\)"):
        p.getunbvec()


def test_basisstability_matches_numpy_condition_numbers():
    p, A, *_ = random_lp(2)
    p.lpoptimize()
    B, order = basis_matrix(p, A)
    m, n = A.shape
    Binv = np.linalg.inv(B)
    for norm, npnorm in ((0, np.inf), (1, 1), (2, "fro")):
        assert p.basisstability(0, norm, 0) == pytest.approx(np.linalg.cond(B, npnorm), rel=1e-8)
        assert p.basisstability(1, norm, 0) == pytest.approx(np.linalg.norm(Binv, npnorm), rel=1e-8)
        assert p.basisstability(2, norm, 0) == pytest.approx(np.linalg.norm(B, npnorm), rel=1e-8)
    # of the scaled problem: R B D with D the factor of each basic variable
    rexp = np.arange(m) % 3 - 1
    cexp = (np.arange(n) % 4) - 2
    p.scale(list(rexp), list(cexp))
    p.lpoptimize()
    B, order = basis_matrix(p, A)
    D = np.array([2.0 ** cexp[q - m] if q >= m else 2.0 ** -rexp[q] for q in order])
    Bs = np.diag(2.0 ** rexp) @ B @ np.diag(D)
    assert p.basisstability(0, 1, 1) == pytest.approx(np.linalg.cond(Bs, 1), rel=1e-8)
    assert p.basisstability(0, 1, 0) == pytest.approx(np.linalg.cond(B, 1), rel=1e-8)
    for bad in ((3, 0, 0), (0, 3, 0), (0, 0, 2)):
        with pytest.raises(tv.SolverError, match="Invalid"):
            p.basisstability(*bad)
    with pytest.raises(tv.ModelError, match="must be an integer"):
        p.basisstability(0.5, 0, 0)


def lp_value(A, types, b, c, lb, ub):
    ge = [i for i, t in enumerate(types) if t == "G"]
    le = [i for i, t in enumerate(types) if t == "L"]
    eq = [i for i, t in enumerate(types) if t == "E"]
    A_ub = np.vstack([A[le], -A[ge]])
    b_ub = np.concatenate([b[le], -b[ge]])
    res = scipy_optimize.linprog(c, A_ub=A_ub, b_ub=b_ub, A_eq=A[eq] if eq else None, b_eq=b[eq] if eq else None,
                                 bounds=list(zip(lb, ub)), method="highs")
    assert res.status == 0
    return res.fun


def test_row_dual_ranges_are_the_one_sided_rates_of_the_optimum():
    # A degenerate LP: three rows meet at the optimum x = (1, 1), so the duals are not unique.
    A = np.array([[1.0, 0.0], [0.0, 1.0], [1.0, 1.0], [1.0, -1.0]])
    types = np.array(["G", "G", "G", "L"])
    b = np.array([1.0, 1.0, 2.0, 3.0])
    c = np.array([1.0, 2.0])
    lb, ub = np.zeros(2), np.full(2, 10.0)
    p = build(A, types, b, c, lb, ub)
    p.lpoptimize()
    lo, up = [], []
    p.estimaterowdualranges([0, 1, 2, 3], 100, lo, up)
    h = 1e-4
    for i in range(4):
        bp, bm = b.copy(), b.copy()
        bp[i] += h
        bm[i] -= h
        v0 = lp_value(A, types, b, c, lb, ub)
        right = (lp_value(A, types, bp, c, lb, ub) - v0) / h
        left = (v0 - lp_value(A, types, bm, c, lb, ub)) / h
        assert lo[i] == pytest.approx(min(left, right), abs=1e-6)
        assert up[i] == pytest.approx(max(left, right), abs=1e-6)
    assert up[2] - lo[2] > 0.5          # the degenerate row has a real range
    with pytest.raises(tv.InterfaceError, match="Must provide arguments minDualActivity, maxDualActivity"):
        p.estimaterowdualranges([0], 10, [], None)
    with pytest.raises(tv.SolverError, match="Invalid iteration limit"):
        p.estimaterowdualranges([0], -1, [], [])
    with pytest.raises(tv.SolverError):
        p.estimaterowdualranges([7], 10, [], [])


def test_scaling_factors_leave_the_answer_and_move_the_scaled_infeasibilities():
    for seed in range(3):
        p, A, b, c, types, lb, ub = random_lp(seed)
        p.lpoptimize()
        ref = p.getObjVal()
        m, n = A.shape
        p.scale([3] * m, [-2] * n)
        p.lpoptimize()
        assert p.getObjVal() == pytest.approx(ref, rel=1e-9)
        x, slack, dual, dj = [], [], [], []
        p.getlpsol(x, slack, dual, dj)
        # the duals are the problem's own: c - A'y = dj
        assert np.allclose(c - A.T @ np.array(dual), dj, atol=1e-8)
        # and the basis analyses see the problem's own matrix
        B, order = basis_matrix(p, A)
        rhs = np.ones(m)
        f = list(rhs)
        p.ftran(f)
        assert np.allclose(f, np.linalg.solve(B, rhs))
    # A point 0.6e-6 outside a row: within the tolerance unscaled, beyond it with the row
    # multiplied by 4.
    p, A, b, c, types, lb, ub = random_lp(1)
    m, n = A.shape
    p.lpoptimize()
    x = []
    p.getlpsol(x)
    i = int(np.argmax([abs(b[k] - A[k] @ np.array(x)) < 1e-9 for k in range(m)]))
    assert abs(b[i] - A[i] @ np.array(x)) < 1e-9            # an active row
    j = int(np.nonzero(A[i])[0][0])
    x2 = list(x)
    x2[j] += (6e-7 if types[i] == "L" else -6e-7) / A[i, j]
    p.loadlpsol(x2, None, None, None)
    out = [[], [], [], []]
    p.getinfeas(*out)
    unscaled = {p.getIndex(r) for r in out[1]}     # (other active rows may move too)
    assert i not in unscaled
    p.scale([2 if k == i else 0 for k in range(m)], None)
    p.getscaledinfeas(*out)
    assert {p.getIndex(r) for r in out[1]} == unscaled | {i}
    p.scale(None, None)                                      # no factors: as unscaled
    p.getscaledinfeas(*out)
    assert {p.getIndex(r) for r in out[1]} == unscaled


def test_scale_bad_input():
    p, A, *_ = random_lp(0)
    m, n = A.shape
    with pytest.raises(tv.ModelError, match="Mismatched lengths"):
        p.scale([0] * (m + 1), None)
    with pytest.raises(tv.SolverError, match="out of range"):
        p.scale([100] * m, None)
    p.chgcoltype([0], ["I"])
    with pytest.raises(tv.SolverError, match="not continuous"):
        p.scale(None, [1] + [0] * (n - 1))
    p.scale(None, [0] + [1] * (n - 1))      # continuous columns may be scaled
    p.mipoptimize()
    assert p.getProbStatusString() == "mip_optimal"


def test_repair_with_limits_on_the_violations():
    # x0 + x1 >= 10 with x0 <= 2, x1 <= 3: violated by 5 at best
    A = np.array([[1.0, 1.0]])
    p = build(A, ["G"], [10.0], [1.0, 1.0], [0.0, 0.0], [2.0, 3.0])
    p.lpoptimize()
    assert p.getProbStatusString() == "lp_infeas"
    # the row may be violated by at most 1, the upper bounds (weight 2 and 1) without limit
    st = p.repairweightedinfeasbounds([1.0], [0.0], [0.0, 0.0], [2.0, 1.0], [1.0], None, None, None, "n", 0.0)
    assert st == 0
    x = []
    p.getlpsol(x)
    # reference: minimise s + 2 u0 + u1, x0 + x1 + s >= 10, x0 <= 2 + u0, x1 <= 3 + u1, 0 <= s <= 1
    res = scipy_optimize.linprog([0, 0, 1, 2, 1], A_ub=[[-1, -1, -1, 0, 0], [1, 0, 0, -1, 0], [0, 1, 0, 0, -1]],
                                 b_ub=[-10, 2, 3], bounds=[(0, None), (0, None), (0, 1), (0, None), (0, None)],
                                 method="highs")
    s = max(0.0, 10 - x[0] - x[1])
    assert s <= 1 + 1e-9
    assert s + 2 * max(0.0, x[0] - 2) + max(0.0, x[1] - 3) == pytest.approx(res.fun)
    # limits that cannot cover the violation: no relaxed solution
    st = p.repairweightedinfeasbounds([1.0], None, None, [1.0, 1.0], [1.0], None, None, [1.0, 1.0], "n", 0.0)
    assert st == 1
    # without limits it agrees with the unbounded weighted repair
    st = p.repairweightedinfeasbounds([1.0], None, None, [2.0, 1.0], None, None, None, None, "n", 0.0)
    assert st == 0
    y = []
    p.getlpsol(y)
    p.repairweightedinfeas([1.0], None, None, [2.0, 1.0], "n", 0.0)
    z = []
    p.getlpsol(z)
    cost = lambda v: max(0.0, 10 - v[0] - v[1]) + 2 * max(0.0, v[0] - 2) + max(0.0, v[1] - 3)
    assert cost(y) == pytest.approx(cost(z))
    with pytest.raises(tv.ModelError, match="Mismatched lengths"):
        p.repairweightedinfeasbounds([1.0], None, None, None, [1.0, 2.0], None, None, None, "n", 0.0)
    with pytest.raises(tv.ModelError, match="phase2"):
        p.repairweightedinfeasbounds([1.0], None, None, None, None, None, None, None, "nn", 0.0)


def test_iis_multipliers_are_a_farkas_certificate():
    rng = np.random.default_rng(11)
    for trial in range(4):
        m, n = 7, 5
        A = np.round(rng.uniform(-2, 3, (m, n)), 1)
        x0 = rng.uniform(0, 2, n)
        types = np.array(["L"] * 4 + ["G"] * 2 + ["E"])
        act = A @ x0
        b = np.where(types == "L", act + 0.5, np.where(types == "G", act - 0.5, act))
        # make it infeasible: row 0 demands less than row 4's reverse
        A[4] = A[0]
        b[4] = b[0] + 1.0 + trial
        lb, ub = np.zeros(n), np.full(n, 4.0)
        p = build(A, types, b, np.ones(n), lb, ub)
        assert p.iisfirst(0) == 0
        rows, cols, rt, cb, duals, rdcs = [], [], [], [], [], []
        p.getiisdata(1, rows, cols, rt, cb, duals, rdcs)
        ri = [p.getIndex(r) for r in rows]
        ci = [p.getIndex(c) for c in cols]
        y = np.zeros(m)
        y[ri] = duals
        d = np.zeros(n)
        d[ci] = rdcs
        assert np.allclose(A.T @ y + d, 0, atol=1e-9)
        value = 0.0
        for k, i in enumerate(ri):
            assert duals[k] != 0.0                       # irreducible: every member counts
            side = b[i]
            if rt[k] == "G":
                assert duals[k] > 0
            elif rt[k] == "L":
                assert duals[k] < 0
            value += duals[k] * side
        for k, j in enumerate(ci):
            if rdcs[k] > 0:
                assert cb[k] in "LB"
                value += rdcs[k] * lb[j]
            elif rdcs[k] < 0:
                assert cb[k] in "UB"
                value += rdcs[k] * ub[j]
        assert value == pytest.approx(1.0)


def test_iis_multipliers_after_a_solve_on_two_threads(run_python):
    # HiGHS keeps one process-wide scheduler, started by the first run with its thread count;
    # a later HiGHS run told any other count is refused. The IIS multipliers must still come
    # out after a solve with threads = 2 started it.
    out = run_python("""
        import tarvo as tv
        warm = tv.problem()
        x = tv.var(ub=4)
        warm.addVariable(x)
        warm.addConstraint(x >= 1)
        warm.setObjective(x)
        warm.setControl({"threads": 2, "outputlog": 0})
        warm.solve()
        p = tv.problem()
        p.setControl("outputlog", 0)
        a, b = tv.var(ub=3), tv.var(ub=3)
        p.addVariable(a, b)
        p.addConstraint(a + b >= 8)
        p.addConstraint(a - b <= 1)
        p.solve()
        assert p.iisfirst(0) == 0
        rows, cols, rt, cb, duals, rdcs = [], [], [], [], [], []
        p.getiisdata(1, rows, cols, rt, cb, duals, rdcs)
        print(len(rows), len(cols), sum(abs(d) for d in duals) + sum(abs(d) for d in rdcs))
    """, timeout=120)
    nrows, ncols, weight = out.split()
    assert int(nrows) >= 1 and int(ncols) >= 1
    assert float(weight) > 0.5
