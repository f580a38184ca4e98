// A picture of the C library that frees itself, and its answers as C++ values.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "shmnmpicture.h"

namespace test {

/// A result with the text that came with it: the answer, or why there is none.
struct Answer {
    int32_t result = -1;
    std::string text;

    bool operator==(const Answer&) const = default;
};

inline shmnmpicture_options options_with(uint32_t flags) {
    shmnmpicture_options options{};
    options.size = sizeof options;
    options.flags = flags;
    return options;
}

class Opened {
  public:
    static Opened live(uint32_t flags = 0, uint32_t lock_timeout_ms = 0) {
        shmnmpicture_options options = options_with(flags);
        options.lock_timeout_ms = lock_timeout_ms;
        Opened made;
        made.result_ = shmnmpicture_open_live(&options, &made.picture_);
        return made;
    }
    static Opened file(const std::string& name, uint32_t flags = 0) {
        const shmnmpicture_options options = options_with(flags);
        Opened made;
        made.result_ = shmnmpicture_open_file(name.c_str(), &options, &made.picture_);
        return made;
    }
    static Opened address(const std::string& address, uint32_t flags = 0) {
        const shmnmpicture_options options = options_with(flags);
        Opened made;
        made.result_ = shmnmpicture_open_address(address.c_str(), &options, &made.picture_);
        return made;
    }
    Opened(Opened&& other) noexcept : picture_(std::exchange(other.picture_, nullptr)), result_(other.result_) {}
    ~Opened() { shmnmpicture_free(picture_); }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;
    Opened& operator=(Opened&&) = delete;

    /// Of the function that opened it.
    int32_t result() const { return result_; }
    shmnmpicture* get() const { return picture_; }
    std::string error() const { return shmnmpicture_error(picture_); }

    Answer json() const { return sized(shmnmpicture_json); }
    Answer findings() const { return sized(shmnmpicture_findings); }
    Answer value(const std::string& key) const {
        return sized([&](shmnmpicture* picture, const char** text, size_t* size) {
            return shmnmpicture_value(picture, key.c_str(), text, size);
        });
    }
    /// "" for a condition that holds, else what is not met.
    Answer unmet(const std::string& condition) const {
        int32_t holds = -1;
        const char* text = nullptr;
        const int32_t result = shmnmpicture_holds(picture_, condition.c_str(), &holds, &text);
        if (result != SHMNMPICTURE_OK) return {result, error()};
        return {(holds == 1) == (*text == '\0') ? result : -1, text};
    }
    Answer warning() const {
        const char* text = nullptr;
        const int32_t result = shmnmpicture_warning(picture_, &text);
        return {result, result == SHMNMPICTURE_OK ? text : error()};
    }
    /// 1 or 0: whether the copy has changed; -1: the update failed.
    int32_t update(uint32_t wait_ms = 0) {
        int32_t changed = -1;
        result_ = shmnmpicture_update(picture_, wait_ms, &changed);
        return changed;
    }

  private:
    Opened() = default;

    template <typename Function>
    Answer sized(const Function& function) const {
        const char* text = nullptr;
        size_t size = 0;
        const int32_t result = function(picture_, &text, &size);
        if (result != SHMNMPICTURE_OK) return {result, error()};
        // The NUL after the text is not counted.
        return {text[size] == '\0' ? result : -1, {text, size}};
    }

    shmnmpicture* picture_ = nullptr;
    int32_t result_ = -1;
};

}  // namespace test
