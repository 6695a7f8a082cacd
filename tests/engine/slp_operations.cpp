// Whole-problem operations outside a solve: states, validation, cascading on demand, KKT
// residuals and initial values taken from a solution.
#include "engine/slp_problems.h"

#include <cmath>

namespace {

int state_of(TSLPprob s) {
    int st = -1;
    CHECK(TSLPgetintattrib(s, TSLP_STATUS, &st) == 0);
    return st;
}

}  // namespace

CASE(operations_states) {
    Prob p;
    int x = p.col("x", -5, 5);
    p.objective("exp(x) - 2*x");
    CHECK(state_of(p.s) == 0);
    CHECK(TSLPconstruct(p.s) == 0);
    CHECK(state_of(p.s) & TSLP_STATE_CONSTRUCTED);
    CHECK(TSLPpresolve(p.s) == 0);
    CHECK(state_of(p.s) & TSLP_STATE_PRESOLVED);
    CHECK(TSLPpostsolve(p.s) == 0);
    CHECK(!(state_of(p.s) & TSLP_STATE_PRESOLVED));
    CHECK(TSLPunconstruct(p.s) == 0);
    CHECK(state_of(p.s) == 0);
    // a malformed formula is reported by construct, not at the first solve
    int r = p.row('L', 1);
    int types[3] = {TSLP_TOK_COL, TSLP_TOK_OP, TSLP_TOK_EOF};
    double values[3] = {(double)x, TSLP_OP_PLUS, 0};
    int rc = TSLPchgcoef(p.s, r, -1, nullptr, 1, types, values);
    if (rc == 0) CHECK(TSLPconstruct(p.s) != 0);
    // reinitialize forgets the solution
    TSLPdelcoefs(p.s, 1, &r, &x);
    int minus = -1;
    TSLPdelcoefs(p.s, 1, &r, &minus);
    CHECK(p.solve() == TSLP_NLP_LOCALLY_OPTIMAL);
    CHECK(TSLPreinitialize(p.s) == 0);
    int st = -1;
    CHECK(TSLPgetintattrib(p.s, TSLP_NLPSTATUS, &st) == 0 && st == TSLP_NLP_UNSTARTED);
    double v[2];
    CHECK(TSLPgetslpsol(p.s, v, nullptr, nullptr, nullptr) != 0);
    CHECK(TSLPvalidatekkt(p.s, 0, 0, 0, 1e-6) != 0);   // no multipliers without a solution
}

CASE(operations_validation) {
    // x^2 + y^2 <= 1 and x + y = 1.5 (linear) at the initial point (1, 1)
    Prob p;
    int x = p.col("x", -5, 5, 1), y = p.col("y", -5, 5, 2);
    int r0 = p.row('L', 1);
    p.coef(r0, -1, "x^2 + y^2");
    p.row('E', 1.5, {x, y}, {1, 1});
    p.initial(x, 1);
    p.initial(y, 1);
    CHECK(TSLPvalidate(p.s) == 0);
    double a = 0, r = 0;
    TSLPgetdblattrib(p.s, TSLP_VALIDATIONINDEX_A, &a);
    TSLPgetdblattrib(p.s, TSLP_VALIDATIONINDEX_R, &r);
    CHECK_NEAR(a, 1.0, 1e-12);          // 2 against 1
    CHECK_NEAR(r, 0.5, 1e-12);          // over 1 + |1|
    double vec[2] = {0.5, 2.0}, suminf = -1, scaled = -1, obj = 0;
    CHECK(TSLPvalidatevector(p.s, vec, &suminf, &scaled, &obj) == 0);
    CHECK_NEAR(suminf, 3.25 + 1.0, 1e-12);   // 4.25 - 1 on the circle, 2.5 - 1.5 on the line
    CHECK_NEAR(obj, 0.5 + 4.0, 1e-12);
    CHECK(TSLPvalidatevector(p.s, nullptr, &suminf, &scaled, &obj) != 0);
    CHECK(TSLPvalidaterow(p.s, 7) != 0);
    CHECK(TSLPvalidaterow(p.s, r0) == 0);
}

CASE(operations_cascade_order_and_values) {
    // z = 2 y and y = x^2 with x fixed at 3: the order puts y before z whatever the user gave
    Prob p;
    int x = p.col("x", 3, 3), y = p.col("y", -100, 100), z = p.col("z", -100, 100);
    int ry = p.row('E', 0, {y}, {1});
    p.coef(ry, -1, "-x^2");
    int rz = p.row('E', 0, {z, y}, {1, -2});
    int det[2] = {rz, ry}, seq[2] = {1, 2}, cols[2] = {z, y};
    CHECK(TSLPaddvars(p.s, 2, cols, nullptr, det, seq, nullptr, nullptr, nullptr) == 0);
    CHECK(TSLPcascadeorder(p.s) == 0);
    CHECK(TSLPcascade(p.s) == 0);
    double vy = 0, vz = 0;
    auto value = [&](int c, double* v) {
        CHECK(TSLPgetvar(p.s, c, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, v, nullptr, nullptr, nullptr,
                         nullptr, nullptr, nullptr, nullptr, nullptr) == 0);
    };
    value(y, &vy);
    value(z, &vz);
    CHECK_NEAR(vy, 9.0, 1e-9);
    CHECK_NEAR(vz, 18.0, 1e-9);   // needs y first
    // the cascaded point is the one validated next: every row holds there
    CHECK(TSLPvalidate(p.s) == 0);
    double a = 1;
    TSLPgetdblattrib(p.s, TSLP_VALIDATIONINDEX_A, &a);
    CHECK(a < 1e-9);
}

CASE(operations_kkt_initial_values_and_penalties) {
    Prob p;
    int x1 = p.col("x1", 1, 5), x2 = p.col("x2", 1, 5), x3 = p.col("x3", 1, 5), x4 = p.col("x4", 1, 5);
    p.objective("x1 * x4 * (x1 + x2 + x3) + x3");
    int r1 = p.row('G', 25);
    p.coef(r1, -1, "x1 * x2 * x3 * x4");
    int r2 = p.row('E', 40);
    p.coef(r2, -1, "x1^2 + x2^2 + x3^2 + x4^2");
    double start[4] = {1, 5, 5, 1};
    int c[4] = {x1, x2, x3, x4};
    for (int k = 0; k < 4; ++k) p.initial(c[k], start[k]);
    CHECK(p.solve() == TSLP_NLP_LOCALLY_OPTIMAL);
    int iters = 0;
    TSLPgetintattrib(p.s, TSLP_ITER, &iters);
    CHECK(TSLPvalidatekkt(p.s, 0, 0, 0, 1e-5) == 0);
    double kkt = 1;
    TSLPgetdblattrib(p.s, TSLP_KKTRESIDUAL, &kkt);
    CHECK(kkt < 1e-4);
    int errors = -1;
    CHECK(TSLPfixpenalties(p.s, &errors) == 0 && errors == 0);
    // the solution becomes the start: solving again takes no more iterations (the start on
    // the bound x1 = 1 is moved into the interior, so the second run does not begin at the
    // optimum, and the first run's second-order steps are already few)
    CHECK(TSLPsetcurrentiv(p.s) == 0);
    double iv = 0;
    CHECK(TSLPgetvar(p.s, x2, nullptr, nullptr, nullptr, nullptr, nullptr, &iv, nullptr, nullptr, nullptr, nullptr,
                     nullptr, nullptr, nullptr, nullptr, nullptr) == 0);
    CHECK_NEAR(iv, 4.7429994, 1e-4);
    CHECK(TSLPreinitialize(p.s) == 0);
    CHECK(p.solve() == TSLP_NLP_LOCALLY_OPTIMAL);
    int again = 0;
    TSLPgetintattrib(p.s, TSLP_ITER, &again);
    CHECK(again <= iters);
    CHECK_NEAR(p.obj(), 17.0140173, 1e-5);
}
