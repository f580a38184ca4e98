#include "floor.h"

#include <emmintrin.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <optional>

#include "floor_log.h"
#include "platform.h"
#include "shmnm.h"

namespace {

uint8_t* region;
uint32_t region_size;
uint8_t *servers, *resources;
std::optional<bench::RobustMutex> mutex;

/// Any value will do: the log compares only the level.
void* const log_handle = &region;

template <typename Work>
uint32_t between_log_lines(const char* function, const Work& work) {
    floor_log_write(log_handle, 16, 0, "bench/floor", __LINE__, function, "enter");
    const uint32_t result = work();
    floor_log_write(log_handle, 16, 0, "bench/floor", __LINE__, function, "leave");
    return result;
}

shmnm_header& header() {
    return *reinterpret_cast<shmnm_header*>(region);
}

template <typename Word>
Word load(const Word& word) {
    return std::atomic_ref<Word>(const_cast<Word&>(word)).load(std::memory_order_relaxed);
}
void store(uint32_t& word, uint32_t value) {
    std::atomic_ref<uint32_t>(word).store(value, std::memory_order_relaxed);
}

__m128i prefix(const char* text) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
}
bool equal(__m128i one, __m128i other) {
    return _mm_movemask_epi8(_mm_cmpeq_epi8(one, other)) == 0xFFFF;
}

/// The position of the first matching record; -1 if there is none. The records are `step` bytes apart.
template <typename Matches>
int32_t first(const uint8_t* place, int32_t count, size_t step, const Matches& matches) {
#pragma GCC unroll 4
    for (int32_t position = 0; position < count; ++position, place += step) {
        if (matches(place)) return position;
    }
    return -1;
}

int32_t find_server(const char* name) {
    return first(servers, load(header().server_count), sizeof(shmnm_server),
                 [key = prefix(name)](const uint8_t* place) {
                     return equal(prefix(reinterpret_cast<const char*>(place)), key);
                 });
}
int32_t find_server(int32_t priority) {
    return first(servers, load(header().server_count), sizeof(shmnm_server), [=](const uint8_t* place) {
        return load(reinterpret_cast<const shmnm_server*>(place)->pri) == priority;
    });
}
shmnm_server* server_at(int32_t position) {
    return reinterpret_cast<shmnm_server*>(servers) + position;
}

size_t resource_step() {
    return sizeof(shmnm_resource) + sizeof(uint32_t) * static_cast<uint32_t>(load(header().max_servers));
}
int32_t find_resource(size_t step, const char* type, const char* name) {
    return first(resources, load(header().hb_count), step,
                 [key = prefix(name), type_key = prefix(type)](const uint8_t* place) {
                     const auto& resource = *reinterpret_cast<const shmnm_resource*>(place);
                     return equal(prefix(resource.name), key) && equal(prefix(resource.type), type_key);
                 });
}
uint32_t* row_at(size_t step, int32_t position) {
    return reinterpret_cast<uint32_t*>(resources + static_cast<size_t>(position) * step + sizeof(shmnm_resource));
}

uint32_t* find_pair(const char* type, const char* name, int32_t priority) {
    const int32_t server = find_server(priority);
    if (server < 0) return nullptr;
    const size_t step = resource_step();
    const int32_t resource = find_resource(step, type, name);
    return resource < 0 ? nullptr : row_at(step, resource) + server;
}

}  // namespace

void floor_open(uint8_t* memory, uint32_t size, void* mutex_memory, const char* mutex_name, bool create,
                uint64_t servers_start, uint64_t resources_start) {
    region = memory;
    region_size = size;
    servers = memory + servers_start;
    resources = memory + resources_start;
    mutex.emplace(mutex_memory, mutex_name, create);
}

uint32_t floor_get_header_word(uint32_t* value) {
    return between_log_lines(__func__, [=] {
        *value = load(header().clstat);
        return 0U;
    });
}
uint32_t floor_set_header_word(uint32_t value) {
    return between_log_lines(__func__, [=] {
        store(header().clstat, value);
        return 0U;
    });
}
uint32_t floor_get_server_word(const char* name, uint32_t* value) {
    return between_log_lines(__func__, [=] {
        const int32_t position = find_server(name);
        if (position < 0) return 3U;
        *value = load(server_at(position)->nodestat);
        return 0U;
    });
}
uint32_t floor_set_server_word(const char* name, uint32_t value) {
    return between_log_lines(__func__, [=] {
        const int32_t position = find_server(name);
        if (position < 0) return 3U;
        store(server_at(position)->nodestat, value);
        return 0U;
    });
}
uint32_t floor_get_pair(const char* type, const char* name, int32_t priority, uint32_t* value) {
    return between_log_lines(__func__, [=] {
        const uint32_t* const word = find_pair(type, name, priority);
        if (!word) return 3U;
        *value = load(*word);
        return 0U;
    });
}
uint32_t floor_set_pair(const char* type, const char* name, int32_t priority, uint32_t value) {
    return between_log_lines(__func__, [=] {
        uint32_t* const word = find_pair(type, name, priority);
        if (!word) return 3U;
        store(*word, value);
        return 0U;
    });
}
uint32_t floor_row(const char* type, const char* name, uint32_t* words, uint32_t* size) {
    return between_log_lines(__func__, [=] {
        const size_t step = resource_step();
        const int32_t resource = find_resource(step, type, name);
        if (resource < 0) return 3U;
        const auto bytes = static_cast<uint32_t>(load(header().server_count)) * uint32_t{sizeof(uint32_t)};
        std::memcpy(words, row_at(step, resource), bytes);
        *size = bytes;
        return 0U;
    });
}
uint32_t floor_column(const char* server, uint32_t* words, uint32_t* size) {
    return between_log_lines(__func__, [=] {
        const int32_t position = find_server(server);
        if (position < 0) return 3U;
        const size_t step = resource_step();
        const int32_t count = load(header().hb_count);
        const auto* word = reinterpret_cast<const uint8_t*>(row_at(step, 0) + position);
        for (int32_t i = 0; i < count; ++i, word += step) words[i] = load(*reinterpret_cast<const uint32_t*>(word));
        *size = static_cast<uint32_t>(count) * uint32_t{sizeof(uint32_t)};
        return 0U;
    });
}
uint32_t floor_take(uint32_t) {
    return between_log_lines(__func__, [] {
        mutex->take();
        return 0U;
    });
}
uint32_t floor_release(void) {
    return between_log_lines(__func__, [] {
        mutex->release();
        return 0U;
    });
}
uint32_t floor_copy(uint8_t* bytes, int32_t* size) {
    return between_log_lines(__func__, [=] {
        std::memcpy(bytes, region, region_size);
        *size = static_cast<int32_t>(region_size);
        return 0U;
    });
}
