#include "kzmxml.h"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/dynamic_library.h"
#include "support/temporary_folder.h"

namespace {

using test::ScopedEnvironment;
using testing::Each;
using testing::ElementsAre;

constexpr int32_t integer = 1, untouched = -4711;

constexpr const char* valid =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!-- a cluster -->\n"
    "<root>\n"
    "  <all><num unit=\"records\"><server>32</server><hbr> 8 "
    "</hbr><npr>-4</npr><fstr><![CDATA[1]]></fstr></num></all>\n"
    "  <shmnm><log><level>16</level><size>&#x31;000</size></log></shmnm>\n"
    "</root>\n";

/// What xmllib_get_value() leaves behind.
struct Value {
    int32_t result, value, length;
    friend bool operator==(const Value&, const Value&) = default;
    friend void PrintTo(const Value& read, std::ostream* to) {
        *to << "{result " << read.result << ", value " << read.value << ", length " << read.length << '}';
    }
};

Value is(int32_t value) {
    return {XMLLIB_OK, value, 4};
}
Value fails(int32_t result) {
    return {result, untouched, 4};
}

Value value_of(const char* path) {
    Value read{0, untouched, 4};
    read.result = xmllib_get_value(path, integer, &read.value, &read.length);
    return read;
}

std::string repeated(std::string_view text, size_t times) {
    std::string result;
    for (size_t i = 0; i < times; ++i) result += text;
    return result;
}

/// `depth` elements within each other.
std::string nested(size_t depth) {
    return repeated("<root>", depth) + repeated("</root>", depth);
}

/// An installation of the test's own. Whatever a test leaves initialised is ended after it.
class Configuration : public testing::Test {
  protected:
    ~Configuration() override {
        while (xmllib_term() == XMLLIB_OK) {
        }
    }
    /// Always a new file: some file systems wait for the disk when one is overwritten.
    void write(std::string_view text) const {
        std::filesystem::remove(folder() / "etc" / "cluster.xml");
        folder_.write("etc/cluster.xml", text);
    }
    /// Initialises and loads a file with that text.
    int32_t load(std::string_view text) const {
        write(text);
        EXPECT_EQ(xmllib_init("test"), XMLLIB_OK);
        return xmllib_load_config(0);
    }
    /// What loading such a file says; nothing stays loaded.
    int32_t outcome(std::string_view text) const {
        const int32_t result = load(text);
        EXPECT_EQ(xmllib_unload_config(), result == XMLLIB_OK ? XMLLIB_OK : XMLLIB_ERR_ORDER);
        EXPECT_EQ(xmllib_term(), XMLLIB_OK);
        return result;
    }
    void load_with_policies(std::string_view text) const {
        ASSERT_EQ(load(text), XMLLIB_OK);
        ASSERT_EQ(xmllib_load_policy("all"), XMLLIB_OK);
    }
    const std::filesystem::path& folder() const { return folder_.path(); }

  private:
    test::TemporaryFolder folder_;
    ScopedEnvironment install_path_{"KZM_INSTALL_PATH", folder_.string().c_str()};
};

class ConfigurationFile : public Configuration {};
class Policy : public Configuration {};
class ConfigurationValue : public Configuration {
  protected:
    /// What reading an element with that content gives.
    Value read(const std::string& content) const {
        EXPECT_EQ(load("<root><all><number>" + content + "</number></all></root>"), XMLLIB_OK) << content;
        EXPECT_EQ(xmllib_load_policy("all"), XMLLIB_OK);
        const Value read = value_of("/root/all/number");
        EXPECT_EQ(xmllib_term(), XMLLIB_OK);
        return read;
    }
};

TEST(ConfigurationCodes, AreTheNumbersThatCallersKnow) {
    EXPECT_THAT((std::array<int, 9>{XMLLIB_OK, XMLLIB_ERR_PARAM, XMLLIB_ERR_ORDER, XMLLIB_ERR_FILE, XMLLIB_ERR_FORMAT,
                                    XMLLIB_ERR_NOTFOUND, XMLLIB_ERR_VALUE, XMLLIB_ERR_BUFFER, XMLLIB_ERR_SYSTEM}),
                ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8));
}

TEST_F(Configuration, CanBeReadByTheLibrarysSequenceOfCalls) {
    write(valid);
    EXPECT_EQ(xmllib_init("shmnm"), XMLLIB_OK);
    EXPECT_EQ(xmllib_load_config(0), XMLLIB_OK);
    EXPECT_EQ(xmllib_load_policy("shmnm"), XMLLIB_OK);
    EXPECT_EQ(value_of("/root/shmnm/log/level"), is(16));
    EXPECT_EQ(value_of("/root/shmnm/log/size"), is(1000));
    EXPECT_EQ(xmllib_unload_policy("shmnm"), XMLLIB_OK);
    EXPECT_EQ(xmllib_load_policy("all"), XMLLIB_OK);
    EXPECT_EQ(value_of("/root/all/num/server"), is(32));
    EXPECT_EQ(value_of("/root/all/num/hbr"), is(8));
    EXPECT_EQ(value_of("/root/all/num/npr"), is(-4));
    EXPECT_EQ(value_of("/root/all/num/fstr"), is(1));
    EXPECT_EQ(xmllib_unload_policy("all"), XMLLIB_OK);
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_OK);
    EXPECT_EQ(xmllib_term(), XMLLIB_OK);
}

TEST_F(Configuration, CanBeReadFromTheExample) {
    const ScopedEnvironment example("KZM_INSTALL_PATH", (test::own_folder() + "../examples").c_str());
    ASSERT_EQ(xmllib_init("test"), XMLLIB_OK);
    ASSERT_EQ(xmllib_load_config(0), XMLLIB_OK);
    for (const char* policy : {"all", "shmnm", "cluster"}) EXPECT_EQ(xmllib_load_policy(policy), XMLLIB_OK) << policy;
    EXPECT_EQ(value_of("/root/all/num/server"), is(16));
    EXPECT_EQ(value_of("/root/all/num/hbr"), is(16));
    EXPECT_EQ(value_of("/root/all/num/npr"), is(8));
    EXPECT_EQ(value_of("/root/all/num/fstr"), is(1));
    EXPECT_EQ(value_of("/root/shmnm/log/level"), is(4));
    EXPECT_EQ(value_of("/root/shmnm/log/size"), is(1'000'000));
}

TEST_F(Configuration, RefusesEveryCallBeforeInit) {
    write(valid);
    EXPECT_EQ(xmllib_term(), XMLLIB_ERR_ORDER);
    EXPECT_EQ(xmllib_load_config(0), XMLLIB_ERR_ORDER);
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_ERR_ORDER);
    EXPECT_EQ(xmllib_load_policy("all"), XMLLIB_ERR_ORDER);
    EXPECT_EQ(xmllib_unload_policy("all"), XMLLIB_ERR_ORDER);
    EXPECT_EQ(value_of("/root/all/num/server"), fails(XMLLIB_ERR_ORDER));
}

TEST_F(Configuration, RefusesPoliciesAndValuesBeforeTheFileIsLoaded) {
    write(valid);
    ASSERT_EQ(xmllib_init("test"), XMLLIB_OK);
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_ERR_ORDER);
    EXPECT_EQ(xmllib_load_policy("all"), XMLLIB_ERR_ORDER);
    EXPECT_EQ(xmllib_unload_policy("all"), XMLLIB_ERR_ORDER);
    EXPECT_EQ(value_of("/root/all/num/server"), fails(XMLLIB_ERR_ORDER));
}

TEST_F(Configuration, RefusesBadArgumentsBeforeAllElse) {
    EXPECT_EQ(xmllib_init(nullptr), XMLLIB_ERR_PARAM);
    EXPECT_EQ(xmllib_init(""), XMLLIB_ERR_PARAM);
    EXPECT_EQ(xmllib_load_config(1), XMLLIB_ERR_PARAM);
    EXPECT_EQ(xmllib_load_policy(nullptr), XMLLIB_ERR_PARAM);
    EXPECT_EQ(xmllib_load_policy(""), XMLLIB_ERR_PARAM);
    EXPECT_EQ(xmllib_unload_policy(nullptr), XMLLIB_ERR_PARAM);
    EXPECT_EQ(xmllib_unload_policy(""), XMLLIB_ERR_PARAM);
    int32_t value = untouched, length = 4;
    const char* const path = "/root/all/num/server";
    EXPECT_EQ(xmllib_get_value(nullptr, integer, &value, &length), XMLLIB_ERR_PARAM);
    EXPECT_EQ(xmllib_get_value(path, 0, &value, &length), XMLLIB_ERR_PARAM);
    EXPECT_EQ(xmllib_get_value(path, 2, &value, &length), XMLLIB_ERR_PARAM);
    EXPECT_EQ(xmllib_get_value(path, integer, nullptr, &length), XMLLIB_ERR_PARAM);
    EXPECT_EQ(xmllib_get_value(path, integer, &value, nullptr), XMLLIB_ERR_PARAM);
    EXPECT_THAT((std::array{value, length}), ElementsAre(untouched, 4));
    EXPECT_EQ(xmllib_term(), XMLLIB_ERR_ORDER) << "a refused init counted";
}

TEST_F(Configuration, StaysInitialisedUntilTheLastTerm) {
    write(valid);
    ASSERT_EQ(xmllib_init("one"), XMLLIB_OK);
    ASSERT_EQ(xmllib_init("two"), XMLLIB_OK);
    EXPECT_EQ(xmllib_term(), XMLLIB_OK);
    EXPECT_EQ(xmllib_load_config(0), XMLLIB_OK);
    EXPECT_EQ(xmllib_term(), XMLLIB_OK);
    EXPECT_EQ(xmllib_term(), XMLLIB_ERR_ORDER);
}

TEST_F(Configuration, StaysLoadedUntilTheLastUnload) {
    load_with_policies(valid);
    ASSERT_EQ(xmllib_load_config(0), XMLLIB_OK);
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_OK);
    EXPECT_EQ(value_of("/root/all/num/server"), is(32));
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_OK);
    EXPECT_EQ(value_of("/root/all/num/server"), fails(XMLLIB_ERR_ORDER));
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_ERR_ORDER);
}

TEST_F(Configuration, IsForgottenByTheLastTermEvenIfLoaded) {
    load_with_policies(valid);
    ASSERT_EQ(xmllib_term(), XMLLIB_OK);
    ASSERT_EQ(xmllib_init("test"), XMLLIB_OK);
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_ERR_ORDER);
    ASSERT_EQ(xmllib_load_config(0), XMLLIB_OK);
    EXPECT_EQ(value_of("/root/all/num/server"), fails(XMLLIB_ERR_NOTFOUND)) << "the policy is still loaded";
}

TEST_F(Configuration, ForgetsPoliciesWithTheLastUnload) {
    load_with_policies(valid);
    ASSERT_EQ(xmllib_unload_config(), XMLLIB_OK);
    ASSERT_EQ(xmllib_load_config(0), XMLLIB_OK);
    EXPECT_EQ(xmllib_unload_policy("all"), XMLLIB_ERR_ORDER);
    EXPECT_EQ(value_of("/root/all/num/server"), fails(XMLLIB_ERR_NOTFOUND));
}

TEST_F(Configuration, IsReadAgainOnlyAfterTheLastUnload) {
    load_with_policies("<root><all><n>1</n></all></root>");
    write("<root><all><n>2</n></all></root>");
    ASSERT_EQ(xmllib_load_config(0), XMLLIB_OK);
    EXPECT_EQ(value_of("/root/all/n"), is(1));
    ASSERT_EQ(xmllib_unload_config(), XMLLIB_OK);
    ASSERT_EQ(xmllib_unload_config(), XMLLIB_OK);
    ASSERT_EQ(xmllib_load_config(0), XMLLIB_OK);
    ASSERT_EQ(xmllib_load_policy("all"), XMLLIB_OK);
    EXPECT_EQ(value_of("/root/all/n"), is(2));
}

TEST_F(Configuration, CanBeUsedByManyThreadsAtOnce) {
    write(valid);
    std::array<int, 4> surprises{};
    std::vector<std::thread> threads;
    threads.reserve(surprises.size());
    // Not std::latch: where the C++ run time has no futex it can lose the last arrival.
    std::atomic<size_t> still_to_come{surprises.size()};
    for (int& surprise : surprises) {
        threads.emplace_back([&surprise, &still_to_come] {
            --still_to_come;
            while (still_to_come > 0) std::this_thread::yield();
            for (int i = 0; i < 500; ++i) {
                surprise += xmllib_init("thread") != XMLLIB_OK;
                surprise += xmllib_load_config(0) != XMLLIB_OK;
                surprise += xmllib_load_policy("all") != XMLLIB_OK;
                surprise += value_of("/root/all/num/server") != is(32);
                surprise += xmllib_unload_policy("all") != XMLLIB_OK;
                surprise += xmllib_unload_config() != XMLLIB_OK;
                surprise += xmllib_term() != XMLLIB_OK;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_THAT(surprises, Each(0));
    EXPECT_EQ(xmllib_term(), XMLLIB_ERR_ORDER) << "something is still initialised";
}

TEST_F(ConfigurationFile, IsReportedWhenItIsMissing) {
    ASSERT_EQ(xmllib_init("test"), XMLLIB_OK);
    EXPECT_EQ(xmllib_load_config(0), XMLLIB_ERR_FILE);
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_ERR_ORDER) << "a failed load counted";
}

TEST_F(ConfigurationFile, IsReportedWhenItIsAFolder) {
    std::filesystem::create_directories(folder() / "etc" / "cluster.xml");
    ASSERT_EQ(xmllib_init("test"), XMLLIB_OK);
    EXPECT_EQ(xmllib_load_config(0), XMLLIB_ERR_FILE);
}

TEST_F(ConfigurationFile, IsNotFoundIfTheInstallationPathIsTooLong) {
    const ScopedEnvironment long_path("KZM_INSTALL_PATH", std::string(20'000, 'x').c_str());
    ASSERT_EQ(xmllib_init("test"), XMLLIB_OK);
    EXPECT_EQ(xmllib_load_config(0), XMLLIB_ERR_FILE);
}

TEST_F(ConfigurationFile, CanBeCorrectedAndLoadedAfterAFailure) {
    ASSERT_EQ(load("<root>"), XMLLIB_ERR_FORMAT);
    write(valid);
    EXPECT_EQ(xmllib_load_config(0), XMLLIB_OK);
    EXPECT_EQ(xmllib_load_policy("all"), XMLLIB_OK);
}

TEST_F(ConfigurationFile, CanHave16MebibytesAndNotAByteMore) {
    const std::string start = "<root>", end = "</root>";
    const std::string fits = start + std::string((16u << 20) - start.size() - end.size(), ' ') + end;
    EXPECT_EQ(outcome(fits), XMLLIB_OK);
    EXPECT_EQ(outcome(fits + "\n"), XMLLIB_ERR_FILE);
}

TEST_F(ConfigurationFile, IsRefusedWhenItIsHuge) {
    write("");
    std::filesystem::resize_file(folder() / "etc" / "cluster.xml", 1u << 30);
    ASSERT_EQ(xmllib_init("test"), XMLLIB_OK);
    EXPECT_EQ(xmllib_load_config(0), XMLLIB_ERR_FILE);
}

TEST_F(ConfigurationFile, MayBe256LevelsOfElementsDeepAndNoMore) {
    EXPECT_EQ(outcome(nested(256)), XMLLIB_OK);
    EXPECT_EQ(outcome(nested(257)), XMLLIB_ERR_FORMAT);
    EXPECT_EQ(outcome(nested(100'000)), XMLLIB_ERR_FORMAT);
    EXPECT_EQ(outcome(repeated("<a>", 5'000'000)), XMLLIB_ERR_FORMAT);
    EXPECT_EQ(outcome("<root>" + repeated("<a><!--", 100'000)), XMLLIB_ERR_FORMAT);
    EXPECT_EQ(outcome("<root b='" + repeated("<a b='", 100'000)), XMLLIB_ERR_FORMAT);
}

TEST_F(ConfigurationFile, CanHold100000ElementsAndAttributesAndNoMore) {
    EXPECT_EQ(outcome("<root>" + repeated("<a b=''/>", 49'999) + "<c/></root>"), XMLLIB_OK);
    EXPECT_EQ(outcome("<root>" + repeated("<a b=''/>", 49'999) + "<c/><d/></root>"), XMLLIB_ERR_FORMAT);
    EXPECT_EQ(outcome("<root>" + repeated("<a b=''/>", 49'999) + "<c d=''/></root>"), XMLLIB_ERR_FORMAT);
}

TEST_F(ConfigurationFile, IsRefusedWithADocumentType) {
    EXPECT_EQ(outcome("<!DOCTYPE root><root/>"), XMLLIB_ERR_FORMAT);
    EXPECT_EQ(outcome("<!DOCTYPE root [<!ENTITY n '1'>]><root><all><n>&n;</n></all></root>"), XMLLIB_ERR_FORMAT);
    EXPECT_EQ(outcome("<!DOCTYPE root SYSTEM 'root.dtd'><root/>"), XMLLIB_ERR_FORMAT);
}

TEST_F(ConfigurationFile, ExpandsNoEntities) {
    std::string laughs = "<?xml version='1.0'?><!DOCTYPE root [<!ENTITY e0 '1111111111'>";
    for (int i = 1; i <= 9; ++i) {
        laughs += "<!ENTITY e" + std::to_string(i) + " '" + repeated("&e" + std::to_string(i - 1) + ";", 10) + "'>";
    }
    EXPECT_EQ(outcome(laughs + "]><root><all><n>&e9;</n></all></root>"), XMLLIB_ERR_FORMAT);
    EXPECT_EQ(outcome("<root><all><n>&e9;</n></all></root>"), XMLLIB_ERR_FORMAT);
}

TEST_F(ConfigurationFile, ReadsNoOtherFile) {
    const test::TemporaryFolder elsewhere;
    elsewhere.write("number", "7");
    const std::string other = (elsewhere.path() / "number").string();
    EXPECT_EQ(outcome("<!DOCTYPE root [<!ENTITY n SYSTEM \"" + other + "\">]><root><all><n>&n;</n></all></root>"),
              XMLLIB_ERR_FORMAT);
    ASSERT_EQ(load("<root xmlns:xi='http://www.w3.org/2001/XInclude'><all><n><xi:include parse='text' href=\"" + other +
                   "\"/></n></all></root>"),
              XMLLIB_OK);
    ASSERT_EQ(xmllib_load_policy("all"), XMLLIB_OK);
    EXPECT_EQ(value_of("/root/all/n"), fails(XMLLIB_ERR_VALUE));
}

TEST_F(ConfigurationFile, IsRefusedWhenItIsNotWellFormed) {
    const std::string with_nul("<root>\0</root>", 14), after_nul("<root/>\0<root", 13);
    for (const std::string& text : std::vector<std::string>{
             "",
             " \n",
             "\xEF\xBB\xBF",
             "text",
             "<",
             "<>",
             "</>",
             "</root>",
             "<root",
             "<root>",
             "<root/",
             "<root></root",
             "<root></toor>",
             "<root></root></root>",
             "<a><b></a></b>",
             "<root/><root/>",
             "<root><a b='1' b='2'/></root>",
             "<root><a b='1'c='2'/></root>",
             "<root/>text",
             "<root/>&amp;",
             "<root/><![CDATA[]]>",
             "text<root/>",
             "<root/><",
             "<?xml version='1.0'?>",
             "<?xml version='1.0'",
             " <?xml version='1.0'?><root/>",
             "<root/><?xml version='1.0'?>",
             "<root><?XML x?></root>",
             "<root><? ?></root>",
             "<root><?a",
             "<root><!-- -- --></root>",
             "<root><!--></root>",
             "<root><!-- </root>",
             "<root><![CDATA[ </root>",
             "<root><![CDAT[]]></root>",
             "<root>]]></root>",
             "<root><!ELEMENT a></root>",
             "<root a></root>",
             "<root a=></root>",
             "<root a=1></root>",
             "<root a='1></root>",
             "<root a='1\"></root>",
             "<root a='1'b='2'/>",
             "<root a='1' a='2'/>",
             "<root a='<'/>",
             "<root a='&'/>",
             "<root a='&x;'/>",
             "<root 1='1'/>",
             "<root / >",
             "< root/>",
             "<1/>",
             "<-/>",
             "<root>&</root>",
             "<root>&amp</root>",
             "<root>&unknown;</root>",
             "<root>&#;</root>",
             "<root>&#x;</root>",
             "<root>&#-1;</root>",
             "<root>&#12</root>",
             "<root>&#xZ;</root>",
             "<root>&#0;</root>",
             "<root>&#31;</root>",
             "<root>&#xD800;</root>",
             "<root>&#xFFFE;</root>",
             "<root>&#x110000;</root>",
             "<root>&#99999999999;</root>",
             "<root>\x01</root>",
             "<root a='\x1F'/>",
             with_nul,
             after_nul,
             std::string(1000, '\0'),
             std::string("\xFF\xFE<\0r\0o\0o\0t\0/\0>\0", 16),
             "\177ELF\2\1\1",
         }) {
        EXPECT_EQ(outcome(text), XMLLIB_ERR_FORMAT) << testing::PrintToString(text);
    }
}

TEST_F(ConfigurationFile, IsAcceptedInEveryWellFormedShape) {
    for (const char* text : {
             "<root/>",
             "<root />",
             "<root></root >",
             "\xEF\xBB\xBF<?xml version='1.0'?><root/>",
             "\n<!-- a - b --><?note to <all> ?> <root/>\n<!----><?end?>\n",
             "<root a='1' b = \"'\" c='\"' d='>' e='&lt;&#9;'/>",
             "<a.b-c_d:e\xC3\xA4 x.y-z='1'><_/></a.b-c_d:e\xC3\xA4>",
             "<root><![CDATA[<a>&]]]]><![CDATA[>]]></root>",
             "<root>&lt;&gt;&amp;&quot;&apos;&#65;&#x1F600;</root>",
             "<root>\r\n\t<?xml-like?><?xll?><!-- <b> --></root>",
         }) {
        EXPECT_EQ(outcome(text), XMLLIB_OK) << text;
    }
}

TEST_F(ConfigurationFile, MayNameEveryCharacterOfXmlAndNoOther) {
    for (const char* number : {"9", "10", "13", "32", "xD7FF", "xE000", "xFFFD", "x10000", "x10FFFF"}) {
        EXPECT_EQ(outcome("<root>&#" + std::string(number) + ";</root>"), XMLLIB_OK) << number;
    }
    for (const char* number : {"0", "8", "11", "12", "14", "31", "xD800", "xDFFF", "xFFFE", "xFFFF", "x110000"}) {
        EXPECT_EQ(outcome("<root>&#" + std::string(number) + ";</root>"), XMLLIB_ERR_FORMAT) << number;
    }
}

TEST_F(ConfigurationFile, HasNamesOfTheseCharactersOnly) {
    for (int c = 1; c < 256; ++c) {
        const auto byte = static_cast<char>(c);
        const bool starts = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' || c >= 0x80;
        const bool continues = starts || (c >= '0' && c <= '9') || c == '-' || c == '.';
        EXPECT_EQ(outcome(std::string{'<', byte, '/', '>'}), starts ? XMLLIB_OK : XMLLIB_ERR_FORMAT) << c;
        EXPECT_EQ(outcome(std::string{'<', 'a', ' ', 'b', byte, '=', '\'', '\'', '/', '>'}),
                  continues || c == ' ' || c == '\t' || c == '\r' || c == '\n' ? XMLLIB_OK : XMLLIB_ERR_FORMAT)
            << c;
    }
}

TEST_F(ConfigurationFile, IsRefusedIfCutShortAnywhere) {
    const std::string text(valid);
    const size_t end = text.find_last_of('>') + 1;
    for (size_t length = 0; length < end; ++length) {
        EXPECT_EQ(outcome(text.substr(0, length)), XMLLIB_ERR_FORMAT) << length;
    }
}

TEST_F(ConfigurationFile, NeverCrashesTheCallerIfDamagedAtRandom) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    RecordProperty("seed", std::to_string(seed));
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    const auto below = [&](size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random); };
    const std::string nul(1, '\0');
    const std::vector<std::string> pieces{"<",   ">",    "</",        "/>", "<!--",    "-->",  "<![CDATA[", "]]>",
                                          "<?",  "?>",   "&",         ";",  "&#x",     "'",    "\"",        "=",
                                          "all", "root", "<!DOCTYPE", "[",  "<server", " a='", nul,         "\xFF",
                                          "<a>", "</a>", "99999",     "-",  "<root>",  "<all", "</root>",   "<?xml "};
    int loaded = 0, refused = 0;
    ASSERT_EQ(xmllib_init("test"), XMLLIB_OK);
    const int rounds = static_cast<int>(test::share_of(20'000));
    for (int i = 0; i < rounds; ++i) {
        std::string text(valid);
        for (size_t changes = 1 + below(4); changes > 0 && !text.empty(); --changes) {
            const size_t at = below(text.size());
            switch (below(5)) {
                case 0:
                    text[at] = static_cast<char>(below(256));
                    break;
                case 1:
                    text.insert(at, pieces[below(pieces.size())]);
                    break;
                case 2:
                    text.erase(at, 1 + below(20));
                    break;
                case 3:
                    text.insert(at, text.substr(below(text.size()), below(60)));
                    break;
                default:
                    text.replace(at, 1, pieces[below(pieces.size())]);
            }
        }
        write(text);
        const int32_t result = xmllib_load_config(0);
        if (result != XMLLIB_OK) {
            ASSERT_EQ(result, XMLLIB_ERR_FORMAT) << text;
            ++refused;
            continue;
        }
        ++loaded;
        const bool has_all = xmllib_load_policy("all") == XMLLIB_OK;
        for (const char* path : {"/root/all/num/server", "/root/all/num/fstr", "/root/all", "/root/shmnm/log/size"}) {
            const Value read = value_of(path);
            ASSERT_EQ(read.length, 4);
            ASSERT_TRUE(read.result == XMLLIB_OK || read.value == untouched) << text;
            ASSERT_TRUE(has_all || read.result == XMLLIB_ERR_NOTFOUND) << text;
        }
        ASSERT_EQ(xmllib_unload_config(), XMLLIB_OK);
    }
    EXPECT_GT(loaded, rounds / 50) << "the changes leave nothing to parse";
    EXPECT_GT(refused, rounds / 50) << "the changes damage nothing";
}

TEST_F(Policy, IsAnElementOfTheRoot) {
    ASSERT_EQ(load("<root><all/><shm.nm a='1'/></root>"), XMLLIB_OK);
    EXPECT_EQ(xmllib_load_policy("all"), XMLLIB_OK);
    EXPECT_EQ(xmllib_load_policy("shm.nm"), XMLLIB_OK);
}

TEST_F(Policy, CannotBeLoadedWhenItsElementIsMissing) {
    ASSERT_EQ(load("<!-- c --><root x='1'><all y='1'><num/></all><!-- d --></root>"), XMLLIB_OK);
    for (const char* name : {"shmnm", "ALL", "al", "alls", "all ", "root", "num", "all/num", "/all", "all/", "../root",
                             ".", "x", "<xmlattr>", "<xmlcomment>", "<xmltext>"}) {
        EXPECT_EQ(xmllib_load_policy(name), XMLLIB_ERR_NOTFOUND) << name;
        EXPECT_EQ(xmllib_unload_policy(name), XMLLIB_ERR_ORDER) << name;
    }
}

TEST_F(Policy, CannotBeLoadedFromADocumentWithAnotherRoot) {
    ASSERT_EQ(load("<cluster><all/><root><all/></root></cluster>"), XMLLIB_OK);
    EXPECT_EQ(xmllib_load_policy("all"), XMLLIB_ERR_NOTFOUND);
}

TEST_F(Policy, StaysLoadedUntilItsLastUnload) {
    load_with_policies(valid);
    ASSERT_EQ(xmllib_load_policy("all"), XMLLIB_OK);
    EXPECT_EQ(xmllib_unload_policy("all"), XMLLIB_OK);
    EXPECT_EQ(value_of("/root/all/num/server"), is(32));
    EXPECT_EQ(xmllib_unload_policy("all"), XMLLIB_OK);
    EXPECT_EQ(value_of("/root/all/num/server"), fails(XMLLIB_ERR_NOTFOUND));
    EXPECT_EQ(xmllib_unload_policy("all"), XMLLIB_ERR_ORDER);
}

TEST_F(Policy, OpensOnlyItsOwnElements) {
    load_with_policies(valid);
    EXPECT_EQ(value_of("/root/shmnm/log/level"), fails(XMLLIB_ERR_NOTFOUND));
    ASSERT_EQ(xmllib_load_policy("shmnm"), XMLLIB_OK);
    EXPECT_EQ(value_of("/root/shmnm/log/level"), is(16));
    EXPECT_EQ(value_of("/root/all/num/server"), is(32));
}

TEST_F(ConfigurationValue, IsADecimalIntegerOf32Bits) {
    EXPECT_EQ(read("0"), is(0));
    EXPECT_EQ(read("2147483647"), is(INT32_MAX));
    EXPECT_EQ(read("-2147483648"), is(INT32_MIN));
    EXPECT_EQ(read("+7"), is(7));
    EXPECT_EQ(read("-0"), is(0));
    EXPECT_EQ(read("007"), is(7));
    EXPECT_EQ(read(" \t\r\n42 \n"), is(42));
    EXPECT_EQ(read("<![CDATA[ 42 ]]>"), is(42));
    EXPECT_EQ(read("&#52;&#x32;"), is(42));
    EXPECT_EQ(read("<!-- forty-two -->42<!-- 43 -->"), is(42));
}

TEST_F(ConfigurationValue, IsRefusedUnlessItIsADecimalIntegerOf32Bits) {
    for (const char* text :
         {"",    " ",    "12x",          "x12",        "1 2",         "1,000",      "1.0",
          "1e3", "0x10", "10h",          "2147483648", "-2147483649", "4294967296", "99999999999999999999999999",
          "+",   "-",    "+-1",          "-+1",        "++1",         "--1",        "+ 1",
          "- 1", "true", "\xC2\xA0\x31", "\xD9\xA1",   "<n>1</n>",    "1<n/>",      "&#49;&lt;"}) {
        EXPECT_EQ(read(text), fails(XMLLIB_ERR_VALUE)) << text;
    }
}

TEST_F(ConfigurationValue, DoesNotDependOnAttributes) {
    load_with_policies("<root><all><n unit='2' value='3'>1</n></all></root>");
    EXPECT_EQ(value_of("/root/all/n"), is(1));
}

TEST_F(ConfigurationValue, IsFoundOnlyByItsWholePath) {
    load_with_policies("<root><all at='1'><a.b>1</a.b><n>2</n><!-- 3 --><a><b>4</b></a></all><n>5</n></root>");
    EXPECT_EQ(value_of("/root/all/a.b"), is(1));
    EXPECT_EQ(value_of("/root/all/a/b"), is(4));
    for (const char* path : {"",
                             "/",
                             "//",
                             "root/all/n",
                             "/all/n",
                             "/root",
                             "/root/",
                             "/root/n",
                             "/root/all/",
                             "/root//all/n",
                             "/root/all/n/",
                             "/root/all//n",
                             "//root/all/n",
                             "/root/all/N",
                             "/root/all/missing",
                             "/root/all/n/deeper",
                             "/root.all.n",
                             "/root/all/a.b/",
                             "/root/all/at",
                             "/root/all/@at",
                             "/root/all/<xmlattr>",
                             "/root/all/<xmlattr>/at",
                             "/root/all/<xmlcomment>",
                             "/root/all/*",
                             "/root/all/n[1]",
                             "/root/all/../all/n",
                             "/root/all/./n",
                             " /root/all/n",
                             "/root/all/n ",
                             "\\root\\all\\n",
                             "/root/all/n\n"}) {
        EXPECT_EQ(value_of(path), fails(XMLLIB_ERR_NOTFOUND)) << path;
    }
    EXPECT_EQ(value_of("/root/all"), fails(XMLLIB_ERR_VALUE)) << "an element that holds others";
    EXPECT_EQ(value_of(("/root/all" + repeated("/n", 100'000)).c_str()), fails(XMLLIB_ERR_NOTFOUND));
}

TEST_F(ConfigurationValue, CanBeReadFromThePolicyElementItself) {
    load_with_policies("<root><all>9</all></root>");
    EXPECT_EQ(value_of("/root/all"), is(9));
}

TEST_F(ConfigurationValue, IsTheFirstOfRepeatedElements) {
    load_with_policies("<root><all><m/><n>1</n><n>2</n></all><all><n>3</n><only>4</only></all></root>");
    EXPECT_EQ(value_of("/root/all/n"), is(1));
    EXPECT_EQ(value_of("/root/all/only"), fails(XMLLIB_ERR_NOTFOUND)) << "it is in the second one";
}

TEST_F(ConfigurationValue, NeedsFourBytes) {
    load_with_policies(valid);
    for (const int32_t size : {3, 0, -1, INT32_MIN}) {
        int32_t value = untouched, length = size;
        EXPECT_EQ(xmllib_get_value("/root/all/num/server", integer, &value, &length), XMLLIB_ERR_BUFFER) << size;
        EXPECT_EQ(xmllib_get_value("/root/all/num/missing", integer, &value, &length), XMLLIB_ERR_BUFFER) << size;
        EXPECT_THAT((std::array{value, length}), ElementsAre(untouched, size));
    }
}

TEST_F(ConfigurationValue, WritesFourBytesOfALargerBufferAtAnyAddress) {
    load_with_policies(valid);
    std::array<unsigned char, 9> buffer;
    buffer.fill('#');
    int32_t length = 8;
    EXPECT_EQ(xmllib_get_value("/root/all/num/server", integer, buffer.data() + 1, &length), XMLLIB_OK);
    EXPECT_EQ(length, 4);
    EXPECT_THAT(buffer, ElementsAre('#', 32, 0, 0, 0, '#', '#', '#', '#'));
}

}  // namespace
