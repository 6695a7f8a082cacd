// The bound optimisation problem as the nonlinear solver reads it (through the public
// getters of the optimisation library).
#pragma once

#include "engine/slp/problem.h"

#include <cstdint>

namespace slp {

// Quadratic part as pairs i <= j with the coefficient of x_i * x_j.
struct Quad {
    std::vector<int> i, j;
    std::vector<double> v;
    bool empty() const { return v.empty(); }
};

struct Model {
    int nrows = 0, ncols = 0;
    std::vector<double> lb, ub, obj;
    double objconst = 0.0;
    std::vector<char> coltype, rowtype;
    std::vector<double> rhs, range;
    std::vector<int64_t> rstart;   // row-wise linear matrix
    std::vector<int> rcol;
    std::vector<double> rval;
    Quad qobj;                     // objective quadratic part (the whole 0.5 x'Qx)
    std::map<int, Quad> qrows;     // row -> quadratic part
    std::vector<char> nlskip;      // rows whose nonlinear coefficients presolve made linear (empty: none)
};

int host_rows(TSLPprob prob);
int host_cols(TSLPprob prob);
int host_nlp_rows(TSLPprob prob);   // rows with nonlinear coefficients or a quadratic part
Model read_model(TSLPprob prob);
// Turns semi-continuous, semi-integer and partial-integer columns, special ordered sets and
// indicator rows of the model into binary columns and linear rows appended after the
// problem's own (which keep their positions). Throws for what cannot be reformulated.
void reformulate_entities(TSLPprob prob, Model& m);

// Names for the text form of formulas.
int host_column_index(TSLPprob prob, const std::string& name);   // -1 if unknown
std::string host_column_name(TSLPprob prob, int col);
std::string host_row_name(TSLPprob prob, int row);
int host_row_index(TSLPprob prob, const std::string& name);

}  // namespace slp
