#include "etcd/endpoint.h"

#include <charconv>

#include "etcd/error.h"
#include "etcd/gateway.h"

namespace etcd {

std::string Endpoint::host_field() const {
    const bool is_version_6 = host.find(':') != std::string::npos;
    return (is_version_6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string Endpoint::text() const {
    return (is_tls ? "https://" : "http://") + host_field();
}

bool Endpoint::is_loopback() const {
    constexpr std::string_view numbers = "0123456789.";
    const bool is_address = host.find_first_not_of(numbers) == std::string::npos;
    return host == "localhost" || host == "::1" || (is_address && host.starts_with("127."));
}

Endpoint parse_endpoint(std::string_view text) {
    const auto refuse = [&] {
        throw Error("invalid address \"" + presentable(text) + "\" of etcd: use http://HOST:PORT or https://HOST:PORT");
    };
    Endpoint endpoint;
    std::string_view rest = text;
    const auto take = [&](std::string_view prefix) {
        const bool is_there = rest.starts_with(prefix);
        if (is_there) rest.remove_prefix(prefix.size());
        return is_there;
    };
    endpoint.is_tls = take("https://");
    if (!endpoint.is_tls && !take("http://")) refuse();
    if (rest.ends_with('/')) rest.remove_suffix(1);
    std::string_view allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._";
    size_t host_end = rest.find(':');
    if (take("[")) {
        host_end = rest.find(']');
        if (host_end == std::string_view::npos) refuse();
        allowed = "0123456789abcdefABCDEF:.";
    }
    endpoint.host = rest.substr(0, host_end);
    rest.remove_prefix(endpoint.host.size());
    if (text.find('[') != std::string_view::npos) take("]");
    if (endpoint.host.empty() || endpoint.host.find_first_not_of(allowed) != std::string::npos) refuse();
    if (rest.empty()) return endpoint;
    const bool has_port = take(":");
    const auto [stop, error] = std::from_chars(rest.data(), rest.data() + rest.size(), endpoint.port);
    if (!has_port || error != std::errc{} || stop != rest.data() + rest.size() || endpoint.port == 0) refuse();
    return endpoint;
}

}  // namespace etcd
