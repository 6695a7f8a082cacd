"""Problem creation, adding and deleting objects, copy, reset, and file round trips."""
import numpy as np
import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


def indices_agree(p):
    """List positions, map values and the library's counts agree."""
    vs, cs, ss = p.getVariable(), p.getConstraint(), p.getSOS()
    assert [p.getIndex(v) for v in vs] == list(range(len(vs)))
    assert [p.getIndex(c) for c in cs] == list(range(len(cs)))
    assert [p.getIndex(s) for s in ss] == list(range(len(ss)))
    assert p.attributes.originalcols == len(vs)
    assert p.attributes.originalrows == len(cs)
    assert p.attributes.sets == len(ss)


def test_creation_forms():
    p = tv.problem()
    assert p.name() == "noname" and str(p) == "noname"
    assert p.getVariable() == [] and p.getConstraint() == [] and p.getSOS() == []

    x, y = tv.var(name="x"), tv.var(name="y")
    c1 = x + 2 * y <= 4
    p = tv.problem(x, y, c1, x + y, "p")
    assert p.name() == "p"
    assert p.getVariable() == [x, y] and p.getConstraint() == [c1]
    assert p.attributes.objsense == 1
    assert tv.problem(name="named").name() == "named"

    # A variable already held is the objective; the objective may precede its variables.
    p = tv.problem(x, x)
    assert p.getVariable() == [x]
    p = tv.problem(2 * x + y, [x, y], sense=tv.maximize)
    assert p.getVariable() == [x, y] and p.attributes.objsense == -1

    # Generators are classified by their first item, which is not lost.
    vs = [tv.var() for _ in range(4)]
    p = tv.problem(v for v in vs)
    assert p.getVariable() == vs
    # Nested containers, dicts and NumPy object arrays of variables.
    a, b, c = tv.var(), tv.var(), tv.var()
    p = tv.problem({"k": [a, (b,)]}, np.array([c], dtype=object))
    assert p.getVariable() == [a, b, c]
    indices_agree(p)


@pytest.mark.parametrize(
    "args, kwargs, message",
    [
        (("a", "b"), {}, "More than one string passed in problem declaration"),
        ("list", {}, "Incorrect way of defining an objective function"),
        ("two", {}, "At most one expression can be used as an objective function"),
        ((), {"sense": 0}, "Invalid optimization sense"),
        ((3,), {}, "Erroneous problem declaration"),
    ],
)
def test_creation_errors(args, kwargs, message):
    x, y = tv.var(), tv.var()
    if args == "list":
        args = ([x + 1, y + 1],)
    elif args == "two":
        args = (x, y, x + 1, y + 1)
    with pytest.raises(tv.ModelError, match=message):
        tv.problem(*args, **kwargs)
    with pytest.raises(TypeError):
        tv.problem(elements=[x])


def test_add_variables_batches_names_and_types():
    many = [tv.var() for _ in range(1000)]
    extra = (tv.var(), (tv.var(), [tv.var(), (tv.var(), tv.var())]))
    p = tv.problem()
    p.addVariable(many, extra)
    assert p.attributes.originalcols == 1005
    assert p.getVariable(index=1004) is extra[1][1][1][1]
    p.addVariable(tv.var(name="n" * 200))  # stored as its first 150 characters (see the round trip)

    x = tv.var()
    with pytest.raises(tv.ModelError, match="Variable already added to problem"):
        p.addVariable(x, x)
    # The failed call left nothing behind: x can be added now.
    p.addVariable(x)
    assert p.getIndex(x) == 1006
    with pytest.raises(tv.ModelError, match="Incorrect objects added as variables to problem"):
        p.addVariable(tv.var(), 3)
    s = tv.var(vartype=tv.semicontinuous, lb=0, ub=4, threshold=5)
    with pytest.raises(tv.ModelError, match="threshold is between its lower and upper bounds"):
        p.addVariable(s)
    with pytest.raises(tv.ModelError, match=r"Maximum recursion \(inclusion\) level reached"):
        nested = tv.var()
        for _ in range(40):
            nested = [nested]
        p.addVariable(nested)
    indices_agree(p)
    types = {tv.var(vartype=k, lb=1, ub=5, threshold=2): k for k in range(6)}
    q = tv.problem(list(types))
    assert q.attributes.mipents >= 4


def test_constraint_rows_from_bounds(tmp_path):
    x, y = tv.var(name="x"), tv.var(name="y")
    ce = tv.constraint(body=x, lb=1, ub=1, name="ce")
    cl = tv.constraint(body=x, ub=3, name="cl")
    cr = tv.constraint(body=x + 1, lb=2, ub=5, name="cr")
    cg = tv.constraint(body=x + y, lb=-2, name="cg")
    p = tv.problem(x, y, ce, cl, cr, cg)
    f = tmp_path / "rows.mps"
    p.write(str(f))
    q = tv.problem()
    q.read(str(f))
    rows = {str(c): (c.lb, c.ub) for c in q.getConstraint()}
    assert rows["ce"] == (1, 1)
    assert rows["cl"][1] == 3 and rows["cl"][0] <= -1e20
    assert rows["cr"] == (1, 4)  # rhs 4, range 3
    assert rows["cg"][0] == -2 and rows["cg"][1] >= 1e20
    with pytest.raises(tv.ModelError, match="Invalid constraint"):
        p.addConstraint(x)
    with pytest.raises(tv.ModelError, match="Constraint already added to problem"):
        p.addConstraint(ce)
    z = tv.var()
    with pytest.raises(tv.ModelError, match="not in problem"):
        p.addConstraint(x + z <= 1, y >= 0)
    indices_agree(p)  # nothing of the failed batch stayed


def test_sos_and_indicator_errors():
    x = [tv.var(ub=1) for _ in range(3)]
    z = tv.var(vartype=tv.binary)
    p = tv.problem(x, z)
    s = tv.sos(x, [1, 2, 3], 2)
    p.addSOS(s)
    assert p.getSOS() == [s] and p.getIndex(s) == 0
    with pytest.raises(tv.ModelError, match="SOS already added to problem"):
        p.addSOS(s)
    with pytest.raises(tv.ModelError, match="Object added is not a SOS"):
        p.addSOS(x[0])
    with pytest.raises(tv.ModelError, match="SOS contains variable that was not added to the problem"):
        p.addSOS(tv.sos([tv.var()], [1]))

    with pytest.raises(tv.ModelError, match="<variable_name> == 0 or <variable_name> == 1"):
        p.addIndicator(z == 2, x[0] <= 0)
    with pytest.raises(tv.ModelError, match="Indicator variable must have coefficient 1"):
        p.addIndicator(2 * z == 1, x[0] <= 0)
    with pytest.raises(tv.ModelError, match="Indicator variable has not been added to problem yet"):
        p.addIndicator(tv.var(vartype=tv.binary) == 1, x[0] <= 0)
    with pytest.raises(tv.ModelError, match="there must be exactly one variable"):
        p.addIndicator(z + x[0] == 1, x[1] <= 0)
    with pytest.raises(tv.ModelError, match="Invalid declaration of indicator constraints"):
        p.addIndicator(z == 1, x[0] <= 0, x[1] <= 0)
    p.addIndicator((z == 1, x[0] <= 0), (z == 0, x[1] <= 0))
    assert p.attributes.indicators == 2 and len(p.getConstraint()) == 2
    p.addIndicator()
    indices_agree(p)


def test_deletion_keeps_lists_maps_and_library_in_agreement():
    v = [tv.var(name="v%d" % i) for i in range(8)]
    p = tv.problem(v)
    p.delVariable(index=[2, 5])
    assert p.getVariable() == [v[i] for i in (0, 1, 3, 4, 6, 7)]
    assert p.getIndex(v[6]) == 4 and p.getIndex(v[7]) == 5
    with pytest.raises(tv.ModelError, match="need variable, constraint, or SOS"):
        p.getIndex(v[2])
    p.delVariable(index=v[0])
    p.delVariable(index=["v7"])
    p.delVariable(first=0, last=1)
    assert p.getVariable() == [v[4], v[6]]
    indices_agree(p)

    with pytest.raises(tv.ModelError, match="must be both nonnegative when specified"):
        p.delVariable(first=3)
    with pytest.raises(tv.ModelError, match="cannot be specified if 'index' is also specified"):
        p.delVariable(index=0, first=0, last=0)
    with pytest.raises(tv.ModelError, match="At least one parameter must be specified"):
        p.delVariable()
    with pytest.raises(tv.ModelError, match="out of range"):
        p.delVariable(first=0, last=5)
    with pytest.raises(tv.ModelError, match="less than, or equal to"):
        p.delVariable(first=1, last=0)
    with pytest.raises(tv.ModelError, match="Variable .* not in problem"):
        p.delVariable(index=[v[4], v[0]])
    assert p.getVariable() == [v[4], v[6]]

    x = [tv.var() for _ in range(3)]
    cons = [x[0] + x[1] >= i for i in range(5)]
    q = tv.problem(x, cons)
    q.delConstraint(index=[cons[1], cons[3]])
    q.delConstraint(index=np.array([0], dtype=np.int64))
    assert q.getConstraint() == [cons[2], cons[4]]
    indices_agree(q)


def test_copy_and_reset():
    x, y, z = tv.var(), tv.var(), tv.var()
    p = tv.problem(x, y, z, x + y <= 1, "src")
    q = p.copy()
    assert q.getVariable() == [x, y, z]
    assert all(a is b for a, b in zip(q.getVariable(), p.getVariable()))
    assert [q.getIndex(v) for v in (x, y, z)] == [0, 1, 2]
    q.addVariable(tv.var())
    assert len(q.getVariable()) == 4 and len(p.getVariable()) == 3
    assert p.attributes.originalcols == 3 and q.attributes.originalcols == 4
    p.reset()
    assert p.getVariable() == [] and p.getConstraint() == []
    assert p.attributes.originalcols == 0
    p.addVariable(x)  # x is free to be added again
    assert p.getIndex(x) == 0
    del p
    assert q.getIndex(z) == 2


def test_write_read_round_trip(tmp_path):
    x = tv.var(name="x", lb=-2, ub=7)
    y = tv.var(name="y", vartype=tv.integer, ub=10)
    b = tv.var(name="b", vartype=tv.binary)
    long = tv.var(name="n" * 200)
    c1 = tv.constraint(body=x + 2 * y - b, ub=9, name="c1")
    c2 = tv.constraint(body=3 * x - y, lb=-4, ub=6, name="c2")
    p = tv.problem(x, y, b, long, c1, c2, x + y - long, "rt", sense=tv.maximize)
    p.solve()
    p_obj = p.getObjVal()
    for ext, flags in (("mps", ""), ("lp", "l")):
        f = tmp_path / ("model." + ext)
        p.write(str(f), flags)
        q = tv.problem()
        q.read(str(f), flags)
        # The LP writer may order columns by first appearance and split ranged rows.
        cols = {str(v): v for v in q.getVariable()}
        assert set(cols) == {"x", "y", "b", "n" * 150}
        qx, qy, qb = cols["x"], cols["y"], cols["b"]
        assert (qx.lb, qx.ub) == (-2, 7) and qy.vartype == tv.integer and qb.vartype == tv.binary
        rows = {str(c): c for c in q.getConstraint()}
        assert rows["c1"].ub == 9
        if ext == "mps":
            assert [str(c) for c in q.getConstraint()] == ["c1", "c2"]
            assert (rows["c2"].lb, rows["c2"].ub) == (-4, 6)
        indices_agree(q)
        q.solve()
        assert q.getObjVal() == pytest.approx(p_obj, abs=1e-6)
    with pytest.raises(tv.SolverError):
        tv.problem().read(str(tmp_path / "missing.mps"))


def test_files_that_cannot_be_read_or_written(tmp_path):
    x, y = tv.var(name="x", ub=5), tv.var(name="y", ub=5)
    p = tv.problem(x, y, tv.constraint(body=x + y, ub=4, name="c"), x + 2 * y, sense=tv.maximize)
    # Writing into a missing directory is an error in both formats (the LP writer used to crash).
    for flags in ("", "l"):
        with pytest.raises(tv.SolverError, match="Could not open problem file .*for writing"):
            p.write(str(tmp_path / "missing" / "model"), flags)
    # A file that is not a model: the problem stays as it was, lists and library alike.
    (tmp_path / "junk.mps").write_text("this is not\n a model file\nENDATA\n")
    (tmp_path / "junk.lp").write_text("maximize\n obj: 3 x +\nsubject to\n c1: x <=\nend\n")
    for name, flags, message in (("junk.mps", "", "line 1 opens an unknown MPS section this"),
                                 ("junk.lp", "l", "Could not read problem file")):
        q = p.copy()
        with pytest.raises(tv.SolverError, match=message):
            q.read(str(tmp_path / name), flags)
        assert q.getVariable() == [x, y] and len(q.getConstraint()) == 1
        assert q.attributes.cols == 2 and q.attributes.rows == 1
        indices_agree(q)
        q.solve()
        assert q.getObjVal() == pytest.approx(8, abs=1e-9)
    # The source of the copies is untouched.
    p.solve()
    assert p.getObjVal() == pytest.approx(8, abs=1e-9)


def test_written_names_stay_distinct_and_valid_ones_unchanged(tmp_path):
    # A blank, characters the LP format cannot carry, a leading digit and a name given twice:
    # each is mended on its own, all stay distinct, and the ordinary names are kept as they are.
    names = ["a b", "a_b", "3x", "p+q", "dup", "dup", "plain"]
    xs = [tv.var(name=n, ub=i + 1) for i, n in enumerate(names)]
    rows = [tv.constraint(body=x, ub=0.5, name=n) for x, n in zip(xs, ["r 1", "r_1", "ok"] + [""] * 4)]
    p = tv.problem(xs, rows[:3], tv.Sum(xs), sense=tv.maximize)
    p.solve()
    for flags in ("", "l"):
        f = tmp_path / ("names" + (".lp" if flags else ".mps"))
        p.write(str(f), flags)
        q = tv.problem()
        q.read(str(f), flags)
        got = sorted(str(v) for v in q.getVariable())
        assert len(set(got)) == len(names)
        assert {"a_b", "dup", "plain"} <= set(got)
        assert ("3x" in got) == (flags == "")
        rnames = sorted(str(c) for c in q.getConstraint())
        assert len(set(rnames)) == 3 and "ok" in rnames and "r_1" in rnames
        q.solve()
        assert q.getObjVal() == pytest.approx(p.getObjVal(), abs=1e-9)
