// Low-level methods of the problem: the optimisation library's own operations, called with
// their keyword arguments and converted arrays. The methods live in the lowlevel_*.cpp files,
// grouped by concern; this table gathers them for the problem type.
#include "problem/lowlevel.h"

namespace tarvo {

namespace {
constexpr int MAX_LOWLEVEL = 160;
}

PyMethodDef problem_lowlevel_methods[MAX_LOWLEVEL + 1];

namespace {
// Fills the table when the module is loaded, before problem_type_init() reads it at import.
struct Assemble {
    Assemble() {
        int k = 0;
        for (const PyMethodDef* t : {ll::load_methods(), ll::matrix_methods(), ll::solve_methods(),
                                     ll::analysis_methods(), ll::files_methods(), ll::gencons_methods()})
            for (const PyMethodDef* d = t; d->ml_name && k < MAX_LOWLEVEL; ++d) problem_lowlevel_methods[k++] = *d;
        problem_lowlevel_methods[k] = PyMethodDef{nullptr, nullptr, 0, nullptr};
    }
} assemble;
}  // namespace

}  // namespace tarvo
