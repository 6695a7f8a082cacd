// Multistart jobs and their execution.
#include "engine/slp/multistart.h"
#include "engine/slp/minlp.h"

#include <cmath>
#include <random>

namespace slp {

namespace {

std::vector<double> random_point(TSLPprob prob, const Model& m, const std::vector<double>& base,
                                 std::mt19937& rng) {
    double range = dbl_control(prob, TSLP_MSMAXBOUNDRANGE);
    std::vector<double> x = base;
    for (int j = 0; j < m.ncols; ++j) {
        double lo = m.lb[j], up = m.ub[j];
        if (lo <= -TRVO_INFINITY) lo = (up < TRVO_INFINITY ? up : base[j]) - range;
        if (up >= TRVO_INFINITY) up = lo + (m.lb[j] <= -TRVO_INFINITY ? 2 * range : range);
        if (!(up >= lo)) continue;
        std::uniform_real_distribution<double> d(lo, up);
        x[j] = d(rng);
        if (m.coltype[j] == 'I' || m.coltype[j] == 'B') x[j] = std::round(x[j]);
    }
    return x;
}

// Result a is better than b: solutions before anything else, then the objective in the
// problem's sense, then the smaller violation.
bool better(const RunResult& a, const RunResult& b, double sense) {
    bool sa = a.status == TSLP_NLP_LOCALLY_OPTIMAL, sb = b.status == TSLP_NLP_LOCALLY_OPTIMAL;
    if (sa != sb) return sa;
    if (sa) return sense * a.objval < sense * b.objval - 1e-9 * (1 + std::fabs(b.objval));
    return a.maxviolation < b.maxviolation;
}

void add_preset_jobs(TSLPprob prob, const std::string& desc, int preset, int count,
                     const std::vector<int>& ivcols, const std::vector<double>& ivvalues,
                     const std::vector<std::pair<int, double>>& controls, void* object) {
    std::vector<MsJob> jobs;
    auto base = [&]() {
        MsJob j;
        j.description = desc;
        j.ivcols = ivcols;
        j.ivvalues = ivvalues;
        j.controls = controls;
        j.object = object;
        return j;
    };
    switch (preset) {
    case TSLP_MSSET_INITIALVALUES:
    case TSLP_MSSET_INITIALFILTERED: {
        if (count <= 0) count = 10;
        unsigned seed0 = (unsigned)int_control(prob, TSLP_MSSEED) * 7919u + (unsigned)prob->msjobs.size();
        for (int k = 0; k < count; ++k) {
            MsJob j = base();
            j.random_start = true;
            j.filtered = preset == TSLP_MSSET_INITIALFILTERED;
            j.seed = seed0 + 104729u * (unsigned)k;
            jobs.push_back(j);
        }
        break;
    }
    case TSLP_MSSET_SOLVERS: {
        const std::vector<std::vector<std::pair<int, double>>> v = {
            {{TSLP_DERIVATIVES, 1}}, {{TSLP_CASCADE, 0}}, {{TSLP_DERIVATIVES, 1}, {TSLP_CASCADE, 0}}};
        if (count <= 0 || count > (int)v.size()) count = (int)v.size();
        for (int k = 0; k < count; ++k) {
            MsJob j = base();
            j.controls.insert(j.controls.begin(), v[k].begin(), v[k].end());
            jobs.push_back(j);
        }
        break;
    }
    case TSLP_MSSET_SLP_BASIC:
    case TSLP_MSSET_SLP_EXTENDED: {
        std::vector<std::vector<std::pair<int, double>>> v = {
            {{TSLP_PENALTY, 1}}, {{TSLP_PENALTY, 1e4}}, {{TSLP_DEFAULTSTEPBOUND, 0.1}},
            {{TSLP_DEFAULTSTEPBOUND, 10}}};
        if (preset == TSLP_MSSET_SLP_EXTENDED)
            for (double pen : {1.0, 1e4})
                for (double sb : {0.1, 10.0})
                    for (double damp : {0.5, 1.0})
                        v.push_back({{TSLP_PENALTY, pen}, {TSLP_DEFAULTSTEPBOUND, sb}, {TSLP_DAMP, damp}});
        if (count <= 0 || count > (int)v.size()) count = (int)v.size();
        for (int k = 0; k < count; ++k) {
            MsJob j = base();
            j.controls.insert(j.controls.begin(), v[k].begin(), v[k].end());
            jobs.push_back(j);
        }
        break;
    }
    case TSLP_MSSET_KNITRO_BASIC:
    case TSLP_MSSET_KNITRO_EXTENDED:
        throw Error("Knitro presets are not available: this library solves by SLP only");
    default:
        throw Error("Unknown multistart preset " + std::to_string(preset));
    }
    prob->msjobs.insert(prob->msjobs.end(), jobs.begin(), jobs.end());
}

std::vector<std::pair<int, double>> read_controls(TSLPprob prob, int n, const int* ids, const double* vals) {
    std::vector<std::pair<int, double>> c;
    if (n > 0 && (!ids || !vals)) throw Error("Missing control arrays");
    for (int k = 0; k < n; ++k) {
        bool isint = prob->controls.ints.count(ids[k]) > 0;
        bool isdbl = prob->controls.dbls.count(ids[k]) > 0;
        if (!isint && !isdbl) throw Error("Only integer and double controls can vary between jobs");
        if (isint && vals[k] != std::floor(vals[k])) throw Error("Integer control given a fractional value");
        c.push_back({ids[k], vals[k]});
    }
    return c;
}

void check_initial(TSLPprob prob, int n, const int* cols, const double* vals) {
    if (n > 0 && (!cols || !vals)) throw Error("Missing initial-value arrays");
    int nc = host_cols(prob);
    for (int k = 0; k < n; ++k)
        if (cols[k] < 0 || cols[k] >= nc) throw Error("Column index " + std::to_string(cols[k]) + " out of range");
}

}  // namespace

RunResult run_multistart(TSLPprob prob, const Model& m, bool global) {
    std::vector<MsJob> jobs = prob->msjobs;
    if (global && jobs.empty()) {
        std::vector<MsJob> saved;
        saved.swap(prob->msjobs);
        add_preset_jobs(prob, "random start", TSLP_MSSET_INITIALVALUES, 10, {}, {}, {}, nullptr);
        jobs.swap(prob->msjobs);
        prob->msjobs.swap(saved);
    }
    int maxjobs = int_control(prob, TSLP_MSMAXJOBS);
    if (maxjobs > 0 && (int)jobs.size() > maxjobs) jobs.resize(maxjobs);
    double sense = dbl_control(prob, TSLP_OBJSENSE) < 0 ? -1.0 : 1.0;
    std::vector<double> x0 = initial_point(prob, m);

    RunResult best;
    bool have = false;
    int winner = 0;
    try {
        best = solve_from(prob, m, x0, std::chrono::steady_clock::now());
        have = true;
    } catch (const Error&) {
        // The initial point may lie outside the formulas' domain: the jobs may still succeed.
    }
    for (size_t k = 0; k < jobs.size(); ++k) {
        if (prob->interrupt.load()) break;
        MsJob& job = jobs[k];
        const char* desc = job.description.c_str();
        if (prob->cb.msjobstart.f) {
            int status = 0;
            prob->cb.msjobstart.f(prob, prob->cb.msjobstart.context, job.object, desc, &status);
            if (status) continue;
        }
        std::vector<double> x = x0;
        if (job.random_start) {
            std::mt19937 rng(job.seed);
            x = random_point(prob, m, x0, rng);
            if (job.filtered) {
                Evaluator E(prob, m);
                double bestv = max_violation(E, m, x.data());
                for (int t = 0; t < 9; ++t) {
                    std::vector<double> y = random_point(prob, m, x0, rng);
                    double v = max_violation(E, m, y.data());
                    if (v < bestv) bestv = v, x = y;
                }
            }
        }
        // Start columns are checked when a job is added and follow deletions; the check here
        // keeps a job that still refers to a column the model no longer has from writing past x.
        for (size_t i = 0; i < job.ivcols.size() && i < job.ivvalues.size(); ++i)
            if (job.ivcols[i] >= 0 && job.ivcols[i] < (int)x.size()) x[job.ivcols[i]] = job.ivvalues[i];
        Controls saved = prob->controls;
        for (auto& c : job.controls) {
            if (prob->controls.ints.count(c.first)) prob->controls.ints[c.first] = (int)c.second;
            else prob->controls.dbls[c.first] = c.second;
        }
        RunResult r;
        bool ok = true;
        try {
            r = solve_from(prob, m, x, std::chrono::steady_clock::now());
        } catch (const Error& e) {
            ok = false;
            logf(prob, 2, "Multistart job %zu failed: %s", k + 1, e.what());
        }
        prob->controls = saved;
        if (prob->cb.msjobend.f) {
            int status = 0;
            prob->cb.msjobend.f(prob, prob->cb.msjobend.context, job.object, desc, &status);
            if (status) ok = false;
        }
        if (!ok) continue;
        logf(prob, 2, "Multistart job %zu: status %d, objective %.10g", k + 1, r.status, r.objval);
        if (!have || better(r, best, sense)) {
            best = std::move(r);
            have = true;
            winner = (int)k + 1;
        }
    }
    if (!have) throw Error("No multistart job could be run");
    prob->mswinner = winner;
    if (winner > 0 && prob->cb.mswinner.f)
        prob->cb.mswinner.f(prob, prob->cb.mswinner.context, jobs[winner - 1].object,
                            jobs[winner - 1].description.c_str());
    return best;
}

}  // namespace slp

using slp::guard;
using slp::Error;

extern "C" {

int TSLPmsaddjob(TSLPprob prob, const char* description, int ninitial, const int colindex[], const double initial[],
                 int ncontrols, const int controlid[], const double controlvalue[], void* jobobject) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_initial(prob, ninitial, colindex, initial);
        slp::MsJob j;
        j.description = description ? description : "";
        if (ninitial > 0) {
            j.ivcols.assign(colindex, colindex + ninitial);
            j.ivvalues.assign(initial, initial + ninitial);
        }
        j.controls = slp::read_controls(prob, ncontrols, controlid, controlvalue);
        j.object = jobobject;
        prob->msjobs.push_back(j);
    });
}

int TSLPmsaddpreset(TSLPprob prob, const char* description, int preset, int count, void* jobobject) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::add_preset_jobs(prob, description ? description : "", preset, count, {}, {}, {}, jobobject);
    });
}

int TSLPmsaddcustompreset(TSLPprob prob, const char* description, int preset, int count, int ninitial,
                          const int colindex[], const double initial[], int ncontrols, const int controlid[],
                          const double controlvalue[], void* jobobject) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::check_initial(prob, ninitial, colindex, initial);
        std::vector<int> cols;
        std::vector<double> vals;
        if (ninitial > 0) {
            cols.assign(colindex, colindex + ninitial);
            vals.assign(initial, initial + ninitial);
        }
        slp::add_preset_jobs(prob, description ? description : "", preset, count, cols, vals,
                             slp::read_controls(prob, ncontrols, controlid, controlvalue), jobobject);
    });
}

int TSLPmsclear(TSLPprob prob) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        prob->msjobs.clear();
    });
}

}  // extern "C"
