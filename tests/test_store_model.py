"""The engine's matrix store against a dense NumPy mirror.

Random sequences of additions (rows given unsorted, columns spread over existing rows),
coefficient changes that grow, shrink and empty rows, and deletions of rows and columns run on
a problem and on a dense array side by side; after each step the problem's rows, columns,
coefficients and entry count must equal the mirror's. The sequences end with round trips
(save/restore, MPS and LP files) and solves compared with SciPy's solution of the mirror.
"""
import numpy as np
import pytest

import tarvo as tv

scipy_optimize = pytest.importorskip("scipy.optimize")

tv.setOutputEnabled(False)


def rows_of(p):
    m, n = p.attributes.rows, p.attributes.cols
    dense = np.zeros((m, n))
    if m == 0:
        return dense
    start, ind, val = [], [], []
    p.getrows(start, ind, val, p.attributes.elems, 0, m - 1)
    assert start[0] == 0 and start[-1] == len(ind) == len(val)
    for i in range(m):
        cols = [p.getIndex(o) for o in ind[start[i]:start[i + 1]]]
        assert cols == sorted(set(cols)), "row %d not sorted by column or repeats a column" % i
        assert all(v != 0 for v in val[start[i]:start[i + 1]]), "row %d stores a zero" % i
        dense[i, cols] = val[start[i]:start[i + 1]]
    return dense


def cols_of(p):
    m, n = p.attributes.rows, p.attributes.cols
    dense = np.zeros((m, n))
    if n == 0:
        return dense
    start, ind, val = [], [], []
    p.getcols(start, ind, val, p.attributes.elems, 0, n - 1)
    for j in range(n):
        rows = [p.getIndex(o) for o in ind[start[j]:start[j + 1]]]
        dense[rows, j] = val[start[j]:start[j + 1]]
    return dense


def check(p, mirror, rng):
    assert (p.attributes.rows, p.attributes.cols) == mirror.shape
    assert p.attributes.elems == np.count_nonzero(mirror)
    assert np.array_equal(rows_of(p), mirror)
    assert np.array_equal(cols_of(p), mirror)
    m, n = mirror.shape
    for _ in range(5 if m and n else 0):
        i, j = int(rng.integers(m)), int(rng.integers(n))
        assert p.getcoef(i, j) == mirror[i, j]


def random_step(p, mirror, rng):
    """One random operation on both; returns the new mirror."""
    m, n = mirror.shape
    op = rng.choice(["addrows", "addcols", "chgcoef", "chgmcoef", "delrows", "delcols"],
                    p=[0.15, 0.15, 0.25, 0.25, 0.1, 0.1])
    if op == "addrows" or n == 0 or m == 0 and op != "addcols":
        if n == 0:
            p.addcols([1.0], [0], [], [], [0.0], [1.0])
            return np.hstack([mirror, np.zeros((m, 1))])
        k = int(rng.integers(1, 4))
        start, cols, vals, new = [], [], [], np.zeros((k, n))
        for r in range(k):
            start.append(len(cols))
            chosen = rng.permutation(n)[:int(rng.integers(0, min(n, 6) + 1))]  # unsorted
            for j in chosen:
                v = float(rng.integers(-5, 6))  # zeros among them are not stored
                cols.append(int(j))
                vals.append(v)
                new[r, j] = v
        p.addrows(["L"] * k, [float(rng.integers(1, 10)) for _ in range(k)], start, cols, vals)
        return np.vstack([mirror, new])
    if op == "addcols":
        k = int(rng.integers(1, 4))
        start, rows, vals, new = [], [], [], np.zeros((m, k))
        for c in range(k):
            start.append(len(rows))
            for i in rng.permutation(m)[:int(rng.integers(0, min(m, 6) + 1))]:
                v = float(rng.integers(-5, 6))
                rows.append(int(i))
                vals.append(v)
                new[i, c] = v
        p.addcols([float(rng.integers(1, 5)) for _ in range(k)], start, rows, vals, [0.0] * k, [1.0] * k)
        return np.hstack([mirror, new])
    if op == "chgcoef":
        i, j = int(rng.integers(m)), int(rng.integers(n))
        v = 0.0 if rng.random() < 0.3 else float(rng.integers(-9, 10))
        p.chgcoef(i, j, v)
        mirror[i, j] = v
        return mirror
    if op == "chgmcoef":
        # Mostly new entries in a few rows, so rows outgrow their room and move.
        k = int(rng.integers(1, 12))
        rr = [int(x) for x in rng.integers(0, m, k)]
        cc = [int(x) for x in rng.integers(0, n, k)]
        vv = [0.0 if rng.random() < 0.15 else float(rng.integers(1, 9)) for _ in range(k)]
        p.chgmcoef(rr, cc, vv)
        for i, j, v in zip(rr, cc, vv):  # in order: the last change of an entry wins
            mirror[i, j] = v
        return mirror
    if op == "delrows":
        drop = sorted(set(int(x) for x in rng.integers(0, m, int(rng.integers(1, 3)))))
        p.delConstraint(drop)
        return np.delete(mirror, drop, axis=0)
    drop = sorted(set(int(x) for x in rng.integers(0, n, int(rng.integers(1, 3)))))
    if len(drop) == n:
        return mirror
    p.delVariable(drop)
    return np.delete(mirror, drop, axis=1)


def solve_and_compare(p, mirror):
    """Maximise the problem's objective over 0 <= x <= 1, A x <= rhs; compare with SciPy."""
    m, n = mirror.shape
    obj, rhs = [], []
    p.getobj(obj, 0, n - 1)
    if m:
        p.getrhs(rhs, 0, m - 1)
    p.chgobjsense(tv.maximize)
    p.lpoptimize()
    ref = scipy_optimize.linprog(-np.array(obj), A_ub=mirror if m else None, b_ub=rhs if m else None,
                                 bounds=(0, 1), method="highs")
    assert ref.status == 0
    assert p.getProbStatusString() == "lp_optimal"
    assert p.attributes.lpobjval == pytest.approx(-ref.fun, abs=1e-7)
    x = np.array(p.getSolution())
    if m:
        assert np.all(mirror @ x <= np.array(rhs) + 1e-7)


@pytest.mark.parametrize("seed", [1, 2, 3, 4])
def test_random_operations_match_a_dense_mirror(seed, tmp_path):
    rng = np.random.default_rng(seed)
    p = tv.problem()
    mirror = np.zeros((0, 0))
    for step in range(120):
        mirror = random_step(p, mirror, rng)
        check(p, mirror, rng)
        if step % 40 == 39:
            # Solves in the middle: the store handed over as it stands after moves and holes,
            # then changed again (the next steps) and solved warm.
            solve_and_compare(p, mirror)
    solve_and_compare(p, mirror)

    p.save(str(tmp_path / "m.svf"))
    q = tv.problem()
    q.restore(str(tmp_path / "m.svf"))
    check(q, mirror, rng)
    for ext in ("mps", "lp"):
        p.write(str(tmp_path / ("m." + ext)))
        r = tv.problem()
        r.read(str(tmp_path / ("m." + ext)))
        check(r, mirror, rng)
        solve_and_compare(r, mirror)


def test_rows_growing_one_entry_at_a_time_past_compaction():
    """Hundreds of rows each grown by one entry per round (moving and leaving garbage until it
    is compacted), then rows and columns deleted: contents, solves and a copy stay right."""
    rng = np.random.default_rng(7)
    m, n = 400, 40
    p = tv.problem()
    p.addcols(list(rng.integers(1, 5).astype(float) for _ in range(n)), [0] * n, [], [],
              [0.0] * n, [1.0] * n)
    p.addrows(["L"] * m, [float(x) for x in rng.integers(5, 20, m)], list(range(m)),
              [0] * m, [1.0] * m)
    mirror = np.zeros((m, n))
    mirror[:, 0] = 1.0
    for j in range(1, n):
        rows = list(range(m))
        vals = [float(v) for v in rng.integers(1, 5, m)]
        p.chgmcoef(rows, [j] * m, vals)
        mirror[:, j] = vals
        if j % 13 == 0:
            # Emptying entries in the middle of rows leaves holes in them.
            p.chgmcoef(rows[::3], [j - 5] * len(rows[::3]), [0.0] * len(rows[::3]))
            mirror[::3, j - 5] = 0.0
    check(p, mirror, rng)
    solve_and_compare(p, mirror)
    drop_rows, drop_cols = list(range(0, m, 7)), [3, 17, 29]
    p.delConstraint(drop_rows)
    p.delVariable(drop_cols)
    mirror = np.delete(np.delete(mirror, drop_rows, axis=0), drop_cols, axis=1)
    check(p, mirror, rng)
    solve_and_compare(p, mirror)
    # Adding a column over every row after the deletions, and a copy of the whole problem.
    m2 = mirror.shape[0]
    p.addcols([3.0], [0], list(range(m2)), [1.0] * m2, [0.0], [1.0])
    mirror = np.hstack([mirror, np.ones((m2, 1))])
    check(p, mirror, rng)
    check(p.copy(), mirror, rng)
    solve_and_compare(p, mirror)


def test_column_entries_repeated_within_a_column_are_summed():
    p = tv.problem()
    p.addcols([1.0, 1.0], [0, 0], [], [], [0.0, 0.0], [1.0, 1.0])
    p.addrows(["L", "L"], [1.0, 1.0], [0, 1], [0, 1], [1.0, 1.0])
    # Column 2: row 0 twice (3 + 4), row 1 twice summing to zero (not stored).
    p.addcols([1.0], [0], [0, 1, 0, 1], [3.0, 2.0, 4.0, -2.0], [0.0], [1.0])
    mirror = np.array([[1.0, 0.0, 7.0], [0.0, 1.0, 0.0]])
    check(p, mirror, np.random.default_rng(0))
    # In one call: a column whose repeated entries cancel in a row that the next column also
    # reaches (the cancelled entry is no longer the row's last when the next one arrives).
    p.addcols([1.0, 1.0], [0, 2], [1, 1, 1], [5.0, -5.0, 2.0], [0.0, 0.0], [1.0, 1.0])
    mirror = np.hstack([mirror, np.array([[0.0, 0.0], [0.0, 2.0]])])
    check(p, mirror, np.random.default_rng(0))
