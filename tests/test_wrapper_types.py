"""Layouts of the opaque wrapper types and of branchobj, and global message handlers that
keep or drop the wrapped objects they receive."""
import struct

import pytest

import tarvo as tv

POINTER = struct.calcsize("P")
HEAD = 2 * POINTER  # reference count and type


def test_poolcut_holds_one_pointer():
    assert tv.poolcut.__basicsize__ == HEAD + POINTER


def test_branchobj_has_handle_problem_and_flag():
    # handle, problem reference, 32-bit flag (padded to the pointer size)
    assert tv.branchobj.__basicsize__ == HEAD + 3 * POINTER


def test_branchobj_refuses_arguments_it_cannot_honour():
    with pytest.raises(tv.ModelError, match="Incorrect creation of branching object"):
        tv.branchobj("not a problem")


def test_global_message_handlers_survive_many_solves(run_python):
    out = run_python("""
        import tarvo as tv
        kept = []
        def keep(obj, data, thread, msg, mtype, number):
            kept.append((obj, data, thread, msg, mtype))
        def other(obj, data, thread, msg, mtype, number):
            pass
        tv.addcbmsghandler(keep, None, 1)
        tv.addcbmsghandler(other, None, 2)
        for i in range(1500):
            x = tv.var()
            p = tv.problem(x, x >= 1, x)
            p.controls.outputlog = 1
            p.solve()
        print("done", p.getObjVal())
    """)
    assert out.split()[-2:] == ["done", "1.0"]
