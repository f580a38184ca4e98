// What "service" is asked to do. Only Windows does it; elsewhere the system has its own command. Free of system
// headers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "context.h"

namespace shmnmctl {

struct ServiceRequest {
    std::string action;  ///< "install", "remove", "start", "stop", "status"
    bool web = false;    ///< of shmnmweb, not of "serve"
    std::string name, account, password_file;
    std::vector<std::string> arguments;  ///< of the service's program
    uint32_t timeout_ms = 60'000;
};

Exit serve_request(const Context& context, const ServiceRequest& request);

}  // namespace shmnmctl
