"""Speed of the modelling algebra: prints seconds per million operations (no assertions).

Run from a checkout after ./scripts/dev-build with PYTHONPATH=. or against an installed tarvo.
Each measurement is one function returning (label, seconds, count); add a new one to
MEASUREMENTS to extend the report.
"""
import sys
import time

import tarvo

N = int(sys.argv[1]) if len(sys.argv) > 1 else 1_000_000


def timed(fn):
    start = time.perf_counter()
    result = fn()
    return time.perf_counter() - start, result


def create_variables():
    seconds, variables = timed(lambda: [tarvo.var() for _ in range(N)])
    create_variables.variables = variables
    return "var() creation", seconds, N


def create_bounded_named_variables():
    seconds, _ = timed(lambda: [tarvo.var(name="v", lb=-2.5, ub=3.5) for _ in range(N)])
    return "var(name, lb, ub) creation (side tables)", seconds, N


def sum_with_inplace_add():
    variables = create_variables.variables

    def build():
        e = 0
        for v in variables:
            e += v
        return e

    seconds, e = timed(build)
    assert len(e.extractLinear()[0]) == len(variables)
    return "e += x over fresh variables", seconds, N


def sum_of_linear_terms():
    variables = create_variables.variables

    def build():
        e = 0
        for i, v in enumerate(variables):
            e += (i % 7 + 1) * v
        return e

    seconds, _ = timed(build)
    return "e += c*x (term creation and insertion)", seconds, N


MEASUREMENTS = [create_variables, create_bounded_named_variables, sum_with_inplace_add, sum_of_linear_terms]


def best_of(runs, fn):
    return min(timed(fn)[0] for _ in range(runs))


def aggregate_scaling():
    """Sum over a generator of x[i]**2 at growing n: the time must grow linearly in n.

    Beyond the cache sizes every per-element operation gets slower per element, so the time of
    merely producing the same terms (the generator alone) is printed beside Sum's: a one-pass Sum
    keeps a constant ratio to it.
    """
    print("\nSum(x[i]**2 for i in range(n)) over tarvo.vars(n, name=''), best of 3:")
    previous = None
    for n in (10_000, 100_000, 1_000_000):
        x = tarvo.vars(n, name="")

        def produce():
            for _ in (x[i] ** 2 for i in range(n)):
                pass

        seconds = best_of(3, lambda: tarvo.Sum(x[i] ** 2 for i in range(n)))
        baseline = best_of(3, produce)
        s = tarvo.Sum(x[i] ** 2 for i in range(n))
        assert len(s.extractQuadratic()[0]) == n
        growth = "" if previous is None else "   x%.1f time for x10 terms" % (seconds / previous)
        print("  n = %-9d %8.3f s   %8.3f s per million   %.2f x the terms' own creation%s"
              % (n, seconds, seconds * 1e6 / n, seconds / baseline, growth))
        previous = seconds
        del x, s


def dot_scaling():
    """Dot(A, x) and Dot(x, Q, x) with dense matrices: n*n terms each."""
    import numpy as np

    print("\nDot with dense n x n matrices, best of 3 (time per million terms n*n):")
    rng = np.random.default_rng(1)
    for n in (100, 300, 1000):
        A = rng.random((n, n))
        x = tarvo.vars(n, name="")
        linear = best_of(3, lambda: tarvo.Dot(A, x))
        quadratic = best_of(3, lambda: tarvo.Dot(x, A, x))
        print("  n = %-5d Dot(A, x) %7.3f s (%5.2f s per million)   Dot(x, Q, x) %7.3f s (%5.2f s per million)"
              % (n, linear, linear * 1e6 / n / n, quadratic, quadratic * 1e6 / n / n))


def nonlinear_loading():
    """setObjective and addConstraint of one sum of n nonlinear terms (cos), against a linear
    row of the same size: the conversion into formulas should grow linearly in n. Each figure is
    the best of three runs on fresh problems, in wall-clock and in CPU time (the latter is what
    to read on a shared machine, where other processes add whole time slices to the former)."""
    print("\nLoading one nonlinear sum (setObjective / addConstraint; linear row for comparison),"
          " best of 3, wall / CPU ms:")
    for n in (2000, 4000, 8000, 16000):
        best = {}
        for _ in range(3):
            x = [tarvo.var() for _ in range(n)]
            p = tarvo.problem()
            p.addVariable(x)
            objective = tarvo.Sum(tarvo.cos(v) for v in x)
            row = tarvo.Sum(tarvo.cos(v) for v in x) <= 1
            linear = tarvo.Sum(x) <= 1
            for key, fn in (("obj", lambda: p.setObjective(objective)), ("row", lambda: p.addConstraint(row)),
                            ("lin", lambda: p.addConstraint(linear))):
                wall, cpu = time.perf_counter(), time.process_time()
                fn()
                wall, cpu = time.perf_counter() - wall, time.process_time() - cpu
                old = best.get(key, (float("inf"), float("inf")))
                best[key] = (min(old[0], wall), min(old[1], cpu))
        print("  n = %-6d setObjective %7.2f / %6.2f   addConstraint %7.2f / %6.2f   linear row %6.2f / %6.2f"
              % ((n,) + tuple(1e3 * v for key in ("obj", "row", "lin") for v in best[key])))


def main():
    print("tarvo algebra benchmark, N = %d" % N)
    for measure in MEASUREMENTS:
        label, seconds, count = measure()
        per_million = seconds * 1e6 / count if count else 0.0
        print("%-45s %8.3f s   %8.3f s per million" % (label, seconds, per_million))
    aggregate_scaling()
    dot_scaling()
    nonlinear_loading()


if __name__ == "__main__":
    main()
