"""Compiles a C++ check driver against the engine sources (the engines' C symbols are not
exported from the extension module, so their C interfaces are checked by drivers)."""
import glob
import hashlib
import os
import shutil
import subprocess
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def compiler():
    for cxx in (os.environ.get("CXX"), "c++", "g++", "clang++"):
        if cxx and shutil.which(cxx):
            return cxx
    return None


def compile_driver(driver_sources, engine_dirs, tag):
    """Builds (once per content) a driver from its sources and every .cpp of engine_dirs
    (paths under src/). Returns the executable's path, or None without a compiler."""
    import highsbox

    cxx = compiler()
    if cxx is None:
        return None
    engine = sorted(p for d in engine_dirs for p in glob.glob(os.path.join(ROOT, "src", d, "*.cpp")))
    sources = list(driver_sources) + engine
    digest = hashlib.sha1()
    headers = glob.glob(os.path.join(ROOT, "src", "**", "*.h"), recursive=True)
    headers += glob.glob(os.path.join(ROOT, "tests", "engine", "*.h"))
    for path in sources + sorted(headers):
        with open(path, "rb") as f:
            digest.update(path.encode() + f.read())
    outdir = os.path.join(tempfile.gettempdir(), "tarvo-" + tag + "-driver")
    os.makedirs(outdir, exist_ok=True)
    exe = os.path.join(outdir, tag + "_" + digest.hexdigest()[:16])
    if not os.path.exists(exe):
        inc = highsbox.highs_include_dir()
        lib = highsbox.highs_lib_dir()
        cmd = [cxx, "-std=c++17", "-O1", "-w", "-pthread", "-I", os.path.join(ROOT, "src"),
               "-I", os.path.join(ROOT, "tests"), "-I", inc, "-I", os.path.dirname(inc),
               *sources, "-o", exe + ".tmp", "-L", lib, "-lhighs", "-Wl,-rpath," + lib]
        subprocess.run(cmd, check=True)
        os.replace(exe + ".tmp", exe)
    return exe


def case_names(paths):
    """Names of the CASE(...) blocks of the driver sources."""
    names = []
    for path in paths:
        with open(path) as f:
            names += [line[5:line.index(")")] for line in f if line.startswith("CASE(")]
    return names
