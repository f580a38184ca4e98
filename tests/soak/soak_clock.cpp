// A preloaded library that moves the wall clock of the programs of the endurance run, while they run, and never the
// machine's clock. SOAK_CLOCK names a file with the nanoseconds to add, one signed 64-bit number, which may change at
// any time. The steady clocks stay as they are, as they do when an administrator sets the time. (The packaged
// libfaketime reads a new time only once in a while and by default moves the steady clocks too.)
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

constexpr int64_t ns_per_s = 1'000'000'000;

const std::atomic<int64_t>* map_offset() {
    const char* const file = std::getenv("SOAK_CLOCK");
    const int descriptor = file ? open(file, O_RDONLY | O_CLOEXEC) : -1;
    if (descriptor < 0) return nullptr;
    void* const memory = mmap(nullptr, sizeof(int64_t), PROT_READ, MAP_SHARED, descriptor, 0);
    close(descriptor);
    return memory == MAP_FAILED ? nullptr : static_cast<const std::atomic<int64_t>*>(memory);
}

const std::atomic<int64_t>* offset = nullptr;

__attribute__((constructor)) void begin() {
    offset = map_offset();
}

timespec moved_now(clockid_t clock) {
    timespec now{};
    syscall(SYS_clock_gettime, clock, &now);
    if (!offset) return now;
    const int64_t ns = now.tv_sec * ns_per_s + now.tv_nsec + offset->load(std::memory_order_relaxed);
    return {ns / ns_per_s, ns % ns_per_s};
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) {
    if (clock != CLOCK_REALTIME && clock != CLOCK_REALTIME_COARSE)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = moved_now(clock);
    return 0;
}

int gettimeofday(timeval* time, void* /*zone*/) {
    const timespec now = moved_now(CLOCK_REALTIME);
    *time = {now.tv_sec, now.tv_nsec / 1'000};
    return 0;
}

time_t time(time_t* time) {
    const time_t now = moved_now(CLOCK_REALTIME).tv_sec;
    if (time) *time = now;
    return now;
}

int timespec_get(timespec* time, int base) {
    *time = moved_now(CLOCK_REALTIME);
    return base;
}
}
