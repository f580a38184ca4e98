#include "support/kernel_linux.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace kernel_test {

std::string object_name() {
    std::string name = std::getenv("KZMUTIL_NAMESPACE");
    name += testing::UnitTest::GetInstance()->current_test_info()->name();
    std::replace(name.begin(), name.end(), '/', '-');
    return name;
}

fs::path folder() {
    return "/dev/shm/kzmkernel." + std::to_string(geteuid());
}
fs::path sibling() {
    return folder().string() + ".guard";
}
fs::path file_of_mutex(const std::string& name) {
    return folder() / ("m." + name);
}
fs::path file_of_mapping(const std::string& name) {
    return folder() / ("s." + name);
}

void Handle::close() {
    if (value) kzmkernel_close(std::exchange(value, nullptr));
}

void* create_mutex(const std::string& name) {
    return kzmkernel_create_mutex(name.c_str());
}
void* open_mutex(const std::string& name) {
    return kzmkernel_open_mutex(name.c_str());
}
void* create_mapping(const std::string& name, uint64_t size) {
    return kzmkernel_create_mapping(4, size, name.c_str());
}
void* create_page(const std::string& name) {
    return create_mapping(name);
}
void* open_mapping(const std::string& name) {
    return kzmkernel_open_mapping(for_everything, name.c_str());
}
char* map(void* mapping) {
    return static_cast<char*>(kzmkernel_map_view(mapping, for_writing, 0, 0));
}
void* open_to_read(const std::string& name) {
    return kzmkernel_open_mapping(for_reading, name.c_str());
}
char* map_to_read(void* mapping) {
    return static_cast<char*>(kzmkernel_map_view(mapping, for_reading, 0, 0));
}

void expect_new(void* (*create)(const std::string&), const std::string& name) {
    const Handle handle(create(name));
    EXPECT_NE(handle.value, nullptr);
    EXPECT_EQ(handle.error, 0u);
}

void expect_mutex_refused(uint32_t error) {
    EXPECT_EQ(Handle(create_mutex(object_name())).error, error);
    EXPECT_EQ(Handle(open_mutex(object_name())).error, error);
}

kzmkernel_mutex_info info_of(void* mutex) {
    kzmkernel_mutex_info info{};
    EXPECT_TRUE(kzmkernel_mutex_info_get(mutex, &info));
    return info;
}

uint64_t clock_ns(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

[[gnu::noinline]] void fill_stack() {
    char bytes[100'000];
    std::memset(bytes, 0xFF, sizeof bytes);
    asm volatile("" : : "r"(bytes) : "memory");
}

uint8_t* mapped_page_of(const fs::path& file) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(file.string()) == std::string::npos) continue;
        return reinterpret_cast<uint8_t*>(std::stoull(line, nullptr, 16));
    }
    throw std::runtime_error("not mapped: " + file.string());
}

int calls_to_futex_of_100_takes(void* mutex) {
    Traced other([mutex] {
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
            EXPECT_TRUE(kzmkernel_release(mutex));
        }
    });
    int calls = 0;
    while (other.step()) {
        const std::vector<uint64_t> call = other.entered();
        if (!call.empty() && call[0] == SYS_futex) ++calls;
    }
    EXPECT_EQ(other.status(), 0);
    return calls;
}

SleepingWaiter::SleepingWaiter(void* mutex)
    : thread_([this, mutex] {
          result_ = kzmkernel_wait(mutex, 20'000);
          kzmkernel_release(mutex);
      }) {}

uint32_t SleepingWaiter::result() {
    thread_.join();
    return result_;
}

WokenAndSleeping::WokenAndSleeping(void* mutex)
    : woken([mutex] { kzmkernel_wait(mutex, KZMKERNEL_INFINITE); }), sleeping(mutex) {
    if (!kzmkernel_release(mutex) || !woken.stands()) throw std::runtime_error("nobody was woken");
}

}  // namespace kernel_test
