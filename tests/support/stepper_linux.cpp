#include "support/stepper_linux.h"

#include <sys/ptrace.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>

#include "support/ptrace_linux.h"

namespace test {
namespace {

constexpr uint64_t no_more_addresses = 0;

/// The siginfo code of a trap that an int3 instruction made; a single step has another one.
bool came_from_int3(pid_t process) {
    siginfo_t information{};
    if (ptrace(PTRACE_GETSIGINFO, process, nullptr, &information) != 0) throw_system_error("PTRACE_GETSIGINFO");
    return information.si_code == SI_KERNEL;
}

}  // namespace

void begin_steps() {
    // For a child that was let go: without its stepper a trap must not end it.
    std::signal(SIGTRAP, [](int) {});
    report(no_more_addresses);
    told();
    asm volatile("int3" ::: "memory");
}
void end_steps() {
    asm volatile("int3" ::: "memory");
}
void tell_address(const volatile void* address) {
    report(reinterpret_cast<uint64_t>(address));
}

Watched::Watched(std::span<const volatile uint8_t> bytes)
    : bytes_(const_cast<const uint8_t*>(bytes.data()), bytes.size()), copy_(bytes_.begin(), bytes_.end()) {}

bool Watched::changed() {
    if (std::memcmp(bytes_.data(), copy_.data(), copy_.size()) == 0) return false;
    std::memcpy(copy_.data(), bytes_.data(), copy_.size());
    return true;
}

Stepper::Stepper(const ChildBody& body, std::string_view argument) : child_(start(body, argument)) {
    if (ptrace(PTRACE_SEIZE, id(), nullptr, PTRACE_O_EXITKILL) != 0) throw_system_error("PTRACE_SEIZE");
    await_begin();
}

void Stepper::await_begin() {
    addresses_.clear();
    for (uint64_t told_address; (told_address = child_.reported()) != no_more_addresses;) {
        addresses_.push_back(told_address);
    }
    child_.tell(1);
    if (wait() != State::at_end) throw std::runtime_error("the child did not come to begin_steps()");
    state_ = State::held;
}

void Stepper::begin_again() {
    run();
    await_begin();
}

int Stepper::id() const {
    return static_cast<int>(child_.process_id());
}

void Stepper::resume(int request) {
    if (state_ != State::held && state_ != State::at_end) throw std::logic_error("the child is not held");
    request_ = request;
    if (ptrace(static_cast<__ptrace_request>(request), id(), nullptr, static_cast<long>(signal_)) != 0)
        throw_system_error("ptrace");
    signal_ = 0;
    state_ = State::running;
}

void Stepper::begin_step() {
    resume(PTRACE_SINGLESTEP);
    ++steps_;
}
void Stepper::run() {
    resume(PTRACE_CONT);
}

Stepper::State Stepper::wait() {
    while (state_ == State::running) {
        siginfo_t stop{};
        // An end is left for Child to reap.
        if (waitid(P_PID, static_cast<id_t>(id()), &stop, WEXITED | WSTOPPED | WNOWAIT) != 0)
            throw_system_error("waitid");
        if (stop.si_code != CLD_TRAPPED && stop.si_code != CLD_STOPPED) return state_ = State::ended;
        int status = 0;
        if (waitpid(id(), &status, __WALL) < 0) throw_system_error("waitpid");
        state_ = State::held;
        const int signal = WSTOPSIG(status);
        if (status >> 16 == PTRACE_EVENT_STOP) {
            // One that an earlier hold() asked for, when the child had stopped already, is passed over.
            if (!holding_ && signal == SIGTRAP) resume(request_);
            holding_ = false;
        } else if (signal != SIGTRAP) {
            signal_ = signal;
        } else if (came_from_int3(id())) {
            state_ = State::at_end;
        }
    }
    return state_;
}

Stepper::State Stepper::step() {
    begin_step();
    return wait();
}
Stepper::State Stepper::step(uint64_t count) {
    while (count-- > 0 && state_ == State::held) step();
    return state_;
}

bool Stepper::step_until_changed(Watched& watched) {
    while (step() == State::held) {
        if (watched.changed()) return true;
    }
    return false;
}

void Stepper::step_through(Watched& watched, const std::function<void()>& after) {
    while (state_ == State::held && step_until_changed(watched)) after();
}

bool Stepper::step_to(uint64_t wanted) {
    while (state_ == State::held) {
        if (address() == wanted) return true;
        step();
    }
    return false;
}

bool Stepper::run_to(uint64_t wanted) {
    constexpr uint64_t int3 = 0xCC, lowest_byte = 0xFF;
    if (address() == wanted) return true;
    const uint64_t code = peek(wanted);
    poke(wanted, (code & ~lowest_byte) | int3);
    run();
    wait();
    if (state_ == State::ended) return false;
    poke(wanted, code);
    user_regs_struct there = registers();
    if (there.rip != wanted + 1) return false;
    there.rip = wanted;
    set_registers(id(), there);
    state_ = State::held;
    return true;
}

bool Stepper::step_to_system_call(long number) {
    constexpr uint64_t syscall_instruction = 0x050F, two_bytes = 0xFFFF;
    while (state_ == State::held) {
        const user_regs_struct there = registers();
        if (static_cast<long>(there.rax) == number && (peek(there.rip) & two_bytes) == syscall_instruction) return true;
        step();
    }
    return false;
}

Stepper::State Stepper::hold() {
    if (state_ != State::running) return state_;
    if (ptrace(PTRACE_INTERRUPT, id(), nullptr, nullptr) != 0 && errno != ESRCH) throw_system_error("PTRACE_INTERRUPT");
    holding_ = true;
    wait();
    holding_ = false;
    return state_;
}

void Stepper::wait_until_asleep() {
    const std::string file = "/proc/" + std::to_string(id()) + "/stat";
    for (;;) {
        std::string line;
        std::getline(std::ifstream(file), line);
        const size_t state = line.rfind(") ");
        if (state == std::string::npos || std::strchr("SDTtZX", line.at(state + 2))) return;
        sched_yield();
    }
}

user_regs_struct Stepper::registers() const {
    return registers_of(id());
}
uint64_t Stepper::address() const {
    return registers().rip;
}
uint64_t Stepper::peek(uint64_t where) const {
    return test::peek(id(), where);
}
void Stepper::poke(uint64_t where, uint64_t word) {
    test::poke(id(), where, word);
}

void Stepper::let_go() {
    hold();
    if (state_ == State::ended) return;
    if (ptrace(PTRACE_DETACH, id(), nullptr, static_cast<long>(signal_)) != 0) throw_system_error("PTRACE_DETACH");
    state_ = State::running;
}

void Stepper::kill() {
    child_.kill();
    state_ = State::ended;
}

}  // namespace test
