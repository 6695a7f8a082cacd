// The solve callbacks HiGHS's own callbacks can serve, multiplexed from HiGHS's one callback
// function per instance: lplog, barlog, bariteration, checktime, globallog, cutlog, intsol,
// gapnotify and usersolnotify (message goes through the log lines, see solve.cpp).
#pragma once

#include "engine/optimizer/callbacks.h"
#include "engine/optimizer/formulate.h"

#include <chrono>
#include <string>
#include <vector>

namespace trvo {

class SolveCallbacks {
public:
    // Reads which kinds are registered and queues the user solutions of the problem.
    SolveCallbacks(TRVOprob p, bool mip, const HighsModel& model);

    // Whether HiGHS's output must stay on for the log-line callbacks (globallog, cutlog).
    bool needs_output() const { return globallog_ || cutlog_; }
    // Starts the HiGHS callback types that the registered kinds need.
    void start(void* highs) const;

    // Handles one HiGHS callback event (the logging event excepted).
    void on_event(int type, const HighsCallbackDataOut* out, HighsCallbackDataIn* in);
    // After the run: reports the queued user solutions HiGHS did not ask for.
    void finish();

private:
    void request_stop(HighsCallbackDataIn* in, int reason);
    void new_incumbent(const HighsCallbackDataOut* out);
    void gap_check(const HighsCallbackDataOut* out, HighsCallbackDataIn* in);
    void offer_user_solution(HighsCallbackDataIn* in);
    // 0 feasible, 1 infeasible, 2 cannot be offered to HiGHS (reformulated model).
    int verdict(const UserSolution& s, std::vector<double>& full) const;

    TRVOprob p_;
    const HighsModel& model_;
    bool mip_;
    bool lplog_, barlog_, bariteration_, checktime_, globallog_, cutlog_, intsol_, gapnotify_,
        usersol_;
    int64_t last_lplog_iter_ = -1, last_ipm_iter_ = -1;
    bool checktime_called_ = false;
    std::chrono::steady_clock::time_point last_checktime_;
    double targets_[4];
    double last_primal_, last_dual_;
    std::vector<UserSolution> usersols_;
    size_t next_usersol_ = 0;
    std::vector<double> usersol_buf_;
};

}  // namespace trvo
