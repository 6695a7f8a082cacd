"""Controls and attributes: per problem, module defaults, the catalogue, type checks and messages."""

import numpy as np
import pytest

import tarvo as tv


@pytest.fixture
def p():
    tv.setOutputEnabled(False)
    x, y = tv.var(), tv.var(vartype=tv.integer)
    prob = tv.problem(x, y, x + y <= 3, x - y)
    yield prob
    tv.setOutputEnabled(True)


def test_get_control_forms(p):
    assert isinstance(p.getControl("feastol"), float)
    assert isinstance(p.getControl("presolve"), int)
    d = p.getControl(["presolve", "miprelstop", "feastol"])
    assert set(d) == {"presolve", "miprelstop", "feastol"}
    assert p.getControl("presolve", "feastol") == {"presolve": d["presolve"], "feastol": d["feastol"]}
    assert p.getControl(iter(("threads",))) == {"threads": p.controls.threads}
    everything = p.getControl()
    assert {"feastol", "presolve", "maxtime", "outputlog"} <= set(everything)
    assert all(v == -1 for k, v in everything.items() if p.controls.__dict__[k][0] in (12013, 22013))
    with pytest.raises(tv.InterfaceError, match="Requested value of an unknown control"):
        p.getControl("FEASTOL")
    with pytest.raises(tv.InterfaceError, match="Requested value of an unknown control"):
        p.getControl(["feastol", "nosuchcontrol"])


def test_set_control_forms_and_type_checks(p):
    p.setControl("feastol", 1e-7)
    assert p.getControl("feastol") == pytest.approx(1e-7)
    p.setControl({"presolve": 0, "miprelstop": 1})  # an integer is accepted for a double control
    assert p.controls.presolve == 0 and p.controls.miprelstop == 1.0
    p.setControl("threads", np.int64(1))
    assert p.controls.threads == 1
    with pytest.raises(tv.ModelError, match="Cannot set non-integer value to an integer control"):
        p.setControl("presolve", 1.5)
    with pytest.raises(tv.ModelError, match="Cannot set non-numerical value to a floating-point control"):
        p.setControl("feastol", "small")
    # Entries are set in order; the unknown one stops the loop and the earlier ones stay.
    with pytest.raises(tv.InterfaceError, match="Incorrect control name"):
        p.setControl({"presolve": 1, "nosuch": 3, "threads": 2})
    assert p.controls.presolve == 1 and p.controls.threads == 1
    with pytest.raises(tv.ModelError, match="requires at least one argument"):
        p.setControl()
    with pytest.raises(tv.ModelError, match="Single argument to setControl must be a dictionary"):
        p.setControl("presolve")
    with pytest.raises(tv.ModelError, match="setControl: arguments mismatch"):
        p.setControl("presolve", 1, 2)
    with pytest.raises(tv.InterfaceError, match="Incorrect control name"):
        p.setControl("PRESOLVE", 1)


def test_control_and_attribute_objects(p):
    p.controls.maxtime = 12.5
    assert p.controls.maxtime == 12.5 and p.getControl("maxtime") == 12.5
    with pytest.raises(tv.InterfaceError, match="Incorrect control name"):
        p.controls.PRESOLVE
    with pytest.raises(tv.InterfaceError, match="Incorrect control name"):
        p.controls.nosuch = 1
    with pytest.raises(tv.ModelError, match="Cannot set non-integer value"):
        p.controls.presolve = "on"
    with pytest.raises(tv.InterfaceError):
        del p.controls.presolve
    assert p.controls.__dict__["feastol"][1] == 2  # (identifier, type, library)
    assert p.controls.__dict__ is tv.problem().controls.__dict__  # the shared catalogue
    assert p.controls.__class__.__name__ == "control" and p.attributes.__class__.__name__ == "attribute"
    assert "feastol" in repr(p.controls) and "rows" in repr(p.attributes)

    assert p.attributes.rows == 1 and p.attributes.cols == 2
    assert p.getAttrib("originalcols") == 2
    assert p.getAttrib(["rows", "mipents"]) == {"rows": 1, "mipents": 1}
    with pytest.raises(tv.ModelError, match="A problem's attribute cannot be set"):
        p.attributes.rows = 3
    with pytest.raises(tv.InterfaceError, match="Incorrect attribute name"):
        p.attributes.nosuch
    with pytest.raises(tv.InterfaceError, match="Requested value of an unknown attribute"):
        p.getAttrib("feastol")


def test_controls_object_keeps_its_problem():
    c = tv.problem().controls
    assert c.feastol == tv.controls.feastol


def test_module_defaults_apply_to_new_problems(run_python):
    out = run_python(
            """
            import tarvo as tv
            default = tv.controls.presolve
            print(tv.controls.tslp_postsolve)
            tv.controls.presolve = 0
            a = tv.problem()
            print(tv.controls.presolve, a.controls.presolve)
            tv.setdefaultcontrol('presolve')
            b = tv.problem()
            print(a.controls.presolve, b.controls.presolve == default, tv.controls.presolve == default)
            tv.controls.feastol = 1e-8
            tv.setdefaults()
            c = tv.problem()
            print(c.controls.feastol == tv.controls.feastol, 'tslp_postsolve' in repr(tv.controls))
            tv.setdefaultcontrol('nosuch'); tv.setdefaultcontrol(3)
            try:
                tv.controls.presolve = 0.5
            except tv.ModelError as e:
                print('ModelError')
            try:
                tv.controls.nosuch = 1
            except tv.InterfaceError as e:
                print(e)
            """)
    assert out.split("\n")[:5] == ["1", "0 0", "0 True True", "True True", "ModelError"]
    assert out.split("\n")[5].startswith("Incorrect control name: 'nosuch'")


def test_unknown_names_are_named_and_the_closest_is_suggested():
    p = tv.problem()
    with pytest.raises(tv.InterfaceError) as e:
        p.controls.feastl
    assert str(e.value) == "Incorrect control name: 'feastl' (did you mean 'feastol'?)"
    with pytest.raises(tv.InterfaceError, match=r"^Incorrect control name: 'MAXTIME' \(did you mean 'maxtime'\?\)$"):
        p.setControl("MAXTIME", 5)
    with pytest.raises(tv.InterfaceError, match=r"^Incorrect control name: 'presolv' \(did you mean 'presolve'\?\)$"):
        tv.controls.presolv = 0
    with pytest.raises(tv.InterfaceError, match=r"^Incorrect attribute name: 'rowz' \(did you mean 'rows'\?\)$"):
        p.attributes.rowz
    # Nothing close: the name alone.
    with pytest.raises(tv.InterfaceError, match=r"^Incorrect control name: 'qqqqqqqqqqqqqqqqqqqq'$"):
        p.setControl({"qqqqqqqqqqqqqqqqqqqq": 1})
    with pytest.raises(tv.InterfaceError, match="^Requested value of an unknown control: 'FEASTOL'"):
        p.getControl("FEASTOL")


def test_reading_controls_from_inside_a_query_never_deadlocks(run_python):
    # The names come from Python code that reads controls itself, in one thread and then in
    # several at once; a lock held across user code hangs the interpreter.
    out = run_python("""
        import threading
        import tarvo as tv
        p = tv.problem()
        def names():
            for n in ("feastol", "presolve", "maxtime"):
                p.controls.presolve                 # re-enters the catalogue
                p.getControl("feastol")
                yield n
        print(sorted(p.getControl(names())))
        print(sorted(p.getAttrib(iter(["rows", "cols"]))))
        class Name(str):
            def __hash__(self):
                p.getControl("presolve")
                return str.__hash__(self)
            __eq__ = str.__eq__
        print(p.getControl(Name("presolve")) == p.controls.presolve)
        errors = []
        def work():
            try:
                for _ in range(200):
                    p.getControl(names())
                    p.getControl()
            except BaseException as e:
                errors.append(e)
        threads = [threading.Thread(target=work) for _ in range(4)]
        for t in threads: t.start()
        for t in threads: t.join()
        print(errors)
    """, timeout=120)
    assert out.split("\n")[:4] == ["['feastol', 'maxtime', 'presolve']", "['cols', 'rows']", "True", "[]"]


def test_module_defaults_are_applied_without_holding_locks(run_python):
    # A default whose value runs Python code when the collector frees it, and new problems
    # made from threads while defaults change.
    out = run_python("""
        import threading
        import tarvo as tv
        class Seconds(float):
            def __del__(self):
                tv.controls.maxtime                 # reads the defaults while they are cleared
        tv.controls.maxtime = Seconds(5.0)
        q = tv.problem()
        print(q.controls.maxtime)
        tv.setdefaults()
        tv.controls.maxtime = Seconds(7.0)
        tv.setdefaultcontrol("maxtime")
        def work():
            for k in range(100):
                tv.controls.presolve = k % 2
                q = tv.problem()
                assert q.controls.presolve in (0, 1)
        threads = [threading.Thread(target=work) for _ in range(3)]
        for t in threads: t.start()
        for t in threads: t.join()
        print("done")
    """, timeout=120)
    assert out.split("\n")[:2] == ["5.0", "done"]
