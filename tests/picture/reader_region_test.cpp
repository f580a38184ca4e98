// Copies by a user who may read the region and has no right to its lock (Windows).
#include <gmock/gmock.h>
#include <windows.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "picture/decode.h"
#include "picture/live.h"
#include "picture/live_region.h"

namespace {

/// Called before each look at the clock.
std::function<void()> before_a_look;

template <typename Function>
Function real(const char* module, const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA(module), name)));
}

void* deny(uint32_t, const char*) {
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
}

void* open_to_read(uint32_t access, int32_t inherit, const char* name) {
    constexpr uint32_t map_read = 4;
    if (access != map_read) return deny(0, name);
    return real<void* (*)(uint32_t, int32_t, const char*)>("kzmutil.dll", "KzmutilOpenNamedFileMapping")(access,
                                                                                                         inherit, name);
}

BOOL look(LARGE_INTEGER* frequency) {
    if (const std::function<void()> once = std::exchange(before_a_look, nullptr)) once();
    return real<BOOL (*)(LARGE_INTEGER*)>("kernel32.dll", "QueryPerformanceFrequency")(frequency);
}

}  // namespace

// These take the places of imports of this program. The library has its own.
extern "C" {
extern void* (*const imported_mutex)(uint32_t, const char*)asm("__imp_KzmutilCreateNamedMutex");
void* (*const imported_mutex)(uint32_t, const char*) = deny;
extern void* (*const imported_open)(uint32_t, int32_t, const char*)asm("__imp_KzmutilOpenNamedFileMapping");
void* (*const imported_open)(uint32_t, int32_t, const char*) = open_to_read;
extern BOOL (*const imported_frequency)(LARGE_INTEGER*) asm("__imp_QueryPerformanceFrequency");
BOOL (*const imported_frequency)(LARGE_INTEGER*) = look;
}

namespace picture {
namespace {

using Reader = test::LiveCopy;

std::vector<uint8_t> dumped() {
    int32_t size = 0;
    EXPECT_EQ(shmnm_dump(nullptr, &size), SHMNM_OK);
    std::vector<uint8_t> bytes(static_cast<size_t>(size));
    EXPECT_EQ(shmnm_dump(bytes.data(), &size), SHMNM_OK);
    return bytes;
}

TEST_F(Reader, CopiesTheRegionTwiceAndNeedsNoLock) {
    std::string told;
    LiveRegion live({.tell = [&](const std::string& line) { told = line; }});
    EXPECT_TRUE(live.is_reader());
    const Snapshot copy = live.copy(Bytes::all);
    EXPECT_EQ(copy.way, CopyWay::by_reader);
    EXPECT_EQ(copy.tries, 2u);
    EXPECT_EQ(copy.bytes, dumped());
    EXPECT_EQ(decode(live.copy(Bytes::in_use)).servers.at(0).name, "alpha");
    EXPECT_EQ(told, "copied the bytes in use without a right to the lock: two of 2 copies in a row were equal");
}

TEST_F(Reader, CopiesTheRegionAgainIfItChangesMeanwhile) {
    ASSERT_EQ(shmnm_addnode("beta", 1), SHMNM_OK);
    before_a_look = [] { EXPECT_EQ(shmnm_rmnode("beta"), SHMNM_OK); };
    LiveRegion live({});
    const Snapshot copy = live.copy(Bytes::in_use);
    EXPECT_EQ(copy.tries, 3u);
    EXPECT_EQ(decode(copy).servers.size(), 1u);
    EXPECT_EQ(copy.bytes, live.copy(Bytes::in_use).bytes) << "something of the first copy is left";
}

}  // namespace
}  // namespace picture
