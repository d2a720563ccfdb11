// Sealing: any text as hex and as a sealed text, and sealing round trips of any bytes.
#include "CommonFunctions.h"

#include <cstdio>
#include <cstdlib>

namespace {

void Check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "seal fault: %s\n", what);
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    // The first bytes serve as pass phrase too (it is cut or padded to 24 bytes).
    const std::string phrase = bytes.substr(0, size ? data[0] % 32 : 0);
    Check(HexToStr(bytes).size() == (size + 1) / 2, "HexToStr gives a byte per two characters");
    Check(HexToStr(StrToHex(bytes)) == bytes, "hex round trip");
    Check(Decrypt(bytes, phrase).size() <= size / 2, "Decrypt of any text is no longer than it");
    const std::string sealed = Encrypt(bytes, phrase);
    Check(sealed.size() == 16 + (size + 7) / 8 * 16, "sealed length: IV and whole blocks");
    const size_t kept = bytes.find_last_not_of('\0');
    Check(Decrypt(sealed, phrase) == bytes.substr(0, kept == std::string::npos ? 0 : kept + 1),
          "seal round trip (trailing zeros are padding)");
    return 0;
}
