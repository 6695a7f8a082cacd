// The process-wide side tables of variables and constraints and the three serial counters.
#include "model/algebra.h"
#include "module/hooks.h"

namespace tarvo {

SideTables* side_tables = nullptr;

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

uint64_t next_con_serial() {
    std::lock_guard<std::mutex> guard(state.locks->con_serial);
    return side_tables->con_counter++;
}

uint64_t next_sos_serial() {
    std::lock_guard<std::mutex> guard(state.locks->sos_serial);
    return side_tables->sos_counter++;
}

}  // namespace tarvo
