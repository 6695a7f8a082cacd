"""A constraint in a problem answers every query as it did before it was added: its body (the
same terms, coefficients and printed form), bounds, name and copies, whatever happens to the
problem afterwards (coefficients changed, other rows or columns deleted, the problem copied,
reset, reloaded or freed). Also: objects made by loadproblem, addcols and addrows take part in
modelling queries like any other."""
import gc
import random

import numpy as np
import pytest

import tarvo as tv


def snapshot(c):
    """Everything a constraint answers; the body's terms in their order as (identity, coefficient)."""
    b = c.body
    lin = b.extractLinear()
    terms = [(id(v), coef) for v, coef in zip(*lin)]
    return (type(b).__name__, str(b), terms, c.lb, c.ub, c.name, str(c))


def random_rows(xs, n, seed):
    rng = random.Random(seed)
    rows = []
    for i in range(n):
        k = rng.randint(1, min(6, len(xs)))
        picked = rng.sample(xs, k)
        coefs = [rng.choice([1.0, -1.0, 0.1, 1 / 3, -2.5e-7, 123456.789, 2.0 ** -30]) for _ in picked]
        body = tv.Sum(c * v for c, v in zip(coefs, picked))
        kind = i % 3
        if kind == 0:
            rows.append(body <= rng.uniform(-5, 5))
        elif kind == 1:
            rows.append(body >= rng.uniform(-5, 5))
        else:
            rows.append(body == rng.uniform(-5, 5))
        if i % 4 == 0:
            rows[-1].name = "row%d" % i
    return rows


@pytest.fixture
def model():
    xs = [tv.var(lb=-10, ub=10, name="x%d" % i) for i in range(12)]
    rows = random_rows(xs, 40, seed=7)
    before = [snapshot(c) for c in rows]
    p = tv.problem(xs, rows, tv.Sum(xs))
    return p, xs, rows, before


class TestQueriesAfterAdding:
    def test_body_bounds_name_and_printed_form_unchanged(self, model):
        p, xs, rows, before = model
        assert [snapshot(c) for c in rows] == before
        assert all(c.body is c.body for c in rows)
        assert [snapshot(c) for c in p.getConstraint()] == before

    def test_descriptor_copy_and_constructor_see_the_body(self, model):
        p, xs, rows, before = model
        c = rows[5]
        assert str(tv.constraint.body.__get__(c)) == before[5][1]
        twin = tv.constraint(constraint=c)
        assert twin.body is c.body
        dup = c.copy()
        assert str(dup.body) == before[5][1]
        assert str(dup) == "%s_copy_%s" % (str(c), str(c))  # unnamed: R<serial>_copy_R<serial>
        assert (dup.lb, dup.ub) == (c.lb, c.ub)

    def test_body_held_elsewhere_stays_the_same_object(self):
        x, y = tv.var(), tv.var()
        e = 2 * x + 3 * y
        c = tv.constraint(body=e, ub=4)
        p = tv.problem(x, y, c)
        assert c.body is e
        p.chgcoef(c, x, 5.0)
        assert c.body is e and str(e) == str(2 * x + 3 * y)

    def test_constraint_of_one_problem_added_to_another(self, model):
        p, xs, rows, before = model
        q = tv.problem(xs, rows[:10])
        sq, iq, vq, sp, ip, vp = [], [], [], [], [], []
        q.getrows(sq, iq, vq, 1000, 0, 9)
        p.getrows(sp, ip, vp, 1000, 0, 9)
        assert (sq, iq, vq) == (sp, ip, vp) and len(vq) > 10
        assert [snapshot(c) for c in rows] == before

    def test_solution_and_dual_queries_of_rows(self, model):
        p, xs, rows, before = model
        p.solve()
        if p.getProbStatus() == tv.lp_optimal:
            slack = p.getSlack(rows)
            act = [p.getSolution(c.body) for c in rows]
            for c, s, a in zip(rows, slack, act):
                rhs = c.ub if c.ub < 1e20 else c.lb
                assert a + s == pytest.approx(rhs, abs=1e-6)
        assert [snapshot(c) for c in rows] == before


class TestQueriesAfterTheProblemChanges:
    def test_coefficient_change_leaves_the_body(self, model):
        p, xs, rows, before = model
        c = rows[3]
        p.chgcoef(c, xs[0], 42.0)
        assert p.getcoef(c, xs[0]) == 42.0
        assert [snapshot(r) for r in rows] == before
        # reached through the type as well
        tv.problem.chgcoef(p, rows[4], xs[1], -3.0)
        assert p.getcoef(rows[4], xs[1]) == -3.0
        assert [snapshot(r) for r in rows] == before

    def test_deleting_other_rows_and_columns(self, model):
        p, xs, rows, before = model
        p.delConstraint([rows[0], rows[7], rows[20]])
        assert [snapshot(r) for r in rows] == before
        p.delVariable(xs[3])  # the bodies keep their variables; the rows lose them
        assert [snapshot(r) for r in rows] == before
        keep = [r for i, r in enumerate(rows) if i not in (0, 7, 20)]
        assert p.getConstraint() == keep
        assert p.attributes.rows == len(keep)

    def test_batches_added_between_changes(self):
        xs = [tv.var(name="y%d" % i) for i in range(10)]
        p = tv.problem(xs)
        rows, before = [], {}
        for k in range(6):
            batch = random_rows(xs, 7 + k, seed=100 + k)
            before.update((id(c), snapshot(c)) for c in batch)
            for c in batch[::2]:
                p.addConstraint(c)  # single rows and ...
            p.addConstraint(batch[1::2])  # ... a list, between changes of earlier rows
            rows += batch[::2] + batch[1::2]
            p.chgcoef(rows[len(rows) // 2], xs[k], 1.5 + k)
            if k % 2:
                p.delConstraint(rows.pop(0))
        assert [snapshot(c) for c in rows] == [before[id(c)] for c in rows]
        assert p.getConstraint() == rows
        del p
        gc.collect()
        assert [snapshot(c) for c in rows] == [before[id(c)] for c in rows]

    def test_copy_reset_reload_and_free(self, model, tmp_path):
        p, xs, rows, before = model
        q = p.copy()
        del p
        gc.collect()
        assert [snapshot(r) for r in rows] == before
        assert q.getConstraint() == rows
        q.chgcoef(rows[2], xs[5], 9.0)
        assert [snapshot(r) for r in rows] == before
        r = tv.problem(xs, rows)
        r.reset()
        assert [snapshot(c) for c in rows] == before
        s = tv.problem(xs, rows)
        s.loadproblem("again", ["L"], [1.0], None, [1.0], [0, 1], None, [0], [1.0], [0.0], [1.0])
        t = tv.problem(xs, rows)
        path = str(tmp_path / "m.lp")
        t.write(path)
        t.read(path)
        assert [snapshot(c) for c in rows] == before
        del q, s, t
        gc.collect()
        assert [snapshot(c) for c in rows] == before

    def test_problem_freed_first_in_a_fresh_interpreter(self, run_python):
        out = run_python("""
            import gc, tarvo as tv
            tv.setOutputEnabled(False)
            x = [tv.var() for _ in range(50)]
            rows = [x[i] + 0.5 * x[i + 1] <= i for i in range(49)]
            texts = [str(c.body) for c in rows]
            p = tv.problem(x, rows)
            p.delConstraint(rows[10])
            del p, x
            gc.collect()
            assert [str(c.body) for c in rows] == texts
            again = tv.problem([v for c in rows for v in c.body.extractLinear()[0][:1]])
            print("ok")
        """)
        assert out.strip() == "ok"

    def test_nonlinear_solve_keeps_linear_bodies(self):
        x, y = tv.var(ub=3), tv.var(ub=3)
        lin = x + 2 * y <= 4
        text = str(lin.body)
        p = tv.problem(x, y, lin, tv.sin(x) + y ** 3 <= 5, -x - y)
        p.nlpoptimize()
        assert str(lin.body) == text
        assert p.getSolution(x) + 2 * p.getSolution(y) <= 4 + 1e-6


class TestLoadedObjects:
    def loaded(self):
        p = tv.problem()
        p.loadproblem("lp", ["L", "G", "E", "R"], [4.0, 1.0, 2.0, 6.0], [0, 0, 0, 3.0], [-1.0, -2.0, 0.5],
                      [0, 2, 4, 7], None, [0, 1, 0, 2, 1, 2, 3], [1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0],
                      [0.0, -1.0, 0.0], [3.0, 5.0, 1e20], colnames=["a", "b", "c"],
                      rownames=["r0", "r1", "r2", "r3"])
        return p

    def test_objects_carry_the_loaded_data(self):
        p = self.loaded()
        v, c = p.getVariable(), p.getConstraint()
        lb, ub = [], []
        p.getlb(lb, 0, 2)
        p.getub(ub, 0, 2)
        assert [x.lb for x in v] == lb and [x.ub for x in v] == ub
        assert [x.name for x in v] == ["a", "b", "c"] and [str(r) for r in c] == ["r0", "r1", "r2", "r3"]
        assert [(r.lb, r.ub) for r in c] == [(-1e20, 4.0), (1.0, 1e20), (2.0, 2.0), (3.0, 6.0)]
        assert len({x.__hash__() for x in v}) == 3
        assert [p.getIndex(x) for x in v] == [0, 1, 2] and [p.getIndex(r) for r in c] == [0, 1, 2, 3]

    def test_objects_in_modelling_calls(self):
        p = self.loaded()
        a, b, c = p.getVariable()
        extra = tv.var(ub=2, name="d")
        p.addVariable(extra)
        p.addConstraint(a + b + extra <= 3)
        p.setObjective(-a - b - c - extra)
        p.solve()
        assert p.getProbStatus() == tv.lp_optimal
        x = p.getSolution([a, b, c, extra])
        assert x[0] + x[1] + x[3] <= 3 + 1e-7
        rows = p.getConstraint()
        duals = p.getDual(rows)
        assert len(duals) == 5
        p.delConstraint(rows[0])
        assert p.getConstraint() == rows[1:] and p.getIndex(rows[1]) == 0

    def test_addrows_and_addcols_objects_in_bulk(self):
        p = tv.problem()
        n = 3000
        p.addcols(np.ones(n), np.zeros(n, np.int64), np.zeros(0, np.int32), np.zeros(0), np.zeros(n), np.full(n, 5.0))
        cols = p.getVariable()
        starts = np.arange(n + 1, dtype=np.int64)
        p.addrows(["L"] * n, np.arange(n, dtype=float), starts[:-1], np.arange(n, dtype=np.int32), np.ones(n))
        rows = p.getConstraint()
        assert len(cols) == n and len(rows) == n
        assert len({str(v) for v in cols}) == n and len({str(r) for r in rows}) == n
        assert all(v.ub == 5.0 and v.lb == 0.0 for v in cols)
        assert [r.ub for r in rows[:5]] == [0.0, 1.0, 2.0, 3.0, 4.0]
        assert all(p.getIndex(r) == i for i, r in enumerate(rows))
        p.delVariable(first=0, last=n // 2 - 1)
        assert all(p.getIndex(v) == i for i, v in enumerate(p.getVariable()))
