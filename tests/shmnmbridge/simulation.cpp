#include "shmnmbridge/simulation.h"

#include <algorithm>
#include <iostream>

#include "shmnmbridge/invariants.h"
#include "shmnmbridge/machine.h"
#include "shmnmbridge/model_etcd.h"
#include "shmnmbridge/model_region.h"

namespace bridge::test {
namespace {

constexpr picture::Counts counts{8, 4, 4, 1};
constexpr Time request_time_out = 1'000, lock_time_out = 200;

class Simulation {
  public:
    Simulation(const Schedule& schedule, const Rules& rules, bool tell)
        : schedule_(schedule),
          rules_(rules),
          tell_(tell),
          keys_("cluster"),
          checker_(keys_, etcd_, values_, result_, schedule, machines_) {}

    Result run();

  private:
    struct Event {
        Time at;
        uint64_t order;
        std::function<void()> act;
    };
    struct Later {
        bool operator()(const Event& one, const Event& other) const {
            return one.at != other.at ? one.at > other.at : one.order > other.order;
        }
    };

    void at(Time time, std::function<void()> act) {
        events_.push_back({std::max(time, now_), ++order_, std::move(act)});
        std::push_heap(events_.begin(), events_.end(), Later());
    }
    void after(Time delay, std::function<void()> act) { at(now_ + delay, std::move(act)); }
    template <typename... Parts>
    void say(const Machine& machine, const Parts&... parts) {
        if (!tell_) return;
        std::cout << now_ << " ms, machine " << machine.number << (machine.is_intruder ? " (intruder)" : "") << ": ";
        (std::cout << ... << parts) << '\n';
    }

    // The bridge's process.
    Machine& add_machine(size_t number, bool is_intruder);
    void start(Machine& machine);
    void kill(Machine& machine);
    void tick(Machine& machine);
    void input(Machine& machine, uint64_t life, std::function<Output(Core&)> act);
    void process(Machine& machine, const Output& output);
    void make(Machine& machine, uint64_t life);

    // The network.
    Time latency(Machine& machine) { return 1 + static_cast<Time>(machine.network() % 4); }
    bool is_half(Machine& machine) { return machine.network() % 2 == 0; }
    void send(Machine& machine, const Request& request);
    /// When the words were looked at of which a request tells, and what was read last before it was sent.
    struct Known {
        Time looked_at, read_at;
    };
    void arrive(Machine& machine, uint64_t life, uint64_t cluster, const Known& known, const Request& request);
    void note_beat(Machine& machine, uint64_t life, const Known& known, const Transaction& transaction,
                   int64_t revision);
    void note_echo(Machine& machine, const std::vector<KeyValue>& events);
    void reply(Machine& machine, uint64_t life, Answer answer);
    void open(Machine& machine, const Watch& watch);
    void publish(size_t from);
    /// They come from this etcd, even if another one has replaced it when they are delivered.
    struct ChangesOf {
        uint64_t cluster;
        std::vector<KeyValue> list;
    };
    using Changes = std::shared_ptr<const ChangesOf>;
    Changes shared(std::vector<KeyValue> changes) const {
        return std::make_shared<const ChangesOf>(ChangesOf{etcd_.cluster(), std::move(changes)});
    }
    void push(Machine& machine, const Changes& events);
    void deliver(Machine& machine, uint64_t life, uint64_t watch, const Changes& events);
    void end_watch(Machine& machine);

    // The region and its local processes.
    void make_region(Machine& machine);
    void initialise(Machine& machine);
    void set_own(Machine& machine, uint32_t choice);
    void set_agreed(Machine& machine, uint32_t word);
    void set_foreign(Machine& machine, uint32_t choice);
    void overwrite(Machine& machine, const Call& call);
    void set_type(Machine& machine, uint32_t choice);
    void end_own_values(Machine& machine);
    void write_own_words(Machine& machine);
    void write_agreed_words(Machine& machine);

    void begin(const Fault& fault);
    void begin_of_region(const Fault& fault, Machine& machine);
    void forget_server(Machine& machine, const std::string& server);
    void forget_resource(Machine& machine, const std::string& key);
    void follow_health(Machine& machine);

    const Schedule& schedule_;
    const Rules rules_;
    const bool tell_;
    Keys keys_;
    ModelEtcd etcd_;
    Values values_;
    Result result_;
    Checker checker_;
    std::vector<std::unique_ptr<Machine>> machines_;
    std::vector<Event> events_;  ///< a heap
    Time now_ = 0;
    uint64_t order_ = 0, processes_ = 0, objects_ = 0;
    Time no_leader_until_ = 0, down_until_ = 0, full_until_ = 0, last_fail_over_ = never;
};

Result Simulation::run() {
    for (size_t number = 0; number < schedule_.machines; ++number) {
        Machine& machine = add_machine(number, false);
        make_region(machine);
        after(static_cast<Time>(number) * 37, [this, &machine] { start(machine); });
    }
    for (const Fault& fault : schedule_.faults) at(fault.at, [this, &fault] { begin(fault); });
    while (!events_.empty() && events_.front().at <= schedule_.ends && result_.violations.size() < 5) {
        std::pop_heap(events_.begin(), events_.end(), Later());
        const Event event = std::move(events_.back());
        events_.pop_back();
        now_ = event.at;
        event.act();
    }
    now_ = schedule_.ends;
    if (result_.violations.empty()) checker_.check_end(now_);
    return result_;
}

Machine& Simulation::add_machine(size_t number, bool is_intruder) {
    machines_.push_back(std::make_unique<Machine>());
    Machine& machine = *machines_.back();
    machine.id = machines_.size();
    machine.number = number;
    machine.is_intruder = is_intruder;
    machine.server = ModelRegion::server_name(number);
    machine.host = "h" + std::to_string(number) + (is_intruder ? "x" : "");
    machine.is_windows = schedule_.windows >> number & 1;
    const uint64_t stream = schedule_.seed * 1'000 + machines_.size() * 10;
    machine.network.seed(stream + 1);
    machine.writer.seed(stream + 2);
    machine.configured = counts;
    after(static_cast<Time>(number) * 7, [this, &machine] { tick(machine); });
    if (schedule_.writes) {
        write_own_words(machine);
        write_agreed_words(machine);
    }
    return machine;
}

void Simulation::start(Machine& machine) {
    if (machine.core || now_ < machine.until.down) return;
    ++machine.life;
    machine.process = "p" + std::to_string(++processes_);
    say(machine, "its bridge starts as ", machine.process);
    Settings settings;
    settings.server = machine.server;
    settings.host = machine.host;
    settings.process = machine.process;
    settings.read_again = schedule_.read_again;
    settings.gather = schedule_.gather;
    settings.reset_when_cut_off = schedule_.reset_when_cut_off;
    for (size_t word = 0; machine.number == 0 && word < header_words.size(); ++word) {
        if (schedule_.local >> word & 1) settings.local.insert(header_words[word]);
    }
    machine.local = settings.local;
    machine.core = std::make_unique<Core>(settings, rules_);
    machine.ended_at = machine.cut_off_since = -1;
    machine.fed.clear();
    machine.overwritten.clear();
    machine.agreed_revision.clear();
    machine.silent_since.clear();
    machine.losses.clear();
    machine.started_at = now_;
    machine.beats.clear();
    machine.echoed_at = never;
}

void Simulation::kill(Machine& machine) {
    machine.core.reset();
    machine.batch.reset();
    machine.looked.reset();
    machine.pending.clear();
    machine.inbox.clear();
    machine.stream = {};
    ++machine.life;
    machine.until.stop = 0;
}

void Simulation::tick(Machine& machine) {
    after(look_interval, [this, &machine] { tick(machine); });
    follow_health(machine);
    if (!machine.core || machine.is_stopped(now_) || machine.batch) return;
    if (now_ < machine.until.hold_lock) {
        process(machine, machine.core->look_failed(now_));
    } else {
        ++result_.looks;
        checker_.follow_witnesses(now_, machine);
        if (!machine.region) {
            machine.looked.reset();
        } else {
            machine.looked = machine.region->look();
            machine.looked->configured = machine.configured;
            if (machine.is_windows) machine.looked->object = 0;
        }
        if (machine.has_own_server()) machine.looked_at = now_;
        process(machine, machine.core->look(now_, machine.looked ? &*machine.looked : nullptr));
    }
    checker_.check_marks(now_, machine);
}

void Simulation::input(Machine& machine, uint64_t life, std::function<Output(Core&)> act) {
    if (machine.life != life || !machine.core) return;
    if (machine.is_stopped(now_)) {
        machine.inbox.push_back([this, &machine, life, act = std::move(act)] { input(machine, life, act); });
        return;
    }
    process(machine, act(*machine.core));
}

void Simulation::process(Machine& machine, const Output& output) {
    checker_.take_output(now_, machine, output, machine.batch.has_value());
    for (const std::string& notice : output.notices) say(machine, "says: ", notice);
    for (const Send& each : output.sends) {
        if (const auto* const request = std::get_if<Request>(&each)) send(machine, *request);
        if (const auto* const watch = std::get_if<Watch>(&each)) open(machine, *watch);
        if (const auto* const unwatch = std::get_if<Unwatch>(&each); unwatch && machine.stream.id == unwatch->id) {
            machine.stream = {};
        }
    }
    if (!output.batch) return;
    checker_.check_asked(now_, machine, *output.batch);
    machine.batch = output.batch;
    const bool is_locked = now_ < std::max(machine.until.hold_lock, machine.until.busy_lock);
    const Time wait = is_locked ? lock_time_out : static_cast<Time>(machine.network() % 3);
    after(wait, [this, &machine, life = machine.life] { make(machine, life); });
}

void Simulation::make(Machine& machine, uint64_t life) {
    if (machine.life != life || !machine.batch) return;
    if (machine.is_stopped(now_)) return at(machine.until.stop, [this, &machine, life] { make(machine, life); });
    const Batch batch = std::move(*machine.batch);
    machine.batch.reset();
    BatchDone done{batch.id, false, {}};
    const bool is_locked = now_ < std::max(machine.until.hold_lock, machine.until.busy_lock);
    const bool is_same = machine.region && machine.region->look().counts == batch.counts &&
                         machine.configured == batch.counts &&
                         (machine.is_windows || machine.region->look().object == batch.object);
    if (!is_locked && is_same) {
        done.made = true;
        checker_.begin_batch(machine);
        for (size_t at = 0; at < batch.calls.size(); ++at) {
            const Call& call = batch.calls[at];
            if (call.expected && machine.region->value_at(call) != call.expected) {
                done.skipped.push_back(at);
                continue;
            }
            ++result_.calls;
            checker_.check_call(now_, machine, call);
            say(machine, "sets ", checker_.describe(call));
            checker_.check_accepted(now_, machine, call, machine.region->make(call));
            machine.made.insert(checker_.describe(call));
        }
        checker_.end_batch(now_, machine);
    }
    input(machine, life, [this, done](Core& core) { return core.batch_done(now_, done); });
}

// The network.

void Simulation::send(Machine& machine, const Request& request) {
    ++result_.requests;
    const uint64_t life = machine.life;
    machine.pending.emplace(request.id, std::holds_alternative<Range>(request.body));
    after(request_time_out, [this, &machine, life, id = request.id] {
        if (machine.life != life || !machine.pending.erase(id)) return;
        input(machine, life,
              [this, id](Core& core) { return core.answer(now_, {.request = id, .outcome = Outcome::timed_out}); });
    });
    if (now_ < std::max(machine.until.cut_to, machine.until.cut_both)) return;
    const auto* const transaction = std::get_if<Transaction>(&request.body);
    const bool is_large =
        transaction && std::any_of(transaction->puts.begin(), transaction->puts.end(),
                                   [](const Put& put) { return put.key.find("/state/") != std::string::npos; });
    if (is_large && now_ < machine.until.lose_large) return;
    Time delay = latency(machine);
    if (now_ < machine.until.slow && is_half(machine)) delay += static_cast<Time>(machine.network() % 4'000);
    after(delay, [this, &machine, life, cluster = etcd_.cluster(), known = Known{machine.looked_at, machine.read_at},
                  request] { arrive(machine, life, cluster, known, request); });
}

void Simulation::arrive(Machine& machine, uint64_t life, uint64_t cluster, const Known& known, const Request& request) {
    Answer answer{.request = request.id};
    if (cluster != etcd_.cluster()) return;  // it was on its way to the former one
    const auto* const transaction = std::get_if<Transaction>(&request.body);
    const bool is_end = !machine.core && transaction && !transaction->deletions.empty();
    // The others cannot know of an end that etcd has not accepted yet.
    if (is_end && now_ < std::max({down_until_, no_leader_until_, machine.until.lose_token})) machine.ended_at = -1;
    if (now_ < down_until_) return reply(machine, life, answer);
    if (now_ < no_leader_until_) {
        return at(no_leader_until_ + latency(machine),
                  [this, &machine, life, cluster, known, request] { arrive(machine, life, cluster, known, request); });
    }
    if (now_ < machine.until.lose_token && !std::holds_alternative<KeepAlive>(request.body))
        return reply(machine, life, answer);
    const size_t before = etcd_.history().size();
    etcd_.expire(now_);
    checker_.before_request(request);
    answer = etcd_.answer(request, now_);
    answer.request = request.id;
    if (transaction && answer.outcome == Outcome::done) {
        checker_.check_written(now_, *transaction, answer.revision);
        note_beat(machine, life, known, *transaction, answer.revision);
        if (is_end) machine.ended_at = now_;
    }
    publish(before);
    reply(machine, life, std::move(answer));
}

void Simulation::note_beat(Machine& machine, uint64_t life, const Known& known, const Transaction& transaction,
                           int64_t revision) {
    const std::string key = keys_.beat(machine.server);
    const bool has_beat = std::any_of(transaction.puts.begin(), transaction.puts.end(),
                                      [&key](const Put& put) { return put.key == key; });
    if (!has_beat) return;
    const Time date = std::min(known.looked_at, known.read_at);
    machine.told_at = std::max(machine.told_at, date);
    if (date > machine.unhealthy_at && machine.proved_at <= machine.unhealthy_at) machine.proved_at = now_;
    if (machine.life == life) machine.beats[revision] = known.looked_at;
}

void Simulation::note_echo(Machine& machine, const std::vector<KeyValue>& events) {
    machine.read_at = now_;
    for (const KeyValue& event : events) {
        const auto beat = machine.beats.find(event.revision);
        if (beat != machine.beats.end()) machine.echoed_at = std::max(machine.echoed_at, beat->second);
    }
}

void Simulation::reply(Machine& machine, uint64_t life, Answer answer) {
    if (now_ < machine.until.lose_answers && is_half(machine)) return;
    Time delay = latency(machine);
    if (now_ < machine.until.slow && is_half(machine)) delay += static_cast<Time>(machine.network() % 900);
    after(delay, [this, &machine, life, answer = std::move(answer)] {
        if (machine.life != life || now_ < std::max(machine.until.cut_from, machine.until.cut_both)) return;
        const auto pending = machine.pending.extract(answer.request);
        if (!pending) return;
        input(machine, life, [this, &machine, answer, is_read = pending.mapped()](Core& core) {
            if (is_read && answer.outcome == Outcome::done) machine.read_at = now_;
            return core.answer(now_, answer);
        });
    });
}

void Simulation::open(Machine& machine, const Watch& watch) {
    machine.stream = {};
    machine.stream.id = watch.id;
    const uint64_t life = machine.life;
    if (now_ < std::max(machine.until.cut_to, machine.until.cut_both)) return;
    after(latency(machine), [this, &machine, life, watch] {
        if (machine.life != life || machine.stream.id != watch.id) return;
        if (watch.from <= etcd_.compacted() || now_ < down_until_) return end_watch(machine);
        machine.stream.is_open = true;
        std::vector<KeyValue> events;
        for (const KeyValue& change : etcd_.history()) {
            if (change.revision >= watch.from) events.push_back(change);
        }
        if (!events.empty()) push(machine, shared(std::move(events)));
    });
}

void Simulation::publish(size_t from) {
    const auto& history = etcd_.history();
    if (from >= history.size()) return;
    const Changes events = shared({history.begin() + static_cast<ptrdiff_t>(from), history.end()});
    for (const auto& machine : machines_) {
        if (machine->stream.is_open) push(*machine, events);
    }
}

void Simulation::push(Machine& machine, const Changes& events) {
    Stream& stream = machine.stream;
    const uint64_t life = machine.life, id = stream.id;
    const Time time = now_ + latency(machine);
    if (now_ >= machine.until.reorder) {
        stream.last = std::max(stream.last, time);
        return at(stream.last, [this, &machine, life, id, events] { deliver(machine, life, id, events); });
    }
    for (const KeyValue& event : events->list) {
        Time& last = stream.last_of_key[event.key];
        last = std::max(last, time + (is_half(machine) ? static_cast<Time>(machine.network() % 500) : 0));
        stream.last = std::max(stream.last, last);
        at(last, [this, &machine, life, id, one = shared({event})] { deliver(machine, life, id, one); });
    }
}

void Simulation::deliver(Machine& machine, uint64_t life, uint64_t watch, const Changes& events) {
    Stream& stream = machine.stream;
    if (machine.life != life || stream.id != watch || stream.is_dead) return;
    if (now_ < machine.until.cut_both) {
        stream.is_dead = true;
        return;
    }
    if (now_ < machine.until.cut_from) {
        stream.last = std::max(stream.last, machine.until.cut_from);
        for (auto& [key, last] : stream.last_of_key) last = std::max(last, machine.until.cut_from);
        return at(machine.until.cut_from,
                  [this, &machine, life, watch, events] { deliver(machine, life, watch, events); });
    }
    const bool is_beat = keys_.parts_of(events->list.front().key).kind == "beat";
    if (stream.loses_event && !is_beat) {
        stream.loses_event = false;
        return say(machine, "its watch loses ", events->list.front().key);
    }
    input(machine, life, [this, &machine, watch, events](Core& core) {
        note_echo(machine, events->list);
        return core.events(now_, {.watch = watch, .cluster = events->cluster, .events = events->list});
    });
}

void Simulation::end_watch(Machine& machine) {
    if (!machine.stream.id) return;
    const uint64_t id = machine.stream.id;
    machine.stream = {};
    input(machine, machine.life, [this, id](Core& core) { return core.watch_ended(now_, {id}); });
}

// The region and its local processes.

void Simulation::make_region(Machine& machine) {
    ++machine.generation;
    machine.agreed_revision.clear();
    machine.fed.clear();
    machine.overwritten.clear();
    machine.region.emplace(++objects_, counts, schedule_.machines, machine.number);
    initialise(machine);
}

void Simulation::initialise(Machine& machine) {
    const uint64_t generation = machine.generation;
    const auto later = [this, &machine, generation](bool at_once, std::function<void()> act) {
        if (at_once) return act();
        after(300, [&machine, generation, act = std::move(act)] {
            if (machine.generation == generation && machine.has_own_server()) act();
        });
    };
    later(schedule_.creator.sets_own, [this, &machine] { set_own(machine, 0); });
    if (schedule_.sets_pair) later(schedule_.creator.sets_pair, [this, &machine] { set_agreed(machine, hbinfo); });
}

void Simulation::set_own(Machine& machine, uint32_t choice) {
    if (!machine.has_own_server()) return;
    // Not `isolateflag`, which is set and set back.
    constexpr size_t words[] = {0, 1, 2, 4, 5};
    Call call{.setter = Call::Setter::server_word, .server = machine.server};
    if (choice % 10 < 5) {
        call.word = words[choice % 10];
    } else {
        const auto& resources = machine.region->look().resources;
        if (resources.empty()) return;
        const LookedResource& resource = resources[choice % resources.size()];
        call.resource = resource.key;
        call.setter = resource.is_hb() && choice % 10 > 7 ? Call::Setter::network : Call::Setter::svstat;
    }
    uint32_t* const word = machine.region->find(call);
    values_.end(*word, now_);
    *word = values_.make(now_, machine.id);
    machine.own_since.try_emplace(checker_.describe(call), now_);
    say(machine, "a local process sets ", checker_.describe(call), " to ", *word);
}

void Simulation::set_agreed(Machine& machine, uint32_t word) {
    if (!machine.has_own_server()) return;
    const uint32_t value = values_.make(now_, machine.id);
    if (word < header_words.size()) {
        *machine.region->find_header(word) = {value, word == hbinfo ? value + 1 : 0};
    } else {
        auto& resources = machine.region->words().resources;
        if (resources.empty()) return;
        resources[word % resources.size()].stat = value;
    }
    say(machine, "a local process sets agreed word ", word, " to ", value);
}

void Simulation::set_foreign(Machine& machine, uint32_t choice) {
    if (!machine.region || schedule_.machines < 2) return;
    Call call{.setter = Call::Setter::server_word};
    call.server =
        ModelRegion::server_name((machine.number + 1 + choice % (schedule_.machines - 1)) % schedule_.machines);
    call.word = 4;
    uint32_t* const word = machine.region->find(call);
    if (!word) return;
    *word = values_.make(now_, machine.id, true);
    overwrite(machine, call);
    say(machine, "a local process overwrites ", checker_.describe(call), " with ", *word);
}

void Simulation::overwrite(Machine& machine, const Call& call) {
    const std::string word = checker_.describe(call);
    // An owner whose region is new has the unknown state too, and then the contest is over.
    const bool may_end = schedule_.writes && *machine.region->find(call) == unknown_state;
    if (may_end) machine.overwritten.erase(word);
    if (machine.fed.contains(call.server) && !may_end) machine.overwritten.insert(word);
    machine.ever_overwritten.insert(word);
}

void Simulation::set_type(Machine& machine, uint32_t choice) {
    if (!machine.has_own_server() || machine.region->look().resources.empty()) return;
    auto& resources = machine.region->words().resources;
    LookedResource& resource = resources[choice % resources.size()];
    const uint32_t value = choice % 2 ? unknown_state : values_.make(now_, machine.id, true);
    resource.stat = value;
    for (size_t position = 0; position < resource.cells.size(); ++position) {
        const std::string& server = machine.region->look().servers[position].name;
        uint32_t& word = resource.cells[position].svstat;
        if (server == machine.server) {
            values_.end(word, now_);
            machine.own_since.erase(
                checker_.describe({.setter = Call::Setter::svstat, .server = server, .resource = resource.key}));
        }
        const bool is_overwritten = server != machine.server && word != value;
        word = value;
        if (is_overwritten) {
            overwrite(machine, {.setter = Call::Setter::svstat, .server = server, .resource = resource.key});
        }
    }
    say(machine, "a local process sets all states of ", resource.key, " to ", value);
}

void Simulation::end_own_values(Machine& machine) {
    if (!machine.region) return;
    machine.own_since.clear();
    const ServerState state = machine.region->state_of_server(machine.server);
    for (const uint32_t value : state.words) values_.end(value, now_);
    for (const auto& [key, cell] : state.cells) {
        values_.end(cell.svstat, now_);
        values_.end(cell.network, now_);
    }
}

void Simulation::write_own_words(Machine& machine) {
    after(100 + static_cast<Time>(machine.writer() % 1'500), [this, &machine] {
        const auto choice = static_cast<uint32_t>(machine.writer() % 1'000);
        if (now_ >= schedule_.heals) return;
        set_own(machine, choice);
        write_own_words(machine);
    });
}

void Simulation::write_agreed_words(Machine& machine) {
    after(500 + static_cast<Time>(machine.writer() % 5'000), [this, &machine] {
        const auto word = static_cast<uint32_t>(machine.writer() % 8);
        if (now_ >= schedule_.heals) return;
        if (word != hbinfo || schedule_.sets_pair) set_agreed(machine, word);
        write_agreed_words(machine);
    });
}

// Faults.

void Simulation::begin(const Fault& fault) {
    Machine& machine = *machines_[fault.machine];
    if (tell_) std::cout << to_text(fault) << '\n';
    Troubles& until = machine.until;
    const Time end = now_ + fault.lasts;
    const Time unhealthy_before = machine.unhealthy_at;
    machine.unhealthy_at = std::max(machine.unhealthy_at, end);
    const auto lengthen = [end](Time& time) { time = std::max(time, end); };
    const auto stop_healthy = [this, end] {
        for (const auto& each : machines_) each->unhealthy_at = std::max(each->unhealthy_at, end);
    };
    switch (fault.what) {
        case What::kill:
        case What::end: {
            lengthen(until.down);
            at(end, [this, &machine] { start(machine); });
            if (!machine.core) return;
            // A bridge is asked to end between two batches; otherwise it is as if it were killed.
            const bool is_in_batch = machine.batch.has_value();
            if (fault.what == What::end && !machine.is_stopped(now_)) {
                process(machine, machine.core->end(now_));
                const bool is_heard = now_ - unhealthy_before > 2'000 && now_ >= no_leader_until_;
                if (is_heard && !is_in_batch) machine.ended_at = now_;
            }
            return kill(machine);
        }
        case What::stop:
            lengthen(until.stop);
            return at(end, [this, &machine] {
                if (machine.is_stopped(now_)) return;
                std::deque<std::function<void()>> inbox;
                inbox.swap(machine.inbox);
                for (const auto& each : inbox) each();
            });
        case What::cut_to:
            return lengthen(until.cut_to);
        case What::cut_from:
            return lengthen(until.cut_from);
        case What::cut_both:
            return lengthen(until.cut_both);
        case What::slow:
            return lengthen(until.slow);
        case What::lose_answers:
            return lengthen(until.lose_answers);
        case What::lose_large:
            return lengthen(until.lose_large);
        case What::reorder:
            return lengthen(until.reorder);
        case What::lose_token:
            return lengthen(until.lose_token);
        case What::hold_lock:
            return lengthen(until.hold_lock);
        case What::busy_lock:
            return lengthen(until.busy_lock);
        case What::lose_member:
            return end_watch(machine);
        case What::fail_over:
            machine.unhealthy_at = unhealthy_before;
            // Two in a row are like one that is longer than the window.
            if (now_ - last_fail_over_ < 9'000) stop_healthy();
            last_fail_over_ = now_;
            no_leader_until_ = std::max(no_leader_until_, end);
            return at(end, [this] { etcd_.renew_leases(now_); });
        case What::etcd_down:
            stop_healthy();
            down_until_ = std::max(down_until_, end);
            for (const auto& each : machines_) end_watch(*each);
            return at(end, [this] { etcd_.renew_leases(now_); });
        case What::full:
            stop_healthy();
            full_until_ = std::max(full_until_, end);
            etcd_.set_full(true);
            return at(end, [this] { etcd_.set_full(now_ < full_until_); });
        case What::compact:
            etcd_.expire(now_);
            return etcd_.compact();
        case What::replace_etcd:
        case What::restore_etcd:
            stop_healthy();
            etcd_.replace(fault.what == What::restore_etcd);
            checker_.forget_history();
            for (const auto& each : machines_) {
                each->agreed_revision.clear();
                each->newest.clear();
                end_watch(*each);
            }
            return;
        case What::intruder: {
            machine.was_intruded = true;
            Machine& intruder = add_machine(machine.number, true);
            make_region(intruder);
            start(intruder);
            return at(end, [this, &intruder] { kill(intruder); });
        }
        case What::rival:
            for (Time time = now_; time < end; time += 300) {
                for (const auto& each : machines_) {
                    at(time + static_cast<Time>(each->number) * 3,
                       [this, &each = *each, word = fault.detail % 4] { set_agreed(each, word); });
                }
            }
            return;
        case What::set_own:
            return set_own(machine, fault.detail);
        case What::set_agreed:
            return set_agreed(machine, fault.detail);
        case What::set_foreign:
            return set_foreign(machine, fault.detail);
        case What::set_type:
            return set_type(machine, fault.detail);
        case What::set_often:
            machine.unhealthy_at = unhealthy_before;
            for (Time time = now_; time < end; time += 20) {
                at(time, [this, &machine] { set_own(machine, 0); });
            }
            return;
        case What::lose_event:
            machine.stream.loses_event = true;
            return;
        default:
            return begin_of_region(fault, machine);
    }
}

void Simulation::begin_of_region(const Fault& fault, Machine& machine) {
    const Time end = now_ + fault.lasts;
    const std::string server = ModelRegion::server_name(fault.detail % schedule_.machines);
    const uint64_t generation = machine.generation;
    const auto later = [this, &machine, end](std::function<void()> act) {
        at(end, [&machine, act = std::move(act), generation = machine.generation] {
            if (machine.generation == generation && machine.region) act();
        });
    };
    switch (fault.what) {
        case What::new_region:
            end_own_values(machine);
            machine.region.reset();
            ++machine.generation;
            machine.until.no_region = std::max(machine.until.no_region, end);
            return at(end, [this, &machine] {
                if (!machine.region && now_ >= machine.until.no_region) make_region(machine);
            });
        case What::clear: {
            if (!machine.region) return;
            end_own_values(machine);
            ++machine.generation;
            machine.agreed_revision.clear();
            machine.fed.clear();
            machine.overwritten.clear();
            const uint64_t object = machine.region->look().object;
            machine.region->clear();
            return later([this, &machine, object] {
                machine.region.emplace(object, counts, schedule_.machines, machine.number);
                initialise(machine);
            });
        }
        case What::move_server:
        case What::remove_server: {
            if (!machine.region) return;
            const auto position = machine.region->look().find_server(server);
            if (!position) return;
            if (server == machine.server) {
                end_own_values(machine);
                machine.fed.clear();
                machine.overwritten.clear();
            }
            // If it is the own server or the only one that was fed, the bridge must take the region for a new one.
            machine.has_lost_records = true;
            forget_server(machine, server);
            const int32_t pri = ModelRegion::priority(fault.detail % schedule_.machines, machine.number);
            machine.region->remove_server(server);
            const auto add = [&machine, server, pri] {
                if (!machine.region->look().find_server(server)) machine.region->add_server(server, pri);
            };
            if (fault.what == What::move_server) return add();
            return later(add);
        }
        case What::add_resource_again: {
            if (!machine.region || machine.region->look().resources.empty()) return;
            const std::string key = machine.region->look().resources.front().key;
            forget_resource(machine, key);
            return machine.region->add_resource(key);
        }
        case What::lose_server: {
            const std::string lost = ModelRegion::server_name(
                (machine.number + 1 + fault.detail % (schedule_.machines - 1)) % schedule_.machines);
            if (!machine.region) return;
            forget_server(machine, lost);
            return machine.region->remove_server(lost);
        }
        case What::remove_resource: {
            if (!machine.region || machine.region->look().resources.empty()) return;
            const auto& resources = machine.region->look().resources;
            return forget_resource(machine, std::string(resources[fault.detail % resources.size()].key));
        }
        case What::share_priority: {
            if (!machine.region) return;
            const std::string one = ModelRegion::server_name((machine.number + 1) % schedule_.machines);
            const std::string other = ModelRegion::server_name((machine.number + 2) % schedule_.machines);
            auto& words = machine.region->words();
            const auto first = words.find_server(one), second = words.find_server(other);
            if (!first || !second) return;
            const int32_t pri = ModelRegion::priority((machine.number + 1) % schedule_.machines, machine.number);
            words.servers[*first].pri = words.servers[*second].pri;
            return later([&machine, one, pri] {
                auto& now = machine.region->words();
                if (const auto position = now.find_server(one)) now.servers[*position].pri = pri;
            });
        }
        case What::other_counts:
            machine.configured.hb = 9;
            machine.until.other_counts = std::max(machine.until.other_counts, end);
            return at(end, [this, &machine] {
                if (now_ >= machine.until.other_counts) machine.configured = counts;
            });
        case What::flip_own: {
            const auto own = machine.region ? machine.region->look().find_server(machine.server) : std::nullopt;
            if (!own) return;
            machine.region->words().servers[*own].words[3] = 1;
            (void)generation;
            return later([&machine] {
                const auto position = machine.region->look().find_server(machine.server);
                if (position) machine.region->words().servers[*position].words[3] = 0;
            });
        }
        default:
            return;
    }
}

void Simulation::forget_server(Machine& machine, const std::string& server) {
    machine.fed.erase(server);
    std::erase_if(machine.overwritten, [&server](const std::string& word) {
        return word.starts_with("servers/" + server + '/') || word.ends_with('/' + server);
    });
}

void Simulation::forget_resource(Machine& machine, const std::string& key) {
    if (const auto own = machine.region->look().find_server(machine.server)) {
        const Cell& cell = machine.region->look().find_resource(key)->cells[*own];
        values_.end(cell.svstat, now_);
        values_.end(cell.network, now_);
    }
    std::erase_if(machine.own_since, [&key](const auto& each) { return each.first.starts_with(key + '/'); });
    machine.agreed_revision.erase(key);
    machine.has_lost_records = true;
    std::erase_if(machine.overwritten, [&key](const std::string& word) { return word.starts_with(key + '/'); });
    machine.region->remove_resource(key);
}

void Simulation::follow_health(Machine& machine) {
    const Troubles& until = machine.until;
    const bool is_impaired = !machine.core || machine.is_stopped(now_) || !machine.has_own_server() ||
                             now_ < std::max({until.cut_to, until.cut_from, until.cut_both, until.lose_token,
                                              until.hold_lock, down_until_, full_until_});
    if (is_impaired) machine.unhealthy_at = std::max(machine.unhealthy_at, now_);
}

}  // namespace

Result run(const Schedule& schedule, const Rules& rules, bool tell) {
    return Simulation(schedule, rules, tell).run();
}

}  // namespace bridge::test
