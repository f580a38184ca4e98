// What a reading of the bridge's marks asks of the system.
#include <gtest/gtest.h>

#include <sys/syscall.h>

#include <fstream>
#include <stdexcept>
#include <string>

#include "bridge_marks/page_of_a_bridge.h"
#include "picture/bridge.h"
#include "picture/platform.h"
#include "support/traced_linux.h"

namespace picture {
namespace {

using bridge::MarksPage;
using test::PageOfABridge;

/// How often this process has mapped the marks.
int mappings() {
    std::ifstream list("/proc/self/maps");
    int found = 0;
    for (std::string line; std::getline(list, line);) {
        if (line.find(bridge::marks_name) != std::string::npos) ++found;
    }
    return found;
}

TEST(BridgeReader, DoesNotWaitForMarksOfAnotherVersion) {
    const PageOfABridge page(sizeof(MarksPage));
    write_marks(*page.get(), {}, platform::steady_clock_us());
    ++page.get()->header.version;
    test::Traced reading([] { EXPECT_FALSE(BridgeReader().read().is_there()); });
    EXPECT_THROW(reading.run_until_it_enters(SYS_clock_nanosleep), std::runtime_error) << "it slept";
    EXPECT_EQ(reading.status(), 0);
}

TEST(BridgeReader, KeepsNothingMapped) {
    const PageOfABridge page(sizeof(MarksPage));
    write_marks(*page.get(), {}, platform::steady_clock_us());
    ASSERT_EQ(mappings(), 1) << "the bridge's own";
    BridgeReader reader;
    EXPECT_TRUE(reader.read().is_there());
    EXPECT_EQ(mappings(), 1);
}

}  // namespace
}  // namespace picture
