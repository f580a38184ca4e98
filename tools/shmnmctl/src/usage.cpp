#include "usage.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <string_view>
#include <vector>

#include "picture/escape.h"
#include "picture/spelling.h"

namespace shmnmctl {
namespace {

using picture::as_typed;

std::string full_name(const CLI::App& command) {
    const CLI::App* const parent = command.get_parent();
    return (parent ? full_name(*parent) + " " : "") + command.get_name();
}

bool is_named(const CLI::Option& option) {
    return !option.get_positional() && !option.get_group().empty() && !option.check_lname("help");
}

/// Names that begin with a hyphen, of a command and of those that it is a part of.
std::vector<std::string> option_names(const CLI::App* command) {
    std::vector<std::string> names;
    for (; command; command = command->get_parent()) {
        for (const CLI::Option* const option : command->get_options()) {
            for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
            for (const std::string& name : option->get_snames()) names.push_back("-" + name);
        }
    }
    return names;
}

std::string named(const CLI::Option& option) {
    const std::string name = "--" + option.get_lnames().front();
    if (option.get_items_expected_max() == 0) return fmt::format(" [{}]", name);
    const std::string type = option.get_type_name();
    return fmt::format(" [{} {}]", name, option.get_items_expected_min() == 0 ? "[" + type + "]" : type);
}

std::string positional(const CLI::Option& option) {
    const std::string name = option.get_name(true) + (option.get_items_expected_max() > 1 ? " ..." : "");
    return option.get_required() ? " " + name : " [" + name + "]";
}

/// The part of a text after its first mark; all of it where there is none.
std::string after(const std::string& text, std::string_view mark) {
    const size_t at = text.find(mark);
    return at == std::string::npos ? text : text.substr(at + mark.size());
}
std::string before(const std::string& text, std::string_view mark) {
    return text.substr(0, text.find(mark));
}

std::string wrong_word(const CLI::App& command, const std::string& word) {
    if (word.size() > 1 && word[0] == '-') {
        const std::string name = word.substr(0, word.find('='));
        const std::string meant = picture::nearest(name, option_names(&command));
        return fmt::format("unknown option \"{}\"{}", as_typed(name),
                           meant.empty() ? "" : fmt::format("; did you mean \"{}\"?", meant));
    }
    std::vector<std::string> names;
    for (const CLI::App* const each : visible_commands(command)) names.push_back(each->get_name());
    if (names.empty()) return fmt::format("unexpected argument \"{}\"", as_typed(word));
    const std::string group = command.get_parent() ? after(full_name(command), " ") + " " : "";
    const std::string meant = picture::nearest(word, names);
    return fmt::format("unknown command \"{}{}\"{}", group, as_typed(word),
                       meant.empty() ? "" : fmt::format("; did you mean \"{}{}\"?", group, meant));
}

/// The first option among the words that nobody takes, else the first of them.
std::string first_wrong(const std::vector<std::string>& words) {
    const auto option =
        std::find_if(words.begin(), words.end(), [](const auto& word) { return word.starts_with('-'); });
    return option == words.end() ? words.front() : *option;
}

/// An argument that is missing, with what it is.
std::string missing(const CLI::App& command, const std::string& name) {
    std::string what;
    for (const CLI::Option* const option : command.get_options()) {
        if (option->get_positional() && option->get_name(true) == name) what = option->get_description();
    }
    if (what.empty()) return name + " is missing";
    if (what.size() > 1 && std::islower(static_cast<unsigned char>(what[1]))) {
        what[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(what[0])));
    }
    return fmt::format("{} is missing: {}", name, what);
}

std::string what_is_wrong(const CLI::App& app, const CLI::App& command, const CLI::ParseError& error) {
    std::string what = as_typed(error.what());
    const std::vector<std::string> left = app.remaining(true);
    const bool lacks_command = !visible_commands(command).empty();
    const auto is = [&](CLI::ExitCodes code) { return error.get_exit_code() == static_cast<int>(code); };
    if (!left.empty() && (is(CLI::ExitCodes::ExtrasError) || lacks_command)) {
        return wrong_word(command, first_wrong(left));
    }
    if (is(CLI::ExitCodes::RequiredError)) {
        if (lacks_command) return fmt::format("a command is missing after \"{}\"", full_name(command));
        return missing(command, before(what, " is required"));
    }
    if (is(CLI::ExitCodes::ArgumentMismatch)) {
        const bool too_many = what.find("At Most") != std::string::npos;
        return before(what, ":") + (too_many ? " is given more than once" : " needs a value");
    }
    if (is(CLI::ExitCodes::ValidationError)) return after(what, ": ");
    if (is(CLI::ExitCodes::ExcludesError)) {
        return fmt::format("use either {} or {}", before(what, " excludes "), after(what, " excludes "));
    }
    return what;
}

}  // namespace

const CLI::App& command_at_hand(const CLI::App& app) {
    const CLI::App* command = &app;
    while (!command->get_subcommands().empty()) command = command->get_subcommands().back();
    return *command;
}

std::vector<const CLI::App*> visible_commands(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App* command) { return !command->get_group().empty(); });
}

std::string synopsis(const CLI::App& command) {
    std::string text = full_name(command);
    std::string choices;
    for (const CLI::App* const each : visible_commands(command)) {
        choices += (choices.empty() ? "" : "|") + each->get_name();
    }
    if (!choices.empty()) return text + " " + choices + " ...";
    for (const CLI::Option* const option : command.get_options()) {
        if (is_named(*option)) text += named(*option);
    }
    for (const CLI::Option* const option : command.get_options()) {
        if (option->get_positional()) text += positional(*option);
    }
    return text;
}

Failure usage_failure(const CLI::App& app, const CLI::ParseError& error) {
    const CLI::App& command = command_at_hand(app);
    const std::string what = what_is_wrong(app, command, error);
    if (!command.get_parent()) return {Exit::usage, followed_by(what, "\"shmnmctl --help\" lists the commands")};
    return {Exit::usage, followed_by(what, "usage: " + synopsis(command))};
}

}  // namespace shmnmctl
