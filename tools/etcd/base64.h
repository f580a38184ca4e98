// Base64 with padding, as etcd's gateway has keys and values.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace etcd {

std::string to_base64(std::string_view bytes);
/// @return nothing: it is not base64
std::optional<std::string> from_base64(std::string_view text);

}  // namespace etcd
