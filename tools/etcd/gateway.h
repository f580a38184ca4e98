// etcd's JSON: requests as its gateway expects them, and its answers read. Answers may hold anything, because whoever
// listens at an address may have sent them. Without input and output.
#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "etcd/messages.h"

namespace etcd {

struct Post {
    std::string path, body;
};

Post encode(const Request& request);
Post encode(const Watch& watch);
/// The request for a token.
Post encode_authentication(const std::string& user, const std::string& password);

/// Reads an answer to the request.
Answer decode(const Request& request, int status, std::string_view body);

/// The token, or why there is none.
struct Token {
    Failure failure = Failure::none;
    std::string reason = {}, token = {};
    bool is_needless = false;  ///< this etcd has no users
};
Token decode_authentication(int status, std::string_view body);

/// Whether an answer asks for another token: an old one was lost, or users have been introduced.
bool asks_for_token(int status, std::string_view body);

/// Reads one line of a watch's stream.
std::variant<WatchMessage, WatchEnd> decode_watch(std::string_view line);
/// Why a watch was refused.
WatchEnd decode_refused_watch(int status, std::string_view body);

/// Text of another machine as it may stand in a log: without control characters, at most some hundred bytes.
std::string presentable(std::string_view text);

}  // namespace etcd
