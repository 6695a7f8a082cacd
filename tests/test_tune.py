"""The tuner: candidate settings tried within maxtime, the best kept as the problem's controls,
and its method files."""
import os
import random
import time

import pytest

import tarvo as tv


@pytest.fixture(autouse=True)
def quiet(tmp_path, monkeypatch):
    tv.setOutputEnabled(False)
    monkeypatch.chdir(tmp_path)
    yield
    tv.setOutputEnabled(True)


TUNABLE = ["presolve", "defaultalg", "crossover", "scaling", "heureffort", "symmetry", "miprestart", "randomseed"]


def knapsack(seed, n=30, m=4):
    rnd = random.Random(seed)
    xs = [tv.var(vartype=tv.binary, name=f"x{i}") for i in range(n)]
    rows = [tv.constraint(sum(rnd.randint(1, 30) * x for x in xs) <= 7 * n, name=f"cap{k}") for k in range(m)]
    obj = sum(rnd.randint(5, 60) * x for x in xs)
    return tv.problem(xs, rows, obj, sense=tv.maximize, name=f"knap{seed}")


def transport_lp(seed, n=12):
    rnd = random.Random(seed)
    x = {(i, j): tv.var(name=f"x{i}_{j}") for i in range(n) for j in range(n)}
    supply = [tv.constraint(sum(x[i, j] for j in range(n)) <= rnd.randint(20, 40)) for i in range(n)]
    demand = [tv.constraint(sum(x[i, j] for i in range(n)) >= rnd.randint(5, 20)) for j in range(n)]
    cost = sum(rnd.randint(1, 20) * v for v in x.values())
    return tv.problem(list(x.values()), supply, demand, cost, name="transport")


def tuner_log(p, action):
    p.controls.outputlog = 1
    p.setlogfile("tune.log")
    try:
        action()
    finally:
        p.setlogfile("")
        p.controls.outputlog = 0
    lines = open("tune.log").read().splitlines() if os.path.exists("tune.log") else []
    if os.path.exists("tune.log"):
        os.remove("tune.log")
    return [line for line in lines if line.startswith("Tuner: ")]


def best_time(p, runs=3):
    times = []
    for _ in range(runs):
        q = p.copy()
        q.controls.outputlog = 0
        t = time.perf_counter()
        q.solve()
        times.append(time.perf_counter() - t)
        objective = q.getObjVal()
    return min(times), objective


def kept_settings(lines):
    """The control=value pairs the tuner's last line reports as kept ({} for the problem's own)."""
    last = lines[-1]
    if "own settings are the best" in last:
        return {}
    assert "best settings " in last and "kept as the problem's controls" in last
    text = last.split("best settings ", 1)[1].split(" (", 1)[0]
    return {k: float(v) for k, v in (item.split("=") for item in text.split())}


@pytest.mark.parametrize("make", [lambda: knapsack(7), lambda: transport_lp(3)], ids=["mip", "lp"])
def test_tune_keeps_settings_never_slower_than_the_defaults(make):
    p = make()
    p.controls.outputlog = 0
    default_time, default_obj = best_time(p)
    before = p.getControl(TUNABLE)
    p.controls.maxtime = 60
    lines = tuner_log(p, p.tune)
    assert lines[0].startswith("Tuner: tuning the ")
    kept = kept_settings(lines)
    after = p.getControl(TUNABLE)
    # Exactly the reported settings changed, and they are now the problem's controls.
    assert {k for k in TUNABLE if after[k] != before[k]} == {k for k, v in kept.items() if before[k] != v}
    for k, v in kept.items():
        assert after[k] == pytest.approx(v)
    assert p.controls.maxtime == 60
    # Tuning does not solve the problem itself.
    assert p.getProbStatusString() in ("mip_not_loaded", "lp_unstarted")
    tuned_time, tuned_obj = best_time(p)
    assert tuned_obj == pytest.approx(default_obj, rel=1e-4)
    # Timings on a shared machine are noisy: a generous margin (figures: benchmarks/tune.py).
    assert tuned_time <= 3 * default_time + 0.5


def test_tune_stays_within_maxtime():
    p = knapsack(11, n=40)
    p.controls.maxtime = 0.01
    lines = tuner_log(p, p.tune)
    assert any("stopped before trying every candidate" in line for line in lines)
    assert p.controls.maxtime == 0.01


def test_method_file_round_trip_and_custom_method():
    p = knapsack(5)
    p.tunerwritemethod("builtin.txt")
    text = open("builtin.txt").read()
    lines = text.splitlines()
    assert lines[0] == "TARVO TUNER METHOD 1"
    assert "lp defaultalg=4" in lines and "mip heureffort=0.2" in lines and "any presolve=0" in lines
    q = tv.problem()
    q.tunerreadmethod("builtin.txt")
    q.tunerwritemethod("again.txt")
    assert open("again.txt").read() == text

    with open("mine.txt", "w") as f:
        f.write("TARVO TUNER METHOD 1\n# only one candidate\n\nmip symmetry=0 HEUREFFORT=0.3\nlp scaling=0\n")
    p.tunerreadmethod("mine.txt")
    log = tuner_log(p, p.tune)
    tried = [line for line in log[1:-1] if "=" in line.split(":", 2)[1]]
    assert len(tried) == 1 and tried[0].startswith("Tuner: symmetry=0 heureffort=0.3: ")
    assert "with 1 candidate settings" in log[0]


BAD_METHODS = [
    ("mip presolve=0\n", "not a tuner method file"),
    ("TARVO TUNER METHOD 1\nmip nosuchcontrol=1\n", "line 2: unknown control 'nosuchcontrol'"),
    ("TARVO TUNER METHOD 1\nlp feastol=1e-3\n", "line 2: control 'feastol' is not one the tuner varies"),
    ("TARVO TUNER METHOD 1\nlp defaultalg=7\n", "line 2: DEFAULTALG must be"),
    ("TARVO TUNER METHOD 1\nlp presolve=0.5\n", "line 2: '0.5' is not a valid value"),
    ("TARVO TUNER METHOD 1\nqp presolve=0\n", "line 2: unknown kind 'qp'"),
    ("TARVO TUNER METHOD 1\nlp presolve\n", "line 2: 'presolve' is not control=value"),
    ("TARVO TUNER METHOD 1\nlp\n", "line 2: a candidate needs"),
    ("TARVO TUNER METHOD 1\n# nothing\n", "lists no candidate settings"),
]


@pytest.mark.parametrize("content,message", BAD_METHODS)
def test_bad_method_files_keep_the_previous_method(content, message):
    p = tv.problem()
    with open("good.txt", "w") as f:
        f.write("TARVO TUNER METHOD 1\nany presolve=0\n")
    p.tunerreadmethod("good.txt")
    with open("bad.txt", "w") as f:
        f.write(content)
    with pytest.raises(tv.SolverError, match=message):
        p.tunerreadmethod("bad.txt")
    p.tunerwritemethod("now.txt")
    assert open("now.txt").read().splitlines()[-1] == "any presolve=0"


def test_tune_bad_input():
    p = knapsack(2, n=8)
    with pytest.raises(tv.SolverError, match="Unknown tune flag 'q'"):
        p.tune("q")
    with pytest.raises(tv.SolverError, match="Could not open"):
        p.tunerreadmethod("missing.txt")
    with pytest.raises(tv.SolverError, match="Could not open"):
        p.tunerwritemethod("/nonexistent_dir/m.txt")
    with pytest.raises(tv.ModelError):
        p.tunerreadmethod(3)
    with pytest.raises(TypeError):
        p.tunerwritemethod()
    x = tv.var(lb=-1, ub=2)
    nl = tv.problem(x, tv.exp(x) - x)
    with pytest.raises(tv.SolverError, match="nonlinear"):
        nl.tune()


def test_tune_message_numbers_can_be_suppressed():
    p = knapsack(4, n=10)
    p.setmessagestatus(201, 0)
    lines = tuner_log(p, p.tune)
    assert len(lines) == 1 and ("best settings" in lines[0] or "own settings are the best" in lines[0])
