// Problem files (MPS, free MPS, LP) through HiGHS's reader and writer, names kept.
#include "engine/optimizer/files.h"
#include "engine/optimizer/formulate.h"
#include "engine/optimizer/highs_instances.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

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
//   SOS                              INDICATORS
//    S1 SOS <set> <priority>          IF <row> <column> <0 or 1>
//       <set> <column> <weight>
// They go in front of ENDATA; on reading they are taken out before HiGHS sees the file.
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
    if (!p->indicators.empty()) {
        out += "INDICATORS\n";
        for (const auto& kv : p->indicators)
            out += " IF " + rn[static_cast<size_t>(kv.first)] + " " +
                   cn[static_cast<size_t>(kv.second.col)] + (kv.second.comp > 0 ? " 1\n" : " 0\n");
    }
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

struct SosEntry {
    std::string set, col;
    double weight;
};
struct SosHeader {
    std::string name;
    char type;
};
struct IndicatorEntry {
    std::string row, col;
    int value;
};
struct EntitySections {
    std::vector<SosHeader> sets;
    std::vector<SosEntry> members;
    std::vector<IndicatorEntry> indicators;
    bool any = false;
};

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

// Takes the SOS and INDICATORS sections out of an MPS file. Returns the name of a temporary
// copy without them for HiGHS to read, or "" when the file has none.
std::string strip_entity_sections(const std::string& file, EntitySections& found) {
    std::FILE* f = std::fopen(file.c_str(), "rb");
    if (!f) fail("Could not open problem file %s", file.c_str());
    std::string rest, line;
    enum { kOther, kSos, kIndicators } section = kOther;
    int c, lineno = 0;
    bool more = true;
    while (more) {
        line.clear();
        while ((c = std::fgetc(f)) != EOF && c != '\n') line.push_back(static_cast<char>(c));
        more = c != EOF;
        if (!more && line.empty()) break;
        std::vector<std::string> t = tokens(line);
        bool header = !line.empty() && !std::isspace(static_cast<unsigned char>(line[0])) && line[0] != '*';
        ++lineno;
        if (header && t[0] == kNonlinearSection) {
            std::fclose(f);
            fail("%s holds the nonlinear problem sections from line %d on; it is read through the "
                 "nonlinear library", file.c_str(), lineno);
        }
        if (header) {
            section = t[0] == "SOS" ? kSos : t[0] == "INDICATORS" ? kIndicators : kOther;
            if (section != kOther) {
                found.any = true;
                continue;
            }
        }
        if (section == kOther || t.empty() || line[0] == '*') {
            rest += line;
            rest += '\n';
            continue;
        }
        if (section == kSos) {
            if ((t[0] == "S1" || t[0] == "S2") && t.size() >= 3) {
                found.sets.push_back({t[2], t[0][1]});
            } else if (found.sets.empty()) {
                std::fclose(f);
                fail("SOS member before any set in %s", file.c_str());
            } else if (t.size() >= 3) {
                found.members.push_back({t[0], t[1], std::strtod(t[2].c_str(), nullptr)});
            } else if (t.size() == 2) {
                found.members.push_back({found.sets.back().name, t[0], std::strtod(t[1].c_str(), nullptr)});
            }
        } else if (t.size() >= 4 && t[0] == "IF") {
            found.indicators.push_back({t[1], t[2], std::atoi(t[3].c_str())});
        } else {
            std::fclose(f);
            fail("Unreadable INDICATORS line in %s: %s", file.c_str(), line.c_str());
        }
    }
    std::fclose(f);
    if (!found.any) return "";
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

// Resolves the sections' names against the columns and rows read by HiGHS.
void load_entity_sections(const EntitySections& found, trvo_problem_s& target) {
    std::unordered_map<std::string, size_t> set_index;
    for (const auto& h : found.sets) {
        if (set_index.count(h.name)) fail("Set %s is defined twice", h.name.c_str());
        set_index[h.name] = target.sets.size();
        Sos s;
        s.type = h.type;
        target.sets.push_back(s);
        target.setnames.resize(target.sets.size());
        target.setnames.set(static_cast<int>(target.sets.size()) - 1, h.name);
    }
    for (const auto& m : found.members) {
        auto it = set_index.find(m.set);
        if (it == set_index.end()) fail("SOS member of an unknown set %s", m.set.c_str());
        int col = target.colnames.find(m.col);
        if (col < 0) fail("SOS member %s is not a column", m.col.c_str());
        target.sets[it->second].cols.push_back(col);
        target.sets[it->second].weights.push_back(m.weight);
    }
    for (const auto& e : found.indicators) {
        int row = target.rownames.find(e.row), col = target.colnames.find(e.col);
        if (row < 0) fail("Indicator row %s is not a row", e.row.c_str());
        if (col < 0) fail("Indicator column %s is not a column", e.col.c_str());
        if (e.value != 0 && e.value != 1) fail("Indicator value of row %s must be 0 or 1", e.row.c_str());
        target.indicators[row] = Indicator{col, e.value == 1 ? 1 : -1};
    }
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
            case 'P': fail("Partial integer columns cannot be written to a problem file");
        }
    }
    if (any) m.integrality = integ;
    // Objective in the user's sense.
    if (m.sign < 0) {
        for (auto& c : m.cost) c = -c;
        for (auto& q : m.q_value) q = -q;
        m.offset = -m.offset;
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

std::string file_to_read(const char* filename, const char* flags) {
    if (!filename || !*filename) fail("No file name given");
    std::string name(filename);
    if (!has_extension(name)) {
        // Try the name as given, then with the format's extensions.
        bool lp = flags && std::strchr(flags, 'l');
        for (const char* ext : {"", lp ? ".lp" : ".mps", lp ? ".mps" : ".lp"}) {
            std::string t = name + ext;
            if (FILE* f = std::fopen(t.c_str(), "r")) {
                std::fclose(f);
                name = t;
                break;
            }
        }
    }
    if (FILE* f = std::fopen(name.c_str(), "r")) std::fclose(f);
    else fail("Could not open problem file %s", name.c_str());
    return name;
}

void read_problem(TRVOprob p, const char* filename, const char* flags) {
    std::string name = file_to_read(filename, flags);
    EntitySections entities;
    std::string stripped;
    if (!read_as_lp(name, flags)) stripped = strip_entity_sections(name, entities);
    struct RemoveTemp {
        const std::string& path;
        ~RemoveTemp() { if (!path.empty()) std::remove(path.c_str()); }
    } remove_temp{stripped};
    Instance inst;
    void* h = inst.h;
    if (Highs_readModel(h, (stripped.empty() ? name : stripped).c_str()) == kHighsStatusError)
        fail("Could not read problem file %s", name.c_str());
    HighsInt ncol = Highs_getNumCol(h), nrow = Highs_getNumRow(h), nnz = Highs_getNumNz(h),
             qnz = Highs_getHessianNumNz(h);
    std::vector<double> cost(static_cast<size_t>(ncol)), cl(static_cast<size_t>(ncol)),
        cu(static_cast<size_t>(ncol)), rl(static_cast<size_t>(nrow)), ru(static_cast<size_t>(nrow)),
        av(static_cast<size_t>(nnz)), qv(static_cast<size_t>(qnz));
    std::vector<HighsInt> as(static_cast<size_t>(ncol) + 1), ai(static_cast<size_t>(nnz)),
        qs(static_cast<size_t>(ncol) + 1), qi(static_cast<size_t>(qnz)),
        integ(static_cast<size_t>(ncol), kHighsVarTypeContinuous);
    HighsInt nc, nr, nz, hz, sense;
    double offset;
    if (Highs_getModel(h, kHighsMatrixFormatColwise, kHighsHessianFormatTriangular, &nc, &nr, &nz,
                       &hz, &sense, &offset, cost.data(), cl.data(), cu.data(), rl.data(),
                       ru.data(), as.data(), ai.data(), av.data(), qs.data(), qi.data(), qv.data(),
                       integ.data()) == kHighsStatusError)
        fail("Could not read the model of %s", name.c_str());
    as[static_cast<size_t>(ncol)] = nnz;
    std::vector<char> rtype(static_cast<size_t>(nrow));
    std::vector<double> rhs(static_cast<size_t>(nrow)), range(static_cast<size_t>(nrow), 0.0);
    for (HighsInt i = 0; i < nrow; ++i) {
        size_t s = static_cast<size_t>(i);
        bool lo = std::isfinite(rl[s]) && rl[s] > -kInf, up = std::isfinite(ru[s]) && ru[s] < kInf;
        if (!lo && !up) { rtype[s] = 'N'; rhs[s] = 0; }
        else if (lo && up && rl[s] == ru[s]) { rtype[s] = 'E'; rhs[s] = ru[s]; }
        else if (!lo) { rtype[s] = 'L'; rhs[s] = ru[s]; }
        else if (!up) { rtype[s] = 'G'; rhs[s] = rl[s]; }
        else { rtype[s] = 'R'; rhs[s] = ru[s]; range[s] = ru[s] - rl[s]; }
    }
    for (auto& v : cl) if (v <= -kInf) v = -kInf;
    for (auto& v : cu) if (v >= kInf) v = kInf;
    std::vector<int64_t> starts(as.begin(), as.end());
    std::vector<int> rows(ai.begin(), ai.end());
    // Build into a scratch problem so that a failure leaves the target untouched.
    trvo_problem_s scratch;
    scratch.magic = kProblemMagic;
    load_problem(&scratch, "", ncol, nrow, rtype.data(), rhs.data(), range.data(), cost.data(),
                 starts.data(), nullptr, rows.data(), av.data(), cl.data(), cu.data());
    for (HighsInt j = 0; j < ncol; ++j) {
        size_t s = static_cast<size_t>(j);
        switch (integ[s]) {
            case kHighsVarTypeInteger:
                scratch.coltype[s] = (cl[s] == 0 && cu[s] == 1) ? 'B' : 'I';
                break;
            case kHighsVarTypeSemiContinuous: case kHighsVarTypeSemiInteger:
                scratch.coltype[s] = integ[s] == kHighsVarTypeSemiContinuous ? 'S' : 'R';
                scratch.limit[s] = cl[s];
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
    char buf[1024];
    for (HighsInt j = 0; j < ncol; ++j)
        if (Highs_getColName(h, j, buf) != kHighsStatusError) scratch.colnames.set(j, buf);
    for (HighsInt i = 0; i < nrow; ++i)
        if (Highs_getRowName(h, i, buf) != kHighsStatusError) scratch.rownames.set(i, buf);
    if (entities.any) load_entity_sections(entities, scratch);
    std::string base = name.substr(name.find_last_of('/') == std::string::npos ? 0 : name.find_last_of('/') + 1);
    if (has_extension(base)) base = base.substr(0, base.find_last_of('.'));

    store_clear(p);
    p->name = base;
    p->lb.swap(scratch.lb); p->ub.swap(scratch.ub); p->obj.swap(scratch.obj);
    p->limit.swap(scratch.limit); p->coltype.swap(scratch.coltype);
    p->objconst = scratch.objconst; p->objsense = scratch.objsense;
    p->rowtype.swap(scratch.rowtype); p->rhs.swap(scratch.rhs); p->range.swap(scratch.range);
    p->matrix.swap(scratch.matrix); p->nnz = scratch.nnz;
    p->qobj.swap(scratch.qobj);
    p->rownames = std::move(scratch.rownames);
    p->colnames = std::move(scratch.colnames);
    p->sets.swap(scratch.sets);
    p->setnames = std::move(scratch.setnames);
    p->indicators.swap(scratch.indicators);
    results_resize(p);
}

}  // namespace

void write_mps_with(TRVOprob prob, const char* filename, const char* flags, const ExtraSections& extra) {
    if (!prob || prob->magic != kProblemMagic) fail("Invalid problem handle");
    write_problem(prob, filename, flags, &extra);
}

std::string problem_file_to_read(const char* filename, const char* flags) { return file_to_read(filename, flags); }

bool problem_file_is_lp(const std::string& name, const char* flags) { return read_as_lp(name, flags); }

void clear_after_failed_read(TRVOprob prob) {
    if (prob && prob->magic == kProblemMagic) store_clear(prob);
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOreadprob(TRVOprob prob, const char* filename, const char* flags) {
    // A read that fails leaves an empty problem, like a successful read of an empty file: the
    // module has already emptied its lists of the problem's objects.
    return guard(prob, [&] {
        try {
            read_problem(prob, filename, flags);
        } catch (...) {
            store_clear(prob);
            throw;
        }
    });
}

int TRVOwriteprob(TRVOprob prob, const char* filename, const char* flags) {
    return guard(prob, [&] { write_problem(prob, filename, flags, nullptr); });
}

}  // extern "C"
