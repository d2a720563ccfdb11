// Test helper: writes one settings value over and over, alternating "old" and "new", until it is
// killed. After the first complete write it says "ready" on standard output.
#include "CommonFunctions.h"

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    const QString file = QString::fromLocal8Bit(argv[1]);
    for (unsigned long round = 0;; ++round) {
        WriteConfigure("State", "Value", round % 2 == 0 ? "new" : "old", file);
        if (round == 0) {
            std::fputs("ready\n", stdout);
            std::fflush(stdout);
        }
    }
}
