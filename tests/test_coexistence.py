"""tarvo in one process with other solver packages, whatever the import order.

Each case runs in a fresh interpreter: a clash of native libraries shows as a crash of the
process, not as an exception.
"""
import importlib.util
import itertools
import subprocess
import sys

import pytest
from conftest import outside_dir

SOLVE_TARVO = """
    x = tv.var(ub=4)
    y = tv.var(ub=3)
    p = tv.problem(x, y, x + 2 * y <= 8, -x - y)
    p.controls.outputlog = 0
    p.solve()
    assert abs(p.getObjVal() + 6.0) < 1e-7, p.getObjVal()
"""

SOLVE_OTHERS = {
    "highspy": """
        import highspy
        h = highspy.Highs()
        h.setOptionValue("output_flag", False)
        inf = highspy.kHighsInf
        h.addVars(2, [0.0, 0.0], [4.0, 3.0])
        h.changeColsCost(2, [0, 1], [-1.0, -1.0])
        h.addRow(-inf, 8.0, 2, [0, 1], [1.0, 2.0])
        h.run()
        assert abs(h.getInfo().objective_function_value + 6.0) < 1e-7
    """,
    "pyoptinterface": """
        import pyoptinterface as poi
        from pyoptinterface import highs
        highs.autoload_library()
        m = highs.Model()
        m.set_model_attribute(poi.ModelAttribute.Silent, True)
        a = m.add_variable(lb=0, ub=4)
        b = m.add_variable(lb=0, ub=3)
        m.add_linear_constraint(a + 2 * b, poi.Leq, 8.0)
        m.set_objective(-a - b, poi.ObjectiveSense.Minimize)
        m.optimize()
        assert abs(m.get_model_attribute(poi.ModelAttribute.ObjectiveValue) + 6.0) < 1e-7
    """,
    "pyscipopt": """
        import pyscipopt
        m = pyscipopt.Model()
        m.hideOutput()
        a = m.addVar(lb=0, ub=4)
        b = m.addVar(lb=0, ub=3, vtype="I")
        m.addCons(a + 2 * b <= 8)
        m.setObjective(-a - b)
        m.optimize()
        assert abs(m.getObjVal() + 6.0) < 1e-7
    """,
}

AVAILABLE = [name for name in SOLVE_OTHERS if importlib.util.find_spec(name) is not None]


def _indent(code):
    import textwrap
    return textwrap.indent(textwrap.dedent(code), "    ")


def _program(order):
    """Imports and solves with each package in the given order, then tarvo solves once more."""
    parts = []
    for name in order:
        if name == "tarvo":
            parts.append("import tarvo as tv\nif True:\n%s\n" % _indent(SOLVE_TARVO))
        else:
            parts.append("if True:\n%s\n" % _indent(SOLVE_OTHERS[name]))
    return "".join(parts) + "if True:\n%s\nprint('ok')\n" % _indent(SOLVE_TARVO)


@pytest.mark.skipif(not AVAILABLE, reason="no other solver package installed")
def test_solver_packages_share_the_process_in_every_import_order():
    # Every order of tarvo and the available packages, each in a fresh interpreter (a few at a
    # time: the interpreters spend most of their time loading libraries).
    orders = list(itertools.permutations(["tarvo"] + AVAILABLE))
    failed = []
    pending = list(orders)
    running = []
    while pending or running:
        while pending and len(running) < 4:
            order = pending.pop()
            proc = subprocess.Popen([sys.executable, "-c", _program(order)], stdout=subprocess.PIPE,
                                    stderr=subprocess.PIPE, text=True, cwd=outside_dir())
            running.append((order, proc))
        order, proc = running.pop(0)
        out, err = proc.communicate(timeout=300)
        if proc.returncode != 0 or not out.strip().endswith("ok"):
            failed.append("%s: status %d\n%s" % (" < ".join(order), proc.returncode, err[-1500:]))
    assert not failed, "%d of %d orders failed:\n%s" % (len(failed), len(orders), "\n".join(failed[:4]))


def test_highs_is_not_in_the_global_symbol_scope(run_python):
    # A library preloaded with RTLD_GLOBAL is visible to dlsym on the main program's handle.
    out = run_python("""
        import ctypes
        import tarvo
        main = ctypes.CDLL(None)
        print(hasattr(main, "Highs_create"))
    """)
    assert out.strip() == "False"
