// The steps of the history: each look that shows something else is told, as words or as the whole picture.
#include "history.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "picture/json.h"
#include "picture/library_region.h"
#include "shmnm.h"

namespace shmnmweb {
namespace {

using picture::Json;
using picture::Snapshot;
using test::LibraryRegion;
using test::Random;
using testing::ElementsAre;
using testing::IsEmpty;

/// A client of the event stream: the name and the document of each event.
class Client {
  public:
    /// Shows a copy of the region, or that there is none. @return the event's name; "" if there was none
    std::string see(std::shared_ptr<const Content> content) {
        auto look = std::make_shared<Look>();
        look->content = std::move(content);
        look->copied_us = look->time_us = ++time_us_;
        const bool is_told = history_.add(std::move(look));
        const auto event = history_.event_after(seen_);
        EXPECT_EQ(is_told, event != nullptr);
        if (!event) return "";
        seen_ = history_.sequence();
        const size_t name = event->find("event: ") + 7, data = event->find("data: ") + 6;
        told_ = Json::parse(event->substr(data));
        return event->substr(name, event->find('\n', name) - name);
    }
    std::string see(Snapshot snapshot) { return see(std::make_shared<const Content>(std::move(snapshot))); }
    std::string see_no_region() { return see(std::shared_ptr<const Content>()); }

    const Json& told() const { return told_; }
    /// The names of what happened to the region, among the latest changes.
    std::vector<std::string> region_events() const {
        std::vector<std::string> events;
        for (const Json& entry : told_["history"]) {
            if (entry.contains("event")) events.push_back(entry["event"]);
        }
        return events;
    }

  private:
    History history_{"run"};
    std::optional<uint64_t> seen_;
    Json told_;
    uint64_t time_us_ = 1'000'000;
};

Json document_of(const Snapshot& snapshot) {
    return picture::to_json(snapshot, picture::decode(snapshot));
}

void set_word(Snapshot& snapshot, uint64_t offset, uint32_t value) {
    std::memcpy(snapshot.bytes.data() + offset, &value, sizeof value);
}

/// Gives the second of two records the name of the first.
void rename(Snapshot& snapshot, uint64_t from, uint64_t to, uint64_t size) {
    std::memmove(snapshot.bytes.data() + to, snapshot.bytes.data() + from, size);
}

/// A region in which the second server and the second resource have the names of the first ones.
Snapshot with_double_names(const LibraryRegion& region) {
    Snapshot snapshot = region.dump();
    const picture::Picture decoded = picture::decode(snapshot);
    rename(snapshot, decoded.servers[0].offset, decoded.servers[1].offset, sizeof shmnm_server::name);
    rename(snapshot, decoded.hb[0].offset, decoded.hb[1].offset, offsetof(shmnm_resource, descript));
    return snapshot;
}

TEST(History, TellsAChangeOfTheSecondOfTwoServersWithOneName) {
    LibraryRegion region({2, 2, 1, 1});
    region.fill();
    Snapshot snapshot = with_double_names(region);
    Client client;
    ASSERT_EQ(client.see(snapshot), "picture");
    set_word(snapshot, picture::decode(snapshot).servers[1].offset + offsetof(shmnm_server, pingstat), 7);
    EXPECT_EQ(client.see(snapshot), "picture");
    EXPECT_EQ(client.told()["picture"]["servers"][1]["pingstat"], 7);
    EXPECT_EQ(client.told()["picture"], document_of(snapshot));
}

/// The leaves that differ and have a word of their own: all but those that follow from a server's other words.
size_t differing_words(Json before, Json after) {
    size_t count = 0;
    for (Json* const document : {&before, &after}) {
        (*document)["simulation"].erase("failed");
        for (Json& server : (*document)["servers"]) server.erase("alive");
    }
    for (const Json& step : Json::diff(before, after)) {
        EXPECT_EQ(step["op"], "replace") << step["path"];
        ++count;
    }
    return count;
}

/// The place of a word that has a key, or any place in the records. A changed header would make other records of them.
uint64_t any_offset(Random& random, const Snapshot& snapshot) {
    if (test::below(random, 2) == 0) {
        const size_t words = (snapshot.bytes.size() - sizeof(shmnm_header)) / sizeof(uint32_t);
        return sizeof(shmnm_header) + sizeof(uint32_t) * test::below(random, static_cast<uint32_t>(words));
    }
    const auto words = picture::words(picture::decode(snapshot));
    for (;;) {
        const uint64_t offset = words[test::below(random, static_cast<uint32_t>(words.size()))].offset;
        if (offset >= sizeof(shmnm_header)) return offset;
    }
}

TEST(History, TellsWhateverChangesInTheDocument) {
    Random random(test::seed());
    size_t pictures = 0, changes = 0;
    for (unsigned round = 0; round < test::share_of(20); ++round) {
        const auto count = [&](uint32_t most) { return static_cast<int32_t>(2 + test::below(random, most)); };
        LibraryRegion region({count(4), count(3), count(2), 1});
        region.fill();
        Snapshot snapshot = round % 2 == 0 ? region.dump() : with_double_names(region);
        Client client;
        Json before = document_of(snapshot);
        ASSERT_EQ(client.see(snapshot), "picture");
        for (unsigned i = 0; i < 50; ++i) {
            const uint64_t offset = any_offset(random, snapshot);
            set_word(snapshot, offset, static_cast<uint32_t>(random()) >> test::below(random, 32));
            Json after = document_of(snapshot);
            const std::string event = client.see(snapshot);
            ASSERT_EQ(event.empty(), after == before) << "offset " << offset;
            if (event == "picture") {
                ++pictures;
                ASSERT_EQ(client.told()["picture"], after) << "offset " << offset;
            } else if (event == "changes") {
                ++changes;
                ASSERT_EQ(client.told()["changes"].size(), differing_words(before, after)) << "offset " << offset;
            }
            before = std::move(after);
        }
    }
    EXPECT_GT(pictures, test::share_of(100));
    EXPECT_GT(changes, test::share_of(100));
}

TEST(History, CallsARegionCreatedGoneOrReplaced) {
    LibraryRegion region({2, 2, 1, 1});
    region.fill();
    Snapshot first = region.dump(), second = region.dump();
    first.object = 1;
    second.object = 2;
    Client client;
    EXPECT_EQ(client.see_no_region(), "picture");
    EXPECT_EQ(client.told()["picture"], nullptr);
    EXPECT_THAT(client.region_events(), IsEmpty());
    EXPECT_EQ(client.see(first), "picture");
    EXPECT_THAT(client.region_events(), ElementsAre("created"));
    EXPECT_EQ(client.see(second), "picture");
    EXPECT_THAT(client.region_events(), ElementsAre("created", "replaced"));
    EXPECT_EQ(client.see_no_region(), "picture");
    EXPECT_THAT(client.region_events(), ElementsAre("created", "replaced", "gone"));
    EXPECT_EQ(client.see(first), "picture");
    EXPECT_THAT(client.region_events(), ElementsAre("created", "replaced", "gone", "replaced"));
}

TEST(History, CallsTheRegionOfItsStartNothing) {
    LibraryRegion region({2, 2, 1, 1});
    Client client;
    EXPECT_EQ(client.see(region.dump()), "picture");
    EXPECT_THAT(client.region_events(), IsEmpty());
}

}  // namespace
}  // namespace shmnmweb
