"""One naming rule for variables and constraints: the empty name is no name, so an item named
"" (by its constructor, vars or a later assignment) has the default name "C<serial>" or
"R<serial>", and the name it reports is the one its problems give the library, however the
column or row was added."""
import gc
import re

import pytest

import tarvo as tv


def library_names(p, n):
    return p.getnamelist(2, 0, n - 1)


def library_row_names(p, n):
    return p.getnamelist(1, 0, n - 1)


def serial_of(default_name):
    m = re.fullmatch(r"R(\d+)", default_name)
    assert m, default_name
    return int(m.group(1))


@pytest.mark.parametrize("make", [
    lambda: [tv.var(name="") for _ in range(4)],
    lambda: list(tv.vars(4, name="")),
    lambda: list(tv.vars(["a", "b", "c", "d"], name="").values()),
], ids=["var", "vars-array", "vars-dict"])
def test_unnamed_variables_report_the_names_the_library_holds(make):
    xs = make()
    # Placed after other columns, so that a name made from the column index would differ.
    other = [tv.var(name=f"o{k}") for k in range(3)]
    p = tv.problem(other, xs)
    names = library_names(p, 7)
    assert names[3:] == [v.name for v in xs] == [f"C{hash(v)}" for v in xs]
    assert [str(v) for v in xs] == names[3:]


def test_renaming_to_and_from_the_empty_name_keeps_variable_and_library_in_step():
    x = tv.var(name="x")
    y = tv.var()
    x.name = ""
    y.name = "y"
    p = tv.problem(x, y)
    assert library_names(p, 2) == [x.name, "y"] == [f"C{hash(x)}", "y"]
    # A problem built afterwards follows the variable's current name.
    x.name = "again"
    q = tv.problem(y, x)
    assert library_names(q, 2) == ["y", "again"]
    del p, q
    gc.collect()
    assert (x.name, y.name) == ("again", "y")


def test_names_in_written_files_match_after_a_round_trip(tmp_path):
    xs = [tv.var(name=""), tv.var(name="named"), tv.var(name=b"")]
    p = tv.problem(xs, xs[0] + xs[1] + xs[2] <= 4, xs[0] + 2 * xs[1] + 3 * xs[2], sense=tv.maximize)
    f = str(tmp_path / "m.lp")
    p.write(f, "l")
    q = tv.problem()
    q.read(f)
    assert library_names(q, 3) == [v.name for v in xs]


def test_columns_added_without_names_have_their_variables_names_in_the_library():
    earlier = [tv.var() for _ in range(5)]  # serials and column positions differ below
    p = tv.problem(tv.var(name="a"))
    p.addcols([1, 1], [0, 0, 0], [], [], [0, 0], [1, 1])
    p.addcols([1, 1], [0, 0, 0], [], [], [0, 0], [1, 1], names=["", "b"])
    held = p.getVariable()
    assert library_names(p, 5) == [v.name for v in held]
    assert [v.name for v in held[1:4]] == [f"C{hash(v)}" for v in held[1:4]] and held[4].name == "b"
    for colnames in (None, ["", "z"]):
        q = tv.problem()
        q.loadproblem("", ["L"], [1.0], None, [1, 1], [0, 0, 1], None, [0], [1.0], [0, 0], [1, 1],
                      colnames=colnames)
        assert library_names(q, 2) == [v.name for v in q.getVariable()]
    assert len(earlier) == 5


# ---------------------------------------------------------------- constraints


@pytest.mark.parametrize("make,drawn", [
    (lambda x: tv.constraint(body=x, ub=1, name=""), 1),
    (lambda x: tv.constraint(body=x + 1, sense=tv.geq, rhs=0, name=b""), 1),
    (lambda x: tv.constraint(constraint=x <= 2, name=""), 2),  # the inner comparison draws one too
], ids=["body", "bytes", "from-constraint"])
def test_unnamed_constraints_report_the_names_the_library_holds(make, drawn):
    x = tv.var(name="x")
    before = x <= 5  # unnamed: its default name gives the serial drawn last
    c = make(x)
    assert c.name == str(c) == f"R{serial_of(before.name) + drawn}"
    # Placed after other rows, so that a name made from the row index would differ.
    others = [tv.constraint(body=x, ub=k, name=f"o{k}") for k in range(3)]
    p = tv.problem(x, others, c)
    assert library_row_names(p, 4) == [o.name for o in others] + [c.name]


def test_renaming_a_constraint_to_and_from_the_empty_name_keeps_it_and_the_library_in_step():
    x = tv.var()
    c = tv.constraint(body=x, ub=1, name="c")
    d = x >= 0
    default_c = f"R{serial_of(d.name) - 1}"
    c.name = ""
    d.name = "d"
    assert (c.name, d.name) == (default_c, "d")
    assert c.copy().name == f"{default_c}_copy_{default_c}"
    p = tv.problem(x, d, c)
    assert library_row_names(p, 2) == ["d", default_c]
    c.name = "again"
    d.name = b""
    q = tv.problem(x, c, d)
    assert library_row_names(q, 2) == ["again", d.name] and serial_of(d.name) == serial_of(default_c) + 1
    del p, q
    gc.collect()
    assert c.name == "again"


def test_rows_added_without_names_have_their_constraints_names_in_the_library():
    earlier = [tv.var() <= 1 for _ in range(5)]  # serials and row positions differ below
    x = tv.var()
    p = tv.problem(x, tv.constraint(body=x, ub=3, name="a"))
    p.addrows(["L", "G"], [1, 0], [0, 1, 2], [0, 0], [1.0, 1.0])
    p.addrows(["L", "L"], [2, 3], [0, 1, 2], [0, 0], [1.0, 1.0], names=["", "b"])
    held = p.getConstraint()
    assert library_row_names(p, 5) == [c.name for c in held]
    serials = [serial_of(c.name) for c in held[1:4]]
    assert serials == list(range(serials[0], serials[0] + 3)) and serials[0] > len(earlier) + 4
    assert held[4].name == "b"
    for rownames in (None, ["", "z"]):
        q = tv.problem()
        q.loadproblem("", ["L", "G"], [1.0, 0.0], None, [1], [0, 2], None, [0, 1], [1.0, 1.0], [0], [1],
                      rownames=rownames)
        made = q.getConstraint()
        assert library_row_names(q, 2) == [c.name for c in made]
        assert serial_of(made[0].name) > len(earlier) + 4


def test_a_problem_loaded_with_sets_names_its_empty_named_items_alike():
    p = tv.problem()
    p.loadproblem("", ["L", "G"], [1.0, 0.0], None, [1, 1], [0, 2, 3], None, [0, 1, 0], [1.0] * 3, [0, 0], [1, 1],
                  qstype=["1"], msstart=[0, 2], mscols=[0, 1], dref=[1.0, 2.0],
                  colnames=["", "b"], rownames=["", "r"])
    assert library_row_names(p, 2) == [c.name for c in p.getConstraint()] and p.getConstraint()[1].name == "r"
    assert library_names(p, 2) == [v.name for v in p.getVariable()] and p.getVariable()[1].name == "b"
    serial_of(p.getConstraint()[0].name)


@pytest.mark.parametrize("kind", ["rows", "columns"])
def test_default_names_do_not_shift_when_earlier_items_are_deleted(kind):
    xs = [tv.var() for _ in range(3)]
    p = tv.problem(xs, xs[0] <= 1, [tv.constraint(body=x, ub=1, name="") for x in xs[1:]])
    p.addrows(["L"], [4.0], [0, 3], [0, 1, 2], [1.0] * 3)
    p.addcols([0.0], [0, 1], [3], [1.0], [0], [1])
    items = p.getConstraint() if kind == "rows" else p.getVariable()
    names = [o.name for o in items]
    if kind == "rows":
        p.delConstraint(items[0])
        assert library_row_names(p, 3) == names[1:] == [c.name for c in p.getConstraint()]
    else:
        p.delVariable(items[0])
        assert library_names(p, 3) == names[1:] == [v.name for v in p.getVariable()]


@pytest.mark.parametrize("fmt,ext", [("l", "lp"), ("", "mps")])
def test_row_names_in_written_files_match_after_a_round_trip(tmp_path, fmt, ext):
    x, y = tv.var(name=""), tv.var(name="y")
    rows = [tv.constraint(body=x + y, ub=4, name=""), x - y >= -1,
            tv.constraint(body=x + 2 * y, ub=6, name="named")]
    p = tv.problem(x, y, rows, x + y, sense=tv.maximize)
    p.addrows(["L", "L"], [9.0, 8.0], [0, 2, 4], [0, 1, 0, 1], [1.0, 1.0, 1.0, 3.0], names=["", "r5"])
    p.addrows(["G"], [0.0], [0, 1], [0], [1.0])
    held = [c.name for c in p.getConstraint()]
    f = str(tmp_path / f"m.{ext}")
    p.write(f, fmt)
    q = tv.problem()
    q.read(f)
    assert library_row_names(q, 6) == held == [c.name for c in q.getConstraint()]
    assert library_names(q, 2) == [x.name, "y"]
