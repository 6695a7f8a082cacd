"""Every public callable, property and operator of tarvo, called with hostile arguments, must
either succeed or raise an ordinary exception: never crash, hang, raise SystemError or leak.

The calls are made by tests/fuzz_battery.py in fresh interpreters, one batch per group, so that
a crash fails only its batch and the failure names the call that was being made."""
import os
import subprocess
import sys
import tempfile

import pytest

import tarvo as tv

HERE = os.path.dirname(os.path.abspath(__file__))
GROUPS = ["types", "module", "modelling", "operators", "problem", "controls", "lifecycle"]


def run_batch(group, *extra, timeout=240):
    """Runs one batch; returns its standard output, or fails naming the last call made."""
    with tempfile.TemporaryDirectory() as work:
        log = os.path.join(work, "calls.log")
        env = dict(os.environ)
        env.pop("FUZZ_SKIP", None)
        try:
            out = subprocess.run([sys.executable, os.path.join(HERE, "fuzz_battery.py"), log, group, "1",
                                  *extra], cwd=work, env=env, capture_output=True, text=True, timeout=timeout)
        except subprocess.TimeoutExpired:
            pytest.fail("batch %s hung; last call: %s" % (group, last_line(log)))
        if out.returncode == 3:
            faults = [line for line in out.stdout.splitlines() if line.startswith("FAULT")]
            pytest.fail("batch %s: %d faulty calls:\n%s" % (group, len(faults), "\n".join(faults[:40])))
        if out.returncode != 0:
            pytest.fail("batch %s died with status %d; last call: %s\n%s"
                        % (group, out.returncode, last_line(log), out.stderr[-3000:]))
        assert last_line(log) == "done"
        return out.stdout


def last_line(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            lines = f.read().splitlines()
    except OSError:
        return "<no call logged>"
    return lines[-1] if lines else "<no call logged>"


@pytest.mark.parametrize("group", GROUPS)
def test_hostile_arguments_never_crash(group):
    run_batch(group)


@pytest.mark.parametrize("group", ["module", "operators", "problem"])
def test_repeated_hostile_calls_do_not_accumulate_memory(group):
    if sys.getallocatedblocks() == 0:
        # PYTHONMALLOC=malloc (as under scripts/sanitize) counts no blocks: nothing to measure
        pytest.skip("the interpreter's allocator does not count blocks")
    # the same few thousand failing and succeeding calls, four rounds; a path that leaks one
    # object per call shows up as thousands of blocks, caches settle after the first round
    out = run_batch(group, "--leaks")
    growth = int(out.split("LEAK-BLOCKS")[1].split()[0])
    assert growth < 1000, "allocated blocks grew by %d over two rounds" % growth


def uninitialised(t):
    return t.__new__(t)


def test_controls_objects_made_without_a_problem_refuse_use():
    for obj in (uninitialised(type(tv.controls)), uninitialised(type(tv.problem().attributes))):
        for use in (dir, str, repr, lambda o: o.maxtime, lambda o: o.__dict__, lambda o: o.rows):
            with pytest.raises(tv.InterfaceError, match="no longer exists"):
                use(obj)
        with pytest.raises((tv.InterfaceError, tv.ModelError)):
            obj.maxtime = 5
    # a stray object must not have written into the module defaults
    assert tv.controls.maxtime == tv.problem().controls.maxtime
