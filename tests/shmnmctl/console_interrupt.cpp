// Starts a program on a console of its own, waits for its first line, sends Ctrl-C to all of that console, and ends as
// the program ends: console_interrupt PROGRAM [ARGUMENT...]. What the program writes is written on.
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

int failed(const char* what) {
    std::fprintf(stderr, "%s failed (error %lu)\n", what, GetLastError());
    return 99;
}

}  // namespace

int main(int count, char** arguments) {
    std::string line;
    for (int i = 1; i < count; ++i) line += "\"" + std::string(arguments[i]) + "\" ";
    FreeConsole();
    if (!AllocConsole()) return failed("AllocConsole");
    SetConsoleCtrlHandler([](DWORD) -> BOOL { return TRUE; }, TRUE);

    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    HANDLE read = nullptr, write = nullptr;
    if (!CreatePipe(&read, &write, &inherited, 0)) return failed("CreatePipe");
    SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = write;
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION child{};
    if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &child)) {
        return failed("CreateProcess");
    }
    CloseHandle(write);

    bool sent = false;
    char text[512];
    DWORD size = 0;
    while (ReadFile(read, text, sizeof text, &size, nullptr) && size > 0) {
        std::fwrite(text, 1, size, stdout);
        if (sent || !std::memchr(text, '\n', size)) continue;
        sent = true;
        if (GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0)) continue;
        TerminateProcess(child.hProcess, 98);
        return failed("GenerateConsoleCtrlEvent");
    }
    WaitForSingleObject(child.hProcess, INFINITE);
    DWORD status = 0;
    GetExitCodeProcess(child.hProcess, &status);
    return static_cast<int>(status);
}
