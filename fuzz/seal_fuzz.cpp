// Sealing: any text as hex and as a sealed text, and sealing round trips of any bytes.
#include "CommonFunctions.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    // The first bytes serve as pass phrase too (it is cut or padded to 24 bytes).
    const std::string phrase = bytes.substr(0, size ? data[0] % 32 : 0);
    Require(HexToStr(bytes).size() == (size + 1) / 2, "HexToStr gives a byte per two characters");
    Require(HexToStr(StrToHex(bytes)) == bytes, "hex round trip");
    Require(Decrypt(bytes, phrase).size() <= size / 2, "Decrypt of any text is no longer than it");
    const std::string sealed = Encrypt(bytes, phrase);
    Require(sealed.size() == 16 + (size + 7) / 8 * 16, "sealed length: IV and whole blocks");
    const size_t kept = bytes.find_last_not_of('\0');
    Require(Decrypt(sealed, phrase) == bytes.substr(0, kept == std::string::npos ? 0 : kept + 1),
            "seal round trip (trailing zeros are padding)");
    return 0;
}
