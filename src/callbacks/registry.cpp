// The per-problem callback registry: one list of callback records per kind.
#include "problem/problem.h"

namespace tarvo {

PyMethodDef problem_callback_methods[] = {
    {nullptr, nullptr, 0, nullptr},
};

// A copied problem starts with the same callbacks as its source: each kind's list is copied
// (the records themselves are shared; they are immutable).
int callbacks_copy(ProblemObject* dst, ProblemObject* src) {
    for (int k = 0; k < CALLBACK_KINDS; ++k) {
        if (!src->callbacks[k]) continue;
        dst->callbacks[k] = PyList_GetSlice(src->callbacks[k], 0, PyList_GET_SIZE(src->callbacks[k]));
        if (!dst->callbacks[k]) return -1;
    }
    return 0;
}

}  // namespace tarvo
