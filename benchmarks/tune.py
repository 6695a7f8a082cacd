"""The tuner on a set of 20 small MIPs: solve time with the default controls against the time
with the controls `tune` keeps.

Models (random, seeded): multi-dimensional knapsacks, set covers, capacitated facility
location and generalised assignment, five of each. For every model: the best of REPEAT solves
with the defaults, then `tune` (within MAXTIME seconds), then the best of REPEAT solves with the
kept controls, each solve on a fresh copy. Prints one line per model (times, ratio, objective
check, the settings kept) and a summary (geometric mean of the ratios, the models whose changed
controls were slower by more than 10%). No assertions.

    PYTHONPATH=. python benchmarks/tune.py [repeat] [maxtime]
"""
import math
import random
import sys
import time

import tarvo as tv

TUNABLE = ["presolve", "defaultalg", "crossover", "scaling", "heureffort", "symmetry", "miprestart", "randomseed"]


def knapsack(seed):
    rnd = random.Random(seed)
    n, m = 45, 5
    xs = [tv.var(vartype=tv.binary) for _ in range(n)]
    rows = [tv.constraint(sum(rnd.randint(1, 40) * x for x in xs) <= 10 * n) for _ in range(m)]
    return tv.problem(xs, rows, sum(rnd.randint(10, 80) * x for x in xs), sense=tv.maximize, name=f"knapsack{seed}")


def set_cover(seed):
    rnd = random.Random(seed)
    n, m = 200, 150
    xs = [tv.var(vartype=tv.binary) for _ in range(n)]
    rows = []
    for _ in range(m):
        cover = rnd.sample(range(n), 5)
        rows.append(tv.constraint(sum(xs[j] for j in cover) >= 1))
    return tv.problem(xs, rows, sum(rnd.randint(1, 20) * x for x in xs), name=f"setcover{seed}")


def facility(seed):
    rnd = random.Random(seed)
    nf, nc = 10, 30
    open_ = [tv.var(vartype=tv.binary) for _ in range(nf)]
    ship = [[tv.var(ub=1) for _ in range(nc)] for _ in range(nf)]
    demand = [rnd.randint(5, 30) for _ in range(nc)]
    cap = [rnd.randint(60, 140) for _ in range(nf)]
    rows = [tv.constraint(sum(ship[f][c] for f in range(nf)) == 1) for c in range(nc)]
    rows += [tv.constraint(sum(demand[c] * ship[f][c] for c in range(nc)) <= cap[f] * open_[f]) for f in range(nf)]
    cost = sum(rnd.randint(100, 400) * o for o in open_)
    cost += sum(rnd.randint(1, 40) * demand[c] * ship[f][c] for f in range(nf) for c in range(nc))
    variables = open_ + [v for row in ship for v in row]
    return tv.problem(variables, rows, cost, name=f"facility{seed}")


def assignment(seed):
    rnd = random.Random(seed)
    na, nt = 8, 40
    x = [[tv.var(vartype=tv.binary) for _ in range(nt)] for _ in range(na)]
    rows = [tv.constraint(sum(x[a][t] for a in range(na)) == 1) for t in range(nt)]
    rows += [tv.constraint(sum(rnd.randint(5, 25) * x[a][t] for t in range(nt)) <= 4.5 * nt) for a in range(na)]
    cost = sum(rnd.randint(10, 50) * x[a][t] for a in range(na) for t in range(nt))
    return tv.problem([v for row in x for v in row], rows, cost, name=f"assign{seed}")


MODELS = [make(seed) for make in (knapsack, set_cover, facility, assignment) for seed in range(1, 6)]


def timed(p, repeat):
    best, obj = math.inf, None
    for _ in range(repeat):
        q = p.copy()
        q.controls.outputlog = 0
        t = time.perf_counter()
        q.solve()
        best = min(best, time.perf_counter() - t)
        obj = q.getObjVal()
    return best, obj


def main():
    repeat = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    maxtime = float(sys.argv[2]) if len(sys.argv) > 2 else 20.0
    tv.setOutputEnabled(False)
    print(f"{'model':<12} {'default s':>10} {'tuned s':>10} {'ratio':>6} {'tune s':>7}  objective  kept settings")
    ratios, slower = [], []
    for p in MODELS:
        p.controls.outputlog = 0
        before = p.getControl(TUNABLE)
        t_default, obj_default = timed(p, repeat)
        p.controls.maxtime = maxtime
        t = time.perf_counter()
        p.tune()
        t_tune = time.perf_counter() - t
        p.controls.maxtime = 0
        after = p.getControl(TUNABLE)
        kept = " ".join(f"{k}={after[k]}" for k in TUNABLE if after[k] != before[k]) or "(defaults)"
        t_tuned, obj_tuned = timed(p, repeat)
        ratio = t_tuned / t_default
        ratios.append(ratio)
        if ratio > 1.1 and after != before:
            slower.append(p.name())
        same = "same" if abs(obj_tuned - obj_default) <= 1e-6 * max(1.0, abs(obj_default)) + 1e-4 * abs(obj_default) else "DIFFERS"
        print(f"{p.name():<12} {t_default:10.3f} {t_tuned:10.3f} {ratio:6.2f} {t_tune:7.2f}  {same:<9}  {kept}")
    gm = math.exp(sum(math.log(r) for r in ratios) / len(ratios))
    print(f"geometric mean ratio tuned/default: {gm:.3f}; changed settings slower by more than 10%: "
          f"{', '.join(slower) or 'none'} (a ratio away from 1 with the defaults kept is timing noise)")


if __name__ == "__main__":
    main()
