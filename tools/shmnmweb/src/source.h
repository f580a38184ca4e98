// Where copies of the region come from: the live region of this machine, a dump, or another server.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "picture/live.h"
#include "picture/platform.h"
#include "picture/snapshot.h"

namespace shmnmweb {

class Source {
  public:
    virtual ~Source() = default;

    /// @return nothing if there is no region
    /// @throws picture::Error  the region is refused, or the lock did not come in time
    virtual std::optional<picture::Snapshot> copy(picture::Bytes wanted) = 0;
    /// Facts of the region's lock, if no copy tells them; nothing where the system does not.
    virtual std::optional<picture::platform::LockHolder> lock() = 0;
    /// Whether the owner that these facts name has the lock still.
    virtual bool is_held(const picture::platform::LockHolder& lock) = 0;
};

/// The region of this machine. It is mapped for reading only.
/// @param[in] took_over  told when a copy takes the lock over from an owner that ended, if the system does not count
/// this
std::unique_ptr<Source> live_source(std::function<void()> took_over = {});

/// The region behind another server, at unix:PATH, http://HOST:PORT or https://HOST:PORT.
/// @throws picture::Error  it is no such address
std::unique_ptr<Source> remote_source(const std::string& address);

/// A dump, which never changes. @throws picture::Error  it cannot be read
std::unique_ptr<Source> dump_source(const std::string& file);

}  // namespace shmnmweb
