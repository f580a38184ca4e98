// The exports, and the table of open logs that handles refer to. A handle is not an address: it consists of a slot's
// index and the number of times that the slot has been used. One load therefore recognises a closed or invented handle,
// which is never followed. The first log that a process opens, usually its only log, has the first slot: two
// comparisons at fixed addresses decide whether that log drops a message, before anything else is done.
#include "kzmlog.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>

#include "kzmutil.h"
#include "line.h"
#include "log.h"
#include "system.h"

namespace kzmlog {
namespace {

constexpr uint32_t drops_nothing = UINT32_MAX;

/// A slot of the table. The upper half of `state` is the number of the open use (0: none). The lower half counts the
/// holders of the log: the open handle, and each write in progress. The last holder deletes the log. So a close neither
/// waits for a writer (which in a forked child may not even exist) nor deletes the writer's log.
///
/// `level` is `drops_nothing` unless the log is open. Opening writes `handle` before `level`. A reader that reads
/// `level` first and finds another value therefore sees a current `handle`, and never drops a message silently that
/// came with a closed or invented handle. A message that is not dropped has to enter, which fails unless the log is
/// open.
struct Slot {
    std::atomic<uint64_t> state{0};
    std::atomic<const void*> handle{nullptr};
    std::atomic<uint32_t> level{drops_nothing};
    uint32_t last_use = 0;
    const Log* log = nullptr;

    bool drops(const void* from, uint32_t message_level) const {
        return message_level > level.load(std::memory_order_acquire) && handle.load(std::memory_order_relaxed) == from;
    }
};

constexpr size_t slot_bits = 6;
constexpr uint64_t one_use = uint64_t{1} << 32;

/// Plain data without a destructor: a thread may still write while the process ends.
constinit std::array<Slot, size_t{1} << slot_bits> slots{};

uint64_t use_of(uint64_t state) {
    return state >> 32;
}

Slot& slot_of(const void* handle) {
    return slots[reinterpret_cast<uintptr_t>(handle) % slots.size()];
}
uint64_t use_named_by(const void* handle) {
    return reinterpret_cast<uintptr_t>(handle) >> slot_bits;
}

void* handle_of(size_t index, uint64_t use) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(use << slot_bits | index));
}

bool is_open(uint64_t state, const void* handle) {
    return use_of(state) == use_named_by(handle) && use_of(state) != 0;
}

/// Takes an unused slot. The caller becomes its only holder, and its use is not open yet.
size_t take_slot() {
    for (size_t index = 0; index < slots.size(); ++index) {
        uint64_t unused = 0;
        if (slots[index].state.compare_exchange_strong(unused, 1, std::memory_order_acquire)) return index;
    }
    return slots.size();
}

/// Gives up one hold on a slot. The last holder of a closed log deletes the log.
void leave(Slot& slot) {
    uint64_t state = slot.state.load(std::memory_order_acquire);
    while (state != 1) {
        if (slot.state.compare_exchange_weak(state, state - 1, std::memory_order_acq_rel)) return;
    }
    delete slot.log;
    slot.log = nullptr;
    slot.state.store(0, std::memory_order_release);
}

bool enter(Slot& slot, const void* handle) {
    uint64_t state = slot.state.load(std::memory_order_relaxed);
    do {
        if (!is_open(state, handle)) return false;
    } while (!slot.state.compare_exchange_weak(state, state + 1, std::memory_order_acquire));
    return true;
}

/// Whether a text is a valid name: it cannot lead out of the folder when it is put into a path.
bool is_name(std::string_view text, size_t limit) {
    const auto allowed = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
               c == '.';
    };
    return !text.empty() && text.size() <= limit && text[0] != '.' && std::all_of(text.begin(), text.end(), allowed);
}

Error open_slot(size_t index, std::string_view module, std::string_view channel, uint32_t level, uint32_t size,
                void** log) {
    std::array<char, 4096> folder;
    if (!KzmutilGetInstallPath(folder.data(), static_cast<uint32_t>(folder.size()))) return path_not_found;
    Slot& slot = slots[index];
    slot.log = new Log(folder.data(), std::string(module), std::string(channel), size);
    if (const Error error = slot.log->prepare()) return error;
    learn_time_zone();
    // branch: after 2^32 openings of one slot
    if (++slot.last_use == 0) slot.last_use = 1;
    void* const handle = handle_of(index, slot.last_use);
    slot.handle.store(handle, std::memory_order_relaxed);
    slot.level.store(level, std::memory_order_release);
    slot.state.fetch_add(slot.last_use * one_use, std::memory_order_release);
    *log = handle;
    return ok;
}

Error open_log(std::string_view module, std::string_view channel, uint32_t level, uint32_t size, void** log) {
    const size_t index = take_slot();
    if (index == slots.size()) return too_many_open;
    Error error = out_of_memory;
    try {
        error = open_slot(index, module, channel, level, size, log);
    } catch (...) {  // memory ran out; nothing else throws
    }
    if (error) leave(slots[index]);
    return error;
}

Error append(const Log& log, const Entry& entry) {
    try {
        Line line;
        compose(line, entry);
        return log.append({line.data(), line.size()});
    } catch (...) {  // memory ran out; nothing else throws
        return out_of_memory;
    }
}

/// Out of line, so that dropping a message sets up none of this.
[[gnu::noinline, gnu::cold]] int32_t write_or_refuse(void* handle, uint32_t level, uint32_t flags, const char* file,
                                                     int32_t line, const char* function, const char* message) {
    Slot& slot = slot_of(handle);
    if (slot.drops(handle, level)) return ok;
    const UndisturbedThread undisturbed;
    if (!enter(slot, handle)) return invalid_handle;
    const Error error = flags == 0 ? append(*slot.log, {level, file, line, function, message}) : invalid_parameter;
    leave(slot);
    return error;
}

}  // namespace
}  // namespace kzmlog

extern "C" {

int32_t kzmlog_open(const char* module, void** log, uint32_t level, uint32_t size, uint32_t flags,
                    const char* channel) {
    if (log) *log = nullptr;
    if (!log || !module || !channel || flags != 0) return kzmlog::invalid_parameter;
    if (!kzmlog::is_name(module, 31) || !kzmlog::is_name(channel, 63)) return kzmlog::invalid_parameter;
    const kzmlog::UndisturbedThread undisturbed;
    return kzmlog::open_log(module, channel, level, size, log);
}

int32_t kzmlog_close(void* log) {
    const kzmlog::UndisturbedThread undisturbed;
    kzmlog::Slot& slot = kzmlog::slot_of(log);
    uint64_t state = slot.state.load(std::memory_order_relaxed);
    do {
        if (!kzmlog::is_open(state, log)) return kzmlog::invalid_handle;
    } while (!slot.state.compare_exchange_weak(state, state % kzmlog::one_use, std::memory_order_acq_rel));
    slot.level.store(kzmlog::drops_nothing, std::memory_order_release);
    kzmlog::leave(slot);
    return kzmlog::ok;
}

int32_t kzmlog_write(void* log, uint32_t level, uint32_t flags, const char* file, int32_t line, const char* function,
                     const char* message) {
    if (kzmlog::slots[0].drops(log, level)) return kzmlog::ok;
    return kzmlog::write_or_refuse(log, level, flags, file, line, function, message);
}

}  // extern "C"
