// A process of the cluster in the endurance run. It attaches, works under the lock at a moderate pace, and attaches
// anew now and then. It notes each value before and after the call that sets it, and checks before each call that the
// region still holds what the last one set.
//
//     soak_member write SERVER:PART... JOURNAL SHARED SEED   sets words of one server: `words`, `hb`, `np`
//     soak_member tables NAME JOURNAL SHARED SEED     adds and removes a server and two resources of this name
//     soak_member read NAME JOURNAL SHARED SEED       reads under the lock, and sees that nothing moves meanwhile
//
// First it writes a line with the keys of its words. "p" on standard input pauses it between two rounds, "g" lets it go
// on; it ends with standard input. SOAK_PLANT names faults that it is to have, so that the run's checks can be tested.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "journal.h"
#include "shmnm.h"

namespace {

using soak::Entry;
using soak::Journal;
using soak::SharedJournal;

constexpr uint32_t lock_timeout_ms = 30'000;
using Resource = std::pair<const char*, const char*>;
constexpr std::array<Resource, 3> hb_resources{{{"lan", "lanhb1"}, {"lan", "lanhb2"}, {"disk", "diskhb1"}}};
constexpr std::array<Resource, 2> np_resources{{{"ping", "pingnp1"}, {"majority", "majoritynp1"}}};

constexpr uint64_t first_value = 1'000;  // nothing but these processes sets values from here on

uint64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

template <typename Page>
Page& mapped(const char* file) {
    const int descriptor = open(file, O_RDWR | O_CLOEXEC);
    void* const memory =
        descriptor < 0 ? MAP_FAILED : mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (memory == MAP_FAILED) {
        std::perror(file);
        std::exit(1);
    }
    close(descriptor);
    return *static_cast<Page*>(memory);
}

/// Whether a process is gone or on its way out: the system passes its lock on before it is gone.
bool is_ending(uint64_t process) {
    std::string name = "/proc/";
    name += std::to_string(process);
    name += "/stat";
    FILE* const file = std::fopen(name.c_str(), "re");
    if (!file) return true;
    std::array<char, 1024> text{};
    const size_t size = std::fread(text.data(), 1, text.size() - 1, file);
    (void)std::fclose(file);
    const char* const after_name = size > 0 ? std::strrchr(text.data(), ')') : nullptr;
    char state = 'X';
    unsigned flags = 0;
    constexpr unsigned exiting = 0x4;
    // NOLINTNEXTLINE(cert-err34-c,bugprone-unchecked-string-to-number-conversion): the kernel's own numbers
    if (!after_name || std::sscanf(after_name, ") %c %*d %*d %*d %*d %*d %u", &state, &flags) != 2) return true;
    return state == 'Z' || state == 'X' || (flags & exiting) != 0;
}

/// A word that only this process sets.
struct Word {
    std::string key;
    std::function<uint32_t(uint32_t)> set;
    std::function<uint32_t(uint32_t*)> get;
};

class Member {
  public:
    Member(std::string role, std::string name, Journal& journal, SharedJournal& shared, uint32_t seed)
        : role_(std::move(role)), name_(std::move(name)), journal_(journal), shared_(shared), random_(seed) {
        if (const char* const plant = std::getenv("SOAK_PLANT")) plant_ = plant;
        if (role_ == "write") {
            const auto has = [parts = name_.substr(name_.find(':'))](const char* part) {
                return parts.find(part) != std::string::npos;
            };
            name_.resize(name_.find(':'));
            if (has(":words")) make_server_words();
            if (has(":hb")) make_hb_words();
            if (has(":np")) make_np_words();
        } else if (role_ == "tables") {
            make_table_words();
        }
        for (const Word& word : words_) std::printf("%s ", word.key.c_str());
        std::puts("");
        (void)std::fflush(stdout);
    }

    int run() {
        journal_.pid.set(static_cast<uint64_t>(getpid()));
        journal_.lives.add(1);
        attach();
        locked([&] { recover(); });
        journal_.state.set(soak::running);
        while (rest()) {
            locked([&] { work(); });
            journal_.rounds.add(1);
            if (is_planted("descriptor") && below(4) == 0) (void)open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (is_planted("memory")) leak();
            if (is_planted("file") && below(4) == 0) leave_a_file();
            if (below(40) == 0) {
                expect(shmnm_detach(), "shmnm_detach");
                attach();
            }
        }
        expect(shmnm_detach(), "shmnm_detach");
        return 0;
    }

  private:
    size_t below(size_t end) { return random_() % end; }
    [[nodiscard]] bool is_planted(std::string_view fault) const { return plant_.find(fault) != std::string::npos; }

    [[noreturn]] void fail(const std::string& problem) {
        (void)std::snprintf(journal_.problem.data(), journal_.problem.size(), "%s", problem.c_str());
        std::fprintf(stderr, "soak_member %s %s: %s\n", role_.c_str(), name_.c_str(), problem.c_str());
        std::exit(1);
    }
    void expect(uint32_t result, const char* call) {
        if (result != SHMNM_OK) fail(std::string(call) + " failed with code " + std::to_string(result));
    }

    void make_server_words() {
        const char* const server = name_.c_str();
        const auto of_server = [&](const char* word, auto setter, auto getter) {
            words_.push_back({"servers/" + name_ + "/" + word, [=](uint32_t value) { return setter(server, value); },
                              [=](uint32_t* value) { return getter(server, value); }});
        };
        of_server("nodestat", shmnm_setnodestat, shmnm_getnodestat);
        of_server("nodestat_nw", shmnm_setnodestat_nw, shmnm_getnodestat_nw);
        of_server("downnotifystat", shmnm_setdownnotifystat, shmnm_getdownnotifystat);
        of_server("isolateflag", shmnm_setisolateflag, shmnm_getisolateflag);
        of_server("pingstat", shmnm_setpingstat, shmnm_getpingstat);
        of_server("holdstat", shmnm_setholdstat, shmnm_getholdstat);
    }
    template <typename Setter, typename Getter>
    void add_pair(const char* table, const char* type, const char* resource, const char* row, Setter setter,
                  Getter getter) {
        const char* const server = name_.c_str();
        words_.push_back({std::string(table) + "/" + type + "/" + resource + "/" + row + "/" + name_,
                          [=](uint32_t value) { return setter(type, resource, priority_of(server), value); },
                          [=](uint32_t* value) { return getter(type, resource, priority_of(server), value); }});
    }
    void make_hb_words() {
        for (const auto& [type, resource] : hb_resources)
            add_pair("hb", type, resource, "svstat", shmnm_sethbrscsvstat, shmnm_gethbrscsvstat);
    }
    void make_np_words() {
        for (const auto& [type, resource] : np_resources)
            add_pair("np", type, resource, "svstat", shmnm_setnprscsvstat, shmnm_getnprscsvstat);
        for (const auto& [type, resource] : hb_resources)
            add_pair("hb", type, resource, "network", shmnm_setrscsvstat_nw, shmnm_getrscsvstat_nw);
    }
    static int32_t priority_of(const char* server) {
        int32_t priority = -1;
        (void)shmnm_getnodepri(server, &priority);
        return priority;
    }

    /// Records that are there (1) or not (0). They are the last of their tables, so no other record ever moves.
    void make_table_words() {
        constexpr int32_t priority = 99;
        const char* const name = name_.c_str();
        const auto is_there = [](uint32_t result, uint32_t* value) {
            *value = result == SHMNM_OK ? 1 : 0;
            return result == SHMNM_ERR_NOTFOUND ? uint32_t{SHMNM_OK} : result;
        };
        words_.push_back({"servers/" + name_ + "/pri",
                          [=](uint32_t value) { return value ? shmnm_addnode(name, priority) : shmnm_rmnode(name); },
                          [=](uint32_t* value) {
                              int32_t found = 0;
                              return is_there(shmnm_getnodepri(name, &found), value);
                          }});
        const auto resource = [&](const char* table, const char* type, auto add, auto remove, auto get) {
            words_.push_back({std::string(table) + "/" + type + "/" + name_ + "/pri",
                              [=](uint32_t value) { return value ? add(type, name, priority) : remove(type, name); },
                              [=](uint32_t* value) {
                                  uint32_t found = 0;
                                  return is_there(get(type, name, &found), value);
                              }});
        };
        resource("hb", "lan", shmnm_addhbrsc, shmnm_rmhbrsc, shmnm_gethbrscpri);
        resource("np", "ping", shmnm_addnprsc, shmnm_rmnprsc, shmnm_getnprscpri);
    }

    /// Attaches; waits while the configuration cannot be read, which the run causes now and then.
    void attach() {
        for (;;) {
            const uint32_t result = shmnm_attach();
            if (result == SHMNM_OK) break;
            if (result != SHMNM_ERR_LOADCONFIG) expect(result, "shmnm_attach");
            journal_.refused_attaches.add(1);
            poll(nullptr, 0, 50);
        }
        journal_.attaches.add(1);
    }

    /// Waits between two rounds, also for as long as it is paused. @return false at the end of standard input
    bool rest() {
        bool is_paused = false;
        int pause_ms = static_cast<int>(20 + below(120));
        for (;;) {
            pollfd input{STDIN_FILENO, POLLIN, 0};
            if (poll(&input, 1, is_paused ? -1 : pause_ms) == 0) return true;
            char order = 0;
            if (read(STDIN_FILENO, &order, 1) != 1) return false;
            if (order == 'p') {
                is_paused = true;
                journal_.state.set(soak::paused);
            } else if (order == 'k') {
                is_to_die_ = true;
                return true;
            } else if (order == 'g') {
                is_paused = false;
                journal_.state.set(soak::running);
            }
            pause_ms = 0;
        }
    }

    template <typename Work>
    void locked(const Work& do_work) {
        const uint64_t begin = now_ns();
        expect(shmnm_rwlock(lock_timeout_ms), "shmnm_rwlock");
        const uint64_t taken = now_ns();
        if (const uint64_t released = shared_.released_ns.get(); released > begin && shared_.owner.get() == 0) {
            journal_.hand_over_ns[journal_.hand_overs.get() % soak::max_hand_overs].set(taken -
                                                                                        std::min(taken, released));
            journal_.hand_overs.add(1);
        }
        if (const uint64_t dead = shared_.owner.get()) {
            if (!is_ending(dead)) shared_.overlaps.add(1);
            auto& place = shared_.takeover[shared_.takeovers.get() % soak::max_takeovers];
            place.dead.set(dead);
            place.asked_ns.set(begin);
            place.taken_ns.set(taken);
            shared_.takeovers.add(1);
        }
        shared_.owner.set(static_cast<uint64_t>(getpid()));
        shared_.takes.add(1);
        if (is_to_die_) die_in_a_call();
        do_work();
        if (below(4) == 0) poll(nullptr, 0, static_cast<int>(1 + below(25)));
        shared_.released_ns.set(now_ns());
        if (is_planted("handover")) poll(nullptr, 0, static_cast<int>(journal_.rounds.get() / 4));
        shared_.owner.set(0);
        shmnm_rwunlock();
    }

    /// What a call left that was interrupted. @return the value that the region holds
    uint32_t settle(Entry& entry, const std::string& key, uint32_t found) {
        const uint64_t begun = entry.begun.get(), done = entry.done.get();
        if (found != begun && found != done) {
            journal_.lost.add(1);
            (void)std::snprintf(journal_.problem.data(), journal_.problem.size(),
                                "%s is %u, but %" PRIu64 " was set and %" PRIu64 " was begun", key.c_str(), found, done,
                                begun);
        } else if (begun != done) {
            (found == begun ? journal_.kept : journal_.undone).add(1);
        }
        entry.begun.set(found);
        entry.done.set(found);
        return found;
    }

    uint32_t value_of(const Word& word) {
        uint32_t value = 0;
        expect(word.get(&value), word.key.c_str());
        return value;
    }

    void recover() {
        for (size_t i = 0; i < words_.size(); ++i) {
            Entry& entry = journal_.entries[i];
            const uint32_t found = value_of(words_[i]);
            if (journal_.is_filled.get() == 0) {
                entry.begun.set(found);
                entry.done.set(found);
            } else {
                settle(entry, words_[i].key, found);
            }
        }
        journal_.is_filled.set(1);
    }

    void set(Entry& entry, const Word& word, uint32_t value) {
        entry.begun.set(value);
        if (!is_planted("write") || journal_.sets.get() % 50 != 7) expect(word.set(value), word.key.c_str());
        entry.done.set(value);
        journal_.sets.add(1);
    }

    void work() {
        const uint32_t counted = settle_counter();
        if (role_ == "read") {
            see_that_nothing_moves(counted);
            return;
        }
        shared_.counter.begun.set(counted + 1);
        expect(shmnm_setwaitstat(counted + 1), "shmnm_setwaitstat");
        shared_.counter.done.set(counted + 1);
        for (size_t i = 0; i < words_.size(); ++i) {
            if (below(2) == 0) continue;
            Entry& entry = journal_.entries[i];
            const uint32_t found = settle(entry, words_[i].key, value_of(words_[i]));
            set(entry, words_[i],
                role_ == "tables" ? 1 - found : static_cast<uint32_t>(std::max(first_value, uint64_t{found} + 1)));
        }
    }

    void leak() {
        leaked_.push_back(std::make_unique<std::array<char, 32'768>>());
        leaked_.back()->fill(1);
    }

    /// Lets the system kill this process at any instruction of the calls that follow.
    [[noreturn]] void die_in_a_call() {
        sigevent kill{};
        kill.sigev_notify = SIGEV_SIGNAL;
        kill.sigev_signo = SIGKILL;
        timer_t timer{};
        if (timer_create(CLOCK_MONOTONIC, &kill, &timer) != 0) fail("timer_create failed");
        itimerspec when{};
        when.it_value.tv_nsec = static_cast<long>(1'000 + below(200'000));
        if (timer_settime(timer, 0, &when, nullptr) != 0) fail("timer_settime failed");
        for (;;) work();
    }

    uint32_t settle_counter() {
        uint32_t value = 0;
        expect(shmnm_getwaitstat(&value), "shmnm_getwaitstat");
        return settle(shared_.counter, "cluster/waitstat", value);
    }

    void see_that_nothing_moves(uint32_t counted) {
        const auto look = [&] {
            std::vector<uint8_t> bytes;
            int32_t size = 0;
            expect(shmnm_dump(nullptr, &size), "shmnm_dump");
            bytes.resize(static_cast<size_t>(size));
            expect(shmnm_dump(bytes.data(), &size), "shmnm_dump");
            return bytes;
        };
        // The bridge sets words under the lock, too.
        const std::vector<uint8_t> before = look();
        poll(nullptr, 0, static_cast<int>(below(10)));
        // An attach writes the configured counts, which are the same, so no byte may differ.
        if (look() != before || settle_counter() != counted) {
            journal_.lost.add(1);
            (void)std::snprintf(journal_.problem.data(), journal_.problem.size(),
                                "the region changed while this process held the lock");
        }
    }

    std::string role_, name_, plant_;
    bool is_to_die_ = false;
    std::vector<std::unique_ptr<std::array<char, 32'768>>> leaked_;
    Journal& journal_;
    SharedJournal& shared_;
    std::mt19937 random_;
    std::vector<Word> words_;

    void leave_a_file() {
        const char* const folder = std::getenv("KZM_INSTALL_PATH");
        const std::string name =
            std::string(folder ? folder : ".") + "/log/left." + std::to_string(journal_.rounds.get());
        const int descriptor = open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (descriptor >= 0) close(descriptor);
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fputs("usage: soak_member write|tables|read NAME JOURNAL SHARED SEED\n", stderr);
        return 2;
    }
    return Member(argv[1], argv[2], mapped<Journal>(argv[3]), mapped<SharedJournal>(argv[4]),
                  static_cast<uint32_t>(std::strtoul(argv[5], nullptr, 10)))
        .run();
}
