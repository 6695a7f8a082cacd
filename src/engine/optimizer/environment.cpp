// Global environment of the optimisation library: reference-counted start and release,
// version, banner and the last global error.
#include "library_interface/trvo.h"

#include "interfaces/highs_c_api.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

namespace {
std::mutex env_mutex;
int env_refcount = 0;
int last_error_code = 0;
std::string last_error_text;

void copy_out(char* dst, const std::string& s, size_t cap) {
    if (!dst) return;
    size_t n = s.size() < cap - 1 ? s.size() : cap - 1;
    std::memcpy(dst, s.data(), n);
    dst[n] = '\0';
}
}  // namespace

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

}  // extern "C"
