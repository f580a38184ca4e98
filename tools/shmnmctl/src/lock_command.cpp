// "lock": runs a command while holding the region's lock, or tells who holds it.
#include <fmt/format.h>

#include <string>
#include <vector>

#include "context.h"
#include "duration.h"
#include "picture/escape.h"
#include "picture/interrupted.h"
#include "picture/platform.h"
#include "session.h"

namespace shmnmctl {
namespace {

Exit run_locked(const Context& context, const std::vector<std::string>& command) {
    LiveRegion region(context.access);
    region.expect_own();
    const Locked locked(region);
    // The command gets neither the lock nor its handle: it is this process that owns it until the command has ended.
    return static_cast<Exit>(session::run(command));
}

Json to_json(const platform::LockHolder& holder) {
    Json one = {
        {"process", holder.process}, {"thread", holder.thread}, {"since", platform::to_text(holder.since_ns / 1'000)},
        {"command", nullptr},        {"command_line", nullptr}, {"state", "ended"}};
    if (const auto process = platform::process(holder.process)) {
        one["command"] = escaped(process->command);
        one["command_line"] = printable(process->command);
        one["state"] = process->state;
    }
    if (platform::has_ended(holder)) one["state"] = "ended";
    return one;
}

Exit tell_who(const Context& context) {
    LiveRegion region(context.access);
    region.expect_own();
    const auto holder = platform::lock_holder(region.mutex());
    // Where the system does not tell who has it, it tells whether anyone has.
    const bool held = holder ? holder->process != 0 && !platform::has_ended(*holder) : !region.try_lock();
    if (!holder && !held) region.unlock();
    if (context.json()) {
        Json answer = document("lock");
        answer["held"] = held;
        // One that ended with the lock is told too.
        answer["holder"] = holder && holder->process != 0 ? to_json(*holder) : Json();
        answer["takeovers"] = holder ? Json(holder->takeovers) : Json();
        answer["last_takeover"] = holder && holder->last_takeover_ns != 0
                                      ? Json(platform::to_text(holder->last_takeover_ns / 1'000))
                                      : Json();
        answer["interrupted"] = to_json(interrupted_changes_unlocked(region.mutex(), live_object()));
        write_output(line(answer));
    } else {
        std::string text = describe_holder(region.mutex());
        if (text.empty()) text = held ? "held; this system does not tell by whom" : "nobody holds it";
        for (const Interrupted& one : interrupted_changes_unlocked(region.mutex(), live_object())) {
            text += "\n" + sentence(one);
        }
        write_output(text + "\n");
    }
    return held ? Exit::done : Exit::no;
}

}  // namespace

void add_lock_command(CLI::App& app, Context& context) {
    static std::vector<std::string> words;
    static bool who = false;
    CLI::App* const command = app.add_subcommand("lock", "Run a command while holding the region's lock");
    add_format(*command, context);
    add_time(*command, context.access.lock_timeout_ms,
             {.name = "--timeout", .help = "The same as --lock-timeout", .plain = PlainUnit::milliseconds});
    command->add_flag("--who", who, "Tell who holds the lock; the exit status is 1 when nobody does");
    command->add_option("COMMAND", words, "After --: the command and its arguments");
    command->callback([&context] {
        if (!who && words.empty()) {
            throw Failure(Exit::usage,
                          "COMMAND is missing: \"shmnmctl lock -- COMMAND\" runs COMMAND while it holds the "
                          "lock, \"shmnmctl lock --who\" shows who holds it");
        }
        if (who && !words.empty()) throw Failure(Exit::usage, "use either \"lock --who\" or \"lock -- COMMAND\"");
        context.command = [&context] { return who ? tell_who(context) : run_locked(context, words); };
    });
}

}  // namespace shmnmctl
