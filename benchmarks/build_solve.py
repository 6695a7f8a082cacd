"""Build and solve a large LP through tarvo, then solve the same model with HiGHS directly.

Builds a covering LP of ROWS rows, ROWS columns and 10 nonzeros per row (100,000 rows and
1,000,000 nonzeros by default) with addConstraint: row i holds columns i, i+1, ..., i+9 (mod
ROWS) with random coefficients 1..9 and a random right-hand side, the costs are random in [1, 2].
The banded pattern keeps the LP within reach of the simplex method at this size (a random
sparse pattern of the same size takes HiGHS hours). The model is solved through tarvo, written
to MPS, and solved again by HiGHS's own `highs` program from highsbox. Prints the build time
(Python algebra, then loading into the problem), tarvo's solve time, HiGHS's own run time
(solve only, without reading the file) and the ratios; no assertions.

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
    x = [tv.var() for _ in range(rows)]
    start = time.perf_counter()
    cons = [tv.Sum(rng.randint(1, 9) * x[(i + k) % rows] for k in range(per_row))
            >= rng.randint(1, 20) for i in range(rows)]
    objective = tv.Sum(rng.uniform(1, 2) * v for v in x)
    algebra = time.perf_counter() - start
    start = time.perf_counter()
    p = tv.problem(x, name="bench")
    p.addConstraint(cons)
    p.setObjective(objective)
    load = time.perf_counter() - start
    return p, algebra, load


def highs_direct(mps):
    """Runs the highs program on the file; returns wall time, HiGHS's run time and objective."""
    env = dict(os.environ)
    env["LD_LIBRARY_PATH"] = os.pathsep.join(
        filter(None, [highsbox.highs_lib_dir(), env.get("LD_LIBRARY_PATH")]))
    with tempfile.TemporaryDirectory() as d:  # the program leaves Highs.log in its directory
        start = time.perf_counter()
        out = subprocess.run([highsbox.highs_bin_path(), "--model_file", mps],
                             capture_output=True, text=True, cwd=d, env=env)
        elapsed = time.perf_counter() - start
    if out.returncode != 0:
        sys.exit("highs failed (%d): %s" % (out.returncode, out.stderr or out.stdout))
    run = re.search(r"HiGHS run time\s*:\s*([-+0-9.eE]+)", out.stdout)
    obj = re.search(r"Objective value\s*:\s*([-+0-9.eE]+)", out.stdout)
    return (elapsed, float(run.group(1)) if run else float("nan"),
            float(obj.group(1)) if obj else float("nan"))


def main():
    rows = int(sys.argv[1]) if len(sys.argv) > 1 else 100_000
    per_row = int(sys.argv[2]) if len(sys.argv) > 2 else 10
    tv.setOutputEnabled(False)
    p, algebra, load = build(rows, per_row)
    print("model: %d rows, %d columns, %d nonzeros"
          % (p.attributes.rows, p.attributes.cols, p.attributes.elems))
    print("build: algebra %.2f s, addConstraint/setObjective %.2f s, total %.2f s"
          % (algebra, load, algebra + load))
    start = time.perf_counter()
    p.solve()
    solve = time.perf_counter() - start
    print("tarvo solve: %.2f s, %s, objective %.6f, %d simplex iterations"
          % (solve, p.getProbStatusString(), p.getObjVal(), p.attributes.simplexiter))
    with tempfile.TemporaryDirectory() as d:
        mps = os.path.join(d, "bench.mps")
        start = time.perf_counter()
        p.write(mps)
        print("write MPS: %.2f s" % (time.perf_counter() - start))
        wall, run, obj = highs_direct(mps)
    print("highs program: run time %.2f s (wall %.2f s with reading the file), objective %.6f"
          % (run, wall, obj))
    print("ratio tarvo solve / HiGHS run time: %.2f" % (solve / run))
    print("ratio tarvo build+solve / HiGHS wall time: %.2f" % ((algebra + load + solve) / wall))


if __name__ == "__main__":
    main()
