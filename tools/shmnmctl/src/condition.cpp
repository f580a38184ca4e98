#include "condition.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "escape.h"
#include "failure.h"

namespace shmnmctl {
namespace {

using Test = std::function<bool(const std::vector<Word>&)>;
using Compare = bool (*)(const Value&, const Value&);

/// More would be no condition that a person wrote, and each costs a call within the last.
constexpr int most_nested = 100;

class Parser {
  public:
    explicit Parser(std::string_view text) : text_(text) {}

    Test parse() {
        Test test = condition();
        if (!next().empty()) refuse("\"and\", \"or\" or the end");
        return test;
    }

  private:
    [[noreturn]] void refuse(const char* expected) {
        const std::string_view token = next();
        throw Failure(
            Exit::usage,
            fmt::format("the condition is not understood at {}: {} is expected; see \"shmnmctl query --help\"",
                        token.empty() ? std::string("its end") : "\"" + printable(text_.substr(at_)) + "\"", expected));
    }

    /// The token that comes next; empty at the end.
    std::string_view next() {
        constexpr std::string_view blanks = " \t\r\n", operators = "=!<>", ends = " \t\r\n()=!<>";
        at_ = std::min(text_.find_first_not_of(blanks, at_), text_.size());
        if (at_ == text_.size()) return {};
        if (text_[at_] == '(' || text_[at_] == ')') return text_.substr(at_, 1);
        if (operators.find(text_[at_]) != std::string_view::npos) {
            const bool two = at_ + 1 < text_.size() && text_[at_ + 1] == '=';
            return text_.substr(at_, two ? 2 : 1);
        }
        return text_.substr(at_, text_.find_first_of(ends, at_) - at_);
    }
    bool take(std::string_view word) {
        const std::string_view token = next();
        if (token != word) return false;
        at_ += token.size();
        return true;
    }
    std::string take_text(const char* expected) {
        const std::string_view token = next();
        if (token.empty() || std::string_view("()=!<>").find(token[0]) != std::string_view::npos) refuse(expected);
        at_ += token.size();
        return std::string(token);
    }

    Test condition() {
        Test left = term();
        while (take("or")) {
            left = [left, right = term()](const std::vector<Word>& words) { return left(words) || right(words); };
        }
        return left;
    }

    Test term() {
        Test left = factor();
        while (take("and")) {
            left = [left, right = factor()](const std::vector<Word>& words) { return left(words) && right(words); };
        }
        return left;
    }

    Test factor() {
        if (++nested_ > most_nested) refuse("a condition with less within one another");
        Test test;
        if (take("not")) {
            test = [inner = factor()](const std::vector<Word>& words) { return !inner(words); };
        } else if (take("(")) {
            test = condition();
            if (!take(")")) refuse("\")\"");
        } else if (take("exists")) {
            test = [pattern = take_text("a key")](const std::vector<Word>& words) {
                return std::any_of(words.begin(), words.end(),
                                   [&](const Word& word) { return matches(pattern, word.key); });
            };
        } else {
            test = comparison();
        }
        --nested_;
        return test;
    }

    Test comparison() {
        const bool all = take("all"), any = !all && take("any");
        const size_t key_at = at_;
        const std::string pattern = take_text("a key");
        if (pattern.find('*') != std::string::npos && !all && !any) {
            at_ = key_at;
            refuse("\"all\" or \"any\" before a key with *");
        }
        const Compare compare = take_operator();
        const size_t value_at = at_;
        const auto value = Value::parse(take_text("a number"));
        if (!value) {
            at_ = value_at;
            refuse("a number");
        }
        return [=](const std::vector<Word>& words) {
            bool found = false;
            for (const Word& word : words) {
                if (!matches(pattern, word.key)) continue;
                found = true;
                if (compare(word.value, *value) != all) return !all;
            }
            return found && all;
        };
    }

    Compare take_operator() {
        if (take("=") || take("==")) return [](const Value& left, const Value& right) { return left == right; };
        if (take("!=")) return [](const Value& left, const Value& right) { return left != right; };
        if (take("<")) return [](const Value& left, const Value& right) { return left < right; };
        if (take("<=")) return [](const Value& left, const Value& right) { return left <= right; };
        if (take(">")) return [](const Value& left, const Value& right) { return left > right; };
        if (take(">=")) return [](const Value& left, const Value& right) { return left >= right; };
        refuse("one of = != < <= > >=");
    }

    std::string_view text_;
    size_t at_ = 0;
    int nested_ = 0;
};

/// Whether one part matches: each * takes as little as it can, and more when the rest does not fit.
bool part_matches(std::string_view pattern, std::string_view part) {
    size_t p = 0, t = 0;
    std::optional<size_t> star;
    size_t tried = 0;
    while (t < part.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            tried = t;
        } else if (p < pattern.size() && pattern[p] == part[t]) {
            ++p;
            ++t;
        } else if (star) {
            p = *star + 1;
            t = ++tried;
        } else {
            return false;
        }
    }
    return std::all_of(pattern.begin() + static_cast<std::ptrdiff_t>(p), pattern.end(),
                       [](char byte) { return byte == '*'; });
}

}  // namespace

bool matches(std::string_view pattern, std::string_view key) {
    if (pattern.find('*') == std::string_view::npos) return pattern == key;
    for (;;) {
        const size_t pattern_end = pattern.find('/'), key_end = key.find('/');
        if (!part_matches(pattern.substr(0, pattern_end), key.substr(0, key_end))) return false;
        if (pattern_end == std::string_view::npos || key_end == std::string_view::npos) return pattern_end == key_end;
        pattern.remove_prefix(pattern_end + 1);
        key.remove_prefix(key_end + 1);
    }
}

Condition::Condition(std::string_view text) : text_(text), test_(Parser(text_).parse()) {}

}  // namespace shmnmctl
