#include "session.h"

#include <windows.h>

#include <fcntl.h>
#include <fmt/format.h>
#include <io.h>
#include <winternl.h>

#include <algorithm>
#include <cstdio>

#include "failure.h"
#include "picture/escape.h"
#include "service/command_line.h"
#include "service/service.h"
#include "wide_path.h"

// A * in an argument is for a condition; the run time must not look for files of that name.
extern "C" {
extern int _dowildcard;
int _dowildcard = 0;
}

namespace shmnmctl::session {
namespace {

using picture::printable;

HANDLE stop_event = nullptr;

/// The system ends the process when the handler of these returns, or after some seconds: main() needs that time.
void leave_time_to_main(DWORD event) {
    if (event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT) Sleep(INFINITE);
}

BOOL WINAPI on_console_event(DWORD event) {
    SetEvent(stop_event);
    leave_time_to_main(event);
    return TRUE;
}

/// The command gets the event as well, and main() waits for its end.
BOOL WINAPI leave_to_command(DWORD event) {
    leave_time_to_main(event);
    return TRUE;
}

/// Whether standard output is a pipe whose other end is closed. A write of no bytes would tell as well, but its reader
/// would take it for the end.
bool output_is_closed() {
    struct {
        ULONG type, configuration, most_instances, instances, inbound_quota, readable, outbound_quota, writable, state,
            end;
    } pipe{};
    constexpr auto pipe_information = static_cast<FILE_INFORMATION_CLASS>(24);
    constexpr ULONG closing = 4;
    IO_STATUS_BLOCK status{};
    return NtQueryInformationFile(GetStdHandle(STD_OUTPUT_HANDLE), &status, &pipe, sizeof pipe, pipe_information) >=
               0 &&
           pipe.state == closing;
}

}  // namespace

Terminal terminal() {
    CONSOLE_SCREEN_BUFFER_INFO information{};
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    if (GetFileType(output) != FILE_TYPE_CHAR || !GetConsoleScreenBufferInfo(output, &information)) return {};
    // A console goes on to the next line when the last column is written to, so that one is left free.
    return {.is_terminal = true,
            .columns = information.srWindow.Right - information.srWindow.Left,
            .rows = information.srWindow.Bottom - information.srWindow.Top + 1};
}

bool has_colors() {
    return true;
}

void prepare() {
    _setmode(_fileno(stdin), _O_BINARY);
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
    // Not every C run time writes at once what goes to a pipe here.
    std::setvbuf(stderr, nullptr, _IONBF, 0);
}

void catch_stop() {
    const bool is_caught = stop_event != nullptr;
    if (!is_caught) stop_event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    // A service is asked by its manager. Its console would tell of every user who logs off.
    if (stop_event && service::is_running()) {
        ResetEvent(stop_event);
        return service::on_stop([] { SetEvent(stop_event); });
    }
    if (is_caught) return;
    if (!stop_event || !SetConsoleCtrlHandler(on_console_event, TRUE)) {
        throw Failure(Exit::failed, fmt::format("cannot wait for console events (error {})", GetLastError()));
    }
}

Wake wait(uint32_t milliseconds, WakeFor also) {
    // Neither the end of a pipe's reader nor another size of a window can be waited for.
    constexpr ULONGLONG slice_ms = 200;
    const ULONGLONG end = GetTickCount64() + milliseconds;
    const HANDLE sources[] = {stop_event, GetStdHandle(STD_INPUT_HANDLE)};
    const Terminal before = also.key ? terminal() : Terminal{};
    for (;;) {
        const ULONGLONG now = GetTickCount64(), left = now >= end ? 0 : end - now;
        const DWORD most = static_cast<DWORD>(also.closed_output || also.key ? std::min(left, slice_ms) : left);
        const DWORD ready = WaitForMultipleObjects(also.key ? 2 : 1, sources, FALSE, most);
        if (ready == WAIT_OBJECT_0) return Wake::stop;
        if (also.closed_output && output_is_closed()) return Wake::closed_output;
        if (ready == WAIT_OBJECT_0 + 1) return Wake::key;
        if (also.key && terminal() != before) return Wake::resize;
        if (left <= most) return Wake::timeout;
    }
}

void wait_for_stop(bool or_end_of_input) {
    if (or_end_of_input) {
        // A pipe cannot be waited on beside an event, so a thread reads it; it ends with the process.
        const HANDLE reader = CreateThread(
            nullptr, 0,
            [](void*) -> DWORD {
                char input[512];
                DWORD size = 0;
                while (ReadFile(GetStdHandle(STD_INPUT_HANDLE), input, sizeof input, &size, nullptr) && size > 0) {
                }
                SetEvent(stop_event);
                return 0;
            },
            nullptr, 0, nullptr);
        if (reader) CloseHandle(reader);
    }
    WaitForSingleObject(stop_event, INFINITE);
}

namespace {

[[noreturn]] void cannot_run(const std::string& command) {
    throw Failure(Exit::failed, fmt::format("cannot run {} (error {})", printable(command), GetLastError()));
}

/// A job whose processes the system ends when this process ends before the job does.
class Job {
  public:
    Job() : job_(CreateJobObjectW(nullptr, nullptr)) {
        if (!job_ || !end_processes_with_it(true)) {
            throw Failure(Exit::failed, fmt::format("cannot create a job (error {})", GetLastError()));
        }
    }
    ~Job() {
        // What the command has left running stays.
        end_processes_with_it(false);
        CloseHandle(job_);
    }
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    /// Starts a process in it: there is no moment at which it runs outside.
    PROCESS_INFORMATION start(std::wstring& line, const std::string& name) const {
        // PROC_THREAD_ATTRIBUTE_JOB_LIST, which headers for older systems lack.
        constexpr DWORD_PTR in_jobs = 0x2000D;
        SIZE_T size = 0;
        InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        std::vector<unsigned char> memory(size);
        STARTUPINFOEXW startup{};
        startup.StartupInfo.cb = sizeof startup;
        startup.lpAttributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory.data());
        HANDLE job = job_;
        PROCESS_INFORMATION child{};
        if (!InitializeProcThreadAttributeList(startup.lpAttributeList, 1, 0, &size) ||
            !UpdateProcThreadAttribute(startup.lpAttributeList, 0, in_jobs, &job, sizeof job, nullptr, nullptr) ||
            !CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, EXTENDED_STARTUPINFO_PRESENT, nullptr,
                            nullptr, &startup.StartupInfo, &child)) {
            cannot_run(name);
        }
        DeleteProcThreadAttributeList(startup.lpAttributeList);
        return child;
    }

  private:
    bool end_processes_with_it(bool end) const {
        JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
        limits.BasicLimitInformation.LimitFlags = end ? JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE : 0;
        return SetInformationJobObject(job_, JobObjectExtendedLimitInformation, &limits, sizeof limits);
    }

    HANDLE job_;
};

}  // namespace

int run(const std::vector<std::string>& command) {
    std::wstring line;
    for (const std::string& argument : command) {
        if (!line.empty()) line += L' ';
        line += service::quoted(wide_path::to_wide(argument));
    }
    SetConsoleCtrlHandler(leave_to_command, TRUE);
    const Job job;
    const PROCESS_INFORMATION child = job.start(line, command[0]);
    CloseHandle(child.hThread);
    WaitForSingleObject(child.hProcess, INFINITE);
    DWORD status = 0;
    GetExitCodeProcess(child.hProcess, &status);
    CloseHandle(child.hProcess);
    return static_cast<int>(status);
}

void notify_service_manager(const std::string&) {}

}  // namespace shmnmctl::session
