#include "serving.h"

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <utility>

#include <fmt/format.h>

#include "console/console.h"
#include "listener.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "sampler.h"
#include "service/region_watch.h"
#include "source.h"

namespace shmnmweb {
namespace {

using picture::Error;
using picture::ErrorKind;

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
        const picture::Counts counts = look.content->snapshot.header_counts();
        // Without counts the region is as its creator found it, or cleared: there is nothing to compare.
        if (counts != picture::Counts{}) watch_.see_configuration(service::configuration_problem(counts));
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

void serve_or_throw(const Options& options) {
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

}  // namespace

int report(Exit exit, const std::string& what, service::Event event) {
    service::tell(event, what);
    console::write(stderr, "shmnmweb: " + what + "\n");
    return exit;
}

int serve(const Options& options) {
    try {
        serve_or_throw(options);
    } catch (const Error& error) {
        const bool is_refusal = error.kind == ErrorKind::region_refused;
        return report(error.kind == ErrorKind::invalid ? usage : failed, error.what(),
                      is_refusal ? service::Event::region_refused : service::Event::failed);
    } catch (const std::exception& error) {
        return report(failed, picture::printable(error.what()));
    }
    return done;
}

}  // namespace shmnmweb
