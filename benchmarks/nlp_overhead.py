"""Where the time of a small nonlinear solve goes.

Solves the small problems of benchmarks/nonlinear.py (Hock-Schittkowski and chained Rosenbrock)
with the nonlinear optimiser (`nlpoptimize`, from the published start) and splits each solve's
time into:

  module     the Python call around the engine: argument handling, starting and joining the
             worker thread: the CPU time of nlpoptimize() less the engine's (the profile's phases
             other than logging); "wake" is the extra wall time until the waiting caller runs
             again (wall time less the engine's own solve time, attribute tslp_time, less module),
             which grows with the machine's load
  fetch      reading the results back in Python: getslpsol, status and objective
  read, compile, start, setup, results, teardown
             fixed engine costs: reading the model, compiling formulas, moving the start into
             the interior, creating the HiGHS instance of the step problems (options, model),
             assembling and storing the solution, releasing the instance
  eval, update, solve, kkt, logic, log
             costs that grow with the iterations: evaluation and AD sweeps, writing each
             linearisation into the step problem, solving the step problems, KKT checks,
             the iteration logic itself, and log lines

The summary also counts how the QP step problems were answered: on the last answer's active set
without a QP solve, from the start at no step (both the default, control tslp_qpwarmstart), from
HiGHS's own phase-one start, or as HiGHS solved them.

The engine's split comes from its time profile (the log line "Time profile (ms): ..." that a
solve writes at log level 2); the totals (wall and CPU time) from a separate run at the default
log level, which the profile run does not disturb. Every figure is the best of --repeat runs on
freshly built problems. With casadi importable, Ipopt solves the same problems from the same
starts, and the script prints its iterations and time beside ours, and whether the time ratio
comes from the number of iterations or from the cost of one.

    PYTHONPATH=. python3 benchmarks/nlp_overhead.py                 # every small problem
    PYTHONPATH=. python3 benchmarks/nlp_overhead.py --only HS40 --only HS71
    PYTHONPATH=. python3 benchmarks/nlp_overhead.py --repeat 9 --no-ipopt

Times are in milliseconds. Nothing here asserts on time; quote the load (printed at the end)
beside the figures, since wall time on a shared machine is not CPU time.
"""
import argparse
import math
import os
import re
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import nonlinear  # noqa: E402  (the problem statements)

import tarvo  # noqa: E402

FIXED = ["module", "fetch", "read", "compile", "start", "setup", "results", "teardown"]
PER_ITER = ["eval", "update", "solve", "kkt", "logic", "log"]
# Profile names in the engine's log line -> columns here.
PROFILE_NAMES = {"read": "read", "compile": "compile", "start": "start", "highs setup": "setup",
                 "evaluation": "eval", "step update": "update", "step solve": "solve", "kkt": "kkt",
                 "results": "results", "teardown": "teardown", "log": "log",
                 "iteration logic": "logic"}
PROFILE_RE = re.compile(r"([a-z][a-z ]*?) ([0-9.]+)")
QP_RE = re.compile(r"QP step problems: (\d+) exact on the last active set, (\d+) exact from no step, "
                   r"(\d+) exact from HiGHS's own start, (\d+) as HiGHS solved them")


def build(name):
    built = nonlinear.PROBLEMS[name]()
    return built[0], built.variables


def timed_solve(name, maxtime):
    """One solve at the default log level: wall, CPU, engine and fetch times (s), iterations."""
    p, x = build(name)
    p.setControl("tslp_maxtime", float(maxtime))
    w0, c0 = time.perf_counter(), time.process_time()
    p.nlpoptimize()
    wall, cpu = time.perf_counter() - w0, time.process_time() - c0
    f0 = time.perf_counter()
    values = []
    p.getslpsol(x=values)
    status = p.getAttrib("tslp_nlpstatus")
    objective = p.getAttrib("tslp_objval")
    fetch = time.perf_counter() - f0
    return {"wall": wall, "cpu": cpu, "engine": p.getAttrib("tslp_time"), "fetch": fetch,
            "iter": p.getAttrib("tslp_iter"), "status": status, "objective": objective}


def profiled_solve(name, maxtime):
    """One solve at log level 2: the engine's time profile (ms by phase) and step problems."""
    p, _ = build(name)
    p.setControl("tslp_maxtime", float(maxtime))
    lines = []
    p.setcbmessage(lambda prob, data, msg, kind: lines.append(msg))
    p.setControl("tslp_log", 2)
    p.nlpoptimize()
    qp = [0, 0, 0, 0]
    for line in lines:
        m = QP_RE.search(line)
        if m:
            qp = [a + int(b) for a, b in zip(qp, m.groups())]
    for line in lines:
        if line.startswith("Time profile (CPU ms):"):
            body, _, steps = line.partition(";")
            phases = {PROFILE_NAMES[k.strip()]: float(v)
                      for k, v in PROFILE_RE.findall(body.split(":", 1)[1])}
            phases["steps"] = int(steps.split()[-1])
            phases["qp"] = qp
            return phases
    raise RuntimeError("%s: the solve wrote no time profile" % name)


def ipopt_solve(name, maxtime):
    """The same statement from the same start with Ipopt (casadi): time (s) and iterations, or
    None without casadi."""
    try:
        import casadi
    except ImportError:
        return None
    k = nonlinear.PROBLEMS[name](nonlinear.CasadiKit(casadi))
    nlp = {"x": k.x, "f": k.f}
    if k.g:
        nlp["g"] = casadi.vertcat(*k.g)
    opts = {"print_time": False, "ipopt.print_level": 0, "ipopt.sb": "yes",
            "ipopt.max_cpu_time": float(maxtime)}
    solver = casadi.nlpsol("ipopt_" + name, "ipopt", nlp, opts)
    args = {"x0": k.x0, "lbx": k.lbx, "ubx": k.ubx}
    if k.g:
        args.update(lbg=k.lbg, ubg=k.ubg)
    start = time.perf_counter()
    solver(**args)
    elapsed = time.perf_counter() - start
    stats = solver.stats()
    return {"time": elapsed, "iter": int(stats.get("iter_count", 0)), "success": bool(stats.get("success"))}


def measure(name, repeat, maxtime, with_ipopt):
    runs = [timed_solve(name, maxtime) for _ in range(repeat)]
    best = min(runs, key=lambda r: r["wall"])
    row = {"name": name, "iter": best["iter"], "status": best["status"], "objective": best["objective"],
           "wall": 1e3 * best["wall"], "cpu": 1e3 * min(r["cpu"] for r in runs),
           "engine": 1e3 * best["engine"], "module": 1e3 * (best["wall"] - best["engine"]),
           "fetch": 1e3 * min(r["fetch"] for r in runs)}
    profiles = [profiled_solve(name, maxtime) for _ in range(repeat)]
    prof = min(profiles, key=lambda q: sum(q[k] for k in PROFILE_NAMES.values()))
    row.update(prof)
    engine_cpu = sum(prof[k] for k in PROFILE_NAMES.values() if k != "log")
    wall_module = row["module"]
    row["module"] = max(0.0, row["cpu"] - engine_cpu)
    row["wake"] = max(0.0, wall_module - row["module"])
    if with_ipopt:
        ips = [ipopt_solve(name, maxtime) for _ in range(repeat)]
        if ips[0] is not None:
            row["ipopt"] = min(ips, key=lambda r: r["time"])
    return row


COLUMNS = ["module", "fetch", "read", "compile", "start", "setup", "results", "teardown",
           "eval", "update", "solve", "kkt", "logic", "log"]


def print_header():
    print("%-7s %5s %5s %8s %8s " % ("name", "iter", "steps", "wall", "cpu") +
          " ".join("%8s" % c for c in COLUMNS) + " %8s %12s" % ("us/iter", "ipopt ms/it"))


def print_row(r):
    per_iter = sum(r[k] for k in PER_ITER) / max(1, r["iter"])
    ip = r.get("ipopt")
    print("%-7s %5d %5d %8.3f %8.3f " % (r["name"], r["iter"], r["steps"], r["wall"], r["cpu"]) +
          " ".join("%8.3f" % r[c] for c in COLUMNS) +
          " %8.1f %12s" % (1e3 * per_iter, "-" if not ip else "%.3f/%d" % (1e3 * ip["time"], ip["iter"])))
    sys.stdout.flush()


def print_summary(rows):
    total = {c: sum(r[c] for r in rows) for c in COLUMNS + ["wall", "cpu", "iter", "steps"]}
    print("%-7s %5d %5d %8.3f %8.3f " % ("total", total["iter"], total["steps"], total["wall"], total["cpu"]) +
          " ".join("%8.3f" % total[c] for c in COLUMNS))
    # The profile runs at log level 2, whose per-iteration lines a default solve does not write:
    # their cost is shown apart and left out of the shares.
    engine_sum = sum(total[c] for c in COLUMNS if c not in ("module", "fetch", "log"))
    fixed = sum(total[c] for c in FIXED)
    per = sum(total[c] for c in PER_ITER)
    print("\nwall time the caller waited beyond the solve (wake, load-dependent): %.3f ms in all"
          % sum(r["wake"] for r in rows))
    print("summed over %d problems (ms): fixed %.3f (module %.3f, fetch %.3f, engine setup and teardown %.3f),"
          " per-iteration %.3f over %d iterations and %d step problems (%.1f us per iteration, %.1f us per step"
          " problem solve)" % (len(rows), fixed, total["module"], total["fetch"],
                               fixed - total["module"] - total["fetch"], per, total["iter"], total["steps"],
                               1e3 * per / max(1, total["iter"]), 1e3 * total["solve"] / max(1, total["steps"])))
    if engine_sum > 0:
        print("share of the engine's time: " + ", ".join(
            "%s %.1f%%" % (c, 100.0 * total[c] / engine_sum) for c in COLUMNS
            if c not in ("module", "fetch", "log")) +
            " (log lines of the level-2 profile run, not written by default: %.3f ms)" % total["log"])
    qp = [sum(r["qp"][i] for r in rows) for i in range(4)]
    if sum(qp):
        print("QP step problems: %d answers exact on the last answer's active set (no QP solve), %d exact from "
              "the start at no step, %d exact from HiGHS's own start (phase-one LP), %d taken as HiGHS solved "
              "them (tied or not exact)" % tuple(qp))
    fixed_each = sorted(sum(r[c] for c in FIXED) for r in rows)
    print("fixed cost of one solve: median %.3f ms, smallest %.3f ms" % (fixed_each[len(fixed_each) // 2],
                                                                          fixed_each[0]))

    compared = [r for r in rows if r.get("ipopt") and r["ipopt"]["success"] and r["ipopt"]["iter"] > 0
                and r["status"] in (1, 2) and r["iter"] > 0]
    if not compared:
        return
    # log(time ratio) = log(iteration ratio) + log(ratio of the time of one iteration)
    li = sum(math.log(r["iter"] / r["ipopt"]["iter"]) for r in compared) / len(compared)
    lt = sum(math.log(r["wall"] / (1e3 * r["ipopt"]["time"])) for r in compared) / len(compared)
    print("\nagainst Ipopt (casadi), %d problems both solved (geometric means): time ratio %.2fx = "
          "iteration ratio %.2fx * ratio of the time of one iteration %.2fx"
          % (len(compared), math.exp(lt), math.exp(li), math.exp(lt - li)))
    worst = sorted(compared, key=lambda r: -r["wall"] / (1e3 * r["ipopt"]["time"]))[:8]
    print("largest time ratios: " + ", ".join(
        "%s %.1fx (%d vs %d iterations)" % (r["name"], r["wall"] / (1e3 * r["ipopt"]["time"]), r["iter"],
                                             r["ipopt"]["iter"]) for r in worst))


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--only", action="append", metavar="NAME", help="only this problem (repeatable)")
    ap.add_argument("--repeat", type=int, default=5, help="runs per problem; the best counts (default 5)")
    ap.add_argument("--maxtime", type=float, default=20.0, help="time limit per solve (s)")
    ap.add_argument("--no-ipopt", action="store_true", help="leave out the comparison with Ipopt")
    args = ap.parse_args(argv)
    names = [n.upper() for n in args.only] if args.only else list(nonlinear.PROBLEMS)
    unknown = [n for n in names if n not in nonlinear.PROBLEMS]
    if unknown:
        ap.error("unknown problem(s): " + ", ".join(unknown))
    tarvo.setOutputEnabled(False)
    timed_solve(names[0], args.maxtime)   # the first solve of a process pays one-time set-up costs
    print_header()
    rows = []
    for name in names:
        try:
            rows.append(measure(name, max(1, args.repeat), args.maxtime, not args.no_ipopt))
        except Exception as e:  # one failing problem costs its row only
            print("%-7s failed: %s: %s" % (name, type(e).__name__, e))
            continue
        print_row(rows[-1])
    print_summary(rows)
    print("\nload average %.2f %.2f %.2f; CPU time is the process's (the solve runs on a worker thread)"
          % os.getloadavg())
    return 0


if __name__ == "__main__":
    sys.exit(main())
