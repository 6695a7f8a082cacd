"""The README's code and the examples run as users would run them."""
import os
import re
import subprocess
import sys

import pytest

from conftest import outside_dir

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# what each example must print; the quick-start has its own test with the solving tests
EXPECTED = {
    "facility_location.py": ["mip_optimal"],
    "nonlinear.py": ["hs071: nlp_solution 17.014017"],  # published optimum 17.0140173
}


def _readme_blocks():
    with open(os.path.join(ROOT, "README.md")) as f:
        return re.findall(r"```python\n(.*?)```", f.read(), re.S)


# Runs the README's blocks in order in one namespace, statement by statement, and compares what
# each statement whose comment ends in "-> shown" gives (an expression's value, the value of the
# name assigned, or what it printed) with the text shown, "..." standing for any text.
README_HARNESS = r"""
import ast, contextlib, io, json, re, sys
import tarvo as tv
tv.setOutputEnabled(False)

def matches(shown, got):
    pattern = ".*?".join(re.escape(part) for part in shown.split("..."))
    return re.fullmatch(pattern, got, re.S) is not None

SHOWN = re.compile(r"#(?:.*\s)?-> (.*)$")
blocks = json.loads(sys.stdin.read())
ns, checked, wrong = {}, 0, []
for b, block in enumerate(blocks):
    lines = block.splitlines()
    for stmt in ast.parse(block).body:
        line = lines[stmt.end_lineno - 1]
        out = io.StringIO()
        with contextlib.redirect_stdout(out):
            if isinstance(stmt, ast.Expr):
                value = eval(compile(ast.Expression(stmt.value), "README", "eval"), ns)
            else:
                exec(compile(ast.Module([stmt], []), "README", "exec"), ns)
                value = None
                if isinstance(stmt, ast.Assign) and isinstance(stmt.targets[0], ast.Name):
                    value = ns[stmt.targets[0].id]
        shown = SHOWN.search(line)
        if not shown:
            continue
        shown = shown.group(1).strip()
        printed = out.getvalue().strip()
        candidates = [printed] if printed else [repr(value), str(value)]
        checked += 1
        if not any(matches(shown, c) for c in candidates):
            wrong.append("block %d: %s\n  shows %s\n  gives %s" % (b + 1, line.strip(), shown, candidates[0]))
print(json.dumps({"checked": checked, "wrong": wrong}))
"""


def test_readme_blocks_run_and_give_what_they_show():
    import json

    blocks = _readme_blocks()
    assert len(blocks) >= 5
    out = subprocess.run([sys.executable, "-c", README_HARNESS], input=json.dumps(blocks), capture_output=True,
                         text=True, cwd=outside_dir(), timeout=600)
    assert out.returncode == 0, out.stderr
    result = json.loads(out.stdout.strip().splitlines()[-1])
    assert not result["wrong"], "\n".join(result["wrong"])
    # every block shows results, so none of them is only decoration, and all of them were compared
    shown = [len(re.findall(r"#(?:.*\s)?-> .*$", block, re.M)) for block in blocks]
    assert all(shown) and result["checked"] == sum(shown), (shown, result["checked"])


def test_mypy_accepts_the_examples_and_the_readme(tmp_path, monkeypatch):
    api = pytest.importorskip("mypy.api")
    # each README block is checked as a user would paste it, after `import tarvo as tv`
    readme = []
    for i, block in enumerate(_readme_blocks()):
        readme.append(tmp_path / ("readme_block%d.py" % (i + 1)))
        readme[-1].write_text("import tarvo as tv\n" + block)
    examples = sorted(os.path.join(ROOT, "examples", f) for f in os.listdir(os.path.join(ROOT, "examples"))
                      if f.endswith(".py"))
    monkeypatch.setenv("MYPYPATH", ROOT)  # the package's own stubs, not an installed copy
    stdout, stderr, status = api.run(["--no-incremental", "--cache-dir", os.devnull, "--no-error-summary",
                                      "--show-error-codes"] + [str(f) for f in readme] + examples)
    assert status == 0, stdout + stderr


def test_every_example_is_checked():
    found = {f for f in os.listdir(os.path.join(ROOT, "examples")) if f.endswith(".py")}
    assert found - {"quickstart.py"} == set(EXPECTED)


@pytest.mark.parametrize("name", sorted(EXPECTED))
def test_example_runs(name):
    # run as a script from outside the source tree, the way a user runs a copied example
    out = subprocess.run([sys.executable, os.path.join(ROOT, "examples", name)],
                         capture_output=True, text=True, cwd=outside_dir(), timeout=600)
    assert out.returncode == 0, out.stderr
    assert all(w in out.stdout for w in EXPECTED[name]), out.stdout
    if name == "nonlinear.py":
        # sqrt(t^2 + 1e-4) + 0.1 (t + 2)^2 with t = y - 3 is stationary where
        # t / sqrt(t^2 + 1e-4) = -0.2 (t + 2), i.e. t = -0.4 sqrt(1e-4 / 0.84) to first order
        y = float(re.search(r"y = ([-0-9.]+)", out.stdout).group(1))
        assert y == pytest.approx(3 - 0.4 * (1e-4 / 0.84) ** 0.5, abs=2e-4)
