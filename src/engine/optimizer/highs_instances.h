// HiGHS instances shared by the optimisation and nonlinear engines. HiGHS 1.15 keeps one
// process-wide thread scheduler: destroying an instance resets it and breaks any other solve
// in progress, and every instance must run with the same thread count. All engine code that
// runs HiGHS goes through these functions.
#pragma once

#include <atomic>

namespace trvo {

// Marks a solve as running and returns the thread count to give HiGHS's "threads" option
// (the requested count when the scheduler can still change, otherwise the current one).
// stop_flag, when given, is the solve's stop request: at process exit every running solve is
// asked to stop through it (reason 9) and the exit waits until no solve runs any more, since
// HiGHS cannot run while the process tears down its static objects.
int highs_solve_begin(int requested_threads, std::atomic<int>* stop_flag = nullptr);
// Marks the solve as finished; destroys instances whose release was deferred.
void highs_solve_end(std::atomic<int>* stop_flag = nullptr);
// One solve's begin/end pair as a scope; used is the thread count the solve runs with.
struct SolveScope {
    SolveScope(int threads, std::atomic<int>* stop) : stop(stop), used(highs_solve_begin(threads, stop)) {}
    ~SolveScope() { highs_solve_end(stop); }
    std::atomic<int>* stop;
    int used;
};
// The thread count HiGHS's scheduler takes when an instance runs with "threads" 0, (hardware
// threads + 1) / 2, found once. HiGHS asks the system for it at every run told 0; giving it
// this count instead spares that.
int highs_automatic_threads();
// Destroys an instance now, or when no solve is running any more.
void highs_release(void* highs);
// Creates an instance whose log goes nowhere until a callback is installed.
void* highs_new_quiet();
// Like highs_new_quiet, but takes an instance a finished solve handed back when there is one:
// creating an instance (a few hundred option records) and destroying it costs a small model
// more than a solve.
void* highs_reuse_quiet();
// Hands an instance back for highs_reuse_quiet: its model, solution, basis and callbacks are
// cleared and its options reset. Beyond a few spare instances it is released instead.
void highs_recycle(void* highs);

}  // namespace trvo
