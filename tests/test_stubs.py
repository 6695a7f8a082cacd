"""The shipped type stubs (tarvo/__init__.pyi) describe the module that is really there, and
every public callable has a signature and a docstring that help() and editors can show."""
import ast
import inspect
import os

import pytest

import tarvo

STUB = os.path.join(os.path.dirname(tarvo.__file__), "__init__.pyi")



def _decorator_names(node):
    return {d.id if isinstance(d, ast.Name) else getattr(d, "attr", None) for d in node.decorator_list}


class Stub:
    """Module-level public names, per class the members it declares (own and inherited), and the
    function definitions (all overloads) of every module function and class member."""

    def __init__(self):
        with open(STUB) as f:
            tree = ast.parse(f.read())
        self.names, self.classes, self.stub_only, self.defs = {}, {}, set(), {}
        for node in tree.body:
            if isinstance(node, ast.ClassDef):
                members, defs = set(), {}
                for base in node.bases:
                    if isinstance(base, ast.Name) and base.id in self.classes:
                        members |= self.classes[base.id]
                        defs.update(self.defs[base.id])
                for item in node.body:
                    if isinstance(item, ast.FunctionDef):
                        members.add(item.name)
                        if "property" not in _decorator_names(item):
                            defs.setdefault(item.name, []).append(item)
                    elif isinstance(item, ast.AnnAssign) and isinstance(item.target, ast.Name):
                        members.add(item.target.id)
                self.classes[node.name], self.defs[node.name] = members, defs
                if "type_check_only" in _decorator_names(node):
                    self.stub_only.add(node.name)
                self.names[node.name] = node
            elif isinstance(node, ast.FunctionDef):
                self.names[node.name] = node
                self.defs.setdefault(None, {}).setdefault(node.name, []).append(node)
            elif isinstance(node, ast.AnnAssign) and isinstance(node.target, ast.Name):
                self.names[node.target.id] = node
        self.public = {n: v for n, v in self.names.items() if not n.startswith("_") and n not in self.stub_only}


@pytest.fixture(scope="module")
def stub():
    return Stub()


def _public(obj):
    return {n for n in dir(obj) if not n.startswith("_")}


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


def test_stubs_ship_with_the_package_and_declare_every_module_name(stub):
    assert os.path.exists(os.path.join(os.path.dirname(STUB), "py.typed"))
    runtime = _public(tarvo.tarvolib)
    missing = sorted(runtime - set(stub.public))
    extra = sorted(set(stub.public) - runtime)
    assert not missing, "add these names to tarvo/__init__.pyi: %s" % missing
    assert not extra, "tarvo/__init__.pyi declares names the module lacks: %s" % extra
    # constants are declared with the type they have
    for name, node in stub.public.items():
        value = getattr(tarvo, name)
        if isinstance(node, ast.AnnAssign) and isinstance(value, (int, float)):
            assert ast.unparse(node.annotation) == type(value).__name__, name


def test_stub_classes_and_runtime_types_have_the_same_members(stub):
    types = _runtime_types()
    # the types users reach only through operations are stub-only classes
    assert {"linterm", "quadterm", "expression", "nonlinear", "control", "attribute"} <= stub.stub_only
    assert set(stub.classes) >= set(types)
    for name, cls in types.items():
        if name in ("control", "attribute"):
            continue  # their members are the catalogue's names, typed through __getattr__
        runtime = _public(cls)
        # attributes read through the type's own attribute lookup, not listed by dir()
        runtime |= {"lb", "ub", "threshold", "vartype", "name"} & stub.classes[name]
        undeclared = sorted(runtime - stub.classes[name])
        assert not undeclared, "add to class %s in tarvo/__init__.pyi: %s" % (name, undeclared)
        declared = {m for m in stub.classes[name] if not m.startswith("_")}
        lacking = sorted(declared - runtime)
        assert not lacking, "class %s in tarvo/__init__.pyi declares members the module lacks: %s" % (name, lacking)
        dunders = {m for m in stub.classes[name] if m.startswith("__") and m not in ("__init__", "__hash__")}
        lacking = sorted(m for m in dunders if not hasattr(cls, m))
        assert not lacking, (name, lacking)


def test_declared_controls_and_attributes_are_in_the_catalogue_with_their_types():
    with open(STUB) as f:
        classes = {n.name: n for n in ast.parse(f.read()).body if isinstance(n, ast.ClassDef)}
    declared = {}
    for item in classes["control"].body:
        if isinstance(item, ast.AnnAssign):
            declared[("control", item.target.id)] = ast.unparse(item.annotation)
    for item in classes["attribute"].body:
        if isinstance(item, ast.FunctionDef) and item.name != "__getattr__":
            declared[("attribute", item.name)] = ast.unparse(item.returns)
    p = tarvo.problem()
    catalogue = {"control": p.getControl(), "attribute": p.getAttrib()}
    assert len(declared) > 100
    wrong = sorted("%s.%s: declared %s, catalogue %s" % (kind, name, t, type(catalogue[kind][name]).__name__
                                                          if name in catalogue[kind] else "nothing")
                   for (kind, name), t in declared.items()
                   if name not in catalogue[kind] or type(catalogue[kind][name]).__name__ != t)
    assert not wrong, "\n".join(wrong)


# ---------------------------------------------------------------- signatures and docstrings

def _instantiable(cls):
    return not cls.__flags__ & (1 << 7)  # Py_TPFLAGS_DISALLOW_INSTANTIATION: no constructor


def _public_callables():
    """(qualified name, callable) of every module function, constructible type and method."""
    out = []
    for name in sorted(_public(tarvo.tarvolib)):
        obj = getattr(tarvo, name)
        if isinstance(obj, type):
            if not issubclass(obj, BaseException) and _instantiable(obj):
                out.append((name, obj))
        elif callable(obj):
            out.append((name, obj))
    # methods, bound to an instance so that they can be called
    x = tarvo.var()
    instances = {"var": x, "linterm": 2 * x, "quadterm": x * x, "expression": x + 1, "nonlinear": tarvo.exp(x),
                 "constraint": x <= 1, "sos": tarvo.sos([x], [1]), "problem": tarvo.problem(),
                 "branchobj": tarvo.branchobj(tarvo.problem())}
    for tname, cls in _runtime_types().items():
        methods = [m for m in sorted(_public(cls)) if callable(inspect.getattr_static(cls, m))]
        assert not methods or tname in instances, tname
        out += [("%s.%s" % (tname, m), getattr(instances[tname], m)) for m in methods]
    return out


def test_every_public_callable_has_a_signature_and_a_docstring():
    callables = _public_callables()
    assert len(callables) > 100
    problems = []
    for name, obj in callables:
        try:
            sig = inspect.signature(obj)
        except (ValueError, TypeError) as exc:
            problems.append("%s: no signature (%s)" % (name, exc))
            continue
        doc = inspect.getdoc(obj) or ""
        # a sentence of its own, beyond the signature
        if len(doc.split()) < 5 or not doc.rstrip().endswith((".", ")")):
            problems.append("%s: docstring %r" % (name, doc))
        if isinstance(obj, type):
            continue
        # a function that takes no keywords at all must not show keyword parameters
        try:
            obj(zz_not_a_keyword=1)
        except Exception as exc:  # noqa: BLE001  (any refusal; only the interpreter's message counts)
            no_keywords = "takes no keyword arguments" in str(exc)
        else:
            no_keywords = False
        if no_keywords:
            keywords = [p.name for p in sig.parameters.values()
                        if p.kind in (p.POSITIONAL_OR_KEYWORD, p.KEYWORD_ONLY)]
            if keywords:
                problems.append("%s takes no keywords but its signature shows %s: mark them positional-only"
                                % (name, keywords))
    assert not problems, "\n".join(problems)


def _stub_parameters(fn, drop_self):
    a = fn.args
    params = []
    positional = a.posonlyargs + a.args
    defaults = [None] * (len(positional) - len(a.defaults)) + list(a.defaults)
    for i, (arg, default) in enumerate(zip(positional, defaults)):
        kind = inspect.Parameter.POSITIONAL_ONLY if i < len(a.posonlyargs) else inspect.Parameter.POSITIONAL_OR_KEYWORD
        params.append((arg.arg, kind, default is not None))
    if a.vararg:
        params.append((a.vararg.arg, inspect.Parameter.VAR_POSITIONAL, False))
    for arg, default in zip(a.kwonlyargs, a.kw_defaults):
        params.append((arg.arg, inspect.Parameter.KEYWORD_ONLY, default is not None))
    if a.kwarg:
        params.append((a.kwarg.arg, inspect.Parameter.VAR_KEYWORD, False))
    return params[1:] if drop_self else params


def _runtime_parameters(obj, drop_self):
    params = [(p.name, p.kind, p.default is not p.empty) for p in inspect.signature(obj).parameters.values()]
    # an unbound method's signature starts with self; a type's signature is its constructor's
    return params[1:] if drop_self and not isinstance(obj, type) else params


def _show(params):
    marks = {inspect.Parameter.POSITIONAL_ONLY: "%s/", inspect.Parameter.VAR_POSITIONAL: "*%s",
             inspect.Parameter.KEYWORD_ONLY: "%s(kw)", inspect.Parameter.VAR_KEYWORD: "**%s"}
    return "(%s)" % ", ".join(marks.get(kind, "%s") % name + ("=" if default else "") for name, kind, default in params)


def test_stub_signatures_agree_with_the_runtime_signatures(stub):
    """Names, kinds and optionality of the parameters; overloads may narrow a signature, but the
    keywords they use must exist."""
    pairs = []
    for name, defs in stub.defs[None].items():
        pairs.append((name, getattr(tarvo, name), defs, False))
    for tname, cls in _runtime_types().items():
        for m, defs in stub.defs[tname].items():
            if m == "__init__" and _instantiable(cls):
                pairs.append((tname, cls, defs, True))
            elif not m.startswith("_") and hasattr(cls, m):
                pairs.append(("%s.%s" % (tname, m), getattr(cls, m), defs, True))
    assert len(pairs) > 100
    problems = []
    for name, obj, defs, drop_self in pairs:
        runtime = _runtime_parameters(obj, drop_self)
        overloads = [d for d in defs if "overload" in _decorator_names(d)]
        if not overloads:
            declared = _stub_parameters(defs[-1], drop_self)
            if declared != runtime:
                problems.append("%s: stub %s, runtime %s" % (name, _show(declared), _show(runtime)))
            continue
        keywords = {n for n, kind, _ in runtime if kind in (inspect.Parameter.POSITIONAL_OR_KEYWORD,
                                                             inspect.Parameter.KEYWORD_ONLY)}
        takes_any = any(kind == inspect.Parameter.VAR_KEYWORD for _, kind, _ in runtime)
        for d in overloads:
            used = {n for n, kind, _ in _stub_parameters(d, drop_self)
                    if kind in (inspect.Parameter.POSITIONAL_OR_KEYWORD, inspect.Parameter.KEYWORD_ONLY)}
            if not takes_any and not used <= keywords:
                problems.append("%s: an overload uses keywords %s the runtime lacks" % (name, sorted(used - keywords)))
                break
    assert not problems, "\n".join(problems)


# ---------------------------------------------------------------- the stubs in use

def test_stubs_type_user_code(tmp_path, monkeypatch):
    api = pytest.importorskip("mypy.api")
    program = tmp_path / "model.py"
    program.write_text(
        "import numpy as np\n"
        "import tarvo as tv\n"
        "x = tv.var(lb=-1, ub=2, name='x')\n"
        "y = tv.var(vartype=tv.integer)\n"
        "c = x + 2 * y <= 4\n"
        "reveal_type(c)\n"
        "reveal_type(tv.sin(1.0))\n"
        "p = tv.problem(x, y, c, name='demo')\n"
        "p.setObjective(3 + 2 * x - y + x * y, sense=tv.maximize)\n"
        "v: float = tv.evaluate(x + y, solution={x: 1.0, y: 2.0})\n"
        "reveal_type(tv.vars())\n"
        "a = tv.vars(3, 4, name='a')\n"
        "reveal_type(a)\n"
        "reveal_type(tv.vars(['i', 'j'], [1, 2]))\n"
        "reveal_type(p.getVariable(0))\n"
        "reveal_type(p.getVariable())\n"
        "reveal_type(p.getSolution(x))\n"
        "reveal_type(p.getSolution())\n"
        "reveal_type(p.getSolution(a))\n"
        "reveal_type(p.getDual(c))\n"
        "reveal_type(p.getControl())\n"
        "reveal_type(p.attributes.rows + 1)\n"
        "reveal_type(p.controls.feastol)\n"
        "tv.controls.presolve = 0\n"
        "p.nlpoptimize()\n"
        "p.chgvar(colindex=x, initvalue=0.5)\n"
        "n = a[0, 1] + 1\n"
        "x.bogus\n"
        "p.chgvar(colindex=x, initvalue='a')\n"
    )
    monkeypatch.setenv("MYPYPATH", os.path.dirname(os.path.dirname(os.path.abspath(__file__))))  # the checkout's stubs, never site-packages (mypy refuses it)
    stdout, _, status = api.run(
        ["--no-incremental", "--cache-dir", os.devnull, "--follow-imports=silent", str(program)]
    )
    revealed = [l.split("Revealed type is ", 1)[1].strip('"').replace("builtins.", "")
                for l in stdout.splitlines() if "Revealed type" in l]
    assert revealed[:3] == ["tarvo.constraint", "float", "tarvo.var"], stdout
    assert revealed[3].startswith("numpy.ndarray") and "object_" in revealed[3], stdout
    assert revealed[4] == "dict[Any, tarvo.var]", stdout
    assert revealed[5:9] == ["tarvo.var", "list[tarvo.var]", "float", "list[float]"], stdout
    assert revealed[9].startswith("numpy.ndarray") and "float64" in revealed[9], stdout
    assert revealed[10] == "float", stdout
    assert revealed[11].startswith("dict[str,"), stdout
    assert revealed[12:14] == ["int", "float"], stdout
    errors = [l for l in stdout.splitlines() if ": error:" in l]
    assert len(errors) == 2 and "bogus" in errors[0] and "initvalue" in errors[1], stdout
    assert status == 1
