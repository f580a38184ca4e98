// shmnmweb: shows this machine's picture over HTTP, and can change nothing.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "console/console.h"
#include "listener.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "picture/installation.h"
#include "picture/platform.h"
#include "sampler.h"
#include "server.h"
#include "service/command_line.h"
#include "service/region_watch.h"
#include "service/service.h"
#include "source.h"

namespace {

using namespace shmnmweb;
using picture::Error;
using picture::ErrorKind;

enum Exit : int { done = 0, usage = 2, failed = 5 };

struct Options {
    std::vector<std::string> listen, allowed_hosts;
    std::string socket, socket_group, names, dump, from;
    bool allow_remote = false, as_service = false, only_check_arguments = false;
    Limits limits;
};

int report(Exit exit, const std::string& what, service::Event event = service::Event::failed) {
    service::tell(event, what);
    console::write(stderr, "shmnmweb: " + what + "\n");
    return exit;
}

/// What tells this run of the server from all others.
std::string new_run() {
    std::random_device random;
    return fmt::format("{:08x}{:08x}", random(), random());
}

std::vector<Listener> open_listeners(const Options& options) {
    std::vector<Listener> listeners = inherited_listeners(options.allow_remote);
    for (const std::string& address : options.listen) listeners.push_back(listen_on(address, options.allow_remote));
    if (!options.socket.empty()) listeners.push_back(listen_on_file(options.socket, options.socket_group));
    if (listeners.empty()) listeners.push_back(listen_on("127.0.0.1:9683", options.allow_remote));
    return listeners;
}

/// What a service tells of what it sees, look by look. Of one thread after the other.
class Watch {
  public:
    void see(const Look& look) {
        if (!service::is_running()) return;
        const bool is_refused = look.problem && look.problem->kind == ErrorKind::region_refused;
        watch_.see_region(is_refused ? look.problem->message : "");
        constexpr uint64_t interval_us = 1'000'000;
        if (!look.content || !look.content->snapshot.live || look.time_us - configuration_seen_us_ < interval_us)
            return;
        configuration_seen_us_ = look.time_us;
        watch_.see_configuration(service::configuration_problem(look.content->snapshot.header_counts()));
    }
    /// Whom to tell of take-overs; nobody but a service's administrator.
    std::function<void()> of_takeovers() {
        if (!service::is_running()) return {};
        return [this] { watch_.see_takeover(); };
    }

  private:
    service::RegionWatch watch_{service::tell};
    uint64_t configuration_seen_us_ = 0;
};

void serve(const Options& options) {
    raise_file_limit();
    service::starting(0);
    Watch watch;
    Site site;
    site.hosts = HostCheck(options.allowed_hosts);
    if (!options.names.empty()) site.names = Names(options.names);
    site.history = History(new_run());
    auto source = !options.dump.empty()   ? dump_source(options.dump)
                  : !options.from.empty() ? remote_source(options.from)
                                          : live_source(watch.of_takeovers());
    // The first answer shows the picture already.
    Look look = look_at(*source, look_at(*source, {}, picture::Bytes::all), picture::Bytes::in_use);
    site.add(std::make_shared<const Look>(look));
    watch.see(look);
    std::optional<Sampler> sampler;
    Server server(site, options.limits, [&] { sampler->ask_for_all(); });
    server.listen(open_listeners(options));
    sampler.emplace(std::move(source), std::move(look), [&](std::shared_ptr<const Look> newest) {
        watch.see(*newest);
        server.show(std::move(newest));
    });
    service::on_stop([&] { server.stop(); });
    server.run([&] {
        std::string text;
        for (const std::string& address : server.addresses()) text += "listening on " + address + "\n";
        console::write(stdout, text);
        notify_service_manager("READY=1");
        service::ready(fmt::format("listening on {}", fmt::join(server.addresses(), " and ")));
    });
    service::on_stop({});
    notify_service_manager("STOPPING=1");
    // Before the server, to which it speaks.
    sampler.reset();
}

int serve_and_report(const Options& options) {
    try {
        serve(options);
    } catch (const Error& error) {
        const bool is_refusal = error.kind == ErrorKind::region_refused;
        return report(error.kind == ErrorKind::invalid ? usage : failed, error.what(),
                      is_refusal ? service::Event::region_refused : service::Event::failed);
    } catch (const std::exception& error) {
        return report(failed, picture::printable(error.what()));
    }
    return done;
}

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

int main(int argc, char** argv) {
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
    return run(options.as_service, [&] { return serve_and_report(options); });
}
