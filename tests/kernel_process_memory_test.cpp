// The process's own memory: what kzmkernel answers when the heap has too little, and that it expects nothing of what
// the stack holds.
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/uio.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/stepper_linux.h"
#include "support/temporary_folder.h"

namespace {

using namespace kernel_test;

constexpr int unlimited = -1;
thread_local int allocations_left = unlimited;
thread_local bool was_refused = false;

}  // namespace

// Takes the place of the C library's, also for kzmkernel.
[[gnu::visibility("default")]] void* malloc(size_t size) noexcept {
    if (allocations_left == 0) {
        was_refused = true;
        errno = ENOMEM;
        return nullptr;
    }
    if (allocations_left > 0) --allocations_left;
    return std::aligned_alloc(alignof(std::max_align_t), size);
}

namespace {

/// While it lives, its thread's heap has memory for so many allocations.
class Heap {
  public:
    explicit Heap(int allocations) {
        was_refused = false;
        allocations_left = allocations;
    }
    ~Heap() { allocations_left = unlimited; }
    Heap(const Heap&) = delete;
    Heap& operator=(const Heap&) = delete;
};

/// What a call gave, and the last error after it.
struct Answer {
    void* result;
    uint32_t error;
};

template <typename Call>
Answer with_allocations(int allocations, const Call& call) {
    kzmkernel_set_last_error(0);
    const Heap heap(allocations);
    void* const result = call();
    return {result, kzmkernel_last_error()};
}

TEST(KernelHeap, FailsEveryCallWith8WhenItIsEmpty) {
    const std::string name = object_name(), name_of_mutex = name + "mutex", other = name + "other";
    const Handle mapping(create_page(name)), mutex(create_mutex(name_of_mutex));
    const auto expect_refused = [](const auto& call) {
        const Answer answer = with_allocations(0, call);
        EXPECT_EQ(answer.result, nullptr);
        EXPECT_EQ(answer.error, uint32_t{KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY});
    };
    expect_refused([&] { return create_mutex(other); });
    expect_refused([&] { return create_page(other); });
    expect_refused([&] { return open_mutex(name_of_mutex); });
    expect_refused([&] { return open_mapping(name); });
    expect_refused([&] { return map(mapping.value); });
    for (const Kind& kind : kinds) EXPECT_FALSE(fs::exists(kind.file(other)));
    expect_new(create_mutex, other);
    EXPECT_TRUE(kzmkernel_unmap_view(map(mapping.value)));
}

/// Calls with one more allocation each time, until none is refused. A call that fails leaves nothing behind.
/// @return how many fail
int failures_with_too_little(void* (*call)(const std::string&), const std::string& name) {
    const bool was_there = fs::exists(file_of_mutex(name));
    int failures = 0;
    was_refused = true;
    for (int allocations = 0; was_refused; ++allocations) {
        const Answer answer = with_allocations(allocations, [&] { return call(name); });
        if (answer.result) {
            EXPECT_TRUE(kzmkernel_close(answer.result));
            continue;
        }
        ++failures;
        EXPECT_EQ(answer.error, uint32_t{KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY}) << allocations;
        EXPECT_EQ(contents_of("/proc/self/maps").find(folder().string() + '/'), std::string::npos) << allocations;
        EXPECT_EQ(fs::exists(file_of_mutex(name)), was_there) << allocations;
    }
    return failures;
}

TEST(KernelHeap, LeavesNothingOfACreatedMutexWhenItHasTooLittle) {
    in_fork([] { EXPECT_GE(failures_with_too_little(create_mutex, object_name()), 3); });
}

TEST(KernelHeap, LeavesNothingOfAnOpenedMutexWhenItHasTooLittle) {
    Sign created;
    Forked holder([&] {
        create_mutex(object_name());
        created.give();
        pause_forever();
    });
    created.await();
    in_fork([] { EXPECT_GE(failures_with_too_little(open_mutex, object_name()), 2); });
}

/// Makes the child's steps. At the entry of each function it fills the stack below with ones: there, nothing means
/// anything.
void step_with_a_full_stack(Stepper& child) {
    constexpr size_t most_of_an_instruction = 15;
    std::vector<char> ones(64 * kib, '\xFF');
    user_regs_struct before = child.registers();
    while (child.step() == Stepper::State::held) {
        const user_regs_struct now = child.registers();
        const bool called = now.rsp == before.rsp - sizeof(uint64_t) && now.rip - before.rip > most_of_an_instruction;
        before = now;
        if (!called) continue;
        const iovec from{ones.data(), ones.size()}, to{reinterpret_cast<void*>(now.rsp - ones.size()), ones.size()};
        if (process_vm_writev(static_cast<pid_t>(child.child().process_id()), &from, 1, &to, 1, 0) !=
            static_cast<ssize_t>(ones.size())) {
            throw std::runtime_error("cannot fill the stack");
        }
    }
    if (child.state() == Stepper::State::at_end) child.let_go();
}

CHILD(creates_a_mutex) {
    const Handle other(create_mutex(argument() + "other"));
    fill_stack();
    begin_steps();
    void* const mutex = kzmkernel_create_mutex(argument().c_str());
    end_steps();
    report(kzmkernel_last_error());
    report(kzmkernel_wait(mutex, 0));
    report(kzmkernel_wait(mutex, 0));
}

TEST(KernelStack, MayHoldAnythingWhenAMutexIsCreated) {
    Stepper child(creates_a_mutex, object_name());
    step_with_a_full_stack(child);
    EXPECT_EQ(child.child().reported(), 0u);
    EXPECT_EQ(child.child().reported(), uint64_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_EQ(child.child().reported(), uint64_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_EQ(child.child().wait(), 0);
}

CHILD(creates_a_mapping_beyond_its_limit) {
    const rlimit limit{100 * kib, 100 * kib};
    sigset_t own, pending;
    sigemptyset(&own);
    sigaddset(&own, SIGUSR1);
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0 || pthread_sigmask(SIG_BLOCK, &own, nullptr) != 0) std::abort();
    raise(SIGUSR1);
    const Handle other(create_page(argument() + "other"));
    fill_stack();
    begin_steps();
    kzmkernel_create_mapping(4, 1024 * kib, argument().c_str());
    end_steps();
    report(kzmkernel_last_error());
    sigpending(&pending);
    report(sigismember(&pending, SIGUSR1) == 1);
    report(sigismember(&pending, SIGXFSZ) == 1);
}

TEST(KernelStack, MayHoldAnythingWhenAMappingExceedsTheLimitOfFileSizes) {
    Stepper child(creates_a_mapping_beyond_its_limit, object_name());
    step_with_a_full_stack(child);
    EXPECT_EQ(child.child().reported(), uint64_t{KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(child.child().reported(), 1u) << "the program's own signal";
    EXPECT_EQ(child.child().reported(), 0u);
    EXPECT_EQ(child.child().wait(), 0);
}

}  // namespace
