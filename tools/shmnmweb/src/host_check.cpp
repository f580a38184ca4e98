#include "host_check.h"

#include <algorithm>
#include <charconv>

namespace shmnmweb {
namespace {

std::string in_lower_case(std::string_view text) {
    std::string lower(text);
    for (char& letter : lower) {
        if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
    }
    return lower;
}

bool is_number(std::string_view text, int most) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc{} && end == text.data() + text.size() && text[0] != '-' && number <= most;
}

/// Whether it is an IPv4 address of the loopback interface, in full.
bool is_loopback_address(std::string_view text) {
    constexpr size_t numbers = 4;
    if (!text.starts_with("127.") || std::count(text.begin(), text.end(), '.') != numbers - 1) return false;
    while (!text.empty()) {
        const size_t end = std::min(text.find('.'), text.size());
        if (end == 0 || end > 3 || !is_number(text.substr(0, end), 255)) return false;
        if (end + 1 == text.size()) return false;
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return true;
}

}  // namespace

std::string name_of_host(std::string_view host) {
    const bool is_bracketed = host.starts_with('[');
    const size_t end = is_bracketed ? host.find(']') : std::min(host.find(':'), host.size());
    if (end == std::string_view::npos) return "";
    const std::string_view name = host.substr(0, is_bracketed ? end + 1 : end);
    const std::string_view port = host.substr(name.size());
    if (!port.empty() && (port[0] != ':' || (port.size() > 1 && !is_number(port.substr(1), 65'535)))) return "";
    return in_lower_case(name);
}

HostCheck::HostCheck(std::vector<std::string> names) {
    for (const std::string& name : names) names_.push_back(in_lower_case(name));
}

bool HostCheck::allows(std::string_view host) const {
    const std::string name = name_of_host(host);
    if (name.empty()) return false;
    return name == "localhost" || name == "[::1]" || is_loopback_address(name) ||
           std::find(names_.begin(), names_.end(), name) != names_.end();
}

}  // namespace shmnmweb
