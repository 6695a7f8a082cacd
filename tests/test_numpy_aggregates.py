"""vars(), the npvar/npexpr/npconstraint dtypes with their ufunc loops, and Sum/Prod/Dot."""
import numpy as np
import pytest

import tarvo


def point_for(*arrays, value=None):
    rng = np.random.default_rng(7)
    return {v: (value if value is not None else float(rng.uniform(-2, 2))) for a in arrays for v in np.ravel(a)}


def test_vars_shapes_names_and_bounds():
    x = tarvo.vars(3, 4)
    assert x.shape == (3, 4) and x.dtype == tarvo.npvar
    assert isinstance(x[1, 2], tarvo.var) and x[1, 2].name == "x(1,2)"
    assert len({v for v in x.flat}) == 12
    d = tarvo.vars(["a", "b"], name="y")
    assert isinstance(d, dict) and sorted(d) == ["a", "b"] and d["b"].name == "y(b)"
    m = tarvo.vars(["a", "b"], [1, 2.5], lb=-1, ub=2, vartype=tarvo.integer)
    assert set(m) == {("a", 1), ("a", 2.5), ("b", 1), ("b", 2.5)}
    assert m[("b", 2.5)].name == "x(b,2.5)"
    v = m[("a", 1)]
    assert (v.lb, v.ub, v.vartype) == (-1.0, 2.0, tarvo.integer)
    b = tarvo.vars(2, vartype=tarvo.binary, lb=-3, ub=5)
    assert (b[0].lb, b[0].ub) == (0.0, 1.0)
    single = tarvo.vars(name="s", lb=1, ub=3)
    assert isinstance(single, tarvo.var) and single.name == "s" and single.ub == 3.0
    unnamed = tarvo.vars(2, name="")
    assert not unnamed[0].name.startswith("(")
    assert tarvo.vars((1, 2), {"k"})[(2, "k")].name == "x(2,k)"


def test_vars_errors():
    with pytest.raises(tarvo.ModelError, match="Duplicate entry in vars: <a>"):
        tarvo.vars(["a", "b", "a"])
    with pytest.raises(tarvo.ModelError, match="must be positive"):
        tarvo.vars(0)
    with pytest.raises(tarvo.ModelError, match="empty feasible set"):
        tarvo.vars(lb=5, ub=1)
    with pytest.raises(tarvo.ModelError, match="empty dimension"):
        tarvo.vars([])
    with pytest.raises(tarvo.ModelError, match="must have a tuple of lists, sets"):
        tarvo.vars(i for i in range(3))


def test_elementwise_arithmetic_and_dtypes():
    x = tarvo.vars(3, 4)
    y = tarvo.vars(3, 4, name="y")
    exprs = {
        "x + 1": (x + 1, lambda a, b: a + 1), "1 + x": (1 + x, lambda a, b: 1 + a),
        "2.0 * x": (2.0 * x, lambda a, b: 2 * a), "x * y": (x * y, lambda a, b: a * b),
        "x / 2": (x / 2, lambda a, b: a / 2), "-x": (-x, lambda a, b: -a),
        "x ** 2": (x ** 2, lambda a, b: a ** 2), "x - y": (x - y, lambda a, b: a - b),
        "square": (np.square(x), lambda a, b: a * a), "2 / x": (2 / x, lambda a, b: 2 / a),
        "f32": (np.float32(2) * x, lambda a, b: 2 * a), "i64": (np.int64(3) * x, lambda a, b: 3 * a),
        "x + c": (x + np.arange(4.0), lambda a, b: a + np.arange(4.0)),
        "(x+1)*y": ((x + 1) * y, lambda a, b: (a + 1) * b),
    }
    point = point_for(x, y)
    xv = tarvo.evaluate(x, solution=point)
    yv = tarvo.evaluate(y, solution=point)
    for label, (arr, ref) in exprs.items():
        assert arr.dtype == tarvo.npexpr, label
        assert arr.shape == (3, 4), label
        assert np.allclose(tarvo.evaluate(arr, solution=point), ref(xv, yv)), label
    assert str((x + 1)[0, 0]) == "1 + x(0,0)"
    assert str((x & y)[0, 1]) == "and (x(0,1), y(0,1))" and (x | 1).dtype == tarvo.npexpr


def test_elementwise_comparisons_give_constraint_arrays():
    x = tarvo.vars(3)
    for arr in (x <= 3, 3 >= x, x == np.array([1.0, 2.0, 3.0]), x + 1 >= x * 2):
        assert arr.dtype == tarvo.npconstraint and arr.shape == (3,)
        assert all(isinstance(c, tarvo.constraint) for c in arr)
    c = (x <= np.array([1.0, 2.0, 3.0]))[2]
    assert c.ub == 3.0
    assert (3 >= x)[0].ub == 3.0


def test_casts_between_dtypes_and_object_arrays():
    x = tarvo.vars(4)
    o = x.astype(object)
    assert o.dtype == object and o[2] is x[2]
    e = x.astype(tarvo.npexpr)
    assert e.dtype == tarvo.npexpr and e[1] is x[1]
    back = o.astype(tarvo.npvar)
    assert back.dtype == tarvo.npvar and back[3] is x[3]
    assert x.reshape(2, 2)[1, 0] is x[2] and x.copy()[0] is x[0]
    assert x[::2].tolist() == [x[0], x[2]]


def test_sum_and_prod():
    x = tarvo.vars(5)
    assert str(tarvo.Sum()) == "0" and isinstance(tarvo.Sum(), type(x[0] + 1))
    assert str(tarvo.Sum(1, 2)) == "3"
    assert tarvo.Prod() == 0.0
    s = tarvo.Sum(x[i] ** 2 for i in range(5))
    assert s.extractQuadratic()[2] == [1.0] * 5
    point = point_for(x)
    vals = [point[v] for v in x]
    mixed = tarvo.Sum([x[0], tarvo.sin(x[1]), 2, x[2] * x[3], None, 3 * x[4]])
    assert tarvo.evaluate(mixed, solution=point) == pytest.approx(
        vals[0] + np.sin(vals[1]) + 2 + vals[2] * vals[3] + 3 * vals[4])
    assert tarvo.evaluate(tarvo.Sum({"a": x[0], "b": x[1]}), solution=point) == pytest.approx(vals[0] + vals[1])
    assert tarvo.evaluate(tarvo.Sum(x), solution=point) == pytest.approx(sum(vals))
    arr_sum = tarvo.Sum(np.array([1.0, 2.0]), x[0])
    assert isinstance(arr_sum, np.ndarray) and arr_sum.shape == (2,)
    p = tarvo.Prod([tarvo.sin(x[0]), 2, tarvo.cos(x[1]), 3])
    assert str(p) == "(sin (x(0)) * cos (x(1)) * 6.0)"
    assert tarvo.evaluate(tarvo.Prod(x), solution=point) == pytest.approx(np.prod(vals))
    with pytest.raises(tarvo.ModelError, match="Invalid object in Sum or Prod operators"):
        tarvo.Sum([x[0], "a"])
    with pytest.raises(tarvo.ModelError, match="Incorrect objects used in Sum"):
        tarvo.Sum(np.array(["a", "b"]))


def test_sum_of_many_terms_is_one_object():
    x = tarvo.vars(10000, name="")
    s = tarvo.Sum(x[i] ** 2 for i in range(10000))
    assert len(s.extractQuadratic()[0]) == 10000
    n = tarvo.Sum(tarvo.sin(x[i]) for i in range(1000))
    assert str(n).count("sin") == 1000


def test_dot_products():
    x = tarvo.vars(3, name="w")
    c = np.array([1.0, 2.0, 3.0])
    e = tarvo.Dot(x, c)
    assert e.extractLinear() == ([x[0], x[1], x[2]], [1.0, 2.0, 3.0])
    A = np.arange(6.0).reshape(2, 3)
    Ax = tarvo.Dot(A, x)
    assert Ax.shape == (2,) and Ax.dtype == tarvo.npexpr
    point = point_for(x)
    xv = np.array([point[v] for v in x])
    assert np.allclose(tarvo.evaluate(Ax, solution=point), A @ xv)
    Q = np.array([[2.0, 1.0, 0.0], [1.0, 3.0, 0.0], [0.0, 0.0, 1.0]])
    quad = tarvo.Dot(x, Q, x)
    assert tarvo.evaluate(quad, solution=point) == pytest.approx(xv @ Q @ xv)
    assert quad.extractLinear() == ([], [])
    X = tarvo.vars(3, 2)
    B = np.arange(8.0).reshape(2, 4)
    XB = tarvo.Dot(X, B)
    assert XB.shape == (3, 4)
    pX = point_for(X)
    Xv = np.array([[pX[v] for v in row] for row in X])
    assert np.allclose(tarvo.evaluate(XB, solution=pX), Xv @ B)
    assert np.allclose(tarvo.Dot(A, np.ones(3)), A @ np.ones(3))
    assert tarvo.Dot() == 0.0
    out = np.empty(2, dtype=object)
    assert tarvo.Dot(A, x, out=out) is out and str(out[0]) == str(Ax[0])
    with pytest.raises(tarvo.ModelError, match="Output argument set with wrong type"):
        tarvo.Dot(A, x, out=np.empty(2))
    with pytest.raises(tarvo.ModelError, match="matching sizes"):
        tarvo.Dot(x, np.ones(4))
    with pytest.raises(tarvo.ModelError, match="should only be on NumPy arrays"):
        tarvo.Dot([1, 2], x)
    with pytest.raises(tarvo.ModelError, match="can only occur between NumPy arrays"):
        tarvo.Dot(x, [1, 2, 3])
    with pytest.raises(tarvo.ModelError, match="first one is a scalar"):
        tarvo.Dot(np.array(2.0), x)


def test_dot_of_mixed_modelling_arrays_matches_numbers():
    # Elements of every polynomial kind (with constants, cancelling coefficients, shared
    # operands) and nonlinear ones: the accumulated products must evaluate like the same dot
    # product of numbers, and the operands must be left as they were.
    x = tarvo.vars(4, name="m")
    rng = np.random.default_rng(7)
    left = np.array([x[0], 2 * x[1], x[2] + 3, 1.5, x[3] - x[3] + 2, tarvo.sin(x[0]), x[1] * x[2], 0], dtype=object)
    right = np.array([x[1], x[1] - 1, -x[0], 4 * x[2], x[3], x[2], 2.0, x[0]], dtype=object)
    texts = [str(o) for o in left] + [str(o) for o in right]
    point = point_for(x)
    lv = np.array(tarvo.evaluate(list(left), solution=point))
    rv = np.array(tarvo.evaluate(list(right), solution=point))
    assert tarvo.evaluate(tarvo.Dot(left, right), solution=point) == pytest.approx(lv @ rv)
    assert [str(o) for o in left] + [str(o) for o in right] == texts
    Q = rng.normal(size=(4, 4))
    Q[1, 2] = -Q[2, 1]  # x1*x2 cancels
    quad = tarvo.Dot(x, Q, x)
    xv = np.array([point[v] for v in x])
    assert tarvo.evaluate(quad, solution=point) == pytest.approx(xv @ Q @ xv)
    assert len(quad.extractQuadratic()[0]) == 9  # 4 squares + 5 surviving pairs
    M = np.array([[x[0] + 1, 2 * x[1]], [x[2], 3.0]], dtype=object)
    MM = tarvo.Dot(M, M)
    Mv = np.array([[point[x[0]] + 1, 2 * point[x[1]]], [point[x[2]], 3.0]])
    assert np.allclose(tarvo.evaluate(MM, solution=point), Mv @ Mv)


def test_matmul_operator_and_absolute_on_variable_arrays():
    X = tarvo.vars(3, 2)
    y = tarvo.vars(2, name="y")
    A = np.arange(6.0).reshape(2, 3)
    point = point_for(X, y)
    Xv = tarvo.evaluate(X, solution=point)
    yv = tarvo.evaluate(y, solution=point)
    for expr, ref in ((A @ X, A @ Xv), (X @ y, Xv @ yv), (X @ np.ones(2), Xv @ np.ones(2)),
                      (X.T @ X, Xv.T @ Xv), (abs(X - 1), abs(Xv - 1))):
        assert expr.dtype == tarvo.npexpr and expr.shape == ref.shape
        assert np.allclose(tarvo.evaluate(expr, solution=point), ref)
    inner = y @ y
    assert tarvo.evaluate(inner, solution=point) == pytest.approx(yv @ yv)
    assert tarvo.evaluate(X.sum(), solution=point) == pytest.approx(Xv.sum())


def test_arrays_of_variables_build_and_solve_a_model():
    tarvo.setOutputEnabled(False)
    x = tarvo.vars(3, ub=10)
    A = np.array([[1.0, 2.0, 1.0], [0.0, 1.0, 3.0]])
    rows = tarvo.Dot(A, x) <= np.array([4.0, 6.0])
    assert rows.dtype == tarvo.npconstraint and rows.shape == (2,)
    p = tarvo.problem(x, rows, tarvo.Dot(np.array([1.0, 1.0, 1.0]), x), sense=tarvo.maximize)
    p.solve()
    sol = p.getSolution(x)
    assert np.all(A @ sol <= np.array([4.0, 6.0]) + 1e-7)
    assert sum(sol) == pytest.approx(4.0)  # objective 4 - x1 on the first row
    assert p.getSolution(A @ x) == pytest.approx(A @ sol)
    assert tarvo.evaluate(tarvo.Sum(x), problem=p) == pytest.approx(sum(sol))
