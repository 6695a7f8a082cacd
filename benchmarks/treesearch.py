"""The engine's own tree search against HiGHS's MIP solver on small binary models of the usual
test-set families (set covering, multi-dimensional knapsack, capacitated facility location,
generalised assignment, independent set, bin packing). Both run to optimality (no gap); the
script prints each model's optimum, node counts and times, and the time ratio, and fails when
an optimum differs.

    PYTHONPATH=$PWD python benchmarks/treesearch.py [--quick]
"""
import sys
import time

import numpy as np

import tarvo as tv


def set_cover(seed, rows=80, cols=120):
    rng = np.random.default_rng(seed)
    x = [tv.var(vartype=tv.binary) for _ in range(cols)]
    cover = []
    for i in range(rows):
        members = rng.choice(cols, size=int(rng.integers(3, 7)), replace=False)
        cover.append(tv.Sum(x[int(j)] for j in members) >= 1)
    cost = rng.integers(1, 20, cols)
    return tv.problem(x, cover, tv.Sum(int(cost[j]) * x[j] for j in range(cols)))


def multi_knapsack(seed, n=35, m=5):
    rng = np.random.default_rng(seed)
    x = [tv.var(vartype=tv.binary) for _ in range(n)]
    w = rng.integers(5, 60, (m, n))
    v = rng.integers(10, 100, n)
    rows = [tv.Sum(int(w[i, j]) * x[j] for j in range(n)) <= int(w[i].sum() // 3) for i in range(m)]
    return tv.problem(x, rows, tv.Sum(int(v[j]) * x[j] for j in range(n)), sense=tv.maximize)


def facility(seed, fac=12, cust=30):
    rng = np.random.default_rng(seed)
    y = [tv.var(vartype=tv.binary) for _ in range(fac)]
    x = [[tv.var(ub=1) for _ in range(cust)] for _ in range(fac)]
    demand = rng.integers(5, 30, cust)
    cap = rng.integers(40, 120, fac)
    fixed = rng.integers(50, 200, fac)
    dist = rng.integers(1, 40, (fac, cust))
    rows = [tv.Sum(x[f][c] for f in range(fac)) == 1 for c in range(cust)]
    rows += [tv.Sum(int(demand[c]) * x[f][c] for c in range(cust)) <= int(cap[f]) * y[f] for f in range(fac)]
    rows += [x[f][c] <= y[f] for f in range(fac) for c in range(cust)]
    obj = tv.Sum(int(fixed[f]) * y[f] for f in range(fac)) + \
        tv.Sum(int(dist[f, c] * demand[c]) * x[f][c] for f in range(fac) for c in range(cust))
    return tv.problem(y, x, rows, obj)


def assignment(seed, agents=6, jobs=24):
    rng = np.random.default_rng(seed)
    x = [[tv.var(vartype=tv.binary) for _ in range(jobs)] for _ in range(agents)]
    cost = rng.integers(10, 50, (agents, jobs))
    size = rng.integers(5, 25, (agents, jobs))
    cap = (size.sum(axis=1) * 0.8 / agents * 1.6).astype(int)
    rows = [tv.Sum(x[a][j] for a in range(agents)) == 1 for j in range(jobs)]
    rows += [tv.Sum(int(size[a, j]) * x[a][j] for j in range(jobs)) <= int(cap[a]) for a in range(agents)]
    return tv.problem(x, rows, tv.Sum(int(cost[a, j]) * x[a][j] for a in range(agents) for j in range(jobs)))


def independent_set(seed, n=60, p=0.1):
    rng = np.random.default_rng(seed)
    x = [tv.var(vartype=tv.binary) for _ in range(n)]
    w = rng.integers(1, 10, n)
    edges = [(i, j) for i in range(n) for j in range(i + 1, n) if rng.random() < p]
    return tv.problem(x, [x[i] + x[j] <= 1 for i, j in edges], tv.Sum(int(w[i]) * x[i] for i in range(n)),
                      sense=tv.maximize)


def bin_packing(seed, items=11, bins=6):
    rng = np.random.default_rng(seed)
    size = rng.integers(20, 60, items)
    cap = 100
    y = [tv.var(vartype=tv.binary) for _ in range(bins)]
    x = [[tv.var(vartype=tv.binary) for _ in range(bins)] for _ in range(items)]
    rows = [tv.Sum(x[i]) == 1 for i in range(items)]
    rows += [tv.Sum(int(size[i]) * x[i][b] for i in range(items)) <= cap * y[b] for b in range(bins)]
    rows += [y[b] >= y[b + 1] for b in range(bins - 1)]  # symmetry
    return tv.problem(y, x, rows, tv.Sum(y))


FAMILIES = [("setcover", set_cover), ("mknapsack", multi_knapsack), ("facility", facility),
            ("gap", assignment), ("indset", independent_set), ("binpack", bin_packing)]


def solve(build, seed, treesearch):
    p = build(seed)
    p.controls.miprelstop = 0
    p.controls.mipabsstop = 1e-9
    p.controls.treesearch = treesearch
    p.controls.threads = 1
    t = time.perf_counter()
    p.solve()
    return p.getProbStatusString(), p.getObjVal(), p.attributes.nodes, time.perf_counter() - t


def main():
    tv.setOutputEnabled(False)
    seeds = range(2) if "--quick" in sys.argv else range(4)
    print("%-12s %14s %8s %9s %8s %9s %7s" % ("model", "optimum", "HiGHS n", "HiGHS s", "own n", "own s", "ratio"))
    total_h = total_o = 0.0
    mismatches = 0
    count = 0
    for name, build in FAMILIES:
        for seed in seeds:
            sh, oh, nh, th = solve(build, seed, 2)
            so, oo, no, to = solve(build, seed, 1)
            same = sh == so == "mip_optimal" and abs(oh - oo) <= 1e-6 * max(1, abs(oh))
            mismatches += not same
            total_h += th
            total_o += to
            count += 1
            print("%-12s %14.6f %8d %9.3f %8d %9.3f %7.2f%s" % (
                "%s-%d" % (name, seed), oh, nh, th, no, to, to / max(th, 1e-9),
                "" if same else "  MISMATCH (%s %r / %s %r)" % (sh, oh, so, oo)))
    print("%d models, total time HiGHS %.2f s, own search %.2f s, ratio %.2f" % (
        count, total_h, total_o, total_o / max(total_h, 1e-9)))
    if mismatches:
        print("%d optimum mismatches" % mismatches)
        sys.exit(1)


if __name__ == "__main__":
    main()
