#include "metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "picture/escape.h"
#include "picture/words.h"

namespace shmnmweb {
namespace {

using picture::escaped;
using picture::Value;

enum class Type { gauge, counter };

using Labels = std::initializer_list<std::pair<std::string_view, std::string_view>>;

/// Writes families of metrics. The two formats differ in the name by which a counter is announced, and in the end.
class Writer {
  public:
    explicit Writer(bool is_open_metrics) : is_open_metrics_(is_open_metrics) {}

    /// @param[in] name  without "_total", which a counter gets
    void family(std::string_view name, Type type, std::string_view help) {
        const bool is_counter = type == Type::counter;
        name_ = fmt::format("shmnm_{}{}", name, is_counter ? "_total" : "");
        const std::string_view announced =
            is_counter && is_open_metrics_ ? std::string_view(name_).substr(0, name_.size() - 6) : name_;
        fmt::format_to(std::back_inserter(text_), "# HELP {} {}\n# TYPE {} {}\n", announced, help, announced,
                       is_counter ? "counter" : "gauge");
    }
    void add(const Labels& labels, std::string_view value) {
        text_ += name_;
        char before = '{';
        for (const auto& [name, label] : labels) {
            fmt::format_to(std::back_inserter(text_), "{}{}=\"", before, name);
            add_label(label);
            text_ += '"';
            before = ',';
        }
        if (labels.size() > 0) text_ += '}';
        fmt::format_to(std::back_inserter(text_), " {}\n", value);
    }
    void add(const Labels& labels, uint64_t value) { add(labels, fmt::format_int(value).c_str()); }
    void add(const Labels& labels, const Value& value) { add(labels, value.to_text()); }
    void add_seconds(uint64_t us) { add({}, fmt::format("{}.{:06}", us / 1'000'000, us % 1'000'000)); }

    std::string take() {
        if (is_open_metrics_) text_ += "# EOF\n";
        return std::move(text_);
    }

  private:
    void add_label(std::string_view label) {
        for (const char byte : label) {
            if (byte == '\\' || byte == '"') text_ += '\\';
            if (byte == '\n') {
                text_ += "\\n";
            } else {
                text_ += byte;
            }
        }
    }

    bool is_open_metrics_;
    std::string name_, text_;
};

/// The records that have a name of their own: of several with one name, the first, as the library finds it.
template <typename Record, typename Name>
std::vector<const Record*> first_of_each_name(const std::vector<Record>& records, const Name& name) {
    std::set<std::string> seen;
    std::vector<const Record*> found;
    for (const Record& record : records) {
        if (seen.insert(name(record)).second) found.push_back(&record);
    }
    return found;
}

class Exposition {
  public:
    explicit Exposition(const Scrape& scrape)
        : scrape_(scrape), writer_(scrape.is_open_metrics), begin_us_(picture::platform::steady_clock_us()) {}

    std::string text() {
        build();
        if (scrape_.is_up) {
            const Content& content = *scrape_.look->content;
            servers_ =
                first_of_each_name(content.decoded.servers, [](const picture::Server& server) { return server.name; });
            for (const picture::Server* const server : servers_) server_names_.push_back(escaped(server->name));
            if (wants("region")) region(content);
            if (wants("cluster")) cluster(content.decoded);
            if (wants("servers")) servers();
            if (wants("resources") || wants("pairs")) resources(content.decoded);
            if (wants("states")) states();
            if (wants("bridge") && scrape_.look->bridge) bridge(*scrape_.look->bridge);
        }
        if (wants("lock")) lock();
        scrape();
        return writer_.take();
    }

  private:
    bool wants(std::string_view group) const {
        return scrape_.groups.empty() ||
               std::find(scrape_.groups.begin(), scrape_.groups.end(), group) != scrape_.groups.end();
    }

    void build() {
        writer_.family("build_info", Type::gauge, "The program that answers; always 1.");
        writer_.add({{"version", SHMNM_VERSION}, {"platform", SHMNM_PLATFORM}}, 1);
        writer_.family("up", Type::gauge,
                       "Whether this scrape got a copy of the region; 0: no other word of it is here.");
        writer_.add({}, uint64_t{scrape_.is_up});
    }

    void region(const Content& content) {
        const picture::Snapshot& snapshot = content.snapshot;
        const shmnm_header& header = content.decoded.header;
        writer_.family("region_bytes", Type::gauge, "Size of the region.");
        writer_.add({}, uint64_t{snapshot.bytes.size()});
        if (scrape_.look->findings) {
            writer_.family("region_findings", Type::gauge,
                           "What shmnmctl verify found at most ten seconds ago; 0 in a healthy region.");
            writer_.add({}, uint64_t{*scrape_.look->findings});
        }
        if (snapshot.configured) {
            writer_.family("region_configuration_match", Type::gauge,
                           "Whether the region was laid out by the counts of this machine's configuration.");
            writer_.add({}, uint64_t{*snapshot.configured == snapshot.header_counts()});
        }
        writer_.family("region_records", Type::gauge, "Records in use in each table.");
        const auto add = [&](std::string_view table, int32_t count) { writer_.add({{"table", table}}, Value(count)); };
        add("servers", header.server_count);
        add("hb", header.hb_count);
        add("np", header.np_count);
        add("fst_pids", header.fst_pid_count);
        writer_.family("region_records_limit", Type::gauge, "Records that each table has room for.");
        add("servers", header.max_servers);
        add("hb", header.max_hb);
        add("np", header.max_np);
        add("fst_pids", header.fst_pid_limit);
        writer_.family("region_replacements", Type::counter,
                       "How often another region was found since this server started.");
        writer_.add({}, scrape_.replacements);
    }

    void cluster(const picture::Picture& decoded) {
        bool has_pair = false;
        for (const picture::ClusterWord& word : picture::cluster_words) {
            if (word.count) continue;
            const std::string_view key = word.key;
            if (key.starts_with("hbinfo_")) {
                if (!has_pair) writer_.family("cluster_hbinfo", Type::gauge, "The pair hbinfo, opaque to the library.");
                has_pair = true;
                writer_.add({{"part", key.substr(7)}}, word.source.value(decoded));
                continue;
            }
            const bool is_simulation = std::holds_alternative<picture::BySimulation>(word.set);
            writer_.family(is_simulation ? "cluster_partition_simulated" : fmt::format("cluster_{}", key), Type::gauge,
                           is_simulation    ? "Whether a network partition is simulated: 1 or 0."
                           : key == "alive" ? "Whether any server is alive: 1 or 0."
                                            : fmt::format("The cluster's {}, opaque to the library.", key));
            writer_.add({}, is_simulation ? Value(uint32_t{decoded.is_simulated()}) : word.source.value(decoded));
        }
    }

    static std::string help_of(std::string_view key) {
        if (key == "pri") return "Priority of a server, by which resources find its column.";
        if (key == "nodestat") return "State of a server: 1 alive, 2 in a new record; other values are opaque.";
        if (key == "nodestat_nw") return "Network-wide state of a server: 2 in a new record; other values are opaque.";
        if (key == "dfailstatus") return "Whether the failure of a server is simulated: 1 or 0.";
        if (key == "combstat") {
            return "Combined state of a server: 1, 2, 9 (unknown), 16 (isolated) or 65538 (waiting); no series where "
                   "there is none.";
        }
        if (key == "alive") return "Whether nodestat of a server is 1: 1 or 0.";
        return fmt::format("The {} of a server, opaque to the library; 0 in a new record.", key);
    }

    void servers() {
        for (const picture::ServerWord& word : picture::server_words) {
            const std::string_view key = word.key;
            const std::string_view name = key == "pri" ? "priority" : key == "dfailstatus" ? "simulated_failure" : key;
            writer_.family(fmt::format("server_{}", name), Type::gauge, help_of(key));
            for (size_t i = 0; i < servers_.size(); ++i) {
                const Value value = word.source.value(*servers_[i]);
                if (!value.is_none()) writer_.add({{"server", server_names_[i]}}, value);
            }
        }
    }

    struct Row {
        const picture::Resource* resource;
        std::string kind, type, name;
    };

    void resources(const picture::Picture& decoded) {
        std::vector<Row> rows;
        for (const picture::ResourceKind& kind : picture::resource_kinds) {
            const auto name = [](const picture::Resource& resource) {
                return escaped(resource.type) + "/" + escaped(resource.name);
            };
            for (const picture::Resource* const one : first_of_each_name(decoded.*kind.resources, name)) {
                rows.push_back({one, kind.key, escaped(one->type), escaped(one->name)});
            }
        }
        // Columns are found by position: the first server of each name, as above.
        std::vector<std::pair<size_t, std::string_view>> columns;
        for (size_t i = 0; i < servers_.size(); ++i) {
            columns.emplace_back(static_cast<size_t>(servers_[i] - decoded.servers.data()), server_names_[i]);
        }
        if (wants("resources")) {
            for (const picture::ResourceWord& word : picture::resource_words) {
                const bool is_priority = std::string_view(word.key) == "pri";
                writer_.family(
                    is_priority ? "resource_priority" : fmt::format("resource_{}", word.key), Type::gauge,
                    is_priority ? "Priority of a resource." : "State of a resource as a whole, opaque to the library.");
                for (const Row& row : rows) add(row, word.source.value(*row.resource));
            }
            servers_at_each_value(rows);
        }
        if (wants("pairs")) {
            pairs("resource_server_stat", "State of a resource on a server, opaque to the library.",
                  &picture::Resource::svstat, rows, columns);
            pairs("resource_network_stat", "Network-wide state of an hb resource on a server, opaque to the library.",
                  &picture::Resource::network, rows, columns);
        }
    }
    void add(const Row& row, const Value& value) {
        writer_.add({{"kind", row.kind}, {"type", row.type}, {"resource", row.name}}, value);
    }
    void servers_at_each_value(const std::vector<Row>& rows) {
        writer_.family("resource_servers", Type::gauge, "Number of servers on which a resource has this state.");
        for (const Row& row : rows) {
            std::map<uint32_t, uint64_t> counts;
            for (const uint32_t state : row.resource->svstat.states) ++counts[state];
            for (const auto& [state, count] : counts) {
                const std::string value = std::to_string(state);
                writer_.add({{"kind", row.kind}, {"type", row.type}, {"resource", row.name}, {"value", value}}, count);
            }
        }
    }
    void pairs(std::string_view name, std::string_view help, picture::Row picture::Resource::*states,
               const std::vector<Row>& rows, const std::vector<std::pair<size_t, std::string_view>>& columns) {
        writer_.family(name, Type::gauge, help);
        for (const Row& row : rows) {
            const std::vector<uint32_t>& values = (row.resource->*states).states;
            for (const auto& [column, server] : columns) {
                if (column >= values.size()) continue;
                writer_.add({{"kind", row.kind}, {"type", row.type}, {"resource", row.name}, {"server", server}},
                            uint64_t{values[column]});
            }
        }
    }

    /// For each server whether it is in each named state of nodestat.
    void states() {
        if (scrape_.names->text().empty()) return;
        writer_.family("server_state", Type::gauge, "Whether nodestat of a server has the value of this name: 1 or 0.");
        for (size_t i = 0; i < servers_.size(); ++i) {
            const WordNames* const names = scrape_.names->find("servers/" + server_names_[i] + "/nodestat");
            if (!names) continue;
            std::map<std::string, bool> is_in;
            const std::string value = Value(servers_[i]->record.nodestat).to_text();
            for (const StateName& state : names->states) is_in[state.name] |= state.value == value;
            for (const auto& [name, is] : is_in) {
                writer_.add({{"server", server_names_[i]}, {"state", name}}, uint64_t{is});
            }
        }
    }

    void bridge(const picture::Bridge& bridge) {
        const bridge::Marks& marks = bridge.marks;
        const auto gauge = [&](std::string_view name, std::string_view help, uint64_t value) {
            writer_.family(name, Type::gauge, help);
            writer_.add({}, value);
        };
        gauge("bridge_up", "Whether a bridge runs on this machine and writes its marks: 1 or 0.", bridge.is_up);
        if (!bridge.is_there()) return;
        gauge("bridge_connected", "Whether what the bridge knows of the other machines is current: 1 or 0.",
              marks.is_connected);
        gauge("bridge_running", "Whether the bridge has claimed this machine's name: 1 or 0.", marks.is_running);
        gauge("bridge_refused", "Whether another machine has this machine's name: 1 or 0.", marks.is_refused);
        gauge("bridge_fed", "Whether the bridge sets the other machines' words here: 1 or 0.", marks.is_fed);
        gauge("bridge_contested_words", "Words that the bridge leaves alone, because a process here overwrites them.",
              marks.contested.size());
        gauge("bridge_unmatched_records", "Records that only other machines have.", marks.unmatched.size());
        const auto counter = [&](std::string_view name, std::string_view help, uint64_t value) {
            writer_.family(name, Type::counter, help);
            writer_.add({}, value);
        };
        counter("bridge_proposals", "Changes of agreed words that were proposed to all machines.",
                marks.agreed.proposed);
        counter("bridge_proposals_accepted", "Proposals that were accepted.", marks.agreed.accepted);
        counter("bridge_proposals_lost", "Proposals that another machine's value came before.", marks.agreed.lost);
        counter("bridge_replaced_values", "Values of a new region for which the cluster's were taken.",
                marks.agreed.replaced);
        const auto each_mark = [&](std::string_view name, std::string_view help, const auto& holds) {
            writer_.family(name, Type::gauge, help);
            for (const bridge::Mark& mark : marks.servers) {
                writer_.add({{"server", mark.server}}, uint64_t{holds(mark)});
            }
        };
        each_mark("bridge_server_fresh", "Whether the words of another machine's server are current here: 1 or 0.",
                  [](const bridge::Mark& mark) { return mark.freshness == bridge::Freshness::fresh; });
        each_mark("bridge_server_silent", "Whether another machine's server is silent, not merely unknown: 1 or 0.",
                  [](const bridge::Mark& mark) { return mark.freshness == bridge::Freshness::silent; });
        writer_.family(
            "bridge_server_age_seconds", Type::gauge,
            "How old the words of another machine's server are here, at most; no series if it is not known.");
        for (const bridge::Mark& mark : marks.servers) {
            if (mark.age < 0) continue;
            writer_.add({{"server", mark.server}}, fmt::format("{}.{:03}", mark.age / 1'000, mark.age % 1'000));
        }
    }

    void lock() {
        const auto& facts = scrape_.look->lock;
        if (!facts) return;
        const bool is_held = scrape_.look->is_lock_held;
        writer_.family("lock_takes", Type::counter, "How often the region's lock was taken.");
        writer_.add({}, facts->takes);
        writer_.family("lock_takeovers", Type::counter,
                       "How often the lock was taken over from an owner that had ended.");
        writer_.add({}, facts->takeovers);
        writer_.family("lock_held", Type::gauge, "Whether the lock was held at the latest look: 1 or 0.");
        writer_.add({}, uint64_t{is_held});
        writer_.family("lock_held_since_timestamp_seconds", Type::gauge, "Since when the lock is held; 0: it is free.");
        writer_.add_seconds(is_held ? facts->since_ns / 1'000 : 0);
        writer_.family("lock_last_takeover_timestamp_seconds", Type::gauge,
                       "When the lock was last taken over from an owner that had ended; 0: never.");
        writer_.add_seconds(facts->last_takeover_ns / 1'000);
    }

    void scrape() {
        writer_.family("scrape_lock_wait_seconds", Type::gauge,
                       "How long the latest copy waited for the region's lock.");
        writer_.add_seconds(scrape_.look->lock_wait_us);
        writer_.family("scrape_lock_hold_seconds", Type::gauge,
                       "How long the latest copy held the region's lock; 0: it did not take it.");
        writer_.add_seconds(scrape_.look->lock_held_us);
        writer_.family("scrape_failures", Type::counter, "Scrapes that got no picture since this server started.");
        writer_.add({{"reason", "no_region"}}, scrape_.failures.no_region);
        writer_.add({{"reason", "lock_timeout"}}, scrape_.failures.lock_timeout);
        writer_.add({{"reason", "refused"}}, scrape_.failures.refused);
        writer_.family("scrape_duration_seconds", Type::gauge,
                       "How long it took to write this answer, up to this line.");
        writer_.add_seconds(picture::platform::steady_clock_us() - begin_us_);
    }

    const Scrape& scrape_;
    Writer writer_;
    uint64_t begin_us_;
    std::vector<const picture::Server*> servers_;
    std::vector<std::string> server_names_;
};

}  // namespace

std::string to_metrics(const Scrape& scrape) {
    return Exposition(scrape).text();
}

}  // namespace shmnmweb
