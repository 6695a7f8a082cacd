"""Where the memory of a built model goes, module side against engine side.

Builds each model (the builders of benchmarks/build_solve.py) in a fresh process and prints,
per column and per row:
  - the Python allocations still held after building (tracemalloc: var, constraint and body
    objects, term maps, the problem's lists, names) and, of those, what sys.getsizeof sees of
    the variable objects, the constraint objects and their bodies (bodies as read back: a body
    released to its row is made again for the count, after the other figures are taken);
  - the C heap (glibc's mallinfo2: the engine's store, the problem's serial maps, the side
    tables of bounds and names);
  - the growth of the peak resident set over the resident set before the build (the step that
    sets the peak, and what is held then: benchmarks/memory_split.py).
No assertions.

    PYTHONPATH=. python benchmarks/module_memory.py [--models fac-25,lqcp-500,basic-300]
        [--styles list,array]
"""
import ctypes
import json
import os
import subprocess
import sys
import tracemalloc

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)


class MallInfo2(ctypes.Structure):
    _fields_ = [(name, ctypes.c_size_t) for name in
                ("arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks", "fsmblks", "uordblks", "fordblks",
                 "keepcost")]


def c_heap():
    libc = ctypes.CDLL("libc.so.6")
    libc.mallinfo2.restype = MallInfo2
    info = libc.mallinfo2()
    return info.uordblks + info.hblkhd


def body_bytes(body):
    """getsizeof of a body and, for an expression, of its linear terms' storage (16 bytes each)."""
    size = sys.getsizeof(body)
    try:
        lin = body.extractLinear()
        size += 16 * len(lin[0])
    except Exception:
        pass
    return size


def child(model, style):
    import numpy as np
    import tarvo as tv
    import build_solve as bs
    tv.setOutputEnabled(False)
    kind, size = bs.parse_model(model)
    builder = {"fac": bs.facility, "lqcp": bs.lqcp, "basic": bs.basic}[kind]
    base_rss = bs.resident_bytes()
    heap0 = c_heap()
    tracemalloc.start()
    p = builder(tv, np, style, *size)
    py_bytes, py_peak = tracemalloc.get_traced_memory()
    tracemalloc.stop()
    heap = c_heap() - heap0
    rss = bs.peak_bytes() - base_rss
    cols, rows = p.attributes.cols, p.attributes.rows
    vs, cs = p.getVariable(), p.getConstraint()
    var_b = sum(sys.getsizeof(v) for v in vs)
    con_b = sum(sys.getsizeof(c) for c in cs)
    bodies = 0
    for c in cs:
        try:
            bodies += body_bytes(c.body)
        except Exception:
            pass
    print(json.dumps(dict(cols=cols, rows=rows, python=py_bytes, python_peak=py_peak, heap=heap, rss=rss,
                          var=var_b, con=con_b, body=bodies)))


def main():
    args = sys.argv[1:]
    if args and args[0] == "--child":
        return child(*args[1:])

    def option(name, default):
        return args[args.index(name) + 1] if name in args else default

    models = option("--models", "fac-25,lqcp-500,basic-300").split(",")
    styles = option("--styles", "list,array").split(",")
    env = dict(os.environ)
    root = os.path.dirname(HERE)
    env["PYTHONPATH"] = os.pathsep.join(filter(None, [env.get("PYTHONPATH"), root]))  # a given tarvo first
    print("bytes per column + row (items); python = retained Python allocations, of which var / con / body "
          "objects by getsizeof; heap = C heap (engine store, maps, side tables); rss = peak growth")
    print("%-10s %-6s %8s %8s %8s %7s %7s %7s %8s %8s" % (
        "model", "style", "items", "python", "py peak", "var", "con", "body", "heap", "rss"))
    for model in models:
        for style in styles:
            out = subprocess.run([sys.executable, os.path.abspath(__file__), "--child", model, style],
                                 capture_output=True, text=True, env=env)
            if out.returncode != 0:
                print("%-10s %-6s failed: %s" % (model, style, out.stderr.strip().splitlines()[-1:]))
                continue
            r = json.loads(out.stdout.strip().splitlines()[-1])
            n = r["cols"] + r["rows"]
            print("%-10s %-6s %8d %8.0f %8.0f %7.0f %7.0f %7.0f %8.0f %8.0f" % (
                model, style, n, r["python"] / n, r["python_peak"] / n, r["var"] / n, r["con"] / n,
                r["body"] / n, r["heap"] / n, r["rss"] / n))
            print("%-10s %-6s   per column: var %.0f B; per row: constraint %.0f B, body %.0f B (%d cols, %d rows)"
                  % ("", "", r["var"] / r["cols"], r["con"] / r["rows"], r["body"] / r["rows"], r["cols"],
                     r["rows"]))
            sys.stdout.flush()


if __name__ == "__main__":
    main()
