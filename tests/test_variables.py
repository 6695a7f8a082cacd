import sys
import numpy as np
import pytest

import tarvo


def test_printed_forms_in_a_fresh_process(run_python):
    # serial numbers are process-wide, so the printed names need a new interpreter
    out = run_python(
        "import tarvo as t; x=t.var(); y=t.var(); print(x, y, 3 + 2*x - y + x*y, x + 2*y <= 4)"
    )
    assert out == "C1 C2 3 +2 C1 - C2 + C1*C2 R1\n"
    out = run_python(
        "import tarvo as t; x=t.var(); c=t.constraint(body=x, lb=1); s=t.sos([x], [1]);"
        "print(x.name, c, s, c.copy(), s.copy(), hash(x))"
    )
    # every kind has its own counter starting at 1
    assert out == "C1 R1 sos1 R1_copy_R1 sos1_copy_sos1 1\n"


def test_constructor_defaults_and_arguments():
    v = tarvo.var()
    assert (v.lb, v.ub, v.threshold, v.vartype) == (0.0, 1e20, -1e20, 0)
    assert str(v) == repr(v) == v.name == "C%d" % (hash(v))
    w = tarvo.var("w", -3, 7.5, 2, tarvo.integer)
    assert (w.name, w.lb, w.ub, w.threshold, w.vartype) == ("w", -3.0, 7.5, 2.0, tarvo.integer)
    assert str(w) == "w"
    k = tarvo.var(ub=4, vartype=tarvo.semicontinuous, name="k")
    assert (k.lb, k.ub, k.vartype) == (0.0, 4.0, 3)
    # binaries are clamped after the emptiness test
    b = tarvo.var(lb=-5, ub=7, vartype=tarvo.binary)
    assert (b.lb, b.ub) == (0.0, 1.0)
    assert tarvo.var(lb=0.5, vartype=tarvo.binary).lb == 0.5
    assert tarvo.var(lb=1, ub=1 - 1e-7).ub == 1 - 1e-7
    assert tarvo.var(name=b"bx").name == b"bx"
    assert str(tarvo.var(name=b"bx")) == "bx"
    assert hash(v) == hash(v) and isinstance(hash(v), int)


@pytest.mark.parametrize(
    "kwargs, message",
    [
        (dict(lb=2, ub=1), "Variable has empty feasible set: lower bound > upper bound"),
        (dict(name=None), "Invalid variable name (must be a string)"),
        (dict(name=3), "Invalid variable name (must be a string)"),
    ],
)
def test_constructor_errors(kwargs, message):
    with pytest.raises(tarvo.ModelError) as info:
        tarvo.var(**kwargs)
    assert str(info.value) == message


def test_constructor_rejects_bad_argument_types():
    with pytest.raises(TypeError):
        tarvo.var(lb="a")
    with pytest.raises(TypeError):
        tarvo.var(vartype=1.5)


def test_bound_codes_and_side_table_values():
    v = tarvo.var(ub=3)
    assert v.ub == 3.0
    v.ub = 1
    assert v.ub == 1.0
    v.ub = 1e30
    assert v.ub == 1e20
    v.ub = 0
    assert v.ub == 0.0
    v.lb = -1e25
    assert v.lb == -1e20
    v.lb = 1
    assert v.lb == 1.0
    v.lb = -2.5
    assert v.lb == -2.5
    v.lb = float("nan")
    assert v.lb != v.lb
    v.threshold = 5
    assert v.threshold == 5.0
    v.threshold = 6
    assert v.threshold == 6.0
    v.threshold = -1e20
    assert v.threshold == -1e20
    # setting through attributes does not clamp or check
    v.lb, v.ub = 10, 2
    assert (v.lb, v.ub) == (10.0, 2.0)
    v.vartype = 9  # only the low three bits are kept
    assert v.vartype == 1
    v.name = 42
    assert v.name == 42
    with pytest.raises(tarvo.ModelError, match="Invalid variable name"):
        str(v)  # printed names are strings: 42 is refused, not converted


def test_attribute_access_rules():
    v = tarvo.var()
    assert v.__class__ is tarvo.var
    assert v.__dict__ == dict.fromkeys(["lb", "ub", "threshold", "vartype", "name"])
    with pytest.raises(tarvo.InterfaceError, match="Incorrect member name of type tarvo.var"):
        v.foo = 1
    with pytest.raises(tarvo.InterfaceError):
        v.lbx = 1
    with pytest.raises(AttributeError):
        v.foo
    with pytest.raises(TypeError):
        v.lb = "a"
    assert v.lb == 0.0
    with pytest.raises((AttributeError, TypeError)):
        del v.ub
    assert v.ub == 1e20
    for name in ("__array_interface__", "__array_struct__", "__array__"):
        assert not hasattr(v, name)
    assert v.extractLinear() == ([v], [1.0])
    assert v.extractQuadratic() == ([], [], [])


def test_variable_arithmetic_identities():
    x, y = tarvo.var(), tarvo.var()
    assert x + 0 is x and x - 0 is x and x * 1 is x and 1 * x is x and x ** 1 is x and x / 1 is x
    z = 0 + x
    assert type(z).__name__ == "expression" and z.extractLinear() == ([x], [1.0])
    for r in (x - x, x * 0, 0 * x, 0 / x):
        assert type(r) is float and r == 0.0
    assert type(x / x) is float and x / x == 1.0
    assert x ** 0 == 1.0 and type(x ** 0) is float
    sq = x ** 2
    assert type(sq).__name__ == "quadterm" and str(sq) == "%s**2" % x
    double = x + x
    assert type(double).__name__ == "linterm" and str(double) == "2*%s" % x
    assert str(x / 4) == "0.25*%s" % x
    # an expression without terms counts as its constant
    assert str(x / ((x + 1) * 0 + 2)) == "0.5*%s" % x and x / ((x + 1) * 0 + 1) is x
    assert str(-x) == "-1*%s" % x
    assert str(x * y) == str(y * x) == "%s*%s" % (x, y)
    assert str(x * x) == str(x ** 2)
    assert str(1 + x) == "1 + %s" % x and str(x - 2) == "-2 + %s" % x and str(3 - x) == "3 - %s" % x
    assert str(x - y) == "  %s - %s" % (x, y)
    # NumPy scalars count as numbers, NumPy's bool_ and int8 do not
    assert str(np.float64(2) * x) == "2*%s" % x and str(x * np.int32(3)) == "3*%s" % x


def test_variable_in_place_operators_return_new_objects():
    x, y = tarvo.var(), tarvo.var()
    a = x
    a += 0
    assert a is x
    a += y
    assert a is not x and str(a) == "  %s + %s" % (x, y)
    b = x
    b *= 3
    assert str(b) == "3*%s" % x and str(x) == x.name
    b = x
    b -= x
    assert b == 0.0
    b = x
    b /= 2
    assert str(b) == "0.5*%s" % x
    b = x
    b **= 2
    assert type(b).__name__ == "quadterm"
    b = x
    b **= 0
    assert b == 1.0


@pytest.mark.parametrize(
    "build, message",
    [
        (lambda x: x / 0, "Division of variable by zero"),
        (lambda x: x / ((x + 1) * 0), "Division of variable by zero"),
        (lambda x: x ** np.array([1.0, 2.0]), "Cannot obtain a power with a vector as an exponent"),
        (lambda x: x + "a", "Invalid operands in addition"),
        (lambda x: x - "a", "Invalid object in subtraction"),
        (lambda x: x * "a", "Invalid operands in multiplication"),
        (lambda x: x / "a", "Invalid operands in division"),
    ],
)
def test_variable_operator_errors(build, message):
    x = tarvo.var()
    with pytest.raises(tarvo.ModelError) as info:
        build(x)
    assert str(info.value) == message


def test_variable_in_place_division_by_zero():
    x = tarvo.var()
    with pytest.raises(tarvo.ModelError, match="^Division by zero$"):
        x /= 0


def test_absent_number_slots():
    x = tarvo.var()
    for op in (lambda: x // 2, lambda: x % 2, lambda: divmod(x, 2), lambda: int(x), lambda: float(x)):
        with pytest.raises(TypeError):
            op()


def test_numpy_right_operands_work_elementwise():
    x, y = tarvo.var(), tarvo.var()
    arr = np.array([x, y], dtype=object)
    s = x + arr
    assert isinstance(s, np.ndarray) and [str(e) for e in s] == ["2*%s" % x, "  %s + %s" % (x, y)]
    d = x - np.array([1.0, 2.0])
    assert [str(e) for e in d] == ["-1 + %s" % x, "-2 + %s" % x]
    m = x * np.array([2.0, 0.0])
    assert str(m[0]) == "2*%s" % x and m[1] == 0.0
    q = x / np.array([2.0, 4.0])
    assert [str(e) for e in q] == ["0.5*%s" % x, "0.25*%s" % x]
    r = x * arr
    assert [type(e).__name__ for e in r] == ["quadterm", "quadterm"]


def test_direct_call_and_initialiser_agree():
    # tarvo.var(...) reads plain arguments straight from the call; __init__ parses the generic
    # way. Both must build the same variable, and unusual arguments must behave alike.
    name = "".join(["direct", "-call"])
    cases = [dict(), dict(name=name, lb=-2.5, ub=3.5), dict(lb=1, ub=1, threshold=0.25, vartype=tarvo.integer),
             dict(lb=-5, ub=7, vartype=tarvo.binary), dict(name=b"b", lb=np.float64(1.5), ub=np.int64(3)),
             dict(ub=1e30, threshold=-1e20, vartype=np.int32(4))]
    for kw in cases:
        direct = tarvo.var(**kw)
        generic = tarvo.var.__new__(tarvo.var)
        generic.__init__(**kw)
        positional = tarvo.var(kw.get("name", "p"), kw.get("lb", 0.0), kw.get("ub", 1e20),
                               kw.get("threshold", -1e20), kw.get("vartype", 0))

        def state(v):
            return (v.lb, v.ub, v.threshold, v.vartype)

        assert state(direct) == state(generic) == state(positional), kw
        assert str(direct) == str(generic) if "name" in kw else str(direct) != str(generic)
    before = sys.getrefcount(name)
    made = [tarvo.var(name=name, lb=-1.5) for _ in range(100)]
    assert sys.getrefcount(name) == before + 100
    del made
    assert sys.getrefcount(name) == before

    class Sub(tarvo.var):
        pass

    s = Sub(name="s", lb=0.5, vartype=tarvo.binary)
    assert type(s) is Sub and (s.lb, s.ub, str(s)) == (0.5, 1.0, "s")
    for bad, exc in ((dict(lb="x"), TypeError), (dict(vartype=1.5), TypeError), (dict(lb=10**400), OverflowError),
                     (dict(bad=1), TypeError), (dict(lb=2, ub=1), tarvo.ModelError)):
        with pytest.raises(exc):
            tarvo.var(**bad)
    with pytest.raises(TypeError):
        tarvo.var(None, 0, 1, -1e20, 0, 6)
    with pytest.raises(TypeError):
        tarvo.var("a", name="b")
