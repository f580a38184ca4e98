// What the tests of the kernel calls share: both kernel32 and kzmkernel must keep the same contract.
#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>

#include "kernel.h"
#include "kernel_objects.h"
#include "support/child.h"

namespace kernel_contract {

namespace kernel = shmnm::kernel;

inline constexpr uint32_t owned = 0, abandoned = 0x80, timed_out = 258, failed = 0xFFFFFFFF, infinite = 0xFFFFFFFF;
inline constexpr uint32_t for_reading = 4, for_everything = 0xF001F;
inline constexpr uint32_t error_not_found = 2, error_access_denied = 5, error_invalid_handle = 6, error_no_memory = 8,
                          error_invalid_parameter = 87, error_disk_full = 112, error_not_owner = 288,
                          error_commitment_limit = 1455;
inline constexpr uint64_t page = 4096, no_last_error = 777;

/// A name that only this run uses.
inline std::string object_name(const std::string& name) {
    return std::getenv("KZMUTIL_NAMESPACE") + ("kernel-" + name);
}

/// The name of an object of the running test. In a child it comes as the child's argument.
inline std::string object_name() {
    return object_name(testing::UnitTest::GetInstance()->current_test_info()->name());
}

/// A handle that closes itself.
class Handle {
  public:
    explicit Handle(void* handle) : handle_(handle) {}
    ~Handle() {
        if (handle_) kernel::close(handle_);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    void* get() const { return handle_; }
    bool close() { return kernel::close(std::exchange(handle_, nullptr)); }

  private:
    void* handle_;
};

/// Runs a function in a thread of its own, which ends with it.
template <typename Result>
Result in_another_thread(Result (*function)(void*), void* argument) {
    Result result{};
    std::thread([&] { result = function(argument); }).join();
    return result;
}

inline uint32_t try_wait(void* mutex) {
    return kernel::wait(mutex, 0);
}

inline uint32_t try_and_give_back(void* mutex) {
    const uint32_t result = kernel::wait(mutex, 0);
    if (result == owned || result == abandoned) kernel::release(mutex);
    return result;
}

inline bool is_owned_by_another(void* mutex) {
    return in_another_thread(try_and_give_back, mutex) == timed_out;
}

struct Attempt {
    bool done;
    uint32_t error;
};
inline Attempt try_release(void* mutex) {
    const bool done = kernel::release(mutex);
    return {done, kernel::last_error()};
}

}  // namespace kernel_contract
