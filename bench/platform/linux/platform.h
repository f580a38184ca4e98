// What benchmarks need from the system: shared memory, the simplest mutex that survives the death of its owner, a
// clock. Everything is inline, so that the floor has no cost beyond these steps.
#pragma once

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <stdexcept>
#include <string>

namespace bench {

/// Named shared memory, filled with zeros by its creator, who also removes the name at the end.
class SharedMemory {
  public:
    SharedMemory(const std::string& name, size_t size, bool create) : name_(create ? "/" + name : ""), size_(size) {
        const std::string path = "/" + name;
        const int descriptor = shm_open(path.c_str(), O_RDWR | (create ? O_CREAT | O_TRUNC : 0), 0600);
        if (descriptor < 0) throw std::runtime_error("shm_open " + path);
        const bool sized = !create || posix_fallocate(descriptor, 0, static_cast<off_t>(size)) == 0;
        memory_ = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
        close(descriptor);
        if (!sized || memory_ == MAP_FAILED) throw std::runtime_error("mmap " + path);
    }
    ~SharedMemory() {
        munmap(memory_, size_);
        if (!name_.empty()) shm_unlink(name_.c_str());
    }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    void* get() const { return memory_; }

  private:
    std::string name_;
    size_t size_;
    void* memory_;
};

/// A robust process-shared recursive mutex in shared memory.
class RobustMutex {
  public:
    static constexpr size_t size = sizeof(pthread_mutex_t);

    RobustMutex(void* place, const std::string&, bool create) : mutex_(static_cast<pthread_mutex_t*>(place)) {
        if (!create) return;
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(mutex_, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    void take() {
        if (pthread_mutex_lock(mutex_) == EOWNERDEAD) pthread_mutex_consistent(mutex_);
    }
    void release() { pthread_mutex_unlock(mutex_); }

  private:
    pthread_mutex_t* mutex_;
};

inline uint64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

/// Keeps this process on one processor.
inline void pin_to_processor(unsigned number) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(number % static_cast<unsigned>(sysconf(_SC_NPROCESSORS_ONLN)), &set);
    sched_setaffinity(0, sizeof set, &set);
}

}  // namespace bench
