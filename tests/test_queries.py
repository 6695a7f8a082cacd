"""Solution queries in every shape, index lookups both ways, and their messages."""
import numpy as np
import pytest

import tarvo as tv

TOL = 1e-6


@pytest.fixture
def solved():
    """max x + 2y + 3z  s.t. x + y <= 4, y + z <= 3, x <= 3, z <= 2, y + x >= 1, z + x <= 10."""
    tv.setOutputEnabled(False)
    x, y, z = tv.var(name="x1", ub=3), tv.var(name="x2"), tv.var(name="x3", ub=2)
    cons = [x + y <= 4, y + z <= 3, x + y >= 1, x + z <= 10, tv.constraint(body=y, ub=5, name="c5")]
    p = tv.problem(x, y, z, cons, x + 2 * y + 3 * z, sense=tv.maximize)
    p.solve()
    yield p, (x, y, z), cons
    tv.setOutputEnabled(True)


def test_solution_shapes(solved):
    p, (x, y, z), cons = solved
    # Optimum: z = 2, y = 1, x = 3 -> 3 + 2 + 6 = 11.
    assert p.getObjVal() == pytest.approx(11, abs=TOL)
    everything = p.getSolution()
    assert isinstance(everything, list) and len(everything) == 3
    assert everything == pytest.approx([3, 1, 2], abs=TOL)
    assert isinstance(p.getSolution(x), float)
    nested = p.getSolution([x, [y, z]])
    assert isinstance(nested[1], list) and nested == [pytest.approx(3), [pytest.approx(1), pytest.approx(2)]]
    assert p.getSolution([x, [y, z]], flatten=True) == pytest.approx([3, 1, 2], abs=TOL)
    assert p.getSolution((x, y)) == pytest.approx((3, 1)) and isinstance(p.getSolution((x, y)), tuple)
    assert p.getSolution({"a": x + 3 * y, "b": [z]}) == {"a": pytest.approx(6), "b": [pytest.approx(2)]}
    assert p.getSolution(x * y + 1) == pytest.approx(4, abs=TOL)
    assert p.getSolution(2.5) == 2.5
    assert p.getSolution(0) == pytest.approx(3) and p.getSolution("x3") == pytest.approx(2)
    arr = np.array([[x, y], [z, x]], dtype=object)
    values = p.getSolution(arr)
    assert isinstance(values, np.ndarray) and values.shape == (2, 2)
    assert values.tolist() == [[pytest.approx(3), pytest.approx(1)], [pytest.approx(2), pytest.approx(3)]]
    assert p.getSolution(x, y) == [pytest.approx(3), pytest.approx(1)] or p.getSolution(x, y) == (
        pytest.approx(3), pytest.approx(1))
    with pytest.raises(tv.ModelError, match="Object does not belong to problem"):
        p.getSolution(tv.var())
    with pytest.raises(tv.InterfaceError, match="out-of-range index"):
        p.getSolution(7)


def test_dual_slack_rcost_shapes_and_ranges(solved):
    p, (x, y, z), cons = solved
    assert len(p.getDual()) == 5 and len(p.getSlack()) == 5 and len(p.getRCost()) == 3
    assert isinstance(p.getDual(cons[0]), float)
    assert p.getSlack(cons[0]) == pytest.approx(0, abs=TOL)
    assert p.getSlack(cons[3]) == pytest.approx(5, abs=TOL)
    assert p.getSlack(4) == pytest.approx(4, abs=TOL)  # y = 1 against 5
    assert p.getSlack([cons[3], [4]]) == pytest.approx([5, 4], abs=TOL)
    assert p.getSlack(np.array([3, 4], dtype=np.int64)) == pytest.approx([5, 4], abs=TOL)
    # Duals of the binding rows: y + z <= 3 and x + y <= 4 (max problem: x: 1 = d1 + rc_x,
    # y: 2 = d1 + d2, z: 3 = d2 + rc_z).
    d1, d2 = p.getDual(cons[0], cons[1])
    rcx, rcy, rcz = p.getRCost(x, y, z)
    assert d1 + d2 == pytest.approx(2, abs=TOL)
    assert d1 + rcx == pytest.approx(1, abs=TOL)
    assert d2 + rcz == pytest.approx(3, abs=TOL)
    assert rcy == pytest.approx(0, abs=TOL)
    assert p.getRCost("x1") == pytest.approx([rcx], abs=TOL)  # a string takes the list form
    with pytest.raises(tv.ModelError, match="Index out of range"):
        p.getDual(5)
    with pytest.raises(tv.ModelError, match="Index out of range"):
        p.getDual(-1)
    with pytest.raises(tv.ModelError, match="Index out of range"):
        p.getSlack(x + y <= 1)
    with pytest.raises(tv.ModelError, match="Incorrect object"):
        p.getRCost(1.5)
    with pytest.raises(tv.ModelError, match="Index out of range"):
        p.getRCost("nosuchname")


def test_index_lookups(solved):
    p, (x, y, z), cons = solved
    assert [p.getIndex(v) for v in (x, y, z)] == [0, 1, 2]
    assert p.getIndex(cons[4]) == 4
    assert p.getVariable(index=1) is y
    assert p.getVariable(first=1, last=2) == [y, z]
    assert p.getVariable(index=[0, 2]) == [x, z]
    assert p.getVariable(index=np.array([2, 0])) == [z, x]
    assert p.getConstraint(first=2, last=1) == []
    assert p.getConstraint() == cons
    assert p.getSOS() == []
    with pytest.raises(IndexError):
        p.getVariable(index=3)
    with pytest.raises(tv.ModelError, match="must contain only integers"):
        p.getVariable(index=[0, "x1"])
    with pytest.raises(tv.ModelError, match="cannot be specified if 'index' is also specified"):
        p.getVariable(index=0, first=0)
    with pytest.raises(tv.ModelError, match="must be both nonnegative"):
        p.getVariable(first=0)
    with pytest.raises(tv.ModelError, match="are out of range"):
        p.getConstraint(first=0, last=5)
    with pytest.raises(tv.ModelError, match="need variable, constraint, or SOS"):
        p.getIndex(x + y)
    p.delVariable(index=y)
    with pytest.raises(tv.ModelError, match="need variable, constraint, or SOS"):
        p.getIndex(y)
    assert p.getIndex(z) == 1


def test_evaluate_at_problem_columns(solved):
    p, (x, y, z), cons = solved
    assert tv.evaluate({"a": x + 3 * y}, problem=p, solution=[2, 3, 0]) == {"a": 11.0}
    assert tv.evaluate(x + y + z, problem=p) == pytest.approx(6, abs=TOL)
    assert tv.evaluate(x * z, problem=p, solution=np.array([1.5, 0.0, 4.0])) == pytest.approx(6)
    # Nonlinear trees evaluate at the solution too.
    assert p.getSolution(tv.exp(z - 2) + y ** 3) == pytest.approx(2, abs=1e-6)
    with pytest.raises(tv.ModelError, match="Mismatched lengths in arguments: expected 3, found 2"):
        tv.evaluate(x, problem=p, solution=[1, 2])
    with pytest.raises(tv.ModelError, match="Object does not belong to problem"):
        tv.evaluate(tv.var(), problem=p, solution=[1, 2, 3])


INTEGER_SCALARS = [int, np.int64, np.int32, np.intc, np.int16, np.uint8, np.uint64, np.longlong]


@pytest.fixture
def distinct():
    """A solved problem whose values and duals differ from every index (x = 3.5, 7.25, 0.5)."""
    tv.setOutputEnabled(False)
    x, y, z = tv.var(ub=3.5), tv.var(ub=10), tv.var()
    cons = [y <= 7.25, z <= 0.5, x + y + z <= 11.25, y - z >= -3]
    p = tv.problem(x, y, z, cons, 2 * x + 3 * y + 5 * z, sense=tv.maximize)
    p.solve()
    assert p.getSolution() == pytest.approx([3.5, 7.25, 0.5], abs=TOL)
    yield p, (x, y, z), cons
    tv.setOutputEnabled(True)


@pytest.mark.parametrize("kind", INTEGER_SCALARS, ids=lambda k: k.__name__)
def test_numpy_integers_are_indices_everywhere(distinct, kind):
    # A NumPy integer names a column or row exactly as a Python int does; evaluated as a
    # constant it would silently give the index back as the value.
    p, (x, y, z), cons = distinct
    sol, slack, dual, dj = p.getSolution(), p.getSlack(), p.getDual(), p.getRCost()
    i1, i2 = kind(1), kind(2)
    assert p.getSolution(i1) == pytest.approx(sol[1], abs=TOL)
    assert p.getSolution([i2, i1]) == pytest.approx([sol[2], sol[1]], abs=TOL)
    assert p.getSolution((i2, [i1]), flatten=True) == pytest.approx([sol[2], sol[1]], abs=TOL)
    assert p.getSlack(i1) == pytest.approx(slack[1], abs=TOL)
    assert p.getDual([i2, i1]) == pytest.approx([dual[2], dual[1]], abs=TOL)
    assert p.getRCost(i2) == pytest.approx(dj[2], abs=TOL)
    assert p.getVariable(index=i2) is z
    assert p.getConstraint(index=[i1, i2]) == [cons[1], cons[2]]
    with pytest.raises(tv.ModelError, match="Index out of range"):
        p.getDual(kind(5))
    assert p.getSolution(i1) != 1.0 and p.getSolution([i2, i1]) != [2.0, 1.0]


@pytest.mark.parametrize("dtype", [np.int64, np.int32, np.uint16])
def test_integer_arrays_are_index_arrays(distinct, dtype):
    p, (x, y, z), cons = distinct
    sol, dual = p.getSolution(), p.getDual()
    idx = np.array([[2, 0], [1, 1]], dtype=dtype)
    got = p.getSolution(idx)
    assert isinstance(got, np.ndarray) and got.shape == (2, 2)
    assert got.ravel().tolist() == pytest.approx([sol[2], sol[0], sol[1], sol[1]], abs=TOL)
    assert p.getSolution(list(np.arange(3, dtype=dtype))) == pytest.approx(sol, abs=TOL)
    assert p.getDual(np.arange(2, dtype=dtype)) == pytest.approx(dual[:2], abs=TOL)
    assert p.getRCost(np.array([2], dtype=dtype)) == pytest.approx([p.getRCost(2)], abs=TOL)
    assert p.getVariable(index=np.arange(3, dtype=dtype)) == [x, y, z]
    with pytest.raises(tv.InterfaceError, match="out-of-range index"):
        p.getSolution(np.array([0, 3], dtype=dtype))


def test_indices_beyond_32_bits_do_not_wrap(solved):
    p, (x, y, z), cons = solved
    for big in (2**32 + 1, np.int64(2**32 + 1)):
        with pytest.raises(tv.ModelError, match="Index out of range"):
            p.getSlack(big)
        with pytest.raises(tv.ModelError, match="Index out of range"):
            p.validaterow(big)              # would wrap round to row 1
    with pytest.raises(OverflowError):
        p.getDual(np.uint64(2**64 - 1))


def test_objective_value_needs_a_solution():
    # An objective value of 0.0 after an infeasible solve would read as a real optimum.
    tv.setOutputEnabled(False)
    try:
        x = tv.var(ub=1)
        lp = tv.problem(x, x >= 2, x)
        with pytest.raises(tv.SolverError, match="No LP solution available"):
            lp.getObjVal()                  # never solved
        lp.solve()
        assert lp.getProbStatusString() == "lp_infeas"
        with pytest.raises(tv.SolverError, match="No LP solution available"):
            lp.getObjVal()
        y = tv.var(vartype=tv.integer, ub=1)
        mip = tv.problem(y, y >= 2, y)
        mip.solve()
        assert mip.getProbStatusString() == "mip_infeas"
        with pytest.raises(tv.SolverError, match="No integer solution available"):
            mip.getObjVal()
        nl = tv.problem(y, tv.exp(y) <= 3, y)
        with pytest.raises(tv.SolverError, match="No nonlinear solution is available"):
            nl.getObjVal()                  # nonlinear, never solved
        # Once the model is feasible again the value is there.
        lp.delConstraint(lp.getConstraint(0))
        lp.solve()
        assert lp.getObjVal() == 0.0 and lp.getSolution(x) == 0.0
    finally:
        tv.setOutputEnabled(True)
