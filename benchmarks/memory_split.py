"""Where the bytes of a built model are: module objects, the engine's store, HiGHS's copy.

For each model (array style of benchmarks/build_solve.py) a fresh process measures its resident
set (with MALLOC_MMAP_THRESHOLD_ fixed, so that large blocks freed go back to the system):
- module: bytes the Python side holds after the build (tracemalloc, in a second process,
  since tracing itself costs memory);
- store layout: the engine store's own arrays as laid out (per column bounds, objective, limit,
  type and name tag: 41 bytes; per row type, sides, range, name tag and row start/length/room:
  41 bytes; per matrix entry 12 bytes), computed from the counts;
- other native: growth of the resident set during the build minus the module's traced bytes
  and the store layout: the module's C++ tables and memory the allocators keep after
  temporaries are freed;
- hand-over peak: growth of the peak resident set while the model is handed to HiGHS (a solve
  stopped at once), over the resident set after the build: the engine's translation plus
  HiGHS's own copy while both exist;
- HiGHS kept: what stays resident after the solve (HiGHS's copy of the model, its work arrays).
Figures are bytes per column + row. No assertions.

    PYTHONPATH=. python benchmarks/memory_split.py [--models fac-25,lqcp-500,basic-300]
"""
import json
import os
import resource
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)


def rss():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


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
    base = rss()
    p = builder(tv, np, "array", *size)
    built = rss()
    peak_before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024
    p.controls.maxtime = 1e-9
    p.solve()
    peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024
    after = rss()
    print(json.dumps({"items": p.attributes.rows + p.attributes.cols, "nnz": p.attributes.elems,
                      "built": built - base, "handover": max(0, peak - max(built, peak_before)),
                      "kept": after - built}))


def run(name, traced):
    env = dict(os.environ, MALLOC_MMAP_THRESHOLD_="131072")
    out = subprocess.run([sys.executable, os.path.abspath(__file__), "--child", name, str(int(traced))],
                         capture_output=True, text=True, env=env)
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
    print("%-10s %9s %9s %9s %9s %9s %10s %9s   (bytes per column + row)" % (
        "model", "items", "nnz", "module", "store", "other", "hand-over", "HiGHS"))
    for name in models:
        r = run(name, False)
        t = run(name, True)
        items = r["items"]
        store = 41 * items + 12 * r["nnz"]
        print("%-10s %9d %9d %9.0f %9.0f %9.0f %10.0f %9.0f" % (
            name, items, r["nnz"], t["module"] / items, store / items,
            (r["built"] - t["module"] - store) / items, r["handover"] / items, r["kept"] / items))
        sys.stdout.flush()


if __name__ == "__main__":
    main()
