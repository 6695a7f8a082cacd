// Global environment of the nonlinear library: reference-counted start and release, the last
// error of calls without a problem, and the shared error and message helpers.
#include "engine/slp/problem.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {
std::mutex env_mutex;
int env_refcount = 0;
std::mutex global_error_mutex;
std::string global_error;
int global_code = 0;
}  // namespace

namespace slp {

void set_error(TSLPprob prob, const std::string& msg, int code) {
    if (prob) {
        prob->last_error = msg;
        prob->last_error_code = code;
    } else {
        std::lock_guard<std::mutex> g(global_error_mutex);
        global_error = msg;
        global_code = code;
    }
}

std::string global_error_text() {
    std::lock_guard<std::mutex> g(global_error_mutex);
    return global_error;
}

int global_error_code() {
    std::lock_guard<std::mutex> g(global_error_mutex);
    return global_code;
}

bool environment_started() {
    std::lock_guard<std::mutex> g(env_mutex);
    return env_refcount > 0;
}

void check_prob(TSLPprob prob) {
    if (!prob) throw Error("No nonlinear problem given");
}

void message(TSLPprob prob, int msgtype, const std::string& text) {
    if (!prob) return;
    PhaseScope timed(prob->profile, PH_LOG);
    // The optimiser problem's OUTPUTLOG switches output off for both libraries: information
    // lines are dropped then, warnings and errors still go out (as for the optimiser's own).
    // Its message status (number TRVO_MSG_NONLINEAR_LOG) suppresses them all.
    int outputlog = 1, shown = 1;
    if (msgtype < 3 && prob->trvo && TRVOgetintcontrol(prob->trvo, TRVO_OUTPUTLOG, &outputlog) == 0 &&
        outputlog == 0)
        return;
    if (prob->trvo && TRVOgetmessagestatus(prob->trvo, TRVO_MSG_NONLINEAR_LOG, &shown) == 0 && !shown)
        return;
    if (prob->cb.message.f)
        prob->cb.message.f(prob, prob->cb.message.context, text.c_str(), (int)text.size(),
                           msgtype);
}

void logf(TSLPprob prob, int level, const char* fmt, ...) {
    if (!prob || !prob->cb.message.f || int_control(prob, TSLP_LOG) < level) return;
    PhaseScope timed(prob->profile, PH_LOG);
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    message(prob, 1, buf);
}

}  // namespace slp

extern "C" {

int TSLPinit(void) {
    std::lock_guard<std::mutex> g(env_mutex);
    ++env_refcount;
    return 0;
}

int TSLPfree(void) {
    std::lock_guard<std::mutex> g(env_mutex);
    if (env_refcount == 0) {
        std::lock_guard<std::mutex> g2(global_error_mutex);
        global_error = "The nonlinear library is not started";
        global_code = 1;
        return 1;
    }
    --env_refcount;
    return 0;
}

int TSLPgetversion(char* version) {
    if (!version) return 1;
    std::snprintf(version, 16, "%s", "1.0.0");
    return 0;
}

int TSLPgetlasterror(TSLPprob prob, int* code, char* msg) {
    std::string text = prob ? prob->last_error : slp::global_error_text();
    int c = prob ? prob->last_error_code : slp::global_error_code();
    if (code) *code = c;
    if (msg) std::snprintf(msg, 512, "%s", text.c_str());
    return 0;
}

}  // extern "C"
