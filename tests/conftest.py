import subprocess
import sys
import tempfile
import textwrap

import pytest


def outside_dir():
    """An empty directory of this test run, outside the source tree, for child interpreters
    to start in: the current directory comes first on a child's module path, so a shared
    directory such as /tmp (where any stray re.py or numpy.py would shadow the real one)
    is no place to start them."""
    global _OUTSIDE
    if _OUTSIDE is None:
        _OUTSIDE = tempfile.mkdtemp(prefix="tarvo-tests-")
    return _OUTSIDE


_OUTSIDE = None


def _run_python(code, timeout=None):
    """Runs code in a new interpreter and returns its standard output.

    The interpreter starts outside the source tree so that `import tarvo` finds the
    installed package (or the one on PYTHONPATH), never the bare source directory. With a
    timeout (seconds), a run that hangs fails the test instead of stalling the suite.
    """
    out = subprocess.run([sys.executable, "-c", textwrap.dedent(code)], capture_output=True,
                         text=True, cwd=outside_dir(), timeout=timeout)
    assert out.returncode == 0, out.stderr
    return out.stdout


@pytest.fixture
def run_python():
    return _run_python


@pytest.fixture
def quiet():
    """Turns tarvo's printed output off for a test (files use it through `pytestmark`) and
    restores the previous setting afterwards."""
    import tarvo

    before = tarvo.getOutputEnabled()
    tarvo.setOutputEnabled(False)
    yield
    tarvo.setOutputEnabled(before)
