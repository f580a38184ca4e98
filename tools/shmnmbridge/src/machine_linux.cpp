#include <fstream>

#include "machine.h"
#include "service_manager.h"

namespace bridge {

std::string machine_id() {
    std::ifstream file("/etc/machine-id");
    std::string id;
    std::getline(file, id);
    return id;
}

void notify_service_manager(const char* state) {
    service_manager::notify(state);
}

uint64_t watchdog_us() {
    return service_manager::watchdog_us();
}

}  // namespace bridge
