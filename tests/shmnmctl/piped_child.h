// A program whose output goes to this process through a pipe of the system, for programs that do something to another
// one once it has written its first line.
#pragma once

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>

inline int failed(const char* what) {
    std::fprintf(stderr, "%s failed (error %lu)\n", what, GetLastError());
    return 99;
}

struct PipedChild {
    HANDLE read = nullptr;
    PROCESS_INFORMATION process{};

    /// Starts the program that the arguments name from the second on. @return 0, or what to end with
    int start(int count, char** arguments) {
        std::string line;
        for (int i = 1; i < count; ++i) line += "\"" + std::string(arguments[i]) + "\" ";
        SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
        HANDLE write = nullptr;
        if (!CreatePipe(&read, &write, &inherited, 0)) return failed("CreatePipe");
        SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOA startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
        startup.hStdOutput = write;
        startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
        if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
            return failed("CreateProcess");
        }
        CloseHandle(write);
        return 0;
    }

    /// Writes on what the program writes. @return whether a line ended with it; false also at the program's end
    bool pass_on() {
        char text[512];
        DWORD size = 0;
        while (ReadFile(read, text, sizeof text, &size, nullptr) && size > 0) {
            std::fwrite(text, 1, size, stdout);
            if (std::memchr(text, '\n', size)) return true;
        }
        return false;
    }

    /// Waits for its end. @return its status
    int status() const {
        WaitForSingleObject(process.hProcess, INFINITE);
        DWORD status = 0;
        GetExitCodeProcess(process.hProcess, &status);
        return static_cast<int>(status);
    }
};
