#include "waiting.h"

#include <windows.h>

namespace picture_library {

bool sleep_for_ms(uint32_t milliseconds) {
    Sleep(milliseconds);
    return true;
}

/// The system has no such signal.
NoBrokenPipeSignal::NoBrokenPipeSignal() = default;
NoBrokenPipeSignal::~NoBrokenPipeSignal() = default;

}  // namespace picture_library
