// Internal state of a nonlinear problem and the helpers every TSLP entry point shares.
#pragma once

#include "engine/slp/profile.h"
#include "library_interface/tslp.h"

#include <cxxabi.h>
#include <atomic>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace slp {

// Thrown inside the engine; turned into a recorded error and a non-zero return at the C
// boundary.
struct Error : std::runtime_error {
    int code;
    explicit Error(const std::string& msg, int c = 1) : std::runtime_error(msg), code(c) {}
};

// A formula in postfix token form (ended by an EOF token).
struct Tokens {
    std::vector<int> type;
    std::vector<double> value;
};

struct Coef {
    double factor = 1.0;
    Tokens formula;   // postfix
};

struct SlpVar {
    int detrow = -1;
    double initstepbound = 0.0;   // 0: automatic
    double stepbound = 0.0;       // current step bound (solver state)
    double penalty = 0.0;         // step-bound penalty (reserved; kept as given)
    double damp = 0.0;            // 0: the default damping
    double initvalue = 0.0;
    bool has_initvalue = false;
    double value = 0.0;           // last value the solver produced
    int tolset = -1;              // -1: default tolerances
    int history = 0;              // accepted steps in which the column converged in a row
    int converged = 0;            // 1 when the column met its tolerances at the last iteration
    int vartype = 0;              // user bits, kept as given
    int seqnum = 0;
    int cascadenlimit = -1;       // -1: the control's value
    int deltatype = 0;            // 0 continuous, 1 minimum step, 2 steps in multiples of deltavalue
    double deltavalue = 0.0;
};

struct TolSet {
    double tol[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
    int status = 0;   // bit i set: tol[i] is in force
};

struct UserFunc {
    std::string name;
    bool derivatives = false;     // the function returns its partial derivatives too
    TSLPuserfunc address = nullptr;
    void* object = nullptr;
    bool defined = false;
};

struct MsJob {
    std::string description;
    std::vector<int> ivcols;
    std::vector<double> ivvalues;
    bool random_start = false;    // draw initial values at random (presets)
    bool filtered = false;        // the least violated of several random points
    unsigned seed = 0;
    std::vector<std::pair<int, double>> controls;   // control id -> value (int or double)
    void* object = nullptr;
};

template <class F>
struct Callback {
    F f = nullptr;
    void* context = nullptr;
};

struct Callbacks {
    Callback<TSLPcbmessage> message;
    Callback<TSLPcbsimple> slpstart, slpend, iterstart, iterend, cascadestart, cascadeend,
        construct, destroy, slpnode, intsol;
    Callback<TSLPcbnode> optnode, prenode;
    Callback<TSLPcbcol> itervar, cascadevar, cascadevarfail;
    Callback<TSLPcbcoefevalerror> coefevalerror;
    Callback<TSLPcbdrcol> drcol;
    Callback<TSLPcbmsjob> msjobstart, msjobend;
    Callback<TSLPcbmswinner> mswinner;
};

// Per-row information of the last solve.
struct RowInfo {
    int numerrors = 0;          // iterations in which the row's error was positive
    double maxerror = 0.0;
    double totalerror = 0.0;
    double currenterror = 0.0;
    double penaltyfactor = 0.0;
    int pluscol = -1, minuscol = -1;   // error columns in the step problem
    double plusvalue = 0.0, minusvalue = 0.0, plusdj = 0.0, minusdj = 0.0;
};

// Per-column information of the last solve.
struct ColInfo {
    double rdj = 0.0;
    double delta = 0.0;
    double stepbound = 0.0;
    double sbdual = 0.0;
    bool slpvar = false;
};

struct Solution {
    std::vector<double> x, slack, dual, dj;
    std::vector<RowInfo> rows;
    std::vector<ColInfo> cols;
};

struct Controls {
    std::map<int, int> ints;
    std::map<int, double> dbls;
    std::map<int, std::string> strs;
};

}  // namespace slp

// What a user function sees while it is called.
struct tslp_funcobject_s {
    TSLPprob prob = nullptr;
    int index = 0;      // 1-based registered index
    int ninput = 0;
    int flags = 0;      // 0x1 value wanted, 0x2 derivatives wanted
};

struct tslp_problem_s {
    TRVOprob trvo = nullptr;
    std::string name;
    std::string last_error;
    int last_error_code = 0;

    slp::Controls controls;
    slp::Callbacks cb;

    // Nonlinear data, keyed by (row, column); column -1 is the equals column.
    std::map<std::pair<int, int>, slp::Coef> coefs;
    std::map<int, slp::SlpVar> vars;
    std::vector<slp::TolSet> tolsets;
    std::map<int, double> rowwt;
    std::map<int, int> rowstatus;
    std::map<std::pair<int, int>, double> dfs;   // (column, row) -> distribution factor
    std::vector<std::string> strings;            // TSLPsetstring; index i+1
    std::vector<slp::UserFunc> userfuncs;        // index i+1
    std::vector<slp::MsJob> msjobs;

    // Solver results and state.
    int nlpstatus = TSLP_NLP_UNSTARTED;
    int state = 0;
    int stopstatus = 0;
    int iter = 0, simplexiter = 0, mipiter = 0, mswinner = 0, penaltyerrors = 0;
    double objval = 0.0, errorcosts = 0.0, maxviolation = 0.0, currentpenalty = 0.0,
           time = 0.0, kktresidual = 0.0, validation_a = 0.0, validation_r = 0.0;
    slp::Solution sol;
    std::atomic<int> interrupt{0};
    std::mutex userfunc_mutex;   // serialises user-function calls when they are not thread safe
    slp::Profile profile;        // time by phase of the running solve (kept at log level 2 and above)
};

namespace slp {

// Records the message of a failure on the problem (or globally when prob is null).
void set_error(TSLPprob prob, const std::string& msg, int code = 1);
std::string global_error_text();
int global_error_code();
bool environment_started();

// Runs body, converting any exception into a recorded error and the return value 1.
template <class F>
int guard(TSLPprob prob, F&& body) {
    try {
        body();
        return 0;
    } catch (abi::__forced_unwind&) {
        throw;  // a thread being ended (pthread_exit) must unwind to its end
    } catch (const Error& e) {
        set_error(prob, e.what(), e.code);
    } catch (const std::bad_alloc&) {
        set_error(prob, "Out of memory");
    } catch (const std::exception& e) {
        set_error(prob, e.what());
    } catch (...) {
        set_error(prob, "Unknown internal error");
    }
    return 1;
}

// Throws when prob is null.
void check_prob(TSLPprob prob);

// Control values with their defaults.
int int_control(TSLPprob prob, int id);
double dbl_control(TSLPprob prob, int id);
void reset_controls(TSLPprob prob);

// Writes a message through the problem's message callback (msgtype 1 info, 3 warning,
// 4 error).
void message(TSLPprob prob, int msgtype, const std::string& text);
// printf-style log line at the given level of control TSLP_LOG.
void logf(TSLPprob prob, int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

}  // namespace slp
