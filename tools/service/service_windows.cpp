#include "service/service.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cwchar>
#include <mutex>
#include <utility>
#include <vector>

#include "picture/error.h"
#include "service/calls_windows.h"
#include "service/event_log_windows.h"

namespace service {
namespace {

/// Time for what is not waiting: to load, to free, to write an event.
constexpr uint32_t margin_ms = 20'000;

/// The variables that are kept with a service are set by the system, but not by every version of it.
void set_kept_variables(const std::wstring& name) {
    const std::wstring key = L"SYSTEM\\CurrentControlSet\\Services\\" + name;
    DWORD bytes = 0;
    const auto read = [&](void* into) {
        return RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"Environment", RRF_RT_REG_MULTI_SZ, nullptr, into,
                            &bytes) == ERROR_SUCCESS;
    };
    if (!read(nullptr)) return;
    std::vector<wchar_t> texts(bytes / sizeof(wchar_t) + 2);
    if (!read(texts.data())) return;
    for (const wchar_t* text = texts.data(); *text; text += std::wcslen(text) + 1) _wputenv(text);
}

/// The service that this process is. Its calls come from the thread that does the work and, to stop it, from the
/// system's.
class Process {
  public:
    explicit Process(const std::function<int()>& work) : work_(work) {}

    void serve(const std::wstring& name) {
        name_ = name;
        handle_ = calls().register_handler(
            name_.c_str(),
            [](DWORD control, DWORD, void*, void* self) { return static_cast<Process*>(self)->obey(control); }, this);
        if (!handle_) return;
        is_running_ = true;
        pending(SERVICE_START_PENDING, 0);
        set_kept_variables(name_);
        exit_ = work_();
        if (exit_ == 0) tell(Event::stopped, ends_with_system_ ? "The system shuts down." : "It was asked to.");
        is_running_ = false;
        report(SERVICE_STOPPED, 0);
    }

    void pending(DWORD state, uint32_t most_ms) {
        const std::scoped_lock hold(mutex_);
        // A start that goes on does not take back a stop.
        if (state == SERVICE_START_PENDING && state_ != SERVICE_START_PENDING) return;
        if (state_ != state) checkpoint_ = 0;
        ++checkpoint_;
        report_locked(state, most_ms > UINT32_MAX - margin_ms ? UINT32_MAX : most_ms + margin_ms);
    }
    void ready(const std::string& what) {
        {
            const std::scoped_lock hold(mutex_);
            if (state_ != SERVICE_START_PENDING) return;
            checkpoint_ = 0;
            report_locked(SERVICE_RUNNING, 0);
        }
        tell(Event::started, what);
    }
    void on_stop(std::function<void()> stop) {
        const std::scoped_lock hold(stop_mutex_);
        stop_ = std::move(stop);
        if (is_stopping_ && stop_) stop_();
    }
    void tell(Event event, const std::string& what) const { write_event(name_, event, what); }

    bool is_running() const { return is_running_; }
    bool ends_with_system() const { return ends_with_system_; }
    int exit() const { return exit_; }

  private:
    DWORD obey(DWORD control) {
        switch (control) {
            case SERVICE_CONTROL_SHUTDOWN:
                ends_with_system_ = true;
                [[fallthrough]];
            case SERVICE_CONTROL_STOP: {
                pending(SERVICE_STOP_PENDING, 0);
                const std::scoped_lock hold(stop_mutex_);
                is_stopping_ = true;
                if (stop_) stop_();
                return NO_ERROR;
            }
            case SERVICE_CONTROL_INTERROGATE:
                return NO_ERROR;
            default:
                return ERROR_CALL_NOT_IMPLEMENTED;
        }
    }

    void report(DWORD state, uint32_t most_ms) {
        const std::scoped_lock hold(mutex_);
        checkpoint_ = 0;
        report_locked(state, most_ms);
    }
    void report_locked(DWORD state, uint32_t most_ms) {
        state_ = state;
        SERVICE_STATUS status{};
        status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
        status.dwCurrentState = state;
        status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
        status.dwCheckPoint = checkpoint_;
        status.dwWaitHint = most_ms;
        if (state == SERVICE_STOPPED && exit_ != 0) {
            status.dwWin32ExitCode = ERROR_SERVICE_SPECIFIC_ERROR;
            status.dwServiceSpecificExitCode = static_cast<DWORD>(exit_);
        }
        calls().set_status(handle_, &status);
    }

    const std::function<int()>& work_;
    std::wstring name_;
    SERVICE_STATUS_HANDLE handle_ = nullptr;
    std::mutex mutex_;  // of the state
    DWORD state_ = SERVICE_START_PENDING, checkpoint_ = 0;
    std::mutex stop_mutex_;
    std::function<void()> stop_;
    bool is_stopping_ = false;
    std::atomic<bool> is_running_ = false, ends_with_system_ = false;
    int exit_ = 1;
};

Process* process = nullptr;

void WINAPI service_main(DWORD count, wchar_t** arguments) {
    process->serve(count > 0 ? arguments[0] : L"");
}

}  // namespace

Calls& calls() {
    static Calls all;
    return all;
}

int run(const std::function<int()>& work) {
    Process the_process(work);
    process = &the_process;
    std::wstring any_name;
    const SERVICE_TABLE_ENTRYW table[] = {{any_name.data(), service_main}, {nullptr, nullptr}};
    const bool was_started = calls().dispatch(table) != FALSE;
    process = nullptr;
    if (was_started) return the_process.exit();
    throw picture::Error(picture::ErrorKind::invalid,
                         "--service is for the service manager, which has not started this process: leave it out, or "
                         "install the service with \"shmnmctl service install\"");
}

bool is_running() {
    return process && process->is_running();
}
void on_stop(std::function<void()> stop) {
    if (process) process->on_stop(std::move(stop));
}
bool ends_with_the_system() {
    return process && process->ends_with_system();
}
void starting(uint32_t most_ms) {
    if (process) process->pending(SERVICE_START_PENDING, most_ms);
}
void ready(const std::string& what) {
    if (process) process->ready(what);
}
void stopping(uint32_t most_ms) {
    if (process) process->pending(SERVICE_STOP_PENDING, most_ms);
}
void tell(Event event, const std::string& what) {
    if (process) process->tell(event, what);
}

}  // namespace service
