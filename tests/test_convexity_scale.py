"""The convexity check of quadratic objectives on large models: component splitting, dense and
sparse factorisations, singular semidefinite matrices accepted, indefinite ones refused."""
import numpy as np
import pytest

import tarvo as tv

NONCONVEX = "determined to be nonconvex"


pytestmark = pytest.mark.usefixtures("quiet")


def accepted(q, sense=tv.minimize):
    """Whether solve() accepts x'Qx: the columns are fixed, so only the check decides."""
    x = tv.vars(q.shape[0], lb=0, ub=0)
    p = tv.problem(x)
    rows, cols = np.nonzero(np.triu(q))
    p.setObjective(tv.Sum((1 if i == j else 2) * q[i, j] * x[i] * x[j]
                          for i, j in zip(rows.tolist(), cols.tolist())), sense=sense)
    try:
        p.solve()
    except tv.SolverError as e:
        assert NONCONVEX in str(e)
        assert p.getProbStatus() == tv.lp_nonconvex
        return False
    return True


def test_portfolio_of_5000_assets_with_sector_factor_covariance_solves():
    # 100 sectors of 50 assets: each sector's covariance is a dense rank-one sector factor plus a
    # small specific variance, far from diagonally dominant; 5,000 touched columns in all.
    rng = np.random.default_rng(3)
    sectors, per = 100, 50
    n = sectors * per
    x = tv.vars(n, lb=0)
    blocks = []
    risk = 0
    for s in range(sectors):
        load = rng.uniform(0.5, 1.5, per)
        cov = 0.04 * np.outer(load, load) + np.diag(rng.uniform(0.001, 0.01, per))
        blocks.append(cov)
        risk = risk + tv.Dot(x[s * per:(s + 1) * per], cov, x[s * per:(s + 1) * per])
    mu = rng.uniform(0.02, 0.12, n)
    p = tv.problem(x, tv.Sum(x) == 1, risk - 0.01 * tv.Dot(mu, x))
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    w = np.array(p.getSolution(x))
    assert w.sum() == pytest.approx(1, abs=1e-6) and (w >= -1e-7).all()
    value = sum(w[s * per:(s + 1) * per] @ c @ w[s * per:(s + 1) * per]
                for s, c in enumerate(blocks)) - 0.01 * mu @ w
    assert p.getObjVal() == pytest.approx(value, abs=1e-7)
    # No better than the optimum: equal weights and the best single asset.
    even = np.full(n, 1.0 / n)
    assert p.getObjVal() <= sum(even[:per] @ c @ even[:per] for c in blocks) - 0.01 * mu @ even
    assert p.getObjVal() <= min(c[i, i] - 0.01 * mu[s * per + i]
                                for s, c in enumerate(blocks) for i in range(per))


def test_singular_semidefinite_objectives_are_accepted():
    rng = np.random.default_rng(5)
    # Fewer scenarios than assets: a dense covariance of rank 20 (dense factorisation).
    f = rng.normal(size=(250, 20))
    assert accepted(f @ f.T)
    # x'(aa')x: rank one.
    a = rng.normal(size=200)
    assert accepted(np.outer(a, a))
    # Banded B B' with B random lower triangular: semidefinite by construction but numerically
    # singular (its condition grows exponentially with the order); sparse factorisation.
    n = 200
    b = np.zeros((n, n))
    for i in range(n):
        for j in range(max(0, i - 3), i + 1):
            b[i, j] = rng.normal()
    q = b @ b.T
    assert np.linalg.eigvalsh(q)[0] < 1e-12 * np.abs(q).max()
    assert accepted(q)
    # The same matrices pushed below semidefinite along their null directions are refused.
    for m in (f @ f.T, np.outer(a, a), q):
        w, v = np.linalg.eigh(m)
        assert not accepted(m - 1e-4 * np.abs(m).max() * np.outer(v[:, 0], v[:, 0]))


def test_indefinite_block_hidden_among_convex_blocks_is_refused():
    # 3,000 convex 2x2 blocks [[2, 1], [1, 2]] and one indefinite [[2, 3], [3, 2]].
    blocks = 3001
    x = tv.vars(2 * blocks, lb=-1, ub=1)
    bad = 1789
    terms = []
    for k in range(blocks):
        u, v = x[2 * k], x[2 * k + 1]
        terms.append(u * u + v * v + 3 * u * v if k == bad else u * u + v * v + u * v)
    p = tv.problem(x, tv.Sum(terms))
    with pytest.raises(tv.SolverError, match=NONCONVEX):
        p.solve()
    # Made convex, the same model solves.
    terms[bad] = x[2 * bad] * x[2 * bad] + x[2 * bad + 1] * x[2 * bad + 1]
    p.setObjective(tv.Sum(terms) + x[0])
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    # [[2, 1], [1, 2]] z = (-1, 0): z = (-2/3, 1/3), value -1/3.
    assert p.getObjVal() == pytest.approx(-1 / 3, abs=1e-6)


def test_long_sparse_chain_positive_definite_or_shifted():
    # T^2 with T = tridiag(-1, 2, -1): pentadiagonal, not diagonally dominant, one component of
    # 3,000 columns, least eigenvalue about 1e-12 (sparse factorisation in minimum-degree order).
    n = 3000
    q = 6 * np.eye(n) - 4 * (np.eye(n, k=1) + np.eye(n, k=-1)) + np.eye(n, k=2) + np.eye(n, k=-2)
    q[0, 0] = q[-1, -1] = 5
    assert accepted(q)
    assert not accepted(q - 1e-3 * np.eye(n))
    # Two components: the indefinite one is found whichever comes first.
    both = np.zeros((n + 2, n + 2))
    both[:n, :n] = q
    both[n:, n:] = [[1, 3], [3, 1]]
    assert not accepted(both)


def test_concave_objective_is_maximised_and_convex_one_refused():
    rng = np.random.default_rng(11)
    n = 150
    f = rng.normal(size=(n, n))
    q = f @ f.T / n + 0.1 * np.eye(n)  # dense, positive definite
    c = rng.normal(size=n)
    x = tv.vars(n, lb=-100, ub=100)
    p = tv.problem(x, c @ x - tv.Dot(x, q, x), sense=tv.maximize)
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    # Unconstrained maximiser: 2 Q x = c.
    best = np.linalg.solve(2 * q, c)
    assert np.abs(best).max() < 100
    assert p.getSolution(x) == pytest.approx(list(best), abs=1e-4)
    assert p.getObjVal() == pytest.approx(c @ best - best @ q @ best, abs=1e-6)
    assert not accepted(q, sense=tv.maximize) and not accepted(-q)
    assert accepted(-q, sense=tv.maximize)
