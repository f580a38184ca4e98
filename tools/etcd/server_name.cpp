#include "etcd/server_name.h"

#include <utility>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <vector>

namespace etcd {
namespace {

bool are_equal(std::string_view one, std::string_view other) {
    const auto lower = [](char letter) {
        return 'A' <= letter && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    };
    return std::ranges::equal(one, other, {}, lower, lower);
}

bool is_pattern_of(std::string_view pattern, std::string_view host) {
    if (!pattern.starts_with("*.")) return !pattern.empty() && are_equal(pattern, host);
    const std::string_view parent = pattern.substr(1);
    const size_t dot = host.find('.');
    // "*.example" would be everybody below a top-level domain.
    const bool is_narrow = parent.find('.', 1) != std::string_view::npos;
    return is_narrow && dot != std::string_view::npos && dot > 0 && are_equal(parent, host.substr(dot));
}

std::vector<unsigned char> bytes_of(const boost::asio::ip::address& address) {
    const auto copy = [](const auto& bytes) { return std::vector<unsigned char>(bytes.begin(), bytes.end()); };
    return address.is_v4() ? copy(address.to_v4().to_bytes()) : copy(address.to_v6().to_bytes());
}

}  // namespace

bool is_name_of(std::span<const unsigned char> name, const std::string& host) {
    constexpr unsigned char dns_name = 0x82, ip_address = 0x87, one_byte_length = 0x81, shortest_long = 0x80;
    if (name.size() < 2) return false;
    const unsigned char kind = name[0];
    size_t head = 2, length = name[1];
    if (length == one_byte_length && name.size() > 2) {
        head = 3;
        length = name[2];
    } else if (length >= shortest_long) {
        return false;  // longer than any host's name
    }
    if (name.size() != head + length) return false;
    const auto value = name.subspan(head);

    boost::system::error_code is_no_address;
    const auto address = boost::asio::ip::make_address(host, is_no_address);
    if (!is_no_address) return kind == ip_address && std::ranges::equal(value, bytes_of(address));
    const std::string text(value.begin(), value.end());
    return kind == dns_name && is_pattern_of(text, host);
}

}  // namespace etcd
