// verify: whether the region holds anything that a healthy one never does.
#include <fmt/format.h>

#include "context.h"
#include "picture/findings.h"

namespace shmnmctl {
namespace {

Exit verify(const Context& context) {
    std::vector<Finding> found = findings(look(context, Bytes::all));
    for (Finding& finding : found) {
        if (finding.can_be_completed) finding.expected += " (\"shmnmctl repair\" completes this one)";
    }
    std::string text;
    if (context.json()) {
        Json list = Json::array();
        for (const Finding& finding : found) {
            list.push_back({{"offset", finding.offset},
                            {"key", finding.key},
                            {"expected", finding.expected},
                            {"found", finding.found}});
        }
        Json answer = document("verify");
        answer["findings"] = std::move(list);
        text = line(answer);
    } else {
        for (const Finding& finding : found) {
            text += fmt::format("{} {}: expected {}; found {}\n", finding.offset, finding.key, finding.expected,
                                finding.found);
        }
    }
    write_output(text);
    return found.empty() ? Exit::done : Exit::no;
}

}  // namespace

void add_verify_command(CLI::App& app, Context& context) {
    CLI::App* const command =
        app.add_subcommand("verify", "Look for what a healthy region never shows: one line per finding");
    add_format(*command, context);
    add_file_argument(*command, context);
    command->callback([&] { context.command = [&] { return verify(context); }; });
}

}  // namespace shmnmctl
