"""The shipped type stubs (tarvo/__init__.pyi) describe the module that is really there."""
import ast
import os

import pytest

import tarvo

STUB = os.path.join(os.path.dirname(tarvo.__file__), "__init__.pyi")


def _decorator_names(node):
    return {d.id if isinstance(d, ast.Name) else getattr(d, "attr", None) for d in node.decorator_list}


def _stub():
    """Module-level public names and, per class, the members it declares (own and inherited)."""
    with open(STUB) as f:
        tree = ast.parse(f.read())
    names, classes, stub_only = {}, {}, set()
    for node in tree.body:
        if isinstance(node, ast.ClassDef):
            members = set()
            for base in node.bases:
                if isinstance(base, ast.Name) and base.id in classes:
                    members |= classes[base.id]
            for item in node.body:
                if isinstance(item, (ast.FunctionDef, ast.AsyncFunctionDef)):
                    members.add(item.name)
                elif isinstance(item, ast.AnnAssign) and isinstance(item.target, ast.Name):
                    members.add(item.target.id)
            classes[node.name] = members
            if "type_check_only" in _decorator_names(node):
                stub_only.add(node.name)
            names[node.name] = node
        elif isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef)):
            names[node.name] = node
        elif isinstance(node, ast.AnnAssign) and isinstance(node.target, ast.Name):
            names[node.target.id] = node
    public = {n: v for n, v in names.items() if not n.startswith("_") and n not in stub_only}
    return public, classes, stub_only


def _public(obj):
    return {n for n in dir(obj) if not n.startswith("_")}


def test_stubs_ship_with_the_package_and_declare_every_module_name():
    assert os.path.exists(os.path.join(os.path.dirname(STUB), "py.typed"))
    public, _, _ = _stub()
    runtime = _public(tarvo.tarvolib)
    missing = sorted(runtime - set(public))
    extra = sorted(set(public) - runtime)
    assert not missing, "add these names to tarvo/__init__.pyi: %s" % missing
    assert not extra, "tarvo/__init__.pyi declares names the module lacks: %s" % extra
    # constants are declared with the type they have
    for name, node in public.items():
        value = getattr(tarvo, name)
        if isinstance(node, ast.AnnAssign) and isinstance(value, (int, float)):
            assert ast.unparse(node.annotation) == type(value).__name__, name


def _runtime_types():
    x, y = tarvo.var(), tarvo.var()
    p = tarvo.problem()
    return {
        "var": tarvo.var,
        "linterm": type(2 * x),
        "quadterm": type(x * y),
        "expression": type(x + y),
        "nonlinear": type(tarvo.sin(x)),
        "constraint": tarvo.constraint,
        "sos": tarvo.sos,
        "problem": tarvo.problem,
        "branchobj": tarvo.branchobj,
        "poolcut": tarvo.poolcut,
        "control": type(p.controls),
        "attribute": type(p.attributes),
    }


def test_stub_classes_cover_the_runtime_members():
    _, classes, stub_only = _stub()
    types = _runtime_types()
    # the types users reach only through operations are stub-only classes
    assert {"linterm", "quadterm", "expression", "nonlinear", "control", "attribute"} <= stub_only
    for name, cls in types.items():
        assert name in classes, name
        if name in ("control", "attribute"):
            continue  # their members are the catalogue's names, typed through __getattr__
        missing = sorted(_public(cls) - classes[name])
        assert not missing, "add to class %s in tarvo/__init__.pyi: %s" % (name, missing)
    # the modelling types are complete: the stubs promise nothing they lack
    for name in ("var", "linterm", "quadterm", "expression", "nonlinear", "constraint", "sos"):
        declared = {m for m in classes[name] if not m.startswith("_")}
        assert declared <= _public(types[name]) | {"lb", "ub", "threshold", "vartype", "name"}, name
        dunders = {m for m in classes[name] if m.startswith("__") and m not in ("__init__", "__hash__")}
        lacking = sorted(m for m in dunders if not hasattr(types[name], m))
        assert not lacking, (name, lacking)


def test_stubs_type_user_code(tmp_path):
    api = pytest.importorskip("mypy.api")
    program = tmp_path / "model.py"
    program.write_text(
        "import tarvo as tv\n"
        "x = tv.var(lb=-1, ub=2, name='x')\n"
        "y = tv.var(vartype=tv.integer)\n"
        "c = x + 2 * y <= 4\n"
        "reveal_type(c)\n"
        "reveal_type(tv.sin(1.0))\n"
        "p = tv.problem(x, y, c, name='demo')\n"
        "p.setObjective(3 + 2 * x - y + x * y, sense=tv.maximize)\n"
        "v: float = tv.evaluate(x + y, solution={x: 1.0, y: 2.0})\n"
        "x.bogus\n"
    )
    stdout, _, status = api.run(
        ["--no-incremental", "--cache-dir", os.devnull, "--follow-imports=silent", str(program)]
    )
    lines = stdout.splitlines()
    assert any("Revealed type is \"tarvo.constraint\"" in l for l in lines), stdout
    assert any(("Revealed type is \"float\"" in l) or ("Revealed type is \"builtins.float\"" in l)
               for l in lines), stdout
    errors = [l for l in lines if ": error:" in l]
    assert len(errors) == 1 and "bogus" in errors[0], stdout
    assert status == 1
