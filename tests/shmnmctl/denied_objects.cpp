// Holds a region and a lock that nobody may open, as another user's would be: named by KZMUTIL_NAMESPACE, until
// standard input ends.
#include <windows.h>

#include <sddl.h>

#include <cstdio>
#include <cstdlib>
#include <string>

int main() {
    SECURITY_ATTRIBUTES attributes{};
    attributes.nLength = sizeof attributes;
    // An empty list: no one is let in.
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorA("D:", SDDL_REVISION_1, &attributes.lpSecurityDescriptor,
                                                              nullptr)) {
        return 1;
    }
    const char* const prefix = std::getenv("KZMUTIL_NAMESPACE");
    const std::string name = prefix ? prefix : "";
    const HANDLE region = CreateFileMappingA(INVALID_HANDLE_VALUE, &attributes, PAGE_READWRITE, 0, 1 << 16,
                                             (name + "oru_kzmshmnm_map").c_str());
    const HANDLE lock = CreateMutexA(&attributes, FALSE, (name + "oru_kzmshmnm_lock").c_str());
    if (!region || !lock) return 1;
    std::puts("ready");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}
