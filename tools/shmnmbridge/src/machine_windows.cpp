#include <windows.h>

#include <array>

#include "machine.h"

namespace bridge {

std::string machine_id() {
    std::array<char, 64> id{};
    DWORD size = id.size() - 1;
    const LSTATUS result = RegGetValueA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Cryptography", "MachineGuid",
                                        RRF_RT_REG_SZ | RRF_SUBKEY_WOW6464KEY, nullptr, id.data(), &size);
    return result == ERROR_SUCCESS ? id.data() : "";
}

void notify_service_manager(const char*) {}

uint64_t watchdog_us() {
    return 0;
}

}  // namespace bridge
