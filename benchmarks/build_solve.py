"""Build and solve a large LP through tarvo, then solve the same model with HiGHS directly.

Builds an LP of ROWS rows and about 10 nonzeros per row (100,000 rows and 1,000,000 nonzeros by
default) with addConstraint, solves it, writes it to MPS, and runs HiGHS's own `highs` binary
from highsbox on that file. Prints build time, tarvo solve time, direct HiGHS time and the
ratio; no assertions.

    PYTHONPATH=. python benchmarks/build_solve.py [rows] [nonzeros_per_row]
"""
import os
import random
import re
import subprocess
import sys
import tempfile
import time

import highsbox

import tarvo as tv


def build(rows, per_row, seed=1):
    rng = random.Random(seed)
    ncols = rows // 2
    x = [tv.var() for _ in range(ncols)]
    start = time.perf_counter()
    cons = []
    for i in range(rows):
        cols = rng.sample(range(ncols), per_row)
        body = tv.Sum(rng.randint(1, 9) * x[j] for j in cols) if hasattr(tv, "Sum") else \
            sum(rng.randint(1, 9) * x[j] for j in cols)
        cons.append(body >= rng.randint(1, 20))
    algebra = time.perf_counter() - start
    start = time.perf_counter()
    p = tv.problem(x, name="bench")
    p.addConstraint(cons)
    p.setObjective(sum(rng.uniform(1, 2) * v for v in x))
    load = time.perf_counter() - start
    return p, algebra, load


def highs_direct(mps):
    with tempfile.TemporaryDirectory() as d:
        opts = os.path.join(d, "options.txt")
        with open(opts, "w") as f:
            f.write("log_to_console = true\n")
        start = time.perf_counter()
        out = subprocess.run([highsbox.highs_bin_path(), "--model_file", mps, "--options_file", opts],
                             capture_output=True, text=True)
        elapsed = time.perf_counter() - start
    m = re.search(r"Objective value\s*:\s*([-+0-9.eE]+)", out.stdout)
    return elapsed, float(m.group(1)) if m else float("nan")


def main():
    rows = int(sys.argv[1]) if len(sys.argv) > 1 else 100_000
    per_row = int(sys.argv[2]) if len(sys.argv) > 2 else 10
    tv.setOutputEnabled(False)
    p, algebra, load = build(rows, per_row)
    print("model: %d rows, %d columns, %d nonzeros" % (p.attributes.rows, p.attributes.cols, p.attributes.elems))
    print("build: algebra %.2f s, addConstraint/setObjective %.2f s" % (algebra, load))
    start = time.perf_counter()
    p.solve()
    solve = time.perf_counter() - start
    print("tarvo solve: %.2f s, %s, objective %.6f" % (solve, p.getProbStatusString(), p.getObjVal()))
    with tempfile.TemporaryDirectory() as d:
        mps = os.path.join(d, "bench.mps")
        p.write(mps)
        direct, obj = highs_direct(mps)
    print("highs binary on the written MPS (incl. reading): %.2f s, objective %.6f" % (direct, obj))
    print("ratio tarvo solve / direct HiGHS: %.2f" % (solve / direct if direct > 0 else float("nan")))
    print("ratio tarvo build+solve / direct HiGHS: %.2f" % ((algebra + load + solve) / direct if direct > 0 else float("nan")))


if __name__ == "__main__":
    main()
