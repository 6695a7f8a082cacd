"""Entities the engine reformulates before HiGHS sees them: semi-continuous and semi-integer
columns with and without a finite upper bound, partial-integer columns, SOS1/SOS2 in weight
order, indicator rows of every sense, and the errors when a big-M bound is missing. Results are
always in the user's rows and columns."""
import itertools

import pytest

import tarvo as tv

TOL = 1e-6


pytestmark = pytest.mark.usefixtures("quiet")


@pytest.mark.parametrize("ub", [10, tv.infinity])
def test_semicontinuous_threshold_with_finite_and_infinite_bound(ub):
    # x is 0 or in [2, ub]; covering 1 costs 10 through y, 2 through x at its threshold.
    x = tv.var(vartype=tv.semicontinuous, threshold=2, ub=ub, name="x")
    y = tv.var(name="y")
    c = tv.constraint(body=x + y, lb=1)
    p = tv.problem(x, y, c, x + 10 * y)
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(2, abs=TOL)
    assert p.getSolution([x, y]) == pytest.approx([2, 0], abs=TOL)
    # Only the user's two columns and one row are visible.
    assert p.attributes.cols == 2 and p.attributes.rows == 1
    assert len(p.getSlack()) == 1 and p.getSlack(c) == pytest.approx(-1, abs=TOL)
    # Off is allowed: with the requirement gone x drops to 0 rather than to the threshold.
    p.delConstraint(c)
    p.solve()
    assert p.getSolution([x, y]) == pytest.approx([0, 0], abs=TOL)
    if ub != tv.infinity:
        p.setObjective(x, sense=tv.maximize)
        p.solve()
        assert p.getSolution(x) == pytest.approx(ub, abs=TOL)


def test_semicontinuous_without_upper_bound_beyond_the_highs_limit():
    # HiGHS limits semi-continuous columns without an upper bound to 1e5: a requirement beyond
    # that must not come back as "infeasible".
    def model(threshold, need, cap, ub=tv.infinity):
        v = tv.var(vartype=tv.semicontinuous, threshold=threshold, ub=ub, name="v")
        w = tv.var(ub=1, name="w")
        return tv.problem(v, w, tv.constraint(body=v + w, lb=need), v <= cap, v + 0.5 * w), v, w

    # w (cheaper, at most 1) covers what it can; v covers the rest or sits at its threshold.
    for threshold, need, expected in ((3, 1e6, [1e6 - 1, 1]), (2e4, 50, [2e4, 0])):
        p, v, w = model(threshold, need, tv.infinity)
        with pytest.raises(tv.SolverError, match="Semi-continuous column v has no upper bound"):
            p.solve()
        assert p.getProbStatusString() == "mip_no_sol_found"
        # With a finite bound, given or following from a row, the engine's own formulation
        # takes it.
        for cap, ub in ((tv.infinity, 1e7), (5e6, tv.infinity)):
            p, v, w = model(threshold, need, cap, ub=ub)
            p.solve()
            assert p.getProbStatusString() == "mip_optimal"
            assert p.getSolution([v, w]) == pytest.approx(expected, abs=TOL)
    # A bound from the rows that the column cannot reach: v is 0 or at least 2e4 but at most
    # 1e4, so w must cover the need alone.
    p, v, w = model(2e4, 0.5, 1e4)
    p.solve()
    assert p.getSolution([v, w]) == pytest.approx([0, 0.5], abs=TOL)
    p, v, w = model(2e4, 5, 1e4)
    p.solve()
    assert p.getProbStatusString() == "mip_infeas"
    # Within the limit HiGHS's answers stand, infeasible ones included: v is 0 or at least 3
    # but the rows want it in [1, 2.5].
    p, v, w = model(3, 5e4, tv.infinity)
    p.solve()
    assert p.getSolution([v, w]) == pytest.approx([5e4 - 1, 1], abs=TOL)
    p, v, w = model(3, 2, 2.5)
    p.solve()
    assert p.getProbStatusString() == "mip_infeas"


def test_semiinteger_and_partial_integer_domains():
    # Semi-integer: 0 or an integer in [3, 8]; reaching 4.5 needs 5.
    s = tv.var(vartype=tv.semiinteger, threshold=3, ub=8)
    p = tv.problem(s, s >= 4.5, s)
    p.solve()
    assert p.getObjVal() == pytest.approx(5, abs=TOL)
    # Partial integer with limit 5: integer below 5, continuous above.
    for need, best in ((2.5, 3), (4.2, 5), (5.5, 5.5), (7.25, 7.25)):
        x = tv.var(vartype=tv.partiallyinteger, threshold=5, ub=10)
        q = tv.problem(x, x >= need, x)
        q.solve()
        assert q.getProbStatusString() == "mip_optimal"
        assert q.getObjVal() == pytest.approx(best, abs=TOL), need
        assert q.attributes.cols == 1 and q.attributes.rows == 1
    # Maximising shows the continuous part reaches the upper bound.
    x = tv.var(vartype=tv.partiallyinteger, threshold=5, ub=9.5)
    q = tv.problem(x, x <= 9.25, x, sense=tv.maximize)
    q.solve()
    assert q.getObjVal() == pytest.approx(9.25, abs=TOL)


def test_partial_integer_without_upper_bound_is_a_clear_error():
    x = tv.var(vartype=tv.partiallyinteger, threshold=5)
    c = x >= 2.5
    p = tv.problem(x, c, x)
    with pytest.raises(tv.SolverError, match="needs finite bounds"):
        p.solve()
    # The problem stays usable: with the variable replaced by a bounded one it solves.
    p.delConstraint(c)
    p.delVariable(x)
    x2 = tv.var(vartype=tv.partiallyinteger, threshold=5, ub=20)
    p.addVariable(x2)
    p.addConstraint(x2 >= 2.5)
    p.setObjective(x2)
    p.solve()
    assert p.getObjVal() == pytest.approx(3, abs=TOL)


def brute_sos(values, caps, kind, weights):
    """Best value of sum values*x with 0 <= x <= caps, sum x <= 2 and the set condition."""
    order = sorted(range(len(values)), key=lambda i: weights[i])
    best = 0.0
    for k in (1, 2):
        for combo in itertools.combinations(range(len(values)), k):
            if kind == 1 and k > 1:
                continue
            if kind == 2 and k == 2:
                pos = sorted(order.index(i) for i in combo)
                if pos[1] - pos[0] != 1:
                    continue
            # Greedy fill of the chosen members under sum x <= 2.
            room, total = 2.0, 0.0
            for i in sorted(combo, key=lambda i: -values[i]):
                take = min(caps[i], room)
                total += values[i] * take
                room -= take
            best = max(best, total)
    return best


@pytest.mark.parametrize("kind", [1, 2])
@pytest.mark.parametrize("weights", [[1, 2, 3, 4], [3, 1, 4, 2], [4, 3, 2, 1]])
def test_sos_follow_weight_order(kind, weights):
    values, caps = [3, 5, 4, 6], [1, 1.5, 1, 1]
    x = [tv.var(ub=c) for c in caps]
    p = tv.problem(x, sum(x) <= 2, sum(v * xi for v, xi in zip(values, x)), sense=tv.maximize)
    p.addSOS(tv.sos(x, weights, kind))
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    assert p.getObjVal() == pytest.approx(brute_sos(values, caps, kind, weights), abs=TOL)
    sol = p.getSolution(x)
    nonzero = [i for i, v in enumerate(sol) if abs(v) > TOL]
    assert len(nonzero) <= kind
    if kind == 2 and len(nonzero) == 2:
        order = sorted(range(4), key=lambda i: weights[i])
        assert abs(order.index(nonzero[0]) - order.index(nonzero[1])) == 1
    assert p.attributes.sets == 1 and p.attributes.setmembers == 4


def test_sos_with_negative_members_and_unbounded_member():
    # Members may be negative: at most one of them non-zero, the best is -3 * -2 = 6.
    x = tv.var(lb=-2, ub=1)
    y = tv.var(lb=-1, ub=1)
    p = tv.problem(x, y, -3 * x - 4 * y, sense=tv.maximize)
    p.addSOS(tv.sos([x, y], [1, 2], 1))
    p.solve()
    assert p.getObjVal() == pytest.approx(6, abs=TOL)
    z = tv.var()
    q = tv.problem(x, z, x + z, sense=tv.maximize)
    q.addSOS(tv.sos([x, z], [1, 2], 1))
    with pytest.raises(tv.SolverError, match="needs a finite upper bound"):
        q.solve()


def test_indicators_of_every_row_sense():
    # One binary switches rows of each sense; the objective pushes x against each.
    cases = [
        # (row built from x, sense, value of b, expected x)
        (lambda x: x <= 3, tv.maximize, 1, 3),
        (lambda x: x <= 3, tv.maximize, 0, 10),
        (lambda x: x >= 4, tv.minimize, 1, 4),
        (lambda x: x >= 4, tv.minimize, 0, -5),
        (lambda x: x == 2.5, tv.maximize, 1, 2.5),
        (lambda x: x == 2.5, tv.minimize, 1, 2.5),
        (lambda x: tv.constraint(body=x, lb=-1, ub=1), tv.maximize, 1, 1),
        (lambda x: tv.constraint(body=x, lb=-1, ub=1), tv.minimize, 1, -1),
        (lambda x: tv.constraint(body=x, lb=-1, ub=1), tv.minimize, 0, -5),
    ]
    for make, sense, bval, expect in cases:
        for active in (1, 0):
            x = tv.var(lb=-5, ub=10)
            b = tv.var(vartype=tv.binary)
            row = make(x)
            p = tv.problem(x, b, b == (bval if active else 1 - bval), x, sense=sense)
            p.addIndicator(b == 1 if active else b == 0, row)
            p.solve()
            assert p.getProbStatusString() == "mip_optimal"
            assert p.getSolution(x) == pytest.approx(expect, abs=TOL), (sense, bval, active)
            assert p.attributes.rows == 2 and p.attributes.indicators == 1
            # The indicator row's slack comes from its own body, whatever the big-M rows.
            rhs = row.ub if row.ub < tv.infinity else row.lb
            assert p.getSlack(row) == pytest.approx(rhs - expect, abs=TOL)


def test_indicator_errors_name_the_missing_bound_and_the_wrong_column():
    x = tv.var()  # no upper bound: x <= 3 cannot be switched off
    b = tv.var(vartype=tv.binary)
    p = tv.problem(x, b, x - b, sense=tv.maximize)
    p.addIndicator(b == 1, x <= 3)
    with pytest.raises(tv.SolverError, match="needs finite bounds"):
        p.solve()
    y = tv.var(ub=4)
    g = tv.var(ub=3)  # continuous column as indicator
    q = tv.problem(y, g, y)
    q.addIndicator(g == 1, y >= 1)
    with pytest.raises(tv.SolverError, match="must be binary"):
        q.solve()
