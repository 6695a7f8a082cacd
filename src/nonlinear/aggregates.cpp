// Aggregates over collections: Sum and Prod fold a collection in one pass, growing a single
// result in place; Dot folds NumPy arrays with a generalised dot product.
#include "nonlinear/aggregates.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace tarvo {

namespace {

bool is_polynomial(PyObject* o) {
    int k = operand_kind_quiet(o);
    return k >= K_NUMBER && k != K_NONLINEAR;
}

// Python object for an array element: objects as they are, real numbers (any integer, floating
// or boolean element type) as floats. Complex, text and date elements have no place in a model.
int array_elements(PyArrayObject* arr, const std::function<int(PyObject*)>& fn) {
    bool objects = array_holds_objects(arr);
    if (!objects && !PyArray_ISINTEGER(arr) && !PyArray_ISFLOAT(arr) && !PyArray_ISBOOL(arr))
        return model_error("Incorrect objects used in Sum, Dot, Prod, or aggregate functions"), -1;
    PyRef it(PyArray_IterNew(reinterpret_cast<PyObject*>(arr)));
    if (!it) return -1;
    PyArrayIterObject* iter = reinterpret_cast<PyArrayIterObject*>(it.get());
    while (iter->index < iter->size) {
        PyRef el(PyArray_GETITEM(arr, static_cast<char*>(iter->dataptr)));
        if (!el) return -1;
        if (!objects) {
            el.reset(PyNumber_Float(el.get()));
            if (!el) return -1;
        }
        if (fn(el.get()) < 0) return -1;
        PyArray_ITER_NEXT(iter);
    }
    return 0;
}

}  // namespace

int aggregate_walk(PyObject* args, const std::function<int(PyObject*)>& fn) {
    PyObject* coll = PyTuple_GET_SIZE(args) == 1 ? PyTuple_GET_ITEM(args, 0) : args;
    auto visit = [&](PyObject* el) { return el == Py_None ? 0 : fn(el); };
    if (PyTuple_Check(coll) || PyList_Check(coll)) {
        // Elements are read by index each time: the callback may not change the sequence.
        for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(coll); ++i) {
            PyRef el = PyRef::borrow(PySequence_Fast_GET_ITEM(coll, i));
            if (visit(el.get()) < 0) return -1;
        }
        return 0;
    }
    if (PyDict_Check(coll)) {
        PyRef values(PyDict_Values(coll));
        if (!values) return -1;
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(values.get()); ++i)
            if (visit(PyList_GET_ITEM(values.get(), i)) < 0) return -1;
        return 0;
    }
    if (is_ndarray(coll)) return array_elements(reinterpret_cast<PyArrayObject*>(coll), visit);
    if (operand_kind_quiet(coll) >= 0) return visit(coll);
    if (PySequence_Check(coll) || (Py_TYPE(coll)->tp_iternext != nullptr) || Py_TYPE(coll)->tp_iter) {
        if (PySequence_Check(coll) && PySequence_Size(coll) < 0) {
            PyErr_Clear();
            return model_error("Invalid sequence of objects"), -1;
        }
        PyRef it(PyObject_GetIter(coll));
        if (!it) {
            PyErr_Clear();
            return model_error("Cannot iterate over sequence"), -1;
        }
        while (PyObject* el = PyIter_Next(it.get())) {
            PyRef hold(el);
            if (visit(el) < 0) return -1;
        }
        if (PyErr_Occurred()) {
            // The collection itself failed (a generator that raised): report it as such, with
            // the original exception as the cause. Interrupts and exits pass unchanged.
            if (!PyErr_ExceptionMatches(PyExc_Exception)) return -1;
            PyObject *type, *value, *tb;
            PyErr_Fetch(&type, &value, &tb);
            PyErr_NormalizeException(&type, &value, &tb);
            if (tb) PyException_SetTraceback(value, tb);
            Py_XDECREF(type);
            Py_XDECREF(tb);
            model_error("Cannot iterate over sequence");
            PyObject *t2, *v2, *tb2;
            PyErr_Fetch(&t2, &v2, &tb2);
            PyErr_NormalizeException(&t2, &v2, &tb2);
            PyException_SetCause(v2, value);  // steals value
            PyErr_Restore(t2, v2, tb2);
            return -1;
        }
        return 0;
    }
    return visit(coll);
}

int sum_combine(PyRef& result, PyObject* el) {
    if (!is_ndarray(el) && operand_kind_quiet(el) < 0)
        return model_error("Invalid object in Sum or Prod operators"), -1;
    if (!result) {
        result.reset(is_polynomial(el) ? expr_copy_scaled(el, 1.0) : nl_scaled_copy(el, 1.0));
        return result ? 0 : -1;
    }
    PyObject* r = result.get();
    if (is_ndarray(el)) {
        result.reset(PyNumber_Add(el, r));
        return result ? 0 : -1;
    }
    if (is_ndarray(r)) {
        result.reset(PyNumber_Add(r, el));
        return result ? 0 : -1;
    }
    if (!is_expression(r) && is_polynomial(r) && is_polynomial(el)) {
        result.reset(expr_copy_scaled(r, 1.0));
        if (!result) return -1;
        r = result.get();
    }
    if (is_expression(r) && Py_REFCNT(r) == 1) {
        if (is_number(el)) {
            as_expr(r)->constant += number_value(el);
            return 0;
        }
        if (is_var(el)) return expr_add_linear(r, el, 1.0);
        if (is_linterm(el)) {
            auto* t = reinterpret_cast<LinTermObject*>(el);
            return expr_add_linear(r, t->var, t->coef);
        }
        if (is_quadterm(el)) {
            auto* t = reinterpret_cast<QuadTermObject*>(el);
            return expr_add_quadratic(r, t->var1, t->var2, t->coef);
        }
        if (is_expression(el)) {
            PyObject* same = expr_add_in_place(r, el, 1.0);
            if (!same) return -1;
            result.reset(same);
            return 0;
        }
    }
    result.reset(nl_accumulate(result.release(), el, 1.0));
    return result ? 0 : -1;
}

namespace {

// The sum of an array whose elements are all variables: each distinct variable with the
// number of its occurrences as coefficient, in serial order, which is what adding them one by
// one gives (counts are exact in doubles), made with one sort instead of one insertion per
// element. Null without an exception when some element is not a variable (or the array is
// empty): the general path takes it then.
PyObject* sum_of_variables(PyArrayObject* arr) {
    const npy_intp n = PyArray_SIZE(arr);
    if (n == 0 || !array_holds_objects(arr)) return nullptr;
    std::vector<PyObject*> vars;
    vars.reserve(static_cast<size_t>(n));
    PyRef it(PyArray_IterNew(reinterpret_cast<PyObject*>(arr)));
    if (!it) return nullptr;
    PyArrayIterObject* iter = reinterpret_cast<PyArrayIterObject*>(it.get());
    while (iter->index < iter->size) {
        PyObject* v;
        std::memcpy(&v, iter->dataptr, sizeof v);
        if (!v || Py_TYPE(v) != &VarType) return nullptr;
        vars.push_back(v);
        PyArray_ITER_NEXT(iter);
    }
    auto by_serial = [](PyObject* a, PyObject* b) { return var_serial(a) < var_serial(b); };
    if (!std::is_sorted(vars.begin(), vars.end(), by_serial)) std::stable_sort(vars.begin(), vars.end(), by_serial);
    size_t distinct = 0;
    for (size_t i = 0; i < vars.size(); ++i) distinct += i == 0 || var_serial(vars[i]) != var_serial(vars[i - 1]);
    PyRef e(expr_new_sized(distinct));
    if (!e) return nullptr;
    ExpressionObject* x = as_expr(e.get());
    x->linear = &x->linear_store;
    x->linear->reserve(distinct);
    for (size_t i = 0; i < vars.size();) {
        size_t j = i + 1;
        while (j < vars.size() && var_serial(vars[j]) == var_serial(vars[i])) ++j;  // the first keeps the key
        Py_INCREF(vars[i]);
        x->linear->append_sorted(vars[i], static_cast<double>(j - i));
        i = j;
    }
    return e.release();
}

}  // namespace

static PyObject* fn_sum_body(PyObject*, PyObject* args) {
    if (PyTuple_GET_SIZE(args) == 1 && is_ndarray(PyTuple_GET_ITEM(args, 0))) {
        PyObject* r = sum_of_variables(reinterpret_cast<PyArrayObject*>(PyTuple_GET_ITEM(args, 0)));
        if (r || PyErr_Occurred()) return r;
    }
    PyRef result;
    if (aggregate_walk(args, [&](PyObject* el) { return sum_combine(result, el); }) < 0) return nullptr;
    if (!result) return expr_new();
    if (is_number(result.get())) {
        double v = number_value(result.get());
        result.reset(expr_new());
        if (!result) return nullptr;
        as_expr(result.get())->constant = v;
    }
    return result.release();
}

PyObject* fn_sum(PyObject* a0, PyObject* args) {
    return alloc_guard(nullptr, [&] { return fn_sum_body(a0, args); });
}

static PyObject* fn_prod_body(PyObject*, PyObject* args) {
    PyRef result;
    auto combine = [&](PyObject* el) -> int {
        if (!is_ndarray(el) && operand_kind_quiet(el) < 0)
            return model_error("Invalid object in Sum or Prod operators"), -1;
        if (!result) {
            result.reset(nl_scaled_copy(el, 1.0));
            return result ? 0 : -1;
        }
        PyObject* r = result.get();
        if (is_ndarray(r)) result.reset(PyNumber_InPlaceMultiply(r, el));
        else if (is_ndarray(el)) result.reset(PyNumber_Multiply(el, r));
        else if (is_prod_node(r) && Py_REFCNT(r) == 1) result.reset(nl_inplace_multiply(r, el));
        else result.reset(PyNumber_Multiply(r, el));
        return result ? 0 : -1;
    };
    if (aggregate_walk(args, combine) < 0) return nullptr;
    if (!result) return PyFloat_FromDouble(0.0);
    return result.release();
}

PyObject* fn_prod(PyObject* a0, PyObject* args) {
    return alloc_guard(nullptr, [&] { return fn_prod_body(a0, args); });
}

// ---------------------------------------------------------------- Dot

namespace {

bool numeric_array(PyArrayObject* a) { return PyArray_ISNUMBER(a) || PyArray_ISBOOL(a); }

// A C-contiguous object array holding the elements (numbers as Python floats).
PyArrayObject* as_object_array(PyArrayObject* a) {
    PyArray_Descr* od = PyArray_DescrFromType(NPY_OBJECT);
    if (!od) return nullptr;
    if (numeric_array(a)) {
        PyRef d(PyArray_FROMANY(reinterpret_cast<PyObject*>(a), NPY_DOUBLE, 0, 0, NPY_ARRAY_C_CONTIGUOUS));
        if (!d) { Py_DECREF(od); return nullptr; }
        return reinterpret_cast<PyArrayObject*>(
            PyArray_FromAny(d.get(), od, 0, 0, NPY_ARRAY_C_CONTIGUOUS | NPY_ARRAY_ENSURECOPY, nullptr));
    }
    return reinterpret_cast<PyArrayObject*>(
        PyArray_FromAny(reinterpret_cast<PyObject*>(a), od, 0, 0, NPY_ARRAY_C_CONTIGUOUS | NPY_ARRAY_ENSURECOPY, nullptr));
}

}  // namespace

PyObject* term_product(PyObject* a, PyObject* b) {
    if (is_number(a) && is_number(b)) return PyFloat_FromDouble(number_value(a) * number_value(b));
    if (is_number(a)) return nl_scaled_copy(b, number_value(a));
    if (is_number(b)) return nl_scaled_copy(a, number_value(b));
    return PyNumber_Multiply(a, b);
}

namespace {

// acc += x * y straight into the term maps of acc, when acc is an expression that only the
// caller holds and the product stays quadratic: a number times a polynomial, or two linear
// factors (variables, linear terms, expressions without quadratic part). Saves building the
// product as an object of its own for every term of a dot product. Returns 1 when done, 0 when
// the product has to be built the general way, -1 on error.
int add_product_into(PyObject* acc, PyObject* x, PyObject* y) {
    if (!is_expression(acc) || Py_REFCNT(acc) != 1) return 0;
    if (is_number(y) && !is_number(x)) std::swap(x, y);
    if (is_number(x)) {
        if (is_number(y) || !is_polynomial(y)) return 0;
        PyRef same(expr_add_in_place(acc, y, number_value(x)));
        return same ? 1 : -1;
    }
    auto linear_factor = [](PyObject* o) { return is_var(o) || is_linterm(o) || (is_expression(o) && !as_expr(o)->quadratic); };
    if (!linear_factor(x) || !linear_factor(y)) return 0;
    if (is_expression(y) && !is_expression(x)) std::swap(x, y);
    PyObject* yv = is_var(y) ? y : nullptr;
    double yc = 1.0;
    if (is_linterm(y)) {
        yv = reinterpret_cast<LinTermObject*>(y)->var;
        yc = reinterpret_cast<LinTermObject*>(y)->coef;
    }
    if (!yv) return 0;  // two expressions: the general product
    if (is_expression(x)) {
        ExpressionObject* e = as_expr(x);
        if (e->constant != 0.0 && expr_add_linear(acc, yv, e->constant * yc) < 0) return -1;
        if (e->linear)
            for (auto& term : *e->linear)
                if (expr_add_quadratic(acc, term.first, yv, term.second * yc) < 0) return -1;
        return 1;
    }
    PyObject* xv = is_var(x) ? x : reinterpret_cast<LinTermObject*>(x)->var;
    double xc = is_var(x) ? 1.0 : reinterpret_cast<LinTermObject*>(x)->coef;
    return expr_add_quadratic(acc, xv, yv, xc * yc) < 0 ? -1 : 1;
}

PyObject* element_of_0d(PyArrayObject* a) {
    if (PyArray_SIZE(a) != 1) return model_error("Scalar vector apparently contains more than one element");
    PyRef el(PyArray_GETITEM(a, PyArray_BYTES(a)));
    if (!el) return nullptr;
    if (!array_holds_objects(a)) return PyNumber_Float(el.get());
    return el.release();
}

PyObject* dot_two(PyObject* A, PyObject* B) {
    if (!is_ndarray(A) || !is_ndarray(B)) return model_error("Dot product can only occur between NumPy arrays");
    PyArrayObject* a = reinterpret_cast<PyArrayObject*>(A);
    PyArrayObject* b = reinterpret_cast<PyArrayObject*>(B);
    int na = PyArray_NDIM(a), nb = PyArray_NDIM(b);
    if (na == 0 && nb == 0) {
        PyRef x(element_of_0d(a));
        if (!x) return nullptr;
        PyRef y(element_of_0d(b));
        if (!y) return nullptr;
        return term_product(x.get(), y.get());
    }
    if (na == 0) return model_error("Dot product between incompatible objects: first one is a scalar");
    if (nb == 0) return model_error("Dot product between incompatible objects: second one is a scalar");
    bool num_a = numeric_array(a), num_b = numeric_array(b);
    if ((!num_a && !array_holds_objects(a)) || (!num_b && !array_holds_objects(b)) ||
        PyArray_TYPE(a) == npconstraint_typenum || PyArray_TYPE(b) == npconstraint_typenum)
        return model_error("Dot product must be between long, double, and expressions/variables");
    npy_intp inner = PyArray_DIM(a, na - 1);
    int bk = nb >= 2 ? nb - 2 : 0;
    if (PyArray_DIM(b, bk) != inner)
        return model_error("Dot product must occur between NumPy vectors with matching sizes in the multiplying dimension");
    if (num_a && num_b) return PyArray_MatrixProduct2(A, B, nullptr);

    PyRef oa(reinterpret_cast<PyObject*>(as_object_array(a)));
    if (!oa) return nullptr;
    PyRef ob(reinterpret_cast<PyObject*>(as_object_array(b)));
    if (!ob) return nullptr;
    PyObject** da = static_cast<PyObject**>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(oa.get())));
    PyObject** db = static_cast<PyObject**>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(ob.get())));

    // Result shape: A's leading dimensions, B's dimensions except the multiplying one.
    std::vector<npy_intp> dims;
    npy_intp rows = 1;
    for (int i = 0; i < na - 1; ++i) { dims.push_back(PyArray_DIM(a, i)); rows *= PyArray_DIM(a, i); }
    npy_intp blocks = 1, cols = 1;
    if (nb >= 2) {
        for (int i = 0; i < nb - 2; ++i) { dims.push_back(PyArray_DIM(b, i)); blocks *= PyArray_DIM(b, i); }
        cols = PyArray_DIM(b, nb - 1);
        dims.push_back(cols);
    }
    auto element = [&](npy_intp r, npy_intp blk, npy_intp k) -> PyObject* {
        PyRef acc;
        for (npy_intp h = 0; h < inner; ++h) {
            PyObject* x = da[r * inner + h];
            PyObject* y = db[(blk * inner + h) * cols + k];
            if (acc && x && y) {
                int done = add_product_into(acc.get(), x, y);
                if (done < 0) return nullptr;
                if (done) continue;
            }
            PyRef t(term_product(x ? x : Py_None, y ? y : Py_None));
            if (!t) return nullptr;
            if (!acc) {
                acc = std::move(t);
                continue;
            }
            if (is_number(acc.get()) && is_number(t.get())) {
                // Numbers times numbers stay a number (object arrays may hold only numbers).
                acc.reset(PyFloat_FromDouble(number_value(acc.get()) + number_value(t.get())));
                if (!acc) return nullptr;
                continue;
            }
            if (sum_combine(acc, t.get()) < 0) return nullptr;
        }
        if (!acc) return PyFloat_FromDouble(0.0);
        return acc.release();
    };
    if (dims.empty()) return element(0, 0, 0);
    // An npexpr array, so that comparisons of the result build constraints elementwise.
    PyArray_Descr* od = PyArray_DescrFromType(npexpr_typenum);
    if (!od) return nullptr;
    PyRef res(PyArray_NewFromDescr(&PyArray_Type, od, static_cast<int>(dims.size()), dims.data(), nullptr, nullptr, 0, nullptr));
    if (!res) {
        if (!PyErr_Occurred()) model_error("Could not initialize result of dot product");
        return nullptr;
    }
    PyObject** out = static_cast<PyObject**>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(res.get())));
    npy_intp idx = 0;
    for (npy_intp r = 0; r < rows; ++r)
        for (npy_intp blk = 0; blk < blocks; ++blk)
            for (npy_intp k = 0; k < cols; ++k, ++idx) {
                PyObject* v = element(r, blk, k);
                if (!v) return nullptr;
                Py_XSETREF(out[idx], v);
            }
    return res.release();
}

}  // namespace

static PyObject* fn_dot_body(PyObject*, PyObject* args, PyObject* kwargs) {
    PyObject* out = Py_None;
    if (kwargs) {
        static const char* kwlist[] = {"out", nullptr};
        PyRef empty(PyTuple_New(0));
        if (!empty || !PyArg_ParseTupleAndKeywords(empty.get(), kwargs, "|O:Dot", const_cast<char**>(kwlist), &out))
            return nullptr;
    }
    PyRef result;
    bool first = true;
    int rc = aggregate_walk(args, [&](PyObject* el) -> int {
        if (first) {
            first = false;
            if (!is_ndarray(el)) return model_error("Dot product should only be on NumPy arrays"), -1;
            result = PyRef::borrow(el);
            return 0;
        }
        result.reset(dot_two(result.get(), el));
        return result ? 0 : -1;
    });
    if (rc < 0) return nullptr;
    if (!result) return PyFloat_FromDouble(0.0);
    if (out == Py_None) return result.release();
    if (!is_ndarray(out)) return model_error("Output argument set with wrong type: must be float/int for products of floats/ints and expression/nonlin for products of variables/expressions/nonlinear");
    PyArrayObject* o = reinterpret_cast<PyArrayObject*>(out);
    bool numeric_result = is_number(result.get()) ||
                          (is_ndarray(result.get()) && numeric_array(reinterpret_cast<PyArrayObject*>(result.get())));
    if (numeric_result ? !numeric_array(o) : !array_holds_objects(o) || PyArray_TYPE(o) == npconstraint_typenum)
        return model_error("Output argument set with wrong type: must be float/int for products of floats/ints and expression/nonlin for products of variables/expressions/nonlinear");
    PyRef src(is_ndarray(result.get()) ? result.release()
                                       : PyArray_FromAny(result.get(), PyArray_DescrFromType(NPY_OBJECT), 0, 0, 0, nullptr));
    if (!src) return nullptr;
    if (PyArray_CopyInto(o, reinterpret_cast<PyArrayObject*>(src.get())) < 0) return nullptr;
    Py_INCREF(out);
    return out;
}

PyObject* fn_dot(PyObject* a0, PyObject* args, PyObject* kwargs) {
    return alloc_guard(nullptr, [&] { return fn_dot_body(a0, args, kwargs); });
}

}  // namespace tarvo
