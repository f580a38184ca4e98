// Other processes for tests: a child is a function beside the test, run by the same executable in a process of its own.
// Parent and child talk through pipes, a message at a time; nothing sleeps to be in step.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace test {

/// A function that a child process can run. Declare it with CHILD.
struct ChildBody {
    ChildBody(const char* child_name, void (*function)());
    const char* name;
    void (*run)();
};

#define CHILD(name)                                              \
    static void name##_in_child();                               \
    static const ::test::ChildBody name{#name, name##_in_child}; \
    static void name##_in_child()

/// A running child process. Its destructor kills it if it still runs.
class Child {
  public:
    Child(Child&&) noexcept;
    Child& operator=(Child&&) noexcept;
    ~Child();

    /// The next number that the child reports; throws if the child ends first.
    uint64_t reported();
    /// The next number that the child reports, or reported before its end; none if it ended without one.
    std::optional<uint64_t> next_report();
    /// The next text that the child reports.
    std::string reported_text();
    /// Sends the child a number, which it takes with told().
    void tell(uint64_t number);
    /// Ends the child at once, as SIGKILL and TerminateProcess do, and waits until it is gone.
    void kill();
    /// Waits for the child's end; its exit status (Linux: 128 + signal when a signal ended it).
    int wait();
    uint32_t process_id() const;

    struct Process;

  private:
    friend Child start(const ChildBody& body, std::string_view argument);
    explicit Child(std::unique_ptr<Process> process);
    std::unique_ptr<Process> process_;
};

/// Starts a child process. It inherits the environment as it is now.
Child start(const ChildBody& body, std::string_view argument = {});

/// In a child: the argument that it was started with.
const std::string& argument();
/// In a child: sends a number, or a text, to the parent.
void report(uint64_t number);
void report_text(std::string_view text);
/// In a child: the next number that the parent sends; ends the process when the parent is gone.
uint64_t told();
/// In a child: waits for its end.
[[noreturn]] void hang();

/// Sets a variable of this process's environment, and so of its children; null removes it.
void set_environment(const char* name, const char* value);
/// How much of a long test to do: all of it, or a tenth or less under wine and with sanitizers, where it takes that
/// much longer.
unsigned share_of(unsigned amount);
/// This process's id.
uint32_t process_id();

/// Sets a variable for the length of a scope.
class ScopedEnvironment {
  public:
    ScopedEnvironment(const char* name, const char* value);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  private:
    std::string name_, old_value_;
    bool was_set_;
};

}  // namespace test
