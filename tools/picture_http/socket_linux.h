// A connected socket whose every wait ends in time.
#pragma once

#include <sys/socket.h>

#include <memory>

#include "picture_http/connection.h"
#include "picture_http/deadline.h"

namespace picture_http {

class Socket : public Connection {
  public:
    Socket(int descriptor, uint32_t timeout_ms) : descriptor_(descriptor), deadline_(timeout_ms) {}
    ~Socket() override;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    void restart_deadline() override { deadline_.restart(); }
    void write(std::string_view bytes) override;
    size_t read(char* bytes, size_t size) override;
    bool is_readable_within(uint32_t milliseconds) override;

    /// @return false: errno says why
    bool connect(const sockaddr* address, socklen_t length) const;
    /// As send() and recv() without a wait: errno is EAGAIN where they would wait.
    ssize_t write_some(std::string_view bytes) const noexcept;
    ssize_t read_some(char* bytes, size_t size) const noexcept;
    /// Waits until the descriptor is ready for POLLIN or POLLOUT.
    /// @throws picture::Error  it is not in time
    void wait_for(short events) const;

  private:
    int descriptor_;
    Deadline deadline_;
};

/// @throws picture::Error  nobody listens at the address, or not in time
std::unique_ptr<Socket> connect_socket(const Address& address, uint32_t timeout_ms);

}  // namespace picture_http
