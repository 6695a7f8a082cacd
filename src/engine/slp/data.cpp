// SLP variable data, tolerance sets, row weights and statuses, distribution factors, delta
// types and cascade limits.
#include "engine/slp/host.h"

#include <cmath>

namespace slp {
namespace {

void check_col(TSLPprob prob, int col) {
    if (col < 0 || col >= host_cols(prob)) throw Error("Column index " + std::to_string(col) + " out of range");
}

void check_row(TSLPprob prob, int row) {
    if (row < 0 || row >= host_rows(prob)) throw Error("Row index " + std::to_string(row) + " out of range");
}

void check_tolset(TSLPprob prob, int index) {
    if (index < 1 || index > (int)prob->tolsets.size())
        throw Error("Tolerance set " + std::to_string(index) + " is not defined");
}

void add_vars(TSLPprob prob, int nvar, const int* colindex, const int* vartype, const int* detrow,
              const int* seqnum, const int* tolindex, const double* initvalue, const double* stepbound,
              bool load) {
    check_prob(prob);
    if (nvar < 0) throw Error("Negative number of variables");
    if (nvar > 0 && !colindex) throw Error("Missing column indices");
    int nr = host_rows(prob);
    for (int k = 0; k < nvar; ++k) {
        check_col(prob, colindex[k]);
        if (detrow && (detrow[k] < -1 || detrow[k] >= nr)) throw Error("Determining row out of range");
        if (tolindex && tolindex[k] != 0) check_tolset(prob, tolindex[k]);
        if (stepbound && stepbound[k] < 0) throw Error("Step bounds cannot be negative");
    }
    if (load) prob->vars.clear();
    for (int k = 0; k < nvar; ++k) {
        SlpVar& v = prob->vars[colindex[k]];
        if (vartype) v.vartype = vartype[k];
        if (detrow) v.detrow = detrow[k];
        if (seqnum) v.seqnum = seqnum[k];
        if (tolindex) v.tolset = tolindex[k] ? tolindex[k] : -1;
        if (initvalue) {
            v.initvalue = initvalue[k];
            v.has_initvalue = true;
        }
        if (stepbound) v.initstepbound = stepbound[k];
    }
    prob->state &= ~TSLP_STATE_CONSTRUCTED;
}

void add_tolsets(TSLPprob prob, int nset, const double* tols, bool load) {
    check_prob(prob);
    if (nset < 0) throw Error("Negative number of tolerance sets");
    if (nset > 0 && !tols) throw Error("Missing tolerances");
    for (int k = 0; k < 9 * nset; ++k)
        if (!(tols[k] >= 0)) throw Error("Tolerances must be non-negative numbers");
    if (load) prob->tolsets.clear();
    for (int s = 0; s < nset; ++s) {
        TolSet t;
        for (int i = 0; i < 9; ++i) {
            t.tol[i] = tols[9 * s + i];
            if (t.tol[i] > 0) t.status |= 1 << i;
        }
        prob->tolsets.push_back(t);
    }
}

void add_dfs(TSLPprob prob, int ndf, const int* col, const int* row, const double* value, bool load) {
    check_prob(prob);
    if (ndf > 0 && (!col || !row || !value)) throw Error("Missing distribution-factor arrays");
    for (int k = 0; k < ndf; ++k) {
        check_col(prob, col[k]);
        check_row(prob, row[k]);
        if (!std::isfinite(value[k])) throw Error("Distribution factors must be finite");
    }
    if (load) prob->dfs.clear();
    for (int k = 0; k < ndf; ++k) prob->dfs[{col[k], row[k]}] = value[k];
}

}  // namespace
}  // namespace slp

using slp::guard;
using slp::Error;

extern "C" {

int TSLPaddvars(TSLPprob prob, int nvar, const int colindex[], const int vartype[], const int detrow[],
                const int seqnum[], const int tolindex[], const double initvalue[], const double stepbound[]) {
    return guard(prob, [&] {
        slp::add_vars(prob, nvar, colindex, vartype, detrow, seqnum, tolindex, initvalue, stepbound, false);
    });
}

int TSLPloadvars(TSLPprob prob, int nvar, const int colindex[], const int vartype[], const int detrow[],
                 const int seqnum[], const int tolindex[], const double initvalue[], const double stepbound[]) {
    return guard(prob, [&] {
        slp::add_vars(prob, nvar, colindex, vartype, detrow, seqnum, tolindex, initvalue, stepbound, true);
    });
}

int TSLPchgvar(TSLPprob prob, int col, const int* detrow, const double* initstepbound, const double* stepbound,
               const double* penalty, const double* damp, const double* initvalue, const double* value,
               const int* tolset, const int* history, const int* converged, const int* vartype) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_col(prob, col);
        if (detrow && (*detrow < -1 || *detrow >= slp::host_rows(prob))) throw Error("Determining row out of range");
        if (tolset && *tolset != 0 && *tolset != -1) slp::check_tolset(prob, *tolset);
        if ((initstepbound && *initstepbound < 0) || (stepbound && *stepbound < 0))
            throw Error("Step bounds cannot be negative");
        if (damp && (*damp < 0 || *damp > 1)) throw Error("Damping factors lie between 0 and 1");
        slp::SlpVar& v = prob->vars[col];
        if (detrow) v.detrow = *detrow;
        if (initstepbound) v.initstepbound = *initstepbound;
        if (stepbound) v.stepbound = *stepbound;
        if (penalty) v.penalty = *penalty;
        if (damp) v.damp = *damp;
        if (initvalue) {
            v.initvalue = *initvalue;
            v.has_initvalue = true;
        }
        if (value) v.value = *value;
        if (tolset) v.tolset = *tolset > 0 ? *tolset : -1;
        if (history) v.history = *history;
        if (converged) v.converged = *converged;
        if (vartype) v.vartype = *vartype;
        prob->state &= ~TSLP_STATE_CONSTRUCTED;
    });
}

int TSLPgetvar(TSLPprob prob, int col, int* detrow, double* initstepbound, double* stepbound, double* penalty,
               double* damp, double* initvalue, double* value, int* tolset, int* history, int* converged,
               int* vartype, int* delta, int* penaltydelta, int* updaterow, double* originalvalue) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_col(prob, col);
        slp::SlpVar v;
        auto it = prob->vars.find(col);
        if (it != prob->vars.end()) v = it->second;
        bool solved = (int)prob->sol.x.size() > col && prob->nlpstatus != TSLP_NLP_UNSTARTED;
        if (detrow) *detrow = v.detrow;
        if (initstepbound) *initstepbound = v.initstepbound;
        if (stepbound) *stepbound = solved && (int)prob->sol.cols.size() > col ? prob->sol.cols[col].stepbound : v.stepbound;
        if (penalty) *penalty = v.penalty;
        if (damp) *damp = v.damp;
        if (initvalue) *initvalue = v.initvalue;
        if (value) *value = solved ? prob->sol.x[col] : v.value;
        if (tolset) *tolset = v.tolset > 0 ? v.tolset : 0;
        if (history) *history = v.history;
        if (converged) *converged = v.converged;
        if (vartype) *vartype = v.vartype;
        if (delta) *delta = v.deltatype;
        if (penaltydelta)
            *penaltydelta = solved && (int)prob->sol.cols.size() > col && prob->sol.cols[col].sbdual != 0.0;
        if (updaterow) *updaterow = -1;
        if (originalvalue) *originalvalue = v.has_initvalue ? v.initvalue : 0.0;
    });
}

int TSLPdelvars(TSLPprob prob, int nvar, const int colindex[]) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        if (nvar > 0 && !colindex) throw Error("Missing column indices");
        for (int k = 0; k < nvar; ++k)
            if (!prob->vars.count(colindex[k]))
                throw Error("Column " + std::to_string(colindex[k]) + " has no SLP variable data");
        for (int k = 0; k < nvar; ++k) prob->vars.erase(colindex[k]);
        prob->state &= ~TSLP_STATE_CONSTRUCTED;
    });
}

int TSLPchgdeltatype(TSLPprob prob, int nvar, const int colindex[], const int deltatypes[], const double values[]) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        if (nvar > 0 && (!colindex || !deltatypes)) throw Error("Missing delta-type arrays");
        for (int k = 0; k < nvar; ++k) {
            slp::check_col(prob, colindex[k]);
            if (deltatypes[k] < 0 || deltatypes[k] > 2) throw Error("Delta types are 0, 1 or 2");
            if (deltatypes[k] > 0 && (!values || !(values[k] > 0)))
                throw Error("Delta types 1 and 2 need a positive value");
        }
        for (int k = 0; k < nvar; ++k) {
            slp::SlpVar& v = prob->vars[colindex[k]];
            v.deltatype = deltatypes[k];
            v.deltavalue = values ? values[k] : 0.0;
        }
    });
}

int TSLPchgcascadenlimit(TSLPprob prob, int col, int limit) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_col(prob, col);
        if (limit < 0) throw Error("The cascade limit cannot be negative");
        prob->vars[col].cascadenlimit = limit;
    });
}

int TSLPaddtolsets(TSLPprob prob, int nset, const double tols[]) {
    return guard(prob, [&] { slp::add_tolsets(prob, nset, tols, false); });
}

int TSLPloadtolsets(TSLPprob prob, int nset, const double tols[]) {
    return guard(prob, [&] { slp::add_tolsets(prob, nset, tols, true); });
}

int TSLPchgtolset(TSLPprob prob, int index, const int* status, const double tols[]) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_tolset(prob, index);
        if (!tols) throw Error("Missing tolerances");
        for (int i = 0; i < 9; ++i)
            if (!(tols[i] >= 0)) throw Error("Tolerances must be non-negative numbers");
        slp::TolSet& t = prob->tolsets[index - 1];
        for (int i = 0; i < 9; ++i) t.tol[i] = tols[i];
        if (status) t.status = *status & 0x1ff;
    });
}

int TSLPgettolset(TSLPprob prob, int index, int* status, double tols[]) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_tolset(prob, index);
        const slp::TolSet& t = prob->tolsets[index - 1];
        if (status) *status = t.status;
        if (tols)
            for (int i = 0; i < 9; ++i) tols[i] = t.tol[i];
    });
}

int TSLPdeltolsets(TSLPprob prob, int nset, const int index[]) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        if (nset > 0 && !index) throw Error("Missing tolerance-set indices");
        std::vector<bool> del(prob->tolsets.size() + 1, false);
        for (int k = 0; k < nset; ++k) {
            slp::check_tolset(prob, index[k]);
            del[index[k]] = true;
        }
        // Renumber the remaining sets and the variables that refer to them.
        std::vector<int> newidx(prob->tolsets.size() + 1, -1);
        std::vector<slp::TolSet> kept;
        for (size_t i = 1; i <= prob->tolsets.size(); ++i)
            if (!del[i]) {
                kept.push_back(prob->tolsets[i - 1]);
                newidx[i] = (int)kept.size();
            }
        for (auto& kv : prob->vars)
            if (kv.second.tolset > 0) kv.second.tolset = newidx[kv.second.tolset];
        prob->tolsets = kept;
    });
}

int TSLPchgrowwt(TSLPprob prob, int row, const double* weight) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_row(prob, row);
        if (weight && !(*weight >= 0)) throw Error("Row weights must be non-negative");
        if (weight) prob->rowwt[row] = *weight;
        else prob->rowwt.erase(row);
    });
}

int TSLPgetrowwt(TSLPprob prob, int row, double* weight) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_row(prob, row);
        auto it = prob->rowwt.find(row);
        if (weight) *weight = it == prob->rowwt.end() ? 1.0 : it->second;
    });
}

int TSLPchgrowstatus(TSLPprob prob, int row, const int* status) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_row(prob, row);
        if (!status) throw Error("No status given");
        prob->rowstatus[row] = *status;
    });
}

int TSLPgetrowstatus(TSLPprob prob, int row, int* status) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_row(prob, row);
        auto it = prob->rowstatus.find(row);
        if (status) *status = it == prob->rowstatus.end() ? 0 : it->second;
    });
}

int TSLPadddfs(TSLPprob prob, int ndf, const int colindex[], const int rowindex[], const double value[]) {
    return guard(prob, [&] { slp::add_dfs(prob, ndf, colindex, rowindex, value, false); });
}

int TSLPloaddfs(TSLPprob prob, int ndf, const int colindex[], const int rowindex[], const double value[]) {
    return guard(prob, [&] { slp::add_dfs(prob, ndf, colindex, rowindex, value, true); });
}

int TSLPchgdf(TSLPprob prob, int col, int row, const double* value) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_col(prob, col);
        slp::check_row(prob, row);
        if (value && !std::isfinite(*value)) throw Error("Distribution factors must be finite");
        if (value) prob->dfs[{col, row}] = *value;
        else prob->dfs.erase({col, row});
    });
}

int TSLPgetdf(TSLPprob prob, int col, int row, double* value) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_col(prob, col);
        slp::check_row(prob, row);
        auto it = prob->dfs.find({col, row});
        if (value) *value = it == prob->dfs.end() ? 1.0 : it->second;
    });
}

}  // extern "C"
