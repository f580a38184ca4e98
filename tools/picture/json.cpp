#include "picture/json.h"

#include <string>
#include <variant>

#include "picture/escape.h"
#include "picture/words.h"

namespace picture {
namespace {

/// Members may be added to documents of this version.
constexpr int document_version = 1;

template <typename Source, typename Part>
void show(JsonText& text, const Source& source, const Part& part) {
    const Value value = source.value(part);
    source.is_flag() ? text.boolean(value != Value(0u)) : text.value(value);
}

void show_cluster(JsonText& text, const Picture& picture) {
    text.begin_object();
    for (const ClusterWord& word : cluster_words) {
        if (word.is_state()) show(text.name(word.key), word.source, picture);
    }
    text.end_object();
}

void show_region(JsonText& text, const Snapshot& snapshot, const Picture& picture) {
    text.begin_object().name("live").boolean(snapshot.live).name("size").number(snapshot.bytes.size());
    // Here, unlike in the words, a damaged count shows its sign.
    for (const ClusterWord& word : cluster_words) {
        if (word.count) text.name(word.key).number(picture.header.*word.source.number());
    }
    text.name("fst_count").number(picture.header.fst_count).name("fst_pid_limit").number(picture.header.fst_pid_limit);
    for (const TableCount* const table : table_counts) text.name(table->key).number(picture.header.*table->count);
    text.end_object();
}

void show_servers(JsonText& text, const Picture& picture) {
    text.begin_array();
    for (const Server& server : picture.servers) {
        text.begin_object().name("name").string(escaped(server.name));
        for (const ServerWord& word : server_words) show(text.name(word.key), word.source, server);
        text.end_object();
    }
    text.end_array();
}

void show_resources(JsonText& text, const Picture& picture, const ResourceKind& kind) {
    text.begin_array();
    for (const Resource& resource : picture.*kind.resources) {
        text.begin_object().name("type").string(escaped(resource.type)).name("name").string(escaped(resource.name));
        for (const ResourceWord& word : resource_words) show(text.name(word.key), word.source, resource);
        text.name("descript").string(escaped(resource.descript));
        for (const RowWord& word : row_words) {
            if (!(kind.*word.set)) continue;
            text.name(word.key).begin_array();
            for (const uint32_t state : (resource.*word.row).states) text.number(state);
            text.end_array();
        }
        text.end_object();
    }
    text.end_array();
}

void show_simulation(JsonText& text, const Picture& picture) {
    text.begin_object();
    for (const ClusterWord& word : cluster_words) {
        if (std::holds_alternative<BySimulation>(word.set)) show(text.name(word.key), word.source, picture);
    }
    text.name("failed").begin_array();
    for (const Server& server : picture.servers) {
        if (server.is_simulated()) text.string(escaped(server.name));
    }
    text.end_array().end_object();
}

void show_pid(JsonText& text, uint32_t pid) {
    text.number(pid);
}
/// As text: many readers of JSON would round it.
void show_pid(JsonText& text, uint64_t data) {
    text.string(std::to_string(data));
}

void show_pids(JsonText& text, const Picture& picture) {
    text.begin_array();
    for (const FstPid& record : picture.fst_pids) {
        text.begin_object().name("name").string(escaped(record.name));
        for (const PidWord& word : pid_words) {
            text.name(word.member).begin_array();
            std::visit(
                [&](const auto& member) {
                    for (const auto value : record.*member) show_pid(text, value);
                },
                word.values);
            text.end_array();
        }
        text.end_object();
    }
    text.end_array();
}

void show_fst(JsonText& text, const Picture& picture) {
    text.begin_object();
    for (const FstWord& word : fst_words) {
        text.name(word.key);
        picture.fst ? show(text, word.source, *picture.fst) : static_cast<void>(text.null());
    }
    text.name("descript");
    picture.fst ? text.string(escaped(picture.fst->descript)) : text.null();
    show_pids(text.name("pids"), picture);
    text.end_object();
}

void show_interrupted(JsonText& text, const std::vector<Interrupted>& changes) {
    text.begin_array();
    for (const Interrupted& one : changes) {
        text.begin_object().name("process").number(one.process).name("call").string(one.call);
        text.name("change").string(one.change).name("superseded").boolean(one.superseded).end_object();
    }
    text.end_array();
}

void show_mark(JsonText& text, const bridge::Mark& mark) {
    text.begin_object().name("name").string(mark.server).name("freshness").string(name_of(mark.freshness));
    text.name("age_ms");
    mark.age < 0 ? text.null() : text.number(mark.age);
    text.name("revision").value(mark.sequence).name("address").string(mark.address);
    text.name("claimed").boolean(mark.is_claimed).name("unmatched").boolean(mark.is_unmatched);
    text.name("duplicate_priority").boolean(mark.is_duplicate).name("other_names").boolean(mark.has_other_names);
    text.name("other_times").boolean(mark.has_other_times);
    text.end_object();
}

void show_texts(JsonText& text, const std::vector<std::string>& all) {
    text.begin_array();
    for (const std::string& one : all) text.string(one);
    text.end_array();
}

void show_bridge(JsonText& text, const Bridge& bridge) {
    const bridge::Marks& marks = bridge.marks;
    text.begin_object().name("up").boolean(bridge.is_up).name("stopped_ms");
    bridge.stopped_us == 0 ? text.null() : text.number(bridge.stopped_us / 1'000);
    text.name("connected").boolean(marks.is_connected).name("running").boolean(marks.is_running);
    text.name("refused").boolean(marks.is_refused).name("fed").boolean(marks.is_fed);
    text.name("cluster").string(marks.cluster).name("server").string(marks.server);
    text.name("member").string(marks.member).name("proposals").begin_object();
    text.name("proposed").value(marks.agreed.proposed).name("accepted").value(marks.agreed.accepted);
    text.name("lost").value(marks.agreed.lost).name("replaced").value(marks.agreed.replaced).end_object();
    show_texts(text.name("contested"), marks.contested);
    show_texts(text.name("unmatched"), marks.unmatched);
    text.name("left_out").value(bridge.left_out).name("lost_servers").value(bridge.lost_servers);
    text.name("servers").begin_array();
    for (const bridge::Mark& mark : marks.servers) show_mark(text, mark);
    text.end_array().end_object();
}

}  // namespace

std::string to_json_text(const Bridge& bridge) {
    JsonText text;
    show_bridge(text, bridge);
    return text.take();
}

Json document(const char* kind) {
    return Json{{"version", document_version}, {"kind", kind}};
}

std::string line(const Json& document) {
    return document.dump() + "\n";
}

Json to_json(const Value& value) {
    return with_shown(value, [](const auto& shown) { return Json(shown); });
}

Json to_json(const std::vector<Word>& words) {
    Json::object_t listed;
    listed.reserve(words.size());
    // Each key occurs once, so there is no need to search for it at each insertion.
    for (const Word& word : words) listed.emplace_back(word.key, to_json(word.value));
    return listed;
}

Json to_json(const std::vector<Interrupted>& changes) {
    JsonText text;
    show_interrupted(text, changes);
    return Json::parse(text.take());
}

JsonText document_text(const char* kind) {
    JsonText text;
    text.begin_object().name("version").number(document_version).name("kind").string(kind);
    return text;
}

std::string line(JsonText& document) {
    std::string text = document.end_object().take();
    text += '\n';
    return text;
}

std::string status_line(const Snapshot& snapshot, const Picture& picture) {
    JsonText text = document_text("status");
    show_region(text.name("region"), snapshot, picture);
    show_cluster(text.name("cluster"), picture);
    show_servers(text.name("servers"), picture);
    for (const ResourceKind& kind : resource_kinds) show_resources(text.name(kind.key), picture, kind);
    show_simulation(text.name("simulation"), picture);
    show_fst(text.name("fst"), picture);
    show_interrupted(text.name("interrupted"), interrupted_in(snapshot));
    if (snapshot.bridge) show_bridge(text.name("bridge"), *snapshot.bridge);
    return line(text);
}

Json to_json(const Snapshot& snapshot, const Picture& picture) {
    return Json::parse(status_line(snapshot, picture));
}

}  // namespace picture
