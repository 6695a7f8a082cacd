"""Convergence tolerances (controls and tolerance sets), presolve and the multistart thread
control of the nonlinear solver take effect."""
import pytest

import tarvo as tv


pytestmark = pytest.mark.usefixtures("quiet")


def flat_valley():
    """min (x - 1)^4 + (y - 2)^4 + (x - y + 1)^2 from (4, -3): a degenerate minimum at (1, 2),
    approached slowly, so that looser convergence tests visibly stop the run earlier. The KKT
    tolerance is opened wide so that the step tests alone decide."""
    x, y = tv.var(lb=-10, ub=10, name="x"), tv.var(lb=-10, ub=10, name="y")
    p = tv.problem([x, y], (x - 1) ** 4 + (y - 2) ** 4 + (x - y + 1) ** 2)
    p.chgvar(colindex=x, initvalue=4.0)
    p.chgvar(colindex=y, initvalue=-3.0)
    p.setControl("tslp_kkttol", 1e3)
    return p, x, y


def iterations(p):
    p.nlpoptimize()
    assert p.getProbStatusString() == "nlp_solution"
    return p.getAttrib("tslp_iter")


def baseline():
    return iterations(flat_valley()[0])


# Loosening one test (with the coefficient or impact test switched on by a tiny value where the
# slack test needs one) makes the run stop earlier; the slack test can hold it back again.
LOOSE = {
    "closure": {0: 0.9},
    "delta": {1: 1.0, 2: 1.0},
    "coefficient": {3: 10.0, 4: 10.0},
    "impact": {5: 10.0, 6: 10.0},
}
CONTROL_NAMES = ["tslp_ctol", "tslp_atol_a", "tslp_atol_r", "tslp_mtol_a", "tslp_mtol_r", "tslp_itol_a",
                 "tslp_itol_r", "tslp_stol_a", "tslp_stol_r"]


@pytest.mark.parametrize("kind", sorted(LOOSE))
def test_each_control_loosens_the_step_test(kind):
    p, _, _ = flat_valley()
    for entry, value in LOOSE[kind].items():
        p.setControl(CONTROL_NAMES[entry], value)
    assert iterations(p) < baseline()


@pytest.mark.parametrize("kind", sorted(LOOSE))
def test_each_tolerance_set_entry_loosens_the_step_test(kind):
    p, x, y = flat_valley()
    tols = [0.0] * 9
    for entry, value in LOOSE[kind].items():
        tols[entry] = value
    p.addtolsets(tols)
    for v in (x, y):
        p.chgvar(colindex=v, tolset=1)
    assert iterations(p) < baseline()
    # The set overrides only its own entries: a set whose entries are all zero leaves the
    # controls in force.
    q, x, y = flat_valley()
    q.addtolsets([0.0] * 9)
    for v in (x, y):
        q.chgvar(colindex=v, tolset=1)
    assert iterations(q) == baseline()


def test_slack_tolerance_holds_back_the_coefficient_test():
    loose, _, _ = flat_valley()
    loose.setControl("tslp_mtol_a", 10.0)
    strict, _, _ = flat_valley()
    strict.setControl("tslp_mtol_a", 10.0)
    strict.setControl("tslp_stol_a", 1e-12)
    # Each row must be linearised within the slack tolerance: here the objective's row.
    assert iterations(loose) <= iterations(strict)


def test_columns_record_their_convergence():
    # getvar: (detrow, initstepbound, stepbound, penalty, damp, initvalue, value, tolset,
    # history, converged, ...): with a delta tolerance the last steps meet, both columns end
    # converged, and have been for at least one accepted step.
    p, x, y = flat_valley()
    p.setControl("tslp_kkttol", 1e-5)
    p.setControl("tslp_atol_a", 1e-2)
    p.nlpoptimize()
    assert p.getProbStatusString() == "nlp_solution"
    for v in (x, y):
        info = p.getvar(v)
        assert info[9] == 1 and info[8] >= 1
    # With the default tolerances the same run ends by its KKT test, before the steps are that
    # small: the flags say so.
    q, x, y = flat_valley()
    q.setControl("tslp_kkttol", 1e-5)
    q.nlpoptimize()
    assert [q.getvar(v)[9] for v in (x, y)] == [0, 0]


def test_kkt_tolerance_decides_the_status():
    # With a KKT tolerance no run can meet the status is "unfinished" (never "optimal").
    p, _, _ = flat_valley()
    p.setControl("tslp_kkttol", 1e-14)
    p.setControl("tslp_iterlimit", 60)
    p.nlpoptimize()
    assert p.getProbStatusString() == "nlp_unfinished"
    assert p.getAttrib("tslp_kktresidual") > 1e-14


def presolvable():
    """z is fixed at 2; y * z = 4 is linear once z is fixed and then determines y = 2; the row
    x + y <= 5 bounds x by 3; min (x - 10)^2 + exp(y) puts x at that bound."""
    x, y = tv.var(lb=-1e20, name="x"), tv.var(lb=-1e20, name="y")
    z = tv.var(lb=2, ub=2, name="z")
    p = tv.problem([x, y, z], y * z == 4, x + y <= 5, (x - 10) ** 2 + tv.exp(y) + tv.exp(z))
    return p, x, y, z


@pytest.mark.parametrize("presolve", [0, 1])
def test_presolve_keeps_the_solution(presolve):
    p, x, y, z = presolvable()
    p.setControl("tslp_presolve", presolve)
    p.nlpoptimize()
    assert p.getProbStatusString() == "nlp_solution"
    sol = p.getSolution([x, y, z])
    assert sol == pytest.approx([3.0, 2.0, 2.0], abs=1e-6)
    slack, dual = [], []
    p.getslpsol(slack=slack, dual=dual)
    assert slack[1] == pytest.approx(0.0, abs=1e-6)
    assert dual[1] == pytest.approx(-14.0, rel=1e-4)   # d/dx (x - 10)^2 at 3, on the row x + y <= 5


def test_presolve_reports_what_it_finds(capfd):
    p, *_ = presolvable()
    tv.setOutputEnabled(True)
    p.presolve()
    out = capfd.readouterr().out
    # The product row becomes linear and fixes y, which drops it; x + y <= 5 bounds x. (The
    # objective's exponentials, in a row of their own, are fixed the same way.)
    line = [l for l in out.splitlines() if l.startswith("Presolve:")][0]
    counts = [int(w) for w in line.replace(",", " ").split() if w.isdigit()]
    assert len(counts) == 4 and all(c >= 1 for c in counts), line
    assert p.getAttrib("tslp_status") & (1 << 29)


def test_multistart_threads_are_refused_beyond_one():
    p, *_ = presolvable()
    p.setControl("tslp_msthreads", 1)
    with pytest.raises(Exception, match="TSLP_MSTHREADS accepts only 0 or 1"):
        p.setControl("tslp_msthreads", 2)
    assert p.getControl("tslp_msthreads") == 1
