"""General constraints (max, min, and, or, abs) and piecewise-linear constraints through the
low-level methods: solving with them (each needs its binaries: the objectives push every one
in the direction its linear relaxation would not hold), the clear error when a bound the
reformulation needs is infinite, reading them back, problem files, column deletion and bad
input."""
import math

import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


def var(name, lb=0.0, ub=tv.infinity, vartype=tv.continuous):
    return tv.var(lb=lb, ub=ub, name=name, vartype=vartype)


def build_all_kinds():
    """Every kind at once, on separate columns, with an optimum worked out by hand:
    maximise  ymax - ymin + yabs + (3 yand - b1 - b2) + (5 yor - 2 b3 - 3 b4) - cost
      ymax = max(x1, x2, 1.5), x1 in [-5, 4], x2 in [0, 6], x1 + x2 <= 3   -> 6 (x2 = 6, x1 <= -3)
      ymin = min(x3, 0.5),     x3 in [-3, 2], x3 >= -2                     -> -2
      yabs = |x5|,             x5 in [-4, 3]                               -> 4 (x5 = -4)
      yand = b1 and b2                                                     -> 3 - 2 = 1
      yor  = b3 or b4                                                      -> 5 - 2 = 3 (b3 only)
      cost = f(x6), f through (0,10) (4,2) (6,5) (9,1), x6 in [0, 10], x6 >= 5: the last segment
             extended to x6 = 10 gives 1 - 4/3 = -1/3, below f(5) = 3.5 and f(9) = 1.
    Objective 6 + 2 + 4 + 1 + 3 + 1/3."""
    big = 100.0
    x1, x2, x3 = var("x1", -5, 4), var("x2", 0, 6), var("x3", -3, 2)
    x5, x6 = var("x5", -4, 3), var("x6", 0, 10)
    b1, b2, b3, b4 = (var(n, vartype=tv.binary) for n in ("b1", "b2", "b3", "b4"))
    ymax, ymin, yabs = var("ymax", -big, big), var("ymin", -big, big), var("yabs", -big, big)
    yand, yor, cost = var("yand", -big, big), var("yor", -big, big), var("cost", -big, big)
    p = tv.problem()
    p.addVariable(x1, x2, x3, x5, x6, b1, b2, b3, b4, ymax, ymin, yabs, yand, yor, cost)
    p.addConstraint(x1 + x2 <= 3, x3 >= -2, x6 >= 5)
    p.setObjective(ymax - ymin + yabs + 3 * yand - b1 - b2 + 5 * yor - 2 * b3 - 3 * b4 - cost,
                   sense=tv.maximize)
    p.addgencons([tv.gencons_max, tv.gencons_min, tv.gencons_abs, tv.gencons_and, tv.gencons_or],
                 [ymax, ymin, yabs, yand, yor], [0, 2, 3, 4, 6], [x1, x2, x3, x5, b1, b2, b3, b4],
                 [0, 1, 2, 2, 2], [1.5, 0.5])
    p.addpwlcons([x6], [cost], [0], [0, 4, 6, 9], [10, 2, 5, 1])
    return p, dict(x1=x1, x2=x2, x3=x3, x5=x5, x6=x6, b1=b1, b2=b2, b3=b3, b4=b4, ymax=ymax,
                   ymin=ymin, yabs=yabs, yand=yand, yor=yor, cost=cost)


OPTIMUM = 6 + 2 + 4 + 1 + 3 + 1 / 3


def check_all_kinds(p, v):
    assert p.attributes.mipstatus == tv.mip_optimal
    assert p.attributes.objval == pytest.approx(OPTIMUM, abs=1e-6)
    s = {k: p.getSolution(x) for k, x in v.items()}
    assert s["ymax"] == pytest.approx(6) and s["x2"] == pytest.approx(6)
    assert s["ymin"] == pytest.approx(-2) and s["x3"] == pytest.approx(-2)
    assert s["yabs"] == pytest.approx(4) and s["x5"] == pytest.approx(-4)
    assert (s["yand"], s["b1"], s["b2"]) == pytest.approx((1, 1, 1))
    assert (s["yor"], s["b3"], s["b4"]) == pytest.approx((1, 1, 0))
    assert s["x6"] == pytest.approx(10) and s["cost"] == pytest.approx(-1 / 3)


def test_every_kind_solves_to_the_hand_optimum_in_the_users_columns():
    p, v = build_all_kinds()
    assert (p.attributes.gencons, p.attributes.pwlcons) == (5, 1)
    p.solve()
    check_all_kinds(p, v)
    # The binaries and weights of the reformulation stay out of sight.
    assert p.attributes.cols == 15 and p.attributes.rows == 3
    assert len(p.getSolution()) == 15 and len(p.getSlack()) == 3
    x = []
    p.getmipsol(x)
    assert len(x) == 15


def test_tree_search_path_solves_the_same_model():
    p, v = build_all_kinds()
    p.controls.treesearch = 1
    p.mipoptimize()
    check_all_kinds(p, v)


@pytest.mark.parametrize("kind, args, vals, sense, want", [
    (tv.gencons_max, [(-1, 2), (0, 3)], None, tv.maximize, 3.0),
    (tv.gencons_min, [(-1, 2), (-4, 3)], [-2.5], tv.minimize, -4.0),
    (tv.gencons_min, [(-1, 2), (0, 3)], [-2.5], tv.minimize, -2.5),
    (tv.gencons_abs, [(-7, 5)], None, tv.maximize, 7.0),
])
def test_each_kind_binds_in_its_hard_direction(kind, args, vals, sense, want):
    # Without its binaries the resultant would run to its own bound (+-50).
    p = tv.problem()
    xs = [var("x%d" % i, lo, up) for i, (lo, up) in enumerate(args)]
    r = var("r", -50, 50)
    p.addVariable(*xs, r)
    p.setObjective(r, sense=sense)
    p.addgencons([kind], [r], [0], xs, [0] if vals else None, vals)
    p.solve()
    assert p.attributes.mipstatus == tv.mip_optimal
    assert p.attributes.objval == pytest.approx(want)


def test_pwl_with_a_jump_takes_either_side_at_the_jump():
    # f = x on [0, 3], 10 x on [3, 5] (a jump at 3 from 3 to 30). With x <= 3, maximising f
    # gives 30 (the right side of the jump at x = 3); minimising f - 5x over [3, 5] ... at x = 3
    # f - 5x is 3 - 15 = -12 or 30 - 15 = 15, at 5 it is 25: minimum -12 on the left side.
    p = tv.problem()
    x, y = var("x", 0, 5), var("y", -100, 100)
    p.addVariable(x, y)
    p.addConstraint(x <= 3)
    p.setObjective(y, sense=tv.maximize)
    p.addpwlcons([x], [y], [0], [0, 3, 3, 5], [0, 3, 30, 50])
    p.solve()
    assert p.attributes.objval == pytest.approx(30) and p.getSolution(x) == pytest.approx(3)
    p.chgbounds([x], ["L"], [3])
    p.setObjective(y - 5 * x, sense=tv.minimize)
    p.solve()
    assert p.attributes.objval == pytest.approx(-12) and p.getSolution(y) == pytest.approx(3)


def test_nonlinear_objective_sees_the_reformulation():
    # min exp(|x|) with x <= -1: the optimum is e at x = -1; without the abs rows y would fall
    # to its lower bound.
    p = tv.problem()
    x, y = var("x", -3, 2), var("y", -20, 20)
    p.addVariable(x, y)
    p.addConstraint(x <= -1)
    p.setObjective(tv.exp(y))
    p.addgencons([tv.gencons_abs], [y], [0], [x])
    p.solve()
    assert p.getSolution(y) == pytest.approx(1, abs=1e-4)
    assert p.getObjVal() == pytest.approx(math.e, rel=1e-4)


@pytest.mark.parametrize("kind, bounds, column", [
    (tv.gencons_max, dict(x=(0, tv.infinity)), "x"),
    (tv.gencons_min, dict(x=(-tv.infinity, 0)), "x"),
    (tv.gencons_abs, dict(x=(-tv.infinity, tv.infinity)), "x"),
    (tv.gencons_max, dict(w=(-tv.infinity, 1)), "w"),  # the lower bound of a max argument
])
def test_missing_bound_names_the_column(kind, bounds, column):
    p = tv.problem()
    x_lb, x_ub = bounds.get("x", (0, 1))
    w_lb, w_ub = bounds.get("w", (0, 1))
    x, w, r = var("x", x_lb, x_ub), var("w", w_lb, w_ub), var("r", -tv.infinity, tv.infinity)
    p.addVariable(x, w, r)
    p.setObjective(r, sense=tv.maximize)
    cols = [x] if kind == tv.gencons_abs else [x, w]
    p.addgencons([kind], [r], [0], cols)
    with pytest.raises(tv.SolverError, match=r"General constraint 0 \(%s\) needs (a )?finite .* column %s" %
                       (["max", "min", "and", "or", "abs"][kind], column)):
        p.solve()
    assert p.attributes.mipstatus != tv.mip_optimal
    # A bound on the resultant is enough for max and abs.
    if column == "x" and kind != tv.gencons_min:
        p.chgbounds([r], ["U"], [40])
        p.solve()
        assert p.attributes.mipstatus == tv.mip_optimal


def test_pwl_extension_needs_a_bound():
    p = tv.problem()
    x, y = var("x", -tv.infinity, tv.infinity), var("y", -100, 100)
    p.addVariable(x, y)
    p.setObjective(y)
    p.addpwlcons([x], [y], [0], [1, 2], [0, 1])
    with pytest.raises(tv.SolverError, match="finite lower bound on column x"):
        p.solve()
    p.chgbounds([x], ["L"], [0])
    with pytest.raises(tv.SolverError, match="finite upper bound on column x"):
        p.solve()


def test_getters_return_what_was_added():
    p, v = build_all_kinds()
    t, r, cs, c, vs, vals = [], [], [], [], ["old"] * 9, []
    p.getgencons(t, r, cs, c, 100, vs, vals, 100, 0, 4)
    assert t == [0, 1, 4, 2, 3]
    assert [x.name for x in r] == ["ymax", "ymin", "yabs", "yand", "yor"]
    assert cs == [0, 2, 3, 4, 6, 8] and vs == [0, 1, 2, 2, 2, 2]
    assert [x.name for x in c] == ["x1", "x2", "x3", "x5", "b1", "b2", "b3", "b4"]
    assert vals == [1.5, 0.5]
    # A sub-range with little room: starts count from the range's first constraint.
    t, cs, c = [], [], []
    p.getgencons(t, None, cs, c, 1, None, None, 0, 1, 3)
    assert t == [1, 4, 2] and cs == [0, 1, 2, 4] and [x.name for x in c] == ["x3"]
    col, res, st, xs, ys = [], [], [], [], []
    p.getpwlcons(col, res, st, xs, ys, 10, 0, 0)
    assert (col, res, st, xs, ys) == ([v["x6"]], [v["cost"]], [0, 4], [0, 4, 6, 9], [10, 2, 5, 1])


def test_delete_constraints_and_columns_keeps_them_consistent():
    p, v = build_all_kinds()
    p.delgencons([1])  # ymin
    assert p.attributes.gencons == 4
    # Deleting x1 leaves max(x2, 1.5); deleting x5 removes the abs; deleting b4 leaves or(b3).
    p.delVariable([v["x1"], v["x5"], v["b4"]])
    assert p.attributes.gencons == 3
    t, r, cs, c, vs, vals = [], [], [], [], [], []
    p.getgencons(t, r, cs, c, 100, vs, vals, 100, 0, 2)
    assert t == [0, 2, 3]
    assert [x.name for x in r] == ["ymax", "yand", "yor"]
    assert [x.name for x in c] == ["x2", "b1", "b2", "b3"] and cs == [0, 1, 3, 4]
    assert vals == [1.5]
    col, res = [], []
    p.getpwlcons(col, res, None, None, None, 0, 0, 0)
    assert col == [v["x6"]] and res == [v["cost"]]
    p.solve()
    # The row x1 + x2 <= 3 is now x2 <= 3, so ymax = 3; ymin and yabs are free (at -100 and
    # 100); the rest as before.
    assert p.attributes.objval == pytest.approx(3 + 100 + 100 + 1 + 3 + 1 / 3)
    p.delVariable([v["cost"]])
    assert p.attributes.pwlcons == 0
    p.delpwlcons([])  # nothing to delete


@pytest.mark.parametrize("flags, ext", [("", ".mps"), ("l", ".lp")])
def test_write_read_round_trip(tmp_path, flags, ext):
    p, v = build_all_kinds()
    path = str(tmp_path / ("gc" + ext))
    p.write(path, flags)
    q = tv.problem()
    q.read(path, flags)
    assert (q.attributes.gencons, q.attributes.pwlcons) == (5, 1)
    t, r, cs, c, vs, vals = [], [], [], [], [], []
    q.getgencons(t, r, cs, c, 100, vs, vals, 100, 0, 4)
    assert t == [0, 1, 4, 2, 3] and cs == [0, 2, 3, 4, 6, 8] and vals == [1.5, 0.5]
    assert [x.name for x in c] == ["x1", "x2", "x3", "x5", "b1", "b2", "b3", "b4"]
    assert [x.name for x in r] == ["ymax", "ymin", "yabs", "yand", "yor"]
    col, res, st, xs, ys = [], [], [], [], []
    q.getpwlcons(col, res, st, xs, ys, 10, 0, 0)
    assert [col[0].name, res[0].name] == ["x6", "cost"] and xs == [0, 4, 6, 9] and ys == [10, 2, 5, 1]
    q.solve()
    assert q.attributes.mipstatus == tv.mip_optimal
    assert q.attributes.objval == pytest.approx(OPTIMUM, abs=1e-6)


def test_unreadable_section_fails_and_keeps_the_problem(tmp_path):
    p, _ = build_all_kinds()
    path = tmp_path / "gc.mps"
    p.write(str(path), "")
    text = path.read_text().replace("    COL x2", "    COL nosuchcolumn")
    path.write_text(text)
    q, _ = build_all_kinds()
    with pytest.raises(tv.SolverError, match="nosuchcolumn"):
        q.read(str(path), "")
    assert (q.attributes.gencons, q.attributes.cols) == (5, 15)


def small_problem():
    p = tv.problem()
    x, y, r = var("x", 0, 1), var("y", 0, 1), var("r", 0, 1)
    p.addVariable(x, y, r)
    return p, x, y, r


def test_addgencons_bad_input():
    p, x, y, r = small_problem()
    with pytest.raises(tv.InterfaceError, match="Must provide arguments type, resultant, colstart, col"):
        p.addgencons([0], [r], [0], None)
    with pytest.raises(tv.InterfaceError, match="valstart and val together"):
        p.addgencons([0], [r], [0], [x], val=[1.0])
    with pytest.raises(tv.ModelError, match="Mismatched lengths"):
        p.addgencons([0, 1], [r], [0], [x])
    for kind, cols, vals, msg in [(7, [x], None, "Invalid type 7"),
                                  (tv.gencons_abs, [x, y], None, "exactly one column"),
                                  (tv.gencons_and, [x], [1.0], "no values"),
                                  (tv.gencons_max, [], None, "at least one column or value")]:
        with pytest.raises(tv.SolverError, match=msg):
            p.addgencons([kind], [r], [0], cols, [0] if vals else None, vals)
    with pytest.raises(tv.SolverError, match="not finite"):
        p.addgencons([0], [r], [0], [x], [0], [math.nan])
    with pytest.raises(tv.ModelError):
        p.addgencons([0], [r], [0], [tv.var()])  # a variable of no problem
    assert p.attributes.gencons == 0


def test_addpwlcons_bad_input():
    p, x, y, r = small_problem()
    with pytest.raises(tv.InterfaceError, match="Must provide arguments col, resultant, start, xval, yval"):
        p.addpwlcons([x], [r], [0], [0, 1], None)
    with pytest.raises(tv.ModelError, match="Mismatched lengths"):
        p.addpwlcons([x], [r], [0], [0, 1], [0, 1, 2])
    with pytest.raises(tv.SolverError, match="must not decrease"):
        p.addpwlcons([x], [r], [0], [0, 2, 1], [0, 1, 2])
    with pytest.raises(tv.SolverError, match="at least two breakpoints"):
        p.addpwlcons([x, y], [r, r], [0, 2], [0, 1, 2], [0, 1, 2])
    assert p.attributes.pwlcons == 0


def test_getters_and_deleters_bad_input():
    p, x, y, r = small_problem()
    p.addgencons([tv.gencons_or], [r], [0], [x, y])
    p.addpwlcons([x], [y], [0], [0, 1], [0, 1])
    with pytest.raises(tv.InterfaceError, match="^Empty range of general constraints requested$"):
        p.getgencons([], [], [], [], 5, [], [], 5, 1, 0)
    with pytest.raises(tv.InterfaceError, match="^Empty range of piecewise linear constraints requested$"):
        p.getpwlcons([], [], [], [], [], 5, 1, 0)
    with pytest.raises(tv.InterfaceError, match="outside the 1 general constraints"):
        p.getgencons([], [], [], [], 5, [], [], 5, 0, 1)
    with pytest.raises(tv.InterfaceError, match="outside the 1 piecewise linear constraints"):
        p.getpwlcons([], [], [], [], [], 5, -1, 0)
    with pytest.raises(tv.ModelError, match="colsize must be an integer"):
        p.getgencons([], [], [], [], "5", [], [], 5, 0, 0)
    with pytest.raises(tv.InterfaceError, match="Must provide argument mindex"):
        p.delgencons(None)
    with pytest.raises(tv.InterfaceError, match="Must provide argument mindex"):
        p.delpwlcons(None)
    with pytest.raises(tv.SolverError):
        p.delgencons([3])
    with pytest.raises(tv.SolverError):
        p.delpwlcons([-1])
    assert (p.attributes.gencons, p.attributes.pwlcons) == (1, 1)


def test_lp_relaxation_warns_that_it_leaves_them_out():
    p, _ = build_all_kinds()
    messages = []
    p.addcbmessage(lambda prob, data, msg, msgtype: messages.append(msg))
    tv.setOutputEnabled(True)
    p.controls.outputlog = 1
    p.lpoptimize()
    assert any("general and piecewise linear constraints" in (m or "") for m in messages)


@pytest.mark.parametrize("kind, cols, vals", [(tv.gencons_and, "x", None), (tv.gencons_max, "", [5.0])])
def test_contradicting_bounds_give_an_infeasible_status(kind, cols, vals):
    # and() of a column in [2, 3]; max(5) into a resultant in [0, 1].
    p = tv.problem()
    x, r = var("x", 2, 3), var("r", 0, 1)
    p.addVariable(x, r)
    p.setObjective(r)
    p.addgencons([kind], [r], [0], [x] if cols else [], [0] if vals else None, vals)
    p.solve()
    assert p.attributes.mipstatus == tv.mip_infeas


def test_nonlinear_problem_file_keeps_them(tmp_path):
    # The nonlinear writer appends its own sections after these; NumPy arrays as arguments.
    import numpy as np
    p = tv.problem()
    x, y = var("x", -3, 2), var("y", -20, 20)
    p.addVariable(x, y)
    p.addConstraint(x <= -1)
    p.setObjective(tv.exp(y))
    p.addgencons(np.array([tv.gencons_abs]), [y], np.array([0]), [x])
    path = str(tmp_path / "nl.mps")
    p.write(path, "")
    q = tv.problem()
    q.read(path, "")
    assert q.attributes.gencons == 1
    q.solve()
    assert q.getObjVal() == pytest.approx(math.e, rel=1e-4)


def test_iis_file_leaves_out_general_and_piecewise_linear_constraints(tmp_path):
    """The IIS file holds the linear subsystem only: the general and piecewise-linear
    constraints over its columns are not part of it."""
    x, y, z = var("x", ub=2), var("y", ub=2), var("z", ub=2)
    p = tv.problem(x, y, z, x + y + z >= 7, name="iisgc")
    p.addgencons([tv.gencons_max], [y], [0], [x], [0], [0.5])
    p.addpwlcons([x], [z], [0], [0, 2], [0, 2])
    p.iisall()
    rows, cols, *_ = [], [], [], []
    p.iisstatus(rows, cols, [], [])
    assert rows == [1] and cols[0] >= 1
    fn = tmp_path / "iis.lp"
    p.iiswrite(1, str(fn), 0, "")
    text = fn.read_text()
    assert "x" in text and "y" in text
    assert "gencons" not in text.lower() and "pwl" not in text.lower()
    # The problem itself keeps them.
    assert (p.attributes.gencons, p.attributes.pwlcons) == (1, 1)
