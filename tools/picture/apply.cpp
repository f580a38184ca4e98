#include "picture/apply.h"

#include <fmt/format.h>

#include <atomic>
#include <cstring>
#include <optional>

#include "picture/error.h"
#include "picture/findings.h"
#include "picture/interrupted.h"
#include "picture/library.h"
#include "picture/plan.h"
#include "picture/platform.h"

namespace picture {
namespace {

/// The live region's picture, which has nothing that calls cannot put right. Attaching writes the configuration's
/// counts into the header, so what is planned for a region with changed maxima is planned with them.
Document attached(Snapshot snapshot, bool force) {
    if (snapshot.configured && *snapshot.configured != snapshot.counts) {
        throw Error(
            ErrorKind::inexpressible,
            fmt::format("nothing was changed: the region was laid out for {}, this machine's configuration has {}",
                        to_text(snapshot.counts), to_text(*snapshot.configured)));
    }
    if (force) {
        const Counts& counts = snapshot.counts;
        const int32_t written[] = {counts.servers, counts.hb, counts.np, counts.fst, counts.servers * counts.fst};
        std::memcpy(snapshot.bytes.data() + offsetof(shmnm_header, max_servers), written, sizeof written);
    }
    snapshot.note.reset();
    for (const Finding& wrong : findings(snapshot)) {
        // Calls make empty names too, and take them away.
        if (wrong.found == empty_text) continue;
        throw Error(ErrorKind::damaged, fmt::format("nothing was changed: the region has {} instead of {} at {}",
                                                    wrong.found, wrong.expected, wrong.key));
    }
    return document_of(snapshot);
}

void expect_whole_changes(const std::optional<shmnm::Note>& note, uint64_t object) {
    if (!note) return;  // branch: only Windows keeps no note
    for (const Interrupted& change : interrupted_changes(*note, object)) {
        if (change.superseded) continue;
        throw Error(ErrorKind::interrupted, fmt::format("nothing was changed: {}", sentence(change)));
    }
}

/// Puts back every word that is another than before.
void put_back(const WritableRegion& region, const Snapshot& before) {
    auto* const words = reinterpret_cast<uint32_t*>(region.base());
    for (size_t i = 0; i < before.bytes.size() / sizeof(uint32_t); ++i) {
        const std::atomic_ref<uint32_t> word(words[i]);
        const uint32_t old = before.word(sizeof(uint32_t) * i);
        if (word.load(std::memory_order_relaxed) != old) word.store(old, std::memory_order_relaxed);
    }
}

}  // namespace

std::vector<Difference> differences_to_apply(const Access& access, const Document& target, bool force) {
    const Snapshot snapshot = LiveRegion(access).copy(Bytes::all);
    expect_configured(snapshot, force);
    expect_whole_changes(snapshot.note, snapshot.object);
    plan(attached(snapshot, force), target);
    return differences(document_of(snapshot), target);
}

std::vector<Difference> apply(const Access& access, const Document& target, bool force) {
    LiveRegion region(access);
    const Change change(region, force);
    Snapshot before = region.copy_locked(Bytes::all);
    // Attaching has written the maxima.
    std::memcpy(before.bytes.data(), change.before().bytes.data(), sizeof(shmnm_header));
    expect_whole_changes(platform::note(region.mutex()), before.object);
    const std::vector<Step> steps = plan(attached(before, force), target);
    std::vector<Difference> different = differences(document_of(before), target);
    make_all_or_none(steps, before);
    const std::vector<Difference> left = differences(document_of(region.copy_locked()), target);
    if (!left.empty()) {
        throw Error(ErrorKind::failed,
                    fmt::format("the picture was applied, but another process changed the region without the lock "
                                "meanwhile: {}",
                                to_text(left[0])));
    }
    return different;
}

void make_all_or_none(const std::vector<Step>& steps, const Snapshot& before) {
    const WritableRegion region;
    for (const Step& step : steps) {
        const uint32_t result = step.call();
        if (result == SHMNM_OK) continue;
        put_back(region, before);
        throw Error(ErrorKind::failed,
                    fmt::format("nothing was changed: {} failed with code {} ({}), so another process changes the "
                                "region without the lock",
                                step.function, result, meaning(result)));
    }
}

}  // namespace picture
