// What the C library does when memory runs out: at whichever request that is, the call returns a result and the picture
// can be used again. This program's own malloc() refuses one request of a thread, and all that follow it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "opened.h"
#include "picture/library_region.h"
#include "picture/live_region.h"
#include "shmnm.h"

// The C library's own names.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
}

namespace {

constexpr long unlimited = -1;
/// How many requests this thread is still granted.
thread_local long granted = unlimited;

bool is_granted() {
    if (granted == unlimited) return true;
    if (granted == 0) return false;
    --granted;
    return true;
}

}  // namespace

// In place of the C library's, so the libraries must see these.
extern "C" {
[[gnu::visibility("default")]] void* malloc(size_t size) {
    return is_granted() ? __libc_malloc(size) : nullptr;
}
[[gnu::visibility("default")]] void* calloc(size_t count, size_t size) {
    return is_granted() ? __libc_calloc(count, size) : nullptr;
}
[[gnu::visibility("default")]] void* realloc(void* block, size_t size) {
    return is_granted() ? __libc_realloc(block, size) : nullptr;
}
}

namespace {

/// Makes a call again and again, with one request more granted each time, until it succeeds.
/// @return how often it failed
long failures_until_success(const std::function<int32_t()>& call) {
    for (long requests = 0;; ++requests) {
        granted = requests;
        const int32_t result = call();
        granted = unlimited;
        if (result == SHMNMPICTURE_OK) return requests;
        // What the system does for the library fails in its own words.
        EXPECT_GE(result, SHMNMPICTURE_ERR_FAILED) << "request " << requests;
    }
}

class WithoutMemory : public test::LiveCopy {};

TEST_F(WithoutMemory, EachCallReturnsAResultAndThePictureStaysUsable) {
    ASSERT_EQ(test::Opened::live().result(), SHMNMPICTURE_OK) << "what is loaded at the first copy is there";
    const test::Opened picture = test::Opened::live(SHMNMPICTURE_ALL_BYTES);
    shmnmpicture* const opened = picture.get();
    const char* text = nullptr;
    int32_t number = 0;
    const std::string expected = test::Opened::live().json().text;

    EXPECT_GT(failures_until_success([&] {
                  shmnmpicture* made = nullptr;
                  const int32_t result = shmnmpicture_open_live(nullptr, &made);
                  EXPECT_STRNE(result == SHMNMPICTURE_OK ? "x" : shmnmpicture_error(made), "");
                  shmnmpicture_free(made);
                  return result;
              }),
              2);
    EXPECT_GT(failures_until_success([&] { return shmnmpicture_json(opened, &text, nullptr); }), 3);
    EXPECT_EQ(picture.json().text, expected);
    EXPECT_GT(failures_until_success([&] { return shmnmpicture_findings(opened, &text, nullptr); }), 1);
    EXPECT_GT(
        failures_until_success([&] { return shmnmpicture_holds(opened, "all servers/*/nodestat=1", &number, &text); }),
        3);
    EXPECT_GT(failures_until_success([&] { return shmnmpicture_update(opened, 0, &number); }), 1);
    const std::string long_name = "servers/" + std::string(100, 'a') + "/pri";
    for (long requests = 0; requests < 50; ++requests) {
        granted = requests;
        const int32_t result = shmnmpicture_value(opened, long_name.c_str(), &text, nullptr);
        granted = unlimited;
        EXPECT_TRUE(result == SHMNMPICTURE_ERR_NO_MEMORY || result == SHMNMPICTURE_ERR_NO_SUCH_KEY) << result;
        EXPECT_STRNE(shmnmpicture_error(opened), "");
    }
    EXPECT_EQ(picture.json().text, expected);
    ASSERT_EQ(shmnm_delete(), SHMNM_OK);
    EXPECT_EQ(test::Opened::live().result(), SHMNMPICTURE_ERR_NO_REGION)
        << "nothing was left open that keeps the region";
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
}

TEST_F(WithoutMemory, AFileIsRefusedWithAResult) {
    const test::TemporaryFolder folder;
    const std::string file = folder.string() + "/dump", dump = std::string(100'000, '\0');
    test::write_text(file, dump);
    EXPECT_GT(failures_until_success([&] {
                  shmnmpicture* made = nullptr;
                  const int32_t result = shmnmpicture_open_file(file.c_str(), nullptr, &made);
                  shmnmpicture_free(made);
                  return result;
              }),
              4);
}

}  // namespace
