// LP-format problem files written by the engine itself. HiGHS's LP writer loses parts of a
// model: it splits a ranged row into two rows ("<name>lo", "<name>up"), drops free rows and
// drops columns that appear in no row and have no cost (which also changes the column order
// on reading). This writer keeps every row and column, lists all columns in the objective in
// column order (with zero coefficients where needed) so that a reader creates them in that
// order, and carries what LP syntax cannot express in comment lines of its own:
//   \ range: <row> <range>             the row is written as "<= rhs"; its range is <range>
//   \ partial-integer: <column> <limit>  integer below <limit>, continuous above
//   \ gencons: <line>                   a line of the general and piecewise-linear
//                                        constraints (their form is described in gencons.h)
// HiGHS (and any other LP reader) skips those comments; the engine's reader applies them.
#include "engine/optimizer/files.h"
#include "engine/optimizer/formulate.h"
#include "engine/optimizer/gencons.h"
#include "engine/optimizer/problem.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace trvo {

namespace {

const char* const kRangeTag = "range:";
const char* const kPartialTag = "partial-integer:";

std::string number(double v) {
    if (v >= kInf) return "+inf";
    if (v <= -kInf) return "-inf";
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.17g", v);
    return buf;
}

std::string signed_number(double v) {
    std::string s = number(v);
    return s[0] == '-' || s[0] == '+' ? s : "+" + s;
}

// Appends " <coef> <name>" terms, starting a new line every few terms so that lines stay short.
struct TermWriter {
    std::string& out;
    int on_line = 0;
    void term(double coef, const std::string& name) {
        if (on_line == 8) {
            out += "\n   ";
            on_line = 0;
        }
        out += " " + signed_number(coef) + " " + name;
        ++on_line;
    }
    void text(const std::string& t) {
        if (on_line == 8) {
            out += "\n   ";
            on_line = 0;
        }
        out += " " + t;
        ++on_line;
    }
};

}  // namespace

std::string lp_file_text(TRVOprob p, const HighsModel& m, const std::vector<std::string>& cn,
                         const std::vector<std::string>& rn) {
    const int n = p->ncols(), rows = p->nrows();
    std::string out = "\\ Problem written by the tarvo optimiser\n";
    if (!p->name.empty()) {
        std::string safe;
        for (char c : p->name) safe.push_back(c == '\n' || c == '\r' ? ' ' : c);
        out += "\\ Problem name: " + safe + "\n";
    }
    out += p->objsense < 0 ? "maximize\n obj:" : "minimize\n obj:";
    {
        TermWriter w{out};
        // Every column appears here, in column order: a reader numbers columns by first use.
        for (int j = 0; j < n; ++j) w.term(m.cost[static_cast<size_t>(j)], cn[static_cast<size_t>(j)]);
        if (!m.q_index.empty()) {
            w.text("+ [");
            bool first = true;
            const HighsInt nq = static_cast<HighsInt>(m.q_index.size());
            for (int j = 0; j < n; ++j) {
                // Column-wise lower triangle; the last column's entries run to the end.
                HighsInt end = j + 1 < n ? m.q_start[static_cast<size_t>(j) + 1] : nq;
                for (HighsInt k = m.q_start[static_cast<size_t>(j)]; k < end; ++k) {
                    int i = m.q_index[static_cast<size_t>(k)];
                    double v = m.q_value[static_cast<size_t>(k)];
                    if (v == 0) continue;
                    // The bracket holds x'Qx (divided by 2 after it): off-diagonal pairs twice.
                    std::string t = i == j ? cn[static_cast<size_t>(j)] + " ^ 2"
                                           : cn[static_cast<size_t>(j)] + " * " + cn[static_cast<size_t>(i)];
                    double c = i == j ? v : 2 * v;
                    w.text((first ? number(c) : signed_number(c)) + " " + t);
                    first = false;
                }
            }
            w.text("] / 2");
        }
        if (m.offset != 0) w.text(signed_number(m.offset));
    }
    out += "\nsubject to\n";
    std::string notes;
    for (int i = 0; i < rows; ++i) {
        size_t s = static_cast<size_t>(i);
        out += " " + rn[s] + ":";
        TermWriter w{out};
        const auto& row = p->matrix[s];
        if (row.empty() && n > 0) w.term(0.0, cn[0]);
        for (const auto& e : row) w.term(e.second, cn[static_cast<size_t>(e.first)]);
        switch (p->rowtype[s]) {
            case 'L': w.text("<= " + number(p->rhs[s])); break;
            case 'G': w.text(">= " + number(p->rhs[s])); break;
            case 'E': w.text("= " + number(p->rhs[s])); break;
            case 'N': w.text(">= -inf"); break;
            case 'R':
                w.text("<= " + number(p->rhs[s]));
                notes += std::string("\\ ") + kRangeTag + " " + rn[s] + " " + number(p->range[s]) + "\n";
                break;
            default: fail("Row %d has an unknown type", i);
        }
        out += "\n";
    }
    out += "bounds\n";
    std::vector<int> general, semi, binary;
    for (int j = 0; j < n; ++j) {
        size_t s = static_cast<size_t>(j);
        const std::string& c = cn[s];
        char t = p->coltype[s];
        double lo = m.col_lower[s] <= -kInf ? -kInf : m.col_lower[s];
        double up = m.col_upper[s] >= kInf ? kInf : m.col_upper[s];
        if (t == 'B' && lo == 0 && up == 1) {
            binary.push_back(j);
            continue;
        }
        if (t == 'I' || t == 'B' || t == 'R') general.push_back(j);
        if (t == 'S' || t == 'R') {
            semi.push_back(j);
            lo = p->limit[s];
        }
        if (t == 'P') notes += std::string("\\ ") + kPartialTag + " " + c + " " + number(p->limit[s]) + "\n";
        if (lo == up) out += " " + c + " = " + number(lo) + "\n";
        else if (lo <= -kInf && up >= kInf) out += " " + c + " free\n";
        else if (lo == 0 && up >= kInf && t != 'S' && t != 'R') continue;
        else out += " " + number(lo) + " <= " + c + " <= " + number(up) + "\n";
    }
    auto section = [&](const char* title, const std::vector<int>& cols) {
        if (cols.empty()) return;
        out += title;
        out += "\n";
        for (int j : cols) out += " " + cn[static_cast<size_t>(j)] + "\n";
    };
    section("general", general);
    section("binary", binary);
    section("semi-continuous", semi);
    out += notes;
    for (const std::string& line : gencons_file_lines(p, cn))
        out += std::string("\\ ") + kGenconsLpTag + " " + line.substr(line.find_first_not_of(' ')) + "\n";
    out += "end\n";
    return out;
}

void apply_lp_notes(const std::string& file, trvo_problem_s& target) {
    std::FILE* f = std::fopen(file.c_str(), "rb");
    if (!f) fail("Could not open problem file %s", file.c_str());
    std::string line;
    std::vector<std::vector<std::string>> gencons;
    int c;
    bool more = true;
    while (more) {
        line.clear();
        while ((c = std::fgetc(f)) != EOF && c != '\n') line.push_back(static_cast<char>(c));
        more = c != EOF;
        if (line.size() < 2 || line[0] != '\\') continue;
        std::vector<std::string> t;
        for (size_t k = 1; k < line.size();) {
            while (k < line.size() && std::isspace(static_cast<unsigned char>(line[k]))) ++k;
            size_t e = k;
            while (e < line.size() && !std::isspace(static_cast<unsigned char>(line[e]))) ++e;
            if (e > k) t.push_back(line.substr(k, e - k));
            k = e;
        }
        if (!t.empty() && t[0] == kGenconsLpTag) {
            gencons.emplace_back(t.begin() + 1, t.end());
            continue;
        }
        if (t.size() != 3 || (t[0] != kRangeTag && t[0] != kPartialTag)) continue;
        char* end = nullptr;
        double value = std::strtod(t[2].c_str(), &end);
        const char* name = t[1].c_str();
        if (!end || *end) {
            std::fclose(f);
            fail("%s: unreadable value in the comment line %s", file.c_str(), t[0].c_str());
        }
        if (t[0] == kRangeTag) {
            int i = target.rownames.find(name);
            if (i < 0) continue;
            size_t s = static_cast<size_t>(i);
            if (target.rowtype[s] != 'L' || !(value >= 0) || value >= kInf) {
                std::fclose(f);
                fail("%s: the range of row %s does not fit the row", file.c_str(), name);
            }
            target.rowtype[s] = 'R';
            target.range[s] = value;
        } else {
            int j = target.colnames.find(name);
            if (j < 0) continue;
            size_t s = static_cast<size_t>(j);
            if (target.coltype[s] != 'C' || !std::isfinite(value)) {
                std::fclose(f);
                fail("%s: column %s cannot be partial integer", file.c_str(), name);
            }
            target.coltype[s] = 'P';
            target.limit[s] = value;
        }
    }
    std::fclose(f);
    if (!gencons.empty()) gencons_from_file_lines(gencons, target);
}

}  // namespace trvo
