#include "picture_http/connection.h"

#include "picture_http/socket_linux.h"
#include "picture_http/tls_linux.h"

namespace picture_http {
namespace {

class PlainConnector : public Connector {
  public:
    PlainConnector(Address address, uint32_t timeout_ms) : address_(std::move(address)), timeout_ms_(timeout_ms) {}
    std::unique_ptr<Connection> connect() override { return connect_socket(address_, timeout_ms_); }

  private:
    Address address_;
    uint32_t timeout_ms_;
};

}  // namespace

std::unique_ptr<Connector> make_connector(const Address& address, const Credentials& credentials, uint32_t timeout_ms) {
    if (address.kind == Address::Kind::tls) return make_tls_connector(address, credentials, timeout_ms);
    return std::make_unique<PlainConnector>(address, timeout_ms);
}

bool has_connections(Address::Kind) {
    return true;
}

}  // namespace picture_http
