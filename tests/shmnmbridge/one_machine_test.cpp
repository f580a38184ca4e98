// One machine's core, message by message, beside the model of etcd.
#include <gtest/gtest.h>

#include <algorithm>

#include "core.h"
#include "shmnmbridge/model_etcd.h"
#include "shmnmbridge/model_region.h"

namespace bridge::test {
namespace {

constexpr const char *clstat = "/shmnm/cluster/1/agreed/clstat", *bwflag = "/shmnm/cluster/1/agreed/bwflag",
                     *stat = "/shmnm/cluster/1/agreed/hb/lan/lan1", *claim_of_s0 = "/shmnm/cluster/1/claim/s0",
                     *state_of_s0 = "/shmnm/cluster/1/state/s0", *beat_of_s0 = "/shmnm/cluster/1/beat/s0";

Settings settings_of_s0() {
    Settings settings;
    settings.server = "s0";
    settings.host = "host";
    settings.process = "p";
    return settings;
}

/// Looks each 50 ms. Everything is answered at once, by the model or as a test says.
class BridgeOfOneMachine : public testing::Test {
  protected:
    BridgeOfOneMachine() : core_(settings_of_s0()) {}

    void look() {
        now_ += look_interval;
        carry_out(core_.look(now_, &region_.look()));
    }
    void look_for(Time duration) {
        for (const Time end = now_ + duration; now_ < end;) look();
    }
    bool is_connected() const { return core_.marks(now_).is_connected; }
    ProposalCounts counts() const { return core_.marks(now_).agreed; }
    AgreedValue& word(size_t number) { return region_.words().header[number]; }

    /// What another machine, or a person with etcd's own tool, writes.
    void put(const std::string& key, const std::string& value) {
        Transaction transaction;
        transaction.puts = {{key, value}};
        change(transaction);
    }
    void remove(const std::string& key) {
        Transaction transaction;
        transaction.deletions = {key};
        change(transaction);
    }

    /// By an empty one. The watch ends with the old one.
    void replace_etcd() {
        etcd_.replace(false);
        delivered_ = 0;
        carry_out(core_.watch_ended(now_, {watch_.value().id}));
    }

    ModelEtcd etcd_;
    ModelRegion region_{1, {8, 4, 4, 1}, 2, 0};
    Core core_;
    Time now_ = 1'000;
    size_t reads_ = 0;
    bool is_watch_quiet_ = false;
    std::vector<std::string> notices_;
    std::optional<Outcome> reads_end_, transactions_end_;

  private:
    void change(const Transaction& transaction) {
        etcd_.answer({0, transaction}, now_);
        carry_out(deliver());
    }

    Answer answer(const Request& request) {
        const bool is_read = std::holds_alternative<Range>(request.body);
        reads_ += is_read;
        const std::optional<Outcome>& end = is_read ? reads_end_ : transactions_end_;
        if (end && (is_read || std::holds_alternative<Transaction>(request.body))) {
            return {.request = request.id, .outcome = *end};
        }
        Answer answer = etcd_.answer(request, now_);
        answer.request = request.id;
        return answer;
    }

    /// Brings what the watch has not brought yet.
    Output deliver() {
        if (!watch_ || is_watch_quiet_) return {};
        Events events{.watch = watch_->id, .cluster = etcd_.cluster(), .events = {}};
        for (; delivered_ < etcd_.history().size(); ++delivered_) {
            const KeyValue& change = etcd_.history()[delivered_];
            if (change.revision >= watch_->from) events.events.push_back(change);
        }
        return events.events.empty() ? Output{} : core_.events(now_, events);
    }

    void carry_out(const Output& output) {
        notices_.insert(notices_.end(), output.notices.begin(), output.notices.end());
        for (const Send& send : output.sends) {
            if (const auto* const watch = std::get_if<Watch>(&send)) watch_ = *watch;
            if (std::holds_alternative<Unwatch>(send)) watch_.reset();
            const auto* const request = std::get_if<Request>(&send);
            // A hundred answers in one look would be a loop without end.
            if (!request || ++answers_in_a_look_ > 100) continue;
            carry_out(core_.answer(now_, answer(*request)));
        }
        if (output.batch) make(*output.batch);
        carry_out_of(deliver());
        answers_in_a_look_ = 0;
    }
    void carry_out_of(const Output& output) {
        if (!output.sends.empty() || output.batch || !output.notices.empty()) carry_out(output);
    }

    void make(const Batch& batch) {
        BatchDone done{.batch = batch.id, .made = true, .skipped = {}};
        for (size_t at = 0; at < batch.calls.size(); ++at) {
            const Call& call = batch.calls[at];
            const bool is_made = (!call.expected || region_.value_at(call) == call.expected) && region_.make(call);
            if (!is_made) done.skipped.push_back(at);
        }
        carry_out(core_.batch_done(now_, done));
    }

    std::optional<Watch> watch_;
    size_t delivered_ = 0, answers_in_a_look_ = 0;
};

TEST_F(BridgeOfOneMachine, Connects) {
    look_for(1'000);
    EXPECT_TRUE(is_connected());
    EXPECT_NE(etcd_.find("/shmnm/cluster/1/claim/s0"), nullptr);
}

// A member without a leader refuses at once, and a read that no member can answer must not be repeated as fast as the
// network allows.
TEST_F(BridgeOfOneMachine, WaitsBeforeItRepeatsAReadThatFailedAtOnce) {
    for (const Outcome outcome : {Outcome::failed, Outcome::timed_out}) {
        SCOPED_TRACE(static_cast<int>(outcome));
        reads_end_ = outcome;
        reads_ = 0;
        look_for(10'000);
        EXPECT_GE(reads_, 10U);
        EXPECT_LE(reads_, 50U) << "five a second";
    }
    reads_end_.reset();
    look_for(1'000);
    EXPECT_TRUE(is_connected());
}

TEST_F(BridgeOfOneMachine, CountsAReplacedValueOnce) {
    put(clstat, R"({"value":[7,0],"process":"other","n":1})");
    word(3) = {5, 0};
    region_.words().configured->servers += 1;  // nothing may be set here
    look_for(5'000);
    EXPECT_EQ(word(3), (AgreedValue{5, 0}));
    EXPECT_EQ(counts().replaced, 1U);
    put(clstat, R"({"value":[8,0],"process":"other","n":2})");
    look_for(1'000);
    EXPECT_EQ(counts().replaced, 2U) << "another value";
    region_.words().configured->servers -= 1;
    look_for(1'000);
    EXPECT_EQ(word(3), (AgreedValue{8, 0}));
    EXPECT_EQ(counts().replaced, 2U);
}

TEST_F(BridgeOfOneMachine, ProposesAgainAfterTheKeyWasDeleted) {
    look_for(1'000);
    word(3) = {5, 0};
    look_for(1'000);
    ASSERT_NE(etcd_.find(clstat), nullptr);
    transactions_end_ = Outcome::timed_out;
    word(3) = {6, 0};
    look_for(1'000);
    remove(clstat);
    transactions_end_.reset();
    look_for(2'000);
    const KeyValue* const found = etcd_.find(clstat);
    ASSERT_NE(found, nullptr);
    EXPECT_NE(found->value->find("[6,0]"), std::string::npos) << *found->value;
    EXPECT_EQ(word(3), (AgreedValue{6, 0}));
    EXPECT_EQ(counts().accepted, 2U);
    EXPECT_EQ(counts().lost, 0U);
}

TEST_F(BridgeOfOneMachine, TakesNoSingleWordWithASecondNumber) {
    look_for(1'000);
    put(bwflag, R"({"value":[1,7],"process":"other","n":1})");
    put(stat, R"({"value":[1,7],"process":"other","n":1})");
    look_for(1'000);
    EXPECT_EQ(word(1), (AgreedValue{}));
    EXPECT_EQ(region_.look().find_resource("hb/lan/lan1")->stat, new_stat);
    put(bwflag, R"({"value":[1,0],"process":"other","n":2})");
    look_for(1'000);
    EXPECT_EQ(word(1), (AgreedValue{1, 0}));
}

// What a process sets while another value of its machine is on its way loses like that value, and is counted too.
TEST_F(BridgeOfOneMachine, CountsEachChangeThatAnotherMachineOverwrites) {
    look_for(1'000);
    transactions_end_ = Outcome::timed_out;
    word(3) = {5, 0};
    look();
    word(3) = {6, 0};
    look();
    transactions_end_.reset();
    put(clstat, R"({"value":[9,0],"process":"other","n":1})");
    look_for(1'000);
    EXPECT_EQ(word(3), (AgreedValue{9, 0}));
    EXPECT_EQ(counts().proposed, 2U);
    EXPECT_EQ(counts().lost, 2U);
    EXPECT_EQ(counts().accepted, 0U);
}

// Its revision tells the new claim from the old one, whatever was seen of it.
TEST_F(BridgeOfOneMachine, WritesNothingOnAClaimThatAnotherHostMadeBetweenTwoLooks) {
    look_for(1'000);
    const std::string state = *etcd_.find(state_of_s0)->value, beat = *etcd_.find(beat_of_s0)->value;
    is_watch_quiet_ = true;
    remove(claim_of_s0);
    put(claim_of_s0, R"({"host":"other","run":"o.1","address":""})");
    region_.words().servers[0].words[0] = 7;
    look_for(1'000);
    EXPECT_EQ(*etcd_.find(state_of_s0)->value, state);
    EXPECT_EQ(*etcd_.find(beat_of_s0)->value, beat);
    EXPECT_NE(etcd_.find(claim_of_s0)->value->find("other"), std::string::npos);
    EXPECT_TRUE(core_.marks(now_).is_refused);
}

TEST_F(BridgeOfOneMachine, ForgetsWhatIsGoneFromEtcdAtTheNextRead) {
    look_for(1'000);
    const size_t before = core_.kept();
    const std::string prefix = "/shmnm/cluster/1/";
    std::vector<std::string> keys;
    for (int number = 0; number < 100; ++number) {
        for (const char* kind : {"claim/x", "state/x", "beat/x", "agreed/hb/lan/x", "agreed/x", "other/x"}) {
            keys.push_back(prefix + kind + std::to_string(number));
        }
    }
    for (const std::string& key : keys) put(key, R"({"value":[1,0],"process":"other","n":1})");
    EXPECT_GE(core_.kept(), before + keys.size());
    for (const std::string& key : keys) remove(key);
    look_for(settings_of_s0().read_again + 1'000);
    EXPECT_EQ(core_.kept(), before);
    put(prefix + "agreed/clstat", R"({"value":[9,0],"process":"other","n":1})");
    look_for(1'000);
    EXPECT_EQ(word(3), (AgreedValue{9, 0})) << "what the region has is still followed";
}

TEST_F(BridgeOfOneMachine, SaysOnceThatAnotherEtcdAnswers) {
    look_for(4'000);
    notices_.clear();
    replace_etcd();
    EXPECT_EQ(std::count_if(notices_.begin(), notices_.end(),
                            [](const std::string& notice) { return notice.starts_with("etcd holds another"); }),
              1);
}

TEST_F(BridgeOfOneMachine, SaysWhichMachinesTimesDiffer) {
    look_for(1'000);
    put("/shmnm/cluster/1/claim/s1", R"({"host":"h","run":"o.1","address":"","window_ms":3000,"gather_ms":500})");
    look();
    ASSERT_EQ(core_.marks(now_).servers.size(), 1U);
    EXPECT_TRUE(core_.marks(now_).servers[0].has_other_times);
    const auto is_of_times = [](const std::string& notice) { return notice.starts_with("the bridge of s1 has "); };
    ASSERT_EQ(std::count_if(notices_.begin(), notices_.end(), is_of_times), 1);
    EXPECT_EQ(
        *std::find_if(notices_.begin(), notices_.end(), is_of_times),
        "the bridge of s1 has window_ms 3000 and gather_ms 500, this one has window_ms 3000 and gather_ms 0: make "
        "them the same on all machines");
    for (const char* claim : {R"({"host":"h","run":"o.2","address":"","window_ms":3000,"gather_ms":0})",
                              R"({"host":"h","run":"o.3","address":""})"}) {
        put("/shmnm/cluster/1/claim/s1", claim);
        look();
        EXPECT_FALSE(core_.marks(now_).servers[0].has_other_times) << claim;
    }
    EXPECT_EQ(std::count_if(notices_.begin(), notices_.end(), is_of_times), 1);
}

TEST_F(BridgeOfOneMachine, CallsAServerSilentOfWhichEtcdKnowsNothing) {
    look();
    EXPECT_EQ(core_.freshness_of("s1", now_), Freshness::unknown);
    look_for(6'000);
    EXPECT_EQ(core_.freshness_of("s1", now_), Freshness::silent);
}

// Its beats prove nothing yet: it has not read since this machine started.
TEST_F(BridgeOfOneMachine, GivesAServerTheWindowBeforeItCallsItSilent) {
    put("/shmnm/cluster/1/claim/s1", R"({"host":"h","run":"o.1","address":""})");
    const Time started = now_;
    look();
    while (core_.freshness_of("s1", now_) == Freshness::unknown && now_ - started < 6'000) {
        put("/shmnm/cluster/1/beat/s1", R"({"run":"o.1","n":1,"seq":1,"seen":1})");
        look();
    }
    EXPECT_EQ(core_.freshness_of("s1", now_), Freshness::silent);
    EXPECT_GE(now_ - started, settings_of_s0().window);
    EXPECT_LE(now_ - started, settings_of_s0().window + 1'500);
}

TEST_F(BridgeOfOneMachine, CallsAServerSilentAtOnceThatEndsSoonAfterItWasHeard) {
    look_for(1'500);
    put("/shmnm/cluster/1/claim/s1", R"({"host":"h","run":"o.1","address":""})");
    put("/shmnm/cluster/1/beat/s1",
        R"({"run":"o.1","n":1,"seq":1,"seen":)" + std::to_string(etcd_.history().back().revision) + '}');
    look();
    EXPECT_EQ(core_.freshness_of("s1", now_), Freshness::unknown);
    remove("/shmnm/cluster/1/claim/s1");
    look();
    EXPECT_EQ(core_.freshness_of("s1", now_), Freshness::silent);
}

}  // namespace
}  // namespace bridge::test
