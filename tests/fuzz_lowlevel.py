"""Seeded fuzzing of the low-level methods' argument conversion, run in a child interpreter.

Usage: python fuzz_lowlevel.py LOGFILE SEED COUNT

Each call starts from a valid argument list for the current problem and spoils one or two of
its arguments (wrong lengths, out-of-range or huge indices, NaN, wrong element types, odd NumPy
arrays, None). A call must return or raise an ordinary exception; when it raises, the problem
must be exactly as it was before (same matrix, bounds, types, names). Each call is written to
LOGFILE before it is made so that the parent can name the call that killed the interpreter.
Faults are printed as "FAULT ..." lines and the process exits with status 3.
"""
import math
import warnings
import os
import random
import sys

import numpy as np

import tarvo as tv

LOG_FD = os.open(sys.argv[1], os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
SEED = int(sys.argv[2])
COUNT = int(sys.argv[3])
tv.setOutputEnabled(False)
warnings.simplefilter("ignore")
faults = []
STATS = {}


def log(text):
    os.write(LOG_FD, (text[:400].replace("\n", " ") + "\n").encode("utf-8", "replace"))


def snapshot(p):
    m, n = p.attributes.rows, p.attributes.cols
    out = {"size": (m, n, p.attributes.elems)}
    if n:
        s, i, v = [], [], []
        p.getcols(s, i, v, 10**6, 0, n - 1)
        out["cols"] = (s, [p.getIndex(o) for o in i], v)
        for name in ("getlb", "getub"):
            lst = []
            getattr(p, name)(lst, 0, n - 1)
            out[name] = lst
        for name in ("getobj", "getcoltype"):
            lst = []
            getattr(p, name)(lst, 0, n - 1)
            out[name] = lst
        out["colnames"] = p.getnamelist(2)
    if m:
        for name in ("getrhs", "getrhsrange", "getrowtype"):
            lst = []
            getattr(p, name)(lst, 0, m - 1)
            out[name] = lst
        out["rownames"] = p.getnamelist(1)
    out["nan"] = [k for k, v in out.items() if isinstance(v, list) and any(
        isinstance(x, float) and math.isnan(x) for x in v)]
    return out


def base_problem():
    p = tv.problem()
    p.loadproblem("fz", ["L", "G", "R", "E"], [4.0, 1.0, 6.0, 2.0], [0.0, 0.0, 5.0, 0.0],
                  [3.0, 2.0, 4.0, -1.0], [0, 3, 5, 7, 8], None, [0, 1, 2, 0, 2, 0, 1, 3],
                  [1.0, 2.0, 1.0, 1.0, 3.0, 2.0, 1.0, 1.0], [0.0, -1.0, 0.0, 0.0],
                  [4.0, 3.0, 10.0, 5.0], colnames=["a", "b", "c", "d"], rownames=["r0", "r1", "r2", "r3"])
    return p


# ---------------------------------------------------------------- valid argument lists
def ints(rng, k, hi):
    return [rng.randrange(hi) for _ in range(k)] if hi > 0 else []


def floats(rng, k):
    return [round(rng.uniform(-5, 5), 3) for _ in range(k)]


def valid_calls(p, rng):
    """(method, positional args, keyword args) valid for p as it stands."""
    m, n = p.attributes.rows, p.attributes.cols
    k = rng.randint(1, 3)
    nz = rng.randint(0, 4)
    calls = [
        ("addrows", [[rng.choice("LGER") for _ in range(k)], floats(rng, k), sorted(ints(rng, k, nz + 1)),
                     ints(rng, nz, n), floats(rng, nz)], {"names": ["nr%d_%d" % (rng.randrange(10**6), i)
                                                                     for i in range(k)]}),
        ("addcols", [floats(rng, k), sorted(ints(rng, k, nz + 1)), ints(rng, nz, m), floats(rng, nz),
                     [0.0] * k, [10.0] * k], {"types": [rng.choice("CIB") for _ in range(k)]}),
        ("chgbounds", [ints(rng, k, n), [rng.choice("LUB") for _ in range(k)], floats(rng, k)], {}),
        ("chgobj", [ints(rng, k, n), floats(rng, k)], {}),
        ("chgrhs", [ints(rng, k, m), floats(rng, k)], {}),
        ("chgrhsrange", [ints(rng, k, m), [abs(v) for v in floats(rng, k)]], {}),
        ("chgrowtype", [ints(rng, k, m), [rng.choice("LGE") for _ in range(k)]], {}),
        ("chgcoltype", [ints(rng, k, n), [rng.choice("CI") for _ in range(k)]], {}),
        ("chgmcoef", [ints(rng, k, m), ints(rng, k, n), floats(rng, k)], {}),
        ("chgcoef", [rng.randrange(max(m, 1)), rng.randrange(max(n, 1)), floats(rng, 1)[0]], {}),
        ("chgmqobj", [ints(rng, k, n), ints(rng, k, n), [abs(v) for v in floats(rng, k)]], {}),
        ("chgqobj", [rng.randrange(max(n, 1)), rng.randrange(max(n, 1)), 1.0], {}),
        ("addqmatrix", [rng.randrange(max(m, 1)), ints(rng, k, n), ints(rng, k, n), [1.0] * k], {}),
        ("getcols", [[], [], [], 100, 0, max(n - 1, 0)], {}),
        ("getrows", [[], [], [], 100, 0, max(m - 1, 0)], {}),
        ("getlb", [[], 0, max(n - 1, 0)], {}),
        ("getobj", [[], 0, max(n - 1, 0)], {}),
        ("getrhs", [[], 0, max(m - 1, 0)], {}),
        ("getcoef", [rng.randrange(max(m, 1)), rng.randrange(max(n, 1))], {}),
        ("getnamelist", [rng.choice([1, 2]), 0, 1], {}),
        ("addnames", [rng.choice([1, 2]), ["nm%d" % rng.randrange(10**6)], rng.randrange(max(min(m, n), 1)),
                      None], {}),
        ("loadbasis", [[1] * m, [0] * n], {}),
        ("getbasis", [[], []], {}),
        ("calcobjective", [floats(rng, n)], {}),
        ("calcslacks", [floats(rng, n), []], {}),
        ("addmipsol", [floats(rng, k), ints(rng, k, n)], {}),
        ("addpwlcons", [[rng.randrange(max(n, 1))], [rng.randrange(max(n, 1))], [0], [0.0, 1.0], [0.0, 2.0]], {}),
        ("addgencons", [[0], [rng.randrange(max(n, 1))], [0], ints(rng, 2, n)], {}),
        ("loaddirs", [ints(rng, k, n), [1] * k], {}),
    ]
    return [c for c in calls if hasattr(p, c[0])]


# ---------------------------------------------------------------- spoilers
class Boom(Exception):
    pass


class BadIndex:
    def __index__(self):
        raise Boom("index")


class BadFloat:
    def __float__(self):
        raise Boom("float")


class LyingLen(list):
    def __len__(self):
        return 10**6


def spoil_element(v, rng):
    return rng.choice([None, math.nan, math.inf, -math.inf, -1, -(2**31), 2**31, 2**63, -(2**63) - 1, 2**70,
                       1e300, "Q", "", "LL", b"L", [v], (), 1.5, True, np.int64(-1), np.uint64(2**64 - 1),
                       np.float32("nan"), BadIndex(), BadFloat(), object(), 1j, tv.var()])


def spoil(v, rng):
    """A damaged version of one argument."""
    choices = ["none", "scalar", "element", "element", "shorter", "longer", "numpy", "nested", "string",
               "generator", "lying", "dict", "huge"]
    how = rng.choice(choices)
    seq = isinstance(v, list)
    if how == "none":
        return None
    if how == "scalar" or not seq:
        return spoil_element(v, rng)
    if how == "element" and list(v):
        w = list(v)
        w[rng.randrange(len(w))] = spoil_element(w[0], rng)
        return w
    if how == "shorter":
        return v[:-1] if v else [0]
    if how == "longer":
        return v + (v[:1] or [0]) * rng.randint(1, 3)
    if how == "numpy":
        dtype = rng.choice([np.int8, np.uint64, np.float32, np.float64, np.int64, object, bool, np.complex128,
                            "U2", "M8[D]"])
        try:
            a = np.array(v if v else [0], dtype=dtype)
        except Exception:
            a = np.array([1, 2, 3], dtype=np.int8)
        if rng.random() < 0.3:
            a = np.repeat(a, 2)[::2]      # non-contiguous view of the same length
        if rng.random() < 0.2:
            a = a.reshape(1, -1)
        return a
    if how == "nested":
        return [v]
    if how == "string":
        return "".join(str(x)[:1] for x in v) or "L"
    if how == "generator":
        return (x for x in v)
    if how == "lying":
        return LyingLen(v)
    if how == "dict":
        return {i: x for i, x in enumerate(v)}
    if how == "huge":
        return [2**40] * max(len(v), 1)
    return v


# ---------------------------------------------------------------- the run
def run():
    rng = random.Random(SEED)
    p = base_problem()
    before = snapshot(p)
    for i in range(COUNT):
        if i % 60 == 59:
            p = base_problem()
            before = snapshot(p)
        name, args, kwargs = rng.choice(valid_calls(p, rng))
        spoilt = list(args)
        kw = dict(kwargs)
        for _ in range(rng.choice([0, 1, 1, 1, 2])):
            if spoilt and (not kw or rng.random() < 0.8):
                j = rng.randrange(len(spoilt))
                spoilt[j] = spoil(spoilt[j], rng)
            elif kw:
                key = rng.choice(sorted(kw))
                kw[key] = spoil(kw[key], rng)
        text = "%d %s(%r, %r)" % (i, name, spoilt, kw)
        log(text)
        try:
            getattr(p, name)(*spoilt, **kw)
            STATS[name, "ok"] = STATS.get((name, "ok"), 0) + 1
        except SystemError as e:
            faults.append((text, "SystemError: %s" % e))
        except Exception as e:
            key = (name, type(e).__name__ + ": " + str(e)[:50])
            STATS[key] = STATS.get(key, 0) + 1
            try:
                after = snapshot(p)
            except Exception as e:
                faults.append((text, "problem unreadable after the failed call: %r" % e))
                p = base_problem()
                before = snapshot(p)
                continue
            if after != before:
                diff = sorted(k for k in set(before) | set(after) if before.get(k) != after.get(k))
                faults.append((text, "failed call changed the problem: %s" % diff))
                before = after
            continue
        except BaseException as e:  # noqa: B036 - anything else escaping a call is a fault
            faults.append((text, "%s: %s" % (type(e).__name__, e)))
        before = snapshot(p)
        if i % 20 == 19:
            log("%d solve" % i)
            try:
                p.controls.maxtime = 5
                p.solve()
            except SystemError as e:
                faults.append(("solve after call %d" % i, "SystemError: %s" % e))
            except Exception:
                pass
            before = snapshot(p)
    log("done")


run()
if os.environ.get("FUZZ_STATS"):
    for key, k in sorted(STATS.items()):
        sys.stderr.write("%5d %s\n" % (k, key))
for text, what in faults:
    print("FAULT %s -> %s" % (text, what))
sys.stdout.flush()
os._exit(3 if faults else 0)
