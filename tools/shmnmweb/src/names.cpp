#include "names.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/json.h"
#include "picture/pattern.h"
#include "picture/platform.h"
#include "picture/value.h"

namespace shmnmweb {
namespace {

using picture::ErrorKind;
using picture::Json;

constexpr std::array levels{"ok", "none", "unknown", "warning", "bad"};

[[noreturn]] void refuse(const std::string& file, const std::string& why) {
    throw picture::Error(ErrorKind::failed,
                         fmt::format("cannot use the names in {}: {}", picture::shown_file(file), why));
}

/// A member of an object that is a text; nothing if there is none.
std::optional<std::string> text_member(const Json& object, const char* name) {
    const auto found = object.is_object() ? object.find(name) : object.end();
    if (!object.is_object() || found == object.end() || !found->is_string()) return std::nullopt;
    return found->get<std::string>();
}

}  // namespace

Names::Names(const std::string& file) {
    errno = 0;
    std::ifstream stream(picture::platform::file(file), std::ios::binary);
    text_.assign(std::istreambuf_iterator<char>(stream), {});
    if (!stream.is_open() || stream.bad()) refuse(file, std::strerror(errno));
    const Json names = Json::parse(text_, nullptr, false);
    if (names.is_discarded()) refuse(file, "it is not JSON; see examples/states.json");
    const auto words = names.is_object() ? names.find("words") : names.end();
    if (!names.is_object() || words == names.end() || !words->is_object() || names.value("version", Json()) != 1) {
        refuse(file, "it has no \"version\": 1 or no \"words\"; see examples/states.json");
    }
    for (const auto& [pattern, states] : words->items()) {
        WordNames word{pattern, {}};
        if (!states.is_object()) refuse(file, fmt::format("{} is not an object", picture::printable(pattern)));
        for (const auto& [value, state] : states.items()) {
            const auto number = picture::Value::parse(value);
            const auto name = text_member(state, "name"), level = text_member(state, "level");
            if (!number || !name || !level || std::find(levels.begin(), levels.end(), *level) == levels.end()) {
                refuse(file,
                       fmt::format("{} {} needs a number, a \"name\" and a \"level\", which is ok, none, unknown, "
                                   "warning or bad",
                                   picture::printable(pattern), picture::printable(value)));
            }
            word.states.push_back({number->to_text(), *name, *level});
        }
        words_.push_back(std::move(word));
    }
}

const WordNames* Names::find(std::string_view key) const {
    for (const WordNames& word : words_) {
        if (picture::matches(word.pattern, key)) return &word;
    }
    return nullptr;
}

}  // namespace shmnmweb
