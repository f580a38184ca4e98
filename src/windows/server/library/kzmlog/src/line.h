// Composes the text of a line, and escapes the callers' texts so that they cannot forge a line.
#pragma once

#include <fmt/format.h>

#include <cstdint>

namespace kzmlog {

/// A usual line fits on the stack; a longer line moves to the heap.
using Line = fmt::basic_memory_buffer<char, 1024>;

/// A caller's arguments for one line. Null texts count as empty.
struct Entry {
    uint32_t level;
    const char* file;
    int32_t line;
    const char* function;
    const char* message;
};

/// Reads the time zone for this process's later lines. A process does this when it opens a log.
void learn_time_zone();
/// Appends to `text` the line of an entry that this thread writes now, with a newline before and after it.
void compose(Line& text, const Entry& entry);

}  // namespace kzmlog
