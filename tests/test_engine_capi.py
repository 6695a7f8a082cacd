"""The optimisation library's C operations that the Python layer does not reach (yet): bases,
rays, ftran/btran, ranging, infeasibility counts, IIS, repair, starts, solution and basis
files, store edits. Run by a C++ driver compiled against the engine."""
import os
import subprocess
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "engine"))
from build import ROOT, case_names, compile_driver  # noqa: E402

SOURCES = [os.path.join(ROOT, "tests", "engine", "optimizer_capi.cpp")]


@pytest.fixture(scope="module")
def driver():
    pytest.importorskip("highsbox")
    exe = compile_driver(SOURCES, ["engine/optimizer", "engine/search"], "optimizer")
    if exe is None:
        pytest.skip("no C++ compiler")
    return exe


@pytest.mark.parametrize("case", case_names(SOURCES))
def test_capi(driver, case, tmp_path):
    res = subprocess.run([driver, case, str(tmp_path)], capture_output=True, text=True, timeout=300)
    assert res.returncode == 0, res.stdout + res.stderr
