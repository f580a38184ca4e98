// The service manager that started this process.
#pragma once

#include <cstdint>

namespace service_manager {

/// Tells it a line such as "READY=1", if it asked to be told.
void notify(const char* state);

/// The time within which it expects the next "WATCHDOG=1" of this process; 0: it does not watch this process.
uint64_t watchdog_us();

}  // namespace service_manager
