"""The nonlinear solver's time profile (log level 2 and above) and the step problems' thread
setting: the profile accounts for a solve without changing it, starts afresh at every solve,
is kept only for single runs, and the step problems reach the same answers whatever thread
count the optimiser is given."""
import re
import time

import pytest

import tarvo as tv

PHASES = ["read", "compile", "start", "highs setup", "evaluation", "step update", "step solve", "kkt",
          "results", "teardown", "log", "iteration logic"]
PROFILE = re.compile(r"Time profile \(CPU ms\): (.*); step problems (\d+)$")


pytestmark = pytest.mark.usefixtures("quiet")


def hs71():
    """Hock-Schittkowski 71 from (1, 5, 5, 1): optimum 17.0140173 at (1, 4.743, 3.82115, 1.37941)."""
    x = [tv.var(lb=1, ub=5, name="x%d" % i) for i in range(4)]
    p = tv.problem(x, x[0] * x[1] * x[2] * x[3] >= 25, x[0] ** 2 + x[1] ** 2 + x[2] ** 2 + x[3] ** 2 == 40,
                   x[0] * x[3] * (x[0] + x[1] + x[2]) + x[2])
    for v, s in zip(x, (1, 5, 5, 1)):
        p.chgvar(colindex=v, initvalue=s)
    return p, x


def solve_logged(p, level):
    lines = []
    p.setcbmessage(lambda prob, data, msg, kind: lines.append(msg))
    p.setControl("tslp_log", level)
    p.nlpoptimize()
    return lines


def profiles(lines):
    found = []
    for line in lines:
        m = PROFILE.match(line)
        if m:
            phases = dict((k, float(v)) for k, v in re.findall(r"([a-z][a-z ]*?) ([0-9.]+)(?:,|$)", m.group(1)))
            found.append((phases, int(m.group(2))))
    return found


def result(p, x):
    values = []
    p.getslpsol(x=values)
    return (p.getAttrib("tslp_nlpstatus"), p.getAttrib("tslp_iter"), p.getAttrib("tslp_objval"),
            [values[p.getIndex(v)] for v in x])


def test_profile_accounts_for_the_solve_without_changing_it():
    p, x = hs71()
    plain = solve_logged(p, 1)
    assert profiles(plain) == []          # the default log level keeps no profile
    reference = result(p, x)
    assert reference[0] == 1 and reference[2] == pytest.approx(17.0140173, rel=1e-7)
    assert reference[3] == pytest.approx([1.0, 4.743, 3.82115, 1.37941], abs=1e-4)

    q, y = hs71()
    c0 = time.process_time()
    lines = solve_logged(q, 2)
    cpu_ms = 1e3 * (time.process_time() - c0)
    (phases, steps), = profiles(lines)
    assert sorted(phases) == sorted(PHASES)
    assert all(v >= 0 for v in phases.values())
    # Every iteration solves at least one step problem, each timed as a step solve.
    assert steps >= reference[1] and phases["step solve"] > 0 and phases["evaluation"] > 0
    # Only the solving thread's CPU time is counted, so the phases cannot add up to more than
    # the process used (plus rounding of the printed figures).
    assert sum(phases.values()) <= cpu_ms + 0.05
    # The profiled solve takes the same path to the same answer.
    assert result(q, y) == reference


def test_profile_starts_afresh_and_stops_with_the_solve():
    p, x = hs71()
    first = profiles(solve_logged(p, 2))
    second = profiles(solve_logged(p, 2))
    assert len(first) == len(second) == 1
    # Same solve twice: the same number of step problems, not an accumulated count.
    assert first[0][1] == second[0][1]
    # The profile ends with its solve: a later solve at the default level keeps none.
    assert profiles(solve_logged(p, 1)) == []


def test_multistart_runs_keep_no_profile():
    p, x = hs71()
    p.msaddjob("other start", x, [2.0, 2.0, 2.0, 2.0], None, None)
    p.setControl("tslp_multistart", 1)
    lines = solve_logged(p, 2)
    assert profiles(lines) == []
    assert p.getAttrib("tslp_objval") == pytest.approx(17.0140173, rel=1e-7)


@pytest.mark.parametrize("threads", [0, 1, 2])
def test_step_problems_reach_the_same_answer_with_any_thread_count(threads):
    reference_problem, rx = hs71()
    reference_problem.nlpoptimize()
    reference = result(reference_problem, rx)
    p, x = hs71()
    p.setControl("threads", threads)
    p.nlpoptimize()
    assert result(p, x) == reference


def small_linear_steps():
    """A nonlinear problem whose step problems stay linear (no curvature model): min x + y over
    x * y >= 4 in [1, 10]^2, from (5, 1); optimum 4 at (2, 2)."""
    x, y = tv.var(lb=1, ub=10, name="x"), tv.var(lb=1, ub=10, name="y")
    p = tv.problem([x, y], x * y >= 4, x + y)
    p.chgvar(colindex=x, initvalue=5.0)
    p.chgvar(colindex=y, initvalue=1.0)
    p.setControl("tslp_quasinewton", 0)
    return p, [x, y]


def test_step_problem_instances_carry_nothing_from_one_solve_to_the_next():
    # HiGHS instances of finished solves are cleared and reused: a solve must reach exactly the
    # answer it reaches without the earlier solves (a Hessian, bounds or options left behind
    # would change its path or break it).
    p, x = small_linear_steps()
    p.nlpoptimize()
    before = result(p, x)
    assert before[0] == 1 and before[2] == pytest.approx(4.0, abs=1e-7)
    for _ in range(3):
        q, y = hs71()
        q.nlpoptimize()
        assert result(q, y)[2] == pytest.approx(17.0140173, rel=1e-7)
        p, x = small_linear_steps()
        p.nlpoptimize()
        assert result(p, x) == before
