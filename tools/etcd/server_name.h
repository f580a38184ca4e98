// Whether a server's certificate is for the host that was to be reached.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace etcd {

/// @param[in] name  an element of the certificate's alternative names, as it is encoded (a GeneralName in DER)
/// @param[in] host  a name or an address. Addresses must match byte by byte. In a name, "*" stands for the first label.
bool is_name_of(std::span<const unsigned char> name, const std::string& host);

}  // namespace etcd
