// Fuzzes conditions (an input's first line) and assignments (the other lines): each is refused with a printable
// message, or holds or fails with its reasons, or becomes calls for words that exist.
#include <string>
#include <string_view>

#include "fuzz/input.h"
#include "picture/assignments.h"
#include "picture/conditions.h"
#include "picture/decode.h"
#include "picture/error.h"
#include "picture/keys.h"
#include "picture/laid_out.h"
#include "picture/selection.h"

namespace {

using fuzz::require;

bool is_printable(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char byte) { return byte >= ' ' && byte <= '~'; });
}

const picture::Picture& picture_of_golden_region() {
    static const picture::Picture golden = [] {
        picture::Snapshot snapshot = picture::read_dump(SHMNM_GOLDEN_REGION);
        picture::settle_dump(snapshot, "dump");
        return picture::decode(snapshot);
    }();
    return golden;
}

void try_condition(std::string_view text) {
    static const std::vector<picture::Word> words = picture::words(picture_of_golden_region());
    const picture::Condition condition(text);
    require(!condition.patterns().empty());
    const bool is_wrong = fuzz::plants_fault() && condition.patterns().size() > 2;
    require((condition.holds(words) != is_wrong) == condition.unmet(words).empty());
    require(is_printable(condition.unmet(words)));
    // In brackets it is the same, and its opposite is not.
    const std::string bracketed = "( " + std::string(text) + " )";
    require(picture::Condition(bracketed).holds(words) == condition.holds(words));
    require(picture::Condition("not " + bracketed).holds(words) != condition.holds(words));
    bool is_possible = true;
    try {
        condition.expect_words();
        condition.expect_possible();
    } catch (const picture::Error& error) {
        require(is_printable(error.what()));
        is_possible = error.kind == picture::ErrorKind::no_such_word;
    }
    require(is_possible || !condition.holds(words));
}

/// As opposed to a function that adds or removes a server or a resource.
bool changes_words_only(std::string_view function) {
    return function.starts_with("shmnm_set") || function.starts_with("shmnm_modify");
}

void try_assignments(std::string_view text) {
    const std::vector<picture::Assignment> assignments = picture::parse_assignments(text);
    for (const bool force : {false, true}) {
        try {
            const std::vector<picture::Step> steps = picture::plan(picture_of_golden_region(), assignments, force);
            require(steps.size() <= assignments.size());
            for (const picture::Step& step : steps) require(changes_words_only(step.function));
            for (const picture::Assignment& each : assignments) {
                require(picture::find(picture_of_golden_region(), each.key).has_value());
            }
        } catch (const picture::Error& error) {
            require(is_printable(error.what()));
        }
    }
}

template <typename Try>
void refuses_in_print(const Try& tried, std::string_view text) {
    try {
        tried(text);
    } catch (const picture::Error& error) {
        require(is_printable(error.what()));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text = fuzz::Input(data, size).rest();
    const size_t end = std::min(text.find('\n'), text.size());
    refuses_in_print(try_condition, text.substr(0, end));
    refuses_in_print(try_assignments, text.substr(std::min(end + 1, text.size())));
    return 0;
}
