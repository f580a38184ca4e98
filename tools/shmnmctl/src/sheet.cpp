#include "sheet.h"

#include <fmt/format.h>

#include <algorithm>
#include <tuple>
#include <unordered_map>

#include "picture/escape.h"
#include "picture/keys.h"
#include "picture/words.h"

namespace shmnmctl {
namespace {

using namespace picture;

/// Keys of what stands beside the words and is shown with all of them.
constexpr const char *whole_cluster = "cluster/", *whole_fst = "fst/";

Cell heading(std::string text) {
    return {.text = std::move(text), .tone = Tone::heading};
}

/// A flag is not marked: it changes with the word that it follows from.
template <typename Source, typename Part>
Cell shown(const Source& source, const Part& part, const std::string& key) {
    const Value value = source.value(part);
    if (!source.is_flag()) return {.text = value.to_text(), .key = key};
    const bool yes = value != Value(0u);
    return {.text = yes ? "yes" : "no", .key = key, .tone = yes ? Tone::good : Tone::bad, .is_word = false};
}

/// For how long, as far as a glance needs it: "5s", "12min", "3h", "9d".
std::string rough_time(uint64_t milliseconds) {
    constexpr uint64_t second = 1'000, minute = 60 * second, hour = 60 * minute, day = 24 * hour;
    if (milliseconds < 2 * minute) return fmt::format("{}s", milliseconds / second);
    if (milliseconds < 2 * hour) return fmt::format("{}min", milliseconds / minute);
    if (milliseconds < 2 * day) return fmt::format("{}h", milliseconds / hour);
    return fmt::format("{}d", milliseconds / day);
}

/// Builds the sections and leaves out what is not shown.
class Builder {
  public:
    Builder(const Picture& picture, const Selection& selection, const Picture* before)
        : picture_(picture), selection_(selection), rows_(selection.rows(picture)) {
        sheet_.has_marks = before != nullptr;
        if (!before) return;
        for (Word& word : words(*before)) before_.emplace(std::move(word.key), word.value.to_text());
    }

    Sheet take() {
        if (!selection_.has_condition()) {
            add_cluster();
            add_bridge();
        }
        add_servers();
        for (const ResourceKind& kind : resource_kinds) add_resources(kind);
        add_fst();
        return std::move(sheet_);
    }

  private:
    using NamedCells = std::vector<std::pair<std::string, Cell>>;

    /// Whether the cells' keys are looked at.
    bool needs_keys() const { return sheet_.has_marks || !selection_.is_everything(); }

    void mark(Cell& cell) const {
        if (!sheet_.has_marks || cell.key.empty() || !cell.is_word) return;
        const auto before = before_.find(cell.key);
        cell.is_changed = before == before_.end() || before->second != cell.text;
    }

    void add(std::vector<Section>& group, std::string heading, NamedCells all) const {
        std::erase_if(all, [&](const auto& named) { return !selection_.shows(named.second.key); });
        if (all.empty()) return;
        for (auto& named : all) mark(named.second);
        group.emplace_back(Items{std::move(heading), std::move(all)});
    }

    void add(std::vector<Section>& group, Table table) const {
        if (selection_.has_prefixes()) leave_out_words(table);
        if (!selection_.is_everything() && table.rows.size() < 2) return;
        for (TableRow& row : table.rows) {
            for (Cell& cell : row.cells) mark(cell);
        }
        group.emplace_back(std::move(table));
    }

    /// Empties the cells that are not shown; rows and columns of such cells alone go.
    void leave_out_words(Table& table) const {
        std::vector<bool> has_words(table.rows[0].cells.size());
        has_words[0] = true;
        std::vector<TableRow> kept;
        for (TableRow& row : table.rows) {
            bool row_has_words = &row == table.rows.data();
            for (size_t i = 1; i < row.cells.size() && &row != table.rows.data(); ++i) {
                const bool is_shown = !row.cells[i].key.empty() && selection_.shows(row.cells[i].key);
                if (!is_shown) row.cells[i] = {};
                has_words[i] = has_words[i] || is_shown;
                row_has_words = row_has_words || is_shown;
            }
            if (row_has_words) kept.push_back(std::move(row));
        }
        for (TableRow& row : kept) {
            std::vector<Cell> cells;
            for (size_t i = 0; i < row.cells.size(); ++i) {
                if (has_words[i]) cells.push_back(std::move(row.cells[i]));
            }
            row.cells = std::move(cells);
        }
        table.leading = static_cast<size_t>(
            std::count(has_words.begin(), has_words.begin() + static_cast<std::ptrdiff_t>(table.leading), true));
        table.rows = std::move(kept);
    }

    void end(std::vector<Section> group) {
        if (!group.empty()) sheet_.groups.push_back(std::move(group));
    }

    void add_cluster() {
        std::vector<Section> group;
        NamedCells states, in_use;
        for (const ClusterWord& word : cluster_words) {
            const std::string key = std::string("cluster/") + word.key;
            if (word.is_state()) states.emplace_back(word.key, shown(word.source, picture_, key));
        }
        add(group, "cluster", std::move(states));
        for (const TableCount* const table : table_counts) {
            const int32_t count = picture_.header.*table->count, limit = picture_.header.*table->limit;
            in_use.emplace_back(
                table->heading,
                Cell{.text = fmt::format("{} of {}", count, limit), .key = key_of_limit(*table), .is_word = false});
        }
        add(group, "in use", std::move(in_use));
        const auto simulated = [](std::string text, bool is_bad) {
            return Cell{.text = std::move(text),
                        .key = "cluster/dfailstatus",
                        .tone = is_bad ? Tone::bad : Tone::plain,
                        .is_word = false};
        };
        NamedCells simulation;
        simulation.emplace_back("", simulated(picture_.is_simulated() ? "on" : "off", picture_.is_simulated()));
        for (const Server& server : picture_.servers) {
            if (server.is_simulated()) simulation.emplace_back("failed", simulated(escaped(server.name), true));
        }
        add(group, "simulation", std::move(simulation));
        end(std::move(group));
    }

    /// Of the word that is a table's limit.
    static std::string key_of_limit(const TableCount& table) {
        for (const ClusterWord& word : cluster_words) {
            if (word.count && word.source.number() == table.limit) return std::string("cluster/") + word.key;
        }
        return whole_cluster;
    }

    /// Without marks there is nothing to see, unless it is asked for.
    bool shows_bridge() const { return picture_.bridge && (picture_.bridge->is_there() || selection_.has_prefixes()); }

    void add_bridge() {
        if (!shows_bridge()) return;
        const Bridge& bridge = *picture_.bridge;
        std::vector<Section> group;
        NamedCells all;
        const std::string state = bridge.is_up ? "up"
                                  : bridge.is_there()
                                      ? fmt::format("stopped for {}", rough_time(bridge.stopped_us / 1'000))
                                      : "none";
        for (const BridgeWord& word : bridge_words) {
            Cell cell{.text = word.value(bridge).to_text(), .key = std::string("bridge/") + word.key};
            const bool is_first = &word == bridge_words, yes = cell.text != "0";
            if (word.is_flag) {
                cell.text = is_first ? state : yes ? "yes" : "no";
                cell.tone = yes != (word.key == std::string_view("refused")) ? Tone::good : Tone::bad;
                cell.is_word = false;
            }
            all.emplace_back(is_first ? "" : word.key, std::move(cell));
            if (!bridge.is_there()) break;
        }
        add(group, "bridge", std::move(all));
        const auto list = [&](const char* what, const char* key, const std::vector<std::string>& texts) {
            NamedCells listed;
            for (const std::string& text : texts)
                listed.emplace_back("", Cell{.text = text, .key = key, .is_word = false});
            if (!texts.empty()) add(group, what, std::move(listed));
        };
        list("contested", "bridge/contested", bridge.marks.contested);
        list("unmatched", "bridge/unmatched", bridge.marks.unmatched);
        std::vector<std::string> others;
        for (const bridge::Mark& mark : bridge.marks.servers) {
            if (mark.has_other_times) others.push_back(mark.server);
        }
        list("other times", "bridge/servers", others);
        if (bridge.lost_servers > 0) {
            list("no marks", "bridge/servers", {fmt::format("{} more servers", bridge.lost_servers)});
        }
        end(std::move(group));
    }

    /// What the bridge says of a server.
    Cell mark_of(const std::string& server) const {
        const bridge::Mark* const mark = find_mark(*picture_.bridge, server);
        if (!mark && server == picture_.bridge->marks.server) return {.text = "own", .is_word = false};
        const auto freshness = mark ? mark->freshness : bridge::Freshness::unknown;
        Cell cell{.text = name_of(freshness),
                  .key = fmt::format("bridge/servers/{}/freshness", server),
                  .tone = freshness == bridge::Freshness::fresh ? Tone::good : Tone::bad,
                  .is_word = false};
        const bool is_old = mark && mark->age >= 0 && freshness != bridge::Freshness::fresh;
        if (is_old) cell.text += " " + rough_time(static_cast<uint64_t>(mark->age));
        return cell;
    }

    void add_servers() {
        const bool has_marks = picture_.bridge && picture_.bridge->is_there();
        Table table{.leading = 1};
        table.rows.push_back({.cells = {heading("server")}});
        for (const ServerWord& word : server_words) {
            if (word.heading) table.rows[0].cells.push_back(heading(word.heading));
        }
        if (has_marks) table.rows[0].cells.push_back(heading("mark"));
        for (size_t i = 0; i < picture_.servers.size(); ++i) {
            if (!rows_.servers[i]) continue;
            const std::string name = escaped(picture_.servers[i].name);
            TableRow row{.name = name, .cells = {{.text = name}}};
            for (const ServerWord& word : server_words) {
                if (!word.heading) continue;
                row.cells.push_back(shown(word.source, picture_.servers[i], "servers/" + name + "/" + word.key));
            }
            if (has_marks) row.cells.push_back(mark_of(name));
            table.rows.push_back(std::move(row));
        }
        std::vector<Section> group;
        add(group, std::move(table));
        end(std::move(group));
    }

    void add_resources(const ResourceKind& kind) {
        std::vector<std::string> servers;
        for (const Server& server : picture_.servers) servers.push_back(escaped(server.name));
        Table table{.leading = 1 + std::size(resource_words)};
        table.rows.push_back({.cells = {heading(kind.key)}});
        for (const ResourceWord& word : resource_words) table.rows[0].cells.push_back(heading(word.key));
        for (const std::string& server : servers) table.rows[0].cells.push_back(heading(server));
        const std::vector<Resource>& resources = picture_.*kind.resources;
        const std::vector<bool>& is_shown = kind.resources == &Picture::hb ? rows_.hb : rows_.np;
        for (size_t i = 0; i < resources.size(); ++i) {
            if (!is_shown[i]) continue;
            const std::string name = escaped(resources[i].type) + "/" + escaped(resources[i].name);
            const std::string key = std::string(kind.key) + "/" + name + "/";
            for (const RowWord& word : row_words) {
                if (!(kind.*word.set)) continue;
                // The first row has the resource's own words.
                const bool is_first = &word == row_words;
                TableRow row{.name = name, .cells = {{.text = is_first ? name : std::string("  ") + word.key}}};
                for (const ResourceWord& own : resource_words) {
                    row.cells.push_back(is_first ? shown(own.source, resources[i], key + own.key) : Cell{});
                }
                add_states(row.cells, servers, (resources[i].*word.row).states, key + word.key + "/");
                table.rows.push_back(std::move(row));
            }
        }
        std::vector<Section> group;
        add(group, std::move(table));
        end(std::move(group));
    }

    /// The states of a row, for each server.
    void add_states(std::vector<Cell>& cells, const std::vector<std::string>& servers,
                    const std::vector<uint32_t>& states, const std::string& key) const {
        for (size_t i = 0; i < servers.size(); ++i) {
            if (i >= states.size()) {
                cells.push_back({.text = "-"});
            } else {
                cells.push_back({.text = std::to_string(states[i]), .key = needs_keys() ? key + servers[i] : ""});
            }
        }
    }

    void add_fst() {
        std::vector<Section> group;
        if (!selection_.has_condition()) {
            NamedCells all;
            if (!picture_.fst) all.emplace_back("", Cell{.text = "none", .key = whole_fst, .is_word = false});
            for (const FstWord& word : fst_words) {
                if (picture_.fst) {
                    all.emplace_back(word.key, shown(word.source, *picture_.fst, std::string("fst/") + word.key));
                }
            }
            if (picture_.fst && !picture_.fst->descript.empty()) {
                all.emplace_back("",
                                 Cell{.text = printable(picture_.fst->descript), .key = whole_fst, .is_word = false});
            }
            add(group, "fst", std::move(all));
        }
        if (!picture_.fst_pids.empty()) add_pids(group);
        end(std::move(group));
    }

    void add_pids(std::vector<Section>& group) const {
        constexpr size_t kinds = std::tuple_size_v<decltype(FstPid::pid)>;
        Table table{.leading = 1};
        table.rows.push_back({.cells = {heading("process ids")}});
        for (const PidWord& word : pid_words) {
            for (size_t kind = 0; kind < kinds; ++kind) {
                table.rows[0].cells.push_back(heading(fmt::format("{}{}", word.heading, kind)));
            }
        }
        for (size_t i = 0; i < picture_.fst_pids.size(); ++i) {
            if (!rows_.fst_pids[i]) continue;
            const FstPid& record = picture_.fst_pids[i];
            const std::string name = escaped(record.name);
            TableRow row{.name = name, .cells = {{.text = name}}};
            for (const PidWord& word : pid_words) {
                for (size_t kind = 0; kind < kinds; ++kind) {
                    row.cells.push_back({.text = word.value(record, kind).to_text(),
                                         .key = fmt::format("fst/{}/{}/{}", word.key, name, kind)});
                }
            }
            table.rows.push_back(std::move(row));
        }
        add(group, std::move(table));
    }

    const Picture& picture_;
    const Selection& selection_;
    const ShownRows rows_;
    std::unordered_map<std::string, std::string> before_;
    Sheet sheet_;
};

}  // namespace

Sheet to_sheet(const Picture& picture, const Selection& selection, const Picture* before) {
    return Builder(picture, selection, before).take();
}

std::string cut(const std::string& text, size_t size) {
    return text.size() <= size ? text : text.substr(0, size - 1) + "~";
}

}  // namespace shmnmctl
