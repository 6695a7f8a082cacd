"""Problem callbacks: registration rules, the callbacks the optimiser serves from HiGHS, the
nonlinear solver's callbacks, failures inside callbacks, and the global message handlers."""
import gc
import sys
import weakref

import numpy as np
import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


def knapsack(n=40, seed=3):
    rng = np.random.default_rng(seed)
    w = rng.integers(50, 400, n)
    v = w + rng.integers(-20, 20, n)
    x = [tv.var(vartype=tv.binary) for _ in range(n)]
    p = tv.problem(x, tv.Sum(int(w[i]) * x[i] for i in range(n)) <= int(w.sum()) // 2 + 0.5,
                   tv.Sum(int(v[i]) * x[i] for i in range(n)), sense=tv.maximize)
    return p, x, v


def covering_lp(n=60, m=40, seed=0):
    rng = np.random.default_rng(seed)
    a = rng.random((m, n))
    x = [tv.var(lb=0) for _ in range(n)]
    return tv.problem(x, [tv.Sum(float(a[i, j]) * x[j] for j in range(n)) >= 1 for i in range(m)], tv.Sum(x))


def rosenbrock():
    x = tv.var(lb=-5, ub=5)
    y = tv.var(lb=-5, ub=5)
    p = tv.problem(x, y)
    p.setObjective((1 - x) ** 2 + 100 * (y - x ** 2) ** 2)
    return p


class Marker:
    pass


# ---------------------------------------------------------------- registry

def test_remove_without_arguments_removes_every_callback_of_the_kind():
    p, _, _ = knapsack(8)
    calls = []
    f = lambda prob, data: calls.append(data)
    p.addcbintsol(f, 1)
    p.addcbintsol(f, 2)
    p.removecbintsol()
    p.solve()
    assert calls == []
    assert p.removecbintsol() is None  # empty slot: nothing to do


def test_remove_errors_and_identity_matching():
    p, _, _ = knapsack(8)
    f = lambda prob, data: None
    with pytest.raises(tv.InterfaceError, match="Cannot remove callback from an empty set"):
        p.removecbintsol(f)
    d1, d2 = Marker(), Marker()
    seen = []
    g = lambda prob, data: seen.append(data)
    p.addcbintsol(g, d1)
    p.addcbintsol(g, d2)
    p.removecbintsol(g, d1)
    p.solve()
    assert seen and all(d is d2 for d in seen)
    with pytest.raises(tv.InterfaceError, match="Callback not found"):
        p.removecbintsol(f)
    with pytest.raises(tv.InterfaceError, match="Callback not found"):
        p.removecbintsol(g, d1)


def test_bad_arguments():
    p, _, _ = knapsack(4)
    with pytest.raises(tv.InterfaceError, match="Cannot add callback"):
        p.addcbintsol(42)
    with pytest.raises(tv.InterfaceError, match="Cannot add callback"):
        p.setcbiterend(None)
    with pytest.raises(tv.InterfaceError, match="Cannot add callback"):
        p.addcbintsol(lambda *a: None, None, "high")
    with pytest.raises(tv.InterfaceError, match="Cannot remove callback"):
        p.removecbintsol("not callable")
    with pytest.raises(tv.InterfaceError, match="copycallbacks\\(\\) must be called with the source problem as argument"):
        p.copycallbacks(3)


def test_priority_order_and_copies():
    p, _, _ = knapsack(10)
    order = []
    p.addcbintsol(lambda prob, data: order.append("low"), None, -5)
    p.addcbintsol(lambda prob, data: order.append("high"), None, 7)
    p.addcbintsol(lambda prob, data: order.append("mid"))
    p.solve()
    assert order[:3] == ["high", "mid", "low"]

    copied = knapsack(10)[0]
    copied.copycallbacks(p)
    for q in (p.copy(), copied):
        order.clear()
        q.solve()
        assert order[:3] == ["high", "mid", "low"]
        # The copy's registrations are its own: removing them leaves the source's.
        q.removecbintsol()
        order.clear()
        q.solve()
        assert order == []
    order.clear()
    p.solve()
    assert order[:3] == ["high", "mid", "low"]
    # Copying a problem's callbacks onto itself changes nothing (and ends).
    calls = len(order)
    p.copycallbacks(p)
    order.clear()
    p.solve()
    assert order[:3] == ["high", "mid", "low"] and len(order) == calls


def test_records_do_not_keep_the_problem_and_are_released_with_it():
    p, _, _ = knapsack(4)
    before = sys.getrefcount(p)
    data = Marker()

    class Callback:
        def __call__(self, prob, data):
            return 0

    f = Callback()
    p.addcbchecktime(f, data)
    p.setcbiterend(f, data)
    assert sys.getrefcount(p) == before
    wf, wd = weakref.ref(f), weakref.ref(data)
    del f, data
    assert wf() is not None and wd() is not None
    del p
    gc.collect()
    assert wf() is None and wd() is None


def test_setting_a_nonlinear_callback_releases_the_one_it_replaces():
    # The nonlinear library holds one callback per kind: the replaced one must not stay alive.
    p = tv.problem()
    data = Marker()

    class Callback:
        def __call__(self, prob, data):
            return 0

    first = Callback()
    p.setcbslpstart(first, data)
    wf = weakref.ref(first)
    del first
    p.setcbslpstart(Callback())
    gc.collect()
    assert wf() is None


def test_temporary_problem_stands_for_the_problem_and_can_be_kept(run_python):
    out = run_python("""
        import tarvo as tv
        tv.setOutputEnabled(False)
        x = [tv.var(vartype=tv.integer, ub=5) for _ in range(3)]
        p = tv.problem(x, x[0] + 2 * x[1] + 3 * x[2] <= 7.5, x[0] + x[1] + x[2], sense=tv.maximize)
        kept = []
        def cb(prob, data):
            assert prob is not p
            assert prob.getIndex(x[2]) == 2
            kept.append(prob)
        p.addcbintsol(cb)
        p.solve()
        q = kept[-1]
        for query in (q.getSolution, lambda: q.attributes.cols, lambda: q.getVariable()):
            try:
                print("value", query())
            except tv.SolverError:
                print("clean")
        print(p.getObjVal())
    """)
    lines = out.split("\n")
    assert lines[-2] == "6.0"
    assert all(l == "clean" or l.startswith("value") for l in lines[:-2])


# ---------------------------------------------------------------- optimiser callbacks

def test_intsol_sees_every_improving_solution():
    p, x, v = knapsack()
    seen = []

    def intsol(prob, data):
        sol = prob.getSolution(x)
        data.append((float(np.dot(v, sol)), prob.attributes.mipobjval, sol))

    p.addcbintsol(intsol, seen)
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"
    assert len(seen) >= 2
    objs = [s[0] for s in seen]
    assert objs == sorted(objs) and len(set(objs)) == len(objs)  # improving (maximising)
    for value, attr, _ in seen:
        assert value == pytest.approx(attr)  # the solution queried is the incumbent
    assert seen[-1][2] == pytest.approx(p.getSolution(x))
    assert seen[-1][0] == pytest.approx(p.getObjVal())


def test_raising_callback_stops_a_mip_and_surfaces_unchanged(capfd):
    p, _, _ = knapsack()
    calls = []

    class Stop(Exception):
        pass

    def bad(prob, data):
        calls.append(1)
        raise Stop("from checktime")

    other = []
    p.addcbchecktime(bad)
    p.addcbintsol(lambda prob, data: other.append(1))
    with pytest.raises(Stop, match="from checktime"):
        p.solve()
    assert calls == [1] and other == []  # no callback entered after the raise
    assert "Problem in callback, stopping optimization" in capfd.readouterr().err
    assert p.attributes.stopstatus == 9
    p.removecbchecktime()
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"


def test_message_callback_failure_text(capfd):
    p = covering_lp()

    def bad(prob, data, msg, mtype):
        raise ValueError("msg")

    p.addcbmessage(bad)
    with pytest.raises(ValueError, match="msg"):
        p.solve()
    assert "Problem in message() callback, stopping optimization" in capfd.readouterr().err


@pytest.mark.parametrize("kind", ["lp", "mip"])
@pytest.mark.parametrize("result", [1, True, np.int64(2), np.int32(1), "yes", 2.5])
def test_checktime_non_zero_stops(kind, result):
    p = covering_lp() if kind == "lp" else knapsack(60)[0]
    p.addcbchecktime(lambda prob, data: result)
    p.solve()
    assert p.attributes.stopstatus == 9
    assert p.getProbStatusString() in ("lp_unfinished", "mip_no_sol_found", "mip_solution")


def test_checktime_zero_or_none_continues():
    for result in (0, None, False, np.int64(0)):
        p, _, _ = knapsack(20)
        calls = []
        p.addcbchecktime(lambda prob, data: calls.append(1) or result)
        p.solve()
        assert calls and p.getProbStatusString() == "mip_optimal"


def test_lplog_fires_and_can_stop():
    p = covering_lp()
    calls = []
    p.addcblplog(lambda prob, data: calls.append(1))
    p.solve("d")
    assert calls and p.getProbStatusString() == "lp_optimal"
    q = covering_lp()
    q.addcblplog(lambda prob, data: 1)
    q.solve("d")
    assert q.getProbStatusString() == "lp_unfinished" and q.attributes.stopstatus == 9


def test_barrier_callbacks_once_per_iteration():
    p = covering_lp()
    its, logs = [], []
    p.addcbbariteration(lambda prob, data: its.append(1))
    p.addcbbarlog(lambda prob, data: logs.append(1))
    p.solve("b")
    assert p.getProbStatusString() == "lp_optimal"
    assert len(its) == len(logs) == p.attributes.bariter > 0
    q = covering_lp()
    q.addcbbariteration(lambda prob, data: 1)
    q.solve("b")
    assert q.getProbStatusString() == "lp_unfinished" and q.attributes.bariter <= 2


def test_gapnotify_targets_end_the_search():
    p, _, _ = knapsack(60)
    p.controls.presolve = 0
    calls = []

    def gap(prob, data):
        calls.append(1)
        return (0.05, None, None, None)

    p.addcbgapnotify(gap)
    p.solve()
    assert calls
    assert p.attributes.stopstatus == 5
    assert p.getProbStatusString() == "mip_solution"
    obj, bound = p.attributes.mipobjval, p.attributes.bestbound
    assert 0 < (bound - obj) / abs(obj) <= 0.05


def test_gapnotify_objective_target():
    p, _, _ = knapsack(60)
    p.addcbgapnotify(lambda prob, data: (None, None, 1.0, None))  # any solution reaches it
    p.solve()
    assert p.attributes.stopstatus == 5 and p.getProbStatusString() == "mip_solution"


def test_gapnotify_wrong_shape_stops(capfd):
    p, _, _ = knapsack(60)
    p.addcbgapnotify(lambda prob, data: [0.1, None, None, None])
    p.solve()
    assert p.attributes.stopstatus == 9
    assert ("Problem in GapNotify callback: must return tuple of four elements, each being a number or None."
            in capfd.readouterr().err)


def test_message_callbacks_get_the_log_with_console_output_off(capfd):
    p, _, _ = knapsack(30)
    lines = []
    p.addcbmessage(lambda prob, data, msg, mtype: lines.append((msg, mtype)))
    p.solve()
    assert any("HiGHS" in m for m, _ in lines)
    assert {t for _, t in lines} <= {1, 3, 4}
    assert capfd.readouterr().out == ""
    lines.clear()
    p.controls.outputlog = 0
    p.solve()
    assert [m for m, t in lines if t == 1] == []


def test_globallog_and_cutlog_with_output_off():
    p, _, _ = knapsack(60)
    p.controls.outputlog = 0
    g, c = [], []
    p.addcbgloballog(lambda prob, data: g.append(prob.attributes.cols))
    p.addcbcutlog(lambda prob, data: c.append(1))
    p.solve()
    assert g and c and set(g) == {60}
    q, _, _ = knapsack(60)
    q.addcbgloballog(lambda prob, data: 1)
    q.solve()
    assert q.attributes.stopstatus == 9


def test_usersolnotify_reports_the_verdict():
    p, x, _ = knapsack(10)
    if not hasattr(p, "addmipsol"):
        pytest.skip("addmipsol is not available")
    got = []
    p.addcbusersolnotify(lambda prob, data, name, status: got.append((name, status)))
    p.addmipsol([0] * 10, x, "zeros")
    p.addmipsol([1] * 10, x, "all")
    p.solve()
    assert sorted(got) == [("all", 1), ("zeros", 0)]


NODE_KINDS = ["prenode", "optnode", "infnode", "nodecutoff", "newnode", "chgbranchobject", "preintsol",
              "mipthread", "destroymt"]


@pytest.mark.parametrize("kind", NODE_KINDS)
def test_node_level_kinds_are_refused_when_the_tree_search_is_forbidden(kind):
    p, _, _ = knapsack(8)
    f = lambda *args: None
    getattr(p, "addcb" + kind)(f)
    p.controls.treesearch = 2
    with pytest.raises(tv.SolverError, match="node callbacks are registered"):
        p.solve()
    getattr(p, "removecb" + kind)(f)
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"


# ---------------------------------------------------------------- nonlinear callbacks

def test_iterend_fires_once_per_iteration_and_can_stop():
    p = rosenbrock()
    seen, order = [], []
    p.setcbslpstart(lambda prob, data: order.append("start"))
    p.setcbiterend(lambda prob, data: seen.append(1))
    p.setcbslpend(lambda prob, data: order.append("end"))
    p.nlpoptimize()
    assert order == ["start", "end"]
    n = p.attributes.tslp_iter
    assert n > 3 and len(seen) == n

    q = rosenbrock()
    count = []
    q.setcbiterend(lambda prob, data: count.append(1) or (1 if len(count) == 3 else 0))
    q.nlpoptimize()
    assert len(count) == 3 and q.getProbStatusString() == "nlp_unfinished"


def test_setting_a_nonlinear_callback_replaces_the_previous_one():
    p = rosenbrock()
    a, b = [], []
    p.setcbiterstart(lambda prob, data: a.append(1))
    p.setcbiterstart(lambda prob, data: b.append(1))
    p.nlpoptimize()
    assert a == [] and b


def test_raising_nonlinear_callback_stops_the_run(capfd):
    p = rosenbrock()
    calls = []

    def bad(prob, data, col):
        calls.append(col)
        raise KeyError("itervar")

    p.setcbitervar(bad)
    with pytest.raises(KeyError, match="itervar"):
        p.nlpoptimize()
    assert len(calls) == 1
    assert "Problem in itervar() callback, stopping optimization" in capfd.readouterr().err


def test_checktime_stops_an_slp_run():
    p = rosenbrock()
    p.addcbchecktime(lambda prob, data: 1)
    p.nlpoptimize()
    assert p.getProbStatusString() == "nlp_unfinished"


# ---------------------------------------------------------------- global message handlers

@pytest.fixture
def no_handlers():
    yield
    try:
        tv.removecbmsghandler(None, None)
    except tv.InterfaceError:
        pass


def test_global_handlers_priority_and_first_call(no_handlers):
    log = []

    def handler(name):
        def f(obj, data, thread, msg, mtype, number):
            log.append((name, msg, mtype))
        return f

    tv.addcbmsghandler(handler("low"), None, 1)
    tv.addcbmsghandler(handler("high"), None, 5)
    x = tv.var()
    p = tv.problem(x, x >= 1, x)
    p.solve()
    assert log[0] == ("high", "", -1) and log[1][0] == "high" and log[1][1]
    assert log[2] == ("low", "", -1) and log[3][1] == log[1][1]
    assert [e for e in log[4:] if e[2] < 0] == []  # the empty call comes once per handler


def test_raising_global_handler_surfaces_from_the_solve(no_handlers):
    calls = []

    def bad(*args):
        calls.append(args[3])
        raise RuntimeError("handler failed")

    tv.addcbmsghandler(bad, None, 0)
    x = tv.var()
    p = tv.problem(x, x >= 1, x)
    with pytest.raises(RuntimeError, match="handler failed"):
        p.solve()
    assert len(calls) == 1  # later calls suppressed
    tv.removecbmsghandler(bad, None)
    p.solve()
    assert p.getObjVal() == pytest.approx(1.0)


def test_copied_problem_keeps_the_nonlinear_message_callback():
    p = rosenbrock()
    p.controls.tslp_log = 2
    lines = []
    p.setcbmessage(lambda prob, data, msg, mtype: lines.append(msg))
    q = p.copy()
    q.nlpoptimize()
    assert lines


def disc():
    """min x + y on the disc exp(x^2 + y^2) <= e^2, d: x - y <= 1; optimum (-1, -1)."""
    import math
    x, y = tv.var(lb=-5, ub=5), tv.var(lb=-5, ub=5)
    c = tv.constraint(body=tv.exp(x ** 2 + y ** 2), ub=math.exp(2))
    d = tv.constraint(body=x - y, ub=1)
    return tv.problem(x, y, c, d, x + y), x, y, d


def test_multistart_job_callbacks():
    p, x, y, _ = disc()
    job = Marker()
    events = []
    p.msaddjob("first", [x, y], [1.0, 0.5], {"tslp_iterlimit": 100}, job)
    p.msaddjob("second", [x, y], [-0.5, 1.0], {"tslp_iterlimit": 100}, None)
    p.setcbmsjobstart(lambda prob, data, obj, desc: events.append(("start", obj, desc)))
    p.setcbmsjobend(lambda prob, data, obj, desc: events.append(("end", obj, desc)))
    p.setcbmswinner(lambda prob, data, obj, desc: events.append(("winner", obj, desc)))
    p.setControl("tslp_multistart", 1)
    p.solve()
    assert p.getObjVal() == pytest.approx(-2, abs=1e-5)
    starts = [e for e in events if e[0] == "start"]
    assert [(e[1], e[2]) for e in starts][:2] == [(job, "first"), (None, "second")]
    assert len([e for e in events if e[0] == "end"]) == len(starts)
    winners = [e for e in events if e[0] == "winner"]
    # mswinner names the job whose result was kept, when a job (not the base run) won
    assert len(winners) <= 1 and all((e[1], e[2]) in [(job, "first"), (None, "second")] for e in winners)


def test_msjobstart_non_zero_skips_jobs_and_drcol_sets_values():
    p, x, y, d = disc()
    p.msaddjob("skipped", [x, y], [1.0, 0.5], {"tslp_iterlimit": 100}, None)
    ends = []
    p.setcbmsjobstart(lambda prob, data, obj, desc: 1)
    p.setcbmsjobend(lambda prob, data, obj, desc: ends.append(desc))
    p.setControl("tslp_multistart", 1)
    p.solve()
    assert "skipped" not in ends

    import math
    x, y = tv.var(lb=-5, ub=5), tv.var(lb=-5, ub=5)
    e = tv.constraint(body=y - x, lb=0, ub=0)  # y is determined by x
    q = tv.problem(x, y, tv.constraint(body=tv.exp(x ** 2 + y ** 2), ub=math.exp(2)), e, x + y)
    q.chgvar(y, detrow=e)
    q.setControl("tslp_cascade", 1)
    seen = []

    def drcol(prob, data, col, value, lb, ub):
        seen.append((col, lb, ub))
        return value

    q.setcbdrcol(drcol)
    q.solve()
    assert q.getObjVal() == pytest.approx(-2, abs=1e-4)
    assert seen  # cascading ran: the determined column is y
    assert {c for c, _, _ in seen} == {q.getIndex(y)} and seen[0][1:] == (-5.0, 5.0)


def test_callbacks_cannot_resolve_or_reshape_the_problem_being_solved():
    p, x, _ = knapsack(20)
    p.addcbintsol(lambda prob, data: prob.solve())
    with pytest.raises(tv.SolverError, match="cannot be solved again from one of its callbacks"):
        p.solve()
    p.removecbintsol()
    p.addcbintsol(lambda prob, data: prob.addVariable(tv.var()))
    with pytest.raises(tv.SolverError, match="The problem was changed during its solve"):
        p.solve()
    p.removecbintsol()
    p.solve()
    assert p.getProbStatusString() == "mip_optimal"


def test_raising_checktime_stops_an_slp_run():
    p = rosenbrock()
    calls = []

    def bad(prob, data):
        calls.append(1)
        raise OverflowError("checktime in slp")

    p.addcbchecktime(bad)
    with pytest.raises(OverflowError, match="checktime in slp"):
        p.nlpoptimize()
    assert calls == [1] and p.getProbStatusString() == "nlp_unfinished"


def test_callbacks_stay_registered_across_reset():
    p, _, _ = knapsack(10)
    calls = []
    p.addcbintsol(lambda prob, data: calls.append(1))
    p.reset()
    x = [tv.var(vartype=tv.integer, ub=5) for _ in range(3)]
    p.addVariable(x)
    p.addConstraint(x[0] + 2 * x[1] + 3 * x[2] <= 7.5)
    p.setObjective(x[0] + x[1] + x[2], sense=tv.maximize)
    p.solve()
    assert calls and p.getObjVal() == pytest.approx(6.0)
    p.removecbintsol()
    calls.clear()
    p.solve()
    assert calls == []
