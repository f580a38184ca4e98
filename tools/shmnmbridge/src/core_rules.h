// The rules of the protocol, each a switch that is on. Only tests turn one off, to show what breaks without it.
// docs/bridge-protocol.md explains each.
#pragma once

namespace bridge {

struct Rules {
    // Claims and own words.
    bool fence = true;                ///< every write compares the claim's revision
    bool refuse_other_host = true;    ///< the claim of another host is not replaced
    bool replace_same_host = true;    ///< that of the same host is: its bridge is gone
    bool renew_lost_claim = true;     ///< a lost claim starts a new run
    bool state_on_base = true;        ///< a state is written only onto the state that this run knows
    bool resend_unknown = true;       ///< after a write of unknown outcome the state is written again before a beat
    bool beats_after_changes = true;  ///< no beat while a change is not yet in etcd
    bool beats_after_looks = true;    ///< a beat needs a copy of the region that was just taken
    bool end_deletes_keys = true;     ///< a clean end deletes claim, state and beat
    bool claim_on_base = true;        ///< a claim is written only onto the claim that this run knows
    bool claim_has_lease = true;      ///< the claim of a dead bridge ends
    bool lease_is_kept = true;        ///< the claim's lease is renewed
    bool beats_with_changes = true;   ///< a beat that is due goes out with a change
    bool own_is_never_fed = true;     ///< etcd's state of this machine's server is not written here

    // Freshness.
    bool beats_are_dated = true;           ///< a beat is as old as the own beat that its sender had seen
    bool read_beats_are_dated = true;      ///< the same for a beat found by a read
    bool own_echo = true;                  ///< connected: an own beat came back through the watch
    bool grace_after_reconnection = true;  ///< a server has time to answer this machine's beats before it is silent
    bool silence_needs_echo = true;        ///< silent: it did not answer own beats that came back
    bool unheard_have_time = true;         ///< so does, from this machine's first beat on, a server not heard yet
    bool runs_are_compared = true;         ///< beat, state and claim belong together only if their runs are equal
    bool fresh_after_applying = true;      ///< a beat counts for the mark once the region shows its words
    bool silence_writes_unknown = true;    ///< the states of a silent server become 2
    bool silence_keeps_words = true;       ///< its other four words stay
    bool unheard_are_silent = true;        ///< so do those of a server of which etcd knows nothing
    bool absence_is_not_fresh = true;      ///< without a region, or without the own server in it, no server is fresh
    bool cut_off_keeps_words = true;       ///< unless it is configured otherwise
    bool start_is_not_cut_off = true;      ///< a machine that starts has time to connect before it resets words
    bool changes_are_not_fresh = true;     ///< nor is one whose words here were changed, until they are set again
    bool missing_is_unknown = true;        ///< the states of a resource that a server has not become 2
    bool heard_before_fed = true;          ///< only words of a server that is heard are set

    // Reading.
    bool revision_order = true;       ///< what is older than what is known is dropped
    bool ended_watch_is_read = true;  ///< after the end of a watch the keys are read again
    bool quiet_watch_is_read = true;  ///< and after a watch brought no own beat for too long
    bool keys_are_read_again = true;  ///< and now and then without any doubt
    bool cluster_is_checked = true;   ///< another cluster makes everything unknown
    bool revision_is_checked = true;  ///< so does a smaller revision

    // Feeding.
    bool calls_compare = true;         ///< a call names the value that it replaces
    bool counts_are_compared = true;   ///< a region laid out by other counts is not fed
    bool refuse_duplicates = true;     ///< servers that share a priority are not fed
    bool step_back = true;             ///< a foreign word that a local process overwrites is left alone
    bool added_again_is_fed = true;    ///< a record that was removed and added again is no local process's change
    bool changed_rows_are_fed = true;  ///< even if a state in it has been set since
    bool set_type_contests = true;     ///< a call that sets the states of a type is one, whatever it sets
    bool contest_ends = true;          ///< a word is followed again once both are equal
    bool requests_wait = true;         ///< no request leaves while a batch is made

    // Agreed words.
    bool new_region_takes = true;          ///< a new region proposes nothing before it shows etcd's values
    bool old_answers_are_dropped = true;   ///< an answer to a proposal of a former region changes nothing
    bool same_base = true;                 ///< a proposal is repeated on the revision on which it was made
    bool late_own_is_accepted = true;      ///< an own proposal that shows up late was accepted
    bool contest_ends_proposals = true;    ///< after more than 3 losses in 10 s a word is left alone
    bool local_words_stay = true;          ///< a word that is configured as local is neither proposed nor set
    bool new_values_are_no_change = true;  ///< where etcd has no value, that of a new region is not proposed
    bool values_are_proposed = true;       ///< but one that was set on purpose is
    bool pair_needs_value = true;          ///< a pair with a number below 1 is no value

    // How a new region is recognised.
    bool object_tells = true;        ///< another object number
    bool absence_tells = true;       ///< a look without a region, or without the own server
    bool fallen_words_tell = true;   ///< the own words fell back to those of a new record
    bool fallen_pair_tells = true;   ///< the pair lost its value, which no setter can do
    bool fallen_others_tell = true;  ///< all foreign words fell back to those of new records
    bool fallen_row_tells = true;    ///< a resource's row fell back: a new record
    bool gap_needs_witness = true;   ///< after a time without looks the same
    bool witness = true;             ///< without object numbers: a fed word still stands in the region
};

}  // namespace bridge
