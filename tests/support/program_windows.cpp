#include "support/program.h"

#include <cstdio>

namespace test {

ProgramResult run_program(const std::string& path, const std::string& arguments) {
    // The command interpreter takes the outermost quotes off.
    FILE* const pipe = _popen(("\"\"" + path + "\" " + arguments + "\"").c_str(), "rt");
    if (!pipe) return {-1, ""};
    ProgramResult result{-1, ""};
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) result.output += static_cast<char>(c);
    result.status = _pclose(pipe);
    return result;
}

}  // namespace test
