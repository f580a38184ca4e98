// The local processes of one machine in one program: it makes the region, sets words to rising numbers, and watches
// what the region shows.
//
//     bridge_machine SERVER FIRST_NUMBER LOOKS_PER_SECOND
//
// Commands, one per line of standard input:
//     make SERVER...       makes the region with these servers and three resources
//     rate COUNT           from now on so many changes of the own server's words each second
//     agree WORD NUMBER    sets waitstat, bwflag, bwflagdisk, clstat or, to a pair of the number, hbinfo
//     foreign SERVER NUMBER  sets pingstat of another server
//     hold, release        takes the region's lock and gives it back
//     clear                clears the region and registers its members again
// Each is answered with "done" or "failed RESULT".
//
// Lines of standard output; TIME is nanoseconds of the steady clock:
//     w TIME KEY NUMBER    this program has set a word
//     s TIME KEY NUMBER    the region now shows a number that the last look did not show
//     r TIME NUMBER        1: there is a region, 0: there is none
//     m TIME SERVER MARK   the bridge's mark of another server: fresh, silent, unknown, or none without a bridge
#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bridge_marks/live.h"
#include "core_words.h"
#include "picture/error.h"
#include "picture/held_region.h"
#include "picture/live.h"
#include "shmnm.h"

namespace {

using Clock = std::chrono::steady_clock;

std::mutex output;

/// Writes a line of words.
template <typename... Words>
void say(const char* first, const Words&... others) {
    const std::lock_guard guard(output);
    std::cout << first;
    ((std::cout << ' ' << others), ...);
    std::cout << std::endl;
}

int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

/// A thread that acts at a steady rate.
class Paced {
  public:
    explicit Paced(std::function<void()> act) : act_(std::move(act)), thread_([this] { run(); }) {}
    ~Paced() {
        {
            const std::lock_guard guard(mutex_);
            ended_ = true;
        }
        changed_.notify_one();
        thread_.join();
    }
    Paced(const Paced&) = delete;
    Paced& operator=(const Paced&) = delete;

    void set_rate(unsigned per_second) {
        {
            const std::lock_guard guard(mutex_);
            interval_ = std::chrono::nanoseconds(per_second ? 1'000'000'000 / per_second : 0);
            next_ = Clock::now();
        }
        changed_.notify_one();
    }

  private:
    void run() {
        std::unique_lock guard(mutex_);
        while (!ended_) {
            if (interval_.count() == 0) {
                changed_.wait(guard);
            } else if (Clock::now() < next_) {
                changed_.wait_until(guard, next_);
            } else {
                next_ = std::max(next_ + interval_, Clock::now());
                guard.unlock();
                act_();
                guard.lock();
            }
        }
    }

    std::function<void()> act_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool ended_ = false;
    std::chrono::nanoseconds interval_{0};
    Clock::time_point next_;
    std::thread thread_;
};

/// The words that local processes set.
class Writer {
  public:
    Writer(std::string server, uint32_t first) : server_(std::move(server)), number_(first) {}

    void write() {
        struct Word {
            const char* key;
            std::function<uint32_t(uint32_t)> set;
        };
        const std::vector<Word> words = {
            {"servers/{}/pingstat", [&](uint32_t number) { return shmnm_setpingstat(server_.c_str(), number); }},
            {"servers/{}/nodestat", [&](uint32_t number) { return shmnm_setnodestat(server_.c_str(), number); }},
            {"hb/lan/lan1/svstat/{}",
             [&](uint32_t number) { return shmnm_sethbrscsvstat("lan", "lan1", priority(), number); }},
            {"servers/{}/holdstat", [&](uint32_t number) { return shmnm_setholdstat(server_.c_str(), number); }},
            {"hb/lan/lan1/network/{}",
             [&](uint32_t number) { return shmnm_setrscsvstat_nw("lan", "lan1", priority(), number); }},
            {"np/ping/ping1/svstat/{}",
             [&](uint32_t number) { return shmnm_setnprscsvstat("ping", "ping1", priority(), number); }},
        };
        if (shmnm_rwlock(1'000) != SHMNM_OK) return;
        const Word& word = words[++turn_ % words.size()];
        const uint32_t number = number_++;
        const uint32_t result = word.set(number);
        shmnm_rwunlock();
        std::string key = word.key;
        key.replace(key.find("{}"), 2, server_);
        if (result == SHMNM_OK) say("w", now(), key, number);
    }

  private:
    int32_t priority() const {
        int32_t priority = 0;
        shmnm_getnodepri(server_.c_str(), &priority);
        return priority;
    }

    const std::string server_;
    uint32_t number_;
    size_t turn_ = 0;
};

/// What the region shows, by keys.
using Shown = std::map<std::string, uint32_t>;

Shown shown_by(const bridge::Look& look) {
    Shown shown;
    for (size_t word = 0; word < bridge::header_words.size(); ++word) {
        shown[std::string("cluster/") + bridge::header_words[word]] = look.header[word][0];
    }
    for (const bridge::LookedServer& server : look.servers) {
        for (size_t word = 0; word < bridge::server_words.size(); ++word) {
            shown["servers/" + server.name + '/' + bridge::server_words[word]] = server.words[word];
        }
    }
    for (const bridge::LookedResource& resource : look.resources) {
        shown[resource.key + "/stat"] = resource.stat;
        for (size_t position = 0; position < look.servers.size() && position < resource.cells.size(); ++position) {
            const std::string& server = look.servers[position].name;
            shown[resource.key + "/svstat/" + server] = resource.cells[position].svstat;
            if (resource.is_hb()) shown[resource.key + "/network/" + server] = resource.cells[position].network;
        }
    }
    return shown;
}

/// Tells what changes in the region and in the bridge's marks.
class Watcher {
  public:
    void look() {
        // What a mark calls fresh is shown by a region that is looked at after the mark was read.
        std::optional<Marked> marked;
        if (++looks_ % looks_per_marks == 0) marked = look_at_marks();
        const bool is_looked_at = look_at_region();
        if (marked) tell(*marked, is_looked_at);
    }

  private:
    using Marked = std::map<std::string, std::string>;

    /// @return whether there is a region that could be copied, or none
    bool look_at_region() {
        try {
            const auto copy = region_.try_copy(picture::Bytes::in_use, 0);
            const int64_t time = now();
            if (copy.has_value() != is_there_) {
                is_there_ = copy.has_value();
                shown_.clear();
                say("r", time, is_there_ ? 1 : 0);
            }
            if (!copy) return true;
            Shown shown = shown_by(bridge::reduced(*copy));
            for (const auto& [key, number] : shown) {
                const auto before = shown_.find(key);
                if (before == shown_.end() || before->second != number) {
                    say("s", time, key, number);
                }
            }
            shown_ = std::move(shown);
            return true;
        } catch (const picture::Error&) {
            // The lock is held, or the region is being made.
            return false;
        }
    }

    Marked look_at_marks() const {
        constexpr std::array names = {"unknown", "fresh", "silent"};
        Marked marked;
        for (const auto& [server, mark] : marked_) marked[server] = "none";
        if (const auto marks = bridge::read_live_marks()) {
            for (const bridge::Mark& mark : marks->marks.servers) {
                marked[mark.server] = names.at(static_cast<size_t>(mark.freshness));
            }
        }
        return marked;
    }

    /// A mark that says fresh is told only when what it speaks of has been told.
    void tell(const Marked& marked, bool is_looked_at) {
        const int64_t time = now();
        for (const auto& [server, mark] : marked) {
            if (marked_[server] == mark || (mark == "fresh" && !is_looked_at)) continue;
            say("m", time, server, mark);
            marked_[server] = mark;
        }
    }

    static constexpr unsigned looks_per_marks = 8;

    picture::LiveRegion region_{picture::Access()};
    unsigned looks_ = 0;
    Shown shown_;
    Marked marked_;
    bool is_there_ = false;
};

uint32_t register_members(const std::vector<std::string>& servers) {
    for (size_t i = 0; i < servers.size(); ++i) {
        const uint32_t result = shmnm_addnode(servers[i].c_str(), static_cast<int32_t>(i));
        if (result != SHMNM_OK) return result;
    }
    uint32_t result = shmnm_addhbrsc("lan", "lan1", 0);
    if (result == SHMNM_OK) result = shmnm_addhbrsc("disk", "disk1", 1);
    if (result == SHMNM_OK) result = shmnm_addnprsc("ping", "ping1", 0);
    return result;
}

uint32_t set_agreed(const std::string& word, uint32_t number) {
    if (word == "waitstat") return shmnm_setwaitstat(number);
    if (word == "bwflag") return shmnm_setbwflag(number);
    if (word == "bwflagdisk") return shmnm_setbwflagdisk(number);
    if (word == "clstat") return shmnm_setclstat(number);
    return shmnm_sethbinfo_ex(static_cast<int32_t>(number), static_cast<int32_t>(number));
}

class Commands {
  public:
    explicit Commands(Paced& writer) : writer_(writer) {}

    uint32_t carry_out(std::istringstream& words) {
        std::string name;
        words >> name;
        if (name == "make") {
            for (std::string server; words >> server;) servers_.push_back(server);
            const uint32_t result = shmnm_create();
            return result == SHMNM_OK ? locked([this] { return register_members(servers_); }) : result;
        }
        if (name == "clear") {
            return locked([this] {
                // Only a process that maps the region writes its maxima. Meanwhile the region must not end.
                const auto held = picture::HeldRegion::open();
                uint32_t result = shmnm_clear();
                if (result == SHMNM_OK) result = shmnm_delete();
                if (result == SHMNM_OK) result = shmnm_create();
                return result == SHMNM_OK ? register_members(servers_) : result;
            });
        }
        if (name == "hold") return shmnm_rwlock(10'000);
        if (name == "release") return shmnm_rwunlock();
        std::string key;
        uint32_t number = 0;
        if (name == "rate" && words >> number) {
            writer_.set_rate(number);
            return SHMNM_OK;
        }
        if (!(words >> key >> number)) return SHMNM_ERR_PARAM;
        if (name == "agree") {
            return locked([&] {
                const uint32_t result = set_agreed(key, number);
                if (result == SHMNM_OK) say("w", now(), "cluster/" + key, number);
                return result;
            });
        }
        if (name == "foreign") return locked([&] { return shmnm_setpingstat(key.c_str(), number); });
        return SHMNM_ERR_PARAM;
    }

  private:
    template <typename Act>
    static uint32_t locked(Act act) {
        uint32_t result = shmnm_rwlock(10'000);
        if (result != SHMNM_OK) return result;
        result = act();
        shmnm_rwunlock();
        return result;
    }

    Paced& writer_;
    std::vector<std::string> servers_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    Writer writer(argv[1], static_cast<uint32_t>(std::stoul(argv[2])));
    Watcher watcher;
    say("clock", now());
    Paced writes([&writer] { writer.write(); });
    Paced looks([&watcher] { watcher.look(); });
    looks.set_rate(static_cast<unsigned>(std::stoul(argv[3])));
    Commands commands(writes);
    for (std::string line; std::getline(std::cin, line);) {
        if (line.ends_with('\r')) line.pop_back();
        std::istringstream words(line);
        const uint32_t result = commands.carry_out(words);
        if (result == SHMNM_OK) {
            say("done");
        } else {
            say("failed", result);
        };
    }
    return 0;
}
