// "run": bridges this machine's region until it is told to stop.
#include <fmt/format.h>

#include <memory>

#include "commands.h"
#include "configuration.h"
#include "console/console.h"
#include "driver.h"
#include "kzmutil.h"
#include "log.h"
#include "machine.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "picture/live.h"
#include "picture/platform.h"

namespace bridge {
namespace {

constexpr const char* bridge_mutex = "oru_kzmshmnm_bridge_lock";

/// Held by the only bridge of this region.
class OnlyOne {
  public:
    /// @throws picture::Error  another bridge runs
    OnlyOne() : mutex_(KzmutilCreateNamedMutex(0, bridge_mutex)) {
        using picture::Error, picture::ErrorKind;
        if (!mutex_) {
            throw Error(ErrorKind::failed, fmt::format("cannot open the bridge's mutex {} {}",
                                                       picture::full_name(bridge_mutex), picture::last_failure()));
        }
        if (picture::platform::try_own(mutex_)) return;
        const auto holder = picture::platform::lock_holder(mutex_);
        picture::platform::close(mutex_);
        throw Error(ErrorKind::refused, fmt::format("another bridge runs for this machine's region{}; stop it first",
                                                    holder ? fmt::format(": process {}", holder->process) : ""));
    }
    ~OnlyOne() { picture::platform::close(mutex_); }
    OnlyOne(const OnlyOne&) = delete;
    OnlyOne& operator=(const OnlyOne&) = delete;

  private:
    void* mutex_;
};

Exit run(const std::string& file) {
    const CheckedConfiguration checked = check_configuration(file);
    for (const ConfigurationProblem& problem : checked.problems) {
        log(fmt::format("{}, line {}: {}", picture::shown_file(file), problem.line, problem.text));
    }
    if (!checked.problems.empty()) return Exit::failed;
    const OnlyOne only_one;
    Driver driver(checked.configuration);
    const Settings& settings = checked.configuration.bridge;
    console::write(stdout, fmt::format("ready: server {} of cluster {}\n", settings.server, settings.cluster));
    notify_service_manager("READY=1");
    driver.run();
    return Exit::done;
}

}  // namespace

void add_run_command(CLI::App& app, Command& command) {
    static std::string file;
    CLI::App* const run_command = app.add_subcommand("run", "Bridge this machine's region until told to stop");
    add_configuration(*run_command, file);
    run_command->footer("Exit status: 0 stopped by a signal; 5 it could not start, or failed.");
    run_command->callback([&command] { command = [] { return run(file_or_installed(file)); }; });
}

}  // namespace bridge
