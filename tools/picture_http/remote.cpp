#include "picture_http/remote.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <limits>
#include <string_view>
#include <utility>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/json.h"
#include "picture/value.h"

namespace picture_http {

using picture::Error;
using picture::ErrorKind;
using picture::printable;

Address parse_address(const std::string& text) {
    const auto refuse = [&] {
        throw Error(
            ErrorKind::invalid,
            fmt::format(
                "invalid address \"{}\": use unix:PATH, http://HOST:PORT or https://HOST:PORT; Windows has http only",
                printable(text)));
    };
    Address address;
    std::string_view rest = text;
    const auto take = [&](std::string_view prefix) {
        const bool is_there = rest.starts_with(prefix);
        if (is_there) rest.remove_prefix(prefix.size());
        return is_there;
    };
    if (take("unix:")) {
        address.kind = Address::Kind::file;
        address.path = rest;
        address.host_field = "localhost";
        if (rest.empty()) refuse();
    } else {
        if (take("https://")) {
            address.kind = Address::Kind::tls;
        } else if (!take("http://")) {
            refuse();
        }
        if (rest.ends_with('/')) rest.remove_suffix(1);
        address.host_field = rest;
        const size_t colon = rest.rfind(':');
        const bool has_port = colon != std::string_view::npos && rest.find(']', colon) == std::string_view::npos;
        std::string_view host = rest.substr(0, has_port ? colon : rest.size());
        address.port = has_port ? rest.substr(colon + 1) : address.kind == Address::Kind::tls ? "443" : "9683";
        if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
        address.host = host;
        constexpr uint32_t most = 65'535;
        const auto port = picture::Value::parse(address.port);
        const uint32_t number = port ? port->to_uint32().value_or(most + 1) : most + 1;
        constexpr std::string_view allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._:";
        if (host.empty() || host.find_first_not_of(allowed) != std::string_view::npos || number == 0 || number > most) {
            refuse();
        }
    }
    if (!has_connections(address.kind)) refuse();
    return address;
}

namespace {

/// No region and nothing around it is larger.
constexpr size_t largest_body = size_t{1} << 32;
constexpr size_t largest_head = size_t{64} * 1'024;
/// The server has its time for each part of a body.
constexpr size_t part_bytes = size_t{256} * 1'024;

struct Answer {
    int status = 0;
    std::optional<uint64_t> length;  ///< of the body, as announced
    std::string body;                ///< what was read of it
};

[[noreturn]] void refuse_answer(const char* why) {
    throw Error(
        ErrorKind::failed,
        fmt::format("the server's answer cannot be used: {}; see whether shmnmweb answers at this address", why));
}

/// Reads more. @return false: the connection has ended
bool read_more(Connection& connection, std::string& text) {
    std::array<char, size_t{64} * 1'024> part{};
    const size_t size = connection.read(part.data(), part.size());
    text.append(part.data(), size);
    return size > 0;
}

/// Reads the head of an answer, and what comes with it.
Answer read_head(Connection& connection) {
    std::string text;
    size_t end = std::string::npos;
    while ((end = text.find("\r\n\r\n")) == std::string::npos) {
        if (text.size() > largest_head) refuse_answer("its head is too long");
        if (!read_more(connection, text)) refuse_answer("it was cut");
    }
    Answer answer;
    const std::string_view head = std::string_view(text).substr(0, end + 2);
    constexpr std::string_view version = "HTTP/1.";
    constexpr size_t status_at = 9, status_end = 12;
    const char* const digits = head.data() + status_at;
    if (!head.starts_with(version) || head.size() < status_end ||
        std::from_chars(digits, head.data() + status_end, answer.status).ec != std::errc{}) {
        refuse_answer("it is not HTTP");
    }
    for (size_t at = head.find("\r\n") + 2; at < head.size();) {
        const std::string_view line = head.substr(at, head.find("\r\n", at) - at);
        at += line.size() + 2;
        std::string name(line.substr(0, line.find(':')));
        for (char& letter : name)
            letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
        if (name != "content-length") continue;
        const auto length = picture::Value::parse(line.substr(name.size() + 1));
        answer.length = length ? length->to_uint64() : std::nullopt;
        if (!answer.length || *answer.length > largest_body) refuse_answer("its length is not a number");
    }
    answer.body = text.substr(end + 4);
    return answer;
}

void read_body(Connection& connection, Answer& answer) {
    for (size_t part_end = 0; !answer.length || answer.body.size() < *answer.length;) {
        if (answer.body.size() > largest_body) refuse_answer("it is too long");
        if (answer.body.size() >= part_end) {
            connection.restart_deadline();
            part_end = answer.body.size() + part_bytes;
        }
        if (!read_more(connection, answer.body)) break;
    }
    if (answer.length && answer.body.size() != *answer.length) refuse_answer("it was cut");
}

/// What the server says of a failure, as an error of this program.
[[noreturn]] void throw_failure_of(const Answer& answer) {
    constexpr int exit_no_region = 3, exit_timeout = 4;
    const picture::Json document = picture::Json::parse(answer.body, nullptr, false);
    const bool is_error = document.is_object() && document.value("kind", "") == "error" &&
                          document.contains("message") && document["message"].is_string();
    if (!is_error) {
        throw Error(ErrorKind::failed,
                    fmt::format("the server answers with status {}; see whether shmnmweb answers at this address",
                                answer.status));
    }
    const int exit = document.value("status", 0);
    std::string message = printable(document["message"].get<std::string>());
    const bool is_known = exit == exit_no_region || exit == exit_timeout;
    // The program has advice of its own for these.
    if (is_known) message = message.substr(0, message.rfind("; "));
    throw Error(exit == exit_no_region ? ErrorKind::no_region
                : exit == exit_timeout ? ErrorKind::lock_timeout
                                       : ErrorKind::failed,
                message);
}

}  // namespace

Remote::Remote(const std::string& address, const Credentials& credentials, uint32_t timeout_ms)
    : address_(parse_address(address)) {
    if (address_.kind != Address::Kind::tls && !credentials.empty()) {
        throw Error(ErrorKind::invalid,
                    fmt::format("authorities, a certificate or a key were named, but {} does not use "
                                "them; name the server as https://HOST:PORT",
                                printable(address)));
    }
    if (credentials.certificate.empty() && !credentials.key.empty()) {
        throw Error(ErrorKind::invalid, "a key was named without its certificate; name that, too");
    }
    connector_ = make_connector(address_, credentials, timeout_ms);
}

std::unique_ptr<Connection> Remote::request(const std::string& target) {
    auto connection = connector_->connect();
    // An answer to HTTP/1.0 comes in one piece and ends with the connection.
    connection->write(fmt::format("GET {} HTTP/1.0\r\nHost: {}\r\n\r\n", target, address_.host_field));
    return connection;
}

picture::Arrival Remote::copy(picture::Bytes wanted) {
    const auto connection = request(wanted == picture::Bytes::all ? "/snapshot?all" : "/snapshot");
    Answer answer = read_head(*connection);
    read_body(*connection, answer);
    if (answer.status != 200) throw_failure_of(answer);
    return picture::from_transfer(answer.body);
}

std::optional<picture::Arrival> Remote::try_copy(picture::Bytes wanted) {
    try {
        return copy(wanted);
    } catch (const Error& error) {
        if (error.kind == ErrorKind::no_region) return std::nullopt;
        throw;
    }
}

Bell Remote::wait_for_change(uint32_t milliseconds) {
    try {
        if (!events_) {
            auto connection = request("/events");
            const Answer answer = read_head(*connection);
            if (answer.status != 200) return Bell::missing;
            events_ = std::move(connection);
            // It begins with the picture of now, which may be newer than the last copy.
            return Bell::rang;
        }
        if (!events_->is_readable_within(milliseconds)) return Bell::silent;
        events_->restart_deadline();
        std::string text;
        if (!read_more(*events_, text)) events_.reset();
        return Bell::rang;
    } catch (const Error&) {
        events_.reset();
        return Bell::missing;
    }
}

}  // namespace picture_http
