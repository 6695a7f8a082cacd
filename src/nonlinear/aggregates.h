// The one-pass folding of collections shared by Sum, Prod, Dot and the NumPy loops.
#pragma once
#include "nonlinear/internal.h"

#include <functional>

namespace tarvo {

// Calls fn on every element of the collection given by a positional tuple (its single
// element when there is one): tuple, list, dict values, NumPy array, sequence or iterator.
// None elements are skipped. Returns 0, or -1 with an exception set.
int aggregate_walk(PyObject* args, const std::function<int(PyObject*)>& fn);

// result += el, growing result in place where it is an expression or a sum node that
// nothing else holds. result may start empty.
int sum_combine(PyRef& result, PyObject* el);

// One term a*b of a dot product: a numeric factor scales the other (a copy), two numbers
// give a float, two modelling objects their product.
PyObject* term_product(PyObject* a, PyObject* b);

}  // namespace tarvo
