// Quadratic objective and quadratic rows: changes, queries and the loaders that include them.
#include "engine/optimizer/problem.h"

#include <algorithm>
#include <cmath>

namespace trvo {

void set_qentry(QMap& q, int i, int j, double v) {
    if (v == 0.0) q.erase(qkey(i, j));
    else q[qkey(i, j)] = v;
}

void check_pairs(TRVOprob p, int64_t n, const int* c1, const int* c2, const double* v) {
    if (n < 0) fail("Negative number of quadratic entries");
    if (n > 0 && (!c1 || !c2 || !v)) fail("Missing arrays of quadratic entries");
    for (int64_t k = 0; k < n; ++k) {
        check_col(p, c1[k]);
        check_col(p, c2[k]);
        if (!std::isfinite(v[k])) fail("Quadratic coefficient is not finite");
    }
}

void add_qrow(TRVOprob p, int irow, int64_t n, const int* c1, const int* c2, const double* v) {
    check_row(p, irow);
    check_pairs(p, n, c1, c2, v);
    if (n == 0) return;
    QMap& q = p->qrows[irow];
    for (int64_t k = 0; k < n; ++k) {
        double nv = q.count(qkey(c1[k], c2[k])) ? q[qkey(c1[k], c2[k])] + v[k] : v[k];
        set_qentry(q, c1[k], c2[k], nv);
    }
    if (q.empty()) p->qrows.erase(irow);
}

// Column-wise whole symmetric matrix of columns first..last of q.
template <class Start, class Size>
void sym_columns(TRVOprob p, const QMap& q, Start* mstart, int* mclind, double* val, Size size,
                 Size* nels, int first, int last) {
    if (first > last) {
        if (nels) *nels = 0;
        if (mstart) mstart[0] = 0;
        return;
    }
    check_range(first, last, p->ncols(), "columns");
    int ncol = last - first + 1;
    std::vector<std::vector<std::pair<int, double>>> cols(static_cast<size_t>(ncol));
    for (const auto& kv : q) {
        int i = kv.first.first, j = kv.first.second;
        if (j >= first && j <= last) cols[static_cast<size_t>(j - first)].push_back({i, kv.second});
        if (i != j && i >= first && i <= last)
            cols[static_cast<size_t>(i - first)].push_back({j, kv.second});
    }
    Size k = 0;
    for (int c = 0; c < ncol; ++c) {
        auto& col = cols[static_cast<size_t>(c)];
        std::sort(col.begin(), col.end());
        if (mstart) mstart[c] = static_cast<Start>(k);
        for (const auto& e : col) {
            if (mclind && val && k < size) {
                mclind[k] = e.first;
                val[k] = e.second;
            }
            ++k;
        }
    }
    if (mstart) mstart[ncol] = static_cast<Start>(k);
    if (nels) *nels = k;
}

void load_quadratic(TRVOprob p, int64_t nqtr, const int* mqcol1, const int* mqcol2,
                    const double* dqe, int qmn, const int* qcrows, const int64_t* qcnquads,
                    const int* qcmqcol1, const int* qcmqcol2, const double* qcdqval) {
    check_pairs(p, nqtr, mqcol1, mqcol2, dqe);
    for (int64_t k = 0; k < nqtr; ++k) {
        QKey key = qkey(mqcol1[k], mqcol2[k]);
        double nv = p->qobj.count(key) ? p->qobj[key] + dqe[k] : dqe[k];
        set_qentry(p->qobj, mqcol1[k], mqcol2[k], nv);
    }
    if (qmn < 0) fail("Negative number of quadratic rows");
    if (qmn > 0 && (!qcrows || !qcnquads)) fail("Missing quadratic row arrays");
    int64_t off = 0;
    for (int r = 0; r < qmn; ++r) {
        if (qcnquads[r] < 0) fail("Negative number of quadratic entries in row %d", qcrows[r]);
        add_qrow(p, qcrows[r], qcnquads[r], qcmqcol1 ? qcmqcol1 + off : nullptr,
                 qcmqcol2 ? qcmqcol2 + off : nullptr, qcdqval ? qcdqval + off : nullptr);
        off += qcnquads[r];
    }
}

void set_coltypes(TRVOprob p, int ncols, const int* mindex, const char* coltype);
void add_sets(TRVOprob p, int nsets, int64_t nelems, const char* qstype, const int64_t* msstart,
              const int* mscols, const double* dref);

void load_globals(TRVOprob p, int ngents, int nsets, const char* qgtype, const int* mgcols,
                  const double* dlim, const char* qstype, const int64_t* msstart,
                  const int* mscols, const double* dref) {
    if (ngents < 0) fail("Negative number of global entities");
    set_coltypes(p, ngents, mgcols, qgtype);
    for (int k = 0; k < ngents && dlim; ++k) {
        char t = qgtype[k];
        if ((t == 'S' || t == 'R' || t == 'P') && dlim[k] > -kInf)
            p->limit[static_cast<size_t>(mgcols[k])] = dlim[k];
    }
    if (nsets > 0) {
        if (!msstart) fail("Missing set starts");
        add_sets(p, nsets, msstart[nsets], qstype, msstart, mscols, dref);
    }
}

// Loads a problem with all optional parts; on failure the problem is left empty.
void load_full(TRVOprob p, const char* probname, int ncol, int nrow, const char* qrtype,
               const double* rhs, const double* range, const double* obj, const int64_t* mstart,
               const int* mnel, const int* mrwind, const double* dmatval, const double* dlb,
               const double* dub, int64_t nqtr, const int* mqcol1, const int* mqcol2,
               const double* dqe, int qmn, const int* qcrows, const int64_t* qcnquads,
               const int* qcmqcol1, const int* qcmqcol2, const double* qcdqval, int ngents,
               int nsets, const char* qgtype, const int* mgcols, const double* dlim,
               const char* qstype, const int64_t* msstart, const int* mscols,
               const double* dref) {
    load_problem(p, probname, ncol, nrow, qrtype, rhs, range, obj, mstart, mnel, mrwind, dmatval,
                 dlb, dub);
    try {
        load_quadratic(p, nqtr, mqcol1, mqcol2, dqe, qmn, qcrows, qcnquads, qcmqcol1, qcmqcol2,
                       qcdqval);
        load_globals(p, ngents, nsets, qgtype, mgcols, dlim, qstype, msstart, mscols, dref);
    } catch (...) {
        store_clear(p);
        throw;
    }
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOchgmqobj64(TRVOprob prob, int64_t ncols, const int mcol1[], const int mcol2[],
                   const double dval[]) {
    return guard(prob, [&] {
        check_pairs(prob, ncols, mcol1, mcol2, dval);
        for (int64_t k = 0; k < ncols; ++k) set_qentry(prob->qobj, mcol1[k], mcol2[k], dval[k]);
    });
}

int TRVOchgmqobj(TRVOprob prob, int ncols, const int mcol1[], const int mcol2[],
                 const double dval[]) {
    return TRVOchgmqobj64(prob, ncols, mcol1, mcol2, dval);
}

int TRVOchgqobj(TRVOprob prob, int icol, int jcol, double dval) {
    return TRVOchgmqobj64(prob, 1, &icol, &jcol, &dval);
}

int TRVOgetqobj(TRVOprob prob, int icol, int jcol, double* dval) {
    return guard(prob, [&] {
        check_col(prob, icol);
        check_col(prob, jcol);
        if (!dval) fail("No output argument given");
        auto it = prob->qobj.find(qkey(icol, jcol));
        *dval = it == prob->qobj.end() ? 0.0 : it->second;
    });
}

int TRVOgetmqobj(TRVOprob prob, int mstart[], int mclind[], double dobjval[], int size,
                 int* nels, int first, int last) {
    return guard(prob, [&] {
        sym_columns<int, int>(prob, prob->qobj, mstart, mclind, dobjval, size, nels, first, last);
    });
}

int TRVOgetmqobj64(TRVOprob prob, int64_t mstart[], int mclind[], double dobjval[],
                   int64_t size, int64_t* nels, int first, int last) {
    return guard(prob, [&] {
        sym_columns<int64_t, int64_t>(prob, prob->qobj, mstart, mclind, dobjval, size, nels,
                                      first, last);
    });
}

int TRVOaddqmatrix64(TRVOprob prob, int irow, int64_t nqtr, const int mqc1[], const int mqc2[],
                     const double dqe[]) {
    return guard(prob, [&] { add_qrow(prob, irow, nqtr, mqc1, mqc2, dqe); });
}

int TRVOdelqmatrix(TRVOprob prob, int irow) {
    return guard(prob, [&] {
        check_row(prob, irow);
        prob->qrows.erase(irow);
    });
}

int TRVOchgqrowcoeff(TRVOprob prob, int irow, int icol, int jcol, double dval) {
    return guard(prob, [&] {
        check_row(prob, irow);
        check_col(prob, icol);
        check_col(prob, jcol);
        if (!std::isfinite(dval)) fail("Quadratic coefficient is not finite");
        QMap& q = prob->qrows[irow];
        set_qentry(q, icol, jcol, dval);
        if (q.empty()) prob->qrows.erase(irow);
    });
}

int TRVOgetqrowcoeff(TRVOprob prob, int irow, int icol, int jcol, double* dval) {
    return guard(prob, [&] {
        check_row(prob, irow);
        check_col(prob, icol);
        check_col(prob, jcol);
        if (!dval) fail("No output argument given");
        *dval = 0;
        auto r = prob->qrows.find(irow);
        if (r == prob->qrows.end()) return;
        auto it = r->second.find(qkey(icol, jcol));
        if (it != r->second.end()) *dval = it->second;
    });
}

int TRVOgetqrows(TRVOprob prob, int* qmn, int qcrows[]) {
    return guard(prob, [&] {
        if (qmn) *qmn = static_cast<int>(prob->qrows.size());
        int k = 0;
        if (qcrows)
            for (const auto& kv : prob->qrows) qcrows[k++] = kv.first;
    });
}

int TRVOgetqrowqmatrixtriplets(TRVOprob prob, int irow, int* nqelem, int mqcol1[], int mqcol2[],
                               double dqe[]) {
    return guard(prob, [&] {
        check_row(prob, irow);
        auto r = prob->qrows.find(irow);
        int n = r == prob->qrows.end() ? 0 : static_cast<int>(r->second.size());
        if (nqelem) *nqelem = n;
        if (n == 0) return;
        int k = 0;
        for (const auto& kv : r->second) {
            if (mqcol1) mqcol1[k] = kv.first.first;
            if (mqcol2) mqcol2[k] = kv.first.second;
            if (dqe) dqe[k] = kv.second;
            ++k;
        }
    });
}

int TRVOgetqrowqmatrix(TRVOprob prob, int irow, int mstart[], int mclind[], double dqe[],
                       int size, int* nels, int first, int last) {
    return guard(prob, [&] {
        check_row(prob, irow);
        static const QMap empty;
        auto r = prob->qrows.find(irow);
        sym_columns<int, int>(prob, r == prob->qrows.end() ? empty : r->second, mstart, mclind,
                              dqe, size, nels, first, last);
    });
}

int TRVOloadqp64(TRVOprob prob, const char* probname, int ncol, int nrow, const char qrtype[],
                 const double rhs[], const double range[], const double obj[],
                 const int64_t mstart[], const int mnel[], const int mrwind[],
                 const double dmatval[], const double dlb[], const double dub[], int64_t nqtr,
                 const int mqcol1[], const int mqcol2[], const double dqe[]) {
    return guard(prob, [&] {
        load_full(prob, probname, ncol, nrow, qrtype, rhs, range, obj, mstart, mnel, mrwind,
                  dmatval, dlb, dub, nqtr, mqcol1, mqcol2, dqe, 0, nullptr, nullptr, nullptr,
                  nullptr, nullptr, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr);
    });
}

int TRVOloadqcqp64(TRVOprob prob, const char* probname, int ncol, int nrow, const char qrtype[],
                   const double rhs[], const double range[], const double obj[],
                   const int64_t mstart[], const int mnel[], const int mrwind[],
                   const double dmatval[], const double dlb[], const double dub[], int64_t nqtr,
                   const int mqcol1[], const int mqcol2[], const double dqe[], int qmn,
                   const int qcrows[], const int64_t qcnquads[], const int qcmqcol1[],
                   const int qcmqcol2[], const double qcdqval[]) {
    return guard(prob, [&] {
        load_full(prob, probname, ncol, nrow, qrtype, rhs, range, obj, mstart, mnel, mrwind,
                  dmatval, dlb, dub, nqtr, mqcol1, mqcol2, dqe, qmn, qcrows, qcnquads, qcmqcol1,
                  qcmqcol2, qcdqval, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr);
    });
}

int TRVOloadglobal64(TRVOprob prob, const char* probname, int ncol, int nrow,
                     const char qrtype[], const double rhs[], const double range[],
                     const double obj[], const int64_t mstart[], const int mnel[],
                     const int mrwind[], const double dmatval[], const double dlb[],
                     const double dub[], int ngents, int nsets, const char qgtype[],
                     const int mgcols[], const double dlim[], const char qstype[],
                     const int64_t msstart[], const int mscols[], const double dref[]) {
    return guard(prob, [&] {
        load_full(prob, probname, ncol, nrow, qrtype, rhs, range, obj, mstart, mnel, mrwind,
                  dmatval, dlb, dub, 0, nullptr, nullptr, nullptr, 0, nullptr, nullptr, nullptr,
                  nullptr, nullptr, ngents, nsets, qgtype, mgcols, dlim, qstype, msstart, mscols,
                  dref);
    });
}

int TRVOloadqglobal64(TRVOprob prob, const char* probname, int ncol, int nrow,
                      const char qrtype[], const double rhs[], const double range[],
                      const double obj[], const int64_t mstart[], const int mnel[],
                      const int mrwind[], const double dmatval[], const double dlb[],
                      const double dub[], int64_t nqtr, const int mqcol1[], const int mqcol2[],
                      const double dqe[], int ngents, int nsets, const char qgtype[],
                      const int mgcols[], const double dlim[], const char qstype[],
                      const int64_t msstart[], const int mscols[], const double dref[]) {
    return guard(prob, [&] {
        load_full(prob, probname, ncol, nrow, qrtype, rhs, range, obj, mstart, mnel, mrwind,
                  dmatval, dlb, dub, nqtr, mqcol1, mqcol2, dqe, 0, nullptr, nullptr, nullptr,
                  nullptr, nullptr, ngents, nsets, qgtype, mgcols, dlim, qstype, msstart, mscols,
                  dref);
    });
}

int TRVOloadqcqpglobal64(TRVOprob prob, const char* probname, int ncol, int nrow,
                         const char qrtype[], const double rhs[], const double range[],
                         const double obj[], const int64_t mstart[], const int mnel[],
                         const int mrwind[], const double dmatval[], const double dlb[],
                         const double dub[], int64_t nqtr, const int mqcol1[],
                         const int mqcol2[], const double dqe[], int qmn, const int qcrows[],
                         const int64_t qcnquads[], const int qcmqcol1[], const int qcmqcol2[],
                         const double qcdqval[], int ngents, int nsets, const char qgtype[],
                         const int mgcols[], const double dlim[], const char qstype[],
                         const int64_t msstart[], const int mscols[], const double dref[]) {
    return guard(prob, [&] {
        load_full(prob, probname, ncol, nrow, qrtype, rhs, range, obj, mstart, mnel, mrwind,
                  dmatval, dlb, dub, nqtr, mqcol1, mqcol2, dqe, qmn, qcrows, qcnquads, qcmqcol1,
                  qcmqcol2, qcdqval, ngents, nsets, qgtype, mgcols, dlim, qstype, msstart,
                  mscols, dref);
    });
}

}  // extern "C"
