// What tests of kzmkernel share: objects of the running test and their files, children made by fork() and how they are
// held, stepped and stopped.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/child.h"
#include "support/temporary_folder.h"

namespace kernel_test {

namespace fs = std::filesystem;

inline constexpr uint32_t for_everything = 0xF001F;
inline constexpr size_t page = 4096, kib = 1024;

inline std::string object_name() {
    std::string name = std::getenv("KZMUTIL_NAMESPACE");
    name += testing::UnitTest::GetInstance()->current_test_info()->name();
    std::replace(name.begin(), name.end(), '/', '-');
    return name;
}

inline fs::path folder() {
    return "/dev/shm/kzmkernel." + std::to_string(geteuid());
}
inline fs::path file_of_mutex(const std::string& name) {
    return folder() / ("m." + name);
}
inline fs::path file_of_mapping(const std::string& name) {
    return folder() / ("s." + name);
}

/// An object's handle, closed with its owner, and the last error that its making left.
struct Handle {
    explicit Handle(void* made) : value(made), error(kzmkernel_last_error()) {}
    ~Handle() {
        if (value) kzmkernel_close(value);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    void close() { kzmkernel_close(std::exchange(value, nullptr)); }
    void* value;
    uint32_t error;
};
inline void* create_mutex(const std::string& name) {
    return kzmkernel_create_mutex(name.c_str());
}
inline void* create_mapping(const std::string& name, uint64_t size = page) {
    return kzmkernel_create_mapping(4, size, name.c_str());
}
inline void* open_mapping(const std::string& name) {
    return kzmkernel_open_mapping(for_everything, name.c_str());
}
inline char* map(void* mapping) {
    return static_cast<char*>(kzmkernel_map_view(mapping, 2, 0, 0));
}

/// Both kinds, for what they have in common.
struct Kind {
    const char* name;
    void* (*create)(const std::string& name);
    void* (*open)(const std::string& name);
    fs::path (*file)(const std::string& name);
};
inline void* open_mutex(const std::string& name) {
    return kzmkernel_open_mutex(name.c_str());
}
inline void* create_page(const std::string& name) {
    return create_mapping(name);
}
inline constexpr Kind kinds[] = {{"Mutex", create_mutex, open_mutex, file_of_mutex},
                                 {"Mapping", create_page, open_mapping, file_of_mapping}};

/// A child made by fork(), which runs a function. Failures in it are failures of its end.
class Forked {
  public:
    explicit Forked(const std::function<void()>& body, int flags = 0) {
        std::fflush(nullptr);
        if (flags != 0 && unshare(flags) != 0) throw std::runtime_error("unshare");
        pid_ = fork();
        if (pid_ != 0) return;
        body();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure());
    }
    ~Forked() { kill(); }
    Forked(const Forked&) = delete;
    Forked& operator=(const Forked&) = delete;
    pid_t id() const { return pid_; }
    int wait() {
        if (ended_) return status_;
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        ended_ = true;
        return status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    void kill() {
        if (ended_) return;
        ::kill(pid_, SIGKILL);
        wait();
    }

  private:
    pid_t pid_ = 0;
    bool ended_ = false;
    int status_ = 0;
};

/// Runs a part of a test in a process of its own, whose failures are the test's.
inline void in_fork(const std::function<void()>& body) {
    Forked child(body);
    EXPECT_EQ(child.wait(), 0);
}

/// A pipe between the processes of a test: one gives a sign, the other waits for it.
class Sign {
  public:
    Sign() {
        if (pipe2(ends_, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    }
    ~Sign() {
        close(ends_[0]);
        close(ends_[1]);
    }
    Sign(const Sign&) = delete;
    Sign& operator=(const Sign&) = delete;
    void give() {
        if (write(ends_[1], "!", 1) != 1) std::abort();
    }
    void await() {
        char byte = 0;
        ssize_t count = 0;
        do {
            count = read(ends_[0], &byte, 1);
        } while (count < 0 && errno == EINTR);
        if (count != 1) std::abort();
    }

  private:
    int ends_[2];
};

[[noreturn]] inline void hang() {
    for (;;) pause();
}

inline void write_text(const fs::path& file, const std::string& text) {
    std::ofstream(file) << text;
}

/// Gives this process, alone, a memory disk of that size. Whoever is not root becomes root of a user namespace for it.
inline void use_private_memory_disk(const std::string& options = "size=64m") {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    ASSERT_EQ(unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER), 0) << strerror(errno);
    if (user != 0) {
        write_text("/proc/self/setgroups", "deny");
        write_text("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
        write_text("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    }
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
    ASSERT_EQ(mount("tmpfs", "/dev/shm", "tmpfs", 0, options.c_str()), 0) << strerror(errno);
    ASSERT_EQ(chmod("/dev/shm", 01777), 0);
}

/// In the running process: the object is new, so no other one lives under its name.
inline void expect_new(void* (*create)(const std::string&), const std::string& name) {
    const Handle handle(create(name));
    EXPECT_NE(handle.value, nullptr);
    EXPECT_EQ(handle.error, 0u);
}

/// A child made by fork() that is run from one system call to the next.
class Traced {
  public:
    explicit Traced(const std::function<void()>& body)
        : child_([&] {
              if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(3);
              raise(SIGSTOP);
              body();
          }) {
        int status = 0;
        if (waitpid(child_.id(), &status, 0) != child_.id() || !WIFSTOPPED(status)) throw std::runtime_error("no stop");
        ptrace(PTRACE_SETOPTIONS, child_.id(), nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    }

    /// Lets it run on to where it enters or leaves a system call.
    void go() { ptrace(PTRACE_SYSCALL, child_.id(), nullptr, nullptr); }
    /// Waits until it stands there; false when it ended.
    bool stands() {
        for (;;) {
            int status = 0;
            while (waitpid(child_.id(), &status, 0) < 0 && errno == EINTR) {
            }
            if (!WIFSTOPPED(status)) {
                status_ = status;
                return false;
            }
            if (WSTOPSIG(status) == (SIGTRAP | 0x80)) return true;
            ptrace(PTRACE_SYSCALL, child_.id(), nullptr, WSTOPSIG(status));
        }
    }
    bool step() {
        go();
        return stands();
    }
    /// The call that it enters: its number and its arguments; nothing when it does not enter one.
    std::vector<uint64_t> entered() const {
        __ptrace_syscall_info info{};
        ptrace(PTRACE_GET_SYSCALL_INFO, child_.id(), sizeof info, &info);
        if (info.op != PTRACE_SYSCALL_INFO_ENTRY) return {};
        std::vector<uint64_t> call{info.entry.nr};
        call.insert(call.end(), std::begin(info.entry.args), std::end(info.entry.args));
        return call;
    }
    void run_until_it_enters(uint64_t number) {
        while (step()) {
            const std::vector<uint64_t> call = entered();
            if (!call.empty() && call[0] == number) return;
        }
        throw std::runtime_error("no such call");
    }
    /// 8 bytes of its memory.
    uint64_t word_at(uint64_t address) const {
        errno = 0;
        const long word = ptrace(PTRACE_PEEKDATA, child_.id(), address, nullptr);
        if (errno != 0) throw std::runtime_error("PTRACE_PEEKDATA");
        return static_cast<uint64_t>(word);
    }
    /// Where it enters a system call: makes that fail instead.
    void fail_call(int error) {
        user_regs_struct registers{};
        ptrace(PTRACE_GETREGS, child_.id(), nullptr, &registers);
        registers.orig_rax = ~0ULL;
        ptrace(PTRACE_SETREGS, child_.id(), nullptr, &registers);
        if (!step()) throw std::runtime_error("ended in a call");
        ptrace(PTRACE_GETREGS, child_.id(), nullptr, &registers);
        registers.rax = static_cast<unsigned long long>(-error);
        ptrace(PTRACE_SETREGS, child_.id(), nullptr, &registers);
    }
    pid_t id() const { return child_.id(); }
    void kill() { child_.kill(); }
    /// Of one that ended.
    int status() const { return status_; }

  private:
    Forked child_;
    int status_ = 0;
};

/// How often another process calls the kernel for the lock while it takes and releases it a hundred times.
inline int calls_to_futex_of_100_takes(void* mutex) {
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

inline kzmkernel_mutex_info info_of(void* mutex) {
    kzmkernel_mutex_info info{};
    EXPECT_TRUE(kzmkernel_mutex_info_get(mutex, &info));
    return info;
}

/// Waits until a thread sleeps in futex().
inline void until_it_sleeps_in_a_futex(pid_t process, pid_t thread) {
    const fs::path file = "/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) + "/syscall";
    while (test::contents_of(file).rfind(std::to_string(SYS_futex) + " ", 0) != 0) std::this_thread::yield();
}

/// A traced process that sleeps in the kernel once this is made, because of what it does.
class SleepingProcess : public Traced {
  public:
    explicit SleepingProcess(const std::function<void()>& body) : Traced(body) {
        run_until_it_enters(SYS_futex);
        go();
        until_it_sleeps_in_a_futex(id(), id());
    }
};

/// A thread that sleeps in the kernel once this is made, because of what it does.
class SleepingThread {
  public:
    explicit SleepingThread(const std::function<void()>& body)
        : thread_([this, body] {
              id_ = gettid();
              body();
          }) {
        while (id_ == 0) std::this_thread::yield();
        until_it_sleeps_in_a_futex(getpid(), id_);
    }
    ~SleepingThread() {
        if (thread_.joinable()) thread_.join();
    }
    SleepingThread(const SleepingThread&) = delete;
    SleepingThread& operator=(const SleepingThread&) = delete;

    void join() { thread_.join(); }

  private:
    std::atomic<pid_t> id_{0};
    std::thread thread_;
};

/// A thread that waits for a mutex, asleep in the kernel once this is made, and releases it when it had it.
class SleepingWaiter {
  public:
    explicit SleepingWaiter(void* mutex)
        : thread_([this, mutex] {
              result_ = kzmkernel_wait(mutex, 20'000);
              kzmkernel_release(mutex);
          }) {}

    /// What the wait comes to; waits for it.
    uint32_t result() {
        thread_.join();
        return result_;
    }

  private:
    uint32_t result_ = KZMKERNEL_WAIT_FAILED;
    SleepingThread thread_;
};

/// Two that waited for the caller's mutex, which is released: the first has been woken and stands on its way out of the
/// kernel.
struct WokenAndSleeping {
    explicit WokenAndSleeping(void* mutex)
        : woken([mutex] { kzmkernel_wait(mutex, KZMKERNEL_INFINITE); }), sleeping(mutex) {
        if (!kzmkernel_release(mutex) || !woken.stands()) throw std::runtime_error("nobody was woken");
    }

    SleepingProcess woken;
    SleepingWaiter sleeping;
};

}  // namespace kernel_test
