// A region that the library itself has created and filled, for tests of what reads copies of it.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "picture/snapshot.h"
#include "support/child.h"
#include "support/temporary_folder.h"

namespace test {

using Random = std::mt19937_64;

/// Of a test's random choices: from the environment variable SHMNM_SEED, else a new one. Printed.
uint64_t seed();
/// A number below a limit.
uint32_t below(Random& random, uint32_t limit);

class LibraryRegion {
  public:
    explicit LibraryRegion(const picture::Counts& counts);
    ~LibraryRegion();
    LibraryRegion(const LibraryRegion&) = delete;
    LibraryRegion& operator=(const LibraryRegion&) = delete;

    /// Makes any calls that leave a healthy region healthy: names are not empty, columns follow their servers.
    void call(Random& random, unsigned calls);
    /// The same, with names that fit into their fields, so that none is there twice.
    void call_with_fitting_names(Random& random, unsigned calls);
    /// As many servers, resources and process ids as the region has room for, with short names.
    void fill();
    /// Clears the region and maps it anew.
    void clear();

    /// As from a dump of it.
    picture::Snapshot dump() const;

  private:
    void call_once(Random& random, bool names_fit);

    picture::Counts counts_;
    TemporaryFolder folder_;
    ScopedEnvironment path_, namespace_;
};

}  // namespace test
