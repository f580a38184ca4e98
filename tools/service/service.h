// This process as a service of Windows: it tells the service manager how far it is, and writes events to the system's
// log. Elsewhere no process is one, and every call but run() does nothing. Free of system headers.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace service {

/// What a service's administrator should learn of. Each is an entry of the message resource (messages.mc).
enum class Event {
    started,
    stopped,
    failed,
    region_refused,
    region_accepted,
    lock_taken_over,
    configuration_lost,
    configuration_found,
};

/// Does `work` as the service that the service manager has started this process for. Before, the variables that are
/// kept with the service are set.
/// @param[in] work  throws nothing
/// @return its exit status, which the service manager is told too
/// @throws picture::Error  the service manager has not started this process
int run(const std::function<int()>& work);

/// Whether this process is doing a service's work.
bool is_running();

/// What asks the work to end. It is called on another thread, and at once if the end was asked for already.
void on_stop(std::function<void()> stop);
/// Whether the service ends because the system does: then nothing in memory needs to be put right.
bool ends_with_the_system();

/// The start goes on, and its next step takes at most so long.
void starting(uint32_t most_ms);
/// The service is ready. @param[in] what  of what; a part of the event
void ready(const std::string& what);
/// The end goes on, and its next step takes at most so long.
void stopping(uint32_t most_ms);

/// Writes an event. @param[in] what  its details, in one line
void tell(Event event, const std::string& what);

}  // namespace service
