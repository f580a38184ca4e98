// The region's life in this process: create, attach, detach, delete, clear, dump. The meaning of the bytes is left to
// other files.
#include <algorithm>
#include <mutex>
#include <optional>

#include "change_note.h"
#include "configuration.h"
#include "frame.h"
#include "kernel.h"
#include "kzmutil.h"
#include "kzmxml.h"

namespace shmnm {
namespace {

constexpr const char* mapping_name = "oru_kzmshmnm_map";
constexpr uint32_t page_read_write = 4;
constexpr uint32_t all_access = 0xF001F;

/// A handle of the region's mapping, closed at most once. A handle that is replaced while it is open stays open,
/// deliberately, and keeps the region alive until the process ends.
class MappingHandle {
  public:
    void assign(void* handle) { handle_ = handle; }
    void close() {
        if (handle_) kernel::close(handle_);
        handle_ = nullptr;
    }
    void* get() const { return handle_; }

  private:
    void* handle_ = nullptr;
};

// Guarded by the library lock. Create and attach each have a handle of their own, deliberately: delete closes only
// create's handle, detach only attach's.
constinit MappingHandle create_handle, attach_handle;
constinit int32_t attach_count = 0;
constinit bool already_init_warned = false;

/// The steps that create and attach share before they ask for the mapping. Lines are written as soon as the log is
/// open. @return SHMNM_OK, or the code that the caller returns unchanged
uint32_t prepare_mapping(Call call, Counts& counts) {
    if (xmllib_init("shmnm") != 0) return SHMNM_ERR_XMLINIT;
    if (xmllib_load_config(0) != 0) {
        xmllib_term();
        return SHMNM_ERR_LOADCONFIG;
    }
    // branch: the log is open only while the region is mapped
    if (!is_log_open()) open_log(read_log_settings());
    call.enter();
    if (const uint32_t result = load_counts(counts); result != SHMNM_OK) {
        call.leave(call.fail(SHMNM_ERR_LOADINFO, "shmnm_loadinfo() failed(ret:%d)", result));
        xmllib_unload_config();
        xmllib_term();
        close_log();
        return SHMNM_ERR_LOADINFO;
    }
    if (const int32_t result = xmllib_unload_config(); result != 0) {
        call.log(Level::error, "xmllib_unload_config() failed(ret:%d)", result);
    }
    if (const int32_t result = xmllib_term(); result != 0) {
        call.log(Level::error, "xmllib_term() failed(ret:%d)", result);
    }
    return SHMNM_OK;
}

/// Ends a call and closes the log. @return `result`
uint32_t leave_and_close_log(Call call, uint32_t result) {
    call.leave(result);
    close_log();
    return result;
}

/// Maps the region of `handle` and writes the configured counts into it. A new region is zeroed first.
uint32_t map_region(Call call, MappingHandle& handle, const Counts& counts, const Layout& layout, bool is_new,
                    const Message& failure) {
    auto* const view = static_cast<uint8_t*>(kernel::map_view(handle.get()));
    if (!view) {
        call.fail(SHMNM_ERR_MAPVIEW, failure, kernel::last_error());
        call.leave(SHMNM_ERR_MAPVIEW);
        handle.close();
        close_log();
        return SHMNM_ERR_MAPVIEW;
    }
    const size_t view_size = kernel::view_size(view);
    if (is_new) std::memset(view, 0, std::min<size_t>(layout.size, view_size));
    auto& header = *reinterpret_cast<shmnm_header*>(view);
    store(header.max_servers, counts.servers);
    store(header.max_hb, counts.hb);
    store(header.max_np, counts.np);
    store(header.fst_count, counts.fst);
    const uint32_t fst_pid_limit = static_cast<uint32_t>(counts.servers) * static_cast<uint32_t>(counts.fst);
    store(header.fst_pid_limit, static_cast<int32_t>(fst_pid_limit));
    publish_region({view, view_size, counts, layout, kernel::object_number(handle.get())});
    return SHMNM_OK;
}

/// Ends a call that has mapped the region.
uint32_t leave_mapped(Call call, const Layout& layout) {
    call.log(Level::information, "SIZE:%d", layout.size);
    return call.leave(SHMNM_OK);
}

/// Creates or opens the mapping, in up to five attempts. @return whether it is new; nothing if all attempts failed
std::optional<bool> create_mapping(Call call, uint32_t size) {
    void* const no_file = reinterpret_cast<void*>(~uintptr_t{0});
    uint32_t error = 0;
    for (int attempt = 0; attempt < 5; ++attempt) {
        // The error tells a new region (0) from one in use (183), so a stale 183 must not be left there.
        kernel::set_last_error(0);
        void* const handle = KzmutilCreateNamedFileMapping(no_file, page_read_write, 0, size, mapping_name);
        error = kernel::last_error();
        if (handle) {
            create_handle.assign(handle);
            const bool is_new = error != kernel::error_already_exists;
            call.log(Level::information,
                     is_new ? "KzmutilCreateNamedFileMapping(new)" : "KzmutilCreateNamedFileMapping(use)");
            return is_new;
        }
        call.log(Level::error, "KzmutilCreateNamedFileMapping failed(errno:%d)", error);
        kernel::sleep(1000);
    }
    call.log(Level::error, "KzmutilCreateNamedFileMapping failed(errno:%d)", error);
    return std::nullopt;
}

/// Withdraws the view from this process's exports and unmaps it.
void unmap_region(const Region& region) {
    withdraw_region();
    kernel::unmap_view(region.base);
}

uint32_t clear_and_log(Call call, const Region& region) {
    const ChangeNote note(region, true, {.call = NotedCall::clear});
    clear_region(region);
    note.forget_older();
    call.log(Level::information, "shmnm clear.");
    return SHMNM_OK;
}

uint32_t dump_region(Call call, const Region& region, uint8_t* buf, int32_t* size) {
    if (!size) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const uint32_t region_size = region.layout.size;
    if (!buf) {
        *size = static_cast<int32_t>(region_size);
        return SHMNM_OK;
    }
    if (int64_t{*size} < int64_t{region_size}) return call.fail(SHMNM_ERR_BUFFER, "not enough buffer");
    const size_t mapped_size = std::min<size_t>(region_size, region.view_size);
    std::memcpy(buf, region.base, mapped_size);
    std::memset(buf + mapped_size, 0, region_size - mapped_size);
    return SHMNM_OK;
}

}  // namespace
}  // namespace shmnm

using namespace shmnm;

uint32_t shmnm_create(void) {
    const std::lock_guard guard(library_lock);
    const Call call{"_create"};
    if (mapped_region()) {
        call.enter();
        call.log(Level::warning, "already init");
        return call.leave(SHMNM_OK);
    }
    Counts counts;
    if (const uint32_t result = prepare_mapping(call, counts); result != SHMNM_OK) return result;
    const Layout layout(counts);
    const std::optional<bool> is_new = create_mapping(call, layout.size);
    if (!is_new) return leave_and_close_log(call, SHMNM_ERR_CREATEMAP);
    if (const uint32_t result =
            map_region(call, create_handle, counts, layout, *is_new, "MapViewOfFile failed(errno:%d)");
        result != SHMNM_OK) {
        return result;
    }
    return leave_mapped(call, layout);
}

uint32_t shmnm_attach(void) {
    const std::lock_guard guard(library_lock);
    const Call call{"_attach"};
    if (mapped_region()) {
        call.enter();
        ++attach_count;
        if (!already_init_warned) {
            already_init_warned = true;
            call.log(Level::warning, "already init");
        }
        return call.leave(SHMNM_OK);
    }
    Counts counts;
    if (const uint32_t result = prepare_mapping(call, counts); result != SHMNM_OK) return result;
    const Layout layout(counts);
    void* const handle = KzmutilOpenNamedFileMapping(all_access, 1, mapping_name);
    if (!handle) {
        call.fail(SHMNM_ERR_OPENMAP, "KzmutilOpenNamedFileMapping() failed(errno:%d)", kernel::last_error());
        return leave_and_close_log(call, SHMNM_ERR_OPENMAP);
    }
    attach_handle.assign(handle);
    if (const uint32_t result =
            map_region(call, attach_handle, counts, layout, false, "MapViewOfFile() failed(errno:%d)");
        result != SHMNM_OK) {
        return result;
    }
    ++attach_count;
    return leave_mapped(call, layout);
}

uint32_t shmnm_detach(void) {
    const std::lock_guard guard(library_lock);
    const Call call{"_detach"};
    call.enter();
    const Region* const region = mapped_region();
    if (!region) return call.leave(call.fail(SHMNM_ERR_NOTINIT, "not init"));
    if (--attach_count > 0) return call.leave(SHMNM_OK);
    attach_count = 0;
    unmap_region(*region);
    attach_handle.close();
    already_init_warned = false;
    return leave_and_close_log(call, SHMNM_OK);
}

uint32_t shmnm_delete(void) {
    const std::lock_guard guard(library_lock);
    const Call call{"_delete"};
    call.enter();
    const Region* const region = mapped_region();
    if (!region) return leave_and_close_log(call, call.fail(SHMNM_ERR_NOTINIT, "not init"));
    unmap_region(*region);
    create_handle.close();
    return leave_and_close_log(call, SHMNM_OK);
}

uint32_t shmnm_clear(void) {
    // The one export without an entry line.
    const Call call{"shmnm_clear"};
    const Region* const region = mapped_region();
    return call.leave(region ? clear_and_log(call, *region) : call.fail(SHMNM_ERR_NOTINIT, "not init"));
}

uint32_t shmnm_dump(uint8_t* buf, int32_t* size) {
    return framed<dump_region>("_dump", buf, size);
}
