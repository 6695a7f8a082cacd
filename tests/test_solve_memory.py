"""Large solves hand the model over with the heap's free pages returned and the result vectors
sized only after HiGHS's run: the model read back, the results and their sizes must come out as
they would without either, across add / delete / modify / solve / re-solve sequences.

The models are above the size from which the hand-over returns free pages (64k columns, rows
and entries), and separable, so their optimum is known in closed form: pairs (a_k, b_k) with
a_k + b_k >= d_k, 0 <= a_k, b_k <= U and costs ca_k < cb_k, so a_k = min(d_k, U) and
b_k = d_k - a_k.
"""
import numpy as np
import pytest

import tarvo as tv

K = 24000  # pairs: 48k columns, 24k rows, 48k entries
U = 5.0


def pair_model(k=K, seed=3):
    rng = np.random.default_rng(seed)
    d = rng.uniform(0.5, 9.5, k).round(3)
    ca = rng.uniform(1.0, 2.0, k).round(3)
    cb = ca + rng.uniform(0.5, 1.0, k).round(3)
    p = tv.problem("pairs")
    a = tv.vars(k, ub=U, name="")
    b = tv.vars(k, ub=U, name="")
    p.addVariable(a, b)
    rows = a + b >= d
    p.addConstraint(rows)
    p.setObjective(tv.Dot(ca, a) + tv.Dot(cb, b))
    return p, a, b, rows, d, ca, cb


def closed_form(d, ca, cb):
    xa = np.minimum(d, U)
    xb = d - xa
    return xa, xb, float(ca @ xa + cb @ xb)


def read_back(p):
    m, n = p.attributes.rows, p.attributes.cols
    start, ind, val, rhs, types, lb, ub = [], [], [], [], [], [], []
    p.getrows(start, ind, val, 4 * m, 0, m - 1)
    p.getrhs(rhs, 0, m - 1)
    p.getrowtype(types, 0, m - 1)
    p.getlb(lb, 0, n - 1)
    p.getub(ub, 0, n - 1)
    return (start, [p.getIndex(v) for v in ind], val, rhs, types, lb, ub,
            p.getnamelist(1), p.getnamelist(2))


class TestLargeSolveSequences:
    def test_solution_duals_and_sizes_match_the_closed_form(self):
        p, a, b, rows, d, ca, cb = pair_model()
        p.solve()
        assert p.getProbStatus() == tv.lp_optimal
        xa, xb, obj = closed_form(d, ca, cb)
        assert p.getObjVal() == pytest.approx(obj, rel=1e-9)
        assert np.allclose(p.getSolution(a), xa, atol=1e-7)
        assert np.allclose(p.getSolution(b), xb, atol=1e-7)
        n, m = p.attributes.cols, p.attributes.rows
        assert len(p.getSolution()) == n and len(p.getRCost()) == n
        assert len(p.getSlack()) == m and len(p.getDual()) == m
        # A row whose cheap column is below its bound prices at the cheap cost, else at the dear one.
        # (Rows with d = U are degenerate: any price between the two is optimal.)
        dual = np.array(p.getDual(list(rows)))
        sharp = np.abs(d - U) > 1e-6
        assert np.allclose(dual[sharp], np.where(d < U, ca, cb)[sharp], atol=1e-7)
        # Single-value queries read the same vectors.
        for k in (0, K // 2, K - 1):
            assert p.getSolution(a[k]) == pytest.approx(xa[k], abs=1e-7)
            assert p.getDual(rows[k]) == pytest.approx(dual[k], abs=1e-9)

    def test_add_delete_modify_and_resolve(self):
        p, a, b, rows, d, ca, cb = pair_model()
        p.solve()
        # New columns and rows: results are sized to the grown problem at the next solve.
        extra = tv.vars(1000, ub=U, name="")
        p.addVariable(extra)
        p.addConstraint(extra >= 1.5)
        p.setObjective(tv.Dot(ca, a) + tv.Dot(cb, b) + 2 * tv.Sum(extra))
        p.solve()
        xa, xb, obj = closed_form(d, ca, cb)
        assert p.getObjVal() == pytest.approx(obj + 2 * 1.5 * 1000, rel=1e-9)
        assert len(p.getSolution()) == 2 * K + 1000 and len(p.getSlack()) == K + 1000
        assert np.allclose(p.getSolution(extra), 1.5)
        # Deleting the first half of the pair rows frees those pairs: they go to zero.
        p.delConstraint(list(rows[: K // 2]))
        p.solve()
        half = K // 2
        want = float(ca[half:] @ xa[half:] + cb[half:] @ xb[half:]) + 3000
        assert p.getObjVal() == pytest.approx(want, rel=1e-9)
        assert len(p.getDual()) == K - half + 1000
        assert np.allclose(p.getSolution(a[:half]), 0) and np.allclose(p.getSolution(a[half:]), xa[half:])
        # Tightening the cheap columns' bounds moves demand to the dear ones.
        p.chgbounds(list(a[half:]), ["U"] * (K - half), [4.5] * (K - half))
        p.solve()
        xa2 = np.minimum(d[half:], 4.5)
        want = float(ca[half:] @ xa2 + cb[half:] @ (d[half:] - xa2)) + 3000
        assert p.getObjVal() == pytest.approx(want, rel=1e-9)
        assert np.allclose(p.getSolution(b[half:]), d[half:] - xa2, atol=1e-7)

    def test_model_reads_back_the_same_after_solves(self):
        p, a, b, rows, d, ca, cb = pair_model()
        a[0].name, rows[1].name = "first_a", "second_row"
        before = read_back(p)
        p.solve()
        assert read_back(p) == before
        p.chgcoef(rows[2], a[2], 2.0)
        changed = read_back(p)
        assert changed != before
        p.solve()
        p.solve()  # a re-solve of the same model
        assert read_back(p) == changed
        assert p.getSolution(a[2]) == pytest.approx(min(d[2] / 2, U), abs=1e-7)

    def test_mip_then_lp_and_incumbents_seen_by_callbacks(self):
        p, a, b, rows, d, ca, cb = pair_model()
        p.chgcoltype(list(b), ["I"] * K)
        seen = []

        def intsol(prob, data):
            sol = prob.getSolution()
            seen.append(len(sol))

        p.addcbintsol(intsol)
        p.solve()
        assert p.attributes.mipstatus == tv.mip_optimal
        # Integer b: b = ceil(d - U) when d > U, and a takes the rest.
        xb = np.maximum(0, np.ceil(d - U - 1e-9))
        xa = d - xb
        assert np.allclose(p.getSolution(b), xb, atol=1e-6)
        assert np.allclose(p.getSolution(a), xa, atol=1e-6)
        assert len(p.getSlack()) == K
        assert seen and all(s == 2 * K for s in seen)
        p.removecbintsol()
        p.lpoptimize()
        assert p.attributes.lpstatus == tv.lp_optimal
        xa, xb, obj = closed_form(d, ca, cb)
        x, slack, dual, dj = [], [], [], []
        p.getlpsol(x, slack, dual, dj)
        assert np.allclose(x[K:], xb, atol=1e-7) and np.allclose(x[:K], xa, atol=1e-7)
        assert len(slack) == len(dual) == K and len(dj) == 2 * K

    def test_stopped_and_failed_solves_leave_clear_answers(self):
        p, a, b, rows, d, ca, cb = pair_model()
        p.solve()
        # A solve of a grown model stopped at once: the old results no longer fit and are not offered.
        extra = tv.vars(500, name="")
        p.addVariable(extra)
        p.controls.maxtime = 1e-9
        p.solve()
        if p.attributes.lpstatus != tv.lp_optimal:
            with pytest.raises(tv.SolverError):
                p.getSolution()
        p.controls.maxtime = 0
        p.solve()
        assert p.getProbStatus() == tv.lp_optimal
        assert len(p.getSolution()) == 2 * K + 500
        # A failing solve (nonconvex objective) leaves no results to read, and the next one works.
        p.setObjective(tv.Dot(ca, a) - a[0] * a[0])
        with pytest.raises(tv.SolverError):
            p.solve()
        with pytest.raises(tv.SolverError):
            p.getSolution(a[0])
        p.setObjective(tv.Dot(ca, a) + tv.Dot(cb, b))
        p.solve()
        xa, xb, obj = closed_form(d, ca, cb)
        assert p.getObjVal() == pytest.approx(obj, rel=1e-9)
