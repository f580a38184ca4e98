// What benchmarks need from the system: shared memory, the simplest mutex that survives the death of its owner, a
// clock. Everything is inline, so that the floor has no cost beyond these steps.
#pragma once

#include <windows.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace bench {

/// Named shared memory, filled with zeros by its creator.
class SharedMemory {
  public:
    SharedMemory(const std::string& name, size_t size, bool create)
        : mapping_(create ? CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                               static_cast<DWORD>(size), name.c_str())
                          : OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, name.c_str())),
          memory_(mapping_ ? MapViewOfFile(mapping_, FILE_MAP_ALL_ACCESS, 0, 0, 0) : nullptr) {
        if (!memory_) throw std::runtime_error("no shared memory " + name);
    }
    ~SharedMemory() {
        UnmapViewOfFile(memory_);
        CloseHandle(mapping_);
    }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    void* get() const { return memory_; }

  private:
    HANDLE mapping_;
    void* memory_;
};

/// A named kernel mutex, which is recursive and is handed on when its owner ends.
class RobustMutex {
  public:
    static constexpr size_t size = 0;

    RobustMutex(void*, const std::string& name, bool) : mutex_(CreateMutexA(nullptr, FALSE, name.c_str())) {}
    ~RobustMutex() { CloseHandle(mutex_); }
    RobustMutex(const RobustMutex&) = delete;
    RobustMutex& operator=(const RobustMutex&) = delete;

    void take() { WaitForSingleObject(mutex_, INFINITE); }
    void release() { ReleaseMutex(mutex_); }

  private:
    HANDLE mutex_;
};

inline uint64_t now_ns() {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

/// Keeps this process on one processor.
inline void pin_to_processor(unsigned number) {
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    SetProcessAffinityMask(GetCurrentProcess(), DWORD_PTR{1} << number % system.dwNumberOfProcessors);
}

}  // namespace bench
