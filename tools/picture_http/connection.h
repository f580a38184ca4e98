// A connection to a server. Free of system headers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "picture_http/address.h"

namespace picture_http {

/// How a server is recognised, and this client by it: for https alone. Names of files; "": the system's, or none.
struct Credentials {
    std::string authorities, certificate, key;

    bool empty() const { return authorities.empty() && certificate.empty() && key.empty(); }
};

class Connection {
  public:
    virtual ~Connection() = default;

    /// Gives the server the whole time again: it must answer in time what follows, however it parts the answer.
    virtual void restart_deadline() = 0;
    /// @throws picture::Error  the server does not take it in time
    virtual void write(std::string_view bytes) = 0;
    /// Waits for bytes. @return 0: the server has ended the connection
    /// @throws picture::Error  none come in time
    virtual size_t read(char* bytes, size_t size) = 0;
    /// Whether read() would return at once, within that time. A signal ends the wait.
    virtual bool is_readable_within(uint32_t milliseconds) = 0;
};

/// Makes connections to one server.
class Connector {
  public:
    virtual ~Connector() = default;

    /// @throws picture::Error  there is no server at the address, or it is not the one that it should be
    virtual std::unique_ptr<Connection> connect() = 0;
};

/// @param[in] timeout_ms  time for the server to accept a connection and to answer
/// @throws picture::Error  the credentials cannot be used
std::unique_ptr<Connector> make_connector(const Address& address, const Credentials& credentials, uint32_t timeout_ms);

/// The kinds of addresses that this system has connections to.
bool has_connections(Address::Kind kind);

}  // namespace picture_http
