// Where a member of etcd listens, as its configuration has it: "http://HOST:PORT" or "https://HOST:PORT".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace etcd {

struct Endpoint {
    bool is_tls = false;
    std::string host;  ///< a name or an address; without brackets
    uint16_t port = 2'379;

    /// As the Host field of a request has it.
    std::string host_field() const;
    /// As it was written.
    std::string text() const;
    /// Whether only this machine can listen there.
    bool is_loopback() const;
};

/// @throws Error  it is no such text
Endpoint parse_endpoint(std::string_view text);

}  // namespace etcd
