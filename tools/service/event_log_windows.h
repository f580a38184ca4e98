// Writes events of a service to the system's application log.
#pragma once

#include <string>

#include "service/service.h"

namespace service {

/// @param[in] source  the service's name, which is the name of its source too
/// @param[in] what    inserted into the event's text after the name. A log that cannot be written is no reason to end
void write_event(const std::wstring& source, Event event, const std::string& what);

}  // namespace service
