// The text of a line: what stands in it, and how texts of others are kept from forging one.
#pragma once

#include <fmt/format.h>

#include <cstdint>

namespace kzmlog {

/// Room for a usual line on the stack; a longer one moves to the heap.
using Line = fmt::basic_memory_buffer<char, 1024>;

/// What a caller says in one line. Null texts read as empty.
struct Entry {
    uint32_t level;
    const char* file;
    int32_t line;
    const char* function;
    const char* message;
};

/// Asks for the time zone, for this process's lines to come. A process that opens a log does this first.
void learn_time_zone();
/// The line of an entry written now by this thread, with a newline before and one behind it.
void compose(Line& text, const Entry& entry);

}  // namespace kzmlog
