#include "service/control_manager_windows.h"

#include "service/calls_windows.h"
#include "wide_path.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cwchar>
#include <type_traits>
#include <utility>

#include "picture/error.h"
#include "picture/escape.h"

namespace service {
namespace {

std::string advice(DWORD error) {
    switch (error) {
        case ERROR_ACCESS_DENIED:
            return R"(access is denied; run this in a console that was started with "Run as administrator")";
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
            return "its program is not there; install the service again from where the program is now";
        case ERROR_SERVICE_DOES_NOT_EXIST:
            return "there is no such service; \"shmnmctl service install\" installs it";
        case ERROR_SERVICE_DISABLED:
            return "the service is disabled; enable it with \"sc config NAME start= auto\"";
        case ERROR_SERVICE_LOGON_FAILED:
            return "its account cannot log on; give the account the right \"Log on as a service\" (secpol.msc), and "
                   "install the service again with its password if that was changed";
        case ERROR_INVALID_SERVICE_ACCOUNT:
            return "there is no such account, or its password is wrong; name it as DOMAIN\\NAME or .\\NAME";
        case ERROR_SERVICE_MARKED_FOR_DELETE:
            return "the service is being removed while other programs still look at it; close them (services.msc, the "
                   "Event Viewer), then try again";
        case ERROR_SERVICE_REQUEST_TIMEOUT:
            return "its program did not answer the service manager; start it by hand to see why";
        case ERROR_DEPENDENT_SERVICES_RUNNING:
            return "other services depend on it; stop them first (\"sc enumdepend NAME\" lists them)";
        case ERROR_SERVICE_DATABASE_LOCKED:
            return "another program is changing the services; try again";
        case ERROR_INVALID_NAME:
        case ERROR_DUPLICATE_SERVICE_NAME:
            return "it is not a name for a service, or another service is shown by it; use another name";
        default:
            return fmt::format("see the meaning of the number with \"net helpmsg {}\"", error);
    }
}

[[noreturn]] void fail(const char* what, const std::wstring& name, DWORD error) {
    throw picture::Error(picture::ErrorKind::failed,
                         fmt::format("cannot {} the service {} (error {}): {}", what,
                                     picture::shown_file(wide_path::to_utf8(name)), error, advice(error)));
}

[[noreturn]] void fail(const char* what, const std::wstring& name) {
    fail(what, name, GetLastError());
}

std::wstring key_of(const std::wstring& name) {
    return L"SYSTEM\\CurrentControlSet\\Services\\" + name;
}
std::wstring source_key_of(const std::wstring& name) {
    return key_of(L"EventLog\\Application\\" + name);
}

/// Texts one after the other, each with its end, and one end more.
std::wstring joined(const std::vector<std::wstring>& texts) {
    std::wstring all;
    for (const std::wstring& text : texts) all.append(text).push_back(L'\0');
    return all;
}

std::vector<std::wstring> environment_of(const std::wstring& name) {
    DWORD bytes = 0;
    std::vector<wchar_t> data;
    const auto read = [&](void* into) {
        return RegGetValueW(HKEY_LOCAL_MACHINE, key_of(name).c_str(), L"Environment", RRF_RT_REG_MULTI_SZ, nullptr,
                            into, &bytes) == ERROR_SUCCESS;
    };
    std::vector<std::wstring> all;
    if (!read(nullptr)) return all;
    data.resize(bytes / sizeof(wchar_t) + 2);
    if (!read(data.data())) return all;
    for (const wchar_t* text = data.data(); *text; text += std::wcslen(text) + 1) all.emplace_back(text);
    return all;
}

/// A key of the system's registry, open for writing.
class Key {
  public:
    Key(const char* what, const Definition& definition, const std::wstring& path) : what_(what), of_(definition) {
        const LSTATUS error =
            RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key_, nullptr);
        if (error != ERROR_SUCCESS) fail(what_, of_.name, static_cast<DWORD>(error));
    }
    ~Key() { RegCloseKey(key_); }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    void set(const wchar_t* name, DWORD type, const void* data, size_t bytes) const {
        const LSTATUS error =
            RegSetValueExW(key_, name, 0, type, static_cast<const BYTE*>(data), static_cast<DWORD>(bytes));
        if (error != ERROR_SUCCESS) fail(what_, of_.name, static_cast<DWORD>(error));
    }
    void remove(const wchar_t* name) const { RegDeleteValueW(key_, name); }

  private:
    const char* what_;
    const Definition& of_;
    HKEY key_ = nullptr;
};

void set_environment(const char* what, const Definition& definition) {
    const Key key(what, definition, key_of(definition.name));
    if (definition.environment.empty()) return key.remove(L"Environment");
    const std::wstring all = joined(definition.environment);
    key.set(L"Environment", REG_MULTI_SZ, all.c_str(), (all.size() + 1) * sizeof(wchar_t));
}

void add_event_source(const char* what, const Definition& definition) {
    const Key key(what, definition, source_key_of(definition.name));
    const DWORD types = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
    const std::wstring& file = definition.message_file;
    key.set(L"EventMessageFile", REG_EXPAND_SZ, file.c_str(), (file.size() + 1) * sizeof(wchar_t));
    key.set(L"TypesSupported", REG_DWORD, &types, sizeof types);
}

/// What CreateServiceW() cannot say. A system that does not know one of these settings does without it.
class MoreSettings {
  public:
    MoreSettings(const char* what, const Definition& definition, void* service)
        : what_(what), of_(definition), service_(static_cast<SC_HANDLE>(service)) {}

    void describe() const {
        std::wstring text = of_.description;
        set(SERVICE_CONFIG_DESCRIPTION, SERVICE_DESCRIPTIONW{.lpDescription = text.data()});
    }
    void delay_start() const {
        set(SERVICE_CONFIG_DELAYED_AUTO_START_INFO, SERVICE_DELAYED_AUTO_START_INFO{.fDelayedAutostart = TRUE});
    }
    void restart_after_failures() const {
        std::array<SC_ACTION, std::extent_v<decltype(restart_delays_ms)>> actions{};
        std::transform(std::begin(restart_delays_ms), std::end(restart_delays_ms), actions.begin(),
                       [](uint32_t delay_ms) { return SC_ACTION{.Type = SC_ACTION_RESTART, .Delay = delay_ms}; });
        SERVICE_FAILURE_ACTIONSW failures{};
        failures.dwResetPeriod = failures_forgotten_after_s;
        failures.cActions = static_cast<DWORD>(actions.size());
        failures.lpsaActions = actions.data();
        set(SERVICE_CONFIG_FAILURE_ACTIONS, failures);
        // Also after an end with an error that the service itself has told.
        set(SERVICE_CONFIG_FAILURE_ACTIONS_FLAG,
            SERVICE_FAILURE_ACTIONS_FLAG{.fFailureActionsOnNonCrashFailures = TRUE});
    }

  private:
    template <typename Information>
    void set(DWORD level, Information information) const {
        if (calls().change_more(service_, level, &information) || GetLastError() == ERROR_INVALID_LEVEL) return;
        fail(what_, of_.name);
    }

    const char* what_;
    const Definition& of_;
    SC_HANDLE service_;
};

Phase phase_of(DWORD state) {
    switch (state) {
        case SERVICE_STOPPED:
            return Phase::stopped;
        case SERVICE_START_PENDING:
            return Phase::starting;
        case SERVICE_STOP_PENDING:
            return Phase::stopping;
        case SERVICE_RUNNING:
            return Phase::running;
        default:
            return Phase::paused;
    }
}

/// The service manager may take time to notice the end of a process that was killed.
bool has_ended(DWORD process) {
    const HANDLE handle = OpenProcess(SYNCHRONIZE, FALSE, process);
    if (!handle) return GetLastError() == ERROR_INVALID_PARAMETER;
    const bool ended = WaitForSingleObject(handle, 0) == WAIT_OBJECT_0;
    CloseHandle(handle);
    return ended;
}

/// For a call that takes none where there is none.
const wchar_t* text_or_none(const std::wstring& text) {
    return text.empty() ? nullptr : text.c_str();
}

}  // namespace

void ControlManager::Closer::operator()(void* handle) const {
    calls().close(static_cast<SC_HANDLE>(handle));
}

ControlManager::ControlManager(bool to_change)
    : manager_(calls().open_manager(nullptr, nullptr,
                                    to_change ? SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE : SC_MANAGER_CONNECT)) {
    if (manager_) return;
    const DWORD error = GetLastError();
    throw picture::Error(picture::ErrorKind::failed,
                         fmt::format("cannot reach the service manager (error {}): {}", error, advice(error)));
}

ControlManager::Handle ControlManager::open(const std::wstring& name, uint32_t access, const char* what) const {
    Handle service(calls().open(static_cast<SC_HANDLE>(manager_.get()), name.c_str(), access));
    if (!service) fail(what, name);
    return service;
}

std::optional<Installed> ControlManager::find(const std::wstring& name) const {
    constexpr const char* what = "look at";
    const Handle handle(calls().open(static_cast<SC_HANDLE>(manager_.get()), name.c_str(),
                                     SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS));
    if (!handle) {
        if (GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST) return std::nullopt;
        fail(what, name);
    }
    const auto service = static_cast<SC_HANDLE>(handle.get());
    SERVICE_STATUS_PROCESS status{};
    DWORD bytes = 0, process = 0, ended = 0;
    for (;;) {
        if (!calls().query_status(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status,
                                  &bytes)) {
            fail(what, name);
        }
        process = status.dwCurrentState == SERVICE_STOPPED ? 0 : status.dwProcessId;
        if (process == 0 || process == ended || !has_ended(process)) break;
        // Between these two looks it may have told its end, too.
        ended = process;
    }
    calls().query_configuration(service, nullptr, 0, &bytes);
    std::vector<uint64_t> memory(bytes / sizeof(uint64_t) + 1);
    auto* const configuration = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(memory.data());
    if (!calls().query_configuration(service, configuration, bytes, &bytes)) fail(what, name);
    Installed found;
    found.phase = phase_of(status.dwCurrentState);
    found.process = process;
    found.process_has_ended = process != 0 && process == ended;
    found.error = status.dwWin32ExitCode;
    if (found.error == ERROR_SERVICE_SPECIFIC_ERROR) found.exit = status.dwServiceSpecificExitCode;
    found.checkpoint = status.dwCheckPoint;
    found.wait_ms = status.dwWaitHint;
    found.command_line = configuration->lpBinaryPathName ? configuration->lpBinaryPathName : L"";
    found.account = configuration->lpServiceStartName ? configuration->lpServiceStartName : L"";
    found.is_automatic = configuration->dwStartType == SERVICE_AUTO_START;
    found.is_disabled = configuration->dwStartType == SERVICE_DISABLED;
    found.environment = environment_of(name);
    return found;
}

void ControlManager::install(const Definition& definition) const {
    constexpr const char* what = "install";
    const Handle handle(calls().create(static_cast<SC_HANDLE>(manager_.get()), definition.name.c_str(),
                                       definition.name.c_str(), SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                                       SERVICE_AUTO_START, SERVICE_ERROR_NORMAL, definition.command_line.c_str(),
                                       nullptr, nullptr, nullptr, text_or_none(definition.account),
                                       definition.password ? definition.password->c_str() : nullptr));
    if (!handle) fail(what, definition.name);
    try {
        const MoreSettings more(what, definition, handle.get());
        more.describe();
        more.delay_start();
        more.restart_after_failures();
        set_environment(what, definition);
        add_event_source(what, definition);
    } catch (...) {
        calls().remove(static_cast<SC_HANDLE>(handle.get()));
        remove_event_source(definition.name);
        throw;
    }
}

bool ControlManager::change(const Definition& definition, const Installed& installed) const {
    constexpr const char* what = "change";
    const bool has_changed = definition.command_line != installed.command_line ||
                             (!definition.account.empty() && definition.account != installed.account) ||
                             definition.password || definition.environment != installed.environment;
    const Handle service = open(definition.name, SERVICE_CHANGE_CONFIG, what);
    if (has_changed &&
        !calls().change(static_cast<SC_HANDLE>(service.get()), SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                        definition.command_line.c_str(), nullptr, nullptr, nullptr, text_or_none(definition.account),
                        definition.password ? definition.password->c_str() : nullptr, nullptr)) {
        fail(what, definition.name);
    }
    MoreSettings(what, definition, service.get()).describe();
    set_environment(what, definition);
    add_event_source(what, definition);
    return has_changed;
}

void ControlManager::remove(const std::wstring& name) const {
    constexpr const char* what = "remove";
    const Handle service(calls().open(static_cast<SC_HANDLE>(manager_.get()), name.c_str(), DELETE));
    const bool is_removed = service && calls().remove(static_cast<SC_HANDLE>(service.get()));
    // Another program may have removed it meanwhile.
    if (const DWORD error = GetLastError();
        !is_removed && error != ERROR_SERVICE_DOES_NOT_EXIST && error != ERROR_SERVICE_MARKED_FOR_DELETE) {
        fail(what, name, error);
    }
    remove_event_source(name);
}

void ControlManager::start(const std::wstring& name) const {
    constexpr const char* what = "start";
    const Handle service = open(name, SERVICE_START, what);
    if (calls().start(static_cast<SC_HANDLE>(service.get()), 0, nullptr)) return;
    const DWORD error = GetLastError();
    if (error == ERROR_SERVICE_ALREADY_RUNNING) return;
    if (error == ERROR_SERVICE_REQUEST_TIMEOUT || error == ERROR_BROKEN_PIPE) {
        // A service that fails at once may end before the service manager looks for its start or has its answer.
        const auto installed = find(name);
        if (installed && installed->has_ended() && installed->exit != 0) return;
    }
    fail(what, name, error);
}

bool ControlManager::stop(const std::wstring& name) const {
    constexpr const char* what = "stop";
    const Handle service = open(name, SERVICE_STOP, what);
    SERVICE_STATUS status{};
    if (calls().control(static_cast<SC_HANDLE>(service.get()), SERVICE_CONTROL_STOP, &status)) return true;
    switch (const DWORD error = GetLastError()) {
        case ERROR_SERVICE_NOT_ACTIVE:
        case ERROR_BROKEN_PIPE:              // it has ended before the service manager had its answer
        case ERROR_SERVICE_REQUEST_TIMEOUT:  // it has not answered yet
            return true;
        case ERROR_SERVICE_CANNOT_ACCEPT_CTRL:
            return false;
        default:
            fail(what, name, error);
    }
}

void remove_event_source(const std::wstring& name) {
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, source_key_of(name).c_str());
}

}  // namespace service
