// What every exported function uses: loading into a process, the two process-local locks, the trace log, and the frame
// of entry line, test that the region is mapped, and exit line. Knows nothing of the region's contents.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>

#include "region.h"
#include "shmnm.h"

namespace shmnm {

/// Names an exported function in the log, with the line of the source that names it.
struct Tag {
    constexpr Tag(const char* function_name, int32_t source_line = __builtin_LINE()) noexcept
        : function(function_name), line(source_line) {}
    const char* function;
    int32_t line;
};

/// A printf-style format, with the line of the source that holds it.
struct Message {
    constexpr Message(const char* text, int32_t source_line = __builtin_LINE()) noexcept
        : format(text), line(source_line) {}
    const char* format;
    int32_t line;
};

enum class Level : uint32_t { error = 1, warning = 2, information = 4, trace = 16 };

inline constexpr const char* entry_line = "<<< ENTER >>>";

/// The exit line of each result code.
inline constexpr auto exit_lines = [] {
    constexpr char text[] = "<<< EXIT >>> : 0x00000000";
    std::array<std::array<char, sizeof text>, SHMNM_ERR_INSTALLPATH + 1> lines{};
    for (size_t code = 0; code < lines.size(); ++code) {
        for (size_t i = 0; i < sizeof text; ++i) lines[code][i] = text[i];
        lines[code][sizeof text - 3] = "0123456789abcdef"[code / 16];
        lines[code][sizeof text - 2] = "0123456789abcdef"[code % 16];
    }
    return lines;
}();

/// Guards the mapping and the opening of the log. A thread that holds it may close the log, which takes the log lock,
/// but never the other way round. Recursive, because a companion that create or attach calls may itself call create,
/// attach, detach and delete.
extern std::recursive_mutex library_lock;

struct LogSettings {
    int32_t level = 4;       ///< of the least important lines that are written
    int32_t size = 1000000;  ///< in bytes, at which the log is rotated
};

bool is_log_open();
/// The caller holds the library lock, and the log is closed. If the log cannot be opened, it stays closed.
void open_log(const LogSettings& settings);
void close_log();

/// One call of an exported function: writes its lines under its name. Small enough to be passed by value, in registers.
class Call {
  public:
    constexpr explicit Call(Tag tag) noexcept : tag_(tag) {}

    void enter() const { write_line(Level::trace, tag_.line, entry_line); }
    /// Writes the exit line; @return `result`
    uint32_t leave(uint32_t result) const {
        write_line(Level::trace, tag_.line, exit_lines[result].data());
        return result;
    }
    /// Writes a finished message.
    void log(Level level, Message message) const { write_line(level, message.line, message.format); }
    /// Writes a message with arguments, each a `const char*` or a 32-bit number.
    template <typename... Args>
    void log(Level level, Message message, Args... args) const {
        write_formatted(*this, level, message.line, message.format, args...);
    }
    /// Writes an error line; @return `code`
    template <typename... Args>
    uint32_t fail(uint32_t code, Message message, Args... args) const {
        return failed(*this, code, message, args...);
    }

  private:
    template <typename... Args>
    [[gnu::cold, gnu::noinline]] static uint32_t failed(Call call, uint32_t code, Message message, Args... args) {
        call.log(Level::error, message, args...);
        return code;
    }
    void write_line(Level level, int32_t line, const char* message) const;
    [[gnu::cold]] static void write_formatted(Call call, Level level, int32_t line, const char* format, ...);

    Tag tag_;
};

/// What every export does around its work: entry line, test that the region is mapped, exit line. Inlined into each
/// export, so that its name and what it works on are constants there.
template <auto work, typename... Args>
[[gnu::always_inline]] inline uint32_t framed(Tag tag, const Args&... args) {
    const Call call{tag};
    call.enter();
    const Region* const region = mapped_region();
    return call.leave(region ? work(call, *region, args...) : call.fail(SHMNM_ERR_NOTINIT, {"not init", tag.line}));
}

/// Called when a process loads the library: creates the mutex that all processes share. @return whether it succeeded
bool load_library();
/// Called when a process unloads the library.
void unload_library();
/// The mutex that all processes share.
void* region_mutex();

}  // namespace shmnm
