// The command line of a service, as the service manager keeps it and the program reads it again.
#include "service/command_line.h"

#include <gtest/gtest.h>

namespace {

using service::command_line;
using service::is_service;
using service::quoted;

TEST(CommandLine, QuotesTheProgramEvenWithoutBlanks) {
    EXPECT_EQ(command_line(L"C:\\shmnm\\bin\\shmnmctl.exe", {}), L"\"C:\\shmnm\\bin\\shmnmctl.exe\"");
    EXPECT_EQ(command_line(L"C:\\Program Files\\shmnm\\shmnmctl.exe", {L"serve", L"--service"}),
              L"\"C:\\Program Files\\shmnm\\shmnmctl.exe\" serve --service");
}

TEST(CommandLine, QuotesArgumentsThatWouldFallApart) {
    EXPECT_EQ(command_line(L"x", {L"C:\\my files\\cluster.xml", L"", L"a\tb", L"plain"}),
              L"\"x\" \"C:\\my files\\cluster.xml\" \"\" \"a\tb\" plain");
}

TEST(CommandLine, EscapesQuotesAndTheBackslashesBeforeThem) {
    EXPECT_EQ(quoted(L"say \"hi\""), L"\"say \\\"hi\\\"\"");
    EXPECT_EQ(quoted(L"C:\\a b\\"), L"\"C:\\a b\\\\\"");
    EXPECT_EQ(quoted(L"a\\\"b"), L"\"a\\\\\\\"b\"");
    EXPECT_EQ(quoted(L"a\\b"), L"\"a\\b\"");
}

TEST(CommandLine, TellsAServiceEvenIfItsOtherArgumentsAreWrong) {
    EXPECT_TRUE(is_service({"serve", "--bogus", "--service"}));
    EXPECT_FALSE(is_service({"serve"}));
    EXPECT_FALSE(is_service({"serve", "--service", "--check-arguments"}));
}

}  // namespace
