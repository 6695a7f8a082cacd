"""Loading and reading cost of the engine's store, wall and CPU time side by side with HiGHS.

- loadproblem of a 100,000-row, 1,000,000-nonzero LP from NumPy arrays (benchmarks/lowlevel.py's
  arrays) against highspy's passModel of the same arrays;
- reading an MPS file (the fac-25 model of benchmarks/build_solve.py) with `read` against
  highspy's readModel.
Each figure is the best of REPEAT runs (wall time; CPU time of the same run beside it, since the
machine may be shared). Ratios are tarvo / HiGHS. No assertions.

    PYTHONPATH=. python benchmarks/store_load.py [repeat]
"""
import os
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

import numpy as np  # noqa: E402

import tarvo as tv  # noqa: E402


def best(repeat, f):
    runs = []
    for _ in range(repeat):
        w, c = time.perf_counter(), time.process_time()
        f()
        runs.append((time.perf_counter() - w, time.process_time() - c))
    return min(runs)


def line(what, ours, theirs):
    print("  %-28s tarvo %7.1f ms (cpu %7.1f)   HiGHS %7.1f ms (cpu %7.1f)   ratio %.2f (cpu %.2f)" % (
        what, 1e3 * ours[0], 1e3 * ours[1], 1e3 * theirs[0], 1e3 * theirs[1],
        ours[0] / theirs[0], ours[1] / max(theirs[1], 1e-9)))
    sys.stdout.flush()


def main():
    repeat = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    import highspy
    import lowlevel
    import build_solve
    tv.setOutputEnabled(False)
    a = lowlevel.arrays(100_000, 1_000_000)

    qrtype = list(a["rowtype"])
    cols, rows = a["cols"], a["rows"]
    inf = highspy.kHighsInf
    upper, lower = np.full(cols, inf), np.full(rows, -inf)
    cstart, integ = a["cstart"][:-1].astype(np.int32), np.zeros(cols, np.int32)

    def ours():
        p = tv.problem()
        p.loadproblem("lp", qrtype, a["rhs"], a["rng"], a["obj"], a["cstart"], None, a["crow"],
                      a["cval"], a["lb"], a["ub"])

    def theirs():
        h = highspy.Highs()
        h.setOptionValue("output_flag", False)
        h.passModel(cols, rows, len(a["cval"]), 1, 1, 0.0, a["obj"], a["lb"], upper, lower, a["rhs"],
                    cstart, a["crow"], a["cval"], integ)

    print("store load and read, best of %d" % repeat)
    line("loadproblem 100k x 1M", best(repeat, ours), best(repeat, theirs))

    with tempfile.TemporaryDirectory() as tmp:
        mps = os.path.join(tmp, "fac.mps")
        build_solve.facility(tv, np, "array", 25, 25).write(mps)

        def read_ours():
            tv.problem().read(mps)

        def read_theirs():
            h = highspy.Highs()
            h.setOptionValue("output_flag", False)
            h.readModel(mps)

        line("read fac-25 MPS", best(repeat, read_ours), best(repeat, read_theirs))


if __name__ == "__main__":
    main()
