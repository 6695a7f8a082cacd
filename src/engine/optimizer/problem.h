// Internal layout of an optimisation problem and the helpers every engine file shares.
#pragma once

#include "library_interface/trvo.h"
#include "engine/optimizer/row_matrix.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace trvo {

struct CutPool;  // cuts.h
struct BranchingStore;  // directives and stored branching objects (branching.h)

// A failure inside the engine; caught at the C boundary and recorded as the last error.
struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};
[[noreturn]] void fail(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

constexpr double kInf = TRVO_INFINITY;
inline bool is_inf(double v) { return v >= kInf || v <= -kInf; }

// Names of one kind (rows, columns or sets). Each entry costs one 64-bit tag: no name (the
// generated name <prefix><position + 1> is used), a name of the generated form <letter><number>
// kept as that number (the names the module gives unnamed objects), or an index into the
// texts of the other names. Only those texts are indexed for lookup at once; numbered names
// are indexed lazily, on the first lookup after a change.
struct NameList {
    std::vector<int64_t> tags;       // kNoName, a numbered name, or kText - k for texts[k]
    std::vector<std::string> texts;  // names that are not of the numbered form
    std::unordered_map<std::string, int> index;  // texts -> entry

    static constexpr int64_t kNoName = -1;
    static constexpr int64_t kText = -2;

    void resize(size_t n) { tags.resize(n, kNoName); }
    size_t size() const { return tags.size(); }
    bool unnamed(int i) const { return tags[static_cast<size_t>(i)] == kNoName; }
    void set(int i, const std::string& name);
    void set(int i, const char* name, size_t len);
    std::string get(int i, char prefix) const;  // the name, or a generated one
    void erase(const std::vector<char>& drop);  // drop[i] != 0: remove entry i
    void truncate(size_t n);                    // keeps the first n entries
    int find(const std::string& name) const;
    size_t longest() const;

private:
    mutable std::unordered_map<int64_t, int> numbered_;  // numbered tag -> entry, built lazily
    mutable bool numbered_valid_ = false;
};

// Pair key (i <= j) for quadratic maps.
using QKey = std::pair<int, int>;
using QMap = std::map<QKey, double>;
inline QKey qkey(int i, int j) { return i <= j ? QKey(i, j) : QKey(j, i); }

struct Sos {
    char type = '1';
    std::vector<int> cols;
    std::vector<double> weights;
};

struct Indicator {
    int col = -1;
    int comp = 0;  // 1: row holds when col is 1; -1: when col is 0
};

// A general constraint resultant = f(cols, vals), f by type (0 max, 1 min, 2 and, 3 or, 4 abs).
struct GenCons {
    int type = 0;
    int resultant = -1;
    std::vector<int> cols;
    std::vector<double> vals;
};

// A piecewise-linear constraint resultant = f(col) through the breakpoints (x[k], y[k]).
struct PwlCons {
    int col = -1, resultant = -1;
    std::vector<double> x, y;
};

struct Iis {
    std::vector<int> rows, cols;
    std::vector<char> rowside, colbound;  // 'L', 'G', 'E' / 'L', 'U', 'B'
    std::vector<double> duals, rdcs;
    double suminfeas = 0;
    int numinfeas = 0;
};

struct Controls {
    std::map<int, int64_t> ints;
    std::map<int, double> dbls;
    std::map<int, std::string> strs;
};

struct MessageCallback {
    TRVOcbmessage f;
    void* context;
    int priority;
};

// A registered solve callback of one of the kinds 0 to 18 (the function's type follows the kind).
struct SolveCallback {
    void* f;
    void* context;
    int priority;
};
constexpr int kSolveCallbackKinds = 19;

// A named solution queued by TRVOaddmipsol, offered to the next MIP solve.
struct UserSolution {
    std::string name;
    std::vector<std::pair<int, double>> values;
};

// The last solve's results, always in the user's rows and columns.
struct Results {
    int lpstatus = TRVO_LP_UNSTARTED;
    int mipstatus = TRVO_MIP_NOT_LOADED;
    int solvestatus = TRVO_SOLVESTATUS_UNSTARTED;
    int stopstatus = TRVO_STOP_NONE;
    int64_t simplexiter = 0, bariter = 0, nodes = 0, mipsols = 0;
    double lpobjval = 0, mipobjval = 0, bestbound = 0, mipbestobjval = 0, objval = 0, time = 0;
    bool have_lp = false, have_mip = false, have_duals = false;
    std::vector<double> x, slack, dual, dj;     // LP solution
    std::vector<double> mipx, mipslack;         // best MIP solution
};

// Values at a given point x (user's columns).
double objective_at(TRVOprob p, const double* x);
double activity_at(TRVOprob p, int row, const double* x);
void slacks_at(TRVOprob p, const double* x, double* slack);

// One combination of control values the tuner tries: for LPs (kind 1), MIPs (kind 2) or both
// (kind 0); each setting is a control id and its value (integer controls hold whole numbers).
struct TunerCandidate {
    int kind = 0;
    std::vector<std::pair<int, double>> settings;
};

}  // namespace trvo

struct trvo_problem_s {
    uint32_t magic;
    std::string name;
    std::string last_error;

    // Columns.
    std::vector<double> lb, ub, obj, limit;
    std::vector<char> coltype;
    // Number of columns whose type is not 'C'; -1 when it must be counted again (after a
    // change that replaced or compacted coltype). Kept so the count costs O(1) per query.
    mutable int64_t mipents = 0;
    double objconst = 0;  // the objective constant (chgobj of column -1 stores its negation)
    int objsense = 1;
    // Rows.
    std::vector<char> rowtype;
    std::vector<double> rhs, range;
    // Matrix by rows, each row sorted by column, no zeros (row_matrix.h).
    trvo::RowMatrix matrix;
    // Quadratic objective (upper triangle of Q, objective c'x + 0.5 x'Qx).
    trvo::QMap qobj;
    // Quadratic rows: row -> upper triangle of its Q (row quadratic part x'Qx).
    std::map<int, trvo::QMap> qrows;
    std::vector<trvo::Sos> sets;
    std::map<int, trvo::Indicator> indicators;
    std::vector<trvo::GenCons> gencons;
    std::vector<trvo::PwlCons> pwlcons;
    trvo::NameList rownames, colnames, setnames;

    trvo::Controls controls;
    trvo::Results results;
    std::vector<trvo::MessageCallback> msgcbs;
    std::vector<trvo::SolveCallback> solvecbs[trvo::kSolveCallbackKinds];  // by kind
    std::mutex cb_mutex;  // guards solvecbs (the engine reads them while a solve runs)
    std::vector<trvo::UserSolution> user_solutions;

    // Starts and bases for the next solve.
    std::vector<int> start_rbasis, start_cbasis;              // from TRVOloadbasis
    std::vector<std::pair<int, double>> mip_start;            // from loadmipsol / addmipsol
    // Infeasible subsystems found by the IIS functions.
    std::vector<trvo::Iis> iis;
    std::string logfile;
    // Message numbers and whether their messages reach the log (0: suppressed); numbers not
    // listed are shown (TRVOsetmessagestatus).
    std::map<int, int> message_status;
    // The candidates TRVOtune tries (TRVOtunerreadmethod); empty: the built-in set.
    std::vector<trvo::TunerCandidate> tuner_method;
    // Branching directives and stored branching objects, created on first use.
    std::shared_ptr<trvo::BranchingStore> branching;

    // Solving.
    std::atomic<int> stop_request{0};     // a stop reason set by TRVOinterrupt, 0 none
    void* highs = nullptr;                // the HiGHS instance, created at the first solve
    // Dimensions of the model last handed to HiGHS, to reuse its basis on a re-solve.
    int highs_cols = -1, highs_rows = -1;
    bool highs_has_lp = false;  // the instance holds the user's LP from the last lpoptimize
    // The cut pool, stored bounds and lazy rows (cuts.cpp), made on first use.
    std::shared_ptr<trvo::CutPool> cutpool;
    // Secure vectors, scaling factors and the last barrier solution (trvo::Views, views.h).
    std::shared_ptr<void> views;

    int ncols() const { return static_cast<int>(lb.size()); }
    int nrows() const { return static_cast<int>(rowtype.size()); }
};

namespace trvo {

constexpr uint32_t kProblemMagic = 0x7472766fu;

// Runs body and turns any failure into a recorded error and a non-zero return.
int guard(TRVOprob prob, const std::function<void()>& body);
// As guard, for functions without a problem: errors go to the global last error.
int guard_global(const std::function<void()>& body);
void set_global_error(int code, const std::string& text);

// Checks used by many entry points; they throw Error.
void check_col(TRVOprob p, int j);
void check_row(TRVOprob p, int i);
void check_range(int first, int last, int n, const char* what);

// Controls.
int64_t ctl_int(TRVOprob p, int id);
double ctl_dbl(TRVOprob p, int id);
void controls_set_defaults(TRVOprob p);

// Number of columns whose type is not 'C' (counted again only after a change of types).
int64_t mip_entities(TRVOprob p);

// Sends a message through the problem's callbacks (when OUTPUTLOG allows it and its message
// number, when it has one, is not suppressed with TRVOsetmessagestatus).
void emit_message(TRVOprob p, const char* msg, int msgtype, int number = 0);
// Whether messages of this number reach the log (engine/optimizer/messages.cpp).
bool message_shown(TRVOprob p, int number);

// Sizes the result vectors to the problem; results whose dimensions no longer fit are
// zeroed and marked unavailable. Called where results are about to be written (O(size)).
void results_resize(TRVOprob p);
// Returns the free pages of the C heap to the system when a model of `items` columns, rows
// and entries is about to be handed to HiGHS (below a size where it matters, nothing is done).
// Building a large model frees many temporaries whose memory the allocator keeps; HiGHS's run
// allocates on threads of its own, from other heaps, so without this the solve's peak carries
// that freed memory on top of HiGHS's own.
void release_free_heap(int64_t items);
// At the start of a solve: marks the problem's entity count for recounting and, when the
// result vectors no longer fit the problem, frees them and marks the results unavailable.
void results_drop_unfit(TRVOprob p);
// Sizes each result vector that does not fit the problem (zeros), leaving the others and the
// availability marks alone: the solve then writes the results it has.
void results_fit(TRVOprob p);
// After a structural change: drops results whose dimensions no longer fit without
// touching the vectors' contents, so adding one row or column costs O(1).
void results_invalidate(TRVOprob p);

// Store operations shared by loading, reading files and copying.
void store_clear(TRVOprob p);
// Appends columns / rows without matrix entries (null arrays: defaults).
void store_add_cols(TRVOprob p, int ncols, const double* obj, const double* lb,
                    const double* ub);
void store_add_rows(TRVOprob p, int nrows, const char* type, const double* rhs,
                    const double* range);
// Replaces the whole content (column-wise matrix; without mnel, mstart has ncol + 1 entries).
void load_problem(TRVOprob p, const char* probname, int ncol, int nrow, const char* qrtype,
                  const double* rhs, const double* range, const double* obj,
                  const int64_t* mstart, const int* mnel, const int* mrwind,
                  const double* dmatval, const double* dlb, const double* dub);
// Index list -> deletion marks (checked).
std::vector<char> marks(int n, int count, const int* index, const char* what);
void delete_rows(TRVOprob p, const std::vector<char>& drop);
bool delete_last_rows(TRVOprob p, int count, const int* index);
void delete_cols(TRVOprob p, const std::vector<char>& drop);
// Directives follow their columns (newidx: new index of each old column, -1 deleted; directives.cpp).
void branching_delete_cols(TRVOprob p, const std::vector<int>& newidx);
// A problem copy takes the directives (not the stored branching objects, which belong to src).
void branching_copy(TRVOprob dest, TRVOprob src);
void set_coef(TRVOprob p, int i, int j, double v);

// Values at a given point x (user's columns).
double objective_at(TRVOprob p, const double* x);
double activity_at(TRVOprob p, int row, const double* x);
void slacks_at(TRVOprob p, const double* x, double* slack);

}  // namespace trvo
