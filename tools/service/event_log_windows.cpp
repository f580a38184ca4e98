#include "service/event_log_windows.h"

#include <array>
#include <cctype>

#include "messages.h"
#include "service/calls_windows.h"
#include "wide_path.h"

namespace service {
namespace {

DWORD id_of(Event event) {
    switch (event) {
        case Event::started:
            return SHMNM_EVENT_STARTED;
        case Event::stopped:
            return SHMNM_EVENT_STOPPED;
        case Event::failed:
            return SHMNM_EVENT_FAILED;
        case Event::region_refused:
            return SHMNM_EVENT_REGION_REFUSED;
        case Event::region_accepted:
            return SHMNM_EVENT_REGION_ACCEPTED;
        case Event::lock_taken_over:
            return SHMNM_EVENT_LOCK_TAKEN_OVER;
        case Event::configuration_lost:
            return SHMNM_EVENT_CONFIGURATION_LOST;
        case Event::configuration_found:
            return SHMNM_EVENT_CONFIGURATION_FOUND;
    }
    return SHMNM_EVENT_FAILED;
}

WORD type_of(DWORD id) {
    constexpr DWORD informational = 1, warning = 2;
    const DWORD severity = id >> 30;
    if (severity == informational) return EVENTLOG_INFORMATION_TYPE;
    return severity == warning ? EVENTLOG_WARNING_TYPE : EVENTLOG_ERROR_TYPE;
}

/// Viewers of events replace a % with a number in what is inserted as well, so a blank parts the two.
std::string without_inserts(const std::string& text) {
    std::string result;
    for (const char letter : text) {
        if (!result.empty() && result.back() == '%' && std::isdigit(static_cast<unsigned char>(letter)) != 0) {
            result += ' ';
        }
        result += letter;
    }
    // The longest text that the log takes.
    constexpr size_t most = 31'000;
    if (result.size() > most) result.resize(most);
    return result;
}

}  // namespace

void write_event(const std::wstring& source, Event event, const std::string& what) {
    const HANDLE log = calls().register_source(nullptr, source.c_str());
    if (!log) return;
    const std::wstring details = wide_path::to_wide(without_inserts(what));
    std::array<const wchar_t*, 2> texts{source.c_str(), details.c_str()};
    const DWORD id = id_of(event);
    calls().report_event(log, type_of(id), 0, id, nullptr, static_cast<WORD>(texts.size()), 0, texts.data(), nullptr);
    calls().deregister_source(log);
}

}  // namespace service
