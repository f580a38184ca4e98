#include "source.h"

#include <algorithm>
#include <utility>

#include "picture/live.h"
#include "picture/platform.h"
#include "picture_http/remote.h"
#include "waiting.h"

namespace picture_library {
namespace {

using picture::Bytes;
using picture::Snapshot;

Wake pause(uint32_t milliseconds) {
    return sleep_for_ms(milliseconds) ? Wake::time : Wake::signal;
}

/// A source that nobody tells of changes.
class SilentSource : public Source {
  public:
    explicit SilentSource(uint32_t interval_ms) : interval_ms_(interval_ms) {}
    Wake wait(uint32_t milliseconds) override { return pause(std::min(milliseconds, interval_ms_)); }

  private:
    uint32_t interval_ms_;
};

class LiveSource : public SilentSource {
  public:
    explicit LiveSource(const SourceOptions& options)
        : SilentSource(options.interval_ms), region_({.lock_timeout_ms = options.lock_timeout_ms}) {}
    Snapshot copy(Bytes wanted) override { return region_.copy(wanted); }

  private:
    picture::LiveRegion region_;
};

class FileSource : public SilentSource {
  public:
    FileSource(const SourceOptions& options, std::string file)
        : SilentSource(options.interval_ms), file_(std::move(file)) {}
    Snapshot copy(Bytes) override { return picture::read_dump_of_utf8_name(file_); }

  private:
    std::string file_;
};

class AddressSource : public Source {
  public:
    AddressSource(const SourceOptions& options, const std::string& address)
        : interval_ms_(options.interval_ms), remote_(address, options.credentials) {}

    Snapshot copy(Bytes wanted) override {
        const NoBrokenPipeSignal guard;
        return remote_.copy(wanted).snapshot;
    }

    Wake wait(uint32_t milliseconds) override {
        // Without a sign of a change, the server is asked again after this time.
        constexpr uint32_t longest_silence_ms = 1'000;
        const uint32_t time_ms = std::min(milliseconds, longest_silence_ms);
        const uint64_t end_us = picture::platform::steady_clock_us() + uint64_t{time_ms} * 1'000;
        switch (listen(time_ms)) {
            case picture_http::Bell::rang:
                return Wake::time;
            case picture_http::Bell::silent:
                return picture::platform::steady_clock_us() < end_us ? Wake::signal : Wake::time;
            case picture_http::Bell::missing:
                break;
        }
        return pause(std::min(milliseconds, interval_ms_));
    }

  private:
    picture_http::Bell listen(uint32_t milliseconds) {
        const NoBrokenPipeSignal guard;
        return remote_.wait_for_change(milliseconds);
    }

    uint32_t interval_ms_;
    picture_http::Remote remote_;
};

}  // namespace

std::unique_ptr<Source> live_source(const SourceOptions& options) {
    return std::make_unique<LiveSource>(options);
}
std::unique_ptr<Source> file_source(const SourceOptions& options, const std::string& file) {
    return std::make_unique<FileSource>(options, file);
}
std::unique_ptr<Source> address_source(const SourceOptions& options, const std::string& address) {
    return std::make_unique<AddressSource>(options, address);
}

}  // namespace picture_library
