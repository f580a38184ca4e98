// Which words the machines of a cluster agree on.
#include "picture/shared_words.h"

#include <gtest/gtest.h>

namespace picture {
namespace {

TEST(SharedWords, AreTheStatesThatTheMachinesTellEachOther) {
    for (const char* const key :
         {"cluster/waitstat", "cluster/clstat", "cluster/hbinfo_b", "servers/alpha/nodestat", "servers/alpha/holdstat",
          "hb/lan/lan1/stat", "hb/lan/lan1/svstat/alpha", "hb/lan/lan1/network/alpha", "np/ping/ping1/svstat/alpha"}) {
        EXPECT_TRUE(is_shared(key)) << key;
    }
}

TEST(SharedWords, AreNotTheWordsOfTheConfigurationOrOfOneMachine) {
    for (const char* const key : {"cluster/alive", "cluster/dfailstatus", "servers/alpha/pri", "servers/alpha/combstat",
                                  "hb/lan/lan1/pri", "fst/stat", "fst/pids/agent/0", "bridge/up"}) {
        EXPECT_FALSE(is_shared(key)) << key;
    }
}

TEST(SharedWords, AreNoTablesAndNothingBelowWords) {
    for (const char* const key : {"", "cluster", "cluster/clstat/0", "servers", "servers/alpha",
                                  "servers/alpha/nodestat/0", "hb", "hb/lan", "hb/lan/stat", "np/ping/ping1"}) {
        EXPECT_FALSE(is_shared(key)) << key;
    }
}

TEST(SharedWords, AreNotTheirResourcesEvenAfterThem) {
    for (const char* const word : {"hb/lan/lan1/stat", "hb/lan/lan1/svstat", "np/ping/ping1/network"}) {
        EXPECT_TRUE(is_shared(word)) << word;
        EXPECT_FALSE(is_shared("hb/lan/lan1")) << "after " << word;
    }
}

}  // namespace
}  // namespace picture
