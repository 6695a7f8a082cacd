"""Loading a large LP from NumPy arrays with the low-level methods, next to HiGHS.

Builds the arrays of an LP with ROWS rows, ROWS/2 columns and NNZ nonzeros (100,000 rows and
1,000,000 nonzeros by default; random pattern, values and bounds) and times:
  - `loadproblem` of the whole LP (column-wise arrays) into a fresh problem;
  - `addcols` of the empty columns, then `addrows` of all rows (row-wise arrays);
  - highspy's `passModel` of the same column-wise arrays into a fresh HiGHS instance
    (`Highs_passModel` underneath), the reference.
Also: modelling and low-level calls interleaved, one row added with `addConstraint` and one
objective coefficient changed with `chgobj` per step, at 10,000 and 40,000 steps (CPU time;
a ratio near 4 means the cost per step does not grow with the problem).
Each figure is the best of REPEAT runs, wall time with the CPU time of the same call beside
it (the calling thread's CPU time; the machine may be shared: the load average is printed
too). Prints the times and the ratios to HiGHS; no assertions. The target is a ratio of at
most 1.5.

    PYTHONPATH=. python benchmarks/lowlevel.py [rows] [nonzeros] [repeat]
"""
import os
import sys
import time

import numpy as np

import tarvo as tv


def arrays(rows, nnz, seed=1):
    rng = np.random.default_rng(seed)
    cols = rows // 2
    # row-wise pattern (per_row distinct, spread columns in each row), then its column-wise
    # transpose
    per_row = max(1, nnz // rows)
    nnz = per_row * rows
    row_of = np.repeat(np.arange(rows), per_row)
    shift = rng.integers(0, cols, rows)
    col_of = (np.repeat(shift, per_row) + np.tile(np.arange(per_row) * (cols // per_row), rows)) % cols
    val = rng.uniform(1.0, 9.0, nnz)
    rstart = np.searchsorted(row_of, np.arange(rows + 1)).astype(np.int64)
    order = np.lexsort((row_of, col_of))
    cstart = np.searchsorted(col_of[order], np.arange(cols + 1)).astype(np.int64)
    return dict(
        rows=rows, cols=cols,
        rowtype=np.full(rows, "L"), rhs=rng.uniform(10, 100, rows), rng=np.zeros(rows),
        obj=-rng.uniform(1, 2, cols), lb=np.zeros(cols), ub=np.full(cols, 1e20),
        rstart=rstart, rcol=col_of.astype(np.int32), rval=val,
        cstart=cstart, crow=row_of[order].astype(np.int32), cval=val[order],
    )


def best(fn, repeat):
    """(smallest wall time, smallest CPU time) of repeat runs of fn, which returns both."""
    runs = [fn() for _ in range(repeat)]
    return min(r[0] for r in runs), min(r[1] for r in runs)


def timed(call):
    start, cpu = time.perf_counter(), time.thread_time()
    call()
    return time.perf_counter() - start, time.thread_time() - cpu


def time_loadproblem(a):
    p = tv.problem()
    qrtype = list(a["rowtype"])
    t = timed(lambda: p.loadproblem("bench", qrtype, a["rhs"], a["rng"], a["obj"], a["cstart"], None, a["crow"],
                                    a["cval"], a["lb"], a["ub"]))
    assert p.attributes.rows == a["rows"] and len(p.getConstraint()) == a["rows"]
    return t


def time_addrows(a):
    p = tv.problem()
    p.addcols(a["obj"], np.zeros(a["cols"], np.int64), np.zeros(0, np.int32), np.zeros(0), a["lb"], a["ub"])
    qrtype = list(a["rowtype"])
    t = timed(lambda: p.addrows(qrtype, a["rhs"], a["rstart"], a["rcol"], a["rval"]))
    assert p.attributes.elems == len(a["rval"]) and len(p.getConstraint()) == a["rows"]
    return t


HIGHS_TIMER = """
import sys, time
import numpy as np
import highspy
a = np.load(sys.argv[1])
repeat = int(sys.argv[2])
times, cpus = [], []
for _ in range(repeat):
    h = highspy.Highs()
    h.setOptionValue("output_flag", False)
    inf = highspy.kHighsInf
    cols, rows = len(a["obj"]), len(a["rhs"])
    start, cpu = time.perf_counter(), time.thread_time()
    h.passModel(cols, rows, len(a["cval"]), 1, 1, 0.0, a["obj"], a["lb"], np.full(cols, inf),
                np.full(rows, -inf), a["rhs"], a["cstart"][:-1].astype(np.int32), a["crow"], a["cval"], np.zeros(cols, np.int32))
    times.append(time.perf_counter() - start)
    cpus.append(time.thread_time() - cpu)
    assert h.getNumRow() == rows
print(min(times), min(cpus))
"""


def time_highs(a, repeat):
    """highspy's HiGHS cannot share a process with the module's own HiGHS: it runs apart."""
    import os
    import subprocess
    import tempfile
    with tempfile.TemporaryDirectory() as d:
        path = os.path.join(d, "lp.npz")
        np.savez(path, **{k: a[k] for k in ("obj", "lb", "rhs", "cstart", "crow", "cval")})
        out = subprocess.run([sys.executable, "-c", HIGHS_TIMER, path, str(repeat)], capture_output=True,
                             text=True)
    if out.returncode != 0:
        raise RuntimeError(out.stderr)
    wall, cpu = out.stdout.split()[-2:]
    return float(wall), float(cpu)


def time_interleaved(n):
    x = [tv.var() for _ in range(n + 1)]
    p = tv.problem(x)
    cpu = time.thread_time()
    for i in range(n):
        p.addConstraint(x[i] + x[i + 1] >= 1)
        p.chgobj([x[i]], [1.0])
    return time.thread_time() - cpu


def main():
    rows = int(sys.argv[1]) if len(sys.argv) > 1 else 100_000
    nnz = int(sys.argv[2]) if len(sys.argv) > 2 else 1_000_000
    repeat = int(sys.argv[3]) if len(sys.argv) > 3 else 3
    tv.setOutputEnabled(False)
    a = arrays(rows, nnz)
    load_avg = os.getloadavg()[0]
    highs = time_highs(a, repeat)
    load = best(lambda: time_loadproblem(a), repeat)
    add = best(lambda: time_addrows(a), repeat)
    print(f"LP: {rows} rows, {a['cols']} columns, {nnz} nonzeros (NumPy arrays), best of {repeat}, "
          f"load average {load_avg:.1f} -> {os.getloadavg()[0]:.1f}")
    print(f"  {'':20s} {'wall ms':>8s} {'cpu ms':>8s}   ratio wall / cpu")
    print(f"  highspy passModel    {highs[0] * 1e3:8.1f} {highs[1] * 1e3:8.1f}")
    for name, t in (("tarvo loadproblem", load), ("tarvo addrows", add)):
        print(f"  {name:20s} {t[0] * 1e3:8.1f} {t[1] * 1e3:8.1f}   {t[0] / highs[0]:5.2f} / {t[1] / highs[1]:5.2f}")
    print("target: ratio <= 1.5")
    small, large = min(time_interleaved(10_000) for _ in range(2)), min(time_interleaved(40_000) for _ in range(2))
    print(f"addConstraint + chgobj per step: 10,000 steps {small * 1e3:.1f} ms, 40,000 steps {large * 1e3:.1f} ms "
          f"cpu, ratio {large / small:.1f} (linear: about 4)")


if __name__ == "__main__":
    main()
