// The log: its lines and levels, its handles, and the file that it writes to.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kzmlog.h"
#include "kzmlog_test_platform.h"

namespace test {

using testing::ElementsAre;
using testing::SizeIs;

namespace {

int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

TEST_F(KzmLog, WritesOneLineWithAllItsFields) {
    void* const log = open_log();
    const int64_t before = now_ms();
    EXPECT_EQ(kzmlog_write(log, 1, 0, "src/windows/shmnm", 4711, "_addnode", "name:alpha not found"), 0);
    const int64_t after = now_ms();
    const std::vector<LogLine> lines = parsed(text());
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_GE(lines[0].utc_ms, before);
    EXPECT_LE(lines[0].utc_ms, after);
    EXPECT_EQ(lines[0].offset_minutes, local_offset_minutes());
    EXPECT_EQ(lines[0].process, process_id());
    EXPECT_EQ(lines[0].level, "ERROR");
    EXPECT_EQ(lines[0].function, "_addnode");
    EXPECT_EQ(lines[0].file, "src/windows/shmnm");
    EXPECT_EQ(lines[0].line, 4711);
    EXPECT_EQ(lines[0].message, "name:alpha not found");
    EXPECT_EQ(text(), lines[0].time + " " + std::to_string(process_id()) + " " + std::to_string(lines[0].thread) +
                          " ERROR _addnode src/windows/shmnm:4711 name:alpha not found\n");
    EXPECT_EQ(kzmlog_close(log), 0);
}

TEST_F(KzmLog, DistinguishesThreads) {
    void* const log = open_log();
    EXPECT_EQ(write(log, "first"), 0);
    EXPECT_EQ(write(log, "second"), 0);
    std::thread([log] { EXPECT_EQ(write(log, "third"), 0); }).join();
    const std::vector<LogLine> lines = parsed(text());
    ASSERT_THAT(lines, SizeIs(3));
    EXPECT_EQ(lines[0].thread, lines[1].thread);
    EXPECT_NE(lines[0].thread, lines[2].thread);
    kzmlog_close(log);
}

TEST_F(KzmLog, NamesTheKnownLevelsAndNumbersTheOthers) {
    void* const log = open_log(0, 0xFFFFFFFF);
    for (const uint32_t level : {0u, 1u, 2u, 4u, 8u, 16u, 0xFFFFFFFFu}) {
        EXPECT_EQ(kzmlog_write(log, level, 0, "f", 1, "g", "m"), 0);
    }
    std::vector<std::string> levels;
    for (const LogLine& line : parsed(text())) levels.push_back(line.level);
    EXPECT_THAT(levels, ElementsAre("0", "ERROR", "WARNING", "INFO", "8", "TRACE", "4294967295"));
    kzmlog_close(log);
}

TEST_F(KzmLog, DropsLinesAboveItsLevel) {
    void* const log = open_log(0, 4);
    for (const uint32_t level : {16u, 5u, 4u, 2u, 1u}) {
        EXPECT_EQ(kzmlog_write(log, level, 0, "f", 1, "g", std::to_string(level).c_str()), 0);
    }
    EXPECT_THAT(messages(text()), ElementsAre("4", "2", "1"));
    kzmlog_close(log);
}

TEST_F(KzmLog, WritesNullTextsAsEmpty) {
    void* const log = open_log();
    EXPECT_EQ(kzmlog_write(log, 4, 0, nullptr, -1, nullptr, nullptr), 0);
    const std::vector<LogLine> lines = parsed(text());
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].function, "");
    EXPECT_EQ(lines[0].file, "");
    EXPECT_EQ(lines[0].line, -1);
    EXPECT_EQ(lines[0].message, "");
    kzmlog_close(log);
}

TEST_F(KzmLog, EscapesBytesThatCouldForgeALine) {
    void* const log = open_log();
    const std::string forged = "x\n2026-01-01T00:00:00.000+00:00 1 1 ERROR f g:1 forged\r\t\x1b[2J\x7f\\n";
    EXPECT_EQ(kzmlog_write(log, 4, 0, "a b\n:1", 3, "f\ng h", forged.c_str()), 0);
    const std::vector<LogLine> lines = parsed(text());
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].message, "x\\n2026-01-01T00:00:00.000+00:00 1 1 ERROR f g:1 forged\\r\\t\\x1b[2J\\x7f\\\\n");
    EXPECT_EQ(unescaped(lines[0].message), forged);
    EXPECT_EQ(lines[0].function, "f\\ng\\x20h");
    EXPECT_EQ(lines[0].file, "a\\x20b\\n:1");
    EXPECT_EQ(lines[0].line, 3);
    kzmlog_close(log);
}

TEST_F(KzmLog, KeepsPrintableUtf8AndEscapesTheRest) {
    struct {
        const char *given, *written;
    } const cases[] = {
        {"\xc3\xa4 \xe6\xbc\xa2 \xf0\x9f\x98\x80", "\xc3\xa4 \xe6\xbc\xa2 \xf0\x9f\x98\x80"},
        {"\xc2\xa0", "\xc2\xa0"},                                     // the first one behind the controls
        {"\xc2\x80\xc2\x9b\xc2\x9f", R"(\xc2\x80\xc2\x9b\xc2\x9f)"},  // C1 controls
        {"\xe2\x80\xa8\xe2\x80\xa9", R"(\xe2\x80\xa8\xe2\x80\xa9)"},  // separators of lines and paragraphs
        {"\xe2\x80\xa7\xe2\x80\xb0", "\xe2\x80\xa7\xe2\x80\xb0"},     // characters beside them
        {"\x8a\xff\xc0\x8a", R"(\x8a\xff\xc0\x8a)"},                  // no beginning, an overlong newline
        {"\xe0\x80\x8a\xf0\x80\x80\x8a", R"(\xe0\x80\x8a\xf0\x80\x80\x8a)"},
        {"\xed\xa0\x80\xf4\x90\x80\x80", R"(\xed\xa0\x80\xf4\x90\x80\x80)"},  // a surrogate, beyond the last
        {"\xed\x9f\xbf\xf4\x8f\xbf\xbf", "\xed\x9f\xbf\xf4\x8f\xbf\xbf"},
        {"\xc3", R"(\xc3)"},
        {"\xe6\xbc", R"(\xe6\xbc)"},
        {"\xf0\x9f\x98", R"(\xf0\x9f\x98)"},
        {"\xc3\n", R"(\xc3\n)"},
    };
    void* const log = open_log();
    std::vector<std::string> expected;
    for (const auto& [given, written] : cases) {
        EXPECT_EQ(write(log, given), 0);
        expected.emplace_back(written);
    }
    EXPECT_EQ(messages(text()), expected);
    kzmlog_close(log);
}

TEST_F(KzmLog, CanBeReadBackByteForByte) {
    void* const log = open_log();
    std::minstd_rand random(20260101);
    std::vector<std::string> given;
    for (int i = 0; i < 200; ++i) {
        std::string message(static_cast<size_t>(random() % 60), '\0');
        for (char& byte : message) byte = static_cast<char>(1 + random() % 255);
        EXPECT_EQ(write(log, message), 0);
        given.push_back(std::move(message));
    }
    std::vector<std::string> read;
    for (const std::string& message : messages(text())) read.push_back(unescaped(message));
    EXPECT_EQ(read, given);
    kzmlog_close(log);
}

TEST_F(KzmLog, WritesAMessageOfAnyLengthWhole) {
    void* const log = open_log();
    std::vector<std::string> given;
    for (const size_t length :
         std::initializer_list<size_t>{0, 1, 900, 1023, 1024, 1025, 4095, 4096, 100'000, 3'000'000}) {
        given.emplace_back(length, static_cast<char>('a' + given.size()));
        EXPECT_EQ(write(log, given.back()), 0);
    }
    EXPECT_EQ(messages(text()), given);
    kzmlog_close(log);
}

TEST_F(KzmLog, AppendsToAnExistingFile) {
    void* log = open_log();
    EXPECT_EQ(write(log, "first"), 0);
    EXPECT_EQ(kzmlog_close(log), 0);
    log = open_log();
    EXPECT_EQ(write(log, "second"), 0);
    EXPECT_EQ(kzmlog_close(log), 0);
    EXPECT_THAT(messages(text()), ElementsAre("first", "second"));
}

TEST_F(KzmLog, EndsATruncatedLineBeforeItWritesTheNextOne) {
    void* const log = open_log();
    EXPECT_EQ(write(log, "first"), 0);
    std::ofstream(file(), std::ios::binary | std::ios::app) << "cut off";
    EXPECT_EQ(write(log, "second"), 0);
    EXPECT_EQ(write(log, "third"), 0);
    std::string whole = text();
    const size_t fragment = whole.find("cut off\n");
    ASSERT_NE(fragment, std::string::npos) << whole;
    EXPECT_THAT(messages(whole.erase(fragment, 8)), ElementsAre("first", "second", "third"));
    kzmlog_close(log);
}

TEST_F(KzmLog, EndsATruncatedLineOfOneByte) {
    install().write("log/shmnm.log", "c");
    void* const log = open_log();
    EXPECT_EQ(write(log, "next"), 0);
    ASSERT_EQ(text().substr(0, 2), "c\n");
    EXPECT_THAT(messages(text().substr(2)), ElementsAre("next"));
    kzmlog_close(log);
}

TEST_F(KzmLog, KeepsTwoLogsSeparate) {
    void *first = nullptr, *second = nullptr;
    ASSERT_EQ(kzmlog_open("shmnm", &first, 4, 0, 0, "channel"), 0);
    ASSERT_EQ(kzmlog_open("other-1.x", &second, 1, 0, 0, "channel"), 0);
    EXPECT_NE(first, second);
    EXPECT_EQ(write(first, "to the first"), 0);
    EXPECT_EQ(write(second, "dropped by its level"), 0);
    EXPECT_EQ(kzmlog_write(second, 1, 0, "f", 1, "g", "to the second"), 0);
    EXPECT_EQ(kzmlog_close(first), 0);
    EXPECT_EQ(kzmlog_write(second, 1, 0, "f", 1, "g", "still open"), 0);
    EXPECT_EQ(kzmlog_close(second), 0);
    EXPECT_THAT(messages(text()), ElementsAre("to the first"));
    EXPECT_THAT(messages(text("other-1.x.log")), ElementsAre("to the second", "still open"));
}

TEST_F(KzmLog, RefusesBadArguments) {
    const std::string longest(31, 'm'), too_long(32, 'm');
    void* log = this;
    for (const char* const module :
         std::initializer_list<const char*>{nullptr, "", "../shmnm", "a/b", "a\\b", "a:b", "..", ".", ".a", "a b",
                                            "a\n", "\xc3\xa4", too_long.c_str()}) {
        log = this;
        EXPECT_EQ(kzmlog_open(module, &log, 4, 0, 0, "channel"), invalid_parameter) << (module ? module : "null");
        EXPECT_EQ(log, nullptr);
    }
    for (const char* const channel : std::initializer_list<const char*>{nullptr, "", "../channel", "a/b", "a\\b"}) {
        log = this;
        EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 0, 0, channel), invalid_parameter) << (channel ? channel : "null");
        EXPECT_EQ(log, nullptr);
    }
    log = this;
    EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 0, 0, std::string(64, 'c').c_str()), invalid_parameter);
    EXPECT_EQ(log, nullptr);
    EXPECT_EQ(kzmlog_open("shmnm", nullptr, 4, 0, 0, "channel"), invalid_parameter);
    EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 0, 1, "channel"), invalid_parameter);
    EXPECT_FALSE(std::filesystem::exists(folder()));
    EXPECT_EQ(kzmlog_open(longest.c_str(), &log, 4, 0, 0, "channel"), 0);
    EXPECT_EQ(kzmlog_write(log, 4, 1, "f", 1, "g", "reserved flags"), invalid_parameter);
    EXPECT_EQ(kzmlog_close(log), 0);
    EXPECT_EQ(text((longest + ".log").c_str()), "");
}

TEST_F(KzmLog, HasNamesOfLettersDigitsAndThreeSigns) {
    for (int c = 1; c < 256; ++c) {
        const auto byte = static_cast<char>(c);
        const bool is_allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                                c == '-' || c == '_' || c == '.';
        const std::string module{'m', byte}, channel{'c', byte};
        void* log = nullptr;
        EXPECT_EQ(kzmlog_open(module.c_str(), &log, 4, 0, 0, "channel"), is_allowed ? 0 : invalid_parameter) << c;
        EXPECT_EQ(kzmlog_close(log), is_allowed ? 0 : invalid_handle);
        EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 0, 0, channel.c_str()), is_allowed ? 0 : invalid_parameter) << c;
        EXPECT_EQ(kzmlog_close(log), is_allowed ? 0 : invalid_handle);
    }
    void* log = nullptr;
    EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 0, 0, std::string(63, 'c').c_str()), 0);
    EXPECT_EQ(kzmlog_close(log), 0);
}

TEST_F(KzmLog, RefusesHandlesOfNoOpenLog) {
    void* const log = open_log();
    const auto handle = reinterpret_cast<uintptr_t>(log);
    for (const uintptr_t invented : {uintptr_t{0}, uintptr_t{1}, uintptr_t{5}, uintptr_t{63}, handle + 1, handle + 64,
                                     handle - 64, handle + (uintptr_t{1} << 32), handle + (uintptr_t{1} << 38),
                                     reinterpret_cast<uintptr_t>(&log), ~uintptr_t{0}}) {
        void* const bad = reinterpret_cast<void*>(invented);
        EXPECT_EQ(write(bad, "lost"), invalid_handle) << bad;
        EXPECT_EQ(kzmlog_write(bad, 0xFFFFFFFF, 0, "f", 1, "g", "dropped by its level"), invalid_handle) << bad;
        EXPECT_EQ(kzmlog_close(bad), invalid_handle) << bad;
    }
    EXPECT_EQ(kzmlog_close(log), 0);
    EXPECT_EQ(write(log, "closed"), invalid_handle);
    EXPECT_EQ(kzmlog_close(log), invalid_handle);
    EXPECT_EQ(text(), "");
}

TEST_F(KzmLog, RefusesEvenADroppedLineOnceTheLogIsClosed) {
    const auto dropped = [](void* log) { return kzmlog_write(log, 16, 0, "f", 1, "g", "dropped"); };
    EXPECT_EQ(dropped(nullptr), invalid_handle);
    void* const first = open_log(0, 4);
    EXPECT_EQ(dropped(first), 0);
    EXPECT_EQ(dropped(nullptr), invalid_handle);
    EXPECT_EQ(kzmlog_close(first), 0);
    EXPECT_EQ(dropped(first), invalid_handle);
    EXPECT_EQ(dropped(nullptr), invalid_handle);
    void* const second = open_log(0, 4);
    EXPECT_EQ(dropped(first), invalid_handle);
    EXPECT_EQ(dropped(second), 0);
    EXPECT_EQ(kzmlog_write(second, 16, 1, "f", 1, "g", "reserved flags, dropped"), 0);
    EXPECT_EQ(kzmlog_close(second), 0);
    EXPECT_EQ(text(), "");
}

TEST_F(KzmLog, AppliesTheLevelOfEachOfManyLogs) {
    std::vector<void*> logs;
    logs.reserve(64);
    for (uint32_t level = 0; level < 64; ++level) logs.push_back(open_log(0, level));
    for (const uint32_t reopened : {0u, 5u, 63u}) {
        EXPECT_EQ(kzmlog_close(logs[reopened]), 0);
        logs[reopened] = open_log(0, reopened);
    }
    std::vector<std::string> expected;
    for (uint32_t level = 0; level < 64; ++level) {
        EXPECT_EQ(kzmlog_write(logs[level], level + 1, 0, "f", 1, "g", "dropped"), 0);
        EXPECT_EQ(kzmlog_write(logs[level], level, 0, "f", 1, "g", std::to_string(level).c_str()), 0);
        expected.push_back(std::to_string(level));
    }
    EXPECT_EQ(messages(text()), expected);
    for (void* const log : logs) EXPECT_EQ(kzmlog_close(log), 0);
}

TEST_F(KzmLog, NeverReturnsTheSameHandleTwice) {
    std::set<void*> given;
    for (int i = 0; i < 200; ++i) {
        void* const log = open_log();
        EXPECT_TRUE(given.insert(log).second);
        EXPECT_EQ(kzmlog_close(log), 0);
    }
    for (void* const closed : given) EXPECT_EQ(write(closed, "lost"), invalid_handle);
}

TEST_F(KzmLog, OpensSixtyFourLogsAtOnce) {
    std::vector<void*> logs;
    logs.reserve(64);
    for (int i = 0; i < 64; ++i) logs.push_back(open_log());
    void* one_more = this;
    EXPECT_EQ(kzmlog_open("shmnm", &one_more, 4, 0, 0, "channel"), 4);
    EXPECT_EQ(one_more, nullptr);
    for (void* const log : logs) EXPECT_EQ(write(log, "x"), 0);
    EXPECT_THAT(messages(text()), SizeIs(64));
    for (void* const log : logs) EXPECT_EQ(kzmlog_close(log), 0);
    EXPECT_EQ(kzmlog_close(open_log()), 0);
}

TEST_F(KzmLog, FreesItsPlaceHoweverManyThreadsUseIt) {
    const auto use = [](void* log) { return kzmlog_write(log, 4, 1, "f", 1, "g", "reserved flags"); };
    for (int round = 0; round < 200; ++round) {
        void* const log = open_log();
        ASSERT_NE(log, nullptr) << round;
        std::atomic<bool> is_used{false};
        std::thread other([log, use, &is_used] {
            while (use(log) == invalid_parameter) is_used = true;
        });
        while (!is_used) std::this_thread::yield();
        for (int i = 0; i < 2000; ++i) EXPECT_EQ(use(log), invalid_parameter);
        EXPECT_EQ(kzmlog_close(log), 0);
        other.join();
    }
}

TEST_F(KzmLog, DropsOrWritesWholeALineThatRacesWithAClose) {
    std::atomic<void*> log{nullptr};
    std::atomic<bool> stop{false};
    std::array<int, 3> written{};
    std::vector<std::thread> writers;
    writers.reserve(written.size());
    for (int& count : written) {
        writers.emplace_back([&log, &stop, &count] {
            while (!stop) {
                const int32_t result = write(log.load(), "racing");
                EXPECT_TRUE(result == 0 || result == invalid_handle) << result;
                count += result == 0;
            }
        });
    }
    // Each log stays open until a line has come through, which may be the last line of the log before: so closes do
    // meet writes.
    std::uintmax_t size = 0;
    for (int i = 0; i < 150 || messages(text()).size() < 150; ++i) {
        log = open_log();
        while (std::filesystem::file_size(file()) == size) std::this_thread::yield();
        EXPECT_EQ(kzmlog_close(log), 0);
        size = std::filesystem::file_size(file());
    }
    stop = true;
    for (std::thread& writer : writers) writer.join();
    const std::vector<std::string> lines = messages(text());
    EXPECT_EQ(lines.size(), static_cast<size_t>(written[0] + written[1] + written[2]));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "racing"), static_cast<std::ptrdiff_t>(lines.size()));
}

TEST_F(KzmLog, RefusesLinesOfAClosedLogWhileAnotherLogOpens) {
    void* const closed = open_log(0, 4);
    EXPECT_EQ(kzmlog_close(closed), 0);
    std::atomic<bool> stop{false};
    std::thread writer([closed, &stop] {
        while (!stop) {
            EXPECT_EQ(kzmlog_write(closed, 16, 0, "f", 1, "g", "dropped"), invalid_handle);
            EXPECT_EQ(kzmlog_write(nullptr, 16, 0, "f", 1, "g", "dropped"), invalid_handle);
        }
    });
    for (int i = 0; i < 300; ++i) EXPECT_EQ(kzmlog_close(open_log(0, 4)), 0);
    stop = true;
    writer.join();
    EXPECT_EQ(text(), "");
}

TEST_F(KzmLog, CreatesItsFileAgainAfterItWasRemoved) {
    void* const log = open_log();
    EXPECT_EQ(write(log, "removed"), 0);
    ASSERT_TRUE(std::filesystem::remove(file()));
    EXPECT_EQ(write(log, "file made again"), 0);
    EXPECT_THAT(messages(text()), ElementsAre("file made again"));
    std::filesystem::remove_all(folder());
    EXPECT_EQ(write(log, "folder made again"), 0);
    EXPECT_THAT(messages(text()), ElementsAre("folder made again"));
    kzmlog_close(log);
}

TEST_F(KzmLog, CreatesANewFileAfterItsFileWasRenamed) {
    void* const log = open_log();
    EXPECT_EQ(write(log, "old"), 0);
    std::filesystem::rename(file(), file("saved"));
    EXPECT_EQ(write(log, "new"), 0);
    EXPECT_THAT(messages(text("saved")), ElementsAre("old"));
    EXPECT_THAT(messages(text()), ElementsAre("new"));
    kzmlog_close(log);
}

TEST_F(KzmLog, CannotBeOpenedWhereItsFolderCannotBeMade) {
    install().write("a-file", "x");
    const ScopedEnvironment elsewhere("KZM_INSTALL_PATH", (install().path() / "a-file").string().c_str());
    void* log = this;
    EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 0, 0, "channel"), 3);
    EXPECT_EQ(log, nullptr);
}

TEST_F(KzmLog, CanBeOpenedAfterManyFailures) {
    EXPECT_EQ(kzmlog_close(open_log()), 0);
    {
        const ScopedEnvironment too_long("KZM_INSTALL_PATH", std::string(4096, 'x').c_str());
        for (int attempt = 0; attempt < 65; ++attempt) {
            void* log = this;
            EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 0, 0, "channel"), 3);
            EXPECT_EQ(log, nullptr);
        }
    }
    EXPECT_EQ(kzmlog_close(open_log()), 0);
}

TEST_F(KzmLog, CannotBeOpenedIfAFolderHasItsName) {
    std::filesystem::create_directories(file());
    void* log = this;
    EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 0, 0, "channel"), 5);
    EXPECT_EQ(log, nullptr);
}

TEST_F(KzmLog, NeverWritesToAFileWithASecondName) {
    void* log = open_log(1000);
    EXPECT_EQ(write(log, "first"), 0);
    install().write("elsewhere", "untouched\n");
    std::filesystem::remove(file());
    std::filesystem::create_hard_link(install().path() / "elsewhere", file());
    EXPECT_EQ(write(log, "lost"), 5);
    EXPECT_EQ(kzmlog_close(log), 0);
    EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 0, 0, "channel"), 5);
    EXPECT_EQ(log, nullptr);
    EXPECT_EQ(contents_of(install().path() / "elsewhere"), "untouched\n");
}

TEST_F(KzmLog, LosesLinesOnlyWhileItsFolderAcceptsNoFiles) {
    void* const log = open_log(1000);
    std::filesystem::remove_all(folder());
    install().write("log", "in the way");
    EXPECT_EQ(write(log, "lost"), 3);
    EXPECT_EQ(contents_of(folder()), "in the way");
    std::filesystem::remove(folder());
    EXPECT_EQ(write(log, "kept"), 0);
    EXPECT_THAT(messages(text()), ElementsAre("kept"));
    kzmlog_close(log);
}

TEST_F(KzmLog, KeepsGrowingWhileItCannotBeRotated) {
    std::filesystem::create_directories(file("oru_kzmshmnm_log.lock"));
    void* const log = open_log(1);
    for (const char* const line : {"a", "b", "c"}) EXPECT_EQ(write(log, line), 0);
    EXPECT_THAT(messages(text()), ElementsAre("a", "b", "c"));
    std::filesystem::remove(file("oru_kzmshmnm_log.lock"));
    install().write("log/shmnm.log.1/in-the-way", "x");
    for (const char* const line : {"d", "e"}) EXPECT_EQ(write(log, line), 0);
    EXPECT_THAT(messages(text("shmnm.log")), ElementsAre("e"));
    kzmlog_close(log);
}

}  // namespace
}  // namespace test
