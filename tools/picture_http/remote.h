// The region behind a server of shmnmweb: copies of it, and a bell that rings when it changes.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "picture/snapshot.h"
#include "picture/transfer.h"
#include "picture_http/connection.h"

namespace picture_http {

/// What was heard of a server.
enum class Bell {
    rang,    ///< something changed
    silent,  ///< nothing
    missing  ///< it cannot be listened to, so nothing was waited for
};

class Remote {
  public:
    /// What a server has to connect, to answer, and to send each part of a long answer.
    static constexpr uint32_t usual_timeout_ms = 10'000;

    /// @throws picture::Error  it is not an address, or the credentials cannot be used
    Remote(const std::string& address, const Credentials& credentials, uint32_t timeout_ms = usual_timeout_ms);

    /// A copy as the server has it.
    /// @throws picture::Error  the server cannot be reached, has no region, or answers something else
    picture::Arrival copy(picture::Bytes wanted);
    /// The same, or nothing if the server has no region.
    std::optional<picture::Arrival> try_copy(picture::Bytes wanted);

    /// Waits until the server tells of a change, at most so long; a signal ends the wait, too. The first call connects.
    Bell wait_for_change(uint32_t milliseconds);

  private:
    std::unique_ptr<Connection> request(const std::string& target);

    Address address_;
    std::unique_ptr<Connector> connector_;
    std::unique_ptr<Connection> events_;
};

}  // namespace picture_http
