// Environment, problems, catalogue, controls, attributes, callbacks and errors of the
// nonlinear library.
#include "engine/check.h"
#include "library_interface/tslp.h"

#include <set>
#include <string>
#include <vector>


namespace {
struct Env {
    TRVOprob trvo = nullptr;
    TSLPprob slp = nullptr;
    Env() {
        CHECK(TRVOinit(nullptr) == 0);
        CHECK(TSLPinit() == 0);
        CHECK(TRVOcreateprob(&trvo) == 0);
        CHECK(TSLPcreateprob(&slp, &trvo) == 0);
    }
    ~Env() {
        CHECK(TSLPdestroyprob(slp) == 0);
        CHECK(TRVOdestroyprob(trvo) == 0);
        CHECK(TSLPfree() == 0);
        CHECK(TRVOfree() == 0);
    }
};

std::vector<std::string> messages;
void collect(TSLPprob, void* ctx, const char* msg, int len, int type) {
    if (msg) messages.push_back(std::string(msg, len));
    ++*static_cast<int*>(ctx);
}
}  // namespace

CASE(environment_and_creation) {
    // Creation needs a started library and a bound optimisation problem.
    TSLPprob p = nullptr;
    TRVOprob t = nullptr;
    CHECK(TRVOinit(nullptr) == 0);
    CHECK(TRVOcreateprob(&t) == 0);
    CHECK(TSLPcreateprob(&p, &t) != 0 && p == nullptr);
    char msg[512];
    int code = 0;
    CHECK(TSLPgetlasterror(nullptr, &code, msg) == 0 && code != 0 && std::strlen(msg) > 0);
    CHECK(TSLPinit() == 0);
    TRVOprob none = nullptr;
    CHECK(TSLPcreateprob(&p, &none) != 0);
    CHECK(TSLPcreateprob(&p, &t) == 0 && p != nullptr);
    void* ptr = nullptr;
    CHECK(TSLPgetptrattrib(p, TSLP_TRVOPROB, &ptr) == 0 && ptr == (void*)t);
    CHECK(TSLPdestroyprob(p) == 0);
    CHECK(TRVOdestroyprob(t) == 0);
    CHECK(TSLPfree() == 0);
    CHECK(TSLPfree() != 0);   // more releases than starts
    CHECK(TRVOfree() == 0);
}

CASE(catalogue_lists_every_entry_with_consistent_codes) {
    Env e;
    const int* ids;
    const char* const* names;
    const int* flags;
    CHECK(TSLPgetcalist(&ids, &names, &flags) == 0);
    std::set<int> seen;
    int n = 0, controls = 0;
    bool postsolve = false;
    for (int i = 1; names[i][0]; ++i, ++n) {
        CHECK(seen.insert(ids[i]).second);
        int info = 0;
        CHECK(TSLPcontrolcode(names[i], &info) == 0);
        CHECK(info == flags[i]);
        int kinds = (info & 1) + ((info >> 1) & 1) + ((info >> 2) & 1);
        CHECK(kinds == 1);
        if (std::string(names[i]) == "TSLP_POSTSOLVE") postsolve = true;
        if (info & 0x10) {
            ++controls;
            // every control can be read on a fresh problem
            if (info & 1) { int v; CHECK(TSLPgetintcontrol(e.slp, ids[i], &v) == 0); }
            else if (info & 2) { double v; CHECK(TSLPgetdblcontrol(e.slp, ids[i], &v) == 0); }
        } else {
            if (info & 1) { int v; CHECK(TSLPgetintattrib(e.slp, ids[i], &v) == 0); }
            else if (info & 2) { double v; CHECK(TSLPgetdblattrib(e.slp, ids[i], &v) == 0); }
            else { char v[1024]; CHECK(TSLPgetstrattrib(e.slp, ids[i], v) == 0); }
        }
    }
    CHECK(postsolve && controls > 20 && n > controls);
    for (int id : {11999, 12000, 12013, 12016, 12026, 12044, 12062, 12179, 12146, 12415})
        CHECK(seen.count(id) == 1);
    int info = 0;
    CHECK(TSLPcontrolcode("tslp_postsolve", &info) == 0 && (info & 0x11) == 0x11);
    CHECK(TSLPcontrolcode("no_such_control", &info) == 0 && info == 0x200);
    CHECK(TSLPgetKTRcalist(&ids, &names, &flags) == 0 && names[1][0] == '\0');
}

CASE(controls_set_get_copy_and_defaults) {
    Env e;
    int iv = -1;
    double dv = 0;
    CHECK(TSLPgetintcontrol(e.slp, TSLP_ITERLIMIT, &iv) == 0 && iv == 1000);
    CHECK(TSLPsetintcontrol(e.slp, TSLP_ITERLIMIT, 25) == 0);
    CHECK(TSLPgetintcontrol(e.slp, TSLP_ITERLIMIT, &iv) == 0 && iv == 25);
    CHECK(TSLPsetdblcontrol(e.slp, TSLP_OBJSENSE, -1.0) == 0);
    CHECK(TSLPgetdblcontrol(e.slp, TSLP_OBJSENSE, &dv) == 0 && dv == -1.0);
    CHECK(TSLPsetdblcontrol(e.slp, TSLP_OBJSENSE, 3.0) != 0);
    CHECK(TSLPsetintcontrol(e.slp, 12415, 0) == 0);
    // type mismatches and unknown identifiers fail with a message
    CHECK(TSLPsetintcontrol(e.slp, TSLP_FEASTOL, 1) != 0);
    CHECK(TSLPsetdblcontrol(e.slp, 4242, 1.0) != 0);
    CHECK(TSLPgetintcontrol(e.slp, TSLP_OBJVAL, &iv) != 0);
    char msg[512];
    int code = 0;
    CHECK(TSLPgetlasterror(e.slp, &code, msg) == 0 && std::strlen(msg) > 0);
    // copies
    TRVOprob t2;
    TSLPprob s2;
    CHECK(TRVOcreateprob(&t2) == 0 && TSLPcreateprob(&s2, &t2) == 0);
    CHECK(TSLPcopycontrols(s2, e.slp) == 0);
    CHECK(TSLPgetintcontrol(s2, TSLP_ITERLIMIT, &iv) == 0 && iv == 25);
    CHECK(TSLPsetdefaultcontrol(s2, TSLP_ITERLIMIT) == 0);
    CHECK(TSLPgetintcontrol(s2, TSLP_ITERLIMIT, &iv) == 0 && iv == 1000);
    CHECK(TSLPsetdefaults(e.slp) == 0);
    CHECK(TSLPgetdblcontrol(e.slp, TSLP_OBJSENSE, &dv) == 0 && dv == 1.0);
    CHECK(TSLPdestroyprob(s2) == 0 && TRVOdestroyprob(t2) == 0);
}

CASE(attributes_follow_the_bound_problem) {
    Env e;
    int v = -5;
    CHECK(TSLPgetintattrib(e.slp, TSLP_ROWS, &v) == 0 && v == 0);
    double lb[3] = {0, 0, -1}, ub[3] = {1, 2, 3};
    CHECK(TRVOaddcols64(e.trvo, 3, 0, nullptr, nullptr, nullptr, nullptr, lb, ub) == 0);
    char type[2] = {'L', 'E'};
    double rhs[2] = {1, 2};
    int64_t start[3] = {0, 0, 0};
    CHECK(TRVOaddrows64(e.trvo, 2, 0, type, rhs, nullptr, start, nullptr, nullptr) == 0);
    CHECK(TSLPgetintattrib(e.slp, TSLP_ROWS, &v) == 0 && v == 2);
    CHECK(TSLPgetintattrib(e.slp, TSLP_COLS, &v) == 0 && v == 3);
    CHECK(TSLPgetintattrib(e.slp, TSLP_EQUALSCOLUMN, &v) == 0 && v == -1);
    CHECK(TSLPgetintattrib(e.slp, TSLP_NLPSTATUS, &v) == 0 && v == TSLP_NLP_UNSTARTED);
    CHECK(TSLPgetintattrib(e.slp, TSLP_STATUS, &v) == 0 && v == 0);
    double d = 1;
    CHECK(TSLPgetdblattrib(e.slp, TSLP_OBJVAL, &d) == 0 && d == 0.0);
    CHECK(TSLPgetintattrib(e.slp, TSLP_OBJVAL, &v) != 0);
}

CASE(callbacks_register_replace_and_remove) {
    Env e;
    int count = 0;
    CHECK(TSLPsetcbmessage(e.slp, collect, &count) == 0);
    CHECK(TSLPsetcbmessage(e.slp, nullptr, nullptr) == 0);
    CHECK(TSLPsetcbiterend(nullptr, nullptr, nullptr) != 0);
    // the destroy callback fires when the problem goes away
    static int destroyed = 0;
    TRVOprob t2;
    TSLPprob s2;
    CHECK(TRVOcreateprob(&t2) == 0 && TSLPcreateprob(&s2, &t2) == 0);
    CHECK(TSLPsetcbdestroy(s2, [](TSLPprob, void* c) { ++*static_cast<int*>(c); return 0; }, &destroyed) == 0);
    CHECK(TSLPdestroyprob(s2) == 0 && destroyed == 1);
    CHECK(TRVOdestroyprob(t2) == 0);
}
