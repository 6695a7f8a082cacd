"""Branching directives: priorities, preferred directions and pseudocost overrides honoured by the
tree search (seen through the branching object it proposes and the nodes it creates), the
directives file written and read back, directives following their columns through deletions,
and the methods' misuse messages."""
import os

import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


def two_fractions():
    """max 10 x1 + x2 with 2 x1 <= 3, 2 x2 <= 5: the root relaxation has x1 = 1.5, x2 = 2.5, and
    the search's own choice is x1 (far larger objective change)."""
    x1 = tv.var(vartype=tv.integer, ub=10, name="x1")
    x2 = tv.var(vartype=tv.integer, ub=10, name="x2")
    p = tv.problem(x1, x2, 2 * x1 <= 3, 2 * x2 <= 5, 10 * x1 + x2, sense=tv.maximize)
    p.controls.miprelstop = 0
    return p, x1, x2


def watch(p):
    """Records the column of every branching the search proposes, and the nodes it creates."""
    branched, created = [], []

    def chg(prob, data, bo):
        t, c, v = [], [], []
        bo.getbounds(0, 4, t, c, v)
        branched.append(str(c[0]) if c else None)
        return bo

    p.addcbchgbranchobject(chg)
    p.addcbnewnode(lambda prob, data, parent, node, branch: created.append((parent, node, branch)))
    return branched, created


def test_priority_forces_the_first_branching_column():
    p, x1, x2 = two_fractions()
    branched, created = watch(p)
    p.solve()
    assert branched[0] == "x1"  # the search's own choice
    p, x1, x2 = two_fractions()
    p.loaddirs([x2], [1])
    branched, created = watch(p)
    p.solve()
    assert p.getObjVal() == pytest.approx(12)
    assert branched[0] == "x2"
    assert created[:2] == [(1, 2, 0), (1, 3, 1)]
    # x2 is branched on before x1 anywhere below the root: x1 only once x2 is integral.
    assert branched.index("x1") > 0


def test_loadbranchdirs_puts_its_columns_first():
    p, x1, x2 = two_fractions()
    p.loadbranchdirs([x2])
    branched, _ = watch(p)
    p.solve()
    assert branched[0] == "x2"
    dirs = ([], [], [], [], [])
    p.getdirs(*dirs)
    assert dirs[0] == [x2] and dirs[1] == [0] and dirs[2] == ["N"]


def test_pseudocost_overrides_change_the_choice():
    p, x1, x2 = two_fractions()
    p.loaddirs([x1, x2], None, None, [1e-3, 100.0], [1e-3, 100.0])
    branched, _ = watch(p)
    p.solve()
    assert branched[0] == "x2"
    assert p.getObjVal() == pytest.approx(12)


@pytest.mark.parametrize("qbr", ["U", "D"])
def test_preferred_direction_chooses_the_first_child(qbr):
    # max x + y, x + y <= 4.5, x, y <= 3: both children of the fractional column are feasible.
    x = tv.var(vartype=tv.integer, ub=3, name="x")
    y = tv.var(vartype=tv.integer, ub=3, name="y")
    p = tv.problem(x, y, 2 * x + 2 * y <= 9, x + y, sense=tv.maximize)
    p.controls.miprelstop = 0
    p.loaddirs([x, y], None, [qbr, qbr])
    bounds, seen = [], []

    def chg(prob, data, bo):
        if not bounds:
            for i in range(2):
                t, c, v = [], [], []
                bo.getbounds(i, 4, t, c, v)
                bounds.append((t[0], c[0], v[0]))
        return bo

    def optnode(prob, data):
        xs = []
        prob.getlpsol(xs, None, None, None)
        seen.append(xs)
        return 0

    p.addcbchgbranchobject(chg)
    p.addcboptnode(optnode)
    p.solve()
    assert p.getObjVal() == pytest.approx(4)
    (down_type, col, down), (up_type, _, up) = bounds
    assert (down_type, up_type) == ("U", "L")
    j = 0 if col is x else 1
    assert seen[1][j] == pytest.approx(up if qbr == "U" else down)


def test_directives_make_a_plain_mip_run_our_search():
    p, x1, x2 = two_fractions()
    p.loaddirs([x2], [1])
    p.controls.treesearch = 2
    with pytest.raises(tv.SolverError, match="directives"):
        p.solve()
    lines = []
    p.controls.treesearch = 0
    p.controls.outputlog = 1
    p.addcbmessage(lambda prob, data, msg, kind: lines.append(msg))
    p.solve()
    assert p.getObjVal() == pytest.approx(12)
    assert any(m and m.startswith("Tree search") for m in lines)


def test_write_read_round_trip(tmp_path):
    names = ["a", "b", "c", "d"]
    p = tv.problem()
    xs = [tv.var(vartype=tv.integer, ub=5, name=n) for n in names]
    p.addVariable(*xs)
    p.loaddirs(xs[:3] + [xs[3]], [3, 500, -2, 7], ["U", "N", "D", "N"], [1.5, -1, 0.25, -1], [-1, 2.0, 0.125, -1])
    fn = str(tmp_path / "dirs.txt")
    p.writedirs(fn)
    q = tv.problem()
    ys = [tv.var(vartype=tv.integer, ub=5, name=n) for n in names]
    q.addVariable(*ys)
    q.readdirs(fn)
    got, want = ([], [], [], [], []), ([], [], [], [], [])
    q.getdirs(*got)
    p.getdirs(*want)
    assert got[0] == ys and want[0] == xs
    assert got[1:] == want[1:] == ([3, 500, -2, 7], ["U", "N", "D", "N"], [1.5, -1.0, 0.25, -1.0],
                                   [-1.0, 2.0, 0.125, -1.0])
    with open(fn) as f:
        lines = [ln.split() for ln in f if not ln.startswith("#")]
    assert lines[0] == ["a", "3", "U", "1.5", "-"]


def test_readdirs_fields_defaults_and_errors(tmp_path):
    p = tv.problem()
    x = tv.var(vartype=tv.integer, ub=5, name="x")
    y = tv.var(vartype=tv.binary, name="y")
    c = tv.var(name="c")
    p.addVariable(x, y, c)
    fn = tmp_path / "d.txt"
    fn.write_text("# priorities\n\nx 4   # only a priority\ny\n")
    p.readdirs(str(fn))
    got = ([], [], [], [], [])
    p.getdirs(*got)
    assert got == ([x, y], [4, 500], ["N", "N"], [-1.0, -1.0], [-1.0, -1.0])
    for text, message in [("z 1 U\n", "line 1: column 'z' not found"),
                          ("x 1 Q\n", "Invalid branching direction 'Q'"),
                          ("x one\n", "line 1: priority 'one' is not an integer"),
                          ("x 1 U -3 -\n", "up pseudocost '-3'"),
                          ("x 1 U 1 1 9\n", "more than five fields"),
                          ("c 1\n", "column c is of type 'C'")]:
        fn.write_text(text)
        with pytest.raises(tv.SolverError, match=message):
            p.readdirs(str(fn))
        # a failed read leaves the directives as they were
        again = ([], [], [], [], [])
        p.getdirs(*again)
        assert again == got
    with pytest.raises(tv.SolverError, match="Cannot open directives file"):
        p.readdirs(str(tmp_path / "missing.txt"))


def test_directives_follow_their_columns():
    xs = [tv.var(vartype=tv.integer, ub=5, name="v%d" % i) for i in range(4)]
    p = tv.problem(*xs)
    p.loaddirs(xs, [10, 20, 30, 40], ["U", "D", "N", "U"])
    p.delVariable(xs[1])
    got = ([], [], [], [], [])
    p.getdirs(*got)
    assert got[0] == [xs[0], xs[2], xs[3]] and got[1] == [10, 30, 40] and got[2] == ["U", "N", "U"]
    # loading again replaces them all
    p.loaddirs([xs[0]], [1])
    got = ([], [], [], [], [])
    p.getdirs(*got)
    assert got[0] == [xs[0]] and got[1] == [1]


def test_misuse_messages():
    p, x1, x2 = two_fractions()
    c = tv.var(name="cont")
    p.addVariable(c)
    with pytest.raises(tv.InterfaceError, match="^Must provide argument mcols$"):
        p.loaddirs()
    with pytest.raises(tv.InterfaceError, match="^Must provide argument mcols$"):
        p.loadbranchdirs(None, [1])
    with pytest.raises(tv.InterfaceError, match=r"^Must provide arguments \(as lists\) to getdirs$"):
        p.getdirs(None, None, None, None, None)
    with pytest.raises(tv.InterfaceError, match=r"to getdirs"):
        p.getdirs((), None, None, None, None)
    with pytest.raises(tv.ModelError, match="Mismatched lengths in arguments: expected 2, found 1"):
        p.loaddirs([x1, x2], [1])
    with pytest.raises(tv.SolverError, match="integer and binary columns; column cont"):
        p.loaddirs([x1, c], [1, 2])
    with pytest.raises(tv.SolverError, match="Invalid branching direction 'X'"):
        p.loaddirs([x1], None, ["X"])
    with pytest.raises(tv.ModelError, match="not in problem"):
        p.loaddirs([tv.var(vartype=tv.integer)])
    with pytest.raises(tv.SolverError, match="out of range"):
        p.loadpresolvedirs([99])
    # none of the failures above left a directive behind
    got = ([], [], [], [], [])
    p.getdirs(*got)
    assert got == ([], [], [], [], [])
    with pytest.raises(tv.SolverError, match="Cannot open directives file"):
        p.writedirs(os.path.join("/nonexistent-dir", "d.txt"))
