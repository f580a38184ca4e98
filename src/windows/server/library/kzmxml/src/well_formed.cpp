#include "well_formed.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <set>
#include <vector>

namespace kzmxml {
namespace {

constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
bool is_name_start(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' ||
           static_cast<unsigned char>(c) >= 0x80;
}
bool is_name_part(char c) {
    return is_name_start(c) || is_digit(c) || c == '-' || c == '.';
}
bool is_control(char c) {
    return static_cast<unsigned char>(c) < 0x20 && !is_space(c);
}
bool is_character(uint32_t code) {
    if (code < 0x20) return is_space(static_cast<char>(code));
    return code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF) && code != 0xFFFE && code != 0xFFFF;
}

/// Scans a document once, without recursion. Each function consumes what it accepts, and returns false if the document
/// is not well-formed.
class Scan {
  public:
    explicit Scan(std::string_view text) : rest_(text) {}

    bool document() {
        if (std::any_of(rest_.begin(), rest_.end(), is_control)) return false;
        take(byte_order_mark);
        if (rest_.starts_with("<?xml") && rest_.size() > 5 && is_space(rest_[5]) && !take_past("?>")) return false;
        while (!rest_.empty()) {
            if (!item()) return false;
        }
        return has_root_ && open_.empty();
    }

    /// Bytes that were not consumed.
    size_t left() const { return rest_.size(); }

  private:
    bool item() {
        if (take("<!--")) return take_past("--") && take(">");
        if (take("<![CDATA[")) return !open_.empty() && take_past("]]>");
        if (take("<?")) return instruction();
        if (take("</")) return end_tag();
        if (take("<")) return start_tag();  // rejects a document type, because no name starts with '!'
        if (take("&")) return !open_.empty() && reference();
        if (open_.empty() ? !is_space(rest_[0]) : rest_.starts_with("]]>")) return false;
        rest_.remove_prefix(1);
        return true;
    }

    bool instruction() {
        const std::string_view target = name();
        const bool is_declaration =
            target.size() == 3 && (target[0] | 0x20) == 'x' && (target[1] | 0x20) == 'm' && (target[2] | 0x20) == 'l';
        if (target.empty() || is_declaration) return false;
        return take("?>") || (spaces() && take_past("?>"));
    }

    bool start_tag() {
        const std::string_view element = name();
        if (element.empty() || !count() || open_.size() == depth_limit || (open_.empty() && has_root_)) return false;
        has_root_ = true;
        std::set<std::string_view> attributes;
        for (;;) {
            const bool separated = spaces();
            if (take("/>")) return true;
            if (take(">")) {
                open_.push_back(element);
                return true;
            }
            const std::string_view attribute = name();
            if (!separated || attribute.empty() || !count() || !attributes.insert(attribute).second) return false;
            spaces();
            if (!take("=")) return false;
            spaces();
            if (!take("\"") ? !take("'") || !attribute_value('\'') : !attribute_value('"')) return false;
        }
    }

    bool end_tag() {
        if (open_.empty() || name() != open_.back()) return false;
        open_.pop_back();
        spaces();
        return take(">");
    }

    bool attribute_value(char quote) {
        while (!rest_.empty() && rest_[0] != quote) {
            if (rest_[0] == '<') return false;
            if (take("&")) {
                if (!reference()) return false;
            } else {
                rest_.remove_prefix(1);
            }
        }
        return take({&quote, 1});
    }

    /// Consumes what follows a '&'.
    bool reference() {
        if (take("#x")) return character_number(16);
        if (take("#")) return character_number(10);
        return take("amp;") || take("lt;") || take("gt;") || take("quot;") || take("apos;");
    }

    bool character_number(int base) {
        uint32_t code = 0;
        const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), code, base);
        rest_.remove_prefix(static_cast<size_t>(end - rest_.data()));
        return error == std::errc() && is_character(code) && take(";");
    }

    std::string_view name() {
        if (rest_.empty() || !is_name_start(rest_[0])) return {};
        const auto end = std::find_if_not(rest_.begin(), rest_.end(), is_name_part);
        const std::string_view found = rest_.substr(0, static_cast<size_t>(end - rest_.begin()));
        rest_.remove_prefix(found.size());
        return found;
    }

    /// @return whether there was at least one space
    bool spaces() {
        const auto end = std::find_if_not(rest_.begin(), rest_.end(), is_space);
        const auto length = static_cast<size_t>(end - rest_.begin());
        rest_.remove_prefix(length);
        return length > 0;
    }

    bool take(std::string_view text) {
        if (!rest_.starts_with(text)) return false;
        rest_.remove_prefix(text.size());
        return true;
    }

    bool take_past(std::string_view text) {
        const size_t at = rest_.find(text);
        if (at == std::string_view::npos) return false;
        rest_.remove_prefix(at + text.size());
        return true;
    }

    bool count() { return ++nodes_ <= node_limit; }

    std::string_view rest_;
    std::vector<std::string_view> open_;  ///< names of the elements that are still open before `rest_`
    size_t nodes_ = 0;
    bool has_root_ = false;
};

}  // namespace

bool is_well_formed(std::string_view text) {
    return Scan(text).document();
}

size_t fault_in(std::string_view text) {
    const size_t control = static_cast<size_t>(std::find_if(text.begin(), text.end(), is_control) - text.begin());
    if (control < text.size()) return control;
    Scan scan(text);
    scan.document();
    return text.size() - scan.left();
}

}  // namespace kzmxml
