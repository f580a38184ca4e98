#include "viewport.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <iterator>
#include <limits>

namespace shmnmctl {
namespace {

constexpr size_t end_of_all = std::numeric_limits<size_t>::max() / 2;

constexpr std::array help_lines = {
    "Up, Down: a line",
    "Page Up, Page Down, Space: a screen",
    "Home, End: the first, the last line",
    "Left, Right: a column of the wide tables",
    "<, >: a screen of columns",
    "/: filter; type a text, then Enter; Escape drops it",
    "?: this help",
    "q: end",
    "",
    "* marks what has changed since the last look.",
    "~ stands for what a name has more.",
    "< and > at a line: there are more columns.",
    "A filter shows the rows with its text or, if there are none, the columns whose heading has it.",
};

size_t length(const ScreenLine& line) {
    size_t sum = 0;
    for (const Span& span : line) sum += span.text.size();
    return sum;
}

/// Breaks a text at blanks, and where there are none at the width.
std::vector<std::string> wrapped(std::string_view text, size_t width) {
    std::vector<std::string> lines;
    while (text.size() > width) {
        const size_t blank = text.rfind(' ', width);
        const size_t size = blank == std::string_view::npos || blank == 0 ? width : blank;
        lines.emplace_back(text.substr(0, size));
        text.remove_prefix(size == blank ? size + 1 : size);
    }
    lines.emplace_back(text);
    return lines;
}

/// Cuts a name in its middle: names that begin alike often end differently.
std::string cut_in_the_middle(const std::string& text, size_t size) {
    if (text.size() <= size || size < 3) return cut(text, std::max<size_t>(size, 1));
    const size_t last = (size - 1) / 2 + (size - 1) % 2;
    return text.substr(0, size - 1 - last) + "~" + text.substr(text.size() - last);
}

class Filter {
  public:
    explicit Filter(const std::string& text) : text_(lowered(text)) {}
    bool is_empty() const { return text_.empty(); }
    bool accepts(const std::string& text) const { return lowered(text).find(text_) != std::string::npos; }

    Items of(const Items& items) const {
        if (accepts(items.heading)) return items;
        Items kept{.heading = items.heading, .all = {}};
        std::copy_if(items.all.begin(), items.all.end(), std::back_inserter(kept.all),
                     [&](const auto& named) { return accepts(named.first + " " + named.second.text); });
        return kept;
    }

    /// The rows with the text or, if there are none, the columns.
    Table of(const Table& table) const {
        if (accepts(table.rows[0].cells[0].text)) return table;
        Table kept{.rows = {table.rows[0]}, .leading = table.leading};
        std::copy_if(table.rows.begin() + 1, table.rows.end(), std::back_inserter(kept.rows), [&](const TableRow& row) {
            return accepts(row.name) || std::any_of(row.cells.begin(), row.cells.end(),
                                                    [&](const Cell& cell) { return accepts(cell.text); });
        });
        return kept.rows.size() > 1 ? kept : with_columns(table);
    }

  private:
    static std::string lowered(std::string text) {
        for (char& letter : text) letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        return text;
    }

    Table with_columns(const Table& table) const {
        Table kept{.rows = {}, .leading = 1};
        for (const TableRow& row : table.rows) {
            TableRow& last = kept.rows.emplace_back(TableRow{.name = row.name, .cells = {row.cells[0]}});
            for (size_t i = 1; i < row.cells.size(); ++i) {
                if (accepts(table.rows[0].cells[i].text)) last.cells.push_back(row.cells[i]);
            }
        }
        return kept.rows[0].cells.size() > 1 ? kept : Table{};
    }

    std::string text_;
};

/// The lines of the sheet at a width, from a column on.
class Body {
  public:
    Body(size_t width, size_t column, bool has_marks) : width_(width), column_(column), gap_(has_marks ? 2 : 1) {}

    struct Line {
        ScreenLine spans;
        std::optional<size_t> heading;  ///< the line with the headings of this line's table
    };

    void add(const std::string& note) {
        for (const std::string& part : wrapped(note, width_)) lines_.push_back({{Span{part}}, {}});
    }
    void add_blank() { lines_.push_back({}); }

    void add(const Items& items) {
        // On a narrow screen the heading has a line of its own.
        const size_t indent = width_ >= 40 ? 12 : std::min<size_t>(2, width_ - 1);
        ScreenLine line{Span{cut(items.heading, width_), Tone::heading}};
        if (items.heading.size() < indent) {
            line.push_back({std::string(indent - items.heading.size(), ' ')});
        } else {
            lines_.push_back({std::move(line), {}});
            line = {Span{std::string(indent, ' ')}};
        }
        const auto begin_line = [&] {
            lines_.push_back({std::move(line), {}});
            line = {Span{std::string(indent, ' ')}};
        };
        for (const auto& [name, cell] : items.all) {
            const std::string before = name.empty() ? "" : name + " ";
            std::string value = cell.text + mark(cell);
            if (length(line) > indent && length(line) + before.size() + value.size() > width_) begin_line();
            if (length(line) + before.size() + value.size() <= width_) {
                if (!before.empty()) line.push_back({before});
            } else {
                for (const std::string& part : wrapped(name, width_ - indent)) {
                    line.push_back({part});
                    begin_line();
                }
            }
            if (value.ends_with(' ') && length(line) + value.size() == width_ + 1) value.pop_back();
            // What is longer than a line goes on in the next one.
            for (; length(line) + value.size() > width_; begin_line()) {
                const size_t size = width_ - length(line);
                line.push_back(span(cell, value.substr(0, size)));
                value.erase(0, size);
            }
            line.push_back(span(cell, value));
            if (length(line) < width_) line.push_back({std::string(std::min<size_t>(2, width_ - length(line)), ' ')});
        }
        lines_.push_back({std::move(line), {}});
    }

    void add(const Table& table) {
        const std::vector<size_t> widths = widths_of(table);
        size_t held = 0, held_width = 0;
        for (; held < table.leading; ++held) held_width += widths[held] + gap_;
        // Where there is little room the names alone are held.
        if (held_width * 2 > width_) held = 1, held_width = widths[0] + gap_;
        // One column of the screen says whether there is more.
        const size_t room = width_ > held_width + 1 ? width_ - held_width - 1 : 0;
        const auto fitting = [&](size_t first) {
            size_t count = 0;
            for (size_t used = 0; first + count < widths.size(); ++count) {
                used += widths[first + count] + gap_;
                // The last cell's gap may be cut off.
                if (used > room + 1) break;
            }
            return std::max<size_t>(count, 1);
        };
        size_t last_first = held;
        while (last_first < widths.size() && last_first + fitting(last_first) < widths.size()) ++last_first;
        const size_t first = std::min(held + column_, last_first);
        const size_t last = std::min(first + fitting(first), widths.size());
        most_column_ = std::max(most_column_, last_first - held);
        if (last_first > held) page_columns_ = std::min(page_columns_, last - first);

        const size_t heading = lines_.size();
        for (const TableRow& row : table.rows) {
            Line line;
            for (size_t i = 0; i < held; ++i) add_cell(line.spans, row.cells[i], widths[i], i == 0);
            if (first > held) more(line.spans, held_width, "<");
            for (size_t i = first; i < last; ++i) {
                add_cell(line.spans, row.cells[i], std::min(widths[i], room - std::min(room, gap_ - 1)), false);
            }
            if (last < widths.size()) more(line.spans, width_, ">");
            if (&row != table.rows.data()) line.heading = heading;
            fit(line.spans);
            lines_.push_back(std::move(line));
        }
    }

    const std::vector<Line>& lines() const { return lines_; }
    size_t most_column() const { return most_column_; }
    size_t page_columns() const { return page_columns_ == end_of_all ? 1 : page_columns_; }

  private:
    std::string mark(const Cell& cell) const { return gap_ == 1 ? "" : cell.is_changed ? "*" : " "; }
    static Span span(const Cell& cell, std::string text) {
        return {.text = std::move(text), .tone = cell.tone, .is_reverse = cell.is_changed};
    }

    /// Values have all the room that they need; names give way.
    std::vector<size_t> widths_of(const Table& table) const {
        std::vector<size_t> widths(table.rows[0].cells.size()), values(widths.size());
        for (const TableRow& row : table.rows) {
            for (size_t i = 0; i < row.cells.size(); ++i) {
                const size_t size = row.cells[i].text.size();
                widths[i] = std::max(widths[i], size);
                if (&row != table.rows.data()) values[i] = std::max(values[i], size);
            }
        }
        size_t widest = 0;
        for (size_t i = 1; i < widths.size(); ++i) {
            const size_t most_of_heading = width_ < 40 ? 7 : std::max<size_t>(width_ / 4, 10);
            widths[i] = std::max(values[i], std::min(widths[i], most_of_heading));
            widest = std::max(widest, widths[i]);
        }
        // A name of three letters is the least; beside it only 64-bit values on the narrowest screens are cut.
        const size_t others = widest + 2 * gap_ + 1, beside_the_widest = width_ > others ? width_ - others : 0;
        const size_t most_of_name = std::min(std::max<size_t>(width_ / 3, 12), beside_the_widest);
        widths[0] = std::min(widths[0], std::max<size_t>(most_of_name, 3));
        return widths;
    }

    void add_cell(ScreenLine& line, const Cell& cell, size_t size, bool is_left) const {
        const std::string text = cut_in_the_middle(cell.text, size);
        const std::string rest(size > text.size() ? size - text.size() : 0, ' ');
        if (!is_left) line.push_back({rest});
        line.push_back(span(cell, text));
        line.push_back({(is_left ? rest : "") + mark(cell) + " "});
    }

    /// Says at the last column before a place that there is more.
    static void more(ScreenLine& line, size_t end, const char* sign) {
        while (length(line) >= end) {
            std::string& text = line.back().text;
            text.resize(text.size() - std::min(text.size(), length(line) - end + 1));
            if (text.empty()) line.pop_back();
        }
        line.push_back({std::string(end - 1 - length(line), ' ') + sign, Tone::heading});
    }

    void fit(ScreenLine& line) const {
        while (length(line) > width_) {
            std::string& text = line.back().text;
            text.resize(text.size() - std::min(text.size(), length(line) - width_));
            if (text.empty()) line.pop_back();
        }
    }

    size_t width_, column_, gap_;
    std::vector<Line> lines_;
    size_t most_column_ = 0, page_columns_ = end_of_all;
};

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (const std::string& part : parts) text += (text.empty() ? "" : "  ") + part;
    return text;
}

std::string counted(size_t number, const char* what) {
    return fmt::format("{} {}{}", number, what, number == 1 ? "" : "s");
}

/// The last line: the parts that fit, the first ones first.
std::string footer(std::vector<std::string> parts, size_t width) {
    std::erase(parts, "");
    while (parts.size() > 1 && joined(parts).size() > width) parts.pop_back();
    return parts.empty() ? "" : cut(joined(parts), width);
}

}  // namespace

std::vector<ScreenLine> Viewport::lines(Size size) {
    if (size.columns == 0 || size.rows == 0) return {};
    const size_t width = size.columns;
    const auto make = [&](size_t column) {
        Body body(width, column, content_.sheet.has_marks && !has_help_);
        if (has_help_) {
            for (const char* const line : help_lines) body.add(line);
            return body;
        }
        for (const std::string& note : content_.notes) body.add(note);
        const Filter filter(filter_);
        bool is_first = content_.notes.empty();
        for (const auto& group : content_.sheet.groups) {
            bool is_first_of_group = true;
            const auto add = [&](const auto& part) {
                if (is_first_of_group && !is_first) body.add_blank();
                is_first = is_first_of_group = false;
                body.add(part);
            };
            for (const Section& section : group) {
                if (filter.is_empty()) {
                    std::visit(add, section);
                } else if (const auto* const items = std::get_if<Items>(&section)) {
                    const Items kept = filter.of(*items);
                    if (!kept.all.empty()) add(kept);
                } else {
                    const Table kept = filter.of(std::get<Table>(section));
                    if (!kept.rows.empty()) add(kept);
                }
            }
        }
        if (body.lines().empty()) body.add(filter_.empty() ? "nothing to show" : "nothing has \"" + filter_ + "\"");
        return body;
    };
    Body body = make(column_);
    if (column_ > body.most_column()) {
        column_ = body.most_column();
        body = make(column_);
    }
    page_columns_ = body.page_columns();

    const size_t rows = size.rows > 2 ? size.rows - 2 : 1;
    page_rows_ = std::max<size_t>(rows - 1, 1);
    const std::vector<Body::Line>& all = body.lines();
    size_t& top = has_help_ ? help_top_ : top_;
    top = std::min(top, all.size() > rows ? all.size() - rows : 0);
    const size_t end = std::min(top + rows, all.size()), below = all.size() - end;

    std::vector<ScreenLine> screen;
    if (size.rows > 2) {
        const auto title = std::find_if(content_.titles.begin(), content_.titles.end(),
                                        [&](const std::string& each) { return each.size() <= width; });
        screen.push_back({Span{title == content_.titles.end() ? "" : *title}});
    }
    for (size_t i = top; i < end; ++i) {
        // The headings of a table that has begun above stay.
        const bool is_headless = i == top && rows > 1 && all[i].heading && *all[i].heading < top;
        screen.push_back(all[is_headless ? *all[i].heading : i].spans);
    }
    screen.resize(screen.size() + rows - (end - top));
    if (size.rows > 1) {
        const std::string more = below > 0 ? counted(below, "more line") : top > 0 ? "last line" : "";
        const std::string above = top > 0 ? fmt::format("{} above", top) : "";
        const std::string columns =
            body.most_column() > 0 ? (column_ < body.most_column() ? "more columns >" : "last columns") : "";
        std::string text;
        if (filter_before_) {
            // The end of what is typed stays in sight.
            const std::string typed = "/" + filter_ + "_";
            text = typed.size() <= width ? typed : "~" + typed.substr(typed.size() - (width - 1));
        } else {
            text = footer({more, filter_.empty() ? "" : "/" + filter_, columns, above, "? help", "q end"}, width);
        }
        screen.push_back({Span{text + std::string(width - text.size(), ' '), Tone::plain, true}});
    }
    return screen;
}

bool Viewport::edit(Press press) {
    top_ = 0;
    switch (press.key) {
        case Key::letter:
            filter_ += press.letter;
            break;
        case Key::backspace:
            if (filter_.empty()) return false;
            filter_.pop_back();
            break;
        case Key::escape:
            filter_ = *filter_before_;
            return false;
        case Key::enter:
            return false;
        default:
            break;
    }
    return true;
}

void Viewport::move(Press press) {
    size_t& top = has_help_ ? help_top_ : top_;
    const auto back = [](size_t& place, size_t by) { place -= std::min(place, by); };
    switch (press.key) {
        case Key::up:
            back(top, 1);
            break;
        case Key::down:
        case Key::enter:
            ++top;
            break;
        case Key::page_up:
            back(top, page_rows_);
            break;
        case Key::page_down:
            top += page_rows_;
            break;
        case Key::home:
            top = 0;
            break;
        case Key::end:
            top = end_of_all;
            break;
        case Key::left:
            back(column_, 1);
            break;
        case Key::right:
            ++column_;
            break;
        case Key::letter:
            if (press.letter == ' ') top += page_rows_;
            if (press.letter == '<') back(column_, page_columns_);
            if (press.letter == '>') column_ += page_columns_;
            break;
        case Key::escape:
        case Key::backspace:
            break;
    }
}

bool Viewport::press(Press press) {
    if (filter_before_) {
        if (!edit(press)) filter_before_.reset();
        return true;
    }
    if (press.key == Key::letter && press.letter == 'q') return false;
    if (press.key == Key::letter && press.letter == '?') {
        has_help_ = !has_help_;
        help_top_ = 0;
    } else if (has_help_ && (press.key == Key::escape || press.key == Key::letter) && press.letter != ' ') {
        has_help_ = false;
    } else if (press.key == Key::letter && press.letter == '/') {
        filter_before_ = filter_;
        filter_.clear();
    } else if (press.key == Key::escape) {
        filter_.clear();
    } else {
        move(press);
    }
    return true;
}

}  // namespace shmnmctl
