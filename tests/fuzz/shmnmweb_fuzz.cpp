// Fuzzes the requests of shmnmweb, in process and through the parser that connections use: every answer is well-formed,
// and no bytes of a request reach the head of an answer or an error message unescaped.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/input.h"
#include "picture/json.h"
#include "picture/laid_out.h"
#include "picture/platform.h"
#include "server.h"

namespace {

using namespace shmnmweb;

using fuzz::require;

/// What the answers are made from: a region of another machine, as if it were live here.
struct Fixture {
    Fixture() {
        picture::Snapshot snapshot = picture::read_dump(SHMNM_GOLDEN_REGION);
        picture::settle_dump(snapshot, SHMNM_GOLDEN_REGION);
        snapshot.live = true;
        look->all = std::make_shared<const picture::Snapshot>(snapshot);
        look->content = std::make_shared<const Content>(std::move(snapshot));
        look->version = 1;
        site.names = Names(SHMNM_NAMES);
        site.history = History("0123456789abcdef");
        site.add(look);
    }

    std::shared_ptr<Look> look = std::make_shared<Look>();
    Site site;
};

/// Printable ASCII between the line ends that the head itself has.
void expect_whole_head(const std::string& head) {
    require(head.starts_with("HTTP/1.1 ") && head.ends_with("\r\n\r\n"));
    require(head.find("\r\n\r\n") == head.size() - 4);
    for (size_t i = 0; i < head.size(); ++i) {
        const char byte = head[i];
        require((byte >= ' ' && byte <= '~') || (byte == '\r' && head[i + 1] == '\n') ||
                (byte == '\n' && i > 0 && head[i - 1] == '\r'));
    }
}

void expect_whole_answer(const Response& response, Site& site) {
    constexpr std::array<uint16_t, 8> known{200, 304, 400, 404, 405, 421, 431, 503};
    require(std::find(known.begin(), known.end(), response.status) != known.end());
    expect_whole_head(head_of(response, response.closes));
    require(!response.needs_all);
    if (response.is_stream) {
        require(response.bodies.empty() && response.status == 200);
        const auto event = site.history.event_after(response.seen);
        require(event ? event->ends_with("\n\n") : response.seen == site.history.sequence());
    } else if (response.content_type == "application/json" && response.status != 304) {
        std::string body;
        for (const Body& part : response.bodies) body += part.bytes;
        require(picture::Json::accept(body));
        if (response.status >= 400) {
            require(body.ends_with("}\n"));
            body.pop_back();
            require(std::all_of(body.begin(), body.end(), [](char byte) { return byte >= ' ' && byte <= '~'; }));
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    static Fixture fixture;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    fixture.look->copied_steady_us = picture::platform::steady_clock_us();
    const Response remote = respond_to_bytes(bytes, false, fixture.site);
    const Response local = respond_to_bytes(bytes, true, fixture.site);
    expect_whole_answer(remote, fixture.site);
    expect_whole_answer(local, fixture.site);
    if (fuzz::plants_fault()) require(remote.status != 405);
    // Whatever is served over TCP is served over the Unix socket too.
    if (remote.status == 200) {
        require(local.status == 200);
        require(bytes.find("GET ") != std::string_view::npos || bytes.find("HEAD ") != std::string_view::npos);
    }
    return 0;
}
