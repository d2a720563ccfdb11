// The main of every test program: first into the private namespaces (Isolation.h). A program
// built with RAVEL_TEST_ALL_ISOLATED uses the agent's fixed places in every case: where the
// namespaces cannot be made, it runs none of them and reports them skipped (CTest then counts each
// as skipped), never running them on the machine's own port and folders.
#include "Isolation.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>

namespace {
[[maybe_unused]] bool Listing(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--gtest_list_tests") == 0)
            return true;
    return false;
}
} // namespace

int main(int argc, char** argv) {
    EnterIsolation(argc, argv);
#ifdef RAVEL_TEST_ALL_ISOLATED
    if (!Isolated() && !Listing(argc, argv)) {
        std::printf("[  SKIPPED ] every case of this program: it needs private namespaces (run "
                    "the tests as root)\n");
        return 0;
    }
#endif
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
