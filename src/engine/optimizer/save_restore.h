// Whole-problem files shared by the optimisation and nonlinear libraries: a binary writer and a
// checked reader of tagged sections, and the optimiser's part of a saved problem. The format is
// described in save_restore.cpp.
#pragma once

#include "engine/optimizer/problem.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace trvo {
namespace svf {

constexpr uint32_t kVersion = 1;

// Appends little-endian (native, checked by the reader's byte-order mark) values to a buffer.
struct Writer {
    std::string buf;
    size_t section_at = 0;

    template <class T>
    void put(T v) {
        buf.append(reinterpret_cast<const char*>(&v), sizeof v);
    }
    void put_str(const std::string& s) {
        put<uint64_t>(s.size());
        buf.append(s);
    }
    template <class T>
    void put_vec(const std::vector<T>& v) {
        put<uint64_t>(v.size());
        if (!v.empty()) buf.append(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(T));
    }
    // A section: a four-character tag and the length of its payload, filled in by end().
    void begin(const char tag[4]);
    void end();
    // The header in front, the end section with the checksum behind; written to the file.
    void write_file(const std::string& filename);
};

// Reads the payload of one section; every read is checked against its end, so a damaged file
// fails with a message instead of reading beyond it.
struct Reader {
    const char* p;
    const char* end;
    std::string what;  // section name for messages

    template <class T>
    T get() {
        need(sizeof(T));
        T v;
        std::memcpy(&v, p, sizeof v);
        p += sizeof v;
        return v;
    }
    std::string get_str();
    // A count of elements of `size` bytes each that must fit in what is left.
    size_t get_count(size_t size);
    template <class T>
    std::vector<T> get_vec() {
        size_t n = get_count(sizeof(T));
        std::vector<T> v(n);
        if (n) std::memcpy(v.data(), p, n * sizeof(T));
        p += n * sizeof(T);
        return v;
    }
    void need(size_t n);
    void finish();  // the payload must be used up exactly
};

// A whole file, checked (magic, version, byte order, section lengths, checksum) and split into
// its sections in file order.
struct File {
    std::string data;
    struct Section {
        std::string tag;
        size_t offset, length;
    };
    std::vector<Section> sections;
    void load(const std::string& filename);
    Reader reader(const Section& s) const;
};

// The file name of save (no name: "<problem name>.svf") and of restore (the name as given
// when such a file exists, else with ".svf").
std::string save_name(TRVOprob p, const char* filename);
std::string restore_name(const char* probname);
// Restore flags: none are defined; anything else is refused.
void check_restore_flags(const char* flags);

// The optimiser's sections of a problem.
void write_optimizer(TRVOprob p, Writer& w);

// The optimiser's part of a file, read into a scratch problem; nothing is changed until
// apply() moves it into the target.
struct Staged {
    TRVOprob scratch = nullptr;
    std::vector<std::string> unread;  // tags this part does not know (the nonlinear part's)
    Staged();
    ~Staged();
    Staged(const Staged&) = delete;
    Staged& operator=(const Staged&) = delete;
    void read(const File& f);
    void apply(TRVOprob target);
};

}  // namespace svf
}  // namespace trvo
