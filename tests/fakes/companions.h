// The recorder behind the fake companions: every call that the library makes into a companion is written down, in
// order, and answered as the test has scripted it.
#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace fakes {

/// One line that the library wrote into its log.
struct LogLine {
    uint32_t level;
    std::string function, text, file;
    int32_t line;
};

struct Companions {
    /// Forgets all that was recorded and scripted, and takes the calls of the fake companions from now on.
    void reset();

    // ---- scripts; every call that none of them names succeeds ----
    std::map<std::string, int32_t> values;   ///< what the configuration says, by path; what is missing fails with 5
    std::map<std::string, int32_t> results;  ///< result of the call of that text, as in `calls`
    /// Answers, one after the other, of the create of the mapping: an error number, or 0 for the real one. Then the
    /// real one.
    std::vector<uint32_t> create_errors;
    std::vector<uint32_t> open_errors;     ///< the same for the open of the mapping
    bool create_keeps_last_error = false;  ///< the create of a new mapping leaves the last error as it was
    bool create_says_new = false;          ///< the create of a mapping leaves 0 as the last error, also if it is in use
    bool hand_out_unmappable = false;      ///< creates and opens of a mapping give a handle that cannot be mapped
    std::function<void(const std::string&)> on_call;  ///< called within each recorded call, with its text
    std::function<void(const LogLine&)> on_line;      ///< called within each write to the log, with its line
    bool log_opens = true;                            ///< the open of the log gives a handle
    int32_t log_open_result = 0;

    // ---- records ----
    std::vector<std::string> calls;  ///< such as "xmllib_load_policy(all)"; writes to the log are in `lines` alone
    std::vector<LogLine> lines;
    std::vector<void*> mappings;      ///< handles of the mapping that were handed out
    std::vector<void*> all_mappings;  ///< the same, not forgotten by a reset

    /// Takes the lines recorded so far.
    std::vector<LogLine> take_lines();
    std::vector<std::string> take_calls();

    std::mutex lock;  ///< lines of several threads
};

Companions& companions();

// ---- lines of the log, to be compared with ElementsAre ----
testing::Matcher<const LogLine&> Line(uint32_t level, const char* function, const std::string& text);
/// The entry line of an export, its exit line with a result, an error, a warning, an information, under its tag.
testing::Matcher<const LogLine&> Enter(const char* function);
testing::Matcher<const LogLine&> Exit(const char* function, uint32_t result);
testing::Matcher<const LogLine&> Error(const char* function, const std::string& text);
testing::Matcher<const LogLine&> Warning(const char* function, const std::string& text);
testing::Matcher<const LogLine&> Information(const char* function, const std::string& text);

std::ostream& operator<<(std::ostream& stream, const LogLine& line);

}  // namespace fakes
