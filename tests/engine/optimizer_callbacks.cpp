// Checks of the optimiser's solve callbacks through its C interface: registration order,
// removal, the kinds a solve refuses, user solutions and their verdicts.
// Usage: driver <case> <scratch directory>.
#include "engine/check.h"
#include "library_interface/trvo.h"

#include <string>
#include <utility>
#include <vector>

namespace {

// max x + y + z over binaries with x + y <= 1.
struct Mip {
    TRVOprob p = nullptr;
    Mip() {
        TRVOcreateprob(&p);
        TRVOsetintcontrol(p, TRVO_OUTPUTLOG, 0);
        double obj[3] = {1, 1, 1}, lb[3] = {0, 0, 0}, ub[3] = {1, 1, 1};
        int64_t st[3] = {0, 0, 0};
        CHECK(TRVOaddcols64(p, 3, 0, obj, st, nullptr, nullptr, lb, ub) == 0);
        int cols[3] = {0, 1, 2};
        char types[3] = {'B', 'B', 'B'};
        CHECK(TRVOchgcoltype(p, 3, cols, types) == 0);
        char t = 'L';
        double rhs = 1, val[2] = {1, 1};
        int64_t s = 0;
        CHECK(TRVOaddrows64(p, 1, 2, &t, &rhs, nullptr, &s, cols, val) == 0);
        CHECK(TRVOchgobjsense(p, -1) == 0);
    }
    ~Mip() { TRVOdestroyprob(p); }
};

std::vector<std::string> events;

void intsol_a(TRVOprob, void*) { events.push_back("a"); }
void intsol_b(TRVOprob, void*) { events.push_back("b"); }
void notify(TRVOprob, void* ctx, const char* name, int status) {
    events.push_back(std::string(static_cast<const char*>(ctx)) + name + "=" + std::to_string(status));
}
void prenode(TRVOprob, void*, int*) {}

}  // namespace

CASE(priority_order_and_removal) {
    Mip m;
    events.clear();
    CHECK(TRVOaddcbintsol(m.p, intsol_a, nullptr, 1) == 0);
    CHECK(TRVOaddcbintsol(m.p, intsol_b, nullptr, 2) == 0);
    CHECK(TRVOmipoptimize(m.p, nullptr) == 0);
    CHECK(events.size() >= 2 && events[0] == "b" && events[1] == "a");
    CHECK(TRVOremovecbintsol(m.p, intsol_b, nullptr) == 0);
    events.clear();
    CHECK(TRVOmipoptimize(m.p, nullptr) == 0);
    CHECK(!events.empty());
    for (const auto& e : events) CHECK(e == "a");
    CHECK(TRVOremovecbintsol(m.p, nullptr, nullptr) == 0);
    events.clear();
    CHECK(TRVOmipoptimize(m.p, nullptr) == 0);
    CHECK(events.empty());
}

CASE(node_level_kind_is_refused) {
    Mip m;
    CHECK(TRVOaddcbprenode(m.p, prenode, nullptr, 0) == 0);
    CHECK(TRVOsetintcontrol(m.p, TRVO_TREESEARCH, 2) == 0);  // node callbacks need the tree search
    CHECK(TRVOmipoptimize(m.p, nullptr) != 0);
    char msg[512];
    TRVOgetlasterror(m.p, msg);
    CHECK(std::string(msg).find("prenode") != std::string::npos);
    CHECK(TRVOremovecbprenode(m.p, prenode, nullptr) == 0);
    CHECK(TRVOmipoptimize(m.p, nullptr) == 0);
}

CASE(user_solutions_get_the_engines_verdict) {
    Mip m;
    events.clear();
    static char tag[] = "sol:";
    CHECK(TRVOaddcbusersolnotify(m.p, notify, tag, 0) == 0);
    double good[3] = {1, 0, 1}, bad[3] = {1, 1, 0}, frac[1] = {0.5};
    int third = 2;
    CHECK(TRVOaddmipsol(m.p, 3, good, nullptr, "good") == 0);
    CHECK(TRVOaddmipsol(m.p, 3, bad, nullptr, "bad") == 0);
    CHECK(TRVOaddmipsol(m.p, 1, frac, &third, "fractional") == 0);
    CHECK(TRVOmipoptimize(m.p, nullptr) == 0);
    CHECK(events.size() == 3);
    CHECK(events.size() == 3 && events[0] == "sol:good=0" && events[1] == "sol:bad=1" &&
          events[2] == "sol:fractional=1");
    double x[3];
    CHECK(TRVOgetmipsol(m.p, x, nullptr) == 0);
    CHECK_NEAR(x[0] + x[1] + x[2], 2.0, 1e-9);
    events.clear();
    CHECK(TRVOmipoptimize(m.p, nullptr) == 0);
    CHECK(events.empty());  // each solution is offered to one solve
}
