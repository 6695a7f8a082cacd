// The tuner: solves the problem once with its own controls and then with each candidate
// setting of the tuner's method, keeps the fastest setting that reaches the same outcome as
// the problem's own, reports it in the log and makes it the problem's controls.
//
// Each run solves a fresh copy of the problem (no warm start from an earlier run, no
// callbacks, no log), so that the runs are comparable. A candidate counts only when its run
// completes with the same status as the baseline and, for optimal runs, an objective value
// within the optimality and gap tolerances of the baseline's; it replaces the best so far only
// when it is at least 10% (and 2 ms) faster, so timing noise does not move the controls away
// from the problem's own. The baseline and every candidate that looks faster are timed twice,
// the faster run standing for them. The whole tuning stays within MAXTIME (none when MAXTIME is 0); each run is
// limited to a little more than the best time so far, since a slower one cannot win.
//
// The built-in method (tunerwritemethod writes it) varies the controls that choose how the
// solve runs without changing what it solves: presolve, the LP algorithm (dual, primal simplex,
// barrier), scaling, and for MIPs the heuristic effort, symmetry detection and restarts.
//
// Method files are text:
//   TARVO TUNER METHOD 1
//   # comments and blank lines are skipped
//   <kind> <control>=<value> [<control>=<value> ...]
// one candidate per line; kind is lp, mip or any (the solves the candidate applies to); control
// names are the catalogue's (case is ignored); only the controls listed in kTunable may appear.
#include "engine/optimizer/formulate.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace trvo {
namespace {

const char* const kHeader = "TARVO TUNER METHOD 1";
const int kTunable[] = {TRVO_PRESOLVE, TRVO_DEFAULTALG, TRVO_CROSSOVER, TRVO_SCALING,
                        TRVO_HEUREFFORT, TRVO_SYMMETRY, TRVO_MIPRESTART, TRVO_RANDOMSEED};
const char* const kKinds[] = {"any", "lp", "mip"};

bool tunable(int id) { return std::find(std::begin(kTunable), std::end(kTunable), id) != std::end(kTunable); }

std::vector<TunerCandidate> builtin_method() {
    auto c = [](int kind, std::vector<std::pair<int, double>> s) { return TunerCandidate{kind, std::move(s)}; };
    return {
        c(0, {{TRVO_PRESOLVE, 0}}),
        c(1, {{TRVO_DEFAULTALG, 2}}),
        c(1, {{TRVO_DEFAULTALG, 3}}),
        c(1, {{TRVO_DEFAULTALG, 4}}),
        c(1, {{TRVO_SCALING, 0}}),
        c(1, {{TRVO_PRESOLVE, 0}, {TRVO_DEFAULTALG, 3}}),
        c(2, {{TRVO_HEUREFFORT, 0}}),
        c(2, {{TRVO_HEUREFFORT, 0.2}}),
        c(2, {{TRVO_HEUREFFORT, 0.5}}),
        c(2, {{TRVO_SYMMETRY, 0}}),
        c(2, {{TRVO_MIPRESTART, 0}}),
        c(2, {{TRVO_HEUREFFORT, 0.2}, {TRVO_MIPRESTART, 0}}),
        c(2, {{TRVO_PRESOLVE, 0}, {TRVO_HEUREFFORT, 0.2}}),
    };
}

const std::vector<TunerCandidate>& method_of(TRVOprob p) {
    static const std::vector<TunerCandidate> builtin = builtin_method();
    return p->tuner_method.empty() ? builtin : p->tuner_method;
}

// Catalogue name (lower case) and type (1 integer, 2 double) of a control.
std::string control_name(int id, int* type) {
    const int* ids = nullptr;
    const char* const* names = nullptr;
    const int* flags = nullptr;
    TRVOgetcalist_c(&ids, &names, &flags);
    for (int k = 0; ids[k] != 0; ++k)
        if (ids[k] == id) {
            if (type) *type = (flags[k] & 0x1) ? 1 : 2;
            std::string s(names[k]);
            for (auto& ch : s) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
            return s;
        }
    fail("Unknown control %d", id);
}

std::string value_text(int id, double v) {
    int type = 0;
    control_name(id, &type);
    char buf[64];
    if (type == 1) std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(v));
    else {
        // The shortest of the usual precisions that reads back as the same number.
        std::snprintf(buf, sizeof buf, "%.15g", v);
        if (std::strtod(buf, nullptr) != v) std::snprintf(buf, sizeof buf, "%.17g", v);
    }
    return buf;
}

std::string describe(const std::vector<std::pair<int, double>>& s) {
    if (s.empty()) return "the problem's own settings";
    std::string out;
    for (const auto& kv : s) {
        if (!out.empty()) out += ' ';
        out += control_name(kv.first, nullptr) + "=" + value_text(kv.first, kv.second);
    }
    return out;
}

// Sets one control on p through the checked setters.
void apply_setting(TRVOprob p, int id, double v) {
    int type = 0;
    control_name(id, &type);
    int rc = type == 1 ? TRVOsetintcontrol64(p, id, static_cast<int64_t>(v)) : TRVOsetdblcontrol(p, id, v);
    if (rc != 0) fail("%s", p->last_error.c_str());
}

struct RunResult {
    bool ran = false;        // the solve returned without error
    bool completed = false;  // ... and was not stopped
    int status = 0;          // LP or MIP status
    double objective = 0;
    double seconds = 0;
    int64_t iterations = 0, nodes = 0;
};

RunResult run_once(TRVOprob p, bool mip, const std::vector<std::pair<int, double>>& settings, double limit) {
    RunResult out;
    TRVOprob c = nullptr;
    if (TRVOcreateprob(&c) != 0) fail("Could not create a problem for a tuner run");
    struct Drop {
        TRVOprob p;
        ~Drop() { TRVOdestroyprob(p); }
    } drop{c};
    if (TRVOcopyprob(c, p, p->name.c_str()) != 0) fail("%s", c->last_error.c_str());
    for (const auto& kv : settings) apply_setting(c, kv.first, kv.second);
    c->controls.ints[TRVO_OUTPUTLOG] = 0;
    c->controls.dbls[TRVO_MAXTIME] = limit > 0 ? limit : 0;
    // A stop request made on the tuned problem (TRVOinterrupt, Ctrl-C) reaches the run on the
    // copy: it is passed on every few milliseconds until the run ends (a request made before the
    // run started would be cleared by that start).
    struct Forward {
        std::mutex m;
        std::condition_variable cv;
        bool done = false;
    } fwd;
    std::thread forward([&fwd, p, c] {
        std::unique_lock<std::mutex> lk(fwd.m);
        while (!fwd.done) {
            if (int reason = p->stop_request.load()) c->stop_request.store(reason);
            fwd.cv.wait_for(lk, std::chrono::milliseconds(5));
        }
    });
    auto t0 = std::chrono::steady_clock::now();
    int rc = mip ? TRVOmipoptimize(c, "") : TRVOlpoptimize(c, "");
    out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    {
        std::lock_guard<std::mutex> g(fwd.m);
        fwd.done = true;
    }
    fwd.cv.notify_all();
    forward.join();
    const Results& r = c->results;
    out.ran = rc == 0;
    out.completed = out.ran && r.solvestatus == TRVO_SOLVESTATUS_COMPLETED;
    out.status = mip ? r.mipstatus : r.lpstatus;
    out.objective = mip ? r.mipobjval : r.lpobjval;
    out.iterations = r.simplexiter + r.bariter;
    out.nodes = r.nodes;
    return out;
}

bool same_outcome(TRVOprob p, bool mip, const RunResult& base, const RunResult& run) {
    if (!run.completed || run.status != base.status) return false;
    bool optimal = mip ? run.status == TRVO_MIP_OPTIMAL : run.status == TRVO_LP_OPTIMAL;
    if (!optimal) return true;
    double scale = std::max(1.0, std::fabs(base.objective));
    double tol = 1e-6 * scale + ctl_dbl(p, TRVO_OPTIMALITYTOL) * scale;
    if (mip) tol += ctl_dbl(p, TRVO_MIPRELSTOP) * scale + ctl_dbl(p, TRVO_MIPABSSTOP);
    return std::fabs(run.objective - base.objective) <= tol;
}

std::string run_text(const RunResult& r) {
    char buf[160];
    std::snprintf(buf, sizeof buf, "%.3f s, %lld iterations, %lld nodes%s", r.seconds,
                  static_cast<long long>(r.iterations), static_cast<long long>(r.nodes),
                  r.completed ? "" : (r.ran ? ", stopped" : ", failed"));
    return buf;
}

// The faster of two runs of the problem's own settings stands for them.
void again(RunResult& first, const RunResult& second) {
    if (second.completed && second.seconds < first.seconds) first = second;
}

// Faster by 10% and by more than the timer's noise on tiny models.
bool faster(const RunResult& r, const RunResult& than) { return r.seconds < 0.9 * than.seconds - 0.002; }

void log(TRVOprob p, int number, const std::string& text) { emit_message(p, ("Tuner: " + text).c_str(), 1, number); }

void tune(TRVOprob p, const char* flags) {
    bool mip = has_entities(p);
    for (const char* f = flags ? flags : ""; *f; ++f) {
        if (*f == 'l') mip = false;
        else if (*f == 'g') mip = true;
        else fail("Unknown tune flag '%c': use 'l' to tune the LP solve or 'g' the MIP solve", *f);
    }
    if (!nonconvexity(p, mip).empty()) fail("The tuner needs a problem the LP/MIP optimiser can solve");
    const double budget = ctl_dbl(p, TRVO_MAXTIME);
    const auto start = std::chrono::steady_clock::now();
    auto remaining = [&] {
        if (budget <= 0) return 0.0;  // no limit
        double left = budget - std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        return std::max(left, 1e-3);
    };
    auto out_of_time = [&] {
        return budget > 0 && std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() >= budget;
    };
    std::vector<const TunerCandidate*> todo;
    for (const auto& c : method_of(p))
        if (c.kind == 0 || c.kind == (mip ? 2 : 1)) todo.push_back(&c);
    char head[200];
    std::snprintf(head, sizeof head, "tuning the %s solve with %zu candidate settings%s", mip ? "MIP" : "LP",
                  todo.size(), budget > 0 ? "" : " (no time limit: MAXTIME is 0)");
    log(p, TRVO_MSG_TUNER_RUN, head);

    auto stopped = [p] { return p->stop_request.load() != 0; };
    RunResult base = run_once(p, mip, {}, remaining());
    if (base.completed && !out_of_time() && !stopped()) again(base, run_once(p, mip, {}, remaining()));
    log(p, TRVO_MSG_TUNER_RUN, "the problem's own settings: " + run_text(base));
    if (!base.ran) fail("The tuner could not solve the problem with its own settings: %s", p->last_error.c_str());
    RunResult best = base;
    const std::vector<std::pair<int, double>>* best_settings = nullptr;
    for (const TunerCandidate* c : todo) {
        if (out_of_time() || stopped()) {
            log(p, TRVO_MSG_TUNER_RUN, "stopped before trying every candidate");
            break;
        }
        // A run slower than the best cannot win: it is stopped a little after the best time.
        double limit = remaining();
        if (best.completed) limit = limit > 0 ? std::min(limit, best.seconds * 1.2 + 0.05) : best.seconds * 1.2 + 0.05;
        RunResult r;
        try {
            r = run_once(p, mip, c->settings, limit);
        } catch (const Error& e) {
            log(p, TRVO_MSG_TUNER_RUN, describe(c->settings) + ": not usable (" + e.what() + ")");
            continue;
        }
        if (stopped()) {  // the run was cut short: it says nothing about the candidate
            log(p, TRVO_MSG_TUNER_RUN, describe(c->settings) + ": stopped; the tuning ends");
            break;
        }
        // Without a completed baseline (stopped at MAXTIME) any completed run is an improvement.
        bool comparable = base.completed ? same_outcome(p, mip, base, r) : r.completed;
        bool better = comparable && (!best.completed || faster(r, best));
        // A run that looks faster is timed once more (a shared machine is noisy): both runs must
        // be faster, and the slower of them stands for the candidate.
        if (better && best.completed && !out_of_time()) {
            RunResult r2 = run_once(p, mip, c->settings, limit);
            better = !stopped() && same_outcome(p, mip, base, r2) && faster(r2, best);
            r.seconds = std::max(r.seconds, r2.seconds);
        }
        log(p, TRVO_MSG_TUNER_RUN,
            describe(c->settings) + ": " + run_text(r) +
                (better ? " (best so far)" : (!r.completed || comparable) ? "" : " (another outcome: not used)"));
        if (better) {
            best = r;
            best_settings = &c->settings;
        }
    }
    if (!best_settings) {
        log(p, TRVO_MSG_TUNER_RESULT, "the problem's own settings are the best found; its controls are unchanged");
        return;
    }
    for (const auto& kv : *best_settings) apply_setting(p, kv.first, kv.second);
    char tail[160];
    std::snprintf(tail, sizeof tail, " (%.3f s against %.3f s with the problem's own settings)", best.seconds,
                  base.seconds);
    log(p, TRVO_MSG_TUNER_RESULT, "best settings " + describe(*best_settings) + tail + "; kept as the problem's controls");
}

std::string trim(const std::string& s) {
    size_t a = s.find_first_not_of(" \t\r"), b = s.find_last_not_of(" \t\r");
    return a == std::string::npos ? std::string() : s.substr(a, b - a + 1);
}

std::vector<TunerCandidate> read_method(TRVOprob p, const char* file) {
    std::ifstream in(file);
    if (!in) fail("Could not open %s", file);
    std::string line;
    int lineno = 0;
    bool header = false;
    std::vector<TunerCandidate> out;
    // Values are checked by setting them on a scratch problem.
    TRVOprob scratch = nullptr;
    if (TRVOcreateprob(&scratch) != 0) fail("Could not create a problem to check the method");
    struct Drop {
        TRVOprob p;
        ~Drop() { TRVOdestroyprob(p); }
    } drop{scratch};
    while (std::getline(in, line)) {
        ++lineno;
        std::string t = trim(line);
        if (t.empty() || t[0] == '#') continue;
        if (!header) {
            if (t != kHeader) fail("%s is not a tuner method file (its first line must be '%s')", file, kHeader);
            header = true;
            continue;
        }
        std::istringstream words(t);
        std::string kind;
        words >> kind;
        TunerCandidate c;
        c.kind = -1;
        for (int k = 0; k < 3; ++k)
            if (kind == kKinds[k]) c.kind = k;
        if (c.kind < 0) fail("%s line %d: unknown kind '%s' (lp, mip or any)", file, lineno, kind.c_str());
        std::string item;
        while (words >> item) {
            size_t eq = item.find('=');
            if (eq == std::string::npos || eq == 0 || eq + 1 == item.size())
                fail("%s line %d: '%s' is not control=value", file, lineno, item.c_str());
            std::string name = item.substr(0, eq), value = item.substr(eq + 1);
            int id = 0, type = 0;
            if (TRVOgetcontrolinfo(p, name.c_str(), &id, &type) != 0)
                fail("%s line %d: unknown control '%s'", file, lineno, name.c_str());
            if (!tunable(id)) fail("%s line %d: control '%s' is not one the tuner varies", file, lineno, name.c_str());
            char* end = nullptr;
            double v = std::strtod(value.c_str(), &end);
            if (!end || *end || (type == 1 && v != std::floor(v)))
                fail("%s line %d: '%s' is not a valid value of %s", file, lineno, value.c_str(), name.c_str());
            try {
                apply_setting(scratch, id, v);
            } catch (const Error& e) {
                fail("%s line %d: %s", file, lineno, e.what());
            }
            c.settings.emplace_back(id, v);
        }
        if (c.settings.empty()) fail("%s line %d: a candidate needs at least one control=value", file, lineno);
        out.push_back(std::move(c));
    }
    if (!header) fail("%s is not a tuner method file (its first line must be '%s')", file, kHeader);
    if (out.empty()) fail("%s lists no candidate settings", file);
    return out;
}

}  // namespace
}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOtune(TRVOprob prob, const char* flags) {
    // A stop request (TRVOinterrupt, a failing callback) ends the tuning after the current run.
    if (prob && prob->magic == kProblemMagic) prob->stop_request.store(0);
    return guard(prob, [&] {
        tune(prob, flags);
        prob->stop_request.store(0);
    });
}

int TRVOtunerwritemethod(TRVOprob prob, const char* methodfile) {
    return guard(prob, [&] {
        if (!methodfile || !*methodfile) fail("No file name given");
        std::ostringstream out;
        out << kHeader << "\n# one candidate per line: kind (lp, mip or any) and control=value pairs\n";
        for (const auto& c : method_of(prob)) {
            out << kKinds[c.kind];
            for (const auto& kv : c.settings)
                out << ' ' << control_name(kv.first, nullptr) << '=' << value_text(kv.first, kv.second);
            out << '\n';
        }
        FILE* f = std::fopen(methodfile, "w");
        if (!f) fail("Could not open %s for writing", methodfile);
        std::string text = out.str();
        bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
        if ((std::fclose(f) != 0) || !ok) fail("Could not write %s", methodfile);
    });
}

int TRVOtunerreadmethod(TRVOprob prob, const char* methodfile) {
    return guard(prob, [&] {
        if (!methodfile || !*methodfile) fail("No file name given");
        prob->tuner_method = read_method(prob, methodfile);
    });
}

}  // extern "C"
