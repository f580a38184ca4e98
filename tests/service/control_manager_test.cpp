// What the service manager is asked for. The test stands in for it, because wine keeps only a part of what is asked.
#include "service/control_manager_windows.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "picture/error.h"
#include "service/calls_windows.h"

namespace {

using service::ControlManager;
using service::Definition;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

SC_HANDLE handle(uintptr_t number) {
    return reinterpret_cast<SC_HANDLE>(number);
}

/// A service manager that keeps what it is asked for.
struct Asked {
    std::map<std::string, DWORD> errors;  ///< the calls that fail, with their errors
    std::vector<std::string> calls;
    DWORD rights = 0, type = 0, start = 0, error_control = 0;
    std::wstring name, shown_name, command_line, account, password, description;
    bool has_account = true, is_delayed = false, restarts_after_told_failures = false;
    DWORD reset_after_s = 0;
    std::vector<std::pair<SC_ACTION_TYPE, DWORD>> actions;
    std::vector<DWORD> levels;
    SERVICE_STATUS_PROCESS status{}, earlier_status{};
    int earlier_looks = 0;  ///< looks that see the earlier status
    int open_handles = 0;
};
Asked asked;

BOOL done(const char* call) {
    asked.calls.emplace_back(call);
    const auto error = asked.errors.find(call);
    if (error == asked.errors.end()) return TRUE;
    SetLastError(error->second);
    return FALSE;
}
SC_HANDLE opened(const char* call) {
    if (!done(call)) return nullptr;
    ++asked.open_handles;
    return handle(1);
}

SC_HANDLE WINAPI create(SC_HANDLE, LPCWSTR name, LPCWSTR shown_name, DWORD, DWORD type, DWORD start,
                        DWORD error_control, LPCWSTR command_line, LPCWSTR, LPDWORD, LPCWSTR, LPCWSTR account,
                        LPCWSTR password) {
    asked.name = name;
    asked.shown_name = shown_name;
    asked.type = type;
    asked.start = start;
    asked.error_control = error_control;
    asked.command_line = command_line;
    asked.has_account = account != nullptr;
    asked.account = account ? account : L"";
    asked.password = password ? password : L"";
    return opened("create");
}

BOOL WINAPI change(SC_HANDLE, DWORD type, DWORD start, DWORD error_control, LPCWSTR command_line, LPCWSTR, LPDWORD,
                   LPCWSTR, LPCWSTR account, LPCWSTR, LPCWSTR) {
    asked.type = type;
    asked.start = start;
    asked.error_control = error_control;
    asked.command_line = command_line;
    asked.has_account = account != nullptr;
    return done("change");
}

BOOL WINAPI change_more(SC_HANDLE, DWORD level, void* information) {
    asked.levels.push_back(level);
    switch (level) {
        case SERVICE_CONFIG_DESCRIPTION:
            asked.description = static_cast<SERVICE_DESCRIPTIONW*>(information)->lpDescription;
            break;
        case SERVICE_CONFIG_DELAYED_AUTO_START_INFO:
            asked.is_delayed = static_cast<SERVICE_DELAYED_AUTO_START_INFO*>(information)->fDelayedAutostart;
            break;
        case SERVICE_CONFIG_FAILURE_ACTIONS: {
            const auto& failures = *static_cast<SERVICE_FAILURE_ACTIONSW*>(information);
            asked.reset_after_s = failures.dwResetPeriod;
            for (DWORD i = 0; i < failures.cActions; ++i) {
                asked.actions.emplace_back(failures.lpsaActions[i].Type, failures.lpsaActions[i].Delay);
            }
            break;
        }
        case SERVICE_CONFIG_FAILURE_ACTIONS_FLAG:
            asked.restarts_after_told_failures =
                static_cast<SERVICE_FAILURE_ACTIONS_FLAG*>(information)->fFailureActionsOnNonCrashFailures;
            break;
        default:
            break;
    }
    return done("change_more");
}

constexpr const wchar_t* name = L"shmnm-control-manager-test";

class TheServiceManager : public testing::Test {
  protected:
    TheServiceManager() {
        asked = {};
        asked.status.dwCurrentState = SERVICE_STOPPED;
        service::Calls& calls = service::calls();
        calls.open_manager = [](LPCWSTR, LPCWSTR, DWORD rights) {
            asked.rights = rights;
            return opened("open_manager");
        };
        calls.close = [](SC_HANDLE) -> BOOL {
            --asked.open_handles;
            return TRUE;
        };
        calls.open = [](SC_HANDLE, LPCWSTR, DWORD) { return opened("open"); };
        calls.create = create;
        calls.change = change;
        calls.change_more = change_more;
        calls.remove = [](SC_HANDLE) { return done("remove"); };
        calls.query_status = [](SC_HANDLE, SC_STATUS_TYPE, BYTE* into, DWORD size, DWORD*) -> BOOL {
            std::memcpy(into, asked.earlier_looks-- > 0 ? &asked.earlier_status : &asked.status, size);
            return TRUE;
        };
        calls.query_configuration = [](SC_HANDLE, QUERY_SERVICE_CONFIGW* into, DWORD size, DWORD* bytes) -> BOOL {
            *bytes = sizeof *into;
            if (size < sizeof *into) return FALSE;
            *into = {};
            return TRUE;
        };
        calls.start = [](SC_HANDLE, DWORD, LPCWSTR*) { return done("start"); };
        calls.control = [](SC_HANDLE, DWORD, LPSERVICE_STATUS) { return done("control"); };
    }
    ~TheServiceManager() override {
        service::calls() = {};
        service::remove_event_source(name);
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, service_key().c_str());
        EXPECT_EQ(asked.open_handles, 0);
    }

    static std::wstring service_key() { return std::wstring(L"SYSTEM\\CurrentControlSet\\Services\\") + name; }
    static Definition definition() {
        return {.name = name,
                .description = L"It serves.",
                .command_line = L"\"C:\\Program Files\\x.exe\" serve --service",
                .account = L"",
                .password = {},
                .environment = {L"KZMUTIL_NAMESPACE=a-", L"KZM_INSTALL_PATH=C:\\a b"},
                .message_file = L"C:\\Program Files\\x.exe"};
    }
    /// The message of what an action throws.
    template <typename Action>
    static std::string error_of(Action action) {
        try {
            action(ControlManager(true));
        } catch (const picture::Error& error) {
            EXPECT_EQ(error.kind, picture::ErrorKind::failed);
            return error.what();
        }
        ADD_FAILURE() << "nothing was thrown";
        return "";
    }
    static bool is_event_source() {
        const std::wstring key = std::wstring(L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\") + name;
        return RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"EventMessageFile", RRF_RT_ANY, nullptr, nullptr,
                            nullptr) == ERROR_SUCCESS;
    }
};

TEST_F(TheServiceManager, IsAskedForAServiceThatStartsDelayedWithTheSystem) {
    ControlManager(true).install(definition());
    EXPECT_EQ(asked.rights, DWORD{SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE});
    EXPECT_EQ(asked.name, name);
    EXPECT_EQ(asked.shown_name, name);
    EXPECT_EQ(asked.type, DWORD{SERVICE_WIN32_OWN_PROCESS});
    EXPECT_EQ(asked.start, DWORD{SERVICE_AUTO_START});
    EXPECT_EQ(asked.error_control, DWORD{SERVICE_ERROR_NORMAL});
    EXPECT_EQ(asked.command_line, L"\"C:\\Program Files\\x.exe\" serve --service");
    EXPECT_FALSE(asked.has_account) << "LocalSystem";
    EXPECT_EQ(asked.description, L"It serves.");
    EXPECT_TRUE(asked.is_delayed);
    EXPECT_TRUE(is_event_source());
}

TEST_F(TheServiceManager, IsAskedToStartItAgainAfterEveryFailure) {
    ControlManager(true).install(definition());
    EXPECT_THAT(asked.actions, ElementsAre(Pair(SC_ACTION_RESTART, 5'000), Pair(SC_ACTION_RESTART, 30'000),
                                           Pair(SC_ACTION_RESTART, 60'000)));
    EXPECT_EQ(asked.reset_after_s, 86'400);
    EXPECT_TRUE(asked.restarts_after_told_failures);
}

TEST_F(TheServiceManager, GetsTheAccountAndItsPassword) {
    Definition of_the_cluster = definition();
    of_the_cluster.account = L".\\cluster";
    of_the_cluster.password = L"secret";
    ControlManager(true).install(of_the_cluster);
    EXPECT_EQ(asked.account, L".\\cluster");
    EXPECT_EQ(asked.password, L"secret");
}

TEST_F(TheServiceManager, MayKnowNoneOfTheLaterSettings) {
    asked.errors["change_more"] = ERROR_INVALID_LEVEL;
    ControlManager(true).install(definition());
    EXPECT_THAT(asked.calls, testing::Not(testing::Contains("remove")));
}

TEST_F(TheServiceManager, IsLeftWithoutAServiceThatCannotBeSetUp) {
    asked.errors["change_more"] = ERROR_ACCESS_DENIED;
    const std::string error = error_of([](const ControlManager& manager) { manager.install(definition()); });
    EXPECT_THAT(error, HasSubstr("cannot install the service shmnm-control-manager-test (error 5): access is denied; "
                                 "run this in a console that was started with \"Run as administrator\""));
    EXPECT_EQ(asked.calls.back(), "remove");
    EXPECT_FALSE(is_event_source());
}

TEST_F(TheServiceManager, KeepsWhatAnAdministratorHasSetWhenAServiceIsChanged) {
    service::Installed installed;
    installed.command_line = L"another";
    EXPECT_TRUE(ControlManager(true).change(definition(), installed));
    EXPECT_EQ(asked.type, DWORD{SERVICE_NO_CHANGE});
    EXPECT_EQ(asked.start, DWORD{SERVICE_NO_CHANGE});
    EXPECT_EQ(asked.error_control, DWORD{SERVICE_NO_CHANGE});
    EXPECT_EQ(asked.command_line, definition().command_line);
    EXPECT_FALSE(asked.has_account);
    EXPECT_THAT(asked.levels, ElementsAre(DWORD{SERVICE_CONFIG_DESCRIPTION}));
}

TEST_F(TheServiceManager, IsNotAskedToChangeWhatIsAsItShouldBe) {
    service::Installed installed;
    installed.command_line = definition().command_line;
    installed.environment = definition().environment;
    installed.account = L".\\kept";
    EXPECT_FALSE(ControlManager(true).change(definition(), installed));
    EXPECT_THAT(asked.calls, testing::Not(testing::Contains("change")));
}

TEST_F(TheServiceManager, IsAnsweredWithWhatToDoNext) {
    const struct {
        const char* call;
        DWORD error;
        const char* advice;
    } cases[] = {
        {"open", ERROR_ACCESS_DENIED, "Run as administrator"},
        {"start", ERROR_SERVICE_LOGON_FAILED, "\"Log on as a service\""},
        {"start", ERROR_SERVICE_DISABLED, "sc config NAME start= auto"},
        {"start", ERROR_FILE_NOT_FOUND, "install the service again"},
        {"start", ERROR_SERVICE_REQUEST_TIMEOUT, "start it by hand to see why"},
        {"start", 4'711, "net helpmsg 4711"},
    };
    for (const auto& each : cases) {
        asked.errors = {{each.call, each.error}};
        const std::string error = error_of([](const ControlManager& manager) { manager.start(name); });
        EXPECT_THAT(error, HasSubstr("cannot start the service shmnm-control-manager-test (error " +
                                     std::to_string(each.error) + "): "));
        EXPECT_THAT(error, HasSubstr(each.advice));
    }
    asked.errors = {{"control", ERROR_DEPENDENT_SERVICES_RUNNING}};
    EXPECT_THAT(error_of([](const ControlManager& manager) { manager.stop(name); }), HasSubstr("sc enumdepend NAME"));
    asked.errors = {{"create", ERROR_SERVICE_MARKED_FOR_DELETE}};
    EXPECT_THAT(error_of([](const ControlManager& manager) { manager.install(definition()); }),
                HasSubstr("services.msc"));
    asked.errors = {{"remove", ERROR_ACCESS_DENIED}};
    EXPECT_THAT(error_of([](const ControlManager& manager) { manager.remove(name); }),
                HasSubstr("Run as administrator"));
    asked.errors = {{"open_manager", ERROR_ACCESS_DENIED}};
    EXPECT_THAT(error_of([](const ControlManager&) {}), HasSubstr("cannot reach the service manager (error 5): "));
}

TEST_F(TheServiceManager, MayHaveRemovedItMeanwhile) {
    ControlManager(true).install(definition());
    asked.errors = {{"remove", ERROR_SERVICE_MARKED_FOR_DELETE}};
    ControlManager(false).remove(name);
    EXPECT_FALSE(is_event_source());
    asked.errors = {{"open", ERROR_SERVICE_DOES_NOT_EXIST}};
    ControlManager(false).remove(name);
}

TEST_F(TheServiceManager, MayHaveStartedOrStoppedItMeanwhile) {
    asked.errors = {{"start", ERROR_SERVICE_ALREADY_RUNNING}, {"control", ERROR_SERVICE_NOT_ACTIVE}};
    const ControlManager manager(false);
    EXPECT_EQ(asked.rights, DWORD{SC_MANAGER_CONNECT});
    manager.start(name);
    EXPECT_TRUE(manager.stop(name));
    asked.errors["control"] = ERROR_BROKEN_PIPE;
    EXPECT_TRUE(manager.stop(name));
}

TEST_F(TheServiceManager, MayBeSlowToStopIt) {
    const ControlManager manager(false);
    asked.errors = {{"control", ERROR_SERVICE_REQUEST_TIMEOUT}};
    EXPECT_TRUE(manager.stop(name)) << "it is asked, and has not answered yet";
    asked.errors = {{"control", ERROR_SERVICE_CANNOT_ACCEPT_CTRL}};
    EXPECT_FALSE(manager.stop(name)) << "it cannot be asked yet";
}

TEST_F(TheServiceManager, IsAskedAgainWhatAServiceToldBeforeItsProcessEnded) {
    constexpr DWORD no_process = 0x7FFF'FFFC;
    asked.earlier_status.dwCurrentState = SERVICE_START_PENDING;
    asked.earlier_status.dwProcessId = no_process;
    asked.earlier_looks = 1;
    asked.status.dwWin32ExitCode = ERROR_SERVICE_SPECIFIC_ERROR;
    asked.status.dwServiceSpecificExitCode = 5;
    const ControlManager manager(false);
    const auto ended = manager.find(name);
    EXPECT_EQ(ended->phase, service::Phase::stopped);
    EXPECT_EQ(ended->exit, 5);
    EXPECT_FALSE(ended->process_has_ended) << "it was not killed";
    asked.status = asked.earlier_status;
    EXPECT_TRUE(manager.find(name)->process_has_ended) << "it never told its end";
}

TEST_F(TheServiceManager, MayMissTheStartOfAServiceThatFailsAtOnce) {
    asked.errors = {{"start", ERROR_SERVICE_REQUEST_TIMEOUT}};
    asked.status.dwWin32ExitCode = ERROR_SERVICE_SPECIFIC_ERROR;
    asked.status.dwServiceSpecificExitCode = 5;
    const ControlManager manager(false);
    manager.start(name);
    EXPECT_EQ(manager.find(name)->exit, 5) << "how it ended";
    asked.errors = {{"start", ERROR_BROKEN_PIPE}};
    manager.start(name);
    asked.errors = {{"start", ERROR_SERVICE_REQUEST_TIMEOUT}};
    asked.status.dwCurrentState = SERVICE_START_PENDING;
    EXPECT_THAT(error_of([](const ControlManager& other) { other.start(name); }), HasSubstr("(error 1053)"));
    asked.status.dwCurrentState = SERVICE_STOPPED;
    asked.status.dwWin32ExitCode = ERROR_SERVICE_NEVER_STARTED;
    EXPECT_THAT(error_of([](const ControlManager& other) { other.start(name); }), HasSubstr("(error 1053)"));
}

}  // namespace
