#include "Bytes.h"
#include "md5.h"

#include <gtest/gtest.h>

namespace {

std::string Md5Hex(const Bytes& message, size_t piece) {
    md5_context ctx;
    md5_starts(&ctx);
    for (size_t at = 0; at < message.size(); at += piece) {
        size_t n = message.size() - at < piece ? message.size() - at : piece;
        md5_update(&ctx, message.data() + at, (unsigned int)n);
    }
    unsigned char digest[16];
    md5_finish(&ctx, digest);
    return ToHex(digest, 16);
}

std::string Md5Hex(const std::string& text) {
    return Md5Hex(FromText(text), text.empty() ? 1 : text.size());
}

Bytes Pattern(size_t n) {
    Bytes out(n, 0);
    for (size_t i = 0; i < n; ++i)
        out[i] = (unsigned char)(i * 7 + 3);
    return out;
}

} // namespace

TEST(Md5, Rfc1321TestSuite) {
    EXPECT_EQ(Md5Hex(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(Md5Hex("a"), "0cc175b9c0f1b6a831c399e269772661");
    EXPECT_EQ(Md5Hex("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(Md5Hex("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(Md5Hex("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
    EXPECT_EQ(Md5Hex("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
              "d174ab98d277d9f5a5611c2c9f419d9f");
    std::string digits;
    for (int i = 0; i < 8; ++i)
        digits += "1234567890";
    EXPECT_EQ(Md5Hex(digits), "57edf4a22be3c955ac49da2e2107b67a");
}

// Lengths around the padding limits (55, 56, 63, 64 ...) in every piece size give one digest.
TEST(Md5, PiecesGiveTheWholeDigest) {
    for (size_t n : {55u, 56u, 57u, 63u, 64u, 65u, 119u, 120u, 128u, 1000u}) {
        Bytes message = Pattern(n);
        std::string whole = Md5Hex(message, n);
        for (size_t piece : {1u, 3u, 7u, 63u, 64u, 65u, 200u})
            EXPECT_EQ(Md5Hex(message, piece), whole) << n << " bytes in pieces of " << piece;
    }
}

TEST(Md5, CountsBytesAndCarriesIntoTheHighWord) {
    md5_context ctx;
    md5_starts(&ctx);
    md5_update(&ctx, nullptr, 0);
    EXPECT_EQ(ctx.total[0], 0u);
    EXPECT_EQ(ctx.state[0], 0x67452301u);

    Bytes block = Pattern(32);
    ctx.total[0] = 0xFFFFFFF0u; // 16 bytes pending in the buffer, as after 2^32 - 16 bytes
    md5_update(&ctx, block.data(), 32);
    EXPECT_EQ(ctx.total[0], 0x10u);
    EXPECT_EQ(ctx.total[1], 1u);
}
