#include "ravel.h"

int main(int argc, char* argv[]) {
    return RavelMain(argc, argv);
}
