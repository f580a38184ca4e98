// The service manager that started this process.
#pragma once

namespace service_manager {

/// Tells it a line such as "READY=1", if it asked to be told.
void notify(const char* state);

}  // namespace service_manager
