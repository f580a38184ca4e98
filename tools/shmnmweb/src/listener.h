// Sockets that are listened on, and who is at the other end of a connection. Free of system headers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace shmnmweb {

using SocketHandle = uintptr_t;

struct Listener {
    SocketHandle handle = 0;
    int family = 0;
    bool is_local = false;  ///< a Unix socket
    std::string address;    ///< as people read it: "http://127.0.0.1:9683/", "unix:/run/shmnm/web.sock"
    std::string file;       ///< of a Unix socket that this process made; removed at the end
};

/// Listens on "ADDRESS:PORT" or "[ADDRESS]:PORT"; port 0: any that is free.
/// @param[in] allow_remote  also where other machines may connect
/// @throws picture::Error  it is not an address, or cannot be listened on
Listener listen_on(const std::string& address, bool allow_remote);

/// Listens on a Unix socket that its owner and the members of a group may connect to.
/// @param[in] group  a group's name; "": the owner's own
/// @throws picture::Error
Listener listen_on_file(const std::string& path, const std::string& group);

/// The sockets that the service manager has opened for this process; none if it has not.
/// @throws picture::Error  they are not what can be served
std::vector<Listener> inherited_listeners(bool allow_remote);

/// Removes the file of a Unix socket that this process made.
void remove_file(const Listener& listener) noexcept;

/// Who is at the other end: an address (of IPv6 the network), or "user 1000"; what is counted as one client.
std::string client_of(SocketHandle connection, bool is_local);

/// The signals that ask this process to stop.
std::vector<int> stop_signals();

/// Tells the service manager that started this process, if one asked to be told, a line such as "READY=1".
void notify_service_manager(const char* state);

/// The time within which the service manager expects the next "WATCHDOG=1"; 0: it does not watch this process.
uint64_t watchdog_us();

/// As many open files as the system grants.
void raise_file_limit();

}  // namespace shmnmweb
