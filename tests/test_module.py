import glob
import os
import subprocess

import pytest

import tarvo


def test_constants_have_their_values_and_types():
    assert tarvo.infinity == 1e20 and type(tarvo.infinity) is float
    assert type(tarvo.continuous) is int and tarvo.continuous == 0
    assert tarvo.nlp_solution == tarvo.nlp_locally_optimal == 1
    assert tarvo.maximize == -1 and tarvo.minimize == 1
    assert tarvo.stop_user == 9 and tarvo.msset_initialfiltered == 6
    assert (tarvo.lp_nonconvex, tarvo.mip_unbounded, tarvo.gencons_abs) == (8, 7, 4)
    assert (tarvo.rowinfo_penaltycolumnminusdj, tarvo.colinfo_sbdual) == (13, 8)


def test_registered_names():
    assert hasattr(tarvo, "sos") and not hasattr(tarvo, "SOS")
    for name in ("var", "constraint", "problem", "branchobj", "poolcut"):
        assert isinstance(getattr(tarvo, name), type)
    for exc in (tarvo.ModelError, tarvo.InterfaceError, tarvo.SolverError):
        assert exc.__bases__ == (Exception,)
    assert tarvo.controls is not None


def test_extension_exports_only_its_init_function():
    so = glob.glob(os.path.join(os.path.dirname(tarvo.__file__), "tarvolib*.so"))
    assert so
    out = subprocess.run(["nm", "-D", "--defined-only", so[0]], capture_output=True, text=True, check=True)
    symbols = [line.split()[-1] for line in out.stdout.splitlines() if line.strip()]
    assert symbols == ["PyInit_tarvolib"]
