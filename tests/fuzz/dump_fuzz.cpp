// Fuzzes dumps: whatever a file holds, it is refused with a message or shown as a picture whose outputs agree with one
// another.
#include <set>
#include <string>
#include <vector>

#include "core_words.h"
#include "fuzz/input.h"
#include "picture/decode.h"
#include "picture/error.h"
#include "picture/findings.h"
#include "picture/json.h"
#include "picture/keys.h"
#include "picture/laid_out.h"
#include "picture/overlaps.h"
#include "picture/picture_document.h"
#include "picture/snapshot.h"

namespace {

using fuzz::require;

constexpr uint64_t largest_region = uint64_t{1} << 32;

enum class Base : uint8_t { golden, empty, raw };

struct Start {
    uint8_t base;
    uint8_t servers, hb, np, fst;
    uint16_t cut;  ///< bytes that are missing at the end
};

std::vector<uint8_t> dump_from(fuzz::Input input) {
    static const std::vector<uint8_t> golden = picture::read_file(SHMNM_GOLDEN_REGION);
    const auto start = input.take<Start>();
    std::vector<uint8_t> bytes;
    switch (static_cast<Base>(start.base % 3)) {
        case Base::raw:
            return {input.rest().begin(), input.rest().end()};
        case Base::golden:
            bytes = golden;
            break;
        case Base::empty: {
            const picture::Counts counts{1 + start.servers % 8, start.hb % 8, start.np % 8, start.fst % 3};
            bytes.resize(picture::Layout(counts).size);
            const int32_t header[] = {counts.servers, counts.hb, counts.np, counts.fst, counts.servers * counts.fst};
            std::memcpy(bytes.data() + 8, header, sizeof header);
            break;
        }
    }
    while (!input.is_empty()) {
        input.take<fuzz::Poke>().each(bytes.size(), [&](size_t offset, uint8_t byte) { bytes[offset] = byte; });
    }
    bytes.resize(bytes.size() - std::min<size_t>(start.cut, bytes.size()));
    return bytes;
}

bool is_printable(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char byte) { return byte >= ' ' && byte <= '~'; });
}

void expect_sound_outputs(const picture::Snapshot& snapshot) {
    const picture::Picture picture = picture::decode(snapshot);
    require(picture::Json::accept(picture::status_line(snapshot, picture)));
    std::set<std::string> keys;
    for (const picture::Word& word : picture::words(picture)) {
        require(is_printable(word.key) && keys.insert(word.key).second);
        require(picture::find(picture, word.key) == word);
    }
    uint64_t last = 0;
    for (const picture::Finding& finding : picture::findings(snapshot)) {
        require(finding.offset >= last);
        require(is_printable(finding.key + finding.expected + finding.found));
        last = finding.offset;
    }
    bridge::Look look = bridge::reduced(snapshot);
    if (fuzz::plants_fault() && look.header[0][0] > 100) ++look.counts.hb;
    require(look == bridge::reduced(snapshot));
    try {
        const picture::Document document = picture::document_of(snapshot);
        const std::string text = picture::to_json(document).dump();
        require(picture::to_json(picture::document_from(text)).dump() == text);
    } catch (const picture::Error& error) {
        require(is_printable(error.what()));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        picture::Snapshot dump = picture::dump_of(dump_from(fuzz::Input(data, size)), "dump");
        try {
            require(is_printable(picture::settle_dump(dump, "dump")));
        } catch (const picture::Error& error) {
            // A part of a region is shown as far as it goes.
            const bool could_be = picture::Layout(dump.header_counts()).size <= largest_region;
            require(error.kind == (could_be ? picture::ErrorKind::not_whole : picture::ErrorKind::not_a_dump));
            require(is_printable(error.what()));
        }
        expect_sound_outputs(dump);
    } catch (const picture::Error& error) {
        require(is_printable(error.what()));
    }
    return 0;
}
