// verify: whether the region holds anything that a healthy one never does, or the configuration anything that "serve"
// refuses.
#include <fmt/format.h>

#include "context.h"
#include "picture/answers.h"
#include "picture/cluster_file.h"
#include "picture/escape.h"
#include "picture/findings.h"

namespace shmnmctl {
namespace {

Exit verify(const Context& context) {
    const std::vector<Finding> found = with_repair(findings(look_unjudged(context, Bytes::all)));
    std::string text;
    if (context.json()) {
        text = verify_line(found);
    } else {
        for (const Finding& finding : found) {
            text += fmt::format("{} {}: expected {}; found {}\n", finding.offset, finding.key, finding.expected,
                                finding.found);
        }
    }
    write_output(text);
    return found.empty() ? Exit::done : Exit::no;
}

/// Checks a configuration. A file that cannot be read is no answer but an error.
Exit verify_configuration(const Context& context, const std::string& file) {
    if (!context.from.empty()) {
        throw Failure(Exit::usage, "a configuration and a server were named; use --config or --from");
    }
    const std::vector<ConfigurationProblem> problems = check_cluster_file(file).problems;
    std::string text;
    if (context.json()) {
        Json list = Json::array();
        for (const ConfigurationProblem& problem : problems) {
            list.push_back({{"line", problem.line}, {"problem", problem.text}});
        }
        Json answer = document("configuration");
        answer["file"] = printable(file);
        answer["problems"] = std::move(list);
        text = line(answer);
    } else {
        for (const ConfigurationProblem& problem : problems) {
            text += fmt::format("{}:{}: {}\n", shown_file(file), problem.line, problem.text);
        }
    }
    write_output(text);
    return problems.empty() ? Exit::done : Exit::no;
}

}  // namespace

void add_verify_command(CLI::App& app, Context& context) {
    CLI::App* const command =
        app.add_subcommand("verify", "Look for what a healthy region never shows: one line per finding");
    add_format(*command, context);
    add_file_argument(*command, context);
    static std::string configuration;
    command
        ->add_option("--config", configuration, "Check this configuration, not a region: what \"serve\" would refuse")
        ->excludes("--file")
        ->excludes("FILE");
    command->callback([&] {
        context.command = [&] {
            return configuration.empty() ? verify(context) : verify_configuration(context, configuration);
        };
    });
}

}  // namespace shmnmctl
