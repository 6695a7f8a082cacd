// The template every low-level method follows: keyword parsing, converted arrays with one
// shared length, single-index and scalar arguments, filled output lists, and the objects that
// columns and rows added by the low-level methods get in the problem's lists and maps.
#include "problem/lowlevel.h"
#include "model/algebra.h"
#include "model/model.h"

#include <cstdlib>
#include <cstring>

namespace tarvo {
namespace ll {

Args::Args(PyObject* self, PyObject* args, PyObject* kw, const char* method, std::initializer_list<const char*> names)
    : p(as_prob(self)) {
    // A method that may change rows or columns first gives the constraints their bodies back,
    // however it was reached (also as problem.method(p, ...)).
    if (p->detached > 0 && std::strncmp(method, "get", 3) != 0 && restore_bodies(p) < 0) return;
    const char* nm[32];
    bool req[32];
    for (const char* s : names) {
        req[n] = s[0] != '?';
        nm[n] = req[n] ? s : s + 1;
        v[n++] = nullptr;
    }
    Py_ssize_t npos = args ? PyTuple_GET_SIZE(args) : 0;
    if (npos > n) {
        PyErr_Format(PyExc_TypeError, "%s() takes at most %d arguments (%zd given)", method, n, npos);
        return;
    }
    for (Py_ssize_t i = 0; i < npos; ++i) v[i] = PyTuple_GET_ITEM(args, i);
    if (kw) {
        PyObject *key, *value;
        Py_ssize_t pos = 0;
        while (PyDict_Next(kw, &pos, &key, &value)) {
            const char* k = PyUnicode_Check(key) ? PyUnicode_AsUTF8(key) : nullptr;
            if (!k) {
                PyErr_Format(PyExc_TypeError, "keywords must be strings");
                return;
            }
            int i = 0;
            while (i < n && std::strcmp(nm[i], k) != 0) ++i;
            if (i == n) {
                PyErr_Format(PyExc_TypeError, "'%s' is an invalid keyword argument for %s()", k, method);
                return;
            }
            if (v[i]) {
                PyErr_Format(PyExc_TypeError, "argument for %s() given by name ('%s') and position (%d)", method, k, i + 1);
                return;
            }
            v[i] = value;
        }
    }
    for (int i = 0; i < n; ++i) {
        if (v[i]) continue;
        if (req[i]) {
            PyErr_Format(PyExc_TypeError, "%s() missing required argument '%s' (pos %d)", method, nm[i], i + 1);
            return;
        }
        v[i] = Py_None;
    }
    ok = true;
}

bool Args::missing(std::initializer_list<int> which, const char* msg) const {
    for (int i : which)
        if (v[i] == Py_None) {
            PyErr_SetString(InterfaceError, msg);
            return true;
        }
    return false;
}

Arrays::~Arrays() {
    for (auto& a : owned) conv_free(a.first, n < 0 ? 0 : n, a.second);
}

namespace {

// A one-dimensional NumPy array of numbers converted straight into the native element type:
// index and integer arrays from integer dtypes (range-checked), values from any real dtype.
// 1 converted, 0 not such an array (the general converter takes it), -1 error.
int numpy_fast(PyObject* src, int type, int64_t* n, void** out) {
    if (!PyArray_Check(src)) return 0;
    PyArrayObject* a = reinterpret_cast<PyArrayObject*>(src);
    if (PyArray_NDIM(a) != 1) return 0;
    char kind = PyArray_DESCR(a)->kind;
    bool integer = kind == 'i' || kind == 'u';
    bool index = type == CONV_ROW || type == CONV_COL || type == CONV_SET || type == CONV_INT || type == CONV_INT64;
    if (kind == 'c' && type == CONV_DOUBLE) {
        PyErr_SetString(PyExc_TypeError, "Complex array where real numbers are expected");
        return -1;
    }
    if (index ? !integer : (type != CONV_DOUBLE || !(integer || kind == 'f'))) return 0;
    int64_t len = PyArray_DIM(a, 0);
    if (*n >= 0 && *n != len) {
        PyErr_Format(ModelError, "Mismatched lengths in arguments: expected %d, found %d", static_cast<int>(*n),
                     static_cast<int>(len));
        return -1;
    }
    PyRef cast(PyArray_FROMANY(src, type == CONV_DOUBLE ? NPY_DOUBLE : NPY_INT64, 1, 1,
                               NPY_ARRAY_C_CONTIGUOUS | NPY_ARRAY_ALIGNED | NPY_ARRAY_FORCECAST));
    if (!cast) return -1;
    size_t esize = conv_elem_size(type);
    void* mem = std::malloc(len > 0 ? static_cast<size_t>(len) * esize : 1);
    if (!mem) {
        PyErr_NoMemory();
        return -1;
    }
    const void* data = PyArray_DATA(reinterpret_cast<PyArrayObject*>(cast.get()));
    if (esize == 8) {
        if (len > 0) std::memcpy(mem, data, static_cast<size_t>(len) * 8);
    } else {
        const int64_t* v = static_cast<const int64_t*>(data);
        int* d = static_cast<int*>(mem);
        for (int64_t i = 0; i < len; ++i) {
            if (v[i] < INT32_MIN || v[i] > INT32_MAX) {
                std::free(mem);
                PyErr_Format(ModelError, "Index %lld is out of range", static_cast<long long>(v[i]));
                return -1;
            }
            d[i] = static_cast<int>(v[i]);
        }
    }
    *n = len;
    *out = mem;
    return 1;
}

}  // namespace

void* Arrays::get(PyObject* src, int type) {
    // After a failed conversion (in this group or another) nothing more is converted.
    if (!ok || PyErr_Occurred()) {
        ok = false;
        return nullptr;
    }
    void* a = nullptr;
    int fast = src && src != Py_None ? numpy_fast(src, type, &n, &a) : 0;
    if (fast < 0) {
        ok = false;
        return nullptr;
    }
    if (fast > 0) {
        owned.emplace_back(a, type);
        return a;
    }
    if (conv_obj2arr(p, &n, src, &a, type) < 0) {
        ok = false;
        // An element of an integer array that is not an integer fails without a message.
        if (!PyErr_Occurred()) PyErr_SetString(ModelError, "An element of an integer argument list is not an integer");
        return nullptr;
    }
    if (a) owned.emplace_back(a, type);
    return a;
}

PyObject* done(ProblemObject* p, int rc) {
    if (PyErr_Occurred()) return nullptr;
    if (rc != 0) return problem_error(p);
    Py_RETURN_NONE;
}

int fill(ProblemObject* p, PyObject* target, int64_t n, const void* array, int type) {
    if (!target || target == Py_None) return 0;
    if (n == 0) {
        if (!PyList_Check(target)) {
            PyErr_SetString(ModelError, "Unexpected argument to conv_arr2obj");
            return -1;
        }
        return PyList_SetSlice(target, 0, PyList_GET_SIZE(target), nullptr);
    }
    return conv_arr2obj(p, n, array, target, type);
}

int index_arg(ProblemObject* p, PyObject* o, int type, int* index) {
    if (o == Py_None) {
        PyErr_SetString(ModelError, type == CONV_ROW ? "A row index is needed, not None" : "A column index is needed, not None");
        return -1;
    }
    if (conv_index(o, p, index, type) < 0) {
        if (!PyErr_Occurred()) problem_error(p);
        return -1;
    }
    return 0;
}

int int_arg(PyObject* o, const char* name, int* value) {
    if (!is_integer_value(o)) {
        PyErr_Format(ModelError, "Argument %s must be an integer", name);
        return -1;
    }
    long long v = PyLong_AsLongLong(o);
    if (v == -1 && PyErr_Occurred()) return -1;
    if (v < INT32_MIN || v > INT32_MAX) {
        PyErr_Format(ModelError, "Argument %s is out of range", name);
        return -1;
    }
    *value = static_cast<int>(v);
    return 0;
}

int char_arg(PyObject* o, const char* name, char* value) {
    PyRef holder;
    const char* s = (PyUnicode_Check(o) || PyBytes_Check(o)) ? str_arg(o, name, holder) : nullptr;
    if (!s || std::strlen(s) != 1) {
        if (!PyErr_Occurred()) PyErr_Format(ModelError, "Argument %s must be a string of one character", name);
        return -1;
    }
    *value = s[0];
    return 0;
}

const char* str_arg(PyObject* o, const char* name, PyRef& holder) {
    if (!PyUnicode_Check(o) && !PyBytes_Check(o)) {
        PyErr_Format(ModelError, "Argument %s must be a string", name);
        return nullptr;
    }
    PyObject* tmp = nullptr;
    const char* s = conv_str(o, nullptr, &tmp);
    holder.reset(tmp);
    return s;
}

const char* flags_arg(PyObject* o, PyRef& holder) {
    if (!o || o == Py_None) return "";
    return str_arg(o, "flags", holder);
}

int rows(ProblemObject* p, int* n) { return prob_int_attrib(p, TRVO_ORIGINALROWS, n); }
int cols(ProblemObject* p, int* n) { return prob_int_attrib(p, TRVO_ORIGINALCOLS, n); }

// ---------------------------------------------------------------- objects of new columns and rows

namespace {

int check_names(int n, PyObject* names) {
    if (names == Py_None) return 0;
    if (!PyList_Check(names) && !PyTuple_Check(names)) {
        PyErr_SetString(ModelError, "Incorrect length of variable name list");
        return -1;
    }
    if (PySequence_Fast_GET_SIZE(names) != n) {
        PyErr_SetString(ModelError, "Incorrect length of variable name list");
        return -1;
    }
    for (int i = 0; i < n; ++i) {
        PyObject* s = PySequence_Fast_GET_ITEM(names, i);
        if (!PyUnicode_Check(s) && !PyBytes_Check(s)) {
            PyErr_Format(ModelError, "Erroneous name for variable %d", i);
            return -1;
        }
    }
    return 0;
}

}  // namespace

// Hands the library the names of the new columns (kind 2) or rows (kind 1) from `first` on,
// one per object of `made`, already named from `names`: the given name, or for an object left
// unnamed (no names, or the empty name) its default name "C<serial>" or "R<serial>". So the
// library, written files and the objects agree, and a default name does not change when
// columns or rows before it are deleted.
int name_in_library(ProblemObject* p, int kind, int first, PyObject* made, PyObject* names) {
    Py_ssize_t n = PyList_GET_SIZE(made);
    if (n == 0) return 0;
    const char* message = kind == 2 ? "Could not amend variable map" : "Internal error -- Could not amend constraint map";
    std::string buf;
    try {
        buf.reserve(static_cast<size_t>(n) * 8);
    } catch (const std::bad_alloc&) {
        // Only a head start.
    }
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* o = PyList_GET_ITEM(made, i);
        char text[24];
        bool unnamed = kind == 2 ? var_default_name_text(reinterpret_cast<VarObject*>(o)->word, text)
                                 : con_default_name_text(reinterpret_cast<ConstraintObject*>(o)->word, text);
        const char* s = text;
        PyRef tmp;
        if (!unnamed && (names == Py_None || !(s = str_arg(PySequence_Fast_GET_ITEM(names, i), "names", tmp)))) {
            PyErr_Clear();
            PyErr_Format(ModelError, "Erroneous name for variable %d", static_cast<int>(i));
            return -1;
        }
        if (alloc_guard_status(message, [&] { buf.append(s); buf.push_back('\0'); return 0; }) < 0) return -1;
    }
    if (TRVOaddnames(p->prob, kind, buf.data(), first, first + static_cast<int>(n) - 1) != 0) {
        problem_error(p);
        return -1;
    }
    return 0;
}

namespace {

PyObject* name_object(PyObject* names, int i) {
    PyObject* s = PySequence_Fast_GET_ITEM(names, i);
    if (PyBytes_Check(s)) return PyUnicode_DecodeUTF8(PyBytes_AS_STRING(s), PyBytes_GET_SIZE(s), "replace");
    Py_INCREF(s);
    return s;
}

// Removes the objects appended from position `from` on and their map entries.
void drop_tail(PyObject* list, IndexMap* map, Py_ssize_t from, bool vars) {
    Py_ssize_t end = PyList_GET_SIZE(list);
    for (Py_ssize_t i = from; i < end; ++i) {
        PyObject* o = PyList_GET_ITEM(list, i);
        map->erase(vars ? var_serial(o) : con_serial(o));
    }
    PyList_SetSlice(list, from, end, nullptr);
}

// Undoes an addition that failed after the library took it: the objects appended from list
// position `from` on, and the n library columns (rows) from `first` on. Returns -1 with the
// pending exception kept.
int take_back(ProblemObject* p, bool columns, int first, int n, Py_ssize_t from) {
    PyObject *t, *v, *tb;
    PyErr_Fetch(&t, &v, &tb);
    drop_tail(columns ? p->vars : p->cons, columns ? p->colmap : p->rowmap, from, columns);
    std::vector<int> idx(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) idx[static_cast<size_t>(i)] = first + i;
    if (columns) TRVOdelcols(p->prob, n, idx.data());
    else TRVOdelrows(p->prob, n, idx.data());
    PyErr_Restore(t, v, tb);
    return -1;
}

int type_code(char t) {
    switch (t) {
        case 'C': return 0;
        case 'B': return 1;
        case 'I': return 2;
        case 'S': return 3;
        case 'R': return 4;
        case 'P': return 5;
        default: return -1;
    }
}

}  // namespace

void set_var_type(PyObject* var, char type) {
    int code = type_code(type);
    if (code < 0) return;
    uint64_t* word = &reinterpret_cast<VarObject*>(var)->word;
    *word = (*word & ~(uint64_t(7) << 60)) | (static_cast<uint64_t>(code) << 60);
}

int check_new_columns(int n, PyObject* names, PyObject* types, std::vector<char>& typechars) {
    if (check_names(n, names) < 0) return -1;
    typechars.clear();
    if (types == Py_None) return 0;
    if ((!PyList_Check(types) && !PyTuple_Check(types)) || PySequence_Fast_GET_SIZE(types) != n) {
        PyErr_SetString(ModelError, "Incorrect length of variable type list");
        return -1;
    }
    typechars.resize(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        PyObject* t = PySequence_Fast_GET_ITEM(types, i);
        PyRef tmp;
        const char* s = (PyUnicode_Check(t) || PyBytes_Check(t)) ? str_arg(t, "types", tmp) : nullptr;
        if (!s) {
            PyErr_Clear();
            PyErr_Format(ModelError, "Cannot get variable type with index %d", i);
            return -1;
        }
        if (std::strlen(s) != 1 || type_code(s[0]) < 0) {
            PyErr_SetString(ModelError, "Incorrect variable type");
            return -1;
        }
        typechars[static_cast<size_t>(i)] = s[0];
    }
    return 0;
}

int check_new_rows(int n, PyObject* names) { return check_names(n, names); }

int adopt_columns(ProblemObject* p, int c0, int n, PyObject* names, const std::vector<char>& types,
                  const double* lb, const double* ub) {
    Py_ssize_t from = PyList_GET_SIZE(p->vars);
    auto undo = [&] { return take_back(p, true, c0, n, from); };
    if (!types.empty()) {
        std::vector<int> idx(static_cast<size_t>(n));
        for (int i = 0; i < n; ++i) idx[static_cast<size_t>(i)] = c0 + i;
        if (TRVOchgcoltype(p->prob, n, idx.data(), types.data()) != 0) return problem_error(p), undo();
    }
    // The objects are made in one pass and mapped in another.
    PyRef made(alloc_guard("Could not amend variable map",
                           [&] { return new_var_list(n, lb, ub, types.empty() ? nullptr : types.data()); }));
    if (!made) return undo();
    if (names != Py_None)
        for (int i = 0; i < n; ++i) {
            PyRef name(name_object(names, i));
            if (!name) return undo();
            uint64_t* word = &reinterpret_cast<VarObject*>(PyList_GET_ITEM(made.get(), i))->word;
            if (alloc_guard_status("Could not amend variable map", [&] { var_set_name(word, name.get()); return 0; }) < 0)
                return undo();
        }
    if (name_in_library(p, 2, c0, made.get(), names) < 0) return undo();
    if (append_new_objects(p->vars, p->colmap, made.get(), c0, "Could not amend variable map") < 0) return undo();
    return 0;
}

int adopt_rows(ProblemObject* p, int r0, int n, PyObject* names, const char* qrtype, const double* rhs,
               const double* rng) {
    Py_ssize_t from = PyList_GET_SIZE(p->cons);
    auto undo = [&] { return take_back(p, false, r0, n, from); };
    // The objects are made in one pass and mapped in another; their bounds say what the rows
    // say (as for a problem read from a file).
    const char* message = "Internal error -- Could not amend constraint map";
    PyRef made(alloc_guard(message, [&] { return new_con_list(n, qrtype, rhs, rng); }));
    if (!made) return undo();
    if (names != Py_None)
        for (int i = 0; i < n; ++i) {
            PyRef name(name_object(names, i));
            if (!name) return undo();
            uint64_t* word = &reinterpret_cast<ConstraintObject*>(PyList_GET_ITEM(made.get(), i))->word;
            if (alloc_guard_status(message, [&] { con_set_name(word, name.get()); return 0; }) < 0) return undo();
        }
    if (name_in_library(p, 1, r0, made.get(), names) < 0) return undo();
    if (append_new_objects(p->cons, p->rowmap, made.get(), r0, message) < 0) return undo();
    return 0;
}

}  // namespace ll
}  // namespace tarvo
