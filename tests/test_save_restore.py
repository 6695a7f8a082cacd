"""Whole-problem files (save, restore), binary solution files, message statuses and
dumpcontrols, end to end from Python."""
import os

import pytest

import tarvo as tv


@pytest.fixture(autouse=True)
def quiet(tmp_path, monkeypatch):
    tv.setOutputEnabled(False)
    monkeypatch.chdir(tmp_path)
    yield
    tv.setOutputEnabled(True)


def lp_model():
    x = tv.var(name="x", ub=10)
    y = tv.var(name="y", lb=-2, ub=8)
    z = tv.var(name="z")
    rows = [
        tv.constraint(x + 2 * y + z <= 14, name="cap"),
        tv.constraint(3 * x - y >= 0, name="ratio"),
        tv.constraint(body=x + y + z, lb=2, ub=12, name="band"),
        tv.constraint(x - z == 1, name="link"),
    ]
    p = tv.problem(x, y, z, rows, 2 * x + 3 * y + z, sense=tv.maximize, name="lpmodel")
    return p


def structure(p):
    """Everything the store says about the model, read through the low-level getters."""
    n, m = p.attributes.cols, p.attributes.rows
    lb, ub, obj, rhs, rng, rtype = [], [], [], [], [], []
    p.getlb(lb, 0, n - 1)
    p.getub(ub, 0, n - 1)
    p.getobj(obj, 0, n - 1)
    p.getrhs(rhs, 0, m - 1)
    p.getrhsrange(rng, 0, m - 1)
    p.getrowtype(rtype, 0, m - 1)
    coefs = [[p.getcoef(i, j) for j in range(n)] for i in range(m)]
    names = (p.getnamelist(1), p.getnamelist(2))
    return n, m, lb, ub, obj, rhs, rng, rtype, coefs, names, p.attributes.objsense


def test_lp_restores_into_a_new_problem_and_resolves_from_the_basis():
    p = lp_model()
    p.setControl({"miprelstop": 0.002, "feastol": 1e-7, "maxnode": 1234})
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    assert p.attributes.simplexiter > 0
    p.save("model.svf")

    q = tv.problem(name="other")
    q.restore("model")  # '.svf' is added when no file of the given name exists
    assert q.name() == "lpmodel"
    assert structure(q) == structure(p)
    assert q.getControl(["miprelstop", "feastol", "maxnode"]) == {"miprelstop": 0.002, "feastol": 1e-7, "maxnode": 1234}
    # The solution comes back with the file, and the lists and maps hold new objects.
    assert q.getProbStatusString() == "lp_optimal"
    assert q.getSolution() == p.getSolution()
    assert q.getDual() == p.getDual()
    vs, cs = q.getVariable(), q.getConstraint()
    assert [v.name for v in vs] == ["x", "y", "z"] and [c.name for c in cs] == ["cap", "ratio", "band", "link"]
    assert [q.getIndex(v) for v in vs] == [0, 1, 2] and [q.getIndex(c) for c in cs] == [0, 1, 2, 3]
    assert vs[1].lb == -2 and vs[1].ub == 8 and cs[2].lb == 2 and cs[2].ub == 12
    # The saved basis is optimal: the re-solve takes no iterations and gives the same answer.
    q.lpoptimize()
    assert q.attributes.simplexiter == 0
    assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-9)
    assert q.getSolution() == pytest.approx(p.getSolution(), abs=1e-9)


def test_restore_into_the_same_problem_replaces_its_objects():
    p = lp_model()
    p.solve()
    old = p.getVariable()
    objective = p.getObjVal()
    p.save("same.svf")
    p.addVariable(tv.var(name="extra"))
    p.chgobj([0], [100.0])
    p.restore("same.svf")
    assert p.attributes.cols == 3
    assert [v.name for v in p.getVariable()] == ["x", "y", "z"]
    with pytest.raises(tv.ModelError):
        p.getIndex(old[0])
    p.solve()
    assert p.attributes.simplexiter == 0
    assert p.getObjVal() == pytest.approx(objective, abs=1e-9)


def test_save_without_a_name_uses_the_problem_name():
    p = lp_model()
    p.save()
    assert os.path.exists("lpmodel.svf")
    q = tv.problem()
    q.restore("lpmodel")
    assert q.attributes.rows == 4


def test_mip_with_sets_and_indicators_round_trip():
    x = [tv.var(vartype=tv.integer, name=f"x{i}", ub=10) for i in range(3)]
    b = tv.var(vartype=tv.binary, name="b")
    s = tv.var(vartype=tv.semicontinuous, threshold=2, ub=6, name="s")
    cap = tv.constraint(2 * x[0] + 3 * x[1] + 4 * x[2] + s <= 23.5, name="cap")
    ind = tv.constraint(x[0] <= 2, name="ind")
    p = tv.problem(x, b, s, cap, tv.sos([x[1], x[2]], [1, 2], 1, "pick"),
                   3 * x[0] + 4 * x[1] + 5 * x[2] + s - b, sense=tv.maximize, name="mipmodel")
    p.addIndicator(b == 0, ind)
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    p.save("mip.svf")

    q = tv.problem()
    q.restore("mip.svf")
    assert structure(q) == structure(p)
    coltypes = []
    q.getcoltype(coltypes, 0, 4)
    assert coltypes == ["I", "I", "I", "B", "S"]
    assert q.attributes.sets == 1 and q.attributes.indicators == 1
    assert q.getnamelist(3) == ["pick"]
    assert q.getSolution() == p.getSolution()
    q.solve()
    assert q.getProbStatusString() == "mip_optimal"
    assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-6)


def test_nonlinear_problem_round_trip():
    x = [tv.var(lb=1, ub=5, name=f"x{i}") for i in range(1, 5)]
    x1, x2, x3, x4 = x
    prod = tv.constraint(body=x1 * x2 * x3 * x4, lb=25, name="prod")
    sphere = tv.constraint(body=x1 ** 2 + x2 ** 2 + x3 ** 2 + x4 ** 2, lb=40, ub=40, name="sphere")
    p = tv.problem(x, prod, sphere, x1 * x4 * (x1 + x2 + x3) + x3, name="hs071")
    for v, x0 in zip(x, [1, 5, 5, 1]):
        p.chgvar(v, initvalue=x0)
    p.setControl("tslp_penalty", 77.0)
    p.solve()
    assert p.getProbStatusString() == "nlp_solution"
    p.save()

    q = tv.problem()
    q.restore("hs071")
    assert [v.name for v in q.getVariable()] == ["x1", "x2", "x3", "x4"]
    assert [c.name for c in q.getConstraint()] == ["prod", "sphere"]
    assert q.getControl("tslp_penalty") == 77.0
    assert q.getProbStatusString() == "nlp_solution"
    assert q.getSolution(q.getVariable()) == p.getSolution(x)
    rows, cols, rows2, cols2 = [], [], [], []
    p.getcoefs(rows, cols)
    q.getcoefs(rows2, cols2)
    assert len(rows2) == len(rows) > 0
    q.solve()
    assert q.getProbStatusString() == "nlp_solution"
    assert q.getObjVal() == pytest.approx(17.0140173, abs=1e-5)
    assert q.getSlack(q.getConstraint()) == pytest.approx([0, 0], abs=1e-5)


def test_nonlinear_problem_with_multistart_jobs_is_refused():
    x = tv.var(lb=-2, ub=2, name="x")
    p = tv.problem(x, tv.sin(x) + x ** 2, name="ms")
    p.msaddpreset("random", 1, 3, None)
    with pytest.raises(tv.SolverError, match="multistart jobs"):
        p.save("ms.svf")
    assert not os.path.exists("ms.svf")
    p.msclear()
    p.save("ms.svf")
    q = tv.problem()
    q.restore("ms.svf")
    q.solve()
    assert q.getProbStatusString() == "nlp_solution"


def damaged_files(data):
    yield "truncated header", data[:12], "truncated|not a saved problem"
    for cut in (len(data) // 3, len(data) // 2, len(data) - 3):
        yield f"truncated at {cut}", data[:cut], "truncated"
    for pos in (20, len(data) // 2, len(data) - 12):
        flipped = bytearray(data)
        flipped[pos] ^= 0x5A
        yield f"byte {pos} changed", bytes(flipped), "damaged|truncated"
    newer = bytearray(data)
    newer[8] = 9
    yield "another version", bytes(newer), "format version 9"
    yield "not a saved file", b"NAME something\nROWS\n" * 4, "not a saved problem"
    yield "extra data", data + b"junk", "damaged"


def test_bad_files_raise_and_leave_the_problem_unchanged():
    p = lp_model()
    p.solve()
    p.save("good.svf")
    data = open("good.svf", "rb").read()
    for what, content, message in damaged_files(data):
        with open("bad.svf", "wb") as f:
            f.write(content)
        q = tv.problem(tv.var(name="keep", ub=3), name="kept")
        q.setObjective(q.getVariable(0), sense=tv.maximize)
        with pytest.raises(tv.SolverError, match=message):
            q.restore("bad.svf")
        assert q.name() == "kept", what
        assert [v.name for v in q.getVariable()] == ["keep"], what
        q.solve()
        assert q.getObjVal() == 3, what


def test_restore_argument_errors():
    p = lp_model()
    with pytest.raises(tv.SolverError, match="No saved problem"):
        p.restore("no_such_problem")
    p.save("x.svf")
    with pytest.raises(tv.SolverError, match="restore takes no flags"):
        p.restore("x.svf", flags="f")
    with pytest.raises(tv.ModelError):
        p.restore(42)
    with pytest.raises(TypeError):
        p.restore()
    with pytest.raises(tv.SolverError, match="Could not"):
        p.save("/nonexistent_dir/x.svf")
    assert p.attributes.rows == 4


def test_binary_solution_round_trip():
    p = lp_model()
    p.solve()
    p.writebinsol("lp.sol")
    q = p.copy()
    with pytest.raises(tv.SolverError):
        q.getSolution()
    q.readbinsol("lp.sol")
    assert q.getSolution() == p.getSolution()
    assert q.getDual() == p.getDual()
    assert q.getRCost() == p.getRCost()
    assert q.getObjVal() == pytest.approx(p.getObjVal())


def test_binary_solution_of_a_mip():
    x = tv.var(vartype=tv.integer, name="x", ub=10)
    y = tv.var(name="y", ub=7.5)
    p = tv.problem(x, y, tv.constraint(2 * x + 3 * y <= 17.2), x + y, sense=tv.maximize)
    p.solve()
    p.writebinsol("mip.sol")
    q = p.copy()
    q.readbinsol("mip.sol")
    assert q.getSolution() == p.getSolution()
    assert q.getObjVal() == pytest.approx(8.4)


def test_binary_solution_errors():
    p = lp_model()
    with pytest.raises(tv.SolverError, match="No solution"):
        p.writebinsol("none.sol")
    p.solve()
    with pytest.raises(tv.SolverError, match="takes no flags"):
        p.writebinsol("a.sol", flags="z")
    p.writebinsol("a.sol")
    small = tv.problem(tv.var(), name="small")
    with pytest.raises(tv.SolverError, match="has 3 columns and 4 rows"):
        small.readbinsol("a.sol")
    p.save("problem.svf")
    with pytest.raises(tv.SolverError, match="not a binary solution"):
        p.readbinsol("problem.svf")
    data = open("a.sol", "rb").read()
    open("cut.sol", "wb").write(data[:-5])
    with pytest.raises(tv.SolverError, match="truncated"):
        p.readbinsol("cut.sol")
    with pytest.raises(TypeError):
        p.readbinsol()


def log_lines(p, action):
    p.controls.outputlog = 1
    p.setlogfile("run.log")
    try:
        action()
    finally:
        p.setlogfile("")
    text = open("run.log").read() if os.path.exists("run.log") else ""
    if os.path.exists("run.log"):
        os.remove("run.log")
    return text.splitlines()


def test_message_status_suppresses_the_optimiser_log():
    p = lp_model()
    assert p.getmessagestatus(1) == 1
    assert log_lines(p, p.solve)  # HiGHS's log lines are message 1
    p.setmessagestatus(1, 0)
    assert p.getmessagestatus(1) == 0
    p.chgobj([0], [2.5])
    assert log_lines(p, p.solve) == []
    p.setmessagestatus(1, 1)
    assert log_lines(p, p.solve)
    # The statuses are part of a saved problem.
    p.setmessagestatus(77, 0)
    p.save("msgs.svf")
    q = tv.problem()
    q.restore("msgs")
    assert (q.getmessagestatus(77), q.getmessagestatus(1)) == (0, 1)


def test_message_status_bad_input():
    p = tv.problem()
    for code in (0, -4):
        with pytest.raises(tv.SolverError, match="message numbers are positive"):
            p.getmessagestatus(code)
        with pytest.raises(tv.SolverError, match="message numbers are positive"):
            p.setmessagestatus(code, 0)
    with pytest.raises(tv.SolverError, match="Invalid message status 2"):
        p.setmessagestatus(5, 2)
    with pytest.raises(tv.ModelError):
        p.setmessagestatus("5", 0)
    with pytest.raises(TypeError):
        p.getmessagestatus()


def test_dumpcontrols_lists_the_changed_controls():
    p = tv.problem()
    lines = log_lines(p, p.dumpcontrols)
    assert lines == ["All controls are at their defaults"]
    p.setControl({"presolve": 0, "miprelstop": 0.001})
    lines = log_lines(p, p.dumpcontrols)
    assert sorted(lines) == ["MIPRELSTOP = 0.001", "PRESOLVE = 0"]
    p.setmessagestatus(203, 0)
    assert log_lines(p, p.dumpcontrols) == []
    with pytest.raises(TypeError):
        p.dumpcontrols(1)


def test_general_and_piecewise_linear_constraints_round_trip():
    x, cost, r = tv.var(name="x", ub=10), tv.var(name="cost"), tv.var(name="r", ub=100)
    p = tv.problem(x, cost, r, x >= 3, cost + r, "pieces")
    p.addpwlcons([x], [cost], [0], [0, 4, 10], [0, 8, 14])
    p.addgencons([tv.gencons_max], [r], [0], [x], [0], [5.0])
    p.solve()
    p.save("pieces.svf")
    q = tv.problem()
    q.restore("pieces")
    assert (q.attributes.gencons, q.attributes.pwlcons) == (1, 1)
    q.solve()
    assert [round(v, 4) for v in q.getSolution()] == [3.0, 6.0, 5.0]
    # (the binaries of the reformulation hold to the integrality tolerance)
    assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-4)


def mip_with_search_data():
    """A MIP carrying directives, a delayed row, a model cut, stored pool cuts, secure vectors
    and scaling factors. Its LP relaxation (x0 = 10, x1 = 10, ...) violates both lazy rows."""
    x = [tv.var(vartype=tv.integer, ub=10, name=f"x{i}") for i in range(3)]
    c = tv.var(name="c", ub=50)
    rows = [tv.constraint(2 * x[0] + 3 * x[1] + 4 * x[2] + c <= 60.5, name="cap"),
            tv.constraint(x[0] + x[1] <= 13, name="late"),
            tv.constraint(x[1] + 3 * x[2] <= 20, name="mcut")]
    p = tv.problem(x, c, rows, 5 * x[0] + 4 * x[1] + 6 * x[2] + c, sense=tv.maximize, name="searchdata")
    p.loaddirs([x[0], x[2]], [3, 7], ["U", "D"], [1.5, -1.0], [2.0, 0.25])
    p.loaddelayedrows([rows[1]])
    p.loadmodelcuts([rows[2]])
    handles = []
    # Valid for every integer solution: they leave the optimum alone.
    p.storecuts(0, [1, 2], ["L", "G"], [30.0, 0.0], [0, 2, 3], handles, [x[0], x[1], x[2]], [1.0, 1.0, 1.0])
    p.loadsecurevecs([rows[0]], [x[1]])
    p.scale([2, 0, 0], [0, 0, 0, 1])
    return p, x, c, rows


def dirs_of(p):
    out = [[], [], [], [], []]
    p.getdirs(*out)
    return [v.name for v in out[0]], out[1], out[2], out[3], out[4]


def pool_of(p):
    listed, viol = [], []
    p.getcpcutlist(-1, -1, -1.0, 10, listed, viol)
    mtype, rtype, start, cols, vals, rhs = [], [], [], [], [], []
    p.getcpcuts(listed, 10, mtype, rtype, start, cols, vals, rhs)
    return mtype, rtype, start, [v.name for v in cols], vals, rhs


def scaled_rows(p, point):
    """Rows reported infeasible at a point a little beyond 'cap', unscaled and scaled."""
    p.loadlpsol(point, None, None, None)
    out = [[], [], [], []]
    p.getinfeas(*out)
    plain = sorted(r.name for r in out[1])
    p.getscaledinfeas(*out)
    return plain, sorted(r.name for r in out[1])


def lazy_rows_seen_violated(p):
    """Names of the lazy rows some node relaxation seen by optnode violates: delayed rows wait
    for candidates, model cuts join the relaxation before optnode sees it."""
    seen = set()

    def optnode(prob, data):
        xs = []
        prob.getlpsol(xs)
        if xs[0] + xs[1] > 13 + 1e-6:
            seen.add("late")
        if xs[1] + 3 * xs[2] > 20 + 1e-6:
            seen.add("mcut")
        return 0

    p.addcboptnode(optnode)
    p.controls.treesearch = 1
    p.solve()
    p.removecboptnode(optnode)
    return seen


def test_search_data_round_trip():
    p, x, c, rows = mip_with_search_data()
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    expected = {"dirs": dirs_of(p), "pool": pool_of(p)}
    assert expected["dirs"] == (["x0", "x2"], [3, 7], ["U", "D"], [1.5, -1.0], [2.0, 0.25])
    assert expected["pool"] == ([1, 2], ["L", "G"], [0, 2, 3], ["x0", "x1", "x2"], [1.0, 1.0, 1.0], [30.0, 0.0])
    p.save("search.svf")

    q = tv.problem()
    q.restore("search")
    assert dirs_of(q) == expected["dirs"]
    assert pool_of(q) == expected["pool"]
    assert structure(q) == structure(p)
    # The secure vectors turn HiGHS's presolve off (and the log says so).
    assert any("loadsecurevecs" in line for line in log_lines(q, q.lpoptimize))
    # Re-solving gives the same optimum.
    q.solve()
    assert q.getProbStatusString() == "mip_optimal"
    assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-6)
    # The lazy marks came back: the delayed row is seen violated at a node, the model cut not.
    assert lazy_rows_seen_violated(q) == {"late"}
    assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-6)
    # Scaling: row 'cap' is scaled by 4, so a violation below the tolerance shows when scaled.
    point = [0.0, 0.0, 0.0, 60.5 + 6e-7]
    plain, scaled = scaled_rows(p, point)
    assert "cap" not in plain and "cap" in scaled
    assert scaled_rows(q, point) == (plain, scaled)


def test_restore_replaces_the_search_data_of_the_target():
    p, *_ = mip_with_search_data()
    p.solve()  # (the pool's cuts are listed against a solution)
    p.save("full.svf")
    bare = lp_model()
    bare.save("bare.svf")
    p.restore("bare")
    assert dirs_of(p)[0] == []
    listed = []
    p.getcpcutlist(-1, -1, -1.0, 10, listed, [])
    assert listed == []
    assert not any("loadsecurevecs" in line for line in log_lines(p, p.lpoptimize))
    p.restore("full")
    assert dirs_of(p)[0] == ["x0", "x2"]
    assert len(pool_of(p)[0]) == 2


def test_stored_branching_objects_make_save_fail():
    p, x, c, rows = mip_with_search_data()
    tv.branchobj(p, [x[0] <= 3, x[0] >= 4]).store()
    with pytest.raises(tv.SolverError, match="stored branching objects"):
        p.save("bo.svf")
    assert not os.path.exists("bo.svf")


def test_copy_keeps_message_statuses_and_the_tuner_method():
    p = lp_model()
    p.setmessagestatus(1, 0)
    p.tunerwritemethod("builtin.txt")
    # A method of its own: the first two candidates of the built-in set.
    lines = open("builtin.txt").read().splitlines()
    header, candidates = lines[0], [ln for ln in lines[1:] if ln.strip() and not ln.startswith("#")]
    with open("method.txt", "w") as f:
        f.write("\n".join([header] + candidates[:2]) + "\n")
    p.tunerreadmethod("method.txt")
    q = p.copy()
    assert q.getmessagestatus(1) == 0
    assert log_lines(q, q.solve) == []
    q.tunerwritemethod("copied.txt")
    copied = [ln for ln in open("copied.txt").read().splitlines()[1:] if ln.strip() and not ln.startswith("#")]
    assert copied == candidates[:2] and len(candidates) > 2
    # ... and so does a saved problem.
    p.save("tuned.svf")
    r = tv.problem()
    r.restore("tuned")
    r.tunerwritemethod("restored.txt")
    assert open("restored.txt").read() == open("copied.txt").read()
