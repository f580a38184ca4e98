#include "program.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include "completion.h"
#include "context.h"
#include "duration.h"
#include "failure.h"
#include "machines.h"
#include "picture/installation.h"
#include "picture/platform.h"
#include "service/command_line.h"
#include "service/service.h"
#include "session.h"
#include "usage.h"

namespace shmnmctl {
namespace {

int report(const Failure& failure, bool json, service::Event event = service::Event::failed) {
    service::tell(event, failure.what());
    const std::string text = (json ? "" : "shmnmctl: ") + to_text(failure, json);
    write_error(text);
    return static_cast<int>(failure.exit);
}

/// Runs the command where the one machine is that was named. Of several the command itself takes care.
Exit run_there(Context& context) {
    if (context.machines.size() != 1 || context.compares_machines) return context.command();
    const Machine machine = named_machines(context).front();
    if (!context.file.empty()) throw Failure(Exit::usage, "a dump and a machine were named; use --file or --machine");
    context.from = at_machine(context, machine).from;
    try {
        return context.command();
    } catch (const std::exception&) {
        throw failure_at(machine, current_failure());
    }
}

int run_here(Context& context) {
    try {
        return static_cast<int>(run_there(context));
    } catch (const picture::Error& error) {
        const bool is_refusal = error.kind == picture::ErrorKind::region_refused;
        return report(Failure(error), context.json(),
                      is_refusal ? service::Event::region_refused : service::Event::failed);
    } catch (const std::exception&) {
        return report(current_failure(), context.json());
    }
}

int run(Context& context) {
    if (!context.is_service) return run_here(context);
    try {
        return service::run([&context] { return run_here(context); });
    } catch (const picture::Error& error) {
        return report(Failure(error), context.json());
    }
}

/// Whether the command line asks for JSON, even if it is otherwise wrong.
bool asks_for_json(const std::vector<std::string>& arguments) {
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--format=json") return true;
        if (argument == "--format" && i + 1 < arguments.size() && arguments[i + 1] == "json") return true;
        if (argument == "--") return false;
    }
    return false;
}

/// What is wrong with a command line. A service connects to its manager even if it can only fail.
int refuse(const Failure& failure, const std::vector<std::string>& arguments) {
    Context context;
    context.format = asks_for_json(arguments) ? "json" : "text";
    context.is_service = service::is_service(arguments);
    context.command = [&failure]() -> Exit { throw failure; };
    return run(context);
}

Exit show(const std::string& text) {
    write_output(text);
    return Exit::done;
}

/// The arguments in reverse order, as the parser expects them. A blank before a negative number keeps the parser from
/// taking it for an option; numbers may begin with a blank.
std::vector<std::string> to_parser(std::vector<std::string> all) {
    for (std::string& argument : all) {
        if (argument == "--") break;
        if (argument.size() > 1 && argument[0] == '-' && argument[1] >= '0' && argument[1] <= '9')
            argument.insert(0, 1, ' ');
    }
    std::reverse(all.begin(), all.end());
    return all;
}

}  // namespace

int run_program(int argc, char** argv) {
    session::prepare();
    picture::use_packaged_installation();
    CLI::App app("Sees, changes, waits on and checks the live picture of the cluster on this machine.", "shmnmctl");
    app.set_version_flag("--version", "shmnmctl " SHMNM_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(
        "Exit status: 0 done, or the answer is yes; 1 the answer is no: not found, false, findings; 2 wrong usage;\n"
        "3 no process holds the region; 4 time-out; 5 refused or failed.");
    Context context;
    add_format(app, context);
    add_time(app, context.access.lock_timeout_ms,
             {.name = "--lock-timeout",
              .help = "Time to wait for the region's lock; a plain number is milliseconds",
              .plain = PlainUnit::milliseconds});
    app.add_flag_callback(
        "--verbose",
        [&context] { context.access.tell = [](const std::string& what) { write_error("shmnmctl: " + what + "\n"); }; },
        "Tell the full names of the kernel objects that are opened");
    add_from(app, context);
    add_status_command(app, context);
    add_looking_commands(app, context);
    add_changing_commands(app, context);
    add_document_commands(app, context);
    add_verify_command(app, context);
    add_repair_command(app, context);
    add_condition_commands(app, context);
    add_watch_command(app, context);
    add_lock_command(app, context);
    add_holders_command(app, context);
    add_serve_command(app, context);
    add_service_command(app, context);
    const std::vector<std::string> arguments = picture::platform::arguments(argc, argv);
    if (!arguments.empty() && arguments[0] == completion_word) {
        context.command = [&] { return show(completion(app, {arguments.begin() + 1, arguments.end()})); };
        return run(context);
    }
    try {
        app.parse(to_parser(arguments));
        refuse_from(app, context);
    } catch (const CLI::CallForHelp&) {
        context.command = [&app] { return show(app.help()); };
    } catch (const CLI::CallForVersion& version) {
        context.command = [text = std::string(version.what()) + "\n"] { return show(text); };
    } catch (const CLI::ParseError& error) {
        return refuse(usage_failure(app, error), arguments);
    } catch (const Failure& failure) {
        return refuse(failure, arguments);
    }
    return run(context);
}

}  // namespace shmnmctl
