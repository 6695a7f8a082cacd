"""The branchobj type on its own: construction from constraints (bounds and rows, with the
messages of every refusal), the methods and their bad-input errors through the object's last
error, storing, validation, and misuse that must end in an exception rather than a crash."""
import inspect
import re

import pytest

import tarvo as tv


@pytest.fixture
def prob():
    x = tv.var(vartype=tv.integer, ub=10, name="x")
    y = tv.var(vartype=tv.integer, ub=10, name="y")
    p = tv.problem(x, y, x + y <= 7, x + y)
    return p, x, y


def bounds(bo, i):
    t, c, v = [], [], []
    n = bo.getbounds(i, 10, t, c, v)
    assert n == len(t)
    return list(zip(t, [str(col) for col in c], v))


def rows(bo, i):
    t, r, b, c, v = [], [], [], [], []
    n = bo.getrows(i, 10, 10, t, r, b, c, v)
    assert n == len(t)
    return t, r, b, [str(col) for col in c], v


def test_constraints_become_bounds_and_rows(prob):
    p, x, y = prob
    bo = tv.branchobj(p, [x <= 3, x >= 4])
    assert bo.getbranches() == 2
    assert bounds(bo, 0) == [("U", "x", 3.0)] and bounds(bo, 1) == [("L", "x", 4.0)]
    bo = tv.branchobj(p, [2 * x <= 3, -2 * x <= 3, [x == 2, y >= 1], x + y <= 3,
                          tv.constraint(body=x + y, lb=1, ub=3), (x - y == 0,)])
    assert bounds(bo, 0) == [("U", "x", 1.5)]
    assert bounds(bo, 1) == [("L", "x", -1.5)]
    assert bounds(bo, 2) == [("L", "x", 2.0), ("U", "x", 2.0), ("L", "y", 1.0)]
    assert rows(bo, 3) == (["L"], [3.0], [0], ["x", "y"], [1.0, 1.0])
    assert rows(bo, 4) == (["G", "L"], [1.0, 3.0], [0, 2], ["x", "y", "x", "y"], [1.0] * 4)
    assert rows(bo, 5)[0] == ["E"] and rows(bo, 5)[4] == [1.0, -1.0]
    assert bo.validate() == 0
    # Output lists are cut to the room offered and replace their contents.
    t = ["old"] * 5
    assert bo.getbounds(2, 1, t, None, None) == 3 and t == ["L"]


def test_construction_messages(prob):
    p, x, y = prob
    creation = "Incorrect creation of branching object: must provide a problem"
    for args in [(), ("not a problem",), (None, [x <= 1])]:
        with pytest.raises(tv.ModelError, match=creation):
            tv.branchobj(*args)
    with pytest.raises(tv.ModelError, match="^Cannot define the branches of a branching object if the isoriginal "
                                            "flag is false$"):
        tv.branchobj(p, [], False)
    assert tv.branchobj(p, None, 0).getbranches() == 0
    with pytest.raises(tv.ModelError, match="The branches parameter must be a list or a tuple of elements"):
        tv.branchobj(p, x <= 1)
    with pytest.raises(tv.ModelError, match=r"^Branch 1 is invalid: element of branch not of the valid type "
                                            r"\(constraint\)$"):
        tv.branchobj(p, [x <= 1, 3])
    with pytest.raises(tv.ModelError, match=r"^Branch 0 is invalid: element of branch not of the valid type"):
        tv.branchobj(p, [[x <= 1, "y"]])

    class Unreadable(list):
        def __getitem__(self, i):
            raise RuntimeError("no")

    with pytest.raises(tv.ModelError, match="^Branch 0 is invalid: could not get element of branch$"):
        tv.branchobj(p, Unreadable([x <= 1]))
    with pytest.raises(tv.ModelError, match="^Branch 1 contains a quadratic or nonlinear constraint, invalid$"):
        tv.branchobj(p, [x <= 1, x * y <= 2])
    with pytest.raises(tv.ModelError, match="^Branch 0 contains a quadratic or nonlinear constraint, invalid$"):
        tv.branchobj(p, [tv.exp(x) <= 2])
    with pytest.raises(tv.ModelError, match="^Variable in branching object has not been added to problem yet$"):
        tv.branchobj(p, [tv.var() <= 1])
    with pytest.raises(tv.ModelError, match="not in problem"):
        tv.branchobj(p, [x + tv.var() <= 1])
    with pytest.raises(tv.ModelError, match="^Branch cannot have a free row$"):
        tv.branchobj(p, [tv.constraint(body=x + y, lb=-1e20, ub=1e20)])


def test_methods_build_and_read_branches(prob):
    p, x, y = prob
    bo = tv.branchobj(p)
    assert bo.getbranches() == 0 and bo.validate() == 1
    bo.addbranches(2)
    assert bo.validate() == 6  # empty branches
    bo.addbounds(0, ["U", "B"], [x, "y"], [3, 2.5])
    bo.addrows(1, ["G", "E"], [4, 1], [0, 2], [x, y, 1], [1, 1, 2])
    bo.addrows(ibranch=1, rtype=["L"], rhs=[9], beg=[0], mcol=[x, x], val=[1, 2])  # repeated column summed
    bo.setpriority(-3)
    bo.setpreferredbranch(ibranch=1)
    assert bo.validate() == 0
    assert bounds(bo, 0) == [("U", "x", 3.0), ("B", "y", 2.5)]
    assert rows(bo, 1) == (["G", "E", "L"], [4.0, 1.0, 9.0], [0, 2, 3], ["x", "y", "y", "x"], [1.0, 1.0, 2.0, 3.0])
    assert bo.addcuts(0, []) is None
    assert isinstance(bo.getid(), int)
    assert bo.getlasterror() == (0, "")
    for name in ("addbranches", "addbounds", "addrows", "addcuts", "getbounds", "getrows", "getbranches",
                 "setpriority", "setpreferredbranch", "getid", "store", "validate", "getlasterror"):
        method = getattr(bo, name)
        assert inspect.signature(method) is not None and len(method.__doc__) > 20


def test_method_errors_come_from_the_objects_last_error(prob):
    p, x, y = prob
    bo = tv.branchobj(p, [x <= 3, x >= 4])
    other = tv.problem(tv.var(name="z"))
    cases = [
        (lambda: bo.addbranches(-1), tv.SolverError, "must not be negative"),
        (lambda: bo.addbounds(2, ["U"], [x], [1]), tv.SolverError, "Branch 2 does not exist: the branching object has 2"),
        (lambda: bo.addbounds(0, ["X"], [x], [1]), tv.SolverError, "Invalid bound type 'X'"),
        (lambda: bo.addbounds(0, ["U"], [7], [1]), tv.SolverError, r"Column 7 in branching object out of range"),
        (lambda: bo.addbounds(0, ["U"], [x], [float("inf")]), tv.SolverError, "not finite"),
        (lambda: bo.addbounds(0, ["U"], [x], None), tv.SolverError, "all needed"),
        (lambda: bo.addbounds(0, ["U", "L"], [x], [1, 2]), tv.ModelError, "Mismatched lengths in arguments: expected 2, found 1"),
        (lambda: bo.addbounds(0, ["U"], [other.getVariable()[0]], [1]), tv.ModelError, "not in problem"),
        (lambda: bo.addrows(0, ["N"], [1], [0], [x], [1]), tv.SolverError, "Invalid row type 'N'"),
        (lambda: bo.addrows(0, ["L", "L"], [1, 2], [1, 0], [x], [1]), tv.SolverError, "Row starts"),
        (lambda: bo.addrows(0, ["L"], [float("nan")], [0], [x], [1]), tv.SolverError, "right-hand side"),
        (lambda: bo.addrows(0, ["L"], [1], [0], [x, y], [1]), tv.ModelError, "Mismatched lengths"),
        (lambda: bo.addcuts(0, [tv.poolcut()]), tv.SolverError, "Unknown cut"),
        (lambda: bo.addcuts(0, [1]), tv.ModelError, None),
        (lambda: bo.setpreferredbranch(5), tv.SolverError, "Branch 5 does not exist"),
        (lambda: bo.getbounds(-1, 3, [], [], []), tv.SolverError, "Branch -1 does not exist"),
        (lambda: bo.getrows(9, 3, 3), tv.SolverError, "Branch 9 does not exist"),
        (lambda: bo.getbounds(0, 3, (), None, None), tv.ModelError, "Unexpected argument to conv_arr2obj"),
        (lambda: bo.addbranches("two"), TypeError, None),
    ]
    for call, exc, message in cases:
        with pytest.raises(exc, match=message):
            call()
        if exc is tv.SolverError:
            code, text = bo.getlasterror()
            assert code != 0 and re.search(message, text)
    # nothing of the failed calls stuck
    assert bounds(bo, 0) == [("U", "x", 3.0)] and rows(bo, 0)[0] == []


def test_store_and_validation(prob):
    p, x, y = prob
    empty = tv.branchobj(p)
    with pytest.raises(tv.SolverError, match="Cannot store an invalid branching object: it has no branches"):
        empty.store()
    assert empty.getid() is not None  # still ours
    bo = tv.branchobj(p, [x <= 3, x >= 4])
    ident = bo.getid()
    assert bo.store() == ident
    assert bo.getid() is None
    # A stored object has no handle: every method but getid ends in the unidentified error.
    for call in (bo.getbranches, bo.validate, bo.store, bo.getlasterror, lambda: bo.addbranches(1),
                 lambda: bo.setpriority(1), lambda: bo.getbounds(0, 1, [], [], [])):
        with pytest.raises(tv.SolverError, match="^Unidentified error associated with a branching object$"):
            call()
    # A bound on a column that has since been deleted no longer validates.
    z = tv.var(vartype=tv.integer, name="z")
    p.addVariable(z)
    late = tv.branchobj(p, [z <= 0, z >= 1])
    assert late.validate() == 0
    p.delVariable(z)
    assert late.validate() == 2
    with pytest.raises(tv.SolverError, match="column outside the problem"):
        late.store()


CRASH_CASES = """
import gc
import tarvo as tv
tv.setOutputEnabled(False)

def model():
    x1 = tv.var(vartype=tv.binary)
    x2 = tv.var(vartype=tv.binary)
    p = tv.problem(x1, x2, 2 * x1 + 2 * x2 <= 3, x1 + x2, sense=tv.maximize)
    return p, x1, x2

# 1. The proposed object and one made in the callback, kept beyond the callback and the problem.
kept = []
p, x1, x2 = model()
def chg(prob, data, bo):
    kept.append(bo)
    kept.append(tv.branchobj(prob, [x1 <= 0, x1 >= 1]))
    return tv.branchobj(prob, [x1 <= 0, x1 >= 1]) if len(kept) == 2 else bo
p.addcbchgbranchobject(chg)
p.solve()
del p
gc.collect()
for bo in kept[:2] + kept[3::2]:
    for call in (bo.validate, bo.store, lambda: bo.addbranches(1), lambda: bo.getbounds(0, 2, [], [], [])):
        try:
            call()
        except tv.SolverError as e:
            assert "no longer exists" in str(e), e
        else:
            raise AssertionError("a branching object of a dead callback problem was used")
    bo.getbranches(); bo.getid(); bo.getlasterror()
print("kept ok")

# 2. Returning an object that was already stored, and then the same object twice.
p, x1, x2 = model()
mine = tv.branchobj(p, [x1 <= 0, x1 >= 1])
def chg2(prob, data, bo):
    return mine
p.addcbchgbranchobject(chg2)
try:
    p.solve()
except tv.SolverError:
    pass
print("second use status", p.getProbStatusString())
mine2 = tv.branchobj(p, [x1 <= 0, x1 >= 1])
mine2.store()
q, y1, y2 = model()
q.addcbchgbranchobject(lambda prob, data, bo: mine2)
try:
    q.solve()
except tv.SolverError:
    pass
print("stored return status", q.getProbStatusString())

# 3. Objects stored on a problem that is then dropped, and many objects made and dropped.
for i in range(200):
    r, z1, z2 = model()
    tv.branchobj(r, [z1 <= 0, z1 >= 1]).store()
    tv.branchobj(r, [z1 + z2 <= 1, z1 + z2 >= 2])
    del r
gc.collect()

# 4. A callback that raises after making objects.
s, w1, w2 = model()
def bad(prob, data, bo):
    tv.branchobj(prob, [w1 <= 0, w1 >= 1])
    raise ValueError("boom")
s.addcbchgbranchobject(bad)
try:
    s.solve()
except ValueError:
    print("raised ok")
"""


def test_misuse_never_crashes(run_python):
    out = run_python(CRASH_CASES, timeout=120)
    assert "kept ok" in out
    assert "second use status" in out and "stored return status" in out
    assert "raised ok" in out
