#include "support/traced_linux.h"

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <iterator>
#include <stdexcept>

#include "support/ptrace_linux.h"

namespace test {

Traced::Traced(const std::function<void()>& body)
    : child_([&] {
          if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(3);
          raise(SIGSTOP);
          body();
      }) {
    int status = 0;
    if (waitpid(id(), &status, 0) != id() || !WIFSTOPPED(status)) throw std::runtime_error("the child did not stop");
    ptrace(PTRACE_SETOPTIONS, id(), nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
}

void Traced::go() {
    ptrace(PTRACE_SYSCALL, id(), nullptr, nullptr);
}

bool Traced::stands() {
    for (;;) {
        int status = 0;
        while (waitpid(id(), &status, 0) < 0 && errno == EINTR) {
        }
        if (!WIFSTOPPED(status)) {
            status_ = status;
            return false;
        }
        if (WSTOPSIG(status) == (SIGTRAP | 0x80)) return true;
        ptrace(PTRACE_SYSCALL, id(), nullptr, WSTOPSIG(status));
    }
}

bool Traced::step() {
    go();
    return stands();
}

std::vector<uint64_t> Traced::entered() const {
    __ptrace_syscall_info info{};
    ptrace(PTRACE_GET_SYSCALL_INFO, id(), sizeof info, &info);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY) return {};
    std::vector<uint64_t> call{info.entry.nr};
    call.insert(call.end(), std::begin(info.entry.args), std::end(info.entry.args));
    return call;
}

int64_t Traced::left() const {
    return static_cast<int64_t>(registers_of(id()).rax);
}

void Traced::run_until_it_enters(uint64_t number) {
    while (step()) {
        const std::vector<uint64_t> call = entered();
        if (!call.empty() && call[0] == number) return;
    }
    throw std::runtime_error("the child ended without system call " + std::to_string(number));
}

uint64_t Traced::word_at(uint64_t address) const {
    return peek(id(), address);
}

void Traced::fail_call(int error) {
    user_regs_struct registers = registers_of(id());
    registers.orig_rax = ~0ULL;  // no call, which the kernel answers with ENOSYS
    set_registers(id(), registers);
    if (!step()) throw std::runtime_error("the child ended in a system call");
    registers = registers_of(id());
    registers.rax = static_cast<unsigned long long>(-error);
    set_registers(id(), registers);
}

}  // namespace test
