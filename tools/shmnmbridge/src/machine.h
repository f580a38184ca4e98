// What the system tells of this machine and of the service manager.
#pragma once

#include <cstdint>
#include <string>

namespace bridge {

/// The system's own id of this machine; "" if it has none.
std::string machine_id();

/// Tells the service manager that started this process a line such as "READY=1", if it asked to be told.
void notify_service_manager(const char* state);
/// The time within which it expects the next "WATCHDOG=1"; 0: it does not watch this process.
uint64_t watchdog_us();

}  // namespace bridge
