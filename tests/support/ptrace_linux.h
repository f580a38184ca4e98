// Memory and registers of a process that this one traces and that is stopped. All functions throw if the system
// refuses.
#pragma once

#include <sys/types.h>
#include <sys/user.h>

#include <cstdint>

namespace test {

/// 8 bytes of its memory.
uint64_t peek(pid_t process, uint64_t address);
void poke(pid_t process, uint64_t address, uint64_t word);

user_regs_struct registers_of(pid_t process);
void set_registers(pid_t process, const user_regs_struct& registers);

/// Throws the error of the last system call.
[[noreturn]] void throw_system_error(const char* call);

}  // namespace test
