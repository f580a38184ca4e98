// What reading a dump costs: the system counts the bytes that a process reads.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "picture/error.h"
#include "picture/snapshot.h"
#include "support/temporary_folder.h"

namespace picture {
namespace {

uint64_t bytes_read() {
    std::ifstream counts("/proc/self/io");
    std::string name;
    uint64_t count = 0;
    counts >> name >> count;
    EXPECT_EQ(name, "rchar:");
    return count;
}

TEST(LargeDump, IsRefusedBeforeItIsRead) {
    const test::TemporaryFolder folder;
    folder.write("x.dump", "");
    const std::string file = (folder.path() / "x.dump").string();
    std::filesystem::resize_file(file, (uint64_t{1} << 32) + 1);
    const uint64_t before = bytes_read();
    EXPECT_THROW(read_file(file), Error);
    EXPECT_LT(bytes_read() - before, 4096u);
}

}  // namespace
}  // namespace picture
