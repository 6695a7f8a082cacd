"""A few Hock-Schittkowski problems from benchmarks/nonlinear.py solved to their published optima,
guarding the nonlinear solver (and the modelling path into it) against regressions."""
import pathlib
import sys

import pytest

import tarvo

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "benchmarks"))
import nonlinear  # noqa: E402

# The tests judge tarvo only; the benchmark's Ipopt comparison stays out of the test process.
nonlinear.WITH_IPOPT = False


pytestmark = pytest.mark.usefixtures("quiet")


def test_statements_meet_their_published_optima():
    # Every statement, evaluated with floats at its published optimal point, is feasible and has
    # the published objective value: a mistyped coefficient or bound shows up here.
    for name in nonlinear.PROBLEMS:
        objective, violation, error = nonlinear.check_statement(name)
        assert violation <= nonlinear.CHECK_FEAS_TOL, (name, violation)
        assert error <= nonlinear.CHECK_RTOL, (name, objective)


# Quick problems covering: a sine objective under bounds only (HS5), exponentials in rows with a
# linear objective (HS34), a quartic product objective with polynomial equalities (HS40), a cubic
# objective with an inequality and an equality (HS71), and quadratic rows that the LP/QP optimiser
# refuses, so that they go to the nonlinear optimiser (HS83).
@pytest.mark.parametrize("name", ["HS5", "HS34", "HS40", "HS71", "HS83"])
def test_reaches_published_optimum(name):
    r = nonlinear.run_problem(name, maxtime=60)
    assert r["status"] in ("nlp_solution", "nlp_globally_optimal"), (r["status"], r["note"])
    assert r["error"] <= 1e-5, (r["objective"], r["optimum"])
    assert r["violation"] <= 1e-6
    # The objective the solver reports is the one at the point it returns.
    assert r["reported"] == pytest.approx(r["objective"], rel=1e-7, abs=1e-9)
    assert r["iterations"] > 0
