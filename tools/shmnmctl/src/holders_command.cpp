// "holders": the processes that hold the region.
#include "picture/holders.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "context.h"
#include "picture/escape.h"

namespace shmnmctl {
namespace {

Json to_json(const Holder& holder) {
    return {{"process", holder.process},
            {"uid", holder.user},
            {"user", escaped(holder.user_name)},
            {"state", holder.state},
            {"command", escaped(holder.command)}};
}

std::string to_text(const Holders& found) {
    size_t user = std::string_view("user").size(), state = std::string_view("state").size();
    for (const Holder& holder : found.processes) {
        user = std::max(user, printable(holder.user_name).size());
        state = std::max(state, holder.state.size());
    }
    std::string text;
    const auto row = [&](const auto& process, const std::string& name, const std::string& how,
                         const std::string& command) {
        text += fmt::format("{:>7}  {:<{}}  {:<{}}  {}\n", process, name, user, how, state, command);
    };
    if (!found.processes.empty()) row("process", "user", "state", "command");
    for (const Holder& holder : found.processes) {
        row(holder.process, printable(holder.user_name), holder.state, printable(holder.command));
    }
    if (found.unreadable > 0) {
        text += fmt::format("not looked at: {} {} that this user may not look at; run this as root to see all\n",
                            found.unreadable, found.unreadable == 1 ? "process" : "processes");
    }
    return text;
}

Exit tell_holders(const Context& context) {
    const Holders found = holders(context.access);
    if (context.json()) {
        Json answer = document("holders");
        answer["holders"] = Json::array();
        for (const Holder& holder : found.processes) answer["holders"].push_back(to_json(holder));
        answer["unreadable"] = found.unreadable;
        write_output(line(answer));
    } else {
        write_output(to_text(found));
    }
    return Exit::done;
}

}  // namespace

void add_holders_command(CLI::App& app, Context& context) {
    CLI::App* const command = app.add_subcommand("holders", "List the processes that hold the region");
    add_format(*command, context);
    command->callback([&] { context.command = [&] { return tell_holders(context); }; });
}

}  // namespace shmnmctl
