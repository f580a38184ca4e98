// Drives a client of etcd for tests: settings and commands come in as lines of JSON, what the client tells goes out.
// Requests are in the gateway's own terms only where the test chooses them; keys and values are text here.
#include <utility>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>

#include "etcd/client.h"
#include "etcd/error.h"
#include "memory_in_use.h"

namespace {

using Json = nlohmann::json;

constexpr const char* failures[]{"none", "not_sent",        "timed_out", "cut",      "unavailable", "invalid_answer",
                                 "full", "unauthenticated", "denied",    "no_lease", "compacted",   "refused"};

void tell(const Json& line) {
    std::cout << line.dump(-1, ' ', false, Json::error_handler_t::replace) << std::endl;
}

etcd::Keys keys(const Json& json) {
    return json.contains("below") ? etcd::below(json["below"].get<std::string>())
                                  : etcd::Keys{json["key"].get<std::string>()};
}

etcd::Put put(const Json& json) {
    return {json["key"].get<std::string>(), json["value"].get<std::string>(), json.value("lease", int64_t{0})};
}

std::vector<etcd::Operation> operations(const Json& all) {
    std::vector<etcd::Operation> made;
    for (const Json& each : all) {
        if (each.contains("put")) made.emplace_back(put(each["put"]));
        if (each.contains("delete")) made.emplace_back(etcd::Delete{keys(each["delete"])});
        if (each.contains("read")) made.emplace_back(etcd::Read{keys(each["read"])});
    }
    return made;
}

etcd::Transaction transaction(const Json& json) {
    using Property = etcd::Compare::Property;
    etcd::Transaction made;
    for (const Json& each : json.value("if", Json::array())) {
        etcd::Compare& compare = made.compares.emplace_back();
        compare.key = each["key"].get<std::string>();
        if (each.contains("value")) compare.value = each["value"].get<std::string>();
        compare.property = each.contains("value")     ? Property::value
                           : each.contains("created") ? Property::create_revision
                                                      : Property::mod_revision;
        compare.revision = each.value("created", each.value("changed", int64_t{0}));
    }
    made.then = operations(json.value("then", Json::array()));
    made.otherwise = operations(json.value("otherwise", Json::array()));
    return made;
}

etcd::Request request(const Json& json) {
    if (json.contains("put")) return put(json["put"]);
    if (json.contains("read")) return etcd::Read{keys(json["read"])};
    if (json.contains("grant")) return etcd::Grant{json["grant"].get<int64_t>()};
    if (json.contains("keep_alive")) return etcd::KeepAlive{json["keep_alive"].get<int64_t>()};
    if (json.contains("revoke")) return etcd::Revoke{json["revoke"].get<int64_t>()};
    if (json.contains("compact")) return etcd::Compact{json["compact"].get<int64_t>()};
    return transaction(json);
}

Json shown(const etcd::KeyValue& entry) {
    return {{"key", entry.key},
            {"value", entry.value},
            {"created", entry.create_revision},
            {"changed", entry.mod_revision},
            {"version", entry.version},
            {"lease", entry.lease}};
}

Json shown(const etcd::Answer& answer) {
    Json found = Json::array();
    for (const auto& range : answer.found) {
        Json& list = found.emplace_back(Json::array());
        for (const etcd::KeyValue& entry : range) list.push_back(shown(entry));
    }
    return {{"failure", failures[static_cast<size_t>(answer.failure)]},
            {"reason", answer.reason},
            {"cluster", std::to_string(answer.cluster)},
            {"revision", answer.revision},
            {"succeeded", answer.succeeded},
            {"found", found},
            {"lease", answer.lease},
            {"seconds", answer.seconds}};
}

Json shown(const etcd::WatchMessage& message) {
    Json events = Json::array();
    for (const etcd::Event& event : message.events) {
        Json one = shown(event.entry);
        one["deleted"] = event.is_deletion;
        events.push_back(one);
    }
    return {{"created", message.created},
            {"revision", message.revision},
            {"cluster", std::to_string(message.cluster)},
            {"events", events}};
}

etcd::Settings settings(const Json& json) {
    etcd::Settings made;
    made.endpoints = json["endpoints"].get<std::vector<std::string>>();
    made.tls = {json.value("authorities", ""), json.value("certificate", ""), json.value("key", "")};
    made.user = json.value("user", "");
    made.password_file = json.value("password_file", "");
    made.timeout = std::chrono::milliseconds(json.value("timeout", 1'000));
    made.connect_timeout = std::chrono::milliseconds(json.value("connect_timeout", 300));
    made.answer_limit = json.value("answer_limit", made.answer_limit);
    made.request_limit = json.value("request_limit", made.request_limit);
    return made;
}

/// Puts one key again and again, one request after the other.
void put_often(etcd::Client& client, uint64_t id, int left, const std::string& key, int failed = 0) {
    if (left == 0) return tell({{"id", id}, {"failed", failed}});
    client.send(etcd::Put{key, std::to_string(left), 0}, [&client, id, left, key, failed](const etcd::Answer& answer) {
        put_often(client, id, left - 1, key, failed + (answer.failure == etcd::Failure::none ? 0 : 1));
    });
}

class Driver {
  public:
    Driver(boost::asio::io_context& io, const Json& line) : client_(io, settings(line)) {}

    void obey(const Json& line) {
        const uint64_t id = line["id"].get<uint64_t>();
        if (line.contains("watch")) {
            const Json& watch = line["watch"];
            watches_[id] = client_.watch(
                {keys(watch), watch.value("from", int64_t{0})},
                [id](const etcd::WatchMessage& message) {
                    tell({{"id", id}, {"message", shown(message)}});
                },
                [id](const etcd::WatchEnd& end) {
                    tell({{"id", id},
                          {"end", failures[static_cast<size_t>(end.failure)]},
                          {"reason", end.reason},
                          {"compact_revision", end.compact_revision}});
                });
        } else if (line.contains("unwatch")) {
            client_.unwatch(watches_.at(line["unwatch"].get<uint64_t>()));
            tell({{"id", id}, {"member", client_.member()}});
        } else if (line.contains("member")) {
            tell({{"id", id}, {"member", client_.member()}});
        } else if (line.contains("memory")) {
            tell({{"id", id}, {"bytes", test::memory_in_use()}});
        } else if (line.contains("put_often")) {
            put_often(client_, id, line["put_often"].get<int>(), line["key"].get<std::string>());
        } else {
            client_.send(request(line), [id](const etcd::Answer& answer) {
                tell({{"id", id}, {"answer", shown(answer)}});
            });
        }
    }

  private:
    etcd::Client client_;
    std::map<uint64_t, uint64_t> watches_;
};

}  // namespace

int main() {
    boost::asio::io_context io{1};
    std::string first;
    std::getline(std::cin, first);
    try {
        Driver driver(io, Json::parse(first));
        tell({{"ready", true}});
        const auto work = boost::asio::make_work_guard(io);
        std::thread reader([&] {
            for (std::string line; std::getline(std::cin, line);) {
                boost::asio::post(io, [&driver, line] { driver.obey(Json::parse(line)); });
            }
            io.stop();
        });
        io.run();
        reader.join();
    } catch (const etcd::Error& error) {
        tell({{"error", error.what()}});
    }
    return 0;
}
