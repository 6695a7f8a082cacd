"""Nonlinear expression trees: construction rules, printed forms, in-place growth, copies,
extraction of the linear and quadratic parts, and errors."""
import numpy as np
import pytest

import tarvo


@pytest.fixture
def xyz():
    return tarvo.var(name="x"), tarvo.var(name="y"), tarvo.var(name="z")


def val(expr, **point):
    return tarvo.evaluate(expr, solution=point["at"])


def test_printed_forms_put_the_node_first(xyz):
    x, y, z = xyz
    assert str(2 * tarvo.sin(x)) == "(sin (x) * 2)"
    assert str(tarvo.sin(x) * 2) == "(sin (x) * 2)"
    assert str(tarvo.sin(x) + tarvo.cos(y) + tarvo.exp(z)) == "(sin (x) + cos (y) + exp (z))"
    assert str(x / y) == "(x / y)"
    assert str(x ** 3) == "(x ** 3)"
    assert str(tarvo.max(x, y, z)) == "max (x, y, z)"
    assert repr(tarvo.sin(x)) == "sin (x)"
    assert str(tarvo.user(lambda a, b: a, x, y)) == "user (user, x, y)"
    assert str(tarvo.sin(x) & y) == "and (sin (x), y)"
    assert str(abs(tarvo.sin(x))) == "abs (sin (x))"


def test_identities_and_simplifications(xyz):
    x, y, _ = xyz
    n = tarvo.sin(x)
    assert n ** 0 == 1.0 and isinstance(n ** 0, float)
    assert 1 ** n == 1.0
    one = n ** 1
    assert type(one) is type(n) and one is not n and str(one) == str(n)
    assert 0 / n == 0.0 and n * 0 == 0.0 and 0 * n == 0.0
    with pytest.raises(tarvo.ModelError, match="Division by zero"):
        n / 0
    assert str(n / 2) == "(sin (x) / 2)"
    assert str(n * -1) == "- (sin (x))" and str(-1 * n) == "- (sin (x))" and str(-n) == "- (sin (x))"
    assert str(n * 1) == str(n) and (n * 1) is not n
    assert str(n + 0) == str(n) and str(0 - n) == "- (sin (x))"
    assert str(n - y) == "(sin (x) - y)"


def test_sum_nodes_merge_flat_and_leave_the_right_operand_alone(xyz):
    x, y, z = xyz
    s1 = tarvo.sin(x) + y
    s2 = tarvo.cos(y) + 2 * z + 1
    before = str(s2)
    total = s1 + s2
    assert str(total) == "(sin (x) + cos (y) + 1 + y +2 z)"
    assert str(s2) == before and str(s1) == "(sin (x) + y)"
    diff = s1 - s2
    assert str(diff) == "(sin (x) + - (cos (y)) + -1 + y -2 z)"
    assert str(s2) == before
    point = {x: 0.3, y: -1.2, z: 2.0}
    assert val(diff, at=point) == pytest.approx(val(s1, at=point) - val(s2, at=point))
    # The polynomial part of a sum node is one object, kept last.
    s = tarvo.sin(x) + x
    for k in range(5):
        s = s + 2 * y + tarvo.cos(x)
    assert str(s).endswith("x +10 y)")


def test_in_place_operators_grow_nodes(xyz):
    x, y, z = xyz
    s = tarvo.sin(x) + y
    alias = s
    s += tarvo.cos(x)
    s += 3 * z
    s -= y
    assert s is alias
    assert str(s) == "(sin (x) + cos (x) +  3 z)"
    s += s  # added to itself: the right operand is read before the left one grows
    point = {x: 0.7, y: 1.0, z: -0.4}
    assert val(s, at=point) == pytest.approx(2 * (np.sin(0.7) + np.cos(0.7) + 3 * -0.4))

    p = tarvo.sin(x) * 2
    p *= 3
    assert str(p) == "(sin (x) * 6.0)"
    p *= y
    assert str(p) == "(sin (x) * y * 6.0)"
    p *= tarvo.cos(z) * 0.5
    assert str(p) == "(sin (x) * y * cos (z) * 3.0)"
    q = tarvo.sin(x) * 2
    q *= 0.5
    assert str(q) == "(sin (x))"

    d = tarvo.sin(x) / y
    d /= z
    assert str(d) == "(sin (x) / (z * y))"
    d /= 2
    assert val(d, at={x: 1.0, y: 2.0, z: 3.0}) == pytest.approx(np.sin(1.0) / 12)

    w = tarvo.sin(x) ** 2
    w **= 3
    assert str(w) == "(sin (x) ** 6)"
    assert val(w, at={x: 0.5}) == pytest.approx(np.sin(0.5) ** 6)
    n = tarvo.sin(x)
    n &= y
    assert str(n) == "and (sin (x), y)"


def test_shared_expression_in_a_sum_is_not_changed_by_growth(xyz):
    x, y, z = xyz
    e = 2 * x + 1
    s = tarvo.sin(x) + e
    s += y
    s += 5
    assert str(e) == "1 +2 x"
    assert val(s, at={x: 1.0, y: 2.0}) == pytest.approx(np.sin(1.0) + 3 + 2 + 5)


def test_depth_limit_in_printing(xyz):
    x, _, _ = xyz
    n = x
    for _ in range(70):
        n = tarvo.exp(n)
    text = str(n)
    assert "[MAX RECURS LEV]" in text
    assert text.count("exp (") == 65


def test_arrays_on_the_right_go_to_numpy(xyz):
    x, _, _ = xyz
    n = tarvo.sin(x)
    a = np.array([1.0, 2.0])
    for result in (n + a, n - a, n * a, n / a):
        assert isinstance(result, np.ndarray) and result.shape == (2,)
    assert str((n + a)[1]) == "(sin (x) + 2.0)"
    assert tarvo.evaluate(n - a, solution={x: 0.0}).tolist() == [-1.0, -2.0]
    assert tarvo.evaluate(n / a, solution={x: np.pi / 2}).tolist() == pytest.approx([1.0, 0.5])
    with pytest.raises(tarvo.ModelError, match="Cannot obtain a power with a vector as an exponent"):
        n ** a


def test_extract_linear_and_quadratic(xyz):
    x, y, z = xyz
    vars_, coefs = (tarvo.sin(x) + 2 * y - 3 * z).extractLinear()
    assert vars_ == [y, z] and coefs == [2.0, -3.0]
    n = (tarvo.sin(x) + 4 * x * y - (x + y)) / 2
    assert n.extractLinear() == ([x, y], [-0.5, -0.5])
    assert n.extractQuadratic() == ([x], [y], [2.0])
    # Only sums, differences, negation, scaling, division by numbers and ** 1 are looked through.
    assert tarvo.sin(x + y).extractLinear() == ([], [])
    assert (x * tarvo.sin(y)).extractLinear() == ([], [])
    assert (-(tarvo.cos(z) + z)).extractLinear() == ([z], [-1.0])


def test_comparisons_make_constraints(xyz):
    x, y, _ = xyz
    c = tarvo.sin(x) + y <= 3
    assert isinstance(c, tarvo.constraint)
    assert isinstance(2 >= tarvo.sin(x), tarvo.constraint)
    assert isinstance(tarvo.sin(x) == tarvo.cos(y), tarvo.constraint)


def test_invalid_operands(xyz):
    x, _, _ = xyz
    n = tarvo.sin(x)
    with pytest.raises(tarvo.ModelError, match="Invalid object in operation"):
        n + "a"
    with pytest.raises(tarvo.ModelError, match="Invalid object in operation"):
        n * [1]
    with pytest.raises(TypeError):
        type(n)()


def test_in_place_operators_never_put_a_node_inside_itself(xyz):
    x, y, _ = xyz
    point = {x: 0.3, y: 0.7}
    sx, cx = np.sin(0.3), np.cos(0.3)
    s = tarvo.sin(x) + y
    s += tarvo.sin(s)
    assert val(s, at=point) == pytest.approx(sx + 0.7 + np.sin(sx + 0.7))
    p = tarvo.sin(x) * y
    p *= tarvo.cos(p)
    assert val(p, at=point) == pytest.approx(sx * 0.7 * np.cos(sx * 0.7))
    d = tarvo.sin(x) / (tarvo.cos(x) * y)
    d /= d
    assert val(d, at=point) == pytest.approx(1.0)
    w = tarvo.sin(x) ** (tarvo.cos(x) * y)
    w **= tarvo.exp(w)
    assert val(w, at=point) == pytest.approx(sx ** (cx * 0.7 * np.exp(sx ** (cx * 0.7))))
    assert "[MAX RECURS LEV]" not in str(s) + str(p) + str(d) + str(w)
