// Checks of the optimisation library's C interface. Usage: driver <case> <scratch directory>.
#include "engine/check.h"
#include "library_interface/trvo.h"

#include <chrono>
#include <fstream>
#include <thread>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string scratch = "/tmp";

struct Prob {
    TRVOprob p = nullptr;
    Prob() {
        TRVOcreateprob(&p);
        TRVOloadlp(p, "t", 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                   nullptr, nullptr, nullptr);
    }
    ~Prob() { TRVOdestroyprob(p); }
    operator TRVOprob() const { return p; }
    void cols(std::vector<double> lb, std::vector<double> ub, std::vector<double> obj) {
        std::vector<int64_t> st(lb.size(), 0);
        CHECK(TRVOaddcols64(p, (int)lb.size(), 0, obj.data(), st.data(), nullptr, nullptr,
                            lb.data(), ub.data()) == 0);
    }
    void row(char t, double rhs, std::vector<int> c, std::vector<double> v) {
        int64_t s = 0;
        CHECK(TRVOaddrows64(p, 1, (int64_t)c.size(), &t, &rhs, nullptr, &s, c.data(), v.data()) == 0);
    }
    double dbl(int id) {
        double v = 0;
        TRVOgetdblattrib(p, id, &v);
        return v;
    }
    int integer(int id) {
        int v = -1;
        TRVOgetintattrib(p, id, &v);
        return v;
    }
    std::string error() {
        char msg[512];
        TRVOgetlasterror(p, msg);
        return msg;
    }
};

// min 2x + 3y  s.t.  c0: x + y >= 4,  c1: x + 3y >= 6,  x, y >= 0: x = 3, y = 1, objective 9,
// duals 1.5 and 0.5.
void diet(Prob& p) {
    p.cols({0, 0}, {TRVO_INFINITY, TRVO_INFINITY}, {2, 3});
    p.row('G', 4, {0, 1}, {1, 1});
    p.row('G', 6, {0, 1}, {1, 3});
    CHECK(TRVOaddnames(p, 2, "x\0y", 0, 1) == 0);
    CHECK(TRVOaddnames(p, 1, "c0\0c1", 0, 1) == 0);
}

}  // namespace

CASE(store_edits_and_queries) {
    Prob p;
    diet(p);
    p.cols({0}, {5}, {1});
    int idx = -1;
    CHECK(TRVOgetindex(p, 2, "y", &idx) == 0 && idx == 1);
    CHECK(TRVOgetindex(p, 2, "nosuch", &idx) != 0 && p.error().find("nosuch") != std::string::npos);
    // Column 2 joins row c1, then column 0 goes: names, matrix and indices move down.
    CHECK(TRVOchgcoef(p, 1, 2, 7) == 0);
    int del = 0;
    CHECK(TRVOdelcols(p, 1, &del) == 0);
    CHECK(TRVOgetindex(p, 2, "y", &idx) == 0 && idx == 0);
    int64_t start[3], nels = 0;
    int ind[8];
    double val[8];
    CHECK(TRVOgetrows64(p, start, ind, val, 8, &nels, 0, 1) == 0);
    CHECK(nels == 3 && start[1] == 1 && ind[0] == 0 && ind[1] == 0 && ind[2] == 1);
    CHECK_NEAR(val[2], 7, 0);
    CHECK(TRVOgetcols64(p, start, ind, val, 8, &nels, 0, 1) == 0);
    CHECK(nels == 3 && start[0] == 0 && start[1] == 2 && start[2] == 3 && ind[2] == 1);
    double coef = -1;
    CHECK(TRVOgetcoef(p, 1, 1, &coef) == 0);
    CHECK_NEAR(coef, 7, 0);
    CHECK(p.integer(TRVO_ELEMS) == 3);
    // A range turns a G row into a ranged row with the same lower side.
    int r0 = 0;
    double rng = 2;
    CHECK(TRVOchgrhsrange(p, 1, &r0, &rng) == 0);
    char type = 0;
    double rhs = 0;
    CHECK(TRVOgetrowtype(p, &type, 0, 0) == 0 && type == 'R');
    CHECK(TRVOgetrhs(p, &rhs, 0, 0) == 0);
    CHECK_NEAR(rhs, 6, 0);
    // Bad input is refused with a message and changes nothing.
    int bad = 9;
    CHECK(TRVOdelrows(p, 1, &bad) != 0 && !p.error().empty());
    CHECK(p.integer(TRVO_ROWS) == 2);
    char bt = 'X';
    double b = 1;
    CHECK(TRVOchgbounds(p, 1, &r0, &bt, &b) != 0);
    // Quadratic objective: pairs given once, read back as the whole symmetric matrix.
    int c1[2] = {0, 1}, c2[2] = {1, 1};
    double q[2] = {1, 4};
    CHECK(TRVOchgmqobj64(p, 2, c1, c2, q) == 0);
    int qs[3], qi[4], qn = 0;
    double qv[4];
    CHECK(TRVOgetmqobj(p, qs, qi, qv, 4, &qn, 0, 1) == 0);
    CHECK(qn == 3 && qs[1] == 1 && qi[0] == 1 && qi[1] == 0 && qi[2] == 1);
    CHECK_NEAR(qv[2], 4, 0);
}

CASE(basis_ranging_rays_and_ftran) {
    Prob p;
    diet(p);
    CHECK(TRVOlpoptimize(p, "") == 0);
    CHECK_NEAR(p.dbl(TRVO_LPOBJVAL), 9, 1e-9);
    int rs[2], cs[2];
    CHECK(TRVOgetbasis(p, rs, cs) == 0);
    CHECK(cs[0] == 1 && cs[1] == 1 && rs[0] == 0 && rs[1] == 0);
    // Costs keep the vertex while 1 <= c_x <= 3 and 2 <= c_y <= 6.
    int both[2] = {0, 1};
    double lo[2], up[2];
    CHECK(TRVOobjsa(p, 2, both, lo, up) == 0);
    CHECK_NEAR(lo[0], 1, 1e-9);
    CHECK_NEAR(up[0], 3, 1e-9);
    CHECK_NEAR(lo[1], 2, 1e-9);
    CHECK_NEAR(up[1], 6, 1e-9);
    CHECK(TRVOrhssa(p, 2, both, lo, up) == 0);
    CHECK_NEAR(lo[0], 2, 1e-9);
    CHECK_NEAR(up[0], 6, 1e-9);
    // B = [[1, 1], [1, 3]]: B^-1 (1, 0) = (1.5, -0.5).
    double v[2] = {1, 0};
    CHECK(TRVOftran(p, v) == 0);
    CHECK_NEAR(v[0], 1.5, 1e-9);
    CHECK_NEAR(v[1], -0.5, 1e-9);
    int npv = -1, nps = -1, nds = -1, ndj = -1;
    CHECK(TRVOgetinfeas(p, &npv, &nps, &nds, &ndj, nullptr, nullptr, nullptr, nullptr) == 0);
    CHECK(npv == 0 && nps == 0 && nds == 0 && ndj == 0);
    // Maximising the same costs: the ranges come back in the user's sense.
    CHECK(TRVOchgobjsense(p, -1) == 0);
    int r = 0;
    double ub = 10;
    char t = 'L';
    CHECK(TRVOchgrowtype(p, 1, &r, &t) == 0);
    CHECK(TRVOchgrhs(p, 1, &r, &ub) == 0);
    CHECK(TRVOlpoptimize(p, "") == 0);
    CHECK_NEAR(p.dbl(TRVO_LPOBJVAL), 30, 1e-9);  // y = 10
    CHECK(TRVOobjsa(p, 1, &both[1], lo, up) == 0);
    CHECK_NEAR(lo[0], 2, 1e-9);
    // Unbounded: a primal ray; infeasible: a dual ray.
    Prob u;
    u.cols({0, 0}, {TRVO_INFINITY, TRVO_INFINITY}, {-1, 0});
    u.row('L', 1, {0, 1}, {-1, 1});
    CHECK(TRVOlpoptimize(u, "p") == 0 && u.integer(TRVO_LPSTATUS) == TRVO_LP_UNBOUNDED);
    int has = 0;
    double ray[2];
    CHECK(TRVOgetprimalray(u, ray, &has) == 0 && has == 1);
    CHECK(ray[0] > 0 && ray[1] >= -ray[0] * 1e-9);
    Prob inf;
    diet(inf);
    inf.row('L', 1, {0, 1}, {1, 1});
    CHECK(TRVOlpoptimize(inf, "") == 0 && inf.integer(TRVO_LPSTATUS) == TRVO_LP_INFEAS);
    double dray[3];
    CHECK(TRVOgetdualray(inf, dray, &has) == 0 && has == 1);
    CHECK(std::fabs(dray[0]) > 1e-9 && std::fabs(dray[2]) > 1e-9);
}

CASE(calculations_on_given_vectors) {
    Prob p;
    diet(p);
    double sol[2] = {3, 1}, duals[2] = {1.5, 0.5}, obj = 0, slack[2], dj[2], v = -1;
    CHECK(TRVOcalcobjective(p, sol, &obj) == 0);
    CHECK_NEAR(obj, 9, 0);
    CHECK(TRVOcalcslacks(p, sol, slack) == 0);
    CHECK_NEAR(slack[0], 0, 0);
    CHECK(TRVOcalcreducedcosts(p, duals, sol, dj) == 0);
    CHECK_NEAR(dj[0], 0, 1e-12);
    CHECK_NEAR(dj[1], 0, 1e-12);
    double origin[2] = {0, 0};
    CHECK(TRVOcalcsolinfo(p, origin, duals, 0, &v) == 0);
    CHECK_NEAR(v, 6, 0);  // c1 short by 6
    CHECK(TRVOcalcsolinfo(p, origin, duals, 1, &v) == 0);
    CHECK_NEAR(v, 6.0 / 7.0, 1e-12);
    // Wrong-signed duals of G rows in a minimisation are dual infeasible.
    double neg[2] = {-1, 0};
    CHECK(TRVOcalcsolinfo(p, sol, neg, 2, &v) == 0 && v > 0.5);
    CHECK(TRVOcalcsolinfo(p, sol, duals, 7, &v) != 0);
}

CASE(iis_and_repair) {
    Prob p;
    diet(p);
    p.row('L', 1, {0, 1}, {1, 1});  // contradicts c0
    int status = -1;
    CHECK(TRVOiisfirst(p, 1, &status) == 0 && status == 0);
    int count = 0, rows[1], cols[1], num[1];
    double sum[1];
    CHECK(TRVOiisstatus(p, &count, rows, cols, sum, num) == 0 && count == 1);
    CHECK(rows[0] == 2);
    CHECK_NEAR(sum[0], 3, 1e-9);
    int nr = 0, nc = 0, mr[4], mc[4];
    char ct[4], cb[4];
    CHECK(TRVOgetiisdata(p, 1, &nr, &nc, mr, mc, ct, cb, nullptr, nullptr, nullptr, nullptr) == 0);
    CHECK(nr == 2 && ((mr[0] == 0 && mr[1] == 2) || (mr[0] == 2 && mr[1] == 0)));
    CHECK(TRVOiisnext(p, &status) == 0 && status == 2);
    std::string lp = scratch + "/iis.lp";
    CHECK(TRVOiiswrite(p, 1, lp.c_str(), 0, "") == 0);
    std::ifstream in(lp);
    std::stringstream text;
    text << in.rdbuf();
    CHECK(text.str().find("c0") != std::string::npos && text.str().find("c1") == std::string::npos);
    // Repair: relaxing only the L row costs 3 units of violation.
    int scode = -1;
    double lrp[3] = {0, 0, 0}, grp[3] = {0, 0, 1};
    CHECK(TRVOrepairweightedinfeas(p, &scode, lrp, grp, nullptr, nullptr, 0, 0, "") == 0);
    CHECK(scode == 0);
    double x[2], s[3];
    CHECK(TRVOgetlpsol(p, x, s, nullptr, nullptr) == 0);
    CHECK(x[0] + x[1] >= 4 - 1e-7 && x[0] + 3 * x[1] >= 6 - 1e-7);
    CHECK_NEAR(s[2], -3, 1e-7);
    // Nothing may be relaxed: no repair.
    double none[3] = {0, 0, 0};
    CHECK(TRVOrepairweightedinfeas(p, &scode, none, none, nullptr, nullptr, 0, 0, "") == 0);
    CHECK(scode != 0);
    // A feasible problem has no IIS.
    Prob f;
    diet(f);
    CHECK(TRVOiisfirst(f, 1, &status) == 0 && status == 1);
}

CASE(starts_and_files) {
    // max 5x + 4y, 6x + 4y <= 24, x + 2y <= 6, integers: 20 at (4, 0).
    Prob m;
    m.cols({0, 0}, {10, 10}, {5, 4});
    m.row('L', 24, {0, 1}, {6, 4});
    m.row('L', 6, {0, 1}, {1, 2});
    CHECK(TRVOchgobjsense(m, -1) == 0);
    int both[2] = {0, 1};
    char ty[2] = {'I', 'I'};
    CHECK(TRVOchgcoltype(m, 2, both, ty) == 0);
    double good[2] = {4, 0}, bad[2] = {5, 5};
    int st = -1;
    CHECK(TRVOloadmipsol(m, bad, &st) == 0 && st == 1);
    CHECK(TRVOloadmipsol(m, good, &st) == 0 && st == 0);
    CHECK(TRVOmipoptimize(m, "") == 0);
    CHECK_NEAR(m.dbl(TRVO_MIPOBJVAL), 20, 1e-9);
    std::string slx = scratch + "/m.slx", sol = scratch + "/m.sol";
    CHECK(TRVOwriteslxsol(m, slx.c_str(), "") == 0);
    CHECK(TRVOreadslxsol(m, slx.c_str(), "") == 0);
    CHECK(TRVOwritesol(m, sol.c_str(), "") == 0);
    std::ifstream in(sol);
    std::string line;
    std::getline(in, line);
    std::getline(in, line);
    CHECK(line == "objective 20");
    // Basis files: a basis written after one solve makes the next solve take no iterations.
    Prob p, q;
    diet(p);
    diet(q);
    CHECK(TRVOlpoptimize(p, "") == 0);
    std::string bss = scratch + "/d.bss";
    CHECK(TRVOwritebasis(p, bss.c_str(), "") == 0);
    CHECK(TRVOreadbasis(q, bss.c_str(), "") == 0);
    CHECK(TRVOlpoptimize(q, "") == 0);
    CHECK(q.integer(TRVO_SIMPLEXITER) == 0);
    CHECK_NEAR(q.dbl(TRVO_LPOBJVAL), 9, 1e-9);
    // A basis with the wrong number of basic entries is refused.
    int rs[2] = {1, 1}, cs[2] = {1, 1};
    CHECK(TRVOloadbasis(q, rs, cs) != 0);
    // The log file receives the messages.
    std::string log = scratch + "/log.txt";
    CHECK(TRVOsetlogfile(p, log.c_str()) == 0);
    CHECK(TRVOlpoptimize(p, "") == 0);
    std::ifstream lf(log);
    std::stringstream ls;
    ls << lf.rdbuf();
    CHECK(ls.str().find("HiGHS") != std::string::npos);
}

CASE(interrupt_then_resolve) {
    // A stop request before the solve starts is cleared: the request applies to a running
    // solve only, and the problem solves normally.
    Prob p;
    diet(p);
    CHECK(TRVOinterrupt(p, TRVO_STOP_CTRLC) == 0);
    CHECK(TRVOlpoptimize(p, "") == 0);
    CHECK(p.integer(TRVO_LPSTATUS) == TRVO_LP_OPTIMAL && p.integer(TRVO_STOPSTATUS) == 0);
}

CASE(interrupt_stops_a_running_mip) {
    // Market split: 4 binary equality rows over 40 columns, a long search.
    Prob p;
    const int m = 4, n = 40;
    p.cols(std::vector<double>(n, 0), std::vector<double>(n, 1), std::vector<double>(n, 0));
    unsigned seed = 12345;
    for (int i = 0; i < m; ++i) {
        std::vector<int> c(n);
        std::vector<double> v(n);
        double total = 0;
        for (int j = 0; j < n; ++j) {
            seed = seed * 1103515245u + 12345u;
            c[j] = j;
            v[j] = (seed >> 16) % 100;
            total += v[j];
        }
        p.row('E', std::floor(total / 2), c, v);
    }
    std::vector<int> all(n);
    std::vector<char> types(n, 'B');
    for (int j = 0; j < n; ++j) all[j] = j;
    CHECK(TRVOchgcoltype(p, n, all.data(), types.data()) == 0);
    CHECK(TRVOsetintcontrol(p, TRVO_OUTPUTLOG, 0) == 0);
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        TRVOinterrupt(p, TRVO_STOP_CTRLC);
    });
    CHECK(TRVOmipoptimize(p, "") == 0);
    stopper.join();
    CHECK(p.integer(TRVO_STOPSTATUS) == TRVO_STOP_CTRLC);
    CHECK(p.integer(TRVO_SOLVESTATUS) == TRVO_SOLVESTATUS_STOPPED);
    int ms = p.integer(TRVO_MIPSTATUS);
    CHECK(ms == TRVO_MIP_NO_SOL_FOUND || ms == TRVO_MIP_SOLUTION);
    // The problem stays usable: with a node limit the next solve ends for that reason.
    CHECK(TRVOsetintcontrol(p, TRVO_MAXNODE, 1) == 0);
    CHECK(TRVOsetintcontrol(p, TRVO_PRESOLVE, 0) == 0);
    CHECK(TRVOmipoptimize(p, "") == 0);
    CHECK(p.integer(TRVO_STOPSTATUS) == TRVO_STOP_NODELIMIT);
}

int main(int argc, char** argv) {
    if (argc > 2) scratch = argv[2];
    return run_main(argc, argv);
}
