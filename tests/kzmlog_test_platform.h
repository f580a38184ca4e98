// The log's file as its tests see it, and what the two platforms do differently for them.
#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "support/child.h"
#include "support/temporary_folder.h"

namespace test {

inline constexpr int32_t invalid_handle = 6;
inline constexpr int32_t invalid_parameter = 87;

/// One line of a log, taken apart.
struct LogLine {
    std::string time;    ///< as it stands there
    int64_t utc_ms = 0;  ///< the same since 1970
    int offset_minutes = 0;
    uint32_t process = 0, thread = 0;
    std::string level, function, file;
    int32_t line = 0;
    std::string message;  ///< as it stands there, escaped
};

/// The lines of a text; a text that does not end with a newline, and a line without all its fields, is a failure.
std::vector<LogLine> parsed(const std::string& text);
/// Their messages.
std::vector<std::string> messages(const std::string& text);
/// What was escaped, as it was.
std::string unescaped(std::string_view text);

/// An installation of the test's own; the log is shmnm.log in it.
class KzmLog : public testing::Test {
  protected:
    KzmLog() = default;

    std::filesystem::path folder() const { return install_.path() / "log"; }
    std::filesystem::path file(const char* name = "shmnm.log") const { return folder() / name; }
    std::string text(const char* name = "shmnm.log") const { return contents_of(file(name)); }
    /// The messages in the oldest kept generation, then those in the next one, to the current file.
    std::vector<std::string> kept_messages() const;

    const TemporaryFolder& install() const { return install_; }

  private:
    TemporaryFolder install_;
    ScopedEnvironment install_path_{"KZM_INSTALL_PATH", install_.string().c_str()};
};

/// Opens the log of module "shmnm"; null when that fails.
void* open_log(uint32_t size = 0, uint32_t level = 16);
/// Writes a message at level 4 from file "src/writer" line 7 function "_write".
int32_t write(void* log, const std::string& message);

/// In a child: takes the lock of rotation in the installation that is set, for as long as the child lives.
void hold_rotation_lock();

/// Minutes that local time is ahead of UTC by now.
int local_offset_minutes();

}  // namespace test
