// The live region: copies of it, which leave it as it is, and changes to it through the library.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "picture/error.h"
#include "picture/library.h"
#include "picture/snapshot.h"

namespace picture {

/// How the live region is reached.
struct Access {
    uint32_t lock_timeout_ms = 5'000;
    bool may_skip_lock = true;                          ///< copies take the lock only if they must; false: always
    std::function<void(const std::string&)> tell = {};  ///< receives what is opened and how it is copied; may be empty
    std::function<void()> took_over = {};  ///< told when a copy takes the lock over from an owner that ended (Windows)
};

inline constexpr const char* mapping_name = "oru_kzmshmnm_map";
inline constexpr const char* mutex_name = "oru_kzmshmnm_lock";

/// A name as the kernel knows it, with the prefix of the installation's namespace; escaped for a message.
std::string full_name(const char* name);

/// What opening an object of the region failed by.
ErrorKind kind_of_last_failure();

/// Why the kernel's last call failed and what to do about it, to stand after what failed.
std::string last_failure();

/// The lock's holder and how often it was taken over, in one line; "" if the system does not tell.
std::string describe_holder(void* mutex);

/// How a copy of the live region was made, in one line.
std::string how_copied(const Snapshot& copy);

/// The live region's number; 0 if there is no region or the system has no numbers.
uint64_t live_object();

/// The four counts of this machine's configuration, as the library would read them; nothing without a configuration.
std::optional<Counts> configured_counts();

class LiveRegion {
  public:
    explicit LiveRegion(const Access& access);
    ~LiveRegion();
    LiveRegion(const LiveRegion&) = delete;
    LiveRegion& operator=(const LiveRegion&) = delete;

    /// Copies the region without taking the lock if nobody owns it meanwhile; otherwise under the lock, which is held
    /// only for the copy. Snapshot::way says which. Between two copies nothing keeps the region alive: it ends with its
    /// last holder, and a later copy may show another region.
    /// @param[in] wanted           which bytes; a search for damage needs all of them
    /// @param[in] lock_timeout_ms  the longest wait for the lock, if shorter than the usual time-out
    /// @return nothing if there is no region
    /// @throws Error  the region is refused, or waiting for the lock timed out
    /// A user who may read the region and has no right to its lock gets a copy that equals the copy before it.
    std::optional<Snapshot> try_copy(Bytes wanted, uint32_t lock_timeout_ms = UINT32_MAX);
    /// @throws Error  the same, or there is no region
    Snapshot copy(Bytes wanted);

    /// Needs no lock. @throws Error  there is no region
    void expect();
    /// For commands that need only the lock. @throws Error  another user has a region and this user has none
    void expect_own();

    /// For a caller that holds the lock. Without the facts of the lock.
    Snapshot copy_locked(Bytes wanted = Bytes::in_use);

    /// Takes the lock, to write. @throws Error  timed out; the message names the holder
    void lock();
    /// Takes the lock if it is free. @return whether it was taken
    bool try_lock();
    void unlock();
    /// Takes the lock and releases it, if it is free and if the system does not count take-overs itself (Windows).
    /// @return whether its last owner had ended without releasing it
    bool take_over();

    /// The lock's mutex. @throws Error  this user may not use it
    void* mutex();
    /// Whether this user may read the region and has no right to its lock. If not, mutex() has the lock.
    /// @throws Error  this user may not use the lock, and is no reader
    bool is_reader();

  private:
    class View;

    std::unique_ptr<View> open();
    Snapshot empty_copy_of(const View& view, Bytes wanted) const;
    static void fill(Snapshot& snapshot, const View& view);
    void fill_with_lock_facts(Snapshot& snapshot, const View& view) const;
    bool copy_without_lock(Snapshot& snapshot, const View& view) const;
    void copy_with_lock(Snapshot& snapshot, const View& view, uint32_t timeout_ms);
    void copy_as_reader(Snapshot& snapshot, const View& view, uint32_t timeout_ms) const;
    [[noreturn]] void throw_no_lock(uint32_t timeout_ms);
    void tell(const char* what, const char* name);
    /// @return null if this user may not use it
    void* try_mutex();

    Access access_;
    BridgeReader bridge_;
    void* mutex_ = nullptr;
    bool told_ = false, told_mutex_ = false, is_reader_ = false;
};

/// The live region, mapped for writes other than the library's calls. It is unmapped at the end of this object's life.
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

/// The lock, taken to write and released at the end of this object's life.
class Locked {
  public:
    /// @throws Error  timed out
    explicit Locked(LiveRegion& region) : region_(region) { region_.lock(); }
    ~Locked() { region_.unlock(); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

  private:
    LiveRegion& region_;
};

/// @param[in] force  even if the counts that the region was laid out by differ from this machine's configuration
/// @throws Error  attaching would write other counts into the region's header
void expect_configured(const Snapshot& snapshot, bool force);

/// A change of the region. For its lifetime this process holds the lock and is attached to the region.
class Change {
  public:
    /// @param[in] force  as for expect_configured()
    /// @throws Error  there is no region, it differs from the configuration, or the library refuses
    Change(LiveRegion& region, bool force);
    ~Change();
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

    /// The region as it was when the lock was taken.
    const Snapshot& before() const { return before_; }

  private:
    LiveRegion& region_;
    Snapshot before_;
};

}  // namespace picture
