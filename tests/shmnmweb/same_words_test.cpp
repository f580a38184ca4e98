// One picture, three ways to read it: the words that "shmnmctl list" writes, the JSON document and the metrics, each
// read back from its text, say the same of any region.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "look.h"
#include "metrics.h"
#include "names.h"
#include "picture/escape.h"
#include "picture/json.h"
#include "picture/keys.h"
#include "picture/library_region.h"

namespace shmnmweb {
namespace {

using picture::Json;
using test::LibraryRegion;
using test::Random;

/// Values by the keys of shmnmctl, as text.
using Values = std::map<std::string, std::string>;

bool is_server(std::string_view key) {
    return key.starts_with("servers/");
}

/// The words, and whether each server is alive, which follows from its nodestat.
Values listed(const Content& content) {
    Values values;
    for (const picture::Word& word : content.words) {
        values[word.key] = word.value.to_text();
        if (is_server(word.key) && word.key.ends_with("/nodestat")) {
            const std::string server = word.key.substr(0, word.key.size() - std::string("nodestat").size());
            values[server + "alive"] = word.value.to_text() == "1" ? "1" : "0";
        }
    }
    return values;
}

std::string text_of(const Json& value) {
    if (value.is_boolean()) return value.get<bool>() ? "1" : "0";
    if (value.is_null()) return "none";
    return value.is_string() ? value.get<std::string>() : value.dump();
}

/// The same, from the document. Of records with one name the first counts, as for the library.
Values read_document(const Json& document) {
    Values values;
    const auto add = [&](const std::string& key, const Json& value) { values.emplace(key, text_of(value)); };
    for (const auto& [name, value] : document["cluster"].items()) add("cluster/" + name, value);
    for (const char* const name : {"max_servers", "max_hb", "max_np"}) {
        add(std::string("cluster/") + name, document["region"][name]);
    }
    add("cluster/dfailstatus", document["simulation"]["dfailstatus"]);
    const auto name_of = [](const Json& record) { return record["name"].get<std::string>(); };
    const Json& servers = document["servers"];
    for (const Json& server : servers) {
        for (const auto& [name, value] : server.items()) {
            if (name != "name") add("servers/" + name_of(server) + "/" + name, value);
        }
    }
    for (const char* const kind : {"hb", "np"}) {
        for (const Json& resource : document[kind]) {
            const std::string key = kind + ("/" + resource["type"].get<std::string>()) + "/" + name_of(resource) + "/";
            // A second record of this name is shown, too, but no key leads to it.
            if (values.contains(key + "stat")) continue;
            add(key + "pri", resource["pri"]);
            add(key + "stat", resource["stat"]);
            for (const char* const row : {"svstat", "network"}) {
                if (!resource.contains(row)) continue;
                for (size_t i = 0; i < resource[row].size(); ++i) {
                    add(key + row + "/" + name_of(servers[i]), resource[row][i]);
                }
            }
        }
    }
    const Json& fst = document["fst"];
    if (!fst["stat"].is_null()) add("fst/stat", fst["stat"]);
    for (const Json& record : fst["pids"]) {
        for (size_t kind = 0; kind < 3; ++kind) {
            const std::string end = "/" + name_of(record) + "/" + std::to_string(kind);
            add("fst/pids" + end, record["pid"][kind]);
            add("fst/piddata" + end, record["piddata"][kind]);
        }
    }
    return values;
}

struct Sample {
    std::string name;
    std::map<std::string, std::string> labels;
    std::string value;
};

/// Reads one line: NAME{LABEL="...",...} VALUE.
Sample read_sample(const std::string& line) {
    Sample sample;
    size_t at = line.find_first_of("{ ");
    sample.name = line.substr(0, at);
    while (line[at] != ' ') {
        const size_t equals = line.find('=', at);
        std::string& label = sample.labels[line.substr(at + 1, equals - at - 1)];
        // After the opening quotation mark, up to the one that ends the label.
        for (at = equals + 2; line[at] != '"'; ++at) {
            if (line[at] == '\\') ++at;
            label += line[at];
        }
        at = line[at + 1] == '}' ? at + 2 : at + 1;
    }
    sample.value = line.substr(at + 1);
    return sample;
}

struct Metrics {
    Values values;                              ///< those that are words
    std::map<std::string, std::string> counts;  ///< "hb/lan/lan1=2": on how many servers a resource has this state
};

Metrics read_metrics(const std::string& text) {
    static const std::map<std::string, std::string> server_words = {{"priority", "pri"},
                                                                    {"simulated_failure", "dfailstatus"}};
    static const std::map<std::string, std::string> tables = {
        {"servers", "max_servers"}, {"hb", "max_hb"}, {"np", "max_np"}};
    Metrics metrics;
    const auto add = [&](const std::string& key, const Sample& sample) {
        EXPECT_TRUE(metrics.values.emplace(key, sample.value).second) << "twice: " << key;
    };
    size_t begin = 0;
    for (size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
        const std::string line = text.substr(begin, end - begin);
        if (line.starts_with('#')) continue;
        Sample sample = read_sample(line);
        auto& labels = sample.labels;
        const auto is_of = [&](const std::string& prefix) { return sample.name.starts_with("shmnm_" + prefix); };
        const auto rest = [&](const std::string& prefix) { return sample.name.substr(prefix.size() + 6); };
        const std::string resource = labels["kind"] + "/" + labels["type"] + "/" + labels["resource"];
        if (is_of("cluster_hbinfo")) {
            add("cluster/hbinfo_" + labels["part"], sample);
        } else if (is_of("cluster_partition_simulated")) {
            add("cluster/dfailstatus", sample);
        } else if (is_of("cluster_")) {
            add("cluster/" + rest("cluster_"), sample);
        } else if (is_of("region_records_limit")) {
            if (tables.contains(labels["table"])) add("cluster/" + tables.at(labels["table"]), sample);
        } else if (is_of("server_")) {
            const std::string word = rest("server_");
            add("servers/" + labels["server"] + "/" + (server_words.contains(word) ? server_words.at(word) : word),
                sample);
        } else if (is_of("resource_servers")) {
            metrics.counts[resource + "=" + labels["value"]] = sample.value;
        } else if (is_of("resource_server_stat") || is_of("resource_network_stat")) {
            const char* const row = is_of("resource_server_stat") ? "/svstat/" : "/network/";
            add(resource + row + labels["server"], sample);
        } else if (is_of("resource_")) {
            add(resource + (is_of("resource_priority") ? "/pri" : "/stat"), sample);
        }
    }
    return metrics;
}

/// The words that metrics show: all but the fst resource's, and a combined state only where there is one.
Values measured(const Values& values) {
    Values shown;
    for (const auto& [key, value] : values) {
        if (!key.starts_with("fst/") && value != "none") shown.emplace(key, value);
    }
    return shown;
}

/// On how many servers each resource of the document has each state.
std::map<std::string, std::string> counted(const Json& document) {
    std::map<std::string, unsigned> counts;
    std::map<std::string, bool> seen;
    for (const char* const kind : {"hb", "np"}) {
        for (const Json& resource : document[kind]) {
            const std::string key =
                fmt::format("{}/{}/{}", kind, resource["type"].get<std::string>(), resource["name"].get<std::string>());
            if (std::exchange(seen[key], true)) continue;
            for (const Json& state : resource["svstat"]) ++counts[key + "=" + state.dump()];
        }
    }
    std::map<std::string, std::string> texts;
    for (const auto& [key, count] : counts) texts[key] = std::to_string(count);
    return texts;
}

std::string metrics_of(std::shared_ptr<const Content> content) {
    Look look;
    look.content = std::move(content);
    const Names names;
    Scrape scrape;
    scrape.look = &look;
    scrape.is_up = true;
    scrape.names = &names;
    return to_metrics(scrape);
}

TEST(OnePicture, IsReadBackAlikeFromListJsonAndMetrics) {
    Random random(test::seed());
    size_t words = 0;
    for (unsigned round = 0; round < test::share_of(1'000); ++round) {
        const auto count = [&](uint32_t most) { return static_cast<int32_t>(1 + test::below(random, most)); };
        LibraryRegion region({count(9), count(6), count(6), static_cast<int32_t>(test::below(random, 3))});
        region.call(random, test::below(random, 200));
        const auto content = std::make_shared<const Content>(region.dump());
        const Values expected = listed(*content);
        const Json document = Json::parse(content->document());
        ASSERT_EQ(read_document(document), expected) << "round " << round;
        const Metrics metrics = read_metrics(metrics_of(content));
        ASSERT_EQ(metrics.values, measured(expected)) << "round " << round;
        ASSERT_EQ(metrics.counts, counted(document)) << "round " << round;
        words += expected.size();
    }
    EXPECT_GT(words, test::share_of(20'000));
}

}  // namespace
}  // namespace shmnmweb
