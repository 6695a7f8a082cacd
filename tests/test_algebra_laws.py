"""Algebra laws checked by evaluation: every polynomial result must have the value that the same
operations give on plain floats at a random point."""
import math

import pytest
from hypothesis import given, settings, strategies as st

import tarvo

X = [tarvo.var(name=n) for n in ("x", "y", "z")]

leaves = st.one_of(
    st.tuples(st.just("var"), st.integers(0, 2)),
    st.tuples(st.just("num"), st.sampled_from([0, 1, -1, 2, 0.5, -3.25, 7])),
)
ops = st.sampled_from(["+", "-", "*", "/", "neg", "pow", "+=", "-=", "*=", "/="])
trees = st.recursive(leaves, lambda kids: st.tuples(ops, kids, kids), max_leaves=12)
points = st.tuples(*[st.floats(-4, 4, allow_nan=False) for _ in X])


def value_of(o, point):
    """Value of a number, var, linterm, quadterm or expression at point."""
    if isinstance(o, (int, float)):
        return float(o)
    vals = {id(v): p for v, p in zip(X, point)}
    lv, lc = o.extractLinear()
    q1, q2, qc = o.extractQuadratic()
    constant = -(o == 0).lb  # the comparison moves the constant to the right-hand side
    return (constant + sum(c * vals[id(v)] for v, c in zip(lv, lc))
            + sum(c * vals[id(a)] * vals[id(b)] for a, b, c in zip(q1, q2, qc)))


def apply(op, a, b):
    if op == "+":
        return a + b
    if op == "-":
        return a - b
    if op == "*":
        return a * b
    if op == "/":
        return a / b
    if op == "neg":
        return -a
    if op == "pow":
        return a ** 2
    if op == "+=":
        a += b
    elif op == "-=":
        a -= b
    elif op == "*=":
        a *= b
    elif op == "/=":
        a /= b
    return a


def copy_of(o):
    # in-place operators change expressions: work on a copy so the subtrees stay valid
    return o * 1 if type(o).__name__ == "expression" else o


def build(tree, point):
    """(tarvo object, float value) of a tree; a subtree leaving the quadratic world is pruned."""
    kind = tree[0]
    if kind == "var":
        return X[tree[1]], point[tree[1]]
    if kind == "num":
        return tree[1], float(tree[1])
    op, left, right = tree
    a, va = build(left, point)
    b, vb = build(right, point)
    if op in ("/", "/=") and (not isinstance(b, (int, float)) or b == 0):
        return a, va
    try:
        r = apply(op, copy_of(a), b)
    except tarvo.ModelError:  # products of degree > 2 become nonlinear nodes
        return a, va
    if type(r).__name__ == "nonlinear":
        return a, va
    vr = {"+": va + vb, "-": va - vb, "*": va * vb, "/": va / vb if vb else 0, "neg": -va,
          "pow": va * va}[op.rstrip("=") if op != "pow" else op]
    return r, vr


@settings(max_examples=400, deadline=None)
@given(trees, points)
def test_results_evaluate_like_floats(tree, point):
    obj, expected = build(tree, point)
    got = value_of(obj, point)
    assert math.isclose(got, expected, rel_tol=1e-9, abs_tol=1e-9)


@settings(max_examples=200, deadline=None)
@given(trees, points)
def test_operands_are_not_changed_by_binary_operators(tree, point):
    obj, _ = build(tree, point)
    before = value_of(obj, point), str(obj)
    for other in (X[0], 2 * X[1], X[0] + X[2], 3):
        for op in ("+", "-", "*"):
            try:
                apply(op, obj, other)
                apply(op, other, obj)
            except tarvo.ModelError:
                pass
    assert (value_of(obj, point), str(obj)) == before


@pytest.mark.parametrize("k", [0, 1, 2])
def test_terms_keep_serial_order_whatever_the_operand_order(k):
    a, b = X[k], X[(k + 1) % 3]
    lo, hi = sorted((a, b), key=lambda v: X.index(v))
    assert (a * b).extractQuadratic()[:2] == ([lo], [hi]) == (b * a).extractQuadratic()[:2]
    e = b + a
    assert e.extractLinear()[0] == [lo, hi]
