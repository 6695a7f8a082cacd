"""Low-level analysis of LP solves, checked against independent computations: solves with the
basis against dense NumPy solves of the basis matrix built from getbasis/getcols, ranging and
feasibility relaxation against HiGHS itself (highspy, run in its own process because its HiGHS
cannot share a process with the module's), rays as certificates, subsystems as irreducible."""
import json
import os
import subprocess
import sys
import textwrap

import numpy as np
import pytest

import tarvo as tv

scipy_optimize = pytest.importorskip("scipy.optimize")


pytestmark = pytest.mark.usefixtures("quiet")


def highs(code, tmp_path, **files):
    """Runs code with highspy in a fresh interpreter; `h` is a quiet Highs instance, `out` a dict
    printed as JSON at the end."""
    pytest.importorskip("highspy")
    prog = "import json, sys\nimport numpy as np\nimport highspy\nh = highspy.Highs()\n" \
           "h.setOptionValue('output_flag', False)\nout = {}\n" + textwrap.dedent(code) + \
           "\nprint(json.dumps(out))\n"
    res = subprocess.run([sys.executable, "-c", prog], capture_output=True, text=True, cwd=str(tmp_path))
    assert res.returncode == 0, res.stderr
    return json.loads(res.stdout.splitlines()[-1])


def random_lp(seed, m=6, n=8):
    """A feasible, bounded LP min c'x, A x <= b (some >=), 0 <= x <= u, built low-level."""
    rng = np.random.default_rng(seed)
    A = np.round(rng.uniform(-1, 4, (m, n)), 1)
    A[np.abs(A) < 0.5] = 0.0
    x0 = rng.uniform(0.5, 2, n)
    types = np.array(["L"] * (m - 2) + ["G", "G"])
    act = A @ x0
    b = np.where(types == "L", act + rng.uniform(0.5, 2, m), act - rng.uniform(0.5, 2, m))
    c = -rng.uniform(1, 3, n)
    p = tv.problem()
    p.addcols(c, [0] * n, [], [], np.zeros(n), np.full(n, 5.0))
    starts = [0]
    cols, vals = [], []
    for i in range(m):
        nz = np.nonzero(A[i])[0]
        cols += list(nz)
        vals += list(A[i, nz])
        starts.append(len(cols))
    p.addrows(list(types), b, starts[:-1], cols, vals)
    return p, A, b, c, types


def test_ftran_btran_solve_with_the_basis_matrix():
    for seed in range(3):
        p, A, b, c, types = random_lp(seed)
        p.lpoptimize()
        assert p.getProbStatusString() == "lp_optimal"
        m, n = A.shape
        rstat, cstat = [], []
        p.getbasis(rstat, cstat)
        assert sum(s == 1 for s in rstat + cstat) == m
        # the columns of B as the problem knows them: structural columns from getcols, and the
        # row's unit column for a basic row
        full = {}
        s, r, v = [], [], []
        p.getcols(s, r, v, 1000, 0, n - 1)
        for j in range(n):
            col = np.zeros(m)
            for k in range(s[j], s[j + 1]):
                col[p.getIndex(r[k])] = v[k]
            assert np.allclose(col, A[:, j])
            if cstat[j] == 1:
                full[("c", j)] = col
        for i in range(m):
            if rstat[i] == 1:
                full[("r", i)] = np.eye(m)[i]
        # ftran of each basic column is a unit vector (up to the sign of the row's column):
        # that tells the position of each basic variable in B
        B = np.zeros((m, m))
        for key, col in full.items():
            vec = list(col)
            p.ftran(vec)
            vec = np.array(vec)
            k = int(np.argmax(np.abs(vec)))
            assert abs(abs(vec[k]) - 1) < 1e-9 and np.sum(np.abs(vec)) == pytest.approx(1.0)
            B[:, k] = col / vec[k]
        assert abs(np.linalg.det(B)) > 1e-9
        rng = np.random.default_rng(seed)
        for _ in range(3):
            rhs = rng.normal(size=m)
            f, t = list(rhs), list(rhs)
            p.ftran(f)
            p.btran(t)
            assert np.allclose(f, np.linalg.solve(B, rhs))
            assert np.allclose(t, np.linalg.solve(B.T, rhs))
        with pytest.raises(tv.ModelError, match="Mismatched lengths"):
            p.ftran([1.0] * (m + 1))


def test_ranging_matches_highs(tmp_path):
    p, A, b, c, types = random_lp(7)
    p.lpoptimize()
    m, n = A.shape
    path = str(tmp_path / "lp.mps")
    p.write(path)
    lo, up, rlo, rup = [], [], [], []
    p.objsa(list(range(n)), lo, up)
    p.rhssa(list(range(m)), rlo, rup)
    ref = highs("""
        h.readModel('lp.mps')
        h.run()
        st, rg = h.getRanging()
        n, m = h.getNumCol(), h.getNumRow()
        fix = lambda v, k: [1e20 if x == np.inf else -1e20 if x == -np.inf else x for x in list(v)[:k]]
        out['lo'] = fix(rg.col_cost_dn.value_, n); out['up'] = fix(rg.col_cost_up.value_, n)
        out['rlo'] = fix(rg.row_bound_dn.value_, m); out['rup'] = fix(rg.row_bound_up.value_, m)
        out['obj'] = h.getInfo().objective_function_value
        """, tmp_path)
    assert p.getObjVal() == pytest.approx(ref["obj"])
    np.testing.assert_allclose(lo, ref["lo"], rtol=1e-7, atol=1e-7)
    np.testing.assert_allclose(up, ref["up"], rtol=1e-7, atol=1e-7)
    np.testing.assert_allclose(rlo, ref["rlo"], rtol=1e-7, atol=1e-7)
    np.testing.assert_allclose(rup, ref["rup"], rtol=1e-7, atol=1e-7)
    # and each objective range is really where the optimal basis stays optimal
    x = np.array(p.getSolution())
    j = next(j for j in range(n) if abs(up[j]) < 1e19 and abs(lo[j]) < 1e19 and up[j] - lo[j] > 1e-3)
    for cj in (lo[j] + 1e-6 * (up[j] - lo[j]), up[j] - 1e-6 * (up[j] - lo[j])):
        cc = c.copy()
        cc[j] = cj
        res = scipy_optimize.linprog(cc, A_ub=np.vstack([A[types == "L"], -A[types == "G"]]),
                                     b_ub=np.concatenate([b[types == "L"], -b[types == "G"]]), bounds=[(0, 5)] * n)
        assert cc @ x == pytest.approx(res.fun, abs=1e-6)
    with pytest.raises(tv.InterfaceError, match="Must provide arguments mindex, lower, and upper"):
        p.objsa([0], [], None)


def test_primal_ray_certifies_unboundedness():
    # min -x - y  s.t.  x - y <= 1,  x - 2y <= 4, x, y >= 0 (unbounded along (1, 1))
    p = tv.problem()
    p.addcols([-1.0, -1.0], [0, 0], [], [], [0.0, 0.0], [1e20, 1e20])
    p.addrows(["L", "L"], [1.0, 4.0], [0, 2], [0, 1, 0, 1], [1.0, -1.0, 1.0, -2.0])
    p.controls.presolve = 0
    p.lpoptimize()
    assert p.getProbStatusString() == "lp_unbounded"
    assert p.hasprimalray()
    ray = []
    p.getprimalray(ray)
    r = np.array(ray)
    A = np.array([[1.0, -1.0], [1.0, -2.0]])
    assert np.all(A @ r <= 1e-9) and np.all(r >= -1e-9)
    assert np.dot([-1.0, -1.0], r) < -1e-9
    with pytest.raises(tv.InterfaceError, match="Must provide argument to retrieve"):
        p.getprimalray(None)


def test_dual_ray_certifies_infeasibility():
    # x + y >= 5, x - y >= 1, x + 2y <= 3, x, y free: infeasible (the first and third force y <= -2,
    # then x >= 7 and x + 2y <= 3 ... ), certificate by Farkas
    A = np.array([[1.0, 1.0], [1.0, -1.0], [1.0, 2.0], [-2.0, -1.0]])
    b = np.array([5.0, 1.0, 3.0, -4.0])
    types = ["G", "G", "L", "G"]
    p = tv.problem()
    p.addcols([1.0, 1.0], [0, 0], [], [], [-1e20, -1e20], [1e20, 1e20])
    p.addrows(types, b, [0, 2, 4, 6], [0, 1, 0, 1, 0, 1, 0, 1], list(A.ravel()))
    p.controls.presolve = 0
    p.lpoptimize()
    assert p.getProbStatusString() == "lp_infeas"
    assert p.hasdualray() and not p.hasprimalray()
    dray = []
    p.getdualray(dray)
    y = np.array(dray)
    # Farkas: with y >= 0 on >= rows and y <= 0 on <= rows (or all signs reversed), A'y = 0 and
    # b'y > 0 proves that no x satisfies the rows
    sign = np.array([1 if t == "G" else -1 for t in types])
    if np.dot(b, y) < 0:
        y = -y
    assert np.all(sign * y >= -1e-9)
    assert np.allclose(A.T @ y, 0, atol=1e-9)
    assert np.dot(b, y) > 1e-9


def infeasible_lp():
    """Rows: r0: x + y <= 2, r1: x >= 3, r2: y >= 1, r3: x + z <= 10, r4: z >= 4 (r0, r1 and r2
    conflict; r3, r4 are harmless), 0 <= x, y, z <= 10."""
    A = np.array([[1, 1, 0], [1, 0, 0], [0, 1, 0], [1, 0, 1], [0, 0, 1]], float)
    b = np.array([2, 3, 1, 10, 4], float)
    types = ["L", "G", "G", "L", "G"]
    p = tv.problem()
    p.addcols([1.0, 1.0, 1.0], [0, 0, 0], [], [], [0.0] * 3, [10.0] * 3, names=["x", "y", "z"])
    starts, cols, vals = [], [], []
    for i in range(5):
        starts.append(len(cols))
        nz = np.nonzero(A[i])[0]
        cols += list(nz)
        vals += list(A[i, nz])
    p.addrows(types, b, starts, cols, vals, names=["r%d" % i for i in range(5)])
    return p, A, b, types


def feasible(A, b, types, rows, lb, ub):
    sel = list(rows)
    if not sel:
        return True
    G = np.array([A[i] if types[i] == "L" else -A[i] for i in sel])
    h = np.array([b[i] if types[i] == "L" else -b[i] for i in sel])
    res = scipy_optimize.linprog(np.zeros(A.shape[1]), A_ub=G, b_ub=h, bounds=list(zip(lb, ub)))
    return res.status == 0


def test_iis_is_irreducible_and_written_for_highs(tmp_path):
    p, A, b, types = infeasible_lp()
    assert p.iisfirst(1) == 0
    rows, cols, rtype, cbnd = [], [], [], []
    p.getiisdata(1, rows, cols, rtype, cbnd)
    idx = [p.getIndex(r) for r in rows]
    assert set(idx) <= {0, 1, 2}
    # the subsystem: its rows and the column bounds it names; every other bound is free
    lb = [-np.inf] * 3
    ub = [np.inf] * 3
    for v, t in zip(cols, cbnd):
        j = p.getIndex(v)
        if t in "LB":
            lb[j] = 0.0
        if t in "UB":
            ub[j] = 10.0
    assert not feasible(A, b, types, idx, lb, ub)
    for k in range(len(idx)):
        assert feasible(A, b, types, idx[:k] + idx[k + 1:], lb, ub)
    assert any(t != "F" for t in cbnd)
    for v, t in zip(cols, cbnd):
        if t == "F":  # a column of the subsystem's rows without a bound of its own in it
            continue
        j = p.getIndex(v)
        l2, u2 = list(lb), list(ub)
        if t in "LB":
            l2[j] = -np.inf
        if t in "UB":
            u2[j] = np.inf
        assert feasible(A, b, types, idx, l2, u2)
    rs, cs, si, ni = [], [], [], []
    p.iisstatus(rs, cs, si, ni)
    assert rs == [len(rows)] and cs == [len(cols)] and si[0] > 0
    p.iiswrite(1, str(tmp_path / "iis.lp"), 0, "")
    ref = highs("""
        st = h.readModel('iis.lp')
        out['ok'] = st == highspy.HighsStatus.kOk
        out['rows'] = h.getNumRow()
        h.run()
        out['status'] = h.modelStatusToString(h.getModelStatus())
        """, tmp_path)
    assert ref["ok"] and ref["rows"] == len(rows) and ref["status"] == "Infeasible"
    assert p.iisnext() == 2
    p.iisclear()
    with pytest.raises(tv.SolverError):
        p.getiisdata(1, [])
    q, *_ = infeasible_lp()
    q.chgrhs([1], [1.0])
    assert q.iisfirst(1) == 1


def test_repairinfeas_matches_highs_feasibility_relaxation(tmp_path):
    p, A, b, types = infeasible_lp()
    p.write(str(tmp_path / "inf.mps"))
    assert p.repairinfeas("c", "o", "n", 1.0, 1.0, 0.0, 0.0, 0.0) == 0
    x = []
    p.getlpsol(x)
    x = np.array(x)
    assert np.all(x >= -1e-7) and np.all(x <= 10 + 1e-7)
    act = A @ x
    viol = sum(max(0.0, act[i] - b[i]) if t == "L" else max(0.0, b[i] - act[i]) for i, t in enumerate(types))
    ref = highs("""
        h.readModel('inf.mps')
        h.feasibilityRelaxation(-1.0, -1.0, 1.0)
        out['obj'] = h.getInfo().objective_function_value
        """, tmp_path)
    assert viol == pytest.approx(ref["obj"], abs=1e-7)
    assert viol == pytest.approx(2.0)
    # weighted: making the row x >= 3 expensive moves the violation elsewhere
    p2, *_ = infeasible_lp()
    assert p2.repairweightedinfeas([1, 100, 1, 1, 1], [1, 100, 1, 1, 1], None, None, "n", 0.0) == 0
    x2 = []
    p2.getlpsol(x2)
    assert x2[0] >= 3 - 1e-7
