// How the tool ends. Whatever goes wrong is thrown, as a Failure of the command line or as an Error of the picture, and
// is turned into text or a document in one place.
#pragma once

#include <exception>
#include <stdexcept>
#include <string>

#include "picture/error.h"

namespace shmnmctl {

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
    /// @param[in] line  what failed, why and what to do next, in one line without its end
    Failure(Exit how, const std::string& line) : std::runtime_error(line), exit(how) {}
    /// Adds how the tool ends and what it advises.
    explicit Failure(const picture::Error& error);

    Exit exit;
};

/// A sentence with what may follow it: after a question mark comes no semicolon.
std::string followed_by(const std::string& what, const std::string& next);

/// Whatever was thrown, as a failure. Only where an exception is being handled.
Failure current_failure();

/// A failure as a line with its end: for people, or the document "error".
std::string to_text(const Failure& failure, bool json);

/// What does not keep the tool from answering, as a line with its end: for people, or the document "warning".
std::string warning(const std::string& line, bool json);

}  // namespace shmnmctl
