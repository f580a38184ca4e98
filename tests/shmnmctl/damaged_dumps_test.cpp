// Dumps damaged by arbitrary bytes: whatever a dump holds, every command that reads one shows something, nothing of it
// unescaped, and soon. Prints how long the slowest dump took each command; SHMNM_DAMAGED_DUMPS says how many there are,
// SHMNM_DAMAGED_SMALL that all are of small regions, of which very many can be looked at.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "picture/decode.h"
#include "picture/error.h"
#include "picture/findings.h"
#include "picture/in_use.h"
#include "picture/json.h"
#include "picture/keys.h"
#include "picture/library_region.h"
#include "picture_text.h"
#include "shmnm.h"

namespace shmnmctl {
namespace {

using namespace picture;

using test::below;
using test::LibraryRegion;
using test::Random;

/// Counts, maxima and strides that no healthy region has: with -146 servers a resource has a stride of 0, with fewer a
/// negative one.
uint32_t bad_word(Random& random) {
    static const int64_t values[] = {
        INT32_MAX, INT32_MAX - 1, INT32_MIN,  -1,         -2,         -100,      -144, -145, -146,
        -147,      -1000,         0,          1,          2,          3,         4,    5,    8,
        20,        100,           127,        129,        255,        300,       600,  800,  7812,
        100000,    1000000,       0x20000000, 0x3FFFFFFF, 0x40000000, 0x40000001};
    return below(random, 4) == 0 ? static_cast<uint32_t>(random())
                                 : static_cast<uint32_t>(values[below(random, std::size(values))]);
}

void put_word(std::vector<uint8_t>& bytes, uint64_t at, uint32_t value) {
    for (unsigned i = 0; i < sizeof value && at + i < bytes.size(); ++i) {
        bytes[at + i] = static_cast<uint8_t>(value >> 8 * i);
    }
}

/// Where an area of damage lies: a few bytes or very many.
std::pair<uint64_t, uint64_t> area(Random& random, uint64_t size) {
    const uint64_t begin = random() % size;
    const uint64_t longest = below(random, 3) == 0 ? size - begin : std::min<uint64_t>(size - begin, 2000);
    return {begin, begin + random() % longest + 1};
}

template <typename Byte>
void fill(std::vector<uint8_t>& bytes, Random& random, Byte byte) {
    const auto [begin, end] = area(random, bytes.size());
    for (uint64_t at = begin; at < end; ++at) bytes[at] = byte();
}

/// Other maxima, and a size that suits them, no larger than the dump's; as many in use as there can be.
void lay_out_anew(std::vector<uint8_t>& bytes, Random& random) {
    Counts counts;
    do {
        const auto any = [&](uint32_t most) { return static_cast<int32_t>(below(random, below(random, most) + 1)); };
        counts = {.servers = any(8000), .hb = any(2500), .np = any(2500), .fst = any(2500)};
    } while (Layout(counts).size > bytes.size());
    bytes.resize(Layout(counts).size);
    const int32_t words[] = {counts.servers,
                             counts.hb,
                             counts.np,
                             counts.fst,
                             counts.servers * counts.fst,
                             counts.servers,
                             counts.hb,
                             counts.np,
                             counts.servers * counts.fst};
    for (size_t i = 0; i < std::size(words); ++i) {
        put_word(bytes, offsetof(shmnm_header, max_servers) + sizeof(uint32_t) * i, static_cast<uint32_t>(words[i]));
    }
}

/// @return whether the dump has become one of another region, with as many records as its size allows
bool damage_once(std::vector<uint8_t>& bytes, Random& random) {
    const auto byte = static_cast<uint8_t>(random());
    // Areas have very many bytes.
    auto fast = [state = static_cast<uint32_t>(random())]() mutable {
        state = state * 1664525 + 1013904223;
        return static_cast<uint8_t>(state >> 24);
    };
    const auto header_word = [&] { return offsetof(shmnm_header, max_servers) + sizeof(uint32_t) * below(random, 9); };
    switch (below(random, 8)) {
        case 0:
        case 1:
            put_word(bytes, header_word(), bad_word(random));
            break;
        case 2:
            for (unsigned words = below(random, 1000); words > 0; --words) {
                put_word(bytes, random() % bytes.size(), bad_word(random));
            }
            break;
        case 3:
            bytes.resize(sizeof(shmnm_header) + random() % (bytes.size() + 5000 - sizeof(shmnm_header)));
            break;
        case 4:
            fill(bytes, random, [&] { return byte; });
            break;
        case 5:
            fill(bytes, random, fast);
            break;
        case 6:
            // Short texts, many of them equal.
            fill(bytes, random, [fast]() mutable { return static_cast<uint8_t>(fast() & 1); });
            break;
        default:
            lay_out_anew(bytes, random);
            return true;
    }
    return false;
}

struct Damaged {
    Snapshot snapshot;
    bool laid_out_anew = false;
};

Damaged damaged(const Snapshot& healthy, Random& random) {
    Damaged dump{healthy};
    Snapshot& snapshot = dump.snapshot;
    for (unsigned times = 1 + below(random, 4); times > 0; --times) {
        if (damage_once(snapshot.bytes, random)) dump.laid_out_anew = true;
    }
    snapshot.mapped = snapshot.bytes.size();
    snapshot.counts = snapshot.header_counts();
    // The live region is read with the counts of the configuration.
    if (below(random, 4) == 0) {
        snapshot.live = true;
        snapshot.configured = healthy.counts;
        if (snapshot.bytes.size() == healthy.bytes.size()) snapshot.counts = healthy.counts;
    }
    return dump;
}

struct Slowest {
    double ms = 0;
    unsigned dump = 0;
};

/// What a command writes about a dump, and the longest that it took: for damaged ones, and for those that hold another
/// region, of which the picture may have thousands of records.
struct Command {
    const char* name;
    std::function<std::string(const Snapshot&)> output;
    Slowest slowest{}, slowest_anew{};
};

std::vector<Command> commands(const Picture& before) {
    return {
        {"status", [](const Snapshot& dump) { return to_text(to_sheet(decode(dump), {}, nullptr), {.columns = 80}); }},
        {"status --watch",
         [&before](const Snapshot& dump) { return to_text(to_sheet(decode(dump), {}, &before), {.columns = 200}); }},
        {"status --format json", [](const Snapshot& dump) { return line(to_json(dump, decode(dump))); }},
        {"list",
         [](const Snapshot& dump) {
             std::string text;
             for (const Word& word : words(decode(dump))) {
                 text += fmt::format("{} {}\n", word.key, word.value.to_text());
             }
             return text;
         }},
        {"list --format json", [](const Snapshot& dump) { return line(to_json(words(decode(dump)))); }},
        {"verify",
         [](const Snapshot& dump) {
             std::string text;
             for (const Finding& finding : findings(dump)) {
                 text += fmt::format("{} {}: expected {}; found {}\n", finding.offset, finding.key, finding.expected,
                                     finding.found);
             }
             return text;
         }},
    };
}

bool is_control(char byte) {
    return (byte >= 0 && byte < ' ' && byte != '\n') || byte == '\x7F';
}

unsigned dumps_wanted() {
    const char* const wanted = std::getenv("SHMNM_DAMAGED_DUMPS");
    return wanted ? static_cast<unsigned>(std::strtoul(wanted, nullptr, 10)) : test::share_of(120);
}

/// Regions of which damaged dumps are made; the default size is what most of them have.
std::vector<Snapshot> healthy_dumps(Random& random) {
    std::vector<Snapshot> dumps;
    if (std::getenv("SHMNM_DAMAGED_SMALL")) {
        for (const Counts& counts : {Counts{4, 3, 2, 1}, Counts{1, 2, 3, 2}}) {
            LibraryRegion region(counts);
            region.call(random, 500);
            dumps.push_back(region.dump());
        }
        return dumps;
    }
    for (const Counts& counts : {Counts{128, 16, 16, 1}, Counts{4, 3, 2, 1}, Counts{1, 16, 200, 2}}) {
        LibraryRegion region(counts);
        region.call(random, 2000);
        dumps.push_back(region.dump());
    }
    LibraryRegion full({128, 16, 16, 1});
    full.fill();
    dumps.push_back(full.dump());
    dumps.push_back(full.dump());
    return dumps;
}

TEST(DamagedDumps, AreShownByEveryCommand) {
    const uint64_t seed = test::seed();
    Random first(seed);
    const std::vector<Snapshot> healthy = healthy_dumps(first);
    const Picture before = decode(healthy.front());
    std::vector<Command> all = commands(before);
    const unsigned wanted = dumps_wanted();
    for (unsigned dump = 0; dump < wanted; ++dump) {
        SCOPED_TRACE(fmt::format("seed {}, dump {}", seed, dump));
        // Each dump follows from the seed and its number alone.
        Random random(seed + dump);
        const auto [snapshot, laid_out_anew] =
            damaged(healthy[below(random, static_cast<uint32_t>(healthy.size()))], random);
        for (Command& command : all) {
            const std::clock_t start = std::clock();
            const std::string output = command.output(snapshot);
            const double ms = 1000.0 * static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
            ASSERT_TRUE(std::none_of(output.begin(), output.end(), is_control)) << command.name;
            Slowest& slowest = laid_out_anew ? command.slowest_anew : command.slowest;
            if (ms > slowest.ms) slowest = {ms, dump};
        }
    }
    for (const Command& command : all) {
        fmt::print("{}: at most {:.1f} ms, for dump {} of {}; {:.1f} ms for {}, of another region\n", command.name,
                   command.slowest.ms, command.slowest.dump, wanted, command.slowest_anew.ms,
                   command.slowest_anew.dump);
    }
}

/// A dump as a copy of the bytes in use would have found it, and how many bytes that copy would have taken.
Snapshot in_use_of(const Snapshot& whole, uint64_t& copied) {
    shmnm_header header;
    std::memcpy(&header, whole.bytes.data(), sizeof header);
    Snapshot part = whole;
    part.bytes.assign(whole.bytes.size(), 0);
    copied = 0;
    const auto copy = [&](uint64_t offset, uint64_t size) {
        ASSERT_TRUE(whole.holds(offset, size)) << offset << " " << size;
        std::memcpy(part.bytes.data() + offset, whole.bytes.data() + offset, size);
        copied += size;
    };
    copy(0, sizeof header);
    InUse(header, whole.counts, whole.bytes.size()).each_piece(copy);
    return part;
}

TEST(DamagedDumps, ShowTheSamePictureWithoutTheBytesThatAreNotInUse) {
    const uint64_t seed = test::seed();
    Random first(seed);
    const std::vector<Snapshot> healthy = healthy_dumps(first);
    for (unsigned dump = 0; dump < dumps_wanted(); ++dump) {
        SCOPED_TRACE(fmt::format("seed {}, dump {}", seed, dump));
        Random random(seed + dump);
        const Snapshot whole = damaged(healthy[below(random, static_cast<uint32_t>(healthy.size()))], random).snapshot;
        uint64_t copied = 0;
        const Snapshot part = in_use_of(whole, copied);
        ASSERT_EQ(line(to_json(part, decode(part))), line(to_json(whole, decode(whole))));
        // Records that overlap are copied more than once, but damaged counts do not make a copy long.
        ASSERT_LE(copied, 2 * whole.bytes.size() + (uint64_t{1} << 20));
    }
}

TEST(DamagedDumps, AreReadFromFilesOfAnySize) {
    const Snapshot healthy = LibraryRegion({4, 3, 2, 1}).dump();
    const test::TemporaryFolder folder;
    for (const size_t size : {size_t{0}, size_t{1}, sizeof(shmnm_header) - 1, sizeof(shmnm_header),
                              sizeof(shmnm_header) + 1, size_t{5000}, healthy.bytes.size(), healthy.bytes.size() + 1}) {
        SCOPED_TRACE(size);
        std::vector<uint8_t> bytes = healthy.bytes;
        bytes.resize(size);
        folder.write("dump", std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
        const std::string file = (folder.path() / "dump").string();
        if (size < sizeof(shmnm_header)) {
            EXPECT_THROW(read_dump(file), Error);
            continue;
        }
        const Snapshot snapshot = read_dump(file);
        EXPECT_EQ(snapshot.bytes, bytes);
        EXPECT_EQ(snapshot.mapped, size);
        EXPECT_FALSE(snapshot.live);
        EXPECT_EQ(findings(snapshot).empty(), size == healthy.bytes.size());
    }
}

}  // namespace
}  // namespace shmnmctl
