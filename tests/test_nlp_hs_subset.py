"""A few Hock-Schittkowski problems from benchmarks/nonlinear.py solved to their published optima,
guarding the nonlinear solver (and the modelling path into it) against regressions."""
import pathlib
import sys

import pytest

import tarvo

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "benchmarks"))
import nonlinear  # noqa: E402


@pytest.fixture(autouse=True)
def quiet():
    before = tarvo.getOutputEnabled()
    tarvo.setOutputEnabled(False)
    yield
    tarvo.setOutputEnabled(before)


def test_statements_meet_their_published_optima():
    # Every statement, evaluated with floats at its published optimal point, is feasible and has
    # the published objective value: a mistyped coefficient or bound shows up here.
    for name in nonlinear.PROBLEMS:
        objective, violation, error = nonlinear.check_statement(name)
        assert violation <= nonlinear.CHECK_FEAS_TOL, (name, violation)
        assert error <= nonlinear.CHECK_RTOL, (name, objective)
