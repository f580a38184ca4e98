// What the fuzzers share: the bytes of an input taken in records of a fixed size, so that a changed byte changes one
// step and no other; the end of the program when a promise is broken; and whether a fault is planted.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace fuzz {

inline void require(bool condition) {
    if (!condition) std::abort();
}

/// Whether a fault is to be planted, so that a test sees that the fuzzer finds it.
inline bool plants_fault() {
    static const bool planted = std::getenv("SHMNM_PLANTED_FAULT") != nullptr;
    return planted;
}

class Input {
  public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool is_empty() const { return size_ == 0; }
    /// The next bytes as they lie in a record, with zeros after the input's end.
    template <typename Record>
    Record take() {
        Record record{};
        const size_t taken = std::min(size_, sizeof record);
        std::memcpy(static_cast<void*>(&record), data_, taken);
        data_ += taken;
        size_ -= taken;
        return record;
    }
    std::string_view rest() const { return {reinterpret_cast<const char*>(data_), size_}; }

  private:
    const uint8_t* data_;
    size_t size_;
};

/// A change of a few bytes at a place, 12 bytes of an input.
struct Poke {
    uint16_t at;
    uint8_t repeats;  ///< of the bytes
    uint8_t size;
    uint8_t bytes[8];

    /// Calls `write(offset, byte)` for each byte that lies in a region of that size.
    template <typename Write>
    void each(size_t region_size, const Write& write) const {
        const size_t length = 1 + size % sizeof bytes;
        for (size_t i = 0; i < length * (1 + size_t{repeats}); ++i) {
            if (at + i < region_size) write(at + i, bytes[i % length]);
        }
    }
};
static_assert(sizeof(Poke) == 12);

}  // namespace fuzz
