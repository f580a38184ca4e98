#include "program.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/installation.h"
#include "picture/platform.h"
#include "service/command_line.h"
#include "service/service.h"
#include "serving.h"

namespace shmnmweb {
namespace {
using picture::Error;

/// Works here, or as the service that the service manager has started this process for.
int run(bool as_service, const std::function<int()>& work) {
    if (!as_service) return work();
    try {
        return service::run(work);
    } catch (const Error& error) {
        return report(usage, error.what());
    }
}

}  // namespace

int run_program(int argc, char** argv) {
    picture::use_packaged_installation();
    CLI::App app("Shows this machine's picture of the cluster over HTTP; it can change nothing.", "shmnmweb");
    Options options;
    app.set_version_flag("--version", "shmnmweb " SHMNM_VERSION);
    app.add_option("--listen", options.listen,
                   "ADDRESS:PORT to serve; may be repeated; port 0: any free one (127.0.0.1:9683)")
        ->take_all()
        ->allow_extra_args(false);
    app.add_option("--socket", options.socket, "Serve on a Unix socket of this path, with mode 0660");
    app.add_option("--socket-group", options.socket_group, "Group whose members may connect to the Unix socket");
    app.add_option("--names", options.names, "File that gives names and levels to values");
    CLI::Option* const dump = app.add_option("--dump", options.dump, "Show this dump, not the live region");
    app.add_option("--from", options.from,
                   "Show what another shmnmweb shows, at unix:PATH, http://HOST:PORT or https://HOST:PORT")
        ->excludes(dump);
    app.add_option("--allow-host", options.allowed_hosts,
                   "Name by which clients may call this server, beside localhost; may be repeated")
        ->take_all()
        ->allow_extra_args(false);
    app.add_flag("--allow-remote", options.allow_remote,
                 "Listen where other machines can connect, too; nothing is encrypted");
    app.add_option("--max-connections", options.limits.connections, "Connections at a time")
        ->check(CLI::Range(1, 100'000))
        ->capture_default_str();
    app.add_option("--max-connections-per-client", options.limits.connections_per_client,
                   "Connections at a time from one address, or of one user on a Unix socket")
        ->check(CLI::Range(1, 100'000))
        ->capture_default_str();
    app.add_option("--request-timeout", options.limits.request_seconds, "Seconds for a request to arrive")
        ->check(CLI::Range(1, 3'600))
        ->capture_default_str();
    app.add_option("--write-timeout", options.limits.write_seconds, "Seconds for a client to take in 256 KiB")
        ->check(CLI::Range(1, 3'600))
        ->capture_default_str();
    // For "shmnmctl service" only.
    app.add_flag("--service", options.as_service)->group("");
    app.add_flag("--check-arguments", options.only_check_arguments)->group("");
    app.footer("Exit status: 0 stopped by a signal; 2 wrong usage; 5 it could not start, or failed.");
    const std::vector<std::string> arguments = picture::platform::arguments(argc, argv);
    try {
        app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::Success& asked_for) {
        return app.exit(asked_for);
    } catch (const CLI::ParseError& error) {
        const std::string what = picture::printable(error.what()) + "; see \"shmnmweb --help\"";
        return run(service::is_service(arguments), [&] { return report(usage, what); });
    }
    if (options.only_check_arguments) return done;
    return run(options.as_service, [&] { return serve(options); });
}

}  // namespace shmnmweb
