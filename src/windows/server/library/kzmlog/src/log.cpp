#include "log.h"

namespace kzmlog {
namespace {

using namespace std::chrono_literals;

/// A call may write several lines, which together must wait for less than 5 ms. So after one line has waited in vain,
/// the following lines try once and do not wait. The fifth millisecond is for a sleep that ends late.
constexpr std::chrono::microseconds patience = 4ms;

}  // namespace

Log::Log(const std::string& folder, const std::string& module, const std::string& channel, uint32_t size)
    : folder_(absolute(folder) + "/log"), lock_(folder_ + '/' + channel + ".lock"), size_(size) {
    generations_[0] = folder_ + '/' + module + ".log";
    for (size_t age = 1; age < generations_.size(); ++age) {
        generations_[age] = generations_[0] + '.' + std::to_string(age);
    }
}

Error Log::prepare() const noexcept {
    make_folder(folder_.c_str());
    return File(generations_[0].c_str()).error();
}

Error Log::append(std::string_view line) const noexcept {
    {
        const File file(generations_[0].c_str());
        if (!file.error() && fits(file, line.size())) return file.append(line);
        if (file.error() && file.error() != path_not_found) return file.error();
        if (file.error()) make_folder(folder_.c_str());
    }
    if (size_ > 0) rotate(line.size());
    const File file(generations_[0].c_str());
    return file.error() ? file.error() : file.append(line);
}

/// An empty file accepts a line of any length.
bool Log::fits(const File& file, size_t bytes) const {
    return size_ == 0 || file.size() == 0 || file.size() + bytes - 1 <= size_;
}

bool Log::current_has_room(size_t bytes) const {
    const File current(generations_[0].c_str());
    return current.error() || fits(current, bytes);
}

/// Makes room for a line of `bytes` bytes. The lock lets one process rotate; the other processes wait until there is
/// room. If the lock does not become free in time, the file simply keeps growing.
void Log::rotate(size_t bytes) const noexcept {
    FileLock lock(lock_.c_str());
    bool has_room = false;
    const bool taken = succeeds_within(waited_in_vain_.load(std::memory_order_relaxed) ? 0us : patience, [&] {
        has_room = current_has_room(bytes);
        if (has_room) return Attempt::failed;
        const Attempt result = lock.take();
        if (result == Attempt::succeeded) has_room = current_has_room(bytes);
        return has_room ? Attempt::failed : result;
    });
    waited_in_vain_.store(!taken && !has_room, std::memory_order_relaxed);
    if (!taken) return;
    // A process that was killed during its rotation has left a gap. The younger generations move up into the gap, so
    // the oldest generation is lost only if there is no gap.
    size_t to = 1;
    while (to + 1 < generations_.size() && exists(generations_[to].c_str())) ++to;
    for (; to > 0; --to) {
        // branch: another program removes a generation during the rotation
        if (!lock.rename_over(generations_[to - 1].c_str(), generations_[to].c_str())) return;
    }
}

}  // namespace kzmlog
