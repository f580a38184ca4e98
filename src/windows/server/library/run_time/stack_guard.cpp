// The stack protector's value, and what happens to a program whose stack was overwritten. The compiler's own library
// has the value made by a provider of cryptography. That loads three libraries into the process, once for each of the
// project's files in it, which takes longer than all else until a program begins.
#define _CRT_RAND_S
#include <windows.h>

#include <cstdint>
#include <cstdlib>

extern "C" {
// A string cannot hold the first byte, and text seldom the others. This is what is left if the system has no random
// number.
uintptr_t __stack_chk_guard = 0xFFFF0A0DFF0A0D00;

[[noreturn]] void __stack_chk_fail() {
    // The system ends the process at once, with 0xC0000409, and runs none of its code any more.
    __asm__ volatile("int $0x29" : : "c"(FAST_FAIL_STACK_COOKIE_CHECK_FAILURE));
    __builtin_unreachable();
}
}

// Before all other constructors. The value may not change while a function that checks it runs.
__attribute__((constructor(101), no_stack_protector)) static void choose_stack_guard() {
    unsigned high = 0, low = 0;
    if (rand_s(&high) == 0 && rand_s(&low) == 0) __stack_chk_guard = (uintptr_t{high} << 32 | low) & ~uintptr_t{0xFF};
}
