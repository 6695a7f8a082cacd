// Bookkeeping around HiGHS instances: deferred destruction and the shared thread count.
#include "engine/optimizer/highs_instances.h"

#include "interfaces/highs_c_api.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include <pthread.h>

namespace trvo {
namespace {
std::mutex pool_mutex;
std::condition_variable pool_idle;
int active_solves = 0;
int scheduler_threads = -1;  // thread count the scheduler runs with, -1 before the first solve
std::vector<void*> deferred;
std::vector<void*> spare;   // cleared instances waiting for highs_reuse_quiet
std::vector<std::atomic<int>*> stop_flags;   // of the running solves that gave one
bool exiting = false;

// Runs at process exit, before the static objects of HiGHS are destroyed: a solve still
// running (in a thread the interpreter abandoned) is stopped and waited for.
void stop_solves_at_exit() {
    std::unique_lock<std::mutex> g(pool_mutex);
    exiting = true;
    bool told = false;
    auto start = std::chrono::steady_clock::now();
    while (active_solves > 0) {
        for (auto* f : stop_flags) {
            int none = 0;
            f->compare_exchange_strong(none, 9);
        }
        if (!told && std::chrono::steady_clock::now() - start > std::chrono::seconds(2)) {
            std::fputs("tarvo: waiting for a running optimiser to stop before the process exits\n", stderr);
            told = true;
        }
        pool_idle.wait_for(g, std::chrono::milliseconds(20));
    }
    // The lock stays taken: a thread that is still finishing (destroying its instance, say)
    // waits here instead of reaching HiGHS while the process tears it down.
    g.release();
}
// A child made by fork() has none of the parent's solving threads: it starts with no solve
// running (so that its exit does not wait for them) and a fresh lock.
void reset_in_child() {
    new (&pool_mutex) std::mutex();
    active_solves = 0;
    stop_flags.clear();
    deferred.clear();
    spare.clear();
}
}  // namespace

int highs_solve_begin(int requested_threads, std::atomic<int>* stop_flag) {
    static std::once_flag registered;
    std::call_once(registered, [] {
        std::atexit(stop_solves_at_exit);
        pthread_atfork(nullptr, nullptr, reset_in_child);
    });
    std::lock_guard<std::mutex> g(pool_mutex);
    if (stop_flag) {
        stop_flags.push_back(stop_flag);
        if (exiting) stop_flag->store(9);
    }
    if (scheduler_threads < 0) {
        scheduler_threads = requested_threads;
    } else if (requested_threads != scheduler_threads && active_solves == 0) {
        Highs_resetGlobalScheduler(1);
        scheduler_threads = requested_threads;
    }
    ++active_solves;
    return scheduler_threads;
}

void highs_solve_end(std::atomic<int>* stop_flag) {
    std::lock_guard<std::mutex> g(pool_mutex);
    if (stop_flag) {
        auto it = std::find(stop_flags.begin(), stop_flags.end(), stop_flag);
        if (it != stop_flags.end()) stop_flags.erase(it);
    }
    if (active_solves > 0) --active_solves;
    if (active_solves == 0) {
        for (void* h : deferred) Highs_destroy(h);
        deferred.clear();
        pool_idle.notify_all();
    }
}

void highs_release(void* highs) {
    if (!highs) return;
    std::lock_guard<std::mutex> g(pool_mutex);
    if (active_solves > 0) deferred.push_back(highs);
    else Highs_destroy(highs);
}

int highs_automatic_threads() {
    static const int count = std::max(1, (int)(std::thread::hardware_concurrency() + 1) / 2);
    return count;
}

namespace {
void make_quiet(void* h) {
    Highs_setBoolOptionValue(h, "log_to_console", 0);
    Highs_setStringOptionValue(h, "log_file", "");
    Highs_setBoolOptionValue(h, "output_flag", 0);
}
}  // namespace

void* highs_new_quiet() {
    void* h = Highs_create();
    if (!h) return nullptr;
    make_quiet(h);
    return h;
}

void* highs_reuse_quiet() {
    void* h = nullptr;
    {
        std::lock_guard<std::mutex> g(pool_mutex);
        if (!spare.empty()) {
            h = spare.back();
            spare.pop_back();
        }
    }
    if (!h) return highs_new_quiet();
    make_quiet(h);
    return h;
}

void highs_recycle(void* highs) {
    if (!highs) return;
    for (int kind : {kHighsCallbackLogging, kHighsCallbackSimplexInterrupt, kHighsCallbackIpmInterrupt,
                     kHighsCallbackMipInterrupt})
        Highs_stopCallback(highs, kind);
    Highs_clearModel(highs);
    Highs_resetOptions(highs);
    {
        std::lock_guard<std::mutex> g(pool_mutex);
        if (spare.size() < 4 && !exiting) {
            spare.push_back(highs);
            return;
        }
    }
    highs_release(highs);
}

}  // namespace trvo
