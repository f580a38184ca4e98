#include "duration.h"

#include <fmt/format.h>

#include <charconv>
#include <optional>
#include <string_view>

#include "failure.h"
#include "picture/escape.h"

namespace shmnmctl {
namespace {

std::optional<double> unit_us(std::string_view unit, PlainUnit plain) {
    if (unit.empty()) return plain == PlainUnit::seconds ? 1e6 : 1e3;
    if (unit == "ms") return 1e3;
    if (unit == "s") return 1e6;
    if (unit == "m") return 60e6;
    if (unit == "h") return 3600e6;
    return std::nullopt;
}

}  // namespace

uint64_t duration_us(const std::string& option, const std::string& text, PlainUnit plain) {
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string_view unit(end, static_cast<size_t>(text.data() + text.size() - end));
    const std::optional<double> us = unit_us(unit, plain);
    if (error != std::errc{} || !us || !(number >= 0) || number * *us > 1e15) {
        throw Failure(Exit::usage,
                      fmt::format("invalid time \"{}\" for {}: use 500ms, 10s, 2m, 1h or {}", picture::as_typed(text),
                                  option, plain == PlainUnit::seconds ? "seconds" : "milliseconds"));
    }
    return static_cast<uint64_t>(number * *us);
}

uint32_t time_ms(const TimeOption& option, const std::string& text) {
    const uint64_t us = duration_us(option.name, text, option.plain);
    if (us < duration_us(option.name, option.least, PlainUnit::seconds) ||
        us > duration_us(option.name, option.most, PlainUnit::seconds)) {
        throw Failure(Exit::usage, fmt::format("invalid time \"{}\" for {}: use {} to {}", picture::as_typed(text),
                                               option.name, option.least, option.most));
    }
    return static_cast<uint32_t>(us / 1'000);
}

CLI::Option* add_time(CLI::App& command, uint32_t& milliseconds, const TimeOption& option) {
    const auto store = [option, &milliseconds](const std::string& text) { milliseconds = time_ms(option, text); };
    return command.add_option_function<std::string>(option.name, store, option.help)
        ->type_name("TIME")
        ->default_str(duration_text(milliseconds));
}

std::string duration_text(uint32_t milliseconds) {
    if (milliseconds % 1'000 == 0) return fmt::format("{}s", milliseconds / 1'000);
    return fmt::format("{}ms", milliseconds);
}

}  // namespace shmnmctl
