#include "picture/error.h"
#include "service/service.h"

namespace service {

int run(const std::function<int()>&) {
    throw picture::Error(picture::ErrorKind::invalid,
                         "--service is for the service manager of Windows: leave it out, systemd needs no option");
}

bool is_running() {
    return false;
}
void on_stop(std::function<void()>) {}
bool ends_with_the_system() {
    return false;
}
void starting(uint32_t) {}
void ready(const std::string&) {}
void stopping(uint32_t) {}
void tell(Event, const std::string&) {}

}  // namespace service
