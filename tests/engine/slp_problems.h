// Building small nonlinear problems for the engine checks.
#pragma once

#include "engine/check.h"
#include "library_interface/tslp.h"

#include <cstdlib>
#include <string>
#include <vector>

struct Prob {
    TRVOprob t = nullptr;
    TSLPprob s = nullptr;
    Prob() {
        TRVOinit(nullptr);
        TSLPinit();
        CHECK(TRVOcreateprob(&t) == 0);
        CHECK(TSLPcreateprob(&s, &t) == 0);
        // SLP_LOG=<level> in the environment prints the solver's log while debugging.
        const char* lvl = std::getenv("SLP_LOG");
        TSLPsetintcontrol(s, TSLP_LOG, lvl ? std::atoi(lvl) : 0);
        if (lvl)
            TSLPsetcbmessage(s, [](TSLPprob, void*, const char* m, int, int) { if (m) std::printf("%s\n", m); },
                             nullptr);
    }
    ~Prob() {
        TSLPdestroyprob(s);
        TRVOdestroyprob(t);
        TSLPfree();
        TRVOfree();
    }
    int cols() const {
        int n = 0;
        TRVOgetintattrib(t, TRVO_COLS, &n);
        return n;
    }
    int rows() const {
        int n = 0;
        TRVOgetintattrib(t, TRVO_ROWS, &n);
        return n;
    }
    int col(const char* name, double lb, double ub, double obj = 0.0, char type = 'C') {
        int j = cols();
        int64_t start[2] = {0, 0};
        CHECK(TRVOaddcols64(t, 1, 0, &obj, start, nullptr, nullptr, &lb, &ub) == 0);
        CHECK(TRVOaddnames(t, 2, name, j, j) == 0);
        if (type != 'C') CHECK(TRVOchgcoltype(t, 1, &j, &type) == 0);
        return j;
    }
    int row(char type, double rhs, std::vector<int> c = {}, std::vector<double> v = {}) {
        int r = rows();
        int64_t start[2] = {0, (int64_t)c.size()};
        CHECK(TRVOaddrows64(t, 1, (int64_t)c.size(), &type, &rhs, nullptr, start, c.data(), v.data()) == 0);
        return r;
    }
    void coef(int r, int c, const char* formula, double factor = 1.0) {
        int rc = TSLPchgccoef(s, r, c, &factor, formula);
        if (rc) {
            char msg[512];
            int code;
            TSLPgetlasterror(s, &code, msg);
            std::printf("chgccoef(%s): %s\n", formula, msg);
        }
        CHECK(rc == 0);
    }
    // Objective f(x) (text) moved into a row: min/max t with t - f(x) = 0, t determined by
    // the row.
    int objective(const char* formula, double sense = 1.0) {
        int tc = col("objt", -1e20, 1e20, 1.0);
        int r = row('E', 0.0, {tc}, {1.0});
        coef(r, -1, formula, -1.0);
        int detrow = r;
        CHECK(TSLPchgvar(s, tc, &detrow, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr, nullptr) == 0);
        CHECK(TSLPsetdblcontrol(s, TSLP_OBJSENSE, sense) == 0);
        int st = TSLP_ROWSTATUS_TRANSFER;
        CHECK(TSLPchgrowstatus(s, r, &st) == 0);
        return tc;
    }
    void initial(int c, double v) {
        CHECK(TSLPchgvar(s, c, nullptr, nullptr, nullptr, nullptr, nullptr, &v, nullptr, nullptr, nullptr, nullptr,
                         nullptr) == 0);
    }
    int solve() {
        int rc = TSLPnlpoptimize(s, "");
        if (rc) {
            char msg[512];
            int code;
            TSLPgetlasterror(s, &code, msg);
            std::printf("nlpoptimize: %s\n", msg);
        }
        CHECK(rc == 0);
        int st = -1;
        TSLPgetintattrib(s, TSLP_NLPSTATUS, &st);
        return st;
    }
    std::vector<double> x() {
        std::vector<double> v(cols());
        CHECK(TSLPgetslpsol(s, v.data(), nullptr, nullptr, nullptr) == 0);
        return v;
    }
    double obj() {
        double v = 0;
        TSLPgetdblattrib(s, TSLP_OBJVAL, &v);
        return v;
    }
};
