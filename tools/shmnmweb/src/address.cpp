#include "address.h"

#include <fmt/format.h>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/value.h"

namespace shmnmweb {

using picture::Error;
using picture::ErrorKind;
using picture::printable;

Address parse_address(const std::string& text) {
    const size_t colon = text.rfind(':');
    const auto port = colon == std::string::npos ? std::nullopt : picture::Value::parse(text.substr(colon + 1));
    constexpr uint32_t most = 65'535;
    const uint32_t number = port ? port->to_uint32().value_or(most + 1) : most + 1;
    std::string host = text.substr(0, colon);
    const bool is_bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (is_bracketed) host = host.substr(1, host.size() - 2);
    const bool has_colons = host.find(':') != std::string::npos;
    if (number > most || host.empty() || has_colons != is_bracketed) {
        throw Error(
            ErrorKind::invalid,
            fmt::format("invalid address \"{}\": use ADDRESS:PORT, as 127.0.0.1:9683 or [::1]:9683", printable(text)));
    }
    return {host, std::to_string(number)};
}

std::string url_of(const std::string& host, unsigned port) {
    return host.find(':') == std::string::npos ? fmt::format("http://{}:{}/", host, port)
                                               : fmt::format("http://[{}]:{}/", host, port);
}

void expect_allowed(const std::string& address, bool is_loopback, bool allow_remote) {
    if (is_loopback || allow_remote) return;
    throw Error(ErrorKind::invalid,
                fmt::format("other machines can reach {}, and nothing is encrypted; listen on 127.0.0.1 behind a proxy "
                            "with TLS, or use --allow-remote in a network that is trusted",
                            printable(address)));
}

}  // namespace shmnmweb
