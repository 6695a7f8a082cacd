"""The engine's solver behaviour seen through tarvo.problem: convexity checks before HiGHS,
controls that reach HiGHS, attributes after each solve, warm starts, and problem files written
or read by HiGHS itself."""
import os
import subprocess

import numpy as np
import pytest

import tarvo as tv

TOL = 1e-6
NONCONVEX = "determined to be nonconvex"


pytestmark = pytest.mark.usefixtures("quiet")


def test_quadratic_objectives_are_checked_for_convexity():
    x, y = tv.var(lb=-4, ub=4), tv.var(lb=-4, ub=4)
    # x*y alone is indefinite: HiGHS must not see it.
    p = tv.problem(x, y, x * y)
    with pytest.raises(tv.SolverError, match=NONCONVEX):
        p.solve()
    assert p.getProbStatus() == tv.lp_nonconvex == 8
    # (x - y)^2 + x is convex though singular: the minimum of the line x = y is at the bound.
    p.setObjective((x - y) ** 2 + x)
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    assert p.getObjVal() == pytest.approx(-4, abs=TOL)
    # Not diagonally dominant but positive definite: [[2, 3], [3, 5]] (needs a factorisation).
    p.setObjective(x * x + 3 * x * y + 2.5 * y * y - x)
    p.solve()
    # Stationary point of 0.5 z'Qz - x: Q z = (1, 0) -> z = (5, -3).
    assert p.getSolution([x, y]) == pytest.approx([4, -2.4], abs=1e-5)
    # A concave objective can be maximised, not minimised.
    p.setObjective(-x * x - y * y + x, sense=tv.maximize)
    p.solve()
    assert p.getObjVal() == pytest.approx(0.25, abs=TOL)
    p.setObjective(-x * x - y * y + x, sense=tv.minimize)
    with pytest.raises(tv.SolverError, match=NONCONVEX):
        p.solve()
    # After the failure the problem still solves once made convex again.
    p.setObjective(x * x + y * y)
    p.solve()
    assert p.getObjVal() == pytest.approx(0, abs=TOL)


def market_split(m, n, seed=1):
    """Binary equality system with half the row sums as right-hand sides: its LP relaxation is
    easy, its integer search is long (Cornuejols-Dawande instances)."""
    rng = np.random.default_rng(seed)
    a = rng.integers(0, 100, (m, n))
    x = [tv.var(vartype=tv.binary) for _ in range(n)]
    rows = [sum(int(a[i, j]) * x[j] for j in range(n)) == int(a[i].sum() // 2) for i in range(m)]
    return tv.problem(x, rows, x[0]), x


def test_limits_stop_the_solve_and_record_the_reason():
    # LP iteration limit.
    xs = [tv.var(ub=1) for _ in range(30)]
    rows = [sum((i * j % 7 + 1) * xs[j] for j in range(30)) <= 10 + i for i in range(30)]
    p = tv.problem(xs, rows, sum(xs), sense=tv.maximize)
    p.controls.lpiterlimit = 1
    p.controls.presolve = 0
    p.solve()
    assert p.getProbStatusString() == "lp_unfinished"
    assert p.attributes.stopstatus == tv.stop_iterlimit
    p.controls.lpiterlimit = 100000
    p.solve()
    assert p.getProbStatusString() == "lp_optimal" and p.attributes.stopstatus == 0
    # MIP node limit.
    q, _ = market_split(3, 30)
    q.controls.maxnode = 1
    q.controls.presolve = 0
    q.solve()
    assert q.attributes.stopstatus == tv.stop_nodelimit
    assert q.getProbStatusString() in ("mip_solution", "mip_no_sol_found")
    assert q.attributes.solvestatus == 1  # stopped


def test_mip_attributes_after_an_optimal_search():
    rng = np.random.default_rng(3)
    w = rng.integers(20, 60, 30)
    v = w + rng.integers(-5, 6, 30)
    x = [tv.var(vartype=tv.binary) for _ in range(30)]
    q = tv.problem(x, sum(int(a) * b for a, b in zip(w, x)) <= int(w.sum() // 2),
                   sum(int(a) * b for a, b in zip(v, x)), sense=tv.maximize)
    q.solve()
    assert q.getProbStatusString() == "mip_optimal"
    assert q.attributes.mipsols >= 1 and q.attributes.nodes >= 1
    assert q.attributes.mipobjval == q.getObjVal() == q.attributes.objval
    # The best bound of an optimal solve matches the objective within the gap.
    gap = abs(q.attributes.bestbound - q.getObjVal()) / max(1.0, abs(q.getObjVal()))
    assert gap <= q.controls.miprelstop + 1e-9
    # A cutoff above the optimum of a maximisation leaves nothing to find.
    q.controls.mipabscutoff = q.getObjVal() + 10
    q.solve()
    assert q.getProbStatusString() == "mip_infeas"


@pytest.mark.parametrize("alg", [1, 2, 3, 4])
def test_algorithms_and_presolve_agree(alg):
    x, y, z = tv.var(), tv.var(), tv.var()
    p = tv.problem(x, y, z, x + y + z >= 4, x + 3 * y + z >= 6, x + y <= 10, 2 * x + 3 * y + 5 * z)
    p.controls.defaultalg = alg
    p.controls.presolve = alg % 2
    p.solve()
    assert p.getObjVal() == pytest.approx(9, abs=TOL)
    if alg == 4:
        assert p.attributes.bariter > 0
    elif alg in (2, 3):
        assert p.attributes.simplexiter > 0
    assert p.attributes.time >= 0 and p.attributes.solvestatus == 3


def test_resolve_warm_starts_from_the_last_basis():
    xs = [tv.var(ub=2) for _ in range(12)]
    rows = [sum(((i + 2) * (j + 1) % 5 + 1) * xs[j] for j in range(12)) <= 7 + i for i in range(8)]
    p = tv.problem(xs, rows, sum((j % 4 + 1) * x for j, x in enumerate(xs)), sense=tv.maximize)
    p.controls.presolve = 0
    p.solve()
    first = p.attributes.simplexiter
    obj = p.getObjVal()
    assert first > 0
    p.solve()
    assert p.attributes.simplexiter == 0 and p.getObjVal() == pytest.approx(obj, abs=TOL)
    # keepbasis 0 starts from scratch.
    p.controls.keepbasis = 0
    p.solve()
    assert p.attributes.simplexiter == first


def test_attributes_describe_the_model():
    x = tv.var(vartype=tv.integer, ub=4, name="a_rather_long_variable_name")
    y = tv.var(vartype=tv.semicontinuous, threshold=1, ub=3)
    z = tv.var()
    p = tv.problem(x, y, z, x + 2 * y <= 5, y + z >= 1, x * x + z * z + y)
    assert (p.attributes.cols, p.attributes.rows, p.attributes.elems) == (3, 2, 4)
    assert p.attributes.mipents == 2 and p.attributes.qelems == 2
    assert p.attributes.namelength * 8 >= len("a_rather_long_variable_name")
    assert p.attributes.objsense == 1.0


def test_output_log_goes_through_message_callbacks(capsys):
    tv.setOutputEnabled(True)
    x = tv.var(ub=3)
    p = tv.problem(x, x <= 2, x, sense=tv.maximize)
    p.solve()
    assert "HiGHS" in capsys.readouterr().out
    p.controls.outputlog = 0
    p.solve()
    assert capsys.readouterr().out == ""


def highs_binary():
    highsbox = pytest.importorskip("highsbox")
    exe = highsbox.highs_bin_path()
    if not os.path.exists(exe):
        pytest.skip("highsbox has no highs binary")
    env = dict(os.environ, LD_LIBRARY_PATH=highsbox.highs_lib_dir())
    return exe, env


def test_reading_an_mps_file_written_by_highs(tmp_path):
    exe, env = highs_binary()
    lp = tmp_path / "prod.lp"
    lp.write_text(
        "\\ production model\n"
        "maximize\n obj: 3 chairs + 5 tables + 0.5 stools\n"
        "subject to\n wood: 2 chairs + 4 tables + stools <= 40\n"
        " labour: chairs + 3 tables + 0.5 stools <= 24\n"
        " mix: - chairs + tables >= -6\n"
        "bounds\n stools <= 5\n"
        "general\n tables\n"
        "end\n")
    mps = tmp_path / "prod.mps"
    # The highs program logs to Highs.log in its working directory: keep that in tmp_path.
    res = subprocess.run([exe, "--model_file", str(lp), "--write_model_file", str(mps),
                          "--time_limit", "0"], env=env, capture_output=True, text=True,
                         cwd=tmp_path)
    assert mps.exists(), res.stdout + res.stderr
    p = tv.problem()
    p.read(str(mps))
    names = [str(v) for v in p.getVariable()]
    assert sorted(names) == ["chairs", "stools", "tables"]
    assert sorted(str(c) for c in p.getConstraint()) == ["labour", "mix", "wood"]
    tables = p.getVariable()[names.index("tables")]
    assert tables.vartype == tv.integer
    p.solve()
    # Enumerate the integer tables and solve the remaining LP by hand-checked vertices.
    assert p.getProbStatusString() == "mip_optimal"
    best = -1.0
    for t in range(0, 11):
        for s in np.linspace(0, 5, 51):
            c = min((40 - 4 * t - s) / 2, 24 - 3 * t - 0.5 * s, t + 6)
            if c >= 0:
                best = max(best, 3 * c + 5 * t + 0.5 * s)
    assert p.getObjVal() == pytest.approx(best, abs=1e-6)


def test_round_trip_keeps_semicontinuous_quadratic_and_sense(tmp_path):
    x = tv.var(name="x", vartype=tv.semicontinuous, threshold=2, ub=8)
    y = tv.var(name="y", lb=-3, ub=3)
    c = tv.constraint(body=x + y, lb=4, name="c")
    # x is 0 or at least 2: x = 2, y = 2 (the continuous relaxation would give 9 at x = 1).
    mip = tv.problem(x, y, c, 3 * x + 2 * y, "mip")
    u, v = tv.var(name="u"), tv.var(name="v", lb=-3, ub=3)
    qp = tv.problem(u, v, tv.constraint(body=u - v, lb=1, name="d"),
                    -(u - 5) ** 2 - v * v + 3, "qp", sense=tv.maximize)
    for p, expected in ((mip, 10.0), (qp, 3.0)):
        p.solve()
        assert p.getObjVal() == pytest.approx(expected, abs=TOL)
        for name, flags in ((str(p) + ".mps", ""), (str(p) + ".lp", "l")):
            f = tmp_path / name
            p.write(str(f), flags)
            q = tv.problem()
            q.read(str(f), flags)
            cols = {str(w): w for w in q.getVariable()}
            if p is mip:
                assert cols["x"].vartype == tv.semicontinuous and cols["x"].ub == 8
            else:
                assert q.attributes.qelems == 2 and q.attributes.objsense == -1
            q.solve()
            assert q.getObjVal() == pytest.approx(expected, abs=TOL)
    s = tv.var(ub=1)
    r = tv.problem(s, y, s + y)
    r.addSOS(tv.sos([s, y], [1, 2], 1))
    with pytest.raises(tv.SolverError, match="Special ordered sets cannot be written to an LP file"):
        r.write(str(tmp_path / "sos.lp"), "l")


def test_mps_files_carry_sets_and_indicators(tmp_path, monkeypatch):
    # Reading takes the sections out into a temporary copy for HiGHS, removed afterwards.
    scratch = tmp_path / "scratch"
    scratch.mkdir()
    monkeypatch.setenv("TMPDIR", str(scratch))
    # y = f(x) on breakpoints (0, 0), (1, 3), (2, 4), (3, 8) through an SOS2; z = 0 caps w at 2.
    xs, fs = [0, 1, 2, 3], [0, 3, 4, 8]
    lam = [tv.var(ub=1, name="l%d" % i) for i in range(4)]
    x, y = tv.var(name="x"), tv.var(name="y")
    z, w = tv.var(vartype=tv.binary, name="z"), tv.var(ub=10, name="w")
    p = tv.problem(lam, x, y, z, w, tv.constraint(body=tv.Sum(lam), lb=1, ub=1, name="conv"),
                   tv.constraint(body=x - tv.Sum(a * v for a, v in zip(xs, lam)), lb=0, ub=0, name="defx"),
                   tv.constraint(body=y - tv.Sum(f * v for f, v in zip(fs, lam)), lb=0, ub=0, name="defy"),
                   tv.constraint(body=x, lb=1.5, ub=1.5, name="at"), y - w + 3 * z)
    p.addSOS(tv.sos(lam, [1, 2, 3, 4], 2, name="pw"))
    p.addIndicator(z == 0, tv.constraint(body=w, ub=2, name="cap"))
    # y = 3.5 between the adjacent breakpoints (3.0 without the set); w = 10 costs z = 1.
    expected = 3.5 - 10 + 3
    p.solve()
    assert p.getObjVal() == pytest.approx(expected, abs=TOL)
    f = tmp_path / "entities.mps"
    p.write(str(f))
    q = tv.problem()
    q.read(str(f))
    assert (q.attributes.sets, q.attributes.setmembers, q.attributes.indicators) == (1, 4, 1)
    assert [str(s) for s in q.getSOS()] == ["pw"]
    q.solve()
    assert q.getObjVal() == pytest.approx(expected, abs=TOL)
    cols = dict(zip((str(v) for v in q.getVariable()), q.getSolution()))
    assert [cols["l%d" % i] for i in range(4)] == pytest.approx([0, 0.5, 0.5, 0], abs=TOL)
    assert (cols["z"], cols["w"]) == pytest.approx((1, 10), abs=TOL)
    # A set and an indicator written by hand in the same sections.
    text = f.read_text().replace("ENDATA", "")
    text = text.replace(" S2 SOS pw 1", " S1 SOS pw 1").replace("IF cap z 0", "IF cap z 1")
    (tmp_path / "hand.mps").write_text(text + "ENDATA\n")
    q.read(str(tmp_path / "hand.mps"))
    q.solve()
    # SOS1 leaves one breakpoint: x = 1.5 cannot be met; z = 1 now caps w instead.
    assert q.getProbStatusString() == "mip_infeas"
    assert os.listdir(scratch) == []


def test_solves_reads_and_writes_leave_no_file_behind(tmp_path, monkeypatch):
    # HiGHS instances log to a file unless told otherwise; nothing may appear in the user's
    # working directory except the files asked for, whether output is on or off.
    monkeypatch.chdir(tmp_path)
    x, y = tv.var(name="x", ub=4), tv.var(name="y", vartype=tv.integer, ub=3)
    mip = tv.problem(x, y, x + 2 * y <= 7, x + y, "mip", sense=tv.maximize)
    w = tv.var(name="w", ub=3)
    lp = tv.problem(x, w, x + 2 * w <= 7, x + w, "lp", sense=tv.maximize)
    u = tv.var(name="u", lb=-2, ub=2)
    qp = tv.problem(u, u + u * u, "qp")
    bad = tv.problem(u, u * u, "bad", sense=tv.maximize)
    for on in (False, True):
        tv.setOutputEnabled(on)
        for p in (mip, lp, qp, bad):
            p.controls.outputlog = int(on)
        mip.solve()
        assert mip.getObjVal() == pytest.approx(5, abs=TOL)
        lp.solve()
        assert lp.getObjVal() == pytest.approx(5.5, abs=TOL)
        qp.solve()
        assert qp.getObjVal() == pytest.approx(-0.25, abs=TOL)
        with pytest.raises(tv.SolverError, match=NONCONVEX):
            bad.solve()
        for p in (mip, lp, qp):
            p.write("out.mps")
            q = tv.problem()
            q.read("out.mps")
            q.solve()
            assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=TOL)
            os.remove("out.mps")
        assert os.listdir(tmp_path) == []
