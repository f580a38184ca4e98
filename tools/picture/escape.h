// Escapes names, which may be any bytes. Outside the region every unusual byte is written as %XX, so that no raw byte
// of the region reaches a terminal, a key or a JSON text, and every name can be read back.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace picture {

/// Keeps letters, digits and "-_.:@+,"; writes every other byte as % and two upper-case hexadecimal digits.
std::string escaped(std::string_view bytes);

/// The bytes of an escaped text; nothing if two hexadecimal digits do not follow each %.
std::optional<std::string> unescaped(std::string_view text);

/// For messages: keeps printable ASCII except %, and writes every other byte as %XX.
std::string printable(std::string_view bytes);

/// For messages about what a user typed: keeps printable ASCII, and writes every other byte as %XX.
std::string as_typed(std::string_view bytes);

/// For file names in messages to people: keeps printable ASCII and the letters and signs of other scripts in UTF-8, and
/// writes every other byte as %XX. Nothing that it keeps controls a terminal, is invisible or changes the direction of
/// the text. Messages to programs are ASCII: give them as_typed() of the message.
std::string shown_file(std::string_view name);

}  // namespace picture
