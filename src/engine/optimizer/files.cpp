// Problem files (MPS, free MPS, LP) through HiGHS's reader and writer, names kept.
#include "engine/optimizer/formulate.h"
#include "engine/optimizer/highs_instances.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

namespace trvo {
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

void write_problem(TRVOprob p, const char* filename, const char* flags) {
    std::string name = file_for(filename, flags);
    const bool lp = flags && std::strchr(flags, 'l');
    if (!p->qrows.empty()) fail("Quadratic rows cannot be written to a problem file");
    if (!p->sets.empty()) fail("Special ordered sets cannot be written to a problem file");
    if (!p->indicators.empty()) fail("Indicator rows cannot be written to a problem file");
    HighsModel m;
    formulate(p, false, m);
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
}

void read_problem(TRVOprob p, const char* filename, const char* flags) {
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
    Instance inst;
    void* h = inst.h;
    if (Highs_readModel(h, name.c_str()) == kHighsStatusError)
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
    results_resize(p);
}

}  // namespace
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
    return guard(prob, [&] { write_problem(prob, filename, flags); });
}

}  // extern "C"
