// Splitting a linear or quadratic modelling object (number, var, linterm, quadterm,
// expression) into constant, linear and quadratic parts in column indices of one problem.
#include "problem/body.h"
#include "model/model.h"
#include "nonlinear/node.h"

namespace tarvo {

namespace {

int column_of(ProblemObject* p, PyObject* v, int* col) {
    auto it = p->colmap->find(var_serial(v));
    if (it == p->colmap->end()) {
        PyErr_Format(ModelError, "Variable %S not in problem", v);
        return -1;
    }
    *col = it->second;
    return 0;
}

int add_quad(ProblemObject* p, PolyParts& out, PyObject* v1, PyObject* v2, double c, bool objective_mode) {
    int a, b;
    if (column_of(p, v1, &a) < 0 || column_of(p, v2, &b) < 0) return -1;
    if (a > b) std::swap(a, b);
    // Rows take x'Qx with the pair stored once (square c, product c/2); the objective takes
    // 0.5 x'Qx (square 2c, product c).
    double q = a == b ? (objective_mode ? 2 * c : c) : (objective_mode ? c : c / 2);
    out.quad.emplace_back(a, b, q);
    return 0;
}

}  // namespace

int polynomial_parts(ProblemObject* p, PyObject* obj, bool objective_mode, PolyParts& out) {
    out.constant = 0;
    out.lin.clear();
    out.quad.clear();
    if (is_number(obj)) {
        out.constant = number_value(obj);
        return 0;
    }
    if (is_var(obj)) {
        int c;
        if (column_of(p, obj, &c) < 0) return -1;
        out.lin.emplace_back(c, 1.0);
        return 0;
    }
    if (is_linterm(obj)) {
        LinTermObject* t = reinterpret_cast<LinTermObject*>(obj);
        int c;
        if (column_of(p, t->var, &c) < 0) return -1;
        out.lin.emplace_back(c, t->coef);
        return 0;
    }
    if (is_quadterm(obj)) {
        QuadTermObject* t = reinterpret_cast<QuadTermObject*>(obj);
        return add_quad(p, out, t->var1, t->var2, t->coef, objective_mode);
    }
    if (is_expression(obj)) {
        ExpressionObject* e = as_expr(obj);
        out.constant = e->constant;
        if (e->linear) {
            out.lin.reserve(e->linear->size());
            for (const auto& kv : *e->linear) {
                int c;
                if (column_of(p, kv.first, &c) < 0) return -1;
                out.lin.emplace_back(c, kv.second);
            }
        }
        if (e->quadratic)
            for (const auto& row : *e->quadratic)
                for (const auto& kv : row.second)
                    if (add_quad(p, out, row.first, kv.first, kv.second, objective_mode) < 0) return -1;
        return 0;
    }
    if (is_nonlinear(obj)) {
        PyErr_SetString(ModelError,
                        "Nonlinear expressions cannot be loaded into a problem yet: only linear and quadratic constraints and objectives are supported");
        return -1;
    }
    PyErr_Format(ModelError, "Invalid object in operation: <%S>", obj);
    return -1;
}

}  // namespace tarvo
