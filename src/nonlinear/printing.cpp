// Printed form of nonlinear trees: prefix function calls, infix operators, n-ary lists, and a
// depth limit below which subtrees show as a marker.
#include "nonlinear/internal.h"

#include <string>

namespace tarvo {

namespace {

int append_str(std::string& out, PyObject* s) {
    if (!s) return -1;
    Py_ssize_t n;
    const char* text = PyUnicode_AsUTF8AndSize(s, &n);
    if (!text) return -1;
    out.append(text, n);
    return 0;
}

int print_into(std::string& out, PyObject* o, int depth);

int print_child(std::string& out, PyObject* o, int depth) { return print_into(out, o, depth); }

int print_into(std::string& out, PyObject* o, int depth) {
    if (o && is_number(o)) {
        PyRef s(PyObject_Str(o));
        return append_str(out, s.get());
    }
    if (depth < 0) {
        out += "[MAX RECURS LEV]";
        return 0;
    }
    if (!o || !is_nonlinear(o)) {
        if (o && !is_var(o) && !is_linterm(o) && !is_quadterm(o) && !is_expression(o) && PyCallable_Check(o)) {
            out += "user";
            return 0;
        }
        if (!o) return 0;
        PyRef s(PyObject_Str(o));
        return append_str(out, s.get());
    }
    NonlinearObject* n = as_nl(o);
    if (n->op < 0 || n->op >= NL_OP_COUNT) {
        PyErr_SetString(ModelError, "Unknown nonlinear type");
        return -1;
    }
    const NlOpInfo& info = nl_ops[n->op];
    PyObject* args = n->args;
    if (info.arity == 1) {
        if (!args) {
            PyErr_SetString(ModelError, "Invalid unary nonlinear expression");
            return -1;
        }
        if (info.notation < 0) {
            out += info.name;
            out += " (";
            if (print_child(out, args, depth - 1) < 0) return -1;
            out += ")";
        } else {
            out += "(";
            if (print_child(out, args, depth - 1) < 0) return -1;
            out += ") ";
            out += info.name;
        }
        return 0;
    }
    if (info.arity == 2) {
        if (!args || !PyTuple_Check(args) || PyTuple_GET_SIZE(args) != 2) {
            PyErr_SetString(ModelError, "Invalid binary nonlinear expression");
            return -1;
        }
        PyObject* a = PyTuple_GET_ITEM(args, 0);
        PyObject* b = PyTuple_GET_ITEM(args, 1);
        if (info.notation < 0) {
            out += info.name;
            out += " (";
        } else {
            out += "(";
        }
        if (print_child(out, a, depth - 1) < 0) return -1;
        if (info.notation == 0) {
            out += " ";
            out += info.name;
            out += " ";
        } else {
            out += ", ";
        }
        if (print_child(out, b, depth - 1) < 0) return -1;
        out += ")";
        if (info.notation > 0) {
            out += " ";
            out += info.name;
        }
        return 0;
    }
    if (!is_seq_args(args)) {
        PyErr_SetString(ModelError, "Invalid n-ary nonlinear expression");
        return -1;
    }
    Py_ssize_t count = PySequence_Fast_GET_SIZE(args);
    if (info.notation < 0) {
        out += info.name;
        out += " (";
    } else {
        out += "(";
    }
    for (Py_ssize_t i = 0; i < count; ++i) {
        if (i > 0) {
            if (info.notation == 0) {
                out += " ";
                out += info.name;
                out += " ";
            } else {
                out += ", ";
            }
        }
        if (print_child(out, PySequence_Fast_GET_ITEM(args, i), depth - 1) < 0) return -1;
    }
    out += ")";
    if (info.notation > 0) {
        out += " ";
        out += info.name;
    }
    return 0;
}

}  // namespace

static PyObject* nl_print_body(PyObject* o, int depth) {
    std::string out;
    if (print_into(out, o, depth) < 0) return nullptr;
    return PyUnicode_FromStringAndSize(out.data(), static_cast<Py_ssize_t>(out.size()));
}

PyObject* nl_print(PyObject* o, int depth) {
    return alloc_guard(nullptr, [&] { return nl_print_body(o, depth); });
}

}  // namespace tarvo
