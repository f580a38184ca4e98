#include "source.h"

#include <utility>

#include "picture/error.h"

namespace shmnmweb {
namespace {

using picture::Bytes;
using picture::platform::LockHolder;

class LiveSource : public Source {
  public:
    std::optional<picture::Snapshot> copy(Bytes wanted) override { return region_.try_copy(wanted); }
    std::optional<LockHolder> lock() override { return picture::platform::lock_holder(region_.mutex()); }
    bool is_held(const LockHolder& lock) override { return lock.process != 0 && !picture::platform::has_ended(lock); }

  private:
    /// A stop of the server takes no longer than this.
    static constexpr uint32_t lock_timeout_ms = 1'000;

    picture::LiveRegion region_{{.lock_timeout_ms = lock_timeout_ms}};
};

class DumpSource : public Source {
  public:
    explicit DumpSource(const std::string& file) : snapshot_(picture::read_dump(file)) {}
    std::optional<picture::Snapshot> copy(Bytes) override { return snapshot_; }
    std::optional<LockHolder> lock() override { return std::nullopt; }
    bool is_held(const LockHolder&) override { return false; }

  private:
    picture::Snapshot snapshot_;
};

}  // namespace

std::unique_ptr<Source> live_source() {
    return std::make_unique<LiveSource>();
}

std::unique_ptr<Source> dump_source(const std::string& file) {
    return std::make_unique<DumpSource>(file);
}

}  // namespace shmnmweb
