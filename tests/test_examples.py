"""The README's code and the examples run as users would run them."""
import os
import re
import subprocess
import sys
import tempfile

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# what each example must print; the quick-start has its own test with the solving tests
EXPECTED = {
    "facility_location.py": ["mip_optimal"],
    "nonlinear.py": ["hs071: nlp_solution 17.014017"],  # published optimum 17.0140173
}


def test_readme_snippets_run_and_give_what_they_show(run_python):
    with open(os.path.join(ROOT, "README.md")) as f:
        blocks = re.findall(r"```python\n(.*?)```", f.read(), re.S)
    assert len(blocks) >= 3
    code = "import tarvo as tv\ntv.setOutputEnabled(False)\n" + "\n".join(blocks) + \
        "\nprint(list(p.getSolution(v)) if 'v' in dir() else '', p.getObjVal())\n"
    out = run_python(code).split()
    # the last snippet solves HS071, whose published optimum is 17.0140173
    assert float(out[-1]) == pytest.approx(17.0140173, abs=1e-5)


def test_every_example_is_checked():
    found = {f for f in os.listdir(os.path.join(ROOT, "examples")) if f.endswith(".py")}
    assert found - {"quickstart.py"} == set(EXPECTED)


@pytest.mark.parametrize("name", sorted(EXPECTED))
def test_example_runs(name):
    # run as a script from outside the source tree, the way a user runs a copied example
    out = subprocess.run([sys.executable, os.path.join(ROOT, "examples", name)],
                         capture_output=True, text=True, cwd=tempfile.gettempdir(), timeout=600)
    assert out.returncode == 0, out.stderr
    assert all(w in out.stdout for w in EXPECTED[name]), out.stdout
    if name == "nonlinear.py":
        # sqrt(t^2 + 1e-4) + 0.1 (t + 2)^2 with t = y - 3 is stationary where
        # t / sqrt(t^2 + 1e-4) = -0.2 (t + 2), i.e. t = -0.4 sqrt(1e-4 / 0.84) to first order
        y = float(re.search(r"y = ([-0-9.]+)", out.stdout).group(1))
        assert y == pytest.approx(3 - 0.4 * (1e-4 / 0.84) ** 0.5, abs=2e-4)
