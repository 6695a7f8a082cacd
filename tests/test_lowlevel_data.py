"""Low-level methods on the problem's data: building with addcols/addrows/loadproblem, reading
back with the getters, the object lists and maps they keep, and bad input that must leave the
problem unchanged."""
import numpy as np
import pytest

import tarvo as tv

# max 3x + 2y + 4z  s.t.  c1: x + y + 2z <= 4,  c2: 2x + z >= 1,  c3: 1 <= x + 3y <= 6 (range)
#                          0 <= x <= 4, -1 <= y <= 3, 0 <= z <= 10
NAMES_C = ["x", "y", "z"]
NAMES_R = ["c1", "c2", "c3"]
OBJ = [3.0, 2.0, 4.0]
LB = [0.0, -1.0, 0.0]
UB = [4.0, 3.0, 10.0]
ROWTYPE = ["L", "G", "R"]
RHS = [4.0, 1.0, 6.0]
RNG = [0.0, 0.0, 5.0]
# column-wise matrix
CSTART = [0, 3, 5, 7]
CROW = [0, 1, 2, 0, 2, 0, 1]
CVAL = [1.0, 2.0, 1.0, 1.0, 3.0, 2.0, 1.0]
# row-wise matrix
RSTART = [0, 3, 5, 7]
RCOL = [0, 1, 2, 0, 2, 0, 1]
RVAL = [1.0, 1.0, 2.0, 2.0, 1.0, 1.0, 3.0]


pytestmark = pytest.mark.usefixtures("quiet")


def build_objects():
    x = tv.var(lb=0, ub=4, name="x")
    y = tv.var(lb=-1, ub=3, name="y")
    z = tv.var(lb=0, ub=10, name="z")
    c1 = tv.constraint(x + y + 2 * z <= 4, name="c1")
    c2 = tv.constraint(2 * x + z >= 1, name="c2")
    c3 = tv.constraint(body=x + 3 * y, lb=1, ub=6, name="c3")
    return tv.problem(x, y, z, c1, c2, c3, 3 * x + 2 * y + 4 * z, sense=tv.maximize)


def build_addcols_addrows():
    p = tv.problem()
    p.addcols(OBJ, [0, 0, 0], [], [], LB, UB, names=NAMES_C)
    p.addrows(ROWTYPE, RHS, RSTART[:-1], RCOL, RVAL, range=RNG, names=NAMES_R)
    p.chgobjsense(tv.maximize)
    return p


def build_loadproblem():
    p = tv.problem()
    p.loadproblem("lp", ROWTYPE, RHS, RNG, OBJ, CSTART, None, CROW, CVAL, LB, UB,
                  colnames=NAMES_C, rownames=NAMES_R)
    p.chgobjsense(tv.maximize)
    return p


def snapshot(p):
    """Everything the getters tell about a problem, indices as integers."""
    n = p.attributes.cols
    m = p.attributes.rows
    out = {}
    s, i, v = [], [], []
    p.getrows(s, i, v, 100, 0, m - 1)
    out["rows"] = (s, [p.getIndex(o) for o in i], v)
    s, i, v = [], [], []
    p.getcols(s, i, v, 100, 0, n - 1)
    out["cols"] = (s, [p.getIndex(o) for o in i], v)
    for name in ("getlb", "getub"):
        lst = []
        getattr(p, name)(lst)
        out[name] = lst
    for name, first, last in (("getobj", 0, n - 1), ("getcoltype", 0, n - 1), ("getrhs", 0, m - 1),
                              ("getrhsrange", 0, m - 1), ("getrowtype", 0, m - 1)):
        lst = []
        getattr(p, name)(lst, first, last)
        out[name] = lst
    out["colnames"] = p.getnamelist(2)
    out["rownames"] = p.getnamelist(1)
    return out


def test_three_ways_of_building_agree():
    snaps, optima, duals = [], [], []
    for build in (build_objects, build_addcols_addrows, build_loadproblem):
        p = build()
        snaps.append(snapshot(p))
        p.solve()
        assert p.getProbStatusString() == "lp_optimal"
        optima.append(p.getObjVal())
        duals.append(p.getDual())
    assert snaps[0] == snaps[1] == snaps[2]
    assert snaps[0]["rows"] == (RSTART, RCOL, RVAL)
    assert snaps[0]["getrowtype"] == ROWTYPE and snaps[0]["colnames"] == NAMES_C
    assert optima[0] == pytest.approx(optima[1]) == pytest.approx(optima[2])
    # independent: x=4 is forced by c1 only through z; solve by scipy
    scipy = pytest.importorskip("scipy.optimize")
    A = np.array([[1, 1, 2], [2, 0, 1], [1, 3, 0]], float)
    res = scipy.linprog(-np.array(OBJ), A_ub=np.vstack([A[0], -A[1], A[2], -A[2]]),
                        b_ub=[4, -1, 6, -1], bounds=list(zip(LB, UB)))
    assert optima[0] == pytest.approx(-res.fun)
    assert np.allclose(duals[0], duals[1]) and np.allclose(duals[0], duals[2])


def test_new_objects_mix_with_modelling_methods():
    p = build_addcols_addrows()
    x, y, z = p.getVariable()
    c1, c2, c3 = p.getConstraint()
    assert [v.name for v in (x, y, z)] == NAMES_C and c2.name == "c2"
    assert (x.lb, y.lb, z.ub) == (0, -1, 10)
    assert (c3.lb, c3.ub) == (1, 6)
    # a modelling constraint over the low-level columns, and queries by object
    p.addConstraint(x + y <= 2)
    p.solve()
    assert p.getSolution(x) + p.getSolution(y) <= 2 + 1e-9
    assert p.getDual(c1) == pytest.approx(p.getDual(0))
    assert p.getSolution("z") == p.getSolution(z) == p.getSolution(np.int64(2))
    p.delConstraint(c2)
    assert p.getIndex(c3) == 1 and p.attributes.rows == 3
    p.delVariable(y)
    assert p.getIndex(z) == 1
    s, i, v = [], [], []
    p.getrows(s, i, v, 100, 0, 0)
    assert i == [x, z] and v == [1.0, 2.0]
    # low-level index arguments accept objects, names and NumPy integers alike
    assert p.getcoef(c1, z) == p.getcoef("c1", "z") == p.getcoef(np.int32(0), np.int64(1)) == 2.0
    p.addcols([1.0], [0], [0, 1], [5.0, 6.0], [0.0], [1.0], types=["B"])
    w = p.getVariable(2)
    assert p.getIndex(w) == 2 and p.getcoef(c3, w) == 6.0
    t = []
    p.getcoltype(t, w, w)
    assert t == ["B"]


def test_loadproblem_replaces_content_and_keeps_lists_consistent():
    p = build_objects()
    old = p.getVariable()
    p.loadproblem("again", ["E"], [2.0], None, [1.0, 1.0], [0, 1, 2], None, [0, 0], [1.0, 1.0],
                  [0.0, 0.0], [5.0, 5.0], qgtype=["I", "S"], mgcols=[0, 1], dlim=[0.0, 1.5],
                  qstype=["1"], msstart=[0, 2], mscols=[0, 1], dref=[1.0, 2.0])
    assert p.name() == "again"
    new = p.getVariable()
    assert len(new) == 2 and not set(map(id, new)) & set(map(id, old))
    assert len(p.getConstraint()) == 1 and len(p.getSOS()) == 1
    assert [p.getIndex(v) for v in new] == [0, 1]
    assert new[1].threshold == 1.5
    gt, gc, dl, st, ss, sc, dr = [], [], [], [], [], [], []
    p.getglobal(gt, gc, dl, st, ss, sc, dr)
    assert gt == ["I", "S"] and gc == new and st == ["1"] and ss == [0, 2] and dr == [1.0, 2.0]
    p.solve()
    assert p.getObjVal() == pytest.approx(2.0)


def test_loadproblem_quadratic_parts_round_trip():
    p = tv.problem()
    # min x^2 + xy + y^2 - x  s.t.  x + y >= 1 ;  row 0 also gets a quadratic part via qcrows
    p.loadproblem("qp", ["G", "L"], [1.0, 4.0], None, [-1.0, 0.0], [0, 2, 4], None, [0, 1, 0, 1],
                  [1.0, 1.0, 1.0, 1.0], [-10.0, -10.0], [10.0, 10.0],
                  mqcol1=[0, 0, 1], mqcol2=[0, 1, 1], dqe=[2.0, 1.0, 2.0],
                  qcrows=[1], qcnquads=[2], qcmqcol1=[0, 1], qcmqcol2=[0, 1], qcdqval=[1.0, 1.0])
    assert p.getqobj(0, 1) == 1.0 and p.getqobj(0, 0) == 2.0
    assert p.getqrowcoeff(1, 1, 1) == 1.0
    rows = []
    p.getqrows(rows)
    assert rows == [p.getConstraint(1)]
    a, b, v = [], [], []
    p.getqrowqmatrixtriplets(1, a, b, v)
    assert (a, b, v) == ([p.getVariable(0), p.getVariable(1)], [p.getVariable(0), p.getVariable(1)], [1.0, 1.0])
    s, i, v = [], [], []
    p.getmqobj(s, i, v, 10, 0, 1)
    assert s == [0, 2, 4] and v == [2.0, 1.0, 1.0, 2.0]
    s, i, v = [], [], []
    p.getqrowqmatrix(1, s, i, v, 10, 0, 1)
    assert s == [0, 1, 2] and v == [1.0, 1.0]
    p.delqmatrix(1)
    rows = []
    p.getqrows(rows)
    assert rows == []


def test_getters_fill_lists_in_place_and_respect_ranges():
    p = build_addcols_addrows()
    obj = list(range(10))
    p.getobj(obj, 0, 2)
    assert obj == OBJ
    obj = []
    p.getobj(obj, "y", "z")
    assert obj == OBJ[1:]
    with pytest.raises(tv.InterfaceError, match="Empty range of columns requested"):
        p.getobj([], 2, 1)
    with pytest.raises(tv.InterfaceError, match="Must provide argument obj"):
        p.getobj(None, 0, 1)
    assert p.getlb([], 2, 1) is None
    with pytest.raises(tv.ModelError, match="Unexpected argument to conv_arr2obj"):
        p.getobj((), 0, 1)
    # getrows with less room than entries: only that many entries come back
    s, i, v = [], [], []
    p.getrows(s, i, v, 2, 0, 2)
    assert len(s) == 4 and s[0] == 0 and len(i) == 2 and len(v) == 2
    with pytest.raises(tv.InterfaceError, match="Must provide at least one of arguments mstart, mrwind, dmatval"):
        p.getcols(None, None, None, 10, 0, 1)
    assert p.getnamelist(1, 1, 2) == ["c2", "c3"]
    with pytest.raises(tv.InterfaceError, match="Argument type must be 1"):
        p.getnamelist(4)
    with pytest.raises(tv.InterfaceError, match="Arguments start and end must be such that"):
        p.getnamelist(2, 2, 5)
    assert p.getIndexFromName(2, "z") == 2
    with pytest.raises(tv.SolverError):
        p.getIndexFromName(2, "nosuch")


def test_changes_move_the_optimum_as_computed():
    p = build_addcols_addrows()
    p.solve()
    base = p.getObjVal()
    x, y, z = p.getVariable()
    # tightening x's upper bound below its optimal value costs its reduced value
    p.chgbounds([x, "z"], ["U", "U"], [1.0, 0.0])
    p.solve()
    sol = p.getSolution()
    assert sol[0] <= 1 + 1e-9 and sol[2] == pytest.approx(0.0) and p.getObjVal() < base
    p.chgbounds([0, 2], ["B", "U"], [1.0, 10.0])   # x fixed at 1
    p.chgobj([y], [0.0])
    p.chgcoef("c3", "y", 1.0)
    p.chgrhs(["c1"], [3.0])
    p.solve()
    # max 3 + 4z with 1 + y + 2z <= 3, 2 + z >= 1, 1 <= 1 + y <= 6: y = 0, z = 1
    assert p.getObjVal() == pytest.approx(3 + 4 * 1.0)
    p.chgrhs(["c1"], [5.0])
    p.solve()
    assert p.getObjVal() == pytest.approx(3 + 4 * 2.0)
    p.chgrowtype([0], ["E"])
    p.chgrhsrange([2], [3.0])
    t, r = [], []
    p.getrowtype(t, 0, 2)
    p.getrhsrange(r, 0, 2)
    assert t == ["E", "G", "R"] and r[2] == 3.0
    p.chgmcoef([0, 0], [1, 2], [2.0, 1.0])
    assert p.getcoef(0, 1) == 2.0 and p.getcoef(0, 2) == 1.0
    p.chgobjsense(tv.minimize)
    p.chgmqobj([x, y], [x, y], [2.0, 2.0])
    assert p.getqobj(y, y) == 2.0
    p.chgqobj(y, y, 4.0)
    assert p.getqobj(1, 1) == 4.0
    p.chgcoltype([1, 2], ["I", "S"])
    p.chgglblimit([2], [0.5])
    t = []
    p.getcoltype(t, 0, 2)
    assert t == ["C", "I", "S"]
    with pytest.raises(tv.SolverError, match="not semi-continuous"):
        p.chgglblimit([0], [0.5])


def test_indicators_and_set_names():
    p = tv.problem()
    p.addcols([0, 0, 1], [0, 0, 0], [], [], [0, 0, 0], [10, 1, 10], types=["C", "B", "C"])
    x, b, z = p.getVariable()
    p.addrows(["L", "G"], [2, 1], [0, 1], [x, z], [1.0, 1.0])
    p.setindicators([0], [b], [1])
    inds, comps = [], []
    p.getindicators(inds, comps, 0, 1)
    assert inds == [b, -1] and comps == [1, 0]
    # max x + 9b with x <= 2 when b = 1 (x <= 10 otherwise): 2 + 9 beats 10
    p.chgobj([x, b, z], [1.0, 9.0, 0.0])
    p.chgobjsense(tv.maximize)
    p.solve()
    assert p.getSolution([x, b]) == pytest.approx([2.0, 1.0]) and p.getObjVal() == pytest.approx(11.0)
    p.chgobj([b], [7.0])
    p.solve()
    assert p.getSolution([x, b]) == pytest.approx([10.0, 0.0])
    p.delindicators()
    p.getindicators(inds, comps, 0, 1)
    assert inds == [-1, -1]
    with pytest.raises(tv.InterfaceError, match="within the range of rows"):
        p.delindicators(0, 5)
    with pytest.raises(tv.InterfaceError, match="No global sets in problem"):
        p.addsetnames(["s"])
    p.addSOS(tv.sos([x, z], [1, 2], type=1))
    p.addsetnames(["myset"], 0, 0)
    assert p.getnamelist(3) == ["myset"] and p.getSOS(0).name == "myset"
    with pytest.raises(tv.InterfaceError, match="Size of list of strings does not match"):
        p.addsetnames(["a", "b"], 0, 0)
    p.setprobname("renamed")
    assert p.name() == "renamed"


def test_numpy_arrays_build_the_same_rows():
    p1, p2 = build_addcols_addrows(), tv.problem()
    p2.addcols(np.array(OBJ), np.zeros(3, np.int64), np.array([], np.int32), np.array([]),
               np.array(LB), np.array(UB), names=NAMES_C)
    p2.addrows(ROWTYPE, np.array(RHS), np.array(RSTART), np.array(RCOL, np.int32), np.array(RVAL),
               range=np.array(RNG), names=NAMES_R)
    p2.chgobjsense(-1)
    assert snapshot(p1) == snapshot(p2)
    with pytest.raises(tv.ModelError, match="out of range"):
        p2.chgobj(np.array([2**40]), np.array([1.0]))


BAD_CALLS = [
    ("chgbounds", ([0, 1], ["U", "U"], [1.0, 2.0, 3.0]), tv.ModelError, "Mismatched lengths in arguments: expected 2, found 3"),
    ("chgbounds", ([0, 1], ["U", "U"]), tv.InterfaceError, "Must provide arguments mindex, qbtype, bnd"),
    ("chgbounds", ([0, 7], ["U", "U"], [1.0, 2.0]), tv.SolverError, None),
    ("chgbounds", ([0], ["UU"], [1.0]), tv.ModelError, "one character"),
    ("chgobj", ([tv.var()], [1.0]), tv.ModelError, "not in problem"),
    ("chgobj", (["nosuch"], [1.0]), tv.SolverError, "not found"),
    ("chgrhs", ([0, 1.5], [1.0, 2.0]), tv.ModelError, "Invalid constraint object"),
    ("chgrowtype", ([0], ["Q"]), tv.SolverError, None),
    ("chgcoltype", ([0], ["Z"]), tv.SolverError, None),
    ("chgmcoef", ([0], [0]), tv.InterfaceError, "Must provide arguments mrow, mcol, dval"),
    ("addcols", ([1.0, 1.0], [0, 0], [], [], [0, 0], [1, 1], ["only"]), tv.ModelError, "Incorrect length of variable name list"),
    ("addcols", ([1.0], [0], [], [], [0], [1], ["w"], ["X"]), tv.ModelError, "Incorrect variable type"),
    ("addcols", ([1.0], [0], [], [], [0], [1], [5]), tv.ModelError, "Erroneous name for variable 0"),
    ("addcols", ([1.0], [0], [9], [1.0], [0], [1]), tv.SolverError, None),
    ("addcols", ([1.0], [0, 5], [0], [1.0], [0], [1]), tv.ModelError, None),
    ("addrows", (["L"], [1.0], [0], [0, 1]), tv.InterfaceError, "Must provide arguments qrtype, rhs, mstart, mclind, dmatval"),
    ("addrows", (["L"], [1.0], [0], [0, 9], [1.0, 1.0]), tv.SolverError, None),
    ("addrows", (["L"], [1.0], [0], [0, tv.var()], [1.0, 1.0]), tv.ModelError, "not in problem"),
    ("addrows", (["L", "G"], [1.0], [0], [0], [1.0]), tv.ModelError, "Mismatched lengths"),
    ("addqmatrix", (0, [0], [1], None), tv.InterfaceError, "Must provide arguments mqc1, mqc2, dqe"),
    ("loadproblem", ("p", ["L"], [1.0], None, [1.0], [0, 1], None, [0], [1.0], [0.0], [1.0], [0]), tv.InterfaceError,
     "Incomplete list of parameters specified for the quadratic objective component"),
    ("loadproblem", ("p", ["L"], [1.0], None, [1.0], [0, 1], None, [0], [1.0], [0.0], [1.0], None, None, None,
                     None, None, None, None, None, ["I"]), tv.InterfaceError,
     "Incomplete list of parameters specified for the global entities"),
    ("loadproblem", ("p", ["L"], [1.0], None, [1.0], [0, 1], None, [3], [1.0], [0.0], [1.0]), tv.SolverError, None),
]


@pytest.mark.parametrize("method,args,exc,msg", BAD_CALLS, ids=[b[0] + str(i) for i, b in enumerate(BAD_CALLS)])
def test_bad_input_raises_and_leaves_the_problem_unchanged(method, args, exc, msg):
    p = build_addcols_addrows()
    before = snapshot(p)
    nvars, ncons = len(p.getVariable()), len(p.getConstraint())
    with pytest.raises(exc, match=msg):
        getattr(p, method)(*args)
    assert snapshot(p) == before
    assert (len(p.getVariable()), len(p.getConstraint())) == (nvars, ncons)
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"


def test_keywords_follow_the_library_names():
    p = build_addcols_addrows()
    lb = []
    p.getlb(lb=lb, first=1, last="z")
    assert lb == LB[1:]
    p.chgbounds(mindex=[0], qbtype=["L"], bnd=[0.5])
    with pytest.raises(TypeError):
        p.chgbounds(mindex=[0], qbtype=["L"], bound=[0.5])
    with pytest.raises(TypeError):
        p.getobj([])
    import inspect
    assert list(inspect.signature(p.addrows).parameters) == ["qrtype", "rhs", "mstart", "mclind", "dmatval", "range", "names"]


def test_loadproblem_over_a_nonlinear_problem_forgets_its_nonlinear_parts():
    x = tv.var(lb=-2, ub=2)
    p = tv.problem(x, tv.sin(x) + x ** 4, sense=tv.maximize)
    p.loadproblem("lin", ["L"], [3.0], None, [1.0, 2.0], [0, 1, 2], None, [0, 0], [1.0, 1.0], [0.0, 0.0], [2.0, 2.0])
    p.chgobjsense(tv.maximize)
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    assert p.getObjVal() == pytest.approx(1 * 1 + 2 * 2)
    assert len(p.getVariable()) == 2


def test_getsolution_reads_columns_for_numpy_integers():
    p = build_objects()
    p.solve()
    sol = p.getSolution()
    assert p.getSolution(np.int64(1)) == sol[1]
    assert p.getSolution(np.int32(2)) == sol[2]
    assert p.getSolution(list(np.arange(3))) == sol
    got = p.getSolution(np.array([[2], [0]]))
    assert got.shape == (2, 1) and list(got.ravel()) == [sol[2], sol[0]]
    with pytest.raises(tv.InterfaceError, match="out-of-range"):
        p.getSolution(np.array([0, 7]))


def two_columns(obj, rows, types, rhs, lb=(0.0, 0.0), ub=(10.0, 10.0)):
    p = tv.problem()
    p.addcols(list(obj), [0, 0], [], [], list(lb), list(ub), names=["x", "y"])
    starts, cols, vals = [], [], []
    for r in rows:
        starts.append(len(cols))
        cols += [0, 1]
        vals += list(r)
    p.addrows(types, rhs, starts, cols, vals)
    return p


def test_type_and_quadratic_changes_move_the_optimum():
    # QP: min x^2 + y^2 - 2x - 4y s.t. x + y <= 2: the projection of (1, 2) onto the row
    p = two_columns([-2.0, -4.0], [(1.0, 1.0)], ["L"], [2.0])
    p.chgmqobj([0, 1], [0, 1], [2.0, 2.0])
    p.solve()
    assert p.getSolution() == pytest.approx([0.5, 1.5], abs=1e-5)
    assert p.getObjVal() == pytest.approx(-4.5, abs=1e-6)
    # a cross term x*y (Q_xy = 1): optimum of the KKT system with the row active
    p.chgqobj(0, 1, 1.0)
    p.solve()
    K = np.array([[2.0, 1.0, 1.0], [1.0, 2.0, 1.0], [1.0, 1.0, 0.0]])
    x, y, _ = np.linalg.solve(K, [2.0, 4.0, 2.0])
    assert p.getSolution() == pytest.approx([x, y], abs=1e-5)
    # row type: x + y >= 2 instead; the unconstrained minimum of the new objective is feasible
    p.chgrowtype([0], ["G"])
    p.solve()
    ux, uy = np.linalg.solve(K[:2, :2], [2.0, 4.0])
    assert ux + uy >= 2 and p.getSolution() == pytest.approx([ux, uy], abs=1e-5)

    # integrality: max x + y s.t. 2x + 2y <= 5 is 2.5, with integers 2
    q = two_columns([1.0, 1.0], [(2.0, 2.0)], ["L"], [5.0])
    q.chgobjsense(tv.maximize)
    q.solve()
    assert q.getObjVal() == pytest.approx(2.5)
    q.chgcoltype([0, 1], ["I", "I"])
    q.solve()
    assert q.getObjVal() == pytest.approx(2.0)
    # a range row: 1 <= x - y <= 1 + range
    r = two_columns([1.0, 0.0], [(1.0, -1.0)], ["R"], [4.0], ub=(10.0, 3.0))
    r.chgobjsense(tv.maximize)
    r.chgrhsrange([0], [2.0])
    r.solve()
    assert r.getObjVal() == pytest.approx(7.0)   # x - y <= 4 with y <= 3
    r.chgobjsense(tv.minimize)
    r.solve()
    assert r.getObjVal() == pytest.approx(2.0)   # x - y >= 2 with y >= 0
    # semi-continuous limit: min x s.t. x + y >= 1, y <= 0.5: x is 0 or in [3, 10]
    s = two_columns([1.0, 0.0], [(1.0, 1.0)], ["G"], [1.0], ub=(10.0, 0.5))
    s.chgcoltype([0], ["S"])
    s.chgglblimit([0], [3.0])
    s.solve()
    assert s.getSolution()[0] == pytest.approx(3.0)
    s.chgglblimit([0], [0.75])
    s.solve()
    assert s.getSolution()[0] == pytest.approx(0.75)
