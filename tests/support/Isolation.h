// Private namespaces for the tests: every test program runs itself in them (tests/isolated.sh),
// so that the agent's fixed places (TCP port 31334, /tmp/RAVEL_tmp, the data root under
// /usr/local) are its own, however it is started: by CTest, by hand, or from a debugger.
#pragma once

// Re-executes this program under tests/isolated.sh unless it runs there already, and does not
// return then. Returns when it runs isolated, or when the namespaces cannot be made here (not
// root, or a root that is not a mount point); a note on standard error says so.
void EnterIsolation(int argc, char** argv);
// True inside the private namespaces.
bool Isolated();

// In a test that needs the private namespaces: skips it where they cannot be made.
#define RAVEL_REQUIRE_ISOLATION()                                                                  \
    do {                                                                                           \
        if (!Isolated())                                                                           \
            GTEST_SKIP() << "needs private namespaces: run the tests as root";                     \
    } while (0)
