#include "http_message.h"

#include <fmt/format.h>

#include <array>
#include <chrono>

#include "picture/json.h"

namespace shmnmweb {
namespace {

const char* reason_of(uint16_t status) {
    switch (status) {
        case 200:
            return "OK";
        case 304:
            return "Not Modified";
        case 400:
            return "Bad Request";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 421:
            return "Misdirected Request";
        case 431:
            return "Request Header Fields Too Large";
        case 503:
            return "Service Unavailable";
        default:
            return "Error";
    }
}

/// The time as HTTP writes it, in GMT whatever the locale.
std::string date() {
    using namespace std::chrono;
    constexpr std::array days{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    constexpr std::array months{"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const auto now = floor<seconds>(system_clock::now());
    const auto day = floor<std::chrono::days>(now);
    const year_month_day calendar(day);
    const hh_mm_ss clock(now - day);
    return fmt::format("{}, {:02} {} {} {:02}:{:02}:{:02} GMT", days[weekday(day).c_encoding()],
                       static_cast<unsigned>(calendar.day()), months[static_cast<unsigned>(calendar.month()) - 1],
                       static_cast<int>(calendar.year()), clock.hours().count(), clock.minutes().count(),
                       clock.seconds().count());
}

}  // namespace

Body body_of(std::string text) {
    auto kept = std::make_shared<const std::string>(std::move(text));
    const std::string_view bytes = *kept;
    return {std::move(kept), bytes};
}

std::string head_of(const Response& response, bool closes) {
    std::string text =
        fmt::format("HTTP/1.1 {} {}\r\nDate: {}\r\n", response.status, reason_of(response.status), date());
    if (response.status != 304) text += fmt::format("Content-Type: {}\r\n", response.content_type);
    bool has_policy = false, has_cache_control = false;
    for (const auto& [name, value] : response.fields) {
        text += fmt::format("{}: {}\r\n", name, value);
        has_policy = has_policy || std::string_view(name) == "Content-Security-Policy";
        has_cache_control = has_cache_control || std::string_view(name) == "Cache-Control";
    }
    if (!has_policy) text += "Content-Security-Policy: default-src 'none'; frame-ancestors 'none'\r\n";
    if (!has_cache_control) text += "Cache-Control: no-store\r\n";
    text +=
        "X-Content-Type-Options: nosniff\r\nReferrer-Policy: no-referrer\r\n"
        "Cross-Origin-Resource-Policy: same-origin\r\n";
    if (!response.is_stream && response.status != 304) {
        size_t length = 0;
        for (const Body& body : response.bodies) length += body.bytes.size();
        text += fmt::format("Content-Length: {}\r\n", length);
    }
    text += closes ? "Connection: close\r\n\r\n" : "Connection: keep-alive\r\n\r\n";
    return text;
}

Response error(uint16_t status, int exit, const std::string& message) {
    picture::Json document = picture::document("error");
    document["status"] = exit;
    document["message"] = message;
    Response response;
    response.status = status;
    response.bodies.push_back(body_of(picture::line(document)));
    return response;
}

}  // namespace shmnmweb
