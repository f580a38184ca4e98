#include "picture/answers.h"

#include <fmt/format.h>

#include <utility>

#include "picture/error.h"
#include "picture/escape.h"
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

Json verify_document(const std::vector<Finding>& findings) {
    Json list = Json::array();
    for (const Finding& finding : findings) {
        list.push_back({{"offset", finding.offset},
                        {"key", finding.key},
                        {"expected", finding.expected},
                        {"found", finding.found}});
    }
    Json answer = document("verify");
    answer["findings"] = std::move(list);
    return answer;
}

}  // namespace picture
