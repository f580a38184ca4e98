// Text and paths for the wide calls of Windows.
#include "wide_path.h"

#include <gmock/gmock.h>

#include <string>

namespace {

using testing::EndsWith;
using testing::StartsWith;

const std::string mixed_utf8 = "C:\\\xD0\x9A\xD0\xBB\xD0\xB0\xD1\x81\xD1\x82\xD0\xB5\xD1\x80 \xF0\x9F\x96\xA5";
const std::wstring mixed_wide = L"C:\\\x041A\x043B\x0430\x0441\x0442\x0435\x0440 \xD83D\xDDA5";

TEST(WidePath, TakesUtf8AndGivesIt) {
    EXPECT_EQ(wide_path::to_wide(mixed_utf8), mixed_wide);
    EXPECT_EQ(wide_path::to_utf8(mixed_wide), mixed_utf8);
    EXPECT_EQ(wide_path::to_wide(""), L"");
    EXPECT_EQ(wide_path::to_utf8(L""), "");
}

TEST(WidePath, TakesOtherTextAsThatOfTheSystemsCodePage) {
    wchar_t expected = 0;
    ASSERT_EQ(MultiByteToWideChar(CP_ACP, 0, "\xFC", 1, &expected, 1), 1);
    EXPECT_EQ(wide_path::to_wide("\xFC"), std::wstring(1, expected));
}

TEST(WidePath, LeavesShortPathsAndDevicesAsTheyAre) {
    for (const char* const path : {"C:\\kzm\\etc/cluster.xml", "dump.bin", "..\\dump.bin", "\\\\server\\share\\dump",
                                   "\\\\.\\pipe\\shmnm\\etc/cluster.xml"}) {
        EXPECT_EQ(wide_path::for_call(path), wide_path::to_wide(path)) << path;
    }
}

TEST(WidePath, LiftsTheLimitOfLongPaths) {
    const std::string name(120, 'n');
    const std::wstring wide(120, L'n');
    EXPECT_EQ(wide_path::for_call("C:\\" + name + "/" + name + "/etc/cluster.xml"),
              L"\\\\?\\C:\\" + wide + L"\\" + wide + L"\\etc\\cluster.xml");
    EXPECT_EQ(wide_path::for_call("C:/" + name + "/x/../" + name), L"\\\\?\\C:\\" + wide + L"\\" + wide);
    EXPECT_EQ(wide_path::for_call("\\\\server\\share\\" + name + "\\" + name),
              L"\\\\?\\UNC\\server\\share\\" + wide + L"\\" + wide);
    EXPECT_EQ(wide_path::for_call("\\\\?\\C:\\" + name + "\\" + name), L"\\\\?\\C:\\" + wide + L"\\" + wide);
    EXPECT_THAT(wide_path::for_call(name + "\\" + name), StartsWith(L"\\\\?\\"));
    EXPECT_THAT(wide_path::for_call(name + "\\" + name), EndsWith(wide + L"\\" + wide));
}

TEST(WidePath, CountsCharactersAndNotBytes) {
    std::string letters;
    for (int i = 0; i < 100; ++i) letters += "\xD0\xB5";
    EXPECT_EQ(wide_path::for_call("C:\\" + letters), L"C:\\" + std::wstring(100, L'\x0435'));
}

}  // namespace
