// "repair": completes the change that a killed process has left half done.
#include "picture/repair.h"

#include <string>

#include "context.h"
#include "picture/json.h"

namespace shmnmctl {
namespace {

Exit run(const Context& context, bool discard) {
    const Repaired outcome = repair(context.access, context.force, discard);
    if (context.json()) {
        Json answer = document("repair");
        answer["completed"] = to_json(outcome.completed);
        answer["discarded"] = to_json(outcome.discarded);
        write_output(line(answer));
        return Exit::done;
    }
    std::string text;
    for (const Interrupted& one : outcome.completed) text += "completed: " + sentence(one) + "\n";
    for (const Interrupted& one : outcome.discarded) text += "dropped the note: " + sentence(one) + "\n";
    write_output(text.empty() ? "nothing to repair\n" : text);
    return Exit::done;
}

}  // namespace

void add_repair_command(CLI::App& app, Context& context) {
    static bool discard = false;
    CLI::App* const command = app.add_subcommand("repair", "Complete the change that a killed process left half done");
    add_format(*command, context);
    CLI::Option* const force =
        command->add_flag("--force", context.force, "Also if the lock was taken since by more than shmnmctl's looks");
    command->add_flag("--discard", discard, "Change nothing and drop the notes")->excludes(force);
    command->callback([&context] { context.command = [&context] { return run(context, discard); }; });
}

}  // namespace shmnmctl
