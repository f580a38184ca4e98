// Runs child processes one instruction at a time, holds them anywhere, lets them go on and kills them there: so a test
// can stand between any two instructions of a call, or interleave several children. Linux on x86-64.
//
//     CHILD(adds) {
//         attach();
//         test::begin_steps();
//         shmnm_addnode("gamma", 3);
//         test::end_steps();
//         test::hang();
//     }
//     Stepper writer(adds);
//     writer.step_until_changed(watched);  // the child has made the first instruction that changed these bytes
//     writer.kill();
//
// Call a Stepper from the thread that made it. A child is stepped on its first thread; its other threads run freely.
#pragma once

#include <sys/user.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <span>
#include <string_view>
#include <vector>

#include "support/child.h"

namespace test {

/// In a child: where the steps begin and end. The child reports that it is ready and is held until its Stepper goes on.
void begin_steps();
void end_steps();
/// In a child: tells its Stepper the address of a function or of data, for Stepper::run_to(). Call it before
/// begin_steps().
void tell_address(const volatile void* address);

/// A copy of bytes that another process changes, to find out what an instruction did to them.
class Watched {
  public:
    explicit Watched(std::span<const volatile uint8_t> bytes);
    /// Whether they differ from what they were at the last call, or at first.
    bool changed();
    const std::vector<uint8_t>& bytes() const { return copy_; }

  private:
    std::span<const uint8_t> bytes_;
    std::vector<uint8_t> copy_;
};

class Stepper {
  public:
    /// What a child came to.
    enum class State {
        held,     ///< between two instructions
        running,  ///< let go by run() or begin_step(), maybe inside a system call
        at_end,   ///< held at end_steps()
        ended     ///< the process is gone
    };

    /// Starts the child and returns when it is held at its first begin_steps().
    explicit Stepper(const ChildBody& body, std::string_view argument = {});

    /// Lets a child go on from the end of its steps, or from where it is held, to its next begin_steps().
    void begin_again();

    /// Makes one instruction, and a system call from entry to return. Blocks for as long as that does.
    State step();
    /// Makes that many instructions, or fewer if the steps end before.
    State step(uint64_t count);
    /// Makes instructions until one has changed these bytes, or until the steps end. @return whether one did
    bool step_until_changed(Watched& watched);
    /// Makes instructions up to the end and calls `after` after each one that changed these bytes.
    void step_through(Watched& watched, const std::function<void()>& after);
    /// Makes instructions until the next one lies at this address of the child. @return whether it came there
    bool step_to(uint64_t address);
    /// As step_to(), at full speed.
    bool run_to(uint64_t address);
    /// Makes instructions until the next one is a system call of this number. @return whether it came there
    bool step_to_system_call(long number);

    /// Lets it make one instruction, or go on to the end of its steps, without waiting for that.
    void begin_step();
    void run();
    /// Waits until what run() or begin_step() started is over.
    State wait();
    /// Holds a running child, also inside a system call, which then begins again when it goes on.
    State hold();
    /// Returns when a running child sleeps inside the kernel or is held, without holding it.
    void wait_until_asleep();

    State state() const { return state_; }
    /// Instructions made by steps so far.
    uint64_t steps() const { return steps_; }
    /// The addresses that it told before it began, in order.
    const std::vector<uint64_t>& addresses() const { return addresses_; }
    /// Of a held child: where its next instruction lies, its registers, a word of its memory.
    uint64_t address() const;
    user_regs_struct registers() const;
    uint64_t peek(uint64_t address) const;
    void poke(uint64_t address, uint64_t word);

    /// Lets it go on for good, unstepped.
    void let_go();
    /// Ends it where it stands, as SIGKILL does, and waits until it is gone.
    void kill();
    /// Reports and tells as for any other child. Do not wait for a held one.
    Child& child() { return child_; }

  private:
    void resume(int request);
    void await_begin();
    int id() const;

    Child child_;
    State state_ = State::running;
    uint64_t steps_ = 0;
    std::vector<uint64_t> addresses_;
    int signal_ = 0;        ///< to be delivered when it goes on
    int request_ = 0;       ///< what it went on with
    bool holding_ = false;  ///< hold() has asked for a stop that has not come yet
};

}  // namespace test
