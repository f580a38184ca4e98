// What is wrong with a command line, and what to type instead.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "failure.h"

namespace shmnmctl {

/// The command that a command line has named so far: "shmnmctl add server" when it could be read up to there.
const CLI::App& command_at_hand(const CLI::App& app);

/// The commands of a program, or of a group of commands, that its help names.
std::vector<const CLI::App*> visible_commands(const CLI::App& app);

/// All of a command in one line: "shmnmctl get [--file FILE] KEY".
std::string synopsis(const CLI::App& command);

/// The error of the parser in the tool's own words.
Failure usage_failure(const CLI::App& app, const CLI::ParseError& error);

}  // namespace shmnmctl
