// Nonlinear problem files through the C interfaces: the optimiser's reader refuses them, the
// nonlinear reader restores what the writer wrote, and a failed read empties both problems.
#include "engine/slp_problems.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace {

struct TempDir {
    std::string path;
    TempDir() {
        char tmpl[] = "/tmp/slpfilesXXXXXX";
        CHECK(mkdtemp(tmpl) != nullptr);
        path = tmpl;
    }
    ~TempDir() {
        for (const char* f : {"/a.mps", "/b.mps", "/bad.mps"}) std::remove((path + f).c_str());
        rmdir(path.c_str());
    }
    std::string file(const char* name) const { return path + "/" + name; }
};

std::string last_error(TSLPprob s) {
    char msg[512] = "";
    int code = 0;
    TSLPgetlasterror(s, &code, msg);
    return msg;
}

int coefficients(TSLPprob s) {
    int n = -1;
    CHECK(TSLPgetcoefs(s, &n, nullptr, nullptr) == 0);
    return n;
}

}  // namespace

CASE(files_round_trip_and_the_optimiser_refuses_them) {
    TempDir dir;
    Prob p;
    int x = p.col("x", -2, 2), y = p.col("y", -2, 2);
    int r = p.row('L', 1.5);
    p.coef(r, -1, "x ^ 2 + y ^ 2");
    // Maximised through the nonlinear solver's own control only: the file must say so.
    p.objective("x * y * EXP(-x)", -1.0);
    const std::string f = dir.file("a.mps");
    CHECK(TSLPwriteprob(p.s, f.c_str(), "") == 0);

    TRVOprob plain = nullptr;
    CHECK(TRVOcreateprob(&plain) == 0);
    CHECK(TRVOreadprob(plain, f.c_str(), "") != 0);
    char msg[512] = "";
    TRVOgetlasterror(plain, msg);
    CHECK(std::strstr(msg, "nonlinear") != nullptr);
    CHECK(TRVOreadprob(plain, f.c_str(), "l") != 0);   // a .mps file is MPS whatever the flags
    TRVOdestroyprob(plain);

    Prob q;
    CHECK(TSLPreadprob(q.s, f.c_str(), "") == 0);
    CHECK(q.rows() == p.rows() && q.cols() == p.cols());
    CHECK(coefficients(q.s) == coefficients(p.s));
    double sense = 0;
    CHECK(TSLPgetdblcontrol(q.s, TSLP_OBJSENSE, &sense) == 0 && sense == -1.0);
    int status = 0;
    CHECK(TSLPgetrowstatus(q.s, q.rows() - 1, &status) == 0 && (status & TSLP_ROWSTATUS_TRANSFER));
    CHECK(p.solve() == TSLP_NLP_LOCALLY_OPTIMAL);
    CHECK(q.solve() == TSLP_NLP_LOCALLY_OPTIMAL);
    CHECK_NEAR(q.obj(), p.obj(), 1e-8);
    std::vector<double> px = p.x(), qx = q.x();
    CHECK_NEAR(qx[x], px[x], 1e-6);
    CHECK_NEAR(qx[y], px[y], 1e-6);
}

CASE(files_column_named_like_the_equals_column) {
    // A column named "=" is quoted, so its coefficient stays apart from the equals column's.
    TempDir dir;
    Prob p;
    int eq = p.col("=", 1, 3), z = p.col("z", 0.5, 2);
    int r = p.row('L', 20);
    p.coef(r, -1, "z ^ 3");
    p.coef(r, eq, "SIN(z)", 2.0);
    const std::string f = dir.file("b.mps");
    CHECK(TSLPwriteprob(p.s, f.c_str(), "") == 0);
    Prob q;
    CHECK(TSLPreadprob(q.s, f.c_str(), "") == 0);
    CHECK(coefficients(q.s) == 2);
    char text[200];
    double factor = 0;
    CHECK(TSLPgetccoef(q.s, r, eq, &factor, text, sizeof text) == 0);
    CHECK(factor == 2.0 && std::strstr(text, "SIN") != nullptr);
    CHECK(TSLPgetccoef(q.s, r, -1, &factor, text, sizeof text) == 0);
    CHECK(factor == 1.0 && std::strstr(text, "z ^ 3") != nullptr);
    (void)z;
}

CASE(files_failed_read_leaves_both_problems) {
    TempDir dir;
    Prob p;
    int x = p.col("x", 0, 1);
    int r = p.row('L', 1);
    p.coef(r, x, "x");
    const std::string f = dir.file("a.mps");
    CHECK(TSLPwriteprob(p.s, f.c_str(), "") == 0);
    // The same file with an unknown column in its formula.
    std::FILE* in = std::fopen(f.c_str(), "rb");
    std::string text;
    for (int c; in && (c = std::fgetc(in)) != EOF;) text.push_back((char)c);
    if (in) std::fclose(in);
    size_t at = text.find("FORMULAS\n");
    CHECK(at != std::string::npos);
    size_t end = text.find('\n', at + 9);
    text.replace(at + 9, end - at - 9, "    R1 x 1 nosuch * 2");
    const std::string bad = dir.file("bad.mps");
    std::FILE* out = std::fopen(bad.c_str(), "wb");
    std::fputs(text.c_str(), out);
    std::fclose(out);

    // A second column, so that the old problem differs from the file's.
    p.col("y", 0, 2);
    CHECK(TSLPreadprob(p.s, bad.c_str(), "") != 0);
    CHECK(last_error(p.s).find("line") != std::string::npos);
    // Both problems are as they were, the formula included.
    CHECK(p.rows() == 1 && p.cols() == 2 && coefficients(p.s) == 1);
    // and the good file reads over it
    CHECK(TSLPreadprob(p.s, f.c_str(), "") == 0);
    CHECK(p.rows() == 1 && p.cols() == 1 && coefficients(p.s) == 1);
}
