"""Presolve views, secure vectors, interior-point solutions and crossover, and fixing integer
columns: checked against HiGHS's own presolve of the same model (highspy, in a process of its
own) and against scipy's LP solver."""
import json
import subprocess
import sys
import textwrap

import numpy as np
import pytest

import tarvo as tv

scipy_optimize = pytest.importorskip("scipy.optimize")


pytestmark = pytest.mark.usefixtures("quiet")


def highs(code, tmp_path):
    """Runs code with highspy in a fresh interpreter; `h` is a quiet Highs instance, `out` a dict
    printed as JSON at the end."""
    pytest.importorskip("highspy")
    prog = "import json\nimport numpy as np\nimport highspy\nh = highspy.Highs()\n" \
           "h.setOptionValue('output_flag', False)\nout = {}\n" + textwrap.dedent(code) + \
           "\nprint(json.dumps(out))\n"
    res = subprocess.run([sys.executable, "-c", prog], capture_output=True, text=True, cwd=str(tmp_path))
    assert res.returncode == 0, res.stderr
    return json.loads(res.stdout.splitlines()[-1])


def reducible_lp(seed, m=10, n=12):
    """A feasible bounded LP that presolve shrinks without solving it: a random dense core plus
    a fixed column, a singleton row and a doubleton equation."""
    rng = np.random.default_rng(seed)
    A = np.round(rng.uniform(0.5, 3, (m, n)), 1) * (rng.uniform(size=(m, n)) < 0.7)
    lb, ub = np.zeros(n), np.full(n, 10.0)
    lb[0] = ub[0] = 2.0                      # fixed column
    A[m - 1] = 0.0
    A[m - 1, 1] = 1.0                        # singleton row: a bound on column 1
    A[m - 2] = 0.0
    A[m - 2, 2], A[m - 2, 3] = 1.0, -1.0     # doubleton equation x2 = x3 + 0.5
    x0 = rng.uniform(1, 3, n)
    x0[0] = 2.0
    x0[2] = x0[3] + 0.5
    types = ["G"] * (m - 2) + ["E", "G"]
    b = A @ x0 - rng.uniform(0.5, 1.5, m)
    b[m - 2] = 0.5
    b[m - 1] = 0.7
    c = rng.uniform(1, 4, n)
    p = tv.problem()
    p.addcols(c, [0] * n, [], [], lb, ub)
    starts, cols, vals = [0], [], []
    for i in range(m):
        nz = np.nonzero(A[i])[0]
        cols += list(nz)
        vals += list(A[i, nz])
        starts.append(len(cols))
    p.addrows(types, b, starts[:-1], cols, vals)
    return p, A, b, c, lb, ub, types


def scipy_lp(A, b, c, lb, ub, types):
    ge = [i for i, t in enumerate(types) if t == "G"]
    eq = [i for i, t in enumerate(types) if t == "E"]
    res = scipy_optimize.linprog(c, A_ub=-A[ge], b_ub=-b[ge], A_eq=A[eq] if eq else None, b_eq=b[eq] if eq else None,
                                 bounds=list(zip(lb, ub)), method="highs")
    assert res.status == 0
    return res


def test_presolve_map_solution_and_basis_match_highs_presolve(tmp_path):
    p, A, b, c, lb, ub, types = reducible_lp(3)
    p.lpoptimize()
    assert p.getProbStatusString() == "lp_optimal"
    rowmap, colmap = [5] * 40, []
    p.getpresolvemap(rowmap, colmap)
    m, n = A.shape
    assert 0 < len(colmap) < n and 0 < len(rowmap) < m
    assert 0 not in colmap                       # the fixed column is gone
    assert len(set(colmap)) == len(colmap) and all(0 <= j < n for j in colmap)
    assert len(set(rowmap)) == len(rowmap) and all(0 <= i < m for i in rowmap)
    path = str(tmp_path / "lp.mps")
    p.write(path)
    ref = highs("""
        h.readModel('lp.mps')
        h.presolve()
        lp = h.getPresolvedLp()
        out['cols'] = list(lp.col_names_); out['rows'] = list(lp.row_names_)
        out['cost'] = list(lp.col_cost_); out['offset'] = lp.offset_
        g = highspy.Highs(); g.setOptionValue('output_flag', False); g.passModel(lp); g.run()
        out['obj'] = g.getInfo().objective_function_value
        """, tmp_path)
    colnames = p.getnamelist(2)
    rownames = p.getnamelist(1)
    assert [colnames[j] for j in colmap] == ref["cols"]
    assert [rownames[i] for i in rowmap] == ref["rows"]
    # The presolved LP's optimum: its cost at getpresolvesol's x plus HiGHS's offset is the
    # problem's optimum.
    x, slack, dual, dj = [], [], [], []
    p.getpresolvesol(x, slack, dual, dj)
    assert len(x) == len(dj) == len(colmap) and len(slack) == len(dual) == len(rowmap)
    assert np.dot(ref["cost"], x) + ref["offset"] == pytest.approx(ref["obj"], abs=1e-7)
    assert ref["obj"] == pytest.approx(p.getObjVal(), abs=1e-7)
    assert ref["obj"] == pytest.approx(scipy_lp(A, b, c, lb, ub, types).fun, abs=1e-7)
    # The presolved basis has one basic variable per presolved row.
    rs, cs = [], []
    p.getpresolvebasis(rs, cs)
    assert len(rs) == len(rowmap) and len(cs) == len(colmap)
    assert sum(s == 1 for s in rs + cs) == len(rowmap)


def test_loadpresolvebasis_starts_the_next_solve_at_the_optimum():
    p, *_ = reducible_lp(5)
    p.lpoptimize()
    opt = p.getObjVal()
    rs, cs = [], []
    p.getpresolvebasis(rs, cs)
    q, *_ = reducible_lp(5)            # a fresh copy: no basis of its own
    q.loadpresolvebasis(rs, cs)
    q.lpoptimize()
    assert q.getObjVal() == pytest.approx(opt, abs=1e-7)
    assert q.attributes.simplexiter == 0
    # without the basis the same solve takes iterations
    r, *_ = reducible_lp(5)
    r.controls.presolve = 0
    r.lpoptimize()
    assert r.attributes.simplexiter > 0


def test_presolve_view_bad_input():
    p, *_ = reducible_lp(3)
    p.lpoptimize()
    with pytest.raises(tv.InterfaceError, match="Must provide argument rowmap and colmap"):
        p.getpresolvemap([], None)
    with pytest.raises(tv.InterfaceError, match="Must provide argument rstatus, cstatus"):
        p.loadpresolvebasis([0, 1], None)
    rowmap, colmap = [], []
    p.getpresolvemap(rowmap, colmap)
    with pytest.raises(tv.ModelError, match="Mismatched lengths"):
        p.loadpresolvebasis([1] * (len(rowmap) + 1), [0] * len(colmap))
    with pytest.raises(tv.SolverError, match="basic rows and columns"):
        p.loadpresolvebasis([0] * len(rowmap), [0] * len(colmap))
    with pytest.raises(tv.SolverError, match="Invalid basis status 7"):
        p.loadpresolvebasis([7] * len(rowmap), [0] * len(colmap))
    with pytest.raises(tv.ModelError, match="Unexpected argument to conv_arr2obj"):
        p.getpresolvemap((), [])
    # a MIP has a presolve map but no presolved LP solution
    m = tv.problem()
    m.addcols([1.0, 1.0], [0, 0], [], [], [0, 0], [5, 5], types=["I", "C"])
    m.addrows(["G"], [1.5], [0], [0, 1], [1.0, 1.0])
    with pytest.raises(tv.SolverError, match="LPs only"):
        m.getpresolvesol([])


def test_presolverow_carries_rows_into_presolved_columns():
    p, A, b, c, lb, ub, types = reducible_lp(3)
    rowmap, colmap = [], []
    p.getpresolvemap(rowmap, colmap)
    kept = [j for j in range(A.shape[1]) if j in colmap]
    gone = [j for j in range(1, A.shape[1]) if j not in colmap]
    j1, j2 = kept[0], kept[1]
    cols, vals = [], []
    # column 0 is fixed at 2: its term moves to the right-hand side
    rhs, st = p.presolverow("L", [j1, 0, j2, j1], [1.0, 3.0, 2.0, 0.5], 10.0, 10, cols, vals)
    assert st == 0 and rhs == pytest.approx(10.0 - 3.0 * 2.0)
    assert dict(zip(cols, vals)) == {colmap.index(j1): 1.5, colmap.index(j2): 2.0}
    # a column removed by another reduction cannot be carried over
    if gone:
        rhs, st = p.presolverow("G", [gone[0], j1], [1.0, 1.0], 1.0, 10, cols, vals)
        assert st == -1 and cols == [] and vals == []
    # more coefficients than maxcoeffs
    rhs, st = p.presolverow("E", [j1, j2], [1.0, 1.0], 1.0, 1, cols, vals)
    assert st == -1
    with pytest.raises(tv.InterfaceError, match="Must provide arguments mcolso, dvalo, mcolsp, dvalp"):
        p.presolverow("L", [j1], [1.0], 1.0, 5, None, [])
    with pytest.raises(tv.SolverError, match="Row type"):
        p.presolverow("R", [j1], [1.0], 1.0, 5, [], [])
    with pytest.raises(tv.ModelError, match="Mismatched lengths"):
        p.presolverow("L", [j1, j2], [1.0], 1.0, 5, [], [])


def test_secure_vectors_switch_presolve_off_and_say_so(capsys):
    p, *_ = reducible_lp(3)
    rowmap, colmap = [], []
    p.getpresolvemap(rowmap, colmap)
    m, n = p.attributes.rows, p.attributes.cols
    assert len(colmap) < n
    p.loadsecurevecs([m - 1], [0])
    p.getpresolvemap(rowmap, colmap)
    assert rowmap == list(range(m)) and colmap == list(range(n))
    tv.setOutputEnabled(True)
    p.controls.outputlog = 1
    p.lpoptimize()
    out = capsys.readouterr().out
    assert "Presolve is switched off for this run" in out
    assert "loadsecurevecs" in out
    p.loadsecurevecs([], [])                    # none: presolve runs again
    p.getpresolvemap(rowmap, colmap)
    assert len(colmap) < n
    with pytest.raises(tv.SolverError):
        p.loadsecurevecs([m + 5], [])
    with pytest.raises(tv.ModelError, match="not in problem"):
        p.loadsecurevecs([], [tv.var()])
    assert p.getpresolvemap(rowmap, colmap) is None and len(colmap) < n   # unchanged by the failures


def test_barrier_solution_before_crossover_and_crossover_on_demand():
    p, A, b, c, lb, ub, types = reducible_lp(8)
    ref = scipy_lp(A, b, c, lb, ub, types).fun
    p.controls.crossover = 0
    p.lpoptimize("b")
    assert p.getObjVal() == pytest.approx(ref, rel=1e-6)
    with pytest.raises(tv.SolverError, match="No basis available"):
        p.getbasis([], [])
    bx, bslack = [], []
    p.getlastbarsol(bx, bslack)
    assert np.dot(c, bx) == pytest.approx(ref, rel=1e-6)
    assert np.allclose(bslack, np.array(b) - A @ np.array(bx), atol=1e-7)
    p.crossoverlpsol()
    rs, cs = [], []
    p.getbasis(rs, cs)
    m, n = A.shape
    assert sum(s == 1 for s in rs + cs) == m
    x = []
    p.getlpsol(x)
    x = np.array(x)
    assert np.dot(c, x) == pytest.approx(ref, rel=1e-9, abs=1e-9)
    # a vertex: every nonbasic column sits at a bound
    for j in range(n):
        if cs[j] != 1:
            assert min(abs(x[j] - lb[j]), abs(x[j] - ub[j])) < 1e-9
    # with crossover on, the barrier solve ends basic and still keeps its interior solution
    q, *_ = reducible_lp(8)
    q.lpoptimize("b")
    q.getbasis(rs, cs)
    bx2 = []
    q.getlastbarsol(bx2)
    assert np.dot(c, bx2) == pytest.approx(ref, rel=1e-6)


def test_barrier_and_crossover_bad_input():
    p, *_ = reducible_lp(8)
    with pytest.raises(tv.SolverError, match="No interior-point solution"):
        p.getlastbarsol([])
    p.lpoptimize("d")
    with pytest.raises(tv.SolverError, match="No interior-point solution"):
        p.getlastbarsol([])
    p.crossoverlpsol()          # basic already: nothing to do, the basis stays
    rs, cs = [], []
    p.getbasis(rs, cs)
    with pytest.raises(TypeError):
        p.crossoverlpsol(1)
    p.lpoptimize("b")
    with pytest.raises(tv.ModelError, match="Unexpected argument to conv_arr2obj"):
        p.getlastbarsol(x=())


def test_fixglobals_fixes_the_integer_columns_at_the_mip_solution():
    a = [tv.var(vartype=tv.integer, ub=3) for _ in range(3)]
    y = tv.var(ub=1)
    p = tv.problem(a, y, 2 * a[0] + 3 * a[1] + a[2] + y <= 5.5, 4 * a[0] + a[1] + 2 * a[2] <= 11,
                   3 * a[0] + 4 * a[1] + 2 * a[2] + y <= 8.2, 5 * a[0] + 4 * a[1] + 3 * a[2] + y, sense=tv.maximize)
    with pytest.raises(tv.SolverError, match="No integer solution"):
        p.fixglobals(0)
    p.mipoptimize()
    best = p.getObjVal()
    sol = p.getSolution()
    p.fixglobals(0)
    lb, ub = [], []
    p.getlb(lb)
    p.getub(ub)
    for j in range(3):
        assert lb[j] == ub[j] == round(sol[j])
    assert (lb[3], ub[3]) == (0.0, 1.0)          # the continuous column keeps its bounds
    p.lpoptimize()
    assert p.getObjVal() == pytest.approx(best)
    with pytest.raises(tv.SolverError, match="Invalid fixglobals option"):
        p.fixglobals(5)
    with pytest.raises(tv.ModelError, match="options must be an integer"):
        p.fixglobals("a")


def test_refinemipsol_reoptimises_the_continuous_columns():
    a = [tv.var(vartype=tv.integer, ub=4) for _ in range(2)]
    y = [tv.var(ub=4) for _ in range(2)]
    p = tv.problem(a, y, a[0] + a[1] + y[0] + y[1] <= 6, y[0] - y[1] <= 1, a[0] + y[0] >= 1,
                   3 * a[0] + 2 * a[1] + 1.5 * y[0] + y[1], sense=tv.maximize)
    start = [1.0, 1.0, 0.5, 0.0]                 # feasible, continuous part poor
    out = []
    assert p.refinemipsol(0, "", start, out) == 0
    # the LP over y with a fixed at (1, 1), solved by scipy
    res = scipy_optimize.linprog([-1.5, -1.0], A_ub=[[1, 1], [1, -1], [-1, 0]], b_ub=[4, 1, 0],
                                 bounds=[(0, 4), (0, 4)], method="highs")
    assert out[:2] == [1.0, 1.0]
    assert 1.5 * out[2] + out[3] == pytest.approx(-res.fun)
    assert 3 + 2 + 1.5 * out[2] + out[3] > 3 + 2 + 0.75
    # an integer assignment without a feasible completion comes back unchanged with status 1
    bad = [4.0, 3.0, 0.0, 0.0]
    assert p.refinemipsol(0, None, bad, out) == 1 and out == bad
    with pytest.raises(tv.InterfaceError, match="Must provide arguments solution and refined_solution"):
        p.refinemipsol(0, "", start, None)
    with pytest.raises(tv.SolverError, match="not integral"):
        p.refinemipsol(0, "", [0.5, 1.0, 0.0, 0.0], out)
    with pytest.raises(tv.ModelError, match="Mismatched lengths"):
        p.refinemipsol(0, "", [1.0, 1.0], out)
    with pytest.raises(tv.SolverError, match="option"):
        p.refinemipsol(3, "", start, out)
