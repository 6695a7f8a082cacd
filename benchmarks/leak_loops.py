"""Memory growth over many repetitions of the calls most likely to leak: failing add, delete
and low-level calls, nonlinear formulas that fail to convert, callbacks and user functions
that raise during a solve, NumPy loops that fail part-way through an array.

Each path runs 200 times to settle caches, then N times (N/10 for paths that solve); printed
are the growth in Python's allocated blocks (objects; 0 under PYTHONMALLOC=malloc) and in the
resident set (native allocations). A path that leaks a few bytes a call shows as hundreds of
kB; flat figures (a few blocks, a few kB) mean nothing accumulates. No assertions.

    PYTHONPATH=. python benchmarks/leak_loops.py [path name ...]     (N=10000 by default)
"""
import gc
import os
import sys

import numpy as np
import tarvo as tv
tv.setOutputEnabled(False)

def rss_kb():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") // 1024

x, y, z = tv.var(name="x", lb=-2, ub=2), tv.var(name="y", lb=-2, ub=2), tv.var(name="z")
outsider = tv.var(name="out")
p = tv.problem(x, y, x + y <= 3, tv.sin(x) + y >= -1, x * x + y <= 4, x + y, name="lk")

def swallow(f):
    def g():
        try:
            f()
        except Exception:
            pass
    return g

class Stop(Exception): pass
def raising_cb(*a):
    raise Stop("cb")

def make_knap():
    vs = [tv.var(vartype=tv.binary) for _ in range(12)]
    q = tv.problem(vs, tv.Sum((i % 5 + 1) * v for i, v in enumerate(vs)) <= 13,
                   tv.Sum((i * 7 % 11 + 1) * v for i, v in enumerate(vs)), sense=tv.maximize)
    q.controls.outputlog = 0
    return q
knap = make_knap()
knap.addcbchecktime(raising_cb)
nlp = tv.problem(x, y, tv.exp(x) + y ** 2 <= 3, (x - 1) ** 2 + tv.cos(y))
nlp.setcbitervar(raising_cb)
lp = tv.problem(x, y, x + 2 * y <= 3, -x - y)
lp.addcblplog(raising_cb)

def user_raising(a):
    raise Stop("user")
unlp = tv.problem(x, y, tv.user(user_raising, x) + y <= 3, x + y)

PATHS = {
    "addVariable bad": swallow(lambda: p.addVariable(x, "s")),
    "addConstraint outsider": swallow(lambda: p.addConstraint(outsider + x <= 1)),
    "addConstraint bad list": swallow(lambda: p.addConstraint([x <= 1, None])),
    "addConstraint nonlinear outsider": swallow(lambda: p.addConstraint(tv.sin(x + 2 * outsider) <= 1)),
    "setObjective nonlinear outsider": swallow(lambda: p.setObjective(tv.exp(outsider) + x)),
    "delVariable bad": swallow(lambda: p.delVariable([x, "nope"])),
    "delConstraint bad": swallow(lambda: p.delConstraint(10**6)),
    "addrows bad": swallow(lambda: p.addrows(["L", "G"], [1.0, 2.0], [0, 1], [0, 1], [1.0, "s"])),
    "addrows badcol": swallow(lambda: p.addrows(["L"], [1.0], [0], [0, 99], [1.0, 2.0])),
    "addcols bad": swallow(lambda: p.addcols([1.0], [0], [0], [1.0], [0.0], [1.0], names=["a", "b"])),
    "chgbounds bad": swallow(lambda: p.chgbounds([0, 1], ["L", "Q"], [1.0, 2.0])),
    "chgmcoef bad": swallow(lambda: p.chgmcoef([0, 1], [0, 77], [1.0, 1.0])),
    "getcols bad": swallow(lambda: p.getcols([], [], [], 100, 0, 99)),
    "chgccoef bad formula": swallow(lambda: p.chgccoef(0, -1, 1.0, "sin(x +")),
    "chgccoef unknown name": swallow(lambda: p.chgccoef(0, -1, 1.0, "sin(q)")),
    "user fn raising solve": swallow(lambda: unlp.solve()),
    "mip checktime raising": swallow(lambda: knap.solve()),
    "nlp itervar raising": swallow(lambda: nlp.solve()),
    "lp lplog raising": swallow(lambda: lp.solve()),
    "ufunc mid-array": swallow(lambda: np.array([x, y, "s", z], dtype=object) + tv.vars(4)),
    "ufunc compare mid-array": swallow(lambda: tv.vars(4) <= np.array([1.0, 2.0, None, 3.0], dtype=object)),
    "evaluate bad": swallow(lambda: tv.evaluate(tv.sin(x) + y, solution=[1.0, "a"])),
    "loadproblem bad": swallow(lambda: tv.problem().loadproblem("a", ["L"], [1.0], None, [1.0, 2.0], [0, 1], None, [0, 0], [1.0, 1.0], [0.0, 0.0], [1.0, "x"])),
}
only = sys.argv[1:] or list(PATHS)
N = int(os.environ.get("N", "10000"))
print("load average %.2f %.2f %.2f" % os.getloadavg())
for name in only:
    f = PATHS[name]
    for _ in range(200):
        f()
    gc.collect()
    b0, r0 = sys.getallocatedblocks(), rss_kb()
    n = N if "solve" not in name and "raising" not in name else N // 10
    for _ in range(n):
        f()
    gc.collect()
    b1, r1 = sys.getallocatedblocks(), rss_kb()
    print("%-34s n=%6d blocks %+7d  rss %+7d kB" % (name, n, b1 - b0, r1 - r0), flush=True)
