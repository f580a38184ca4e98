// The lines of a log, taken apart, and how tests write some.
#include <gmock/gmock.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kzmlog.h"
#include "kzmlog_test_platform.h"

namespace test {

namespace {

std::string cut(std::string& from, const char* separator) {
    const size_t at = from.find(separator);
    if (at == std::string::npos) {
        ADD_FAILURE() << "no '" << separator << "' in: " << from.substr(0, 200);
        return {};
    }
    std::string field = from.substr(0, at);
    from.erase(0, at + 1);
    return field;
}

LogLine parsed_line(std::string text) {
    const std::string whole = text.substr(0, 200);
    LogLine line;
    line.time = cut(text, " ");
    std::tm date{};
    int milliseconds = 0, zone_hours = 0, zone_minutes = 0, length = 0;
    char sign = 0;
    const int fields = std::sscanf(line.time.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%3d%c%2d:%2d%n", &date.tm_year,
                                   &date.tm_mon, &date.tm_mday, &date.tm_hour, &date.tm_min, &date.tm_sec,
                                   &milliseconds, &sign, &zone_hours, &zone_minutes, &length);
    EXPECT_EQ(fields, 10) << whole;
    EXPECT_EQ(length, 29) << whole;
    EXPECT_EQ(line.time.size(), 29u) << whole;
    EXPECT_TRUE(sign == '+' || sign == '-') << whole;
    using namespace std::chrono;
    const sys_days day{year(date.tm_year) / date.tm_mon / date.tm_mday};
    line.offset_minutes = (sign == '-' ? -1 : 1) * (zone_hours * 60 + zone_minutes);
    line.utc_ms = (duration_cast<std::chrono::milliseconds>(day.time_since_epoch()).count() +
                   ((date.tm_hour * 60 + date.tm_min) * 60 + date.tm_sec) * 1000LL + milliseconds) -
                  line.offset_minutes * 60'000LL;
    line.process = static_cast<uint32_t>(std::stoul(cut(text, " ")));
    line.thread = static_cast<uint32_t>(std::stoul(cut(text, " ")));
    line.level = cut(text, " ");
    line.function = cut(text, " ");
    std::string place = cut(text, " ");
    const size_t colon = place.rfind(':');
    EXPECT_NE(colon, std::string::npos) << whole;
    line.file = place.substr(0, colon);
    line.line = std::stoi(place.substr(colon + 1));
    line.message = text;
    return line;
}

}  // namespace

std::vector<LogLine> parsed(const std::string& text) {
    EXPECT_TRUE(text.empty() || text.back() == '\n') << "the last line is cut";
    std::vector<LogLine> lines;
    for (size_t from = 0; from < text.size();) {
        const size_t to = text.find('\n', from);
        lines.push_back(parsed_line(text.substr(from, to - from)));
        from = to + 1;
    }
    return lines;
}

std::vector<std::string> messages(const std::string& text) {
    std::vector<std::string> found;
    for (LogLine& line : parsed(text)) found.push_back(std::move(line.message));
    return found;
}

std::string unescaped(std::string_view text) {
    std::string plain;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\') {
            plain += text[at];
            continue;
        }
        switch (const char kind = text.at(++at)) {
            case 'n':
                plain += '\n';
                break;
            case 'r':
                plain += '\r';
                break;
            case 't':
                plain += '\t';
                break;
            case 'x':
                plain += static_cast<char>(std::stoi(std::string(text.substr(at + 1, 2)), nullptr, 16));
                at += 2;
                break;
            default:
                EXPECT_EQ(kind, '\\');
                plain += kind;
        }
    }
    return plain;
}

std::vector<std::string> KzmLog::kept_messages() const {
    std::vector<std::string> kept;
    for (const char* const name : {"shmnm.log.3", "shmnm.log.2", "shmnm.log.1", "shmnm.log"}) {
        for (std::string& message : messages(text(name))) kept.push_back(std::move(message));
    }
    return kept;
}

void* open_log(uint32_t size, uint32_t level) {
    void* log = nullptr;
    EXPECT_EQ(kzmlog_open("shmnm", &log, level, size, 0, "oru_kzmshmnm_log"), 0);
    EXPECT_NE(log, nullptr);
    return log;
}

int32_t write(void* log, const std::string& message) {
    return kzmlog_write(log, 4, 0, "src/writer", 7, "_write", message.c_str());
}

}  // namespace test
