#include "driver.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "log.h"
#include "machine.h"
#include "picture/escape.h"
#include "picture/platform.h"

namespace bridge {
namespace {

/// Other machines' words are set at a look, so the next look is sooner once some have come.
constexpr Time look_interval = 50, soon = 20;
constexpr Time longest_end = 2'000;

Time now() {
    return static_cast<Time>(picture::platform::steady_clock_us() / 1'000);
}

/// Whether it tells of more than beats.
bool brings_words(const Transport::Received& received) {
    const auto* const events = std::get_if<Events>(&received);
    return events && std::any_of(events->events.begin(), events->events.end(),
                                 [](const KeyValue& change) { return change.key.find("/beat/") == std::string::npos; });
}

/// Adds the servers of which etcd has never told.
void add_servers(const Look& look, const std::string& own, Marks& marks) {
    for (const LookedServer& server : look.servers) {
        const auto is_server = [&server](const Mark& mark) { return mark.server == server.name; };
        if (server.name.empty() || server.name == own) continue;
        if (std::none_of(marks.servers.begin(), marks.servers.end(), is_server))
            marks.servers.push_back({.server = server.name});
    }
}

}  // namespace

void Driver::Trouble::tell(const std::string& trouble, const char* end) {
    if (trouble == told_) return;
    log(trouble.empty() ? end : trouble);
    told_ = trouble;
}

Driver::Driver(const Configuration& configuration)
    : settings_(configuration.bridge),
      core_(configuration.bridge),
      etcd_trouble_(configuration.bridge.limit()),
      watchdog_interval_(static_cast<Time>(watchdog_us() / 2'000)),
      transport_(configuration.etcd, {.receive =
                                          [this](Transport::Received received) {
                                              const std::scoped_lock hold(mutex_);
                                              inbox_.push_back(std::move(received));
                                              woken_.notify_one();
                                          },
                                      .stop =
                                          [this] {
                                              const std::scoped_lock hold(mutex_);
                                              stopping_ = true;
                                              woken_.notify_one();
                                          }}) {}

bool Driver::wait(Time until, std::deque<Transport::Received>& received) {
    std::unique_lock hold(mutex_);
    woken_.wait_for(hold, std::chrono::milliseconds(std::max<Time>(until - now(), 0)),
                    [this] { return stopping_ || !inbox_.empty(); });
    received.swap(inbox_);
    return !stopping_;
}

void Driver::run() {
    Time look_at = now(), looked_at = look_at;
    std::deque<Transport::Received> received;
    while (wait(look_at, received)) {
        for (const Transport::Received& each : received) {
            take(each);
            if (brings_words(each)) look_at = std::min(look_at, looked_at + soon);
        }
        received.clear();
        const Time begin = now();
        if (begin < look_at) continue;
        looked_at = begin;
        look_at = begin + look_interval;
        look();
        write_marks();
        feed_watchdog(begin);
    }
    end();
}

void Driver::take(const Transport::Received& received) {
    if (const auto* const answer = std::get_if<Answer>(&received)) carry_out(core_.answer(now(), *answer));
    if (const auto* const events = std::get_if<Events>(&received)) carry_out(core_.events(now(), *events));
    if (const auto* const ended = std::get_if<WatchEnded>(&received)) carry_out(core_.watch_ended(now(), *ended));
}

void Driver::look() {
    const Region::Seen seen = region_.look();
    has_words_ = seen.look && seen.look->find_server(settings_.server);
    if (seen.look) tell_of(*seen.look);
    if (!seen.look) region_trouble_.tell(seen.problem, "");
    if (!seen.failed) last_ = seen.look;
    carry_out(seen.failed ? core_.look_failed(now()) : core_.look(now(), seen.look.get()));
}

void Driver::tell_of(const Look& look) {
    std::string trouble;
    if (!look.configured) {
        trouble =
            "this machine's configuration cannot be read: nothing is fed into the region; see \"shmnmctl verify "
            "--config\"";
    } else if (look.counts != look.configured) {
        trouble = fmt::format(
            "the region has {}, this machine's configuration has {}: nothing is fed into it until they "
            "are equal",
            picture::to_text(look.counts), picture::to_text(*look.configured));
    } else if (!look.find_server(settings_.server)) {
        trouble = fmt::format(
            "the region has no server {}: nothing is written to etcd; add it, or correct the name in "
            "the configuration",
            settings_.server);
    }
    region_trouble_.tell(trouble, "the region is bridged");
}

void Driver::carry_out(Output output) {
    for (const std::string& notice : output.notices) log(notice);
    transport_.send(std::move(output.sends));
    if (!output.batch) return;
    const Region::Made made = region_.make(*output.batch);
    if (made.done.made || !made.problem.empty()) feed_trouble_.tell(made.problem, "the region is fed again");
    carry_out(core_.batch_done(now(), made.done));
}

void Driver::write_marks() {
    Marks marks = core_.marks(now());
    marks.member = transport_.member();
    if (last_) add_servers(*last_, settings_.server, marks);
    marks.longest_hold_us = region_.longest_hold_us();
    tell_of_room(marks);
    tell_of_etcd(marks);
    marks_.write(marks);
}

void Driver::tell_of_room(Marks& marks) {
    const size_t servers = marks.servers.size();
    if (servers <= marked_servers) return room_trouble_.tell("", "all servers are marked again");
    std::stable_partition(marks.servers.begin(), marks.servers.end(),
                          [](const Mark& mark) { return !mark.is_unmatched; });
    room_trouble_.tell(fmt::format("only {} servers can be marked, the region and etcd have more: remove the servers "
                                   "that are gone; see \"shmnmbridge status\"",
                                   marked_servers),
                       "");
}

std::string Driver::why_cut_off() const {
    const char* const words = settings_.reset_when_cut_off ? "the other machines' states are set to unknown"
                                                           : "the other machines' words stay as they are";
    if (etcd_trouble_.is_on())
        return fmt::format("cut off from etcd ({}): {}", transport_.outcomes().last_failure, words);
    if (!has_words_) {
        return fmt::format("not connected: no beat is written without a copy of the region that has the server {}",
                           settings_.server);
    }
    return fmt::format("cut off from etcd (no beat has come back for {} ms): {}", settings_.limit(), words);
}

void Driver::tell_of_etcd(const Marks& marks) {
    const std::string line = etcd_trouble_.step(now(), transport_.outcomes());
    if (!line.empty()) log(line);
    if (marks.is_connected == was_connected_) return;
    was_connected_ = marks.is_connected;
    if (was_connected_) return log(fmt::format("connected to etcd at {}", marks.member));
    log(why_cut_off());
}

void Driver::feed_watchdog(Time now) {
    if (watchdog_interval_ == 0 || now < watchdog_at_) return;
    // The thread for etcd must be alive as well.
    if (watchdog_at_ != 0 && transport_.signs() == signs_) return;
    signs_ = transport_.signs();
    transport_.ask_for_sign();
    notify_service_manager("WATCHDOG=1");
    watchdog_at_ = now + watchdog_interval_;
}

void Driver::end() {
    notify_service_manager("STOPPING=1");
    Output last = core_.end(now());
    if (last.sends.empty()) return;
    const auto request = std::get<Request>(last.sends.back());
    transport_.send(std::move(last.sends));
    const Time until = now() + longest_end;
    std::unique_lock hold(mutex_);
    while (woken_.wait_for(hold, std::chrono::milliseconds(std::max<Time>(until - now(), 0)),
                           [this] { return !inbox_.empty(); })) {
        const auto received = std::move(inbox_.front());
        inbox_.pop_front();
        const auto* const answer = std::get_if<Answer>(&received);
        if (!answer || answer->request != request.id) continue;
        // If the compare failed, the claim is gone already.
        if (answer->outcome == Outcome::done || answer->outcome == Outcome::compare_failed) return;
        woken_.wait_for(hold, std::chrono::milliseconds(settings_.retry), [] { return false; });
        transport_.send({request});
    }
    log("etcd has not confirmed the end in time: the claim ends with its lease");
}

}  // namespace bridge
