// Stored strings and user functions: registration from descriptions, names, entry points and
// the objects the caller attaches to them.
#include "engine/slp/problem.h"

#include <cmath>
#include <cstring>

namespace slp {
namespace {

UserFunc& find_uf(TSLPprob prob, int index) {
    if (index < 1 || index > (int)prob->userfuncs.size())
        throw Error("User function " + std::to_string(index) + " is not defined");
    return prob->userfuncs[index - 1];
}

const std::string& find_string(TSLPprob prob, double v) {
    int i = (int)v;
    if (i != v || i < 1 || i > (int)prob->strings.size())
        throw Error("String index " + std::to_string(v) + " is not defined");
    return prob->strings[i - 1];
}

}  // namespace
}  // namespace slp

using slp::guard;
using slp::Error;

extern "C" {

int TSLPsetstring(TSLPprob prob, int* index, const char* text) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        if (!text) throw Error("No string given");
        for (size_t i = 0; i < prob->strings.size(); ++i)
            if (prob->strings[i] == text) {
                if (index) *index = (int)i + 1;
                return;
            }
        prob->strings.push_back(text);
        if (index) *index = (int)prob->strings.size();
    });
}

int TSLPgetstring(TSLPprob prob, int index, char* text, int maxbytes) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        const std::string& s = slp::find_string(prob, index);
        if (text) {
            if (maxbytes <= (int)s.size()) throw Error("String buffer too small");
            std::memcpy(text, s.c_str(), s.size() + 1);
        }
    });
}

int TSLPadduserfuncs(TSLPprob prob, int nuf, const int type[], const double value[]) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        if (nuf < 0) throw Error("Negative number of user functions");
        if (nuf > 0 && (!type || !value)) throw Error("Missing user-function descriptions");
        std::vector<slp::UserFunc> add;
        int i = 0;
        for (int f = 0; f < nuf; ++f) {
            slp::UserFunc uf;
            int strings = 0;
            for (; type[i] != TSLP_TOK_EOF; ++i) {
                switch (type[i]) {
                case TSLP_TOK_STRING: {
                    const std::string& s = slp::find_string(prob, value[i]);
                    if (strings++ == 0) uf.name = s;
                    else if (s != "DirectC") throw Error("Unsupported calling convention " + s);
                    break;
                }
                case TSLP_TOK_UFEXETYPE: break;
                case TSLP_TOK_UFARGTYPE: uf.derivatives = value[i] == 110611.0; break;
                default: throw Error("Unexpected token in user-function description");
                }
            }
            ++i;
            uf.defined = true;
            add.push_back(uf);
        }
        prob->userfuncs.insert(prob->userfuncs.end(), add.begin(), add.end());
    });
}

int TSLPaddnames(TSLPprob prob, int type, const char names[], int first, int last) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        if (type != 5) throw Error("Only user-function names (class 5) are kept by the nonlinear library");
        if (!names) throw Error("No names given");
        const char* p = names;
        for (int i = first; i <= last; ++i) {
            slp::find_uf(prob, i).name = p;
            p += std::strlen(p) + 1;
        }
    });
}

int TSLPchguserfuncaddress(TSLPprob prob, int index, void* address) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::find_uf(prob, index).address = reinterpret_cast<TSLPuserfunc>(address);
    });
}

int TSLPsetuserfuncobject(TSLPprob prob, int index, void* object) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        slp::find_uf(prob, index).object = object;
    });
}

int TSLPgetuserfuncobject(TSLPprob prob, int index, void** object) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        void* o = slp::find_uf(prob, index).object;
        if (object) *object = o;
    });
}

int TSLPgetfuncobject(TSLPfuncobject fobj, int item, void** object) {
    return guard(nullptr, [&] {
        if (!fobj) throw Error("No function object given");
        if (item != TSLP_GLOBALFUNCOBJECT) throw Error("Unknown function-object item " + std::to_string(item));
        if (object) *object = fobj->prob;
    });
}

int TSLPgetfuncinfo(TSLPfuncobject fobj, int* ninput, int* flags, int* index) {
    return guard(nullptr, [&] {
        if (!fobj) throw Error("No function object given");
        if (ninput) *ninput = fobj->ninput;
        if (flags) *flags = fobj->flags;
        if (index) *index = fobj->index;
    });
}

}  // extern "C"
