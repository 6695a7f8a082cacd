"""Speed of nonlinear problem files: write() and read() of a nonlinear model with N rows (each
row one nonlinear formula over a few variables, plus a linear part) and a nonlinear objective.
Prints seconds, file size and throughput; asserts nothing about time.

    PYTHONPATH=. python3 benchmarks/nlp_files.py            # N = 20000
    PYTHONPATH=. python3 benchmarks/nlp_files.py 100000
"""
import os
import sys
import tempfile
import time

import tarvo as tv

N = int(sys.argv[1]) if len(sys.argv) > 1 else 20_000


def build(n):
    x = [tv.var(lb=0.1, ub=10, name="x%d" % i) for i in range(n + 1)]
    rows = [
        tv.constraint(body=tv.exp(0.01 * x[i]) * x[i + 1] + tv.sin(x[i]) / x[i + 1] + 2 * x[i] - x[i + 1],
                      ub=50, name="r%d" % i)
        for i in range(n)
    ]
    objective = tv.Sum(x[i] ** 2 for i in range(0, n + 1, 7)) + tv.log(x[0] + x[n])
    return tv.problem(x, rows, objective)


def main():
    tv.setOutputEnabled(False)
    start = time.perf_counter()
    p = build(N)
    built = time.perf_counter() - start
    with tempfile.TemporaryDirectory() as d:
        f = os.path.join(d, "model.mps")
        start = time.perf_counter()
        p.write(f)
        wrote = time.perf_counter() - start
        size = os.path.getsize(f)
        q = tv.problem()
        start = time.perf_counter()
        q.read(f)
        read = time.perf_counter() - start
    print("rows %d, columns %d, file %.1f MB (model built in %.2f s)" % (N, N + 1, size / 1e6, built))
    print("write  %.3f s  %.1f MB/s" % (wrote, size / 1e6 / wrote))
    print("read   %.3f s  %.1f MB/s" % (read, size / 1e6 / read))
    print("rows read back: %d, columns: %d" % (len(q.getConstraint()), len(q.getVariable())))


if __name__ == "__main__":
    main()
