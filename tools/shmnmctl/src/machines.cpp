#include "machines.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <future>
#include <utility>

#include "picture/bridge.h"
#include "picture/decode.h"
#include "picture/escape.h"
#include "picture/spelling.h"
#include "picture_text.h"
#include "region_source.h"
#include "session.h"
#include "sheet.h"
#include "status_view.h"

namespace shmnmctl {
namespace {

using bridge::Freshness;
using bridge::Mark;

constexpr const char* how_to_name = "name its server by --from ADDRESS";

/// The marks of the machine that is read.
Bridge marks(const Context& context) {
    auto found = context.from.empty() ? BridgeReader().read() : RegionSource(context).copy(Bytes::in_use).bridge;
    if (found && found->is_there()) return *std::move(found);
    throw Failure(Exit::failed, fmt::format("no bridge runs {}, so the address of another machine is not known; {}",
                                            context.from.empty() ? "on this machine" : "there", how_to_name));
}

/// Why an address cannot be used; empty: it can. Other machines wrote it, so it may be anything.
std::string problem_of(const Mark& mark) {
    if (mark.address.empty()) return fmt::format("its bridge tells no address; {}", how_to_name);
    const bool is_web = mark.address.starts_with("http://") || mark.address.starts_with("https://");
    if (is_web) return "";
    return fmt::format("its bridge tells the address \"{}\", which is neither http nor https; {}", mark.address,
                       how_to_name);
}

Machine machine_named(const Bridge& bridge, const std::string& name) {
    if (name == bridge.marks.server) return {name, ""};
    if (const Mark* const mark = find_mark(bridge, name)) {
        const std::string problem = problem_of(*mark);
        if (problem.empty()) return {name, mark->address};
        throw failure_at({name, ""}, {Exit::failed, problem});
    }
    std::vector<std::string> names{bridge.marks.server};
    for (const Mark& mark : bridge.marks.servers) names.push_back(mark.server);
    throw Failure(Exit::no, fmt::format("the bridge knows no machine \"{}\"{}", as_typed(name),
                                        did_you_mean(name, names, "\"shmnmctl status --machines\" shows all")));
}

/// What a machine shows, or why nothing.
struct View {
    Machine machine;
    std::optional<Snapshot> snapshot;
    std::optional<Picture> picture;
    std::string problem;
};

View view_of(const Context& context, const Machine& machine) {
    View view{.machine = machine, .snapshot = {}, .picture = {}, .problem = {}};
    try {
        view.snapshot = RegionSource(at_machine(context, machine)).copy(Bytes::in_use);
        view.picture = decode(*view.snapshot);
    } catch (const std::exception&) {
        view.problem = current_failure().what();
    }
    return view;
}

/// All machines at once: each may take its whole time to fail.
std::vector<View> views(const Context& context, const Bridge& bridge) {
    std::vector<std::future<View>> asked;
    std::vector<View> all{view_of(context, {bridge.marks.server, ""})};
    for (const Mark& mark : bridge.marks.servers) {
        const Machine machine{mark.server, mark.address};
        std::string problem = problem_of(mark);
        asked.push_back(
            std::async(problem.empty() ? std::launch::async : std::launch::deferred, [&context, machine, problem] {
                if (problem.empty()) return view_of(context, machine);
                return View{.machine = machine, .snapshot = {}, .picture = {}, .problem = problem};
            }));
    }
    for (auto& view : asked) all.push_back(view.get());
    return all;
}

std::string bridge_text(const View& view) {
    if (!view.snapshot || !view.snapshot->bridge) return "-";
    const Bridge& bridge = *view.snapshot->bridge;
    if (!bridge.is_up) return bridge.is_there() ? "stopped" : "none";
    return bridge.marks.is_connected ? "connected" : "cut off";
}

Cell heading(std::string text) {
    return {.text = std::move(text), .tone = Tone::heading};
}

/// A machine a row.
Table table_of_machines(const std::vector<View>& all) {
    Table table{.rows = {{.cells = {heading("machine"), heading("bridge"), heading("servers"), heading("clstat"),
                                    heading("address")}}},
                .leading = 1};
    for (const View& view : all) {
        TableRow row{.cells = {{.text = view.machine.name}}};
        if (view.picture) {
            const std::string bridge = bridge_text(view);
            row.cells.push_back({.text = bridge, .tone = bridge == "connected" ? Tone::good : Tone::bad});
            row.cells.push_back({.text = std::to_string(view.picture->servers.size())});
            row.cells.push_back({.text = std::to_string(view.picture->header.clstat)});
            row.cells.push_back({.text = view.machine.address.empty() ? "-" : view.machine.address});
        } else {
            row.cells.push_back({.text = "not read", .tone = Tone::bad});
            row.cells.push_back({.text = "-"});
            row.cells.push_back({.text = "-"});
            row.cells.push_back({.text = view.machine.address.empty() ? "-" : view.machine.address});
        }
        table.rows.push_back(std::move(row));
    }
    return table;
}

/// What a machine says of a server: its nodestat, and how far the machine's bridge vouches for it.
Cell seen(const View& view, const std::string& server) {
    if (!view.picture) return {.text = "-"};
    const auto& servers = view.picture->servers;
    const auto found =
        std::find_if(servers.begin(), servers.end(), [&](const Server& each) { return escaped(each.name) == server; });
    if (found == servers.end()) return {.text = "missing", .tone = Tone::bad};
    Cell cell{.text = std::to_string(found->record.nodestat)};
    const auto& bridge = view.snapshot->bridge;
    if (!bridge || !bridge->is_there()) return cell;
    const Mark* const mark = find_mark(*bridge, server);
    const bool is_own = !mark && server == bridge->marks.server;
    const Freshness freshness = mark ? mark->freshness : Freshness::unknown;
    cell.text += is_own ? " own" : std::string(" ") + name_of(freshness);
    cell.tone = is_own || freshness == Freshness::fresh ? Tone::good : Tone::bad;
    return cell;
}

/// A server a row, a machine a column.
Table table_of_servers(const std::vector<View>& all) {
    Table table{.rows = {{.cells = {heading("nodestat")}}}, .leading = 1};
    std::vector<std::string> servers;
    for (const View& view : all) {
        table.rows[0].cells.push_back(heading("on " + view.machine.name));
        if (!view.picture) continue;
        for (const Server& server : view.picture->servers) {
            std::string name = escaped(server.name);
            if (std::find(servers.begin(), servers.end(), name) == servers.end()) servers.push_back(std::move(name));
        }
    }
    for (const std::string& server : servers) {
        TableRow row{.cells = {{.text = server}}};
        for (const View& view : all) row.cells.push_back(seen(view, server));
        table.rows.push_back(std::move(row));
    }
    return table;
}

std::string text_of(const std::vector<View>& all) {
    const session::Terminal terminal = session::terminal();
    Sheet sheet;
    sheet.groups.push_back({table_of_machines(all)});
    sheet.groups.push_back({table_of_servers(all)});
    const bool colors = terminal.is_terminal && wants_colors() && session::has_colors();
    std::string text = to_text(sheet, {.columns = terminal.columns, .colors = colors});
    for (const View& view : all) {
        if (!view.picture) text += fmt::format("\n{} cannot be read: {}\n", view.machine.name, view.problem);
    }
    return text;
}

std::string document_of(const std::vector<View>& all) {
    Json answer = document("machines");
    answer["machines"] = Json::array();
    for (const View& view : all) {
        Json one = {{"name", view.machine.name}, {"address", view.machine.address}};
        one["message"] = view.picture ? Json() : Json(view.problem);
        one["status"] = view.picture ? to_json(*view.snapshot, *view.picture) : Json();
        answer["machines"].push_back(std::move(one));
    }
    return line(answer);
}

}  // namespace

std::vector<Machine> named_machines(const Context& context) {
    if (context.machines.empty()) return {};
    const Bridge bridge = marks(context);
    std::vector<Machine> all;
    for (const std::string& name : context.machines) all.push_back(machine_named(bridge, name));
    return all;
}

Context at_machine(const Context& context, const Machine& machine) {
    Context there = context;
    if (!machine.address.empty()) there.from = machine.address;
    return there;
}

Failure failure_at(const Machine& machine, const Failure& failure) {
    return {failure.exit, fmt::format("machine {} cannot be read: {}", machine.name, failure.what())};
}

Exit show_machines(const Context& context) {
    const std::vector<View> all = views(context, marks(context));
    write_output(context.json() ? document_of(all) : text_of(all));
    std::vector<std::string> unread;
    for (const View& view : all) {
        if (!view.picture) unread.push_back(view.machine.name);
    }
    if (unread.empty()) return Exit::done;
    throw Failure(Exit::failed, fmt::format("cannot read {} of {} machines: {}; see whether shmnmweb runs there",
                                            unread.size(), all.size(), fmt::join(unread, ", ")));
}

}  // namespace shmnmctl
