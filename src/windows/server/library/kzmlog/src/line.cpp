#include "line.h"

#include <atomic>
#include <chrono>
#include <iterator>

#include "system.h"

namespace kzmlog {
namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;

/// The last known time-zone offset, and the quarter of an hour (counted from 1970) in which it was read. Offsets change
/// only at the ends of quarters.
struct Zone {
    int64_t quarter;
    int32_t offset_minutes;
};

constexpr int64_t seconds_in_a_quarter = 900;

/// Both in one word, the offset in its lowest 16 bits.
constinit std::atomic<int64_t> known_zone{0};
/// The process that may read the time zone.
constinit std::atomic<uint32_t> asking_process{0};

Zone known() {
    const int64_t word = known_zone.load(std::memory_order_relaxed);
    return {word >> 16, static_cast<int16_t>(word & 0xFFFF)};
}

void learn(int64_t quarter) {
    const int32_t offset = utc_offset_minutes(quarter * seconds_in_a_quarter);
    known_zone.store(quarter << 16 | static_cast<uint16_t>(offset), std::memory_order_relaxed);
}

int64_t quarter_of(std::chrono::system_clock::time_point now) {
    return std::chrono::floor<std::chrono::seconds>(now).time_since_epoch().count() / seconds_in_a_quarter;
}

/// Reading the time zone takes a lock of the C run time. A process that was forked at the wrong moment finds this lock
/// locked for ever. So a forked process keeps its parent's offset. Its lines may show an older offset, but the time is
/// right, because every line contains its offset.
minutes utc_offset(std::chrono::system_clock::time_point now) {
    const int64_t quarter = quarter_of(now);
    if (known().quarter != quarter && asking_process.load(std::memory_order_relaxed) == process_id()) learn(quarter);
    return minutes(known().offset_minutes);
}

void append_time(Line& text) {
    namespace chrono = std::chrono;
    const auto now = chrono::floor<milliseconds>(chrono::system_clock::now());
    const minutes offset = utc_offset(now);
    const auto local = now + offset;
    const auto midnight = chrono::floor<chrono::days>(local);
    const chrono::year_month_day date(midnight);
    const chrono::hh_mm_ss<milliseconds> time(local - midnight);
    const chrono::hh_mm_ss<minutes> zone(offset);
    fmt::format_to(std::back_inserter(text), "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}{}{:02}:{:02}",
                   static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                   static_cast<unsigned>(date.day()), time.hours().count(), time.minutes().count(),
                   time.seconds().count(), time.subseconds().count(), zone.is_negative() ? '-' : '+',
                   zone.hours().count(), zone.minutes().count());
}

void append_level(Line& text, uint32_t level) {
    const auto to = std::back_inserter(text);
    switch (level) {
        case 1:
            fmt::format_to(to, "ERROR");
            break;
        case 2:
            fmt::format_to(to, "WARNING");
            break;
        case 4:
            fmt::format_to(to, "INFO");
            break;
        case 16:
            fmt::format_to(to, "TRACE");
            break;
        default:
            fmt::format_to(to, "{}", level);
    }
}

/// The number of bytes of the character at `at`; 0 if it must be escaped: a control character (C0, DEL, C1), a line or
/// paragraph separator, a backslash, or a byte that is not UTF-8.
size_t plain_bytes(const char* at) {
    const auto byte = [at](size_t i) { return static_cast<unsigned char>(at[i]); };
    const auto between = [&byte](size_t i, unsigned low, unsigned high) { return byte(i) >= low && byte(i) <= high; };
    const unsigned first = byte(0);
    if (first < 0x80) return first >= 0x20 && first != 0x7F && first != '\\' ? 1 : 0;
    if (first < 0xC2 || first > 0xF4) return 0;
    // The NUL at the end is not a continuation byte, so nothing is read beyond it.
    if (first < 0xE0) return between(1, first == 0xC2 ? 0xA0 : 0x80, 0xBF) ? 2 : 0;
    if (first < 0xF0) {
        if (!between(1, first == 0xE0 ? 0xA0 : 0x80, first == 0xED ? 0x9F : 0xBF) || !between(2, 0x80, 0xBF)) return 0;
        return first == 0xE2 && byte(1) == 0x80 && between(2, 0xA8, 0xA9) ? 0 : 3;
    }
    if (!between(1, first == 0xF0 ? 0x90 : 0x80, first == 0xF4 ? 0x8F : 0xBF)) return 0;
    return between(2, 0x80, 0xBF) && between(3, 0x80, 0xBF) ? 4 : 0;
}

void append_escaped_byte(Line& text, char byte) {
    const auto to = std::back_inserter(text);
    switch (byte) {
        case '\n':
            fmt::format_to(to, "\\n");
            break;
        case '\r':
            fmt::format_to(to, "\\r");
            break;
        case '\t':
            fmt::format_to(to, "\\t");
            break;
        case '\\':
            fmt::format_to(to, "\\\\");
            break;
        default:
            fmt::format_to(to, "\\x{:02x}", static_cast<unsigned char>(byte));
    }
}

enum class Spaces { kept, escaped };

/// Appends a text so that it stays within its line (and, if spaces are escaped, within its field) and can be read back
/// byte for byte.
void append_escaped(Line& text, const char* from, Spaces spaces) {
    if (!from) return;
    const char* done = from;
    const char* at = from;
    while (*at) {
        const size_t plain = *at == ' ' && spaces == Spaces::escaped ? 0 : plain_bytes(at);
        if (plain > 0) {
            at += plain;
            continue;
        }
        text.append(done, at);
        append_escaped_byte(text, *at);
        done = ++at;
    }
    text.append(done, at);
}

}  // namespace

void learn_time_zone() {
    asking_process.store(process_id(), std::memory_order_relaxed);
    learn(quarter_of(std::chrono::system_clock::now()));
}

void compose(Line& text, const Entry& entry) {
    text.push_back('\n');
    append_time(text);
    fmt::format_to(std::back_inserter(text), " {} {} ", process_id(), thread_id());
    append_level(text, entry.level);
    text.push_back(' ');
    append_escaped(text, entry.function, Spaces::escaped);
    text.push_back(' ');
    append_escaped(text, entry.file, Spaces::escaped);
    fmt::format_to(std::back_inserter(text), ":{} ", entry.line);
    append_escaped(text, entry.message, Spaces::kept);
    text.push_back('\n');
}

}  // namespace kzmlog
