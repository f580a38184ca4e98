// The events: what the log is given, and the texts that its viewers read from the program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "service/calls_windows.h"
#include "service/event_log_windows.h"

namespace {

using service::Event;
using service::write_event;
using testing::ElementsAre;

struct Written {
    std::wstring source;
    WORD type = 0, category = 0;
    DWORD id = 0;
    std::vector<std::wstring> texts;
    int open_logs = 0;
};
Written written;

class EventLog : public testing::Test {
  protected:
    EventLog() {
        written = {};
        service::Calls& calls = service::calls();
        calls.register_source = [](LPCWSTR, LPCWSTR source) -> HANDLE {
            written.source = source;
            ++written.open_logs;
            return &written;
        };
        calls.report_event = [](HANDLE, WORD type, WORD category, DWORD id, PSID, WORD count, DWORD, LPCWSTR* texts,
                                void*) -> BOOL {
            written.type = type;
            written.category = category;
            written.id = id;
            written.texts.assign(texts, texts + count);
            return TRUE;
        };
        calls.deregister_source = [](HANDLE) -> BOOL {
            --written.open_logs;
            return TRUE;
        };
    }
    ~EventLog() override {
        service::calls() = {};
        EXPECT_EQ(written.open_logs, 0);
    }
};

/// The program that has the texts.
class MessageFile {
  public:
    MessageFile() {
        std::wstring path(MAX_PATH, L'\0');
        path.resize(GetModuleFileNameW(nullptr, path.data(), MAX_PATH));
        path = path.substr(0, path.rfind(L'\\') + 1) + L"shmnmctl.exe";
        module_ = LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
        EXPECT_NE(module_, nullptr);
    }
    ~MessageFile() { FreeLibrary(module_); }
    MessageFile(const MessageFile&) = delete;
    MessageFile& operator=(const MessageFile&) = delete;

    /// A text as a viewer of events shows it; "" if there is none.
    std::wstring text(DWORD id, const std::vector<std::wstring>& inserts) const {
        std::vector<DWORD_PTR> arguments;
        for (const std::wstring& insert : inserts) arguments.push_back(reinterpret_cast<DWORD_PTR>(insert.c_str()));
        std::array<wchar_t, 1'000> text{};
        FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, module_, id, 0, text.data(),
                       static_cast<DWORD>(text.size()), reinterpret_cast<va_list*>(arguments.data()));
        return text.data();
    }

  private:
    HMODULE module_;
};

TEST_F(EventLog, GetsEachEventWithItsKindAndTheProgramHasItsText) {
    const MessageFile file;
    const struct {
        Event event;
        WORD type;
        DWORD id;
        const wchar_t* text;
    } events[] = {
        {Event::started, EVENTLOG_INFORMATION_TYPE, 0x40000001, L"The service shmnm has started. Why.\r\n"},
        {Event::stopped, EVENTLOG_INFORMATION_TYPE, 0x40000002, L"The service shmnm has stopped. Why.\r\n"},
        {Event::failed, EVENTLOG_ERROR_TYPE, 0xC0000003, L"The service shmnm has failed. Why.\r\n"},
        {Event::region_refused, EVENTLOG_ERROR_TYPE, 0xC0000004, L"The service shmnm refuses the region. Why.\r\n"},
        {Event::region_accepted, EVENTLOG_INFORMATION_TYPE, 0x40000005,
         L"The service shmnm no longer refuses the region. Why.\r\n"},
        {Event::lock_taken_over, EVENTLOG_WARNING_TYPE, 0x80000006,
         L"The service shmnm has taken over the region's lock from a process that ended while it held the lock. "
         L"Why.\r\n"},
        {Event::configuration_lost, EVENTLOG_ERROR_TYPE, 0xC0000007,
         L"The service shmnm has lost the configuration. Why.\r\n"},
        {Event::configuration_found, EVENTLOG_INFORMATION_TYPE, 0x40000008,
         L"The service shmnm has found the configuration again. Why.\r\n"},
    };
    for (const auto& each : events) {
        write_event(L"shmnm", each.event, "Why.");
        EXPECT_EQ(written.source, L"shmnm");
        EXPECT_EQ(written.type, each.type);
        EXPECT_EQ(written.category, 0);
        EXPECT_EQ(written.id, each.id);
        EXPECT_THAT(written.texts, ElementsAre(L"shmnm", L"Why."));
        EXPECT_EQ(file.text(written.id, written.texts), each.text);
    }
}

TEST_F(EventLog, PartsAPercentSignFromADigitThatViewersWouldReplaceIt) {
    write_event(L"shmnm", Event::failed, "no server a%2Fb, 100%");
    EXPECT_THAT(written.texts, ElementsAre(L"shmnm", L"no server a% 2Fb, 100%"));
}

TEST_F(EventLog, GetsNoMoreThanItTakes) {
    write_event(L"shmnm", Event::failed, std::string(40'000, 'x'));
    EXPECT_EQ(written.texts.at(1).size(), 31'000);
}

TEST_F(EventLog, MayBeMissing) {
    service::calls().register_source = [](LPCWSTR, LPCWSTR) -> HANDLE { return nullptr; };
    write_event(L"shmnm", Event::started, "Why.");
    EXPECT_EQ(written.id, 0);
}

}  // namespace
