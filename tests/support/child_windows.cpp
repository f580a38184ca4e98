#include <windows.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "support/child_platform.h"

namespace test {
namespace {

bool read_whole(HANDLE file, void* data, size_t size) {
    auto* at = static_cast<char*>(data);
    while (size > 0) {
        DWORD count = 0;
        if (!ReadFile(file, at, static_cast<DWORD>(size), &count, nullptr) || count == 0) return false;
        at += count;
        size -= count;
    }
    return true;
}

bool write_whole(HANDLE file, const void* data, size_t size) {
    const auto* at = static_cast<const char*>(data);
    while (size > 0) {
        DWORD count = 0;
        if (!WriteFile(file, at, static_cast<DWORD>(size), &count, nullptr)) return false;
        at += count;
        size -= count;
    }
    return true;
}

/// One argument as the C run time takes it apart again.
std::string quoted(const std::string& argument) {
    std::string result = "\"";
    size_t backslashes = 0;
    for (const char c : argument) {
        if (c == '\\') {
            ++backslashes;
            continue;
        }
        result.append(c == '"' ? backslashes * 2 + 1 : backslashes, '\\');
        backslashes = 0;
        result += c;
    }
    result.append(backslashes * 2, '\\');
    return result + '"';
}

std::string own_file() {
    std::string path(4096, '\0');
    path.resize(GetModuleFileNameA(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path;
}

PROCESS_INFORMATION create(const std::vector<std::string>& arguments, HANDLE input, HANDLE output) {
    std::string line = quoted(own_file());
    for (const std::string& argument : arguments) line += ' ' + quoted(argument);
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = input;
    startup.hStdOutput = output;
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION process{};
    // Wine answers so when the new process did not come as far as its own start, which happens on a busy machine.
    constexpr DWORD did_not_start = ERROR_INTERNAL_ERROR;
    int attempts_left = 5;
    while (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
        if (GetLastError() == did_not_start && --attempts_left > 0) continue;
        throw std::runtime_error("CreateProcess: error " + std::to_string(GetLastError()));
    }
    CloseHandle(process.hThread);
    return process;
}

class WindowsProcess final : public Child::Process {
  public:
    explicit WindowsProcess(const std::vector<std::string>& arguments) {
        SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        HANDLE child_input = nullptr, child_output = nullptr;
        if (!CreatePipe(&child_input, &input_, &inheritable, 0) ||
            !CreatePipe(&output_, &child_output, &inheritable, 0)) {
            throw std::runtime_error("CreatePipe");
        }
        SetHandleInformation(input_, HANDLE_FLAG_INHERIT, 0);
        SetHandleInformation(output_, HANDLE_FLAG_INHERIT, 0);
        const PROCESS_INFORMATION created = create(arguments, child_input, child_output);
        process_ = created.hProcess;
        id_ = created.dwProcessId;
        CloseHandle(child_input);
        CloseHandle(child_output);
    }
    ~WindowsProcess() override {
        kill();
        CloseHandle(input_);
        CloseHandle(output_);
        CloseHandle(process_);
    }
    bool read(void* data, size_t size) override { return read_whole(output_, data, size); }
    bool write(const void* data, size_t size) override { return write_whole(input_, data, size); }
    void kill() override {
        TerminateProcess(process_, 137);
        WaitForSingleObject(process_, INFINITE);
    }
    int wait() override {
        WaitForSingleObject(process_, INFINITE);
        DWORD status = 0;
        GetExitCodeProcess(process_, &status);
        return static_cast<int>(status);
    }
    uint32_t id() const override { return id_; }

  private:
    HANDLE process_ = nullptr, input_ = nullptr, output_ = nullptr;
    DWORD id_ = 0;
};

}  // namespace

std::unique_ptr<Child::Process> start_process(const std::vector<std::string>& arguments) {
    return std::make_unique<WindowsProcess>(arguments);
}

int run_again(int argc, char** argv) {
    const PROCESS_INFORMATION process = create(std::vector<std::string>(argv + 1, argv + argc),
                                               GetStdHandle(STD_INPUT_HANDLE), GetStdHandle(STD_OUTPUT_HANDLE));
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD status = 127;
    GetExitCodeProcess(process.hProcess, &status);
    CloseHandle(process.hProcess);
    return static_cast<int>(status);
}

bool read_from_parent(void* data, size_t size) {
    return read_whole(GetStdHandle(STD_INPUT_HANDLE), data, size);
}
bool write_to_parent(const void* data, size_t size) {
    return write_whole(GetStdHandle(STD_OUTPUT_HANDLE), data, size);
}
void end_process(int status) {
    ExitProcess(static_cast<UINT>(status));
}

// Both copies of the environment are set: the system's, which the library reads and children inherit, and the C run
// time's.
void set_environment(const char* name, const char* value) {
    SetEnvironmentVariableA(name, value);
    _putenv_s(name, value ? value : "");
}

uint32_t process_id() {
    return GetCurrentProcessId();
}

}  // namespace test
