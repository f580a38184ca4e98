// The C library asks a server of shmnmweb, which a child process runs.
#include <gmock/gmock.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "listener.h"
#include "opened.h"
#include "picture/live_region.h"
#include "sampler.h"
#include "server.h"
#include "shmnm.h"
#include "source.h"

namespace {

using test::Answer;
using test::Child;
using test::Opened;

class PictureOfAServer : public test::LiveCopy {};

CHILD(serve_the_picture) {
    using namespace shmnmweb;
    Site site;
    site.history = History("0123456789abcdef");
    auto source = live_source();
    Look look = look_at(*source, look_at(*source, {}, picture::Bytes::all), picture::Bytes::in_use);
    site.add(std::make_shared<const Look>(look));
    std::optional<Sampler> sampler;
    Server server(site, Limits{}, [&] { sampler->ask_for_all(); });
    std::vector<Listener> listeners;
    listeners.push_back(listen_on("127.0.0.1:0", false));
    server.listen(std::move(listeners));
    sampler.emplace(std::move(source), std::move(look),
                    [&](std::shared_ptr<const Look> newest) { server.show(std::move(newest)); });
    server.run([&] { test::report_text(server.addresses().at(0)); });
    sampler.reset();
}

/// An address without what comes after the port.
std::string without_path(std::string address) {
    if (address.ends_with('/')) address.pop_back();
    return address;
}

TEST_F(PictureOfAServer, IsThePictureOfItsMachine) {
    Child server = start(serve_the_picture);
    const std::string address = without_path(server.reported_text());
    for (const uint32_t flags : {uint32_t{0}, uint32_t{SHMNMPICTURE_ALL_BYTES}}) {
        const Opened remote = Opened::address(address, flags), live = Opened::live(flags);
        ASSERT_EQ(remote.result(), SHMNMPICTURE_OK) << remote.error();
        EXPECT_EQ(remote.json(), live.json());
        EXPECT_EQ(remote.findings().result, live.findings().result);
        EXPECT_EQ(remote.value("servers/alpha/nodestat"), (Answer{SHMNMPICTURE_OK, "2"}));
    }
}

TEST_F(PictureOfAServer, ChangesWithTheRegionUntilTheServerEnds) {
    Child server = start(serve_the_picture);
    Opened picture = Opened::address(without_path(server.reported_text()));
    ASSERT_EQ(picture.result(), SHMNMPICTURE_OK) << picture.error();
    EXPECT_EQ(picture.update(1), 0) << "the time passes";
    for (uint32_t value = 1; value < 4; ++value) {
        ASSERT_EQ(shmnm_setclstat(value), SHMNM_OK);
        ASSERT_EQ(picture.update(UINT32_MAX), 1);
        ASSERT_EQ(picture.value("cluster/clstat").text, std::to_string(value));
    }
    server.kill();
    EXPECT_EQ(picture.update(UINT32_MAX), -1);
    EXPECT_EQ(picture.result(), SHMNMPICTURE_ERR_FAILED);
    EXPECT_THAT(picture.error(), testing::HasSubstr("cannot speak with the server"));
    EXPECT_EQ(picture.value("cluster/clstat").text, "3") << "the last copy stays";
}

}  // namespace
