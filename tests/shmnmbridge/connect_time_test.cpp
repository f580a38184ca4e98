// How long a member of etcd may take to be reached follows from the window.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "configuration.h"

namespace bridge {
namespace {

std::chrono::milliseconds connect_timeout_of(const std::string& times) {
    const auto file = std::filesystem::path(testing::TempDir()) / "connect_time_bridge.xml";
    std::ofstream(file) << "<bridge><cluster>c</cluster><server>a</server><host>h</host>" << times
                        << "<etcd><endpoint>http://127.0.0.1:9</endpoint></etcd></bridge>";
    const CheckedConfiguration checked = check_configuration(file.string());
    std::filesystem::remove(file);
    EXPECT_TRUE(checked.problems.empty());
    return checked.configuration.etcd.connect_timeout;
}

TEST(ConnectTime, GrowsWithTheWindow) {
    using std::chrono::milliseconds;
    EXPECT_EQ(connect_timeout_of(""), milliseconds(300));
    EXPECT_EQ(connect_timeout_of("<window_ms>600</window_ms>"), milliseconds(300)) << "never less";
    EXPECT_EQ(connect_timeout_of("<window_ms>6000</window_ms>"), milliseconds(600));
    EXPECT_EQ(connect_timeout_of("<window_ms>20000</window_ms><lease_s>30</lease_s>"), milliseconds(1'000))
        << "as long as an answer may take";
}

}  // namespace
}  // namespace bridge
