// Nonlinear problem files: TSLPwriteprob and TSLPreadprob.
//
// The format ("nonlinear MPS") is the MPS file the optimisation library writes for the bound
// problem (rows, columns, bounds, objective with its quadratic part, SOS and indicator
// sections), followed, in front of ENDATA, by the nonlinear part:
//
//   NONLINEAR 1                          opens the nonlinear part; 1 is the format version
//   OBJSENSE                             the nonlinear solver's objective sense (MIN or MAX),
//       MAX                                only when it differs from the MPS part's
//   QCMATRIX <row>                       the quadratic part of a row, one section per row:
//       <column> <column> <value>          each pair once, value Q_ij of the row's x'Qx
//   FORMULAS                             nonlinear coefficients:
//       <row> <column> <factor> <formula>  <column> '=' is the equals column (the coefficient
//                                          multiplies no column); the formula runs to the end of
//                                          the line, in the text form of TSLPchgccoef
//   SLPVARS                              SLP variable data, one line per column that has any:
//       <column> [<item> <value>]...       items DETROW <row>, INITSTEPBOUND, PENALTY, DAMP,
//                                          INITVALUE (numbers), TOLSET, CASCADELIMIT, VARTYPE,
//                                          SEQNUM (integers), DELTATYPE <type> <value>
//   TOLSETS                              tolerance sets in order from 1:
//       <index> <status> <tol 1> ... <tol 9>
//   ROWDATA                              row weights and row statuses:
//       <row> WEIGHT <value>
//       <row> STATUS <integer>           (bit 0x800 marks the row that carries the objective)
//   DFS                                  distribution factors:
//       <column> <row> <value>
//   ENDATA
//
// Section headers start in the first column; their lines start with blanks. Lines starting
// with '*' and blank lines are ignored. Rows and columns are referred to by the names the MPS
// part gives them (names with blanks are mended, repeated names made unique, as the optimiser's
// writer does), so the file does not depend on the order of rows and columns. A name that is
// not a letter or '_' followed by letters, digits, '_' and '.' is written in double quotes
// with a backslash before each '"' and '\' inside, here and inside formulas. Numbers are
// written with 17 significant digits, so that they read back exactly.
//
// What a file cannot hold: user functions (Python callables; a formula calling one makes
// writing fail), multistart jobs, callbacks, controls and solver results. The optimiser's reader
// refuses a file with a NONLINEAR section, so that reading such a file always comes here and
// never drops the nonlinear part. A file without it (a problem without nonlinear data written
// by the optimiser) reads here as well, as a problem without nonlinear data.
#include "engine/optimizer/files.h"
#include "engine/slp/formula.h"
#include "engine/slp/host.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <unordered_map>

#include <unistd.h>

namespace slp {
namespace {

constexpr int kFormatVersion = 1;

std::string num(double v) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.17g", v);
    return buf;
}

// ---------------------------------------------------------------- writing

std::string user_function_name(TSLPprob prob, int index) {
    if (index >= 1 && index <= (int)prob->userfuncs.size() && !prob->userfuncs[index - 1].name.empty())
        return prob->userfuncs[index - 1].name;
    return "number " + std::to_string(index);
}

std::string host_row_name(TSLPprob prob, int row) {
    int need = 0;
    if (TRVOgetnamelist(prob->trvo, 1, nullptr, 0, &need, row, row) == 0 && need > 0) {
        std::vector<char> buf((size_t)need + 1, '\0');
        if (TRVOgetnamelist(prob->trvo, 1, buf.data(), need + 1, &need, row, row) == 0 && buf[0])
            return std::string(buf.data());
    }
    return "R" + std::to_string(row + 1);
}

// Refuses what a file cannot carry, before anything is written: the file is either complete or
// not written at all.
void check_writable(TSLPprob prob) {
    const int nrows = host_rows(prob), ncols = host_cols(prob);
    for (const auto& kv : prob->coefs) {
        const Tokens& f = kv.second.formula;
        int row = kv.first.first, col = kv.first.second;
        if (row < 0 || row >= nrows || col < -1 || col >= ncols)
            throw Error("A nonlinear coefficient refers to a row or column the problem does not have");
        auto where = [&] {
            return "the coefficient of row " + host_row_name(prob, row) +
                   (col < 0 ? std::string(" (equals column)") : ", column " + host_column_name(prob, col));
        };
        if (!std::isfinite(kv.second.factor))
            throw Error("The factor of " + where() + " is not finite and cannot be written to a file");
        for (size_t i = 0; i < f.type.size(); ++i) {
            if (f.type[i] == TSLP_TOK_UFUN)
                throw Error("The formula of " + where() + " calls the user function " +
                            user_function_name(prob, (int)f.value[i]) +
                            ", which cannot be written to a problem file");
            if (f.type[i] == TSLP_TOK_CON && !std::isfinite(f.value[i]))
                throw Error("The formula of " + where() + " holds a number that is not finite and cannot be written");
            if (f.type[i] == TSLP_TOK_COL && (f.value[i] < 0 || f.value[i] >= (double)ncols))
                throw Error("The formula of " + where() + " refers to a column the problem does not have");
        }
    }
}

std::string nonlinear_sections(TSLPprob prob, const std::vector<std::string>& cn,
                               const std::vector<std::string>& rn) {
    auto col = [&](int j) { return name_in_formula(cn[(size_t)j]); };
    auto row = [&](int i) { return name_in_formula(rn[(size_t)i]); };
    const int nrows = (int)rn.size(), ncols = (int)cn.size();
    std::string out = std::string(trvo::kNonlinearSection) + " " + std::to_string(kFormatVersion) + "\n";

    // The nonlinear solver's objective sense, when it is not the one of the MPS part.
    double trvo_sense = 1;
    if (TRVOgetdblattrib(prob->trvo, TRVO_OBJSENSE, &trvo_sense) != 0) throw Error("Could not read the objective sense");
    const bool maximise = dbl_control(prob, TSLP_OBJSENSE) < 0;
    if (maximise != (trvo_sense < 0)) out += std::string("OBJSENSE\n    ") + (maximise ? "MAX" : "MIN") + "\n";

    // Quadratic rows of the optimisation problem.
    int nq = 0;
    if (TRVOgetqrows(prob->trvo, &nq, nullptr) != 0) throw Error("Could not read the quadratic rows");
    std::vector<int> qrows((size_t)nq);
    if (nq > 0 && TRVOgetqrows(prob->trvo, &nq, qrows.data()) != 0) throw Error("Could not read the quadratic rows");
    for (int r : qrows) {
        int ne = 0;
        if (TRVOgetqrowqmatrixtriplets(prob->trvo, r, &ne, nullptr, nullptr, nullptr) != 0)
            throw Error("Could not read the quadratic part of row " + rn[(size_t)r]);
        std::vector<int> c1((size_t)ne), c2((size_t)ne);
        std::vector<double> v((size_t)ne);
        if (ne > 0 && TRVOgetqrowqmatrixtriplets(prob->trvo, r, &ne, c1.data(), c2.data(), v.data()) != 0)
            throw Error("Could not read the quadratic part of row " + rn[(size_t)r]);
        out += "QCMATRIX " + row(r) + "\n";
        for (int k = 0; k < ne; ++k) out += "    " + col(c1[k]) + " " + col(c2[k]) + " " + num(v[k]) + "\n";
    }

    if (!prob->coefs.empty()) {
        out += "FORMULAS\n";
        auto col_name = [&](int j) { return cn[(size_t)j]; };
        auto no_ufun = [&](int) -> std::string { throw Error("A user function cannot be written"); };
        for (const auto& kv : prob->coefs) {
            out += "    " + row(kv.first.first) + " " + (kv.first.second < 0 ? std::string("=") : col(kv.first.second)) +
                   " " + num(kv.second.factor) + " " + print_text(kv.second.formula, col_name, no_ufun) + "\n";
        }
    }

    bool header = false;
    for (const auto& kv : prob->vars) {
        if (kv.first < 0 || kv.first >= ncols) continue;
        const SlpVar& v = kv.second;
        if (!header) out += "SLPVARS\n";
        header = true;
        out += "    " + col(kv.first);
        if (v.detrow >= 0 && v.detrow < nrows) out += " DETROW " + row(v.detrow);
        if (v.initstepbound != 0) out += " INITSTEPBOUND " + num(v.initstepbound);
        if (v.penalty != 0) out += " PENALTY " + num(v.penalty);
        if (v.damp != 0) out += " DAMP " + num(v.damp);
        if (v.has_initvalue) out += " INITVALUE " + num(v.initvalue);
        if (v.tolset > 0) out += " TOLSET " + std::to_string(v.tolset);
        if (v.cascadenlimit >= 0) out += " CASCADELIMIT " + std::to_string(v.cascadenlimit);
        if (v.vartype != 0) out += " VARTYPE " + std::to_string(v.vartype);
        if (v.seqnum != 0) out += " SEQNUM " + std::to_string(v.seqnum);
        if (v.deltatype != 0) out += " DELTATYPE " + std::to_string(v.deltatype) + " " + num(v.deltavalue);
        out += "\n";
    }

    if (!prob->tolsets.empty()) {
        out += "TOLSETS\n";
        for (size_t s = 0; s < prob->tolsets.size(); ++s) {
            out += "    " + std::to_string(s + 1) + " " + std::to_string(prob->tolsets[s].status);
            for (double t : prob->tolsets[s].tol) out += " " + num(t);
            out += "\n";
        }
    }

    std::map<int, std::string> rowdata;
    for (const auto& kv : prob->rowwt)
        if (kv.first >= 0 && kv.first < nrows) rowdata[kv.first] += "    " + row(kv.first) + " WEIGHT " + num(kv.second) + "\n";
    for (const auto& kv : prob->rowstatus)
        if (kv.first >= 0 && kv.first < nrows && kv.second != 0)
            rowdata[kv.first] += "    " + row(kv.first) + " STATUS " + std::to_string(kv.second) + "\n";
    if (!rowdata.empty()) {
        out += "ROWDATA\n";
        for (const auto& kv : rowdata) out += kv.second;
    }

    header = false;
    for (const auto& kv : prob->dfs) {
        int j = kv.first.first, i = kv.first.second;
        if (j < 0 || j >= ncols || i < 0 || i >= nrows) continue;
        if (!header) out += "DFS\n";
        header = true;
        out += "    " + col(j) + " " + row(i) + " " + num(kv.second) + "\n";
    }
    return out;
}

// ---------------------------------------------------------------- reading

// One word of a data line: a bare word, or a quoted name.
struct Word {
    std::string text;
    bool quoted = false;
};

struct Line {
    int number = 0;
    std::string text;
};

[[noreturn]] void line_error(const std::string& file, int number, const std::string& what) {
    throw Error(file + ", line " + std::to_string(number) + ": " + what);
}

struct LineReader {
    const std::string& file;
    const Line& line;
    size_t pos = 0;

    [[noreturn]] void fail(const std::string& what) const { line_error(file, line.number, what); }

    bool at_end() {
        while (pos < line.text.size() && std::isspace((unsigned char)line.text[pos])) ++pos;
        return pos >= line.text.size();
    }
    Word word(const char* what) {
        if (at_end()) fail(std::string("the line ends where ") + what + " is expected");
        Word w;
        const std::string& t = line.text;
        if (t[pos] == '"') {
            w.quoted = true;
            size_t j = pos + 1;
            for (; j < t.size() && t[j] != '"'; ++j) {
                if (t[j] == '\\' && j + 1 < t.size()) ++j;
                w.text.push_back(t[j]);
            }
            if (j >= t.size()) fail(std::string("the quoted name of ") + what + " is not closed");
            pos = j + 1;
        } else {
            size_t j = pos;
            while (j < t.size() && !std::isspace((unsigned char)t[j])) ++j;
            w.text = t.substr(pos, j - pos);
            pos = j;
        }
        return w;
    }
    double number(const char* what) {
        Word w = word(what);
        const char* s = w.text.c_str();
        char* end = nullptr;
        errno = 0;
        double v = std::strtod(s, &end);
        if (w.quoted || w.text.empty() || *end != '\0' || (errno == ERANGE && std::isinf(v)))
            fail(std::string("'") + w.text + "' is not a valid number for " + what);
        return v;
    }
    double finite(const char* what) {
        double v = number(what);
        if (!std::isfinite(v)) fail(std::string(what) + " must be finite");
        return v;
    }
    int integer(const char* what) {
        Word w = word(what);
        const char* s = w.text.c_str();
        char* end = nullptr;
        errno = 0;
        long v = std::strtol(s, &end, 10);
        if (w.quoted || w.text.empty() || *end != '\0' || errno == ERANGE || v < -2147483647L - 1 || v > 2147483647L)
            fail(std::string("'") + w.text + "' is not a valid integer for " + what);
        return (int)v;
    }
    std::string rest() {
        at_end();
        std::string r = line.text.substr(pos);
        while (!r.empty() && std::isspace((unsigned char)r.back())) r.pop_back();
        pos = line.text.size();
        return r;
    }
    void done() {
        if (!at_end()) fail("unexpected text '" + rest() + "' at the end of the line");
    }
};

// The nonlinear part of a file, with names resolved into a new nonlinear data set.
struct Loaded {
    int sense = 0;   // 1 minimise, -1 maximise, 0 as the MPS part says
    std::map<int, std::vector<std::pair<std::pair<int, int>, double>>> qrows;
    std::map<std::pair<int, int>, Coef> coefs;
    std::map<int, SlpVar> vars;
    std::vector<TolSet> tolsets;
    std::map<int, double> rowwt;
    std::map<int, int> rowstatus;
    std::map<std::pair<int, int>, double> dfs;
};

struct Names {
    std::unordered_map<std::string, int> cols, rows;
};

Names read_names(TSLPprob prob) {
    Names n;
    int nc = host_cols(prob), nr = host_rows(prob);
    for (int kind : {1, 2}) {
        int count = kind == 1 ? nr : nc;
        if (count == 0) continue;
        int need = 0;
        if (TRVOgetnamelist(prob->trvo, kind, nullptr, 0, &need, 0, count - 1) != 0)
            throw Error("Could not read the names of the problem");
        std::vector<char> buf((size_t)need + 1, '\0');
        if (TRVOgetnamelist(prob->trvo, kind, buf.data(), need + 1, &need, 0, count - 1) != 0)
            throw Error("Could not read the names of the problem");
        const char* s = buf.data();
        auto& map = kind == 1 ? n.rows : n.cols;
        for (int i = 0; i < count; ++i) {
            map.emplace(s, i);   // the first of equal names wins, as name lookups do
            s += std::strlen(s) + 1;
        }
    }
    return n;
}

// Parses and resolves the nonlinear part (lines after the NONLINEAR header up to ENDATA)
// against the problem the MPS part was read into. Changes nothing in prob.
Loaded parse_nonlinear(TSLPprob prob, const std::string& file, const Line& opening, const std::vector<Line>& lines) {
    {
        LineReader h{file, opening};
        h.word("the section name");
        int version = h.integer("the format version");
        if (version != kFormatVersion)
            h.fail("format version " + std::to_string(version) + " is not known (this library reads version " +
                   std::to_string(kFormatVersion) + ")");
        h.done();
    }
    Names names = read_names(prob);
    Loaded out;
    auto column = [&](LineReader& r, const char* what) {
        Word w = r.word(what);
        auto it = names.cols.find(w.text);
        if (it == names.cols.end()) r.fail("unknown column " + w.text);
        return it->second;
    };
    auto row = [&](LineReader& r, const char* what) {
        Word w = r.word(what);
        auto it = names.rows.find(w.text);
        if (it == names.rows.end()) r.fail("unknown row " + w.text);
        return it->second;
    };
    auto resolve_col = [&](const std::string& n) {
        auto it = names.cols.find(n);
        return it == names.cols.end() ? -1 : it->second;
    };
    auto resolve_ufun = [&](const std::string& n) {
        for (size_t i = 0; i < prob->userfuncs.size(); ++i)
            if (prob->userfuncs[i].name == n) return (int)i + 1;
        return 0;
    };
    enum Section { NONE, OBJSENSE, QCMATRIX, FORMULAS, SLPVARS, TOLSETS, ROWDATA, DFS } section = NONE;
    int qrow = -1;
    std::vector<std::pair<int, int>> tolset_refs;   // (tolerance set, line) to check at the end
    for (const Line& ln : lines) {
        LineReader r{file, ln};
        bool header = !std::isspace((unsigned char)ln.text[0]);
        if (header) {
            std::string name = r.word("a section name").text;
            if (name == "OBJSENSE") {
                section = OBJSENSE;
            } else if (name == "QCMATRIX") {
                section = QCMATRIX;
                qrow = row(r, "the row of a QCMATRIX section");
                if (out.qrows.count(qrow)) r.fail("a second QCMATRIX section for the same row");
                out.qrows[qrow];
            } else if (name == "FORMULAS") section = FORMULAS;
            else if (name == "SLPVARS") section = SLPVARS;
            else if (name == "TOLSETS") section = TOLSETS;
            else if (name == "ROWDATA") section = ROWDATA;
            else if (name == "DFS") section = DFS;
            else r.fail("unknown section " + name + " in the nonlinear part of the file");
            r.done();
            continue;
        }
        switch (section) {
        case NONE: r.fail("data line outside a section");
        case OBJSENSE: {
            std::string w = r.word("MIN or MAX").text;
            if (w == "MIN" || w == "MINIMIZE" || w == "MINIMISE") out.sense = 1;
            else if (w == "MAX" || w == "MAXIMIZE" || w == "MAXIMISE") out.sense = -1;
            else r.fail("objective sense " + w + " (MIN or MAX expected)");
            r.done();
            break;
        }
        case QCMATRIX: {
            int c1 = column(r, "a column of the quadratic part");
            int c2 = column(r, "a column of the quadratic part");
            double v = r.finite("a quadratic coefficient");
            r.done();
            out.qrows[qrow].push_back({{c1, c2}, v});
            break;
        }
        case FORMULAS: {
            int i = row(r, "the row of a coefficient");
            Word w = r.word("the column of a coefficient");
            int j = -1;
            if (w.quoted || w.text != "=") {
                auto it = names.cols.find(w.text);
                if (it == names.cols.end()) r.fail("unknown column " + w.text);
                j = it->second;
            }
            Coef c;
            c.factor = r.finite("the factor of a coefficient");
            std::string text = r.rest();
            if (text.empty()) r.fail("the coefficient has no formula");
            try {
                c.formula = parse_text(text, resolve_col, resolve_ufun);
            } catch (const Error& e) {
                r.fail(std::string("bad formula: ") + e.what());
            }
            if (!out.coefs.emplace(std::make_pair(i, j), std::move(c)).second)
                r.fail("a second coefficient for the same row and column");
            break;
        }
        case SLPVARS: {
            int j = column(r, "the column of SLP variable data");
            if (out.vars.count(j)) r.fail("a second line of SLP variable data for the same column");
            SlpVar v;
            while (!r.at_end()) {
                std::string item = r.word("an item").text;
                if (item == "DETROW") v.detrow = row(r, "the determining row");
                else if (item == "INITSTEPBOUND") {
                    v.initstepbound = r.finite("the initial step bound");
                    if (v.initstepbound < 0) r.fail("step bounds cannot be negative");
                } else if (item == "PENALTY") v.penalty = r.finite("the penalty");
                else if (item == "DAMP") {
                    v.damp = r.finite("the damping factor");
                    if (v.damp < 0 || v.damp > 1) r.fail("damping factors lie between 0 and 1");
                } else if (item == "INITVALUE") {
                    v.initvalue = r.finite("the initial value");
                    v.has_initvalue = true;
                } else if (item == "TOLSET") {
                    v.tolset = r.integer("the tolerance set");
                    if (v.tolset < 1) r.fail("tolerance sets are numbered from 1");
                    tolset_refs.push_back({v.tolset, ln.number});
                } else if (item == "CASCADELIMIT") {
                    v.cascadenlimit = r.integer("the cascade limit");
                    if (v.cascadenlimit < 0) r.fail("the cascade limit cannot be negative");
                } else if (item == "VARTYPE") v.vartype = r.integer("the variable type");
                else if (item == "SEQNUM") v.seqnum = r.integer("the sequence number");
                else if (item == "DELTATYPE") {
                    v.deltatype = r.integer("the delta type");
                    v.deltavalue = r.finite("the delta value");
                    if (v.deltatype < 0 || v.deltatype > 2) r.fail("delta types are 0, 1 or 2");
                    if (v.deltatype > 0 && !(v.deltavalue > 0)) r.fail("delta types 1 and 2 need a positive value");
                } else r.fail("unknown item " + item + " of SLP variable data");
            }
            out.vars[j] = v;
            break;
        }
        case TOLSETS: {
            int index = r.integer("the tolerance set number");
            if (index != (int)out.tolsets.size() + 1)
                r.fail("tolerance set " + std::to_string(index) + " where set " +
                       std::to_string(out.tolsets.size() + 1) + " is expected");
            TolSet t;
            t.status = r.integer("the tolerance set status");
            if (t.status < 0 || t.status > 0x1ff) r.fail("a tolerance set status has bits 0 to 8 only");
            for (double& tol : t.tol) {
                tol = r.finite("a tolerance");
                if (tol < 0) r.fail("tolerances must be non-negative");
            }
            r.done();
            out.tolsets.push_back(t);
            break;
        }
        case ROWDATA: {
            int i = row(r, "the row of row data");
            std::string item = r.word("WEIGHT or STATUS").text;
            if (item == "WEIGHT") {
                double w = r.finite("the row weight");
                if (w < 0) r.fail("row weights must be non-negative");
                out.rowwt[i] = w;
            } else if (item == "STATUS") {
                out.rowstatus[i] = r.integer("the row status");
            } else {
                r.fail("unknown row item " + item + " (WEIGHT or STATUS expected)");
            }
            r.done();
            break;
        }
        case DFS: {
            int j = column(r, "the column of a distribution factor");
            int i = row(r, "the row of a distribution factor");
            double v = r.finite("the distribution factor");
            r.done();
            out.dfs[{j, i}] = v;
            break;
        }
        }
    }
    for (const auto& ref : tolset_refs)
        if (ref.first > (int)out.tolsets.size())
            line_error(file, ref.second, "tolerance set " + std::to_string(ref.first) + " is not defined in TOLSETS");
    return out;
}

std::string last_trvo_error(TSLPprob prob) {
    char msg[512] = "";
    TRVOgetlasterror(prob->trvo, msg);
    msg[sizeof msg - 1] = '\0';
    return msg;
}

// Everything tied to the rows and columns of the previous content, multistart jobs (which set
// initial values of columns) included; controls, callbacks and user functions stay.
void clear_nonlinear_data(TSLPprob prob) {
    prob->msjobs.clear();
    prob->coefs.clear();
    prob->vars.clear();
    prob->tolsets.clear();
    prob->rowwt.clear();
    prob->rowstatus.clear();
    prob->dfs.clear();
    prob->sol = Solution();
    prob->nlpstatus = TSLP_NLP_UNSTARTED;
    prob->state = 0;
    prob->stopstatus = 0;
    prob->iter = prob->simplexiter = prob->mipiter = prob->mswinner = prob->penaltyerrors = 0;
    prob->objval = prob->errorcosts = prob->maxviolation = prob->currentpenalty = 0.0;
}

// The nonlinear data and results that reading replaces, kept to undo a failed read.
struct NonlinearSnapshot {
    slp::Controls controls;
    std::map<std::pair<int, int>, slp::Coef> coefs;
    std::map<int, slp::SlpVar> vars;
    std::vector<slp::TolSet> tolsets;
    std::map<int, double> rowwt;
    std::map<int, int> rowstatus;
    std::map<std::pair<int, int>, double> dfs;
    std::vector<slp::MsJob> msjobs;
    int nlpstatus, state, stopstatus, iter, simplexiter, mipiter, mswinner, penaltyerrors;
    double objval, errorcosts, maxviolation, currentpenalty;
    slp::Solution sol;

    explicit NonlinearSnapshot(TSLPprob p)
        : controls(p->controls), coefs(p->coefs), vars(p->vars), tolsets(p->tolsets), rowwt(p->rowwt),
          rowstatus(p->rowstatus), dfs(p->dfs), msjobs(p->msjobs), nlpstatus(p->nlpstatus), state(p->state),
          stopstatus(p->stopstatus), iter(p->iter), simplexiter(p->simplexiter), mipiter(p->mipiter),
          mswinner(p->mswinner), penaltyerrors(p->penaltyerrors), objval(p->objval), errorcosts(p->errorcosts),
          maxviolation(p->maxviolation), currentpenalty(p->currentpenalty), sol(p->sol) {}

    void restore(TSLPprob p) {
        p->controls = std::move(controls);
        p->coefs.swap(coefs); p->vars.swap(vars); p->tolsets.swap(tolsets); p->rowwt.swap(rowwt);
        p->rowstatus.swap(rowstatus); p->dfs.swap(dfs); p->msjobs.swap(msjobs);
        p->nlpstatus = nlpstatus; p->state = state; p->stopstatus = stopstatus; p->iter = iter;
        p->simplexiter = simplexiter; p->mipiter = mipiter; p->mswinner = mswinner;
        p->penaltyerrors = penaltyerrors; p->objval = objval; p->errorcosts = errorcosts;
        p->maxviolation = maxviolation; p->currentpenalty = currentpenalty; p->sol = std::move(sol);
    }
};

// The nonlinear solver takes the objective sense from its own control: follow the file.
void take_objective_sense(TSLPprob prob) {
    double sense = 1;
    if (TRVOgetdblattrib(prob->trvo, TRVO_OBJSENSE, &sense) != 0)
        throw Error("Could not read the objective sense: " + last_trvo_error(prob));
    prob->controls.dbls[TSLP_OBJSENSE] = sense < 0 ? -1.0 : 1.0;
}

struct TempFile {
    std::string path;
    ~TempFile() {
        if (!path.empty()) std::remove(path.c_str());
    }
};

void read_file(TSLPprob prob, const char* filename, const char* flags) {
    std::string name = trvo::problem_file_to_read(filename, flags);
    if (trvo::problem_file_is_lp(name, flags)) {
        // LP files have no nonlinear part.
        clear_nonlinear_data(prob);
        if (TRVOreadprob(prob->trvo, filename, flags) != 0) throw Error(last_trvo_error(prob));
        take_objective_sense(prob);
        return;
    }
    std::vector<Line> lines;
    {
        std::FILE* f = std::fopen(name.c_str(), "rb");
        if (!f) throw Error("Could not open problem file " + name);
        std::string text;
        char chunk[65536];
        size_t got;
        while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) text.append(chunk, got);
        bool bad = std::ferror(f) != 0;
        std::fclose(f);
        if (bad) throw Error("Could not read problem file " + name);
        size_t at = 0;
        int number = 0;
        while (at < text.size()) {
            size_t end = text.find('\n', at);
            if (end == std::string::npos) end = text.size();
            std::string l = text.substr(at, end - at);
            if (!l.empty() && l.back() == '\r') l.pop_back();
            lines.push_back({++number, std::move(l)});
            at = end + 1;
        }
    }
    // Where the nonlinear part starts, and where the file ends.
    size_t opening = lines.size(), endata = lines.size();
    for (size_t k = 0; k < lines.size(); ++k) {
        const std::string& t = lines[k].text;
        if (t.empty() || std::isspace((unsigned char)t[0]) || t[0] == '*') continue;
        std::string first = t.substr(0, t.find_first_of(" \t"));
        if (first == trvo::kNonlinearSection && opening == lines.size()) opening = k;
        if (first == "ENDATA") {
            endata = k;
            break;
        }
    }
    if (opening == lines.size() || opening > endata) {
        // No nonlinear part: the optimiser reads the file as it is.
        clear_nonlinear_data(prob);
        if (TRVOreadprob(prob->trvo, filename, flags) != 0) throw Error(last_trvo_error(prob));
        take_objective_sense(prob);
        return;
    }
    if (endata == lines.size())
        throw Error(name + ": the file ends at line " + std::to_string(lines.size()) +
                    " without an ENDATA line (it may be truncated)");
    // The MPS part goes to the optimiser through a temporary file.
    TempFile tmp;
    {
        std::string mps;
        for (size_t k = 0; k < opening; ++k) mps += lines[k].text + "\n";
        mps += "ENDATA\n";
        const char* dir = std::getenv("TMPDIR");
        std::string tmpl = std::string(dir && *dir ? dir : "/tmp") + "/tslpreadXXXXXX.mps";
        std::vector<char> path(tmpl.begin(), tmpl.end());
        path.push_back('\0');
        int fd = mkstemps(path.data(), 4);
        if (fd < 0) throw Error("Could not create a temporary file to read " + name);
        tmp.path = path.data();
        bool ok = ::write(fd, mps.data(), mps.size()) == (ssize_t)mps.size();
        ok = ::close(fd) == 0 && ok;
        if (!ok) throw Error("Could not write a temporary file to read " + name);
    }
    std::string mps_flags;
    for (const char* c = flags ? flags : ""; *c; ++c)
        if (*c != 'l') mps_flags.push_back(*c);
    if (TRVOreadprob(prob->trvo, tmp.path.c_str(), mps_flags.c_str()) != 0) {
        std::string msg = last_trvo_error(prob);
        for (size_t at; (at = msg.find(tmp.path)) != std::string::npos;) msg.replace(at, tmp.path.size(), name);
        throw Error(msg);
    }
    std::string base = name.substr(name.find_last_of('/') == std::string::npos ? 0 : name.find_last_of('/') + 1);
    size_t dot = base.find_last_of('.');
    if (dot != std::string::npos && dot > 0) base = base.substr(0, dot);
    if (TRVOsetprobname(prob->trvo, base.c_str()) != 0) throw Error(last_trvo_error(prob));

    std::vector<Line> part(lines.begin() + (long)opening + 1, lines.begin() + (long)endata);
    std::vector<Line> data;
    for (auto& l : part) {
        bool blank = l.text.find_first_not_of(" \t") == std::string::npos;
        if (!blank && l.text[0] != '*') data.push_back(std::move(l));
    }
    Loaded loaded = parse_nonlinear(prob, name, lines[opening], data);

    for (const auto& q : loaded.qrows) {
        std::vector<int> c1, c2;
        std::vector<double> v;
        for (const auto& e : q.second) {
            c1.push_back(e.first.first);
            c2.push_back(e.first.second);
            v.push_back(e.second);
        }
        if (!v.empty() && TRVOaddqmatrix64(prob->trvo, q.first, (int64_t)v.size(), c1.data(), c2.data(), v.data()) != 0)
            throw Error(name + ": the quadratic part of a row was refused: " + last_trvo_error(prob));
    }
    clear_nonlinear_data(prob);
    prob->coefs.swap(loaded.coefs);
    prob->vars.swap(loaded.vars);
    prob->tolsets.swap(loaded.tolsets);
    prob->rowwt.swap(loaded.rowwt);
    prob->rowstatus.swap(loaded.rowstatus);
    prob->dfs.swap(loaded.dfs);
    take_objective_sense(prob);
    if (loaded.sense != 0) prob->controls.dbls[TSLP_OBJSENSE] = loaded.sense;
}

}  // namespace
}  // namespace slp

using slp::guard;

extern "C" {

int TSLPwriteprob(TSLPprob prob, const char* filename, const char* flags) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_writable(prob);
        trvo::write_mps_with(prob->trvo, filename, flags,
                             [&](const std::vector<std::string>& cn, const std::vector<std::string>& rn) {
                                 return slp::nonlinear_sections(prob, cn, rn);
                             });
    });
}

int TSLPreadprob(TSLPprob prob, const char* filename, const char* flags) {
    // A read that fails leaves both problems exactly as they were: the optimiser's part may
    // already have been replaced when the nonlinear sections turn out to be bad.
    return guard(prob, [&] {
        slp::check_prob(prob);
        std::shared_ptr<trvo::ModelSnapshot> model = trvo::snapshot_model(prob->trvo);
        slp::NonlinearSnapshot nonlinear(prob);
        try {
            slp::read_file(prob, filename, flags);
        } catch (...) {
            trvo::restore_model(prob->trvo, *model);
            nonlinear.restore(prob);
            throw;
        }
    });
}

}  // extern "C"
