// Connections by TLS 1.2 or later, in which both ends prove who they are.
#pragma once

#include <cstdint>
#include <memory>

#include "picture_http/connection.h"

namespace picture_http {

/// @throws picture::Error  a file of the credentials cannot be used, or the key is not this user's secret
std::unique_ptr<Connector> make_tls_connector(const Address& address, const Credentials& credentials,
                                              uint32_t timeout_ms);

}  // namespace picture_http
