// Modelling objects: object layouts, term maps and the internal operations that the
// nonlinear trees, aggregates, evaluation, formula conversion and problem code build on.
#pragma once
#include "module/common.h"
#include "module/types.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <new>
#include <set>
#include <stdexcept>
#include <vector>

namespace tarvo {

constexpr double INF = 1e20;
constexpr uint64_t VAR_SERIAL_MASK = (uint64_t(1) << 52) - 1;
constexpr uint64_t CON_SERIAL_MASK = (uint64_t(1) << 57) - 1;

// ---------------------------------------------------------------- variable
struct VarObject {
    PyObject_HEAD
    uint64_t word;  // serial, bound codes, side-table flags, name flag, type (bits 60-62)
};

inline bool is_var(PyObject* o) { return layout_type_check(o, &VarType); }
inline uint64_t var_serial(PyObject* v) { return reinterpret_cast<VarObject*>(v)->word & VAR_SERIAL_MASK; }
inline int var_type_code(PyObject* v) { return static_cast<int>((reinterpret_cast<VarObject*>(v)->word >> 60) & 7); }

uint64_t next_var_serial();
// The first of n consecutive serials drawn under one lock.
uint64_t next_var_serials(uint64_t n);
PyObject* new_var();  // fresh serial, default state
// A new list of n new variables with consecutive fresh serials (one lock, one allocation pass),
// bounds lb[i] and ub[i] and column type characters types[i] ('C', 'B', 'I', 'S', 'R', 'P';
// any other leaves continuous); a null array gives the default for every variable.
PyObject* new_var_list(Py_ssize_t n, const double* lb, const double* ub, const char* types);
double var_get_lb(uint64_t word);
double var_get_ub(uint64_t word);
double var_get_threshold(uint64_t word);
void var_set_lb(uint64_t* word, double v);
void var_set_ub(uint64_t* word, double v);
void var_set_threshold(uint64_t* word, double v);
void var_set_name(uint64_t* word, PyObject* name);  // takes its own reference
PyObject* var_get_name(uint64_t word);              // new reference (stored or "C%d")
PyObject* var_default_name(uint64_t serial);
// The default name "C%d" of a variable without a stored name, written into buf (at least 24
// bytes) without creating an object; returns false when the variable has a stored name.
bool var_default_name_text(uint64_t word, char* buf);

// Writes prefix followed by n in decimal (as "%c%d" would) and a NUL into buf (at least 24
// bytes): default names are made for every unnamed row and column handed to the library, so
// they are formatted without printf.
inline void numbered_name(char prefix, int n, char* buf) {
    char digits[12];
    int k = 0;
    uint32_t u = n < 0 ? 0u - static_cast<uint32_t>(n) : static_cast<uint32_t>(n);
    do {
        digits[k++] = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u);
    char* out = buf;
    *out++ = prefix;
    if (n < 0) *out++ = '-';
    while (k) *out++ = digits[--k];
    *out = '\0';
}

// Operand kinds: number 0, var 1, linterm 2, quadterm 3, expression 4, nonlinear 5;
// anything else -1 with ModelError "Invalid object in operation: <%S>" set.
enum OperandKind { K_INVALID = -1, K_NUMBER = 0, K_VAR = 1, K_LINTERM = 2, K_QUADTERM = 3, K_EXPRESSION = 4, K_NONLINEAR = 5 };
int operand_kind(PyObject* o);
// The same classification without setting an exception.
int operand_kind_quiet(PyObject* o);

// __array_ufunc__ of var, linterm, quadterm, expression and nonlinear: ufuncs with a modelling
// object among their operands run elementwise on the modelling operators, whichever side the
// object is on (defined with the NumPy dtypes).
PyObject* model_array_ufunc(PyObject* self, PyObject* args, PyObject* kw);
#define MODEL_ARRAY_UFUNC_METHOD                                                                         \
    {"__array_ufunc__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(model_array_ufunc)), \
     METH_VARARGS | METH_KEYWORDS,                                                                     \
     "__array_ufunc__($self, ufunc, method, /, *inputs, **kwargs)\n--\n\n"                             \
     "Apply a NumPy ufunc elementwise with the modelling operators, whichever operand this object is."}

// ---------------------------------------------------------------- term maps
// Ordered by variable serial; each map owns one reference to each key variable and never
// stores an exact zero coefficient.
struct SerialLess {
    bool operator()(PyObject* a, PyObject* b) const { return var_serial(a) < var_serial(b); }
};

// Allocator of the term maps: CPython's small-object allocator, which is much faster than
// malloc for the few-term blocks most expressions hold (larger blocks fall through to malloc).
// Term maps are only built, changed and freed with the GIL held, as the allocator requires.
template <class T>
struct PyObjectAllocator {
    using value_type = T;
    PyObjectAllocator() = default;
    template <class U>
    PyObjectAllocator(const PyObjectAllocator<U>&) {}
    T* allocate(size_t n) {
        if (n > PY_SSIZE_T_MAX / sizeof(T)) throw std::bad_alloc();
        void* p = PyObject_Malloc(n * sizeof(T));
        if (!p) throw std::bad_alloc();
        return static_cast<T*>(p);
    }
    void deallocate(T* p, size_t) { PyObject_Free(p); }
    template <class U>
    bool operator==(const PyObjectAllocator<U>&) const { return true; }
    template <class U>
    bool operator!=(const PyObjectAllocator<U>&) const { return false; }
};

// One linear term: the variable (owned reference) and its coefficient.
struct LinEntry {
    PyObject* first;
    double second;
};

// Linear term map stored flat: an array sorted by serial, so that copying, scanning and
// freeing an expression touch one block instead of one tree node per term. Terms added out of
// order to a large map go to an unsorted tail first (each holding its own reference) and are
// sorted and merged into the sorted part in one pass when the map is next read, or when the
// tail grows as large as the sorted part: lookup and insertion stay logarithmic amortised,
// whatever the order in which a sum is built. The merge sums coefficients in the order they
// were added and drops sums that are exactly 0, so the result equals adding term by term.
// Every accessor settles the tail first; only add() appends to it.
// A map may start on a borrowed buffer (the terms stored inside an expression object, so that
// a small expression is one allocation); it moves to its own block when it outgrows it. The
// buffer's owner must outlive the map's use of it: a map on a borrowed buffer is never moved
// from (moving copies its entries instead).
class LinearMap {
public:
    using iterator = LinEntry*;
    using const_iterator = const LinEntry*;

    LinearMap() = default;
    // An empty map whose first cap terms go into buf (owned by the caller).
    LinearMap(LinEntry* buf, size_t cap) : data_(buf), cap_(static_cast<uint32_t>(cap)), borrowed_(true) {}
    LinearMap(const LinearMap& o) {  // no references taken
        o.settle();
        reserve(o.size_);
        copy_entries(o.data_, o.size_);
    }
    LinearMap(LinearMap&& o) {
        if (o.borrowed_) {
            reserve(o.size_);
            copy_entries(o.data_, o.size_);
            o.size_ = o.sorted_ = 0;
        } else {
            steal(o);
        }
    }
    LinearMap& operator=(LinearMap&& o) = delete;
    LinearMap& operator=(const LinearMap&) = delete;
    ~LinearMap() { release_block(); }

    size_t size() const { settle(); return size_; }
    bool empty() const { settle(); return size_ == 0; }
    iterator begin() { settle(); return data_; }
    iterator end() { settle(); return data_ + size_; }
    const_iterator begin() const { settle(); return data_; }
    const_iterator end() const { settle(); return data_ + size_; }
    // First entry whose serial is not below v's, and the entry of v's serial (or end()).
    iterator lower_bound(PyObject* v);
    iterator find(PyObject* v);
    // Inserts (v, c) before pos, which must keep the order; no reference is taken.
    iterator emplace_hint(iterator pos, PyObject* v, double c);
    // Removes the entry without releasing its key; returns the entry that followed it.
    iterator erase(iterator pos);
    // Room for n terms in all (throws std::bad_alloc when it cannot be had).
    void reserve(size_t n) {
        if (n > cap_) grow_to(n);
    }
    // Appends (v, c) past the largest key, which must keep the order; no reference is taken.
    // The caller has reserved room.
    void append_sorted(PyObject* v, double c) {
        data_[size_++] = LinEntry{v, c};
        ++sorted_;
    }
    // Makes this (empty) map a copy of o with room for extra more terms; no references taken.
    void assign_copy(const LinearMap& o, size_t extra) {
        o.settle();
        reserve(o.size_ + extra);
        copy_entries(o.data_, o.size_);
    }
    static void* operator new(size_t n) {
        void* p = PyObject_Malloc(n);
        if (!p) throw std::bad_alloc();
        return p;
    }
    static void operator delete(void* p) { PyObject_Free(p); }
    static void* operator new(size_t, void* at) noexcept { return at; }  // in place
    static void operator delete(void*, void*) noexcept {}
    // Detaches every entry into o (which must be empty and own no block); this map is left
    // empty. The entries' keys are not released.
    void detach_into(LinearMap& o) noexcept;
    // Adds c (not 0) to v's coefficient, taking a reference for a new entry and releasing the
    // key of an entry whose sum becomes exactly 0.
    void add(PyObject* v, double c);

private:
    void settle() const {
        if (sorted_ != size_) merge_tail();
    }
    void merge_tail() const;
    void grow_to(size_t n);
    void push_back(PyObject* v, double c) {
        if (size_ == cap_) grow_to(size_t(cap_) < 2 ? 4 : 2 * size_t(cap_));
        data_[size_++] = LinEntry{v, c};
    }
    void copy_entries(const LinEntry* from, size_t n) {
        if (n) std::memcpy(static_cast<void*>(data_), from, n * sizeof(LinEntry));
        size_ = sorted_ = static_cast<uint32_t>(n);
    }
    void steal(LinearMap& o) noexcept {
        data_ = o.data_;
        size_ = o.size_;
        cap_ = o.cap_;
        sorted_ = o.sorted_;
        borrowed_ = o.borrowed_;
        o.data_ = nullptr;
        o.size_ = o.cap_ = o.sorted_ = 0;
        o.borrowed_ = false;
    }
    void release_block() noexcept {
        if (!borrowed_ && data_) PyObject_Free(data_);
    }
    mutable LinEntry* data_ = nullptr;
    mutable uint32_t size_ = 0, cap_ = 0;
    mutable uint32_t sorted_ = 0;  // data_[0, sorted_) is sorted by serial, without duplicates
    bool borrowed_ = false;        // data_ belongs to the map's owner, not to the map
};

// One quadratic term: the first variable (smaller serial) and, in term, the second variable and
// the coefficient. The entry owns one reference to each of its two variables.
struct QuadEntry {
    PyObject* row;
    LinEntry term;
};

// Quadratic term map stored flat: entries sorted by (serial of the first variable, serial of
// the second), without duplicates or exact zeros. As in LinearMap, terms added out of order to
// a large map wait in an unsorted tail, and are sorted and merged in one pass (summing in the
// order of addition, dropping exact zeros) when the map is next read or the tail outgrows the
// sorted part, so that a sum or a product of many terms is sorted once rather than searched per
// term. Read as rows: each row is the first variable with the run of its (second variable,
// coefficient) terms, in the shape of a map of maps.
class QuadraticMap {
public:
    // The terms of one row, as LinEntry (second variable, coefficient).
    class Terms {
    public:
        class iterator {
        public:
            explicit iterator(QuadEntry* p) : p_(p) {}
            LinEntry& operator*() const { return p_->term; }
            LinEntry* operator->() const { return &p_->term; }
            iterator& operator++() {
                ++p_;
                return *this;
            }
            bool operator!=(const iterator& o) const { return p_ != o.p_; }
            bool operator==(const iterator& o) const { return p_ == o.p_; }

        private:
            QuadEntry* p_;
        };
        Terms(QuadEntry* b, QuadEntry* e) : b_(b), e_(e) {}
        iterator begin() const { return iterator(b_); }
        iterator end() const { return iterator(e_); }
        size_t size() const { return static_cast<size_t>(e_ - b_); }
        bool empty() const { return b_ == e_; }

    private:
        QuadEntry* b_;
        QuadEntry* e_;
    };
    struct Row {
        PyObject* first;
        Terms second;
    };
    // Iterates over rows; the row it yields lives in the iterator (valid until it moves on).
    class row_iterator {
    public:
        row_iterator(QuadEntry* p, QuadEntry* end) : end_(end), row_{nullptr, Terms(p, p)} { load(p); }
        Row& operator*() { return row_; }
        Row* operator->() { return &row_; }
        row_iterator& operator++() {
            load(stop_);
            return *this;
        }
        bool operator!=(const row_iterator& o) const { return start_ != o.start_; }
        bool operator==(const row_iterator& o) const { return start_ == o.start_; }

    private:
        void load(QuadEntry* p) {
            start_ = p;
            QuadEntry* q = p;
            while (q != end_ && q->row == p->row) ++q;
            stop_ = q;
            row_ = Row{p != end_ ? p->row : nullptr, Terms(p, q)};
        }
        QuadEntry* end_;
        QuadEntry* start_ = nullptr;
        QuadEntry* stop_ = nullptr;
        Row row_;
    };

    QuadraticMap() = default;
    QuadraticMap(const QuadraticMap&) = delete;
    QuadraticMap& operator=(const QuadraticMap&) = delete;
    ~QuadraticMap() { PyObject_Free(data_); }

    row_iterator begin() const { settle(); return row_iterator(data_, data_ + size_); }
    row_iterator end() const { settle(); return row_iterator(data_ + size_, data_ + size_); }
    // Number of terms.
    size_t size() const { settle(); return size_; }
    bool empty() const { settle(); return size_ == 0; }
    // The entries in order.
    QuadEntry* entries_begin() const { settle(); return data_; }
    QuadEntry* entries_end() const { settle(); return data_ + size_; }

    // Adds c (not 0) to the term of (x, y), serial(x) <= serial(y), taking references for a
    // new entry and releasing those of an entry whose sum becomes exactly 0.
    void add(PyObject* x, PyObject* y, double c);
    // Makes this (empty) map hold the entries of o with every coefficient times f, dropping
    // products that are 0 (f == 1 copies them as they are); references are taken.
    void assign_scaled(const QuadraticMap& o, double f);
    // Multiplies every coefficient by f in place, dropping (and releasing) products that are 0.
    void scale(double f);
    // Releases every entry's references and empties the map.
    void clear();
    void reserve(size_t n) {
        if (n > cap_) grow_to(n);
    }
    static void* operator new(size_t n) {
        void* p = PyObject_Malloc(n);
        if (!p) throw std::bad_alloc();
        return p;
    }
    static void operator delete(void* p) { PyObject_Free(p); }

private:
    void settle() const {
        if (sorted_ != size_) merge_tail();
    }
    void merge_tail() const;
    void grow_to(size_t n);
    mutable QuadEntry* data_ = nullptr;
    mutable size_t size_ = 0, cap_ = 0;
    mutable size_t sorted_ = 0;  // data_[0, sorted_) is sorted, without duplicates
};

// Set of variable serials stored flat (sorted, without duplicates); values inserted out of
// order wait in an unsorted tail that is merged when it outgrows the sorted part.
class SerialSet {
public:
    SerialSet() = default;
    SerialSet(const SerialSet& o) : items_((o.settle(), o.items_)), sorted_(items_.size()) {}
    SerialSet& operator=(const SerialSet&) = delete;
    void insert(uint64_t s) {
        if (sorted_ == items_.size() && (items_.empty() || items_.back() < s)) {
            items_.push_back(s);
            ++sorted_;
            return;
        }
        if (std::binary_search(items_.begin(), items_.begin() + static_cast<std::ptrdiff_t>(sorted_), s)) return;
        items_.push_back(s);
        if (items_.size() - sorted_ > std::max<size_t>(32, sorted_)) settle();
    }
    size_t size() const { settle(); return items_.size(); }
    static void* operator new(size_t n) {
        void* p = PyObject_Malloc(n);
        if (!p) throw std::bad_alloc();
        return p;
    }
    static void operator delete(void* p) { PyObject_Free(p); }

private:
    void settle() const;
    mutable std::vector<uint64_t, PyObjectAllocator<uint64_t>> items_;
    mutable size_t sorted_ = 0;
};

void lin_add(LinearMap& m, PyObject* v, double c);
void lin_set(LinearMap& m, PyObject* v, double c);
void lin_erase(LinearMap& m, PyObject* v);
void lin_clear(LinearMap& m);  // releases every key
void quad_clear(QuadraticMap& m);
size_t quad_count(const QuadraticMap& m);

// ---------------------------------------------------------------- terms
struct LinTermObject {
    PyObject_HEAD
    double coef;
    PyObject* var;
};
struct QuadTermObject {
    PyObject_HEAD
    double coef;
    PyObject* var1;  // serial(var1) <= serial(var2)
    PyObject* var2;
};
// A term allocated from Python with type.__new__ has no variables: it is no term at all, so
// every operation (and operand_kind) treats it as an invalid object.
inline bool is_linterm(PyObject* o) {
    return layout_type_check(o, &LinTermType) && reinterpret_cast<LinTermObject*>(o)->var;
}
inline bool is_quadterm(PyObject* o) {
    return layout_type_check(o, &QuadTermType) && reinterpret_cast<QuadTermObject*>(o)->var1 &&
           reinterpret_cast<QuadTermObject*>(o)->var2;
}

PyObject* lin(double c, PyObject* v);               // float 0.0 when c == 0
PyObject* lin_scaled(PyObject* t, double f);        // f times a linterm; 0 gives float 0.0
PyObject* quad(double c, PyObject* x, PyObject* y); // orders x, y by serial

// ---------------------------------------------------------------- expression
struct ExpressionObject {
    PyObject_HEAD
    double constant;
    LinearMap* linear;           // null until the first linear term, then &linear_store
    QuadraticMap* quadratic;     // null until the first quadratic term
    SerialSet* quadratic_vars;   // created with quadratic
    // Storage of the linear part. Expressions made by expr_new_sized carry room for a few
    // terms right behind this struct, which linear_store starts on, so that a small expression
    // is a single allocation. A zero-filled struct is a valid empty map without such room.
    LinearMap linear_store;
};
inline bool is_expression(PyObject* o) { return layout_type_check(o, &ExpressionType); }
inline ExpressionObject* as_expr(PyObject* o) { return reinterpret_cast<ExpressionObject*>(o); }
// A constant expression has neither a linear nor a quadratic part.
inline bool is_constant_expression(PyObject* o) {
    return is_expression(o) && !as_expr(o)->linear && !as_expr(o)->quadratic;
}

PyObject* expr_new();
// An empty expression with room for n linear terms inside the object (capped at a few; more
// terms go to a block of their own).
PyObject* expr_new_sized(size_t n);
PyObject* expr_copy_scaled(PyObject* obj, double f);
int expr_add_linear(PyObject* e, PyObject* v, double c);
int expr_add_quadratic(PyObject* e, PyObject* x, PyObject* y, double c);
PyObject* expr_scale_in_place(PyObject* e, double f);  // steals e; f == 0 gives float 0.0
// Adds s*b into the expression e in place and returns e (a new reference; e itself is borrowed,
// not stolen). A NumPy array or nonlinear b gives a new object and leaves e unchanged; e null
// returns expr_copy_scaled(b, s).
PyObject* expr_add_in_place(PyObject* e, PyObject* b, double s);
// (list of variables, list of coefficients) and (vars1, vars2, coefficients) of term maps.
PyObject* linear_map_to_lists(const LinearMap* m);
PyObject* quadratic_map_to_lists(const QuadraticMap* m);

// Binary operations of the polynomial types with a general sign/coefficient s (a + s*b).
// Used by the nonlinear accumulate and by the slots.
PyObject* expression_sum(PyObject* a, PyObject* b, double s);
PyObject* quadterm_sum(PyObject* a, PyObject* b, double s);
PyObject* linterm_sum(PyObject* a, PyObject* b, double s);
PyObject* expression_product(PyObject* a, PyObject* b);
// The constraint e <= b, e >= b or e == b (op Py_LE, Py_GE, Py_EQ) for an expression e of the
// exact expression type and a number b, equal to what the rich comparison builds.
PyObject* expression_compare_number(PyObject* e, double b, int op);

// ---------------------------------------------------------------- constraint
struct ConstraintObject {
    PyObject_HEAD
    uint64_t word;   // serial (57 bits), bound codes, flags, name flag (bit 63)
    PyObject* body;  // owned, may be null
};
inline bool is_constraint(PyObject* o) { return layout_type_check(o, &ConstraintType); }
inline uint64_t con_serial(PyObject* c) { return reinterpret_cast<ConstraintObject*>(c)->word & CON_SERIAL_MASK; }

uint64_t next_con_serial();
uint64_t next_con_serials(uint64_t n);  // the first of n consecutive serials, one lock
PyObject* con_new();  // fresh serial, null body, bounds -1e20 / 1e20
// A new list of n new constraints without body, with consecutive fresh serials, whose bounds
// say what the rows say: row types qrtype[i] ('E' lb = ub = rhs, 'G' lb = rhs, 'L' ub = rhs,
// 'R' lb = rhs - range, ub = rhs, else free), right-hand sides rhs[i] and ranges rng[i] (null
// rng: 0). Null qrtype or rhs makes every constraint free.
PyObject* new_con_list(Py_ssize_t n, const char* qrtype, const double* rhs, const double* rng);
double con_get_lb(uint64_t word);
double con_get_ub(uint64_t word);
void con_set_lb(uint64_t* word, double v);
void con_set_ub(uint64_t* word, double v);
void con_set_name(uint64_t* word, PyObject* name);
PyObject* con_get_name(uint64_t word);  // new reference (stored or "R%d")
// The body of a constraint (borrowed; null for a constraint without body). A linear body that
// only the constraint held is released once its row is in a problem and made again from the
// row when asked for (problem/detached_bodies.cpp), so c->body is read through this: 0, or -1
// with an exception set. con_body_linked() tells a released body.
int con_body(PyObject* c, PyObject** body);
bool con_body_linked(PyObject* c);
// As var_default_name_text, for a constraint's default name "R%d".
bool con_default_name_text(uint64_t word, char* buf);
// The rich comparison of every modelling type: builds a constraint.
PyObject* constraint_compare(PyObject* a, PyObject* b, int op);
// The last step of the comparison builder: gives the new constraint c (stolen) the normalised
// body (stolen) and the bound r by the comparison op (Py_LE, Py_GE, Py_EQ; the others raise
// their ModelError). Returns c, or null with c released.
PyObject* con_bound_body(PyObject* c, PyObject* body, double r, int op);

// ---------------------------------------------------------------- special ordered set
struct SosObject {
    PyObject_HEAD
    uint64_t serial;
    PyObject* name;
    int type;
    PyObject* indices;  // the caller's list
    PyObject* weights;  // the caller's list
};
inline bool is_sos(PyObject* o) { return layout_type_check(o, &SosType); }
uint64_t next_sos_serial();

// ---------------------------------------------------------------- result check
// Common result check of methods: a null result without an exception set becomes an
// InterfaceError; otherwise the result passes unchanged.
PyObject* check_result(PyObject* result);

// ---------------------------------------------------------------- allocation failures
// Runs f (returning a new reference or null) and turns a failed C++ allocation inside it into a
// Python exception, so that no C++ exception reaches the interpreter: ModelError with message,
// or MemoryError when message is null. Owned references held by RAII holders in f are released
// during the unwinding.
template <class F>
PyObject* alloc_guard(const char* message, F&& f) noexcept {
    try {
        return f();
    } catch (const std::bad_alloc&) {
        if (message) PyErr_SetString(ModelError, message);
        else PyErr_NoMemory();
        return nullptr;
    } catch (const std::length_error&) {
        if (message) PyErr_SetString(ModelError, message);
        else PyErr_NoMemory();
        return nullptr;
    }
}

// The same for functions returning 0 on success and -1 with an exception set.
template <class F>
int alloc_guard_status(const char* message, F&& f) noexcept {
    try {
        return f();
    } catch (const std::bad_alloc&) {
    } catch (const std::length_error&) {
    }
    if (message) PyErr_SetString(ModelError, message);
    else PyErr_NoMemory();
    return -1;
}

}  // namespace tarvo
