// What only Windows has of the log: the last error, and files that cannot be renamed while someone has them open.
#include <windows.h>

#include <cstdlib>

#include "kzmlog.h"
#include "kzmlog_test_platform.h"

namespace test {
namespace {

using testing::ElementsAre;

HANDLE open_file(const std::string& path, DWORD access, DWORD share) {
    return CreateFileA(path.c_str(), access, share, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
}

}  // namespace

void hold_rotation_lock() {
    const HANDLE lock = open_file(std::string(std::getenv("KZM_INSTALL_PATH")) + "/log/oru_kzmshmnm_log.lock",
                                  GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    OVERLAPPED place{};
    place.OffsetHigh = 0x40000000;
    if (!LockFileEx(lock, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &place)) std::abort();
}

int local_offset_minutes() {
    TIME_ZONE_INFORMATION zone{};
    const bool daylight = GetTimeZoneInformation(&zone) == TIME_ZONE_ID_DAYLIGHT;
    return static_cast<int>(-zone.Bias - (daylight ? zone.DaylightBias : zone.StandardBias));
}

namespace {

TEST_F(KzmLog, LeavesNoHandleOpenBetweenTwoLines) {
    void* const log = open_log(1);
    for (const char* const line : {"a", "b"}) EXPECT_EQ(write(log, line), 0);
    for (const char* const name : {"shmnm.log", "shmnm.log.1", "oru_kzmshmnm_log.lock"}) {
        const HANDLE alone = open_file(file(name).string(), GENERIC_READ, 0);
        EXPECT_NE(alone, INVALID_HANDLE_VALUE) << name;
        CloseHandle(alone);
    }
    kzmlog_close(log);
}

TEST_F(KzmLog, KeepsTheLastErrorOfItsCaller) {
    SetLastError(4711);
    void* log = nullptr;
    EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 1, 0, "channel"), 0);
    EXPECT_EQ(GetLastError(), 4711u);
    EXPECT_EQ(kzmlog_write(log, 16, 0, "f", 1, "g", "dropped"), 0);
    EXPECT_EQ(GetLastError(), 4711u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(write(log, "rotates"), 0);
    EXPECT_EQ(GetLastError(), 4711u);
    EXPECT_EQ(kzmlog_close(log), 0);
    EXPECT_EQ(write(log, "closed"), invalid_handle);
    EXPECT_EQ(GetLastError(), 4711u);
}

TEST_F(KzmLog, RotatesWhileAReaderThatAllowsItHasTheFileOpen) {
    void* const log = open_log(1);
    EXPECT_EQ(write(log, "first"), 0);
    const HANDLE reader =
        open_file(file().string(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    EXPECT_EQ(write(log, "second"), 0);
    EXPECT_THAT(messages(text("shmnm.log.1")), ElementsAre("first"));
    EXPECT_THAT(messages(text()), ElementsAre("second"));
    CloseHandle(reader);
    kzmlog_close(log);
}

TEST_F(KzmLog, DelaysItsRotationForAReaderThatForbidsItAndLosesNothing) {
    void* const log = open_log(1);
    for (const char* const line : {"a", "b", "c", "d"}) EXPECT_EQ(write(log, line), 0);
    const HANDLE reader = open_file(file("shmnm.log.1").string(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
    for (const char* const line : {"e", "f"}) EXPECT_EQ(write(log, line), 0);
    EXPECT_THAT(messages(text("shmnm.log.1")), ElementsAre("c"));
    EXPECT_THAT(messages(text()), ElementsAre("d", "e", "f"));
    CloseHandle(reader);
    EXPECT_EQ(write(log, "g"), 0);
    EXPECT_THAT(kept_messages(), ElementsAre("b", "c", "d", "e", "f", "g"));
    kzmlog_close(log);
}

TEST_F(KzmLog, KeepsItsOldestGenerationWhileTheNextOneCannotBeRenamed) {
    void* const log = open_log(1);
    for (const char* const line : {"a", "b", "c", "d"}) EXPECT_EQ(write(log, line), 0);
    const HANDLE reader = open_file(file("shmnm.log.2").string(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
    EXPECT_EQ(write(log, "e"), 0);
    EXPECT_THAT(kept_messages(), ElementsAre("a", "b", "c", "d", "e"));
    CloseHandle(reader);
    kzmlog_close(log);
}

// Whether the name of a deleted file is free while someone has it open depends on the system: either the rotation takes
// place or it waits, and what is not given up by it is kept.
TEST_F(KzmLog, LosesOnlyItsOldestGenerationWhileAReaderHasItOpen) {
    void* const log = open_log(1);
    for (const char* const line : {"a", "b", "c", "d"}) EXPECT_EQ(write(log, line), 0);
    const HANDLE reader =
        open_file(file("shmnm.log.3").string(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    EXPECT_EQ(write(log, "e"), 0);
    CloseHandle(reader);
    EXPECT_THAT(kept_messages(), testing::AnyOf(ElementsAre("b", "c", "d", "e"), ElementsAre("a", "b", "c", "d", "e")));
    EXPECT_EQ(write(log, "f"), 0);
    EXPECT_THAT(messages(text()), ElementsAre("f"));
    kzmlog_close(log);
}

TEST_F(KzmLog, RefusesTheNameOfADevice) {
    void* log = nullptr;
    const int32_t result = kzmlog_open("NUL", &log, 4, 0, 0, "channel");
    // Newer systems make a file of that name, older ones open the device, which is refused.
    EXPECT_EQ(result == 0, std::filesystem::is_regular_file(file("NUL.log")));
    if (result == 0) kzmlog_close(log);
}

}  // namespace
}  // namespace test
