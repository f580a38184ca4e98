// A program that tests give more rights than its caller has. It creates a mutex: setuid_creator LIBRARY NAME
#include <dlfcn.h>

int main(int count, char** arguments) {
    if (count != 3) return 2;
    void* const library = dlopen(arguments[1], RTLD_NOW);
    if (!library) return 3;
    const auto create = reinterpret_cast<void* (*)(const char*)>(dlsym(library, "kzmkernel_create_mutex"));
    return create && create(arguments[2]) ? 0 : 1;
}
