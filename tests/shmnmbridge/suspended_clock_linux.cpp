// Preloaded into a program, it makes the machine one that was suspended: for as many seconds as the file that
// SHMNM_SUSPENDED names has bytes, only CLOCK_MONOTONIC stood still.
#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept {
    static const auto system = reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
    static const char* const file = std::getenv("SHMNM_SUSPENDED");
    const int result = system(clock, time);
    struct stat facts {};
    const bool goes_on = clock == CLOCK_BOOTTIME || clock == CLOCK_REALTIME;
    if (result == 0 && goes_on && file && stat(file, &facts) == 0) time->tv_sec += facts.st_size;
    return result;
}
