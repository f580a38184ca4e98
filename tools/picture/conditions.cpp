#include "picture/conditions.h"

#include <fmt/format.h>

#include <algorithm>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/pattern.h"
#include "picture/spelling.h"

namespace picture {
namespace {

using Part = Condition::Part;
using Kind = Part::Kind;

/// No person writes deeper conditions, and each level costs a nested call.
constexpr int most_nested = 100;

constexpr std::string_view blanks = " \t\r\n", marks = "()=!<>", ends = " \t\r\n()=!<>";

class Parser {
  public:
    explicit Parser(std::string_view text) : text_(text) {}

    Part parse() {
        Part whole = condition();
        if (!next().empty()) refuse("\"and\", \"or\" or the end is expected");
        return whole;
    }

  private:
    [[noreturn]] void refuse(const std::string& why) {
        constexpr size_t most_shown = 40;
        const std::string_view rest = next().empty() ? std::string_view() : text_.substr(at_);
        const std::string shown = as_typed(rest.substr(0, most_shown)) + (rest.size() > most_shown ? "..." : "");
        throw Error(ErrorKind::invalid_condition, fmt::format("invalid condition at character {}, {}: {}", at_ + 1,
                                                              rest.empty() ? "its end" : "\"" + shown + "\"", why));
    }

    /// The next token; empty at the end.
    std::string_view next() {
        at_ = std::min(text_.find_first_not_of(blanks, at_), text_.size());
        if (at_ == text_.size()) return {};
        if (text_[at_] == '(' || text_[at_] == ')') return text_.substr(at_, 1);
        if (marks.find(text_[at_]) != std::string_view::npos) {
            const bool two = at_ + 1 < text_.size() && text_[at_ + 1] == '=';
            return text_.substr(at_, two ? 2 : 1);
        }
        return text_.substr(at_, text_.find_first_of(ends, at_) - at_);
    }
    bool take(std::string_view token) {
        if (next() != token) return false;
        at_ += token.size();
        return true;
    }
    std::string take_text(const char* why) {
        const std::string_view token = next();
        const bool is_mark = token.empty() || marks.find(token[0]) != std::string_view::npos;
        const bool is_word =
            token == "and" || token == "or" || token == "not" || token == "all" || token == "any" || token == "exists";
        if (is_mark || is_word) refuse(why);
        at_ += token.size();
        return std::string(token);
    }
    std::string written_since(size_t start) const { return std::string(text_.substr(start, at_ - start)); }

    Part condition() { return joined_by("or", Kind::one_of, &Parser::term); }
    Part term() { return joined_by("and", Kind::all_of, &Parser::factor); }

    Part joined_by(const char* word, Kind kind, Part (Parser::*part)()) {
        Part first = (this->*part)();
        if (next() != word) return first;
        Part joined;
        joined.kind = kind;
        joined.parts.push_back(std::move(first));
        while (take(word)) joined.parts.push_back((this->*part)());
        return joined;
    }

    Part factor() {
        next();
        const size_t start = at_;
        if (++nested_ > most_nested) refuse("it is nested more than 100 deep");
        Part part;
        if (take("(")) {
            part = condition();
            if (!take(")")) refuse("\"and\", \"or\" or \")\" is expected");
        } else {
            if (take("not")) {
                part.kind = Kind::none_of;
                part.parts.push_back(factor());
            } else if (take("exists")) {
                part.kind = Kind::exists;
                part.pattern = take_text("a key is expected");
            } else {
                comparison(part);
            }
            part.text = written_since(start);
        }
        --nested_;
        return part;
    }

    void comparison(Part& part) {
        part.of_all = take("all");
        const bool quantified = part.of_all || take("any");
        next();
        const size_t key_at = at_;
        part.pattern = take_text("a key is expected");
        if (part.pattern.find('*') != std::string::npos && !quantified) {
            at_ = key_at;
            const std::string why = fmt::format("a key with * needs \"any\" or \"all\" before it, as in 'any {}=0'",
                                                as_typed(part.pattern));
            if (key_at == 0) throw Error(ErrorKind::invalid_condition, why);
            refuse(why);
        }
        part.compare = take_operator();
        next();
        const size_t value_at = at_;
        const auto value = Value::parse(take_text("a number is expected"));
        if (!value) {
            at_ = value_at;
            refuse("a number is expected");
        }
        part.value = *value;
    }

    Part::Compare take_operator() {
        if (take("=") || take("==")) return [](const Value& left, const Value& right) { return left == right; };
        if (take("!=")) return [](const Value& left, const Value& right) { return left != right; };
        if (take("<")) return [](const Value& left, const Value& right) { return left < right; };
        if (take("<=")) return [](const Value& left, const Value& right) { return left <= right; };
        if (take(">")) return [](const Value& left, const Value& right) { return left > right; };
        if (take(">=")) return [](const Value& left, const Value& right) { return left >= right; };
        refuse("one of = != < <= > >= is expected");
    }

    std::string_view text_;
    size_t at_ = 0;
    int nested_ = 0;
};

bool holds(const Part& part, const std::vector<Word>& words) {
    const auto inner = [&](const Part& each) { return holds(each, words); };
    switch (part.kind) {  // branch: each has its case
        case Kind::all_of:
            return std::all_of(part.parts.begin(), part.parts.end(), inner);
        case Kind::one_of:
            return std::any_of(part.parts.begin(), part.parts.end(), inner);
        case Kind::none_of:
            return std::none_of(part.parts.begin(), part.parts.end(), inner);
        case Kind::exists:
        case Kind::comparison:
            break;
    }
    bool found = false;
    for (const Word& word : words) {
        if (!matches(part.pattern, word.key)) continue;
        if (part.kind == Kind::exists) return true;
        found = true;
        if (part.compare(word.value, part.value) != part.of_all) return !part.of_all;
    }
    return found && part.of_all;
}

/// Why a comparison or an existence test does not hold.
std::string reason(const Part& part, const std::vector<Word>& words) {
    const Word* first = nullptr;
    size_t unmet = 0;
    for (const Word& word : words) {
        if (!matches(part.pattern, word.key) || part.compare(word.value, part.value)) continue;
        if (unmet++ == 0) first = &word;
    }
    if (!first) return "no such key";
    if (first->key == part.pattern) return "it is " + first->value.to_text();
    return fmt::format("{} is {}{}", first->key, first->value.to_text(),
                       unmet > 1 ? fmt::format(", {} more", unmet - 1) : "");
}

std::string unmet(const Part& part, const std::vector<Word>& words) {
    if (holds(part, words)) return {};
    if (part.kind == Kind::none_of) return as_typed(part.text);
    if (part.kind == Kind::exists) return as_typed(part.text) + " (no such key)";
    if (part.kind == Kind::comparison) return fmt::format("{} ({})", as_typed(part.text), reason(part, words));
    std::string text;
    for (const Part& each : part.parts) {
        const std::string more = unmet(each, words);
        if (more.empty()) continue;
        if (!text.empty()) text += part.kind == Kind::all_of ? " and " : " or ";
        // As in the condition, "and" binds tighter.
        text += part.kind == Kind::all_of && each.kind == Kind::one_of ? "(" + more + ")" : more;
    }
    return text;
}

void expect_words(const Part& part) {
    if (!part.pattern.empty()) expect_pattern(part.pattern);
    for (const Part& each : part.parts) expect_words(each);
}

/// The first comparison because of which a condition can never hold; null: it may hold.
const Part* impossible(const Part& part) {
    if (part.kind == Kind::none_of || part.kind == Kind::exists) return nullptr;
    if (part.kind == Kind::comparison) {
        const std::vector<Values> values = values_of(part.pattern);
        const auto may_hold = [&](const Values& each) {
            return part.compare(each.least, part.value) || part.compare(each.most, part.value) ||
                   (each.has(part.value) && part.compare(part.value, part.value));
        };
        return std::any_of(values.begin(), values.end(), may_hold) ? nullptr : &part;
    }
    const Part* first = nullptr;
    for (const Part& each : part.parts) {
        const Part* const found = impossible(each);
        if (!first) first = found;
        if (found && part.kind == Kind::all_of) return found;
        if (!found && part.kind == Kind::one_of) return nullptr;
    }
    return first;
}

void add_patterns(std::vector<std::string>& to, const Part& part) {
    if (!part.pattern.empty()) to.push_back(part.pattern);
    for (const Part& each : part.parts) add_patterns(to, each);
}

}  // namespace

Condition::Condition(std::string_view text) : whole_(Parser(text).parse()) {}

void Condition::expect_words() const {
    picture::expect_words(whole_);
}

void Condition::expect_possible() const {
    const Part* const never = impossible(whole_);
    if (!never) return;
    throw Error(ErrorKind::invalid,
                fmt::format("\"{}\" can never hold: use a value from {} for {}", as_typed(never->text),
                            values_of(never->pattern).front().to_text(), as_typed(never->pattern)));
}

bool Condition::holds(const std::vector<Word>& words) const {
    return picture::holds(whole_, words);
}

std::string Condition::unmet(const std::vector<Word>& words) const {
    return picture::unmet(whole_, words);
}

std::vector<std::string> Condition::patterns() const {
    std::vector<std::string> all;
    add_patterns(all, whole_);
    return all;
}

}  // namespace picture
