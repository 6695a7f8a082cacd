// The SLP solver on classic problems with known optima.
#include "engine/slp_problems.h"

#include <cmath>


CASE(rosenbrock) {
    Prob p;
    int x = p.col("x", -10, 10), y = p.col("y", -10, 10);
    p.objective("(1 - x)^2 + 100 * (y - x^2)^2");
    p.initial(x, -1.2);
    p.initial(y, 1.0);
    CHECK(p.solve() == TSLP_NLP_LOCALLY_OPTIMAL);
    auto v = p.x();
    CHECK_NEAR(v[x], 1.0, 1e-4);
    CHECK_NEAR(v[y], 1.0, 1e-4);
    CHECK_NEAR(p.obj(), 0.0, 1e-7);
}

CASE(hs071) {
    Prob p;
    int x1 = p.col("x1", 1, 5), x2 = p.col("x2", 1, 5), x3 = p.col("x3", 1, 5), x4 = p.col("x4", 1, 5);
    p.objective("x1 * x4 * (x1 + x2 + x3) + x3");
    int r1 = p.row('G', 25);
    p.coef(r1, -1, "x1 * x2 * x3 * x4");
    int r2 = p.row('E', 40);
    p.coef(r2, -1, "x1^2 + x2^2 + x3^2 + x4^2");
    p.initial(x1, 1);
    p.initial(x2, 5);
    p.initial(x3, 5);
    p.initial(x4, 1);
    CHECK(p.solve() == TSLP_NLP_LOCALLY_OPTIMAL);
    auto v = p.x();
    CHECK_NEAR(p.obj(), 17.0140173, 1e-5);
    CHECK_NEAR(v[x1], 1.0, 1e-4);
    CHECK_NEAR(v[x2], 4.7429994, 1e-4);
    CHECK_NEAR(v[x3], 3.8211503, 1e-4);
    CHECK_NEAR(v[x4], 1.3794082, 1e-4);
    // slacks are rhs minus activity; the active product row has a multiplier
    std::vector<double> slack(p.rows()), dual(p.rows());
    CHECK(TSLPgetslpsol(p.s, nullptr, slack.data(), dual.data(), nullptr) == 0);
    CHECK_NEAR(slack[r1], 0.0, 1e-5);
    CHECK_NEAR(slack[r2], 0.0, 1e-5);
    CHECK(std::fabs(dual[r1]) > 1e-3);
}

CASE(convex_qcqp_from_the_optimiser_problem) {
    // min (x-2)^2 + (y-1)^2 = x^2 + y^2 - 4x - 2y + 5 s.t. x^2 + y^2 <= 1, all quadratic parts
    // held by the optimisation problem.
    Prob p;
    int x = p.col("x", -5, 5, -4), y = p.col("y", -5, 5, -2);
    int c1[2] = {x, y}, c2[2] = {x, y};
    double q[2] = {2, 2};
    CHECK(TRVOchgmqobj(p.t, 2, c1, c2, q) == 0);
    double one[2] = {1, 1};
    int r = p.row('L', 1);
    CHECK(TRVOaddqmatrix64(p.t, r, 2, c1, c2, one) == 0);
    CHECK(p.solve() == TSLP_NLP_LOCALLY_OPTIMAL);
    auto v = p.x();
    CHECK_NEAR(v[x], 2 / std::sqrt(5.0), 1e-5);
    CHECK_NEAR(v[y], 1 / std::sqrt(5.0), 1e-5);
    CHECK_NEAR(p.obj() + 5, 6 - 2 * std::sqrt(5.0), 1e-5);   // without the constant 5
    int nl = 0;
    CHECK(TSLPgetintattrib(p.s, TSLP_NLPROWS, &nl) == 0 && nl == 1);
}

CASE(nonconvex_qp_reaches_a_local_minimum) {
    // min x*y s.t. x + y >= 1, 0 <= x, y <= 2: local minima have x*y = 0
    Prob p;
    int x = p.col("x", 0, 2), y = p.col("y", 0, 2);
    p.row('G', 1, {x, y}, {1, 1});
    p.objective("x * y");
    p.initial(x, 0.8);
    p.initial(y, 0.9);
    CHECK(p.solve() == TSLP_NLP_LOCALLY_OPTIMAL);
    auto v = p.x();
    CHECK_NEAR(v[x] * v[y], 0.0, 1e-6);
    CHECK(v[x] + v[y] >= 1 - 1e-6);
}

CASE(exp_log_sin_objectives) {
    {
        Prob p;
        int x = p.col("x", -10, 10);
        p.objective("exp(x) - 2*x");
        CHECK(p.solve() == TSLP_NLP_LOCALLY_OPTIMAL);
        CHECK_NEAR(p.x()[x], std::log(2.0), 1e-5);
        CHECK_NEAR(p.obj(), 2 - 2 * std::log(2.0), 1e-7);
    }
    {
        Prob p;
        int x = p.col("x", 0, 6);
        p.objective("sin(x)");
        p.initial(x, 3);
        CHECK(p.solve() == TSLP_NLP_LOCALLY_OPTIMAL);
        CHECK_NEAR(p.x()[x], 1.5 * 3.14159265358979, 1e-5);
        CHECK_NEAR(p.obj(), -1.0, 1e-8);
    }
    {
        Prob p;   // max ln x + ln y s.t. x + 2y <= 4
        int x = p.col("x", 0.01, 10), y = p.col("y", 0.01, 10);
        p.row('L', 4, {x, y}, {1, 2});
        p.objective("ln(x) + log(y)", -1.0);
        p.initial(x, 1);
        p.initial(y, 1);
        CHECK(p.solve() == TSLP_NLP_LOCALLY_OPTIMAL);
        auto v = p.x();
        CHECK_NEAR(v[x], 2.0, 1e-5);
        CHECK_NEAR(v[y], 1.0, 1e-5);
        CHECK_NEAR(p.obj(), std::log(2.0), 1e-7);
    }
}

CASE(small_minlp) {
    // min (x - 2.6)^2 + (y - 1.3)^2 + exp(0.1 y), x integer, x + y <= 3.5
    Prob p;
    int x = p.col("x", 0, 5, 0, 'I'), y = p.col("y", 0, 5);
    p.row('L', 3.5, {x, y}, {1, 1});
    p.objective("(x - 2.6)^2 + (y - 1.3)^2");
    CHECK(p.solve() == TSLP_NLP_GLOBALLY_OPTIMAL);   // convex: the search's optimum is global
    auto v = p.x();
    CHECK_NEAR(v[x], 2.0, 1e-9);
    CHECK_NEAR(v[y], 1.3, 1e-5);
    CHECK_NEAR(p.obj(), 0.36, 1e-6);
    int mipiter = 0;
    CHECK(TSLPgetintattrib(p.s, TSLP_MIPITER, &mipiter) == 0 && mipiter > 0);
}

CASE(infeasible_and_unbounded) {
    {
        // x^2 + y^2 <= 1 and x + y >= 3 cannot both hold
        Prob p;
        int x = p.col("x", -5, 5, 1), y = p.col("y", -5, 5);
        int r = p.row('L', 1);
        p.coef(r, -1, "x^2 + y^2");
        p.row('G', 3, {x, y}, {1, 1});
        int st = p.solve();
        CHECK(st == TSLP_NLP_LOCALLY_INFEASIBLE);
        double viol = 0;
        CHECK(TSLPgetdblattrib(p.s, TSLP_MAXVIOLATION, &viol) == 0 && viol > 0.1);
    }
    {
        // min -x with x free above and exp(-x) <= 1
        Prob p;
        int x = p.col("x", -1e20, 1e20, -1);
        int r = p.row('L', 1);
        p.coef(r, -1, "exp(-x)");
        CHECK(p.solve() == TSLP_NLP_UNBOUNDED);
    }
}
