// Reading the bound optimisation problem through its public getters.
#include "engine/slp/host.h"

#include <algorithm>
#include <cstring>

namespace slp {

namespace {

[[noreturn]] void host_failure(TSLPprob prob, const char* what) {
    char msg[512] = "";
    TRVOgetlasterror(prob->trvo, msg);
    throw Error(std::string("Could not read the ") + what + " of the optimisation problem" +
                (msg[0] ? std::string(": ") + msg : std::string()));
}

void check(TSLPprob prob, int rc, const char* what) {
    if (rc) host_failure(prob, what);
}

void add_pair(Quad& q, int i, int j, double v) {
    if (v == 0.0) return;
    if (i > j) std::swap(i, j);
    q.i.push_back(i);
    q.j.push_back(j);
    q.v.push_back(v);
}

}  // namespace

int host_rows(TSLPprob prob) {
    int n = 0;
    check(prob, TRVOgetintattrib(prob->trvo, TRVO_ROWS, &n), "rows");
    return n;
}

int host_cols(TSLPprob prob) {
    int n = 0;
    check(prob, TRVOgetintattrib(prob->trvo, TRVO_COLS, &n), "columns");
    return n;
}

int host_nlp_rows(TSLPprob prob) {
    int qmn = 0;
    check(prob, TRVOgetqrows(prob->trvo, &qmn, nullptr), "quadratic rows");
    std::vector<int> rows(qmn);
    if (qmn) check(prob, TRVOgetqrows(prob->trvo, &qmn, rows.data()), "quadratic rows");
    for (auto& kv : prob->coefs) rows.push_back(kv.first.first);
    std::sort(rows.begin(), rows.end());
    return (int)(std::unique(rows.begin(), rows.end()) - rows.begin());
}

Model read_model(TSLPprob prob) {
    Model m;
    TRVOprob t = prob->trvo;
    m.nrows = host_rows(prob);
    m.ncols = host_cols(prob);
    int n = m.ncols, r = m.nrows;
    m.lb.resize(n);
    m.ub.resize(n);
    m.obj.resize(n);
    m.coltype.resize(n);
    if (n > 0) {
        check(prob, TRVOgetlb(t, m.lb.data(), 0, n - 1), "bounds");
        check(prob, TRVOgetub(t, m.ub.data(), 0, n - 1), "bounds");
        check(prob, TRVOgetcoltype(t, m.coltype.data(), 0, n - 1), "column types");
    }
    std::vector<double> obj(n + 1);
    check(prob, TRVOgetobj(t, obj.data(), -1, n - 1), "objective");
    m.objconst = -obj[0];
    for (int j = 0; j < n; ++j) m.obj[j] = obj[j + 1];
    m.rowtype.resize(r);
    m.rhs.resize(r);
    m.range.resize(r);
    m.rstart.assign(r + 1, 0);
    if (r > 0) {
        check(prob, TRVOgetrowtype(t, m.rowtype.data(), 0, r - 1), "row types");
        check(prob, TRVOgetrhs(t, m.rhs.data(), 0, r - 1), "right-hand sides");
        check(prob, TRVOgetrhsrange(t, m.range.data(), 0, r - 1), "ranges");
        int64_t nels = 0;
        check(prob, TRVOgetrows64(t, nullptr, nullptr, nullptr, 0, &nels, 0, r - 1), "matrix");
        m.rcol.resize(nels);
        m.rval.resize(nels);
        check(prob, TRVOgetrows64(t, m.rstart.data(), m.rcol.data(), m.rval.data(), nels, &nels, 0, r - 1),
              "matrix");
    }
    // Objective: 0.5 x'Qx with the whole symmetric Q column-wise.
    if (n > 0) {
        int nq = 0;
        check(prob, TRVOgetmqobj(t, nullptr, nullptr, nullptr, 0, &nq, 0, n - 1), "quadratic objective");
        if (nq > 0) {
            std::vector<int> start(n + 1), idx(nq);
            std::vector<double> val(nq);
            check(prob, TRVOgetmqobj(t, start.data(), idx.data(), val.data(), nq, &nq, 0, n - 1),
                  "quadratic objective");
            for (int j = 0; j < n; ++j)
                for (int k = start[j]; k < start[j + 1]; ++k) {
                    int i = idx[k];
                    if (i == j) add_pair(m.qobj, i, j, 0.5 * val[k]);
                    else if (i < j) add_pair(m.qobj, i, j, val[k]);
                }
        }
    }
    // Quadratic rows: x'Qx given as upper-triangle triplets of the symmetric Q.
    int qmn = 0;
    check(prob, TRVOgetqrows(t, &qmn, nullptr), "quadratic rows");
    if (qmn > 0) {
        std::vector<int> qrows(qmn);
        check(prob, TRVOgetqrows(t, &qmn, qrows.data()), "quadratic rows");
        for (int row : qrows) {
            int nq = 0;
            check(prob, TRVOgetqrowqmatrixtriplets(t, row, &nq, nullptr, nullptr, nullptr), "quadratic rows");
            std::vector<int> c1(nq), c2(nq);
            std::vector<double> v(nq);
            if (nq > 0)
                check(prob, TRVOgetqrowqmatrixtriplets(t, row, &nq, c1.data(), c2.data(), v.data()),
                      "quadratic rows");
            Quad& q = m.qrows[row];
            for (int k = 0; k < nq; ++k) add_pair(q, c1[k], c2[k], c1[k] == c2[k] ? v[k] : 2.0 * v[k]);
        }
    }
    return m;
}

int host_column_index(TSLPprob prob, const std::string& name) {
    int idx = -1;
    // Unknown names are an ordinary outcome here: keep the optimisation problem's last error.
    if (TRVOgetindex(prob->trvo, 2, name.c_str(), &idx) != 0) return -1;
    return idx;
}

int host_row_index(TSLPprob prob, const std::string& name) {
    int idx = -1;
    if (TRVOgetindex(prob->trvo, 1, name.c_str(), &idx) != 0) return -1;
    return idx;
}

namespace {

// Name of row (type 1) or column (type 2) i, or the default name with the given prefix.
std::string host_name(TSLPprob prob, int type, int i, const char* prefix) {
    int need = 0;
    if (TRVOgetnamelist(prob->trvo, type, nullptr, 0, &need, i, i) == 0 && need > 0) {
        std::vector<char> buf(need + 1, '\0');
        if (TRVOgetnamelist(prob->trvo, type, buf.data(), need + 1, &need, i, i) == 0 && buf[0])
            return std::string(buf.data());
    }
    return prefix + std::to_string(i + 1);
}

}  // namespace

std::string host_column_name(TSLPprob prob, int col) { return host_name(prob, 2, col, "C"); }
std::string host_row_name(TSLPprob prob, int row) { return host_name(prob, 1, row, "R"); }

}  // namespace slp
