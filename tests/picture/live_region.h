// A live region for tests of copies and of the lock, in this process's own namespace: so the library's lock, which it
// opens as it is loaded, is the region's.
#pragma once

#include <gtest/gtest.h>

#include "shmnm.h"
#include "support/child.h"
#include "support/temporary_folder.h"

namespace test {

class LiveCopy : public testing::Test {
  protected:
    LiveCopy() : path_("KZM_INSTALL_PATH", folder_.string().c_str()) {
        folder_.write("etc/cluster.xml",
                      "<root><all><num><server>128</server><hbr>16</hbr><npr>16</npr><fstr>1</fstr></num></all>"
                      "<shmnm><log><level>0</level></log></shmnm></root>");
        EXPECT_EQ(shmnm_create(), SHMNM_OK);
        EXPECT_EQ(shmnm_addnode("alpha", 0), SHMNM_OK);
    }
    ~LiveCopy() override { shmnm_delete(); }

    TemporaryFolder folder_;

  private:
    ScopedEnvironment path_;
};

}  // namespace test
