// What the mutated copies of scripts/mutate ask: is mutant N the chosen one? The environment says it:
//   SHMNM_MUTANT=N           the program runs with mutant N
//   SHMNM_MUTANTS_RUN=FILE   the program sets byte N of the file for each mutant that it runs
// The answers are plain values, not branches in a copy, so that an expression may contain other mutated expressions.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace mutants {

constexpr int most = 1 << 19;

struct Choice {
    int number = -1;
    unsigned char* run = nullptr;
};

/// Leaves errno and everything else as it was: the original could not tell that it was asked.
inline Choice read_choice() {
    Choice choice;
    const int error = errno;
    if (const char* const number = std::getenv("SHMNM_MUTANT")) choice.number = std::atoi(number);
    if (const char* const file = std::getenv("SHMNM_MUTANTS_RUN")) {
        const int descriptor = ::open(file, O_RDWR | O_CLOEXEC);
        if (descriptor >= 0) {
            void* const bytes = ::mmap(nullptr, most, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
            if (bytes != MAP_FAILED) choice.run = static_cast<unsigned char*>(bytes);
            ::close(descriptor);
        }
    }
    errno = error;
    return choice;
}

static bool is_read;
static Choice choice;

/// Before main(): tests count the system calls of what they test. What runs even earlier reads the choice itself.
[[gnu::constructor]] static void read_once() {
    if (is_read) return;
    choice = read_choice();
    is_read = true;
}

[[maybe_unused]] static bool on(int number) {
    read_once();
    if (choice.run != nullptr) choice.run[number] = 1;
    return number == choice.number;
}

#define MUTANTS_OPERATION(name, operation)                 \
    struct name {                                          \
        template <class A, class B>                        \
        static constexpr auto of(const A& a, const B& b) { \
            return a operation b;                          \
        }                                                  \
    };
MUTANTS_OPERATION(lt, <)
MUTANTS_OPERATION(le, <=)
MUTANTS_OPERATION(gt, >)
MUTANTS_OPERATION(ge, >=)
MUTANTS_OPERATION(eq, ==)
MUTANTS_OPERATION(ne, !=)
MUTANTS_OPERATION(plus, +)
MUTANTS_OPERATION(minus, -)
MUTANTS_OPERATION(times, *)
MUTANTS_OPERATION(over, /)
MUTANTS_OPERATION(rest, %)
MUTANTS_OPERATION(bit_and, &)
MUTANTS_OPERATION(bit_or, |)
MUTANTS_OPERATION(bit_xor, ^)
MUTANTS_OPERATION(left, <<)
MUTANTS_OPERATION(right, >>)
#undef MUTANTS_OPERATION

/// The operation, or instead of it mutant `number`, `number + 1`, ...
template <class Original, class... Others, class A, class B>
auto operation(int number, const A& a, const B& b) {
    auto result = Original::of(a, b);
    ((on(number++) ? void(result = Others::of(a, b)) : void()), ...);
    return result;
}

}  // namespace mutants
