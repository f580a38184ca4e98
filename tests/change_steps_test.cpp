// How a change is completed from the note that its killed caller has left, and which notes are refused.
#include "change_steps.h"

#include <gtest/gtest.h>

#include <string>

#include "noted_changes.h"

namespace {

using namespace noted_changes;
using shmnm::Note;
using shmnm::NotedCall;
using shmnm::Region;

class CompletedChange : public testing::TestWithParam<NotedChange> {
  protected:
    /// The region after the note was completed in it.
    static Words completed(Words words, Note note) {
        const Region region = region_in(words.data());
        EXPECT_TRUE(can_complete(region, note));
        complete(region, note);
        return words;
    }
    static Words after_the_call() {
        Words words = filled_region();
        GetParam().whole(words);
        return words;
    }
};

TEST_P(CompletedChange, IsWhatTheCallWouldHaveMade) {
    EXPECT_EQ(completed(filled_region(), GetParam().note), after_the_call());
}

TEST_P(CompletedChange, NeedsARegularRegionExceptForMaximaClearingAndDescriptions) {
    const NotedCall call = GetParam().note.call;
    Words words = filled_region();
    words[server_count] = 5;
    const bool in_any = call == NotedCall::setmaxvalue || call == NotedCall::clear ||
                        call == NotedCall::sethbdescript || call == NotedCall::setnpdescript ||
                        call == NotedCall::setfstdescript;
    EXPECT_EQ(can_complete(region_in(words.data()), GetParam().note), in_any);
}

INSTANTIATE_TEST_SUITE_P(, CompletedChange, testing::ValuesIn(all()),
                         [](const auto& instance) { return std::string(instance.param.name); });

class ChangeSteps : public testing::Test {
  protected:
    bool is_regular() { return shmnm::is_regular(region_in(words_.data())); }
    bool is_regular_with(size_t word, int32_t value) {
        words_ = filled_region();
        words_[word] = static_cast<uint32_t>(value);
        return is_regular();
    }
    bool can_complete(const Note& note) { return shmnm::can_complete(region_in(words_.data()), note); }

    Words words_ = filled_region();
};

TEST_F(ChangeSteps, RegionIsRegularWhoseMaximaAreThoseThatItWasMappedBy) {
    EXPECT_TRUE(is_regular());
    for (const size_t maximum : {max_servers, max_hb, max_np, fst_count, fst_pid_limit}) {
        const auto mapped_by = static_cast<int32_t>(filled_region()[maximum]);
        EXPECT_TRUE(is_regular_with(maximum, mapped_by)) << maximum;
        EXPECT_FALSE(is_regular_with(maximum, mapped_by + 1)) << maximum;
        EXPECT_FALSE(is_regular_with(maximum, mapped_by - 1)) << maximum;
    }
}

TEST_F(ChangeSteps, RegionIsRegularWhoseCountsAreWithinTheirMaxima) {
    for (const size_t count : {server_count, hb_count, np_count, fst_pid_count}) {
        EXPECT_TRUE(is_regular_with(count, 0)) << count;
        EXPECT_TRUE(is_regular_with(count, 4)) << count;
        EXPECT_FALSE(is_regular_with(count, 5)) << count;
        EXPECT_FALSE(is_regular_with(count, -1)) << count;
    }
}

TEST_F(ChangeSteps, RegionIsRegularWithTwoServersAndWithoutResources) {
    const auto regular_by = [](const shmnm::Counts& by) {
        Words words(view_words);
        words[max_servers] = static_cast<uint32_t>(by.servers);
        words[max_hb] = static_cast<uint32_t>(by.hb);
        words[max_np] = static_cast<uint32_t>(by.np);
        words[fst_count] = static_cast<uint32_t>(by.fst);
        words[fst_pid_limit] = static_cast<uint32_t>(by.servers * by.fst);
        return shmnm::is_regular(region_in(words.data(), words.size(), by));
    };
    EXPECT_TRUE(regular_by({2, 0, 0, 0}));
    EXPECT_FALSE(regular_by({1, 0, 0, 0}));
    EXPECT_TRUE(regular_by({2, 1, 1, 1}));
    EXPECT_FALSE(regular_by({2, -1, 1, 1}));
    EXPECT_FALSE(regular_by({2, 1, -1, 1}));
    EXPECT_FALSE(regular_by({2, 1, 1, -1}));
}

TEST_F(ChangeSteps, RegionIsRegularThatTheViewHoldsUpToTheLastState) {
    EXPECT_TRUE(shmnm::is_regular(region_in(words_.data(), region_words)));
    EXPECT_FALSE(shmnm::is_regular(region_in(words_.data(), region_words - 1)));
}

TEST_F(ChangeSteps, RegionWhoseSizeWrapsIsNotRegular) {
    // 2^31 - 1 servers and as many hb resources: their states alone are more than 64 bits count.
    const shmnm::Counts counts_of_most{INT32_MAX, INT32_MAX, 0, 0};
    words_[max_servers] = words_[max_hb] = INT32_MAX;
    words_[max_np] = words_[fst_count] = words_[fst_pid_limit] = 0;
    words_[server_count] = words_[hb_count] = words_[np_count] = words_[fst_pid_count] = 0;
    EXPECT_FALSE(shmnm::is_regular(region_in(words_.data(), view_words, counts_of_most)));
}

TEST_F(ChangeSteps, NotesOfPlacesOutsideTheirTableAreRefused) {
    const struct {
        NotedCall call;
        int32_t places;
    } all_calls[] = {{NotedCall::addnode, 4},        {NotedCall::rmnode, 3},         {NotedCall::addhbrsc, 4},
                     {NotedCall::addnprsc, 4},       {NotedCall::rmhbrsc, 3},        {NotedCall::rmnprsc, 3},
                     {NotedCall::addhbrscsvstat, 3}, {NotedCall::addnprscsvstat, 3}, {NotedCall::rmhbrscsvstat, 3},
                     {NotedCall::rmnprscsvstat, 3},  {NotedCall::addfstpid, 4},      {NotedCall::setfstpid, 4}};
    for (const auto& [call, places] : all_calls) {
        SCOPED_TRACE(static_cast<uint32_t>(call));
        EXPECT_TRUE(can_complete(note_of(call, 0)));
        EXPECT_TRUE(can_complete(note_of(call, places - 1)));
        EXPECT_FALSE(can_complete(note_of(call, places)));
        EXPECT_FALSE(can_complete(note_of(call, -1)));
    }
}

TEST_F(ChangeSteps, NotesOfMoreRecordsThanTheirTableHasAreRefused) {
    Note servers = note_of(NotedCall::rmnode), hb = note_of(NotedCall::rmhbrsc), np = note_of(NotedCall::rmnprsc);
    servers.server_count = hb.hb_count = np.np_count = 4;
    for (const Note& note : {servers, hb, np}) EXPECT_TRUE(can_complete(note));
    servers.server_count = hb.hb_count = np.np_count = 5;
    for (const Note& note : {servers, hb, np}) EXPECT_FALSE(can_complete(note));
    servers.server_count = hb.hb_count = np.np_count = -1;
    for (const Note& note : {servers, hb, np}) EXPECT_FALSE(can_complete(note));
}

TEST_F(ChangeSteps, NotesOfDescriptionsOutsideTheViewOrWithoutASizeAreRefused) {
    Note note = note_of(NotedCall::sethbdescript);
    const auto with = [&](int32_t position, uint32_t size) {
        note.position = position;
        note.size = size;
        return can_complete(note);
    };
    EXPECT_TRUE(with(0, 1));
    EXPECT_TRUE(with(0, 256));
    EXPECT_FALSE(with(0, 257));
    EXPECT_FALSE(with(0, 0));
    EXPECT_FALSE(with(-1, 1));
    // The last record of 146 words that ends with the view or before it.
    EXPECT_TRUE(with((6144 - 591) / 146 - 1, 1));
    EXPECT_FALSE(with((6144 - 591) / 146, 1));
    note = note_of(NotedCall::setfstdescript);
    note.size = 1;
    EXPECT_TRUE(shmnm::can_complete(region_in(words_.data(), fst + 146), note));
    EXPECT_FALSE(shmnm::can_complete(region_in(words_.data(), fst + 145), note));
}

TEST_F(ChangeSteps, NotesOfChangesThatNoNoteDescribesWhollyAreRefusedAndChangeNothing) {
    for (const NotedCall call : {NotedCall::none, NotedCall::settypehbstat, NotedCall::settypenpstat,
                                 NotedCall::setnpsimu, static_cast<NotedCall>(4711)}) {
        Note note = note_of(call);
        EXPECT_FALSE(can_complete(note));
        complete(region_in(words_.data()), note);
        EXPECT_EQ(words_, filled_region());
    }
}

TEST_F(ChangeSteps, ClearingStopsAtTheEndOfAViewThatIsSmallerThanTheRegion) {
    Words expected = words_;
    zero(expected, 0, 1024);
    Note note = note_of(NotedCall::clear);
    complete(region_in(words_.data(), 1024), note);
    EXPECT_EQ(words_, expected);
}

TEST_F(ChangeSteps, ProcessIdOfNoKindIsNotStored) {
    for (const int32_t kind : {-1, 3}) {
        Note note = note_of(NotedCall::setfstpid, 1);
        note.words[0] = kind;
        note.words[1] = 4711;
        complete(region_in(words_.data()), note);
        EXPECT_EQ(words_, filled_region());
    }
}

}  // namespace
