// "status": what the bridge of this machine says of the other machines' words.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <optional>

#include "bridge_marks/live.h"
#include "commands.h"
#include "console/console.h"
#include "log.h"
#include "picture/bridge.h"
#include "picture/error.h"
#include "picture/json.h"

namespace bridge {
namespace {

constexpr const char* freshness_names[] = {"unknown", "fresh", "silent"};

bool is_all_fresh(const ReadMarks& read) {
    const Marks& marks = read.marks;
    return read.lost_servers == 0 && marks.is_connected && marks.is_running && marks.is_fed &&
           std::all_of(marks.servers.begin(), marks.servers.end(),
                       [](const Mark& mark) { return mark.freshness == Freshness::fresh; });
}

picture::Json to_json(const Mark& mark) {
    picture::Json json;
    json["name"] = mark.server;
    json["freshness"] = freshness_names[static_cast<size_t>(mark.freshness)];
    json["age_ms"] = mark.age < 0 ? picture::Json() : picture::Json(mark.age);
    json["revision"] = mark.sequence;
    json["address"] = mark.address;
    json["claimed"] = mark.is_claimed;
    json["unmatched"] = mark.is_unmatched;
    json["duplicate_priority"] = mark.is_duplicate;
    json["other_names"] = mark.has_other_names;
    json["other_times"] = mark.has_other_times;
    return json;
}

std::string to_json_line(const std::optional<ReadMarks>& read) {
    picture::Json document = picture::document("bridge");
    document["up"] = read.has_value();
    if (!read) return picture::line(document);
    const Marks& marks = read->marks;
    document["all_fresh"] = is_all_fresh(*read);
    document["cluster"] = marks.cluster;
    document["server"] = marks.server;
    document["member"] = marks.member;
    document["connected"] = marks.is_connected;
    document["running"] = marks.is_running;
    document["refused"] = marks.is_refused;
    document["fed"] = marks.is_fed;
    document["servers"] = picture::Json::array();
    for (const Mark& mark : marks.servers) document["servers"].push_back(to_json(mark));
    document["proposals"] = {{"proposed", marks.agreed.proposed},
                             {"accepted", marks.agreed.accepted},
                             {"lost", marks.agreed.lost},
                             {"replaced", marks.agreed.replaced}};
    document["longest_hold_us"] = marks.longest_hold_us;
    document["contested"] = marks.contested;
    document["unmatched"] = marks.unmatched;
    document["lost_words"] = read->lost_words;
    document["lost_servers"] = read->lost_servers;
    return picture::line(document);
}

/// What an operator should know of a server beside its freshness.
std::string remarks_on(const Mark& mark) {
    std::string text;
    const auto add = [&text](bool is_so, const char* remark) {
        if (is_so) text += (text.empty() ? "" : ", ") + std::string(remark);
    };
    add(!mark.is_claimed, "no bridge has its name");
    add(mark.is_unmatched, "not in this region");
    add(mark.is_duplicate, "not fed: another server has its priority");
    add(mark.has_other_names, "its region has other counts or names");
    add(mark.has_other_times, "its bridge has another window_ms or gather_ms");
    return text;
}

std::string to_text(const ReadMarks& read) {
    const Marks& marks = read.marks;
    std::string text = fmt::format("bridge      server {} of cluster {}  etcd {}  connected {}  running {}  fed {}\n",
                                   marks.server, marks.cluster, marks.member, marks.is_connected ? "yes" : "no",
                                   marks.is_running ? "yes" : "no", marks.is_fed ? "yes" : "no");
    if (marks.is_refused) text += "refused     another machine has claimed the name of this server\n";
    text += fmt::format("proposals   proposed {}  accepted {}  lost {}  replaced {}\n", marks.agreed.proposed,
                        marks.agreed.accepted, marks.agreed.lost, marks.agreed.replaced);
    text += fmt::format("lock        held for {} us at most\n", marks.longest_hold_us);
    for (const std::string& word : marks.contested) text += "contested   " + word + "\n";
    for (const std::string& word : marks.unmatched) text += "unmatched   " + word + "\n";
    if (read.lost_words > 0) text += fmt::format("            and {} more\n", read.lost_words);
    size_t width = std::string_view("server").size();
    for (const Mark& mark : marks.servers) width = std::max(width, mark.server.size());
    if (!marks.servers.empty()) text += fmt::format("\n{:{}}  freshness     age  revision  address\n", "server", width);
    for (const Mark& mark : marks.servers) {
        constexpr double ms_per_s = 1'000;
        const std::string age = mark.age < 0 ? "-" : fmt::format("{:.1f}s", static_cast<double>(mark.age) / ms_per_s);
        const std::string remarks = remarks_on(mark);
        text += fmt::format("{:{}}  {:9}  {:>6}  {:>8}  {}{}{}\n", mark.server, width,
                            freshness_names[static_cast<size_t>(mark.freshness)], age, mark.sequence,
                            mark.address.empty() ? "-" : mark.address, remarks.empty() ? "" : "  ", remarks);
    }
    if (read.lost_servers > 0) text += fmt::format("and {} more servers, which cannot be marked\n", read.lost_servers);
    return text;
}

Exit show_status(bool json) {
    std::optional<ReadMarks> read = read_live_marks();
    if (read) picture::make_safe(read->marks);
    const std::string text = json ? to_json_line(read) : read ? to_text(*read) : "";
    if (!read && !json) log("no bridge runs here: start it with \"shmnmbridge run\", or its service");
    if (const std::string problem = console::write(stdout, text); !problem.empty()) {
        throw picture::Error(picture::ErrorKind::failed, "cannot write to standard output: " + problem);
    }
    if (!read) return Exit::no_bridge;
    return is_all_fresh(*read) ? Exit::done : Exit::no;
}

}  // namespace

void add_status_command(CLI::App& app, Command& command) {
    static std::string format = "text";
    CLI::App* const status = app.add_subcommand("status", "Show how fresh the other machines' words are");
    status->add_option("--format", format, "text, or json: one document in one line")
        ->check(CLI::IsMember({"text", "json"}))
        ->capture_default_str();
    status->footer("Exit status: 0 all servers are fresh; 1 some are not; 3 no bridge runs; 5 failed.");
    status->callback([&command] { command = [] { return show_status(format == "json"); }; });
}

}  // namespace bridge
