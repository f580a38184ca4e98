// The program's commands.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

namespace bridge {

/// As shmnmctl ends.
enum class Exit : int {
    done = 0,       ///< done, or the answer is yes
    no = 1,         ///< the answer is no
    usage = 2,      ///< the command line is wrong
    no_bridge = 3,  ///< no bridge runs
    failed = 5      ///< refused, or failed
};

/// What the command line asks for.
using Command = std::function<Exit()>;

void add_commands(CLI::App& app, Command& command);

/// The option --config.
void add_configuration(CLI::App& command, std::string& file);
/// What --config names, else the installed configuration.
std::string file_or_installed(const std::string& file);

void add_check_command(CLI::App& app, Command& command);
void add_run_command(CLI::App& app, Command& command);
void add_status_command(CLI::App& app, Command& command);

}  // namespace bridge
