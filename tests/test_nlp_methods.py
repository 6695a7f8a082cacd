"""The problem methods that mirror the nonlinear library's own operations: argument
conventions and messages, round trips through the library, and ownership of the objects they
hand over."""
import gc
import math
import sys

import pytest

import tarvo as tv

EQUALS_COLUMN = -1


pytestmark = pytest.mark.usefixtures("quiet")


def small():
    """min x + y subject to c: exp(x^2 + y^2) <= e^2 (a nonlinear row) and d: x - y <= 1."""
    x, y = tv.var(lb=-5, ub=5, name="x"), tv.var(lb=-5, ub=5, name="y")
    c = tv.constraint(body=tv.exp(x ** 2 + y ** 2), ub=math.exp(2), name="c")
    d = tv.constraint(body=x - y, ub=1, name="d")
    p = tv.problem(x, y, c, d, x + y)
    return p, x, y, c, d


def test_tolerance_sets_round_trip_and_size_checks():
    p, *_ = small()
    with pytest.raises(tv.InterfaceError, match='The "tol" argument should have a multiple of 9 elements'):
        p.addtolsets([0.005] * 10)
    p.addtolsets([0.005] * 9 + [0.25] * 9)
    first, second = [], []
    p.gettolset(1, first)
    p.gettolset(2, second)
    assert first == [0.005] * 9 and second == [0.25] * 9
    with pytest.raises(tv.InterfaceError, match=r"Wrong number of elements in tols \(should be 9\)"):
        p.chgtolset(1, None, [0] * 8)
    p.chgtolset(1, None, [float(i) for i in range(9)])
    got = []
    p.gettolset(1, got)
    assert got == [float(i) for i in range(9)]
    p.deltolsets([2])
    with pytest.raises(tv.SolverError):
        p.gettolset(2, None)
    p.loadtolsets([0.5] * 9)
    p.gettolset(1, got)
    assert got == [0.5] * 9


def test_row_arguments_resolve_objects_names_and_indices():
    p, x, y, c, d = small()
    stranger = tv.constraint(body=x, ub=1, name="stranger")
    with pytest.raises(tv.ModelError, match="Constraint stranger not in problem"):
        p.chgrowwt(stranger, 2.0)
    with pytest.raises(tv.ModelError, match="Invalid constraint object 3.5"):
        p.getrowwt(3.5)
    p.chgrowwt(c, 2.5)
    p.chgrowwt("d", 4.0)
    assert (p.getrowwt(0), p.getrowwt(d)) == (2.5, 4.0)
    with pytest.raises(tv.InterfaceError, match="Incorrect call to chgrowwt"):
        p.chgrowwt(c, "heavy")
    p.chgrowstatus(d, 0)
    assert p.getrowstatus(d) == 0
    with pytest.raises(tv.SolverError):
        p.getrowwt(17)  # no such row


def test_chgccoef_factor_conventions():
    p, x, y, c, d = small()
    p.chgccoef(d, EQUALS_COLUMN, 3, "sin(x)")
    assert p.getccoef(d, EQUALS_COLUMN, 50)[0] == 3.0
    p.chgccoef(d, EQUALS_COLUMN, None, "cos(x)")  # no factor: the stored one stays
    factor, text = p.getccoef(d, EQUALS_COLUMN, 50)
    assert factor == 3.0 and "cos" in text.lower()
    for bad in ("2", [2], object()):
        with pytest.raises(tv.InterfaceError, match="Wrong arguments in chgccoef"):
            p.chgccoef(d, EQUALS_COLUMN, bad, "sin(x)")
    with pytest.raises(tv.InterfaceError, match="Wrong arguments in chgccoef"):
        p.chgccoef(d, EQUALS_COLUMN, 1)
    with pytest.raises(tv.SolverError):
        p.chgccoef(d, EQUALS_COLUMN, 1, "sin(x")  # the library's parse error
    # The row now carries a formula: the problem is solved as nonlinear.
    p.solve()
    assert p.getProbStatusString().startswith("nlp_")


def test_token_formulas_add_change_delete_and_evaluate():
    p, x, y, c, d = small()
    cx, cy = p.getIndex(x), p.getIndex(y)
    # Two coefficients in one call: y * exp(x) in d and 2 * x^2 on the constant column of d.
    p.addcoefs([d, d], [y, EQUALS_COLUMN], [1.0, 2.0], [0, 4, 8], 1,
               [22, 10, 12, 0, 10, 1, 31, 0], [0, cx, 16, 0, cx, 2, 2, 0])
    p.chgvar(x, initvalue=0.5)
    p.chgvar(y, initvalue=2.0)
    assert p.evaluatecoef(d, y) == pytest.approx(math.exp(0.5))
    assert p.evaluatecoef(d, EQUALS_COLUMN) == pytest.approx(2 * 0.25)
    assert p.evaluateformula(1, [10, 10, 31, 0], [cx, cy, 3, 0]) == pytest.approx(1.0)
    # The same formula in infix order (unparsed).
    assert p.evaluateformula(0, [10, 31, 10, 0], [cx, 3, cy, 0]) == pytest.approx(1.0)
    p.chgnlcoef(d, y, 5.0, 1, [10, 0], [cx, 0])
    assert p.getcoefformula(d, y, 1, 8) == (5.0, 2, [10, 0], [float(cx), 0.0])
    def pairs():
        # Compared by identity: == on modelling objects builds constraints.
        rows, cols = [], []
        p.getcoefs(rows, cols)
        return [(r.name, c if isinstance(c, int) else c.name) for r, c in zip(rows, cols)]

    assert pairs() == [("c", EQUALS_COLUMN), ("d", EQUALS_COLUMN), ("d", "y")]
    p.delcoefs([d], [y])
    assert pairs() == [("c", EQUALS_COLUMN), ("d", EQUALS_COLUMN)]
    # Arrays the library would read past are refused before it sees them.
    with pytest.raises(tv.InterfaceError, match="end-of-formula"):
        p.evaluateformula(1, [10, 1, 31], [cx, 2, 3])
    with pytest.raises(tv.InterfaceError, match="end-of-formula"):
        p.chgnlcoef(d, y, 1.0, 1, [10], [cx])
    with pytest.raises(tv.InterfaceError, match="fstart"):
        p.addcoefs([d], [y], None, [0, 300], 1, [10, 0], [cx, 0])
    with pytest.raises(tv.InterfaceError, match="fstart"):
        p.addcoefs([d, d], [y, x], None, [2, 0, 4], 1, [10, 0, 10, 0], [cx, 0, cy, 0])
    with pytest.raises(tv.InterfaceError, match="excessive buffersize"):
        p.getcoefformula(d, EQUALS_COLUMN, 1, -1)


def test_slp_variables_and_distribution_factors():
    p, x, y, c, d = small()
    p.chgvar(x, initvalue=1.5, stepbound=0.25, penalty=7.0)
    info = p.getvar(x)
    assert len(info) == 15
    assert (info[2], info[3], info[5]) == (0.25, 7.0, 1.5)
    with pytest.raises(tv.InterfaceError, match="Incorrect arguments to chgvar"):
        p.chgvar(x, tolset=1.5)
    with pytest.raises(tv.InterfaceError, match="Incorrect arguments to chgvar"):
        p.chgvar()
    with pytest.raises(tv.InterfaceError, match="Incorrect arguments in getvar"):
        p.getvar()
    p.addvars([y], None, None, None, None, [0.75], [0.5])
    assert p.getvar(y)[5] == 0.75
    p.adddfs([x, y], [d, d], [2.0, 3.0])
    p.chgdf(y, d, 0.5)
    assert (p.getdf(x, d), p.getdf(y, d)) == (2.0, 0.5)
    with pytest.raises(tv.InterfaceError, match="Wrong arguments in chgdf"):
        p.chgdf(x, d, "big")
    p.chgdeltatype([x], [1], [0.1])
    p.chgcascadenlimit(x, 3)
    p.delvars([y])


def test_deleting_rows_and_columns_moves_the_slp_data_with_them():
    p, x, y, c, d = small()
    a, b = tv.var(lb=-5, ub=5, name="a"), tv.var(name="b")
    r0, r1 = tv.constraint(body=a, ub=3, name="r0"), tv.constraint(body=b, ub=3, name="r1")
    # a and r0 come first, b and r1 last, so that deleting them moves x, y, c and d both ways.
    q = tv.problem(a, x, y, b, r0, c, d, r1, x + y)
    q.chgvar(x, initvalue=1.5, stepbound=0.25)
    q.chgvar(y, initvalue=-0.5, detrow=d)
    q.chgrowwt(d, 3.0)
    q.chgdf(y, d, 0.5)
    q.msaddjob("corner", [a, x, y, b], [4.0, 4.0, -4.0, 1.0], {"tslp_iterlimit": 200}, None)
    q.delVariable([a, b])
    q.delConstraint([r0, r1])
    assert q.getvar(x)[:6] == (-1, 0.0, 0.25, 0.0, 0.0, 1.5)
    assert q.getvar(y)[0] == q.getIndex(d) == 1
    assert q.getvar(y)[5] == -0.5
    assert (q.getrowwt(d), q.getrowwt(c), q.getdf(y, d), q.getdf(x, d)) == (3.0, 1.0, 0.5, 1.0)
    q.setControl("tslp_multistart", 1)
    q.solve()
    assert q.getObjVal() == pytest.approx(-2, abs=1e-5)
    assert q.getSolution() == pytest.approx([-1, -1], abs=1e-4)


def test_solution_lists_and_row_column_information_agree_with_the_queries():
    p, x, y, c, d = small()
    p.getslpsol()  # nothing asked, nothing filled
    p.solve()
    # min x + y on the disc of radius sqrt(2): (-1, -1), value -2; d: x - y = 0 <= 1.
    assert p.getObjVal() == pytest.approx(-2, abs=1e-5)
    sol, slack, dual, dj = [], [], [], []
    p.getslpsol(sol, slack, dual, dj)
    assert len(sol) == len(dj) == p.getAttrib("cols")
    assert len(slack) == len(dual) == p.getAttrib("rows")
    assert sol == pytest.approx(p.getSolution())
    assert slack == pytest.approx(p.getSlack())
    assert dual == pytest.approx(p.getDual())
    assert sol[:2] == pytest.approx([-1, -1], abs=1e-4)
    assert p.getcolinfo(tv.colinfo_value, x) == pytest.approx(sol[0])
    assert p.getrowinfo(tv.rowinfo_slack, d) == pytest.approx(slack[1])
    assert p.getrowinfo(tv.rowinfo_dual, c) == pytest.approx(dual[0])
    with pytest.raises(tv.SolverError):
        p.getrowinfo(99, c)
    with pytest.raises(tv.InterfaceError, match="Incorrect argument to getcolinfo"):
        p.getcolinfo("value", x)
    with pytest.raises(tv.InterfaceError, match="Wrong arguments in nlpoptimize"):
        p.nlpoptimize(3)


def test_multistart_jobs_check_controls_and_own_their_objects():
    p, x, y, c, d = small()
    with pytest.raises(tv.InterfaceError, match="must be a dictionary"):
        p.msaddjob("j", [x], [1.0], 5, None)
    with pytest.raises(tv.InterfaceError, match="Unknown control nosuch in msaddcustompreset/msaddjob"):
        p.msaddjob("j", [x], [1.0], {"nosuch": 1}, None)
    with pytest.raises(tv.InterfaceError, match="Incorrect arguments in msaddjob"):
        p.msaddjob("j", [x])
    with pytest.raises(tv.InterfaceError, match="Incorrect arguments in msaddpreset"):
        p.msaddpreset("p", "initial", 3, None)
    token = object()
    before = sys.getrefcount(token)
    p.msaddjob("from the corner", [x, y], [4.0, 4.0], {"tslp_iterlimit": 200}, token)
    p.msaddcustompreset("random", tv.msset_initialvalues, 2, None, None, {"TSLP_PENALTY": 5.0}, token)
    q = p.copy()
    assert sys.getrefcount(token) > before
    p.setControl("tslp_multistart", 1)
    p.solve()
    assert p.getObjVal() == pytest.approx(-2, abs=1e-5)
    del p, q
    gc.collect()
    assert sys.getrefcount(token) == before


def test_validation_of_points_and_rows():
    p, x, y, c, d = small()
    with pytest.raises(tv.InterfaceError, match="Wrong arguments in validatevector"):
        p.validatevector()
    with pytest.raises(tv.InterfaceError, match="Wrong vector size in validatevector"):
        p.validatevector([0.0])
    # (0.1, 0.2) is feasible: no infeasibility, objective x + y.
    suminf, scaled, objval = p.validatevector([0.1, 0.2])
    assert (suminf, scaled) == (0, 0) and objval == pytest.approx(0.3)
    # (2, 2) violates c by exp(8) - exp(2) and d not at all.
    suminf, scaled, objval = p.validatevector([2.0, 2.0])
    assert suminf == pytest.approx(math.exp(8) - math.exp(2)) and objval == pytest.approx(4)
    with pytest.raises(tv.InterfaceError, match="Wrong arguments in validaterow"):
        p.validaterow()
    with pytest.raises(tv.InterfaceError, match="Wrong arguments in validatekkt"):
        p.validatekkt(0, 0, 0)
    p.solve()
    p.validaterow(c)
    p.validatekkt(0, 0, 0, 1e-6)
    assert p.getAttrib("tslp_kktresidual") == pytest.approx(0, abs=1e-5)
