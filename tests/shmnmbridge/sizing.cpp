#include "shmnmbridge/sizing.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <queue>
#include <random>
#include <vector>

#include "core.h"
#include "shmnmbridge/model_etcd.h"
#include "shmnmbridge/model_region.h"

namespace bridge::test {
namespace {

constexpr Time begin = 5'000;

/// Of one event in the gateway's JSON, where keys and values are base64; and of what stands around the events.
constexpr size_t event_frame = 110, answer_frame = 150;
size_t in_base64(size_t size) {
    return (size + 2) / 3 * 4;
}

double processor_us() {
    return static_cast<double>(std::clock()) * 1e6 / CLOCKS_PER_SEC;
}

class Measured {
  public:
    explicit Measured(const Cluster& cluster) : cluster_(cluster), random_(cluster.machines) {}
    Sizing run();

  private:
    struct Machine {
        size_t number = 0;
        std::unique_ptr<ModelRegion> region;
        std::unique_ptr<Core> core;
        uint64_t watch = 0;
        Time last_delivery = 0;
        bool is_in_batch = false;
    };
    struct Event {
        Time at;
        uint64_t order;
        std::function<void()> act;
        bool operator<(const Event& other) const { return at != other.at ? at > other.at : order > other.order; }
    };

    void at(Time time, std::function<void()> act) { events_.push({time, ++order_, std::move(act)}); }
    Time latency() { return 1 + static_cast<Time>(random_() % 2); }
    bool counts() const { return now_ >= begin; }
    Output timed(double& total, uint64_t& count, const std::function<Output()>& act);

    void add_machine(size_t number);
    void change(Machine& machine);
    void look(Machine& machine);
    void process(Machine& machine, const Output& output);
    void make(Machine& machine, const Batch& batch);
    void arrive(Machine& machine, const Request& request);
    void publish(size_t from);
    void count(const Request& request);

    const Cluster cluster_;
    std::mt19937_64 random_;
    ModelEtcd etcd_;
    std::vector<std::unique_ptr<Machine>> machines_;
    std::priority_queue<Event> events_;
    Time now_ = 0;
    uint64_t order_ = 0;
    uint32_t last_value_ = 100;
    std::vector<Time> changed_;  ///< by the value
    std::vector<Time> latencies_;
    Sizing sizing_;
    double look_us_ = 0, event_us_ = 0, other_us_ = 0;
    uint64_t looks_ = 0, deliveries_ = 0, others_ = 0;
};

Sizing Measured::run() {
    for (size_t number = 0; number < cluster_.machines; ++number) add_machine(number);
    const Time ends = begin + cluster_.lasts;
    while (events_.top().at < ends) {
        const Event event = events_.top();
        events_.pop();
        now_ = event.at;
        event.act();
    }
    const double seconds = static_cast<double>(cluster_.lasts) / 1'000;
    const auto machines = static_cast<double>(cluster_.machines);
    for (double* const each : {&sizing_.transactions, &sizing_.keep_alives, &sizing_.states, &sizing_.written}) {
        *each /= seconds;
    }
    sizing_.received /= seconds * machines;
    std::sort(latencies_.begin(), latencies_.end());
    if (!latencies_.empty()) {
        sizing_.median = latencies_[latencies_.size() / 2];
        sizing_.p99 = latencies_[latencies_.size() * 99 / 100];
        sizing_.max = latencies_.back();
    }
    sizing_.look = look_us_ / static_cast<double>(looks_);
    sizing_.event = event_us_ / static_cast<double>(deliveries_);
    sizing_.share = (look_us_ + event_us_ + other_us_) / (seconds * 1e6 * machines);
    return sizing_;
}

void Measured::add_machine(size_t number) {
    machines_.push_back(std::make_unique<Machine>());
    Machine& machine = *machines_.back();
    machine.number = number;
    const auto count = static_cast<int32_t>(std::max<size_t>(cluster_.machines, 8));
    machine.region = std::make_unique<ModelRegion>(1, picture::Counts{count, 32, 32, 1}, cluster_.machines, number);
    for (size_t each = 3; each < cluster_.resources; ++each) {
        machine.region->add_resource("hb/lan/lan" + std::to_string(each));
    }
    auto& servers = machine.region->words().servers;
    for (size_t position = 0; position < servers.size(); ++position) {
        servers[position].pri = static_cast<int32_t>(position);
    }
    Settings settings;
    settings.server = ModelRegion::server_name(number);
    settings.host = "machine-" + std::to_string(number);
    settings.process = settings.host + "-process";
    settings.address = "http://" + settings.host + ":8080";
    settings.gather = cluster_.gather;
    machine.core = std::make_unique<Core>(settings);
    const auto offset = static_cast<Time>(random_() % look_interval);
    at(offset, [this, &machine] { look(machine); });
    change(machine);
}

void Measured::change(Machine& machine) {
    const auto interval = static_cast<Time>(1'000 / cluster_.changes);
    at(now_ + interval / 2 + static_cast<Time>(random_() % static_cast<uint64_t>(interval)), [this, &machine] {
        auto& resources = machine.region->words().resources;
        const size_t own = *machine.region->look().find_server(ModelRegion::server_name(machine.number));
        resources[random_() % resources.size()].cells[own].svstat = ++last_value_;
        changed_.resize(last_value_ + 1);
        changed_[last_value_] = now_;
        change(machine);
    });
}

Output Measured::timed(double& total, uint64_t& count, const std::function<Output()>& act) {
    const double before = processor_us();
    Output output = act();
    if (counts()) {
        total += processor_us() - before;
        ++count;
    }
    return output;
}

void Measured::look(Machine& machine) {
    at(now_ + look_interval, [this, &machine] { look(machine); });
    if (machine.is_in_batch) return;
    const Look& look = machine.region->look();
    process(machine, timed(look_us_, looks_, [&] { return machine.core->look(now_, &look); }));
    if (!counts()) return;
    for (const auto& other : machines_) {
        if (other->number == machine.number) continue;
        const Freshness freshness = machine.core->freshness_of(ModelRegion::server_name(other->number), now_);
        sizing_.all_fresh = sizing_.all_fresh && freshness == Freshness::fresh;
    }
}

void Measured::process(Machine& machine, const Output& output) {
    for (const Send& each : output.sends) {
        if (const auto* const request = std::get_if<Request>(&each)) {
            at(now_ + latency(), [this, &machine, request = *request] { arrive(machine, request); });
        } else if (const auto* const watch = std::get_if<Watch>(&each)) {
            machine.watch = watch->id;
            std::vector<KeyValue> events;
            for (const KeyValue& change : etcd_.history()) {
                if (change.revision >= watch->from) events.push_back(change);
            }
            process(machine, machine.core->events(now_, {machine.watch, etcd_.cluster(), std::move(events)}));
        }
    }
    if (!output.batch) return;
    machine.is_in_batch = true;
    at(now_ + 1, [this, &machine, batch = *output.batch] { make(machine, batch); });
}

void Measured::make(Machine& machine, const Batch& batch) {
    machine.is_in_batch = false;
    BatchDone done{batch.id, true, {}};
    for (size_t each = 0; each < batch.calls.size(); ++each) {
        const Call& call = batch.calls[each];
        if (machine.region->value_at(call) != call.expected) {
            done.skipped.push_back(each);
            continue;
        }
        machine.region->make(call);
        const bool is_change = call.value[0] < changed_.size() && call.value[0] > 100;
        if (is_change && counts()) latencies_.push_back(now_ - changed_[call.value[0]]);
    }
    process(machine, timed(other_us_, others_, [&] { return machine.core->batch_done(now_, done); }));
}

void Measured::count(const Request& request) {
    if (!counts()) return;
    if (std::holds_alternative<KeepAlive>(request.body)) ++sizing_.keep_alives;
    const auto* const transaction = std::get_if<Transaction>(&request.body);
    if (!transaction) return;
    ++sizing_.transactions;
    for (const Put& put : transaction->puts) {
        sizing_.written += static_cast<double>(put.key.size() + put.value.size());
        if (put.key.find("/state/") != std::string::npos) ++sizing_.states;
    }
}

void Measured::arrive(Machine& machine, const Request& request) {
    count(request);
    const size_t before = etcd_.history().size();
    Answer answer = etcd_.answer(request, now_);
    answer.request = request.id;
    publish(before);
    at(now_ + latency(), [this, &machine, answer = std::move(answer)] {
        process(machine, timed(other_us_, others_, [&] { return machine.core->answer(now_, answer); }));
    });
}

void Measured::publish(size_t from) {
    if (from == etcd_.history().size()) return;
    const auto events = std::make_shared<const std::vector<KeyValue>>(
        etcd_.history().begin() + static_cast<ptrdiff_t>(from), etcd_.history().end());
    size_t size = answer_frame;
    for (const KeyValue& event : *events) {
        size += event_frame + in_base64(event.key.size()) + in_base64(event.value.value_or("").size());
    }
    for (const auto& each : machines_) {
        if (!each->watch) continue;
        if (counts()) sizing_.received += static_cast<double>(size);
        Machine& machine = *each;
        machine.last_delivery = std::max(machine.last_delivery, now_ + latency());
        at(machine.last_delivery, [this, &machine, events] {
            const Events arrived{machine.watch, etcd_.cluster(), *events};
            process(machine, timed(event_us_, deliveries_, [&] { return machine.core->events(now_, arrived); }));
        });
    }
}

}  // namespace

Sizing measure(const Cluster& cluster) {
    return Measured(cluster).run();
}

std::string heading() {
    return "| machines | changes/s on each | `gather_ms` | transactions/s | keep-alives/s | states/s | written | to "
           "each machine "
           "| shown after: median, p99, longest | a look, an event | processor of a bridge |\n"
           "|---|---|---|---|---|---|---|---|---|---|---|\n";
}

std::string to_text(const Cluster& cluster, const Sizing& sizing) {
    return fmt::format(
        "| {} | {} | {} | {:.0f} | {:.1f} | {:.0f} | {:.0f} kB/s | {:.0f} kB/s | {}, {}, {} ms | {:.0f}, {:.0f} µs | "
        "{:.1f} % of a core "
        "|\n",
        cluster.machines, cluster.changes, cluster.gather, sizing.transactions, sizing.keep_alives, sizing.states,
        sizing.written / 1e3, sizing.received / 1e3, sizing.median, sizing.p99, sizing.max, sizing.look, sizing.event,
        sizing.share * 100);
}

}  // namespace bridge::test
