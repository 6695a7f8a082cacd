// Low-level methods of the problem: the optimisation library's own operations, called with
// their keyword arguments and converted arrays.
#include "problem/problem.h"

namespace tarvo {

PyMethodDef problem_lowlevel_methods[] = {
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace tarvo
