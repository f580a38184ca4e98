// The steps by which the tables change. The library's calls make them, and tools make the rest of them when a caller
// was killed. Each step notes its progress before it writes, and can be repeated.
#pragma once

#include "note.h"
#include "region.h"
#include "resource_table.h"

namespace shmnm {

/// Where the steps note their progress, if anywhere.
class Progress {
  public:
    constexpr Progress() noexcept = default;
    explicit Progress(uint64_t* noted) noexcept : noted_(noted) {}

    void at(Phase phase, int32_t record = 0, int32_t word = 0) const noexcept {
        if (!noted_) return;
        keep_order();
        std::atomic_ref<uint64_t>(*noted_).store(Stage{phase, record, word}.packed(), std::memory_order_relaxed);
        keep_order();
    }

  private:
    uint64_t* noted_ = nullptr;
};

/// Whether no two areas share a byte and all lie in the view: the header's maxima are those by which the region was
/// mapped, there are two servers or more, and no count is beyond its maximum. In any other region one write may
/// overwrite another, so calls make exactly the steps of their description.
bool is_regular(const Region& region) noexcept;

// Only for regular regions: these three.

/// Opens the columns of a server that is about to be added at a position, in all resources.
void open_columns_early(const Region& region, int32_t position) noexcept;
/// Takes the server at a position out of the table of `count` servers.
void take_out_server(const Region& region, int32_t position, int32_t count, const Progress& progress,
                     Stage from) noexcept;
void take_out_resource(const Resources& resources, int32_t position, int32_t count, const Progress& progress,
                       Stage from) noexcept;

// For all regions.

void write_server(shmnm_server& server, const char* name, int32_t pri) noexcept;
void write_resource(shmnm_resource& resource, const char* type, const char* name, uint32_t pri) noexcept;
void open_row(const StateRows& rows, int32_t resource, int32_t servers) noexcept;
/// Opens or closes the column at an index in all resources of a kind. `servers` is the header's count.
void open_column(const Resources& resources, int32_t index, int32_t servers, const Progress& progress,
                 Stage from) noexcept;
void close_column(const Resources& resources, int32_t index, int32_t servers, const Progress& progress,
                  Stage from) noexcept;
/// The phase in which a kind's columns are closed.
constexpr Phase column_phase(const Kind& kind) noexcept {
    return kind.network ? Phase::hb_columns : Phase::np_columns;
}

constexpr bool is_pid_kind(int32_t kind) noexcept {
    return kind >= 0 && kind < 3;
}
void write_process_id(shmnm_fst_pid& record, int32_t kind, uint32_t pid, uint64_t piddata) noexcept;
void write_maxima(const Region& region, int32_t servers, int32_t max_hb, int32_t max_np) noexcept;
void clear_region(const Region& region) noexcept;

/// Whether complete() can make the noted change in this region.
bool can_complete(const Region& region, const Note& note) noexcept;
/// Makes the rest of the noted change. The region is then the same as after the whole call.
void complete(const Region& region, Note& note) noexcept;

}  // namespace shmnm
