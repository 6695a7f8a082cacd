"""Low-level solving, solutions, bases, starting points, computations on given vectors, controls
and files."""
import numpy as np
import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


def lp():
    """max 2x + 3y  s.t.  c1: x + y <= 4,  c2: x + 3y <= 6,  0 <= x <= 3, y >= 0: x = 3, y = 1."""
    p = tv.problem()
    p.addcols([2.0, 3.0], [0, 0], [], [], [0.0, 0.0], [3.0, 1e20], names=["x", "y"])
    p.addrows(["L", "L"], [4.0, 6.0], [0, 2], [0, 1, 0, 1], [1.0, 1.0, 1.0, 3.0], names=["c1", "c2"])
    p.chgobjsense(-1)
    return p


def test_lp_solution_vectors_and_single_values():
    p = lp()
    p.lpoptimize()
    assert p.getProbStatusString() == "lp_optimal"
    x, slack, dual, dj = [], [], [], []
    p.getlpsol(x, slack, dual, dj)
    assert x == pytest.approx([3.0, 1.0]) and slack == pytest.approx([0.0, 0.0])
    # duals: y solves [1 1; 1 3]' y = (2, 3) on the basic... x is at its bound, so c1 and c2 bind
    # with y, and only y's column is basic: y1 + 3 y2 = 3 and dj_x = 2 - y1 - y2
    assert dual[0] + 3 * dual[1] == pytest.approx(3.0)
    assert dj[0] == pytest.approx(2 - dual[0] - dual[1])
    assert dj[1] == pytest.approx(0.0)
    assert p.getlpsolval("y", "c2") == pytest.approx((1.0, 0.0, dual[1], 0.0))
    assert p.getlpsolval(None, 0)[0] == -1e20 and p.getlpsolval(None, 0)[3] == -1e20
    assert p.getlpsolval(0, None)[1:3] == (-1e20, -1e20)
    with pytest.raises(tv.InterfaceError, match="Invalid row or column index"):
        p.getlpsolval(5, None)
    # partial requests fill only the lists given
    only = []
    p.getlpsol(None, only)
    assert only == pytest.approx(slack)
    # the calculations on given vectors agree with NumPy
    A = np.array([[1.0, 1.0], [1.0, 3.0]])
    pt = [1.0, 0.5]
    assert p.calcobjective(pt) == pytest.approx(2 * 1 + 3 * 0.5)
    sl = []
    p.calcslacks(pt, sl)
    assert sl == pytest.approx(np.array([4.0, 6.0]) - A @ pt)
    djs = []
    p.calcreducedcosts(dual, None, djs)
    assert djs == pytest.approx(np.array([2.0, 3.0]) - A.T @ np.array(dual))
    assert p.calcsolinfo([3.5, 1.0], dual, 0) == pytest.approx(0.5)
    with pytest.raises(tv.InterfaceError, match="Must provide arguments solution and calculatedslacks"):
        p.calcslacks(pt, None)
    with pytest.raises(tv.ModelError, match="Mismatched lengths"):
        p.calcobjective([1.0])


def test_infeasibilities_of_a_loaded_solution():
    p = lp()
    p.lpoptimize()
    assert p.loadlpsol([4.0, 1.0], None, None, None) == 0
    mx, ms, md, mj = [], [], [], []
    p.getinfeas(mx, ms, md, mj)
    # x = 4 breaks its bound 3, and both rows (5 > 4, 7 > 6)
    assert [p.getIndex(v) for v in mx] == [0] and [p.getIndex(c) for c in ms] == [0, 1]
    assert p.getSolution() == [4.0, 1.0]


def test_mip_solution_and_starts():
    p = lp()
    p.chgcoltype([0, 1], ["I", "I"])
    p.chgbounds([0], ["U"], [2.5])
    assert p.loadmipsol([2.0, 1.0]) == 0
    assert p.loadmipsol([2.5, 1.0]) == 1
    with pytest.raises(tv.InterfaceError, match="Must provide argument dsol"):
        p.loadmipsol(None)
    p.addmipsol([1.0], [1])
    p.mipoptimize()
    assert p.getProbStatusString() == "mip_optimal"
    x, s = [], []
    p.getmipsol(x, s)
    # integers: x <= 2, x + 3y <= 6, x + y <= 4: best 2x + 3y is x = 2, y = 1 (7) or x = 0,
    # y = 2 (6) or x = 3 excluded: 7
    assert x == pytest.approx([2.0, 1.0]) and p.getObjVal() == pytest.approx(7.0)
    assert p.getmipsolval(1, 1) == pytest.approx((1.0, 6 - 2 - 3))
    assert p.calcsolinfo([1.5, 1.0], [0.0, 0.0], 4) == pytest.approx(0.5)


def test_basis_round_trip_through_a_file_restarts_without_iterations(tmp_path):
    rng = np.random.default_rng(3)
    m, n = 30, 40
    A = rng.uniform(0, 5, (m, n))
    p = tv.problem()
    p.addcols(-rng.uniform(1, 2, n), [0] * n, [], [], np.zeros(n), np.full(n, 10.0))
    p.addrows(["L"] * m, rng.uniform(20, 50, m), [n * i for i in range(m)], list(range(n)) * m, list(A.ravel()))
    q = p.copy()
    p.lpoptimize()
    assert p.attributes.simplexiter > 0
    r, c = [], []
    p.getbasis(r, c)
    path = str(tmp_path / "start.bss")
    p.writebasis(path)
    q.readbasis(path)
    q.lpoptimize()
    assert q.attributes.simplexiter == 0
    assert q.getObjVal() == pytest.approx(p.getObjVal())
    r2, c2 = [], []
    q.getbasis(r2, c2)
    assert (r2, c2) == (r, c)
    # the same through loadbasis, and the statuses one by one
    q2 = q.copy()
    q2.loadbasis(r, c)
    q2.lpoptimize()
    assert q2.attributes.simplexiter == 0
    assert p.getbasisval(3, 5) == (r[3], c[5])
    with pytest.raises(tv.InterfaceError, match="Must provide argument rstatus, cstatus"):
        q2.loadbasis(r, None)
    with pytest.raises(tv.SolverError):
        q2.loadbasis([1] * m, [1] * n)


def test_solution_files(tmp_path):
    p = lp()
    p.lpoptimize()
    p.writesol(str(tmp_path / "s.sol"))
    p.writeprtsol(str(tmp_path / "s.prt"))
    lines = (tmp_path / "s.sol").read_text().splitlines()
    cols = {f[2]: float(f[3]) for f in (l.split() for l in lines) if f and f[0] == "C"}
    assert cols == pytest.approx({"x": 3.0, "y": 1.0})
    assert "c2" in (tmp_path / "s.prt").read_text()
    log = tmp_path / "log.txt"
    p.setlogfile(str(log))
    tv.setOutputEnabled(True)
    p.controls.outputlog = 1
    p.lpoptimize()
    p.setlogfile("")
    assert log.read_text().strip()
    with pytest.raises(tv.SolverError):
        p.readbasis(str(tmp_path / "missing.bss"))


def test_controls_and_errors():
    p, q = lp(), lp()
    q.controls.feastol = 1e-4
    q.controls.maxnode = 17
    p.copycontrols(q)
    assert p.controls.feastol == 1e-4 and p.controls.maxnode == 17
    with pytest.raises(tv.ModelError, match="A problem must be passed for copying controls"):
        p.copycontrols(3)
    p.setdefaultcontrol("feastol")
    assert p.controls.feastol != 1e-4
    p.setdefaultcontrol(p.getcontrolinfo("maxnode")[0])
    assert p.controls.maxnode != 17
    with pytest.raises(tv.InterfaceError, match="Incorrect control name"):
        p.setdefaultcontrol("nosuchcontrol")
    p.controls.maxnode = 5
    p.setdefaults()
    assert p.controls.maxnode != 5
    assert p.getcontrolinfo("feastol")[1] == 2 and p.getattribinfo("rows") == (1001, 1)
    with pytest.raises(tv.SolverError):
        p.getattribinfo("feastol")
    with pytest.raises(tv.SolverError) as err:
        p.chgbounds([9], ["U"], [1.0])
    assert p.getlasterror() == str(err.value) != ""
    p.interrupt(tv.stop_user if hasattr(tv, "stop_user") else 9)
    p.postsolve()
    p.lpoptimize()
    assert p.getProbStatusString() == "lp_optimal"


def test_optimizers_release_the_interpreter(run_python):
    out = run_python("""
        import threading, time
        import numpy as np
        import tarvo as tv
        tv.setOutputEnabled(False)
        rng = np.random.default_rng(0)
        m, n = 300, 300
        p = tv.problem()
        p.addcols(-rng.uniform(1, 2, n), [0] * n, [], [], np.zeros(n), np.full(n, 1e20))
        A = rng.uniform(0, 1, (m, n))
        p.addrows(["L"] * m, rng.uniform(10, 20, m), [n * i for i in range(m)], list(range(n)) * m, list(A.ravel()))
        ticks = []
        stop = False
        def tick():
            while not stop:
                ticks.append(1)
                time.sleep(0.001)
        t = threading.Thread(target=tick)
        t.start()
        p.lpoptimize()
        stop = True
        t.join()
        print(p.getProbStatusString(), len(ticks) > 0)
    """)
    assert out.split() == ["lp_optimal", "True"]


def test_slx_solution_files_carry_linear_and_nonlinear_solutions(tmp_path):
    p = lp()
    p.chgcoltype([0, 1], ["I", "I"])
    p.mipoptimize()
    path = str(tmp_path / "m.slx")
    p.writeslxsol(path)
    vals = {f[1]: float(f[2]) for f in (l.split() for l in open(path)) if f[0] == "C"}
    assert vals == pytest.approx({"x": 3.0, "y": 1.0})
    q = lp()
    q.readslxsol(path)
    (tmp_path / "bad.slx").write_text("NAME x\nC nosuch 1\n")
    with pytest.raises(tv.SolverError, match="nosuch"):
        q.readslxsol(str(tmp_path / "bad.slx"))
    # a nonlinear problem writes its nonlinear solution, and reading it gives initial values
    x = tv.var(lb=-3, ub=3, name="x")
    y = tv.var(lb=-3, ub=3, name="y")
    f = tv.exp(x) + (y - 1) ** 2 + x ** 4 - 2 * x
    n1 = tv.problem(x, y, f, name="nl")
    n1.nlpoptimize()
    sol = n1.getSolution([x, y])
    nlpath = str(tmp_path / "n.slx")
    n1.writeslxsol(nlpath)
    vals = {l.split()[1]: float(l.split()[2]) for l in open(nlpath) if l.startswith("C ")}
    assert [vals["x"], vals["y"]] == pytest.approx(sol)
    n2 = tv.problem(x, y, f, name="nl2")
    n2.readslxsol(nlpath)
    assert n2.getvar(x)[5] == pytest.approx(sol[0]) and n2.getvar(y)[5] == pytest.approx(sol[1])
