"""Misuse of a problem: wrong argument kinds, objects of other problems, deleted objects and
malformed indicator declarations are refused with their messages, and a refused call leaves the
problem's lists, maps and library model in agreement and solvable."""
import pytest

import tarvo as tv

TOL = 1e-9
LONG_INDICATOR_MESSAGE = (
    "Invalid declaration of indicator constraints.\n"
    "The problem.addIndicator function accepts either two constraints or one or more TUPLES of "
    "constraints,\nas in the following examples:\n\n"
    "p.addIndicator(z==1, 2*x + 4*y <= 4)\n\n"
    "p.addIndicator((y1==1, 2*x1 + 4*x2 <= 4),\n"
    "               (y2==1, 3*x1 -   x2 >= 2),\n"
    "               (y3==1, 2*x1 + 4*x2 <= 4))\n")


pytestmark = pytest.mark.usefixtures("quiet")


def consistent(p):
    vs, cs, ss = p.getVariable(), p.getConstraint(), p.getSOS()
    assert [p.getIndex(v) for v in vs] == list(range(len(vs)))
    assert [p.getIndex(c) for c in cs] == list(range(len(cs)))
    assert [p.getIndex(s) for s in ss] == list(range(len(ss)))
    assert (p.attributes.cols, p.attributes.rows, p.attributes.sets) == (len(vs), len(cs), len(ss))


def raises(exc, message, call, *args, **kw):
    with pytest.raises(exc) as info:
        call(*args, **kw)
    assert str(info.value) == message
    return info


def test_malformed_indicators_add_nothing():
    z = tv.var(vartype=tv.binary, name="z")
    x, y = tv.var(ub=10, name="x"), tv.var(ub=4, name="y")
    p = tv.problem(z, x, y, x + y <= 12, 2 * x + y - 5 * z, sense=tv.maximize)
    bad = [
        ((z == 1,), tv.ModelError, LONG_INDICATOR_MESSAGE),
        ((z == 1, x <= 1, y <= 1), tv.ModelError, LONG_INDICATOR_MESSAGE),
        (((z == 1, 3),), tv.ModelError, "Invalid declaration of indicator constraints."),
        ((z + x * y == 1, x <= 0), tv.ModelError,
         "Invalid condition for indicator constraints: it cannot contain a quadratic expression"),
        ((tv.constraint(body=z + 1, lb=1, ub=1), x <= 0), tv.ModelError,
         "Invalid condition for indicator constraints: must be a variable"),
        ((tv.sin(z) == 1, x <= 0), tv.ModelError,
         "Invalid indicator expression. Must be var==0 or var==1, where var is a binary variable"),
        ((z == 1, tv.exp(x) <= 3), tv.ModelError, "Nonlinear indicator constraints are not allowed"),
        ((tv.var(vartype=tv.binary) == 1, x <= 0), tv.ModelError,
         "Indicator variable has not been added to problem yet"),
        ((z == 1, x + tv.var() <= 0), tv.ModelError, None),
    ]
    for args, exc, message in bad:
        with pytest.raises(exc) as info:
            p.addIndicator(*args)
        if message is not None:
            assert str(info.value) == message
        consistent(p)
        assert p.attributes.indicators == 0 and len(p.getConstraint()) == 1
    # A valid pair after all that: z = 1 caps y at 1 and costs 5; z = 0 caps x at 0.
    p.addIndicator((z == 0, x <= 0), (z == 1, y <= 1))
    p.solve()
    assert p.getObjVal() == pytest.approx(16, abs=1e-6)
    assert p.getSolution([z, x, y]) == pytest.approx([1, 10, 1], abs=1e-6)


def test_indices_of_the_wrong_kind_or_of_other_problems():
    x, y = tv.var(name="x", ub=5), tv.var(name="y", ub=5)
    c = tv.constraint(body=x + y, ub=4, name="c")
    s = tv.sos([x, y], [1, 2], 1, name="s")
    p = tv.problem(x, y, c, x + 2 * y, sense=tv.maximize)
    p.addSOS(s)
    other_x, other_c = tv.var(name="ox"), tv.constraint(body=x, ub=1, name="oc")
    other_s = tv.sos([x], [1], name="os")
    raises(tv.ModelError, "Invalid variable object 3.5", p.delVariable, index=[3.5])
    raises(tv.ModelError, "Invalid constraint object x", p.delConstraint, index=[x])
    raises(tv.ModelError, "Invalid SOS object c", p.delSOS, index=[c])
    raises(tv.ModelError, "Variable ox not in problem", p.delVariable, index=[x, other_x])
    raises(tv.ModelError, "Constraint oc not in problem", p.delConstraint, index=[other_c])
    raises(tv.ModelError, "SOS os not in problem", p.delSOS, index=other_s)
    raises(tv.ModelError, "Index out of bounds", p.delVariable, index=[0, 7])
    # Names go to the library, which names what it could not find.
    with pytest.raises(tv.SolverError, match="nosuch"):
        p.delVariable(index=["x", "nosuch"])
    raises(tv.ModelError, "Variable ox not in problem", p.setObjective, x + other_x)
    raises(tv.ModelError, "Variable ox not in problem", p.addConstraint, x + other_x <= 1)
    raises(tv.ModelError, "SOS contains variable that was not added to the problem",
           p.addSOS, tv.sos([x, other_x], [1, 2]))
    consistent(p)
    assert p.getVariable() == [x, y] and p.getConstraint() == [c] and p.getSOS() == [s]
    # The failed calls changed nothing: y alone (SOS1) gives 2 * 4.
    p.solve()
    assert p.getObjVal() == pytest.approx(8, abs=1e-6)
    raises(tv.ModelError, "Index out of range", p.getSlack, other_c)
    raises(tv.ModelError, "Index out of range", p.getSlack, 1)
    raises(tv.ModelError, "Incorrect object(s) passed: need index, variable, constraint, or SOS",
           p.getSlack, 2.5)
    raises(tv.ModelError, "Incorrect object(s) passed: need variable, constraint, or SOS",
           p.getIndex, other_x)


def test_variables_refused_by_type_or_kind_leave_nothing_behind():
    x = tv.var(name="x", ub=3)
    p = tv.problem(x, x, sense=tv.maximize)
    for bad in (tv.var(vartype=7), tv.var(vartype=-1)):
        raises(tv.ModelError, "Incorrect variable type passed to addVariable()",
               p.addVariable, [tv.var(), bad])
        consistent(p)
    raises(tv.ModelError, "Incorrect objects added as variables to problem",
           p.addVariable, tv.var(), x + 1)
    consistent(p)
    assert p.getVariable() == [x]
    p.solve()
    assert p.getObjVal() == pytest.approx(3, abs=TOL)


def test_deleted_objects_are_foreign_until_added_again():
    x, y, w = tv.var(name="x", ub=4), tv.var(name="y", ub=3), tv.var(name="w", ub=2)
    c = tv.constraint(body=x + y + w, ub=6, name="c")
    d = tv.constraint(body=x - y, ub=0, name="d")
    p = tv.problem(x, y, w, c, d, x + 2 * y + 3 * w, sense=tv.maximize)
    p.solve()
    assert p.getObjVal() == pytest.approx(1 + 6 + 6, abs=1e-6)  # w = 2, y = 3, x = 1
    p.delVariable(index=y)
    p.delConstraint(index=c)
    raises(tv.ModelError, "Incorrect object(s) passed: need variable, constraint, or SOS",
           p.getIndex, y)
    raises(tv.ModelError, "Variable y not in problem", p.setObjective, x + y)
    raises(tv.ModelError, "Variable y not in problem", p.addConstraint, x + y <= 1)
    consistent(p)
    # Left: x - 0 <= 0 (the y term went with its column), w <= 2.
    p.solve()
    raises(tv.ModelError, "Index out of range", p.getDual, c)
    assert p.getDual(d) == pytest.approx(1, abs=1e-6)
    assert p.getSolution() == pytest.approx([0, 2], abs=1e-6)
    assert p.getObjVal() == pytest.approx(6, abs=1e-6)
    # Added again, they are new columns and rows at the end.
    p.addVariable(y)
    p.addConstraint(c)
    assert p.getIndex(y) == 2 and p.getIndex(c) == 1
    consistent(p)
    p.setObjective(x + 2 * y + 3 * w, sense=tv.maximize)
    p.solve()
    # d is now x <= 0: x = 0, w = 2, y = 3 fits c (5 <= 6).
    assert p.getObjVal() == pytest.approx(12, abs=1e-6)


def test_message_handler_argument_counts():
    raises(tv.InterfaceError,
           "Incorrect arguments in removecbmsghandler. Must provide correct list of two arguments",
           tv.removecbmsghandler, 1, 2, 3)
    raises(tv.InterfaceError,
           "Incorrect arguments in addcbmsghandler. Must provide correct list of three arguments",
           tv.addcbmsghandler, print)
