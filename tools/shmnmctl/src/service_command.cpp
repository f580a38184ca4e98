// "service": puts "serve", or shmnmweb, under the service manager of Windows.
#include "service_command.h"

#include "duration.h"

namespace shmnmctl {
namespace {

CLI::App* add_action(CLI::App& group, Context& context, ServiceRequest& request, const char* name, const char* help) {
    CLI::App* const command = group.add_subcommand(name, help);
    add_format(*command, context);
    command->add_flag("--web", request.web, "The service of shmnmweb, not of serve");
    command->add_option("--name", request.name, "The service's name (shmnm, with --web shmnmweb)")->type_name("NAME");
    command->callback([&context, &request, name] {
        request.action = name;
        context.command = [&context, &request] { return serve_request(context, request); };
    });
    return command;
}

void add_wait(CLI::App& command, ServiceRequest& request, const char* help) {
    add_time(command, request.timeout_ms, {.name = "--timeout", .help = help});
}

}  // namespace

void add_service_command(CLI::App& app, Context& context) {
    static ServiceRequest request;
    CLI::App* const group =
        app.add_subcommand("service", "Install, remove, start, stop or show serve as a service of Windows");
    group->require_subcommand(1);
    CLI::App* const install = add_action(*group, context, request, "install",
                                         "Install it, or change an installed one; it is not started yet");
    install->add_option("--account", request.account, "The account of the cluster's processes (LocalSystem)")
        ->type_name("ACCOUNT");
    install
        ->add_option("--password-file", request.password_file,
                     "File with the account's password in its first line; -: standard input")
        ->type_name("FILE");
    install->add_option("ARGUMENT", request.arguments, "After --: arguments of serve, with --web of shmnmweb");
    install->footer("The installation path and the namespace are kept as they are now (KZM_INSTALL_PATH, ...).");
    add_wait(*add_action(*group, context, request, "remove", "Stop and remove it"), request,
             "Time for it to stop and to go");
    add_wait(*add_action(*group, context, request, "start", "Start it and wait until it is ready"), request,
             "Time for it to get ready");
    add_wait(*add_action(*group, context, request, "stop", "Stop it and wait until it has stopped"), request,
             "Time for it to stop");
    add_action(*group, context, request, "status", "Show it; the exit status is 1 if it is not running");
}

}  // namespace shmnmctl
