"""The tree search's node hooks (the attachment points of the node-level callbacks), checked by a
C++ driver compiled against the engine: solution rejection and cutoffs, the order and counts of
the node events, infeasible declarations, replaced branching decisions, the solution limit."""
import os
import subprocess
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "engine"))
from build import ROOT, case_names, compile_driver  # noqa: E402

SOURCES = [os.path.join(ROOT, "tests", "engine", "search_hooks.cpp"),
           os.path.join(ROOT, "tests", "engine", "main.cpp")]


@pytest.fixture(scope="module")
def driver():
    pytest.importorskip("highsbox")
    exe = compile_driver(SOURCES, ["engine/optimizer", "engine/search"], "search")
    if exe is None:
        pytest.skip("no C++ compiler")
    return exe


@pytest.mark.parametrize("case", case_names(SOURCES[:1]))
def test_search_hooks(driver, case):
    res = subprocess.run([driver, case], capture_output=True, text=True, timeout=300)
    assert res.returncode == 0, res.stdout + res.stderr
