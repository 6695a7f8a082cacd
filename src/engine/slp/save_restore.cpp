// Whole-problem files of the nonlinear library: the optimiser's sections (written and read by
// engine/optimizer/save_restore.cpp, which describes the format) followed by the nonlinear
// data in sections of its own:
//   NLCO  nonlinear coefficients: count, then per coefficient row and column (int32; column -1
//         is the equals column), factor (double), formula tokens (int32 array of types, double
//         array of values, postfix, ended by the end-of-formula token)
//   NLVA  SLP variables: count, then per variable its column and every field of its data
//   NLTS  tolerance sets: count, then per set its status (int32) and nine tolerances
//   NLRW  row weights, NLRS row statuses: count, then (int32 row, value)
//   NLDF  distribution factors: count, then (int32 column, int32 row, double value)
//   NLSR  strings: count, then the strings (index i + 1 is string i)
//   NLCT  controls as the optimiser's CTRL section (values int32 for integers)
//   NLSO  the last solve: status and counters, objective and penalty figures, the solution
//         (x, slack, dual, dj) and the per-row and per-column information
// User functions and multistart jobs refer to objects of the running program and cannot be
// saved: a problem with either is refused.
#include "engine/optimizer/save_restore.h"
#include "engine/slp/host.h"
#include "engine/slp/problem.h"

#include <memory>

namespace slp {
namespace {

using trvo::svf::Reader;
using trvo::svf::Writer;

void put_tokens(Writer& w, const Tokens& t) {
    std::vector<int32_t> types(t.type.begin(), t.type.end());
    w.put_vec(types);
    w.put_vec(t.value);
}

void write_nonlinear(TSLPprob p, Writer& w) {
    if (!p->userfuncs.empty())
        throw Error("The problem has user functions, which refer to the running program: it cannot be saved");
    if (!p->msjobs.empty())
        throw Error("The problem has multistart jobs, which refer to the running program: it cannot be saved "
                    "(clear them with msclear first)");
    w.begin("NLCO");
    w.put<uint64_t>(p->coefs.size());
    for (const auto& kv : p->coefs) {
        w.put<int32_t>(kv.first.first);
        w.put<int32_t>(kv.first.second);
        w.put<double>(kv.second.factor);
        put_tokens(w, kv.second.formula);
    }
    w.end();

    w.begin("NLVA");
    w.put<uint64_t>(p->vars.size());
    for (const auto& kv : p->vars) {
        const SlpVar& v = kv.second;
        w.put<int32_t>(kv.first);
        w.put<int32_t>(v.detrow);
        w.put<double>(v.initstepbound); w.put<double>(v.stepbound); w.put<double>(v.penalty);
        w.put<double>(v.damp); w.put<double>(v.initvalue);
        w.put<uint8_t>(v.has_initvalue);
        w.put<double>(v.value);
        w.put<int32_t>(v.tolset); w.put<int32_t>(v.history); w.put<int32_t>(v.converged);
        w.put<int32_t>(v.vartype); w.put<int32_t>(v.seqnum); w.put<int32_t>(v.cascadenlimit);
        w.put<int32_t>(v.deltatype);
        w.put<double>(v.deltavalue);
    }
    w.end();

    w.begin("NLTS");
    w.put<uint64_t>(p->tolsets.size());
    for (const auto& t : p->tolsets) {
        w.put<int32_t>(t.status);
        for (double d : t.tol) w.put<double>(d);
    }
    w.end();

    w.begin("NLRW");
    w.put<uint64_t>(p->rowwt.size());
    for (const auto& kv : p->rowwt) { w.put<int32_t>(kv.first); w.put<double>(kv.second); }
    w.end();

    w.begin("NLRS");
    w.put<uint64_t>(p->rowstatus.size());
    for (const auto& kv : p->rowstatus) { w.put<int32_t>(kv.first); w.put<int32_t>(kv.second); }
    w.end();

    w.begin("NLDF");
    w.put<uint64_t>(p->dfs.size());
    for (const auto& kv : p->dfs) {
        w.put<int32_t>(kv.first.first);
        w.put<int32_t>(kv.first.second);
        w.put<double>(kv.second);
    }
    w.end();

    w.begin("NLSR");
    w.put<uint64_t>(p->strings.size());
    for (const auto& s : p->strings) w.put_str(s);
    w.end();

    w.begin("NLCT");
    w.put<uint64_t>(p->controls.ints.size());
    for (const auto& kv : p->controls.ints) { w.put<int32_t>(kv.first); w.put<int32_t>(kv.second); }
    w.put<uint64_t>(p->controls.dbls.size());
    for (const auto& kv : p->controls.dbls) { w.put<int32_t>(kv.first); w.put<double>(kv.second); }
    w.put<uint64_t>(p->controls.strs.size());
    for (const auto& kv : p->controls.strs) { w.put<int32_t>(kv.first); w.put_str(kv.second); }
    w.end();

    w.begin("NLSO");
    w.put<int32_t>(p->nlpstatus); w.put<int32_t>(p->stopstatus);
    w.put<int32_t>(p->iter); w.put<int32_t>(p->simplexiter); w.put<int32_t>(p->mipiter);
    w.put<int32_t>(p->penaltyerrors);
    for (double d : {p->objval, p->errorcosts, p->maxviolation, p->currentpenalty, p->time, p->kktresidual,
                     p->validation_a, p->validation_r})
        w.put<double>(d);
    const Solution& s = p->sol;
    w.put_vec(s.x); w.put_vec(s.slack); w.put_vec(s.dual); w.put_vec(s.dj);
    w.put<uint64_t>(s.rows.size());
    for (const auto& r : s.rows) {
        w.put<int32_t>(r.numerrors);
        for (double d : {r.maxerror, r.totalerror, r.currenterror, r.penaltyfactor}) w.put<double>(d);
        w.put<int32_t>(r.pluscol); w.put<int32_t>(r.minuscol);
        for (double d : {r.plusvalue, r.minusvalue, r.plusdj, r.minusdj}) w.put<double>(d);
    }
    w.put<uint64_t>(s.cols.size());
    for (const auto& c : s.cols) {
        for (double d : {c.rdj, c.delta, c.stepbound, c.sbdual}) w.put<double>(d);
        w.put<uint8_t>(c.slpvar);
    }
    w.end();
}

void check(bool ok, const char* what) {
    if (!ok) throw Error(std::string("The saved file is damaged: ") + what);
}

void range(int64_t i, int64_t lo, int64_t n, const char* what) {
    check(i >= lo && i < n, what);
}

Tokens get_tokens(Reader& r) {
    Tokens t;
    auto types = r.get_vec<int32_t>();
    t.type.assign(types.begin(), types.end());
    t.value = r.get_vec<double>();
    check(t.type.size() == t.value.size() && !t.type.empty(), "a formula's token arrays differ in length");
    return t;
}

// Reads the nonlinear sections into `into` (a scratch problem), checked against the restored
// optimiser problem's size. Returns whether the file holds nonlinear controls.
bool read_nonlinear(const trvo::svf::File& f, const std::vector<std::string>& tags, tslp_problem_s& into,
                    int ncols, int nrows) {
    bool controls = false;
    for (const auto& sec : f.sections) {
        const std::string& t = sec.tag;
        bool mine = false;
        for (const auto& u : tags) mine = mine || u == t;
        if (!mine) continue;
        Reader r = f.reader(sec);
        if (t == "NLCO") {
            size_t n = r.get_count(24);
            for (size_t k = 0; k < n; ++k) {
                int row = r.get<int32_t>(), col = r.get<int32_t>();
                range(row, 0, nrows, "coefficient row out of range");
                range(col, -1, ncols, "coefficient column out of range");
                Coef c;
                c.factor = r.get<double>();
                c.formula = get_tokens(r);
                into.coefs[{row, col}] = std::move(c);
            }
        } else if (t == "NLVA") {
            size_t n = r.get_count(40);
            for (size_t k = 0; k < n; ++k) {
                int col = r.get<int32_t>();
                range(col, 0, ncols, "SLP variable column out of range");
                SlpVar v;
                v.detrow = r.get<int32_t>();
                range(v.detrow, -1, nrows, "determining row out of range");
                v.initstepbound = r.get<double>(); v.stepbound = r.get<double>(); v.penalty = r.get<double>();
                v.damp = r.get<double>(); v.initvalue = r.get<double>();
                v.has_initvalue = r.get<uint8_t>() != 0;
                v.value = r.get<double>();
                v.tolset = r.get<int32_t>(); v.history = r.get<int32_t>(); v.converged = r.get<int32_t>();
                v.vartype = r.get<int32_t>(); v.seqnum = r.get<int32_t>(); v.cascadenlimit = r.get<int32_t>();
                v.deltatype = r.get<int32_t>();
                v.deltavalue = r.get<double>();
                into.vars[col] = v;
            }
        } else if (t == "NLTS") {
            size_t n = r.get_count(76);
            into.tolsets.resize(n);
            for (auto& ts : into.tolsets) {
                ts.status = r.get<int32_t>();
                for (double& d : ts.tol) d = r.get<double>();
            }
        } else if (t == "NLRW") {
            size_t n = r.get_count(12);
            for (size_t k = 0; k < n; ++k) {
                int row = r.get<int32_t>();
                range(row, 0, nrows, "row weight of a row out of range");
                into.rowwt[row] = r.get<double>();
            }
        } else if (t == "NLRS") {
            size_t n = r.get_count(8);
            for (size_t k = 0; k < n; ++k) {
                int row = r.get<int32_t>();
                range(row, 0, nrows, "row status of a row out of range");
                into.rowstatus[row] = r.get<int32_t>();
            }
        } else if (t == "NLDF") {
            size_t n = r.get_count(16);
            for (size_t k = 0; k < n; ++k) {
                int col = r.get<int32_t>(), row = r.get<int32_t>();
                range(col, 0, ncols, "distribution factor column out of range");
                range(row, 0, nrows, "distribution factor row out of range");
                into.dfs[{col, row}] = r.get<double>();
            }
        } else if (t == "NLSR") {
            size_t n = r.get_count(8);
            for (size_t k = 0; k < n; ++k) into.strings.push_back(r.get_str());
        } else if (t == "NLCT") {
            controls = true;
            auto ok = [&](int rc, int id) {
                if (rc != 0)
                    throw Error("The saved file holds nonlinear control " + std::to_string(id) +
                                ", which cannot be restored: " + into.last_error);
            };
            size_t n = r.get_count(8);
            for (size_t k = 0; k < n; ++k) {
                int id = r.get<int32_t>(), v = r.get<int32_t>();
                ok(TSLPsetintcontrol(&into, id, v), id);
            }
            n = r.get_count(12);
            for (size_t k = 0; k < n; ++k) {
                int id = r.get<int32_t>();
                double v = r.get<double>();
                ok(TSLPsetdblcontrol(&into, id, v), id);
            }
            n = r.get_count(12);
            for (size_t k = 0; k < n; ++k) {
                int id = r.get<int32_t>();
                std::string v = r.get_str();
                ok(TSLPsetstrcontrol(&into, id, v.c_str()), id);
            }
        } else if (t == "NLSO") {
            into.nlpstatus = r.get<int32_t>(); into.stopstatus = r.get<int32_t>();
            into.iter = r.get<int32_t>(); into.simplexiter = r.get<int32_t>(); into.mipiter = r.get<int32_t>();
            into.penaltyerrors = r.get<int32_t>();
            for (double* d : {&into.objval, &into.errorcosts, &into.maxviolation, &into.currentpenalty, &into.time,
                              &into.kktresidual, &into.validation_a, &into.validation_r})
                *d = r.get<double>();
            Solution& s = into.sol;
            s.x = r.get_vec<double>(); s.slack = r.get_vec<double>();
            s.dual = r.get_vec<double>(); s.dj = r.get_vec<double>();
            size_t n = r.get_count(76);
            s.rows.resize(n);
            for (auto& ri : s.rows) {
                ri.numerrors = r.get<int32_t>();
                for (double* d : {&ri.maxerror, &ri.totalerror, &ri.currenterror, &ri.penaltyfactor}) *d = r.get<double>();
                ri.pluscol = r.get<int32_t>(); ri.minuscol = r.get<int32_t>();
                for (double* d : {&ri.plusvalue, &ri.minusvalue, &ri.plusdj, &ri.minusdj}) *d = r.get<double>();
            }
            n = r.get_count(33);
            s.cols.resize(n);
            for (auto& ci : s.cols) {
                for (double* d : {&ci.rdj, &ci.delta, &ci.stepbound, &ci.sbdual}) *d = r.get<double>();
                ci.slpvar = r.get<uint8_t>() != 0;
            }
            auto fits = [](size_t have, int want) { return have == 0 || have == static_cast<size_t>(want); };
            check(fits(s.x.size(), ncols) && fits(s.dj.size(), ncols) && fits(s.slack.size(), nrows) &&
                      fits(s.dual.size(), nrows) && fits(s.rows.size(), nrows) && fits(s.cols.size(), ncols),
                  "the nonlinear solution does not fit the problem");
        } else {
            throw Error("The file holds section " + t + ", which this version does not know (saved by a newer version?)");
        }
        r.finish();
    }
    for (const auto& kv : into.vars)
        check(kv.second.tolset <= static_cast<int>(into.tolsets.size()), "SLP variable with an unknown tolerance set");
    return controls;
}

}  // namespace
}  // namespace slp

using slp::guard;

extern "C" {

int TSLPsave(TSLPprob prob) { return TSLPsaveas(prob, nullptr); }

int TSLPsaveas(TSLPprob prob, const char* filename) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        trvo::svf::Writer w;
        try {
            trvo::svf::write_optimizer(prob->trvo, w);
        } catch (const trvo::Error& e) {
            throw slp::Error(e.what());
        }
        slp::write_nonlinear(prob, w);
        try {
            w.write_file(trvo::svf::save_name(prob->trvo, filename));
        } catch (const trvo::Error& e) {
            throw slp::Error(e.what());
        }
    });
}

int TSLPrestore(TSLPprob prob, const char* probname, const char* flags) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        // Everything is read and checked before the problem changes.
        auto scratch = std::make_unique<tslp_problem_s>();
        std::unique_ptr<trvo::svf::Staged> staged;
        trvo::svf::File f;
        try {
            trvo::svf::check_restore_flags(flags);
            f.load(trvo::svf::restore_name(probname));
            staged.reset(new trvo::svf::Staged());
            staged->read(f);
        } catch (const trvo::Error& e) {
            throw slp::Error(e.what());
        }
        scratch->trvo = staged->scratch;
        slp::reset_controls(scratch.get());
        bool controls = slp::read_nonlinear(f, staged->unread, *scratch, staged->scratch->ncols(),
                                            staged->scratch->nrows());
        staged->apply(prob->trvo);
        // User functions stay registered: they belong to the running program, not to the file.
        prob->coefs.swap(scratch->coefs);
        prob->vars.swap(scratch->vars);
        prob->tolsets.swap(scratch->tolsets);
        prob->rowwt.swap(scratch->rowwt);
        prob->rowstatus.swap(scratch->rowstatus);
        prob->dfs.swap(scratch->dfs);
        prob->strings.swap(scratch->strings);
        prob->msjobs.clear();
        // A file the optimisation library saved has no nonlinear controls: the problem keeps its own.
        if (controls) prob->controls = std::move(scratch->controls);
        prob->nlpstatus = scratch->nlpstatus;
        prob->state = 0;
        prob->stopstatus = scratch->stopstatus;
        prob->iter = scratch->iter;
        prob->simplexiter = scratch->simplexiter;
        prob->mipiter = scratch->mipiter;
        prob->mswinner = 0;
        prob->penaltyerrors = scratch->penaltyerrors;
        prob->objval = scratch->objval;
        prob->errorcosts = scratch->errorcosts;
        prob->maxviolation = scratch->maxviolation;
        prob->currentpenalty = scratch->currentpenalty;
        prob->time = scratch->time;
        prob->kktresidual = scratch->kktresidual;
        prob->validation_a = scratch->validation_a;
        prob->validation_r = scratch->validation_r;
        prob->sol = std::move(scratch->sol);
    });
}

}  // extern "C"
