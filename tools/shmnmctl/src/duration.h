// Times on the command line: 500ms, 10s, 2m, 1h.
#pragma once

#include <cstdint>
#include <string>

#include <CLI/CLI.hpp>

namespace shmnmctl {

/// What a number without a unit counts.
enum class PlainUnit { seconds, milliseconds };

/// @throws Failure  it is not a time
uint64_t duration_us(const std::string& option, const std::string& text, PlainUnit plain);

/// An option that takes a time in whole milliseconds.
struct TimeOption {
    const char *name, *help = "";
    PlainUnit plain = PlainUnit::seconds;
    const char *least = "0", *most = "1193h";  ///< with their units; the latter is what 32 bits hold
};
/// @throws Failure  it is not a time, or out of range
uint32_t time_ms(const TimeOption& option, const std::string& text);

/// Adds the option; `milliseconds` has its default.
CLI::Option* add_time(CLI::App& command, uint32_t& milliseconds, const TimeOption& option);

/// "2s", "50ms"
std::string duration_text(uint32_t milliseconds);

}  // namespace shmnmctl
