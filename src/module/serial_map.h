// Map from the serial of a modelling object to a small value: an open-addressing hash table
// (linear probing, deletion by backward shift) in one flat block. It serves the problems'
// serial -> index maps (every term of every constraint added goes through a lookup) and the
// process-wide side tables of bounds and names: one entry per column or row, so the table
// costs no allocation per entry and 18 to 37 bytes per entry (16-byte slots up to seven eighths
// full while keys sit at their homes, half full once they are scattered) instead of a heap node
// each. Serials are never all ones, which marks an empty slot. Nothing
// needs the serial order.
#pragma once
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace tarvo {

template <class V>
class SerialMap {
public:
    struct Slot {
        uint64_t first;
        V second;
    };
    static constexpr uint64_t EMPTY = ~uint64_t(0);

    template <class S>
    class basic_iterator {
    public:
        basic_iterator() = default;
        basic_iterator(S* p, S* last) : p_(p), last_(last) { skip(); }
        template <class T>
        basic_iterator(const basic_iterator<T>& o) : p_(o.p_), last_(o.last_) {}
        S& operator*() const { return *p_; }
        S* operator->() const { return p_; }
        basic_iterator& operator++() {
            ++p_;
            skip();
            return *this;
        }
        template <class T>
        bool operator==(const basic_iterator<T>& o) const { return p_ == o.p_; }
        template <class T>
        bool operator!=(const basic_iterator<T>& o) const { return p_ != o.p_; }

    private:
        template <class>
        friend class basic_iterator;
        template <class>
        friend class SerialMap;
        void skip() {
            while (p_ != last_ && p_->first == EMPTY) ++p_;
        }
        S* p_ = nullptr;
        S* last_ = nullptr;
    };
    using iterator = basic_iterator<Slot>;
    using const_iterator = basic_iterator<const Slot>;

    size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    iterator begin() { return iterator(data(), data() + slots_.size()); }
    iterator end() { return iterator(data() + slots_.size(), data() + slots_.size()); }
    const_iterator begin() const { return const_iterator(data(), data() + slots_.size()); }
    const_iterator end() const { return const_iterator(data() + slots_.size(), data() + slots_.size()); }

    iterator find(uint64_t key) {
        Slot* s = lookup(key);
        return s ? iterator(s, data() + slots_.size()) : end();
    }
    const_iterator find(uint64_t key) const {
        const Slot* s = const_cast<SerialMap*>(this)->lookup(key);
        return s ? const_iterator(s, data() + slots_.size()) : end();
    }
    size_t count(uint64_t key) const { return const_cast<SerialMap*>(this)->lookup(key) ? 1 : 0; }
    V& at(uint64_t key) {
        Slot* s = lookup(key);
        if (!s) throw std::out_of_range("SerialMap::at");
        return s->second;
    }
    // The value of key, inserting V() when absent (may throw std::bad_alloc when growing).
    V& operator[](uint64_t key);
    // Inserts a key known to be absent (a fresh serial), without looking it up first (may
    // throw std::bad_alloc when growing).
    void insert_absent(uint64_t key, const V& value) {
        if (too_full(count_ + 1, slots_.size())) rehash(slots_.empty() ? 16 : slots_.size() * 2);
        ++count_;
        place(key, value);
    }
    size_t erase(uint64_t key) {
        Slot* s = lookup(key);
        if (!s) return 0;
        remove(s);
        return 1;
    }
    void erase(iterator it) { remove(it.p_); }
    void clear() {
        slots_.clear();
        count_ = 0;
        mask_ = 0;
        max_probe_ = 0;
    }
    // Room for n entries without growing.
    void reserve(size_t n);

private:
    Slot* data() { return slots_.data(); }
    const Slot* data() const { return slots_.data(); }
    // Serials are drawn from a counter, so a key's home is first its own low bits: consecutive
    // serials fill consecutive slots, each at home, and the lookups of a row's terms and the
    // inserts of a batch walk the table in order. No operation looks further than the longest
    // displacement of any entry (max_probe_), so a miss or a deletion among a long run of
    // consecutive entries stays O(1). Should serials come in a stride that piles them onto
    // few homes (a displacement beyond MAX_DIRECT_PROBE), the table switches to scattering keys
    // with a multiplicative hash.
    static constexpr size_t MAX_DIRECT_PROBE = 32;
    // Keys at their homes (consecutive serials) leave no gaps to probe through, so the table
    // fills to seven eighths; scattered keys probe like random ones and keep it half empty.
    bool too_full(size_t n, size_t capacity) const { return scatter_ ? n * 2 > capacity : n * 8 > capacity * 7; }
    size_t home(uint64_t key) const {
        if (scatter_) return static_cast<size_t>((key * 0x9E3779B97F4A7C15ull) >> 20) & mask_;
        return static_cast<size_t>(key) & mask_;
    }
    Slot* lookup(uint64_t key) {
        if (slots_.empty()) return nullptr;
        size_t i = home(key);
        for (size_t d = 0; d <= max_probe_; ++d, i = (i + 1) & mask_) {
            Slot& s = slots_[i];
            if (s.first == key) return &s;
            if (s.first == EMPTY) return nullptr;
        }
        return nullptr;
    }
    // Puts a key known to be absent into its slot (room guaranteed); returns the slot.
    Slot* place(uint64_t key, const V& value);
    void remove(Slot* s);
    void rehash(size_t capacity);

    std::vector<Slot> slots_;  // size a power of two (or 0)
    size_t count_ = 0;
    size_t mask_ = 0;          // slots_.size() - 1 (0 while empty)
    size_t max_probe_ = 0;     // no entry lies further than this from its home
    bool scatter_ = false;     // keys hashed instead of placed by their low bits
};

template <class V>
inline V& SerialMap<V>::operator[](uint64_t key) {
    if (Slot* s = lookup(key)) return s->second;
    if (too_full(count_ + 1, slots_.size())) rehash(slots_.empty() ? 16 : slots_.size() * 2);
    ++count_;
    return place(key, V())->second;
}

template <class V>
inline typename SerialMap<V>::Slot* SerialMap<V>::place(uint64_t key, const V& value) {
    size_t h = home(key), i = h;
    while (slots_[i].first != EMPTY) i = (i + 1) & mask_;
    size_t d = (i - h) & mask_;
    if (d > MAX_DIRECT_PROBE && !scatter_) {
        scatter_ = true;
        // places every other key anew (with room for the lower fill); key itself goes in below
        rehash(too_full(count_, slots_.size()) ? slots_.size() * 2 : slots_.size());
        return place(key, value);
    }
    if (d > max_probe_) max_probe_ = d;
    slots_[i] = Slot{key, value};
    return &slots_[i];
}

template <class V>
inline void SerialMap<V>::reserve(size_t n) {
    size_t capacity = 16;
    while (too_full(n, capacity)) capacity *= 2;
    if (capacity > slots_.size()) rehash(capacity);
}

template <class V>
inline void SerialMap<V>::rehash(size_t capacity) {
    std::vector<Slot> old(capacity, Slot{EMPTY, V()});
    old.swap(slots_);
    mask_ = capacity - 1;
    max_probe_ = 0;
    for (const Slot& s : old)
        if (s.first != EMPTY) place(s.first, s.second);
}

template <class V>
inline void SerialMap<V>::remove(Slot* s) {
    // Backward shift: a later member of the probe run moves into the hole when its home does
    // not lie (cyclically) after the hole. Members further from the hole than max_probe_ are
    // nearer their home than that, so their home lies after the hole: the scan stops there.
    size_t hole = static_cast<size_t>(s - slots_.data());
    size_t j = hole;
    for (size_t d = 1; d <= max_probe_; ++d) {
        j = (j + 1) & mask_;
        if (slots_[j].first == EMPTY) break;
        size_t displacement = (j - home(slots_[j].first)) & mask_;
        if (displacement < d) continue;  // its home lies after the hole
        slots_[hole] = slots_[j];
        hole = j;
        d = 0;
    }
    slots_[hole].first = EMPTY;
    --count_;
}

}  // namespace tarvo
