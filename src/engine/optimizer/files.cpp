// Problem files (MPS, free MPS, LP) through HiGHS's reader and writer, names kept.
#include "engine/optimizer/files.h"
#include "engine/optimizer/formulate.h"
#include "engine/optimizer/gencons.h"
#include "engine/optimizer/highs_instances.h"
#include "engine/optimizer/mps_reader.h"

#include <algorithm>
#include <chrono>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace trvo {

const char* const kNonlinearSection = "NONLINEAR";

namespace {

struct Instance {
    void* h;
    Instance() : h(highs_new_quiet()) {
        if (!h) fail("Could not create a HiGHS instance");
    }
    ~Instance() { highs_release(h); }
};

bool has_extension(const std::string& name) {
    size_t slash = name.find_last_of('/');
    size_t dot = name.find_last_of('.');
    return dot != std::string::npos && (slash == std::string::npos || dot > slash);
}

// The file name HiGHS gets: flag 'l' asks for LP format, otherwise MPS; a name without
// extension gets the format's extension.
std::string file_for(const char* filename, const char* flags) {
    if (!filename || !*filename) fail("No file name given");
    std::string name(filename);
    bool lp = flags && std::strchr(flags, 'l');
    if (!has_extension(name)) name += lp ? ".lp" : ".mps";
    return name;
}

// A name a problem file can carry. MPS names must not hold blanks. LP names are printable
// ASCII without blanks and without the characters of its expressions, and do not start with a
// digit or a period. (HiGHS's writers replace every name of the model when one of them breaks
// these rules, so each name is mended on its own here.)
std::string file_name_of(const std::string& name, bool lp) {
    std::string out;
    for (unsigned char c : name) {
        bool ok = lp ? c > 32 && c < 127 && !std::strchr("+-*/^:<>=[]\\", c) : c > 32 && c != 127;
        out.push_back(ok ? static_cast<char>(c) : '_');
    }
    if (out.empty() || (lp && (std::isdigit(static_cast<unsigned char>(out[0])) || out[0] == '.')))
        out.insert(out.begin(), '_');
    return out;
}

// Names as written: mended, and made unique with a numbered suffix where mending or the user's
// own names gave the same name twice (HiGHS would drop all names of the kind otherwise).
std::vector<std::string> names_for_file(const NameList& list, int n, char prefix, bool lp) {
    std::vector<std::string> out(static_cast<size_t>(n));
    std::unordered_set<std::string> seen;
    for (int i = 0; i < n; ++i) {
        std::string nm = list.get(i, prefix);
        std::string fixed = file_name_of(nm, lp);
        int owner = fixed == nm ? i : list.find(fixed);
        if (seen.count(fixed) || (owner >= 0 && owner != i)) {
            const std::string base = fixed;
            int k = 1;
            do fixed = base + "_" + std::to_string(k++);
            while (seen.count(fixed) || list.find(fixed) >= 0);
        }
        seen.insert(fixed);
        out[static_cast<size_t>(i)] = fixed;
    }
    return out;
}

// MPS sections HiGHS does not know, written and read by the engine itself:
//   SOS                          INDICATORS                   PARTIALINTEGER     FREEROWS
//    S1 SOS <set> <priority>      IF <row> <column> <0 or 1>   <column> <limit>   <row>
//       <set> <column> <weight>
// They go in front of ENDATA; on reading they are taken out before HiGHS sees the file. A
// partial-integer column is written as a continuous column with its bounds; its section
// entry gives the limit below which it is integer. A free row is written as a G row with a
// right-hand side of -1e19 (HiGHS drops every N row but the objective when it reads, and a
// reader without this section still sees a row that never binds); its entry makes it free.
// General and piecewise-linear constraints follow in sections GENCONS and PWLCONS (their form
// is described in gencons.h).
std::string entity_sections(TRVOprob p, const std::vector<std::string>& cn,
                            const std::vector<std::string>& rn) {
    std::string out;
    char buf[64];
    if (!p->sets.empty()) {
        std::vector<std::string> sn = names_for_file(p->setnames, static_cast<int>(p->sets.size()), 'S', false);
        out += "SOS\n";
        for (size_t k = 0; k < p->sets.size(); ++k) {
            const Sos& set = p->sets[k];
            out += std::string(" S") + set.type + " SOS " + sn[k] + " 1\n";
            for (size_t e = 0; e < set.cols.size(); ++e) {
                std::snprintf(buf, sizeof buf, " %.17g\n", set.weights[e]);
                out += "    " + sn[k] + " " + cn[static_cast<size_t>(set.cols[e])] + buf;
            }
        }
    }
    bool partial = false;
    for (int j = 0; j < p->ncols(); ++j) {
        if (p->coltype[static_cast<size_t>(j)] != 'P') continue;
        if (!partial) out += "PARTIALINTEGER\n";
        partial = true;
        std::snprintf(buf, sizeof buf, " %.17g\n", p->limit[static_cast<size_t>(j)]);
        out += "    " + cn[static_cast<size_t>(j)] + buf;
    }
    bool free_rows = false;
    for (int i = 0; i < p->nrows(); ++i) {
        if (p->rowtype[static_cast<size_t>(i)] != 'N') continue;
        if (!free_rows) out += "FREEROWS\n";
        free_rows = true;
        out += "    " + rn[static_cast<size_t>(i)] + "\n";
    }
    if (!p->indicators.empty()) {
        out += "INDICATORS\n";
        for (const auto& kv : p->indicators)
            out += " IF " + rn[static_cast<size_t>(kv.first)] + " " +
                   cn[static_cast<size_t>(kv.second.col)] + (kv.second.comp > 0 ? " 1\n" : " 0\n");
    }
    for (const std::string& line : gencons_file_lines(p, cn)) out += line + "\n";
    return out;
}

void insert_before_endata(const std::string& file, const std::string& text) {
    std::string content;
    {
        std::FILE* f = std::fopen(file.c_str(), "rb");
        if (!f) fail("Could not open problem file %s", file.c_str());
        char chunk[65536];
        size_t got;
        while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) content.append(chunk, got);
        std::fclose(f);
    }
    size_t at = content.rfind("ENDATA");
    if (at == std::string::npos) fail("HiGHS wrote %s without an ENDATA line", file.c_str());
    content.insert(at, text);
    std::FILE* f = std::fopen(file.c_str(), "wb");
    if (!f) fail("Could not open problem file %s for writing", file.c_str());
    bool ok = std::fwrite(content.data(), 1, content.size(), f) == content.size();
    ok = std::fclose(f) == 0 && ok;
    if (!ok) fail("Could not write problem file %s", file.c_str());
}

std::vector<std::string> tokens(const std::string& line) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i]))) ++i;
        size_t j = i;
        while (j < line.size() && !std::isspace(static_cast<unsigned char>(line[j]))) ++j;
        if (j > i) out.push_back(line.substr(i, j - i));
        i = j;
    }
    return out;
}

// Takes the engine's own sections and blank lines (HiGHS's fixed-format reader never returns
// from a blank line) out of an MPS file. Returns the name of a temporary copy without them for
// HiGHS to read, or "" when the file has none.
std::string strip_entity_sections(const std::string& file, EntitySections& found) {
    std::FILE* f = std::fopen(file.c_str(), "rb");
    if (!f) fail("Could not open problem file %s", file.c_str());
    std::string rest, line;
    EntitySection section = EntitySection::kNone;
    int c, lineno = 0;
    bool more = true, blank_lines = false;
    struct Close {
        std::FILE* f;
        ~Close() { std::fclose(f); }
    } close{f};
    while (more) {
        line.clear();
        while ((c = std::fgetc(f)) != EOF && c != '\n') line.push_back(static_cast<char>(c));
        more = c != EOF;
        if (!more && line.empty()) break;
        std::vector<std::string> t = tokens(line);
        ++lineno;
        if (t.empty()) {
            blank_lines = true;
            continue;
        }
        bool header = !std::isspace(static_cast<unsigned char>(line[0])) && line[0] != '*';
        if (header && t[0] == kNonlinearSection)
            fail("%s holds the nonlinear problem sections from line %d on; it is read through the "
                 "nonlinear library", file.c_str(), lineno);
        if (header) {
            section = entity_section_of(t[0]);
            if (section != EntitySection::kNone) {
                found.any = true;
                continue;
            }
        }
        if (section == EntitySection::kNone || t.empty() || line[0] == '*') {
            rest += line;
            rest += '\n';
            continue;
        }
        entity_line(section, t, line, file, found);
    }
    if (!found.any && !blank_lines) return "";
    const char* dir = std::getenv("TMPDIR");
    std::string tmpl = std::string(dir && *dir ? dir : "/tmp") + "/trvoreadXXXXXX.mps";
    std::vector<char> path(tmpl.begin(), tmpl.end());
    path.push_back('\0');
    int fd = mkstemps(path.data(), 4);
    if (fd < 0) fail("Could not create a temporary file to read %s", file.c_str());
    bool ok = ::write(fd, rest.data(), rest.size()) == static_cast<ssize_t>(rest.size());
    ok = ::close(fd) == 0 && ok;
    if (!ok) {
        std::remove(path.data());
        fail("Could not write a temporary file to read %s", file.c_str());
    }
    return std::string(path.data());
}

// Writes the problem through HiGHS and appends the engine's own sections. With `extra` (the
// nonlinear library's writer), quadratic rows are left to it and its text is appended too.
void write_problem(TRVOprob p, const char* filename, const char* flags, const ExtraSections* extra) {
    std::string name = file_for(filename, flags);
    const bool lp = flags && std::strchr(flags, 'l');
    if (!extra && !p->qrows.empty())
        fail("Quadratic rows cannot be written to a problem file by the optimiser; write the problem "
             "with flag 'g' to keep them");
    if (extra && (lp || (name.size() > 3 && name.compare(name.size() - 3, 3, ".lp") == 0)))
        fail("Nonlinear problem files are written in MPS form only: neither flag 'l' nor a .lp file "
             "name can be used");
    if (lp && !p->sets.empty()) fail("Special ordered sets cannot be written to an LP file");
    if (lp && !p->indicators.empty()) fail("Indicator rows cannot be written to an LP file");
    HighsModel m;
    formulate(p, false, m);
    // The relaxation frees indicator rows; the file keeps them with their own bounds.
    for (const auto& kv : p->indicators) {
        size_t s = static_cast<size_t>(kv.first);
        row_bounds(p, kv.first, m.row_lower[s], m.row_upper[s]);
        if (m.row_lower[s] <= -kInf) m.row_lower[s] = -INFINITY;
        if (m.row_upper[s] >= kInf) m.row_upper[s] = INFINITY;
    }
    // Column types in HiGHS's own terms: semi-continuous columns keep their threshold as lower
    // bound, as the file formats have it.
    std::vector<HighsInt> integ(static_cast<size_t>(m.ncol), kHighsVarTypeContinuous);
    bool any = false;
    for (int j = 0; j < p->ncols(); ++j) {
        size_t s = static_cast<size_t>(j);
        switch (p->coltype[s]) {
            case 'I': case 'B': integ[s] = kHighsVarTypeInteger; any = true; break;
            case 'S': case 'R':
                integ[s] = p->coltype[s] == 'S' ? kHighsVarTypeSemiContinuous : kHighsVarTypeSemiInteger;
                m.col_lower[s] = p->limit[s];
                m.col_upper[s] = p->ub[s] >= kInf ? INFINITY : p->ub[s];
                any = true;
                break;
            case 'P': break;  // continuous with its bounds; the limit goes in a section of its own
        }
    }
    if (any) m.integrality = integ;
    if (!lp)
        for (int i = 0; i < p->nrows(); ++i)
            if (p->rowtype[static_cast<size_t>(i)] == 'N') m.row_lower[static_cast<size_t>(i)] = kFreeRowBound;
    // Objective in the user's sense.
    if (m.sign < 0) {
        for (auto& c : m.cost) c = -c;
        for (auto& q : m.q_value) q = -q;
        m.offset = -m.offset;
    }
    if (lp) {
        std::vector<std::string> cn = names_for_file(p->colnames, p->ncols(), 'C', true);
        std::vector<std::string> rn = names_for_file(p->rownames, p->nrows(), 'R', true);
        std::string text = lp_file_text(p, m, cn, rn);
        std::FILE* f = std::fopen(name.c_str(), "wb");
        if (!f) fail("Could not open problem file %s for writing", name.c_str());
        bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
        ok = std::fclose(f) == 0 && ok;
        if (!ok) fail("Could not write problem file %s", name.c_str());
        return;
    }
    Instance inst;
    void* h = inst.h;
    if (Highs_passModel(h, m.ncol, m.nrow, static_cast<HighsInt>(m.a_index.size()),
                        static_cast<HighsInt>(m.q_index.size()), kHighsMatrixFormatRowwise,
                        kHighsHessianFormatTriangular,
                        p->objsense > 0 ? kHighsObjSenseMinimize : kHighsObjSenseMaximize,
                        m.offset, m.cost.data(), m.col_lower.data(), m.col_upper.data(),
                        m.row_lower.data(), m.row_upper.data(),
                        m.nrow ? m.a_start.data() : nullptr,
                        m.a_index.empty() ? nullptr : m.a_index.data(),
                        m.a_value.empty() ? nullptr : m.a_value.data(),
                        m.q_index.empty() ? nullptr : m.q_start.data(),
                        m.q_index.empty() ? nullptr : m.q_index.data(),
                        m.q_index.empty() ? nullptr : m.q_value.data(),
                        m.integrality.empty() ? nullptr : m.integrality.data()) ==
        kHighsStatusError)
        fail("HiGHS refused the model for writing");
    std::vector<std::string> cn = names_for_file(p->colnames, p->ncols(), 'C', lp);
    std::vector<std::string> rn = names_for_file(p->rownames, p->nrows(), 'R', lp);
    for (int j = 0; j < p->ncols(); ++j) Highs_passColName(h, j, cn[static_cast<size_t>(j)].c_str());
    for (int i = 0; i < p->nrows(); ++i) Highs_passRowName(h, i, rn[static_cast<size_t>(i)].c_str());
    if (!p->name.empty()) Highs_passModelName(h, p->name.c_str());
    // HiGHS's LP writer does not check that its file opened and crashes on a path it cannot
    // create: find that out first.
    if (FILE* f = std::fopen(name.c_str(), "w")) std::fclose(f);
    else fail("Could not open problem file %s for writing", name.c_str());
    if (Highs_writeModel(h, name.c_str()) == kHighsStatusError)
        fail("Could not write problem file %s", name.c_str());
    std::string own = entity_sections(p, cn, rn);
    if (extra) own += (*extra)(cn, rn);
    if (!own.empty()) insert_before_endata(name, own);
}

bool ends_with(const std::string& name, const char* ext) {
    size_t n = std::strlen(ext);
    return name.size() > n && name.compare(name.size() - n, n, ext) == 0;
}

// Whether the file is in LP format rather than MPS: a .lp file, or flag 'l' for a file whose
// name does not say .mps (HiGHS reads a .mps file as MPS whatever the flags say).
bool read_as_lp(const std::string& name, const char* flags) {
    return ends_with(name, ".lp") || (flags && std::strchr(flags, 'l') && !ends_with(name, ".mps"));
}

bool is_regular_file(const std::string& name) {
    struct stat st;
    return ::stat(name.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string file_to_read(const char* filename, const char* flags) {
    if (!filename || !*filename) fail("No file name given");
    std::string name(filename);
    if (!has_extension(name)) {
        // Try the name as given, then with the format's extensions.
        bool lp = flags && std::strchr(flags, 'l');
        for (const char* ext : {"", lp ? ".lp" : ".mps", lp ? ".mps" : ".lp"}) {
            std::string t = name + ext;
            if (is_regular_file(t)) {
                name = t;
                break;
            }
        }
    }
    // A directory opens for reading on Linux, and HiGHS's reader then waits forever for a
    // line; devices and pipes are refused as well.
    struct stat st;
    if (::stat(name.c_str(), &st) != 0) fail("Could not open problem file %s", name.c_str());
    if (!S_ISREG(st.st_mode)) fail("Problem file %s is not a regular file", name.c_str());
    if (FILE* f = std::fopen(name.c_str(), "r")) std::fclose(f);
    else fail("Could not open problem file %s", name.c_str());
    return name;
}

bool known_mps_section(const std::string& word) {
    static const char* const names[] = {"NAME", "OBJSENSE", "OBJSENSE", "OBJNAME", "ROWS", "COLUMNS", "RHS",
                                        "RANGES", "BOUNDS", "SOS", "QUADOBJ", "QMATRIX", "QSECTION",
                                        "QCMATRIX", "CSECTION", "INDICATORS", "PARTIALINTEGER", "FREEROWS",
                                        "GENCONS", "PWLCONS",
                                        "MAX", "MIN", "MAXIMIZE", "MINIMIZE"};
    for (const char* n : names)
        if (word == n) return true;
    return false;
}

// Sections of an MPS file that HiGHS's reader takes as they stand.
bool highs_mps_section(const std::string& word) {
    static const char* const names[] = {"NAME", "OBJSENSE", "OBJNAME", "ROWS", "COLUMNS", "RHS", "RANGES",
                                        "BOUNDS", "QUADOBJ", "QMATRIX", "QSECTION", "QCMATRIX", "CSECTION",
                                        "MAX", "MIN", "MAXIMIZE", "MINIMIZE", "ENDATA"};
    for (const char* n : names)
        if (word == n) return true;
    return false;
}

// Checks a problem file before HiGHS reads it and returns the length of its longest line
// (no name in it can be longer). Refused: binary content (NUL bytes), an MPS file without its
// ENDATA line and an LP file without its closing "end" (both usually truncated). For an MPS
// file, *engine_sections tells whether it opens any section HiGHS does not read itself (those
// the engine takes out first), so that files without any skip that second pass.
size_t check_problem_file(const std::string& name, bool lp, bool* engine_sections) {
    *engine_sections = false;
    std::FILE* f = std::fopen(name.c_str(), "rb");
    if (!f) fail("Could not open problem file %s", name.c_str());
    size_t longest = 0, current = 0;
    int lineno = 0;
    bool endata = false, at_line_start = true, rows = false, nonlinear = false;
    std::string first, last;  // first word of the line being read, last word of the file
    std::string word;
    bool in_comment = false;
    char chunk[65536];
    size_t got;
    if (!lp) {
        // MPS: only the first word of each line matters (sections open at the line's start,
        // data lines start blank), so lines are found with memchr and only their start read.
        std::string partial;  // a line running over the end of a chunk
        auto line = [&](const char* s, size_t n) {
            longest = std::max(longest, n);
            ++lineno;
            first.clear();
            if (n == 0 || s[0] == '*' || s[0] == ' ' || (s[0] >= '\t' && s[0] <= '\r')) return;
            size_t e = 0;
            while (e < n && e < 20 && !(s[e] == ' ' || (s[e] >= '\t' && s[e] <= '\r'))) ++e;
            first.assign(s, e);
        };
        auto section = [&]() -> bool {  // false: an unknown section (f is closed)
            if (first.empty() || nonlinear) return true;
            if (!highs_mps_section(first)) *engine_sections = true;
            if (first == "ENDATA") endata = true;
            else if (first == kNonlinearSection) nonlinear = true;
            else if (first == "ROWS") rows = true;
            else if (!known_mps_section(first)) return false;
            return true;
        };
        while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) {
            if (std::memchr(chunk, '\0', got)) {
                std::fclose(f);
                fail("%s is not a text problem file (it holds binary data)", name.c_str());
            }
            const char* p = chunk;
            const char* end = chunk + got;
            while (p < end) {
                const char* nl = static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
                if (!nl) {
                    partial.append(p, static_cast<size_t>(end - p));
                    break;
                }
                if (partial.empty()) {
                    line(p, static_cast<size_t>(nl - p));
                } else {
                    partial.append(p, static_cast<size_t>(nl - p));
                    line(partial.data(), partial.size());
                    partial.clear();
                }
                if (!section()) {
                    std::fclose(f);
                    fail("%s: line %d opens an unknown MPS section %.20s", name.c_str(), lineno, first.c_str());
                }
                p = nl + 1;
            }
        }
        bool failed = std::ferror(f) != 0;
        std::fclose(f);
        if (failed) fail("Could not read problem file %s", name.c_str());
        // The last line, without a line end.
        first.clear();
        if (!partial.empty()) {
            line(partial.data(), partial.size());
            --lineno;
        }
        if (!first.empty() && !nonlinear && !highs_mps_section(first)) *engine_sections = true;
        if (!nonlinear && first == "ENDATA") endata = true;
        if (!endata && !nonlinear)
            fail("%s has no ENDATA line: the MPS file is incomplete (truncated?)", name.c_str());
        if (!rows) fail("%s has no ROWS section: it is not an MPS problem file", name.c_str());
        return longest;
    }
    auto end_word = [&] {
        if (word.empty()) return;
        if (!in_comment) last = word;
        word.clear();
    };
    while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) {
        for (size_t k = 0; k < got; ++k) {
            char c = chunk[k];
            if (c == '\0') {
                std::fclose(f);
                fail("%s is not a text problem file (it holds binary data)", name.c_str());
            }
            if (c == '\n') {
                end_word();
                ++lineno;
                if (!lp && !first.empty() && !nonlinear) {
                    if (!highs_mps_section(first)) *engine_sections = true;
                    if (first == "ENDATA") endata = true;
                    else if (first == kNonlinearSection) nonlinear = true;
                    else if (first == "ROWS") rows = true;
                    else if (!known_mps_section(first)) {
                        std::fclose(f);
                        fail("%s: line %d opens an unknown MPS section %.20s", name.c_str(), lineno, first.c_str());
                    }
                }
                longest = std::max(longest, current);
                current = 0;
                first.clear();
                at_line_start = true;
                in_comment = false;
                continue;
            }
            ++current;
            if (lp && c == '\\') in_comment = true;
            bool blank = c == ' ' || (c >= '\t' && c <= '\r');  // isspace in the C locale, inline
            if (blank) {
                end_word();
                at_line_start = false;
                continue;
            }
            if (at_line_start && c == '*' && first.empty()) in_comment = !lp;
            if (at_line_start && !in_comment && first.size() < 20) first.push_back(c);
            else at_line_start = false;
            if (word.size() < 8) word.push_back(c);
        }
    }
    bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (failed) fail("Could not read problem file %s", name.c_str());
    end_word();
    if (!lp && !first.empty() && !nonlinear && !highs_mps_section(first)) *engine_sections = true;
    if (!nonlinear && first == "ENDATA") endata = true;
    longest = std::max(longest, current);
    if (!lp && !endata && !nonlinear)
        fail("%s has no ENDATA line: the MPS file is incomplete (truncated?)", name.c_str());
    if (!lp && !rows) fail("%s has no ROWS section: it is not an MPS problem file", name.c_str());
    if (lp) {
        for (auto& ch : last) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
        if (last != "end") fail("%s does not close with \"end\": the LP file is incomplete (truncated?)", name.c_str());
    }
    return longest;
}

// Reads a file through HiGHS's reader into scratch: LP files, and MPS files the engine's own
// reader leaves to HiGHS. `why`: the engine reader's message for a file HiGHS cannot read either.
void read_through_highs(const std::string& name, bool lp, trvo_problem_s& scratch, EntitySections& entities,
                        const std::string& why) {
    bool engine_sections = false;
    const size_t longest_line = check_problem_file(name, lp, &engine_sections);
    std::string stripped;
    // The engine's reader leaves few MPS files to HiGHS: each gets the pass that takes out
    // the engine's sections and blank lines.
    (void)engine_sections;
    if (!lp) stripped = strip_entity_sections(name, entities);
    struct RemoveTemp {
        const std::string& path;
        ~RemoveTemp() { if (!path.empty()) std::remove(path.c_str()); }
    } remove_temp{stripped};
    Instance inst;
    void* h = inst.h;
    if (Highs_readModel(h, (stripped.empty() ? name : stripped).c_str()) == kHighsStatusError) {
        if (!why.empty()) fail("%s", why.c_str());
        fail("Could not read problem file %s", name.c_str());
    }
    HighsInt ncol = Highs_getNumCol(h), nrow = Highs_getNumRow(h), nnz = Highs_getNumNz(h),
             qnz = Highs_getHessianNumNz(h);
    // The model comes over row-wise, straight into the arrays the store keeps.
    std::vector<double> cost(static_cast<size_t>(ncol)), cl(static_cast<size_t>(ncol)),
        cu(static_cast<size_t>(ncol)), rl(static_cast<size_t>(nrow)), ru(static_cast<size_t>(nrow)),
        av(static_cast<size_t>(nnz)), qv(static_cast<size_t>(qnz));
    std::vector<HighsInt> as(static_cast<size_t>(nrow) + 1), ai(static_cast<size_t>(nnz)),
        qs(static_cast<size_t>(ncol) + 1), qi(static_cast<size_t>(qnz)),
        integ(static_cast<size_t>(ncol), kHighsVarTypeContinuous);
    HighsInt nc, nr, nz, hz, sense;
    double offset;
    if (Highs_getModel(h, kHighsMatrixFormatRowwise, kHighsHessianFormatTriangular, &nc, &nr, &nz,
                       &hz, &sense, &offset, cost.data(), cl.data(), cu.data(), rl.data(),
                       ru.data(), as.data(), ai.data(), av.data(), qs.data(), qi.data(), qv.data(),
                       integ.data()) == kHighsStatusError)
        fail("Could not read the model of %s", name.c_str());
    scratch.rowtype.resize(static_cast<size_t>(nrow));
    scratch.rhs.resize(static_cast<size_t>(nrow));
    scratch.range.assign(static_cast<size_t>(nrow), 0.0);
    for (HighsInt i = 0; i < nrow; ++i) store_row_bounds(scratch, static_cast<size_t>(i), rl[static_cast<size_t>(i)], ru[static_cast<size_t>(i)]);
    rl = std::vector<double>();
    ru = std::vector<double>();
    for (auto& v : cl) if (v <= -kInf) v = -kInf;
    for (auto& v : cu) if (v >= kInf) v = kInf;
    for (HighsInt k = 0; k < nnz; ++k)
        if (ai[static_cast<size_t>(k)] < 0 || ai[static_cast<size_t>(k)] >= ncol ||
            !std::isfinite(av[static_cast<size_t>(k)]))
            fail("Could not read the model of %s: invalid matrix entry", name.c_str());
    static_assert(sizeof(HighsInt) == sizeof(int), "the store's column indices are HiGHS's");
    if (!scratch.matrix.adopt(static_cast<size_t>(nrow), as.data(), std::move(ai), std::move(av)))
        fail("Could not read the model of %s: invalid matrix starts", name.c_str());
    scratch.lb.swap(cl);
    scratch.ub.swap(cu);
    scratch.obj.swap(cost);
    scratch.limit.assign(static_cast<size_t>(ncol), 0.0);
    scratch.coltype.assign(static_cast<size_t>(ncol), 'C');
    scratch.rownames.resize(static_cast<size_t>(nrow));
    scratch.colnames.resize(static_cast<size_t>(ncol));
    for (HighsInt j = 0; j < ncol; ++j) {
        size_t s = static_cast<size_t>(j);
        switch (integ[s]) {
            case kHighsVarTypeInteger:
                scratch.coltype[s] = (scratch.lb[s] == 0 && scratch.ub[s] == 1) ? 'B' : 'I';
                break;
            case kHighsVarTypeSemiContinuous: case kHighsVarTypeSemiInteger:
                scratch.coltype[s] = integ[s] == kHighsVarTypeSemiContinuous ? 'S' : 'R';
                scratch.limit[s] = scratch.lb[s];
                scratch.lb[s] = 0;
                break;
        }
    }
    for (HighsInt j = 0; j < ncol; ++j)
        for (HighsInt k = qs[static_cast<size_t>(j)]; k < (j + 1 < ncol ? qs[static_cast<size_t>(j) + 1] : qnz); ++k)
            if (qv[static_cast<size_t>(k)] != 0)
                scratch.qobj[qkey(j, qi[static_cast<size_t>(k)])] = qv[static_cast<size_t>(k)];
    scratch.objsense = sense == kHighsObjSenseMaximize ? -1 : 1;
    scratch.objconst = offset;
    // HiGHS copies a name into the buffer without a length: no name is longer than the longest
    // line of the file.
    std::vector<char> buf(std::max<size_t>(longest_line, 1024) + 1, '\0');
    for (HighsInt j = 0; j < ncol; ++j)
        if (Highs_getColName(h, j, buf.data()) != kHighsStatusError) scratch.colnames.set(j, buf.data());
    for (HighsInt i = 0; i < nrow; ++i)
        if (Highs_getRowName(h, i, buf.data()) != kHighsStatusError) scratch.rownames.set(i, buf.data());
}

double thread_cpu_seconds() {
    timespec ts;
    if (clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts) != 0) return 0;
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

void read_problem(TRVOprob p, const char* filename, const char* flags) {
    const auto wall0 = std::chrono::steady_clock::now();
    const double cpu0 = thread_cpu_seconds();
    std::string name = file_to_read(filename, flags);
    const bool lp = read_as_lp(name, flags);
    // The file is read into a scratch problem: a failure leaves the target untouched.
    auto fresh = [] {
        auto s = std::make_unique<trvo_problem_s>();
        s->magic = kProblemMagic;
        return s;
    };
    std::unique_ptr<trvo_problem_s> held = fresh();
    EntitySections entities;
    std::string why;
    if (lp || read_mps_file(name, *held, entities, why) == MpsRead::kUseHighs) {
        held = fresh();
        entities = EntitySections();
        read_through_highs(name, lp, *held, entities, why);
    }
    trvo_problem_s& scratch = *held;
    if (entities.any) load_entity_sections(entities, scratch);
    if (lp) apply_lp_notes(name, scratch);
    std::string base = name.substr(name.find_last_of('/') == std::string::npos ? 0 : name.find_last_of('/') + 1);
    if (has_extension(base)) base = base.substr(0, base.find_last_of('.'));

    store_clear(p);
    p->name = base;
    p->lb.swap(scratch.lb); p->ub.swap(scratch.ub); p->obj.swap(scratch.obj);
    p->limit.swap(scratch.limit); p->coltype.swap(scratch.coltype);
    p->objconst = scratch.objconst; p->objsense = scratch.objsense;
    p->rowtype.swap(scratch.rowtype); p->rhs.swap(scratch.rhs); p->range.swap(scratch.range);
    p->matrix.swap(scratch.matrix);
    p->qobj.swap(scratch.qobj);
    p->rownames = std::move(scratch.rownames);
    p->colnames = std::move(scratch.colnames);
    p->sets.swap(scratch.sets);
    p->setnames = std::move(scratch.setnames);
    p->indicators.swap(scratch.indicators);
    p->gencons.swap(scratch.gencons);
    p->pwlcons.swap(scratch.pwlcons);
    results_resize(p);
    char msg[512];
    std::snprintf(msg, sizeof msg, "Read %.300s: %d rows, %d columns, %lld elements in %.3fs (cpu %.3fs)", name.c_str(),
                  p->nrows(), p->ncols(), static_cast<long long>(p->matrix.nnz()),
                  std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count(),
                  thread_cpu_seconds() - cpu0);
    emit_message(p, msg, 1, TRVO_MSG_READ);
}

}  // namespace

void write_mps_with(TRVOprob prob, const char* filename, const char* flags, const ExtraSections& extra) {
    if (!prob || prob->magic != kProblemMagic) fail("Invalid problem handle");
    write_problem(prob, filename, flags, &extra);
}

std::string problem_file_to_read(const char* filename, const char* flags) { return file_to_read(filename, flags); }

bool problem_file_is_lp(const std::string& name, const char* flags) { return read_as_lp(name, flags); }

struct ModelSnapshot {
    trvo_problem_s saved;
};

std::shared_ptr<ModelSnapshot> snapshot_model(TRVOprob p) {
    if (!p || p->magic != kProblemMagic) fail("Invalid problem handle");
    auto snap = std::make_shared<ModelSnapshot>();
    trvo_problem_s& s = snap->saved;
    s.name = p->name;
    s.lb = p->lb; s.ub = p->ub; s.obj = p->obj; s.limit = p->limit; s.coltype = p->coltype;
    s.objconst = p->objconst; s.objsense = p->objsense;
    s.rowtype = p->rowtype; s.rhs = p->rhs; s.range = p->range;
    s.matrix = p->matrix;
    s.qobj = p->qobj; s.qrows = p->qrows; s.sets = p->sets; s.indicators = p->indicators;
    s.gencons = p->gencons; s.pwlcons = p->pwlcons;
    s.rownames = p->rownames; s.colnames = p->colnames; s.setnames = p->setnames;
    s.results = p->results;
    s.start_rbasis = p->start_rbasis; s.start_cbasis = p->start_cbasis;
    s.mip_start = p->mip_start; s.iis = p->iis;
    return snap;
}

void restore_model(TRVOprob p, ModelSnapshot& snap) {
    trvo_problem_s& s = snap.saved;
    p->name.swap(s.name);
    p->lb.swap(s.lb); p->ub.swap(s.ub); p->obj.swap(s.obj); p->limit.swap(s.limit);
    p->coltype.swap(s.coltype);
    p->objconst = s.objconst; p->objsense = s.objsense;
    p->rowtype.swap(s.rowtype); p->rhs.swap(s.rhs); p->range.swap(s.range);
    p->matrix.swap(s.matrix);
    p->qobj.swap(s.qobj); p->qrows.swap(s.qrows); p->sets.swap(s.sets); p->indicators.swap(s.indicators);
    p->gencons.swap(s.gencons); p->pwlcons.swap(s.pwlcons);
    p->rownames = std::move(s.rownames); p->colnames = std::move(s.colnames); p->setnames = std::move(s.setnames);
    p->results = std::move(s.results);
    p->start_rbasis.swap(s.start_rbasis); p->start_cbasis.swap(s.start_cbasis);
    p->mip_start.swap(s.mip_start); p->iis.swap(s.iis);
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOreadprob(TRVOprob prob, const char* filename, const char* flags) {
    // The file is read into a scratch problem first: a read that fails leaves the problem
    // exactly as it was.
    return guard(prob, [&] { read_problem(prob, filename, flags); });
}

int TRVOwriteprob(TRVOprob prob, const char* filename, const char* flags) {
    return guard(prob, [&] { write_problem(prob, filename, flags, nullptr); });
}

}  // extern "C"
