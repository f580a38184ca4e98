// Names are free bytes. Outside the region they are written with every odd byte as %XX, so that nothing from the region
// reaches a terminal, a key or a JSON text as it is, and every name can be read back.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace picture {

/// Letters, digits and "-_.:@+," stay; every other byte becomes % and two upper-case hexadecimal digits.
std::string escaped(std::string_view bytes);

/// The bytes of an escaped text; nothing when a % is not followed by two hexadecimal digits.
std::optional<std::string> unescaped(std::string_view text);

/// For messages: printable ASCII as it is, every other byte and % as %XX.
std::string printable(std::string_view bytes);

/// For messages about what somebody has typed: printable ASCII as it is, every other byte as %XX.
std::string as_typed(std::string_view bytes);

}  // namespace picture
