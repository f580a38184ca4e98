#include "frame.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "kernel.h"
#include "kzmlog.h"
#include "kzmutil.h"

namespace shmnm {
namespace {

/// The source-file field of every line: function name and line tell the place within the module.
constexpr const char* module_path = "src/windows/server/library/shmnm/src/shmnm";

constinit std::atomic<void*> log_handle{nullptr};  ///< null while the log is closed
std::mutex log_lock;                               ///< guards its closing
constinit void* mutex = nullptr;

}  // namespace

std::recursive_mutex library_lock;

bool load_library() {
    mutex = KzmutilCreateNamedMutex(0, "oru_kzmshmnm_lock");
    return mutex != nullptr;
}

void unload_library() {
    kernel::close(mutex);
}

void* region_mutex() {
    return mutex;
}

bool is_log_open() {
    return log_handle.load(std::memory_order_relaxed) != nullptr;
}

void open_log(const LogSettings& settings) {
    void* handle = nullptr;
    kzmlog_open("shmnm", &handle, static_cast<uint32_t>(settings.level), static_cast<uint32_t>(settings.size), 0,
                "oru_kzmshmnm_log");
    log_handle.store(handle, std::memory_order_release);
}

void close_log() {
    const std::lock_guard guard(log_lock);
    if (void* const handle = log_handle.load(std::memory_order_relaxed)) kzmlog_close(handle);
    log_handle.store(nullptr, std::memory_order_release);
}

void Call::write_line(Level level, int32_t line, const char* message) const {
    if (void* const handle = log_handle.load(std::memory_order_acquire)) [[likely]] {
        kzmlog_write(handle, static_cast<uint32_t>(level), 0, module_path, line, tag_.function, message);
    }
}

void Call::write_formatted(Call call, Level level, int32_t line, const char* format, ...) {
    if (!log_handle.load(std::memory_order_acquire)) return;
    char message[4096];
    std::va_list arguments;
    va_start(arguments, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // every format is a literal of a Message
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): clang 14 loses track of va_start here
    std::vsnprintf(message, sizeof message, format, arguments);
#pragma GCC diagnostic pop
    va_end(arguments);
    call.write_line(level, line, message);
}

}  // namespace shmnm
