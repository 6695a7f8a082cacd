"""Property tests of the nonlinear algebra: random trees of +, -, *, /, integer powers, unary
functions and in-place operators over a few variables must evaluate to what the same formula
gives with Python's math at random points; extractLinear of trees that are linear (possibly
through nonlinear nodes that cancel) must agree with central differences."""
import math

import pytest
from hypothesis import HealthCheck, assume, given, settings, strategies as st

import tarvo

X = [tarvo.var(name=n) for n in ("x", "y", "z")]

UNARY = {
    "sin": (tarvo.sin, math.sin), "cos": (tarvo.cos, math.cos), "exp": (tarvo.exp, math.exp),
    "atan": (tarvo.atan, math.atan), "abs": (tarvo.abs, abs), "sqrt": (tarvo.sqrt, math.sqrt),
    "log": (tarvo.log, math.log), "erf": (tarvo.erf, math.erf),
}
BINARY = ["+", "-", "*", "/", "+=", "-=", "*=", "/="]

leaves = st.one_of(
    st.tuples(st.just("var"), st.integers(0, 2)),
    st.tuples(st.just("num"), st.sampled_from([0, 1, -1, 2, 0.5, -3.25, 3])),
)


def extend(kids):
    return st.one_of(
        st.tuples(st.sampled_from(BINARY), kids, kids),
        st.tuples(st.just("pow"), kids, st.integers(0, 3)),
        st.tuples(st.just("ipow"), kids, st.integers(0, 3)),
        st.tuples(st.just("neg"), kids),
        st.tuples(st.sampled_from(sorted(UNARY)), kids),
    )


trees = st.recursive(leaves, extend, max_leaves=10)
points = st.tuples(*[st.floats(-3, 3, allow_nan=False) for _ in X])


class Undefined(Exception):
    pass


def build(t):
    """The tarvo object of a recipe (fresh objects every call, so in-place forms are safe)."""
    kind = t[0]
    if kind == "var":
        return X[t[1]]
    if kind == "num":
        return t[1]
    if kind == "neg":
        return -build(t[1])
    if kind in UNARY:
        return UNARY[kind][0](build(t[1]))
    if kind in ("pow", "ipow"):
        a = build(t[1])
        if kind == "pow":
            return a ** t[2]
        a **= t[2]
        return a
    a, b = build(t[1]), build(t[2])
    try:
        if kind == "+": return a + b
        if kind == "-": return a - b
        if kind == "*": return a * b
        if kind == "/": return a / b
        if kind == "+=": a += b
        elif kind == "-=": a -= b
        elif kind == "*=": a *= b
        elif kind == "/=": a /= b
        return a
    except tarvo.ModelError as e:
        if "Division by zero" in str(e):
            raise Undefined
        raise


def reference(t, p, big):
    """Value with Python floats; big[0] collects the largest intermediate magnitude."""
    kind = t[0]
    if kind == "var":
        v = p[t[1]]
    elif kind == "num":
        v = float(t[1])
    elif kind == "neg":
        v = -reference(t[1], p, big)
    elif kind in UNARY:
        v = UNARY[kind][1](reference(t[1], p, big))
    elif kind in ("pow", "ipow"):
        v = reference(t[1], p, big) ** t[2]
    else:
        a, b = reference(t[1], p, big), reference(t[2], p, big)
        op = kind.rstrip("=")
        v = a + b if op == "+" else a - b if op == "-" else a * b if op == "*" else a / b
    if isinstance(v, complex) or not math.isfinite(v) or abs(v) > 1e12:
        raise Undefined
    big[0] = max(big[0], abs(v))
    return v


@settings(max_examples=300, deadline=None, derandomize=True, suppress_health_check=[HealthCheck.too_slow])
@given(trees, points)
def test_evaluation_matches_python_math(t, p):
    try:
        expected = reference(t, p, big := [1.0])
        obj = build(t)
    except (Undefined, ZeroDivisionError, ValueError, OverflowError):
        assume(False)
    got = tarvo.evaluate(obj, solution=dict(zip(X, p)))
    assert isinstance(got, float)
    assert got == pytest.approx(expected, rel=1e-7, abs=1e-7 * big[0]), str(obj)


# Linear trees: sums, differences, negation, scaling and division by numbers, ** 1, and
# nonlinear nodes that are added and taken away again so that the node paths are exercised.
linear_leaves = st.one_of(
    st.tuples(st.just("var"), st.integers(0, 2)),
    st.tuples(st.just("num"), st.sampled_from([0, 1, -1, 2, 0.5, -3.25])),
)


def extend_linear(kids):
    scale = st.sampled_from([2, -1, 0.5, -3.0, 1])
    return st.one_of(
        st.tuples(st.sampled_from(["+", "-", "+=", "-="]), kids, kids),
        st.tuples(st.just("scale"), kids, scale),
        st.tuples(st.just("div"), kids, scale),
        st.tuples(st.just("neg"), kids),
        st.tuples(st.just("one"), kids),
        st.tuples(st.just("cancel"), kids, st.sampled_from(sorted(UNARY)), st.integers(0, 2)),
    )


linear_trees = st.recursive(linear_leaves, extend_linear, max_leaves=8)


def build_linear(t):
    kind = t[0]
    if kind in ("var", "num"):
        return build(t)
    if kind == "neg":
        return -build_linear(t[1])
    if kind == "scale":
        return build_linear(t[1]) * t[2]
    if kind == "div":
        return build_linear(t[1]) / t[2]
    if kind == "one":
        return build_linear(t[1]) ** 1
    if kind == "cancel":
        node = UNARY[t[2]][0](X[t[3]] + 5)
        s = node + build_linear(t[1])
        s -= UNARY[t[2]][0](X[t[3]] + 5)
        return s
    a, b = build_linear(t[1]), build_linear(t[2])
    if kind == "+": return a + b
    if kind == "-": return a - b
    if kind == "+=":
        a += b
        return a
    a -= b
    return a


@settings(max_examples=150, deadline=None, derandomize=True)
@given(linear_trees, points)
def test_extract_linear_agrees_with_central_differences(t, p):
    obj = build_linear(t)
    if isinstance(obj, (int, float)):
        return
    vars_, coefs = obj.extractLinear()
    coef = {id(v): c for v, c in zip(vars_, coefs)}
    h = 0.5
    for i, v in enumerate(X):
        up, down = list(p), list(p)
        up[i] += h
        down[i] -= h
        f_up = tarvo.evaluate(obj, solution=dict(zip(X, up)))
        f_down = tarvo.evaluate(obj, solution=dict(zip(X, down)))
        assert (f_up - f_down) / (2 * h) == pytest.approx(coef.get(id(v), 0.0), abs=1e-6), str(obj)
