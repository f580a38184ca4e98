#include "picture/live.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "kzmutil.h"
#include "kzmxml.h"
#include "picture/cluster_file.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "picture/in_use.h"
#include "picture/platform.h"
#include "picture/repeated_copy.h"

namespace picture {
namespace {

constexpr uint32_t map_read = 4, all_access = 0xF001F, error_not_found = 2, error_access_denied = 5;

std::string with_prefix(const char* name) {
    return platform::object_prefix() + name;
}

/// @throws Error  the region lives, but for another user
void refuse_region_of_another_user() {
    const auto user = platform::other_user_of(with_prefix(mapping_name));
    if (!user) return;
    throw Error(ErrorKind::failed, fmt::format("the region {} belongs to user {}; run this as that user",
                                               full_name(mapping_name), printable(*user)));
}

/// The integer at a path of the loaded configuration, or its fallback.
int32_t count(const char* path, int32_t fallback) {
    int32_t value = 0, length = sizeof value;
    return xmllib_get_value(path, 1, &value, &length) == XMLLIB_OK ? value : fallback;
}

Error no_region() {
    refuse_region_of_another_user();
    return {ErrorKind::no_region, fmt::format("no process holds the region {}", full_name(mapping_name))};
}

Error refused_lock() {
    return {kind_of_last_failure(), fmt::format("cannot open the lock {} {}", full_name(mutex_name), last_failure())};
}

}  // namespace

std::string full_name(const char* name) {
    return printable(with_prefix(name));
}

ErrorKind kind_of_last_failure() {
    return platform::last_error() == error_access_denied ? ErrorKind::region_refused : ErrorKind::failed;
}

std::string last_failure() {
    const uint32_t error = platform::last_error();
    if (const std::string known = platform::explanation(); !known.empty()) {
        return fmt::format("(error {}): {}", error, printable(known));
    }
    return fmt::format("(error {}); {}", error,
                       error == error_access_denied ? "run this as the user who runs the cluster"
                                                    : "see the trace log and the system's log");
}

uint64_t live_object() {
    void* const mapping = KzmutilOpenNamedFileMapping(map_read, 0, mapping_name);
    const uint64_t number = mapping ? platform::object_number(mapping) : 0;
    if (mapping) platform::close(mapping);
    return number;
}

std::string describe_holder(void* mutex) {
    const auto holder = platform::lock_holder(mutex);
    if (!holder) return "";  // branch: only Windows does not tell
    std::string text;
    if (holder->process == 0) {
        text = "nobody holds it now";
    } else if (platform::has_ended(*holder)) {
        text = fmt::format("nobody holds it now: process {} thread {} ended with it, and the next one takes it over",
                           holder->process, holder->thread);
    } else {
        const auto process = platform::process(holder->process);
        text = fmt::format("held by process {} thread {}", holder->process, holder->thread);
        // branch by chance: it ends at that moment
        text += process ? fmt::format(" (\"{}\", {})", printable(process->command), process->state)
                        : std::string(" (which has ended)");
        text += fmt::format(" since {}", platform::to_text(holder->since_ns / 1'000));
    }
    text += fmt::format("; taken over {} {} from an owner that ended", holder->takeovers,
                        holder->takeovers == 1 ? "time" : "times");
    if (holder->takeovers > 0) {
        text += fmt::format(", last at {}", platform::to_text(holder->last_takeover_ns / 1'000));
    }
    return text;
}

std::string how_copied(const Snapshot& copy) {
    const char* const what = copy.wanted == Bytes::in_use ? "the bytes in use" : "all bytes";
    switch (copy.way) {  // branch: each has its case
        case CopyWay::without_lock:
            return fmt::format("copied {} without the lock", what);
        case CopyWay::as_owner:
            return fmt::format("copied {} as the owner of the lock", what);
        case CopyWay::by_reader:
            return fmt::format("copied {} without a right to the lock: two of {} copies in a row were equal", what,
                               copy.tries);
        case CopyWay::with_lock:
            break;
    }
    return fmt::format("copied {} with the lock: waited {} us for it, held it for {} us", what, copy.lock_wait_us,
                       copy.lock_held_us);
}

std::optional<Counts> configured_counts() {
    if (xmllib_init("picture") != XMLLIB_OK) return std::nullopt;
    std::optional<Counts> counts;
    if (xmllib_load_config(0) == XMLLIB_OK) {
        counts = Counts{128, 16, 16, 1};
        if (xmllib_load_policy("all") == XMLLIB_OK) {
            counts = Counts{count("/root/all/num/server", 128), count("/root/all/num/hbr", 16),
                            count("/root/all/num/npr", 16), count("/root/all/num/fstr", 1)};
            xmllib_unload_policy("all");
        }
        xmllib_unload_config();
    }
    xmllib_term();
    return counts;
}

/// The region mapped for reading, as long as this lives.
class LiveRegion::View {
  public:
    /// @param[in] mapping  closed at the end of this object's life
    explicit View(void* mapping) : mapping_(mapping), base_(platform::map_for_reading(mapping)) {
        if (base_) return;
        throw Error(ErrorKind::failed,
                    fmt::format("cannot map the region {} {}", full_name(mapping_name), last_failure()));
    }
    ~View() {
        platform::unmap(base_);
        platform::close(mapping_);
    }
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    uint64_t size() const { return platform::view_size(base_); }
    uint64_t object() const { return platform::object_number(mapping_); }

    /// Copies the words of a piece, each at once.
    void copy(std::vector<uint8_t>& bytes, uint64_t offset, uint64_t size) const {
        auto* const words = reinterpret_cast<uint32_t*>(bytes.data() + offset);
        const size_t first = offset / sizeof *words;
        for (size_t i = 0; i < size / sizeof *words; ++i) words[i] = load(first + i);
    }

  private:
    uint32_t load(size_t index) const {
        auto* const words = static_cast<uint32_t*>(const_cast<void*>(base_));
        return std::atomic_ref<uint32_t>(words[index]).load(std::memory_order_relaxed);
    }

    void* mapping_;
    const void* base_;
};

LiveRegion::LiveRegion(const Access& access) : access_(access) {}

LiveRegion::~LiveRegion() {
    if (mutex_) platform::close(mutex_);
}

void LiveRegion::tell(const char* what, const char* name) {
    if (access_.tell) access_.tell(fmt::format("opens the {} {}", what, full_name(name)));
}

void* LiveRegion::try_mutex() {
    if (mutex_) return mutex_;
    if (!told_mutex_) tell("mutex", mutex_name);
    told_mutex_ = true;
    return mutex_ = KzmutilCreateNamedMutex(0, mutex_name);
}

void* LiveRegion::mutex() {
    if (!try_mutex()) throw refused_lock();
    return mutex_;
}

// The lock is also refused if others could change it. Its own user may write to the region, so that refusal stays an
// error.
bool LiveRegion::is_reader() {
    if (is_reader_ || try_mutex()) return is_reader_;  // branch: only Windows has readers
    const Error refused = refused_lock();
    is_reader_ = platform::may_only_read(mapping_name);
    if (is_reader_) return true;  // branch: only Windows has readers
    throw Error(refused);
}

std::unique_ptr<LiveRegion::View> LiveRegion::open() {
    if (!told_) tell("region", mapping_name);
    told_ = true;
    std::unique_ptr<void, void (*)(void*)> mapping(KzmutilOpenNamedFileMapping(map_read, 0, mapping_name),
                                                   platform::close);
    if (mapping) {
        auto view = std::make_unique<View>(mapping.get());
        static_cast<void>(mapping.release());
        return view;
    }
    if (platform::last_error() == error_not_found) return nullptr;
    throw Error(kind_of_last_failure(),
                fmt::format("cannot open the region {} {}", full_name(mapping_name), last_failure()));
}

void LiveRegion::throw_no_lock(uint32_t timeout_ms) {
    const std::string holder = describe_holder(mutex_);
    const char* const before = holder.empty() ? "" : "; ";  // branch: only Windows does not tell
    throw Error(ErrorKind::lock_timeout,
                fmt::format("timed out after {} ms waiting for the lock{}{}", timeout_ms, before, holder));
}

void LiveRegion::lock() {
    mutex();
    if (library().shmnm_rwlock(access_.lock_timeout_ms) != SHMNM_OK) throw_no_lock(access_.lock_timeout_ms);
}

bool LiveRegion::try_lock() {
    mutex();
    return library().shmnm_rwlock(0) == SHMNM_OK;
}

void LiveRegion::unlock() {
    library().shmnm_rwunlock();
}

bool LiveRegion::take_over() {
    return platform::OwnedLock(mutex(), 0).was_taken_over();
}

Snapshot LiveRegion::empty_copy_of(const View& view, Bytes wanted) const {
    Snapshot snapshot;
    snapshot.live = true;
    snapshot.configured = configured_counts();
    snapshot.object = view.object();
    snapshot.mapped = view.size();
    snapshot.bytes.resize(snapshot.mapped);
    snapshot.wanted = wanted;
    return snapshot;
}

namespace {

/// Settles by which counts the region was laid out: by the configuration's, if a region of that size is mapped, else by
/// those in its header; and cuts the copy there.
void settle_layout(Snapshot& snapshot) {
    const auto fits = [&](const Counts& counts) { return in_pages(Layout(counts).size) == snapshot.mapped; };
    const Counts header = snapshot.header_counts();
    snapshot.counts = snapshot.configured && fits(*snapshot.configured) ? *snapshot.configured : header;
    snapshot.bytes.resize(fits(snapshot.counts) ? Layout(snapshot.counts).size : snapshot.mapped);
}

InUse in_use(const Snapshot& snapshot) {
    shmnm_header header;
    std::memcpy(&header, snapshot.bytes.data(), sizeof header);
    return {header, snapshot.counts, snapshot.bytes.size()};
}

/// Gives up what was copied, so that the next try finds zeros.
void forget(Snapshot& snapshot) {
    if (snapshot.wanted == Bytes::all) return;
    in_use(snapshot).each_piece(
        [&](uint64_t offset, uint64_t size) { std::memset(snapshot.bytes.data() + offset, 0, size); });
}

}  // namespace

// The counts may change while they are read without the lock. So the header is copied once, and the copy's counts say
// what else is copied.
void LiveRegion::fill(Snapshot& snapshot, const View& view) {
    view.copy(snapshot.bytes, 0, sizeof(shmnm_header));
    settle_layout(snapshot);
    const auto copy = [&](uint64_t offset, uint64_t size) { view.copy(snapshot.bytes, offset, size); };
    if (snapshot.wanted == Bytes::in_use) {
        in_use(snapshot).each_piece(copy);
    } else {
        copy(sizeof(shmnm_header), snapshot.bytes.size() - sizeof(shmnm_header));
    }
}

void LiveRegion::fill_with_lock_facts(Snapshot& snapshot, const View& view) const {
    fill(snapshot, view);
    snapshot.lock = platform::lock_holder(mutex_);
    snapshot.note = platform::note(mutex_);
}

bool LiveRegion::copy_without_lock(Snapshot& snapshot, const View& view) const {
    while (snapshot.tries < platform::lockless_tries) {
        ++snapshot.tries;
        const auto begun = access_.may_skip_lock ? platform::begin_lockless_copy(mutex_) : std::nullopt;
        // Also if it cannot be kept: it brings the pages into memory before the lock is taken, and the owner may be
        // done by the next try.
        fill_with_lock_facts(snapshot, view);
        if (begun && platform::is_whole(mutex_, *begun)) {
            snapshot.way = begun->as_owner ? CopyWay::as_owner : CopyWay::without_lock;
            return true;
        }
        forget(snapshot);
    }
    return false;
}

void LiveRegion::copy_with_lock(Snapshot& snapshot, const View& view, uint32_t timeout_ms) {
    const Library& calls = library();
    const uint64_t asked_us = platform::steady_clock_us();
    // The library's call does not tell of a take-over, so the lock is taken here before. It can be taken again.
    std::optional<platform::OwnedLock> own;
    if (access_.took_over) own.emplace(mutex_, timeout_ms);
    const uint64_t waited_ms = std::min<uint64_t>((platform::steady_clock_us() - asked_us) / 1'000, timeout_ms);
    if (calls.shmnm_rolock(timeout_ms - static_cast<uint32_t>(waited_ms)) != SHMNM_OK) throw_no_lock(timeout_ms);
    const uint64_t taken_us = platform::steady_clock_us();
    fill_with_lock_facts(snapshot, view);
    platform::count_look(mutex_);
    calls.shmnm_rounlock();
    const bool was_taken_over = own && own->was_taken_over();  // branch: Linux counts take-overs instead
    own.reset();
    snapshot.way = CopyWay::with_lock;
    snapshot.lock_wait_us = taken_us - asked_us;
    snapshot.lock_held_us = platform::steady_clock_us() - taken_us;
    if (snapshot.lock) snapshot.lock->process = snapshot.lock->thread = 0;
    if (was_taken_over) access_.took_over();  // branch: Linux counts take-overs instead
}

void LiveRegion::copy_as_reader(Snapshot& snapshot, const View& view, uint32_t timeout_ms) const {
    snapshot.way = CopyWay::by_reader;
    fill(snapshot, view);
    const auto copy_again = [&](Snapshot& next) {
        forget(next);
        fill(next, view);
    };
    repeat_until_equal(snapshot, copy_again, platform::steady_clock_us, timeout_ms);
}

std::optional<Snapshot> LiveRegion::try_copy(Bytes wanted, uint32_t lock_timeout_ms) {
    const std::unique_ptr<View> view = open();
    if (!view) return std::nullopt;
    Snapshot snapshot = empty_copy_of(*view, wanted);
    // Before the region: what the bridge calls fresh now, it has set by now.
    snapshot.bridge = bridge_.read();
    const uint32_t timeout_ms = std::min(lock_timeout_ms, access_.lock_timeout_ms);
    if (is_reader()) {  // branch: only Windows has readers
        copy_as_reader(snapshot, *view, timeout_ms);
    } else if (!copy_without_lock(snapshot, *view)) {
        copy_with_lock(snapshot, *view, timeout_ms);
    }
    // A take that has not ended is not yet counted as a look.
    const uint64_t own = snapshot.way == CopyWay::without_lock ? 0 : 1;
    if (snapshot.lock) snapshot.steps = snapshot.lock->takes - snapshot.lock->looks - own;
    if (access_.tell) access_.tell(how_copied(snapshot));
    return snapshot;
}

Snapshot LiveRegion::copy(Bytes wanted) {
    if (auto snapshot = try_copy(wanted)) return std::move(*snapshot);
    throw no_region();
}

void LiveRegion::expect_own() {
    if (void* const mapping = KzmutilOpenNamedFileMapping(map_read, 0, mapping_name)) return platform::close(mapping);
    if (platform::last_error() == error_not_found) refuse_region_of_another_user();
}

void LiveRegion::expect() {
    if (!open()) throw no_region();
}

Snapshot LiveRegion::copy_locked(Bytes wanted) {
    const std::unique_ptr<View> view = open();
    if (!view) throw no_region();
    Snapshot snapshot = empty_copy_of(*view, wanted);
    snapshot.way = CopyWay::as_owner;
    fill(snapshot, *view);
    return snapshot;
}

WritableRegion::WritableRegion()
    : mapping_(KzmutilOpenNamedFileMapping(all_access, 0, mapping_name)),
      base_(mapping_ ? static_cast<uint8_t*>(platform::map_for_writing(mapping_)) : nullptr) {
    if (base_) return;
    const bool is_missing = platform::last_error() == error_not_found;
    const std::string why = last_failure();
    if (mapping_) platform::close(mapping_);
    if (is_missing) throw no_region();
    throw Error(ErrorKind::failed,
                fmt::format("cannot map the region {} for writing {}", full_name(mapping_name), why));
}
WritableRegion::~WritableRegion() {
    platform::unmap(base_);
    platform::close(mapping_);
}
uint64_t WritableRegion::size() const {
    return platform::view_size(base_);
}
uint64_t WritableRegion::object() const {
    return platform::object_number(mapping_);
}

void expect_configured(const Snapshot& snapshot, bool force) {
    const Counts header = snapshot.header_counts();
    if (force || !snapshot.configured || *snapshot.configured == header) return;
    throw Error(ErrorKind::configuration_differs,
                fmt::format("nothing was changed: the region has {}, this machine's configuration has {}",
                            to_text(header), to_text(*snapshot.configured)));
}

namespace {

void attach() {
    const auto& function = library().shmnm_attach;
    const uint32_t result = function();
    if (result == SHMNM_ERR_LOADCONFIG) {
        throw Error(ErrorKind::failed,
                    fmt::format("nothing was changed: {} failed with code {} ({}); put the "
                                "configuration at {}",
                                function.name, result, meaning(result), shown_file(installed_cluster_file())));
    }
    expect_ok(function.name, result);
}

}  // namespace

Change::Change(LiveRegion& region, bool force) : region_(region) {
    region_.expect();
    region_.lock();
    try {
        before_ = region_.copy_locked();
        expect_configured(before_, force);
        attach();
    } catch (...) {
        region_.unlock();
        throw;
    }
}

Change::~Change() {
    library().shmnm_detach();
    region_.unlock();
}

}  // namespace picture
