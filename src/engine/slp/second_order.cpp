// Second-order step problems for small models: the exact Hessian of the Lagrangian
// s f - sum_r y_r g_r on the curved columns, by forward differences of the exact (AD)
// gradients of the objective and the nonlinear rows, cut to its positive semidefinite part so
// that the step problem is a convex QP. Its multipliers y are those of the last step problem.
#include "engine/slp/run.h"

#include <algorithm>
#include <cmath>

namespace slp {

namespace {

// Whether A + shift I (symmetric, K x K, row-major) has a Cholesky factorisation.
bool positive_definite(const std::vector<double>& A, size_t K, double shift) {
    std::vector<double> L(A);
    for (size_t j = 0; j < K; ++j) {
        double d = L[j * K + j] + shift;
        for (size_t k = 0; k < j; ++k) d -= L[j * K + k] * L[j * K + k];
        if (!(d > 0.0)) return false;
        d = std::sqrt(d);
        L[j * K + j] = d;
        for (size_t i = j + 1; i < K; ++i) {
            double v = L[i * K + j];
            for (size_t k = 0; k < j; ++k) v -= L[i * K + k] * L[j * K + k];
            L[i * K + j] = v / d;
        }
    }
    return true;
}

}  // namespace

// Fills B with the convexified Hessian of the Lagrangian at x (gf and nlgrad hold the exact
// gradients there). Returns false, leaving B alone, when a gradient cannot be evaluated near
// x or the Hessian has no positive curvature at all (the step problem then stays linear).
bool Run::lagrangian_hessian(const std::vector<double>& lam) {
    const size_t K = qcols.size();
    if (K == 0) return false;
    std::vector<double> g0, g1(n, 0.0), gfs(n, 0.0), H(K * K, 0.0);
    lagrangian_grad(lam, g0);
    std::vector<char> active(E.nlrows.size(), 0);
    for (size_t k = 0; k < E.nlrows.size(); ++k) {
        int r = E.nlrows[k];
        active[k] = r < (int)lam.size() && lam[r] != 0.0;
    }
    std::vector<double> xs = x;
    for (size_t b = 0; b < K; ++b) {
        int j = qcols[b];
        double step = 1e-7 * std::max(1.0, std::fabs(x[j]));
        // Stay inside the column's bounds (the formulas may not be defined beyond them).
        if (x[j] + step > m.ub[j] && x[j] - step >= m.lb[j]) step = -step;
        xs[j] = x[j] + step;
        step = xs[j] - x[j];
        if (!std::isfinite(E.objective(xs.data(), gfs.data()))) return false;
        std::fill(g1.begin(), g1.end(), 0.0);
        for (int c : qcols) g1[c] = sense * gfs[c];
        for (size_t k = 0; k < E.nlrows.size(); ++k) {
            if (!active[k]) continue;
            double v;
            if (!E.nlrow_grad((int)k, xs.data(), &v, gscratch.data())) return false;
            double l = lam[E.nlrows[k]];
            for (int c : E.pattern[k]) g1[c] -= l * gscratch[c];
        }
        xs[j] = x[j];
        for (size_t a = 0; a < K; ++a) H[a * K + b] = (g1[qcols[a]] - g0[a]) / step;
    }
    double big = 0.0;
    for (size_t a = 0; a < K; ++a)
        for (size_t b = a; b < K; ++b) {
            double v = 0.5 * (H[a * K + b] + H[b * K + a]);
            if (!std::isfinite(v)) return false;
            H[a * K + b] = H[b * K + a] = v;
            big = std::max(big, std::fabs(v));
        }
    // Entries at the level of the differencing error are noise, not curvature.
    for (double& v : H)
        if (std::fabs(v) <= 1e-9 * big) v = 0.0;
    // Most Hessians met near a solution are already positive semidefinite: a Cholesky
    // factorisation of H + tiny I (O(K^3 / 6)) tells, and spares the eigenvalue decomposition.
    if (!positive_definite(H, K, 1e-12 * std::max(1.0, big))) psd_part(H, (int)K);
    double trace = 0.0;
    for (size_t a = 0; a < K; ++a) trace += H[a * K + a];
    if (!(trace > 1e-12 * std::max(1.0, big))) return false;
    B.swap(H);
    return true;
}

}  // namespace slp
