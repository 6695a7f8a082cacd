"""The problem store's incremental paths through the optimisation library's C interface:
numbered names, deleting the last rows, results after a structural change, single solution
entries and the entity count. Run by a C++ driver compiled against the engine."""
import os
import subprocess
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "engine"))
from build import ROOT, case_names, compile_driver  # noqa: E402

SOURCES = [os.path.join(ROOT, "tests", "engine", "optimizer_store.cpp")]


@pytest.fixture(scope="module")
def driver():
    pytest.importorskip("highsbox")
    exe = compile_driver(SOURCES, ["engine/optimizer", "engine/search"], "store")
    if exe is None:
        pytest.skip("no C++ compiler")
    return exe


@pytest.mark.parametrize("case", case_names(SOURCES))
def test_store(driver, case, tmp_path):
    res = subprocess.run([driver, case, str(tmp_path)], capture_output=True, text=True, timeout=300)
    assert res.returncode == 0, res.stdout + res.stderr
