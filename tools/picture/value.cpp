#include "picture/value.h"

#include <fmt/format.h>

#include <charconv>
#include <limits>

namespace picture {

std::optional<Value> Value::parse(std::string_view text) {
    while (text.starts_with(' ')) text.remove_prefix(1);
    if (text == "none") return Value();
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    uint64_t magnitude = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude, hexadecimal ? 16 : 10);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    Value value(magnitude);
    value.negative_ = negative && magnitude != 0;
    return value;
}

std::string Value::to_text() const {
    return none_ ? "none" : fmt::format("{}{}", negative_ ? "-" : "", magnitude_);
}

std::optional<uint64_t> Value::to_uint64() const {
    if (none_ || negative_) return std::nullopt;
    return magnitude_;
}

std::optional<uint32_t> Value::to_uint32() const {
    if (none_ || negative_ || magnitude_ > std::numeric_limits<uint32_t>::max()) return std::nullopt;
    return static_cast<uint32_t>(magnitude_);
}

std::optional<int32_t> Value::to_int32() const {
    const uint64_t most = uint64_t{std::numeric_limits<int32_t>::max()} + (negative_ ? 1 : 0);
    if (none_ || magnitude_ > most) return std::nullopt;
    const auto number = static_cast<int64_t>(magnitude_);
    return static_cast<int32_t>(negative_ ? -number : number);
}

std::partial_ordering Value::operator<=>(const Value& other) const {
    if (none_ || other.none_) {
        return none_ && other.none_ ? std::partial_ordering::equivalent : std::partial_ordering::unordered;
    }
    if (negative_ != other.negative_) {
        return negative_ ? std::partial_ordering::less : std::partial_ordering::greater;
    }
    return negative_ ? other.magnitude_ <=> magnitude_ : magnitude_ <=> other.magnitude_;
}

std::string Values::to_text() const {
    return least.to_text() + " to " + most.to_text() + (may_be_none ? " or none" : "");
}

}  // namespace picture
