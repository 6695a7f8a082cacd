"""tarvo: build, solve and query optimisation models from Python.

Linear, mixed-integer, quadratic, quadratically constrained and general nonlinear models are
written with ordinary operators over :class:`tarvo.var` objects, gathered in a
:class:`tarvo.problem`, solved, and read back as floats, lists, dicts or NumPy arrays.
"""


def _load_highs():
    # The extension finds libhighs.so through its RPATH when installed next to highsbox;
    # preloading it covers in-place builds used during development.
    import ctypes
    import os

    try:
        import highsbox
    except ImportError:
        return
    path = os.path.join(highsbox.highs_lib_dir(), "libhighs.so")
    if os.path.exists(path):
        ctypes.CDLL(path, mode=ctypes.RTLD_GLOBAL)


_load_highs()
del _load_highs

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
