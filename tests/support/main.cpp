// The main() of every test program. Kernel objects get a namespace of this run's own before anything is loaded, so that
// tests never meet each other or an installation: a program without one starts itself again with one.
#include <gmock/gmock.h>

#include <cstdlib>
#include <string>

#include "support/child.h"
#include "support/child_main.h"
#include "support/child_platform.h"

// For the thread sanitizer, which does not know pthread_mutex_clocklock() and takes what it locked for not locked.
extern "C" const char* __tsan_default_options();
const char* __tsan_default_options() {
    return "report_mutex_bugs=0";
}

int main(int argc, char** argv) {
    if (!std::getenv("KZMUTIL_NAMESPACE")) {
        test::set_environment("KZMUTIL_NAMESPACE", ("test-" + std::to_string(test::process_id()) + "-").c_str());
        return test::run_again(argc, argv);
    }
    if (test::run_as_child(argc, argv)) return 0;
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
