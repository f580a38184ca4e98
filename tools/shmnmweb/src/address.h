// An address to listen on as people write it.
#pragma once

#include <string>

namespace shmnmweb {

struct Address {
    std::string host;  ///< without brackets
    std::string port;
};

/// Takes "ADDRESS:PORT" or "[ADDRESS]:PORT" apart. @throws picture::Error  it is neither
Address parse_address(const std::string& text);

/// The URL of a server at an address.
std::string url_of(const std::string& host, unsigned port);

/// @throws picture::Error  other machines reach the address, and that is not allowed
void expect_allowed(const std::string& address, bool is_loopback, bool allow_remote);

}  // namespace shmnmweb
