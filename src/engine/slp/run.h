// The state of one SLP run, shared by the iteration (solver.cpp), the step problem and its
// HiGHS instance (step_problem.cpp) and the curvature models (curvature.cpp).
#pragma once

#include "engine/slp/hessian.h"
#include "engine/slp/solver.h"

#include <chrono>
#include <cmath>
#include <string>
#include <vector>

namespace slp {

inline double viol_of(double v, double lo, double up) {
    if (v < lo) return lo - v;
    if (v > up) return v - up;
    return 0.0;
}

inline double bound_inf(double v) {
    if (v <= -TRVO_INFINITY) return -INFINITY;
    if (v >= TRVO_INFINITY) return INFINITY;
    return v;
}

// Replaces the symmetric p x p matrix A (row-major) by its positive semidefinite part.
void psd_part(std::vector<double>& A, int p);

class Run {
public:
    Run(TSLPprob p, const Model& model) : prob(p), m(model), E(p, model) {}
    ~Run();   // releases the HiGHS instance (step_problem.cpp)
    RunResult solve(const std::vector<double>& x0);

private:
    TSLPprob prob;
    const Model& m;
    Evaluator E;
    void* h = nullptr;
    bool auto_threads = false;       // HiGHS runs with the automatic thread count, given explicitly
    int n = 0, ncolLP = 0;
    double sense = 1.0, mu = 1.0;
    std::vector<char> nonlin;
    std::vector<double> delta, w;
    std::vector<int> errcol;         // row -> first error column (e+), -1 without
    std::vector<double> x, gf, gscratch;
    std::vector<double> nlval;       // values of the nonlinear rows at x
    std::vector<std::vector<double>> nlgrad;   // gradients on their patterns
    std::vector<double> rowlo, rowup;
    std::chrono::steady_clock::time_point start;
    long simplex_total = 0;
    // Quasi-Newton curvature on the nonlinear continuous columns.
    std::vector<int> qcols;          // LP columns carrying curvature, ascending
    std::vector<double> B;           // dense |qcols| x |qcols|
    bool use_b = false, have_b = false, hessian_passed = false, skip_b = false;
    // Small models take the exact Hessian of the Lagrangian (second_order.cpp) instead of BFGS.
    bool exact_h = false;
    bool lagrangian_hessian(const std::vector<double>& lam);
    bool lagpat_ready = false;
    SparsePattern lagpat;                  // the Lagrangian's Hessian on qcols positions
    std::vector<int> lagorder, lagcstart;  // positions by colour
    void prepare_lagrangian_pattern();
    // QP step problems (second_order.cpp): HiGHS's QP solver starts from no step instead of a
    // phase-one LP (TSLP_QPWARMSTART), and every answer is made exact on its active set.
    static constexpr double kQpRegularisation = 1e-8;   // diagonal entry of every column
    bool qp_warm = true;
    long qp_warm_exact = 0, qp_cold_exact = 0, qp_inexact = 0;   // QP answers by how they were had
    // The answers are made exact by a dense factorisation of at most ncolLP + nrowLP unknowns,
    // O(N^3): cheap next to the QP solve on small step problems, not attempted on larger ones,
    // which are solved from HiGHS's own start only.
    bool qp_small() const { return ncolLP + nrowLP <= 150; }
    bool qp_start();
    enum { kQpInexact = 0, kQpExact = 1, kQpTied = 2 };
    int qp_polish(std::vector<double>& cv, std::vector<double>& cd, std::vector<double>& rv,
                  std::vector<double>& rd);
    int qp_guess(std::vector<double>& cv, std::vector<double>& cd, std::vector<double>& rv,
                 std::vector<double>& rd);
    int qp_exact_on(const std::vector<int>& cs, const std::vector<int>& rs, std::vector<double>& cv,
                    std::vector<double>& cd, std::vector<double>& rv, std::vector<double>& rd);
    std::vector<int> guess_cs, guess_rs;   // active set (HiGHS's basis statuses) of the last exact answer
    long qp_guessed = 0;
    // Separable curvature on large problems, where a dense model does not fit. The diagonal of
    // the Lagrangian's Hessian (exact for the quadratic objective, by differences of the rows'
    // exact gradients for the rest, each row's share cut to its positive semidefinite part)
    // enters the step problem as a piecewise-linear cost: the step of a curved column is the
    // sum of nseg segment columns each way, bounded by a linking row, whose costs grow with the
    // curvature. The step problem stays an LP and is exact at the segment breakpoints.
    bool use_h = false, pwl_on = false;
    int nseg = 4, nrowLP = 0, seg0 = 0, nlinked = 0;
    std::vector<int> segcol, linkrow;      // per column: first segment column, linking row; -1 without
    std::vector<double> hd, segw;          // per column: curvature and segment width in the current LP
    std::vector<std::vector<int>> hcols;   // per nonlinear row: the columns it is curved in
    std::vector<double> objdiag;           // diagonal of the objective's convexified Hessian
    std::vector<char> hcurved;             // column is curved in some nonlinear row
    std::vector<double> lam_h;             // multipliers of the last step problem
    // Rows curved in more than a few columns: the sparsity of their Hessian on hcols[k]
    // (positions into it) and its colouring, the positions listed by colour.
    struct RowHessian {
        bool usable = false;
        SparsePattern pat;
        std::vector<int> order, cstart;   // positions by colour; colour c is order[cstart[c] .. cstart[c+1])
    };
    std::vector<RowHessian> rowhess;
    bool rowhess_ready = false;
    void prepare_row_hessians();
    void objective_curvature();
    void diag_curvature();
    void reset_segment_basis();
    std::vector<double> gl_old, s_old, lambda;   // pending BFGS update
    bool pending = false;
    std::string last_highs;
    void lagrangian_grad(const std::vector<double>& lam, std::vector<double>& out);
    void bfgs_update(const std::vector<double>& gl_new);
    double quad_model(const std::vector<double>& d) const;
    std::vector<double> errvals;     // error columns of the last LP (e+, e- per bounded row)
    std::vector<double> rowbase;     // row activities at x_k (the step problem's rows are in d = x - x_k)
    std::vector<double> corr;        // per nonlinear row: shift of its linearisation (correction LPs)
    template <class Follow, class Step>
    bool second_order_correction(const std::vector<double>& lintrial, std::vector<double>& xlp,
                                 std::vector<double>& rowdual, std::vector<double>& coldual, double& errsum,
                                 Follow follow_rows, Step step_to, std::vector<double>& trial, double& phi_t,
                                 double& viol_t);

    bool evaluate(const std::vector<double>& at, double* f, std::vector<double>* vals,
                  std::vector<std::vector<double>>* grads);
    double merit(const std::vector<double>& at, bool* ok, double* viol_sum = nullptr);
    void build();
    void update_lp();
    int solve_lp(std::vector<double>& xlp, std::vector<double>& rowdual, std::vector<double>& coldual,
                 double* errsum);
    int solve_step(std::vector<double>& xlp, std::vector<double>& rowdual, std::vector<double>& coldual,
                   double* errsum);   // solve_lp, retried once with a looser tolerance (solver.cpp)
    int finish_lp(const std::vector<double>& cv, const std::vector<double>& cd, const std::vector<double>& rv,
                  const std::vector<double>& rd, std::vector<double>& xlp, std::vector<double>& rowdual,
                  std::vector<double>& coldual, double* errsum);
    // The sparse interior-point step solver (sparse_step.h): still to be tried on this run's
    // step problems, its failures so far, its iterations.
    bool sparse_ok = true;
    int sparse_failures = 0;
    long ipm_total = 0;
    // The last step problem went to the interior-point solver with the curvature as its
    // diagonal quadratic term (instead of the segments): its model of a step is h d^2 / 2.
    bool diag_qp = false;
    int sparse_step(std::vector<double>& cv, std::vector<double>& cd, std::vector<double>& rv,
                     std::vector<double>& rd);
    void tolerances(int j, double* atol_a, double* atol_r) const;
    bool out_of_time() const;
};

}  // namespace slp
