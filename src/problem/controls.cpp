// Controls and attributes: the catalogue read from the libraries, the control and attribute
// objects (per problem, and the module-level defaults object), setControl/getControl/
// getAttrib, and the module defaults applied to new problems.
#include "problem/problem.h"
#include "module/hooks.h"

#include <cctype>
#include <cstring>
#include <string>

namespace tarvo {

namespace {

enum ValueType { T_INT = 1, T_DOUBLE = 2, T_STRING = 3 };

struct ControlObject {
    PyObject_HEAD
    PyObject* problem;  // borrowed owning problem; null for the module-level object
    PyObject* dict;     // the catalogue (problem objects) or the library defaults (module level)
    int bound;          // 1 when created for a problem (the problem may have gone since)
};

ControlObject* as_ctl(PyObject* o) { return reinterpret_cast<ControlObject*>(o); }

// Catalogue entry of a name: 0 found, 1 absent, -1 error.
int lookup(PyObject* catalogue, PyObject* name, int* id, int* type, int* library) {
    std::lock_guard<std::mutex> g(state.locks->catalogue);
    PyObject* e = PyDict_GetItemWithError(catalogue, name);
    if (!e) return PyErr_Occurred() ? -1 : 1;
    *id = static_cast<int>(PyLong_AsLong(PyTuple_GET_ITEM(e, 0)));
    *type = static_cast<int>(PyLong_AsLong(PyTuple_GET_ITEM(e, 1)));
    *library = static_cast<int>(PyLong_AsLong(PyTuple_GET_ITEM(e, 2)));
    return 0;
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

ProblemObject* owner(ControlObject* c) {
    if (!c->problem) {
        PyErr_SetString(InterfaceError, "The problem of these controls or attributes no longer exists");
        return nullptr;
    }
    return as_prob(c->problem);
}

// Worker of getControl and getAttrib.
PyObject* get_values(ProblemObject* p, PyObject* args, bool is_control) {
    PyObject* catalogue = is_control ? state.control_catalogue : state.attribute_catalogue;
    std::unique_lock<std::mutex> g(state.locks->catalogue);
    auto value_of = [&](PyObject* name) -> PyObject* {
        PyObject* e = PyUnicode_Check(name) ? PyDict_GetItemWithError(catalogue, name) : nullptr;
        if (!e) return nullptr;
        return get_value(p, static_cast<int>(PyLong_AsLong(PyTuple_GET_ITEM(e, 0))),
                         static_cast<int>(PyLong_AsLong(PyTuple_GET_ITEM(e, 1))), is_control,
                         static_cast<int>(PyLong_AsLong(PyTuple_GET_ITEM(e, 2))));
    };
    auto fail = [&]() -> PyObject* {
        if (!PyErr_Occurred())
            PyErr_SetString(InterfaceError, is_control ? "Requested value of an unknown control"
                                                       : "Requested value of an unknown attribute");
        return nullptr;
    };
    auto dict_of = [&](PyObject* names_iter) -> PyObject* {
        PyRef d(PyDict_New());
        if (!d) return nullptr;
        for (;;) {
            PyRef name(PyIter_Next(names_iter));
            if (!name) break;
            PyRef v(value_of(name.get()));
            if (!v) return fail();
            if (PyDict_SetItem(d.get(), name.get(), v.get()) < 0) return nullptr;
        }
        if (PyErr_Occurred()) return nullptr;
        return d.release();
    };
    Py_ssize_t n = PyTuple_GET_SIZE(args);
    if (n == 0) {
        PyRef d(PyDict_New());
        if (!d) return nullptr;
        PyObject *k, *e;
        Py_ssize_t pos = 0;
        while (PyDict_Next(catalogue, &pos, &k, &e)) {
            long id = PyLong_AsLong(PyTuple_GET_ITEM(e, 0));
            PyRef v(id == 12013 || id == 22013 ? PyLong_FromLong(-1) : value_of(k));
            if (!v) return fail();
            if (PyDict_SetItem(d.get(), k, v.get()) < 0) return nullptr;
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
        PyObject* v = value_of(a);
        return v ? v : fail();
    }
    PyRef it(PyObject_GetIter(args));
    return it ? dict_of(it.get()) : nullptr;
}

// ------------------------------------------------------------------ control and attribute types

void ctl_dealloc(PyObject* self) {
    Py_CLEAR(as_ctl(self)->dict);
    Py_TYPE(self)->tp_free(self);
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
        {
            std::lock_guard<std::mutex> g(state.locks->defaults);
            PyObject* v = PyDict_GetItemWithError(state.module_defaults, name);
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
        if (!PyErr_Occurred()) PyErr_SetString(InterfaceError, "Incorrect control name");
        return nullptr;
    }
    int id, type, lib;
    int rc = lookup(state.control_catalogue, name, &id, &type, &lib);
    if (rc < 0) return nullptr;
    if (rc > 0) {
        PyErr_SetString(InterfaceError, "Incorrect control name");
        return nullptr;
    }
    ProblemObject* p = owner(c);
    if (!p) return nullptr;
    return report_error(c->problem, get_value(p, id, type, true, lib));
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
    int id, type, lib;
    int rc = lookup(state.control_catalogue, name, &id, &type, &lib);
    if (rc < 0) return -1;
    if (rc > 0) {
        PyErr_SetString(InterfaceError, "Incorrect control name");
        return -1;
    }
    ControlObject* c = as_ctl(self);
    if (!c->bound) {
        if (check_control_value(type, value) < 0) return -1;
        std::lock_guard<std::mutex> g(state.locks->defaults);
        return PyDict_SetItem(state.module_defaults, name, value);
    }
    ProblemObject* p = owner(c);
    if (!p) return -1;
    if (set_control_value(p, id, type, lib, value) < 0) {
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
    int id, type, lib;
    int rc = lookup(state.attribute_catalogue, name, &id, &type, &lib);
    if (rc < 0) return nullptr;
    if (rc > 0) {
        PyErr_SetString(InterfaceError, "Incorrect attribute name");
        return nullptr;
    }
    ControlObject* c = as_ctl(self);
    ProblemObject* p = owner(c);
    if (!p) return nullptr;
    return report_error(c->problem, get_value(p, id, type, false, lib));
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
    as_ctl(o)->problem = problem;
    as_ctl(o)->bound = bound;
    Py_INCREF(dict);
    as_ctl(o)->dict = dict;
    return o;
}

// ------------------------------------------------------------------ catalogue

std::string lower(const char* s) {
    std::string r;
    for (size_t i = 0; s[i] && i < 128; ++i) r.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(s[i]))));
    return r;
}

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

PyObject* mod_setdefaults(PyObject*, PyObject*) {
    std::lock_guard<std::mutex> g(state.locks->defaults);
    PyDict_Clear(state.module_defaults);
    Py_RETURN_NONE;
}

PyObject* mod_setdefaultcontrol(PyObject*, PyObject* args, PyObject* kw) {
    static const char* kwlist[] = {"ipar", nullptr};
    PyObject* name = nullptr;
    if (!PyArg_ParseTupleAndKeywords(args, kw, "O:setdefaultcontrol", const_cast<char**>(kwlist), &name)) return nullptr;
    std::lock_guard<std::mutex> g(state.locks->defaults);
    if (PyUnicode_Check(name)) {
        PyObject* v = PyDict_GetItemWithError(state.module_defaults, name);
        if (v && PyDict_DelItem(state.module_defaults, name) < 0) return nullptr;
        if (PyErr_Occurred()) return nullptr;
    }
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
PyObject* new_problem_controls(PyObject* problem) { return new_ctl(&ControlType, problem, state.control_catalogue, 1); }
PyObject* new_problem_attributes(PyObject* problem) { return new_ctl(&AttributeType, problem, state.attribute_catalogue, 1); }

void detach_controls(PyObject* controls_or_attributes) {
    if (controls_or_attributes) as_ctl(controls_or_attributes)->problem = nullptr;
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
    int rc;
    {
        std::lock_guard<std::mutex> g(state.locks->catalogue);
        rc = read_catalogue_list(&tmp, 0);
        if (rc == 0 && nl) rc = read_catalogue_list(&tmp, 1);
        if (rc == 0 && nl) rc = read_catalogue_list(&tmp, 2);
        if (tmp.slp) TSLPdestroyprob(tmp.slp);
        TRVOdestroyprob(tmp.prob);
    }
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
    std::lock_guard<std::mutex> gc(state.locks->catalogue);
    std::lock_guard<std::mutex> gd(state.locks->defaults);
    PyObject *name, *value;
    Py_ssize_t pos = 0;
    while (PyDict_Next(state.module_defaults, &pos, &name, &value)) {
        PyObject* e = PyDict_GetItemWithError(state.control_catalogue, name);
        if (!e) {
            if (!PyErr_Occurred()) PyErr_SetString(InterfaceError, "Incorrect control name in initialization");
            return -1;
        }
        if (set_control_value(p, static_cast<int>(PyLong_AsLong(PyTuple_GET_ITEM(e, 0))),
                              static_cast<int>(PyLong_AsLong(PyTuple_GET_ITEM(e, 1))),
                              static_cast<int>(PyLong_AsLong(PyTuple_GET_ITEM(e, 2))), value) < 0)
            return -1;
    }
    return 0;
}

PyObject* problem_setControl(PyObject* self, PyObject* args) {
    ProblemObject* p = as_prob(self);
    Py_ssize_t n = PyTuple_GET_SIZE(args);
    auto set_one = [&](PyObject* name, PyObject* value) -> int {
        int id, type, lib;
        int rc = lookup(state.control_catalogue, name, &id, &type, &lib);
        if (rc < 0) return -1;
        if (rc > 0) {
            PyErr_SetString(InterfaceError, "Incorrect control name");
            return -1;
        }
        return set_control_value(p, id, type, lib, value);
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
        PyObject *k, *v;
        Py_ssize_t pos = 0;
        while (PyDict_Next(d, &pos, &k, &v))
            if (set_one(k, v) < 0) return report_error(self, nullptr);
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
