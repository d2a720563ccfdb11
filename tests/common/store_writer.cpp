// Writes settings values and copies for the store's tests.
//   store_writer FILE: writes one value over and over, alternating "new" and "old", until killed;
//     says "ready" on standard output after the first complete write.
//   store_writer FILE SECTION KEY VALUE: writes that one value once.
//   store_writer --copy SOURCE TARGET: copies a file or a tree; status 0 when copied, 1 if not.
#include "CommonFunctions.h"

#include <cstdio>

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    if (argc == 4 && QString(argv[1]) == "--copy")
        return CCommonFunctions::MXPSCopyFile(QString::fromLocal8Bit(argv[2]),
                                              QString::fromLocal8Bit(argv[3]))
                   ? 0
                   : 1;
    if (argc == 5) {
        WriteConfigure(argv[2], argv[3], QVariant(QString::fromLocal8Bit(argv[4])),
                       QString::fromLocal8Bit(argv[1]));
        return 0;
    }
    for (unsigned long round = 0; argc == 2; ++round) {
        WriteConfigure("State", "Value", round % 2 ? "old" : "new",
                       QString::fromLocal8Bit(argv[1]));
        if (round == 0)
            std::fputs("ready\n", stdout);
    }
    return 2;
}
