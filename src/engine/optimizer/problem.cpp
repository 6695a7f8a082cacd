// Problem objects: creation, copying, destruction, names, last error, interrupts and the
// per-problem message callbacks.
#include "engine/optimizer/problem.h"
#include "engine/optimizer/environment.h"
#include "engine/optimizer/highs_instances.h"

#include <cxxabi.h>
#include <algorithm>
#include <cstdio>
#include <cstring>

namespace trvo {

// ---- names

void NameList::set(int i, const std::string& name) {
    auto& cur = names[static_cast<size_t>(i)];
    if (!cur.empty()) {
        auto it = index.find(cur);
        if (it != index.end() && it->second == i) index.erase(it);
    }
    cur = name;
    if (!name.empty()) index[name] = i;
}

std::string NameList::get(int i, char prefix) const {
    const auto& n = names[static_cast<size_t>(i)];
    if (!n.empty()) return n;
    return std::string(1, prefix) + std::to_string(i + 1);
}

void NameList::erase(const std::vector<char>& drop) {
    size_t out = 0;
    for (size_t i = 0; i < names.size(); ++i) {
        if (drop[i]) continue;
        if (out != i) names[out] = std::move(names[i]);
        ++out;
    }
    names.resize(out);
    rebuild_index();
}

void NameList::rebuild_index() {
    index.clear();
    for (size_t i = 0; i < names.size(); ++i)
        if (!names[i].empty()) index[names[i]] = static_cast<int>(i);
}

int NameList::find(const std::string& name) const {
    auto it = index.find(name);
    return it == index.end() ? -1 : it->second;
}

size_t NameList::longest() const {
    size_t m = 0;
    for (size_t i = 0; i < names.size(); ++i)
        m = std::max(m, names[i].empty() ? std::to_string(i + 1).size() + 1 : names[i].size());
    return m;
}

// ---- errors and checks

int guard(TRVOprob prob, const std::function<void()>& body) {
    if (!prob || prob->magic != kProblemMagic) {
        set_global_error(1, "Invalid problem handle");
        return 1;
    }
    try {
        body();
        return 0;
    } catch (abi::__forced_unwind&) {
        throw;  // a thread being ended (pthread_exit) must unwind to its end
    } catch (const std::bad_alloc&) {
        prob->last_error = "Out of memory";
    } catch (const std::exception& e) {
        prob->last_error = e.what();
    } catch (...) {
        prob->last_error = "Unknown failure";
    }
    set_global_error(1, prob->last_error);
    return 1;
}

void check_col(TRVOprob p, int j) {
    if (j < 0 || j >= p->ncols()) fail("Column index %d out of range (0 to %d)", j, p->ncols() - 1);
}

void check_row(TRVOprob p, int i) {
    if (i < 0 || i >= p->nrows()) fail("Row index %d out of range (0 to %d)", i, p->nrows() - 1);
}

void check_range(int first, int last, int n, const char* what) {
    if (first < 0 || last >= n || first > last + 1)
        fail("Invalid range of %s: %d to %d (there are %d)", what, first, last, n);
}

void emit_message(TRVOprob p, const char* msg, int msgtype) {
    if (ctl_int(p, TRVO_OUTPUTLOG) == 0 && msgtype < 3) return;
    int len = msg ? static_cast<int>(std::strlen(msg)) : 0;
    if (msg && !p->logfile.empty()) {
        if (FILE* f = std::fopen(p->logfile.c_str(), "a")) {
            std::fprintf(f, "%s\n", msg);
            std::fclose(f);
        }
    }
    auto cbs = p->msgcbs;  // a callback may remove itself
    for (const auto& cb : cbs) cb.f(p, cb.context, msg, len, msgtype);
    send_global_message(p, msg, msgtype, 0);
}

void results_resize(TRVOprob p) {
    auto& r = p->results;
    size_t n = static_cast<size_t>(p->ncols()), m = static_cast<size_t>(p->nrows());
    if (r.x.size() != n || r.dj.size() != n || r.mipx.size() != n) {
        r.x.assign(n, 0.0);
        r.dj.assign(n, 0.0);
        r.mipx.assign(n, 0.0);
        r.have_lp = r.have_mip = r.have_duals = false;
    }
    if (r.slack.size() != m || r.dual.size() != m || r.mipslack.size() != m) {
        r.slack.assign(m, 0.0);
        r.dual.assign(m, 0.0);
        r.mipslack.assign(m, 0.0);
        r.have_lp = r.have_mip = r.have_duals = false;
    }
}

void store_clear(TRVOprob p) {
    p->lb.clear(); p->ub.clear(); p->obj.clear(); p->limit.clear(); p->coltype.clear();
    p->objconst = 0;
    p->rowtype.clear(); p->rhs.clear(); p->range.clear();
    p->matrix.clear(); p->nnz = 0;
    p->qobj.clear(); p->qrows.clear(); p->sets.clear(); p->indicators.clear();
    p->rownames = NameList(); p->colnames = NameList(); p->setnames = NameList();
    p->results = Results();
    p->iis.clear();
    p->mip_start.clear();
    p->start_rbasis.clear();
    p->start_cbasis.clear();
    results_resize(p);
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOcreateprob(TRVOprob* prob) {
    return guard_global([&] {
        if (!prob) fail("No output argument for the new problem");
        *prob = nullptr;
        auto* p = new trvo_problem_s();
        p->magic = kProblemMagic;
        controls_set_defaults(p);
        *prob = p;
    });
}

int TRVOdestroyprob(TRVOprob prob) {
    if (!prob || prob->magic != kProblemMagic) {
        set_global_error(1, "Invalid problem handle");
        return 1;
    }
    prob->magic = 0;
    if (prob->highs) highs_release(prob->highs);
    delete prob;
    return 0;
}

int TRVOcopyprob(TRVOprob dest, TRVOprob src, const char* probname) {
    if (!src || src->magic != kProblemMagic) {
        set_global_error(1, "Invalid source problem");
        return 1;
    }
    return guard(dest, [&] {
        if (dest == src) fail("A problem cannot be copied onto itself");
        dest->name = probname ? probname : "";
        dest->lb = src->lb; dest->ub = src->ub; dest->obj = src->obj; dest->limit = src->limit;
        dest->coltype = src->coltype; dest->objconst = src->objconst;
        dest->objsense = src->objsense;
        dest->rowtype = src->rowtype; dest->rhs = src->rhs; dest->range = src->range;
        dest->matrix = src->matrix; dest->nnz = src->nnz;
        dest->qobj = src->qobj; dest->qrows = src->qrows; dest->sets = src->sets;
        dest->indicators = src->indicators;
        dest->rownames = src->rownames; dest->colnames = src->colnames;
        dest->setnames = src->setnames;
        dest->controls = src->controls;
        dest->results = Results();
        results_resize(dest);
    });
}

int TRVOcopycontrols(TRVOprob dest, TRVOprob src) {
    if (!src || src->magic != kProblemMagic) {
        set_global_error(1, "Invalid source problem");
        return 1;
    }
    return guard(dest, [&] { dest->controls = src->controls; });
}

int TRVOsetprobname(TRVOprob prob, const char* probname) {
    return guard(prob, [&] { prob->name = probname ? probname : ""; });
}

int TRVOgetprobname(TRVOprob prob, char* probname) {
    return guard(prob, [&] {
        if (!probname) fail("No buffer for the problem name");
        std::memcpy(probname, prob->name.c_str(), prob->name.size() + 1);
    });
}

int TRVOgetlasterror(TRVOprob prob, char* msg) {
    return guard(prob, [&] {
        if (!msg) fail("No buffer for the error message");
        size_t n = std::min<size_t>(prob->last_error.size(), 511);
        std::memcpy(msg, prob->last_error.data(), n);
        msg[n] = '\0';
    });
}

int TRVOinterrupt(TRVOprob prob, int reason) {
    if (!prob || prob->magic != kProblemMagic) {
        set_global_error(1, "Invalid problem handle");
        return 1;
    }
    prob->stop_request.store(reason > 0 ? reason : TRVO_STOP_USER);
    return 0;
}

int TRVOaddcbmessage(TRVOprob prob, TRVOcbmessage f, void* context, int priority) {
    return guard(prob, [&] {
        if (!f) fail("No message callback given");
        auto& v = prob->msgcbs;
        auto pos = std::find_if(v.begin(), v.end(),
                                [&](const MessageCallback& c) { return c.priority < priority; });
        v.insert(pos, MessageCallback{f, context, priority});
    });
}

int TRVOremovecbmessage(TRVOprob prob, TRVOcbmessage f, void* context) {
    return guard(prob, [&] {
        auto& v = prob->msgcbs;
        v.erase(std::remove_if(v.begin(), v.end(),
                               [&](const MessageCallback& c) {
                                   return (!f || c.f == f) && (!context || c.context == context);
                               }),
                v.end());
    });
}

}  // extern "C"
