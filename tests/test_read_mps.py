"""Reading MPS files: every section read as HiGHS's reader reads it (checked against highspy on
the same file), free and fixed format, round trips through write, and malformed files refused
with the line at fault, leaving the problem as it was."""
import math
import textwrap

import pytest

import tarvo as tv

highspy = pytest.importorskip("highspy")


pytestmark = pytest.mark.usefixtures("quiet")


def write(tmp_path, name, text):
    path = tmp_path / name
    path.write_text(textwrap.dedent(text).lstrip("\n"))
    return str(path)


def inf_to_math(v):
    return math.inf if v >= 1e20 else -math.inf if v <= -1e20 else v


def tarvo_model(path):
    """The model tarvo read, in HiGHS's terms (semi-continuous columns keep their threshold as
    lower bound)."""
    p = tv.problem()
    p.read(path)
    n, m = p.attributes.cols, p.attributes.rows
    cost, ctype = [], []
    if n:
        p.getobj(cost, 0, n - 1)
        p.getcoltype(ctype, 0, n - 1)
    kind = {"C": 0, "I": 1, "B": 1, "S": 2, "R": 3}
    cols = []
    for v, t in zip(p.getVariable(), ctype):
        lb = v.threshold if t in "SR" else v.lb
        cols.append((v.name, kind[t], inf_to_math(lb), inf_to_math(v.ub)))
    rows = [(c.name, inf_to_math(c.lb), inf_to_math(c.ub)) for c in p.getConstraint()]
    matrix = {(i, j): p.getcoef(i, j) for i in range(m) for j in range(n) if p.getcoef(i, j) != 0}
    return p, {"cols": cols, "rows": rows, "cost": cost, "matrix": matrix, "sense": p.attributes.objsense}


def highs_model(path):
    h = highspy.Highs()
    h.setOptionValue("output_flag", False)
    assert h.readModel(path) != highspy.HighsStatus.kError
    lp = h.getLp()
    integ = [int(t) for t in lp.integrality_] or [0] * lp.num_col_
    cols = list(zip(lp.col_names_, integ, lp.col_lower_, lp.col_upper_))
    rows = list(zip(lp.row_names_, lp.row_lower_, lp.row_upper_))
    a = lp.a_matrix_
    matrix = {(a.index_[k], j): a.value_[k] for j in range(lp.num_col_) for k in range(a.start_[j], a.start_[j + 1])}
    sense = -1 if lp.sense_ == highspy.ObjSense.kMaximize else 1
    return h, {"cols": cols, "rows": rows, "cost": list(lp.col_cost_), "matrix": matrix, "sense": sense}


# Sections and their readings, each file read by both readers.
SECTIONS = {
    "ranges": """
        NAME ranges
        ROWS
         N obj
         L le
         G ge
         E equp
         E eqdown
         E eqzero
         L noleft
        COLUMNS
            x obj 1 le 1
            x ge 1 equp 1
            x eqdown 1 eqzero 1
            x noleft 2
        RHS
            rhs le 10 ge 2
            rhs equp 4 eqdown 4
            rhs eqzero 3 noleft -1
        RANGES
            rng le 4 ge 3
            rng equp 2 eqdown -2
            rng eqzero 0 le 99
        ENDATA
        """,
    "bounds": """
        NAME bounds
        ROWS
         N obj
         L c
        COLUMNS
            up obj 1 c 1
            lo c 1
            fx c 1
            mi c 1
            pl c 1
            bv c 1
            li c 1
            ui c 1
            fr c 1
            sc c 1
            si c 1
            twice c 1
        RHS
            rhs c 100
        BOUNDS
         UP bnd up 4.5
         LO bnd lo -2
         FX bnd fx 3
         MI bnd mi
         PL bnd pl
         BV bnd bv
         LI bnd li -3
         UI bnd ui 9
         FR bnd fr
         SC bnd sc 8
         SI bnd si 6
         LO bnd si 2
         UP bnd twice 1
         UP bnd twice 2
         UP bnd fresh 5
        ENDATA
        """,
    "markers": """
        NAME markers
        OBJSENSE
            MAX
        ROWS
         N obj
         L cap
         N spare
        COLUMNS
            c1 obj 1 cap 1
            MARKER 'MARKER' 'INTORG'
            b obj 2 cap 1
            i obj 3 cap 1
            neg obj 1 cap 1
            MARKER 'MARKER' 'INTEND'
            c2 obj 1 cap 1
            c2 spare 5 cap 7
        RHS
            cap 10
        BOUNDS
         UP bnd i 7
         UP bnd neg -3
         MI bnd neg
        ENDATA
        """,
    "sense on the header line": """
        NAME s
        OBJSENSE MAX
        ROWS
         N obj
         L c
        COLUMNS
            x obj 1 c 1
        RHS
            rhs c 3 obj 2.5
        ENDATA
        """,
}


@pytest.mark.parametrize("case", sorted(SECTIONS))
def test_sections_read_as_highs_reads_them(tmp_path, case):
    path = write(tmp_path, "case.mps", SECTIONS[case])
    _, ours = tarvo_model(path)
    _, theirs = highs_model(path)
    assert ours == theirs


def test_what_the_sections_mean(tmp_path):
    # The readings themselves, so that a change in both readers does not go unnoticed.
    _, m = tarvo_model(write(tmp_path, "r.mps", SECTIONS["ranges"]))
    assert m["rows"] == [("le", 6, 10), ("ge", 2, 5), ("equp", 4, 6), ("eqdown", 2, 4), ("eqzero", 3, 3),
                         ("noleft", -math.inf, -1)]
    _, m = tarvo_model(write(tmp_path, "b.mps", SECTIONS["bounds"]))
    cols = {c[0]: c[1:] for c in m["cols"]}
    assert cols["up"] == (0, 0, 4.5) and cols["lo"] == (0, -2, math.inf) and cols["fx"] == (0, 3, 3)
    assert cols["mi"] == (0, -math.inf, math.inf) and cols["fr"] == (0, -math.inf, math.inf)
    assert cols["bv"] == (1, 0, 1) and cols["li"] == (1, -3, math.inf) and cols["ui"] == (1, 0, 9)
    assert cols["sc"] == (2, 0, 8) and cols["si"] == (3, 2, 6)
    assert cols["twice"] == (0, 0, 1)  # the first bound counts
    assert cols["fresh"] == (0, 0, 5) and m["cols"][-1][0] == "fresh"  # a bound makes a column
    p, m = tarvo_model(write(tmp_path, "m.mps", SECTIONS["markers"]))
    cols = {c[0]: c[1:] for c in m["cols"]}
    # Integer columns without bounds are binary; the dropped N row takes its entries with it.
    assert cols["b"] == (1, 0, 1) and cols["i"] == (1, 0, 7) and cols["neg"] == (1, -math.inf, -3)
    assert [v.vartype for v in p.getVariable()] == [tv.continuous, tv.binary, tv.integer, tv.integer, tv.continuous]
    # The first of repeated entries counts.
    assert m["sense"] == -1 and [r[0] for r in m["rows"]] == ["cap"] and m["matrix"][(0, 4)] == 1


def test_objective_constant_and_sense_solve_as_highs_solves(tmp_path):
    path = write(tmp_path, "s.mps", SECTIONS["sense on the header line"])
    p, _ = tarvo_model(path)
    p.solve()
    h, _ = highs_model(path)
    h.run()
    assert p.getObjVal() == pytest.approx(h.getInfo().objective_function_value) == pytest.approx(3 - 2.5)
    path = write(tmp_path, "m.mps", SECTIONS["markers"])
    p, _ = tarvo_model(path)
    p.solve()
    h, _ = highs_model(path)
    h.run()
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(h.getInfo().objective_function_value)


def test_fixed_format_with_blanks_in_names(run_python, tmp_path):
    def line(f1="", f2="", f3="", f4="", f5="", f6=""):
        return (" " + f1.ljust(2) + " " + f2.ljust(8) + "  " + f3.ljust(8) + "  " + f4.rjust(12) + "   "
                + f5.ljust(8) + "  " + f6.rjust(12)).rstrip()
    # The blank line once made HiGHS's fixed-format reader loop forever: the run has a timeout.
    text = "\n".join([
        "NAME          FIXED", "ROWS", line("N", "COST"), line("L", "LIM 1"), line("G", "LIM 2"), "COLUMNS",
        line("", "X ONE", "COST", "1.0", "LIM 1", "1.0"), line("", "X ONE", "LIM 2", "1.0"), "",
        line("", "Y TWO", "COST", "2.0", "LIM 1", "1.0"), line("", "Y TWO", "LIM 2", "3.0"),
        "RHS", line("", "RHS", "LIM 1", "4.0", "LIM 2", "1.0"), "BOUNDS", line("UP", "BND", "X ONE", "3.0"),
        "ENDATA", ""])
    path = tmp_path / "fixed.mps"
    path.write_text(text)
    out = run_python(f"""
        import tarvo as tv
        tv.setOutputEnabled(False)
        p = tv.problem()
        p.read({str(path)!r})
        print([(v.name, v.ub) for v in p.getVariable()], [(c.name, c.ub) for c in p.getConstraint()])
        print([[p.getcoef(i, j) for j in range(2)] for i in range(2)])
        p.solve()
        print(round(p.getObjVal(), 9))
    """, timeout=120)
    assert out.splitlines() == ["[('X ONE', 3.0), ('Y TWO', 1e+20)] [('LIM 1', 4.0), ('LIM 2', 1e+20)]",
                                "[[1.0, 1.0], [1.0, 3.0]]", str(round(2 / 3, 9))]


def test_round_trips_keep_the_model(tmp_path):
    # Odd names, every row type, integer, semi-continuous and partial-integer columns, a
    # constant, maximisation: write then read gives the same model in both formats, and a
    # second write gives the same file.
    x = tv.var(name="x.1", lb=-4, ub=6)
    y = tv.var(name="y2", vartype=tv.integer, lb=-5, ub=-1)
    b = tv.var(name="b", vartype=tv.binary)
    s = tv.var(name="s", vartype=tv.semicontinuous, ub=9, threshold=2)
    pi = tv.var(name="pi", vartype=tv.partiallyinteger, ub=30, threshold=4)
    free = tv.var(name="f", lb=-tv.infinity)
    rows = [tv.constraint(body=x + 2 * y - s, lb=-3, ub=5, name="range"),
            tv.constraint(body=x - b + pi, ub=7, name="le"),
            tv.constraint(body=y + s + free, lb=-8, name="ge"),
            tv.constraint(body=x + y + b, lb=1, ub=1, name="eq")]
    p = tv.problem(x, y, b, s, pi, free, rows, 3 * x - y + b + 0.5 * s - pi - 7.25, "trip", sense=tv.maximize)
    p.addConstraint(free <= 10)
    p.solve()
    for fname, flags in (("t.mps", ""), ("t.lp", "l")):
        f = str(tmp_path / fname)
        p.write(f, flags)
        q = tv.problem()
        q.read(f, flags)
        assert [(v.name, v.vartype, v.lb, v.ub) for v in q.getVariable()] == \
               [(v.name, v.vartype, v.lb, v.ub) for v in p.getVariable()]
        assert [(v.threshold) for v in q.getVariable() if v.vartype in (tv.semicontinuous, tv.partiallyinteger)] == [2, 4]
        assert [(c.name, c.lb, c.ub) for c in q.getConstraint()] == [(c.name, c.lb, c.ub) for c in p.getConstraint()]
        n, m = p.attributes.cols, p.attributes.rows
        assert [[q.getcoef(i, j) for j in range(n)] for i in range(m)] == \
               [[p.getcoef(i, j) for j in range(n)] for i in range(m)]
        q.solve()
        assert q.getProbStatusString() == p.getProbStatusString() == "mip_optimal"
        assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-9)
        again = str(tmp_path / ("again-" + fname))
        q.write(again, flags)
        named = ("NAME", "\\ Problem name")
        assert [ln for ln in open(again) if not ln.startswith(named)] == \
               [ln for ln in open(f) if not ln.startswith(named)]


def original():
    x = tv.var(name="x", ub=5)
    p = tv.problem(x, tv.constraint(body=2 * x, ub=4, name="c"), x, "orig", sense=tv.maximize)
    p.solve()
    return p


BAD = {
    "number": ("    x obj 1 c 1.5.2\n", "line 6: not a number: 1.5.2"),
    "overflow": ("    x obj 1e999\n", "line 6: number out of range: 1e999"),
    "nan": ("    x obj nan\n", "line 6: not a finite number: nan"),
    "infinite entry": ("    x c inf\n", "line 6: not a finite number: inf"),
    "unknown row": ("    x obj 1 nosuch 1\n", "line 6: unknown row nosuch"),
    "pairs": ("    x obj 1 c\n", "line 6: a COLUMNS line holds"),
    "marker": ("    m 'MARKER' 'INTEND'\n", "line 6: integer marker out of place: 'INTEND'"),
}


@pytest.mark.parametrize("case", sorted(BAD))
def test_malformed_columns_name_the_line(tmp_path, case):
    line, message = BAD[case]
    path = write(tmp_path, "bad.mps", "NAME bad\nROWS\n N obj\n L c\nCOLUMNS\n" + line + "RHS\n    rhs c 2\nENDATA\n")
    p = original()
    with pytest.raises(tv.SolverError, match=message.replace("(", r"\(").replace(".", r"\.")):
        p.read(path)
    assert p.name() == "orig" and p.attributes.cols == 1 and [c.name for c in p.getConstraint()] == ["c"]
    assert p.getObjVal() == pytest.approx(2.0)


def test_malformed_sections_name_the_line(tmp_path):
    head = "NAME bad\nROWS\n N obj\n L c\nCOLUMNS\n    x obj 1 c 1\n"
    cases = {
        "rowtype": ("NAME bad\nROWS\n N obj\n Q c\nENDATA\n", "line 4: unknown row type Q"),
        "bound type": (head + "BOUNDS\n XX bnd x 1\nENDATA\n", "line 8: unknown bound type XX"),
        "bound value": (head + "BOUNDS\n UP bnd x\nENDATA\n", "line 8: a bound without a value for x"),
        "bound number": (head + "BOUNDS\n UP bnd x ten\nENDATA\n", "line 8: not a number: ten"),
        "rhs row": (head + "RHS\n    rhs d 1\nENDATA\n", "line 8: unknown row d"),
        "range number": (head + "RHS\n    rhs c 1\nRANGES\n    rng c 1e400\nENDATA\n", "line 10: number out of range"),
        "rows late": (head + "ROWS\n L d\nENDATA\n", "line 8: a ROWS entry after the COLUMNS section: d"),
        "partial": (head + "PARTIALINTEGER\n    x many\nENDATA\n", "Unreadable PARTIALINTEGER line in .*line 8"),
    }
    for name, (text, message) in cases.items():
        path = write(tmp_path, name.replace(" ", "_") + ".mps", text)
        p = original()
        with pytest.raises(tv.SolverError, match=message):
            p.read(path)
        assert p.name() == "orig" and p.attributes.cols == 1 and p.attributes.rows == 1, name


def test_read_reports_its_time_in_the_log(tmp_path):
    path = write(tmp_path, "r.mps", SECTIONS["ranges"])
    p = tv.problem()
    tv.setOutputEnabled(True)
    p.controls.outputlog = 1
    lines = []
    p.addcbmessage(lambda prob, data, msg, mtype: lines.append(msg))
    p.read(path)
    read = [ln for ln in lines if ln.startswith("Read ")]
    assert len(read) == 1 and read[0].startswith("Read %s: 6 rows, 1 columns, 6 elements in " % path)
