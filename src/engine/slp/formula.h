// Formulas: compilation of postfix token arrays into an evaluation tape, evaluation, reverse-
// mode differentiation, conversion from infix token order, and the text form.
#pragma once

#include "engine/slp/problem.h"

#include <functional>

namespace slp {

enum NodeOp {
    N_CON, N_COL, N_ADD, N_SUB, N_MUL, N_DIV, N_POW, N_NEG, N_FUN, N_MIN, N_MAX, N_PWL, N_UFUN
};

struct Node {
    int op = N_CON;
    int fun = 0;        // internal function number (N_FUN) or user-function index (N_UFUN)
    int a = -1, b = -1; // operands of unary and binary nodes
    int first = 0, n = 0;   // n-ary operands: args[first .. first+n)
    double c = 0.0;     // constant value or column index
};

// A compiled expression DAG in topological order (operands before their users).
struct Tape {
    std::vector<Node> nodes;
    std::vector<int> args;
    std::vector<int> cols;   // distinct columns referenced, sorted

    int constant(double v);
    int column(int j);
    int unary(int op, int fun, int a);
    int binary(int op, int a, int b);
    int nary(int op, int fun, const std::vector<int>& operands);
    // Compiles a postfix formula; returns its root node.
    int compile(const Tokens& t);
    void finish();   // fills cols
};

// Evaluation workspace of one tape.
struct Eval {
    std::vector<double> val;
    std::vector<double> adj;
    std::vector<double> partial;   // per n-ary operand: d node / d operand
};

// Calls user functions during evaluation.
struct UserCaller {
    TSLPprob prob = nullptr;
    bool numerical = false;   // force numerical derivatives
    double delta_x = 1e-6;
};

// Values of every node at x. With grad set, n-ary partials are stored for reverse().
// Returns false when a value is not finite or a user function failed.
bool forward(const Tape& tape, const double* x, Eval& ev, const UserCaller& uc, bool grad);
// Adds seed * d root / d x_j into g[j] for every column j.
void reverse(const Tape& tape, int root, Eval& ev, double seed, double* g);

// Postfix check-and-convert of an infix token formula (brackets, delimiters, functions).
Tokens infix_to_postfix(const Tokens& infix);
// Ensures a formula is well formed postfix (throws otherwise); appends EOF if missing.
Tokens normalise_postfix(const Tokens& t);
// Postfix token formula -> infix token order (brackets and delimiters).
Tokens postfix_to_infix(const Tokens& t);

// A column name as the text form writes it: bare when it reads back as one name (a letter or
// '_' followed by letters, digits, '_' and '.'), otherwise in double quotes, a backslash
// before each " and backslash inside.
std::string name_in_formula(const std::string& name);

// Text form. resolve_col maps a name to a column (or -1), resolve_ufun a name to a
// user-function index (or 0); col_name and ufun_name the other way.
Tokens parse_text(const std::string& text, const std::function<int(const std::string&)>& resolve_col,
                  const std::function<int(const std::string&)>& resolve_ufun);
std::string print_text(const Tokens& postfix, const std::function<std::string(int)>& col_name,
                       const std::function<std::string(int)>& ufun_name);

// Text form with the problem's column and user-function names.
Tokens parse_formula_text(TSLPprob prob, const std::string& text);
std::string formula_text(TSLPprob prob, const Tokens& postfix);

// Scalar internal functions.
double fun_value(int fun, double x);
double fun_derivative(int fun, double x);
const char* fun_name(int fun);
int fun_by_name(const std::string& upper);   // 0 when unknown

// The sum of several coefficients (factor times formula) as one formula with factor 1, in
// the order given: the tokens of combining them one at a time, in linear time.
Tokens combine_all(const std::vector<const Coef*>& parts);

}  // namespace slp
