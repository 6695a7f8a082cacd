"""Problem files: round trips keep the model, and bad files end in a clear error that leaves
the problem exactly as it was."""
import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


def mixed_model():
    x = tv.var(name="x", ub=5)
    z = tv.var(name="z", lb=-3, ub=4)
    unused = tv.var(name="unused", lb=1, ub=2)           # in no row: still a column
    pi = tv.var(name="pi", vartype=tv.partiallyinteger, ub=20, threshold=2.5)
    b = tv.var(name="b", vartype=tv.binary)
    i = tv.var(name="i", vartype=tv.integer, lb=-2, ub=7)
    sc = tv.var(name="sc", vartype=tv.semicontinuous, ub=9, threshold=3)
    rows = [tv.constraint(body=x + z + pi, lb=1, ub=4.5, name="rg"),
            tv.constraint(body=x - z, lb=-tv.infinity, ub=tv.infinity, name="free"),
            tv.constraint(body=i + b + sc, ub=11, name="le"),
            tv.constraint(body=2 * x - i, lb=-6, name="ge"),
            tv.constraint(body=x + sc - z, lb=2, ub=2, name="eq")]
    obj = -x - 2 * z - 0.5 * pi - b - i + sc + 3 + unused
    return tv.problem(x, z, unused, pi, b, i, sc, rows, obj, "mixed")


def summary(p):
    cols = [(v.name, v.vartype, v.lb, v.ub) for v in p.getVariable()]
    rows = [(c.name, c.lb, c.ub) for c in p.getConstraint()]
    return cols, rows


@pytest.mark.parametrize("fname, flags", [("m.lp", "l"), ("m.mps", ""), ("g.mps", "g")])
def test_round_trip_keeps_rows_names_types_and_optimum(tmp_path, fname, flags):
    p = mixed_model()
    p.solve()
    f = str(tmp_path / fname)
    p.write(f, flags)
    q = tv.problem()
    q.read(f, flags)
    assert summary(q) == summary(p)
    cols, rows = summary(q)
    assert ("rg", 1.0, 4.5) in rows and ("free", -1e20, 1e20) in rows
    assert ("pi", tv.partiallyinteger, 0.0, 20.0) in cols
    q.solve()
    assert q.getProbStatusString() == p.getProbStatusString() == "mip_optimal"
    assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-9)
    assert q.getSolution() == pytest.approx(p.getSolution(), abs=1e-9)


@pytest.mark.parametrize("fname, flags", [("q.lp", "l"), ("q.mps", "")])
def test_round_trip_of_a_quadratic_objective(tmp_path, fname, flags):
    x, y = tv.var(name="x", lb=-5), tv.var(name="y", lb=-5)
    p = tv.problem(x, y, x + y >= 1, x * x + 3 * x * y + 4 * y * y - x + 2, "q")
    p.solve()
    p.write(str(tmp_path / fname), flags)
    q = tv.problem()
    q.read(str(tmp_path / fname), flags)
    q.solve()
    assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-7) == pytest.approx(1.5, abs=1e-7)


def test_huge_names_round_trip(run_python, tmp_path):
    # A 100,000-character row name overran a fixed buffer when read back (a crash).
    out = run_python(f"""
        import tarvo as tv
        tv.setOutputEnabled(False)
        x = tv.var(name="x", ub=5)
        p = tv.problem(x, tv.constraint(body=x, ub=3, name="r" * 100000), x, sense=tv.maximize)
        for fname, flags in (("long.mps", ""), ("long.lp", "l")):
            f = {str(tmp_path)!r} + "/" + fname
            p.write(f, flags)
            q = tv.problem()
            q.read(f, flags)
            q.solve()
            print(q.getConstraint()[0].name == "r" * 100000, q.getObjVal())
    """, timeout=120)
    assert out.splitlines() == ["True 3.0", "True 3.0"]


def solved_original():
    x, y = tv.var(name="x", ub=5), tv.var(name="y", ub=5)
    p = tv.problem(x, y, tv.constraint(body=x + y, ub=4, name="c"), x + 2 * y, "orig", sense=tv.maximize)
    p.solve()
    return p, (x, y)


def assert_unchanged(p, xy):
    assert p.getVariable() == list(xy) and [c.name for c in p.getConstraint()] == ["c"]
    assert p.name() == "orig" and p.attributes.cols == 2 and p.attributes.rows == 1
    # The solution of the last solve is still there, and the model solves the same.
    assert p.getSolution() == pytest.approx([0.0, 4.0]) and p.getObjVal() == pytest.approx(8.0)
    p.solve()
    assert p.getObjVal() == pytest.approx(8.0)


def test_bad_files_leave_the_problem_as_it_was(tmp_path):
    good = tmp_path / "good.mps"
    solved_original()[0].write(str(good))
    text = good.read_text()
    cases = {
        "missing.mps": (None, "Could not open problem file"),
        "truncated.mps": (text[: text.index("RHS")], "has no ENDATA line"),
        "truncated.lp": ("minimize\n obj: +1 x\nsubject to\n c: +1 x +1 y <= 4\nbounds\n x <", "does not close with"),
        "garbage.mps": (b"\x7fELF\x02\x01\x01\x00\x00\x00ROWS\nENDATA\n", "binary data"),
        "unknown.mps": ("NAME x\nROWS\n N obj\nCOLUMNS\nFOO\nENDATA\n", "unknown MPS section FOO"),
        "notmps.mps": ("just some\n text\nENDATA\n", "unknown MPS section"),
        "badpartial.mps": (text.replace("ENDATA", "PARTIALINTEGER\n    x many\nENDATA"), "Unreadable PARTIALINTEGER"),
    }
    for name, (content, message) in cases.items():
        path = tmp_path / name
        if isinstance(content, bytes):
            path.write_bytes(content)
        elif content is not None:
            path.write_text(content)
        p, xy = solved_original()
        with pytest.raises(tv.SolverError, match=message):
            p.read(str(path), "l" if name.endswith(".lp") else "")
        assert_unchanged(p, xy)


def test_directories_and_huge_numbers_end_in_an_error(run_python, tmp_path):
    # Reading a directory used to wait forever holding the interpreter lock.
    (tmp_path / "somedir.lp").mkdir()
    (tmp_path / "huge.mps").write_text(
        "NAME h\nROWS\n N obj\n L c\nCOLUMNS\n    x obj 1 c 1e999\nRHS\n    rhs c 1e400\nENDATA\n")
    out = run_python(f"""
        import tarvo as tv
        tv.setOutputEnabled(False)
        x = tv.var(name="x")
        p = tv.problem(x, x <= 2, x, "orig")
        try:
            p.read({str(tmp_path / "somedir.lp")!r})
        except tv.SolverError as e:
            print(e)
        print(p.attributes.cols, p.attributes.rows, p.name())
        try:
            p.read({str(tmp_path / "huge.mps")!r})
            print("read", p.attributes.cols, p.attributes.rows)
        except tv.SolverError as e:
            print("refused")
        print(p.attributes.cols, p.attributes.rows, p.name())
    """, timeout=60)
    lines = out.splitlines()
    assert lines[0].endswith("somedir.lp is not a regular file")
    assert lines[1] == "1 1 orig"
    assert lines[2:] == ["refused", "1 1 orig"]
