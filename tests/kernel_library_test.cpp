// kzmkernel is unloaded and loaded again.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <pthread.h>

#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/temporary_folder.h"

namespace {

using namespace kernel_test;

/// A second copy of the library, which can be loaded and unloaded.
class LoadedCopy {
  public:
    LoadedCopy() : file_(folder_.path() / "libkzmkernel.so") {
        // The libraries of the build lie beside its programs.
        const fs::path original = fs::read_symlink("/proc/self/exe").parent_path() / "libkzmkernel.so";
        fs::copy_file(original, file_);
        load();
    }
    void load() { library_ = dlopen(file_.c_str(), RTLD_NOW | RTLD_LOCAL); }
    void unload() { dlclose(std::exchange(library_, nullptr)); }
    bool is_loaded() const { return test::contents_of("/proc/self/maps").find(file_.string()) != std::string::npos; }
    template <typename Function>
    Function* function(const char* name) const {
        return reinterpret_cast<Function*>(dlsym(library_, name));
    }

  private:
    test::TemporaryFolder folder_;
    fs::path file_;
    void* library_ = nullptr;
};
#define FUNCTION_OF(copy, name) (copy).function<decltype(name)>(#name)

TEST(KernelLibrary, CanBeUnloadedAfterUse) {
    const std::string name = object_name();
    LoadedCopy copy;
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(copy.is_loaded());
        void* const mutex = FUNCTION_OF(copy, kzmkernel_create_mutex)(name.c_str());
        ASSERT_NE(mutex, nullptr);
        std::thread([&] {
            EXPECT_EQ(FUNCTION_OF(copy, kzmkernel_wait)(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
            EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_release)(mutex));
            EXPECT_FALSE(FUNCTION_OF(copy, kzmkernel_release)(mutex));
            EXPECT_EQ(FUNCTION_OF(copy, kzmkernel_last_error)(), uint32_t{KZMKERNEL_ERROR_NOT_OWNER});
        }).join();
        EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_close)(mutex));
        copy.unload();
        EXPECT_FALSE(copy.is_loaded());
        in_fork([] {});  // its fork handlers are gone
        copy.load();
    }
    copy.unload();
}

std::vector<pthread_key_t> take_all_thread_keys() {
    std::vector<pthread_key_t> keys;
    for (pthread_key_t key; pthread_key_create(&key, nullptr) == 0; keys.push_back(key)) {
    }
    return keys;
}

TEST(KernelLibrary, WorksIfTheProgramHasUsedAllThreadKeys) {
    in_fork([] {
        const std::vector<pthread_key_t> keys = take_all_thread_keys();
        LoadedCopy copy;
        const std::string name = object_name();
        void* const mutex = FUNCTION_OF(copy, kzmkernel_create_mutex)(name.c_str());
        std::thread([&] {
            for (int i = 0; i < 2; ++i) {
                EXPECT_EQ(FUNCTION_OF(copy, kzmkernel_wait)(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
                EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_release)(mutex));
            }
            for (const pthread_key_t key : keys) EXPECT_EQ(pthread_getspecific(key), nullptr) << "the program's own";
        }).join();
        EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_close)(mutex));
        EXPECT_EQ(test::contents_of("/proc/self/maps").find(file_of_mutex(name).filename()), std::string::npos);
        copy.unload();
        EXPECT_FALSE(copy.is_loaded());
    });
}

TEST(KernelLibrary, UnmapsTheMutexThatTheUnloadingThreadUsedLast) {
    const std::string name = object_name();
    LoadedCopy copy;
    void* const mutex = FUNCTION_OF(copy, kzmkernel_create_mutex)(name.c_str());
    EXPECT_EQ(FUNCTION_OF(copy, kzmkernel_wait)(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_release)(mutex));
    std::thread([&] { EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_close)(mutex)); }).join();
    copy.unload();
    EXPECT_EQ(test::contents_of("/proc/self/maps").find(file_of_mutex(name).filename()), std::string::npos);
}

size_t free_thread_keys() {
    const std::vector<pthread_key_t> keys = take_all_thread_keys();
    for (const pthread_key_t key : keys) pthread_key_delete(key);
    return keys.size();
}

TEST(KernelLibrary, UsesNoThreadKeyAfterItIsUnloaded) {
    LoadedCopy copy;
    copy.unload();
    const size_t before = free_thread_keys();
    copy.load();
    EXPECT_EQ(free_thread_keys(), before - 1);
    copy.unload();
    EXPECT_EQ(free_thread_keys(), before);
}

TEST(KernelLibrary, KeepsTheLocksOfItsThreadsAcrossAReload) {
    // The lock's memory stays with the process, which therefore is one that ends.
    in_fork([] {
        const std::string name = object_name();
        const Handle holder(create_mutex(name));
        LoadedCopy copy;
        void* mutex = FUNCTION_OF(copy, kzmkernel_create_mutex)(name.c_str());
        ASSERT_EQ(FUNCTION_OF(copy, kzmkernel_wait)(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_close)(mutex));
        copy.unload();
        ASSERT_FALSE(copy.is_loaded());
        copy.load();
        mutex = FUNCTION_OF(copy, kzmkernel_create_mutex)(name.c_str());
        EXPECT_EQ(FUNCTION_OF(copy, kzmkernel_wait)(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_release)(mutex));
        std::thread([&] { EXPECT_EQ(kzmkernel_wait(holder.value, 0), uint32_t{KZMKERNEL_WAIT_TIMEOUT}); }).join();
        EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_release)(mutex));
        std::thread([&] {
            EXPECT_EQ(kzmkernel_wait(holder.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
            EXPECT_TRUE(kzmkernel_release(holder.value));
        }).join();
        EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_close)(mutex));
        copy.unload();
    });
}

}  // namespace
