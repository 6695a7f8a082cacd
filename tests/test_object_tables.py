"""The problem's serial maps and the variables' name records at the edges of their layouts:
maps filled close to capacity by consecutive serials, runs of serials whose positions in the
table collide (so that keys must be scattered while the table is nearly full), and the empty
name, kept without a table entry."""
import gc

import tarvo as tv


def burn(n):
    """Draws n serials without keeping the variables."""
    for _ in range(n):
        tv.var()


class TestIndexMaps:
    def test_two_runs_of_serials_on_the_same_slots(self):
        # 30,000 + 30,000 keys fill a 65,536-slot table to 7/8 at most; the second run starts
        # 65,536 serials after the first, so every key of it has a key of the first run at its
        # home: the table must scatter its keys and grow to stay correct and quick.
        first = [tv.var() for _ in range(30000)]
        burn(65536 - 30000)
        second = [tv.var() for _ in range(30000)]
        p = tv.problem()
        p.addVariable(first)
        p.addVariable(second)
        every = first + second
        assert [p.getIndex(v) for v in every[::37]] == list(range(0, 60000, 37))
        p.delVariable(index=list(range(0, 60000, 2)))
        left = every[1::2]
        assert p.getVariable() == left
        assert [p.getIndex(v) for v in left[::11]] == list(range(0, 30000, 11))
        p.addVariable(every[0])
        assert p.getIndex(every[0]) == 30000

    def test_map_grown_one_key_at_a_time_past_seven_eighths(self):
        p = tv.problem()
        xs = [tv.var() for _ in range(1800)]  # 1,792 = 7/8 of 2,048
        for v in xs:
            p.addVariable(v)
        rows = [xs[i] + xs[i + 1] <= 1 for i in range(1799)]
        for c in rows:
            p.addConstraint(c)
        assert [p.getIndex(v) for v in xs] == list(range(1800))
        assert [p.getIndex(c) for c in rows] == list(range(1799))


class TestEmptyName:
    def test_empty_name_is_the_default_name(self):
        v = tv.var(name="")
        assert v.name == f"C{hash(v)}" and str(v) == repr(v) == v.name
        v.name = "kept"
        assert v.name == "kept"
        v.name = ""
        assert v.name == f"C{hash(v)}"
        v.name = b""  # the empty bytes name too
        assert v.name == f"C{hash(v)}"
        w = tv.var(name="w")
        w.name = ""
        assert w.name == f"C{hash(w)}"

    def test_empty_and_default_names_in_a_problem(self):
        named = [tv.var(name="") for _ in range(3)] + [tv.var(name="x")] + [tv.var()]
        p = tv.problem(named)
        lib = p.getnamelist(2, 0, 4)
        assert lib == [v.name for v in named] and lib[3] == "x"
        del p
        gc.collect()
        assert [v.name for v in named] == lib
