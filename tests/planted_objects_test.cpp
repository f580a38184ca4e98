// Named objects that were there first (Windows): whose they may be, and what others may do with them, for the utility
// companion and the library to use them.
#include <windows.h>

#include <gmock/gmock.h>
#include <sddl.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "kzmutil.h"
#include "support/child.h"
#include "support/dynamic_library.h"
#include "support/program.h"
#include "support/temporary_folder.h"
#include "windows_users.h"

namespace {

using test::Child;
using test::DynamicLibrary;
using test::ScopedEnvironment;
using testing::Each;
using testing::EndsWith;
using testing::SizeIs;

constexpr DWORD denied = ERROR_ACCESS_DENIED, exists = ERROR_ALREADY_EXISTS, untouched = 4711;
constexpr uint32_t everything = 0xF001F, reading = 4, read_write = 4;
constexpr const char *lock_name = "oru_kzmshmnm_lock", *region_name = "oru_kzmshmnm_map";
/// Securities that their text notation cannot tell.
constexpr const char *null_list = "null list", *audit_entry = "audit entry";

struct Free {
    void operator()(void* memory) const { LocalFree(memory); }
};
using Descriptor = std::unique_ptr<void, Free>;

/// A security in its text notation; ME stands for this user.
Descriptor parsed(std::string text) {
    const std::string me = test::own_sid();
    for (size_t at = 0; (at = text.find("ME", at)) != std::string::npos;) text.replace(at, 2, me);
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    EXPECT_TRUE(
        ConvertStringSecurityDescriptorToSecurityDescriptorA(text.c_str(), SDDL_REVISION_1, &descriptor, nullptr))
        << text;
    return Descriptor(descriptor);
}

Descriptor security(const std::string& text) {
    if (text == null_list) {
        auto* const descriptor = LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH);
        EXPECT_TRUE(InitializeSecurityDescriptor(descriptor, SECURITY_DESCRIPTOR_REVISION));
        EXPECT_TRUE(SetSecurityDescriptorDacl(descriptor, TRUE, nullptr, FALSE));
        return Descriptor(descriptor);
    }
    if (text != audit_entry) return parsed(text);
    Descriptor descriptor = parsed("O:MED:(A;;GA;;;ME)(A;;GA;;;SY)");
    BOOL present = FALSE, defaulted = FALSE;
    PACL list = nullptr;
    void* entry = nullptr;
    EXPECT_TRUE(GetSecurityDescriptorDacl(descriptor.get(), &present, &list, &defaulted));
    EXPECT_TRUE(GetAce(list, 1, &entry));
    static_cast<ACE_HEADER*>(entry)->AceType = SYSTEM_AUDIT_ACE_TYPE;
    return descriptor;
}

std::string full_name(const std::string& name) {
    return std::getenv("KZMUTIL_NAMESPACE") + name;
}

/// Makes a new mutex, or a mapping of a page of the letter #, by the kernel's own calls. @return whether it is new
bool plant(bool is_mutex, const std::string& name, const std::string& security_text) {
    const Descriptor descriptor = security(security_text);
    SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), descriptor.get(), FALSE};
    SetLastError(ERROR_SUCCESS);
    if (is_mutex) return CreateMutexA(&attributes, FALSE, full_name(name).c_str()) && GetLastError() == ERROR_SUCCESS;
    const HANDLE mapping =
        CreateFileMappingA(INVALID_HANDLE_VALUE, &attributes, PAGE_READWRITE, 0, 4096, full_name(name).c_str());
    if (!mapping || GetLastError() != ERROR_SUCCESS) return false;
    void* const view = MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0);
    if (view) std::memset(view, '#', 4096);
    return UnmapViewOfFile(view);
}

/// The bytes of a mapping, read past the companion.
std::string bytes_of(const char* name) {
    const HANDLE mapping = OpenFileMappingA(FILE_MAP_READ, FALSE, full_name(name).c_str());
    void* const view = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
    std::string bytes = view ? std::string(static_cast<const char*>(view), 4096) : "";
    UnmapViewOfFile(view);
    CloseHandle(mapping);
    return bytes;
}

/// Whether nobody, this process included, holds a mutex or a mapping of that name.
bool is_free(bool is_mutex, const std::string& name) {
    SetLastError(ERROR_SUCCESS);
    const HANDLE object =
        is_mutex ? CreateMutexA(nullptr, FALSE, full_name(name).c_str())
                 : CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, full_name(name).c_str());
    const DWORD error = GetLastError();
    CloseHandle(object);
    return object && error == ERROR_SUCCESS;
}

struct Case {
    const char* says;
    const char* security;
};
constexpr std::array open_to_others{
    Case{"no list, which lets in everyone", null_list},
    Case{"everyone may do everything", "O:MED:(A;;GA;;;WD)"},
    Case{"everyone may write", "O:MED:(A;;GA;;;ME)(A;;GW;;;WD)"},
    Case{"users may do everything", "O:MED:(A;;GA;;;ME)(A;;GA;;;BA)(A;;GA;;;SY)(A;;GA;;;BU)"},
    Case{"whoever has logged on may do everything", "O:MED:(A;;GA;;;ME)(A;;GA;;;AU)"},
    Case{"whoever sits at the console may do everything", "O:MED:(A;;GA;;;ME)(A;;GA;;;IU)"},
    Case{"another user may do everything", "O:MED:(A;;GA;;;ME)(A;;GA;;;S-1-5-21-1-2-3-1001)"},
    Case{"an entry denies before another one allows", "O:MED:(D;;GA;;;AN)(A;;GA;;;ME)(A;;GA;;;WD)"},
    Case{"an entry holds here and is inherited too", "O:MED:(A;;GA;;;ME)(A;OI;GA;;;WD)"},
    Case{"everyone may change the list", "O:MED:(A;;GA;;;ME)(A;;WD;;;WD)"},
    Case{"everyone may become the owner", "O:MED:(A;;GA;;;ME)(A;;WO;;;WD)"},
    Case{"everyone may delete", "O:MED:(A;;GA;;;ME)(A;;SD;;;WD)"},
    Case{"everyone may do whatever there is", "O:MED:(A;;GA;;;ME)(A;;0x2000000;;;WD)"},
    Case{"an entry is of another kind", audit_entry},
    // Windows lets only administrators give an object to another owner, wine anybody.
    Case{"another user owns it", "O:S-1-5-21-1-2-3-1001D:(A;;GA;;;ME)"},
    Case{"a group of users owns it", "O:BUD:(A;;GA;;;ME)"},
};
constexpr std::array mutexes_open_to_others{
    Case{"everyone may wait for it, so take it", "O:MED:(A;;GA;;;ME)(A;;0x100000;;;WD)"},
    Case{"everyone may execute it, so take it", "O:MED:(A;;GA;;;ME)(A;;GX;;;WD)"},
};
constexpr std::array mappings_open_to_others{
    Case{"everyone may write its bytes", "O:MED:(A;;GA;;;ME)(A;;0x2;;;WD)"},
};
constexpr std::array closed_to_others{
    Case{"this user's alone", "O:MED:(A;;GA;;;ME)"},
    Case{"as the companion makes its own", "O:MED:P(A;;GA;;;ME)(A;;GA;;;BA)(A;;GA;;;SY)"},
    Case{"the administrators own it", "O:BAD:(A;;GA;;;ME)"},
    Case{"the system owns it", "O:SYD:(A;;GA;;;ME)"},
    Case{"everyone may read", "O:MED:(A;;GA;;;ME)(A;;GR;;;WD)(A;;0x20001;;;AU)"},
    Case{"some are denied", "O:MED:(D;;GA;;;AN)(A;;GA;;;ME)"},
    Case{"an entry is inherited but does not hold here", "O:MED:(A;;GA;;;ME)(A;OIIO;GA;;;WD)"},
};

std::vector<Case> cases_open_to_others(bool is_mutex) {
    std::vector<Case> all(open_to_others.begin(), open_to_others.end());
    if (is_mutex) all.insert(all.end(), mutexes_open_to_others.begin(), mutexes_open_to_others.end());
    if (!is_mutex) all.insert(all.end(), mappings_open_to_others.begin(), mappings_open_to_others.end());
    return all;
}

/// Plants objects of all cases, named by what they say, until it is killed. Its argument: "mutex" or "mapping".
CHILD(planter_of_all) {
    const bool is_mutex = test::argument() == "mutex";
    uint64_t count = 0;
    for (const Case& one : cases_open_to_others(is_mutex)) count += plant(is_mutex, one.says, one.security);
    for (const Case& one : closed_to_others) count += plant(is_mutex, one.says, one.security);
    test::report(count);
    test::hang();
}

/// A call of the companion that may meet an object which is there already.
struct Call {
    const char* name;
    bool is_mutex;
    void* (*make)(const char* name);
    DWORD error_of_a_success;
};
std::ostream& operator<<(std::ostream& stream, const Call& call) {
    return stream << call.name;
}
const Call calls[] = {
    {"CreateMutex", true, [](const char* name) { return KzmutilCreateNamedMutex(0, name); }, exists},
    {"CreateMapping", false,
     [](const char* name) { return KzmutilCreateNamedFileMapping(INVALID_HANDLE_VALUE, read_write, 0, 4096, name); },
     exists},
    {"OpenMapping", false, [](const char* name) { return KzmutilOpenNamedFileMapping(everything, 1, name); },
     untouched},
    {"OpenMappingToRead", false, [](const char* name) { return KzmutilOpenNamedFileMapping(reading, 0, name); },
     untouched},
};

class PlantedObject : public testing::TestWithParam<Call> {
  protected:
    void SetUp() override {
        ASSERT_EQ(planter_.reported(), cases_open_to_others(GetParam().is_mutex).size() + closed_to_others.size());
    }
    Child planter_ = test::start(planter_of_all, GetParam().is_mutex ? "mutex" : "mapping");
};

TEST_P(PlantedObject, IsRefusedAndNotHeldIfOthersOwnItOrCanChangeIt) {
    const std::vector<Case> cases = cases_open_to_others(GetParam().is_mutex);
    for (const Case& one : cases) {
        SetLastError(untouched);
        void* const object = GetParam().make(one.says);
        EXPECT_EQ(GetLastError(), denied) << one.says;
        EXPECT_FALSE(object) << one.says;
        CloseHandle(object);
    }
    planter_.kill();
    for (const Case& one : cases) EXPECT_TRUE(is_free(GetParam().is_mutex, one.says)) << one.says;
}

TEST_P(PlantedObject, IsUsedIfItIsOursAndOthersCanOnlyReadIt) {
    for (const Case& one : closed_to_others) {
        SetLastError(untouched);
        void* const object = GetParam().make(one.says);
        EXPECT_EQ(GetLastError(), GetParam().error_of_a_success) << one.says;
        EXPECT_TRUE(object) << one.says;
        CloseHandle(object);
    }
}

INSTANTIATE_TEST_SUITE_P(Calls, PlantedObject, testing::ValuesIn(calls),
                         [](const auto& tested) { return tested.param.name; });

/// Plants an object until it is killed. Its argument: "mutex" or "mapping", the name, the security, a | between them.
CHILD(planter) {
    const std::string& text = test::argument();
    const size_t first = text.find('|'), second = text.find('|', first + 1);
    test::report(
        plant(text.substr(0, first) == "mutex", text.substr(first + 1, second - first - 1), text.substr(second + 1)));
    test::hang();
}
Child planted(const char* kind, const char* name, const char* security_text) {
    Child child = test::start(planter, std::string(kind) + '|' + name + '|' + security_text);
    EXPECT_EQ(child.reported(), 1u) << security_text;
    return child;
}

std::string library_path() {
    return test::own_folder() + "kzmshmnm.dll";
}

class PlantedLock : public testing::TestWithParam<const char*> {};

TEST_P(PlantedLock, KeepsTheLibraryFromLoading) {
    Child child = planted("mutex", lock_name, GetParam());
    EXPECT_FALSE(DynamicLibrary(library_path()).loaded());
    child.kill();
    EXPECT_TRUE(DynamicLibrary(library_path()).loaded());
}

INSTANTIATE_TEST_SUITE_P(Securities, PlantedLock,
                         testing::Values(null_list, "O:MED:(A;;GA;;;ME)(A;;GW;;;WD)", "O:BUD:(A;;GA;;;ME)"));

TEST(PlantedLock, EndsALinkedProgramBeforeItBegins) {
    const Child child = planted("mutex", lock_name, null_list);
    const test::ProgramResult result = test::run_program(test::own_folder() + SHMNM_TUTORIAL, "alpha");
    EXPECT_EQ(static_cast<uint32_t>(result.status), 0xC0000142u);
    EXPECT_EQ(result.output, "");
}

TEST(PlantedLock, IsUsedAsTheLockIfThisUserMadeIt) {
    const Child child = planted("mutex", lock_name, "O:MED:(A;;GA;;;ME)");
    EXPECT_TRUE(DynamicLibrary(library_path()).loaded());
}

/// An installation with room for 64 servers, and the library.
class PlantedRegion : public testing::Test {
  protected:
    PlantedRegion() : path_("KZM_INSTALL_PATH", folder_.string().c_str()) {
        folder_.write(
            "etc/cluster.xml",
            "<root><all><num><server>64</server><hbr>2</hbr><npr>2</npr><fstr>1</fstr></num></all><shmnm><log>"
            "<level>1</level><size>1000000</size></log></shmnm></root>");
    }
    uint32_t call(const char* name) const { return library_.function<uint32_t()>(name)(); }
    uint32_t add_server(const std::string& name) const {
        return library_.function<uint32_t(const char*, int32_t)>("shmnm_addnode")(name.c_str(), 1);
    }
    std::vector<std::string> log() const {
        std::istringstream text(test::contents_of(folder_.path() / "log" / "shmnm.log"));
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);) lines.push_back(line);
        return lines;
    }

    test::TemporaryFolder folder_;
    test::ScopedEnvironment path_;
    DynamicLibrary library_{library_path()};
};

TEST_F(PlantedRegion, IsRefusedAndNotWrittenIfOthersCanWriteToIt) {
    const Child child = planted("mapping", region_name, null_list);
    ASSERT_TRUE(library_.loaded());
    EXPECT_EQ(call("shmnm_create"), 6u);
    EXPECT_THAT(log(), AllOf(SizeIs(6), Each(EndsWith("KzmutilCreateNamedFileMapping failed(errno:5)"))));
    EXPECT_EQ(call("shmnm_attach"), 8u);
    ASSERT_THAT(log(), SizeIs(7));
    EXPECT_THAT(log().back(), EndsWith("KzmutilOpenNamedFileMapping() failed(errno:5)"));
    EXPECT_EQ(call("shmnm_detach"), 1u) << "nothing is mapped";
    EXPECT_EQ(bytes_of(region_name), std::string(4096, '#'));
}

TEST_F(PlantedRegion, IsUsedAsFarAsItGoesIfThisUserMadeItTooSmall) {
    const Child child = planted("mapping", region_name, "O:MED:(A;;GA;;;ME)");
    ASSERT_TRUE(library_.loaded());
    for (const char* const map : {"shmnm_create", "shmnm_attach"}) {
        ASSERT_EQ(call(map), 0u);
        EXPECT_EQ(call("shmnm_clear"), 0u);
        EXPECT_EQ(call("shmnm_detach"), 0u);
    }
    ASSERT_EQ(call("shmnm_attach"), 0u);
    // 4096 bytes hold the header's 1084 and nine servers of 320.
    for (int i = 0; i < 9; ++i) EXPECT_EQ(add_server("server" + std::to_string(i)), 0u);
    EXPECT_EQ(add_server("one too many"), 9u);
    EXPECT_EQ(call("shmnm_detach"), 0u);
}

}  // namespace
