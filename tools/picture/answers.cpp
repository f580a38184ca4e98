#include "picture/answers.h"

#include <fmt/format.h>

#include <utility>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/json.h"
#include "picture/spelling.h"

namespace picture {

Word word_of(const Picture& picture, std::string_view key) {
    expect_key(key);
    if (auto word = find(picture, key)) return *std::move(word);
    const std::string near = nearest_key(key, words(picture));
    throw Error(ErrorKind::no_such_key, fmt::format("there is no key {}{}", as_typed(key), question(near)));
}

Condition condition_on_words(std::string_view text) {
    Condition condition(text);
    condition.expect_words();
    return condition;
}

std::vector<Finding> with_repair(std::vector<Finding> findings) {
    for (Finding& finding : findings) {
        if (finding.can_be_completed) finding.expected += " (\"shmnmctl repair\" completes this one)";
    }
    return findings;
}

std::string verify_line(const std::vector<Finding>& findings) {
    JsonText text = document_text("verify");
    text.name("findings").begin_array();
    for (const Finding& finding : findings) {
        text.begin_object().name("offset").number(finding.offset).name("key").string(finding.key);
        text.name("expected").string(finding.expected).name("found").string(finding.found).end_object();
    }
    text.end_array();
    return line(text);
}

}  // namespace picture
