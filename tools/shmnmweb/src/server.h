// Speaks HTTP: accepts connections, reads requests, writes responses and event streams, and keeps the limits. All of it
// runs on one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "http_message.h"
#include "listener.h"
#include "responses.h"

namespace shmnmweb {

struct Limits {
    uint32_t connections = 1'024;
    uint32_t connections_per_client = 64;  ///< of one address, or of one user over Unix sockets
    uint32_t request_seconds = 15;         ///< from the first wait for a request to its end
    uint32_t write_seconds = 30;           ///< for a client to take in the next part of an answer
};

class Server {
  public:
    /// @param[in] ask_for_all  asks for a look that copies all bytes
    Server(Site& site, const Limits& limits, std::function<void()> ask_for_all);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void listen(std::vector<Listener> listeners);
    /// Where it listens, as people read it.
    std::vector<std::string> addresses() const;
    /// Serves until SIGINT, SIGTERM or SIGHUP (Windows: Ctrl-C, Ctrl-Break).
    /// @param[in] ready  called once requests are served
    void run(const std::function<void()>& ready);
    /// For any thread: ends run().
    void stop();
    /// For any thread: makes a look the newest.
    void show(std::shared_ptr<const Look> look);

  private:
    class Implementation;
    std::unique_ptr<Implementation> implementation_;
};

/// The answer to the first request in some bytes, as a connection gives it: for tests without sockets.
Response respond_to_bytes(std::string_view bytes, bool is_local, Site& site);

}  // namespace shmnmweb
