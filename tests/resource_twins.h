// The hb and the np table as tests see them: what differs between the two is data, so each test is written once.
#pragma once

#include <string>

#include "region_expectations.h"

namespace test {

/// One of the two tables in a region of six servers, three hb and three np resources at most.
struct ResourceTableTwin {
    const char* kind;
    size_t table;               ///< where its first record starts; the next ones follow at 608 bytes each
    size_t count_at, limit_at;  ///< in the header
    bool has_network_rows;
    uint32_t (*add)(const char* type, const char* name, uint32_t pri);
    uint32_t (*remove)(const char* type, const char* name);
};

inline constexpr ResourceTableTwin hb_table{"hb", 3004, 32, 12, true, shmnm_addhbrsc, shmnm_rmhbrsc};
inline constexpr ResourceTableTwin np_table{"np", 13516, 36, 16, false, shmnm_addnprsc, shmnm_rmnprsc};

/// Names an instance of a suite after its table.
inline constexpr auto kind_of_instance = [](const auto& instance) { return std::string(instance.param.kind); };

/// A suite of tests that run for both tables. `Twin` is the table with the subject's functions and tags.
template <typename Twin>
class ResourceTwins : public RegionTest, public testing::WithParamInterface<Twin> {
  protected:
    ResourceTwins() { map_region({.servers = 6, .hb = 3, .np = 3}); }

    const Twin& twin() const { return this->GetParam(); }
    size_t record(size_t position) const { return twin().table + 608 * position; }
    size_t state(size_t position) const { return record(position) + 548; }
    size_t server_state(size_t position, size_t server) const { return record(position) + 584 + 4 * server; }
    static constexpr size_t network_row(size_t position) { return 26556 + 24 * position; }
    static constexpr size_t server_count = 28;

    void add(const char* type, const char* name, uint32_t pri = 1) {
        ASSERT_EQ(twin().add(type, name, pri), SHMNM_OK);
        log_of_last_call();
    }
    /// "alpha" of priority 10, "beta" of 20 and "gamma" of 30.
    void add_servers() {
        ASSERT_EQ(shmnm_addnode("alpha", 10), SHMNM_OK);
        ASSERT_EQ(shmnm_addnode("beta", 20), SHMNM_OK);
        ASSERT_EQ(shmnm_addnode("gamma", 30), SHMNM_OK);
        log_of_last_call();
    }
    /// Fills a record after its name and type, and its network-wide row if it has one, with bytes that occur nowhere
    /// else.
    void fill_record(size_t position) {
        poke(record(position) + 32, pattern(224, position + 1));
        poke(record(position) + 288, pattern(320, position + 1));
        if (twin().has_network_rows) poke(network_row(position), pattern(24, position + 5));
    }

    /// Expects a call to fail with this line and this result, and to change nothing.
    template <typename Call>
    void expect_failure(const Call& call, const char* tag, const std::string& line, uint32_t result) {
        const Bytes before = region_bytes();
        log_of_last_call();
        EXPECT_EQ(call(), result);
        EXPECT_THAT(log_of_last_call(), Fails(tag, line, result));
        EXPECT_EQ(region_bytes(), before);
    }
    /// Expects a call to succeed and to leave these bytes.
    template <typename Call>
    void expect_success(const Call& call, const char* tag, const Bytes& after) {
        log_of_last_call();
        EXPECT_EQ(call(), SHMNM_OK);
        EXPECT_THAT(log_of_last_call(), Succeeds(tag));
        EXPECT_EQ(region_bytes(), after);
    }
};

}  // namespace test
