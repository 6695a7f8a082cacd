// Where the time of a nonlinear solve goes: a per-problem account of CPU time by phase
// (reading the model, compiling formulas, setting up HiGHS, evaluating, updating and solving
// the step problems, checking KKT conditions, returning results, logging). The account is
// kept only when the log level asks for it (TSLP_LOG >= 2), is exclusive (a phase entered
// inside another one pauses it), and is written to the log at the end of the solve. It counts
// the CPU time of the solving thread, which a machine shared with other work does not inflate;
// scopes entered on other threads (HiGHS's, calling back) are not counted.
#pragma once

#include <thread>

#include <time.h>

namespace slp {

enum Phase {
    PH_ENGINE,        // the iteration logic itself: whatever no other phase claims
    PH_READ,          // reading the optimisation problem, reformulating entities, presolve
    PH_COMPILE,       // compiling the formulas into evaluation tapes
    PH_START,         // moving the start into the interior of bounds and domains
    PH_HIGHS_SETUP,   // creating the step problems' HiGHS instance, its options and model
    PH_EVAL,          // values and gradients of rows and objective
    PH_UPDATE,        // writing a linearisation into the step problem
    PH_HIGHS_SOLVE,   // solving the step problems (HiGHS or the sparse step solver)
    PH_KKT,           // KKT residuals and multiplier estimates
    PH_RESULT,        // assembling and storing the solution
    PH_TEARDOWN,      // releasing the HiGHS instance
    PH_LOG,           // formatting and delivering log lines
    PH_COUNT
};

struct Profile {
    bool on = false;
    std::thread::id owner;   // the solving thread
    int current = PH_ENGINE;
    double last = 0.0;
    double secs[PH_COUNT] = {};
    long solves = 0;   // step problems solved

    void begin() {
        on = true;
        owner = std::this_thread::get_id();
        current = PH_ENGINE;
        for (double& s : secs) s = 0.0;
        solves = 0;
        last = now();
    }
    void end() {
        if (!on) return;
        switch_to(PH_ENGINE);
        on = false;
    }
    void switch_to(int phase) {
        double t = now();
        secs[current] += t - last;
        last = t;
        current = phase;
    }
    static double now() {
        timespec ts;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
        return (double)ts.tv_sec + 1e-9 * (double)ts.tv_nsec;
    }
};

// Charges the time until the end of the scope to a phase, then returns to the enclosing one.
class PhaseScope {
public:
    PhaseScope(Profile& p, int phase) : p_(p.on && std::this_thread::get_id() == p.owner ? &p : nullptr) {
        if (p_) {
            saved_ = p_->current;
            p_->switch_to(phase);
        }
    }
    ~PhaseScope() {
        if (p_) p_->switch_to(saved_);
    }
    PhaseScope(const PhaseScope&) = delete;
    PhaseScope& operator=(const PhaseScope&) = delete;

private:
    Profile* p_;
    int saved_ = PH_ENGINE;
};

}  // namespace slp
