"""Cost of Python callbacks during a MIP solve: prints the solve time of a MIP of a few thousand
nodes without callbacks and with an empty intsol + checktime pair, the number of callback calls
and the overhead (target: at most 5 %). No assertions.

Run from a checkout after ./scripts/dev-build with PYTHONPATH=. or against an installed tarvo.
Usage: python benchmarks/callbacks.py [repeats]
"""
import statistics
import sys
import time

import numpy as np

import tarvo as tv

REPEATS = int(sys.argv[1]) if len(sys.argv) > 1 else 3


def model(seed=11, n=35, m=20):
    """A multi-dimensional knapsack: small, but HiGHS needs thousands of nodes for it."""
    rng = np.random.default_rng(seed)
    w = rng.integers(20, 100, (m, n))
    v = rng.integers(20, 100, n) + w.sum(axis=0) // m
    x = [tv.var(vartype=tv.binary) for _ in range(n)]
    p = tv.problem(x, [tv.Sum(int(w[k, i]) * x[i] for i in range(n)) <= int(w[k].sum()) // 2 for k in range(m)],
                   tv.Sum(int(v[i]) * x[i] for i in range(n)), sense=tv.maximize)
    p.controls.threads = 1
    p.controls.randomseed = 1
    return p


def solve(with_callbacks):
    p = model()
    calls = [0]

    def empty(prob, data):
        calls[0] += 1

    if with_callbacks:
        p.addcbintsol(empty)
        p.addcbchecktime(empty)
    start, cpu = time.perf_counter(), time.process_time()
    p.solve()
    seconds, cpu = time.perf_counter() - start, time.process_time() - cpu
    assert p.getProbStatusString() == "mip_optimal"
    return seconds, p.attributes.nodes, calls[0], p.getObjVal(), cpu


def main():
    tv.setOutputEnabled(False)
    plain, timed = [], []
    for _ in range(REPEATS):  # interleaved, so that machine load hits both alike
        plain.append(solve(False))
        timed.append(solve(True))
    t0 = statistics.median(s[0] for s in plain)
    t1 = statistics.median(s[0] for s in timed)
    c0 = statistics.median(s[4] for s in plain)
    c1 = statistics.median(s[4] for s in timed)
    print(f"MIP: {plain[0][1]} nodes, objective {plain[0][3]:g} (medians of {REPEATS} runs)")
    print(f"                                   wall time     CPU time")
    print(f"solve without callbacks            {t0:8.3f} s   {c0:8.3f} s")
    print(f"solve with empty intsol+checktime  {t1:8.3f} s   {c1:8.3f} s   ({timed[0][2]} callback calls)")
    print(f"overhead                           {100 * (t1 - t0) / t0:+8.1f} %   {100 * (c1 - c0) / c0:+8.1f} %"
          "   (target <= 5 %)")


if __name__ == "__main__":
    main()
