// A tiny check harness for the engine drivers: each case is a function registered by name;
// CHECK records failures with their line; main runs the case named on the command line.
#pragma once

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>

namespace check {
inline int failures = 0;
inline std::map<std::string, std::function<void()>>& cases() {
    static std::map<std::string, std::function<void()>> c;
    return c;
}
struct Register {
    Register(const char* name, std::function<void()> f) { cases()[name] = std::move(f); }
};
}  // namespace check

#define CASE(name)                                                  \
    static void case_##name();                                      \
    static check::Register reg_##name(#name, case_##name);          \
    static void case_##name()

#define CHECK(cond)                                                             \
    do {                                                                        \
        if (!(cond)) {                                                          \
            std::printf("FAIL %s:%d: %s\n", __FILE__, __LINE__, #cond);         \
            ++check::failures;                                                  \
        }                                                                       \
    } while (0)

#define CHECK_NEAR(a, b, tol)                                                               \
    do {                                                                                    \
        double va_ = (a), vb_ = (b);                                                        \
        if (!(std::fabs(va_ - vb_) <= (tol))) {                                             \
            std::printf("FAIL %s:%d: %s = %.12g, expected %.12g\n", __FILE__, __LINE__, #a, \
                        va_, vb_);                                                          \
            ++check::failures;                                                              \
        }                                                                                   \
    } while (0)

inline int run_main(int argc, char** argv) {
    if (argc < 2) {
        for (auto& kv : check::cases()) std::printf("%s\n", kv.first.c_str());
        return 0;
    }
    auto it = check::cases().find(argv[1]);
    if (it == check::cases().end()) {
        std::printf("unknown case %s\n", argv[1]);
        return 2;
    }
    it->second();
    return check::failures ? 1 : 0;
}
