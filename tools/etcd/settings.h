// How a client reaches etcd.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace etcd {

/// Names of files in PEM, for https.
struct TlsSettings {
    std::string authorities;       ///< who may have signed the members' certificates; "": the system's
    std::string certificate, key;  ///< of this client; "": none; refused on Windows
};

struct Settings {
    std::vector<std::string> endpoints;  ///< "http://HOST:PORT" or "https://HOST:PORT", one per member
    TlsSettings tls;
    std::string user, password_file;                 ///< "": etcd has no users
    std::chrono::milliseconds timeout{1'000};        ///< for the answer to a request, from the call on
    std::chrono::milliseconds connect_timeout{300};  ///< for a member to be reached, before the next one is tried
    size_t answer_limit = size_t{16} << 20;          ///< bytes of an answer, or of a message of a watch
    size_t request_limit = 1'000;                    ///< requests that wait; more are refused
};

}  // namespace etcd
