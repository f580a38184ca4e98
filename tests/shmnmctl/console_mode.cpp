// Runs a program on a console that obeys escape sequences, or one that does not: console_mode on|off PROGRAM
// [ARGUMENT...].
#include <windows.h>

#include <cstdio>
#include <string>

namespace {

int fail(const char* what) {
    std::fprintf(stderr, "console_mode: %s failed (error %lu)\n", what, GetLastError());
    return 99;
}

}  // namespace

int main(int count, char** arguments) {
    if (count < 3) return 99;
    const HANDLE console = GetStdHandle(STD_OUTPUT_HANDLE);
    constexpr DWORD obeys = ENABLE_VIRTUAL_TERMINAL_PROCESSING;
    DWORD mode = 0;
    if (!GetConsoleMode(console, &mode)) return fail("GetConsoleMode");
    mode = std::string(arguments[1]) == "on" ? mode | obeys : mode & ~obeys;
    if (!SetConsoleMode(console, mode)) return fail("SetConsoleMode");
    std::string line;
    for (int i = 2; i < count; ++i) line += "\"" + std::string(arguments[i]) + "\" ";
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION child{};
    if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &child)) {
        return fail("CreateProcess");
    }
    WaitForSingleObject(child.hProcess, INFINITE);
    DWORD status = 0;
    GetExitCodeProcess(child.hProcess, &status);
    return static_cast<int>(status);
}
