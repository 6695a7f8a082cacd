// Solution, basis and log files in simple text formats of our own (HiGHS has none we can use
// for bases by name or for partial solutions).
//
// Solution file (writesol; the default extension .sol), one line per entry, fields separated
// by spaces:
//     # tarvo solution <problem name>
//     objective <value>
//     C <index> <name> <value> <reduced cost>
//     R <index> <name> <activity> <slack> <dual>
// The LP solution is written after lpoptimize; the MIP solution when the flags contain 'm' or
// no LP solution exists. A printable report (writeprtsol, .prt) lists the same data in
// aligned columns.
// Basis file (writebasis/readbasis, .bss):
//     # tarvo basis <problem name>
//     C <name> <status>        status 0 lower, 1 basic, 2 upper, 3 free nonbasic
//     R <name> <status>
// Names are matched when the basis is read; unknown names are an error.
// Solution for starting a MIP (writeslxsol/readslxsol, .slx):
//     NAME <problem name>
//     C <name> <value>
// readslxsol makes it the start of the next MIP solve.
#include "engine/optimizer/problem.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace trvo {
namespace {

std::string with_ext(const char* filename, const char* ext, const std::string& probname) {
    std::string name = filename && *filename ? filename : probname;
    if (name.empty()) fail("No file name given");
    size_t slash = name.find_last_of('/'), dot = name.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) name += ext;
    return name;
}

struct File {
    FILE* f;
    File(const std::string& name, const char* mode) : f(std::fopen(name.c_str(), mode)) {
        if (!f) fail("Could not open %s", name.c_str());
    }
    ~File() {
        if (f) std::fclose(f);
    }
};

// Names cannot hold spaces in these formats.
std::string token(const std::string& s) {
    std::string t = s;
    for (auto& c : t)
        if (c == ' ' || c == '\t' || c == '\n') c = '_';
    return t;
}

void write_solution(TRVOprob p, const char* filename, const char* flags, bool pretty) {
    const Results& r = p->results;
    bool mip = (flags && std::strchr(flags, 'm')) || !r.have_lp;
    if (mip ? !r.have_mip : !r.have_lp) fail("No solution available to write");
    const auto& x = mip ? r.mipx : r.x;
    const auto& slack = mip ? r.mipslack : r.slack;
    File f(with_ext(filename, pretty ? ".prt" : ".sol", p->name), "w");
    double obj = mip ? r.mipobjval : r.lpobjval;
    if (pretty) {
        std::fprintf(f.f, "Problem %s\nObjective value %.10g\n\n", p->name.c_str(), obj);
        std::fprintf(f.f, "%-8s %-24s %18s %18s %18s\n", "Row", "Name", "Activity", "Slack", "Dual");
        for (int i = 0; i < p->nrows(); ++i) {
            size_t s = static_cast<size_t>(i);
            std::fprintf(f.f, "%-8d %-24s %18.10g %18.10g %18.10g\n", i, p->rownames.get(i, 'R').c_str(),
                         p->rhs[s] - slack[s], slack[s], !mip && r.have_duals ? r.dual[s] : 0.0);
        }
        std::fprintf(f.f, "\n%-8s %-24s %18s %18s\n", "Column", "Name", "Value", "Reduced cost");
        for (int j = 0; j < p->ncols(); ++j) {
            size_t s = static_cast<size_t>(j);
            std::fprintf(f.f, "%-8d %-24s %18.10g %18.10g\n", j, p->colnames.get(j, 'C').c_str(), x[s],
                         !mip && r.have_duals ? r.dj[s] : 0.0);
        }
        return;
    }
    std::fprintf(f.f, "# tarvo solution %s\nobjective %.17g\n", token(p->name).c_str(), obj);
    for (int j = 0; j < p->ncols(); ++j) {
        size_t s = static_cast<size_t>(j);
        std::fprintf(f.f, "C %d %s %.17g %.17g\n", j, token(p->colnames.get(j, 'C')).c_str(), x[s],
                     !mip && r.have_duals ? r.dj[s] : 0.0);
    }
    for (int i = 0; i < p->nrows(); ++i) {
        size_t s = static_cast<size_t>(i);
        std::fprintf(f.f, "R %d %s %.17g %.17g %.17g\n", i, token(p->rownames.get(i, 'R')).c_str(),
                     p->rhs[s] - slack[s], slack[s], !mip && r.have_duals ? r.dual[s] : 0.0);
    }
}

void write_basis(TRVOprob p, const char* filename) {
    std::vector<int> rs(static_cast<size_t>(p->nrows())), cs(static_cast<size_t>(p->ncols()));
    if (TRVOgetbasis(p, rs.data(), cs.data()) != 0) fail("%s", p->last_error.c_str());
    File f(with_ext(filename, ".bss", p->name), "w");
    std::fprintf(f.f, "# tarvo basis %s\n", token(p->name).c_str());
    for (int j = 0; j < p->ncols(); ++j)
        std::fprintf(f.f, "C %s %d\n", token(p->colnames.get(j, 'C')).c_str(), cs[static_cast<size_t>(j)]);
    for (int i = 0; i < p->nrows(); ++i)
        std::fprintf(f.f, "R %s %d\n", token(p->rownames.get(i, 'R')).c_str(), rs[static_cast<size_t>(i)]);
}

// Index of a name as written: an explicit name, else the generated one.
int lookup(TRVOprob p, int type, const std::string& name) {
    int idx = -1;
    if (TRVOgetindex(p, type, name.c_str(), &idx) != 0) {
        // A name written with spaces replaced cannot be found by its original: search.
        const NameList& list = type == 1 ? p->rownames : p->colnames;
        int n = type == 1 ? p->nrows() : p->ncols();
        for (int k = 0; k < n; ++k)
            if (token(list.get(k, type == 1 ? 'R' : 'C')) == name) return k;
        fail("Unknown %s name %s in file", type == 1 ? "row" : "column", name.c_str());
    }
    return idx;
}

void read_basis(TRVOprob p, const char* filename) {
    std::string name = with_ext(filename, ".bss", p->name);
    std::ifstream in(name);
    if (!in) fail("Could not open %s", name.c_str());
    std::vector<int> rs(static_cast<size_t>(p->nrows()), 0), cs(static_cast<size_t>(p->ncols()), 0);
    std::string line;
    int lineno = 0;
    while (std::getline(in, line)) {
        ++lineno;
        if (line.empty() || line[0] == '#') continue;
        std::istringstream ls(line);
        std::string kind, nm;
        int st;
        if (!(ls >> kind >> nm >> st) || (kind != "C" && kind != "R"))
            fail("Invalid line %d in basis file %s", lineno, name.c_str());
        int idx = lookup(p, kind == "R" ? 1 : 2, nm);
        (kind == "R" ? rs : cs)[static_cast<size_t>(idx)] = st;
    }
    if (TRVOloadbasis(p, rs.data(), cs.data()) != 0) fail("%s", p->last_error.c_str());
}

void write_slx(TRVOprob p, const char* filename, const char* flags) {
    const Results& r = p->results;
    bool mip = (flags && std::strchr(flags, 'm')) || !r.have_lp;
    if (mip ? !r.have_mip : !r.have_lp) fail("No solution available to write");
    const auto& x = mip ? r.mipx : r.x;
    File f(with_ext(filename, ".slx", p->name), "w");
    std::fprintf(f.f, "NAME %s\n", token(p->name).c_str());
    for (int j = 0; j < p->ncols(); ++j)
        std::fprintf(f.f, "C %s %.17g\n", token(p->colnames.get(j, 'C')).c_str(), x[static_cast<size_t>(j)]);
}

void read_slx(TRVOprob p, const char* filename) {
    std::string name = with_ext(filename, ".slx", p->name);
    std::ifstream in(name);
    if (!in) fail("Could not open %s", name.c_str());
    std::vector<std::pair<int, double>> start;
    std::string line;
    int lineno = 0;
    while (std::getline(in, line)) {
        ++lineno;
        if (line.empty() || line.compare(0, 4, "NAME") == 0 || line[0] == '#') continue;
        std::istringstream ls(line);
        std::string kind, nm;
        double v;
        if (!(ls >> kind >> nm >> v) || kind != "C")
            fail("Invalid line %d in solution file %s", lineno, name.c_str());
        start.emplace_back(lookup(p, 2, nm), v);
    }
    p->mip_start.swap(start);
}

}  // namespace
}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOwritesol(TRVOprob prob, const char* filename, const char* flags) {
    return guard(prob, [&] { write_solution(prob, filename, flags, false); });
}

int TRVOwriteprtsol(TRVOprob prob, const char* filename, const char* flags) {
    return guard(prob, [&] { write_solution(prob, filename, flags, true); });
}

int TRVOwritebasis(TRVOprob prob, const char* filename, const char*) {
    return guard(prob, [&] { write_basis(prob, filename); });
}

int TRVOreadbasis(TRVOprob prob, const char* filename, const char*) {
    return guard(prob, [&] { read_basis(prob, filename); });
}

int TRVOwriteslxsol(TRVOprob prob, const char* filename, const char* flags) {
    return guard(prob, [&] { write_slx(prob, filename, flags); });
}

int TRVOreadslxsol(TRVOprob prob, const char* filename, const char*) {
    return guard(prob, [&] { read_slx(prob, filename); });
}

int TRVOsetlogfile(TRVOprob prob, const char* filename) {
    return guard(prob, [&] {
        std::string name = filename ? filename : "";
        if (!name.empty()) File probe(name, "a");
        prob->logfile = name;
    });
}

}  // extern "C"
