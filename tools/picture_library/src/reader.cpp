#include "reader.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "picture/answers.h"
#include "picture/decode.h"
#include "picture/escape.h"
#include "picture/interrupted.h"
#include "picture/json.h"
#include "picture/laid_out.h"
#include "picture/platform.h"

namespace picture_library {

using picture::Error;
using picture::ErrorKind;
using picture::Snapshot;
using picture::Word;

namespace {

/// Whether two bridges say something else, ages and revisions apart.
bool differ(const std::optional<picture::Bridge>& before, const std::optional<picture::Bridge>& after) {
    if (!before || !after) return before.has_value() != after.has_value();
    return !picture::say_the_same(*before, *after);
}

/// Whether two copies give different answers, or are of different regions.
bool differ(const Snapshot& before, const Snapshot& after) {
    return differ(before.bridge, after.bridge) || before.object != after.object || before.counts != after.counts ||
           before.bytes != after.bytes || picture::interrupted_in(before) != picture::interrupted_in(after);
}

}  // namespace

Reader::Reader(std::unique_ptr<Source> source, ReaderOptions options)
    : source_(std::move(source)), options_(std::move(options)) {}

bool Reader::copy_once() {
    Snapshot next = [this] {
        try {
            return source_->copy(options_.wanted);
        } catch (const Error& error) {
            failure_ = error;
            throw;
        }
    }();
    const bool was_missing = failure_ && failure_->kind == ErrorKind::no_region;
    failure_.reset();
    const bool has_changed = was_missing || !copy_ || differ(*copy_, next);
    if (has_changed) {
        decoded_.reset();
        copy_ = std::move(next);
    } else if (next.bridge) {
        // Ages move on.
        copy_->bridge = std::move(next.bridge);
        decoded_.reset();
    }
    return has_changed;
}

bool Reader::update(uint32_t wait_ms) {
    constexpr uint32_t no_limit = std::numeric_limits<uint32_t>::max();
    const uint64_t start_us = picture::platform::steady_clock_us();
    // A region that was missing already may come back; one that has just ended is news.
    const bool awaits_region = failure_ && failure_->kind == ErrorKind::no_region;
    for (;;) {
        const uint64_t passed_ms = (picture::platform::steady_clock_us() - start_us) / 1'000;
        const uint32_t left_ms =
            wait_ms == no_limit ? no_limit : static_cast<uint32_t>(wait_ms - std::min<uint64_t>(passed_ms, wait_ms));
        try {
            if (copy_once()) return true;
        } catch (const Error& error) {
            if (error.kind != ErrorKind::no_region || !awaits_region || left_ms == 0) throw;
        }
        if (left_ms == 0) return false;
        if (source_->wait(left_ms) == Wake::time) continue;
        if (failure_) throw Error(*failure_);
        return false;
    }
}

void Reader::expect_copy() const {
    if (copy_) return;
    if (failure_) throw Error(*failure_);
    throw Error(ErrorKind::failed, "the picture has no copy; update it first");
}

Reader::Decoded& Reader::decoded() {
    expect_copy();
    if (decoded_) return *decoded_;
    // Findings are looked for in the copy as it was read.
    std::optional<Snapshot> settled;
    std::string warning;
    try {
        warning =
            copy_->live ? picture::doubt_about(*copy_) : picture::settle_dump(settled.emplace(*copy_), options_.file);
    } catch (const Error& error) {
        if (!options_.force) throw;
        warning = picture::as_typed(error.what());
    }
    const Snapshot& shown = settled ? *settled : *copy_;
    decoded_.emplace(
        Decoded{.warning = std::move(warning), .status = "", .picture = picture::decode(shown), .words = {}});
    return *decoded_;
}

const std::vector<Word>& Reader::words() {
    Decoded& from = decoded();
    if (from.words.empty()) from.words = picture::words(from.picture);
    return from.words;
}

const std::string& Reader::status() {
    Decoded& from = decoded();
    if (from.status.empty()) from.status = picture::status_line(*copy_, from.picture);
    return from.status;
}

std::string Reader::findings() const {
    expect_copy();
    return picture::verify_line(picture::with_repair(picture::findings(*copy_)));
}

std::string Reader::value(std::string_view key) {
    picture::JsonText text;
    return text.value(picture::word_of(decoded().picture, key).value).take();
}

std::string Reader::unmet(std::string_view text) {
    const picture::Condition condition = picture::condition_on_words(text);
    return condition.unmet(words());
}

const std::string& Reader::warning() {
    return decoded().warning;
}

}  // namespace picture_library
