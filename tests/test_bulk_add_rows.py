"""Constraints added in bulk load exactly the rows the low-level row loader gives for the same
coefficients, whatever the operands' dtypes, strides or nesting, and a bulk add that fails on
one element leaves the problem as it was."""
import numpy as np
import pytest

import tarvo as tv

SHAPE = (4, 6)


def rows_of(p):
    """Matrix (by column index), right-hand sides, ranges and row types of all rows."""
    m = p.attributes.rows
    start, ind, val = [], [], []
    p.getrows(start, ind, val, 20 * m + 1, 0, m - 1)
    rhs, rng, types = [], [], []
    p.getrhs(rhs, 0, m - 1)
    p.getrhsrange(rng, 0, m - 1)
    p.getrowtype(types, 0, m - 1)
    cols = [i if isinstance(i, int) else p.getIndex(i) for i in ind]
    return list(start), cols, list(val), rhs, rng, types


def reference(blocks, ncols):
    """A problem loaded through addrows from (type, coefficient matrix, rhs) blocks."""
    q = tv.problem()
    q.addVariable(tv.vars(ncols, lb=-10, name=""))
    for rowtype, dense, rhs in blocks:
        start, ind, val = [0], [], []
        for row in dense:
            nz = np.flatnonzero(row)
            ind += nz.tolist()
            val += row[nz].tolist()
            start.append(len(ind))
        q.addrows([rowtype] * len(dense), list(rhs), start, ind, val)
    return q


@pytest.fixture
def model():
    x = tv.vars(*SHAPE, lb=-10, name="")
    y = tv.vars(*SHAPE, lb=-10, name="")
    p = tv.problem()
    p.addVariable(x, y)
    return p, x, y


def dense_block(coef_x, coef_y):
    """Rows over the columns (x, y) flattened, one row per element, with the given coefficients."""
    n = x_size = coef_x.size
    out = np.zeros((n, 2 * x_size))
    out[np.arange(n), np.arange(n)] = coef_x.ravel()
    out[np.arange(n), x_size + np.arange(n)] = coef_y.ravel()
    return out


def test_array_comparisons_load_the_rows_given_by_their_coefficients(model):
    p, x, y = model
    rng = np.random.default_rng(3)
    a = rng.integers(-3, 4, size=SHAPE).astype(np.float64)
    b = rng.integers(1, 5, size=SHAPE).astype(np.int32)  # integer dtype
    r = rng.normal(size=SHAPE).astype(np.float32)          # single precision right-hand side
    k = 1.5 * np.ones(SHAPE)
    p.addConstraint(a * x + b * y >= r.astype(np.float64))       # floats and integers mixed
    p.addConstraint((x - 2 * y + k) <= r)                         # constant moves to the rhs
    p.addConstraint(x.T[::2] + y.T[::2] == 3)                     # transposed, strided views
    p.addConstraint([x[i, j] - y[i, j] >= i * j for i in range(SHAPE[0]) for j in range(SHAPE[1])])
    ncols = 2 * x.size
    ones = np.ones(SHAPE)
    strided = np.zeros(SHAPE, dtype=bool)
    strided.T[::2] = True
    order = np.arange(x.size).reshape(SHAPE).T[::2].ravel()  # flat element numbers of the view
    view_rows = np.zeros((order.size, ncols))
    view_rows[np.arange(order.size), order] = 1
    view_rows[np.arange(order.size), x.size + order] = 1
    blocks = [
        ("G", dense_block(a, b.astype(float)), r.astype(np.float64).ravel()),
        ("L", dense_block(ones, -2 * ones), (r.astype(np.float64) - k).ravel()),
        ("E", view_rows, np.full(order.size, 3.0)),
        ("G", dense_block(ones, -ones), np.outer(np.arange(SHAPE[0]), np.arange(SHAPE[1])).ravel().astype(float)),
    ]
    got, want = rows_of(p), rows_of(reference(blocks, ncols))
    assert got[0] == want[0] and got[1] == want[1]
    assert got[2] == pytest.approx(want[2], abs=0, rel=1e-15)
    assert got[3] == pytest.approx(want[3], abs=1e-15, rel=1e-15)
    assert got[5] == want[5]


def test_bodies_of_every_kind_in_one_call_keep_their_rows_in_order(model):
    # A variable alone, a quadratic body and a constant-only body go by the general path,
    # linear expressions by the direct one: interleaved, each row keeps its place.
    p, x, y = model
    rows = [x[0, 0] - y[0, 0] >= 1, x[0, 1] <= 2, x[0, 2] * y[0, 2] + x[0, 3] <= 5,
            2 * y[1, 1] == 4, tv.constraint(body=x[1, 2] + 0 * y[1, 2], lb=-1, ub=3)]
    p.addConstraint(np.array(rows, dtype=object))
    start, cols, vals, rhs, rng, types = rows_of(p)
    col = p.getIndex
    assert types == ["G", "L", "L", "E", "R"]
    assert rhs == [1, 2, 5, 4, 3] and rng[4] == 4
    assert start == [0, 2, 3, 4, 5, 6]
    assert cols == [col(x[0, 0]), col(y[0, 0]), col(x[0, 1]), col(x[0, 3]), col(y[1, 1]), col(x[1, 2])]
    assert vals == [1, -1, 1, 1, 2, 1]
    q1, q2, qv = [], [], []
    p.getqrowqmatrixtriplets(2, q1, q2, qv)
    assert sorted([p.getIndex(q1[0]), p.getIndex(q2[0])]) == sorted([col(x[0, 2]), col(y[0, 2])])
    assert qv == [0.5]
    for r in (0, 1, 3, 4):
        assert p.getqrowqmatrixtriplets(r, [], [], []) in (0, None)


@pytest.mark.parametrize("wrap", [
    lambda cs: cs,                                   # array
    lambda cs: list(cs.ravel()),                     # flat list
    lambda cs: [list(r) for r in cs],                # nested lists (size known one level down)
    lambda cs: (c for c in cs.ravel()),              # generator (size unknown)
    lambda cs: {i: c for i, c in enumerate(cs.ravel())},
], ids=["array", "list", "nested", "generator", "dict"])
def test_every_container_adds_all_its_rows(model, wrap):
    p, x, y = model
    p.addConstraint(wrap(x + y >= 1))
    assert p.attributes.rows == x.size
    start, cols, vals, rhs, rng, types = rows_of(p)
    assert len(start) == x.size + 1 and start[-1] == 2 * x.size
    assert set(types) == {"G"} and rhs == [1.0] * x.size
    # The row map knows every constraint: each reads back its own row.
    assert [p.getIndex(c) for c in p.getConstraint()] == list(range(x.size))


def test_an_error_mid_array_leaves_the_problem_unchanged(model):
    p, x, y = model
    p.addConstraint(x[0] >= 0)
    before = rows_of(p)
    stranger = tv.var(name="")
    good = list((x[1] + y[1] <= 4).ravel())
    for bad in ([*good[:3], stranger + x[2, 0] >= 1, *good[3:]],       # variable not in the problem
                [*good[:3], stranger * x[2, 0] >= 1, *good[3:]],       # the same in a quadratic body
                [*good[:3], good[1], *good[3:]],                      # one constraint twice
                [*good[:3], "x >= 1", *good[3:]]):                    # not a constraint
        with pytest.raises(tv.ModelError):
            p.addConstraint(bad)
        assert rows_of(p) == before
        assert p.attributes.rows == SHAPE[1]
    # The constraints of the failed calls are free to be added afterwards, each once.
    p.addConstraint(good)
    assert p.attributes.rows == 2 * SHAPE[1]
    assert [p.getIndex(c) for c in good] == list(range(SHAPE[1], 2 * SHAPE[1]))
    with pytest.raises(tv.ModelError, match="already added"):
        p.addConstraint(good[0])


def test_variables_added_in_bulk_map_to_consecutive_columns():
    x = tv.vars(3, 5, name="")
    z = [tv.var(name="z%d" % i) for i in range(4)]
    p = tv.problem()
    p.addVariable(x.T, (v for v in z[:2]), {0: z[2], 1: z[3]})
    order = list(x.T.ravel()) + z
    assert [p.getIndex(v) for v in order] == list(range(len(order)))
    with pytest.raises(tv.ModelError, match="already added"):
        p.addVariable(tv.var(name=""), z[1])
    assert p.attributes.cols == len(order)  # the failed call added nothing
