// Holds a region and a lock that shmnmctl must not use, named by KZMUTIL_NAMESPACE, until standard input ends. Its
// argument is their access list, such as "D:" to let in nobody, as the objects of another user do.
#include <windows.h>

#include <sddl.h>

#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    if (argc != 2) return 1;
    SECURITY_ATTRIBUTES attributes{};
    attributes.nLength = sizeof attributes;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(argv[1], SDDL_REVISION_1,
                                                              &attributes.lpSecurityDescriptor, nullptr)) {
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
