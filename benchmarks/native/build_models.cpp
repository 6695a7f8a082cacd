// The benchmark models of benchmarks/build_solve.py built natively: the model is assembled
// in arrays and handed to HiGHS through its C API (Highs_passModel, Highs_passHessian), then
// Highs_run is called with a time limit that stops it at once, as the Python side does, so
// both sides include HiGHS taking the model over; `read` only reads the file. Prints one line of JSON:
// {"rows": .., "cols": .., "seconds": .., "cpu": .., "peak_bytes": ..} where seconds is wall
// time, cpu the processor time (user + system) and peak_bytes the growth of the peak resident
// set over the resident set at the program's start.
//
//   build_models fac G F | lqcp N | basic N | read FILE
#include "interfaces/highs_c_api.h"

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

long peak_kb() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss;
}

// The resident set now, in kB. The baseline of the peak's growth: the peak itself starts at the
// parent's resident set when the program is started by a larger process (Linux carries the
// peak across exec), which would hide that much of the program's own growth.
long resident_kb() {
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(f);
    }
    return resident > 0 ? resident * (sysconf(_SC_PAGESIZE) / 1024) : peak_kb();
}

// Processor time of the process so far (user + system, all threads), in seconds.
double cpu_seconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           1e-6 * static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec);
}

struct Model {
    std::vector<double> cost, lo, up, rlo, rup;
    std::vector<HighsInt> integ;
    std::vector<HighsInt> start{0}, index;  // rows
    std::vector<double> value;
    std::vector<HighsInt> qstart, qindex;    // Hessian, lower triangle by column
    std::vector<double> qvalue;
    double offset = 0;
    bool mip = false;

    HighsInt col(double l, double u, HighsInt type = 0) {
        cost.push_back(0);
        lo.push_back(l);
        up.push_back(u);
        integ.push_back(type);
        if (type) mip = true;
        return static_cast<HighsInt>(lo.size() - 1);
    }
    void row(std::initializer_list<std::pair<HighsInt, double>> entries, double l, double u) {
        for (const auto& e : entries) {
            index.push_back(e.first);
            value.push_back(e.second);
        }
        start.push_back(static_cast<HighsInt>(index.size()));
        rlo.push_back(l);
        rup.push_back(u);
    }
    HighsInt rows() const { return static_cast<HighsInt>(rlo.size()); }
    HighsInt cols() const { return static_cast<HighsInt>(lo.size()); }
};

// Facility location: y[f][k] in [0, 1], s[i][j][f] >= 0, z[i][j][f] binary, r[i][j][f][k]
// free, d >= 0; minimise d subject to sum_f z[i][j][f] = 1, s - d + M z <= M,
// r[..][0] + y[f][0] = i/G, r[..][1] + y[f][1] = j/G.
void facility(Model& m, int G, int F) {
    const double inf = INFINITY, M = 2 * std::sqrt(2.0);
    const int P = (G + 1) * (G + 1) * F;
    auto at = [&](int i, int j, int f) { return (i * (G + 1) + j) * F + f; };
    const HighsInt y0 = 0;
    for (int k = 0; k < 2 * F; ++k) m.col(0, 1);
    const HighsInt s0 = m.cols();
    for (int k = 0; k < P; ++k) m.col(0, inf);
    const HighsInt z0 = m.cols();
    for (int k = 0; k < P; ++k) m.col(0, 1, 1);
    const HighsInt r0 = m.cols();
    for (int k = 0; k < 2 * P; ++k) m.col(-inf, inf);
    const HighsInt d = m.col(0, inf);
    m.cost[static_cast<size_t>(d)] = 1;
    for (int i = 0; i <= G; ++i)
        for (int j = 0; j <= G; ++j) {
            for (int f = 0; f < F; ++f) {
                m.index.push_back(z0 + at(i, j, f));
                m.value.push_back(1);
            }
            m.start.push_back(static_cast<HighsInt>(m.index.size()));
            m.rlo.push_back(1);
            m.rup.push_back(1);
        }
    for (int i = 0; i <= G; ++i)
        for (int j = 0; j <= G; ++j)
            for (int f = 0; f < F; ++f)
                m.row({{s0 + at(i, j, f), 1}, {d, -1}, {z0 + at(i, j, f), M}}, -inf, M);
    for (int i = 0; i <= G; ++i)
        for (int j = 0; j <= G; ++j)
            for (int f = 0; f < F; ++f)
                m.row({{r0 + 2 * at(i, j, f), 1}, {y0 + 2 * f, 1}}, double(i) / G, double(i) / G);
    for (int i = 0; i <= G; ++i)
        for (int j = 0; j <= G; ++j)
            for (int f = 0; f < F; ++f)
                m.row({{r0 + 2 * at(i, j, f) + 1, 1}, {y0 + 2 * f + 1, 1}}, double(j) / G,
                      double(j) / G);
}

// Linear-quadratic control of the heat equation on an N x N grid (the classic lqcp model).
void lqcp(Model& m, int N) {
    const int n = N, mm = N;
    const double dx = 1.0 / mm, T = 1.58, dt = T / n, h2 = dx * dx, a = 0.001;
    auto y = [&](int i, int j) { return static_cast<HighsInt>(i * (mm + 1) + j); };
    for (int k = 0; k < (n + 1) * (mm + 1); ++k) m.col(0, 1);
    const HighsInt u0 = m.cols();  // u[i], i = 1..n
    for (int k = 0; k < n; ++k) m.col(-1, 1);
    auto u = [&](int i) { return u0 + i - 1; };
    // Objective: 0.25 dx sum_j w_j (y[n][j] - yt_j)^2 + 0.25 a dt sum_i w_i u_i^2, weights 2
    // inside and 1 at the ends (the last control has weight 1); Hessian = 2 x coefficient.
    std::vector<std::pair<HighsInt, double>> diag;
    for (int j = 0; j <= mm; ++j) {
        double w = (j == 0 || j == mm) ? 1 : 2, yt = 0.5 * (1 - (j * dx) * (j * dx));
        double c = 0.25 * dx * w;
        m.cost[static_cast<size_t>(y(n, j))] += -2 * c * yt;
        m.offset += c * yt * yt;
        diag.emplace_back(y(n, j), 2 * c);
    }
    for (int i = 1; i <= n; ++i) diag.emplace_back(u(i), 2 * 0.25 * a * dt * (i == n ? 1 : 2));
    std::vector<double> hd(m.lo.size(), 0.0);
    for (const auto& e : diag) hd[static_cast<size_t>(e.first)] += e.second;
    for (size_t k = 0; k < hd.size(); ++k) {
        m.qstart.push_back(static_cast<HighsInt>(m.qindex.size()));
        if (hd[k] != 0) {
            m.qindex.push_back(static_cast<HighsInt>(k));
            m.qvalue.push_back(hd[k]);
        }
    }
    for (int i = 0; i < n; ++i)
        for (int j = 1; j < mm; ++j)
            m.row({{y(i + 1, j), 1 / dt + 1 / h2}, {y(i, j), -1 / dt + 1 / h2},
                   {y(i, j - 1), -0.5 / h2}, {y(i, j + 1), -0.5 / h2},
                   {y(i + 1, j - 1), -0.5 / h2}, {y(i + 1, j + 1), -0.5 / h2}}, 0, 0);
    for (int j = 0; j <= mm; ++j) m.row({{y(0, j), 1}}, 0, 0);
    for (int i = 1; i <= n; ++i) m.row({{y(i, 2), 1}, {y(i, 1), -4}, {y(i, 0), 3}}, 0, 0);
    for (int i = 1; i <= n; ++i)
        m.row({{y(i, mm - 2), 1 / (2 * dx)}, {y(i, mm - 1), -4 / (2 * dx)},
               {y(i, mm), 3 / (2 * dx) + 1}, {u(i), -1}}, 0, 0);
}

// x[i][j], y[i][j] free; x - y >= i, x + y >= 0; minimise 2 sum x + sum y.
void basic(Model& m, int N) {
    const double inf = INFINITY;
    const HighsInt P = static_cast<HighsInt>(N) * N;
    for (HighsInt k = 0; k < P; ++k) m.col(-inf, inf);
    for (HighsInt k = 0; k < P; ++k) m.col(-inf, inf);
    for (HighsInt k = 0; k < P; ++k) {
        m.cost[static_cast<size_t>(k)] = 2;
        m.cost[static_cast<size_t>(P + k)] = 1;
    }
    for (HighsInt k = 0; k < P; ++k) m.row({{k, 1}, {P + k, -1}}, double(k / N), inf);
    for (HighsInt k = 0; k < P; ++k) m.row({{k, 1}, {P + k, 1}}, 0, inf);
}

void* new_highs() {
    void* h = Highs_create();
    Highs_setBoolOptionValue(h, "output_flag", false);
    return h;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: build_models fac G F | lqcp N | basic N | read FILE\n");
        return 2;
    }
    const long kb0 = resident_kb();
    const double cpu0 = cpu_seconds();
    const auto t0 = std::chrono::steady_clock::now();
    std::string kind = argv[1];
    void* h = new_highs();
    HighsInt rows = 0, cols = 0;
    if (kind == "read") {
        if (Highs_readModel(h, argv[2]) == kHighsStatusError) {
            std::fprintf(stderr, "cannot read %s\n", argv[2]);
            return 1;
        }
        rows = Highs_getNumRow(h);
        cols = Highs_getNumCol(h);
    } else {
        Highs_setDoubleOptionValue(h, "time_limit", 1e-9);
        Model m;
        if (kind == "fac" && argc >= 4) facility(m, std::atoi(argv[2]), std::atoi(argv[3]));
        else if (kind == "lqcp") lqcp(m, std::atoi(argv[2]));
        else if (kind == "basic") basic(m, std::atoi(argv[2]));
        else {
            std::fprintf(stderr, "unknown model %s\n", kind.c_str());
            return 2;
        }
        rows = m.rows();
        cols = m.cols();
        HighsInt st = Highs_passModel(
            h, cols, rows, static_cast<HighsInt>(m.index.size()),
            static_cast<HighsInt>(m.qindex.size()), kHighsMatrixFormatRowwise,
            kHighsHessianFormatTriangular, kHighsObjSenseMinimize, m.offset, m.cost.data(),
            m.lo.data(), m.up.data(), m.rlo.data(), m.rup.data(), m.start.data(),
            m.index.data(), m.value.data(), m.qindex.empty() ? nullptr : m.qstart.data(),
            m.qindex.empty() ? nullptr : m.qindex.data(),
            m.qindex.empty() ? nullptr : m.qvalue.data(), m.mip ? m.integ.data() : nullptr);
        if (st == kHighsStatusError) {
            std::fprintf(stderr, "Highs_passModel failed\n");
            return 1;
        }
    }
    if (kind != "read") Highs_run(h);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    const double cpu = cpu_seconds() - cpu0;
    const long kb1 = peak_kb();
    std::printf("{\"rows\": %d, \"cols\": %d, \"seconds\": %.6f, \"cpu\": %.6f, \"peak_bytes\": %ld}\n",
                static_cast<int>(rows), static_cast<int>(cols), seconds, cpu, (kb1 - kb0) * 1024);
    std::fflush(stdout);
    Highs_destroy(h);
    return 0;
}
