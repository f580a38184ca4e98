#include <fstream>

#include "machine.h"
#include "service_manager.h"

namespace bridge {

std::string machine_id() {
    std::ifstream file("/etc/machine-id");
    std::string id;
    std::getline(file, id);
    // While a machine starts for the first time the file may hold a word instead, which is no machine's own.
    constexpr size_t digits = 32;
    return id.size() == digits && id.find_first_not_of("0123456789abcdef") == std::string::npos ? id : "";
}

void notify_service_manager(const char* state) {
    service_manager::notify(state);
}

uint64_t watchdog_us() {
    return service_manager::watchdog_us();
}

}  // namespace bridge
