// Discrete entities: column types and their limits, special ordered sets and indicator rows.
#include "engine/optimizer/problem.h"

#include <algorithm>
#include <cmath>

namespace trvo {

bool valid_coltype(char t) {
    return t == 'C' || t == 'I' || t == 'B' || t == 'S' || t == 'R' || t == 'P';
}

void set_coltypes(TRVOprob p, int ncols, const int* mindex, const char* coltype) {
    if (ncols > 0 && (!mindex || !coltype)) fail("Missing arrays");
    for (int k = 0; k < ncols; ++k) {
        check_col(p, mindex[k]);
        if (!valid_coltype(coltype[k])) fail("Invalid column type '%c'", coltype[k]);
    }
    for (int k = 0; k < ncols; ++k) {
        size_t j = static_cast<size_t>(mindex[k]);
        if (p->mipents >= 0) p->mipents += (coltype[k] != 'C') - (p->coltype[j] != 'C');
        p->coltype[j] = coltype[k];
        if (coltype[k] == 'B') {
            p->lb[j] = std::max(p->lb[j], 0.0);
            p->ub[j] = std::min(p->ub[j], 1.0);
        }
    }
}

void add_sets(TRVOprob p, int nsets, int64_t nelems, const char* qstype, const int64_t* msstart,
              const int* mscols, const double* dref) {
    if (nsets < 0 || nelems < 0) fail("Negative number of sets or set members");
    if (nsets > 0 && (!qstype || !msstart)) fail("Missing set types or starts");
    if (nelems > 0 && (!mscols || !dref)) fail("Missing set members or weights");
    for (int s = 0; s < nsets; ++s) {
        if (qstype[s] != '1' && qstype[s] != '2') fail("Invalid set type '%c'", qstype[s]);
        int64_t b = msstart[s], e = s + 1 < nsets ? msstart[s + 1] : nelems;
        if (b < 0 || e < b || e > nelems) fail("Invalid start of set %d", s);
        for (int64_t k = b; k < e; ++k) {
            check_col(p, mscols[k]);
            if (!std::isfinite(dref[k])) fail("Weight of set member is not finite");
        }
    }
    for (int s = 0; s < nsets; ++s) {
        Sos set;
        set.type = qstype[s];
        int64_t b = msstart[s], e = s + 1 < nsets ? msstart[s + 1] : nelems;
        set.cols.assign(mscols + b, mscols + e);
        set.weights.assign(dref + b, dref + e);
        p->sets.push_back(std::move(set));
    }
    p->setnames.resize(p->sets.size());
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOchgcoltype(TRVOprob prob, int ncols, const int mindex[], const char coltype[]) {
    return guard(prob, [&] { set_coltypes(prob, ncols, mindex, coltype); });
}

int TRVOchgglblimit(TRVOprob prob, int ncols, const int mindex[], const double dlimit[]) {
    return guard(prob, [&] {
        if (ncols > 0 && (!mindex || !dlimit)) fail("Missing arrays");
        for (int k = 0; k < ncols; ++k) {
            check_col(prob, mindex[k]);
            char t = prob->coltype[static_cast<size_t>(mindex[k])];
            if (t != 'S' && t != 'R' && t != 'P')
                fail("Column %d is not semi-continuous, semi-integer or partial integer",
                     mindex[k]);
            if (!std::isfinite(dlimit[k])) fail("Limit of column %d is not finite", mindex[k]);
        }
        for (int k = 0; k < ncols; ++k) prob->limit[static_cast<size_t>(mindex[k])] = dlimit[k];
    });
}

int TRVOaddsets64(TRVOprob prob, int nsets, int64_t nelems, const char qstype[],
                  const int64_t msstart[], const int mscols[], const double dref[]) {
    return guard(prob, [&] { add_sets(prob, nsets, nelems, qstype, msstart, mscols, dref); });
}

int TRVOdelsets(TRVOprob prob, int nsets, const int mindex[]) {
    return guard(prob, [&] {
        auto drop = marks(static_cast<int>(prob->sets.size()), nsets, mindex, "sets");
        size_t out = 0;
        for (size_t s = 0; s < prob->sets.size(); ++s) {
            if (drop[s]) continue;
            if (out != s) prob->sets[out] = std::move(prob->sets[s]);
            ++out;
        }
        prob->sets.resize(out);
        prob->setnames.erase(drop);
    });
}

int TRVOsetindicators(TRVOprob prob, int nrows, const int mrows[], const int inds[],
                      const int comps[]) {
    return guard(prob, [&] {
        if (nrows > 0 && (!mrows || !inds || !comps)) fail("Missing arrays");
        for (int k = 0; k < nrows; ++k) {
            check_row(prob, mrows[k]);
            if (comps[k] != 0) check_col(prob, inds[k]);
            if (comps[k] < -1 || comps[k] > 1) fail("Indicator complement flag must be -1, 0 or 1");
        }
        for (int k = 0; k < nrows; ++k) {
            if (comps[k] == 0) prob->indicators.erase(mrows[k]);
            else prob->indicators[mrows[k]] = Indicator{inds[k], comps[k]};
        }
    });
}

int TRVOgetindicators(TRVOprob prob, int inds[], int comps[], int first, int last) {
    return guard(prob, [&] {
        if (first > last) return;
        check_range(first, last, prob->nrows(), "rows");
        for (int i = first; i <= last; ++i) {
            auto it = prob->indicators.find(i);
            if (inds) inds[i - first] = it == prob->indicators.end() ? -1 : it->second.col;
            if (comps) comps[i - first] = it == prob->indicators.end() ? 0 : it->second.comp;
        }
    });
}

int TRVOdelindicators(TRVOprob prob, int first, int last) {
    return guard(prob, [&] {
        if (first > last) return;
        check_range(first, last, prob->nrows(), "rows");
        prob->indicators.erase(prob->indicators.lower_bound(first),
                               prob->indicators.upper_bound(last));
    });
}

int TRVOgetglobal64(TRVOprob prob, int* ngents, int* nsets, char qgtype[], int mgcols[],
                    double dlim[], char qstype[], int64_t msstart[], int mscols[],
                    double dref[]) {
    return guard(prob, [&] {
        int ng = 0;
        for (int j = 0; j < prob->ncols(); ++j) {
            char t = prob->coltype[static_cast<size_t>(j)];
            if (t == 'C') continue;
            if (qgtype) qgtype[ng] = t;
            if (mgcols) mgcols[ng] = j;
            if (dlim) dlim[ng] = (t == 'S' || t == 'R' || t == 'P') ? prob->limit[static_cast<size_t>(j)] : 0.0;
            ++ng;
        }
        if (ngents) *ngents = ng;
        if (nsets) *nsets = static_cast<int>(prob->sets.size());
        int64_t k = 0;
        for (size_t s = 0; s < prob->sets.size(); ++s) {
            const auto& set = prob->sets[s];
            if (qstype) qstype[s] = set.type;
            if (msstart) msstart[s] = k;
            for (size_t e = 0; e < set.cols.size(); ++e, ++k) {
                if (mscols) mscols[k] = set.cols[e];
                if (dref) dref[k] = set.weights[e];
            }
        }
        if (msstart) msstart[prob->sets.size()] = k;
    });
}

}  // extern "C"
