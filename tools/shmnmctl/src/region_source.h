// What reading commands look at: the live region of this machine, or the one behind a server of shmnmweb.
#pragma once

#include <cstdint>
#include <optional>

#include "context.h"
#include "picture_http/remote.h"
#include "session.h"

namespace shmnmctl {

/// What those should know who see a copy that was made without a right to the lock (CopyWay::by_reader).
extern const char* const read_without_lock;

class RegionSource {
  public:
    /// @param[in] may_warn  tell on standard error, once, that a copy was made without a right to the lock
    /// @throws Error  --from is not an address
    explicit RegionSource(const Context& context, bool may_warn = true);

    /// @throws Error  there is no region
    void expect();
    /// As those of LiveRegion. The server waits for the lock as long as it sees fit.
    Snapshot copy(Bytes wanted);
    std::optional<Snapshot> try_copy(Bytes wanted, uint32_t lock_timeout_ms = UINT32_MAX);

    /// Waits for the next look as session::wait() does, at most so long. A server is not asked at intervals: a change
    /// that it tells of ends the wait.
    session::Wake wait(uint32_t interval_ms, session::WakeFor also = {}, uint32_t most_ms = UINT32_MAX);

  private:
    void warn_of(const Snapshot& snapshot);

    bool may_warn_, json_;
    std::optional<LiveRegion> live_;
    std::optional<picture_http::Remote> remote_;
};

}  // namespace shmnmctl
