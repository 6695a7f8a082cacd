// Problem objects: creation, copying, destruction, names, last error, interrupts and the
// per-problem message callbacks.
#include "engine/optimizer/problem.h"
#include "engine/optimizer/environment.h"
#include "engine/optimizer/highs_instances.h"
#include "engine/optimizer/cuts.h"
#include "engine/optimizer/views.h"

#include <cxxabi.h>
#include <algorithm>
#include <cstdio>
#include <cstring>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace trvo {

// ---- names

namespace {

// A numbered name: one letter and a number without leading zeros below 2^48, packed with the
// letter as a non-negative tag; -1 when the name has another form.
int64_t numbered_tag(const char* s, size_t len) {
    if (len < 2 || len > 16) return -1;
    unsigned char c = static_cast<unsigned char>(s[0]);
    if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'))) return -1;
    if (s[1] < '1' || s[1] > '9') return -1;
    int64_t v = 0;
    for (size_t k = 1; k < len; ++k) {
        if (s[k] < '0' || s[k] > '9') return -1;
        v = v * 10 + (s[k] - '0');
        if (v >= (int64_t(1) << 48)) return -1;
    }
    return (static_cast<int64_t>(c) << 48) | v;
}

std::string numbered_text(int64_t tag) {
    char buf[24];
    int n = std::snprintf(buf, sizeof buf, "%c%lld", static_cast<char>(tag >> 48),
                          static_cast<long long>(tag & ((int64_t(1) << 48) - 1)));
    return std::string(buf, static_cast<size_t>(n));
}

}  // namespace

void NameList::set(int i, const char* name, size_t len) {
    int64_t& tag = tags[static_cast<size_t>(i)];
    if (tag <= kText) {
        auto& cur = texts[static_cast<size_t>(kText - tag)];
        auto it = index.find(cur);
        if (it != index.end() && it->second == i) index.erase(it);
        // The old text stays in texts until the next compaction; an entry reuses its own slot.
        if (len > 0 && numbered_tag(name, len) < 0) {
            cur.assign(name, len);
            index[cur] = i;
            return;
        }
        cur.clear();
    }
    if (tag >= 0 || numbered_valid_) numbered_valid_ = false;
    if (len == 0) {
        tag = kNoName;
        return;
    }
    int64_t t = numbered_tag(name, len);
    if (t >= 0) {
        tag = t;
        numbered_valid_ = false;
        return;
    }
    texts.emplace_back(name, len);
    tag = kText - static_cast<int64_t>(texts.size() - 1);
    index[texts.back()] = i;
}

void NameList::set(int i, const std::string& name) { set(i, name.data(), name.size()); }

std::string NameList::get(int i, char prefix) const {
    int64_t tag = tags[static_cast<size_t>(i)];
    if (tag >= 0) return numbered_text(tag);
    if (tag <= kText) return texts[static_cast<size_t>(kText - tag)];
    return std::string(1, prefix) + std::to_string(i + 1);
}

void NameList::erase(const std::vector<char>& drop) {
    std::vector<std::string> kept;
    index.clear();
    size_t out = 0;
    for (size_t i = 0; i < tags.size(); ++i) {
        if (drop[i]) continue;
        int64_t tag = tags[i];
        if (tag <= kText) {
            kept.push_back(std::move(texts[static_cast<size_t>(kText - tag)]));
            tag = kText - static_cast<int64_t>(kept.size() - 1);
            index[kept.back()] = static_cast<int>(out);
        }
        tags[out++] = tag;
    }
    tags.resize(out);
    texts.swap(kept);
    numbered_valid_ = false;
    numbered_.clear();
}

void NameList::truncate(size_t n) {
    for (size_t i = n; i < tags.size(); ++i) {
        if (tags[i] >= 0) numbered_valid_ = false;
        if (tags[i] > kText) continue;
        auto& text = texts[static_cast<size_t>(kText - tags[i])];
        auto it = index.find(text);
        if (it != index.end() && it->second == static_cast<int>(i)) index.erase(it);
        text.clear();  // the slot is reclaimed by the next compaction
    }
    if (n < tags.size()) tags.resize(n);
    while (!texts.empty() && texts.back().empty()) texts.pop_back();  // orphaned slots only
}

int NameList::find(const std::string& name) const {
    int64_t t = numbered_tag(name.data(), name.size());
    if (t < 0) {
        auto it = index.find(name);
        return it == index.end() ? -1 : it->second;
    }
    if (!numbered_valid_) {
        numbered_.clear();
        for (size_t i = 0; i < tags.size(); ++i)
            if (tags[i] >= 0) numbered_[tags[i]] = static_cast<int>(i);
        numbered_valid_ = true;
    }
    auto it = numbered_.find(t);
    return it == numbered_.end() ? -1 : it->second;
}

size_t NameList::longest() const {
    size_t m = 0;
    for (size_t i = 0; i < tags.size(); ++i) {
        int64_t tag = tags[i];
        size_t len;
        if (tag >= 0) len = 1 + std::to_string(tag & ((int64_t(1) << 48) - 1)).size();
        else if (tag <= kText) len = texts[static_cast<size_t>(kText - tag)].size();
        else len = std::to_string(i + 1).size() + 1;
        m = std::max(m, len);
    }
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

void emit_message(TRVOprob p, const char* msg, int msgtype, int number) {
    if (ctl_int(p, TRVO_OUTPUTLOG) == 0 && msgtype < 3) return;
    if (number > 0 && !message_shown(p, number)) return;
    int len = msg ? static_cast<int>(std::strlen(msg)) : 0;
    if (msg && !p->logfile.empty()) {
        if (FILE* f = std::fopen(p->logfile.c_str(), "a")) {
            std::fprintf(f, "%s\n", msg);
            std::fclose(f);
        }
    }
    auto cbs = p->msgcbs;  // a callback may remove itself
    for (const auto& cb : cbs) cb.f(p, cb.context, msg, len, msgtype);
    send_global_message(p, msg, msgtype, number);
}

void results_resize(TRVOprob p) {
    p->mipents = -1;  // callers replaced the problem's content (load, read, copy, solve)
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

void release_free_heap(int64_t items) {
    // Trimming walks the heaps' free lists (a few milliseconds after a million-row build);
    // small models are solved again and again, by callbacks and tests, and gain nothing.
    constexpr int64_t kTrimItems = 65536;
    if (items < kTrimItems) return;
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
}

void results_drop_unfit(TRVOprob p) {
    p->mipents = -1;
    auto& r = p->results;
    size_t n = static_cast<size_t>(p->ncols()), m = static_cast<size_t>(p->nrows());
    if (r.x.size() == n && r.dj.size() == n && r.mipx.size() == n && r.slack.size() == m &&
        r.dual.size() == m && r.mipslack.size() == m)
        return;
    for (auto* v : {&r.x, &r.dj, &r.mipx, &r.slack, &r.dual, &r.mipslack}) std::vector<double>().swap(*v);
    r.have_lp = r.have_mip = r.have_duals = false;
}

void results_fit(TRVOprob p) {
    auto& r = p->results;
    size_t n = static_cast<size_t>(p->ncols()), m = static_cast<size_t>(p->nrows());
    for (auto* v : {&r.x, &r.dj, &r.mipx})
        if (v->size() != n) v->assign(n, 0.0);
    for (auto* v : {&r.slack, &r.dual, &r.mipslack})
        if (v->size() != m) v->assign(m, 0.0);
}

int64_t mip_entities(TRVOprob p) {
    if (p->mipents < 0) {
        int64_t n = 0;
        for (char t : p->coltype) n += t != 'C';
        p->mipents = n;
    }
    return p->mipents;
}

void results_invalidate(TRVOprob p) {
    auto& r = p->results;
    size_t n = static_cast<size_t>(p->ncols()), m = static_cast<size_t>(p->nrows());
    if (r.x.size() == n && r.slack.size() == m) return;
    if (r.x.empty() && r.slack.empty() && r.dj.empty() && r.dual.empty() && r.mipx.empty() &&
        r.mipslack.empty())
        return;
    // Clearing keeps the capacity, so building after a solve does not reallocate.
    r.x.clear(); r.dj.clear(); r.mipx.clear();
    r.slack.clear(); r.dual.clear(); r.mipslack.clear();
    r.have_lp = r.have_mip = r.have_duals = false;
}

void store_clear(TRVOprob p) {
    p->lb.clear(); p->ub.clear(); p->obj.clear(); p->limit.clear(); p->coltype.clear();
    p->objconst = 0;
    p->rowtype.clear(); p->rhs.clear(); p->range.clear();
    p->matrix.clear();
    p->qobj.clear(); p->qrows.clear(); p->sets.clear(); p->indicators.clear();
    p->gencons.clear(); p->pwlcons.clear();
    p->rownames = NameList(); p->colnames = NameList(); p->setnames = NameList();
    p->results = Results();
    p->iis.clear();
    p->mip_start.clear();
    p->start_rbasis.clear();
    p->start_cbasis.clear();
    p->branching.reset();
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
        dest->matrix = src->matrix;
        dest->qobj = src->qobj; dest->qrows = src->qrows; dest->sets = src->sets;
        dest->indicators = src->indicators;
        branching_copy(dest, src);
        cuts_copy(dest, src);
        views_copy(dest, src);
        dest->gencons = src->gencons; dest->pwlcons = src->pwlcons;
        dest->rownames = src->rownames; dest->colnames = src->colnames;
        dest->setnames = src->setnames;
        dest->controls = src->controls;
        dest->message_status = src->message_status;
        dest->tuner_method = src->tuner_method;
        // What was loaded for the next solve goes with the copy (a basis, a MIP start and
        // solutions to offer); the results of the source's solves do not: the copy starts
        // unsolved, without a solution, basis or interior-point solution (views_copy).
        dest->start_rbasis = src->start_rbasis;
        dest->start_cbasis = src->start_cbasis;
        dest->mip_start = src->mip_start;
        dest->user_solutions = src->user_solutions;
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
