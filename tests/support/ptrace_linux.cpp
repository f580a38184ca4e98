#include "support/ptrace_linux.h"

#include <sys/ptrace.h>

#include <cerrno>
#include <system_error>

namespace test {

void throw_system_error(const char* call) {
    throw std::system_error(errno, std::generic_category(), call);
}

uint64_t peek(pid_t process, uint64_t address) {
    errno = 0;
    const long word = ptrace(PTRACE_PEEKDATA, process, address, nullptr);
    if (errno != 0) throw_system_error("PTRACE_PEEKDATA");
    return static_cast<uint64_t>(word);
}

void poke(pid_t process, uint64_t address, uint64_t word) {
    if (ptrace(PTRACE_POKEDATA, process, address, word) != 0) throw_system_error("PTRACE_POKEDATA");
}

user_regs_struct registers_of(pid_t process) {
    user_regs_struct registers{};
    if (ptrace(PTRACE_GETREGS, process, nullptr, &registers) != 0) throw_system_error("PTRACE_GETREGS");
    return registers;
}

void set_registers(pid_t process, const user_regs_struct& registers) {
    if (ptrace(PTRACE_SETREGS, process, nullptr, &registers) != 0) throw_system_error("PTRACE_SETREGS");
}

}  // namespace test
