#include "support/program.h"

#include <sys/wait.h>

#include <cstdio>

namespace test {

ProgramResult run_program(const std::string& path, const std::string& arguments) {
    FILE* const pipe = popen(("'" + path + "' " + arguments).c_str(), "r");
    if (!pipe) return {-1, ""};
    ProgramResult result{-1, ""};
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) result.output += static_cast<char>(c);
    const int status = pclose(pipe);
    if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
    return result;
}

}  // namespace test
