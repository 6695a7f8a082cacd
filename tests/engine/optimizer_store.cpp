// Checks of the problem store's incremental paths: numbered names, deleting the last rows,
// results after structural changes, single solution entries and the entity count.
// Usage: driver <case> <scratch directory>.
#include "engine/check.h"
#include "library_interface/trvo.h"

#include <string>
#include <vector>

namespace {

struct Prob {
    TRVOprob p = nullptr;
    Prob() {
        TRVOcreateprob(&p);
        TRVOloadlp(p, "t", 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                   nullptr, nullptr, nullptr);
        TRVOsetintcontrol(p, TRVO_OUTPUTLOG, 0);
    }
    ~Prob() { TRVOdestroyprob(p); }
    operator TRVOprob() const { return p; }
    void cols(int n, double lb, double ub, double obj) {
        std::vector<double> l(n, lb), u(n, ub), o(n, obj);
        std::vector<int64_t> st(n, 0);
        CHECK(TRVOaddcols64(p, n, 0, o.data(), st.data(), nullptr, nullptr, l.data(), u.data()) == 0);
    }
    void row(char t, double rhs, std::vector<int> c, std::vector<double> v) {
        int64_t s = 0;
        CHECK(TRVOaddrows64(p, 1, (int64_t)c.size(), &t, &rhs, nullptr, &s, c.data(), v.data()) == 0);
    }
    int integer(int id) {
        int v = -1;
        TRVOgetintattrib(p, id, &v);
        return v;
    }
    int index(int type, const char* name) {
        int i = -1;
        return TRVOgetindex(p, type, name, &i) == 0 ? i : -1;
    }
    std::string name(int type, int i) {
        char buf[256];
        CHECK(TRVOgetnames(p, type, buf, i, i) == 0);
        return buf;
    }
    std::string error() {
        char msg[512];
        TRVOgetlasterror(p, msg);
        return msg;
    }
};

}  // namespace

CASE(numbered_and_text_names) {
    Prob p;
    p.cols(5, 0, 10, 1);
    // Numbered names of either letter, a leading zero (kept as text), a text name; column 4
    // keeps its generated name.
    CHECK(TRVOaddnames(p, 2, "C17\0R5\0C017\0x", 0, 3) == 0);
    CHECK(p.name(2, 0) == "C17" && p.name(2, 1) == "R5" && p.name(2, 2) == "C017");
    CHECK(p.name(2, 3) == "x" && p.name(2, 4) == "C5");
    CHECK(p.index(2, "C17") == 0 && p.index(2, "R5") == 1 && p.index(2, "C017") == 2);
    CHECK(p.index(2, "x") == 3 && p.index(2, "C5") == 4 && p.index(2, "C18") == -1);
    // Renaming moves the lookups along, in both directions between the two kinds of name.
    CHECK(TRVOaddnames(p, 2, "y\0C99", 0, 1) == 0);
    CHECK(p.index(2, "C17") == -1 && p.index(2, "y") == 0 && p.index(2, "C99") == 1);
    CHECK(TRVOaddnames(p, 2, "C3", 3, 3) == 0);
    CHECK(p.index(2, "x") == -1 && p.index(2, "C3") == 3 && p.name(2, 3) == "C3");
    // Deleting a column renumbers every kind of name; the generated one follows its position.
    int del = 1;
    CHECK(TRVOdelcols(p, 1, &del) == 0);
    CHECK(p.index(2, "C99") == -1 && p.index(2, "C017") == 1 && p.index(2, "C3") == 2);
    CHECK(p.name(2, 3) == "C4" && p.index(2, "C4") == 3);
    int len = 0;
    CHECK(TRVOgetintattrib(p, TRVO_NAMELENGTH, &len) == 0 && len == 1);
}

CASE(deleting_the_last_rows) {
    Prob p;
    p.cols(3, 0, 10, 1);
    p.row('G', 1, {0, 1}, {1, 1});
    p.row('G', 2, {1, 2}, {1, 1});
    p.row('L', 9, {0, 2}, {1, 1});
    CHECK(TRVOaddnames(p, 1, "keep\0R77\0gone", 0, 2) == 0);
    int q1 = 0, q2 = 2;
    double qv = 1;
    CHECK(TRVOaddqmatrix64(p, 2, 1, &q1, &q2, &qv) == 0);
    int tail[2] = {2, 1};  // given in any order
    CHECK(TRVOdelrows(p, 2, tail) == 0);
    CHECK(p.integer(TRVO_ROWS) == 1 && p.integer(TRVO_ELEMS) == 2);
    CHECK(p.integer(TRVO_QCONSTRAINTS) == 0);
    CHECK(p.index(1, "keep") == 0 && p.index(1, "gone") == -1 && p.index(1, "R77") == -1);
    // The names are free again for new rows.
    p.row('G', 3, {2}, {1});
    CHECK(TRVOaddnames(p, 1, "gone", 1, 1) == 0);
    CHECK(p.index(1, "gone") == 1 && p.name(1, 1) == "gone");
    // A repeated or out-of-range index is refused as before and changes nothing.
    int twice[2] = {1, 1};
    CHECK(TRVOdelrows(p, 2, twice) == 0 && p.integer(TRVO_ROWS) == 1);
    int bad = 5;
    CHECK(TRVOdelrows(p, 1, &bad) != 0 && p.integer(TRVO_ROWS) == 1);
}

CASE(results_after_changes_and_single_entries) {
    Prob p;
    // min x + 2y  s.t. x + y >= 4, x <= 3: x = 3, y = 1, duals 2 and -1, objective 5.
    p.cols(2, 0, 1e20, 1);
    double two = 2;
    int one = 1;
    CHECK(TRVOchgobj(p, 1, &one, &two) == 0);
    p.row('G', 4, {0, 1}, {1, 1});
    p.row('L', 3, {0}, {1});
    double v = -1;
    CHECK(TRVOgetsolentry(p, -1, 0, 0, &v) != 0 && p.error() == "No LP solution available");
    CHECK(TRVOlpoptimize(p, "") == 0);
    double x[2], slack[2], dual[2], dj[2];
    CHECK(TRVOgetlpsol(p, x, slack, dual, dj) == 0);
    for (int what = 0; what < 4; ++what)
        for (int k = 0; k < 2; ++k) {
            const double* want = what == 0 ? x : what == 1 ? slack : what == 2 ? dual : dj;
            CHECK(TRVOgetsolentry(p, -1, what, k, &v) == 0);
            CHECK_NEAR(v, want[k], 0);
        }
    CHECK_NEAR(x[0], 3, 1e-9);
    CHECK_NEAR(dual[0], 2, 1e-9);
    CHECK(TRVOgetsolentry(p, 0, 0, 2, &v) != 0);
    CHECK(TRVOgetsolentry(p, 1, 0, 0, &v) != 0);  // no integer solution was found
    // A new column makes the old solution unavailable instead of leaving stale values.
    p.cols(1, 0, 1, -1);
    CHECK(TRVOgetlpsol(p, x, nullptr, nullptr, nullptr) != 0);
    CHECK(TRVOgetsolentry(p, -1, 0, 2, &v) != 0);
    CHECK(TRVOlpoptimize(p, "") == 0);
    CHECK(TRVOgetsolentry(p, -1, 0, 2, &v) == 0);
    CHECK_NEAR(v, 1, 1e-9);
    // With an integer column the integer solution is read, and it has no duals.
    char I = 'I';
    int c2 = 2;
    CHECK(TRVOchgcoltype(p, 1, &c2, &I) == 0);
    CHECK(p.integer(TRVO_MIPENTS) == 1);
    CHECK(TRVOmipoptimize(p, "") == 0);
    CHECK(TRVOgetsolentry(p, -1, 0, 2, &v) == 0);
    CHECK_NEAR(v, 1, 1e-9);
    CHECK(TRVOgetsolentry(p, -1, 2, 0, &v) != 0);
    char C = 'C';
    CHECK(TRVOchgcoltype(p, 1, &c2, &C) == 0 && p.integer(TRVO_MIPENTS) == 0);
    CHECK(TRVOchgcoltype(p, 1, &c2, &I) == 0 && p.integer(TRVO_MIPENTS) == 1);
    CHECK(TRVOdelcols(p, 1, &c2) == 0 && p.integer(TRVO_MIPENTS) == 0);
}

int main(int argc, char** argv) { return run_main(argc, argv); }
