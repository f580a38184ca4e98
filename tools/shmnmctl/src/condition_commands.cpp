// "query" and "wait": conditions on the picture, answered now or when they hold.
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "condition.h"
#include "context.h"
#include "escape.h"
#include "platform.h"

namespace shmnmctl {
namespace {

struct Options {
    std::vector<std::string> condition;
    std::string timeout;
    uint32_t interval_ms = 50;
};

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

void answer(const Context& context, const char* kind, bool holds) {
    if (!context.json()) return;
    Json told = document(kind);
    told["holds"] = holds;
    write_output(line(told));
}

Exit query(const Context& context, const Options& options) {
    const Condition condition(joined(options.condition));
    const bool holds = condition.holds(words(decode(look(context))));
    answer(context, "query", holds);
    return holds ? Exit::done : Exit::no;
}

/// Microseconds of a duration such as 500ms, 10s, 2m, 1h or plain seconds.
uint64_t duration_us(const std::string& text) {
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string_view unit(end, static_cast<size_t>(text.data() + text.size() - end));
    const std::optional<double> us = unit == "ms"                  ? std::optional(1e3)
                                     : unit == "s" || unit.empty() ? std::optional(1e6)
                                     : unit == "m"                 ? std::optional(60e6)
                                     : unit == "h"                 ? std::optional(3600e6)
                                                                   : std::nullopt;
    if (error != std::errc{} || !us || !(number >= 0) || number * *us > 1e15) {
        throw Failure(Exit::usage,
                      fmt::format("{} is no duration; give 500ms, 10s, 2m, 1h or seconds", printable(text)));
    }
    return static_cast<uint64_t>(number * *us);
}

Exit wait(Context context, const Options& options) {
    const Condition condition(joined(options.condition));
    const uint64_t start = platform::steady_clock_us();
    const uint64_t end =
        options.timeout.empty() ? std::numeric_limits<uint64_t>::max() : start + duration_us(options.timeout);
    platform::catch_stop();
    LiveRegion region(context.access);
    region.expect();
    for (;;) {
        try {
            // A region that has gone may come back, in this one's place or another's.
            const auto snapshot = region.try_copy();
            if (snapshot && condition.holds(words(decode(*snapshot)))) {
                answer(context, "wait", true);
                return Exit::done;
            }
        } catch (const Failure& failure) {
            // A lock that does not come is one more reason why the condition is not known to hold.
            if (failure.exit != Exit::timeout || platform::steady_clock_us() >= end) throw;
        }
        const uint64_t now = platform::steady_clock_us();
        if (now >= end) {
            throw Failure(Exit::timeout,
                          fmt::format("it did not hold within {}: {}", options.timeout, printable(condition.text())));
        }
        const uint64_t left_ms = (end - now) / 1'000 + 1;
        if (platform::stopped_within(static_cast<uint32_t>(std::min<uint64_t>(options.interval_ms, left_ms)))) {
            throw Failure(Exit::failed, "interrupted before the condition held");
        }
    }
}

}  // namespace

void add_condition_commands(CLI::App& app, Context& context) {
    static Options options;
    constexpr const char* grammar =
        "CONDITION: comparisons such as servers/alpha/nodestat=1 (= != < <= > >=), \"exists KEY\", joined by and, or, "
        "not\n"
        "and parentheses. In a key * stands for any run of bytes within a part; such a key needs \"all\" or \"any\" "
        "before\n"
        "it: \"all servers/*/pingstat=1\". A key that does not exist, and \"all\" of no key, do not hold.";
    const auto condition = [](CLI::App& command) {
        command.add_option("CONDITION", options.condition, "Quote it for the shell")->required();
        command.footer(grammar);
    };
    CLI::App* const query_command = app.add_subcommand("query", "Answer by the exit status whether a condition holds");
    add_format(*query_command, context);
    add_file(*query_command, context);
    condition(*query_command);
    query_command->callback([&] { context.command = [&] { return query(context, options); }; });

    CLI::App* const wait_command = app.add_subcommand("wait", "Return as soon as a condition holds");
    add_format(*wait_command, context);
    wait_command->add_option("--timeout", options.timeout, "500ms, 10s, 2m, 1h or seconds; without it there is none");
    wait_command->add_option("--interval", options.interval_ms, "Milliseconds from one look to the next")
        ->check(CLI::Range(1, 3'600'000))
        ->capture_default_str();
    condition(*wait_command);
    wait_command->callback([&] { context.command = [&] { return wait(context, options); }; });
}

}  // namespace shmnmctl
