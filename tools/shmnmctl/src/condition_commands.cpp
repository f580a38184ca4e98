// "query" and "wait": conditions on the picture, answered now or when they hold.
#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "context.h"
#include "duration.h"
#include "picture/answers.h"
#include "picture/decode.h"
#include "picture/escape.h"
#include "picture/platform.h"
#include "region_source.h"
#include "session.h"

namespace shmnmctl {
namespace {

struct ConditionOptions {
    std::vector<std::string> condition;
    std::optional<std::string> timeout;
    uint32_t interval_ms = 50;
};

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

Condition condition_of(const ConditionOptions& options) {
    return condition_on_words(joined(options.condition));
}

void answer(const Context& context, const char* kind, bool holds) {
    if (!context.json()) return;
    Json told = document(kind);
    told["holds"] = holds;
    write_output(line(told));
}

Exit query(const Context& context, const ConditionOptions& options) {
    const Condition condition = condition_of(options);
    const bool holds = condition.holds(words(decode(look(context))));
    answer(context, "query", holds);
    return holds ? Exit::done : Exit::no;
}

/// What keeps the condition from holding; empty: it holds.
std::string unmet_now(RegionSource& region, const Condition& condition, uint32_t lock_timeout_ms) {
    try {
        const auto snapshot = region.try_copy(Bytes::in_use, lock_timeout_ms);
        // One that has gone may come back, in this one's place or another's.
        if (!snapshot) return "no process holds the region any more";
        return condition.unmet(words(decode(*snapshot)));
    } catch (const Error& error) {
        // Without the lock nobody knows, and the time that it took was part of the waiting.
        if (error.kind != ErrorKind::lock_timeout) throw;
        return error.what();
    }
}

Exit wait(const Context& context, const ConditionOptions& options) {
    constexpr uint64_t longest_us = std::numeric_limits<uint64_t>::max();
    // A stop that is asked for while the lock does not come takes no longer than this.
    constexpr uint64_t longest_lock_ms = 1'000;
    refuse_file(context, "test it with \"shmnmctl query --file FILE\"");
    const Condition condition = condition_of(options);
    condition.expect_possible();
    const uint64_t timeout_us =
        options.timeout ? duration_us("--timeout", *options.timeout, PlainUnit::seconds) : longest_us;
    const uint64_t start = platform::steady_clock_us();
    const auto left_ms = [&](uint64_t most_ms) {
        if (timeout_us == longest_us) return static_cast<uint32_t>(most_ms);
        const uint64_t passed_us = platform::steady_clock_us() - start;
        const uint64_t left_us = timeout_us - std::min(passed_us, timeout_us);
        return static_cast<uint32_t>(std::min((left_us + 999) / 1'000, most_ms));
    };
    session::catch_stop();
    RegionSource region(context);
    region.expect();
    for (;;) {
        const std::string unmet = unmet_now(region, condition, left_ms(longest_lock_ms));
        if (unmet.empty()) {
            answer(context, "wait", true);
            return Exit::done;
        }
        if (left_ms(1) == 0) {
            throw Failure(Exit::timeout,
                          fmt::format("the condition did not hold within {}: {}", *options.timeout, unmet));
        }
        if (region.wait(options.interval_ms, {}, left_ms(UINT32_MAX)) == session::Wake::stop) {
            throw Failure(Exit::failed, fmt::format("interrupted before the condition held: {}", unmet));
        }
    }
}

}  // namespace

void add_condition_commands(CLI::App& app, Context& context) {
    static ConditionOptions options;
    constexpr const char* grammar =
        "CONDITION: comparisons such as servers/alpha/nodestat=1 (= != < <= > >=), \"exists KEY\", joined by and, or, "
        "not\n"
        "and parentheses. In a key * stands for any run of bytes within a part; such a key needs \"all\" or \"any\" "
        "before\n"
        "it: \"all servers/*/pingstat=1\". A key that does not exist, and \"all\" of no key, do not hold.";
    const auto condition = [](CLI::App& command) {
        command.add_option("CONDITION", options.condition, "Quoted for the shell, such as 'cluster/clstat=1'")
            ->required();
        command.footer(grammar);
    };
    CLI::App* const query_command = app.add_subcommand("query", "Answer by the exit status whether a condition holds");
    add_format(*query_command, context);
    add_file(*query_command, context);
    add_read_force(*query_command, context);
    condition(*query_command);
    query_command->callback([&] { context.command = [&] { return query(context, options); }; });

    CLI::App* const wait_command = app.add_subcommand("wait", "Return as soon as a condition holds");
    add_format(*wait_command, context);
    add_file(*wait_command, context)->group("");
    wait_command->add_option("--timeout", options.timeout, "Time to wait for the condition; default: no limit")
        ->type_name("TIME");
    add_time(*wait_command, options.interval_ms,
             {.name = "--interval", .help = "Time from one look to the next", .least = "1ms", .most = "1h"});
    condition(*wait_command);
    wait_command->callback([&] { context.command = [&] { return wait(context, options); }; });
}

}  // namespace shmnmctl
