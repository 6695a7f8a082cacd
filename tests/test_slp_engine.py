"""Checks of the nonlinear library's C interface, run by a C++ driver compiled against the
engine sources (the library's symbols are not exported from the extension module)."""
import concurrent.futures
import glob
import hashlib
import os
import shutil
import subprocess
import tempfile

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DRIVER_SOURCES = sorted(glob.glob(os.path.join(ROOT, "tests", "engine", "slp_*.cpp")))
ENGINE_SOURCES = sorted(
    glob.glob(os.path.join(ROOT, "src", "engine", "optimizer", "*.cpp"))
    + glob.glob(os.path.join(ROOT, "src", "engine", "slp", "*.cpp"))
    + glob.glob(os.path.join(ROOT, "src", "engine", "search", "*.cpp"))
)


def _compiler():
    for cxx in (os.environ.get("CXX"), "c++", "g++", "clang++"):
        if cxx and shutil.which(cxx):
            return cxx
    return None


def _digest(paths):
    h = hashlib.sha1()
    for path in paths:
        with open(path, "rb") as f:
            h.update(path.encode() + f.read())
    return h.hexdigest()[:16]


@pytest.fixture(scope="session")
def driver():
    highsbox = pytest.importorskip("highsbox")
    cxx = _compiler()
    if cxx is None or not ENGINE_SOURCES or not DRIVER_SOURCES:
        pytest.skip("no C++ compiler or engine sources in this checkout")
    # The engine and its drivers include only the engine's and the library interface's
    # headers: changes elsewhere in the module need no recompilation.
    headers = sorted(glob.glob(os.path.join(ROOT, "src", "engine", "**", "*.h"), recursive=True)
                     + glob.glob(os.path.join(ROOT, "src", "library_interface", "*.h"))
                     + glob.glob(os.path.join(ROOT, "tests", "engine", "*.h")))
    inc = highsbox.highs_include_dir()
    lib = highsbox.highs_lib_dir()
    outdir = os.path.join(tempfile.gettempdir(), "tarvo-slp-driver")
    os.makedirs(outdir, exist_ok=True)
    flags = ["-std=c++17", "-O1", "-w", "-pthread", "-I", os.path.join(ROOT, "src"),
             "-I", os.path.join(ROOT, "tests"), "-I", inc, "-I", os.path.dirname(inc)]
    sources = DRIVER_SOURCES + [os.path.join(ROOT, "tests", "engine", "main.cpp")] + ENGINE_SOURCES

    # One object per source, named by the source's and the headers' content: only what
    # changed is compiled again.
    hdr = _digest(headers)

    def compile_one(src):
        obj = os.path.join(outdir, os.path.basename(src) + "." + _digest([src]) + hdr + ".o")
        if not os.path.exists(obj):
            subprocess.run([cxx, *flags, "-c", src, "-o", obj + ".tmp"], check=True)
            os.replace(obj + ".tmp", obj)
        return obj

    with concurrent.futures.ThreadPoolExecutor(max_workers=os.cpu_count() or 2) as pool:
        objects = list(pool.map(compile_one, sources))
    exe = os.path.join(outdir, "slp_check_" + _digest(objects))
    if not os.path.exists(exe):
        subprocess.run([cxx, "-pthread", *objects, "-o", exe + ".tmp", "-L", lib, "-lhighs",
                        "-Wl,-rpath," + lib], check=True)
        os.replace(exe + ".tmp", exe)
    return exe


def _cases():
    names = []
    for path in DRIVER_SOURCES:
        with open(path) as f:
            for line in f:
                if line.startswith("CASE("):
                    names.append(line[5:line.index(")")])
    return names


@pytest.mark.parametrize("case", _cases())
def test_engine(driver, case):
    res = subprocess.run([driver, case], capture_output=True, text=True, timeout=600)
    assert res.returncode == 0, res.stdout + res.stderr
