"""Storage behind model building: expressions summed in any order, the problems' serial maps
under strided serials and mass deletion, and the side tables of bounds when many objects die."""
import gc
import random

import pytest

import tarvo as tv


def reference_sum(terms):
    """Coefficients of sum(c * v) added term by term, dropping exact zeros as they arise."""
    out = {}
    for c, v in terms:
        k = out.get(v, 0.0) + c
        if k == 0.0:
            out.pop(v, None)
        else:
            out[v] = k
    return out


@pytest.mark.parametrize("n", [10, 40, 3000])
def test_out_of_order_sums_equal_term_by_term_addition(n):
    # Small maps insert in place, large ones defer out-of-order terms and merge them: either
    # way the result is the term-by-term sum, in serial order, without zero coefficients.
    x = [tv.var() for _ in range(n)]
    rnd = random.Random(n)
    terms = []
    for _ in range(6 * n):
        v = rnd.choice(x)
        terms.append((rnd.choice([1.0, -1.0, 0.5, 3.0]), v))
    terms += [(-c, v) for c, v in terms[: n // 2]]  # some sums cancel exactly
    e = tv.Sum(c * v for c, v in reversed(terms))
    acc = 0
    for c, v in reversed(terms):
        acc += c * v
    ref = reference_sum(reversed(terms))
    for expr in (e, acc):
        vars_, coefs = expr.extractLinear()
        assert vars_ == sorted(ref, key=lambda v: x.index(v))
        assert coefs == pytest.approx([ref[v] for v in vars_], rel=1e-12)
        assert 0.0 not in coefs
    # Reading in the middle of accumulating (which merges pending terms) changes nothing.
    f = tv.Sum(x[::-1])
    mid = str(f)
    f += x[0]
    assert f.extractLinear()[1][0] == 2.0 and str(f) != mid
    assert (f - f).extractLinear() == ([], [])


def test_expression_with_all_terms_cancelled_keeps_variables_alive_correctly():
    x = [tv.var(name="v%d" % i) for i in range(100)]
    e = tv.Sum(x[::-1])
    e -= tv.Sum(x)
    assert str(e) == "0"
    del x
    gc.collect()
    e += tv.var(name="w")
    assert str(e) == "  w"


@pytest.mark.parametrize("stride", [1, 7, 4096])
def test_index_maps_with_strided_serials_and_deletions(stride):
    p = tv.problem()
    n = 3000 if stride < 64 else 300
    kept = []
    for _ in range(n):
        kept.append(tv.var())
        burnt = [tv.var() for _ in range(stride - 1)]  # serial gaps of `stride`
        del burnt
    p.addVariable(kept)
    assert [p.getIndex(v) for v in kept[::97]] == list(range(0, n, 97))
    stranger = tv.var()
    with pytest.raises(tv.ModelError):
        p.getIndex(stranger)
    drop = list(range(0, n, 3))
    p.delVariable(index=drop)
    left = [v for i, v in enumerate(kept) if i % 3]
    assert p.getVariable() == left
    assert [p.getIndex(v) for v in left] == list(range(len(left)))
    for v in kept[::3][:50]:
        with pytest.raises(tv.ModelError):
            p.getIndex(v)
    p.addVariable(kept[0])
    assert p.getIndex(kept[0]) == len(left)


def test_side_tables_survive_mass_creation_and_destruction():
    x = [tv.var(lb=-2.5, ub=7.25, name="x%d" % i) for i in range(2000)]
    rows = [tv.constraint(x[i] + x[i + 1] >= 1.5 + i, name="r%d" % i) for i in range(1999)]
    survivors = rows[::5]
    del rows
    gc.collect()
    assert [(c.lb, c.ub) for c in survivors[:3]] == [(1.5, 1e20), (6.5, 1e20), (11.5, 1e20)]
    assert [c.name for c in survivors[-2:]] == ["r1990", "r1995"]
    keep = x[::7]
    del x
    gc.collect()
    assert all(v.lb == -2.5 and v.ub == 7.25 for v in keep)
    assert [v.name for v in keep[:3]] == ["x0", "x7", "x14"]
