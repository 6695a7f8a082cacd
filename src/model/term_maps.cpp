// Term maps: variable -> coefficient, ordered by serial, owning one reference to every key
// and never holding an exact zero. A reference is taken only once its entry exists, so that a
// failed allocation (std::bad_alloc, turned into a Python exception by the callers) leaks none.
// Appending past the largest key is a push onto the flat vector, so that building an
// expression from fresh variables costs constant time per term.
#include "model/algebra.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace tarvo {

namespace {

// Maps up to this size insert out-of-order terms directly (a short move); larger ones defer
// them to the tail.
constexpr size_t SMALL_MAP = 32;

bool serial_before(const LinEntry& a, const LinEntry& b) { return var_serial(a.first) < var_serial(b.first); }

}  // namespace

LinearMap::iterator LinearMap::lower_bound(PyObject* v) {
    settle();
    uint64_t s = var_serial(v);
    return std::lower_bound(data_, data_ + size_, s,
                            [](const LinEntry& e, uint64_t key) { return var_serial(e.first) < key; });
}

LinearMap::iterator LinearMap::find(PyObject* v) {
    iterator it = lower_bound(v);
    iterator last = data_ + size_;
    return it != last && var_serial(it->first) == var_serial(v) ? it : last;
}

void LinearMap::grow_to(size_t n) {
    if (n > UINT32_MAX) throw std::bad_alloc();
    void* block = PyObject_Malloc(n * sizeof(LinEntry));
    if (!block) throw std::bad_alloc();
    if (size_) std::memcpy(block, static_cast<void*>(data_), size_t(size_) * sizeof(LinEntry));
    release_block();
    data_ = static_cast<LinEntry*>(block);
    cap_ = static_cast<uint32_t>(n);
    borrowed_ = false;
}

LinearMap::iterator LinearMap::emplace_hint(iterator pos, PyObject* v, double c) {
    settle();
    size_t at = static_cast<size_t>(pos - data_);
    if (size_ == cap_) grow_to(size_t(cap_) < 2 ? 4 : 2 * size_t(cap_));
    std::memmove(static_cast<void*>(data_ + at + 1), data_ + at, (size_ - at) * sizeof(LinEntry));
    data_[at] = LinEntry{v, c};
    sorted_ = ++size_;
    return data_ + at;
}

LinearMap::iterator LinearMap::erase(iterator pos) {
    settle();
    size_t at = static_cast<size_t>(pos - data_);
    std::memmove(static_cast<void*>(data_ + at), data_ + at + 1, (size_ - at - 1) * sizeof(LinEntry));
    sorted_ = --size_;
    return data_ + at;
}

void LinearMap::detach_into(LinearMap& o) noexcept {
    o.release_block();
    o.data_ = data_;
    o.size_ = size_;
    o.cap_ = cap_;
    o.sorted_ = sorted_;
    o.borrowed_ = borrowed_;
    // A borrowed buffer is left to o too (o only reads it while this map's owner is alive), so
    // that terms added to this map meanwhile cannot overwrite the entries o is releasing.
    data_ = nullptr;
    size_ = cap_ = sorted_ = 0;
    borrowed_ = false;
}

void LinearMap::add(PyObject* v, double c) {
    if (sorted_ == size_) {
        if (size_ == 0 || var_serial(data_[size_ - 1].first) < var_serial(v)) {
            push_back(v, c);
            Py_INCREF(v);
            ++sorted_;
            return;
        }
        if (size_ <= SMALL_MAP) {
            iterator it = lower_bound(v);
            if (var_serial(it->first) == var_serial(v)) {  // it is not end(): v is not past the back
                it->second += c;
                if (it->second == 0.0) {
                    PyObject* key = it->first;
                    erase(it);
                    Py_DECREF(key);
                }
                return;
            }
            emplace_hint(it, v, c);
            Py_INCREF(v);
            return;
        }
    }
    push_back(v, c);
    Py_INCREF(v);
    if (size_ - sorted_ > std::max<size_t>(SMALL_MAP, sorted_)) merge_tail();
}

void LinearMap::merge_tail() const {
    // Sort the tail stably (equal serials keep their order of addition), merge it behind the
    // sorted part (stable: the sorted part's entry comes first), then sum each run of equal
    // serials in that order. Neither step needs memory (both fall back to in-place algorithms),
    // so settling never fails.
    LinEntry* first = data_;
    LinEntry* middle = first + sorted_;
    LinEntry* last = first + size_;
    std::stable_sort(middle, last, serial_before);
    std::inplace_merge(first, middle, last, serial_before);
    std::vector<PyObject*> released;  // keys whose entry vanished, released once the map is whole
    size_t w = 0, n = size_;
    for (size_t r = 0; r < n;) {
        LinEntry e = data_[r++];
        while (r < n && var_serial(data_[r].first) == var_serial(e.first)) {
            e.second += data_[r].second;
            PyObject* extra = data_[r++].first;
            // The run's own entry still holds a reference, so this one never frees the variable;
            // if the sum vanished and a later term revives it, the coefficient restarts from 0.
            Py_DECREF(extra);
        }
        if (e.second == 0.0) {
            try {
                released.push_back(e.first);
            } catch (...) {
                Py_DECREF(e.first);
            }
            continue;
        }
        data_[w++] = e;
    }
    size_ = sorted_ = static_cast<uint32_t>(w);
    for (PyObject* key : released) Py_DECREF(key);
}

void lin_add(LinearMap& m, PyObject* v, double c) {
    if (c == 0.0) return;
    m.add(v, c);
}

void lin_set(LinearMap& m, PyObject* v, double c) {
    auto it = m.lower_bound(v);
    if (it != m.end() && var_serial(it->first) == var_serial(v)) {
        if (c == 0.0) {
            PyObject* key = it->first;
            m.erase(it);
            Py_DECREF(key);
        } else {
            it->second = c;
        }
        return;
    }
    if (c == 0.0) return;
    m.emplace_hint(it, v, c);
    Py_INCREF(v);
}

void lin_erase(LinearMap& m, PyObject* v) {
    auto it = m.find(v);
    if (it == m.end()) return;
    PyObject* key = it->first;
    m.erase(it);
    Py_DECREF(key);
}

void lin_clear(LinearMap& m) {
    // Detach first: releasing a key may free a variable, which must not see a half-cleared map.
    LinearMap old;
    m.detach_into(old);
    for (auto& entry : old) Py_DECREF(entry.first);
}

// ---------------------------------------------------------------- quadratic map

namespace {

inline bool quad_before(const QuadEntry& a, const QuadEntry& b) {
    uint64_t ra = var_serial(a.row), rb = var_serial(b.row);
    return ra < rb || (ra == rb && var_serial(a.term.first) < var_serial(b.term.first));
}

inline bool same_key(const QuadEntry& a, const QuadEntry& b) {
    return var_serial(a.row) == var_serial(b.row) && var_serial(a.term.first) == var_serial(b.term.first);
}

inline void release_entry(const QuadEntry& e) {
    Py_DECREF(e.row);
    Py_DECREF(e.term.first);
}

}  // namespace

void QuadraticMap::grow_to(size_t n) {
    if (n > PY_SSIZE_T_MAX / sizeof(QuadEntry)) throw std::bad_alloc();
    void* block = PyObject_Malloc(n * sizeof(QuadEntry));
    if (!block) throw std::bad_alloc();
    if (size_) std::memcpy(block, static_cast<void*>(data_), size_ * sizeof(QuadEntry));
    PyObject_Free(data_);
    data_ = static_cast<QuadEntry*>(block);
    cap_ = n;
}

void QuadraticMap::add(PyObject* x, PyObject* y, double c) {
    QuadEntry e{x, LinEntry{y, c}};
    if (sorted_ == size_) {
        if (size_ == 0 || quad_before(data_[size_ - 1], e)) {
            if (size_ == cap_) grow_to(cap_ < 2 ? 4 : 2 * cap_);
            data_[size_++] = e;
            ++sorted_;
            Py_INCREF(x);
            Py_INCREF(y);
            return;
        }
        if (size_ <= SMALL_MAP) {
            QuadEntry* at = std::lower_bound(data_, data_ + size_, e, quad_before);
            if (same_key(*at, e)) {  // at is not the end: e is not past the back
                at->term.second += c;
                if (at->term.second == 0.0) {
                    QuadEntry gone = *at;
                    std::memmove(static_cast<void*>(at), at + 1, (data_ + size_ - at - 1) * sizeof(QuadEntry));
                    sorted_ = --size_;
                    release_entry(gone);
                }
                return;
            }
            size_t pos = static_cast<size_t>(at - data_);
            if (size_ == cap_) grow_to(cap_ < 2 ? 4 : 2 * cap_);
            std::memmove(static_cast<void*>(data_ + pos + 1), data_ + pos, (size_ - pos) * sizeof(QuadEntry));
            data_[pos] = e;
            sorted_ = ++size_;
            Py_INCREF(x);
            Py_INCREF(y);
            return;
        }
    }
    if (size_ == cap_) grow_to(cap_ < 2 ? 4 : 2 * cap_);
    data_[size_++] = e;
    Py_INCREF(x);
    Py_INCREF(y);
    if (size_ - sorted_ > std::max(SMALL_MAP, sorted_)) merge_tail();
}

void QuadraticMap::merge_tail() const {
    // As LinearMap::merge_tail: stable sort of the tail, stable merge, then each run of equal
    // keys summed in the order of addition; entries that sum to exactly 0 are released last.
    QuadEntry* first = data_;
    QuadEntry* middle = first + sorted_;
    QuadEntry* last = first + size_;
    std::stable_sort(middle, last, quad_before);
    std::inplace_merge(first, middle, last, quad_before);
    std::vector<QuadEntry> released;
    size_t w = 0, n = size_;
    for (size_t r = 0; r < n;) {
        QuadEntry e = data_[r++];
        while (r < n && same_key(data_[r], e)) {
            e.term.second += data_[r].term.second;
            release_entry(data_[r++]);  // the run's own entry still holds both variables
        }
        if (e.term.second == 0.0) {
            try {
                released.push_back(e);
            } catch (...) {
                release_entry(e);
            }
            continue;
        }
        data_[w++] = e;
    }
    size_ = sorted_ = w;
    for (const QuadEntry& e : released) release_entry(e);
}

void QuadraticMap::assign_scaled(const QuadraticMap& o, double f) {
    o.settle();
    reserve(size_ + o.size_);
    for (size_t i = 0; i < o.size_; ++i) {
        QuadEntry e = o.data_[i];
        if (f != 1.0) {
            e.term.second *= f;
            if (e.term.second == 0.0) continue;
        }
        data_[size_++] = e;
        ++sorted_;
        Py_INCREF(e.row);
        Py_INCREF(e.term.first);
    }
}

void QuadraticMap::scale(double f) {
    settle();
    std::vector<QuadEntry> released;
    size_t w = 0;
    for (size_t r = 0; r < size_; ++r) {
        QuadEntry e = data_[r];
        e.term.second *= f;
        if (e.term.second == 0.0) {
            try {
                released.push_back(e);
            } catch (...) {
                release_entry(e);
            }
            continue;
        }
        data_[w++] = e;
    }
    size_ = sorted_ = w;
    for (const QuadEntry& e : released) release_entry(e);
}

void QuadraticMap::clear() {
    // Detach first, as lin_clear does.
    QuadEntry* block = data_;
    size_t n = size_;
    data_ = nullptr;
    size_ = cap_ = sorted_ = 0;
    for (size_t i = 0; i < n; ++i) release_entry(block[i]);
    PyObject_Free(block);
}

void SerialSet::settle() const {
    if (sorted_ == items_.size()) return;
    std::sort(items_.begin() + static_cast<std::ptrdiff_t>(sorted_), items_.end());
    std::inplace_merge(items_.begin(), items_.begin() + static_cast<std::ptrdiff_t>(sorted_), items_.end());
    items_.erase(std::unique(items_.begin(), items_.end()), items_.end());
    sorted_ = items_.size();
}

void quad_clear(QuadraticMap& m) { m.clear(); }

size_t quad_count(const QuadraticMap& m) { return m.size(); }

PyObject* linear_map_to_lists(const LinearMap* m) {
    Py_ssize_t n = m ? static_cast<Py_ssize_t>(m->size()) : 0;
    PyRef vars(PyList_New(n)), coefs(PyList_New(n));
    if (!vars || !coefs) return nullptr;
    if (m) {
        Py_ssize_t i = 0;
        for (auto& entry : *m) {
            PyObject* c = PyFloat_FromDouble(entry.second);
            if (!c) return nullptr;
            PyList_SET_ITEM(vars.get(), i, new_ref(entry.first));
            PyList_SET_ITEM(coefs.get(), i, c);
            ++i;
        }
    }
    return PyTuple_Pack(2, vars.get(), coefs.get());
}

PyObject* quadratic_map_to_lists(const QuadraticMap* m) {
    Py_ssize_t n = m ? static_cast<Py_ssize_t>(quad_count(*m)) : 0;
    PyRef vars1(PyList_New(n)), vars2(PyList_New(n)), coefs(PyList_New(n));
    if (!vars1 || !vars2 || !coefs) return nullptr;
    if (m) {
        Py_ssize_t i = 0;
        for (const QuadEntry* e = m->entries_begin(); e != m->entries_end(); ++e, ++i) {
            PyObject* c = PyFloat_FromDouble(e->term.second);
            if (!c) return nullptr;
            PyList_SET_ITEM(vars1.get(), i, new_ref(e->row));
            PyList_SET_ITEM(vars2.get(), i, new_ref(e->term.first));
            PyList_SET_ITEM(coefs.get(), i, c);
        }
    }
    return PyTuple_Pack(3, vars1.get(), vars2.get(), coefs.get());
}

}  // namespace tarvo
