"""Model-building times of three classic models at several sizes, and their solve times.

- facility location (MIP): m facilities with fixed costs and capacities, n customers;
  x[i,j] share of customer j served by facility i, y[i] open or closed.
- linear-quadratic control (QP): T periods, state s[t] in R^k driven by controls u[t],
  s[t+1] = A s[t] + B u[t] with a stable A, minimising the sum of squared states and controls.
- basic LP: a dense-ish random LP with m rows, n columns and d nonzeros per row.

Each model is built twice, once with plain Python lists and once with NumPy arrays of
variables (`tarvo.vars`, `Dot`), and the time to build the problem object (variables,
constraints, objective) is printed next to the solve time, the solve status and the
objective. Solves are capped at 8 s (30 s with --large) so that the default run ends within
a few minutes; a capped solve shows its status (for example mip_solution or lp_unfinished)
next to the best objective found. No assertions. The comparison of building times with a
native program is benchmarks/build_solve.py.

    PYTHONPATH=. python benchmarks/models.py [--large]
"""
import random
import sys
import time

import numpy as np

import tarvo as tv


def timed(fn):
    start = time.perf_counter()
    result = fn()
    return result, time.perf_counter() - start


def facility_lists(m, n, seed=1):
    rng = random.Random(seed)
    fixed = [rng.uniform(50, 100) for _ in range(m)]
    cap = [rng.uniform(n / m * 1.5, n / m * 3) for _ in range(m)]
    cost = [[rng.uniform(1, 20) for _ in range(n)] for _ in range(m)]
    y = [tv.var(vartype=tv.binary) for _ in range(m)]
    x = [[tv.var(ub=1) for _ in range(n)] for _ in range(m)]
    cons = [tv.Sum(x[i][j] for i in range(m)) == 1 for j in range(n)]
    cons += [tv.Sum(x[i][j] for j in range(n)) <= cap[i] * y[i] for i in range(m)]
    cons += [x[i][j] <= y[i] for i in range(m) for j in range(n)]
    obj = tv.Sum(fixed[i] * y[i] for i in range(m)) + tv.Sum(
        cost[i][j] * x[i][j] for i in range(m) for j in range(n))
    return tv.problem(y, x, cons, obj, "facility")


def facility_numpy(m, n, seed=1):
    rng = np.random.default_rng(seed)
    fixed = rng.uniform(50, 100, m)
    cap = rng.uniform(n / m * 1.5, n / m * 3, m)
    cost = rng.uniform(1, 20, (m, n))
    y = tv.vars(m, vartype=tv.binary, name="")
    x = tv.vars(m, n, ub=1, name="")
    p = tv.problem("facility")
    p.addVariable(y, x)
    p.addConstraint(tv.Sum(x[i, j] for i in range(m)) == 1 for j in range(n))
    p.addConstraint(tv.Sum(x[i, :]) <= cap[i] * y[i] for i in range(m))
    p.addConstraint(x[i, j] <= y[i] for i in range(m) for j in range(n))
    p.setObjective(tv.Dot(fixed, y) + tv.Sum(tv.Dot(cost[i], x[i]) for i in range(m)))
    return p


def lqc_lists(T, k, seed=2):
    rng = random.Random(seed)
    A = [[(0.9 if a == b else 0.0) + rng.uniform(-0.005, 0.005) for b in range(k)] for a in range(k)]
    B = [[rng.uniform(0, 0.5) for _ in range(k)] for _ in range(k)]
    s = [[tv.var(lb=-1e20) for _ in range(k)] for _ in range(T + 1)]
    u = [[tv.var(lb=-1, ub=1) for _ in range(k)] for _ in range(T)]
    cons = [s[0][a] == 1.0 for a in range(k)]
    for t in range(T):
        for a in range(k):
            cons.append(s[t + 1][a] == tv.Sum(A[a][b] * s[t][b] for b in range(k))
                        + tv.Sum(B[a][b] * u[t][b] for b in range(k)))
    obj = tv.Sum(s[t][a] * s[t][a] for t in range(T + 1) for a in range(k)) + \
        0.1 * tv.Sum(u[t][a] * u[t][a] for t in range(T) for a in range(k))
    return tv.problem(s, u, cons, obj, "lqc")


def lqc_numpy(T, k, seed=2):
    rng = np.random.default_rng(seed)
    A = 0.9 * np.eye(k) + rng.uniform(-0.005, 0.005, (k, k))
    B = rng.uniform(0, 0.5, (k, k))
    s = tv.vars(T + 1, k, lb=-1e20, name="")
    u = tv.vars(T, k, lb=-1, ub=1, name="")
    p = tv.problem("lqc")
    p.addVariable(s, u)
    p.addConstraint(s[0] == 1.0)
    p.addConstraint(s[t + 1] == tv.Dot(A, s[t]) + tv.Dot(B, u[t]) for t in range(T))
    p.setObjective(tv.Sum(s.flatten() * s.flatten()) + 0.1 * tv.Sum(u.flatten() * u.flatten()))
    return p


def lp_lists(m, n, d, seed=3):
    rng = random.Random(seed)
    x = [tv.var(ub=100) for _ in range(n)]
    cons = [tv.Sum(rng.uniform(1, 10) * x[j] for j in rng.sample(range(n), d)) <= rng.uniform(50, 100)
            for _ in range(m)]
    return tv.problem(x, cons, -tv.Sum(rng.uniform(1, 5) * xj for xj in x), "lp")


def lp_numpy(m, n, d, seed=3):
    rng = np.random.default_rng(seed)
    x = tv.vars(n, ub=100, name="")
    p = tv.problem("lp")
    p.addVariable(x)
    cols = [rng.choice(n, d, replace=False) for _ in range(m)]
    coef = rng.uniform(1, 10, (m, d))
    rhs = rng.uniform(50, 100, m)
    p.addConstraint(tv.Dot(coef[i], x[cols[i]]) <= rhs[i] for i in range(m))
    p.setObjective(-tv.Dot(rng.uniform(1, 5, n), x))
    return p


def report(label, size, builder, cap):
    try:
        p, build = timed(builder)
        p.controls.maxtime = cap  # solves are capped: the figure of interest is the build
        _, solve = timed(p.solve)
        rows, cols = p.attributes.rows, p.attributes.cols
        status = p.getProbStatusString()
        try:
            obj = "%.6g" % p.getObjVal()
        except Exception:  # no solution within the cap
            obj = "-"
        print("%-10s %-7s %-18s rows %8d cols %8d  build %7.3f s  solve %7.3f s  %-14s obj %s"
              % (label[0], label[1], size, rows, cols, build, solve, status, obj))
    except Exception as exc:  # a failing size is reported, the others still run
        print("%-10s %-7s %-18s failed: %s: %s" % (label[0], label[1], size, type(exc).__name__, exc))
    sys.stdout.flush()


def main():
    tv.setOutputEnabled(False)
    large = "--large" in sys.argv
    cap = 30 if large else 8
    fl = [(10, 100), (20, 200), (40, 400)] + ([(100, 2000)] if large else [])
    lq = [(100, 5), (300, 10), (1000, 10)] + ([(5000, 10)] if large else [])
    lps = [(1000, 500, 10), (5000, 2500, 10), (20000, 10000, 10)] + ([(100000, 50000, 10)] if large else [])
    for m, n in fl:
        for kind, fn in (("lists", facility_lists), ("numpy", facility_numpy)):
            report(("facility", kind), "m=%d n=%d" % (m, n), lambda: fn(m, n), cap)
    for T, k in lq:
        for kind, fn in (("lists", lqc_lists), ("numpy", lqc_numpy)):
            report(("lqc", kind), "T=%d k=%d" % (T, k), lambda: fn(T, k), cap)
    for m, n, d in lps:
        for kind, fn in (("lists", lp_lists), ("numpy", lp_numpy)):
            report(("lp", kind), "m=%d n=%d" % (m, n), lambda: fn(m, n, d), cap)


if __name__ == "__main__":
    main()
