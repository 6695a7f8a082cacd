// Nonlinear coefficients: adding, changing, deleting, reading back (tokens and text) and
// evaluating them.
#include "engine/slp/evaluate.h"

#include <cstring>

namespace slp {

namespace {

void check_row_col(int nr, int nc, int row, int col) {
    if (row < 0 || row >= nr) throw Error("Row index " + std::to_string(row) + " out of range");
    if (col < -1 || col >= nc) throw Error("Column index " + std::to_string(col) + " out of range");
}

// One formula from parallel token arrays, in either order, as checked postfix.
Tokens read_formula(const int* type, const double* value, int n, int parsed) {
    Tokens t;
    for (int i = 0; i < n; ++i) {
        if (type[i] == TSLP_TOK_EOF) break;
        t.type.push_back(type[i]);
        t.value.push_back(value[i]);
    }
    if (t.type.empty()) throw Error("Empty formula");
    return parsed ? normalise_postfix(t) : infix_to_postfix(t);
}

void check_columns(TSLPprob prob, int nc, const Tokens& t) {
    for (size_t i = 0; i < t.type.size(); ++i) {
        if (t.type[i] == TSLP_TOK_COL && (t.value[i] < 0 || t.value[i] >= nc))
            throw Error("Formula refers to column " + std::to_string((long)t.value[i]) + ", which does not exist");
        if (t.type[i] == TSLP_TOK_UFUN &&
            (t.value[i] < 1 || t.value[i] > (double)prob->userfuncs.size()))
            throw Error("Formula refers to user function " + std::to_string((long)t.value[i]) +
                        ", which is not defined");
    }
}

void add_coefs(TSLPprob prob, int ncoef, const int* rowindex, const int* colindex, const double* factor,
               const int* fstart, int parsed, const int* type, const double* value, bool load) {
    check_prob(prob);
    if (ncoef < 0) throw Error("Negative number of coefficients");
    if (ncoef > 0 && (!rowindex || !colindex || !fstart || !type || !value))
        throw Error("Missing coefficient arrays");
    // Build everything first so that a bad formula changes nothing.
    std::vector<std::pair<std::pair<int, int>, Coef>> add;
    add.reserve(ncoef);
    int nr = host_rows(prob), nc = host_cols(prob);
    for (int k = 0; k < ncoef; ++k) {
        check_row_col(nr, nc, rowindex[k], colindex[k]);
        int s = fstart[k], e = fstart[k + 1];
        if (s < 0 || e < s) throw Error("Invalid formula start positions");
        Coef c;
        c.factor = factor ? factor[k] : 1.0;
        try {
            c.formula = read_formula(type + s, value + s, e - s, parsed);
        } catch (const Error& err) {
            throw Error("Coefficient " + std::to_string(k) + ": " + err.what());
        }
        check_columns(prob, nc, c.formula);
        add.push_back({{rowindex[k], colindex[k]}, std::move(c)});
    }
    if (load) prob->coefs.clear();
    // Coefficients of one (row, column) add up: f1 T1 + f2 T2 + ... as one formula, written
    // in one pass (the same tokens as adding them one at a time, at a cost linear in their
    // total length).
    std::stable_sort(add.begin(), add.end(),
                     [](const std::pair<std::pair<int, int>, Coef>& a, const std::pair<std::pair<int, int>, Coef>& b) {
                         return a.first < b.first;
                     });
    for (size_t i = 0; i < add.size();) {
        size_t e = i + 1;
        while (e < add.size() && add[e].first == add[i].first) ++e;
        auto it = prob->coefs.find(add[i].first);
        if (it == prob->coefs.end() && e == i + 1) {
            prob->coefs.emplace(add[i].first, std::move(add[i].second));
            i = e;
            continue;
        }
        std::vector<const Coef*> parts;
        if (it != prob->coefs.end()) parts.push_back(&it->second);
        for (size_t k = i; k < e; ++k) parts.push_back(&add[k].second);
        Coef sum;
        sum.formula = combine_all(parts);
        if (it != prob->coefs.end()) it->second = std::move(sum);
        else prob->coefs.emplace(add[i].first, std::move(sum));
        i = e;
    }
    prob->state &= ~TSLP_STATE_CONSTRUCTED;
}

const Coef& find_coef(TSLPprob prob, int row, int col) {
    auto it = prob->coefs.find({row, col});
    if (it == prob->coefs.end())
        throw Error("No nonlinear coefficient in row " + std::to_string(row) + ", column " + std::to_string(col));
    return it->second;
}

std::string ufun_name(TSLPprob prob, int index) {
    if (index >= 1 && index <= (int)prob->userfuncs.size() && !prob->userfuncs[index - 1].name.empty())
        return prob->userfuncs[index - 1].name;
    return "UF" + std::to_string(index);
}

int ufun_index(TSLPprob prob, const std::string& name) {
    for (size_t i = 0; i < prob->userfuncs.size(); ++i)
        if (prob->userfuncs[i].name == name) return (int)i + 1;
    return 0;
}

double eval_at_current(TSLPprob prob, const Tokens& f) {
    Model m = read_model(prob);
    std::vector<double> x = current_point(prob, m);
    Tape t;
    int root = t.compile(f);
    t.finish();
    Eval ev;
    UserCaller uc;
    uc.prob = prob;
    if (!forward(t, x.data(), ev, uc, false)) throw Error("The formula cannot be evaluated at the current point");
    return ev.val[root];
}

}  // namespace

Tokens parse_formula_text(TSLPprob prob, const std::string& text) {
    return parse_text(
        text, [&](const std::string& n) { return host_column_index(prob, n); },
        [&](const std::string& n) { return ufun_index(prob, n); });
}

std::string formula_text(TSLPprob prob, const Tokens& f) {
    return print_text(
        f, [&](int c) { return host_column_name(prob, c); }, [&](int u) { return ufun_name(prob, u); });
}

}  // namespace slp

using slp::guard;
using slp::Error;

extern "C" {

int TSLPaddcoefs(TSLPprob prob, int ncoef, const int rowindex[], const int colindex[], const double factor[],
                 const int fstart[], int parsed, const int type[], const double value[]) {
    return guard(prob, [&] {
        slp::add_coefs(prob, ncoef, rowindex, colindex, factor, fstart, parsed, type, value, false);
    });
}

int TSLPloadcoefs(TSLPprob prob, int ncoef, const int rowindex[], const int colindex[], const double factor[],
                  const int fstart[], int parsed, const int type[], const double value[]) {
    return guard(prob, [&] {
        slp::add_coefs(prob, ncoef, rowindex, colindex, factor, fstart, parsed, type, value, true);
    });
}

int TSLPchgcoef(TSLPprob prob, int row, int col, const double* factor, int parsed, const int type[],
                const double value[]) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_row_col(slp::host_rows(prob), slp::host_cols(prob), row, col);
        if (!type || !value) throw Error("Missing formula");
        int n = 0;
        while (type[n] != TSLP_TOK_EOF) ++n;
        slp::Coef c;
        c.formula = slp::read_formula(type, value, n + 1, parsed);
        slp::check_columns(prob, slp::host_cols(prob), c.formula);
        auto it = prob->coefs.find({row, col});
        c.factor = factor ? *factor : it != prob->coefs.end() ? it->second.factor : 1.0;
        prob->coefs[{row, col}] = std::move(c);
        prob->state &= ~TSLP_STATE_CONSTRUCTED;
    });
}

int TSLPchgccoef(TSLPprob prob, int row, int col, const double* factor, const char* formula) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_row_col(slp::host_rows(prob), slp::host_cols(prob), row, col);
        if (!formula) throw Error("Missing formula");
        slp::Coef c;
        c.formula = slp::parse_formula_text(prob, formula);
        auto it = prob->coefs.find({row, col});
        c.factor = factor ? *factor : it != prob->coefs.end() ? it->second.factor : 1.0;
        prob->coefs[{row, col}] = std::move(c);
        prob->state &= ~TSLP_STATE_CONSTRUCTED;
    });
}

int TSLPdelcoefs(TSLPprob prob, int ncoef, const int rowindex[], const int colindex[]) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        if (ncoef > 0 && (!rowindex || !colindex)) throw Error("Missing coefficient arrays");
        for (int k = 0; k < ncoef; ++k) slp::find_coef(prob, rowindex[k], colindex[k]);
        for (int k = 0; k < ncoef; ++k) prob->coefs.erase({rowindex[k], colindex[k]});
        prob->state &= ~TSLP_STATE_CONSTRUCTED;
    });
}

int TSLPgetcoefs(TSLPprob prob, int* ncoef, int rowindex[], int colindex[]) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        int k = 0;
        for (auto& kv : prob->coefs) {
            if (rowindex) rowindex[k] = kv.first.first;
            if (colindex) colindex[k] = kv.first.second;
            ++k;
        }
        if (ncoef) *ncoef = k;
    });
}

int TSLPgetcoefformula(TSLPprob prob, int row, int col, double* factor, int parsed, int bufsize, int* ntokens,
                       int type[], double value[]) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        const slp::Coef& c = slp::find_coef(prob, row, col);
        slp::Tokens t = parsed ? c.formula : slp::postfix_to_infix(c.formula);
        int n = (int)t.type.size();
        if (factor) *factor = c.factor;
        if (ntokens) *ntokens = n;
        if (type || value) {
            if (bufsize < n) throw Error("Buffer too small for the formula: " + std::to_string(n) + " tokens");
            for (int i = 0; i < n; ++i) {
                if (type) type[i] = t.type[i];
                if (value) value[i] = t.value[i];
            }
        }
    });
}

int TSLPgetccoef(TSLPprob prob, int row, int col, double* factor, char* formula, int flen) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        const slp::Coef& c = slp::find_coef(prob, row, col);
        std::string s = slp::formula_text(prob, c.formula);
        if (factor) *factor = c.factor;
        if (formula) {
            if (flen <= (int)s.size()) throw Error("Formula text needs " + std::to_string(s.size() + 1) + " bytes");
            std::memcpy(formula, s.c_str(), s.size() + 1);
        }
    });
}

int TSLPevaluateformula(TSLPprob prob, int parsed, const int type[], const double value[], double* result) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        if (!type || !value) throw Error("Missing formula");
        int n = 0;
        while (type[n] != TSLP_TOK_EOF) ++n;
        slp::Tokens f = slp::read_formula(type, value, n + 1, parsed);
        slp::check_columns(prob, slp::host_cols(prob), f);
        double v = slp::eval_at_current(prob, f);
        if (result) *result = v;
    });
}

int TSLPevaluatecoef(TSLPprob prob, int row, int col, double* result) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        const slp::Coef& c = slp::find_coef(prob, row, col);
        double v = c.factor * slp::eval_at_current(prob, c.formula);
        if (result) *result = v;
    });
}

}  // extern "C"
