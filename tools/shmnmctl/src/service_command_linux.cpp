#include <fmt/format.h>

#include "service_command.h"

namespace shmnmctl {

Exit serve_request(const Context&, const ServiceRequest& request) {
    const std::string& action = request.action;
    const char* const verb = action == "install"  ? "enable --now"
                             : action == "remove" ? "disable --now"
                                                  : action.c_str();
    throw Failure(
        Exit::failed,
        fmt::format("services are systemd's on this system: use \"systemctl {} {}\"; the package {} has {}, and "
                    "docs/operations.md tells more",
                    verb, request.web ? "shmnmweb.socket" : "shmnm", request.web ? "shmnmweb" : "shmnmctl",
                    request.web ? "shmnmweb.socket and shmnmweb.service" : "shmnm.service and shmnm-keeper.service"));
}

}  // namespace shmnmctl
