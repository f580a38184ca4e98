// What a program prints that cannot load the library, if the kernel objects explain why.
#include <gtest/gtest.h>

#include "shmnm.h"
#include "support/child.h"
#include "support/dynamic_library.h"
#include "support/program.h"

namespace {

TEST(RefusedLoad, TellsWhatToMend) {
    ASSERT_EQ(shmnm_setwaitstat(1), SHMNM_ERR_NOTINIT) << "this program has loaded the library";
    const test::ScopedEnvironment folder("KZMKERNEL_FOLDER", "relative");
    const test::ProgramResult refused = test::run_program(test::own_folder() + "load_explained_test", "2>&1");
    EXPECT_EQ(refused.status, 127);
    EXPECT_EQ(refused.output,
              "kzmshmnm: not loaded: no mutex oru_kzmshmnm_lock (error 123): KZMKERNEL_FOLDER=relative is not the full "
              "path of a folder: mend it or unset it\n");
}

}  // namespace
