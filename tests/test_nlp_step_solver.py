"""The solver of the step problems (control tslp_stepsolver): the sparse interior-point solver
takes the continuous step problems of large curved models whose rows couple few neighbours,
the simplex method the rest. Both must lead to the same local optimum; the simplex iteration
count shows which one ran."""
import math

import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


def van_der_pol(steps):
    # min 1/2 h sum(x1^2 + x2^2 + u^2) with Euler steps of the Van der Pol dynamics, started
    # on the uncontrolled trajectory.
    h = 5.0 / steps
    x1 = [tv.var(lb=-0.4) for _ in range(steps + 1)]
    x2 = [tv.var(lb=-tv.infinity) for _ in range(steps + 1)]
    u = [tv.var(lb=-0.3, ub=1.0) for _ in range(steps)]
    x1[0].lb = x1[0].ub = 0.0
    x2[0].lb = x2[0].ub = 1.0
    p = tv.problem()
    p.addVariable(x1, x2, u)
    rows = []
    for k in range(steps):
        rows.append(x1[k + 1] == x1[k] + h * x2[k])
        rows.append(x2[k + 1] == x2[k] + h * (-x1[k] + (1 - x1[k] ** 2) * x2[k] + u[k]))
    p.addConstraint(rows)
    p.setObjective(0.5 * h * tv.Sum(x1[k] ** 2 + x2[k] ** 2 + u[k] ** 2 for k in range(steps)))
    a, b = 0.0, 1.0
    for k in range(steps + 1):
        p.chgvar(colindex=x1[k], initvalue=a)
        p.chgvar(colindex=x2[k], initvalue=b)
        a, b = a + h * b, b + h * (-a + (1 - a * a) * b)
    return p, (x1, x2, u)


def beam(n, with_vars=False):
    # The beam control model: sin terms in the rows, cos terms and squares in the objective.
    h, alpha = 1.0 / n, 350.0
    t = [tv.var(lb=-1.0, ub=1.0) for _ in range(n + 1)]
    x = [tv.var(lb=-0.05, ub=0.05) for _ in range(n + 1)]
    u = [tv.var(lb=-tv.infinity) for _ in range(n + 1)]
    p = tv.problem()
    p.addVariable(t, x, u)
    p.addConstraint([x[i + 1] - x[i] - 0.5 * h * (tv.sin(t[i + 1]) + tv.sin(t[i])) == 0 for i in range(n)])
    p.addConstraint([t[i + 1] - t[i] - 0.5 * h * u[i + 1] - 0.5 * h * u[i] == 0 for i in range(n)])
    wgt = [0.5 * h if i in (0, n) else h for i in range(n + 1)]
    p.setObjective(tv.Sum(wgt[i] * u[i] ** 2 for i in range(n + 1)) +
                   alpha * tv.Sum(wgt[i] * tv.cos(t[i]) for i in range(n + 1)))
    for i in range(n + 1):
        c = 0.05 * math.cos(i * h)
        p.chgvar(colindex=t[i], initvalue=c)
        p.chgvar(colindex=x[i], initvalue=c)
    return (p, (t, x, u)) if with_vars else p


def solve(p, choice):
    p.setControl("tslp_stepsolver", choice)
    p.solve()
    assert p.getProbStatusString() == "nlp_solution"
    return p.getObjVal(), p.getAttrib("tslp_simplexiter")


@pytest.mark.parametrize("build", [lambda: van_der_pol(150)[0], lambda: beam(120)], ids=["vanderpol", "beam"])
def test_interior_point_steps_reach_the_simplex_optimum(build):
    assert build().getControl("tslp_stepsolver") == 0
    auto, auto_pivots = solve(build(), 0)
    simplex, simplex_pivots = solve(build(), 1)
    assert auto_pivots == 0          # every step problem went to the interior-point solver
    assert simplex_pivots > 0
    assert auto == pytest.approx(simplex, rel=1e-7)


def test_dynamics_rows_hold_at_the_interior_point_answer():
    p, (x1, x2, u) = van_der_pol(150)
    solve(p, 0)
    h = 5.0 / 150
    a, b, c = (p.getSolution(v) for v in (x1, x2, u))
    worst = max(max(abs(a[k + 1] - a[k] - h * b[k]),
                    abs(b[k + 1] - b[k] - h * (-a[k] + (1 - a[k] ** 2) * b[k] + c[k]))) for k in range(150))
    assert worst < 1e-6
    assert min(c) >= -0.3 - 1e-9 and max(c) <= 1.0 + 1e-9


def test_beam_rows_and_bounds_hold_at_the_interior_point_answer():
    n = 120
    p, (t, x, u) = beam(n, with_vars=True)
    solve(p, 0)
    h = 1.0 / n
    tv_, xv, uv = (p.getSolution(v) for v in (t, x, u))
    worst = max(max(abs(xv[i + 1] - xv[i] - 0.5 * h * (math.sin(tv_[i + 1]) + math.sin(tv_[i]))),
                    abs(tv_[i + 1] - tv_[i] - 0.5 * h * (uv[i + 1] + uv[i]))) for i in range(n))
    assert worst < 1e-6
    assert max(abs(v) for v in tv_) <= 1.0 + 1e-9 and max(abs(v) for v in xv) <= 0.05 + 1e-9


def test_small_models_keep_the_simplex_method_unless_asked():
    # Few curved columns: automatic choice stays with the simplex method; choice 2 takes the
    # interior-point solver there too, to the same answer.
    def build():
        x = [tv.var(lb=-2, ub=2) for _ in range(6)]
        p = tv.problem()
        p.addVariable(x)
        p.addConstraint(tv.Sum(tv.sin(x[i]) * x[i + 1] for i in range(5)) >= 0.5)
        p.addConstraint(x[0] + 2 * x[3] <= 1.5)
        p.setObjective(tv.Sum((x[i] - 0.3 * i) ** 2 for i in range(6)) + tv.exp(x[2]))
        return p
    auto, auto_pivots = solve(build(), 0)
    forced, _ = solve(build(), 2)
    assert auto_pivots > 0
    assert forced == pytest.approx(auto, rel=1e-7)


def dense_columns_model(n, ndense):
    # ndense columns in every row: without the low-rank correction they would fill the
    # normal matrix.
    x = [tv.var(lb=-1, ub=1) for _ in range(n)]
    s = [tv.var(lb=-10, ub=10) for _ in range(ndense)]
    p = tv.problem()
    p.addVariable(x, s)
    p.addConstraint([tv.sin(x[i]) + 0.5 * x[i + 1] + tv.Sum(0.3 * (k + 1) * s[k] for k in range(ndense)) == 0.1
                     for i in range(n - 1)])
    p.setObjective(tv.Sum((x[i] - 0.2) ** 2 for i in range(n)) + tv.Sum(s[k] ** 2 for k in range(ndense)))
    return p, x, s


@pytest.mark.parametrize("ndense", [1, 3])
def test_dense_columns_go_through_a_low_rank_correction(ndense):
    n = 120
    p, x, s = dense_columns_model(n, ndense)
    value, pivots = solve(p, 2)
    assert pivots == 0
    assert value == pytest.approx(solve(dense_columns_model(n, ndense)[0], 1)[0], rel=1e-7)
    xv, sv = p.getSolution(x), p.getSolution(s)
    coupling = sum(0.3 * (k + 1) * sv[k] for k in range(ndense))
    worst = max(abs(math.sin(xv[i]) + 0.5 * xv[i + 1] + coupling - 0.1) for i in range(n - 1))
    assert worst < 1e-6


def test_many_dense_columns_are_left_to_the_simplex_method():
    value, pivots = solve(dense_columns_model(120, 12)[0], 2)
    assert pivots > 0
    assert value == pytest.approx(solve(dense_columns_model(120, 12)[0], 1)[0], rel=1e-7, abs=1e-9)


# ---------------------------------------------------------------- random sparse step problems

def banded_model(n, seed, curved):
    """A separable convex objective (quadratic, plus exp terms when `curved`) under random
    three-column rows of all three senses, built around an interior point so that it is
    feasible; also returns the data, for a reference solver."""
    np = pytest.importorskip("numpy")
    rng = np.random.default_rng(seed)
    q, c = rng.uniform(0.5, 3.0, n), rng.uniform(-2.0, 2.0, n)
    lb, ub = rng.uniform(-1.5, -0.2, n), rng.uniform(0.2, 1.5, n)
    x0 = rng.uniform(0.5 * lb, 0.5 * ub)
    rows = []
    for i in range(n - 2):
        a = rng.uniform(-1.0, 1.0, 3)
        kind = int(rng.integers(3))
        act = float(a @ x0[i:i + 3])
        rows.append((i, a, kind, act + (0.1, -0.1, 0.0)[kind]))
    x = [tv.var(lb=lb[i], ub=ub[i]) for i in range(n)]
    p = tv.problem()
    p.addVariable(x)
    cons = []
    for i, a, kind, rhs in rows:
        body = tv.Sum(a[k] * x[i + k] for k in range(3))
        if curved:
            body = body + 0.2 * tv.sin(x[i + 1])
        cons.append((body <= rhs, body >= rhs, body == rhs)[kind])
    p.addConstraint(cons)
    obj = tv.Sum(0.5 * q[i] * x[i] ** 2 + c[i] * x[i] for i in range(n))
    if curved:
        obj = obj + 0.1 * tv.Sum(tv.exp(x[i]) for i in range(0, n, 3))
    p.setObjective(obj)
    return p, x, (q, c, lb, ub, rows)


def max_violation(p, x, rows, lb, ub, curved):
    v = p.getSolution(x)
    worst = max(max(lb[i] - v[i], v[i] - ub[i]) for i in range(len(v)))
    for i, a, kind, rhs in rows:
        act = sum(a[k] * v[i + k] for k in range(3)) + (0.2 * math.sin(v[i + 1]) if curved else 0.0)
        worst = max(worst, (act - rhs, rhs - act, abs(act - rhs))[kind])
    return worst


@pytest.mark.parametrize("n,seed,threads", [(150, 0, 1), (150, 1, 1), (150, 2, 1), (1500, 3, 1), (1500, 4, 2)])
def test_diagonal_curvature_steps_solve_a_separable_qp_exactly(n, seed, threads):
    # The curvature of a separable quadratic objective goes into the interior-point step
    # problem as its exact diagonal, so the nonlinear solver lands on the QP optimum in a
    # few steps, as the second-order QP steps of the simplex path do. At 1,500 rows the
    # solver splits the rows into two halves and a separator (on two threads or one).
    highspy = pytest.importorskip("highspy")
    np = pytest.importorskip("numpy")
    p, x, (q, c, lb, ub, rows) = banded_model(n, seed, curved=False)
    p.setControl("threads", threads)
    p.setControl("tslp_stepsolver", 2)
    p.nlpoptimize()
    assert p.getProbStatusString() == "nlp_solution"
    assert p.getAttrib("tslp_simplexiter") == 0
    s, _, _ = banded_model(n, seed, curved=False)
    s.setControl("tslp_stepsolver", 1)
    s.nlpoptimize()
    assert p.getAttrib("tslp_iter") <= max(5, s.getAttrib("tslp_iter"))

    h = highspy.Highs()
    h.setOptionValue("output_flag", False)
    inf = highspy.kHighsInf
    for i in range(n):
        h.addVar(lb[i], ub[i])
        h.changeColCost(i, c[i])
    for i, a, kind, rhs in rows:
        lo, up = ((-inf, rhs), (rhs, inf), (rhs, rhs))[kind]
        h.addRow(lo, up, 3, np.arange(i, i + 3, dtype=np.int32), a)
    h.passHessian(n, n, 1, np.arange(n + 1, dtype=np.int32), np.arange(n, dtype=np.int32), q)
    h.run()
    assert h.getModelStatus() == highspy.HighsModelStatus.kOptimal
    ref = h.getInfo().objective_function_value
    assert p.getObjVal() == pytest.approx(ref, rel=1e-9, abs=1e-9)
    assert s.getObjVal() == pytest.approx(ref, rel=1e-7, abs=1e-9)
    assert p.getSolution(x) == pytest.approx(list(h.getSolution().col_value), abs=1e-5)
    assert max_violation(p, x, rows, lb, ub, False) < 1e-7


@pytest.mark.parametrize("seed", [3, 4, 5, 6])
def test_random_curved_models_reach_the_simplex_optimum(seed):
    # Nonlinear rows and objective over random banded rows: the interior-point steps with
    # diagonal curvature and the simplex steps with segments meet at the same feasible point.
    n = 150
    runs = {}
    for choice in (2, 1):
        p, x, (q, c, lb, ub, rows) = banded_model(n, seed, curved=True)
        p.setControl("tslp_stepsolver", choice)
        p.nlpoptimize()
        assert p.getProbStatusString() == "nlp_solution"
        assert max_violation(p, x, rows, lb, ub, True) < 1e-6
        runs[choice] = (p.getObjVal(), p.getAttrib("tslp_simplexiter"), p.getSolution(x))
    assert runs[2][1] == 0 and runs[1][1] > 0
    assert runs[2][0] == pytest.approx(runs[1][0], rel=1e-7, abs=1e-9)
    assert runs[2][2] == pytest.approx(runs[1][2], abs=1e-4)


def estimated_multipliers(p, choice):
    # Multipliers that validatekkt fits to the rows active at the solution, by the solver the
    # step-solver choice names, and the KKT residual they give.
    p.setControl("tslp_stepsolver", choice)
    p.validatekkt(0, 0, 1, 0.0)
    dual = []
    p.getslpsol(dual=dual)
    return dual, p.getAttrib("tslp_kktresidual")


@pytest.mark.parametrize("seed", [7, 8, 9])
def test_sparse_multiplier_estimates_agree_with_the_simplex_ones(seed):
    # Random banded curved models: a third of the rows are equalities (free multipliers). At
    # the optimum the sparse least-violation fit must certify the point as the simplex one
    # does, with the same multipliers (they are unique: the active gradients are independent).
    p, x, _ = banded_model(300, seed, curved=True)
    p.setControl("tslp_stepsolver", 1)
    p.nlpoptimize()
    assert p.getProbStatusString() == "nlp_solution"
    tol = p.getControl("tslp_kkttol")
    simplex, r_simplex = estimated_multipliers(p, 1)
    sparse, r_sparse = estimated_multipliers(p, 2)
    assert r_simplex <= tol and r_sparse <= tol
    assert any(d != 0.0 for d in sparse)
    scale = max(1.0, max(abs(d) for d in simplex))
    assert max(abs(a - b) for a, b in zip(sparse, simplex)) <= tol * scale
    # Away from an optimum no fit certifies the point, whichever solver computes it.
    q, _, _ = banded_model(300, seed, curved=True)
    q.setControl("tslp_iterlimit", 1)
    q.setControl("tslp_stepsolver", 1)
    q.nlpoptimize()
    assert estimated_multipliers(q, 1)[1] > tol and estimated_multipliers(q, 2)[1] > tol


def test_multiplier_estimate_falls_back_when_the_sparse_solver_declines():
    # Sixty equality rows over all 100 columns: each column's stationarity involves every
    # multiplier, too many dense columns for the interior-point solver, so the simplex method
    # fits them, and the result is the same as asking for it directly.
    np = pytest.importorskip("numpy")
    rng = np.random.default_rng(11)
    n, m = 100, 60
    a = rng.uniform(-1.0, 1.0, (m, n))
    x = [tv.var(lb=-5.0, ub=5.0) for _ in range(n)]
    p = tv.problem()
    p.addVariable(x)
    p.addConstraint([tv.Sum(float(a[i, k]) * x[k] for k in range(n)) == i / 10.0
                     for i in range(m)])
    p.setObjective(tv.Sum((x[k] - (k % 5) / 5.0) ** 2 + 0.1 * tv.exp(x[k] / 3.0) for k in range(n)))
    p.nlpoptimize()
    assert p.getProbStatusString() == "nlp_solution"
    simplex, r_simplex = estimated_multipliers(p, 1)
    sparse, r_sparse = estimated_multipliers(p, 2)
    assert r_simplex <= p.getControl("tslp_kkttol")
    assert r_sparse == pytest.approx(r_simplex, rel=1e-12, abs=1e-15)
    assert sparse == pytest.approx(simplex, rel=1e-12, abs=1e-12)
    assert any(d != 0.0 for d in sparse)


# ---------------------------------------------------------------- two threads

def split_models():
    # Large enough for the interior-point solver to split the rows in two halves: the beam and
    # the Van der Pol model (equality rows, free columns), random banded rows of all senses
    # (row slacks) and rows that all share three dense columns (a low-rank correction across
    # both halves).
    return {
        "beam": lambda: beam(600),
        "vanderpol": lambda: van_der_pol(600)[0],
        "banded": lambda: banded_model(1500, 5, curved=False)[0],
        "dense": lambda: dense_columns_model(1200, 3)[0],
    }


@pytest.mark.parametrize("name", ["beam", "vanderpol", "banded", "dense"])
def test_two_threads_give_the_single_thread_answer_bit_for_bit(name):
    runs = []
    for threads in (1, 2, 0):
        p = split_models()[name]()
        p.setControl("threads", threads)
        p.setControl("tslp_stepsolver", 2)
        p.nlpoptimize()
        x = []
        p.getslpsol(x=x)
        runs.append((p.getProbStatusString(), p.getAttrib("tslp_iter"), p.getAttrib("tslp_simplexiter"),
                     p.getObjVal(), x))
    assert runs[0][0] == "nlp_solution" and runs[0][2] == 0
    assert runs[1] == runs[0]
    assert runs[2] == runs[0]


def test_split_steps_hold_the_rows_of_the_dense_column_model():
    n = 1200
    p, x, s = dense_columns_model(n, 3)
    p.setControl("threads", 2)
    value, pivots = solve(p, 2)
    assert pivots == 0
    xv, sv = p.getSolution(x), p.getSolution(s)
    coupling = sum(0.3 * (k + 1) * sv[k] for k in range(3))
    assert max(abs(math.sin(xv[i]) + 0.5 * xv[i + 1] + coupling - 0.1) for i in range(n - 1)) < 1e-6
    assert max(abs(v) for v in xv) <= 1.0 + 1e-9


def test_large_multiplier_fit_converges_on_free_multipliers():
    # Every row of the beam is an equality, so every multiplier of the fit is free. The
    # interior-point fit must converge (not stop on its stall rule) and certify the solution.
    p = beam(500)
    p.setControl("threads", 2)
    solve(p, 0)
    tol = p.getControl("tslp_kkttol")
    lines = []
    p.setcbmessage(lambda prob, data, msg, kind: lines.append(msg))
    p.setControl("tslp_log", 2)
    sparse, r_sparse = estimated_multipliers(p, 0)
    fits = [l for l in lines if "interior-point fit" in l]
    assert len(fits) == 1 and "converged" in fits[0], lines
    assert any(d != 0.0 for d in sparse)
    # The simplex method fits the least worst violation: never more than the sparse fit's.
    simplex, r_simplex = estimated_multipliers(p, 1)
    assert r_simplex <= r_sparse * (1 + 1e-9) <= tol
