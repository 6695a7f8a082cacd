// Global environment of the optimisation library: reference-counted start and release,
// version, banner, the last global error and the global message handlers.
#include "engine/optimizer/problem.h"
#include "engine/optimizer/environment.h"

#include "interfaces/highs_c_api.h"

#include <cxxabi.h>
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <pthread.h>

namespace trvo {
namespace {
std::mutex env_mutex;
int env_refcount = 0;
int last_error_code = 0;
std::string last_error_text;
int checked_mode = 1;
int arch_consistent = 0;

struct GlobalHandler {
    TRVOmsghandler f;
    void* context;
    int priority;
    uint64_t order;
    bool greeted;  // the handler had its first call (empty message, negative type)
};
std::mutex handler_mutex;
std::vector<GlobalHandler> handlers;  // highest priority first, then registration order
uint64_t handler_order = 0;

void copy_out(char* dst, const std::string& s, size_t cap) {
    if (!dst || cap == 0) return;
    size_t n = s.size() < cap - 1 ? s.size() : cap - 1;
    std::memcpy(dst, s.data(), n);
    dst[n] = '\0';
}
}  // namespace

void fail(const char* fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    throw Error(buf);
}

void set_global_error(int code, const std::string& text) {
    std::lock_guard<std::mutex> g(env_mutex);
    last_error_code = code;
    last_error_text = text;
}

int guard_global(const std::function<void()>& body) {
    try {
        body();
        return 0;
    } catch (abi::__forced_unwind&) {
        throw;  // a thread being ended (pthread_exit) must unwind to its end
    } catch (const std::bad_alloc&) {
        set_global_error(1, "Out of memory");
    } catch (const std::exception& e) {
        set_global_error(1, e.what());
    } catch (...) {
        set_global_error(1, "Unknown failure");
    }
    return 1;
}

bool env_started() {
    std::lock_guard<std::mutex> g(env_mutex);
    return env_refcount > 0;
}

int check_mode() {
    std::lock_guard<std::mutex> g(env_mutex);
    return checked_mode;
}

void send_global_message(void* object, const char* msg, int msgtype, int number) {
    std::vector<GlobalHandler> copy;
    {
        std::lock_guard<std::mutex> g(handler_mutex);
        copy = handlers;
        for (auto& h : handlers) h.greeted = true;
    }
    void* thread = reinterpret_cast<void*>(static_cast<uintptr_t>(pthread_self()));
    // Highest priority first. A handler's first call carries an empty message and type -1.
    for (const auto& h : copy) {
        if (!h.greeted) h.f(object, h.context, thread, "", -1, 0);
        h.f(object, h.context, thread, msg, msgtype, number);
    }
}

}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOinit(const char*) {
    std::lock_guard<std::mutex> g(env_mutex);
    ++env_refcount;
    return 0;
}

int TRVOfree(void) {
    std::lock_guard<std::mutex> g(env_mutex);
    if (env_refcount > 0) --env_refcount;
    return 0;
}

int TRVOgetversion(char* version) {
    copy_out(version, "1.0.0", 16);
    return 0;
}

int TRVOgetbanner(char* banner) {
    char text[512];
    std::snprintf(text, sizeof text, "tarvo optimiser 1.0.0 running on HiGHS %d.%d.%d (%s)",
                  (int)Highs_versionMajor(), (int)Highs_versionMinor(), (int)Highs_versionPatch(),
                  Highs_githash());
    copy_out(banner, text, 512);
    return 0;
}

int TRVO_ge_getlasterror(int* code, char* msg, int maxbytes, int* nbytes) {
    std::lock_guard<std::mutex> g(env_mutex);
    if (code) *code = last_error_code;
    if (msg && maxbytes > 0) copy_out(msg, last_error_text, static_cast<size_t>(maxbytes));
    if (nbytes) *nbytes = static_cast<int>(last_error_text.size());
    return 0;
}

int TRVO_ge_addcbmsghandler(TRVOmsghandler handler, void* context, int priority) {
    return guard_global([&] {
        if (!handler) fail("No message handler given");
        std::lock_guard<std::mutex> g(handler_mutex);
        GlobalHandler h{handler, context, priority, handler_order++, false};
        auto pos = std::find_if(handlers.begin(), handlers.end(),
                                [&](const GlobalHandler& o) { return o.priority < priority; });
        handlers.insert(pos, h);
    });
}

int TRVO_ge_removecbmsghandler(TRVOmsghandler handler, void* context) {
    return guard_global([&] {
        std::lock_guard<std::mutex> g(handler_mutex);
        handlers.erase(std::remove_if(handlers.begin(), handlers.end(),
                                      [&](const GlobalHandler& h) {
                                          return (!handler || h.f == handler) &&
                                                 (!context || h.context == context);
                                      }),
                       handlers.end());
    });
}

int TRVO_ge_setarchconsistency(int ifarchconsistent) {
    std::lock_guard<std::mutex> g(env_mutex);
    arch_consistent = ifarchconsistent ? 1 : 0;
    return 0;
}

int TRVOsetcheckedmode(int checkedmode) {
    std::lock_guard<std::mutex> g(env_mutex);
    checked_mode = checkedmode ? 1 : 0;
    return 0;
}

int TRVOgetcheckedmode(int* checkedmode) {
    return guard_global([&] {
        if (!checkedmode) fail("No output argument given");
        *checkedmode = check_mode();
    });
}

int TRVOgetobjecttypename(void* object, const char** name) {
    return guard_global([&] {
        if (!object || !name) fail("Invalid library object");
        auto* p = static_cast<TRVOprob>(object);
        if (p->magic != kProblemMagic) fail("Unknown library object");
        *name = "TRVOprob";
    });
}

}  // extern "C"
