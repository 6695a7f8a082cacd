// Declarations shared by the translation units of the nonlinear layer: the operator table,
// node helpers and the module functions that functions.cpp gathers into one table.
#pragma once
#include "model/algebra.h"  // model_error, new_ref, constant_value
#include "model/model.h"
#include "nonlinear/node.h"

#include <string>

namespace tarvo {

struct NlOpInfo {
    const char* name;
    int arity;     // 1 unary, 2 binary, -1 n-ary
    int notation;  // 0 infix, -1 prefix, positive postfix
};
constexpr int NL_OP_COUNT = 27;
extern const NlOpInfo nl_ops[NL_OP_COUNT];
constexpr int NL_MAX_DEPTH = 64;

inline bool is_node_op(PyObject* o, int op) { return is_nonlinear(o) && as_nl(o)->op == op; }
inline bool is_seq_args(PyObject* a) { return a && (PyList_Check(a) || PyTuple_Check(a)); }
// Sum and product nodes whose arguments are a list or tuple (the only well-formed ones).
inline bool is_sum_node(PyObject* o) { return is_node_op(o, NL_SUM) && is_seq_args(as_nl(o)->args); }
inline bool is_prod_node(PyObject* o) { return is_node_op(o, NL_PROD) && is_seq_args(as_nl(o)->args); }

// A new node owning args (stolen); the code is set last.
PyObject* nl_new_node(int op, PyObject* args);
// Printed form of any modelling object with depth d left (new str or null).
PyObject* nl_print(PyObject* o, int depth);
// c times any modelling object with the product rules of the node arithmetic.
PyObject* nl_times(double c, PyObject* o);
// a *= b: a product node grows in place (numeric factors folded into its last element).
PyObject* nl_inplace_multiply(PyObject* a, PyObject* b);

// Module functions defined in the other files of this layer.
PyObject* fn_sum(PyObject* self, PyObject* args);
PyObject* fn_prod(PyObject* self, PyObject* args);
PyObject* fn_dot(PyObject* self, PyObject* args, PyObject* kwargs);
PyObject* fn_vars(PyObject* self, PyObject* args, PyObject* kwargs);
PyObject* fn_evaluate(PyObject* self, PyObject* args, PyObject* kwargs);

// NumPy dtype numbers of npvar, npexpr, npconstraint (registered at import).
extern int npvar_typenum, npexpr_typenum, npconstraint_typenum;
// True for an array whose elements are Python objects (object, npvar, npexpr, npconstraint).
bool array_holds_objects(PyArrayObject* a);

}  // namespace tarvo
