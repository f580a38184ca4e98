#include "source.h"

#include <utility>

#include "picture/error.h"
#include "picture/laid_out.h"
#include "picture_http/remote.h"

namespace shmnmweb {
namespace {

using picture::Bytes;
using picture::platform::LockHolder;

class LiveSource : public Source {
  public:
    explicit LiveSource(std::function<void()> took_over)
        : region_({.lock_timeout_ms = lock_timeout_ms, .took_over = std::move(took_over)}) {}
    std::optional<picture::Snapshot> copy(Bytes wanted) override { return region_.try_copy(wanted); }
    std::optional<LockHolder> lock() override {
        if (region_.is_reader()) return std::nullopt;
        return picture::platform::lock_holder(region_.mutex());
    }
    bool is_held(const LockHolder& lock) override { return lock.process != 0 && !picture::platform::has_ended(lock); }

  private:
    /// A stop of the server takes no longer than this.
    static constexpr uint32_t lock_timeout_ms = 1'000;

    picture::LiveRegion region_;
};

class RemoteSource : public Source {
  public:
    explicit RemoteSource(const std::string& address) : remote_(address, {}) {}
    std::optional<picture::Snapshot> copy(Bytes wanted) override {
        auto arrival = remote_.try_copy(wanted);
        if (!arrival) return std::nullopt;
        is_held_ = arrival->is_lock_held;
        return std::move(arrival->snapshot);
    }
    std::optional<LockHolder> lock() override { return std::nullopt; }
    /// Its process is of another machine, or of a user that cannot be looked at.
    bool is_held(const LockHolder&) override { return is_held_; }

  private:
    picture_http::Remote remote_;
    bool is_held_ = false;
};

class DumpSource : public Source {
  public:
    explicit DumpSource(const std::string& file) : snapshot_(picture::read_dump(file)) {
        static_cast<void>(picture::settle_dump(snapshot_, file));
    }
    std::optional<picture::Snapshot> copy(Bytes) override { return snapshot_; }
    std::optional<LockHolder> lock() override { return std::nullopt; }
    bool is_held(const LockHolder&) override { return false; }

  private:
    picture::Snapshot snapshot_;
};

}  // namespace

std::unique_ptr<Source> live_source(std::function<void()> took_over) {
    return std::make_unique<LiveSource>(std::move(took_over));
}

std::unique_ptr<Source> remote_source(const std::string& address) {
    return std::make_unique<RemoteSource>(address);
}

std::unique_ptr<Source> dump_source(const std::string& file) {
    return std::make_unique<DumpSource>(file);
}

}  // namespace shmnmweb
