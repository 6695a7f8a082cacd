"""Time of the convexity check of a dense quadratic objective.

For each order n, builds Q = F F' + D (F n x 10, D a positive diagonal: a dense low-rank plus
diagonal covariance), then shifts it just below positive semidefinite along its eigenvector of
least eigenvalue. solve() then refuses the problem as nonconvex only after the check has run to
its end, and nothing else runs, so the time of solve() is the time of the check. Prints the
build time and the check time per order; no assertions.

    PYTHONPATH=. python benchmarks/convexity.py [n ...]      (default 1000 3000 5000)
"""
import sys
import time

import numpy as np

import tarvo as tv


def main():
    sizes = [int(a) for a in sys.argv[1:]] or [1000, 3000, 5000]
    tv.setOutputEnabled(False)
    rng = np.random.default_rng(7)
    for n in sizes:
        f = rng.normal(size=(n, 10))
        q = f @ f.T + np.diag(rng.uniform(0.5, 1.5, n))
        w, v = np.linalg.eigh(q)
        q -= (w[0] + 1e-3 * np.abs(q).max()) * np.outer(v[:, 0], v[:, 0])
        start = time.perf_counter()
        x = tv.vars(n, lb=0, ub=1)
        p = tv.problem(x)
        p.setObjective(tv.Dot(x, q, x))
        build = time.perf_counter() - start
        start = time.perf_counter()
        try:
            p.solve()
            verdict = "accepted (unexpected)"
        except tv.SolverError:
            verdict = "refused as nonconvex"
        check = time.perf_counter() - start
        print("n = %5d: %d quadratic entries, build %.2f s, convexity check %.3f s (%s)"
              % (n, p.attributes.qelems, build, check, verdict))


if __name__ == "__main__":
    main()
