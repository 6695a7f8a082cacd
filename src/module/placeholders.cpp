// Weak default definitions of the seams between subsystems. A subsystem that is built in
// defines the strong symbol, which replaces the default here at link time. The defaults keep
// the module importable while a subsystem is absent and refuse its operations clearly.
#include "module/common.h"
#include "module/hooks.h"
#include "module/types.h"
#include "nonlinear/node.h"
#include "library_interface/trvo.h"

#define TARVO_WEAK __attribute__((weak))

namespace tarvo {

namespace {
template <int N>
struct PlainType {
    static PyTypeObject make(const char* name) {
        PyTypeObject t = {PyVarObject_HEAD_INIT(nullptr, 0)};
        t.tp_name = name;
        t.tp_basicsize = sizeof(PyObject);
        t.tp_flags = Py_TPFLAGS_DEFAULT;
        return t;
    }
};
}  // namespace

TARVO_WEAK PyTypeObject ControlType = PlainType<4>::make("tarvo.control");
TARVO_WEAK PyTypeObject AttributeType = PlainType<5>::make("tarvo.attribute");
TARVO_WEAK PyTypeObject ProblemType = PlainType<6>::make("tarvo.problem");
TARVO_WEAK PyTypeObject BranchObjType = PlainType<7>::make("tarvo.branchobj");
TARVO_WEAK PyTypeObject PoolCutType = PlainType<8>::make("tarvo.poolcut");
TARVO_WEAK PyTypeObject TrvoObjectType = PlainType<9>::make("tarvo.trvoobject");
TARVO_WEAK PyTypeObject GenericType = PlainType<10>::make("tarvo.generic");

TARVO_WEAK PyMethodDef environment_functions[] = {{nullptr, nullptr, 0, nullptr}};
TARVO_WEAK PyMethodDef controls_functions[] = {{nullptr, nullptr, 0, nullptr}};

TARVO_WEAK PyObject* controls_new_module_level(PyObject* dict) { Py_INCREF(dict); return dict; }
TARVO_WEAK int catalogue_build(bool) {
    // Proves the link to the engine: start and release the library once.
    if (TRVOinit(nullptr) == 0) TRVOfree();
    return 0;
}
TARVO_WEAK int env_release_at_teardown() { return 0; }

}  // namespace tarvo
