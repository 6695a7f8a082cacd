// The fourteen Python types of the module. Each is defined in the file of the concept it models.
#pragma once
#include "module/common.h"

namespace tarvo {

extern PyTypeObject VarType;         // model/variable.cpp
extern PyTypeObject SosType;         // model/sos.cpp
extern PyTypeObject ExpressionType;  // model/expression.cpp
extern PyTypeObject ConstraintType;  // model/constraint.cpp
extern PyTypeObject ControlType;     // problem/controls.cpp
extern PyTypeObject AttributeType;   // problem/controls.cpp
extern PyTypeObject ProblemType;     // problem/problem.cpp
extern PyTypeObject BranchObjType;   // callbacks/branchobj.cpp
extern PyTypeObject PoolCutType;     // callbacks/wrappers.cpp
extern PyTypeObject TrvoObjectType;  // callbacks/wrappers.cpp
extern PyTypeObject GenericType;     // callbacks/wrappers.cpp
extern PyTypeObject LinTermType;     // model/terms.cpp
extern PyTypeObject QuadTermType;    // model/terms.cpp
extern PyTypeObject NonlinearType;   // nonlinear/node.cpp

}  // namespace tarvo
