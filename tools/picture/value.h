// The value of a word, as people read and type it.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace picture {

/// A whole number of up to 64 bits, signed or not, or none: a server may have no combined state.
class Value {
  public:
    Value() = default;
    Value(uint32_t number) : Value(uint64_t{number}) {}
    Value(uint64_t number) : none_(false), magnitude_(number) {}
    Value(int32_t number) : none_(false), negative_(number < 0), magnitude_(magnitude(number)) {}
    Value(std::optional<uint32_t> number) : none_(!number), magnitude_(number.value_or(0)) {}

    /// Reads a decimal number with an optional sign, a hexadecimal number after 0x, or "none". Blanks may come before
    /// it.
    static std::optional<Value> parse(std::string_view text);

    bool is_none() const { return none_; }
    std::string to_text() const;
    /// The number in 32 bits; nothing if it does not fit.
    std::optional<uint32_t> to_uint32() const;
    std::optional<int32_t> to_int32() const;
    std::optional<uint64_t> to_uint64() const;

    bool operator==(const Value&) const = default;
    /// No value is above or below none.
    std::partial_ordering operator<=>(const Value& other) const;

  private:
    static uint64_t magnitude(int32_t number) {
        return number < 0 ? static_cast<uint64_t>(-int64_t{number}) : static_cast<uint64_t>(number);
    }

    bool none_ = true, negative_ = false;
    uint64_t magnitude_ = 0;
};

/// What a word can be: the numbers from `least` to `most`, and perhaps none.
struct Values {
    Value least, most;
    bool may_be_none = false;

    bool has(const Value& value) const { return value.is_none() ? may_be_none : least <= value && value <= most; }
    /// "0 to 4294967295", with " or none".
    std::string to_text() const;
};

inline const Values any_word{uint32_t{0}, UINT32_MAX};
inline const Values any_long_word{uint64_t{0}, UINT64_MAX};
inline const Values any_number{INT32_MIN, INT32_MAX};

}  // namespace picture
