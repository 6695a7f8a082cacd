// Controls and attributes: the catalogue, per-problem control values with their defaults and
// the attributes computed from the store and the last solve.
#include "engine/optimizer/problem.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace trvo {
namespace {

enum : int { kInt = 0x1, kDbl = 0x2, kStr = 0x0, kControl = 0x20 };

struct Entry {
    int id;
    const char* name;
    int flags;
    double def;  // default of numeric controls
};

// Every entry here is honoured by the engine: controls drive HiGHS options or the engine's
// own behaviour, attributes are computed from the store and the last solve.
const Entry kCatalogue[] = {
    // integer attributes
    {TRVO_ROWS, "ROWS", kInt, 0},
    {TRVO_SETS, "SETS", kInt, 0},
    {TRVO_SETMEMBERS, "SETMEMBERS", kInt, 0},
    {TRVO_ELEMS, "ELEMS", kInt, 0},
    {TRVO_QELEMS, "QELEMS", kInt, 0},
    {TRVO_QCONSTRAINTS, "QCONSTRAINTS", kInt, 0},
    {TRVO_PWLCONS, "PWLCONS", kInt, 0},
    {TRVO_LPSTATUS, "LPSTATUS", kInt, 0},
    {TRVO_MIPSTATUS, "MIPSTATUS", kInt, 0},
    {TRVO_SOLVESTATUS, "SOLVESTATUS", kInt, 0},
    {TRVO_STOPSTATUS, "STOPSTATUS", kInt, 0},
    {TRVO_SIMPLEXITER, "SIMPLEXITER", kInt, 0},
    {TRVO_BARITER, "BARITER", kInt, 0},
    {TRVO_NODES, "NODES", kInt, 0},
    {TRVO_MIPSOLS, "MIPSOLS", kInt, 0},
    {TRVO_COLS, "COLS", kInt, 0},
    {TRVO_SPAREROWS, "SPAREROWS", kInt, 0},
    {TRVO_NAMELENGTH, "NAMELENGTH", kInt, 0},
    {TRVO_MIPENTS, "MIPENTS", kInt, 0},
    {TRVO_ORIGINALROWS, "ORIGINALROWS", kInt, 0},
    {TRVO_PROBNAMELENGTH, "PROBNAMELENGTH", kInt, 0},
    {TRVO_ORIGINALSETS, "ORIGINALSETS", kInt, 0},
    {TRVO_ORIGINALCOLS, "ORIGINALCOLS", kInt, 0},
    {TRVO_INDICATORS, "INDICATORS", kInt, 0},
    {TRVO_GENCONS, "GENCONS", kInt, 0},
    // double attributes
    {TRVO_LPOBJVAL, "LPOBJVAL", kDbl, 0},
    {TRVO_BESTBOUND, "BESTBOUND", kDbl, 0},
    {TRVO_MIPOBJVAL, "MIPOBJVAL", kDbl, 0},
    {TRVO_MIPBESTOBJVAL, "MIPBESTOBJVAL", kDbl, 0},
    {TRVO_OBJVAL, "OBJVAL", kDbl, 0},
    {TRVO_TIME, "TIME", kDbl, 0},
    {TRVO_OBJSENSE, "OBJSENSE", kDbl, 0},
    // string attributes
    {TRVO_PROBNAME, "PROBNAME", kStr, 0},
    // double controls
    {TRVO_MAXTIME, "MAXTIME", kDbl | kControl, 0},
    {TRVO_FEASTOL, "FEASTOL", kDbl | kControl, 1e-6},
    {TRVO_OPTIMALITYTOL, "OPTIMALITYTOL", kDbl | kControl, 1e-6},
    {TRVO_MIPTOL, "MIPTOL", kDbl | kControl, 5e-6},
    {TRVO_MIPRELSTOP, "MIPRELSTOP", kDbl | kControl, 1e-4},
    {TRVO_MIPABSSTOP, "MIPABSSTOP", kDbl | kControl, 1e-6},
    {TRVO_MIPABSCUTOFF, "MIPABSCUTOFF", kDbl | kControl, 1e40},
    {TRVO_HEUREFFORT, "HEUREFFORT", kDbl | kControl, 0.05},
    // integer controls
    {TRVO_OUTPUTLOG, "OUTPUTLOG", kInt | kControl, 1},
    {TRVO_PRESOLVE, "PRESOLVE", kInt | kControl, 1},
    {TRVO_THREADS, "THREADS", kInt | kControl, 0},
    {TRVO_MAXNODE, "MAXNODE", kInt | kControl, 1e9},
    {TRVO_MAXMIPSOL, "MAXMIPSOL", kInt | kControl, 0},
    {TRVO_LPITERLIMIT, "LPITERLIMIT", kInt | kControl, 2147483647.0},
    {TRVO_BARITERLIMIT, "BARITERLIMIT", kInt | kControl, 500},
    {TRVO_DEFAULTALG, "DEFAULTALG", kInt | kControl, 1},
    {TRVO_CROSSOVER, "CROSSOVER", kInt | kControl, 1},
    {TRVO_RANDOMSEED, "RANDOMSEED", kInt | kControl, 0},
    {TRVO_SCALING, "SCALING", kInt | kControl, 1},
    {TRVO_KEEPBASIS, "KEEPBASIS", kInt | kControl, 1},
    {TRVO_TREESEARCH, "TREESEARCH", kInt | kControl, 0},
    {TRVO_SYMMETRY, "SYMMETRY", kInt | kControl, 1},
    {TRVO_MIPRESTART, "MIPRESTART", kInt | kControl, 1},
};
constexpr size_t kCount = sizeof kCatalogue / sizeof kCatalogue[0];

// The exported arrays, built once.
struct Arrays {
    int ids[kCount + 1];
    const char* names[kCount + 1];
    int flags[kCount + 1];
    Arrays() {
        for (size_t i = 0; i < kCount; ++i) {
            ids[i] = kCatalogue[i].id;
            names[i] = kCatalogue[i].name;
            flags[i] = kCatalogue[i].flags;
        }
        ids[kCount] = 0;
        names[kCount] = "";
        flags[kCount] = 0;
    }
};

const Entry* find_entry(int id) {
    for (const auto& e : kCatalogue)
        if (e.id == id) return &e;
    return nullptr;
}

const Entry* find_name(const char* name) {
    if (!name) return nullptr;
    std::string up(name);
    for (auto& c : up) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (const auto& e : kCatalogue)
        if (up == e.name) return &e;
    return nullptr;
}

const Entry& control_entry(int id, int type) {
    const Entry* e = find_entry(id);
    if (!e || !(e->flags & kControl)) fail("Unknown control %d", id);
    if (type >= 0 && (e->flags & (kInt | kDbl)) != type)
        fail("Control %s has another type", e->name);
    return *e;
}

int64_t int_attrib(TRVOprob p, int id) {
    const auto& r = p->results;
    switch (id) {
        case TRVO_ROWS: case TRVO_ORIGINALROWS: return p->nrows();
        case TRVO_COLS: case TRVO_ORIGINALCOLS: return p->ncols();
        case TRVO_SETS: case TRVO_ORIGINALSETS: return static_cast<int64_t>(p->sets.size());
        case TRVO_SETMEMBERS: {
            int64_t n = 0;
            for (const auto& s : p->sets) n += static_cast<int64_t>(s.cols.size());
            return n;
        }
        case TRVO_ELEMS: return p->matrix.nnz();
        case TRVO_QELEMS: return static_cast<int64_t>(p->qobj.size());
        case TRVO_QCONSTRAINTS: return static_cast<int64_t>(p->qrows.size());
        case TRVO_PWLCONS: return static_cast<int64_t>(p->pwlcons.size());
        case TRVO_GENCONS: return static_cast<int64_t>(p->gencons.size());
        case TRVO_SPAREROWS: return 0;
        case TRVO_LPSTATUS: return r.lpstatus;
        case TRVO_MIPSTATUS: return r.mipstatus;
        case TRVO_SOLVESTATUS: return r.solvestatus;
        case TRVO_STOPSTATUS: return r.stopstatus;
        case TRVO_SIMPLEXITER: return r.simplexiter;
        case TRVO_BARITER: return r.bariter;
        case TRVO_NODES: return r.nodes;
        case TRVO_MIPSOLS: return r.mipsols;
        case TRVO_NAMELENGTH: {
            size_t m = std::max({p->rownames.longest(), p->colnames.longest(),
                                 p->setnames.longest(), size_t(1)});
            return static_cast<int64_t>((m + 7) / 8);
        }
        case TRVO_MIPENTS: return mip_entities(p);
        case TRVO_PROBNAMELENGTH: return static_cast<int64_t>(p->name.size());
        case TRVO_INDICATORS: return static_cast<int64_t>(p->indicators.size());
    }
    fail("Unknown integer attribute %d", id);
}

double dbl_attrib(TRVOprob p, int id) {
    const auto& r = p->results;
    switch (id) {
        case TRVO_LPOBJVAL: return r.lpobjval;
        case TRVO_MIPOBJVAL: return r.mipobjval;
        case TRVO_BESTBOUND: return r.bestbound;
        case TRVO_MIPBESTOBJVAL: return r.mipbestobjval;
        case TRVO_OBJVAL: return r.objval;
        case TRVO_TIME: return r.time;
        case TRVO_OBJSENSE: return p->objsense;
    }
    fail("Unknown double attribute %d", id);
}

std::string str_attrib(TRVOprob p, int id) {
    if (id == TRVO_PROBNAME) return p->name;
    fail("Unknown string attribute %d", id);
}

void copy_text(const std::string& s, char* out, size_t cap, int* nbytes) {
    if (nbytes) *nbytes = static_cast<int>(s.size() + 1);
    if (!out || cap == 0) return;
    size_t n = std::min(s.size(), cap - 1);
    std::memcpy(out, s.data(), n);
    out[n] = '\0';
}

void set_int(TRVOprob p, int id, int64_t v) {
    control_entry(id, kInt);
    switch (id) {
        case TRVO_OUTPUTLOG: case TRVO_PRESOLVE: case TRVO_CROSSOVER: case TRVO_SCALING:
        case TRVO_KEEPBASIS:
            if (v < 0) fail("Control value %lld out of range", static_cast<long long>(v));
            break;
        case TRVO_DEFAULTALG:
            if (v < 1 || v > 4) fail("DEFAULTALG must be 1 (automatic), 2 (dual), 3 (primal) or 4 (barrier)");
            break;
        case TRVO_SYMMETRY: case TRVO_MIPRESTART:
            if (v < 0 || v > 1) fail("Control value %lld out of range (0 or 1)", static_cast<long long>(v));
            break;
        case TRVO_TREESEARCH:
            if (v < 0 || v > 2)
                fail("TREESEARCH must be 0 (automatic), 1 (always the tree search) or 2 (never)");
            break;
        case TRVO_THREADS: case TRVO_MAXNODE: case TRVO_MAXMIPSOL: case TRVO_LPITERLIMIT:
        case TRVO_BARITERLIMIT:
            if (v < 0 || v > 2147483647) fail("Control value %lld out of range", static_cast<long long>(v));
            break;
    }
    p->controls.ints[id] = v;
}

void set_dbl(TRVOprob p, int id, double v) {
    control_entry(id, kDbl);
    if (v != v) fail("A control cannot be set to NaN");
    switch (id) {
        case TRVO_FEASTOL: case TRVO_OPTIMALITYTOL: case TRVO_MIPTOL:
            if (v <= 0) fail("Tolerance must be positive");
            break;
        case TRVO_MIPRELSTOP: case TRVO_MIPABSSTOP:
            if (v < 0) fail("Gap must not be negative");
            break;
        case TRVO_HEUREFFORT:
            if (v < 0 || v > 1) fail("HEUREFFORT must lie between 0 and 1");
            break;
    }
    p->controls.dbls[id] = v;
}

}  // namespace

int64_t ctl_int(TRVOprob p, int id) {
    auto it = p->controls.ints.find(id);
    if (it != p->controls.ints.end()) return it->second;
    const Entry* e = find_entry(id);
    return e ? static_cast<int64_t>(e->def) : 0;
}

double ctl_dbl(TRVOprob p, int id) {
    auto it = p->controls.dbls.find(id);
    if (it != p->controls.dbls.end()) return it->second;
    const Entry* e = find_entry(id);
    return e ? e->def : 0.0;
}

void controls_set_defaults(TRVOprob p) {
    p->controls = Controls();
    for (const auto& e : kCatalogue) {
        if (!(e.flags & kControl)) continue;
        if (e.flags & kInt) p->controls.ints[e.id] = static_cast<int64_t>(e.def);
        else if (e.flags & kDbl) p->controls.dbls[e.id] = e.def;
        else p->controls.strs[e.id] = "";
    }
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOgetcalist_c(const int** ids, const char* const** names, const int** flags) {
    static const Arrays arrays;
    return guard_global([&] {
        if (!ids || !names || !flags) fail("No output arrays for the catalogue");
        *ids = arrays.ids;
        *names = arrays.names;
        *flags = arrays.flags;
    });
}

static int info(TRVOprob prob, const char* name, int* id, int* type, bool control) {
    return guard(prob, [&] {
        if (!id || !type) fail("No output arguments given");
        const Entry* e = find_name(name);
        if (!e || bool(e->flags & kControl) != control)
            fail("Unknown %s name '%s'", control ? "control" : "attribute", name ? name : "");
        *id = e->id;
        *type = (e->flags & kInt) ? 1 : (e->flags & kDbl) ? 2 : 3;
    });
}

int TRVOgetcontrolinfo(TRVOprob prob, const char* name, int* id, int* type) {
    return info(prob, name, id, type, true);
}

int TRVOgetattribinfo(TRVOprob prob, const char* name, int* id, int* type) {
    return info(prob, name, id, type, false);
}

int TRVOsetintcontrol(TRVOprob prob, int control, int value) {
    return guard(prob, [&] { set_int(prob, control, value); });
}

int TRVOsetintcontrol64(TRVOprob prob, int control, int64_t value) {
    return guard(prob, [&] { set_int(prob, control, value); });
}

int TRVOsetdblcontrol(TRVOprob prob, int control, double value) {
    return guard(prob, [&] { set_dbl(prob, control, value); });
}

int TRVOsetstrcontrol(TRVOprob prob, int control, const char* value) {
    return guard(prob, [&] {
        control_entry(control, kStr);
        prob->controls.strs[control] = value ? value : "";
    });
}

int TRVOgetintcontrol(TRVOprob prob, int control, int* value) {
    return guard(prob, [&] {
        control_entry(control, kInt);
        if (!value) fail("No output argument given");
        int64_t v = ctl_int(prob, control);
        *value = v > 2147483647 ? 2147483647 : static_cast<int>(v);
    });
}

int TRVOgetintcontrol64(TRVOprob prob, int control, int64_t* value) {
    return guard(prob, [&] {
        control_entry(control, kInt);
        if (!value) fail("No output argument given");
        *value = ctl_int(prob, control);
    });
}

int TRVOgetdblcontrol(TRVOprob prob, int control, double* value) {
    return guard(prob, [&] {
        control_entry(control, kDbl);
        if (!value) fail("No output argument given");
        *value = ctl_dbl(prob, control);
    });
}

int TRVOgetstrcontrol(TRVOprob prob, int control, char* value) {
    return guard(prob, [&] {
        control_entry(control, kStr);
        copy_text(prob->controls.strs[control], value, 1024, nullptr);
    });
}

int TRVOgetstringcontrol(TRVOprob prob, int control, char* value, int maxbytes, int* nbytes) {
    return guard(prob, [&] {
        control_entry(control, kStr);
        copy_text(prob->controls.strs[control], value, maxbytes > 0 ? size_t(maxbytes) : 0,
                  nbytes);
    });
}

int TRVOsetdefaultcontrol(TRVOprob prob, int control) {
    return guard(prob, [&] {
        const Entry& e = control_entry(control, -1);
        if (e.flags & kInt) prob->controls.ints[e.id] = static_cast<int64_t>(e.def);
        else if (e.flags & kDbl) prob->controls.dbls[e.id] = e.def;
        else prob->controls.strs[e.id] = "";
    });
}

int TRVOsetdefaults(TRVOprob prob) {
    return guard(prob, [&] { controls_set_defaults(prob); });
}

int TRVOgetintattrib(TRVOprob prob, int attrib, int* value) {
    return guard(prob, [&] {
        if (!value) fail("No output argument given");
        int64_t v = int_attrib(prob, attrib);
        if (v > 2147483647) fail("Attribute %d does not fit in 32 bits", attrib);
        *value = static_cast<int>(v);
    });
}

int TRVOgetintattrib64(TRVOprob prob, int attrib, int64_t* value) {
    return guard(prob, [&] {
        if (!value) fail("No output argument given");
        *value = int_attrib(prob, attrib);
    });
}

int TRVOgetdblattrib(TRVOprob prob, int attrib, double* value) {
    return guard(prob, [&] {
        if (!value) fail("No output argument given");
        *value = dbl_attrib(prob, attrib);
    });
}

int TRVOgetstrattrib(TRVOprob prob, int attrib, char* value) {
    return guard(prob, [&] { copy_text(str_attrib(prob, attrib), value, 1024, nullptr); });
}

int TRVOgetstringattrib(TRVOprob prob, int attrib, char* value, int maxbytes, int* nbytes) {
    return guard(prob, [&] {
        copy_text(str_attrib(prob, attrib), value, maxbytes > 0 ? size_t(maxbytes) : 0, nbytes);
    });
}

}  // extern "C"
