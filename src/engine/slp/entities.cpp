// Discrete entities in nonlinear problems. Semi-continuous, semi-integer and partial-integer
// columns, special ordered sets, indicator, general and piecewise-linear constraints are turned into binary columns and
// linear rows by the optimiser's own reformulation; the nonlinear solver then sees a plain
// mixed-integer model whose first columns and rows are the problem's own, so its results map
// back by truncation.
#include "engine/optimizer/formulate.h"
#include "engine/slp/host.h"

#include <cmath>

namespace slp {
namespace {

bool needs_reformulation(TSLPprob prob, const Model& m) {
    for (char t : m.coltype)
        if (t == 'S' || t == 'R' || t == 'P') return true;
    int sets = 0, indicators = 0, gencons = 0, pwlcons = 0;
    if (TRVOgetintattrib(prob->trvo, TRVO_SETS, &sets) != 0 ||
        TRVOgetintattrib(prob->trvo, TRVO_INDICATORS, &indicators) != 0 ||
        TRVOgetintattrib(prob->trvo, TRVO_GENCONS, &gencons) != 0 ||
        TRVOgetintattrib(prob->trvo, TRVO_PWLCONS, &pwlcons) != 0)
        throw Error("Could not read the problem's entities");
    return sets > 0 || indicators > 0 || gencons > 0 || pwlcons > 0;
}

bool row_is_nonlinear(TSLPprob prob, const Model& m, int row) {
    if (m.qrows.count(row)) return true;
    auto it = prob->coefs.lower_bound({row, -1});
    return it != prob->coefs.end() && it->first.first == row;
}

}  // namespace

void reformulate_entities(TSLPprob prob, Model& m) {
    if (!needs_reformulation(prob, m)) return;
    TRVOprob t = prob->trvo;
    int nind = 0;
    if (TRVOgetintattrib(t, TRVO_INDICATORS, &nind) != 0) throw Error("Could not read the indicator constraints");
    if (nind > 0 && m.nrows > 0) {
        std::vector<int> ind(m.nrows), comp(m.nrows);
        if (TRVOgetindicators(t, ind.data(), comp.data(), 0, m.nrows - 1) != 0)
            throw Error("Could not read the indicator constraints");
        for (int r = 0; r < m.nrows; ++r)
            if (comp[r] != 0 && row_is_nonlinear(prob, m, r))
                throw Error("Indicator row " + host_row_name(prob, r) +
                            " has nonlinear terms, which the nonlinear optimiser cannot switch off; only linear rows "
                            "can be indicator rows");
    }
    trvo::HighsModel hm;
    trvo::formulate(t, true, hm);
    const int n = m.ncols;
    for (int j = 0; j < hm.ncol; ++j) {
        HighsInt type = hm.integrality.empty() ? kHighsVarTypeContinuous : hm.integrality[j];
        if (type == kHighsVarTypeSemiContinuous || type == kHighsVarTypeSemiInteger)
            throw Error("Semi-continuous column " + host_column_name(prob, j) +
                        " has no upper bound, which the nonlinear optimiser needs for it");
    }
    m.ncols = hm.ncol;
    m.lb.assign(hm.col_lower.begin(), hm.col_lower.end());
    m.ub.assign(hm.col_upper.begin(), hm.col_upper.end());
    for (double& v : m.lb) if (std::isinf(v)) v = -TRVO_INFINITY;
    for (double& v : m.ub) if (std::isinf(v)) v = TRVO_INFINITY;
    m.obj.resize(hm.ncol, 0.0);
    m.coltype.resize(hm.ncol);
    for (int j = 0; j < hm.ncol; ++j) {
        bool integer = !hm.integrality.empty() && hm.integrality[j] == kHighsVarTypeInteger;
        m.coltype[j] = integer ? (j >= n || m.coltype[j] == 'B' ? 'B' : 'I') : 'C';
    }
    m.nrows = hm.nrow;
    m.rowtype.resize(hm.nrow);
    m.rhs.resize(hm.nrow);
    m.range.resize(hm.nrow);
    for (int r = 0; r < hm.nrow; ++r) {
        double lo = hm.row_lower[r], up = hm.row_upper[r];
        m.range[r] = 0.0;
        if (std::isinf(lo) && std::isinf(up)) m.rowtype[r] = 'N', m.rhs[r] = 0.0;
        else if (std::isinf(lo)) m.rowtype[r] = 'L', m.rhs[r] = up;
        else if (std::isinf(up)) m.rowtype[r] = 'G', m.rhs[r] = lo;
        else if (lo == up) m.rowtype[r] = 'E', m.rhs[r] = up;
        else m.rowtype[r] = 'R', m.rhs[r] = up, m.range[r] = up - lo;
    }
    m.rstart.assign(hm.a_start.begin(), hm.a_start.end());
    m.rstart.push_back(static_cast<int64_t>(hm.a_index.size()));
    m.rcol.assign(hm.a_index.begin(), hm.a_index.end());
    m.rval.assign(hm.a_value.begin(), hm.a_value.end());
}

}  // namespace slp
