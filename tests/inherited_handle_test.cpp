// What children inherit of a region (Windows).
#include <gmock/gmock.h>

#include "shmnm.h"
#include "support/child.h"
#include "support/temporary_folder.h"

namespace {

using test::Child;

CHILD(creates_the_region) {
    test::report(shmnm_create());
    test::report(shmnm_setclstat(11));
    test::hang();
}

CHILD(never_calls_the_library) {
    test::report(1);
    test::hang();
}

TEST(InheritedHandle, KeepsTheRegionAliveAsLongAsTheChildRuns) {
    const test::TemporaryFolder folder;
    const test::ScopedEnvironment path("KZM_INSTALL_PATH", folder.string().c_str());
    folder.write("etc/cluster.xml", "<root/>");
    Child creator = test::start(creates_the_region);
    ASSERT_EQ(creator.reported(), SHMNM_OK);
    ASSERT_EQ(creator.reported(), SHMNM_OK);
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    Child heir = test::start(never_calls_the_library);
    ASSERT_EQ(heir.reported(), 1u);
    ASSERT_EQ(shmnm_detach(), SHMNM_OK);
    creator.kill();
    uint32_t clstat = 0;
    ASSERT_EQ(shmnm_attach(), SHMNM_OK);
    EXPECT_EQ(shmnm_getclstat(&clstat), SHMNM_OK);
    EXPECT_EQ(clstat, 11u);
    ASSERT_EQ(shmnm_detach(), SHMNM_OK);
    heir.kill();
    EXPECT_EQ(shmnm_attach(), SHMNM_ERR_OPENMAP);
}

}  // namespace
