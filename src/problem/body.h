// Linear and quadratic parts of a modelling object in one problem's column indices.
#pragma once
#include "problem/problem.h"

#include <tuple>
#include <utility>
#include <vector>

namespace tarvo {

struct PolyParts {
    double constant = 0;
    std::vector<std::pair<int, double>> lin;          // (column, coefficient)
    std::vector<std::tuple<int, int, double>> quad;   // (column, column >= first, coefficient)
};

// Fills out from a number, var, linterm, quadterm or expression. Quadratic coefficients are
// in the library's row convention (square c, product c/2) or, with objective_mode, in its
// objective convention (square 2c, product c). Variables not in the problem and nonlinear
// objects fail with ModelError. Returns 0 or -1.
int polynomial_parts(ProblemObject* p, PyObject* obj, bool objective_mode, PolyParts& out);

}  // namespace tarvo
