"""Argument fuzzing of the whole Python surface of tarvo, run in a child interpreter.

Usage: python fuzz_battery.py LOGFILE GROUP [SEED] [--leaks]

Every call is described on one line of LOGFILE (flushed before the call is made) so that a
parent can name the call that killed the interpreter. Calls that raise an ordinary exception
are fine; a SystemError (a broken C-API contract), any BaseException that is not an Exception,
or a call that corrupts the object it was given is recorded as a fault. Faults are printed as
"FAULT <call> -> <what>" lines on stdout and the process exits with status 3.
"""
import gc
import math
import os
import random
import sys

import resource

import numpy as np

import tarvo as tv

# hostile sizes (tv.vars(2**31)) must end in MemoryError, not in the machine running out. Under
# AddressSanitizer (scripts/sanitize) the address space cannot be capped (its shadow memory
# needs it); the sanitizer's own allocation limit plays the same part there.
if "libasan" not in os.environ.get("LD_PRELOAD", ""):
    resource.setrlimit(resource.RLIMIT_AS, (4 * 2**30, resource.getrlimit(resource.RLIMIT_AS)[1]))
LOG_FD = os.open(sys.argv[1], os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
GROUP = sys.argv[2]
SEED = int(sys.argv[3]) if len(sys.argv) > 3 and sys.argv[3].isdigit() else 1
CHECK_LEAKS = "--leaks" in sys.argv
faults = []
tv.setOutputEnabled(False)


# calls to leave out (one description a line), used while hunting several faults at once
SKIP = set()
if os.environ.get("FUZZ_SKIP") and os.path.exists(os.environ["FUZZ_SKIP"]):
    with open(os.environ["FUZZ_SKIP"]) as f:
        SKIP = {line.rstrip("\n") for line in f}


def log(text):
    if SKIP and text[:300].replace("\n", " ") in SKIP:
        return True
    os.write(LOG_FD, (text[:300].replace("\n", " ") + "\n").encode("utf-8", "replace"))
    return False


# ---------------------------------------------------------------- hostile helper objects
class Boom(Exception):
    pass


class BadIndex:
    def __index__(self):
        raise Boom("index")

    def __int__(self):
        raise Boom("int")


class BadFloat:
    def __float__(self):
        raise Boom("float")


class BadLen:
    def __len__(self):
        raise Boom("len")

    def __getitem__(self, i):
        raise Boom("getitem")


class BadIter:
    def __iter__(self):
        raise Boom("iter")


class LyingLen(list):
    """A list subclass whose reported length disagrees with its contents."""

    def __len__(self):
        return 10**6


class BadStr:
    def __str__(self):
        raise Boom("str")

    __repr__ = __str__


class BadEq:
    def __eq__(self, other):
        raise Boom("eq")

    def __hash__(self):
        raise Boom("hash")

    def __lt__(self, other):
        raise Boom("lt")


def raising_gen(items):
    for i, item in enumerate(items):
        if i == 2:
            raise Boom("generator")
        yield item


def nested(depth):
    v = []
    for _ in range(depth):
        v = [v]
    return v


def nested_tuple(depth, leaf):
    v = leaf
    for _ in range(depth):
        v = (v,)
    return v


# ---------------------------------------------------------------- modelling material
x = tv.var(name="x", lb=-3, ub=7)
y = tv.var(vartype=tv.integer, ub=5)
z = tv.var(vartype=tv.binary)
con = tv.constraint(body=x + 2 * y, ub=4, name="c1")
qcon = x * x + y <= 9
nlcon = tv.sin(x) + y >= -1
s1 = tv.sos([x, y], [1, 2], type=1)


def populated():
    p = tv.problem(x, y, z, con, qcon, s1, x + y, name="fuzz")
    return p


other = tv.problem(name="other")
xo = tv.var(name="xo")
co = tv.constraint(body=xo, lb=1)
other.addVariable(xo)
other.addConstraint(co)
gone = tv.var(name="gone")
cgone = tv.constraint(body=gone, ub=1)
pgone = tv.problem(gone, cgone)
pgone.delConstraint(cgone)
pgone.delVariable(gone)
reset_problem = populated()
reset_problem.reset()


def fresh_uninit(t):
    try:
        return t.__new__(t)
    except Exception:
        return None


# ---------------------------------------------------------------- the battery
def battery():
    """(label, factory) pairs; factories make a fresh value each call (generators are one-shot)."""
    b = [
        ("None", lambda: None), ("True", lambda: True), ("-1", lambda: -1), ("0", lambda: 0),
        ("2**70", lambda: 2**70), ("-2**70", lambda: -(2**70)), ("2**31", lambda: 2**31),
        ("1e308", lambda: 1e308), ("-1e308", lambda: -1e308), ("nan", lambda: math.nan),
        ("inf", lambda: math.inf), ("-inf", lambda: -math.inf), ("1.5", lambda: 1.5),
        ("1j", lambda: 1j), ("''", lambda: ""), ("'x'*10000", lambda: "x" * 10000),
        ("'\\ud800'", lambda: "\ud800"), ("'a\\0b'", lambda: "a\0b"), ("b'bytes'", lambda: b"bytes"),
        ("[]", lambda: []), ("[[]]", lambda: [[]]), ("()", lambda: ()),
        ("nested1000", lambda: nested(1000)), ("nested_tuple1000", lambda: nested_tuple(1000, x)),
        ("{odd keys}", lambda: {None: 1, (1, 2): x, x: 2, 1.5: "a"}), ("{}", lambda: {}),
        ("{str:var}", lambda: {"x": x, "y": y}), ("set", lambda: {1, 2}),
        ("gen_raising", lambda: raising_gen([x, y, z, x])),
        ("gen_raising_num", lambda: raising_gen([1.0, 2.0, 3.0])),
        ("iter_empty", lambda: iter([])), ("iter_vars", lambda: iter([x, y])),
        ("BadIndex", BadIndex), ("BadFloat", BadFloat), ("BadLen", BadLen), ("BadIter", BadIter),
        ("LyingLen", lambda: LyingLen([x, y])), ("BadStr", BadStr), ("BadEq", BadEq),
        ("[BadIndex]", lambda: [BadIndex()]), ("[BadFloat]", lambda: [BadFloat()]),
        ("[BadStr]", lambda: [BadStr()]), ("object()", object), ("type", lambda: int),
        ("lambda", lambda: (lambda *a, **k: 1.0)), ("raising_fn", lambda: (lambda *a, **k: 1 / 0)),
        ("np_f64", lambda: np.arange(3.0)), ("np_i64", lambda: np.arange(3)),
        ("np_i8", lambda: np.arange(3, dtype=np.int8)), ("np_u64", lambda: np.arange(3, dtype=np.uint64)),
        ("np_bool", lambda: np.array([True, False])), ("np_f16", lambda: np.ones(2, np.float16)),
        ("np_c128", lambda: np.array([1 + 2j, 3j])), ("np_dt", lambda: np.array(["2020-01-01"], "M8[D]")),
        ("np_td", lambda: np.array([1], "m8[s]")), ("np_str", lambda: np.array(["a", "bc"])),
        ("np_bytes", lambda: np.array([b"a"])), ("np_obj_vars", lambda: np.array([x, y], dtype=object)),
        ("np_obj_mixed", lambda: np.array([x, None, "a", 1.5], dtype=object)),
        ("np_0d", lambda: np.array(2.5)), ("np_0d_obj", lambda: np.array(x, dtype=object)),
        ("np_empty", lambda: np.empty(0)), ("np_huge0", lambda: np.empty((0, 10**9))),
        ("np_noncontig", lambda: np.arange(20.0).reshape(4, 5)[:, ::2]),
        ("np_2d", lambda: np.ones((2, 3))), ("np_struct", lambda: np.zeros(2, dtype=[("a", "i4"), ("b", "f8")])),
        ("np_bcast", lambda: np.broadcast_to(np.float64(1.0), (1000,))),
        ("np_nan", lambda: np.array([np.nan, np.inf])), ("np.float32", lambda: np.float32(2.5)),
        ("np.int16", lambda: np.int16(3)), ("np.uint64", lambda: np.uint64(2**64 - 1)),
        ("np.int64", lambda: np.int64(-(2**63))), ("np.longdouble", lambda: np.longdouble(1.5)),
        ("np.complex", lambda: np.complex128(1j)), ("np.datetime", lambda: np.datetime64("2020-01-01")),
        ("x", lambda: x), ("y", lambda: y), ("[x,y]", lambda: [x, y]), ("(x,y)", lambda: (x, y)),
        ("2x", lambda: 2 * x), ("x*y", lambda: x * y), ("x+1", lambda: x + 1), ("x*y+x", lambda: x * y + x),
        ("sin(x)", lambda: tv.sin(x)), ("con", lambda: con), ("qcon", lambda: qcon), ("nlcon", lambda: nlcon),
        ("[con]", lambda: [con]), ("s1", lambda: s1), ("[s1]", lambda: [s1]),
        ("xo(other)", lambda: xo), ("co(other)", lambda: co), ("gone", lambda: gone), ("cgone", lambda: cgone),
        ("[x,gone]", lambda: [x, gone]), ("problem", lambda: other), ("reset_problem", lambda: reset_problem),
        ("controls", lambda: tv.controls), ("[x,[y,[z,[con]]]]", lambda: [x, [y, [z, [con]]]]),
        ("[x, 'a', None]", lambda: [x, "a", None]), ("{x:1.0}", lambda: {x: 1.0, y: 2.0}),
        ("{'c1': 1}", lambda: {"c1": 1, "bogus": 2}),
    ]
    for t in sorted({type(x), type(2 * x), type(x * y), type(x + 1), type(tv.sin(x)), type(con),
                     type(s1), tv.branchobj, tv.poolcut}, key=lambda t: t.__name__):
        b.append(("uninit_" + t.__name__, lambda t=t: fresh_uninit(t)))
    return b


BATTERY = battery()
KEYWORDS = ["name", "lb", "ub", "vartype", "threshold", "body", "type", "sense", "indices", "weights",
            "index", "first", "last", "rhs", "objective", "constraint", "solution", "filename", "flags",
            "options", "derivatives", "data", "priority", "msghandler", "problem", "out", "checked_mode",
            "ifArchConsistent", "ipar", "value", "bogus_keyword"]


def describe(label, args, kwargs):
    parts = [a for a in args] + ["%s=%s" % kv for kv in kwargs]
    return "%s(%s)" % (label, ", ".join(parts))


STATS = {} if os.environ.get("FUZZ_STATS") else None
PER_CALL_LEAKS = "--leaks-per-call" in sys.argv


def invoke(fn, args, kwargs):
    try:
        fn(*[f() for _, f in args], **{k: f() for k, _, f in kwargs})
    except Exception:
        pass


def leak_probe(text, fn, args, kwargs):
    """Repeats one call: a steady rise in allocated blocks is a leak on that path."""
    for _ in range(3):
        invoke(fn, args, kwargs)
    gc.collect()
    base = sys.getallocatedblocks()
    for _ in range(20):
        invoke(fn, args, kwargs)
    gc.collect()
    growth = sys.getallocatedblocks() - base
    if growth < 20:
        return
    # confirm: caches settle, a leak keeps growing with the number of calls
    base = sys.getallocatedblocks()
    for _ in range(100):
        invoke(fn, args, kwargs)
    gc.collect()
    growth = sys.getallocatedblocks() - base
    if growth >= 90:
        print("LEAK %s -> %d blocks in 100 calls" % (text, growth))


def call(label, fn, args=(), kwargs=()):
    """Calls fn with battery arguments given by label; records faults."""
    text = describe(label, [a for a, _ in args], [(k, a) for k, a, _ in kwargs])
    if log(text):
        return None
    try:
        pos = [f() for _, f in args]
        kw = {k: f() for k, _, f in kwargs}
    except Exception:
        return None
    if PER_CALL_LEAKS:
        leak_probe(text, fn, args, kwargs)
    try:
        return fn(*pos, **kw)
    except SystemError as e:
        faults.append((text, "SystemError: %s" % e))
    except RecursionError as e:
        # a clean RecursionError is an ordinary exception; only its absence of a crash matters
        return None
    except Exception as e:
        if STATS is not None:
            key = "%s: %s" % (type(e).__name__, str(e)[:60])
            STATS[key] = STATS.get(key, 0) + 1
        return None
    except BaseException as e:  # noqa: B036 - anything else escaping a call is a fault
        faults.append((text, "%s: %s" % (type(e).__name__, e)))
    return None


def touch(label, obj):
    """Uses an object after hostile calls: it must still print, hash and compare."""
    if log("touch " + label):
        return
    for op in (str, repr):
        try:
            op(obj)
        except SystemError as e:
            faults.append(("touch %s %s" % (label, op.__name__), "SystemError: %s" % e))
        except Exception:
            pass


# ---------------------------------------------------------------- targets
def names_of(obj, label):
    try:
        return sorted(dir(obj))
    except SystemError as e:
        faults.append(("dir " + label, "SystemError: %s" % e))
    except Exception:
        pass
    return []


def public_callables(obj, label):
    out = []
    if log("dir " + label):
        return out
    for name in names_of(obj, label):
        if name.startswith("_"):
            continue
        if log("lookup %s.%s" % (label, name)):
            continue
        try:
            attr = getattr(obj, name)
        except Exception:
            continue
        if callable(attr) and not (isinstance(attr, type) and issubclass(attr, BaseException)):
            out.append(("%s.%s" % (label, name), attr))
    return out


# arguments of the right kind for most methods, so that calls get past argument parsing and
# the hostile argument among them reaches the conversions behind it
PLAUSIBLE = [("0", lambda: 0), ("1", lambda: 1), ("2", lambda: 2), ("[0]", lambda: [0]),
             ("[0,1]", lambda: [0, 1]), ("[1.0,2.0]", lambda: [1.0, 2.0]), ("['L','U']", lambda: ["L", "U"]),
             ("'L'", lambda: "L"), ("1.5", lambda: 1.5), ("[x]", lambda: [x]), ("x", lambda: x),
             ("con", lambda: con), ("[con]", lambda: [con]), ("[]", lambda: []), ("'c1'", lambda: "c1"),
             ("[0,0]", lambda: [0, 0]), ("np_i64", lambda: np.arange(2)), ("[[1.0]]", lambda: [[1.0]]),
             ("out[]", lambda: [])]


def deep_calls(label, fn, rng, n):
    for _ in range(n):
        k = rng.randint(1, 8)
        args = [rng.choice(BATTERY) if rng.random() < 0.25 else rng.choice(PLAUSIBLE) for _ in range(k)]
        call(label, fn, args)


def fuzz_callable(label, fn, rng, n_single, n_pairs, n_kw):
    call(label, fn)
    deep_calls(label, fn, rng, n_pairs * 2)
    for a in rng.sample(BATTERY, min(n_single, len(BATTERY))):
        call(label, fn, [a])
    for _ in range(n_pairs):
        call(label, fn, rng.sample(BATTERY, 2))
    for _ in range(n_pairs // 2):
        call(label, fn, rng.sample(BATTERY, 3))
    for _ in range(n_kw):
        k = rng.choice(KEYWORDS)
        a = rng.choice(BATTERY)
        call(label, fn, [], [(k, a[0], a[1])])
        b = rng.choice(BATTERY)
        call(label, fn, [b], [(k, a[0], a[1])])


def fuzz_properties(label, obj, rng, n):
    if log("dir " + label):
        return
    for name in names_of(obj, label):
        if name.startswith("_"):
            continue
        if log("getattr %s.%s" % (label, name)):
            continue
        try:
            getattr(obj, name)
        except SystemError as e:
            faults.append(("getattr %s.%s" % (label, name), "SystemError: %s" % e))
        except Exception:
            pass
        for a in rng.sample(BATTERY, min(n, len(BATTERY))):
            call("setattr %s.%s" % (label, name), lambda v, name=name: setattr(obj, name, v), [a])
        call("delattr %s.%s" % (label, name), lambda name=name: delattr(obj, name))


BINOPS = {
    "+": lambda a, b: a + b, "-": lambda a, b: a - b, "*": lambda a, b: a * b, "/": lambda a, b: a / b,
    "**": lambda a, b: a ** b, "@": lambda a, b: a @ b, "&": lambda a, b: a & b, "|": lambda a, b: a | b,
    "<": lambda a, b: a < b, "<=": lambda a, b: a <= b, "==": lambda a, b: a == b, "!=": lambda a, b: a != b,
    ">": lambda a, b: a > b, ">=": lambda a, b: a >= b, "//": lambda a, b: a // b, "%": lambda a, b: a % b,
    "divmod": divmod, "pow3": lambda a, b: pow(a, b, 3),
}


def inplace(op):
    def run(a, b):
        if op == "+":
            a += b
        elif op == "-":
            a -= b
        elif op == "*":
            a *= b
        elif op == "/":
            a /= b
        elif op == "**":
            a **= b
        return a
    return run


UNOPS = {"abs": abs, "neg": lambda a: -a, "pos": lambda a: +a, "float": float, "int": int,
         "bool": bool, "hash": hash, "len": len, "iter": iter, "str": str, "repr": repr,
         "index": lambda a: [0][a], "round": round, "~": lambda a: ~a}


def operand_factories():
    return [
        ("x", lambda: x), ("2x", lambda: 2 * x), ("x*y", lambda: x * y), ("x+1", lambda: x + 1),
        ("x*y+x", lambda: x * y + x + 3), ("sin(x)", lambda: tv.sin(x)), ("con", lambda: con),
        ("s1", lambda: s1), ("gone", lambda: gone),
    ] + [(lab, f) for lab, f in BATTERY if lab.startswith("uninit_")]


def run_operators(rng):
    ops = operand_factories()
    for la, fa in ops:
        for name, op in UNOPS.items():
            call("%s %s" % (name, la), op, [(la, fa)])
        others = ops + BATTERY
        for lb, fb in rng.sample(others, min(45, len(others))):
            for name, op in BINOPS.items():
                call("(%s) %s (%s)" % (la, name, lb), op, [(la, fa), (lb, fb)])
                call("(%s) %s (%s)" % (lb, name, la), op, [(lb, fb), (la, fa)])
            for name in ("+", "-", "*", "/", "**"):
                call("(%s) %s= (%s)" % (la, name, lb), inplace(name), [(la, fa), (lb, fb)])


def run_module(rng):
    for label, fn in public_callables(tv, "tv"):
        if label in ("tv.free",):
            continue
        fuzz_callable(label, fn, rng, 40, 25, 25)


def run_types(rng):
    """Uninitialised objects of every type: methods, properties and printing."""
    for t in sorted({type(x), type(2 * x), type(x * y), type(x + 1), type(tv.sin(x)), type(con),
                     type(s1), tv.problem, tv.branchobj, tv.poolcut, type(tv.controls),
                     type(other.attributes)}, key=lambda t: t.__name__):
        obj = fresh_uninit(t)
        if obj is None:
            continue
        label = "uninit_" + t.__name__
        touch(label, obj)
        for op_name, op in UNOPS.items():
            call("%s %s" % (op_name, label), op, [(label, lambda: obj)])
        for m_label, fn in public_callables(obj, label):
            fuzz_callable(m_label, fn, rng, 12, 6, 6)
        fuzz_properties(label, obj, rng, 8)
        touch(label, obj)
        for op_name in ("==", "<=", "+", "*"):
            call("(%s) %s (x)" % (label, op_name), BINOPS[op_name], [(label, lambda: obj), ("x", lambda: x)])
        # re-running __init__ on a live object must not corrupt it
        for a in rng.sample(BATTERY, 10):
            call("%s.__init__" % label, lambda *v: type(obj).__init__(obj, *v), [a])
        touch(label, obj)


def run_modelling(rng):
    objs = [("x", x), ("2x", 2 * x), ("x*y", x * y), ("x+1", x * y + x + 1), ("sin(x)", tv.sin(x) + x),
            ("con", tv.constraint(body=x + y, lb=1, name="cc")), ("s1", s1.copy() if hasattr(s1, "copy") else s1)]
    for label, obj in objs:
        for m_label, fn in public_callables(obj, label):
            fuzz_callable(m_label, fn, rng, 60, 30, 30)
        fuzz_properties(label, obj, rng, 60)
        touch(label, obj)


def run_problem(rng):
    probs = [("p_empty", tv.problem()), ("p_pop", populated()), ("p_reset", reset_problem),
             ("p_del", pgone)]
    solved = populated()
    log("solve p_solved")
    try:
        solved.solve()
    except SystemError as e:
        faults.append(("solve p_solved", "SystemError: %s" % e))
    except Exception:
        pass
    probs.append(("p_solved", solved))
    for label, p in probs:
        for m_label, fn in public_callables(p, label):
            if m_label.endswith((".solve",)):
                continue
            fuzz_callable(m_label, fn, rng, 45, 25, 25)
        fuzz_properties(label, p, rng, 20)
        touch(label, p)
        log("solve after fuzz " + label)
        try:
            p.solve()
        except SystemError as e:
            faults.append(("solve after fuzz " + label, "SystemError: %s" % e))
        except Exception:
            pass


def run_controls(rng):
    p = populated()
    for label, obj in (("tv.controls", tv.controls), ("p.controls", p.controls), ("p.attributes", p.attributes)):
        names = [n for n in names_of(obj, label) if not n.startswith("_")]
        for name in names:
            if log("getattr %s.%s" % (label, name)):
                continue
            try:
                getattr(obj, name)
            except SystemError as e:
                faults.append(("getattr %s.%s" % (label, name), "SystemError: %s" % e))
            except Exception:
                pass
            for a in rng.sample(BATTERY, 8):
                call("setattr %s.%s" % (label, name), lambda v, name=name: setattr(obj, name, v), [a])
        for a in rng.sample(BATTERY, 30):
            call("getattr %s[odd]" % label, lambda v: getattr(obj, v), [a])
            call("setattr %s[odd]" % label, lambda v: setattr(obj, v, 1), [a])
            call("%s[odd]" % label, lambda v: obj[v], [a])
        for m_label, fn in public_callables(obj, label):
            fuzz_callable(m_label, fn, rng, 30, 15, 15)
        touch(label, obj)
    for name in ("maxtime", "lpiterlimit", "threads", "feastol", "presolve", "tslp_iterlimit"):
        for a in rng.sample(BATTERY, 6):
            call("setControl %s" % name, lambda v, name=name: p.setControl(name, v), [a])
            call("setdefaultcontrol %s" % name, lambda v, name=name: tv.setdefaultcontrol(name, v), [a])
    tv.setdefaults()
    log("solve with fuzzed controls")
    try:
        p.controls.maxtime = 5
        p.controls.threads = 1
        p.solve()
    except SystemError as e:
        faults.append(("solve with fuzzed controls", "SystemError: %s" % e))
    except Exception:
        pass


def run_lifecycle(rng):
    """Objects that outlive the environment or their problem."""
    p = populated()
    q = p.copy() if hasattr(p, "copy") else populated()
    log("tv.free() with live problems")
    tv.free()
    for label, obj in (("p_after_free", p), ("q_after_free", q)):
        for m_label, fn in public_callables(obj, label):
            fuzz_callable(m_label, fn, rng, 6, 3, 3)
        touch(label, obj)
    log("tv.init() after free")
    try:
        tv.init()
    except Exception:
        pass
    call("problem after free", lambda: populated().solve())


GROUPS = {"module": run_module, "types": run_types, "modelling": run_modelling,
          "operators": run_operators, "problem": run_problem, "controls": run_controls,
          "lifecycle": run_lifecycle}


def main():
    rng = random.Random("%s-%d" % (GROUP, SEED))
    run = GROUPS[GROUP]
    if CHECK_LEAKS:
        # the same seeded calls repeated: steady memory use after the first rounds
        run(random.Random("%s-%d" % (GROUP, SEED)))
        gc.collect()
        base = sys.getallocatedblocks()
        for _ in range(2):
            run(random.Random("%s-%d" % (GROUP, SEED)))
        gc.collect()
        growth = sys.getallocatedblocks() - base
        print("LEAK-BLOCKS %d" % growth)
    else:
        run(rng)
    gc.collect()
    log("done")
    if STATS:
        for key, n in sorted(STATS.items(), key=lambda kv: -kv[1])[:80]:
            sys.stderr.write("%6d %s\n" % (n, key))
    for text, what in faults:
        print("FAULT %s -> %s" % (text, what))
    sys.stdout.flush()
    os._exit(3 if faults else 0)


if __name__ == "__main__":
    main()
