import subprocess
import sys
import tempfile
import textwrap

import pytest


def _run_python(code, timeout=None):
    """Runs code in a new interpreter and returns its standard output.

    The interpreter starts outside the source tree so that `import tarvo` finds the
    installed package (or the one on PYTHONPATH), never the bare source directory. With a
    timeout (seconds), a run that hangs fails the test instead of stalling the suite.
    """
    out = subprocess.run([sys.executable, "-c", textwrap.dedent(code)], capture_output=True,
                         text=True, cwd=tempfile.gettempdir(), timeout=timeout)
    assert out.returncode == 0, out.stderr
    return out.stdout


@pytest.fixture
def run_python():
    return _run_python
