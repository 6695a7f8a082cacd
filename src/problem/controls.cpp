// Controls and attributes: the catalogue read from the libraries, the control and attribute
// objects (per problem, and the module-level defaults object), setControl/getControl/
// getAttrib, and the module defaults applied to new problems.
#include "problem/problem.h"
#include "module/hooks.h"

#include <cctype>
#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace tarvo {

namespace {

enum ValueType { T_INT = 1, T_DOUBLE = 2, T_STRING = 3 };

struct ControlObject {
    PyObject_HEAD
    PyObject* problem;  // the problem (a reference, kept alive by it); null for the module-level object
    PyObject* dict;     // the catalogue (problem objects) or the library defaults (module level)
    int bound;          // 1 when created for a problem
};

ControlObject* as_ctl(PyObject* o) { return reinterpret_cast<ControlObject*>(o); }

std::string lower(const char* s) {
    std::string r;
    for (size_t i = 0; s[i] && i < 128; ++i) r.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(s[i]))));
    return r;
}

struct Entry {
    int id = 0, type = 0, library = 0;
};

// Reads a catalogue tuple (identifier, type, library); no Python code runs.
Entry entry_of(PyObject* e) {
    Entry r;
    r.id = static_cast<int>(PyLong_AsLong(PyTuple_GET_ITEM(e, 0)));
    r.type = static_cast<int>(PyLong_AsLong(PyTuple_GET_ITEM(e, 1)));
    r.library = static_cast<int>(PyLong_AsLong(PyTuple_GET_ITEM(e, 2)));
    return r;
}

// The catalogue lock is never held while Python code or the engine runs: user code (a
// generator of names, a finaliser run by the collector) may read a control itself, and another
// thread may take the interpreter lock and wait for the catalogue lock. Lookups therefore use
// an exact str key (a str subclass could hash or compare in Python) and copy the entry out.

// A name as an exact str (a new reference), so that dictionary lookups run no Python code.
PyObject* exact_str(PyObject* name) {
    if (PyUnicode_CheckExact(name)) {
        Py_INCREF(name);
        return name;
    }
    return PyUnicode_FromObject(name);
}

// Catalogue entry of a name: 0 found, 1 absent (no exception), -1 error.
int lookup(PyObject* catalogue, PyObject* name, Entry* out) {
    if (!PyUnicode_Check(name)) return 1;
    PyRef key(exact_str(name));
    if (!key) return -1;
    std::lock_guard<std::mutex> g(state.locks->catalogue);
    PyObject* e = PyDict_GetItemWithError(catalogue, key.get());
    if (!e) return PyErr_Occurred() ? -1 : 1;
    *out = entry_of(e);
    return 0;
}

// Edit distance between two names, for suggesting the closest catalogue name.
size_t edit_distance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diag = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diag + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diag = up;
        }
    }
    return row[b.size()];
}

// Raises InterfaceError "<text>: '<name>'", followed by the closest name of the catalogue when
// one is near enough to be a likely misspelling (case differences count as nothing).
void unknown_name_error(const char* text, PyObject* catalogue, PyObject* name) {
    const char* given = PyUnicode_Check(name) ? PyUnicode_AsUTF8(name) : nullptr;
    if (!given) {
        PyErr_Clear();
        PyErr_Format(InterfaceError, "%s: %R", text, name);
        return;
    }
    std::string wanted = lower(given);
    std::vector<std::string> names;
    {
        std::lock_guard<std::mutex> g(state.locks->catalogue);
        PyObject *k, *v;
        Py_ssize_t pos = 0;
        while (PyDict_Next(catalogue, &pos, &k, &v)) {
            const char* s = PyUnicode_Check(k) ? PyUnicode_AsUTF8(k) : nullptr;
            if (s) names.emplace_back(s);
        }
    }
    PyErr_Clear();
    std::string best;
    size_t best_d = std::string::npos;
    for (const std::string& n : names) {
        size_t d = edit_distance(wanted, n);
        if (d < best_d || (d == best_d && n < best)) {
            best_d = d;
            best = n;
        }
    }
    size_t limit = std::max<size_t>(2, wanted.size() / 3);
    if (!best.empty() && best_d <= limit)
        PyErr_Format(InterfaceError, "%s: '%s' (did you mean '%s'?)", text, given, best.c_str());
    else
        PyErr_Format(InterfaceError, "%s: '%s'", text, given);
}

int check_control_value(int type, PyObject* value) {
    switch (type) {
        case T_INT:
            if (is_integer_value(value)) return 0;
            PyErr_SetString(ModelError, "Cannot set non-integer value to an integer control");
            return -1;
        case T_DOUBLE:
            if (is_numeric_value(value)) return 0;
            PyErr_SetString(ModelError, "Cannot set non-numerical value to a floating-point control");
            return -1;
        case T_STRING:
            if (PyUnicode_Check(value)) return 0;
            PyErr_SetString(ModelError, "Cannot set non-string value to a string control");
            return -1;
        default:
            PyErr_SetString(ModelError, "setControl called with unknown ID");
            return -1;
    }
}

int set_control_value(ProblemObject* p, int id, int type, int library, PyObject* value) {
    if (check_control_value(type, value) < 0) return -1;
    int rc;
    if (library != 0) {
        if (!p->slp) {
            PyErr_SetString(InterfaceError, "The nonlinear library is not available for this problem");
            return -1;
        }
        if (type == T_INT) {
            long v = PyLong_AsLong(value);
            if (v == -1 && PyErr_Occurred()) return -1;
            rc = TSLPsetintcontrol(p->slp, id, static_cast<int>(v));
        } else if (type == T_DOUBLE) {
            double v = PyFloat_AsDouble(value);
            if (v == -1.0 && PyErr_Occurred()) return -1;
            rc = TSLPsetdblcontrol(p->slp, id, v);
        } else {
            const char* s = PyUnicode_AsUTF8(value);
            if (!s) return -1;
            rc = TSLPsetstrcontrol(p->slp, id, s);
        }
    } else {
        if (type == T_INT) {
            long long v = PyLong_AsLongLong(value);
            if (v == -1 && PyErr_Occurred()) return -1;
            rc = TRVOsetintcontrol64(p->prob, id, v);
        } else if (type == T_DOUBLE) {
            double v = PyFloat_AsDouble(value);
            if (v == -1.0 && PyErr_Occurred()) return -1;
            rc = TRVOsetdblcontrol(p->prob, id, v);
        } else {
            const char* s = PyUnicode_AsUTF8(value);
            if (!s) return -1;
            rc = TRVOsetstrcontrol(p->prob, id, s);
        }
    }
    if (rc != 0) {
        problem_error(p);
        return -1;
    }
    return 0;
}

PyObject* get_value(ProblemObject* p, int id, int type, bool is_control, int library) {
    int rc;
    PyObject* result = nullptr;
    if (library != 0 && !p->slp) {
        PyErr_SetString(InterfaceError, "The nonlinear library is not available for this problem");
        return nullptr;
    }
    if (type == T_INT) {
        if (library != 0) {
            int v = 0;
            rc = is_control ? TSLPgetintcontrol(p->slp, id, &v) : TSLPgetintattrib(p->slp, id, &v);
            if (rc == 0) result = PyLong_FromLong(v);
        } else {
            int64_t v = 0;
            rc = is_control ? TRVOgetintcontrol64(p->prob, id, &v) : TRVOgetintattrib64(p->prob, id, &v);
            if (rc == 0) result = PyLong_FromLongLong(v);
        }
    } else if (type == T_DOUBLE) {
        double v = 0;
        if (library != 0) rc = is_control ? TSLPgetdblcontrol(p->slp, id, &v) : TSLPgetdblattrib(p->slp, id, &v);
        else rc = is_control ? TRVOgetdblcontrol(p->prob, id, &v) : TRVOgetdblattrib(p->prob, id, &v);
        if (rc == 0) result = PyFloat_FromDouble(v);
    } else if (type == T_STRING) {
        char buf[2048];
        buf[0] = '\0';
        int len = 0;
        if (library != 0) rc = is_control ? TSLPgetstrcontrol(p->slp, id, buf) : TSLPgetstrattrib(p->slp, id, buf);
        else rc = is_control ? TRVOgetstringcontrol(p->prob, id, buf, sizeof buf, &len)
                             : TRVOgetstringattrib(p->prob, id, buf, sizeof buf, &len);
        buf[sizeof buf - 1] = '\0';
        if (rc == 0) result = PyUnicode_FromString(buf);
    } else {
        PyErr_SetString(ModelError, is_control ? "getControl() called with unknown ID" : "getAttrib() called with unknown ID");
        return nullptr;
    }
    if (rc != 0) return problem_error(p);
    return result;
}

// The problem of a problem's object. (A callback's problem kept after its call has no library
// problem any more: reading its controls and attributes fails as its other methods do.)
ProblemObject* owner(ControlObject* c) {
    if (!c->problem) {
        PyErr_SetString(InterfaceError, "The problem of these controls or attributes no longer exists");
        return nullptr;
    }
    return as_prob(c->problem);
}

// Worker of getControl and getAttrib. The catalogue lock is taken only for each lookup (and
// to list the names for the whole-catalogue form), never while values are read or the
// caller's iterator runs.
PyObject* get_values(ProblemObject* p, PyObject* args, bool is_control) {
    PyObject* catalogue = is_control ? state.control_catalogue : state.attribute_catalogue;
    auto value_of = [&](PyObject* name) -> PyObject* {
        Entry e;
        int rc = lookup(catalogue, name, &e);
        if (rc != 0) {
            if (rc > 0)
                unknown_name_error(is_control ? "Requested value of an unknown control"
                                              : "Requested value of an unknown attribute",
                                   catalogue, name);
            return nullptr;
        }
        return get_value(p, e.id, e.type, is_control, e.library);
    };
    auto dict_of = [&](PyObject* names_iter) -> PyObject* {
        PyRef d(PyDict_New());
        if (!d) return nullptr;
        for (;;) {
            PyRef name(PyIter_Next(names_iter));
            if (!name) break;
            PyRef v(value_of(name.get()));
            if (!v) return nullptr;
            if (PyDict_SetItem(d.get(), name.get(), v.get()) < 0) return nullptr;
        }
        if (PyErr_Occurred()) return nullptr;
        return d.release();
    };
    Py_ssize_t n = PyTuple_GET_SIZE(args);
    if (n == 0) {
        std::vector<std::pair<PyRef, Entry>> entries;
        {
            std::lock_guard<std::mutex> g(state.locks->catalogue);
            entries.reserve(static_cast<size_t>(PyDict_GET_SIZE(catalogue)));
            PyObject *k, *e;
            Py_ssize_t pos = 0;
            while (PyDict_Next(catalogue, &pos, &k, &e)) entries.emplace_back(PyRef::borrow(k), entry_of(e));
        }
        PyRef d(PyDict_New());
        if (!d) return nullptr;
        for (auto& [name, e] : entries) {
            PyRef v(e.id == 12013 || e.id == 22013 ? PyLong_FromLong(-1)
                                                   : get_value(p, e.id, e.type, is_control, e.library));
            if (!v || PyDict_SetItem(d.get(), name.get(), v.get()) < 0) return nullptr;
        }
        return d.release();
    }
    if (n == 1) {
        PyObject* a = PyTuple_GET_ITEM(args, 0);
        if (PyTuple_Check(a) || PyList_Check(a)) {
            PyRef it(PyObject_GetIter(a));
            return it ? dict_of(it.get()) : nullptr;
        }
        if (PyIter_Check(a)) return dict_of(a);
        return value_of(a);
    }
    PyRef it(PyObject_GetIter(args));
    return it ? dict_of(it.get()) : nullptr;
}

// ------------------------------------------------------------------ control and attribute types

void ctl_dealloc(PyObject* self) {
    ControlObject* c = as_ctl(self);
    PyObject* problem = c->problem;
    c->problem = nullptr;
    if (problem) {
        ProblemObject* p = as_prob(problem);
        if (p->controls == self) p->controls = nullptr;
        if (p->attributes == self) p->attributes = nullptr;
    }
    Py_CLEAR(c->dict);
    Py_TYPE(self)->tp_free(self);
    Py_XDECREF(problem);  // last: the problem may go with it
}

// An object made by tp_new without going through the module has no catalogue: it is
// treated like one whose problem has gone.
bool uninitialised(PyObject* self) {
    if (as_ctl(self)->dict) return false;
    PyErr_SetString(InterfaceError, "The problem of these controls or attributes no longer exists");
    return true;
}

PyObject* ctl_common_getattr(PyObject* self, PyObject* name, const char* bad, bool* handled) {
    *handled = true;
    if (uninitialised(self)) return nullptr;
    if (!PyUnicode_Check(name)) {
        PyErr_SetString(ModelError, bad);
        return nullptr;
    }
    const char* s = PyUnicode_AsUTF8(name);
    if (!s) {
        PyErr_Clear();
        PyErr_SetString(ModelError, bad);
        return nullptr;
    }
    if (std::strcmp(s, "__dict__") == 0) {
        PyObject* d = as_ctl(self)->dict;
        Py_INCREF(d);
        return d;
    }
    if (std::strcmp(s, "__class__") == 0) {
        Py_INCREF(Py_TYPE(self));
        return reinterpret_cast<PyObject*>(Py_TYPE(self));
    }
    *handled = false;
    return nullptr;
}

PyObject* control_getattro(PyObject* self, PyObject* name) {
    bool handled;
    PyObject* r = ctl_common_getattr(self, name, "Bad control request", &handled);
    if (handled) return r;
    ControlObject* c = as_ctl(self);
    if (!c->bound) {
        PyRef key(exact_str(name));
        if (!key) return nullptr;
        {
            std::lock_guard<std::mutex> g(state.locks->defaults);
            PyObject* v = PyDict_GetItemWithError(state.module_defaults, key.get());
            if (v) {
                Py_INCREF(v);
                return v;
            }
        }
        if (PyErr_Occurred()) return nullptr;
        PyObject* v = PyDict_GetItemWithError(c->dict, name);
        if (v) {
            Py_INCREF(v);
            return v;
        }
        if (!PyErr_Occurred()) unknown_name_error("Incorrect control name", c->dict, name);
        return nullptr;
    }
    Entry e;
    int rc = lookup(state.control_catalogue, name, &e);
    if (rc < 0) return nullptr;
    if (rc > 0) {
        unknown_name_error("Incorrect control name", state.control_catalogue, name);
        return nullptr;
    }
    ProblemObject* p = owner(c);
    if (!p) return nullptr;
    return report_error(c->problem, get_value(p, e.id, e.type, true, e.library));
}

int control_setattro(PyObject* self, PyObject* name, PyObject* value) {
    if (!value) {
        PyErr_SetString(InterfaceError, "Controls cannot be deleted");
        return -1;
    }
    if (uninitialised(self)) return -1;
    if (!PyUnicode_Check(name)) {
        PyErr_SetString(ModelError, "Bad control request");
        return -1;
    }
    Entry e;
    int rc = lookup(state.control_catalogue, name, &e);
    if (rc < 0) return -1;
    if (rc > 0) {
        unknown_name_error("Incorrect control name", state.control_catalogue, name);
        return -1;
    }
    ControlObject* c = as_ctl(self);
    if (!c->bound) {
        if (check_control_value(e.type, value) < 0) return -1;
        // The store happens outside the lock: a resize may run the collector, whose
        // finalisers may read the defaults themselves. The interpreter lock orders the
        // dictionary's own updates.
        PyRef key(exact_str(name));
        return key ? PyDict_SetItem(state.module_defaults, key.get(), value) : -1;
    }
    ProblemObject* p = owner(c);
    if (!p) return -1;
    if (set_control_value(p, e.id, e.type, e.library, value) < 0) {
        report_error(c->problem, nullptr);
        return -1;
    }
    return 0;
}

PyObject* control_repr(PyObject* self) {
    ControlObject* c = as_ctl(self);
    if (uninitialised(self)) return nullptr;
    if (!c->bound) return PyObject_Str(c->dict);
    ProblemObject* p = owner(c);
    if (!p) return nullptr;
    PyRef empty(PyTuple_New(0));
    if (!empty) return nullptr;
    PyRef d(get_values(p, empty.get(), true));
    if (!d) return report_error(c->problem, nullptr);
    return PyObject_Str(d.get());
}

PyObject* attribute_getattro(PyObject* self, PyObject* name) {
    bool handled;
    PyObject* r = ctl_common_getattr(self, name, "Bad attribute request", &handled);
    if (handled) return r;
    Entry e;
    int rc = lookup(state.attribute_catalogue, name, &e);
    if (rc < 0) return nullptr;
    if (rc > 0) {
        unknown_name_error("Incorrect attribute name", state.attribute_catalogue, name);
        return nullptr;
    }
    ControlObject* c = as_ctl(self);
    ProblemObject* p = owner(c);
    if (!p) return nullptr;
    return report_error(c->problem, get_value(p, e.id, e.type, false, e.library));
}

int attribute_setattro(PyObject*, PyObject*, PyObject*) {
    PyErr_SetString(ModelError, "A problem's attribute cannot be set");
    return -1;
}

PyObject* attribute_repr(PyObject* self) {
    ControlObject* c = as_ctl(self);
    if (uninitialised(self)) return nullptr;
    ProblemObject* p = owner(c);
    if (!p) return nullptr;
    PyRef empty(PyTuple_New(0));
    if (!empty) return nullptr;
    PyRef d(get_values(p, empty.get(), false));
    if (!d) return report_error(c->problem, nullptr);
    return PyObject_Str(d.get());
}

PyTypeObject make_type(const char* name, const char* doc, getattrofunc get, setattrofunc set, reprfunc repr) {
    PyTypeObject t = {PyVarObject_HEAD_INIT(nullptr, 0)};
    t.tp_name = name;
    t.tp_basicsize = sizeof(ControlObject);
    t.tp_flags = Py_TPFLAGS_DEFAULT;
    t.tp_doc = doc;
    t.tp_dealloc = ctl_dealloc;
    t.tp_getattro = get;
    t.tp_setattro = set;
    t.tp_repr = repr;
    t.tp_str = repr;
    return t;
}

PyObject* new_ctl(PyTypeObject* type, PyObject* problem, PyObject* dict, int bound) {
    PyObject* o = type->tp_alloc(type, 0);
    if (!o) return nullptr;
    Py_XINCREF(problem);
    as_ctl(o)->problem = problem;
    as_ctl(o)->bound = bound;
    Py_INCREF(dict);
    as_ctl(o)->dict = dict;
    return o;
}

// ------------------------------------------------------------------ catalogue

// Stores one catalogue entry; for a control its current value goes to the module-level
// defaults dictionary (a control whose value cannot be read is left out).
int store_entry(ProblemObject* tmp, const char* raw_name, int id, int type, int library, bool is_control) {
    std::string name = lower(raw_name);
    PyRef entry(Py_BuildValue("(iii)", id, type, library));
    if (!entry) return -1;
    if (!is_control) return PyDict_SetItemString(state.attribute_catalogue, name.c_str(), entry.get());
    PyObject* value = nullptr;
    if (library == 0) {
        if (type == T_INT) {
            int v = 0;
            if (TRVOgetintcontrol(tmp->prob, id, &v) == 0) value = PyLong_FromLong(v);
        } else if (type == T_DOUBLE) {
            double v = 0;
            if (TRVOgetdblcontrol(tmp->prob, id, &v) == 0) value = PyFloat_FromDouble(v);
        } else {
            char buf[1024] = {0};
            if (TRVOgetstrcontrol(tmp->prob, id, buf) == 0) {
                buf[sizeof buf - 1] = '\0';
                value = PyUnicode_FromString(buf);
            }
        }
    } else {
        if (type == T_INT) {
            int v = 0;
            if (TSLPgetintcontrol(tmp->slp, id, &v) == 0) value = PyLong_FromLong(v);
        } else if (type == T_DOUBLE) {
            double v = 0;
            if (TSLPgetdblcontrol(tmp->slp, id, &v) == 0) value = PyFloat_FromDouble(v);
        } else {
            char buf[2048] = {0};
            if (TSLPgetstrcontrol(tmp->slp, id, buf) == 0) {
                buf[sizeof buf - 1] = '\0';
                value = PyUnicode_FromString(buf);
            }
        }
    }
    if (!value) {
        PyErr_Clear();
        return 0;
    }
    PyRef hold(value);
    if (PyDict_SetItemString(state.control_catalogue, name.c_str(), entry.get()) < 0) return -1;
    return PyDict_SetItemString(as_ctl(state.controls)->dict, name.c_str(), value);
}

int read_catalogue_list(ProblemObject* tmp, int library) {
    const int* ids = nullptr;
    const char* const* names = nullptr;
    const int* flags = nullptr;
    int rc = library == 0 ? TRVOgetcalist_c(&ids, &names, &flags)
             : library == 1 ? TSLPgetcalist(&ids, &names, &flags)
                            : TSLPgetKTRcalist(&ids, &names, &flags);
    if (rc != 0 || !ids || !names) {
        PyErr_SetString(PyExc_RuntimeError, "Could not get control/attribute list from Tarvo");
        return -1;
    }
    if (library == 0) {
        for (int i = 0; ids[i] != 0; ++i) {
            int f = flags ? flags[i] : 0;
            int type = (f & 0x1) ? T_INT : (f & 0x2) ? T_DOUBLE : T_STRING;
            if (!names[i]) {
                PyErr_SetString(PyExc_RuntimeError, (f & 0x20) ? "Erroneous control value/type in initialization"
                                                               : "Erroneous attribute value/type in initialization");
                return -1;
            }
            if (store_entry(tmp, names[i], ids[i], type, 0, (f & 0x20) != 0) < 0) return -1;
        }
        return 0;
    }
    int type = 0;
    bool is_control = false;
    for (int i = 1; names[i] && names[i][0]; ++i) {
        int info = 0;
        if (TSLPcontrolcode(names[i], &info) == 0) {
            if (info & 0x200) type = 0;
            else type = (info & 0x1) ? T_INT : (info & 0x2) ? T_DOUBLE : (info & 0x4) ? T_STRING : 0;
            is_control = (info & 0x10) != 0;
        }
        if (type == 0) continue;
        if (store_entry(tmp, names[i], ids[i], type, library, is_control) < 0) return -1;
    }
    return 0;
}

// The old values are released after the defaults lock is let go: releasing one may run a
// finaliser that reads the defaults.
PyObject* mod_setdefaults(PyObject*, PyObject*) {
    PyRef fresh(PyDict_New());
    if (!fresh) return nullptr;
    PyRef old;
    {
        std::lock_guard<std::mutex> g(state.locks->defaults);
        old.reset(state.module_defaults);
        state.module_defaults = fresh.release();
    }
    Py_RETURN_NONE;
}

PyObject* mod_setdefaultcontrol(PyObject*, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"ipar", nullptr};
    PyObject* name = nullptr;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "O:setdefaultcontrol", const_cast<char**>(kwlist), &name)) return nullptr;
    if (!PyUnicode_Check(name)) Py_RETURN_NONE;
    PyRef key(exact_str(name));
    if (!key) return nullptr;
    PyRef old;  // released after the lock, like the values of setdefaults
    {
        std::lock_guard<std::mutex> g(state.locks->defaults);
        old.reset(PyDict_GetItemWithError(state.module_defaults, key.get()));
        if (old) {
            Py_INCREF(old.get());
            if (PyDict_DelItem(state.module_defaults, key.get()) < 0) return nullptr;
        }
    }
    if (PyErr_Occurred()) return nullptr;
    Py_RETURN_NONE;
}

}  // namespace

PyTypeObject ControlType = make_type(
    "tarvo.control",
    "Controls of the optimiser. They can be read and changed for a single problem (problem.controls) and for the "
    "module (tarvo.controls), where they define the control values of problems created afterwards.",
    control_getattro, control_setattro, control_repr);
PyTypeObject AttributeType = make_type("tarvo.attribute",
                                       "Attributes of a problem: they can be read but not modified.",
                                       attribute_getattro, attribute_setattro, attribute_repr);

PyObject* controls_new_module_level(PyObject* dict) { return new_ctl(&ControlType, nullptr, dict, 0); }
// The problem keeps a borrowed pointer to the object while it lives (the object's deallocation
// clears it), so that the problem and its objects form no reference cycle.
PyObject* problem_controls(PyObject* problem) {
    ProblemObject* p = as_prob(problem);
    if (p->controls) {
        Py_INCREF(p->controls);
        return p->controls;
    }
    p->controls = new_ctl(&ControlType, problem, state.control_catalogue, 1);
    return p->controls;
}

PyObject* problem_attributes(PyObject* problem) {
    ProblemObject* p = as_prob(problem);
    if (p->attributes) {
        Py_INCREF(p->attributes);
        return p->attributes;
    }
    p->attributes = new_ctl(&AttributeType, problem, state.attribute_catalogue, 1);
    return p->attributes;
}

int catalogue_build(bool at_import) {
    if (TRVOinit(nullptr) != 0) {
        if (at_import) return 0;
        report_error(nullptr, nullptr);
        return -1;
    }
    bool nl = TSLPinit() == 0;
    {
        std::lock_guard<std::mutex> g(state.locks->environment);
        state.nonlinear_available = nl ? 1 : 0;
    }
    ProblemObject tmp;
    tmp.prob = nullptr;
    tmp.slp = nullptr;
    if (TRVOcreateprob(&tmp.prob) != 0 || (nl && TSLPcreateprob(&tmp.slp, &tmp.prob) != 0)) {
        if (tmp.prob) TRVOdestroyprob(tmp.prob);
        PyErr_SetString(PyExc_RuntimeError, "Could not create temporary problem");
        return -1;
    }
    // The lists are read with the interpreter lock held (which orders the dictionary
    // updates) but without the catalogue lock: reading calls the engine and allocates Python
    // objects, and a lookup elsewhere must never wait on a lock held across such calls.
    int rc = read_catalogue_list(&tmp, 0);
    if (rc == 0 && nl) rc = read_catalogue_list(&tmp, 1);
    if (rc == 0 && nl) rc = read_catalogue_list(&tmp, 2);
    if (tmp.slp) TSLPdestroyprob(tmp.slp);
    TRVOdestroyprob(tmp.prob);
    if (rc != 0) {
        if (!PyErr_Occurred()) report_error(nullptr, nullptr);
        return -1;
    }
    if ((nl && TSLPfree() != 0) || TRVOfree() != 0) {
        if (!PyErr_Occurred()) PyErr_SetString(PyExc_RuntimeError, "Error initializing optimization environment");
        return 1;
    }
    return 0;
}

int problem_apply_default_controls(ProblemObject* p) {
    // Snapshot the defaults under their lock, then set each control with no lock held.
    std::vector<std::pair<PyRef, PyRef>> defaults;
    {
        std::lock_guard<std::mutex> gd(state.locks->defaults);
        PyObject *name, *value;
        Py_ssize_t pos = 0;
        while (PyDict_Next(state.module_defaults, &pos, &name, &value))
            defaults.emplace_back(PyRef::borrow(name), PyRef::borrow(value));
    }
    for (auto& [name, value] : defaults) {
        Entry e;
        int rc = lookup(state.control_catalogue, name.get(), &e);
        if (rc < 0) return -1;
        if (rc > 0) {
            PyErr_SetString(InterfaceError, "Incorrect control name in initialization");
            return -1;
        }
        if (set_control_value(p, e.id, e.type, e.library, value.get()) < 0) return -1;
    }
    return 0;
}

PyObject* problem_setControl(PyObject* self, PyObject* args) {
    ProblemObject* p = as_prob(self);
    Py_ssize_t n = PyTuple_GET_SIZE(args);
    auto set_one = [&](PyObject* name, PyObject* value) -> int {
        Entry e;
        int rc = lookup(state.control_catalogue, name, &e);
        if (rc < 0) return -1;
        if (rc > 0) {
            unknown_name_error("Incorrect control name", state.control_catalogue, name);
            return -1;
        }
        return set_control_value(p, e.id, e.type, e.library, value);
    };
    if (n == 0) {
        PyErr_SetString(ModelError, "setControl requires at least one argument of type dictionary or two elements: parameter, value");
        return nullptr;
    }
    if (n == 1) {
        PyObject* d = PyTuple_GET_ITEM(args, 0);
        if (!PyDict_Check(d)) {
            PyErr_SetString(ModelError, "Single argument to setControl must be a dictionary");
            return nullptr;
        }
        PyRef items(PyDict_Items(d));  // a snapshot: setting a control may run code that edits d
        if (!items) return nullptr;
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.get()); ++i) {
            PyObject* kv = PyList_GET_ITEM(items.get(), i);
            if (set_one(PyTuple_GET_ITEM(kv, 0), PyTuple_GET_ITEM(kv, 1)) < 0) return report_error(self, nullptr);
        }
        Py_RETURN_NONE;
    }
    if (n == 2) {
        if (set_one(PyTuple_GET_ITEM(args, 0), PyTuple_GET_ITEM(args, 1)) < 0) return report_error(self, nullptr);
        Py_RETURN_NONE;
    }
    PyErr_SetString(ModelError, "setControl: arguments mismatch");
    return nullptr;
}

PyObject* problem_getControl(PyObject* self, PyObject* args) {
    return report_error(self, get_values(as_prob(self), args, true));
}

PyObject* problem_getAttrib(PyObject* self, PyObject* args) {
    return report_error(self, get_values(as_prob(self), args, false));
}

PyMethodDef controls_functions[] = {
    {"setdefaultcontrol", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(mod_setdefaultcontrol)),
     METH_VARARGS | METH_KEYWORDS, "setdefaultcontrol(ipar)\n--\n\nForget the module-level default set for control ipar (a name), so new problems get "
     "the library default again. Returns None; raises InterfaceError for an unknown control."},
    {"setdefaults", mod_setdefaults, METH_NOARGS, "setdefaults()\n--\n\nForget every module-level control default, so new problems get the library defaults. "
     "Returns None."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace tarvo
