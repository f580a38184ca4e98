// A picture that is applied: the region equals it in every word, or keeps every byte.
#include "picture/apply.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstddef>
#include <string>

#include "picture/error.h"
#include "picture/keys.h"
#include "picture/library_region.h"
#include "picture/plan.h"
#include "shmnm.h"

namespace picture {
namespace {

using test::below;
using test::LibraryRegion;
using test::Random;

Counts some_counts(Random& random) {
    // With so many servers the library reaches the descriptions of resources other than the first.
    static constexpr int32_t far[] = {73, 146};
    const auto servers = below(random, 10) == 0 ? far[below(random, 2)] : static_cast<int32_t>(2 + below(random, 9));
    return {servers, static_cast<int32_t>(below(random, 7)), static_cast<int32_t>(below(random, 6)),
            static_cast<int32_t>(below(random, 3))};
}

/// Calls that programs seldom make: odd names and priorities, columns opened and closed by themselves.
void call_oddly(Random& random) {
    static constexpr int32_t extremes[] = {INT_MIN, -7, 0, 100'000, INT_MAX};
    const int32_t pri = extremes[below(random, 5)], column = static_cast<int32_t>(below(random, 4));
    const auto number = static_cast<uint32_t>(random());
    switch (below(random, 9)) {
        case 0:
            shmnm_addnode("", pri);
            break;
        case 1:
            shmnm_addhbrsc("", below(random, 2) ? "" : "nameless", number);
            break;
        case 2:
            shmnm_addnprsc("typed", "", number);
            break;
        case 3:
            shmnm_addhbrscsvstat(column);
            shmnm_addnprscsvstat(column);
            break;
        case 4:
            shmnm_rmhbrscsvstat(column);
            shmnm_rmnprscsvstat(column);
            break;
        case 5:
            shmnm_modifynode("alpha", pri);
            break;
        case 6:
            shmnm_setfstrscpid("", 3, 1, 1);
            break;
        case 7:
            shmnm_setnpsimu(1, nullptr, 0);
            break;
        default:
            shmnm_sethbinfo_ex(INT_MAX, 1);
    }
}

void call_at_random(LibraryRegion& region, Random& random) {
    for (uint32_t i = below(random, 12); i > 0; --i) {
        region.call_with_fitting_names(random, below(random, 30));
        call_oddly(random);
    }
}

/// Calls that lead to what no other calls lead to.
void call_wildly(LibraryRegion& region, Random& random) {
    const std::string type(31, 't'), data(256, 'd');
    for (uint32_t i = below(random, 8); i > 0; --i) {
        region.call(random, below(random, 40));
        call_oddly(random);
        switch (below(random, 10)) {
            case 0:
                shmnm_addhbrscsvstat(-static_cast<int32_t>(below(random, 160)));
                break;
            case 1:
                shmnm_rmnprscsvstat(-static_cast<int32_t>(below(random, 160)));
                break;
            case 2:
                shmnm_setmaxvalue_ex(1 + static_cast<int32_t>(below(random, 4)), 3, 3);
                break;
            case 3:
                // A text that states make, where the library looks for the second record.
                shmnm_sethbdescript("", "\x02", data.data(), 256);
                break;
            case 4:
                shmnm_setfstrscpid(std::string(256 + below(random, 9), 'z').c_str(), 1, 1, 1);
                break;
            case 5:
                if (below(random, 3) == 0) shmnm_clear();
                break;
            default:
                break;
        }
    }
}

/// Applies to the region that this process has mapped, and keeps it mapped.
std::vector<Difference> apply_here(const Document& target) {
    EXPECT_EQ(shmnm_attach(), SHMNM_OK);
    return apply({}, target, false);
}

/// Without the states that no call reads: of servers and resources beyond their counts.
std::vector<uint8_t> read_bytes(const Snapshot& snapshot) {
    const Picture picture = decode(snapshot);
    std::vector<uint8_t> bytes = snapshot.bytes;
    const uint64_t row = sizeof(uint32_t) * static_cast<uint64_t>(snapshot.counts.servers);
    const uint64_t used = sizeof(uint32_t) * picture.servers.size();
    const auto clear = [&](uint64_t begin, uint64_t end) {
        std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(begin), bytes.begin() + static_cast<std::ptrdiff_t>(end),
                  0);
    };
    for (const Resource& resource : picture.hb) {
        clear(resource.svstat.offset + used, resource.svstat.offset + row);
        clear(resource.network.offset + used, resource.network.offset + row);
    }
    for (const Resource& resource : picture.np) clear(resource.svstat.offset + used, resource.svstat.offset + row);
    clear(picture.layout.network + row * picture.hb.size(), bytes.size());
    return bytes;
}

void expect_equal(const Snapshot& is, const Snapshot& wanted) {
    EXPECT_THAT(differences(document_of(is), document_of(wanted)), testing::IsEmpty());
    EXPECT_EQ(words(decode(is)), words(decode(wanted)));
    EXPECT_EQ(read_bytes(is), read_bytes(wanted));
}

/// Whether a resource has a description that no call reaches: the library looks for them as if records had no states
/// after them. A removal leads to it, which moves descriptions to other places.
bool has_a_description_out_of_reach(const Snapshot& snapshot) {
    const Picture picture = decode(snapshot);
    const auto states = sizeof(uint32_t) * static_cast<size_t>(snapshot.counts.servers);
    const auto is_out_of_reach = [&](const std::vector<Resource>& resources, size_t position) {
        const size_t place = position * (sizeof(shmnm_resource) + states);
        return place % sizeof(shmnm_resource) != 0 || place / sizeof(shmnm_resource) >= resources.size();
    };
    for (const std::vector<Resource>* resources : {&picture.hb, &picture.np}) {
        for (size_t i = 0; i < resources->size(); ++i) {
            const std::string& text = (*resources)[i].descript;
            if (text.find_first_not_of('\0') != std::string::npos && is_out_of_reach(*resources, i)) return true;
        }
    }
    return false;
}

TEST(Apply, MakesAnEmptyRegionEqualToAnyExportedRegionInEveryWord) {
    Random random(test::seed());
    for (unsigned round = 0; round < test::share_of(400); ++round) {
        SCOPED_TRACE(round);
        const Counts counts = some_counts(random);
        Snapshot exported;
        {
            LibraryRegion region(counts);
            call_at_random(region, random);
            exported = region.dump();
        }
        const Document document = document_from(to_json(document_of(exported)).dump());
        LibraryRegion region(counts);
        if (has_a_description_out_of_reach(exported)) {
            const std::vector<uint8_t> empty = region.dump().bytes;
            EXPECT_THAT([&] { apply_here(document); },
                        testing::ThrowsMessage<Error>(testing::HasSubstr("reaches only the description of the first")));
            EXPECT_EQ(region.dump().bytes, empty);
            continue;
        }
        apply_here(document);
        expect_equal(region.dump(), exported);
        if (HasFailure()) return;
    }
}

TEST(Apply, MakesAnyRegionEqualOrChangesNoByte) {
    Random random(test::seed());
    unsigned made = 0, refused = 0;
    for (unsigned round = 0; round < test::share_of(600); ++round) {
        SCOPED_TRACE(round);
        Counts counts = some_counts(random);
        if (below(random, 5) == 0) counts.servers = 1;
        Snapshot wanted;
        {
            LibraryRegion region(counts);
            below(random, 2) ? call_wildly(region, random) : call_at_random(region, random);
            wanted = region.dump();
        }
        wanted.counts = counts;
        LibraryRegion region(counts);
        below(random, 3) == 0 ? call_wildly(region, random) : call_at_random(region, random);
        const Snapshot before = region.dump();
        try {
            apply_here(document_of(wanted));
            ++made;
            EXPECT_THAT(differences(document_of(region.dump()), document_of(wanted)), testing::IsEmpty());
            EXPECT_EQ(words(decode(region.dump())), words(decode(wanted)));
        } catch (const Error& error) {
            ++refused;
            EXPECT_TRUE(error.kind == ErrorKind::inexpressible || error.kind == ErrorKind::damaged ||
                        error.kind == ErrorKind::configuration_differs)
                << error.what();
            EXPECT_EQ(region.dump().bytes, before.bytes) << error.what();
        }
        if (HasFailure()) return;
    }
    EXPECT_GT(made, 0u);
    EXPECT_GT(refused, 0u);
}

TEST(Apply, OfWhatIsThereAlreadyMakesNoCall) {
    Random random(test::seed());
    for (unsigned round = 0; round < test::share_of(100); ++round) {
        LibraryRegion region(some_counts(random));
        call_at_random(region, random);
        const Document document = document_of(region.dump());
        EXPECT_EQ(plan(document, document).size(), 0u);
    }
}

TEST(Apply, TakesARegionWithChangedMaximaOnlyByForce) {
    const Counts counts{3, 2, 2, 2};
    LibraryRegion region(counts);
    shmnm_addnode("alpha", 1);
    Document wanted = document_of(region.dump());
    wanted.picture.header.clstat = 7;
    shmnm_setmaxvalue_ex(3, 9, 8);
    // Attaching writes the configured maxima, unless this process has attached before.
    while (shmnm_detach() == SHMNM_OK) continue;
    for (const auto& applied : {differences_to_apply, apply}) {
        try {
            applied({}, wanted, false);
            ADD_FAILURE() << "applied";
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, ErrorKind::configuration_differs);
        }
    }
    std::vector<std::string> lines;
    for (const Difference& one : differences_to_apply({}, wanted, true)) lines.push_back(to_text(one));
    EXPECT_THAT(lines, testing::ElementsAre("cluster/clstat 0 -> 7", "cluster/max_hb 9 -> 2", "cluster/max_np 8 -> 2"));
    EXPECT_EQ(LiveRegion({}).copy(Bytes::all).header_counts(), (Counts{3, 9, 8, 2})) << "nothing is changed yet";
    EXPECT_EQ(apply({}, wanted, true).size(), 3u);
    EXPECT_EQ(shmnm_attach(), SHMNM_OK);
    EXPECT_THAT(differences(document_of(region.dump()), wanted), testing::IsEmpty());
}

TEST(Apply, TakesAwayAServerWithoutAName) {
    LibraryRegion region({3, 2, 2, 1});
    const Snapshot wanted = region.dump();
    ASSERT_EQ(shmnm_addnode("", 7), SHMNM_OK);
    apply_here(document_of(wanted));
    expect_equal(region.dump(), wanted);
}

TEST(Apply, RefusesADamagedRegionAndChangesNothing) {
    LibraryRegion region({3, 2, 2, 1});
    const Document wanted = document_of(region.dump());
    WritableRegion().base()[offsetof(shmnm_header, reserved_64)] = 0x5A;
    const std::vector<uint8_t> damaged = region.dump().bytes;
    for (const auto& applied : {differences_to_apply, apply}) {
        // apply() detaches again.
        ASSERT_EQ(shmnm_attach(), SHMNM_OK);
        try {
            applied({}, wanted, false);
            ADD_FAILURE() << "applied";
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, ErrorKind::damaged);
            EXPECT_STREQ(error.what(),
                         "nothing was changed: the region has 0x5A instead of zeros, as in every reserved field at "
                         "header/reserved_64");
        }
        EXPECT_EQ(region.dump().bytes, damaged);
    }
}

TEST(Apply, TellsBeforehandWhatNoCallsMake) {
    LibraryRegion region({3, 2, 2, 1});
    shmnm_addnode("alpha", 1);
    Document wanted = document_of(region.dump());
    wanted.picture.header.hbinfo_a = -1;
    EXPECT_THROW(differences_to_apply({}, wanted, false), Error);
}

TEST(Apply, PutsEveryByteBackWhicheverCallFails) {
    Random random(test::seed());
    const Counts counts{5, 4, 3, 2};
    Snapshot wanted;
    {
        LibraryRegion region(counts);
        region.fill();
        call_at_random(region, random);
        wanted = region.dump();
    }
    LibraryRegion region(counts);
    shmnm_addnode("omega", 3);
    shmnm_addhbrsc("lan", "old", 1);
    shmnm_sethbrscsvstat("lan", "old", 3, 77);
    const Snapshot before = region.dump();
    // The rest of the last page is nobody's.
    const WritableRegion map;
    uint8_t* const rest = map.base() + before.bytes.size();
    std::fill_n(rest, sizeof(uint32_t), uint8_t{0x5A});
    const std::vector<Step> all = plan(document_of(before), document_of(wanted));
    EXPECT_GT(all.size(), 20u);
    for (size_t made = 0; made <= all.size(); ++made) {
        SCOPED_TRACE(made);
        std::vector<Step> steps(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(made));
        steps.push_back({"shmnm_addnode", [] { return shmnm_addnode(nullptr, 0); }});
        EXPECT_THROW(make_all_or_none(steps, before), Error);
        EXPECT_EQ(region.dump().bytes, before.bytes);
        EXPECT_THAT(std::vector(rest, rest + sizeof(uint32_t)), testing::Each(0x5A));
    }
    make_all_or_none(all, before);
    expect_equal(region.dump(), wanted);
}

TEST(Apply, CanBeTriedWithoutAConfiguration) {
    LibraryRegion region({3, 2, 2, 1});
    const Document is = document_of(region.dump());
    Document wanted = is;
    wanted.picture.header.clstat = 7;
    const test::TemporaryFolder empty;
    const test::ScopedEnvironment elsewhere("KZM_INSTALL_PATH", empty.string().c_str());
    const std::vector<Difference> different = differences_to_apply({}, wanted, false);
    ASSERT_EQ(different.size(), 1u);
    EXPECT_EQ(to_text(different[0]), "cluster/clstat 0 -> 7");
}

/// Sets a word again and again without the lock.
CHILD(set_without_the_lock) {
    test::report(shmnm_attach());
    for (uint32_t state = 1;; ++state) shmnm_setclstat(state);
}

TEST(Apply, TellsIfAnotherProcessChangesTheRegionWithoutTheLockMeanwhile) {
    LibraryRegion region({3, 2, 2, 1});
    const Document wanted = document_of(region.dump());
    test::Child other = test::start(set_without_the_lock);
    ASSERT_EQ(other.reported(), SHMNM_OK);
    std::string told;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    // Unless the other process does not run in between.
    for (int applied = 0; told.empty(); ++applied) {
        if (std::chrono::steady_clock::now() > deadline) FAIL() << "applied " << applied << " times without a message";
        try {
            apply_here(wanted);
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, ErrorKind::failed);
            told = error.what();
        }
    }
    EXPECT_THAT(told, testing::StartsWith("the picture was applied, but another process changed the region without the "
                                          "lock meanwhile: cluster/clstat "));
}

TEST(Differences, InJsonOmitTheSideThatLacksTheKey) {
    LibraryRegion region({3, 2, 2, 1});
    const Document without = document_of(region.dump());
    ASSERT_EQ(shmnm_setfstrscpid("agent", 0, 1, 2), SHMNM_OK);
    const Document with = document_of(region.dump());
    const Json added = to_json(differences(without, with)), removed = to_json(differences(with, without));
    const auto first = [](const Json& all) {
        for (const Json& one : all) {
            if (one["key"] == "fst/pids/agent/0") return one.dump();
        }
        return std::string();
    };
    EXPECT_EQ(first(added), R"({"key":"fst/pids/agent/0","new":1})");
    EXPECT_EQ(first(removed), R"({"key":"fst/pids/agent/0","old":1})");
}

TEST(Apply, ChangesNothingIfAnotherProcessFillsATableWithoutTheLock) {
    const Counts counts{3, 2, 2, 1};
    const auto with_two_servers = [] {
        shmnm_addnode("alpha", 0);
        shmnm_addnode("beta", 1);
    };
    Snapshot wanted;
    {
        LibraryRegion region(counts);
        with_two_servers();
        wanted = region.dump();
    }
    LibraryRegion region(counts);
    const Snapshot before = region.dump();
    std::vector<Step> steps = plan(document_of(before), document_of(wanted));
    steps.insert(steps.begin() + 1, {"another process's calls", [] {
                                         shmnm_addnode("intruder", 8);
                                         return shmnm_addnode("intruder2", 9);
                                     }});
    try {
        make_all_or_none(steps, before);
        ADD_FAILURE() << "made";
    } catch (const Error& error) {
        EXPECT_STREQ(error.what(),
                     "nothing was changed: shmnm_addnode failed with code 9 (the server table or the fst process-id "
                     "table is full), so another process "
                     "changes the region without the lock");
    }
    EXPECT_EQ(region.dump().bytes, before.bytes);
}

}  // namespace
}  // namespace picture
