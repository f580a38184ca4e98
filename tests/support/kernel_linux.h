// What tests of kzmkernel share: the objects of the running test and their files, and waiters that sleep for a mutex.
#pragma once

#include <kzmkernel.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>

#include "support/sleepers_linux.h"

namespace kernel_test {

namespace fs = std::filesystem;
using namespace test;

inline constexpr uint32_t for_everything = 0xF001F, for_writing = 2, for_reading = 4;
inline constexpr size_t page = 4096, kib = 1024;

/// A name that only the running test uses.
std::string object_name();

fs::path folder();
/// The file that guards the folder.
fs::path sibling();
fs::path file_of_mutex(const std::string& name);
fs::path file_of_mapping(const std::string& name);

/// The handle of an object, which this closes, and the last error after the object was created.
struct Handle {
    explicit Handle(void* made) : value(made), error(kzmkernel_last_error()) {}
    ~Handle() { close(); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    void close();
    void* value;
    uint32_t error;
};

void* create_mutex(const std::string& name);
void* open_mutex(const std::string& name);
void* create_mapping(const std::string& name, uint64_t size = page);
/// A mapping of one page.
void* create_page(const std::string& name);
void* open_mapping(const std::string& name);
char* map(void* mapping);
void* open_to_read(const std::string& name);
char* map_to_read(void* mapping);

/// Mutexes and mappings, for what they have in common.
struct Kind {
    const char* name;
    void* (*create)(const std::string& name);
    void* (*open)(const std::string& name);
    fs::path (*file)(const std::string& name);
};
inline constexpr Kind kinds[] = {{"Mutex", create_mutex, open_mutex, file_of_mutex},
                                 {"Mapping", create_page, open_mapping, file_of_mapping}};

/// Creates an object and checks that it is new.
void expect_new(void* (*create)(const std::string&), const std::string& name);

/// Creates and opens the running test's mutex and checks that both fail with this error.
void expect_mutex_refused(uint32_t error);

kzmkernel_mutex_info info_of(void* mutex);

uint64_t clock_ns(clockid_t clock);

/// Leaves a part of the stack full of ones for the next call.
void fill_stack();

/// Where this process has a file mapped.
uint8_t* mapped_page_of(const fs::path& file);

/// How often another process calls the kernel for a mutex while it takes and releases it a hundred times.
int calls_to_futex_of_100_takes(void* mutex);

/// A thread that waits for a mutex, is asleep once this is constructed, and releases the mutex when it owns it.
class SleepingWaiter {
  public:
    explicit SleepingWaiter(void* mutex);
    /// Waits for the result of the wait.
    uint32_t result();

  private:
    uint32_t result_ = KZMKERNEL_WAIT_FAILED;
    SleepingThread thread_;
};

/// Two waiters for the caller's mutex, which is then released: the first waiter was woken and is stopped on its way out
/// of the kernel.
struct WokenAndSleeping {
    explicit WokenAndSleeping(void* mutex);
    SleepingProcess woken;
    SleepingWaiter sleeping;
};

}  // namespace kernel_test
