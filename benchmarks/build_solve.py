"""Model building at scale: tarvo against a native C++ program on HiGHS's C API.

Models (the classic build benchmarks; sizes in columns + rows):
- fac-G: facility location on a (G+1) x (G+1) grid with G facilities (MIP; fac-25 119k,
  fac-50 913k);
- lqcp-N: linear-quadratic control of the heat equation on an N x N grid (QP; lqcp-1000 2.0M);
- basic-N: x - y >= i, x + y >= 0 over N x N pairs of free variables (LP; basic-1000 4.0M).

Each model is built in three styles, each in a fresh process:
- array: `tarvo.vars` arrays and vectorised expressions (`Dot`, NumPy broadcasting);
- list:  Python lists of variables and one `addConstraint` call with a list of constraints;
- row:   one `addVariable` call per variable and one `addConstraint` call per row.
`cpu ns/it` is the processor time per column + row.
The time printed covers building the variables, constraints and objective, loading them into
the problem and handing the model to HiGHS (a solve with a time limit that stops HiGHS at
once, as the native program does), as wall time and as processor time (`cpu s`, user +
system of all threads: the fairer figure on a shared, loaded machine; the load is printed
first). `peak B/item` is the growth of the process's peak resident set over its resident set
before building, per column + row.
The native program (benchmarks/native/build_models.cpp) is built here with the system's C++
compiler against HiGHS from highsbox; without a compiler its column is skipped with a message.

Also printed: reading an MPS file and the same model as an LP file (tarvo `read`, split into
the engine's part and the module's objects and maps, against HiGHS's reader natively and
through highspy), 10,000 single-value
`getSolution(v)` calls on a 1M-column model, and the row style at 100k and 1M rows (linear
growth means a time ratio near 10). No assertions; targets are printed next to the figures.

    PYTHONPATH=. python benchmarks/build_solve.py [--quick] [--models fac-25,lqcp-500]
        [--styles array,list,row] [--repeat N] [--skip-extras]
"""
import json
import math
import os
import random
import resource
import shutil
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_MODELS = ["fac-25", "fac-50", "lqcp-500", "lqcp-1000", "basic-1000"]
QUICK_MODELS = ["fac-25", "lqcp-500", "basic-300"]
STYLES = ["array", "list", "row"]
INF = 1e20


def peak_bytes():
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024


def resident_bytes():
    """The resident set now: the baseline of `peak B/item` here and in the native program (the
    peak alone starts at the parent's resident set, which Linux carries across exec)."""
    try:
        with open("/proc/self/statm") as f:
            return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")
    except (OSError, ValueError, IndexError):
        return peak_bytes()


# ----------------------------------------------------------------- tarvo models

def facility(tv, np, style, G, F):
    M = 2 * math.sqrt(2)
    p = tv.problem("fac")
    if style == "array":
        y = tv.vars(F, 2, ub=1, name="")
        s = tv.vars(G + 1, G + 1, F, name="")
        z = tv.vars(G + 1, G + 1, F, vartype=tv.binary, name="")
        r = tv.vars(G + 1, G + 1, F, 2, lb=-INF, name="")
        d = tv.var(name="")
        p.addVariable(y, s, z, r, d)
        I = (np.arange(G + 1) / G)[:, None, None]
        J = (np.arange(G + 1) / G)[None, :, None]
        p.addConstraint(z.sum(axis=2) == 1)
        D = np.empty(s.shape, dtype=s.dtype)  # d broadcast as an array of variables
        D[...] = d
        p.addConstraint(s - D + M * z <= M)
        p.addConstraint(r[:, :, :, 0] + y[:, 0] == I + 0 * J)
        p.addConstraint(r[:, :, :, 1] + y[:, 1] == J + 0 * I)
        p.setObjective(d)
        return p
    rng_g, rng_f = range(G + 1), range(F)
    y = [[tv.var(ub=1, name="") for _ in range(2)] for _ in rng_f]
    s = [[[tv.var(name="") for _ in rng_f] for _ in rng_g] for _ in rng_g]
    z = [[[tv.var(vartype=tv.binary, name="") for _ in rng_f] for _ in rng_g] for _ in rng_g]
    r = [[[[tv.var(lb=-INF, name="") for _ in range(2)] for _ in rng_f] for _ in rng_g] for _ in rng_g]
    d = tv.var(name="")
    rows = [tv.Sum(z[i][j]) == 1 for i in rng_g for j in rng_g]
    rows += [s[i][j][f] - d + M * z[i][j][f] <= M for i in rng_g for j in rng_g for f in rng_f]
    rows += [r[i][j][f][0] + y[f][0] == i / G for i in rng_g for j in rng_g for f in rng_f]
    rows += [r[i][j][f][1] + y[f][1] == j / G for i in rng_g for j in rng_g for f in rng_f]
    add(p, style, [y, s, z, r, d], rows)
    p.setObjective(d)
    return p


def lqcp(tv, np, style, N):
    n = m = N
    dx, T = 1.0 / m, 1.58
    dt, a = T / n, 0.001
    h2 = dx * dx
    p = tv.problem("lqcp")
    yt = [0.5 * (1 - (j * dx) ** 2) for j in range(m + 1)]
    wy = [1.0 if j in (0, m) else 2.0 for j in range(m + 1)]
    wu = [1.0 if i == n else 2.0 for i in range(1, n + 1)]
    if style == "array":
        y = tv.vars(n + 1, m + 1, ub=1, name="")
        u = tv.vars(n, lb=-1, ub=1, name="")
        p.addVariable(y, u)
        c = y[:-1, 1:-1]
        p.addConstraint((y[1:, 1:-1] - c) / dt - 0.5 * (
            y[:-1, :-2] - 2 * c + y[:-1, 2:] + y[1:, :-2] - 2 * y[1:, 1:-1] + y[1:, 2:]) / h2 == 0)
        p.addConstraint(y[0, :] == 0)
        p.addConstraint(y[1:, 2] - 4 * y[1:, 1] + 3 * y[1:, 0] == 0)
        p.addConstraint((y[1:, m - 2] - 4 * y[1:, m - 1] + 3 * y[1:, m]) / (2 * dx) - u + y[1:, m] == 0)
        e = y[n, :] - np.array(yt)
        p.setObjective(0.25 * dx * tv.Sum(np.array(wy) * e * e) + 0.25 * a * dt * tv.Sum(np.array(wu) * u * u))
        return p
    y = [[tv.var(ub=1, name="") for _ in range(m + 1)] for _ in range(n + 1)]
    u = [None] + [tv.var(lb=-1, ub=1, name="") for _ in range(n)]
    rows = [(y[i + 1][j] - y[i][j]) / dt - 0.5 * (
        y[i][j - 1] - 2 * y[i][j] + y[i][j + 1] + y[i + 1][j - 1] - 2 * y[i + 1][j] + y[i + 1][j + 1]) / h2 == 0
        for i in range(n) for j in range(1, m)]
    rows += [y[0][j] == 0 for j in range(m + 1)]
    rows += [y[i][2] - 4 * y[i][1] + 3 * y[i][0] == 0 for i in range(1, n + 1)]
    rows += [(y[i][m - 2] - 4 * y[i][m - 1] + 3 * y[i][m]) / (2 * dx) - u[i] + y[i][m] == 0
             for i in range(1, n + 1)]
    add(p, style, [y, u[1:]], rows)
    p.setObjective(0.25 * dx * tv.Sum(wy[j] * (y[n][j] - yt[j]) * (y[n][j] - yt[j]) for j in range(m + 1))
                   + 0.25 * a * dt * tv.Sum(wu[i - 1] * u[i] * u[i] for i in range(1, n + 1)))
    return p


def basic(tv, np, style, N):
    p = tv.problem("basic")
    if style == "array":
        x = tv.vars(N, N, lb=-INF, name="")
        y = tv.vars(N, N, lb=-INF, name="")
        p.addVariable(x, y)
        p.addConstraint(x - y >= np.arange(N, dtype=float)[:, None] + np.zeros(N))
        p.addConstraint(x + y >= 0)
        p.setObjective(2 * tv.Sum(x) + tv.Sum(y))
        return p
    x = [[tv.var(lb=-INF, name="") for _ in range(N)] for _ in range(N)]
    y = [[tv.var(lb=-INF, name="") for _ in range(N)] for _ in range(N)]
    rows = [x[i][j] - y[i][j] >= i for i in range(N) for j in range(N)]
    rows += [x[i][j] + y[i][j] >= 0 for i in range(N) for j in range(N)]
    add(p, style, [x, y], rows)
    p.setObjective(tv.Sum(2 * x[i][j] + y[i][j] for i in range(N) for j in range(N)))
    return p


def flat(nested):
    out = []
    stack = [nested]
    while stack:
        item = stack.pop()
        if isinstance(item, list):
            stack.extend(reversed(item))
        else:
            out.append(item)
    return out


def add(p, style, variables, rows):
    if style == "list":
        p.addVariable(variables)
        p.addConstraint(rows)
        return
    for v in flat(variables):
        p.addVariable(v)
    for c in rows:
        p.addConstraint(c)


def parse_model(name):
    kind, _, size = name.partition("-")
    if kind == "fac":
        return kind, (int(size), int(size))
    if kind in ("lqcp", "basic"):
        return kind, (int(size),)
    raise SystemExit("unknown model %s" % name)


# ----------------------------------------------------------------- child processes

def child(argv):
    """Runs one measurement in this (fresh) process and prints its JSON result."""
    import numpy as np
    import tarvo as tv
    tv.setOutputEnabled(False)
    what = argv[0]
    base = resident_bytes()
    if what == "build":
        kind, size = parse_model(argv[1])
        builder = {"fac": facility, "lqcp": lqcp, "basic": basic}[kind]
        start, cpu = time.perf_counter(), time.process_time()
        p = builder(tv, np, argv[2], *size)
        built = time.perf_counter() - start
        p.controls.maxtime = 1e-9  # HiGHS takes the model over and stops at once
        p.solve()
        total = time.perf_counter() - start
        out = {"rows": p.attributes.rows, "cols": p.attributes.cols, "build": built,
               "seconds": total, "cpu": time.process_time() - cpu, "peak_bytes": peak_bytes() - base}
        if len(argv) > 3:  # also write it, for the reading comparison
            p.write(argv[3])
    elif what == "read":
        # The engine reports its own part of the read (file to store, names included) in a
        # message; the rest is the module making the variable and constraint objects and maps.
        import re
        p = tv.problem()
        tv.setOutputEnabled(True)
        p.controls.outputlog = 1
        lines = []
        p.addcbmessage(lambda prob, data, msg, mtype: lines.append(msg))
        start, cpu = time.perf_counter(), time.process_time()
        p.read(argv[1])
        seconds, cpu = time.perf_counter() - start, time.process_time() - cpu
        engine = [m for m in (re.search(r"in ([0-9.]+)s \(cpu ([0-9.]+)s\)", ln) for ln in lines
                              if ln.startswith("Read ")) if m]
        out = {"rows": p.attributes.rows, "cols": p.attributes.cols, "seconds": seconds, "cpu": cpu,
               "peak_bytes": peak_bytes() - base}
        if engine:
            out["engine"], out["engine_cpu"] = float(engine[-1].group(1)), float(engine[-1].group(2))
    elif what == "to-lp":  # the same model as an LP file, for the LP reading comparison
        p = tv.problem()
        p.read(argv[1])
        p.write(argv[2], "l")
        out = {}
    elif what == "highspy-read":  # HiGHS's reader in a Python process, as highspy runs it
        import highspy
        h = highspy.Highs()
        h.setOptionValue("output_flag", False)
        start, cpu = time.perf_counter(), time.process_time()
        h.readModel(argv[1])
        out = {"seconds": time.perf_counter() - start, "cpu": time.process_time() - cpu,
               "version": "highspy %s" % h.version()}
    elif what == "rows":  # one call per row, n rows over n + 1 columns
        n = int(argv[1])
        x = [tv.var(name="") for _ in range(n + 1)]
        rows = [x[i] + x[i + 1] >= 1 for i in range(n)]
        p = tv.problem()
        start = time.perf_counter()
        for v in x:
            p.addVariable(v)
        for c in rows:
            p.addConstraint(c)
        out = {"seconds": time.perf_counter() - start}
    elif what == "query":
        n = int(argv[1])
        x = tv.vars(n, ub=1, name="")
        p = tv.problem(x, tv.Sum(x) <= 10, -tv.Dot(np.linspace(1, 2, n), x))
        p.solve()
        xs = [x[k] for k in random.Random(5).sample(range(n), 10000)]
        start = time.perf_counter()
        for v in xs:
            p.getSolution(v)
        out = {"seconds": time.perf_counter() - start, "status": p.getProbStatusString()}
    else:
        raise SystemExit("unknown child task %s" % what)
    print(json.dumps(out))


def tarvo_location():
    """The directory holding the tarvo package this interpreter would import."""
    import importlib.util
    found = importlib.util.find_spec("tarvo")
    if found is None or not found.submodule_search_locations:
        raise SystemExit("tarvo is not importable: run with PYTHONPATH set to the source tree")
    return os.path.dirname(list(found.submodule_search_locations)[0])


def run_child(*args):
    env = dict(os.environ)
    env["PYTHONPATH"] = os.pathsep.join(filter(None, [tarvo_location(), env.get("PYTHONPATH")]))
    out = subprocess.run([sys.executable, os.path.abspath(__file__), "--child"] + list(args),
                         capture_output=True, text=True, env=env)
    if out.returncode != 0:
        return {"error": (out.stderr or out.stdout).strip().splitlines()[-1:] or ["failed"]}
    return json.loads(out.stdout.strip().splitlines()[-1])


def fastest(runs):
    """The run with the smallest wall time (memory from the same run), with the smallest
    processor time of all runs beside it."""
    good = [r for r in runs if "error" not in r]
    if not good:
        return runs[0]
    best = dict(min(good, key=lambda r: r["seconds"]))
    if all("cpu" in r for r in good):
        best["cpu"] = min(r["cpu"] for r in good)
    return best


def best_of(repeat, *args):
    """The fastest of `repeat` runs in fresh processes."""
    return fastest([run_child(*args) for _ in range(repeat)])


def load_average():
    try:
        return "%.2f" % os.getloadavg()[0]
    except OSError:
        return "unknown"


# ----------------------------------------------------------------- native program

def build_native(directory):
    """Compiles the native program; returns its path, or None with a message."""
    compiler = os.environ.get("CXX") or shutil.which("c++") or shutil.which("g++") or shutil.which("clang++")
    if not compiler:
        print("native program skipped: no C++ compiler found (set CXX)")
        return None
    try:
        import highsbox
    except ImportError:
        print("native program skipped: highsbox is not installed")
        return None
    exe = os.path.join(directory, "build_models")
    lib = highsbox.highs_lib_dir()
    cmd = [compiler, "-O2", "-std=c++17", "-I" + highsbox.highs_include_dir(),
           os.path.join(HERE, "native", "build_models.cpp"), "-o", exe,
           "-L" + lib, "-lhighs", "-Wl,-rpath," + lib]
    out = subprocess.run(cmd, capture_output=True, text=True)
    if out.returncode != 0:
        print("native program skipped: compiling failed:\n" + out.stderr[-2000:])
        return None
    return exe


def run_native(exe, repeat, *args):
    runs = []
    for _ in range(repeat):
        out = subprocess.run([exe] + list(args), capture_output=True, text=True)
        if out.returncode != 0:
            return {"error": [out.stderr.strip()[-300:]]}
        runs.append(json.loads(out.stdout.strip().splitlines()[-1]))
    return fastest(runs)


# ----------------------------------------------------------------- report

def main():
    args = sys.argv[1:]
    if args and args[0] == "--child":
        return child(args[1:])

    def option(name, default):
        if name in args:
            return args[args.index(name) + 1]
        return default

    quick = "--quick" in args
    models = option("--models", ",".join(QUICK_MODELS if quick else DEFAULT_MODELS)).split(",")
    styles = option("--styles", ",".join(STYLES)).split(",")
    repeat = int(option("--repeat", "1"))
    with tempfile.TemporaryDirectory() as tmp:
        exe = build_native(tmp)
        print("load: %s (1-minute average over %d processors)" % (load_average(), os.cpu_count() or 1))
        print("%-11s %-6s %9s %9s %9s %8s %8s %9s %9s %11s %8s" % (
            "model", "style", "items", "build s", "+HiGHS s", "ratio", "cpu s", "cpu ratio",
            "cpu ns/it", "peak B/item", "mem ratio"))
        for name in models:
            kind, size = parse_model(name)
            native = run_native(exe, repeat, kind, *map(str, size)) if exe else None
            if native and "error" not in native:
                items = native["rows"] + native["cols"]
                print("%-11s %-6s %9d %9s %9.3f %8s %8.3f %9s %9.0f %11.0f %8s" % (
                    name, "native", items, "", native["seconds"], "1.00", native.get("cpu", float("nan")),
                    "1.00", native.get("cpu", float("nan")) / items * 1e9, native["peak_bytes"] / items, "1.00"))
            elif native:
                print("%-11s native failed: %s" % (name, native["error"]))
                native = None
            for style in styles:
                r = best_of(repeat, "build", name, style)
                if "error" in r:
                    print("%-11s %-6s failed: %s" % (name, style, r["error"]))
                    continue
                items = r["rows"] + r["cols"]
                ratio = "%.2f" % (r["seconds"] / native["seconds"]) if native else "-"
                cpu_ratio = "%.2f" % (r["cpu"] / native["cpu"]) if native and native.get("cpu") else "-"
                mem = "%.2f" % (r["peak_bytes"] / native["peak_bytes"]) if native and native["peak_bytes"] > 0 else "-"
                print("%-11s %-6s %9d %9.3f %9.3f %8s %8.3f %9s %9.0f %11.0f %8s" % (
                    name, style, items, r["build"], r["seconds"], ratio, r["cpu"], cpu_ratio,
                    r["cpu"] / items * 1e9, r["peak_bytes"] / items, mem))
            sys.stdout.flush()
        print("targets: array and list <= 2x native, row <= 3x native, memory <= 1.2x native")
        if "--skip-extras" in args:
            return

        # Reading an MPS file (and the same model as an LP file): tarvo's read (the engine's
        # part and the module's objects and maps, separately) against HiGHS's reader, in the
        # native program (the HiGHS tarvo links) and in a Python process through highspy when
        # it is installed.
        mps = os.path.join(tmp, "fac.mps")
        lpf = os.path.join(tmp, "fac.lp")
        G = 10 if quick else 25
        best_of(1, "build", "fac-%d" % G, "array", mps)
        if os.path.exists(mps):
            run_child("to-lp", mps, lpf)
        for kind, path in (("MPS", mps), ("LP", lpf)):
            if not os.path.exists(path):
                print("read fac-%d %s: no file to read" % (G, kind))
                continue
            runs = max(repeat, 5 if kind == "MPS" else 3)
            all_runs = [run_child("read", path) for _ in range(runs)]
            ours = fastest(all_runs)
            if "error" in ours:
                print("read fac-%d %s failed: %s" % (G, kind, ours["error"]))
                continue
            # Each figure is its own minimum over the runs (the parts included).
            good = [r for r in all_runs if "error" not in r and "engine" in r]
            print("read fac-%d %s (%d rows + columns, %.1f MB), best of %d:" % (
                G, kind, ours["rows"] + ours["cols"], os.path.getsize(path) / 1e6, runs))
            print("  tarvo read             %.3f s (cpu %.3f s)" % (ours["seconds"], ours["cpu"]))
            if good:
                print("    engine (file to store) %.3f s (cpu %.3f s)" % (
                    min(r["engine"] for r in good), min(r["engine_cpu"] for r in good)))
                print("    module objects and maps %.3f s (cpu %.3f s)" % (
                    min(r["seconds"] - r["engine"] for r in good), min(r["cpu"] - r["engine_cpu"] for r in good)))
            refs = []
            if exe:
                refs.append(("HiGHS reader (native)", run_native(exe, runs, "read", path)))
            try:
                import highspy  # noqa: F401
                refs.append(("HiGHS reader (highspy)", best_of(runs, "highspy-read", path)))
            except ImportError:
                print("  highspy not installed: its reader is not timed")
            for label, theirs in refs:
                if "error" in theirs:
                    print("  %s failed: %s" % (label, theirs["error"]))
                    continue
                print("  %-22s %.3f s (cpu %.3f s)%s; tarvo/HiGHS %.2f, cpu %.2f%s" % (
                    label, theirs["seconds"], theirs["cpu"],
                    " [%s]" % theirs["version"] if "version" in theirs else "",
                    ours["seconds"] / theirs["seconds"], ours["cpu"] / theirs["cpu"],
                    " (target <= 1.2)" if kind == "MPS" else ""))

        # Single-value queries.
        n = 100_000 if quick else 1_000_000
        q = best_of(1, "query", str(n))
        if "error" in q:
            print("getSolution(v) failed: %s" % q["error"])
        else:
            print("10,000 getSolution(v) on %d columns (%s): %.4f s (target <= 0.020 s)"
                  % (n, q["status"], q["seconds"]))

        # Linear growth of the one-call-per-row style.
        small, large = (10_000, 100_000) if quick else (100_000, 1_000_000)
        a, b = best_of(1, "rows", str(small)), best_of(1, "rows", str(large))
        if "error" in a or "error" in b:
            print("row-style growth failed: %s" % (a.get("error") or b.get("error")))
        else:
            print("one call per row: %d rows %.3f s, %d rows %.3f s, ratio %.1f (target <= 12)"
                  % (small, a["seconds"], large, b["seconds"], b["seconds"] / a["seconds"]))


if __name__ == "__main__":
    main()
