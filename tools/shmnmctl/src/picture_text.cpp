#include "picture_text.h"

#include <algorithm>
#include <vector>

namespace shmnmctl {
namespace {

/// Lays cells out in columns that fit a width.
class Page {
  public:
    Page(const TextStyle& style, bool has_marks) : style_(style), mark_size_(has_marks ? 1 : 0) {}

    /// A heading and words with their names, broken where the line is full.
    void add(const Items& items) {
        constexpr size_t indent = 12;
        put({.text = items.heading, .tone = Tone::heading}, false);
        text_.append(indent - items.heading.size(), ' ');
        size_t column = indent;
        for (const auto& [name, cell] : items.all) {
            const size_t length = name.size() + (name.empty() ? 0 : 1) + cell.text.size() + mark_size_;
            if (style_.columns > 0 && column > indent && column + length > width()) {
                end_line();
                text_.append(indent, ' ');
                column = indent;
            }
            if (!name.empty()) text_ += name + " ";
            put(cell);
            text_ += "  ";
            column += length + 2;
        }
        end_line();
    }

    /// The leading columns are before each part of the columns that do not fit beside each other.
    void add(const Table& table) {
        std::vector<size_t> widths(table.rows[0].cells.size());
        for (const TableRow& row : table.rows) {
            for (size_t i = 0; i < row.cells.size(); ++i) widths[i] = std::max(widths[i], row.cells[i].text.size());
        }
        // A long name gives way to the states, but stays long enough to be told from others.
        if (style_.columns > 0) widths[0] = std::min(widths[0], std::max<size_t>(width() / 3, 12));
        for (size_t i = table.leading; i < widths.size(); ++i) {
            if (style_.columns > 0) widths[i] = std::min<size_t>(widths[i], std::max<size_t>(width() / 4, 10));
        }
        size_t lead = 0;
        for (size_t i = 0; i < table.leading; ++i) lead += widths[i] + gap();
        size_t first = table.leading;
        do {
            size_t last = first, used = lead;
            while (last < widths.size() && (last == first || fits(used + widths[last] + mark_size_))) {
                used += widths[last++] + gap();
            }
            if (first > table.leading) text_ += "\n";
            for (const TableRow& row : table.rows) {
                for (size_t i = 0; i < table.leading; ++i) add_column(row.cells[i], widths[i], i == 0);
                for (size_t i = first; i < last; ++i) add_column(row.cells[i], widths[i], false);
                end_line();
            }
            first = last;
        } while (first < widths.size());
    }

    void blank() { text_ += "\n"; }
    std::string take() { return std::move(text_); }

  private:
    size_t width() const { return static_cast<size_t>(style_.columns); }
    bool fits(size_t columns) const { return style_.columns == 0 || columns <= width(); }
    size_t gap() const { return 1 + mark_size_; }

    void add_column(const Cell& cell, size_t size, bool left) {
        Cell fitting = cell;
        fitting.text = cut(cell.text, size);
        const size_t rest = size - fitting.text.size();
        if (!left) text_.append(rest, ' ');
        put(fitting);
        if (left) text_.append(rest, ' ');
        text_ += ' ';
    }

    void put(const Cell& cell, bool with_mark = true) {
        const char* const escape = cell.is_changed              ? "\x1b[7m"
                                   : cell.tone == Tone::heading ? "\x1b[1m"
                                   : cell.tone == Tone::good    ? "\x1b[32m"
                                   : cell.tone == Tone::bad     ? "\x1b[31m"
                                                                : "";
        if (style_.colors && *escape) {
            text_ += escape + cell.text + "\x1b[0m";
        } else {
            text_ += cell.text;
        }
        if (with_mark && mark_size_ > 0) text_ += cell.is_changed ? '*' : ' ';
    }

    void end_line() {
        while (text_.ends_with(' ')) text_.pop_back();
        text_ += "\n";
    }

    const TextStyle& style_;
    size_t mark_size_;  ///< where changes are marked every cell leaves room for the mark
    std::string text_;
};

}  // namespace

std::string to_text(const Sheet& sheet, const TextStyle& style) {
    Page page(style, sheet.has_marks);
    for (const auto& group : sheet.groups) {
        if (&group != sheet.groups.data()) page.blank();
        for (const Section& section : group) {
            std::visit([&](const auto& items_or_table) { page.add(items_or_table); }, section);
        }
    }
    return page.take();
}

}  // namespace shmnmctl
