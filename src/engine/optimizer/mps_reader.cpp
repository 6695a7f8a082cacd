// The engine's MPS reader. The file is read whole and walked line by line; names are looked up
// as views into that buffer (one hash per name token, no string made), numbers are parsed with
// std::from_chars, and the matrix, read by columns, is laid out by rows in one counting pass
// straight into the arrays the store keeps. Its reading follows HiGHS's reader: the first N row
// is the objective and later N rows are dropped with their entries, columns between
// 'MARKER' 'INTORG' and 'INTEND' lines are integer (binary when no bound is given for them), a
// right-hand side on the objective row is minus its constant, the first of repeated entries
// counts, a bound on a column not in COLUMNS creates that column, and RANGES follow the usual
// table (an E row's range goes up from its right-hand side when positive, down when negative).
#include "engine/optimizer/mps_reader.h"
#include "engine/optimizer/files.h"
#include "engine/optimizer/gencons.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unordered_map>

#include <sys/stat.h>

namespace trvo {

EntitySection entity_section_of(const std::string& word) {
    if (word == "SOS") return EntitySection::kSos;
    if (word == "INDICATORS") return EntitySection::kIndicators;
    if (word == "PARTIALINTEGER") return EntitySection::kPartial;
    if (word == "FREEROWS") return EntitySection::kFree;
    if (is_gencons_section(word)) return EntitySection::kGencons;
    return EntitySection::kNone;
}

void entity_line(EntitySection section, const std::vector<std::string>& t, const std::string& line,
                 const std::string& where, EntitySections& found) {
    switch (section) {
        case EntitySection::kGencons:
            found.gencons.push_back(t);
            return;
        case EntitySection::kFree:
            if (t.size() != 1) fail("Unreadable FREEROWS line in %s: %.80s", where.c_str(), line.c_str());
            found.free_rows.push_back(t[0]);
            return;
        case EntitySection::kPartial: {
            if (t.size() != 2) fail("Unreadable PARTIALINTEGER line in %s: %.80s", where.c_str(), line.c_str());
            char* end = nullptr;
            double limit = std::strtod(t[1].c_str(), &end);
            if (!end || *end) fail("Unreadable PARTIALINTEGER line in %s: %.80s", where.c_str(), line.c_str());
            found.partial.push_back({t[0], limit});
            return;
        }
        case EntitySection::kSos:
            if ((t[0] == "S1" || t[0] == "S2") && t.size() >= 3) {
                found.sets.push_back({t[2], t[0][1]});
            } else if (found.sets.empty()) {
                fail("SOS member before any set in %s", where.c_str());
            } else if (t.size() >= 3) {
                found.members.push_back({t[0], t[1], std::strtod(t[2].c_str(), nullptr)});
            } else if (t.size() == 2) {
                found.members.push_back({found.sets.back().name, t[0], std::strtod(t[1].c_str(), nullptr)});
            }
            return;
        case EntitySection::kIndicators:
            if (t.size() >= 4 && t[0] == "IF") {
                found.indicators.push_back({t[1], t[2], std::atoi(t[3].c_str())});
                return;
            }
            fail("Unreadable INDICATORS line in %s: %.80s", where.c_str(), line.c_str());
        case EntitySection::kNone:
            return;
    }
}

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
    if (!found.gencons.empty()) gencons_from_file_lines(found.gencons, target);
    for (const auto& r : found.free_rows) {
        int row = target.rownames.find(r);
        if (row < 0) fail("Free row %s is not a row", r.c_str());
        size_t s = static_cast<size_t>(row);
        if (target.rowtype[s] != 'G' || target.rhs[s] != kFreeRowBound) fail("Row %s is not written as a free row", r.c_str());
        target.rowtype[s] = 'N';
        target.rhs[s] = 0;
        target.range[s] = 0;
    }
    for (const auto& e : found.partial) {
        int col = target.colnames.find(e.col);
        if (col < 0) fail("Partial integer column %s is not a column", e.col.c_str());
        size_t s = static_cast<size_t>(col);
        if (target.coltype[s] != 'C' || !std::isfinite(e.limit))
            fail("Column %s cannot be partial integer", e.col.c_str());
        target.coltype[s] = 'P';
        target.limit[s] = e.limit;
    }
}

void store_row_bounds(trvo_problem_s& target, size_t s, double lo_v, double up_v) {
    char& t = target.rowtype[s];
    double& rhs = target.rhs[s];
    target.range[s] = 0;
    bool lo = std::isfinite(lo_v) && lo_v > -kInf, up = std::isfinite(up_v) && up_v < kInf;
    if (!lo && !up) { t = 'N'; rhs = 0; }
    else if (lo && up && lo_v == up_v) { t = 'E'; rhs = up_v; }
    else if (!lo) { t = 'L'; rhs = up_v; }
    else if (!up) { t = 'G'; rhs = lo_v; }
    else { t = 'R'; rhs = up_v; target.range[s] = up_v - lo_v; }
}

namespace {

using Text = std::string_view;

// Names to positions: open addressing over views into the file buffer.
class NameIndex {
public:
    explicit NameIndex(size_t expect) { grow(expect); }
    // The value of name, or -1.
    int find(Text name) const {
        for (size_t k = hash(name) & mask_;; k = (k + 1) & mask_) {
            const Slot& s = slots_[k];
            if (s.value < 0) return -1;
            if (s.key == name) return s.value;
        }
    }
    // Adds name with value; returns false (and changes nothing) when name is already there.
    bool insert(Text name, int value) {
        if (4 * (count_ + 1) > 3 * slots_.size()) grow(2 * slots_.size());
        size_t k = hash(name) & mask_;
        for (;; k = (k + 1) & mask_) {
            if (slots_[k].value < 0) break;
            if (slots_[k].key == name) return false;
        }
        slots_[k] = Slot{name, value};
        ++count_;
        return true;
    }

private:
    struct Slot {
        Text key;
        int value = -1;
    };
    std::vector<Slot> slots_;
    size_t mask_ = 0, count_ = 0;

    static size_t hash(Text s) {
        uint64_t h = 0x9E3779B97F4A7C15ull ^ s.size();
        size_t k = 0;
        for (; k + 8 <= s.size(); k += 8) {
            uint64_t w;
            std::memcpy(&w, s.data() + k, 8);
            h = (h ^ w) * 0xff51afd7ed558ccdull;
            h ^= h >> 32;
        }
        uint64_t w = 0;
        std::memcpy(&w, s.data() + k, s.size() - k);
        h = (h ^ w) * 0xc4ceb9fe1a85ec53ull;
        h ^= h >> 29;
        return static_cast<size_t>(h);
    }
    void grow(size_t want) {
        size_t n = 16;
        while (n < want + want / 3) n *= 2;
        if (n <= slots_.size()) return;
        std::vector<Slot> old;
        old.swap(slots_);
        slots_.assign(n, Slot());
        mask_ = n - 1;
        for (const Slot& s : old) {
            if (s.value < 0) continue;
            size_t k = hash(s.key) & mask_;
            while (slots_[k].value >= 0) k = (k + 1) & mask_;
            slots_[k] = s;
        }
    }
};

inline bool blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

constexpr int kMaxTokens = 8;
struct Tokens {
    Text t[kMaxTokens];
    int n = 0;  // kMaxTokens + 1: more than kMaxTokens
};

void split(const char* s, size_t len, Tokens& out) {
    out.n = 0;
    size_t i = 0;
    while (i < len) {
        while (i < len && blank(s[i])) ++i;
        if (i == len) break;
        size_t j = i;
        while (j < len && !blank(s[j])) ++j;
        if (out.n == kMaxTokens) {
            out.n = kMaxTokens + 1;
            return;
        }
        out.t[out.n++] = Text(s + i, j - i);
        i = j;
    }
}

// Whether a data line could be a fixed-format line whose names hold blanks: all its characters
// lie within the fixed fields (columns 2-3, 5-12, 15-22, 25-36, 40-47 and 50-61) and a name
// field (5-12, 15-22 or 40-47) holds a blank between other characters. Such a line splits into
// the wrong words. Lines after ROWS reach the third field (a row or column name there).
bool fixed_blank_names(const char* s, size_t len, bool rows) {
    static const size_t fields[][2] = {{1, 3}, {4, 12}, {14, 22}, {24, 36}, {39, 47}, {49, 61}};
    if (len > 61 || (!rows && len <= 14)) return false;
    size_t f = 0;
    for (size_t k = 0; k < len; ++k) {
        while (f < 6 && k >= fields[f][1]) ++f;
        if (!blank(s[k]) && (f == 6 || k < fields[f][0])) return false;
    }
    for (int name : {1, 2, 4}) {
        bool seen = false, gap = false;
        for (size_t k = fields[name][0]; k < std::min(len, fields[name][1]); ++k) {
            if (!blank(s[k])) {
                if (gap) return true;
                seen = true;
            } else if (seen) {
                gap = true;
            }
        }
    }
    return false;
}

enum class Section { kNone, kObjsense, kRows, kColumns, kRhs, kRanges, kBounds, kEntity };

class Reader {
public:
    Reader(const std::string& file, trvo_problem_s& target, EntitySections& found, std::string& why)
        : file_(file), target_(target), found_(found), why_(why), rows_(1024), cols_(1024) {}

    MpsRead run() {
        load();
        const char* p = buf_.data();
        const char* end = p + buf_.size();
        bool endata = false;
        while (p < end && !endata) {
            const char* nl = static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
            const char* le = nl ? nl : end;
            ++lineno_;
            size_t len = static_cast<size_t>(le - p);
            while (len > 0 && blank(p[len - 1])) --len;  // also a '\r' of a DOS line end
            if (len > 0 && p[0] != '*') {
                if (!blank(p[0])) {
                    MpsRead r = header(p, len, endata);
                    if (r != MpsRead::kDone) return r;
                } else if (!data(p, len)) {
                    return MpsRead::kUseHighs;
                }
            }
            p = nl ? nl + 1 : end;
        }
        if (!endata) fail("%s has no ENDATA line: the MPS file is incomplete (truncated?)", file_.c_str());
        if (!seen_rows_) fail("%s has no ROWS section: it is not an MPS problem file", file_.c_str());
        finish();
        return MpsRead::kDone;
    }

private:
    const std::string& file_;
    trvo_problem_s& target_;
    EntitySections& found_;
    std::string& why_;
    std::string buf_;
    int lineno_ = 0;
    Section section_ = Section::kNone;
    EntitySection entity_ = EntitySection::kNone;
    bool seen_rows_ = false, in_integer_ = false, has_objective_ = false;
    int objsense_ = 1;
    double offset_ = 0;
    bool has_offset_ = false;

    // Rows: every ROWS entry has a code: its row, -1 for the objective, -2 for a dropped N row
    // (kept in the index as code + 2); row_code() gives kNoRow for a name not there.
    static constexpr int kNoRow = -3;
    NameIndex rows_;
    int row_code(Text name) const {
        int v = rows_.find(name);
        return v < 0 ? kNoRow : v - 2;
    }
    // RHS, RANGES and BOUNDS lines mostly follow the order of the rows and columns: the name
    // after the last one found is tried before the hash table.
    int next_row_ = 0, next_col_ = 0;
    int row_in_order(Text name) {
        if (static_cast<size_t>(next_row_) < row_names_.size() && row_names_[static_cast<size_t>(next_row_)] == name)
            return next_row_++;
        int code = row_code(name);
        if (code >= 0) next_row_ = code + 1;
        return code;
    }
    int col_in_order(Text name) {
        if (static_cast<size_t>(next_col_) < col_names_.size() && col_names_[static_cast<size_t>(next_col_)] == name)
            return next_col_++;
        int j = cols_.find(name);
        if (j >= 0) next_col_ = j + 1;
        return j;
    }
    std::vector<Text> row_names_;
    std::vector<char> row_type_;
    std::vector<double> rhs_, range_;
    std::vector<char> has_rhs_, has_range_;
    std::vector<int> row_count_;  // entries per row
    std::vector<int> last_col_;   // the last column with an entry in the row (repeats)

    // Columns, their entries by column.
    NameIndex cols_;
    std::vector<Text> col_names_;
    std::vector<double> cost_, lower_, upper_;
    std::vector<char> kind_;  // 'C', 'I', 'S' (semi-continuous), 'R' (semi-integer)
    std::vector<char> binary_, has_lower_, has_upper_, has_cost_;
    std::vector<int> entry_row_;
    std::vector<double> entry_val_;
    std::vector<int64_t> col_start_;
    Text current_col_;

    void load() {
        std::FILE* f = std::fopen(file_.c_str(), "rb");
        if (!f) fail("Could not open problem file %s", file_.c_str());
        struct stat st;
        if (::fstat(fileno(f), &st) == 0 && st.st_size > 0) buf_.reserve(static_cast<size_t>(st.st_size) + 1);
        char chunk[1 << 16];
        size_t got;
        while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) buf_.append(chunk, got);
        bool failed = std::ferror(f) != 0;
        std::fclose(f);
        if (failed) fail("Could not read problem file %s", file_.c_str());
        if (std::memchr(buf_.data(), '\0', buf_.size()))
            fail("%s is not a text problem file (it holds binary data)", file_.c_str());
    }

    [[noreturn]] void bad(const char* what, Text name = Text()) {
        if (name.empty()) fail("%s, line %d: %s", file_.c_str(), lineno_, what);
        fail("%s, line %d: %s %.*s", file_.c_str(), lineno_, what, static_cast<int>(std::min<size_t>(name.size(), 80)),
             name.data());
    }

    // A data line this reader cannot take: HiGHS's reader gets the file when the line may be
    // fixed-format with blanks in its names; otherwise the file is malformed.
    bool unreadable(const char* s, size_t len, const char* what, Text name = Text()) {
        if (!fixed_blank_names(s, len, section_ == Section::kRows)) bad(what, name);
        char msg[200];
        std::snprintf(msg, sizeof msg, "%s, line %d: %s %.*s", file_.c_str(), lineno_, what,
                      static_cast<int>(std::min<size_t>(name.size(), 80)), name.data());
        why_ = msg;
        return false;
    }

    double number(Text t, bool finite) {
        const char* b = t.data();
        const char* e = b + t.size();
        if (b < e && *b == '+' && b + 1 < e && *(b + 1) != '-') ++b;
        double v = 0;
        auto r = std::from_chars(b, e, v);
        if (r.ec == std::errc::result_out_of_range && r.ptr == e) {
            // Underflow reads as the nearest double (as strtod gives it); overflow is an error.
            std::string copy(b, e);
            v = std::strtod(copy.c_str(), nullptr);
            if (std::isinf(v)) bad("number out of range:", t);
        } else if (r.ec != std::errc() || r.ptr != e) {
            bad("not a number:", t);
        }
        if (std::isnan(v) || (finite && std::isinf(v))) bad("not a finite number:", t);
        return v;
    }

    MpsRead header(const char* s, size_t len, bool& endata) {
        Tokens tk;
        split(s, len, tk);
        const Text w = tk.t[0];
        entity_ = EntitySection::kNone;
        if (w == "NAME") section_ = Section::kNone;
        else if (w == "ROWS") section_ = Section::kRows, seen_rows_ = true;
        else if (w == "COLUMNS") section_ = Section::kColumns;
        else if (w == "RHS") section_ = Section::kRhs;
        else if (w == "RANGES") section_ = Section::kRanges;
        else if (w == "BOUNDS") section_ = Section::kBounds;
        else if (w == "ENDATA") endata = true;
        else if (w == "OBJSENSE") {
            section_ = Section::kObjsense;
            if (tk.n > 1) sense(tk.t[1]);
        } else if (w == "MAX" || w == "MIN" || w == "MAXIMIZE" || w == "MINIMIZE") {
            if (section_ == Section::kObjsense) sense(w);
        } else if (w == "OBJNAME" || w == "QUADOBJ" || w == "QMATRIX" || w == "QSECTION" || w == "QCMATRIX" ||
                   w == "CSECTION") {
            return MpsRead::kUseHighs;
        } else if (w == kNonlinearSection) {
            fail("%s holds the nonlinear problem sections from line %d on; it is read through the nonlinear library",
                 file_.c_str(), lineno_);
        } else {
            entity_ = entity_section_of(std::string(w));
            if (entity_ == EntitySection::kNone)
                fail("%s: line %d opens an unknown MPS section %.20s", file_.c_str(), lineno_,
                     std::string(w.substr(0, 20)).c_str());
            section_ = Section::kEntity;
            found_.any = true;
        }
        current_col_ = Text();  // a column's lines are one run
        return MpsRead::kDone;
    }

    void sense(Text w) {
        if (w == "MAX" || w == "MAXIMIZE") objsense_ = -1;
        else if (w == "MIN" || w == "MINIMIZE") objsense_ = 1;
    }

    // False: the file goes to HiGHS's reader.
    bool data(const char* s, size_t len) {
        Tokens tk;
        split(s, len, tk);
        switch (section_) {
            case Section::kNone: return true;  // text after NAME: HiGHS skips it too
            case Section::kObjsense:
                if (tk.n == 1) sense(tk.t[0]);
                return true;
            case Section::kRows: return row_line(s, len, tk);
            case Section::kColumns: return column_line(s, len, tk);
            case Section::kRhs: case Section::kRanges: return rhs_line(s, len, tk, section_ == Section::kRanges);
            case Section::kBounds: return bound_line(s, len, tk);
            case Section::kEntity: {
                std::vector<std::string> t;
                for (size_t i = 0; i < len;) {
                    while (i < len && blank(s[i])) ++i;
                    size_t j = i;
                    while (j < len && !blank(s[j])) ++j;
                    if (j > i) t.emplace_back(s + i, j - i);
                    i = j;
                }
                entity_line(entity_, t, std::string(s, len), file_ + ", line " + std::to_string(lineno_), found_);
                return true;
            }
        }
        return true;
    }

    bool row_line(const char* s, size_t len, const Tokens& tk) {
        if (tk.n != 2) return unreadable(s, len, "a ROWS line holds a row type and a name:", Text(s, len));
        const Text type = tk.t[0], name = tk.t[1];
        if (type.size() != 1 || !std::strchr("NELG", type[0])) bad("unknown row type", type);
        int code;
        if (type[0] == 'N') {
            code = has_objective_ ? -2 : -1;
            has_objective_ = true;
        } else {
            code = static_cast<int>(row_type_.size());
        }
        if (!row_count_.empty()) bad("a ROWS entry after the COLUMNS section:", name);
        if (!rows_.insert(name, code + 2)) return false;  // a name given twice: HiGHS's handling
        if (code < 0) return true;
        row_names_.push_back(name);
        row_type_.push_back(type[0]);
        return true;
    }

    void start_rows() {
        if (!row_count_.empty() || row_type_.empty()) return;
        const size_t m = row_type_.size();
        rhs_.assign(m, 0.0);
        range_.assign(m, 0.0);
        has_rhs_.assign(m, 0);
        has_range_.assign(m, 0);
        row_count_.assign(m, 0);
        last_col_.assign(m, -1);
    }

    // False when the name is already a column's.
    bool new_column(Text name, bool integer) {
        int j = static_cast<int>(col_names_.size());
        if (!cols_.insert(name, j)) return false;
        col_names_.push_back(name);
        cost_.push_back(0.0);
        lower_.push_back(0.0);
        upper_.push_back(INFINITY);
        kind_.push_back(integer ? 'I' : 'C');
        binary_.push_back(integer ? 1 : 0);
        has_lower_.push_back(0);
        has_upper_.push_back(0);
        has_cost_.push_back(0);
        col_start_.push_back(static_cast<int64_t>(entry_row_.size()));  // its entries follow
        return true;
    }

    bool column_line(const char* s, size_t len, const Tokens& tk) {
        start_rows();
        if (tk.n >= 2 && tk.t[1] == "'MARKER'") {
            Text m = tk.n >= 3 ? tk.t[2] : Text();
            if (m == "'INTORG'" && !in_integer_) in_integer_ = true;
            else if (m == "'INTEND'" && in_integer_) in_integer_ = false;
            else bad("integer marker out of place:", m.empty() ? Text("(none)") : m);
            return true;
        }
        if (tk.n != 3 && tk.n != 5)
            return unreadable(s, len, "a COLUMNS line holds a column and one or two row-value pairs:", Text(s, len));
        const Text col = tk.t[0];
        if (col != current_col_) {
            if (!new_column(col, in_integer_)) return false;  // a column given twice: HiGHS's handling
            current_col_ = col_names_.back();
        }
        const int j = static_cast<int>(col_names_.size()) - 1;
        for (int k = 1; k + 1 < tk.n; k += 2) {
            int code = row_code(tk.t[k]);
            if (code == kNoRow) return unreadable(s, len, "unknown row", tk.t[k]);
            double v = number(tk.t[k + 1], true);
            if (v == 0 || code == -2) continue;
            if (code == -1) {
                if (!has_cost_[static_cast<size_t>(j)]) cost_[static_cast<size_t>(j)] = v;
                has_cost_[static_cast<size_t>(j)] = 1;
                continue;
            }
            size_t r = static_cast<size_t>(code);
            if (last_col_[r] == j) continue;  // a repeated entry: the first counts
            last_col_[r] = j;
            ++row_count_[r];
            entry_row_.push_back(code);
            entry_val_.push_back(v);
        }
        return true;
    }

    bool rhs_line(const char* s, size_t len, const Tokens& tk, bool ranges) {
        start_rows();
        if (tk.n < 2 || tk.n > 5)
            return unreadable(s, len, ranges ? "a RANGES line holds a set name and row-value pairs:"
                                             : "an RHS line holds a set name and row-value pairs:", Text(s, len));
        for (int k = tk.n % 2; k + 1 < tk.n; k += 2) {
            const Text name = tk.t[k];
            int code = row_in_order(name);
            if (code == kNoRow) return unreadable(s, len, "unknown row", name);
            double v = number(tk.t[k + 1], false);
            if (code == -2) continue;
            if (code == -1) {
                if (!ranges && !has_offset_) offset_ = -v, has_offset_ = true;
                continue;
            }
            size_t r = static_cast<size_t>(code);
            if (ranges) {
                if (!has_range_[r]) range_[r] = v, has_range_[r] = 1;
            } else if (!has_rhs_[r]) {
                rhs_[r] = v;
                has_rhs_[r] = 1;
            }
        }
        return true;
    }

    bool bound_line(const char* s, size_t len, const Tokens& tk) {
        if (tk.n < 2 || tk.n > 4)
            return unreadable(s, len, "a BOUNDS line holds a type, a set name, a column and a value:", Text(s, len));
        const Text type = tk.t[0];
        static const char* const kTypes[] = {"UP", "LO", "FX", "MI", "PL", "BV", "LI", "UI", "FR", "SI", "SC"};
        int which = -1;
        for (int k = 0; k < 11; ++k)
            if (type == kTypes[k]) which = k;
        if (which < 0) bad("unknown bound type", type);
        const bool valued = which <= 2 || which == 6 || which == 7 || which >= 9;
        // The set name may be left out: then the column comes first.
        int at = 1;
        int j = col_in_order(tk.t[1]);
        if (j < 0 && tk.n >= 3) {
            at = 2;
            j = col_in_order(tk.t[2]);
        }
        if (valued && at + 1 >= tk.n) return unreadable(s, len, "a bound without a value for", tk.t[at]);
        if (at + 2 < tk.n)
            return unreadable(s, len, "a BOUNDS line holds a type, a set name, a column and a value:", Text(s, len));
        if (j < 0) {
            // A bound on a column that is in no COLUMNS line makes that column.
            if (!new_column(tk.t[at], false)) bad("a column named twice:", tk.t[at]);
            j = static_cast<int>(col_names_.size()) - 1;
        }
        const size_t c = static_cast<size_t>(j);
        const bool is_lb = which == 1 || which == 2 || which == 3 || which == 5 || which == 6 || which == 8;
        const bool is_ub = which == 0 || which == 2 || which == 4 || which == 5 || which == 7 || which == 8 ||
                           which == 9 || which == 10;
        if ((is_lb && has_lower_[c]) || (is_ub && has_upper_[c])) return true;  // the first bound counts
        if (is_lb) has_lower_[c] = 1;
        if (is_ub) has_upper_[c] = 1;
        switch (which) {
            case 3: lower_[c] = -INFINITY; binary_[c] = 0; return true;                 // MI
            case 4: upper_[c] = INFINITY; binary_[c] = 0; return true;                  // PL
            case 8: lower_[c] = -INFINITY; upper_[c] = INFINITY; binary_[c] = 0; return true;  // FR
            case 5: kind_[c] = 'I'; binary_[c] = 1; upper_[c] = 1; return true;          // BV
            default: break;
        }
        double v = number(tk.t[at + 1], false);
        if (which == 6 || which == 7) kind_[c] = 'I';
        else if (which == 9) kind_[c] = 'R';
        else if (which == 10) kind_[c] = 'S';
        if (is_lb) lower_[c] = v;
        if (is_ub) upper_[c] = v;
        binary_[c] = 0;
        return true;
    }

    void finish() {
        start_rows();
        const size_t m = row_type_.size(), n = col_names_.size();
        col_start_.push_back(static_cast<int64_t>(entry_row_.size()));
        if (entry_row_.size() > static_cast<size_t>(INT32_MAX)) fail("%s has too many matrix entries", file_.c_str());
        trvo_problem_s& t = target_;
        // Rows: bounds from type and right-hand side, then the ranges.
        t.rowtype.resize(m);
        t.rhs.resize(m);
        t.range.resize(m);
        for (size_t i = 0; i < m; ++i) {
            const double b = rhs_[i];
            double lo = b, up = b;
            if (row_type_[i] == 'L') lo = -INFINITY;
            if (row_type_[i] == 'G') up = INFINITY;
            if (has_range_[i]) {
                const double r = std::fabs(range_[i]);
                if (row_type_[i] == 'L' || (row_type_[i] == 'E' && range_[i] < 0)) lo = up - r;
                else if (row_type_[i] == 'G' || (row_type_[i] == 'E' && range_[i] > 0)) up = lo + r;
            }
            store_row_bounds(t, i, lo, up);
        }
        // The matrix by rows: counts, starts, then the entries column by column, which leaves
        // each row sorted by column.
        std::vector<int> starts(m + 1, 0);
        for (size_t i = 0; i < m; ++i) starts[i + 1] = starts[i] + row_count_[i];
        std::vector<int> next(starts.begin(), starts.end() - 1);
        std::vector<int> idx(entry_row_.size());
        std::vector<double> val(entry_row_.size());
        for (size_t j = 0; j < n; ++j)
            for (int64_t k = col_start_[j]; k < col_start_[j + 1]; ++k) {
                int& at = next[static_cast<size_t>(entry_row_[static_cast<size_t>(k)])];
                idx[static_cast<size_t>(at)] = static_cast<int>(j);
                val[static_cast<size_t>(at)] = entry_val_[static_cast<size_t>(k)];
                ++at;
            }
        std::vector<int>().swap(entry_row_);
        std::vector<double>().swap(entry_val_);
        if (!t.matrix.adopt(m, starts.data(), std::move(idx), std::move(val)))
            fail("Could not read the model of %s: invalid matrix starts", file_.c_str());
        // Columns.
        t.obj.swap(cost_);
        t.lb.resize(n);
        t.ub.resize(n);
        t.limit.assign(n, 0.0);
        t.coltype.assign(n, 'C');
        for (size_t j = 0; j < n; ++j) {
            double lo = lower_[j], up = upper_[j];
            if (binary_[j]) lo = 0, up = 1;
            lo = lo <= -kInf ? -kInf : lo;
            up = up >= kInf ? kInf : up;
            switch (kind_[j]) {
                case 'I': t.coltype[j] = lo == 0 && up == 1 ? 'B' : 'I'; break;
                case 'S': case 'R':
                    t.coltype[j] = kind_[j];
                    t.limit[j] = lo;
                    lo = 0;
                    break;
            }
            t.lb[j] = lo;
            t.ub[j] = up;
        }
        t.objsense = objsense_;
        t.objconst = offset_;
        t.rownames.resize(m);
        t.colnames.resize(n);
        for (size_t i = 0; i < m; ++i) t.rownames.set(static_cast<int>(i), row_names_[i].data(), row_names_[i].size());
        for (size_t j = 0; j < n; ++j) t.colnames.set(static_cast<int>(j), col_names_[j].data(), col_names_[j].size());
    }
};

}  // namespace

MpsRead read_mps_file(const std::string& file, trvo_problem_s& target, EntitySections& found, std::string& why) {
    why.clear();
    Reader r(file, target, found, why);
    return r.run();
}

}  // namespace trvo
