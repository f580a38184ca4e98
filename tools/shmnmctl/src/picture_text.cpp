#include "picture_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "picture/escape.h"
#include "picture/keys.h"
#include "picture/words.h"

namespace shmnmctl {
namespace {

using namespace picture;

enum class Tone { plain, heading, good, bad };

struct Cell {
    std::string text;
    std::string key;  ///< of the word that it shows; empty: none
    Tone tone = Tone::plain;
};

/// The words as they were when the picture was last shown.
class Before {
  public:
    explicit Before(const Picture* picture) : known_(picture != nullptr) {
        if (!picture) return;
        for (Word& word : words(*picture)) values_.emplace(std::move(word.key), word.value.to_text());
    }
    bool is_known() const { return known_; }
    bool differs(const Cell& cell) const {
        if (!known_ || cell.key.empty()) return false;
        const auto before = values_.find(cell.key);
        return before == values_.end() || before->second != cell.text;
    }

  private:
    bool known_;
    std::unordered_map<std::string, std::string> values_;
};

/// Lays cells out in columns that fit a width.
class Page {
  public:
    Page(const TextStyle& style, const Before& before) : style_(style), before_(before) {}

    /// A heading and words with their names, broken where the line is full.
    void items(const std::string& heading, const std::vector<std::pair<std::string, Cell>>& all) {
        constexpr size_t indent = 12;
        put({heading, "", Tone::heading}, false, false);
        text_.append(indent - heading.size(), ' ');
        size_t column = indent;
        for (const auto& [name, cell] : all) {
            const size_t length = name.size() + (name.empty() ? 0 : 1) + cell.text.size() + mark_size();
            if (style_.columns > 0 && column > indent && column + length > width()) {
                end_line();
                text_.append(indent, ' ');
                column = indent;
            }
            if (!name.empty()) text_ += name + " ";
            add(cell);
            text_ += "  ";
            column += length + 2;
        }
        end_line();
    }

    /// Rows of equal length, the first being the headings. The leading columns stand before each part of those that do
    /// not fit beside one another.
    void table(const std::vector<std::vector<Cell>>& rows, size_t leading) {
        std::vector<size_t> widths(rows[0].size());
        for (const auto& row : rows) {
            for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].text.size());
        }
        // A long name gives way to the states, but stays long enough to be told from others.
        if (style_.columns > 0) widths[0] = std::min(widths[0], std::max<size_t>(width() / 3, 12));
        for (size_t i = leading; i < widths.size(); ++i) {
            if (style_.columns > 0) widths[i] = std::min<size_t>(widths[i], std::max<size_t>(width() / 4, 10));
        }
        size_t lead = 0;
        for (size_t i = 0; i < leading; ++i) lead += widths[i] + gap();
        size_t first = leading;
        do {
            size_t last = first, used = lead;
            while (last < widths.size() && (last == first || fits(used + widths[last] + mark_size()))) {
                used += widths[last++] + gap();
            }
            if (first > leading) text_ += "\n";
            for (const auto& row : rows) {
                for (size_t i = 0; i < leading; ++i) add_column(row[i], widths[i], i == 0);
                for (size_t i = first; i < last; ++i) add_column(row[i], widths[i], false);
                end_line();
            }
            first = last;
        } while (first < widths.size());
    }

    void blank() { text_ += "\n"; }
    /// Whether the cells' keys are looked at.
    bool needs_keys() const { return before_.is_known(); }
    std::string take() { return std::move(text_); }

  private:
    size_t width() const { return static_cast<size_t>(style_.columns); }
    bool fits(size_t columns) const { return style_.columns == 0 || columns <= width(); }
    /// Where changes are marked every cell leaves room for the mark.
    size_t mark_size() const { return before_.is_known() ? 1 : 0; }
    size_t gap() const { return 1 + mark_size(); }

    void add_column(const Cell& cell, size_t size, bool left) {
        if (cell.text.size() > size) {
            Cell cut = cell;
            cut.text = cell.text.substr(0, size - 1) + "~";
            put(cut, before_.differs(cell));
        } else if (left) {
            put(cell, before_.differs(cell));
            text_.append(size - cell.text.size(), ' ');
        } else {
            text_.append(size - cell.text.size(), ' ');
            put(cell, before_.differs(cell));
        }
        text_ += ' ';
    }

    void add(const Cell& cell) { put(cell, before_.differs(cell)); }

    void put(const Cell& cell, bool changed, bool marked = true) {
        const char* const escape = changed                      ? "\x1b[7m"
                                   : cell.tone == Tone::heading ? "\x1b[1m"
                                   : cell.tone == Tone::good    ? "\x1b[32m"
                                   : cell.tone == Tone::bad     ? "\x1b[31m"
                                                                : "";
        if (style_.colors && *escape) {
            text_ += escape + cell.text + "\x1b[0m";
        } else {
            text_ += cell.text;
        }
        if (marked && mark_size() > 0) text_ += changed ? '*' : ' ';
    }

    void end_line() {
        while (text_.ends_with(' ')) text_.pop_back();
        text_ += "\n";
    }

    const TextStyle& style_;
    const Before& before_;
    std::string text_;
};

Cell heading(std::string text) {
    return {std::move(text), "", Tone::heading};
}

/// What a word shows. A flag has no mark: it changes with the word that it follows from.
template <typename Source, typename Part>
Cell shown(const Source& source, const Part& part, const std::string& key) {
    const Value value = source.value(part);
    if (!source.is_flag()) return {value.to_text(), key};
    const bool yes = value != Value(0u);
    return {yes ? "yes" : "no", "", yes ? Tone::good : Tone::bad};
}

void add_cluster(Page& page, const Picture& picture) {
    std::vector<std::pair<std::string, Cell>> states;
    for (const ClusterWord& word : cluster_words) {
        if (!word.is_state()) continue;
        states.push_back({word.key, shown(word.source, picture, std::string("cluster/") + word.key)});
    }
    page.items("cluster", states);
    std::vector<std::pair<std::string, Cell>> in_use;
    for (const TableCount* const table : table_counts) {
        const int32_t count = picture.header.*table->count, limit = picture.header.*table->limit;
        in_use.push_back({table->heading, {fmt::format("{} of {}", count, limit), ""}});
    }
    page.items("in use", in_use);
    std::vector<std::pair<std::string, Cell>> simulated = {
        {"", {picture.is_simulated() ? "on" : "off", "", picture.is_simulated() ? Tone::bad : Tone::plain}}};
    for (const Server& server : picture.servers) {
        if (server.is_simulated()) simulated.push_back({"failed", {escaped(server.name), "", Tone::bad}});
    }
    page.items("simulation", simulated);
}

void add_servers(Page& page, const Picture& picture) {
    std::vector<std::vector<Cell>> rows = {{heading("server")}};
    for (const ServerWord& word : server_words) {
        if (word.heading) rows[0].push_back(heading(word.heading));
    }
    for (const Server& server : picture.servers) {
        const std::string name = escaped(server.name);
        std::vector<Cell> cells = {{name, ""}};
        for (const ServerWord& word : server_words) {
            if (word.heading) cells.push_back(shown(word.source, server, "servers/" + name + "/" + word.key));
        }
        rows.push_back(std::move(cells));
    }
    page.table(rows, 1);
}

/// The states of a row, for each server.
/// @param[in] servers  the escaped names
/// @param[in] key      of the row; empty: keys are not needed
void add_states(std::vector<Cell>& cells, const std::vector<std::string>& servers, const std::vector<uint32_t>& states,
                const std::string& key) {
    for (size_t i = 0; i < servers.size(); ++i) {
        if (i >= states.size()) {
            cells.push_back({"-", ""});
        } else {
            cells.push_back({std::to_string(states[i]), key.empty() ? key : key + "/" + servers[i]});
        }
    }
}

void add_resources(Page& page, const ResourceKind& kind, const Picture& picture) {
    std::vector<std::string> servers;
    for (const Server& server : picture.servers) servers.push_back(escaped(server.name));
    std::vector<std::vector<Cell>> rows = {{heading(kind.key)}};
    for (const ResourceWord& word : resource_words) rows[0].push_back(heading(word.key));
    const size_t leading = rows[0].size();
    for (const std::string& server : servers) rows[0].push_back(heading(server));
    for (const Resource& resource : picture.*kind.resources) {
        const std::string name = escaped(resource.type) + "/" + escaped(resource.name);
        const std::string key = std::string(kind.key) + "/" + name + "/";
        for (const RowWord& row : row_words) {
            if (!(kind.*row.set)) continue;
            // The first row bears the resource's own words.
            const bool first = &row == row_words;
            std::vector<Cell> cells = {{first ? name : std::string("  ") + row.key, ""}};
            for (const ResourceWord& word : resource_words) {
                cells.push_back(first ? shown(word.source, resource, key + word.key) : Cell{});
            }
            add_states(cells, servers, (resource.*row.row).states, page.needs_keys() ? key + row.key : "");
            rows.push_back(std::move(cells));
        }
    }
    page.table(rows, leading);
}

void add_pids(Page& page, const Picture& picture) {
    constexpr size_t kinds = std::tuple_size_v<decltype(FstPid::pid)>;
    std::vector<std::vector<Cell>> rows = {{heading("process ids")}};
    for (const PidWord& word : pid_words) {
        for (size_t kind = 0; kind < kinds; ++kind) rows[0].push_back(heading(fmt::format("{}{}", word.heading, kind)));
    }
    for (const FstPid& record : picture.fst_pids) {
        const std::string name = escaped(record.name);
        std::vector<Cell> cells = {{name, ""}};
        for (const PidWord& word : pid_words) {
            for (size_t kind = 0; kind < kinds; ++kind) {
                cells.push_back(
                    {word.value(record, kind).to_text(), fmt::format("fst/{}/{}/{}", word.key, name, kind)});
            }
        }
        rows.push_back(std::move(cells));
    }
    page.table(rows, 1);
}

void add_fst(Page& page, const Picture& picture) {
    if (picture.fst) {
        std::vector<std::pair<std::string, Cell>> all;
        for (const FstWord& word : fst_words) {
            all.push_back({word.key, shown(word.source, *picture.fst, std::string("fst/") + word.key)});
        }
        if (!picture.fst->descript.empty()) all.push_back({"", {printable(picture.fst->descript), ""}});
        page.items("fst", all);
    } else {
        page.items("fst", {{"", {"none", ""}}});
    }
    if (!picture.fst_pids.empty()) add_pids(page, picture);
}

}  // namespace

std::string to_text(const Picture& picture, const TextStyle& style) {
    const Before before(style.before);
    Page page(style, before);
    add_cluster(page, picture);
    page.blank();
    add_servers(page, picture);
    page.blank();
    for (const ResourceKind& kind : resource_kinds) {
        add_resources(page, kind, picture);
        page.blank();
    }
    add_fst(page, picture);
    return page.take();
}

}  // namespace shmnmctl
