// The live region: copies of it that change nothing, and a way to change it through the library.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "picture/library.h"
#include "picture/snapshot.h"

namespace picture {

/// How the live region is reached.
struct Access {
    uint32_t lock_timeout_ms = 5'000;
    std::function<void(const std::string&)> tell;  ///< is told what is opened; may be empty
};

inline constexpr const char* mapping_name = "oru_kzmshmnm_map";
inline constexpr const char* mutex_name = "oru_kzmshmnm_lock";

/// A name as the kernel knows it: with the namespace of the installation before it, escaped for a message.
std::string full_name(const char* name);

/// Who holds the lock and how often it was taken over, in one line; "" where nothing is known.
std::string describe_holder(void* mutex);

/// The live region's number; 0: there is none, or it has no number.
uint64_t live_object();

/// The four counts of this machine's configuration, as the library would read them; nothing when there is none.
std::optional<Counts> configured_counts();

class LiveRegion {
  public:
    explicit LiveRegion(const Access& access);
    ~LiveRegion();
    LiveRegion(const LiveRegion&) = delete;
    LiveRegion& operator=(const LiveRegion&) = delete;

    /// Copies the region under the lock, which is held for the copy alone. Between two copies nothing keeps the region
    /// alive: when its last holder leaves it ends, and a later copy may be one of another region.
    /// @param[in] lock_timeout_ms  at most so long is waited for the lock, where that is shorter than usual
    /// @return nothing: there is no region
    /// @throws Error  the region is refused or the lock does not come
    std::optional<Snapshot> try_copy(uint32_t lock_timeout_ms = UINT32_MAX);
    /// @throws Error  also when there is no region
    Snapshot copy();

    /// Needs no lock. @throws Error  there is no region
    void expect();
    /// For what needs the lock alone. @throws Error  there is no region for this user, but one for another
    void expect_own();

    /// As copy(), for a caller that holds the lock.
    Snapshot copy_locked();

    /// Takes the lock, to write. @throws Error  it does not come in time; the line says who holds it
    void lock();
    /// Takes the lock if that needs no waiting. @return whether it was taken
    bool try_lock();
    void unlock();

    /// The lock's mutex.
    void* mutex();

  private:
    class View;

    std::unique_ptr<View> open();
    Snapshot copy_of(const View& view, const std::optional<Counts>& configured) const;
    [[noreturn]] void throw_no_lock(uint32_t timeout_ms);
    void tell(const char* what, const char* name);

    Access access_;
    void* mutex_ = nullptr;
    bool told_ = false;
};

/// The live region mapped to be written to by other means than the library's calls, as long as this lives.
class WritableRegion {
  public:
    /// @throws Error  there is no region, or it is refused
    WritableRegion();
    ~WritableRegion();
    WritableRegion(const WritableRegion&) = delete;
    WritableRegion& operator=(const WritableRegion&) = delete;

    uint8_t* base() const { return base_; }
    uint64_t size() const;
    uint64_t object() const;

  private:
    void* mapping_;
    uint8_t* base_;
};

/// The lock, taken to write. It is given back with this.
class Locked {
  public:
    /// @throws Error  it does not come in time
    explicit Locked(LiveRegion& region) : region_(region) { region_.lock(); }
    ~Locked() { region_.unlock(); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

  private:
    LiveRegion& region_;
};

/// A change of the region: the lock held, the region attached to. Both end with it.
class Change {
  public:
    /// @param[in] force  also when the region was laid out by counts other than this machine's configuration has
    /// @throws Error  there is no region, it differs from the configuration, or the library refuses
    Change(LiveRegion& region, bool force);
    ~Change();
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

    /// The region as it was when the lock came.
    const Snapshot& before() const { return before_; }

  private:
    LiveRegion& region_;
    Snapshot before_;
};

}  // namespace picture
