"""Nonlinear rows and objectives as the nonlinear library stores them: the token formulas the
conversion writes (read back with getcoefs/getcoefformula), text formulas through chgccoef and
getccoef, user-function registration, the objective transfer row and column, and the errors of
bad input (which must leave the problem unchanged)."""
import math

import pytest

import tarvo as tv

# Token types and values of the library's postfix formulas.
EOF, CON, COL, UFUN, IFUN, MARK, OP = 0, 1, 10, 11, 12, 22, 31
PLUS, TIMES, POWER, UMINUS = 5, 3, 2, 1
SIN, EXP, LOG = 27, 16, 15
EQUALS_COLUMN = -1  # the library's column for coefficients that multiply no variable


pytestmark = pytest.mark.usefixtures("quiet")


def coefficients(p):
    """Every nonlinear coefficient as (row index, column index, factor, [(type, value), ...])."""
    rows, cols = [], []
    p.getcoefs(rows, cols)
    out = []
    for r, c in zip(rows, cols):
        r = r if isinstance(r, int) else p.getIndex(r)
        c = c if isinstance(c, int) else p.getIndex(c)
        factor, n, types, values = p.getcoefformula(r, c, 1, 64)
        assert n == len(types) == len(values) and types[-1] == EOF
        out.append((r, c, factor, list(zip(types, values))))
    return out


def test_token_examples_of_products_functions_sums_and_powers():
    x, y = tv.var(name="x"), tv.var(name="y")
    x1, x2, x3, x4 = (tv.var(name=f"x{i}") for i in range(1, 5))
    p = tv.problem(x, y, x1, x2, x3, x4)
    cx, cy = p.getIndex(x), p.getIndex(y)
    c1, c2, c3 = (p.getIndex(v) for v in (x1, x2, x3))
    c4 = p.getIndex(x4)

    # x * sin(y): the variable factor becomes the coefficient's column.
    p.addConstraint(x * tv.sin(y) <= 1)
    # 3 * x * exp(y): numbers go to the factor, the variable to the column.
    p.addConstraint(3 * x * tv.exp(y) <= 1)
    # A sum of four variables inside sin is reduced pairwise: x1 x2 + x3 x4 + +.
    p.addConstraint(tv.sin(x1 + x2 + x3 + x4) <= 1)
    # x + y**3: x stays linear, y**3 is one coefficient on the constant column.
    p.addConstraint(x + y ** 3 <= 1)
    got = coefficients(p)
    assert got == [
        (0, cx, 1.0, [(MARK, 0), (COL, cy), (IFUN, SIN), (EOF, 0)]),
        (1, cx, 3.0, [(MARK, 0), (COL, cy), (IFUN, EXP), (EOF, 0)]),
        (2, EQUALS_COLUMN, 1.0, [(MARK, 0), (COL, c1), (COL, c2), (OP, PLUS), (COL, c3), (COL, c4),
                                 (OP, PLUS), (OP, PLUS), (IFUN, SIN), (EOF, 0)]),
        (3, EQUALS_COLUMN, 1.0, [(COL, cy), (CON, 3), (OP, POWER), (EOF, 0)]),
    ]
    # The linear part of x + y**3 is an ordinary coefficient of the row.
    p.chgvar(x, initvalue=0.5)
    p.chgvar(y, initvalue=0.5)
    assert p.evaluatecoef(3, EQUALS_COLUMN) == pytest.approx(0.125)


def test_sum_nodes_split_into_one_coefficient_per_node_and_terms_keep_their_signs():
    x, y, z = tv.var(name="x"), tv.var(name="y"), tv.var(name="z")
    p = tv.problem(x, y, z)
    # Four nodes in a sum give four coefficients; -x, 2x and 3xy inside a function are terms.
    p.addConstraint(tv.sin(x) + tv.cos(y) + tv.exp(z) + tv.log(x) <= 4)
    p.addConstraint(tv.exp(2 * x - y + 3 * x * y) - tv.sin(z) >= -1)
    got = coefficients(p)
    assert [(r, c) for r, c, _, _ in got] == [(0, EQUALS_COLUMN)] * 1 + [(1, EQUALS_COLUMN)]
    # Coefficients of one row and column are added together by the library: one formula per
    # row here, so check them through evaluation instead of tokens.
    p.chgvar(x, initvalue=0.3)
    p.chgvar(y, initvalue=0.7)
    p.chgvar(z, initvalue=1.1)
    x0, y0, z0 = 0.3, 0.7, 1.1
    assert p.evaluatecoef(0, EQUALS_COLUMN) == pytest.approx(
        math.sin(x0) + math.cos(y0) + math.exp(z0) + math.log(x0))
    assert p.evaluatecoef(1, EQUALS_COLUMN) == pytest.approx(
        math.exp(2 * x0 - y0 + 3 * x0 * y0) - math.sin(z0))
    # The terms of the expression inside exp (2 x *, y negated, 3 x y * *) joined pairwise;
    # the library appends the second coefficient of the row to that formula.
    cx, cy = p.getIndex(x), p.getIndex(y)
    assert got[1][3][:14] == [(MARK, 0), (CON, 2), (COL, cx), (OP, TIMES), (COL, cy), (OP, UMINUS),
                              (OP, PLUS), (CON, 3), (COL, cx), (COL, cy), (OP, TIMES), (OP, TIMES),
                              (OP, PLUS), (IFUN, EXP)]


def test_text_formulas_round_trip_and_take_part_in_solving():
    x, y = tv.var(lb=-2, ub=2, name="x"), tv.var(lb=-10, name="y")
    c = tv.constraint(body=y, lb=0, name="c")
    p = tv.problem(x, y, c, y)
    p.chgccoef(c, EQUALS_COLUMN, 2, "sin(x)")
    factor, text = p.getccoef(c, EQUALS_COLUMN, 100)
    assert factor == 2.0 and text.replace(" ", "").lower() == "sin(x)"
    assert p.getcoefformula("c", EQUALS_COLUMN, 1, 10) == (
        2.0, 4, [MARK, COL, IFUN, EOF], [0.0, float(p.getIndex(x)), float(SIN), 0.0])
    # A None factor keeps the stored one.
    p.chgccoef(c, EQUALS_COLUMN, None, "sin(x)")
    assert p.getccoef(c, EQUALS_COLUMN, 100)[0] == 2.0
    # The row is now y + 2 sin(x) >= 0: min y gives y = -2 at x = pi/2.
    p.chgvar(x, initvalue=0.5)
    p.solve()
    assert p.getProbStatusString() == "nlp_solution"
    assert p.getObjVal() == pytest.approx(-2, abs=1e-6)
    assert p.getSolution([x, y]) == pytest.approx([math.pi / 2, -2], abs=1e-4)
    with pytest.raises(tv.InterfaceError, match="Wrong arguments in chgccoef"):
        p.chgccoef(c, EQUALS_COLUMN, "2", "sin(x)")
    with pytest.raises(tv.InterfaceError, match="excessive formula length"):
        p.getccoef(c, EQUALS_COLUMN, 0)
    # A formula too long for the buffer is the library's error, not a truncated text.
    with pytest.raises(tv.SolverError):
        p.getccoef(c, EQUALS_COLUMN, 3)


def test_user_functions_register_once_per_problem():
    def f(a):
        return a * a

    def g(a, b):
        return a + b

    x, y = tv.var(name="x"), tv.var(name="y")
    p = tv.problem(x, y, tv.user(f, x) <= 4, tv.user(f, y) + tv.user(g, x, y) <= 5)
    ufun = [v for _, _, _, toks in coefficients(p) for t, v in toks if t == UFUN]
    # f keeps index 1 wherever it appears; g gets the next index.
    assert ufun == [1, 1, 2]
    # Another problem registers its own functions from 1 again.
    q = tv.problem(x, y, tv.user(g, x, y) <= 1)
    assert [v for _, _, _, toks in coefficients(q) for t, v in toks if t == UFUN] == [1]
    # The arguments of a user node come last to first before its token.
    toks = coefficients(q)[0][3]
    assert toks == [(MARK, 0), (COL, q.getIndex(y)), (COL, q.getIndex(x)), (UFUN, 1), (EOF, 0)]


def test_nonlinear_objective_uses_a_transfer_row_and_column_until_replaced():
    x, y = tv.var(name="x"), tv.var(name="y")
    p = tv.problem(x, y, x + y <= 3)
    p.setObjective(tv.exp(x) + y ** 2)
    assert (p.getAttrib("rows"), p.getAttrib("cols")) == (2, 3)
    rows, cols = [], []
    p.getcoefs(rows, cols)
    # Both parts sit on the transfer row (merged into one formula on the constant column).
    assert rows == [1] and cols == [EQUALS_COLUMN]
    assert p.evaluatecoef(1, EQUALS_COLUMN) == pytest.approx(1.0)
    # Replacing it by another nonlinear objective keeps a single transfer pair.
    p.setObjective(tv.sin(x), sense=tv.maximize)
    assert (p.getAttrib("rows"), p.getAttrib("cols")) == (2, 3)
    # A linear objective removes the pair and leaves no formula behind.
    p.setObjective(x + 2 * y)
    assert (p.getAttrib("rows"), p.getAttrib("cols")) == (1, 2)
    rows = []
    p.getcoefs(rows)
    assert rows == []
    p.solve()
    assert p.getProbStatusString() == "lp_optimal"


def test_bad_nonlinear_bodies_raise_and_leave_the_problem_unchanged():
    x, z = tv.var(name="x"), tv.var(name="z")
    deep = x
    for _ in range(63):
        deep = tv.sin(deep)
    p = tv.problem(x, deep <= 1)  # 64 levels with the leaf: the limit
    with pytest.raises(tv.ModelError, match="expression tree depth reached the maximum limit"):
        p.addConstraint(tv.sin(deep) <= 1)
    cases = [
        (tv.sin(z) <= 1, "Variable in nonlinear term not added to problem yet"),
        (z + tv.sin(x) <= 1, "Variable in linear part of constraint has not been added to problem yet"),
        (z * z + tv.sin(x) <= 1, "Variable in quadratic part of constraint has not been added to problem yet"),
        (tv.sin(x + 2 * z) <= 1, "Variable in nonlinear expression has not been added to problem yet"),
    ]
    for con, msg in cases:
        with pytest.raises(tv.ModelError, match=msg):
            p.addConstraint(con)
    with pytest.raises(tv.ModelError, match="Variable in nonlinear"):
        p.setObjective(tv.exp(z))
    assert (p.getAttrib("rows"), p.getAttrib("cols")) == (1, 1)
    rows = []
    p.getcoefs(rows)
    assert len(rows) == 1
    # The problem still solves after the refused additions.
    p.setObjective(x)
    p.solve()
    assert p.getProbStatusString() == "nlp_solution"


def test_deleting_rows_and_columns_moves_the_nonlinear_coefficients_with_them():
    x, y = tv.var(lb=-5, ub=5, name="x"), tv.var(lb=-5, ub=5, name="y")
    a = tv.constraint(body=tv.exp(x), ub=10, name="a")
    b = tv.constraint(body=x + tv.sin(y), ub=1, name="b")
    c = tv.constraint(body=x * tv.cos(y), ub=1, name="c")
    d = tv.constraint(body=tv.exp(x + y), ub=1, name="d")
    p = tv.problem(x, y, a, b, c, d, x + y)

    def pairs():
        rows, cols = [], []
        p.getcoefs(rows, cols)
        return [(r.name, col if isinstance(col, int) else col.name) for r, col in zip(rows, cols)]

    assert pairs() == [("a", -1), ("b", -1), ("c", "x"), ("d", -1)]
    p.delConstraint(a)
    assert pairs() == [("b", -1), ("c", "x"), ("d", -1)]
    p.chgvar(x, initvalue=0.25)
    p.chgvar(y, initvalue=0.5)
    assert p.evaluatecoef(b, EQUALS_COLUMN) == pytest.approx(math.sin(0.5))
    assert p.evaluatecoef(d, EQUALS_COLUMN) == pytest.approx(math.exp(0.75))
    # Without x: c's coefficient (x times cos(y)) goes; exp(x + y) becomes exp(0 + y).
    p.delVariable(x)
    assert pairs() == [("b", -1), ("d", -1)]
    p.chgvar(y, initvalue=0.5)
    assert p.evaluatecoef(d, EQUALS_COLUMN) == pytest.approx(math.exp(0.5))
    p.delConstraint([b, c, d])
    assert pairs() == []
    p.solve()
    assert p.getProbStatusString() == "lp_optimal" and p.getObjVal() == pytest.approx(-5)
