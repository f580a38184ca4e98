// Where a server is, as people write it: "unix:PATH", "http://HOST:PORT" or "https://HOST:PORT".
#pragma once

#include <string>

namespace picture_http {

struct Address {
    enum class Kind { file, plain, tls };
    Kind kind = Kind::plain;
    std::string path;        ///< of a Unix socket
    std::string host, port;  ///< otherwise; the host without brackets
    std::string host_field;  ///< as the Host field of a request has it
};

/// @throws picture::Error  it is no such text, or this system has no such connections
Address parse_address(const std::string& text);

}  // namespace picture_http
