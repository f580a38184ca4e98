// Writes JSON, part by part. A document of values would need memory to be built, and again to be destroyed, where no
// failure can be reported; this needs it for the text alone.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "picture/value.h"

namespace picture {

/// Calls a function with what JSON shows for a value: a number, null for none, or text for a number of more than 53
/// bits, which many readers of JSON would round.
template <typename Function>
auto with_shown(const Value& value, const Function& function) {
    constexpr uint64_t exact = uint64_t{1} << 53;
    if (const auto small = value.to_int32()) return function(*small);
    const auto number = value.to_uint64();
    if (!number) return function(nullptr);
    return *number <= exact ? function(*number) : function(value.to_text());
}

class JsonText {
  public:
    JsonText& begin_object() { return open('{'); }
    JsonText& end_object() { return close('}'); }
    JsonText& begin_array() { return open('['); }
    JsonText& end_array() { return close(']'); }

    /// The name of the next value in an object.
    JsonText& name(std::string_view name);

    JsonText& null() { return write("null"); }
    JsonText& boolean(bool value) { return write(value ? "true" : "false"); }
    JsonText& number(std::integral auto value) { return write(std::to_string(value)); }
    JsonText& string(std::string_view text);
    JsonText& value(const Value& value);

    std::string take() { return std::move(text_); }

  private:
    JsonText& open(char bracket);
    JsonText& close(char bracket);
    JsonText& write(std::string_view value);
    void add(std::nullptr_t) { null(); }
    void add(std::integral auto value) { number(value); }
    void add(const std::string& text) { string(text); }
    void separate();
    void quote(std::string_view text);

    std::string text_;
    bool is_first_ = true;  ///< of an object, an array or the document
};

}  // namespace picture
