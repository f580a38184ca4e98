// The invariants of docs/bridge-protocol.md, checked while a schedule runs. The numbers in the messages are theirs.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core_keys.h"
#include "shmnmbridge/machine.h"
#include "shmnmbridge/model_etcd.h"
#include "shmnmbridge/simulation.h"

namespace bridge::test {

class Checker {
  public:
    using Machines = std::vector<std::unique_ptr<Machine>>;

    Checker(const Keys& keys, const ModelEtcd& etcd, Values& values, Result& result, const Schedule& schedule,
            const Machines& machines);

    /// Everything that a core gives out.
    void take_output(Time now, Machine& machine, const Output& output, bool is_in_batch);
    /// Etcd is about to answer, and has written.
    void before_request(const Request& request);
    void check_written(Time now, const Transaction& transaction, int64_t revision);
    void forget_history();
    /// A batch is asked for, is about to be made, and is made.
    void check_asked(Time now, Machine& machine, const Batch& batch);
    void begin_batch(const Machine& machine);
    void check_call(Time now, Machine& machine, const Call& call);
    void check_accepted(Time now, const Machine& machine, const Call& call, bool is_accepted);
    void end_batch(Time now, const Machine& machine);
    /// Before each look.
    static void follow_witnesses(Time now, Machine& machine);
    /// After each look.
    void check_marks(Time now, Machine& machine);
    /// Long after the last fault.
    void check_end(Time now);

    static std::string describe(const Call& call);

  private:
    /// Whether the other machine's words should stand in this machine's region.
    static bool is_fed(const Machine& machine, const Machine& other);
    /// Whether a word that the bridge has set, or another server's word at all, stands as the last look found it.
    static bool has_witness(const Machine& machine, const Look& look, bool is_of_fed);
    static bool is_unknown(const Machine& machine, const std::string& server);
    template <typename... Parts>
    void fail(Time now, const Machine* machine, int invariant, const Parts&... parts);
    const Machine& owner_of(const std::string& server) const;
    void check_state(Time now, const std::string& server, const StateValue& state);
    /// A word of a server, in etcd or in a machine's region, changes from the newest of its owner's values.
    void check_fall(Time now, const Machine* machine, const std::string& server, const std::string& word,
                    uint32_t& newest, uint32_t value);
    void check_proposal(Time now, const std::string& key, const std::string& json, int64_t revision);
    void check_beat(Time now, const std::string& server, const BeatValue& beat);
    void check_run(Time now, const std::string& server, const std::string& run);
    void check_values(Time now, const Machine& machine, const Machine& other);
    void check_value(Time now, const Machine& machine, const Machine& other, const Call& call, uint32_t here,
                     uint32_t there);
    void check_cut_off(Time now, Machine& machine);
    void check_peer(Time now, Machine& machine, const Machine& other, bool is_intruded);
    void check_silence(Time now, Machine& machine, const std::string& server, Freshness freshness);
    void check_end_of_peer(Time now, const Machine& machine, const Machine& other, const Marks& marks);
    void check_end_of_lists(Time now, const Machine& machine, const Marks& marks);
    void check_end_of_agreed(Time now, const Machine& machine, const Marks& marks);

    const Keys& keys_;
    const ModelEtcd& etcd_;
    Values& values_;
    Result& result_;
    const Schedule& schedule_;
    const Machines& machines_;
    const Time limit_;     ///< what is older is not fresh
    const Time recovery_;  ///< after so long without trouble a machine must be fresh elsewhere
    /// What a key in etcd says, decoded once.
    template <typename Value>
    struct Decoded {
        int64_t revision = 0;
        Value value;
    };
    std::map<std::string, Decoded<ClaimValue>> claims_;  ///< by the server
    std::map<std::string, Decoded<StateValue>> states_;
    std::map<std::string, std::string> claim_hosts_;   ///< before the request
    std::map<std::string, uint32_t> newest_;           ///< by the word: its owner's last value in a state
    std::map<std::string, int64_t> landed_;            ///< by word and value: the revision of an agreed value
    std::set<std::string> proposals_;                  ///< process and number
    std::map<std::string, uint64_t> landed_of_;        ///< how many proposals of a process are in the history
    std::map<std::string, std::string> last_process_;  ///< by the agreed key: who wrote it last
    std::map<std::string, uint64_t> overwritten_of_;   ///< how many of them another process has overwritten
    ServerState own_before_;
    std::optional<ModelRegion> seen_;  ///< the region as the look showed it for which the batch was made
};

}  // namespace bridge::test
