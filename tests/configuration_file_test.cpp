// What is in the place of the configuration, and no regular file, stops nobody: it is refused at once.
#include <gmock/gmock.h>

#include "configuration_file_test_platform.h"
#include "kzmxml.h"
#include "shmnm.h"
#include "support/temporary_folder.h"

namespace {

using test::ScopedEnvironment;

constexpr const char* document = "<root><all><num><server>4</server></num></all></root>";

class ConfigurationPlace : public testing::Test {
  protected:
    std::filesystem::path place() const { return folder_.path() / "etc" / "cluster.xml"; }
    const test::TemporaryFolder& folder() const { return folder_; }

    /// By the companion, and by the library, which reports it in its own way.
    static void expect_refused() {
        ASSERT_EQ(xmllib_init("test"), XMLLIB_OK);
        EXPECT_EQ(xmllib_load_config(0), XMLLIB_ERR_FILE);
        EXPECT_EQ(xmllib_unload_config(), XMLLIB_ERR_ORDER) << "a failed load counted";
        EXPECT_EQ(xmllib_term(), XMLLIB_OK);
        EXPECT_EQ(shmnm_create(), SHMNM_ERR_LOADCONFIG);
        EXPECT_EQ(shmnm_delete(), SHMNM_ERR_NOTINIT);
        EXPECT_EQ(shmnm_attach(), SHMNM_ERR_LOADCONFIG);
        EXPECT_EQ(shmnm_detach(), SHMNM_ERR_NOTINIT);
    }

  private:
    test::TemporaryFolder folder_;
    ScopedEnvironment install_path_{"KZM_INSTALL_PATH", folder_.string().c_str()};
};

TEST_F(ConfigurationPlace, RefusesAPipeEvenIfADocumentCouldBeReadFromIt) {
    const test::PipedDocument pipe(folder().path(), document);
    const ScopedEnvironment install_path("KZM_INSTALL_PATH", pipe.install_path().c_str());
    expect_refused();
}

TEST_F(ConfigurationPlace, RefusesAnythingButARegularFileAtOnceAndWritesNoLog) {
    std::filesystem::create_directories(place().parent_path());
    for (const test::Special& special : test::specials()) {
        SCOPED_TRACE(special.name);
        special.put(place());
        expect_refused();
        std::filesystem::remove(place());
    }
    EXPECT_FALSE(std::filesystem::exists(folder().path() / "log"));
}

TEST_F(ConfigurationPlace, AcceptsALinkToARegularFile) {
    folder().write("elsewhere/file", document);
    std::filesystem::create_directories(place().parent_path());
    test::link_file(folder().path() / "elsewhere" / "file", place());
    EXPECT_EQ(shmnm_create(), SHMNM_OK);
    EXPECT_EQ(shmnm_delete(), SHMNM_OK);
}

}  // namespace
