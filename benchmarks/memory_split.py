"""Where the bytes of a built model are, and when the process's peak happens.

For each model (array style of benchmarks/build_solve.py) a fresh process builds the model and
hands it to HiGHS (a solve stopped at once), recording its resident set and peak before and
after every call of addVariable, addConstraint, setObjective and solve (a profile hook), so the
step that sets the peak shows: the arithmetic building a constraint array (between the calls),
a call itself, or the solve (hand-over and HiGHS's run). Then, per column + row:
- python: Python allocations held after the build (tracemalloc, in a second process, since
  tracing itself costs memory): var and constraint objects, the problem's lists;
- store: the engine store's arrays as laid out (per column bounds, objective, limit, type and
  name tag: 41 bytes; per row type, sides, range, name tag and row start/length/room: 41 bytes;
  per matrix entry 12 bytes), computed from the counts;
- tables: C heap in use after the build (glibc's mallinfo2) beyond the store: the module's
  serial maps and side tables, the allocator's own overhead;
- kept free: resident set before the solve beyond the three above: pages of freed temporaries
  the allocators keep (the solve returns the C heap's free pages before HiGHS runs);
- solve: peak growth during the solve over the resident set before it (the engine's
  translation, HiGHS's copy and run, result vectors);
- peak: the process's peak growth over its resident set before the build (what build_solve.py
  prints as peak B/item); `at` names the step that set it.
No assertions.

    PYTHONPATH=. python benchmarks/memory_split.py [--models fac-25,lqcp-500,basic-300] [--steps]
"""
import ctypes
import json
import os
import resource
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
WATCHED = {"addVariable", "addConstraint", "setObjective", "solve"}


def rss():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def peak():
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024


class MallInfo2(ctypes.Structure):
    _fields_ = [(name, ctypes.c_size_t) for name in
                ("arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks", "fsmblks", "uordblks", "fordblks",
                 "keepcost")]


def c_heap_in_use():
    try:
        libc = ctypes.CDLL("libc.so.6")
        libc.mallinfo2.restype = MallInfo2
    except (OSError, AttributeError):
        return None
    info = libc.mallinfo2()
    return info.uordblks + info.hblkhd


def child(name, traced):
    import numpy as np
    import tarvo as tv
    import build_solve as bs
    tv.setOutputEnabled(False)
    kind, size = bs.parse_model(name)
    builder = {"fac": bs.facility, "lqcp": bs.lqcp, "basic": bs.basic}[kind]
    if traced:
        import tracemalloc
        tracemalloc.start()
        p = builder(tv, np, "array", *size)
        cur, _ = tracemalloc.get_traced_memory()
        print(json.dumps({"module": cur}))
        return
    marks = []
    counts = {}

    def hook(frame, event, arg):
        if event in ("c_call", "c_return"):
            fn = getattr(arg, "__name__", "")
            if fn in WATCHED:
                if event == "c_call":
                    counts[fn] = counts.get(fn, 0) + 1
                    marks.append(("before %s %d" % (fn, counts[fn]), peak(), rss(), c_heap_in_use()))
                else:
                    marks.append(("%s %d" % (fn, counts[fn]), peak(), rss(), c_heap_in_use()))

    base, heap0 = rss(), c_heap_in_use()
    marks.append(("start", peak(), base, heap0))
    p = None

    def build_and_solve():
        nonlocal p
        p = builder(tv, np, "array", *size)
        p.controls.maxtime = 1e-9  # HiGHS takes the model over and stops at once
        p.solve()

    sys.setprofile(hook)
    try:
        build_and_solve()
    finally:
        sys.setprofile(None)
    solve_at = [k for k, m in enumerate(marks) if m[0].startswith("before solve")][-1]
    steps = []
    top = marks[0][1]
    for label, pk, r, heap in marks[1:]:
        steps.append((label, pk - base, r - base, (heap - heap0) if heap is not None else None))
    # The step that set the peak: the first mark at which the final peak was reached.
    final = marks[-1][1]
    at = next(m[0] for m in marks if m[1] >= final)
    print(json.dumps({"items": p.attributes.rows + p.attributes.cols, "nnz": p.attributes.elems,
                      "before_solve": marks[solve_at][2] - base,
                      "heap_before_solve": (marks[solve_at][3] - heap0) if heap0 is not None else None,
                      "peak_before_solve": max(0, marks[solve_at][1] - max(top, base)),
                      "peak": final - base, "at": at, "steps": steps}))


def run(name, traced):
    out = subprocess.run([sys.executable, os.path.abspath(__file__), "--child", name, str(int(traced))],
                         capture_output=True, text=True)
    if out.returncode != 0:
        raise SystemExit(out.stderr)
    return json.loads(out.stdout.strip().splitlines()[-1])


def main():
    args = sys.argv[1:]
    if args and args[0] == "--child":
        return child(args[1], args[2] == "1")
    models = ["fac-25", "lqcp-500", "basic-300"]
    if "--models" in args:
        models = args[args.index("--models") + 1].split(",")
    try:
        print("load: %.2f" % os.getloadavg()[0])
    except OSError:
        pass
    print("%-10s %8s %8s | %7s %7s %7s %9s | %7s %7s  %s   (bytes per column + row)" % (
        "model", "items", "nnz", "python", "store", "tables", "kept free", "solve", "peak", "peak set at"))
    for name in models:
        r = run(name, False)
        t = run(name, True)
        n = r["items"]
        store = 41 * n + 12 * r["nnz"]
        heap = r["heap_before_solve"]
        tables = (heap - store) if heap is not None else float("nan")
        kept = r["before_solve"] - t["module"] - (heap if heap is not None else store)
        solve = r["peak"] - r["before_solve"]
        print("%-10s %8d %8d | %7.0f %7.0f %7.0f %9.0f | %7.0f %7.0f  %s" % (
            name, n, r["nnz"], t["module"] / n, store / n, tables / n, kept / n, solve / n, r["peak"] / n, r["at"]))
        if "--steps" in args:
            for label, pk, res, hp in r["steps"]:
                print("    %-24s peak %6.0f  resident %6.0f  C heap %6s" % (
                    label, pk / n, res / n, "-" if hp is None else "%.0f" % (hp / n)))
        sys.stdout.flush()


if __name__ == "__main__":
    main()
