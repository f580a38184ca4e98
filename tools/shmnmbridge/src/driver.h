// Runs the core: looks at the region each 50 ms, carries out what the core asks for, and writes the marks. All of it on
// one thread; only etcd has another.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>

#include "bridge_marks/live.h"
#include "configuration.h"
#include "core.h"
#include "etcd_trouble.h"
#include "region.h"
#include "transport.h"

namespace bridge {

class Driver {
  public:
    /// @throws etcd::Error     a setting cannot be used
    /// @throws picture::Error  the marks cannot be made
    explicit Driver(const Configuration& configuration);

    /// Runs until this process is asked to stop, then deletes this machine's keys, for which etcd has 2 s.
    void run();

  private:
    /// What fails again and again is logged once, and once it has ended.
    class Trouble {
      public:
        void tell(const std::string& trouble, const char* end);

      private:
        std::string told_;
    };

    /// Takes what has come, or waits for it until a time. @return whether this process may go on
    bool wait(Time until, std::deque<Transport::Received>& received);
    void take(const Transport::Received& received);
    void look();
    void tell_of(const Look& look);
    void carry_out(Output output);
    void write_marks();
    /// The marks of the region's servers come first if there is no room for all.
    void tell_of_room(Marks& marks);
    void tell_of_etcd(const Marks& marks);
    std::string why_cut_off() const;
    void feed_watchdog(Time now);
    void end();

    const Settings settings_;
    Region region_;
    Core core_;
    LiveMarks marks_;
    std::shared_ptr<const Look> last_;
    bool has_words_ = false;  ///< the last look found the own server
    Trouble region_trouble_, feed_trouble_, room_trouble_;
    EtcdTrouble etcd_trouble_;
    bool was_connected_ = false;
    Time watchdog_interval_, watchdog_at_ = 0;
    uint64_t signs_ = 0;

    std::mutex mutex_;
    std::condition_variable woken_;
    std::deque<Transport::Received> inbox_;
    bool stopping_ = false;
    Transport transport_;
};

}  // namespace bridge
