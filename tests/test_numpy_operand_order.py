"""NumPy arrays and modelling objects combine the same way whichever operand comes first.

With the array on the left NumPy's own operator runs first; for comparisons its object loop
would turn each constraint into True, and adding that array to a problem adds nothing.
"""
import operator

import numpy as np
import pytest

import tarvo as tv

REFLECTED = {operator.le: operator.ge, operator.ge: operator.le, operator.eq: operator.eq}


def _described(cons):
    assert isinstance(cons, np.ndarray)
    assert all(type(c) is tv.constraint for c in cons.flat), cons
    return [(c.lb, c.ub, str(c.body)) for c in cons.flat]


@pytest.fixture
def x():
    return tv.var(name="x")


@pytest.mark.parametrize("op", list(REFLECTED), ids=["le", "ge", "eq"])
@pytest.mark.parametrize("make", [
    lambda x: x, lambda x: 2 * x, lambda x: x + 1, lambda x: x * x, lambda x: tv.exp(x),
], ids=["var", "linterm", "expression", "quadterm", "nonlinear"])
@pytest.mark.parametrize("array", [
    np.array([1.0, -2.5]), np.array([[3, 4]]), np.array([1.5, 2.0], dtype=np.float32),
    np.array([0.5, 7.0], dtype=object),
], ids=["float64", "int64-2d", "float32", "object"])
def test_array_on_the_left_gives_the_reflected_constraints(x, op, make, array):
    left = op(array, make(x))
    right = REFLECTED[op](make(x), array)
    assert left.shape == array.shape == right.shape
    assert _described(left) == _described(right)


def test_array_on_the_left_builds_a_working_model():
    x = tv.var(name="x", lb=-10)
    lower = np.array([1.0, 3.0, 2.0])
    p = tv.problem(x, lower <= x, np.array([5.0]) >= x + 0, x)
    p.controls.outputlog = 0
    assert p.attributes.rows == 4
    p.solve()
    assert p.getSolution(x) == pytest.approx(3.0)
    # Maximising instead hits the upper row written with the array on the left.
    p.setObjective(x, sense=tv.maximize)
    p.solve()
    assert p.getSolution(x) == pytest.approx(5.0)


def test_arithmetic_with_the_array_first_matches_the_other_order(x):
    a = np.array([1.0, 2.0])
    for left, right in [(a + x, x + a), (a - x, -(x - a)), (a * x, x * a), (a * (x + 1), (x + 1) * a)]:
        assert left.dtype == right.dtype == tv.npexpr
        assert [str(e) for e in left] == [str(e) for e in right]
    # The results stay modelling arrays, so a comparison of them builds constraints too.
    assert _described((a + x) <= 4) == _described(x + a <= 4)


def test_variable_array_combined_with_a_single_variable():
    v = tv.vars(2, name="v")
    y = tv.var(name="y")
    diff = v - y
    assert diff.dtype == tv.npexpr
    cons = diff == 1.0
    assert _described(cons) == [(1.0, 1.0, str(v[0] - y)), (1.0, 1.0, str(v[1] - y))]
    assert _described(y + v >= 0) == _described(v + y >= 0)
    p = tv.problem(v, y, cons, tv.Sum(v) - y)
    p.controls.outputlog = 0
    p.solve()
    assert p.getSolution(v).tolist() == pytest.approx([1.0, 1.0])


def test_strict_comparisons_are_refused_in_both_orders(x):
    a = np.array([1.0, 2.0])
    for cmp in (lambda: a < x, lambda: a > x, lambda: x < a, lambda: a != x + 1):
        with pytest.raises(tv.ModelError, match="cannot enforce"):
            cmp()
