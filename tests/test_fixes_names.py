"""One naming rule for variables: the empty name is no name, so a variable named "" (by var,
vars or a later assignment) has the default name "C<serial>", and the name it reports is the
one its problems give the library."""
import gc

import pytest

import tarvo as tv


def library_names(p, n):
    return p.getnamelist(2, 0, n - 1)


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
