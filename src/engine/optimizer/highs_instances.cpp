// Bookkeeping around HiGHS instances: deferred destruction and the shared thread count.
#include "engine/optimizer/highs_instances.h"

#include "interfaces/highs_c_api.h"

#include <mutex>
#include <vector>

namespace trvo {
namespace {
std::mutex pool_mutex;
int active_solves = 0;
int scheduler_threads = -1;  // thread count the scheduler runs with, -1 before the first solve
std::vector<void*> deferred;
}  // namespace

int highs_solve_begin(int requested_threads) {
    std::lock_guard<std::mutex> g(pool_mutex);
    if (scheduler_threads < 0) {
        scheduler_threads = requested_threads;
    } else if (requested_threads != scheduler_threads && active_solves == 0) {
        Highs_resetGlobalScheduler(1);
        scheduler_threads = requested_threads;
    }
    ++active_solves;
    return scheduler_threads;
}

void highs_solve_end() {
    std::lock_guard<std::mutex> g(pool_mutex);
    if (active_solves > 0) --active_solves;
    if (active_solves == 0) {
        for (void* h : deferred) Highs_destroy(h);
        deferred.clear();
    }
}

void highs_release(void* highs) {
    if (!highs) return;
    std::lock_guard<std::mutex> g(pool_mutex);
    if (active_solves > 0) deferred.push_back(highs);
    else Highs_destroy(highs);
}

void* highs_new_quiet() {
    void* h = Highs_create();
    if (!h) return nullptr;
    Highs_setBoolOptionValue(h, "log_to_console", 0);
    Highs_setStringOptionValue(h, "log_file", "");
    Highs_setBoolOptionValue(h, "output_flag", 0);
    return h;
}

}  // namespace trvo
