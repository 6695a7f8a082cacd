"""Building a model one object per call: names in the library, single-value queries against
whole-vector queries, results after a structural change and deleting the last rows."""
import re

import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


def one_by_one(n=6):
    """min sum (j + 1) x_j  s.t.  x_j + x_{j+1} >= 1 (+ x_0 <= 0.25), each added alone."""
    p = tv.problem()
    x = [tv.var() for _ in range(n)]
    x[2] = tv.var(name="named_col")
    for v in x:
        p.addVariable(v)
    rows = [x[j] + x[j + 1] >= 1 for j in range(n - 1)] + [tv.constraint(x[0] <= 0.25, name="cap")]
    for c in rows:
        p.addConstraint(c)
    p.setObjective(tv.Sum((j + 1) * x[j] for j in range(n)))
    return p, x, rows


def test_names_in_written_files_are_the_objects_names(tmp_path):
    p, x, rows = one_by_one()
    f = tmp_path / "m.lp"
    p.write(str(f))
    text = f.read_text()
    for obj in x + rows:
        assert re.search(r"\b%s\b" % re.escape(obj.name), text), obj.name
    # Lookups by those names reach the same rows and columns.
    p.solve()
    assert p.getSlack(rows[1].name) == [p.getSlack(rows[1])]
    assert p.getSlack("cap") == [p.getSlack(rows[-1])]
    assert p.getRCost(x[4].name) == [p.getRCost(x[4])]
    assert p.getRCost("named_col") == [p.getRCost(x[2])]


def test_single_values_agree_with_whole_vectors():
    p, x, rows = one_by_one()
    with pytest.raises(tv.SolverError):
        p.getSolution(x[0])
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    sol, duals = p.getSolution(), p.getDual()
    slacks, dj = p.getSlack(), p.getRCost()
    for j, v in enumerate(x):
        assert p.getSolution(v) == sol[j] and p.getRCost(v) == dj[j]
    for i, c in enumerate(rows):
        assert p.getDual(c) == duals[i] and p.getSlack(c) == slacks[i]
    assert abs(p.getSolution(x[0]) - 0.25) < 1e-9 and abs(p.getSolution(x[1]) - 0.75) < 1e-9
    # Objects the problem does not hold still get the general path's answers.
    other = tv.var()
    with pytest.raises(tv.ModelError):
        p.getDual(tv.constraint(other >= 1))
    assert p.getSolution(2 * x[0] + 1) == pytest.approx(1.5)


def test_integer_problem_reads_the_integer_solution():
    p, x, rows = one_by_one()
    p.addVariable(z := tv.var(vartype=tv.integer, ub=5))
    p.addConstraint(zc := (z >= 1.5))
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getSolution(z) == p.getSolution()[-1] == 2
    assert p.getSlack(zc) == p.getSlack()[-1]
    with pytest.raises(tv.SolverError, match="Cannot retrieve dual variables in a MIP"):
        p.getDual(zc)
    with pytest.raises(tv.SolverError, match="Cannot retrieve reduced cost in a MIP"):
        p.getRCost(z)


def test_adding_after_a_solve_drops_the_solution_and_resolves():
    p, x, rows = one_by_one()
    p.solve()
    first = p.getObjVal()
    w = tv.var(ub=1)
    p.addVariable(w)
    with pytest.raises(tv.SolverError):
        p.getSolution(x[0])
    p.addConstraint(w + x[5] >= 1)
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    assert p.getObjVal() == pytest.approx(first)  # w costs nothing
    assert p.getSolution(w) + p.getSolution(x[5]) >= 1 - 1e-9


def test_deleting_the_last_rows_one_at_a_time():
    p, x, rows = one_by_one()
    added = [tv.constraint(x[j + 2] >= 0.5, name="extra%d" % j) for j in range(4)]
    for c in added:
        p.addConstraint(c)
    for c in reversed(added[1:]):
        p.delConstraint(index=c)
    assert p.attributes.rows == len(rows) + 1
    assert p.getConstraint() == rows + added[:1]
    assert [p.getIndex(c) for c in rows + added[:1]] == list(range(len(rows) + 1))
    with pytest.raises(tv.ModelError):
        p.getIndex(added[-1])
    # A deleted row can come back, and a deletion in the middle still renumbers.
    p.addConstraint(added[-1])
    p.delConstraint(index=rows[0])
    assert [p.getIndex(c) for c in rows[1:] + [added[0], added[-1]]] == list(range(len(rows) + 1))
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"
    assert p.getSolution(x[2]) == pytest.approx(0.5) and p.getSolution(x[5]) == pytest.approx(0.5)
    assert p.getSlack("extra3") == [p.getSlack(added[-1])]
