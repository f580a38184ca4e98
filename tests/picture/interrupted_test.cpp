// How an interrupted change is told, by the note that its caller left.
#include "picture/interrupted.h"

#include <gtest/gtest.h>

#include <cstring>

#include "picture/json.h"

namespace picture {
namespace {

using shmnm::Note;
using shmnm::NotedCall;

/// The interrupted change of a note that a killed call left open.
Interrupted left_by(NotedCall call) {
    Note note{};
    note.state = Note::open;
    note.call = call;
    note.process = 4711;
    note.position = 3;
    std::memcpy(note.type, "lan", sizeof "lan");
    std::memcpy(note.name, "lan1", sizeof "lan1");
    const std::vector<Interrupted> all = interrupted_changes(note, 0);
    EXPECT_EQ(all.size(), 1u);
    return all.empty() ? Interrupted{} : all[0];
}

TEST(Interrupted, NamesEachFunctionThatNotesAChangeAndWhatItDid) {
    const struct {
        NotedCall call;
        const char *function, *change;
    } expected[] = {
        {NotedCall::addnode, "shmnm_addnode", "added server lan1"},
        {NotedCall::rmnode, "shmnm_rmnode", "removed server lan1"},
        {NotedCall::addhbrsc, "shmnm_addhbrsc", "added hb resource lan/lan1"},
        {NotedCall::addnprsc, "shmnm_addnprsc", "added np resource lan/lan1"},
        {NotedCall::rmhbrsc, "shmnm_rmhbrsc", "removed hb resource lan/lan1"},
        {NotedCall::rmnprsc, "shmnm_rmnprsc", "removed np resource lan/lan1"},
        {NotedCall::addhbrscsvstat, "shmnm_addhbrscsvstat", "opened column 3 of the hb resources"},
        {NotedCall::addnprscsvstat, "shmnm_addnprscsvstat", "opened column 3 of the np resources"},
        {NotedCall::rmhbrscsvstat, "shmnm_rmhbrscsvstat", "closed column 3 of the hb resources"},
        {NotedCall::rmnprscsvstat, "shmnm_rmnprscsvstat", "closed column 3 of the np resources"},
        {NotedCall::addfstpid, "shmnm_setfstrscpid", "added the process ids of lan1"},
        {NotedCall::setmaxvalue, "shmnm_setmaxvalue_ex", "set the maxima"},
        {NotedCall::clear, "shmnm_clear", "cleared the region"},
        {NotedCall::setfstpid, "shmnm_setfstrscpid", "set a process id of lan1"},
        {NotedCall::sethbdescript, "shmnm_sethbdescript", "set the description of hb resource lan/lan1"},
        {NotedCall::setnpdescript, "shmnm_setnpdescript", "set the description of np resource lan/lan1"},
        {NotedCall::setfstdescript, "shmnm_setfstdescript", "set the description of the fst resource"},
        {NotedCall::settypehbstat, "shmnm_settypehbstat", "set the states of all hb resources of type lan"},
        {NotedCall::settypenpstat, "shmnm_settypenpstat", "set the states of all np resources of type lan"},
        {NotedCall::setnpsimu, "shmnm_setnpsimu", "set the simulation of a network partition"},
    };
    for (const auto& [call, function, change] : expected) {
        EXPECT_EQ(left_by(call).call, function);
        EXPECT_EQ(left_by(call).change, change);
    }
    EXPECT_EQ(std::size(expected), static_cast<size_t>(NotedCall::setnpsimu)) << "a noted call is missing here";
}

TEST(Interrupted, ConcernsOnlyTheRegionOfItsNote) {
    Note note{};
    note.state = note.superseded.state = Note::open;
    note.call = note.superseded.call = NotedCall::clear;
    note.object = 1;
    note.superseded.object = 2;
    ASSERT_EQ(interrupted_changes(note, 1).size(), 1u);
    EXPECT_FALSE(interrupted_changes(note, 1)[0].superseded);
    ASSERT_EQ(interrupted_changes(note, 2).size(), 1u);
    EXPECT_TRUE(interrupted_changes(note, 2)[0].superseded);
    EXPECT_TRUE(interrupted_changes(note, 3).empty());
    EXPECT_EQ(to_json(interrupted_changes(note, 1)).dump(),
              R"([{"process":0,"call":"shmnm_clear","change":"cleared the region","superseded":false}])");
}

TEST(Interrupted, SaysThatACallOfAnotherVersionIsUnknown) {
    const Interrupted left = left_by(static_cast<NotedCall>(4711));
    EXPECT_EQ(left.call, "unknown");
    EXPECT_EQ(sentence(left), "process 4711 was killed while it made a change that this version does not know");
}

}  // namespace
}  // namespace picture
