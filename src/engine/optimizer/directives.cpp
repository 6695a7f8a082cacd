// Branching directives: per integer column a priority, a preferred direction and pseudocost
// overrides, kept by column (and moved with the columns when columns are deleted), read and
// written as text, and handed to the tree search.
//
// Directives file format (text, one directive a line; blank lines and text after '#' ignored):
//
//     <column name> <priority> <direction> <up pseudocost> <down pseudocost>
//
// - column name: as the problem names it (unnamed columns by their generated names C1, C2, ...);
// - priority: an integer, lower is branched on first (columns without a directive count as 500);
// - direction: U (the up child is explored first), D (the down child first) or N (no preference);
// - pseudocosts: the objective change per unit of the up and down branch, non-negative numbers,
//   or '-' to keep the search's own estimate.
// Trailing fields may be left out: they take the defaults (500, N, -, -). writedirs writes every
// field, starting with a comment line naming the fields.
#include "engine/optimizer/branching.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace trvo {
namespace {

bool integer_like(char t) { return t == 'I' || t == 'B'; }

void check_directive_column(TRVOprob p, int col) {
    check_col(p, col);
    if (!integer_like(p->coltype[static_cast<size_t>(col)]))
        fail("Directives apply to integer and binary columns; column %s is of type '%c'",
             p->colnames.get(col, 'C').c_str(), p->coltype[static_cast<size_t>(col)]);
}

char direction_char(char c) {
    switch (c) {
        case 'U': case 'u': return 'U';
        case 'D': case 'd': return 'D';
        case 'N': case 'n': return 'N';
        default: fail("Invalid branching direction '%c': use 'U' (up first), 'D' (down first) or 'N'", c);
    }
}

double pseudocost_value(double v, const char* which, int col) {
    if (std::isnan(v)) fail("The %s pseudocost of column %d is not a number", which, col);
    return v < 0 ? -1 : v;
}

void load(TRVOprob p, int n, const int* cols, const int* pri, const char* qbr, const double* up,
          const double* down, bool replace) {
    if (n < 0) fail("The number of directives must not be negative (%d given)", n);
    if (n > 0 && !cols) fail("Directives need their columns");
    // Checked completely before the directives change, so that a bad entry changes nothing.
    std::map<int, Directive> fresh;
    if (!replace && p->branching) fresh = p->branching->dirs;
    for (int k = 0; k < n; ++k) {
        check_directive_column(p, cols[k]);
        auto it = fresh.find(cols[k]);
        Directive d = replace || it == fresh.end() ? Directive() : it->second;
        if (pri) d.priority = pri[k];
        if (qbr) d.dir = direction_char(qbr[k]);
        if (up) d.uppc = pseudocost_value(up[k], "up", cols[k]);
        if (down) d.downpc = pseudocost_value(down[k], "down", cols[k]);
        fresh[cols[k]] = d;
    }
    branching_store(p).dirs.swap(fresh);
}

std::string trim_comment(const std::string& line) {
    const size_t hash = line.find('#');
    return hash == std::string::npos ? line : line.substr(0, hash);
}

}  // namespace

bool has_directives(TRVOprob p) { return p->branching && !p->branching->dirs.empty(); }

void branching_delete_cols(TRVOprob p, const std::vector<int>& newidx) {
    if (!has_directives(p)) return;
    std::map<int, Directive> moved;
    for (const auto& kv : p->branching->dirs) {
        if (kv.first < 0 || kv.first >= static_cast<int>(newidx.size())) continue;
        const int j = newidx[static_cast<size_t>(kv.first)];
        if (j >= 0) moved[j] = kv.second;
    }
    p->branching->dirs.swap(moved);
}

void branching_copy(TRVOprob dest, TRVOprob src) {
    dest->branching.reset();
    if (has_directives(src)) branching_store(dest).dirs = src->branching->dirs;
}

void search_directives(TRVOprob p, int ncol, search::Directives& out) {
    out = search::Directives();
    if (!has_directives(p)) return;
    const size_t n = static_cast<size_t>(ncol);
    out.priority.assign(n, TRVO_DIR_DEFAULT_PRIORITY);
    out.dir.assign(n, 0);
    out.up_pc.assign(n, -1);
    out.down_pc.assign(n, -1);
    for (const auto& kv : p->branching->dirs) {
        if (kv.first < 0 || kv.first >= ncol) continue;
        const size_t s = static_cast<size_t>(kv.first);
        out.priority[s] = kv.second.priority;
        out.dir[s] = kv.second.dir == 'U' ? 1 : kv.second.dir == 'D' ? -1 : 0;
        out.up_pc[s] = kv.second.uppc;
        out.down_pc[s] = kv.second.downpc;
    }
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOloaddirs(TRVOprob prob, int ndirs, const int* mcols, const int* mpri, const char* qbr, const double* dupc,
                 const double* ddpc) {
    return guard(prob, [&] { load(prob, ndirs, mcols, mpri, qbr, dupc, ddpc, true); });
}

int TRVOloadpresolvedirs(TRVOprob prob, int ndirs, const int* mcols, const int* mpri, const char* qbr,
                         const double* dupc, const double* ddpc) {
    return TRVOloaddirs(prob, ndirs, mcols, mpri, qbr, dupc, ddpc);
}

int TRVOloadbranchdirs(TRVOprob prob, int ncols, const int* mcols, const int* mbranch) {
    return guard(prob, [&] {
        if (ncols < 0) fail("The number of columns must not be negative (%d given)", ncols);
        if (ncols > 0 && !mcols) fail("loadbranchdirs needs its columns");
        std::vector<int> pri(static_cast<size_t>(ncols), 0);
        std::vector<char> dir(static_cast<size_t>(ncols), 'N');
        for (int k = 0; k < ncols; ++k) {
            // Columns that already have a directive keep their direction unless one is given.
            auto& dirs = branching_store(prob).dirs;
            auto it = dirs.find(mcols[k]);
            if (it != dirs.end()) dir[static_cast<size_t>(k)] = it->second.dir;
            if (mbranch) dir[static_cast<size_t>(k)] = mbranch[k] > 0 ? 'U' : mbranch[k] < 0 ? 'D' : 'N';
        }
        load(prob, ncols, mcols, pri.data(), dir.data(), nullptr, nullptr, false);
    });
}

int TRVOgetdirs(TRVOprob prob, int* ndirs, int* mcols, int* mpri, char* qbr, double* dupc, double* ddpc) {
    return guard(prob, [&] {
        int k = 0;
        if (prob->branching)
            for (const auto& kv : prob->branching->dirs) {
                if (mcols) mcols[k] = kv.first;
                if (mpri) mpri[k] = kv.second.priority;
                if (qbr) qbr[k] = kv.second.dir;
                if (dupc) dupc[k] = kv.second.uppc;
                if (ddpc) ddpc[k] = kv.second.downpc;
                ++k;
            }
        if (ndirs) *ndirs = k;
    });
}

int TRVOwritedirs(TRVOprob prob, const char* filename) {
    return guard(prob, [&] {
        if (!filename || !*filename) fail("writedirs needs a file name");
        FILE* f = std::fopen(filename, "w");
        if (!f) fail("Cannot open directives file '%s' for writing: %s", filename, std::strerror(errno));
        std::fprintf(f, "# column priority direction up-pseudocost down-pseudocost\n");
        if (prob->branching)
            for (const auto& kv : prob->branching->dirs) {
                const Directive& d = kv.second;
                char up[40] = "-", down[40] = "-";
                if (d.uppc >= 0) std::snprintf(up, sizeof up, "%.17g", d.uppc);
                if (d.downpc >= 0) std::snprintf(down, sizeof down, "%.17g", d.downpc);
                std::fprintf(f, "%s %d %c %s %s\n", prob->colnames.get(kv.first, 'C').c_str(), d.priority, d.dir,
                             up, down);
            }
        const bool failed = std::ferror(f) != 0;
        if (std::fclose(f) != 0 || failed) fail("Could not write directives file '%s'", filename);
    });
}

int TRVOreaddirs(TRVOprob prob, const char* filename) {
    return guard(prob, [&] {
        if (!filename || !*filename) fail("readdirs needs a file name");
        std::ifstream in(filename);
        if (!in) fail("Cannot open directives file '%s': %s", filename, std::strerror(errno));
        std::vector<int> cols, pri;
        std::vector<char> dir;
        std::vector<double> up, down;
        std::string line;
        int lineno = 0;
        while (std::getline(in, line)) {
            ++lineno;
            std::istringstream fields(trim_comment(line));
            std::string name, ptext, dtext, utext, dntext, extra;
            if (!(fields >> name)) continue;
            fields >> ptext >> dtext >> utext >> dntext;
            if (fields >> extra)
                fail("Directives file '%s', line %d: more than five fields", filename, lineno);
            int col = -1;
            if (TRVOgetindex(prob, 2, name.c_str(), &col) != 0)
                fail("Directives file '%s', line %d: column '%s' not found", filename, lineno, name.c_str());
            int priority = TRVO_DIR_DEFAULT_PRIORITY;
            if (!ptext.empty()) {
                char* end = nullptr;
                long v = std::strtol(ptext.c_str(), &end, 10);
                if (*end != '\0' || v < -2147483647L || v > 2147483647L)
                    fail("Directives file '%s', line %d: priority '%s' is not an integer", filename, lineno,
                         ptext.c_str());
                priority = static_cast<int>(v);
            }
            char d = 'N';
            if (!dtext.empty()) {
                if (dtext.size() != 1)
                    fail("Directives file '%s', line %d: direction '%s' is not U, D or N", filename, lineno,
                         dtext.c_str());
                d = dtext[0];
            }
            auto number = [&](const std::string& t, const char* what) {
                if (t.empty() || t == "-") return -1.0;
                char* end = nullptr;
                double v = std::strtod(t.c_str(), &end);
                if (*end != '\0' || std::isnan(v) || v < 0)
                    fail("Directives file '%s', line %d: %s pseudocost '%s' is not a non-negative number or '-'",
                         filename, lineno, what, t.c_str());
                return v;
            };
            cols.push_back(col);
            pri.push_back(priority);
            dir.push_back(d);
            up.push_back(number(utext, "up"));
            down.push_back(number(dntext, "down"));
        }
        if (in.bad()) fail("Could not read directives file '%s'", filename);
        load(prob, static_cast<int>(cols.size()), cols.data(), pri.data(), dir.data(), up.data(), down.data(), true);
    });
}

}  // extern "C"
