"""Global environment: version, banner, last error, checked mode, output switch, message handlers."""
import numpy as np
import pytest

import tarvo as tv


def test_version_banner_and_last_error():
    version = tv.getversion()
    assert isinstance(version, str) and version.count(".") == 2
    banner = tv.getbanner("ignored", any_keyword=1)
    assert isinstance(banner, str) and "HiGHS" in banner
    code, message = tv.getlasterror()
    assert isinstance(code, int) and isinstance(message, str)


def test_checked_mode_only_true_enables():
    tv.setcheckedmode(True)
    assert tv.getcheckedmode() is True
    tv.setcheckedmode(1)  # only the object True enables checking
    assert tv.getcheckedmode() is False
    tv.setcheckedmode(checked_mode=True)
    assert tv.getcheckedmode() is True
    with pytest.raises(TypeError):
        tv.setcheckedmode()


def test_arch_consistency_accepts_any_value():
    for value in (None, False, 0, 1, True, "yes"):
        assert tv.setarchconsistency(value) is None
    assert tv.setarchconsistency(ifArchConsistent=0) is None


def test_output_switch():
    before = tv.getOutputEnabled()
    try:
        tv.setOutputEnabled(False)
        assert tv.getOutputEnabled() is False
        tv.setOutputEnabled(1)
        assert tv.getOutputEnabled() is True
        tv.setOutputEnabled(np.int64(0))
        assert tv.getOutputEnabled() is False
        with pytest.raises(tv.ModelError, match="Incorrect argument in setOutputEnabled: should be True or False"):
            tv.setOutputEnabled("no")
        with pytest.raises(tv.ModelError):
            tv.setOutputEnabled(1.0)
        assert tv.getOutputEnabled() is False  # unchanged by the failures
    finally:
        tv.setOutputEnabled(before)


def test_message_handler_registration_and_removal():
    def f(*args):
        pass

    def g(*args):
        pass

    d1, d2 = object(), object()
    with pytest.raises(tv.InterfaceError, match="Callback not found"):
        tv.removecbmsghandler(None, None)
    with pytest.raises(tv.InterfaceError, match="Must provide correct list of three arguments"):
        tv.addcbmsghandler(f, None)
    with pytest.raises(tv.InterfaceError, match="three arguments"):
        tv.addcbmsghandler(f, None, "high")
    with pytest.raises(tv.InterfaceError, match="two arguments"):
        tv.removecbmsghandler(f)
    tv.addcbmsghandler(f, d1, 1)
    tv.addcbmsghandler(f, d2, 2)
    tv.addcbmsghandler(g, d1, 3)
    # f with any data: both f entries go, g stays.
    tv.removecbmsghandler(f, None)
    with pytest.raises(tv.InterfaceError, match="Callback not found"):
        tv.removecbmsghandler(f, None)
    # Identity, not equality, identifies the data.
    with pytest.raises(tv.InterfaceError, match="Callback not found"):
        tv.removecbmsghandler(g, object())
    tv.removecbmsghandler(None, None)
    with pytest.raises(tv.InterfaceError, match="Callback not found"):
        tv.removecbmsghandler(g, d1)


def test_lazy_start_counting_and_free(run_python):
    # Fresh interpreter: the start count decides whether a creation restarts the libraries.
    out = run_python(
        """
        import tarvo as tv
        tv.setOutputEnabled(False)
        p = tv.problem()
        tv.free()                       # count 1 -> 0: released
        q = tv.problem()                # count 0 -> 1: started again, usable
        q.addVariable(tv.var(), tv.var())
        print(q.attributes.originalcols)
        r = tv.problem()                # count 2
        tv.free()                       # count 1, libraries released anyway
        tv.init()                       # forced start
        s = tv.problem(tv.var(), name="again")
        print(s.name(), len(s.getVariable()))
        """
    )
    assert out.split() == ["2", "again", "1"]
