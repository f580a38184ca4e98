// The examples in C++ do what docs/cpp.md and the README say that they do: the same as the examples in C, to the lines
// of the trace log.
#include <gmock/gmock.h>

#include <regex>
#include <sstream>

#include "shmnm.h"
#include "support/dynamic_library.h"
#include "support/program.h"
#include "support/temporary_folder.h"

namespace {

using test::ProgramResult;

class CppTutorial : public testing::Test {
  protected:
    CppTutorial() : path_("KZM_INSTALL_PATH", folder_.string().c_str()) {
        folder_.write("etc/cluster.xml",
                      "<root><all><num><server>8</server></num></all>"
                      "<shmnm><log><level>16</level><size>1000000</size></log></shmnm></root>");
    }
    void create() {
        ASSERT_EQ(shmnm_create(), SHMNM_OK);
        int32_t priority = 0;
        for (const char* name : {"alpha", "beta", "gamma", "delta"})
            ASSERT_EQ(shmnm_addnode(name, priority++), SHMNM_OK);
        ASSERT_EQ(shmnm_setclstat(7), SHMNM_OK);
    }
    /// A state of a server, which is 2 again afterwards.
    static uint32_t taken_state(const char* name) {
        uint32_t state = 0;
        EXPECT_EQ(shmnm_getnodestat(name, &state), SHMNM_OK);
        EXPECT_EQ(shmnm_setnodestat(name, 2), SHMNM_OK);
        return state;
    }
    static ProgramResult run(const char* program, const std::string& arguments) {
        return test::run_program(test::own_folder() + program, arguments);
    }

    /// What a program wrote: its output and the lines of the log, without time, process and thread.
    struct Written {
        ProgramResult result;
        std::vector<std::string> log;
    };
    Written written_by(const char* program, const std::string& arguments) {
        const std::filesystem::path file = folder_.path() / "log" / "shmnm.log";
        const size_t before = test::contents_of(file).size();
        Written written{run(program, arguments), {}};
        std::istringstream lines(test::contents_of(file).substr(before));
        const std::regex who(R"(^\S+ +\d+ +\d+ +)");
        for (std::string line; std::getline(lines, line);) {
            EXPECT_TRUE(std::regex_search(line, who)) << line;
            written.log.push_back(std::regex_replace(line, who, ""));
        }
        return written;
    }
    void expect_the_same(const char* in_c, const char* in_cpp, const std::string& arguments, size_t lines) {
        const Written c = written_by(in_c, arguments);
        taken_state("alpha");
        taken_state("beta");
        const Written cpp = written_by(in_cpp, arguments);
        EXPECT_EQ(cpp.result.status, c.result.status);
        EXPECT_EQ(cpp.result.output, c.result.output);
        EXPECT_EQ(cpp.log, c.log);
        EXPECT_GT(c.log.size(), lines);
    }

    test::TemporaryFolder folder_;
    test::ScopedEnvironment path_;
};

TEST_F(CppTutorial, MarksItsServerAndListsAll) {
    create();
    const ProgramResult result = run(SHMNM_TUTORIAL_CPP, "beta");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "alpha: 2\nbeta: 1\ngamma: 2\ndelta: 2\n");
    EXPECT_EQ(taken_state("beta"), 1u);
    EXPECT_EQ(shmnm_rwlock(0), SHMNM_OK) << "the lock was released";
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
    EXPECT_EQ(run(SHMNM_TUTORIAL_CPP, "omega").status, 1);
    EXPECT_EQ(shmnm_delete(), SHMNM_OK);
}

TEST_F(CppTutorial, PrintsTheTableOfHbResources) {
    create();
    ASSERT_EQ(shmnm_addhbrsc("lan", "lan1", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addhbrsc("disk", "disk1", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_sethbrscsvstat("disk", "disk1", 2, 5), SHMNM_OK);
    EXPECT_EQ(run(SHMNM_HB_TABLE, "").output, "lan1 2 2 2 2\ndisk1 2 2 5 2\n");
    EXPECT_EQ(shmnm_delete(), SHMNM_OK);
}

TEST_F(CppTutorial, FailsWithoutARegionAndPrintsItsUsage) {
    EXPECT_EQ(run(SHMNM_TUTORIAL_CPP, "beta").status, 1);
    EXPECT_EQ(run(SHMNM_TUTORIAL_CPP, "").status, 2);
    for (const char* const program : {SHMNM_ALIVE, SHMNM_ALIVE_CPP, SHMNM_ALIVE_CODES, SHMNM_HB_TABLE}) {
        EXPECT_EQ(run(program, "").status, 1) << program;
    }
}

TEST_F(CppTutorial, WritesTheLogOfTheTutorialInC) {
    create();
    expect_the_same(SHMNM_TUTORIAL, SHMNM_TUTORIAL_CPP, "beta", 20);
    expect_the_same(SHMNM_TUTORIAL, SHMNM_TUTORIAL_CPP, "omega", 8);
    EXPECT_EQ(shmnm_delete(), SHMNM_OK);
}

TEST_F(CppTutorial, AndItsShorterExamplesDoTheSame) {
    create();
    const ProgramResult result = run(SHMNM_ALIVE, "");
    EXPECT_EQ(result.output, "alpha is alive, the cluster's state is 7\n");
    EXPECT_EQ(taken_state("alpha"), 1u);
    expect_the_same(SHMNM_ALIVE, SHMNM_ALIVE_CPP, "", 10);
    EXPECT_EQ(taken_state("alpha"), 1u);
    expect_the_same(SHMNM_ALIVE, SHMNM_ALIVE_CODES, "", 10);
    EXPECT_EQ(taken_state("alpha"), 1u);
    EXPECT_EQ(shmnm_delete(), SHMNM_OK);
}

}  // namespace
