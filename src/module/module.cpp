// Module definition: the import sequence, the constants table and teardown.
#define TARVO_IMPORTS_NUMPY
#include "module/common.h"
#include "module/hooks.h"
#include "module/types.h"
#include "problem/problem.h"

#include <cmath>
#include <vector>

namespace tarvo {

ModuleState state;
PyObject* ModelError = nullptr;
PyObject* InterfaceError = nullptr;
PyObject* SolverError = nullptr;

namespace {

struct Constant {
    const char* name;
    int kind;  // 0 integer, 1 floating point
    double value;
};

const Constant constants[] = {
    {"continuous", 0, 0}, {"binary", 0, 1}, {"integer", 0, 2},
    {"semicontinuous", 0, 3}, {"semiinteger", 0, 4}, {"partiallyinteger", 0, 5},
    {"minimize", 0, 1}, {"maximize", 0, -1},
    {"leq", 0, 1}, {"geq", 0, 2}, {"eq", 0, 3}, {"range", 0, 4},
    {"infinity", 1, 1e20},
    {"solinfo_absprimalinfeas", 0, 0}, {"solinfo_relprimalinfeas", 0, 1},
    {"solinfo_absdualinfeas", 0, 2}, {"solinfo_reldualinfeas", 0, 3},
    {"solinfo_maxmipfractional", 0, 4},
    {"basis_nonbasic_lower", 0, 0}, {"basis_basic", 0, 1},
    {"basis_nonbasic_upper", 0, 2}, {"basis_superbasic", 0, 3},
    {"lp_unstarted", 0, 0}, {"lp_optimal", 0, 1}, {"lp_infeas", 0, 2}, {"lp_cutoff", 0, 3},
    {"lp_unfinished", 0, 4}, {"lp_unbounded", 0, 5}, {"lp_cutoff_in_dual", 0, 6},
    {"lp_unsolved", 0, 7}, {"lp_nonconvex", 0, 8},
    {"mip_not_loaded", 0, 0}, {"mip_lp_not_optimal", 0, 1}, {"mip_lp_optimal", 0, 2},
    {"mip_no_sol_found", 0, 3}, {"mip_solution", 0, 4}, {"mip_infeas", 0, 5},
    {"mip_optimal", 0, 6}, {"mip_unbounded", 0, 7},
    {"nlp_unstarted", 0, 0}, {"nlp_solution", 0, 1}, {"nlp_locally_optimal", 0, 1},
    {"nlp_globally_optimal", 0, 2}, {"nlp_locally_infeasible", 0, 3}, {"nlp_infeasible", 0, 4},
    {"nlp_unbounded", 0, 5}, {"nlp_unfinished", 0, 6},
    {"stop_timelimit", 0, 1}, {"stop_ctrlc", 0, 2}, {"stop_nodelimit", 0, 3},
    {"stop_iterlimit", 0, 4}, {"stop_mipgap", 0, 5}, {"stop_sollimit", 0, 6}, {"stop_user", 0, 9},
    {"type_notdefined", 0, 0}, {"type_int", 0, 1}, {"type_int64", 0, 2},
    {"type_double", 0, 3}, {"type_string", 0, 4},
    {"colinfo_value", 0, 1}, {"colinfo_rdj", 0, 2}, {"colinfo_deltaindex", 0, 3},
    {"colinfo_delta", 0, 4}, {"colinfo_deltadj", 0, 5}, {"colinfo_updaterow", 0, 6},
    {"colinfo_sb", 0, 7}, {"colinfo_sbdual", 0, 8},
    {"rowinfo_slack", 0, 1}, {"rowinfo_dual", 0, 2}, {"rowinfo_numpenaltyerrors", 0, 3},
    {"rowinfo_maxpenaltyerror", 0, 4}, {"rowinfo_totalpenaltyerror", 0, 5},
    {"rowinfo_currentpenaltyerror", 0, 6}, {"rowinfo_currentpenaltyfactor", 0, 7},
    {"rowinfo_penaltycolumnplus", 0, 8}, {"rowinfo_penaltycolumnplusvalue", 0, 9},
    {"rowinfo_penaltycolumnplusdj", 0, 10}, {"rowinfo_penaltycolumnminus", 0, 11},
    {"rowinfo_penaltycolumnminusvalue", 0, 12}, {"rowinfo_penaltycolumnminusdj", 0, 13},
    {"msset_initialvalues", 0, 0}, {"msset_initialfiltered", 0, 6}, {"msset_solvers", 0, 1},
    {"msset_slp_basic", 0, 2}, {"msset_slp_extended", 0, 3}, {"msset_knitro_basic", 0, 4},
    {"msset_knitro_extended", 0, 5},
    {"gencons_max", 0, 0}, {"gencons_min", 0, 1}, {"gencons_and", 0, 2},
    {"gencons_or", 0, 3}, {"gencons_abs", 0, 4},
    {nullptr, 0, 0},
};

// The module's function table, assembled at import from the subsystems' tables.
std::vector<PyMethodDef> method_table;

void free_module(void*);

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT,
    "tarvolib",
    "Create, solve, query and handle optimisation problems with the optimiser.",
    -1,
    nullptr,
    nullptr, nullptr, nullptr,
    free_module,
};

PyTypeObject* const all_types[] = {
    &VarType, &SosType, &ExpressionType, &ConstraintType, &ControlType, &AttributeType,
    &ProblemType, &BranchObjType, &PoolCutType, &TrvoObjectType, &GenericType,
    &LinTermType, &QuadTermType, &NonlinearType,
};

void release_state_objects() {
    Py_CLEAR(state.controls);
    Py_CLEAR(state.module_defaults);
    Py_CLEAR(state.control_catalogue);
    Py_CLEAR(state.attribute_catalogue);
    Py_CLEAR(state.msghandler_list);
}

void delete_locks() {
    delete state.locks;
    state.locks = nullptr;
}

void free_module(void*) {
    release_state_objects();
    model_tables_destroy();
    // The type objects are static; the module's references to them go with its dictionary.
    env_release_at_teardown();
    PyErr_Clear();
    delete_locks();
    state.module = nullptr;
}

int add_type(PyObject* m, const char* name, PyTypeObject* type) {
    Py_INCREF(type);
    if (PyModule_AddObject(m, name, reinterpret_cast<PyObject*>(type)) < 0) {
        Py_DECREF(type);
        return -1;
    }
    return 0;
}

int add_object(PyObject* m, const char* name, PyObject* o) {
    Py_INCREF(o);
    if (PyModule_AddObject(m, name, o) < 0) {
        Py_DECREF(o);
        return -1;
    }
    return 0;
}

void build_method_table() {
    method_table.clear();
    for (PyMethodDef* table : {nonlinear_functions, environment_functions, controls_functions})
        for (PyMethodDef* d = table; d->ml_name; ++d) method_table.push_back(*d);
    method_table.push_back(PyMethodDef{nullptr, nullptr, 0, nullptr});
    module_def.m_methods = method_table.data();
}

// Steps from the catalogue on; a failure returns -1 and the caller unwinds.
int init_after_module(PyObject* m, PyObject* controls_dict) {
    if (catalogue_build(true) < 0) return -1;

    ModelError = PyErr_NewException("tarvo.ModelError", PyExc_Exception, nullptr);
    InterfaceError = PyErr_NewException("tarvo.InterfaceError", PyExc_Exception, nullptr);
    SolverError = PyErr_NewException("tarvo.SolverError", PyExc_Exception, nullptr);
    if (!ModelError || !InterfaceError || !SolverError) return -1;

    if (add_type(m, "var", &VarType) < 0 || add_type(m, "sos", &SosType) < 0 ||
        add_type(m, "constraint", &ConstraintType) < 0 || add_type(m, "problem", &ProblemType) < 0 ||
        add_type(m, "branchobj", &BranchObjType) < 0 || add_type(m, "poolcut", &PoolCutType) < 0 ||
        add_object(m, "ModelError", ModelError) < 0 ||
        add_object(m, "InterfaceError", InterfaceError) < 0 ||
        add_object(m, "SolverError", SolverError) < 0)
        return -1;

    // NumPy's array and ufunc interfaces, then the module's dtypes.
    if (PyArray_ImportNumPyAPI() < 0) return -1;
    if (PyUFunc_ImportUFuncAPI() < 0) return -1;
    if (numpy_dtypes_create() < 0) return -1;

    reset_serial_counters();
    for (const Constant* c = constants; c->name; ++c) {
        PyObject* v = c->kind == 0 ? PyLong_FromLong(static_cast<int32_t>(std::floor(c->value)))
                                   : PyFloat_FromDouble(c->value);
        if (!v || PyModule_AddObject(m, c->name, v) < 0) {
            Py_XDECREF(v);
            return -1;
        }
    }

    if (numpy_dtypes_register(m) < 0) return -1;

    PyRef one(PyLong_FromLong(1));
    if (!one) return -1;
    int rc = PyDict_SetItemString(controls_dict, "tslp_postsolve", one.get());
    if (rc < 0) return -1;
    {
        std::lock_guard<std::mutex> guard(state.locks->defaults);
        rc = PyDict_SetItemString(state.module_defaults, "tslp_postsolve", one.get());
    }
    if (rc < 0) return -1;

    if (add_object(m, "controls", state.controls) < 0) return -1;
    return 0;
}

}  // namespace

}  // namespace tarvo

using namespace tarvo;

extern "C" __attribute__((visibility("default"))) PyObject* PyInit_tarvolib(void) {
    state.locks = new Locks();

    problem_type_init();
    for (PyTypeObject* t : all_types)
        if (!t->tp_new) t->tp_new = PyType_GenericNew;
    for (PyTypeObject* t : all_types)
        if (PyType_Ready(t) < 0) {
            delete_locks();
            return nullptr;
        }

    build_method_table();
    PyObject* m = PyModule_Create2(&module_def, 1013);
    if (!m) {
        delete_locks();
        return nullptr;
    }

    state.module_defaults = PyDict_New();
    state.control_catalogue = PyDict_New();
    state.attribute_catalogue = PyDict_New();
    state.msghandler_list = PyList_New(0);
    state.env_use_count = 0;
    state.nonlinear_available = -1;
    state.output_enabled = 1;
    PyRef controls_dict(PyDict_New());
    if (controls_dict) state.controls = controls_new_module_level(controls_dict.get());
    model_tables_create();

    if (!state.controls || !state.module_defaults || !state.control_catalogue ||
        !state.attribute_catalogue || !state.msghandler_list || init_after_module(m, controls_dict.get()) < 0) {
        release_state_objects();
        model_tables_destroy();
        delete_locks();
        Py_DECREF(m);
        if (!PyErr_Occurred()) PyErr_SetString(PyExc_RuntimeError, "Error initializing the Tarvo module");
        return nullptr;
    }

    state.module = m;
    return m;
}
