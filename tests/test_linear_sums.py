"""Sums and differences of linear operands (expressions, variables, linear terms) are made in
one merge of their term lists: the result must equal, coefficient for coefficient and bit for
bit, the same sum accumulated term by term in place, and hold its variables' references."""
import random
import sys

import numpy as np
import pytest

import tarvo as tv


def terms(e):
    """(variable ids, coefficients, constant) of an expression, a variable or a linear term."""
    if type(e).__name__ == "var":
        return [id(e)], [1.0], 0.0
    lv, lc = e.extractLinear()
    zero = {v: 0.0 for v in lv}
    constant = tv.evaluate(e, solution=zero) if type(e).__name__ == "expression" else 0.0
    return [id(v) for v in lv], list(lc), constant


def same(a, b):
    ia, ca, ka = terms(a)
    ib, cb, kb = terms(b)
    assert ia == ib
    assert [c.hex() for c in ca] == [c.hex() for c in cb]
    assert ka == kb


def accumulated(a, b, s):
    """a + s*b built by in-place accumulation, term by term."""
    acc = tv.Sum([a])
    acc += s * b if s != 1 else b
    return acc


@pytest.fixture(scope="module")
def pool():
    return [tv.var(name="") for _ in range(30)]


def random_linear(rnd, pool, kind):
    if kind == "var":
        return rnd.choice(pool)
    if kind == "linterm":
        return rnd.choice([0.1, -3.0, 2.5]) * rnd.choice(pool)
    e = tv.Sum(rnd.choice([1.0, -1.0, 0.1, 0.2, 0.3, 1e-17, 7.0]) * v for v in rnd.sample(pool, rnd.randint(1, 14)))
    return e + rnd.choice([0.0, -0.0, 0.5, -2.0])


@pytest.mark.parametrize("kinds", [("expr", "expr"), ("expr", "var"), ("var", "expr"),
                                   ("linterm", "expr"), ("expr", "linterm")])
def test_sums_and_differences_equal_term_by_term_accumulation(pool, kinds):
    rnd = random.Random(hash(kinds) & 0xFFFF)
    for _ in range(200):
        a = random_linear(rnd, pool, kinds[0])
        b = random_linear(rnd, pool, kinds[1])
        same(a + b, accumulated(a, b, 1))
        same(a - b, accumulated(a, b, -1))


def test_cancellation_drops_exact_zeros(pool):
    x, y, z = pool[:3]
    e = 0.1 * x + 0.2 * y - 0.0
    same(e - e, accumulated(e, e, -1))          # everything cancels
    assert (e - e).extractLinear() == ([], [])
    f = (0.1 * x + 0.2 * y) - (0.1 * x + 0.3 * z)  # x cancels exactly
    assert [id(v) for v in f.extractLinear()[0]] == [id(y), id(z)]
    same(x - (x + 0.0 * y + 2), accumulated(x, x + 2, -1))  # var minus expression: -2, x gone
    same(tv.Sum([x]) - 0.0 + 0, accumulated(x, 0.0, 1))


def test_array_arithmetic_matches_element_arithmetic(pool):
    x = np.array(pool[:12], dtype=object).reshape(3, 4).astype(tv.npvar)
    a = np.linspace(-1, 1, 12).reshape(3, 4)
    left = (x + a * x.T.reshape(3, 4)) - (x[:, ::-1] - 3)
    for i in range(3):
        for j in range(4):
            el = (x[i, j] + a[i, j] * x.T.reshape(3, 4)[i, j]) - (x[i, ::-1][j] - 3)
            same(left[i, j], el)


def test_merged_sums_hold_and_release_their_variables(pool):
    x, y = pool[3], pool[4]
    before = sys.getrefcount(x), sys.getrefcount(y)
    e = 2 * x + y
    kept = [e - y + x for _ in range(50)] + [x - e for _ in range(50)]
    assert sys.getrefcount(x) > before[0]
    del kept, e
    assert (sys.getrefcount(x), sys.getrefcount(y)) == before


def test_rows_of_merged_sums_solve_as_before(pool):
    # A small LP through the merged operators and the same LP through in-place sums.
    def build(merged):
        x = tv.vars(5, lb=-5, ub=5, name="")
        p = tv.problem()
        p.addVariable(x)
        for i in range(4):
            body = (x[i] + 2 * x[i + 1]) - (x[(i + 2) % 5] - 1) if merged else accumulated(
                accumulated(x[i], x[i + 1], 2), x[(i + 2) % 5] - 1, -1)
            p.addConstraint(body <= i)
        p.setObjective(-tv.Sum(x))
        p.solve()
        return p.getSolution(), p.attributes.objval, p.getProbStatusString()

    assert build(True) == build(False)


def test_operands_without_a_variable_are_refused_cleanly(run_python):
    # A linear term made by __new__ alone has no variable: sums with it raise, never crash.
    out = run_python("""
        import tarvo as tv
        x, y = tv.var(name=""), tv.var(name="")
        e = x + 2 * y
        empty = type(2 * x).__new__(type(2 * x))
        for f in (lambda: empty + e, lambda: e - empty, lambda: e + empty):
            try:
                f()
            except tv.ModelError as err:
                print("refused:", err)
    """)
    assert out.count("refused:") == 3


def test_sum_of_variable_arrays_equals_adding_one_by_one(pool):
    # Arrays of variables are summed by counting occurrences: compare with the sum of the
    # same elements taken from a list, for views, repeats, object arrays and mixed arrays.
    x = np.array(pool[:20], dtype=object).reshape(4, 5).astype(tv.npvar)
    rnd = np.random.default_rng(2)
    repeats = x.ravel()[rnd.integers(0, 20, size=60)]  # out of order, with repeats
    mixed = np.array([pool[0], 2 * pool[1], pool[0], 3.5], dtype=object)
    cases = [x, x.T[::-1, ::2], repeats, repeats.astype(object), x[0, :1], mixed]
    for arr in cases:
        same(tv.Sum(arr), tv.Sum(list(arr.ravel())))
    assert tv.Sum(x[:0]).extractLinear() == ([], [])
    lv, lc = tv.Sum(repeats).extractLinear()
    counts = {id(v): 0 for v in lv}
    for v in repeats:
        counts[id(v)] += 1
    assert lc == [float(counts[id(v)]) for v in lv]


def test_scaling_arrays_of_expressions_matches_element_scaling(pool):
    x = np.array(pool[:6], dtype=object).astype(tv.npvar)
    e = x - x[::-1] * 2 + 1.5
    a = np.array([2.0, -0.5, 0.0, 3.0, 1e-300, -7.0])
    for arr, el in [(e * a, lambda i: e[i] * a[i]), (a * e, lambda i: a[i] * e[i]),
                    (e * 0.25, lambda i: e[i] * 0.25), (e / a[[0, 1, 3, 4, 5, 0]], lambda i: e[i] / a[[0, 1, 3, 4, 5, 0]][i])]:
        for i in range(6):
            same(arr[i], el(i))
    with pytest.raises(tv.ModelError, match="Division by zero"):
        e / a
    with pytest.raises(tv.ModelError, match="Division by zero"):
        e[2] / 0.0
