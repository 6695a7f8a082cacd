// Argument conversion between Python objects and the native arrays the library takes and
// returns: one element-type code per array, one shared length per call.
#include "problem/problem.h"
#include "model/model.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace tarvo {

// An index given as a Python int or as any NumPy integer scalar (np.int64(1) from an arange,
// an element of an int32 or uint8 array, ...): all of them name a position, never a constant.
bool is_index_integer(PyObject* o) { return PyLong_Check(o) || PyArray_IsScalar(o, Integer); }

// Value of an index integer; -1 with an exception set when it does not fit in 64 bits.
long long index_integer_value(PyObject* o) {
    if (PyLong_Check(o)) return PyLong_AsLongLong(o);
    if (PyArray_IsScalar(o, Long)) return PyArrayScalar_VAL(o, Long);
    if (PyArray_IsScalar(o, Int)) return PyArrayScalar_VAL(o, Int);
    PyRef v(PyNumber_Index(o));
    return v ? PyLong_AsLongLong(v.get()) : -1;
}

int conv_real(PyObject* o, double* out) {
    if (PyFloat_CheckExact(o)) {
        *out = PyFloat_AS_DOUBLE(o);
        return 0;
    }
    if (PyComplex_Check(o) || PyArray_IsScalar(o, ComplexFloating)) {
        PyErr_Format(PyExc_TypeError, "Complex value %R where a real number is expected", o);
        return -1;
    }
    double v = PyFloat_AsDouble(o);
    if (v == -1.0 && PyErr_Occurred()) return -1;
    *out = v;
    return 0;
}

size_t conv_elem_size(int type) {
    switch (type) {
        case CONV_ROW: case CONV_COL: case CONV_SET: case CONV_INT: case CONV_ROWCOL: return 4;
        case CONV_CHAR: case CONV_CHARCODE: return 1;
        default: return 8;
    }
}

const char* conv_str(PyObject* obj, char** copy, PyObject** tmp) {
    const char* text = nullptr;
    if (PyUnicode_Check(obj)) {
        text = PyUnicode_AsUTF8(obj);
        if (!text) {
            PyErr_Clear();
            PyObject* b = PyUnicode_AsASCIIString(obj);
            if (!b) return nullptr;
            if (tmp) {
                Py_XDECREF(*tmp);
                *tmp = b;
            } else {
                // Without a slot the bytes object must outlive the call: keep the copy only.
                if (!copy) {
                    Py_DECREF(b);
                    PyErr_SetString(ModelError, "Invalid string");
                    return nullptr;
                }
            }
            text = PyBytes_AS_STRING(b);
            if (!tmp) {
                char* c = static_cast<char*>(std::malloc(std::strlen(text) + 1));
                if (!c) { Py_DECREF(b); PyErr_NoMemory(); return nullptr; }
                std::strcpy(c, text);
                std::free(*copy);
                *copy = c;
                Py_DECREF(b);
                return c;
            }
        }
    } else if (PyBytes_Check(obj)) {
        text = PyBytes_AS_STRING(obj);
    } else {
        if (!PyErr_Occurred()) PyErr_Format(ModelError, "Invalid string: %S", obj);
        return nullptr;
    }
    if (copy) {
        size_t n = std::strlen(text) + 1;
        char* c = static_cast<char*>(std::malloc(n));
        if (!c) { PyErr_NoMemory(); return nullptr; }
        std::memcpy(c, text, n);
        std::free(*copy);
        *copy = c;
    }
    return text;
}

int conv_index(PyObject* obj, ProblemObject* p, int* index, int type) {
    if (is_index_integer(obj)) {
        long long v = index_integer_value(obj);
        if (v == -1 && PyErr_Occurred()) return -1;
        // The library checks the range of 32-bit indices; a wider value would wrap round
        // to some other, valid-looking index.
        if (v < INT_MIN || v > INT_MAX) {
            PyErr_SetString(ModelError, "Index out of range");
            return -1;
        }
        *index = static_cast<int>(v);
        return 0;
    }
    if (PyUnicode_Check(obj) || PyBytes_Check(obj)) {
        PyObject* tmp = nullptr;
        const char* name = conv_str(obj, nullptr, &tmp);
        if (!name) return -1;
        int idx = -1;
        int rc = TRVOgetindex(p->prob, type == CONV_ROW ? 1 : 2, name, &idx);
        Py_XDECREF(tmp);
        if (rc != 0) {
            problem_error(p);
            return -1;
        }
        *index = idx;
        return 0;
    }
    if (type == CONV_COL) {
        if (is_var(obj)) {
            auto it = p->colmap->find(var_serial(obj));
            if (it == p->colmap->end()) {
                PyErr_Format(ModelError, "Variable %S not in problem", obj);
                return -1;
            }
            *index = it->second;
            return 0;
        }
        PyErr_Format(ModelError, "Invalid variable object %S", obj);
        return -1;
    }
    if (type == CONV_ROW) {
        if (is_constraint(obj)) {
            auto it = p->rowmap->find(con_serial(obj));
            if (it == p->rowmap->end()) {
                PyErr_Format(ModelError, "Constraint %S not in problem", obj);
                return -1;
            }
            *index = it->second;
            return 0;
        }
        PyErr_Format(ModelError, "Invalid constraint object %S", obj);
        return -1;
    }
    if (type == CONV_SET) {
        if (is_sos(obj)) {
            auto it = p->setmap->find(reinterpret_cast<SosObject*>(obj)->serial);
            if (it == p->setmap->end()) {
                PyErr_Format(ModelError, "SOS %S not in problem", obj);
                return -1;
            }
            *index = it->second;
            return 0;
        }
        PyErr_Format(ModelError, "Invalid SOS object %S", obj);
        return -1;
    }
    PyErr_Format(ModelError, "Invalid object %S", obj);
    return -1;
}

int conv_item(ProblemObject* p, PyObject* obj, void* array, int64_t pos, int type) {
    switch (type) {
        case CONV_ROW: case CONV_COL: case CONV_SET:
            return conv_index(obj, p, static_cast<int*>(array) + pos, type);
        case CONV_INT:
        case CONV_INT64: {
            // A non-integer fails without a message of its own; the caller's report_error
            // then raises the library's last error.
            if (!is_index_integer(obj)) return -1;
            long long v = index_integer_value(obj);
            if (v == -1 && PyErr_Occurred()) return -1;
            if (type == CONV_INT) static_cast<int*>(array)[pos] = static_cast<int>(v);
            else static_cast<int64_t*>(array)[pos] = v;
            return 0;
        }
        case CONV_DOUBLE: {
            return conv_real(obj, static_cast<double*>(array) + pos);
        }
        case CONV_CHAR: {
            // Row and column types come as lists of one-letter strings: read those directly.
            if (PyUnicode_CheckExact(obj) && PyUnicode_IS_ASCII(obj) && PyUnicode_GET_LENGTH(obj) == 1 &&
                PyUnicode_1BYTE_DATA(obj)[0] != 0) {
                static_cast<char*>(array)[pos] = static_cast<char>(PyUnicode_1BYTE_DATA(obj)[0]);
                return 0;
            }
            PyObject* tmp = nullptr;
            const char* s = PyUnicode_Check(obj) || PyBytes_Check(obj) ? conv_str(obj, nullptr, &tmp) : nullptr;
            if (!s || std::strlen(s) != 1) {
                Py_XDECREF(tmp);
                if (!PyErr_Occurred()) PyErr_Format(ModelError, "Invalid character %S: a string of one character is expected", obj);
                return -1;
            }
            static_cast<char*>(array)[pos] = s[0];
            Py_XDECREF(tmp);
            return 0;
        }
        case CONV_CHARCODE: {
            if (!is_index_integer(obj)) return -1;
            long long v = index_integer_value(obj);
            if (v == -1 && PyErr_Occurred()) return -1;
            static_cast<char*>(array)[pos] = static_cast<char>(v & 0xff);
            return 0;
        }
        case CONV_STRING: {
            char** slot = static_cast<char**>(array) + pos;
            *slot = nullptr;
            PyObject* tmp = nullptr;
            const char* s = conv_str(obj, slot, &tmp);
            Py_XDECREF(tmp);
            return s ? 0 : -1;
        }
        case CONV_POOLCUT:
            return poolcut_handle(obj, static_cast<void**>(array) + pos);
        case CONV_OBJECT:
            return trvoobject_handle(obj, static_cast<void**>(array) + pos);
        default:
            PyErr_SetString(ModelError, "Invalid sequence of objects");
            return -1;
    }
}

void conv_free(void* array, int64_t count, int type) {
    if (!array) return;
    if (type == CONV_STRING)
        for (int64_t i = 0; i < count; ++i) std::free(static_cast<char**>(array)[i]);
    std::free(array);
}

int conv_obj2arr(ProblemObject* p, int64_t* count, PyObject* source, void** array, int type) {
    *array = nullptr;
    if (!source || source == Py_None) return 0;
    enum { NONE, LIST, TUPLE, ITER, SEQ } kind = NONE;
    Py_ssize_t len = 0;
    if (PyList_Check(source)) { kind = LIST; len = PyList_GET_SIZE(source); }
    else if (PyTuple_Check(source)) { kind = TUPLE; len = PyTuple_GET_SIZE(source); }
    else if (Py_TYPE(source)->tp_iternext) kind = ITER;
    else if (PySequence_Check(source)) {
        kind = SEQ;
        len = PySequence_Size(source);
        if (len < 0) PyErr_Clear();
    }
    if (kind == NONE || len < 0 || type == CONV_ROWCOL) {
        PyErr_SetString(ModelError, "Invalid sequence of objects");
        return -1;
    }
    size_t esize = conv_elem_size(type);
    if (kind != ITER) {
        if (*count >= 0 && *count != len) {
            PyErr_Format(ModelError, "Mismatched lengths in arguments: expected %d, found %d",
                         static_cast<int>(*count), static_cast<int>(len));
            return -1;
        }
        *count = len;
        PyRef fast;
        PyObject* seq = source;
        if (kind == SEQ) {
            fast.reset(PySequence_Fast(source, "Unable to scan sequence"));
            if (!fast) return -1;
            seq = fast.get();
            len = PySequence_Fast_GET_SIZE(seq);
        }
        void* a = std::calloc(len > 0 ? len : 1, esize);
        if (!a) { PyErr_NoMemory(); return -1; }
        for (Py_ssize_t i = 0; i < len; ++i) {
            PyObject* item = kind == SEQ ? PySequence_Fast_GET_ITEM(seq, i)
                                         : (kind == LIST ? PyList_GET_ITEM(source, i) : PyTuple_GET_ITEM(source, i));
            if (conv_item(p, item, a, i, type) < 0) {
                conv_free(a, i, type);
                return -1;
            }
        }
        *array = a;
        return 0;
    }
    int64_t cap = 256, n = 0;
    char* a = static_cast<char*>(std::calloc(cap, esize));
    if (!a) { PyErr_NoMemory(); return -1; }
    for (;;) {
        PyRef item(PyIter_Next(source));
        if (!item) break;
        if (n == cap) {
            char* b = static_cast<char*>(std::realloc(a, 2 * cap * esize));
            if (!b) { conv_free(a, n, type); PyErr_NoMemory(); return -1; }
            a = b;
            cap *= 2;
        }
        if (conv_item(p, item.get(), a, n, type) < 0) {
            conv_free(a, n, type);
            return -1;
        }
        ++n;
    }
    if (PyErr_Occurred()) { conv_free(a, n, type); return -1; }
    *count = n;
    *array = a;
    return 0;
}

namespace {

PyObject* list_item_or_int(PyObject* list, int idx) {
    if (idx < 0 || !list || idx >= PyList_GET_SIZE(list)) {
        if (idx < 0) return PyLong_FromLong(-1);
        return nullptr;
    }
    PyObject* o = PyList_GET_ITEM(list, idx);
    Py_INCREF(o);
    return o;
}

PyObject* make_element(ProblemObject* p, const void* array, int64_t i, int type, int rows_total) {
    switch (type) {
        case CONV_ROW: return list_item_or_int(p->cons, static_cast<const int*>(array)[i]);
        case CONV_COL: return list_item_or_int(p->vars, static_cast<const int*>(array)[i]);
        case CONV_INT: return PyLong_FromLong(static_cast<const int*>(array)[i]);
        case CONV_INT64: return PyLong_FromLongLong(static_cast<const int64_t*>(array)[i]);
        case CONV_DOUBLE: return PyFloat_FromDouble(static_cast<const double*>(array)[i]);
        case CONV_CHAR: return PyUnicode_FromFormat("%c", static_cast<unsigned char>(static_cast<const char*>(array)[i]));
        case CONV_CHARCODE: return PyUnicode_FromFormat("%d", static_cast<int>(static_cast<const char*>(array)[i]));
        case CONV_STRING: {
            const char* s = static_cast<char* const*>(array)[i];
            return PyUnicode_FromString(s ? s : "");
        }
        case CONV_POOLCUT: return poolcut_wrap(static_cast<void* const*>(array)[i]);
        case CONV_OBJECT: return trvoobject_wrap(static_cast<void* const*>(array)[i]);
        case CONV_ROWCOL: {
            int idx = static_cast<const int*>(array)[i];
            if (idx < 0) return PyLong_FromLong(-1);
            if (idx < rows_total) return list_item_or_int(p->cons, idx);
            return list_item_or_int(p->vars, idx - rows_total);
        }
        default: return nullptr;
    }
}

}  // namespace

int conv_arr2obj(ProblemObject* p, int64_t count, const void* array, PyObject* target, int type) {
    if (!array || !target || target == Py_None) return 0;
    if (!PyList_Check(target)) {
        PyErr_SetString(ModelError, "Unexpected argument to conv_arr2obj");
        return -1;
    }
    int rows_total = 0;
    if (type == CONV_ROWCOL) {
        int rows = 0, spare = 0;
        if (prob_int_attrib(p, 1001, &rows) < 0 || prob_int_attrib(p, 1019, &spare) < 0) return -1;
        rows_total = rows + spare;
    }
    Py_ssize_t have = PyList_GET_SIZE(target);
    if (have > count && PyList_SetSlice(target, count, have, nullptr) < 0) return -1;
    for (int64_t i = 0; i < count; ++i) {
        PyObject* o = make_element(p, array, i, type, rows_total);
        if (!o) {
            if (!PyErr_Occurred()) PyErr_Format(InterfaceError, "Wrong item returned from API call, type %d", type);
            return -1;
        }
        if (i < PyList_GET_SIZE(target)) {
            PyList_SetItem(target, i, o);  // steals o
        } else if (PyList_Append(target, o) < 0) {
            Py_DECREF(o);
            return -1;
        } else {
            Py_DECREF(o);
        }
    }
    return 0;
}

}  // namespace tarvo
