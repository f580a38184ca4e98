// The tutorial's program does what docs/tutorial.md says that it does.
#include <gmock/gmock.h>

#include "shmnm.h"
#include "support/dynamic_library.h"
#include "support/program.h"
#include "support/temporary_folder.h"

namespace {

using test::run_program;

class Tutorial : public testing::Test {
  protected:
    Tutorial() : path_("KZM_INSTALL_PATH", folder_.string().c_str()) {
        folder_.write("etc/cluster.xml", "<root><all><num><server>8</server></num></all></root>");
    }
    static test::ProgramResult tutorial(const std::string& arguments) {
        return run_program(test::own_folder() + SHMNM_TUTORIAL, arguments);
    }

    test::TemporaryFolder folder_;
    test::ScopedEnvironment path_;
};

TEST_F(Tutorial, MarksItsServerAndListsAll) {
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    int32_t priority = 0;
    for (const char* name : {"alpha", "beta", "gamma", "delta"}) ASSERT_EQ(shmnm_addnode(name, priority++), SHMNM_OK);
    const test::ProgramResult result = tutorial("beta");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "alpha: 2\nbeta: 1\ngamma: 2\ndelta: 2\n");
    uint32_t state = 0;
    EXPECT_EQ(shmnm_getnodestat("beta", &state), SHMNM_OK);
    EXPECT_EQ(state, 1u);
    EXPECT_EQ(shmnm_rwlock(0), SHMNM_OK) << "the lock was released";
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
    EXPECT_EQ(shmnm_delete(), SHMNM_OK);
}

TEST_F(Tutorial, ReportsAMissingServer) {
    ASSERT_EQ(shmnm_create(), SHMNM_OK);
    const test::ProgramResult result = tutorial("omega");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(shmnm_delete(), SHMNM_OK);
}

TEST_F(Tutorial, FailsWithoutARegion) {
    EXPECT_EQ(tutorial("beta").status, 1);
}

TEST_F(Tutorial, PrintsItsUsage) {
    EXPECT_EQ(tutorial("").status, 2);
}

}  // namespace
