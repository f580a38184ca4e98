// Requests as far as they are looked at, and responses as bytes to be sent.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace shmnmweb {

struct Request {
    std::string method, target;
    bool is_http_1_1 = true;
    bool keeps_alive = true;  ///< the client wants to send another request
    bool has_body = false;
    std::vector<std::string> hosts;  ///< of each Host field
    std::string accept, if_none_match, last_event_id;
    bool is_local = false;  ///< it came over a Unix socket, whose file decides who may connect
};

/// Bytes that are kept by something larger.
struct Body {
    std::shared_ptr<const void> owner;
    std::string_view bytes;
};
Body body_of(std::string text);
/// Bytes that are part of what `owner` keeps.
template <typename Owner>
Body body_within(std::shared_ptr<const Owner> owner, std::string_view bytes) {
    return {std::move(owner), bytes};
}

struct Response {
    uint16_t status = 200;
    std::string content_type = "application/json";
    std::vector<std::pair<const char*, std::string>> fields;
    std::vector<Body> bodies;  ///< one after the other
    bool closes = false;       ///< the connection ends after it, whatever the client wants
    bool is_head = false;      ///< the body is not sent
    bool needs_all = false;    ///< it can be made once all bytes of the region were copied; then ask again
    /// An event stream: the body is what follows, after this step.
    bool is_stream = false;
    std::optional<uint64_t> seen;
};

/// The status line and the fields, with the empty line.
/// @param[in] closes  the connection ends after the response
std::string head_of(const Response& response, bool closes);

/// The document "error".
/// @param[in] message  printable, in one line: what failed, why and what to do next
/// @param[in] exit     the status by which shmnmctl ends for the same reason
Response error(uint16_t status, int exit, const std::string& message);

}  // namespace shmnmweb
