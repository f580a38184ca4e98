// The C library leaves the process when it is unloaded, with what it has loaded for itself, except for the region's
// library. This program is linked to neither.
#include <gtest/gtest.h>

#include "shmnmpicture.h"
#include "support/dynamic_library.h"
#include "support/temporary_folder.h"

namespace {

TEST(UnloadedPictureLibrary, LeavesTheProcess) {
    const test::TemporaryFolder folder;
    folder.write("dump", std::string(1'084, '\0'));
    const std::string file = folder.string() + "/dump";
    ASSERT_FALSE(test::DynamicLibrary::in_process("shmnmpicture"));
    for (int round = 0; round < 3; ++round) {
        const test::DynamicLibrary library(test::own_folder() + SHMNMPICTURE_LIBRARY);
        ASSERT_TRUE(library.loaded()) << library.error();
        ASSERT_TRUE(test::DynamicLibrary::in_process("shmnmpicture"));
        shmnmpicture* picture = nullptr;
        EXPECT_EQ(library.function<decltype(shmnmpicture_open_file)>("shmnmpicture_open_file")(file.c_str(), nullptr,
                                                                                               &picture),
                  SHMNMPICTURE_OK);
        const char* text = nullptr;
        EXPECT_EQ(library.function<decltype(shmnmpicture_value)>("shmnmpicture_value")(picture, "cluster/clstatt",
                                                                                       &text, nullptr),
                  SHMNMPICTURE_ERR_NO_SUCH_WORD);
        library.function<decltype(shmnmpicture_free)>("shmnmpicture_free")(picture);
        EXPECT_EQ(library.function<decltype(shmnmpicture_open_live)>("shmnmpicture_open_live")(nullptr, &picture),
                  SHMNMPICTURE_ERR_NO_REGION);
        library.function<decltype(shmnmpicture_free)>("shmnmpicture_free")(picture);
    }
    EXPECT_FALSE(test::DynamicLibrary::in_process("shmnmpicture"));
}

}  // namespace
