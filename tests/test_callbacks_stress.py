"""Callbacks under load: eight threads each solve their own MIPs with three callbacks that raise
at random; every raise surfaces in its own thread and memory stays flat."""

STRESS = """
import gc, random, sys, threading
import numpy as np
import tarvo as tv

tv.setOutputEnabled(False)

class Raised(Exception):
    pass

def knapsack(seed, n=25):
    rng = np.random.default_rng(seed)
    w = rng.integers(50, 400, n)
    v = w + rng.integers(-20, 20, n)
    x = [tv.var(vartype=tv.binary) for _ in range(n)]
    return tv.problem(x, tv.Sum(int(w[i]) * x[i] for i in range(n)) <= int(w.sum()) // 2 + 0.5,
                      tv.Sum(int(v[i]) * x[i] for i in range(n)), sense=tv.maximize)

lock = threading.Lock()
total = [0]
failures = []
raised = [0]

def solve_one(tid, r, rng):
    token = (tid, r)
    raise_at = rng.randint(1, 120) if rng.random() < 0.4 else None
    count = [0]
    def cb(prob, data, *rest):
        count[0] += 1
        if count[0] == raise_at:
            raise Raised(token)
        return 0
    p = knapsack(tid * 100000 + r)
    p.addcbintsol(cb)
    p.addcbchecktime(cb, None, 3)
    p.addcbmessage(cb)
    try:
        p.solve()
        if raise_at is not None and count[0] >= raise_at:
            failures.append(("raise lost", token, count[0]))
        elif p.getProbStatusString() != "mip_optimal":
            failures.append(("status", token, p.getProbStatusString()))
    except Raised as e:
        if e.args[0] != token:
            failures.append(("raise from another thread", token, e.args[0]))
        elif count[0] != raise_at:
            failures.append(("called after the raise", token, count[0]))
        with lock:
            raised[0] += 1
    with lock:
        total[0] += count[0]

def phase(calls):
    start = total[0]
    def worker(tid):
        rng = random.Random(tid * 7919 + start)
        r = 0
        while total[0] - start < calls:
            solve_one(tid, start + r, rng)
            r += 1
    threads = [threading.Thread(target=worker, args=(t,)) for t in range(8)]
    for t in threads: t.start()
    for t in threads: t.join()
    gc.collect()
    return sys.getallocatedblocks()

phase(2000)                     # warm-up: caches, catalogues, thread states
b1 = phase(4000)
b2 = phase(4000)
print("calls", total[0], "raised", raised[0], "growth", b2 - b1, "failures", failures[:5])
"""


def test_eight_threads_with_raising_callbacks(run_python):
    out = run_python(STRESS).split()
    calls, raised, growth = int(out[1]), int(out[3]), int(out[5])
    assert out[7:] == ["[]"], " ".join(out)
    assert calls >= 10000 and raised > 10
    # Allocated blocks do not grow with the number of solves: 4000 more calls (about a hundred
    # solves with their problems, callbacks and exceptions) leave the count where it was.
    assert growth < 300, growth
