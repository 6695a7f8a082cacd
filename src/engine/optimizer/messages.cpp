// Message statuses (which numbered messages reach the log) and the listing of the controls that
// differ from their defaults.
#include "engine/optimizer/problem.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace trvo {

bool message_shown(TRVOprob p, int number) {
    auto it = p->message_status.find(number);
    return it == p->message_status.end() || it->second != 0;
}

namespace {

void check_number(int errcode) {
    if (errcode < 1) fail("Invalid message number %d: message numbers are positive", errcode);
}

}  // namespace
}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOgetmessagestatus(TRVOprob prob, int errcode, int* status) {
    return guard(prob, [&] {
        check_number(errcode);
        if (!status) fail("No output argument given");
        *status = message_shown(prob, errcode) ? 1 : 0;
    });
}

int TRVOsetmessagestatus(TRVOprob prob, int errcode, int status) {
    return guard(prob, [&] {
        check_number(errcode);
        if (status != 0 && status != 1)
            fail("Invalid message status %d: 0 suppresses the message, 1 shows it", status);
        if (status == 1) prob->message_status.erase(errcode);
        else prob->message_status[errcode] = 0;
    });
}

int TRVOdumpcontrols(TRVOprob prob) {
    return guard(prob, [&] {
        // A fresh problem holds every control at its default: the catalogue's own values.
        TRVOprob fresh = nullptr;
        if (TRVOcreateprob(&fresh) != 0) fail("Could not create a problem for the default controls");
        struct Drop {
            TRVOprob p;
            ~Drop() { TRVOdestroyprob(p); }
        } drop{fresh};
        const int* ids = nullptr;
        const char* const* names = nullptr;
        const int* flags = nullptr;
        if (TRVOgetcalist_c(&ids, &names, &flags) != 0) fail("The control catalogue is not available");
        std::vector<std::string> lines;
        for (int k = 0; ids[k] != 0; ++k) {
            if (!(flags[k] & 0x20)) continue;
            char buf[1200];
            if (flags[k] & 0x1) {
                int64_t v = ctl_int(prob, ids[k]);
                if (v == ctl_int(fresh, ids[k])) continue;
                std::snprintf(buf, sizeof buf, "%s = %lld", names[k], static_cast<long long>(v));
            } else if (flags[k] & 0x2) {
                double v = ctl_dbl(prob, ids[k]);
                if (v == ctl_dbl(fresh, ids[k])) continue;
                std::snprintf(buf, sizeof buf, "%s = %.15g", names[k], v);
                if (std::strtod(buf + std::strlen(names[k]) + 3, nullptr) != v)
                    std::snprintf(buf, sizeof buf, "%s = %.17g", names[k], v);
            } else {
                const std::string& v = prob->controls.strs[ids[k]];
                if (v == fresh->controls.strs[ids[k]]) continue;
                std::snprintf(buf, sizeof buf, "%s = %s", names[k], v.c_str());
            }
            lines.emplace_back(buf);
        }
        if (lines.empty()) lines.emplace_back("All controls are at their defaults");
        for (const auto& l : lines) emit_message(prob, l.c_str(), 1, TRVO_MSG_CONTROLS);
    });
}

}  // extern "C"
