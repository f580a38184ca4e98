// Completion of the command line in shells. The shells' own scripts only pass on what was typed and show the answer.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace shmnmctl {

/// The word that stands for a command and asks for candidates.
inline constexpr const char* completion_word = "__complete";

/// What may stand in the place of the last word: lines of a candidate, a tabulator and what it means. A candidate that
/// ends with a slash or = goes on. A line that begins with a tabulator says what the shell itself completes: "files" or
/// "commands".
/// @param[in] words  those after the command's name; before the last one stands a =, so that it is never empty
std::string completion(const CLI::App& app, std::vector<std::string> words);

}  // namespace shmnmctl
