// The public header in C++: included first and alone, with C linkage, and every function with just the type that other
// builds of the library and its callers agree on.
#include "shmnm.h"
// Twice does no harm.
#include "shmnm.h"

#include <gmock/gmock.h>

#include <type_traits>

#include "support/dynamic_library.h"

namespace {

using Nothing = uint32_t();
using SetWord = uint32_t(uint32_t);
using GetWord = uint32_t(uint32_t*);
using Text = uint32_t(const char*);
using TextNumber = uint32_t(const char*, int32_t);
using TextSetWord = uint32_t(const char*, uint32_t);
using TextGetWord = uint32_t(const char*, uint32_t*);
using Number = uint32_t(int32_t);
using ListTexts = uint32_t(char*, uint32_t*);
using Texts = uint32_t(const char*, const char*);
using TextsSetWord = uint32_t(const char*, const char*, uint32_t);
using TextsGetWord = uint32_t(const char*, const char*, uint32_t*);
using SetCell = uint32_t(const char*, const char*, int32_t, uint32_t);
using GetCell = uint32_t(const char*, const char*, int32_t, uint32_t*);
using ListRow = uint32_t(const char*, const char*, uint32_t*, uint32_t*);
using ListColumn = uint32_t(const char*, uint32_t*, uint32_t*);
using SetBytes = uint32_t(const char*, const char*, const void*, int32_t);
using GetBytes = uint32_t(const char*, const char*, void*, const int32_t*);

struct Function {
    const char* name;
    void (*address)();
};

/// A function of the header, which must have the type that is written beside it.
template <typename Type, typename Declared>
Function function(const char* name, Declared* address) {
    static_assert(std::is_same_v<Type, Declared>);
    return {name, reinterpret_cast<void (*)()>(address)};
}
#define FUNCTION(type, name) function<type>(#name, name)

const Function functions[] = {
    FUNCTION(Nothing, shmnm_create),
    FUNCTION(Nothing, shmnm_attach),
    FUNCTION(Nothing, shmnm_detach),
    FUNCTION(Nothing, shmnm_delete),
    FUNCTION(Nothing, shmnm_clear),
    FUNCTION(uint32_t(uint8_t*, int32_t*), shmnm_dump),
    FUNCTION(SetWord, shmnm_rolock),
    FUNCTION(Nothing, shmnm_rounlock),
    FUNCTION(SetWord, shmnm_rwlock),
    FUNCTION(Nothing, shmnm_rwunlock),
    FUNCTION(uint32_t(int32_t, int32_t, int32_t), shmnm_setmaxvalue_ex),
    FUNCTION(uint32_t(uint32_t*, uint32_t*, uint32_t*), shmnm_getmaxvalue_ex),
    FUNCTION(uint32_t(int32_t, int32_t), shmnm_sethbinfo_ex),
    FUNCTION(uint32_t(uint32_t*, uint32_t*), shmnm_gethbinfo_ex),
    FUNCTION(SetWord, shmnm_setwaitstat),
    FUNCTION(GetWord, shmnm_getwaitstat),
    FUNCTION(SetWord, shmnm_setbwflag),
    FUNCTION(GetWord, shmnm_getbwflag),
    FUNCTION(SetWord, shmnm_setbwflagdisk),
    FUNCTION(GetWord, shmnm_getbwflagdisk),
    FUNCTION(SetWord, shmnm_setclstat),
    FUNCTION(GetWord, shmnm_getclstat),
    FUNCTION(TextNumber, shmnm_addnode),
    FUNCTION(Text, shmnm_rmnode),
    FUNCTION(TextNumber, shmnm_modifynode),
    FUNCTION(ListTexts, shmnm_enumnode),
    FUNCTION(uint32_t(const char*, int32_t*), shmnm_getnodepri),
    FUNCTION(uint32_t(char*, int32_t), shmnm_getnodename),
    FUNCTION(TextSetWord, shmnm_setnodestat),
    FUNCTION(TextGetWord, shmnm_getnodestat),
    FUNCTION(TextSetWord, shmnm_setnodestat_nw),
    FUNCTION(TextGetWord, shmnm_getnodestat_nw),
    FUNCTION(TextSetWord, shmnm_setdownnotifystat),
    FUNCTION(TextGetWord, shmnm_getdownnotifystat),
    FUNCTION(TextSetWord, shmnm_setisolateflag),
    FUNCTION(TextGetWord, shmnm_getisolateflag),
    FUNCTION(TextSetWord, shmnm_setpingstat),
    FUNCTION(TextGetWord, shmnm_getpingstat),
    FUNCTION(TextSetWord, shmnm_setholdstat),
    FUNCTION(TextGetWord, shmnm_getholdstat),
    FUNCTION(TextGetWord, shmnm_getnodecombstat),
    FUNCTION(TextGetWord, shmnm_chkalivesv),
    FUNCTION(TextsSetWord, shmnm_addhbrsc),
    FUNCTION(TextsSetWord, shmnm_addnprsc),
    FUNCTION(Texts, shmnm_rmhbrsc),
    FUNCTION(Texts, shmnm_rmnprsc),
    FUNCTION(TextsSetWord, shmnm_modifyhbrsc),
    FUNCTION(TextsSetWord, shmnm_modifynprsc),
    FUNCTION(TextsGetWord, shmnm_gethbrscpri),
    FUNCTION(TextsGetWord, shmnm_getnprscpri),
    FUNCTION(uint32_t(char*, const char*), shmnm_gethbrscinfo),
    FUNCTION(uint32_t(char*, const char*), shmnm_getnprscinfo),
    FUNCTION(ListTexts, shmnm_enumhbtype),
    FUNCTION(ListTexts, shmnm_enumnptype),
    FUNCTION(uint32_t(const char*, char*, uint32_t*), shmnm_enumhbrsc),
    FUNCTION(uint32_t(const char*, char*, uint32_t*), shmnm_enumnprsc),
    FUNCTION(TextsSetWord, shmnm_sethbrscstat),
    FUNCTION(TextsSetWord, shmnm_setnprscstat),
    FUNCTION(TextsGetWord, shmnm_gethbrscstat),
    FUNCTION(TextsGetWord, shmnm_getnprscstat),
    FUNCTION(SetCell, shmnm_sethbrscsvstat),
    FUNCTION(SetCell, shmnm_setnprscsvstat),
    FUNCTION(GetCell, shmnm_gethbrscsvstat),
    FUNCTION(GetCell, shmnm_getnprscsvstat),
    FUNCTION(ListRow, shmnm_enumhbrscsvstat),
    FUNCTION(ListRow, shmnm_enumnprscsvstat),
    FUNCTION(ListColumn, shmnm_enumsvhbrscstat),
    FUNCTION(ListColumn, shmnm_enumsvnprscstat),
    FUNCTION(TextSetWord, shmnm_settypehbstat),
    FUNCTION(TextSetWord, shmnm_settypenpstat),
    FUNCTION(SetBytes, shmnm_sethbdescript),
    FUNCTION(SetBytes, shmnm_setnpdescript),
    FUNCTION(GetBytes, shmnm_gethbdescript),
    FUNCTION(GetBytes, shmnm_getnpdescript),
    FUNCTION(Number, shmnm_addhbrscsvstat),
    FUNCTION(Number, shmnm_addnprscsvstat),
    FUNCTION(Number, shmnm_rmhbrscsvstat),
    FUNCTION(Number, shmnm_rmnprscsvstat),
    FUNCTION(uint32_t(uint32_t, const uint32_t*, int32_t), shmnm_setnpsimu),
    FUNCTION(uint32_t(uint32_t*, uint32_t*, int32_t), shmnm_getnpsimu),
    FUNCTION(GetWord, shmnm_getnpsimuflag),
    FUNCTION(SetCell, shmnm_setrscsvstat_nw),
    FUNCTION(GetCell, shmnm_getrscsvstat_nw),
    FUNCTION(ListRow, shmnm_enumrscsvstat_nw),
    FUNCTION(ListColumn, shmnm_enumsvrscstat_nw),
    FUNCTION(SetWord, shmnm_setfstrscstat),
    FUNCTION(GetWord, shmnm_getfstrscstat),
    FUNCTION(uint32_t(const void*, int32_t), shmnm_setfstdescript),
    FUNCTION(uint32_t(void*, const int32_t*), shmnm_getfstdescript),
    FUNCTION(uint32_t(const char*, int32_t, uint32_t, uint64_t), shmnm_setfstrscpid),
    FUNCTION(uint32_t(const char*, int32_t, uint32_t*, uint64_t*), shmnm_getfstrscpid),
};
static_assert(sizeof functions / sizeof functions[0] == 91);

// What other processes, and other languages, take the records for.
template <typename Record>
constexpr bool is_plain = std::is_trivial_v<Record>&& std::is_standard_layout_v<Record>;
static_assert(is_plain<shmnm_header> && is_plain<shmnm_server> && is_plain<shmnm_resource> && is_plain<shmnm_fst_pid>);
static_assert(alignof(shmnm_header) == 4 && alignof(shmnm_fst_pid) == 4, "nothing is on 8-byte boundaries");

TEST(Header, DeclaresTheExportedFunctionsUnderTheirNames) {
    const test::DynamicLibrary library(test::own_folder() + SHMNM_LIBRARY);
    ASSERT_TRUE(library.loaded()) << library.error();
    for (const auto& [name, address] : functions) EXPECT_EQ(library.function<void()>(name), address) << name;
}

TEST(Header, ExplainsEachResult) {
    std::vector<std::string> meanings;
#define RESULT(name, value, meaning) \
    static_assert(name == value);    \
    meanings.emplace_back(meaning);
    SHMNM_RESULTS(RESULT)
#undef RESULT
    EXPECT_THAT(meanings, testing::SizeIs(19));
    EXPECT_THAT(meanings, testing::Each(testing::Not(testing::IsEmpty())));
}

}  // namespace
