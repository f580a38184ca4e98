// shmnm-keeper: holds a region that another process has created, so that the picture outlives a restart of its creator.
// It needs the companions only, maps nothing, never takes the lock, and cannot write into the region. An upgrade of the
// packages leaves it running.
#include <csignal>
#include <cstdio>
#include <initializer_list>

#include "kzmkernel.h"
#include "kzmutil.h"
#include "service_manager.h"

namespace {

constexpr uint32_t to_read = 4;

/// As shmnmctl ends.
enum Exit { done = 0, no_region = 3, refused = 5 };

int fail(const char* object) {
    const char* const why = kzmkernel_explanation();
    std::fprintf(stderr, "shmnm-keeper: cannot hold the %s: error %u%s%s\n", object, kzmkernel_last_error(),
                 *why ? ": " : "", why);
    return refused;
}

}  // namespace

int main() {
    // Blocked before anything is held: a request to end waits until it is asked for.
    sigset_t requests;
    sigemptyset(&requests);
    for (const int request : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&requests, request);
    sigprocmask(SIG_BLOCK, &requests, nullptr);

    // The lock's page also holds the note of a killed caller, so both objects are held. They are closed by the end of
    // this process.
    if (!KzmutilOpenNamedFileMapping(to_read, 0, "oru_kzmshmnm_map")) {
        if (kzmkernel_last_error() != KZMKERNEL_ERROR_FILE_NOT_FOUND) return fail("region");
        std::fputs("shmnm-keeper: there is no region to keep: start its creator (shmnm.service) first\n", stderr);
        return no_region;
    }
    if (!KzmutilCreateNamedMutex(0, "oru_kzmshmnm_lock")) return fail("lock");
    service_manager::notify("READY=1");
    int request = 0;
    sigwait(&requests, &request);
    service_manager::notify("STOPPING=1");
    return done;
}
