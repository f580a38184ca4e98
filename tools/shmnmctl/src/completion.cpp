#include "completion.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <string_view>

#include "picture/conditions.h"
#include "picture/decode.h"
#include "picture/keys.h"
#include "picture/live.h"
#include "picture/selection.h"
#include "picture/spelling.h"
#include "picture_http/remote.h"
#include "usage.h"

namespace shmnmctl {
namespace {

constexpr const char* files = "\tfiles\n";
constexpr const char* commands = "\tcommands\n";

/// Nobody waits longer than this for the answer to a key.
constexpr uint32_t most_patience_ms = 200;

/// Where on the command line the last word stands.
struct Place {
    const CLI::App* command = nullptr;
    const CLI::Option* value_of = nullptr;  ///< the option whose value it is
    std::vector<std::string> arguments;     ///< of the command, before it
    std::string file;                       ///< a dump that was named
    std::string from;                       ///< a server that was named
    std::string machine;                    ///< whose region was named
    picture_http::Credentials credentials;
    bool in_options = true;  ///< there was no -- before it
};

const CLI::Option* option_named(const CLI::App* command, const std::string& name) {
    for (; command; command = command->get_parent()) {
        for (const CLI::Option* const option : command->get_options()) {
            const bool is_long = name.starts_with("--") && option->check_lname(name.substr(2));
            if (is_long || (name.size() == 2 && option->check_sname(name.substr(1)))) return option;
        }
    }
    return nullptr;
}

const CLI::App* command_named(const CLI::App& group, const std::string& name) {
    const std::vector<const CLI::App*> all = visible_commands(group);
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const CLI::App* each) { return each->get_name() == name; });
    return found == all.end() ? nullptr : *found;
}

/// Keeps what says which region is meant.
void take_value(Place& place, const CLI::Option& option, const std::string& value) {
    if (option.check_lname("file")) place.file = value;
    if (option.check_lname("from")) place.from = value;
    if (option.check_lname("machine")) place.machine = value;
    if (option.check_lname("ca-file")) place.credentials.authorities = value;
    if (option.check_lname("cert")) place.credentials.certificate = value;
    if (option.check_lname("key")) place.credentials.key = value;
}

Place place_after(const CLI::App& app, const std::vector<std::string>& words) {
    Place place;
    place.command = &app;
    for (const std::string& word : words) {
        if (place.value_of) {
            take_value(place, *place.value_of, word);
            place.value_of = nullptr;
        } else if (place.in_options && word == "--") {
            place.in_options = false;
        } else if (place.in_options && word.starts_with('-')) {
            const size_t equals = word.starts_with("--") ? word.find('=') : std::string::npos;
            const CLI::Option* const option = option_named(place.command, word.substr(0, equals));
            if (option && equals != std::string::npos) take_value(place, *option, word.substr(equals + 1));
            if (option && equals == std::string::npos && option->get_items_expected_max() > 0) place.value_of = option;
        } else if (const CLI::App* const inner = command_named(*place.command, word)) {
            place.command = inner;
        } else {
            place.arguments.push_back(word);
        }
    }
    return place;
}

Snapshot copy_of(const Place& place) {
    if (!place.file.empty()) return read_dump(place.file);
    if (!place.machine.empty()) {
        const Bridge bridge = BridgeReader().read();
        const bridge::Mark* const mark = find_mark(bridge, place.machine);
        if (mark)
            return picture_http::Remote(mark->address, place.credentials, most_patience_ms)
                .copy(Bytes::in_use)
                .snapshot;
    }
    if (!place.from.empty()) {
        return picture_http::Remote(place.from, place.credentials, most_patience_ms).copy(Bytes::in_use).snapshot;
    }
    const Access quick{.lock_timeout_ms = most_patience_ms, .tell = {}};
    return LiveRegion(quick).copy(Bytes::in_use);
}

class Completion {
  public:
    Completion(Place place, std::string word) : place_(std::move(place)), word_(std::move(word)) {}

    std::string answer() {
        const size_t equals = word_.find('=');
        if (place_.value_of) {
            values(*place_.value_of, "");
        } else if (place_.in_options && word_.starts_with("--") && equals != std::string::npos) {
            const CLI::Option* const option = option_named(place_.command, word_.substr(0, equals));
            if (option) values(*option, word_.substr(0, equals + 1));
        } else if (place_.in_options && word_.starts_with('-')) {
            options();
        } else if (!visible_commands(*place_.command).empty()) {
            for (const CLI::App* const each : visible_commands(*place_.command)) {
                add(each->get_name(), each->get_description());
            }
        } else {
            argument();
        }
        return answer_;
    }

  private:
    void add(const std::string& text, const std::string& help = "") {
        if (!text.starts_with(word_) || std::find(added_.begin(), added_.end(), text) != added_.end()) return;
        added_.push_back(text);
        answer_ += text + "\t" + help + "\n";
    }

    void options() {
        for (const CLI::App* command = place_.command; command; command = command->get_parent()) {
            for (const CLI::Option* const option : command->get_options()) {
                if (option->get_group().empty()) continue;
                for (const std::string& name : option->get_lnames()) add("--" + name, option->get_description());
                for (const std::string& name : option->get_snames()) add("-" + name, option->get_description());
            }
        }
    }

    /// @param[in] before  what the word has before the value: "--format="
    void values(const CLI::Option& option, const std::string& before) {
        const std::string type = option.get_type_name();
        if (type == "FILE") {
            answer_ = files;
        } else if (type == "CONDITION") {
            condition("", before, [&](const std::string& lead, const std::string& begun) { row_words(lead, begun); });
        } else if (type == "SERVER") {
            const Bridge bridge = BridgeReader().read();
            if (bridge.is_there()) add(before + bridge.marks.server);
            for (const bridge::Mark& mark : bridge.marks.servers) add(before + mark.server);
        } else if (type.find('|') != std::string::npos) {
            for (size_t at = 0; at <= type.size();) {
                const size_t end = std::min(type.find('|', at), type.size());
                add(before + type.substr(at, end - at));
                at = end + 1;
            }
        }
    }

    void argument() {
        const std::string name = argument_name();
        const std::string command = place_.command->get_name();
        const CLI::App* const group = place_.command->get_parent();
        const bool of_existing = group && (group->get_name() == "remove" || group->get_name() == "modify" ||
                                           group->get_name() == "describe");
        if (name == "FILE") {
            answer_ = files;
        } else if (name == "COMMAND") {
            answer_ = place_.arguments.empty() ? commands : files;
        } else if (name == "CONDITION") {
            std::string earlier;
            for (const std::string& argument : place_.arguments) earlier += argument + " ";
            condition(earlier, "", [&](const std::string& before, const std::string& begun) {
                keys(before, begun, [](const std::string&) { return true; });
            });
        } else if (name == "KEY" || name == "PREFIX") {
            keys("", word_, [](const std::string&) { return true; });
        } else if (name == "KEY VALUE" && place_.arguments.size() % 2 == 0) {
            keys("", word_, [](const std::string& key) { return !range_of(key).empty(); });
        } else if (name == "SERVER" || (of_existing && command == "server")) {
            names("servers/");
        } else if (name == "KIND") {
            for (const std::string& kind : words_below("fst/pids/NAME/")) add(kind);
        } else if (name == "NAME" && command == "fst") {
            names("fst/pids/");
        } else if (of_existing && name == "TYPE") {
            names(command + "/");
        } else if (of_existing && name == "NAME" && !place_.arguments.empty()) {
            names(command + "/" + place_.arguments[0] + "/");
        }
    }

    /// The name of the argument that the last word is.
    std::string argument_name() const {
        size_t before = place_.arguments.size();
        for (const CLI::Option* const option : place_.command->get_options()) {
            if (!option->get_positional()) continue;
            const auto most = static_cast<size_t>(option->get_items_expected_max());
            if (before < most) return option->get_name(true);
            before -= most;
        }
        return "";
    }

    /// What stands in the region after the beginning of a key, up to the next slash.
    std::vector<std::string> live_parts(const std::string& start) {
        std::vector<std::string> parts;
        for (const Word& word : live()) {
            if (!word.key.starts_with(start)) continue;
            const size_t slash = word.key.find('/', start.size());
            std::string part =
                word.key.substr(start.size(), slash == std::string::npos ? slash : slash + 1 - start.size());
            if (parts.empty() || parts.back() != part) parts.push_back(std::move(part));
        }
        return parts;
    }

    void names(const std::string& start) {
        for (std::string part : live_parts(start)) {
            if (part.ends_with('/')) part.pop_back();
            add(part);
        }
    }

    /// Completes a key part by part, as shells do with files.
    /// @param[in] before  what the word has before the key
    void keys(const std::string& before, const std::string& key,
              const std::function<bool(const std::string&)>& is_wanted) {
        const std::string start = key.substr(0, key.rfind('/') + 1);
        std::vector<std::string> next = words_below(start);
        const std::vector<std::string> live = live_parts(start);
        next.insert(next.end(), live.begin(), live.end());
        for (const std::string& part : next) {
            const std::string whole = start + part;
            if (whole.ends_with('/') || is_wanted(whole)) add(before + whole);
        }
    }

    /// What a condition goes on with after what stands before the last token.
    enum class Expected { factor, existing_key, compared_key, comparison, value, end };
    static Expected after_token(Expected expected, const std::string& token) {
        if (token == "=" || token == "!" || token == "<" || token == ">") return Expected::value;
        switch (expected) {
            case Expected::factor:
                if (token == "exists") return Expected::existing_key;
                if (token == "all" || token == "any") return Expected::compared_key;
                return token == "not" || token == "(" ? Expected::factor : Expected::comparison;
            case Expected::compared_key:
                return Expected::comparison;
            case Expected::existing_key:
            case Expected::value:
                return Expected::end;
            case Expected::comparison:
            case Expected::end:
                break;
        }
        return token == "and" || token == "or" ? Expected::factor : expected;
    }

    /// The words of a row without its key.
    void row_words(const std::string& before, const std::string& begun) {
        const size_t slash = begun.find('/');
        if (slash == std::string::npos) {
            for (const std::string& word : words_of_rows()) add(before + word);
            return;
        }
        const std::string word = begun.substr(0, slash + 1);
        const std::vector<std::string> kinds = words_below("fst/" + word + "NAME/");
        const std::string stem = before + word;
        for (const std::string& kind : kinds) add(stem + kind);
        if (!kinds.empty()) return;
        for (std::string server : live_parts("servers/")) {
            server.pop_back();
            add(stem + server);
        }
    }

    /// @param[in] earlier  arguments that belong to the condition
    /// @param[in] lead     what the word has before the condition: "--only="
    /// @param[in] offer    offers keys after what the word has before them
    void condition(const std::string& earlier, const std::string& lead,
                   const std::function<void(const std::string& before, const std::string& begun)>& offer) {
        constexpr std::string_view blanks = " \t\r\n", marks = "()=!<>", ends = " \t\r\n()=!<>";
        const size_t word_at = earlier.size();
        const std::string text = earlier + word_.substr(lead.size());
        Expected expected = Expected::factor;
        size_t last_at = 0;
        for (;;) {
            last_at = std::min(text.find_first_not_of(blanks, last_at), text.size());
            if (last_at == text.size()) break;
            const bool is_mark = marks.find(text[last_at]) != std::string_view::npos;
            const size_t end = is_mark ? last_at + 1 : std::min(text.find_first_of(ends, last_at), text.size());
            if (!is_mark && end == text.size()) break;
            expected = after_token(expected, text.substr(last_at, end - last_at));
            last_at = end;
        }
        // Arguments before the last one are not completed any more.
        if (last_at < word_at) return;
        const std::string before = lead + text.substr(word_at, last_at - word_at), begun = text.substr(last_at);
        if (expected == Expected::factor || expected == Expected::existing_key || expected == Expected::compared_key) {
            offer(before, begun);
        }
        const auto words = [&](std::initializer_list<const char*> all) {
            for (const char* const each : all) add(before + each);
        };
        if (expected == Expected::factor) words({"not", "exists", "all", "any"});
        if (expected == Expected::comparison) words({"=", "!=", "<", "<=", ">", ">="});
        if (expected == Expected::end) words({"and", "or"});
    }

    /// The words of the dump or server that was named, else of the live region; none where it cannot be read.
    const std::vector<Word>& live() {
        if (live_) return *live_;
        live_.emplace();
        try {
            live_ = words(decode(copy_of(place_)));
        } catch (const std::exception&) {
            // A key on the keyboard is no place for an error.
        }
        return *live_;
    }

    const Place place_;
    const std::string word_;
    std::string answer_;
    std::vector<std::string> added_;
    std::optional<std::vector<Word>> live_;
};

}  // namespace

std::string completion(const CLI::App& app, std::vector<std::string> words) {
    if (words.empty()) return "";
    const std::string last = words.back().substr(std::min<size_t>(1, words.back().size()));
    words.pop_back();
    return Completion(place_after(app, words), last).answer();
}

}  // namespace shmnmctl
