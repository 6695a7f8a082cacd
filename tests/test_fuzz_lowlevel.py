"""Seeded fuzzing below the surface the argument battery reaches: low-level methods called with
valid argument lists that have one or two arguments spoilt (tests/fuzz_lowlevel.py), and NumPy
loops over modelling objects that fail part-way through an array. Every run is a child
interpreter: a crash fails the run and names the call being made."""
import os
import subprocess
import sys
import tempfile

import pytest
from test_fuzz_arguments import last_line  # the last call a child logged

HERE = os.path.dirname(os.path.abspath(__file__))


@pytest.mark.parametrize("seed", [1, 2, 3])
def test_spoilt_lowlevel_arguments_raise_and_leave_the_problem_unchanged(seed):
    with tempfile.TemporaryDirectory() as work:
        log = os.path.join(work, "calls.log")
        try:
            out = subprocess.run([sys.executable, os.path.join(HERE, "fuzz_lowlevel.py"), log, str(seed), "400"],
                                 cwd=work, capture_output=True, text=True, timeout=600)
        except subprocess.TimeoutExpired:
            pytest.fail("seed %d hung; last call: %s" % (seed, last_line(log)))
        faults = [line for line in out.stdout.splitlines() if line.startswith("FAULT")]
        assert not faults, "\n".join(faults[:20])
        assert out.returncode == 0, "died with status %d; last call: %s\n%s" % (
            out.returncode, last_line(log), out.stderr[-3000:])
        assert last_line(log) == "done"


NUMPY_LOOPS = """
    import gc, math, random, sys, warnings
    import numpy as np
    import tarvo as tv
    warnings.simplefilter("ignore")
    tv.setOutputEnabled(False)

    class Boom(Exception):
        pass

    class Hostile:
        def __add__(self, o): raise Boom()
        __radd__ = __sub__ = __rsub__ = __mul__ = __rmul__ = __truediv__ = __rtruediv__ = __add__
        def __le__(self, o): raise Boom()
        __ge__ = __eq__ = __le__
        __hash__ = object.__hash__

    x = tv.vars(6, name="x")
    y = tv.vars(6, name="y")
    BAD = [None, "s", Hostile(), math.nan, object(), [1, 2], tv.sos([x[0]], [1.0]), 2 ** 70]
    OPS = [lambda a, b: a + b, lambda a, b: b - a, lambda a, b: a * b, lambda a, b: a / b,
           lambda a, b: a <= b, lambda a, b: b == a, lambda a, b: a >= 2.0, lambda a, b: 1.5 * a - b,
           lambda a, b: a ** 2, lambda a, b: -a, lambda a, b: abs(a), lambda a, b: a @ b,
           lambda a, b: np.add(a, b, where=np.arange(a.size).reshape(a.shape) % 2 == 0),
           lambda a, b: tv.Sum(a), lambda a, b: tv.Dot(a, b), lambda a, b: tv.exp(a) + tv.sin(b),
           lambda a, b: tv.constraint(body=tv.Sum(a * b), ub=1),
           lambda a, b: tv.problem(a, b, a <= 1, tv.Sum(a)).attributes.rows]

    def operand(rng):
        kind = rng.randrange(4)
        if kind == 0:
            a = x.copy()
        elif kind == 1:
            a = x + 2.0 * y
        elif kind == 2:
            a = np.array(list(x), dtype=object)
        else:
            a = np.arange(6.0)
        if kind != 3 and rng.random() < 0.8:
            a = a.astype(object) if rng.random() < 0.5 else a
            for _ in range(rng.randint(1, 2)):
                a[rng.randrange(6)] = rng.choice(BAD)
        if rng.random() < 0.3:
            a = a.reshape(2, 3)
        return a

    def round_(seed, n):
        rng = random.Random(seed)
        results = 0
        for _ in range(n):
            a, b = operand(rng), operand(rng)
            if a.shape != b.shape and rng.random() < 0.5:
                b = b.reshape(a.shape)
            try:
                r = rng.choice(OPS)(a, b)
                str(r)
                results += 1
            except Exception:
                pass
        return results

    # every loop either finishes or raises; the objects it made on the way are released
    assert round_(7, 400) > 0
    gc.collect()
    refs = [sys.getrefcount(v) for v in list(x) + list(y)]
    blocks = sys.getallocatedblocks()
    for r in range(3):
        round_(7, 400)
    gc.collect()
    grown = sys.getallocatedblocks() - blocks
    after = [sys.getrefcount(v) for v in list(x) + list(y)]
    assert after == refs, (refs, after)
    assert grown < 400, grown
    print("ok")
"""


def test_numpy_loops_failing_part_way_release_what_they_made(run_python):
    assert run_python(NUMPY_LOOPS, timeout=600).strip().endswith("ok")
