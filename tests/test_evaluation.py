"""evaluate() in dictionary mode: containers, every node kind, pwl, logic, limits, errors."""
import math

import numpy as np
import pytest

import tarvo


@pytest.fixture
def xy():
    return tarvo.var(name="x"), tarvo.var(name="y")


def test_documented_example_and_containers(xy):
    x, y = xy
    point = {x: 5, y: 0.4}
    assert tarvo.evaluate([x + y, x ** 3 - tarvo.cos(x)], solution=point) == [5.4, 124.71633781453677]
    assert tarvo.evaluate({"a": x + 3 * y}, solution={x: 2, y: 3}) == {"a": 11.0}
    assert tarvo.evaluate((x, [y, 2 * x * y]), solution=point) == (5.0, [0.4, 4.0])
    assert tarvo.evaluate(x, y, solution=point) == (5.0, 0.4)
    r = tarvo.evaluate(3, solution={})
    assert r == 3.0 and isinstance(r, float)
    arr = tarvo.evaluate(np.array([[x, y * 2]], dtype=object), solution=point)
    assert arr.dtype == np.float64 and arr.tolist() == [[5.0, 0.8]]


def test_every_node_code(xy):
    x, y = xy
    a, b = 0.7, -1.3
    point = {x: a, y: b}
    cases = [
        (tarvo.sin(x) + tarvo.cos(y) + x, math.sin(a) + math.cos(b) + a),
        (tarvo.sin(x) - y, math.sin(a) - b),
        (-tarvo.exp(y), -math.exp(b)),
        (tarvo.sin(x) * y * 3, math.sin(a) * b * 3),
        (x / y, a / b),
        (x ** y, a ** b),
        (tarvo.log(x) + tarvo.log10(x), math.log(a) + math.log10(a)),
        (tarvo.tan(x) + tarvo.asin(x) + tarvo.acos(x) + tarvo.atan(y),
         math.tan(a) + math.asin(a) + math.acos(a) + math.atan(b)),
        (abs(y * tarvo.sin(x)), abs(b * math.sin(a))),
        (tarvo.sign(y * tarvo.sin(x)), -1.0),
        (tarvo.erf(x) + tarvo.erfc(y) + tarvo.sqrt(x), math.erf(a) + math.erfc(b) + math.sqrt(a)),
        (tarvo.max(x, y, 0.5), 0.7), (tarvo.min(x, y, 0.5), -1.3),
    ]
    for expr, expected in cases:
        assert tarvo.evaluate(expr, solution=point) == pytest.approx(expected), str(expr)


def test_logic_uses_the_mip_tolerance(xy):
    x, y = xy
    assert tarvo.evaluate(tarvo.And(x, y), solution={x: 0.000001, y: 1}) == 0.0
    assert tarvo.evaluate(tarvo.And(x, y), solution={x: 0.00001, y: 1}) == 1.0
    assert tarvo.evaluate(tarvo.Or(x, y), solution={x: 0.0, y: 1 - 1e-6}) == 1.0
    assert tarvo.evaluate(tarvo.Or(x, y), solution={x: 0.0, y: 0.99}) == 0.0
    assert tarvo.evaluate(x & y, solution={x: 1, y: 1}) == 1.0
    old = tarvo.controls.miptol
    tarvo.controls.miptol = 0.01
    try:
        assert tarvo.evaluate(tarvo.And(x, y), solution={x: 0.005, y: 1}) == 0.0
        assert tarvo.evaluate(tarvo.Or(x, y), solution={x: 0.0, y: 0.995}) == 1.0
    finally:
        tarvo.controls.miptol = old


def test_piecewise_linear_values():
    x = tarvo.var(name="x")
    f = tarvo.pwl({(0, 3): x, (3, 5): 10 * x})
    at = lambda v: tarvo.evaluate(f, solution={x: v})
    assert at(3) == 30.0  # the jump takes the right-hand piece
    assert at(1.5) == 1.5 and at(4) == 40.0
    assert at(-2) == -2.0  # left: first segment extended
    assert at(5) == 50.0 and at(6) == 60.0  # right: last breakpoint, then last segment extended
    step = tarvo.pwl({(0, 1): 0, (1, 2): 1, None: x})
    assert tarvo.evaluate(step, solution={x: 1}) == 1.0
    assert tarvo.evaluate(step, solution={x: 3}) == 1.0
    jump_last = tarvo.pwl({(0, 1): x, (1, 1): 5})
    assert tarvo.evaluate(jump_last, solution={x: 1}) == 5.0
    with pytest.raises(tarvo.InterfaceError, match="discontinuity at last breakpoint"):
        tarvo.evaluate(jump_last, solution={x: 3})
    jump_first = tarvo.pwl({(0, 0): 5, (0, 1): x})
    with pytest.raises(tarvo.InterfaceError, match="discontinuity at first breakpoint"):
        tarvo.evaluate(jump_first, solution={x: -1})
    point = tarvo.pwl({(2, 2): 7, None: x})
    assert tarvo.evaluate(point, solution={x: 2}) == 7.0
    with pytest.raises(tarvo.InterfaceError, match="discontinuity at first breakpoint x = 2.0 .* at 1.0"):
        tarvo.evaluate(point, solution={x: 1})


def test_depth_limit_and_errors(xy):
    x, y = xy
    deep = x
    for _ in range(63):
        deep = tarvo.exp(deep * 0.0)
    assert tarvo.evaluate(deep, solution={x: 1}) == pytest.approx(1.0)
    deeper = x
    for _ in range(70):
        deeper = tarvo.sin(deeper)
    with pytest.raises(RuntimeError, match="Evaluation of expression exceeded recursion depth limit"):
        tarvo.evaluate(deeper, solution={x: 1})
    with pytest.raises(tarvo.InterfaceError, match='requires at least of the two arguments "solution" and "problem"'):
        tarvo.evaluate(x)
    with pytest.raises(tarvo.InterfaceError, match='Argument "problem" is necessary'):
        tarvo.evaluate(x, solution=[1])
    with pytest.raises(tarvo.InterfaceError, match='Argument "solution" must be a dictionary'):
        tarvo.evaluate(x, solution=3)
    with pytest.raises(tarvo.InterfaceError, match='must be an tarvo.problem object'):
        tarvo.evaluate(x, problem=3)
    with pytest.raises(tarvo.ModelError, match="Object does not belong to problem"):
        tarvo.evaluate(x + y, solution={x: 1})
    with pytest.raises(ZeroDivisionError, match="Division by zero in evaluation"):
        tarvo.evaluate(x / y, solution={x: 1, y: 0})
    with pytest.raises(tarvo.ModelError, match="Evaluation of object of incorrect type"):
        tarvo.evaluate(object(), solution={})
    with pytest.raises(tarvo.InterfaceError, match="NumPy arrays must be of dtype"):
        tarvo.evaluate(np.array([1.0]), solution={})
    with pytest.raises(tarvo.InterfaceError, match="NumPy arrays must be of dtype"):
        tarvo.evaluate(tarvo.vars(2) <= 1, solution={})
    with pytest.raises(ZeroDivisionError):
        tarvo.evaluate(tarvo.user(lambda a: 1 / a, x), solution={x: 0})


def test_vector_mode_uses_the_problems_columns():
    x, y, z = tarvo.var(name="x"), tarvo.var(name="y"), tarvo.var(name="z")
    p = tarvo.problem(x, y)
    assert tarvo.evaluate({"a": x + 3 * y}, problem=p, solution=[2, 3]) == {"a": 11.0}
    assert tarvo.evaluate(tarvo.sin(x) * y, problem=p, solution=np.array([2.0, 3.0])) == pytest.approx(3 * math.sin(2))
    v = tarvo.evaluate(np.array([x, y], dtype=object) * 2, problem=p, solution=[1.5, -1])
    assert v.tolist() == [3.0, -2.0]
    with pytest.raises(tarvo.ModelError, match="Object does not belong to problem"):
        tarvo.evaluate(z + 1, problem=p, solution=[1, 2])
    # A dictionary solution takes precedence over the problem's columns.
    assert tarvo.evaluate(z * 2, problem=p, solution={z: 4}) == 8.0
