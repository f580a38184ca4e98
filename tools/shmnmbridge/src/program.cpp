#include "program.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "commands.h"
#include "etcd/error.h"
#include "log.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "picture/installation.h"
#include "picture/platform.h"

namespace bridge {
namespace {

int report(Exit exit, const std::string& what) {
    log(what);
    return static_cast<int>(exit);
}

}  // namespace

int run_program(int argc, char** argv) {
    picture::use_packaged_installation();
    CLI::App app("Lets the pictures of a cluster's machines converge through etcd.", "shmnmbridge");
    app.set_version_flag("--version", "shmnmbridge " SHMNM_VERSION);
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0 done, or the answer is yes; 1 the answer is no; 2 wrong usage; 3 no bridge runs, or no "
        "process\n"
        "holds the region; 5 refused or failed.");
    Command command;
    add_commands(app, command);
    try {
        const std::vector<std::string> arguments = picture::platform::arguments(argc, argv);
        app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::Success& asked_for) {
        return app.exit(asked_for);
    } catch (const CLI::ParseError& error) {
        return report(Exit::usage, picture::printable(error.what()) + "; see \"shmnmbridge --help\"");
    }
    try {
        return static_cast<int>(command());
    } catch (const picture::Error& error) {
        return report(Exit::failed, error.what());
    } catch (const etcd::Error& error) {
        return report(Exit::failed, error.what());
    } catch (const std::exception& error) {
        return report(Exit::failed, picture::printable(error.what()));
    }
}

}  // namespace bridge
