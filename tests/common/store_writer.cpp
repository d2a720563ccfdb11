// Writes one settings value over and over, alternating "new" and "old", until killed; says
// "ready" on standard output after the first complete write.
#include "CommonFunctions.h"

#include <cstdio>

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    for (unsigned long round = 0; argc == 2; ++round) {
        WriteConfigure("State", "Value", round % 2 ? "old" : "new",
                       QString::fromLocal8Bit(argv[1]));
        if (round == 0)
            std::fputs("ready\n", stdout);
    }
    return 2;
}
