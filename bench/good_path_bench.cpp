// Shows what a successful data call does not do: allocate, take a lock, enter the kernel. The program makes all calls
// in turn. Its own malloc and pthread functions, which all libraries of the process use instead of the C library's,
// count allocations and locks. A tracer counts the system calls between two marks.
//
//     good_path_bench CALLS
//
// Prints the numbers of calls, functions, allocations and locks. Tests the counters first: attaching allocates, and
// taking the region's lock counts as a lock.
#include <dlfcn.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "library.h"

namespace {

std::atomic<uint64_t> allocations, locks;

}  // namespace

// The C library's own functions, under the names that it provides for programs that replace them.
extern "C" {
void* __libc_malloc(size_t size) noexcept;
void* __libc_calloc(size_t count, size_t size) noexcept;
void* __libc_realloc(void* block, size_t size) noexcept;
void* __libc_memalign(size_t alignment, size_t size) noexcept;

#define COUNTED __attribute__((visibility("default")))
COUNTED void* malloc(size_t size) noexcept {
    ++allocations;
    return __libc_malloc(size);
}
COUNTED void* calloc(size_t count, size_t size) noexcept {
    ++allocations;
    return __libc_calloc(count, size);
}
COUNTED void* realloc(void* block, size_t size) noexcept {
    ++allocations;
    return __libc_realloc(block, size);
}
COUNTED void* aligned_alloc(size_t alignment, size_t size) noexcept {
    ++allocations;
    return __libc_memalign(alignment, size);
}
COUNTED int posix_memalign(void** block, size_t alignment, size_t size) noexcept {
    ++allocations;
    *block = __libc_memalign(alignment, size);
    return *block ? 0 : 12;
}
}

namespace {

/// Counts a lock and passes it on to the C library.
template <typename... Arguments>
int counted(const char* name, Arguments... arguments) {
    ++locks;
    using Function = int (*)(Arguments...);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name))(arguments...);
}

}  // namespace

extern "C" {
COUNTED int pthread_mutex_lock(pthread_mutex_t* lock) noexcept {
    return counted("pthread_mutex_lock", lock);
}
COUNTED int pthread_mutex_trylock(pthread_mutex_t* lock) noexcept {
    return counted("pthread_mutex_trylock", lock);
}
COUNTED int pthread_mutex_timedlock(pthread_mutex_t* lock, const timespec* end) noexcept {
    return counted("pthread_mutex_timedlock", lock, end);
}
COUNTED int pthread_mutex_clocklock(pthread_mutex_t* lock, clockid_t clock, const timespec* end) noexcept {
    return counted("pthread_mutex_clocklock", lock, clock, end);
}
COUNTED int pthread_spin_lock(pthread_spinlock_t* lock) noexcept {
    return counted("pthread_spin_lock", lock);
}
COUNTED int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept {
    return counted("pthread_rwlock_rdlock", lock);
}
COUNTED int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept {
    return counted("pthread_rwlock_wrlock", lock);
}
#undef COUNTED
}

namespace {

struct DataCall {
    const char* name;
    uint32_t (*make)();
};

// Room for the outputs of any call.
uint32_t word, other_word, third_word, size;
int32_t number, bytes_size, region_size;
uint64_t data64;
std::vector<uint8_t> bytes;
char text[8192];
uint32_t words[256];

constexpr const char *server = "server128", *type = "lan", *resource = "lanhb16";
constexpr int32_t svid = 127;

uint32_t* room() {
    size = sizeof words;
    return &size;
}
uint32_t* text_room() {
    size = sizeof text;
    return &size;
}

#define CALL(function, ...)                             \
    DataCall {                                          \
#function, [] { return function(__VA_ARGS__); } \
    }
// All functions except those that map, unmap or clear the region, the lock's four functions, and the two that must
// write a line at level 4, shmnm_chkalivesv() and shmnm_setnpsimu(). Each round leaves the region so that the next
// round succeeds too.
const DataCall data_calls[] = {
    CALL(shmnm_setmaxvalue_ex, 128, 16, 16),
    CALL(shmnm_getmaxvalue_ex, &word, &other_word, &third_word),
    CALL(shmnm_sethbinfo_ex, 3, 4),
    CALL(shmnm_gethbinfo_ex, &word, &other_word),
    CALL(shmnm_setwaitstat, 1),
    CALL(shmnm_getwaitstat, &word),
    CALL(shmnm_setbwflag, 1),
    CALL(shmnm_getbwflag, &word),
    CALL(shmnm_setbwflagdisk, 1),
    CALL(shmnm_getbwflagdisk, &word),
    CALL(shmnm_setclstat, 1),
    CALL(shmnm_getclstat, &word),
    CALL(shmnm_rmnode, server),
    CALL(shmnm_addnode, server, svid),
    CALL(shmnm_modifynode, server, svid),
    CALL(shmnm_enumnode, text, text_room()),
    CALL(shmnm_getnodepri, server, &number),
    CALL(shmnm_getnodename, text, svid),
    CALL(shmnm_setnodestat, server, 1),
    CALL(shmnm_getnodestat, server, &word),
    CALL(shmnm_setnodestat_nw, server, 1),
    CALL(shmnm_getnodestat_nw, server, &word),
    CALL(shmnm_setdownnotifystat, server, 1),
    CALL(shmnm_getdownnotifystat, server, &word),
    CALL(shmnm_setisolateflag, server, 1),
    CALL(shmnm_getisolateflag, server, &word),
    CALL(shmnm_setpingstat, server, 1),
    CALL(shmnm_getpingstat, server, &word),
    CALL(shmnm_setholdstat, server, 1),
    CALL(shmnm_getholdstat, server, &word),
    CALL(shmnm_getnodecombstat, server, &word),
    CALL(shmnm_rmhbrsc, type, resource),
    CALL(shmnm_addhbrsc, type, resource, 1),
    CALL(shmnm_rmnprsc, type, resource),
    CALL(shmnm_addnprsc, type, resource, 1),
    CALL(shmnm_modifyhbrsc, type, resource, 2),
    CALL(shmnm_modifynprsc, type, resource, 2),
    CALL(shmnm_gethbrscpri, type, resource, &word),
    CALL(shmnm_getnprscpri, type, resource, &word),
    CALL(shmnm_gethbrscinfo, text, resource),
    CALL(shmnm_getnprscinfo, text, resource),
    CALL(shmnm_enumhbtype, text, text_room()),
    CALL(shmnm_enumnptype, text, text_room()),
    CALL(shmnm_enumhbrsc, nullptr, text, text_room()),
    CALL(shmnm_enumnprsc, type, text, text_room()),
    CALL(shmnm_sethbrscstat, type, resource, 1),
    CALL(shmnm_setnprscstat, type, resource, 1),
    CALL(shmnm_gethbrscstat, type, resource, &word),
    CALL(shmnm_getnprscstat, type, resource, &word),
    CALL(shmnm_sethbrscsvstat, type, resource, svid, 1),
    CALL(shmnm_setnprscsvstat, type, resource, svid, 1),
    CALL(shmnm_gethbrscsvstat, type, resource, svid, &word),
    CALL(shmnm_getnprscsvstat, type, resource, svid, &word),
    CALL(shmnm_enumhbrscsvstat, type, resource, words, room()),
    CALL(shmnm_enumnprscsvstat, type, resource, words, room()),
    CALL(shmnm_enumsvhbrscstat, server, words, room()),
    CALL(shmnm_enumsvnprscstat, server, words, room()),
    CALL(shmnm_settypehbstat, type, 1),
    CALL(shmnm_settypenpstat, type, 1),
    CALL(shmnm_sethbdescript, type, "lanhb1", text, 256),
    CALL(shmnm_setnpdescript, type, "lanhb1", text, 256),
    CALL(shmnm_gethbdescript, type, "lanhb1", text, &bytes_size),
    CALL(shmnm_getnpdescript, type, "lanhb1", text, &bytes_size),
    CALL(shmnm_rmhbrscsvstat, svid),
    CALL(shmnm_addhbrscsvstat, svid),
    CALL(shmnm_rmnprscsvstat, svid),
    CALL(shmnm_addnprscsvstat, svid),
    CALL(shmnm_getnpsimu, &word, words, 128),
    CALL(shmnm_getnpsimuflag, &word),
    CALL(shmnm_setrscsvstat_nw, type, resource, svid, 1),
    CALL(shmnm_getrscsvstat_nw, type, resource, svid, &word),
    CALL(shmnm_enumrscsvstat_nw, type, resource, words, room()),
    CALL(shmnm_enumsvrscstat_nw, server, words, room()),
    CALL(shmnm_setfstrscstat, 1),
    CALL(shmnm_getfstrscstat, &word),
    CALL(shmnm_setfstdescript, text, 256),
    CALL(shmnm_getfstdescript, text, &bytes_size),
    CALL(shmnm_setfstrscpid, "monitor", 1, 77, 78),
    CALL(shmnm_getfstrscpid, "monitor", 1, &word, &data64),
    CALL(shmnm_dump, bytes.data(), &region_size),
};
#undef CALL

void mark() {
    syscall(SYS_getppid);
}

void make(const DataCall& call) {
    if (const uint32_t result = call.make(); result != SHMNM_OK) {
        throw std::runtime_error(std::string(call.name) + " answers " + std::to_string(result));
    }
}

void run(uint64_t calls) {
    const uint64_t allocations_before = allocations;
    bench::Library library({"", true});
    const bench::Cluster cluster{128, 16};
    bench::Library::fill(cluster);
    for (int32_t i = 0; i < cluster.resources; ++i) {
        shmnm_addnprsc(type, bench::Cluster::resource(i).data(), static_cast<uint32_t>(i));
    }
    bytes_size = 256;
    bytes.resize(bench::Library::picture_size());
    region_size = static_cast<int32_t>(bytes.size());
    const uint64_t locks_before = locks;
    shmnm_rwlock(0);
    shmnm_rwunlock();
    if (allocations == allocations_before || locks == locks_before) {
        throw std::runtime_error("the counters of allocations and locks do not work");
    }

    constexpr uint64_t kinds = std::size(data_calls);
    const uint64_t allocations_at_start = allocations, locks_at_start = locks;
    mark();
    for (uint64_t i = 0; i < calls; ++i) make(data_calls[i % kinds]);
    mark();
    const uint64_t allocated = allocations - allocations_at_start, locked = locks - locks_at_start;
    std::printf("%llu %llu %llu %llu\n", static_cast<unsigned long long>(calls), static_cast<unsigned long long>(kinds),
                static_cast<unsigned long long>(allocated), static_cast<unsigned long long>(locked));
}

}  // namespace

int main(int argc, char** argv) {
    try {
        run(argc == 2 ? std::stoull(argv[1]) : 1'000'000);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "good_path_bench: %s\n", error.what());
        return 1;
    }
}
