"""Reference ownership of nonlinear trees, aggregates, dtype loops and evaluation: every
variable reference taken is given back, also on failures."""
import gc
import sys

import numpy as np
import pytest

import tarvo


def build_everything(x, y, z, v):
    objs = [
        tarvo.sin(x) * 2, tarvo.sin(x) + y + tarvo.cos(z), x ** 3, x / y, x * y * z,
        tarvo.max(x, y, z), tarvo.And([x, y]), tarvo.pwl({(0, 1): x, (1, 2): 2 * x - 1}),
        tarvo.user(lambda a, b: a + b, x, y), abs(tarvo.sin(x)), tarvo.sin(x) & y, -tarvo.exp(x),
        tarvo.Sum(v[i] ** 2 for i in range(4)), tarvo.Prod([tarvo.sin(x), 2, y, 3]),
        tarvo.Dot(v, np.arange(4.0)), tarvo.Dot(v, np.eye(4), v), v + 1, 2 * v, v <= 3, v * v, np.eye(4) @ v,
        tarvo.sin(v), tarvo.sin(np.array([x, 1.0], dtype=object)), (tarvo.sin(x) + y).extractLinear(),
    ]
    s = tarvo.sin(x) + y
    s += tarvo.cos(z) + 3 * x
    s -= s
    s *= 2
    p = tarvo.sin(x) * y
    p *= tarvo.cos(y) * 3
    d = tarvo.sin(x) / y
    d /= z
    w = tarvo.sin(x) ** 2
    w **= 3
    objs += [s, p, d, w]
    point = {x: 0.5, y: 1.5, z: 2.0}
    point.update({a: 1.0 for a in v})
    tarvo.evaluate(objs[:12] + [objs[12], v * 2], solution=point)
    str(objs)
    return objs


def test_trees_release_their_operands():
    x, y, z = (tarvo.var(name=n) for n in "xyz")
    v = tarvo.vars(4)
    build_everything(x, y, z, v)  # warm up caches
    gc.collect()
    base = [sys.getrefcount(o) for o in (x, y, z, v[0])]
    objs = build_everything(x, y, z, v)
    assert sys.getrefcount(x) > base[0]
    del objs
    gc.collect()
    assert [sys.getrefcount(o) for o in (x, y, z, v[0])] == base


def test_failures_release_their_operands():
    x, y = tarvo.var(name="x"), tarvo.var(name="y")
    n = tarvo.sin(x) + y
    gc.collect()
    base = (sys.getrefcount(x), sys.getrefcount(y), sys.getrefcount(n))
    failing = [
        lambda: n + "a", lambda: n / 0, lambda: n ** np.ones(2), lambda: tarvo.sin([x]),
        lambda: tarvo.max(), lambda: tarvo.pwl({(0, 2): x, (1, 3): x}), lambda: tarvo.Sum([x, "a"]),
        lambda: tarvo.Dot(np.ones(3), np.array([x, y])), lambda: tarvo.evaluate(n + x, solution={x: 1}),
        lambda: tarvo.evaluate(n / (y - y + x - x), solution={x: 1, y: 2}),
        lambda: tarvo.evaluate(tarvo.user(lambda a: 1 / 0, x), solution={x: 1}),
        lambda: np.array([x, y], dtype=object).astype(tarvo.npvar) + np.array(["a", "b"], dtype=object),
    ]
    for f in failing:
        with pytest.raises(Exception):
            f()
    gc.collect()
    assert (sys.getrefcount(x), sys.getrefcount(y), sys.getrefcount(n)) == base
