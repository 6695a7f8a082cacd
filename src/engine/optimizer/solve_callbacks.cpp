// Serving the solve callbacks from HiGHS's callback events.
#include "engine/optimizer/solve_callbacks.h"

#include <cmath>
#include <limits>

namespace trvo {
namespace {

// lplog is called at the first simplex iteration and then every this many iterations.
constexpr int64_t kLpLogFrequency = 100;
constexpr auto kCheckTimeInterval = std::chrono::milliseconds(5);

}  // namespace

SolveCallbacks::SolveCallbacks(TRVOprob p, bool mip, const HighsModel& model)
    : p_(p), model_(model), mip_(mip) {
    lplog_ = has_callbacks(p, CB_LPLOG);
    barlog_ = has_callbacks(p, CB_BARLOG);
    bariteration_ = has_callbacks(p, CB_BARITERATION);
    checktime_ = has_callbacks(p, CB_CHECKTIME);
    globallog_ = mip && has_callbacks(p, CB_GLOBALLOG);
    cutlog_ = mip && has_callbacks(p, CB_CUTLOG);
    intsol_ = mip && has_callbacks(p, CB_INTSOL);
    gapnotify_ = mip && has_callbacks(p, CB_GAPNOTIFY);
    usersol_ = false;
    const double inf = std::numeric_limits<double>::infinity();
    // No target until a gapnotify callback sets one: gaps are never negative, the objective
    // never better than -inf (minimising) and the bound never past +inf.
    targets_[0] = -1;
    targets_[1] = -1;
    targets_[2] = p->objsense > 0 ? -inf : inf;
    targets_[3] = p->objsense > 0 ? inf : -inf;
    last_primal_ = last_dual_ = std::numeric_limits<double>::quiet_NaN();
    if (mip) {
        usersols_.swap(p->user_solutions);
        usersol_ = !usersols_.empty();
    } else if (!p->user_solutions.empty()) {
        // Solutions for a MIP solve wait for it.
    }
}

void SolveCallbacks::start(void* h) const {
    if (globallog_ || cutlog_ || gapnotify_) Highs_startCallback(h, kHighsCallbackMipLogging);
    if (intsol_) Highs_startCallback(h, kHighsCallbackMipImprovingSolution);
    if (usersol_) Highs_startCallback(h, kHighsCallbackCallbackMipUserSolution);
}

void SolveCallbacks::request_stop(HighsCallbackDataIn* in, int reason) {
    int none = 0;
    p_->stop_request.compare_exchange_strong(none, reason);
    if (in) in->user_interrupt = 1;
}

void SolveCallbacks::on_event(int type, const HighsCallbackDataOut* out, HighsCallbackDataIn* in) {
    if (p_->stop_request.load() != 0) {
        // A stop was asked for (by TRVOinterrupt, a callback's result or a Python exception):
        // no callback is called any more, HiGHS is told at its next interrupt check.
        if (in && (type == kHighsCallbackSimplexInterrupt || type == kHighsCallbackIpmInterrupt ||
                   type == kHighsCallbackMipInterrupt))
            in->user_interrupt = 1;
        return;
    }
    switch (type) {
        case kHighsCallbackSimplexInterrupt:
            if (lplog_ && out) {
                int64_t it = out->simplex_iteration_count;
                if (last_lplog_iter_ < 0 || it - last_lplog_iter_ >= kLpLogFrequency) {
                    last_lplog_iter_ = it;
                    if (fire_lplog(p_)) request_stop(in, TRVO_STOP_USER);
                }
            }
            break;
        case kHighsCallbackIpmInterrupt:
            // HiGHS calls this several times per iteration (some with a count of -1): the
            // callbacks follow the count.
            if ((barlog_ || bariteration_) && out && out->ipm_iteration_count > last_ipm_iter_) {
                last_ipm_iter_ = out->ipm_iteration_count;
                if (bariteration_ && fire_bariteration(p_)) request_stop(in, TRVO_STOP_USER);
                if (barlog_ && fire_barlog(p_)) request_stop(in, TRVO_STOP_USER);
            }
            break;
        case kHighsCallbackMipInterrupt:
            if (gapnotify_ && out) gap_check(out, in);
            break;
        case kHighsCallbackMipLogging:
            if (out) {
                if (globallog_ && fire_globallog(p_)) request_stop(in, TRVO_STOP_USER);
                if (cutlog_ && out->mip_node_count == 0 && fire_cutlog(p_)) request_stop(in, TRVO_STOP_USER);
                if (gapnotify_) gap_check(out, in);
            }
            break;
        case kHighsCallbackMipImprovingSolution:
            if (intsol_ && out) new_incumbent(out);
            break;
        case kHighsCallbackCallbackMipUserSolution:
            if (usersol_ && in) offer_user_solution(in);
            break;
        default:
            break;
    }
    if (checktime_ && p_->stop_request.load() == 0 &&
        (type == kHighsCallbackSimplexInterrupt || type == kHighsCallbackIpmInterrupt ||
         type == kHighsCallbackMipInterrupt)) {
        // HiGHS checks for interrupts at every iteration and node; checktime is a clock check,
        // called at the first of them and then at most every kCheckTimeInterval.
        auto now = std::chrono::steady_clock::now();
        if (!checktime_called_ || now - last_checktime_ >= kCheckTimeInterval) {
            checktime_called_ = true;
            last_checktime_ = now;
            if (fire_checktime(p_)) request_stop(in, TRVO_STOP_USER);
        }
    }
}

// The incumbent becomes the problem's MIP solution while the callbacks run, so that solution
// queries inside them return it; the end of the solve writes the final one.
void SolveCallbacks::new_incumbent(const HighsCallbackDataOut* out) {
    const int n = p_->ncols();
    if (!out->mip_solution || out->mip_solution_size < n) return;
    Results& r = p_->results;
    r.mipx.assign(out->mip_solution, out->mip_solution + n);
    double itol = ctl_dbl(p_, TRVO_MIPTOL);
    for (int j = 0; j < n; ++j) {
        char t = p_->coltype[static_cast<size_t>(j)];
        if (t == 'I' || t == 'B' || t == 'R') {
            double v = std::round(r.mipx[static_cast<size_t>(j)]);
            if (std::fabs(v - r.mipx[static_cast<size_t>(j)]) <= itol) r.mipx[static_cast<size_t>(j)] = v;
        }
    }
    r.mipslack.assign(static_cast<size_t>(p_->nrows()), 0.0);
    slacks_at(p_, r.mipx.data(), r.mipslack.data());
    r.mipobjval = r.mipbestobjval = objective_at(p_, r.mipx.data());
    r.have_mip = true;
    ++r.mipsols;
    fire_intsol(p_);
}

// gapnotify: called when the bounds HiGHS reports change, with the current targets; when one
// of them is met the search stops (stop reason: MIP gap).
void SolveCallbacks::gap_check(const HighsCallbackDataOut* out, HighsCallbackDataIn* in) {
    double primal = out->mip_primal_bound, dual = out->mip_dual_bound;
    if (primal == last_primal_ && dual == last_dual_) return;
    last_primal_ = primal;
    last_dual_ = dual;
    fire_gapnotify(p_, targets_);
    if (p_->stop_request.load() != 0) return;
    if (!std::isfinite(primal)) return;  // no incumbent: no gap and no objective yet
    // HiGHS minimises; user-space values come back through the model's sign.
    double obj = model_.sign * primal, bound = model_.sign * dual;
    double absgap = std::fabs(primal - dual);
    double relgap = absgap / std::max(std::fabs(primal), 1e-10);
    bool met = (targets_[0] >= 0 && relgap <= targets_[0]) || (targets_[1] >= 0 && absgap <= targets_[1]) ||
               (p_->objsense > 0 ? obj <= targets_[2] : obj >= targets_[2]) ||
               (std::isfinite(dual) && (p_->objsense > 0 ? bound >= targets_[3] : bound <= targets_[3]));
    if (met) request_stop(in, TRVO_STOP_MIPGAP);
}

int SolveCallbacks::verdict(const UserSolution& s, std::vector<double>& full) const {
    const int n = p_->ncols();
    if (model_.ncol != n) return 2;
    full.assign(static_cast<size_t>(n), 0.0);
    std::vector<char> given(static_cast<size_t>(n), 0);
    for (const auto& e : s.values) {
        if (e.first < 0 || e.first >= n) return 2;
        full[static_cast<size_t>(e.first)] = e.second;
        given[static_cast<size_t>(e.first)] = 1;
    }
    // Columns without a value take the bound nearest to zero.
    for (int j = 0; j < n; ++j) {
        size_t k = static_cast<size_t>(j);
        if (!given[k]) full[k] = std::min(std::max(0.0, p_->lb[k]), p_->ub[k]);
    }
    double ftol = ctl_dbl(p_, TRVO_FEASTOL), itol = ctl_dbl(p_, TRVO_MIPTOL);
    for (int j = 0; j < n; ++j) {
        size_t k = static_cast<size_t>(j);
        double x = full[k];
        char t = p_->coltype[k];
        bool zero_ok = (t == 'S' || t == 'R') && std::fabs(x) <= ftol;
        if (!zero_ok && (x < p_->lb[k] - ftol || x > p_->ub[k] + ftol)) return 1;
        if ((t == 'I' || t == 'B' || t == 'R') && std::fabs(x - std::round(x)) > itol) return 1;
    }
    for (int i = 0; i < p_->nrows(); ++i) {
        double lo, up, act = activity_at(p_, i, full.data());
        row_bounds(p_, i, lo, up);
        if (act < lo - ftol * std::max(1.0, std::fabs(lo)) || act > up + ftol * std::max(1.0, std::fabs(up)))
            return 1;
    }
    return 0;
}

// HiGHS asks for user solutions at several points of its run: each time the next queued one
// is judged, offered to HiGHS when feasible, and reported.
void SolveCallbacks::offer_user_solution(HighsCallbackDataIn* in) {
    while (next_usersol_ < usersols_.size()) {
        const UserSolution& s = usersols_[next_usersol_++];
        int status = verdict(s, usersol_buf_);
        if (status == 0) {
            in->user_solution = usersol_buf_.data();
            in->user_solution_size = static_cast<HighsInt>(usersol_buf_.size());
            in->user_has_solution = 1;  // the C interface does not set it itself
        }
        fire_usersolnotify(p_, s.name.c_str(), status);
        if (status == 0) return;  // HiGHS takes one solution per call
    }
}

void SolveCallbacks::finish() {
    std::vector<double> full;
    while (next_usersol_ < usersols_.size()) {
        const UserSolution& s = usersols_[next_usersol_++];
        if (p_->stop_request.load() != 0) continue;
        fire_usersolnotify(p_, s.name.c_str(), verdict(s, full));
    }
}

}  // namespace trvo
