"""Module functions that build function-call nodes: numbers, arrays, collections, pwl, user."""
import math

import numpy as np
import pytest

import tarvo

UNARY = [
    ("sin", math.sin), ("cos", math.cos), ("tan", math.tan), ("asin", math.asin),
    ("acos", math.acos), ("atan", math.atan), ("exp", math.exp), ("log", math.log),
    ("log10", math.log10), ("abs", abs), ("sqrt", math.sqrt), ("erf", math.erf),
    ("erfc", math.erfc), ("sign", lambda t: (t > 0) - (t < 0)),
]


@pytest.mark.parametrize("name,ref", UNARY)
def test_unary_function_on_numbers_nodes_and_arrays(name, ref):
    fn = getattr(tarvo, name)
    x = tarvo.var(name="x")
    for t in (0.3, np.float32(0.3), np.int64(1) if name not in ("asin", "acos", "atanh") else 0):
        r = fn(t)
        assert isinstance(r, float) and r == pytest.approx(ref(float(t)))
    node = fn(x)
    assert str(node) == f"{name} (x)"
    assert tarvo.evaluate(node, solution={x: 0.25}) == pytest.approx(ref(0.25))
    arr = fn(np.array([x, 0.5], dtype=object))
    assert arr.dtype == object and str(arr[0]) == f"{name} (x)" and arr[1] == pytest.approx(ref(0.5))
    num = fn(np.array([[0.1, 0.2]]))
    assert num.shape == (1, 2) and num[0, 1] == pytest.approx(ref(0.2))
    with pytest.raises(tarvo.ModelError, match="the argument must be a single expression"):
        fn([x])
    with pytest.raises(tarvo.ModelError, match="Invalid object in unary operation"):
        fn("x")


def test_sign_and_domain():
    assert tarvo.sign(-3) == -1.0 and tarvo.sign(0) == 0.0 and tarvo.sign(2.5) == 1.0
    assert tarvo.log10(100) == pytest.approx(2.0)
    assert math.isnan(tarvo.sqrt(-1.0))  # no domain check: the math library's value


def test_functions_on_variable_arrays_give_expression_arrays():
    v = tarvo.vars(2, 3)
    s = tarvo.sin(v)
    assert s.dtype == tarvo.npexpr and s.shape == (2, 3) and str(s[1, 2]) == "sin (x(1,2))"
    values = tarvo.evaluate(s, solution={a: 0.5 for a in v.flat})
    assert np.allclose(values, math.sin(0.5))


def test_max_min_and_or_collections():
    x, y, z = (tarvo.var(name=n) for n in "xyz")
    with pytest.raises(tarvo.ModelError, match="The function tarvo.max must have at least one argument"):
        tarvo.max()
    with pytest.raises(tarvo.ModelError, match="The function tarvo.min must have at least one argument"):
        tarvo.min([])
    assert tarvo.max(x) is x and tarvo.min([y]) is y
    assert tarvo.And() == 1.0 and tarvo.Or() == 0.0
    assert str(tarvo.max([x, y, z])) == str(tarvo.max(x, y, z)) == "max (x, y, z)"
    assert str(tarvo.min((x, 2))) == "min (x, 2)"
    assert str(tarvo.max(np.array([[x, y], [z, 1.0]], dtype=object))) == "max (x, y, z, 1.0)"
    assert tarvo.max(np.array([4.0])) == 4.0 and isinstance(tarvo.max(np.array([4.0])), float)
    assert str(tarvo.And(x, y)) == "and (x, y)" and str(tarvo.Or([x, y, z])) == "or (x, y, z)"
    with pytest.raises(tarvo.ModelError, match="Incorrect argument for tarvo.max function"):
        tarvo.max("abc")
    with pytest.raises(tarvo.ModelError, match="Invalid object in n-ary operation"):
        tarvo.min(x, "y")
    point = {x: 1.0, y: -2.0, z: 3.0}
    assert tarvo.evaluate(tarvo.max(x, y, z), solution=point) == 3.0
    assert tarvo.evaluate(tarvo.min(x, y, z), solution=point) == -2.0


def test_pwl_breakpoints():
    x = tarvo.var(name="x")
    assert str(tarvo.pwl({(0, 1): x, (1, 2): 2 * x - 1})) == "pwl (x, 0.0, 0.0, 1.0, 1.0, 2.0, 3.0)"
    jump = tarvo.pwl({(3, 5): 10 * x, (0, 3): x})
    assert str(jump) == "pwl (x, 0.0, 0.0, 3.0, 3.0, 3.0, 30.0, 5.0, 50.0)"
    gap = tarvo.pwl({(0, 1): 2, (2, 3): 4, None: x})
    assert str(gap) == "pwl (x, 0.0, 2.0, 1.0, 2.0, 2.0, 4.0, 3.0, 4.0)"
    with pytest.raises(tarvo.ModelError, match=r"Interval \[0.0,2.0\] overlaps with \[1.0,3.0\]"):
        tarvo.pwl({(0, 2): x, (1, 3): x})
    with pytest.raises(tarvo.ModelError, match="No variable specified for this piecewise linear function"):
        tarvo.pwl({(1, 2): 4, (2, 4): 2})
    with pytest.raises(tarvo.ModelError, match="only accepts a dictionary"):
        tarvo.pwl([(0, 1)])
    with pytest.raises(tarvo.ModelError, match="must be two-tuples;"):
        tarvo.pwl({(0, 1, 2): x})
    with pytest.raises(tarvo.ModelError, match="such that a<b"):
        tarvo.pwl({(2, 1): x})
    y = tarvo.var(name="y")
    with pytest.raises(tarvo.ModelError, match="contains variable y while another variable"):
        tarvo.pwl({(0, 1): x, (1, 2): y})
    with pytest.raises(tarvo.ModelError, match="must contain one variable only"):
        tarvo.pwl({(0, 1): x + y})
    with pytest.raises(tarvo.ModelError, match="must be a constant or a linear function"):
        tarvo.pwl({(0, 1): x * y})
    with pytest.raises(tarvo.ModelError, match=r"Tuple \(None, Obj\) must have"):
        tarvo.pwl({None: 3, (0, 1): x})


def test_user_function_nodes():
    x, y = tarvo.var(name="x"), tarvo.var(name="y")
    calls = []

    def f(a, b):
        calls.append((a, b))
        return a * b + 1

    u = tarvo.user(f, x, y, derivatives=True)
    assert str(u) == "user (user, x, y)" and calls == []
    assert tarvo.evaluate(u, solution={x: 2, y: 3}) == 7.0 and calls == [(2.0, 3.0)]
    with_deriv = tarvo.user(lambda a: (a * a, 2 * a), x)
    assert tarvo.evaluate(with_deriv, solution={x: 3}) == 9.0
    assert str(tarvo.user(f, x) * 2) == "(user (user, x) * 2)"
    with pytest.raises(TypeError):
        tarvo.user(f, x, other=True)
    with pytest.raises(tarvo.ModelError, match="Invalid object in n-ary operation"):
        tarvo.user(f, "x")
