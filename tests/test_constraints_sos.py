import numpy as np
import pytest

import tarvo


@pytest.fixture
def xy():
    return tarvo.var(name="x"), tarvo.var(name="y")


def bounds(c):
    return c.lb, c.ub


def test_comparisons_build_constraints(xy):
    x, y = xy
    c = x + y <= 3
    assert type(c) is tarvo.constraint and bounds(c) == (-1e20, 3.0) and str(c.body) == "  x + y"
    c = 3 <= x
    assert str(c.body) == "  x" and bounds(c) == (3.0, 1e20)
    c = x == 3
    assert bounds(c) == (3.0, 3.0) and str(c.body) == "  x"
    c = x <= 0
    assert c.body is x and bounds(c) == (-1e20, 0.0)
    c = 2 * x >= 0
    assert str(c.body) == "2*x" and bounds(c) == (0.0, 1e20)
    c = 2 * x + 1 == y
    assert str(c.body) == " 2 x - y" and bounds(c) == (-1.0, -1.0)
    c = x + 2 <= y
    assert str(c.body) == "  x - y" and c.ub == -2.0
    c = x * y >= 1
    assert str(c.body) == "  x*y" and bounds(c) == (1.0, 1e20)
    c = 3 * x >= x
    assert str(c.body) == "2*x" and c.lb == 0.0
    c = x >= x
    assert c.body == 0.0 and c.lb == 0.0
    c = (x + y) * 0 + 2 <= 5
    assert bounds(c) == (-1e20, 3.0)
    # the operands are never changed by building the constraint
    e = x + y + 4
    c = e <= 10
    assert str(e) == "4 + x + y" and c.ub == 6.0 and c.body is not e


@pytest.mark.parametrize("build", [lambda x: x < 3, lambda x: x > 3, lambda x: x != 3,
                                   lambda x: 2 * x < x * x, lambda x: x + 1 != 0])
def test_strict_and_not_equal_comparisons_are_refused(xy, build):
    with pytest.raises(tarvo.ModelError) as info:
        build(xy[0])
    assert str(info.value) == "Invalid constraint: cannot enforce f(x) != 0, f(x) > 0, or f(x) < 0"


def test_comparison_with_numpy_arrays(xy):
    x, y = xy
    arr = np.array([1.0, 2.0, 3.0])
    cons = x <= arr  # reflected into arr >= x, elementwise, keeping the constraints
    assert isinstance(cons, np.ndarray) and cons.shape == (3,)
    assert [(c.lb, c.ub, str(c.body)) for c in cons] == [(-1e20, k, "  x") for k in (1.0, 2.0, 3.0)]
    cons = x + y >= np.array([[1, 2]], dtype=np.int64)
    assert cons.shape == (1, 2) and [c.lb for c in cons.flat] == [1.0, 2.0]
    cons = 2 * x == np.array([x, y], dtype=object)
    # elementwise the array element is on the left: x == 2*x and y == 2*x
    assert [str(c.body) for c in cons] == ["-1*x", " -2 x + y"] and all(c.lb == c.ub == 0.0 for c in cons)
    cons = x * y <= np.array([5.0], dtype=np.float32)
    assert type(cons[0]) is tarvo.constraint and cons[0].ub == 5.0
    with pytest.raises(tarvo.ModelError, match="cannot enforce"):
        x < arr


def test_constraint_constructor(xy):
    x, y = xy
    c = tarvo.constraint(body=x + y, sense=tarvo.leq, rhs=4)
    assert bounds(c) == (-1e20, 4.0)
    assert bounds(tarvo.constraint(body=x, sense=tarvo.geq, rhs=2)) == (2.0, 1e20)
    assert bounds(tarvo.constraint(body=x, sense=tarvo.eq, rhs=2)) == (2.0, 2.0)
    assert bounds(tarvo.constraint(body=x + y, sense=tarvo.range, rhs=4)) == (-1e20, 1e20)
    assert bounds(tarvo.constraint(body=x, lb=1, ub=1 - 1e-7)) == (1.0, 1 - 1e-7)
    assert bounds(tarvo.constraint(body=x, lb=-3.5)) == (-3.5, 1e20)
    named = tarvo.constraint(body=2 * x, ub=5, name="cap")
    assert str(named) == repr(named) == named.name == "cap" and named.ub == 5.0
    d = x + y <= 7
    c = tarvo.constraint(constraint=d)
    assert c.body is d.body and bounds(c) == bounds(d)
    assert tarvo.constraint(body=np.array([x, y], dtype=object), lb=0).body is x


@pytest.mark.parametrize(
    "kwargs, message",
    [
        (dict(body="x", lb=1, ub=0), "Constraint defined infeasible: lower bound > upper bound"),
        (dict(body="x", rhs=1, lb=0), "Cannot create constraint by specifying both rhs AND lb/ub."),
        (dict(body="x", sense=1, rhs=1, ub=3), "Cannot create constraint by specifying both rhs AND lb/ub."),
        (dict(body="x"), "Arguments required for tarvo.constraint(): constraint OR {body, lb and/or ub} OR {body,sense,rhs}."),
        (dict(), "Arguments required for tarvo.constraint(): constraint OR {body, lb and/or ub} OR {body,sense,rhs}."),
        (dict(constraint=5), "Attempt to generate an empty constraint failed. Consider using tarvo.constraint(body=..., sense=..., rhs=...) instead."),
        (dict(constraint=None), "Attempt to generate an empty constraint failed. Consider using tarvo.constraint(body=..., sense=..., rhs=...) instead."),
        (dict(body=None, lb=0), "Invalid expression passed as body of constraint"),
        (dict(body="text", lb=0), "Invalid expression passed as body of constraint"),
    ],
)
def test_constraint_constructor_errors(xy, kwargs, message):
    if kwargs.get("body") == "x":
        kwargs["body"] = xy[0]
    with pytest.raises(tarvo.ModelError) as info:
        tarvo.constraint(**kwargs)
    assert str(info.value) == message


def test_constraint_attributes_and_copy(xy):
    x, y = xy
    c = x + 2 * y <= 4
    c.lb = -1
    c.ub = 2.5
    assert bounds(c) == (-1.0, 2.5)
    c.ub = 1e30
    assert c.ub == 1e20
    c.lb = 7  # no consistency check through attributes
    assert c.lb == 7.0
    assert c.__class__ is tarvo.constraint
    assert c.__dict__ == dict.fromkeys(["lb", "ub", "name", "body", "copy"])
    with pytest.raises(tarvo.InterfaceError, match="Incorrect member name of type tarvo.constraint"):
        c.foo
    with pytest.raises(tarvo.InterfaceError, match="Incorrect member name of type tarvo.constraint"):
        c.foo = 1
    with pytest.raises(tarvo.InterfaceError):
        c.body = x
    with pytest.raises(TypeError):
        c.lb = "a"
    assert c.lb == 7.0
    serial = int(str(c)[1:])
    copy = c.copy()
    assert str(copy) == "R%d_copy_R%d" % (serial, serial)
    assert bounds(copy) == bounds(c) and copy.body is not c.body and str(copy.body) == str(c.body)
    assert copy.copy().name.startswith("R%d_copy_R%d_copy" % (serial + 1, serial))
    cv = tarvo.constraint(body=x, lb=1).copy()
    assert cv.body is x and bounds(cv) == (1.0, 1e20)
    c.name = "named"
    assert c.copy().name == "R%d_copy_named" % serial
    empty = tarvo.constraint.__new__(tarvo.constraint)
    with pytest.raises(tarvo.InterfaceError):
        empty.body
    assert hash(c) == hash(c) and (c == c) is True


def test_sos_declaration(xy):
    x, y = xy
    s = tarvo.sos([x, y], [1, 2])
    assert str(s).startswith("sos") and str(s) == s.name
    serial = int(str(s)[3:])
    s2 = tarvo.sos([x, y], [1, 2], 2, "mysos")
    assert str(s2) == "mysos"
    indices, weights = [x], [1.0]
    s3 = tarvo.sos(indices, weights, name="grow")
    indices.append(y)
    c = s3.copy()
    assert c.name == "sos%d_copy_grow" % (serial + 2)
    c2 = s.copy()
    assert c2.name == "sos%d_copy_sos%d" % (serial, serial)
    s.name = "renamed"
    assert str(s) == "renamed"
    s.name = 5
    with pytest.raises(TypeError):
        str(s)
    assert tarvo.sos.__name__ == "SOS" or type(s).__name__ == "SOS"


@pytest.mark.parametrize(
    "args, kwargs, message",
    [
        (("I", [1, 2]), dict(type=3), "SOS type must be 1 or 2"),
        (("I", [1, 2]), dict(type=0), "SOS type must be 1 or 2"),
        ((("x", "y"), [1, 2]), {}, "SOS indices must be passed as a list"),
        ((("x", "y"), (1, 2)), {}, "SOS weights must be passed as a list"),
    ],
)
def test_sos_errors(xy, args, kwargs, message):
    args = tuple(list(xy) if a == "I" else a for a in args)
    with pytest.raises(tarvo.ModelError) as info:
        tarvo.sos(*args, **kwargs)
    assert str(info.value) == message
