// Controls and attributes of the nonlinear library: the catalogue, defaults, getters and
// setters.
#include "engine/slp/problem.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <strings.h>

namespace {

enum Kind { INT = 0x1, DBL = 0x2, STR = 0x4, CONTROL = 0x10 };

struct Entry {
    const char* name;
    int id;
    int flags;
    double def;   // default of numeric controls
};

// Entry 0 is a placeholder; the list ends with an empty name.
const Entry entries[] = {
    {"", 0, 0, 0},
    // integer attributes
    {"TSLP_ROWS", TSLP_ROWS, INT, 0},
    {"TSLP_COLS", TSLP_COLS, INT, 0},
    {"TSLP_ITER", TSLP_ITER, INT, 0},
    {"TSLP_SIMPLEXITER", TSLP_SIMPLEXITER, INT, 0},
    {"TSLP_STOPSTATUS", TSLP_STOPSTATUS, INT, 0},
    {"TSLP_COEFFICIENTS", TSLP_COEFFICIENTS, INT, 0},
    {"TSLP_VARIABLES", TSLP_VARIABLES, INT, 0},
    {"TSLP_TOLSETS", TSLP_TOLSETS, INT, 0},
    {"TSLP_UFS", TSLP_UFS, INT, 0},
    {"TSLP_MSJOBS", TSLP_MSJOBS, INT, 0},
    {"TSLP_MSWINNER", TSLP_MSWINNER, INT, 0},
    {"TSLP_PENALTYERRORS", TSLP_PENALTYERRORS, INT, 0},
    {"TSLP_MIPITER", TSLP_MIPITER, INT, 0},
    {"TSLP_EQUALSCOLUMN", TSLP_EQUALSCOLUMN, INT, 0},
    {"TSLP_NONLINEARROWS", TSLP_NONLINEARROWS, INT, 0},
    {"TSLP_NLPROWS", TSLP_NLPROWS, INT, 0},
    {"TSLP_NLPSTATUS", TSLP_NLPSTATUS, INT, 0},
    {"TSLP_STATUS", TSLP_STATUS, INT, 0},
    // double attributes
    {"TSLP_OBJVAL", TSLP_OBJVAL, DBL, 0},
    {"TSLP_ERRORCOSTS", TSLP_ERRORCOSTS, DBL, 0},
    {"TSLP_MAXVIOLATION", TSLP_MAXVIOLATION, DBL, 0},
    {"TSLP_CURRENTPENALTY", TSLP_CURRENTPENALTY, DBL, 0},
    {"TSLP_TIME", TSLP_TIME, DBL, 0},
    {"TSLP_KKTRESIDUAL", TSLP_KKTRESIDUAL, DBL, 0},
    {"TSLP_VALIDATIONINDEX_A", TSLP_VALIDATIONINDEX_A, DBL, 0},
    {"TSLP_VALIDATIONINDEX_R", TSLP_VALIDATIONINDEX_R, DBL, 0},
    // string attributes
    {"TSLP_VERSION", TSLP_VERSION, STR, 0},
    // double controls
    {"TSLP_FEASTOL", TSLP_FEASTOL, DBL | CONTROL, 1e-6},
    {"TSLP_CTOL", TSLP_CTOL, DBL | CONTROL, 1e-6},
    {"TSLP_ATOL_A", TSLP_ATOL_A, DBL | CONTROL, 1e-7},
    {"TSLP_ATOL_R", TSLP_ATOL_R, DBL | CONTROL, 1e-7},
    {"TSLP_MTOL_A", TSLP_MTOL_A, DBL | CONTROL, 0},
    {"TSLP_MTOL_R", TSLP_MTOL_R, DBL | CONTROL, 0},
    {"TSLP_ITOL_A", TSLP_ITOL_A, DBL | CONTROL, 0},
    {"TSLP_ITOL_R", TSLP_ITOL_R, DBL | CONTROL, 0},
    {"TSLP_STOL_A", TSLP_STOL_A, DBL | CONTROL, 0},
    {"TSLP_STOL_R", TSLP_STOL_R, DBL | CONTROL, 0},
    {"TSLP_OPTIMALITYTOL", TSLP_OPTIMALITYTOL, DBL | CONTROL, 1e-7},
    {"TSLP_DEFAULTSTEPBOUND", TSLP_DEFAULTSTEPBOUND, DBL | CONTROL, 0},
    {"TSLP_MINSTEPBOUND", TSLP_MINSTEPBOUND, DBL | CONTROL, 1e-12},
    {"TSLP_PENALTY", TSLP_PENALTY, DBL | CONTROL, 100},
    {"TSLP_MAXPENALTY", TSLP_MAXPENALTY, DBL | CONTROL, 1e12},
    {"TSLP_PENALTYINCREASE", TSLP_PENALTYINCREASE, DBL | CONTROL, 10},
    {"TSLP_DAMP", TSLP_DAMP, DBL | CONTROL, 1},
    {"TSLP_INFINITY", TSLP_INFINITY, DBL | CONTROL, 1e15},
    {"TSLP_MAXTIME", TSLP_MAXTIME, DBL | CONTROL, 0},
    {"TSLP_DELTA_X", TSLP_DELTA_X, DBL | CONTROL, 1e-6},
    {"TSLP_MSMAXBOUNDRANGE", TSLP_MSMAXBOUNDRANGE, DBL | CONTROL, 1000},
    {"TSLP_MIPTOL", TSLP_MIPTOL, DBL | CONTROL, 1e-6},
    {"TSLP_KKTTOL", TSLP_KKTTOL, DBL | CONTROL, 1e-5},
    {"TSLP_OBJSENSE", TSLP_OBJSENSE, DBL | CONTROL, 1},
    // integer controls
    {"TSLP_ITERLIMIT", TSLP_ITERLIMIT, INT | CONTROL, 1000},
    {"TSLP_LOG", TSLP_LOG, INT | CONTROL, 1},
    {"TSLP_POSTSOLVE", TSLP_POSTSOLVE, INT | CONTROL, 0},
    {"TSLP_CASCADE", TSLP_CASCADE, INT | CONTROL, 1},
    {"TSLP_CASCADENLIMIT", TSLP_CASCADENLIMIT, INT | CONTROL, 5},
    {"TSLP_SAMECOUNT", TSLP_SAMECOUNT, INT | CONTROL, 3},
    {"TSLP_PENALTYCOUNT", TSLP_PENALTYCOUNT, INT | CONTROL, 3},
    {"TSLP_DERIVATIVES", TSLP_DERIVATIVES, INT | CONTROL, 0},
    {"TSLP_MULTISTART", TSLP_MULTISTART, INT | CONTROL, 1},
    {"TSLP_MSSEED", TSLP_MSSEED, INT | CONTROL, 1},
    {"TSLP_MSMAXJOBS", TSLP_MSMAXJOBS, INT | CONTROL, 0},
    {"TSLP_MSTHREADS", TSLP_MSTHREADS, INT | CONTROL, 1},
    {"TSLP_PRESOLVE", TSLP_PRESOLVE, INT | CONTROL, 1},
    {"TSLP_MIPFIXSTEPS", TSLP_MIPFIXSTEPS, INT | CONTROL, 1},
    {"TSLP_THREADSAFEUSERFUNC", TSLP_THREADSAFEUSERFUNC, INT | CONTROL, 0},
    {"TSLP_QUASINEWTON", TSLP_QUASINEWTON, INT | CONTROL, 1},
    {"TSLP_STEPSOLVER", TSLP_STEPSOLVER, INT | CONTROL, 0},
    {"TSLP_QPWARMSTART", TSLP_QPWARMSTART, INT | CONTROL, 1},
    {"", 0, 0, 0},
};
const int n_entries = sizeof entries / sizeof entries[0];

const Entry* find(int id) {
    for (int i = 1; i < n_entries - 1; ++i)
        if (entries[i].id == id) return &entries[i];
    return nullptr;
}

const Entry* find_control(int id, int kind) {
    const Entry* e = find(id);
    if (!e || !(e->flags & CONTROL)) throw slp::Error("Unknown control " + std::to_string(id));
    if (!(e->flags & kind)) {
        const char* t = (e->flags & INT) ? "an integer" : (e->flags & DBL) ? "a double" : "a string";
        throw slp::Error(std::string("Control ") + e->name + " is " + t + " control");
    }
    return e;
}

const Entry* find_attrib(int id, int kind) {
    const Entry* e = find(id);
    if (!e || (e->flags & CONTROL))
        throw slp::Error("Unknown attribute " + std::to_string(id));
    if (!(e->flags & kind)) throw slp::Error(std::string("Attribute ") + e->name + " has another type");
    return e;
}

struct Lists {
    int ids[n_entries];
    const char* names[n_entries];
    int flags[n_entries];
    Lists() {
        for (int i = 0; i < n_entries; ++i) {
            ids[i] = entries[i].id;
            names[i] = entries[i].name;
            flags[i] = entries[i].flags;
        }
    }
};
const Lists lists;

const int ktr_ids[2] = {0, 0};
const char* const ktr_names[2] = {"", ""};
const int ktr_flags[2] = {0, 0};

void copy_text(char* dst, const std::string& s) {
    std::snprintf(dst, 1024, "%s", s.c_str());
}

}  // namespace

namespace slp {

void reset_controls(TSLPprob prob) {
    prob->controls = Controls();
    for (int i = 1; i < n_entries - 1; ++i) {
        const Entry& e = entries[i];
        if (!(e.flags & CONTROL)) continue;
        if (e.flags & INT) prob->controls.ints[e.id] = (int)e.def;
        else if (e.flags & DBL) prob->controls.dbls[e.id] = e.def;
        else prob->controls.strs[e.id] = "";
    }
}

int int_control(TSLPprob prob, int id) {
    auto it = prob->controls.ints.find(id);
    return it == prob->controls.ints.end() ? 0 : it->second;
}

double dbl_control(TSLPprob prob, int id) {
    auto it = prob->controls.dbls.find(id);
    return it == prob->controls.dbls.end() ? 0.0 : it->second;
}

// Implemented with the problem data (problem.cpp).
int int_attribute(TSLPprob prob, int id);
double dbl_attribute(TSLPprob prob, int id);

}  // namespace slp

using slp::guard;

extern "C" {

int TSLPgetcalist(const int** ids, const char* const** names, const int** flags) {
    if (ids) *ids = lists.ids;
    if (names) *names = lists.names;
    if (flags) *flags = lists.flags;
    return 0;
}

int TSLPgetKTRcalist(const int** ids, const char* const** names, const int** flags) {
    if (ids) *ids = ktr_ids;
    if (names) *names = ktr_names;
    if (flags) *flags = ktr_flags;
    return 0;
}

int TSLPgetcontrolinfo(const char* name, int* id, int* info) {
    return guard(nullptr, [&] {
        if (!name) throw slp::Error("No name given");
        for (int i = 1; i < n_entries - 1; ++i) {
            if (strcasecmp(entries[i].name, name) == 0) {
                if (id) *id = entries[i].id;
                if (info) *info = entries[i].flags;
                return;
            }
        }
        if (id) *id = 0;
        if (info) *info = 0x200;
    });
}

int TSLPcontrolcode(const char* name, int* info) { return TSLPgetcontrolinfo(name, nullptr, info); }

int TSLPsetintcontrol(TSLPprob prob, int control, int value) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        find_control(control, INT);
        if (value < 0 && control != TSLP_LOG)
            throw slp::Error("Control " + std::to_string(control) + " cannot be negative");
        if (control == TSLP_MSTHREADS && value > 1)
            throw slp::Error("Multistart jobs run one after another: TSLP_MSTHREADS accepts only 0 or 1");
        // The mixed-integer search is a branch-and-bound whose node problems are continuous, and
        // it always ends with an SLP solve with its integers fixed: these two controls of the
        // former mixed-integer steps keep the only values that describe what happens.
        if (control == TSLP_MIPFIXSTEPS && value != 1)
            throw slp::Error("Mixed-integer solves always finish with their integers fixed: TSLP_MIPFIXSTEPS accepts only 1");
        if (control == TSLP_SAMECOUNT && value != 3)
            throw slp::Error("TSLP_SAMECOUNT has no effect: the branch-and-bound fixes no integers during an SLP run, "
                             "so the control accepts only its default 3");
        prob->controls.ints[control] = value;
    });
}

int TSLPsetdblcontrol(TSLPprob prob, int control, double value) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        find_control(control, DBL);
        if (value != value) throw slp::Error("Control value is not a number");
        if (control == TSLP_OBJSENSE && value != 1.0 && value != -1.0)
            throw slp::Error("The objective sense must be 1 or -1");
        if (control != TSLP_OBJSENSE && value < 0)
            throw slp::Error("Control " + std::to_string(control) + " cannot be negative");
        prob->controls.dbls[control] = value;
    });
}

int TSLPsetstrcontrol(TSLPprob prob, int control, const char* value) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        find_control(control, STR);
        prob->controls.strs[control] = value ? value : "";
    });
}

int TSLPgetintcontrol(TSLPprob prob, int control, int* value) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        find_control(control, INT);
        if (value) *value = slp::int_control(prob, control);
    });
}

int TSLPgetdblcontrol(TSLPprob prob, int control, double* value) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        find_control(control, DBL);
        if (value) *value = slp::dbl_control(prob, control);
    });
}

int TSLPgetstrcontrol(TSLPprob prob, int control, char* value) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        find_control(control, STR);
        if (value) copy_text(value, prob->controls.strs[control]);
    });
}

int TSLPsetdefaultcontrol(TSLPprob prob, int control) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        const Entry* e = find(control);
        if (!e || !(e->flags & CONTROL)) throw slp::Error("Unknown control " + std::to_string(control));
        if (e->flags & INT) prob->controls.ints[control] = (int)e->def;
        else if (e->flags & DBL) prob->controls.dbls[control] = e->def;
        else prob->controls.strs[control] = "";
    });
}

int TSLPsetdefaults(TSLPprob prob) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::reset_controls(prob);
    });
}

int TSLPgetintattrib(TSLPprob prob, int attrib, int* value) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        find_attrib(attrib, INT);
        int v = slp::int_attribute(prob, attrib);
        if (value) *value = v;
    });
}

int TSLPgetdblattrib(TSLPprob prob, int attrib, double* value) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        find_attrib(attrib, DBL);
        double v = slp::dbl_attribute(prob, attrib);
        if (value) *value = v;
    });
}

int TSLPgetstrattrib(TSLPprob prob, int attrib, char* value) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        find_attrib(attrib, STR);
        if (value) copy_text(value, "1.0.0");
    });
}

int TSLPgetptrattrib(TSLPprob prob, int attrib, void** value) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        if (attrib != TSLP_TRVOPROB) throw slp::Error("Unknown pointer attribute " + std::to_string(attrib));
        if (value) *value = prob->trvo;
    });
}

}  // extern "C"
