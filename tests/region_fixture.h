// A test's view of the library beside fake companions: maps the region with given counts, keeps the log of each step
// apart, and reads and writes the region's raw bytes through a view of its own.
#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <string>
#include <vector>

#include "fakes/companions.h"
#include "shmnm.h"

namespace test {

using Bytes = std::vector<uint8_t>;

struct Counts {
    int32_t servers = 128, hb = 16, np = 16, fst = 1;
};

/// Takes back every create and attach that this process has made, whatever state they left: both handles closed, no
/// attach counted. The companions succeed again.
void unmap_everything();

class RegionTest : public testing::Test {
  protected:
    RegionTest();
    ~RegionTest() override;

    /// What the configuration says from now on.
    void configure(const Counts& counts);
    /// Creates the region with these counts and forgets the log so far.
    void map_region(const Counts& counts = {});
    /// Takes the log lines written since this was called last.
    std::vector<fakes::LogLine> log_of_last_call();
    /// Takes the calls into the companions since this was called last.
    std::vector<std::string> companion_calls();
    /// The bytes of the region, as another process would see them.
    Bytes region_bytes();
    uint32_t word_at(size_t offset);
    /// Overwrites bytes of the region behind the library's back.
    void poke(size_t offset, const Bytes& bytes);
    void poke_word(size_t offset, uint32_t value);
    /// Bytes of the view, in whole pages.
    size_t view_size();

    fakes::Companions& fake = fakes::companions();

  private:
    /// A view of the region that this fixture opens for itself, while the region lives.
    uint8_t* view();
    void close_view();

    void* mapping_ = nullptr;
    uint8_t* view_ = nullptr;
};

}  // namespace test
