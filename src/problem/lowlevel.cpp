// Low-level methods of the problem: the optimisation library's own operations, called with
// their keyword arguments and converted arrays. The methods live in the lowlevel_*.cpp files,
// grouped by concern; this table gathers them for the problem type.
#include "problem/lowlevel.h"

#include <vector>

namespace tarvo {

PyMethodDef* problem_lowlevel_methods() {
    // Built on first use (problem_type_init() at import), sized from the parts' own tables and
    // ended by the sentinel.
    static std::vector<PyMethodDef> table = [] {
        std::vector<PyMethodDef> t;
        for (const PyMethodDef* part : {ll::load_methods(), ll::matrix_methods(), ll::solve_methods(),
                                        ll::analysis_methods(), ll::files_methods(), ll::gencons_methods(),
                                        ll::cut_methods(), ll::lowlevel_cut_methods(), ll::save_methods(),
                                        ll::presolve_methods(), ll::basis_methods(), ll::directives_methods()})
            for (const PyMethodDef* d = part; d->ml_name; ++d) t.push_back(*d);
        t.push_back(PyMethodDef{nullptr, nullptr, 0, nullptr});
        return t;
    }();
    return table.data();
}

}  // namespace tarvo
