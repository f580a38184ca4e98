// The work of shmnmweb from its options to its end, here or as a service.
#pragma once

#include <string>
#include <vector>

#include "server.h"
#include "service/service.h"

namespace shmnmweb {

enum Exit : int { done = 0, usage = 2, failed = 5 };

struct Options {
    std::vector<std::string> listen, allowed_hosts;
    std::string socket, socket_group, names, dump, from;
    bool allow_remote = false, as_service = false, only_check_arguments = false;
    Limits limits;
};

/// Serves until it is stopped, and reports why it cannot.
int serve(const Options& options);

/// Says on standard error, and as an event if this is a service, why the program ends. @return `exit`
int report(Exit exit, const std::string& what, service::Event event = service::Event::failed);

}  // namespace shmnmweb
