// Values and gradients of the rows and the objective of a nonlinear problem: linear part,
// quadratic part and nonlinear coefficients, combined per row.
#pragma once

#include "engine/slp/formula.h"
#include "engine/slp/host.h"

namespace slp {

// Multiplies the linear coefficients of the model by the problem's distribution factors.
void apply_dfs(TSLPprob prob, Model& m);

// The compiled coefficient: factor * formula * x[col] (or without x for the equals column).
int compile_coef(Tape& tape, int col, const Coef& c);

struct Evaluator {
    TSLPprob prob;
    const Model& m;
    UserCaller uc;
    std::vector<int> nlrows;          // rows with a nonlinear part, ascending
    std::vector<int> nlpos;           // row -> position in nlrows, or -1
    std::vector<Tape> tapes;          // per nonlinear row: its coefficients (may be empty)
    std::vector<int> roots;           // root of each tape, -1 when the row has only a quadratic part
    std::vector<std::vector<int>> pattern;   // per nonlinear row: every column of the row, sorted
    std::vector<Eval> ev;
    Quad qobj;
    std::vector<int> objpattern;      // columns of the objective (linear and quadratic)

    Evaluator(TSLPprob p, const Model& model);

    // Activity of any row at x (nonlinear parts included). Throws on evaluation failure
    // only through the bool result.
    bool row_value(int row, const double* x, double* value);
    // Value and the gradient entries (dense g, on pattern[k] only, overwritten) of nonlinear
    // row k.
    bool nlrow_grad(int k, const double* x, double* value, double* g);
    // Objective value (without sense) and, with g non-null, its dense gradient.
    double objective(const double* x, double* g) const;
};

double quad_value(const Quad& q, const double* x);
void quad_grad(const Quad& q, const double* x, double* g);

// The point formulas are evaluated at outside a solve: the last solution, else the initial
// values of SLP variables and zero projected on the bounds.
std::vector<double> current_point(TSLPprob prob, const Model& m);
// The starting point of a solve.
std::vector<double> initial_point(TSLPprob prob, const Model& m);

}  // namespace slp
