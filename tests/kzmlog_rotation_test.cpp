// Rotation: sizes, generations, processes that are killed while they rotate, and many processes and threads that write.
#include <gmock/gmock.h>

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kzmlog.h"
#include "kzmlog_test_platform.h"

namespace test {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

TEST_F(KzmLog, RotatesBeforeItsSizeIsExceededAndKeepsThreeGenerations) {
    void* log = open_log();
    EXPECT_EQ(write(log, "00"), 0);
    kzmlog_close(log);
    const auto line = static_cast<uint32_t>(text().size());
    log = open_log(3 * line);
    for (int i = 1; i < 14; ++i) EXPECT_EQ(write(log, (i < 10 ? "0" : "") + std::to_string(i)), 0);
    EXPECT_THAT(messages(text()), ElementsAre("12", "13"));
    EXPECT_THAT(messages(text("shmnm.log.1")), ElementsAre("09", "10", "11"));
    EXPECT_THAT(messages(text("shmnm.log.2")), ElementsAre("06", "07", "08"));
    EXPECT_THAT(messages(text("shmnm.log.3")), ElementsAre("03", "04", "05"));
    EXPECT_FALSE(std::filesystem::exists(file("shmnm.log.4")));
    EXPECT_EQ(write(log, "14"), 0);
    EXPECT_EQ(text().size(), 3 * line);
    EXPECT_EQ(write(log, "15"), 0);
    EXPECT_THAT(messages(text()), ElementsAre("15"));
    EXPECT_THAT(messages(text("shmnm.log.3")), ElementsAre("06", "07", "08"));
    EXPECT_EQ(text("oru_kzmshmnm_log.lock"), "");
    kzmlog_close(log);
}

TEST_F(KzmLog, RotatesForALineThatIsOneByteTooLong) {
    void* log = open_log();
    EXPECT_EQ(write(log, "1"), 0);
    kzmlog_close(log);
    log = open_log(2 * static_cast<uint32_t>(text().size()) - 1);
    EXPECT_EQ(write(log, "2"), 0);
    EXPECT_THAT(messages(text()), ElementsAre("2"));
    EXPECT_THAT(messages(text("shmnm.log.1")), ElementsAre("1"));
    kzmlog_close(log);
}

TEST_F(KzmLog, WritesALineLongerThanItsSizeToAFileOfItsOwn) {
    void* const log = open_log(1);
    const std::string first(5000, 'a'), second(5000, 'b');
    EXPECT_EQ(write(log, first), 0);
    EXPECT_EQ(write(log, second), 0);
    EXPECT_THAT(messages(text()), ElementsAre(second));
    EXPECT_THAT(messages(text("shmnm.log.1")), ElementsAre(first));
    kzmlog_close(log);
}

TEST_F(KzmLog, NeverRotatesWithASizeOfZero) {
    install().write("log/shmnm.log", std::string(5'000'000, 'x') + "\n");
    void* const log = open_log(0);
    EXPECT_EQ(write(log, "behind"), 0);
    EXPECT_GT(std::filesystem::file_size(file()), 5'000'001u);
    EXPECT_FALSE(std::filesystem::exists(file("shmnm.log.1")));
    kzmlog_close(log);
}

TEST_F(KzmLog, MakesNoLockFileWithASizeOfZero) {
    void* const log = open_log(0);
    std::filesystem::remove_all(folder());
    EXPECT_EQ(write(log, "folder made again"), 0);
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder()))
        names.push_back(entry.path().filename().string());
    EXPECT_THAT(names, ElementsAre("shmnm.log"));
    kzmlog_close(log);
}

TEST_F(KzmLog, RotatesAtTheLargestSize) {
    void* const log = open_log(0xFFFFFFFF);
    EXPECT_EQ(write(log, "fits"), 0);
    EXPECT_THAT(messages(text()), ElementsAre("fits"));
    kzmlog_close(log);
}

// What a rotation that was killed between two of its renames leaves; the next one loses none of it.
TEST_F(KzmLog, FillsTheGapThatAKilledRotationLeftInTheSecondGeneration) {
    install().write("log/shmnm.log.3", "oldest\n");
    install().write("log/shmnm.log.1", "youngest\n");
    install().write("log/shmnm.log", "current\n");
    void* const log = open_log(10);
    EXPECT_EQ(write(log, "new"), 0);
    EXPECT_EQ(text("shmnm.log.3"), "oldest\n");
    EXPECT_EQ(text("shmnm.log.2"), "youngest\n");
    EXPECT_EQ(text("shmnm.log.1"), "current\n");
    EXPECT_THAT(messages(text()), ElementsAre("new"));
    kzmlog_close(log);
}

TEST_F(KzmLog, FillsTheGapThatAKilledRotationLeftInTheFirstGeneration) {
    install().write("log/shmnm.log.3", "oldest\n");
    install().write("log/shmnm.log.2", "older\n");
    install().write("log/shmnm.log", "current\n");
    void* const log = open_log(10);
    EXPECT_EQ(write(log, "new"), 0);
    EXPECT_EQ(text("shmnm.log.3"), "oldest\n");
    EXPECT_EQ(text("shmnm.log.2"), "older\n");
    EXPECT_EQ(text("shmnm.log.1"), "current\n");
    EXPECT_THAT(messages(text()), ElementsAre("new"));
    kzmlog_close(log);
}

TEST_F(KzmLog, CreatesTheCurrentFileIfAKilledRotationLeftItMissing) {
    void* const log = open_log(1);
    EXPECT_EQ(write(log, "old"), 0);
    std::filesystem::rename(file(), file("shmnm.log.1"));
    EXPECT_EQ(write(log, "new"), 0);
    EXPECT_THAT(messages(text("shmnm.log.1")), ElementsAre("old"));
    EXPECT_THAT(messages(text()), ElementsAre("new"));
    kzmlog_close(log);
}

CHILD(hold_the_lock) {
    hold_rotation_lock();
    report(0);
    hang();
}

TEST_F(KzmLog, NeitherWaitsForALongRotationNorLosesALineByIt) {
    void* const log = open_log(1);
    EXPECT_EQ(write(log, "first"), 0);
    Child holder = start(hold_the_lock);
    holder.reported();
    EXPECT_EQ(write(log, "second"), 0);
    EXPECT_THAT(messages(text()), ElementsAre("first", "second"));
    holder.kill();
    EXPECT_EQ(write(log, "third"), 0);
    EXPECT_THAT(messages(text("shmnm.log.1")), ElementsAre("first", "second"));
    EXPECT_THAT(messages(text()), ElementsAre("third"));
    kzmlog_close(log);
}

/// Rotates with every line, until it is killed.
CHILD(rotate_for_ever) {
    void* const log = open_log(1);
    for (int i = 0; i < 20; ++i) write(log, "child");
    report(0);
    for (;;) write(log, "child");
}

TEST_F(KzmLog, RotatesAgainAfterARotatingProcessWasKilled) {
    void* const log = open_log(1);
    for (int round = 0; round < 6; ++round) {
        Child rotator = start(rotate_for_ever);
        rotator.reported();
        rotator.kill();
        const std::string mark = std::to_string(round);
        for (const char* const line : {"a", "b", "c", "d"}) EXPECT_EQ(write(log, line + mark), 0);
        EXPECT_THAT(messages(text("shmnm.log.3")), ElementsAre("a" + mark));
        EXPECT_THAT(messages(text("shmnm.log.2")), ElementsAre("b" + mark));
        EXPECT_THAT(messages(text("shmnm.log.1")), ElementsAre("c" + mark));
        EXPECT_THAT(messages(text()), ElementsAre("d" + mark));
    }
    kzmlog_close(log);
}

/// Writes so many numbered lines as it is told, in a log of the size that it is told, padded to a length, with a pause
/// in milliseconds after each.
CHILD(write_numbered_lines) {
    const uint64_t lines = told(), size = told(), padding = told(), pause = told();
    void* const log = open_log(static_cast<uint32_t>(size));
    report(0);
    told();
    uint64_t lost = 0;
    for (uint64_t i = 0; i < lines; ++i) {
        std::string number = std::to_string(i);
        number.insert(0, 6 - number.size(), '0');
        lost += write(log, number + std::string(static_cast<size_t>(padding), '.')) != 0;
        if (pause > 0) std::this_thread::sleep_for(std::chrono::milliseconds(pause));
    }
    report(lost);
}

/// Lets so many processes write at once; the ids of those that did.
std::set<uint32_t> let_write(size_t processes, uint64_t lines, uint64_t size, uint64_t padding, uint64_t pause = 0) {
    std::vector<Child> writers;
    for (size_t i = 0; i < processes; ++i) {
        writers.push_back(start(write_numbered_lines));
        for (const uint64_t number : {lines, size, padding, pause}) writers.back().tell(number);
    }
    for (Child& writer : writers) writer.reported();
    for (Child& writer : writers) writer.tell(0);
    std::set<uint32_t> ids;
    for (Child& writer : writers) {
        EXPECT_EQ(writer.reported(), 0u);
        ids.insert(writer.process_id());
    }
    return ids;
}

/// The numbers that each process wrote, in the order in which they stand.
std::map<uint32_t, std::vector<uint64_t>> numbers_by_process(const std::vector<LogLine>& lines, size_t padding) {
    std::map<uint32_t, std::vector<uint64_t>> numbers;
    for (const LogLine& line : lines) {
        EXPECT_EQ(line.message.size(), 6 + padding);
        EXPECT_EQ(line.message.substr(6), std::string(padding, '.'));
        numbers[line.process].push_back(std::stoul(line.message.substr(0, 6)));
    }
    return numbers;
}

std::vector<uint64_t> consecutive(uint64_t from, uint64_t to) {
    std::vector<uint64_t> numbers;
    for (; from < to; ++from) numbers.push_back(from);
    return numbers;
}

class KzmLogOfManyProcesses : public KzmLog {
  protected:
    std::vector<LogLine> kept_lines() const {
        std::vector<LogLine> lines;
        for (const char* const name : {"shmnm.log.3", "shmnm.log.2", "shmnm.log.1", "shmnm.log"}) {
            for (LogLine& line : parsed(text(name))) lines.push_back(std::move(line));
        }
        return lines;
    }
};

TEST_F(KzmLogOfManyProcesses, LosesNoLineAndRotatesOnceForEachOverflow) {
    constexpr uint64_t lines = 500, size = 150'000;
    const std::set<uint32_t> ids = let_write(8, lines, size, 30);
    const auto numbers = numbers_by_process(kept_lines(), 30);
    std::set<uint32_t> found;
    for (const auto& [process, written] : numbers) {
        found.insert(process);
        EXPECT_EQ(written, consecutive(0, lines)) << process;
    }
    EXPECT_EQ(found, ids);
    EXPECT_TRUE(std::filesystem::exists(file("shmnm.log.2")));
    EXPECT_FALSE(std::filesystem::exists(file("shmnm.log.3")));
}

TEST_F(KzmLogOfManyProcesses, KeepsTheLatestLinesOfEachProcessWithinTheSize) {
    // While a process that has the log's lock waits for a processor, the others write without rotating. With a pause
    // after each line they write little in that time.
    constexpr uint64_t lines = 500, size = 15'000, pause = 1;
    const std::set<uint32_t> ids = let_write(8, lines, size, 30, pause);
    const auto numbers = numbers_by_process(kept_lines(), 30);
    EXPECT_THAT(numbers, testing::Not(IsEmpty()));
    for (const auto& [process, written] : numbers) {
        EXPECT_TRUE(ids.contains(process));
        EXPECT_EQ(written, consecutive(lines - written.size(), lines)) << process;
    }
    for (const char* const name : {"shmnm.log.3", "shmnm.log.2", "shmnm.log.1"}) {
        EXPECT_GT(std::filesystem::file_size(file(name)), size - 150) << name << ": rotated before it was full";
        EXPECT_LT(std::filesystem::file_size(file(name)), 2 * size) << name;
    }
    EXPECT_LT(std::filesystem::file_size(file()), 2 * size);
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder()))
        names.insert(entry.path().filename().string());
    EXPECT_THAT(names, ElementsAre("oru_kzmshmnm_log.lock", "shmnm.log", "shmnm.log.1", "shmnm.log.2", "shmnm.log.3"));
}

TEST_F(KzmLogOfManyProcesses, WritesLongLinesWholeAndUninterrupted) {
    const std::set<uint32_t> ids = let_write(8, 150, 0, 6'000);
    const auto numbers = numbers_by_process(kept_lines(), 6'000);
    EXPECT_EQ(numbers.size(), ids.size());
    for (const auto& [process, written] : numbers) EXPECT_EQ(written, consecutive(0, 150)) << process;
}

/// Writes numbered lines, each of which rotates the log, in two parts.
CHILD(write_in_two_parts) {
    void* const log = open_log(1);
    report(0);
    uint64_t number = 0;
    for (int part = 0; part < 2; ++part) {
        const uint64_t end = told();
        uint64_t lost = 0;
        for (; number < end; ++number) lost += write(log, std::to_string(number)) != 0;
        report(lost);
    }
}

TEST_F(KzmLogOfManyProcesses, LosesNoLineOfOthersWhenRotatingProcessesAreKilled) {
    constexpr uint64_t lines = 150;
    std::vector<Child> rotators;
    rotators.reserve(3);
    for (int i = 0; i < 3; ++i) rotators.push_back(start(rotate_for_ever));
    for (Child& rotator : rotators) rotator.reported();
    Child writer = start(write_in_two_parts);
    writer.reported();
    writer.tell(lines);
    for (Child& rotator : rotators) rotator.kill();
    writer.tell(lines + 4);
    EXPECT_EQ(writer.reported(), 0u);
    EXPECT_EQ(writer.reported(), 0u);
    std::vector<uint64_t> last;
    for (const LogLine& line : kept_lines()) {
        if (line.process == writer.process_id()) last.push_back(std::stoul(line.message));
    }
    EXPECT_EQ(last, consecutive(lines, lines + 4));
}

TEST_F(KzmLog, CanBeWrittenByManyThreadsAcrossRotations) {
    void* const log = open_log(20'000);
    std::vector<std::thread> writers;
    writers.reserve(4);
    for (int thread = 0; thread < 4; ++thread) {
        writers.emplace_back([log] {
            for (int i = 0; i < 150; ++i) EXPECT_EQ(write(log, std::to_string(i)), 0);
        });
    }
    for (std::thread& writer : writers) writer.join();
    std::map<uint32_t, std::vector<std::string>> by_thread;
    for (const char* const name : {"shmnm.log.3", "shmnm.log.2", "shmnm.log.1", "shmnm.log"}) {
        for (const LogLine& line : parsed(text(name))) by_thread[line.thread].push_back(line.message);
    }
    std::vector<std::string> all;
    all.reserve(150);
    for (int i = 0; i < 150; ++i) all.push_back(std::to_string(i));
    EXPECT_THAT(by_thread, SizeIs(4));
    for (const auto& [thread, lines] : by_thread) EXPECT_EQ(lines, all) << thread;
    EXPECT_TRUE(std::filesystem::exists(file("shmnm.log.1")));
    kzmlog_close(log);
}

}  // namespace
}  // namespace test
