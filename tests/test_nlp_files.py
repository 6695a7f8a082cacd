"""Nonlinear problem files: write() of a nonlinear problem (or with flag 'g') and read() of the
file. Round trips solve the problem read back and compare with the original; malformed files
fail with the line at fault and leave an empty, usable problem."""
import json
import math
import re

import pytest

import tarvo as tv

EQUALS_COLUMN = -1


pytestmark = pytest.mark.usefixtures("quiet")


def round_trip(p, tmp_path, flags=""):
    f = tmp_path / "model.mps"
    p.write(str(f), flags)
    q = tv.problem()
    q.read(str(f))
    return q, f.read_text()


def names(p):
    return [str(v) for v in p.getVariable()], [str(c) for c in p.getConstraint()]


def nonlinear_rows_problem():
    """Rows with exp, sin, log, powers and a division; a quadratic objective."""
    x, y, z = tv.var(lb=0.5, ub=4, name="x"), tv.var(lb=0.2, ub=3, name="y"), tv.var(lb=-2, ub=2, name="z")
    rows = [
        tv.constraint(body=tv.exp(0.5 * x) + tv.sin(y) * x ** 2 + tv.log(y) / x, ub=6, name="mix"),
        tv.constraint(body=x ** 1.5 - y ** 3 + z / (1 + y), lb=-1, name="powers"),
        tv.constraint(body=x * y + z, ub=5, name="bilinear"),
        tv.constraint(body=x - 2 * y + z, ub=1.25, name="lin"),
    ]
    return tv.problem(x, y, z, rows, (x - 2) ** 2 + (y - 1.5) ** 2 - 3 * z), (x, y, z)


# ---------------------------------------------------------------- round trips that solve


class TestRoundTrips:
    def test_nonlinear_rows_solve_to_the_same_point(self, tmp_path):
        p, xs = nonlinear_rows_problem()
        q, text = round_trip(p, tmp_path)
        assert "NONLINEAR 1" in text and "FORMULAS" in text
        assert names(q) == names(p)
        p.solve()
        q.solve()
        assert p.getProbStatusString() == q.getProbStatusString() == "nlp_solution"
        assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-7)
        assert q.getSolution() == pytest.approx(p.getSolution(xs), abs=1e-6)

    def test_writing_what_was_read_gives_the_same_file(self, tmp_path):
        # Awkward numbers (thirds, tiny and huge magnitudes) must survive exactly: the second
        # file equals the first but for the problem name the reader takes from the file name.
        x, y = tv.var(lb=1 / 3, ub=7.1, name="x"), tv.var(lb=1e-300, ub=2e15, name="y")
        c = tv.constraint(body=0.1 * tv.exp(x / 3) + math.pi * tv.cos(y) * x ** (2 / 3), ub=1 / 7, name="c")
        p = tv.problem(x, y, c, tv.sqrt(x) + y / 3)
        p.chgvar(x, initvalue=1 / 3 + 1e-12, damp=0.3)
        q, first = round_trip(p, tmp_path)
        second_file = tmp_path / "again.mps"
        q.write(str(second_file))
        strip = lambda t: re.sub(r"^NAME.*$", "", t, flags=re.M)
        assert strip(second_file.read_text()) == strip(first)
        assert q.getvar(0)[5] == 1 / 3 + 1e-12
        assert q.getccoef(0, EQUALS_COLUMN, 200) == p.getccoef(0, EQUALS_COLUMN, 200)

    def test_nonlinear_objective_stays_the_objective(self, tmp_path):
        x, y = tv.var(lb=-3, ub=3, name="x"), tv.var(lb=-3, ub=3, name="y")
        c = tv.constraint(body=x + y, ub=1, name="c")
        p = tv.problem(x, y, c, tv.sin(x) * tv.exp(y) - x ** 2 / 4, sense=tv.maximize)
        q, text = round_trip(p, tmp_path)
        assert re.search(r"objtransferrow STATUS 2048", text)
        # The transfer row and column stand for the objective, not for a constraint and a
        # variable, exactly as in the original.
        assert names(q) == (["x", "y"], ["c"])
        p.solve()
        q.solve()
        assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-7)
        assert q.getSolution() == pytest.approx(p.getSolution(), abs=1e-6)
        # A new objective replaces the one read (no transfer pair left behind).
        qx, qy = q.getVariable()
        q.setObjective(qx + qy, sense=tv.maximize)
        q.solve()
        assert q.getObjVal() == pytest.approx(1, abs=1e-7)
        assert names(q) == (["x", "y"], ["c"])
        assert q.attributes.rows == 1 and q.attributes.cols == 2

    def test_quadratic_rows_need_flag_g_and_come_back(self, tmp_path):
        x, y = tv.var(lb=-3, ub=3, name="x"), tv.var(lb=-3, ub=3, name="y")
        disc = tv.constraint(body=x * x + 2 * x * y + 3 * y * y, ub=4, name="disc")
        p = tv.problem(x, y, disc, x + 2 * y, sense=tv.maximize)
        with pytest.raises(tv.SolverError, match="flag 'g'"):
            p.write(str(tmp_path / "plain.mps"))
        q, text = round_trip(p, tmp_path, "g")
        assert "QCMATRIX disc" in text
        p.nlpoptimize()
        q.solve()
        assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-6)
        assert q.getSolution() == pytest.approx(p.getSolution([x, y]), abs=1e-5)
        # x'Qx with each pair once: Q_xx = 1, Q_xy = 1 (half of 2xy), Q_yy = 3.
        block = text[text.index("QCMATRIX disc"):].splitlines()[1:4]
        assert [l.split() for l in block] == [["x", "x", "1"], ["x", "y", "1"], ["y", "y", "3"]]

    def test_mixed_integer_nonlinear(self, tmp_path):
        b = [tv.var(vartype=tv.binary, name="b%d" % i) for i in range(3)]
        n = tv.var(vartype=tv.integer, lb=0, ub=5, name="n")
        y = tv.var(lb=0, ub=4, name="y")
        rows = [tv.exp(y) <= 2 + 8 * b[0] + 20 * b[1], b[0] + b[1] + b[2] <= 1,
                tv.constraint(body=y * n, ub=6, name="yn")]
        p = tv.problem(b, n, y, rows, y + 0.5 * n - b[2], sense=tv.maximize)
        q, _ = round_trip(p, tmp_path)
        assert [v.vartype for v in q.getVariable()] == [tv.binary] * 3 + [tv.integer, tv.continuous]
        p.solve()
        q.solve()
        assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-6)
        assert q.getSolution() == pytest.approx(p.getSolution(), abs=1e-5)

    def test_slp_variable_row_and_tolerance_data(self, tmp_path):
        p, (x, y, z) = nonlinear_rows_problem()
        p.addtolsets([1e-5, 2e-5, 3e-5, 4e-5, 5e-5, 6e-5, 7e-5, 8e-5, 9e-5])
        p.chgvar(x, initvalue=1.25, damp=0.5, initstepbound=0.75, tolset=1, penalty=3.0)
        p.chgvar(y, initvalue=0.7, detrow=p.getConstraint()[1], vartype=4)
        p.chgdeltatype([z], [2], [0.125])
        p.chgcascadenlimit(y, 7)
        p.chgrowwt("mix", 2.5)
        p.chgrowstatus("lin", 3)
        p.chgdf(x, "bilinear", 0.75)
        q, _ = round_trip(p, tmp_path)
        for col in (x, y, z):
            i = p.getIndex(col)
            assert q.getvar(i) == p.getvar(i)
        tols = []
        assert q.gettolset(1, tols) == p.gettolset(1, None)
        assert tols == [1e-5, 2e-5, 3e-5, 4e-5, 5e-5, 6e-5, 7e-5, 8e-5, 9e-5]
        assert (q.getrowwt(0), q.getrowstatus(3), q.getdf(0, 2)) == (2.5, 3, 0.75)
        # Initial values start the solver: both runs take the same path.
        p.solve()
        q.solve()
        assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-7)
        assert q.getSolution() == pytest.approx(p.getSolution([x, y, z]), abs=1e-6)

    def test_reading_with_flag_l_keeps_the_nonlinear_part(self, tmp_path):
        # A .mps file is MPS whatever the flags say: its formulas are not dropped.
        p, _ = nonlinear_rows_problem()
        f = tmp_path / "model.mps"
        p.write(str(f))
        q = tv.problem()
        q.read(str(f), "l")
        mine, theirs = [], []
        p.getcoefs(mine, None)
        q.getcoefs(theirs, None)
        assert [str(c) for c in theirs] == [str(c) for c in mine] == ["mix", "powers"]
        p.solve()
        q.solve()
        assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-7)

    def test_linear_problem_written_with_flag_g(self, tmp_path):
        x, y = tv.var(name="x", ub=5), tv.var(name="y", lb=-1, ub=5)
        p = tv.problem(x, y, tv.constraint(body=x + 2 * y, ub=6, name="c"), 3 * x + y, sense=tv.maximize)
        q, text = round_trip(p, tmp_path, "g")
        assert "NONLINEAR 1" in text and "FORMULAS" not in text
        assert names(q) == names(p)
        p.solve()
        q.solve()
        assert q.getProbStatusString() == "lp_optimal"
        assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-9)

    def test_awkward_names(self, tmp_path):
        # Blanks are mended, repeated names made unique, quotes and backslashes quoted inside
        # formulas; the coefficients still find their rows and columns.
        x, x2 = tv.var(name="my x", lb=1, ub=2), tv.var(name="my x", lb=1, ub=3)
        w = tv.var(name='w"q\\', lb=0.5, ub=2)
        k = tv.var(name="k[1](2)", lb=0, ub=1)
        c = tv.constraint(body=x ** 2 * x2 + tv.sin(w) + k * w, ub=10, name="row one")
        p = tv.problem(x, x2, w, k, c, x + x2 - w ** 3 - k, sense=tv.maximize)
        q, _ = round_trip(p, tmp_path)
        vnames, cnames = names(q)
        assert len(set(vnames)) == 4 and 'w"q\\' in vnames and "k[1](2)" in vnames
        assert cnames == ["row_one"]
        p.solve()
        q.solve()
        assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-6)
        assert q.getSolution() == pytest.approx(p.getSolution(), abs=1e-5)


# ---------------------------------------------------------------- what cannot be written


class TestWriteErrors:
    def test_user_function_is_named_and_nothing_is_written(self, tmp_path):
        def bump(a):
            return a * a + 1

        x = tv.var(name="x", lb=0, ub=3)
        p = tv.problem(x, tv.user(bump, x) <= 4, x, sense=tv.maximize)
        f = tmp_path / "uf.mps"
        with pytest.raises(tv.SolverError, match="user function bump"):
            p.write(str(f))
        assert not f.exists()

    def test_lp_format_is_refused(self, tmp_path):
        p, _ = nonlinear_rows_problem()
        for name, flags in (("m.lp", ""), ("m", "l")):
            with pytest.raises(tv.SolverError, match="MPS form only"):
                p.write(str(tmp_path / name), flags)
        assert list(tmp_path.iterdir()) == []


# ---------------------------------------------------------------- malformed files


def written_lines(tmp_path):
    p, _ = nonlinear_rows_problem()
    p.chgvar(p.getVariable()[0], initvalue=1.5)
    f = tmp_path / "good.mps"
    p.write(str(f))
    return f.read_text().splitlines(True)


def line_of(lines, needle):
    return next(i for i, l in enumerate(lines) if needle in l)


def assert_read_fails(tmp_path, text, pattern):
    bad = tmp_path / "bad.mps"
    bad.write_text(text)
    x = tv.var(name="old", ub=1)
    q = tv.problem(x, tv.exp(x) <= 2, x)
    with pytest.raises(tv.SolverError, match=pattern):
        q.read(str(bad))
    # The problem is exactly as it was: the same objects, the same model, the same optimum.
    assert q.getVariable() == [x] and len(q.getConstraint()) == 1
    assert q.attributes.cols == 1 and q.attributes.rows == 1 and q.name() == "noname"
    q.setObjective(x, sense=tv.maximize)
    q.solve()
    assert q.getObjVal() == pytest.approx(math.log(2), abs=1e-6)


class TestMalformedFiles:
    @pytest.mark.parametrize("keep", ["NONLINEAR", "FORMULAS", "SLPVARS"])
    def test_truncated_in_the_nonlinear_part(self, tmp_path, keep):
        lines = written_lines(tmp_path)
        cut = line_of(lines, keep) + 1
        assert_read_fails(tmp_path, "".join(lines[:cut]), r"line %d without an ENDATA line" % cut)

    def test_truncated_in_the_mps_part(self, tmp_path):
        lines = written_lines(tmp_path)
        assert_read_fails(tmp_path, "".join(lines[: line_of(lines, "BOUNDS")]), "has no ENDATA line")

    @pytest.mark.parametrize(
        "old, new, message",
        [
            ("EXP(", "EXP((", r"bad formula: Missing right bracket"),
            ("EXP(", "EXP(nosuch + ", r"bad formula: Unknown column nosuch"),
            ("EXP(", "NOSUCHFUN(", r"bad formula: Unknown function NOSUCHFUN"),
            (" mix = 1 ", " mix = 1x ", r"'1x' is not a valid number for the factor"),
            (" mix = 1 ", " nosuchrow = 1 ", r"unknown row nosuchrow"),
            ("INITVALUE 1.5", "INITVALUE abc", r"'abc' is not a valid number for the initial value"),
            ("INITVALUE 1.5", "INITVALUE 1.5 SPEED 2", r"unknown item SPEED"),
            ("NONLINEAR 1", "NONLINEAR 9", r"format version 9 is not known"),
            ("FORMULAS", "FORMULAE", r"unknown section FORMULAE"),
        ],
    )
    def test_bad_content_names_its_line(self, tmp_path, old, new, message):
        lines = written_lines(tmp_path)
        at = line_of(lines, old)
        lines[at] = lines[at].replace(old, new, 1)
        assert_read_fails(tmp_path, "".join(lines), r"bad\.mps, line %d: %s" % (at + 1, message))

    def test_undefined_tolerance_set(self, tmp_path):
        lines = written_lines(tmp_path)
        at = line_of(lines, "INITVALUE 1.5")
        lines[at] = lines[at].rstrip("\n") + " TOLSET 2\n"
        assert_read_fails(tmp_path, "".join(lines), r"line %d: tolerance set 2 is not defined" % (at + 1))


# ---------------------------------------------------------------- reading linear files


def test_reading_a_linear_file_forgets_the_previous_nonlinear_data(tmp_path):
    a = tv.var(name="a", ub=3)
    lin = tv.problem(a, tv.constraint(body=2 * a, ub=5, name="r"), a, sense=tv.maximize)
    f = tmp_path / "lin.mps"
    lin.write(str(f))
    p, _ = nonlinear_rows_problem()
    p.chgrowwt("mix", 4.0)
    p.read(str(f))
    assert names(p) == (["a"], ["r"])
    rows = []
    p.getcoefs(rows, None)
    assert rows == []
    assert p.getrowwt(0) == 1.0
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    assert p.getObjVal() == pytest.approx(2.5, abs=1e-9)


@pytest.mark.parametrize("flags", ["", "g"])
def test_reading_drops_multistart_jobs_of_the_previous_content(tmp_path, run_python, flags):
    # A job setting the initial value of the fourth column must not reach a one-column problem
    # (it used to write past the end of the point). Run apart: a fault here ends the process.
    out = run_python("""
        import tarvo as tv
        tv.setOutputEnabled(False)
        a = tv.var(name="a", lb=0.5, ub=3)
        small = tv.problem(a, tv.constraint(body=2 * a, ub=5, name="r"), a, sense=tv.maximize)
        small.write(%r, %r)
        xs = [tv.var(lb=0, ub=2, name="x%%d" %% i) for i in range(4)]
        p = tv.problem(xs, tv.exp(xs[0]) + xs[3] ** 2 <= 4, tv.Sum(xs))
        p.msaddjob("far", [xs[0], xs[3]], [1.0, 0.5], {"tslp_iterlimit": 50}, None)
        p.read(%r)
        p.setControl("tslp_multistart", 1)
        p.nlpoptimize()
        print(p.getObjVal(), p.getSolution())
    """ % (str(tmp_path / "small.mps"), flags, str(tmp_path / "small.mps")))
    objective, solution = out.split(" ", 1)
    assert float(objective) == pytest.approx(2.5, abs=1e-7)
    assert json.loads(solution) == pytest.approx([2.5], abs=1e-7)
