#include "picture/changes.h"

#include <unordered_map>

namespace picture {

std::vector<WordChange> changes(const std::vector<Word>& before, const std::vector<Word>& after,
                                std::string_view prefix) {
    const auto is_told = [&](const Word& word) {
        return is_below(word.key, prefix) && (word.key == prefix || !moves(word.key));
    };
    std::unordered_map<std::string_view, const Word*> left;
    for (const Word& word : before) {
        if (is_told(word)) left.emplace(word.key, &word);
    }
    std::vector<WordChange> found;
    for (const Word& word : after) {
        if (!is_told(word)) continue;
        const auto known = left.find(word.key);
        if (known == left.end()) {
            found.push_back({word.key, std::nullopt, word.value});
            continue;
        }
        if (known->second->value != word.value) found.push_back({word.key, known->second->value, word.value});
        left.erase(known);
    }
    if (left.empty()) return found;
    for (const Word& word : before) {
        if (left.contains(word.key)) found.push_back({word.key, word.value, std::nullopt});
    }
    return found;
}

}  // namespace picture
