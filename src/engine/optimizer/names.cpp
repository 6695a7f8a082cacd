// Names of rows, columns and sets, and lookup of an index by name.
#include "engine/optimizer/problem.h"

#include <cstdlib>
#include <cstring>

namespace trvo {
namespace {

NameList& names_of(TRVOprob p, int type, int* count, char* prefix) {
    switch (type) {
        case 1: *count = p->nrows(); *prefix = 'R'; return p->rownames;
        case 2: *count = p->ncols(); *prefix = 'C'; return p->colnames;
        case 3: *count = static_cast<int>(p->sets.size()); *prefix = 'S'; return p->setnames;
    }
    fail("Name type must be 1 (rows), 2 (columns) or 3 (sets), not %d", type);
}

void add_names(TRVOprob p, int type, const char* names, int first, int last) {
    int n;
    char prefix;
    NameList& list = names_of(p, type, &n, &prefix);
    if (first > last) return;
    check_range(first, last, n, type == 1 ? "rows" : type == 2 ? "columns" : "sets");
    if (!names) fail("No names given");
    list.resize(static_cast<size_t>(n));
    const char* s = names;
    for (int i = first; i <= last; ++i) {
        size_t len = std::strlen(s);
        list.set(i, s, len);
        s += len + 1;
    }
}

}  // namespace
}  // namespace trvo

using namespace trvo;

extern "C" {

int TRVOaddnames(TRVOprob prob, int type, const char names[], int first, int last) {
    return guard(prob, [&] { add_names(prob, type, names, first, last); });
}

int TRVOaddsetnames(TRVOprob prob, const char names[], int first, int last) {
    return guard(prob, [&] { add_names(prob, 3, names, first, last); });
}

int TRVOgetnames(TRVOprob prob, int type, char names[], int first, int last) {
    return guard(prob, [&] {
        int n;
        char prefix;
        NameList& list = names_of(prob, type, &n, &prefix);
        if (first > last) return;
        check_range(first, last, n, "names");
        if (!names) fail("No buffer for the names");
        char* out = names;
        for (int i = first; i <= last; ++i) {
            std::string s = list.get(i, prefix);
            std::memcpy(out, s.c_str(), s.size() + 1);
            out += s.size() + 1;
        }
    });
}

int TRVOgetnamelist(TRVOprob prob, int type, char names[], int names_len, int* names_len_reqd,
                    int first, int last) {
    return guard(prob, [&] {
        int n;
        char prefix;
        NameList& list = names_of(prob, type, &n, &prefix);
        if (first > last) {
            if (names_len_reqd) *names_len_reqd = 0;
            return;
        }
        check_range(first, last, n, "names");
        size_t need = 0;
        for (int i = first; i <= last; ++i) need += list.get(i, prefix).size() + 1;
        if (names_len_reqd) *names_len_reqd = static_cast<int>(need);
        if (!names) return;
        if (names_len < 0 || static_cast<size_t>(names_len) < need)
            fail("Name buffer too small: %zu bytes needed", need);
        char* out = names;
        for (int i = first; i <= last; ++i) {
            std::string s = list.get(i, prefix);
            std::memcpy(out, s.c_str(), s.size() + 1);
            out += s.size() + 1;
        }
    });
}

int TRVOgetindex(TRVOprob prob, int type, const char* name, int* seqno) {
    return guard(prob, [&] {
        int n;
        char prefix;
        NameList& list = names_of(prob, type, &n, &prefix);
        if (!name || !seqno) fail("Missing name or output argument");
        int i = list.find(name);
        if (i < 0) {
            // Unnamed entries answer to their generated names.
            if (name[0] == prefix && name[1] >= '1' && name[1] <= '9') {
                char* end = nullptr;
                long k = std::strtol(name + 1, &end, 10);
                if (*end == '\0' && k >= 1 && k <= n && list.unnamed(static_cast<int>(k - 1)))
                    i = static_cast<int>(k - 1);
            }
        }
        if (i < 0)
            fail("%s '%s' not found", type == 1 ? "Row" : type == 2 ? "Column" : "Set", name);
        *seqno = i;
    });
}

}  // extern "C"
