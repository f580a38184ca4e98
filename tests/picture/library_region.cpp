#include "picture/library_region.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "shmnm.h"

namespace test {
namespace {

using picture::Counts;
using picture::Snapshot;

/// A region that was cleared and attached to anew lives until this process ends, so each has a namespace of its own.
std::string next_namespace() {
    static int regions = 0;
    const char* const own = std::getenv("KZMUTIL_NAMESPACE");
    return fmt::format("{}{}-", own ? own : "", ++regions);
}

const std::string& server_name(Random& random) {
    static const std::array<std::string, 9> names = {"alpha",
                                                     "beta",
                                                     "gamma",
                                                     "delta",
                                                     "a",
                                                     std::string(255, 'y'),
                                                     std::string(300, 'x'),
                                                     std::string(255, 'x'),
                                                     "odd \x1b[31m/%\xff\n"};
    static const auto more = [] {
        std::array<std::string, 256> all;
        for (size_t i = 0; i < all.size(); ++i) all[i] = fmt::format("server{}", i);
        return all;
    }();
    return below(random, 2) ? names[below(random, names.size())] : more[below(random, more.size())];
}

struct ResourceName {
    std::string type, name;
};
ResourceName resource_name(Random& random) {
    static const std::array<std::string, 5> types = {"lan", "disk", std::string(31, 't'), std::string(40, 't'), "\xff"};
    static const std::array<std::string, 4> names = {"lan1", "disk 1", std::string(31, 'n'), std::string(40, 'n')};
    const std::string& type = types[below(random, types.size())];
    if (below(random, 2)) return {type, names[below(random, names.size())]};
    return {type, fmt::format("resource{}", below(random, 300))};
}

std::string free_bytes(Random& random) {
    std::string bytes(1 + below(random, 300), '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

}  // namespace

uint64_t seed() {
    const char* const wanted = std::getenv("SHMNM_SEED");
    std::random_device device;
    const uint64_t seed = wanted ? std::strtoull(wanted, nullptr, 10) : uint64_t{device()} << 32 | device();
    std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
    return seed;
}

uint32_t below(Random& random, uint32_t limit) {
    return static_cast<uint32_t>(random() % limit);
}

LibraryRegion::LibraryRegion(const Counts& counts)
    : counts_(counts),
      path_("KZM_INSTALL_PATH", folder_.string().c_str()),
      namespace_("KZMUTIL_NAMESPACE", next_namespace().c_str()) {
    folder_.write("etc/cluster.xml",
                  fmt::format("<root><all><num><server>{}</server><hbr>{}</hbr><npr>{}</npr><fstr>{}</fstr></num></all>"
                              "<shmnm><log><level>0</level></log></shmnm></root>",
                              counts.servers, counts.hb, counts.np, counts.fst));
    EXPECT_EQ(shmnm_create(), SHMNM_OK);
}

LibraryRegion::~LibraryRegion() {
    shmnm_delete();
}

void LibraryRegion::fill() {
    for (int i = 0; i < counts_.servers; ++i) {
        EXPECT_EQ(shmnm_addnode(fmt::format("server{}", i).c_str(), i), SHMNM_OK);
    }
    for (int i = 0; i < counts_.hb; ++i) {
        EXPECT_EQ(shmnm_addhbrsc("lan", fmt::format("lanhb{}", i).c_str(), 0), SHMNM_OK);
    }
    for (int i = 0; i < counts_.np; ++i) {
        EXPECT_EQ(shmnm_addnprsc("ping", fmt::format("pingnp{}", i).c_str(), 0), SHMNM_OK);
    }
    for (int i = 0; i < counts_.servers * counts_.fst; ++i) {
        EXPECT_EQ(shmnm_setfstrscpid(fmt::format("agent{}", i).c_str(), 0, 1, 2), SHMNM_OK);
    }
}

void LibraryRegion::clear() {
    EXPECT_EQ(shmnm_clear(), SHMNM_OK);
    // The handle that the create got keeps the region.
    EXPECT_EQ(shmnm_detach(), SHMNM_OK);
    EXPECT_EQ(shmnm_attach(), SHMNM_OK);
}

Snapshot LibraryRegion::dump() const {
    int32_t size = 0;
    EXPECT_EQ(shmnm_dump(nullptr, &size), SHMNM_OK);
    Snapshot snapshot;
    snapshot.bytes.resize(static_cast<size_t>(size));
    EXPECT_EQ(shmnm_dump(snapshot.bytes.data(), &size), SHMNM_OK);
    snapshot.mapped = snapshot.bytes.size();
    snapshot.counts = snapshot.header_counts();
    return snapshot;
}

void LibraryRegion::call(Random& random, unsigned calls) {
    for (unsigned i = 0; i < calls; ++i) call_once(random, false);
}

void LibraryRegion::call_with_fitting_names(Random& random, unsigned calls) {
    for (unsigned i = 0; i < calls; ++i) call_once(random, true);
}

void LibraryRegion::call_once(Random& random, bool names_fit) {
    std::string server = server_name(random);
    ResourceName added = resource_name(random);
    // As they were stored.
    const std::string stored = server.substr(0, 255), stored_type = added.type.substr(0, 31),
                      stored_name = added.name.substr(0, 31);
    if (names_fit) {
        server = stored;
        added = {stored_type, stored_name};
    }
    const char *const type = stored_type.c_str(), *const name = stored_name.c_str();
    const auto svid = static_cast<int32_t>(below(random, 12)) - 1;
    const auto state = static_cast<uint32_t>(random());
    const std::string bytes = free_bytes(random);
    const auto size = static_cast<int32_t>(bytes.size());
    static constexpr std::array<uint32_t, 4> fails = {0, 1, 1, 0};
    const std::array<std::function<void()>, 24> calls = {
        [&] { shmnm_rmnode(stored.c_str()); },
        [&] { shmnm_modifynode(stored.c_str(), svid); },
        [&] { shmnm_setnodestat(stored.c_str(), state); },
        [&] { shmnm_setnodestat_nw(stored.c_str(), state); },
        [&] { shmnm_setdownnotifystat(stored.c_str(), state); },
        [&] { shmnm_setisolateflag(stored.c_str(), state); },
        [&] { shmnm_setpingstat(stored.c_str(), state); },
        [&] { shmnm_setholdstat(stored.c_str(), state); },
        [&] { shmnm_rmhbrsc(type, name); },
        [&] { shmnm_rmnprsc(type, name); },
        [&] { shmnm_modifyhbrsc(type, name, state); },
        [&] { shmnm_sethbrscstat(nullptr, name, state); },
        [&] { shmnm_setnprscstat(type, name, state); },
        [&] { shmnm_sethbrscsvstat(nullptr, name, svid, state); },
        [&] { shmnm_setnprscsvstat(type, name, svid, state); },
        [&] { shmnm_settypehbstat(type, state); },
        [&] { shmnm_settypenpstat(type, state); },
        [&] { shmnm_sethbdescript(type, name, bytes.data(), size); },
        [&] { shmnm_setnpdescript(type, name, bytes.data(), size); },
        [&] { shmnm_setrscsvstat_nw(nullptr, name, svid, state); },
        [&] { shmnm_setnpsimu(state % 2, fails.data(), static_cast<int32_t>(fails.size())); },
        [&] { shmnm_setfstdescript(bytes.data(), size); },
        [&] { shmnm_setfstrscstat(state); },
        [&] {
            shmnm_sethbinfo_ex(2 + svid, 5);
            shmnm_setwaitstat(state);
            shmnm_setbwflag(state);
            shmnm_setbwflagdisk(state);
            shmnm_setclstat(state);
        },
    };
    // Tables are to become full, so a third of the calls adds something.
    const std::array<std::function<void()>, 4> adding_calls = {
        [&] { shmnm_addnode(server.c_str(), svid); },
        [&] { shmnm_addhbrsc(added.type.c_str(), added.name.c_str(), state); },
        [&] { shmnm_addnprsc(added.type.c_str(), added.name.c_str(), state); },
        [&] { shmnm_setfstrscpid(server.c_str(), svid % 4, state, random()); },
    };
    if (below(random, 3) == 0) {
        adding_calls[below(random, adding_calls.size())]();
    } else {
        calls[below(random, calls.size())]();
    }
}

}  // namespace test
