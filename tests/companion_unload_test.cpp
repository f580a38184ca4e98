// The companions leave a process when they are unloaded: nothing in them keeps them there. This program is linked to
// none.
#include <gtest/gtest.h>

#include <thread>

#include "support/child.h"
#include "support/dynamic_library.h"
#include "support/temporary_folder.h"

namespace {

TEST(Companion, UnloadsKzmutilFromTheProcess) {
    ASSERT_FALSE(test::DynamicLibrary::in_process("kzmutil"));
    for (int round = 0; round < 3; ++round) {
        const test::DynamicLibrary library(test::own_folder() + KZMUTIL_LIBRARY);
        ASSERT_TRUE(library.loaded()) << library.error();
        ASSERT_TRUE(test::DynamicLibrary::in_process("kzmutil"));
        char path[4096];
        EXPECT_EQ(library.function<int32_t(char*, uint32_t)>("KzmutilGetInstallPath")(path, sizeof path), 1);
        EXPECT_EQ(library.function<void*(uint32_t, const char*)>("KzmutilCreateNamedMutex")(1, "refused"), nullptr);
    }
    EXPECT_FALSE(test::DynamicLibrary::in_process("kzmutil"));
}

TEST(Companion, UnloadsKzmxmlFromTheProcess) {
    const test::TemporaryFolder folder;
    const test::ScopedEnvironment install_path("KZM_INSTALL_PATH", folder.string().c_str());
    folder.write("etc/cluster.xml", "<root><all><n>1</n></all></root>");
    ASSERT_FALSE(test::DynamicLibrary::in_process("kzmxml"));
    for (int round = 0; round < 3; ++round) {
        const test::DynamicLibrary library(test::own_folder() + KZMXML_LIBRARY);
        ASSERT_TRUE(library.loaded()) << library.error();
        ASSERT_TRUE(test::DynamicLibrary::in_process("kzmxml"));
        EXPECT_EQ(library.function<int32_t(const char*)>("xmllib_init")("test"), 0);
        EXPECT_EQ(library.function<int32_t(int32_t)>("xmllib_load_config")(0), 0);
        EXPECT_EQ(library.function<int32_t(const char*)>("xmllib_load_policy")("all"), 0);
        EXPECT_EQ(library.function<int32_t(const char*)>("xmllib_load_policy")("missing"), 5);
        EXPECT_EQ(library.function<int32_t()>("xmllib_term")(), 0);
    }
    EXPECT_FALSE(test::DynamicLibrary::in_process("kzmxml"));
}

TEST(Companion, UnloadsKzmlogFromTheProcess) {
    const test::TemporaryFolder folder;
    const test::ScopedEnvironment install_path("KZM_INSTALL_PATH", folder.string().c_str());
    ASSERT_FALSE(test::DynamicLibrary::in_process(KZMLOG_LIBRARY));
    for (int round = 0; round < 3; ++round) {
        const test::DynamicLibrary library(test::own_folder() + KZMLOG_LIBRARY);
        ASSERT_TRUE(library.loaded()) << library.error();
        ASSERT_TRUE(test::DynamicLibrary::in_process(KZMLOG_LIBRARY));
        auto* const open =
            library.function<int32_t(const char*, void**, uint32_t, uint32_t, uint32_t, const char*)>("kzmlog_open");
        auto* const write =
            library.function<int32_t(void*, uint32_t, uint32_t, const char*, int32_t, const char*, const char*)>(
                "kzmlog_write");
        void* log = nullptr;
        ASSERT_EQ(open("shmnm", &log, 4, 1, 0, "channel"), 0);
        std::thread([&] { EXPECT_EQ(write(log, 4, 0, "f", 1, "g", "from a thread that ends"), 0); }).join();
        EXPECT_EQ(write(log, 4, 0, "f", 1, "g", "from this one"), 0);
        EXPECT_EQ(library.function<int32_t(void*)>("kzmlog_close")(log), 0);
    }
    EXPECT_FALSE(test::DynamicLibrary::in_process(KZMLOG_LIBRARY));
    const std::string text = test::contents_of(folder.path() / "log/shmnm.log");
    EXPECT_NE(text.find("from this one\n"), std::string::npos) << text;
}

}  // namespace
