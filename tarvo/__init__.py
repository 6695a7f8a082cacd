"""tarvo: build, solve and query optimisation models from Python.

Linear, mixed-integer, quadratic, quadratically constrained and general nonlinear models are
written with ordinary operators over :class:`tarvo.var` objects, gathered in a
:class:`tarvo.problem`, solved, and read back as floats, lists, dicts or NumPy arrays.
"""

# libhighs.so is found through the extension's RPATH (the highsbox package next to tarvo, or
# the build tree for in-place builds). It is never preloaded into the global symbol scope:
# that would put this HiGHS in front of every extension imported later, and another
# HiGHS-based package (highspy ships its own) would then bind to the wrong library.
import numpy as _numpy  # noqa: E402,F401  (the extension imports NumPy's C API at load)

try:
    from .tarvolib import *  # noqa: E402,F401,F403
except ModuleNotFoundError as _exc:
    if _exc.name != __name__ + ".tarvolib":
        raise
    import os as _os

    raise ImportError(
        "tarvo's compiled extension is missing from %s (the source tree?): install tarvo with "
        "'pip install .' and import it from another directory, or build it in place with "
        "scripts/dev-build" % _os.path.dirname(__file__)) from None
from . import tarvolib as _tarvolib  # noqa: E402

__all__ = [name for name in dir(_tarvolib) if not name.startswith("_")]
