"""Complex numbers where the problem methods take real values are refused with TypeError
instead of losing their imaginary part; the problem is left unchanged."""

import numpy as np
import pytest

import tarvo as tv


@pytest.fixture
def prob():
    x, y = tv.var(name="x", ub=10), tv.var(name="y", ub=10)
    p = tv.problem(x, y, x + 2 * y <= 4, x + y)
    return p, x, y


@pytest.mark.parametrize("values", [np.array([1 + 2j, 3]), [1 + 2j, 3.0], [np.complex64(1), 3.0],
                                    np.array([1, 3], dtype=np.complex64)])
def test_low_level_methods_refuse_complex_values(prob, values):
    p, x, y = prob
    calls = [
        lambda: p.chgobj([x, y], values),
        lambda: p.chgbounds([x, y], ["U", "U"], values),
        lambda: p.addrows(["L", "L"], values, [0, 1, 2], [x, y], [1.0, 1.0]),
        lambda: p.chgrhs([0, 0], values),
    ]
    for call in calls:
        with pytest.raises(TypeError, match="[Cc]omplex"):
            call()
    # Nothing was changed by the refused calls.
    assert p.attributes.rows == 1
    ub = []
    p.getub(ub, 0, 1)
    assert ub == [10, 10]
    p.solve()
    assert p.getObjVal() == pytest.approx(0)


def test_single_coefficient_setter_refuses_complex(prob):
    p, x, y = prob
    with pytest.raises(TypeError, match="[Cc]omplex"):
        p.chgcoef(0, x, 1 + 1j)
    assert p.getcoef(0, x) == 1


def test_real_arrays_still_accepted(prob):
    p, x, y = prob
    p.chgobj([x, y], np.array([-1, -1], dtype=np.float32))
    p.solve()
    assert p.getObjVal() == pytest.approx(-4)


def test_operators_refuse_complex_arrays(prob):
    p, x, y = prob
    with pytest.raises((TypeError, tv.ModelError)):
        np.array([1 + 2j]) * x
    with pytest.raises((TypeError, tv.ModelError)):
        x * np.complex128(1 + 1j)
