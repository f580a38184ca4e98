#include <windows.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iostream>

#include "picture/escape.h"
#include "service/command_line.h"
#include "service/control_manager_windows.h"
#include "service_command.h"
#include "session.h"
#include "wide_path.h"

namespace shmnmctl {
namespace {

using service::ControlManager;
using service::Definition;
using service::Installed;
using service::Phase;
using wide_path::to_utf8;
using wide_path::to_wide;

constexpr uint32_t look_ms = 100;

/// One service, and what the user is told about it.
class Service {
  public:
    Service(const Context& context, const ServiceRequest& request)
        : context_(context),
          request_(request),
          name_(!request.name.empty() ? request.name
                : request.web         ? "shmnmweb"
                                      : "shmnm") {}

    Exit install();
    Exit remove();
    Exit start();
    Exit stop();
    Exit status() const;

  private:
    std::string shown_name() const { return shown_file(name_); }
    /// Another command for the same service.
    std::string command(const char* action) const;
    std::optional<Installed> find() const { return manager_.find(to_wide(name_)); }
    Installed find_installed() const;
    std::string program_by_hand() const { return request_.web ? "shmnmweb" : "shmnmctl serve"; }

    Definition definition() const;
    Exit check_arguments(const Definition& definition) const;
    void stop_running();
    void await(const char* what, const std::function<bool()>& is_done, const std::string& too_late) const;
    std::string still_pending(const char* what) const;

    std::string state_text(const Installed& installed) const;
    Exit answer(const std::string& text, bool changed) const;
    Json to_json(const std::optional<Installed>& installed) const;

    const Context& context_;
    const ServiceRequest& request_;
    const std::string name_;
    ControlManager manager_{request_.action == "install"};
};

std::wstring full_path(const std::wstring& name) {
    std::wstring path(32'768, L'\0');
    path.resize(GetFullPathNameW(name.c_str(), static_cast<DWORD>(path.size()), path.data(), nullptr));
    return path;
}

std::wstring own_program() {
    std::wstring path(32'768, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path;
}

/// A service begins in a folder of the system, so its files are named in full.
std::vector<std::wstring> with_full_paths(const std::vector<std::string>& arguments) {
    constexpr std::array options{L"--config", L"--names", L"--dump"};
    std::vector<std::wstring> all;
    bool is_file = false;
    for (const std::string& argument : arguments) {
        const std::wstring text = to_wide(argument);
        const size_t equals = text.find(L'=');
        const bool is_option = std::find(options.begin(), options.end(), text.substr(0, equals)) != options.end();
        if (is_file) {
            all.push_back(full_path(text));
        } else if (is_option && equals != std::wstring::npos) {
            all.push_back(text.substr(0, equals + 1) + full_path(text.substr(equals + 1)));
        } else {
            all.push_back(text);
        }
        is_file = !is_file && is_option && equals == std::wstring::npos;
    }
    return all;
}

/// The variables of the companions, as they are now.
std::vector<std::wstring> kept_variables() {
    const std::wstring installation = L"KZM_INSTALL_PATH=";
    std::vector<std::wstring> kept;
    wchar_t* const all = GetEnvironmentStringsW();
    for (const wchar_t* text = all; *text; text += std::wcslen(text) + 1) {
        std::wstring variable = text;
        if (!variable.starts_with(L"KZM")) continue;
        if (variable.starts_with(installation) && variable.size() > installation.size()) {
            variable = installation + full_path(variable.substr(installation.size()));
        }
        kept.push_back(variable);
    }
    FreeEnvironmentStringsW(all);
    std::sort(kept.begin(), kept.end());
    return kept;
}

std::wstring password_in(const std::string& name) {
    std::string line;
    std::ifstream file;
    if (name != "-") file.open(platform::file(name));
    std::istream& stream = name == "-" ? std::cin : file;
    if (!std::getline(stream, line)) {
        throw Failure(Exit::failed, fmt::format("cannot read a password from {}; write it into the first line",
                                                name == "-" ? "standard input" : shown_file(name)));
    }
    if (line.ends_with('\r')) line.pop_back();
    return to_wide(line);
}

std::string Service::command(const char* action) const {
    return fmt::format("\"shmnmctl service {}{}{}\"", action, request_.web ? " --web" : "",
                       request_.name.empty() ? "" : " --name " + shown_file(request_.name));
}

Installed Service::find_installed() const {
    if (auto installed = find()) return std::move(*installed);
    throw Failure(Exit::no,
                  fmt::format("the service {} is not installed; {} installs it", shown_name(), command("install")));
}

Definition Service::definition() const {
    const std::wstring tool = own_program();
    std::wstring program = tool;
    std::vector<std::wstring> arguments;
    if (request_.web) {
        program = tool.substr(0, tool.rfind(L'\\') + 1) + L"shmnmweb.exe";
        if (GetFileAttributesW(program.c_str()) == INVALID_FILE_ATTRIBUTES) {
            throw Failure(Exit::failed, fmt::format("there is no {}; install shmnmweb beside shmnmctl",
                                                    shown_file(to_utf8(program))));
        }
    } else {
        arguments.emplace_back(L"serve");
    }
    arguments.emplace_back(L"--service");
    const std::vector<std::wstring> more = with_full_paths(request_.arguments);
    arguments.insert(arguments.end(), more.begin(), more.end());
    Definition definition;
    definition.name = to_wide(name_);
    definition.description = request_.web
                                 ? L"Shows the picture of this machine's failover cluster over HTTP."
                                 : L"Creates the region that this machine's failover cluster shares, and holds it.";
    definition.command_line = service::command_line(program, arguments);
    definition.account = to_wide(request_.account);
    if (!request_.password_file.empty()) definition.password = password_in(request_.password_file);
    definition.environment = kept_variables();
    definition.message_file = tool;
    return definition;
}

/// Lets the program judge its arguments, so that a misspelt one is noticed now and not when the system starts.
Exit Service::check_arguments(const Definition& definition) const {
    if (request_.arguments.empty()) return Exit::done;
    const std::string program = to_utf8(definition.command_line.substr(1, definition.command_line.find(L'"', 1) - 1));
    std::vector<std::string> command{program};
    if (!request_.web) command.insert(command.end(), {"--format", context_.format, "serve"});
    command.insert(command.end(), {"--service", "--check-arguments"});
    command.insert(command.end(), request_.arguments.begin(), request_.arguments.end());
    return static_cast<Exit>(session::run(command));
}

Exit Service::install() {
    const Definition wanted = definition();
    if (const Exit wrong = check_arguments(wanted); wrong != Exit::done) return wrong;
    const auto installed = find();
    if (!installed) {
        manager_.install(wanted);
        return answer(fmt::format("the service {} is installed; {} starts it", shown_name(), command("start")), true);
    }
    const bool changed = manager_.change(wanted, *installed);
    if (!changed) return answer(fmt::format("the service {} is already installed", shown_name()), false);
    return answer(fmt::format("the service {} was installed already and is changed{}", shown_name(),
                              installed->has_ended() ? "" : "; stop and start it to make it so"),
                  true);
}

/// Looks again and again until something is so.
/// @throws Failure  it takes too long
void Service::await(const char* what, const std::function<bool()>& is_done, const std::string& too_late) const {
    session::catch_stop();
    for (uint32_t waited_ms = 0;; waited_ms += look_ms) {
        if (is_done()) return;
        if (waited_ms >= request_.timeout_ms) throw Failure(Exit::timeout, too_late);
        if (session::wait(look_ms) == session::Wake::stop) {
            throw Failure(Exit::failed, fmt::format("no longer waits for the service {} to {}; {} shows it",
                                                    shown_name(), what, command("status")));
        }
    }
}

std::string Service::still_pending(const char* what) const {
    return fmt::format("the service {} did not {} in time; it may still do so, {} shows it", shown_name(), what,
                       command("status"));
}

void Service::stop_running() {
    bool is_asked = false;
    const auto has_ended = [&] {
        if (find_installed().has_ended()) return true;
        if (!is_asked) is_asked = manager_.stop(to_wide(name_));
        return false;
    };
    await("stop", has_ended, still_pending("stop"));
}

Exit Service::remove() {
    const auto installed = find();
    if (!installed) {
        service::remove_event_source(to_wide(name_));
        return answer(fmt::format("the service {} is not installed", shown_name()), false);
    }
    if (!installed->has_ended()) stop_running();
    manager_.remove(to_wide(name_));
    // Until every program has closed it, the service is only marked for removal and cannot be installed again.
    await(
        "go", [&] { return !find(); },
        fmt::format("the service {} is marked for removal but not yet gone, because other programs still look at it; "
                    "close them (services.msc, the Event Viewer), and it goes",
                    shown_name()));
    return answer(fmt::format("the service {} is removed", shown_name()), true);
}

Exit Service::start() {
    if (find_installed().is_running()) {
        return answer(fmt::format("the service {} is already running", shown_name()), false);
    }
    manager_.start(to_wide(name_));
    const auto is_ready = [&] {
        const Installed installed = find_installed();
        if (!installed.has_ended()) return installed.is_running();
        throw Failure(Exit::failed,
                      fmt::format("the service {} did not start: {}", shown_name(), state_text(installed)));
    };
    await("get ready", is_ready, still_pending("get ready"));
    return answer(fmt::format("the service {} is running", shown_name()), true);
}

Exit Service::stop() {
    if (find_installed().has_ended()) {
        return answer(fmt::format("the service {} is not running", shown_name()), false);
    }
    stop_running();
    return answer(fmt::format("the service {} has stopped", shown_name()), true);
}

std::string Service::state_text(const Installed& installed) const {
    if (installed.process_has_ended || installed.error == ERROR_PROCESS_ABORTED) {
        return fmt::format("not running: its process was killed or has crashed; {} starts it again", command("start"));
    }
    switch (installed.phase) {
        case Phase::running:
            return fmt::format("running, process {}", installed.process);
        case Phase::starting:
            return fmt::format("starting, process {}, step {}", installed.process, installed.checkpoint);
        case Phase::stopping:
            return fmt::format("stopping, process {}, step {}", installed.process, installed.checkpoint);
        case Phase::paused:
            return "paused";
        case Phase::stopped:
            break;
    }
    if (installed.error == NO_ERROR) return "stopped";
    if (installed.error == ERROR_SERVICE_NEVER_STARTED) return "stopped; it was not started since the system started";
    const std::string how =
        installed.exit != 0 ? fmt::format("status {}", installed.exit) : fmt::format("error {}", installed.error);
    return fmt::format(
        "stopped: it ended with {}; its events in the log \"Application\" say why, and so does \"{}\" by hand", how,
        program_by_hand());
}

Json Service::to_json(const std::optional<Installed>& installed) const {
    Json one = document("service");
    one["name"] = as_typed(name_);
    one["installed"] = installed.has_value();
    if (!installed) return one;
    constexpr std::array phases{"stopped", "starting", "stopping", "running", "paused"};
    const bool killed = installed->process_has_ended || installed->error == ERROR_PROCESS_ABORTED;
    one["state"] = killed ? "killed" : phases.at(static_cast<size_t>(installed->phase));
    one["process"] = installed->has_ended() ? Json() : Json(installed->process);
    one["error"] = installed->error;
    one["exit_status"] = installed->exit;
    one["account"] = as_typed(to_utf8(installed->account));
    one["start"] = installed->is_disabled ? "disabled" : installed->is_automatic ? "automatic" : "by hand";
    one["command_line"] = as_typed(to_utf8(installed->command_line));
    one["environment"] = Json::array();
    for (const std::wstring& variable : installed->environment) {
        one["environment"].push_back(as_typed(to_utf8(variable)));
    }
    return one;
}

Exit Service::status() const {
    const auto installed = find();
    if (context_.json()) {
        write_output(line(to_json(installed)));
    } else if (!installed) {
        write_output(fmt::format("{}: not installed; {} installs it\n", shown_name(), command("install")));
    } else {
        std::string text = fmt::format("{}: {}\n", shown_name(), state_text(*installed));
        const auto row = [&](const char* what, const std::wstring& value) {
            text += fmt::format("  {:<9} {}\n", what, shown_file(to_utf8(value)));
        };
        row("account", installed->account);
        row("start", installed->is_disabled ? L"disabled" : installed->is_automatic ? L"automatic" : L"by hand");
        row("program", installed->command_line);
        for (const std::wstring& variable : installed->environment) row("variable", variable);
        write_output(text);
    }
    return installed && installed->is_running() ? Exit::done : Exit::no;
}

Exit Service::answer(const std::string& text, bool changed) const {
    if (!context_.json()) {
        write_output(text + "\n");
    } else {
        Json answer = to_json(find());
        answer["changed"] = changed;
        write_output(line(answer));
    }
    return Exit::done;
}

}  // namespace

Exit serve_request(const Context& context, const ServiceRequest& request) {
    Service service(context, request);
    if (request.action == "install") return service.install();
    if (request.action == "remove") return service.remove();
    if (request.action == "start") return service.start();
    return request.action == "stop" ? service.stop() : service.status();
}

}  // namespace shmnmctl
