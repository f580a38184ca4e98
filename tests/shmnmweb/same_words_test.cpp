// One picture, several ways to read it: the words of "shmnmctl list", the text of "shmnmctl status", the JSON document
// and the metrics, each read back, say the same of any region. The browser's test continues with the page: it gets the
// documents and the words of these regions in the file that SHMNM_PICTURES names, one line of JSON per region.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
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
#include "picture/words.h"
#include "picture_text.h"
#include "sheet.h"

namespace shmnmweb {
namespace {

using picture::Json;
using test::LibraryRegion;
using test::Random;
using testing::IsEmpty;

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

using Tokens = std::vector<std::string>;

/// The lines of a text up to the next empty one, each as what blanks separate in it.
std::vector<Tokens> read_block(std::istream& text) {
    std::vector<Tokens> block;
    for (std::string line; std::getline(text, line) && !line.empty();) {
        std::istringstream stream(line);
        block.emplace_back(std::istream_iterator<std::string>(stream), std::istream_iterator<std::string>());
    }
    return block;
}

std::string number_of(const std::string& text) {
    return text == "yes" || text == "on" ? "1" : text == "no" || text == "off" ? "0" : text;
}

class TextReader {
  public:
    Values read(const std::string& text) {
        std::istringstream stream(text);
        for (auto block = read_block(stream); !block.empty(); block = read_block(stream)) {
            const std::string& kind = block[0][0];
            if (kind == "cluster") read_cluster(block);
            if (kind == "server") read_servers(block);
            if (kind == "hb" || kind == "np") read_resources(kind, block);
            if (kind == "fst" || kind == "process") read_fst(block);
        }
        return std::move(values_);
    }

  private:
    void add(const std::string& key, const std::string& text) { values_.emplace(key, number_of(text)); }

    void read_cluster(const std::vector<Tokens>& block) {
        ASSERT_EQ(block.size(), 3u);
        for (size_t i = 1; i + 1 < block[0].size(); i += 2) add("cluster/" + block[0][i], block[0][i + 1]);
        // "in use", then NAME COUNT of LIMIT each.
        for (size_t i = 2; i + 3 < block[1].size(); i += 4) {
            if (block[1][i] != "process") add("cluster/max_" + block[1][i], block[1][i + 3]);
        }
        add("cluster/dfailstatus", block[2][1]);
        for (size_t i = 3; i < block[2].size(); i += 2) add("servers/" + block[2][i] + "/dfailstatus", "1");
    }
    void read_servers(const std::vector<Tokens>& block) {
        for (size_t row = 1; row < block.size(); ++row) {
            const std::string& name = servers_.emplace_back(block[row][0]);
            size_t column = 0;
            for (const picture::ServerWord& word : picture::server_words) {
                if (!word.heading) continue;
                ++column;
                EXPECT_EQ(block[0].at(column), word.heading);
                add("servers/" + name + "/" + word.key, block[row].at(column));
            }
            add("servers/" + name + "/dfailstatus", "0");
        }
    }
    void read_resources(const std::string& kind, const std::vector<Tokens>& block) {
        constexpr size_t own = 3;
        EXPECT_EQ(Tokens(block[0].begin() + own, block[0].end()), servers_);
        std::string record;
        for (size_t row = 1; row < block.size(); ++row) {
            const Tokens& line = block[row];
            // The network-wide states stand below the resource's own line; the name of a resource has a slash.
            const bool is_network = line[0] == "network";
            if (!is_network) {
                record = kind + "/" + line[0];
                add(record + "/pri", line.at(1));
                add(record + "/stat", line.at(2));
            }
            const size_t first = is_network ? 1 : own;
            EXPECT_EQ(line.size(), first + servers_.size());
            for (size_t i = 0; i < servers_.size(); ++i) {
                add(record + (is_network ? "/network/" : "/svstat/") + servers_[i], line.at(first + i));
            }
        }
    }
    void read_fst(const std::vector<Tokens>& block) {
        for (const Tokens& line : block) {
            if (line[0] == "fst") {
                if (line[1] == "stat") add("fst/stat", line.at(2));
            } else if (line[0] != "process") {
                for (size_t kind = 0; kind < 3; ++kind) {
                    add(fmt::format("fst/pids/{}/{}", line[0], kind), line.at(1 + kind));
                    add(fmt::format("fst/piddata/{}/{}", line[0], kind), line.at(4 + kind));
                }
            }
        }
    }

    Values values_;
    Tokens servers_;
};

/// What the text shows: of simulations only whether there are any, of a failed server its name.
Values shown_in_text(const Content& content) {
    Values shown = listed(content);
    std::string& simulation = shown.at("cluster/dfailstatus");
    if (simulation != "0") simulation = "1";
    for (const picture::Server& server : content.decoded.servers) {
        const std::string key = "servers/" + picture::escaped(server.name) + "/dfailstatus";
        if (server.is_simulated() || shown.at(key) != "0") shown.at(key) = "1";
    }
    return shown;
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

/// One line for each key whose values differ.
Tokens differences(const Values& read, const Values& expected) {
    Tokens lines;
    const auto compare = [&](const Values& from, const Values& with, const char* what) {
        for (const auto& [key, value] : from) {
            const auto other = with.find(key);
            if (other != with.end() && other->second == value) continue;
            lines.push_back(fmt::format("{} {} {}", key, what, value));
        }
    };
    compare(read, expected, "is read as");
    compare(expected, read, "should be");
    return lines;
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

TEST(OnePicture, IsReadBackAlikeFromTextJsonAndMetrics) {
    Random random(test::seed());
    const char* const file = std::getenv("SHMNM_PICTURES");
    std::ofstream pictures(file ? file : "");
    size_t words = 0;
    for (unsigned round = 0; round < test::share_of(1'000); ++round) {
        const auto count = [&](uint32_t most) { return static_cast<int32_t>(1 + test::below(random, most)); };
        LibraryRegion region({count(9), count(6), count(6), static_cast<int32_t>(test::below(random, 3))});
        region.call(random, test::below(random, 200));
        const auto content = std::make_shared<const Content>(region.dump());
        const Values expected = listed(*content);
        const Json document = Json::parse(content->document());
        ASSERT_THAT(differences(read_document(document), expected), IsEmpty()) << "round " << round;
        const std::string text =
            shmnmctl::to_text(shmnmctl::to_sheet(content->decoded, picture::Selection(), nullptr), {});
        ASSERT_THAT(differences(TextReader().read(text), shown_in_text(*content)), IsEmpty()) << "round " << round;
        pictures << Json{{"document", document}, {"words", expected}} << "\n";
        const Metrics metrics = read_metrics(metrics_of(content));
        ASSERT_THAT(differences(metrics.values, measured(expected)), IsEmpty()) << "round " << round;
        ASSERT_EQ(metrics.counts, counted(document)) << "round " << round;
        words += expected.size();
    }
    EXPECT_GT(words, test::share_of(20'000));
}

}  // namespace
}  // namespace shmnmweb
