// "check": what would keep a bridge of this configuration from working, before it is started or while it runs.
#include <fmt/format.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <cstdio>
#include <map>
#include <optional>

#include "bridge_marks/live.h"
#include "commands.h"
#include "configuration.h"
#include "console/console.h"
#include "core_keys.h"
#include "etcd/client.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "region.h"

namespace bridge {
namespace {

/// Asks a member, and waits for its answer.
etcd::Answer ask(const etcd::Settings& settings, const etcd::Request& request) {
    boost::asio::io_context io;
    etcd::Client client(io, settings);
    std::optional<etcd::Answer> answer;
    client.send(request, [&](const etcd::Answer& given) { answer = given; });
    while (!answer && io.run_one() > 0) {
    }
    return answer.value_or(etcd::Answer{.failure = etcd::Failure::not_sent, .reason = "nothing was sent"});
}

class Check {
  public:
    Exit run(const std::string& file) {
        const CheckedConfiguration checked = check_configuration(file);
        for (const ConfigurationProblem& problem : checked.problems) {
            wrong(fmt::format("{}, line {}: {}", picture::shown_file(file), problem.line, problem.text));
        }
        if (checked.problems.empty()) {
            right(fmt::format("{}: server {} of cluster {}, host {}", picture::shown_file(file),
                              checked.configuration.bridge.server, checked.configuration.bridge.cluster,
                              checked.configuration.bridge.host));
            check_etcd(checked.configuration);
        }
        check_region(checked.configuration.bridge.server);
        if (read_live_marks()) right("a bridge runs for this machine's region");
        return found_wrong_ ? Exit::no : Exit::done;
    }

  private:
    static void right(const std::string& text) { console::write(stdout, "ok     " + text + "\n"); }
    void wrong(const std::string& text) {
        found_wrong_ = true;
        console::write(stdout, "wrong  " + text + "\n");
    }

    void check_etcd(const Configuration& configuration) {
        const Keys keys(configuration.bridge.cluster);
        std::map<uint64_t, std::string> clusters;
        for (const std::string& endpoint : configuration.etcd.endpoints) {
            etcd::Settings alone = configuration.etcd;
            alone.endpoints = {endpoint};
            // Certificates are for https alone.
            if (!endpoint.starts_with("https")) alone.tls = {};
            const etcd::Answer answer = ask(alone, etcd::Read{etcd::below(keys.prefix())});
            if (answer.failure != etcd::Failure::none) {
                // A failure of the connection names the endpoint, etcd's own answer does not.
                const std::string place = answer.reason.starts_with(endpoint) ? "" : endpoint + ": ";
                wrong(fmt::format("{}{}; see whether etcd runs there, and whether user and certificates are right",
                                  place, answer.reason));
                continue;
            }
            clusters.emplace(answer.cluster, endpoint);
            right(fmt::format("{}: answers, with {} keys below {}", endpoint, answer.found.front().size(),
                              keys.prefix()));
            check_claim(configuration.bridge, keys, answer.found.front());
            check_right_to_write(alone, keys, configuration.bridge.server);
        }
        if (clusters.size() > 1) {
            wrong(fmt::format("{} and {} belong to different clusters of etcd; name members of one",
                              clusters.begin()->second, clusters.rbegin()->second));
        }
    }

    void check_claim(const Settings& settings, const Keys& keys, const std::vector<etcd::KeyValue>& found) {
        const std::string key = keys.claim(settings.server);
        for (const etcd::KeyValue& each : found) {
            const auto claim = each.key == key ? claim_from(each.value) : std::nullopt;
            if (!claim || claim->host == settings.host) continue;
            wrong(
                fmt::format("another machine, host {}, has claimed the name {}; give each machine its own server, or "
                            "stop the bridge there",
                            picture::printable(claim->host), settings.server));
        }
    }

    /// etcd checks the rights of a transaction before it compares, and this one never holds.
    void check_right_to_write(const etcd::Settings& settings, const Keys& keys, const std::string& server) {
        etcd::Transaction transaction;
        transaction.compares.push_back({.key = keys.claim(server), .revision = -1});
        transaction.then = {etcd::Put{keys.claim(server), "", 0}, etcd::Put{keys.agreed("clstat"), "", 0}};
        const etcd::Answer answer = ask(settings, transaction);
        if (answer.failure == etcd::Failure::none) return;
        wrong(fmt::format("{}: no right to write below {}: {}; grant the user readwrite on that prefix",
                          settings.endpoints.front(), keys.prefix(), answer.reason));
    }

    void check_size(const std::string& server, size_t size) {
        // etcd refuses requests above 1.5 MiB. A claim, a beat and their keys go out with a state.
        constexpr size_t largest = (size_t{3} << 19) - (size_t{16} << 10);
        if (size <= largest) return;
        wrong(fmt::format(
            "the words of {} are {} bytes in etcd, which by default accepts {} at once; use fewer resources or "
            "shorter names, or start all members with a larger --max-request-bytes",
            server, size, largest));
    }

    void check_region(const std::string& server) {
        Region region;
        const Region::Seen seen = region.look();
        if (!seen.look) return wrong(seen.problem);
        const Look& look = *seen.look;
        if (!look.configured) {
            return wrong(
                "this machine's configuration cannot be read, and nothing is fed; see \"shmnmctl verify --config\"");
        }
        if (look.counts != look.configured) {
            return wrong(
                fmt::format("the region has {}, this machine's configuration has {}; make them equal, otherwise "
                            "nothing is fed",
                            picture::to_text(look.counts), picture::to_text(*look.configured)));
        }
        right(fmt::format("the region has {} servers, laid out as configured", look.servers.size()));
        const auto own = look.find_server(server);
        if (own) check_size(server, size_of_state(look, *own));
        if (!server.empty() && !own) {
            wrong(
                fmt::format("the region has no server {}; correct the name in the bridge's configuration, or add the "
                            "server",
                            server));
        }
        for (size_t position = 0; position < look.servers.size(); ++position) {
            if (look.has_own_priority(position)) continue;
            wrong(
                fmt::format("the server {} shares its priority {} with another, so its words are not fed; give it its "
                            "own with \"shmnmctl modify server\"",
                            look.servers[position].name, look.servers[position].pri));
        }
    }

    bool found_wrong_ = false;
};

}  // namespace

void add_check_command(CLI::App& app, Command& command) {
    static std::string file;
    CLI::App* const check = app.add_subcommand("check", "Check configuration, secrets, etcd and region");
    add_configuration(*check, file);
    check->footer("Exit status: 0 all is right; 1 something is wrong; 5 failed.");
    check->callback([&command] { command = [] { return Check().run(file_or_installed(file)); }; });
}

}  // namespace bridge
