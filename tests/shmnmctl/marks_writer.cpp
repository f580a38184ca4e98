// A bridge that says what it is told: each line of its input is the marks as JSON, as the member "bridge" of document
// "status" has them. It answers each line once the marks are written, and writes them again and again, as a bridge
// does. The member "written_ms_ago" makes marks that stand still: they are written once, so long ago; "odd" stops in a
// write.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "bridge_marks/live.h"
#include "kzmutil.h"
#include "picture/platform.h"

namespace {

using bridge::Freshness;
using nlohmann::json;

Freshness freshness_of(const std::string& name) {
    return name == "fresh" ? Freshness::fresh : name == "silent" ? Freshness::silent : Freshness::unknown;
}

bridge::Marks marks_of(const json& told) {
    bridge::Marks marks;
    marks.is_connected = told.value("connected", true);
    marks.is_running = told.value("running", true);
    marks.is_refused = told.value("refused", false);
    marks.is_fed = told.value("fed", true);
    marks.cluster = told.value("cluster", "production");
    marks.server = told.value("server", "");
    marks.member = told.value("member", "");
    const json proposals = told.value("proposals", json::object());
    marks.agreed = {proposals.value("proposed", 0U), proposals.value("accepted", 0U), proposals.value("lost", 0U),
                    proposals.value("replaced", 0U)};
    marks.contested = told.value("contested", std::vector<std::string>());
    marks.unmatched = told.value("unmatched", std::vector<std::string>());
    for (const json& each : told.value("servers", json::array())) {
        bridge::Mark mark;
        mark.server = each.at("name");
        mark.freshness = freshness_of(each.value("freshness", "unknown"));
        mark.age = each.value("age_ms", -1);
        mark.sequence = each.value("revision", 0U);
        mark.address = each.value("address", "");
        mark.is_claimed = each.value("claimed", true);
        mark.is_unmatched = each.value("unmatched", false);
        mark.is_duplicate = each.value("duplicate_priority", false);
        mark.has_other_names = each.value("other_names", false);
        mark.has_other_times = each.value("other_times", false);
        marks.servers.push_back(std::move(mark));
    }
    return marks;
}

bridge::MarksPage* page_of_own() {
    constexpr uint32_t page_read_write = 4;
    void* const no_file = reinterpret_cast<void*>(~uintptr_t{0});
    void* const mapping =
        KzmutilCreateNamedFileMapping(no_file, page_read_write, 0, sizeof(bridge::MarksPage), bridge::marks_name);
    return mapping ? static_cast<bridge::MarksPage*>(picture::platform::map_for_writing(mapping)) : nullptr;
}

}  // namespace

int main() {
    bridge::MarksPage* const page = page_of_own();
    if (!page) return 1;
    std::mutex mutex;
    std::condition_variable ends;
    bridge::Marks marks;
    bool writes = false, is_over = false;
    std::thread writer([&] {
        std::unique_lock hold(mutex);
        while (!ends.wait_for(hold, std::chrono::milliseconds(50), [&] { return is_over; })) {
            if (writes) bridge::write_marks(*page, marks, picture::platform::steady_clock_us());
        }
    });
    for (std::string line; std::getline(std::cin, line);) {
        const json told = json::parse(line);
        {
            const std::scoped_lock hold(mutex);
            marks = marks_of(told);
            const uint64_t ago_us = told.value("written_ms_ago", uint64_t{0}) * 1'000;
            bridge::write_marks(*page, marks, picture::platform::steady_clock_us() - ago_us);
            writes = ago_us == 0 && !told.value("odd", false);
            if (told.value("odd", false)) std::atomic_ref<uint64_t>(page->header.sequence).fetch_add(1);
        }
        std::puts("written");
        std::fflush(stdout);
    }
    {
        const std::scoped_lock hold(mutex);
        is_over = true;
    }
    ends.notify_one();
    writer.join();
    return 0;
}
