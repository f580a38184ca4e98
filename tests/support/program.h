// Runs another program to its end.
#pragma once

#include <string>

namespace test {

struct ProgramResult {
    int status;          ///< exit status; -1 if the program did not start or was killed
    std::string output;  ///< standard output, with "\n" at the end of lines
};

/// Runs a program with arguments as a shell takes them.
ProgramResult run_program(const std::string& path, const std::string& arguments);

}  // namespace test
