// The process-wide side tables of variables and constraints and the three serial counters.
#include "model/algebra.h"
#include "module/hooks.h"

namespace tarvo {

SideTables* side_tables = nullptr;

void table_store(ValueTable& table, uint64_t serial, double v) { table[serial] = v; }

double table_lookup(const ValueTable& table, uint64_t serial) {
    auto it = table.find(serial);
    return it == table.end() ? 0.0 : it->second;
}

void store_bound(uint64_t* word, uint64_t serial, int shift, uint64_t stored_bit, ValueTable& table,
                 uint64_t code, double v) {
    *word = (*word & ~(uint64_t(3) << shift)) | (code << shift);
    if (code == 3) {
        *word |= stored_bit;
        table_store(table, serial, v);
    } else if (*word & stored_bit) {
        *word &= ~stored_bit;
        table.erase(serial);
    }
}

void name_store(NameTable& table, uint64_t serial, PyObject* name) {
    Py_INCREF(name);
    PyObject* old;
    try {
        PyObject*& slot = table[serial];  // null when new
        old = slot;
        slot = name;
    } catch (...) {
        Py_DECREF(name);
        throw;
    }
    Py_XDECREF(old);  // last: releasing may run arbitrary code
}

void name_erase(NameTable& table, uint64_t serial) {
    auto it = table.find(serial);
    if (it == table.end()) return;
    PyObject* name = it->second;
    table.erase(it);
    Py_XDECREF(name);
}

void model_tables_create() {
    if (!side_tables) side_tables = new SideTables();
}

void model_tables_destroy() {
    if (!side_tables) return;
    SideTables* t = side_tables;
    side_tables = nullptr;  // objects freed while releasing names no longer touch the tables
    for (auto& entry : t->var_name) Py_XDECREF(entry.second);
    for (auto& entry : t->con_name) Py_XDECREF(entry.second);
    delete t;
}

void reset_serial_counters() {
    if (!side_tables || !state.locks) return;
    {
        std::lock_guard<std::mutex> guard(state.locks->var_serial);
        side_tables->var_counter = 1;
    }
    {
        std::lock_guard<std::mutex> guard(state.locks->con_serial);
        side_tables->con_counter = 1;
    }
    std::lock_guard<std::mutex> guard(state.locks->sos_serial);
    side_tables->sos_counter = 1;
}

uint64_t next_var_serial() {
    std::lock_guard<std::mutex> guard(state.locks->var_serial);
    return side_tables->var_counter++;
}

uint64_t next_var_serials(uint64_t n) {
    std::lock_guard<std::mutex> guard(state.locks->var_serial);
    uint64_t first = side_tables->var_counter;
    side_tables->var_counter += n;
    return first;
}

uint64_t next_con_serials(uint64_t n) {
    std::lock_guard<std::mutex> guard(state.locks->con_serial);
    uint64_t first = side_tables->con_counter;
    side_tables->con_counter += n;
    return first;
}

uint64_t next_con_serial() {
    std::lock_guard<std::mutex> guard(state.locks->con_serial);
    return side_tables->con_counter++;
}

uint64_t next_sos_serial() {
    std::lock_guard<std::mutex> guard(state.locks->sos_serial);
    return side_tables->sos_counter++;
}

}  // namespace tarvo
