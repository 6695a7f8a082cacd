// Whole-problem files (TRVOsave, TRVOsaveas, TRVOrestore) and binary solution files
// (TRVOwritebinsol, TRVOreadbinsol).
//
// Both are one container format:
//   magic        8 bytes: "TARVOSVF" (a saved problem) or "TARVOBSL" (a binary solution)
//   version      uint32, the format version (1); a file of another version is refused
//   byte order   uint32 0x01020304 as written (numbers are in the writing machine's order)
//   sections     each: a four-character tag, a uint64 payload length, the payload
//   end          the section "END!" whose payload is the uint64 FNV-1a hash of every byte
//                in front of its tag; nothing may follow it
// Payload items: integers and doubles as their bytes (int32, int64, uint64, double), a string
// as a uint64 length and its bytes, an array as a uint64 count and its elements.
//
// Sections of a saved problem, in the order written (a reader refuses a tag it does not know):
//   PROB  name (string), objective sense (int32), objective constant (double)
//   COLS  lower bounds, upper bounds, objective, semi-continuous limits (double arrays), types
//         (char array: C I B S R P)
//   ROWS  types (char array: L G E R N), right-hand sides, ranges (double arrays)
//   MATX  per row: its column indices (int32 array, increasing) and values (double array)
//   QOBJ  quadratic objective: count, then (int32 i, int32 j, double q) with i <= j
//   QROW  quadratic rows: count, then per row its index (int32) and its triplets as QOBJ
//   SETS  count, then per set its type (char '1' or '2'), columns (int32 array), weights
//   INDI  count, then (int32 row, int32 column, int32 complement 1 or -1)
//   NAME  row, column and set names: per kind a count, then per entry a flag byte (0 unnamed)
//         and, when named, the name
//   CTRL  integer controls (count, then int32 id, int64 value), double controls (int32 id,
//         double), string controls (int32 id, string)
//   MSGS  suppressed message numbers: count, then (int32 number, int32 status)
//   SOLN  statuses, counters and objective values of the last solve, the flags of the
//         solutions held, and the LP solution (x, slack, dual, dj) and MIP solution (x, slack)
//   BASI  the last LP basis, when there is one: row and column statuses (int32 arrays)
//   GENC  general constraints: count, then per constraint its type and resultant column
//         (int32), argument columns (int32 array) and values (double array)
//   PWLC  piecewise-linear constraints: count, then per constraint its argument and resultant
//         columns (int32) and breakpoints (x and y double arrays)
//   DIRS  branching directives: count, then (int32 column, int32 priority, char direction U D
//         or N, double up pseudocost, double down pseudocost; -1: the search's own estimate)
//   LAZY  per row its lazy mark (char array: 0 none, 1 delayed row, 2 model cut); rows beyond
//         the array have none. Written only when some row is marked
//   CUTP  the cut pool's stored cuts, in the order stored: count, then per cut its type
//         (int32), row type (char L G E), right-hand side (double), columns (int32 array) and
//         coefficients (double array). Restored cuts get new handles (getcpcutlist lists them)
//   SECV  secure vectors: rows and columns presolve must keep (int32 arrays)
//   SCAL  scaling exponents of TRVOscale: per row and per column (int32 arrays, either empty)
//   BARS  the last interior-point solution before crossover, when there is one: x, slack,
//         dual, dj (double arrays of the problem's columns and rows); it goes with SOLN
//   TUNM  the tuner's method (TRVOtunerreadmethod): count, then per candidate its kind (int32)
//         and settings (count, then int32 control id and double value); absent: the built-in set
//   NL..  the nonlinear library's sections (engine/slp/save_restore.cpp)
// Not saved, because they only have a meaning inside this process or during one solve: the
// cut pool's stored bound sets (TRVOstorebounds; only their handles name them), cuts added at
// the nodes of a running search, callbacks and the log file. Branching objects stored for the next solve (TRVO_bo_store) cannot be
// saved: save fails while any are held, rather than writing a file without them.
// Store members added later get sections of their own, written after PWLC and read in
// Staged::read (a reader refuses a section it does not know, so an older version never drops
// part of a newer file silently).
//
// Sections of a binary solution: SOLH (int64 columns, int64 rows, uint8 flags: 1 LP solution,
// 2 duals, 4 MIP solution), then LPSO (x, slack, dual, dj: double arrays, dual and dj empty
// without duals) when flag 1 is set and MIPS (x, slack) when flag 4 is set.
#include "engine/optimizer/save_restore.h"

#include "engine/optimizer/branching.h"
#include "engine/optimizer/cuts.h"
#include "engine/optimizer/views.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include <sys/stat.h>

namespace trvo {
namespace svf {
namespace {

constexpr char kProblemMagic8[9] = "TARVOSVF";
constexpr char kSolutionMagic8[9] = "TARVOBSL";
constexpr uint32_t kByteOrder = 0x01020304u;
constexpr size_t kHeader = 16;

uint64_t fnv1a(const char* p, size_t n) {
    uint64_t h = 1469598103934665603ull;
    for (size_t i = 0; i < n; ++i) {
        h ^= static_cast<unsigned char>(p[i]);
        h *= 1099511628211ull;
    }
    return h;
}

void write_container(const std::string& body, const char* magic, const std::string& filename) {
    std::string out;
    out.reserve(body.size() + 64);
    out.append(magic, 8);
    uint32_t v = kVersion, bom = kByteOrder;
    out.append(reinterpret_cast<const char*>(&v), 4);
    out.append(reinterpret_cast<const char*>(&bom), 4);
    out += body;
    uint64_t hash = fnv1a(out.data(), out.size()), len = 8;
    out.append("END!", 4);
    out.append(reinterpret_cast<const char*>(&len), 8);
    out.append(reinterpret_cast<const char*>(&hash), 8);
    // Written beside the target and renamed over it: a failed write leaves an older file intact.
    std::string tmp = filename + ".part";
    FILE* f = std::fopen(tmp.c_str(), "wb");
    if (!f) fail("Could not open %s for writing", filename.c_str());
    bool ok = std::fwrite(out.data(), 1, out.size(), f) == out.size();
    ok = std::fclose(f) == 0 && ok;
    if (!ok || std::rename(tmp.c_str(), filename.c_str()) != 0) {
        std::remove(tmp.c_str());
        fail("Could not write %s", filename.c_str());
    }
}

void load_container(File& f, const std::string& filename, const char* magic, const char* kind) {
    FILE* in = std::fopen(filename.c_str(), "rb");
    if (!in) fail("Could not open %s", filename.c_str());
    std::string data;
    char chunk[65536];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, in)) > 0) data.append(chunk, got);
    bool err = std::ferror(in) != 0;
    std::fclose(in);
    if (err) fail("Could not read %s", filename.c_str());
    const char* name = filename.c_str();
    if (data.size() < kHeader || std::memcmp(data.data(), magic, 8) != 0)
        fail("%s is not a %s file", name, kind);
    uint32_t version, bom;
    std::memcpy(&version, data.data() + 8, 4);
    std::memcpy(&bom, data.data() + 12, 4);
    if (bom != kByteOrder) fail("%s was written on a machine of another byte order", name);
    if (version != kVersion)
        fail("%s was written in format version %u; this library reads version %u", name, version, kVersion);
    f.sections.clear();
    size_t at = kHeader;
    for (;;) {
        if (data.size() - at < 12) fail("%s is truncated", name);
        std::string tag(data.data() + at, 4);
        uint64_t len;
        std::memcpy(&len, data.data() + at + 4, 8);
        size_t payload = at + 12;
        if (len > data.size() - payload) fail("%s is truncated", name);
        if (tag == "END!") {
            uint64_t hash = 0;
            if (len != 8) fail("%s is damaged (bad end section)", name);
            std::memcpy(&hash, data.data() + payload, 8);
            if (hash != fnv1a(data.data(), at)) fail("%s is damaged (its checksum does not match)", name);
            if (payload + 8 != data.size()) fail("%s is damaged (data after its end)", name);
            break;
        }
        f.sections.push_back(File::Section{tag, payload, static_cast<size_t>(len)});
        at = payload + len;
    }
    f.data.swap(data);
}

std::string basename_of(const std::string& s) {
    size_t slash = s.find_last_of('/');
    return slash == std::string::npos ? s : s.substr(slash + 1);
}

void check_index(int64_t i, int64_t n, const char* what, const std::string& section) {
    if (i < 0 || i >= n) fail("The saved file is damaged: %s index %lld out of range in section %s", what,
                              static_cast<long long>(i), section.c_str());
}

void put_qmap(Writer& w, const QMap& q) {
    w.put<uint64_t>(q.size());
    for (const auto& kv : q) {
        w.put<int32_t>(kv.first.first);
        w.put<int32_t>(kv.first.second);
        w.put<double>(kv.second);
    }
}

QMap get_qmap(Reader& r, int ncols) {
    QMap q;
    size_t n = r.get_count(16);
    for (size_t k = 0; k < n; ++k) {
        int i = r.get<int32_t>(), j = r.get<int32_t>();
        double v = r.get<double>();
        check_index(i, ncols, "column", r.what);
        check_index(j, ncols, "column", r.what);
        if (i > j) fail("The saved file is damaged: quadratic entries out of order in section %s", r.what.c_str());
        q[QKey(i, j)] = v;
    }
    return q;
}

void put_names(Writer& w, const NameList& l) {
    w.put<uint64_t>(l.size());
    for (size_t i = 0; i < l.size(); ++i) {
        bool named = !l.unnamed(static_cast<int>(i));
        w.put<uint8_t>(named ? 1 : 0);
        if (named) w.put_str(l.get(static_cast<int>(i), 'X'));
    }
}

NameList get_names(Reader& r, size_t expected, const char* kind) {
    NameList l;
    size_t n = r.get_count(1);
    if (n != expected) fail("The saved file is damaged: %zu %s names for %zu %s", n, kind, expected, kind);
    l.resize(n);
    for (size_t i = 0; i < n; ++i) {
        uint8_t named = r.get<uint8_t>();
        if (named) l.set(static_cast<int>(i), r.get_str());
    }
    return l;
}

template <class T>
bool sized(const std::vector<T>& v, size_t n) {
    return v.empty() || v.size() == n;
}

// Directives, lazy rows, pool cuts, secure vectors, scaling and the tuner's method.
void write_extras(TRVOprob p, Writer& w) {
    if (has_stored_branchobjects(p))
        fail("The problem holds stored branching objects, which cannot be saved: solve the problem (the search "
             "uses them) before saving it");
    if (has_directives(p)) {
        w.begin("DIRS");
        w.put<uint64_t>(p->branching->dirs.size());
        for (const auto& kv : p->branching->dirs) {
            w.put<int32_t>(kv.first);
            w.put<int32_t>(kv.second.priority);
            w.put<char>(kv.second.dir);
            w.put<double>(kv.second.uppc);
            w.put<double>(kv.second.downpc);
        }
        w.end();
    }
    if (p->cutpool) {
        const CutPool& pool = *p->cutpool;
        std::vector<char> lazy(pool.lazy.begin(),
                               pool.lazy.begin() + static_cast<long>(std::min(pool.lazy.size(),
                                                                              static_cast<size_t>(p->nrows()))));
        if (std::any_of(lazy.begin(), lazy.end(), [](char c) { return c != 0; })) {
            w.begin("LAZY");
            w.put_vec(lazy);
            w.end();
        }
        uint64_t stored = 0;
        for (const auto& kv : pool.cuts) stored += kv.second.in_pool;
        if (stored) {
            w.begin("CUTP");
            w.put<uint64_t>(stored);
            for (const auto& kv : pool.cuts) {
                const Cut& c = kv.second;
                if (!c.in_pool) continue;
                for (int j : c.cols)
                    if (j < 0 || j >= p->ncols())
                        fail("A cut of the cut pool names column %d, which the problem no longer has", j);
                w.put<int32_t>(c.type);
                w.put<char>(c.rtype);
                w.put<double>(c.rhs);
                std::vector<int32_t> cols(c.cols.begin(), c.cols.end());
                w.put_vec(cols);
                w.put_vec(c.vals);
            }
            w.end();
        }
    }
    if (const Views* v = views_if(p)) {
        if (!v->secure_rows.empty() || !v->secure_cols.empty()) {
            for (int i : v->secure_rows)
                if (i < 0 || i >= p->nrows())
                    fail("The secure vectors name row %d, which the problem no longer has: load them again", i);
            for (int j : v->secure_cols)
                if (j < 0 || j >= p->ncols())
                    fail("The secure vectors name column %d, which the problem no longer has: load them again", j);
            w.begin("SECV");
            std::vector<int32_t> rows(v->secure_rows.begin(), v->secure_rows.end());
            std::vector<int32_t> cols(v->secure_cols.begin(), v->secure_cols.end());
            w.put_vec(rows);
            w.put_vec(cols);
            w.end();
        }
        // Factors that no longer fit the problem are ignored by the solve; they are not saved.
        const bool rs = v->row_scale.size() == static_cast<size_t>(p->nrows());
        const bool cs = v->col_scale.size() == static_cast<size_t>(p->ncols());
        if ((rs && !v->row_scale.empty()) || (cs && !v->col_scale.empty())) {
            w.begin("SCAL");
            std::vector<int32_t> r(rs ? v->row_scale.begin() : v->row_scale.end(), v->row_scale.end());
            std::vector<int32_t> c(cs ? v->col_scale.begin() : v->col_scale.end(), v->col_scale.end());
            w.put_vec(r);
            w.put_vec(c);
            w.end();
        }
        const size_t n = static_cast<size_t>(p->ncols()), m = static_cast<size_t>(p->nrows());
        if (v->have_bar && v->bar_x.size() == n && v->bar_dj.size() == n && v->bar_slack.size() == m &&
            v->bar_dual.size() == m) {
            w.begin("BARS");
            w.put_vec(v->bar_x);
            w.put_vec(v->bar_slack);
            w.put_vec(v->bar_dual);
            w.put_vec(v->bar_dj);
            w.end();
        }
    }
    if (!p->tuner_method.empty()) {
        w.begin("TUNM");
        w.put<uint64_t>(p->tuner_method.size());
        for (const auto& cand : p->tuner_method) {
            w.put<int32_t>(cand.kind);
            w.put<uint64_t>(cand.settings.size());
            for (const auto& st : cand.settings) {
                w.put<int32_t>(st.first);
                w.put<double>(st.second);
            }
        }
        w.end();
    }
}

}  // namespace

void Writer::begin(const char tag[4]) {
    buf.append(tag, 4);
    section_at = buf.size();
    put<uint64_t>(0);
}

void Writer::end() {
    uint64_t len = buf.size() - section_at - 8;
    std::memcpy(&buf[section_at], &len, 8);
}

void Writer::write_file(const std::string& filename) { write_container(buf, kProblemMagic8, filename); }

void Reader::need(size_t n) {
    if (static_cast<size_t>(end - p) < n) fail("The saved file is damaged: section %s is too short", what.c_str());
}

size_t Reader::get_count(size_t size) {
    uint64_t n = get<uint64_t>();
    if (size > 0 && n > static_cast<uint64_t>(end - p) / size)
        fail("The saved file is damaged: a count in section %s exceeds its length", what.c_str());
    return static_cast<size_t>(n);
}

std::string Reader::get_str() {
    size_t n = get_count(1);
    std::string s(p, n);
    p += n;
    return s;
}

void Reader::finish() {
    if (p != end) fail("The saved file is damaged: section %s is longer than its content", what.c_str());
}

void File::load(const std::string& filename) { load_container(*this, filename, kProblemMagic8, "saved problem"); }

Reader File::reader(const Section& s) const {
    return Reader{data.data() + s.offset, data.data() + s.offset + s.length, s.tag};
}

std::string save_name(TRVOprob p, const char* filename) {
    if (filename && *filename) return filename;
    std::string base = p->name.empty() ? "noname" : p->name;
    return base + ".svf";
}

std::string restore_name(const char* probname) {
    if (!probname || !*probname) fail("No problem name given to restore");
    struct stat st;
    std::string name(probname);
    if (::stat(name.c_str(), &st) == 0 && S_ISREG(st.st_mode)) return name;
    std::string with = name + ".svf";
    if (::stat(with.c_str(), &st) == 0) return with;
    fail("No saved problem %s (neither %s nor %s exists)", basename_of(name).c_str(), name.c_str(), with.c_str());
}

void check_restore_flags(const char* flags) {
    if (flags && *flags) fail("Unknown restore flags '%s': restore takes no flags", flags);
}

void write_optimizer(TRVOprob p, Writer& w) {
    w.begin("PROB");
    w.put_str(p->name);
    w.put<int32_t>(p->objsense);
    w.put<double>(p->objconst);
    w.end();

    w.begin("COLS");
    w.put_vec(p->lb); w.put_vec(p->ub); w.put_vec(p->obj); w.put_vec(p->limit); w.put_vec(p->coltype);
    w.end();

    w.begin("ROWS");
    w.put_vec(p->rowtype); w.put_vec(p->rhs); w.put_vec(p->range);
    w.end();

    w.begin("MATX");
    w.put<uint64_t>(p->matrix.size());
    std::vector<int32_t> idx;
    std::vector<double> val;
    for (size_t ri = 0; ri < p->matrix.size(); ++ri) {
        const auto row = p->matrix[ri];
        idx.clear();
        val.clear();
        for (const auto& e : row) {
            idx.push_back(e.first);
            val.push_back(e.second);
        }
        w.put_vec(idx);
        w.put_vec(val);
    }
    w.end();

    w.begin("QOBJ");
    put_qmap(w, p->qobj);
    w.end();

    w.begin("QROW");
    w.put<uint64_t>(p->qrows.size());
    for (const auto& kv : p->qrows) {
        w.put<int32_t>(kv.first);
        put_qmap(w, kv.second);
    }
    w.end();

    w.begin("SETS");
    w.put<uint64_t>(p->sets.size());
    for (const auto& s : p->sets) {
        w.put<char>(s.type);
        std::vector<int32_t> cols(s.cols.begin(), s.cols.end());
        w.put_vec(cols);
        w.put_vec(s.weights);
    }
    w.end();

    w.begin("INDI");
    w.put<uint64_t>(p->indicators.size());
    for (const auto& kv : p->indicators) {
        w.put<int32_t>(kv.first);
        w.put<int32_t>(kv.second.col);
        w.put<int32_t>(kv.second.comp);
    }
    w.end();

    w.begin("NAME");
    put_names(w, p->rownames);
    put_names(w, p->colnames);
    put_names(w, p->setnames);
    w.end();

    w.begin("CTRL");
    w.put<uint64_t>(p->controls.ints.size());
    for (const auto& kv : p->controls.ints) { w.put<int32_t>(kv.first); w.put<int64_t>(kv.second); }
    w.put<uint64_t>(p->controls.dbls.size());
    for (const auto& kv : p->controls.dbls) { w.put<int32_t>(kv.first); w.put<double>(kv.second); }
    w.put<uint64_t>(p->controls.strs.size());
    for (const auto& kv : p->controls.strs) { w.put<int32_t>(kv.first); w.put_str(kv.second); }
    w.end();

    w.begin("MSGS");
    w.put<uint64_t>(p->message_status.size());
    for (const auto& kv : p->message_status) { w.put<int32_t>(kv.first); w.put<int32_t>(kv.second); }
    w.end();

    const Results& r = p->results;
    w.begin("SOLN");
    w.put<int32_t>(r.lpstatus); w.put<int32_t>(r.mipstatus);
    w.put<int32_t>(r.solvestatus); w.put<int32_t>(r.stopstatus);
    w.put<int64_t>(r.simplexiter); w.put<int64_t>(r.bariter); w.put<int64_t>(r.nodes); w.put<int64_t>(r.mipsols);
    w.put<double>(r.lpobjval); w.put<double>(r.mipobjval); w.put<double>(r.bestbound);
    w.put<double>(r.mipbestobjval); w.put<double>(r.objval); w.put<double>(r.time);
    w.put<uint8_t>(r.have_lp); w.put<uint8_t>(r.have_mip); w.put<uint8_t>(r.have_duals);
    w.put_vec(r.x); w.put_vec(r.slack); w.put_vec(r.dual); w.put_vec(r.dj); w.put_vec(r.mipx); w.put_vec(r.mipslack);
    w.end();

    // The basis of the last LP solve, else one loaded for the next solve.
    std::vector<int32_t> rs(static_cast<size_t>(p->nrows())), cs(static_cast<size_t>(p->ncols()));
    std::string err = p->last_error;
    bool have = TRVOgetbasis(p, rs.data(), cs.data()) == 0;
    p->last_error = err;
    if (!have && p->start_rbasis.size() == rs.size() && p->start_cbasis.size() == cs.size()) {
        rs.assign(p->start_rbasis.begin(), p->start_rbasis.end());
        cs.assign(p->start_cbasis.begin(), p->start_cbasis.end());
        have = true;
    }
    if (have) {
        w.begin("BASI");
        w.put_vec(rs);
        w.put_vec(cs);
        w.end();
    }
    w.begin("GENC");
    w.put<uint64_t>(p->gencons.size());
    for (const auto& g : p->gencons) {
        w.put<int32_t>(g.type);
        w.put<int32_t>(g.resultant);
        std::vector<int32_t> cols(g.cols.begin(), g.cols.end());
        w.put_vec(cols);
        w.put_vec(g.vals);
    }
    w.end();

    w.begin("PWLC");
    w.put<uint64_t>(p->pwlcons.size());
    for (const auto& c : p->pwlcons) {
        w.put<int32_t>(c.col);
        w.put<int32_t>(c.resultant);
        w.put_vec(c.x);
        w.put_vec(c.y);
    }
    w.end();
    write_extras(p, w);
    // New store members: their sections go here.
}

Staged::Staged() {
    if (TRVOcreateprob(&scratch) != 0) fail("Could not create a problem to restore into");
}

Staged::~Staged() {
    if (scratch) TRVOdestroyprob(scratch);
}

void Staged::read(const File& f) {
    TRVOprob s = scratch;
    bool seen_prob = false, seen_cols = false, seen_rows = false, seen_matx = false, seen_name = false,
         seen_ctrl = false;
    std::vector<std::pair<int, std::vector<std::pair<int, double>>>> rows_read;
    for (const auto& sec : f.sections) {
        Reader r = f.reader(sec);
        const std::string& t = sec.tag;
        // Sections refer to the columns and rows: those come first, as written.
        auto need_shape = [&] {
            if (!seen_cols || !seen_rows)
                fail("The saved file is damaged: section %s comes before the columns and rows", t.c_str());
        };
        if (t == "PROB") {
            s->name = r.get_str();
            s->objsense = r.get<int32_t>();
            s->objconst = r.get<double>();
            if (s->objsense != 1 && s->objsense != -1) fail("The saved file is damaged: objective sense %d", s->objsense);
            seen_prob = true;
        } else if (t == "COLS") {
            s->lb = r.get_vec<double>(); s->ub = r.get_vec<double>(); s->obj = r.get_vec<double>();
            s->limit = r.get_vec<double>(); s->coltype = r.get_vec<char>();
            size_t n = s->lb.size();
            if (s->ub.size() != n || s->obj.size() != n || s->limit.size() != n || s->coltype.size() != n ||
                n > 2147483647u)
                fail("The saved file is damaged: column arrays of different lengths");
            for (char c : s->coltype)
                if (!std::strchr("CIBSRP", c) || !c) fail("The saved file is damaged: column type '%c'", c);
            seen_cols = true;
        } else if (t == "ROWS") {
            s->rowtype = r.get_vec<char>(); s->rhs = r.get_vec<double>(); s->range = r.get_vec<double>();
            size_t m = s->rowtype.size();
            if (s->rhs.size() != m || s->range.size() != m || m > 2147483647u)
                fail("The saved file is damaged: row arrays of different lengths");
            for (char c : s->rowtype)
                if (!std::strchr("LGERN", c) || !c) fail("The saved file is damaged: row type '%c'", c);
            seen_rows = true;
        } else if (t == "MATX") {
            need_shape();
            size_t m = r.get_count(16);
            if (m != s->rowtype.size()) fail("The saved file is damaged: matrix of %zu rows for %zu rows", m, s->rowtype.size());
            s->matrix.clear();
            for (size_t i = 0; i < m; ++i) {
                auto idx = r.get_vec<int32_t>();
                auto val = r.get_vec<double>();
                if (idx.size() != val.size()) fail("The saved file is damaged: matrix row %zu", i);
                for (size_t k = 0; k < idx.size(); ++k) {
                    check_index(idx[k], s->ncols(), "column", t);
                    if (k > 0 && idx[k] <= idx[k - 1]) fail("The saved file is damaged: matrix row %zu out of order", i);
                }
                s->matrix.append_row(idx.data(), val.data(), idx.size());
            }
            seen_matx = true;
        } else if (t == "QOBJ") {
            need_shape();
            s->qobj = get_qmap(r, s->ncols());
        } else if (t == "QROW") {
            need_shape();
            size_t n = r.get_count(12);
            for (size_t k = 0; k < n; ++k) {
                int row = r.get<int32_t>();
                check_index(row, s->nrows(), "row", t);
                s->qrows[row] = get_qmap(r, s->ncols());
            }
        } else if (t == "SETS") {
            need_shape();
            size_t n = r.get_count(17);
            s->sets.resize(n);
            for (auto& set : s->sets) {
                set.type = r.get<char>();
                if (set.type != '1' && set.type != '2') fail("The saved file is damaged: set type '%c'", set.type);
                auto cols = r.get_vec<int32_t>();
                set.weights = r.get_vec<double>();
                if (cols.size() != set.weights.size()) fail("The saved file is damaged: a set's columns and weights differ in number");
                for (int c : cols) check_index(c, s->ncols(), "column", t);
                set.cols.assign(cols.begin(), cols.end());
            }
            s->setnames.resize(n);
        } else if (t == "INDI") {
            need_shape();
            size_t n = r.get_count(12);
            for (size_t k = 0; k < n; ++k) {
                int row = r.get<int32_t>();
                Indicator ind;
                ind.col = r.get<int32_t>();
                ind.comp = r.get<int32_t>();
                check_index(row, s->nrows(), "row", t);
                check_index(ind.col, s->ncols(), "column", t);
                if (ind.comp != 1 && ind.comp != -1) fail("The saved file is damaged: indicator complement %d", ind.comp);
                s->indicators[row] = ind;
            }
        } else if (t == "NAME") {
            need_shape();
            s->rownames = get_names(r, s->rowtype.size(), "row");
            s->colnames = get_names(r, s->lb.size(), "column");
            s->setnames = get_names(r, s->sets.size(), "set");
            seen_name = true;
        } else if (t == "CTRL") {
            // Through the setters: an id or value this library does not accept is refused.
            auto check = [&](int rc, int id) {
                if (rc != 0) fail("The saved file holds control %d, which cannot be restored: %s", id, s->last_error.c_str());
            };
            size_t n = r.get_count(12);
            for (size_t k = 0; k < n; ++k) {
                int id = r.get<int32_t>();
                int64_t v = r.get<int64_t>();
                check(TRVOsetintcontrol64(s, id, v), id);
            }
            n = r.get_count(12);
            for (size_t k = 0; k < n; ++k) {
                int id = r.get<int32_t>();
                double v = r.get<double>();
                check(TRVOsetdblcontrol(s, id, v), id);
            }
            n = r.get_count(12);
            for (size_t k = 0; k < n; ++k) {
                int id = r.get<int32_t>();
                std::string v = r.get_str();
                check(TRVOsetstrcontrol(s, id, v.c_str()), id);
            }
            seen_ctrl = true;
        } else if (t == "MSGS") {
            size_t n = r.get_count(8);
            for (size_t k = 0; k < n; ++k) {
                int num = r.get<int32_t>(), st = r.get<int32_t>();
                if (TRVOsetmessagestatus(s, num, st) != 0) fail("The saved file is damaged: %s", s->last_error.c_str());
            }
        } else if (t == "SOLN") {
            need_shape();
            Results& res = s->results;
            res.lpstatus = r.get<int32_t>(); res.mipstatus = r.get<int32_t>();
            res.solvestatus = r.get<int32_t>(); res.stopstatus = r.get<int32_t>();
            res.simplexiter = r.get<int64_t>(); res.bariter = r.get<int64_t>();
            res.nodes = r.get<int64_t>(); res.mipsols = r.get<int64_t>();
            res.lpobjval = r.get<double>(); res.mipobjval = r.get<double>(); res.bestbound = r.get<double>();
            res.mipbestobjval = r.get<double>(); res.objval = r.get<double>(); res.time = r.get<double>();
            res.have_lp = r.get<uint8_t>() != 0; res.have_mip = r.get<uint8_t>() != 0;
            res.have_duals = r.get<uint8_t>() != 0;
            res.x = r.get_vec<double>(); res.slack = r.get_vec<double>(); res.dual = r.get_vec<double>();
            res.dj = r.get_vec<double>(); res.mipx = r.get_vec<double>(); res.mipslack = r.get_vec<double>();
            size_t n = s->lb.size(), m = s->rowtype.size();
            if (!sized(res.x, n) || !sized(res.dj, n) || !sized(res.mipx, n) || !sized(res.slack, m) ||
                !sized(res.dual, m) || !sized(res.mipslack, m))
                fail("The saved file is damaged: solution vectors do not fit the problem");
            if ((res.have_lp && (res.x.size() != n || res.slack.size() != m)) ||
                (res.have_duals && (res.dual.size() != m || res.dj.size() != n)) ||
                (res.have_mip && (res.mipx.size() != n || res.mipslack.size() != m)))
                fail("The saved file is damaged: a solution marked present is missing");
        } else if (t == "BASI") {
            need_shape();
            auto rs = r.get_vec<int32_t>();
            auto cs = r.get_vec<int32_t>();
            if (rs.size() != s->rowtype.size() || cs.size() != s->lb.size())
                fail("The saved file is damaged: the basis does not fit the problem");
            if (TRVOloadbasis(s, rs.data(), cs.data()) != 0)
                fail("The saved file is damaged: %s", s->last_error.c_str());
        } else if (t == "GENC") {
            need_shape();
            size_t n = r.get_count(24);
            s->gencons.resize(n);
            for (auto& g : s->gencons) {
                g.type = r.get<int32_t>();
                g.resultant = r.get<int32_t>();
                if (g.type < TRVO_GENCONS_MAX || g.type > TRVO_GENCONS_ABS)
                    fail("The saved file is damaged: general constraint type %d", g.type);
                check_index(g.resultant, s->ncols(), "column", t);
                auto cols = r.get_vec<int32_t>();
                for (int c : cols) check_index(c, s->ncols(), "column", t);
                g.cols.assign(cols.begin(), cols.end());
                g.vals = r.get_vec<double>();
            }
        } else if (t == "PWLC") {
            need_shape();
            size_t n = r.get_count(24);
            s->pwlcons.resize(n);
            for (auto& c : s->pwlcons) {
                c.col = r.get<int32_t>();
                c.resultant = r.get<int32_t>();
                check_index(c.col, s->ncols(), "column", t);
                check_index(c.resultant, s->ncols(), "column", t);
                c.x = r.get_vec<double>();
                c.y = r.get_vec<double>();
                if (c.x.size() != c.y.size() || c.x.empty())
                    fail("The saved file is damaged: a piecewise-linear constraint's breakpoints");
            }
        } else if (t == "DIRS") {
            need_shape();
            size_t n = r.get_count(25);
            std::vector<int> cols(n), pri(n);
            std::vector<char> dir(n);
            std::vector<double> up(n), down(n);
            for (size_t k = 0; k < n; ++k) {
                cols[k] = r.get<int32_t>();
                pri[k] = r.get<int32_t>();
                dir[k] = r.get<char>();
                up[k] = r.get<double>();
                down[k] = r.get<double>();
            }
            // Through the loader: a directive on a column that is not integer is refused.
            if (TRVOloaddirs(s, static_cast<int>(n), cols.data(), pri.data(), dir.data(), up.data(), down.data()) != 0)
                fail("The saved file is damaged: %s", s->last_error.c_str());
        } else if (t == "LAZY") {
            need_shape();
            auto lazy = r.get_vec<char>();
            if (lazy.size() > s->rowtype.size()) fail("The saved file is damaged: lazy marks for %zu rows", lazy.size());
            for (char c : lazy)
                if (c < 0 || c > 2) fail("The saved file is damaged: lazy mark %d", c);
            cut_pool(s).lazy.swap(lazy);
        } else if (t == "CUTP") {
            need_shape();
            size_t n = r.get_count(29);
            std::vector<int> type(n), cols;
            std::vector<char> rtype(n);
            std::vector<double> rhs(n), vals;
            std::vector<int64_t> start(1, 0);
            for (size_t k = 0; k < n; ++k) {
                type[k] = r.get<int32_t>();
                rtype[k] = r.get<char>();
                rhs[k] = r.get<double>();
                auto c = r.get_vec<int32_t>();
                auto v = r.get_vec<double>();
                if (c.size() != v.size()) fail("The saved file is damaged: cut %zu", k);
                cols.insert(cols.end(), c.begin(), c.end());
                vals.insert(vals.end(), v.begin(), v.end());
                start.push_back(static_cast<int64_t>(cols.size()));
            }
            // Stored as TRVOstorecuts64 stores them (checked, with new handles), duplicates kept.
            if (n && TRVOstorecuts64(s, static_cast<int>(n), 0, type.data(), rtype.data(), rhs.data(), start.data(),
                                     nullptr, cols.data(), vals.data()) != 0)
                fail("The saved file is damaged: %s", s->last_error.c_str());
        } else if (t == "SECV") {
            need_shape();
            auto rows = r.get_vec<int32_t>();
            auto cols = r.get_vec<int32_t>();
            if (TRVOloadsecurevecs(s, static_cast<int>(rows.size()), static_cast<int>(cols.size()), rows.data(),
                                   cols.data()) != 0)
                fail("The saved file is damaged: %s", s->last_error.c_str());
        } else if (t == "SCAL") {
            need_shape();
            auto rows = r.get_vec<int32_t>();
            auto cols = r.get_vec<int32_t>();
            if ((!rows.empty() && rows.size() != s->rowtype.size()) || (!cols.empty() && cols.size() != s->lb.size()))
                fail("The saved file is damaged: scaling factors do not fit the problem");
            // Types are read before (COLS): the scaling check of integer columns holds.
            if (TRVOscale(s, rows.empty() ? nullptr : rows.data(), cols.empty() ? nullptr : cols.data()) != 0)
                fail("The saved file is damaged: %s", s->last_error.c_str());
        } else if (t == "BARS") {
            need_shape();
            Views& v = views(s);
            v.bar_x = r.get_vec<double>();
            v.bar_slack = r.get_vec<double>();
            v.bar_dual = r.get_vec<double>();
            v.bar_dj = r.get_vec<double>();
            if (v.bar_x.size() != s->lb.size() || v.bar_dj.size() != s->lb.size() ||
                v.bar_slack.size() != s->rowtype.size() || v.bar_dual.size() != s->rowtype.size())
                fail("The saved file is damaged: the interior-point solution does not fit the problem");
            v.have_bar = true;
        } else if (t == "TUNM") {
            size_t n = r.get_count(12);
            s->tuner_method.assign(n, TunerCandidate());
            for (auto& cand : s->tuner_method) {
                cand.kind = r.get<int32_t>();
                if (cand.kind < 0 || cand.kind > 2) fail("The saved file is damaged: tuner candidate kind %d", cand.kind);
                size_t m = r.get_count(12);
                for (size_t k = 0; k < m; ++k) {
                    int id = r.get<int32_t>();
                    double v = r.get<double>();
                    cand.settings.emplace_back(id, v);
                }
            }
        // New store members: read their sections here.
        } else {
            unread.push_back(t);
            continue;
        }
        r.finish();
    }
    if (!seen_prob || !seen_cols || !seen_rows || !seen_matx || !seen_name || !seen_ctrl)
        fail("The saved file is damaged: a required section is missing");
}

void Staged::apply(TRVOprob p) {
    TRVOprob s = scratch;
    // store_clear empties every member of the store, also those this file has no section for.
    store_clear(p);
    p->user_solutions.clear();
    p->name.swap(s->name);
    p->objsense = s->objsense;
    p->objconst = s->objconst;
    p->lb.swap(s->lb); p->ub.swap(s->ub); p->obj.swap(s->obj); p->limit.swap(s->limit);
    p->coltype.swap(s->coltype);
    p->mipents = -1;
    p->rowtype.swap(s->rowtype); p->rhs.swap(s->rhs); p->range.swap(s->range);
    p->matrix.swap(s->matrix);
    p->qobj.swap(s->qobj); p->qrows.swap(s->qrows); p->sets.swap(s->sets); p->indicators.swap(s->indicators);
    p->gencons.swap(s->gencons); p->pwlcons.swap(s->pwlcons);
    p->rownames = std::move(s->rownames);
    p->colnames = std::move(s->colnames);
    p->setnames = std::move(s->setnames);
    p->controls = std::move(s->controls);
    p->message_status.swap(s->message_status);
    // Directives, the cut pool with its lazy marks, secure vectors and scaling replace the
    // target's (store_clear dropped its directives and stored branching objects).
    p->branching.swap(s->branching);
    p->cutpool.swap(s->cutpool);
    p->views.swap(s->views);
    p->tuner_method.swap(s->tuner_method);
    p->results = std::move(s->results);
    results_resize(p);  // a file without a solution: vectors of the problem's size
    p->start_rbasis.swap(s->start_rbasis);
    p->start_cbasis.swap(s->start_cbasis);
    // The saved integer solution starts the next MIP solve, as the basis starts the next LP solve.
    if (p->results.have_mip)
        for (int j = 0; j < p->ncols(); ++j) p->mip_start.emplace_back(j, p->results.mipx[static_cast<size_t>(j)]);
    // The HiGHS instance holds the previous content: it is not warm-started from.
    p->highs_has_lp = false;
    p->highs_cols = p->highs_rows = -1;
}

}  // namespace svf
}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOsave(TRVOprob prob) { return TRVOsaveas(prob, nullptr); }

int TRVOsaveas(TRVOprob prob, const char* filename) {
    return guard(prob, [&] {
        svf::Writer w;
        svf::write_optimizer(prob, w);
        w.write_file(svf::save_name(prob, filename));
    });
}

int TRVOrestore(TRVOprob prob, const char* probname, const char* flags) {
    return guard(prob, [&] {
        svf::check_restore_flags(flags);
        svf::File f;
        f.load(svf::restore_name(probname));
        svf::Staged staged;
        staged.read(f);
        for (const auto& t : staged.unread) {
            if (t.compare(0, 2, "NL") == 0)
                fail("The file holds a nonlinear problem: it can only be restored together with its nonlinear part");
            fail("The file holds section %s, which this version does not know (saved by a newer version?)", t.c_str());
        }
        staged.apply(prob);
    });
}

int TRVOwritebinsol(TRVOprob prob, const char* filename, const char* flags) {
    return guard(prob, [&] {
        if (!filename || !*filename) fail("No file name given");
        if (flags && *flags) fail("Unknown flags '%s': writebinsol takes no flags", flags);
        const Results& r = prob->results;
        const size_t n = static_cast<size_t>(prob->ncols()), m = static_cast<size_t>(prob->nrows());
        bool lp = r.have_lp && r.x.size() == n && r.slack.size() == m;
        bool duals = lp && r.have_duals && r.dual.size() == m && r.dj.size() == n;
        bool mip = r.have_mip && r.mipx.size() == n && r.mipslack.size() == m;
        if (!lp && !mip) fail("No solution is available to write");
        svf::Writer w;
        w.begin("SOLH");
        w.put<int64_t>(static_cast<int64_t>(n));
        w.put<int64_t>(static_cast<int64_t>(m));
        w.put<uint8_t>(static_cast<uint8_t>((lp ? 1 : 0) | (duals ? 2 : 0) | (mip ? 4 : 0)));
        w.end();
        if (lp) {
            w.begin("LPSO");
            w.put_vec(r.x); w.put_vec(r.slack);
            w.put_vec(duals ? r.dual : std::vector<double>());
            w.put_vec(duals ? r.dj : std::vector<double>());
            w.end();
        }
        if (mip) {
            w.begin("MIPS");
            w.put_vec(r.mipx); w.put_vec(r.mipslack);
            w.end();
        }
        svf::write_container(w.buf, svf::kSolutionMagic8, filename);
    });
}

int TRVOreadbinsol(TRVOprob prob, const char* filename, const char* flags) {
    return guard(prob, [&] {
        if (!filename || !*filename) fail("No file name given");
        if (flags && *flags) fail("Unknown flags '%s': readbinsol takes no flags", flags);
        svf::File f;
        svf::load_container(f, filename, svf::kSolutionMagic8, "binary solution");
        const size_t n = static_cast<size_t>(prob->ncols()), m = static_cast<size_t>(prob->nrows());
        int flagbits = -1;
        std::vector<double> x, slack, dual, dj, mipx, mipslack;
        for (const auto& sec : f.sections) {
            svf::Reader r = f.reader(sec);
            if (sec.tag == "SOLH") {
                int64_t cols = r.get<int64_t>(), rows = r.get<int64_t>();
                flagbits = r.get<uint8_t>();
                if (cols != static_cast<int64_t>(n) || rows != static_cast<int64_t>(m))
                    fail("The solution in %s has %lld columns and %lld rows; the problem has %zu columns and %zu rows",
                         filename, static_cast<long long>(cols), static_cast<long long>(rows), n, m);
            } else if (sec.tag == "LPSO" && flagbits >= 0) {
                x = r.get_vec<double>(); slack = r.get_vec<double>();
                dual = r.get_vec<double>(); dj = r.get_vec<double>();
            } else if (sec.tag == "MIPS" && flagbits >= 0) {
                mipx = r.get_vec<double>(); mipslack = r.get_vec<double>();
            } else {
                fail("%s is damaged (unexpected section %s)", filename, sec.tag.c_str());
            }
            r.finish();
        }
        if (flagbits < 0) fail("%s is damaged (no solution header)", filename);
        bool lp = flagbits & 1, duals = flagbits & 2, mip = flagbits & 4;
        if ((lp && (x.size() != n || slack.size() != m)) || (duals && (dual.size() != m || dj.size() != n)) ||
            (mip && (mipx.size() != n || mipslack.size() != m)))
            fail("%s is damaged (solution vectors do not fit its header)", filename);
        results_resize(prob);
        Results& res = prob->results;
        if (lp) {
            res.x.swap(x);
            res.slack.swap(slack);
            res.have_lp = true;
            res.lpobjval = res.objval = objective_at(prob, res.x.data());
            res.have_duals = duals;
            if (duals) {
                res.dual.swap(dual);
                res.dj.swap(dj);
            }
        }
        if (mip) {
            res.mipx.swap(mipx);
            res.mipslack.swap(mipslack);
            res.have_mip = true;
            res.mipobjval = res.mipbestobjval = objective_at(prob, res.mipx.data());
            res.objval = res.mipobjval;
        }
    });
}

}  // extern "C"
