"""Array arithmetic and comparisons give exactly what the same operators give element by element.

The elementwise loops build comparisons with numbers directly, reuse the float they hand to the
operators, and expressions keep their first terms inside the object: none of this may change a
coefficient, a constant, a bound, a body or a reference count.
"""
import operator
import sys

import numpy as np
import pytest

import tarvo as tv


def describe(o):
    """Type, variables (by identity), coefficients and constant of a modelling object or number:
    equal descriptions mean equal objects. Variables compare by id, since == builds a constraint."""
    if isinstance(o, (int, float)):
        return ("number", float(o))
    kind = type(o).__name__
    if kind == "var":
        return ("var", id(o))
    if kind == "nonlinear":
        return ("nonlinear", str(o))
    lv, lc = o.extractLinear()
    q1, q2, qc = o.extractQuadratic()
    zero = {v: 0.0 for v in list(lv) + list(q1) + list(q2)}
    constant = tv.evaluate(o, solution=zero) if kind == "expression" else 0.0
    return (kind, [id(v) for v in lv], lc, [id(v) for v in q1], [id(v) for v in q2], qc, constant)


def describe_constraint(c):
    assert type(c) is tv.constraint
    return (c.lb, c.ub, describe(c.body))


@pytest.fixture(scope="module")
def data():
    rng = np.random.default_rng(7)
    x = tv.vars(3, 4, lb=-10, name="")
    y = tv.vars(3, 4, lb=-10, name="")
    a = rng.integers(-3, 4, size=(3, 4)).astype(float) * rng.choice([1.0, 0.5, 0.1], size=(3, 4))
    return x, y, a


# Each case builds an array from (X, Y, A) with the operators only, so that it runs on whole
# arrays and, with scalars, on single elements.
CASES = {
    "difference": lambda X, Y, A: X - Y,
    "scaled": lambda X, Y, A: (X - Y) / 3.0 - 0.25 * (X + Y),
    "array coefficients": lambda X, Y, A: A * X + Y - A,
    "constant first": lambda X, Y, A: 1.5 - (X + A) * 2,
    "cancelling": lambda X, Y, A: (X + Y + X) - 2 * X - Y + A,
    "stencil": lambda X, Y, A: (Y - X) / 0.3 - 0.5 * (X - 2 * Y + X * A + Y + 3 * X - Y) / 0.01,
    "past inline room": lambda X, Y, A: (X + 2 * Y + 3 * X + A * Y + 5 * X + 6 * Y + 7 * X + 8 * Y
                                          + 9 * X + 10 * Y - X * 25 - Y * (A + 36)),
    "quadratic": lambda X, Y, A: (X - Y) * (X + A) + Y * Y,
    "nonlinear": lambda X, Y, A: A / (X - Y + 100),
    "power": lambda X, Y, A: (X + 1) ** (A + 3),
    "negative": lambda X, Y, A: -(X - A * Y),
}


def elementwise(case, x, y, a):
    out = np.empty(x.shape, dtype=object)
    for idx in np.ndindex(x.shape):
        out[idx] = case(x[idx], y[idx], float(a[idx]))
    return out


@pytest.mark.parametrize("name", list(CASES))
def test_array_arithmetic_equals_the_elementwise_operators(data, name):
    x, y, a = data
    case = CASES[name]
    whole = case(x, y, a)
    single = elementwise(case, x, y, a)
    assert whole.shape == x.shape
    assert [describe(o) for o in whole.flat] == [describe(o) for o in single.flat]


def test_doubles_handed_to_operators_that_keep_them_stay_distinct(data):
    # A nonlinear node keeps the float it was given: each element must keep its own value even
    # though the loop reuses a float that nobody kept.
    x, _, a = data
    exps = np.arange(12, dtype=float).reshape(3, 4) + 3.0
    nodes = x ** exps
    point = {v: 2.0 for v in x.flat}
    assert tv.evaluate(nodes, solution=point).tolist() == (2.0 ** exps).tolist()
    ratios = a / x
    assert tv.evaluate(ratios, solution=point).tolist() == (a / 2.0).tolist()
    scalar = 5.0 / x  # one float broadcast to every element
    assert tv.evaluate(scalar, solution=point).tolist() == np.full((3, 4), 2.5).tolist()


COMPARISONS = [operator.le, operator.ge, operator.eq]


@pytest.mark.parametrize("op", COMPARISONS, ids=["le", "ge", "eq"])
@pytest.mark.parametrize("rhs", ["array", "scalar", "integers"])
def test_comparisons_with_numbers_equal_the_elementwise_constraints(data, op, rhs):
    x, y, a = data
    e = 2 * x - y + a  # expressions with constants
    b = {"array": a * 3 - 1, "scalar": 4.5, "integers": np.arange(12).reshape(3, 4)}[rhs]
    bb = np.broadcast_to(np.asarray(b, dtype=float), x.shape)
    forward = op(e, b)
    assert forward.dtype == tv.npconstraint
    want = [describe_constraint(op(e[idx], float(bb[idx]))) for idx in np.ndindex(x.shape)]
    assert [describe_constraint(c) for c in forward.flat] == want
    # The number on the left: NumPy passes the doubles first, Python reflects the comparison.
    backward = op(bb.copy(), e)
    want_back = [describe_constraint(op(float(bb[idx]), e[idx])) for idx in np.ndindex(x.shape)]
    assert [describe_constraint(c) for c in backward.flat] == want_back


def test_comparisons_of_mixed_element_arrays_fall_back_to_each_elements_own_operator(data):
    x, y, _ = data
    v = x[0, 0]
    mixed = np.array([v, 2 * v, v * v, v + 1, tv.exp(v), (v + 1) - v, v * v + v], dtype=tv.npexpr)
    b = np.array([1.0, -2.0, 0.0, 3.5, 1.0, 2.0, -1.0])
    for op in COMPARISONS:
        got = [describe_constraint(c) for c in op(mixed, b)]
        want = [describe_constraint(op(m, float(k))) for m, k in zip(mixed, b)]
        assert got == want


def test_array_operations_leave_reference_counts_as_they_found_them(data):
    x, y, a = data
    v = x[1, 2]
    before = sys.getrefcount(v)
    for _ in range(3):
        e = 2 * x - y + a
        c = e >= a
        d = (e * 2 + x - x * 3 + y + y + y + y + y + y + y) <= 1.0
        q = (e * e) == 0
        del e, c, d, q
    assert sys.getrefcount(v) == before


def test_expressions_that_outgrow_their_inline_room_keep_copy_semantics():
    x = [tv.var(name="x%d" % i) for i in range(20)]
    e = x[0] - x[1]
    f = e  # the same object: in-place changes show through it
    for i in range(2, 20):
        e += (i % 5 - 2) * x[i]
    assert f is e
    g = e + x[0]  # a copy: e is unchanged
    assert describe(e)[2][0] == 1.0 and describe(g)[2][0] == 2.0
    e += e
    assert describe(e)[2] == [2 * c for c in describe(g - x[0])[2]]
    e -= e
    assert str(e) == "0"
    h = tv.Sum(x) - tv.Sum(x[::-1])
    assert h.extractLinear() == ([], [])


def test_expression_objects_made_by_new_and_by_subclasses_free_cleanly(run_python):
    out = run_python("""
        import gc
        import tarvo as tv
        x, y = tv.var(name="x"), tv.var(name="y")
        E = type(x - y)
        e = E.__new__(E)
        e += x
        e += 2 * y
        class Sub(E):
            pass
        s = Sub.__new__(Sub)
        s += x
        for i in range(20):
            s += tv.var()
        print(str(e), len(s.extractLinear()[0]))
        del e, s
        gc.collect()
        print("ok")
    """)
    assert out.split("\n")[:2] == ["  x +2 y 21", "ok"]


def stencil_model(n, arrays):
    """A small heat-equation control model written with arrays or element by element."""
    p = tv.problem()
    h, dt = 1.0 / n, 0.5 / n
    target = np.linspace(0.5, 0.0, n + 1)
    if arrays:
        y = tv.vars(n + 1, n + 1, ub=1, name="")
        u = tv.vars(n, lb=-1, ub=1, name="")
        p.addVariable(y, u)
        c = y[:-1, 1:-1]
        p.addConstraint((y[1:, 1:-1] - c) / dt - 0.5 * (y[:-1, :-2] - 2 * c + y[:-1, 2:] + y[1:, :-2]
                                                         - 2 * y[1:, 1:-1] + y[1:, 2:]) / (h * h) == 0)
        p.addConstraint(y[0, :] == 0)
        p.addConstraint(y[1:, n] - u >= -0.25)
        e = y[n, :] - target
        p.setObjective(tv.Sum(e * e) + 0.01 * tv.Sum(u * u))
        return p
    y = [[tv.var(ub=1, name="") for _ in range(n + 1)] for _ in range(n + 1)]
    u = [tv.var(lb=-1, ub=1, name="") for _ in range(n)]
    p.addVariable(y, u)
    rows = [(y[i + 1][j] - y[i][j]) / dt - 0.5 * (y[i][j - 1] - 2 * y[i][j] + y[i][j + 1] + y[i + 1][j - 1]
                                                   - 2 * y[i + 1][j] + y[i + 1][j + 1]) / (h * h) == 0
            for i in range(n) for j in range(1, n)]
    rows += [y[0][j] == 0 for j in range(n + 1)]
    rows += [y[i + 1][n] - u[i] >= -0.25 for i in range(n)]
    p.addConstraint(rows)
    p.setObjective(tv.Sum((y[n][j] - target[j]) * (y[n][j] - target[j]) for j in range(n + 1))
                   + 0.01 * tv.Sum(u[i] * u[i] for i in range(n)))
    return p


def rows_of(p):
    m = p.attributes.rows
    start, ind, val = [], [], []
    p.getrows(start, ind, val, 10 * m, 0, m - 1)
    rhs, types = [], []
    p.getrhs(rhs, 0, m - 1)
    p.getrowtype(types, 0, m - 1)
    return start, [p.getIndex(v) for v in ind], val, rhs, types


def test_array_and_element_built_models_are_the_same_model():
    a, b = stencil_model(6, True), stencil_model(6, False)
    assert rows_of(a) == rows_of(b)
    a.solve()
    b.solve()
    assert a.getProbStatusString() == b.getProbStatusString()
    assert a.attributes.objval == b.attributes.objval
    assert a.getSolution() == b.getSolution()


# ---------------------------------------------------------------- quadratic forms

def dense_quadratic(expr, index, n):
    """The upper-triangular matrix U of the quadratic part (x'Ux), from extractQuadratic."""
    u = np.zeros((n, n))
    v1, v2, c = expr.extractQuadratic()
    pairs = set()
    for a, b, k in zip(v1, v2, c):
        i, j = index[id(a)], index[id(b)]
        assert i <= j and (i, j) not in pairs and k != 0.0
        pairs.add((i, j))
        u[i, j] = k
    return u


def upper(q):
    return np.triu(q + q.T) - np.diag(np.diag(q))


@pytest.mark.parametrize("n", [4, 40])
def test_quadratic_forms_equal_the_dense_computation(n):
    rng = np.random.default_rng(n)
    q = rng.standard_normal((n, n))
    x = tv.vars(n, name="")
    index = {id(v): i for i, v in enumerate(x)}
    order = rng.permutation(n * n)
    forms = {
        "Dot": tv.Dot(x, q, x),
        "matmul": x @ q @ x,
        "shuffled Sum": tv.Sum(float(q[k // n, k % n]) * x[k // n] * x[k % n] for k in order),
        "product of sums": tv.Sum(float(q[i, j]) * x[i] for i in range(n) for j in [0])
                           * tv.Sum(x[j] for j in range(n)),
    }
    for name, form in forms.items():
        got = dense_quadratic(form, index, n)
        want = upper(q) if name != "product of sums" else upper(np.outer(q[:, 0], np.ones(n)))
        assert got == pytest.approx(want, rel=1e-12, abs=1e-12), name
        point = rng.standard_normal(n)
        value = tv.evaluate(form, solution={v: float(p) for v, p in zip(x, point)})
        wmat = q if name != "product of sums" else np.outer(q[:, 0], np.ones(n))
        assert value == pytest.approx(point @ wmat @ point, rel=1e-9)


@pytest.mark.parametrize("n", [6, 3000])
def test_quadratic_sums_in_any_order_equal_term_by_term_addition(n):
    # Small quadratic parts insert in place, large ones sort their pending terms once: either
    # way the coefficients are the sums in the order the terms came, and exact zeros vanish.
    x = [tv.var() for _ in range(40)]
    rnd = np.random.default_rng(n)
    terms = [(float(rnd.choice([1.0, -1.0, 0.5, 3.0])), int(rnd.integers(40)), int(rnd.integers(40)))
             for _ in range(n)]
    terms += [(-c, j, i) for c, i, j in terms[: n // 3]]  # some cancel, written the other way round
    e = tv.Sum(c * x[i] * x[j] for c, i, j in terms)
    acc = x[0] - x[0]
    for c, i, j in terms:
        acc += c * x[i] * x[j]
    ref = {}
    for c, i, j in terms:
        key = (min(i, j), max(i, j))
        k = ref.get(key, 0.0) + c
        if k == 0.0:
            ref.pop(key, None)
        else:
            ref[key] = k
    index = {id(v): i for i, v in enumerate(x)}
    for expr in (e, acc, 2.0 * e / 2.0):
        v1, v2, c = expr.extractQuadratic()
        got = [(index[id(a)], index[id(b)]) for a, b in zip(v1, v2)]
        assert got == sorted(ref)
        assert c == [ref[k] for k in got]


def test_scaling_a_quadratic_part_drops_products_that_vanish():
    x, y, z = tv.var(name="x"), tv.var(name="y"), tv.var(name="z")
    e = 1e-200 * x * y + 1.0 * y * z + 3 * x
    f = e * 1e-200  # x*y underflows to 0 and leaves; y*z stays
    assert [str(v) for v in f.extractQuadratic()[0]] == ["y"]
    e *= 1e-200
    assert e.extractQuadratic()[2] == [1e-200]
    assert str(e * 0) == "0"


def test_quadratic_parts_release_their_variables():
    x = tv.vars(30, name="")
    v = x[3]
    before = sys.getrefcount(v)
    for _ in range(2):
        a = tv.Dot(x, np.ones((30, 30)), x)
        b = a - tv.Dot(x, np.ones((30, 30)), x)  # every term cancels
        c = (x[3] - 1) * (x[3] + x[4]) * 2.5
        d = np.array([x[3] * x[5]] * 40, dtype=object).sum()
        assert b.extractQuadratic() == ([], [], [])
        del a, b, c, d
    assert sys.getrefcount(v) == before
