// Where a picture is copied from: the live region of this machine, a dump, or a server of shmnmweb.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "picture/snapshot.h"
#include "picture_http/connection.h"

namespace picture_library {

/// How a wait ended.
enum class Wake { time, signal };

class Source {
  public:
    virtual ~Source() = default;

    /// @throws picture::Error  nothing can be copied
    virtual picture::Snapshot copy(picture::Bytes wanted) = 0;

    /// Waits until it is worth copying again, at most so long.
    virtual Wake wait(uint32_t milliseconds) = 0;
};

struct SourceOptions {
    uint32_t lock_timeout_ms = 5'000;
    uint32_t interval_ms = 50;
    picture_http::Credentials credentials;
};

std::unique_ptr<Source> live_source(const SourceOptions& options);
std::unique_ptr<Source> file_source(const SourceOptions& options, const std::string& file);
/// @throws picture::Error  it is not an address
std::unique_ptr<Source> address_source(const SourceOptions& options, const std::string& address);

}  // namespace picture_library
