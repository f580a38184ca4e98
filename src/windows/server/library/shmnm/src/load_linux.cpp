// The library is loaded into a process and unloaded from it: constructor and destructor of the shared object.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "frame.h"
#include "kernel.h"
#include "kzmkernel.h"

namespace {

constexpr int status_not_loaded = 127;  // the dynamic loader's own status if a library is missing

[[gnu::constructor]] void process_attach() {
    // branch: taken by the test load_refused, which ends before its counters are kept
    if (shmnm::load_library()) return;
    // GCOVR_EXCL_START: run by tests, but a process that ends by _exit() leaves no coverage behind
    const uint32_t error = shmnm::kernel::last_error();
    const char* const explanation = kzmkernel_explanation();
    char line[640];
    // branch: the same
    if (*explanation) {
        std::snprintf(line, sizeof line, "kzmshmnm: not loaded: no mutex oru_kzmshmnm_lock (error %u): %s\n", error,
                      explanation);
    } else {
        std::snprintf(line, sizeof line, "kzmshmnm: not loaded: no mutex oru_kzmshmnm_lock (error %u)\n", error);
    }
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, std::strlen(line));
    _exit(status_not_loaded);
    // GCOVR_EXCL_STOP
}

[[gnu::destructor]] void process_detach() {
    shmnm::unload_library();
}

}  // namespace
