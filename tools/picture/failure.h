// How the tool ends. Whatever goes wrong is thrown as a Failure and reported in one line by main().
#pragma once

#include <stdexcept>
#include <string>

namespace picture {

enum class Exit : int {
    done = 0,       ///< done, or the answer is yes
    no = 1,         ///< not found, condition false, findings
    usage = 2,      ///< the command line is wrong
    no_region = 3,  ///< no process holds the region
    timeout = 4,    ///< the lock, or what was waited for, did not come in time
    failed = 5      ///< refused, or failed
};

class Failure : public std::runtime_error {
  public:
    /// @param[in] line  what went wrong and what to do next, in one line without its end
    Failure(Exit how, const std::string& line) : std::runtime_error(line), exit(how) {}

    Exit exit;
};

}  // namespace picture
