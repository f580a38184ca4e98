// Every single value of the picture under a key that people can read and type: "servers/alpha/nodestat". Names within a
// key are escaped (escape.h), so a key has as many parts as it has slashes, and one more.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "picture/decode.h"

namespace picture {

/// A whole number of up to 64 bits, with a sign, or none: a server may have no combined state.
class Value {
  public:
    Value() = default;
    Value(uint32_t number) : Value(uint64_t{number}) {}
    Value(uint64_t number) : none_(false), magnitude_(number) {}
    Value(int32_t number) : none_(false), negative_(number < 0), magnitude_(magnitude(number)) {}
    Value(std::optional<uint32_t> number) : none_(!number), magnitude_(number.value_or(0)) {}

    /// Reads decimal digits, with a sign, or 0x and hexadecimal ones, or "none". Blanks may stand before.
    static std::optional<Value> parse(std::string_view text);

    bool is_none() const { return none_; }
    std::string to_text() const;
    /// The number in 32 bits; nothing when it does not fit.
    std::optional<uint32_t> to_uint32() const;
    std::optional<int32_t> to_int32() const;
    std::optional<uint64_t> to_uint64() const;

    bool operator==(const Value&) const = default;
    /// Nothing is above or below none.
    std::partial_ordering operator<=>(const Value& other) const;

  private:
    static uint64_t magnitude(int32_t number) {
        return number < 0 ? static_cast<uint64_t>(-int64_t{number}) : static_cast<uint64_t>(number);
    }

    bool none_ = true, negative_ = false;
    uint64_t magnitude_ = 0;
};

struct Word {
    std::string key;
    Value value;
    uint64_t offset = 0;  ///< in the region, in bytes; 0 for what is computed

    bool operator==(const Word&) const = default;
};

/// All words, in the order of the picture. Where several records share a name, the first alone is reached.
std::vector<Word> words(const Picture& picture);

/// The word of a key; null when there is none.
const Word* find(const std::vector<Word>& words, std::string_view key);

/// Parts of a key, still escaped.
std::vector<std::string> parts(std::string_view key);

/// Whether a key lies at or below a prefix: "servers/alpha" holds "servers/alpha/pri", not "servers/alphabet/pri".
/// Every key lies below the empty prefix.
bool is_below(std::string_view key, std::string_view prefix);

}  // namespace picture
