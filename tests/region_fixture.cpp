#include "region_fixture.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "kernel.h"
#include "kernel_objects.h"

namespace test {
namespace {

std::string mapping_name() {
    const char* const prefix = std::getenv("KZMUTIL_NAMESPACE");
    return (prefix ? prefix : "") + std::string("oru_kzmshmnm_map");
}

}  // namespace

void unmap_everything() {
    fakes::companions().reset();
    shmnm_delete();
    if (shmnm_create() == SHMNM_OK) shmnm_delete();
    if (shmnm_create() != SHMNM_OK || shmnm_attach() != SHMNM_OK) return;
    while (shmnm_detach() == SHMNM_OK) {
    }
    if (shmnm_create() == SHMNM_OK) shmnm_delete();
    if (shmnm_attach() == SHMNM_OK) shmnm_detach();
    // What the library has left open, as its rules say, would hold the region for the next test. A number that names
    // something else by now cannot be mapped, and is left alone.
    for (void* const handle : std::exchange(fakes::companions().all_mappings, {})) {
        void* const left_open = map_view(handle, 4);
        if (!left_open) continue;
        shmnm::kernel::unmap_view(left_open);
        shmnm::kernel::close(handle);
    }
}

RegionTest::RegionTest() {
    fake.reset();
}

RegionTest::~RegionTest() {
    close_view();
    unmap_everything();
}

void RegionTest::configure(const Counts& counts) {
    fake.values["/root/all/num/server"] = counts.servers;
    fake.values["/root/all/num/hbr"] = counts.hb;
    fake.values["/root/all/num/npr"] = counts.np;
    fake.values["/root/all/num/fstr"] = counts.fst;
}

void RegionTest::map_region(const Counts& counts) {
    configure(counts);
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    fake.take_lines();
    fake.take_calls();
}

std::vector<fakes::LogLine> RegionTest::log_of_last_call() {
    return fake.take_lines();
}
std::vector<std::string> RegionTest::companion_calls() {
    return fake.take_calls();
}

uint8_t* RegionTest::view() {
    if (!view_) {
        mapping_ = open_mapping(0xF001F, mapping_name().c_str());
        view_ = static_cast<uint8_t*>(map_view(mapping_, 2));
        if (!view_) throw std::runtime_error("there is no region");
    }
    return view_;
}

void RegionTest::close_view() {
    if (view_) shmnm::kernel::unmap_view(view_);
    if (mapping_) shmnm::kernel::close(mapping_);
    view_ = nullptr;
    mapping_ = nullptr;
}

size_t RegionTest::view_size() {
    return shmnm::kernel::view_size(view());
}

Bytes RegionTest::region_bytes() {
    uint8_t* const first = view();
    Bytes bytes(first, first + view_size());
    close_view();
    return bytes;
}

uint32_t RegionTest::word_at(size_t offset) {
    uint32_t word = 0;
    std::memcpy(&word, view() + offset, sizeof word);
    close_view();
    return word;
}

void RegionTest::poke(size_t offset, const Bytes& bytes) {
    std::memcpy(view() + offset, bytes.data(), bytes.size());
    close_view();
}

void RegionTest::poke_word(size_t offset, uint32_t value) {
    std::memcpy(view() + offset, &value, sizeof value);
    close_view();
}

}  // namespace test
