"""Small contract points: results and messages the modelling functions promise."""
import numpy as np
import pytest

import tarvo as tv


def test_dot_of_numbers_held_in_object_arrays_is_a_number():
    a = np.array([1.0, 2.0], dtype=object)
    b = np.array([3, 4], dtype=object)
    r = tv.Dot(a, b)
    assert type(r) is float and r == 11.0
    m = tv.Dot(np.array([[1, 2], [3, 4]], dtype=object), b)
    assert [type(e) for e in m] == [float, float] and list(m) == [11.0, 25.0]
    # A modelling element anywhere still gives an expression.
    x = tv.var()
    assert not isinstance(tv.Dot(np.array([1.0, x], dtype=object), b), float)


def test_failing_iteration_is_reported_as_such():
    def numbers():
        yield 1.0
        raise ValueError("boom")
    for fold in (tv.Sum, tv.Prod):
        with pytest.raises(tv.ModelError, match="^Cannot iterate over sequence$") as e:
            fold(numbers())
        assert isinstance(e.value.__cause__, ValueError)

    def interrupted():
        yield 1.0
        raise KeyboardInterrupt
    with pytest.raises(KeyboardInterrupt):
        tv.Sum(interrupted())


def test_user_function_without_arguments_is_refused_with_its_message():
    tv.setOutputEnabled(False)
    try:
        x = tv.var()
        with pytest.raises(tv.ModelError, match=r"^Invalid user function, must specify at least one argument"):
            tv.problem(x, tv.user() <= 3, x)
        with pytest.raises(tv.ModelError, match="must be the function itself"):
            tv.problem(x, tv.user(x, x) <= 3, x)
    finally:
        tv.setOutputEnabled(True)


def test_output_arguments_must_be_lists():
    tv.setOutputEnabled(False)
    try:
        x = tv.var()
        p = tv.problem(x, tv.exp(x) <= 3, x)
        with pytest.raises(tv.ModelError, match="Unexpected argument to conv_arr2obj"):
            p.getcoefs((), None)
        rows, cols = [], []
        p.getcoefs(rows, cols)
        assert len(rows) == len(cols) >= 1
    finally:
        tv.setOutputEnabled(True)


def test_variable_names_print_only_as_strings():
    v = tv.var(name="a")
    for bad in (5, 1.5, ["a"]):
        v.name = bad                      # attributes are set unchecked
        with pytest.raises(tv.ModelError, match="Invalid variable name"):
            str(v)
        with pytest.raises(tv.ModelError, match="Invalid variable name"):
            str(v + 1)                    # nor in the printed form of an expression
    v.name = b"bytes"
    assert str(v) == "bytes" and str(2 * v) == "2*bytes"
