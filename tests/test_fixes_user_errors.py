"""A user function that raises during a nonlinear solve: the user's exception comes out of the
solve unchanged, and the problem stays usable for a later solve."""

import pytest

import tarvo as tv


class Boom(Exception):
    pass


def _problem(fn):
    x = tv.var(lb=-2, ub=2, name="x")
    p = tv.problem(x, tv.user(fn, x) + (x - 1) ** 2)
    return p, x


def test_user_function_raising_at_the_initial_point_surfaces_and_problem_resolves():
    state = {"broken": True}

    def f(a):
        if state["broken"]:
            raise Boom("bad at start")
        return a * a

    p, x = _problem(f)
    with pytest.raises(Boom, match="bad at start"):
        p.solve()
    # The same problem, with the function fixed, solves: min 2x^2 - 2x + 1 at x = 0.5.
    state["broken"] = False
    p.solve()
    assert p.getProbStatusString() == "nlp_solution"
    assert p.getSolution(x) == pytest.approx(0.5, abs=1e-4)
    assert p.getObjVal() == pytest.approx(0.5, abs=1e-6)


def test_user_function_raising_mid_run_surfaces_first_exception_and_stops_calling():
    calls = []

    def f(a):
        calls.append(a)
        if len(calls) > 3:
            raise Boom(f"call {len(calls)}")
        return a * a

    p, x = _problem(f)
    with pytest.raises(Boom, match=r"^call 4$"):
        p.solve()
    # Once the function raised, Python is not called again by the stopping solve.
    assert len(calls) == 4
    # The exception was collected by that solve: an unrelated solve afterwards is unaffected.
    q, y = _problem(lambda a: a * a)
    q.solve()
    assert q.getSolution(y) == pytest.approx(0.5, abs=1e-4)


def test_second_solve_after_mid_run_failure_is_clean():
    state = {"n": 0, "limit": 3}

    def f(a):
        state["n"] += 1
        if state["limit"] and state["n"] > state["limit"]:
            raise KeyError("late")
        return a * a

    p, x = _problem(f)
    with pytest.raises(KeyError):
        p.solve()
    state["limit"] = 0
    p.solve()
    assert p.getProbStatusString() == "nlp_solution"
    assert p.getSolution(x) == pytest.approx(0.5, abs=1e-4)
