// Internal declarations shared by the translation units of the modelling algebra: the side
// tables, operand helpers and the per-type binary operations that the slots delegate to.
#pragma once
#include "model/model.h"
#include "nonlinear/node.h"
#include "module/serial_map.h"

#include <map>
#include <string>

namespace tarvo {

// Process-wide side tables keyed by serial, created at import and destroyed at teardown.
// Name tables own one reference to every stored object.
struct SideTables {
    SerialMap<double> var_lb, var_ub, var_threshold;
    SerialMap<PyObject*> var_name;
    SerialMap<double> con_lb, con_ub;
    SerialMap<PyObject*> con_name;
    uint64_t var_counter = 1, con_counter = 1, sos_counter = 1;
};
extern SideTables* side_tables;

// Side-table helpers shared by variables and constraints.
using ValueTable = SerialMap<double>;
using NameTable = SerialMap<PyObject*>;
// Replaces the two-bit bound code at shift in word; the table holds an entry for serial exactly
// while the code is 3 (then stored_bit is set too).
void store_bound(uint64_t* word, uint64_t serial, int shift, uint64_t stored_bit, ValueTable& table,
                 uint64_t code, double v);
void table_store(ValueTable& table, uint64_t serial, double v);
double table_lookup(const ValueTable& table, uint64_t serial);
// Stores name (a new reference taken) for serial, releasing a previous entry.
void name_store(NameTable& table, uint64_t serial, PyObject* name);
// Removes and releases the name of serial, if any.
void name_erase(NameTable& table, uint64_t serial);
// The empty str or bytes, which as a name means no name (the default name applies).
inline bool is_empty_name(PyObject* name) {
    return (PyUnicode_CheckExact(name) && PyUnicode_GET_LENGTH(name) == 0) ||
           (PyBytes_CheckExact(name) && PyBytes_GET_SIZE(name) == 0);
}

// ---------------------------------------------------------------- operand helpers
// Value of a number or of a constant expression.
bool constant_value(PyObject* o, double* value);
// A var (coefficient 1) or a linterm seen as one linear term; false for anything else.
bool linear_view(PyObject* o, PyObject** var, double* coef);
inline PyObject* float_result(double v) { return PyFloat_FromDouble(v); }
inline PyObject* new_ref(PyObject* o) { Py_INCREF(o); return o; }
PyObject* model_error(const char* message);

// NumPy array as the right operand: the operation is handed back to NumPy elementwise.
enum ArrayOp { ARRAY_ADD, ARRAY_SUB, ARRAY_MUL, ARRAY_DIV, ARRAY_POW };
PyObject* array_right(ArrayOp op, PyObject* a, PyObject* b);
// b (an array) times s plus a, for sums with a general sign.
PyObject* array_sum(PyObject* a, PyObject* b, double s);

// Nonlinear a + s*b for any operands one of which is a nonlinear node.
PyObject* nl_sum(PyObject* a, PyObject* b, double s);

// ---------------------------------------------------------------- per-type operations
PyObject* var_add(PyObject* a, PyObject* b);
PyObject* var_subtract(PyObject* a, PyObject* b);
PyObject* var_multiply(PyObject* a, PyObject* b);
PyObject* var_divide(PyObject* a, PyObject* b);
PyObject* var_power(PyObject* a, PyObject* b, PyObject* mod);

PyObject* linterm_product(PyObject* a, PyObject* b);
PyObject* linterm_divide(PyObject* a, PyObject* b);
PyObject* linterm_power(PyObject* a, PyObject* b);
PyObject* quadterm_product(PyObject* a, PyObject* b);
PyObject* quadterm_divide(PyObject* a, PyObject* b);
PyObject* quadterm_power(PyObject* a, PyObject* b);
PyObject* expression_divide(PyObject* a, PyObject* b);
PyObject* expression_power(PyObject* a, PyObject* b);

// In-place forms shared by var, linterm and quadterm: they never modify the left operand.
PyObject* term_inplace_add(PyObject* a, PyObject* b);
PyObject* term_inplace_subtract(PyObject* a, PyObject* b);
PyObject* term_inplace_multiply(PyObject* a, PyObject* b);
PyObject* term_inplace_divide(PyObject* a, PyObject* b);
PyObject* term_inplace_power(PyObject* a, PyObject* b, PyObject* mod);
// abs, & and | of every polynomial type.
PyObject* model_abs(PyObject* a);
PyObject* model_and(PyObject* a, PyObject* b);
PyObject* model_or(PyObject* a, PyObject* b);

// extractLinear / extractQuadratic results for the term types.
PyObject* extract_result(PyObject* first, PyObject* second, PyObject* third);

// Text of a variable's name as UTF-8 for printing (a bytes name is used as it is).
bool var_name_text(PyObject* v, std::string* out);
// "%g" formatting of a double.
std::string format_g(const char* fmt, double v);

// linterm, quadterm, expression or nonlinear: the types a var hands its operations over to.
inline bool is_compound(PyObject* o) {
    return is_linterm(o) || is_quadterm(o) || is_expression(o) || layout_type_check(o, &NonlinearType);
}

}  // namespace tarvo
