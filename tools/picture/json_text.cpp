#include "picture/json_text.h"

#include <fmt/format.h>

#include <iterator>

namespace picture {

void JsonText::separate() {
    if (!is_first_) text_ += ',';
    is_first_ = false;
}

JsonText& JsonText::open(char bracket) {
    separate();
    text_ += bracket;
    is_first_ = true;
    return *this;
}

JsonText& JsonText::close(char bracket) {
    text_ += bracket;
    is_first_ = false;
    return *this;
}

JsonText& JsonText::write(std::string_view value) {
    separate();
    text_ += value;
    return *this;
}

void JsonText::quote(std::string_view text) {
    constexpr char first_printable = ' ';
    text_ += '"';
    for (const char byte : text) {
        if (byte == '"' || byte == '\\') {
            text_ += '\\';
            text_ += byte;
        } else if (byte >= 0 && byte < first_printable) {
            fmt::format_to(std::back_inserter(text_), "\\u{:04x}", static_cast<unsigned>(byte));
        } else {
            text_ += byte;
        }
    }
    text_ += '"';
}

JsonText& JsonText::name(std::string_view name) {
    separate();
    quote(name);
    text_ += ':';
    is_first_ = true;
    return *this;
}

JsonText& JsonText::string(std::string_view text) {
    separate();
    quote(text);
    return *this;
}

JsonText& JsonText::value(const Value& value) {
    with_shown(value, [this](const auto& shown) { add(shown); });
    return *this;
}

}  // namespace picture
